// The TCP engine: listening, accepting, sending one message per event, and the
// ends that a connection can come to. Most tests play the poller's thread.
#include <atomic>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace tcp_engine_test {

namespace call = support::call;
using support::fake_clock;
using support::message;
using support::output_capture;
using support::pacing_record;
using support::patterned;
using support::socket_trace;
using vesk::stats;

using lines = std::vector<std::string>;

class open_tcp_engine : public vesk::tcp_engine {
public:
    using tcp_engine::tcp_engine;

    using tcp_engine::accept;
    using tcp_engine::address_;
    using tcp_engine::close;
    using tcp_engine::conn_fd_;
    using tcp_engine::conn_handle_;
    using tcp_engine::listen_fd_;
    using tcp_engine::listen_handle_;
    using tcp_engine::m_speed_;
    using tcp_engine::poller_;
    using tcp_engine::process_term;
    using tcp_engine::queue_;
    using tcp_engine::tune_tcp_keepalives;
    using tcp_engine::tune_tcp_maxrt;
    using tcp_engine::tune_tcp_socket;
    using tcp_engine::wakeup;
    using tcp_engine::wakeup_fd_;
};

// An engine with a poller that does not run, so that the test decides when an
// event comes.
struct tcp_setup {
    // The engine goes first, and it must not go under a running poller.
    ~tcp_setup()
    {
        if (poller != nullptr)
            poller->stop_poller();
    }

    // Listens on a free port; events then come from the test.
    void listen()
    {
        std::string address = "127.0.0.1:0";
        ASSERT_EQ(engine->set_local_address(address), 0);
    }

    // A receiver that has connected, but whom the engine has yet to accept.
    support::unique_fd receiver() const
    {
        return support::connected_to(support::local_port(engine->listen_fd_));
    }

    // A receiver whom the engine has accepted.
    support::unique_fd accepted_receiver() const
    {
        auto fd = receiver();
        engine->in_event();
        return fd;
    }

    void push(const std::string& bytes) const
    {
        ASSERT_EQ(engine->push_msg_to_pipe(message(bytes)), 0);
    }

    // The wake-ups written so far: their sum; 0 for none.
    uint64_t take_wakeups() const
    {
        uint64_t sum = 0;
        return ::read(wakeup.get(), &sum, sizeof sum) == sizeof sum ? sum : 0;
    }

    uint32_t interest(vesk::handle_t handle) const
    {
        return static_cast<vesk::epoll_t::poll_entry_t*>(handle)->ev.events;
    }

    support::unique_fd wakeup{::eventfd(0, EFD_NONBLOCK)};
    std::shared_ptr<vesk::epoll_t> poller{std::make_shared<vesk::epoll_t>()};
    std::unique_ptr<open_tcp_engine> engine{
        std::make_unique<open_tcp_engine>(poller, wakeup.get())};
};

class TcpEngine : public support::engine_fixture, protected tcp_setup {};

// Construction and the stubs.

TEST_F(TcpEngine, StartsWithoutSocketsRegistrationsRateOrQueue)
{
    EXPECT_EQ(engine->listen_fd_, -1);
    EXPECT_EQ(engine->conn_fd_, -1);
    EXPECT_EQ(engine->listen_handle_, nullptr);
    EXPECT_EQ(engine->conn_handle_, nullptr);
    EXPECT_EQ(engine->wakeup_fd_, wakeup.get());
    EXPECT_EQ(engine->poller_.lock(), poller);
    EXPECT_EQ(engine->m_speed_, 0u);
    EXPECT_EQ(engine->queue_, nullptr);
    const auto* address = reinterpret_cast<const sockaddr_in*>(engine->address_.addr());
    EXPECT_EQ(support::hex(address, sizeof *address), std::string(32, '0'));
}

TEST_F(TcpEngine, HoldsNoShareOfThePoller) { EXPECT_EQ(poller.use_count(), 1); }

TEST_F(TcpEngine, TheCompanionsThatNothingCallsTouchNoSocket)
{
    const socket_trace trace;
    EXPECT_EQ(engine->tune_tcp_maxrt(-1, 5), 0);
    EXPECT_EQ(engine->tune_tcp_keepalives(-1, 1), 0);
    EXPECT_EQ(trace.lines, lines());
}

TEST_F(TcpEngine, NoDelayIsSetToTheValueGiven)
{
    socket_trace trace;
    trace.pretend("option");
    EXPECT_EQ(engine->tune_tcp_socket(7, 1), 0);
    EXPECT_EQ(engine->tune_tcp_socket(7, 0), 0);
    EXPECT_EQ(
        trace.lines,
        (lines{"option TCP_NODELAY 01000000", "option TCP_NODELAY 00000000"}));
    trace.fail("option", ENOPROTOOPT);
    EXPECT_EQ(engine->tune_tcp_socket(7, 1), -1);
}

// Listening.

TEST_F(TcpEngine, OpensBindsListensAndRegistersInThisOrder)
{
    std::string address = "127.0.0.1:0";
    const socket_trace trace;

    EXPECT_EQ(engine->set_local_address(address), 0);

    EXPECT_EQ(
        trace.lines, (lines{
                         "socket stream tcp", "cloexec", "option SO_REUSEADDR 01000000",
                         "bind 127.0.0.1:0", "listen 100", "add none", "change in"}));
    EXPECT_NE(engine->listen_handle_, nullptr);
}

