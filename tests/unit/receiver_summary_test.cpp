// The summary for a terminal: that every line of it is there, that it fits the
// terminal, and that no text from outside can steer it.
#include <algorithm>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "summary.h"
#include "support/results.h"

namespace receiver_summary_test {

using namespace receiver;
using support::as_expected;
using support::found;
using support::stream;
using support::with_faults;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr const char* ESCAPE = "\x1b";

// Columns of each line, colours aside; no text here has wide characters.
size_t widest_line(const std::string& text)
{
    std::istringstream lines(text);
    size_t most = 0;
    for (std::string line; std::getline(lines, line);) {
        size_t columns = 0;
        bool colour = false;
        for (const char next : line) {
            colour = colour || next == *ESCAPE;
            const bool continues = (static_cast<unsigned char>(next) & 0xC0u) == 0x80;
            columns += colour || continues ? 0 : 1;
            colour = colour && next != 'm';
        }
        most = std::max(most, columns);
    }
    return most;
}

// -------------------------------------------------------------------------- lines

TEST(ReceiverSummary, OtherProblemsAreListed)
{
    run_result run = with_faults();
    run.problems = {"one thing", "another"};
    EXPECT_THAT(
        summary_text(run, 80, false),
        HasSubstr("\nProblems  one thing\n          another\n"));
}

TEST(ReceiverSummary, AProblemThatTheVerdictTellsIsNotListedAgain)
{
    run_result run = as_expected();
    run.status = exit_status::file;
    run.problems = {"cannot write day.json: disk full"};
    EXPECT_THAT(
        summary_text(run, 80, false),
        AllOf(
            StartsWith("A file failed: cannot write day.json: disk full.\n"),
            Not(HasSubstr("Problems"))));
}

TEST(ReceiverSummary, WithoutASourceNothingIsCompared)
{
    run_result run = as_expected();
    run.verified = {};
    EXPECT_THAT(
        summary_text(run, 80, false),
        HasSubstr("\nCompared  not compared: no --filepath\n"));
}

TEST(ReceiverSummary, TheExitStatusIsShownWithItsMeaning)
{
    EXPECT_THAT(
        summary_text(as_expected(), 80, false),
        HasSubstr("\nExit      status 0: as expected\n"));
    EXPECT_THAT(
        summary_text(with_faults(), 80, false),
        HasSubstr(
            "\nExit      status 1: content differs, is lost, duplicated or out of order\n"));
}

TEST(ReceiverSummary, WhatArrivedIsShownFromWhereAndHowFast)
{
    EXPECT_THAT(
        summary_text(as_expected(), 80, false),
        AllOf(
            HasSubstr(
                "\nReceived  100,000 messages, 50,000,000 bytes (47.7 MiB) in 2 s\n"),
            HasSubstr("\nFrom      udp 239.1.1.1:5000 on eth0\n"),
            HasSubstr("\nCompared  with day.pcap: 100,000 of 100,000 messages whole\n"),
            HasSubstr(
                "\nRate      199.8 Mbps, wanted 200 Mbps, error -0.1% (tolerance 0.5%)\n")));
}

TEST(ReceiverSummary, GapsAndSizesStandInColumns)
{
    EXPECT_THAT(
        summary_text(as_expected(), 80, false),
        HasSubstr(
            "                  min        p50        p90        p99      p99.9        max\n"
            "Gaps            10 us      20 us      20 us      20 us      90 us     100 us\n"
            "Sizes (B)         500        500        500        500        500        500\n"));
}

TEST(ReceiverSummary, NarrowTerminalsShowThemInRows)
{
    EXPECT_THAT(
        summary_text(as_expected(), 60, false),
        HasSubstr("                 Gaps  Sizes (B)\n"
                  "min             10 us        500\n"
                  "p50             20 us        500\n"));
}

TEST(ReceiverSummary, GapsAreDrawnWithTheLongestBarForTheMost)
{
    // Gaps of 10 us and 100 us are one each of 99,999.
    EXPECT_THAT(
        summary_text(as_expected(), 40, false), HasSubstr("Gaps between arrivals\n"));
    const std::string text = summary_text(as_expected(), 80, false);
    EXPECT_THAT(text, HasSubstr("  <0.1%  \u258f\n"));
    EXPECT_THAT(
        text, HasSubstr(" 100.0%  \u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588"));
}

TEST(ReceiverSummary, TheHistogramHasTwelveRowsAtMost)
{
    run_result run = as_expected();
    run.measured.gaps.bins = {{1, 2, 1}, {1ULL << 62, 1ULL << 63, 1}};
    run.measured.gaps.min = 1;
    run.measured.gaps.max = (1ULL << 63) - 1;
    const std::string text = summary_text(run, 80, false);
    const size_t start = text.find("Gaps between arrivals\n");
    ASSERT_NE(start, std::string::npos);
    EXPECT_LE(
        std::count(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(), '\n'),
        13);
}

TEST(ReceiverSummary, NothingArrivedShowsNoFigures)
{
    run_result run = as_expected();
    run.measured = {};
    EXPECT_THAT(
        summary_text(run, 80, false),
        AllOf(Not(HasSubstr("p50")), Not(HasSubstr("Gaps"))));
}

// -------------------------------------------------------------------------- faults

TEST(ReceiverSummary, FaultsAreListedOnePerLineWithBothSidesOfTheFirstDifference)
{
    EXPECT_THAT(
        summary_text(with_faults(), 80, false),
        EndsWith("\nFaults\n"
                 "  messages 17 to 19  lost\n"
                 "  message 40         altered from its byte 12 on (datagram 37)\n"
                 "\nFirst difference in content, at message 40\n"
                 "  expected  00 aa 55\n"
                 "  received  01 aa 55\n"));
}

TEST(ReceiverSummary, OnlyTheFirstTenFaultsAreListed)
{
    run_result run = with_faults();
    run.verified.faults.assign(1000, found(fault_kind::lost, 5));
    run.verified.fault_count = 5000;
    const std::string text = summary_text(run, 80, false);
    EXPECT_THAT(text, EndsWith("  message 5  lost\n  and 4,990 more\n"));
    size_t lines = 0;
    for (size_t at = text.find("\n  message 5"); at != std::string::npos;
         at = text.find("\n  message 5", at + 1))
        ++lines;
    EXPECT_EQ(lines, 10u);
}

TEST(ReceiverSummary, NarrowTerminalsShowAsManyBytesAsFit)
{
    run_result run = with_faults();
    run.verified.faults[1].expected.assign(16, 0x11);
    run.verified.faults[1].received.clear();
    EXPECT_THAT(
        summary_text(run, 40, false),
        EndsWith("\n  expected  11 11 11 11 11 11 11 11 11\n  received  -\n"));
}

// ------------------------------------------------------------------ width and colour

TEST(ReceiverSummary, NoLineIsWiderThanTheTerminal)
{
    run_result run = with_faults();
    run.source = "/a/very/long/path/" + std::string(200, 'x') + "/with words/day.pcap";
    run.problems = {std::string(300, 'y')};
    run.buffer_granted = 1;
    run.own_drops = 1'000'000'000;
    run.measured.messages = run.measured.bytes = UINT64_MAX;
    run.measured.duration_ns = UINT64_MAX;
    run.measured.gaps.max = UINT64_MAX;
    run.verified.faults[0].message = UINT64_MAX - 10;
    for (unsigned columns = 40; columns <= 200; ++columns) {
        EXPECT_LE(widest_line(summary_text(run, columns, true)), columns);
        EXPECT_LE(widest_line(summary_text(stream(), columns, true)), columns);
    }
}

TEST(ReceiverSummary, NoLineEndsInSpaces)
{
    run_result run = as_expected();
    run.measured.gaps.bins[1] = {1'000'000, 1'010'000, 99'997};
    run.measured.gaps.max = 1'009'999;
    EXPECT_THAT(summary_text(run, 80, false), Not(HasSubstr(" \n")));
}

TEST(ReceiverSummary, LessThanFortyColumnsAreTakenAsForty)
{
    EXPECT_EQ(
        summary_text(with_faults(), 0, false), summary_text(with_faults(), 40, false));
}

TEST(ReceiverSummary, ColourIsForTheVerdictAndTheFaultsWords)
{
    const std::string text = summary_text(with_faults(), 120, true);
    EXPECT_THAT(text, StartsWith("\x1b[1;31m3 messages lost, 1 altered: "));
    EXPECT_THAT(
        text, HasSubstr("\n  message 40         \x1b[1;31maltered\x1b[0m from its"));
    EXPECT_THAT(
        summary_text(as_expected(), 80, true), StartsWith("\x1b[1;32mAs expected"));
}

TEST(ReceiverSummary, WithoutColourThereIsNoEscape)
{
    run_result run = with_faults();
    run.source = "\x1b]0;title\a";
    run.problems = {"\x1b[2J"};
    EXPECT_THAT(summary_text(run, 80, false), Not(HasSubstr(ESCAPE)));
}

// ---------------------------------------------------------------------------- plans

plan_result plan_of_two_passes()
{
    plan_result plan;
    plan.source = "/data/day";
    plan.files = 3;
    plan.passes = 2;
    plan.messages = 200'000;
    plan.bytes = 100'000'000;
    plan.sizes = {200'000, 500, 500, 500, 500, 500, 500, 500, {{500, 501, 200'000}}};
    plan.sha256 = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
    return plan;
}

