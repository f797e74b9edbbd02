// The JSON documents: every value of the structs is there under its documented name,
// and no content makes the writing fail.
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "json.h"

namespace receiver_json_test {

using namespace receiver;
using json = nlohmann::ordered_json;

distribution figures()
{
    distribution values;
    values.count = 11;
    values.min = 12;
    values.max = 13;
    values.mean = 12.5;
    values.p50 = 14;
    values.p90 = 15;
    values.p99 = 16;
    values.p999 = 17;
    values.bins = {{1, 2, 3}, {2, 4, 0}, {4, 8, 1}}; // an empty one is left out
    return values;
}

fault altered()
{
    fault found;
    found.kind = fault_kind::altered;
    found.message = 7;
    found.length = 2;
    found.offset = 70;
    found.offset_in_message = 9;
    found.arrival = 8;
    found.expected = {0x0a, 0xff};
    found.received = {0x0b};
    return found;
}

// The document as a program reads it.
template <typename Result>
json parsed(const Result& result)
{
    return json::parse(json_text(to_json(result)));
}

TEST(ReceiverJson, ARunSaysWhatItIs)
{
    const json document = parsed(run_result{});
    EXPECT_EQ(document["format"], "replay_receiver");
    EXPECT_EQ(document["version"], 1);
    EXPECT_EQ(document["kind"], "run");
}

TEST(ReceiverJson, ARunTellsHowItWent)
{
    run_result run;
    run.command = "replay_receiver --port 1";
    run.protocol = "udp";
    run.address = "127.0.0.1:1";
    run.device = "lo";
    run.source = "a.pcap";
    run.status = exit_status::undecided;
    run.reason = end_reason::idle;
    run.problems = {"first", "second"};
    run.wanted_bps = 200e6;
    run.tolerance_percent = 0.25;
    run.rate_error_percent = -1.5;
    run.buffer_wished = 3;
    run.buffer_granted = 2;
    run.own_drops = 4;

    const json document = parsed(run);
    EXPECT_EQ(document["command"], "replay_receiver --port 1");
    EXPECT_EQ(document["protocol"], "udp");
    EXPECT_EQ(document["address"], "127.0.0.1:1");
    EXPECT_EQ(document["device"], "lo");
    EXPECT_EQ(document["source"], "a.pcap");
    EXPECT_EQ(document["exit_status"], 5);
    EXPECT_EQ(document["exit_status_name"], "undecided");
    EXPECT_EQ(document["end_reason"], "idle");
    EXPECT_EQ(document["problems"], json({"first", "second"}));
    EXPECT_EQ(document["wanted_bps"], 200e6);
    EXPECT_EQ(document["tolerance_percent"], 0.25);
    EXPECT_EQ(document["rate_error_percent"], -1.5);
    EXPECT_EQ(document["buffer_wished_bytes"], 3);
    EXPECT_EQ(document["buffer_granted_bytes"], 2);
    EXPECT_EQ(document["own_drops"], 4);
}

TEST(ReceiverJson, WhatIsNotKnownIsNull)
{
    const json document = parsed(run_result{});
    for (const char* name : {"device", "source", "wanted_bps", "rate_error_percent"})
        EXPECT_TRUE(document.at(name).is_null()) << name;
    for (const char* name : {"expected_messages", "expected_bytes", "source_error"})
        EXPECT_TRUE(document.at("verified").at(name).is_null()) << name;
}

TEST(ReceiverJson, AMeasurementIsThereWithAllItsFigures)
{
    run_result run;
    run.measured.framed = false;
    run.measured.messages = 21;
    run.measured.bytes = 22;
    run.measured.first_stamp_ns = 1'700'000'000'123'456'789;
    run.measured.duration_ns = 24;
    run.measured.rate_bps = 25.5;
    run.measured.gaps = figures();
    run.measured.sizes = figures();
    run.measured.interval_ns = 26;
    run.measured.intervals = {{1, 10}, {2, 20}};

    const json gaps = json::parse(R"({"count": 11, "min_ns": 12, "max_ns": 13,
        "mean_ns": 12.5, "p50_ns": 14, "p90_ns": 15, "p99_ns": 16, "p99_9_ns": 17,
        "bins": [{"low_ns": 1, "high_ns": 2, "count": 3},
                 {"low_ns": 4, "high_ns": 8, "count": 1}]})");
    const json document = parsed(run).at("measured");
    EXPECT_EQ(document["framed"], false);
    EXPECT_EQ(document["messages"], 21);
    EXPECT_EQ(document["bytes"], 22);
    EXPECT_EQ(document["first_stamp_ns"], 1'700'000'000'123'456'789);
    EXPECT_EQ(document["duration_ns"], 24);
    EXPECT_EQ(document["rate_bps"], 25.5);
    EXPECT_EQ(document["gaps"], gaps);
    EXPECT_EQ(document["sizes"]["p99_9_bytes"], 17);
    EXPECT_EQ(document["sizes"]["bins"][0]["high_bytes"], 2);
    EXPECT_EQ(document["interval_ns"], 26);
    EXPECT_EQ(
        document["intervals"],
        json::parse(R"([{"messages": 1, "bytes": 10}, {"messages": 2, "bytes": 20}])"));
}

