// A byte stream against its source: each kind of fault worked out by hand, then random
// patterns of faults against a reference that made the stream and knows its parts.
// Every stream is taken in several ways of cutting it, which may not matter.
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "stream_verifier.h"
#include "support/fault_patterns.h"
#include "support/processor_time.h"

namespace stream_verifier_test {

using receiver::bytes_view;
using receiver::fault;
using receiver::fault_kind;
using receiver::stream_verifier;
using receiver::verification;
using support::dice;
using support::listed_source;
using support::payload;
using testing::AnyOf;
using testing::ElementsAre;
using testing::IsEmpty;

using told_faults = std::vector<std::string>;
using sizes = std::vector<uint32_t>;

constexpr size_t MESSAGE = 100; // bytes of each message in hand-worked cases
constexpr size_t SHORT = 6000;  // streams up to here may be taken byte by byte

std::ptrdiff_t step(size_t offset) { return static_cast<std::ptrdiff_t>(offset); }

// Streams are made of parts of others.

payload part(const payload& bytes, size_t from, size_t length)
{
    return {bytes.begin() + step(from), bytes.begin() + step(from + length)};
}

payload without(payload bytes, size_t from, size_t length)
{
    bytes.erase(bytes.begin() + step(from), bytes.begin() + step(from + length));
    return bytes;
}

payload with(payload bytes, size_t at, const payload& more)
{
    bytes.insert(bytes.begin() + step(at), more.begin(), more.end());
    return bytes;
}

payload altered(payload bytes, size_t from, size_t length)
{
    for (size_t i = from; i < from + length; ++i)
        bytes[i] = static_cast<uint8_t>(bytes[i] ^ 0x5AU);
    return bytes;
}

// The block is taken out and put in behind the byte in front of `to`, counted in the
// whole stream.
payload moved_back(const payload& bytes, size_t from, size_t length, size_t to)
{
    return without(with(bytes, to, part(bytes, from, length)), from, length);
}

payload random_bytes(size_t count, uint64_t seed = 1) { return dice(seed).bytes(count); }

std::vector<payload> in_messages(const payload& bytes, const sizes& lengths)
{
    std::vector<payload> messages;
    size_t from = 0;
    for (const uint32_t length : lengths) {
        messages.push_back(part(bytes, from, length));
        from += length;
    }
    return messages;
}

sizes equal_sizes(size_t total, size_t length = MESSAGE)
{
    sizes made(total / length, static_cast<uint32_t>(length));
    if (total % length != 0)
        made.push_back(static_cast<uint32_t>(total % length));
    return made;
}

// Taking a stream.

struct taken {
    verification result;
    sizes completed;
    bool complete_at_end{false};
    bool complete_too_soon{false}; // in front of the last part
};

using cutter = std::function<size_t()>; // how many bytes come next

cutter parts_of(size_t length)
{
    return [length] { return length; };
}

cutter random_parts(uint64_t seed, size_t most)
{
    return [random = dice(seed), most]() mutable {
        return random.one_in(3) ? random.between(1, 3) : random.between(1, most);
    };
}

// Hands over all that has come so far. Short streams are copied for each call, so that
// reading past either end shows, and are overwritten behind it.
void take_part(stream_verifier& verifier, bytes_view so_far, size_t fresh, taken& into)
{
    payload copy;
    if (so_far.size() <= SHORT) {
        copy.assign(so_far.begin(), so_far.end());
        so_far = copy;
    }
    for (const uint32_t size : verifier.arrived(so_far, fresh))
        into.completed.push_back(size);
    std::fill(copy.begin(), copy.end(), uint8_t{0xDD});
}

taken take(
    const std::vector<payload>& messages, const payload& stream, const cutter& next,
    bool rest_is_due = true)
{
    listed_source source(messages);
    stream_verifier verifier(source);
    taken all;
    for (size_t at = 0; at < stream.size();) {
        all.complete_too_soon = all.complete_too_soon || verifier.complete();
        const size_t fresh = std::min(next(), stream.size() - at);
        at += fresh;
        take_part(verifier, bytes_view(stream).first(at), fresh, all);
    }
    all.complete_at_end = verifier.complete();
    all.result = verifier.finish(rest_is_due);
    for (const uint32_t size : verifier.completed())
        all.completed.push_back(size);
    return all;
}

std::string told(const fault& one)
{
    return std::string(receiver::name_of(one.kind)) + " " + std::to_string(one.offset) +
           " x" + std::to_string(one.length);
}

told_faults told(const std::vector<fault>& faults)
{
    told_faults texts;
    for (const fault& one : faults)
        texts.push_back(told(one));
    return texts;
}

// Where a byte of the source lies in its messages: from 1 and from 0.
std::pair<uint64_t, uint64_t> place_of(const sizes& lengths, uint64_t offset)
{
    uint64_t message = 1;
    for (const uint32_t length : lengths) {
        if (offset < length)
            break;
        offset -= length;
        ++message;
    }
    return {message, offset};
}

// Behind the last message there is no place to name.
void expect_places(const verification& result, const sizes& lengths)
{
    const uint64_t total = std::accumulate(lengths.begin(), lengths.end(), uint64_t{0});
    for (const fault& one : result.faults) {
        if (one.offset >= total)
            continue;
        const std::pair told_place(one.message, one.offset_in_message);
        EXPECT_EQ(told_place, place_of(lengths, one.offset)) << told(one);
    }
}

// The books balance whatever the faults: every byte of both sides is accounted for
// once.
void expect_balance(const verification& result, uint64_t expected, uint64_t received)
{
    const auto count = [&result](fault_kind kind) { return result.count(kind); };
    EXPECT_EQ(
        result.matched_bytes + count(fault_kind::lost) + count(fault_kind::altered) +
            count(fault_kind::truncated),
        expected);
    EXPECT_EQ(
        result.matched_bytes + count(fault_kind::altered) +
            count(fault_kind::duplicated) + count(fault_kind::unexpected),
        received);
}

void expect_list_fits_counts(const verification& result)
{
    if (result.faults.size() != result.fault_count)
        return;
    decltype(result.counts) listed{};
    for (const fault& one : result.faults)
        listed[static_cast<size_t>(one.kind)] += one.length;
    EXPECT_EQ(listed, result.counts);
    const auto by_offset = [](const fault& a, const fault& b) {
        return a.offset < b.offset;
    };
    EXPECT_TRUE(std::is_sorted(result.faults.begin(), result.faults.end(), by_offset));
}

// What is shown are the bytes of both sides that it claims to be.
void expect_excerpt_of(const payload& shown, const payload& whole, size_t from)
{
    ASSERT_LE(shown.size(), 16u);
    ASSERT_LE(from + shown.size(), whole.size());
    EXPECT_EQ(shown, part(whole, from, shown.size()));
}

void expect_sound(
    const taken& all, const payload& source, const sizes& lengths, const payload& stream)
{
    expect_balance(all.result, source.size(), stream.size());
    expect_list_fits_counts(all.result);
    expect_places(all.result, lengths);
    for (const fault& one : all.result.faults)
        expect_excerpt_of(one.expected, source, one.offset);
    EXPECT_EQ(all.result.expected_messages, lengths.size());
    EXPECT_EQ(all.result.expected_bytes, source.size());
    EXPECT_LE(
        std::accumulate(all.completed.begin(), all.completed.end(), uint64_t{0}),
        source.size());
}

void expect_same(const verification& one, const verification& other)
{
    EXPECT_EQ(told(one.faults), told(other.faults));
    EXPECT_EQ(one.counts, other.counts);
    EXPECT_EQ(one.fault_count, other.fault_count);
    EXPECT_EQ(one.matched_bytes, other.matched_bytes);
    EXPECT_EQ(one.matched_messages, other.matched_messages);
    EXPECT_EQ(one.gave_up, other.gave_up);
}

// The result for the stream in one part; other ways to cut it must give the same.
verification play(const payload& source, const payload& stream)
{
    const sizes lengths = equal_sizes(source.size());
    const auto messages = in_messages(source, lengths);
    const taken whole = take(messages, stream, parts_of(stream.size()));
    expect_sound(whole, source, lengths, stream);
    for (const size_t length :
         {size_t{1}, size_t{7}, size_t{31}, size_t{32}, size_t{33}, size_t{100},
          size_t{1021}}) {
        SCOPED_TRACE("parts of " + std::to_string(length));
        const taken cut = take(messages, stream, parts_of(length));
        expect_sound(cut, source, lengths, stream);
        expect_same(cut.result, whole.result);
    }
    return whole.result;
}

told_faults faults_of(const payload& source, const payload& stream)
{
    return told(play(source, stream).faults);
}

// As it should be.

TEST(StreamVerifier, FindsNoFaultInAnUndisturbedStream)
{
    const payload source = random_bytes(1050);
    const verification result = play(source, source);

    EXPECT_TRUE(result.attempted);
    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.matched_messages, 11u);
    EXPECT_EQ(result.matched_bytes, 1050u);
    EXPECT_FALSE(result.gave_up);
    EXPECT_EQ(result.source_error, "");
}

