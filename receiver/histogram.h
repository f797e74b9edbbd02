// Counts values of any size in bins that keep their relation: gaps in nanoseconds,
// message sizes in bytes.
#pragma once

#include <boost/histogram/histogram.hpp>
#include <boost/histogram/storage_adaptor.hpp>
#include <cstdint>
#include <tuple>

#include "log_linear_axis.h"
#include "result.h"

namespace receiver {

class value_histogram {
public:
    value_histogram() : counts_(log_linear_axis()) {}

    void count(uint64_t value);

    distribution result() const;

private:
    uint64_t percentile(double share) const;

    boost::histogram::histogram<
        std::tuple<log_linear_axis>, boost::histogram::dense_storage<uint64_t>>
        counts_;
    uint64_t total_{0};
    uint64_t min_{UINT64_MAX};
    uint64_t max_{0};
    double sum_{0};
};

} // namespace receiver
