// Arbitrary streams against arbitrary sources, cut arbitrarily. An input tells how the
// stream comes about, so that faults of every kind and size come up.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>
#include <optional>
#include <utility>
#include <vector>

#include "byte_feed.h"
#include "check.h"
#include "stream_verifier.h"
#include "support/fault_patterns.h"
#include "verification_checks.h"

namespace {

using fuzz::byte_feed;
using fuzz::require;
using receiver::bytes_view;
using receiver::fault;
using receiver::fault_kind;
using receiver::verification;
using support::payload;

constexpr size_t MOST_MESSAGES = 40;
// Short of what is astray too far to be searched, which takes its time.
constexpr size_t LONGEST_STREAM = 20000;

payload joined(const std::vector<payload>& messages)
{
    payload all;
    for (const payload& one : messages)
        all.insert(all.end(), one.begin(), one.end());
    return all;
}

void append(payload& to, bytes_view bytes)
{
    to.insert(to.end(), bytes.begin(), bytes.end());
}

bytes_view part(bytes_view bytes, size_t from, size_t length)
{
    from = std::min(from, bytes.size());
    return bytes.subspan(from, std::min(length, bytes.size() - from));
}

// Walks along the source and arrives at something else.
class stream_maker {
public:
    stream_maker(byte_feed& feed, const payload& source) : feed_(feed), source_(source) {}

    payload make()
    {
        const size_t steps = feed_.count(24);
        for (size_t i = 0; i < steps && stream_.size() < LONGEST_STREAM; ++i)
            make_step();
        // The rest comes as it is, or not at all.
        if (feed_.flag())
            append(stream_, part(source_, at_, source_.size()));
        return stream_;
    }

private:
    size_t draw_length() { return feed_.count(feed_.flag() ? 3000 : 80); }

    payload latest(size_t length) const
    {
        const size_t count = std::min(length, stream_.size());
        return {stream_.end() - static_cast<ptrdiff_t>(count), stream_.end()};
    }

    void make_step()
    {
        const size_t length = draw_length();
        switch (feed_.number(0, 6)) {
        case 0:
        case 1: // as it should be
            append(stream_, part(source_, at_, length));
            at_ += length;
            break;
        case 2: // lost
            at_ += length;
            break;
        case 3: // again
            append(stream_, latest(length));
            break;
        case 4: // altered
            for (const uint8_t byte : part(source_, at_, length))
                stream_.push_back(static_cast<uint8_t>(byte + 1));
            at_ += length;
            break;
        case 5: // from anywhere else
            append(stream_, part(source_, feed_.count(source_.size()), length));
            break;
        default: // from nowhere
            append(stream_, fuzz::draw_payload(feed_, 0, length));
        }
    }

    byte_feed& feed_;
    const payload& source_;
    payload stream_;
    size_t at_{0};
};

struct told {
    verification result;
    uint64_t completed_bytes{0};
    bool complete_before_last{false};
    bool complete{false};
};

// How a caller hands a stream over.
class cutter {
public:
    explicit cutter(byte_feed& feed)
        : most_(1 + feed.count(feed.flag() ? 4000 : 40)), keeps_all_(feed.flag()),
          most_kept_(feed.count(300)), random_(feed.byte())
    {}

    // Everything that has come is handed over again, as the receiver does.
    bool keeps_all() const { return keeps_all_; }

    // How many bytes come next. Many come in larger parts, as each of them is copied.
    size_t next(size_t total) { return total / 200 + random_.between(1, most_); }

