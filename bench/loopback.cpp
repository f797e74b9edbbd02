// Compares the sender's poller thread with a bare single-threaded loop that makes
// the same system calls, and with one whose buffers a second thread writes: processor
// time per message over loopback, interleaved runs, one receiver for all, on the main
// thread. stub_calls.cpp, preloaded into each, counts bursts out of a full queue: a
// poller that finds it empty spins, and that is no part of a message's cost.
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "processors.h"
#include "sockets.h"
#include "support/capture_builder.h"
#include "tcp_engine.h"

namespace {

namespace fs = std::filesystem;
using bench::bind_anywhere;
using bench::checked;
using bench::fail;
using bench::loopback;

constexpr size_t DISTINCT_MESSAGES = vesk::QUEUE_CAPACITY;
constexpr size_t RECEIVE_BUFFER = 64 << 20;

constexpr const char* BURST = "900"; // messages: less than the queue holds

struct plan {
    std::string sender;
    std::string library;
    bool tcp{true};
    size_t size{10240};
    uint64_t messages{400000}; // measured per run
    int runs{9};
};

// The receiver naps when there is nothing instead of waiting: waking it would cost the
// sending thread as much as several sends, and how often that happens is chance. As it
// goes first on its processor, napping is also how it lets others run there.
void nap()
{
    const timespec pause{0, 100000};
    ::nanosleep(&pause, nullptr);
}

// Starts a child that dies with its parent.
pid_t fork_subject()
{
    const pid_t parent = ::getpid();
    const pid_t pid = checked(::fork(), "fork");
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) // died before the line above
            ::_exit(1);
    }
    return pid;
}

std::string message(size_t number, size_t size)
{
    return support::sample_bytes(size, static_cast<uint32_t>(number));
}

// The recording that the sender replays: a data file for TCP, a capture for UDP.
void write_recording(const fs::path& path, const plan& p)
{
    std::string data;
    std::vector<support::frame> frames;
    for (size_t i = 0; i < DISTINCT_MESSAGES; ++i) {
        std::string bytes = message(i, p.size);
        if (p.tcp) {
            data += bytes;
        } else {
            support::frame_parts parts;
            parts.payload = std::move(bytes);
            frames.push_back(support::tcp_frame(parts));
        }
    }
    support::write_file(path, p.tcp ? data : support::capture_bytes(frames));
}

// As many buffers as the sender's queue holds messages.
class ring {
public:
    explicit ring(const plan& p) : size_(p.size)
    {
        for (size_t i = 0; i < DISTINCT_MESSAGES; ++i) {
            buffers_.push_back(std::make_unique<vesk::dataBuffer>());
            const auto bytes = message(i, size_);
            std::memcpy(buffers_.back()->buf, bytes.data(), size_);
        }
    }

    const char* at(uint64_t number) const
    {
        return buffers_[number % DISTINCT_MESSAGES]->buf;
    }

    // The writing thread, without end: writes each buffer anew once it has been sent.
    [[noreturn]] void feed()
    {
        const auto originals = buffers_copy();
        for (uint64_t next = 0;; ++next) {
            while (next - sent_.load(std::memory_order_acquire) == DISTINCT_MESSAGES) {
            }
            const size_t i = next % DISTINCT_MESSAGES;
            std::memcpy(buffers_[i]->buf, originals[i].data(), size_);
            written_.store(next + 1, std::memory_order_release);
        }
    }

    // The sending thread, of a ring that is fed.
    void await(uint64_t number) const
    {
        while (written_.load(std::memory_order_acquire) <= number) {
        }
    }
    void release(uint64_t number) { sent_.store(number + 1, std::memory_order_release); }

private:
    std::vector<std::string> buffers_copy() const
    {
        std::vector<std::string> copies;
        for (const auto& buffer : buffers_)
            copies.emplace_back(buffer->buf, size_);
        return copies;
    }

    size_t size_;
    std::vector<std::unique_ptr<vesk::dataBuffer>> buffers_;
    alignas(64) std::atomic<uint64_t> written_{0};
    alignas(64) std::atomic<uint64_t> sent_{0};
};

// The descriptor to send to, with its writability watched.
int open_for_sending(const plan& p, int fd)
{
    if (p.tcp) {
        const int one = 1;
        fd = checked(::accept(fd, nullptr, nullptr), "accept");
        checked(
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)), "setsockopt");
    }
    checked(::fcntl(fd, F_SETFL, O_NONBLOCK), "fcntl");
    return fd;
}