TEST(StreamVerifier, TakesAStreamOfOneByte)
{
    EXPECT_THAT(faults_of({7}, {7}), IsEmpty());
}

TEST(StreamVerifier, TakesManyMessagesInOnePart)
{
    const payload source = random_bytes(500000);
    const sizes lengths = equal_sizes(source.size(), 3);
    const taken all = take(in_messages(source, lengths), source, parts_of(source.size()));

    EXPECT_EQ(all.result.fault_count, 0u);
    EXPECT_EQ(all.completed, lengths);
}

TEST(StreamVerifier, TakesNothing)
{
    listed_source source(in_messages(random_bytes(10), {10}));
    stream_verifier verifier(source);

    EXPECT_THAT(verifier.arrived({}), IsEmpty());
    EXPECT_FALSE(verifier.complete());
    EXPECT_EQ(verifier.finish(false).fault_count, 0u);
}

// Messages become complete with their last byte.

TEST(StreamVerifier, ReturnsEachMessageWithItsLastByte)
{
    const payload bytes = random_bytes(10);
    listed_source source(in_messages(bytes, {3, 1, 6}));
    stream_verifier verifier(source);

    EXPECT_THAT(verifier.arrived(part(bytes, 0, 2)), IsEmpty());
    EXPECT_THAT(verifier.arrived(part(bytes, 2, 1)), ElementsAre(3));
    EXPECT_THAT(verifier.arrived(part(bytes, 3, 6)), ElementsAre(1));
    EXPECT_THAT(verifier.arrived(part(bytes, 9, 1)), ElementsAre(6));
}

TEST(StreamVerifier, ReturnsAllMessagesThatAPartCompletes)
{
    const payload bytes = random_bytes(10);
    listed_source source(in_messages(bytes, {3, 1, 6}));
    stream_verifier verifier(source);

    EXPECT_THAT(verifier.arrived(bytes), ElementsAre(3, 1, 6));
}

TEST(StreamVerifier, ReturnsTheSourcesMessagesHoweverTheStreamIsCut)
{
    const payload source = random_bytes(5000);
    dice random(2);
    sizes lengths;
    for (size_t left = source.size(); left > 0; left -= lengths.back())
        lengths.push_back(
            static_cast<uint32_t>(random.between(1, std::min<size_t>(left, 300))));
    for (uint64_t seed = 0; seed < 20; ++seed)
        EXPECT_EQ(
            take(in_messages(source, lengths), source, random_parts(seed, 500)).completed,
            lengths);
    EXPECT_EQ(take(in_messages(source, lengths), source, parts_of(1)).completed, lengths);
}

TEST(StreamVerifier, ReturnsAlteredMessagesToo)
{
    const payload source = random_bytes(1000);
    const payload stream = altered(altered(source, 150, 3), 380, 120);
    for (const size_t length : {1u, 10u, 1000u}) {
        const taken all =
            take(in_messages(source, equal_sizes(1000)), stream, parts_of(length));
        EXPECT_EQ(all.completed, equal_sizes(1000));
    }
}

// Altered: other bytes in the same number.

TEST(StreamVerifier, ReportsAnAlteredByte)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, altered(source, 456, 1));

    EXPECT_THAT(told(result.faults), ElementsAre("altered 456 x1"));
    EXPECT_EQ(result.faults[0].message, 5u);
    EXPECT_EQ(result.faults[0].offset_in_message, 56u);
    EXPECT_EQ(result.count(fault_kind::altered), 1u);
    EXPECT_EQ(result.matched_bytes, 999u);
    EXPECT_EQ(result.matched_messages, 9u);
}

TEST(StreamVerifier, ReportsTheFirstByteAltered)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(faults_of(source, altered(source, 0, 1)), ElementsAre("altered 0 x1"));
}

TEST(StreamVerifier, ReportsTheLastByteAltered)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, altered(source, 999, 1)), ElementsAre("altered 999 x1"));
}

TEST(StreamVerifier, ReportsTheOnlyByteAltered)
{
    EXPECT_THAT(faults_of({7}, {8}), ElementsAre("altered 0 x1"));
}

TEST(StreamVerifier, ReportsAlteredBytesNearTheEnd)
{
    const payload source = random_bytes(1000);
    for (size_t from = 960; from < 999; ++from)
        EXPECT_THAT(
            faults_of(source, altered(source, from, 1)),
            ElementsAre("altered " + std::to_string(from) + " x1"));
}

TEST(StreamVerifier, ReportsAlteredBlocksOfManyLengths)
{
    const payload source = random_bytes(4000);
    for (const size_t length : {2u, 31u, 32u, 33u, 64u, 100u, 1000u})
        EXPECT_THAT(
            faults_of(source, altered(source, 1234, length)),
            ElementsAre("altered 1234 x" + std::to_string(length)));
}

TEST(StreamVerifier, ReportsAnAlteredBlockAcrossMessages)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, altered(source, 190, 120));

    EXPECT_THAT(told(result.faults), ElementsAre("altered 190 x120"));
    EXPECT_EQ(result.faults[0].message, 2u);
    EXPECT_EQ(result.faults[0].offset_in_message, 90u);
    EXPECT_EQ(result.matched_messages, 7u);
}

TEST(StreamVerifier, ReportsAFaultAtAMessagesFirstByteThere)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, altered(source, 300, 1));

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_EQ(result.faults[0].message, 4u);
    EXPECT_EQ(result.faults[0].offset_in_message, 0u);
}

TEST(StreamVerifier, ReportsEverythingAltered)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, altered(source, 0, 1000)), ElementsAre("altered 0 x1000"));
}

// 32 equal bytes end a fault, 31 do not.

TEST(StreamVerifier, SeparatesAlteredBytesWith32EqualOnesBetween)
{
    const payload source = random_bytes(1000);
    const payload stream = altered(altered(source, 400, 1), 433, 1);
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("altered 400 x1", "altered 433 x1"));
}

TEST(StreamVerifier, JoinsAlteredBytesWith31EqualOnesBetween)
{
    const payload source = random_bytes(1000);
    const payload stream = altered(altered(source, 400, 1), 432, 1);
    EXPECT_THAT(faults_of(source, stream), ElementsAre("altered 400 x33"));
}

TEST(StreamVerifier, JoinsManyAlteredBytesNearEachOther)
{
    const payload source = random_bytes(1000);
    payload stream = source;
    for (size_t at = 300; at <= 600; at += 20)
        stream = altered(std::move(stream), at, 1);
    EXPECT_THAT(faults_of(source, stream), ElementsAre("altered 300 x301"));
}

