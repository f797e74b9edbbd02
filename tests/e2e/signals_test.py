"""Signals at any moment: stop signals at random moments of every kind of run, stop
signals in pairs, and the signals that change nothing in great numbers.

REPLAY_SIGNALS is how many random moments there are in all, REPLAY_SEED repeats those
of an earlier run, and REPLAY_SIGNALS_RECORD names a file to which a line of JSON is
added for each of them.
"""

import contextlib
import dataclasses
import errno
import itertools
import json
import os
import random
import resource
import select
import signal
import socket
import subprocess
import sys
import time

import pytest

import capture_builder as build
from capture_test import reading
from conftest import (
    BINARY,
    DEADLINE,
    LOCALHOST,
    MESSAGE_SIZE,
    POLL_INTERVAL,
    SANITIZER,
    Program,
    Receiver,
    Sender,
    debug_dump,
    echo,
    pieces,
    random_bytes,
    uncaught,
)
from halting import all_stopped, held
from stoppable_runs import (
    KINDS,
    PHASES,
    Nobody,
    Reader,
    a_capture,
    a_file,
    summary,
)
from tcp_run_test import (  # noqa: F401: fixtures, and what tells of the slow path
    flags_and_position,
    parse_slow_sends,
    stalled_newer,
)
from udp_receiver import UdpReceiver

MOMENTS = int(os.environ.get("REPLAY_SIGNALS", 40 if SANITIZER else 120))
SEED = int(os.environ.get("REPLAY_SEED") or random.SystemRandom().randrange(2**32))
RECORD = os.environ.get("REPLAY_SIGNALS_RECORD")

STOP_SIGNALS = (signal.SIGINT, signal.SIGTERM)
# Seconds that a stop may take on a machine with processors to spare. A sanitizer
# looks through all memory at the end.
PROMPTLY = 10 if SANITIZER else 1
# Processor time of the main thread, in nanoseconds, that only a run that goes on uses up
# behind a signal, and the most of it that one look may add. Where the machine or this test
# stood still, more lies between two looks, part of it from before the signal.
GOES_ON = 200_000_000
MOST_AT_ONCE = 10_000_000
QUEUE_CAPACITY = 1024


# ------------------------------------------------------------------- a run's end


class Run(Sender):
    """A sender that leads a process group of its own."""

    def __init__(self, directory, words, port, **options):
        self.port = port
        words = [BINARY, *words]
        Program.__init__(self, directory, words, start_new_session=True, **options)

    def has_ended(self):
        """Without taking the status, so that the kernel's record of it stays."""
        options = os.WEXITED | os.WNOHANG | os.WNOWAIT
        return os.waitid(os.P_PID, self.pid, options) is not None

    def schedule(self):
        """By thread: nanoseconds of processor time, and of readiness to run without
        a processor."""
        found = {}
        tasks = f"/proc/{self.pid}/task"
        for thread in os.listdir(tasks):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                with open(f"{tasks}/{thread}/schedstat") as text:
                    worked, delayed, _ = map(int, text.read().split())
                found[int(thread)] = worked, delayed
        return found

    def waits_for_its_sending_thread(self):
        """The main thread spins whatever it does, but for that."""
        return self.states().get(self.pid) == "S"

    def expect_nothing_left(self):
        """No process of its group."""
        limit = time.monotonic() + DEADLINE
        while has_processes(self.pid):
            # A sanitizer's look for leaks takes a process, which ends a little later.
            assert SANITIZER and time.monotonic() < limit, "a process is left"
            time.sleep(POLL_INTERVAL)

    def expect_a_free_port(self, protocol="tcp"):
        """A next run could listen on its port, or, over UDP, a next receiver have it."""
        kind = socket.SOCK_STREAM if protocol == "tcp" else socket.SOCK_DGRAM
        with socket.socket(type=kind) as other:
            if protocol == "tcp":
                other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            other.bind((LOCALHOST, self.port))
            if protocol == "tcp":
                other.listen()


def has_processes(group):
    try:
        os.killpg(group, 0)
    except ProcessLookupError:
        return False
    return True


