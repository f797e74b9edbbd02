// Messages to replay, faults on their way, and what a comparison must then say:
// worked out from where every arrival came from, by the plain meaning of each kind.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "result.h"
#include "source.h"

namespace support {

using payload = std::vector<uint8_t>;
using receiver::fault;
using receiver::fault_kind;

// The same numbers under every compiler, unlike the standard's distributions.
class dice {
public:
    explicit dice(uint64_t seed) : engine_(seed) {}

    uint64_t below(uint64_t limit) { return engine_() % limit; }
    uint64_t between(uint64_t low, uint64_t high) { return low + below(high - low + 1); }
    bool one_in(uint64_t count) { return below(count) == 0; }
    uint8_t byte() { return static_cast<uint8_t>(engine_() >> 32U); }
    uint8_t other_than(uint8_t value)
    {
        return static_cast<uint8_t>(value + between(1, 255));
    }

    payload bytes(size_t count)
    {
        payload made(count);
        std::generate(made.begin(), made.end(), [this] { return byte(); });
        return made;
    }

private:
    std::mt19937_64 engine_;
};

// Messages from memory, a number of times over; without end when `passes` is 0.
class listed_source : public receiver::message_source {
public:
    explicit listed_source(
        std::vector<payload> messages, uint64_t passes = 1, std::string error = {})
        : messages_(std::move(messages)), passes_(passes), error_(std::move(error))
    {}

    bool next(receiver::bytes_view& message) override
    {
        expire();
        if (place_ == messages_.size() && !messages_.empty() && passes_ != pass_) {
            place_ = 0;
            ++pass_;
        }
        if (place_ == messages_.size()) {
            ended_ = true;
            return false;
        }
        current_ = std::make_unique<payload>(messages_[place_++]);
        message = *current_;
        ++given_;
        return true;
    }

    std::optional<double> fraction() const override
    {
        const auto total = static_cast<double>(messages_.size() * passes_);
        if (passes_ == 0)
            return std::nullopt;
        return total > 0 ? static_cast<double>(given_) / total : 1.0;
    }

    std::string error() const override { return ended_ ? error_ : std::string(); }

    uint64_t given() const { return given_; }

private:
    // A view that is kept too long shows: as other bytes, or to the address checks.
    void expire()
    {
        if (current_)
            std::fill(current_->begin(), current_->end(), uint8_t{0xEE});
        current_.reset();
    }

