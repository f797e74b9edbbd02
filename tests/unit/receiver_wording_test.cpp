// The sentences that terminal and page share: what they say for each way a run can go,
// and how they name the place of a fault.
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/results.h"
#include "wording.h"

namespace receiver_wording_test {

using namespace receiver;
using support::as_expected;
using support::found;
using support::stream;
using support::with_faults;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

run_result without_source()
{
    run_result run = as_expected();
    run.source.clear();
    run.verified = {};
    return run;
}

// ----------------------------------------------------------------------------- verdicts

TEST(ReceiverWording, AGoodRunSaysHowMuchIsInItsPlace)
{
    EXPECT_EQ(
        verdict_text(as_expected()),
        "As expected: 100,000 messages, 50,000,000 bytes, every byte in its place.");
    EXPECT_EQ(mood_of(as_expected()), mood::good);
}

TEST(ReceiverWording, AGoodRunWithoutAnEndIsGoodUpToWhereItEnded)
{
    run_result run = as_expected();
    run.verified.expected_bytes.reset();
    run.verified.expected_messages.reset();
    EXPECT_THAT(
        verdict_text(run), EndsWith("every byte in its place up to the end of the run."));
}

TEST(ReceiverWording, AnEmptySourceIsFulfilledByNothing)
{
    run_result run = as_expected();
    run.measured = {};
    run.verified.expected_messages = 0;
    run.verified.expected_bytes = 0;
    EXPECT_EQ(
        verdict_text(run), "As expected: the source is empty, and nothing arrived.");
}

TEST(ReceiverWording, WithoutASourceNothingIsClaimed)
{
    EXPECT_EQ(
        verdict_text(without_source()),
        "Received 100,000 messages, 50,000,000 bytes; not compared: no --filepath.");
    EXPECT_EQ(mood_of(without_source()), mood::plain);
    EXPECT_EQ(comparison_text(without_source()), "not compared: no --filepath");
}

TEST(ReceiverWording, UnknownMessagesAreCalledReads)
{
    run_result run = without_source();
    run.measured.framed = false;
    EXPECT_THAT(verdict_text(run), StartsWith("Received 100,000 reads, "));
}

TEST(ReceiverWording, FaultsAreCountedByKindAndTheFirstIsPlaced)
{
    EXPECT_EQ(
        verdict_text(with_faults()),
        "3 messages lost, 1 altered: 99,996 of 100,000 messages arrived whole, "
        "first fault at messages 17 to 19.");
    EXPECT_EQ(mood_of(with_faults()), mood::bad);
}

TEST(ReceiverWording, FaultsOfAStreamAreCountedInBytes)
{
    run_result run = stream();
    run.status = exit_status::content;
    run.verified.matched_bytes = 49'999'990;
    run.verified.counts = {10, 0, 0, 0, 0, 0};
    run.verified.faults = {found(fault_kind::lost, 3, 10)};
    run.verified.faults[0].offset = 20'500;
    EXPECT_EQ(
        verdict_text(run), "10 bytes lost: 49,999,990 of 50,000,000 bytes arrived "
                           "whole, first fault at offset 20,500.");
}

TEST(ReceiverWording, OwnDropsLeaveTheRunUndecided)
{
    run_result run = with_faults();
    run.status = exit_status::undecided;
    run.own_drops = 5;
    EXPECT_EQ(
        verdict_text(run), "Undecided: 3 messages lost, but this receiver itself "
                           "dropped 5; the sender may have sent them all.");
    EXPECT_EQ(mood_of(run), mood::doubtful);
}

TEST(ReceiverWording, AWrongRateIsTheOnlyThingWrong)
{
    run_result run = as_expected();
    run.status = exit_status::rate;
    run.rate_error_percent = 3.25;
    run.measured.rate_bps = 206.5e6;
    EXPECT_EQ(
        verdict_text(run), "Wrong rate: 206.5 Mbps instead of 200 Mbps, which is "
                           "+3.25% off (tolerance 0.5%); the content is as expected.");
    EXPECT_EQ(mood_of(run), mood::doubtful);
    run.verified = {};
    EXPECT_THAT(
        verdict_text(run), EndsWith("the content was not compared (no --filepath)."));
}

TEST(ReceiverWording, AnEarlyEndSaysHowMuchWasRightAndWhyItEnded)
{
    run_result run = as_expected();
    run.status = exit_status::early;
    run.reason = end_reason::signal;
    run.verified.matched_messages = 400;
    EXPECT_EQ(
        verdict_text(run), "Ended early: 400 of 100,000 messages arrived, all as they "
                           "should, then a signal ended the run.");
}

TEST(ReceiverWording, NothingArrivedIsSaidAtOnce)
{
    run_result run = as_expected();
    run.status = exit_status::early;
    run.reason = end_reason::duration;
    run.measured = {};
    EXPECT_EQ(verdict_text(run), "Nothing arrived: the time was up (--duration).");
}

TEST(ReceiverWording, AFailureIsToldWithItsProblemOnce)
{
    run_result run = as_expected();
    run.status = exit_status::file;
    run.problems = {"cannot write day.json: disk full"};
    EXPECT_EQ(verdict_text(run), "A file failed: cannot write day.json: disk full.");
    EXPECT_THAT(further_problems(run), IsEmpty());
    run.status = exit_status::connection;
    EXPECT_THAT(verdict_text(run), StartsWith("No connection: cannot write"));
}

TEST(ReceiverWording, AnUnreadableSourceIsTheProblem)
{
    run_result run = as_expected();
    run.status = exit_status::file;
    run.verified.source_error = "day.pcap is cut off";
    EXPECT_EQ(verdict_text(run), "A file failed: day.pcap is cut off.");
    EXPECT_THAT(
        comparison_text(run), HasSubstr("the source ends early: day.pcap is cut off"));
}

// -------------------------------------------------------------------------------- lines

TEST(ReceiverWording, ARateNeedsTwoArrivals)
{
    run_result run = as_expected();
    run.measured.duration_ns = 0;
    EXPECT_EQ(rate_line(run), "none: it takes two arrivals to measure one");
}

TEST(ReceiverWording, AStreamThatWasNotMatchedAgainSaysSo)
{
    run_result run = stream();
    run.verified.gave_up = true;
    EXPECT_THAT(
        comparison_text(run), EndsWith("; no match found again after the last fault"));
}

TEST(ReceiverWording, AFullBufferWithoutDropsNeedsNoAdvice)
{
    EXPECT_EQ(
        buffer_text(as_expected()), "64 MiB granted as wished; nothing dropped here");
    EXPECT_THAT(advice_text(as_expected()), IsEmpty());
}

TEST(ReceiverWording, ASmallBufferComesWithTheCommandThatEnlargesIt)
{
    run_result run = as_expected();
    run.buffer_granted = 425'984;
    EXPECT_EQ(buffer_text(run), "416 KiB granted of 64 MiB wished; nothing dropped here");
    EXPECT_EQ(
        advice_text(run), "For the whole buffer raise the kernel's limit (sysctl -w "
                          "net.core.rmem_max=67108864) or run with CAP_NET_ADMIN.");
}

TEST(ReceiverWording, DropsInAFullBufferAskForALargerOne)
{
    run_result run = as_expected();
    run.own_drops = 1;
    EXPECT_THAT(buffer_text(run), EndsWith("; 1 message dropped here"));
    EXPECT_THAT(
        advice_text(run), AllOf(
                              HasSubstr("--rcvbuf"), HasSubstr("net.core.rmem_max"),
                              HasSubstr("CAP_NET_ADMIN")));
}

TEST(ReceiverWording, AStreamHasNoDropsToSpeakOf)
{
    run_result run = stream();
    run.buffer_granted = 1024;
    EXPECT_EQ(buffer_text(run), "1 KiB granted of 64 MiB wished");
    EXPECT_THAT(advice_text(run), IsEmpty());
}

// ------------------------------------------------------------------------------- faults

TEST(ReceiverWording, AFaultInDatagramsNamesMessageAndDatagram)
{
    const run_result run = with_faults();
    fault one = found(fault_kind::duplicated, 1200, 2);
    one.arrival = 1198;
    EXPECT_EQ(fault_place(run, one), "messages 1,200 to 1,201");
    EXPECT_EQ(fault_text(run, one), "duplicated (datagrams 1,198 to 1,199)");
    EXPECT_EQ(fault_text(run, run.verified.faults[0]), "lost");
    EXPECT_EQ(
        fault_text(run, run.verified.faults[1]),
        "altered from its byte 12 on (datagram 37)");
}

TEST(ReceiverWording, SomethingUnexpectedStandsBeforeTheMessageThatWasDue)
{
    fault one = found(fault_kind::unexpected, 9, 3);
    one.arrival = 9;
    EXPECT_EQ(fault_place(with_faults(), one), "before message 9");
    EXPECT_EQ(fault_text(with_faults(), one), "unexpected (datagrams 9 to 11)");
}

TEST(ReceiverWording, AFaultInAStreamNamesItsOffsetAndItsMessage)
{
    fault one = found(fault_kind::truncated, 3, 5000);
    one.offset = 20'500;
    one.offset_in_message = 20;
    EXPECT_EQ(fault_place(stream(), one), "offset 20,500");
    EXPECT_EQ(
        fault_text(stream(), one), "5,000 bytes truncated (message 3, its byte 20)");
}

} // namespace receiver_wording_test
