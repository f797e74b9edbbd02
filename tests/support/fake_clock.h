// A clock that the test owns: gettimeofday tells its time, and only what the
// test arranges moves it on.
#pragma once

#include <cstdint>

#include <sys/time.h>

#include "support/call_seam.h"

namespace support {

class fake_clock {
public:
    explicit fake_clock(int64_t start_us) : now_us(start_us) {}

    static timeval time_of(int64_t us)
    {
        return {
            static_cast<time_t>(us / 1000000), static_cast<suseconds_t>(us % 1000000)};
    }

    int64_t now_us;
    int64_t per_reading_us = 0; // how far a reading moves the clock on, after it
    int64_t per_yield_us = 1;   // how far a sched_yield does
    int readings = 0;
    int yields = 0;

private:
    scoped_call<call::gettimeofday> reading_{[this](timeval* time, void*) {
        *time = time_of(now_us);
        now_us += per_reading_us;
        ++readings;
        return 0;
    }};
    scoped_call<call::sched_yield> yield_{[this] {
        now_us += per_yield_us;
        ++yields;
        return 0;
    }};
};

} // namespace support
