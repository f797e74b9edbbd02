#!/usr/bin/python3
"""How the sender's cost and memory grow with what it is given: the size of a file, the number
of files, passes and seconds, the size of a message, and what is held in memory.

Writes scale.csv in long form. The cost of reading is the main thread's processor time per
message, with stub_calls.cpp preloaded: the sending thread empties the queue as fast as it can,
and the main thread has no room to wait for. A run in which the queue may have been full all
the same, because something else took the sending thread's processor, is repeated for a while;
if that does not help, its figure is kept, and a word on standard error says so. Such a run
lasts for whole passes and at least 20000 messages, for "passes" for exactly as many passes as
it says, behind enough messages that the two threads are in step.

The sending thread's cost is that of real datagrams to a socket of this machine that nobody
reads: once its buffer is full, the kernel counts every datagram as dropped, which tells
exactly how many were sent.

Data files are sparse: their pages lie in the page cache before the first run and are copied
from there as any others, whatever the disk has of them. A file that does not fit into the
free memory is left out, with a word on standard error.
"""
import collections
import contextlib
import math
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import statistics
import sys
import tempfile
import threading
import time

import harness
import user_share

SMALL_FILE = 1000
MEGABYTE = 1000000
FRAMES = 20000  # in a capture
FEWEST_MESSAGES = 20000
WARM_UP = 4096  # several times what the queue holds
QUEUE = 1024  # messages
PATIENCE = 0.5  # seconds of trying for an undisturbed run
STREAMED = 100  # megabytes of the file that is sent again and again
STEP = 0.5  # seconds between two looks at the memory
SPAN = 0.3  # seconds of real sends
LIMIT = 60  # seconds within which the sender has to start
SPARE_MEMORY = 5000 * MEGABYTE  # for everything but the one file: a preload, the captures
SPARE_DISK = 3000 * MEGABYTE

RUNS = 3
START_UPS = 20

MEGABYTES = (1, 10, 100, 1000, 10000)
FILES = (1, 10, 100, 1000, 10000, 100000)
PASSES = (1, 10, 100, 1000, 10000)
SIZES = (64, 128, 256, 512, 1024, 1400, 2048, 4096, 8192, 10240)
PRELOADED = (100, 1000, 10000, 50000, 100000)
PRELOADED_MEGABYTES = (1, 10, 100, 1000)
SECONDS = 10
BARE_BUFFERS = 16


# What is replayed.


class Sources:
    """Recordings in one folder, each made once and read once, so that it is in the page
    cache."""

    def __init__(self, folder, quick):
        self.folder = folder
        self.megabytes = fitting(some(MEGABYTES, quick))

    def data(self, size):
        path = self.folder / f"data{size}"
        if not path.exists():
            path.touch()
            os.truncate(path, size)
            read_through(path)
        return path

    def capture(self, size, count=FRAMES):
        """TCP frames, because a preload takes every capture as that."""
        path = self.folder / f"capture{size}x{count}"
        if not path.exists():
            harness.write_capture(path, size, count, harness.capture_builder.tcp)
        return path

    def directory(self, count):
        path = self.folder / f"directory{count}"
        if not path.exists():
            path.mkdir()
            content = bytes(SMALL_FILE)
            for number in range(count):
                with open(path / f"f{number}", "wb", buffering=0) as out:
                    out.write(content)
        return path


def read_through(path):
    block = bytearray(1 << 20)
    with open(path, "rb", buffering=0) as source:
        while source.readinto(block):
            pass


def available_memory():
    text = pathlib.Path("/proc/meminfo").read_text()
    return int(re.search(r"MemAvailable: +(\d+) kB", text)[1]) * 1024


def fitting(megabytes):
    """Those sizes of a file that can be in the page cache as a whole."""
    room = available_memory() - SPARE_MEMORY
    for size in megabytes:
        if size * MEGABYTE > room:
            print(
                f"file size {size} MB is left out: {room // MEGABYTE} MB of memory to hold it",
                file=sys.stderr,
            )
    return [size for size in megabytes if size * MEGABYTE <= room]


# The sender's runs.


