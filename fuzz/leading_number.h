// The number that a text starts with, as the sender's command line defines it.
#pragma once

#include <cctype>
#include <cstdint>
#include <limits>
#include <string>

namespace fuzz {

// Blanks, a sign and decimal digits, held to 64 bits and cut to 32. 0 when there are
// no digits.
inline int32_t leading_number(const std::string& text)
{
    const auto at = [&](size_t i) {
        return static_cast<unsigned char>(i < text.size() ? text[i] : '\0');
    };
    size_t i = 0;
    while (std::isspace(at(i)) != 0)
        ++i;
    const bool negative = at(i) == '-';
    if (at(i) == '-' || at(i) == '+')
        ++i;
    constexpr int64_t LOWEST = std::numeric_limits<int64_t>::min();
    int64_t below_zero = 0; // which reaches one further than above it
    for (; std::isdigit(at(i)) != 0; ++i) {
        const int64_t digit = at(i) - '0';
        const bool fits = below_zero >= (LOWEST + digit) / 10;
        below_zero = fits ? below_zero * 10 - digit : LOWEST;
    }
    if (negative)
        return static_cast<int32_t>(below_zero);
    return static_cast<int32_t>(below_zero == LOWEST ? -(LOWEST + 1) : -below_zero);
}

} // namespace fuzz
