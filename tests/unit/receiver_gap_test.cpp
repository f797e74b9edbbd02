// What a place with missing messages and strangers comes to, and the log that
// collects its faults. Pairs and runs are worked out by hand.
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fault_log.h"
#include "gap.h"

namespace receiver_gap_test {

using namespace receiver;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

std::vector<uint8_t> bytes(const std::string& text) { return {text.begin(), text.end()}; }

std::string text(const std::vector<uint8_t>& content)
{
    return {content.begin(), content.end()};
}

missing_message missing(uint64_t number, const std::string& payload)
{
    missing_message message;
    message.number = number;
    message.payload = bytes(payload);
    message.key = key_of(message.payload);
    return message;
}

// Arrived while `due` was due and before `next` came.
datagram stranger(
    uint64_t arrival, const std::string& payload, uint64_t due = 1, uint64_t next = 1000)
{
    datagram each;
    each.arrival = arrival;
    each.payload = bytes(payload);
    each.key = key_of(each.payload);
    each.due = due;
    each.next = next;
    return each;
}

// A gap and the datagrams that may be its messages.
struct place {
    gap missing;
    std::vector<datagram> strangers;
};

// More than any of these tests needs.
comparison_allowance plenty() { return comparison_allowance(uint64_t{1} << 30U); }

// For each stranger the index of its message.
std::vector<std::optional<size_t>> pairs_of(
    const place& where, comparison_allowance& allowance)
{
    std::vector<std::optional<size_t>> indices;
    for (const auto& pair : pair_strangers(where.strangers, where.missing, allowance))
        indices.push_back(pair ? std::optional(pair->missing) : std::nullopt);
    return indices;
}

std::vector<std::optional<size_t>> pairs_of(const place& where)
{
    comparison_allowance allowance = plenty();
    return pairs_of(where, allowance);
}

// What comparing all that there is to compare takes.
uint64_t comparisons_of(const place& where)
{
    comparison_allowance allowance = plenty();
    const uint64_t before = allowance.left();
    (void)pairs_of(where, allowance);
    return before - allowance.left();
}

size_t report(const gap& messages, std::vector<datagram>& strangers, fault_log& log)
{
    comparison_allowance allowance = plenty();
    return report_gap(messages, strangers, log, allowance);
}

bool covers(const std::vector<datagram>& strangers, const gap& messages)
{
    comparison_allowance allowance = plenty();
    return is_covered(strangers, messages, allowance);
}

verification reported(place where)
{
    fault_log log;
    (void)report(where.missing, where.strangers, log);
    for (const datagram& left : where.strangers)
        report_stranger(left, log);
    verification result;
    log.finish(result);
    return result;
}

fault of(fault_kind kind, uint64_t message, uint64_t arrival = 0, uint64_t length = 1)
{
    fault each;
    each.kind = kind;
    each.message = message;
    each.arrival = arrival;
    each.length = length;
    return each;
}

verification logged(const std::vector<fault>& faults)
{
    fault_log log;
    for (const fault& each : faults)
        log.add_to_run(each);
    verification result;
    log.finish(result);
    return result;
}

// Kind, message, arrival and length in a row.
std::string told(const fault& each)
{
    return std::string(name_of(each.kind)) + ' ' + std::to_string(each.message) + '@' +
           std::to_string(each.arrival) + '*' + std::to_string(each.length);
}

std::vector<std::string> told(const verification& result)
{
    std::vector<std::string> all;
    for (const fault& each : result.faults)
        all.push_back(told(each));
    return all;
}

// -------------------------------------------------------------------------- pairing

TEST(ReceiverGap, AStrangerIsTheMessageThatItIsMostLike)
{
    const place where{
        {missing(1, "aaaaaaaa"), missing(2, "bbbbbbbb"), missing(3, "cccccccc")},
        {stranger(1, "cccccXcc"), stranger(2, "bbbXbbbb")}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(2U), Optional(1U)));
}

