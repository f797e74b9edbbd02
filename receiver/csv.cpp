// Times are exact decimals of the nanoseconds; rates are rounded to bits per second.
#include "csv.h"

#include <cstdint>
#include <iterator>
#include <vector>

#include <fmt/format.h>

namespace receiver {

std::string intervals_csv(const measurement& measured)
{
    constexpr uint64_t SECOND = 1'000'000'000;
    std::string text = "time_s,messages,bytes,mbps\n";
    uint64_t start = 0;
    for (const interval& slice : measured.intervals) {
        // Bits per nanosecond are gigabits per second.
        const double mbps = static_cast<double>(slice.bytes) * 8e3 /
                            static_cast<double>(measured.interval_ns);
        fmt::format_to(
            std::back_inserter(text), "{}.{:09},{},{},{:.6f}\n", start / SECOND,
            start % SECOND, slice.messages, slice.bytes, mbps);
        start += measured.interval_ns;
    }
    return text;
}

} // namespace receiver