    std::vector<payload> messages_;
    uint64_t passes_;
    std::string error_;
    std::unique_ptr<payload> current_;
    size_t place_{0};
    uint64_t pass_{1};
    uint64_t given_{0};
    bool ended_{false};
};

// Payloads.

// Random bytes, so many that no two are equal and no change makes one another.
inline std::vector<payload> unique_payloads(
    dice& random, size_t count, size_t least = 16, size_t most = 64)
{
    std::vector<payload> made(count);
    for (payload& one : made)
        one = random.bytes(random.between(least, most));
    return made;
}

// Unique ones, with the same message in the place of every `spacing`-th.
inline std::vector<payload> payloads_with_heartbeats(
    dice& random, size_t count, size_t spacing)
{
    std::vector<payload> made = unique_payloads(random, count);
    const payload heartbeat = random.bytes(20);
    for (size_t i = spacing - 1; i < count; i += spacing)
        made[i] = heartbeat;
    return made;
}

inline std::vector<payload> equal_payloads(dice& random, size_t count)
{
    return std::vector<payload>(count, random.bytes(24));
}

inline std::vector<payload> repeated(const std::vector<payload>& list, size_t passes)
{
    std::vector<payload> made;
    for (size_t i = 0; i < passes; ++i)
        made.insert(made.end(), list.begin(), list.end());
    return made;
}

inline uint64_t total_size(const std::vector<payload>& messages)
{
    return std::accumulate(
        messages.begin(), messages.end(), uint64_t{0},
        [](uint64_t sum, const payload& one) { return sum + one.size(); });
}

// Arrivals.

// What came in, and the message it was on departure: from 1, 0 for a stranger.
struct arrival {
    uint64_t message{0};
    payload bytes{};
};

inline bool is_proper_prefix(const payload& part, const payload& whole)
{
    return part.size() < whole.size() &&
           std::equal(part.begin(), part.end(), whole.begin());
}

inline uint64_t first_difference(const payload& left, const payload& right)
{
    const size_t common = std::min(left.size(), right.size());
    const auto end = left.begin() + static_cast<ptrdiff_t>(common);
    return static_cast<uint64_t>(
        std::mismatch(left.begin(), end, right.begin()).first - left.begin());
}

// Few bytes change, so that the message can be told from its neighbours.
inline payload altered_copy(dice& random, payload bytes)
{
    const uint64_t way = random.below(4);
    if (way == 0) {
        const payload more = random.bytes(random.between(1, 8));
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes;
    }
    if (way == 1)
        bytes.resize(bytes.size() - random.between(1, 3));
    for (uint64_t i = random.between(1, 3); i > 0; --i) {
        uint8_t& byte = bytes[random.below(bytes.size() / 3) * 3 + i - 1];
        byte = random.other_than(byte);
    }
    return bytes;
}

inline payload truncated_copy(dice& random, payload bytes)
{
    bytes.resize(random.between(8, bytes.size() - 1));
    return bytes;
}

// The reference answer.

struct outcome {
    std::array<uint64_t, receiver::FAULT_NAMES.size()> counts{};
    std::vector<fault> faults; // runs as one, by message and arrival, all of them
    uint64_t matched_messages{0};
    uint64_t matched_bytes{0};
};

inline bool continues(const fault& run, const fault& next)
{
    if (run.kind != next.kind)
        return false;
    const bool next_message = next.message == run.message + run.length;
    const bool next_arrival = next.arrival == run.arrival + run.length;
    switch (run.kind) {
    case fault_kind::lost:
        return next_message;
    case fault_kind::duplicated:
    case fault_kind::reordered:
        return next_message && next_arrival;
    case fault_kind::unexpected:
        return next.message == run.message && next_arrival;
    default:
        return false;
    }
}

inline std::vector<fault> in_runs(std::vector<fault> singles)
{
    const auto by_kind = [](const fault& a, const fault& b) {
        return std::tie(a.kind, a.arrival, a.message) <
               std::tie(b.kind, b.arrival, b.message);
    };
    std::sort(singles.begin(), singles.end(), by_kind);
    std::vector<fault> runs;
    for (const fault& single : singles) {
        if (!runs.empty() && continues(runs.back(), single))
            ++runs.back().length;
        else
            runs.push_back(single);
    }
    const auto by_place = [](const fault& a, const fault& b) {
        return std::tie(a.message, a.arrival) < std::tie(b.message, b.arrival);
    };
    std::sort(runs.begin(), runs.end(), by_place);
    return runs;
}

// Goes through the arrivals once, knowing what each of them is.
class reference {
public:
    reference(const std::vector<payload>& messages, const std::vector<arrival>& arrivals)
        : messages_(messages), states_(messages.size() + 1, state::missing),
          comes_whole_(messages.size() + 1)
    {
        for (const arrival& one : arrivals) {
            if (one.message > 0 && one.bytes == messages_[one.message - 1])
                comes_whole_[one.message] = true;
        }
        for (size_t i = 0; i < arrivals.size(); ++i)
            take(arrivals[i], i + 1);
        for (uint64_t message = 1; message < states_.size(); ++message) {
            if (states_[message] == state::missing)
                add(fault_kind::lost, message, 0);
        }
        answer_.faults = in_runs(std::move(singles_));
    }

    const outcome& answer() const { return answer_; }

private:
    enum class state { missing, changed, whole };

    void take(const arrival& one, uint64_t number)
    {
        if (one.message == 0)
            add(fault_kind::unexpected, latest_ + 1, number);
        else if (one.bytes == messages_[one.message - 1])
            take_whole(one, number);
        else
            take_changed(one, number);
    }

