"""Trouble on the way: links that go down, devices that vanish, routes that end, slow
and lossy links, receivers that creep, hosts that restart, and storms of connections.

What happens on one host, where a receiver stalls, leaves or is replaced, and what a
slow link does to datagrams, is tested beside the runs over TCP, UDP and to groups.
"""

import contextlib
import functools
import json
import random
import re
import signal
import socket
import subprocess
import time

import pytest

import capture_builder as build
import fault_relay as relay
from bad_cable import bad_cable  # noqa: F401: a fixture
from capture_test import reading
from conftest import DEADLINE, MESSAGE_SIZE, Receiver, debug_dump, echo, pieces
from network_namespace import hosts, run  # noqa: F401: a fixture
from replay_receiver import (  # noqa: F401: most of these are fixtures
    PATIENT,
    random_bytes,
    receive,
    totals,
)
from tcp_run_test import waits_in_kernel
from udp_receiver import make_receiver  # noqa: F401: a fixture

PORT = 5000  # free in a namespace of the test's own
GROUP = "239.1.1.1"
# Nothing more comes after so long. The rate is not what these tests are about.
SILENT = ("--settle", "0.05", "--idle", "1", "--tolerance", "1000")
WHOLE = (*PATIENT, "--tolerance", "1000")
AS_UDP = ("--filetype", "1", "--filter", "udp")
MEGABYTE = 1 << 20
# A second and a half at 64 megabits a second: time to make trouble, also for a slow test.
LONG = 12 * MEGABYTE


# -------------------------------------------------------------- both programs, apart


class Apart:
    """Runs of the sender on one host and of the receiver on another."""

    def __init__(self, start, receive, near, far):
        self._start, self._receive = start, receive
        self.near, self.far = near, far

    def serve(self, path, *words):
        """A sender that listens on its end of the cable."""
        words = ("--filepath", path, "--ip", self.near.address, "--port", str(PORT), *words)
        with self.near.inside():
            sender = self._start(*words, port=PORT)
            sender.wait_until_listening()
        sender.line = words
        return sender

    def listen(self, path, *words, target=None, own=SILENT):
        """A receiver program that is bound to the datagrams' target."""
        line = self._datagram_line(path, target, *words)
        device = ("--device", self.far.device) if target == GROUP else ()
        with self.far.inside():
            receiver = self._receive(*line, *device, *own)
        receiver.wait_until_bound(PORT, target)
        return receiver

    def send(self, path, *words, target=None):
        """A sender of datagrams."""
        with self.near.inside():
            return self._start(*self._datagram_line(path, target, *words))

    def take(self, sender, *words, own=WHOLE):
        """A receiver program that has connected to this sender."""
        with self.far.inside():
            receiver = self._receive(*sender.line, *words, *own)
        receiver.wait_until_connected(PORT)
        return receiver

    def connect(self, **options):
        """A receiver that the test reads itself."""
        with self.far.inside():
            return Receiver(PORT, host=self.near.address, **options)

    def _datagram_line(self, path, target, *words):
        address = ("--ip", target or self.far.address, "--port", str(PORT))
        return ("--filepath", path, *address, "--protocol", "udp", *words)

    def link(self, host, *words):
        run("ip", "-n", host.name, "link", *words)

    def unplug(self, host):
        self.link(host, "set", host.device, "down")

    def plug(self, host):
        self.link(host, "set", host.device, "up")


@pytest.fixture
def apart(start, receive, hosts):
    return Apart(start, receive, *hosts)


def small_messages(count):
    """Payloads that differ, short enough for their dumps to be looked at often."""
    return [b"%04d" % n + random_bytes(20 + n % 90, seed=n) for n in range(count)]


@pytest.fixture
def capture(tmp_path):
    """capture(payloads) is the path of a capture with these, as UDP."""

    def create(payloads):
        path = tmp_path / "a.pcap"
        path.write_bytes(build.pcap([build.udp(each) for each in payloads]))
        return path

    return create


def dumped(sender):
    return sender.output().count("seq: ")


def wait_for_more(sender, count):
    """Waits until so many further messages have been sent and dumped."""
    wanted = dumped(sender) + count
    sender.wait_until(lambda: dumped(sender) >= wanted, f"{wanted} dumps")