TEST_F(TcpEngine, BindsTheAddressAndPortGiven)
{
    std::string address = "0.0.0.0:5000";
    socket_trace trace;
    trace.pretend("bind 0.0.0.0:5000");

    EXPECT_EQ(engine->set_local_address(address), 0);
    EXPECT_EQ(trace.lines[3], "bind 0.0.0.0:5000");
}

TEST_F(TcpEngine, TheListeningSocketBlocksAndIsClosedOnExec)
{
    listen();
    EXPECT_EQ(::fcntl(engine->listen_fd_, F_GETFL, 0) & O_NONBLOCK, 0);
    EXPECT_EQ(::fcntl(engine->listen_fd_, F_GETFD, 0), FD_CLOEXEC);
}

TEST_F(TcpEngine, AnAddressThatDoesNotResolveOpensNoSocket)
{
    for (std::string address :
         {"*:5000", "0.0.0.0:*", "127.0.0.1", "", "127.0.0.1:", "127.0.0.1:65536"}) {
        const socket_trace trace;
        errno = 0;
        EXPECT_EQ(engine->set_local_address(address), -1) << address;
        EXPECT_EQ(errno, EINVAL) << address;
        EXPECT_EQ(trace.lines, lines()) << address;
    }
}

TEST_F(TcpEngine, ASocketThatCannotBeOpenedIsReported)
{
    std::string address = "127.0.0.1:0";
    socket_trace trace;
    trace.fail("socket", EMFILE);

    errno = 0;
    EXPECT_EQ(engine->set_local_address(address), -1);

    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(engine->listen_fd_, -1);
    EXPECT_EQ(trace.lines, (lines{"socket stream tcp"}));
}

TEST_F(TcpEngine, EachFailingStepClosesTheSocketAndKeepsItsErrno)
{
    const lines steps = {
        "socket stream tcp", "cloexec", "option SO_REUSEADDR 01000000",
        "bind 127.0.0.1:0", "listen 100"};
    const std::vector<std::pair<size_t, int>> failures = {
        {2, ENOPROTOOPT}, {3, EADDRNOTAVAIL}, {4, EADDRINUSE}};
    for (const auto& [step, error] : failures) {
        std::string address = "127.0.0.1:0";
        socket_trace trace;
        trace.fail(steps[step], error);

        errno = 0;
        EXPECT_EQ(engine->set_local_address(address), -1);

        EXPECT_EQ(errno, error);
        EXPECT_EQ(engine->listen_fd_, -1);
        EXPECT_EQ(engine->listen_handle_, nullptr);
        lines expected(steps.begin(), steps.begin() + static_cast<ptrdiff_t>(step) + 1);
        expected.push_back("close");
        EXPECT_EQ(trace.lines, expected);
    }
}

TEST_F(TcpEngine, APortThatIsTakenIsReported)
{
    const auto taken = support::bound_socket(SOCK_STREAM);
    ASSERT_EQ(::listen(taken.get(), 1), 0);
    std::string address = "127.0.0.1:" + std::to_string(support::local_port(taken.get()));

    errno = 0;
    EXPECT_EQ(engine->set_local_address(address), -1);

    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(engine->listen_fd_, -1);
}

TEST_F(TcpEngine, AFailureClosesAConnectionThatWasOpenAsWell)
{
    listen();
    const auto fd = accepted_receiver();
    const int connection = engine->conn_fd_;
    const support::unique_fd old_listener(engine->listen_fd_);
    std::string address = "127.0.0.1:0";
    socket_trace trace;
    trace.fail("bind", EACCES);

    EXPECT_EQ(engine->set_local_address(address), -1);

    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(engine->conn_fd_, -1);
    EXPECT_FALSE(support::is_open(connection));
    engine->conn_handle_ = nullptr; // closing took both out of the kernel's set
    engine->process_term();
}

TEST_F(TcpEngine, WithoutAPollerItListensUnregistered)
{
    poller.reset();
    const socket_trace trace;

    listen();

    EXPECT_EQ(engine->listen_handle_, nullptr);
    EXPECT_EQ(trace.lines.back(), "listen 100");
    EXPECT_NE(receiver().get(), -1);
}

// Accepting.

TEST_F(TcpEngine, AcceptsIntoAZeroedRecordOf128BytesAndClosesOnExec)
{
    listen();
    const auto fd = receiver();
    socklen_t length_given = 0;
    std::string record;
    const support::scoped_call<call::accept> hook(
        [&](int listener, sockaddr* peer, socklen_t* length) {
            length_given = *length;
            record = support::hex(peer, *length);
            return support::real<call::accept>(listener, peer, length);
        });

    const support::unique_fd accepted(engine->accept());

    ASSERT_NE(accepted.get(), -1);
    EXPECT_EQ(length_given, 128u);
    EXPECT_EQ(record, std::string(256, '0'));
    EXPECT_EQ(::fcntl(accepted.get(), F_GETFD, 0), FD_CLOEXEC);
    EXPECT_EQ(engine->conn_fd_, -1);
}

