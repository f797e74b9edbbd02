"""A TCP run as its receivers and its operator see it: stopping in every state,
receivers that misbehave or are replaced, endpoints, memory and pacing."""

import os
import re
import resource
import signal
import socket
import threading
import time

import pytest

from conftest import (
    DEADLINE,
    LOCALHOST,
    MESSAGE_SIZE,
    SANITIZER,
    debug_dump,
    echo,
    fatal,
    is_listening,
    not_with,
    probe_when_quiet,
    random_bytes,
)

MEGABYTE = 1 << 20
STOP_SIGNALS = [signal.SIGINT, signal.SIGTERM]
PROMPTLY = 15  # seconds; a stop takes about a tenth of one

# What the queue holds when it is full.
QUEUE_BYTES = 1024 * MESSAGE_SIZE


class Drain(threading.Thread):
    """Reads a receiver to its end in the background and counts the bytes."""

    def __init__(self, receiver):
        super().__init__(daemon=True)
        self.receiver = receiver
        self.count = 0
        self.start()

    def run(self):
        try:
            while got := len(self.receiver.socket.recv(MEGABYTE)):
                self.count += got
        except OSError:
            pass  # a reset or the test's own close is an end as well


@pytest.fixture
def endless(serve, data_file):
    """A sender that repeats one megabyte without end, and what it echoes."""
    path = data_file(random_bytes(MEGABYTE))
    sender = serve(path, "--loopback", "0")
    return sender, echo(path, sender.address, loopback=0)


@pytest.fixture
def messages(tmp_path):
    """messages(count) is the path of a directory whose files are sent as the
    messages b"0000." b"0001." and so on, and the list of these messages."""

    def create(count):
        directory = tmp_path / "messages"
        directory.mkdir()
        contents = [b"%04d." % number for number in range(count)]
        for number, content in enumerate(contents):
            (directory / f"m{number}").write_bytes(content)
        return directory, contents

    return create


def fill_queue(sender, at_start):
    """Waits until a stalled receiver has filled queue and sockets."""
    sender.wait_until(
        lambda: sender.memory() - at_start >= QUEUE_BYTES, "the queue is full"
    )
    sender.wait_for_progress([sender.pid])


def stop_promptly(sender, number=signal.SIGINT):
    assert sender.stop(number, deadline=PROMPTLY) == 0


# ------------------------------------------------------------- stop in any state


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_while_no_receiver_has_come(serve, data_file, number):
    path = data_file(b"data")
    sender = serve(path)
    stop_promptly(sender, number)
    sender.expect(output=echo(path, sender.address))


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_while_sending(endless, connect, number):
    sender, output = endless
    drain = Drain(connect(sender))
    sender.wait_until(lambda: drain.count > 64 * MEGABYTE, "data flows")
    stop_promptly(sender, number)
    sender.expect(output=output)


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_with_a_stalled_receiver_and_a_full_queue(endless, connect, number):
    sender, output = endless
    at_start = sender.memory()
    connect(sender, rcvbuf=4096)
    fill_queue(sender, at_start)
    stop_promptly(sender, number)
    sender.expect(output=output)


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_while_the_run_holds(serve, connect, data_file, number):
    path = data_file(b"data")
    sender = serve(path)
    receiver = connect(sender)
    assert receiver.read_exactly(4) == b"data"
    sender.wait_for_progress()
    stop_promptly(sender, number)
    sender.expect(output=echo(path, sender.address))


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_after_a_socket_error(endless, connect, number):
    sender, output = endless
    connect(sender).close()
    sender.wait_for_output("Socket error\n")
    stop_promptly(sender, number)
    sender.expect(output=output + "Socket error\n")


@pytest.mark.parametrize("number", STOP_SIGNALS)
def test_a_stop_in_a_paced_run(serve, connect, data_file, number):
    path = data_file(random_bytes(25000))
    sender = serve(path, "--loopback", "0", "--mbps", "2")
    receiver = connect(sender)
    receiver.read_exactly(2 * MESSAGE_SIZE)
    stop_promptly(sender, number)
    sender.expect(output=echo(path, sender.address, loopback=0, in_speed=2000000))


