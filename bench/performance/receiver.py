"""The companion receiver's processor time, against throwing away what is read."""
from .benchmark import Benchmark
from .ranks import rankings
from .samples import pick, ratio
from .tables import spreads_table
from .words import paragraph, range_text

KEYS = {"protocol": "Protocol", "subject": "Subject"}
COLUMNS = {
    "cpu_ns_per_byte": "ns per byte",
    "own_drops": "own drops, messages",
    "lost": "lost, messages",
    "rate_error_percent": "rate error, %",
}


def shows(rows):
    of = pick(rows, protocol="tcp")
    for subject in ("comparing", "counting"):
        against = ratio(of, subject, "socat", "cpu_ns_per_byte")
        if against:
            yield from paragraph(
                f"Over TCP, {subject} takes {range_text(against)} times socat's processor time."
            )


RECEIVER = Benchmark(
    name="receiver",
    title="The receiver",
    script="bench/receiver_cost.py",
    columns="protocol,subject,run,cpu_ns_per_byte,own_drops,lost,rate_error_percent",
    keys=("protocol", "subject"),
    how=(
        "The processor time of the companion receiver per byte, with and without a recording"
        " to compare with, against socat throwing away what it reads."
    ),
    body=lambda rows, _plot: spreads_table(rows, KEYS, COLUMNS),
    ranked=lambda rows: rankings("Receiver", rows, ("protocol",), "cpu_ns_per_byte"),
    shows=shows,
)
