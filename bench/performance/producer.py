"""The reading thread against a bare reader, and what of the difference is zero-filling."""
from .benchmark import Benchmark, against_body
from .ranks import rankings
from .samples import pick, ratio, subjects
from .targets import PRODUCER_RATIO, at_most
from .words import bullet, figure, known, paragraph, percent

CASES = (("data-file", 10240), ("capture", 64), ("capture", 500), ("capture", 1400))


def zero_fill(rows):
    """What filling one message buffer with zeros costs, in ns."""
    seen = subjects(pick(rows, source="none"), "ns_per_message")
    if not {"zero-filled", "unfilled"} <= seen.keys():
        return None
    return seen["zero-filled"].median - seen["unfilled"].median


def cases(rows):
    """Each case with its ratio and its facts; None and no facts where it has no samples."""
    fill = zero_fill(rows)
    for source, size in CASES:
        of = pick(rows, source=source, size=size)
        seen = ratio(of, "sender", "bare", "ns_per_message")
        yield source, size, seen, facts_of_case(of, fill) if seen else {}


def facts_of_case(rows, fill):
    seen = subjects(rows, "ns_per_message")
    difference = seen["sender"].median - seen["bare"].median
    shared = fill is not None and difference > 0
    return {
        "sender": figure(seen["sender"].median),
        "bare": figure(seen["bare"].median),
        "difference": figure(difference),
        "zero_fill": known(fill),
        "zero_share": percent(fill / difference) if shared else "an unknown share",
    }


def targets(rows):
    for source, size, seen, facts in cases(rows):
        yield at_most(
            f"producer {source} {size}",
            f"Reading thread against the bare reader, {source}, {size:,} bytes",
            PRODUCER_RATIO,
            "times",
            seen,
            digits=4,
            **facts,
        )


def shows(rows):
    fill = zero_fill(rows)
    if fill is not None:
        yield from paragraph(
            "Filling a message buffer with zeros, the difference of zero-filled and unfilled, takes"
            f" {figure(fill)} ns by itself; what is filled is also ready for the reading that"
            " follows."
        )
    for source, size, seen, facts in cases(rows):
        if seen:
            yield from bullet(
                f"{source}, {size:,} bytes: the sender takes {facts['difference']} ns per message"
                f" more than the bare reader; zero-filling is {facts['zero_share']} of that"
            )
    yield ""


PRODUCER = Benchmark(
    name="producer",
    title="The reading thread",
    script="bench/producer.py",
    columns="source,size,subject,run,ns_per_message",
    keys=("source", "size", "subject"),
    how=(
        "The processor time of the reading thread per message, with the sending thread's"
        " system calls replaced so that it never has to wait, against a loop that takes the"
        " same steps into a few buffers that it uses again (bare), as the sender has a few"
        " messages alive in this run, and into 1024 (bare-1024). Source none is the message"
        " buffer alone: made and dropped as the sender's are, filled with zeros, and as mere"
        " memory, with as few and as many alive."
    ),
    body=against_body("producer", {"source": "Source", "size": "Bytes"}, "bare"),
    targets=targets,
    ranked=lambda rows: rankings("Reading thread", rows, ("source", "size"), "ns_per_message"),
    shows=shows,
)
