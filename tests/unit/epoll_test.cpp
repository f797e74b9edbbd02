// The poller: registrations as the kernel gets them, the order of the calls
// back, starting and stopping, and the fatal reports.
#include <atomic>
#include <cerrno>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include "epoll.h"
#include "support/allocation_seam.h"
#include "support/call_seam.h"
#include "support/eventually.h"
#include "support/fatal.h"
#include "support/sockets.h"
#include "support/threads.h"

namespace epoll_test {

namespace call = support::call;
using support::eventually;
using support::has_threads_named;
using vesk::epoll_t;
using vesk::handle_t;

// The calls back, in the order in which they came, as words.
class call_log {
public:
    void add(const std::string& word)
    {
        const std::lock_guard lock(mutex_);
        text_ += text_.empty() ? word : " " + word;
        ++count_;
    }
    std::string text() const
    {
        const std::lock_guard lock(mutex_);
        return text_;
    }
    int count() const
    {
        const std::lock_guard lock(mutex_);
        return count_;
    }

private:
    mutable std::mutex mutex_;
    std::string text_;
    int count_ = 0;
};

// Writes "<name>.in" and "<name>.out", then does what the test asked for.
class handler : public vesk::i_poll_events {
public:
    handler(call_log& log, std::string name) : log_(log), name_(std::move(name)) {}

    void in_event() override
    {
        log_.add(name_ + ".in");
        if (on_in)
            on_in();
    }
    void out_event() override
    {
        log_.add(name_ + ".out");
        if (on_out)
            on_out();
    }

    std::function<void()> on_in;
    std::function<void()> on_out;

private:
    call_log& log_;
    std::string name_;
};

// What the kernel was told about one registration.
struct control_call {
    int operation;
    int fd;
    uint32_t events;
    void* data;

    bool operator==(const control_call&) const = default;
};

class control_recorder {
public:
    std::vector<control_call> calls;

private:
    support::scoped_call<call::epoll_ctl> hook_{
        [this](int epoll_fd, int operation, int fd, epoll_event* event) {
            calls.push_back({operation, fd, event->events, event->data.ptr});
            return support::real<call::epoll_ctl>(epoll_fd, operation, fd, event);
        }};
};

// Hands out made-up batches of events, then waits for real.
class scripted_waits {
public:
    using batch = std::vector<std::pair<handle_t, uint32_t>>;

    explicit scripted_waits(std::deque<batch> batches) : batches_(std::move(batches)) {}

    bool all_served() const { return served_.load(); }

private:
    int wait(int epoll_fd, epoll_event* events, int capacity)
    {
        if (batches_.empty()) {
            served_.store(true);
            return support::real<call::epoll_wait>(epoll_fd, events, capacity, 1);
        }
        int count = 0;
        for (const auto& [handle, mask] : batches_.front()) {
            events[count].events = mask;
            events[count].data.ptr = handle;
            ++count;
        }
        batches_.pop_front();
        return count;
    }

    std::deque<batch> batches_;
    std::atomic<bool> served_{false};
    support::scoped_call<call::epoll_wait> hook_{
        [this](int epoll_fd, epoll_event* events, int capacity, int) {
            return wait(epoll_fd, events, capacity);
        }};
};

support::unique_fd readable_descriptor()
{
    return support::unique_fd(::eventfd(1, EFD_NONBLOCK));
}

class Poller : public testing::Test {
protected:
    // The made-up batches are worked off by a running poller.
    void serve(std::deque<scripted_waits::batch> batches)
    {
        const scripted_waits waits(std::move(batches));
        ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
        EXPECT_TRUE(eventually([&] { return waits.all_served(); }));
        poller_.stop_poller();
    }

