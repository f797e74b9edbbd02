// Descriptors and loopback sockets for tests: owned, closed at the end of their
// scope, on ports that the kernel picks.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "support/call_seam.h"

namespace support {

// Owns one descriptor. It makes real calls, past the hooks of a test.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    ~unique_fd() { reset(); }
    unique_fd(unique_fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        reset(std::exchange(other.fd_, -1));
        return *this;
    }

    int get() const { return fd_; }
    void reset(int fd = -1)
    {
        if (fd_ != -1)
            real<call::close>(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

inline bool is_open(int fd) { return real<call::fcntl>(fd, F_GETFD, 0L) != -1; }

// Two connected stream sockets.
class socket_pair {
public:
    explicit socket_pair(int kind = SOCK_STREAM)
    {
        int fds[2] = {-1, -1};
        EXPECT_EQ(::socketpair(AF_UNIX, kind, 0, fds), 0);
        near_.reset(fds[0]);
        far_.reset(fds[1]);
    }
    int near() const { return near_.get(); }
    int far() const { return far_.get(); }
    void close_far() { far_.reset(); }

private:
    unique_fd near_;
    unique_fd far_;
};

inline sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

inline const sockaddr* as_sockaddr(const sockaddr_in& address)
{
    return reinterpret_cast<const sockaddr*>(&address);
}

inline uint16_t local_port(int fd)
{
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

// A socket on the loopback address and a port of the kernel's choice.
inline unique_fd bound_socket(int kind)
{
    unique_fd fd(real<call::socket>(AF_INET, kind, 0));
    const sockaddr_in address = loopback(0);
    EXPECT_EQ(
        real<call::bind>(fd.get(), as_sockaddr(address), socklen_t{sizeof address}), 0);
    return fd;
}

inline unique_fd connected_to(uint16_t port)
{
    unique_fd fd(real<call::socket>(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(port);
    EXPECT_EQ(::connect(fd.get(), as_sockaddr(address), sizeof address), 0);
    return fd;
}

// The port of the one socket of this process that listens, 0 while there is none. One
// that came from the parent stays out of it: only such a one is left open on exec.
inline uint16_t listening_port()
{
    for (int fd = 0; fd < 1024; ++fd) {
        int listens = 0;
        socklen_t length = sizeof listens;
        if (::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 &&
            listens == 1 && real<call::fcntl>(fd, F_GETFD, 0L) == FD_CLOEXEC)
            return local_port(fd);
    }
    return 0;
}

inline bool is_readable(int fd, int timeout_ms = 0)
{
    pollfd wanted = {fd, POLLIN, 0};
    return real<call::poll>(&wanted, nfds_t{1}, timeout_ms) == 1;
}

// Exactly `length` bytes of a stream, or fewer when it ends or stays silent.
inline std::string receive_exactly(int fd, size_t length)
{
    std::string received(length, '\0');
    size_t have = 0;
    while (have < length && is_readable(fd, 60000)) {
        const ssize_t n = ::recv(fd, received.data() + have, length - have, 0);
        if (n <= 0)
            break;
        have += static_cast<size_t>(n);
    }
    received.resize(have);
    return received;
}

// One datagram, empty when none comes.
inline std::string receive_datagram(int fd)
{
    std::string received(65536, '\0');
    if (!is_readable(fd, 60000))
        return {};
    const ssize_t n = ::recv(fd, received.data(), received.size(), 0);
    received.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return received;
}

} // namespace support