def test_a_second_stop_signal_changes_nothing(endless, connect):
    sender, output = endless
    drain = Drain(connect(sender))
    sender.wait_until(lambda: drain.count > 0, "data flows")
    sender.signal(signal.SIGINT)
    sender.signal(signal.SIGTERM)
    sender.expect(output=output)


def test_the_receiver_sees_an_orderly_end_at_the_stop(serve, connect, data_file):
    path = data_file(b"data")
    sender = serve(path)
    receiver = connect(sender)
    assert receiver.read_exactly(4) == b"data"
    sender.stop()
    assert receiver.read_to_end() == b""


def test_what_was_sent_before_the_stop_still_arrives(serve, connect, data_file):
    data = random_bytes(MEGABYTE)
    sender = serve(data_file(data))
    receiver = connect(sender, rcvbuf=4096)
    sender.wait_for_progress()
    stop_promptly(sender)
    assert receiver.read_to_end() == data


def test_a_stop_while_the_file_is_loaded_is_forgotten(serve, connect, data_file):
    """The replay's start sets the run flag again, whatever came before.

    The read position, seen after the signal was sent, proves that the signal
    came first; a machine too slow for this gets a larger file.
    """
    path = data_file(b"")
    for size in (64 * MEGABYTE, 256 * MEGABYTE, 1024 * MEGABYTE):
        os.truncate(path, size)
        sender = serve(path, "--preload", "1")
        sender.signal(signal.SIGINT)
        if 0 <= read_position(sender, path) < size:
            break
        sender.kill()
    else:
        pytest.fail("the file was always loaded before the signal came")
    sender.wait_until_replaying()
    connect(sender).read_exactly(MESSAGE_SIZE)
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address))


def read_position(sender, path):
    """How far the sender has read this file; -1 when it is not open (yet)."""
    for descriptor, target in descriptors(sender).items():
        if target == str(path):
            return flags_and_position(sender, descriptor)[1]
    return -1


# ------------------------------------------------------------- other signals


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGPIPE])
def test_hangup_and_broken_pipe_are_ignored(serve, connect, data_file, number):
    path = data_file(b"data")
    sender = serve(path)
    sender.wait_until_replaying()
    sender.signal(number)
    sender.wait_for_progress([sender.pid])
    assert connect(sender).read_exactly(4) == b"data"
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address))


def test_only_hangup_and_broken_pipe_are_ignored(serve, data_file):
    sender = serve(data_file(b"data"))
    with open(f"/proc/{sender.pid}/status") as status:
        masks = dict(line.rstrip().split(":\t") for line in status if "Sig" in line)
    expected = 1 << signal.SIGHUP - 1 | 1 << signal.SIGPIPE - 1
    assert int(masks["SigIgn"], 16) == expected
    stop_promptly(sender)


# --------------------------------------------------------------- one receiver


def test_a_stalled_receiver_that_reads_on_loses_nothing(serve, connect, data_file):
    data = random_bytes(32 * MEGABYTE)
    path = data_file(data)
    sender = serve(path)
    at_start = sender.memory()
    receiver = connect(sender, rcvbuf=65536)
    fill_queue(sender, at_start)
    assert receiver.read_exactly(len(data)) == data
    sender.wait_for_progress()
    stop_promptly(sender)
    assert receiver.read_to_end() == b""
    sender.expect(output=echo(path, sender.address))


def test_a_slow_receiver_loses_nothing(serve, connect, data_file):
    """Small reads through a small window; more than the sockets can hold."""
    data = random_bytes(6 * MEGABYTE)
    path = data_file(data)
    sender = serve(path)
    receiver = connect(sender, rcvbuf=4096)
    received = bytearray()
    while len(received) < len(data):
        received += receiver.read_exactly(min(997, len(data) - len(received)))
    assert received == data
    sender.wait_for_progress()
    stop_promptly(sender)
    assert receiver.read_to_end() == b""
    sender.expect(output=echo(path, sender.address))


