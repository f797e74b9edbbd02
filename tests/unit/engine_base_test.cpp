// The base of the engines: the hand-over of messages, the socket routines and the
// slow path that finishes a message of which only a part has left.
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace engine_base_test {

namespace call = support::call;
using support::message;
using support::output_capture;
using support::patterned;

class plain_engine : public vesk::engine_base {
public:
    void in_event() override {}
    void out_event() override {}
    int32_t set_local_address(std::string&) override { return 0; }

    using engine_base::create_queue;
    using engine_base::create_socket;
    using engine_base::make_socket_noninheritable;
    using engine_base::pull_msg_from_pipe;
    using engine_base::push_msg_to_pipe;
    using engine_base::queue_;
    using engine_base::send_next;
    using engine_base::set_reuse_address;
    using engine_base::unblock_socket;
    using engine_base::wait_to_send;
};

class EngineBase : public support::engine_fixture {
protected:
    // Sends the oldest message to nowhere.
    void send_one()
    {
        ASSERT_TRUE(engine_.send_next(vesk::retired_fd, [](const char*, size_t length) {
            return static_cast<ssize_t>(length);
        }));
    }
    // Hands over a message that only the engine holds, and tells whether it still lives.
    std::weak_ptr<vesk::dataBuffer> hand_over()
    {
        auto msg = message("abc");
        const std::weak_ptr<vesk::dataBuffer> watch = msg;
        EXPECT_EQ(engine_.push_msg_to_pipe(std::move(msg)), 0);
        return watch;
    }

    plain_engine engine_;
};

// Handing over.

TEST_F(EngineBase, WithoutAQueueAPushIsRefusedAndTheMessageStaysWithItsCaller)
{
    auto msg = message("abc");
    errno = 0;
    EXPECT_EQ(engine_.push_msg_to_pipe(std::move(msg)), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_NE(msg, nullptr);

    errno = 0;
    EXPECT_EQ(engine_.push_msg_to_pipe(msg), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(msg.use_count(), 1);
}

TEST_F(EngineBase, AFullQueueRefusesAPushAndTheMessageStaysWithItsCaller)
{
    engine_.queue_ = support::queue_of(1);
    ASSERT_EQ(engine_.push_msg_to_pipe(message("first")), 0);

    auto msg = message("second");
    errno = 0;
    EXPECT_EQ(engine_.push_msg_to_pipe(std::move(msg)), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_NE(msg, nullptr);
}

TEST_F(EngineBase, AnRvalueMessageIsHandedOverWhole)
{
    engine_.queue_ = support::queue_of(1);
    auto msg = message("abc");
    EXPECT_EQ(engine_.push_msg_to_pipe(std::move(msg)), 0);
    EXPECT_EQ(msg, nullptr);
}

TEST_F(EngineBase, AnLvalueMessageIsSharedWithItsCaller)
{
    engine_.queue_ = support::queue_of(1);
    auto msg = message("abc");
    EXPECT_EQ(engine_.push_msg_to_pipe(msg), 0);
    EXPECT_EQ(msg.use_count(), 2);
}

TEST_F(EngineBase, AConstantMessageCanBeShared)
{
    engine_.queue_ = support::queue_of(1);
    const auto msg = message("abc");
    EXPECT_EQ(engine_.push_msg_to_pipe(msg), 0);
    EXPECT_EQ(msg.use_count(), 2);
}

TEST_F(EngineBase, SendtoHandsOverAndMakesNoSocketCall)
{
    int calls = 0;
    const support::scoped_call<call::send> send(
        [&](int, const void*, size_t, int) -> ssize_t { return ++calls; });
    const support::scoped_call<call::sendto> sendto(
        [&](int, const void*, size_t, int, const sockaddr*, socklen_t) -> ssize_t {
            return ++calls;
        });
    errno = 0;
    EXPECT_EQ(engine_.sendto(message("abc")), -1);
    EXPECT_EQ(errno, EAGAIN);

    engine_.queue_ = support::queue_of(2);
    auto kept = message("abc");
    EXPECT_EQ(engine_.sendto(kept), 0);
    EXPECT_EQ(kept.use_count(), 2);
    auto given = message("def");
    EXPECT_EQ(engine_.sendto(std::move(given)), 0);
    EXPECT_EQ(given, nullptr);
    EXPECT_EQ(calls, 0);
}

// A message that has been sent.

TEST_F(EngineBase, AMessageThatItsCallerKeepsIsReleasedOnceSent)
{
    engine_.queue_ = support::queue_of(1);
    const auto msg = message("abc");
    ASSERT_EQ(engine_.push_msg_to_pipe(msg), 0);
    send_one();
    EXPECT_EQ(msg.use_count(), 1);
}

TEST_F(EngineBase, AMessageThatNobodyKeepsIsFreedByTheThreadThatHandsOver)
{
    engine_.create_queue();
    const auto watch = hand_over();
    send_one();
    EXPECT_FALSE(watch.expired());
    (void)hand_over();
    EXPECT_TRUE(watch.expired());
}

TEST_F(EngineBase, ARefusedMessageFreesNone)
{
    engine_.create_queue();
    const auto watch = hand_over();
    (void)hand_over();
    send_one();
    engine_.queue_ = support::queue_of(0);
    EXPECT_EQ(engine_.push_msg_to_pipe(message("refused")), -1);
    EXPECT_FALSE(watch.expired());
}

TEST_F(EngineBase, MessagesSentBecomeFewerWhileOthersAreHandedOver)
{
    engine_.create_queue();
    std::vector<std::weak_ptr<vesk::dataBuffer>> watches;
    for (int i = 0; i < 4; ++i)
        watches.push_back(hand_over());
    for (int i = 0; i < 4; ++i)
        send_one();
    (void)hand_over();
    EXPECT_TRUE(watches[1].expired());
    EXPECT_FALSE(watches[2].expired());
    (void)hand_over();
    EXPECT_TRUE(watches[3].expired());
}

TEST_F(EngineBase, WithoutRoomForItOnTheWayBackAMessageIsFreedAtOnce)
{
    engine_.create_queue();
    engine_.queue_ = support::queue_of(vesk::QUEUE_CAPACITY + 1);
    std::weak_ptr<vesk::dataBuffer> last;
    for (int i = 0; i <= vesk::QUEUE_CAPACITY; ++i)
        last = hand_over();
    for (int i = 0; i < vesk::QUEUE_CAPACITY; ++i)
        send_one();
    EXPECT_FALSE(last.expired());
    send_one();
    EXPECT_TRUE(last.expired());
}

TEST_F(EngineBase, AnEngineFreesTheMessagesOnTheirWayBack)
{
    std::weak_ptr<vesk::dataBuffer> watch;
    {
        plain_engine engine;
        engine.create_queue();
        auto msg = message("abc");
        watch = msg;
        ASSERT_EQ(engine.push_msg_to_pipe(std::move(msg)), 0);
        ASSERT_TRUE(engine.send_next(vesk::retired_fd, [](const char*, size_t length) {
            return static_cast<ssize_t>(length);
        }));
        EXPECT_FALSE(watch.expired());
    }
    EXPECT_TRUE(watch.expired());
}

// Taking over.

TEST_F(EngineBase, APullWithoutAQueueGivesNothing)
{
    const auto before = message("mine");
    auto msg = before;
    errno = 0;
    EXPECT_EQ(engine_.pull_msg_from_pipe(msg), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(msg, before);
}

TEST_F(EngineBase, APullFromAnEmptyQueueGivesNothing)
{
    engine_.queue_ = support::queue_of(1);
    const auto before = message("mine");
    auto msg = before;
    errno = 0;
    EXPECT_EQ(engine_.pull_msg_from_pipe(msg), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(msg, before);
}

TEST_F(EngineBase, MessagesArePulledInTheOrderOfTheirPushes)
{
    engine_.queue_ = support::queue_of(3);
    const std::vector<vesk::data_t> pushed = {message("1"), message("2"), message("3")};
    for (const auto& msg : pushed)
        ASSERT_EQ(engine_.push_msg_to_pipe(msg), 0);

    for (const auto& msg : pushed) {
        vesk::data_t pulled;
        EXPECT_EQ(engine_.pull_msg_from_pipe(pulled), 0);
        EXPECT_EQ(pulled, msg);
    }
}

// Socket routines.

TEST_F(EngineBase, CreatesTheSocketAskedFor)
{
    std::vector<int> asked;
    const support::scoped_call<call::socket> hook(
        [&](int domain, int kind, int protocol) {
            asked = {domain, kind, protocol};
            return 4711;
        });
    EXPECT_EQ(engine_.create_socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP), 4711);
    EXPECT_EQ(asked, (std::vector<int>{AF_INET, SOCK_DGRAM, IPPROTO_UDP}));
}

TEST_F(EngineBase, ASocketThatCannotBeCreatedIsMinusOneWithErrno)
{
    const support::scoped_call<call::socket> hook([](int, int, int) {
        errno = EMFILE;
        return -1;
    });
    errno = 0;
    EXPECT_EQ(engine_.create_socket(AF_INET, SOCK_STREAM, IPPROTO_TCP), -1);
    EXPECT_EQ(errno, EMFILE);
}

TEST_F(EngineBase, UnblockingReallySetsTheFlagAndKeepsTheOthers)
{
    const support::socket_pair pair;
    const int before = ::fcntl(pair.near(), F_GETFL, 0);
    ASSERT_EQ(::fcntl(pair.near(), F_SETFL, before | O_APPEND), 0);

    EXPECT_EQ(engine_.unblock_socket(pair.near()), 0);

    EXPECT_EQ(::fcntl(pair.near(), F_GETFL, 0), before | O_APPEND | O_NONBLOCK);
}

TEST_F(EngineBase, FlagsThatCannotBeReadCountAsNone)
{
    support::socket_trace trace;
    trace.fail("get-flags", EBADF);
    trace.pretend("set-flags");
    EXPECT_EQ(engine_.unblock_socket(7), 0);
    EXPECT_EQ(
        trace.lines, (std::vector<std::string>{
                         "get-flags", "set-flags " + std::to_string(O_NONBLOCK)}));
}

TEST_F(EngineBase, UnblockingReturnsTheResultOfSettingTheFlags)
{
    support::socket_trace trace;
    trace.pretend("get-flags");
    trace.fail("set-flags", EPERM);
    errno = 0;
    EXPECT_EQ(engine_.unblock_socket(7), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST_F(EngineBase, ASocketIsReallyClosedOnExec)
{
    const support::socket_pair pair;
    ASSERT_EQ(::fcntl(pair.near(), F_GETFD, 0), 0);
    engine_.make_socket_noninheritable(pair.near());
    EXPECT_EQ(::fcntl(pair.near(), F_GETFD, 0), FD_CLOEXEC);
}

TEST(EngineBaseDeathTest, FailingToSetCloseOnExecIsFatal)
{
    plain_engine engine;
    EXPECT_FATAL(
        engine.make_socket_noninheritable(-1), "Assertion failed: rc != -1",
        "tcp_engine.h");
}

TEST_F(EngineBase, ReusingAddressesIsAlwaysSwitchedOn)
{
    support::socket_trace trace;
    trace.pretend("option");
    EXPECT_EQ(engine_.set_reuse_address(7, true), 0);
    EXPECT_EQ(engine_.set_reuse_address(7, false), 0);
    EXPECT_EQ(
        trace.lines,
        (std::vector<std::string>{
            "option SO_REUSEADDR 01000000", "option SO_REUSEADDR 01000000"}));
}

TEST_F(EngineBase, ReusingAddressesReportsAFailure)
{
    errno = 0;
    EXPECT_EQ(engine_.set_reuse_address(-1, true), -1);
    EXPECT_EQ(errno, EBADF);
}

// The slow path. Sends are answered one after the other by a plan: a positive
// number sends so many bytes for real, a negative one fails with that errno.
class planned_sends {
public:
    explicit planned_sends(std::vector<int> plan) : plan_(std::move(plan)) {}

    size_t made = 0;
    bool flags_seen = false;

private:
    ssize_t send(int fd, const void* buffer, size_t length, int flags)
    {
        flags_seen = flags_seen || flags != 0;
        const int step = made < plan_.size() ? plan_[made] : -EPIPE;
        ++made;
        if (step < 0) {
            errno = -step;
            return -1;
        }
        const size_t part = std::min(length, static_cast<size_t>(step));
        return support::real<call::send>(fd, buffer, part, flags);
    }

    std::vector<int> plan_;
    support::scoped_call<call::send> hook_{
        [this](int fd, const void* buffer, size_t length, int flags) {
            return send(fd, buffer, length, flags);
        }};
};

TEST_F(EngineBase, TheSlowPathSendsWhatIsLeft)
{
    const support::socket_pair pair;
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("0123456789"), 3), 0);

    EXPECT_EQ(support::receive_exactly(pair.far(), 7), "3456789");
    EXPECT_FALSE(support::is_readable(pair.far()));
    EXPECT_EQ(output.unflushed_text(), "Using poll wait to send 7 bytes.\n");
}

TEST_F(EngineBase, TheSlowPathGoesOnAfterAPartAndTellsEveryRetry)
{
    const support::socket_pair pair;
    const planned_sends sends({4, 1, 2});
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("0123456789"), 3), 0);

    EXPECT_EQ(support::receive_exactly(pair.far(), 7), "3456789");
    EXPECT_FALSE(support::is_readable(pair.far()));
    EXPECT_EQ(sends.made, 3u);
    EXPECT_FALSE(sends.flags_seen);
    EXPECT_EQ(
        output.text(), "Using poll wait to send 7 bytes.\n"
                       "Using poll wait to send 3 bytes.\n"
                       "Using poll wait to send 2 bytes.\n");
}

TEST_F(EngineBase, TheSlowPathTriesAgainWithoutRoomAndAfterAnInterruption)
{
    const support::socket_pair pair;
    const planned_sends sends({-EAGAIN, 4, -EINTR, -EAGAIN, 6});
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("0123456789"), 0), 0);

    EXPECT_EQ(support::receive_exactly(pair.far(), 10), "0123456789");
    EXPECT_EQ(sends.made, 5u);
    EXPECT_EQ(
        output.text(), "Using poll wait to send 10 bytes.\n"
                       "Using poll wait to send 10 bytes.\n"
                       "Using poll wait to send 6 bytes.\n"
                       "Using poll wait to send 6 bytes.\n"
                       "Using poll wait to send 6 bytes.\n");
}

TEST_F(EngineBase, TheSlowPathGoesOnAfterASendOfNothing)
{
    const support::socket_pair pair;
    int calls = 0;
    const support::scoped_call<call::send> nothing_first(
        [&](int fd, const void* buffer, size_t length, int flags) -> ssize_t {
            return ++calls == 1 ? 0
                                : support::real<call::send>(fd, buffer, length, flags);
        });
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("abc"), 1), 0);

    EXPECT_EQ(support::receive_exactly(pair.far(), 2), "bc");
    EXPECT_EQ(
        output.text(),
        "Using poll wait to send 2 bytes.\nUsing poll wait to send 2 bytes.\n");
}

