// See histogram.h.
#include "histogram.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace receiver {

void value_histogram::count(uint64_t value)
{
    counts_(value);
    ++total_;
    min_ = std::min(min_, value);
    max_ = std::max(max_, value);
    sum_ += static_cast<double>(value);
}

// The least value that at least this share of all values does not exceed, as near
// as its bin tells.
uint64_t value_histogram::percentile(double share) const
{
    const auto rank =
        static_cast<uint64_t>(std::ceil(share * static_cast<double>(total_)));
    uint64_t below = 0;
    for (int i = 0; i < counts_.axis().size(); ++i) {
        below += counts_.at(i);
        if (below < rank)
            continue;
        const auto [low, high] = log_linear_axis::range(i);
        return std::clamp(low + (high - low) / 2, min_, max_);
    }
    return max_;
}

distribution value_histogram::result() const
{
    distribution result;
    if (total_ == 0)
        return result;
    result.count = total_;
    result.min = min_;
    result.max = max_;
    result.mean = sum_ / static_cast<double>(total_);
    result.p50 = percentile(0.5);
    result.p90 = percentile(0.9);
    result.p99 = percentile(0.99);
    result.p999 = percentile(0.999);
    const log_linear_axis axis;
    for (int i = axis.index(min_); i <= axis.index(max_); ++i) {
        const auto [low, high] = log_linear_axis::range(i);
        const uint64_t end = high == UINT64_MAX ? high : high + 1;
        result.bins.push_back({low, end, counts_.at(i)});
    }
    return result;
}

} // namespace receiver