// Lost: bytes of the source that never come.

TEST(StreamVerifier, ReportsALostByte)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, without(source, 456, 1));

    EXPECT_THAT(told(result.faults), ElementsAre("lost 456 x1"));
    EXPECT_EQ(result.faults[0].message, 5u);
    EXPECT_EQ(result.faults[0].offset_in_message, 56u);
    EXPECT_EQ(result.count(fault_kind::lost), 1u);
    EXPECT_EQ(result.matched_bytes, 999u);
    EXPECT_EQ(result.matched_messages, 9u);
}

TEST(StreamVerifier, ReportsLostBlocksOfManyLengths)
{
    const payload source = random_bytes(4000);
    for (const size_t length : {2u, 31u, 32u, 33u, 100u, 1000u})
        EXPECT_THAT(
            faults_of(source, without(source, 1234, length)),
            ElementsAre("lost 1234 x" + std::to_string(length)));
}

TEST(StreamVerifier, ReportsALostStart)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(faults_of(source, without(source, 0, 1)), ElementsAre("lost 0 x1"));
    EXPECT_THAT(faults_of(source, without(source, 0, 250)), ElementsAre("lost 0 x250"));
}

TEST(StreamVerifier, ReportsALossNearTheEnd)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(faults_of(source, without(source, 900, 60)), ElementsAre("lost 900 x60"));
    EXPECT_THAT(faults_of(source, without(source, 900, 90)), ElementsAre("lost 900 x90"));
    EXPECT_THAT(faults_of(source, without(source, 998, 1)), ElementsAre("lost 998 x1"));
}

TEST(StreamVerifier, ReportsALostMessage)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, without(source, 300, 100));

    EXPECT_THAT(told(result.faults), ElementsAre("lost 300 x100"));
    EXPECT_EQ(result.faults[0].message, 4u);
    EXPECT_EQ(result.faults[0].offset_in_message, 0u);
    EXPECT_EQ(result.matched_messages, 9u);
}

TEST(StreamVerifier, CountsALossInFrontOfEqualBytesFromTheFirstDifference)
{
    payload source = random_bytes(1000);
    source[500] = source[501] = source[502] = 1;
    source[503] = 2;
    // One of three equal bytes is missing: the first to differ is the one behind.
    EXPECT_THAT(faults_of(source, without(source, 500, 1)), ElementsAre("lost 502 x1"));
}

TEST(StreamVerifier, ReportsTwoLossesFarEnoughApart)
{
    const payload source = random_bytes(1000);
    const payload stream = without(without(source, 700, 9), 500, 8);
    EXPECT_THAT(faults_of(source, stream), ElementsAre("lost 500 x8", "lost 700 x9"));
}

// Truncated: the end that never comes.

TEST(StreamVerifier, ReportsAMissingLastByte)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, part(source, 0, 999));

    EXPECT_THAT(told(result.faults), ElementsAre("truncated 999 x1"));
    EXPECT_EQ(result.faults[0].message, 10u);
    EXPECT_EQ(result.faults[0].offset_in_message, 99u);
    EXPECT_EQ(result.count(fault_kind::truncated), 1u);
    EXPECT_EQ(result.matched_messages, 9u);
}

TEST(StreamVerifier, ReportsAMissingEndOfManyMessages)
{
    const payload source = random_bytes(5000);
    const verification result = play(source, part(source, 0, 1234));

    EXPECT_THAT(told(result.faults), ElementsAre("truncated 1234 x3766"));
    EXPECT_EQ(result.matched_messages, 12u);
    EXPECT_EQ(result.matched_bytes, 1234u);
}

TEST(StreamVerifier, ReportsEverythingMissingWhenNothingArrives)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(faults_of(source, {}), ElementsAre("truncated 0 x1000"));
}

TEST(StreamVerifier, ReportsALongMissingEndAsOneFault)
{
    const payload source = random_bytes(5 << 20U);
    const sizes lengths = equal_sizes(source.size(), 10240);
    const taken all =
        take(in_messages(source, lengths), part(source, 0, 100), parts_of(100));

    EXPECT_THAT(told(all.result.faults), ElementsAre("truncated 100 x5242780"));
    EXPECT_EQ(all.result.fault_count, 1u);
}

TEST(StreamVerifier, TellsALossFromTheMissingEnd)
{
    const payload source = random_bytes(1000);
    const payload stream = without(part(source, 0, 800), 300, 40);
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("lost 300 x40", "truncated 800 x200"));
}

TEST(StreamVerifier, TellsAnAlterationFromTheMissingEnd)
{
    const payload source = random_bytes(1000);
    const payload stream = altered(part(source, 0, 800), 300, 40);
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("altered 300 x40", "truncated 800 x200"));
}

TEST(StreamVerifier, AccountsForAnAlterationRightInFrontOfTheMissingEnd)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, altered(part(source, 0, 800), 790, 10));

    EXPECT_EQ(result.count(fault_kind::altered), 10u);
    EXPECT_EQ(result.count(fault_kind::lost) + result.count(fault_kind::truncated), 200u);
    ASSERT_FALSE(result.faults.empty());
    EXPECT_EQ(told(result.faults[0]), "altered 790 x10");
}

// Duplicated: what came just before comes again. The offset is where the surplus lies.

TEST(StreamVerifier, ReportsARepeatedBlock)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, with(source, 456, part(source, 416, 40)));

    EXPECT_THAT(told(result.faults), ElementsAre("duplicated 456 x40"));
    EXPECT_EQ(result.faults[0].message, 5u);
    EXPECT_EQ(result.faults[0].offset_in_message, 56u);
    EXPECT_EQ(result.count(fault_kind::duplicated), 40u);
    EXPECT_EQ(result.matched_bytes, 1000u);
}

TEST(StreamVerifier, ReportsRepeatedBlocksOfManyLengths)
{
    const payload source = random_bytes(4000);
    for (const size_t length : {1u, 2u, 31u, 32u, 33u, 100u, 1000u, 1234u})
        EXPECT_THAT(
            faults_of(source, with(source, 1234, part(source, 1234 - length, length))),
            ElementsAre("duplicated 1234 x" + std::to_string(length)));
}

TEST(StreamVerifier, ReportsTheStartRepeated)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, with(source, 250, part(source, 0, 250))),
        ElementsAre("duplicated 250 x250"));
}

TEST(StreamVerifier, ReportsTheEndRepeated)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, with(source, 1000, part(source, 950, 50))),
        ElementsAre("duplicated 1000 x50"));
    EXPECT_THAT(
        faults_of(source, with(source, 1000, source)),
        ElementsAre("duplicated 1000 x1000"));
}

TEST(StreamVerifier, ReportsABlockThatComesThreeTimesAsOneSurplusOrTwo)
{
    const payload source = random_bytes(1000);
    const payload block = part(source, 400, 50);
    const verification result = play(source, with(with(source, 450, block), 450, block));

    EXPECT_EQ(
        result.count(fault_kind::duplicated) + result.count(fault_kind::unexpected),
        100u);
    EXPECT_EQ(result.matched_bytes, 1000u);
    EXPECT_EQ(result.fault_count, 1u);
}

TEST(StreamVerifier, ReportsARepeatedByteBehindEqualOnesFromTheFirstDifference)
{
    payload source = random_bytes(1000);
    source[499] = 3;
    source[500] = source[501] = 1;
    source[502] = 2;
    EXPECT_THAT(
        faults_of(source, with(source, 501, {1})), ElementsAre("duplicated 502 x1"));
}

