"""Pacing: how exactly a rate is kept, against limits and against the peers."""
from .benchmark import Benchmark
from .ranks import rankings
from .samples import by, pick, subjects
from .tables import spreads_table
from .targets import (
    PACING_P50_US,
    PACING_P99_US,
    RATE_ERROR_PERCENT,
    Target,
    at_most,
    facts_of,
    unmeasured,
)
from .words import bullet, figure, known_median, paragraph, range_text, slug

RATES = ("1 Mbps", "10 Mbps", "100 Mbps", "400 Mbps", "10000/s")
BUSY_LOOP = "schedule-busy"
# A peer whose sending thread uses more of a processor than this at a low rate waits by
# spinning, as the plain busy loop does, and is compared as such. One that sleeps uses a
# tenth; one that spins all of it, but for a start-up that counts too.
SPINNING = 0.5
LIMITS = (
    ("rate error", "error_size", "%", RATE_ERROR_PERCENT),
    ("p50", "p50_us", "µs", PACING_P50_US),
    ("p99", "p99_us", "µs", PACING_P99_US),
)
COLUMNS = {
    "rate_error_percent": "rate error, %",
    "p50_us": "p50, µs",
    "p99_us": "p99, µs",
    "p999_us": "p99.9, µs",
    "max_us": "largest, µs",
    "back_to_back_percent": "back to back, %",
    "processor_percent": "processor, %",
}


def with_percent(row):
    return {
        **row,
        "error_size": abs(row["rate_error_percent"]),
        "back_to_back_percent": 100 * row["back_to_back_share"],
        "processor_percent": percent_of(row["processor_share"]),
    }


def percent_of(share):
    return "" if share == "" else 100 * share


def busy_loops(rows):
    """The subjects that wait by spinning: seen at the lowest rate of each, where nothing
    else takes their time."""
    shares = {}
    for rate in reversed(RATES):
        shares.update(subjects(pick(rows, rate=rate), "processor_share"))
    spinning = {name for name, share in shares.items() if share.median > SPINNING}
    return spinning - {"sender"} | {BUSY_LOOP}


def best_peer(seen, busy):
    """The peer with the lowest median, and its spread; a plain busy loop is no peer."""
    peers = [name for name in seen if name != "sender" and name not in busy]
    best = min(peers, key=lambda name: seen[name].median, default=None)
    return best, seen.get(best)


def targets(rows):
    spinning = busy_loops(rows)
    for rate in RATES:
        of = pick(rows, rate=rate)
        for name, column, unit, limit in LIMITS:
            seen = subjects(of, column)
            yield at_most(
                f"pacing {rate} {name}",
                f"Pacing at {rate}: {name}",
                limit,
                unit,
                seen.get("sender"),
                busy=known_median(seen.get(BUSY_LOOP)),
            )
        yield ahead(rate, "p50", subjects(of, "p50_us"), spinning)
        yield ahead(rate, "p99", subjects(of, "p99_us"), spinning)


def ahead(rate, name, seen, spinning):
    key, what = f"pacing {rate} {name} ahead", f"Pacing at {rate}: {name} among its peers"
    limit = "below that of every peer that does not spin"
    own = seen.get("sender")
    peer, best = best_peer(seen, spinning)
    if own is None or best is None:
        return unmeasured(key, what, limit)
    measured = f"{range_text(own)} µs; {peer}, the best of them: {range_text(best)} µs"
    loop, lowest = best_peer(seen, seen.keys() - spinning)
    if lowest:
        measured += f"; {loop}, the best of those that spin: {range_text(lowest)} µs"
    facts = {
        **facts_of(own, figure(best.median)),
        "peer": peer,
        "busy": known_median(seen.get(BUSY_LOOP)),
    }
    return Target(key, what, limit, measured, own.median < best.median, facts)


def body(rows, plot):
    lines = []
    for (rate,), of in by(rows, "rate").items():
        lines += [f"### {rate}", "", *spreads_table(of, {"subject": "Subject"}, COLUMNS)]
        lines += plot(f"pacing-{slug(rate)}")
    return lines


def shows(rows):
    spinning = busy_loops(rows)
    yield from paragraph(
        "These wait by spinning, by the share of a processor that they use at the lowest rate,"
        f" and are no peers: {', '.join(sorted(spinning))}."
    )
    for (rate,), of in by(rows, "rate").items():
        seen = subjects(of, "p99_us")
        own, busy = seen.get("sender"), seen.get(BUSY_LOOP)
        peer, best = best_peer(seen, spinning)
        if own and busy and best:
            yield from bullet(
                f"{rate}: the sender's p99 is {figure(own.median)} µs, that of {BUSY_LOOP}"
                f" {figure(busy.median)} µs, that of {peer}, the best peer,"
                f" {figure(best.median)} µs"
            )
    yield ""


def ranked(rows):
    return [
        *rankings("Pacing, p50", rows, ("rate",), "p50_us"),
        *rankings("Pacing, p99", rows, ("rate",), "p99_us"),
    ]


PACING = Benchmark(
    name="pacing",
    title="Pacing",
    script="bench/pacing.py",
    columns=(
        "rate,subject,run,seconds,rate_error_percent,p50_us,p99_us,p999_us,max_us,"
        "back_to_back_share,processor_share"
    ),
    keys=("rate", "subject"),
    how=(
        "Every subject sends datagrams at the same rate of payload over a virtual cable between"
        " two network namespaces, and the kernel stamps them at its far end. The percentiles"
        " are of the distance between a gap and the gap that the rate asks for."
        f" {BUSY_LOOP} is a loop that watches the clock and does nothing else, schedule-sleep"
        " the same with a sleep up to each message; the former shows what the machine allows."
        " The percentiles are of each of the ten seconds by itself, and the median is that of"
        " the seconds; the error of the rate is that of all ten. A peer is a subject that does"
        " not spin. iperf3 and nuttcp send to receivers of their own, which are woken by what"
        " arrives, the others to a socket that nobody reads. Back to back are gaps of less than half of the ideal one."
    ),
    body=body,
    targets=targets,
    ranked=ranked,
    shows=shows,
    prepare=lambda rows: [with_percent(row) for row in rows],
)
