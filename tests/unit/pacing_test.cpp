// The rate limiter: when bytes are due, how long a message waits and how the wait
// is spent. All times and rates are worked out by hand, on a clock of our own.
#include <cerrno>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "support/call_seam.h"
#include "support/engine_fixture.h"
#include "support/fake_clock.h"
#include "tcp_engine.h"

namespace pacing_test {

namespace call = support::call;
using support::fake_clock;
using support::pacing_record;
using vesk::stats;
using vesk::details::due_time_us;

constexpr int64_t START_US = 1000000000; // 1000 s
constexpr uint64_t MBPS = 1000000;

class pacing_engine : public vesk::engine_base {
public:
    void in_event() override {}
    void out_event() override {}
    int32_t set_local_address(std::string&) override { return 0; }

    using engine_base::calc_sleep_time;
    using engine_base::m_speed_;
    using engine_base::pace;
    using engine_base::queue_;
    using engine_base::tcpr_sleep;
};

class Pacing : public support::engine_fixture {
protected:
    // 1250 bytes left `end_us` after the start.
    static void after_first_send(int64_t end_us)
    {
        stats.first_time = false;
        stats.start_time = fake_clock::time_of(START_US);
        stats.end_time = fake_clock::time_of(START_US + end_us);
        stats.bytes_sent = 1250;
    }

    void compute(uint64_t length, uint64_t speed)
    {
        vesk::timestamp_t now = fake_clock::time_of(START_US + 77777777);
        engine_.calc_sleep_time(length, &now, speed);
    }

    static int64_t nap_ns() { return stats.nap.tv_sec * 1000000000 + stats.nap.tv_nsec; }

