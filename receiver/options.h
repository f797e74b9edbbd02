// The command line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "source.h"

namespace receiver {

enum class progress_mode { automatic, always, never };

struct options {
    std::string command; // as typed

    // The sender's own words.
    std::string ip{"127.0.0.1"};
    uint16_t port{9089};
    bool tcp{true};
    std::string device;
    source_options source;  // an empty path: nothing to compare with
    uint64_t wanted_bps{0}; // 0: no rate was asked for

    // The receiver's.
    double connect_timeout_s{10};
    std::optional<uint64_t> receive_buffer; // none: 64 MiB for UDP, the kernel's for TCP
    size_t window{4096};
    double tolerance_percent{0.5};
    double settle_s{0.2};
    double idle_s{2};
    std::optional<double> duration_s;
    std::optional<uint64_t> messages;
    std::optional<uint64_t> bytes;
    progress_mode progress{progress_mode::automatic};
    std::string json; // files: empty for none; "-" is standard output
    std::string csv;
    std::string report;
    std::string write;
    bool plan{false};

    std::vector<std::string> remarks; // for standard error

    bool has_source() const { return !source.path.empty(); }
};

// The command line ends the program: help and the version with status 0 and a text
// for standard output, wrong use with status 2 and one for standard error.
class usage_end : public std::runtime_error {
public:
    usage_end(bool wrong, const std::string& text)
        : std::runtime_error(text), wrong_(wrong)
    {}

    bool is_wrong_use() const { return wrong_; }

private:
    bool wrong_;
};

// Throws usage_end.
options parse_options(int argc, const char* const* argv);

} // namespace receiver
