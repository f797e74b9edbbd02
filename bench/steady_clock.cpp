// The clock that pacing reads while instructions are counted. By itself, so that the
// compiler knows no more of it than of the system's.
#include <cstdint>

#include <sys/time.h>

// Moves on by a millisecond with each reading: every pause then takes the same readings.
extern "C" int gettimeofday(timeval* time, void* /*zone*/) noexcept
{
    static int64_t now_ms = 1000000;
    ++now_ms;
    *time = {now_ms / 1000, now_ms % 1000 * 1000};
    return 0;
}
