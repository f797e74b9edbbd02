// Both engines when a call to the system or to the heap fails under them: each error
// that the call may give, one at a time. Most tests play the poller's thread.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>

#include "support/allocation_seam.h"
#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/eventually.h"
#include "support/fake_clock.h"
#include "support/fatal.h"
#include "support/output_capture.h"
#include "support/send_errors.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace tcp_engine_fault_test {

namespace call = support::call;
using support::message;
using support::output_capture;
using support::patterned;
using support::process_end;
using support::SEND_ERRORS;
using support::socket_trace;
using testing::Contains;
using testing::Each;
using testing::Ge;
using testing::Not;
using testing::SizeIs;
using errors_t = std::vector<int>;
using lines = std::vector<std::string>;

// A dotted address that is too long to be kept within a string.
const std::string LONG_LOOPBACK = "0000000000000177.0.0.1";
const std::string UNCAUGHT_BAD_ALLOC =
    "terminate called after throwing an instance of 'std::bad_alloc'\n"
    "  what():  std::bad_alloc\n";

ssize_t failed(int error)
{
    errno = error;
    return -1;
}

class open_tcp_engine : public vesk::tcp_engine {
public:
    using tcp_engine::tcp_engine;

    using tcp_engine::conn_fd_;
    using tcp_engine::conn_handle_;
    using tcp_engine::listen_fd_;
    using tcp_engine::listen_handle_;
    using tcp_engine::pace;
    using tcp_engine::queue_;
    using tcp_engine::tcpr_sleep;
};

// An engine with a poller that does not run. The engine goes first.
struct tcp_setup {
    void listen()
    {
        std::string address = "127.0.0.1:0";
        ASSERT_EQ(engine->set_local_address(address), 0);
    }

    support::unique_fd receiver() const
    {
        return support::connected_to(support::local_port(engine->listen_fd_));
    }

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

    uint32_t interest() const
    {
        return static_cast<vesk::epoll_t::poll_entry_t*>(engine->conn_handle_)->ev.events;
    }

    support::unique_fd wakeup{::eventfd(0, EFD_NONBLOCK)};
    std::shared_ptr<vesk::epoll_t> poller{std::make_shared<vesk::epoll_t>()};
    std::unique_ptr<open_tcp_engine> engine{
        std::make_unique<open_tcp_engine>(poller, wakeup.get())};
};

class TcpEngineFault : public support::engine_fixture, protected tcp_setup {};

// --------------------------------------------------------------- setting up, TCP

struct step_faults {
    std::string step; // as the trace words it
    errors_t errors;
    bool closes; // whether there is a socket to be closed by then
};

void PrintTo(const step_faults& faults, std::ostream* out) { *out << faults.step; }

class TcpSetUpFault : public support::engine_fixture,
                      public testing::WithParamInterface<step_faults>,
                      protected tcp_setup {};

TEST_P(TcpSetUpFault, IsReportedWithItsErrnoAndNothingStaysOpen)
{
    for (const int error : GetParam().errors) {
        std::string address = "127.0.0.1:0";
        socket_trace trace;
        trace.fail(GetParam().step, error);

        errno = 0;
        EXPECT_EQ(engine->set_local_address(address), -1);

        EXPECT_EQ(errno, error); // although the close leaves another one
        EXPECT_EQ(engine->listen_fd_, -1);
        EXPECT_EQ(engine->listen_handle_, nullptr);
        EXPECT_EQ(
            std::count(trace.lines.begin(), trace.lines.end(), "close"),
            GetParam().closes ? 1 : 0);
    }
    listen(); // the same engine, once the fault is gone
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, TcpSetUpFault,
    testing::Values(
        step_faults{
            "socket",
            {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM,
             EPROTONOSUPPORT},
            false},
        step_faults{
            "option SO_REUSEADDR",
            {EBADF, EDOM, EFAULT, EINVAL, ENOMEM, ENOPROTOOPT, ENOTSOCK, EPERM},
            true},
        step_faults{
            "bind",
            {EACCES, EADDRINUSE, EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ENOBUFS, ENOMEM,
             ENOTSOCK, EPERM},
            true},
        step_faults{
            "listen", {EADDRINUSE, EBADF, EINVAL, ENOTSOCK, EOPNOTSUPP, EPERM}, true}));

// --------------------------------------------------------------- accept

class PassingAcceptError : public support::engine_fixture,
                           public testing::WithParamInterface<int>,
                           protected tcp_setup {};