    // How many bytes of what came before the caller still has.
    size_t kept(size_t all)
    {
        return keeps_all_ ? all : std::min(all, random_.between(0, most_kept_));
    }

private:
    size_t most_;
    bool keeps_all_;
    size_t most_kept_;
    support::dice random_;
};

// Everything at once, or in pieces by `cut`. Each call gets a copy of its own, where
// reading past either end shows.
told take(
    const std::vector<payload>& messages, bytes_view stream, bool rest_is_due,
    cutter* cut)
{
    support::listed_source source(messages);
    receiver::stream_verifier verifier(source);
    told all;
    for (size_t at = 0; at < stream.size();) {
        const size_t wanted = cut == nullptr ? stream.size() : cut->next(stream.size());
        const size_t fresh = std::min(wanted, stream.size() - at);
        const size_t kept = cut == nullptr ? at : cut->kept(at);
        all.complete_before_last = verifier.complete();
        const bytes_view recent = stream.subspan(at - kept, kept + fresh);
        const payload copy(recent.begin(), recent.end());
        for (const uint32_t size : verifier.arrived(copy, fresh))
            all.completed_bytes += size;
        at += fresh;
    }
    all.complete = verifier.complete();
    all.result = verifier.finish(rest_is_due);
    for (const uint32_t size : verifier.completed())
        all.completed_bytes += size;
    return all;
}

uint64_t count(const verification& result, fault_kind kind) { return result.count(kind); }

// Every byte of both sides is accounted for once.
void check_balance(
    const verification& result, size_t expected, size_t received, bool rest_is_due)
{
    const uint64_t arrived = result.matched_bytes + count(result, fault_kind::altered) +
                             count(result, fault_kind::duplicated) +
                             count(result, fault_kind::unexpected);
    require(arrived == received, "every byte that came is accounted for");
    const uint64_t sent = result.matched_bytes + count(result, fault_kind::lost) +
                          count(result, fault_kind::altered) +
                          count(result, fault_kind::truncated);
    if (result.gave_up)
        return; // what came from there on was not compared
    require(sent <= expected, "no byte of the source counts twice");
    require(
        !rest_is_due || sent == expected, "every byte of the source is accounted for");
}

// The message of a byte of the source, from 1, and its place in it.
std::pair<uint64_t, uint64_t> place_of(
    const std::vector<payload>& messages, uint64_t offset)
{
    uint64_t number = 1;
    for (const payload& one : messages) {
        if (offset < one.size())
            break;
        offset -= one.size();
        ++number;
    }
    return {number, offset};
}

void check_fault(
    const fault& one, const std::vector<payload>& messages, const payload& source)
{
    require(one.length != 0, "a fault is about something");
    require(one.arrival == 0, "bytes have no number of arrival");
    require(one.expected.size() <= 16 && one.received.size() <= 16, "excerpts are short");
    require(one.offset <= source.size(), "a fault lies within the source");
    const bytes_view shown = part(source, one.offset, one.expected.size());
    require(
        std::equal(shown.begin(), shown.end(), one.expected.begin(), one.expected.end()),
        "an excerpt of the source is one");
    if (one.offset == source.size())
        return; // there is no place to name behind the last message
    const auto [number, offset] = place_of(messages, one.offset);
    require(
        one.message == number && one.offset_in_message == offset,
        "a fault names its message");
}

void check_result(
    const told& all, const std::vector<payload>& messages, const payload& source,
    const payload& stream, bool rest_is_due)
{
    const verification& result = all.result;
    check_balance(result, source.size(), stream.size(), rest_is_due);
    fuzz::check_lists(result);
    for (const fault& one : result.faults)
        check_fault(one, messages, source);
    require(
        std::is_sorted(
            result.faults.begin(), result.faults.end(),
            [](const fault& a, const fault& b) { return a.offset < b.offset; }),
        "faults come in order");
    require(result.matched_messages <= messages.size(), "no message matches twice");
    require(all.completed_bytes <= source.size(), "no message is complete twice");

    const bool prefix = stream.size() <= source.size() &&
                        std::equal(stream.begin(), stream.end(), source.begin());
    const bool identical = prefix && stream.size() == source.size();
    require(
        (result.fault_count == 0) == (rest_is_due ? identical : prefix),
        "what is the same is faultless, and nothing else");
    require(!identical || all.complete, "what is all there is complete");
    require(!all.complete_before_last || !identical, "and nothing before it");
    require(!identical || result.matched_messages == messages.size(), "all have matched");
}

void check_same(const verification& one, const verification& other)
{
    require(one.counts == other.counts, "how a stream is cut does not count");
    require(one.fault_count == other.fault_count, "nor has it other faults");
    require(one.matched_bytes == other.matched_bytes, "nor does it match elsewhere");
    require(one.matched_messages == other.matched_messages, "nor other messages");
    require(one.gave_up == other.gave_up, "nor is it given up");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    byte_feed feed(data, size);
    const bool rest_is_due = feed.flag();
    cutter cut(feed);
    std::vector<payload> messages = fuzz::draw_messages(feed, MOST_MESSAGES);
    const payload source = joined(messages);
    const payload stream = stream_maker(feed, source).make();

    const told whole = take(messages, stream, rest_is_due, nullptr);
    check_result(whole, messages, source, stream, rest_is_due);
    const told in_pieces = take(messages, stream, rest_is_due, &cut);
    check_result(in_pieces, messages, source, stream, rest_is_due);
    // Without what came before, a repetition is just surplus.
    if (cut.keeps_all())
        check_same(in_pieces.result, whole.result);
    return 0;
}