class Stop:
    """One stop signal, and what became of the run."""

    def __init__(self, run, number):
        self._run = run
        self._latest = dict(run.schedule())
        self._joins = False
        self._waited = self._worked = 0
        self._sent = self._sampled = time.monotonic()
        os.kill(run.pid, number)  # which, unlike the run's own, never takes its status
        self.shown = run.output()  # at least what was shown before the signal came

    def has_effect(self):
        """Waits for the end. False when the run goes on instead."""
        while not self._run.has_ended():
            self._sample()
            if self._worked > GOES_ON:
                return False
            if time.monotonic() - self._sent > DEADLINE:
                self._run.fail(f"neither ended nor went on within {DEADLINE} s")
            self._run.pause()
        self.seconds = time.monotonic() - self._sent
        self._sample()
        return True

    def waited(self):
        """Seconds of this in which the thread that the end depended on had no
        processor, though ready: the main thread, but while that waits for the sending
        thread, the latter."""
        return self._waited

    def _sample(self):
        """Where the main thread began or ended its wait since the last sample, either
        thread may have been the one, but not for longer than that is ago."""
        joins, now = self._run.waits_for_its_sending_thread(), time.monotonic()
        delays = {True: 0, False: 0}  # by whether the thread is another than the main one
        schedule = self._run.schedule()
        for thread, (_, delay) in schedule.items():
            before = self._latest.get(thread, (0, 0))[1]
            delays[thread != self._run.pid] += delay - before
        ready = sum(delays[which] for which in {joins, self._joins}) / 1e9
        self._waited += min(ready, now - self._sampled)
        if self._run.pid in schedule:
            worked = schedule[self._run.pid][0] - self._latest[self._run.pid][0]
            self._worked += min(worked, MOST_AT_ONCE)
        self._latest.update(schedule)
        self._joins, self._sampled = joins, now


# -------------------------------------------------------- stops at random moments


@dataclasses.dataclass
class Moment:
    kind: str
    number: int
    phase: str
    signal: str
    delay: float
    outcome: str = ""
    seconds: float = 0.0
    waited: float = 0.0

    def record(self):
        if RECORD:
            with open(RECORD, "a") as file:
                file.write(json.dumps(dataclasses.asdict(self)) + "\n")


@contextlib.contextmanager
def told_on_failure(moment):
    done = False
    try:
        yield
        done = True
    finally:
        if not done:
            print(f"{moment}\nto repeat: REPLAY_SEED={SEED} REPLAY_SIGNALS={MOMENTS}")
        moment.record()


@pytest.fixture(scope="module")
def startup(tmp_path_factory):
    """Seconds from the program's start to the end of its configuration."""
    directory = tmp_path_factory.mktemp("startup")
    times = []
    for _ in range(5):
        begun = time.monotonic()
        run = Run(directory, ["--filepath", __file__, "--port", "0"], 0)
        run.wait_for_output("\ndevice: ")
        times.append(time.monotonic() - begun)
        run.kill()
    return sorted(times)[2]


def random_delay(random, phase, startup):
    """Seconds behind the beginning of the phase. Of the start, what comes before the
    replay's own beginning is the least part and comes up more often."""
    if phase == "start":
        longest = random.choice([startup / 3, startup, max(0.02, 2 * startup)])
        return random.uniform(0, longest)
    return random.uniform(0, 0.03 if phase == "middle" else 0.11)


def moments_of(name):
    """How many of the moments fall to this kind."""
    return len(range(list(KINDS).index(name), MOMENTS, len(KINDS)))