def test_a_stalled_receiver_costs_no_more_memory_than_the_queue(endless, connect):
    sender, output = endless
    at_start = sender.memory()
    connect(sender, rcvbuf=4096)
    fill_queue(sender, at_start)
    # Enough for a sender without bound to read gigabytes.
    sender.wait_for_progress([sender.pid], milliseconds=500)
    growth = sender.memory() - at_start
    stop_promptly(sender)
    if not SANITIZER:  # whose allocator keeps memory of its own
        assert growth < 20 * MEGABYTE
    sender.expect(output=output)


def test_messages_that_were_sent_are_released(endless, connect):
    """Many times the queue's content goes through without lasting growth."""
    sender, output = endless
    drain = Drain(connect(sender))
    sender.wait_until(lambda: drain.count > 64 * MEGABYTE, "data flows")
    before = sender.memory()
    sender.wait_until(lambda: drain.count > 512 * MEGABYTE, "data flows")
    growth = sender.memory() - before
    stop_promptly(sender)
    if not SANITIZER:
        assert growth < 20 * MEGABYTE
    sender.expect(output=output)


def test_a_receiver_that_closes_while_data_flows_is_one_socket_error(
    endless, connect
):
    sender, output = endless
    receiver = connect(sender)
    receiver.read_exactly(MEGABYTE)
    receiver.close()
    sender.wait_for_output("Socket error\n")
    sender.wait_for_progress()
    stop_promptly(sender)
    sender.expect(output=output + "Socket error\n")


def test_a_receiver_that_resets_while_data_flows_is_one_socket_error(
    endless, connect
):
    sender, output = endless
    receiver = connect(sender)
    receiver.read_exactly(MEGABYTE)
    receiver.reset()
    sender.wait_for_output("Socket error\n")
    sender.wait_for_progress()
    stop_promptly(sender)
    sender.expect(output=output + "Socket error\n")


def test_a_stalled_receiver_that_closes_is_one_socket_error(endless, connect):
    sender, output = endless
    at_start = sender.memory()
    receiver = connect(sender, rcvbuf=4096)
    fill_queue(sender, at_start)
    receiver.close()
    sender.wait_for_output("Socket error\n")
    sender.wait_for_progress()
    stop_promptly(sender)
    sender.expect(output=output + "Socket error\n")


@pytest.mark.parametrize("end", ["close", "reset"])
def test_a_receiver_that_leaves_a_holding_run_is_no_error(
    serve, connect, data_file, end
):
    path = data_file(b"data")
    sender = serve(path)
    receiver = connect(sender)
    assert receiver.read_exactly(4) == b"data"
    getattr(receiver, end)()
    sender.wait_for_progress()
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address))


def test_the_message_that_met_a_socket_error_is_dropped_and_not_dumped(
    serve, connect, messages
):
    """A later receiver shows which message it was: the last one that neither
    receiver could get."""
    path, contents = messages(200)
    sender = serve(path, "--mbps", "0.02", "--debug", "1")
    first = connect(sender)
    assert first.read_exactly(5) == contents[0]
    first.reset()
    sender.wait_for_output("Socket error\n")
    second = connect(sender)
    start = contents.index(second.read_exactly(5))
    second.read_exactly(5 * (200 - start - 1))
    sender.wait_for_progress()
    stop_promptly(sender)
    assert start >= 2
    sender.expect(
        output=echo(path, sender.address, in_speed=20000)
        + debug_dump(contents[: start - 1])
        + "Socket error\n"
        + debug_dump(contents[start:], first=start)
    )


def test_what_a_receiver_says_is_not_read(serve, connect, data_file):
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    sender = serve(path)
    receiver = connect(sender)
    receiver.socket.sendall(b"hello" * 1000)
    assert receiver.read_exactly(len(data)) == data
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address))


def test_a_receiver_may_close_its_sending_half(serve, connect, data_file):
    data = random_bytes(MEGABYTE)
    path = data_file(data)
    sender = serve(path)
    receiver = connect(sender)
    receiver.socket.shutdown(socket.SHUT_WR)
    assert receiver.read_exactly(len(data)) == data
    stop_promptly(sender)
    assert receiver.read_to_end() == b""
    sender.expect(output=echo(path, sender.address))