    pacing_engine engine_;
};

int64_t in_us(const timeval& time) { return time.tv_sec * 1000000 + time.tv_usec; }

// When bytes are due.

TEST(DueTime, IsBitsOverRate)
{
    EXPECT_EQ(due_time_us(2500, MBPS), 20000u);
    EXPECT_EQ(due_time_us(1250, 10 * MBPS), 1000u);
    EXPECT_EQ(due_time_us(1, 1), 8000000u);
    EXPECT_EQ(due_time_us(0, MBPS), 0u);
}

TEST(DueTime, IsCutToWholeMicroseconds)
{
    EXPECT_EQ(due_time_us(1, 3), 2666666u);
    EXPECT_EQ(due_time_us(1, 9000000), 0u);
}

// 2^41 bytes are 2^44 bits, the first count past the limit of 2^44 - 1.

TEST(DueTime, CountsInMicrosecondsUpToTheLimit)
{
    // 2199023255551 * 8000000 / 500001 = 35184301720212.56
    EXPECT_EQ(due_time_us(2199023255551, 500001), 35184301720212u);
}

TEST(DueTime, CountsInMillisecondsPastTheLimit)
{
    // 2199023255552 * 8000 / 500001 = 35184301720.23, in milliseconds
    EXPECT_EQ(due_time_us(2199023255552, 500001), 35184301720000u);
}

TEST(DueTime, CountsInMicrosecondsPastTheLimitAtHalfAMegabitAndBelow)
{
    // 2^41 * 8000000 / 500000 = 2^41 * 16
    EXPECT_EQ(due_time_us(2199023255552, 500000), 35184372088832u);
}

TEST(DueTime, StaysRightForAVeryLongFastRun)
{
    // 10^15 bytes at 10 Gbit/s: 8 * 10^15 / 10^10 = 800000 s
    EXPECT_EQ(due_time_us(1000000000000000, 10000000000), 800000000000u);
}

TEST(DueTime, WrapsIn64BitsWhenASlowRunGoesTooFar)
{
    // 2^42 * 8000000 - 2^64 = 16737628015122448384, over 500000
    EXPECT_EQ(due_time_us(4398046511104, 500000), 33475256030244u);
}

// The rate.

TEST_F(Pacing, StartsWithoutARate)
{
    EXPECT_EQ(engine_.m_speed_, 0u);
    EXPECT_EQ(engine_.queue_, nullptr);
    EXPECT_EQ(
        pacing_record(),
        "start 0s 0us, end 0s 0us, sent 0, nap 0s 0ns, skip 0, first 1, top 1");
}

TEST_F(Pacing, ARateSwitchesPacingOn)
{
    engine_.set_speed(123456789012345);
    EXPECT_EQ(engine_.m_speed_, 123456789012345u);
    EXPECT_FALSE(stats.top_speed);
}

TEST_F(Pacing, RateZeroLeavesPacingAsItIs)
{
    engine_.set_speed(0);
    EXPECT_TRUE(stats.top_speed);

    engine_.set_speed(MBPS);
    engine_.set_speed(0);
    EXPECT_EQ(engine_.m_speed_, 0u);
    EXPECT_FALSE(stats.top_speed);
}

// The pause that a message needs.

TEST_F(Pacing, ComputingWithRateZeroThrows)
{
    try {
        compute(1250, 0);
        FAIL() << "nothing was thrown";
    } catch (const vesk::details::vesk_ex& error) {
        EXPECT_STREQ(error.what(), "speed is zero.");
    }
    EXPECT_TRUE(stats.first_time);
}

TEST_F(Pacing, PacingWithRateZeroThrows)
{
    engine_.set_speed(MBPS);
    engine_.set_speed(0);
    vesk::timestamp_t now{};
    EXPECT_THROW(engine_.pace(1250, &now), vesk::details::vesk_ex);
}

TEST_F(Pacing, TheFirstMessageKeepsTheStoredPauseAndComputesNothing)
{
    after_first_send(300);
    stats.first_time = true;
    stats.nap = {1, 500};

    compute(1250, MBPS);

    EXPECT_FALSE(stats.first_time);
    EXPECT_EQ(stats.nap.tv_sec, 1);
    EXPECT_EQ(stats.nap.tv_nsec, 500);
    EXPECT_EQ(stats.skip_length, 0u);
}

TEST_F(Pacing, WhileNothingWasSentThereIsNoPause)
{
    stats.first_time = false;
    stats.start_time = fake_clock::time_of(START_US);
    stats.nap = {1, 500};

    compute(1250, MBPS);

    EXPECT_EQ(nap_ns(), 0);
    EXPECT_EQ(stats.skip_length, 0u);
}

TEST_F(Pacing, AMessageWaitsUntilAllBytesAreDueCountedFromTheLastSend)
{
    after_first_send(300);
    compute(1250, MBPS); // 2500 bytes are due after 20000 us
    EXPECT_EQ(nap_ns(), 19700000);
    EXPECT_EQ(stats.skip_length, 0u);
}

TEST_F(Pacing, ALongPauseIsSplitIntoSecondsAndNanoseconds)
{
    after_first_send(300000);
    compute(1250, 1000); // 2500 bytes are due after 20 s
    EXPECT_EQ(stats.nap.tv_sec, 19);
    EXPECT_EQ(stats.nap.tv_nsec, 700000000);
    after_first_send(1);
    compute(1250, 20); // 2500 bytes are due after 1000 s
    EXPECT_EQ(stats.nap.tv_sec, 999);
    EXPECT_EQ(stats.nap.tv_nsec, 999999000);
}

TEST_F(Pacing, AMicrosecondAheadOfScheduleIsPausedFor)
{
    after_first_send(19999);
    compute(1250, MBPS);
    EXPECT_EQ(nap_ns(), 1000);
}

TEST_F(Pacing, OnScheduleThereIsNeitherPauseNorCredit)
{
    after_first_send(20000);
    stats.nap = {1, 500};
    compute(1250, MBPS);
    EXPECT_EQ(nap_ns(), 0);
    EXPECT_EQ(stats.skip_length, 0u);
}

TEST_F(Pacing, BehindScheduleTheMissedBytesBecomeCredit)
{
    after_first_send(28000); // 8000 us late: 8000 bits
    stats.nap = {1, 500};
    compute(1250, MBPS);
    EXPECT_EQ(nap_ns(), 0);
    EXPECT_EQ(stats.skip_length, 1000u);
}

TEST_F(Pacing, CreditIsCutToWholeBytes)
{
    after_first_send(20007);
    compute(1250, MBPS);
    EXPECT_EQ(stats.skip_length, 0u);

    after_first_send(20015);
    compute(1250, MBPS);
    EXPECT_EQ(stats.skip_length, 1u);
}

TEST_F(Pacing, ElapsedTimeRunsAcrossFullSeconds)
{
    after_first_send(0);
    stats.start_time = {1000, 999000};
    stats.end_time = {1001, 4000}; // 5000 us later
    compute(1250, MBPS);
    EXPECT_EQ(nap_ns(), 15000000);
}

// Spending the pause.

TEST_F(Pacing, NoPauseLooksAtNoClockAndYieldsNothing)
{
    fake_clock clock(START_US);
    timespec nap{0, 0};
    timeval now = fake_clock::time_of(5);

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(clock.readings, 0);
    EXPECT_EQ(clock.yields, 0);
    EXPECT_EQ(in_us(now), 5);
}

TEST_F(Pacing, ThePauseEndsWhenTheDeadlineIsReached)
{
    fake_clock clock(START_US);
    timespec nap{0, 250000};
    timeval now = fake_clock::time_of(START_US);

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), START_US + 250);
    EXPECT_EQ(clock.yields, 250);
    EXPECT_EQ(clock.readings, 250);
}

