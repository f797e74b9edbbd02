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
    LEAST_COST = 64, // of a comparison, in bytes; the shortest takes its time too
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

uint64_t comparison_cost(bytes_view received, bytes_view expected)
{
    return std::max<uint64_t>(std::min(received.size(), expected.size()), LEAST_COST);
}

bool is_in_place(const datagram& stranger, const missing_message& message)
{
    return stranger.due <= message.number && message.number < stranger.next;
}

struct candidate {
    double likeness;
    size_t stranger;
    size_t missing;
};

// Who stands for whom, so far.
struct pairing {
    std::vector<std::optional<stranger_pair>> pairs; // by stranger
    std::vector<bool> taken;                         // by missing message
};

// Those still without a partner, by whether the message is of the stranger's own place.
std::vector<candidate> possible_pairs(
    const std::vector<datagram>& strangers, const gap& missing, const pairing& found,
    bool in_place)
{
    std::vector<candidate> candidates;
    candidates.reserve(strangers.size() * missing.size());
    for (size_t s = 0; s < strangers.size(); ++s) {
        for (size_t m = 0; m < missing.size() && !found.pairs[s]; ++m) {
            if (!found.taken[m] && is_in_place(strangers[s], missing[m]) == in_place)
                candidates.push_back({0, s, m});
        }
    }
    return candidates;
}

// Pairs those that are like enough, the likest first.
void pair_the_like(
    const std::vector<datagram>& strangers, const gap& missing, bool in_place,
    comparison_allowance& allowance, pairing& found)
{
    std::vector<candidate> candidates =
        possible_pairs(strangers, missing, found, in_place);
    uint64_t bytes = 0;
    for (const candidate& pair : candidates)
        bytes += comparison_cost(
            strangers[pair.stranger].payload, missing[pair.missing].payload);
    if (!allowance.take(bytes))
        return;
    for (candidate& pair : candidates)
        pair.likeness =
            likeness(strangers[pair.stranger].payload, missing[pair.missing].payload);
    const double least = in_place ? LEAST_LIKENESS : LEAST_LIKENESS_ELSEWHERE;
    std::erase_if(
        candidates, [least](const candidate& pair) { return pair.likeness < least; });
    std::stable_sort(
        candidates.begin(), candidates.end(),
        [](const candidate& left, const candidate& right) {
            return left.likeness > right.likeness;
        });
    for (const candidate& pair : candidates) {
        if (found.pairs[pair.stranger] || found.taken[pair.missing])
            continue;
        found.pairs[pair.stranger] = stranger_pair{pair.missing, pair.likeness};
        found.taken[pair.missing] = true;
    }
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
    const std::vector<datagram>& strangers, const gap& missing, pairing& found)
{
    for (size_t s = 0; s < strangers.size(); ++s) {
        if (found.pairs[s])
            continue;
        const auto first = std::lower_bound(
            missing.begin(), missing.end(), strangers[s].due,
            [](const missing_message& each, uint64_t number) {
                return each.number < number;
            });
        auto m = static_cast<size_t>(first - missing.begin());
        if (!is_all_missing(strangers[s], missing, m))
            continue;
        while (m < missing.size() && found.taken[m])
            ++m;
        if (m == missing.size() || !is_in_place(strangers[s], missing[m]))
            continue;
        found.pairs[s] = stranger_pair{m, 0};
        found.taken[m] = true;
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
    const std::vector<datagram>& strangers, const gap& missing,
    comparison_allowance& allowance)
{
    pairing found{
        std::vector<std::optional<stranger_pair>>(strangers.size()),
        std::vector<bool>(missing.size())};
    if (strangers.size() * missing.size() <= MOST_COMPARISONS) {
        // In their own places first: what is paired there is compared with no other.
        pair_the_like(strangers, missing, true, allowance, found);
        pair_the_like(strangers, missing, false, allowance, found);
    }
    pair_the_rest(strangers, missing, found);
    return std::move(found.pairs);
}

bool is_covered(
    const std::vector<datagram>& strangers, const gap& missing,
    comparison_allowance& allowance)
{
    if (strangers.size() < missing.size())
        return false;
    const auto pairs = pair_strangers(strangers, missing, allowance);
    const auto sure = std::count_if(pairs.begin(), pairs.end(), [](const auto& pair) {
        return pair && pair->likeness >= LEAST_LIKENESS_ELSEWHERE;
    });
    return static_cast<size_t>(sure) == missing.size();
}

size_t report_gap(
    const gap& missing, std::vector<datagram>& strangers, fault_log& log,
    comparison_allowance& allowance)
{
    const auto pairs = pair_strangers(strangers, missing, allowance);
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
