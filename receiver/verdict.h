// From what was found to the exit status.
#pragma once

#include "result.h"

namespace receiver {

// What the result alone does not tell.
struct circumstances {
    bool more_was_expected{false}; // unless all of it has arrived
    bool total_arrived{false};     // or the user's own limit was reached
    bool file_failed{false};       // one that should be read or written
};

exit_status judge(const run_result& run, const circumstances& known);

} // namespace receiver
