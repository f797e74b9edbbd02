"""Trouble on the way: links that go down, devices that vanish, routes that end, slow
and lossy links, receivers that creep, hosts that restart, and storms of connections.

Nothing here hangs on the clock. A run that is to meet trouble in its middle has no end
within the test, both programs can be halted while something happens to the network, and
how far things have got is read from the kernel's counters.

What happens on one host, where a receiver stalls, leaves or is replaced, and what a
slow link does to datagrams, is tested beside the runs over TCP, UDP and to groups.
"""

import contextlib
import functools
import itertools
import json
import random
import re
import signal
import socket
import subprocess

import pytest

import capture_builder as build
import fault_relay as relay
from bad_cable import bad_cable  # noqa: F401: a fixture
from capture_test import reading
from conftest import DEADLINE, MESSAGE_SIZE, Receiver, debug_dump, echo, pieces, random_bytes
from halting import go_on, halt, held
from network_namespace import hosts, introduce, lay_cable, run  # noqa: F401: a fixture
from replay_receiver import receive, totals  # noqa: F401: a fixture
from tcp_run_test import waits_in_kernel

PORT = 5000  # free in a namespace of the test's own
GROUP = "239.1.1.1"
# The rate is not what these tests are about. A receiver that had to wait for its
# processor takes in a second's messages in no time.
AT_ANY_RATE = ("--tolerance", "1000000000")
# For a receiver that is let go when everything is there: silence is the end.
AT_ONCE = ("--settle", "0.05", "--idle", "0.2", *AT_ANY_RATE)
# For one that has to outlast the trouble.
WHOLE = ("--settle", "0.05", "--idle", "60", *AT_ANY_RATE)
AS_UDP = ("--filetype", "1", "--filter", "udp")
ENDLESS = ("--loopback", "0")
MEGABYTE = 1 << 20


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

    def listen(self, path, *words, target=None):
        """A receiver program that is bound to the datagrams' target, and halted: what
        comes waits for it until it is let go."""
        line = self._datagram_line(path, target, *words)
        device = ("--device", self.far.device) if target == GROUP else ()
        with self.far.inside():
            receiver = self._receive(*line, *device, *AT_ONCE)
        receiver.wait_until_bound(PORT, target)
        halt(receiver)
        return receiver

    def send(self, path, *words, target=None):
        """A sender of datagrams."""
        with self.near.inside():
            return self._start(*self._datagram_line(path, target, *words))

    def take(self, sender, *words):
        """A receiver program that has connected to this sender."""
        with self.far.inside():
            receiver = self._receive(*sender.line, *words, *WHOLE)
        receiver.wait_until_connected(PORT)
        return receiver

    def connect(self, **options):
        """A receiver that the test reads itself."""
        with self.far.inside():
            return Receiver(PORT, host=self.near.address, **options)

    def _datagram_line(self, path, target, *words):
        address = ("--ip", target or self.far.address, "--port", str(PORT))
        return ("--filepath", path, *address, "--protocol", "udp", *words)

    # The network.

    def link(self, host, *words):
        run("ip", "-n", host.name, "link", *words)

    def unplug(self, host):
        self.link(host, "set", host.device, "down")

    def plug(self, host):
        self.link(host, "set", host.device, "up")

    # How far a run has got.

    def datagrams_sent(self):
        """All that the sender takes for sent."""
        return self.near.counter("Udp", "OutDatagrams") + self.datagrams_dropped()

    def datagrams_dropped(self):
        """By the sender's own host, without a word."""
        return self.near.counter("Udp", "SndbufErrors")

    def datagrams_arrived(self):
        """In the receiver's buffer: nothing else comes to that host."""
        return self.far.counter("Ip", "InDelivers")

    def wait_until_sent(self, sender, count):
        sender.wait_until(lambda: self.datagrams_sent() >= count, f"{count} datagrams")

    def wait_until_arrived(self, program, count):
        program.wait_until(
            lambda: self.datagrams_arrived() == count, f"{count} datagrams arrived"
        )

    def wait_for_more_packets(self, sender, count):
        wanted = self.near.packets_sent() + count
        sender.wait_until(lambda: self.near.packets_sent() >= wanted, f"{wanted} packets")

    def wait_until_in_vain(self, sender, tries):
        sender.wait_until(
            lambda: self.near.tries_in_vain(PORT) >= tries, f"{tries} tries in vain"
        )


