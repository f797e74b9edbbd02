// Hands shared pointers from one pinned thread to another: through the sender's queue,
// through Boost's ring of the same kind and through a deque behind a mutex, each of the
// sender's capacity. "stream" is one direction flat out, "ping-pong" one message there
// and back through two queues, of which each way counts as one hand-over.
#include <atomic>
#include <boost/lockfree/spsc_queue.hpp>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "processors.h"
#include "tcp_engine.h"

namespace {

// One message in its two places; what is not taken stays with its owner.
class own_queue {
public:
    bool push(vesk::data_t& message) { return queue_.enqueue(std::move(message)); }
    bool pop(vesk::data_t& message) { return queue_.try_dequeue(message); }

private:
    vesk::queue_ptr::element_type queue_{vesk::QUEUE_CAPACITY};
};

// Takes and gives copies only, so that the other reference has to go by hand.
class boost_queue {
public:
    bool push(vesk::data_t& message)
    {
        if (!queue_.push(message))
            return false;
        message.reset();
        return true;
    }
    bool pop(vesk::data_t& message) { return queue_.pop(message); }

private:
    boost::lockfree::spsc_queue<vesk::data_t> queue_{vesk::QUEUE_CAPACITY};
};

class locked_deque {
public:
    bool push(vesk::data_t& message)
    {
        const std::lock_guard lock(mutex_);
        if (queue_.size() == vesk::QUEUE_CAPACITY)
            return false;
        queue_.push_back(std::move(message));
        return true;
    }
    bool pop(vesk::data_t& message)
    {
        const std::lock_guard lock(mutex_);
        if (queue_.empty())
            return false;
        message = std::move(queue_.front());
        queue_.pop_front();
        return true;
    }

private:
    std::mutex mutex_;
    std::deque<vesk::data_t> queue_;
};

constexpr size_t BATCH = 4096; // messages whose counters fit into the caches

std::vector<vesk::data_t> make_messages()
{
    std::vector<vesk::data_t> messages(BATCH);
    for (vesk::data_t& message : messages)
        message = std::make_shared<vesk::dataBuffer>();
    return messages;
}

template <class queue_t>
void push_all(queue_t& queue, std::vector<vesk::data_t>& messages)
{
    for (vesk::data_t& message : messages) {
        while (!queue.push(message)) {
        }
    }
}

template <class queue_t>
void pop_all(queue_t& queue, std::vector<vesk::data_t>& messages)
{
    for (vesk::data_t& message : messages) {
        while (!queue.pop(message)) {
        }
    }
}

// A thread on the measured processor that does `work` once per turn, and the benchmark's
// own thread on another one.
template <class work_t>
class partner {
public:
    explicit partner(work_t work) : work_(std::move(work))
    {
        bench::pin(0, true);
        thread_ = std::thread([this] { run(); });
        bench::pin(0, false);
    }
    ~partner()
    {
        turns_asked_.store(-1, std::memory_order_release);
        thread_.join();
    }
    partner(const partner&) = delete;
    partner& operator=(const partner&) = delete;

    void begin_turn() { turns_asked_.store(++turn_, std::memory_order_release); }
    void await_turn() const
    {
        while (turns_done_.load(std::memory_order_acquire) != turn_) {
        }
    }

private:
    void run()
    {
        for (int64_t done = 0;;) {
            const int64_t asked = turns_asked_.load(std::memory_order_acquire);
            if (asked == -1)
                return;
            if (asked == done)
                continue;
            work_();
            turns_done_.store(++done, std::memory_order_release);
        }
    }

    work_t work_;
    int64_t turn_{0};
    std::atomic<int64_t> turns_asked_{0};
    std::atomic<int64_t> turns_done_{0};
    std::thread thread_;
};

template <class queue_t>
void stream(benchmark::State& state)
{
    queue_t queue;
    std::vector<vesk::data_t> sent = make_messages();
    std::vector<vesk::data_t> received(BATCH);
    partner consumer([&] { pop_all(queue, received); });
    for ([[maybe_unused]] auto _ : state) {
        consumer.begin_turn();
        push_all(queue, sent);
        consumer.await_turn();
        sent.swap(received);
    }
    state.SetItemsProcessed(state.iterations() * int64_t{BATCH});
}

template <class queue_t>
void ping_pong(benchmark::State& state)
{
    constexpr int ROUNDS = 1000;
    queue_t there;
    queue_t back;
    partner echo([&] {
        vesk::data_t message;
        for (int i = 0; i < ROUNDS; ++i) {
            while (!there.pop(message)) {
            }
            while (!back.push(message)) {
            }
        }
    });
    auto message = std::make_shared<vesk::dataBuffer>();
    for ([[maybe_unused]] auto _ : state) {
        echo.begin_turn();
        for (int i = 0; i < ROUNDS; ++i) {
            while (!there.push(message)) {
            }
            while (!back.pop(message)) {
            }
        }
        echo.await_turn();
    }
    state.SetItemsProcessed(state.iterations() * int64_t{2 * ROUNDS});
}

BENCHMARK(stream<own_queue>)->Name("stream/spsc_queue")->UseRealTime();
BENCHMARK(stream<boost_queue>)->Name("stream/boost")->UseRealTime();
BENCHMARK(stream<locked_deque>)->Name("stream/deque")->UseRealTime();
BENCHMARK(ping_pong<own_queue>)->Name("ping-pong/spsc_queue")->UseRealTime();
BENCHMARK(ping_pong<boost_queue>)->Name("ping-pong/boost")->UseRealTime();
BENCHMARK(ping_pong<locked_deque>)->Name("ping-pong/deque")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
