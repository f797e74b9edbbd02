// Hands numbered messages through the queue from one thread to another and checks
// each: that none is missing, doubled, out of order or half written, that a refused
// one stays as it was, and that every message made is destroyed once. Every
// capacity is tried with the threads wherever the kernel puts them and with one
// processor for each.
// Usage: queue_stress [MESSAGES per case]; a thousand million unless given.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sched.h>

#include "spsc_queue.h"

namespace {

// A count of live messages for each thread, so that the counting orders nothing
// between the two.
thread_local int64_t alive_ = 0;

// Two words that agree, unless they are read before they are whole.
class message {
public:
    message() { ++alive_; }
    explicit message(uint64_t number) : number_(number), check_(~number) { ++alive_; }
    message(message&& other) noexcept
        : number_(std::exchange(other.number_, 0)), check_(std::exchange(other.check_, 0))
    {
        ++alive_;
    }
    message& operator=(message&& other) noexcept
    {
        number_ = std::exchange(other.number_, 0);
        check_ = std::exchange(other.check_, 0);
        return *this;
    }
    message(const message&) = delete;
    message& operator=(const message&) = delete;
    ~message() { --alive_; }

    bool is(uint64_t number) const { return number_ == number && check_ == ~number; }

private:
    uint64_t number_{0};
    uint64_t check_{0};
};

using queue_t = vesk::spsc_queue<message, vesk::default_trait>;

[[noreturn]] void fail(const char* what, uint64_t number)
{
    std::printf("message %llu %s\n", static_cast<unsigned long long>(number), what);
    std::fflush(stdout);
    std::_Exit(EXIT_FAILURE);
}

// Tries until it succeeds; hands the processor over now and then, in case the
// other thread waits for it.
template <class Attempt>
void insist(Attempt attempt)
{
    for (uint32_t failed = 0; !attempt();) {
        if (++failed % 256 == 0)
            ::sched_yield();
    }
}

void produce(queue_t& queue, uint64_t count)
{
    for (uint64_t number = 1; number <= count; ++number) {
        message next(number);
        insist([&] {
            if (queue.enqueue(std::move(next)))
                return true;
            if (!next.is(number))
                fail("was refused and changed", number);
            return false;
        });
    }
}

void take(queue_t& queue, uint64_t number)
{
    message taken;
    insist([&] { return queue.try_dequeue(taken); });
    if (!taken.is(number))
        fail("came wrong", number);
}

void look_and_take(queue_t& queue, uint64_t number)
{
    insist([&] { return queue.frontPtr() != nullptr; });
    if (!queue.frontPtr()->is(number))
        fail("stood wrong at the front", number);
    queue.popFront();
}

// Both ways of taking, in no regular order.
void consume(queue_t& queue, uint64_t count)
{
    for (uint64_t number = 1; number <= count; ++number) {
        if ((number * 0x9E3779B97F4A7C15u) >> 63 != 0)
            take(queue, number);
        else
            look_and_take(queue, number);
    }
    if (!queue.isEmpty() || queue.sizeGuess() != 0)
        fail("was the last one, and the queue is not empty", count);
}

std::vector<size_t> processors()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (::sched_getaffinity(0, sizeof(allowed), &allowed) != 0)
        std::abort();
    std::vector<size_t> found;
    for (size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
        if (CPU_ISSET(processor, &allowed))
            found.push_back(processor);
    }
    return found;
}

void pin_here(size_t processor)
{
    cpu_set_t own;
    CPU_ZERO(&own);
    CPU_SET(processor, &own);
    if (::pthread_setaffinity_np(::pthread_self(), sizeof(own), &own) != 0)
        std::abort();
}

void run(size_t capacity, bool pinned, uint64_t count)
{
    const std::vector<size_t> where = processors();
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<int64_t> left{0};
    {
        queue_t queue(capacity);
        const auto on = [&](size_t processor, auto work) {
            return std::jthread([&, processor, work] {
                if (pinned)
                    pin_here(processor);
                work(queue, count);
                left.fetch_add(alive_, std::memory_order_relaxed);
            });
        };
        const std::jthread producer = on(where.front(), produce);
        const std::jthread consumer = on(where.back(), consume);
    }
    if (left.load(std::memory_order_relaxed) != 0)
        fail("was the last one, and not every message was destroyed once", count);
    const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - begin;
    std::printf(
        "capacity %4zu, %-8s %llu messages, %.1f s\n", capacity,
        pinned ? "pinned:" : "free:", static_cast<unsigned long long>(count),
        spent.count());
    std::fflush(stdout);
}

} // namespace

int main(int count, char** words)
{
    const uint64_t messages =
        count > 1 ? std::strtoull(words[1], nullptr, 10) : 1000000000;
    if (messages == 0 || count > 2) {
        std::fprintf(stderr, "usage: queue_stress [MESSAGES]\n");
        return 2;
    }
    const bool can_pin = processors().size() > 1; // or both would have the same one
    for (const size_t capacity : {1u, 2u, 3u, 1024u}) {
        run(capacity, false, messages);
        if (can_pin)
            run(capacity, true, messages);
    }
    if (!can_pin) {
        std::printf("skipped: one processor, no pinned cases\n");
        return 77;
    }
    return 0;
}
