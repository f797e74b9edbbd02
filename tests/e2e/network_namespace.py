"""Two hosts on one cable, as network namespaces made for one test."""

import contextlib
import ctypes
import json
import os
import shutil
import subprocess
import time

import pytest

from conftest import DEADLINE, POLL_INTERVAL

CLONE_NEWNET = 0x40000000
LISTENING = "0A"  # the states and timers in the kernel's table
ZERO_WINDOW_TIMER = "04"
_libc = ctypes.CDLL(None, use_errno=True)


def _set_namespace(fd):
    if _libc.setns(fd, CLONE_NEWNET) != 0:
        raise OSError(ctypes.get_errno(), "setns")


class Host:
    """One namespace, its end of the cable and its address there."""

    def __init__(self, name, device, address):
        self.name = name
        self.device = device
        self.address = address

    @contextlib.contextmanager
    def inside(self):
        """Sockets and programs made in this scope belong to the host."""
        home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        there = os.open(f"/run/netns/{self.name}", os.O_RDONLY)
        try:
            _set_namespace(there)
            yield self
        finally:
            _set_namespace(home)
            os.close(there)
            os.close(home)

    def set(self, setting, value):
        """A setting of the kernel's, named as below /proc/sys/net."""
        with self.inside(), open(f"/proc/sys/net/{setting}", "w") as file:
            file.write(str(value))

    def speak_no_ipv6(self):
        """Then nothing leaves or comes that a test has not caused."""
        with contextlib.suppress(FileNotFoundError):  # a kernel without it
            self.set("ipv6/conf/all/disable_ipv6", 1)

    # What the kernel counts, asked without another program.

    def counter(self, protocol, name):
        """Since the host was made; for instance of "Udp" the "OutDatagrams"."""
        table = "netstat" if protocol.endswith("Ext") else "snmp"
        lines = self._table(table).splitlines()
        names, values = (line.split() for line in lines if line.startswith(f"{protocol}:"))
        return int(values[names.index(name)])

    def packets_sent(self):
        """By the device, since that was made."""
        for line in self._table("dev").splitlines():
            name, _, counts = line.partition(":")
            if name.strip() == self.device:
                return int(counts.split()[9])
        raise AssertionError(f"no device {self.device}")

    def tries_in_vain(self, port):
        """How often in a row the connection of this local port has sent its oldest
        segment again, or has tried to send a first one."""
        tries = [max(int(line[6], 16), int(line[8])) for line in self._connections(port)]
        return max(tries, default=0)

    def finds_a_shut_window(self, port):
        """All that was sent has been answered, and the other end wants no more."""
        timers = [line[5].partition(":")[0] for line in self._connections(port)]
        return timers == [ZERO_WINDOW_TIMER]

    def waiting_to_be_accepted(self, port):
        """Connections that the listener of this port has not taken yet."""
        (line,) = (each for each in self._ports(port) if each[3] == LISTENING)
        return int(line[4].rpartition(":")[2], 16)

    def _connections(self, port):
        return [line for line in self._ports(port) if line[3] != LISTENING]

    def _ports(self, port):
        lines = map(str.split, self._table("tcp").splitlines()[1:])
        return [line for line in lines if int(line[1].rpartition(":")[2], 16) == port]

    def _table(self, name):
        with self.inside(), open(f"/proc/thread-self/net/{name}") as table:
            return table.read()

    # What the kernel knows of the device.

    def is_up(self):
        """The device passes packets on: a moment after both ends have been set up."""
        return self.link()["operstate"] == "UP"

    def link(self):
        words = ("ip", "-n", self.name, "-j", "link", "show", "dev", self.device)
        (link,) = json.loads(run(*words))
        return link


def run(*words):
    """Its standard output."""
    return subprocess.run(words, check=True, capture_output=True, text=True).stdout


def lay_cable(one, other):
    """Between two hosts that have none. What is sent before both ends are up is lost."""
    run(
        "ip", "link", "add", one.device, "netns", one.name,
        "type", "veth", "peer", other.device, "netns", other.name,
    )
    for host in (one, other):
        ip = ("ip", "-n", host.name)
        run(*ip, "address", "add", f"{host.address}/24", "dev", host.device)
        run(*ip, "link", "set", host.device, "up")
    deadline = time.monotonic() + DEADLINE
    while not (one.is_up() and other.is_up()):
        assert time.monotonic() < deadline, "the cable's ends do not come up"
        time.sleep(POLL_INTERVAL)


def create_cable(hosts):
    for host in hosts:
        run("ip", "netns", "add", host.name)
        host.speak_no_ipv6()
        run("ip", "-n", host.name, "link", "set", "lo", "up")
    lay_cable(*hosts)


def introduce(host, other):
    """Once and for all: a host that has to ask for another keeps messages until the
    answer comes."""
    run(
        "ip", "-n", host.name, "neighbour", "replace", other.address,
        "lladdr", other.link()["address"], "dev", host.device, "nud", "permanent",
    )


@pytest.fixture
def hosts():
    """(sending host, receiving host); a reported skip where they cannot be made."""
    if os.geteuid() != 0 or shutil.which("ip") is None:
        pytest.skip("network namespaces need root and the ip program")
    mark = os.getpid()
    pair = (
        # The longest name that a device can have.
        Host(f"replay-{mark}-a", "cable0123456789", "10.77.0.1"),
        Host(f"replay-{mark}-b", "far-end", "10.77.0.2"),
    )
    try:
        try:
            create_cable(pair)
        except subprocess.CalledProcessError as error:
            pytest.skip(f"no network namespaces here: {error.stderr.strip()}")
        yield pair
    finally:
        for host in pair:
            subprocess.run(["ip", "netns", "delete", host.name], capture_output=True)