TEST_P(PassingAcceptError, LeavesTheReceiverToTheNextEvent)
{
    listen();
    const auto fd = receiver();
    {
        const support::scoped_call<call::accept> hook([](int, sockaddr*, socklen_t*) {
            return static_cast<int>(failed(GetParam()));
        });
        const socket_trace trace;
        engine->in_event();
        engine->in_event();
        EXPECT_EQ(engine->conn_fd_, -1);
        EXPECT_EQ(engine->queue_, nullptr);
        EXPECT_EQ(trace.lines, lines());
    }

    engine->in_event();
    push("data");
    engine->out_event();
    EXPECT_EQ(support::receive_exactly(fd.get(), 4), "data");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, PassingAcceptError,
    testing::Values(
        EAGAIN, EINTR, ECONNABORTED, EPROTO, ENOBUFS, ENOMEM, EMFILE, ENFILE));

class FatalAcceptError : public testing::TestWithParam<int> {};

TEST_P(FatalAcceptError, EndsTheProcessWithItsText)
{
    const int error = GetParam();
    const auto statement = [error] {
        tcp_setup setup;
        setup.listen();
        const support::scoped_call<call::accept> hook(
            [=](int, sockaddr*, socklen_t*) { return static_cast<int>(failed(error)); });
        setup.engine->in_event();
    };
    EXPECT_FATAL(statement(), std::strerror(error), "tcp_engine.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryOtherError, FatalAcceptError,
    testing::Values(
        EBADF, EFAULT, EHOSTDOWN, EHOSTUNREACH, EINVAL, ENETDOWN, ENETUNREACH, ENONET,
        ENOPROTOOPT, ENOSR, ENOTSOCK, EOPNOTSUPP, EPERM, EPROTONOSUPPORT, ESOCKTNOSUPPORT,
        ETIMEDOUT));

// --------------------------------------------------------------- the wake-up

class FaultOfTheWakeUpsWrite : public testing::TestWithParam<int> {};

TEST_P(FaultOfTheWakeUpsWrite, IsFatal)
{
    const int error = GetParam();
    const auto statement = [error] {
        tcp_setup setup;
        const support::scoped_call<call::write> hook(
            [=](int, const void*, size_t) { return failed(error); });
        setup.engine->wakeup();
    };
    EXPECT_FATAL(statement(), "Assertion failed: n == sizeof(uint64_t)", "tcp_engine.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfTheWakeUpsWrite,
    testing::Values(EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, ENOSPC, EPIPE));

// --------------------------------------------------------------- send, poll

TEST_F(TcpEngineFault, EveryOtherErrorOfSendIsASocketErrorAndDropsThatMessageAlone)
{
    for (const int error : SEND_ERRORS) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        own.push("lost");
        own.push("kept");
        int sends = 0;
        const support::scoped_call<call::send> hook([&](int, const void*, size_t, int) {
            ++sends;
            return failed(error);
        });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(output.unflushed_text(), "Socket error\n") << error;
        EXPECT_EQ(sends, 1) << error;
        EXPECT_EQ(own.interest(), 0u) << error;
        EXPECT_EQ(own.engine->queue_->sizeGuess(), 1u) << error;
        EXPECT_TRUE(support::is_open(own.engine->conn_fd_)) << error;
        EXPECT_FALSE(support::is_readable(fd.get())) << error;
    }
}

TEST_F(TcpEngineFault, EveryOtherErrorOnTheSlowPathIsASocketErrorBehindThePartThatLeft)
{
    for (const int error : SEND_ERRORS) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        own.push("0123456789");
        own.engine->set_speed(1000000);
        g_debug_mode = 1; // which shows what has been sent
        const support::fake_clock clock(1000000000);
        int sends = 0;
        const support::scoped_call<call::send> hook(
            [&](int target, const void* data, size_t, int flags) {
                return ++sends == 1
                           ? support::real<call::send>(target, data, size_t{4}, flags)
                           : failed(error);
            });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(
            output.unflushed_text(),
            "Warning: unable to send all data, already send len: 4\n"
            "Using poll wait to send 6 bytes.\n"
            "Socket error\n")
            << error;
        EXPECT_EQ(sends, 2) << error;
        EXPECT_EQ(own.interest(), 0u) << error;
        EXPECT_EQ(support::receive_exactly(fd.get(), 4), "0123") << error;
        EXPECT_FALSE(support::is_readable(fd.get())) << error;
        EXPECT_EQ(vesk::stats.bytes_sent, 0u) << error;
    }
}

