"""Relays between a sender and a receiver that make chosen faults: of datagrams by
their number, of a TCP stream by byte positions. What they are not told to spoil
they pass on as it came."""

import contextlib
import select
import socket
import threading

import pytest

from conftest import DEADLINE, LOCALHOST
from udp_receiver import UdpReceiver

# ------------------------------------------------------------------ datagrams
#
# A schedule maps datagram numbers, from 1, to what happens to them. Each of the
# functions below gives such a thing: called with a datagram it returns what is sent
# in its place and what is sent later, as pairs (after how many others, datagram).


def drop():
    return lambda data: ([], [])


def duplicate(times=1, later=0):
    """Copies, at once or behind the `later`th datagram from here."""
    return lambda data: ([data], [(later, data)] * times)


def delay(count):
    """Sent behind the `count`th datagram from here."""
    return lambda data: ([], [(count, data)])


def swap():
    """Changes places with the next one."""
    return delay(1)


def truncate(length):
    return lambda data: ([data[:length]], [])


def alter(position):
    def altered(data):
        spoilt = bytearray(data)
        spoilt[position] ^= 0xFF
        return [bytes(spoilt)], []

    return altered


def precede(*strangers):
    return lambda data: ([*strangers, data], [])


def follow(*strangers):
    return lambda data: ([data, *strangers], [])


def burst(first, count, fault):
    """The same fault for each of `count` neighbours."""
    return {number: fault for number in range(first, first + count)}


def scheduled(messages, schedule):
    """What a relay with this schedule sends for these messages."""
    held = []
    for number, data in enumerate(messages, 1):
        now, later = schedule.get(number, lambda data: ([data], []))(data)
        held += [(number + count, each) for count, each in later]
        yield from now
        yield from (each for due, each in held if due == number)
        held = [one for one in held if one[0] > number]


class UdpRelay:
    """Passes datagrams to `port`, those of its own port, spoilt by the schedule."""

    def __init__(self, port, schedule):
        self._inbox = UdpReceiver()
        self._outbox = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._target = (LOCALHOST, port)
        self.port = self._inbox.port
        self.passed = 0
        self._wake, self._sleeper = socket.socketpair()
        self._thread = threading.Thread(target=self._run, args=(schedule,))
        self._thread.start()

    def stop(self):
        self._wake.close()
        self._thread.join()
        for each in (self._inbox, self._outbox, self._sleeper):
            each.close()

    def _run(self, schedule):
        for datagram in scheduled(self._datagrams(), schedule):
            self._outbox.sendto(datagram, self._target)
            self.passed += 1

    def _datagrams(self):
        while True:
            ready = select.select([self._sleeper, self._inbox.socket], [], [])[0]
            if self._sleeper in ready:
                return
            yield self._inbox.socket.recv(65536)


# --------------------------------------------------------------------- streams
#
# An edit is a pair: the position in the sender's stream at which it happens, and a
# function that takes what it needs from the sender and passes on what it likes.


def altered(at, count):
    return at, lambda relay: relay.give(bytes(b ^ 0xFF for b in relay.take(count)))


def dropped(at, count):
    return at, lambda relay: relay.take(count)


def repeated(at, count):
    return at, lambda relay: relay.give(relay.take(count) * 2)


def inserted(at, data):
    return at, lambda relay: relay.give(data)


def swapped(at, one, other):
    """The block of `one` bytes changes places with the `other` bytes behind it."""

    def swap_blocks(relay):
        first, second = relay.take(one), relay.take(other)
        relay.give(second + first)

    return at, swap_blocks


def cut(at):
    """Nothing more is passed on; the connection stays."""
    return at, lambda relay: relay.held.wait(DEADLINE)


def closed(at):
    """The connection to the receiver is closed."""
    return at, lambda relay: relay.hang_up()


def stalled(at, seconds):
    """A pause, which the relay's end cuts short."""
    return at, lambda relay: relay.held.wait(seconds)


class _Closed(Exception):
    pass


class TcpRelay:
    """Serves one receiver with what the sender at `port` sends, with these edits."""

    def __init__(self, port, edits):
        self._listener = socket.create_server((LOCALHOST, 0))
        self._sender_port = port
        self._sockets = []
        self.port = self._listener.getsockname()[1]
        self.held = threading.Event()
        self._position = 0
        self._thread = threading.Thread(target=self._run, args=(sorted_edits(edits),))
        self._thread.start()

    def stop(self):
        self.held.set()
        while self._thread.is_alive():  # it may just be making another socket
            for each in [self._listener, *self._sockets]:
                with contextlib.suppress(OSError):
                    each.shutdown(socket.SHUT_RDWR)  # ends a call that waits on it
            self._thread.join(0.02)
        for each in [self._listener, *self._sockets]:
            each.close()

    # What edits use, on the relay's thread.

    def take(self, count):
        """These many bytes from the sender."""
        data = b""
        while len(data) < count:
            data += self._some(count - len(data))
        return data

    def give(self, data):
        self._receiver.sendall(data)

    def hang_up(self):
        self._receiver.close()
        raise _Closed

    # The way of the bytes.

    def _run(self, edits):
        with contextlib.suppress(OSError, _Closed):
            self._receiver, _ = self._listener.accept()
            self._sockets.append(self._receiver)
            self._sender = socket.create_connection((LOCALHOST, self._sender_port))
            self._sockets.append(self._sender)
            for at, edit in edits:
                self._pass_on(at)
                edit(self)
            self._pass_on(None)

    def _pass_on(self, end):
        while end is None or self._position < end:
            self.give(self._some(65536 if end is None else end - self._position))

    def _some(self, limit):
        data = self._sender.recv(min(limit, 65536))
        if not data:
            self.hang_up()
        self._position += len(data)
        return data


def sorted_edits(edits):
    return sorted(edits, key=lambda edit: edit[0])


# -------------------------------------------------------------------- fixtures


@pytest.fixture
def udp_relay():
    """udp_relay(port, schedule) relays to a receiver's port."""
    relays = []

    def run(port, schedule):
        relays.append(UdpRelay(port, schedule))
        return relays[-1]

    yield run
    for relay in relays:
        relay.stop()


@pytest.fixture
def tcp_relay():
    """tcp_relay(port, *edits) relays from a sender's port."""
    relays = []

    def run(port, *edits):
        relays.append(TcpRelay(port, edits))
        return relays[-1]

    yield run
    for relay in relays:
        relay.stop()