TEST_F(TcpEngine, AcceptLeavesPassingErrorsToTheCaller)
{
    listen();
    for (const int error :
         {EAGAIN, EINTR, ECONNABORTED, EPROTO, ENOBUFS, ENOMEM, EMFILE, ENFILE}) {
        const support::scoped_call<call::accept> hook([=](int, sockaddr*, socklen_t*) {
            errno = error;
            return -1;
        });
        errno = 0;
        EXPECT_EQ(engine->accept(), -1);
        EXPECT_EQ(errno, error);
    }
}

TEST_F(TcpEngine, AnAcceptedReceiverIsTunedRegisteredAndWatchedForRoom)
{
    listen();
    const auto fd = receiver();
    const socket_trace trace;

    engine->in_event();

    const int flags = support::real<call::fcntl>(engine->conn_fd_, F_GETFL, 0L);
    EXPECT_EQ(
        trace.lines,
        (lines{
            "cloexec", "option TCP_NODELAY 01000000", "get-flags",
            "set-flags " + std::to_string(flags), "add none", "change out"}));
    EXPECT_NE(flags & O_NONBLOCK, 0);
    EXPECT_NE(engine->conn_handle_, nullptr);
    EXPECT_NE(engine->conn_handle_, engine->listen_handle_);
    EXPECT_EQ(interest(engine->conn_handle_), uint32_t{EPOLLOUT});
}

TEST_F(TcpEngine, NoDelayIsReallyOnForAReceiver)
{
    listen();
    const auto fd = accepted_receiver();
    int value = 0;
    socklen_t length = sizeof value;
    ASSERT_EQ(
        ::getsockopt(engine->conn_fd_, IPPROTO_TCP, TCP_NODELAY, &value, &length), 0);
    EXPECT_NE(value, 0);
}

TEST_F(TcpEngine, TheFirstReceiverCreatesTheQueueFor1024Messages)
{
    listen();
    EXPECT_EQ(engine->queue_, nullptr);
    const auto fd = accepted_receiver();

    ASSERT_NE(engine->queue_, nullptr);
    const auto msg = message("x");
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(engine->push_msg_to_pipe(msg), 0);
    EXPECT_EQ(engine->push_msg_to_pipe(msg), -1);
}

TEST_F(TcpEngine, TheWakeUpIsOneEightByteOneWrittenWhenTheQueueIsThere)
{
    listen();
    const auto fd = receiver();
    int writes = 0;
    bool queue_there = false;
    std::string written;
    int written_to = -1;
    const support::scoped_call<call::write> hook(
        [&](int target, const void* data, size_t length) {
            ++writes;
            queue_there = engine->queue_ != nullptr;
            written = support::hex(data, length);
            written_to = target;
            return support::real<call::write>(target, data, length);
        });

    engine->in_event();

    EXPECT_EQ(writes, 1);
    EXPECT_TRUE(queue_there);
    EXPECT_EQ(written, "0100000000000000");
    EXPECT_EQ(written_to, wakeup.get());
    EXPECT_EQ(take_wakeups(), 1u);
}

TEST_F(TcpEngine, AWakeUpWritesTheNumberOne)
{
    engine->wakeup();
    EXPECT_EQ(take_wakeups(), 1u);
    engine->wakeup();
    engine->wakeup();
    EXPECT_EQ(take_wakeups(), 2u);
}

TEST_F(TcpEngine, AcceptingSendsOneMessageAtOnceWhenOneIsWaiting)
{
    listen();
    engine->queue_ = support::queue_of(2);
    push("first");
    push("second");

    const auto fd = accepted_receiver();

    EXPECT_EQ(support::receive_exactly(fd.get(), 5), "first");
    EXPECT_FALSE(support::is_readable(fd.get()));
    EXPECT_EQ(engine->queue_->sizeGuess(), 1u);
    // The queue was there already, so nobody waits to be woken.
    EXPECT_EQ(take_wakeups(), 0u);
}

TEST_F(TcpEngine, ASecondReceiverTakesTheFirstOnesPlace)
{
    listen();
    const auto first = accepted_receiver();
    ASSERT_EQ(take_wakeups(), 1u);
    const support::unique_fd first_connection(engine->conn_fd_);
    const auto first_handle = engine->conn_handle_;
    const auto queue = engine->queue_;

    const socket_trace trace;
    const auto second = accepted_receiver();

    EXPECT_NE(engine->conn_fd_, first_connection.get());
    EXPECT_NE(engine->conn_handle_, first_handle);
    EXPECT_EQ(engine->queue_, queue);
    EXPECT_EQ(take_wakeups(), 0u);
    for (const auto& line : trace.lines) {
        EXPECT_NE(line, "close");
        EXPECT_NE(line, "remove");
    }
    EXPECT_TRUE(support::is_open(first_connection.get()));
    EXPECT_EQ(interest(first_handle), uint32_t{EPOLLOUT});

    push("to whom?");
    engine->out_event();
    EXPECT_EQ(support::receive_exactly(second.get(), 8), "to whom?");
    EXPECT_FALSE(support::is_readable(first.get()));
}

TEST_F(TcpEngine, AFailedAcceptForgetsTheReceiverThatWasThere)
{
    listen();
    const auto fd = accepted_receiver();
    const support::unique_fd connection(engine->conn_fd_);
    const support::scoped_call<call::accept> hook([](int, sockaddr*, socklen_t*) {
        errno = EAGAIN;
        return -1;
    });
    const socket_trace trace;

    engine->in_event();

    EXPECT_EQ(engine->conn_fd_, -1);
    EXPECT_TRUE(support::is_open(connection.get()));
    EXPECT_EQ(trace.lines, lines());
    engine.reset(); // while the old connection can still be removed from the poller
}

