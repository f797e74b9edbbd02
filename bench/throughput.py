#!/usr/bin/python3
"""Throughput over loopback into one receiver, sink.cpp, which is the same for all subjects.

TCP: a file from the page cache, up to its last byte. The subjects listen, except iperf3,
which sends the same file (-F). Blocks: 10240 bytes for sender, socat-10k, iperf3 (-l) and
bare, which reads and sends in one thread; 8192 for socat-8k and ncat, 16384 for nc. Socket
options are each subject's own (only the sender sets TCP_NODELAY), the congestion control is
the system's. The clock runs from the first arrival to the last.

UDP: messages of one size, as many as the subject can send, over a window that begins 0.2
seconds after the first arrival. The sender replays a capture in endless passes, the others
send one buffer over and over; only iperf3 connects its socket. A message that found no room
at the receiver was sent all the same: bytes are those received and those dropped.

Processors: the thread that sends has the last one, everything else shares the others, where
the receiver goes first. On a machine with nothing else to do the scheduler settles the
subjects in these places by itself; the rule keeps chance out and is the same for all. On two
processors it leaves the sender's reading thread only what the receiver does not use.

The receiver reads the processor times at both ends of its clock, over TCP just before it
connects; that of a running thread is up to one timer tick old. sending_cpu_seconds are the
sending thread's, which is the only one in every subject but the sender.
"""
import csv
import json
import os
import pathlib
import signal
import socket
import statistics
import subprocess
import sys
import tempfile

import harness
import iperf3_server
from harness import capture_builder

RUNS, QUICK_RUNS = 5, 1
STREAM, QUICK_STREAM = 1_000_000_000, 100_000_000  # bytes
WINDOW, QUICK_WINDOW = 1, 0.1  # seconds
SIZES = (64, 500, 1400, 10240)
FRAMES, QUICK_FRAMES = 20000, 2000  # in a capture; beginning a pass costs as well
PATIENCE = 10  # seconds for a subject to end by itself
LARGEST = {"mgen": 8192}  # it refuses longer messages
BY_STDIN = ("nc", "ncat")
COLUMNS = (
    "protocol", "size", "subject", "run", "seconds", "bytes", "received", "dropped",
    "sending_cpu_seconds", "process_cpu_seconds",
)


def stream_commands(build, path, port):
    socat = ("socat", "-u", f"FILE:{path}", f"TCP-LISTEN:{port},bind=127.0.0.1")
    return {
        "sender": (build / "replay_sender", "--filepath", path, "--port", port),
        "socat-8k": socat,
        "socat-10k": (*socat[:2], "-b", 10240, *socat[2:]),
        "nc": ("nc", "-l", "-N", "127.0.0.1", port),
        "ncat": ("ncat", "-l", "--send-only", "127.0.0.1", port),
        "iperf3": ("iperf3", "-c", "127.0.0.1", "-p", port, "-l", 10240, "-F", path),
        "bare": (build / "bench/sink", "send-stream", port, path),
    }


def datagram_commands(build, folder, size, port):
    replay = (build / "replay_sender", "--protocol", "udp", "--ip", "127.0.0.1", "--port", port)
    replay += ("--filetype", 1, "--loopback", 0)
    flow = f"ON 1 UDP DST 127.0.0.1/{port} PERIODIC [-1 {size}]"
    return {
        "sender-streamed": (*replay, "--filepath", folder / f"udp-{size}", "--filter", "udp"),
        # What is preloaded is cut as TCP.
        "sender-preloaded": (
            *replay, "--filepath", folder / f"tcp-{size}", "--filter", "tcp", "--preload", 1,
        ),
        "sockperf": (
            "sockperf", "throughput", "-i", "127.0.0.1", "-p", port, "-m", size, "-t", 3600,
        ),
        "iperf3": (
            "iperf3", "-u", "-b", 0, "-c", "127.0.0.1", "-p", port, "-l", size, "-t", 3600,
        ),
        "mgen": ("mgen", "nolog", "event", flow),
        "bare": (build / "bench/sink", "send-datagrams", port, size),
    }


