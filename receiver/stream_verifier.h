// Compares a byte stream with its source and names the differences. Knows neither
// clock nor socket.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <span>
#include <vector>

#include "byte_queue.h"
#include "fault_log.h"
#include "result.h"
#include "source.h"

namespace receiver {

// In step, a byte costs one comparison. At the first difference both sides are
// kept, up to a limit, until a run of equal bytes shows where they meet again with
// the fewest bytes left over; these bytes are the fault:
//
//   lost        bytes of the source are missing
//   duplicated  what came just before arrives again
//   reordered   bytes that were missing before arrive here
//   altered     as many other bytes in their place
//   unexpected  any other bytes too many
//   truncated   the end is missing
//
// A fault counts from the first byte that differs. One thread.
class stream_verifier {
public:
    enum : size_t { KEPT_HISTORY = size_t{128} * 1024 };

    // The source must outlive the verifier.
    explicit stream_verifier(message_source& source);

    stream_verifier(const stream_verifier&) = delete;
    stream_verifier& operator=(const stream_verifier&) = delete;

    // Takes the last `fresh` bytes of `recent`; those before them are the stream's
    // preceding ones. They tell a duplicate from other surplus; a caller that still
    // has KEPT_HISTORY of them saves the verifier a copy. Returns the sizes of the
    // messages that are now complete, valid until the next call.
    std::span<const uint32_t> arrived(bytes_view recent, size_t fresh);
    std::span<const uint32_t> arrived(bytes_view bytes)
    {
        return arrived(bytes, bytes.size());
    }

    // At least as many bytes have arrived as the source gives.
    bool complete();

    // The comparison has been given up, and as many bytes have arrived since as would
    // have been compared: nothing is to be learnt from what follows.
    bool exhausted() const { return result_.gave_up && source_ended_; }

    // How many faults have been settled.
    uint64_t fault_count() const { return log_.fault_count() + lost_blocks_.size(); }

    // The sizes of the messages that the latest call has completed, finish() included.
    std::span<const uint32_t> completed() const { return sizes_; }

    // The result. What the source still has is missing only if `rest_is_due`, which
    // an endless source must not be. To be called once, after the last byte.
    verification finish(bool rest_is_due);

private:
    enum : size_t {
        ANCHOR = 32, // equal bytes that show that both sides are in step
        LOOK_AHEAD = size_t{1024} * 1024,
        SHORT = 4096, // most faults end within so many bytes
        LOST_BLOCKS = 64,
        EXCERPT = 16
    };

    // Some bytes of one message.
    struct share {
        uint64_t message;
        uint64_t bytes;
    };
    struct lost_block {
        fault found;
        std::vector<uint8_t> content;
        std::vector<share> shares;
    };

    // The source's side.
    bytes_view due() const;
    void next_message();
    bool read_source(bytes_view& message);
    void look_ahead(size_t bytes);
    std::vector<uint8_t> expected_ahead(size_t bytes) const;
    void step_over(size_t bytes, std::vector<share>* lost);
    void complete_message();

    // The received side.
    size_t match_in_step(bytes_view bytes);
    void remember(bytes_view recent, size_t fresh);
    void remember_consumed(bytes_view bytes);
    void leave_step(bytes_view recent, size_t matched, size_t fresh);
    void resolve(bool final);
    bool settle_first(bool final);
    bool settle_short_fault();
    void give_up();
    void skip_source();

    // Faults.
    fault fault_here(fault_kind kind, size_t length, bytes_view expected) const;
    void settle(size_t received, size_t expected, bytes_view ahead);
    void settle_lost(size_t length, bytes_view ahead);
    void settle_surplus(size_t length, bytes_view ahead);
    bool take_lost_block(bytes_view surplus);
    void heal(const lost_block& block);
    void forget_lost_block();
    void settle_truncated();

    message_source& source_;
    bytes_view due_;                         // in the source, while ahead_ is empty
    std::deque<std::vector<uint8_t>> ahead_; // read before their bytes were due
    size_t ahead_bytes_{0};
    bool source_ended_{false};
    size_t position_{0};     // in the message that is due
    uint64_t message_{0};    // its number, from 1
    uint64_t offset_{0};     // of the byte that is due, in the stream
    uint64_t bytes_read_{0}; // from the source
    // Bytes that have not arrived as they are, by message: of the one that is due and
    // of those that a late block may still make whole.
    std::map<uint64_t, uint64_t> harmed_;
    std::vector<uint32_t> sizes_;

    uint64_t received_{0};
    byte_queue history_; // the latest bytes in front of astray_
    byte_queue astray_;  // received since both sides came apart
    size_t next_try_{0}; // length of astray_ that is worth a search
    std::deque<lost_block> lost_blocks_;
    fault beyond_; // where both sides did not meet again
    fault_log log_;
    verification result_;
};

} // namespace receiver
