// The listening address: which endpoint texts it takes, what it makes of them,
// and what it refuses.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "tcp_address.h"

namespace tcp_address_test {

using vesk::tcp_address_t;

static_assert(
    std::is_same_v<
        decltype(std::declval<tcp_address_t&>().resolve(std::declval<std::string&>())),
        int32_t>);
static_assert(
    std::is_same_v<decltype(std::declval<tcp_address_t&>().family()), sa_family_t>);
static_assert(
    std::is_same_v<decltype(std::declval<tcp_address_t&>().addr()), const sockaddr*>);
static_assert(
    std::is_same_v<decltype(std::declval<tcp_address_t&>().addrlen()), socklen_t>);

// The wire form of what the address holds, so that host and port are compared as
// the kernel will see them.
struct endpoint {
    uint16_t family;
    std::array<uint8_t, 2> port;
    std::array<uint8_t, 4> host;

    bool operator==(const endpoint&) const = default;
};

std::ostream& operator<<(std::ostream& out, const endpoint& value)
{
    return out << "family " << value.family << ", "
               << ::testing::PrintToString(value.host) << " port "
               << ::testing::PrintToString(value.port);
}

endpoint endpoint_of(const tcp_address_t& address)
{
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address.addr(), sizeof(ipv4));
    endpoint result{ipv4.sin_family, {}, {}};
    std::memcpy(result.port.data(), &ipv4.sin_port, sizeof(ipv4.sin_port));
    std::memcpy(result.host.data(), &ipv4.sin_addr, sizeof(ipv4.sin_addr));
    return result;
}

constexpr std::array<uint8_t, 2> PORT_5000{0x13, 0x88};
constexpr std::array<uint8_t, 4> LOCALHOST{127, 0, 0, 1};
constexpr std::array<uint8_t, 4> ALL_ONES{255, 255, 255, 255};

struct accepted_case {
    const char* name;
    const char* text;
    std::array<uint8_t, 2> port;
    std::array<uint8_t, 4> host;

    friend void PrintTo(const accepted_case& test, std::ostream* out)
    {
        *out << test.name;
    }
};

class TcpAddressAccepts : public ::testing::TestWithParam<accepted_case> {};

TEST_P(TcpAddressAccepts, ThisEndpoint)
{
    tcp_address_t address;
    std::string text = GetParam().text;

    ASSERT_EQ(address.resolve(text), 0);
    EXPECT_EQ(
        endpoint_of(address), (endpoint{AF_INET, GetParam().port, GetParam().host}));
    EXPECT_EQ(text, GetParam().text);
}

INSTANTIATE_TEST_SUITE_P(
    Endpoints, TcpAddressAccepts,
    ::testing::Values(
        accepted_case{"Plain", "127.0.0.1:5000", PORT_5000, LOCALHOST},
        accepted_case{"ExplicitWildcard", "0.0.0.0:5000", PORT_5000, {0, 0, 0, 0}},
        accepted_case{"Multicast", "239.1.1.1:5000", PORT_5000, {239, 1, 1, 1}},
        accepted_case{"PortZero", "127.0.0.1:0", {0, 0}, LOCALHOST},
        accepted_case{"PortOne", "127.0.0.1:1", {0, 1}, LOCALHOST},
        accepted_case{"LargestPort", "127.0.0.1:65535", {0xFF, 0xFF}, LOCALHOST},
        accepted_case{"PortIsCutTo4464", "127.0.0.1:70000", {0x11, 0x70}, LOCALHOST},
        accepted_case{"NegativePortIsCut", "127.0.0.1:-1", {0xFF, 0xFF}, LOCALHOST},
        accepted_case{"PortWithPlusSign", "127.0.0.1:+80", {0, 80}, LOCALHOST},
        accepted_case{"PortWithLeadingBlanks", "127.0.0.1: \t80", {0, 80}, LOCALHOST},
        accepted_case{"PortWithLeadingZeros", "127.0.0.1:0080", {0, 80}, LOCALHOST},
        accepted_case{
            "PortWithTrailingLetters", "127.0.0.1:5000abc", PORT_5000, LOCALHOST},
        accepted_case{"PortWithTrailingStar", "127.0.0.1:5000*", PORT_5000, LOCALHOST},
        accepted_case{
            "PortBeyondThirtyTwoBits", "127.0.0.1:4294967376", {0, 80}, LOCALHOST},
        accepted_case{
            "PortBeyondSixtyFourBits",
            "127.0.0.1:99999999999999999999",
            {0xFF, 0xFF},
            LOCALHOST},
        accepted_case{"SplitsAtTheLastColon", "a.b.c.d:1:2", {0, 2}, ALL_ONES},
        accepted_case{"EmptyHost", ":5000", PORT_5000, ALL_ONES},
        accepted_case{"HostName", "bogus:5000", PORT_5000, ALL_ONES},
        accepted_case{"StarAndMoreAsHost", "*.1:5000", PORT_5000, ALL_ONES},
        accepted_case{"BlankBeforeHost", " 127.0.0.1:5000", PORT_5000, ALL_ONES},
        accepted_case{"ShortDottedHost", "127.1:5000", PORT_5000, LOCALHOST}),
    [](const auto& test) { return std::string(test.param.name); });