@contextlib.contextmanager
def running(*words, **settings):
    """A process that is gone afterwards; how it ends is not measured here."""
    process = harness.start(*words, **{"stderr": None, **settings})
    try:
        yield process
    finally:
        if process.poll() is None:
            process.kill()
            process.wait()


@contextlib.contextmanager
def on(processors):
    """Whatever is started meanwhile begins there."""
    os.sched_setaffinity(0, processors)
    try:
        yield
    finally:
        os.sched_setaffinity(0, harness.PROCESSORS)


class Bench:
    """The sender under its different conditions."""

    def __init__(self, options, folder):
        self.options = options
        self.sender = options.build / "replay_sender"
        self.report = folder / "report"
        self.disturbed = 0  # figures of runs with a long queue

    def stubbed(self, *words, **settings):
        """A run over UDP of which nothing leaves: what the library says of it."""
        words = (self.sender, "--protocol", "udp", *words)
        environment = user_share.stub_settings(
            self.options, self.report, harness.OTHERS[0], **settings
        )
        return user_share.counts_of(words, environment)

    def reading_ns(self, *words, **settings):
        """Nanoseconds per message that the main thread runs, both threads in their places.
        What is queued when the clocks start is sent without being read while they run, so
        that this has to be little as well."""
        deadline = time.monotonic() + PATIENCE
        while True:
            with on(harness.MEASURED):
                seen = self.stubbed(*words, **settings)
            disturbed = seen["longest_backlog"] >= min(QUEUE, seen["messages"] / 10)
            if not disturbed or time.monotonic() > deadline:
                break
        self.disturbed += disturbed
        return seen["producer_ns"] / seen["messages"]

    def passes_ns(self, source, messages, *words):
        """The same over so many messages in a row of an endless replay."""
        words = ("--filepath", source, "--loopback", 0, *words)
        return self.reading_ns(*words, messages=messages, warmup=WARM_UP)

    def whole_passes_ns(self, source, per_pass, *words):
        """The same over as many passes as it takes for a figure."""
        messages = math.ceil(FEWEST_MESSAGES / per_pass) * per_pass
        return self.passes_ns(source, messages, *words)

    def bare_ns(self, source, per_pass):
        """Nanoseconds of one read of a message's size, without a sender around it."""
        program = self.options.build / "bench" / "bare_reader"
        passes = math.ceil(FEWEST_MESSAGES / per_pass)
        words = (program, "read", source, passes, BARE_BUFFERS)
        with on(harness.MEASURED):
            done = subprocess.run([*map(str, words)], capture_output=True, text=True)
        if done.returncode != 0:
            sys.exit(f"{program} has ended with {done.returncode}: {done.stderr}")
        return float(done.stdout)

    def until_first_send(self, source, *words):
        """Milliseconds up to the first send, and the kilobytes held by then. The kernel
        places the threads: tied to one processor they would wait for each other."""
        words = ("--filepath", source, "--loopback", 0, *words)
        began = time.monotonic_ns()
        seen = self.stubbed(*words, messages=2)
        return (seen["first_send_ns"] - began) / 1e6, seen["resident_kb"]

    def sending_ns(self, capture):
        """Nanoseconds per message that the sending thread runs, over a real socket. From
        memory, because then the queue is never empty."""
        with socket.socket(type=socket.SOCK_DGRAM) as unread:
            unread.bind(("127.0.0.1", 0))
            port = unread.getsockname()[1]
            words = ("--protocol", "udp", "--port", port, "--filetype", 1, "--filter", "tcp")
            words += ("--filepath", capture, "--preload", 1, "--loopback", 0)
            with running(self.sender, *words) as process:
                thread = harness.thread_named(process, "poller_thread")
                os.sched_setaffinity(process.pid, harness.OTHERS)
                os.sched_setaffinity(thread, harness.MEASURED)
                wait_until(lambda: dropped(port) > 0, process)
                began = sent_so_far(process, thread, port)
                time.sleep(SPAN)
                ended = sent_so_far(process, thread, port)
        return (ended[0] - began[0]) / (ended[1] - began[1])

    def memory_over_time(self, source, seconds, receive):
        """(second, kilobytes) of an endless TCP replay; 0 is when the receiver connects."""
        port = harness.free_port()
        words = ("--port", port, "--filepath", source, "--loopback", 0)
        with running(self.sender, *words) as process:
            harness.wait_for("tcp", port, process)
            with socket.create_connection(("127.0.0.1", port)) as receiver:
                began = time.monotonic()
                with receive(receiver):
                    for step in range(int(seconds / STEP) + 1):
                        time.sleep(max(0, began + step * STEP - time.monotonic()))
                        yield step * STEP, resident_kb(process)