TEST(ReceiverSummary, APlanSaysWhatWouldBeSent)
{
    plan_result plan = plan_of_two_passes();
    plan.wanted_bps = 200e6;
    plan.seconds = 4;
    EXPECT_EQ(
        plan_text(plan, 80, false),
        "The sender would send 200,000 messages, 100,000,000 bytes.\n"
        "\n"
        "Source    /data/day (3 files, 2 passes)\n"
        "Amount    95.4 MiB\n"
        "Takes     4 s at 200 Mbps\n"
        "SHA-256   e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855\n"
        "Left out  nothing\n"
        "\n"
        "                  min        p50        p90        p99      p99.9        max\n"
        "Sizes (B)         500        500        500        500        500        500\n");
}

TEST(ReceiverSummary, APlanWithoutARateTakesWhatTheReceiverTakes)
{
    EXPECT_THAT(
        plan_text(plan_of_two_passes(), 80, false),
        HasSubstr("\nTakes     as fast as the receiver takes it: no --mbps\n"));
}

TEST(ReceiverSummary, AnEndlessPlanCountsOnePass)
{
    plan_result plan = plan_of_two_passes();
    plan.passes = 0;
    plan.wanted_bps = 8;
    plan.seconds = 60;
    EXPECT_THAT(
        plan_text(plan, 100, false),
        AllOf(
            StartsWith(
                "The sender would send 200,000 messages, 100,000,000 bytes over and "
                "over, until stopped.\n"),
            HasSubstr("(3 files, endless)\n"),
            HasSubstr("1 min 00 s at 8 bps, each pass\n")));
}

