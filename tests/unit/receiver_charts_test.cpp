// The charts as text: that they draw the numbers where they belong and stay within
// their drawings. How they look in a browser is tested end to end.
#include <algorithm>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "charts.h"

namespace receiver_charts_test {

using namespace receiver;
using testing::AllOf;
using testing::Each;
using testing::Ge;
using testing::HasSubstr;
using testing::Le;
using testing::Not;

constexpr uint64_t MILLISECOND = 1'000'000;
constexpr uint64_t SECOND = 1'000 * MILLISECOND;
constexpr std::optional<double> NONE; // no wanted rate

// Two slices of 10 ms: 100 Mbps, then 200 Mbps.
measurement two_slices()
{
    measurement measured;
    measured.duration_ns = 20 * MILLISECOND;
    measured.rate_bps = 150e6;
    measured.interval_ns = 10 * MILLISECOND;
    measured.intervals = {{250, 125'000}, {500, 250'000}};
    measured.gaps = {749,
                     10'000,
                     99'999,
                     26'000,
                     20'000,
                     40'000,
                     80'000,
                     90'000,
                     {{10'000, 20'000, 1}, {20'000, 20'200, 700}, {20'200, 100'000, 48}}};
    measured.sizes = {750, 500, 500, 500, 500, 500, 500, 500, {{500, 501, 750}}};
    return measured;
}

measurement greatest_numbers()
{
    measurement measured = two_slices();
    measured.duration_ns = UINT64_MAX;
    measured.interval_ns = UINT64_MAX / 2;
    measured.intervals = {{UINT64_MAX, UINT64_MAX}, {1, UINT64_MAX}};
    measured.rate_bps = 1e19;
    measured.gaps = {
        2,          0,          UINT64_MAX,
        1e19,       0,          1,
        UINT64_MAX, UINT64_MAX, {{0, 1, 1}, {1, 2, 0}, {1ULL << 63, UINT64_MAX, 1}}};
    measured.sizes = {
        2, 0, 65'507, 1, 0, 0, 65'507, 65'507, {{0, 1, 1}, {65'000, 65'600, 1}}};
    return measured;
}

// Only zeros, as over TCP when one read completes all messages.
measurement no_gaps_but_zeros()
{
    measurement measured = two_slices();
    measured.gaps = {749, 0, 0, 0, 0, 0, 0, 0, {{0, 1, 749}}};
    return measured;
}

measurement hours()
{
    measurement measured = two_slices();
    measured.duration_ns = 36'000 * SECOND;
    measured.interval_ns = SECOND;
    measured.intervals.assign(36'000, {1, 1000});
    return measured;
}

std::vector<measurement> all_kinds()
{
    return {two_slices(), greatest_numbers(), no_gaps_but_zeros(), hours()};
}

// With a wanted rate far below, near and far above what is measured.
std::string all_charts(const measurement& measured)
{
    std::string all = rate_chart(measured, NONE);
    for (const double wanted : {1e6, 150e6, 1e18})
        all += rate_chart(measured, wanted);
    return all + gap_chart(measured.gaps) + size_chart(measured.sizes);
}

// All that stands between one text and the next occurrence of another.
std::vector<std::string> pieces(
    const std::string& text, const std::string& before, const std::string& after)
{
    std::vector<std::string> all;
    for (size_t at = text.find(before); at != std::string::npos;
         at = text.find(before, at)) {
        at += before.size();
        all.push_back(text.substr(at, text.find(after, at) - at));
    }
    return all;
}

std::vector<std::string> drawings(const std::string& page)
{
    return pieces(page, "<svg class=", "</svg>");
}

// The values of attributes whose names begin like this: x, x1 and x2.
std::vector<double> coordinates(const std::string& svg, char name)
{
    std::vector<double> all;
    for (const char* number : {"", "1", "2"}) {
        for (const std::string& value :
             pieces(svg, std::string(" ") + name + number + "=\"", "\""))
            all.push_back(std::stod(value));
    }
    return all;
}

// The wide one of a chart's two drawings.
std::string wide(const std::string& chart)
{
    return pieces(chart, "<svg class=\"wide\"", "</svg>").at(0);
}

// ----------------------------------------------------------------------------- drawings

TEST(ReceiverCharts, NumbersAreNumbers)
{
    for (const measurement& measured : all_kinds()) {
        for (const std::string& svg : drawings(all_charts(measured))) {
            for (const char* odd : {"nan", "inf", "e+0", "e+1", "e-0"})
                EXPECT_THAT(svg, Not(HasSubstr(odd)));
        }
    }
}

TEST(ReceiverCharts, EveryLineAndTextLiesWithinItsDrawing)
{
    for (const measurement& measured : all_kinds()) {
        for (const std::string& svg : drawings(all_charts(measured))) {
            std::istringstream size(pieces(svg, "viewBox=\"0 0 ", "\"").at(0));
            double width = 0;
            double height = 0;
            size >> width >> height;
            EXPECT_THAT(coordinates(svg, 'x'), Each(AllOf(Ge(0), Le(width))));
            EXPECT_THAT(coordinates(svg, 'y'), Each(AllOf(Ge(0), Le(height))));
        }
    }
}

TEST(ReceiverCharts, EachChartIsDrawnForWideAndForNarrowWindows)
{
    for (const std::string& chart :
         {rate_chart(two_slices(), NONE), gap_chart(two_slices().gaps),
          size_chart(two_slices().sizes)})
        EXPECT_THAT(
            pieces(chart, "<svg class=\"", "\""), testing::ElementsAre("wide", "narrow"));
}

// ----------------------------------------------------------------------- rate over time

// The wide drawing's plot goes from 46 to 810 across and from 228 up to 28.
TEST(ReceiverCharts, TheCurveFollowsTheSlices)
{
    EXPECT_THAT(
        wide(rate_chart(two_slices(), NONE)),
        HasSubstr("<path class=\"curve\" d=\"M46.0 128.0H428.0L428.0 28.0H810.0\"/>"));
}

TEST(ReceiverCharts, TheWantedRateIsALineAtItsHeight)
{
    EXPECT_THAT(rate_chart(two_slices(), NONE), Not(HasSubstr("class=\"wanted\"")));
    EXPECT_THAT(
        wide(rate_chart(two_slices(), 150e6)),
        AllOf(
            HasSubstr(
                "<line class=\"wanted\" x1=\"46.0\" y1=\"78.0\" x2=\"810.0\" y2=\"78.0\"/>"),
            HasSubstr(">wanted 150 Mbps</text>")));
}

TEST(ReceiverCharts, AWantedRateAboveAllIsWithinTheScale)
{
    // Half of 400 Mbps is in the middle.
    EXPECT_THAT(
        wide(rate_chart(two_slices(), 400e6)),
        AllOf(
            HasSubstr("class=\"wanted\" x1=\"46.0\" y1=\"28.0\""),
            HasSubstr("L428.0 128.0H810.0\"/>")));
}

TEST(ReceiverCharts, ALastSliceThatIsNotWholeIsLeftOut)
{
    measurement measured = two_slices();
    measured.duration_ns = 25 * MILLISECOND;
    measured.intervals.push_back({1, 500});
    // Two slices of three lie in the first 20 of 25 ms: up to 46 + 0.8 * 764.
    EXPECT_THAT(
        wide(rate_chart(measured, NONE)),
        HasSubstr("d=\"M46.0 128.0H351.6L351.6 28.0H657.2\"/>"));
}

TEST(ReceiverCharts, ARunWithinOneSliceIsDrawnAtItsRate)
{
    measurement measured = two_slices();
    measured.duration_ns = 5 * MILLISECOND;
    measured.intervals = {{750, 375'000}};
    // 150 of 150 Mbps.
    EXPECT_THAT(
        wide(rate_chart(measured, NONE)),
        HasSubstr("class=\"curve\" d=\"M46.0 28.0H810.0\"/>"));
}

TEST(ReceiverCharts, ARunOfLessThanTwoWholeSlicesIsDrawnAtItsRate)
{
    measurement measured = two_slices();
    measured.duration_ns = 15 * MILLISECOND;
    measured.rate_bps = 200e6;
    EXPECT_THAT(
        wide(rate_chart(measured, NONE)),
        HasSubstr("class=\"curve\" d=\"M46.0 28.0H810.0\"/>"));
}

TEST(ReceiverCharts, ManySlicesAreDrawnAsMeans)
{
    measurement measured = two_slices();
    measured.duration_ns = 12'000 * MILLISECOND;
    measured.intervals.clear();
    for (int i = 0; i < 600; ++i) {
        measured.intervals.push_back({250, 125'000});
        measured.intervals.push_back({500, 250'000});
    }
    // Ten slices each: all are at 150 of 150 Mbps.
    const std::string curve =
        pieces(wide(rate_chart(measured, NONE)), "class=\"curve\" d=\"", "\"").at(0);
    EXPECT_EQ(std::count(curve.begin(), curve.end(), 'H'), 120);
    EXPECT_EQ(pieces(curve, " 28.0H", "L").size(), 120u);
    EXPECT_THAT(rate_chart(measured, NONE), HasSubstr("y=\"32.0\">150</text>"));
}

TEST(ReceiverCharts, ShortRunsCountInFractionsOfSecondsLongOnesInHours)
{
    EXPECT_THAT(
        wide(rate_chart(two_slices(), NONE)),
        AllOf(
            HasSubstr(">milliseconds since the first arrival<"), HasSubstr(">10</text>"),
            HasSubstr(">Mbps</text>")));
    measurement measured = two_slices();
    measured.duration_ns = 36'000 * SECOND;
    EXPECT_THAT(
        wide(rate_chart(measured, NONE)),
        AllOf(
            HasSubstr(">h:min:s since the first arrival<"),
            HasSubstr(">2:00:00</text>")));
    measured.duration_ns = 150 * SECOND;
    EXPECT_THAT(
        wide(rate_chart(measured, NONE)),
        AllOf(
            HasSubstr(">min:s since the first arrival<"), HasSubstr(">2:00</text>"),
            // At 810 the last of them would leave the drawing: four letters of 7.8
            // end at 820.
            HasSubstr(" x=\"804.4\" y=\"246.0\">2:30</text>")));
}

// --------------------------------------------------------------------------- histograms

TEST(ReceiverCharts, GapsAreMarkedAtTheirPercentiles)
{
    EXPECT_THAT(
        wide(gap_chart(two_slices().gaps)),
        AllOf(
            HasSubstr(">p50 20 \u00b5s</text>"), HasSubstr(">p90 40 \u00b5s</text>"),
            HasSubstr(">p99 80 \u00b5s</text>"), HasSubstr(">p99.9 90 \u00b5s</text>"),
            HasSubstr(">max 100 \u00b5s</text>")));
}

TEST(ReceiverCharts, AMarkAtTheEndHasItsLabelOnTheLeft)
{
    EXPECT_THAT(
        wide(gap_chart(two_slices().gaps)),
        HasSubstr(" text-anchor=\"end\" x=\"807.0\" y=\"71.0\">max "));
}

TEST(ReceiverCharts, MarksStandInTheOrderOfTheirValues)
{
    const auto marks =
        pieces(wide(gap_chart(two_slices().gaps)), "class=\"mark\" x1=\"", "\"");
    ASSERT_EQ(marks.size(), 5u);
    for (size_t i = 1; i < marks.size(); ++i)
        EXPECT_LT(std::stod(marks[i - 1]), std::stod(marks[i]));
}

TEST(ReceiverCharts, TheAxisOfGapsIsLogarithmic)
{
    // From 10 to 100 us: 20 us lies at log10(2) of the width.
    const auto marks =
        pieces(wide(gap_chart(two_slices().gaps)), "class=\"mark\" x1=\"", "\"");
    EXPECT_NEAR(std::stod(marks.at(0)), 46 + 764 * 0.30103, 0.1);
}

TEST(ReceiverCharts, ZerosAreABarLeftOfTheAxis)
{
    const std::string drawn = wide(gap_chart(no_gaps_but_zeros().gaps));
    EXPECT_THAT(drawn, AllOf(HasSubstr(">0</text>"), HasSubstr(">p50 0 ns</text>")));
    // A tenth of 764 is set aside for it, of which a third is the gap behind it.
    EXPECT_THAT(
        drawn, HasSubstr("<path class=\"bars\" d=\"M46.5 286.0v-200.0h49.9v200.0Z\"/>"));
}

} // namespace receiver_charts_test