TEST_F(TcpEngineFault, AMessageThatLeavesByteByByteBetweenInterruptionsArrivesWhole)
{
    listen();
    const auto fd = accepted_receiver();
    const std::string bytes = patterned(100);
    push(bytes);
    int sends = 0;
    const support::scoped_call<call::send> hook(
        [&](int target, const void* data, size_t, int flags) {
            switch (++sends % 3) {
            case 1:
                return support::real<call::send>(target, data, size_t{1}, flags);
            case 2:
                return failed(EINTR);
            default:
                return failed(EAGAIN);
            }
        });
    const support::scoped_call<call::poll> poll(
        [](pollfd*, nfds_t, int) { return static_cast<int>(failed(EINTR)); });
    const output_capture output;

    engine->out_event();

    EXPECT_EQ(support::receive_exactly(fd.get(), bytes.size()), bytes);
    EXPECT_EQ(interest(), uint32_t{EPOLLOUT}); // the first send took something
    EXPECT_EQ(sends, 3 * 99 + 1);
}

TEST_F(TcpEngineFault, WhateverPollGivesTheSendDecides)
{
    for (const int error : {EFAULT, EINTR, EINVAL, ENOMEM}) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        own.push("0123456789");
        bool first = true;
        const support::scoped_call<call::send> send(
            [&](int target, const void* data, size_t length, int flags) {
                const size_t part = first ? 4 : length;
                first = false;
                return support::real<call::send>(target, data, part, flags);
            });
        const support::scoped_call<call::poll> poll(
            [&](pollfd*, nfds_t, int) { return static_cast<int>(failed(error)); });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(
            output.unflushed_text(),
            "Warning: unable to send all data, already send len: 4\n"
            "Using poll wait to send 6 bytes.\n");
        EXPECT_EQ(support::receive_exactly(fd.get(), 10), "0123456789");
        EXPECT_EQ(own.interest(), uint32_t{EPOLLOUT});
    }
}

// --------------------------------------------------------------- close, the clock

TEST_F(TcpEngineFault, ACloseThatFailsIsNotRepeated)
{
    for (const int error : {EBADF, EINTR, EIO, ENOSPC}) {
        tcp_setup own;
        own.listen();
        const auto fd = own.accepted_receiver();
        const std::set<int> sockets = {own.engine->listen_fd_, own.engine->conn_fd_};
        std::vector<int> closed;
        const support::scoped_call<call::close> hook([&](int target) {
            if (sockets.count(target) != 0)
                closed.push_back(target);
            // The kernel closes whatever it says. A repeated call is left to succeed.
            return support::real<call::close>(target) == 0
                       ? static_cast<int>(failed(error))
                       : 0;
        });

        own.engine->process_term();
        own.engine->close();
        own.engine.reset();

        EXPECT_THAT(closed, SizeIs(2)) << error;
        for (const int socket : sockets)
            EXPECT_FALSE(support::is_open(socket)) << error;
    }
}

TEST_F(TcpEngineFault, AYieldThatFailsStillEndsAtTheDeadline)
{
    support::fake_clock clock(1000000);
    int yields = 0;
    const support::scoped_call<call::sched_yield> hook([&] {
        ++yields;
        clock.now_us += 10;
        return static_cast<int>(failed(ENOSYS));
    });
    timespec nap{0, 100000};
    timeval now = support::fake_clock::time_of(1000000);

    engine->tcpr_sleep(&nap, &now);

    EXPECT_EQ(yields, 10);
    EXPECT_EQ(now.tv_usec, 100);
}

// --------------------------------------------------------------- UDP

class open_udp_engine : public vesk::udp_engine {
public:
    using udp_engine::udp_engine;

    using udp_engine::handle_;
    using udp_engine::queue_;
    using udp_engine::sock_fd_;
};

struct udp_setup {
    explicit udp_setup(bool send, const std::string& device = "")
        : engine(std::make_unique<open_udp_engine>(poller, send, device))
    {}

    // A sender aims at `receiver`, a receiver takes any port.
    void open(bool send)
    {
        std::string address =
            "127.0.0.1:" +
            (send ? std::to_string(support::local_port(receiver.get())) : "*");
        ASSERT_EQ(engine->set_local_address(address), 0);
    }

