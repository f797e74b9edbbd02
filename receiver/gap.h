// Messages that are missing and datagrams that are none of the source's: which of
// these may be which of those.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "datagram_key.h"
#include "fault_log.h"

namespace receiver {

// One that arrived.
struct datagram {
    uint64_t arrival{0}; // its number, from 1
    datagram_key key;
    std::vector<uint8_t> payload;
    // A stranger's place: from the message that was due to the one that came next.
    uint64_t due{0};
    uint64_t next{0};
};

// One that did not.
struct missing_message {
    uint64_t number{0}; // from 1
    datagram_key key;
    std::vector<uint8_t> payload;
};

// Missing messages in order, kept for as long as they may still come late.
using gap = std::vector<missing_message>;

// How many bytes of strangers may still be compared with missing messages: strangers
// without end among many gaps would take minutes. What arrives adds to it.
class comparison_allowance {
public:
    // Full at first.
    explicit comparison_allowance(uint64_t most) : most_(most), left_(most) {}

    void add(uint64_t bytes) { left_ += std::min(bytes, most_ - left_); }

    // False, with nothing taken, when less than that is left.
    bool take(uint64_t bytes)
    {
        if (bytes > left_)
            return false;
        left_ -= bytes;
        return true;
    }

    uint64_t left() const { return left_; }

private:
    uint64_t most_;
    uint64_t left_;
};

struct stranger_pair {
    size_t missing;  // an index into the gap
    double likeness; // from 0 for nothing in common to 1
};

// For each stranger, in order of arrival, the missing message that it most likely
// was: one of its own place, the likest pairs first and the others in order; or one
// of another place that it has most of its bytes in common with. Where the allowance
// is too small, order alone decides.
std::vector<std::optional<stranger_pair>> pair_strangers(
    const std::vector<datagram>& strangers, const gap& missing,
    comparison_allowance& allowance);

// Whether each of them has arrived, altered, beyond doubt.
bool is_covered(
    const std::vector<datagram>& strangers, const gap& missing,
    comparison_allowance& allowance);

// Tells what a gap has come to, altered and truncated messages and lost ones, and
// takes the strangers that were its messages out of the list. Returns how many are
// lost.
size_t report_gap(
    const gap& missing, std::vector<datagram>& strangers, fault_log& log,
    comparison_allowance& allowance);

// A datagram that belongs nowhere.
void report_stranger(const datagram& stranger, fault_log& log);

} // namespace receiver