TEST_F(TcpEngine, AReceiverThatCannotBeTunedStaysOpenAndUnregistered)
{
    for (const std::string step : {"option TCP_NODELAY", "set-flags"}) {
        tcp_setup own;
        own.listen();
        const auto fd = own.receiver();
        socket_trace trace;
        trace.fail(step, EINVAL);

        own.engine->in_event();

        EXPECT_NE(own.engine->conn_fd_, -1) << step;
        EXPECT_TRUE(support::is_open(own.engine->conn_fd_)) << step;
        EXPECT_EQ(own.engine->conn_handle_, nullptr) << step;
        EXPECT_EQ(own.engine->queue_, nullptr) << step;
        EXPECT_EQ(own.take_wakeups(), 0u) << step;
        for (const auto& line : trace.lines)
            EXPECT_NE(line, "close") << step;
    }
}

TEST_F(TcpEngine, WithoutAPollerAReceiverStaysOpenAndUnregistered)
{
    listen();
    poller.reset();
    const auto fd = accepted_receiver();

    EXPECT_TRUE(support::is_open(engine->conn_fd_));
    EXPECT_EQ(engine->conn_handle_, nullptr);
    EXPECT_EQ(engine->queue_, nullptr);
    EXPECT_EQ(take_wakeups(), 0u);
}

// Sending.

TEST_F(TcpEngine, WithNothingQueuedNothingIsSentAndTheWriteInterestStays)
{
    listen();
    const auto fd = accepted_receiver();
    int sends = 0;
    const support::scoped_call<call::send> hook(
        [&](int, const void*, size_t, int) -> ssize_t { return ++sends; });
    const socket_trace trace;
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(sends, 0);
    EXPECT_EQ(trace.lines, lines());
    EXPECT_EQ(interest(engine->conn_handle_), uint32_t{EPOLLOUT});
    EXPECT_EQ(output.text(), "");
}

TEST_F(TcpEngine, AnEventSendsOneMessageWithOneSendAndNoFlags)
{
    listen();
    const auto fd = accepted_receiver();
    push("first");
    push("second");
    std::vector<std::pair<size_t, int>> sends;
    const support::scoped_call<call::send> hook(
        [&](int target, const void* data, size_t length, int flags) {
            sends.emplace_back(length, flags);
            return support::real<call::send>(target, data, length, flags);
        });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(sends, (std::vector<std::pair<size_t, int>>{{5, 0}}));
    EXPECT_EQ(support::receive_exactly(fd.get(), 5), "first");
    EXPECT_FALSE(support::is_readable(fd.get()));

    engine->out_event();
    EXPECT_EQ(support::receive_exactly(fd.get(), 6), "second");
    EXPECT_EQ(output.text(), "");
}

TEST_F(TcpEngine, AMessageOfFullSizeArrivesAsItIs)
{
    listen();
    const auto fd = accepted_receiver();
    const std::string bytes = patterned(vesk::MAX_BUFFER_SIZE);
    push(bytes);
    engine->out_event();
    EXPECT_EQ(support::receive_exactly(fd.get(), bytes.size()), bytes);
}

TEST_F(TcpEngine, AnEmptyMessageIsSentAndIsASuccess)
{
    listen();
    const auto fd = accepted_receiver();
    push("");
    push("next");
    const output_capture output;

    engine->out_event();
    engine->out_event();

    EXPECT_EQ(output.text(), "");
    EXPECT_EQ(support::receive_exactly(fd.get(), 4), "next");
}

TEST_F(TcpEngine, ASentMessageIsReleased)
{
    listen();
    const auto fd = accepted_receiver();
    const auto msg = message("kept");
    ASSERT_EQ(engine->push_msg_to_pipe(msg), 0);
    engine->out_event();
    EXPECT_EQ(msg.use_count(), 1);
}

// A send that fails, or that takes only a part.

using send_hook = support::scoped_call<call::send>;

// The first send is the hook's; all later ones are real.
class first_send : public send_hook {
public:
    explicit first_send(std::function<ssize_t(int fd, const void* data)> first)
        : send_hook([first = std::move(first), used = false](
                        int fd, const void* data, size_t length, int flags) mutable {
              if (!used) {
                  used = true;
                  return first(fd, data);
              }
              return support::real<call::send>(fd, data, length, flags);
          })
    {}
};

ssize_t failed(int error)
{
    errno = error;
    return -1;
}

TEST_F(TcpEngine, AnErrorDropsTheMessageAndEndsTheWriteInterest)
{
    listen();
    const auto fd = accepted_receiver();
    push("lost");
    push("kept");
    const auto lost = std::weak_ptr<vesk::dataBuffer>(*engine->queue_->frontPtr());
    const socket_trace trace;
    const output_capture output;
    {
        const first_send hook([](int, const void*) { return failed(ECONNRESET); });
        engine->out_event();
    }
    EXPECT_EQ(output.unflushed_text(), "Socket error\n");
    EXPECT_EQ(trace.lines, (lines{"change none"}));
    EXPECT_EQ(interest(engine->conn_handle_), 0u);
    EXPECT_EQ(engine->queue_->sizeGuess(), 1u);
    EXPECT_TRUE(lost.expired());
    EXPECT_TRUE(support::is_open(engine->conn_fd_));
    EXPECT_FALSE(support::is_readable(fd.get()));
}