TEST_F(EngineBase, AnyOtherErrorEndsTheSlowPath)
{
    const support::socket_pair pair;
    const planned_sends sends({4, -ECONNRESET, 3});
    const output_capture output;

    errno = 0;
    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("0123456789"), 3), -1);

    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(sends.made, 2u);
    EXPECT_EQ(
        output.text(),
        "Using poll wait to send 7 bytes.\nUsing poll wait to send 3 bytes.\n");
}

TEST_F(EngineBase, AnotherNegativeResultEndsTheSlowPathWhateverErrnoSays)
{
    int calls = 0;
    const support::scoped_call<call::send> odd(
        [&](int, const void*, size_t, int) -> ssize_t {
            ++calls;
            errno = EAGAIN;
            return -2;
        });
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(1, message("abc"), 0), -1);

    EXPECT_EQ(calls, 1);
    EXPECT_EQ(output.text(), "Using poll wait to send 3 bytes.\n");
}

TEST_F(EngineBase, TheSlowPathPollsForRoomWithoutATimeOutAndIgnoresTheResult)
{
    const support::socket_pair pair;
    std::vector<pollfd> asked;
    std::vector<int> timeouts;
    const support::scoped_call<call::poll> hook(
        [&](pollfd* fds, nfds_t count, int timeout) {
            asked.insert(asked.end(), fds, fds + count);
            timeouts.push_back(timeout);
            errno = EINTR;
            return -1;
        });
    const planned_sends sends({1, 2});
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("abc"), 0), 0);

    ASSERT_EQ(asked.size(), 2u);
    for (const pollfd& one : asked) {
        EXPECT_EQ(one.fd, pair.near());
        EXPECT_EQ(one.events, POLLOUT);
    }
    EXPECT_EQ(timeouts, (std::vector<int>{-1, -1}));
}

