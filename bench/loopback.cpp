// Compares the sender's poller thread with a bare single-threaded loop that makes
// the same system calls: processor time per message over loopback, interleaved
// runs, one receiver for all. The receiver runs on the main thread.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
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
#include "support/capture_builder.h"
#include "tcp_engine.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t DISTINCT_MESSAGES = vesk::QUEUE_CAPACITY;
constexpr size_t RECEIVE_BUFFER = 64 << 20;

struct plan {
    std::string sender;
    bool tcp{true};
    size_t size{10240};
    uint64_t messages{400000}; // measured per run
    int runs{9};
};

[[noreturn]] void fail(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

int checked(int rc, const char* what)
{
    if (rc == -1)
        fail(what);
    return rc;
}

// The receiver shares its processor with the sender's reading thread, which spins.
// Where it is allowed, it goes first there, so that both kinds of sender meet the
// same receiver. The senders do not inherit this.
void put_first()
{
    const sched_param priority{1};
    if (::sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &priority) == -1)
        std::cerr << "loopback: no real-time priority; the receiver may lag\n";
}

sockaddr_in loopback(uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

uint16_t bind_anywhere(int fd)
{
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof(address);
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    checked(::bind(fd, generic, length), "bind");
    checked(::getsockname(fd, generic, &length), "getsockname");
    return ntohs(address.sin_port);
}

// Nanoseconds that a thread has run.
uint64_t cpu_time(pid_t pid, pid_t tid)
{
    std::ifstream file(
        "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/schedstat");
    uint64_t time = 0;
    if (!(file >> time))
        throw std::runtime_error("no schedstat: the kernel does not count it");
    return time;
}

// The receiver naps when there is nothing instead of waiting: waking it would cost the
// sending thread as much as several sends, and how often that happens is chance. As it
// goes first on its processor, napping is also how it lets others run there.
void nap()
{
    const timespec pause{0, 100000};
    ::nanosleep(&pause, nullptr);
}

pid_t find_thread(pid_t pid, const std::string& name)
{
    for (int tries = 0; tries < 100000; ++tries) {
        for (const auto& task :
             fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
            std::string found;
            std::getline(std::ifstream(task.path() / "comm"), found);
            if (found == name)
                return std::stoi(task.path().filename());
        }
        nap();
    }
    throw std::runtime_error("no thread " + name);
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

// A message's bytes: its number, then a pattern.
std::string message(uint64_t number, size_t size)
{
    std::string bytes = support::sample_bytes(size, static_cast<uint32_t>(number));
    std::memcpy(bytes.data(), &number, sizeof(number));
    return bytes;
}

// The recording that the sender replays: a data file for TCP, a capture for UDP. A
// preloaded one goes out backwards, so it is written backwards.
void write_recording(const fs::path& path, const plan& p, bool backwards)
{
    std::string data;
    std::vector<support::frame> frames;
    for (size_t i = 0; i < DISTINCT_MESSAGES; ++i) {
        std::string bytes = message(backwards ? DISTINCT_MESSAGES - 1 - i : i, p.size);
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

// The loop that does nothing but wait and send, from as many buffers as the
// sender's queue holds messages.
[[noreturn]] void bare_loop(const plan& p, int fd, const sockaddr_in& target)
{
    std::vector<std::unique_ptr<vesk::dataBuffer>> buffers;
    for (size_t i = 0; i < DISTINCT_MESSAGES; ++i) {
        const auto bytes = message(i, p.size);
        buffers.push_back(std::make_unique<vesk::dataBuffer>());
        std::memcpy(buffers.back()->buf, bytes.data(), bytes.size());
    }
    if (p.tcp)
        fd = checked(::accept(fd, nullptr, nullptr), "accept");
    checked(::fcntl(fd, F_SETFL, O_NONBLOCK), "fcntl");
    const int one = 1;
    if (p.tcp)
        checked(
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)), "setsockopt");

    const int epoll_fd = checked(::epoll_create(1), "epoll_create");
    epoll_event interest{EPOLLOUT, {}};
    checked(::epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &interest), "epoll_ctl");
    epoll_event events[vesk::MAX_IO_EVENTS];
    for (size_t next = 0;; next = (next + 1) % DISTINCT_MESSAGES) {
        while (::epoll_wait(epoll_fd, events, vesk::MAX_IO_EVENTS, 100) < 1) {
        }
        const char* data = buffers[next]->buf;
        const ssize_t sent =
            p.tcp ? ::send(fd, data, p.size, 0)
                  : ::sendto(
                        fd, data, p.size, 0, reinterpret_cast<const sockaddr*>(&target),
                        sizeof(target));
        if (sent != static_cast<ssize_t>(p.size))
            ::_exit(1);
    }
}

// One sending process. It dies with this object.
class subject {
public:
    subject(const subject&) = delete;
    subject& operator=(const subject&) = delete;
    subject(
        const plan& p, const std::string& kind, const fs::path& recording,
        uint16_t udp_port)
    {
        if (kind == "bare")
            start_bare(p, udp_port);
        else
            start_sender(p, kind, recording, udp_port);
    }
    ~subject()
    {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

    uint16_t port() const { return port_; }
    uint64_t cpu_time() const { return ::cpu_time(pid_, tid_); }

private:
    void start_bare(const plan& p, uint16_t udp_port)
    {
        const int fd =
            checked(::socket(AF_INET, p.tcp ? SOCK_STREAM : SOCK_DGRAM, 0), "socket");
        port_ = udp_port;
        if (p.tcp) {
            port_ = bind_anywhere(fd);
            checked(::listen(fd, 1), "listen");
        }
        pid_ = fork_subject();
        if (pid_ == 0) {
            bench::pin(0, true);
            bare_loop(p, fd, loopback(port_));
        }
        ::close(fd);
        tid_ = pid_;
    }

    void start_sender(
        const plan& p, const std::string& kind, const fs::path& recording,
        uint16_t udp_port)
    {
        port_ = udp_port;
        if (p.tcp) { // a port that was free a moment ago
            const int fd = checked(::socket(AF_INET, SOCK_STREAM, 0), "socket");
            port_ = bind_anywhere(fd);
            ::close(fd);
        }
        const std::string port = std::to_string(port_);
        const char* preload = kind == "preloaded" ? "1" : "0";
        pid_ = fork_subject();
        if (pid_ == 0) {
            const int null = ::open("/dev/null", O_WRONLY);
            ::dup2(null, STDOUT_FILENO);
            ::execl(
                p.sender.c_str(), "replay_sender", "--filepath", recording.c_str(),
                "--port", port.c_str(), "--loopback", "0", "--preload", preload,
                "--protocol", p.tcp ? "tcp" : "udp", "--filetype", p.tcp ? "0" : "1",
                "--filter", "tcp", nullptr);
            ::_exit(127);
        }
        tid_ = find_thread(pid_, "poller_thread");
        bench::pin(tid_, true);
    }

    pid_t pid_{};
    pid_t tid_{};
    uint16_t port_{};
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

// Takes bytes off the stream, without copying them, until `bytes` have come.
void drain_stream(int fd, uint64_t bytes)
{
    static std::vector<char> scratch(1 << 20);
    while (bytes > 0) {
        const ssize_t got = ::recv(
            fd, scratch.data(), std::min<uint64_t>(scratch.size(), bytes),
            MSG_TRUNC | MSG_DONTWAIT);
        if (got == 0 || (got == -1 && errno != EAGAIN))
            throw std::runtime_error("the stream ended early");
        if (got == -1)
            nap();
        else
            bytes -= static_cast<uint64_t>(got);
    }
}

// Takes datagrams until `count` more have been sent, going by their numbers: those
// that found no room count too, since sending them took as long.
void drain_datagrams(int fd, uint64_t count, uint64_t& last)
{
    constexpr size_t BATCH = 256;
    static std::array<std::array<uint64_t, 8>, BATCH> heads;
    std::array<iovec, BATCH> parts;
    std::array<mmsghdr, BATCH> headers{};
    for (size_t i = 0; i < BATCH; ++i) {
        parts[i] = {heads[i].data(), sizeof(heads[i])};
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
    for (uint64_t sent = 0; sent < count;) {
        const int got = ::recvmmsg(fd, headers.data(), BATCH, MSG_DONTWAIT, nullptr);
        if (got == -1) {
            if (errno != EAGAIN)
                fail("recvmmsg");
            nap();
            continue;
        }
        for (size_t i = 0; i < static_cast<size_t>(got); ++i) {
            sent += (heads[i][0] + DISTINCT_MESSAGES - last) % DISTINCT_MESSAGES;
            last = heads[i][0];
        }
    }
}

// Nanoseconds of the sending thread per message, over one run.
double measure(const plan& p, const std::string& kind, const fs::path& recording)
{
    const uint64_t warm_up = p.messages / 10;
    if (p.tcp) {
        const subject sender(p, kind, recording, 0);
        const int fd = connect_to(sender.port());
        drain_stream(fd, warm_up * p.size);
        const uint64_t before = sender.cpu_time();
        drain_stream(fd, p.messages * p.size);
        const uint64_t spent = sender.cpu_time() - before;
        ::close(fd);
        return static_cast<double>(spent) / static_cast<double>(p.messages);
    }

    const int fd = checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket");
    const int room = RECEIVE_BUFFER;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof(room)) == -1)
        checked(
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &room, sizeof(room)), "setsockopt");
    const uint16_t port = bind_anywhere(fd);
    const subject sender(p, kind, recording, port);
    uint64_t last = 0;
    drain_datagrams(fd, warm_up, last);
    const uint64_t before = sender.cpu_time();
    drain_datagrams(fd, p.messages, last);
    const uint64_t spent = sender.cpu_time() - before;
    ::close(fd);
    return static_cast<double>(spent) / static_cast<double>(p.messages);
}

plan parse(int argc, char** argv)
{
    plan p;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view name = argv[i];
        const std::string value = argv[i + 1];
        if (name == "--sender")
            p.sender = value;
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
    if (p.sender.empty() || argc % 2 == 0)
        throw std::invalid_argument("usage: loopback --sender FILE [--protocol tcp|udp] "
                                    "[--size N] [--messages N] "
                                    "[--runs N]");
    // A data file always goes out in full buffers; a number needs its room.
    if ((p.tcp && p.size != vesk::MAX_BUFFER_SIZE) || p.size < 64 || p.size > 10240)
        throw std::invalid_argument("size: 10240 for tcp, 64 to 10240 for udp");
    return p;
}

void run(const plan& p)
{
    bench::pin(0, false);
    put_first();
    std::string folder = (fs::temp_directory_path() / "loopback.XXXXXX").string();
    if (::mkdtemp(folder.data()) == nullptr)
        fail("mkdtemp");
    const std::array<std::string, 3> kinds{"bare", "streamed", "preloaded"};
    for (const std::string& kind : kinds)
        write_recording(fs::path(folder) / kind, p, kind == "preloaded");

    std::cout << "protocol,size,subject,run,ns_per_message\n";
    for (int i = 0; i < p.runs; ++i) {
        for (const std::string& kind : kinds)
            std::cout << (p.tcp ? "tcp," : "udp,") << p.size << ',' << kind << ',' << i
                      << ',' << measure(p, kind, fs::path(folder) / kind) << std::endl;
    }
    fs::remove_all(folder);
}

} // namespace

int main(int argc, char** argv)
{
    try {
        run(parse(argc, argv));
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "loopback: " << error.what() << '\n';
        return 1;
    }
}
