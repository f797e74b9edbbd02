"""The sender when memory runs out: each allocation that a run makes fails once, and the
run either goes on as if nothing had been or ends in a way that tells what happened.

REPLAY_FAILING_MALLOC names the library that makes an allocation fail. It stands in for
the C library's heap, which a sanitizer's build has replaced already: there, only the
unit tests cover this. REPLAY_ALLOCATION_RECORD names a file to which a line is added for
each kind of run: how often it ended in which way.
"""

import collections
import contextlib
import dataclasses
import os
import pathlib
import re
import signal

import pytest

from capture_builder import pcap, tcp
from conftest import (
    BINARY,
    LOCALHOST,
    ROOT,
    Program,
    Receiver,
    Sender,
    echo,
    is_listening,
    not_with,
    pieces,
)
from udp_receiver import UdpReceiver

LIBRARY = os.path.abspath(
    os.environ.get(
        "REPLAY_FAILING_MALLOC", ROOT / "build" / "release" / "tests" / "failing_malloc.so"
    )
)
DATA = bytes(range(256)) * 97 + b"the end"
PAYLOADS = [b"first payload", b"second payload", b"third payload"]
SEGMENTS = [tcp(payload) for payload in PAYLOADS]
DESCRIPTION = "link-type EN10MB Ethernet, snapshot lengthL: 262144"

pytestmark = not_with(("asan", "tsan"), "they have replaced the heap")


class StarvedSender(Sender):
    """A sender whose n-th allocation from the start of main on fails; 0: none does."""

    def __init__(self, directory, words, number, lasting=False):
        self._count = directory / "count"
        self._count.write_bytes(bytes(8))
        environment = dict(
            os.environ,
            LD_PRELOAD=LIBRARY,
            REPLAY_FAIL_ALLOCATION=f"{number}{'+' if lasting else ''}",
            REPLAY_ALLOCATION_COUNT=str(self._count),
        )
        Program.__init__(self, directory, [BINARY, *words], env=environment)

    def allocations(self):
        return int.from_bytes(self._count.read_bytes(), "little")


# ------------------------------------------------------------ the runs to starve


RECORD = os.environ.get("REPLAY_ALLOCATION_RECORD")
# How a run may end, in the order of the record.
VERDICTS = ("aborted", "whole", "skipped", "exit in libpcap", "crash in libpcap")


@dataclasses.dataclass
class Scenario:
    """One way to run the sender, and what it sends and prints when all goes well."""

    source: str
    protocol: str
    messages: list
    words: tuple = ()
    reports: int = 0  # lines "reading from file"
    settings: dict = dataclasses.field(default_factory=dict)

    def create(self, directory):
        """The path to replay. The names are too long to be kept within a string."""
        if self.source == "capture":
            path = directory / "a capture with a long name.pcap"
            path.write_bytes(pcap(SEGMENTS))
            return path
        if self.source == "file":
            path = directory / "a file with a long name"
            path.write_bytes(DATA)
            return path
        path = directory / "a directory with a long name"
        path.mkdir()
        for number in range(3):
            (path / f"a file with a long name {number}").write_bytes(b"%d" % number)
        return path

    def output(self, path, address):
        files = f"reading from file: {path}, {DESCRIPTION}\n" * self.reports
        return echo(path, address, protocol=self.protocol, **self.settings) + files


FILTER = ("--filetype", "1", "--filter", "tcp and port 5000")
CAPTURE = {"filetype": 1, "filter": "tcp and port 5000"}
SCENARIOS = {
    "data file, UDP": Scenario("file", "udp", pieces(DATA)),
    "data file, TCP": Scenario("file", "tcp", pieces(DATA)),
    "data file, preloaded, UDP": Scenario(
        "file", "udp", pieces(DATA)[::-1], ("--preload", "1")
    ),
    "directory of three, UDP": Scenario("directory", "udp", [b"0", b"1", b"2"]),
    "capture, UDP": Scenario("capture", "udp", PAYLOADS, FILTER, 1, CAPTURE),
    "capture, TCP": Scenario("capture", "tcp", PAYLOADS, FILTER, 1, CAPTURE),
    "capture, preloaded, UDP": Scenario(
        "capture", "udp", PAYLOADS[::-1], (*FILTER, "--preload", "1"), 1, CAPTURE
    ),
}


