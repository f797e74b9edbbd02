// The sentences of a result, made of its plain values and nothing else. Texts from
// outside (paths, error messages) pass through printable(), so that they cannot steer
// a terminal.
#include "wording.h"

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

#include <fmt/format.h>

#include "format.h"

namespace receiver {

namespace {

bool is_stream(const run_result& run) { return run.protocol == "tcp"; }

std::string_view unit_of(const run_result& run)
{
    return run.measured.framed ? "message" : "read";
}

// "3 messages lost, 1 altered".
std::string counts_text(const run_result& run)
{
    std::string text;
    for (size_t i = 0; i < FAULT_NAMES.size(); ++i) {
        const uint64_t count = run.verified.counts[i];
        if (count == 0)
            continue;
        const std::string number =
            text.empty() ? counted(count, is_stream(run) ? "byte" : "message")
                         : ", " + grouped(count);
        text += fmt::format("{} {}", number, FAULT_NAMES[i]);
    }
    return text;
}

// "99,996 of 100,000 messages"; over TCP bytes count.
std::string matched_text(const run_result& run)
{
    const verification& seen = run.verified;
    const bool stream = is_stream(run);
    const uint64_t matched = stream ? seen.matched_bytes : seen.matched_messages;
    const auto& expected = stream ? seen.expected_bytes : seen.expected_messages;
    const std::string_view unit = stream ? "byte" : "message";
    return expected ? fmt::format("{} of {}", grouped(matched), counted(*expected, unit))
                    : counted(matched, unit);
}

std::string content_verdict(const run_result& run)
{
    const std::string counts = counts_text(run);
    std::string text = fmt::format(
        "{}: {} arrived whole", counts.empty() ? "Not as sent" : counts,
        matched_text(run));
    if (!run.verified.faults.empty())
        text += ", first fault at " + fault_place(run, run.verified.faults.front());
    return text + ".";
}

std::string good_verdict(const run_result& run)
{
    if (not_compared(run))
        return fmt::format(
            "Received {}; not compared: no --filepath.", received_text(run));
    if (run.measured.messages == 0)
        return "As expected: the source is empty, and nothing arrived.";
    const char* const extent =
        run.verified.expected_bytes ? "" : " up to the end of the run";
    return fmt::format(
        "As expected: {}, every byte in its place{}.",
        amount_text(run.measured.messages, unit_of(run), run.measured.bytes), extent);
}

std::string rate_verdict(const run_result& run)
{
    return fmt::format(
        "Wrong rate: {} instead of {}, which is {} off (tolerance {:g}%); {}.",
        rate_text(run.measured.rate_bps), rate_text(run.wanted_bps.value_or(0)),
        signed_percent(run.rate_error_percent.value_or(0)), run.tolerance_percent,
        not_compared(run) ? "the content was not compared (no --filepath)"
                          : "the content is as expected");
}

std::string early_verdict(const run_result& run)
{
    if (run.measured.messages == 0)
        return fmt::format("Nothing arrived: {}.", end_text(run));
    if (not_compared(run))
        return fmt::format(
            "Ended early after {}: {}; not compared: no --filepath.", received_text(run),
            end_text(run));
    return fmt::format(
        "Ended early: {} arrived, all as they should, then {}.", matched_text(run),
        end_text(run));
}

std::string undecided_verdict(const run_result& run)
{
    return fmt::format(
        "Undecided: {} lost, but this receiver itself dropped {}; "
        "the sender may have sent them all.",
        counted(run.verified.count(fault_kind::lost), "message"), grouped(run.own_drops));
}

// The problem that decided the status, which is the first.
std::string problem_verdict(const run_result& run, std::string_view otherwise)
{
    std::string text(otherwise);
    if (!run.problems.empty())
        text += ": " + printable(run.problems.front());
    else if (!run.verified.source_error.empty())
        text += ": " + printable(run.verified.source_error);
    if (text.back() != '.')
        text += '.';
    return text;
}

} // namespace

bool not_compared(const run_result& run) { return !run.verified.attempted; }

mood mood_of(const run_result& run)
{
    switch (run.status) {
    case exit_status::as_expected:
        return not_compared(run) ? mood::plain : mood::good;
    case exit_status::rate:
    case exit_status::undecided:
    case exit_status::early:
        return mood::doubtful;
    default:
        return mood::bad;
    }
}

std::string amount_text(uint64_t messages, std::string_view unit, uint64_t bytes)
{
    return fmt::format("{}, {}", counted(messages, unit), counted(bytes, "byte"));
}

std::string received_text(const run_result& run)
{
    return amount_text(run.measured.messages, unit_of(run), run.measured.bytes);
}

std::string verdict_text(const run_result& run)
{
    switch (run.status) {
    case exit_status::as_expected:
        return good_verdict(run);
    case exit_status::content:
        return content_verdict(run);
    case exit_status::rate:
        return rate_verdict(run);
    case exit_status::undecided:
        return undecided_verdict(run);
    case exit_status::early:
        return early_verdict(run);
    case exit_status::connection:
        return problem_verdict(run, "No connection");
    case exit_status::file:
        return problem_verdict(run, "A file failed");
    case exit_status::usage:
        break;
    }
    return problem_verdict(run, "Wrong use");
}

std::span<const std::string> further_problems(const run_result& run)
{
    const bool told =
        run.status == exit_status::connection || run.status == exit_status::file;
    const std::span<const std::string> all(run.problems);
    return all.subspan(told && !all.empty() ? 1 : 0);
}

std::string endpoint_text(const run_result& run)
{
    std::string text = fmt::format("{} {}", run.protocol, printable(run.address));
    if (!run.device.empty())
        text += " on " + printable(run.device);
    return text;
}

std::string comparison_text(const run_result& run)
{
    if (not_compared(run))
        return "not compared: no --filepath";
    std::string text =
        fmt::format("with {}: {} whole", printable(run.source), matched_text(run));
    if (run.verified.gave_up)
        text += "; no match found again after the last fault";
    if (!run.verified.source_error.empty())
        text += "; the source ends early: " + printable(run.verified.source_error);
    return text;
}

std::string rate_line(const run_result& run)
{
    if (run.measured.duration_ns == 0)
        return "none: it takes two arrivals to measure one";
    std::string text = rate_text(run.measured.rate_bps);
    if (run.wanted_bps)
        text += ", wanted " + rate_text(*run.wanted_bps);
    if (run.rate_error_percent)
        text += fmt::format(
            ", error {} (tolerance {:g}%)", signed_percent(*run.rate_error_percent),
            run.tolerance_percent);
    return text;
}

std::string buffer_text(const run_result& run)
{
    std::string text = bytes_text(run.buffer_granted);
    text += run.buffer_granted < run.buffer_wished
                ? fmt::format(" granted of {} wished", bytes_text(run.buffer_wished))
                : " granted as wished";
    if (is_stream(run))
        return text;
    return text +
           (run.own_drops == 0
                ? "; nothing dropped here"
                : fmt::format("; {} dropped here", counted(run.own_drops, "message")));
}

std::string advice_text(const run_result& run)
{
    if (is_stream(run))
        return "";
    if (run.buffer_granted < run.buffer_wished)
        return fmt::format(
            "For the whole buffer raise the kernel's limit (sysctl -w "
            "net.core.rmem_max={}) or run with CAP_NET_ADMIN.",
            run.buffer_wished);
    if (run.own_drops > 0)
        return "Wish for a larger buffer with --rcvbuf; past the kernel's limit raise "
               "net.core.rmem_max or run with CAP_NET_ADMIN.";
    return "";
}

std::string end_text(const run_result& run)
{
    switch (run.reason) {
    case end_reason::complete:
        return "everything expected had arrived";
    case end_reason::idle:
        return "the sender fell silent (--idle)";
    case end_reason::duration:
        return "the time was up (--duration)";
    case end_reason::messages:
        return "the wished number of messages was there (--messages)";
    case end_reason::bytes:
        return "the wished number of bytes was there (--bytes)";
    case end_reason::closed:
        return "the sender closed the connection";
    case end_reason::signal:
        return "a signal ended the run";
    case end_reason::failed:
        break;
    }
    return "the connection or a file failed";
}

std::string fault_place(const run_result& run, const fault& found)
{
    if (is_stream(run))
        return "offset " + grouped(found.offset);
    if (found.kind == fault_kind::unexpected)
        return "before message " + grouped(found.message);
    if (found.length == 1)
        return "message " + grouped(found.message);
    return fmt::format(
        "messages {} to {}", grouped(found.message),
        grouped(found.message + found.length - 1));
}

namespace {

std::string stream_fault_text(const fault& found)
{
    return fmt::format(
        "{} {} (message {}, its byte {})", counted(found.length, "byte"),
        name_of(found.kind), grouped(found.message), grouped(found.offset_in_message));
}

// "datagram 17", "datagrams 17 to 19".
std::string arrival_text(const fault& found)
{
    if (found.length == 1)
        return "datagram " + grouped(found.arrival);
    return fmt::format(
        "datagrams {} to {}", grouped(found.arrival),
        grouped(found.arrival + found.length - 1));
}

} // namespace

std::string fault_text(const run_result& run, const fault& found)
{
    if (is_stream(run))
        return stream_fault_text(found);
    std::string text = name_of(found.kind);
    if (found.kind == fault_kind::altered || found.kind == fault_kind::truncated)
        text += fmt::format(" from its byte {} on", grouped(found.offset));
    if (found.arrival != 0)
        text += fmt::format(" ({})", arrival_text(found));
    return text;
}

} // namespace receiver
