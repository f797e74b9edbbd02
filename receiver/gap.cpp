// See gap.h.
#include "gap.h"

#include <algorithm>
#include <span>
#include <utility>

#include "result.h"
#include "source.h"

namespace receiver {

namespace {

enum : size_t {
    MOST_COMPARISONS = 16384, // beyond that, order alone decides
    EXCERPT = 16
};
constexpr double LEAST_LIKENESS = 0.2;
constexpr double LEAST_LIKENESS_ELSEWHERE = 0.5;

size_t common_start(bytes_view left, bytes_view right)
{
    const auto ends = std::mismatch(left.begin(), left.end(), right.begin(), right.end());
    return static_cast<size_t>(ends.first - left.begin());
}

size_t common_tail(bytes_view left, bytes_view right)
{
    const auto ends =
        std::mismatch(left.rbegin(), left.rend(), right.rbegin(), right.rend());
    return static_cast<size_t>(ends.first - left.rbegin());
}

bool is_truncated(bytes_view received, bytes_view expected)
{
    return received.size() < expected.size() &&
           common_start(received, expected) == received.size();
}

// From 0 for nothing in common to 1.
double likeness(bytes_view received, bytes_view expected)
{
    if (received.empty() || expected.empty())
        return 0;
    if (is_truncated(received, expected))
        return 1;
    const size_t shorter = std::min(received.size(), expected.size());
    size_t equal = 0;
    for (size_t i = 0; i < shorter; ++i)
        equal += received[i] == expected[i] ? 1U : 0U;
    const size_t ends =
        common_start(received, expected) + common_tail(received, expected);
    equal = std::max(equal, std::min(shorter, ends));
    return static_cast<double>(equal) /
           static_cast<double>(std::max(received.size(), expected.size()));
}

bool is_in_place(const datagram& stranger, const missing_message& message)
{
    return stranger.due <= message.number && message.number < stranger.next;
}

struct candidate {
    double likeness;
    bool in_place;
    size_t stranger;
    size_t missing;
};

// Best first: those of the stranger's own place, then by likeness.
std::vector<candidate> likely_pairs(
    const std::vector<datagram>& strangers, const gap& missing)
{
    std::vector<candidate> candidates;
    if (strangers.size() * missing.size() > MOST_COMPARISONS)
        return candidates;
    for (size_t s = 0; s < strangers.size(); ++s) {
        for (size_t m = 0; m < missing.size(); ++m) {
            const bool in_place = is_in_place(strangers[s], missing[m]);
            const double like = likeness(strangers[s].payload, missing[m].payload);
            if (like >= (in_place ? LEAST_LIKENESS : LEAST_LIKENESS_ELSEWHERE))
                candidates.push_back({like, in_place, s, m});
        }
    }
    std::stable_sort(
        candidates.begin(), candidates.end(),
        [](const candidate& left, const candidate& right) {
            if (left.in_place != right.in_place)
                return left.in_place;
            return left.likeness > right.likeness;
        });
    return candidates;
}

// Whether nothing of the stranger's place has arrived elsewhere.
bool is_all_missing(const datagram& stranger, const gap& missing, size_t first)
{
    const uint64_t count = stranger.next - stranger.due;
    return count != 0 && first < missing.size() && count <= missing.size() - first &&
           missing[first].number == stranger.due &&
           missing[first + count - 1].number == stranger.next - 1;
}

// In order, within their places.
void pair_the_rest(
    const std::vector<datagram>& strangers, const gap& missing,
    std::vector<std::optional<stranger_pair>>& pairs, std::vector<bool>& taken)
{
    for (size_t s = 0; s < pairs.size(); ++s) {
        if (pairs[s])
            continue;
        const auto first = std::lower_bound(
            missing.begin(), missing.end(), strangers[s].due,
            [](const missing_message& each, uint64_t number) {
                return each.number < number;
            });
        auto m = static_cast<size_t>(first - missing.begin());
        if (!is_all_missing(strangers[s], missing, m))
            continue;
        while (m < taken.size() && taken[m])
            ++m;
        if (m == taken.size() || !is_in_place(strangers[s], missing[m]))
            continue;
        pairs[s] = stranger_pair{m, 0};
        taken[m] = true;
    }
}

std::vector<uint8_t> excerpt(bytes_view bytes, size_t from)
{
    const size_t begin = std::min(from, bytes.size());
    const bytes_view part =
        bytes.subspan(begin, std::min<size_t>(EXCERPT, bytes.size() - begin));
    return {part.begin(), part.end()};
}

fault changed(const datagram& stranger, const missing_message& message)
{
    fault found;
    found.kind = is_truncated(stranger.payload, message.payload) ? fault_kind::truncated
                                                                 : fault_kind::altered;
    found.message = message.number;
    found.arrival = stranger.arrival;
    found.offset = common_start(stranger.payload, message.payload);
    found.offset_in_message = found.offset;
    found.expected = excerpt(message.payload, found.offset);
    found.received = excerpt(stranger.payload, found.offset);
    return found;
}

fault of_message(fault_kind kind, uint64_t message, uint64_t arrival)
{
    fault found;
    found.kind = kind;
    found.message = message;
    found.arrival = arrival;
    return found;
}

} // namespace

std::vector<std::optional<stranger_pair>> pair_strangers(
    const std::vector<datagram>& strangers, const gap& missing)
{
    std::vector<std::optional<stranger_pair>> pairs(strangers.size());
    std::vector<bool> taken(missing.size());
    for (const candidate& pair : likely_pairs(strangers, missing)) {
        if (pairs[pair.stranger] || taken[pair.missing])
            continue;
        pairs[pair.stranger] = stranger_pair{pair.missing, pair.likeness};
        taken[pair.missing] = true;
    }
    pair_the_rest(strangers, missing, pairs, taken);
    return pairs;
}

bool is_covered(const std::vector<datagram>& strangers, const gap& missing)
{
    if (strangers.size() < missing.size())
        return false;
    const auto pairs = pair_strangers(strangers, missing);
    const auto sure = std::count_if(pairs.begin(), pairs.end(), [](const auto& pair) {
        return pair && pair->likeness >= LEAST_LIKENESS_ELSEWHERE;
    });
    return static_cast<size_t>(sure) == missing.size();
}

size_t report_gap(const gap& missing, std::vector<datagram>& strangers, fault_log& log)
{
    const auto pairs = pair_strangers(strangers, missing);
    std::vector<bool> arrived(missing.size());
    std::vector<datagram> others;
    uint64_t due = 0; // moved on by the altered messages in front of a stranger
    for (size_t s = 0; s < pairs.size(); ++s) {
        if (!pairs[s]) {
            others.push_back(std::move(strangers[s]));
            if (others.back().due < due && due <= others.back().next)
                others.back().due = due;
            continue;
        }
        const missing_message& message = missing[pairs[s]->missing];
        log.add_to_run(changed(strangers[s], message));
        arrived[pairs[s]->missing] = true;
        due = std::max(due, message.number + 1);
    }
    strangers = std::move(others);

    size_t lost = 0;
    for (size_t m = 0; m < missing.size(); ++m) {
        if (arrived[m])
            continue;
        log.add_to_run(of_message(fault_kind::lost, missing[m].number, 0));
        ++lost;
    }
    return lost;
}

void report_stranger(const datagram& stranger, fault_log& log)
{
    log.add_to_run(of_message(fault_kind::unexpected, stranger.due, stranger.arrival));
}

} // namespace receiver