def wait_until(condition, process):
    deadline = time.monotonic() + LIMIT
    while not condition():
        if process.poll() is not None:
            sys.exit(f"the sender has ended with {process.returncode}")
        if time.monotonic() > deadline:
            sys.exit(f"the sender has not started in {LIMIT} seconds")


def dropped(port):
    """Datagrams that found the socket's buffer full: the last column."""
    table = pathlib.Path("/proc/net/udp").read_text()
    return int(re.search(rf": [0-9A-F]{{8}}:{port:04X} .* (\d+) *$", table, re.MULTILINE)[1])


def sent_so_far(process, thread, port):
    """(nanoseconds, datagrams) of one moment. Stopped meanwhile, because the time of a thread
    that runs is brought up to date at the kernel's ticks alone."""
    process.send_signal(signal.SIGSTOP)
    _, status = os.waitpid(process.pid, os.WUNTRACED)
    if not os.WIFSTOPPED(status):
        process.returncode = os.waitstatus_to_exitcode(status)
        sys.exit(f"the sender has ended with {process.returncode}")
    values = harness.cpu_ns(process, thread), dropped(port)
    process.send_signal(signal.SIGCONT)
    return values


def resident_kb(process):
    found = re.search(r"VmRSS:\s+(\d+) kB", pathlib.Path(f"/proc/{process.pid}/status").read_text())
    if found is None:
        sys.exit(f"the sender has ended with {process.wait()}")
    return int(found[1])


@contextlib.contextmanager
def drained(receiver):
    """A receiver that takes everything, and lets the kernel throw it away."""
    enough = threading.Event()
    receiver.settimeout(LIMIT)

    def drain():
        nothing = bytearray(1 << 20)
        while not enough.is_set():
            if receiver.recv_into(nothing, len(nothing), socket.MSG_TRUNC) == 0:
                return

    thread = threading.Thread(target=drain)
    thread.start()
    try:
        yield
    finally:
        enough.set()
        thread.join()


@contextlib.contextmanager
def stalled(_receiver):
    """A receiver that never reads."""
    yield


# The curves: each case is a number of runs and a function that gives rows of
# (curve, x, unit of x, value, unit).


def some(values, quick):
    return values[:2] if quick else values


def file_sizes(bench, sources, quick):
    def case(x):
        messages = math.ceil(x * MEGABYTE / user_share.MESSAGE)
        source = sources.data(x * MEGABYTE)
        return [
            ("file size", x, "MB", bench.whole_passes_ns(source, messages), "ns/message"),
            ("file size, bare reader", x, "MB", bench.bare_ns(source, messages), "ns/message"),
        ]

    return [(RUNS, case, x) for x in sources.megabytes]


def directory_sizes(bench, sources, quick):
    def case(x):
        source = sources.directory(x)
        milliseconds, _ = bench.until_first_send(source)
        return [
            ("directory size", x, "files", bench.whole_passes_ns(source, x), "ns/file"),
            ("start-up by directory size", x, "files", milliseconds, "ms"),
        ]

    return [(RUNS, case, x) for x in some(FILES, quick)]


def passes(bench, sources, quick):
    def case(x):
        messages = math.ceil(MEGABYTE / user_share.MESSAGE) * x
        value = bench.passes_ns(sources.data(MEGABYTE), messages)
        return [("passes", x, "passes", value, "ns/message")]

    return [(RUNS, case, x) for x in some(PASSES, quick)]


def message_sizes(bench, sources, quick):
    def case(x):
        source = sources.capture(x)
        reading = bench.whole_passes_ns(source, FRAMES, "--filetype", 1, "--filter", "tcp")
        sending = bench.sending_ns(source)
        curve = "message size (sending thread, real socket)"
        return [
            ("message size", x, "bytes", reading, "ns/message"),
            (curve, x, "bytes", sending, "ns/message"),
        ]

    return [(RUNS, case, x) for x in some(SIZES, quick)]


