// Each chart is drawn twice, for wide and for narrow windows, so that its letters keep
// their size. The page's style sheet gives the parts of a drawing their colours.
#include "charts.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "format.h"

namespace receiver {

namespace {

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
    double step;
    double top;

    scale(double greatest, int steps)
        : step(nice_step(std::max(greatest, 1e-9) / steps)),
          top(std::ceil(greatest / step * (1 - 1e-9)) * step)
    {}

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

std::string rate_drawing(
    const measurement& measured, std::optional<double> wanted_bps, const frame& area)
{
    const std::vector<stretch> parts = stretches(measured, area.narrow() ? 60 : 120);
    double greatest = wanted_bps.value_or(0);
    for (const stretch& part : parts)
        greatest = std::max(greatest, part.rate);
    const scale rates(greatest, 5);
    const unit in = rate_unit(rates.top);
    drawing chart(
        area, "rate", "Rate over time",
        fmt::format(
            "{} over {}.{}", rate_text(measured.rate_bps),
            duration_text(measured.duration_ns),
            wanted_bps ? " Wanted: " + rate_text(*wanted_bps) + "." : ""));
    chart.vertical_axis(
        rates.ticks([&](double value) { return number_text(value / in.factor, 3); }),
        in.name);
    draw_rates(chart, parts, rates.top);
    const time_axis times = time_axis_of(measured.duration_ns, area.narrow() ? 5 : 10);
    chart.horizontal_axis(times.ticks, times.title);
    if (wanted_bps)
        draw_wanted(chart, parts, *wanted_bps, rates.top);
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

// The multiples of `step` from `low` to `high`.
std::vector<double> multiples(double step, double low, double high)
{
    const double first = std::ceil(low / step);
    std::vector<double> values;
    for (int i = 0; (first + i) * step <= high; ++i)
        values.push_back((first + i) * step);
    return values;
}

// Powers of ten where there are enough of them, 1-2-5 or equal steps where not.
std::vector<double> log_values(const log_axis& axis)
{
    const double decades = std::log10(axis.high / axis.low);
    if (decades < 0.9)
        return multiples(
            std::max(1.0, nice_step((axis.high - axis.low) / 6)), axis.low, axis.high);
    std::vector<double> values;
    const auto last = static_cast<int>(std::floor(std::log10(axis.high)));
    for (auto exponent = static_cast<int>(std::floor(std::log10(axis.low)));
         exponent <= last; ++exponent) {
        const double power = std::pow(10, exponent);
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

std::string gap_drawing(const distribution& gaps, const frame& area)
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

std::string size_drawing(const distribution& sizes, const frame& area)
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
    for (const double at : multiples(step, low, low + range))
        ticks.push_back({(at - low) / range, grouped(whole(at))});
    chart.horizontal_axis(ticks, "bytes");
    return chart.finished();
}

} // namespace

std::string rate_chart(const measurement& measured, std::optional<double> wanted_bps)
{
    return rate_drawing(measured, wanted_bps, WIDE) +
           rate_drawing(measured, wanted_bps, NARROW);
}

std::string gap_chart(const distribution& gaps)
{
    return gap_drawing(gaps, WIDE) + gap_drawing(gaps, NARROW);
}

std::string size_chart(const distribution& sizes)
{
    return size_drawing(sizes, WIDE) + size_drawing(sizes, NARROW);
}

} // namespace receiver
