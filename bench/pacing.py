#!/usr/bin/python3
"""How evenly paced messages leave: 500-byte datagrams over a cable between two network
namespaces, by the time stamps that the receiving end's kernel takes, for the sender, for
tools that pace and for the plainest absolute schedule.

The first second is left out. Over the window that follows: the error of the rate, and,
second by second (part), how far the gaps between messages are from the ideal one. All
subjects are asked for the same
payload rate. processor_share is how much of a processor the sending thread has used: next
to 1 where it waits by spinning. pacing_histogram.csv.xz holds the deviations, to three
significant digits.
--runs N repeats the whole.
"""
import argparse
import contextlib
import csv
import lzma
import os
import pathlib
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

import numpy

import harness
import network_namespace

LENGTH = 500  # bytes of payload
DATAGRAM = LENGTH * 8  # bits
LEFT_OUT = 1  # seconds
PATIENCE = 5  # seconds until the first message, and for being behind
PORT = 6000
CONTROL_PORT = 6001
FRAMES = 20000  # in the recording, which the sender replays in endless passes
RATES = {  # bits of payload per second
    "1 Mbps": 1_000_000,
    "10 Mbps": 10_000_000,
    "100 Mbps": 100_000_000,
    "400 Mbps": 400_000_000,
    "10000/s": 10_000 * DATAGRAM,
}
QUICK_RATES = ("100 Mbps",)
COLUMNS = (
    "rate", "subject", "run", "part", "messages", "seconds", "rate_error_percent",
    "p50_us", "p99_us", "p999_us", "max_us", "back_to_back_share", "processor_share",
)


class Subjects:
    """Command lines. Bits are always bits of payload: iperf3 -b and nuttcp -R count what
    they hand to their sockets, and their -l is the payload's length; mgen and sockperf
    take messages per second, and their message is the whole payload."""

    def __init__(self, build, capture, target):
        self.build = build
        self.capture = capture
        self.target = target

    def sender(self, rate, _seconds):
        return (
            self.build / "replay_sender", "--filepath", self.capture, "--filetype", 1,
            "--filter", "udp", "--protocol", "udp", "--ip", self.target, "--port", PORT,
            "--loopback", 0, "--mbps", f"{rate / 1e6:g}",
        )

    def iperf3(self, rate, seconds, *more):
        return (
            "iperf3", "-c", self.target, "-p", PORT, "-u", "-b", rate, "-l", LENGTH,
            "-t", seconds, *more,
        )

    def iperf3_timer_100(self, rate, seconds):
        return self.iperf3(rate, seconds, "--pacing-timer", 100)

    def mgen(self, rate, _seconds, *more):
        pattern = f"PERIODIC [{rate // DATAGRAM} {LENGTH}]"
        return ("mgen", "nolog", *more, "event", f"ON 1 UDP DST {self.target}/{PORT} {pattern}")

    def mgen_precise(self, rate, seconds):
        return self.mgen(rate, seconds, "precise", "on")

    def sockperf(self, rate, seconds):
        return (
            "sockperf", "throughput", "-i", self.target, "-p", PORT, "-m", LENGTH,
            f"--mps={rate // DATAGRAM}", "-t", seconds,
        )

    def nuttcp(self, rate, seconds):
        # -R rather than -Ri: that one does not make up for time that it has lost, and
        # falls short of the rate. In both modes it spins.
        return (
            "nuttcp", "-4", "-u", "-t", f"-R{rate // 1000}", f"-l{LENGTH}", f"-T{seconds}",
            f"-P{CONTROL_PORT}", f"-p{PORT}", self.target,
        )

    def schedule_busy(self, rate, seconds, kind="busy"):
        program = self.build / "bench/schedule"
        return (program, kind, self.target, PORT, LENGTH, rate // DATAGRAM, seconds)

    def schedule_sleep(self, rate, seconds):
        return self.schedule_busy(rate, seconds, "sleep")

    def all(self):
        return {
            "sender": self.sender,
            "iperf3": self.iperf3,
            "iperf3-timer-100": self.iperf3_timer_100,
            "mgen": self.mgen,
            "mgen-precise": self.mgen_precise,
            "sockperf": self.sockperf,
            "nuttcp": self.nuttcp,
            "schedule-busy": self.schedule_busy,
            "schedule-sleep": self.schedule_sleep,
        }


# Those that do not send without their own receiver, and the port it listens on.
SERVERS = {
    "iperf3": (("iperf3", "-4", "-s", "-1", "-p", PORT), PORT),
    "nuttcp": (("nuttcp", "-4", "-1", "--nofork", "-P", CONTROL_PORT), CONTROL_PORT),
}


@contextlib.contextmanager
def cable():
    """(sending host, receiving host) for as long as the scope lasts."""
    mark = os.getpid()
    pair = (
        network_namespace.Host(f"pacing-{mark}-a", "near-end", "10.77.0.1"),
        network_namespace.Host(f"pacing-{mark}-b", "far-end", "10.77.0.2"),
    )
    try:
        try:
            network_namespace.create_cable(pair)
        except subprocess.CalledProcessError as error:
            sys.exit(f"no network namespaces here: {error.stderr.strip()}")
        yield pair
    finally:
        for host in pair:
            subprocess.run(["ip", "netns", "delete", host.name], capture_output=True)


@contextlib.contextmanager
def running(host, words, processors=harness.OTHERS, **settings):
    """A process on the host, which does not outlive the scope."""
    with host.inside():
        process = harness.start(
            *words, preexec_fn=lambda: os.sched_setaffinity(0, processors), **settings
        )
    try:
        yield process
    finally:
        harness.stop(process, signal.SIGKILL)


@contextlib.contextmanager
def receiver(host, subject):
    """The tool's own, or else a socket that nobody reads: datagrams to a closed port
    would be answered, and the answers would disturb the sender."""
    tool = subject.partition("-")[0]
    if tool in SERVERS:
        words, port = SERVERS[tool]
        with running(host, words) as process:
            with host.inside():
                harness.wait_for("tcp", port, process)
            yield
        return
    with host.inside():
        sink = socket.socket(type=socket.SOCK_DGRAM)
    with sink:
        sink.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 0)
        sink.bind((host.address, PORT))
        yield


