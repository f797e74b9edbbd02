// See udp_input.h.
#include "udp_input.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <arpa/inet.h>
#include <fmt/format.h>
#include <linux/sock_diag.h>
#include <net/if.h>

namespace receiver {

namespace {

std::string text_of(const std::string& ip, uint16_t port)
{
    return fmt::format("{}:{}", ip, port);
}

std::string advice_for_bind(int error)
{
    switch (error) {
    case EADDRINUSE:
        return "Another program listens there; end it or choose another --port.";
    case EADDRNOTAVAIL:
        return "The address is none of this machine's; give --ip as the sender's target here.";
    case EACCES:
        return "Ports below 1024 need CAP_NET_BIND_SERVICE.";
    default:
        return "Check --ip and --port.";
    }
}

uint64_t to_ns(const timespec& time)
{
    return static_cast<uint64_t>(time.tv_sec) * 1000000000 +
           static_cast<uint64_t>(time.tv_nsec);
}

template <class value_t>
value_t read_value(const cmsghdr* control)
{
    value_t value{};
    std::memcpy(&value, CMSG_DATA(control), sizeof(value));
    return value;
}

} // namespace

udp_input::udp_input(
    const std::string& ip, uint16_t port, const std::string& device,
    uint64_t receive_buffer)
    : socket_(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP)),
      payloads_(BATCH * LARGEST)
{
    if (socket_.get() == -1)
        throw connection_error(
            fmt::format("cannot open a socket: {}", std::strerror(errno)));
    const sockaddr_in address = to_address(ip, port);
    const bool is_group = IN_MULTICAST(ntohl(address.sin_addr.s_addr));
    buffer_granted_ = set_receive_buffer(socket_.get(), receive_buffer);
    enable(SOL_SOCKET, SO_TIMESTAMPNS, "receive stamps");
    enable(SOL_SOCKET, SO_RXQ_OVFL, "a count of drops");
    enable(IPPROTO_IP, IP_PKTINFO, "target addresses");
    if (is_group) {
        enable(SOL_SOCKET, SO_REUSEADDR, "a shared port");
        const int only_joined = 0; // and not what others on this machine have joined
        (void)::setsockopt(
            socket_.get(), IPPROTO_IP, IP_MULTICAST_ALL, &only_joined,
            sizeof(only_joined));
    }
    bind(address);
    if (is_group)
        join(address, device);
    bound_ = address.sin_addr;
}

void udp_input::enable(int level, int option, const char* what)
{
    const int on = 1;
    if (::setsockopt(socket_.get(), level, option, &on, sizeof(on)) != 0)
        throw connection_error(
            fmt::format("cannot ask for {}: {}", what, std::strerror(errno)));
}

void udp_input::bind(const sockaddr_in& address)
{
    if (::bind(
            socket_.get(), reinterpret_cast<const sockaddr*>(&address),
            sizeof(address)) == 0)
        return;
    const int error = errno;
    char ip[INET_ADDRSTRLEN]{};
    (void)::inet_ntop(AF_INET, &address.sin_addr, ip, sizeof(ip));
    throw connection_error(fmt::format(
        "cannot listen on {}: {}. {}", text_of(ip, ntohs(address.sin_port)),
        std::strerror(error), advice_for_bind(error)));
}

void udp_input::join(const sockaddr_in& group, const std::string& device)
{
    ip_mreqn request{};
    request.imr_multiaddr = group.sin_addr;
    if (!device.empty()) {
        request.imr_ifindex = static_cast<int>(::if_nametoindex(device.c_str()));
        if (request.imr_ifindex == 0)
            throw connection_error(fmt::format(
                "--device {}: there is no such network device; \"ip link\" lists them",
                device));
    }
    if (::setsockopt(
            socket_.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof(request)) == 0)
        return;
    const int error = errno;
    char ip[INET_ADDRSTRLEN]{};
    (void)::inet_ntop(AF_INET, &group.sin_addr, ip, sizeof(ip));
    throw connection_error(fmt::format(
        "cannot join {}{}: {}. Give the device that leads to the sender with --device.",
        ip, device.empty() ? "" : " on " + device, std::strerror(error)));
}

void udp_input::prepare_batch()
{
    for (size_t i = 0; i < BATCH; ++i) {
        pieces_[i] = {payloads_.data() + i * LARGEST, LARGEST};
        msghdr& header = headers_[i].msg_hdr;
        header.msg_name = &datagrams_[i].from;
        header.msg_namelen = sizeof(datagrams_[i].from);
        header.msg_iov = &pieces_[i];
        header.msg_iovlen = 1;
        header.msg_control = control_[i].bytes;
        header.msg_controllen = CONTROL;
    }
}

size_t udp_input::receive()
{
    prepare_batch();
    const int count =
        ::recvmmsg(socket_.get(), headers_.data(), BATCH, MSG_DONTWAIT, nullptr);
    if (count == -1 && errno != EAGAIN && errno != EINTR)
        error_ = fmt::format("receiving failed: {}", std::strerror(errno));
    if (count <= 0)
        return 0;
    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
        datagrams_[i].payload = {payloads_.data() + i * LARGEST, headers_[i].msg_len};
        read_control(headers_[i].msg_hdr, datagrams_[i]);
    }
    return static_cast<size_t>(count);
}

void udp_input::read_control(msghdr& header, received_datagram& datagram)
{
    datagram.stamp_ns = 0;
    datagram.to = bound_;
    for (cmsghdr* control = CMSG_FIRSTHDR(&header); control != nullptr;
         control = CMSG_NXTHDR(&header, control)) {
        if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SCM_TIMESTAMPNS)
            datagram.stamp_ns = to_ns(read_value<timespec>(control));
        else if (control->cmsg_level == SOL_SOCKET && control->cmsg_type == SO_RXQ_OVFL)
            own_drops_ = read_value<uint32_t>(control);
        else if (control->cmsg_level == IPPROTO_IP && control->cmsg_type == IP_PKTINFO)
            datagram.to = read_value<in_pktinfo>(control).ipi_addr;
    }
    if (datagram.stamp_ns == 0) { // the first ones may come before the kernel stamps
        timespec now{};
        (void)::clock_gettime(CLOCK_REALTIME, &now);
        datagram.stamp_ns = to_ns(now);
    }
}

// The count that comes with datagrams misses the drops behind the last one.
uint64_t udp_input::own_drops() const
{
    uint32_t counters[SK_MEMINFO_VARS]{};
    socklen_t length = sizeof(counters);
    if (::getsockopt(socket_.get(), SOL_SOCKET, SO_MEMINFO, counters, &length) != 0)
        return own_drops_;
    return std::max<uint64_t>(own_drops_, counters[SK_MEMINFO_DROPS]);
}

} // namespace receiver
