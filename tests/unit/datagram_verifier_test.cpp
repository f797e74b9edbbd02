// Datagrams against their source: each kind of fault worked out by hand, then random
// patterns of faults against a reference that knows where every datagram came from.
// The rules behind the hand-worked cases stand in front of each group.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "datagram_verifier.h"
#include "support/fault_patterns.h"
#include "support/processor_time.h"

namespace datagram_verifier_test {

using receiver::datagram_verifier;
using receiver::fault;
using receiver::fault_kind;
using receiver::verification;
using support::arrival;
using support::dice;
using support::fault_limits;
using support::fault_pattern;
using support::listed_source;
using support::outcome;
using support::payload;
using testing::ElementsAre;
using testing::IsEmpty;

using told_faults = std::vector<std::string>;

constexpr size_t WINDOW = 64;
constexpr size_t SIZE = 32; // of the messages in hand-worked cases

// A fault in words: its kind, its message, then what else is known of it.
std::string told(const fault& one)
{
    std::string text = receiver::name_of(one.kind);
    text += " " + std::to_string(one.message);
    if (one.length != 1)
        text += " x" + std::to_string(one.length);
    if (one.arrival != 0)
        text += " @" + std::to_string(one.arrival);
    if (one.kind == fault_kind::altered || one.kind == fault_kind::truncated)
        text += " byte " + std::to_string(one.offset_in_message);
    return text;
}

told_faults told(const std::vector<fault>& faults)
{
    told_faults texts;
    for (const fault& one : faults)
        texts.push_back(told(one));
    return texts;
}

std::string script_of(
    const std::vector<payload>& messages, const std::vector<arrival>& arrivals)
{
    std::string text = std::to_string(messages.size()) + " messages, arrivals:";
    for (const arrival& one : arrivals) {
        text += one.message == 0 ? " x" : " " + std::to_string(one.message);
        if (one.message > 0 && one.bytes != messages[one.message - 1])
            text += "'";
    }
    return text;
}

payload message_bytes(uint64_t message) { return dice(message).bytes(SIZE); }

std::vector<payload> hand_messages(uint64_t count)
{
    std::vector<payload> made;
    for (uint64_t message = 1; message <= count; ++message)
        made.push_back(message_bytes(message));
    return made;
}

// One word of a script: "7" is message 7, "7~3" has its byte 3 changed, "7/5" is cut
// to 5 bytes, "7+2" has 2 bytes more, "7~3/5" is changed and cut, "x" is a stranger.
arrival arrival_of(const std::string& word, uint64_t stranger)
{
    if (word == "x")
        return {0, dice(1000000 + stranger).bytes(SIZE)};
    std::istringstream input(word);
    arrival made;
    input >> made.message;
    made.bytes = message_bytes(made.message);
    char change = 0;
    for (size_t number = 0; input >> change >> number;) {
        if (change == '~')
            made.bytes[number] = static_cast<uint8_t>(made.bytes[number] + 1);
        else if (change == '/')
            made.bytes.resize(number);
        else
            made.bytes.resize(SIZE + number, uint8_t{0xAB});
    }
    return made;
}

// Words as above; "3-6" stands for 3 4 5 6 and "x*4" for four different strangers.
std::vector<arrival> arrivals_of(const std::string& script)
{
    std::vector<arrival> made;
    std::istringstream words(script);
    for (std::string word; words >> word;) {
        const size_t dash = word.find('-');
        if (dash != std::string::npos) {
            const uint64_t last = std::stoull(word.substr(dash + 1));
            for (uint64_t next = std::stoull(word); next <= last; ++next)
                made.push_back(arrival_of(std::to_string(next), 0));
        } else if (word.starts_with("x*")) {
            for (uint64_t left = std::stoull(word.substr(2)); left > 0; --left)
                made.push_back(arrival_of("x", made.size()));
        } else {
            made.push_back(arrival_of(word, made.size()));
        }
    }
    return made;
}

// The datagram's bytes are gone once it has been taken, as in a receive buffer.
void arrive(datagram_verifier& verifier, const payload& bytes)
{
    payload buffer = bytes;
    verifier.arrived(buffer);
    std::fill(buffer.begin(), buffer.end(), uint8_t{0xDD});
}

// The books balance whatever the faults: every message and every datagram is
// accounted for once.
void expect_balance(const verification& result, uint64_t messages, uint64_t arrivals)
{
    const auto count = [&result](fault_kind kind) { return result.count(kind); };
    EXPECT_EQ(
        result.matched_messages + count(fault_kind::lost) + count(fault_kind::altered) +
            count(fault_kind::truncated),
        messages);
    EXPECT_EQ(
        result.matched_messages + count(fault_kind::duplicated) +
            count(fault_kind::altered) + count(fault_kind::truncated) +
            count(fault_kind::unexpected),
        arrivals);
    EXPECT_LE(count(fault_kind::reordered), result.matched_messages);
}

// What is listed agrees with what is counted.
void expect_list_fits_counts(const verification& result)
{
    ASSERT_LE(result.faults.size(), result.fault_count);
    if (result.faults.size() != result.fault_count)
        return;
    decltype(result.counts) listed{};
    for (const fault& one : result.faults)
        listed[static_cast<size_t>(one.kind)] += one.length;
    EXPECT_EQ(listed, result.counts);
    const auto by_place = [](const fault& a, const fault& b) {
        return std::tie(a.message, a.arrival) < std::tie(b.message, b.arrival);
    };
    EXPECT_TRUE(std::is_sorted(result.faults.begin(), result.faults.end(), by_place));
}

verification verified(
    const std::vector<payload>& messages, const std::vector<arrival>& arrivals,
    size_t window = WINDOW)
{
    listed_source source(messages);
    datagram_verifier verifier(source, window);
    for (const arrival& one : arrivals)
        arrive(verifier, one.bytes);
    verification result = verifier.finish(true);
    expect_balance(result, messages.size(), arrivals.size());
    expect_list_fits_counts(result);
    EXPECT_EQ(result.expected_messages, messages.size());
    EXPECT_EQ(result.expected_bytes, support::total_size(messages));
    return result;
}

verification play(const std::string& script, uint64_t count = 10, size_t window = WINDOW)
{
    return verified(hand_messages(count), arrivals_of(script), window);
}

told_faults faults_of(
    const std::string& script, uint64_t count = 10, size_t window = WINDOW)
{
    return told(play(script, count, window).faults);
}

// The reference, against answers worked out by hand.

told_faults reference_faults(const std::string& script, uint64_t count = 10)
{
    const std::vector<payload> messages = hand_messages(count);
    return told(support::expected_outcome(messages, arrivals_of(script)).faults);
}

TEST(FaultReference, FindsNothingInAnUndisturbedSequence)
{
    EXPECT_THAT(reference_faults("1-10"), IsEmpty());
}

TEST(FaultReference, NamesSingleFaults)
{
    EXPECT_THAT(reference_faults("1-4 6-10"), ElementsAre("lost 5"));
    EXPECT_THAT(reference_faults("1-5 5-10"), ElementsAre("duplicated 5 @6"));
    EXPECT_THAT(reference_faults("1-4 6 5 7-10"), ElementsAre("reordered 5 @6"));
    EXPECT_THAT(reference_faults("1-4 5~7 6-10"), ElementsAre("altered 5 @5 byte 7"));
    EXPECT_THAT(reference_faults("1-4 5/7 6-10"), ElementsAre("truncated 5 @5 byte 7"));
    EXPECT_THAT(reference_faults("1-4 x 5-10"), ElementsAre("unexpected 5 @5"));
}

TEST(FaultReference, MergesWhatContinues)
{
    EXPECT_THAT(
        reference_faults("1 4 5-6 5-6 9 8 7 x*3"),
        ElementsAre(
            "lost 2 x2", "duplicated 5 x2 @5", "reordered 7 @9", "reordered 8 @8",
            "lost 10", "unexpected 10 x3 @10"));
}

TEST(FaultReference, SeparatesTwoRoundsOfTheSameDuplicates)
{
    EXPECT_THAT(
        reference_faults("1-4 3-4 3-10"),
        ElementsAre("duplicated 3 x2 @5", "duplicated 3 x2 @7"));
}

TEST(FaultReference, TakesAChangedCopyOfAWholeMessageForAStranger)
{
    EXPECT_THAT(reference_faults("1-5 5~1 6-10"), ElementsAre("unexpected 6 @6"));
    EXPECT_THAT(reference_faults("1-4 5~1 5-10"), ElementsAre("unexpected 5 @5"));
}

// As it should be.

TEST(DatagramVerifier, FindsNoFaultInAnUndisturbedSequence)
{
    const verification result = play("1-10");

    EXPECT_TRUE(result.attempted);
    EXPECT_THAT(result.faults, IsEmpty());
    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.matched_messages, 10u);
    EXPECT_EQ(result.matched_bytes, 10 * SIZE);
    EXPECT_FALSE(result.gave_up);
    EXPECT_EQ(result.source_error, "");
}

