// Lines of labels and values, tables and bars, all within the terminal's columns. Texts
// from outside that are not part of a sentence pass through printable() here, so that
// they cannot steer the terminal.
#include "summary.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "format.h"
#include "wording.h"

namespace receiver {

namespace {

constexpr size_t FAULTS_SHOWN = 10;
constexpr size_t LABEL_COLUMNS = 10;
constexpr size_t INDENT = 2;
constexpr size_t HISTOGRAM_ROWS = 12;

constexpr std::string_view RED = "\x1b[1;31m";
constexpr std::string_view GREEN = "\x1b[1;32m";
constexpr std::string_view YELLOW = "\x1b[1;33m";
constexpr std::string_view BOLD = "\x1b[1m";
constexpr std::string_view NORMAL = "\x1b[0m";

// Breaks at spaces, and within words that are longer than a line.
std::vector<std::string> wrapped(std::string_view text, size_t columns)
{
    std::vector<std::string> lines;
    while (columns_of(text) > columns) {
        const size_t most = bytes_within(text, columns);
        const size_t space = text.substr(0, most + 1).rfind(' ');
        const bool at_space = space != std::string_view::npos && space > 0;
        lines.emplace_back(text.substr(0, at_space ? space : most));
        text.remove_prefix(at_space ? space + 1 : most);
    }
    lines.emplace_back(text);
    return lines;
}

// Pads by columns, which fmt would count otherwise than columns_of().
std::string left(std::string_view text, size_t columns)
{
    const size_t used = columns_of(text);
    return std::string(text) + std::string(used < columns ? columns - used : 0, ' ');
}

// A bar of eighths of a block; something that is there shows at least one eighth.
std::string block_bar(double share, size_t columns)
{
    static constexpr std::array<std::string_view, 8> PARTS = {"",  "▏", "▎", "▍",
                                                              "▌", "▋", "▊", "▉"};
    auto eighths =
        static_cast<size_t>(std::lround(share * static_cast<double>(columns * 8)));
    if (share > 0 && eighths == 0)
        eighths = 1;
    std::string text;
    for (size_t i = 0; i < eighths / 8; ++i)
        text += "█";
    return text + std::string(PARTS[eighths % 8]);
}

// Lines of "label  value", values wrapped beside their label.
class page {
public:
    page(unsigned columns, bool colour)
        : columns_(std::max(columns, 40u)), colour_(colour)
    {}

    size_t columns() const { return columns_; }
    const std::string& text() const { return text_; }

    std::string painted(std::string_view words, std::string_view colour) const
    {
        return colour_ && !colour.empty() ? fmt::format("{}{}{}", colour, words, NORMAL)
                                          : std::string(words);
    }

    void line(std::string_view words = "")
    {
        text_.append(words.substr(0, words.find_last_not_of(' ') + 1)).append("\n");
    }

    void sentence(std::string_view words, std::string_view colour)
    {
        for (const std::string& next : wrapped(words, columns_))
            line(painted(next, colour));
    }

    // The word, where the value holds it, stands out.
    void row(std::string_view label, std::string_view value, std::string_view word = "")
    {
        row(label, value, LABEL_COLUMNS, word);
    }

