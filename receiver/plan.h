// The dry run: what the sender would send, without a socket.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "options.h"
#include "result.h"

namespace receiver {

// Reads the whole source, all passes of it; of an endless replay, one. `step` is
// called now and then with the count so far and the fraction done, if known, and
// ends the plan by returning false. Throws file_error.
struct plan_progress {
    uint64_t messages{0};
    uint64_t bytes{0};
    std::optional<double> fraction;
};
plan_result make_plan(
    const options& options, const std::function<bool(const plan_progress&)>& step);

} // namespace receiver
