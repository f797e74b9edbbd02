// Collects faults: joins neighbours into runs, counts all and keeps the first.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <tuple>
#include <utility>
#include <vector>

#include "result.h"

namespace receiver {

class fault_log {
public:
    enum : size_t { KEPT_FAULTS = 1000 };

    // Adds a fault as it is.
    void add(fault f)
    {
        counts_[static_cast<size_t>(f.kind)] += f.length;
        keep(std::move(f));
    }

    // Adds a fault over datagrams, which may continue the latest of its kind.
    void add_to_run(fault f)
    {
        counts_[static_cast<size_t>(f.kind)] += f.length;
        fault& run = runs_[static_cast<size_t>(f.kind)];
        if (run.length != 0 && continues(run, f)) {
            run.length += f.length;
            return;
        }
        if (run.length != 0)
            keep(std::move(run));
        run = std::move(f);
    }

    // All faults so far, an unfinished run counting as one.
    uint64_t fault_count() const
    {
        const auto open = std::count_if(
            runs_.begin(), runs_.end(), [](const fault& run) { return run.length != 0; });
        return count_ + static_cast<uint64_t>(open);
    }

    // Moves everything into the result, in order of position.
    void finish(verification& result)
    {
        for (fault& run : runs_) {
            if (run.length != 0)
                keep(std::exchange(run, no_run()));
        }
        sort_kept();
        result.counts = counts_;
        result.fault_count = count_;
        result.faults = std::move(kept_);
    }

private:
    static bool continues(const fault& run, const fault& f)
    {
        const bool next_arrival =
            f.arrival == (f.arrival == 0 ? 0 : run.arrival + run.length);
        switch (f.kind) {
        case fault_kind::lost:
        case fault_kind::duplicated:
        case fault_kind::reordered:
            return next_arrival && f.message == run.message + run.length;
        case fault_kind::unexpected:
            return next_arrival && f.message == run.message;
        default:
            return false; // each of these shows its own bytes
        }
    }

    void keep(fault&& f)
    {
        ++count_;
        kept_.push_back(std::move(f));
        if (kept_.size() == 2 * KEPT_FAULTS)
            sort_kept(); // faults come nearly, but not quite, in order
    }

    // Leaves the first ones.
    void sort_kept()
    {
        std::stable_sort(
            kept_.begin(), kept_.end(), [](const fault& left, const fault& right) {
                return std::tie(left.message, left.arrival, left.offset) <
                       std::tie(right.message, right.arrival, right.offset);
            });
        kept_.resize(std::min<size_t>(kept_.size(), KEPT_FAULTS));
    }

    static fault no_run()
    {
        fault none;
        none.length = 0;
        return none;
    }

    std::array<uint64_t, FAULT_NAMES.size()> counts_{};
    uint64_t count_{0};
    std::vector<fault> kept_;
    // By kind: the run that the next fault may continue, length 0 for none.
    std::array<fault, FAULT_NAMES.size()> runs_{no_run(), no_run(), no_run(),
                                                no_run(), no_run(), no_run()};
};

} // namespace receiver