TEST(StreamVerifier, CountsARepetitionAsSurplusWithoutThePrecedingBytes)
{
    const payload source = random_bytes(1000);
    listed_source listed(in_messages(source, equal_sizes(1000)));
    stream_verifier verifier(listed);
    verifier.arrived(part(source, 0, 456));
    verifier.arrived(part(source, 416, 40));
    verifier.arrived(part(source, 456, 544));
    const verification result = verifier.finish(true);

    ASSERT_THAT(
        told(result.faults),
        AnyOf(ElementsAre("unexpected 456 x40"), ElementsAre("duplicated 456 x40")));
    EXPECT_EQ(result.matched_bytes, 1000u);
}

TEST(StreamVerifier, TellsARepetitionFromPrecedingBytesOfJustItsLength)
{
    const payload source = random_bytes(1000);
    listed_source listed(in_messages(source, equal_sizes(1000)));
    stream_verifier verifier(listed);
    verifier.arrived(part(source, 0, 456));
    // 40 bytes are still there, the same 40 and all others follow.
    verifier.arrived(with(part(source, 416, 584), 40, part(source, 416, 40)), 40 + 544);

    EXPECT_THAT(told(verifier.finish(true).faults), ElementsAre("duplicated 456 x40"));
}

// Unexpected: any other surplus.

TEST(StreamVerifier, ReportsForeignBytes)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, with(source, 456, random_bytes(40, 9)));

    EXPECT_THAT(told(result.faults), ElementsAre("unexpected 456 x40"));
    EXPECT_EQ(result.count(fault_kind::unexpected), 40u);
    EXPECT_EQ(result.matched_bytes, 1000u);
}

TEST(StreamVerifier, ReportsForeignBytesInManyLengths)
{
    const payload source = random_bytes(4000);
    for (const size_t length : {1u, 2u, 31u, 32u, 33u, 100u, 1000u})
        EXPECT_THAT(
            faults_of(source, with(source, 1234, random_bytes(length, 9))),
            ElementsAre("unexpected 1234 x" + std::to_string(length)));
}

TEST(StreamVerifier, ReportsForeignBytesInFront)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, with(source, 0, random_bytes(40, 9))),
        ElementsAre("unexpected 0 x40"));
}

TEST(StreamVerifier, ReportsForeignBytesNearTheEnd)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, with(source, 995, random_bytes(40, 9))),
        ElementsAre("unexpected 995 x40"));
}

TEST(StreamVerifier, ReportsSurplusBehindTheEnd)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, with(source, 1000, random_bytes(1, 9))),
        ElementsAre("unexpected 1000 x1"));
    EXPECT_THAT(
        faults_of(source, with(source, 1000, random_bytes(3000, 9))),
        ElementsAre("unexpected 1000 x3000"));
}

TEST(StreamVerifier, ReportsEverythingUnexpectedWhenTheSourceIsEmpty)
{
    EXPECT_THAT(faults_of({}, random_bytes(100)), ElementsAre("unexpected 0 x100"));
}

TEST(StreamVerifier, ExpectsNothingFromAnEmptySource)
{
    const verification result = play({}, {});

    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.expected_messages, 0u);
    EXPECT_EQ(result.expected_bytes, 0u);
}

// Other bytes in another number: altered as far as both sides go, the rest lost or
// unexpected.

TEST(StreamVerifier, ReportsABlockReplacedByAShorterOne)
{
    const payload source = random_bytes(1000);
    const payload stream = with(without(source, 456, 50), 456, random_bytes(20, 9));
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("altered 456 x20", "lost 476 x30"));
}

TEST(StreamVerifier, ReportsABlockReplacedByALongerOne)
{
    const payload source = random_bytes(1000);
    const payload stream = with(without(source, 456, 20), 456, random_bytes(50, 9));
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("altered 456 x20", "unexpected 476 x30"));
}

// Reordered: a block that was missing comes later. It is named where it was missing.

TEST(StreamVerifier, ReportsABlockThatComesLater)
{
    const payload source = random_bytes(2000);
    const verification result = play(source, moved_back(source, 456, 60, 1200));

    EXPECT_THAT(told(result.faults), ElementsAre("reordered 456 x60"));
    EXPECT_EQ(result.faults[0].message, 5u);
    EXPECT_EQ(result.faults[0].offset_in_message, 56u);
    EXPECT_EQ(result.count(fault_kind::reordered), 60u);
    EXPECT_EQ(result.count(fault_kind::lost), 0u);
    EXPECT_EQ(result.count(fault_kind::unexpected), 0u);
    EXPECT_EQ(result.matched_bytes, 2000u);
}

TEST(StreamVerifier, ReportsBlocksOfManyLengthsThatComeLater)
{
    const payload source = random_bytes(5000);
    for (const size_t length : {1u, 2u, 31u, 32u, 33u, 100u, 1000u})
        EXPECT_THAT(
            faults_of(source, moved_back(source, 1234, length, 4321)),
            ElementsAre("reordered 1234 x" + std::to_string(length)));
}

TEST(StreamVerifier, ReportsTheStartThatComesLater)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 0, 60, 500)),
        ElementsAre("reordered 0 x60"));
}

TEST(StreamVerifier, ReportsABlockThatComesAtTheEnd)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 456, 60, 1000)),
        ElementsAre("reordered 456 x60"));
}

TEST(StreamVerifier, ReportsAMessageThatComesLater)
{
    const payload source = random_bytes(1000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 200, 100, 500)),
        ElementsAre("reordered 200 x100"));
}

TEST(StreamVerifier, KnowsALateBlockAmongOtherLosses)
{
    const payload source = random_bytes(5000);
    payload stream = moved_back(source, 300, 50, 4000);
    for (size_t at = 3000; at >= 1000; at -= 200)
        stream = without(std::move(stream), at - 50, 70);
    const told_faults faults = faults_of(source, stream);

    ASSERT_EQ(faults.size(), 12u);
    EXPECT_EQ(faults[0], "reordered 300 x50");
    EXPECT_EQ(faults[1], "lost 1000 x70");
    EXPECT_EQ(faults[11], "lost 3000 x70");
}

TEST(StreamVerifier, KnowsTwoLateBlocksThatComeInTurn)
{
    const payload source = random_bytes(3000);
    const payload stream = moved_back(moved_back(source, 900, 60, 2500), 300, 50, 1800);
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("reordered 300 x50", "reordered 900 x60"));
}

// So many other blocks are lost between a block's place and its arrival.
told_faults late_block_behind_losses(size_t losses)
{
    const payload source = random_bytes(20000);
    payload stream = moved_back(source, 300, 50, 19000);
    for (size_t i = losses; i > 0; --i)
        stream = without(std::move(stream), 500 + 200 * i, 40);
    const sizes lengths = equal_sizes(source.size());
    return told(take(in_messages(source, lengths), stream, parts_of(1000)).result.faults);
}

TEST(StreamVerifier, RemembersTheLast64LostBlocks)
{
    EXPECT_EQ(late_block_behind_losses(60).front(), "reordered 300 x50");
    EXPECT_EQ(late_block_behind_losses(63).front(), "reordered 300 x50");
}

TEST(StreamVerifier, ForgetsEarlierLostBlocks)
{
    const told_faults faults = late_block_behind_losses(64);
    EXPECT_EQ(faults.front(), "lost 300 x50");
    EXPECT_EQ(faults.back(), "unexpected 19000 x50");
}

TEST(StreamVerifier, TakesAnotherBlockOfThatLengthForUnexpected)
{
    const payload source = random_bytes(2000);
    const payload stream = with(without(source, 456, 60), 1000, random_bytes(60, 9));
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("lost 456 x60", "unexpected 1060 x60"));
}

TEST(StreamVerifier, TakesALateBlockOnlyOnce)
{
    const payload source = random_bytes(3000);
    const payload late = part(source, 456, 60);
    const payload stream = with(with(without(source, 456, 60), 2000, late), 1000, late);
    EXPECT_THAT(
        faults_of(source, stream),
        ElementsAre("reordered 456 x60", "unexpected 2060 x60"));
}