TEST_F(TcpEngine, AReceiverThatHasGoneIsASocketError)
{
    listen();
    auto fd = accepted_receiver();
    // With zero linger the close resets the connection at once.
    const linger hard = {1, 0};
    ASSERT_EQ(::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard), 0);
    fd.reset();
    pollfd connection = {engine->conn_fd_, 0, 0}; // an error is told unasked
    ASSERT_EQ(support::real<call::poll>(&connection, nfds_t{1}, 60000), 1);
    push("lost");
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(output.text(), "Socket error\n");
    EXPECT_EQ(interest(engine->conn_handle_), 0u);
}

TEST_F(TcpEngine, AnErrorWithoutAPollerIsStillTold)
{
    listen();
    const auto fd = accepted_receiver();
    push("lost");
    poller.reset();
    const first_send hook([](int, const void*) { return failed(EPIPE); });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(output.text(), "Socket error\n");
}

TEST_F(TcpEngine, AShortSendIsFinishedOnTheSlowPath)
{
    listen();
    const auto fd = accepted_receiver();
    push("0123456789");
    const first_send hook([](int target, const void* data) {
        return support::real<call::send>(target, data, size_t{4}, 0);
    });
    const socket_trace trace;
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(
        output.unflushed_text(), "Warning: unable to send all data, already send len: 4\n"
                                 "Using poll wait to send 6 bytes.\n");
    EXPECT_EQ(support::receive_exactly(fd.get(), 10), "0123456789");
    EXPECT_FALSE(support::is_readable(fd.get()));
    EXPECT_EQ(trace.lines, lines());
}

TEST_F(TcpEngine, AShortSendOfNothingIsFinishedOnTheSlowPath)
{
    listen();
    const auto fd = accepted_receiver();
    push("0123456789");
    const first_send hook([](int, const void*) { return ssize_t{0}; });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(
        output.text(), "Warning: unable to send all data, already send len: 0\n"
                       "Using poll wait to send 10 bytes.\n");
    EXPECT_EQ(support::receive_exactly(fd.get(), 10), "0123456789");
    EXPECT_EQ(interest(engine->conn_handle_), uint32_t{EPOLLOUT});
}

TEST_F(TcpEngine, AFirstSendWithoutRoomIsAnErrorEvenWhenTheMessageIsDelivered)
{
    for (const int error : {EAGAIN, EINTR}) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        own.push("0123456789");
        const first_send hook([=](int, const void*) { return failed(error); });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(
            output.unflushed_text(),
            "Warning: unable to send all data, already send len: 0\n"
            "Using poll wait to send 10 bytes.\n"
            "Socket error\n");
        EXPECT_EQ(support::receive_exactly(fd.get(), 10), "0123456789");
        EXPECT_EQ(own.interest(own.engine->conn_handle_), 0u);
    }
}

TEST_F(TcpEngine, AnErrorOnTheSlowPathIsASocketError)
{
    listen();
    const auto fd = accepted_receiver();
    push("0123456789");
    int calls = 0;
    const support::scoped_call<call::send> hook([&](int target, const void* data, size_t,
                                                    int flags) {
        return ++calls == 1 ? support::real<call::send>(target, data, size_t{4}, flags)
                            : failed(ECONNRESET);
    });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(
        output.text(), "Warning: unable to send all data, already send len: 4\n"
                       "Using poll wait to send 6 bytes.\n"
                       "Socket error\n");
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(interest(engine->conn_handle_), 0u);
}

int bytes_in(int fd, unsigned long queue)
{
    int count = 0;
    EXPECT_EQ(::ioctl(fd, queue, &count), 0);
    return count;
}

// Sends into a connection whose receiver does not read until there is no room, and none
// can come up either: all that has arrived has been acknowledged. The bytes sent.
size_t fill(int sender, int receiver)
{
    const std::string filler(65536, 'x');
    size_t sent = 0;
    EXPECT_TRUE(support::eventually([&] {
        const int known = bytes_in(receiver, SIOCINQ) + bytes_in(sender, SIOCOUTQ);
        const ssize_t n = ::send(sender, filler.data(), filler.size(), 0);
        const bool has_room = n >= 0 || errno != EAGAIN;
        const bool settled = static_cast<size_t>(known) == sent;
        sent += static_cast<size_t>(std::max<ssize_t>(n, 0));
        return settled && !has_room;
    }));
    return sent;
}

