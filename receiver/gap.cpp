// See gap.h.
#include "gap.h"

#include <algorithm>
#include <utility>

namespace receiver {

namespace {

enum : size_t {
    MOST_COMPARISONS = 16384, // beyond that, order alone decides
    EXCERPT = 16
};
constexpr double LEAST_LIKENESS = 0.2;

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
    size_t equal = 0;
    if (received.size() == expected.size()) {
        for (size_t i = 0; i < received.size(); ++i)
            equal += received[i] == expected[i] ? 1U : 0U;
    } else {
        equal = std::min(
            std::min(received.size(), expected.size()),
            common_start(received, expected) + common_tail(received, expected));
    }
    return static_cast<double>(equal) /
           static_cast<double>(std::max(received.size(), expected.size()));
}

struct candidate {
    double likeness;
    size_t stranger;
    size_t missing;
};

std::vector<candidate> likely_pairs(const gap& place)
{
    std::vector<candidate> candidates;
    if (place.strangers.size() * place.missing.size() > MOST_COMPARISONS)
        return candidates;
    for (size_t s = 0; s < place.strangers.size(); ++s) {
        for (size_t m = 0; m < place.missing.size(); ++m) {
            const double like =
                likeness(place.strangers[s].payload, place.missing[m].payload);
            if (like >= LEAST_LIKENESS)
                candidates.push_back({like, s, m});
        }
    }
    std::stable_sort(
        candidates.begin(), candidates.end(),
        [](const candidate& left, const candidate& right) {
            return left.likeness > right.likeness;
        });
    return candidates;
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

std::vector<std::optional<size_t>> pair_strangers(const gap& place)
{
    std::vector<std::optional<size_t>> pairs(place.strangers.size());
    std::vector<bool> taken(place.missing.size());
    for (const candidate& pair : likely_pairs(place)) {
        if (pairs[pair.stranger] || taken[pair.missing])
            continue;
        pairs[pair.stranger] = pair.missing;
        taken[pair.missing] = true;
    }
    size_t next = 0;
    for (std::optional<size_t>& pair : pairs) {
        while (next < taken.size() && taken[next])
            ++next;
        if (!pair && next < taken.size()) {
            pair = next;
            taken[next] = true;
        }
    }
    return pairs;
}

void report_gap(gap& place, fault_log& log)
{
    const std::vector<std::optional<size_t>> pairs = pair_strangers(place);
    std::vector<bool> arrived(place.missing.size());
    uint64_t due = 0; // moved on by the altered messages in front of a stranger
    for (size_t s = 0; s < pairs.size(); ++s) {
        const datagram& stranger = place.strangers[s];
        due = std::max(due, stranger.due);
        if (!pairs[s]) {
            log.add_to_run(of_message(fault_kind::unexpected, due, stranger.arrival));
            continue;
        }
        const missing_message& message = place.missing[*pairs[s]];
        log.add_to_run(changed(stranger, message));
        arrived[*pairs[s]] = true;
        due = std::max(due, message.number + 1);
    }
    for (size_t m = 0; m < place.missing.size(); ++m) {
        if (!arrived[m])
            log.add_to_run(of_message(fault_kind::lost, place.missing[m].number, 0));
    }
}

} // namespace receiver
