// The slow path when its calls fail: whatever poll says, and a datagram's way from its
// first send, which lacked room or was cut short, to its end.
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/fake_clock.h"
#include "support/output_capture.h"
#include "support/send_errors.h"
#include "support/socket_trace.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace slow_path_fault_test {

namespace call = support::call;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using texts_t = std::vector<std::string>;

// What one call gives.
struct result_t {
    ssize_t value;
    int error{0};
};

ssize_t give(const result_t& result)
{
    errno = result.error;
    return result.value;
}

// --------------------------------------------------------------- poll

struct poll_result {
    int value;
    short events;
    int error;
};

void PrintTo(const poll_result& result, std::ostream* out)
{
    *out << result.value << ' ' << result.events << ' ' << result.error;
}

class ResultOfPoll : public support::engine_fixture,
                     public testing::WithParamInterface<poll_result> {
protected:
    ssize_t finish() { return engine_.wait_to_send(pair_.near(), message_, 4); }

    support::socket_pair pair_;

private:
    vesk::udp_engine engine_;
    const vesk::data_t message_ = support::message("0123456789");
    const support::output_capture output_;
    support::scoped_call<call::poll> hook_{[](pollfd* fds, nfds_t, int) {
        fds->revents = GetParam().events;
        errno = GetParam().error;
        return GetParam().value;
    }};
};

TEST_P(ResultOfPoll, LeavesItToTheSendThatTheMessageLeaves)
{
    ASSERT_EQ(finish(), 0);
    EXPECT_EQ(support::receive_exactly(pair_.far(), 6), "456789");
}

TEST_P(ResultOfPoll, LeavesItToTheSendThatItCannot)
{
    pair_.close_far();
    EXPECT_EQ(finish(), -1);
    EXPECT_EQ(errno, EPIPE);
}

INSTANTIATE_TEST_SUITE_P(
    EveryResult, ResultOfPoll,
    testing::Values(
        poll_result{1, POLLOUT, 0}, poll_result{1, POLLERR, 0},
        poll_result{1, POLLHUP, 0}, poll_result{1, POLLNVAL, 0},
        poll_result{1, POLLERR | POLLHUP, 0}, poll_result{1, POLLOUT | POLLERR, 0},
        poll_result{0, 0, 0}, poll_result{-1, 0, EFAULT}, poll_result{-1, 0, EINTR},
        poll_result{-1, 0, EINVAL}, poll_result{-1, 0, ENOMEM}));

// --------------------------------------------------------------- datagrams

// A run of two messages to a receiver, of which the first does not leave at once.
class DatagramFault : public support::engine_fixture {
protected:
    void open()
    {
        std::string address =
            "127.0.0.1:" + std::to_string(support::local_port(receiver_.get()));
        engine_ = std::make_unique<vesk::udp_engine>(poller_);
        ASSERT_EQ(engine_->set_local_address(address), 0);
        ASSERT_EQ(engine_->push_msg_to_pipe(support::message("0123456789")), 0);
        ASSERT_EQ(engine_->push_msg_to_pipe(support::message("next")), 0);
    }

    // Sends the first message: what standard output then has. The slow path meets one
    // of the results after the other.
    std::string send_first(const result_t& first, const std::vector<result_t>& results)
    {
        sends_.clear();
        polls_ = 0;
        const support::scoped_call<call::sendto> sendto(
            [&](int, const void*, size_t, int, const sockaddr*, socklen_t) {
                return give(first);
            });
        const support::scoped_call<call::send> send(
            [&](int, const void* data, size_t length, int) {
                sends_.emplace_back(static_cast<const char*>(data), length);
                const bool more = sends_.size() <= results.size();
                return give(more ? results[sends_.size() - 1] : result_t{-1, ENOTSUP});
            });
        const support::scoped_call<call::poll> poll([&](pollfd*, nfds_t, int) {
            ++polls_;
            return 1;
        });
        const support::socket_trace trace;
        const support::output_capture output;
        engine_->out_event();
        changes_ = trace.lines;
        return output.unflushed_text();
    }

    void expect_the_next_leaves()
    {
        engine_->out_event();
        EXPECT_EQ(support::receive_datagram(receiver_.get()), "next");
    }

    static std::string waiting(int length)
    {
        return "Using poll wait to send " + std::to_string(length) + " bytes.\n";
    }

    support::unique_fd receiver_ = support::bound_socket(SOCK_DGRAM);
    std::shared_ptr<vesk::epoll_t> poller_ = std::make_shared<vesk::epoll_t>();
    std::unique_ptr<vesk::udp_engine> engine_;
    texts_t sends_; // what the slow path was to send, each time
    int polls_{0};
    texts_t changes_; // of the socket and its interest
};

const std::string WARNING = "Warning: unable to send all data, already send len: ";
const texts_t NO_INTEREST = {"change none"};

TEST_F(DatagramFault, WithoutRoomAgainAndAgainItIsTriedUntilItHasLeftAndIsAnErrorStill)
{
    for (const int first : {EAGAIN, EINTR}) {
        open();
        const std::string output = send_first(
            {-1, first},
            {{-1, EAGAIN}, {-1, EINTR}, {-1, EAGAIN}, {4}, {-1, EINTR}, {6}});

        EXPECT_EQ(
            output, WARNING + "0\n" + waiting(10) + waiting(10) + waiting(10) +
                        waiting(10) + waiting(6) + waiting(6) + "socket error\n");
        EXPECT_THAT(
            sends_, ElementsAre(
                        "0123456789", "0123456789", "0123456789", "0123456789", "456789",
                        "456789"));
        EXPECT_EQ(polls_, 6);
        EXPECT_EQ(changes_, NO_INTEREST);
    }
}

TEST_F(DatagramFault, CutShortItIsFinishedBetweenInterruptionsAndTheNextLeaves)
{
    open();
    const std::string output =
        send_first({4}, {{-1, EINTR}, {2}, {-1, EAGAIN}, {0}, {4}});

    EXPECT_EQ(
        output,
        WARNING + "4\n" + waiting(6) + waiting(6) + waiting(4) + waiting(4) + waiting(4));
    EXPECT_THAT(sends_, ElementsAre("456789", "456789", "6789", "6789", "6789"));
    EXPECT_EQ(polls_, 5);
    EXPECT_THAT(changes_, IsEmpty());
    expect_the_next_leaves();
}

TEST_F(DatagramFault, EveryOtherErrorOfARetryIsASocketErrorAndDropsThatMessageAlone)
{
    for (const result_t& first : {result_t{-1, EAGAIN}, result_t{4}}) {
        for (const int error : support::SEND_ERRORS) {
            open();
            engine_->set_speed(1000000);
            g_debug_mode = 1; // which shows what has been sent
            const support::fake_clock clock(1000000000);
            const std::string output = send_first(first, {{-1, error}});
            g_debug_mode = 0;

            const int sent = first.value == 4 ? 4 : 0;
            EXPECT_EQ(
                output, WARNING + std::to_string(sent) + "\n" + waiting(10 - sent) +
                            "socket error\n")
                << error;
            EXPECT_THAT(sends_, SizeIs(1)) << error;
            EXPECT_EQ(changes_, NO_INTEREST) << error;
            EXPECT_EQ(vesk::stats.bytes_sent, 0u) << error;
            expect_the_next_leaves();
            vesk::stats = vesk::replay_stats{};
        }
    }
}

} // namespace slow_path_fault_test
