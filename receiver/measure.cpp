// See measure.h.
#include "measure.h"

#include <algorithm>

namespace receiver {

void measure::bytes_arrived(uint64_t stamp_ns, size_t count)
{
    if (intervals_.empty()) {
        begin_ns_ = stamp_ns;
        latest_ns_ = stamp_ns;
    }
    latest_ns_ = std::max(latest_ns_, stamp_ns);
    bytes_ += count;
    slice_at(latest_ns_).bytes += count;
}

void measure::message_complete(uint64_t stamp_ns, size_t size)
{
    if (messages_ == 0) {
        first_ns_ = stamp_ns;
        last_ns_ = stamp_ns;
    } else {
        const uint64_t now = std::max(stamp_ns, last_ns_);
        gaps_.count(now - last_ns_);
        last_ns_ = now;
        bytes_behind_first_ += size;
    }
    ++messages_;
    sizes_.count(size);
    ++slice_at(last_ns_).messages;
}

double measure::rate_bps() const
{
    if (last_ns_ == first_ns_)
        return 0;
    return static_cast<double>(bytes_behind_first_) * 8e9 /
           static_cast<double>(last_ns_ - first_ns_);
}

interval& measure::slice_at(uint64_t stamp_ns)
{
    const uint64_t since_begin = stamp_ns - begin_ns_;
    auto slice = static_cast<size_t>(since_begin / interval_ns_);
    for (; slice >= MOST_INTERVALS; slice /= 2)
        widen_intervals();
    if (intervals_.size() <= slice)
        intervals_.resize(slice + 1);
    return intervals_[slice];
}

void measure::widen_intervals()
{
    interval_ns_ *= 2;
    for (size_t i = 0; i < intervals_.size(); ++i) {
        const interval slice = intervals_[i];
        intervals_[i] = {};
        intervals_[i / 2].messages += slice.messages;
        intervals_[i / 2].bytes += slice.bytes;
    }
    intervals_.resize((intervals_.size() + 1) / 2);
}

measurement measure::result() const
{
    measurement result;
    result.messages = messages_;
    result.bytes = bytes_;
    result.first_stamp_ns = first_ns_;
    result.duration_ns = last_ns_ - first_ns_;
    result.rate_bps = rate_bps();
    result.gaps = gaps_.result();
    result.sizes = sizes_.result();
    result.interval_ns = interval_ns_;
    result.intervals = intervals_;
    return result;
}

} // namespace receiver
