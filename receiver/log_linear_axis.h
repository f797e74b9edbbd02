// An axis for Boost.Histogram that spans all 64-bit values: exact below 256, and
// in bins of at most 1/128 of their value above.
#pragma once

#include <bit>
#include <cstdint>
#include <utility>

namespace receiver {

class log_linear_axis {
public:
    int index(uint64_t value) const
    {
        if (value < uint64_t{2} * STEPS)
            return static_cast<int>(value);
        const int shift = static_cast<int>(std::bit_width(value)) - STEP_BITS - 1;
        return shift * STEPS + static_cast<int>(value >> static_cast<unsigned>(shift));
    }

    int size() const { return index(UINT64_MAX) + 1; }

    // From the first value of a bin to the last.
    static std::pair<uint64_t, uint64_t> range(int index)
    {
        if (index < 2 * STEPS)
            return {static_cast<uint64_t>(index), static_cast<uint64_t>(index)};
        const int shift = index / STEPS - 1;
        const uint64_t low = static_cast<uint64_t>(index - shift * STEPS)
                             << static_cast<unsigned>(shift);
        return {low, low + ((uint64_t{1} << static_cast<unsigned>(shift)) - 1)};
    }

private:
    enum : int { STEP_BITS = 7, STEPS = 1 << STEP_BITS };
};

} // namespace receiver
