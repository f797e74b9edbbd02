"""Two hosts on a cable that spoils chosen frames. Its ends are devices whose other side
is a program, here two threads of the test, so that no help of the kernel's is needed
and what happens to each frame is known."""

import collections
import contextlib
import fcntl
import os
import select
import shutil
import socket
import struct
import subprocess
import threading
import time

import pytest

from fault_relay import scheduled
from network_namespace import Host, run

TUNSETIFF = 0x400454CA
IFF_TAP, IFF_NO_PI = 0x0002, 0x1000
TUN = "/dev/net/tun"
LARGEST_FRAME = 65536
IPV4_PROTOCOLS = {"tcp": 6, "udp": 17}


def carries(frame, protocol):
    """An IPv4 packet, or a fragment of one, of this transport."""
    return frame[12:14] == b"\x08\x00" and frame[23] == IPV4_PROTOCOLS[protocol]


class OneWay:
    """Frames from one end to the other. Those of `protocol` count from 1, and the
    schedule says what happens to them, as with a relay of datagrams; all others, such
    as those by which hosts find each other, pass. Each takes `latency` seconds."""

    def __init__(self, source, target, protocol, schedule, latency):
        self._source, self._target = source, target
        self._protocol, self._latency = protocol, latency
        self._wake, self._sleeper = socket.socketpair()
        self.seen = 0  # frames of the protocol
        self.settled = 0  # of these, passed on or not with all that comes of it
        self._thread = threading.Thread(target=self._run, args=(schedule,))
        self._thread.start()

    def stop(self):
        self._wake.close()
        self._thread.join()
        self._sleeper.close()

    def _run(self, schedule):
        for frame in scheduled(self._counted(), schedule):
            self._pass_on(frame)

    def _counted(self):
        for frame in self._arriving():
            if carries(frame, self._protocol):
                self.seen += 1
                yield frame
                self.settled = self.seen
            else:
                self._pass_on(frame)

    def _arriving(self):
        """Each frame when its time has come; the end when the cable is unplugged."""
        waiting = collections.deque()
        while True:
            pause = max(0, waiting[0][0] - time.monotonic()) if waiting else None
            ready = select.select([self._sleeper, self._source], [], [], pause)[0]
            if self._sleeper in ready:
                return
            if self._source in ready:
                frame = os.read(self._source, LARGEST_FRAME)
                waiting.append((time.monotonic() + self._latency, frame))
            while waiting and waiting[0][0] <= time.monotonic():
                yield waiting.popleft()[1]

    def _pass_on(self, frame):
        os.write(self._target, frame)


def open_end(host):
    """The program's side of a new device of this host."""
    host.speak_no_ipv6()
    with host.inside():
        end = os.open(TUN, os.O_RDWR | os.O_CLOEXEC)
        request = struct.pack("16sH22x", host.device.encode(), IFF_TAP | IFF_NO_PI)
        fcntl.ioctl(end, TUNSETIFF, request)
    # It keeps asking for the other one, however long the cable's threads take.
    host.set(f"ipv4/neigh/{host.device}/mcast_solicit", 100)
    ip = ("ip", "-n", host.name)
    run(*ip, "address", "add", f"{host.address}/24", "dev", host.device)
    run(*ip, "link", "set", host.device, "up")
    run(*ip, "link", "set", "lo", "up")
    return end


@pytest.fixture
def bad_cable():
    """bad_cable(protocol, there={}, back={}, latency=0) is (sending host, receiving
    host, the way there); a reported skip where it cannot be made."""
    if os.geteuid() != 0 or shutil.which("ip") is None:
        pytest.skip("network namespaces need root and the ip program")
    if not os.path.exists(TUN):
        pytest.skip(f"no {TUN} to make a cable of")
    pair = (
        Host(f"replay-{os.getpid()}-c", "near-end", "10.78.0.1"),
        Host(f"replay-{os.getpid()}-d", "far-end", "10.78.0.2"),
    )
    with contextlib.ExitStack() as undo:

        def plug_in(protocol, there={}, back={}, latency=0):
            ends = []
            for host in pair:
                try:
                    run("ip", "netns", "add", host.name)
                except subprocess.CalledProcessError as error:
                    pytest.skip(f"no network namespaces here: {error.stderr.strip()}")
                undo.callback(run, "ip", "netns", "delete", host.name)
                ends.append(open_end(host))
                undo.callback(os.close, ends[-1])
            ways = []
            for schedule, (source, target) in ((there, ends), (back, ends[::-1])):
                ways.append(OneWay(source, target, protocol, schedule, latency))
                undo.callback(ways[-1].stop)
            return *pair, ways[0]

        yield plug_in
