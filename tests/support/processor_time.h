// How much of a processor's time this process has used: unlike the time of day it does
// not go on while others have the processor.
#pragma once

#include <chrono>

#include <time.h>

namespace support {

inline std::chrono::nanoseconds processor_time()
{
    timespec time = {};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time); // cannot fail for this clock
    return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

} // namespace support
