"""Runs of every kind for the tests that stop them: the recording, who listens and how,
and what of it all must be right when the run has ended.

Run by itself with the name of a record that these tests wrote, it prints how the runs
ended and how long that took.
"""

import bisect
import contextlib
import dataclasses
import itertools
import json
import math
import socket
import sys
import threading
import time

import capture_builder as build
from conftest import (
    DEADLINE,
    LOCALHOST,
    MESSAGE_SIZE,
    Receiver,
    pieces,
    probe_when_quiet,
    random_bytes,
)
from udp_receiver import UdpReceiver

GROUP = "239.1.1.1"
PHASES = ("start", "middle", "end")  # of a run, in which a stop may fall


# ------------------------------------------------------------------ the recordings
#
# Each makes its files in a folder: the path, the words that go with it, and the
# messages of one pass in the order of sending.


def a_file(directory, size=200 * MESSAGE_SIZE + 77):
    path = directory / "data"
    path.write_bytes(random_bytes(size))
    return path, {}, pieces(random_bytes(size))


def a_short_file(directory):
    return a_file(directory, 10 * MESSAGE_SIZE + 77)


def a_large_file(directory):
    return a_file(directory, 16 << 20)


def a_directory(directory):
    path = directory / "files"
    path.mkdir()
    contents = [random_bytes(size, size) for size in (1, 45000, 0, 10240, 70000)]
    for number, content in enumerate(contents):
        (path / f"f{number * 5}").write_bytes(content)
    return path, {}, [piece for content in contents for piece in pieces(content)]


def a_capture(directory, frame=build.udp, name="udp"):
    messages = [random_bytes(1 + 7 * n % 1400, n) for n in range(400)]
    path = directory / "a.pcap"
    path.write_bytes(build.pcap([frame(each) for each in messages]))
    return path, {"filetype": 1, "filter": name}, messages


def a_tcp_capture(directory):
    return a_capture(directory, build.tcp, "tcp")


# ----------------------------------------------------------------- who listens, how


class Nobody:
    """No receiver comes."""

    protocol, ip, device = "tcp", LOCALHOST, ""
    tails = ("",)  # what may follow the configuration on standard output

    def __init__(self, port, random):
        self.port = port

    def begun(self):
        """The run has been seen to send."""
        return False

    def finished(self, size):
        """All of so many bytes have been seen."""
        return False

    def wait_for(self, run, what, size):
        """Waits for the middle ("begun") or the end of a run of so many bytes."""
        run.wait_until_replaying()

    def hear_out(self):
        """Takes in what is left once the sender has ended."""

    def check(self, run, messages, passes):
        """Compares what came with what should have come."""

    def messages_seen(self, messages):
        """How many messages have come; whether the last of them is whole, check() tells."""
        return 0

    def dumped(self, output, messages):
        """How many messages a run with this output has to have dumped: those that have
        left whole."""
        return self.messages_seen(messages)

    def close(self):
        pass


