// The exit status: what each finding alone comes to, and which of several wins.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include "verdict.h"

namespace receiver_verdict_test {

using namespace receiver;

// A replay of which everything is there.
run_result whole_run()
{
    run_result run;
    run.protocol = "udp";
    run.verified.attempted = true;
    run.measured.messages = 10;
    run.measured.bytes = 1000;
    return run;
}

circumstances all_arrived()
{
    circumstances known;
    known.more_was_expected = true;
    known.total_arrived = true;
    return known;
}

void add(run_result& run, fault_kind kind, uint64_t count = 1)
{
    run.verified.counts[static_cast<size_t>(kind)] += count;
    ++run.verified.fault_count;
}

void set_rate_error(run_result& run, double percent)
{
    run.wanted_bps = 1e6;
    run.rate_error_percent = percent;
}

TEST(ReceiverVerdict, AWholeReplayIsAsExpected)
{
    EXPECT_EQ(judge(whole_run(), all_arrived()), exit_status::as_expected);
}

TEST(ReceiverVerdict, TheStatusesHaveTheirNumbers)
{
    EXPECT_EQ(static_cast<int>(exit_status::as_expected), 0);
    EXPECT_EQ(static_cast<int>(exit_status::content), 1);
    EXPECT_EQ(static_cast<int>(exit_status::usage), 2);
    EXPECT_EQ(static_cast<int>(exit_status::connection), 3);
    EXPECT_EQ(static_cast<int>(exit_status::rate), 4);
    EXPECT_EQ(static_cast<int>(exit_status::undecided), 5);
    EXPECT_EQ(static_cast<int>(exit_status::file), 6);
    EXPECT_EQ(static_cast<int>(exit_status::early), 7);
}

TEST(ReceiverVerdict, AnyFaultIsOfTheContent)
{
    for (const fault_kind kind :
         {fault_kind::lost, fault_kind::duplicated, fault_kind::reordered,
          fault_kind::altered, fault_kind::truncated, fault_kind::unexpected}) {
        run_result run = whole_run();
        add(run, kind);
        EXPECT_EQ(judge(run, all_arrived()), exit_status::content) << name_of(kind);
    }
}

TEST(ReceiverVerdict, DropsOfItsOwnLeaveWhatIsLostUndecided)
{
    run_result run = whole_run();
    add(run, fault_kind::lost, 5);
    run.own_drops = 5;
    EXPECT_EQ(judge(run, {}), exit_status::undecided);
    run.own_drops = 6;
    EXPECT_EQ(judge(run, {}), exit_status::undecided);
}

TEST(ReceiverVerdict, MoreLostThanItDroppedIsOfTheContent)
{
    run_result run = whole_run();
    add(run, fault_kind::lost, 5);
    run.own_drops = 4;
    EXPECT_EQ(judge(run, {}), exit_status::content);
    run.own_drops = 0;
    EXPECT_EQ(judge(run, {}), exit_status::content);
}

TEST(ReceiverVerdict, AnotherFaultBesideOwnDropsIsOfTheContent)
{
    for (const fault_kind kind :
         {fault_kind::duplicated, fault_kind::reordered, fault_kind::altered,
          fault_kind::truncated, fault_kind::unexpected}) {
        run_result run = whole_run();
        add(run, fault_kind::lost, 2);
        add(run, kind);
        run.own_drops = 100;
        EXPECT_EQ(judge(run, {}), exit_status::content) << name_of(kind);
    }
}

TEST(ReceiverVerdict, DropsThatCostNothingAreNoFault)
{
    run_result run = whole_run();
    run.own_drops = 3;
    EXPECT_EQ(judge(run, all_arrived()), exit_status::as_expected);
}

TEST(ReceiverVerdict, AFileThatFailedIsItsOwnStatus)
{
    circumstances known = all_arrived();
    known.file_failed = true;
    EXPECT_EQ(judge(whole_run(), known), exit_status::file);
}

TEST(ReceiverVerdict, AFiniteTotalThatDidNotArriveIsEarly)
{
    circumstances known;
    known.more_was_expected = true;
    EXPECT_EQ(judge(whole_run(), known), exit_status::early);
}

TEST(ReceiverVerdict, AnEndlessReplayMayEndAtAnyTime)
{
    EXPECT_EQ(judge(whole_run(), {}), exit_status::as_expected);
}

TEST(ReceiverVerdict, WithoutASourceAnyArrivalWillDo)
{
    run_result run = whole_run();
    run.verified.attempted = false;
    EXPECT_EQ(judge(run, {}), exit_status::as_expected);
}

TEST(ReceiverVerdict, ARunInWhichNothingArrivedIsEarly)
{
    for (const bool finite : {false, true}) {
        run_result run;
        circumstances known;
        known.more_was_expected = finite;
        EXPECT_EQ(judge(run, known), exit_status::early) << finite;
    }
}

TEST(ReceiverVerdict, NothingIsEnoughWhereNothingIsExpected)
{
    EXPECT_EQ(judge(run_result(), all_arrived()), exit_status::as_expected);
}

TEST(ReceiverVerdict, TheUsersOwnLimitIsATotal)
{
    circumstances known;
    known.total_arrived = true; // of an endless replay, or without a source
    EXPECT_EQ(judge(whole_run(), known), exit_status::as_expected);
}

TEST(ReceiverVerdict, ARateOutsideItsToleranceIsItsOwnStatus)
{
    for (const double percent : {0.51, -0.51, 100.0, -100.0}) {
        run_result run = whole_run();
        set_rate_error(run, percent);
        EXPECT_EQ(judge(run, all_arrived()), exit_status::rate) << percent;
    }
}

TEST(ReceiverVerdict, ARateAtItsToleranceIsAsExpected)
{
    for (const double percent : {0.5, -0.5, 0.0}) {
        run_result run = whole_run();
        set_rate_error(run, percent);
        EXPECT_EQ(judge(run, all_arrived()), exit_status::as_expected) << percent;
    }
}

TEST(ReceiverVerdict, TheUsersToleranceCounts)
{
    run_result run = whole_run();
    set_rate_error(run, -3);
    run.tolerance_percent = 3;
    EXPECT_EQ(judge(run, all_arrived()), exit_status::as_expected);
    run.tolerance_percent = 0;
    EXPECT_EQ(judge(run, all_arrived()), exit_status::rate);
}

TEST(ReceiverVerdict, WithoutARateToCompareThereIsNoRateError)
{
    run_result run = whole_run();
    run.wanted_bps = 1e6;
    run.tolerance_percent = 0;
    EXPECT_EQ(judge(run, all_arrived()), exit_status::as_expected);
}

// Every set of findings, against the order: content, file, undecided, early, rate.
TEST(ReceiverVerdict, OfSeveralFindingsTheFirstInOrderWins)
{
    for (unsigned findings = 0; findings < 32; ++findings) {
        const auto has = [&](unsigned bit) { return (findings >> bit & 1U) != 0; };
        run_result run = whole_run();
        circumstances known = all_arrived();
        exit_status expected = exit_status::as_expected;
        if (has(4)) {
            set_rate_error(run, 7);
            expected = exit_status::rate;
        }
        if (has(3)) {
            known.total_arrived = false;
            expected = exit_status::early;
        }
        if (has(2)) {
            add(run, fault_kind::lost, 2);
            run.own_drops = 2;
            expected = exit_status::undecided;
        }
        if (has(1)) {
            known.file_failed = true;
            expected = exit_status::file;
        }
        if (has(0)) {
            add(run, fault_kind::altered);
            expected = exit_status::content;
        }
        EXPECT_EQ(judge(run, known), expected) << findings;
    }
}

} // namespace receiver_verdict_test