def test_a_receiver_that_closes_before_the_first_byte_starts_the_run(
    serve, connect, messages
):
    """It was accepted, so the messages go to it and are lost."""
    path, contents = messages(50)
    sender = serve(path, "--mbps", "0.02")
    connect(sender).reset()
    sender.wait_for_output("Socket error\n")
    stop_promptly(sender)
    sender.expect(
        output=echo(path, sender.address, in_speed=20000) + "Socket error\n"
    )


# -------------------------------------------------------------- two receivers


def test_a_newer_receiver_gets_every_later_message_and_the_older_stays_open(
    serve, connect, messages
):
    path, contents = messages(400)
    sender = serve(path, "--mbps", "0.02")
    older = connect(sender)
    assert older.read_exactly(25) == b"".join(contents[:5])
    newer = connect(sender)
    first = newer.read_exactly(5)
    switch = contents.index(first)
    assert newer.read_exactly(5 * (400 - switch - 1)) == b"".join(
        contents[switch + 1 :]
    )
    assert older.read_exactly(5 * (switch - 5)) == b"".join(contents[5:switch])
    sender.wait_for_progress()
    assert older.pending() == 0
    # Were it closed, reading would end at once instead of finding nothing yet.
    older.socket.settimeout(0)
    with pytest.raises(BlockingIOError):
        older.socket.recv(1)
    older.socket.settimeout(DEADLINE)
    stop_promptly(sender)
    assert older.read_to_end() == b""
    assert newer.read_to_end() == b""
    sender.expect(output=echo(path, sender.address, in_speed=20000))


def test_a_receiver_that_comes_after_a_socket_error_gets_the_later_messages(
    serve, connect, messages
):
    path, contents = messages(200)
    sender = serve(path, "--mbps", "0.02")
    first = connect(sender)
    first.read_exactly(5)
    first.reset()
    sender.wait_for_output("Socket error\n")
    second = connect(sender)
    start = contents.index(second.read_exactly(5))
    assert start >= 2  # one arrived, at least one was dropped
    assert second.read_exactly(5 * (200 - start - 1)) == b"".join(
        contents[start + 1 :]
    )
    sender.wait_for_progress()
    stop_promptly(sender)
    assert second.read_to_end() == b""
    sender.expect(
        output=echo(path, sender.address, in_speed=20000) + "Socket error\n"
    )


def test_the_newer_of_two_receivers_closes_and_every_further_message_is_an_error(
    serve, connect, messages
):
    """The older one's readiness goes on asking for messages, which are then
    sent to the connection that is gone: one line and one message each."""
    path, contents = messages(200)
    sender = serve(path, "--mbps", "0.02", "--debug", "1")
    older = connect(sender)
    older.read_exactly(5)
    newer = connect(sender)
    switch = contents.index(newer.read_exactly(5))
    newer.reset()

    def all_taken():
        output = sender.output()
        return output.count("seq: ") + output.count("Socket error") == 200

    sender.wait_until(all_taken, "every message was sent or dropped")
    sender.wait_for_progress()
    stop_promptly(sender)
    sent = sender.output().count("seq: ")
    assert switch < sent < 199
    assert older.read_to_end() == b"".join(contents[1:switch])
    sender.expect(
        output=echo(path, sender.address, in_speed=20000)
        + debug_dump(contents[:sent])
        + "Socket error\n" * (200 - sent)
    )


def allow_no_more_descriptors(sender):
    """Sets the sender's limit to what it has open; returns the old limit."""
    used = {0, 1, 2} | descriptors(sender).keys()
    lowest_free = min(set(range(len(used) + 1)) - used)
    soft, hard = resource.prlimit(sender.pid, resource.RLIMIT_NOFILE)
    resource.prlimit(sender.pid, resource.RLIMIT_NOFILE, (lowest_free, hard))
    return soft, hard


@not_with(("asan", "tsan"), "their look at an object needs two descriptors of its own")
def test_a_receiver_that_cannot_be_accepted_yet_is_accepted_later(
    serve, connect, data_file
):
    path = data_file(b"data")
    sender = serve(path)
    sender.wait_until_replaying()
    poller = sender.poller()
    limit = allow_no_more_descriptors(sender)
    receiver = connect(sender)
    sender.wait_for_progress([poller])  # it tries again and again
    assert receiver.pending() == 0
    resource.prlimit(sender.pid, resource.RLIMIT_NOFILE, limit)
    assert receiver.read_exactly(4) == b"data"
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address))