TEST(StreamVerifier, TakesWhatCameJustBeforeForDuplicatedThoughItWasLostBeforeToo)
{
    payload source = random_bytes(3000);
    std::copy_n(source.begin() + 456, 60, source.begin() + 1200);
    const payload stream = with(without(source, 456, 60), 1200, part(source, 1200, 60));
    EXPECT_THAT(
        faults_of(source, stream), ElementsAre("lost 456 x60", "duplicated 1260 x60"));
}

// Of two blocks that change places the shorter one is left over. Comes it late, it has
// been missing; comes it early, it is missing afterwards.

TEST(StreamVerifier, ReportsAShortBlockBehindALongOneAsReordered)
{
    const payload source = random_bytes(2000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 400, 50, 700)),
        ElementsAre("reordered 400 x50"));
}

TEST(StreamVerifier, ReportsAShortBlockInFrontOfALongOneAsUnexpectedAndLost)
{
    const payload source = random_bytes(2000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 400, 250, 700)),
        ElementsAre("unexpected 400 x50", "lost 650 x50"));
}

TEST(StreamVerifier, AccountsForEqualBlocksThatChangePlaces)
{
    const payload source = random_bytes(2000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 400, 100, 600)),
        AnyOf(
            ElementsAre("reordered 400 x100"),
            ElementsAre("unexpected 400 x100", "lost 500 x100")));
}

TEST(StreamVerifier, ReportsVeryShortBlocksThatChangePlacesAsAltered)
{
    // Neither side is in step for 32 bytes before both blocks have passed.
    const payload source = random_bytes(2000);
    EXPECT_THAT(
        faults_of(source, moved_back(source, 400, 10, 425)),
        ElementsAre("altered 400 x25"));
}

// Faults of different kinds behind each other, not far.

TEST(StreamVerifier, TellsFaultsApartThatAreNotFarFromEachOther)
{
    const payload source = random_bytes(2000);
    payload stream = altered(source, 1500, 5);
    stream = with(std::move(stream), 1400, part(source, 1370, 30));
    stream = with(std::move(stream), 1300, random_bytes(20, 9));
    stream = without(std::move(stream), 1200, 10);
    stream = altered(std::move(stream), 1100, 1);
    EXPECT_THAT(
        faults_of(source, stream),
        ElementsAre(
            "altered 1100 x1", "lost 1200 x10", "unexpected 1300 x20",
            "duplicated 1400 x30", "altered 1500 x5"));
}

TEST(StreamVerifier, TellsALossFromAnAlteration32BytesBehindIt)
{
    const payload source = random_bytes(2000);
    const payload stream = without(altered(source, 552, 4), 500, 20);
    EXPECT_THAT(faults_of(source, stream), ElementsAre("lost 500 x20", "altered 552 x4"));
}

TEST(StreamVerifier, TellsAnAlterationFromALoss32BytesBehindIt)
{
    const payload source = random_bytes(2000);
    const payload stream = without(altered(source, 500, 4), 536, 20);
    EXPECT_THAT(faults_of(source, stream), ElementsAre("altered 500 x4", "lost 536 x20"));
}

// Large faults, also byte by byte.

verification play_large(const payload& source, const payload& stream)
{
    const sizes lengths = equal_sizes(source.size(), 10240);
    const auto messages = in_messages(source, lengths);
    const auto start = support::processor_time();
    const taken whole = take(messages, stream, parts_of(stream.size()));
    expect_sound(whole, source, lengths, stream);
    for (const size_t length : {1u, 4099u}) {
        SCOPED_TRACE("parts of " + std::to_string(length));
        expect_same(take(messages, stream, parts_of(length)).result, whole.result);
    }
    EXPECT_LT(support::processor_time() - start, std::chrono::seconds(200));
    return whole.result;
}

TEST(StreamVerifier, ReportsALargeLoss)
{
    const payload source = random_bytes(300000);
    EXPECT_THAT(
        told(play_large(source, without(source, 123456, 100000)).faults),
        ElementsAre("lost 123456 x100000"));
}

TEST(StreamVerifier, ReportsALargeAlteration)
{
    const payload source = random_bytes(300000);
    EXPECT_THAT(
        told(play_large(source, altered(source, 123456, 100000)).faults),
        ElementsAre("altered 123456 x100000"));
}

TEST(StreamVerifier, ReportsALargeSurplus)
{
    const payload source = random_bytes(300000);
    EXPECT_THAT(
        told(play_large(source, with(source, 123456, random_bytes(100000, 9))).faults),
        ElementsAre("unexpected 123456 x100000"));
}

TEST(StreamVerifier, ReportsALargeRepetition)
{
    const payload source = random_bytes(300000);
    EXPECT_THAT(
        told(
            play_large(source, with(source, 123456, part(source, 23456, 100000))).faults),
        ElementsAre("duplicated 123456 x100000"));
}

TEST(StreamVerifier, ReportsALargeBlockThatComesLater)
{
    const payload source = random_bytes(300000);
    EXPECT_THAT(
        told(play_large(source, moved_back(source, 1234, 100000, 250000)).faults),
        ElementsAre("reordered 1234 x100000"));
}

// It looks a mebibyte ahead, and not much further.

TEST(StreamVerifier, FindsItsWayBehindAlmostAMebibyte)
{
    const payload source = random_bytes(3 << 20U);
    const sizes lengths = equal_sizes(source.size(), 10240);
    const payload stream = without(source, 5000, 1000000);
    const taken all = take(in_messages(source, lengths), stream, parts_of(65536));

    EXPECT_THAT(told(all.result.faults), ElementsAre("lost 5000 x1000000"));
    EXPECT_FALSE(all.result.gave_up);
}

TEST(StreamVerifier, GivesUpBehindMoreThanAMebibyte)
{
    const payload source = random_bytes(4 << 20U);
    const sizes lengths = equal_sizes(source.size(), 10240);
    const payload stream = without(source, 5000, (1 << 20U) + 100000);
    const auto start = support::processor_time();
    const taken all = take(in_messages(source, lengths), stream, parts_of(65536), false);

    EXPECT_TRUE(all.result.gave_up);
    EXPECT_FALSE(all.complete_at_end);
    EXPECT_THAT(
        told(all.result.faults),
        ElementsAre("altered 5000 x" + std::to_string(stream.size() - 5000)));
    EXPECT_EQ(all.result.matched_bytes, 5000u);
    EXPECT_LT(support::processor_time() - start, std::chrono::seconds(200));
}

TEST(StreamVerifier, GivesUpOnAnotherStreamAltogether)
{
    const payload source = random_bytes(3 << 20U);
    const payload stream = random_bytes(3 << 20U, 9);
    const sizes lengths = equal_sizes(source.size(), 10240);
    for (const size_t length : {1000u, 65536u, 3u << 20U}) {
        const taken all = take(in_messages(source, lengths), stream, parts_of(length));
        EXPECT_TRUE(all.result.gave_up);
        ASSERT_FALSE(all.result.faults.empty());
        EXPECT_EQ(all.result.faults[0].kind, fault_kind::altered);
        EXPECT_LT(all.result.faults[0].offset, 8u);
        EXPECT_LT(all.result.matched_bytes, 8u);
    }
}

// Excerpts.

TEST(StreamVerifier, ShowsSixteenBytesOfBothSidesOfAnAlteration)
{
    const payload source = random_bytes(1000);
    const payload stream = altered(source, 456, 20);
    const verification result = play(source, stream);

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_EQ(result.faults[0].expected, part(source, 456, 16));
    EXPECT_EQ(result.faults[0].received, part(stream, 456, 16));
}

