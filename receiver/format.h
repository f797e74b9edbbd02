// Values as people read them: numbers, sizes, rates, times and the words for a
// run's end, shared by all that shows a result. No clock, no locale, no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "result.h"

namespace receiver {

// 1234567 as "1,234,567".
std::string grouped(uint64_t number);

// "1 message", "2,000 messages"; `many` where it is not `one` with an s.
std::string counted(uint64_t number, std::string_view one, std::string_view many = "");

// To so many significant digits, without trailing zeros and without an exponent.
std::string number_text(double number, int digits);

// "512 bytes", "64 MiB", "1.5 GiB".
std::string bytes_text(uint64_t bytes);

// "199.8 Mbps"; units are decimal, as in --mbps.
std::string rate_text(double bits_per_second);

// "850 ns", "10.2 us", "45.6 s", "2 min 05 s", "3 h 07 min". `micro` is the sign for
// microseconds: terminals get plain ASCII, pages the Greek letter.
std::string duration_text(uint64_t nanoseconds, std::string_view micro = "us");

// "0:42", "12:05", "1:02:03".
std::string clock_text(double seconds);

// Signed: "+0.12%". Never "-0%".
std::string signed_percent(double percent);

// A part of a whole: "42.1%"; a part too small for the digits reads "<0.1%".
std::string share_text(double part, double all);

// "2026-11-20 17:48:47.123456 UTC".
std::string stamp_text(uint64_t nanoseconds_since_epoch);

// "de ad be ef" with a space between.
std::string hex_text(std::span<const uint8_t> bytes, std::string_view between = " ");

// Valid UTF-8 without control characters, safe for terminal and page: every other
// byte becomes "\x1b" and the like.
std::string printable(std::string_view text);

// The sign for microseconds in a page, as duration_text() takes it.
inline constexpr std::string_view MICRO = "\u00b5s";

// printable() text that is safe within the page's and its drawings' tags and quotes.
std::string html_text(std::string_view text);

// How many terminal columns a printable text takes.
size_t columns_of(std::string_view text);

// The bytes of a text's first characters that fit these columns; at least one
// character, so that cutting a text piece by piece comes to an end.
size_t bytes_within(std::string_view text, size_t columns);

// One word each, as in the JSON document.
const char* name_of(exit_status status);
const char* name_of(end_reason reason);

// What an exit status means, for readers who do not know the table.
const char* meaning_of(exit_status status);

// Rounded, and kept within what the type holds.
uint64_t whole(double number);

// The least of 1, 2, 5, 10, 20, ... (and 0.5, 0.2, ...) that is not below `least`.
double nice_step(double least);

// A bar of a drawn histogram: values from `low` to below `high`. The bins of a
// result that reach over an edge are shared out, so that a count has a fraction.
struct bar {
    double low{0};
    double high{0};
    double count{0};
};

// Edges of bars: round numbers to read, or equal widths on a logarithmic axis.
enum class edges { round, even };

// At most `most` bars with logarithmic widths. Zeros, which have no place on such an
// axis, are the first bar, from 0 to 0.
std::vector<bar> log_bars(const distribution& values, size_t most, edges kind);

// At most `most` bars of equal widths with round edges.
std::vector<bar> linear_bars(const distribution& values, size_t most);

} // namespace receiver
