// The address that a TCP engine listens on. Used while the engine is set up, on
// the main thread.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include <netinet/in.h>
#include <sys/socket.h>

#include "ip_resover.h"

namespace vesk {

class tcp_address_t {
public:
    tcp_address_t() = default;
    tcp_address_t(const sockaddr* address, socklen_t length)
    {
        std::memcpy(
            &address_.ipv4, address, std::min<size_t>(length, sizeof(address_.ipv4)));
    }

    // 0, or -1 with EINVAL. There is no wildcard: 0.0.0.0 has to be spelled out.
    // cppcheck-suppress constParameter ; the engines hand their own text on
    int32_t resolve(std::string& name)
    {
        std::string host;
        std::string port_text;
        if (details::split_endpoint(name, host, port_text) != 0)
            return -1;
        if (port_text == "*" || host == "*") {
            errno = EINVAL;
            return -1;
        }
        uint16_t port = 0;
        if (details::resolve_port(port_text, port) != 0)
            return -1;
        address_.set_port(port);
        address_.set_addr(host.c_str());
        return 0;
    }

    sa_family_t family() const { return address_.ipv4.sin_family; }
    const sockaddr* addr() const { return address_.as_sockaddr(); }
    socklen_t addrlen() const { return address_.sockaddr_len(); }

private:
    ip_addr_t address_{};
};

} // namespace vesk