// Two receivers, of whom the newer has stopped reading: the older one's events
// still fire, and the message runs into the newer one's full buffers.
TEST_F(TcpEngine, AStalledReceiverHoldsTheSenderUntilItDrainsAndLosesNothing)
{
    listen();
    const auto older = accepted_receiver();
    const support::unique_fd older_connection(engine->conn_fd_);
    const auto newer = accepted_receiver();
    const size_t backlog = fill(engine->conn_fd_, newer.get());
    const std::string bytes = patterned(vesk::MAX_BUFFER_SIZE);
    push(bytes);

    std::atomic<bool> polled{false};
    const support::scoped_call<call::poll> poll(
        [&](pollfd* fds, nfds_t count, int timeout) {
            polled.store(true);
            return support::real<call::poll>(fds, count, timeout);
        });
    std::string received;
    std::thread drain([&] {
        while (!polled.load()) {
        }
        received = support::receive_exactly(newer.get(), backlog + bytes.size());
    });
    const output_capture output;
    engine->out_event();
    EXPECT_TRUE(polled.exchange(true)); // or the receiver would wait for ever
    drain.join();

    EXPECT_EQ(received.substr(0, backlog), std::string(backlog, 'x'));
    EXPECT_EQ(received.substr(backlog), bytes);
    const std::string text = output.text();
    const std::string start = "Warning: unable to send all data, already send len: ";
    EXPECT_EQ(text.rfind(start, 0), 0u) << text;
    EXPECT_FALSE(support::is_readable(older.get()));
}

// The debug dump.

TEST_F(TcpEngine, InDebugModeASentMessageIsDumped)
{
    listen();
    const auto fd = accepted_receiver();
    const auto number = support::next_dump_number();
    push("AB\xff");
    push("12345678");
    g_debug_mode = 1;
    const output_capture output;

    engine->out_event();
    engine->out_event();

    EXPECT_EQ(
        output.unflushed_text(),
        support::dump_block(number, 3, "41 42 ffffffff \n") +
            support::dump_block(number + 1, 8, "31 32 33 34 35 36 37 38 \n\n"));
}

TEST_F(TcpEngine, WithoutDebugModeNothingIsDumped)
{
    listen();
    const auto fd = accepted_receiver();
    push("AB");
    const output_capture output;
    engine->out_event();
    EXPECT_EQ(output.text(), "");
}

TEST_F(TcpEngine, AMessageFinishedOnTheSlowPathIsDumpedWhole)
{
    listen();
    const auto fd = accepted_receiver();
    const auto number = support::next_dump_number();
    push("AB");
    g_debug_mode = 1;
    const first_send hook([](int target, const void* data) {
        return support::real<call::send>(target, data, size_t{1}, 0);
    });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(
        output.text(), "Warning: unable to send all data, already send len: 1\n"
                       "Using poll wait to send 1 bytes.\n" +
                           support::dump_block(number, 2, "41 42 \n"));
}

TEST_F(TcpEngine, AMessageThatFailedIsNotDumped)
{
    for (const int error : {EPIPE, EAGAIN}) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        own.push("AB");
        g_debug_mode = 1;
        const first_send hook([=](int, const void*) { return failed(error); });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(output.text().find("seq: "), std::string::npos);
    }
}

// Pacing through the engine, on a clock of our own.

constexpr int64_t START_US = 1000000000; // 1000 s

TEST_F(TcpEngine, WithoutARateTheRecordStaysAndNoClockIsLookedAt)
{
    listen();
    const auto fd = accepted_receiver();
    push("abc");
    const auto before = pacing_record();
    const fake_clock clock(START_US);

    engine->out_event();

    EXPECT_EQ(support::receive_exactly(fd.get(), 3), "abc");
    EXPECT_EQ(pacing_record(), before);
    EXPECT_EQ(clock.readings, 0);
    EXPECT_EQ(clock.yields, 0);
}

TEST_F(TcpEngine, AnEmptyQueueTouchesNoPacing)
{
    listen();
    const auto fd = accepted_receiver();
    engine->set_speed(1000000);
    const fake_clock clock(START_US);

    engine->out_event();

    EXPECT_EQ(clock.readings, 0);
    EXPECT_EQ(stats.start_time.tv_sec, 0);
}

TEST_F(TcpEngine, TheSecondMessageLeavesWhenAllBytesAreDue)
{
    listen();
    const auto fd = accepted_receiver();
    engine->set_speed(1000000);
    push(patterned(1250));
    push(patterned(1250));
    fake_clock clock(START_US);
    clock.per_reading_us = 100;

    engine->out_event();
    EXPECT_EQ(clock.yields, 0);
    EXPECT_EQ(
        pacing_record(), "start 1000s 0us, end 1000s 100us, sent 1250, nap 0s 0ns, skip "
                         "0, first 0, top 0");

    clock.now_us = START_US + 1000;
    clock.per_reading_us = 0;
    engine->out_event();

    // Due after 20000 us, of which 100 had gone by at the first send: 19900 from now.
    EXPECT_EQ(clock.yields, 19900);
    EXPECT_EQ(
        pacing_record(), "start 1000s 0us, end 1000s 20900us, sent 2500, nap 0s "
                         "19900000ns, skip 0, first 0, top 0");
}

