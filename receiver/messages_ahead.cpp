// See messages_ahead.h.
#include "messages_ahead.h"

#include <algorithm>
#include <utility>

namespace receiver {

messages_ahead::messages_ahead(message_source& source) : source_(source)
{
    // NOLINTNEXTLINE(cppcoreguidelines-prefer-member-initializer): read() uses later ones
    has_direct_ = read(direct_);
}

void messages_ahead::next()
{
    ++number_;
    if (!held_.empty())
        pop();
    if (held_.empty())
        has_direct_ = read(direct_);
}

void messages_ahead::hold(size_t count)
{
    if (held_.empty() && has_direct_) {
        push(direct_);
        has_direct_ = false;
    }
    bytes_view payload;
    while (held_.size() < count && read(payload))
        push(payload);
}

std::optional<uint64_t> messages_ahead::find(const datagram_key& key, uint64_t from) const
{
    return first_alike(key, [&](uint64_t place, const message& each) {
        return place >= from && !each.arrived;
    });
}

std::optional<uint64_t> messages_ahead::find_arrived(const datagram_key& key) const
{
    return first_alike(key, [](uint64_t, const message& each) { return each.arrived; });
}

// Walks the chain of the key.
template <class predicate_t>
std::optional<uint64_t> messages_ahead::first_alike(
    const datagram_key& key, predicate_t predicate) const
{
    const auto found = places_.find(key);
    if (found == places_.end())
        return std::nullopt;
    for (uint64_t place = found->second.first; place != 0;) {
        const message& each = held_[place - number_];
        if (predicate(place, each))
            return place;
        place = each.next_alike;
    }
    return std::nullopt;
}

bool messages_ahead::read(bytes_view& payload)
{
    payload = {};
    if (!source_ended_)
        source_ended_ = !source_.next(payload);
    if (!source_ended_)
        bytes_read_ += payload.size();
    return !source_ended_;
}

void messages_ahead::push(bytes_view payload)
{
    const uint64_t place = number_ + held_.size();
    held_bytes_ += payload.size();
    held_.push_back({key_of(payload), {payload.begin(), payload.end()}, payload.size()});
    const auto [entry, is_new] =
        places_.try_emplace(held_.back().key, chain{place, place});
    if (is_new)
        return;
    held_[entry->second.last - number_].next_alike = place;
    entry->second.last = place;
}

// The oldest of its chain goes first; number_ has already moved on.
void messages_ahead::pop()
{
    const message& oldest = held_.front();
    held_bytes_ -= oldest.size;
    const auto entry = places_.find(oldest.key);
    if (oldest.next_alike == 0)
        places_.erase(entry);
    else
        entry->second.first = oldest.next_alike;
    held_.pop_front();
}

} // namespace receiver
