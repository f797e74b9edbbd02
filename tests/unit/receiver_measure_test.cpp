// Totals, rate, gaps, percentiles and the rate over time, with stamps given from
// outside. Percentiles are compared with those of the sorted values.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "histogram.h"
#include "log_linear_axis.h"
#include "measure.h"

namespace receiver_measure_test {

using namespace receiver;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uint64_t MS = 1'000'000;
constexpr uint64_t SECOND = 1'000'000'000;
constexpr uint64_t EPOCH = 1'700'000'000 * SECOND; // when a run may start

// Counted anew from the slices.
interval sum_of(const std::vector<interval>& slices)
{
    interval sum;
    for (const interval& slice : slices) {
        sum.messages += slice.messages;
        sum.bytes += slice.bytes;
    }
    return sum;
}

// ------------------------------------------------------------------------ totals

TEST(ReceiverMeasure, WithoutArrivalsEverythingIsZero)
{
    const measurement result = measure().result();
    EXPECT_EQ(result.messages, 0U);
    EXPECT_EQ(result.bytes, 0U);
    EXPECT_EQ(result.first_stamp_ns, 0U);
    EXPECT_EQ(result.duration_ns, 0U);
    EXPECT_EQ(result.rate_bps, 0);
    EXPECT_EQ(result.gaps.count, 0U);
    EXPECT_THAT(result.gaps.bins, IsEmpty());
    EXPECT_EQ(result.sizes.count, 0U);
    EXPECT_THAT(result.intervals, IsEmpty());
}

TEST(ReceiverMeasure, OneMessageHasNoDurationAndNoRate)
{
    measure run;
    run.arrived(EPOCH, 500);
    const measurement result = run.result();
    EXPECT_EQ(result.messages, 1U);
    EXPECT_EQ(result.bytes, 500U);
    EXPECT_EQ(result.first_stamp_ns, EPOCH);
    EXPECT_EQ(result.duration_ns, 0U);
    EXPECT_EQ(result.rate_bps, 0);
    EXPECT_EQ(result.gaps.count, 0U);
    EXPECT_EQ(result.sizes.count, 1U);
}

TEST(ReceiverMeasure, TheRateLeavesOutTheFirstMessage)
{
    measure run;
    run.arrived(EPOCH, 9999);
    run.arrived(EPOCH + 1 * MS, 100);
    run.arrived(EPOCH + 4 * MS, 150);
    // 250 bytes in 4 ms.
    EXPECT_DOUBLE_EQ(run.rate_bps(), 500'000);
    EXPECT_DOUBLE_EQ(run.result().rate_bps, 500'000);
    EXPECT_EQ(run.result().duration_ns, 4 * MS);
    EXPECT_EQ(run.messages(), 3U);
    EXPECT_EQ(run.bytes(), 10249U);
}

TEST(ReceiverMeasure, WhileNoTimePassesThereIsNoRate)
{
    measure run;
    run.arrived(EPOCH, 100);
    run.arrived(EPOCH, 100);
    EXPECT_EQ(run.rate_bps(), 0);
    EXPECT_EQ(run.result().gaps.max, 0U);
    EXPECT_EQ(run.result().gaps.count, 1U);
}

TEST(ReceiverMeasure, ARateErrorIsSignedAndInPercent)
{
    EXPECT_DOUBLE_EQ(rate_error_percent(101e6, 100e6), 1);
    EXPECT_DOUBLE_EQ(rate_error_percent(99e6, 100e6), -1);
    EXPECT_DOUBLE_EQ(rate_error_percent(0, 100e6), -100);
    EXPECT_DOUBLE_EQ(rate_error_percent(5, 5), 0);
}

TEST(ReceiverMeasure, GapsAreBetweenNeighbours)
{
    measure run;
    for (const uint64_t at : {0U, 5U, 15U, 115U})
        run.arrived(EPOCH + at, 1);
    const distribution gaps = run.result().gaps;
    EXPECT_EQ(gaps.count, 3U);
    EXPECT_EQ(gaps.min, 5U);
    EXPECT_EQ(gaps.max, 100U);
    EXPECT_DOUBLE_EQ(gaps.mean, 115.0 / 3);
    EXPECT_EQ(gaps.p50, 10U);
}

TEST(ReceiverMeasure, SizesAreOfMessages)
{
    measure run;
    for (const size_t size : {0U, 7U, 65507U})
        run.arrived(EPOCH, size);
    const distribution sizes = run.result().sizes;
    EXPECT_EQ(sizes.count, 3U);
    EXPECT_EQ(sizes.min, 0U);
    EXPECT_EQ(sizes.max, 65507U);
    EXPECT_EQ(sizes.p50, 7U);
}

TEST(ReceiverMeasure, AStampBeforeThePreviousOneCountsAsEqualToIt)
{
    measure run;
    run.arrived(EPOCH, 100);
    run.arrived(EPOCH + 10 * MS, 100);
    run.arrived(EPOCH + 2 * MS, 100); // set back
    run.arrived(EPOCH + 11 * MS, 100);
    const measurement result = run.result();
    EXPECT_EQ(result.duration_ns, 11 * MS);
    EXPECT_EQ(result.gaps.max, 10 * MS);
    EXPECT_EQ(result.gaps.min, 0U);
    EXPECT_DOUBLE_EQ(result.gaps.mean, 11e6 / 3);
    ASSERT_THAT(result.intervals, SizeIs(12));
    EXPECT_EQ(result.intervals[10].messages, 2U);
    EXPECT_EQ(result.intervals[2].messages, 0U);
}

TEST(ReceiverMeasure, TheBytesOfAStampThatWasSetBackStayWithTheirMessage)
{
    measure run;
    run.arrived(EPOCH, 100);
    run.arrived(EPOCH + 10 * MS, 100);
    run.arrived(EPOCH + 2 * MS, 100);
    const measurement result = run.result();
    ASSERT_THAT(result.intervals, SizeIs(11));
    EXPECT_EQ(result.intervals[10].bytes, 200U);
    EXPECT_EQ(result.intervals[2].bytes, 0U);
}

TEST(ReceiverMeasure, AClockSetBackBehindTheStartKeepsTheDuration)
{
    measure run;
    run.arrived(EPOCH, 100);
    run.arrived(EPOCH - 3600 * SECOND, 100);
    EXPECT_EQ(run.result().duration_ns, 0U);
    EXPECT_EQ(run.result().first_stamp_ns, EPOCH);
    EXPECT_EQ(run.rate_bps(), 0);
    run.arrived(EPOCH + MS, 100);
    EXPECT_EQ(run.result().duration_ns, MS);
    EXPECT_EQ(run.result().gaps.max, MS);
}

// ------------------------------------------------------------------------- stream

TEST(ReceiverMeasure, BytesOfAStreamCountBeforeTheirMessageIsComplete)
{
    measure run;
    run.bytes_arrived(EPOCH, 6000);
    EXPECT_EQ(run.bytes(), 6000U);
    EXPECT_EQ(run.messages(), 0U);
    run.bytes_arrived(EPOCH + 3 * MS, 4240);
    run.message_complete(EPOCH + 3 * MS, 10240);
    const measurement result = run.result();
    EXPECT_EQ(result.bytes, 10240U);
    EXPECT_EQ(result.messages, 1U);
    EXPECT_EQ(result.first_stamp_ns, EPOCH + 3 * MS);
    ASSERT_THAT(result.intervals, SizeIs(4));
    EXPECT_EQ(result.intervals[0].bytes, 6000U);
    EXPECT_EQ(result.intervals[0].messages, 0U);
    EXPECT_EQ(result.intervals[3].bytes, 4240U);
    EXPECT_EQ(result.intervals[3].messages, 1U);
}

TEST(ReceiverMeasure, TheRateOfAStreamIsThatOfItsMessages)
{
    measure run;
    run.bytes_arrived(EPOCH, 10240);
    run.message_complete(EPOCH, 10240);
    run.bytes_arrived(EPOCH + SECOND, 20480 + 77);
    run.message_complete(EPOCH + SECOND, 10240);
    run.message_complete(EPOCH + SECOND, 10240);
    EXPECT_DOUBLE_EQ(run.rate_bps(), 163840);
    EXPECT_EQ(run.result().sizes.max, 10240U);
    EXPECT_EQ(run.bytes(), 30797U);
}

// ------------------------------------------------------------------------- slices

TEST(ReceiverMeasure, AMillisecondIsASliceAtFirst)
{
    measure run;
    run.arrived(EPOCH + 300, 10);
    run.arrived(EPOCH + 300 + MS - 1, 20);
    run.arrived(EPOCH + 300 + MS, 40);
    run.arrived(EPOCH + 300 + 3 * MS, 80);
    const measurement result = run.result();
    EXPECT_EQ(result.interval_ns, MS);
    ASSERT_THAT(result.intervals, SizeIs(4));
    EXPECT_EQ(result.intervals[0].messages, 2U);
    EXPECT_EQ(result.intervals[0].bytes, 30U);
    EXPECT_EQ(result.intervals[1].bytes, 40U);
    EXPECT_EQ(result.intervals[2].messages, 0U);
    EXPECT_EQ(result.intervals[3].bytes, 80U);
}

TEST(ReceiverMeasure, SlicesCountFromAnEmptyMessageToo)
{
    measure run;
    run.arrived(EPOCH, 0);
    run.arrived(EPOCH + 5 * MS, 0);
    run.arrived(EPOCH + 10 * MS, 100);
    const measurement result = run.result();
    ASSERT_THAT(result.intervals, SizeIs(11));
    EXPECT_EQ(result.intervals[0].messages, 1U);
    EXPECT_EQ(result.intervals[5].messages, 1U);
    EXPECT_EQ(result.intervals[10].messages, 1U);
    EXPECT_EQ(result.intervals[10].bytes, 100U);
}

TEST(ReceiverMeasure, SlicesWidenWhenThereAreTooMany)
{
    measure run;
    run.arrived(EPOCH, 1);
    run.arrived(EPOCH + 2000 * MS - 1, 2);
    EXPECT_EQ(run.result().interval_ns, MS);
    EXPECT_THAT(run.result().intervals, SizeIs(2000));
    run.arrived(EPOCH + 2000 * MS, 4);
    const measurement result = run.result();
    EXPECT_EQ(result.interval_ns, 2 * MS);
    ASSERT_THAT(result.intervals, SizeIs(1001));
    EXPECT_EQ(result.intervals[0].bytes, 1U);
    EXPECT_EQ(result.intervals[999].bytes, 2U);
    EXPECT_EQ(result.intervals[1000].bytes, 4U);
}

// Counted again in slices of the width that came out.
TEST(ReceiverMeasure, WidenedSlicesHoldWhatFallsIntoThem)
{
    std::mt19937_64 random(1);
    measure run;
    std::vector<std::pair<uint64_t, size_t>> arrivals;
    uint64_t now = 0;
    for (int i = 0; i < 20000; ++i) {
        arrivals.emplace_back(now, random() % 1500);
        run.arrived(EPOCH + now, arrivals.back().second);
        now += random() % (2 * MS);
    }
    const measurement result = run.result();
    EXPECT_GT(result.interval_ns, MS);
    std::vector<interval> expected(
        static_cast<size_t>(arrivals.back().first / result.interval_ns) + 1);
    for (const auto& [at, size] : arrivals) {
        interval& slice = expected[static_cast<size_t>(at / result.interval_ns)];
        ++slice.messages;
        slice.bytes += size;
    }
    ASSERT_EQ(result.intervals.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(result.intervals[i].messages, expected[i].messages) << i;
        ASSERT_EQ(result.intervals[i].bytes, expected[i].bytes) << i;
    }
}

TEST(ReceiverMeasure, HoursStayWithinTwoThousandSlicesWithAllTotals)
{
    measure run;
    constexpr uint64_t COUNT = 36000; // ten hours, one each second
    for (uint64_t i = 0; i < COUNT; ++i)
        run.arrived(EPOCH + i * SECOND, 1000);
    const measurement result = run.result();
    EXPECT_LE(result.intervals.size(), 2000U);
    EXPECT_GT(result.intervals.size(), 1000U);
    EXPECT_EQ(sum_of(result.intervals).messages, COUNT);
    EXPECT_EQ(sum_of(result.intervals).bytes, COUNT * 1000);
    EXPECT_DOUBLE_EQ(result.rate_bps, 8000);
}

TEST(ReceiverMeasure, APauseOfManyYearsIsOnePause)
{
    measure run;
    run.arrived(0, 10);
    run.arrived(EPOCH, 20);
    const measurement result = run.result();
    EXPECT_LE(result.intervals.size(), 2000U);
    EXPECT_EQ(sum_of(result.intervals).bytes, 30U);
    EXPECT_EQ(result.gaps.max, EPOCH);
}

// ------------------------------------------------------------------- distributions

distribution of(const std::vector<uint64_t>& values)
{
    value_histogram histogram;
    for (const uint64_t value : values)
        histogram.count(value);
    return histogram.result();
}

// The least value that at least `per_mille` of all do not exceed.
uint64_t exact_percentile(std::vector<uint64_t> values, uint64_t per_mille)
{
    std::sort(values.begin(), values.end());
    const uint64_t rank = (values.size() * per_mille + 999) / 1000;
    return values[std::max<uint64_t>(rank, 1) - 1];
}

void expect_near(uint64_t value, uint64_t exact, const std::string& what)
{
    const double error =
        std::fabs(static_cast<double>(value) - static_cast<double>(exact));
    EXPECT_LE(error, static_cast<double>(exact) * 0.01) << what << ' ' << exact;
}

void expect_exact_percentiles(
    const std::vector<uint64_t>& values, const std::string& what)
{
    const distribution result = of(values);
    expect_near(result.p50, exact_percentile(values, 500), what + " p50");
    expect_near(result.p90, exact_percentile(values, 900), what + " p90");
    expect_near(result.p99, exact_percentile(values, 990), what + " p99");
    expect_near(result.p999, exact_percentile(values, 999), what + " p99.9");
}

TEST(ReceiverHistogram, ItsPercentilesAreThoseOfTheSortedValuesUpToOnePercent)
{
    std::mt19937_64 random(7);
    const std::vector<std::pair<std::string, std::function<uint64_t()>>> shapes = {
        {"any", [&] { return random(); }},
        {"small", [&] { return random() % 300; }},
        {"sizes", [&] { return random() % 10241; }},
        {"steep", [&] { return uint64_t{1} << (random() % 60); }},
        {"every magnitude", [&] { return random() >> (random() % 64); }},
        {"two heaps", [&] { return random() % 100 < 9 ? 1'000'000 : 20 + random() % 5; }},
        {"one value", [] { return uint64_t{123456789}; }}};
    for (const auto& [name, draw] : shapes) {
        for (const size_t count :
             {1U, 2U, 3U, 9U, 10U, 11U, 99U, 100U, 101U, 999U, 1000U, 1001U, 5000U}) {
            std::vector<uint64_t> values(count);
            std::generate(values.begin(), values.end(), draw);
            expect_exact_percentiles(values, name + ' ' + std::to_string(count));
        }
    }
}

// The rank must not suffer from the share's rounding: its neighbours have other
// values.
TEST(ReceiverHistogram, APercentileTakesTheRightRankAtEveryCount)
{
    for (uint64_t count = 1; count <= 3000; ++count) {
        for (const uint64_t per_mille : {500U, 900U, 990U, 999U}) {
            const uint64_t rank = (count * per_mille + 999) / 1000;
            value_histogram histogram;
            for (uint64_t i = 1; i <= count; ++i)
                histogram.count(i < rank ? 1 : i == rank ? 2 : 3);
            const distribution result = histogram.result();
            const uint64_t value = per_mille == 500   ? result.p50
                                   : per_mille == 900 ? result.p90
                                   : per_mille == 990 ? result.p99
                                                      : result.p999;
            ASSERT_EQ(value, 2U) << count << ' ' << per_mille;
        }
    }
}

TEST(ReceiverHistogram, SmallValuesAreExact)
{
    for (uint64_t value = 0; value < 256; ++value) {
        const distribution result = of({value, value, 255});
        EXPECT_EQ(result.p50, value);
        EXPECT_EQ(result.min, value);
        ASSERT_FALSE(result.bins.empty());
        EXPECT_EQ(result.bins[0].low, value);
        EXPECT_EQ(result.bins[0].high, value + 1);
    }
}

TEST(ReceiverHistogram, TheExtremesAreExactWhateverTheBins)
{
    const distribution result = of({1'000'003, 1'000'001, 99'999'999'999});
    EXPECT_EQ(result.min, 1'000'001U);
    EXPECT_EQ(result.max, 99'999'999'999U);
    EXPECT_EQ(result.count, 3U);
}

TEST(ReceiverHistogram, PercentilesStayWithinTheExtremes)
{
    for (const uint64_t value : {300U, 1'000'001U, 4'194'303U, 4'194'304U}) {
        const distribution result = of({value});
        EXPECT_EQ(result.p50, value);
        EXPECT_EQ(result.p999, value);
    }
}

TEST(ReceiverHistogram, TheMeanIsOfTheValuesNotOfTheBins)
{
    EXPECT_DOUBLE_EQ(of({1'000'001, 1'000'002, 1'000'006}).mean, 1'000'003);
    EXPECT_DOUBLE_EQ(of({0, 0, 0, 1}).mean, 0.25);
}

TEST(ReceiverHistogram, BinsFollowWithoutAGapFromTheFirstToTheLastThatIsUsed)
{
    const std::vector<uint64_t> values = {250, 260, 261, 5000};
    const distribution result = of(values);
    ASSERT_FALSE(result.bins.empty());
    for (size_t i = 1; i < result.bins.size(); ++i)
        EXPECT_EQ(result.bins[i].low, result.bins[i - 1].high);
    EXPECT_EQ(result.bins.front().low, 250U);
    EXPECT_GT(result.bins.front().count, 0U);
    EXPECT_GT(result.bins.back().count, 0U);
    EXPECT_LE(result.bins.back().low, 5000U);
    EXPECT_GT(result.bins.back().high, 5000U);
}

TEST(ReceiverHistogram, EveryValueIsInTheBinThatCountsIt)
{
    std::mt19937_64 random(3);
    std::vector<uint64_t> values;
    for (int i = 0; i < 2000; ++i)
        values.push_back((random() >> (random() % 60)) % 1'000'000'000'000);
    uint64_t counted = 0;
    for (const bin& each : of(values).bins) {
        const auto inside = std::count_if(values.begin(), values.end(), [&](uint64_t v) {
            return each.low <= v && v < each.high;
        });
        ASSERT_EQ(each.count, static_cast<uint64_t>(inside)) << each.low;
        counted += each.count;
    }
    EXPECT_EQ(counted, values.size());
}

TEST(ReceiverHistogram, TheGreatestValueHasABinWithAnEnd)
{
    const distribution result = of({UINT64_MAX, UINT64_MAX - 1});
    ASSERT_THAT(result.bins, SizeIs(1));
    EXPECT_EQ(result.bins[0].count, 2U);
    EXPECT_GT(result.bins[0].high, result.bins[0].low);
}

// ---------------------------------------------------------------------------- axis

// Random ones, and where bins change their width.
std::vector<uint64_t> telling_values()
{
    std::vector<uint64_t> values;
    for (int bit = 0; bit < 64; ++bit) {
        const uint64_t power = uint64_t{1} << static_cast<unsigned>(bit);
        for (const uint64_t value : {power - 1, power, power + 1})
            values.push_back(value);
    }
    values.push_back(UINT64_MAX);
    std::mt19937_64 random(5);
    for (int i = 0; i < 200000; ++i)
        values.push_back(random() >> (random() % 64));
    return values;
}

TEST(ReceiverLogLinearAxis, AValueIsWithinTheRangeOfItsBin)
{
    const log_linear_axis axis;
    for (const uint64_t value : telling_values()) {
        const int index = axis.index(value);
        ASSERT_GE(index, 0);
        ASSERT_LT(index, axis.size());
        const auto [low, high] = log_linear_axis::range(index);
        ASSERT_LE(low, value);
        ASSERT_GE(high, value);
    }
}

TEST(ReceiverLogLinearAxis, TheEndsOfABinAreInIt)
{
    const log_linear_axis axis;
    for (int i = 0; i < axis.size(); ++i) {
        const auto [low, high] = log_linear_axis::range(i);
        ASSERT_LE(low, high);
        ASSERT_EQ(axis.index(low), i);
        ASSERT_EQ(axis.index(high), i);
    }
}

TEST(ReceiverLogLinearAxis, TheBinsCoverAllValuesOnce)
{
    const log_linear_axis axis;
    uint64_t next = 0;
    for (int i = 0; i < axis.size(); ++i) {
        const auto [low, high] = log_linear_axis::range(i);
        ASSERT_EQ(low, next) << i;
        next = high + 1; // 0 again behind the last value
    }
    EXPECT_EQ(next, 0U);
}

TEST(ReceiverLogLinearAxis, BinsAreExactBelow256AndNarrowAbove)
{
    const log_linear_axis axis;
    for (int i = 0; i < axis.size(); ++i) {
        const auto [low, high] = log_linear_axis::range(i);
        if (low < 256)
            ASSERT_EQ(low, high);
        else
            ASSERT_LE((high - low + 1) * 128, low) << i;
    }
}

} // namespace receiver_measure_test