def packets_sent(host):
    words = ["ip", "-n", host.name, "-s", "-j", "link", "show", "dev", host.device]
    seen = json.loads(subprocess.run(words, check=True, capture_output=True).stdout)
    return seen[0]["stats64"]["tx"]["packets"]


def wait_for_packets(sender, host, count):
    sender.wait_until(lambda: packets_sent(host) >= count, f"{count} packets")


def assert_complete(receiver, messages):
    result = receiver.expect(0, "complete")
    assert result.faults == [] and result.counts == {}
    assert result.matched == result.received == totals(messages)
    assert receiver.errors() == ""


def end_of_tcp_run(sender, near, path, **settings):
    """A stop, and nothing on either stream but the configuration."""
    sender.stop()
    sender.expect(0, echo(path, f"{near.address}:{PORT}", **settings))


# --------------------------------------------------------- a link that goes and comes

OUTAGE = 0.5  # seconds; long enough for several retransmissions to be in vain
OUTLASTS_AN_OUTAGE = (*SILENT, "--idle", "2")


@pytest.mark.parametrize("end", ["near", "far"])
def test_a_paced_tcp_run_outlives_a_link_that_goes_down_and_comes_up(
    apart, data_file, end
):
    data = random_bytes(LONG)
    path = data_file(data)
    sender = apart.serve(path, "--mbps", "64")
    receiver = apart.take(sender)
    wait_for_packets(sender, apart.near, 300)
    apart.unplug(getattr(apart, end))
    time.sleep(OUTAGE)
    assert receiver.running()
    apart.plug(getattr(apart, end))
    assert_complete(receiver, pieces(data))
    end_of_tcp_run(sender, apart.near, path, in_speed=64000000)


@pytest.mark.parametrize("end", ["near", "far"])
def test_an_unpaced_tcp_run_outlives_a_link_that_goes_down_and_comes_up(
    apart, data_file, end
):
    data = random_bytes(MEGABYTE + 77)
    path = data_file(data)
    sender = apart.serve(path, "--loopback", "0")
    receiver = apart.take(sender)
    wait_for_packets(sender, apart.near, 100)
    apart.unplug(getattr(apart, end))
    time.sleep(OUTAGE)
    before = packets_sent(apart.near)
    apart.plug(getattr(apart, end))
    wait_for_packets(sender, apart.near, before + 500)
    assert sender.stop() == 0
    result = receiver.expect(7, "closed")
    assert result.faults == [] and result.measured["bytes"] > 500 * 1448
    sender.expect(0, echo(path, f"{apart.near.address}:{PORT}", loopback=0))


def test_a_link_that_is_down_when_a_tcp_run_starts_may_come_up_later(apart, data_file):
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    apart.unplug(apart.near)
    sender = apart.serve(path)
    sender.wait_until_replaying()
    apart.plug(apart.near)
    assert_complete(apart.take(sender), pieces(data))
    end_of_tcp_run(sender, apart.near, path)


def know_each_other(apart):
    """Once and for all: a host that has to ask for the other keeps messages until the
    answer comes."""
    words = ["ip", "-n", apart.far.name, "-j", "link", "show", "dev", apart.far.device]
    seen = json.loads(subprocess.run(words, check=True, capture_output=True).stdout)
    run(
        "ip", "-n", apart.near.name, "neighbour", "replace", apart.far.address,
        "lladdr", seen[0]["address"], "dev", apart.near.device, "nud", "permanent",
    )


