"""A receiver of datagrams for the tests, and a run that is checked by it."""

import os
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import threading
import time

import pytest

from conftest import BINARY, DEADLINE, LOCALHOST, echo

RECEIVE_BUFFER = 64 * 1024 * 1024
# Linux's numbers, which Python's socket module lacks.
SO_RCVBUFFORCE = 33
IP_RECVTTL = 12


class UdpReceiver:
    """A bound socket with room for a whole unpaced replay."""

    def __init__(self, host=LOCALHOST, port=0):
        self.host = host
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            # Passes the system's limit, where that is allowed.
            self.socket.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, RECEIVE_BUFFER)
        except PermissionError:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, RECEIVE_BUFFER)
        self.socket.setsockopt(socket.IPPROTO_IP, IP_RECVTTL, 1)
        self.socket.settimeout(DEADLINE)
        self.socket.bind((host, port))
        self.port = self.socket.getsockname()[1]

    def join(self, group, interface_address):
        request = socket.inet_aton(group) + socket.inet_aton(interface_address)
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP, request)

    def receive(self, count):
        """These many datagrams, in the order of arrival."""
        datagrams = []
        while len(datagrams) < count:
            try:
                datagrams.append(self.socket.recv(65536))
            except TimeoutError:
                pytest.fail(f"{len(datagrams)} of {count} datagrams have come")
        return datagrams

    def receive_one(self):
        """One datagram with its sender's address and its time-to-live."""
        data, ancillary, _, address = self.socket.recvmsg(65536, 64)
        ttl = None
        for level, kind, value in ancillary:
            if (level, kind) == (socket.IPPROTO_IP, socket.IP_TTL):
                ttl = struct.unpack("i", value[:4])[0]
        return data, address, ttl

    def is_quiet(self):
        return not select.select([self.socket], [], [], 0)[0]

    def close(self):
        self.socket.close()


@pytest.fixture
def make_receiver():
    """make_receiver(host=, port=) is a receiver that the test's end closes."""
    receivers = []

    def run(**options):
        receivers.append(UdpReceiver(**options))
        return receivers[-1]

    yield run
    for receiver in receivers:
        receiver.close()


@pytest.fixture
def receiver(make_receiver):
    return make_receiver()


@pytest.fixture
def replay(start, receiver):
    """replay(path, *words) starts a UDP run that is aimed at the receiver."""

    def run(path, *words):
        return start(
            "--filepath", path, "--ip", receiver.host, "--port", str(receiver.port),
            "--protocol", "udp", *words,
        )

    return run


@pytest.fixture
def udp_echo(receiver):
    """The lines that such a run prints first."""

    def text(path, **settings):
        settings.setdefault("protocol", "udp")
        return echo(path, f"{receiver.host}:{receiver.port}", **settings)

    return text


@pytest.fixture
def sends(replay, receiver, udp_echo):
    """Replays the path and expects exactly these datagrams, then a clean end.

    Both threads get time to send more before the stop; a datagram too many is
    seen.
    """

    def check(path, expected, *words, output="", errors="", **settings):
        sender = replay(path, *words)
        assert_same(receiver.receive(len(expected)), expected)
        sender.wait_for_progress()
        sender.stop()
        assert receiver.is_quiet()
        sender.expect(0, udp_echo(path, **settings) + output, errors)

    return check


def assert_same(got, expected):
    """Equality of long lists, told by the first difference only."""
    assert len(got) == len(expected), f"{len(got)} instead of {len(expected)} datagrams"
    for number, (one, other) in enumerate(zip(got, expected)):
        assert one == other, f"datagram {number} differs"


# ------------------------------------------------------------------- a witness


class Witness:
    """tcpdump on the loopback interface: what was really on the wire."""

    def __init__(self, directory, expression):
        self._path = directory / "witnessed.pcap"
        with open(self._path, "wb") as capture:
            self._process = subprocess.Popen(
                ["tcpdump", "-i", "lo", "-n", "-U", "--immediate-mode", "-s", "0"]
                + ["-B", "65536", "-w", "-", expression],
                stdout=capture,
                stderr=subprocess.PIPE,
                text=True,
            )
        if "listening on" not in self._process.stderr.readline():
            self._process.wait()
            pytest.skip("tcpdump may not listen on the loopback interface here")
        threading.Thread(target=self._process.stderr.read, daemon=True).start()

    def packets(self):
        """The whole IP packets seen so far."""
        data = self._path.read_bytes()
        packets = []
        at = 24
        while at + 16 <= len(data):
            captured = struct.unpack_from("<I", data, at + 8)[0]
            if at + 16 + captured > len(data):
                break
            packets.append(data[at + 16 + 14 : at + 16 + captured])
            at += 16 + captured
        return packets

    def wait_for(self, condition):
        """The packets, once they meet the condition."""
        limit = time.monotonic() + DEADLINE
        while time.monotonic() < limit:
            packets = self.packets()
            if condition(packets):
                return packets
            select.select([], [], [], 0.01)
        pytest.fail(f"the witness saw {len(self.packets())} packets")

    def stop(self):
        self._process.send_signal(signal.SIGINT)
        try:
            self._process.wait(DEADLINE)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()


@pytest.fixture
def witness(tmp_path):
    """witness(expression) watches the loopback interface until the test ends."""
    running = []

    def run(expression):
        try:
            running.append(Witness(tmp_path, expression))
        except FileNotFoundError:
            pytest.skip("tcpdump is not installed")
        return running[-1]

    yield run
    for each in running:
        each.stop()


def udp_payload(packet):
    header = (packet[0] & 15) * 4
    length = struct.unpack_from(">H", packet, header + 4)[0]
    return packet[header + 8 : header + length]


def tcp_stream(packets, port):
    """What was sent from this port, put together by sequence numbers."""
    segments = {}
    first = None
    for packet in packets:
        header = (packet[0] & 15) * 4
        total = struct.unpack_from(">H", packet, 2)[0]
        source, _, sequence = struct.unpack_from(">HHI", packet, header)
        flags = packet[header + 13]
        if source != port:
            continue
        if flags & 2:  # SYN: its number counts as one byte
            first = sequence + 1
        segments[sequence] = packet[header + (packet[header + 12] >> 4) * 4 : total]
    stream = bytearray()
    while first is not None and segments.get((first + len(stream)) % 2**32):
        stream += segments[(first + len(stream)) % 2**32]
    return bytes(stream)


# --------------------------------------------------------------- other rights


@pytest.fixture
def unprivileged(monkeypatch):
    """The sender, from here on, runs as a user without any privilege.

    It is a copy, because the built one may lie in a folder that only its owner
    may enter, and so may the list that a leak check wants to read.
    """
    if os.geteuid() != 0:
        yield
        return
    original = subprocess.Popen
    with tempfile.TemporaryDirectory() as directory:
        os.chmod(directory, 0o755)
        program = shutil.copy(BINARY, directory)
        environment = {**os.environ, "LSAN_OPTIONS": ""}

        def start_as_nobody(*arguments, **options):
            options.update(executable=program, env=environment)
            return original(
                *arguments, user=65534, group=65534, extra_groups=[], **options
            )

        monkeypatch.setattr(subprocess, "Popen", start_as_nobody)
        yield