def test_a_newer_receiver_that_cannot_be_accepted_ends_the_run(
    serve, connect, attempt, data_file
):
    """The failed attempt takes the older connection's place, too."""
    path = data_file(b"data")
    sender = serve(path)
    assert connect(sender).read_exactly(4) == b"data"
    sender.wait_for_progress()
    allow_no_more_descriptors(sender)
    attempt(sender)
    sender.expect(
        -signal.SIGABRT,
        echo(path, sender.address),
        fatal("Assertion failed: conn_fd_ != retired_fd", "tcp_engine.h"),
    )


@pytest.fixture
def stalled_newer(serve, connect, data_file):
    """Two receivers, of which the newer does not read, at the moment when the
    sender waits for it. The older is drained, because its readiness is what
    makes the sender write to the newer without asking whether that is ready.
    """
    data = random_bytes(12 * MEGABYTE)
    path = data_file(data)
    sender = serve(path)
    older = connect(sender)
    newer = connect(sender, rcvbuf=65536)
    seen = bytearray()

    def waits():
        seen.extend(older.read_exactly(older.pending()))
        return "Using poll wait to send " in sender.output()

    sender.wait_until(waits, "the slow path")
    return sender, older, newer, data, bytes(seen), echo(path, sender.address)


def parse_slow_sends(lines):
    """The (sent, left) pairs of short sends; fails on any other line.

    A send that found no room at all is finished like the others, but is then
    counted as an error.
    """
    sends = []
    lines = iter(lines)
    for line in lines:
        warning = re.fullmatch(
            r"Warning: unable to send all data, already send len: ([0-9]+)", line
        )
        assert warning, line
        sent = int(warning[1])
        left = re.fullmatch(r"Using poll wait to send ([0-9]+) bytes\.", next(lines))
        assert left
        sends.append((sent, int(left[1])))
        if sent == 0:
            assert next(lines) == "Socket error"
    return sends


def test_a_short_send_to_a_stalled_newer_receiver_is_told_and_finished(
    stalled_newer,
):
    sender, older, newer, data, seen, shown = stalled_newer
    first = newer.read_exactly(MESSAGE_SIZE)
    switch = data.index(first)
    assert switch % MESSAGE_SIZE == 0
    assert seen + older.read_exactly(switch - len(seen)) == data[:switch]
    rest = data[switch + MESSAGE_SIZE :]
    assert newer.read_exactly(len(rest)) == rest
    sender.wait_for_progress()
    older.close()
    newer.close()
    stop_promptly(sender)
    output = sender.output()
    assert output.startswith(shown)
    sends = parse_slow_sends(output[len(shown) :].splitlines())
    assert sends
    assert {sent + left for sent, left in sends} <= {
        MESSAGE_SIZE,
        len(data) % MESSAGE_SIZE,
    }
    sender.expect(output=output)


def waits_in_kernel(sender, thread):
    """Both threads spin while they have a choice; this one sleeps."""
    return sender.states().get(thread) == "S"


def test_a_stop_in_the_slow_path_waits_for_the_receiver_to_drain(stalled_newer):
    sender, older, newer, data, seen, shown = stalled_newer
    sender.signal(signal.SIGINT)
    sender.wait_until(
        lambda: waits_in_kernel(sender, sender.pid), "the main thread joins"
    )
    assert sender.running()
    received = newer.read_to_end()
    assert received in data and len(received) % MESSAGE_SIZE == 0
    output = sender.output()
    parse_slow_sends(output[len(shown) :].splitlines())
    sender.expect(output=output)


