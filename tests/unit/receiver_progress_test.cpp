// The progress line: its words, its width, and what reaches the terminal when.
#include <limits>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include "progress.h"

namespace receiver_progress_test {

using namespace receiver;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

constexpr uint64_t TENTH = 100'000'000;
constexpr const char* ERASE = "\r\x1b[K";

// Columns of a text without wide characters: bytes that do not continue another.
size_t width(const std::string& text)
{
    size_t columns = 0;
    for (const char byte : text)
        columns += (static_cast<unsigned char>(byte) & 0xC0u) != 0x80 ? 1 : 0;
    return columns;
}

progress_state halfway()
{
    progress_state state;
    state.messages = 1'234'567;
    state.bytes = 64 << 20;
    state.rate_bps = 199.8e6;
    state.fraction = 0.5;
    state.elapsed_s = 30;
    return state;
}

// A terminal of which the test is the other end.
class terminal {
public:
    explicit terminal(unsigned short columns)
    {
        winsize size{};
        size.ws_row = 24;
        size.ws_col = columns;
        termios raw{};
        ::cfmakeraw(&raw);
        EXPECT_EQ(::openpty(&near_, &far_, nullptr, &raw, &size), 0);
    }
    ~terminal()
    {
        ::close(near_);
        ::close(far_);
    }
    terminal(const terminal&) = delete;
    terminal& operator=(const terminal&) = delete;

    int fd() const { return far_; }

