// The names here are an interface: programs read them. A change of meaning raises
// the version.
#include "json.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "format.h"

namespace receiver {

namespace {

using json = nlohmann::ordered_json;

constexpr int VERSION = 1;

json document(const char* kind)
{
    return {{"format", "replay_receiver"}, {"version", VERSION}, {"kind", kind}};
}

template <typename T>
json or_null(const std::optional<T>& value)
{
    return value ? json(*value) : json(nullptr);
}

json text_or_null(const std::string& text)
{
    return text.empty() ? json(nullptr) : json(text);
}

// The unit ends the names of the values: "p50_ns".
json distribution_json(const distribution& values, const std::string& unit)
{
    json bins = json::array();
    for (const bin& next : values.bins) {
        if (next.count != 0) // there are thousands of empty ones
            bins.push_back(
                {{"low_" + unit, next.low},
                 {"high_" + unit, next.high},
                 {"count", next.count}});
    }
    return {{"count", values.count},     {"min_" + unit, values.min},
            {"max_" + unit, values.max}, {"mean_" + unit, values.mean},
            {"p50_" + unit, values.p50}, {"p90_" + unit, values.p90},
            {"p99_" + unit, values.p99}, {"p99_9_" + unit, values.p999},
            {"bins", std::move(bins)}};
}

json fault_json(const fault& found, bool stream)
{
    json object = {
        {"kind", name_of(found.kind)},
        {"message", found.message},
        {stream ? "length_bytes" : "length_messages", found.length}};
    if (stream) {
        object["offset_bytes"] = found.offset;
        object["offset_in_message_bytes"] = found.offset_in_message;
    } else {
        object["offset_in_message_bytes"] = found.offset;
        object["arrival"] = found.arrival == 0 ? json(nullptr) : json(found.arrival);
    }
    object["expected_hex"] = hex_text(found.expected, "");
    object["received_hex"] = hex_text(found.received, "");
    return object;
}

json verification_json(const verification& seen, bool stream)
{
    json counts = json::object();
    for (size_t i = 0; i < FAULT_NAMES.size(); ++i)
        counts[std::string(FAULT_NAMES[i]) + (stream ? "_bytes" : "_messages")] =
            seen.counts[i];
    json faults = json::array();
    for (const fault& next : seen.faults)
        faults.push_back(fault_json(next, stream));
    return {
        {"attempted", seen.attempted},
        {"expected_messages", or_null(seen.expected_messages)},
        {"expected_bytes", or_null(seen.expected_bytes)},
        {"matched_messages", seen.matched_messages},
        {"matched_bytes", seen.matched_bytes},
        {"counts", std::move(counts)},
        {"fault_count", seen.fault_count},
        {"faults", std::move(faults)},
        {"gave_up", seen.gave_up},
        {"source_error", text_or_null(seen.source_error)}};
}

json measurement_json(const measurement& measured)
{
    json intervals = json::array();
    for (const interval& next : measured.intervals)
        intervals.push_back({{"messages", next.messages}, {"bytes", next.bytes}});
    return {
        {"framed", measured.framed},
        {"messages", measured.messages},
        {"bytes", measured.bytes},
        {"first_stamp_ns", measured.first_stamp_ns},
        {"duration_ns", measured.duration_ns},
        {"rate_bps", measured.rate_bps},
        {"gaps", distribution_json(measured.gaps, "ns")},
        {"sizes", distribution_json(measured.sizes, "bytes")},
        {"interval_ns", measured.interval_ns},
        {"intervals", std::move(intervals)}};
}

json left_out_json(const left_out& omitted)
{
    return {
        {"filtered_frames", omitted.filtered},
        {"empty_frames", omitted.empty},
        {"short_frames", omitted.short_frames},
        {"refused_files", omitted.refused_files},
        {"entries", omitted.entries}};
}

json caveats_json(const caveats& noted)
{
    return {
        {"frames_cut_by_snapshot", noted.cut_by_snapshot},
        {"split_payloads", noted.split_payloads},
        {"odd_link_files", noted.odd_link_files},
        {"broken_files", noted.broken_files}};
}

} // namespace

json to_json(const run_result& run)
{
    json object = document("run");
    object["command"] = run.command;
    object["exit_status"] = static_cast<int>(run.status);
    object["exit_status_name"] = name_of(run.status);
    object["end_reason"] = name_of(run.reason);
    object["problems"] = run.problems;
    object["protocol"] = run.protocol;
    object["address"] = run.address;
    object["device"] = text_or_null(run.device);
    object["source"] = text_or_null(run.source);
    object["wanted_bps"] = or_null(run.wanted_bps);
    object["tolerance_percent"] = run.tolerance_percent;
    object["rate_error_percent"] = or_null(run.rate_error_percent);
    object["buffer_wished_bytes"] = run.buffer_wished;
    object["buffer_granted_bytes"] = run.buffer_granted;
    object["own_drops"] = run.own_drops;
    object["verified"] = verification_json(run.verified, run.protocol == "tcp");
    object["measured"] = measurement_json(run.measured);
    return object;
}

json to_json(const plan_result& plan)
{
    json object = document("plan");
    object["command"] = plan.command;
    object["exit_status"] = static_cast<int>(plan.status);
    object["exit_status_name"] = name_of(plan.status);
    object["source"] = plan.source;
    object["files"] = plan.files;
    object["passes"] = plan.passes;
    object["endless"] = plan.passes == 0;
    object["messages"] = plan.messages;
    object["bytes"] = plan.bytes;
    object["sizes"] = distribution_json(plan.sizes, "bytes");
    object["sha256"] = plan.sha256;
    object["wanted_bps"] = or_null(plan.wanted_bps);
    object["seconds"] = or_null(plan.seconds);
    object["left_out_per_pass"] = left_out_json(plan.omitted);
    object["caveats_per_pass"] = caveats_json(plan.noted);
    object["notes"] = plan.notes;
    object["source_error"] = text_or_null(plan.source_error);
    return object;
}

std::string json_text(const json& document)
{
    constexpr int INDENT = 2;
    return document.dump(INDENT, ' ', false, json::error_handler_t::replace) + "\n";
}

} // namespace receiver
