// A seam under the C library and libpcap: the test program defines the calls
// listed here itself, so that the code under test, libstdc++ and libpcap all
// come through it, and a test can replace any of them for a while.
// Hooks run on whichever thread makes the call.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <pcap/pcap.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

// Each entry: name, result, parameters, arguments. fcntl has its three-argument
// form alone; a caller that gives two leaves the third undefined, as ever.
#define SUPPORT_SEAM_CALLS(X)                                                            \
    X(socket, int, (int domain, int kind, int protocol), (domain, kind, protocol))       \
    X(fcntl, int, (int fd, int command, long argument), (fd, command, argument))         \
    X(setsockopt, int,                                                                   \
      (int fd, int level, int option, const void* value, socklen_t length),              \
      (fd, level, option, value, length))                                                \
    X(bind, int, (int fd, const sockaddr* address, socklen_t length),                    \
      (fd, address, length))                                                             \
    X(listen, int, (int fd, int backlog), (fd, backlog))                                 \
    X(accept, int, (int fd, sockaddr* address, socklen_t* length),                       \
      (fd, address, length))                                                             \
    X(send, ssize_t, (int fd, const void* buffer, size_t length, int flags),             \
      (fd, buffer, length, flags))                                                       \
    X(sendto, ssize_t,                                                                   \
      (int fd, const void* buffer, size_t length, int flags, const sockaddr* address,    \
       socklen_t address_length),                                                        \
      (fd, buffer, length, flags, address, address_length))                              \
    X(recvfrom, ssize_t,                                                                 \
      (int fd, void* buffer, size_t length, int flags, sockaddr* address,                \
       socklen_t* address_length),                                                       \
      (fd, buffer, length, flags, address, address_length))                              \
    X(poll, int, (pollfd * fds, nfds_t count, int timeout), (fds, count, timeout))       \
    X(epoll_create, int, (int size), (size))                                             \
    X(epoll_ctl, int, (int epoll_fd, int operation, int fd, epoll_event* event),         \
      (epoll_fd, operation, fd, event))                                                  \
    X(epoll_wait, int, (int epoll_fd, epoll_event* events, int capacity, int timeout),   \
      (epoll_fd, events, capacity, timeout))                                             \
    X(eventfd, int, (unsigned int value, int flags), (value, flags))                     \
    X(read, ssize_t, (int fd, void* buffer, size_t length), (fd, buffer, length))        \
    X(write, ssize_t, (int fd, const void* buffer, size_t length), (fd, buffer, length)) \
    X(close, int, (int fd), (fd))                                                        \
    X(gettimeofday, int, (timeval * now, void* zone), (now, zone))                       \
    X(sched_yield, int, (), ())                                                          \
    X(stat, int, (const char* path, struct ::stat* result), (path, result))              \
    X(scandir, int,                                                                      \
      (const char* path, dirent*** entries, int (*select)(const dirent*),                \
       int (*compare)(const dirent**, const dirent**)),                                  \
      (path, entries, select, compare))                                                  \
    X(fopen, FILE*, (const char* path, const char* mode), (path, mode))                  \
    X(fclose, int, (FILE * file), (file))                                                \
    X(lseek, off_t, (int fd, off_t offset, int whence), (fd, offset, whence))            \
    X(pthread_join, int, (pthread_t thread, void** result), (thread, result))            \
    X(nanosleep, int, (const timespec* time, timespec* left), (time, left))              \
    X(clock_nanosleep, int,                                                              \
      (clockid_t clock, int flags, const timespec* time, timespec* left),                \
      (clock, flags, time, left))                                                        \
    X(pcap_open_offline, pcap_t*, (const char* path, char* error), (path, error))        \
    X(pcap_datalink, int, (pcap_t * capture), (capture))                                 \
    X(pcap_datalink_val_to_name, const char*, (int type), (type))                        \
    X(pcap_datalink_val_to_description, const char*, (int type), (type))                 \
    X(pcap_setfilter, int, (pcap_t * capture, bpf_program * program),                    \
      (capture, program))                                                                \
    X(pcap_next, const unsigned char*, (pcap_t * capture, pcap_pkthdr * header),         \
      (capture, header))

// Second names of the calls above, under which headers or libraries built for
// large files reach them; both names lead to the first one's hook.
#define SUPPORT_SEAM_SECOND_NAMES(X)                                                     \
    X(fcntl64, fcntl)                                                                    \
    X(stat64, stat)                                                                      \
    X(scandir64, scandir)                                                                \
    X(fopen64, fopen)                                                                    \
    X(lseek64, lseek)

namespace support {

// The calls, as types to name them by.
namespace call {

#define SUPPORT_SEAM_TYPE(NAME, RESULT, PARAMETERS, ARGUMENTS)                           \
    struct NAME {                                                                        \
        using signature = RESULT PARAMETERS;                                             \
    };
SUPPORT_SEAM_CALLS(SUPPORT_SEAM_TYPE)
#undef SUPPORT_SEAM_TYPE

#define SUPPORT_SEAM_SECOND_TYPE(NAME, FIRST) using NAME = FIRST;
SUPPORT_SEAM_SECOND_NAMES(SUPPORT_SEAM_SECOND_TYPE)
#undef SUPPORT_SEAM_SECOND_TYPE

} // namespace call

namespace details {

template <class Call>
using hook_t = std::function<typename Call::signature>;

// The hook in force, null for none. Written by the test's guards, read by
// every thread that makes the call.
template <class Call>
inline constinit std::atomic<const hook_t<Call>*> hook_{nullptr};

// Calls that are looking at a hook just now; a guard goes away only at zero.
template <class Call>
inline constinit std::atomic<int> users_{0};

template <class Call>
typename Call::signature* real_function();

#define SUPPORT_SEAM_REAL(NAME, RESULT, PARAMETERS, ARGUMENTS)                           \
    template <>                                                                          \
    call::NAME::signature* real_function<call::NAME>();
SUPPORT_SEAM_CALLS(SUPPORT_SEAM_REAL)
#undef SUPPORT_SEAM_REAL

} // namespace details

// Replaces one call from construction to destruction; guards of one call nest.
// The destructor waits for calls that are still inside a hook of this call.
template <class Call>
class scoped_call {
public:
    explicit scoped_call(details::hook_t<Call> hook)
        : hook_(std::move(hook)), outer_(details::hook_<Call>.exchange(&hook_))
    {}

    // Storing and then counting, in the one total order, pairs with counting
    // and then loading in the call: either it sees no hook or is waited for.
    ~scoped_call()
    {
        details::hook_<Call>.store(outer_);
        while (details::users_<Call>.load() != 0) {
        }
    }

    scoped_call(const scoped_call&) = delete;
    scoped_call& operator=(const scoped_call&) = delete;

private:
    details::hook_t<Call> hook_;
    const details::hook_t<Call>* outer_;
};

// The library's own call, past any hook.
template <class Call, class... Args>
auto real(Args&&... args)
{
    return details::real_function<Call>()(std::forward<Args>(args)...);
}

} // namespace support
