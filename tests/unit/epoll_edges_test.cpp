// The poller at the edges of its use: a loop that was never started, and what its worker
// thread looks like to the C library.
#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "epoll.h"
#include "support/call_seam.h"
#include "support/eventually.h"
#include "support/sockets.h"

namespace epoll_edges_test {

namespace call = support::call;

// Asks the thread that calls it whether and how it may be cancelled.
class cancellation_probe : public vesk::i_poll_events {
public:
    void in_event() override {}
    void out_event() override
    {
        int state = -1;
        int type = -1;
        ::pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        ::pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
        if (!asked_) {
            state_ = state;
            type_ = type;
        }
        asked_ = true;
    }

    std::atomic<bool> asked_{false};
    std::atomic<int> state_{-1};
    std::atomic<int> type_{-1};
};

TEST(PollerEdges, TheWorkerCannotBeCancelledAndSaysSoToTheCLibrary)
{
    cancellation_probe probe;
    const support::unique_fd writable(::eventfd(0, EFD_NONBLOCK));
    vesk::epoll_t poller;
    poller.set_pollout(poller.add_fd(writable.get(), &probe));
    ASSERT_EQ(poller.start_poller("worker"), 0);

    EXPECT_TRUE(support::eventually([&] { return probe.asked_.load(); }));
    poller.stop_poller();
    EXPECT_EQ(probe.state_, PTHREAD_CANCEL_DISABLE);
    EXPECT_EQ(probe.type_, PTHREAD_CANCEL_ASYNCHRONOUS);
}

TEST(PollerEdges, TheLoopOfAPollerThatWasNeverStartedEndsAtOnce)
{
    vesk::epoll_t poller;
    std::atomic<bool> ended = false;
    std::thread thread([&] {
        poller.loop();
        ended = true;
    });
    EXPECT_TRUE(
        support::eventually([&] { return ended.load(); }, std::chrono::seconds(20)));
    poller.stop_poller(); // so that the test ends either way
    thread.join();
}

// The calls that hand descriptors and events over, made without the C library's
// functions: those the thread checks know, and they would take the kernel's hand-over for
// an order that the language has. What remains is the poller's own.
class bare_kernel_calls {
    support::scoped_call<call::epoll_ctl> control_{[](int epoll_fd, int operation, int fd,
                                                      epoll_event* event) {
        return static_cast<int>(::syscall(SYS_epoll_ctl, epoll_fd, operation, fd, event));
    }};
    support::scoped_call<call::epoll_wait> wait_{[](int epoll_fd, epoll_event* events,
                                                    int capacity, int timeout) {
        return static_cast<int>(
            ::syscall(SYS_epoll_pwait, epoll_fd, events, capacity, timeout, nullptr, 0));
    }};
};

TEST(PollerEdges, AnEntryFilledWhileTheWorkerRunsIsSeenWhole)
{
    const bare_kernel_calls bare;
    cancellation_probe probe;
    const support::unique_fd writable(::eventfd(0, EFD_NONBLOCK));
    vesk::epoll_t poller;
    ASSERT_EQ(poller.start_poller("worker"), 0);
    poller.set_pollout(poller.add_fd(writable.get(), &probe));

    EXPECT_TRUE(support::eventually([&] { return probe.asked_.load(); }));
    poller.stop_poller();
}

TEST(PollerEdges, WhatPrecedesAStopIsSeenBehindTheLoop)
{
    vesk::epoll_t poller;
    ASSERT_EQ(poller.start_poller("worker"), 0);
    std::atomic<bool> ready = false;
    std::string data = "unwritten"; // ordered by the stop alone
    std::thread second([&] {
        ready.store(true, std::memory_order_relaxed);
        poller.loop();
        EXPECT_EQ(data, "written");
    });
    EXPECT_TRUE(
        support::eventually([&] { return ready.load(std::memory_order_relaxed); }));
    data = "written";
    poller.stop_poller();
    second.join();
}

} // namespace epoll_edges_test
