"""Targets: their limits, their verdicts, and what bounds the missed ones."""
import fnmatch
import sys
from typing import NamedTuple

from .words import figure, plural, range_text

# The limits.
POLLER_RATIO = 1.08
USER_SHARE_NS = 150
PRODUCER_RATIO = 1.5
RATE_ERROR_PERCENT = 0.01
PACING_P50_US = 1
PACING_P99_US = 20
STREAMING_MB = 15
PRELOADED_KB = 10.3
ABOUT = 1.05  # "about" and "flat" allow this much more

# What bounds a missed target: words only, by the target's key with the wildcards * and ?;
# the first that fits and says something counts. Missed targets that find no reason are
# named on standard error by their keys. In braces: {measured}, {low}, {high}, {limit} and
# what else is noted here, each a number without its unit, computed from the samples.
REASONS = {
    # e.g. "poller udp 64 streamed"; {base}: ns of the bare loop, {fed}: its two-thread form
    "poller *": (
        "The messages come from another thread. The bare loop out of buffers that a second thread"
        " writes, handed over by two counters and nothing else, takes {fed} times as long as it"
        " does by itself. What the sender takes beyond that is not explained."
    ),
    # e.g. "user share udp 64 streamed"; {stub}: ns of the replaced calls by themselves,
    # {streamed}: ns of the same streamed
    "user share * preloaded": (
        "The recording in memory and the queue share a message, whose reference count is raised on"
        " one processor and lowered on the other in each pass. A streamed message, which only"
        " moves on, takes {streamed} ns; the steps are the same otherwise."
    ),
    "user share *": (
        "The replaced calls by themselves take {stub} ns. The rest is the sender's own steps, whose"
        " number is under Instructions, and waiting for what the other processor has written; the"
        " same steps took {low} to {high} ns in this run."
    ),
    # e.g. "producer capture 500"; {sender}, {bare}, {difference}, {zero_fill}: ns; {zero_share}
    "producer *": (
        "Every message gets a buffer of its own, which is filled with zeros before its bytes are"
        " read into it, and is freed by this thread when it has been sent; the bare reader uses its"
        " buffers again. Filling one with zeros takes {zero_fill} ns by itself, {zero_share} of the"
        " difference of {difference} ns."
    ),
    # e.g. "pacing 400 Mbps p99"; {busy}: the same of the plain busy loop
    "pacing * rate error": "",
    "pacing * p50": (
        "The schedule runs from the send before, in whole microseconds, so that the work between"
        " two waits, which differs, is part of a gap. The plain busy loop has {busy} µs."
    ),
    "pacing * p99": (
        "While it waits the sender yields its processor to whatever else is to run there, and"
        " that now and then lasts beyond the end of the wait. The plain busy loop, which does not"
        " yield, has {busy} µs."
    ),
    # e.g. "pacing 1 Mbps p99 ahead"; {limit}: the best peer's, {peer}: its name, {busy}
    "pacing * ahead": (
        "The sender keeps time in whole microseconds from the send before, and yields its"
        " processor while it waits; {peer} has {limit} µs, the plain busy loop {busy} µs."
    ),
    # "memory growth ...", "memory size ...", "memory slope ...", with the curve's name
    "memory growth resident memory, streamed": (
        "The largest is a full queue, the same in every run. A queue that runs empty, as when the"
        " reading thread waits for its processor, gives its memory back: one look in twenty or"
        " fewer fell into such a moment."
    ),
    "memory *": "",
}


class Target(NamedTuple):
    key: str
    what: str
    limit: str
    measured: str
    met: bool | None  # None: there are no samples for it
    facts: dict


def unmeasured(key, what, limit):
    return Target(key, what, limit, "no samples", None, {})


def telling_digits(value, limit):
    """Digits enough for the figure to be on the same side of the limit as the value."""
    digits = 3
    while (float(figure(value, digits).replace(",", "")) <= limit) != (value <= limit):
        digits += 1
    return digits


def facts_of(seen, limit, digits=3):
    """What every reason may name."""
    return {
        "measured": figure(seen.median, digits),
        "low": figure(seen.low, digits),
        "high": figure(seen.high, digits),
        "limit": limit,
    }


def at_most(key, what, limit, unit, seen, digits=3, about="", **facts):
    limit_text = f"{about or 'at most'} {limit} {unit}"
    if seen is None:
        return unmeasured(key, what, limit_text)
    allowed = limit * ABOUT if about else limit
    digits = max(digits, telling_digits(seen.median, allowed))
    measured = f"{range_text(seen, digits)} {unit}, {plural(seen.runs, 'run')}"
    facts.update(facts_of(seen, limit, digits))
    return Target(key, what, limit_text, measured, seen.median <= allowed, facts)


def reason(target):
    for pattern, text in REASONS.items():
        if text and fnmatch.fnmatchcase(target.key, pattern):
            return text.format_map(target.facts)
    print(f"report.py: no reason for the missed target '{target.key}'", file=sys.stderr)
    return "What bounds it is not known."