def test_a_stop_in_the_slow_path_waits_for_the_receiver_to_close(stalled_newer):
    sender, older, newer, data, seen, shown = stalled_newer
    sender.signal(signal.SIGINT)
    sender.wait_until(
        lambda: waits_in_kernel(sender, sender.pid), "the main thread joins"
    )
    assert sender.running()
    newer.close()
    assert sender.wait(PROMPTLY) == 0
    output = sender.output()
    # The batch of events that was being served is finished: the newer's own
    # event may still be in it and meets the same error.
    assert re.fullmatch(
        re.escape(shown)
        + r"Warning: unable to send all data, already send len: [0-9]+\n"
        + r"Using poll wait to send [0-9]+ bytes\.\n"
        + r"(Socket error\n){1,2}",
        output,
    )
    sender.expect(output=output)


# ------------------------------------------------------ the moment of the stop


def test_a_receiver_that_comes_with_the_stop_gets_file_bytes_or_nothing(
    serve, data_file
):
    """It may be accepted while the run is being taken down. The wake-up that
    its acceptance causes must not reach any socket."""
    path = data_file(b"file bytes" * 1000)
    for _ in range(20):
        sender = serve(path)
        sender.wait_until_replaying()
        sender.signal(signal.SIGINT)
        for received in receive_until_refused(sender.port):
            assert (b"file bytes" * 1000).startswith(received)
        sender.expect(output=echo(path, sender.address))


def receive_until_refused(port):
    """What each of many quick receivers reads until nobody listens any more."""
    sockets = []
    try:
        while len(sockets) < 90:  # within the listener's backlog
            connection = socket.socket()
            connection.settimeout(DEADLINE)
            probe_when_quiet(connection)
            sockets.append(connection)
            connection.connect((LOCALHOST, port))
    except (ConnectionRefusedError, ConnectionResetError):
        sockets.pop().close()
    streams = []
    for connection in sockets:
        received = b""
        try:
            while chunk := connection.recv(65536):
                received += chunk
        except ConnectionResetError:
            pass  # it stayed in the backlog, or was forgotten on the way there
        connection.close()
        streams.append(received)
    return streams


# ------------------------------------------------------------------- endpoints


def test_the_wildcard_is_refused(start, port, data_file):
    path = data_file(b"data")
    start("--filepath", path, "--ip", "*", "--port", str(port)).expect(
        -signal.SIGABRT,
        echo(path, f"*:{port}"),
        fatal("Assertion failed: rc != retired_fd", "tcp_replay.h"),
    )


def test_a_port_in_use_is_refused(start, data_file):
    path = data_file(b"data")
    with socket.create_server((LOCALHOST, 0)) as server:
        port = server.getsockname()[1]
        start("--filepath", path, "--port", str(port)).expect(
            -signal.SIGABRT,
            echo(path, f"{LOCALHOST}:{port}"),
            fatal("Assertion failed: rc != retired_fd", "tcp_replay.h"),
        )


def test_an_address_of_another_host_is_refused(start, port, data_file):
    path = data_file(b"data")
    # 192.0.2.0/24 is set aside for documentation: no interface has it.
    start("--filepath", path, "--ip", "192.0.2.1", "--port", str(port)).expect(
        -signal.SIGABRT,
        echo(path, f"192.0.2.1:{port}"),
        fatal("Assertion failed: rc != retired_fd", "tcp_replay.h"),
    )


def test_the_socket_side_is_set_up_before_the_path_is_looked_at(start):
    with socket.create_server((LOCALHOST, 0)) as server:
        port = server.getsockname()[1]
        start("--filepath", "/nonexistent", "--port", str(port)).expect(
            -signal.SIGABRT,
            echo("/nonexistent", f"{LOCALHOST}:{port}"),
            fatal("Assertion failed: rc != retired_fd", "tcp_replay.h"),
        )


@pytest.mark.parametrize("ip", ["bogus", "", "localhost", "1.2.3.4:5", "::1"])
def test_a_host_that_is_no_address_is_taken_as_broadcast_and_the_run_waits(
    serve, data_file, ip
):
    path = data_file(b"data")
    sender = serve(path, "--ip", ip)
    assert listening_addresses(sender) == [("255.255.255.255", sender.port)]
    stop_promptly(sender)
    sender.expect(output=echo(path, f"{ip}:{sender.port}"))