class Run:
    """One run of a scenario with one failing allocation, from start to end."""

    def __init__(self, directory, scenario, path, port, number, lasting=False):
        self.scenario = scenario
        self.expected = b"".join(scenario.messages)
        self.udp = UdpReceiver() if scenario.protocol == "udp" else None
        self.tcp = None
        self.port = self.udp.port if self.udp else port
        self.received = []
        directory.mkdir()
        self.sender = StarvedSender(
            directory,
            ["--filepath", path, "--port", str(self.port),
             "--protocol", scenario.protocol, *scenario.words],
            number,
            lasting,
        )
        self.output = scenario.output(path, f"{LOCALHOST}:{self.port}")

    def receive(self):
        """Takes what there is; whether it is all that may come."""
        self._connect()
        self._take()
        return self.complete() or SKIPPED_SOURCE.fullmatch(self.sender.errors())

    def _connect(self):
        if not self.udp and not self.tcp and is_listening(self.port):
            # The sender may end between that look and the end of this call.
            with contextlib.suppress(ConnectionRefusedError, ConnectionResetError):
                self.tcp = Receiver(self.port)

    def _take(self):
        if self.udp:
            while not self.udp.is_quiet():
                self.received.append(self.udp.socket.recv(65536))
        elif self.tcp and self.tcp.pending():
            self.received.append(self.tcp.read_exactly(self.tcp.pending()))

    def finish(self):
        """Until the sender has ended, stopped if need be; its status."""
        self.sender.wait_until(
            lambda: self.receive() or not self.sender.running(), "all messages, or the end"
        )
        self._let_it_spin()
        if self.sender.running():
            self.sender.signal(signal.SIGINT)
        status = self.sender.wait()
        self._take()
        return status

    def _let_it_spin(self):
        """Until the main thread holds the run, as its processor time tells, or has
        ended after all."""
        enough = self._time_used() + 50_000_000
        self.sender.wait_until(
            lambda: self._time_used() >= enough or not self.sender.running(), "spinning"
        )

    def _time_used(self):
        with contextlib.suppress(FileNotFoundError):
            return self.sender.cpu_times().get(self.sender.pid, 0)
        return 0

    def close(self):
        self.sender.kill()
        for receiver in (self.udp, self.tcp):
            if receiver:
                receiver.close()

    def in_order(self):
        """Whether what came is the start of what was to come, cut as it was."""
        if self.udp:
            return self.received == self.scenario.messages[: len(self.received)]
        return self.expected.startswith(b"".join(self.received))

    def complete(self):
        return b"".join(self.received) == self.expected

    def __str__(self):
        return f"{self.sender.output()}{self.sender.errors()}{self.received!r:.200}"


# -------------------------------------------------------------- the ends allowed

BAD_ALLOC = (
    r"terminate called after throwing an instance of '(std::bad_alloc|St9bad_alloc)'\n"
    r"  what\(\):  std::bad_alloc\n"
)
FATAL = r"FATAL ERROR: OUT OF MEMORY \((epoll|tcp_replay)\.h:[0-9]+\)\n"
# A library that is out of memory tells it as a failure of its own.
NO_THREAD = (
    r"terminate called after throwing an instance of 'std::system_error'\n"
    r"  what\(\):  Resource temporarily unavailable\n"
)
EXCEPTION = (
    r"terminate called after throwing an instance of 'vesk::details::vesk_ex'\n"
    r"  what\(\):  (Dir .*/ no files|Open pcap file failed! Error message: .*)\n"
)
SKIPPED = r"(compile|set) fileter failed! .*\n"
SKIPPED_SOURCE = re.compile(SKIPPED)
ABORT = re.compile(f"({SKIPPED})?({BAD_ALLOC}|{FATAL}|{NO_THREAD}|{EXCEPTION})")
SCANNER = re.compile(r"out of dynamic memory in yy\w+\(\)\n")


