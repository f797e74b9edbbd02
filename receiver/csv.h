// The rate over time as a table, one line per slice of a run.
#pragma once

#include <string>

#include "result.h"

namespace receiver {

// Header "time_s,messages,bytes,mbps". The time is the slice's start since the
// first arrival; the rate is over a whole slice, also for the last one.
std::string intervals_csv(const measurement& measured);

} // namespace receiver