def test_the_default_address_takes_local_receivers_only(serve, data_file):
    sender = serve(data_file(b"data"))
    assert listening_addresses(sender) == [(LOCALHOST, sender.port)]
    stop_promptly(sender)


def test_all_interfaces_can_be_listened_on(serve, connect, data_file):
    path = data_file(b"data")
    sender = serve(path, "--ip", "0.0.0.0")
    assert connect(sender, host="127.0.0.77").read_exactly(4) == b"data"
    stop_promptly(sender)
    sender.expect(output=echo(path, f"0.0.0.0:{sender.port}"))


def test_port_zero_listens_on_a_port_that_the_kernel_chooses(
    start, connect, data_file
):
    path = data_file(b"data")
    sender = start("--filepath", path, "--port", "0")
    sender.wait_until(lambda: listening_addresses(sender), "listening")
    ((_, sender.port),) = listening_addresses(sender)
    assert connect(sender).read_exactly(4) == b"data"
    stop_promptly(sender)
    sender.expect(output=echo(path, f"{LOCALHOST}:0"))


def test_a_port_beyond_sixteen_bits_is_cut(start, connect, port, data_file):
    path = data_file(b"data")
    sender = start("--filepath", path, "--port", str(port + 65536), port=port)
    sender.wait_until_listening()
    assert connect(sender).read_exactly(4) == b"data"
    stop_promptly(sender)
    sender.expect(output=echo(path, f"{LOCALHOST}:{port + 65536}"))


def test_the_protocol_name_matches_in_any_case(serve, connect, data_file):
    path = data_file(b"data")
    sender = serve(path, "--protocol", "TcP")
    assert connect(sender).read_exactly(4) == b"data"
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address, protocol="TcP"))


@pytest.mark.parametrize("word", ["udp", "sctp", "tcp ", ""])
def test_any_other_protocol_does_not_listen(start, port, data_file, word):
    path = data_file(b"data")
    sender = start(
        "--filepath", path, "--port", str(port), "--protocol", word, port=port
    )
    sender.wait_until_replaying()
    assert not is_listening(port)
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address, protocol=word))


def test_the_port_can_be_used_again_right_after_a_run(serve, connect, data_file):
    """The sender closed first, so its connection lingers in the kernel."""
    path = data_file(b"data")
    for _ in range(2):
        sender = serve(path)
        receiver = connect(sender)
        assert receiver.read_exactly(4) == b"data"
        stop_promptly(sender)
        assert receiver.read_to_end() == b""
        receiver.close()
        sender.expect(output=echo(path, sender.address))


# -------------------------------------------------------- threads, descriptors


def descriptors(sender):
    """What each descriptor beyond the standard ones refers to."""
    return {n: target for n, target in sender.descriptors().items() if n > 2}


def flags_and_position(sender, descriptor):
    with open(f"/proc/{sender.pid}/fdinfo/{descriptor}") as info:
        fields = dict(line.split(":", 1) for line in info)
    return int(fields["flags"], 8), int(fields["pos"])


def tcp_sockets(sender, state):
    """The sender's sockets in this state ("0A": listening, "01": connected):
    by inode, the local (address, port)."""
    own = set(descriptors(sender).values())
    sockets = {}
    with open("/proc/net/tcp") as table:
        next(table)
        for line in table:
            fields = line.split()
            if fields[3] == state and f"socket:[{fields[9]}]" in own:
                host, _, port = fields[1].partition(":")
                address = socket.inet_ntoa(bytes.fromhex(host)[::-1])
                sockets[fields[9]] = (address, int(port, 16))
    return sockets


def listening_addresses(sender):
    return list(tcp_sockets(sender, "0A").values())


def socket_flags(sender, state):
    (inode,) = tcp_sockets(sender, state)
    (descriptor,) = (
        number
        for number, target in descriptors(sender).items()
        if target == f"socket:[{inode}]"
    )
    return flags_and_position(sender, descriptor)[0]


def test_the_sending_thread_is_named(serve, data_file):
    sender = serve(data_file(b"data"))
    names = []
    for thread in sender.cpu_times():
        with open(f"/proc/{sender.pid}/task/{thread}/comm") as comm:
            names.append(comm.read())
    assert names.count("poller_thread\n") == 1
    stop_promptly(sender)


