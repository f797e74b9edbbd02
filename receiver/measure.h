// Counts and times what arrives: totals, rate, gaps, sizes and the rate over time.
// Stamps come from outside; there is no clock here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "histogram.h"
#include "result.h"

namespace receiver {

// One thread. Memory does not grow with the run: slices of time double in width
// when there are too many of them.
class measure {
public:
    // A message of `size` bytes, received at this time since the epoch. A stamp
    // before the previous one, by a clock that was set back, counts as equal to it.
    void arrived(uint64_t stamp_ns, size_t size)
    {
        bytes_arrived(stamp_ns, size);
        message_complete(stamp_ns, size);
    }

    // The same apart, for a stream: some bytes, and then the messages that have
    // become complete with them.
    void bytes_arrived(uint64_t stamp_ns, size_t count);
    void message_complete(uint64_t stamp_ns, size_t size);

    uint64_t messages() const { return messages_; }
    uint64_t bytes() const { return bytes_; }

    // Payload bits behind the first message over the time since its stamp; 0 while
    // no time has passed.
    double rate_bps() const;

    measurement result() const;

private:
    enum : size_t { MOST_INTERVALS = 2000 };
    enum : uint64_t { FIRST_INTERVAL_NS = 1000000 };

    interval& slice_at(uint64_t stamp_ns);
    void widen_intervals();

    uint64_t messages_{0};
    uint64_t bytes_{0};
    uint64_t begin_ns_{0}; // of the first slice
    uint64_t latest_ns_{0};
    uint64_t first_ns_{0}; // these are of messages
    uint64_t last_ns_{0};
    uint64_t bytes_behind_first_{0};
    value_histogram gaps_;
    value_histogram sizes_;
    uint64_t interval_ns_{FIRST_INTERVAL_NS};
    std::vector<interval> intervals_;
};

// Signed error of a rate against what was asked for, in percent.
inline double rate_error_percent(double rate_bps, double wanted_bps)
{
    return (rate_bps - wanted_bps) / wanted_bps * 100;
}

} // namespace receiver