@pytest.fixture
def apart(start, receive, hosts):
    return Apart(start, receive, *hosts)


@functools.cache
def small_messages(count):
    """Payloads that differ, short enough for their dumps to be looked at often."""
    block = random_bytes(300)
    return [b"%06d" % n + block[n % 97 :][: 20 + n % 90] for n in range(count)]


@functools.cache
def capture_of_small_messages(count):
    return build.pcap([build.udp(each) for each in small_messages(count)])


@pytest.fixture
def capture(tmp_path):
    """capture(payloads) is the path of a capture with these, as UDP."""

    def create(payloads):
        path = tmp_path / "a.pcap"
        path.write_bytes(build.pcap([build.udp(each) for each in payloads]))
        return path

    return create


# Almost four minutes' worth: the tests are long over by then.
MANY, SLOWLY = 40000, ("--mbps", "0.1")


@pytest.fixture
def slow_run(apart, tmp_path):
    """slow_run(target=, named=) is a paced run of many small datagrams, its receiver,
    which is halted, the messages and the configuration shown."""

    def start(target=None, named=False):
        path = tmp_path / "a.pcap"
        path.write_bytes(capture_of_small_messages(MANY))
        words = (*AS_UDP, *SLOWLY)
        receiver = apart.listen(path, *words, target=target)
        device = ("--device", apart.near.device) if named else ()
        sender = apart.send(path, *words, "--debug", "1", *device, target=target)
        shown = echo(
            path, f"{target or apart.far.address}:{PORT}", filetype=1,
            in_speed=100000, filter="udp", protocol="udp", device="".join(device[1:]),
        )
        return sender, receiver, small_messages(MANY), shown + reading(path)

    return start


def dumped(sender):
    return sender.output().count("seq: ")


def assert_complete(receiver, messages):
    result = receiver.expect(0, "complete")
    assert result.faults == [] and result.counts == {}
    assert result.matched == result.received == totals(messages)
    assert receiver.errors() == ""


def assert_closed_in_order(receiver, least):
    """The sender was stopped in the middle, and not earlier than so many bytes."""
    result = receiver.expect(7, "closed")
    assert result.faults == [] and result.counts == {}
    assert result.measured["bytes"] > least
    assert receiver.errors() == ""


def end_of_tcp_run(sender, near, path, **settings):
    """A stop, and nothing on either stream but the configuration."""
    sender.stop()
    sender.expect(0, echo(path, f"{near.address}:{PORT}", **settings))


# --------------------------------------------------------- a link that goes and comes


