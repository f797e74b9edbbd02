// One run: receives until it is over and says what was found.
#pragma once

#include <functional>

#include "options.h"
#include "progress.h"
#include "result.h"
#include "source.h"

namespace receiver {

// A result that knows nothing yet but what was asked for.
run_result blank_result(const options& options);

// `source` may be null. `stopped` tells that the user wants the run to end; it is
// asked at least ten times a second. Throws connection_error and file_error before
// anything is received; later errors become part of the result.
run_result receive_replay(
    const options& options, message_source* source, const std::function<bool()>& stopped,
    progress_line& progress);

} // namespace receiver
