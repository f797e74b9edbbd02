// Arbitrary datagrams against arbitrary messages. An input tells how the datagrams come
// about, so that faults of every kind come up.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "byte_feed.h"
#include "check.h"
#include "datagram_verifier.h"
#include "support/fault_patterns.h"
#include "verification_checks.h"

namespace {

using fuzz::byte_feed;
using fuzz::require;
using receiver::fault;
using receiver::fault_kind;
using receiver::verification;
using support::payload;

constexpr size_t MOST_MESSAGES = 60;
constexpr size_t MOST_ARRIVALS = 200;

// Walks along the messages and lets something arrive for each.
class arrival_maker {
public:
    arrival_maker(byte_feed& feed, const std::vector<payload>& messages)
        : feed_(feed), messages_(messages)
    {}

    std::vector<payload> make()
    {
        const size_t steps = feed_.count(60);
        for (size_t i = 0; i < steps && arrivals_.size() < MOST_ARRIVALS; ++i)
            make_step();
        if (feed_.flag())
            arrive(messages_.size());
        return arrivals_;
    }

private:
    void arrive(size_t count)
    {
        for (; count > 0 && at_ < messages_.size(); --count)
            arrivals_.push_back(messages_[at_++]);
    }

    // The next message, for a change of it.
    payload taken()
    {
        return at_ < messages_.size() ? messages_[at_++] : payload(3, uint8_t{'?'});
    }

    void make_step()
    {
        const size_t few = feed_.count(7);
        switch (feed_.number(0, 7)) {
        case 0:
        case 1: // as they should
            return arrive(1 + few);
        case 2: // lost
            at_ += few;
            return;
        case 3: // again
            if (few < arrivals_.size())
                arrivals_.push_back(payload(arrivals_[arrivals_.size() - 1 - few]));
            return;
        case 4: // altered
            arrivals_.push_back(taken());
            if (!arrivals_.back().empty())
                ++arrivals_.back()[few % arrivals_.back().size()];
            return;
        case 5: // truncated, perhaps to nothing
            arrivals_.push_back(taken());
            arrivals_.back().resize(std::min(few, arrivals_.back().size()));
            return;
        case 6: // from anywhere else
            if (!messages_.empty())
                arrivals_.push_back(messages_[feed_.count(messages_.size() - 1)]);
            return;
        default: // from nowhere
            arrivals_.push_back(fuzz::draw_payload(feed_, 0, 60));
        }
    }

