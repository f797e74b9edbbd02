// Arbitrary bytes as a capture. The last byte of an input picks the filter, so that
// what is in front of it is a capture as it stands.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "capture_checks.h"
#include "memory_file.h"

namespace {

constexpr size_t LONGEST_INPUT = 256 * 1024;

// The last two are refused, so that all frames come.
constexpr const char* FILTERS[] = {
    "udp",
    "tcp",
    "udp or tcp",
    "not tcp and not (vlan or udp )",
    "tcp[13] & 8 != 0 and tcp ",
    "vlan and udp",
    "udp and (",
    "tcp and host",
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzz::memory_file file;
    if (size == 0)
        return 0;
    const char* filter = FILTERS[data[size - 1] % std::size(FILTERS)];
    file.write({reinterpret_cast<const char*>(data), std::min(size - 1, LONGEST_INPUT)});
    (void)fuzz::check_capture(file.path(), filter); // checks for itself
    return 0;
}
