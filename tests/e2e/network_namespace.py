"""Two hosts on one cable, as network namespaces made for one test."""

import contextlib
import ctypes
import os
import shutil
import subprocess

import pytest

CLONE_NEWNET = 0x40000000
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


def run(*words):
    subprocess.run(words, check=True, capture_output=True, text=True)


def create_cable(hosts):
    for host in hosts:
        run("ip", "netns", "add", host.name)
    one, other = hosts
    run(
        "ip", "link", "add", one.device, "netns", one.name,
        "type", "veth", "peer", other.device, "netns", other.name,
    )
    for host in hosts:
        ip = ("ip", "-n", host.name)
        run(*ip, "address", "add", f"{host.address}/24", "dev", host.device)
        run(*ip, "link", "set", host.device, "up")
        run(*ip, "link", "set", "lo", "up")


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