TEST(StreamVerifier, ShowsWhatIsLeftAtTheEnd)
{
    const payload source = random_bytes(1000);
    const payload stream = altered(source, 995, 5);
    const verification result = play(source, stream);

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_EQ(result.faults[0].expected, part(source, 995, 5));
    EXPECT_EQ(result.faults[0].received, part(stream, 995, 5));
}

TEST(StreamVerifier, ShowsNothingReceivedOfAMissingEnd)
{
    const payload source = random_bytes(1000);
    const verification result = play(source, part(source, 0, 900));

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_EQ(result.faults[0].expected, part(source, 900, 16));
    EXPECT_THAT(result.faults[0].received, IsEmpty());
}

TEST(StreamVerifier, ShowsNothingExpectedBehindTheEnd)
{
    const payload source = random_bytes(1000);
    const payload surplus = random_bytes(30, 9);
    const verification result = play(source, with(source, 1000, surplus));

    ASSERT_EQ(result.faults.size(), 1u);
    EXPECT_THAT(result.faults[0].expected, IsEmpty());
    EXPECT_EQ(result.faults[0].received, part(surplus, 0, 16));
}

// Completeness.

// The first number of bytes with which it is complete, taken byte by byte.
std::optional<size_t> complete_with(const payload& source, const payload& stream)
{
    listed_source listed(in_messages(source, equal_sizes(source.size())));
    stream_verifier verifier(listed);
    for (size_t taken_bytes = 0; taken_bytes < stream.size(); ++taken_bytes) {
        if (verifier.complete())
            return taken_bytes;
        verifier.arrived(bytes_view(stream).first(taken_bytes + 1), 1);
    }
    return verifier.complete() ? std::optional(stream.size()) : std::nullopt;
}

TEST(StreamVerifier, IsCompleteWithTheLastByte)
{
    for (const size_t size : {1u, 99u, 100u, 101u, 1000u})
        EXPECT_EQ(complete_with(random_bytes(size), random_bytes(size)), size);
}

TEST(StreamVerifier, IsCompleteFromTheStartWhenTheSourceIsEmpty)
{
    EXPECT_EQ(complete_with({}, {}), 0u);
}

TEST(StreamVerifier, IsNotCompleteWithoutTheLastByte)
{
    const payload source = random_bytes(1000);
    EXPECT_EQ(complete_with(source, part(source, 0, 999)), std::nullopt);
}

TEST(StreamVerifier, IsCompleteBehindAlteredBytes)
{
    const payload source = random_bytes(1000);
    EXPECT_EQ(complete_with(source, altered(source, 456, 10)), 1000u);
}

TEST(StreamVerifier, IsCompleteBehindSurplusOnlyWithTheLastByteOfTheSource)
{
    const payload source = random_bytes(1000);
    EXPECT_EQ(complete_with(source, with(source, 456, random_bytes(50, 9))), 1050u);
}

// The rest of the source.

taken take_start(size_t length, bool rest_is_due)
{
    const payload source = random_bytes(1000);
    return take(
        in_messages(source, equal_sizes(1000)), part(source, 0, length), parts_of(90),
        rest_is_due);
}

TEST(StreamVerifier, ReportsNoRestThatIsNotDue)
{
    const verification result = take_start(450, false).result;

    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.matched_messages, 4u);
    EXPECT_EQ(result.matched_bytes, 450u);
    EXPECT_EQ(result.expected_messages, std::nullopt);
    EXPECT_EQ(result.expected_bytes, std::nullopt);
}

TEST(StreamVerifier, ReportsNothingWhenNothingArrivesAndNothingIsDue)
{
    EXPECT_EQ(take_start(0, false).result.fault_count, 0u);
}

TEST(StreamVerifier, KnowsTheTotalWhenAllHasArrivedThoughNothingMoreIsDue)
{
    const verification result = take_start(1000, false).result;

    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.expected_messages, 10u);
    EXPECT_EQ(result.expected_bytes, 1000u);
}

TEST(StreamVerifier, ReportsALossInFrontOfTheLastByteThoughTheRestIsNotDue)
{
    const payload source = random_bytes(1000);
    const taken all = take(
        in_messages(source, equal_sizes(1000)), part(without(source, 200, 30), 0, 600),
        parts_of(90), false);

    EXPECT_THAT(told(all.result.faults), ElementsAre("lost 200 x30"));
}

TEST(StreamVerifier, ReportsAnAlterationRightBeforeItsEndThoughTheRestIsNotDue)
{
    const payload source = random_bytes(1000);
    const taken all = take(
        in_messages(source, equal_sizes(1000)), altered(part(source, 0, 600), 590, 10),
        parts_of(90), false);

    ASSERT_FALSE(all.result.faults.empty());
    EXPECT_EQ(all.result.faults[0].offset, 590u);
    EXPECT_EQ(all.result.count(fault_kind::truncated), 0u);
    EXPECT_EQ(all.result.matched_bytes, 590u);
}

TEST(StreamVerifier, FollowsAnEndlessSource)
{
    const payload bytes = random_bytes(700);
    listed_source source(in_messages(bytes, equal_sizes(700)), 0);
    stream_verifier verifier(source);
    for (size_t i = 0; i < 500; ++i) {
        verifier.arrived(bytes);
        ASSERT_FALSE(verifier.complete());
    }
    const verification result = verifier.finish(false);

    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.matched_messages, 3500u);
    EXPECT_EQ(result.expected_messages, std::nullopt);
    EXPECT_EQ(result.expected_bytes, std::nullopt);
}

TEST(StreamVerifier, ReadsInStepNoFurtherThanItNeeds)
{
    const payload bytes = random_bytes(700);
    listed_source source(in_messages(bytes, equal_sizes(700)), 0);
    stream_verifier verifier(source);
    for (size_t i = 0; i < 500; ++i)
        verifier.arrived(bytes);

    EXPECT_LE(source.given(), 3502u);
}

TEST(StreamVerifier, TellsWhyASourceEndsEarly)
{
    const payload bytes = random_bytes(500);
    listed_source source(in_messages(bytes, equal_sizes(500)), 1, "Cannot read on.");
    stream_verifier verifier(source);
    verifier.arrived(bytes);

    EXPECT_TRUE(verifier.complete());
    const verification result = verifier.finish(true);
    EXPECT_EQ(result.source_error, "Cannot read on.");
    EXPECT_EQ(result.fault_count, 0u);
    EXPECT_EQ(result.expected_bytes, 500u);
}

// Settled faults are counted on the way, and never taken back.

TEST(StreamVerifier, CountsFaultsOnTheWay)
{
    const payload source = random_bytes(3000);
    const payload stream = altered(without(source, 1000, 20), 500, 5);
    listed_source listed(in_messages(source, equal_sizes(3000)));
    stream_verifier verifier(listed);
    std::vector<uint64_t> counted;
    for (const size_t end : {500u, 700u, 1200u, 2980u}) {
        const size_t before = counted.empty()       ? 0
                              : counted.size() == 1 ? 500
                              : counted.size() == 2 ? 700
                                                    : 1200;
        verifier.arrived(bytes_view(stream).first(end), end - before);
        counted.push_back(verifier.fault_count());
    }
    EXPECT_THAT(counted, ElementsAre(0, 1, 2, 2));
}

TEST(StreamVerifier, KeepsTheFirstThousandFaultsAndCountsAll)
{
    const payload source = random_bytes(200000);
    payload stream = source;
    told_faults expected;
    for (size_t at = 50; at < 150050; at += 100) {
        stream[at] = static_cast<uint8_t>(stream[at] + 1);
        if (expected.size() < 1000)
            expected.push_back("altered " + std::to_string(at) + " x1");
    }
    const sizes lengths = equal_sizes(source.size());
    const taken all = take(in_messages(source, lengths), stream, parts_of(1000));

    EXPECT_EQ(told(all.result.faults), expected);
    EXPECT_EQ(all.result.fault_count, 1500u);
    EXPECT_EQ(all.result.count(fault_kind::altered), 1500u);
    EXPECT_EQ(all.result.matched_messages, 500u);
}

