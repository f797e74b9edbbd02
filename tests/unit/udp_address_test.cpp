// The pair of addresses of a UDP endpoint: what the sender's and the receiver's
// rules make of each text, and what they refuse.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "udp_address.h"

namespace udp_address_test {

using vesk::ip_addr_t;
using vesk::udp_address_t;

static_assert(std::is_same_v<
              decltype(std::declval<udp_address_t&>().resolve(
                  std::declval<std::string&>(), true)),
              int32_t>);
static_assert(std::is_same_v<decltype(std::declval<udp_address_t&>().family()), int32_t>);
static_assert(std::is_same_v<decltype(std::declval<udp_address_t&>().is_mcast()), bool>);
static_assert(std::is_same_v<
              decltype(std::declval<udp_address_t&>().bind_addr()), const ip_addr_t*>);
static_assert(std::is_same_v<
              decltype(std::declval<udp_address_t&>().target_addr()), const ip_addr_t*>);
static_assert(
    std::is_same_v<decltype(std::declval<udp_address_t&>().bind_if()), int32_t>);

constexpr bool SENDER = false;
constexpr bool RECEIVER = true;

// An address as it stands on the wire.
struct endpoint {
    std::array<uint8_t, 4> host;
    std::array<uint8_t, 2> port;
    sa_family_t family = AF_INET;

    bool operator==(const endpoint&) const = default;
};

std::ostream& operator<<(std::ostream& out, const endpoint& value)
{
    return out << ::testing::PrintToString(value.host) << " port "
               << ::testing::PrintToString(value.port) << ", family " << value.family;
}

endpoint endpoint_of(const ip_addr_t* address)
{
    endpoint result{};
    result.family = address->ipv4.sin_family;
    std::memcpy(result.host.data(), &address->ipv4.sin_addr, result.host.size());
    std::memcpy(result.port.data(), &address->ipv4.sin_port, result.port.size());
    return result;
}

constexpr std::array<uint8_t, 2> PORT_5000{0x13, 0x88};
constexpr std::array<uint8_t, 2> NO_PORT{0, 0};
constexpr std::array<uint8_t, 4> LOCALHOST{127, 0, 0, 1};
constexpr std::array<uint8_t, 4> WILDCARD{0, 0, 0, 0};
constexpr std::array<uint8_t, 4> ALL_ONES{255, 255, 255, 255};

struct accepted_case {
    const char* name;
    const char* text;
    bool bind;
    endpoint target;
    endpoint local;
    bool multicast;

