// Compares datagrams with the messages of their source and names the differences.
// Knows neither clock nor socket.
#pragma once

#include <boost/container_hash/hash.hpp>
#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <unordered_map>
#include <vector>

#include "datagram_key.h"
#include "fault_log.h"
#include "gap.h"
#include "messages_ahead.h"
#include "result.h"
#include "source.h"

namespace receiver {

// In step, a datagram costs one comparison and one key. When one is not the message
// that is due, datagrams and messages are kept until a few in a row show where both
// sides meet again with the fewest left over. Left-over messages are lost, unless
// they arrive later; left-over datagrams are late, early, duplicates, or altered
// messages of the same place. One thread.
class datagram_verifier {
public:
    // The source must outlive the verifier. Positions are searched `window`
    // messages (at least 1) ahead of and behind the one that is due; `most_compared`
    // bytes of strangers are compared with missing messages, and more as more arrives.
    datagram_verifier(
        message_source& source, size_t window, uint64_t most_compared = MOST_COMPARED);

    datagram_verifier(const datagram_verifier&) = delete;
    datagram_verifier& operator=(const datagram_verifier&) = delete;

    void arrived(bytes_view payload);

    // Every message of the source has arrived.
    bool complete();

    // Every message of the source has been passed, arrived or not. One that comes
    // later may still heal a loss.
    bool exhausted() const { return !ahead_.has_due(); }

    // How many faults have been seen; a later arrival may still heal some.
    uint64_t fault_count() const { return log_.fault_count() + gaps_.size(); }

    // The result. What the source still has is lost only if `rest_is_due`, which
    // an endless source must not be. To be called once, after the last datagram.
    verification finish(bool rest_is_due);

private:
    enum : size_t { ANCHOR = 4 }; // messages in a row that show the step
    // How far to look beyond the window when nothing within it fits, and how many
    // strangers to keep for a place among missing messages; in bytes of payload.
    static constexpr uint64_t FURTHEST_LOOK = uint64_t{64} << 20U;
    static constexpr uint64_t FURTHEST_WINDOWS = 32;
    static constexpr uint64_t MOST_STRANGERS = uint64_t{64} << 20U;
    // A second or two of work, which nothing interrupts; and how many bytes more for each
    // one that arrives.
    static constexpr uint64_t MOST_COMPARED = uint64_t{512} << 20U;
    static constexpr uint64_t COMPARED_PER_BYTE = 16;

    // So many datagrams stand in the place of so many messages.
    struct part {
        size_t received;
        size_t expected;
    };

    // The step of both sides.
    bool match_in_step(uint64_t arrival, bytes_view payload);
    void pass_due(const datagram_key& key, bool seen);
    void note_order(uint64_t number, uint64_t arrival);
    void note_match(uint64_t number, uint64_t arrival, size_t size);

    // Out of step.
    enum class outlook {
        open,   // more may arrive
        closed, // nothing more arrives, and all of the source is due
        cut_off // nothing more arrives, and nothing more is due
    };
    void resolve(outlook after);
    bool settle_first(outlook after);
    std::optional<part> meeting(outlook after, size_t reach, bool& certain) const;
    bool stands_for_others(part apart, const std::vector<uint64_t>& expected) const;
    bool is_stranger(const datagram_key& key) const;
    std::optional<part> meeting_far_ahead(outlook after);
    bool nothing_fits() const;
    part first_part(outlook after) const;
    void settle(part apart);
    std::vector<std::optional<uint64_t>> pair_by_key(part apart);
    gap pass_messages(size_t count);
    bool settle_extra(const datagram& extra);
    bool take_late(const datagram& extra);

    // What is missing.
    void keep_gap(gap&& missing);
    void expire();
    void report_strangers();
    void close_gap(gap& missing);
    void settle_rest();

    const uint64_t window_;
    messages_ahead ahead_;
    uint64_t arrivals_{0};
    uint64_t furthest_{0};        // the highest message that has arrived
    std::deque<datagram> astray_; // received since both sides came apart
    size_t next_try_{0};          // length of astray_ that is worth a search

    // The latest messages that are settled, and where a key was last seen.
    std::deque<datagram_key> passed_;
    boost::unordered_flat_map<datagram_key, uint64_t> seen_;
    std::deque<gap> gaps_; // in order of position, none of them empty
    std::unordered_multimap<datagram_key, uint64_t, boost::hash<datagram_key>>
        missing_;                     // of gaps_
    std::vector<datagram> strangers_; // in order of arrival
    uint64_t stranger_bytes_{0};
    uint64_t strangers_settled_{0}; // those of places up to here have been reported
    bool looked_far_{false};        // in vain, since both sides came apart
    bool lost_some_{false};         // of the messages that can no longer come late
    const uint64_t most_compared_;
    comparison_allowance allowance_;
    fault_log log_;
    verification result_;
};

} // namespace receiver