@pytest.mark.parametrize("target", [None, GROUP], ids=["one host", "a group"])
def test_datagrams_of_an_outage_beyond_the_own_link_are_lost_and_the_rest_arrives(
    apart, capture, target
):
    """Nothing tells the sender of it."""
    know_each_other(apart)
    messages = small_messages(400)
    path = capture(messages)
    device = ("--device", apart.near.device) if target == GROUP else ()
    words = (*AS_UDP, "--mbps", "0.1")
    receiver = apart.listen(path, *words, target=target, own=OUTLASTS_AN_OUTAGE)
    sender = apart.send(path, *words, "--debug", "1", *device, target=target)
    wait_for_more(sender, 30)
    apart.unplug(apart.far)
    wait_for_more(sender, 30)
    apart.plug(apart.far)
    if target == GROUP:  # whose members are forgotten by a device that goes down
        receiver.wait_until_bound(PORT, target)
    sender.wait_until(lambda: dumped(sender) == len(messages), "all dumps")
    result = receiver.expect(1)
    ((kind, first, lost, _, _),) = result.faults
    assert kind == "lost" and result.counts == {"lost": lost}
    assert first > 30 and lost >= 29  # one may have been on its way
    rest = messages[: first - 1] + messages[first - 1 + lost :]
    assert result.received == result.matched == totals(rest)
    sender.stop()
    sender.expect(
        0,
        echo(
            path, f"{target or apart.far.address}:{PORT}", filetype=1,
            in_speed=100000, filter="udp", protocol="udp", device="".join(device[1:]),
        )
        + reading(path) + debug_dump(messages),
    )


# ---------------------------------------------- what ends the sending of datagrams


def delete_device(apart):
    apart.link(apart.near, "delete", apart.near.device)


def unplug_the_own_end(apart):
    apart.unplug(apart.near)


def address_command(apart, word):
    address = f"{apart.near.address}/24"
    run("ip", "-n", apart.near.name, "address", word, address, "dev", apart.near.device)


def remove_the_address(apart):
    address_command(apart, "delete")


def make_the_target(kind):
    def act(apart):
        target = f"{apart.far.address}/32"
        run("ip", "-n", apart.near.name, "route", "add", kind, target)

    act.__name__ = f"make_the_target_{kind}"
    return act


TAKES_DOWN = (delete_device, unplug_the_own_end)
ENDS_SENDING = [
    (delete_device, None, False),
    (delete_device, None, True),
    (delete_device, GROUP, True),
    (unplug_the_own_end, None, False),
    (unplug_the_own_end, None, True),
    (unplug_the_own_end, GROUP, True),
    (remove_the_address, None, False),
    (make_the_target("unreachable"), None, False),
    (make_the_target("prohibit"), None, False),
    (make_the_target("blackhole"), None, False),
]


@pytest.fixture
def interrupted(apart, capture):
    """interrupted(trouble, target, named) is a paced run of datagrams that met this
    trouble in its middle, its receiver, the messages and the configuration shown."""

    def start(trouble, target, named):
        messages = small_messages(1000)
        path = capture(messages)
        words = (*AS_UDP, "--mbps", "0.1")
        receiver = apart.listen(path, *words, target=target)
        device = ("--device", apart.near.device) if named else ()
        sender = apart.send(path, *words, "--debug", "1", *device, target=target)
        wait_for_more(sender, 20)
        trouble(apart)
        shown = echo(
            path, f"{target or apart.far.address}:{PORT}", filetype=1,
            in_speed=100000, filter="udp", protocol="udp", device="".join(device[1:]),
        )
        return sender, receiver, messages, shown + reading(path)

    return start


@pytest.mark.parametrize(
    "trouble, target, named",
    ENDS_SENDING,
    ids=[
        " ".join([trouble.__name__, target or "one host", "by device" if named else ""])
        for trouble, target, named in ENDS_SENDING
    ],
)
def test_an_error_of_the_own_hosts_network_ends_the_sending_of_datagrams(
    interrupted, trouble, target, named
):
    """What was dumped as sent has arrived, and nothing after it. Only a device that is
    being taken down swallows some without a word."""
    sender, receiver, messages, shown = interrupted(trouble, target, named)
    sender.wait_for_output("socket error\n")
    result = receiver.expect(1, "idle")
    sent, arrived = dumped(sender), result.received[0]
    assert 20 <= sent < len(messages)
    assert arrived == sent or trouble in TAKES_DOWN and 0 < arrived < sent
    assert result.received == result.matched == totals(messages[:arrived])
    assert result.faults == [("lost", arrived + 1, len(messages) - arrived, 0, 0)]
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[:sent]) + "socket error\n")


def test_sending_does_not_begin_again_when_the_own_link_comes_up(interrupted, apart):
    sender, receiver, messages, shown = interrupted(unplug_the_own_end, None, False)
    sender.wait_for_output("socket error\n")
    apart.plug(apart.near)
    sent = dumped(sender)
    sender.wait_for_progress([sender.pid], milliseconds=100)
    result = receiver.expect(1, "idle")
    assert result.received == totals(messages[: result.received[0]])
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[:sent]) + "socket error\n")


