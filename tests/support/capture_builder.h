// Builds capture files in memory, frame by frame, and knows the payload of each
// frame from the parts it was made of. Shared by tests, fuzzers and benchmarks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace support {

inline std::string number_bytes(uint64_t value, size_t size, bool big_endian = true)
{
    std::string bytes;
    for (size_t i = 0; i < size; ++i)
        bytes += static_cast<char>((value >> (8 * i)) & 0xFFU);
    if (big_endian)
        std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

// Bytes that repeat nowhere near each other, so that a shifted cut shows.
inline std::string sample_bytes(size_t count, uint32_t seed = 1)
{
    std::string bytes(count, '\0');
    for (char& byte : bytes) {
        seed = seed * 1664525U + 1013904223U;
        byte = static_cast<char>(seed >> 24U);
    }
    return bytes;
}

// One record of a capture. The two lengths are what the record claims; `payload`
// is what remains of `bytes` behind the headers.
struct frame {
    std::string bytes{};
    uint32_t captured_length{0};
    uint32_t wire_length{0};
    std::string payload{};
};

// What a frame is made of. Options are padded by the caller to four bytes.
struct frame_parts {
    std::string payload{};
    std::string ip_options{};
    std::string tcp_options{};
    std::string padding{}; // behind the payload, as Ethernet fills short frames
    bool vlan{false};
    uint16_t destination_port{5000};
    uint32_t destination_address{0x0A000002}; // 10.0.0.2
    uint32_t acknowledgement{0};              // TCP
};

inline frame make_frame(const std::string& headers, const std::string& content)
{
    const auto length = static_cast<uint32_t>(headers.size() + content.size());
    return {headers + content, length, length, content};
}

inline std::string ethernet_header(uint16_t type, bool vlan = false)
{
    const std::string tag = vlan ? number_bytes(0x8100, 2) + number_bytes(5, 2) : "";
    return std::string("\x02\x00\x00\x00\x00\x02\x02\x00\x00\x00\x00\x01", 12) + tag +
           number_bytes(type, 2);
}

inline std::string ipv4_header(
    const std::string& options, uint8_t protocol, size_t content, uint32_t destination)
{
    const size_t length = 20 + options.size();
    return number_bytes(0x40 + length / 4, 1) + number_bytes(0, 1) +
           number_bytes(length + content, 2) + number_bytes(0, 4) + number_bytes(64, 1) +
           number_bytes(protocol, 1) + number_bytes(0, 2) + number_bytes(0x0A000001, 4) +
           number_bytes(destination, 4) + options;
}

inline std::string udp_header(const frame_parts& parts)
{
    return number_bytes(40000, 2) + number_bytes(parts.destination_port, 2) +
           number_bytes(8 + parts.payload.size(), 2) + number_bytes(0, 2);
}

inline std::string tcp_header(const frame_parts& parts)
{
    return number_bytes(40000, 2) + number_bytes(parts.destination_port, 2) +
           number_bytes(0x01020304, 4) + number_bytes(parts.acknowledgement, 4) +
           number_bytes(((20 + parts.tcp_options.size()) / 4) << 4U, 1) +
           number_bytes(0x18, 1) + number_bytes(512, 2) + number_bytes(0, 4) +
           parts.tcp_options;
}

inline frame ipv4_frame(
    const frame_parts& parts, uint8_t protocol, const std::string& transport_header)
{
    const size_t content = transport_header.size() + parts.payload.size();
    return make_frame(
        ethernet_header(0x0800, parts.vlan) +
            ipv4_header(parts.ip_options, protocol, content, parts.destination_address) +
            transport_header,
        parts.payload + parts.padding);
}

inline frame udp_frame(const frame_parts& parts)
{
    return ipv4_frame(parts, 17, udp_header(parts));
}

inline frame tcp_frame(const frame_parts& parts)
{
    return ipv4_frame(parts, 6, tcp_header(parts));
}

inline frame udp_ipv6_frame(const frame_parts& parts)
{
    const std::string transport_header = udp_header(parts);
    return make_frame(
        ethernet_header(0x86DD) + number_bytes(0x60000000, 4) +
            number_bytes(transport_header.size() + parts.payload.size(), 2) +
            number_bytes(17, 1) + number_bytes(64, 1) + std::string(32, '\x11') +
            transport_header,
        parts.payload + parts.padding);
}

// The same frame as a capture with this snapshot length holds it.
inline frame truncated(frame whole, size_t captured)
{
    const size_t headers = whole.bytes.size() - whole.payload.size();
    whole.bytes.resize(captured);
    whole.captured_length = static_cast<uint32_t>(captured);
    whole.payload = captured > headers ? whole.bytes.substr(headers) : "";
    return whole;
}

inline frame with_lengths(frame honest, uint32_t captured, uint32_t wire)
{
    honest.captured_length = captured;
    honest.wire_length = wire;
    return honest;
}

struct capture_format {
    bool pcapng{false};
    bool big_endian{false};
    bool nanoseconds{false};
    uint32_t link_type{1}; // Ethernet
    uint32_t snapshot_length{262144};
};

inline std::string pcap_bytes(
    const std::vector<frame>& frames, const capture_format& format)
{
    const auto number = [&](uint64_t value, size_t size) {
        return number_bytes(value, size, format.big_endian);
    };
    std::string bytes = number(format.nanoseconds ? 0xA1B23C4D : 0xA1B2C3D4, 4) +
                        number(2, 2) + number(4, 2) + number(0, 8) +
                        number(format.snapshot_length, 4) + number(format.link_type, 4);
    for (const frame& each : frames)
        bytes += number(1600000000, 4) + number(999999, 4) +
                 number(each.captured_length, 4) + number(each.wire_length, 4) +
                 each.bytes;
    return bytes;
}

inline std::string pcapng_bytes(
    const std::vector<frame>& frames, const capture_format& format)
{
    const auto number = [&](uint64_t value, size_t size) {
        return number_bytes(value, size, format.big_endian);
    };
    const auto block = [&](uint32_t type, std::string body) {
        body.resize((body.size() + 3) / 4 * 4);
        const std::string length = number(body.size() + 12, 4);
        return number(type, 4) + length + body + length;
    };
    const std::string resolution =
        format.nanoseconds
            ? number(9, 2) + number(1, 2) + std::string("\x09\0\0\0", 4) + number(0, 4)
            : "";

    std::string bytes = block(
                            0x0A0D0D0A, number(0x1A2B3C4D, 4) + number(1, 2) +
                                            number(0, 2) + number(~0ULL, 8)) +
                        block(
                            1, number(format.link_type, 2) + number(0, 2) +
                                   number(format.snapshot_length, 4) + resolution);
    for (const frame& each : frames)
        bytes += block(
            6, number(0, 4) + number(0, 8) + number(each.captured_length, 4) +
                   number(each.wire_length, 4) + each.bytes);
    return bytes;
}

inline std::string capture_bytes(
    const std::vector<frame>& frames, const capture_format& format = {})
{
    return format.pcapng ? pcapng_bytes(frames, format) : pcap_bytes(frames, format);
}

inline void write_file(const std::string& path, const std::string& bytes)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

} // namespace support
