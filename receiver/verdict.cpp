// See verdict.h.
#include "verdict.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <optional>

namespace receiver {

namespace {

uint64_t all_faults(const verification& verified)
{
    uint64_t sum = 0;
    for (const uint64_t count : verified.counts)
        sum += count;
    return sum;
}

// Messages are missing, and this receiver itself may have dropped every one.
bool is_undecided(const run_result& run)
{
    const uint64_t lost = run.verified.count(fault_kind::lost);
    return lost != 0 && lost == all_faults(run.verified) && lost <= run.own_drops;
}

bool is_early(const run_result& run, const circumstances& known)
{
    if (known.total_arrived)
        return false;
    return known.more_was_expected || run.measured.messages == 0;
}

bool is_off_rate(const run_result& run)
{
    return run.rate_error_percent &&
           std::fabs(*run.rate_error_percent) > run.tolerance_percent;
}

} // namespace

exit_status judge(const run_result& run, const circumstances& known)
{
    const bool undecided = is_undecided(run);
    if (all_faults(run.verified) != 0 && !undecided)
        return exit_status::content;
    if (known.file_failed)
        return exit_status::file;
    if (undecided)
        return exit_status::undecided;
    if (is_early(run, known))
        return exit_status::early;
    if (is_off_rate(run))
        return exit_status::rate;
    return exit_status::as_expected;
}

} // namespace receiver