TEST(DatagramVerifier, FindsNoFaultInALongSequence)
{
    dice random(1);
    const std::vector<payload> messages = support::unique_payloads(random, 20000);
    listed_source source(messages);
    datagram_verifier verifier(source, WINDOW);
    for (const payload& one : messages)
        arrive(verifier, one);

    const verification result = verifier.finish(true);
    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.matched_messages, 20000u);
    EXPECT_EQ(result.matched_bytes, support::total_size(messages));
}

TEST(DatagramVerifier, TakesASingleMessage) { EXPECT_THAT(faults_of("1", 1), IsEmpty()); }

TEST(DatagramVerifier, TakesMessagesOfEverySizeUpToALargeDatagram)
{
    dice random(2);
    std::vector<payload> messages;
    for (const size_t size : {1u, 2u, 3u, 15u, 16u, 17u, 1500u, 9000u, 65507u})
        messages.push_back(random.bytes(size));
    std::vector<arrival> arrivals;
    for (const payload& one : messages)
        arrivals.push_back({arrivals.size() + 1, one});

    EXPECT_EQ(verified(messages, arrivals).fault_count, 0u);
}

// Lost: what never arrives.

TEST(DatagramVerifier, ReportsALostMessageInTheMiddle)
{
    const verification result = play("1-4 6-10");

    EXPECT_THAT(told(result.faults), ElementsAre("lost 5"));
    EXPECT_EQ(result.count(fault_kind::lost), 1u);
    EXPECT_EQ(result.matched_messages, 9u);
    EXPECT_EQ(result.matched_bytes, 9 * SIZE);
}

TEST(DatagramVerifier, ReportsALostFirstMessage)
{
    EXPECT_THAT(faults_of("2-10"), ElementsAre("lost 1"));
}

TEST(DatagramVerifier, ReportsALostLastMessage)
{
    EXPECT_THAT(faults_of("1-9"), ElementsAre("lost 10"));
}

TEST(DatagramVerifier, ReportsALostBurstAsOneFault)
{
    EXPECT_THAT(faults_of("1-3 8-10"), ElementsAre("lost 4 x4"));
    EXPECT_THAT(faults_of("5-10"), ElementsAre("lost 1 x4"));
    EXPECT_THAT(faults_of("1-6"), ElementsAre("lost 7 x4"));
}

TEST(DatagramVerifier, ReportsSeparateLossesSeparately)
{
    const verification result = play("1 3 5 7 9");

    EXPECT_THAT(
        told(result.faults),
        ElementsAre("lost 2", "lost 4", "lost 6", "lost 8", "lost 10"));
    EXPECT_EQ(result.fault_count, 5u);
}

TEST(DatagramVerifier, ReportsEverythingButTheLastLost)
{
    EXPECT_THAT(faults_of("10"), ElementsAre("lost 1 x9"));
}

TEST(DatagramVerifier, ReportsABurstOfAlmostTheWindow)
{
    EXPECT_THAT(faults_of("1-10 70-100", 100), ElementsAre("lost 11 x59"));
}

TEST(DatagramVerifier, ReportsEverythingLostWhenNothingArrives)
{
    const verification result = play("");

    EXPECT_THAT(told(result.faults), ElementsAre("lost 1 x10"));
    EXPECT_EQ(result.fault_count, 1u);
    EXPECT_EQ(result.matched_messages, 0u);
}

TEST(DatagramVerifier, ReportsOneFaultWhenMuchMoreThanTheWindowIsMissingAtTheEnd)
{
    const verification result = play("1-10", 5000);

    EXPECT_THAT(told(result.faults), ElementsAre("lost 11 x4990"));
    EXPECT_EQ(result.fault_count, 1u);
}

// Duplicated: what has arrived before. The message is the original's, the arrival
// that of the surplus datagram.

TEST(DatagramVerifier, ReportsADuplicateRightBehindItsOriginal)
{
    const verification result = play("1-5 5-10");

    EXPECT_THAT(told(result.faults), ElementsAre("duplicated 5 @6"));
    EXPECT_EQ(result.count(fault_kind::duplicated), 1u);
    EXPECT_EQ(result.matched_messages, 10u);
    EXPECT_EQ(result.matched_bytes, 10 * SIZE);
}

TEST(DatagramVerifier, ReportsADuplicateOfTheFirstMessage)
{
    EXPECT_THAT(faults_of("1 1-10"), ElementsAre("duplicated 1 @2"));
}

TEST(DatagramVerifier, ReportsADuplicateOfTheLastMessage)
{
    EXPECT_THAT(faults_of("1-10 10"), ElementsAre("duplicated 10 @11"));
}

TEST(DatagramVerifier, ReportsADuplicateThatComesLater)
{
    EXPECT_THAT(faults_of("1-8 2 9-10"), ElementsAre("duplicated 2 @9"));
    EXPECT_THAT(faults_of("1-10 1"), ElementsAre("duplicated 1 @11"));
}

TEST(DatagramVerifier, ReportsARepeatedBlockAsOneFault)
{
    EXPECT_THAT(faults_of("1-5 3-10"), ElementsAre("duplicated 3 x3 @6"));
    EXPECT_THAT(faults_of("1-10 1-10"), ElementsAre("duplicated 1 x10 @11"));
}

TEST(DatagramVerifier, ReportsMessagesThatAllComeTwiceOneByOne)
{
    EXPECT_THAT(
        faults_of("1 1 2 2 3 3", 3),
        ElementsAre("duplicated 1 @2", "duplicated 2 @4", "duplicated 3 @6"));
}

TEST(DatagramVerifier, ReportsADuplicateOfADuplicate)
{
    const verification result = play("1-5 5 5-10");

    EXPECT_THAT(told(result.faults), ElementsAre("duplicated 5 @6", "duplicated 5 @7"));
    EXPECT_EQ(result.count(fault_kind::duplicated), 2u);
}

TEST(DatagramVerifier, ReportsABlockThatComesThreeTimes)
{
    EXPECT_THAT(
        faults_of("1-4 3-4 3-10"),
        ElementsAre("duplicated 3 x2 @5", "duplicated 3 x2 @7"));
}

// What the rest leaves open may not turn a known message into a stranger.

TEST(DatagramVerifier, KnowsADuplicateNearTheEndOfTheSource)
{
    EXPECT_THAT(
        faults_of("x 1 1 1", 1),
        ElementsAre("unexpected 1 @1", "duplicated 1 @3", "duplicated 1 @4"));
    EXPECT_THAT(
        faults_of("3 1-2 4 4", 4), ElementsAre("reordered 1 x2 @2", "duplicated 4 @5"));
    EXPECT_THAT(
        faults_of("1 1 2 1 1 2 2", 2), ElementsAre(
                                           "duplicated 1 @2", "duplicated 1 @4",
                                           "duplicated 1 x2 @5", "duplicated 2 @7"));
    EXPECT_THAT(
        faults_of("8 6 7 9 10 10 1-5"),
        ElementsAre("reordered 1 x5 @7", "reordered 6 x2 @2", "duplicated 10 @6"));
}

TEST(DatagramVerifier, TakesADuplicateForNoAlterationOfALostMessage)
{
    EXPECT_THAT(
        faults_of("2 2 2", 2),
        ElementsAre("lost 1", "duplicated 2 @2", "duplicated 2 @3"));
}

// Reordered: what arrives behind a message that follows it.