def test_a_named_device_needs_no_address(interrupted):
    """The datagrams leave without one. The other host does not take what comes from
    nowhere, so it is not asked about them."""
    sender, receiver, messages, shown = interrupted(remove_the_address, None, True)
    receiver.kill()
    wait_for_more(sender, 100)
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[: dumped(sender)]))


def test_a_link_that_is_down_from_the_first_datagram_on_ends_the_sending(
    apart, data_file
):
    path = data_file(random_bytes(25000))
    apart.unplug(apart.near)
    sender = apart.send(path)
    sender.wait_for_output("socket error\n")
    sender.stop()
    shown = echo(path, f"{apart.far.address}:{PORT}", protocol="udp")
    sender.expect(0, shown + "socket error\n")


def ask_often(host):
    """Lets the kernel give up on a neighbour after a fraction of a second."""
    setting = f"/proc/sys/net/ipv4/neigh/{host.device}/retrans_time_ms"
    with host.inside(), open(setting, "w") as file:
        file.write("10")


def test_a_neighbour_that_nobody_is_is_no_error(apart, data_file):
    """Nobody answers for the address, and the kernel keeps that to itself."""
    ask_often(apart.near)
    path = data_file(random_bytes(300000))
    sender = apart.send(path, target="10.77.0.99")
    sender.wait_for_progress()
    sender.stop()
    sender.expect(0, echo(path, f"10.77.0.99:{PORT}", protocol="udp"))


def test_a_port_that_nobody_has_on_a_host_that_says_so_is_no_error(apart, data_file):
    path = data_file(random_bytes(300000))
    sender = apart.send(path, "--mbps", "8")
    received = lambda: packets_sent(apart.far) > 3  # noqa: E731: what the far host says
    sender.wait_until(received, "the far host's answers")
    sender.stop()
    sender.expect(
        0, echo(path, f"{apart.far.address}:{PORT}", in_speed=8000000, protocol="udp")
    )


# ------------------------------------------------------- a device that vanishes, TCP


def test_a_device_that_vanishes_stalls_a_tcp_run_until_the_stop(apart, data_file):
    data = random_bytes(LONG)
    path = data_file(data)
    sender = apart.serve(path, "--mbps", "64")
    receiver = apart.take(sender, own=SILENT)
    wait_for_packets(sender, apart.near, 300)
    delete_device(apart)
    result = receiver.expect(1, "idle")
    ((kind, _, length, _, at),) = result.faults
    assert (kind, at + length) == ("truncated", len(data))
    assert result.measured["bytes"] == at
    end_of_tcp_run(sender, apart.near, path, in_speed=64000000)


def test_a_tcp_run_goes_on_when_a_device_of_the_same_name_and_address_comes(
    apart, data_file
):
    data = random_bytes(LONG)
    path = data_file(data)
    sender = apart.serve(path, "--mbps", "64")
    receiver = apart.take(sender)
    wait_for_packets(sender, apart.near, 300)
    delete_device(apart)
    lay_cable(apart.near, apart.far)
    assert_complete(receiver, pieces(data))
    end_of_tcp_run(sender, apart.near, path, in_speed=64000000)


def lay_cable(one, other):
    run(
        "ip", "link", "add", one.device, "netns", one.name,
        "type", "veth", "peer", other.device, "netns", other.name,
    )
    for host in (one, other):
        ip = ("ip", "-n", host.name)
        run(*ip, "address", "add", f"{host.address}/24", "dev", host.device)
        run(*ip, "link", "set", host.device, "up")


