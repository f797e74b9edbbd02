#!/usr/bin/python3
"""Processor time per byte of the receiver against that of socat, which throws away
what it reads, and what the receiver itself drops at a given UDP rate.

Writes receiver.csv: one line per run.
Usage: receiver_cost.py [--build FOLDER] [--out FOLDER] [--quick]
"""
import json
import pathlib
import statistics
import sys
import tempfile

import harness
from harness import finish, free_port, start, stop, wait_for

DATAGRAM = 500
UDP_MBPS = 400


def tcp_run(options, subject, source, size):
    port = free_port()
    receiver = options.build / "replay_receiver"
    words = {
        "comparing": (receiver, "--port", port, "--filepath", source),
        "counting": (receiver, "--port", port, "--bytes", size),
        # Ends with the last byte, as the sender does not close by itself.
        "socat": ("socat", "-u", f"TCP:127.0.0.1:{port},readbytes={size}", "/dev/null"),
    }[subject]
    sender = start(options.build / "replay_sender", "--filepath", source, "--port", port)
    try:
        wait_for("tcp", port, sender)
        status, seconds = finish(start(*words))
    finally:
        stop(sender)
    if status != 0:
        sys.exit(f"{subject} has ended with {status}")
    return seconds * 1e9 / size


def udp_run(options, source, scratch):
    port = free_port()
    replay = ("--protocol", "udp", "--port", port, "--filetype", 1, "--filter", "udp")
    replay += ("--filepath", source, "--mbps", UDP_MBPS)
    report = scratch / "udp.json"
    receiver = start(options.build / "replay_receiver", *replay, "--json", report)
    wait_for("udp", port, receiver)
    sender = start(options.build / "replay_sender", *replay)
    try:
        status, seconds = finish(receiver)
    finally:
        stop(sender)
    if status not in (0, 4):  # the rate is another benchmark's matter
        sys.exit(f"the receiver has ended with {status}")
    seen = json.loads(report.read_text())
    return seconds * 1e9 / seen["measured"]["bytes"], seen


def measure(options, scratch, samples):
    runs, size, seconds = (1, 100000000, 1) if options.quick else (5, 1000000000, 10)
    data, capture = scratch / "data", scratch / "capture"
    harness.write_data(data, size)
    harness.write_capture(capture, DATAGRAM, UDP_MBPS * 1000000 * seconds // 8 // DATAGRAM)
    costs = {"comparing": [], "counting": [], "socat": [], "udp": []}
    for run in range(runs):
        for subject in ("comparing", "counting", "socat"):
            costs[subject].append(tcp_run(options, subject, data, size))
            samples.add(
                protocol="tcp", subject=subject, run=run, cpu_ns_per_byte=costs[subject][-1]
            )
        cost, seen = udp_run(options, capture, scratch)
        costs["udp"].append(cost)
        samples.add(
            protocol="udp",
            subject="comparing",
            run=run,
            cpu_ns_per_byte=cost,
            own_drops=seen["own_drops"],
            lost=seen["verified"]["counts"]["lost_messages"],
            rate_error_percent=seen["rate_error_percent"],
        )
    return costs


def main():
    options = harness.options(__doc__)
    columns = ("protocol", "subject", "run", "cpu_ns_per_byte")
    columns += ("own_drops", "lost", "rate_error_percent")
    samples = harness.Samples(options.out / "receiver.csv", columns)
    with tempfile.TemporaryDirectory() as scratch:
        costs = measure(options, pathlib.Path(scratch), samples)
    for subject, values in costs.items():
        print(
            f"{subject:9}: {statistics.median(values):.3f} ns of processor time a byte"
            f" ({min(values):.3f} to {max(values):.3f})",
            file=sys.stderr,
        )


main()