class Subject:
    """A sending process, which does not outlive its block."""

    def __init__(self, name, words, log, stdin=subprocess.DEVNULL):
        self.name = name
        self.log = log
        with open(log, "wb") as out:
            self.process = harness.start(*words, stdin=stdin, stdout=out, stderr=out)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.returncode is None:
            harness.stop(self.process, signal.SIGKILL)

    def fail(self, how):
        said = self.log.read_text(errors="replace").strip()[-1000:]
        sys.exit(f"throughput: {self.name} {how}\n{said}")

    def is_sender(self):
        return self.name.startswith("sender")

    def place(self):
        """Gives the sending thread its processor: the thread's id."""
        thread = self.process.pid
        if self.is_sender():
            thread = harness.thread_named(self.process, "poller_thread")
        os.sched_setaffinity(thread, harness.MEASURED)
        return thread

    def end_by_itself(self):
        try:
            status = self.process.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            self.fail("does not end")
        if status != 0:
            self.fail(f"has ended with {status}")

    def end(self):
        """For one that would go on for ever."""
        if self.process.poll() is not None:
            self.fail(f"has ended with {self.process.returncode}")
        # Only the sender is asked: some others take no notice while they send.
        harness.stop(self.process, signal.SIGINT if self.is_sender() else signal.SIGKILL)
        if self.is_sender() and self.process.returncode != 0:
            self.fail(f"has ended with {self.process.returncode}")
        if self.is_sender() and "socket error" in self.log.read_text(errors="replace").lower():
            self.fail("has stopped sending")