    void take_whole(const arrival& one, uint64_t number)
    {
        if (states_[one.message] != state::missing) {
            add(fault_kind::duplicated, one.message, number);
            return;
        }
        states_[one.message] = state::whole;
        ++answer_.matched_messages;
        answer_.matched_bytes += one.bytes.size();
        if (one.message < latest_)
            add(fault_kind::reordered, one.message, number);
        latest_ = std::max(latest_, one.message);
    }

    // Other bytes stand for their message only if that never comes whole.
    void take_changed(const arrival& one, uint64_t number)
    {
        if (comes_whole_[one.message] || states_[one.message] != state::missing) {
            add(fault_kind::unexpected, latest_ + 1, number);
            return;
        }
        const payload& message = messages_[one.message - 1];
        const bool cut = is_proper_prefix(one.bytes, message);
        states_[one.message] = state::changed;
        add(cut ? fault_kind::truncated : fault_kind::altered, one.message, number);
        singles_.back().offset = first_difference(one.bytes, message);
        singles_.back().offset_in_message = singles_.back().offset;
        latest_ = std::max(latest_, one.message);
    }

    void add(fault_kind kind, uint64_t message, uint64_t number)
    {
        ++answer_.counts[static_cast<size_t>(kind)];
        fault single;
        single.kind = kind;
        single.message = message;
        single.arrival = number;
        singles_.push_back(single);
    }

    const std::vector<payload>& messages_;
    std::vector<state> states_; // by message
    std::vector<bool> comes_whole_;
    uint64_t latest_{0}; // of the messages that have arrived
    std::vector<fault> singles_;
    outcome answer_;
};

inline outcome expected_outcome(
    const std::vector<payload>& messages, const std::vector<arrival>& arrivals)
{
    return reference(messages, arrivals).answer();
}

// Random faults.

struct fault_limits {
    uint64_t most_faults{8};
    uint64_t most_in_a_burst{6};
    uint64_t latest{20}; // messages that a late one lets pass
};

// Draws faults for the messages and lets them arrive accordingly. Draws again
// where the same arrivals could have come about in another way as well.
class fault_pattern {
public:
    fault_pattern(
        dice& random, const std::vector<payload>& messages, const fault_limits& limits)
        : random_(random), messages_(messages), limits_(limits)
    {
        do {
            draw();
        } while (is_ambiguous());
    }

    const std::vector<arrival>& arrivals() const { return arrivals_; }

private:
    enum class fate { sent, lost, altered, truncated };

    // An arrival's place is behind a message, in the order of ranks and draws.
    struct placed {
        uint64_t behind;
        int rank; // 0: that message itself, 1: moved and repeated ones, 2: strangers
        arrival what;
    };

    void draw()
    {
        fates_.assign(messages_.size() + 1, fate::sent);
        homes_.resize(messages_.size() + 1);
        std::iota(homes_.begin(), homes_.end(), uint64_t{0});
        placed_.clear();
        for (uint64_t i = random_.between(1, limits_.most_faults); i > 0; --i)
            draw_fault();
        arrive();
    }

    void draw_fault()
    {
        const uint64_t count = messages_.size();
        const uint64_t burst =
            random_.between(1, std::min<uint64_t>(limits_.most_in_a_burst, count));
        const uint64_t from = draw_place(count - burst + 1);
        const uint64_t behind =
            random_.one_in(2) ? from + burst - 1
                              : from + burst - 1 + random_.between(1, limits_.latest);
        switch (random_.below(6)) {
        case 0:
            return change(from, burst, fate::lost);
        case 1:
            return change(from, burst, fate::altered);
        case 2:
            return change(from, burst, fate::truncated);
        case 3:
            return repeat(from, burst, behind);
        case 4:
            return move(from, burst, std::max(behind, from + burst));
        default:
            return insert_strangers(burst);
        }
    }

    // The first and the last place come up as often as all others together.
    uint64_t draw_place(uint64_t last)
    {
        const uint64_t corner = random_.below(4);
        return corner == 0 ? 1 : corner == 1 ? last : random_.between(1, last);
    }

