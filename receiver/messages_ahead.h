// The messages of a source from the one that is due on: read one by one while all
// is in step, held and found by their keys when it is not.
#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "datagram_key.h"
#include "source.h"

namespace receiver {

class messages_ahead {
public:
    struct message {
        datagram_key key;
        std::vector<uint8_t> payload; // may be moved away when the message is passed
        size_t size{0};
        bool arrived{false}; // before it was due
        uint64_t next_alike{0};
    };

    explicit messages_ahead(message_source& source);

    messages_ahead(const messages_ahead&) = delete;
    messages_ahead& operator=(const messages_ahead&) = delete;

    // The message that is due, if there is one.
    bool has_due() const { return !held_.empty() || has_direct_; }
    uint64_t number() const { return number_; } // from 1
    bytes_view due() const
    {
        return held_.empty() ? direct_ : bytes_view(held_[0].payload);
    }
    bool due_has_arrived() const { return !held_.empty() && held_[0].arrived; }
    void next();

    // Holds `count` messages from the one that is due on, or all there are.
    void hold(size_t count);
    size_t held() const { return held_.size(); }
    uint64_t held_bytes() const { return held_bytes_; } // of payload
    message& at(size_t i) { return held_[i]; }
    const message& at(size_t i) const { return held_[i]; }
    // The held messages are the source's last.
    bool source_ended() const { return source_ended_; }

    // The number of the first held message of this key that has not arrived, from
    // the number `from` on.
    std::optional<uint64_t> find(const datagram_key& key, uint64_t from) const;

    // The same for one that has arrived before it was due.
    std::optional<uint64_t> find_arrived(const datagram_key& key) const;

    // Of all messages read so far; once nothing is due, of the whole source.
    uint64_t bytes_read() const { return bytes_read_; }

    std::string error() const { return source_.error(); }

private:
    // The numbers of the held messages of one key: a chain through next_alike.
    struct chain {
        uint64_t first;
        uint64_t last;
    };

    template <class predicate_t>
    std::optional<uint64_t> first_alike(
        const datagram_key& key, predicate_t predicate) const;
    bool read(bytes_view& payload);
    void push(bytes_view payload);
    void pop();

    message_source& source_;
    bytes_view direct_; // in the source, while nothing is held
    bool has_direct_{false};
    bool source_ended_{false};
    uint64_t number_{1};
    uint64_t bytes_read_{0};
    uint64_t held_bytes_{0};
    std::deque<message> held_;
    boost::unordered_flat_map<datagram_key, chain> places_;
};

} // namespace receiver
