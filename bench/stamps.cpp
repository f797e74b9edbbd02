// Collects the kernel's time stamps of the datagrams that arrive on a device: UDP to
// one port with one payload length. Stays in memory until the end, then writes the
// stamps as raw 64-bit nanoseconds. One thread.
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <pcap/pcap.h>
#include <poll.h>
#include <sys/socket.h>

namespace {

using std::chrono::steady_clock;

// The ring holds seconds of the fastest traffic: the collector shares its processor
// with programs that spin, and must lose nothing while they have it.
constexpr int RING_BYTES = 256 << 20;
constexpr int HEADERS_LENGTH = 64; // the payload stays in the kernel
// The kernel hands over a block when it is full, or this old. Rarely, so that the
// sending processor, in whose context that happens, is left alone.
constexpr int BLOCK_AGE_MS = 200;

struct plan {
    std::string device;
    std::string port;
    int length;      // of the payload
    double seconds;  // from the first datagram
    double patience; // from the start, whatever has arrived
    std::string path;
};

struct closer {
    void operator()(pcap_t* capture) const { ::pcap_close(capture); }
};
using capture_ptr = std::unique_ptr<pcap_t, closer>;

void check(const capture_ptr& capture, int rc)
{
    if (rc < 0)
        throw std::runtime_error(::pcap_geterr(capture.get()));
}

void set_filter(const capture_ptr& capture, const plan& p)
{
    constexpr int UDP_HEADER = 8;
    const std::string expression = "udp dst port " + p.port + " and udp[4:2] = " +
                                   std::to_string(p.length + UDP_HEADER);
    bpf_program program{};
    check(
        capture,
        ::pcap_compile(
            capture.get(), &program, expression.c_str(), 1, PCAP_NETMASK_UNKNOWN));
    const int rc = ::pcap_setfilter(capture.get(), &program);
    ::pcap_freecode(&program);
    check(capture, rc);
}

// Without a socket that asks for stamps the kernel would take them later on, when
// it copies the frame into the ring.
void stamp_on_arrival(const capture_ptr& capture)
{
    const int on = 1;
    const int fd = ::pcap_fileno(capture.get());
    if (::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof(on)) == -1)
        throw std::system_error(errno, std::generic_category(), "SO_TIMESTAMPNS");
}

capture_ptr open_device(const plan& p)
{
    char error[PCAP_ERRBUF_SIZE]{};
    capture_ptr capture(::pcap_create(p.device.c_str(), error));
    if (capture == nullptr)
        throw std::runtime_error(error);
    check(capture, ::pcap_set_buffer_size(capture.get(), RING_BYTES));
    check(capture, ::pcap_set_snaplen(capture.get(), HEADERS_LENGTH));
    check(capture, ::pcap_set_timeout(capture.get(), BLOCK_AGE_MS));
    check(
        capture, ::pcap_set_tstamp_precision(capture.get(), PCAP_TSTAMP_PRECISION_NANO));
    check(capture, ::pcap_activate(capture.get()));
    if (::pcap_setnonblock(capture.get(), 1, error) == -1)
        throw std::runtime_error(error);
    set_filter(capture, p);
    stamp_on_arrival(capture);
    return capture;
}

void keep(u_char* user, const pcap_pkthdr* header, const u_char* /*data*/)
{
    // By the asked precision the field for microseconds holds nanoseconds.
    reinterpret_cast<std::vector<int64_t>*>(user)->push_back(
        int64_t{header->ts.tv_sec} * 1000000000 + int64_t{header->ts.tv_usec});
}

bool spans(const std::vector<int64_t>& stamps, double seconds)
{
    return !stamps.empty() &&
           static_cast<double>(stamps.back() - stamps.front()) >= seconds * 1e9;
}

std::vector<int64_t> collect(const capture_ptr& capture, const plan& p)
{
    std::vector<int64_t> stamps;
    const auto deadline = steady_clock::now() + std::chrono::duration<double>(p.patience);
    while (!spans(stamps, p.seconds) && steady_clock::now() < deadline) {
        pollfd ready{::pcap_fileno(capture.get()), POLLIN, 0};
        if (::poll(&ready, 1, BLOCK_AGE_MS) == -1)
            throw std::system_error(errno, std::generic_category(), "poll");
        check(
            capture,
            ::pcap_dispatch(capture.get(), -1, keep, reinterpret_cast<u_char*>(&stamps)));
    }
    return stamps;
}

void write_stamps(const std::string& path, const std::vector<int64_t>& stamps)
{
    std::ofstream out(path, std::ios::binary);
    out.write(
        reinterpret_cast<const char*>(stamps.data()),
        static_cast<std::streamsize>(stamps.size() * sizeof(int64_t)));
    if (!out.flush())
        throw std::runtime_error("cannot write " + path);
}

// Says "ready" once nothing can be missed, and at the end what the ring had no
// room for.
void run(const plan& p)
{
    const capture_ptr capture = open_device(p);
    std::cout << "ready" << std::endl;
    const std::vector<int64_t> stamps = collect(capture, p);
    pcap_stat counts{};
    check(capture, ::pcap_stats(capture.get(), &counts));
    write_stamps(p.path, stamps);
    std::cout << counts.ps_drop << std::endl;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 7) {
        std::cerr << "usage: stamps DEVICE PORT LENGTH SECONDS PATIENCE FILE\n";
        return EXIT_FAILURE;
    }
    try {
        run(
            {argv[1], argv[2], std::stoi(argv[3]), std::stod(argv[4]), std::stod(argv[5]),
             argv[6]});
    } catch (const std::exception& error) {
        std::cerr << "stamps: " << error.what() << '\n';
        return EXIT_FAILURE;
    }
}
