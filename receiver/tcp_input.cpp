// See tcp_input.h.
#include "tcp_input.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>

#include "clock.h"
#include "stream_verifier.h"

namespace receiver {

namespace {

constexpr size_t KEPT = stream_verifier::KEPT_HISTORY;
constexpr size_t BUFFER = size_t{1024} * 1024;
constexpr size_t LEAST_ROOM = size_t{256} * 1024;
constexpr std::chrono::milliseconds RETRY_PAUSE{10};
constexpr std::chrono::milliseconds LONGEST_WAIT{100};

// With nobody listening on a port of this machine, the kernel may pick that very
// port for the connecting side, which then meets itself.
bool meets_itself(int fd)
{
    sockaddr_in here{};
    sockaddr_in there{};
    socklen_t length = sizeof(here);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&here), &length) != 0)
        return false;
    length = sizeof(there);
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&there), &length) != 0)
        return false;
    return here.sin_port == there.sin_port &&
           here.sin_addr.s_addr == there.sin_addr.s_addr;
}

// Closed in the ordinary way, the port would stay taken for a minute, and the sender
// could not listen on it.
void release_port(int fd)
{
    const linger at_once{1, 0};
    (void)::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}

// Waits until the connection is there or is not: 0 or the error.
int connect_result(
    int fd, std::chrono::steady_clock::time_point deadline,
    const std::function<bool()>& stopped)
{
    pollfd done{fd, POLLOUT, 0};
    while (::poll(&done, 1, static_cast<int>(LONGEST_WAIT.count())) != 1) {
        if (stopped() || std::chrono::steady_clock::now() >= deadline)
            return ETIMEDOUT;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    (void)::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    return error;
}

} // namespace

tcp_input::tcp_input(
    const std::string& ip, uint16_t port, double timeout_s, uint64_t receive_buffer,
    const std::function<bool()>& stopped)
    : receive_buffer_(receive_buffer), buffer_(BUFFER)
{
    const sockaddr_in address = to_address(ip, port);
    const auto deadline = clock::now() + std::chrono::nanoseconds(to_ns(timeout_s));
    while (!stopped()) {
        if (try_connect(address, deadline, stopped))
            return;
        if (clock::now() >= deadline)
            throw connection_error(fmt::format(
                "cannot connect to {}:{} within {} s: {}. Is the sender running, with the "
                "same --ip and --port?",
                ip, port, timeout_s, std::strerror(last_error_)));
        std::this_thread::sleep_for(RETRY_PAUSE);
    }
}

bool tcp_input::try_connect(
    const sockaddr_in& address, clock::time_point deadline,
    const std::function<bool()>& stopped)
{
    socket_handle candidate(
        ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    if (candidate.get() == -1)
        throw connection_error(
            fmt::format("cannot open a socket: {}", std::strerror(errno)));
    if (receive_buffer_ != 0)
        (void)set_receive_buffer(candidate.get(), receive_buffer_);

    last_error_ = 0;
    if (::connect(
            candidate.get(), reinterpret_cast<const sockaddr*>(&address),
            sizeof(address)) != 0)
        last_error_ = errno;
    if (last_error_ == EINPROGRESS)
        last_error_ = connect_result(candidate.get(), deadline, stopped);
    if (last_error_ == 0 && meets_itself(candidate.get())) {
        release_port(candidate.get());
        last_error_ = ECONNREFUSED;
    }
    if (last_error_ != 0)
        return false;
    socket_ = std::move(candidate);
    return true;
}

tcp_input::state tcp_input::receive(size_t most)
{
    fresh_ = 0;
    make_room();
    const ssize_t n = ::recv(
        socket_.get(), buffer_.data() + end_, std::min(most, buffer_.size() - end_),
        MSG_DONTWAIT);
    if (n > 0) {
        fresh_ = static_cast<size_t>(n);
        end_ += fresh_;
        return state::data;
    }
    if (n == -1 && (errno == EAGAIN || errno == EINTR))
        return state::nothing;
    if (n == -1)
        error_ = fmt::format("the connection broke: {}", std::strerror(errno));
    return state::closed;
}

// Keeps the latest bytes in front of those that follow.
void tcp_input::make_room()
{
    if (buffer_.size() - end_ >= LEAST_ROOM)
        return;
    std::memmove(buffer_.data(), buffer_.data() + end_ - KEPT, KEPT);
    end_ = KEPT;
}

} // namespace receiver
