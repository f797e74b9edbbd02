#!/usr/bin/python3
"""User-space nanoseconds per message of the sending thread: stub_calls.cpp is preloaded
into the sender, so that waiting for the socket and sending to it return at once.

The messages are counted in bursts out of a full queue, because a sending thread without
system calls is faster than the reading and would otherwise be measured while it looks
in vain. The sending thread has the measured processor, the reading thread the others.
Captures go out by UDP, the data file by TCP; in mode preloaded the messages stay in
memory and are not freed. The mode stub is what the replaced calls and the readings of
the clock cost by themselves; the other figures contain it.
"""
import json
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile

import harness

RUNS, QUICK_RUNS = 9, 2
BURST = 900  # and 64 before it fit into the queue of 1024
BURSTS, QUICK_BURSTS = 45, 10
WARM_UP = 4 * 1024
DISTINCT = 1024  # messages: as many as the queue holds, streamed and preloaded alike
TIME_LIMIT_S = 60
MESSAGE = 10240  # of a data file
SIZES = (64, 500, 1400, MESSAGE)


def stub_settings(options, report, processor, **settings):
    """The environment for a program under the library; further settings are its own."""
    library = options.build.resolve() / "bench" / "libstub_calls.so"
    if not library.is_file():
        sys.exit(f"{library} is missing")
    names = {f"STUB_{name.upper()}": str(value) for name, value in settings.items()}
    fixed = {"LD_PRELOAD": library, "STUB_OUT": report, "STUB_PROCESSOR": str(processor)}
    return {**os.environ, **fixed, **names}


def connect(process, port):
    harness.wait_for("tcp", port, process)
    return socket.create_connection(("127.0.0.1", port))


def await_report(process, report):
    """The library's counts, once it has ended the process."""
    status = process.wait(TIME_LIMIT_S)
    if status != 0 or not report.is_file():
        sys.exit(f"{process.args[0]} has ended with {status} and without a report")
    return json.loads(report.read_text())


def counts_of(words, environment, port=None):
    """Runs a program under the library, with a connection to its `port` if one is given."""
    report = pathlib.Path(environment["STUB_OUT"])
    report.unlink(missing_ok=True)
    process = harness.start(*words, env=environment, stderr=None)
    try:
        if port is None:
            return await_report(process, report)
        with connect(process, port):
            return await_report(process, report)
    except subprocess.TimeoutExpired:
        sys.exit(f"{words[0]} has not sent its messages in {TIME_LIMIT_S} s")
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()


def replay(options, source, environment, preload=0):
    """One endless replay until the library ends it: a .pcap by UDP, else a file by TCP."""
    capture = source.suffix == ".pcap"
    port = harness.free_port(socket.SOCK_DGRAM if capture else socket.SOCK_STREAM)
    words = [options.build / "replay_sender", "--filepath", source, "--preload", preload]
    words += ["--loopback", 0, "--port", port]
    if capture:
        words += ["--protocol", "udp", "--filetype", 1, "--filter", "tcp"]
    return counts_of(words, environment, None if capture else port)


def write_sources(scratch, sizes, count):
    """Captures whose payloads have these sizes, and a data file in the messages' size."""
    captures = {size: scratch / f"{size}.pcap" for size in sizes}
    for size, path in captures.items():
        harness.write_capture(path, size, count, harness.capture_builder.tcp)
    data = scratch / "data"
    harness.write_data(data, count * MESSAGE)
    return captures, data


def measure(options, scratch):
    captures, data = write_sources(scratch, SIZES, DISTINCT)
    cases = [("udp", size, path) for size, path in captures.items()]
    cases.append(("tcp", MESSAGE, data))
    settings = stub_settings(
        *(options, scratch / "report", harness.MEASURED[0]),
        messages=BURST * (QUICK_BURSTS if options.quick else BURSTS),
        **{"warmup": WARM_UP, "burst": BURST},
    )
    for run in range(QUICK_RUNS if options.quick else RUNS):
        stub = counts_of([options.build / "bench" / "bare_reader", "calls"], settings)
        yield "none", 0, "stub", run, stub
        for protocol, size, source in cases:
            for preload, mode in enumerate(("streamed", "preloaded")):
                yield protocol, size, mode, run, replay(options, source, settings, preload)


def main():
    options = harness.options(__doc__)
    os.sched_setaffinity(0, harness.OTHERS)  # what is started inherits it
    columns = ("protocol", "size", "mode", "run", "ns_per_message")
    samples = harness.Samples(options.out / "user_share.csv", columns)
    values = {}
    with tempfile.TemporaryDirectory() as directory:
        for *case, run, counts in measure(options, pathlib.Path(directory)):
            cost = counts["poller_ns"] / counts["messages"]
            samples.add(**dict(zip(columns, [*case, run, f"{cost:.2f}"])))
            values.setdefault(tuple(case), []).append(cost)
    for (protocol, size, mode), costs in values.items():
        middle, spread = statistics.median(costs), f"{min(costs):.1f} to {max(costs):.1f}"
        print(f"{protocol:4} {size:5} {mode:9} {middle:6.1f} ns ({spread})", file=sys.stderr)


if __name__ == "__main__":
    main()