    call_log log_;
    handler a_{log_, "a"};
    handler b_{log_, "b"};
    epoll_t poller_;
};

// Registering and interest.

TEST_F(Poller, AddsADescriptorWithNoInterestAndItsEntryAsData)
{
    const auto fd = readable_descriptor();
    const control_recorder kernel;

    const handle_t handle = poller_.add_fd(fd.get(), &a_);

    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(
        kernel.calls, (std::vector<control_call>{{EPOLL_CTL_ADD, fd.get(), 0, handle}}));
}

TEST_F(Poller, TheEntryHoldsDescriptorMaskAndHandler)
{
    const auto fd = readable_descriptor();

    const auto* entry =
        static_cast<epoll_t::poll_entry_t*>(poller_.add_fd(fd.get(), &a_));

    EXPECT_EQ(entry->fd, fd.get());
    EXPECT_EQ(uint32_t{entry->ev.events}, 0u);
    EXPECT_EQ(static_cast<void*>(entry->ev.data.ptr), entry);
    EXPECT_EQ(entry->events, &a_);
}

TEST_F(Poller, InterestIsAddedToAndTakenFromTheMaskOneDirectionAtATime)
{
    const auto fd = readable_descriptor();
    const handle_t handle = poller_.add_fd(fd.get(), &a_);
    const control_recorder kernel;

    poller_.set_pollin(handle);
    poller_.set_pollout(handle);
    poller_.reset_pollin(handle);
    poller_.reset_pollout(handle);
    poller_.set_pollout(handle);
    poller_.set_pollin(handle);
    poller_.reset_pollout(handle);

    const auto changed = [&](uint32_t mask) {
        return control_call{EPOLL_CTL_MOD, fd.get(), mask, handle};
    };
    EXPECT_EQ(
        kernel.calls,
        (std::vector<control_call>{
            changed(EPOLLIN), changed(EPOLLIN | EPOLLOUT), changed(EPOLLOUT), changed(0),
            changed(EPOLLOUT), changed(EPOLLIN | EPOLLOUT), changed(EPOLLIN)}));
    EXPECT_EQ(
        uint32_t{static_cast<epoll_t::poll_entry_t*>(handle)->ev.events},
        uint32_t{EPOLLIN});
}

TEST_F(Poller, SettingAnInterestTwiceIsTheSameAsOnce)
{
    const auto fd = readable_descriptor();
    const handle_t handle = poller_.add_fd(fd.get(), &a_);
    poller_.set_pollin(handle);
    const control_recorder kernel;

    poller_.set_pollin(handle);
    poller_.reset_pollin(handle);
    poller_.reset_pollin(handle);

    ASSERT_EQ(kernel.calls.size(), 3u);
    EXPECT_EQ(kernel.calls[0].events, uint32_t{EPOLLIN});
    EXPECT_EQ(kernel.calls[1].events, 0u);
    EXPECT_EQ(kernel.calls[2].events, 0u);
}

TEST_F(Poller, RemovingTellsTheKernelAndRetiresTheEntry)
{
    const auto fd = readable_descriptor();
    const handle_t handle = poller_.add_fd(fd.get(), &a_);
    const control_recorder kernel;

    poller_.rm_fd(handle);

    ASSERT_EQ(kernel.calls.size(), 1u);
    EXPECT_EQ(kernel.calls[0].operation, EPOLL_CTL_DEL);
    EXPECT_EQ(kernel.calls[0].fd, fd.get());
    EXPECT_EQ(static_cast<epoll_t::poll_entry_t*>(handle)->fd, vesk::retired_fd);
}

TEST_F(Poller, ARemovedDescriptorMayBeAddedAgainUnderANewEntry)
{
    const auto fd = readable_descriptor();
    const handle_t first = poller_.add_fd(fd.get(), &a_);
    poller_.rm_fd(first);

    const handle_t second = poller_.add_fd(fd.get(), &b_);
    EXPECT_NE(second, first);

    poller_.set_pollin(second);
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();
    EXPECT_EQ(log_.text().find('a'), std::string::npos);
}

// Calls back.

TEST_F(Poller, CallsInEventOfAReadableDescriptor)
{
    const auto fd = readable_descriptor();
    const handle_t handle = poller_.add_fd(fd.get(), &a_);
    a_.on_in = [&] { poller_.reset_pollin(handle); };
    poller_.set_pollin(handle);

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();

    EXPECT_EQ(log_.text(), "a.in");
}

TEST_F(Poller, CallsOutEventOfAWritableDescriptor)
{
    const support::socket_pair pair;
    const handle_t handle = poller_.add_fd(pair.near(), &a_);
    a_.on_out = [&] { poller_.reset_pollout(handle); };
    poller_.set_pollout(handle);

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();

    EXPECT_EQ(log_.text(), "a.out");
}

TEST_F(Poller, ADescriptorThatStaysReadyIsReportedAgainAndAgain)
{
    const auto fd = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(fd.get(), &a_));

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() >= 5; }));
    poller_.stop_poller();
}