class Attempt:
    """A run of one kind that is stopped at one moment."""

    def __init__(self, kind, recording, moment, directory, port, random):
        self.kind = kind
        self.moment = moment
        self.path, found, messages = recording
        self.messages = messages[::-1] if kind.preload else messages
        self.audience = kind.audience(port, random)
        words = kind.words(self.path, self.audience, found)
        self.settings = kind.settings(found)
        self.run = Run(directory, words, self.audience.port)

    def stop(self, random):
        """Stops it at the moment; the outcome is checked against what came first."""
        number = signal.Signals[self.moment.signal]
        self._wait_for_phase()
        time.sleep(self.moment.delay)
        begun = self.audience.begun() or self.moment.phase != "start"
        stop = Stop(self.run, number)
        if not stop.has_effect():
            assert not begun, "the stop had no effect"
            self.moment.outcome = "forgotten"
            self._wait_for("begun")
            stop = Stop(self.run, random.choice(STOP_SIGNALS))
            assert stop.has_effect(), "the second stop had no effect"
        self._judge(stop, number)

    def _judge(self, stop, number):
        self.moment.seconds, self.moment.waited = stop.seconds, stop.waited()
        status = self.run.wait()
        if status == -number and not self.moment.outcome:
            # The handler comes before the first line.
            self.moment.outcome = "died"
            assert not self.run.output(), "died although its handler was installed"
            assert not self.run.errors()
            return
        assert status == 0
        if not self.moment.outcome:
            self.moment.outcome = "ended"
            assert "\ndevice: " in stop.shown, "a stop before the replay counted"
        net = stop.seconds - stop.waited()
        assert net <= PROMPTLY, f"{stop.seconds} s, of which {stop.waited()} waiting"

    def check(self):
        """What is left, what was received and what was shown."""
        self.audience.hear_out()
        self.run.expect_nothing_left()
        self.audience.check(self.run, self.messages, self.kind.passes)
        self._check_streams()
        self.audience.close()
        self.run.expect_a_free_port(self.kind.audience.protocol)

    def _check_streams(self):
        if self.moment.outcome == "died":
            assert not self.audience.begun()
            return
        shown = echo(self.path, f"{self.audience.ip}:{self.run.port}", **self.settings)
        expected = [shown + part + tail for part in self._told() for tail in self._tails()]
        assert self.run.output() in expected
        assert self.run.errors() == ""

    def close(self):
        self.run.kill()
        self.audience.close()

    def _told(self):
        """What tells of captures: once when one is loaded, else for each pass begun."""
        if "filetype" not in self.settings:
            return ("",)
        line = reading(self.path)
        if self.kind.preload:
            return (line,)
        # A pass is only read while there is room in the queue.
        sent = self.audience.messages_seen(self.messages)
        least = -(-sent // len(self.messages))
        most = (sent + QUEUE_CAPACITY + 1) // len(self.messages) + 1
        if self.kind.passes:
            most = min(most, self.kind.passes)
        return tuple(line * count for count in range(least, most + 1))

    def _tails(self):
        if not self.kind.debug:
            return self.audience.tails
        count = self.audience.dumped(self.run.output(), self.messages)
        dumps = debug_dump(itertools.islice(itertools.cycle(self.messages), count))
        return tuple(dumps + tail for tail in self.audience.tails)

    def _wait_for_phase(self):
        if self.moment.phase == "middle":
            self._wait_for("begun")
        elif self.moment.phase == "end":
            self._wait_for("finished")

    def _wait_for(self, what):
        size = sum(map(len, self.messages)) * max(self.kind.passes, 1)
        self.audience.wait_for(self.run, what, size)


@pytest.mark.parametrize("name", KINDS)
def test_a_stop_at_any_moment_ends_the_run_at_once_and_leaves_nothing(
    name, tmp_path, port, startup
):
    """Status 0 within a second, whole messages from the first on, and no text but the
    expected.

    A signal before the handler is installed, which is before the first line, kills.
    One from then until the replay begins is forgotten, and a second ends the run.
    The second is counted without the time in which the thread that the end depended on
    was ready and had no processor: that is the machine's time and not the program's.
    """
    kind = KINDS[name]
    recording = kind.source(tmp_path)
    for number in range(moments_of(name)):
        # Each moment from its own seed: it does not depend on those before it.
        chance = random.Random(f"{SEED} {name} {number}")
        phase = PHASES[number % len(PHASES)]
        moment = Moment(
            name, number, phase, chance.choice(STOP_SIGNALS).name,
            random_delay(chance, phase, startup),
        )
        directory = tmp_path / f"run-{number}"
        directory.mkdir()
        attempt = Attempt(kind, recording, moment, directory, port, chance)
        with told_on_failure(moment), contextlib.closing(attempt):
            attempt.stop(chance)
            attempt.check()


def test_a_record_of_moments_is_summed_up_by_outcome():
    moments = [
        {"outcome": "ended", "phase": PHASES[n % 2], "seconds": n / 100, "waited": 0.25}
        for n in range(200)
    ]
    moments.append({"outcome": "died", "phase": "start", "seconds": 0.5, "waited": 0})
    moments.append({"outcome": "", "phase": "end", "seconds": 0, "waited": 0})
    assert summary(moments).splitlines()[2:] == [
        "| status 0 | 200 | 100, 100, 0 | 0.990 | 1.970 | 1.990 | 0.250 |",
        "| forgotten; status 0 after a second signal | 0 | 0, 0, 0 |  | | | |",
        "| the signal's default death | 1 | 1, 0, 0 | 0.500 | 0.500 | 0.500 | 0.000 |",
        "| all | 201 | 101, 100, 0 | 0.990 | 1.970 | 1.990 | 0.250 |",
        "",
        "202 moments, 1 without an end",
    ]


def test_a_stop_while_the_configuration_is_shown_is_forgotten(data_file, tmp_path, port):
    """Between its handler and the replay: a second stop, then, ends the run.

    The signal comes while standard output takes no more, so the order is certain. It
    interrupts the write of the first line, with which that line and all others are lost.
    """
    read_end, write_end = os.pipe()
    filled = fill_pipe(write_end)
    with open(tmp_path / "stderr", "wb") as errors:
        run = Program(
            tmp_path, [BINARY, "--filepath", data_file(b"data"), "--port", str(port)],
            stdout=write_end, stderr=errors,
        )
    os.close(write_end)
    try:
        run.wait_until(lambda: run.is_blocked_in(run.pid, "pipe_write"), "the full pipe")
        run.signal(signal.SIGINT)
        run.wait_until(lambda: not run.is_blocked_in(run.pid, "pipe_write"), "the signal")
        receiver = wait_to_connect(run, port)
        assert receiver.read_exactly(4) == b"data"
        run.signal(signal.SIGINT)
        assert run.wait() == 0
        assert receiver.read_to_end() == b""
        receiver.close()
        assert read_to_end(read_end) == "x" * filled
        assert run.errors() == ""
    finally:
        os.close(read_end)
        run.kill()


def fill_pipe(write_end):
    """The count of the letters x that it took."""
    count = 0
    os.set_blocking(write_end, False)
    for size in 4096, 1:
        with contextlib.suppress(BlockingIOError):
            while True:
                count += os.write(write_end, b"x" * size)
    os.set_blocking(write_end, True)
    return count


def read_to_end(read_end):
    """What is in the pipe and still comes, until nobody can write to it any more."""
    text = b""
    while True:
        assert select.select([read_end], [], [], DEADLINE)[0], "the pipe is not closed"
        chunk = os.read(read_end, 1 << 16)
        if not chunk:
            return text.decode()
        text += chunk


def wait_to_connect(run, port):
    def connected():
        with contextlib.suppress(ConnectionRefusedError):
            return Receiver(port)

    return run.wait_until(connected, "a connection")


# -------------------------------------------- standard output that nobody reads


@contextlib.contextmanager
def piped_run(directory, port, *words):
    """A run whose standard output is a pipe: the run, the end to read, and one to write,
    which keeps the pipe open."""
    read_end, write_end = os.pipe()
    with open(read_end, "rb", 0) as reader, open(write_end, "wb", 0) as writer:
        words = [*map(str, words), "--port", str(port)]
        run = Run(directory, words, port, stdout=writer)
        try:
            yield run, reader, writer
        finally:
            run.kill()


def stop_while_its_text_is_stuck(run):
    """One stop signal once the sending thread waits for room in the pipe. The main
    thread, then, waits for that thread."""
    run.wait_until(lambda: len(run.threads()) == 2, "the sending thread")
    poller = run.poller()
    run.wait_until(lambda: run.is_blocked_in(poller, "pipe_write"), "the full pipe")
    run.signal(signal.SIGINT)
    run.wait_until(run.waits_for_its_sending_thread, "the end of the replay")
    time.sleep(0.2)  # twice what the sending thread waits for events
    assert run.running() and run.is_blocked_in(poller, "pipe_write")


@pytest.mark.parametrize("end", ["reads on", "goes away"])
def test_a_stop_waits_for_room_for_a_dump_or_until_its_reader_goes_away(
    tmp_path, data_file, end
):
    path = data_file(random_bytes(20 * MESSAGE_SIZE))
    messages = pieces(path.read_bytes())
    there = UdpReceiver()
    words = "--filepath", path, "--protocol", "udp", "--debug", "1", "--mbps", "80"
    with piped_run(tmp_path, there.port, *words) as (run, reader, writer):
        stop_while_its_text_is_stuck(run)
        writer.close()
        shown = read_to_end(reader.fileno()) if end == "reads on" else None
        reader.close()
        assert run.wait() == 0
        assert run.errors() == ""
    came = []
    while not there.is_quiet():
        came += there.receive(1)
    there.close()
    assert came and came == messages[: len(came)]
    if shown is not None:
        address = f"{LOCALHOST}:{there.port}"
        configuration = echo(path, address, protocol="udp", in_speed=80000000)
        assert shown == configuration + debug_dump(came)


@pytest.mark.parametrize("end", ["reads on", "goes away"])
def test_a_stop_waits_for_room_for_a_socket_error_or_until_its_reader_goes_away(
    tmp_path, data_file, port, end
):
    path = data_file(random_bytes(2 << 20))
    words = "--filepath", path, "--loopback", "0"
    with piped_run(tmp_path, port, *words) as (run, reader, writer):
        run.wait_until_listening()
        configuration = echo(path, run.address, loopback=0)
        assert reader.read(1 << 16).decode() == configuration
        filled = fill_pipe(writer.fileno())
        Receiver(port).reset()
        stop_while_its_text_is_stuck(run)
        writer.close()
        if end == "reads on":
            assert read_to_end(reader.fileno()) == "x" * filled + "Socket error\n"
        reader.close()
        assert run.wait() == 0
        assert run.errors() == ""


# ------------------------------------------- a capture of which nothing passes


RECORD_SIZE = 16  # of a frame without a byte
FAR = 32 << 20  # bytes, which take longer to read than a signal to arrive


class ZeroCapture:
    """A capture that goes on and on with frames of no bytes, which no filter lets
    through, and takes no room on the disk."""

    def __init__(self, path):
        self.path = path
        self._head = build.pcap([])
        path.write_bytes(self._head)
        os.truncate(path, 1 << 34)  # tens of seconds of reading

    def position(self, run):
        """How much of it the run has read."""
        (descriptor,) = (
            number for number, path in run.descriptors().items() if path == str(self.path)
        )
        return flags_and_position(run, descriptor)[1]

    def end(self, run):
        """Puts a last frame right behind what the run, which is halted, has read. It
        passes the filter and is too short, which is told at the capture's end."""
        records = -((len(self._head) - self.position(run)) // RECORD_SIZE)
        size = len(self._head) + records * RECORD_SIZE
        last = build.pcap([build.udp(b"").truncated(41)]).removeprefix(self._head)
        with open(self.path, "r+b") as file:
            file.truncate(size)
            file.seek(size)
            file.write(last)


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_waits_for_the_end_of_a_capture_of_which_nothing_passes(
    start, tmp_path, number
):
    """libpcap looks for the next frame that passes and comes back with that or at the
    end, whatever signals come."""
    capture = ZeroCapture(tmp_path / "a.pcap")
    there = UdpReceiver()
    run = start(
        "--filepath", capture.path, "--port", str(there.port), "--protocol", "udp",
        "--filetype", "1", "--filter", "udp", "--loopback", "0",
    )
    run.wait_for_output(reading(capture.path))
    run.wait_until(lambda: capture.position(run) > FAR, "the reading")
    run.signal(number)
    reached = capture.position(run)
    run.wait_until(lambda: capture.position(run) > reached + FAR, "the reading goes on")
    with held(run):
        capture.end(run)
    run.expect(
        output=echo(
            capture.path, f"{LOCALHOST}:{there.port}", filetype=1, loopback=0,
            filter="udp", protocol="udp",
        )
        + reading(capture.path),
        errors=f"{capture.path}: 1 frame(s) shorter than their headers, "
        "0 payload(s) longer than 10240 bytes\n",
    )
    assert there.is_quiet()
    there.close()


# ------------------------------------------------ a pipe in the place of a file


def waits_for_a_writer(run):
    return run.is_blocked_in(run.pid, "wait_for_partner")


@contextlib.contextmanager
def run_with_a_pipe(run_of, path, *words):
    """A run whose file has become a pipe that nobody writes to, once it waits for that."""
    run = run_of(path, *words)
    run.wait_until_replaying()
    path.unlink()
    os.mkfifo(path)
    with contextlib.closing(Receiver(run.port)):
        run.wait_until(lambda: waits_for_a_writer(run), "the wait for a writer")
        yield run


def interrupt_a_try(run, number):
    """Until the run is in its next one: it sleeps behind the try, and then in that."""
    naps = run.naps()
    run.signal(number)
    run.wait_until(
        lambda: run.naps() >= naps + 2 and waits_for_a_writer(run), "the next try"
    )


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_is_a_failed_try_to_open_a_pipe_that_nobody_writes_to(
    run_of, data_file, number
):
    """Five failed ones end the run."""
    path = data_file(b"data")
    with run_with_a_pipe(run_of, path) as run:
        for _ in range(4):
            interrupt_a_try(run, number)
        run.signal(number)
        run.expect(
            -signal.SIGABRT,
            echo(path, f"{LOCALHOST}:{run.port}"),
            uncaught(f"Failed opening file {path} for reading. errno: {errno.EINTR}"),
        )


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_in_the_wait_for_a_writer_ends_the_run_once_there_is_one(
    run_of, data_file, number
):
    path = data_file(b"data")
    with run_with_a_pipe(run_of, path) as run:
        interrupt_a_try(run, number)
        path.write_bytes(b"")  # which opens it, closes it, and lets the run go on
        run.expect(output=echo(path, f"{LOCALHOST}:{run.port}"))


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_in_the_wait_for_a_captures_writer_is_fatal(run_of, data_file, number):
    path = data_file(build.pcap([build.udp(b"data")]), "a.pcap")
    with run_with_a_pipe(run_of, path, "--filetype", "1", "--filter", "udp") as run:
        run.signal(number)
        run.expect(
            -signal.SIGABRT,
            echo(path, f"{LOCALHOST}:{run.port}", filetype=1, filter="udp"),
            uncaught(
                f"Open pcap file failed! Error message: {path}: Interrupted system call"
            ),
        )


# ------------------------------------------------------- a name in a filter

# A network and a list of name servers that only this program sees.
OWN_RESOLVER = 'ip link set lo up && mount --bind "$1" /etc/resolv.conf && shift && exec "$@"'
# A name server that never answers: the program inherits its socket, and nobody reads it.
DEAF_SERVER = """
import os, socket, sys
server = socket.socket(type=socket.SOCK_DGRAM)
server.bind(("127.0.0.1", 53))
server.set_inheritable(True)
os.execv(sys.argv[1], sys.argv[1:])
"""


@pytest.fixture
def deaf_resolver(tmp_path):
    """The words in front of a program, which then waits three seconds for each name."""
    namespaces = ["unshare", "--mount", "--net"]
    if os.geteuid() != 0 or subprocess.run([*namespaces, "true"]).returncode != 0:
        pytest.skip("namespaces need root")
    path = tmp_path / "resolv.conf"
    path.write_text("nameserver 127.0.0.1\noptions timeout:3 attempts:1\n")
    there = ["sh", "-c", OWN_RESOLVER, "sh", path]
    return [*namespaces, *there, sys.executable, "-c", DEAF_SERVER]


def has_pending_signals(run):
    with open(f"/proc/{run.pid}/status") as status:
        return any(int(line.split()[1], 16) for line in status if "Pnd:" in line)


def test_a_stop_waits_for_the_look_up_of_a_name_in_a_filter(tmp_path, deaf_resolver):
    """It is begun by libpcap, which takes a wait up again that a signal interrupts."""
    path, _, _ = a_capture(tmp_path)
    settings = {"filetype": 1, "filter": "udp and host nobody.invalid", "protocol": "udp"}
    words = [BINARY, "--filepath", path, "--port", "9"]
    words += [str(each) for name, value in settings.items() for each in ("--" + name, value)]
    run = Program(tmp_path, [*deaf_resolver, *words])
    try:
        run.wait_until(lambda: reading(path) in run.output(), "the capture")
        run.wait_until(lambda: run.is_blocked_in(run.pid, "poll"), "the look-up")
        run.signal(signal.SIGINT)
        run.wait_until(
            lambda: not has_pending_signals(run) and run.is_blocked_in(run.pid, "poll"),
            "the look-up goes on",
        )
        assert run.wait() == 0
        assert run.output() == echo(path, f"{LOCALHOST}:9", **settings) + reading(path)
        assert run.errors() == "compile fileter failed! unknown host 'nobody.invalid'\n"
    finally:
        run.kill()


# -------------------------------------------------------- more than one stop signal


def send_one_after_the_other(run, numbers):
    for number in numbers:
        run.signal(number)


def send_at_once(run, numbers):
    """All are pending when the run goes on."""
    with held(run):
        send_one_after_the_other(run, numbers)


def send_until_the_end(run, numbers):
    """Far more than are needed, while the run is ending."""
    for number in itertools.cycle(numbers):
        if run.has_ended():
            return
        os.kill(run.pid, number)  # which never takes the status


@pytest.fixture
def run_of(tmp_path, port):
    """run_of(path, *words, **options) is a TCP run of this path, listening."""
    runs = []

    def start(path, *words, **options):
        directory = tmp_path / f"run-{len(runs)}"
        directory.mkdir()
        words = ["--filepath", str(path), "--port", str(port), *words]
        runs.append(Run(directory, words, port, **options))
        runs[-1].wait_until_listening()
        return runs[-1]

    yield start
    for each in runs:
        each.kill()


ORDERS = {
    "SIGINT, SIGINT": (signal.SIGINT, signal.SIGINT),
    "SIGTERM, SIGINT": (signal.SIGTERM, signal.SIGINT),
    "SIGINT, SIGTERM, SIGHUP": (signal.SIGINT, signal.SIGTERM, signal.SIGHUP),
}


@pytest.mark.parametrize("order", ORDERS)
@pytest.mark.parametrize(
    "send", [send_one_after_the_other, send_at_once, send_until_the_end]
)
@pytest.mark.parametrize("state", ["nobody has come", "sending", "paced"])
def test_several_stop_signals_are_as_good_as_one(
    run_of, data_file, port, state, send, order
):
    words = {"paced": ("--mbps", "80"), "sending": ()}.get(state, ())
    path = data_file(random_bytes(1 << 20))
    run = run_of(path, "--loopback", "0", *words)
    run.wait_until_replaying()
    audience = Nobody(port, None) if state == "nobody has come" else Reader(port, None)
    try:
        audience.wait_for(run, "begun", 0)
        send(run, ORDERS[order])
        speed = {"in_speed": 80000000} if words else {}
        run.expect(output=echo(path, run.address, loopback=0, **speed))
        audience.hear_out()
        audience.check(run, pieces(path.read_bytes()), 0)
        run.expect_nothing_left()
        run.expect_a_free_port()
    finally:
        run.kill()
        audience.close()


@pytest.mark.parametrize("number", STOP_SIGNALS)
@pytest.mark.parametrize("state", ["nobody has come", "sending"])
def test_a_stop_that_the_sending_thread_takes_ends_the_run(
    run_of, data_file, port, state, number
):
    """The kernel gives a signal to the thread that it was sent to, if it can. That
    one's wait, or its sending, is interrupted then."""
    path = data_file(random_bytes(1 << 20))
    run = run_of(path, "--loopback", "0")
    run.wait_until_replaying()
    audience = Nobody(port, None) if state == "nobody has come" else Reader(port, None)
    try:
        audience.wait_for(run, "begun", 0)
        os.kill(run.poller(), number)
        run.expect(output=echo(path, run.address, loopback=0))
        audience.hear_out()
        audience.check(run, pieces(path.read_bytes()), 0)
    finally:
        run.kill()
        audience.close()


def test_a_stop_that_interrupts_the_wait_for_a_stalled_receiver_loses_nothing(
    stalled_newer,
):
    """The sending thread tries again. Without room, still, it says so again and goes on
    waiting; the kernel may have some before it lets such a wait end."""
    sender, older, newer, data, seen, shown = stalled_newer
    before = sender.output()
    os.kill(sender.poller(), signal.SIGINT)
    sender.wait_until(
        lambda: sender.output() != before or not sender.running(), "the interrupted wait"
    )
    received = newer.read_to_end()
    assert received in data and len(received) % MESSAGE_SIZE == 0
    assert sender.wait() == 0
    again = sender.output()[len(shown) :].splitlines()
    repeated = [n for n in range(1, len(again)) if again[n] == again[n - 1]]
    for number in repeated[:1]:
        again.pop(number)
    parse_slow_sends(again)
    assert sender.errors() == ""


# ------------------------------------ more standard output than a file may hold


def limit_output(run, path):
    """Lets the run, which dumps, write a thousand bytes more: what its output is then."""
    run.wait_until_replaying()
    configuration = echo(path, run.address)
    limit = len(configuration) + 1000
    resource.prlimit(run.pid, resource.RLIMIT_FSIZE, (limit, limit))
    return (configuration + debug_dump(pieces(path.read_bytes())))[:limit]


def test_more_output_than_a_file_may_hold_ends_the_run_by_its_signal(
    run_of, data_file, port
):
    """The message that was being dumped has left."""
    data = random_bytes(3 * MESSAGE_SIZE)
    path = data_file(data)
    run = run_of(path, "--debug", "1")
    shown = limit_output(run, path)
    receiver = Receiver(port)
    assert receiver.read_to_end() == data[:MESSAGE_SIZE]
    receiver.close()
    run.expect(-signal.SIGXFSZ, shown)


def test_more_output_than_a_file_may_hold_is_lost_where_its_signal_is_ignored(
    run_of, data_file, port
):
    """Python ignores it, and so does what it starts without giving its signals back."""
    data = random_bytes(3 * MESSAGE_SIZE)
    path = data_file(data)
    run = run_of(path, "--debug", "1", restore_signals=False)
    shown = limit_output(run, path)
    receiver = Receiver(port)
    assert receiver.read_exactly(len(data)) == data
    run.stop()
    assert receiver.read_to_end() == b""
    receiver.close()
    run.expect(output=shown)


# --------------------------------------------------- the signals that change nothing

# Sends the named signals to each of the named processes or threads, 2000 at least, until
# standard input ends. Says when it has begun, and at the end how many there were.
STORM = """
import os, select, sys
numbers, targets = (list(map(int, words.split(","))) for words in sys.argv[1:])

def send():
    for number in numbers:
        for target in targets:
            os.kill(target, number)
    return len(numbers) * len(targets)

count = send()
print("begun", flush=True)
while count < 2000 or not select.select([sys.stdin], [], [], 0)[0]:
    count += sum(send() for _ in range(25))
print(count)
"""


@contextlib.contextmanager
def storm(run, *numbers):
    """Another process sends these signals, to the program and to its sending thread;
    the list gets their count."""
    words = (",".join(map(str, map(int, numbers))), f"{run.pid},{run.poller()}")
    counts = []
    with subprocess.Popen(
        [sys.executable, "-c", STORM, *words],
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
    ) as other:
        assert other.stdout.readline() == "begun\n"
        yield counts
        counts.append(int(other.communicate()[0]))


IGNORED = (signal.SIGHUP, signal.SIGPIPE)
STORMY = {
    "a file, as fast as it goes": (a_file, ("--loopback", "40"), {"loopback": 40}),
    "paced": (
        a_file, ("--mbps", "20"), {"in_speed": 20000000},
    ),
    "a capture": (
        a_capture, ("--filetype", "1", "--filter", "udp", "--loopback", "100"),
        {"filetype": 1, "filter": "udp", "loopback": 100},
    ),
}


@pytest.mark.parametrize("kind", STORMY)
def test_a_storm_of_ignored_signals_changes_nothing_over_tcp(
    run_of, tmp_path, port, kind
):
    source, words, settings = STORMY[kind]
    path, _, messages = source(tmp_path)
    expected = b"".join(messages) * settings.get("loopback", 1)
    run = run_of(path, *words)
    run.wait_until_replaying()
    receiver = Receiver(port)
    with storm(run, *IGNORED) as counts:
        assert receiver.read_exactly(len(expected)) == expected
        run.wait_for_progress(milliseconds=100)
    assert counts[0] >= 2000
    run.stop()
    assert receiver.read_to_end() == b""
    receiver.close()
    told = reading(path) * settings["loopback"] if "filter" in settings else ""
    run.expect(output=echo(path, run.address, **settings) + told)


def test_a_storm_of_ignored_signals_changes_nothing_over_udp(tmp_path, start):
    path, _, messages = a_capture(tmp_path)
    there = UdpReceiver()
    run = start(
        "--filepath", path, "--port", str(there.port), "--protocol", "udp",
        "--filetype", "1", "--filter", "udp", "--loopback", "2", "--mbps", "6",
    )
    run.wait_for_output("\ndevice: ")
    run.wait_until(lambda: len(run.threads()) == 2, "the sending thread")
    with storm(run, *IGNORED) as counts:
        assert there.receive(2 * len(messages)) == 2 * messages
    assert counts[0] >= 2000
    run.stop()
    assert there.is_quiet()
    there.close()
    run.expect(
        output=echo(
            path, f"{LOCALHOST}:{there.port}", filetype=1, loopback=2,
            in_speed=6000000, filter="udp", protocol="udp",
        )
        + reading(path) * 2
    )


def test_a_storm_while_nobody_has_come_changes_nothing(run_of, data_file, port):
    path = data_file(b"data")
    run = run_of(path)
    run.wait_until_replaying()
    with storm(run, *IGNORED) as counts:
        run.wait_for_progress([run.pid], milliseconds=200)
    assert counts[0] >= 2000
    receiver = Receiver(port)
    assert receiver.read_exactly(4) == b"data"
    run.stop()
    receiver.close()
    run.expect(output=echo(path, run.address))


def test_a_program_that_has_ended_does_not_count_as_halted(run_of, data_file):
    run = run_of(data_file(b"data"))
    run.kill()
    assert not all_stopped(run)


def pause_and_continue(run, times):
    """Stops the whole program so often, each time for a moment."""
    for _ in range(times):
        with held(run):
            time.sleep(POLL_INTERVAL)
        run.wait_until(lambda: "T" not in run.states().values(), "the running state")


@pytest.mark.parametrize(
    "words, settings",
    [((), {}), (("--mbps", "80"), {"in_speed": 80000000})],
    ids=["as fast as it goes", "paced"],
)
def test_a_tcp_run_that_is_halted_and_continued_loses_nothing(
    run_of, data_file, port, words, settings
):
    path = data_file(random_bytes(3 << 20))
    run = run_of(path, *words)
    run.wait_until_replaying()
    pause_and_continue(run, 5)  # its wait for a receiver is interrupted
    receiver = Receiver(port, rcvbuf=65536)
    received = receiver.read_exactly(MESSAGE_SIZE)
    for _ in range(20):
        pause_and_continue(run, 1)
        received += receiver.read_exactly(10 * MESSAGE_SIZE)
    received += receiver.read_exactly((3 << 20) - len(received))
    assert received == path.read_bytes()
    pause_and_continue(run, 5)
    run.stop()
    assert receiver.read_to_end() == b""
    receiver.close()
    run.expect(output=echo(path, run.address, **settings))


def test_a_udp_run_that_is_halted_and_continued_loses_nothing(tmp_path, start):
    path, _, messages = a_capture(tmp_path)
    there = UdpReceiver()
    run = start(
        "--filepath", path, "--port", str(there.port), "--protocol", "udp",
        "--filetype", "1", "--filter", "udp", "--loopback", "2", "--mbps", "10",
    )
    received = there.receive(1)
    for _ in range(20):
        pause_and_continue(run, 1)
        received += there.receive(10)
    received += there.receive(2 * len(messages) - len(received))
    assert received == 2 * messages
    run.stop()
    assert there.is_quiet()
    there.close()
    run.expect(
        output=echo(
            path, f"{LOCALHOST}:{there.port}", filetype=1, loopback=2,
            in_speed=10000000, filter="udp", protocol="udp",
        )
        + reading(path) * 2
    )


def test_a_halt_in_the_wait_for_a_stalled_receiver_is_not_told(stalled_newer):
    """The wait is taken up again without a further line."""
    sender, older, newer, data, seen, shown = stalled_newer
    output = sender.output()
    pause_and_continue(sender, 5)
    sender.wait_for_progress([sender.pid])
    assert sender.output() == output
    sender.signal(signal.SIGINT)
    received = newer.read_to_end()
    assert received in data and len(received) % MESSAGE_SIZE == 0
    assert sender.wait() == 0
    parse_slow_sends(sender.output()[len(shown) :].splitlines())
    assert sender.errors() == ""
