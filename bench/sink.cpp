// The receiving half of the throughput benchmark, the same for every sender, and the
// two barest senders. A receiver prints "ready", then one line of JSON: what came, how
// long that took, and the processor time that the sending process used meanwhile.
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "sockets.h"

namespace {

using bench::checked;
using bench::loopback;
using steady = std::chrono::steady_clock;
using seconds = std::chrono::duration<double>;

constexpr size_t MESSAGE_SIZE = 10240; // what the sender cuts a data file into
constexpr int RECEIVE_BUFFER = 64 << 20;
constexpr size_t BATCH = 256;
constexpr seconds WARM_UP{0.2};
constexpr std::chrono::seconds PATIENCE{10};
constexpr std::chrono::microseconds NAP{100};

// The processor time of a sending process. One that has ended keeps its figures until
// its parent asks for its status.
struct sending_process {
    pid_t pid;
    pid_t tid; // the thread that sends
};

struct processor_time {
    uint64_t sending_ns;
    uint64_t process_ns;

    processor_time operator-(const processor_time& earlier) const
    {
        return {sending_ns - earlier.sending_ns, process_ns - earlier.process_ns};
    }
};

processor_time used_by(const sending_process& sender)
{
    const std::string tid = std::to_string(sender.tid);
    processor_time used{};
    bool found = false;
    for (const auto& task : std::filesystem::directory_iterator(
             "/proc/" + std::to_string(sender.pid) + "/task")) {
        std::ifstream file(task.path() / "schedstat");
        uint64_t time = 0;
        if (!(file >> time))
            throw std::runtime_error("no schedstat of a sending process");
        used.process_ns += time;
        if (task.path().filename() == tid) {
            used.sending_ns = time;
            found = true;
        }
    }
    if (!found)
        throw std::runtime_error("the sending thread has ended before its process");
    return used;
}

struct arrivals {
    uint64_t bytes{};
    uint64_t messages{}; // 0 for a stream
    uint64_t dropped{};
    seconds span{};
    processor_time used{};
};

void print(const arrivals& a)
{
    std::printf(
        "{\"bytes\": %ju, \"messages\": %ju, \"dropped\": %ju, \"seconds\": %.6f, "
        "\"sending_cpu_seconds\": %.6f, \"process_cpu_seconds\": %.6f}\n",
        uintmax_t{a.bytes}, uintmax_t{a.messages}, uintmax_t{a.dropped}, a.span.count(),
        static_cast<double>(a.used.sending_ns) / 1e9,
        static_cast<double>(a.used.process_ns) / 1e9);
}

void print_ready()
{
    std::puts("ready");
    std::fflush(stdout);
}

void make_room(int fd)
{
    if (::setsockopt(
            fd, SOL_SOCKET, SO_RCVBUFFORCE, &RECEIVE_BUFFER, sizeof(RECEIVE_BUFFER)) ==
        -1)
        checked(
            ::setsockopt(
                fd, SOL_SOCKET, SO_RCVBUF, &RECEIVE_BUFFER, sizeof(RECEIVE_BUFFER)),
            "setsockopt");
}

// The receiver naps when there is nothing instead of waiting: waking it would cost the
// sending thread as much as several sends, and how often that happens is chance.
void nap(steady::time_point last_arrival)
{
    if (steady::now() - last_arrival > PATIENCE)
        throw std::runtime_error("nothing has come for a long time");
    std::this_thread::sleep_for(NAP);
}

int connect_to(uint16_t port)
{
    const sockaddr_in address = loopback(port);
    const int fd = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
    checked(
        ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
        "connect");
    return fd;
}

// Takes exactly `bytes` off the stream, without copying them.
arrivals drain_stream(int fd, uint64_t bytes)
{
    static std::vector<char> scratch(1 << 20);
    arrivals seen;
    steady::time_point first;
    steady::time_point last = steady::now();
    while (seen.bytes < bytes) {
        const ssize_t got =
            ::recv(fd, scratch.data(), scratch.size(), MSG_TRUNC | MSG_DONTWAIT);
        if (got == 0)
            throw std::runtime_error(
                "the stream has ended after " + std::to_string(seen.bytes) + " bytes");
        if (got == -1) {
            if (errno != EAGAIN)
                checked(-1, "recv");
            nap(last);
            continue;
        }
        last = steady::now();
        if (seen.bytes == 0)
            first = last;
        seen.bytes += static_cast<uint64_t>(got);
    }
    if (seen.bytes > bytes)
        throw std::runtime_error("the stream is too long");
    seen.span = last - first;
    return seen;
}

// `open` makes the stream's descriptor, when the sender's clocks have been read.
template <typename open_t>
void receive_stream(open_t open, uint64_t bytes, const sending_process& sender)
{
    const processor_time before = used_by(sender);
    print_ready();
    arrivals seen = drain_stream(open(), bytes);
    seen.used = used_by(sender) - before;
    print(seen);
}

// Datagrams that found no room in the socket since it was made.
uint64_t dropped_by(int fd)
{
    std::array<uint32_t, SK_MEMINFO_VARS> counts{};
    socklen_t length = sizeof(counts);
    checked(
        ::getsockopt(fd, SOL_SOCKET, SO_MEMINFO, counts.data(), &length), "getsockopt");
    return counts[SK_MEMINFO_DROPS];
}

void wait_for_datagram(int fd)
{
    constexpr auto PATIENCE_MS = std::chrono::milliseconds(PATIENCE).count();
    pollfd waiting{fd, POLLIN, 0};
    if (checked(::poll(&waiting, 1, static_cast<int>(PATIENCE_MS)), "poll") == 0)
        throw std::runtime_error("nothing has come for a long time");
}

// Receives datagrams in batches, keeping of each only its length.
class datagram_receiver {
public:
    explicit datagram_receiver(int fd) : fd_(fd)
    {
        for (size_t i = 0; i < BATCH; ++i) {
            parts_[i] = {&bytes_[i], 1};
            headers_[i].msg_hdr.msg_iov = &parts_[i];
            headers_[i].msg_hdr.msg_iovlen = 1;
        }
    }
    datagram_receiver(const datagram_receiver&) = delete;
    datagram_receiver& operator=(const datagram_receiver&) = delete;