def memory_over_time(bench, sources, quick):
    receivers = {"streamed": drained, "stalled receiver": stalled}

    def case(name):
        source = sources.data(STREAMED * MEGABYTE)
        seen = bench.memory_over_time(source, 2 if quick else SECONDS, receivers[name])
        return [(f"resident memory, {name}", x, "s", value, "kB") for x, value in seen]

    return [(RUNS, case, name) for name in receivers]


def preloaded_memory(bench, sources, quick):
    def case(x):
        words = ("--preload", 1)
        _, data = bench.until_first_send(sources.data(x * user_share.MESSAGE), *words)
        words += ("--filetype", 1, "--filter", "tcp")
        _, capture = bench.until_first_send(sources.capture(64, x), *words)
        return [
            ("resident memory, preloaded", x, "messages", data, "kB"),
            ("resident memory, preloaded capture", x, "messages", capture, "kB"),
        ]

    return [(RUNS, case, x) for x in some(PRELOADED, quick)]


def start_ups(bench, sources, quick):
    def plain(x):
        milliseconds, _ = bench.until_first_send(sources.data(MEGABYTE))
        return [("start-up", x, "", milliseconds, "ms")]

    def preloaded(x):
        milliseconds, _ = bench.until_first_send(sources.data(x * MEGABYTE), "--preload", 1)
        return [("start-up, preloaded", x, "MB", milliseconds, "ms")]

    cases = [(RUNS, preloaded, x) for x in some(PRELOADED_MEGABYTES, quick)]
    return [(START_UPS, plain, 0), *cases]


CURVES = (
    file_sizes,
    directory_sizes,
    passes,
    message_sizes,
    memory_over_time,
    preloaded_memory,
    start_ups,
)


def prepare(sources, quick):
    """Makes everything beforehand, and lets the disk finish: its writes would take their
    processor time from the runs."""
    for size in sources.megabytes:
        sources.data(size * MEGABYTE)
    for count in some(FILES, quick):
        sources.directory(count)
    for size in some(SIZES, quick):
        sources.capture(size)
    for count in some(PRELOADED, quick):
        sources.capture(64, count)
        sources.data(count * user_share.MESSAGE)
    sources.data(STREAMED * MEGABYTE)
    os.sync()


def print_table(medians):
    """One line per curve."""
    curves = collections.defaultdict(list)
    for (curve, x, x_unit, unit), values in medians.items():
        curves[curve, x_unit, unit].append(f"{x:g}: {statistics.median(values):.5g}")
    for (curve, x_unit, unit), points in curves.items():
        print(f"{curve} ({x_unit or 'no x'}: {unit})  {', '.join(points)}", file=sys.stderr)


def main():
    options = harness.options(__doc__)
    columns = ("curve", "x", "x_unit", "run", "value", "unit")
    samples = harness.Samples(options.out / "scale.csv", columns)
    medians = collections.defaultdict(list)
    with tempfile.TemporaryDirectory(dir="/var/tmp") as directory:
        folder = pathlib.Path(directory)
        if shutil.disk_usage(folder).free < SPARE_DISK:
            sys.exit(f"{SPARE_DISK // MEGABYTE} MB have to be free below {folder}")
        sources = Sources(folder, options.quick)
        bench = Bench(options, folder)
        prepare(sources, options.quick)
        cases = [case for curve in CURVES for case in curve(bench, sources, options.quick)]
        for run in range(1 if options.quick else START_UPS):
            for runs, measure, x in cases:
                if run >= runs:
                    continue
                for curve, at, x_unit, value, unit in measure(x):
                    samples.add(curve=curve, x=at, x_unit=x_unit, run=run, value=value, unit=unit)
                    medians[curve, at, x_unit, unit].append(value)
    print_table(medians)
    if bench.disturbed != 0:
        print(
            f"in {bench.disturbed} runs the queue was long: something else took the sending"
            " thread's processor",
            file=sys.stderr,
        )


main()
