// Seconds as nanoseconds, and where a span of time counts as shorter than it is.
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

#include "clock.h"

namespace receiver_clock_test {

using receiver::to_ns;

constexpr uint64_t LONGEST = 4'000'000'000'000'000'000;

TEST(ReceiverClock, SecondsAreNanoseconds)
{
    EXPECT_EQ(to_ns(0), 0U);
    EXPECT_EQ(to_ns(1e-9), 1U);
    EXPECT_EQ(to_ns(0.2), 200'000'000U);
    EXPECT_EQ(to_ns(10), 10'000'000'000U);
    EXPECT_EQ(to_ns(3e9), 3'000'000'000'000'000'000U);
}

TEST(ReceiverClock, ASpanBeyondTheLongestIsThatLong)
{
    for (const double seconds :
         {4e9, 4e9 + 1, 9e9, 9.3e9, 2e10, 1e300, std::numeric_limits<double>::max()})
        EXPECT_EQ(to_ns(seconds), LONGEST) << seconds;
}

TEST(ReceiverClock, AClockHoldsItsTimeAndTheLongestSpan)
{
    constexpr auto MOST = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    EXPECT_LT(to_ns(1e300), MOST - receiver::read_clock(CLOCK_REALTIME));
    EXPECT_LT(receiver::now_ns(), MOST / 2);
}

} // namespace receiver_clock_test