TEST_F(Poller, ADescriptorWithoutInterestIsNeverReported)
{
    const auto silent = readable_descriptor();
    const auto served = readable_descriptor();
    poller_.add_fd(silent.get(), &a_);
    poller_.set_pollin(poller_.add_fd(served.get(), &b_));

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() >= 10; }));
    poller_.stop_poller();

    EXPECT_EQ(log_.text().find("a."), std::string::npos);
}

TEST_F(Poller, ServesWritabilityBeforeReadability)
{
    const support::socket_pair pair;
    ASSERT_EQ(::write(pair.far(), "x", 1), 1);
    const handle_t handle = poller_.add_fd(pair.near(), &a_);
    a_.on_in = [&] {
        poller_.reset_pollin(handle);
        poller_.reset_pollout(handle);
    };
    poller_.set_pollin(handle);
    poller_.set_pollout(handle);

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() >= 2; }));
    poller_.stop_poller();

    EXPECT_EQ(log_.text(), "a.out a.in");
}

TEST_F(Poller, ADescriptorThatRemovesItselfInOutEventGetsNoInEvent)
{
    const support::socket_pair pair;
    ASSERT_EQ(::write(pair.far(), "x", 1), 1);
    const handle_t handle = poller_.add_fd(pair.near(), &a_);
    a_.on_out = [&] { poller_.rm_fd(handle); };
    poller_.set_pollin(handle);
    poller_.set_pollout(handle);

    const auto other = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(other.get(), &b_));
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    // The other descriptor shows that several further waits have gone by.
    EXPECT_TRUE(eventually([&] { return log_.count() >= 6; }));
    poller_.stop_poller();

    EXPECT_NE(log_.text().find("a.out"), std::string::npos);
    EXPECT_EQ(log_.text().find("a.out"), log_.text().rfind("a.out"));
    EXPECT_EQ(log_.text().find("a.in"), std::string::npos);
}

TEST_F(Poller, ServesABatchInTheOrderGiven)
{
    const auto fd_a = readable_descriptor();
    const auto fd_b = readable_descriptor();
    const handle_t a = poller_.add_fd(fd_a.get(), &a_);
    const handle_t b = poller_.add_fd(fd_b.get(), &b_);

    serve({{{b, EPOLLIN}, {a, EPOLLIN | EPOLLOUT}, {b, EPOLLOUT}}, {{a, EPOLLIN}}});

    EXPECT_EQ(log_.text(), "b.in a.out a.in b.out a.in");
}

TEST_F(Poller, AnEntryRemovedEarlierInTheBatchIsSkipped)
{
    const auto fd_a = readable_descriptor();
    const auto fd_b = readable_descriptor();
    const handle_t a = poller_.add_fd(fd_a.get(), &a_);
    const handle_t b = poller_.add_fd(fd_b.get(), &b_);
    a_.on_in = [&] { poller_.rm_fd(b); };

    serve({{{a, EPOLLIN}, {b, EPOLLIN | EPOLLOUT}}, {{b, EPOLLIN}}, {{a, EPOLLOUT}}});

    EXPECT_EQ(log_.text(), "a.in a.out");
}

TEST_F(Poller, AnEventOfNeitherDirectionCallsNothing)
{
    const auto fd_a = readable_descriptor();
    const auto fd_b = readable_descriptor();
    const handle_t a = poller_.add_fd(fd_a.get(), &a_);
    const handle_t b = poller_.add_fd(fd_b.get(), &b_);

    serve(
        {{{a, EPOLLHUP},
          {a, EPOLLERR},
          {a, EPOLLERR | EPOLLHUP | EPOLLRDHUP | EPOLLPRI},
          {b, EPOLLIN}}});

    EXPECT_EQ(log_.text(), "b.in");
}

TEST_F(Poller, ADirectionIsServedWhateverErrorComesWithIt)
{
    const auto fd = readable_descriptor();
    const handle_t a = poller_.add_fd(fd.get(), &a_);

    serve({{{a, EPOLLOUT | EPOLLHUP}, {a, EPOLLIN | EPOLLERR}}});

    EXPECT_EQ(log_.text(), "a.out a.in");
}