@pytest.mark.parametrize("end", ["near", "far"])
@pytest.mark.parametrize("rate", [0, 64], ids=["unpaced", "paced"])
def test_a_tcp_run_outlives_a_link_that_goes_down_and_comes_up(
    apart, data_file, rate, end
):
    path = data_file(random_bytes(MEGABYTE + 77))
    sender = apart.serve(path, *ENDLESS, "--mbps", str(rate))
    receiver = apart.take(sender)
    apart.wait_for_more_packets(sender, 100)
    apart.unplug(getattr(apart, end))
    apart.wait_until_in_vain(sender, 2)
    assert receiver.running()
    apart.plug(getattr(apart, end))
    apart.wait_for_more_packets(sender, 500)
    end_of_tcp_run(sender, apart.near, path, loopback=0, in_speed=rate * 1000000)
    assert_closed_in_order(receiver, MEGABYTE // 4)


def test_a_link_that_is_down_when_a_tcp_run_starts_may_come_up_later(apart, data_file):
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    apart.unplug(apart.near)
    sender = apart.serve(path)
    sender.wait_until_replaying()
    apart.plug(apart.near)
    assert_complete(apart.take(sender), pieces(data))
    end_of_tcp_run(sender, apart.near, path)


@pytest.mark.parametrize("target", [None, GROUP], ids=["one host", "a group"])
def test_datagrams_of_an_outage_beyond_the_own_link_are_lost_and_the_rest_arrives(
    apart, slow_run, target
):
    """Nothing tells the sender of it."""
    introduce(apart.near, apart.far)
    sender, receiver, messages, shown = slow_run(target, named=target == GROUP)
    apart.wait_until_sent(sender, 30)
    with held(sender):
        before = apart.datagrams_sent()
        apart.wait_until_arrived(sender, before)
        apart.unplug(apart.far)
    apart.wait_until_sent(sender, before + 30)
    with held(sender):
        lost = apart.datagrams_sent() - before
        apart.plug(apart.far)
        sender.wait_until(apart.near.is_up, "the link is up")
        if target == GROUP:  # whose members are forgotten by a device that goes down
            receiver.wait_until_bound(PORT, target)
    apart.wait_until_sent(sender, before + lost + 100)
    sender.stop()
    sent = apart.datagrams_sent()
    apart.wait_until_arrived(receiver, sent - lost)
    go_on(receiver)
    result = receiver.expect(1, "idle")
    assert result.faults == [
        ("lost", before + 1, lost, 0, 0),
        ("lost", sent + 1, len(messages) - sent, 0, 0),
    ]
    arrived = messages[:before] + messages[before + lost : sent]
    assert result.received == result.matched == totals(arrived)
    sender.expect(0, shown + debug_dump(messages[:sent]))


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
def interrupted(apart, slow_run):
    """interrupted(trouble, target=, named=) is a slow run that met this trouble
    between two messages, all earlier ones of which had arrived."""

    def start(trouble, target=None, named=False):
        run = sender, *_ = slow_run(target, named)
        apart.wait_until_sent(sender, 20)
        with held(sender):
            apart.wait_until_arrived(sender, apart.datagrams_sent())
            trouble(apart)
        return run

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
    """What was dumped as sent has arrived, and nothing after it."""
    sender, receiver, messages, shown = interrupted(trouble, target, named)
    sender.wait_for_output("socket error\n")
    go_on(receiver)
    result = receiver.expect(1, "idle")
    sent = dumped(sender)
    assert 20 <= sent < len(messages)
    assert result.received == result.matched == totals(messages[:sent])
    assert result.faults == [("lost", sent + 1, len(messages) - sent, 0, 0)]
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[:sent]) + "socket error\n")


@pytest.mark.parametrize("trouble", [delete_device, unplug_the_own_end])
def test_a_device_that_is_being_taken_down_may_swallow_datagrams_before_the_error(
    apart, slow_run, trouble
):
    """They were dumped as sent."""
    sender, receiver, messages, shown = slow_run()
    apart.wait_until_sent(sender, 20)
    trouble(apart)
    sender.wait_for_output("socket error\n")
    go_on(receiver)
    result = receiver.expect(1, "idle")
    sent, arrived = dumped(sender), result.received[0]
    assert 20 <= sent < len(messages) and 0 < arrived <= sent
    assert result.received == result.matched == totals(messages[:arrived])
    assert result.faults == [("lost", arrived + 1, len(messages) - arrived, 0, 0)]
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[:sent]) + "socket error\n")


def test_sending_does_not_begin_again_when_the_own_link_comes_up(interrupted, apart):
    sender, receiver, messages, shown = interrupted(unplug_the_own_end)
    sender.wait_for_output("socket error\n")
    sender.wait_until(
        lambda: waits_in_kernel(sender, sender.poller()), "the sending thread rests"
    )
    sent = apart.datagrams_sent()
    apart.plug(apart.near)
    sender.wait_until(apart.near.is_up, "the link is up")
    sender.wait_for_progress([sender.pid], milliseconds=100)
    assert apart.datagrams_sent() == sent
    go_on(receiver)
    assert receiver.expect(1, "idle").received == totals(messages[:sent])
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[:sent]) + "socket error\n")


def test_a_named_device_needs_no_address(interrupted, apart):
    """The datagrams leave without one. The other host does not take what comes from
    nowhere, so it is not asked about them."""
    sender, _, messages, shown = interrupted(remove_the_address, named=True)
    apart.wait_for_more_packets(sender, 100)
    sender.stop()
    sender.expect(0, shown + debug_dump(messages[: apart.datagrams_sent()]))


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