def end_by_libpcaps_scanner(status, output, errors):
    """libpcap's filter scanner cannot do without memory: it ends the process with
    status 2, or falls over a null pointer of its own. It works right behind the line
    that describes the capture."""
    if not output.endswith(f"{DESCRIPTION}\n"):
        return None
    if status == 2 and SCANNER.fullmatch(errors):
        return "exit in libpcap"
    if status == -signal.SIGSEGV and errors == "":
        return "crash in libpcap"
    return None


def judge(run, status):
    """Which of the verdicts the run's end was; None if it may not end so."""
    output, errors = run.sender.output(), run.sender.errors()
    if not run.in_order() or not run.output.startswith(output):
        return None
    if status == 0 and errors == "" and run.complete() and output == run.output:
        return "whole"
    if status == 0 and SKIPPED_SOURCE.fullmatch(errors) and output == run.output:
        return "skipped"
    if status == -signal.SIGABRT and ABORT.fullmatch(errors):
        return "aborted"
    return end_by_libpcaps_scanner(status, output, errors)


@pytest.fixture
def starve(tmp_path, port):
    """starve(scenario, number, lasting=) does one run; its verdict and how many
    allocations it made."""
    paths = {}
    runs = []

    def once(name, number, lasting=False):
        scenario = SCENARIOS[name]
        if name not in paths:
            paths[name] = scenario.create(tmp_path)
        directory = tmp_path / f"run-{len(runs)}"
        run = Run(directory, scenario, paths[name], port, number, lasting)
        runs.append(run)
        status = run.finish()
        verdict = judge(run, status)
        assert verdict, f"allocation {number} of {name}: status {status}\n{run}"
        assert run.sender.allocations() >= number, f"{name} ended before allocation {number}"
        run.close()
        return verdict, run.sender.allocations()

    yield once
    for run in runs:
        if run.sender.running():
            run.close()


def test_the_library_is_there():
    assert pathlib.Path(LIBRARY).exists(), f"no library at {LIBRARY}"


@pytest.mark.parametrize("name", SCENARIOS)
def test_each_allocation_that_fails_is_survived_or_told(starve, name):
    verdict, count = starve(name, 0)
    assert verdict == "whole" and count > 10
    verdicts = [starve(name, number)[0] for number in range(1, count + 1)]
    counts = collections.Counter(verdicts)
    record(name, count, counts)
    assert counts["aborted"] >= 20
    assert counts["whole"] <= 4
    if "capture" in name:
        assert counts["skipped"] >= 1
        assert counts["exit in libpcap"] <= 3
        assert counts["crash in libpcap"] <= 1
    else:
        # libpcap has no part in these: nothing but a retry saves them.
        assert counts["aborted"] + counts["whole"] == count


def record(name, count, counts):
    if RECORD:
        cells = [name, count, *(counts[verdict] for verdict in VERDICTS)]
        with open(RECORD, "a") as file:
            file.write(f"| {' | '.join(map(str, cells))} |\n")


@pytest.mark.parametrize("name", SCENARIOS)
def test_memory_that_stays_away_ends_the_run_whenever_it_goes(starve, name):
    """From some allocation on, each fails: those of the report and of each retry are
    among them."""
    _, count = starve(name, 0)
    verdicts = [starve(name, number, True)[0] for number in range(1, count + 1)]
    counts = collections.Counter(verdicts)
    assert counts["aborted"] >= 20
    assert counts["whole"] == 0
    if "capture" in name:
        assert counts["exit in libpcap"] + counts["crash in libpcap"] <= 4
    else:
        assert counts["aborted"] == count