TEST_F(EngineBase, TheSlowPathPollsBeforeItSends)
{
    const support::socket_pair pair;
    std::string order;
    const support::scoped_call<call::poll> poll([&](pollfd*, nfds_t, int) {
        order += "poll ";
        return 1;
    });
    const support::scoped_call<call::send> send(
        [&](int, const void*, size_t length, int) -> ssize_t {
            order += "send ";
            return static_cast<ssize_t>(length > 1 ? 1 : length);
        });
    const output_capture output;

    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("ab"), 0), 0);

    EXPECT_EQ(order, "poll send poll send ");
}

TEST_F(EngineBase, TheSlowPathWaitsForAReceiverToDrainAndLosesNothing)
{
    const support::socket_pair pair;
    const int small = 2048;
    ASSERT_EQ(::setsockopt(pair.near(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    ASSERT_EQ(engine_.unblock_socket(pair.near()), 0);
    size_t backlog = 0;
    while (::send(pair.near(), "x", 1, 0) == 1)
        ++backlog;
    ASSERT_EQ(errno, EAGAIN);

    std::atomic<bool> polled{false};
    const support::scoped_call<call::poll> poll(
        [&](pollfd* fds, nfds_t count, int timeout) {
            polled.store(true);
            return support::real<call::poll>(fds, count, timeout);
        });
    const std::string bytes = patterned(vesk::MAX_BUFFER_SIZE);
    std::string received;
    std::thread receiver([&] {
        while (!polled.load()) {
        }
        received = support::receive_exactly(pair.far(), backlog + bytes.size());
    });
    const output_capture output;
    const int rc = engine_.wait_to_send(pair.near(), message(bytes), 0);
    EXPECT_TRUE(polled.exchange(true)); // or the receiver would wait for ever
    receiver.join();

    EXPECT_EQ(rc, 0);
    EXPECT_EQ(received, std::string(backlog, 'x') + bytes);
    EXPECT_EQ(output.text().rfind("Using poll wait to send 10240 bytes.\n", 0), 0u);
}

TEST_F(EngineBase, TheSlowPathEndsWhenTheReceiverHasGone)
{
    support::socket_pair pair;
    pair.close_far();
    const output_capture output;

    errno = 0;
    EXPECT_EQ(engine_.wait_to_send(pair.near(), message("abc"), 1), -1);

    EXPECT_EQ(errno, EPIPE);
    EXPECT_EQ(output.text(), "Using poll wait to send 2 bytes.\n");
}

void wait_to_send_nothing()
{
    plain_engine engine;
    const planned_sends sends({-EAGAIN});
    const output_capture output;
    engine.wait_to_send(1, message("abc"), 3);
}

TEST(EngineBaseDeathTest, WithoutRoomForNothingTheSlowPathIsFatal)
{
    EXPECT_FATAL(wait_to_send_nothing(), "Assertion failed: length > 0", "tcp_engine.h");
}

} // namespace engine_base_test