@pytest.fixture
def told_of_no_receiver(apart, tmp_path):
    """told_of_no_receiver(target) is a slow run to this address, of which its host has
    been told that nobody takes the datagrams, and which has sent more since then."""

    def start(target):
        path = tmp_path / "a.pcap"
        path.write_bytes(capture_of_small_messages(MANY))
        sender = apart.send(path, *AS_UDP, *SLOWLY, target=target)
        sender.wait_until(
            lambda: apart.near.counter("Icmp", "InDestUnreachs") >= 3, "three answers"
        )
        apart.wait_until_sent(sender, apart.datagrams_sent() + 50)
        shown = echo(
            path, f"{target}:{PORT}", filetype=1, in_speed=100000, filter="udp",
            protocol="udp",
        )
        return sender, shown + reading(path)

    return start


def test_a_neighbour_that_nobody_is_is_no_error(told_of_no_receiver, apart):
    """Nobody answers for the address. The kernel gives up on it again and again, tells
    its own host, and keeps that from the sender."""
    apart.near.set(f"ipv4/neigh/{apart.near.device}/retrans_time_ms", 10)
    sender, shown = told_of_no_receiver("10.77.0.99")
    assert apart.far.counter("Icmp", "OutDestUnreachs") == 0
    sender.stop()
    sender.expect(0, shown)


def test_a_port_that_nobody_has_on_a_host_that_says_so_is_no_error(
    told_of_no_receiver, apart
):
    sender, shown = told_of_no_receiver(apart.far.address)
    assert apart.far.counter("Icmp", "OutDestUnreachs") >= 3
    sender.stop()
    sender.expect(0, shown)


# ------------------------------------------------------- a device that vanishes, TCP


def test_a_device_that_vanishes_stalls_a_tcp_run_until_the_stop(apart, data_file):
    path = data_file(random_bytes(MEGABYTE + 77))
    sender = apart.serve(path, *ENDLESS)
    receiver = apart.take(sender)
    apart.wait_for_more_packets(sender, 100)
    delete_device(apart)
    apart.wait_until_in_vain(sender, 2)
    end_of_tcp_run(sender, apart.near, path, loopback=0)
    # It has heard nothing of this.
    receiver.signal(signal.SIGINT)
    result = receiver.expect(0, "signal")
    assert result.faults == [] and result.measured["bytes"] > 0


