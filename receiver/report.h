// A run as one self-contained page: no script, no reference to anything outside.
#pragma once

#include <string>

#include "result.h"

namespace receiver {

std::string report_page(const run_result& run);

} // namespace receiver
