// The page's charts as SVG, from a run's measurement alone. Each is a pair of drawings
// that stand one behind the other, for wide and for narrow windows.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "result.h"

namespace receiver {

// The sign for microseconds in a page, as duration_text() takes it.
inline constexpr std::string_view MICRO = "\u00b5s";

// printable() text that is safe within the page's and its drawings' tags and quotes.
std::string html_text(std::string_view text);

// Of a run that lasted: the rate over time, and the wanted one as a dashed line.
std::string rate_chart(const measurement& measured, std::optional<double> wanted_bps);

// Histograms of at least one value.
std::string gap_chart(const distribution& gaps);
std::string size_chart(const distribution& sizes);

} // namespace receiver
