// What a run or a plan found out, as text for a terminal: laid out for its width, and
// in colours where it has them.
#pragma once

#include <string>

#include "result.h"

namespace receiver {

// The text for a terminal of that many columns (40 at least), with a final newline.
std::string summary_text(const run_result& run, unsigned columns, bool colour);
std::string plan_text(const plan_result& plan, unsigned columns, bool colour);

} // namespace receiver