TEST(DatagramVerifier, ReportsTheLaterOneOfTwoSwappedNeighbours)
{
    const verification result = play("1-4 6 5 7-10");

    EXPECT_THAT(told(result.faults), ElementsAre("reordered 5 @6"));
    EXPECT_EQ(result.count(fault_kind::reordered), 1u);
    EXPECT_EQ(result.count(fault_kind::lost), 0u);
    EXPECT_EQ(result.matched_messages, 10u);
    EXPECT_EQ(result.matched_bytes, 10 * SIZE);
}

TEST(DatagramVerifier, ReportsASwapAtTheStart)
{
    EXPECT_THAT(faults_of("2 1 3-10"), ElementsAre("reordered 1 @2"));
}

TEST(DatagramVerifier, ReportsASwapAtTheEnd)
{
    EXPECT_THAT(faults_of("1-8 10 9"), ElementsAre("reordered 9 @10"));
}

TEST(DatagramVerifier, ReportsAMessageThatIsLateByMany)
{
    EXPECT_THAT(faults_of("1-4 6-40 5 41-50", 50), ElementsAre("reordered 5 @40"));
    EXPECT_THAT(faults_of("2-50 1", 50), ElementsAre("reordered 1 @50"));
}

TEST(DatagramVerifier, ReportsABlockThatIsLateAsOneFault)
{
    EXPECT_THAT(faults_of("1-2 6-8 3-5 9-10"), ElementsAre("reordered 3 x3 @6"));
}

TEST(DatagramVerifier, ReportsWhatABlockThatIsEarlyHasOvertaken)
{
    EXPECT_THAT(faults_of("1 7-8 2-6 9-10"), ElementsAre("reordered 2 x5 @4"));
}

TEST(DatagramVerifier, ReportsEachOfABlockThatComesBackwards)
{
    EXPECT_THAT(
        faults_of("1-2 6 5 4 3 7-10"),
        ElementsAre("reordered 3 @6", "reordered 4 @5", "reordered 5 @4"));
}

TEST(DatagramVerifier, ReportsTwoLateMessagesThatComeApart)
{
    EXPECT_THAT(
        faults_of("1 4 2 5 3 6-10"), ElementsAre("reordered 2 @3", "reordered 3 @5"));
}

TEST(DatagramVerifier, KeepsUpWithNeighboursThatAreSwappedAllAlong)
{
    constexpr uint64_t COUNT = 8000;
    std::string script;
    told_faults expected;
    for (uint64_t message = 1; message < COUNT; message += 2) {
        script += std::to_string(message + 1) + " " + std::to_string(message) + " ";
        if (expected.size() < 1000)
            expected.push_back(
                "reordered " + std::to_string(message) + " @" +
                std::to_string(message + 1));
    }
    const verification result = play(script, COUNT);

    EXPECT_EQ(told(result.faults), expected);
    EXPECT_EQ(result.fault_count, COUNT / 2);
    EXPECT_EQ(result.count(fault_kind::reordered), COUNT / 2);
    EXPECT_EQ(result.matched_messages, COUNT);
}

// Altered: other bytes in the place of a message. Truncated: its beginning only.

TEST(DatagramVerifier, ReportsAnAlteredByte)
{
    const verification result = play("1-4 5~7 6-10");

    EXPECT_THAT(told(result.faults), ElementsAre("altered 5 @5 byte 7"));
    EXPECT_EQ(result.faults[0].offset, 7u);
    EXPECT_EQ(result.count(fault_kind::altered), 1u);
    EXPECT_EQ(result.matched_messages, 9u);
    EXPECT_EQ(result.matched_bytes, 9 * SIZE);
}

TEST(DatagramVerifier, ReportsAnAlteredFirstByte)
{
    EXPECT_THAT(faults_of("1-4 5~0 6-10"), ElementsAre("altered 5 @5 byte 0"));
}

TEST(DatagramVerifier, ReportsAnAlteredLastByte)
{
    EXPECT_THAT(faults_of("1-4 5~31 6-10"), ElementsAre("altered 5 @5 byte 31"));
}

TEST(DatagramVerifier, ReportsTheFirstAndTheLastMessageAltered)
{
    EXPECT_THAT(faults_of("1~3 2-10"), ElementsAre("altered 1 @1 byte 3"));
    EXPECT_THAT(faults_of("1-9 10~3"), ElementsAre("altered 10 @10 byte 3"));
}

TEST(DatagramVerifier, ReportsTheOnlyMessageAltered)
{
    EXPECT_THAT(faults_of("1~3", 1), ElementsAre("altered 1 @1 byte 3"));
}

TEST(DatagramVerifier, ReportsAlteredNeighboursSingly)
{
    const verification result = play("1-3 4~1 5~2 6~3 7-10");

    EXPECT_THAT(
        told(result.faults),
        ElementsAre("altered 4 @4 byte 1", "altered 5 @5 byte 2", "altered 6 @6 byte 3"));
    EXPECT_EQ(result.fault_count, 3u);
}

TEST(DatagramVerifier, ReportsADatagramLongerThanItsMessageFromTheMessagesEnd)
{
    EXPECT_THAT(faults_of("1-4 5+1 6-10"), ElementsAre("altered 5 @5 byte 32"));
    EXPECT_THAT(faults_of("1-4 5+100 6-10"), ElementsAre("altered 5 @5 byte 32"));
}

TEST(DatagramVerifier, ReportsAShorterDatagramWithOtherBytesAsAltered)
{
    EXPECT_THAT(faults_of("1-4 5~9/20 6-10"), ElementsAre("altered 5 @5 byte 9"));
    EXPECT_THAT(faults_of("1-4 5~9/10 6-10"), ElementsAre("altered 5 @5 byte 9"));
}

TEST(DatagramVerifier, ReportsADatagramWithoutItsEndAsTruncated)
{
    const verification result = play("1-4 5/20 6-10");

    EXPECT_THAT(told(result.faults), ElementsAre("truncated 5 @5 byte 20"));
    EXPECT_EQ(result.faults[0].offset, 20u);
    EXPECT_EQ(result.count(fault_kind::truncated), 1u);
    EXPECT_EQ(result.count(fault_kind::altered), 0u);
    EXPECT_EQ(result.matched_messages, 9u);
}

TEST(DatagramVerifier, ReportsTruncationByOneByteAndToOneByte)
{
    EXPECT_THAT(faults_of("1-4 5/31 6-10"), ElementsAre("truncated 5 @5 byte 31"));
    EXPECT_THAT(faults_of("1-4 5/1 6-10"), ElementsAre("truncated 5 @5 byte 1"));
}

TEST(DatagramVerifier, ReportsAnEmptyDatagramInTheMessagesPlaceAsTruncated)
{
    EXPECT_THAT(faults_of("1-4 5/0 6-10"), ElementsAre("truncated 5 @5 byte 0"));
    EXPECT_THAT(faults_of("1/0 2-10"), ElementsAre("truncated 1 @1 byte 0"));
    EXPECT_THAT(faults_of("1-9 10/0"), ElementsAre("truncated 10 @10 byte 0"));
}

TEST(DatagramVerifier, ReportsTruncatedNeighboursSingly)
{
    EXPECT_THAT(
        faults_of("1-3 4/9 5/8 6-10"),
        ElementsAre("truncated 4 @4 byte 9", "truncated 5 @5 byte 8"));
}

TEST(DatagramVerifier, ReportsOtherBytesInAMessagesPlaceAsAltered)
{
    const verification result = play("1-4 x 6-10");

    ASSERT_EQ(result.fault_count, 1u);
    EXPECT_EQ(result.faults[0].kind, fault_kind::altered);
    EXPECT_EQ(result.faults[0].message, 5u);
    EXPECT_EQ(result.faults[0].arrival, 5u);
}

// Excerpts: up to 16 bytes from the first difference on, of both sides.

payload part(const payload& bytes, size_t from, size_t to)
{
    return {
        bytes.begin() + static_cast<ptrdiff_t>(from),
        bytes.begin() + static_cast<ptrdiff_t>(to)};
}

TEST(DatagramVerifier, ShowsSixteenBytesOfBothSidesOfAnAlteration)
{
    const verification result = play("1-4 5~7 6-10");

    ASSERT_EQ(result.faults.size(), 1u);
    const payload arrived = arrival_of("5~7", 0).bytes;
    EXPECT_EQ(result.faults[0].expected, part(message_bytes(5), 7, 23));
    EXPECT_EQ(result.faults[0].received, part(arrived, 7, 23));
}