@pytest.mark.parametrize("pause", [0, OUTAGE], ids=["at once", "later"])
def test_a_receivers_host_that_restarts_is_one_socket_error(apart, data_file, pause):
    """It comes back without its connection and says so to the next segment. A new
    receiver gets the later messages."""
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    sender = apart.serve(path, "--loopback", "0", "--mbps", "80")
    receiver = apart.connect()
    assert receiver.read_exactly(3 * MESSAGE_SIZE) == data[: 3 * MESSAGE_SIZE]
    apart.unplug(apart.far)
    receiver.reset()  # told to nobody
    time.sleep(pause)
    apart.plug(apart.far)
    sender.wait_for_output("Socket error\n")
    later = apart.connect()
    first = later.read_exactly(MESSAGE_SIZE)
    at = data.index(first)
    assert at % MESSAGE_SIZE == 0
    rest = (data[at:] + data)[MESSAGE_SIZE : 60 * MESSAGE_SIZE]
    assert later.read_exactly(len(rest)) == rest
    sender.stop()
    whole = later.read_to_end()
    later.close()
    assert ((data[at:] + data * 40)[60 * MESSAGE_SIZE :]).startswith(whole)
    sender.expect(
        0,
        echo(path, f"{apart.near.address}:{PORT}", loopback=0, in_speed=80000000)
        + "Socket error\n",
    )


# ------------------------------------------------------------------ slow, lossy links


def limit_link(host, rate, room):
    """A reported skip where the kernel cannot do it."""
    where = ("dev", host.device, "root")
    limit = ("tbf", "rate", rate, "burst", "20kb", "limit", room)
    try:
        run("tc", "-n", host.name, "qdisc", "add", *where, *limit)
    except (subprocess.CalledProcessError, FileNotFoundError) as error:
        pytest.skip(f"the link cannot be limited here: {error}")


def packets_dropped(host):
    words = ["tc", "-n", host.name, "-s", "-j", "qdisc", "show", "dev", host.device]
    seen = json.loads(subprocess.run(words, check=True, capture_output=True).stdout)
    return seen[0]["drops"]


@pytest.mark.parametrize("room", ["10mb", "32kb"], ids=["patient", "dropping"])
def test_a_tcp_run_over_a_slow_link_arrives_whole(apart, data_file, room):
    """The second link has room for a few segments and drops the rest."""
    limit_link(apart.near, "20mbit", room)
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    sender = apart.serve(path)
    receiver = apart.take(sender)
    assert_complete(receiver, pieces(data))
    duration = receiver.result.measured["duration_ns"] / 1e9
    assert duration > (len(data) - 100_000) * 8 / 20_000_000
    if room == "32kb":
        assert packets_dropped(apart.near) > 0
    end_of_tcp_run(sender, apart.near, path)


def test_datagrams_that_a_slow_link_drops_are_what_is_lost(
    apart, capture, make_receiver
):
    """The kernel drops them without a word to the sender."""
    limit_link(apart.near, "8mbit", "8kb")
    messages = [b"%04d" % n + random_bytes(996, seed=n) for n in range(200)]
    path = capture(messages)
    with apart.far.inside():
        there = make_receiver(host=apart.far.address)
    with apart.near.inside(), socket.socket(type=socket.SOCK_DGRAM) as greeter:
        # Once the hosts know each other nothing but messages can be dropped.
        greeter.sendto(b"hello", (apart.far.address, there.port))
    assert there.receive(1) == [b"hello"]
    receiver = apart.listen(path, *AS_UDP)
    sender = apart.send(path, *AS_UDP)
    result = receiver.expect(1)
    lost = packets_dropped(apart.near)
    assert lost > 0
    assert result.counts == {"lost": lost}
    assert result.received[0] == result.matched[0] == len(messages) - lost
    sender.stop()
    sender.expect(
        0,
        echo(
            path, f"{apart.far.address}:{PORT}", filetype=1, filter="udp", protocol="udp"
        )
        + reading(path),
    )


# ---------------------------------------------------------------- a cable that spoils


class Chances:
    """A schedule that decides for each frame when it comes, from a seed."""

    def __init__(self, seed, shares):
        self._random = random.Random(seed)
        self._shares = shares
        self.counts = {}

    def get(self, number, default):
        chance = self._random.random()
        for name, (share, fault) in self._shares.items():
            chance -= share
            if chance < 0:
                self.counts[name] = self.counts.get(name, 0) + 1
                return fault
        return default


SHARES = {
    "drop": (0.03, relay.drop()),
    "duplicate": (0.03, relay.duplicate()),
    "swap": (0.03, relay.swap()),
    "delay": (0.02, relay.delay(5)),
    # The time to live, over which a checksum goes: as good as lost.
    "alter": (0.02, relay.alter(22)),
}


