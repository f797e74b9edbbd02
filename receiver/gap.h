// A place where messages are missing or strangers have arrived, kept for as long as
// the missing ones may still come late.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "datagram_key.h"
#include "fault_log.h"
#include "source.h"

namespace receiver {

// One that arrived.
struct datagram {
    uint64_t arrival{0}; // its number, from 1
    datagram_key key;
    std::vector<uint8_t> payload;
    uint64_t due{0}; // for a stranger: the message that was due
};

// One that did not.
struct missing_message {
    uint64_t number{0}; // from 1
    datagram_key key;
    std::vector<uint8_t> payload; // empty in a gap without strangers
};

struct gap {
    std::vector<missing_message> missing; // in order
    std::vector<datagram> strangers;      // in order of arrival
};

// For each stranger the missing message that it most likely was, as an index. The
// likest pairs come first; what has nothing in common is paired in order.
std::vector<std::optional<size_t>> pair_strangers(const gap& place);

// Tells what a gap has come to: altered and truncated messages, lost ones, and
// datagrams that belong nowhere.
void report_gap(gap& place, fault_log& log);

} // namespace receiver
