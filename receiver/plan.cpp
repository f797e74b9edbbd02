// See plan.h.
#include "plan.h"

#include <memory>
#include <string>
#include <vector>

#include "digest.h"
#include "histogram.h"
#include "source.h"

namespace receiver {

namespace {

constexpr uint64_t STEP_MESSAGES = 256;

} // namespace

plan_result make_plan(
    const options& options, const std::function<bool(const plan_progress&)>& step)
{
    plan_result plan;
    plan.command = options.command;
    plan.source = options.source.path;
    plan.passes = options.source.passes;
    source_options source_options = options.source;
    if (source_options.passes == 0)
        source_options.passes = 1;

    const std::unique_ptr<message_source> source = open_source(source_options);
    sha256 digest;
    value_histogram sizes;
    bytes_view message;
    while (source->next(message)) {
        digest.add(message);
        sizes.count(message.size());
        ++plan.messages;
        plan.bytes += message.size();
        if (plan.messages % STEP_MESSAGES == 0 &&
            !step({plan.messages, plan.bytes, source->fraction()}))
            break;
    }
    plan.sizes = sizes.result();
    plan.sha256 = digest.hex();
    if (options.wanted_bps != 0) {
        plan.wanted_bps = static_cast<double>(options.wanted_bps);
        plan.seconds = static_cast<double>(plan.bytes) * 8 / *plan.wanted_bps;
    }
    const source_notes notes = source->notes();
    plan.files = notes.files;
    plan.omitted = notes.omitted;
    plan.noted = notes.noted;
    plan.notes = notes.sentences;
    plan.source_error = source->error();
    return plan;
}

} // namespace receiver
