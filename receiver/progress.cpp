// Composing the line from parts, the last left out where they do not fit.
#include "progress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "format.h"

namespace receiver {

namespace {

constexpr uint64_t INTERVAL_NS = 100'000'000;
constexpr unsigned FALLBACK_COLUMNS = 80;
constexpr size_t LEAST_BAR = 8;
constexpr size_t MOST_BAR = 32;
constexpr std::string_view GAP = "  ";

// The parts that fit, in order, each behind a gap.
std::string joined(const std::vector<std::string>& parts, size_t columns)
{
    std::string text;
    for (const std::string& part : parts) {
        const size_t gap = text.empty() ? 0 : GAP.size();
        if (columns_of(text) + gap + part.size() > columns)
            break;
        text.append(GAP.substr(0, gap)).append(part);
    }
    return text;
}

std::string bar_text(double fraction, size_t columns)
{
    static constexpr std::array<std::string_view, 8> PARTS = {" ", "▏", "▎", "▍",
                                                              "▌", "▋", "▊", "▉"};
    const auto eighths = static_cast<size_t>(fraction * static_cast<double>(columns * 8));
    std::string text;
    for (size_t i = 0; i < columns; ++i)
        text += i < eighths / 8 ? "█" : i == eighths / 8 ? PARTS[eighths % 8] : " ";
    return "[" + text + "]";
}

std::string time_left(const progress_state& state, double fraction)
{
    if (fraction <= 0)
        return "-:-- left";
    return clock_text(state.elapsed_s * (1 - fraction) / fraction) + " left";
}

std::vector<std::string> counters(const progress_state& state)
{
    std::vector<std::string> parts;
    if (state.faults > 0)
        parts.push_back(counted(state.faults, "fault"));
    parts.push_back(rate_text(state.rate_bps));
    parts.push_back(counted(state.messages, "message"));
    parts.push_back(bytes_text(state.bytes));
    return parts;
}

} // namespace

std::string progress_text(const progress_state& state, unsigned columns)
{
    const size_t room = columns > 0 ? columns - 1 : 0;
    std::vector<std::string> parts = counters(state);
    if (!state.fraction) {
        parts.insert(parts.begin(), clock_text(state.elapsed_s));
        return joined(parts, room);
    }
    const double fraction =
        std::isfinite(*state.fraction) ? std::clamp(*state.fraction, 0.0, 1.0) : 0.0;
    // Rounded down: 100 % is for the whole.
    parts.insert(
        parts.begin(), {fmt::format("{:3.0f}%", std::floor(fraction * 100)),
                        time_left(state, fraction)});
    // A bar whose width hung on the words would twitch with every figure.
    constexpr size_t FRAME = 2;
    const size_t bar = std::clamp<size_t>(columns / 5, LEAST_BAR, MOST_BAR);
    const size_t used = FRAME + bar + GAP.size();
    if (room < used + parts.front().size())
        return joined(parts, room);
    return fmt::format(
        "{}{}{}", bar_text(fraction, bar), GAP, joined(parts, room - used));
}

progress_line::progress_line(int fd, bool enabled) : fd_(fd), enabled_(enabled) {}

bool progress_line::due(uint64_t now_ns) const
{
    return enabled_ && (!last_ns_ || now_ns - *last_ns_ >= INTERVAL_NS);
}

void progress_line::draw(uint64_t now_ns, const progress_state& state)
{
    if (!due(now_ns))
        return;
    last_ns_ = now_ns;
    drawn_ = true;
    write(fmt::format("\r{}\x1b[K", progress_text(state, columns())));
}

void progress_line::finish()
{
    if (drawn_)
        write("\r\x1b[K");
    drawn_ = false;
}

unsigned progress_line::columns() const
{
    winsize size{};
    // A pipe or a file has no size; some terminals report 0.
    const bool known = ::ioctl(fd_, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return known ? size.ws_col : FALLBACK_COLUMNS;
}

void progress_line::write(const std::string& text) const
{
    // What receives must not wait for who watches. A line that is lost is drawn again
    // a tenth of a second later.
    pollfd room{fd_, POLLOUT, 0};
    if (::poll(&room, 1, 0) != 1 || (room.revents & POLLOUT) == 0)
        return;
    [[maybe_unused]] const ssize_t ignored = ::write(fd_, text.data(), text.size());
}

} // namespace receiver
