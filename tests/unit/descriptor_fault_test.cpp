// The calls that make a socket what an engine needs, for each error that they may give:
// flags, options, and an accept that fails while a receiver is there.
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/fatal.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace descriptor_fault_test {

namespace call = support::call;
using support::socket_trace;
using testing::Contains;
using testing::Not;

// A listening engine, and a receiver that waits to be accepted.
struct tcp_run {
    void listen()
    {
        std::string address = "127.0.0.1:0";
        ASSERT_EQ(engine.set_local_address(address), 0);
        receiver = support::connected_to(support::listening_port());
    }

    support::unique_fd wakeup{::eventfd(0, EFD_NONBLOCK)};
    std::shared_ptr<vesk::epoll_t> poller{std::make_shared<vesk::epoll_t>()};
    vesk::tcp_engine engine{poller, wakeup.get()};
    support::unique_fd receiver;
};

// --------------------------------------------------------------- flags

class FaultOfCloseOnExec : public testing::TestWithParam<int> {};

TEST_P(FaultOfCloseOnExec, OfTheListenerIsFatal)
{
    const auto statement = [] {
        tcp_run run;
        socket_trace trace;
        trace.fail("cloexec", GetParam());
        run.listen();
    };
    EXPECT_FATAL(statement(), "Assertion failed: rc != -1", "tcp_engine.h");
}

TEST_P(FaultOfCloseOnExec, OfTheReceiverIsFatal)
{
    const auto statement = [] {
        tcp_run run;
        run.listen();
        socket_trace trace;
        trace.fail("cloexec", GetParam());
        run.engine.in_event();
    };
    EXPECT_FATAL(statement(), "Assertion failed: rc != -1", "tcp_engine.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfCloseOnExec, testing::Values(EBADF, EINVAL, EPERM));

class FaultOfTheFlags : public support::engine_fixture,
                        public testing::WithParamInterface<int> {};

TEST_P(FaultOfTheFlags, ThatCannotBeReadCountAsNone)
{
    socket_trace trace;
    trace.fail("get-flags", GetParam());
    trace.pretend("set-flags");
    vesk::udp_engine engine;
    EXPECT_EQ(engine.unblock_socket(7), 0);
    EXPECT_THAT(trace.lines, Contains("set-flags " + std::to_string(O_NONBLOCK)));
}

TEST_P(FaultOfTheFlags, OfADatagramSocketChangesNothing)
{
    const auto receiver = support::bound_socket(SOCK_DGRAM);
    std::string address =
        "127.0.0.1:" + std::to_string(support::local_port(receiver.get()));
    vesk::udp_engine engine;
    {
        socket_trace trace;
        trace.fail("set-flags", GetParam());
        ASSERT_EQ(engine.set_local_address(address), 0);
    }
    ASSERT_EQ(engine.push_msg_to_pipe(support::message("data")), 0);
    engine.out_event();
    EXPECT_EQ(support::receive_datagram(receiver.get()), "data");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfTheFlags, testing::Values(EACCES, EBADF, EINVAL, EPERM));

// --------------------------------------------------------------- options

struct step_fault {
    std::string step; // as the trace words it
    int error;
};

void PrintTo(const step_fault& fault, std::ostream* out)
{
    *out << fault.step << ' ' << fault.error;
}

class FaultOfTuning : public support::engine_fixture,
                      public testing::WithParamInterface<step_fault> {};

// The receiver stays connected: only its registration would let it hear anything.
TEST_P(FaultOfTuning, LeavesTheReceiverConnectedAndUnregistered)
{
    tcp_run run;
    run.listen();
    socket_trace trace;
    trace.fail(GetParam().step, GetParam().error);

    run.engine.in_event();

    EXPECT_THAT(trace.lines, Not(Contains("add none")));
    EXPECT_THAT(trace.lines, Not(Contains("close")));
    char byte = 0;
    EXPECT_EQ(::recv(run.receiver.get(), &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(run.engine.push_msg_to_pipe(support::message("data")), -1); // no queue
}

// The earlier one's registration asks for the messages, which go to the newest.
TEST_P(FaultOfTuning, WithAReceiverThereItTakesItsPlace)
{
    tcp_run run;
    run.listen();
    run.engine.in_event();
    const auto newest = support::connected_to(support::listening_port());
    socket_trace trace;
    trace.fail(GetParam().step, GetParam().error);

    run.engine.in_event();
    ASSERT_EQ(run.engine.push_msg_to_pipe(support::message("data")), 0);
    run.engine.out_event();

    EXPECT_THAT(trace.lines, Not(Contains("add none")));
    EXPECT_FALSE(support::is_readable(run.receiver.get()));
    ASSERT_TRUE(support::is_readable(newest.get()));
    EXPECT_EQ(support::receive_exactly(newest.get(), 4), "data");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfTuning,
    testing::Values(
        step_fault{"option TCP_NODELAY", EBADF}, step_fault{"option TCP_NODELAY", EDOM},
        step_fault{"option TCP_NODELAY", EFAULT},
        step_fault{"option TCP_NODELAY", EINVAL},
        step_fault{"option TCP_NODELAY", ENOMEM},
        step_fault{"option TCP_NODELAY", ENOPROTOOPT},
        step_fault{"option TCP_NODELAY", ENOTSOCK},
        step_fault{"option TCP_NODELAY", EPERM},

        step_fault{"set-flags", EACCES}, step_fault{"set-flags", EBADF},
        step_fault{"set-flags", EINVAL}, step_fault{"set-flags", EPERM}));

class FaultOfAMulticastOption : public support::engine_fixture,
                                public testing::WithParamInterface<int> {};

TEST_P(FaultOfAMulticastOption, IsWhatItsRoutineReturns)
{
    vesk::udp_engine engine(false);
    std::string address = "127.0.0.1:0";
    ASSERT_EQ(engine.set_local_address(address), 0);
    socket_trace trace;
    trace.fail("option IP_MULTICAST_IF", GetParam());
    trace.fail("option IP_MULTICAST_TTL", GetParam());

    errno = 0;
    EXPECT_EQ(engine.set_udp_multicast_iface(7), -1);
    EXPECT_EQ(errno, GetParam());
    errno = 0;
    EXPECT_EQ(engine.set_udp_multicast_ttl(7, 3), -1);
    EXPECT_EQ(errno, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, FaultOfAMulticastOption,
    testing::Values(
        EADDRNOTAVAIL, EBADF, EFAULT, EINVAL, ENODEV, ENOMEM, ENOPROTOOPT, ENOTSOCK,
        EPERM));

// --------------------------------------------------------------- accept

class PassingAcceptErrorWithAReceiver : public testing::TestWithParam<int> {};

TEST_P(PassingAcceptErrorWithAReceiver, ForgetsItAndItsNextEventIsFatal)
{
    const auto statement = [] {
        tcp_run run;
        run.listen();
        run.engine.in_event();
        const support::scoped_call<call::accept> hook([](int, sockaddr*, socklen_t*) {
            errno = GetParam();
            return -1;
        });
        run.engine.in_event();
        run.engine.out_event();
    };
    EXPECT_FATAL(statement(), "Assertion failed: conn_fd_ != retired_fd", "tcp_engine.h");
}

INSTANTIATE_TEST_SUITE_P(
    EveryError, PassingAcceptErrorWithAReceiver,
    testing::Values(
        EAGAIN, EINTR, ECONNABORTED, EPROTO, ENOBUFS, ENOMEM, EMFILE, ENFILE));

} // namespace descriptor_fault_test