def test_the_listening_socket_blocks_and_is_closed_on_exec(serve, data_file):
    sender = serve(data_file(b"data"))
    flags = socket_flags(sender, "0A")
    assert flags & os.O_CLOEXEC
    assert not flags & os.O_NONBLOCK
    stop_promptly(sender)


def test_the_connection_never_blocks_and_is_closed_on_exec(
    serve, connect, data_file
):
    sender = serve(data_file(b"data"))
    receiver = connect(sender)
    receiver.read_exactly(4)
    flags = socket_flags(sender, "01")
    assert flags & os.O_CLOEXEC
    assert flags & os.O_NONBLOCK
    stop_promptly(sender)


def test_the_wake_up_descriptor_never_blocks_and_is_closed_on_exec(
    serve, data_file
):
    sender = serve(data_file(b"data"))
    (descriptor,) = (
        number
        for number, target in descriptors(sender).items()
        if target == "anon_inode:[eventfd]"
    )
    flags = flags_and_position(sender, descriptor)[0]
    assert flags & os.O_CLOEXEC
    assert flags & os.O_NONBLOCK
    stop_promptly(sender)


# ---------------------------------------------------------------------- pacing


@pytest.mark.parametrize(
    "words, settings, passes",
    [
        (("--mbps", "8"), {"in_speed": 8000000}, 1),
        (
            ("--mbps", "80", "--loopback", "10"),
            {"in_speed": 80000000, "loopback": 10},
            10,
        ),
        (
            ("--mbps", "80", "--loopback", "10", "--preload", "1"),
            {"in_speed": 80000000, "loopback": 10},
            10,
        ),
    ],
    ids=["one pass", "ten passes", "ten passes from memory"],
)
def test_a_paced_run_takes_the_time_that_is_due(
    serve, connect, data_file, words, settings, passes
):
    """A million bytes at a million bytes a second, and the same over passes.

    The receiver's clock starts before it is accepted, so the run cannot be
    shorter. That it is not far longer is seen by the sender's own processor
    time, which a busy machine does not stretch: the pauses are busy waits.
    """
    data = random_bytes(1000000)
    path = data_file(data)
    sender = serve(path, *words)
    poller = sender.poller()
    begin = time.monotonic()
    receiver = connect(sender)
    received = receiver.read_exactly(passes * len(data))
    elapsed = time.monotonic() - begin
    worked = sender.cpu_times()[poller] / 1e9
    assert elapsed >= 1.0
    assert worked < 2.5
    if "--preload" not in words:
        assert received == data * passes
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address, **settings))


def test_the_first_message_is_sent_at_once(serve, connect, data_file):
    """At one bit a second it would be due after nearly a day."""
    data = random_bytes(MESSAGE_SIZE)
    path = data_file(data)
    sender = serve(path, "--mbps", "0.000001")
    assert connect(sender).read_exactly(len(data)) == data
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address, in_speed=1))


def test_a_receiver_that_stalls_in_a_paced_run_loses_nothing(
    serve, connect, data_file
):
    """The sender falls behind, then catches up, and still takes its time."""
    data = random_bytes(20 * MEGABYTE)
    path = data_file(data)
    sender = serve(path, "--mbps", "400")
    begin = time.monotonic()
    at_start = sender.memory()
    receiver = connect(sender, rcvbuf=65536)
    fill_queue(sender, at_start)
    assert receiver.read_exactly(len(data)) == data
    assert time.monotonic() - begin >= len(data) * 8 / 400e6
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address, in_speed=400000000))


@pytest.mark.parametrize("rate, in_speed", [("0", 0), ("-1", 18446744073708551616)])
def test_no_rate_and_an_enormous_rate_deliver_everything(
    serve, connect, data_file, rate, in_speed
):
    data = random_bytes(8 * MEGABYTE)
    path = data_file(data)
    sender = serve(path, "--mbps", rate)
    assert connect(sender).read_exactly(len(data)) == data
    stop_promptly(sender)
    sender.expect(output=echo(path, sender.address, in_speed=in_speed))
