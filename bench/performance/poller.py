"""The poller thread: against a bare loop, and what of it is outside the kernel."""
import itertools

from .benchmark import Benchmark, against_body, simple_body
from .ranks import rankings
from .samples import by, pick, ratio, spread
from .targets import POLLER_RATIO, USER_SHARE_NS, at_most
from .words import case_name, figure, known_median, paragraph, range_text

POLLER_CASES = (("tcp", 10240), ("udp", 64), ("udp", 500), ("udp", 1400), ("udp", 10240))
MODES = ("streamed", "preloaded")


# ---------------------------------------------------------------- against the bare loop


def poller_ratios(rows):
    """By protocol, size and subject; None where there are no samples."""
    return {
        (protocol, size, subject): ratio(
            pick(rows, protocol=protocol, size=size), subject, "bare", "ns_per_message"
        )
        for protocol, size in POLLER_CASES
        for subject in MODES
    }


def poller_targets(rows):
    for (protocol, size, subject), seen in poller_ratios(rows).items():
        of = pick(rows, protocol=protocol, size=size)
        base = spread(pick(of, subject="bare"), "ns_per_message")
        yield at_most(
            f"poller {protocol} {size} {subject}",
            f"Poller thread against the bare loop, {case_name(protocol, size)}, {subject}",
            POLLER_RATIO,
            "times",
            seen,
            digits=4,
            base=known_median(base),
            fed=known_median(ratio(of, "fed", "bare", "ns_per_message")),
        )


def poller_shows(rows):
    ratios = {key: seen for key, seen in poller_ratios(rows).items() if seen}
    for subject in MODES:
        of = {key: seen.median for key, seen in ratios.items() if key[2] == subject}
        if of:
            most = max(of, key=of.get)
            yield from paragraph(
                f"A {subject} replay's poller thread takes {figure(min(of.values()), 4)} to"
                f" {figure(of[most], 4)} times the bare loop's processor time; the most over"
                f" {case_name(*most[:2])}."
            )


POLLER = Benchmark(
    name="poller",
    title="The poller thread",
    script="bench/poller.py",
    columns="protocol,size,subject,run,ns_per_message",
    keys=("protocol", "size", "subject"),
    how=(
        "The processor time of the sending thread per message, against a loop in one thread"
        " that makes the same system calls and nothing else, out of as many buffers as the"
        " sender's queue holds (bare). fed is the same loop out of buffers that a second thread"
        " writes, handed over by two counters: what a sender in two threads takes at the least."
        " Messages are counted in bursts out of a full queue, because a sending thread that"
        " finds it empty spins. The runs take turns, and one receiver serves all. The ratio is"
        " that of the medians; its spread is that of the ratios of neighbouring runs."
    ),
    body=against_body("poller", {"protocol": "Protocol", "size": "Bytes"}, "bare"),
    targets=poller_targets,
    ranked=lambda rows: rankings("Poller thread", rows, ("protocol", "size"), "ns_per_message"),
    shows=poller_shows,
)


# ---------------------------------------------------------------- outside the kernel


def stub_spread(rows):
    """What the replaced calls take by themselves."""
    return spread(pick(rows, mode="stub"), "ns_per_message")


def user_share_targets(rows):
    stub = known_median(stub_spread(rows))
    for (protocol, size), mode in itertools.product(POLLER_CASES, MODES):
        streamed = pick(rows, protocol=protocol, size=size, mode="streamed")
        yield at_most(
            f"user share {protocol} {size} {mode}",
            f"Poller thread outside the kernel, {case_name(protocol, size)}, {mode}",
            USER_SHARE_NS,
            "ns per message",
            spread(pick(rows, protocol=protocol, size=size, mode=mode), "ns_per_message"),
            stub=stub,
            streamed=known_median(spread(streamed, "ns_per_message")),
        )


def user_share_shows(rows):
    medians = {
        (case_name(protocol, size), mode): spread(of, "ns_per_message").median
        for (protocol, size, mode), of in by(rows, "protocol", "size", "mode").items()
        if mode != "stub"
    }
    if medians:
        most = max(medians, key=medians.get)
        yield from paragraph(
            f"The largest median is {figure(medians[most])} ns per message: {', '.join(most)}."
        )
    stub = stub_spread(rows)
    if stub:
        yield from paragraph(
            f"The measuring itself, {range_text(stub)} ns per message, is contained in each of"
            " these figures and has not been taken off."
        )


USER_SHARE = Benchmark(
    name="user_share",
    title="The poller thread outside the kernel",
    script="bench/user_share.py",
    columns="protocol,size,mode,run,ns_per_message",
    keys=("protocol", "size", "mode"),
    how=(
        "The sending thread's time per message with its system calls replaced by ones that"
        " return at once, so that the program's own share is left. stub is what the replaced"
        " calls take by themselves."
    ),
    body=simple_body(
        "user_share",
        {"protocol": "Protocol", "size": "Bytes", "mode": "Mode"},
        {"ns_per_message": "ns per message"},
    ),
    targets=user_share_targets,
    shows=user_share_shows,
)
