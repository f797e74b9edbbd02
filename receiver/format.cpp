// Formatting with fmt only: the same text on every machine and in every locale.
#include "format.h"

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <cmath>
#include <ctime>
#include <initializer_list>
#include <utility>

#include <fmt/chrono.h>
#include <fmt/format.h>

namespace receiver {

namespace {

constexpr int DIGITS = 3; // of measured times and sizes
constexpr int RATE_DIGITS = 4;

int decimals_for(double number, int digits)
{
    if (!std::isfinite(number))
        return 0;
    const int before_point =
        number < 1 ? 1 : static_cast<int>(std::floor(std::log10(number))) + 1;
    return std::max(0, digits - before_point);
}

// In the first unit in which the rounded value stays below the next one.
std::string scaled(
    double value, double step, std::span<const std::string_view> units, int digits)
{
    size_t unit = 0;
    const auto rounded = [&](double number) {
        const double scale = std::pow(10.0, decimals_for(number, digits));
        return std::round(number * scale) / scale;
    };
    while (unit + 1 < units.size() && rounded(value) >= step) {
        value /= step;
        ++unit;
    }
    return fmt::format("{} {}", number_text(value, digits), units[unit]);
}

std::string long_duration(uint64_t seconds)
{
    constexpr uint64_t MINUTE = 60;
    constexpr uint64_t HOUR = 60 * MINUTE;
    constexpr uint64_t DAY = 24 * HOUR;
    if (seconds < HOUR)
        return fmt::format("{} min {:02} s", seconds / MINUTE, seconds % MINUTE);
    if (seconds < DAY)
        return fmt::format("{} h {:02} min", seconds / HOUR, seconds % HOUR / MINUTE);
    return fmt::format("{} d {:02} h", grouped(seconds / DAY), seconds % DAY / HOUR);
}

struct character {
    char32_t code{0};
    size_t length{0}; // in bytes; 0: not valid UTF-8
};

// Decodes the first character. Overlong forms, surrogates and codes past the last
// plane are not valid.
character first_character(std::string_view text)
{
    static constexpr std::array<char32_t, 5> LEAST = {0, 0, 0x80, 0x800, 0x10000};
    const auto lead = static_cast<uint8_t>(text.front());
    const auto length = static_cast<size_t>(lead < 0x80 ? 1 : std::countl_one(lead));
    if (length == 1)
        return lead < 0x80 ? character{lead, 1} : character{};
    if (length > 4 || length > text.size())
        return {};
    char32_t code = lead & (0x7Fu >> length);
    for (const char next : text.substr(1, length - 1)) {
        if ((static_cast<uint8_t>(next) & 0xC0u) != 0x80)
            return {};
        code = code << 6 | (static_cast<uint8_t>(next) & 0x3Fu);
    }
    const bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < LEAST[length] || code > 0x10FFFF || surrogate)
        return {};
    return {code, length};
}

// Controls, and the marks that turn the direction of the text around them.
bool is_control(char32_t code)
{
    return code < 0x20 || (code >= 0x7F && code < 0xA0) ||
           (code >= 0x200B && code <= 0x200F) || (code >= 0x2028 && code <= 0x202E) ||
           (code >= 0x2066 && code <= 0x2069);
}

// East Asian characters and pictures fill two columns. A combining mark counts as
// one: a text may come out narrower than thought, never wider.
bool is_wide(char32_t code)
{
    static constexpr std::array<std::pair<char32_t, char32_t>, 8> RANGES = {
        {{0x1100, 0x115F},
         {0x2E80, 0xA4CF},
         {0xAC00, 0xD7A3},
         {0xF900, 0xFAFF},
         {0xFE30, 0xFE6F},
         {0xFF00, 0xFF60},
         {0x1F300, 0x1FAFF},
         {0x20000, 0x3FFFD}}};
    return std::any_of(RANGES.begin(), RANGES.end(), [&](const auto& range) {
        return code >= range.first && code <= range.second;
    });
}

// The character's bytes (one where they are not valid) and its columns.
std::pair<size_t, size_t> extent(std::string_view text)
{
    const character next = first_character(text);
    return {std::max<size_t>(1, next.length), is_wide(next.code) ? 2 : 1};
}

} // namespace

std::string grouped(uint64_t number)
{
    std::string text = fmt::format("{}", number);
    for (size_t at = text.size(); at > 3;) {
        at -= 3;
        text.insert(at, 1, ',');
    }
    return text;
}

std::string counted(uint64_t number, std::string_view one, std::string_view many)
{
    if (number == 1 || many.empty())
        return fmt::format("{} {}{}", grouped(number), one, number == 1 ? "" : "s");
    return fmt::format("{} {}", grouped(number), many);
}

std::string number_text(double number, int digits)
{
    std::string text =
        fmt::format("{:.{}f}", number, decimals_for(std::abs(number), digits));
    if (text.find('.') != std::string::npos) {
        text.erase(text.find_last_not_of('0') + 1);
        if (text.back() == '.')
            text.pop_back();
    }
    return text;
}

