"""The harness of the end-to-end tests: the built program as a child process,
receivers that connect to it, and the texts that it is expected to print.

REPLAY_SENDER names the binary, REPLAY_SANITIZER says how it was built ("",
"asan" or "tsan"); the sanitizers' own options pass through from the environment.
"""

import contextlib
import fcntl
import os
import pathlib
import random
import re
import select
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time
from signal import SIGINT

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BINARY = os.path.abspath(
    os.environ.get("REPLAY_SENDER", ROOT / "build" / "release" / "replay_sender")
)
SANITIZER = os.environ.get("REPLAY_SANITIZER", "")

LOCALHOST = "127.0.0.1"
MESSAGE_SIZE = 10240
DEADLINE = 60.0  # seconds; long, so that only a hang can reach it
POLL_INTERVAL = 0.002
SKIPPED = 77  # exit status that reports skipped tests to the caller


# ---------------------------------------------------------------- expectations


def echo(
    filepath,
    address,
    filetype=0,
    loopback=1,
    in_speed=0,
    filter="",
    protocol="tcp",
    device="",
):
    """The eight lines by which the program shows its configuration."""
    return (
        f"address: {address}\n"
        f"filepath: {filepath}\n"
        f"filetype: {filetype}\n"
        f"loopback: {loopback}\n"
        f"in_speed: {in_speed}\n"
        f"filter: {filter}\n"
        f"protocol: {protocol}\n"
        f"device: {device}\n"
    )


def debug_dump(messages, first=1):
    """The dump blocks of these messages, numbered from `first`."""
    blocks = []
    for number, message in enumerate(messages, first):
        text = f"seq: {number}\ndata length: {len(message)}\n"
        for position, byte in enumerate(message, 1):
            # Bytes are dumped as signed characters widened to 32 bits.
            text += f"{byte:02x} " if byte < 0x80 else f"ffffff{byte:02x} "
            if position % 8 == 0:
                text += "\n"
        blocks.append(text + "\n" + "=" * 29 + "\n")
    return "".join(blocks)


def uncaught(message):
    """What the C++ runtime writes when this error leaves main."""
    return (
        "terminate called after throwing an instance of 'vesk::details::vesk_ex'\n"
        f"  what():  {message}\n"
    )


class Matching:
    """Equal to every text that the pattern matches as a whole."""

    def __init__(self, pattern):
        self.pattern = pattern

    def __eq__(self, text):
        return re.fullmatch(self.pattern, text) is not None

    def __repr__(self):
        return f"Matching({self.pattern!r})"


def fatal(text, header):
    """What a fatal check writes; its line number is left open."""
    return Matching(rf"{re.escape(text)} \({re.escape(header)}:[0-9]+\)\n")


def random_bytes(count, seed=1):
    """The same ones each time."""
    return random.Random(seed).randbytes(count)


def pieces(data):
    """The messages in which these bytes of a data file are sent."""
    return [data[at : at + MESSAGE_SIZE] for at in range(0, len(data), MESSAGE_SIZE)]


# ------------------------------------------------------------------ the sender


class Program:
    """One run of a program, both of its streams kept in files.

    Every wait has a deadline and fails at once when the program ends instead.
    A run that outlives its test is killed by the fixture that started it.
    """

    name = "program"

    def __init__(self, directory, words, stdout=None, stderr=None, **options):
        self._directory = directory
        with contextlib.ExitStack() as files:
            output = stdout or files.enter_context(open(directory / "stdout", "wb"))
            errors = stderr or files.enter_context(open(directory / "stderr", "wb"))
            self._process = subprocess.Popen(
                [*map(os.fspath, words)],
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=errors,
                **options,
            )
        self.pid = self._process.pid
        self._pidfd = os.pidfd_open(self.pid)

    # What can be seen of the run.

    def output(self):
        return self._stream("stdout")

    def errors(self):
        return self._stream("stderr")

    def _stream(self, name):
        path = self._directory / name
        if not path.exists():
            return ""
        return path.read_bytes().decode(errors="backslashreplace")

    def running(self):
        return self._process.poll() is None

    # Waiting.

    def pause(self):
        """A moment, or until the program ends."""
        select.select([self._pidfd], [], [], POLL_INTERVAL)

    def wait_until(self, condition, what, deadline=DEADLINE):
        """Returns the condition's first true value."""
        limit = time.monotonic() + deadline
        while True:
            ended = not self.running()
            value = condition()
            if value:
                return value
            if ended:
                self.fail(f"ended with {self._process.returncode} before {what}")
            if time.monotonic() > limit:
                self.fail(f"not seen in {deadline} s: {what}")
            self.pause()

    # Ending.

    def signal(self, number):
        self._process.send_signal(number)

    def wait(self, deadline=DEADLINE):
        """The exit status; a negative number is the signal that ended it."""
        try:
            return self._process.wait(deadline)
        except subprocess.TimeoutExpired:
            self.fail(f"still running after {deadline} s")

    def kill(self):
        if self.running():
            self._process.kill()
            self._process.wait()
        if self._pidfd is not None:
            os.close(self._pidfd)
            self._pidfd = None

    def fail(self, what):
        pytest.fail(
            f"{self.name}: {what}\n"
            f"--- stdout\n{self.output()}--- stderr\n{self.errors()}"
        )

    def states(self):
        """By thread: the kernel's letter for what it does."""
        found = {}
        for thread in pathlib.Path(f"/proc/{self.pid}/task").iterdir():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                text = (thread / "stat").read_text()
                found[int(thread.name)] = text.rpartition(")")[2].split()[0]
        return found

    def naps(self):
        """How often its main thread has gone to sleep."""
        with open(f"/proc/{self.pid}/status") as status:
            return sum(
                int(line.split()[1])
                for line in status
                if line.startswith("voluntary_ctxt_switches")
            )

    def is_blocked_in(self, thread, function):
        """Whether this thread waits in the kernel, in a function with this in its name."""
        place = pathlib.Path(f"/proc/{self.pid}/task/{thread}/wchan")
        return function in place.read_text()


