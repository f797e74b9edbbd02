// The page of a run as text: that it is well-formed, stands by itself, escapes what
// comes from outside, and holds every part. How it looks in a browser is tested end to
// end.
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "report.h"

namespace receiver_report_test {

using namespace receiver;
using testing::AllOf;
using testing::Each;
using testing::HasSubstr;
using testing::Not;

constexpr uint64_t MILLISECOND = 1'000'000;
constexpr uint64_t SECOND = 1'000 * MILLISECOND;

// Two slices of 10 ms: 100 Mbps, then 200 Mbps.
run_result two_slices()
{
    run_result run;
    run.command = "replay_receiver --protocol udp --filepath day.pcap";
    run.protocol = "udp";
    run.address = "127.0.0.1:5000";
    run.source = "day.pcap";
    run.verified.attempted = true;
    run.verified.expected_messages = 750;
    run.verified.expected_bytes = 375'000;
    run.verified.matched_messages = 750;
    run.verified.matched_bytes = 375'000;
    run.measured.messages = 750;
    run.measured.bytes = 375'000;
    run.measured.first_stamp_ns = 1'000'000'000 * SECOND;
    run.measured.duration_ns = 20 * MILLISECOND;
    run.measured.rate_bps = 150e6;
    run.measured.interval_ns = 10 * MILLISECOND;
    run.measured.intervals = {{250, 125'000}, {500, 250'000}};
    run.measured.gaps = {
        749,
        10'000,
        99'999,
        26'000,
        20'000,
        40'000,
        80'000,
        90'000,
        {{10'000, 20'000, 1}, {20'000, 20'200, 700}, {20'200, 100'000, 48}}};
    run.measured.sizes = {750, 500, 500, 500, 500, 500, 500, 500, {{500, 501, 750}}};
    return run;
}

run_result with_fault(const fault& found)
{
    run_result run = two_slices();
    run.status = exit_status::content;
    run.verified.faults = {found};
    run.verified.fault_count = 1;
    ++run.verified.counts[static_cast<size_t>(found.kind)];
    return run;
}

run_result nothing_arrived()
{
    run_result run = two_slices();
    run.status = exit_status::early;
    run.reason = end_reason::idle;
    run.measured = {};
    return run;
}

run_result one_message()
{
    run_result run = two_slices();
    run.measured.messages = 1;
    run.measured.duration_ns = 0;
    run.measured.rate_bps = 0;
    run.measured.gaps = {};
    run.measured.intervals = {{1, 500}};
    run.measured.sizes = {1, 500, 500, 500, 500, 500, 500, 500, {{500, 501, 1}}};
    return run;
}

run_result greatest_numbers()
{
    run_result run = two_slices();
    run.wanted_bps = 1e18;
    run.measured.messages = run.measured.bytes = UINT64_MAX;
    run.measured.duration_ns = UINT64_MAX;
    run.measured.interval_ns = UINT64_MAX / 2;
    run.measured.intervals = {{UINT64_MAX, UINT64_MAX}, {1, UINT64_MAX}};
    run.measured.rate_bps = 1e19;
    run.measured.gaps = {
        2,          0,          UINT64_MAX,
        1e19,       0,          1,
        UINT64_MAX, UINT64_MAX, {{0, 1, 1}, {1, 2, 0}, {1ULL << 63, UINT64_MAX, 1}}};
    run.measured.sizes = {
        2, 0, 65'507, 1, 0, 0, 65'507, 65'507, {{0, 1, 1}, {65'000, 65'600, 1}}};
    return run;
}

std::vector<run_result> all_kinds()
{
    fault altered;
    altered.kind = fault_kind::altered;
    altered.expected = {1, 2, 3};
    altered.received = {1, 9};
    run_result without_source = two_slices();
    without_source.verified = {};
    return {two_slices(),  with_fault(altered), nothing_arrived(),
            one_message(), greatest_numbers(),  without_source};
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

// The wide drawing of a chart.
std::string chart(const std::string& page, const std::string& section)
{
    const size_t start =
        page.find("<svg class=\"wide\"", page.find("<section id=\"" + section));
    EXPECT_NE(start, std::string::npos);
    return page.substr(start, page.find("</svg>", start) - start);
}

// ------------------------------------------------------------------------ the page

TEST(ReceiverReport, EveryTagIsClosedInOrder)
{
    const std::set<std::string> empty = {"meta", "link", "wbr"};
    for (const run_result& run : all_kinds()) {
        const std::string page = report_page(run);
        std::vector<std::string> open;
        for (const std::string& tag : pieces(page, "<", ">")) {
            const std::string name = tag.substr(0, tag.find_first_of(" \n", 1));
            if (name.front() == '/') {
                ASSERT_FALSE(open.empty()) << name;
                ASSERT_EQ(name.substr(1), open.back());
                open.pop_back();
            } else if (
                empty.count(name) == 0 && tag.back() != '/' && name != "!DOCTYPE") {
                open.push_back(name);
            }
        }
        EXPECT_THAT(open, testing::IsEmpty());
    }
}

TEST(ReceiverReport, ThePageStandsByItself)
{
    for (const run_result& run : all_kinds()) {
        const std::string page = report_page(run);
        for (const char* outside :
             {"<script", "src=", "http:", "https:", "url(", "@import"})
            EXPECT_THAT(page, Not(HasSubstr(outside)));
        EXPECT_THAT(pieces(page, "href=\"", "\""), Each("data:,"));
    }
}

TEST(ReceiverReport, NoPlaceOfTheTemplateIsLeftOpen)
{
    for (const run_result& run : all_kinds())
        EXPECT_THAT(report_page(run), Not(HasSubstr("{{")));
}

TEST(ReceiverReport, ChartsAreNamedAndDescribed)
{
    const std::string page = report_page(two_slices());
    const auto ids = pieces(page, " id=\"", "\"");
    EXPECT_EQ(std::set<std::string>(ids.begin(), ids.end()).size(), ids.size());
    for (const char* reference : {"aria-labelledby=\"", "aria-describedby=\""}) {
        const auto named = pieces(page, reference, "\"");
        EXPECT_EQ(named.size(), 6u); // three charts, wide and narrow
        EXPECT_THAT(ids, testing::IsSupersetOf(named));
    }
    EXPECT_THAT(
        page, HasSubstr("<desc id=\"rate-wide-desc\">150 Mbps over 20 ms.</desc>"));
}

TEST(ReceiverReport, TextFromOutsideIsEscaped)
{
    const std::string hostile = "</td><b a='1' c=\"2\">&amp;\xff\x1b";
    const std::string safe =
        "&lt;/td&gt;&lt;b a=&#39;1&#39; c=&quot;2&quot;&gt;&amp;amp;\\xff\\x1b";
    run_result run = two_slices();
    run.source = run.address = run.device = hostile;
    run.problems = {hostile};
    run.verified.source_error = hostile;
    const std::string page = report_page(run);
    EXPECT_THAT(page, Not(HasSubstr("</td><b")));
    EXPECT_THAT(
        page, AllOf(
                  HasSubstr("udp " + safe + " on " + safe),
                  HasSubstr("with " + safe + ": 750 of"),
                  HasSubstr("ends early: " + safe), HasSubstr("<td>" + safe + "</td>")));
}

TEST(ReceiverReport, AVerdictWithTextFromOutsideIsEscapedInTitleAndHeading)
{
    run_result run = two_slices();
    run.status = exit_status::file;
    run.problems = {"cannot read <b>"};
    EXPECT_THAT(
        report_page(run),
        AllOf(
            HasSubstr("<h1>A file failed: cannot read &lt;b&gt;.</h1>"),
            HasSubstr("A file failed: cannot read &lt;b&gt;.</title>")));
}

TEST(ReceiverReport, TheCommandLineIsEscapedWordByWord)
{
    run_result run = two_slices();
    run.command = "replay_receiver --filepath  '<a>'";
    EXPECT_THAT(
        report_page(run),
        HasSubstr(
            "<code><span>replay_receiver</span> <span>--filepath</span> <span></span> "
            "<span>&#39;&lt;a&gt;&#39;</span></code>"));
}

TEST(ReceiverReport, TextThatLooksLikeAPlaceOfTheTemplateStays)
{
    run_result run = two_slices();
    run.source = "{{verdict}}";
    EXPECT_THAT(report_page(run), HasSubstr("with {{verdict}}: 750 of"));
}

TEST(ReceiverReport, TheVerdictStandsOnTopWithTheExitStatus)
{
    EXPECT_THAT(
        report_page(two_slices()),
        AllOf(
            HasSubstr(
                "<h1>As expected: 750 messages, 375,000 bytes, every byte in its place.</h1>"),
            HasSubstr("Exit status <b>0</b>: as expected"),
            HasSubstr("class=\"verdict good\""),
            HasSubstr("First arrival 2001-09-09 01:46:40.000000 UTC")));
    EXPECT_THAT(report_page(with_fault({})), HasSubstr("class=\"verdict bad\""));
    EXPECT_THAT(
        report_page(nothing_arrived()),
        AllOf(
            HasSubstr("class=\"verdict doubtful\""), HasSubstr("Exit status <b>7</b>")));
    run_result run = two_slices();
    run.verified = {};
    EXPECT_THAT(
        report_page(run), AllOf(
                              HasSubstr("class=\"verdict plain\""),
                              HasSubstr("not compared: no --filepath")));
}

TEST(ReceiverReport, TilesShowWhatArrivedOfWhatWasExpected)
{
    run_result run = two_slices();
    run.verified.expected_messages = 1000;
    run.wanted_bps = 160e6;
    run.rate_error_percent = -6.25;
    EXPECT_THAT(
        report_page(run),
        AllOf(
            HasSubstr(
                "<dt>Messages</dt><dd>750</dd><dd class=\"more\">of 1,<wbr>000 expected</dd>"),
            HasSubstr("<dt>Bytes</dt><dd>375,<wbr>000</dd>"),
            HasSubstr("<dt>Duration</dt><dd>20 ms</dd>"),
            HasSubstr(
                "<dt>Rate</dt><dd>150 Mbps</dd><dd class=\"more\">wanted 160 Mbps (-6.25%)</dd>")));
}

TEST(ReceiverReport, WithoutArrivalsNothingIsDrawn)
{
    const std::string page = report_page(nothing_arrived());
    EXPECT_THAT(page, AllOf(Not(HasSubstr("<figure>")), Not(HasSubstr("id=\"gaps\""))));
    EXPECT_THAT(
        page, HasSubstr("<h1>Nothing arrived: the sender fell silent (--idle).</h1>"));
}

TEST(ReceiverReport, OneMessageHasASizeButNeitherRateNorGap)
{
    const std::string page = report_page(one_message());
    EXPECT_THAT(
        page, AllOf(
                  HasSubstr("It takes two arrivals to measure a rate."),
                  HasSubstr("It takes two arrivals to make a gap."),
                  HasSubstr("<svg class=\"wide\"")));
}

TEST(ReceiverReport, ReadsAreNotCalledMessages)
{
    run_result run = two_slices();
    run.verified = {};
    run.measured.framed = false;
    EXPECT_THAT(
        report_page(run), AllOf(
                              HasSubstr("<h2>Sizes of reads</h2>"),
                              HasSubstr("<dt>Reads</dt><dd>750</dd>")));
}

TEST(ReceiverReport, ASmallBufferComesWithAdvice)
{
    run_result run = two_slices();
    run.buffer_wished = 2048;
    run.buffer_granted = 1024;
    EXPECT_THAT(
        report_page(run),
        AllOf(
            HasSubstr("<td>1 KiB granted of 2 KiB wished; nothing dropped here</td>"),
            HasSubstr("net.core.rmem_max=2048")));
}

// --------------------------------------------------------------------------- charts

TEST(ReceiverReport, EachChartStandsInItsSection)
{
    run_result run = two_slices();
    run.wanted_bps = 160e6;
    const std::string page = report_page(run);
    EXPECT_THAT(chart(page, "rate"), HasSubstr(">wanted 160 Mbps</text>"));
    EXPECT_THAT(chart(page, "gaps"), HasSubstr(">p50 20 \u00b5s</text>"));
    EXPECT_THAT(chart(page, "sizes"), HasSubstr(">bytes</text>"));
}

TEST(ReceiverReport, SizesShowTheirMean)
{
    EXPECT_THAT(
        report_page(two_slices()), HasSubstr("without any header; 500 on average"));
}

// --------------------------------------------------------------------------- faults

TEST(ReceiverReport, AFaultIsARowWithBothSidesAndTheirDifferences)
{
    fault found;
    found.kind = fault_kind::altered;
    found.message = 17;
    found.offset = 3;
    found.arrival = 16;
    found.expected = {0x0a, 0x0b, 0x0c};
    found.received = {0x0a, 0x0f};
    EXPECT_THAT(
        report_page(with_fault(found)),
        HasSubstr(
            "<tr><th scope=\"row\">message 17</th><td><span class=\"kind\">altered</span> "
            "from its byte 3 on (datagram 16)<dl class=\"hex\"><dt>expected</dt><dd>0a "
            "<mark>0b</mark> 0c</dd><dt>received</dt><dd>0a <mark>0f</mark></dd></dl></td></tr>"));
}

TEST(ReceiverReport, ALostMessageHasNoBytesToShow)
{
    fault found;
    found.message = 4;
    EXPECT_THAT(
        report_page(with_fault(found)),
        HasSubstr(
            "<th scope=\"row\">message 4</th><td><span class=\"kind\">lost</span></td>"));
}

TEST(ReceiverReport, FaultsAreCountedByKind)
{
    run_result run = with_fault({});
    run.verified.counts = {1, 2, 3, 4, 5, 6000};
    run.verified.fault_count = 6015;
    EXPECT_THAT(
        report_page(run), AllOf(
                              HasSubstr("<dt>lost</dt><dd>1</dd>"),
                              HasSubstr("<dt>duplicated</dt><dd>2</dd>"),
                              HasSubstr("<dt>reordered</dt><dd>3</dd>"),
                              HasSubstr("<dt>altered</dt><dd>4</dd>"),
                              HasSubstr("<dt>truncated</dt><dd>5</dd>"),
                              HasSubstr("<dt>unexpected</dt><dd>6,000</dd>"),
                              HasSubstr("6,015 faults in all; counted in messages")));
}

TEST(ReceiverReport, TwoHundredFaultsAreShownAndTheOthersCounted)
{
    run_result run = with_fault({});
    run.verified.faults.assign(1000, fault{});
    run.verified.fault_count = 5000;
    const std::string page = report_page(run);
    EXPECT_EQ(pieces(page, "class=\"kind\"", ">").size(), 200u);
    EXPECT_THAT(page, HasSubstr("and 4,800 more"));
}

TEST(ReceiverReport, WithoutFaultsThereIsNoSuchSection)
{
    EXPECT_THAT(report_page(two_slices()), Not(HasSubstr("id=\"faults\"")));
}

} // namespace receiver_report_test