    void row(
        std::string_view label, std::string_view value, size_t label_columns,
        std::string_view word)
    {
        for (std::string& next : wrapped(value, columns_ - label_columns)) {
            const size_t at = word.empty() ? std::string::npos : next.find(word);
            if (at != std::string::npos)
                next.replace(at, word.size(), painted(word, RED));
            line(left(label, label_columns) + next);
            label = "";
        }
    }

private:
    size_t columns_;
    bool colour_;
    std::string text_;
};

std::string_view colour_of(mood how)
{
    switch (how) {
    case mood::good:
        return GREEN;
    case mood::doubtful:
        return YELLOW;
    case mood::bad:
        return RED;
    case mood::plain:
        break;
    }
    return BOLD;
}

using texts = std::vector<std::string>;

texts gap_figures(const distribution& gaps)
{
    texts cells = {"Gaps"};
    for (const uint64_t value :
         {gaps.min, gaps.p50, gaps.p90, gaps.p99, gaps.p999, gaps.max})
        cells.push_back(duration_text(value));
    return cells;
}

texts size_figures(const distribution& sizes)
{
    texts cells = {"Sizes (B)"};
    for (const uint64_t value :
         {sizes.min, sizes.p50, sizes.p90, sizes.p99, sizes.p999, sizes.max})
        cells.push_back(grouped(value));
    return cells;
}

// A table whose first row and column are its heads.
using table = std::vector<texts>;

table transposed(const table& rows)
{
    table turned(rows.front().size());
    for (const texts& row : rows) {
        for (size_t i = 0; i < row.size(); ++i)
            turned[i].push_back(row[i]);
    }
    return turned;
}

size_t cell_columns(const table& rows)
{
    size_t most = 9;
    for (const texts& row : rows) {
        for (const std::string& cell : row)
            most = std::max(most, columns_of(cell));
    }
    return most + 2;
}

// The figures of each distribution in a line, or in a column where a line is too
// short for them.
void figures(page& out, const table& distributions)
{
    table rows = {{"", "min", "p50", "p90", "p99", "p99.9", "max"}};
    rows.insert(rows.end(), distributions.begin(), distributions.end());
    const size_t room = out.columns() - LABEL_COLUMNS;
    size_t cell = cell_columns(rows);
    if (room < (rows.front().size() - 1) * cell) {
        rows = transposed(rows);
        cell = std::min(cell, room / (rows.front().size() - 1));
    }
    for (const texts& row : rows) {
        std::string text = left(row.front(), LABEL_COLUMNS);
        for (size_t i = 1; i < row.size(); ++i)
            text += fmt::format("{:>{}}", row[i], cell);
        out.line(text);
    }
}

void distributions(page& out, const measurement& measured)
{
    table rows;
    if (measured.gaps.count > 0)
        rows.push_back(gap_figures(measured.gaps));
    if (measured.sizes.count > 0)
        rows.push_back(size_figures(measured.sizes));
    if (rows.empty())
        return;
    out.line();
    figures(out, rows);
}

// The shorter form is for times of hours in a narrow terminal.
std::string range_text(const bar& next, size_t columns)
{
    if (next.high == 0)
        return "0 ns";
    const std::string low = duration_text(whole(next.low));
    const std::string text =
        fmt::format("{} to {}", low, duration_text(whole(next.high)));
    return columns_of(text) <= columns ? text : "from " + low;
}

void histogram(page& out, const distribution& gaps)
{
    constexpr size_t SHARE = 10; // "100.0%" with two spaces on both sides
    constexpr size_t LEAST_BAR = 8;
    const std::vector<bar> bars = log_bars(gaps, HISTOGRAM_ROWS, edges::round);
    if (bars.empty())
        return;
    double most = 0;
    size_t label = 0;
    texts ranges;
    for (const bar& next : bars) {
        most = std::max(most, next.count);
        ranges.push_back(range_text(next, out.columns() - INDENT - SHARE - LEAST_BAR));
        label = std::max(label, columns_of(ranges.back()));
    }
    out.line();
    out.line("Gaps between arrivals");
    for (size_t i = 0; i < bars.size(); ++i)
        out.line(fmt::format(
            "{:>{}}{:>{}}  {}", ranges[i], INDENT + label,
            share_text(bars[i].count, static_cast<double>(gaps.count)), SHARE - 2,
            block_bar(bars[i].count / most, out.columns() - INDENT - label - SHARE)));
}

// Both sides of a difference, as many bytes as a line takes.
void difference(page& out, const run_result& run)
{
    const auto& faults = run.verified.faults;
    const auto first = std::find_if(faults.begin(), faults.end(), [](const fault& next) {
        return !next.expected.empty() || !next.received.empty();
    });
    if (first == faults.end())
        return;
    constexpr size_t LABEL = INDENT + LABEL_COLUMNS;
    const size_t most = (out.columns() - LABEL + 1) / 3;
    const auto side = [&](std::string_view label, std::span<const uint8_t> bytes) {
        const auto shown = bytes.first(std::min(bytes.size(), most));
        out.line(fmt::format("  {:<10}{}", label, shown.empty() ? "-" : hex_text(shown)));
    };
    out.line();
    out.sentence("First difference in content, at " + fault_place(run, *first), "");
    side("expected", first->expected);
    side("received", first->received);
}

void faults(page& out, const run_result& run)
{
    constexpr size_t LEAST_FOR_TEXT = 40;
    const verification& seen = run.verified;
    if (seen.fault_count == 0)
        return;
    const size_t shown = std::min(seen.faults.size(), FAULTS_SHOWN);
    size_t width = 0;
    for (size_t i = 0; i < shown; ++i)
        width = std::max(width, columns_of(fault_place(run, seen.faults[i])));
    const bool beside = out.columns() >= INDENT + width + 2 + LEAST_FOR_TEXT;
    out.line();
    out.line("Faults");
    for (size_t i = 0; i < shown; ++i) {
        const fault& next = seen.faults[i];
        const std::string place = fault_place(run, next);
        if (!beside)
            out.row("", place, INDENT, "");
        out.row(
            beside ? "  " + place : "", fault_text(run, next),
            beside ? INDENT + width + 2 : 2 * INDENT, name_of(next.kind));
    }
    if (seen.fault_count > shown)
        out.line(fmt::format("  and {} more", grouped(seen.fault_count - shown)));
    difference(out, run);
}

void arrivals(page& out, const run_result& run)
{
    const measurement& measured = run.measured;
    std::string amount = received_text(run);
    if (measured.bytes >= 1024)
        amount += fmt::format(" ({})", bytes_text(measured.bytes));
    if (measured.duration_ns > 0)
        amount += " in " + duration_text(measured.duration_ns);
    out.row("Received", amount);
    out.row("From", endpoint_text(run));
    out.row("Compared", comparison_text(run));
    out.row("Rate", rate_line(run));
}

std::string exit_text(exit_status status)
{
    return fmt::format("status {}: {}", static_cast<int>(status), meaning_of(status));
}

void ending(page& out, const run_result& run)
{
    if (run.buffer_wished > 0) {
        out.row("Buffer", buffer_text(run));
        if (const std::string advice = advice_text(run); !advice.empty())
            out.row("", advice);
    }
    out.row("Ended", end_text(run));
    std::string_view label = "Problems";
    for (const std::string& problem : further_problems(run)) {
        out.row(label, printable(problem));
        label = "";
    }
    out.row("Exit", exit_text(run.status));
}

} // namespace

std::string summary_text(const run_result& run, unsigned columns, bool colour)
{
    page out(columns, colour);
    out.sentence(verdict_text(run), colour_of(mood_of(run)));
    out.line();
    arrivals(out, run);
    ending(out, run);
    distributions(out, run.measured);
    histogram(out, run.measured.gaps);
    faults(out, run);
    return out.text();
}

// ---------------------------------------------------------------------- the plan

namespace {

std::string plan_verdict(const plan_result& plan)
{
    const std::string amount = amount_text(plan.messages, "message", plan.bytes);
    if (plan.passes == 0)
        return fmt::format(
            "The sender would send {} over and over, until stopped.", amount);
    if (plan.messages == 0)
        return "The sender would send nothing.";
    return fmt::format("The sender would send {}.", amount);
}

std::string time_text(const plan_result& plan)
{
    if (!plan.wanted_bps)
        return "as fast as the receiver takes it: no --mbps";
    const std::string rate = rate_text(*plan.wanted_bps);
    if (!plan.seconds)
        return "at " + rate;
    return fmt::format(
        "{} at {}{}", duration_text(whole(*plan.seconds * 1e9)), rate,
        plan.passes == 0 ? ", each pass" : "");
}

// A counted thing and what there is to say about it.
struct remark {
    uint64_t count;
    std::string_view one;
    std::string_view words;
    std::string_view many{};
};

void remarks(page& out, std::string_view& label, const std::vector<remark>& all)
{
    for (const remark& next : all) {
        if (next.count == 0)
            continue;
        out.row(
            label,
            fmt::format("{} {}", counted(next.count, next.one, next.many), next.words));
        label = "";
    }
}

void omissions(page& out, const left_out& omitted)
{
    std::string_view label = "Left out";
    remarks(
        out, label,
        {{omitted.filtered, "frame", "that the filter does not let through"},
         {omitted.empty, "frame", "without payload"},
         {omitted.short_frames, "frame", "shorter than the headers"},
         {omitted.refused_files, "capture", "that cannot take the filter"},
         {omitted.entries, "entry", "of the folder that the sender does not read",
          "entries"}});
    // cppcheck-suppress knownConditionTrueFalse ; remarks() empties it once it is shown
    if (!label.empty())
        out.row(label, "nothing");
}

void warnings(page& out, const plan_result& plan)
{
    std::string_view label = "Beware";
    const caveats& found = plan.noted;
    remarks(
        out, label,
        {{found.cut_by_snapshot, "frame", "of which the capture holds only a part"},
         {found.split_payloads, "payload", "longer than a message: sent in several"},
         {found.odd_link_files, "capture",
          "not of Ethernet frames: cut in the wrong place"},
         {found.broken_files, "capture", "ending in the middle of a record"}});
    for (const std::string& note : plan.notes) {
        out.row(label, printable(note));
        label = "";
    }
}

} // namespace

std::string plan_text(const plan_result& plan, unsigned columns, bool colour)
{
    page out(columns, colour);
    out.sentence(plan_verdict(plan), plan.source_error.empty() ? BOLD : YELLOW);
    if (!plan.source_error.empty())
        out.sentence("It would end there: " + printable(plan.source_error), YELLOW);
    out.line();
    const std::string passes = plan.passes == 0   ? "endless"
                               : plan.passes == 1 ? "1 pass"
                                                  : grouped(plan.passes) + " passes";
    out.row(
        "Source",
        fmt::format(
            "{} ({}, {})", printable(plan.source), counted(plan.files, "file"), passes));
    out.row("Amount", bytes_text(plan.bytes));
    out.row("Takes", time_text(plan));
    out.row("SHA-256", plan.sha256);
    omissions(out, plan.omitted);
    warnings(out, plan);
    if (plan.status != exit_status::as_expected)
        out.row("Exit", exit_text(plan.status));
    if (plan.sizes.count > 0) {
        out.line();
        figures(out, {size_figures(plan.sizes)});
    }
    return out.text();
}

} // namespace receiver