def test_a_tcp_run_goes_on_when_a_device_of_the_same_name_and_address_comes(
    apart, data_file
):
    path = data_file(random_bytes(MEGABYTE + 77))
    sender = apart.serve(path, *ENDLESS)
    receiver = apart.take(sender)
    apart.wait_for_more_packets(sender, 100)
    delete_device(apart)
    apart.wait_until_in_vain(sender, 1)
    lay_cable(apart.near, apart.far)
    apart.wait_for_more_packets(sender, 500)
    end_of_tcp_run(sender, apart.near, path, loopback=0)
    assert_closed_in_order(receiver, MEGABYTE // 4)


def starts_in(stream, data):
    """Where in the passes over this data the stream begins, which follows them."""
    at = data.index(stream[:MESSAGE_SIZE])
    passes = 2 + len(stream) // len(data)
    assert (data * passes)[at:].startswith(stream)
    return at


@pytest.mark.parametrize("tries", [0, 2], ids=["at once", "later"])
def test_a_receivers_host_that_restarts_is_one_socket_error(apart, data_file, tries):
    """It comes back without its connection and says so to the next segment. A new
    receiver gets the later messages."""
    data = random_bytes(100 * MESSAGE_SIZE)
    path = data_file(data)
    sender = apart.serve(path, *ENDLESS, "--mbps", "80")
    receiver = apart.connect()
    assert receiver.read_exactly(3 * MESSAGE_SIZE) == data[: 3 * MESSAGE_SIZE]
    apart.unplug(apart.far)
    receiver.reset()  # told to nobody
    apart.wait_until_in_vain(sender, tries)
    apart.plug(apart.far)
    sender.wait_for_output("Socket error\n")
    sender.wait_until_replaying()
    with contextlib.closing(apart.connect()) as later:
        stream = later.read_exactly(60 * MESSAGE_SIZE)
        sender.signal(signal.SIGINT)
        stream += later.read_to_end()
    assert starts_in(stream, data) % MESSAGE_SIZE == 0
    assert len(stream) >= 60 * MESSAGE_SIZE and len(stream) % MESSAGE_SIZE == 0
    sender.expect(
        0,
        echo(path, f"{apart.near.address}:{PORT}", loopback=0, in_speed=80000000)
        + "Socket error\n",
    )


# ------------------------------------------------------------------ slow, lossy links


def limit_link(host, rate, room, burst="20kb"):
    """A reported skip where the kernel cannot do it."""
    where = ("dev", host.device, "root")
    limit = ("tbf", "rate", rate, "burst", burst, "limit", room)
    try:
        run("tc", "-n", host.name, "qdisc", "add", *where, *limit)
    except (subprocess.CalledProcessError, FileNotFoundError) as error:
        pytest.skip(f"the link cannot be limited here: {error}")


def limit_counts(host):
    """What the limit has done: "drops", and in "overlimits" how often it has waited."""
    words = ("tc", "-n", host.name, "-s", "-j", "qdisc", "show", "dev", host.device)
    return json.loads(run(*words))[0]


def test_a_tcp_run_over_a_slow_link_arrives_whole(apart, data_file):
    limit_link(apart.near, "20mbit", "10mb")
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    sender = apart.serve(path)
    assert_complete(apart.take(sender), pieces(data))
    assert limit_counts(apart.near)["overlimits"] > 0
    assert limit_counts(apart.near)["drops"] == 0
    end_of_tcp_run(sender, apart.near, path)


def test_a_tcp_run_over_a_slow_link_that_drops_goes_on(apart, data_file):
    """It has room for three segments. The sender's host sends ten at the beginning, and tries
    for more than three behind each loss."""
    apart.near.set("ipv4/tcp_congestion_control", "reno")
    limit_link(apart.near, "20mbit", "5kb", burst="4kb")
    path = data_file(random_bytes(MEGABYTE + 77))
    sender = apart.serve(path, *ENDLESS)
    receiver = apart.take(sender)
    sender.wait_until(lambda: limit_counts(apart.near)["drops"] >= 10, "drops")
    apart.wait_for_more_packets(sender, 500)
    end_of_tcp_run(sender, apart.near, path, loopback=0)
    assert_closed_in_order(receiver, MEGABYTE // 4)


def test_datagrams_that_a_slow_link_drops_are_what_is_lost(apart, capture):
    """The kernel drops them without a word to the sender."""
    introduce(apart.near, apart.far)
    limit_link(apart.near, "1mbit", "8kb", burst="5kb")
    messages = [b"%04d" % n + random_bytes(996, seed=n) for n in range(200)]
    path = capture(messages)
    receiver = apart.listen(path, *AS_UDP)
    sender = apart.send(path, *AS_UDP)
    apart.wait_until_sent(sender, len(messages))
    lost = apart.datagrams_dropped()
    assert lost == limit_counts(apart.near)["drops"] > 0
    apart.wait_until_arrived(sender, len(messages) - lost)
    go_on(receiver)
    result = receiver.expect(1)
    assert result.counts == {"lost": lost}
    assert result.received[0] == result.matched[0] == len(messages) - lost
    sender.stop()
    shown = echo(
        path, f"{apart.far.address}:{PORT}", filetype=1, filter="udp", protocol="udp"
    )
    sender.expect(0, shown + reading(path))


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
    receiver = apart.take(sender, "--connect-timeout", "60")
    assert_complete(receiver, pieces(data))
    end_of_tcp_run(sender, near, path)


@pytest.fixture
def over_bad_cable(bad_cable, start, receive):
    """over_bad_cable(path, schedule, *words, frames=) is the receiver of a replay of
    datagrams that leave in so many frames, which met this schedule, and the sender.
    The receiver has ended."""

    def replay(path, schedule, *words, frames, latency=0, strangers=False):
        near, far, there = bad_cable("udp", schedule, latency=latency)
        if not strangers:
            introduce(near, far)
        apart = Apart(start, receive, near, far)
        receiver = apart.listen(path, *words)
        sender = apart.send(path, *words)
        sender.wait_until(lambda: there.settled == frames, f"{frames} frames")
        go_on(receiver)
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
    receiver, sender, target = over_bad_cable(
        path, Chances(3, used), *AS_UDP, "--mbps", "2", frames=len(messages)
    )
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
    receiver, sender, target = over_bad_cable(
        path, schedule, *AS_UDP, "--mbps", "2", frames=len(messages)
    )
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
    receiver, sender, target = over_bad_cable(
        path, schedule, "--mbps", "8", frames=7 * 12
    )
    result = receiver.expect(1)
    assert result.faults == [("lost", number, 1, 0, 0) for number in (2, 4, 6)]
    assert result.matched == (9, 9 * MESSAGE_SIZE)
    sender.expect(0, echo(path, target, in_speed=8000000, protocol="udp"))


def test_a_burst_waits_until_a_far_neighbour_is_known(over_bad_cable, capture):
    """The first question for it takes a while; what is sent meanwhile is kept."""
    messages = [b"%04d" % n + random_bytes(996, seed=n) for n in range(40)]
    path = capture(messages)
    receiver, sender, target = over_bad_cable(
        path, {}, *AS_UDP, frames=len(messages), latency=0.1, strangers=True
    )
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


def waits_for_room(sender):
    """In the middle of a message."""
    return sender.is_blocked_in(sender.poller(), "poll_schedule")


def creep_until_waited_for(sender, receiver, near):
    """Takes a little at a time until the sender waits for more to be taken, and nothing
    else can make room; what was taken."""
    received = bytearray()

    def waits():
        if near.finds_a_shut_window(PORT) and waits_for_room(sender):
            return True
        received.extend(receiver.recv(100))
        return False

    sender.wait_until(waits, "the sender waits for room")
    return received


def test_a_receiver_with_a_window_of_one_segment_gets_every_byte(
    apart, creeping, data_file
):
    """It takes them one at a time, once the sender waits for it."""
    data = random_bytes(10 * MESSAGE_SIZE + 77)
    path = data_file(data)
    sender = apart.serve(path)
    receiver = creeping()
    received = creep_until_waited_for(sender, receiver, apart.near)
    received += b"".join(receiver.recv(1) for _ in range(len(data) - len(received)))
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
    received = creep_until_waited_for(sender, receiver, apart.near)
    sender.signal(signal.SIGINT)
    sender.wait_until(lambda: waits_in_kernel(sender, sender.pid), "the main thread joins")
    probes = apart.near.counter("TcpExt", "TCPWinProbe")
    sender.wait_until(
        lambda: apart.near.counter("TcpExt", "TCPWinProbe") >= probes + 2,
        "two more probes of the shut window",
    )
    assert waits_for_room(sender)
    while chunk := receiver.recv(MESSAGE_SIZE):
        received += chunk
    assert received == data[: len(received)] and len(received) % MESSAGE_SIZE == 0
    assert len(received) < len(data)
    shown = echo(path, f"{apart.near.address}:{PORT}")
    assert_short_sends(sender.output().removeprefix(shown), pieces(data))
    assert (sender.wait(), sender.errors()) == (0, "")


def assert_short_sends(text, messages):
    """Small segments need so much room that it does not suffice for every message. Each
    time this is told with what has left, and then what is left of the message."""
    told = r"Warning: unable to send all data, already send len: ([0-9]+)\n"
    waits = r"(?:Using poll wait to send [0-9]+ bytes\.\n)+"
    assert re.fullmatch(f"(?:{told}{waits})+", text), text
    for case in re.finditer(f"{told}({waits})", text):
        left = [int(number) for number in re.findall("[0-9]+", case[2])]
        assert left == sorted(set(left), reverse=True)
        assert int(case[1]) + left[0] in set(map(len, messages))


# --------------------------------------------------------------- storms of connections


STORM = 110  # more than the kernel queues
# With n connections open a new one is accepted once in n messages, so that 6000 messages
# go by.
NUMBERS, LONG_ENOUGH = 2000, 500
RATE = ("--mbps", "0.5")


@functools.cache
def numbered_capture():
    """A preloaded one is taken for TCP, and replayed from its end."""
    messages = [b"%06d" % number for number in range(NUMBERS)]
    return messages, build.pcap([build.tcp(each) for each in reversed(messages)])


@pytest.fixture
def storm(serve, data_file):
    """A sender of small messages without end, one pass of these, and what it shows of
    itself."""
    messages, content = numbered_capture()
    path = data_file(content)
    endless = ("--filetype", "1", "--filter", "tcp", "--preload", "1", *ENDLESS)

    def run(*words):
        sender = serve(path, *endless, *RATE, *words)
        sender.wait_until_replaying()
        shown = echo(
            path, sender.address, filetype=1, in_speed=500000, filter="tcp", loopback=0
        )
        return sender, messages, shown + reading(path)

    return run


def passes(messages, start=0):
    """The messages from this one on, pass after pass."""
    return itertools.islice(itertools.cycle(messages), start % len(messages), None)


def assert_follows(stream, expected):
    """Whole messages, these one after the other."""
    assert len(stream) % 6 == 0
    assert stream == b"".join(itertools.islice(expected, len(stream) // 6))


def test_a_storm_of_receivers_that_stay_shares_out_every_message_once(storm, connect):
    """Each in place of the one before."""
    sender, messages, shown = storm()
    first = connect(sender)
    stream = first.read_exactly(6 * LONG_ENOUGH)
    *others, last = [connect(sender) for _ in range(STORM - 1)]
    end = last.read_exactly(6 * LONG_ENOUGH)
    sender.stop()
    stream += b"".join(each.read_to_end() for each in (first, *others))
    end += last.read_to_end()
    assert min(len(stream), len(end)) >= 6 * LONG_ENOUGH
    assert_follows(stream + end, passes(messages))
    sender.expect(0, shown)


@pytest.mark.parametrize("end", ["close", "reset"])
def test_a_storm_of_receivers_that_leave_at_once_costs_messages_and_nothing_else(
    storm, connect, end
):
    """A message that meets a receiver which has left is one line, and each other one
    is dumped as sent. The last receiver, which stays, gets all the later ones."""
    sender, messages, shown = storm("--debug", "1")
    for number in range(STORM - 1):
        getattr(connect(sender), end)()
        if number == STORM // 2:
            # The first message behind an orderly close is none, the second one is.
            sender.wait_for_output("Socket error\n")
    last = connect(sender)
    stream = last.read_exactly(6 * LONG_ENOUGH)
    sender.stop()
    stream += last.read_to_end()
    assert len(stream) >= 6 * LONG_ENOUGH
    assert (sender.wait(), sender.errors()) == (0, "")
    told, dumps = count_told(sender.output(), shown, passes(messages))
    assert LONG_ENOUGH <= dumps < told
    assert_follows(stream, passes(messages, told - len(stream) // 6))


def count_told(output, shown, messages):
    """Of each message, in order, a dump or an error; how many of both, and dumps."""
    assert output.startswith(shown)
    at, told, dumps, error = len(shown), 0, 0, "Socket error\n"
    while at < len(output):
        text, message = error, next(messages)
        if not output.startswith(error, at):
            dumps += 1
            text = debug_dump([message], first=dumps)
        assert output.startswith(text, at), output[at : at + 200]
        at += len(text)
        told += 1
    return told, dumps


def test_connections_that_never_come_about_are_nobodys(apart, data_file):
    """More than the kernel queues, all of them given up before the sender could accept
    one. Then it does, without harm."""
    path = data_file(b"data")
    sender = apart.serve(path)
    sender.wait_until_replaying()
    with held(sender):
        begin_and_give_up(apart, 300)
        sender.wait_until(lambda: overflown(apart.near), "a full queue")
    sender.wait_until(
        lambda: apart.near.waiting_to_be_accepted(PORT) == 0, "all of them accepted"
    )
    sender.wait_for_progress()
    end_of_tcp_run(sender, apart.near, path)


def overflown(host):
    """As many connections as the sender lets the kernel queue, and one too many."""
    too_many = host.counter("TcpExt", "ListenOverflows")
    return host.waiting_to_be_accepted(PORT) > 100 and too_many > 0


def begin_and_give_up(apart, count):
    with contextlib.ExitStack() as sockets:
        for _ in range(count):
            with apart.far.inside():
                attempt = sockets.enter_context(socket.socket())
            attempt.setblocking(False)
            with contextlib.suppress(BlockingIOError):
                attempt.connect((apart.near.address, PORT))
