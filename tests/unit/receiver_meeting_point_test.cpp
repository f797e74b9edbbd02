// Where two sequences agree again: compared with looking at every pair of places,
// on short random sequences over few letters, where most things are ambiguous.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "meeting_point.h"

namespace receiver_meeting_point_test {

using namespace receiver;
using sequence_t = std::vector<uint64_t>;

struct found {
    size_t received;
    size_t expected;

    bool operator==(const found&) const = default;
};

std::ostream& operator<<(std::ostream& out, const found& point)
{
    return out << point.received << '/' << point.expected;
}

std::optional<found> as_found(const std::optional<meeting_point>& point)
{
    if (!point)
        return std::nullopt;
    return found{point->received, point->expected};
}

bool agree(
    const sequence_t& received, size_t i, const sequence_t& expected, size_t j,
    size_t count)
{
    if (i + count > received.size() || j + count > expected.size())
        return false;
    for (size_t k = 0; k < count; ++k) {
        if (received[i + k] != expected[j + k])
            return false;
    }
    return true;
}

// Least cost; then even; then fewest received.
std::optional<found> best_of_all(
    const sequence_t& received, const sequence_t& expected, size_t anchor)
{
    std::optional<found> best;
    std::tuple<size_t, int, size_t> best_rank;
    for (size_t i = 0; i <= received.size(); ++i) {
        for (size_t j = 0; j <= expected.size(); ++j) {
            const std::tuple<size_t, int, size_t> rank{i + j, i == j ? 0 : 1, i};
            if (agree(received, i, expected, j, anchor) && (!best || rank < best_rank)) {
                best = found{i, j};
                best_rank = rank;
            }
        }
    }
    return best;
}

std::optional<found> meeting_of(
    const sequence_t& received, const sequence_t& expected, size_t anchor)
{
    return as_found(find_meeting_point<uint64_t>(received, expected, anchor));
}

std::optional<found> find_short_parts_first(
    const sequence_t& received, const sequence_t& expected, size_t anchor, bool& certain)
{
    return as_found(find_meeting_point<uint64_t>(received, expected, anchor, certain));
}

sequence_t letters(const std::string& text) { return {text.begin(), text.end()}; }

sequence_t random_sequence(std::mt19937_64& random, size_t most, uint64_t alphabet)
{
    sequence_t sequence(random() % (most + 1));
    for (uint64_t& element : sequence)
        element = random() % alphabet;
    return sequence;
}

// Two sides of one text, each with something taken out or put in.
std::pair<sequence_t, sequence_t> torn_pair(std::mt19937_64& random, uint64_t alphabet)
{
    sequence_t left = random_sequence(random, 120, alphabet);
    sequence_t right = left;
    for (sequence_t* side : {&left, &right}) {
        const size_t at = random() % (side->size() + 1);
        const size_t out = random() % 20;
        const size_t end = std::min(side->size(), at + out);
        side->erase(
            side->begin() + static_cast<ptrdiff_t>(at),
            side->begin() + static_cast<ptrdiff_t>(end));
        const sequence_t in = random_sequence(random, 10, alphabet);
        side->insert(side->begin(), in.begin(), in.end());
    }
    return {left, right};
}

// ---------------------------------------------------------------------- by example

TEST(ReceiverMeetingPoint, WhatIsMissingIsLeftOverOnTheExpectedSide)
{
    EXPECT_EQ(meeting_of(letters("cdefg"), letters("abcdefg"), 3), (found{0, 2}));
}

TEST(ReceiverMeetingPoint, WhatIsTooMuchIsLeftOverOnTheReceivedSide)
{
    EXPECT_EQ(meeting_of(letters("xyabcdef"), letters("abcdef"), 3), (found{2, 0}));
}

TEST(ReceiverMeetingPoint, WhatDiffersIsLeftOverOnBothSides)
{
    EXPECT_EQ(meeting_of(letters("xbcdefg"), letters("abcdefg"), 3), (found{1, 1}));
    EXPECT_EQ(meeting_of(letters("xyzcdefg"), letters("acdefg"), 3), (found{3, 1}));
}

TEST(ReceiverMeetingPoint, TheEvenWayWinsAmongEqualCosts)
{
    // Two too many in front of "ccc", two missing, or one in the place of one.
    EXPECT_EQ(meeting_of(letters("xaaabbbccc"), letters("ybbbaaaccc"), 3), (found{1, 4}));
    EXPECT_EQ(meeting_of(letters("abab"), letters("xbab"), 1), (found{1, 1}));
    EXPECT_EQ(meeting_of(letters("pqraaa"), letters("qwraaa"), 1), (found{1, 0}));
    EXPECT_EQ(meeting_of(letters("pxqr"), letters("qxpr"), 1), (found{1, 1}));
}

TEST(ReceiverMeetingPoint, FewerReceivedWinAmongUnevenWaysOfEqualCost)
{
    // "abc" stands one further on the one side, "bcd" one further on the other.
    EXPECT_EQ(meeting_of(letters("bcdabc"), letters("abcbcd"), 3), (found{0, 3}));
}

TEST(ReceiverMeetingPoint, EqualContentResolvesToTheNearestPlaceAhead)
{
    EXPECT_EQ(meeting_of(letters("ababab"), letters("xabababab"), 2), (found{0, 1}));
}

TEST(ReceiverMeetingPoint, SidesThatAgreeMeetAtOnce)
{
    EXPECT_EQ(meeting_of(letters("abc"), letters("abc"), 3), (found{0, 0}));
}

TEST(ReceiverMeetingPoint, SidesThatNeverAgreeForLongEnoughDoNotMeet)
{
    EXPECT_EQ(meeting_of(letters("abxabyabz"), letters("abuabvabw"), 3), std::nullopt);
    EXPECT_EQ(meeting_of(letters("ab"), letters("ab"), 3), std::nullopt);
    EXPECT_EQ(meeting_of({}, {}, 1), std::nullopt);
    EXPECT_EQ(meeting_of({}, letters("abc"), 1), std::nullopt);
    EXPECT_EQ(meeting_of(letters("abc"), {}, 1), std::nullopt);
}

TEST(ReceiverMeetingPoint, TheLastPlaceOfBothSidesIsLookedAt)
{
    EXPECT_EQ(meeting_of(letters("xxxabc"), letters("yyyyabc"), 3), (found{3, 4}));
}

// Elements differ from nothing at all, also where they are zero.
TEST(ReceiverMeetingPoint, ZerosAreElements)
{
    EXPECT_EQ(meeting_of({0, 0, 1}, {0, 0, 0, 1}, 3), (found{0, 1}));
    EXPECT_EQ(meeting_of({0, 1}, {1, 0, 1}, 2), (found{0, 1}));
}

TEST(ReceiverMeetingPoint, BytesAreFoundLikeNumbers)
{
    const std::vector<uint8_t> received = {9, 0, 255, 0, 255};
    const std::vector<uint8_t> expected = {0, 255, 0, 255};
    EXPECT_EQ(
        as_found(find_meeting_point<uint8_t>(received, expected, 4)), (found{1, 0}));
}

TEST(ReceiverMeetingPoint, BetterIsAnOrder)
{
    std::vector<meeting_point> points;
    for (size_t i = 0; i < 6; ++i) {
        for (size_t j = 0; j < 6; ++j)
            points.push_back({i, j});
    }
    for (const meeting_point& left : points) {
        for (const meeting_point& right : points) {
            const bool same =
                left.received == right.received && left.expected == right.expected;
            EXPECT_EQ(is_better(left, right) + is_better(right, left), same ? 0 : 1);
        }
    }
}

// ------------------------------------------------------------------------ by search

TEST(ReceiverMeetingPoint, ItIsTheBestOfAllPlaces)
{
    std::mt19937_64 random(11);
    for (int round = 0; round < 30000; ++round) {
        const uint64_t alphabet = 1 + random() % 4;
        const size_t anchor = 1 + random() % 4;
        const sequence_t received = random_sequence(random, 14, alphabet);
        const sequence_t expected = random_sequence(random, 14, alphabet);
        ASSERT_EQ(
            meeting_of(received, expected, anchor),
            best_of_all(received, expected, anchor))
            << testing::PrintToString(received) << testing::PrintToString(expected)
            << anchor;
    }
}

TEST(ReceiverMeetingPoint, ItIsTheBestOfTornSequences)
{
    std::mt19937_64 random(12);
    for (int round = 0; round < 1000; ++round) {
        const auto [received, expected] = torn_pair(random, 2 + random() % 9);
        const size_t anchor = 1 + random() % 8;
        ASSERT_EQ(
            meeting_of(received, expected, anchor),
            best_of_all(received, expected, anchor));
    }
}

TEST(ReceiverMeetingPoint, ShortPartsFirstFindTheSame)
{
    std::mt19937_64 random(13);
    for (int round = 0; round < 1000; ++round) {
        const auto [received, expected] = torn_pair(random, 2 + random() % 9);
        const size_t anchor = 1 + random() % 8;
        bool certain = false;
        ASSERT_EQ(
            find_short_parts_first(received, expected, anchor, certain),
            best_of_all(received, expected, anchor));
    }
}

// Both sides are cut somewhere and the rest is looked at afterwards.
TEST(ReceiverMeetingPoint, WhatIsCertainStaysWhenBothSidesGoOn)
{
    std::mt19937_64 random(14);
    int certain_ones = 0;
    for (int round = 0; round < 4000; ++round) {
        const auto [received, expected] = torn_pair(random, 2 + random() % 5);
        const size_t anchor = 1 + random() % 4;
        const size_t seen = random() % (received.size() + 1);
        const sequence_t received_so_far(
            received.begin(), received.begin() + static_cast<ptrdiff_t>(seen));
        // The expected side is looked at one further, as its reader does.
        const size_t ahead = std::min(expected.size(), seen + 1);
        const sequence_t expected_so_far(
            expected.begin(), expected.begin() + static_cast<ptrdiff_t>(ahead));
        bool certain = false;
        const auto point =
            find_short_parts_first(received_so_far, expected_so_far, anchor, certain);
        if (!certain)
            continue;
        ++certain_ones;
        ASSERT_EQ(point, best_of_all(received, expected, anchor));
    }
    EXPECT_GT(certain_ones, 1000);
}

// What is left over on one side may yet turn up on the other.
TEST(ReceiverMeetingPoint, NothingIsCertainBeforeTheExpectedSideHasBeenSeenThatFar)
{
    const sequence_t received = letters("abcdefghmnop0123456789");
    bool certain = false;
    EXPECT_EQ(
        find_short_parts_first(received, letters("mnop"), 2, certain), (found{8, 0}));
    EXPECT_FALSE(certain);
    EXPECT_EQ(
        find_short_parts_first(received, letters("mnopabcdef"), 2, certain),
        (found{0, 4}));
}

TEST(ReceiverMeetingPoint, APointIsCertainOnceNothingCheaperCanShowUp)
{
    bool certain = true;
    // Cost 2, and two agree: four have to be seen.
    EXPECT_EQ(
        find_short_parts_first(letters("xab"), letters("yabcde"), 2, certain),
        (found{1, 1}));
    EXPECT_FALSE(certain);
    EXPECT_EQ(
        find_short_parts_first(letters("xabc"), letters("yabcde"), 2, certain),
        (found{1, 1}));
    EXPECT_TRUE(certain);
}

TEST(ReceiverMeetingPoint, WithoutAPointNothingIsCertain)
{
    bool certain = true;
    EXPECT_EQ(
        find_short_parts_first(letters("abc"), letters("xyz"), 2, certain), std::nullopt);
    EXPECT_FALSE(certain);
}

// ----------------------------------------------------------------------- common end

found end_of(const std::string& received, const std::string& expected)
{
    const sequence_t left = letters(received);
    const sequence_t right = letters(expected);
    const meeting_point end = common_end<uint64_t>(left, right);
    return {end.received, end.expected};
}

TEST(ReceiverCommonEnd, ItIsAsLongAsBothSidesAgree)
{
    EXPECT_EQ(end_of("xyzabc", "pqabc"), (found{3, 2}));
    EXPECT_EQ(end_of("abc", "xabc"), (found{0, 1}));
    EXPECT_EQ(end_of("xabc", "abc"), (found{1, 0}));
    EXPECT_EQ(end_of("abc", "abc"), (found{0, 0}));
}

TEST(ReceiverCommonEnd, SidesThatEndDifferentlyHaveNone)
{
    EXPECT_EQ(end_of("abcx", "abcy"), (found{4, 4}));
    EXPECT_EQ(end_of("", "abc"), (found{0, 3}));
    EXPECT_EQ(end_of("abc", ""), (found{3, 0}));
    EXPECT_EQ(end_of("", ""), (found{0, 0}));
}

} // namespace receiver_meeting_point_test
