// The page is a template with places to fill in. Every text from outside passes
// through html_text(); charts are drawn twice, for wide and for narrow windows, so
// that their letters keep their size.
#include "report.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "format.h"
#include "report_template.h"
#include "summary.h"

namespace receiver {

namespace {

constexpr std::string_view MICRO = "\u00b5s";
constexpr size_t FAULTS_SHOWN = 200;

std::string html_text(std::string_view text)
{
    std::string safe;
    for (const char next : printable(text)) {
        switch (next) {
        case '&':
            safe += "&amp;";
            break;
        case '<':
            safe += "&lt;";
            break;
        case '>':
            safe += "&gt;";
            break;
        case '"':
            safe += "&quot;";
            break;
        case '\'':
            safe += "&#39;";
            break;
        default:
            safe += next;
        }
    }
    return safe;
}

// ------------------------------------------------------------------------ drawing

// Where a chart lies within its drawing, in the drawing's units.
struct frame {
    double width{0};
    double height{0};
    double left{46};
    double right{10};
    double top{28};
    double bottom{42};

    double inner() const { return width - left - right; }
    double base() const { return height - bottom; }
    double tall() const { return base() - top; }
    bool narrow() const { return width < 500; }
};

constexpr frame WIDE{.width = 820, .height = 270};
constexpr frame NARROW{.width = 340, .height = 230, .left = 42, .right = 6};

struct tick {
    double at{0}; // share of the axis, from 0 to 1
    std::string label;
};

// One drawing: a frame with axes, to which curves and bars are added.
class drawing {
public:
    drawing(
        const frame& area, std::string_view id, std::string_view title,
        std::string_view description)
        : area_(area)
    {
        const std::string_view size = area.narrow() ? "narrow" : "wide";
        svg_ = fmt::format(
            "<svg class=\"{0}\" viewBox=\"0 0 {1:g} {2:g}\" role=\"img\" "
            "aria-labelledby=\"{3}-{0}-title\" aria-describedby=\"{3}-{0}-desc\">\n"
            "<title id=\"{3}-{0}-title\">{4}</title>\n"
            "<desc id=\"{3}-{0}-desc\">{5}</desc>\n",
            size, area.width, area.height, id, html_text(title), html_text(description));
    }

    double x(double share) const { return area_.left + share * area_.inner(); }
    double y(double share) const { return area_.base() - share * area_.tall(); }

    void line(std::string_view kind, double x1, double y1, double x2, double y2)
    {
        svg_ += fmt::format(
            "<line class=\"{}\" x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\"/>\n",
            kind, x1, y1, x2, y2);
    }

    void text(
        std::string_view kind, std::string_view anchor, double at_x, double at_y,
        std::string_view words)
    {
        svg_ += fmt::format(
            "<text class=\"{}\" text-anchor=\"{}\" x=\"{:.1f}\" y=\"{:.1f}\">{}</text>\n",
            kind, anchor, at_x, at_y, html_text(words));
    }

    void path(std::string_view kind, std::string_view data)
    {
        svg_ += fmt::format("<path class=\"{}\" d=\"{}\"/>\n", kind, data);
    }

    void vertical_axis(const std::vector<tick>& ticks, std::string_view unit = "")
    {
        for (const tick& next : ticks) {
            line(next.at > 0 ? "grid" : "axis", x(0), y(next.at), x(1), y(next.at));
            text("tick", "end", x(0) - 8, y(next.at) + 4, next.label);
        }
        if (!unit.empty())
            text("tick", "end", x(0) - 8, area_.top - 14, unit);
    }

    // Labels that would touch their neighbour are left out.
    void horizontal_axis(const std::vector<tick>& ticks, std::string_view title)
    {
        double free_from = 0;
        for (const tick& next : ticks) {
            const double width = text_width(next.label);
            // The first and the last label may not leave the drawing.
            const double middle =
                std::clamp(x(next.at), width / 2, area_.width - width / 2);
            line("axis", x(next.at), area_.base(), x(next.at), area_.base() + 4);
            if (middle - width / 2 < free_from)
                continue;
            text("tick", "middle", middle, area_.base() + 18, next.label);
            free_from = middle + width / 2 + 10;
        }
        text("tick", "middle", x(0.5), area_.height - 4, title);
    }