TEST_F(Pacing, TheDeadlineCountsFromTheTimeGiven)
{
    fake_clock clock(START_US + 100);
    timespec nap{0, 250000};
    timeval now = fake_clock::time_of(START_US);

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), START_US + 250);
    EXPECT_EQ(clock.yields, 150);
}

TEST_F(Pacing, LessThanAMicrosecondIsNoPause)
{
    fake_clock clock(START_US);
    timespec nap{0, 999};
    timeval now = fake_clock::time_of(START_US);

    engine_.tcpr_sleep(&nap, &now);
    EXPECT_EQ(clock.yields, 0);
    EXPECT_EQ(in_us(now), START_US);

    nap = {0, 1999};
    engine_.tcpr_sleep(&nap, &now);
    EXPECT_EQ(in_us(now), START_US + 1);
}

TEST_F(Pacing, MicrosecondsPastAFullSecondAreCarried)
{
    fake_clock clock(10500000);
    clock.per_yield_us = 1000;
    timespec nap{0, 600000000};
    timeval now{10, 500000};

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(now.tv_sec, 11);
    EXPECT_EQ(now.tv_usec, 100000);
}

TEST_F(Pacing, TheLastMicrosecondOfASecondIsNotCarried)
{
    fake_clock clock(10999998);
    timespec nap{0, 1000};
    timeval now{10, 999998};

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), 10999999);
}

TEST_F(Pacing, AMicrosecondMoreIsTheNextSecond)
{
    fake_clock clock(10999998);
    timespec nap{0, 2000};
    timeval now{10, 999998};

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), 11000000);
}

TEST_F(Pacing, SecondsAreComparedBeforeMicroseconds)
{
    fake_clock clock(10000005);
    clock.per_yield_us = 100000;
    timespec nap{2, 0};
    timeval now{10, 5};

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), 12000005);
}

TEST_F(Pacing, NanosecondsAreDividedWithTheirSign)
{
    fake_clock clock(10500000);
    clock.per_yield_us = 500;
    timespec nap{1, -1500000};
    timeval now{10, 500000};

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), 11498500);
}

TEST_F(Pacing, APausePassesADeadlineThatTheClockLeapsOver)
{
    fake_clock clock(START_US);
    clock.per_yield_us = 70;
    timespec nap{0, 100000};
    timeval now = fake_clock::time_of(START_US);

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(in_us(now), START_US + 140);
}

TEST_F(Pacing, APauseNeverSleepsInTheKernel)
{
    int sleeps = 0;
    const support::scoped_call<call::nanosleep> nanosleep(
        [&](const timespec*, timespec*) {
            ++sleeps;
            return 0;
        });
    const support::scoped_call<call::clock_nanosleep> clock_nanosleep(
        [&](clockid_t, int, const timespec*, timespec*) {
            ++sleeps;
            return 0;
        });
    const support::scoped_call<call::poll> poll([&](pollfd*, nfds_t, int) {
        ++sleeps;
        return 0;
    });
    fake_clock clock(START_US);
    clock.per_yield_us = 10000;
    timespec nap{3, 0};
    timeval now = fake_clock::time_of(START_US);

    engine_.tcpr_sleep(&nap, &now);

    EXPECT_EQ(sleeps, 0);
    EXPECT_EQ(clock.yields, 300);
}

// All steps for one message.

TEST_F(Pacing, TheFirstMessageIsNeverPausedAndSetsTheStart)
{
    engine_.set_speed(1);
    fake_clock clock(START_US);
    vesk::timestamp_t now{};

    engine_.pace(10240, &now);

    EXPECT_EQ(clock.yields, 0);
    EXPECT_EQ(in_us(now), START_US);
    EXPECT_EQ(
        pacing_record(),
        "start 1000s 0us, end 0s 0us, sent 0, nap 0s 0ns, skip 0, first 0, top 0");
}

