#!/usr/bin/python3
"""Processor time per message of the sender's reading thread, and of the same reads
without a sender around them.

The sender runs with stub_calls.cpp preloaded: its sending thread has no system calls
and empties the queue as fast as it can, so that the reading thread never waits for
room. That is checked: a run in which the queue may have been full, because something
else took the sending thread's processor, is repeated. The bare reader takes the same
steps on one thread, into a few buffers of its own, as the sender has a few messages
alive when its queue is never full (bare), and into as many as the queue holds
(bare-1024). Source none is the message buffer alone: made and dropped zero-filled, as
the sender's are, and as mere memory, with as few and as many alive.
"""
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import harness
import user_share

RUNS, QUICK_RUNS = 9, 2
SIZES = (64, 500, 1400)
FRAME_HEADERS = 16 + 54  # the record's and the protocols'
SOURCE_BYTES, QUICK_SOURCE_BYTES = 32_000_000, 4_000_000
MESSAGES, QUICK_MESSAGES = 250_000, 25_000  # in a run, and then to the end of the file
WARM_UP = 4 * 1024
QUEUE = 1024
ATTEMPTS = 10
BUFFERS = {"": 16, "-1024": 1024}  # by the ending of the subject's name


def bare(options, *words):
    program = options.build / "bench" / "bare_reader"
    done = subprocess.run([program, *map(str, words)], capture_output=True, text=True)
    if done.returncode != 0:
        sys.exit(f"{program} has ended with {done.returncode}: {done.stderr}")
    return float(done.stdout)


def sender(options, path, messages, report):
    """The reading thread's time; a smoke test takes it with a disturbance, too."""
    processor = harness.OTHERS[0]
    settings = user_share.stub_settings(
        options, report, processor, messages=messages, warmup=WARM_UP
    )
    for _ in range(ATTEMPTS):
        counts = user_share.replay(options, path, settings)
        if counts["longest_backlog"] < QUEUE or options.quick:
            return counts["producer_ns"] / counts["messages"]
    sys.exit(f"processor {processor} was never free: in {ATTEMPTS} runs the queue was full")


def write_sources(options, scratch):
    """(source, size, path, messages in it), as long as each other."""
    size = QUICK_SOURCE_BYTES if options.quick else SOURCE_BYTES
    data = scratch / "data"
    count = size // user_share.MESSAGE
    harness.write_data(data, count * user_share.MESSAGE)
    sources = [("data-file", user_share.MESSAGE, data, count)]
    for payload in SIZES:
        count = size // (payload + FRAME_HEADERS)
        path = scratch / f"{payload}.pcap"
        harness.write_capture(path, payload, count, harness.capture_builder.tcp)
        sources.append(("capture", payload, path, count))
    return sources


def measure(options, scratch):
    sources = write_sources(options, scratch)
    messages = QUICK_MESSAGES if options.quick else MESSAGES
    for run in range(QUICK_RUNS if options.quick else RUNS):
        for source, size, path, count in sources:
            passes = -(-messages // count)
            words = ("read", path) if source == "data-file" else ("pcap", path, "tcp")
            cost = sender(options, path, passes * count, scratch / "report")
            yield source, size, "sender", run, cost
            for ending, buffers in BUFFERS.items():
                cost = bare(options, *words, passes, buffers)
                yield source, size, f"bare{ending}", run, cost
        for subject, mode in (("zero-filled", "buffer"), ("unfilled", "memory")):
            for ending, buffers in BUFFERS.items():
                cost = bare(options, mode, messages, buffers)
                yield "none", user_share.MESSAGE, f"{subject}{ending}", run, cost


def main():
    options = harness.options(__doc__)
    os.sched_setaffinity(0, harness.MEASURED)  # what is started inherits it
    columns = ("source", "size", "subject", "run", "ns_per_message")
    samples = harness.Samples(options.out / "producer.csv", columns)
    values = {}
    with tempfile.TemporaryDirectory() as directory:
        for *case, run, cost in measure(options, pathlib.Path(directory)):
            samples.add(**dict(zip(columns, [*case, run, f"{cost:.2f}"])))
            values.setdefault(tuple(case), []).append(cost)
    for (source, size, subject), costs in values.items():
        middle, spread = statistics.median(costs), f"{min(costs):.1f} to {max(costs):.1f}"
        print(f"{source:9} {size:5} {subject:16} {middle:6.1f} ns ({spread})", file=sys.stderr)


main()