    byte_feed& feed_;
    const std::vector<payload>& messages_;
    std::vector<payload> arrivals_;
    size_t at_{0};
};

struct told {
    verification result;
    bool complete{false};
};

// Each datagram is a copy of its own, where reading past its end shows.
told take(
    const std::vector<payload>& messages, const std::vector<payload>& arrivals,
    size_t window, bool rest_is_due)
{
    support::listed_source source(messages);
    receiver::datagram_verifier verifier(source, window);
    told all;
    for (const payload& one : arrivals) {
        verifier.arrived(payload(one));
        all.complete = verifier.complete();
        (void)verifier.exhausted();
        (void)verifier.fault_count();
    }
    all.complete = verifier.complete();
    all.result = verifier.finish(rest_is_due);
    return all;
}

uint64_t count(const verification& result, fault_kind kind) { return result.count(kind); }

// Every message and every datagram is accounted for once.
void check_balance(
    const verification& result, size_t messages, size_t arrivals, bool rest_is_due)
{
    const uint64_t changed =
        count(result, fault_kind::altered) + count(result, fault_kind::truncated);
    const uint64_t arrived = result.matched_messages + changed +
                             count(result, fault_kind::duplicated) +
                             count(result, fault_kind::unexpected);
    require(arrived == arrivals, "every datagram is accounted for");
    const uint64_t sent =
        result.matched_messages + changed + count(result, fault_kind::lost);
    require(sent <= messages, "no message counts twice");
    require(!rest_is_due || sent == messages, "every message is accounted for");
    require(
        count(result, fault_kind::reordered) <= result.matched_messages,
        "only what has arrived is reordered");
}

// What both sides have in common, each message and each datagram taken once.
struct overlap {
    uint64_t messages{0};
    uint64_t bytes{0};
    uint64_t foreign{0};   // datagrams that are no message of the source
    bool is_unique{false}; // no two messages are equal
};

overlap overlap_of(
    const std::vector<payload>& messages, const std::vector<payload>& arrivals)
{
    std::map<payload, size_t> left;
    for (const payload& one : messages)
        ++left[one];
    overlap common;
    common.is_unique = left.size() == messages.size();
    for (const payload& one : arrivals) {
        const auto found = left.find(one);
        if (found == left.end()) {
            ++common.foreign;
        } else if (found->second != 0) {
            --found->second;
            ++common.messages;
            common.bytes += one.size();
        }
    }
    return common;
}

// Within the window nothing that arrived whole is missed, in whatever order. Of equal
// messages one may stand for another, and then as lost beside one too many.
void check_matches(const verification& result, const overlap& common, bool in_window)
{
    require(result.matched_messages <= common.messages, "what matches is on both sides");
    require(result.matched_bytes <= common.bytes, "and so are its bytes");
    if (!in_window || !common.is_unique)
        return;
    require(result.matched_messages == common.messages, "what is on both sides matches");
    require(
        count(result, fault_kind::altered) + count(result, fault_kind::truncated) +
                count(result, fault_kind::unexpected) ==
            common.foreign,
        "only what is no message is told to be none");
}

void check_faults(const verification& result, size_t messages, size_t arrivals)
{
    for (const fault& one : result.faults) {
        require(one.length != 0, "a fault is about something");
        require(
            one.message >= 1 && one.message <= messages + 1, "a fault names a message");
        require(
            (one.arrival == 0) == (one.kind == fault_kind::lost), "the lost never came");
        require(one.arrival <= arrivals, "a fault names an arrival");
        require(
            one.expected.size() <= 16 && one.received.size() <= 16, "excerpts are short");
    }
    require(
        std::is_sorted(
            result.faults.begin(), result.faults.end(),
            [](const fault& a, const fault& b) {
                return std::tie(a.message, a.arrival) < std::tie(b.message, b.arrival);
            }),
        "faults come in order");
}

void check_result(
    const told& all, const std::vector<payload>& messages,
    const std::vector<payload>& arrivals, bool in_window, bool rest_is_due)
{
    const verification& result = all.result;
    check_balance(result, messages.size(), arrivals.size(), rest_is_due);
    check_matches(result, overlap_of(messages, arrivals), in_window);
    fuzz::check_lists(result);
    check_faults(result, messages.size(), arrivals.size());

    const bool prefix = arrivals.size() <= messages.size() &&
                        std::equal(arrivals.begin(), arrivals.end(), messages.begin());
    const bool identical = prefix && arrivals.size() == messages.size();
    require(
        (result.fault_count == 0) == (rest_is_due ? identical : prefix),
        "what is the same is faultless, and nothing else");
    require(!identical || all.complete, "what is all there is complete");
    if (rest_is_due)
        require(
            result.expected_messages == messages.size() &&
                result.expected_bytes == support::total_size(messages),
            "the source is known to its end");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    byte_feed feed(data, size);
    const bool rest_is_due = feed.flag();
    const size_t window = feed.flag() ? feed.count(8) : 4096;
    const std::vector<payload> messages = fuzz::draw_messages(feed, MOST_MESSAGES);
    const std::vector<payload> arrivals = arrival_maker(feed, messages).make();
    check_result(
        take(messages, arrivals, window, rest_is_due), messages, arrivals,
        window > MOST_MESSAGES, rest_is_due);
    return 0;
}