TEST_F(Pacing, TheStartIsTheFirstReadingAndTheTimeOfLeavingTheSecond)
{
    engine_.set_speed(MBPS);
    fake_clock clock(START_US);
    clock.per_reading_us = 100;
    vesk::timestamp_t now{};

    engine_.pace(1250, &now);

    EXPECT_EQ(in_us(stats.start_time), START_US);
    EXPECT_EQ(in_us(now), START_US + 100);
    EXPECT_EQ(clock.readings, 2);
}

TEST_F(Pacing, TheStartIsSetOnlyOnce)
{
    engine_.set_speed(MBPS);
    fake_clock clock(START_US);
    vesk::timestamp_t now{};
    engine_.pace(1250, &now);
    clock.now_us += 5000;
    engine_.pace(1250, &now);
    EXPECT_EQ(in_us(stats.start_time), START_US);
}

TEST_F(Pacing, AStartWithinTheFirstSecondCountsAsSet)
{
    engine_.set_speed(MBPS);
    stats.start_time = {0, 5};
    fake_clock clock(START_US);
    vesk::timestamp_t now{};
    engine_.pace(1250, &now);
    EXPECT_EQ(in_us(stats.start_time), 5);
}

TEST_F(Pacing, ThePauseIsComputedFromTheLastSendButSpentFromNow)
{
    engine_.set_speed(MBPS);
    after_first_send(300);
    fake_clock clock(START_US + 10000);
    vesk::timestamp_t now{};

    engine_.pace(1250, &now);

    // 19700 us, not the 10000 us that are left of the schedule.
    EXPECT_EQ(in_us(now), START_US + 29700);
}

TEST_F(Pacing, AMessageShorterThanTheCreditLeavesAtOnce)
{
    engine_.set_speed(MBPS);
    after_first_send(300);
    stats.first_time = true;
    stats.skip_length = 1000;
    stats.nap = {1, 500};
    fake_clock clock(START_US + 10000);
    clock.per_reading_us = 1;
    vesk::timestamp_t now{};

    engine_.pace(999, &now);

    EXPECT_EQ(stats.skip_length, 1u);
    EXPECT_TRUE(stats.first_time);
    EXPECT_EQ(stats.nap.tv_sec, 1);
    EXPECT_EQ(clock.yields, 0);
    EXPECT_EQ(clock.readings, 1);
    EXPECT_EQ(in_us(now), START_US + 10000);
}

TEST_F(Pacing, AMessageAsLongAsTheCreditIsPacedAndEndsTheCredit)
{
    engine_.set_speed(MBPS);
    after_first_send(300);
    stats.skip_length = 1250;
    fake_clock clock(START_US + 300);
    vesk::timestamp_t now{};

    engine_.pace(1250, &now);

    EXPECT_EQ(stats.skip_length, 0u);
    EXPECT_EQ(in_us(now), START_US + 300 + 19700);
}

TEST_F(Pacing, AMessageLongerThanTheCreditIsPacedAndEndsTheCredit)
{
    engine_.set_speed(MBPS);
    after_first_send(300);
    stats.skip_length = 1000;
    fake_clock clock(START_US + 300);
    vesk::timestamp_t now{};

    engine_.pace(1250, &now);

    EXPECT_EQ(stats.skip_length, 0u);
    EXPECT_EQ(in_us(now), START_US + 300 + 19700);
}

TEST_F(Pacing, TheLastByteOfCreditIsGivenUp)
{
    engine_.set_speed(MBPS);
    after_first_send(20000); // on schedule
    stats.skip_length = 500;
    fake_clock clock(START_US + 20000);
    vesk::timestamp_t now{};

    engine_.pace(1250, &now);

    EXPECT_EQ(stats.skip_length, 0u);
    EXPECT_EQ(clock.yields, 0);
}

TEST_F(Pacing, AMessageThatComesLateEarnsItsCreditAnewAndLeavesAtOnce)
{
    engine_.set_speed(MBPS);
    after_first_send(28000);
    fake_clock clock(START_US + 30000);
    vesk::timestamp_t now{};

    engine_.pace(1250, &now);

    EXPECT_EQ(stats.skip_length, 1000u);
    EXPECT_EQ(clock.yields, 0);
    EXPECT_EQ(in_us(now), START_US + 30000);
}

} // namespace pacing_test