TEST(DatagramVerifier, ShowsFewerBytesNearTheEndOfTheMessage)
{
    const verification result = play("1-4 5~30 6-10");

    ASSERT_EQ(result.faults.size(), 1u);
    const payload arrived = arrival_of("5~30", 0).bytes;
    EXPECT_EQ(result.faults[0].expected, part(message_bytes(5), 30, 32));
    EXPECT_EQ(result.faults[0].received, part(arrived, 30, 32));
}

TEST(DatagramVerifier, ShowsNothingReceivedBehindATruncation)
{
    const verification result = play("1-4 5/10 6-10");

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_EQ(result.faults[0].expected, part(message_bytes(5), 10, 26));
    EXPECT_THAT(result.faults[0].received, IsEmpty());
}

TEST(DatagramVerifier, ShowsNothingExpectedBehindTheMessagesEnd)
{
    const verification result = play("1-4 5+3 6-10");

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_THAT(result.faults[0].expected, IsEmpty());
    EXPECT_EQ(result.faults[0].received, payload(3, 0xAB));
}

TEST(DatagramVerifier, ShowsNoBytesExpectedWhereNothingDiffers)
{
    for (const char* script : {"1-4 6-10", "1-5 5-10", "1-4 6 5 7-10"}) {
        const verification result = play(script);
        ASSERT_EQ(result.faults.size(), 1u) << script;
        EXPECT_LE(result.faults[0].expected.size(), 16u) << script;
        EXPECT_LE(result.faults[0].received.size(), 16u) << script;
    }
}

// Unexpected: what is no message of the source. The message is the one that was due.

TEST(DatagramVerifier, ReportsAStrangerBetweenTwoMessages)
{
    const verification result = play("1-4 x 5-10");

    EXPECT_THAT(told(result.faults), ElementsAre("unexpected 5 @5"));
    EXPECT_EQ(result.count(fault_kind::unexpected), 1u);
    EXPECT_EQ(result.matched_messages, 10u);
}

TEST(DatagramVerifier, ReportsAStrangerInFront)
{
    EXPECT_THAT(faults_of("x 1-10"), ElementsAre("unexpected 1 @1"));
}

TEST(DatagramVerifier, ReportsSurplusBehindTheEnd)
{
    EXPECT_THAT(faults_of("1-10 x"), ElementsAre("unexpected 11 @11"));
    EXPECT_THAT(faults_of("1-10 x*5"), ElementsAre("unexpected 11 x5 @11"));
}

TEST(DatagramVerifier, ReportsStrangersInARowAsOneFault)
{
    EXPECT_THAT(faults_of("1-4 x*6 5-10"), ElementsAre("unexpected 5 x6 @5"));
    EXPECT_THAT(faults_of("x*3 1-10"), ElementsAre("unexpected 1 x3 @1"));
}

TEST(DatagramVerifier, ReportsStrangersInDifferentPlacesSeparately)
{
    EXPECT_THAT(
        faults_of("1-2 x 3 x 4-10"), ElementsAre("unexpected 3 @3", "unexpected 4 @5"));
}

TEST(DatagramVerifier, ReportsAnEmptyDatagramTooManyAsUnexpected)
{
    EXPECT_THAT(faults_of("1-4 5/0 5-10"), ElementsAre("unexpected 5 @5"));
}

TEST(DatagramVerifier, ReportsAChangedCopyBehindTheWholeMessageAsUnexpected)
{
    EXPECT_THAT(faults_of("1-5 5~3 6-10"), ElementsAre("unexpected 6 @6"));
    EXPECT_THAT(faults_of("1-10 10/4"), ElementsAre("unexpected 11 @11"));
}

TEST(DatagramVerifier, ReportsAChangedCopyInFrontOfTheWholeMessageAsUnexpected)
{
    EXPECT_THAT(faults_of("1-4 5~3 5-10"), ElementsAre("unexpected 5 @5"));
}

TEST(DatagramVerifier, ReportsEverythingUnexpectedWhenTheSourceIsEmpty)
{
    const verification result = play("x*3", 0);

    EXPECT_THAT(told(result.faults), ElementsAre("unexpected 1 x3 @1"));
    EXPECT_EQ(result.expected_messages, 0u);
    EXPECT_EQ(result.expected_bytes, 0u);
}

// An alteration keeps the place of its message: behind those in front of it.

TEST(DatagramVerifier, TakesNoStrangerForALostMessageFarFromItsPlace)
{
    EXPECT_THAT(faults_of("1-2 4-7 x 8-10"), ElementsAre("lost 3", "unexpected 8 @7"));
    EXPECT_THAT(faults_of("x 1-7 9-10"), ElementsAre("unexpected 1 @1", "lost 8"));
}

TEST(DatagramVerifier, TakesNoAlterationForALostMessageInFrontOfOthers)
{
    EXPECT_THAT(
        faults_of("2-4 5~3/30 6-10"), ElementsAre("lost 1", "altered 5 @4 byte 3"));
}

// Most bytes of a message stay in their places, in front and behind the changed one.
TEST(DatagramVerifier, KnowsAMessageThatIsAlteredAndShorter)
{
    EXPECT_THAT(
        faults_of("1-4 6~7/30 7-10"), ElementsAre("lost 5", "altered 6 @5 byte 7"));
    EXPECT_THAT(faults_of("2~0/31", 2), ElementsAre("lost 1", "altered 2 @1 byte 0"));
}

TEST(DatagramVerifier, KnowsAMessageThatIsAlteredAndLonger)
{
    EXPECT_THAT(
        faults_of("1-4 6~7+3 7-10"), ElementsAre("lost 5", "altered 6 @5 byte 7"));
}

// Neighbours of different kinds.

TEST(DatagramVerifier, TellsALossFromAnAlterationBehindIt)
{
    EXPECT_THAT(faults_of("1-4 6~3 7-10"), ElementsAre("lost 5", "altered 6 @5 byte 3"));
}

TEST(DatagramVerifier, TellsALossFromAnAlterationInFrontOfIt)
{
    EXPECT_THAT(faults_of("1-3 4~3 6-10"), ElementsAre("altered 4 @4 byte 3", "lost 5"));
}

TEST(DatagramVerifier, TellsLossesFromAnAlterationBetweenThem)
{
    EXPECT_THAT(
        faults_of("1-2 5~3 8-10"),
        ElementsAre("lost 3 x2", "altered 5 @3 byte 3", "lost 6 x2"));
}

TEST(DatagramVerifier, TellsALossFromATruncationBesideIt)
{
    EXPECT_THAT(
        faults_of("1-4 6/12 7-10"), ElementsAre("lost 5", "truncated 6 @5 byte 12"));
    EXPECT_THAT(
        faults_of("1-3 4/12 6-10"), ElementsAre("truncated 4 @4 byte 12", "lost 5"));
}

TEST(DatagramVerifier, TellsALossFromAnAlterationAtTheEnd)
{
    EXPECT_THAT(faults_of("1-8 10~3"), ElementsAre("lost 9", "altered 10 @9 byte 3"));
    EXPECT_THAT(faults_of("1-8 9~3"), ElementsAre("altered 9 @9 byte 3", "lost 10"));
}

TEST(DatagramVerifier, TellsALossFromAnAlterationAtTheStart)
{
    EXPECT_THAT(faults_of("2~3 3-10"), ElementsAre("lost 1", "altered 2 @1 byte 3"));
    EXPECT_THAT(faults_of("1~3 3-10"), ElementsAre("altered 1 @1 byte 3", "lost 2"));
}

TEST(DatagramVerifier, TellsAlterationsFromLossesInAMixedBurst)
{
    EXPECT_THAT(
        faults_of("1 3~1 4/20 6~2 8-10"),
        ElementsAre(
            "lost 2", "altered 3 @2 byte 1", "truncated 4 @3 byte 20", "lost 5",
            "altered 6 @4 byte 2", "lost 7"));
}

TEST(DatagramVerifier, TellsASwapFromALossBehindIt)
{
    EXPECT_THAT(faults_of("1-2 4 3 6-10"), ElementsAre("reordered 3 @4", "lost 5"));
}