struct refused_case {
    const char* name;
    const char* text;

    friend void PrintTo(const refused_case& test, std::ostream* out)
    {
        *out << test.name;
    }
};

class TcpAddressRefuses : public ::testing::TestWithParam<refused_case> {};

TEST_P(TcpAddressRefuses, ThisEndpointWithEinval)
{
    tcp_address_t address;
    std::string text = GetParam().text;

    errno = 0;
    EXPECT_EQ(address.resolve(text), -1);
    EXPECT_EQ(errno, EINVAL);
}

INSTANTIATE_TEST_SUITE_P(
    Endpoints, TcpAddressRefuses,
    ::testing::Values(
        refused_case{"NoColon", "127.0.0.1"}, refused_case{"Nothing", ""},
        refused_case{"ColonAlone", ":"}, refused_case{"StarPort", "127.0.0.1:*"},
        refused_case{"StarHost", "*:5000"}, refused_case{"StarHostAndPortZero", "*:0"},
        refused_case{"StarsOnly", "*:*"}, refused_case{"EmptyPort", "127.0.0.1:"},
        refused_case{"WordAsPort", "127.0.0.1:http"},
        refused_case{"SignAlone", "127.0.0.1:-"},
        refused_case{"PortCutToZero", "127.0.0.1:65536"},
        refused_case{"PortCutToZeroTwice", "127.0.0.1:131072"},
        refused_case{"NegativePortCutToZero", "127.0.0.1:-65536"},
        // Zero is taken in its literal form alone.
        refused_case{"TwoZeros", "127.0.0.1:00"},
        refused_case{"ZeroWithSign", "127.0.0.1:+0"},
        refused_case{"ZeroWithBlank", "127.0.0.1:0 "},
        refused_case{"HexPort", "127.0.0.1:0x50"},
        refused_case{"StarAndMoreAsPort", "127.0.0.1:*5000"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(TcpAddress, IsZeroAtFirst)
{
    const tcp_address_t address;
    const sockaddr_in zero{};

    EXPECT_EQ(std::memcmp(address.addr(), &zero, sizeof(zero)), 0);
    EXPECT_EQ(address.family(), AF_UNSPEC);
}

TEST(TcpAddress, CanBeMadeFromASocketAddress)
{
    sockaddr_in source{};
    source.sin_family = AF_INET;
    source.sin_port = htons(5000);
    source.sin_addr.s_addr = htonl(0x0A010203);

    const tcp_address_t address(
        reinterpret_cast<const sockaddr*>(&source), sizeof(source));
    EXPECT_EQ(endpoint_of(address), (endpoint{AF_INET, PORT_5000, {10, 1, 2, 3}}));
}

TEST(TcpAddress, ARefusedEndpointLeavesTheEarlierOne)
{
    tcp_address_t address;
    std::string earlier = "10.1.2.3:5000";
    ASSERT_EQ(address.resolve(earlier), 0);

    for (std::string text : {"127.0.0.1", "127.0.0.1:*", "*:80", "127.0.0.1:65536"}) {
        ASSERT_EQ(address.resolve(text), -1);
        EXPECT_EQ(endpoint_of(address), (endpoint{AF_INET, PORT_5000, {10, 1, 2, 3}}));
    }
}

TEST(TcpAddress, ResolvingAgainReplacesHostAndPort)
{
    tcp_address_t address;
    std::string first = "10.1.2.3:80";
    std::string second = "127.0.0.1:5000";
    ASSERT_EQ(address.resolve(first), 0);
    ASSERT_EQ(address.resolve(second), 0);

    EXPECT_EQ(endpoint_of(address), (endpoint{AF_INET, PORT_5000, LOCALHOST}));
}

TEST(TcpAddress, TellsTheFamilyOfAResolvedEndpoint)
{
    tcp_address_t address;
    std::string text = "127.0.0.1:5000";
    ASSERT_EQ(address.resolve(text), 0);

    EXPECT_EQ(address.family(), AF_INET);
}

TEST(TcpAddress, HasTheLengthOfAnIpv4SocketAddress)
{
    EXPECT_EQ(tcp_address_t().addrlen(), 16U);
}

} // namespace tcp_address_test