    void change(uint64_t from, uint64_t burst, fate what)
    {
        for (uint64_t message = from; message < from + burst; ++message)
            fates_[message] = what;
    }

    void repeat(uint64_t from, uint64_t burst, uint64_t behind)
    {
        for (uint64_t message = from; message < from + burst; ++message)
            placed_.push_back({behind, 1, {message, messages_[message - 1]}});
    }

    void move(uint64_t from, uint64_t burst, uint64_t behind)
    {
        for (uint64_t message = from; message < from + burst; ++message)
            homes_[message] = behind;
    }

    void insert_strangers(uint64_t burst)
    {
        const uint64_t before = draw_place(messages_.size() + 1);
        for (uint64_t i = 0; i < burst; ++i)
            placed_.push_back(
                {before - 1, 2, {0, random_.bytes(random_.between(16, 64))}});
    }

    void arrive()
    {
        for (uint64_t message = 1; message < fates_.size(); ++message) {
            if (fates_[message] != fate::lost)
                placed_.push_back(
                    {homes_[message],
                     homes_[message] == message ? 0 : 1,
                     {message, sent(message)}});
        }
        const auto by_place = [](const placed& a, const placed& b) {
            return std::tie(a.behind, a.rank) < std::tie(b.behind, b.rank);
        };
        std::stable_sort(placed_.begin(), placed_.end(), by_place);
        arrivals_.clear();
        for (placed& one : placed_)
            arrivals_.push_back(std::move(one.what));
    }

    payload sent(uint64_t message)
    {
        const payload& bytes = messages_[message - 1];
        switch (fates_[message]) {
        case fate::altered:
            return altered_copy(random_, bytes);
        case fate::truncated:
            return truncated_copy(random_, bytes);
        default:
            return bytes;
        }
    }

    bool is_changed(uint64_t message) const
    {
        return fates_[message] == fate::altered || fates_[message] == fate::truncated;
    }

    bool is_whole(const arrival& one) const
    {
        return one.message > 0 && one.bytes == messages_[one.message - 1];
    }

    // A changed message must keep its place and come only once, and a stranger
    // must not stand where a message is missing: it would be that one, altered.
    bool is_ambiguous() const
    {
        uint64_t latest = 0;
        for (size_t i = 0; i < arrivals_.size(); ++i) {
            const arrival& one = arrivals_[i];
            if (one.message == 0 && misses_one_near(latest + 1))
                return true;
            if (one.message > 0 && is_changed(one.message) &&
                (is_whole(one) || homes_[one.message] != one.message ||
                 is_followed_by_an_earlier_one(i)))
                return true;
            latest = std::max(latest, one.message);
        }
        return false;
    }

    bool misses_one_near(uint64_t due) const
    {
        const uint64_t from = due > 4 ? due - 4 : 1;
        const uint64_t to = std::min<uint64_t>(due + 3, messages_.size());
        for (uint64_t message = from; message <= to; ++message) {
            if (fates_[message] != fate::sent)
                return true;
        }
        return false;
    }

    // Whether an earlier message comes before any later one tells that the changed
    // one has been passed: then it could as well be a stranger or in order.
    bool is_followed_by_an_earlier_one(size_t changed) const
    {
        const uint64_t message = arrivals_[changed].message;
        for (size_t i = changed + 1; i < arrivals_.size(); ++i) {
            const arrival& next = arrivals_[i];
            if (is_whole(next) && next.message > message)
                return false;
            if (is_whole(next) && !came_before(next.message, changed))
                return true;
        }
        return false;
    }

    bool came_before(uint64_t message, size_t end) const
    {
        return std::any_of(
            arrivals_.begin(), arrivals_.begin() + static_cast<ptrdiff_t>(end),
            [message](const arrival& one) { return one.message == message; });
    }

    dice& random_;
    const std::vector<payload>& messages_;
    const fault_limits limits_;
    std::vector<fate> fates_;     // by message
    std::vector<uint64_t> homes_; // by message: the one behind which it arrives
    std::vector<placed> placed_;
    std::vector<arrival> arrivals_;
};

} // namespace support
