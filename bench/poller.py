#!/usr/bin/python3
"""Processor time per message of the sender's poller thread, streamed and preloaded,
against a bare single-threaded loop of the same system calls (bare) and the same loop out
of buffers that a second thread writes (fed): loopback.cpp says how.

Writes poller.csv: one line per run.
Usage: poller.py [--build FOLDER] [--out FOLDER] [--quick]
"""
import csv
import statistics
import subprocess
import sys

import harness

CASES = (("udp", 64), ("udp", 500), ("udp", 1400), ("udp", 10240), ("tcp", 10240))


def measure(options, protocol, size, messages):
    """One run of each subject: rows of protocol, size, subject and nanoseconds."""
    words = [options.build / "bench" / "loopback", "--sender", options.build / "replay_sender"]
    words += ["--library", (options.build / "bench" / "libstub_calls.so").resolve()]
    words += ["--protocol", protocol, "--size", size, "--messages", messages, "--runs", 1]
    done = subprocess.run([*map(str, words)], stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit("the comparison over loopback has failed")
    return list(csv.DictReader(done.stdout.splitlines()))


def main():
    options = harness.options(__doc__)
    runs, messages = (2, 20000) if options.quick else (11, 150000)
    columns = ("protocol", "size", "subject", "run", "ns_per_message")
    samples = harness.Samples(options.out / "poller.csv", columns)
    costs = {}
    for run in range(runs):
        for protocol, size in CASES:
            for row in measure(options, protocol, size, messages):
                samples.add(**{**row, "run": run})
                values = costs.setdefault((protocol, size, row["subject"]), [])
                values.append(float(row["ns_per_message"]))
    for (protocol, size, subject), values in costs.items():
        bare = statistics.median(costs[protocol, size, "bare"])
        middle = statistics.median(values)
        print(
            f"{protocol} {size:5} {subject:9}: {middle:5.0f} ns a message,"
            f" {middle / bare:.3f} of the bare loop's",
            file=sys.stderr,
        )


main()
