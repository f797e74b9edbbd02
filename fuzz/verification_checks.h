// What both verifiers' targets share: drawing messages, and the promises that hold for
// any result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "byte_feed.h"
#include "check.h"
#include "result.h"
#include "support/fault_patterns.h"

namespace fuzz {

// Bytes of the input itself, one byte over and over, or random ones.
inline support::payload draw_payload(byte_feed& feed, size_t least, size_t most)
{
    const size_t length = least + feed.count(most - least);
    switch (feed.number(0, 3)) {
    case 0: {
        const std::string text = feed.text(length);
        support::payload bytes(text.begin(), text.end());
        bytes.resize(length);
        return bytes;
    }
    case 1:
        return support::payload(length, feed.byte());
    default:
        return support::dice(feed.byte()).bytes(length);
    }
}

// Some messages, none of them empty; by choice many of them are equal.
inline std::vector<support::payload> draw_messages(byte_feed& feed, size_t most)
{
    std::vector<support::payload> messages;
    const size_t longest = feed.flag() ? 3000 : 60;
    const bool repeats = feed.flag();
    for (size_t i = feed.count(most); i > 0; --i) {
        const bool again = repeats && feed.flag() && !messages.empty();
        if (again)
            messages.push_back(messages[feed.count(messages.size() - 1)]);
        else
            messages.push_back(draw_payload(feed, 1, longest));
    }
    return messages;
}

inline void check_lists(const receiver::verification& result)
{
    require(result.attempted, "there was something to compare with");
    require(result.faults.size() <= result.fault_count, "what is listed is counted");
    require(
        result.faults.size() == result.fault_count || result.faults.size() == 1000,
        "only the first thousand are listed");
    decltype(result.counts) listed{};
    for (const receiver::fault& one : result.faults)
        listed[static_cast<size_t>(one.kind)] += one.length;
    require(
        result.faults.size() != result.fault_count || listed == result.counts,
        "what is listed adds up to the counts");
}

} // namespace fuzz
