// Numbers, sizes, rates and times as people read them, safe text, and the bars of a
// drawn histogram. Expected texts are worked out by hand.
#include <cmath>
#include <cstdint>
#include <random>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "format.h"

namespace receiver_format_test {

using namespace receiver;
using testing::ElementsAre;
using testing::SizeIs;

constexpr uint64_t SECOND = 1'000'000'000;

TEST(ReceiverFormat, NumbersAreGroupedByThousands)
{
    EXPECT_EQ(grouped(0), "0");
    EXPECT_EQ(grouped(999), "999");
    EXPECT_EQ(grouped(1000), "1,000");
    EXPECT_EQ(grouped(123456), "123,456");
    EXPECT_EQ(grouped(UINT64_MAX), "18,446,744,073,709,551,615");
}

TEST(ReceiverFormat, OnlyOneIsSingular)
{
    EXPECT_EQ(counted(0, "message"), "0 messages");
    EXPECT_EQ(counted(1, "message"), "1 message");
    EXPECT_EQ(counted(2000, "message"), "2,000 messages");
    EXPECT_EQ(counted(0, "pass", "passes"), "0 passes");
    EXPECT_EQ(counted(1, "pass", "passes"), "1 pass");
    EXPECT_EQ(counted(2, "pass", "passes"), "2 passes");
}

TEST(ReceiverFormat, NumbersLoseTrailingZerosAndKeepWholeTens)
{
    EXPECT_EQ(number_text(12.30, 3), "12.3");
    EXPECT_EQ(number_text(12.0, 3), "12");
    EXPECT_EQ(number_text(1200, 3), "1200");
    EXPECT_EQ(number_text(0, 3), "0");
    EXPECT_EQ(number_text(0.25, 3), "0.25");
}

TEST(ReceiverFormat, SizesChangeTheUnitAt1024)
{
    EXPECT_EQ(bytes_text(0), "0 bytes");
    EXPECT_EQ(bytes_text(1), "1 byte");
    EXPECT_EQ(bytes_text(1023), "1023 bytes");
    EXPECT_EQ(bytes_text(1024), "1 KiB");
    EXPECT_EQ(bytes_text(67108864), "64 MiB");
    EXPECT_EQ(bytes_text(1536ULL << 20), "1.5 GiB");
    EXPECT_EQ(bytes_text(UINT64_MAX), "16 EiB");
}

TEST(ReceiverFormat, ASizeThatRoundsUpToTheNextUnitIsShownInIt)
{
    EXPECT_EQ(bytes_text((1 << 20) - 1), "1 MiB");
}

TEST(ReceiverFormat, RatesHaveFourDigitsAndDecimalUnits)
{
    EXPECT_EQ(rate_text(0), "0 bps");
    EXPECT_EQ(rate_text(950), "950 bps");
    EXPECT_EQ(rate_text(64'000), "64 kbps");
    EXPECT_EQ(rate_text(199'840'000), "199.8 Mbps");
    EXPECT_EQ(rate_text(1'234'600'000), "1.235 Gbps");
    EXPECT_EQ(rate_text(999'960'000), "1 Gbps");
    EXPECT_EQ(rate_text(4e15), "4000 Tbps");
}

TEST(ReceiverFormat, ShortTimesHaveThreeDigits)
{
    EXPECT_EQ(duration_text(0), "0 ns");
    EXPECT_EQ(duration_text(850), "850 ns");
    EXPECT_EQ(duration_text(10'240), "10.2 us");
    EXPECT_EQ(duration_text(999'999), "1 ms");
    EXPECT_EQ(duration_text(45 * SECOND + SECOND / 2), "45.5 s");
}

TEST(ReceiverFormat, PagesHaveTheirOwnSignForMicroseconds)
{
    EXPECT_EQ(duration_text(1'000, "\u00b5s"), "1 \u00b5s");
}

TEST(ReceiverFormat, LongTimesHaveTwoUnits)
{
    EXPECT_EQ(duration_text(59 * SECOND + 960'000'000), "1 min 00 s");
    EXPECT_EQ(duration_text(125 * SECOND), "2 min 05 s");
    EXPECT_EQ(duration_text(125 * SECOND + SECOND / 2), "2 min 06 s");
    EXPECT_EQ(duration_text(3599 * SECOND + 600'000'000), "1 h 00 min");
    EXPECT_EQ(duration_text(3 * 3600 * SECOND + 7 * 60 * SECOND), "3 h 07 min");
    EXPECT_EQ(duration_text(26 * 3600 * SECOND), "1 d 02 h");
    EXPECT_EQ(duration_text(UINT64_MAX), "213,503 d 23 h");
}

TEST(ReceiverFormat, AClockShowsHoursOnlyWhenThereAreAny)
{
    EXPECT_EQ(clock_text(0), "0:00");
    EXPECT_EQ(clock_text(42.9), "0:42");
    EXPECT_EQ(clock_text(3599), "59:59");
    EXPECT_EQ(clock_text(3723), "1:02:03");
}

TEST(ReceiverFormat, AClockBearsAnyNumber)
{
    EXPECT_EQ(clock_text(-1), "0:00");
    EXPECT_EQ(clock_text(std::nan("")), "0:00");
    EXPECT_EQ(clock_text(1e300), clock_text(1e10));
}

TEST(ReceiverFormat, PercentagesCarryTheirSignExceptZero)
{
    EXPECT_EQ(signed_percent(0.123), "+0.12%");
    EXPECT_EQ(signed_percent(-25.83), "-25.8%");
    EXPECT_EQ(signed_percent(0), "0%");
    EXPECT_EQ(signed_percent(-0.0004), "0%");
}

TEST(ReceiverFormat, ASmallShareIsNotShownAsNothing)
{
    EXPECT_EQ(share_text(1, 3), "33.3%");
    EXPECT_EQ(share_text(1, 1'000'000), "<0.1%");
    EXPECT_EQ(share_text(0, 5), "0.0%");
    EXPECT_EQ(share_text(0, 0), "0.0%");
}

TEST(ReceiverFormat, StampsAreUtcWithMicroseconds)
{
    // date -u -d @1000000000
    EXPECT_EQ(
        stamp_text(1'000'000'000 * SECOND + 7'000), "2001-09-09 01:46:40.000007 UTC");
}

TEST(ReceiverFormat, HexHasTwoDigitsForEachByte)
{
    const std::vector<uint8_t> bytes = {0, 0x0a, 0xff};
    EXPECT_EQ(hex_text(bytes), "00 0a ff");
    EXPECT_EQ(hex_text(bytes, ""), "000aff");
    EXPECT_EQ(hex_text({}), "");
}

TEST(ReceiverFormat, ControlCharactersCannotReachATerminal)
{
    EXPECT_EQ(printable("a\x1b[2Jb\n\x7f"), "a\\x1b[2Jb\\x0a\\x7f");
    EXPECT_EQ(printable("\xc2\x9b"), "\\xc2\\x9b"); // an 8-bit control sequence's start
    EXPECT_EQ(printable("\u202eabc"), "\\xe2\\x80\\xaeabc"); // turns the text around
}

TEST(ReceiverFormat, TextStaysAsItIs)
{
    EXPECT_EQ(
        printable("day \u00e9 \u65e5\u672c \U0001f600.pcap"),
        "day \u00e9 \u65e5\u672c \U0001f600.pcap");
}

TEST(ReceiverFormat, BytesThatAreNotUtf8AreShownByNumber)
{
    EXPECT_EQ(printable("\xff"), "\\xff");
    EXPECT_EQ(printable("\x80x"), "\\x80x");
    EXPECT_EQ(printable("\xc3"), "\\xc3");                   // cut off
    EXPECT_EQ(printable("\xc0\xaf"), "\\xc0\\xaf");          // overlong
    EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80"); // half a surrogate pair
    EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80"); // past the end
}

TEST(ReceiverFormat, WideCharactersTakeTwoColumns)
{
    EXPECT_EQ(columns_of("abc"), 3u);
    EXPECT_EQ(columns_of("\u00e9\u2588"), 2u);
    EXPECT_EQ(columns_of("\u65e5\u672c"), 4u);
}

TEST(ReceiverFormat, ACutKeepsCharactersWhole)
{
    EXPECT_EQ(bytes_within("abcdef", 4), 4u);
    EXPECT_EQ(bytes_within("\u00e9\u00e9", 1), 2u);
    EXPECT_EQ(bytes_within("a\u65e5", 2), 1u);
    EXPECT_EQ(bytes_within("\u65e5", 1), 3u); // one character at least
    EXPECT_EQ(bytes_within("", 5), 0u);
}

TEST(ReceiverFormat, EveryExitStatusAndReasonHasItsWord)
{
    EXPECT_STREQ(name_of(exit_status::as_expected), "as_expected");
    EXPECT_STREQ(name_of(exit_status::content), "content");
    EXPECT_STREQ(name_of(exit_status::usage), "usage");
    EXPECT_STREQ(name_of(exit_status::connection), "connection");
    EXPECT_STREQ(name_of(exit_status::rate), "rate");
    EXPECT_STREQ(name_of(exit_status::undecided), "undecided");
    EXPECT_STREQ(name_of(exit_status::file), "file");
    EXPECT_STREQ(name_of(exit_status::early), "early");
    EXPECT_STREQ(name_of(end_reason::complete), "complete");
    EXPECT_STREQ(name_of(end_reason::idle), "idle");
    EXPECT_STREQ(name_of(end_reason::duration), "duration");
    EXPECT_STREQ(name_of(end_reason::messages), "messages");
    EXPECT_STREQ(name_of(end_reason::bytes), "bytes");
    EXPECT_STREQ(name_of(end_reason::closed), "closed");
    EXPECT_STREQ(name_of(end_reason::signal), "signal");
    EXPECT_STREQ(name_of(end_reason::failed), "failed");
}

TEST(ReceiverFormat, ExitStatusesAreExplained)
{
    EXPECT_STREQ(meaning_of(exit_status::as_expected), "as expected");
    EXPECT_STREQ(meaning_of(exit_status::rate), "rate outside the tolerance");
    EXPECT_STREQ(meaning_of(exit_status::early), "ended before the expected total");
}

TEST(ReceiverFormat, RoundingStaysWithinTheType)
{
    EXPECT_EQ(whole(1.5), 2u);
    EXPECT_EQ(whole(-3), 0u);
    EXPECT_EQ(whole(std::nan("")), 0u);
    EXPECT_EQ(whole(1e30), UINT64_MAX);
}

TEST(ReceiverFormat, NiceStepsAreOneTwoFive)
{
    EXPECT_DOUBLE_EQ(nice_step(1), 1);
    EXPECT_DOUBLE_EQ(nice_step(1.1), 2);
    EXPECT_DOUBLE_EQ(nice_step(3), 5);
    EXPECT_DOUBLE_EQ(nice_step(5.1), 10);
    EXPECT_DOUBLE_EQ(nice_step(0.03), 0.05);
    EXPECT_DOUBLE_EQ(nice_step(1000), 1000);
}

// ---------------------------------------------------------------- bars of histograms

distribution made_of(std::vector<bin> bins, uint64_t min, uint64_t max)
{
    distribution values;
    for (const bin& next : bins)
        values.count += next.count;
    values.min = min;
    values.max = max;
    values.bins = std::move(bins);
    return values;
}

MATCHER_P3(IsBar, low, high, count, "")
{
    return arg.low == low && arg.high == high && std::abs(arg.count - count) < 1e-9;
}

TEST(ReceiverFormat, NothingMakesNoBars)
{
    EXPECT_THAT(log_bars({}, 10, edges::round), SizeIs(0));
    EXPECT_THAT(linear_bars({}, 10), SizeIs(0));
}

TEST(ReceiverFormat, LogarithmicBarsHaveTheFinestWidthThatFits)
{
    const auto values = made_of({{1, 10, 5}, {10, 100, 7}, {100, 1000, 1}}, 1, 999);
    EXPECT_THAT(
        log_bars(values, 3, edges::round),
        ElementsAre(IsBar(1, 10, 5), IsBar(10, 100, 7), IsBar(100, 1000, 1)));
    EXPECT_THAT(
        log_bars(values, 2, edges::round),
        ElementsAre(IsBar(1, 100, 12), IsBar(100, 10000, 1)));
}

TEST(ReceiverFormat, ThreeBarsToADecadeHaveCustomaryEdges)
{
    const auto values = made_of({{20, 21, 1}, {60, 61, 2}, {300, 301, 3}}, 20, 300);
    EXPECT_THAT(
        log_bars(values, 4, edges::round),
        ElementsAre(
            IsBar(20, 50, 1), IsBar(50, 100, 2), IsBar(100, 200, 0), IsBar(200, 500, 3)));
}

TEST(ReceiverFormat, ABinThatReachesOverAnEdgeIsSharedOut)
{
    // A quarter of the values from 80 to 160 lies below 100.
    const auto values = made_of({{80, 160, 8}, {900, 1000, 1}}, 80, 999);
    EXPECT_THAT(
        log_bars(values, 2, edges::round),
        ElementsAre(IsBar(10, 100, 2), IsBar(100, 1000, 7)));
}

TEST(ReceiverFormat, ABinCountsNoFurtherThanTheGreatestValue)
{
    const auto values = made_of({{90, 130, 4}}, 90, 99);
    const auto bars = log_bars(values, 1, edges::round);
    ASSERT_THAT(bars, SizeIs(1));
    EXPECT_DOUBLE_EQ(bars.front().high, 100);
    EXPECT_DOUBLE_EQ(bars.front().count, 4);
}

TEST(ReceiverFormat, ABinIsSharedOutOverWhatItCanHold)
{
    // From 90 to 109, half of them below 100, though the bin reaches on to 130.
    const auto bars = log_bars(made_of({{90, 130, 4}}, 90, 109), 2, edges::round);
    ASSERT_THAT(bars, SizeIs(2));
    EXPECT_DOUBLE_EQ(bars[0].high, 100);
    EXPECT_DOUBLE_EQ(bars[0].count, 2);
    EXPECT_DOUBLE_EQ(bars[1].count, 2);
}

TEST(ReceiverFormat, ZerosHaveABarOfTheirOwn)
{
    const auto values = made_of({{0, 1, 9}, {1, 2, 0}, {100, 101, 1}}, 0, 100);
    const auto bars = log_bars(values, 12, edges::round);
    ASSERT_FALSE(bars.empty());
    EXPECT_THAT(bars.front(), IsBar(0, 0, 9));
    EXPECT_THAT(bars[1].low, testing::Le(100));
    EXPECT_THAT(bars.back().count, testing::DoubleEq(1));
    EXPECT_THAT(
        log_bars(made_of({{0, 1, 9}}, 0, 0), 12, edges::round),
        ElementsAre(IsBar(0, 0, 9)));
}

TEST(ReceiverFormat, LinearBarsStartAtZeroUnlessTheValuesAreClose)
{
    EXPECT_THAT(
        linear_bars(made_of({{100, 101, 1}, {300, 301, 2}}, 100, 300), 5),
        ElementsAre(
            IsBar(0, 100, 0), IsBar(100, 200, 1), IsBar(200, 300, 0),
            IsBar(300, 400, 2)));
    EXPECT_THAT(
        linear_bars(made_of({{480, 481, 1}, {519, 520, 2}}, 480, 519), 5),
        ElementsAre(
            IsBar(480, 490, 1), IsBar(490, 500, 0), IsBar(500, 510, 0),
            IsBar(510, 520, 2)));
}

TEST(ReceiverFormat, EmptyMessagesAreInTheFirstLinearBar)
{
    const auto bars = linear_bars(made_of({{0, 1, 3}, {1, 2, 0}, {9, 10, 1}}, 0, 9), 20);
    EXPECT_THAT(bars.front(), IsBar(0, 1, 3));
    EXPECT_THAT(bars.back(), IsBar(9, 10, 1));
}

// Bars join, lie around all values, are no more than allowed and hold every value once.
void expect_complete(
    const std::vector<bar>& bars, const distribution& values, size_t most)
{
    double sum = 0;
    for (const bar& next : bars)
        sum += next.count;
    EXPECT_LE(bars.size(), most);
    EXPECT_NEAR(
        sum, static_cast<double>(values.count), 1e-6 * static_cast<double>(values.count));
    for (size_t i = 1; i < bars.size(); ++i) {
        if (bars[i - 1].high > 0) {
            EXPECT_EQ(bars[i - 1].high, bars[i].low);
        }
        EXPECT_LT(bars[i].low, bars[i].high);
    }
    EXPECT_LE(bars.front().low, static_cast<double>(values.min));
    EXPECT_GT(bars.back().high, static_cast<double>(values.max) * (1 - 1e-12));
}

TEST(ReceiverFormat, BarsHoldEveryValueWhateverTheBins)
{
    std::mt19937_64 random(1);
    for (int round = 0; round < 500; ++round) {
        std::vector<bin> bins;
        uint64_t low = random() >> (random() % 60 + 4);
        const uint64_t first = low;
        for (uint64_t i = random() % 40 + 1; i > 0; --i) {
            const uint64_t width = 1 + low / 64;
            bins.push_back({low, low + width, i == 1 ? 1 : random() % 3});
            low += width;
        }
        bins.front().count = 1;
        const auto values = made_of(bins, first, low - 1);
        expect_complete(log_bars(values, 12, edges::round), values, 12);
        expect_complete(log_bars(values, 60, edges::even), values, 60);
        expect_complete(linear_bars(values, 30), values, 31);
    }
}

} // namespace receiver_format_test
