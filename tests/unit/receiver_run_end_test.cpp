// When a run is over: settling, silence, its own time and the user's limits, with
// the times given from outside.
#include <cstdint>
#include <optional>

#include <gtest/gtest.h>

#include "run_end.h"

namespace receiver_run_end_test {

using namespace receiver;

constexpr uint64_t START = 1000;
constexpr uint64_t NEVER = UINT64_MAX;

// Settles for 20, idles for 200, both from START on the same clock.
end_limits usual()
{
    end_limits limits;
    limits.settle_ns = 20;
    limits.idle_ns = 200;
    return limits;
}

end_limits with_duration(uint64_t duration)
{
    end_limits limits = usual();
    limits.duration_ns = duration;
    return limits;
}

TEST(ReceiverRunEnd, NothingEndsARunInWhichNothingArrives)
{
    const run_end end(usual(), START);
    EXPECT_EQ(end.check(START), std::nullopt);
    EXPECT_EQ(end.check(START + 1000000000), std::nullopt);
    EXPECT_EQ(end.next_check_ns(), NEVER);
}

TEST(ReceiverRunEnd, SilenceCountsFromTheFirstArrival)
{
    run_end end(usual(), START);
    end.arrived(START + 500);
    EXPECT_EQ(end.check(START + 699), std::nullopt);
    EXPECT_EQ(end.check(START + 700), end_reason::idle);
    EXPECT_EQ(end.next_check_ns(), START + 700);
}

TEST(ReceiverRunEnd, EveryArrivalBreaksTheSilence)
{
    run_end end(usual(), START);
    end.arrived(START);
    end.arrived(START + 199);
    EXPECT_EQ(end.check(START + 398), std::nullopt);
    EXPECT_EQ(end.check(START + 399), end_reason::idle);
    EXPECT_EQ(end.next_check_ns(), START + 399);
}

TEST(ReceiverRunEnd, ACompleteRunSettlesFirst)
{
    run_end end(usual(), START);
    end.arrived(START + 10);
    end.set_complete(START + 10, true);
    EXPECT_EQ(end.check(START + 29), std::nullopt);
    EXPECT_EQ(end.check(START + 30), end_reason::complete);
    EXPECT_EQ(end.next_check_ns(), START + 30);
}

TEST(ReceiverRunEnd, SettlingCountsFromWhenTheRunFirstWasComplete)
{
    run_end end(usual(), START);
    end.set_complete(START + 10, true);
    end.arrived(START + 25); // too much, but no reason to listen longer
    end.set_complete(START + 25, true);
    EXPECT_EQ(end.check(START + 29), std::nullopt);
    EXPECT_EQ(end.check(START + 30), end_reason::complete);
}

TEST(ReceiverRunEnd, ARunThatIsNotCompleteAfterAllGoesOn)
{
    run_end end(usual(), START);
    end.arrived(START + 10);
    end.set_complete(START + 10, true);
    end.set_complete(START + 20, false);
    EXPECT_EQ(end.check(START + 100), std::nullopt);
    EXPECT_EQ(end.next_check_ns(), START + 210);
    end.set_complete(START + 100, true);
    EXPECT_EQ(end.check(START + 119), std::nullopt);
    EXPECT_EQ(end.check(START + 120), end_reason::complete);
}

TEST(ReceiverRunEnd, AnEmptySourceIsCompleteWithoutAnArrival)
{
    run_end end(usual(), START);
    end.set_complete(START, true);
    EXPECT_EQ(end.check(START + 19), std::nullopt);
    EXPECT_EQ(end.check(START + 20), end_reason::complete);
}

TEST(ReceiverRunEnd, WithoutSettlingACompleteRunEndsAtOnce)
{
    end_limits limits = usual();
    limits.settle_ns = 0;
    run_end end(limits, START);
    end.set_complete(START + 5, true);
    EXPECT_EQ(end.check(START + 5), end_reason::complete);
}

TEST(ReceiverRunEnd, ACompleteRunThatFallsSilentIsComplete)
{
    end_limits limits = usual();
    limits.settle_ns = 10000;
    run_end end(limits, START);
    end.arrived(START + 10);
    end.set_complete(START + 10, true);
    EXPECT_EQ(end.check(START + 209), std::nullopt);
    EXPECT_EQ(end.check(START + 210), end_reason::complete);
}

TEST(ReceiverRunEnd, TheDurationCountsFromTheStartAlsoWithoutAnArrival)
{
    const run_end end(with_duration(300), START);
    EXPECT_EQ(end.check(START + 299), std::nullopt);
    EXPECT_EQ(end.check(START + 300), end_reason::duration);
    EXPECT_EQ(end.next_check_ns(), START + 300);
}

TEST(ReceiverRunEnd, ArrivalsDoNotExtendTheDuration)
{
    run_end end(with_duration(300), START);
    end.arrived(START + 290);
    EXPECT_EQ(end.check(START + 300), end_reason::duration);
    EXPECT_EQ(end.next_check_ns(), START + 300);
}

TEST(ReceiverRunEnd, SilenceThatIsOverFirstComesBeforeTheDuration)
{
    run_end end(with_duration(300), START);
    end.arrived(START + 10);
    EXPECT_EQ(end.next_check_ns(), START + 210);
    EXPECT_EQ(end.check(START + 210), end_reason::idle);
    EXPECT_EQ(end.check(START + 1000), end_reason::idle);
}

TEST(ReceiverRunEnd, ARunThatIsCompleteWhenItsTimeIsOverIsComplete)
{
    end_limits limits = with_duration(300);
    limits.settle_ns = 100;
    run_end end(limits, START);
    end.arrived(START + 295);
    end.set_complete(START + 295, true);
    EXPECT_EQ(end.check(START + 299), std::nullopt);
    EXPECT_EQ(end.check(START + 300), end_reason::complete);
}

TEST(ReceiverRunEnd, TheUsersLimitsAreReachedWithTheLastOfThem)
{
    end_limits limits = usual();
    limits.messages = 10;
    limits.bytes = 1000;
    const run_end end(limits, START);
    EXPECT_EQ(end.limit(9, 999), std::nullopt);
    EXPECT_EQ(end.limit(10, 999), end_reason::messages);
    EXPECT_EQ(end.limit(9, 1000), end_reason::bytes);
    EXPECT_EQ(end.limit(11, 0), end_reason::messages);
    EXPECT_EQ(end.limit(0, 1001), end_reason::bytes);
}

TEST(ReceiverRunEnd, BothLimitsAtOnceAreTheMessages)
{
    end_limits limits = usual();
    limits.messages = 10;
    limits.bytes = 1000;
    EXPECT_EQ(run_end(limits, START).limit(10, 1000), end_reason::messages);
}

TEST(ReceiverRunEnd, WithoutLimitsNoneIsReached)
{
    const run_end end(usual(), START);
    EXPECT_EQ(end.limit(UINT64_MAX, UINT64_MAX), std::nullopt);
    EXPECT_EQ(end.bytes_left(0), UINT64_MAX);
    EXPECT_EQ(end.bytes_left(UINT64_MAX), UINT64_MAX);
}

TEST(ReceiverRunEnd, TheBytesLeftEndAtZero)
{
    end_limits limits = usual();
    limits.bytes = 1000;
    const run_end end(limits, START);
    EXPECT_EQ(end.bytes_left(0), 1000U);
    EXPECT_EQ(end.bytes_left(999), 1U);
    EXPECT_EQ(end.bytes_left(1000), 0U);
    EXPECT_EQ(end.bytes_left(5000), 0U);
}

TEST(ReceiverRunEnd, TheNextCheckIsTheEarliestThatCanEndTheRun)
{
    run_end end(with_duration(300), START);
    end.arrived(START + 50);
    EXPECT_EQ(end.next_check_ns(), START + 250);
    end.set_complete(START + 60, true);
    EXPECT_EQ(end.next_check_ns(), START + 80);
    end.set_complete(START + 70, false);
    end.arrived(START + 200);
    EXPECT_EQ(end.next_check_ns(), START + 300);
}

// As good as without end, and still no overflow on any clock.
TEST(ReceiverRunEnd, VeryLongTimesAreNever)
{
    constexpr uint64_t LONG = UINT64_MAX / 4;
    end_limits limits;
    limits.settle_ns = LONG;
    limits.idle_ns = LONG;
    limits.duration_ns = LONG;
    constexpr uint64_t NOW = 1ULL << 60U;
    run_end end(limits, NOW);
    end.arrived(NOW);
    end.set_complete(NOW, true);
    EXPECT_EQ(end.check(NOW + 1000000000), std::nullopt);
}

TEST(ReceiverRunEnd, WhatArrivesWithoutMeaningCountsAsSilence)
{
    run_end end(usual(), START);
    end.arrived(START + 10);
    end.set_exhausted(START + 10, true);
    for (uint64_t later = 20; later < 210; later += 10) {
        end.arrived(START + later);
        end.set_exhausted(START + later, true);
        EXPECT_EQ(end.check(START + later), std::nullopt) << later;
        EXPECT_EQ(end.next_check_ns(), START + 210) << later;
    }
    EXPECT_EQ(end.check(START + 210), end_reason::idle);
}

TEST(ReceiverRunEnd, SilenceCountsAnewWhenSomethingIsExpectedAgain)
{
    run_end end(usual(), START);
    end.arrived(START + 10);
    end.set_exhausted(START + 10, true);
    end.arrived(START + 100);
    end.set_exhausted(START + 100, false);
    EXPECT_EQ(end.check(START + 210), std::nullopt);
    EXPECT_EQ(end.check(START + 300), end_reason::idle);
}

} // namespace receiver_run_end_test