class Sink:
    """The receiver of a subject that is running."""

    def __init__(self, build, mode, where, amount, subject):
        words = (mode, where, amount, subject.process.pid, subject.place())
        inherited = () if mode == "connect" else (where,)
        self.subject = subject
        self.process = harness.start(
            build / "bench/sink", *words, stdout=subprocess.PIPE, stderr=None, pass_fds=inherited
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        if self.process.returncode is None:
            harness.stop(self.process, signal.SIGKILL)
        self.process.stdout.close()

    def wait(self):
        """Until it has read the subject's clocks."""
        if self.process.stdout.readline() != b"ready\n":
            self.subject.fail("has not met the receiver")

    def result(self):
        report = self.process.stdout.readline()
        if self.process.wait() != 0:
            self.subject.fail("has not been received")
        return json.loads(report)


class Bench:
    def __init__(self, options, scratch):
        self.build = options.build
        self.scratch = scratch
        self.path = scratch / "data"
        self.log = scratch / "log"
        self.stream = QUICK_STREAM if options.quick else STREAM
        self.window = QUICK_WINDOW if options.quick else WINDOW
        self.frames = QUICK_FRAMES if options.quick else FRAMES

    def prepare(self):
        harness.write_data(self.path, self.stream)
        for size in SIZES:
            for kind in ("udp", "tcp"):
                frame = getattr(capture_builder, kind)
                harness.write_capture(self.scratch / f"{kind}-{size}", size, self.frames, frame)
        for path in self.scratch.iterdir():
            with open(path, "rb") as written:
                os.fsync(written)  # or the runs would share the machine with this

    def measure_stream(self, name):
        take = self.take_iperf3_stream if name == "iperf3" else self.take_stream
        seen = take(name)
        del seen["messages"], seen["dropped"]  # a stream has none
        return seen

    def take_stream(self, name):
        port = harness.free_port()
        with self.start_stream(name, port) as subject:
            harness.wait_for("tcp", port, subject.process)
            with Sink(self.build, "connect", port, self.stream, subject) as sink:
                sink.wait()
                seen = sink.result()
            if subject.is_sender():
                subject.end()
            else:
                subject.end_by_itself()
        return seen

    def take_iperf3_stream(self, name):
        with iperf3_server.Server(udp=False) as server:
            with self.start_stream(name, server.port) as subject:
                data = server.meet().fileno()
                with Sink(self.build, "stream", data, self.stream, subject) as sink:
                    sink.wait()
                    server.begin()
                    seen = sink.result()
                server.end()
                subject.end_by_itself()
        return seen

    def start_stream(self, name, port):
        words = stream_commands(self.build, self.path, port)[name]
        with open(self.path if name in BY_STDIN else os.devnull, "rb") as stdin:
            return Subject(name, words, self.log, stdin)

    def measure_datagrams(self, name, size):
        take = self.take_iperf3_datagrams if name == "iperf3" else self.take_datagrams
        seen = take(name, size)
        if seen["bytes"] != seen["messages"] * size:
            sys.exit(f"throughput: {name} has sent messages of other lengths than {size}")
        sent = seen["messages"] + seen["dropped"]
        return {**seen, "bytes": sent * size, "received": seen["messages"]}

    def take_datagrams(self, name, size):
        with socket.socket(type=socket.SOCK_DGRAM) as data:
            data.bind(("127.0.0.1", 0))
            with self.start_datagrams(name, size, data.getsockname()[1]) as subject:
                return self.take_window(subject, data)

    def take_iperf3_datagrams(self, name, size):
        with iperf3_server.Server(udp=True) as server:
            with self.start_datagrams(name, size, server.port) as subject:
                data = server.meet()
                server.begin()
                return self.take_window(subject, data)

    def start_datagrams(self, name, size, port):
        words = datagram_commands(self.build, self.scratch, size, port)[name]
        return Subject(name, words, self.log)

    def take_window(self, subject, data):
        with Sink(self.build, "datagrams", data.fileno(), self.window, subject) as sink:
            sink.wait()
            seen = sink.result()
        subject.end()
        return seen


def cases(bench):
    """Protocol, size (over TCP the file's) and subject."""
    for name in stream_commands(bench.build, bench.path, 0):
        yield "tcp", bench.stream, name
    for size in SIZES:
        for name in datagram_commands(bench.build, bench.scratch, size, 0):
            if size <= LARGEST.get(name, size):
                yield "udp", size, name


def measure(bench, samples, run):
    for protocol, size, name in cases(bench):
        try:
            if protocol == "tcp":
                seen = bench.measure_stream(name)
            else:
                seen = bench.measure_datagrams(name, size)
        except OSError as error:
            sys.exit(f"throughput: {protocol} {name}: {error}")
        known = {column: seen[column] for column in COLUMNS if column in seen}
        samples.add(protocol=protocol, size=size, subject=name, run=run, **known)


def report_absent():
    for name, largest in LARGEST.items():
        for size in SIZES:
            if size > largest:
                print(f"udp {size} {name}: absent, sends at most {largest} bytes", file=sys.stderr)


def print_medians(path):
    samples = {}
    with open(path, newline="") as lines:
        for row in csv.DictReader(lines):
            key = row["protocol"], row["size"], row["subject"]
            samples.setdefault(key, []).append(row)
    for (protocol, size, name), rows in samples.items():
        word, unit = ("MB", 1e6) if protocol == "tcp" else ("messages", int(size))
        rate, cost = (
            statistics.median(float(row["bytes"]) / unit / float(row[column]) for row in rows)
            for column in ("seconds", "sending_cpu_seconds")
        )
        print(
            f"{protocol} {size:>10} {name:16} {rate:9.0f} {word} per second,"
            f" {cost:9.0f} per processor second of the sending thread",
            file=sys.stderr,
        )


def main():
    options = harness.options(__doc__)
    os.sched_setaffinity(0, harness.OTHERS)
    options.out.mkdir(parents=True, exist_ok=True)
    path = options.out / "throughput.csv"
    report_absent()
    with tempfile.TemporaryDirectory() as folder:
        bench = Bench(options, pathlib.Path(folder))
        bench.prepare()
        samples = harness.Samples(path, COLUMNS)
        for run in range(QUICK_RUNS if options.quick else RUNS):
            measure(bench, samples, run)
    print_medians(path)


if __name__ == "__main__":
    main()