TEST_F(Poller, AHangUpWithoutInterestIsReportedByTheKernelButCallsNothing)
{
    support::socket_pair pair;
    const handle_t handle = poller_.add_fd(pair.near(), &a_);
    pair.close_far();

    std::atomic<int> hang_ups{0};
    const support::scoped_call<call::epoll_wait> watch(
        [&](int epoll_fd, epoll_event* events, int capacity, int timeout) {
            const int count =
                support::real<call::epoll_wait>(epoll_fd, events, capacity, timeout);
            if (count == 1 && events[0].data.ptr == handle &&
                (events[0].events & EPOLLHUP) != 0)
                hang_ups.fetch_add(1);
            return count;
        });
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return hang_ups.load() >= 3; }));
    poller_.stop_poller();

    EXPECT_EQ(log_.text(), "");
}

TEST_F(Poller, ACallbackMayRegisterADescriptor)
{
    const auto first = readable_descriptor();
    const auto second = readable_descriptor();
    const handle_t handle = poller_.add_fd(first.get(), &a_);
    a_.on_in = [&] {
        poller_.rm_fd(handle);
        poller_.set_pollin(poller_.add_fd(second.get(), &b_));
    };
    poller_.set_pollin(handle);

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() >= 2; }));
    poller_.stop_poller();

    EXPECT_EQ(log_.text().rfind("a.in b.in", 0), 0u);
}

TEST_F(Poller, ARegistrationTakesEffectWhileTheWorkerWaits)
{
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);

    const auto fd = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(fd.get(), &a_));
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();
}

// Entries of both threads hang in one list; leak and race checks look on.
TEST_F(Poller, BothThreadsMayRegisterAtOnce)
{
    const auto trigger = readable_descriptor();
    std::atomic<bool> registered{false};
    std::vector<support::unique_fd> theirs(200);
    std::vector<support::unique_fd> ours(200);
    std::vector<handle_t> handles;
    const handle_t handle = poller_.add_fd(trigger.get(), &a_);
    a_.on_in = [&] {
        poller_.reset_pollin(handle);
        for (auto& fd : theirs) {
            fd = readable_descriptor();
            poller_.add_fd(fd.get(), &b_);
        }
        registered.store(true);
    };
    poller_.set_pollin(handle);

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    for (auto& fd : ours) {
        fd = readable_descriptor();
        handles.push_back(poller_.add_fd(fd.get(), &b_));
    }
    EXPECT_TRUE(eventually([&] { return registered.load(); }));
    for (const handle_t entry : handles)
        poller_.rm_fd(entry);
    poller_.stop_poller();

    for (size_t i = 0; i < ours.size(); ++i)
        EXPECT_EQ(static_cast<epoll_t::poll_entry_t*>(handles[i])->fd, vesk::retired_fd);
}

// Waiting.

TEST_F(Poller, WaitsForAtMost256EventsAndATenthOfASecond)
{
    std::atomic<int> waits{0};
    std::atomic<int> capacity{0};
    std::atomic<int> timeout{0};
    const support::scoped_call<call::epoll_wait> quick(
        [&](int, epoll_event*, int wanted, int time) {
            capacity.store(wanted);
            timeout.store(time);
            waits.fetch_add(1);
            return 0;
        });

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    // A wait that times out is followed by the next.
    EXPECT_TRUE(eventually([&] { return waits.load() >= 3; }));
    poller_.stop_poller();

    EXPECT_EQ(vesk::MAX_IO_EVENTS, 256);
    EXPECT_EQ(capacity.load(), 256);
    EXPECT_EQ(timeout.load(), 100);
}

TEST_F(Poller, AnInterruptedWaitIsTakenUpAgain)
{
    const auto fd = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(fd.get(), &a_));
    std::atomic<int> waits{0};
    const support::scoped_call<call::epoll_wait> interrupted(
        [&](int epoll_fd, epoll_event* events, int capacity, int timeout) {
            if (waits.fetch_add(1) < 3) {
                // The kernel writes no event then; whatever stands there is stale.
                events[0].events = EPOLLIN;
                events[0].data.ptr = nullptr;
                errno = EINTR;
                return -1;
            }
            return support::real<call::epoll_wait>(epoll_fd, events, capacity, timeout);
        });

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();
}

TEST_F(Poller, AStopIsSeenAfterAnInterruptedWait)
{
    std::atomic<int> waits{0};
    const support::scoped_call<call::epoll_wait> interrupted(
        [&](int, epoll_event*, int, int) {
            waits.fetch_add(1);
            errno = EINTR;
            return -1;
        });

    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return waits.load() >= 2; }));
    poller_.stop_poller();

    const int waits_at_stop = waits.load();
    EXPECT_TRUE(has_threads_named(0, "poller_thread"));
    EXPECT_EQ(waits.load(), waits_at_stop);
}

