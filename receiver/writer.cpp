// See writer.h.
#include "writer.h"

#include <cstdio>
#include <span>
#include <utility>

#include <fmt/format.h>
#include <net/ethernet.h>
#include <netinet/ip.h>
#include <netinet/udp.h>
#include <sys/time.h>

#include "common.h"

namespace receiver {

namespace {

// The Internet checksum's sum, as yet unfolded. An odd byte at the end counts as
// the upper half of its word.
uint64_t sum_words(bytes_view bytes)
{
    uint64_t sum = 0;
    for (size_t i = 0; i < bytes.size(); ++i)
        sum += i % 2 == 0 ? uint64_t{bytes[i]} << 8U : uint64_t{bytes[i]};
    return sum;
}

uint16_t checksum(uint64_t sum)
{
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16U);
    return htons(static_cast<uint16_t>(~sum));
}

template <class header_t>
bytes_view bytes_of(const header_t& header)
{
    return {reinterpret_cast<const uint8_t*>(&header), sizeof(header)};
}

template <class header_t>
void append(std::vector<uint8_t>& frame, const header_t& header)
{
    const bytes_view bytes = bytes_of(header);
    frame.insert(frame.end(), bytes.begin(), bytes.end());
}

// The hardware addresses are not known; these are made up, for local use.
ether_header make_ethernet()
{
    ether_header header{};
    header.ether_dhost[0] = 0x02;
    header.ether_dhost[5] = 0x02;
    header.ether_shost[0] = 0x02;
    header.ether_shost[5] = 0x01;
    header.ether_type = htons(ETHERTYPE_IP);
    return header;
}

iphdr make_ip(const received_datagram& datagram)
{
    iphdr header{};
    header.version = 4;
    header.ihl = sizeof(iphdr) / 4;
    header.tot_len = htons(
        static_cast<uint16_t>(sizeof(iphdr) + sizeof(udphdr) + datagram.payload.size()));
    header.frag_off = htons(IP_DF);
    header.ttl = 64;
    header.protocol = IPPROTO_UDP;
    header.saddr = datagram.from.sin_addr.s_addr;
    header.daddr = datagram.to.s_addr;
    header.check = checksum(sum_words(bytes_of(header)));
    return header;
}

udphdr make_udp(const received_datagram& datagram, const iphdr& ip, in_port_t port)
{
    udphdr header{};
    header.source = datagram.from.sin_port;
    header.dest = port;
    header.len = htons(static_cast<uint16_t>(sizeof(udphdr) + datagram.payload.size()));
    const uint32_t addresses[] = {ip.saddr, ip.daddr};
    header.check = checksum(
        sum_words(bytes_of(addresses)) + IPPROTO_UDP + ntohs(header.len) +
        sum_words(bytes_of(header)) + sum_words(datagram.payload));
    if (header.check == 0) // which would mean: none
        header.check = 0xFFFF;
    return header;
}

} // namespace

data_writer::data_writer(output_file&& file) : file_(std::move(file)) { file_.begin(); }

capture_writer::capture_writer(output_file&& file)
    : path_(file.path()),
      format_(::pcap_open_dead_with_tstamp_precision(
          DLT_EN10MB, vesk::MAXIMUM_SNAPLEN, PCAP_TSTAMP_PRECISION_NANO))
{
    if (format_ == nullptr)
        cannot_write(path_);
    file.begin();
    dump_.reset(::pcap_dump_fopen(format_.get(), file.stream()));
    if (dump_ == nullptr)
        throw file_error(fmt::format(
            "{}: cannot be written: {}", path_, ::pcap_geterr(format_.get())));
    (void)file.release(); // the library's now
}

void capture_writer::write(const received_datagram& datagram, in_port_t port)
{
    frame_.clear();
    append(frame_, make_ethernet());
    const iphdr ip = make_ip(datagram);
    append(frame_, ip);
    append(frame_, make_udp(datagram, ip, port));
    frame_.insert(frame_.end(), datagram.payload.begin(), datagram.payload.end());

    pcap_pkthdr header{};
    header.ts.tv_sec = static_cast<time_t>(datagram.stamp_ns / 1000000000);
    // At this precision the library takes nanoseconds here.
    header.ts.tv_usec = static_cast<suseconds_t>(datagram.stamp_ns % 1000000000);
    header.caplen = static_cast<bpf_u_int32>(frame_.size());
    header.len = header.caplen;
    ::pcap_dump(reinterpret_cast<u_char*>(dump_.get()), &header, frame_.data());
    check();
}

void capture_writer::check()
{
    if (std::ferror(::pcap_dump_file(dump_.get())) != 0)
        cannot_write(path_);
}

void capture_writer::finish()
{
    if (::pcap_dump_flush(dump_.get()) != 0)
        cannot_write(path_);
    check();
    dump_.reset();
}

} // namespace receiver
