// Connects to the sender and takes in its bytes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <netinet/in.h>

#include "socket.h"
#include "source.h"

namespace receiver {

// One thread.
class tcp_input {
public:
    // Tries until the sender listens. `stopped` is asked in between. Throws
    // connection_error when the time is over, and leaves the input unconnected when
    // it was stopped. A receive buffer of 0 leaves that to the kernel.
    tcp_input(
        const std::string& ip, uint16_t port, double timeout_s, uint64_t receive_buffer,
        const std::function<bool()>& stopped);

    bool is_connected() const { return socket_.get() != -1; }
    int fd() const { return socket_.get(); }

    enum class state { data, nothing, closed };

    // Reads what is there, `most` bytes at most, without waiting.
    state receive(size_t most);

    // What the last read brought, and in front of it the bytes that came before.
    bytes_view recent() const { return {buffer_.data(), end_}; }
    size_t fresh() const { return fresh_; }

    // Why the connection broke; empty after an orderly end.
    const std::string& error() const { return error_; }

private:
    using clock = std::chrono::steady_clock;

    bool try_connect(
        const sockaddr_in& address, clock::time_point deadline,
        const std::function<bool()>& stopped);
    void make_room();

    socket_handle socket_;
    uint64_t receive_buffer_;
    int last_error_{0};
    std::vector<uint8_t> buffer_;
    size_t end_{0};
    size_t fresh_{0};
    std::string error_;
};

} // namespace receiver