    // What has been written since the last call. A terminal hands text on a moment
    // later, hence a mark of our own to read up to.
    std::string seen() const
    {
        constexpr char MARK = '\4';
        EXPECT_EQ(::write(far_, &MARK, 1), 1);
        std::string text;
        for (char next = 0; ::read(near_, &next, 1) == 1 && next != MARK;)
            text += next;
        return text;
    }

private:
    int near_{-1};
    int far_{-1};
};

TEST(ReceiverProgress, AKnownTotalShowsABarAPercentageAndTheTimeLeft)
{
    EXPECT_EQ(
        progress_text(halfway(), 80),
        "[\u2588\u2588\u2588\u2588\u2588\u2588\u2588\u2588        ]   50%  0:30 left  "
        "199.8 Mbps  1,234,567 messages  64 MiB");
}

TEST(ReceiverProgress, WhatDoesNotFitIsLeftOutFromTheEnd)
{
    EXPECT_THAT(
        progress_text(halfway(), 70), EndsWith("  199.8 Mbps  1,234,567 messages"));
    EXPECT_THAT(progress_text(halfway(), 50), EndsWith("  0:30 left  199.8 Mbps"));
    EXPECT_THAT(progress_text(halfway(), 20), EndsWith("]   50%"));
}

TEST(ReceiverProgress, AnUnknownTotalShowsTheTimeAndTheCounters)
{
    progress_state state = halfway();
    state.fraction.reset();
    EXPECT_EQ(progress_text(state, 80), "0:30  199.8 Mbps  1,234,567 messages  64 MiB");
}

TEST(ReceiverProgress, FaultsAreShownBeforeTheCounters)
{
    progress_state state = halfway();
    state.faults = 1;
    EXPECT_THAT(progress_text(state, 80), HasSubstr("left  1 fault  199.8 Mbps"));
    state.fraction.reset();
    EXPECT_THAT(progress_text(state, 80), StartsWith("0:30  1 fault  199.8 Mbps"));
}

TEST(ReceiverProgress, ALineIsNeverAsWideAsTheTerminal)
{
    progress_state state = halfway();
    state.faults = 123456;
    for (unsigned columns = 0; columns <= 300; ++columns) {
        const size_t room = columns > 0 ? columns - 1 : 0;
        state.fraction = 0.5;
        EXPECT_LE(width(progress_text(state, columns)), room) << columns;
        state.fraction.reset();
        EXPECT_LE(width(progress_text(state, columns)), room) << columns;
    }
}

TEST(ReceiverProgress, TheBarsWidthDoesNotDependOnTheWords)
{
    progress_state state = halfway();
    const size_t end = progress_text(state, 80).find(']');
    state.messages = 1;
    state.rate_bps = 0;
    EXPECT_EQ(progress_text(state, 80).find(']'), end);
}

TEST(ReceiverProgress, OnlyTheWholeIsAHundredPercent)
{
    progress_state state = halfway();
    state.fraction = 0.9999;
    EXPECT_THAT(progress_text(state, 80), HasSubstr("]   99%"));
    state.fraction = 1;
    EXPECT_THAT(progress_text(state, 80), HasSubstr("\u2588]  100%  0:00 left"));
}

TEST(ReceiverProgress, NoTimeLeftIsGuessedFromNothing)
{
    progress_state state = halfway();
    state.fraction = 0;
    EXPECT_THAT(progress_text(state, 80), HasSubstr("]    0%  -:-- left"));
}

TEST(ReceiverProgress, AFractionOutOfBoundsIsDrawnAtItsBound)
{
    progress_state state = halfway();
    state.fraction = 1.5;
    EXPECT_THAT(progress_text(state, 80), HasSubstr("100%"));
    state.fraction = -1;
    EXPECT_THAT(progress_text(state, 80), HasSubstr(" 0%"));
    state.fraction = std::numeric_limits<double>::quiet_NaN();
    EXPECT_THAT(progress_text(state, 80), HasSubstr(" 0%"));
}

TEST(ReceiverProgress, ADrawnLineStartsAtTheLeftAndErasesTheRest)
{
    const terminal screen(80);
    progress_line line(screen.fd(), true);
    line.draw(0, halfway());
    EXPECT_EQ(screen.seen(), "\r" + progress_text(halfway(), 80) + "\x1b[K");
}

TEST(ReceiverProgress, ADrawnLineTakesTheTerminalsWidth)
{
    const terminal screen(40);
    progress_line line(screen.fd(), true);
    line.draw(0, halfway());
    EXPECT_EQ(screen.seen(), "\r" + progress_text(halfway(), 40) + "\x1b[K");
}

TEST(ReceiverProgress, ATerminalWithoutAWidthCountsAs80Columns)
{
    const terminal screen(0);
    progress_line line(screen.fd(), true);
    line.draw(0, halfway());
    EXPECT_EQ(screen.seen(), "\r" + progress_text(halfway(), 80) + "\x1b[K");
}

TEST(ReceiverProgress, LinesFollowEachOtherATenthOfASecondApart)
{
    const terminal screen(80);
    progress_line line(screen.fd(), true);
    line.draw(5, halfway());
    screen.seen();
    line.draw(5 + TENTH - 1, halfway());
    EXPECT_EQ(screen.seen(), "");
    line.draw(5 + TENTH, halfway());
    EXPECT_NE(screen.seen(), "");
}

TEST(ReceiverProgress, DueTellsWhetherALineWouldBeDrawn)
{
    const terminal screen(80);
    progress_line line(screen.fd(), true);
    EXPECT_TRUE(line.due(7));
    line.draw(7, halfway());
    EXPECT_FALSE(line.due(7 + TENTH - 1));
    EXPECT_TRUE(line.due(7 + TENTH));
}

TEST(ReceiverProgress, FinishingErasesTheLineOnce)
{
    const terminal screen(80);
    progress_line line(screen.fd(), true);
    line.draw(0, halfway());
    screen.seen();
    line.finish();
    EXPECT_EQ(screen.seen(), ERASE);
    line.finish();
    EXPECT_EQ(screen.seen(), "");
}

TEST(ReceiverProgress, FinishingWithoutALineWritesNothing)
{
    const terminal screen(80);
    progress_line line(screen.fd(), true);
    line.finish();
    EXPECT_EQ(screen.seen(), "");
}

TEST(ReceiverProgress, ADisabledLineWritesNothing)
{
    const terminal screen(80);
    progress_line line(screen.fd(), false);
    EXPECT_FALSE(line.due(0));
    line.draw(0, halfway());
    line.finish();
    EXPECT_EQ(screen.seen(), "");
}

} // namespace receiver_progress_test
