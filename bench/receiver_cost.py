#!/usr/bin/env python3
"""Processor time per byte of the receiver against that of socat, which throws away
what it reads, and what the receiver itself drops at a given UDP rate.

Prints one line of CSV per run on standard output and the medians on standard error.
Usage: receiver_cost.py --sender FILE --receiver FILE [--runs N] [--megabytes N]
"""
import argparse
import json
import os
import pathlib
import random
import re
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "tests" / "e2e"))
import capture_builder

DATAGRAM = 500
UDP_MBPS = 400
UDP_SECONDS = 10


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for(table, port, process):
    """Until somebody listens there."""
    wanted = re.compile(rf": [0-9A-F]{{8}}:{port:04X} 00000000:0000 0[A7] ")
    while not wanted.search(pathlib.Path(f"/proc/net/{table}").read_text()):
        if process.poll() is not None:
            sys.exit(f"{process.args[0]} has ended with {process.returncode}")


def start(*words):
    return subprocess.Popen(
        [*map(str, words)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL
    )


def finish(process):
    """Waits for the end: the status and the processor seconds."""
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return process.returncode, usage.ru_utime + usage.ru_stime


def stop(process):
    process.send_signal(signal.SIGINT)
    process.wait()


def tcp_run(options, subject, source, size):
    port = free_port()
    sender = start(options.sender, "--filepath", source, "--port", port)
    wait_for("tcp", port, sender)
    words = {
        "comparing": (options.receiver, "--port", port, "--filepath", source),
        "counting": (options.receiver, "--port", port, "--bytes", size),
        # Ends with the last byte, as the sender does not close by itself.
        "socat": ("socat", "-u", f"TCP:127.0.0.1:{port},readbytes={size}", "/dev/null"),
    }[subject]
    status, seconds = finish(start(*words))
    stop(sender)
    if status != 0:
        sys.exit(f"{subject} has ended with {status}")
    return seconds * 1e9 / size


def write_capture(path, count):
    """Datagrams that differ, by the tests' frames; written as they are made, because
    together they are half a gigabyte."""
    frame = capture_builder.udp(bytes(DATAGRAM)).data
    length = len(frame)
    record = struct.pack("<IIII", 0, 0, length, length) + frame[:-DATAGRAM]
    noise = random.Random(1).randbytes(1 << 20)
    with open(path, "wb") as out:
        out.write(capture_builder.pcap([]))
        for number in range(count):
            at = number * 61 % (len(noise) - DATAGRAM)
            out.write(record + struct.pack("<Q", number) + noise[at : at + DATAGRAM - 8])


def udp_run(options, source, scratch):
    port = free_port()
    replay = ("--protocol", "udp", "--port", port, "--filetype", 1, "--filter", "udp")
    replay += ("--filepath", source, "--mbps", UDP_MBPS)
    report = scratch / "udp.json"
    receiver = start(options.receiver, *replay, "--json", report)
    wait_for("udp", port, receiver)
    sender = start(options.sender, *replay)
    status, seconds = finish(receiver)
    stop(sender)
    if status not in (0, 4):  # the rate is another benchmark's matter
        sys.exit(f"the receiver has ended with {status}")
    seen = json.loads(report.read_text())
    return seconds * 1e9 / seen["measured"]["bytes"], seen


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--sender", required=True)
    parser.add_argument("--receiver", required=True)
    parser.add_argument("--runs", type=int, default=9)
    parser.add_argument("--megabytes", type=int, default=1000)
    options = parser.parse_args()
    size = options.megabytes * 1000000
    samples = {"comparing": [], "counting": [], "socat": []}

    print("protocol,subject,run,cpu_ns_per_byte,own_drops,lost,rate_error_percent")
    with tempfile.TemporaryDirectory() as directory:
        scratch = pathlib.Path(directory)
        source = scratch / "data"
        with open(source, "wb") as out:
            for _ in range(options.megabytes):
                out.write(random.randbytes(1000000))
        for run in range(options.runs):
            for subject, values in samples.items():
                values.append(tcp_run(options, subject, source, size))
                print(f"tcp,{subject},{run},{values[-1]:.4f},,,", flush=True)
        source.unlink()
        capture = scratch / "capture"
        write_capture(capture, UDP_MBPS * 1000000 * UDP_SECONDS // 8 // DATAGRAM)
        udp = []
        for run in range(options.runs):
            cost, seen = udp_run(options, capture, scratch)
            udp.append((cost, seen["own_drops"]))
            lost = seen["verified"]["counts"]["lost_messages"]
            error = seen["rate_error_percent"]
            print(f"udp,comparing,{run},{cost:.4f},{udp[-1][1]},{lost},{error:.3f}", flush=True)

    base = statistics.median(samples["socat"])
    for subject, values in samples.items():
        middle = statistics.median(values)
        print(
            f"tcp 10240 {subject:9}: {middle:.3f} ns of processor time a byte"
            f" ({min(values):.3f} to {max(values):.3f}), {middle / base:.2f} of socat's",
            file=sys.stderr,
        )
    print(
        f"udp {DATAGRAM} comparing: {statistics.median(c for c, _ in udp):.3f} ns a byte at"
        f" {UDP_MBPS} Mbps asked, own drops {sum(d for _, d in udp)} in {len(udp)} runs",
        file=sys.stderr,
    )


main()