TEST(ReceiverGap, TheLikestPairComesFirst)
{
    // The first stranger is 5/8 like the message, the second one 7/8.
    const place where{
        {missing(1, "abcdefgh"), missing(2, "........")},
        {stranger(1, "abcdeXXX", 1, 3), stranger(2, "abcdefgX", 1, 3)}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(1U), Optional(0U)));
}

TEST(ReceiverGap, AmongEqualLikenessOrderDecides)
{
    const place where{
        {missing(1, "abcdefgh"), missing(2, "abcdefgi")},
        {stranger(1, "abcdefgX"), stranger(2, "abcdefgY")}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(0U), Optional(1U)));
}

TEST(ReceiverGap, AProperPrefixIsAsLikeAsCanBe)
{
    const place where{
        {missing(1, "abcdefgh"), missing(2, "abXdefghijklmnopqrst")},
        {stranger(1, "abX")}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(1U)));
}

// Each byte stands at another place than in the message.
TEST(ReceiverGap, BytesThatWereTakenOutLeaveTheEndsAlike)
{
    for (const char* shortened : {"bcdefghij", "abcghij", "ij"}) {
        const place where{
            {missing(1, "0123456789"), missing(2, "abcdefghij")},
            {stranger(1, shortened, 1, 3)}};
        EXPECT_THAT(pairs_of(where), ElementsAre(Optional(1U))) << shortened;
    }
}

TEST(ReceiverGap, BytesThatWerePutInLeaveTheEndsAlike)
{
    for (const char* longer : {"XXXabcdefghij", "abcdeXXXfghij", "abcdefghijXXX"}) {
        const place where{
            {missing(1, "0123456789"), missing(2, "abcdefghij")},
            {stranger(1, longer, 1, 3)}};
        EXPECT_THAT(pairs_of(where), ElementsAre(Optional(1U))) << longer;
    }
}

TEST(ReceiverGap, BytesInTheMiddleCountAsWell)
{
    const place where{
        {missing(1, "0123456789"), missing(2, "abcdefghij")},
        {stranger(1, "XbcdefghiX", 1, 3)}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(1U)));
}

TEST(ReceiverGap, WhatHasNothingInCommonIsPairedInOrder)
{
    const place where{
        {missing(1, "aaaa"), missing(2, "bbbb"), missing(3, "cccc")},
        {stranger(1, "XXXX", 1, 4), stranger(2, "YYYY", 1, 4)}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(0U), Optional(1U)));
}

TEST(ReceiverGap, WhatIsLeftIsPairedInOrderAroundTheLikeOnes)
{
    const place where{
        {missing(1, "aaaa"), missing(2, "bbbb"), missing(3, "cccc")},
        {stranger(1, "XXXX", 1, 4), stranger(2, "aaaY", 1, 4),
         stranger(3, "ZZZZ", 1, 4)}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(1U), Optional(0U), Optional(2U)));
}

TEST(ReceiverGap, AnEmptyDatagramIsPairedInOrder)
{
    const place where{{missing(1, "aaaa"), missing(2, "bbbb")}, {stranger(1, "", 1, 3)}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(0U)));
}

TEST(ReceiverGap, StrangersTooManyStayAlone)
{
    const place where{
        {missing(1, "aaaa")},
        {stranger(1, "XXXX"), stranger(2, "aaaY"), stranger(3, "ZZZZ")}};
    EXPECT_THAT(pairs_of(where), ElementsAre(std::nullopt, Optional(0U), std::nullopt));
}

TEST(ReceiverGap, WithoutMissingMessagesStrangersStayAlone)
{
    EXPECT_THAT(pairs_of({{}, {stranger(1, "X")}}), ElementsAre(std::nullopt));
    EXPECT_THAT(pairs_of({{missing(1, "a")}, {}}), IsEmpty());
}

TEST(ReceiverGap, AMessageOfTheStrangersOwnPlaceComesBeforeALikerOneElsewhere)
{
    const place where{
        {missing(5, "abcdXXXX"), missing(9, "abcdefgY")},
        {stranger(1, "abcdefgh", 5, 6)}};
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(0U)));
}