    void push(const std::string& bytes) const
    {
        ASSERT_EQ(engine->push_msg_to_pipe(message(bytes)), 0);
    }

    uint32_t interest() const
    {
        return static_cast<vesk::epoll_t::poll_entry_t*>(engine->handle_)->ev.events;
    }

    support::unique_fd receiver{support::bound_socket(SOCK_DGRAM)};
    std::shared_ptr<vesk::epoll_t> poller{std::make_shared<vesk::epoll_t>()};
    std::unique_ptr<open_udp_engine> engine;
};

class UdpEngineFault : public support::engine_fixture {};

struct udp_step_faults {
    bool send;
    std::string address;
    std::string step;
    errors_t errors;
    bool closes;
};

void PrintTo(const udp_step_faults& faults, std::ostream* out)
{
    *out << (faults.send ? "send " : "receive ") << faults.address << ' ' << faults.step;
}

class UdpSetUpFault : public support::engine_fixture,
                      public testing::WithParamInterface<udp_step_faults> {};

TEST_P(UdpSetUpFault, IsReportedWithItsErrnoAndNothingStaysOpen)
{
    for (const int error : GetParam().errors) {
        udp_setup own(GetParam().send, "eth7");
        std::string address = GetParam().address;
        socket_trace trace;
        trace.fail(GetParam().step, error);
        trace.pretend("option SO_BINDTODEVICE");

        errno = 0;
        EXPECT_EQ(own.engine->set_local_address(address), -1);

        EXPECT_EQ(errno, error); // although the close leaves another one
        EXPECT_EQ(own.engine->sock_fd_, -1);
        EXPECT_EQ(own.engine->queue_, nullptr);
        EXPECT_EQ(
            std::count(trace.lines.begin(), trace.lines.end(), "close"),
            GetParam().closes ? 1 : 0);
    }
}

const errors_t OPTION_ERRORS = {EBADF,  EDOM,        EFAULT,   EINVAL,
                                ENOMEM, ENOPROTOOPT, ENOTSOCK, EPERM};
const errors_t BIND_ERRORS = {EACCES,  EADDRINUSE, EADDRNOTAVAIL, EBADF, EINVAL,
                              ENOBUFS, ENOMEM,     ENOTSOCK,      EPERM};

INSTANTIATE_TEST_SUITE_P(
    EveryStep, UdpSetUpFault,
    testing::Values(
        udp_step_faults{
            true,
            "127.0.0.1:5000",
            "socket",
            {EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM,
             EPROTONOSUPPORT},
            false},
        udp_step_faults{
            true, "127.0.0.1:5000", "option IP_MULTICAST_LOOP", OPTION_ERRORS, true},
        udp_step_faults{
            true,
            "127.0.0.1:5000",
            "option SO_BINDTODEVICE",
            {EACCES, ENODEV, ENOMEM, EPERM},
            true},
        udp_step_faults{
            true,
            "239.1.1.1:5000",
            "option SO_BINDTODEVICE",
            {EACCES, ENODEV, ENOMEM, EPERM},
            true},
        udp_step_faults{false, "127.0.0.1:0", "option SO_REUSEADDR", OPTION_ERRORS, true},
        udp_step_faults{false, "239.1.1.1:0", "option SO_REUSEPORT", OPTION_ERRORS, true},
        udp_step_faults{false, "127.0.0.1:0", "bind", BIND_ERRORS, true},
        udp_step_faults{false, "239.1.1.1:0", "bind", BIND_ERRORS, true}));

TEST_F(UdpEngineFault, AGroupThatCannotBeJoinedIsNoFailureWhateverTheErrno)
{
    for (const int error : {EADDRINUSE, EINVAL, ENOBUFS, ENODEV, ENOMEM, EPERM}) {
        udp_setup own(false);
        std::string address = "239.1.1.1:0";
        socket_trace trace;
        trace.fail("option IP_ADD_MEMBERSHIP", error);
        EXPECT_EQ(own.engine->set_local_address(address), 0) << error;
    }
}

