// libpcap's filter scanner cannot do without memory: for three of its allocations it
// ends the process, and over a fourth it falls. Nobody but libpcap can prevent that,
// so tests that let each allocation fail expect these ends, and no more of them.
#pragma once

#include <algorithm>
#include <csignal>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/allocation_seam.h"

namespace support {

inline bool is_exit_of_the_scanner(const process_end& end)
{
    return end.status == 2 && end.errors.rfind("out of dynamic memory in yy", 0) == 0;
}

// A null pointer of its own. A sanitizer says where, and exits by itself.
inline bool is_crash_of_the_scanner(const process_end& end)
{
    if (end.signal == SIGSEGV)
        return end.errors.empty();
    return end.signal == 0 && end.errors.find("SEGV") != std::string::npos &&
           end.errors.find("libpcap") != std::string::npos;
}

inline bool is_end_by_the_scanner(const process_end& end)
{
    return is_exit_of_the_scanner(end) || is_crash_of_the_scanner(end);
}

// Of one sweep over all allocations: leaves the ends that are not libpcap's.
inline void take_out_ends_by_the_scanner(std::vector<process_end>& ends)
{
    EXPECT_LE(std::count_if(ends.begin(), ends.end(), is_crash_of_the_scanner), 1);
    EXPECT_LE(std::count_if(ends.begin(), ends.end(), is_end_by_the_scanner), 4);
    std::erase_if(ends, is_end_by_the_scanner);
}

} // namespace support