TEST_F(TcpEngine, ASenderThatFellBehindCatchesUpOnItsCredit)
{
    listen();
    const auto fd = accepted_receiver();
    engine->set_speed(1000000);
    fake_clock clock(START_US);
    const auto send_at = [&](int64_t time_us, size_t length) {
        push(patterned(length));
        clock.now_us = START_US + time_us;
        engine->out_event();
        return clock.now_us - START_US;
    };

    EXPECT_EQ(send_at(0, 1250), 0);
    EXPECT_EQ(send_at(0, 1250), 20000);
    // The source stalled; the next pause still counts from the previous send.
    EXPECT_EQ(send_at(60000, 1250), 70000);
    // 70000 us gone, 5000 bytes are due after 40000: 30000 us are 3750 bytes.
    EXPECT_EQ(send_at(70000, 1250), 70000);
    EXPECT_EQ(stats.skip_length, 3750u);
    EXPECT_EQ(send_at(70000, 2000), 70000);
    EXPECT_EQ(stats.skip_length, 1750u);
    // Longer than what is left: 9000 bytes are due after 72000.
    EXPECT_EQ(send_at(70000, 2000), 72000);
    EXPECT_EQ(stats.skip_length, 0u);
    EXPECT_EQ(stats.bytes_sent, 9000u);
}

TEST_F(TcpEngine, AMessageFinishedOnTheSlowPathCountsWhole)
{
    listen();
    const auto fd = accepted_receiver();
    engine->set_speed(1000000);
    push("0123456789");
    const fake_clock clock(START_US);
    const first_send hook([](int target, const void* data) {
        return support::real<call::send>(target, data, size_t{4}, 0);
    });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(stats.bytes_sent, 10u);
    EXPECT_EQ(stats.end_time.tv_sec, 1000);
}

TEST_F(TcpEngine, AMessageThatFailedCountsForNothing)
{
    for (const int error : {EPIPE, EAGAIN}) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        own.engine->set_speed(1000000);
        own.push("0123456789");
        const fake_clock clock(START_US);
        const first_send hook([=](int, const void*) { return failed(error); });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(stats.bytes_sent, 0u);
        EXPECT_EQ(stats.end_time.tv_sec, 0);
    }
}

// The end.

TEST_F(TcpEngine, ProcessTermRemovesTheListenerAndThenTheConnection)
{
    listen();
    const auto fd = accepted_receiver();
    std::vector<int> removed;
    const support::scoped_call<call::epoll_ctl> hook(
        [&](int epoll_fd, int operation, int target, epoll_event* event) {
            EXPECT_EQ(operation, EPOLL_CTL_DEL);
            removed.push_back(target);
            return support::real<call::epoll_ctl>(epoll_fd, operation, target, event);
        });

    engine->process_term();

    EXPECT_EQ(removed, (std::vector<int>{engine->listen_fd_, engine->conn_fd_}));
    EXPECT_EQ(engine->listen_handle_, nullptr);
    EXPECT_EQ(engine->conn_handle_, nullptr);
    EXPECT_TRUE(support::is_open(engine->listen_fd_));
    EXPECT_TRUE(support::is_open(engine->conn_fd_));

    engine->process_term();
    EXPECT_EQ(removed.size(), 2u);
}

TEST_F(TcpEngine, ProcessTermWithoutAPollerOrRegistrationsDoesNothing)
{
    const socket_trace trace;
    engine->process_term();
    EXPECT_EQ(trace.lines, lines());
    listen();
    poller.reset();
    engine->process_term();
    EXPECT_NE(engine->listen_fd_, -1);
}

TEST_F(TcpEngine, CloseClosesTheListenerAndThenTheConnectionOnce)
{
    listen();
    const auto fd = accepted_receiver();
    engine->process_term();
    const std::vector<int> open = {engine->listen_fd_, engine->conn_fd_};
    std::vector<int> closed;
    const support::scoped_call<call::close> hook([&](int target) {
        closed.push_back(target);
        return support::real<call::close>(target);
    });

    engine->close();
    engine->close();

    EXPECT_EQ(closed, open);
    EXPECT_EQ(engine->listen_fd_, -1);
    EXPECT_EQ(engine->conn_fd_, -1);
}

TEST_F(TcpEngine, TheEndRemovesClosesAndReleasesButLeavesTheWakeUpDescriptorOpen)
{
    listen();
    const auto fd = accepted_receiver();
    const std::weak_ptr<vesk::queue_ptr::element_type> queue = engine->queue_;
    const int listener = engine->listen_fd_;
    const int connection = engine->conn_fd_;
    {
        const socket_trace trace;
        engine.reset();
        EXPECT_EQ(trace.lines, (lines{"remove", "remove", "close", "close"}));
    }
    EXPECT_FALSE(support::is_open(listener));
    EXPECT_FALSE(support::is_open(connection));
    EXPECT_TRUE(support::is_open(wakeup.get()));
    EXPECT_TRUE(queue.expired());
    EXPECT_EQ(poller.use_count(), 1);
    // The receiver sees the end of the stream.
    EXPECT_EQ(support::receive_exactly(fd.get(), 1), "");
}

TEST_F(TcpEngine, AnEngineThatNeverListenedEndsWithoutACall)
{
    const socket_trace trace;
    engine.reset();
    EXPECT_EQ(trace.lines, lines());
}

TEST_F(TcpEngine, AnEngineMayOutliveItsPoller)
{
    listen();
    const auto fd = accepted_receiver();
    poller.reset();
    const socket_trace trace;
    engine.reset();
    EXPECT_EQ(trace.lines, (lines{"close", "close"}));
}

// With the poller's own thread.

