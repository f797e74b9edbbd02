// Results of runs as the tests of what shows them want them.
#pragma once

#include <cstdint>

#include "result.h"

namespace support {

// 100,000 datagrams of 500 bytes as they should be.
inline receiver::run_result as_expected()
{
    receiver::run_result run;
    run.protocol = "udp";
    run.address = "239.1.1.1:5000";
    run.device = "eth0";
    run.source = "day.pcap";
    run.wanted_bps = 200e6;
    run.rate_error_percent = -0.1;
    run.buffer_wished = 64 << 20;
    run.buffer_granted = 64 << 20;
    run.verified.attempted = true;
    run.verified.expected_messages = 100'000;
    run.verified.expected_bytes = 50'000'000;
    run.verified.matched_messages = 100'000;
    run.verified.matched_bytes = 50'000'000;
    run.measured.messages = 100'000;
    run.measured.bytes = 50'000'000;
    run.measured.duration_ns = 2'000'000'000;
    run.measured.rate_bps = 199.8e6;
    run.measured.gaps = {
        99'999,
        10'000,
        100'000,
        20'000,
        20'000,
        20'000,
        20'000,
        90'000,
        {{10'000, 10'100, 1}, {20'000, 20'200, 99'997}, {99'000, 100'001, 1}}};
    run.measured.sizes = {
        100'000, 500, 500, 500, 500, 500, 500, 500, {{500, 501, 100'000}}};
    return run;
}

inline receiver::run_result stream()
{
    receiver::run_result run = as_expected();
    run.protocol = "tcp";
    run.address = "127.0.0.1:9089";
    run.device.clear();
    return run;
}

inline receiver::fault found(
    receiver::fault_kind kind, uint64_t message, uint64_t length = 1)
{
    receiver::fault one;
    one.kind = kind;
    one.message = message;
    one.length = length;
    return one;
}

// Three messages lost from number 17 on, and number 40 altered.
inline receiver::run_result with_faults()
{
    receiver::run_result run = as_expected();
    run.status = receiver::exit_status::content;
    run.reason = receiver::end_reason::idle;
    run.verified.matched_messages = 99'996;
    run.verified.counts = {3, 0, 0, 1, 0, 0};
    run.verified.faults = {
        found(receiver::fault_kind::lost, 17, 3),
        found(receiver::fault_kind::altered, 40)};
    run.verified.faults[1].offset = 12;
    run.verified.faults[1].arrival = 37;
    run.verified.faults[1].expected = {0x00, 0xaa, 0x55};
    run.verified.faults[1].received = {0x01, 0xaa, 0x55};
    run.verified.fault_count = 2;
    return run;
}

} // namespace support
