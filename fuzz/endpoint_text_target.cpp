// Arbitrary text as an endpoint, by the rules of a TCP sender, a UDP sender and a UDP
// receiver.
#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "check.h"
#include "leading_number.h"
#include "tcp_address.h"
#include "udp_address.h"

namespace {

using fuzz::require;

constexpr uint32_t ALL_ONES = 0xFFFFFFFF; // what no dotted address becomes

// The two halves of an endpoint text, as far as they say something.
struct endpoint {
    std::string host;
    std::string port;
};

std::optional<endpoint> halves_of(const std::string& text)
{
    for (size_t i = text.size(); i-- > 0;) {
        if (text[i] == ':')
            return endpoint{text.substr(0, i), text.substr(i + 1)};
    }
    return std::nullopt;
}

std::optional<uint16_t> port_of(const std::string& text)
{
    const auto port = static_cast<uint16_t>(fuzz::leading_number(text));
    if (port == 0 && text != "0")
        return std::nullopt;
    return port;
}

std::string printed(uint32_t address)
{
    char text[INET_ADDRSTRLEN]{};
    const in_addr bytes{address};
    require(::inet_ntop(AF_INET, &bytes, text, sizeof(text)) != nullptr, "it prints");
    return text;
}

// In network byte order, by a parser that knows the plain form alone.
std::optional<uint32_t> plain_address(const std::string& host)
{
    in_addr bytes{};
    if (host.find('\0') != std::string::npos ||
        ::inet_pton(AF_INET, host.c_str(), &bytes) != 1)
        return std::nullopt;
    return bytes.s_addr;
}

// A plain address prints back to the text that it came from. Others, like octal ones,
// may be addresses too; then what is printed means the same.
void check_host(const std::string& host, uint32_t address)
{
    if (const auto plain = plain_address(host)) {
        require(address == *plain, "a plain address is what it says");
        require(printed(address) == host, "a plain address prints back to itself");
    }
    vesk::ip_addr_t again{};
    again.set_addr(printed(address).c_str());
    require(again.ipv4.sin_addr.s_addr == address, "what is printed means the same");
    require(
        std::any_of(
            host.begin(), host.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
            address == ALL_ONES,
        "a host without digits is no address");
}

void check_socket_address(
    const vesk::ip_addr_t& address, const std::string& host, uint16_t port)
{
    require(address.family() == AF_INET, "only this family is known");
    require(address.port() == port, "the port is the text's");
    require(address.sockaddr_len() == sizeof(sockaddr_in), "its size is fixed");
    const uint32_t number = address.ipv4.sin_addr.s_addr;
    const auto* bytes = reinterpret_cast<const uint8_t*>(&number);
    const bool group = bytes[0] >= 224 && bytes[0] < 240;
    require(address.is_multicast() == group, "groups are 224.0.0.0 to 239.255.255.255");
    check_host(host, number);
}

vesk::ip_addr_t address_of(const vesk::tcp_address_t& tcp)
{
    vesk::ip_addr_t address{};
    require(tcp.addrlen() == sizeof(address.ipv4), "its size is fixed");
    std::memcpy(&address.ipv4, tcp.addr(), sizeof(address.ipv4));
    return address;
}

bool is_wildcard(const vesk::ip_addr_t& address, uint16_t port)
{
    return address.family() == AF_INET && address.ipv4.sin_addr.s_addr == 0 &&
           address.port() == port;
}

bool is_same(const vesk::ip_addr_t& left, const vesk::ip_addr_t& right)
{
    return left.family() == right.family() && left.port() == right.port() &&
           left.ipv4.sin_addr.s_addr == right.ipv4.sin_addr.s_addr;
}

// 0 for success; else -1 with errno, which nothing else has touched.
bool has_succeeded(int32_t result)
{
    require(result == 0 || (result == -1 && errno == EINVAL), "results are 0 or -1");
    return result == 0;
}

void check_tcp(const std::string& text, const std::optional<endpoint>& parts)
{
    std::string name = text;
    vesk::tcp_address_t address;
    errno = 0;
    const bool resolved = has_succeeded(address.resolve(name));
    require(name == text, "the text stays as it is");
    const bool wanted = parts && parts->host != "*" && port_of(parts->port);
    require(resolved == wanted, "a TCP endpoint is an address and a port");
    if (resolved)
        check_socket_address(address_of(address), parts->host, *port_of(parts->port));
}

void check_udp(const std::string& text, const std::optional<endpoint>& parts, bool binds)
{
    std::string name = text;
    vesk::udp_address_t address;
    errno = 0;
    const bool resolved = has_succeeded(address.resolve(name, binds));
    require(name == text, "the text stays as it is");
    require(address.bind_if() == -1, "no interface is chosen by index");
    const bool any_port = binds && parts && parts->port == "*";
    require(
        resolved == (parts && (any_port || port_of(parts->port))),
        "a UDP endpoint is a host and a port");
    if (!resolved)
        return;

    const uint16_t port = any_port ? uint16_t{0} : *port_of(parts->port);
    const vesk::ip_addr_t& target = *address.target_addr();
    if (binds && parts->host == "*")
        require(is_wildcard(target, port), "any host is the wildcard");
    else
        check_socket_address(target, parts->host, port);
    require(address.is_mcast() == target.is_multicast(), "groups are known as such");
    const bool takes_target = binds && !target.is_multicast();
    require(
        takes_target ? is_same(*address.bind_addr(), target)
                     : is_wildcard(*address.bind_addr(), port),
        "only a receiver of one host binds to it");
    require(address.family() == AF_INET, "only this family is known");
}

// As the kernel would hand over an address, of any length.
void check_raw(const uint8_t* data, size_t size)
{
    const std::vector<uint8_t> exact(data, data + size); // a byte too many shows
    const vesk::tcp_address_t address(
        reinterpret_cast<const sockaddr*>(exact.data()), static_cast<socklen_t>(size));
    sockaddr_in expected{};
    std::memcpy(&expected, exact.data(), std::min(size, sizeof(expected)));
    require(
        std::memcmp(address.addr(), &expected, sizeof(expected)) == 0,
        "an address is taken as far as it goes");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    const std::optional<endpoint> parts = halves_of(text);
    check_tcp(text, parts);
    check_udp(text, parts, false);
    check_udp(text, parts, true);
    if (size != 0)
        check_raw(data, size);
    return 0;
}