TEST_F(UdpEngineFault, EveryOtherErrorOfSendtoIsASocketErrorAndDropsThatMessageAlone)
{
    for (const int error : SEND_ERRORS) {
        udp_setup own(true);
        own.open(true);
        own.push("lost");
        own.push("kept");
        int sends = 0;
        const support::scoped_call<call::sendto> hook(
            [&](int, const void*, size_t, int, const sockaddr*, socklen_t) {
                ++sends;
                return failed(error);
            });
        const output_capture output;

        own.engine->out_event();

        EXPECT_EQ(output.unflushed_text(), "socket error\n") << error;
        EXPECT_EQ(sends, 1) << error;
        EXPECT_EQ(own.interest(), 0u) << error;
        EXPECT_EQ(own.engine->queue_->sizeGuess(), 1u) << error;
        EXPECT_TRUE(support::is_open(own.engine->sock_fd_)) << error;
        EXPECT_FALSE(support::is_readable(own.receiver.get())) << error;
    }
}

TEST_F(UdpEngineFault, AReceptionThatFailsIsIgnoredAndTheNextDatagramIsTakenIn)
{
    g_debug_mode = 1;
    udp_setup own(false);
    own.open(false);
    const auto address = support::loopback(support::local_port(own.engine->sock_fd_));
    ASSERT_EQ(
        support::real<call::sendto>(
            own.receiver.get(), "x", size_t{1}, 0, support::as_sockaddr(address),
            socklen_t{sizeof address}),
        1);
    ASSERT_TRUE(support::is_readable(own.engine->sock_fd_, 60000));
    {
        const output_capture output;
        for (const int error :
             {EAGAIN, EBADF, ECONNREFUSED, EFAULT, EINTR, EINVAL, ENETDOWN, ENOMEM,
              ENOTCONN, ENOTSOCK}) {
            const support::scoped_call<call::recvfrom> hook(
                [&](int, void*, size_t, int, sockaddr*, socklen_t*) {
                    return failed(error);
                });
            own.engine->in_event();
        }
        EXPECT_EQ(output.text(), "");
    }
    const unsigned long number = support::next_dump_number();
    const output_capture output;

    own.engine->in_event();

    EXPECT_EQ(output.text(), support::dump_block(number, 1, "78 \n"));
}

TEST_F(UdpEngineFault, ACloseThatFailsIsNotRepeated)
{
    for (const int error : {EBADF, EINTR, EIO, ENOSPC}) {
        udp_setup own(true);
        own.open(true);
        const int socket = own.engine->sock_fd_;
        int closes = 0;
        const support::scoped_call<call::close> hook([&](int target) {
            closes += target == socket ? 1 : 0;
            return support::real<call::close>(target) == 0
                       ? static_cast<int>(failed(error))
                       : 0;
        });

        own.engine->close();
        own.engine.reset();

        EXPECT_EQ(closes, 1) << error;
    }
}

// --------------------------------------------------------------- out of memory

// An end that running out of memory may have: the fatal report of this header or a
// bad_alloc, after which nothing is left behind.
bool is_out_of_memory(const process_end& end, const std::string& header)
{
    if (end.signal == SIGABRT)
        return testing::Matches(testing::MatchesRegex(
            support::fatal_line("FATAL ERROR: OUT OF MEMORY", header)))(end.errors);
    return end.text() == "threw: std::bad_alloc ";
}

// All but the last, which had all the memory that it asked for.
void expect_out_of_memory(const std::vector<process_end>& ends, const std::string& header)
{
    for (size_t i = 0; i + 1 < ends.size(); ++i)
        EXPECT_TRUE(is_out_of_memory(ends[i], header)) << i + 1 << ": " << ends[i].text();
    EXPECT_EQ(ends.back().text(), "");
}

TEST_F(TcpEngineFault, OutOfMemoryAnEndpointIsABadAlloc)
{
    const auto tcp = support::outcomes_of_each_failing_allocation([] {
        std::string name = LONG_LOOPBACK + ":0000000000000005000";
        vesk::tcp_address_t address;
        if (address.resolve(name) != 0)
            throw std::runtime_error("refused");
    });
    EXPECT_THAT(tcp, Each("std::bad_alloc"));
    EXPECT_THAT(tcp, SizeIs(Ge(3u)));

    for (const bool bind : {false, true}) {
        const auto udp = support::outcomes_of_each_failing_allocation([&] {
            std::string name = LONG_LOOPBACK + ":0000000000000005000";
            vesk::udp_address_t address;
            if (address.resolve(name, bind) != 0)
                throw std::runtime_error("refused");
        });
        EXPECT_THAT(udp, Each("std::bad_alloc"));
        EXPECT_THAT(udp, SizeIs(Ge(3u)));
    }
}