TEST(ReceiverGap, WhatHasNothingInCommonIsPairedWithinItsPlaceOnly)
{
    const place where{
        {missing(5, "aaaa"), missing(9, "bbbb")},
        {stranger(1, "XXXX", 9, 10), stranger(2, "YYYY", 9, 10),
         stranger(3, "ZZZZ", 2, 5), stranger(4, "UUUU", 5, 6)}};
    EXPECT_THAT(
        pairs_of(where),
        ElementsAre(Optional(1U), std::nullopt, std::nullopt, Optional(0U)));
}

// Then the stranger may as well be one too many.
TEST(ReceiverGap, NothingIsGuessedWhereOneOfThePlaceHasArrived)
{
    for (const auto& [due, next] :
         {std::pair{1U, 4U}, {2U, 4U}, {1U, 3U}, {3U, 5U}, {3U, 3U}, {4U, 6U}}) {
        const place where{
            {missing(1, "aaaa"), missing(3, "cccc")}, {stranger(1, "XXXX", due, next)}};
        EXPECT_THAT(pairs_of(where), ElementsAre(std::nullopt)) << due << ' ' << next;
    }
    const place whole{
        {missing(1, "aaaa"), missing(3, "cccc")}, {stranger(1, "XXXX", 3, 4)}};
    EXPECT_THAT(pairs_of(whole), ElementsAre(Optional(1U)));
}

TEST(ReceiverGap, TheMessageThatCameNextIsNotOfThePlace)
{
    for (const uint64_t number : {4U, 6U}) {
        const place where{{missing(number, "abcdefgh")}, {stranger(1, "abcXXXXX", 5, 6)}};
        EXPECT_THAT(pairs_of(where), ElementsAre(std::nullopt)) << number;
    }
}

TEST(ReceiverGap, ElsewhereMostBytesHaveToAgree)
{
    const place half{{missing(5, "abcdefgh")}, {stranger(1, "abcdXXXX", 9, 10)}};
    EXPECT_THAT(pairs_of(half), ElementsAre(Optional(0U)));
    const place less{{missing(5, "abcdefgh")}, {stranger(1, "abcXXXXX", 9, 10)}};
    EXPECT_THAT(pairs_of(less), ElementsAre(std::nullopt));
}

// Too many to compare: order alone decides.
TEST(ReceiverGap, ManyStrangersArePairedInOrder)
{
    place where;
    for (uint64_t i = 0; i < 200; ++i) {
        where.missing.push_back(missing(i + 1, "message " + std::to_string(1000 + i)));
        where.strangers.push_back(
            stranger(i + 1, "message X" + std::to_string(1200 - i), 1, 201));
    }
    const auto pairs = pairs_of(where);
    ASSERT_THAT(pairs, SizeIs(200));
    for (size_t i = 0; i < pairs.size(); ++i)
        EXPECT_EQ(pairs[i], i);
}

// ----------------------------------------------------------- how much is compared

std::string filled(size_t size, char with) { return std::string(size, with); }

TEST(ReceiverGap, AComparisonTakesTheShorterOnesBytes)
{
    const std::string longer = filled(300, 'a');
    EXPECT_EQ(
        comparisons_of({{missing(1, longer)}, {stranger(1, filled(200, 'b'))}}), 200U);
    EXPECT_EQ(
        comparisons_of({{missing(1, filled(200, 'b'))}, {stranger(1, longer)}}), 200U);
    EXPECT_EQ(comparisons_of({{missing(1, longer)}, {}}), 0U);
}

TEST(ReceiverGap, TheShortestComparisonTakesAsMuchAsOneOf64Bytes)
{
    for (const size_t size : {0U, 1U, 64U})
        EXPECT_EQ(
            comparisons_of(
                {{missing(1, filled(64, 'a'))}, {stranger(1, filled(size, 'b'))}}),
            64U)
            << size;
    const place where{{missing(1, filled(65, 'a'))}, {stranger(1, filled(65, 'b'))}};
    EXPECT_EQ(comparisons_of(where), 65U);
}

