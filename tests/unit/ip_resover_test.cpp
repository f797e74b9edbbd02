// The plain IPv4 address: byte orders, the multicast test and the conversion of
// texts. Expected bytes are written out as they stand on the wire.
#include <array>
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

#include "ip_resover.h"

namespace ip_resover_test {

using vesk::ip_addr_t;

static_assert(std::is_standard_layout_v<ip_addr_t>);
static_assert(std::is_trivially_copyable_v<ip_addr_t>);
static_assert(sizeof(ip_addr_t) == sizeof(sockaddr_in), "one socket address and no more");
static_assert(std::is_same_v<decltype(ip_addr_t::ipv4), sockaddr_in>);
static_assert(std::is_same_v<decltype(std::declval<ip_addr_t&>().family()), int>);
static_assert(std::is_same_v<decltype(std::declval<ip_addr_t&>().port()), uint16_t>);
static_assert(
    std::is_same_v<decltype(std::declval<ip_addr_t&>().as_sockaddr()), sockaddr*>);
static_assert(
    std::is_same_v<decltype(std::declval<ip_addr_t&>().sockaddr_len()), socklen_t>);
static_assert(std::is_same_v<decltype(ip_addr_t::any(AF_INET)), ip_addr_t>);

using octets = std::array<uint8_t, 4>;

octets octets_of(const ip_addr_t& address)
{
    octets bytes{};
    std::memcpy(bytes.data(), &address.ipv4.sin_addr, bytes.size());
    return bytes;
}

std::array<uint8_t, 2> port_bytes_of(const ip_addr_t& address)
{
    std::array<uint8_t, 2> bytes{};
    std::memcpy(bytes.data(), &address.ipv4.sin_port, bytes.size());
    return bytes;
}

TEST(IpAddr, APortIsStoredInNetworkByteOrder)
{
    ip_addr_t address{};
    address.set_port(5000);

    EXPECT_EQ(port_bytes_of(address), (std::array<uint8_t, 2>{0x13, 0x88}));
}

TEST(IpAddr, APortIsReportedInHostByteOrder)
{
    ip_addr_t address{};
    const std::array<uint8_t, 2> wire{0x13, 0x88};
    std::memcpy(&address.ipv4.sin_port, wire.data(), wire.size());

    EXPECT_EQ(address.port(), 5000);
}

TEST(IpAddr, SettingThePortLeavesTheRest)
{
    ip_addr_t address{};
    address.set_addr("10.1.2.3");
    address.set_port(65535);

    EXPECT_EQ(address.port(), 65535);
    EXPECT_EQ(address.family(), AF_INET);
    EXPECT_EQ(octets_of(address), (octets{10, 1, 2, 3}));
}

TEST(IpAddr, SettingTheAddressLeavesThePort)
{
    ip_addr_t address{};
    address.set_port(5000);
    address.set_addr("10.1.2.3");

    EXPECT_EQ(address.port(), 5000);
}

TEST(IpAddr, SettingTheAddressSetsTheFamily)
{
    ip_addr_t address{};
    ASSERT_EQ(address.family(), AF_UNSPEC);
    address.set_addr("10.1.2.3");

    EXPECT_EQ(address.family(), AF_INET);
    EXPECT_EQ(address.ipv4.sin_family, AF_INET);
}

TEST(IpAddr, TheFamilyIsSetForAnUnusableTextToo)
{
    ip_addr_t address{};
    address.set_addr("bogus");

    EXPECT_EQ(address.family(), AF_INET);
}

struct text_case {
    const char* name;
    const char* text;
    octets expected;

    friend void PrintTo(const text_case& test, std::ostream* out) { *out << test.name; }
};

class IpAddrText : public ::testing::TestWithParam<text_case> {};

TEST_P(IpAddrText, BecomesTheseOctets)
{
    ip_addr_t address{};
    address.set_addr(GetParam().text);

    EXPECT_EQ(octets_of(address), GetParam().expected);
}

constexpr octets ALL_ONES{255, 255, 255, 255};

INSTANTIATE_TEST_SUITE_P(
    Texts, IpAddrText,
    ::testing::Values(
        text_case{"Dotted", "192.168.7.9", {192, 168, 7, 9}},
        text_case{"Wildcard", "0.0.0.0", {0, 0, 0, 0}},
        text_case{"Broadcast", "255.255.255.255", ALL_ONES},
        text_case{"TwoParts", "127.1", {127, 0, 0, 1}},
        text_case{"OneNumber", "1", {0, 0, 0, 1}},
        text_case{"HexAndOctalParts", "0x7f.0.0.010", {127, 0, 0, 8}},
        text_case{"Empty", "", ALL_ONES}, text_case{"Star", "*", ALL_ONES},
        text_case{"HostName", "localhost", ALL_ONES},
        text_case{"LeadingBlank", " 127.0.0.1", ALL_ONES},
        text_case{"PartTooLarge", "127.0.0.256", ALL_ONES},
        text_case{"FiveParts", "1.2.3.4.5", ALL_ONES},
        text_case{"WithPort", "127.0.0.1:5000", ALL_ONES},
        text_case{"IpVersionSix", "::1", ALL_ONES}),
    [](const auto& test) { return std::string(test.param.name); });

struct multicast_case {
    const char* name;
    octets address;
    bool expected;

    friend void PrintTo(const multicast_case& test, std::ostream* out)
    {
        *out << test.name;
    }
};

class IpAddrMulticast : public ::testing::TestWithParam<multicast_case> {};

TEST_P(IpAddrMulticast, IsToldByTheTopFourBits)
{
    ip_addr_t address{};
    std::memcpy(&address.ipv4.sin_addr, GetParam().address.data(), sizeof(in_addr));

    EXPECT_EQ(address.is_multicast(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Blocks, IpAddrMulticast,
    ::testing::Values(
        multicast_case{"Wildcard", {0, 0, 0, 0}, false},
        multicast_case{"Loopback", {127, 0, 0, 1}, false},
        multicast_case{"LastBelow", {223, 255, 255, 255}, false},
        multicast_case{"First", {224, 0, 0, 0}, true},
        multicast_case{"Middle", {231, 1, 2, 3}, true},
        multicast_case{"AdministrativelyScoped", {239, 1, 1, 1}, true},
        multicast_case{"Last", {239, 255, 255, 255}, true},
        multicast_case{"FirstAbove", {240, 0, 0, 1}, false},
        multicast_case{"Broadcast", {255, 255, 255, 255}, false},
        // In the wrong byte order this one would look like multicast.
        multicast_case{"TopBitsInTheLastOctet", {10, 0, 0, 224}, false}),
    [](const auto& test) { return std::string(test.param.name); });

TEST(IpAddr, TheSocketAddressIsTheObjectsOwn)
{
    ip_addr_t address{};

    EXPECT_EQ(
        static_cast<void*>(address.as_sockaddr()), static_cast<void*>(&address.ipv4));
    EXPECT_EQ(address.sockaddr_len(), 16U);
}

TEST(IpAddr, AnyIsTheWildcardAddressWithPortZero)
{
    const ip_addr_t address = ip_addr_t::any(AF_INET);
    sockaddr_in expected{};
    expected.sin_family = AF_INET;

    EXPECT_EQ(std::memcmp(&address.ipv4, &expected, sizeof(expected)), 0);
}

} // namespace ip_resover_test
