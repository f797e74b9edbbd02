// What the benchmarks' own ends of a connection share: calls that must succeed,
// addresses of this machine, and the receiver's place in the row. The calls are the
// bare ones of the C library, because some of them are what is measured.
#pragma once

#include <cerrno>
#include <cstdint>
#include <iostream>
#include <string>
#include <system_error>

#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>

namespace bench {

// Throws std::system_error of errno and the name of the call.
[[noreturn]] inline void fail(const char* what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// What the call returned. Throws std::system_error with its name when that is -1.
inline int checked(int rc, const char* what)
{
    if (rc == -1)
        fail(what);
    return rc;
}

inline sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Gives a socket a free port on loopback. Throws std::system_error.
inline uint16_t bind_anywhere(int fd)
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    checked(::bind(fd, generic, length), "bind");
    checked(::getsockname(fd, generic, &length), "getsockname");
    return ntohs(address.sin_port);
}

// As the sender takes it on its command line.
inline std::string endpoint(uint16_t port) { return "127.0.0.1:" + std::to_string(port); }

// The receiver shares its processor with the sender's reading thread, which spins.
// Where it is allowed, it goes first there, so that all senders meet the same one.
// What it starts does not inherit that.
inline void put_first()
{
    const sched_param priority{1};
    if (::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &priority) == -1)
        std::cerr << "no real-time priority; the receiver may lag\n";
}

} // namespace bench
