"""Multicast and slow links, between two hosts made of network namespaces."""

import shutil
import signal
import socket
import subprocess
import time

import pytest

import capture_builder as build
from conftest import echo, pieces, random_bytes
from network_namespace import hosts, run  # noqa: F401: a fixture
from udp_receiver import assert_same, make_receiver  # noqa: F401: a fixture

GROUP = "239.1.1.1"


@pytest.fixture
def sending(hosts):
    return hosts[0]


@pytest.fixture
def receiving(hosts):
    return hosts[1]


@pytest.fixture
def joined(receiving, make_receiver):
    """A member of the group at the far end of the cable."""
    with receiving.inside():
        member = make_receiver(host="")
        member.join(GROUP, receiving.address)
    return member


@pytest.fixture
def replay(start, sending):
    """replay(path, target, *words) starts a UDP run on the sending host."""

    def run_there(path, target, *words):
        host, _, port = target.rpartition(":")
        with sending.inside():
            return start(
                "--filepath", path, "--ip", host, "--port", port,
                "--protocol", "udp", *words,
            )

    return run_there


# --------------------------------------------------------------------- groups


def test_a_group_is_reached_through_the_named_device(
    replay, sending, joined, data_file
):
    # No route leads to the group: the device alone says where to send.
    data = random_bytes(25000)
    path = data_file(data)
    target = f"{GROUP}:{joined.port}"
    sender = replay(path, target, "--device", sending.device)
    assert_same(joined.receive(3), pieces(data))
    sender.stop()
    sender.expect(0, echo(path, target, protocol="udp", device=sending.device))


def test_without_a_device_and_a_route_nothing_is_sent(replay, joined, data_file):
    path = data_file(b"data")
    target = f"{GROUP}:{joined.port}"
    sender = replay(path, target)
    sender.wait_for_output("socket error\n")
    sender.stop()
    assert joined.is_quiet()
    sender.expect(0, echo(path, target, protocol="udp") + "socket error\n")


def test_without_a_device_the_route_decides(replay, sending, joined, data_file):
    run("ip", "-n", sending.name, "route", "add", "224.0.0.0/4", "dev", sending.device)
    replay(data_file(b"data"), f"{GROUP}:{joined.port}")
    assert joined.receive(1) == [b"data"]


def test_only_the_first_15_characters_of_a_device_name_count(
    replay, sending, joined, data_file
):
    assert len(sending.device) == 15
    target = f"{GROUP}:{joined.port}"
    replay(data_file(b"data"), target, "--device", sending.device + "-and-more")
    assert joined.receive(1) == [b"data"]


def test_datagrams_to_a_group_live_for_one_hop(replay, sending, joined, data_file):
    target = f"{GROUP}:{joined.port}"
    replay(data_file(b"data"), target, "--device", sending.device)
    assert joined.receive_one()[2] == 1


def test_the_senders_own_host_does_not_hear_it(
    replay, sending, joined, make_receiver, data_file
):
    with sending.inside():
        neighbour = make_receiver(host="", port=joined.port)
        neighbour.join(GROUP, sending.address)
        # Another program's datagram shows that the neighbour can hear the group.
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as other:
            interface = socket.inet_aton(sending.address)
            other.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, interface)
            other.sendto(b"other", (GROUP, joined.port))
    assert neighbour.receive(1) == joined.receive(1) == [b"other"]

    target = f"{GROUP}:{joined.port}"
    sender = replay(data_file(b"data"), target, "--device", sending.device)
    assert joined.receive(1) == [b"data"]
    sender.stop()
    assert neighbour.is_quiet()


def test_a_capture_reaches_a_group(replay, sending, joined, data_file):
    frames = [build.udp(b"one"), build.udp(b"two")]
    path = data_file(build.pcap(frames), "a.pcap")
    words = ("--filetype", "1", "--filter", "udp", "--device", sending.device)
    replay(path, f"{GROUP}:{joined.port}", *words)
    assert joined.receive(2) == build.payloads(frames)


# -------------------------------------------------------------- unicast links


def test_a_unicast_target_beyond_the_cable_is_reached(
    replay, sending, receiving, make_receiver, data_file
):
    with receiving.inside():
        there = make_receiver(host=receiving.address)
    target = f"{receiving.address}:{there.port}"
    replay(data_file(b"data"), target, "--device", sending.device)
    assert there.receive(1) == [b"data"]


def test_a_target_without_a_route_ends_the_sending(replay, data_file):
    path = data_file(b"data")
    sender = replay(path, "192.0.2.1:5000")
    sender.wait_for_output("socket error\n")
    sender.stop()
    sender.expect(0, echo(path, "192.0.2.1:5000", protocol="udp") + "socket error\n")


@pytest.fixture
def slow_link(sending):
    """Twenty megabits per second, with more room to queue than a socket may fill."""
    if shutil.which("tc") is None:
        pytest.skip("no tc program to limit the link with")
    where = ("dev", sending.device, "root")
    limit = ("tbf", "rate", "20mbit", "burst", "20kb", "limit", "10mb")
    try:
        run("tc", "-n", sending.name, "qdisc", "add", *where, *limit)
    except subprocess.CalledProcessError as error:
        pytest.skip(f"the link cannot be limited here: {error.stderr.strip()}")


def test_an_unpaced_run_waits_for_a_slow_link_and_loses_nothing(
    slow_link, replay, receiving, make_receiver, data_file
):
    # Eight times what the socket holds: it must have been full over and over.
    with receiving.inside():
        there = make_receiver(host=receiving.address)
    data = random_bytes(170 * 10240)
    path = data_file(data)
    target = f"{receiving.address}:{there.port}"

    begun = time.monotonic()
    sender = replay(path, target)
    assert_same(there.receive(170), pieces(data))
    assert time.monotonic() - begun > (len(data) - 20 * 1024) * 8 / 20_000_000
    sender.stop()
    sender.expect(0, echo(path, target, protocol="udp"))


def test_a_paced_run_on_a_slow_link_arrives_whole(
    slow_link, replay, receiving, make_receiver, data_file
):
    with receiving.inside():
        there = make_receiver(host=receiving.address)
    data = random_bytes(5 * 10240)
    path = data_file(data)
    target = f"{receiving.address}:{there.port}"

    sender = replay(path, target, "--mbps", "8")
    assert_same(there.receive(5), pieces(data))
    sender.stop(signal.SIGTERM)
    sender.expect(0, echo(path, target, protocol="udp", in_speed=8000000))
