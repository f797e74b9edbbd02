// Captures put together from an input's decisions: what libpcap takes for a capture,
// with lengths and header fields that agree or do not.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "byte_feed.h"
#include "capture_checks.h"
#include "check.h"
#include "memory_file.h"
#include "support/capture_builder.h"

namespace {

using fuzz::byte_feed;
using support::frame;
using support::frame_parts;

constexpr size_t MOST_FRAMES = 24;
constexpr size_t IP_HEADER_AT = 14;
constexpr size_t TCP_OFFSET_AT = 46;
constexpr const char* FILTERS[] = {
    "udp", "tcp", "tcp or udp", "udp or not udp", "vlan and tcp", "tcp and port x",
};

struct made_capture {
    std::vector<frame> frames;
    std::vector<char> transports; // 'u', 't', or '-' for neither
    bool honest{true};            // every frame is what its headers say
};

// Around the limits more often than elsewhere.
size_t draw_size(byte_feed& feed)
{
    constexpr size_t EDGES[] = {0,     1,     18,    1460,  10239,
                                10240, 10241, 20480, 65535, 262144};
    if (feed.flag())
        return feed.pick(EDGES);
    return feed.count(feed.flag() ? 70000 : 300);
}

std::string draw_payload(byte_feed& feed)
{
    if (feed.flag())
        return feed.text(feed.count(64));
    const auto seed = static_cast<uint32_t>(feed.byte());
    return support::sample_bytes(draw_size(feed), seed);
}

uint32_t draw_length(byte_feed& feed, uint32_t honest)
{
    const uint32_t lengths[] = {0,          1,      14,     honest - 1, honest,
                                honest + 1, 262144, 262145, 0x7FFFFFFF, 0xFFFFFFFF};
    if (feed.flag())
        return feed.pick(lengths);
    return static_cast<uint32_t>(feed.number(0, 300000));
}

// In words of four bytes: the sender's cut of TCP takes no IPv4 options into account.
frame_parts draw_parts(byte_feed& feed, bool tcp, made_capture& into)
{
    frame_parts parts;
    parts.payload = draw_payload(feed);
    parts.ip_options = std::string(4 * feed.count(10), '\x01');
    if (tcp)
        parts.tcp_options = std::string(4 * feed.count(10), '\x01');
    parts.padding = std::string(feed.count(20), '\0');
    parts.vlan = feed.number(0, 7) == 1;
    into.honest = into.honest && !parts.vlan && (!tcp || parts.ip_options.empty());
    return parts;
}

frame draw_honest(byte_feed& feed, made_capture& into)
{
    switch (feed.number(0, 3)) {
    case 0:
        into.transports.push_back('u');
        return support::udp_frame(draw_parts(feed, false, into));
    case 1:
        into.transports.push_back('t');
        return support::tcp_frame(draw_parts(feed, true, into));
    case 2:
        into.transports.push_back('-');
        into.honest = false; // a filter for UDP lets it through, and it is cut as IPv4
        return support::udp_ipv6_frame(draw_parts(feed, false, into));
    default:
        into.transports.push_back('-');
        return support::make_frame(support::ethernet_header(0x0806), draw_payload(feed));
    }
}

void set_byte(frame& one, size_t at, uint8_t value)
{
    if (at < one.bytes.size())
        one.bytes[at] = static_cast<char>(value);
}

// Lengths and fields that do not fit what is there.
frame spoilt(byte_feed& feed, const frame& whole)
{
    frame one = whole;
    switch (feed.number(0, 4)) {
    case 0:
        return support::truncated(one, feed.count(one.bytes.size()));
    case 1:
        set_byte(one, IP_HEADER_AT, feed.byte());
        return one;
    case 2:
        set_byte(one, TCP_OFFSET_AT, feed.byte());
        return one;
    case 3:
        return support::with_lengths(
            one, one.captured_length, draw_length(feed, one.wire_length));
    default:
        const uint32_t captured = draw_length(feed, one.captured_length);
        return support::with_lengths(one, captured, draw_length(feed, one.wire_length));
    }
}

// A frame that libpcap has to shorten, or refuses, is no longer what it was.
void add_frame(byte_feed& feed, uint32_t snapshot_length, made_capture& into)
{
    frame one = draw_honest(feed, into);
    if (feed.number(0, 3) == 1) {
        one = spoilt(feed, one);
        into.honest = false;
    }
    into.honest = into.honest && one.captured_length <= snapshot_length &&
                  one.captured_length <= 262144 && one.captured_length != 0;
    into.frames.push_back(one);
}

support::capture_format draw_format(byte_feed& feed)
{
    constexpr uint32_t LINK_TYPES[] = {1, 1, 1, 1, 0, 12, 101, 113, 147, 276, 105, 65535};
    constexpr uint32_t SNAPSHOT_LENGTHS[] = {262144, 262144, 65535,      64,        1,
                                             0,      262145, 0x7FFFFFFF, 0xFFFFFFFF};
    support::capture_format format;
    const uint8_t flags = feed.byte();
    format.pcapng = (flags & 1U) != 0;
    format.big_endian = (flags & 2U) != 0;
    format.nanoseconds = (flags & 4U) != 0;
    format.link_type = feed.pick(LINK_TYPES);
    format.snapshot_length = feed.pick(SNAPSHOT_LENGTHS);
    return format;
}

// Known from the parts alone.
std::vector<std::string> expected_pieces(const made_capture& made, char transport)
{
    constexpr size_t MESSAGE = 10240;
    std::vector<std::string> pieces;
    for (size_t i = 0; i < made.frames.size(); ++i) {
        const std::string& payload = made.frames[i].payload;
        if (made.transports[i] != transport)
            continue;
        for (size_t from = 0; from == 0 || from < payload.size(); from += MESSAGE)
            pieces.push_back(payload.substr(from, MESSAGE));
    }
    return pieces;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static fuzz::memory_file file;
    byte_feed feed(data, size);
    const std::string filter = feed.pick(FILTERS);
    const support::capture_format format = draw_format(feed);
    made_capture made;
    while (!feed.empty() && made.frames.size() < MOST_FRAMES)
        add_frame(feed, format.snapshot_length, made);
    file.write(support::capture_bytes(made.frames, format));

    const fuzz::reading read = fuzz::check_capture(file.path(), filter);
    const bool plain = made.honest && format.link_type == 1 && filter.size() == 3;
    if (plain)
        fuzz::require(
            read.pieces == expected_pieces(made, filter[0]),
            "messages are what the frames were made of");
    return 0;
}