// Each of the three is like the message of its own place, so that nothing is left for
// the other two.
TEST(ReceiverGap, WhatIsPairedInItsOwnPlaceIsComparedWithNothingElsewhere)
{
    place where;
    for (const uint64_t number : {10U, 20U, 30U}) {
        where.missing.push_back(missing(number, filled(100, 'a')));
        where.strangers.push_back(
            stranger(number, filled(99, 'a') + "b", number, number + 1));
    }
    EXPECT_EQ(comparisons_of(where), 300U);
}

TEST(ReceiverGap, WhatFindsNothingInItsOwnPlaceIsComparedElsewhereToo)
{
    // The second and the third are left for each other's messages.
    const place where{
        {missing(10, filled(100, 'a')), missing(20, filled(100, 'b')),
         missing(30, filled(100, 'c'))},
        {stranger(1, filled(100, 'a'), 10, 11), stranger(2, filled(100, 'c'), 20, 21),
         stranger(3, filled(100, 'b'), 30, 31)}};
    EXPECT_EQ(comparisons_of(where), 300U + 200U);
    EXPECT_THAT(pairs_of(where), ElementsAre(Optional(0U), Optional(2U), Optional(1U)));
}

TEST(ReceiverGap, WhereComparingTakesMoreThanIsAllowedOrderDecides)
{
    const place where{
        {missing(1, filled(100, 'a')), missing(2, filled(100, 'b'))},
        {stranger(1, filled(100, 'b'), 1, 3), stranger(2, filled(100, 'a'), 1, 3)}};
    comparison_allowance enough(400);
    EXPECT_THAT(pairs_of(where, enough), ElementsAre(Optional(1U), Optional(0U)));
    EXPECT_EQ(enough.left(), 0U);
    comparison_allowance too_small(399);
    EXPECT_THAT(pairs_of(where, too_small), ElementsAre(Optional(0U), Optional(1U)));
    EXPECT_EQ(too_small.left(), 399U);
}

TEST(ReceiverGap, WhatIsPairedByOrderAloneIsNotCovered)
{
    const std::vector<datagram> strangers{stranger(1, "aaaX", 1, 2)};
    const gap messages{missing(1, "aaaa")};
    EXPECT_TRUE(covers(strangers, messages));
    comparison_allowance none(0);
    EXPECT_FALSE(is_covered(strangers, messages, none));
}

TEST(ReceiverGap, AnAllowanceIsFilledUpToWhatItHeldAtFirst)
{
    comparison_allowance allowance(100);
    EXPECT_FALSE(allowance.take(101));
    EXPECT_TRUE(allowance.take(70));
    allowance.add(20);
    EXPECT_EQ(allowance.left(), 50U);
    allowance.add(51);
    EXPECT_EQ(allowance.left(), 100U);
    allowance.add(UINT64_MAX);
    EXPECT_TRUE(allowance.take(100));
    EXPECT_FALSE(allowance.take(1));
}

// ----------------------------------------------------------------------- reporting

TEST(ReceiverGap, AnAlteredMessageShowsWhereAndWhat)
{
    const std::string payload = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string altered = payload;
    altered[5] = 'X';
    const verification result = reported({{missing(7, payload)}, {stranger(3, altered)}});
    ASSERT_THAT(told(result), ElementsAre("altered 7@3*1"));
    const fault& found = result.faults[0];
    EXPECT_EQ(found.offset, 5U);
    EXPECT_EQ(found.offset_in_message, 5U);
    EXPECT_EQ(text(found.expected), "56789abcdefghijk");
    EXPECT_EQ(text(found.received), "X6789abcdefghijk");
}

TEST(ReceiverGap, ATruncatedMessageShowsWhereItEnds)
{
    const verification result =
        reported({{missing(7, "0123456789")}, {stranger(3, "0123")}});
    ASSERT_THAT(told(result), ElementsAre("truncated 7@3*1"));
    EXPECT_EQ(result.faults[0].offset, 4U);
    EXPECT_EQ(text(result.faults[0].expected), "456789");
    EXPECT_THAT(result.faults[0].received, IsEmpty());
}