TEST(DatagramVerifier, TellsASwapFromALossInFrontOfIt)
{
    EXPECT_THAT(faults_of("1-2 5 4 6-10"), ElementsAre("lost 3", "reordered 4 @4"));
}

TEST(DatagramVerifier, TellsASwapFromAnAlterationBesideIt)
{
    EXPECT_THAT(
        faults_of("1-2 4 3 5~6 6-10"),
        ElementsAre("reordered 3 @4", "altered 5 @5 byte 6"));
    EXPECT_THAT(
        faults_of("1 2~6 4 3 5-10"),
        ElementsAre("altered 2 @2 byte 6", "reordered 3 @4"));
}

TEST(DatagramVerifier, TellsALateMessageFromALossAmongThoseThatOvertookIt)
{
    EXPECT_THAT(faults_of("1-2 4 6-7 3 8-10"), ElementsAre("reordered 3 @6", "lost 5"));
}

TEST(DatagramVerifier, TellsALateMessageFromAnAlterationAmongThoseThatOvertookIt)
{
    EXPECT_THAT(
        faults_of("1-2 4~5 5-6 3 7-10"),
        ElementsAre("reordered 3 @6", "altered 4 @3 byte 5"));
}

TEST(DatagramVerifier, TellsADuplicateFromALossBesideIt)
{
    EXPECT_THAT(faults_of("1-4 4 6-10"), ElementsAre("duplicated 4 @5", "lost 5"));
    EXPECT_THAT(faults_of("1-4 6 4 7-10"), ElementsAre("duplicated 4 @6", "lost 5"));
}

TEST(DatagramVerifier, TellsADuplicateFromAnAlterationBesideIt)
{
    EXPECT_THAT(
        faults_of("1-4 4 5~3 6-10"),
        ElementsAre("duplicated 4 @5", "altered 5 @6 byte 3"));
    EXPECT_THAT(
        faults_of("1-4 5~3 4 6-10"),
        ElementsAre("duplicated 4 @6", "altered 5 @5 byte 3"));
}

TEST(DatagramVerifier, TellsADuplicateOfALateMessage)
{
    EXPECT_THAT(
        faults_of("1-2 4 3 3 5-10"), ElementsAre("reordered 3 @4", "duplicated 3 @5"));
}

TEST(DatagramVerifier, TellsAStrangerFromTheDuplicateBesideIt)
{
    EXPECT_THAT(
        faults_of("1-4 x 4 5-10"), ElementsAre("duplicated 4 @6", "unexpected 5 @5"));
}

TEST(DatagramVerifier, TellsAStrangerFromASwapBesideIt)
{
    EXPECT_THAT(
        faults_of("1-4 x 6 5 7-10"), ElementsAre("unexpected 5 @5", "reordered 5 @7"));
}

TEST(DatagramVerifier, TellsAStrangerFromTheAlterationBesideIt)
{
    EXPECT_THAT(
        faults_of("1-4 x 5~20 6-10"),
        ElementsAre("unexpected 5 @5", "altered 5 @6 byte 20"));
}

TEST(DatagramVerifier, CountsStrangersInThePlaceOfLostMessagesAsAltered)
{
    const verification result = play("1-3 x*2 7-10");

    EXPECT_EQ(result.count(fault_kind::altered), 2u);
    EXPECT_EQ(result.count(fault_kind::lost), 1u);
    EXPECT_EQ(result.count(fault_kind::unexpected), 0u);
}

TEST(DatagramVerifier, CountsOneLostMessageAndTwoStrangersInItsPlaceOnce)
{
    const verification result = play("1-3 x*2 5-10");

    EXPECT_EQ(result.count(fault_kind::altered), 1u);
    EXPECT_EQ(result.count(fault_kind::unexpected), 1u);
    EXPECT_EQ(result.count(fault_kind::lost), 0u);
}

TEST(DatagramVerifier, ReportsEveryKindInOneSequence)
{
    const verification result = play("2 1 4 4 5~1 6/9 x 7-9");

    EXPECT_THAT(
        told(result.faults),
        ElementsAre(
            "reordered 1 @2", "lost 3", "duplicated 4 @4", "altered 5 @5 byte 1",
            "truncated 6 @6 byte 9", "unexpected 7 @7", "lost 10"));
    EXPECT_EQ(result.counts, (decltype(result.counts){2, 1, 1, 1, 1, 1}));
    EXPECT_EQ(result.fault_count, 7u);
    EXPECT_EQ(result.matched_messages, 6u);
}

// The window.

TEST(DatagramVerifier, TakesAMessageBehindTheWindowForLostAndItsArrivalForAStranger)
{
    const verification result = play("1-4 6-100 5 101-110", 110, 16);

    EXPECT_THAT(told(result.faults), ElementsAre("lost 5", "unexpected 101 @100"));
}

TEST(DatagramVerifier, TakesADuplicateBehindTheWindowForAStranger)
{
    EXPECT_THAT(
        faults_of("1-100 5 101-110", 110, 16), ElementsAre("unexpected 101 @101"));
}

// Twice the window is as far behind as a hundred times.

TEST(DatagramVerifier, ForgetsWhatIsNotFarBehindTheWindow)
{
    EXPECT_THAT(
        faults_of("1-4 6-37 5 38-110", 110, 16),
        ElementsAre("lost 5", "unexpected 38 @37"));
    EXPECT_THAT(faults_of("1-37 5 38-110", 110, 16), ElementsAre("unexpected 38 @38"));
}

TEST(DatagramVerifier, FindsALateMessageWellInsideTheWindow)
{
    EXPECT_THAT(faults_of("1-4 6-14 5 15-50", 50, 16), ElementsAre("reordered 5 @14"));
}

TEST(DatagramVerifier, FindsADuplicateWellInsideTheWindow)
{
    EXPECT_THAT(faults_of("1-14 5 15-50", 50, 16), ElementsAre("duplicated 5 @15"));
}

TEST(DatagramVerifier, ResolvesSingleFaultsInTheSmallestWindow)
{
    for (const size_t window : {0u, 1u}) {
        EXPECT_THAT(faults_of("1-10", 10, window), IsEmpty());
        EXPECT_THAT(faults_of("1-4 6-10", 10, window), ElementsAre("lost 5"));
        EXPECT_THAT(faults_of("1-5 5-10", 10, window), ElementsAre("duplicated 5 @6"));
        EXPECT_THAT(faults_of("1-4 x 5-10", 10, window), ElementsAre("unexpected 5 @5"));
        EXPECT_THAT(
            faults_of("1-4 5~3 6-10", 10, window), ElementsAre("altered 5 @5 byte 3"));
    }
}

TEST(DatagramVerifier, ResolvesASwapInAWindowOfTwo)
{
    EXPECT_THAT(faults_of("1-4 6 5 7-10", 10, 2), ElementsAre("reordered 5 @6"));
}

TEST(DatagramVerifier, FindsEverythingInAWindowLargerThanTheSource)
{
    EXPECT_THAT(
        faults_of("1-2 4-9 3 1 10", 10, 4096),
        ElementsAre("duplicated 1 @10", "reordered 3 @9"));
}

TEST(DatagramVerifier, KeepsItsBooksWhenFaultsExceedTheWindow)
{
    dice random(3);
    for (int round = 0; round < 300; ++round) {
        const auto messages = support::unique_payloads(random, random.between(1, 200));
        const fault_pattern pattern(random, messages, {8, 12, 60});
        SCOPED_TRACE(script_of(messages, pattern.arrivals()));
        verified(messages, pattern.arrivals(), random.between(1, 8));
        if (testing::Test::HasFailure())
            return;
    }
}

// Settled faults are counted on the way, and never taken back.

TEST(DatagramVerifier, CountsFaultsOnTheWay)
{
    const std::vector<payload> messages = hand_messages(200);
    listed_source source(messages);
    datagram_verifier verifier(source, 16);
    uint64_t before = 0;
    for (const arrival& one : arrivals_of("1-9 11-49 51 50 52-100 100-199")) {
        arrive(verifier, one.bytes);
        EXPECT_GE(verifier.fault_count(), before);
        before = verifier.fault_count();
    }
    EXPECT_EQ(verifier.fault_count(), 3u); // all of them far behind the window
    EXPECT_EQ(verifier.finish(true).fault_count, 4u);
}

