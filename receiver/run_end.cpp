// See run_end.h.
#include "run_end.h"

#include <algorithm>

namespace receiver {

run_end::run_end(const end_limits& limits, uint64_t start_ns)
    : limits_(limits), start_ns_(start_ns)
{}

void run_end::set_complete(uint64_t now_ns, bool complete)
{
    if (!complete)
        complete_ns_.reset();
    else if (!complete_ns_)
        complete_ns_ = now_ns;
}

void run_end::set_exhausted(uint64_t now_ns, bool exhausted)
{
    if (!exhausted)
        exhausted_ns_.reset();
    else if (!exhausted_ns_)
        exhausted_ns_ = now_ns;
}

std::optional<end_reason> run_end::limit(uint64_t messages, uint64_t bytes) const
{
    if (limits_.messages && messages >= *limits_.messages)
        return end_reason::messages;
    if (limits_.bytes && bytes >= *limits_.bytes)
        return end_reason::bytes;
    return std::nullopt;
}

uint64_t run_end::bytes_left(uint64_t bytes) const
{
    return limits_.bytes ? *limits_.bytes - std::min(bytes, *limits_.bytes) : UINT64_MAX;
}

std::optional<end_reason> run_end::check(uint64_t now_ns) const
{
    if (complete_ns_ && now_ns >= *complete_ns_ + limits_.settle_ns)
        return end_reason::complete;
    if (last_arrival_ns_ && now_ns >= silence_ns() + limits_.idle_ns)
        return complete_ns_ ? end_reason::complete : end_reason::idle;
    if (limits_.duration_ns && now_ns >= start_ns_ + *limits_.duration_ns)
        return complete_ns_ ? end_reason::complete : end_reason::duration;
    return std::nullopt;
}

// Since when nothing that matters has arrived. Only behind the first arrival.
uint64_t run_end::silence_ns() const
{
    return std::min(*last_arrival_ns_, exhausted_ns_.value_or(UINT64_MAX));
}

uint64_t run_end::next_check_ns() const
{
    uint64_t next = UINT64_MAX;
    if (complete_ns_)
        next = std::min(next, *complete_ns_ + limits_.settle_ns);
    if (last_arrival_ns_)
        next = std::min(next, silence_ns() + limits_.idle_ns);
    if (limits_.duration_ns)
        next = std::min(next, start_ns_ + *limits_.duration_ns);
    return next;
}

} // namespace receiver