@contextlib.contextmanager
def sending(host, subject, words, log):
    """The process and its thread that sends, on the measured processor."""
    if subject != "sender":
        with running(host, words, harness.MEASURED, stdout=log, stderr=log) as process:
            yield process, process.pid
        return
    with running(host, words, stdout=log, stderr=log) as process:
        poller = harness.thread_named(process, "poller_thread")
        os.sched_setaffinity(poller, harness.MEASURED)
        yield process, poller


def share_of_processor(process, thread, began, used):
    """Since `began`, when the thread had `used` so much; none of one that has ended."""
    try:
        used = harness.cpu_ns(process, thread) - used
    except OSError:
        return ""
    return f"{used / (time.monotonic_ns() - began):.3f}"


def drops(host):
    """Datagrams that the receiving end of the cable has had no room for."""
    with host.inside():
        devices = pathlib.Path("/proc/net/dev").read_text()
    fields = devices.partition(f"{host.device}:")[2].split()
    return int(fields[3])


class Bench:
    """The cable, and what every run on it needs."""

    def __init__(self, hosts, build, scratch, window):
        self.near, self.far = hosts
        self.collector = build / "bench/stamps"
        self.scratch = scratch
        self.seconds = LEFT_OUT + window

    def collect(self, subject, words):
        """The nanosecond stamps of all messages until the window's end, and the share of a
        processor that the sending thread has used meanwhile."""
        path, log_path = self.scratch / "stamps", self.scratch / "log"
        limits = (self.seconds, self.seconds + PATIENCE, path)
        collector_words = (self.collector, self.far.device, PORT, LENGTH, *limits)
        pipe = {"stdout": subprocess.PIPE, "stderr": None, "text": True}
        with contextlib.ExitStack() as stack:
            log = stack.enter_context(open(log_path, "wb"))
            collector = stack.enter_context(running(self.far, collector_words, **pipe))
            if collector.stdout.readline() != "ready\n":
                sys.exit("the stamps' collector has not started")
            stack.enter_context(receiver(self.far, subject))
            process, thread = stack.enter_context(sending(self.near, subject, words, log))
            began, used = time.monotonic_ns(), harness.cpu_ns(process, thread)
            lost, _ = collector.communicate()
            share = share_of_processor(process, thread, began, used)
        if collector.returncode != 0:
            sys.exit(f"the stamps' collector has ended with {collector.returncode}")
        if int(lost) != 0:
            sys.exit(f"{subject}: {int(lost)} stamps lost, so the gaps would be false")
        stamps = numpy.fromfile(path, dtype=numpy.int64)
        if stamps.size == 0 or stamps[-1] - stamps[0] < self.seconds * 1e9:
            said = log_path.read_text(errors="replace")[-500:].strip()
            sys.exit(f"{subject} has stopped after {stamps.size} messages, and said:\n{said}")
        return stamps, share

    def window(self, stamps):
        inside = (stamps >= stamps[0] + LEFT_OUT * 1e9) & (
            stamps < stamps[0] + self.seconds * 1e9
        )
        return stamps[inside]