class Sender(Program):
    """One run of the sender."""

    name = "sender"

    def __init__(self, directory, words, argv0=None, cwd=None, port=None):
        self.port = port
        super().__init__(
            directory, [argv0 or BINARY, *words], executable=BINARY, cwd=cwd
        )

    # What can be seen of the run.

    @property
    def address(self):
        return f"{LOCALHOST}:{self.port}"

    def memory(self):
        """Resident bytes."""
        with open(f"/proc/{self.pid}/status") as status:
            for line in status:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1]) * 1024
        raise AssertionError("no VmRSS line; the sender has ended")

    def cpu_times(self):
        """Nanoseconds of processor time by thread number; the main thread's
        number is the pid."""
        times = {}
        tasks = pathlib.Path(f"/proc/{self.pid}/task")
        for thread in tasks.iterdir():
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                run_time = (thread / "schedstat").read_text().split()[0]
                times[int(thread.name)] = int(run_time)
        return times

    def threads(self):
        """The main thread's number and the poller thread's. A thread with the
        program's own name that is not the main one belongs to a sanitizer."""
        names = {}
        for thread in self.cpu_times():
            names[thread] = (
                pathlib.Path(f"/proc/{self.pid}/task/{thread}/comm").read_text()
            )
        return [t for t in names if t == self.pid or names[t] != names[self.pid]]

    def descriptors(self):
        """What each descriptor refers to."""
        directory = pathlib.Path(f"/proc/{self.pid}/fd")
        found = {}
        for entry in directory.iterdir():
            try:
                found[int(entry.name)] = os.readlink(entry)
            except FileNotFoundError:
                continue  # closed meanwhile
        return found

    def poller(self):
        (thread,) = set(self.threads()) - {self.pid}
        return thread

    # Waiting.

    def wait_for_output(self, text, count=1):
        """Waits until standard output holds the text (`count` times)."""
        self.wait_until(
            lambda: self.output().count(text) >= count, f"output {text!r} x {count}"
        )

    def wait_until_listening(self):
        """Looks at the kernel's table, so that no connection is used up."""
        self.wait_until(lambda: is_listening(self.port), f"listening on {self.port}")

    def wait_until_replaying(self):
        """Waits until a stop signal is no longer forgotten.

        The main thread clears an early stop request when the replay starts.
        From then on it either works or spins, so processor time well above
        what the set-up costs shows that it got there.
        """
        self.wait_for_output("\ndevice: ")
        self.wait_for_progress([self.pid])

    def wait_for_progress(self, threads=None, milliseconds=50):
        """Waits until these threads (all by default) have run for so long.

        Both threads spin when they have nothing to do, so after this a sender
        that had more to say would have said it.
        """
        start = self.cpu_times()
        wanted = set(threads or self.threads())
        needed = milliseconds * 1_000_000

        def done():
            now = self.cpu_times()
            return all(now.get(t, 0) - start[t] >= needed for t in wanted)

        self.wait_until(done, "processor time used")

    # Ending.

    def stop(self, number=SIGINT, deadline=DEADLINE):
        """One stop signal at a time when it counts; the exit status."""
        if self.running():
            self.wait_until_replaying()
            self.signal(number)
        return self.wait(deadline)

    def expect(self, status=0, output="", errors=""):
        """Waits for the end and compares all that the program showed."""
        seen = (self.wait(), self.output(), self.errors())
        assert seen == (status, output, errors)


def is_listening(port):
    with open("/proc/net/tcp") as table:
        next(table)
        for line in table:
            local, _, state = line.split()[1:4]
            if state == "0A" and int(local.rpartition(":")[2], 16) == port:
                return True
    return False


# --------------------------------------------------------------- the receivers


