// How long a message takes from its hand-over on the one thread to the send call on the
// other, when nothing else is under way: through the sender's engine and poller, and
// through a mutex and a condition variable. One message at a time, at random moments.
// Usage: latency RUNS MESSAGES, and CSV comes out.
#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "processors.h"
#include "sockets.h"
#include "tcp_engine.h"

namespace {

constexpr size_t MESSAGE_SIZE = 500;
constexpr int64_t LEAST_GAP_NS = 20000;
constexpr int64_t MOST_GAP_NS = 60000;

int64_t now_ns()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000000000 + now.tv_nsec;
}

// When the latest message reached its send call. Written by the sending thread and read
// by the other, which waits for it before it hands the next one over.
std::atomic<int64_t> arrived_ns{0};

vesk::data_t make_message()
{
    auto message = std::make_shared<vesk::dataBuffer>();
    message->length = MESSAGE_SIZE;
    return message;
}

// Hands over `count` messages, each a random while after the last one's arrival, and
// returns what each took. `hand_over` takes a message and returns at once.
template <class hand_over_t>
std::vector<int64_t> measure(size_t count, hand_over_t hand_over)
{
    std::mt19937_64 random(1);
    std::uniform_int_distribution<int64_t> gap(LEAST_GAP_NS, MOST_GAP_NS);
    std::vector<int64_t> taken;
    taken.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        vesk::data_t message = make_message();
        for (const int64_t until = now_ns() + gap(random); now_ns() < until;) {
        }
        arrived_ns.store(0, std::memory_order_relaxed);
        const int64_t start = now_ns();
        hand_over(std::move(message));
        int64_t arrived = 0;
        while ((arrived = arrived_ns.load(std::memory_order_acquire)) == 0) {
        }
        taken.push_back(arrived - start);
    }
    return taken;
}

// A bound socket that nobody reads: what finds no room there is dropped.
class unread_socket {
public:
    unread_socket() : fd_(bench::checked(::socket(AF_INET, SOCK_DGRAM, 0), "socket")) {}
    ~unread_socket() { ::close(fd_); }
    unread_socket(const unread_socket&) = delete;
    unread_socket& operator=(const unread_socket&) = delete;

    uint16_t port() const { return port_; }

private:
    int fd_;
    uint16_t port_{bench::bind_anywhere(fd_)};
};

// The poller thread inherits its place from the thread that starts it.
std::vector<int64_t> through_the_sender(size_t count)
{
    const unread_socket receiver;
    std::string name = bench::endpoint(receiver.port());
    const auto poller = std::make_shared<vesk::epoll_t>();
    vesk::udp_engine engine(poller, true);
    bench::pin(0, true);
    if (engine.set_local_address(name) != 0 || poller->start_poller("poller") != 0)
        throw std::runtime_error("no sender");
    bench::pin(0, false);
    auto taken = measure(count, [&engine](vesk::data_t message) {
        if (engine.sendto(std::move(message)) != 0)
            throw std::runtime_error("the queue is full");
    });
    poller->stop_poller();
    return taken;
}

// What stands in most programs in the place of the queue and the poller.
class waiting_sender {
public:
    waiting_sender()
    {
        bench::pin(0, true);
        thread_ = std::thread([this] { run(); });
        bench::pin(0, false);
    }
    ~waiting_sender()
    {
        hand_over(nullptr);
        thread_.join();
        ::close(fd_);
    }
    waiting_sender(const waiting_sender&) = delete;
    waiting_sender& operator=(const waiting_sender&) = delete;

    // A null message ends the thread.
    void hand_over(vesk::data_t message)
    {
        {
            const std::lock_guard lock(mutex_);
            messages_.push_back(std::move(message));
        }
        filled_.notify_one();
    }

private:
    vesk::data_t take()
    {
        std::unique_lock lock(mutex_);
        filled_.wait(lock, [this] { return !messages_.empty(); });
        vesk::data_t message = std::move(messages_.front());
        messages_.pop_front();
        return message;
    }
    void run()
    {
        while (const vesk::data_t message = take())
            (void)::sendto( // its result is the same socket's for both subjects
                fd_, message->buf, message->length, 0,
                reinterpret_cast<const sockaddr*>(&address_), sizeof(address_));
    }

    unread_socket receiver_;
    sockaddr_in address_{bench::loopback(receiver_.port())};
    int fd_{::socket(AF_INET, SOCK_DGRAM, 0)};
    std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<vesk::data_t> messages_;
    std::thread thread_;
};

std::vector<int64_t> through_a_condition_variable(size_t count)
{
    waiting_sender sender;
    return measure(
        count, [&sender](vesk::data_t message) { sender.hand_over(std::move(message)); });
}

void print(const char* subject, int run, std::vector<int64_t> taken)
{
    std::sort(taken.begin(), taken.end());
    const auto quantile = [&taken](double share) {
        return taken[static_cast<size_t>(share * static_cast<double>(taken.size() - 1))];
    };
    std::cout << subject << ',' << run << ',' << taken.size() << ',' << quantile(0.5)
              << ',' << quantile(0.99) << ',' << quantile(0.999) << ',' << taken.back()
              << std::endl;
}

} // namespace

// The send call of both subjects: notes the moment, then sends.
extern "C" ssize_t sendto(
    int fd, const void* data, size_t length, int flags, const sockaddr* to,
    socklen_t to_length)
{
    arrived_ns.store(now_ns(), std::memory_order_release);
    return ::syscall(SYS_sendto, fd, data, length, flags, to, to_length);
}

int main(int argc, char** argv)
try {
    if (argc != 3)
        throw std::invalid_argument("usage: latency RUNS MESSAGES");
    const int runs = std::stoi(argv[1]);
    const size_t messages = std::stoul(argv[2]);
    std::cout << "subject,run,samples,p50_ns,p99_ns,p999_ns,max_ns\n";
    for (int run = 0; run < runs; ++run) {
        print("sender", run, through_the_sender(messages));
        print("condition-variable", run, through_a_condition_variable(messages));
    }
    return 0;
} catch (const std::exception& error) {
    std::cerr << "latency: " << error.what() << '\n';
    return 1;
}
