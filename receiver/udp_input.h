// Listens for datagrams, with the kernel's receive stamps and its count of drops.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>

#include "socket.h"
#include "source.h"

namespace receiver {

struct received_datagram {
    bytes_view payload;
    uint64_t stamp_ns{0}; // since the epoch
    sockaddr_in from{};
    in_addr to{};
};

// One thread.
class udp_input {
public:
    // Binds to the address, or to the group and joins it, on `device` when one is
    // given. Throws connection_error.
    udp_input(
        const std::string& ip, uint16_t port, const std::string& device,
        uint64_t receive_buffer);

    int fd() const { return socket_.get(); }

    // Takes in what is there, a batch at most, without waiting. Returns how many
    // datagrams that are; the last batch's are then valid.
    size_t receive();
    const received_datagram& at(size_t i) const { return datagrams_[i]; }

    static constexpr size_t BATCH = 64;

    // The latest error of the socket; empty as a rule.
    const std::string& error() const { return error_; }

    uint64_t buffer_granted() const { return buffer_granted_; }

    // Datagrams that this socket has dropped, for want of buffer as a rule.
    uint64_t own_drops() const;

private:
    static constexpr size_t LARGEST = 65536;
    static constexpr size_t CONTROL = 128;

    void bind(const sockaddr_in& address);
    void join(const sockaddr_in& group, const std::string& device);
    void enable(int level, int option, const char* what);
    void prepare_batch();
    void read_control(msghdr& header, received_datagram& datagram);

    socket_handle socket_;
    uint64_t buffer_granted_{0};
    uint64_t own_drops_{0};
    std::string error_;
    in_addr bound_{};
    std::vector<uint8_t> payloads_;
    struct alignas(cmsghdr) control_data {
        char bytes[CONTROL];
    };
    std::array<control_data, BATCH> control_{};
    std::array<iovec, BATCH> pieces_{};
    std::array<mmsghdr, BATCH> headers_{};
    std::array<received_datagram, BATCH> datagrams_{};
};

} // namespace receiver