class Receiver:
    """A TCP connection to a sender. Every read has a deadline."""

    def __init__(self, port, rcvbuf=None, host=LOCALHOST):
        self.socket = socket.socket()
        self.socket.settimeout(DEADLINE)
        if rcvbuf is not None:
            # Before connecting, because it bounds the window that is offered.
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.socket.connect((host, port))

    def read_exactly(self, count):
        """These many bytes; fewer only when the sender closed before."""
        data = bytearray(count)
        view = memoryview(data)
        have = 0
        while have < count:
            got = self.socket.recv_into(view[have:])
            if got == 0:
                break
            have += got
        return bytes(data[:have])

    def read_to_end(self):
        """Everything up to the sender's close."""
        chunks = []
        while chunk := self.socket.recv(1 << 20):
            chunks.append(chunk)
        return b"".join(chunks)

    def pending(self):
        """How many bytes can be read without waiting."""
        count = fcntl.ioctl(self.socket, termios.FIONREAD, bytes(4))
        return int.from_bytes(count, sys.byteorder)

    def close(self):
        self.socket.close()

    def reset(self):
        """Closes with a reset instead of an orderly end."""
        self.socket.setsockopt(
            socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0)
        )
        self.socket.close()


def probe_when_quiet(connection):
    """Asks after a second of silence whether the other end is still there.

    A connection that comes about in the very moment in which the listener is closed can be
    forgotten by the kernel without a reset; whoever only reads would wait for ever.
    """
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE, 1)
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_KEEPALIVE, 1)


# -------------------------------------------------------------------- fixtures


@pytest.fixture
def tmp_path():
    """Removed at the end of its test, because some of the files are large."""
    with tempfile.TemporaryDirectory() as directory:
        yield pathlib.Path(directory)


@pytest.fixture
def port():
    """A TCP port that no other program gets while the test runs.

    The socket held here is bound but does not listen. The sender, which allows
    address reuse, can bind the same port beside it; the kernel gives it to
    nobody who asks for any free port.
    """
    with socket.socket() as holder:
        holder.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        holder.bind(("0.0.0.0", 0))
        yield holder.getsockname()[1]


@pytest.fixture
def start(tmp_path):
    """start(*words, argv0=, cwd=) runs the program with exactly these words."""
    senders = []

    def run(*words, **options):
        directory = tmp_path / f"sender-{len(senders)}"
        directory.mkdir()
        senders.append(Sender(directory, words, **options))
        return senders[-1]

    yield run
    for sender in senders:
        sender.kill()


@pytest.fixture
def serve(start, port):
    """serve(path, *words) runs a TCP replay of the path and waits until it
    listens; the port is the sender's `port`."""

    def run(path, *words, **options):
        sender = start(
            "--filepath", path, "--port", str(port), *words, port=port, **options
        )
        sender.wait_until_listening()
        return sender

    return run


@pytest.fixture
def connect(start):
    """connect(sender, rcvbuf=) is a new receiver of that sender.

    Receivers are closed before senders are killed (`start` is a dependency),
    so that a stalled one cannot hold a sender up.
    """
    receivers = []

    def run(sender, **options):
        receivers.append(Receiver(sender.port, **options))
        return receivers[-1]

    yield run
    for receiver in receivers:
        receiver.close()


@pytest.fixture
def attempt(connect):
    """attempt(sender) is for a connection that ends the sender at first sight, which may
    reset it before connect() is over."""

    def run(sender):
        with contextlib.suppress(ConnectionResetError):
            connect(sender)

    return run


@pytest.fixture
def data_file(tmp_path):
    """data_file(bytes, name=) is the path of a new file with these bytes."""

    def create(data, name="data"):
        path = tmp_path / name
        path.write_bytes(data)
        return path

    return create


# ------------------------------------------------------------- a skip is told


NOT_WITH_CHECKS = "cannot be with these checks: "


def not_with(sanitizers, reason):
    """A mark for a test that says nothing about a program built with one of these checks."""
    return pytest.mark.skipif(SANITIZER in sanitizers, reason=NOT_WITH_CHECKS + reason)


class SkipStatus:
    """Ends the run with status 77 when tests were skipped that could run on another machine,
    and none failed."""

    def __init__(self):
        self.skipped = 0

    def count(self, report):
        if report.skipped and not hasattr(report, "wasxfail"):
            self.skipped += NOT_WITH_CHECKS not in str(report.longrepr)

    pytest_runtest_logreport = count
    pytest_collectreport = count

    @pytest.hookimpl(trylast=True)
    def pytest_sessionfinish(self, session):
        passed = (pytest.ExitCode.OK, pytest.ExitCode.NO_TESTS_COLLECTED)
        if self.skipped and session.exitstatus in passed:
            session.exitstatus = SKIPPED


def pytest_configure(config):
    if not os.access(BINARY, os.X_OK):
        raise pytest.UsageError(f"no program at {BINARY}; set REPLAY_SENDER")
    config.pluginmanager.register(SkipStatus(), "skip-status")