std::string bytes_text(uint64_t bytes)
{
    static constexpr std::array<std::string_view, 7> UNITS = {
        "bytes", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    return bytes == 1 ? "1 byte"
                      : scaled(static_cast<double>(bytes), 1024, UNITS, DIGITS);
}

std::string rate_text(double bits_per_second)
{
    static constexpr std::array<std::string_view, 5> UNITS = {
        "bps", "kbps", "Mbps", "Gbps", "Tbps"};
    return scaled(bits_per_second, 1000, UNITS, RATE_DIGITS);
}

std::string duration_text(uint64_t nanoseconds, std::string_view micro)
{
    constexpr double SECOND = 1e9;
    // From here on three digits of seconds would read as a minute.
    constexpr double LONGEST_IN_SECONDS = 59.95 * SECOND;
    const auto value = static_cast<double>(nanoseconds);
    if (value >= LONGEST_IN_SECONDS)
        return long_duration(
            nanoseconds / 1'000'000'000 +
            (nanoseconds % 1'000'000'000 >= 500'000'000 ? 1 : 0));
    const std::array<std::string_view, 4> units = {"ns", micro, "ms", "s"};
    return scaled(value, 1000, units, DIGITS);
}

std::string clock_text(double seconds)
{
    // Past a few centuries the clock stands still.
    const uint64_t full = whole(std::floor(std::min(seconds, 1e10)));
    if (full < 3600)
        return fmt::format("{}:{:02}", full / 60, full % 60);
    return fmt::format("{}:{:02}:{:02}", full / 3600, full / 60 % 60, full % 60);
}

std::string signed_percent(double percent)
{
    const std::string text = number_text(std::abs(percent), DIGITS);
    if (text == "0")
        return "0%";
    return fmt::format("{}{}%", percent < 0 ? "-" : "+", text);
}

std::string share_text(double part, double all)
{
    const double percent = all > 0 ? part / all * 100 : 0;
    if (percent > 0 && percent < 0.05)
        return "<0.1%";
    return fmt::format("{:.1f}%", percent);
}

std::string stamp_text(uint64_t nanoseconds_since_epoch)
{
    using namespace std::chrono;
    const auto seconds =
        static_cast<std::time_t>(nanoseconds_since_epoch / 1'000'000'000);
    return fmt::format(
        "{:%Y-%m-%d %H:%M:%S}.{:06} UTC", fmt::gmtime(seconds),
        nanoseconds_since_epoch % 1'000'000'000 / 1000);
}

std::string hex_text(std::span<const uint8_t> bytes, std::string_view between)
{
    return fmt::format("{:02x}", fmt::join(bytes, between));
}

std::string printable(std::string_view text)
{
    std::string safe;
    while (!text.empty()) {
        const character next = first_character(text);
        const size_t length = std::max<size_t>(1, next.length);
        if (next.length == 0 || is_control(next.code)) {
            for (const char byte : text.substr(0, length))
                safe += fmt::format("\\x{:02x}", static_cast<uint8_t>(byte));
        } else {
            safe += text.substr(0, length);
        }
        text.remove_prefix(length);
    }
    return safe;
}

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

size_t columns_of(std::string_view text)
{
    size_t columns = 0;
    while (!text.empty()) {
        const auto [length, width] = extent(text);
        columns += width;
        text.remove_prefix(length);
    }
    return columns;
}

size_t bytes_within(std::string_view text, size_t columns)
{
    size_t bytes = 0;
    size_t used = 0;
    while (bytes < text.size()) {
        const auto [length, width] = extent(text.substr(bytes));
        if (bytes > 0 && used + width > columns)
            break;
        bytes += length;
        used += width;
    }
    return bytes;
}

const char* name_of(exit_status status)
{
    static constexpr std::array<const char*, 8> NAMES = {
        "as_expected", "content",   "usage", "connection",
        "rate",        "undecided", "file",  "early"};
    return NAMES[static_cast<size_t>(status)];
}

const char* name_of(end_reason reason)
{
    static constexpr std::array<const char*, 8> NAMES = {"complete", "idle",  "duration",
                                                         "messages", "bytes", "closed",
                                                         "signal",   "failed"};
    return NAMES[static_cast<size_t>(reason)];
}

const char* meaning_of(exit_status status)
{
    static constexpr std::array<const char*, 8> MEANINGS = {
        "as expected",
        "content differs, is lost, duplicated or out of order",
        "wrong use of options",
        "cannot connect, bind or join",
        "rate outside the tolerance",
        "undecided: this receiver itself dropped messages",
        "a file cannot be read or written",
        "ended before the expected total"};
    return MEANINGS[static_cast<size_t>(status)];
}

uint64_t whole(double number)
{
    constexpr double PAST_ALL = 18446744073709551616.0; // 2^64
    if (!(number > 0))
        return 0;
    return number >= PAST_ALL ? UINT64_MAX : static_cast<uint64_t>(std::round(number));
}

double nice_step(double least)
{
    const double decade = std::pow(10.0, std::floor(std::log10(least)));
    for (const double factor : {1.0, 2.0, 5.0}) {
        // What is a step but for a rounding error keeps that step.
        if (decade * factor >= least * (1 - 1e-9))
            return decade * factor;
    }
    return decade * 10;
}

namespace {

// Adds each bin to the bars that it covers, in proportion. A bin counts from the
// least to the greatest value seen only: it may be wider than what fell into it.
void share_out(const distribution& values, std::vector<bar>& bars)
{
    size_t at = 0;
    for (const bin& source : values.bins) {
        if (source.count == 0 || source.high <= 1)
            continue;
        const auto low = static_cast<double>(std::max(source.low, values.min));
        const double end = static_cast<double>(values.max) + 1;
        const double high =
            std::max(low + 1, std::min(static_cast<double>(source.high), end));
        while (at + 1 < bars.size() && bars[at].high <= low)
            ++at;
        for (size_t i = at; i < bars.size() && (i == at || bars[i].low < high); ++i) {
            const double from = i == at ? low : bars[i].low;
            const double to = i + 1 == bars.size() ? high : std::min(high, bars[i].high);
            bars[i].count +=
                static_cast<double>(source.count) * (to - from) / (high - low);
        }
    }
}

std::vector<bar> between(const std::vector<double>& all)
{
    std::vector<bar> bars;
    for (size_t i = 0; i + 1 < all.size(); ++i)
        bars.push_back({all[i], all[i + 1], 0});
    return bars;
}

// A decade in three parts has the customary 1, 2, 5; other numbers of parts are
// rounded to as few digits as keep them apart.
double round_edge(int index, double per_decade)
{
    if (per_decade == 3) {
        static constexpr std::array<double, 3> CUSTOMARY = {1, 2, 5};
        return CUSTOMARY[static_cast<size_t>(index % 3)] * std::pow(10.0, index / 3);
    }
    const double edge = std::pow(10.0, index / per_decade);
    const double digits = per_decade > 24 ? 2 : 1;
    const double unit = std::pow(10.0, std::floor(std::log10(edge) + 1e-9) - digits);
    return std::max(1.0, std::round(std::round(edge / unit) * unit));
}

double log_edge(int index, double per_decade, edges kind)
{
    return kind == edges::round ? round_edge(index, per_decade)
                                : std::pow(10.0, index / per_decade);
}

// The edges around all values, so many to a decade.
std::vector<double> log_edges(
    double least, double greatest, double per_decade, edges kind)
{
    int index = static_cast<int>(std::floor(std::log10(least) * per_decade));
    // Rounded edges may lie on either side of the exact ones.
    while (index > 0 && log_edge(index, per_decade, kind) > least)
        --index;
    while (log_edge(index + 1, per_decade, kind) <= least)
        ++index;
    std::vector<double> all = {log_edge(index, per_decade, kind)};
    while (all.back() <= greatest) {
        const double next = log_edge(++index, per_decade, kind);
        if (next > all.back())
            all.push_back(next);
    }
    return all;
}

uint64_t zeros_of(const distribution& values)
{
    const bool has_zeros = !values.bins.empty() && values.bins.front().high <= 1;
    return has_zeros ? values.bins.front().count : 0;
}

// The least value that has a place on a logarithmic axis.
double least_of(const distribution& values)
{
    uint64_t least = values.min;
    for (const bin& next : values.bins) {
        if (next.count > 0 && next.high > 1) {
            least = std::max(next.low, values.min);
            break;
        }
    }
    return static_cast<double>(std::max<uint64_t>(1, least));
}

} // namespace

std::vector<bar> log_bars(const distribution& values, size_t most, edges kind)
{
    std::vector<bar> bars;
    const uint64_t zeros = zeros_of(values);
    if (zeros < values.count) {
        const double least = least_of(values);
        const auto greatest = std::max(least, static_cast<double>(values.max));
        for (const double per_decade : {48.0, 24.0, 12.0, 6.0, 3.0, 1.0, 0.5}) {
            bars = between(log_edges(least, greatest, per_decade, kind));
            if (bars.size() + (zeros > 0 ? 1 : 0) <= most)
                break;
        }
        share_out(values, bars);
    }
    if (zeros > 0)
        bars.insert(bars.begin(), bar{0, 0, static_cast<double>(zeros)});
    return bars;
}

std::vector<bar> linear_bars(const distribution& values, size_t most)
{
    if (values.count == 0)
        return {};
    const auto least = static_cast<double>(values.min);
    const auto greatest = static_cast<double>(values.max);
    // Values that lie close together fill the axis, unless there are too few to show
    // a shape; others show how far they are from 0.
    constexpr double LEAST_RANGE = 16;
    const bool close =
        greatest - least >= LEAST_RANGE && (greatest - least) * 2 < greatest;
    const double range = close ? greatest - least + 1 : greatest + 1;
    const double step = std::max(1.0, nice_step(range / static_cast<double>(most - 1)));
    std::vector<double> all = {close ? std::floor(least / step) * step : 0};
    while (all.back() <= greatest)
        all.push_back(all.back() + step);
    std::vector<bar> bars = between(all);
    share_out(values, bars);
    bars.front().count += static_cast<double>(zeros_of(values));
    return bars;
}

} // namespace receiver
