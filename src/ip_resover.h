// IPv4 socket addresses and the rules that the endpoint texts share. Purely
// numeric: nothing here looks a name up or touches a socket.
#pragma once

#include <cerrno>
#include <cstdint>
#include <string>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "common.h"

namespace vesk {

struct ip_addr_t {
    sockaddr_in ipv4; // port and address in network byte order

    int family() const { return ipv4.sin_family; }

    bool is_multicast() const
    {
        return (ntohl(ipv4.sin_addr.s_addr) & 0xF0000000U) == 0xE0000000U;
    }

    uint16_t port() const { return ntohs(ipv4.sin_port); }

    sockaddr* as_sockaddr() { return reinterpret_cast<sockaddr*>(&ipv4); }
    const sockaddr* as_sockaddr() const
    {
        return reinterpret_cast<const sockaddr*>(&ipv4);
    }
    socklen_t sockaddr_len() const { return sizeof(ipv4); }

    void set_port(uint16_t port) { ipv4.sin_port = htons(port); }

    // A text that is no dotted address gives the all-ones address; the socket
    // call that uses it is where that shows.
    void set_addr(const char* text)
    {
        ipv4.sin_family = AF_INET;
        ipv4.sin_addr.s_addr = ::inet_addr(text);
    }

    // The wildcard address with port 0.
    static ip_addr_t any(int family)
    {
        ip_addr_t address{};
        address.ipv4.sin_family = static_cast<sa_family_t>(family);
        address.ipv4.sin_addr.s_addr = htonl(INADDR_ANY);
        return address;
    }
};

namespace details {

// Splits "host:port" at the last colon. -1 with EINVAL when there is none.
inline int32_t split_endpoint(
    const std::string& name, std::string& host, std::string& port)
{
    const std::string::size_type colon = name.rfind(':');
    if (colon == std::string::npos) {
        errno = EINVAL;
        return -1;
    }
    host = name.substr(0, colon);
    port = name.substr(colon + 1);
    return 0;
}

// Only the literal "0" may mean port 0: a number that is 0 once cut to 16 bits is
// refused with -1 and EINVAL.
inline int32_t resolve_port(const std::string& text, uint16_t& port)
{
    port = static_cast<uint16_t>(parse_int(text.c_str()));
    if (port == 0 && text != "0") {
        errno = EINVAL;
        return -1;
    }
    return 0;
}

} // namespace details
} // namespace vesk
