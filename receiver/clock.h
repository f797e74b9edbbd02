// The clocks, in nanoseconds.
#pragma once

#include <algorithm>
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

// A span of time, at least 0 seconds. One of more than 126 years counts as that long: a
// clock of 64 bits with a sign still holds the sum of both.
inline uint64_t to_ns(double seconds)
{
    constexpr double LONGEST_S = 4e9;
    return static_cast<uint64_t>(std::min(seconds, LONGEST_S) * 1e9);
}

} // namespace receiver