// Bytes that repeat hide where they are missing: only the totals stand.

payload zeros(size_t count) { return payload(count, 0); }

TEST(StreamVerifier, ReportsMissingZerosAtTheEnd)
{
    EXPECT_THAT(faults_of(zeros(1000), zeros(993)), ElementsAre("truncated 993 x7"));
}

TEST(StreamVerifier, ReportsSurplusZerosAtTheEnd)
{
    const verification result = play(zeros(1000), zeros(1007));

    EXPECT_EQ(result.count(fault_kind::duplicated), 7u);
    EXPECT_EQ(result.fault_count, 1u);
}

// Dropping the foreign bytes brings the zeros in step again, so that as many are
// missing at the end; taking them for zeros leaves more over.
TEST(StreamVerifier, FindsForeignBytesAmongZeros)
{
    for (const size_t length : {1u, 3u, 50u}) {
        const verification result = play(zeros(1000), altered(zeros(1000), 456, length));
        ASSERT_FALSE(result.faults.empty());
        EXPECT_EQ(result.faults[0].offset, 456u);
        EXPECT_EQ(
            result.count(fault_kind::unexpected) + result.count(fault_kind::altered),
            length);
    }
}

TEST(StreamVerifier, FindsSurplusBytesAmongZeros)
{
    const verification result =
        play(zeros(1000), with(zeros(1000), 456, payload{1, 2, 3}));

    EXPECT_THAT(told(result.faults), ElementsAre("unexpected 456 x3"));
}

TEST(StreamVerifier, KeepsItsBooksOverAShortPeriod)
{
    payload source(3000);
    for (size_t i = 0; i < source.size(); ++i)
        source[i] = static_cast<uint8_t>(i % 7);
    for (size_t length = 1; length <= 15; ++length) {
        play(source, without(source, 1000, length));
        play(source, with(source, 1000, part(source, 1000 - length, length)));
        play(source, altered(source, 1000, length));
        ASSERT_FALSE(HasFailure()) << length;
    }
}

TEST(StreamVerifier, FindsTheWayThroughLongZerosInGoodTime)
{
    const auto start = support::processor_time();
    const payload source = zeros(3 << 20U);
    const sizes lengths = equal_sizes(source.size(), 10240);
    for (const payload& stream :
         {with(source, 5, {1}), altered(source, 1 << 20U, 3), payload(3 << 20U, 1)}) {
        const taken all = take(in_messages(source, lengths), stream, parts_of(10240));
        EXPECT_EQ(
            all.result.faults.front().offset, support::first_difference(source, stream));
    }
    EXPECT_LT(support::processor_time() - start, std::chrono::seconds(200));
}

// Random patterns.

// Both sides from one difference on: so many bytes of each are left over.
struct edit {
    size_t source_at{0};
    size_t expected{0};
    size_t stream_at{0};
    size_t received{0};
    size_t block{0}; // not 0: the block of this number is lost, or comes late
};

// Makes a source and what arrives of it side by side, part by part, and works out
// from the parts what must be reported.
class stream_pattern {
public:
    explicit stream_pattern(uint64_t seed) : random_(seed)
    {
        do {
            draw();
            work_out();
        } while (ambiguous_);
    }

    const payload& source() const { return source_; }
    const payload& stream() const { return stream_; }
    const sizes& lengths() const { return lengths_; }
    const std::vector<fault>& faults() const { return faults_; }
    const std::vector<size_t>& arrival_offsets() const { return stream_offsets_; }

    bool only_replaces() const
    {
        return std::all_of(edits_.begin(), edits_.end(), [this](const edit& one) {
            return one.expected == one.received &&
                   one.source_at + one.expected < source_.size();
        });
    }

private:
    void draw()
    {
        source_.clear();
        stream_.clear();
        edits_.clear();
        late_.clear();
        blocks_ = 0;
        const bool at_start = random_.one_in(4);
        if (!at_start)
            in_step();
        for (uint64_t left = random_.between(1, 8); left > 0; --left) {
            draw_fault();
            in_step();
            if (!late_.empty() && random_.one_in(2))
                late_block_arrives();
        }
        while (!late_.empty())
            late_block_arrives();
        if (random_.one_in(3))
            draw_end();
        draw_lengths();
    }

    size_t draw_size()
    {
        switch (random_.below(40)) {
        case 0:
            return random_.between(1, 100000);
        case 1:
        case 2:
            return random_.between(1, 5000);
        default:
            return random_.one_in(2) ? random_.between(1, 6) : random_.between(1, 200);
        }
    }

    static void append(payload& to, const payload& bytes)
    {
        to.insert(to.end(), bytes.begin(), bytes.end());
    }

    void in_step(size_t least = 101)
    {
        const payload bytes = random_.bytes(random_.between(least, least + 600));
        append(source_, bytes);
        append(stream_, bytes);
    }

    void add_edit(const payload& expected, const payload& received, size_t block = 0)
    {
        edits_.push_back(
            {source_.size(), expected.size(), stream_.size(), received.size(), block});
        append(source_, expected);
        append(stream_, received);
    }

    void draw_fault()
    {
        const size_t size = draw_size();
        switch (random_.below(6)) {
        case 0:
            return alter(size);
        case 1:
            return add_edit(random_.bytes(size), {});
        case 2:
            return add_edit({}, random_.bytes(size));
        case 3:
            return repeat(size);
        case 4:
            return add_edit(random_.bytes(size), random_.bytes(draw_size()));
        default:
            return move_back(size);
        }
    }

    void alter(size_t size)
    {
        const payload expected = random_.bytes(size);
        payload received = random_.bytes(size);
        received[0] = random_.other_than(expected[0]);
        add_edit(expected, received);
    }

    void repeat(size_t size)
    {
        size = std::min(size, stream_.size());
        if (size > 0)
            add_edit({}, part(stream_, stream_.size() - size, size));
    }

    // More than its own length lies in step behind it, or that would count as early.
    void move_back(size_t size)
    {
        const payload block = random_.bytes(size);
        add_edit(block, {}, ++blocks_);
        late_.emplace_back(blocks_, block);
        in_step(std::max<size_t>(size, 101) + 1);
    }

    void late_block_arrives()
    {
        add_edit({}, late_.front().second, late_.front().first);
        late_.erase(late_.begin());
        in_step();
    }

    void draw_end()
    {
        const size_t size = draw_size();
        switch (random_.below(4)) {
        case 0:
            return add_edit(random_.bytes(size), {});
        case 1:
            return add_edit({}, random_.bytes(size));
        case 2:
            return repeat(size);
        default:
            return alter(size);
        }
    }

    void draw_lengths()
    {
        lengths_.clear();
        const uint64_t most = random_.one_in(2) ? 200 : 10240;
        for (size_t left = source_.size(); left > 0; left -= lengths_.back())
            lengths_.push_back(
                static_cast<uint32_t>(random_.between(1, std::min<size_t>(left, most))));
    }

    // The reference answer.

    void work_out()
    {
        faults_.clear();
        stream_offsets_.clear();
        losses_.clear();
        ambiguous_ = false;
        for (const edit& one : edits_)
            name(canonical(one));
    }

    // A fault counts from the first byte that differs, and ends with the last one.
    edit canonical(edit one) const
    {
        while (one.expected > 0 && one.received > 0 &&
               source_[one.source_at] == stream_[one.stream_at]) {
            ++one.source_at;
            ++one.stream_at;
            --one.expected;
            --one.received;
        }
        while (one.expected > 0 && one.received > 0 &&
               source_[one.source_at + one.expected - 1] ==
                   stream_[one.stream_at + one.received - 1]) {
            --one.expected;
            --one.received;
        }
        const bool one_sided = one.expected == 0 || one.received == 0;
        while (one_sided && one.source_at < source_.size() &&
               one.stream_at < stream_.size() &&
               source_[one.source_at] == stream_[one.stream_at]) {
            ++one.source_at;
            ++one.stream_at;
        }
        return one;
    }