TEST_F(TcpEngine, AReceiverGetsAllMessagesInOrderFromThePollerThread)
{
    listen();
    ASSERT_EQ(poller->start_poller("poller_thread"), 0);
    const auto fd = receiver();
    ASSERT_TRUE(support::is_readable(wakeup.get(), 60000));
    ASSERT_EQ(take_wakeups(), 1u);

    const std::string bytes = patterned(vesk::MAX_BUFFER_SIZE * 4);
    std::string expected;
    std::thread source([&] {
        for (size_t i = 0; i < 3000; ++i) {
            auto msg = message(bytes.substr(i, 1 + i % 2000));
            while (engine->sendto(std::move(msg)) != 0) {
            }
        }
    });
    for (size_t i = 0; i < 3000; ++i)
        expected += bytes.substr(i, 1 + i % 2000);
    const std::string received = support::receive_exactly(fd.get(), expected.size());
    source.join();
    poller->stop_poller();

    EXPECT_TRUE(received == expected);
}

TEST_F(TcpEngine, WithoutAReceiverThereIsNoQueueAndNoWakeUp)
{
    std::atomic<int> waits{0};
    const support::scoped_call<call::epoll_wait> count(
        [&](int epoll_fd, epoll_event* events, int capacity, int) {
            waits.fetch_add(1);
            return support::real<call::epoll_wait>(epoll_fd, events, capacity, 1);
        });
    listen();
    ASSERT_EQ(poller->start_poller("poller_thread"), 0);
    EXPECT_TRUE(support::eventually([&] { return waits.load() >= 10; }));
    EXPECT_EQ(engine->sendto(message("abc")), -1);
    EXPECT_EQ(take_wakeups(), 0u);
    poller->stop_poller();
    EXPECT_EQ(engine->queue_, nullptr);
}

// Fatal checks. Each statement runs in a process of its own.

void run(void (*statement)(tcp_setup&))
{
    tcp_setup setup;
    setup.listen();
    statement(setup);
}

TEST(TcpEngineDeathTest, SendingWithoutAConnectionIsFatal)
{
    EXPECT_FATAL(
        run([](tcp_setup& setup) { setup.engine->out_event(); }),
        "Assertion failed: conn_fd_ != retired_fd", "tcp_engine.h");
}

TEST(TcpEngineDeathTest, AnEventAfterAFailedAcceptIsFatal)
{
    const auto statement = [](tcp_setup& setup) {
        const auto fd = setup.accepted_receiver();
        const support::scoped_call<call::accept> hook([](int, sockaddr*, socklen_t*) {
            errno = EAGAIN;
            return -1;
        });
        setup.engine->in_event();
        setup.engine->out_event();
    };
    EXPECT_FATAL(
        run(statement), "Assertion failed: conn_fd_ != retired_fd", "tcp_engine.h");
}

TEST(TcpEngineDeathTest, AcceptingWithoutAListenerIsFatal)
{
    const auto statement = [](tcp_setup& setup) {
        setup.engine->process_term();
        setup.engine->close();
        setup.engine->accept();
    };
    EXPECT_FATAL(
        run(statement), "Assertion failed: listen_fd_ != retired_fd", "tcp_engine.h");
}

template <int Error>
void accept_with(tcp_setup& setup)
{
    const support::scoped_call<call::accept> hook([](int, sockaddr*, socklen_t*) {
        errno = Error;
        return -1;
    });
    setup.engine->in_event();
}

TEST(TcpEngineDeathTest, AnyOtherErrorOfAcceptIsFatal)
{
    EXPECT_FATAL(run(accept_with<EBADF>), "Bad file descriptor", "tcp_engine.h");
    EXPECT_FATAL(run(accept_with<EPERM>), "Operation not permitted", "tcp_engine.h");
    EXPECT_FATAL(
        run(accept_with<ECONNRESET>), "Connection reset by peer", "tcp_engine.h");
}

TEST(TcpEngineDeathTest, AListenerThatCannotBeClosedOnExecIsFatal)
{
    const auto statement = [] {
        tcp_setup setup;
        socket_trace trace;
        trace.fail("cloexec", EINVAL);
        setup.listen();
    };
    EXPECT_FATAL(statement(), "Assertion failed: rc != -1", "tcp_engine.h");
}

TEST(TcpEngineDeathTest, AReceiverThatCannotBeClosedOnExecIsFatal)
{
    const auto statement = [](tcp_setup& setup) {
        socket_trace trace;
        trace.fail("cloexec", EINVAL);
        const auto fd = setup.accepted_receiver();
    };
    EXPECT_FATAL(run(statement), "Assertion failed: rc != -1", "tcp_engine.h");
}

TEST(TcpEngineDeathTest, AWakeUpThatIsNotWrittenWholeIsFatal)
{
    const auto statement = [](ssize_t result) {
        tcp_setup setup;
        const support::scoped_call<call::write> hook(
            [=](int, const void*, size_t) { return result; });
        setup.engine->wakeup();
    };
    for (const ssize_t result : {-1, 0, 7}) {
        EXPECT_FATAL(
            statement(result), "Assertion failed: n == sizeof(uint64_t)", "tcp_engine.h");
    }
}

TEST(TcpEngineDeathTest, ARegistrationThatFailsIsFatal)
{
    const auto statement = [] {
        tcp_setup setup;
        socket_trace trace;
        trace.fail("add", ENOSPC);
        setup.listen();
    };
    EXPECT_FATAL(statement(), "No space left on device", "epoll.h");
}

} // namespace tcp_engine_test
