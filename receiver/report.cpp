// The page is a template with places to fill in. Every text from outside passes
// through html_text().
#include "report.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <map>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "charts.h"
#include "format.h"
#include "report_template.h"
#include "wording.h"

namespace receiver {

namespace {

constexpr size_t FAULTS_ON_PAGE = 200;

std::string none(std::string_view words)
{
    return fmt::format("<p class=\"none\">{}</p>\n", html_text(words));
}

// A long number breaks behind its commas only.
std::string breakable(std::string_view number)
{
    std::string text;
    for (const char next : html_text(number))
        text += next == ',' ? ",<wbr>" : std::string(1, next);
    return text;
}

std::string tile(std::string_view name, std::string_view value, std::string_view more)
{
    return fmt::format(
        "<div><dt>{}</dt><dd>{}</dd><dd class=\"more\">{}</dd></div>\n", html_text(name),
        breakable(value), breakable(more));
}

std::string tiles(const run_result& run)
{
    const measurement& measured = run.measured;
    const bool timed = measured.duration_ns > 0;
    std::string wanted = run.wanted_bps ? "wanted " + rate_text(*run.wanted_bps) : "";
    if (run.rate_error_percent)
        wanted += fmt::format(" ({})", signed_percent(*run.rate_error_percent));
    const auto of = [](const std::optional<uint64_t>& expected) {
        return expected ? "of " + grouped(*expected) + " expected" : std::string();
    };
    return tile(
               measured.framed ? "Messages" : "Reads", grouped(measured.messages),
               of(measured.framed ? run.verified.expected_messages : std::nullopt)) +
           tile("Bytes", grouped(measured.bytes), of(run.verified.expected_bytes)) +
           tile(
               "Duration", timed ? duration_text(measured.duration_ns, MICRO) : "none",
               "first to last arrival") +
           tile("Rate", timed ? rate_text(measured.rate_bps) : "none", wanted);
}

std::string figure(std::string_view chart)
{
    return fmt::format("<figure>\n{}</figure>\n", chart);
}

using texts = std::vector<std::string>;

// Figures side by side, each below its name; in as many lines as it takes.
std::string figures(const texts& names, const texts& values)
{
    std::string text = "<dl class=\"figures\">\n";
    for (size_t i = 0; i < names.size(); ++i)
        text += fmt::format(
            "<div><dt>{}</dt><dd>{}</dd></div>\n", html_text(names[i]),
            html_text(values[i]));
    return text + "</dl>\n";
}

std::string section(std::string_view id, std::string_view title, std::string_view body)
{
    return fmt::format(
        "<section id=\"{}\">\n<h2>{}</h2>\n{}</section>\n", id, html_text(title), body);
}

std::string rate_part(const run_result& run)
{
    if (run.measured.duration_ns == 0)
        return none("It takes two arrivals to measure a rate.");
    return fmt::format("<p>{}</p>\n", html_text(rate_line(run))) +
           figure(rate_chart(run.measured, run.wanted_bps));
}

const texts& distribution_names()
{
    static const texts NAMES = {"min", "p50", "p90", "p99", "p99.9", "max"};
    return NAMES;
}

std::string gaps_part(const distribution& gaps)
{
    if (gaps.count == 0)
        return none("It takes two arrivals to make a gap.");
    texts values;
    for (const uint64_t value :
         {gaps.min, gaps.p50, gaps.p90, gaps.p99, gaps.p999, gaps.max})
        values.push_back(duration_text(value, MICRO));
    return fmt::format(
               "<p>{}, {} on average</p>\n", counted(gaps.count, "gap"),
               duration_text(whole(gaps.mean), MICRO)) +
           figure(gap_chart(gaps)) + figures(distribution_names(), values);
}

std::string sizes_part(const distribution& sizes)
{
    texts values;
    for (const uint64_t value :
         {sizes.min, sizes.p50, sizes.p90, sizes.p99, sizes.p999, sizes.max})
        values.push_back(grouped(value));
    return fmt::format(
               "<p>Payload bytes, without any header; {} on average</p>\n",
               grouped(whole(sizes.mean))) +
           figure(size_chart(sizes)) + figures(distribution_names(), values);
}

// Nothing is drawn of a run without arrivals: the verdict says so.
std::string charts(const run_result& run)
{
    if (run.measured.sizes.count == 0)
        return "";
    return section("rate", "Rate over time", rate_part(run)) +
           section("gaps", "Gaps between arrivals", gaps_part(run.measured.gaps)) +
           section(
               "sizes", run.measured.framed ? "Message sizes" : "Sizes of reads",
               sizes_part(run.measured.sizes));
}

// The bytes of one side; those of which the other side has another are marked.
std::string hex_side(const std::vector<uint8_t>& side, const std::vector<uint8_t>& other)
{
    std::string text;
    for (size_t i = 0; i < side.size(); ++i) {
        const bool same = i >= other.size() || side[i] == other[i];
        const std::string digits = hex_text(std::span(&side[i], 1));
        text += (i > 0 ? " " : "") + (same ? digits : "<mark>" + digits + "</mark>");
    }
    return text.empty() ? "-" : text;
}

std::string fault_row(const run_result& run, const fault& found)
{
    const std::string kind = name_of(found.kind);
    std::string words = html_text(fault_text(run, found));
    words.replace(
        words.find(kind), kind.size(), "<span class=\"kind\">" + kind + "</span>");
    if (!found.expected.empty() || !found.received.empty())
        words += fmt::format(
            "<dl class=\"hex\"><dt>expected</dt><dd>{}</dd>"
            "<dt>received</dt><dd>{}</dd></dl>",
            hex_side(found.expected, found.received),
            hex_side(found.received, found.expected));
    return fmt::format(
        "<tr><th scope=\"row\">{}</th><td>{}</td></tr>\n",
        html_text(fault_place(run, found)), words);
}

std::string fault_counts(const run_result& run)
{
    const texts names(FAULT_NAMES.begin(), FAULT_NAMES.end());
    texts values;
    for (const uint64_t count : run.verified.counts)
        values.push_back(grouped(count));
    return figures(names, values);
}

std::string faults_part(const run_result& run)
{
    const verification& seen = run.verified;
    if (not_compared(run) || seen.fault_count == 0)
        return "";
    const size_t shown = std::min(seen.faults.size(), FAULTS_ON_PAGE);
    std::string text = fmt::format(
        "<section id=\"faults\" class=\"long\">\n<h2>Faults</h2>\n"
        "<p>{} in all; counted in {}</p>\n{}"
        "<table class=\"faults\">\n<thead><tr><th scope=\"col\">Where"
        "</th><th scope=\"col\">What happened</th></tr></thead>\n<tbody>\n",
        counted(seen.fault_count, "fault"), run.protocol == "tcp" ? "bytes" : "messages",
        fault_counts(run));
    for (size_t i = 0; i < shown; ++i)
        text += fault_row(run, seen.faults[i]);
    text += "</tbody>\n</table>\n";
    if (seen.fault_count > shown)
        text += none(fmt::format("and {} more", grouped(seen.fault_count - shown)));
    return text + "</section>\n";
}

std::string row(std::string_view name, std::string_view value)
{
    return fmt::format(
        "<tr><th scope=\"row\">{}</th><td>{}</td></tr>\n", html_text(name),
        html_text(value));
}

std::string run_part(const run_result& run)
{
    std::string rows = row("From", endpoint_text(run));
    rows += row("Compared", comparison_text(run));
    if (run.buffer_wished > 0)
        rows += row("Receive buffer", buffer_text(run));
    if (const std::string advice = advice_text(run); !advice.empty())
        rows += row("Advice", advice);
    rows += row("Ended", end_text(run));
    for (const std::string& problem : further_problems(run))
        rows += row("Problem", problem);
    return rows;
}

// Each word in one piece: a line breaks between them, not behind their hyphens.
std::string command_text(std::string_view command)
{
    std::string text;
    while (!command.empty()) {
        const size_t end = std::min(command.find(' '), command.size());
        text += fmt::format("<span>{}</span>", html_text(command.substr(0, end)));
        text += end < command.size() ? " " : "";
        command.remove_prefix(std::min(end + 1, command.size()));
    }
    return text;
}

// A tick, a bar, an exclamation mark or a cross.
const char* mark_of(mood how)
{
    switch (how) {
    case mood::good:
        return "M6.8 12.6l3.5 3.5 7-7.6";
    case mood::plain:
        return "M7.2 12h9.6";
    case mood::doubtful:
        return "M12 6.4v6.8M12 17.2v.1";
    case mood::bad:
        break;
    }
    return "M8 8l8 8M16 8l-8 8";
}

const char* name_of(mood how)
{
    static constexpr std::array<const char*, 4> NAMES = {
        "good", "plain", "doubtful", "bad"};
    return NAMES[static_cast<size_t>(how)];
}

// Fills in the places in one pass, so that a text which looks like a place stays.
std::string filled(
    std::string_view text, const std::map<std::string_view, std::string>& values)
{
    std::string page;
    for (size_t open = text.find("{{"); open != std::string_view::npos;
         open = text.find("{{")) {
        const size_t close = text.find("}}", open);
        page += text.substr(0, open);
        page += values.at(text.substr(open + 2, close - open - 2));
        text.remove_prefix(close + 2);
    }
    return page.append(text);
}

} // namespace

std::string report_page(const run_result& run)
{
    const mood how = mood_of(run);
    const std::string verdict = html_text(verdict_text(run));
    const uint64_t stamp = run.measured.first_stamp_ns;
    return filled(
        REPORT_TEMPLATE, {{"title", "replay_receiver: " + verdict},
                          {"verdict", verdict},
                          {"when", stamp > 0 ? "First arrival " + stamp_text(stamp) : ""},
                          {"mood", name_of(how)},
                          {"mark", mark_of(how)},
                          {"status", std::to_string(static_cast<int>(run.status))},
                          {"meaning", meaning_of(run.status)},
                          {"tiles", tiles(run)},
                          {"charts", charts(run)},
                          {"faults", faults_part(run)},
                          {"run", run_part(run)},
                          {"command", command_text(run.command)}});
}

} // namespace receiver