TEST(DatagramVerifier, CountsNoFaultWhileThereIsNone)
{
    const std::vector<payload> messages = hand_messages(200);
    listed_source source(messages);
    datagram_verifier verifier(source, 16);
    for (const payload& one : messages) {
        arrive(verifier, one);
        EXPECT_EQ(verifier.fault_count(), 0u);
    }
}

// Completeness: all of the source has arrived, in whatever order.

// Before the first and behind each arrival: 1 for complete.
std::string completeness(const std::string& script, uint64_t count)
{
    listed_source source(hand_messages(count));
    datagram_verifier verifier(source, WINDOW);
    std::string told_bits = verifier.complete() ? "1" : "0";
    for (const arrival& one : arrivals_of(script)) {
        arrive(verifier, one.bytes);
        told_bits += verifier.complete() ? "1" : "0";
    }
    return told_bits;
}

TEST(DatagramVerifier, IsCompleteWithTheLastMessage)
{
    EXPECT_EQ(completeness("1-5", 5), "000001");
    EXPECT_EQ(completeness("1", 1), "01");
}

TEST(DatagramVerifier, IsCompleteFromTheStartWhenTheSourceIsEmpty)
{
    EXPECT_EQ(completeness("", 0), "1");
}

TEST(DatagramVerifier, IsNotCompleteBeforeALateMessageHasArrived)
{
    EXPECT_EQ(completeness("1 2 4 5 3", 5), "000001");
    EXPECT_EQ(completeness("2-5 1", 5), "000001");
}

TEST(DatagramVerifier, IsNotCompleteByTheNumberOfDatagrams)
{
    EXPECT_EQ(completeness("1-4 4 5", 5), "0000001");
    EXPECT_EQ(completeness("1-4 x 5", 5), "0000001");
    EXPECT_EQ(completeness("1-3 3 3 3 4", 5), "00000000");
}

TEST(DatagramVerifier, IsNeverCompleteWhenAMessageIsLost)
{
    EXPECT_EQ(completeness("1-2 4-5", 5), "00000");
    EXPECT_EQ(completeness("2-5", 5), "00000");
    EXPECT_EQ(completeness("1-4", 5), "00000");
}

TEST(DatagramVerifier, StaysCompleteWhenMoreArrives)
{
    EXPECT_EQ(completeness("1-3 x", 3), "00011");
    EXPECT_EQ(completeness("1-3 2", 3), "00011");
}

TEST(DatagramVerifier, IsCompleteBehindAnAlteredMessage)
{
    const std::string told_bits = completeness("1-2 3~1 4-9", 9);
    EXPECT_EQ(told_bits, "0000000001");
}

// The rest of the source.

TEST(DatagramVerifier, ReportsNoRestThatIsNotDue)
{
    listed_source source(hand_messages(10));
    datagram_verifier verifier(source, WINDOW);
    for (const arrival& one : arrivals_of("1-4"))
        arrive(verifier, one.bytes);
    const verification result = verifier.finish(false);

    EXPECT_THAT(result.faults, IsEmpty());
    EXPECT_EQ(result.matched_messages, 4u);
    EXPECT_EQ(result.expected_messages, std::nullopt);
    EXPECT_EQ(result.expected_bytes, std::nullopt);
}

TEST(DatagramVerifier, ReportsALossInFrontOfTheLastArrivalThoughTheRestIsNotDue)
{
    listed_source source(hand_messages(10));
    datagram_verifier verifier(source, WINDOW);
    for (const arrival& one : arrivals_of("1-2 4-5"))
        arrive(verifier, one.bytes);
    const verification result = verifier.finish(false);

    EXPECT_THAT(told(result.faults), ElementsAre("lost 3"));
}

TEST(DatagramVerifier, ReportsNothingWhenNothingArrivesAndNothingIsDue)
{
    listed_source source(hand_messages(10));
    datagram_verifier verifier(source, WINDOW);
    const verification result = verifier.finish(false);

    EXPECT_TRUE(result.attempted);
    EXPECT_EQ(result.fault_count, 0u);
}

TEST(DatagramVerifier, KnowsTheTotalWhenTheSourceHasEndedThoughNothingMoreIsDue)
{
    listed_source source(hand_messages(3));
    datagram_verifier verifier(source, WINDOW);
    for (const arrival& one : arrivals_of("1-3"))
        arrive(verifier, one.bytes);
    const verification result = verifier.finish(false);

    EXPECT_EQ(result.expected_messages, 3u);
    EXPECT_EQ(result.expected_bytes, 3 * SIZE);
}

TEST(DatagramVerifier, FollowsAnEndlessSource)
{
    const std::vector<payload> list = hand_messages(7);
    listed_source source(list, 0);
    datagram_verifier verifier(source, WINDOW);
    for (size_t i = 0; i < 7000; ++i) {
        arrive(verifier, list[i % 7]);
        ASSERT_FALSE(verifier.complete());
    }
    const verification result = verifier.finish(false);

    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.matched_messages, 7000u);
    EXPECT_EQ(result.expected_messages, std::nullopt);
    EXPECT_EQ(result.expected_bytes, std::nullopt);
}

TEST(DatagramVerifier, ReadsAnEndlessSourceNoFurtherThanItNeeds)
{
    const std::vector<payload> list = hand_messages(7);
    listed_source source(list, 0);
    datagram_verifier verifier(source, WINDOW);
    for (size_t i = 0; i < 7000; ++i)
        arrive(verifier, list[i % 7]);
    for (uint64_t i = 0; i < 1000; ++i)
        arrive(verifier, arrival_of("x", i).bytes);
    verifier.finish(false);

    EXPECT_LE(source.given(), 8000 + 33 * WINDOW);
}

TEST(DatagramVerifier, TellsWhyASourceEndsEarly)
{
    listed_source source(hand_messages(5), 1, "Cannot read on.");
    datagram_verifier verifier(source, WINDOW);
    for (const arrival& one : arrivals_of("1-5"))
        arrive(verifier, one.bytes);

    EXPECT_TRUE(verifier.complete());
    const verification result = verifier.finish(true);
    EXPECT_EQ(result.source_error, "Cannot read on.");
    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.expected_messages, 5u);
}

TEST(DatagramVerifier, TellsWhyASourceEndsAtOnce)
{
    listed_source source({}, 1, "Cannot read.");
    datagram_verifier verifier(source, WINDOW);
    const verification result = verifier.finish(true);

    EXPECT_EQ(result.source_error, "Cannot read.");
    EXPECT_EQ(result.fault_count, 0u);
}

// Limits.

TEST(DatagramVerifier, KeepsTheFirstThousandFaultsAndCountsAll)
{
    std::string script;
    told_faults expected;
    for (uint64_t message = 1; message <= 3000; message += 2) {
        script += std::to_string(message) + " ";
        if (expected.size() < 1000)
            expected.push_back("lost " + std::to_string(message + 1));
    }
    const verification result = play(script, 3000);

    EXPECT_EQ(told(result.faults), expected);
    EXPECT_EQ(result.fault_count, 1500u);
    EXPECT_EQ(result.count(fault_kind::lost), 1500u);
}

TEST(DatagramVerifier, KeepsExactlyAThousandFaults)
{
    std::string script;
    for (uint64_t message = 1; message <= 2000; message += 2)
        script += std::to_string(message) + " ";
    const verification result = play(script, 2000);

    EXPECT_EQ(result.faults.size(), 1000u);
    EXPECT_EQ(result.fault_count, 1000u);
}

// Nothing matches: what counts is that it ends, soon, with balanced books.

void expect_only_strangers(uint64_t messages, uint64_t strangers)
{
    dice random(4);
    const auto list = support::unique_payloads(random, messages);
    std::vector<arrival> arrivals(strangers);
    for (arrival& one : arrivals)
        one.bytes = random.bytes(32);
    const auto start = support::processor_time();
    const verification result = verified(list, arrivals, 4096);

    EXPECT_LT(support::processor_time() - start, std::chrono::seconds(200));
    EXPECT_EQ(result.matched_messages, 0u);
    EXPECT_EQ(result.count(fault_kind::duplicated), 0u);
    EXPECT_EQ(result.count(fault_kind::reordered), 0u);
}