TEST_F(TcpEngineFault, OutOfMemorySettingUpEndsInAReportOrABadAllocWithoutALeak)
{
    const auto ends = support::ends_of_each_failing_allocation([](uint64_t nth) {
        tcp_setup setup;
        std::string address = LONG_LOOPBACK + ":0";
        const support::failing_allocation guard(nth);
        if (setup.engine->set_local_address(address) != 0)
            throw std::runtime_error("refused");
    });
    expect_out_of_memory(ends, "epoll.h");
    EXPECT_THAT(ends, SizeIs(Ge(3u)));
}

TEST_F(TcpEngineFault, OutOfMemoryAcceptingEndsInAReportOrABadAllocWithoutALeak)
{
    const auto ends = support::ends_of_each_failing_allocation([](uint64_t nth) {
        tcp_setup setup;
        setup.listen();
        const auto fd = setup.receiver();
        const support::failing_allocation guard(nth);
        setup.engine->in_event();
    });
    expect_out_of_memory(ends, "epoll.h");
    EXPECT_THAT(ends, SizeIs(Ge(6u))); // the registration and two queues of two parts
}

// As above, on the poller's own thread, where nothing catches the exception.
TEST_F(TcpEngineFault, OutOfMemoryAcceptingOnThePollerThreadEndsTheProcessByAbort)
{
    class starved_engine : public open_tcp_engine {
    public:
        using open_tcp_engine::open_tcp_engine;
        void in_event() override
        {
            const support::failing_allocation guard(nth);
            tcp_engine::in_event();
        }
        uint64_t nth = 0;
    };
    for (uint64_t nth = 1; nth <= 5; ++nth) {
        const auto end = support::run_apart([nth] {
            tcp_setup setup;
            auto starved =
                std::make_unique<starved_engine>(setup.poller, setup.wakeup.get());
            starved->nth = nth;
            std::string address = "127.0.0.1:0";
            starved->set_local_address(address);
            setup.poller->start_poller("poller_thread");
            const auto fd =
                support::connected_to(support::local_port(starved->listen_fd_));
            support::eventually([] { return false; });
        });
        EXPECT_EQ(end.signal, SIGABRT) << nth;
        if (nth == 1)
            EXPECT_TRUE(is_out_of_memory(end, "epoll.h")) << end.text();
        else
            EXPECT_EQ(end.errors, UNCAUGHT_BAD_ALLOC) << nth;
    }
}

TEST_F(UdpEngineFault, OutOfMemorySettingUpEndsInAReportOrABadAllocWithoutALeak)
{
    for (const bool send : {true, false}) {
        const auto ends = support::ends_of_each_failing_allocation([send](uint64_t nth) {
            udp_setup setup(send);
            std::string address = LONG_LOOPBACK + (send ? ":5000" : ":0");
            const support::failing_allocation guard(nth);
            if (setup.engine->set_local_address(address) != 0)
                throw std::runtime_error("refused");
        });
        expect_out_of_memory(ends, "epoll.h");
        EXPECT_THAT(ends, SizeIs(Ge(7u)));
    }
}

// Between a message's making and its end there is nothing to run out of.
TEST_F(TcpEngineFault, AMessageNeedsNoMemoryOnItsWay)
{
    listen();
    const auto fd = accepted_receiver();
    auto first = message("moved");
    const auto second = message("shared");
    const auto outcomes = support::outcomes_of_each_failing_allocation([&] {
        engine->push_msg_to_pipe(std::move(first));
        engine->push_msg_to_pipe(second);
        for (int i = 0; i < 3; ++i)
            engine->out_event(); // the last finds nothing
    });
    EXPECT_THAT(outcomes, testing::IsEmpty());
    EXPECT_EQ(support::receive_exactly(fd.get(), 11), "movedshared");
}

TEST_F(UdpEngineFault, AMessageNeedsNoMemoryOnItsWay)
{
    udp_setup own(true);
    own.open(true);
    auto first = message("moved");
    const auto second = message("shared");
    const auto outcomes = support::outcomes_of_each_failing_allocation([&] {
        own.engine->push_msg_to_pipe(std::move(first));
        own.engine->push_msg_to_pipe(second);
        for (int i = 0; i < 3; ++i)
            own.engine->out_event();
    });
    EXPECT_THAT(outcomes, testing::IsEmpty());
    EXPECT_EQ(support::receive_datagram(own.receiver.get()), "moved");
    EXPECT_EQ(support::receive_datagram(own.receiver.get()), "shared");
}

} // namespace tcp_engine_fault_test
