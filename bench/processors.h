// Which processors the benchmarks' threads run on: the measured one has the machine's
// last one for itself, everything else shares the others.
#pragma once

#include <cerrno>
#include <system_error>

#include <sched.h>

namespace bench {

inline cpu_set_t allowed_processors()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (::sched_getaffinity(0, sizeof(allowed), &allowed) == -1)
        throw std::system_error(errno, std::generic_category(), "sched_getaffinity");
    return allowed;
}

inline int measured_processor()
{
    static const cpu_set_t allowed = allowed_processors();
    int last = CPU_SETSIZE - 1;
    while (!CPU_ISSET(static_cast<size_t>(last), &allowed))
        --last;
    return last;
}

// Places a thread, or with 0 the calling one; the threads that it starts from then on
// inherit the place. Throws std::system_error.
inline void pin(pid_t tid, bool measured)
{
    static const cpu_set_t allowed = allowed_processors();
    const auto own = static_cast<size_t>(measured_processor());
    cpu_set_t wanted = allowed;
    if (CPU_COUNT(&allowed) > 1)
        CPU_CLR(own, &wanted);
    if (measured) {
        CPU_ZERO(&wanted);
        CPU_SET(own, &wanted);
    }
    if (::sched_setaffinity(tid, sizeof(wanted), &wanted) == -1)
        throw std::system_error(errno, std::generic_category(), "sched_setaffinity");
}

} // namespace bench