// The loop that does nothing but wait and send. `fed`: out of buffers that another
// thread writes, by the plainest of hand-overs, which is what a sender in two threads
// cannot do without.
[[noreturn]] void bare_loop(const plan& p, int fd, const sockaddr_in& target, bool fed)
{
    static ring messages(p);
    if (fed) {
        std::thread([] { messages.feed(); }).detach();
        // What the poller saves in a program with threads, this loop saves too.
        (void)::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
        (void)::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
    }
    fd = open_for_sending(p, fd);
    const int epoll_fd = checked(::epoll_create(1), "epoll_create");
    epoll_event interest{EPOLLOUT, {}};
    checked(::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &interest), "epoll_ctl");
    epoll_event events[vesk::MAX_IO_EVENTS];
    for (uint64_t next = 0;; ++next) {
        while (::epoll_wait(epoll_fd, events, vesk::MAX_IO_EVENTS, 100) < 1) {
        }
        if (fed)
            messages.await(next);
        const char* data = messages.at(next);
        const ssize_t sent =
            p.tcp ? ::send(fd, data, p.size, 0)
                  : ::sendto(
                        fd, data, p.size, 0, reinterpret_cast<const sockaddr*>(&target),
                        sizeof(target));
        if (sent != static_cast<ssize_t>(p.size))
            ::_exit(1);
        if (fed)
            messages.release(next);
    }
}

// One sending process, under the library. It dies with this object.
class subject {
public:
    subject(const subject&) = delete;
    subject& operator=(const subject&) = delete;
    subject(
        const plan& p, const std::string& kind, const fs::path& folder, uint16_t udp_port)
        : port_(udp_port), report_(folder / "report")
    {
        if (kind == "bare" || kind == "fed")
            start_loop(p, kind);
        else
            start_sender(p, kind, folder / "recording");
    }
    ~subject()
    {
        if (pid_ == 0)
            return;
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    uint16_t port() const { return port_; }

    // Whether it has sent all that is to be counted. Throws when it has failed or takes
    // too long for anything else.
    bool has_ended()
    {
        if (std::chrono::steady_clock::now() > deadline_)
            throw std::runtime_error("a sender does not come to its end");
        int status = 0;
        if (pid_ != 0 && checked(::waitpid(pid_, &status, WNOHANG), "waitpid") == pid_) {
            pid_ = 0;
            if (status != 0)
                throw std::runtime_error("a sender has failed");
        }
        return pid_ == 0;
    }

    // Nanoseconds per message, once it has ended.
    double cost() const
    {
        std::ifstream file(report_);
        const auto report = nlohmann::json::parse(file);
        return report.at("poller_ns").get<double>() / report.at("messages").get<double>();
    }

private:
    void start_loop(const plan& p, const std::string& kind)
    {
        const int fd =
            checked(::socket(AF_INET, p.tcp ? SOCK_STREAM : SOCK_DGRAM, 0), "socket");
        if (p.tcp) {
            port_ = bind_anywhere(fd);
            checked(::listen(fd, 1), "listen");
        }
        start(
            p, {"/proc/self/exe", kind, p.tcp ? "tcp" : "udp", std::to_string(p.size),
                std::to_string(fd), std::to_string(port_)});
        ::close(fd);
    }

    void start_sender(const plan& p, const std::string& kind, const fs::path& recording)
    {
        if (p.tcp) { // a port that was free a moment ago
            const int fd = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
            port_ = bind_anywhere(fd);
            ::close(fd);
        }
        start(
            p, {p.sender, "--filepath", recording, "--port", std::to_string(port_),
                "--loopback", "0", "--preload", kind == "preloaded" ? "1" : "0",
                "--protocol", p.tcp ? "tcp" : "udp", "--filetype", p.tcp ? "0" : "1",
                "--filter", "tcp"});
    }

    void start(const plan& p, std::vector<std::string> words)
    {
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        pid_ = fork_subject();
        if (pid_ != 0)
            return;
        ::setenv("LD_PRELOAD", p.library.c_str(), 1);
        ::setenv("STUB_PASS", "1", 1);
        ::setenv("STUB_OUT", report_.c_str(), 1);
        ::setenv("STUB_WARMUP", std::to_string(p.messages / 10).c_str(), 1);
        ::setenv("STUB_MESSAGES", std::to_string(p.messages).c_str(), 1);
        ::setenv("STUB_BURST", BURST, 1);
        ::setenv(
            "STUB_PROCESSOR", std::to_string(bench::measured_processor()).c_str(), 1);
        ::dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO);
        ::execv(arguments[0], arguments.data());
        ::_exit(127);
    }

    static constexpr std::chrono::seconds TIME_LIMIT{60};

