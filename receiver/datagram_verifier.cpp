// See datagram_verifier.h.
#include "datagram_verifier.h"

#include <algorithm>
#include <iterator>
#include <string>
#include <utility>

#include "meeting_point.h"

namespace receiver {

namespace {

bool is_same(bytes_view left, bytes_view right)
{
    return left.size() == right.size() &&
           std::equal(left.begin(), left.end(), right.begin());
}

fault of_datagram(fault_kind kind, uint64_t message, uint64_t arrival)
{
    fault found;
    found.kind = kind;
    found.message = message;
    found.arrival = arrival;
    return found;
}

} // namespace

datagram_verifier::datagram_verifier(
    message_source& source, size_t window, uint64_t most_compared)
    : window_(std::max<size_t>(window, 1)), ahead_(source), most_compared_(most_compared),
      allowance_(most_compared)
{
    result_.attempted = true;
}

void datagram_verifier::arrived(bytes_view payload)
{
    ++arrivals_;
    allowance_.add(payload.size() * COMPARED_PER_BYTE);
    if (astray_.empty() && match_in_step(arrivals_, payload))
        return;
    astray_.push_back({arrivals_, key_of(payload), {payload.begin(), payload.end()}});
    resolve(outlook::open);
}

bool datagram_verifier::complete()
{
    if (lost_some_)
        return false;
    if (!ahead_.has_due() && missing_.empty())
        return true;
    if (!astray_.empty())
        ahead_.hold(astray_.size() + 1);
    const bool more_to_read = ahead_.held() == 0 || !ahead_.source_ended();
    if (ahead_.has_due() && more_to_read)
        return false;

    // What is astray has to hold all that is still missing.
    boost::unordered_flat_map<datagram_key, size_t> arrived;
    for (const datagram& each : astray_)
        ++arrived[each.key];
    const auto is_there = [&arrived](const datagram_key& key) {
        const auto found = arrived.find(key);
        return found != arrived.end() && found->second-- != 0;
    };
    for (size_t i = 0; i < ahead_.held(); ++i) {
        if (!ahead_.at(i).arrived && !is_there(ahead_.at(i).key))
            return false;
    }
    // Asked again and again: what this compares is not taken from what tells the faults.
    comparison_allowance allowance(most_compared_);
    return std::all_of(gaps_.begin(), gaps_.end(), [&](const gap& missing) {
        return is_covered(strangers_, missing, allowance) ||
               std::all_of(missing.begin(), missing.end(), [&](const auto& each) {
                   return is_there(each.key);
               });
    });
}

verification datagram_verifier::finish(bool rest_is_due)
{
    resolve(rest_is_due ? outlook::closed : outlook::cut_off);
    if (rest_is_due)
        settle_rest();
    for (gap& missing : gaps_)
        close_gap(missing);
    gaps_.clear();
    for (const datagram& stranger : strangers_)
        report_stranger(stranger, log_);
    strangers_.clear();
    if (!ahead_.has_due()) {
        result_.expected_messages = ahead_.number() - 1;
        result_.expected_bytes = ahead_.bytes_read();
    }
    result_.source_error = ahead_.error();
    log_.finish(result_);
    return std::move(result_);
}

// ---------------------------------------------------------- the step of both sides

// True when the datagram is the message that is due, or one that came early and
// now comes again.
bool datagram_verifier::match_in_step(uint64_t arrival, bytes_view payload)
{
    while (ahead_.has_due()) {
        const bool same = is_same(payload, ahead_.due());
        if (ahead_.due_has_arrived()) {
            // An equal one that is still to come wants the datagram more.
            if (same && !ahead_.find(ahead_.at(0).key, 0)) {
                log_.add_to_run(
                    of_datagram(fault_kind::duplicated, ahead_.number(), arrival));
                return true;
            }
            pass_due(ahead_.at(0).key, true);
            continue;
        }
        if (!same)
            return false;
        looked_far_ = false;
        note_match(ahead_.number(), arrival, payload.size());
        pass_due(ahead_.held() != 0 ? ahead_.at(0).key : key_of(payload), true);
        expire();
        return true;
    }
    return false;
}

// The message that is due is settled: it has arrived, or it has not and may only
// come late.
void datagram_verifier::pass_due(const datagram_key& key, bool seen)
{
    passed_.push_back(key);
    if (seen)
        seen_.insert_or_assign(key, ahead_.number());
    ahead_.next();
}

// Forgets what is out of the window.
void datagram_verifier::expire()
{
    while (passed_.size() > window_) {
        const uint64_t oldest = ahead_.number() - passed_.size();
        const auto entry = seen_.find(passed_.front());
        if (entry != seen_.end() && entry->second == oldest)
            seen_.erase(entry);
        passed_.pop_front();
    }
    while (!gaps_.empty() && gaps_.front().back().number + window_ < ahead_.number()) {
        close_gap(gaps_.front());
        gaps_.pop_front();
    }
    if (!strangers_.empty())
        report_strangers();
}

void datagram_verifier::note_order(uint64_t number, uint64_t arrival)
{
    if (number < furthest_)
        log_.add_to_run(of_datagram(fault_kind::reordered, number, arrival));
    else
        furthest_ = number;
}

void datagram_verifier::note_match(uint64_t number, uint64_t arrival, size_t size)
{
    ++result_.matched_messages;
    result_.matched_bytes += size;
    note_order(number, arrival);
}

// ------------------------------------------------------------------- out of step

// Settles what is astray for as long as it can be told; in the end, all of it.
void datagram_verifier::resolve(outlook after)
{
    while (!astray_.empty()) {
        if (after == outlook::open && astray_.size() < next_try_)
            return;
        if (!settle_first(after))
            return;
        next_try_ = 0;
        expire();
        while (!astray_.empty() &&
               match_in_step(astray_.front().arrival, astray_.front().payload))
            astray_.pop_front();
    }
}

// False when more has to arrive before it can be told.
bool datagram_verifier::settle_first(outlook after)
{
    const bool last_try = after != outlook::open ||
                          astray_.size() >= std::max<size_t>(window_, 16) + ANCHOR;
    const size_t reach =
        ANCHOR + (last_try ? window_ : std::min<uint64_t>(astray_.size(), window_));
    ahead_.hold(reach);
    if (!ahead_.has_due()) {
        settle({astray_.size(), 0}); // surplus behind the end
        return true;
    }
    bool certain = false;
    std::optional<part> apart = meeting(after, reach, certain);
    if (!certain && !last_try) {
        const size_t step = astray_.size() < 64 ? 1 : astray_.size() / 4;
        next_try_ = astray_.size() + step;
        return false;
    }
    if (!apart && !looked_far_ && nothing_fits())
        apart = meeting_far_ahead(after);
    settle(apart ? *apart : first_part(after));
    return true;
}

// More than a window may have been lost in one go, by this machine's own buffer too.
// The source is then read on, to where both sides meet.
std::optional<datagram_verifier::part> datagram_verifier::meeting_far_ahead(outlook after)
{
    const size_t furthest = window_ * FURTHEST_WINDOWS;
    for (size_t reach = 2 * window_; reach <= furthest; reach *= 4) {
        ahead_.hold(reach);
        bool certain = false;
        if (const auto apart = meeting(after, reach, certain))
            return apart;
        if (ahead_.source_ended() || ahead_.held_bytes() > FURTHEST_LOOK)
            break;
    }
    looked_far_ = true;
    return std::nullopt;
}

bool datagram_verifier::nothing_fits() const
{
    return std::none_of(astray_.begin(), astray_.end(), [this](const datagram& each) {
        return ahead_.find(each.key, 0).has_value();
    });
}

// How far both sides are apart, if they can be seen to meet again. It is certain
// when no cheaper explanation can show up.
std::optional<datagram_verifier::part> datagram_verifier::meeting(
    outlook after, size_t reach, bool& certain) const
{
    reach = std::min(reach, ahead_.held());
    std::vector<uint64_t> received;
    for (const datagram& each : astray_)
        received.push_back(each.key.low);
    std::vector<uint64_t> expected;
    std::vector<size_t> places; // of these in ahead_: what came early is not awaited
    for (size_t i = 0; i < reach; ++i) {
        if (ahead_.at(i).arrived)
            continue;
        expected.push_back(ahead_.at(i).key.low);
        places.push_back(i);
    }
    places.push_back(reach);

    auto best = find_meeting_point<uint64_t>(received, expected, ANCHOR, certain);
    if (best && stands_for_others({best->received, best->expected}, expected))
        best->expected = best->received;
    const bool to_the_end = ahead_.source_ended() && reach == ahead_.held();
    if (!certain && after == outlook::closed && to_the_end) {
        const meeting_point end = common_end<uint64_t>(received, expected);
        if (!best || is_better(end, *best))
            best = end;
    }
    if (!best)
        return std::nullopt;
    return part{best->received, places[best->expected]};
}

// Among equal messages an altered one looks like one too many. Strangers do not come
// from nowhere as a rule, so they stand for messages where that fits as well.
bool datagram_verifier::stands_for_others(
    part apart, const std::vector<uint64_t>& expected) const
{
    if (apart.received <= apart.expected || apart.received + ANCHOR > expected.size())
        return false;
    for (size_t i = apart.received; i < apart.received + ANCHOR; ++i) {
        if (astray_[i].key.low != expected[i])
            return false;
    }
    return std::all_of(
        astray_.begin(), astray_.begin() + static_cast<ptrdiff_t>(apart.received),
        [this](const datagram& each) { return is_stranger(each.key); });
}

// Neither a message ahead nor one of the latest ones.
bool datagram_verifier::is_stranger(const datagram_key& key) const
{
    return !ahead_.find(key, 0) && !ahead_.find_arrived(key) && !seen_.contains(key) &&
           !missing_.contains(key);
}

// Nothing shows where both sides meet. Then each datagram stands for the nearest
// message of its key, up to the last one that has any; half of them, as the others
// may belong to what follows.
datagram_verifier::part datagram_verifier::first_part(outlook after) const
{
    const size_t count =
        after != outlook::open ? astray_.size() : (astray_.size() + 1) / 2;
    part apart{0, 0};
    boost::unordered_flat_map<datagram_key, uint64_t> used; // up to this number
    for (size_t i = 0; i < count; ++i) {
        uint64_t& latest = used[astray_[i].key];
        const auto place = ahead_.find(astray_[i].key, latest + 1);
        if (!place)
            continue;
        latest = *place;
        apart.received = i + 1;
        apart.expected = std::max<size_t>(apart.expected, *place - ahead_.number() + 1);
    }
    if (apart.received == 0)
        return {count, std::min(count, ahead_.held())};
    return apart;
}

void datagram_verifier::settle(part apart)
{
    const std::vector<std::optional<uint64_t>> numbers = pair_by_key(apart);
    gap missing = pass_messages(apart.expected);
    size_t placed = strangers_.size(); // up to here their places have an end
    for (size_t i = 0; i < apart.received; ++i) {
        datagram& each = astray_.front();
        const uint64_t before = furthest_;
        if (numbers[i]) {
            note_match(*numbers[i], each.arrival, each.payload.size());
        } else if (!settle_extra(each)) {
            each.due = furthest_ + 1;
            stranger_bytes_ += each.payload.size();
            strangers_.push_back(std::move(each));
        }
        for (; furthest_ != before && placed < strangers_.size(); ++placed)
            strangers_[placed].next = furthest_;
        astray_.pop_front();
    }
    for (; placed < strangers_.size(); ++placed)
        strangers_[placed].next = std::max(ahead_.number(), strangers_[placed].due);
    keep_gap(std::move(missing));
}

// For each datagram the message of its key within the part, if one is left.
std::vector<std::optional<uint64_t>> datagram_verifier::pair_by_key(part apart)
{
    std::vector<std::optional<uint64_t>> numbers(apart.received);
    for (size_t i = 0; i < apart.received; ++i) {
        const auto place = ahead_.find(astray_[i].key, 0);
        if (!place || *place - ahead_.number() >= apart.expected)
            continue;
        ahead_.at(*place - ahead_.number()).arrived = true;
        numbers[i] = place;
    }
    return numbers;
}

// Goes on by so many messages; those that have not arrived are the gap.
gap datagram_verifier::pass_messages(size_t count)
{
    gap missing;
    for (size_t i = 0; i < count; ++i) {
        messages_ahead::message& due = ahead_.at(0);
        const datagram_key key = due.key;
        const bool seen = due.arrived;
        if (!seen)
            missing.push_back({ahead_.number(), key, std::move(due.payload)});
        pass_due(key, seen);
    }
    return missing;
}

// True when the datagram is late, a duplicate or early.
bool datagram_verifier::settle_extra(const datagram& extra)
{
    if (take_late(extra))
        return true;
    const auto original = seen_.find(extra.key);
    if (original != seen_.end()) {
        log_.add_to_run(
            of_datagram(fault_kind::duplicated, original->second, extra.arrival));
        return true;
    }
    ahead_.hold(window_);
    if (const auto early = ahead_.find_arrived(extra.key)) {
        log_.add_to_run(of_datagram(fault_kind::duplicated, *early, extra.arrival));
        return true;
    }
    const auto place = ahead_.find(extra.key, 0);
    if (!place)
        return false;
    ahead_.at(*place - ahead_.number()).arrived = true;
    note_match(*place, extra.arrival, extra.payload.size());
    return true;
}

bool datagram_verifier::take_late(const datagram& extra)
{
    const auto [begin, end] = missing_.equal_range(extra.key);
    if (begin == end)
        return false;
    const auto oldest = std::min_element(
        begin, end, [](const auto& a, const auto& b) { return a.second < b.second; });
    const uint64_t number = oldest->second;
    missing_.erase(oldest);

    const auto place = std::prev(std::upper_bound(
        gaps_.begin(), gaps_.end(), number, [](uint64_t value, const gap& candidate) {
            return value < candidate.front().number;
        }));
    place->erase(std::lower_bound(
        place->begin(), place->end(), number,
        [](const missing_message& each, uint64_t value) { return each.number < value; }));
    if (place->empty())
        gaps_.erase(place);
    seen_.insert_or_assign(extra.key, number);
    note_match(number, extra.arrival, extra.payload.size());
    return true;
}

// ----------------------------------------------------------------- what is missing

void datagram_verifier::keep_gap(gap&& missing)
{
    if (missing.empty())
        return;
    for (const missing_message& each : missing)
        missing_.emplace(each.key, each.number);
    gaps_.push_back(std::move(missing));
}

void datagram_verifier::close_gap(gap& missing)
{
    for (const missing_message& each : missing) {
        const auto [begin, end] = missing_.equal_range(each.key);
        missing_.erase(std::find_if(begin, end, [&each](const auto& entry) {
            return entry.second == each.number;
        }));
    }
    if (report_gap(missing, strangers_, log_, allowance_) != 0)
        lost_some_ = true;
}

// Those of whose place nothing is missing, nor can be later; and the oldest when they
// are too many.
void datagram_verifier::report_strangers()
{
    const uint64_t settled =
        gaps_.empty() ? ahead_.number() : gaps_.front().front().number;
    const bool too_many =
        stranger_bytes_ > MOST_STRANGERS || strangers_.size() > 4 * window_;
    if (settled == strangers_settled_ && !too_many)
        return;
    strangers_settled_ = settled;
    size_t surplus = too_many ? strangers_.size() / 2 : 0;
    stranger_bytes_ = 0;
    std::erase_if(strangers_, [&](const datagram& stranger) {
        if (stranger.next <= settled || surplus != 0) {
            surplus -= std::min<size_t>(surplus, 1);
            report_stranger(stranger, log_);
            return true;
        }
        stranger_bytes_ += stranger.payload.size();
        return false;
    });
}

// All that the source still has is missing. A part at a time, so that it need not
// be held as a whole.
void datagram_verifier::settle_rest()
{
    while (ahead_.has_due()) {
        ahead_.hold(window_);
        keep_gap(pass_messages(ahead_.held()));
        expire();
    }
}

} // namespace receiver
