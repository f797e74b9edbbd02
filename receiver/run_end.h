// When a run is over. Knows neither clock nor socket: times come as arguments, in
// monotonic nanoseconds.
#pragma once

#include <cstdint>
#include <optional>

#include "result.h"

namespace receiver {

struct end_limits {
    uint64_t settle_ns{0};
    uint64_t idle_ns{0};
    std::optional<uint64_t> duration_ns;
    std::optional<uint64_t> messages;
    std::optional<uint64_t> bytes;
};

class run_end {
public:
    run_end(const end_limits& limits, uint64_t start_ns);

    // Something has arrived.
    void arrived(uint64_t now_ns) { last_arrival_ns_ = now_ns; }

    // Everything expected is there, or is not any more.
    void set_complete(uint64_t now_ns, bool complete);

    // Nothing that is expected is still to come, whatever arrives: from now on that
    // counts as silence.
    void set_exhausted(uint64_t now_ns, bool exhausted);

    // The user's own limits are reached.
    std::optional<end_reason> limit(uint64_t messages, uint64_t bytes) const;

    // How many bytes may still come.
    uint64_t bytes_left(uint64_t bytes) const;

    // The time is over, in one way or another.
    std::optional<end_reason> check(uint64_t now_ns) const;

    // When check() may next say so without anything arriving.
    uint64_t next_check_ns() const;

private:
    uint64_t silence_ns() const;

    end_limits limits_;
    uint64_t start_ns_;
    std::optional<uint64_t> last_arrival_ns_;
    std::optional<uint64_t> complete_ns_;
    std::optional<uint64_t> exhausted_ns_;
};

} // namespace receiver