    // An estimate for letters of 12 units: digits are the widest of them.
    static double text_width(std::string_view words)
    {
        return 7.8 * static_cast<double>(columns_of(words));
    }

    const frame& area() const { return area_; }
    std::string finished() const { return svg_ + "</svg>\n"; }

private:
    frame area_;
    std::string svg_;
};

// Round values from 0 to the first one at or above `greatest`.
struct scale {
    double step{1};
    double top{1};

    scale(double greatest, int steps)
    {
        step = nice_step(std::max(greatest, 1e-9) / steps);
        top = std::ceil(greatest / step * (1 - 1e-9)) * step;
    }

    template <typename Label>
    std::vector<tick> ticks(const Label& label) const
    {
        std::vector<tick> all;
        const auto count = static_cast<int>(std::lround(top / step));
        for (int i = 0; i <= count; ++i)
            all.push_back({i * step / top, label(i * step)});
        return all;
    }
};

// ----------------------------------------------------------------- rate over time

// A piece of the curve: times as shares of the run, rates in bits per second.
struct stretch {
    double from{0};
    double to{0};
    double rate{0};
};

double slice_rate(const measurement& measured, size_t index)
{
    return static_cast<double>(measured.intervals[index].bytes) * 8e9 /
           static_cast<double>(measured.interval_ns);
}

// The slices that lie wholly within the run. The last one rarely does, and would look
// like a drop of the rate. A run shorter than two slices is one stretch at its rate.
size_t whole_slices(const measurement& measured)
{
    if (measured.interval_ns == 0)
        return 0;
    return std::min<size_t>(
        measured.intervals.size(), measured.duration_ns / measured.interval_ns);
}

// At most `most` of them, each the mean of as many slices as that takes.
std::vector<stretch> stretches(const measurement& measured, size_t most)
{
    const size_t slices = whole_slices(measured);
    if (slices < 2)
        return {{0, 1, measured.rate_bps}};
    const size_t each = (slices + most - 1) / most;
    const double share = static_cast<double>(measured.interval_ns) /
                         static_cast<double>(measured.duration_ns);
    std::vector<stretch> all;
    for (size_t at = 0; at < slices; at += each) {
        const size_t end = std::min(slices, at + each);
        double sum = 0;
        for (size_t i = at; i < end; ++i)
            sum += slice_rate(measured, i);
        all.push_back(
            {static_cast<double>(at) * share, static_cast<double>(end) * share,
             sum / static_cast<double>(end - at)});
    }
    return all;
}

// How an axis counts: its labels are values divided by the factor.
struct unit {
    double factor;
    std::string_view name;
};

// The greatest unit of which there is at least one.
unit fitting(double greatest, std::initializer_list<unit> units)
{
    unit best = *units.begin();
    for (const unit& next : units)
        best = greatest >= next.factor ? next : best;
    return best;
}

unit rate_unit(double greatest)
{
    return fitting(
        greatest,
        {{1, "bps"}, {1e3, "kbps"}, {1e6, "Mbps"}, {1e9, "Gbps"}, {1e12, "Tbps"}});
}

struct time_axis {
    std::vector<tick> ticks;
    std::string title;
};

std::vector<tick> even_ticks(double step, double end, auto&& label)
{
    std::vector<tick> all;
    for (int i = 0; i * step <= end * (1 + 1e-9); ++i)
        all.push_back({i * step / end, label(i * step)});
    return all;
}

// Round times within the run. From a minute on clocks count in sixties.
time_axis time_axis_of(uint64_t duration_ns, int steps)
{
    const auto duration = static_cast<double>(duration_ns);
    const double seconds = duration / 1e9;
    if (seconds < 60) {
        const unit in = fitting(
            duration, {{1, "nanoseconds"},
                       {1e3, "microseconds"},
                       {1e6, "milliseconds"},
                       {1e9, "seconds"}});
        return {
            even_ticks(
                nice_step(duration / steps), duration,
                [&](double at) { return number_text(at / in.factor, 3); }),
            fmt::format("{} since the first arrival", in.name)};
    }
    constexpr int DAY = 86400;
    double step = DAY * std::ceil(seconds / DAY / steps);
    for (const int next :
         {DAY / 2, DAY / 4, 7200, 3600, 1800, 900, 600, 300, 120, 60, 30, 15, 10})
        step = next * steps >= seconds ? next : step;
    return {
        even_ticks(step, seconds, clock_text), seconds < 3600
                                                   ? "min:s since the first arrival"
                                                   : "h:min:s since the first arrival"};
}

void draw_rates(drawing& chart, const std::vector<stretch>& parts, double top)
{
    std::string curve;
    for (const stretch& part : parts)
        curve += fmt::format(
            "{}{:.1f} {:.1f}H{:.1f}", curve.empty() ? "M" : "L", chart.x(part.from),
            chart.y(part.rate / top), chart.x(part.to));
    chart.path("area", fmt::format("{}V{:.1f}H{:.1f}Z", curve, chart.y(0), chart.x(0)));
    chart.path("curve", curve);
}

// The dashed line with its label above it and above the curve there.
void draw_wanted(
    drawing& chart, const std::vector<stretch>& parts, double wanted, double top)
{
    const std::string label = "wanted " + rate_text(wanted);
    const double from = 1 - drawing::text_width(label) / chart.area().inner();
    double highest = wanted;
    for (const stretch& part : parts) {
        if (part.to >= from)
            highest = std::max(highest, part.rate);
    }
    chart.line(
        "wanted", chart.x(0), chart.y(wanted / top), chart.x(1), chart.y(wanted / top));
    chart.text("label", "end", chart.x(1), chart.y(highest / top) - 7, label);
}

std::string rate_chart(const run_result& run, const frame& area)
{
    const std::vector<stretch> parts = stretches(run.measured, area.narrow() ? 60 : 120);
    double greatest = run.wanted_bps.value_or(0);
    for (const stretch& part : parts)
        greatest = std::max(greatest, part.rate);
    const scale rates(greatest, 5);
    const unit in = rate_unit(rates.top);
    drawing chart(
        area, "rate", "Rate over time",
        fmt::format(
            "{} over {}.{}", rate_text(run.measured.rate_bps),
            duration_text(run.measured.duration_ns),
            run.wanted_bps ? " Wanted: " + rate_text(*run.wanted_bps) + "." : ""));
    chart.vertical_axis(
        rates.ticks([&](double value) { return number_text(value / in.factor, 3); }),
        in.name);
    draw_rates(chart, parts, rates.top);
    const time_axis times =
        time_axis_of(run.measured.duration_ns, area.narrow() ? 5 : 10);
    chart.horizontal_axis(times.ticks, times.title);
    if (run.wanted_bps)
        draw_wanted(chart, parts, *run.wanted_bps, rates.top);
    return chart.finished();
}

// --------------------------------------------------------------------- histograms

// A horizontal axis: where a value lies, as a share.
struct log_axis {
    double low{1};
    double high{10};
    double start{0}; // share taken by the bar of zeros and the gap behind it