// Starting and stopping.

TEST_F(Poller, TheWorkerBearsTheNameGiven)
{
    EXPECT_TRUE(has_threads_named(0, "poller_thread"));
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(has_threads_named(1, "poller_thread"));
    poller_.stop_poller();
    EXPECT_TRUE(has_threads_named(0, "poller_thread"));
}

TEST_F(Poller, ASecondStartIsRefusedAndLeavesTheWorkerAlone)
{
    const auto fd = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(fd.get(), &a_));
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);

    EXPECT_EQ(poller_.start_poller("other_thread"), -1);

    EXPECT_TRUE(has_threads_named(1, "poller_thread"));
    EXPECT_TRUE(has_threads_named(0, "other_thread"));
    const int count = log_.count();
    EXPECT_TRUE(eventually([&] { return log_.count() > count; }));
    poller_.stop_poller();
}

TEST_F(Poller, AStoppedPollerCanBeStartedAgain)
{
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    poller_.stop_poller();

    const auto fd = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(fd.get(), &a_));
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();
}

TEST_F(Poller, NothingIsServedAfterAStop)
{
    const auto fd = readable_descriptor();
    poller_.set_pollin(poller_.add_fd(fd.get(), &a_));
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return log_.count() > 0; }));
    poller_.stop_poller();

    EXPECT_TRUE(has_threads_named(0, "poller_thread"));
    const int count = log_.count();
    poller_.stop_poller();
    EXPECT_EQ(log_.count(), count);
}

TEST_F(Poller, AStopOfAnIdlePollerDoesNotWaitForAnEvent)
{
    std::atomic<int> waits{0};
    const support::scoped_call<call::epoll_wait> count(
        [&](int epoll_fd, epoll_event* events, int capacity, int timeout) {
            waits.fetch_add(1);
            return support::real<call::epoll_wait>(epoll_fd, events, capacity, timeout);
        });
    ASSERT_EQ(poller_.start_poller("poller_thread"), 0);
    EXPECT_TRUE(eventually([&] { return waits.load() >= 1; }));

    const auto before = std::chrono::steady_clock::now();
    poller_.stop_poller();
    const auto took = std::chrono::steady_clock::now() - before;

    // One wait of 100 ms at most; the rest is for a busy machine.
    EXPECT_LT(took, std::chrono::seconds(60));
}

TEST_F(Poller, StoppingAPollerThatWasNeverStartedDoesNothing)
{
    poller_.stop_poller();
    poller_.stop_poller();
    EXPECT_TRUE(has_threads_named(0, "poller_thread"));
}

// The poller's own life, each time with a poller made by the test.

TEST(PollerLife, CreatesItsEpollDescriptorWithSizeOne)
{
    int size = 0;
    const support::scoped_call<call::epoll_create> watch([&](int given) {
        size = given;
        return support::real<call::epoll_create>(given);
    });
    const epoll_t poller;
    EXPECT_EQ(size, 1);
}

TEST(PollerLife, NoThreadRunsBeforeTheStart)
{
    const epoll_t poller;
    EXPECT_TRUE(has_threads_named(0, "poller_thread"));
}

TEST(PollerLife, EndsItsThreadAndClosesItsDescriptorOnce)
{
    int epoll_fd = -1;
    int closes = 0;
    const support::scoped_call<call::epoll_create> watch_create([&](int size) {
        epoll_fd = support::real<call::epoll_create>(size);
        return epoll_fd;
    });
    const support::scoped_call<call::close> watch_close([&](int fd) {
        closes += fd == epoll_fd ? 1 : 0;
        return support::real<call::close>(fd);
    });
    for (const bool stop_first : {false, true}) {
        closes = 0;
        {
            epoll_t poller;
            ASSERT_EQ(poller.start_poller("poller_thread"), 0);
            if (stop_first)
                poller.stop_poller();
        }
        EXPECT_EQ(closes, 1);
        EXPECT_FALSE(support::is_open(epoll_fd));
        EXPECT_TRUE(has_threads_named(0, "poller_thread"));
    }
}

TEST(PollerLife, TheRegisteredDescriptorsStayOpen)
{
    const auto fd = readable_descriptor();
    {
        call_log log;
        handler a(log, "a");
        epoll_t poller;
        poller.add_fd(fd.get(), &a);
    }
    EXPECT_TRUE(support::is_open(fd.get()));
}

// Fatal reports. Each statement runs in a process of its own.