    uint16_t port_;
    fs::path report_;
    std::chrono::steady_clock::time_point deadline_{
        std::chrono::steady_clock::now() + TIME_LIMIT};
    pid_t pid_{0}; // 0: it has ended
};

int connect_to(uint16_t port)
{
    const sockaddr_in address = loopback(port);
    for (int tries = 0; tries < 100000; ++tries) {
        const int fd = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
            0)
            return fd;
        ::close(fd);
        nap();
    }
    fail("connect");
}

// Takes bytes off the stream, without copying them, as long as there are any.
void drain_stream(int fd, subject& sender)
{
    static std::vector<char> scratch(1 << 20);
    while (!sender.has_ended()) {
        const ssize_t got =
            ::recv(fd, scratch.data(), scratch.size(), MSG_TRUNC | MSG_DONTWAIT);
        if (got < 1)
            nap();
    }
}

// Takes the heads of datagrams as long as there are any.
void drain_datagrams(int fd, subject& sender)
{
    constexpr size_t BATCH = 256;
    static std::array<std::array<char, 64>, BATCH> heads;
    std::array<iovec, BATCH> parts;
    std::array<mmsghdr, BATCH> headers{};
    for (size_t i = 0; i < BATCH; ++i) {
        parts[i] = {heads[i].data(), heads[i].size()};
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    while (!sender.has_ended()) {
        if (::recvmmsg(fd, headers.data(), BATCH, MSG_DONTWAIT, nullptr) < 1)
            nap();
    }
}

// Nanoseconds of the sending thread per message, over one run.
double measure(const plan& p, const std::string& kind, const fs::path& folder)
{
    if (p.tcp) {
        subject sender(p, kind, folder, 0);
        const int fd = connect_to(sender.port());
        drain_stream(fd, sender);
        ::close(fd);
        return sender.cost();
    }

    const int fd = checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket");
    const int room = RECEIVE_BUFFER;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) == -1)
        checked(
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room)), "setsockopt");
    subject sender(p, kind, folder, bind_anywhere(fd));
    drain_datagrams(fd, sender);
    ::close(fd);
    return sender.cost();
}

plan parse(int argc, char** argv)
{
    plan p;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view name = argv[i];
        const std::string value = argv[i + 1];
        if (name == "--sender")
            p.sender = value;
        else if (name == "--library")
            p.library = value;
        else if (name == "--protocol")
            p.tcp = value == "tcp";
        else if (name == "--size")
            p.size = std::stoul(value);
        else if (name == "--messages")
            p.messages = std::stoull(value);
        else if (name == "--runs")
            p.runs = std::stoi(value);
        else
            throw std::invalid_argument("unknown option " + std::string(name));
    }
    if (p.sender.empty() || !fs::exists(p.library) || argc % 2 == 0)
        throw std::invalid_argument("usage: loopback --sender FILE --library FILE "
                                    "[--protocol tcp|udp] [--size N] [--messages N] "
                                    "[--runs N]");
    // A data file always goes out in full buffers.
    if ((p.tcp && p.size != vesk::MAX_BUFFER_SIZE) || p.size < 1 || p.size > 10240)
        throw std::invalid_argument("size: 10240 for tcp, 1 to 10240 for udp");
    return p;
}

void run(const plan& p)
{
    bench::pin(0, false);
    bench::put_first();
    std::string folder = (fs::temp_directory_path() / "loopback.XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr)
        fail("mkdtemp");
    write_recording(fs::path(folder) / "recording", p);
    ::sync(); // so that writing it out does not fall into the first run

    std::cout << "protocol,size,subject,run,ns_per_message\n";
    for (int i = 0; i < p.runs; ++i) {
        for (const char* kind : {"bare", "fed", "streamed", "preloaded"})
            std::cout << (p.tcp ? "tcp," : "udp,") << p.size << ',' << kind << ',' << i
                      << ',' << measure(p, kind, folder) << std::endl;
    }
    fs::remove_all(folder);
}

} // namespace

// As `loopback bare|fed tcp|udp SIZE DESCRIPTOR PORT` this is one of the senders.
int main(int argc, char** argv)
{
    try {
        const std::string_view kind = argc == 6 ? argv[1] : "";
        if (kind == "bare" || kind == "fed") {
            plan p;
            p.tcp = std::string_view(argv[2]) == "tcp";
            p.size = std::stoul(argv[3]);
            const auto port = static_cast<uint16_t>(std::stoi(argv[5]));
            bare_loop(p, std::stoi(argv[4]), loopback(port), kind == "fed");
        }
        run(parse(argc, argv));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "loopback: " << error.what() << '\n';
        return 1;
    }
}
