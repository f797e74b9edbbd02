// Finds where two sequences that have come apart agree again.
#pragma once

#include <algorithm>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace receiver {

// Up to here, `received` elements stand in the place of `expected` ones.
struct meeting_point {
    size_t received{0};
    size_t expected{0};

    size_t cost() const { return received + expected; }
};

// Fewer left-over elements win; then as many on both sides; then fewer received,
// so that equal content resolves to the nearest place ahead.
inline bool is_better(const meeting_point& left, const meeting_point& right)
{
    if (left.cost() != right.cost())
        return left.cost() < right.cost();
    const bool left_even = left.received == left.expected;
    const bool right_even = right.received == right.expected;
    if (left_even != right_even)
        return left_even;
    return left.received < right.received;
}

namespace details {

// A value for each run of `length` elements, equal for equal runs.
template <class element_t>
std::vector<uint64_t> run_values(std::span<const element_t> sequence, size_t length)
{
    if (sequence.size() < length)
        return {};
    constexpr uint64_t FACTOR = 0x9E3779B97F4A7C15;
    uint64_t leaving = 1; // FACTOR to the power of length
    for (size_t i = 0; i < length; ++i)
        leaving *= FACTOR;

    std::vector<uint64_t> values(sequence.size() - length + 1);
    uint64_t value = 0;
    for (size_t i = 0; i < sequence.size(); ++i) {
        value = value * FACTOR + static_cast<uint64_t>(sequence[i]) + 1;
        if (i >= length)
            value -= leaving * (static_cast<uint64_t>(sequence[i - length]) + 1);
        if (i + 1 >= length)
            values[i + 1 - length] = value;
    }
    return values;
}

} // namespace details

// The best point behind which `anchor` elements agree, if there is one. Equal
// values of runs are confirmed element by element.
template <class element_t>
std::optional<meeting_point> find_meeting_point(
    std::span<const element_t> received, std::span<const element_t> expected,
    size_t anchor)
{
    const std::vector<uint64_t> there = details::run_values(expected, anchor);
    boost::unordered_flat_map<uint64_t, size_t> first_place;
    first_place.reserve(there.size());
    for (size_t j = 0; j < there.size(); ++j)
        first_place.try_emplace(there[j], j);

    const std::vector<uint64_t> here = details::run_values(received, anchor);
    std::optional<meeting_point> best;
    for (size_t i = 0; i < here.size(); ++i) {
        const auto place = first_place.find(here[i]); // the nearest is the cheapest
        if (place == first_place.end())
            continue;
        const meeting_point point{i, place->second};
        if ((!best || is_better(point, *best)) &&
            std::equal(
                received.begin() + static_cast<ptrdiff_t>(i),
                received.begin() + static_cast<ptrdiff_t>(i + anchor),
                expected.begin() + static_cast<ptrdiff_t>(point.expected)))
            best = point;
        if (best && best->cost() <= i)
            break; // what follows costs more
    }
    return best;
}

// The same, looking at short parts first. `certain` tells that no better point can
// show up when the sequences go on: it would cost more than has been seen.
template <class element_t>
std::optional<meeting_point> find_meeting_point(
    std::span<const element_t> received, std::span<const element_t> expected,
    size_t anchor, bool& certain)
{
    for (size_t count = 4 * anchor;; count *= 4) {
        const auto here = received.first(std::min(count, received.size()));
        const auto there = expected.first(std::min(count, expected.size()));
        const auto best = find_meeting_point(here, there, anchor);
        certain = best && best->cost() + anchor <= std::min(here.size(), there.size());
        if (certain ||
            (here.size() == received.size() && there.size() == expected.size()))
            return best;
    }
}

// The point behind which both sequences agree to their ends.
template <class element_t>
meeting_point common_end(
    std::span<const element_t> received, std::span<const element_t> expected)
{
    const auto last = std::mismatch(
        received.rbegin(), received.rend(), expected.rbegin(), expected.rend());
    const auto agreeing = static_cast<size_t>(last.first - received.rbegin());
    return {received.size() - agreeing, expected.size() - agreeing};
}

} // namespace receiver
