"""The harness of the receiver's end-to-end tests: the built program as a child
process, what its JSON says, and runs of sender and receiver on one option line.

REPLAY_RECEIVER names the binary.
"""

import contextlib
import json
import os
import pathlib
import random
import shutil
import socket
import struct
import tempfile

import pytest

from conftest import LOCALHOST, ROOT, Program

RECEIVER = os.path.abspath(
    os.environ.get("REPLAY_RECEIVER", ROOT / "build" / "release" / "replay_receiver")
)
# Where something is missing, each run waits for the idle time: long enough for a
# busy machine's pauses. Where nothing is, a long one costs nothing.
QUICK = ("--settle", "0.05", "--idle", "0.4")
PATIENT = ("--settle", "0.05", "--idle", "10")
KINDS = ("lost", "duplicated", "reordered", "altered", "truncated", "unexpected")


# ------------------------------------------------------------ what a run says


class Result:
    """The JSON of a run, and short names for what tests ask most."""

    def __init__(self, text):
        self.json = json.loads(text)
        assert self.json["format"] == "replay_receiver"
        assert self.json["version"] == 1

    def __getitem__(self, name):
        return self.json[name]

    @property
    def verified(self):
        return self.json["verified"]

    @property
    def measured(self):
        return self.json["measured"]

    @property
    def received(self):
        """(messages, bytes) that arrived."""
        return self.measured["messages"], self.measured["bytes"]

    @property
    def matched(self):
        return self.verified["matched_messages"], self.verified["matched_bytes"]

    @property
    def expected(self):
        return self.verified["expected_messages"], self.verified["expected_bytes"]

    @property
    def _unit(self):
        return "bytes" if self["protocol"] == "tcp" else "messages"

    @property
    def counts(self):
        """By kind, those that occurred; over TCP in bytes."""
        counts = self.verified["counts"]
        assert set(counts) == {f"{kind}_{self._unit}" for kind in KINDS}
        return {name.split("_")[0]: count for name, count in counts.items() if count}

    @property
    def faults(self):
        """(kind, message, length, arrival, offset), in the order of the list. The
        offset is one in the stream, or of a datagram in the message."""
        offset = "offset_bytes" if self._unit == "bytes" else "offset_in_message_bytes"
        return [
            (
                fault["kind"],
                fault["message"],
                fault[f"length_{self._unit}"],
                fault.get("arrival") or 0,
                fault[offset],
            )
            for fault in self.verified["faults"]
        ]


def totals(messages):
    """(count, bytes) of these messages."""
    return len(messages), sum(map(len, messages))


# --------------------------------------------------------------- the receiver


class ReplayReceiver(Program):
    """One run of the receiver."""

    name = "receiver"

    def __init__(self, directory, words, **options):
        options.setdefault("executable", RECEIVER)
        super().__init__(directory, ["replay_receiver", *words], **options)

    # What can be seen of the run.

    @property
    def json_path(self):
        return self._directory / "result.json"

    @property
    def result(self):
        if not self.json_path.exists():
            self.fail("wrote no JSON")
        return Result(self.json_path.read_text())

    def drops(self, port):
        """What the kernel says that this run's socket has dropped."""
        return sum(int(line[12]) for line in self._sockets("udp", port))

    def bound(self, port):
        return any(self._sockets("udp", port))

    def connected(self, port):
        """A TCP connection to this port is up."""
        return any(line[3] == "01" for line in self._sockets("tcp", port, 2))

    def joined(self, group):
        number = struct.unpack("<I", socket.inet_aton(group))[0]
        return f"{number:08X}" in self._proc("net/igmp").split()

    def waits_in(self, function):
        """One of its threads sleeps in a kernel function with this in its name."""
        names = [self._proc(f"task/{task}/wchan") for task in self._tasks()]
        return any(function in name for name in names)

    # Waiting.

    def wait_until_bound(self, port, group=None):
        """Bound, and a member of the group: nothing sent from now on is missed."""
        self.wait_until(lambda: self.bound(port), f"UDP port {port} bound")
        if group is not None:
            self.wait_until(lambda: self.joined(group), f"{group} joined")

    def wait_until_connected(self, port):
        self.wait_until(lambda: self.connected(port), f"connected to {port}")

    # Ending.

    def expect(self, status, reason=None):
        """Waits for this end. Returns the JSON's result, where there is one."""
        seen = self.wait()
        if seen != status:
            self.fail(f"status {seen} instead of {status}")
        if not self.json_path.exists() or not self.json_path.stat().st_size:
            return None
        result = self.result
        assert result["exit_status"] == status
        if reason is not None and result["end_reason"] != reason:
            self.fail(f"end by {result['end_reason']!r} instead of {reason!r}")
        return result

    def expect_refusal(self, status, *parts):
        """Nothing on standard output, and an error that says these words."""
        self.expect(status)
        assert self.output() == ""
        text = self.errors()
        assert text.startswith("replay_receiver: ") and text.endswith("\n")
        for part in parts:
            assert part in text, text
        return text

    # Helpers.

    def _proc(self, name):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            return pathlib.Path(f"/proc/{self.pid}/{name}").read_text()
        return ""

    def _tasks(self):
        with contextlib.suppress(FileNotFoundError):
            return os.listdir(f"/proc/{self.pid}/task")
        return []

    def _sockets(self, kind, port, column=1):
        """The lines of the network's table with this local (or, in column 2,
        remote) port."""
        for line in self._proc(f"net/{kind}").splitlines()[1:]:
            words = line.split()
            if int(words[column].rpartition(":")[2], 16) == port:
                yield words