TEST(ReceiverGap, AnEmptyDatagramIsATruncatedMessage)
{
    const verification result = reported({{missing(7, "0123")}, {stranger(3, "", 7, 8)}});
    ASSERT_THAT(told(result), ElementsAre("truncated 7@3*1"));
    EXPECT_EQ(result.faults[0].offset, 0U);
}

TEST(ReceiverGap, AMessageThatBecameLongerIsAltered)
{
    const verification result =
        reported({{missing(7, "0123")}, {stranger(3, "0123more")}});
    ASSERT_THAT(told(result), ElementsAre("altered 7@3*1"));
    EXPECT_EQ(result.faults[0].offset, 4U);
    EXPECT_THAT(result.faults[0].expected, IsEmpty());
    EXPECT_EQ(text(result.faults[0].received), "more");
}

TEST(ReceiverGap, WhatNobodyStandsForIsLost)
{
    EXPECT_THAT(
        told(reported({{missing(7, "a"), missing(8, "b"), missing(11, "c")}, {}})),
        ElementsAre("lost 7@0*2", "lost 11@0*1"));
}

TEST(ReceiverGap, AStrangerAloneIsUnexpectedWhereAMessageWasDue)
{
    EXPECT_THAT(
        told(reported({{}, {stranger(3, "X", 7, 7), stranger(4, "Y", 7, 7)}})),
        ElementsAre("unexpected 7@3*2"));
}

TEST(ReceiverGap, AlteredMessagesAreNotDueAnyMore)
{
    const verification result = reported(
        {{missing(7, "aaaa")}, {stranger(3, "aaXa", 7, 8), stranger(4, "what", 7, 8)}});
    EXPECT_THAT(told(result), ElementsAre("altered 7@3*1", "unexpected 8@4*1"));
}

TEST(ReceiverGap, TheNumberOfLostMessagesIsReturned)
{
    fault_log log;
    gap messages{missing(1, "aaaa"), missing(2, "bbbb"), missing(3, "cccc")};
    std::vector<datagram> strangers{stranger(1, "bbXb")};
    EXPECT_EQ(report(messages, strangers, log), 2U);
}

TEST(ReceiverGap, StrangersThatWereNoMessageOfTheGapAreLeft)
{
    fault_log log;
    gap messages{missing(5, "aaaa")};
    std::vector<datagram> strangers{
        stranger(1, "XXXX", 2, 3), stranger(2, "aaYa", 5, 6), stranger(3, "ZZZZ", 9, 10)};
    EXPECT_EQ(report(messages, strangers, log), 0U);
    ASSERT_THAT(strangers, SizeIs(2));
    EXPECT_EQ(strangers[0].arrival, 1U);
    EXPECT_EQ(strangers[0].due, 2U);
    EXPECT_EQ(strangers[1].arrival, 3U);
    EXPECT_EQ(strangers[1].due, 9U);
}

TEST(ReceiverGap, AllOfAMixedPlaceIsCounted)
{
    const verification result = reported(
        {{missing(1, "aaaa"), missing(2, "bbbb"), missing(3, "cccccccc")},
         {stranger(1, "bbXb"), stranger(2, "ccccc")}});
    EXPECT_THAT(
        told(result), ElementsAre("lost 1@0*1", "altered 2@1*1", "truncated 3@2*1"));
    EXPECT_EQ(result.count(fault_kind::lost), 1U);
    EXPECT_EQ(result.count(fault_kind::altered), 1U);
    EXPECT_EQ(result.count(fault_kind::truncated), 1U);
    EXPECT_EQ(result.fault_count, 3U);
}

// -------------------------------------------------------------------------- covered

TEST(ReceiverGap, AGapIsCoveredWhenEachMessageHasItsLikeness)
{
    const gap messages{missing(1, "aaaaaaaa"), missing(2, "bbbbbbbb")};
    EXPECT_TRUE(covers({stranger(1, "aaaXaaaa"), stranger(2, "bbbbbbbY")}, messages));
    EXPECT_TRUE(covers(
        {stranger(1, "aaaXaaaa"), stranger(2, "ZZZZZZZZ"), stranger(3, "bbbb")},
        messages));
}