    void name(const edit& one)
    {
        if (one.received == 0 && one.expected == 0)
            return;
        if (one.received == 0)
            return name_loss(one);
        if (one.expected == 0)
            return name_surplus(one);
        const size_t both = std::min(one.expected, one.received);
        add(fault_kind::altered, one.source_at, both, one.stream_at);
        if (one.expected > both) {
            add(fault_kind::lost, one.source_at + both, one.expected - both,
                one.stream_at + both);
            losses_.push_back(
                {part(source_, one.source_at + both, one.expected - both), 0, 0});
        } else if (one.received > both) {
            const size_t from = one.stream_at + both;
            // The rest may be bytes of something else by chance.
            ambiguous_ = ambiguous_ || is_known(from, one.received - both);
            add(fault_kind::unexpected, one.source_at + both, one.received - both, from);
        }
    }

    bool is_known(size_t from, size_t length) const
    {
        return is_repeated(from, length) ||
               std::any_of(losses_.begin(), losses_.end(), [&](const loss& earlier) {
                   return is_rotation(part(stream_, from, length), earlier.bytes);
               });
    }

    bool is_repeated(size_t from, size_t length) const
    {
        return from >= length &&
               part(stream_, from, length) == part(stream_, from - length, length);
    }

    void name_loss(const edit& one)
    {
        const bool at_end = one.source_at + one.expected == source_.size() &&
                            one.stream_at == stream_.size();
        losses_.push_back(
            {part(source_, one.source_at, one.expected), one.block, faults_.size()});
        add(at_end ? fault_kind::truncated : fault_kind::lost, one.source_at,
            one.expected, one.stream_at);
    }

    void name_surplus(const edit& one)
    {
        const payload surplus = part(stream_, one.stream_at, one.received);
        const bool again = is_repeated(one.stream_at, one.received);
        for (const loss& earlier : losses_) {
            if (!is_rotation(surplus, earlier.bytes))
                continue;
            // By chance the bytes of something else.
            if (again || earlier.block == 0 || earlier.block != one.block) {
                ambiguous_ = true;
                return;
            }
            faults_[earlier.fault].kind = fault_kind::reordered;
            return;
        }
        add(again ? fault_kind::duplicated : fault_kind::unexpected, one.source_at,
            one.received, one.stream_at);
    }

    static bool is_rotation(const payload& left, payload right)
    {
        if (left.size() != right.size())
            return false;
        append(right, payload(right));
        return std::search(right.begin(), right.end(), left.begin(), left.end()) !=
               right.end();
    }

    void add(fault_kind kind, size_t offset, size_t length, size_t stream_offset)
    {
        fault one;
        one.kind = kind;
        one.offset = offset;
        one.length = length;
        faults_.push_back(one);
        stream_offsets_.push_back(stream_offset);
    }

    struct loss {
        payload bytes;
        size_t block;
        size_t fault;
    };

    dice random_;
    payload source_;
    payload stream_;
    sizes lengths_;
    std::vector<edit> edits_;
    std::vector<std::pair<size_t, payload>> late_;
    size_t blocks_{0};
    std::vector<loss> losses_;
    std::vector<fault> faults_;
    std::vector<size_t> stream_offsets_; // by fault: its first byte that arrived
    bool ambiguous_{false};
};

void expect_excerpts(const verification& result, const stream_pattern& pattern)
{
    ASSERT_EQ(result.faults.size(), pattern.arrival_offsets().size());
    for (size_t i = 0; i < result.faults.size(); ++i) {
        const fault& one = result.faults[i];
        const auto shown = std::min<size_t>(one.length, 16);
        expect_excerpt_of(one.received, pattern.stream(), pattern.arrival_offsets()[i]);
        const bool replaced = one.kind == fault_kind::altered;
        const bool missing =
            one.kind == fault_kind::lost || one.kind == fault_kind::truncated;
        EXPECT_GE(one.received.size(), replaced ? shown : 0);
        EXPECT_GE(one.expected.size(), replaced || missing ? shown : 0);
    }
}

void expect_pattern_found(const stream_pattern& pattern, const cutter& next)
{
    const auto messages = in_messages(pattern.source(), pattern.lengths());
    const taken all = take(messages, pattern.stream(), next);

    EXPECT_EQ(told(all.result.faults), told(pattern.faults()));
    expect_sound(all, pattern.source(), pattern.lengths(), pattern.stream());
    if (testing::Test::HasFailure())
        return;
    expect_excerpts(all.result, pattern);
    EXPECT_EQ(all.result.fault_count, pattern.faults().size());
    EXPECT_FALSE(all.result.gave_up);
    if (!pattern.only_replaces())
        return;
    EXPECT_EQ(all.completed, pattern.lengths());
    EXPECT_TRUE(all.complete_at_end);
    EXPECT_FALSE(all.complete_too_soon);
}

class StreamFaultPatterns : public testing::TestWithParam<uint64_t> {};

TEST_P(StreamFaultPatterns, AreReportedAsTheyAre)
{
    for (uint64_t i = 0; i < 500; ++i) {
        const uint64_t seed = GetParam() * 1000 + i;
        SCOPED_TRACE("seed " + std::to_string(seed));
        const stream_pattern pattern(seed);
        expect_pattern_found(pattern, parts_of(pattern.stream().size() + 1));
        expect_pattern_found(pattern, random_parts(seed, 20000));
        expect_pattern_found(pattern, random_parts(seed, 40));
        if (HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, StreamFaultPatterns, testing::Range<uint64_t>(1, 3));

// ------------------------------------------------------------------ at great length

TEST(StreamVerifier, BearsADifferenceEveryHundredBytes)
{
    dice random(31);
    payload source = random.bytes(4000000);
    payload stream = source;
    for (size_t at = 50; at < stream.size(); at += 100)
        stream[at] = static_cast<uint8_t>(~stream[at]);
    const taken all =
        take(in_messages(source, sizes(400, 10000)), stream, parts_of(700000));
    EXPECT_EQ(all.result.count(fault_kind::altered), 40000u);
    EXPECT_EQ(all.result.fault_count, 40000u);
}

TEST(StreamVerifier, TakesALongLostBlockOfZerosForWhatItIs)
{
    dice random(32);
    payload block(400000);
    block.back() = 1;
    const payload before = random.bytes(1000);
    const payload between = random.bytes(1000);
    payload source = before;
    source.insert(source.end(), block.begin(), block.end());
    source.insert(source.end(), between.begin(), between.end());
    payload stream = before;
    stream.insert(stream.end(), between.begin(), between.end());
    stream.insert(stream.end(), block.begin(), block.end() - 1);
    stream.push_back(2);
    const taken all = take({source}, stream, parts_of(500000));
    EXPECT_GE(all.result.fault_count, 1u);
}

TEST(StreamVerifier, IsExhaustedOnlyWhenTheSourceWouldHaveEnded)
{
    dice random(33);
    const payload source = random.bytes(3000000);
    const payload other = random.bytes(3000000);
    listed_source listed(in_messages(source, sizes(300, 10000)));
    stream_verifier verifier(listed);
    for (size_t at = 0; at < other.size(); at += 100000) {
        EXPECT_FALSE(verifier.exhausted()) << at;
        verifier.arrived(bytes_view(other).subspan(at, 100000));
    }
    verifier.arrived(bytes_view(other).first(1));
    EXPECT_TRUE(verifier.exhausted());
}

} // namespace stream_verifier_test