class Reader(Nobody):
    """Connects as soon as it can and reads to the end."""

    rcvbuf = None

    def __init__(self, port, random):
        super().__init__(port, random)
        self._random = random
        self._chunks = []
        self._size = 0
        self._reset = False
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._run)
        self._thread.start()

    def begun(self):
        return self._size > 0

    def finished(self, size):
        return self._size >= size

    def wait_for(self, run, what, size):
        seen = self.begun if what == "begun" else lambda: self.finished(size)
        run.wait_until(seen, what)

    def hear_out(self):
        self._over.set()
        self._thread.join()

    def check(self, run, messages, passes):
        """A prefix of the passes, cut between two messages."""
        data = b"".join(self._chunks)
        one_pass = b"".join(messages)
        limit = passes * len(one_pass) if passes else len(data)
        assert len(data) <= limit
        assert data == (one_pass * (len(data) // len(one_pass) + 1))[: len(data)]
        ends = {0, *itertools.accumulate(map(len, messages))}
        assert len(data) % len(one_pass) in ends, "part of a message was sent"
        assert not (self._reset and data), "the connection was reset"

    def messages_seen(self, messages):
        sums = [0, *itertools.accumulate(map(len, messages))]
        passes, rest = divmod(self._size, sums[-1])
        return passes * len(messages) + bisect.bisect_left(sums, rest)

    def close(self):
        self.hear_out()

    def _run(self):
        receiver = self._connect()
        if receiver is None:
            return
        # A receiver that was never accepted is reset when the sender ends.
        with contextlib.closing(receiver), contextlib.suppress(ConnectionResetError):
            self._reset = True
            self._read(receiver.socket)
            self._reset = False

    def _connect(self):
        while not self._over.is_set():
            try:
                receiver = Receiver(self.port, rcvbuf=self.rcvbuf)
                probe_when_quiet(receiver.socket)
                return receiver
            except (ConnectionRefusedError, ConnectionResetError):
                time.sleep(0.0005)
        return None

    def _read(self, connection):
        while self._take(connection):
            pass

    def _take(self, connection):
        chunk = connection.recv(1 << 20)
        self._chunks.append(chunk)
        self._size += len(chunk)
        return chunk


class Stalled(Reader):
    """Connects with a small window and reads nothing before the sender has ended."""

    rcvbuf = 4096

    def wait_for(self, run, what, size):
        """It never sees more; the end is that the sending thread waits for it."""
        super().wait_for(run, "begun", size)
        if what == "finished":
            run.wait_until(lambda: run.is_blocked_in(run.poller(), "poll"), "the stall")

    def _read(self, connection):
        # What has come shows that the run has begun, and stays unread.
        with contextlib.suppress(ConnectionResetError):
            self._size = len(connection.recv(1, socket.MSG_PEEK))
        self._over.wait(2 * DEADLINE)
        self._size = 0
        super()._read(connection)


class Gone(Reader):
    """Reads a little and leaves, with a reset or without."""

    tails = ("", "Socket error\n")

    def wait_for(self, run, what, size):
        if what == "begun":
            super().wait_for(run, what, size)
        else:
            run.wait_for_output("Socket error\n")

    def check(self, run, messages, passes):
        # What it left unread is lost with the connection, at any byte.
        data = b"".join(self._chunks)
        assert (b"".join(messages) * 2).startswith(data)

    def dumped(self, output, messages):
        """More may have left than was read; that of which a byte was read has left."""
        count = output.count("seq: ")
        assert count >= self.messages_seen(messages)
        return count

    def _connect(self):
        self._receiver = super()._connect()
        return self._receiver

    def _read(self, connection):
        self._take(connection)
        if self._random.random() < 0.5:
            self._receiver.reset()


class Datagrams(Nobody):
    """A bound socket with room for the whole run."""

    protocol = "udp"
    bind = LOCALHOST

    def __init__(self, port, random):
        self._receiver = UdpReceiver(host=self.bind)
        self._receiver.socket.setblocking(False)
        self._datagrams = []
        self.port = self._receiver.port

    def begun(self):
        return bool(self._datagrams) or not self._receiver.is_quiet()

    def finished(self, size):
        self.hear_out()
        return sum(map(len, self._datagrams)) >= size

    wait_for = Reader.wait_for

    def hear_out(self):
        with contextlib.suppress(BlockingIOError):
            while True:
                self._datagrams.append(self._receiver.socket.recv(65536))

    def check(self, run, messages, passes):
        """Each one message, from the first on, none left out."""
        count = len(self._datagrams)
        assert count <= passes * len(messages) or not passes
        expected = list(itertools.islice(itertools.cycle(messages), count))
        assert self._datagrams == expected

    def messages_seen(self, messages):
        return len(self._datagrams)

    def close(self):
        self._receiver.close()


class Member(Datagrams):
    """A member of a group; the device brings its own datagrams back."""

    bind, ip, device = "", GROUP, "lo"

    def __init__(self, port, random):
        super().__init__(port, random)
        self._receiver.join(GROUP, LOCALHOST)


class NoSocket(Nobody):
    """Datagrams to a port that nobody listens on."""

    protocol = "udp"


class Refused(Nobody):
    """A target that the kernel refuses: the sending ends at the first datagram."""

    protocol = "udp"
    tails = ("", "socket error\n")

    def __init__(self, port, random):
        self.port = 0

    def wait_for(self, run, what, size):
        if what == "begun":
            run.wait_until_replaying()
        else:
            run.wait_for_output("socket error\n")


# ----------------------------------------------------------------- the kinds of run


@dataclasses.dataclass(frozen=True)
class Kind:
    audience: type
    source: object = a_file
    passes: int = 1  # 0: without end
    mbps: int = 0
    preload: bool = False
    debug: bool = False

    def settings(self, found):
        """What the run shows as its configuration, beside path and address."""
        return {
            "loopback": self.passes,
            "in_speed": self.mbps * 1_000_000,
            "protocol": self.audience.protocol,
            "device": self.audience.device,
            **found,
        }

    def words(self, path, audience, found):
        words = {
            "filepath": path,
            "ip": audience.ip,
            "port": audience.port,
            "protocol": audience.protocol,
            "device": audience.device,
            "loopback": self.passes,
            "mbps": self.mbps,
            "preload": int(self.preload),
            "debug": int(self.debug),
            **found,
        }
        return [str(each) for name, value in words.items() for each in ("--" + name, value)]


KINDS = {
    "TCP, nobody has come": Kind(Nobody),
    "TCP, nobody has come, a capture": Kind(Nobody, a_capture),
    "TCP, a file": Kind(Reader),
    "TCP, a file without end": Kind(Reader, passes=0),
    "TCP, a directory without end": Kind(Reader, a_directory, passes=0),
    "TCP, a capture": Kind(Reader, a_capture),
    "TCP, a capture without end": Kind(Reader, a_capture, passes=0),
    "TCP, a preloaded file without end": Kind(Reader, a_large_file, passes=0, preload=True),
    "TCP, a preloaded capture": Kind(Reader, a_tcp_capture, preload=True),
    "TCP, paced": Kind(Reader, a_short_file, mbps=8),
    "TCP, paced, without end": Kind(Reader, a_short_file, passes=0, mbps=80),
    "TCP, every message dumped": Kind(Reader, a_capture, mbps=40, debug=True),
    "TCP, a stalled receiver": Kind(Stalled, passes=0),
    "TCP, a stalled receiver, a capture": Kind(Stalled, a_capture, passes=0),
    "TCP, a stalled receiver, dumped": Kind(Stalled, passes=0, debug=True),
    "TCP, a receiver that left": Kind(Gone, passes=0),
    "TCP, a receiver that left, dumped": Kind(Gone, passes=0, debug=True),
    "UDP, a file": Kind(Datagrams),
    "UDP, a directory": Kind(Datagrams, a_directory),
    "UDP, a capture": Kind(Datagrams, a_capture),
    "UDP, a preloaded file": Kind(Datagrams, preload=True, passes=2),
    "UDP, paced, without end": Kind(Datagrams, a_capture, passes=0, mbps=20),
    "UDP, every message dumped": Kind(Datagrams, a_capture, mbps=40, debug=True),
    "UDP, nobody listens": Kind(NoSocket, passes=0),
    "UDP, a refused target": Kind(Refused, passes=0),
    "UDP, a group": Kind(Member, a_capture, passes=2),
    "UDP, a group, paced": Kind(Member, a_short_file, passes=0, mbps=20),
}


# ------------------------------------------------------------- what a record says

OUTCOMES = {
    "ended": "status 0",
    "forgotten": "forgotten; status 0 after a second signal",
    "died": "the signal's default death",
}


def summary(moments):
    """A table of these moments: for each outcome and for all how many there are, by phase,
    and the seconds from the signal that counted to the end."""
    ended = [each for each in moments if each["outcome"] in OUTCOMES]
    rows = {
        words: [each for each in ended if each["outcome"] == outcome]
        for outcome, words in OUTCOMES.items()
    }
    lines = [
        "| outcome | count | start, middle, end | median | 99 % | longest | waiting |",
        "|---|---|---|---|---|---|---|",
    ]
    for words, these in {**rows, "all": ended}.items():
        phases = ", ".join(str(sum(e["phase"] == phase for e in these)) for phase in PHASES)
        times = sorted(each["seconds"] for each in these)
        figures = [quantile(times, share) for share in (0.5, 0.99, 1)] if these else []
        figures += [max(each["waited"] for each in these)] if these else []
        shown = " | ".join(f"{seconds:.3f}" for seconds in figures) or " | | |"
        lines.append(f"| {words} | {len(these)} | {phases} | {shown} |")
    without = len(moments) - len(ended)
    return "\n".join([*lines, "", f"{len(moments)} moments, {without} without an end"])


def quantile(ordered, share):
    """The least of these numbers that this share of them does not exceed."""
    return ordered[max(math.ceil(share * len(ordered)), 1) - 1]


if __name__ == "__main__":
    with open(sys.argv[1]) as record:
        print(summary([json.loads(line) for line in record]))