TEST(ReceiverGap, AGapIsNotCoveredByFewerOrUnlikeStrangers)
{
    const gap messages{missing(1, "aaaaaaaa"), missing(2, "bbbbbbbb")};
    EXPECT_FALSE(covers({stranger(1, "aaaXaaaa")}, messages));
    EXPECT_FALSE(covers({stranger(1, "aaaXaaaa"), stranger(2, "ZZZZZZZZ")}, messages));
    EXPECT_FALSE(covers({stranger(1, "aaaXaaaa"), stranger(2, "aaaaXaaa")}, messages));
}

// ------------------------------------------------------------------------------ log

TEST(ReceiverFaultLog, WithoutFaultsItIsEmpty)
{
    const verification result = logged({});
    EXPECT_THAT(result.faults, IsEmpty());
    EXPECT_EQ(result.fault_count, 0U);
    EXPECT_THAT(result.counts, testing::Each(0U));
}

TEST(ReceiverFaultLog, NeighbouringLostMessagesAreOneFault)
{
    const verification result = logged(
        {of(fault_kind::lost, 3), of(fault_kind::lost, 4), of(fault_kind::lost, 5)});
    EXPECT_THAT(told(result), ElementsAre("lost 3@0*3"));
    EXPECT_EQ(result.fault_count, 1U);
    EXPECT_EQ(result.count(fault_kind::lost), 3U);
}

TEST(ReceiverFaultLog, AMessageInBetweenStartsANewFault)
{
    EXPECT_THAT(
        told(logged({of(fault_kind::lost, 3), of(fault_kind::lost, 5)})),
        ElementsAre("lost 3@0*1", "lost 5@0*1"));
}

TEST(ReceiverFaultLog, RunsOfSeveralContinueEachOther)
{
    EXPECT_THAT(
        told(logged({of(fault_kind::lost, 3, 0, 4), of(fault_kind::lost, 7, 0, 2)})),
        ElementsAre("lost 3@0*6"));
}

TEST(ReceiverFaultLog, WhatArrivedContinuesInBothNumbers)
{
    for (const fault_kind kind : {fault_kind::duplicated, fault_kind::reordered}) {
        const std::string name = name_of(kind);
        EXPECT_THAT(
            told(logged({of(kind, 3, 10), of(kind, 4, 11), of(kind, 5, 12)})),
            ElementsAre(name + " 3@10*3"));
        EXPECT_THAT(
            told(logged({of(kind, 3, 10), of(kind, 4, 12)})),
            ElementsAre(name + " 3@10*1", name + " 4@12*1"));
        EXPECT_THAT(
            told(logged({of(kind, 3, 10), of(kind, 5, 11)})),
            ElementsAre(name + " 3@10*1", name + " 5@11*1"));
        EXPECT_THAT(
            told(logged({of(kind, 3, 10), of(kind, 3, 11)})),
            ElementsAre(name + " 3@10*1", name + " 3@11*1"));
    }
}

TEST(ReceiverFaultLog, UnexpectedOnesContinueAtTheSameMessage)
{
    EXPECT_THAT(
        told(logged(
            {of(fault_kind::unexpected, 3, 10), of(fault_kind::unexpected, 3, 11),
             of(fault_kind::unexpected, 3, 13), of(fault_kind::unexpected, 4, 14)})),
        ElementsAre("unexpected 3@10*2", "unexpected 3@13*1", "unexpected 4@14*1"));
}

TEST(ReceiverFaultLog, AlteredAndTruncatedOnesStaySingle)
{
    for (const fault_kind kind : {fault_kind::altered, fault_kind::truncated})
        EXPECT_THAT(told(logged({of(kind, 3, 10), of(kind, 4, 11)})), SizeIs(2));
}