    double at(double value) const
    {
        if (value < 1 && start > 0)
            return start / 3;
        const double share =
            std::log(std::clamp(value, low, high) / low) / std::log(high / low);
        return start + share * (1 - start);
    }
};

// Around all bars, and over a decade at least: gaps that are all alike are a narrow
// bar, not a full page.
log_axis axis_of(const std::vector<bar>& bars)
{
    const bool zeros = bars.front().high == 0;
    const double start = zeros ? 0.1 : 0;
    if (zeros && bars.size() == 1)
        return {1, 10, start};
    const double low = bars[zeros ? 1 : 0].low;
    const double high = bars.back().high;
    const double widen = std::sqrt(std::max(1.0, 10 * low / high));
    // Half a nanosecond has no meaning: what is missing below is added above.
    const double least = std::max(1.0, low / widen);
    return {least, std::max(high * widen, widen > 1 ? least * 10 : 0), start};
}

// Powers of ten where there are enough of them, 1-2-5 or equal steps where not.
std::vector<double> log_values(const log_axis& axis)
{
    const double decades = std::log10(axis.high / axis.low);
    std::vector<double> values;
    if (decades < 0.9) {
        const double step = std::max(1.0, nice_step((axis.high - axis.low) / 6));
        for (double next = std::ceil(axis.low / step) * step; next <= axis.high;
             next += step)
            values.push_back(next);
        return values;
    }
    for (double power = std::pow(10, std::floor(std::log10(axis.low)));
         power <= axis.high; power *= 10) {
        for (const double factor : {1, 2, 5}) {
            const double next = power * factor;
            const bool fits = next >= axis.low && next <= axis.high;
            if (fits && (factor == 1 || decades < 3))
                values.push_back(next);
        }
    }
    return values;
}

std::vector<tick> log_ticks(const log_axis& axis, bool zeros)
{
    std::vector<tick> all;
    if (zeros)
        all.push_back({axis.at(0), "0"});
    for (const double value : log_values(axis))
        all.push_back({axis.at(value), duration_text(whole(value), MICRO)});
    return all;
}

double most_of(const std::vector<bar>& bars)
{
    double most = 0;
    for (const bar& next : bars)
        most = std::max(most, next.count);
    return most;
}

// A bar with a gap beside it. What is there at all is at least a thin line.
std::string bar_path(const drawing& chart, double from, double to, double share)
{
    constexpr double LEAST = 1.5;
    const double gap = to - from > 4 ? 1 : 0;
    const double width = std::max(LEAST, to - from - gap);
    const double height = std::max(LEAST, share * chart.area().tall());
    return fmt::format(
        "M{:.1f} {:.1f}v{:.1f}h{:.1f}v{:.1f}Z", from + gap / 2, chart.area().base(),
        -height, width, height);
}

// Marks in a row of their own each where their labels would touch.
void draw_marks(drawing& chart, const log_axis& axis, const distribution& gaps)
{
    const std::vector<std::pair<std::string_view, uint64_t>> marks = {
        {"p50", gaps.p50},
        {"p90", gaps.p90},
        {"p99", gaps.p99},
        {"p99.9", gaps.p999},
        {"max", gaps.max}};
    constexpr double ROW = 15;
    double row = 11;
    for (const auto& [name, value] : marks) {
        const double at = chart.x(axis.at(static_cast<double>(value)));
        const std::string label = fmt::format("{} {}", name, duration_text(value, MICRO));
        const double width = drawing::text_width(label);
        const bool leftward = at + width + 4 > chart.area().width;
        chart.line("mark", at, row + 3, at, chart.area().base());
        chart.text(
            "label", leftward ? "end" : "start", at + (leftward ? -3 : 3), row, label);
        row += ROW;
    }
}

std::string share_tick(double share) { return fmt::format("{:g}%", share * 100); }

std::string gap_chart(const distribution& gaps, const frame& area)
{
    const std::vector<bar> bars = log_bars(gaps, area.narrow() ? 40 : 70, edges::even);
    const log_axis axis = axis_of(bars);
    const auto count = static_cast<double>(gaps.count);
    const scale shares(most_of(bars) / count, 4);
    frame with_labels = area;
    with_labels.height += 58;
    with_labels.top += 58;
    drawing chart(
        with_labels, "gaps", "Gaps between arrivals",
        fmt::format(
            "Half of the gaps are at most {}, 99% at most {}, the longest is {}.",
            duration_text(gaps.p50), duration_text(gaps.p99), duration_text(gaps.max)));
    chart.vertical_axis(shares.ticks(share_tick));
    std::string shapes;
    for (const bar& next : bars) {
        if (next.count == 0)
            continue;
        const bool zeros = next.high == 0;
        const double from = zeros ? 0 : axis.at(next.low);
        const double to = zeros ? axis.start * 2 / 3 : axis.at(next.high);
        shapes +=
            bar_path(chart, chart.x(from), chart.x(to), next.count / count / shares.top);
    }
    chart.path("bars", shapes);
    chart.horizontal_axis(
        log_ticks(axis, bars.front().high == 0), "gap, on a logarithmic axis");
    draw_marks(chart, axis, gaps);
    return chart.finished();
}

std::string size_chart(const distribution& sizes, const frame& area)
{
    const std::vector<bar> bars = linear_bars(sizes, area.narrow() ? 30 : 60);
    const double low = bars.front().low;
    // One bar's width is left free at the end.
    const double range = 2 * bars.back().high - bars.back().low - low;
    const auto count = static_cast<double>(sizes.count);
    const scale shares(most_of(bars) / count, 4);
    drawing chart(
        area, "sizes", "Sizes",
        fmt::format(
            "From {} to {} bytes; half are at most {} bytes.", grouped(sizes.min),
            grouped(sizes.max), grouped(sizes.p50)));
    chart.vertical_axis(shares.ticks(share_tick));
    std::string shapes;
    for (const bar& next : bars) {
        if (next.count > 0)
            shapes += bar_path(
                chart, chart.x((next.low - low) / range),
                chart.x((next.high - low) / range), next.count / count / shares.top);
    }
    chart.path("bars", shapes);
    const double step = std::max(1.0, nice_step(range / (area.narrow() ? 5 : 10)));
    std::vector<tick> ticks;
    for (double at = std::ceil(low / step) * step; at <= low + range; at += step)
        ticks.push_back({(at - low) / range, grouped(whole(at))});
    chart.horizontal_axis(ticks, "bytes");
    return chart.finished();
}

// ------------------------------------------------------------------ the page's parts

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

template <typename Chart>
std::string figure(const Chart& chart)
{
    return "<figure>\n" + chart(WIDE) + chart(NARROW) + "</figure>\n";
}

using cells = std::vector<std::string>;

// Figures side by side, each below its name; in as many lines as it takes.
std::string figures(const cells& names, const cells& values)
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
           figure([&](const frame& area) { return rate_chart(run, area); });
}

const cells& distribution_names()
{
    static const cells NAMES = {"min", "p50", "p90", "p99", "p99.9", "max"};
    return NAMES;
}

std::string gaps_part(const distribution& gaps)
{
    if (gaps.count == 0)
        return none("It takes two arrivals to make a gap.");
    cells values;
    for (const uint64_t value :
         {gaps.min, gaps.p50, gaps.p90, gaps.p99, gaps.p999, gaps.max})
        values.push_back(duration_text(value, MICRO));
    return fmt::format(
               "<p>{}, {} on average</p>\n", counted(gaps.count, "gap"),
               duration_text(whole(gaps.mean), MICRO)) +
           figure([&](const frame& area) { return gap_chart(gaps, area); }) +
           figures(distribution_names(), values);
}

std::string sizes_part(const distribution& sizes)
{
    cells values;
    for (const uint64_t value :
         {sizes.min, sizes.p50, sizes.p90, sizes.p99, sizes.p999, sizes.max})
        values.push_back(grouped(value));
    return fmt::format(
               "<p>Payload bytes, without any header; {} on average</p>\n",
               grouped(whole(sizes.mean))) +
           figure([&](const frame& area) { return size_chart(sizes, area); }) +
           figures(distribution_names(), values);
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
    const cells names(FAULT_NAMES.begin(), FAULT_NAMES.end());
    cells values;
    for (const uint64_t count : run.verified.counts)
        values.push_back(grouped(count));
    return figures(names, values);
}

std::string faults_part(const run_result& run)
{
    const verification& seen = run.verified;
    if (not_compared(run) || seen.fault_count == 0)
        return "";
    const size_t shown = std::min(seen.faults.size(), FAULTS_SHOWN);
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
