// A socket that is closed at the end of its scope, and the errors of the network.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

#include <netinet/in.h>
#include <unistd.h>

namespace receiver {

// The network says no: cannot connect, bind or join. what() tells what to do.
class connection_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class socket_handle {
public:
    socket_handle() = default;
    explicit socket_handle(int fd) : fd_(fd) {}
    ~socket_handle() { reset(); }

    socket_handle(socket_handle&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    socket_handle& operator=(socket_handle&& other) noexcept
    {
        std::swap(fd_, other.fd_);
        return *this;
    }

    int get() const { return fd_; }
    void reset()
    {
        if (fd_ != -1)
            (void)::close(fd_); // nothing was sent
        fd_ = -1;
    }

private:
    int fd_{-1};
};

// The IPv4 address has been checked before.
sockaddr_in to_address(const std::string& ip, uint16_t port);

// Asks for a receive buffer, past the system's limit where that is allowed. Returns
// what was granted, in bytes.
uint64_t set_receive_buffer(int fd, uint64_t bytes);
uint64_t receive_buffer(int fd);

} // namespace receiver