    // Adds to `seen` what comes until `span` has passed and the queue is empty, so that
    // a window between two such moments holds what was sent within it, and no more.
    void drain(seconds span, arrivals& seen)
    {
        const auto start = steady::now();
        auto last = start;
        for (;;) {
            const int got = ::recvmmsg(
                fd_, headers_.data(), BATCH, MSG_TRUNC | MSG_DONTWAIT, nullptr);
            const auto now = steady::now();
            if (got == -1) {
                if (errno != EAGAIN)
                    checked(-1, "recvmmsg");
                if (now - start >= span)
                    return;
                nap(last);
                continue;
            }
            last = now;
            count(static_cast<size_t>(got), seen);
            if (now - start > span + PATIENCE)
                throw std::runtime_error("the receiver does not keep up");
        }
    }

private:
    void count(size_t got, arrivals& seen) const
    {
        seen.messages += got;
        for (size_t i = 0; i < got; ++i)
            seen.bytes += headers_[i].msg_len;
    }

    int fd_;
    std::array<char, BATCH> bytes_{};
    std::array<iovec, BATCH> parts_{};
    std::array<mmsghdr, BATCH> headers_{};
};

void receive_datagrams(int fd, seconds span, const sending_process& sender)
{
    make_room(fd);
    print_ready();
    datagram_receiver receiver(fd);
    arrivals unmeasured;
    wait_for_datagram(fd);
    receiver.drain(WARM_UP, unmeasured);

    arrivals seen;
    const auto start = steady::now();
    const processor_time before = used_by(sender);
    const uint64_t dropped = dropped_by(fd);
    receiver.drain(span, seen);
    seen.dropped = dropped_by(fd) - dropped;
    seen.used = used_by(sender) - before;
    seen.span = steady::now() - start;
    print(seen);
}

// Reads a block and sends it: one thread, nothing else.
void send_stream(uint16_t port, const char* path)
{
    const int file = checked(::open(path, O_RDONLY | O_CLOEXEC), "open");
    const int listener = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
    const sockaddr_in address = loopback(port);
    checked(
        ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)),
        "bind");
    checked(::listen(listener, 1), "listen");
    const int fd = checked(::accept(listener, nullptr, nullptr), "accept");

    static std::array<char, MESSAGE_SIZE> block;
    for (;;) {
        const auto got =
            checked(static_cast<int>(::read(file, block.data(), block.size())), "read");
        if (got == 0)
            return;
        const auto length = static_cast<size_t>(got);
        if (::send(fd, block.data(), length, 0) != got)
            throw std::runtime_error("a block has not gone out whole");
    }
}

// Sends one message for ever.
[[noreturn]] void send_datagrams(uint16_t port, size_t size)
{
    const int fd = checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket");
    const sockaddr_in target = loopback(port);
    const std::vector<char> message(size, 'x');
    for (;;)
        checked(
            static_cast<int>(::sendto(
                fd, message.data(), size, 0, reinterpret_cast<const sockaddr*>(&target),
                sizeof(target))),
            "sendto");
}

uint16_t to_port(const char* text) { return static_cast<uint16_t>(std::stoul(text)); }

void receive(std::string_view mode, char** words)
{
    const sending_process sender{std::stoi(words[2]), std::stoi(words[3])};
    bench::put_first();
    if (mode == "connect")
        receive_stream(
            [&] { return connect_to(to_port(words[0])); }, std::stoull(words[1]), sender);
    else if (mode == "stream")
        receive_stream(
            [&] { return std::stoi(words[0]); }, std::stoull(words[1]), sender);
    else
        receive_datagrams(std::stoi(words[0]), seconds(std::stod(words[1])), sender);
}

void run(int argc, char** argv)
{
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const bool receives = mode == "connect" || mode == "stream" || mode == "datagrams";
    if (receives && argc == 6)
        receive(mode, argv + 2);
    else if (mode == "send-stream" && argc == 4)
        send_stream(to_port(argv[2]), argv[3]);
    else if (mode == "send-datagrams" && argc == 4)
        send_datagrams(to_port(argv[2]), std::stoul(argv[3]));
    else
        throw std::invalid_argument("usage: sink connect PORT BYTES PID TID\n"
                                    "       sink stream FD BYTES PID TID\n"
                                    "       sink datagrams FD SECONDS PID TID\n"
                                    "       sink send-stream PORT FILE\n"
                                    "       sink send-datagrams PORT SIZE");
}

} // namespace

int main(int argc, char** argv)
{
    try {
        run(argc, argv);
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "sink: " << error.what() << '\n';
        return 1;
    }
}