TEST(ReceiverJson, AComparisonIsThereWithItsCountsByKind)
{
    run_result run;
    run.protocol = "udp";
    run.verified.attempted = true;
    run.verified.expected_messages = 31;
    run.verified.expected_bytes = 32;
    run.verified.matched_messages = 33;
    run.verified.matched_bytes = 34;
    run.verified.counts = {1, 2, 3, 4, 5, 6};
    run.verified.fault_count = 35;
    run.verified.gave_up = true;
    run.verified.source_error = "cut";

    const json document = parsed(run).at("verified");
    EXPECT_EQ(document["attempted"], true);
    EXPECT_EQ(document["expected_messages"], 31);
    EXPECT_EQ(document["expected_bytes"], 32);
    EXPECT_EQ(document["matched_messages"], 33);
    EXPECT_EQ(document["matched_bytes"], 34);
    EXPECT_EQ(
        document["counts"], json::parse(R"({"lost_messages": 1, "duplicated_messages": 2,
            "reordered_messages": 3, "altered_messages": 4, "truncated_messages": 5,
            "unexpected_messages": 6})"));
    EXPECT_EQ(document["fault_count"], 35);
    EXPECT_EQ(document["gave_up"], true);
    EXPECT_EQ(document["source_error"], "cut");
    EXPECT_EQ(document["faults"], json::array());
}

TEST(ReceiverJson, AFaultInDatagramsCountsMessages)
{
    run_result run;
    run.protocol = "udp";
    run.verified.faults = {altered(), {}};
    run.verified.faults[1].message = 9;

    const json faults = parsed(run).at("verified").at("faults");
    EXPECT_EQ(
        faults[0], json::parse(R"({"kind": "altered", "message": 7, "length_messages": 2,
            "offset_in_message_bytes": 70, "arrival": 8, "expected_hex": "0aff",
            "received_hex": "0b"})"));
    // A lost message has no arrival.
    EXPECT_EQ(
        faults[1], json::parse(R"({"kind": "lost", "message": 9, "length_messages": 1,
            "offset_in_message_bytes": 0, "arrival": null, "expected_hex": "",
            "received_hex": ""})"));
}

TEST(ReceiverJson, AFaultInAStreamCountsBytes)
{
    run_result run;
    run.protocol = "tcp";
    run.verified.counts = {1, 0, 0, 0, 0, 0};
    run.verified.faults = {altered()};

    const json document = parsed(run).at("verified");
    EXPECT_EQ(document["counts"]["lost_bytes"], 1);
    EXPECT_EQ(
        document["faults"][0],
        json::parse(R"({"kind": "altered", "message": 7, "length_bytes": 2,
            "offset_bytes": 70, "offset_in_message_bytes": 9, "expected_hex": "0aff",
            "received_hex": "0b"})"));
}

TEST(ReceiverJson, APlanIsThereWithAllItsValues)
{
    plan_result plan;
    plan.command = "replay_receiver --plan";
    plan.status = exit_status::file;
    plan.source = "day";
    plan.files = 1;
    plan.passes = 2;
    plan.messages = 3;
    plan.bytes = 4;
    plan.sizes = figures();
    plan.sha256 = "ab";
    plan.wanted_bps = 5;
    plan.seconds = 6.5;
    plan.omitted = {11, 12, 13, 14, 15};
    plan.noted = {21, 22, 23, 24};
    plan.notes = {"a note"};
    plan.source_error = "an error";

    json document = parsed(plan);
    EXPECT_EQ(document["sizes"]["min_bytes"], 12);
    document.erase("sizes");
    EXPECT_EQ(document, json::parse(R"({"format": "replay_receiver", "version": 1,
        "kind": "plan", "command": "replay_receiver --plan",
        "exit_status": 6, "exit_status_name": "file", "source": "day", "files": 1,
        "passes": 2, "endless": false, "messages": 3, "bytes": 4, "sha256": "ab",
        "wanted_bps": 5.0, "seconds": 6.5,
        "left_out_per_pass": {"filtered_frames": 11, "empty_frames": 12,
            "short_frames": 13, "refused_files": 14, "entries": 15},
        "caveats_per_pass": {"frames_cut_by_snapshot": 21, "split_payloads": 22,
            "odd_link_files": 23, "broken_files": 24},
        "notes": ["a note"], "source_error": "an error"})"));
}

TEST(ReceiverJson, AnEndlessPlanSaysSo)
{
    plan_result plan;
    plan.passes = 0;
    EXPECT_EQ(parsed(plan)["endless"], true);
}

TEST(ReceiverJson, NumbersKeepAll64Bits)
{
    run_result run;
    run.measured.bytes = std::numeric_limits<uint64_t>::max();
    EXPECT_EQ(parsed(run)["measured"]["bytes"].get<uint64_t>(), UINT64_MAX);
}

TEST(ReceiverJson, PathsThatAreNotUtf8AreReplacedNotRefused)
{
    run_result run;
    run.source = "day\xff.pcap";
    EXPECT_EQ(parsed(run)["source"], "day\ufffd.pcap");
}

TEST(ReceiverJson, TheTextEndsItsLastLine)
{
    const std::string text = json_text(to_json(run_result{}));
    EXPECT_EQ(text.substr(0, 34), "{\n  \"format\": \"replay_receiver\",\n ");
    EXPECT_EQ(text.back(), '\n');
}

} // namespace receiver_json_test