TEST(ReceiverSummary, APlanOfNothingSaysSo)
{
    EXPECT_THAT(plan_text({}, 80, false), StartsWith("The sender would send nothing.\n"));
}

TEST(ReceiverSummary, APlanSaysWhatIsLeftOutAndWhatToBewareOf)
{
    plan_result plan = plan_of_two_passes();
    plan.omitted = {1200, 1, 2, 1, 2};
    plan.noted = {3, 4, 1, 1};
    plan.notes = {"b.pcap: a note"};
    EXPECT_THAT(
        plan_text(plan, 80, false),
        HasSubstr("\nLeft out  1,200 frames that the filter does not let through\n"
                  "          1 frame without payload\n"
                  "          2 frames shorter than the headers\n"
                  "          1 capture that cannot take the filter\n"
                  "          2 entries of the folder that the sender does not read\n"
                  "Beware    3 frames of which the capture holds only a part\n"
                  "          4 payloads longer than a message: sent in several\n"
                  "          1 capture not of Ethernet frames: cut in the wrong place\n"
                  "          1 capture ending in the middle of a record\n"
                  "          b.pcap: a note\n"));
}

TEST(ReceiverSummary, APlanThatWouldEndEarlySaysWhy)
{
    plan_result plan = plan_of_two_passes();
    plan.status = exit_status::file;
    plan.source_error = "cannot open b.pcap";
    EXPECT_THAT(
        plan_text(plan, 80, false),
        HasSubstr("\nIt would end there: cannot open b.pcap\n"));
    EXPECT_THAT(
        plan_text(plan, 80, false),
        HasSubstr("\nExit      status 6: a file cannot be read or written\n"));
}

TEST(ReceiverSummary, NoLineOfAPlanIsWiderThanTheTerminal)
{
    plan_result plan = plan_of_two_passes();
    plan.source = std::string(200, 'x');
    plan.omitted = {1200, 1, 2, 1, 2};
    plan.notes = {"words and more words " + std::string(100, 'y')};
    plan.messages = plan.bytes = UINT64_MAX;
    plan.wanted_bps = 1;
    plan.seconds = 1e18;
    for (unsigned columns = 40; columns <= 120; ++columns)
        EXPECT_LE(widest_line(plan_text(plan, columns, true)), columns);
}

} // namespace receiver_summary_test