def rate_error_percent(stamps, rate):
    seconds = (stamps[-1] - stamps[0]) / 1e9
    return ((stamps.size - 1) * DATAGRAM / seconds / rate - 1) * 100


def deviations_of(stamps, rate):
    """Of the gaps from the ideal one, in nanoseconds."""
    return numpy.abs(numpy.diff(stamps) - DATAGRAM * 1e9 / rate)


def figures(stamps, rate):
    """What a part's row has of its gaps."""
    deviations = deviations_of(stamps, rate)
    p50, p99, p999 = numpy.percentile(deviations, (50, 99, 99.9)) / 1000
    return {
        "messages": stamps.size,
        "seconds": f"{(stamps[-1] - stamps[0]) / 1e9:.6f}",
        "p50_us": f"{p50:.3f}",
        "p99_us": f"{p99:.3f}",
        "p999_us": f"{p999:.3f}",
        "max_us": f"{deviations.max() / 1000:.3f}",
        "back_to_back_share": f"{numpy.mean(numpy.diff(stamps) < DATAGRAM * 5e8 / rate):.6f}",
    }


def parts(stamps, seconds):
    """The stamps of each second, with the next one's first, so that no gap is left out."""
    edges = numpy.searchsorted(stamps, stamps[0] + numpy.arange(seconds + 1) * 1e9)
    return [stamps[start : end + 1] for start, end in zip(edges, edges[1:])]


def histogram(deviations):
    """(deviation to three significant digits, count), smallest first."""
    digits = numpy.floor(numpy.log10(numpy.maximum(deviations, 1)))
    step = 10 ** numpy.maximum(digits - 2, 0)
    values, counts = numpy.unique(numpy.rint(deviations / step) * step, return_counts=True)
    return zip(values.astype(int).tolist(), counts.tolist())


def warn_of_missing(name, messages, rate, window, dropped):
    expected = rate * window // DATAGRAM
    if messages < expected * 0.999 or dropped != 0:
        print(
            f"{name}: {messages} messages in the window instead of {expected},"
            f" {dropped} dropped on the cable",
            file=sys.stderr,
        )


def print_medians(rows):
    shown = COLUMNS[6:]
    print(f"{'rate':9} {'subject':17}", *(f"{name:>18}" for name in shown), file=sys.stderr)
    for (rate, subject), found in rows.items():
        middles = (statistics.median(float(row[name] or "nan") for row in found) for name in shown)
        print(f"{rate:9} {subject:17}", *(f"{m:18.6g}" for m in middles), file=sys.stderr)


def measure(options, runs, hosts, scratch, record):
    window, rates = (1, QUICK_RATES) if options.quick else (10, RATES)
    capture = scratch / "capture"
    harness.write_capture(capture, LENGTH, FRAMES)
    subjects = Subjects(options.build, capture, hosts[1].address).all()
    bench = Bench(hosts, options.build, scratch, window)
    samples = harness.Samples(options.out / "pacing.csv", COLUMNS)
    rows = {}
    for run in range(runs):
        for name in rates:
            rate = RATES[name]
            for subject, words in subjects.items():
                dropped = drops(hosts[1])
                # A second more than is looked at, as the tools start at their leisure.
                stamps, share = bench.collect(subject, words(rate, bench.seconds + 1))
                dropped = drops(hosts[1]) - dropped
                stamps = bench.window(stamps)
                warn_of_missing(f"{name} {subject}", stamps.size, rate, window, dropped)
                whole = {
                    "rate": name,
                    "subject": subject,
                    "run": run,
                    "rate_error_percent": f"{rate_error_percent(stamps, rate):.6f}",
                    "processor_share": share,
                }
                for part, of in enumerate(parts(stamps, window)):
                    row = {**whole, "part": part, **figures(of, rate)}
                    samples.add(**row)
                    rows.setdefault((name, subject), []).append(row)
                deviations = deviations_of(stamps, rate)
                record.writerows(
                    (name, subject, run, *pair) for pair in histogram(deviations)
                )
    print_medians(rows)


def main():
    parser = argparse.ArgumentParser(add_help=False)
    parser.add_argument("--runs", type=int, default=1)
    own, sys.argv[1:] = parser.parse_known_args()
    options = harness.options(__doc__)
    os.sched_setaffinity(0, harness.OTHERS)
    with contextlib.ExitStack() as stack:
        hosts = stack.enter_context(cable())
        scratch = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        path = options.out / "pacing_histogram.csv.xz"
        record = csv.writer(
            stack.enter_context(lzma.open(path, "wt", newline="")), lineterminator="\n"
        )
        record.writerow(("rate", "subject", "run", "deviation_ns", "count"))
        measure(options, own.runs, hosts, scratch, record)


main()