TEST(DatagramVerifier, SurvivesAHundredThousandStrangersOverAShortSource)
{
    expect_only_strangers(1000, 100000);
}

TEST(DatagramVerifier, SurvivesAHundredThousandStrangersOverALongSource)
{
    expect_only_strangers(100000, 100000);
}

TEST(DatagramVerifier, SurvivesFewStrangersOverALongSource)
{
    expect_only_strangers(100000, 100);
}

TEST(DatagramVerifier, CountsAHundredThousandStrangersBehindTheEndAsOneFault)
{
    const verification result = play("1-10 x*100000");

    EXPECT_THAT(told(result.faults), ElementsAre("unexpected 11 x100000 @11"));
}

// Random patterns over unique payloads: every count and every position.

void expect_outcome(const verification& result, const outcome& expected)
{
    EXPECT_EQ(told(result.faults), told(expected.faults));
    EXPECT_EQ(result.counts, expected.counts);
    EXPECT_EQ(result.fault_count, expected.faults.size());
    EXPECT_EQ(result.matched_messages, expected.matched_messages);
    EXPECT_EQ(result.matched_bytes, expected.matched_bytes);
}

// Completeness may not depend on the end, so it is followed arrival by arrival:
// true exactly when every message has come whole.
void expect_exact_completeness(
    const std::vector<payload>& messages, const std::vector<arrival>& arrivals,
    size_t window)
{
    listed_source source(messages);
    datagram_verifier verifier(source, window);
    std::vector<bool> here(messages.size() + 1);
    size_t missing = messages.size();
    for (const arrival& one : arrivals) {
        ASSERT_FALSE(missing > 0 && verifier.complete());
        if (one.message > 0 && !here[one.message]) {
            here[one.message] = true;
            --missing;
        }
        arrive(verifier, one.bytes);
    }
    EXPECT_EQ(verifier.complete(), missing == 0);
}

bool has_changed_ones(const outcome& answer)
{
    return answer.counts[static_cast<size_t>(fault_kind::altered)] +
               answer.counts[static_cast<size_t>(fault_kind::truncated)] >
           0;
}

size_t draw_window(dice& random)
{
    return random.one_in(2) ? random.between(64, 128) : random.between(64, 4096);
}

uint64_t draw_length(dice& random)
{
    return random.one_in(3) ? random.between(1, 12) : random.between(1, 400);
}

void expect_pattern_found(dice& random)
{
    const auto messages = support::unique_payloads(random, draw_length(random));
    const fault_pattern pattern(random, messages, fault_limits{});
    const outcome expected = support::expected_outcome(messages, pattern.arrivals());
    const size_t window = draw_window(random);

    expect_outcome(verified(messages, pattern.arrivals(), window), expected);
    if (!has_changed_ones(expected))
        expect_exact_completeness(messages, pattern.arrivals(), window);
    if (testing::Test::HasFailure())
        ADD_FAILURE() << "window " << window << ", "
                      << script_of(messages, pattern.arrivals());
}

class DatagramFaultPatterns : public testing::TestWithParam<uint64_t> {};

