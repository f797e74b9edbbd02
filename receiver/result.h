// What a run or a plan found out, as plain values: filled in by the verifiers and
// the measurement, read by everything that shows a result.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace receiver {

// The exit status. When several apply, the run's verdict is the one that stands
// first in this order: content, file, undecided, early, rate.
enum class exit_status {
    as_expected = 0,
    content = 1,    // differs, lost, duplicated or out of order
    usage = 2,      // of options
    connection = 3, // cannot connect, bind or join
    rate = 4,       // outside the tolerance
    undecided = 5,  // messages are missing, and this receiver itself dropped some
    file = 6,       // cannot be read or written
    early = 7       // ended before the expected total
};

// What happened to a message that did not arrive once, in its place and whole.
enum class fault_kind {
    lost,       // never arrived
    duplicated, // arrived again
    reordered,  // arrived behind a message that follows it
    altered,    // arrived with other bytes
    truncated,  // arrived without its end
    unexpected  // arrived, but is no message of the source
};

inline constexpr std::array<const char*, 6> FAULT_NAMES = {
    "lost", "duplicated", "reordered", "altered", "truncated", "unexpected"};

inline const char* name_of(fault_kind kind)
{
    return FAULT_NAMES[static_cast<size_t>(kind)];
}

// One fault, or a run of neighbours of the same kind. Messages and arrivals count
// from 1, offsets from 0. Over TCP `length` counts bytes, over UDP messages.
struct fault {
    fault_kind kind{fault_kind::lost};
    // The first message concerned. For an unexpected one: the message that was due.
    uint64_t message{0};
    uint64_t length{1};
    // TCP: in the source's stream. UDP: where an altered message first differs, or
    // where a truncated one ends, within that message.
    uint64_t offset{0};
    uint64_t offset_in_message{0};
    uint64_t arrival{0}; // UDP: number of the first datagram concerned; 0 for lost
    // Up to 16 bytes of both sides from the first difference on; empty where there
    // is nothing to compare.
    std::vector<uint8_t> expected;
    std::vector<uint8_t> received;
};

// The comparison with the source.
struct verification {
    bool attempted{false}; // a source was given
    // What the source gives in all; none for an endless replay, or when the run
    // ended before the source did.
    std::optional<uint64_t> expected_messages;
    std::optional<uint64_t> expected_bytes;
    uint64_t matched_messages{0}; // arrived whole, reordered ones included
    uint64_t matched_bytes{0};
    std::array<uint64_t, FAULT_NAMES.size()> counts{}; // by kind; TCP: bytes
    std::vector<fault> faults; // the first of them, in order of position
    uint64_t fault_count{0};   // all of them; runs count as one
    // The stream could not be brought in step with the source again.
    bool gave_up{false};
    std::string source_error; // why the source ends early: the sender ends there too

    uint64_t count(fault_kind kind) const { return counts[static_cast<size_t>(kind)]; }
};

// A bin of a histogram: values from `low` to below `high`.
struct bin {
    uint64_t low{0};
    uint64_t high{0};
    uint64_t count{0};
};

// Of gaps in nanoseconds, or of message sizes in bytes.
struct distribution {
    uint64_t count{0};
    uint64_t min{0};
    uint64_t max{0};
    double mean{0};
    uint64_t p50{0}; // percentiles are exact up to 1 % of the value
    uint64_t p90{0};
    uint64_t p99{0};
    uint64_t p999{0};
    std::vector<bin> bins; // without gaps from the first to the last that is used
};

// One slice of the run.
struct interval {
    uint64_t messages{0};
    uint64_t bytes{0};
};

struct measurement {
    // Over TCP without a source nobody knows the messages: then each is one read.
    bool framed{true};
    uint64_t messages{0};
    uint64_t bytes{0};
    uint64_t first_stamp_ns{0}; // since the epoch; 0 when nothing arrived
    uint64_t duration_ns{0};    // last stamp minus first
    double rate_bps{0};         // payload behind the first message over the duration
    distribution gaps;          // between arrivals
    distribution sizes;
    uint64_t interval_ns{0}; // width of a slice
    std::vector<interval> intervals;
};

// Why a run ended.
enum class end_reason {
    complete, // everything expected is there
    idle,
    duration,
    messages,
    bytes,
    closed, // the sender closed the connection
    signal,
    failed // the connection or a file broke
};

struct run_result {
    std::string command;  // as typed, for the record
    std::string protocol; // "tcp" or "udp"
    std::string address;
    std::string device;
    std::string source; // path, empty without one
    exit_status status{exit_status::as_expected};
    end_reason reason{end_reason::complete};
    std::vector<std::string> problems; // connection and file errors, as sentences

    std::optional<double> wanted_bps; // from --mbps
    double tolerance_percent{0.5};
    std::optional<double> rate_error_percent; // signed; none without both rates

    uint64_t buffer_wished{0}; // receive buffer, bytes
    uint64_t buffer_granted{0};
    uint64_t own_drops{0}; // by this receiver's socket; UDP

    verification verified;
    measurement measured;
};

// What the sender would leave out, and why. Counted for one pass.
struct left_out {
    uint64_t filtered{0};      // frames that the filter lets not through
    uint64_t empty{0};         // frames without payload
    uint64_t short_frames{0};  // frames shorter than their headers
    uint64_t refused_files{0}; // captures that do not take the filter
    uint64_t entries{0};       // of a folder: neither read nor descended into
};

// Sent, but not as one might expect. Counted for one pass.
struct caveats {
    uint64_t cut_by_snapshot{0}; // frames of which the capture holds only a part
    uint64_t split_payloads{0};  // longer than a message: sent in pieces
    uint64_t odd_link_files{0};  // captures that are not Ethernet: cut at a wrong place
    uint64_t broken_files{0};    // captures that end in the middle of a record
};

struct plan_result {
    std::string command;
    exit_status status{exit_status::as_expected};
    std::string source;
    uint64_t files{0};
    uint64_t passes{1};   // 0: endless
    uint64_t messages{0}; // of all passes; of one when endless
    uint64_t bytes{0};
    distribution sizes;
    std::string sha256; // of the concatenated payloads counted above, lower-case hex
    std::optional<double> wanted_bps;
    std::optional<double> seconds; // at that rate
    left_out omitted;
    caveats noted;
    std::vector<std::string> notes; // sentences: refused filters, link types, ...
    std::string source_error; // why the source ends early: the sender ends there too
};

} // namespace receiver