template <class Operation>
void with_failing_control(int kernel_operation, int error, Operation operation)
{
    call_log log;
    handler a(log, "a");
    const auto fd = readable_descriptor();
    epoll_t poller;
    handle_t handle = nullptr;
    if (kernel_operation != EPOLL_CTL_ADD)
        handle = poller.add_fd(fd.get(), &a);
    const support::scoped_call<call::epoll_ctl> fail(
        [=](int, int asked, int, epoll_event*) {
            if (asked != kernel_operation)
                return 0;
            errno = error;
            return -1;
        });
    operation(poller, handle, fd.get(), &a);
}

TEST(PollerDeathTest, AFailedEpollCreateIsFatal)
{
    const auto create = [] {
        const support::scoped_call<call::epoll_create> fail([](int) {
            errno = EMFILE;
            return -1;
        });
        const epoll_t poller;
    };
    EXPECT_FATAL(create(), "Too many open files", "epoll.h");
}

TEST(PollerDeathTest, AFailedRegistrationIsFatal)
{
    const auto add = [](epoll_t& poller, handle_t, int fd, handler* a) {
        poller.add_fd(fd, a);
    };
    EXPECT_FATAL(
        with_failing_control(EPOLL_CTL_ADD, ENOSPC, add), "No space left on device",
        "epoll.h");
}

TEST(PollerDeathTest, RegisteringAClosedDescriptorIsFatal)
{
    const auto add = [] {
        call_log log;
        handler a(log, "a");
        epoll_t poller;
        poller.add_fd(vesk::retired_fd, &a);
    };
    EXPECT_FATAL(add(), "Bad file descriptor", "epoll.h");
}

TEST(PollerDeathTest, AFailedRemovalIsFatal)
{
    const auto remove = [](epoll_t& poller, handle_t handle, int, handler*) {
        poller.rm_fd(handle);
    };
    EXPECT_FATAL(
        with_failing_control(EPOLL_CTL_DEL, ENOENT, remove), "No such file or directory",
        "epoll.h");
}

TEST(PollerDeathTest, AFailedSetPollinIsFatal)
{
    const auto change = [](epoll_t& poller, handle_t handle, int, handler*) {
        poller.set_pollin(handle);
    };
    EXPECT_FATAL(
        with_failing_control(EPOLL_CTL_MOD, ENOENT, change), "No such file or directory",
        "epoll.h");
}

TEST(PollerDeathTest, AFailedResetPollinIsFatal)
{
    const auto change = [](epoll_t& poller, handle_t handle, int, handler*) {
        poller.reset_pollin(handle);
    };
    EXPECT_FATAL(
        with_failing_control(EPOLL_CTL_MOD, EBADF, change), "Bad file descriptor",
        "epoll.h");
}

TEST(PollerDeathTest, AFailedSetPolloutIsFatal)
{
    const auto change = [](epoll_t& poller, handle_t handle, int, handler*) {
        poller.set_pollout(handle);
    };
    EXPECT_FATAL(
        with_failing_control(EPOLL_CTL_MOD, ENOMEM, change), "Cannot allocate memory",
        "epoll.h");
}

TEST(PollerDeathTest, AFailedResetPolloutIsFatal)
{
    const auto change = [](epoll_t& poller, handle_t handle, int, handler*) {
        poller.reset_pollout(handle);
    };
    EXPECT_FATAL(
        with_failing_control(EPOLL_CTL_MOD, ENOENT, change), "No such file or directory",
        "epoll.h");
}

TEST(PollerDeathTest, AFailedWaitIsFatal)
{
    const auto wait = [] {
        const support::scoped_call<call::epoll_wait> fail(
            [](int, epoll_event*, int, int) {
                errno = EBADF;
                return -1;
            });
        epoll_t poller;
        poller.start_poller("poller_thread");
        eventually([] { return false; });
    };
    EXPECT_FATAL(wait(), "Bad file descriptor", "epoll.h");
}

TEST(PollerDeathTest, ARegistrationThatCannotBeAllocatedIsFatal)
{
    const auto add = [] {
        call_log log;
        handler a(log, "a");
        const auto fd = readable_descriptor();
        epoll_t poller;
        const support::failing_nothrow_new out_of_memory;
        poller.add_fd(fd.get(), &a);
    };
    EXPECT_FATAL(add(), "FATAL ERROR: OUT OF MEMORY", "epoll.h");
}

} // namespace epoll_test
