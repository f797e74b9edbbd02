// The page's charts as SVG, from a run's measurement alone. Each is a pair of drawings
// that stand one behind the other, for wide and for narrow windows.
#pragma once

#include <optional>
#include <string>

#include "result.h"

namespace receiver {

// Of a run that lasted: the rate over time, and the wanted one as a dashed line.
std::string rate_chart(const measurement& measured, std::optional<double> wanted_bps);

// Histograms of at least one value.
std::string gap_chart(const distribution& gaps);
std::string size_chart(const distribution& sizes);

} // namespace receiver