    friend void PrintTo(const accepted_case& test, std::ostream* out)
    {
        *out << test.name;
    }
};

class UdpAddressAccepts : public ::testing::TestWithParam<accepted_case> {};

TEST_P(UdpAddressAccepts, ThisEndpoint)
{
    udp_address_t address;
    std::string text = GetParam().text;

    ASSERT_EQ(address.resolve(text, GetParam().bind), 0);
    EXPECT_EQ(endpoint_of(address.target_addr()), GetParam().target);
    EXPECT_EQ(endpoint_of(address.bind_addr()), GetParam().local);
    EXPECT_EQ(address.is_mcast(), GetParam().multicast);
    EXPECT_EQ(address.family(), AF_INET);
    EXPECT_EQ(text, GetParam().text);
}

const auto CASE_NAME = [](const auto& test) { return std::string(test.param.name); };

INSTANTIATE_TEST_SUITE_P(
    Sender, UdpAddressAccepts,
    ::testing::Values(
        accepted_case{
            "Unicast",
            "127.0.0.1:5000",
            SENDER,
            {LOCALHOST, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "Multicast",
            "239.1.1.1:5000",
            SENDER,
            {{239, 1, 1, 1}, PORT_5000},
            {WILDCARD, PORT_5000},
            true},
        accepted_case{
            "FirstMulticast",
            "224.0.0.0:5000",
            SENDER,
            {{224, 0, 0, 0}, PORT_5000},
            {WILDCARD, PORT_5000},
            true},
        accepted_case{
            "JustBelowMulticast",
            "223.255.255.255:5000",
            SENDER,
            {{223, 255, 255, 255}, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "JustAboveMulticast",
            "240.0.0.1:5000",
            SENDER,
            {{240, 0, 0, 1}, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "StarHostIsBroadcast",
            "*:5000",
            SENDER,
            {ALL_ONES, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "PortZero",
            "127.0.0.1:0",
            SENDER,
            {LOCALHOST, NO_PORT},
            {WILDCARD, NO_PORT},
            false},
        accepted_case{
            "PortIsCutTo4464",
            "127.0.0.1:70000",
            SENDER,
            {LOCALHOST, {0x11, 0x70}},
            {WILDCARD, {0x11, 0x70}},
            false},
        accepted_case{
            "LargestPort",
            "127.0.0.1:65535",
            SENDER,
            {LOCALHOST, {0xFF, 0xFF}},
            {WILDCARD, {0xFF, 0xFF}},
            false},
        accepted_case{
            "NegativePortIsCut",
            "127.0.0.1:-1",
            SENDER,
            {LOCALHOST, {0xFF, 0xFF}},
            {WILDCARD, {0xFF, 0xFF}},
            false},
        accepted_case{
            "PortWithLeadingBlank",
            "127.0.0.1: 80",
            SENDER,
            {LOCALHOST, {0, 80}},
            {WILDCARD, {0, 80}},
            false},
        accepted_case{
            "PortWithTrailingLetters",
            "127.0.0.1:5000abc",
            SENDER,
            {LOCALHOST, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "SplitsAtTheLastColon",
            "a.b.c.d:1:2",
            SENDER,
            {ALL_ONES, {0, 2}},
            {WILDCARD, {0, 2}},
            false},
        accepted_case{
            "EmptyHost",
            ":5000",
            SENDER,
            {ALL_ONES, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "HostName",
            "bogus:5000",
            SENDER,
            {ALL_ONES, PORT_5000},
            {WILDCARD, PORT_5000},
            false}),
    CASE_NAME);

INSTANTIATE_TEST_SUITE_P(
    Receiver, UdpAddressAccepts,
    ::testing::Values(
        accepted_case{
            "Unicast",
            "127.0.0.1:5000",
            RECEIVER,
            {LOCALHOST, PORT_5000},
            {LOCALHOST, PORT_5000},
            false},
        accepted_case{
            "Multicast",
            "239.1.1.1:5000",
            RECEIVER,
            {{239, 1, 1, 1}, PORT_5000},
            {WILDCARD, PORT_5000},
            true},
        accepted_case{
            "JustBelowMulticast",
            "223.255.255.255:5000",
            RECEIVER,
            {{223, 255, 255, 255}, PORT_5000},
            {{223, 255, 255, 255}, PORT_5000},
            false},
        accepted_case{
            "JustAboveMulticast",
            "240.0.0.1:5000",
            RECEIVER,
            {{240, 0, 0, 1}, PORT_5000},
            {{240, 0, 0, 1}, PORT_5000},
            false},
        accepted_case{
            "StarHostIsTheWildcard",
            "*:5000",
            RECEIVER,
            {WILDCARD, PORT_5000},
            {WILDCARD, PORT_5000},
            false},
        accepted_case{
            "StarPortIsZero",
            "127.0.0.1:*",
            RECEIVER,
            {LOCALHOST, NO_PORT},
            {LOCALHOST, NO_PORT},
            false},
        accepted_case{
            "StarsOnly",
            "*:*",
            RECEIVER,
            {WILDCARD, NO_PORT},
            {WILDCARD, NO_PORT},
            false},
        accepted_case{
            "MulticastWithStarPort",
            "239.1.1.1:*",
            RECEIVER,
            {{239, 1, 1, 1}, NO_PORT},
            {WILDCARD, NO_PORT},
            true},
        accepted_case{
            "PortZero",
            "127.0.0.1:0",
            RECEIVER,
            {LOCALHOST, NO_PORT},
            {LOCALHOST, NO_PORT},
            false},
        accepted_case{
            "PortIsCutTo4464",
            "127.0.0.1:70000",
            RECEIVER,
            {LOCALHOST, {0x11, 0x70}},
            {LOCALHOST, {0x11, 0x70}},
            false},
        accepted_case{
            "PortWithTrailingLetters",
            "127.0.0.1:5000abc",
            RECEIVER,
            {LOCALHOST, PORT_5000},
            {LOCALHOST, PORT_5000},
            false},
        accepted_case{
            "SplitsAtTheLastColon",
            "a.b.c.d:1:2",
            RECEIVER,
            {ALL_ONES, {0, 2}},
            {ALL_ONES, {0, 2}},
            false},
        accepted_case{
            "EmptyHost",
            ":5000",
            RECEIVER,
            {ALL_ONES, PORT_5000},
            {ALL_ONES, PORT_5000},
            false},
        accepted_case{
            "StarAndMoreAsHost",
            "*.1:5000",
            RECEIVER,
            {ALL_ONES, PORT_5000},
            {ALL_ONES, PORT_5000},
            false}),
    CASE_NAME);

struct refused_case {
    const char* name;
    const char* text;
    bool bind;

    friend void PrintTo(const refused_case& test, std::ostream* out)
    {
        *out << test.name;
    }
};

class UdpAddressRefuses : public ::testing::TestWithParam<refused_case> {};

TEST_P(UdpAddressRefuses, ThisEndpointWithEinval)
{
    udp_address_t address;
    std::string text = GetParam().text;

    errno = 0;
    EXPECT_EQ(address.resolve(text, GetParam().bind), -1);
    EXPECT_EQ(errno, EINVAL);
}

INSTANTIATE_TEST_SUITE_P(
    Sender, UdpAddressRefuses,
    ::testing::Values(
        refused_case{"NoColon", "127.0.0.1", SENDER}, refused_case{"Nothing", "", SENDER},
        refused_case{"ColonAlone", ":", SENDER},
        refused_case{"StarPort", "127.0.0.1:*", SENDER},
        refused_case{"StarsOnly", "*:*", SENDER},
        refused_case{"EmptyPort", "127.0.0.1:", SENDER},
        refused_case{"WordAsPort", "127.0.0.1:http", SENDER},
        refused_case{"PortCutToZero", "127.0.0.1:65536", SENDER},
        refused_case{"TwoZeros", "127.0.0.1:00", SENDER}),
    CASE_NAME);

INSTANTIATE_TEST_SUITE_P(
    Receiver, UdpAddressRefuses,
    ::testing::Values(
        refused_case{"NoColon", "127.0.0.1", RECEIVER},
        refused_case{"Nothing", "", RECEIVER}, refused_case{"StarAlone", "*", RECEIVER},
        refused_case{"ColonAlone", ":", RECEIVER},
        refused_case{"EmptyPort", "127.0.0.1:", RECEIVER},
        refused_case{"StarHostWithEmptyPort", "*:", RECEIVER},
        refused_case{"WordAsPort", "127.0.0.1:http", RECEIVER},
        refused_case{"PortCutToZero", "127.0.0.1:65536", RECEIVER},
        refused_case{"TwoZeros", "127.0.0.1:00", RECEIVER},
        refused_case{"TwoStarsAsPort", "127.0.0.1:**", RECEIVER},
        refused_case{"StarAndBlankAsPort", "127.0.0.1:* ", RECEIVER}),
    CASE_NAME);

TEST(UdpAddress, IsNotMulticastAndHasNoInterfaceAtFirst)
{
    const udp_address_t address;

    EXPECT_FALSE(address.is_mcast());
    EXPECT_EQ(address.bind_if(), -1);
}

TEST(UdpAddress, ResolvingChoosesNoInterface)
{
    udp_address_t address;
    std::string text = "239.1.1.1:5000";
    ASSERT_EQ(address.resolve(text, RECEIVER), 0);

    EXPECT_EQ(address.bind_if(), -1);
}

TEST(UdpAddress, ARefusedEndpointLeavesTheEarlierOne)
{
    udp_address_t address;
    std::string earlier = "239.1.1.1:5000";
    ASSERT_EQ(address.resolve(earlier, SENDER), 0);

    for (std::string text : {"127.0.0.1", "127.0.0.1:*", "127.0.0.1:65536"}) {
        ASSERT_EQ(address.resolve(text, SENDER), -1);
        EXPECT_EQ(
            endpoint_of(address.target_addr()), (endpoint{{239, 1, 1, 1}, PORT_5000}));
        EXPECT_EQ(endpoint_of(address.bind_addr()), (endpoint{WILDCARD, PORT_5000}));
        EXPECT_TRUE(address.is_mcast());
    }
}

TEST(UdpAddress, AUnicastEndpointAfterAMulticastOneIsNotMulticast)
{
    udp_address_t address;
    std::string multicast = "239.1.1.1:5000";
    std::string unicast = "127.0.0.1:80";
    ASSERT_EQ(address.resolve(multicast, RECEIVER), 0);
    ASSERT_EQ(address.resolve(unicast, RECEIVER), 0);

    EXPECT_FALSE(address.is_mcast());
    EXPECT_EQ(endpoint_of(address.bind_addr()), (endpoint{LOCALHOST, {0, 80}}));
    EXPECT_EQ(endpoint_of(address.target_addr()), (endpoint{LOCALHOST, {0, 80}}));
}

} // namespace udp_address_test
