// The sender's own main(), run within this process up to the point where it would
// open its endpoint.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz {

// What main() hands to a replay.
struct replay_order {
    bool captures{false};
    std::string address;
    std::string path;
    bool tcp{false};
    uint32_t passes{0};
    bool preload{false};
    uint64_t speed{0};
    std::string device;
    std::string filter;
};

struct sender_run {
    std::string output;                // on standard output
    std::optional<replay_order> order; // none when main() ended before
    bool debug{false};
};

// A line each, the first of them the program's own name. A word ends at a zero byte,
// too. No line, no words.
std::vector<std::string> words_of(std::string_view text);

sender_run run_sender(const std::vector<std::string>& words);

} // namespace fuzz