TEST(ReceiverFaultLog, AnotherKindDoesNotEndARun)
{
    EXPECT_THAT(
        told(logged(
            {of(fault_kind::lost, 3), of(fault_kind::duplicated, 1, 9),
             of(fault_kind::lost, 4)})),
        ElementsAre("duplicated 1@9*1", "lost 3@0*2"));
}

TEST(ReceiverFaultLog, FaultsThatAreAddedAsTheyAreDoNotJoin)
{
    fault_log log;
    log.add(of(fault_kind::lost, 3));
    log.add(of(fault_kind::lost, 4, 0, 7));
    EXPECT_EQ(log.fault_count(), 2U);
    verification result;
    log.finish(result);
    EXPECT_THAT(told(result), ElementsAre("lost 3@0*1", "lost 4@0*7"));
    EXPECT_EQ(result.count(fault_kind::lost), 8U);
}

TEST(ReceiverFaultLog, AnUnfinishedRunCountsAsOne)
{
    fault_log log;
    EXPECT_EQ(log.fault_count(), 0U);
    log.add_to_run(of(fault_kind::lost, 3));
    EXPECT_EQ(log.fault_count(), 1U);
    log.add_to_run(of(fault_kind::lost, 4));
    EXPECT_EQ(log.fault_count(), 1U);
    log.add_to_run(of(fault_kind::lost, 9));
    log.add_to_run(of(fault_kind::duplicated, 1, 5));
    EXPECT_EQ(log.fault_count(), 3U);
}

TEST(ReceiverFaultLog, FaultsAreSortedByMessageAndThenByArrival)
{
    fault altered = of(fault_kind::altered, 5, 6);
    altered.offset = 100;
    EXPECT_THAT(
        told(logged(
            {of(fault_kind::unexpected, 9, 2), of(fault_kind::duplicated, 5, 8), altered,
             of(fault_kind::lost, 7), of(fault_kind::reordered, 2, 30)})),
        ElementsAre(
            "reordered 2@30*1", "altered 5@6*1", "duplicated 5@8*1", "lost 7@0*1",
            "unexpected 9@2*1"));
}

TEST(ReceiverFaultLog, FaultsWithinAMessageOfAStreamAreSortedByOffset)
{
    fault_log log;
    for (const uint64_t offset : {900U, 100U, 500U}) {
        fault each = of(fault_kind::altered, 1);
        each.offset = offset;
        log.add(each);
    }
    verification result;
    log.finish(result);
    EXPECT_EQ(result.faults[0].offset, 100U);
    EXPECT_EQ(result.faults[1].offset, 500U);
    EXPECT_EQ(result.faults[2].offset, 900U);
}

TEST(ReceiverFaultLog, AThousandFaultsAreKeptAndAllAreCounted)
{
    std::vector<fault> faults;
    for (uint64_t i = 1; i <= 1000; ++i)
        faults.push_back(of(fault_kind::altered, i, i));
    EXPECT_THAT(logged(faults).faults, SizeIs(1000));
    for (uint64_t i = 1001; i <= 1500; ++i)
        faults.push_back(of(fault_kind::altered, i, i));
    const verification result = logged(faults);
    EXPECT_THAT(result.faults, SizeIs(1000));
    EXPECT_EQ(result.faults.back().message, 1000U);
    EXPECT_EQ(result.fault_count, 1500U);
    EXPECT_EQ(result.count(fault_kind::altered), 1500U);
}

// It is the first by its position, though its run is closed only in the end.
TEST(ReceiverFaultLog, TheFirstFaultIsKeptAlsoWhenItsRunIsOpenToTheEnd)
{
    std::vector<fault> faults = {of(fault_kind::lost, 1)};
    for (uint64_t i = 2; i <= 1500; ++i)
        faults.push_back(of(fault_kind::altered, i, i));
    const verification result = logged(faults);
    ASSERT_THAT(result.faults, SizeIs(1000));
    EXPECT_EQ(told(result.faults[0]), "lost 1@0*1");
    EXPECT_EQ(told(result.faults[999]), "altered 1000@1000*1");
}

} // namespace receiver_gap_test