TEST_P(DatagramFaultPatterns, AreReportedAsTheyAre)
{
    for (uint64_t i = 0; i < 1000; ++i) {
        const uint64_t seed = GetParam() * 1000 + i;
        SCOPED_TRACE("seed " + std::to_string(seed));
        dice random(seed);
        expect_pattern_found(random);
        if (testing::Test::HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, DatagramFaultPatterns, testing::Range<uint64_t>(1, 5));

// Equal payloads. Between unique neighbours, a single fault has one explanation.

// One fault at a place whose neighbours on both sides are undisturbed.
std::vector<arrival> with_one_fault(
    dice& random, const std::vector<payload>& messages, uint64_t at, uint64_t kind)
{
    std::vector<arrival> arrivals;
    for (uint64_t message = 1; message <= messages.size(); ++message)
        arrivals.push_back({message, messages[message - 1]});
    const auto place = arrivals.begin() + static_cast<ptrdiff_t>(at - 1);
    if (kind == 0)
        arrivals.erase(place);
    else if (kind == 1)
        arrivals.insert(place, *place);
    else if (kind == 2)
        std::swap(*place, *(place + 1));
    else if (kind == 3)
        place->bytes = support::altered_copy(random, place->bytes);
    else if (kind == 4)
        place->bytes = support::truncated_copy(random, place->bytes);
    else
        arrivals.insert(place, {0, random.bytes(24)});
    return arrivals;
}

void expect_single_fault_found(
    dice& random, const std::vector<payload>& messages, uint64_t at, uint64_t kind)
{
    const auto arrivals = with_one_fault(random, messages, at, kind);
    expect_outcome(
        verified(messages, arrivals), support::expected_outcome(messages, arrivals));
    if (testing::Test::HasFailure())
        ADD_FAILURE() << "kind " << kind << " at " << at << ", "
                      << script_of(messages, arrivals);
}

TEST(DatagramVerifier, FindsSingleFaultsBetweenHeartbeats)
{
    dice random(5);
    for (int round = 0; round < 1500; ++round) {
        const auto messages = support::payloads_with_heartbeats(
            random, random.between(20, 150), random.between(4, 15));
        const uint64_t at = random.between(1, messages.size() - 1);
        expect_single_fault_found(random, messages, at, random.below(6));
        if (testing::Test::HasFailure())
            return;
    }
}

TEST(DatagramVerifier, FindsALostHeartbeatWhereItWas)
{
    dice random(6);
    const auto messages = support::payloads_with_heartbeats(random, 50, 5);
    for (uint64_t at = 5; at < 50; at += 5)
        expect_single_fault_found(random, messages, at, 0);
}

TEST(DatagramVerifier, FindsSeveralFaultsFarApartBetweenHeartbeats)
{
    dice random(7);
    for (int round = 0; round < 200; ++round) {
        const auto messages = support::payloads_with_heartbeats(random, 300, 6);
        std::vector<arrival> arrivals;
        for (uint64_t message = 1; message <= 300; ++message) {
            if (message % 50 == 25)
                message += random.below(12); // so many are lost
            arrivals.push_back({message, messages[message - 1]});
        }
        expect_outcome(
            verified(messages, arrivals), support::expected_outcome(messages, arrivals));
        ASSERT_FALSE(HasFailure()) << script_of(messages, arrivals);
    }
}

TEST(DatagramVerifier, KeepsItsBooksOverHeartbeats)
{
    dice random(8);
    for (int round = 0; round < 1000; ++round) {
        const auto messages = support::payloads_with_heartbeats(
            random, random.between(1, 200), random.between(1, 4));
        const fault_pattern pattern(random, messages, fault_limits{});
        SCOPED_TRACE(script_of(messages, pattern.arrivals()));
        verified(messages, pattern.arrivals());
        if (HasFailure())
            return;
    }
}

// A short list over and over: every payload comes back, one pass later.

TEST(DatagramVerifier, FindsSingleFaultsInAReplayOfManyPasses)
{
    dice random(9);
    for (int round = 0; round < 1000; ++round) {
        const size_t list_size = random.between(8, 60);
        const auto list = support::unique_payloads(random, list_size);
        const auto messages = support::repeated(list, random.between(2, 10));
        const uint64_t at = random.between(1, messages.size() - 1);
        expect_single_fault_found(random, messages, at, random.below(6));
        if (HasFailure())
            return;
    }
}

TEST(DatagramVerifier, FindsSingleFaultsAroundTheStartOfAPass)
{
    dice random(10);
    const auto messages = support::repeated(support::unique_payloads(random, 10), 5);
    for (const uint64_t at : {9u, 10u, 11u, 20u, 21u, 40u, 41u, 49u}) {
        for (uint64_t kind = 0; kind < 6; ++kind)
            expect_single_fault_found(random, messages, at, kind);
    }
}

TEST(DatagramVerifier, CountsALostPassOnce)
{
    dice random(11);
    const auto list = support::unique_payloads(random, 20);
    const auto messages = support::repeated(list, 10);
    std::vector<arrival> arrivals;
    for (uint64_t message = 1; message <= 180; ++message)
        arrivals.push_back({message, messages[message - 1]});
    const verification result = verified(messages, arrivals);

    EXPECT_THAT(told(result.faults), ElementsAre("lost 181 x20"));
}

TEST(DatagramVerifier, FindsABurstOfHalfAPass)
{
    dice random(12);
    const auto list = support::unique_payloads(random, 20);
    const auto messages = support::repeated(list, 10);
    std::vector<arrival> arrivals;
    for (uint64_t message = 1; message <= messages.size(); ++message) {
        if (message < 45 || message >= 54)
            arrivals.push_back({message, messages[message - 1]});
    }
    EXPECT_THAT(told(verified(messages, arrivals).faults), ElementsAre("lost 45 x9"));
}

TEST(DatagramVerifier, KeepsItsBooksOverManyPasses)
{
    dice random(13);
    for (int round = 0; round < 1000; ++round) {
        const auto list = support::unique_payloads(random, random.between(1, 12));
        const auto messages = support::repeated(list, random.between(1, 20));
        const fault_pattern pattern(random, messages, fault_limits{});
        SCOPED_TRACE(script_of(messages, pattern.arrivals()));
        verified(messages, pattern.arrivals());
        if (HasFailure())
            return;
    }
}

// Where all messages are equal, nobody can tell which of them is missing.

verification all_equal(uint64_t messages, uint64_t arrivals)
{
    dice random(14);
    const auto list = support::equal_payloads(random, messages);
    return verified(list, std::vector<arrival>(arrivals, {1, list[0]}));
}

TEST(DatagramVerifier, FindsNoFaultInEqualMessages)
{
    EXPECT_EQ(all_equal(5000, 5000).fault_count, 0u);
}

TEST(DatagramVerifier, ReportsTheLossOfEqualMessagesAtTheEnd)
{
    EXPECT_THAT(told(all_equal(500, 499).faults), ElementsAre("lost 500"));
    EXPECT_THAT(told(all_equal(500, 493).faults), ElementsAre("lost 494 x7"));
    EXPECT_THAT(told(all_equal(500, 1).faults), ElementsAre("lost 2 x499"));
}

TEST(DatagramVerifier, CountsSurplusEqualMessagesAsDuplicates)
{
    const verification result = all_equal(500, 507);

    EXPECT_EQ(result.count(fault_kind::duplicated), 7u);
    EXPECT_EQ(result.count(fault_kind::lost), 0u);
    EXPECT_EQ(result.count(fault_kind::reordered), 0u);
}

TEST(DatagramVerifier, FindsAnAlteredOneAmongEqualMessages)
{
    dice random(15);
    const auto messages = support::equal_payloads(random, 100);
    for (const uint64_t at : {1u, 2u, 50u, 99u}) {
        expect_single_fault_found(random, messages, at, 3);
        expect_single_fault_found(random, messages, at, 4);
    }
}

TEST(DatagramVerifier, TakesAHundredThousandEqualMessagesInGoodTime)
{
    const auto start = support::processor_time();
    EXPECT_EQ(all_equal(100000, 99990).count(fault_kind::lost), 10u);
    EXPECT_LT(support::processor_time() - start, std::chrono::seconds(200));
}

// --------------------------------------------------------- how much may be compared

// Of messages this short each comparison takes as much as one of 64 bytes.
constexpr uint64_t ONE_COMPARISON = 64;

told_faults faults_when_allowed(
    uint64_t most_compared, const std::string& script, uint64_t count,
    size_t window = WINDOW)
{
    const std::vector<payload> messages = hand_messages(count);
    listed_source source(messages);
    datagram_verifier verifier(source, window, most_compared);
    for (const arrival& one : arrivals_of(script))
        arrive(verifier, one.bytes);
    return told(verifier.finish(true).faults);
}

// Three altered messages come late, and none stands in its own place. In the end the
// first gap is compared with all three, the second with the two that are left.
TEST(DatagramVerifier, ComparesStrangersWithGapsForAsLongAsIsAllowed)
{
    const auto allowed = [](uint64_t most) {
        return faults_when_allowed(
            most, "1-9 11-19 21-29 31-40 10~3 20~3 30~3 41-50", 50);
    };
    EXPECT_THAT(
        allowed((3 + 2 + 1) * ONE_COMPARISON),
        ElementsAre(
            "altered 10 @38 byte 3", "altered 20 @39 byte 3", "altered 30 @40 byte 3"));
    EXPECT_THAT(
        allowed((3 + 2 + 1) * ONE_COMPARISON - 1),
        ElementsAre(
            "altered 10 @38 byte 3", "altered 20 @39 byte 3", "lost 30",
            "unexpected 41 @40"));
    EXPECT_THAT(
        allowed((3 + 2) * ONE_COMPARISON - 1),
        ElementsAre(
            "altered 10 @38 byte 3", "lost 20", "lost 30", "unexpected 41 x2 @39"));
    EXPECT_THAT(
        allowed(3 * ONE_COMPARISON - 1),
        ElementsAre("lost 10", "lost 20", "lost 30", "unexpected 41 x3 @38"));
}

TEST(DatagramVerifier, MayCompareMoreWhenMoreHasArrived)
{
    EXPECT_THAT(
        faults_when_allowed(
            ONE_COMPARISON, "1-9 11-14 10~3 15-59 61-64 60~3 65-99", 99, 16),
        ElementsAre("altered 10 @14 byte 3", "altered 60 @64 byte 3"));
}

TEST(DatagramVerifier, IsCompleteHoweverOftenItIsAsked)
{
    const std::vector<payload> messages = hand_messages(14);
    listed_source source(messages);
    datagram_verifier verifier(source, WINDOW, ONE_COMPARISON);
    for (const arrival& one : arrivals_of("1-4 6-9 5~3 10-14"))
        arrive(verifier, one.bytes);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(verifier.complete()) << i;
    EXPECT_THAT(told(verifier.finish(true).faults), ElementsAre("altered 5 @9 byte 3"));
}

// ------------------------------------------------------- more than a window at once

TEST(DatagramVerifier, FindsItsPlaceBehindALossOfManyWindows)
{
    const std::vector<payload> messages = hand_messages(4000);
    for (const uint64_t lost : {WINDOW + 1, 2 * WINDOW, 10 * WINDOW, 30 * WINDOW}) {
        listed_source source(messages);
        datagram_verifier verifier(source, WINDOW);
        for (uint64_t number = 1; number <= messages.size(); ++number) {
            if (number < 100 || number >= 100 + lost)
                arrive(verifier, messages[number - 1]);
        }
        const verification result = verifier.finish(true);
        EXPECT_THAT(
            told(result.faults), ElementsAre("lost 100 x" + std::to_string(lost)));
    }
}

TEST(DatagramVerifier, AccountsForEveryDatagramOfARunThatIsCutOff)
{
    const std::vector<payload> messages = hand_messages(20);
    listed_source source(messages);
    datagram_verifier verifier(source, WINDOW);
    arrive(verifier, messages[0]);
    arrive(verifier, arrival_of("x", 1).bytes);
    arrive(verifier, messages[8]);
    arrive(verifier, arrival_of("x", 2).bytes);
    const verification result = verifier.finish(false);
    const uint64_t strange =
        result.count(fault_kind::altered) + result.count(fault_kind::unexpected);
    EXPECT_EQ(result.matched_messages + strange, 4u);
}

TEST(DatagramVerifier, IsExhaustedWhenAllHasBeenPassedThoughSomeIsMissing)
{
    const std::vector<payload> messages = hand_messages(10);
    listed_source source(messages);
    datagram_verifier verifier(source, WINDOW);
    for (uint64_t number = 2; number <= 10; ++number) {
        EXPECT_FALSE(verifier.exhausted());
        arrive(verifier, messages[number - 1]);
    }
    EXPECT_TRUE(verifier.exhausted());
    EXPECT_FALSE(verifier.complete());
}

TEST(DatagramVerifier, BearsStrangersWithoutEndWhileAMessageIsMissing)
{
    const std::vector<payload> messages = hand_messages(100);
    listed_source source(messages);
    datagram_verifier verifier(source, WINDOW);
    for (uint64_t number = 2; number <= 100; ++number)
        arrive(verifier, messages[number - 1]);
    for (uint64_t i = 0; i < 100000; ++i)
        arrive(verifier, arrival_of("x", i).bytes);
    EXPECT_EQ(verifier.finish(true).count(fault_kind::unexpected), 100000u);
}

} // namespace datagram_verifier_test