# -------------------------------------------------------------------- fixtures


@pytest.fixture
def udp_port():
    """A free UDP port outside the range from which the kernel gives out ports."""
    while True:
        number = random.randrange(10000, 32000)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as trial:
            with contextlib.suppress(OSError):
                trial.bind(("0.0.0.0", number))
                return number


@pytest.fixture
def receive(tmp_path):
    """receive(*words, json=True, ...) runs the program with these words and, in
    front of them, a JSON file of its own."""
    runs = []
    if not os.access(RECEIVER, os.X_OK):
        pytest.fail(f"no program at {RECEIVER}; set REPLAY_RECEIVER")

    def run(*words, json=True, **options):
        directory = tmp_path / f"receiver-{len(runs)}"
        directory.mkdir()
        kept = ("--json", directory / "result.json") if json else ()
        runs.append(ReplayReceiver(directory, (*kept, *words), **options))
        return runs[-1]

    yield run
    for each in runs:
        each.kill()


@pytest.fixture
def both(receive, start, port, udp_port):
    """both(*line, protocol=, sender=, receiver=) runs the two programs on this
    option line and their own words; the receiver has ended or is `running`."""

    def run(*line, protocol="tcp", sender=(), receiver=(), running=False, **options):
        over_tcp = protocol.lower() == "tcp"
        number = port if over_tcp else udp_port
        line = ("--port", str(number), "--protocol", protocol, *line)
        if over_tcp:
            theirs = start(*line, *sender, port=number)
            theirs.wait_until_listening()
            ours = receive(*line, *PATIENT, *receiver, **options)
        else:
            ours = receive(*line, *PATIENT, *receiver, **options)
            ours.wait_until_bound(number)
            theirs = start(*line, *sender, port=number)
        ours.sender = theirs
        if not running:
            ours.wait()
            # It would go on to hold its processors.
            theirs.kill()
        return ours

    return run


@pytest.fixture
def as_nobody():
    """Options by which a receiver runs as a user without any privilege. It is a
    copy, because the built one may lie in a folder that only its owner may enter."""
    if os.geteuid() != 0:
        yield {}
        return
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)
        yield {
            "executable": shutil.copy(RECEIVER, directory),
            "env": {**os.environ, "LSAN_OPTIONS": ""},
            "user": 65534,
            "group": 65534,
            "extra_groups": [],
        }


class Speaker:
    """Sends datagrams of the test's own choice from a known port."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.bind((LOCALHOST, 0))
        self.port = self.socket.getsockname()[1]

    def say(self, port, *datagrams):
        for datagram in datagrams:
            self.socket.sendto(datagram, (LOCALHOST, port))


@pytest.fixture
def speaker():
    one = Speaker()
    yield one
    one.socket.close()


# -------------------------------------------------------- a reader of captures


def read_capture(path):
    """(stamp in nanoseconds, frame) of each record of a capture with nanosecond
    stamps on Ethernet."""
    data = pathlib.Path(path).read_bytes()
    header = struct.unpack_from("<IHHIIII", data)
    assert header[0] == 0xA1B23C4D and header[1:3] == (2, 4) and header[6] == 1
    records = []
    at = 24
    while at < len(data):
        seconds, nanoseconds, captured, wire = struct.unpack_from("<IIII", data, at)
        assert nanoseconds < 10**9 and captured == wire <= header[5]
        at += 16 + captured
        assert at <= len(data)
        stamp = seconds * 10**9 + nanoseconds
        records.append((stamp, data[at - captured : at]))
    return records


def read_frame(frame):
    """(source, destination, payload) of a frame with IPv4 and UDP."""
    assert frame[12:14] == b"\x08\x00"
    packet = frame[14:]
    assert packet[0] == 0x45 and packet[9] == 17
    assert struct.unpack_from(">H", packet, 2)[0] == len(packet)
    words = sum(struct.unpack(">10H", packet[:20]))
    assert (words & 0xFFFF) + (words >> 16) == 0xFFFF  # the header's checksum
    source, destination, length = struct.unpack_from(">HHH", packet, 20)
    assert length == len(packet) - 20
    return (
        (socket.inet_ntoa(packet[12:16]), source),
        (socket.inet_ntoa(packet[16:20]), destination),
        packet[28:],
    )


def captured_payloads(path):
    return [read_frame(frame)[2] for _, frame in read_capture(path)]
