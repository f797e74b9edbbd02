// The rate when somebody sets the clock while a run is paced. At 8 megabits a second a
// byte takes a microsecond; the clock is the test's own and moves on while a pause lasts.
#include <cstdint>
#include <string>

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/fake_clock.h"
#include "support/sockets.h"
#include "tcp_engine.h"

namespace clock_fault_test {

namespace call = support::call;

constexpr int64_t START_US = 1000000000; // 1000 s
constexpr int64_t SIZE = 1000;           // of each message: a millisecond's worth
constexpr int64_t SECOND = 1000000;

class ClockFault : public support::engine_fixture {
protected:
    // Three messages into a run, which is on schedule then.
    ClockFault()
    {
        std::string address =
            "127.0.0.1:" + std::to_string(support::local_port(receiver_.get()));
        EXPECT_EQ(engine_.set_local_address(address), 0);
        engine_.set_speed(8000000);
        EXPECT_EQ(next_pause(), 0);
        EXPECT_EQ(next_pause(), 2 * SIZE);
        EXPECT_EQ(next_pause(), SIZE);
    }

    // Sends one message; the microseconds for which it was held back.
    int64_t next_pause()
    {
        const int before = clock_.yields;
        send_next();
        return clock_.yields - before;
    }

    // The same, with the clock set in the middle of a millisecond's pause.
    int64_t next_pause_with_the_clock_set_by(int64_t change_us)
    {
        int64_t yields = 0;
        const support::scoped_call<call::sched_yield> hook([&] {
            if (++yields == SIZE / 2)
                clock_.now_us += change_us;
            ++clock_.now_us;
            return 0;
        });
        send_next();
        return yields;
    }

    void expect_pauses(int count, int64_t each)
    {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(next_pause(), each) << i;
    }

    support::fake_clock clock_{START_US};

private:
    void send_next()
    {
        const auto next = support::message(std::string(SIZE, 'x'));
        EXPECT_EQ(engine_.push_msg_to_pipe(next), 0);
        engine_.out_event();
    }

    support::unique_fd receiver_ = support::bound_socket(SOCK_DGRAM);
    vesk::udp_engine engine_;
};

TEST_F(ClockFault, SetBackBetweenTwoMessagesItIsWaitedForOnceAndTheRateHolds)
{
    clock_.now_us -= 1500;

    EXPECT_EQ(next_pause(), SIZE); // worked out from the one before it left
    EXPECT_EQ(next_pause(), SIZE + 1500);
    expect_pauses(20, SIZE);
}

TEST_F(ClockFault, SetBackInAPauseItIsWaitedForAndTheRateHolds)
{
    EXPECT_EQ(next_pause_with_the_clock_set_by(-1500), SIZE + 1500);
    expect_pauses(20, SIZE);
}

TEST_F(ClockFault, LeapingForwardBetweenTwoMessagesItLetsThatMuchLeaveUnpaced)
{
    clock_.now_us += 10 * SIZE;

    EXPECT_EQ(next_pause(), SIZE); // worked out from the one before it left
    expect_pauses(10, 0);
    expect_pauses(20, SIZE);
}

TEST_F(ClockFault, LeapingForwardInAPauseItEndsThePauseAndLetsThatMuchLeaveUnpaced)
{
    EXPECT_EQ(next_pause_with_the_clock_set_by(10 * SIZE), SIZE / 2);

    // Half a pause was waited, nine and a half are left of the ten.
    expect_pauses(9, 0);
    EXPECT_EQ(next_pause(), SIZE / 2);
    expect_pauses(20, SIZE);
}

// The time since the start is then a number near 2^64 microseconds, of which the rate
// makes a credit of 2^64 / 8000000 bytes.
TEST_F(ClockFault, SetBackBehindTheStartOfTheRunItEndsThePacing)
{
    clock_.now_us -= 10 * SECOND;

    EXPECT_EQ(next_pause(), SIZE); // worked out from the one before it left
    expect_pauses(1, 0);
    // 2^64 / 8000000 - (10 s - 4 ms) - 5 ms, cut to whole bytes
    EXPECT_EQ(vesk::stats.skip_length, 2305833008213u);

    expect_pauses(500, 0);
    clock_.now_us += 20 * SECOND; // set right again, which does not help
    expect_pauses(500, 0);
    EXPECT_EQ(vesk::stats.skip_length, 2305833008213u - 1000u * SIZE);
}

} // namespace clock_fault_test