@pytest.mark.parametrize("words", [(), ("--mbps", "20")], ids=["unpaced", "paced"])
def test_a_tcp_run_over_a_bad_cable_arrives_whole(
    bad_cable, start, receive, data_file, words
):
    """Losses, copies, changes of order and of bytes, in both directions."""
    ways = [Chances(seed, SHARES) for seed in (1, 2)]
    near, far, there = bad_cable("tcp", *ways)
    apart = Apart(start, receive, near, far)
    data = random_bytes(MEGABYTE // 2)
    path = data_file(data)
    sender = apart.serve(path, *words)
    assert_complete(apart.take(sender), pieces(data))
    assert ways[0].counts.keys() == SHARES.keys()
    assert there.seen * 1448 > len(data)
    end_of_tcp_run(sender, near, path, **({"in_speed": 20000000} if words else {}))


def test_a_tcp_run_with_a_lost_handshake_and_latency_arrives_whole(
    bad_cable, start, receive, data_file
):
    near, far, _ = bad_cable("tcp", {1: relay.drop()}, {1: relay.drop()}, latency=0.02)
    apart = Apart(start, receive, near, far)
    data = random_bytes(MEGABYTE // 2)
    path = data_file(data)
    sender = apart.serve(path)
    assert_complete(apart.take(sender), pieces(data))
    end_of_tcp_run(sender, near, path)


@pytest.fixture
def over_bad_cable(bad_cable, start, receive):
    """over_bad_cable(path, schedule, *words) is the receiver of a replay of datagrams
    whose frames met this schedule, and the sender; the receiver has ended."""

    def replay(path, schedule, *words, latency=0):
        near, far, _ = bad_cable("udp", schedule, latency=latency)
        apart = Apart(start, receive, near, far)
        receiver = apart.listen(path, *words)
        sender = apart.send(path, *words)
        receiver.wait()
        sender.stop()
        return receiver, sender, f"{far.address}:{PORT}"

    return replay


def observed(schedule, count):
    """Lost, duplicated and reordered messages that this schedule makes of so many.
    One that comes behind a later one counts as reordered."""
    lost, duplicated, reordered = set(range(1, count + 1)), 0, 0
    latest = 0
    numbers = [b"%060d" % n for n in range(1, count + 1)]
    for arrived in relay.scheduled(numbers, schedule):
        if not arrived.isdigit():
            continue  # its checksum is wrong
        number = int(arrived)
        if number not in lost:
            duplicated += 1
            continue
        lost.remove(number)
        reordered += number < latest
        latest = max(latest, number)
    counts = {"lost": len(lost), "duplicated": duplicated, "reordered": reordered}
    return {kind: count for kind, count in counts.items() if count}


@pytest.mark.parametrize(
    "shares",
    [("drop",), ("duplicate",), ("swap",), ("delay",), ("alter",), tuple(SHARES)],
    ids=" and ".join,
)
def test_what_a_bad_cable_does_to_datagrams_is_what_the_receiver_reports(
    over_bad_cable, capture, shares
):
    messages = [b"%04d" % n + random_bytes(100 + n, seed=n) for n in range(400)]
    path = capture(messages)
    used = {name: SHARES[name] for name in shares}
    counts = observed(Chances(3, used), len(messages))
    assert counts
    receiver, sender, target = over_bad_cable(path, Chances(3, used), *AS_UDP, "--mbps", "2")
    result = receiver.expect(1)
    assert result.counts == counts
    assert result.matched[0] == len(messages) - counts.get("lost", 0)
    assert result.received[0] == result.matched[0] + counts.get("duplicated", 0)
    sender.expect(
        0,
        echo(path, target, filetype=1, in_speed=2000000, filter="udp", protocol="udp")
        + reading(path),
    )


def test_datagrams_with_a_wrong_checksum_count_as_dropped_by_the_receiver(
    over_bad_cable, capture
):
    """The kernel takes them in for a socket before it looks at their contents, and
    counts them among that socket's drops."""
    messages = [b"%04d" % n + random_bytes(100 + n, seed=n) for n in range(100)]
    path = capture(messages)
    schedule = {number: relay.alter(-1) for number in (10, 11, 50)}
    receiver, sender, target = over_bad_cable(path, schedule, *AS_UDP, "--mbps", "2")
    result = receiver.expect(5, "idle")
    assert result.faults == [("lost", 10, 2, 0, 0), ("lost", 50, 1, 0, 0)]
    assert result["own_drops"] == 3
    shown = echo(
        path, target, filetype=1, in_speed=2000000, filter="udp", protocol="udp"
    )
    sender.expect(0, shown + reading(path))


def test_a_message_is_lost_with_any_of_its_fragments(over_bad_cable, data_file):
    """Each message of a data file leaves in seven frames. Copies of them and another
    order change nothing."""
    data = random_bytes(12 * MESSAGE_SIZE)
    path = data_file(data)
    schedule = {
        7 * 1 + 1: relay.drop(),  # the second message's first
        7 * 3 + 4: relay.drop(),
        7 * 5 + 7: relay.drop(),
        7 * 6 + 2: relay.swap(),
        7 * 7 + 1: relay.swap(),
        7 * 8 + 3: relay.duplicate(),
        7 * 9 + 1: relay.delay(5),
    }
    receiver, sender, target = over_bad_cable(path, schedule, "--mbps", "8")
    result = receiver.expect(1)
    assert result.faults == [("lost", number, 1, 0, 0) for number in (2, 4, 6)]
    assert result.matched == (9, 9 * MESSAGE_SIZE)
    sender.expect(0, echo(path, target, in_speed=8000000, protocol="udp"))


def test_a_burst_waits_until_a_far_neighbour_is_known(over_bad_cable, capture):
    """The first question for it takes a while; what is sent meanwhile is kept."""
    messages = [b"%04d" % n + random_bytes(996, seed=n) for n in range(40)]
    path = capture(messages)
    receiver, sender, target = over_bad_cable(path, {}, *AS_UDP, latency=0.1)
    assert_complete(receiver, messages)
    shown = echo(path, target, filetype=1, filter="udp", protocol="udp")
    sender.expect(0, shown + reading(path))


# ------------------------------------------------------------- a receiver that creeps


@pytest.fixture
def creeping(apart):
    """creeping() is a connected receiver with a window of one segment."""
    with contextlib.ExitStack() as sockets:

        def connect():
            with apart.far.inside():
                receiver = sockets.enter_context(socket.socket())
            receiver.settimeout(DEADLINE)
            receiver.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1)
            receiver.setsockopt(socket.IPPROTO_TCP, socket.TCP_WINDOW_CLAMP, 1448)
            receiver.connect((apart.near.address, PORT))
            return receiver

        yield connect


def test_a_receiver_with_a_window_of_one_segment_gets_every_byte(
    apart, creeping, data_file
):
    """It takes them one at a time."""
    data = random_bytes(10 * MESSAGE_SIZE + 77)
    path = data_file(data)
    sender = apart.serve(path)
    receiver = creeping()
    received = b"".join(receiver.recv(1) for _ in range(len(data)))
    assert received == data
    sender.stop()
    assert receiver.recv(1) == b""
    shown = echo(path, f"{apart.near.address}:{PORT}")
    assert_short_sends(sender.output().removeprefix(shown), pieces(data))
    assert (sender.wait(), sender.errors()) == (0, "")


def test_a_stop_waits_for_a_creeping_receiver_to_take_the_message_begun(
    apart, creeping, data_file
):
    """No further one is sent then."""
    data = random_bytes(3 * MEGABYTE)
    path = data_file(data)
    sender = apart.serve(path)
    receiver = creeping()
    received = bytearray()

    def waits():
        received.extend(receiver.recv(100))
        return "Using poll wait to send " in sender.output()

    sender.wait_until(waits, "a short send")
    sender.signal(signal.SIGINT)
    sender.wait_until(lambda: waits_in_kernel(sender, sender.pid), "the main thread joins")
    assert sender.running()
    while chunk := receiver.recv(MESSAGE_SIZE):
        received += chunk
    assert received == data[: len(received)] and len(received) % MESSAGE_SIZE == 0
    shown = echo(path, f"{apart.near.address}:{PORT}")
    assert_short_sends(sender.output().removeprefix(shown), pieces(data))
    assert (sender.wait(), sender.errors()) == (0, "")


def assert_short_sends(text, messages):
    """Small segments need so much room that it may not suffice for a message. Each
    time this is told with what has left, and then what is left of the message."""
    told = r"Warning: unable to send all data, already send len: ([0-9]+)\n"
    waits = r"(?:Using poll wait to send [0-9]+ bytes\.\n)+"
    assert re.fullmatch(f"(?:{told}{waits})*", text), text
    for case in re.finditer(f"{told}({waits})", text):
        left = [int(number) for number in re.findall("[0-9]+", case[2])]
        assert left == sorted(set(left), reverse=True)
        assert int(case[1]) + left[0] in set(map(len, messages))


# --------------------------------------------------------------- storms of connections


STORM = 110  # more than the kernel queues
# With n connections open a new one is accepted once in n messages, so that 6000 messages
# go by. The many others are for a test that is slow to connect: ten seconds' worth.
MANY, LONG_ENOUGH = 100000, 500
RATE = ("--mbps", "0.5")


@functools.cache
def numbered_capture():
    messages = [b"%06d" % number for number in range(MANY)]
    return messages, build.pcap([build.udp(each) for each in messages])


@pytest.fixture
def storm(serve, data_file):
    """A sender of many small messages, these, and what it shows of itself."""
    messages, content = numbered_capture()
    path = data_file(content)

    def run(*words):
        sender = serve(path, *AS_UDP, *RATE, *words)
        sender.wait_until_replaying()
        shown = echo(path, sender.address, filetype=1, in_speed=500000, filter="udp")
        return sender, messages, shown + reading(path)

    return run


def read_on(receiver, messages):
    """The number of the first message that this receiver gets. The next ones follow."""
    at = messages.index(receiver.read_exactly(6))
    assert at + LONG_ENOUGH < MANY, "the test was too slow for its messages"
    expected = b"".join(messages[at + 1 : at + LONG_ENOUGH])
    assert receiver.read_exactly(len(expected)) == expected
    return at


def test_a_storm_of_receivers_that_stay_shares_out_every_message_once(storm, connect):
    """Each in place of the one before."""
    sender, messages, shown = storm()
    *others, last = [connect(sender) for _ in range(STORM)]
    at = read_on(last, messages)
    sender.stop()
    assert b"".join(each.read_to_end() for each in others) == b"".join(messages[:at])
    rest = last.read_to_end()
    assert rest == b"".join(messages[at + LONG_ENOUGH :])[: len(rest)]
    assert len(rest) % 6 == 0
    sender.expect(0, shown)


@pytest.mark.parametrize("end", ["close", "reset"])
def test_a_storm_of_receivers_that_leave_at_once_costs_messages_and_nothing_else(
    storm, connect, end
):
    """A message that meets a receiver which has left is one line, and each other one
    is dumped as sent. The last receiver, which stays, gets all the later ones."""
    sender, messages, shown = storm("--debug", "1")
    for _ in range(STORM - 1):
        getattr(connect(sender), end)()
    last = connect(sender)
    at = read_on(last, messages)
    sender.stop()
    sent = at + LONG_ENOUGH + len(last.read_to_end()) // 6
    assert (sender.wait(), sender.errors()) == (0, "")
    dumps = assert_each_is_told_once(sender.output(), shown, messages[:sent])
    # The first message behind an orderly close is no error yet.
    assert dumps > LONG_ENOUGH and (end == "close" or dumps < sent)


def assert_each_is_told_once(output, shown, messages):
    """Of each message, in order, a dump or an error; how many dumps."""
    assert output.startswith(shown)
    at, sent, error = len(shown), 0, "Socket error\n"
    for message in messages:
        text = error
        if not output.startswith(error, at):
            sent += 1
            text = debug_dump([message], first=sent)
        assert output.startswith(text, at), output[at : at + 200]
        at += len(text)
    assert at == len(output)
    return sent


def test_connections_that_never_come_about_are_nobodys(serve, connect, data_file):
    """The kernel gives up on them, or the sender accepts them without harm: all begin
    and none is waited for."""
    path = data_file(b"data")
    sender = serve(path)
    with contextlib.ExitStack() as sockets:
        for _ in range(300):
            attempt = sockets.enter_context(socket.socket())
            attempt.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                attempt.connect(("127.0.0.1", sender.port))
        sender.wait_for_progress()
    sender.stop()
    sender.expect(0, echo(path, sender.address))
