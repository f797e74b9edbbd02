// The table of the rate over time, text by text.
#include <gtest/gtest.h>

#include "csv.h"

namespace receiver_csv_test {

using namespace receiver;

constexpr const char* HEADER = "time_s,messages,bytes,mbps\n";

TEST(ReceiverCsv, ARunWithoutArrivalsIsTheHeader)
{
    EXPECT_EQ(intervals_csv({}), HEADER);
}

TEST(ReceiverCsv, EachSliceHasItsStartItsCountsAndItsRate)
{
    measurement measured;
    measured.interval_ns = 10'000'000;
    measured.intervals = {{1000, 500'000}, {0, 0}, {1, 10}};
    // 500,000 bytes in 10 ms are 400 Mbps.
    EXPECT_EQ(
        intervals_csv(measured), std::string(HEADER) +
                                     "0.000000000,1000,500000,400.000000\n"
                                     "0.010000000,0,0,0.000000\n"
                                     "0.020000000,1,10,0.008000\n");
}

TEST(ReceiverCsv, TimesOfLongRunsKeepTheirNanoseconds)
{
    measurement measured;
    measured.interval_ns = 3'600'000'000'001;
    measured.intervals = {{1, 1}, {1, 450'000'000'000}, {1, 1}};
    EXPECT_NE(
        intervals_csv(measured).find("\n3600.000000001,1,450000000000,1000.000000\n"),
        std::string::npos);
    EXPECT_NE(intervals_csv(measured).find("\n7200.000000002,1,1,"), std::string::npos);
}

} // namespace receiver_csv_test
