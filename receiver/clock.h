// The clocks, in nanoseconds.
#pragma once

#include <cstdint>
#include <ctime>

namespace receiver {

inline uint64_t read_clock(clockid_t clock)
{
    timespec now{};
    (void)::clock_gettime(clock, &now); // cannot fail for the clocks used here
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 +
           static_cast<uint64_t>(now.tv_nsec);
}

inline uint64_t now_ns() { return read_clock(CLOCK_MONOTONIC); }

} // namespace receiver
