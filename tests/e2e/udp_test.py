"""Data files over UDP: one datagram per message, every option, and how a target
or a device that cannot be used ends the sending or the program."""

import signal
import time

import pytest

from conftest import LOCALHOST, debug_dump, echo, fatal, pieces, random_bytes, uncaught
from udp_receiver import (  # noqa: F401: most of these are fixtures
    assert_same,
    make_receiver,
    receiver,
    replay,
    sends,
    udp_echo,
    udp_payload,
    unprivileged,
    witness,
)


# -------------------------------------------------------------- what is sent


@pytest.mark.parametrize("size", [1, 10240, 10241, 25000, 300000])
def test_each_message_of_a_file_is_one_datagram(sends, data_file, size):
    data = random_bytes(size)
    sends(data_file(data), pieces(data))


def test_an_empty_file_sends_no_datagram(sends, data_file):
    sends(data_file(b""), [])


def test_a_directory_is_sent_in_version_order(sends, tmp_path):
    directory = tmp_path / "recordings"
    directory.mkdir()
    for name in ("f10", "f2", "f1"):
        (directory / name).write_bytes(name.encode())
    sends(directory, [b"f1", b"f2", b"f10"])


def test_all_datagrams_come_from_one_port_of_the_kernels_choice(
    replay, receiver, data_file
):
    replay(data_file(random_bytes(25000)))
    addresses = {receiver.receive_one()[1] for _ in range(3)}
    assert len(addresses) == 1
    assert addresses.pop()[0] == LOCALHOST


def test_another_local_address_is_reached(start, make_receiver, data_file):
    there = make_receiver(host="127.0.0.2")
    start(
        "--filepath", data_file(b"data"), "--ip", "127.0.0.2",
        "--port", str(there.port), "--protocol", "udp",
    )
    assert there.receive(1) == [b"data"]


def test_tcpdump_sees_the_same_datagrams_on_the_wire(
    replay, receiver, data_file, witness
):
    data = random_bytes(25000)
    watching = witness(f"udp and dst port {receiver.port}")
    replay(data_file(data))
    packets = watching.wait_for(lambda seen: len(seen) >= 3)
    assert_same([udp_payload(packet) for packet in packets], pieces(data))


# ------------------------------------------------------------------- options


def test_three_passes_send_the_file_three_times(sends, data_file):
    data = random_bytes(15000)
    sends(data_file(data), pieces(data) * 3, "--loopback", "3", loopback=3)


def test_zero_passes_go_on_until_the_stop(replay, receiver, udp_echo, data_file):
    path = data_file(b"data")
    # A rate, so that the receiver can keep up for as long as it takes.
    sender = replay(path, "--loopback", "0", "--mbps", "0.1")
    assert receiver.receive(100) == [b"data"] * 100
    sender.stop()
    sender.expect(0, udp_echo(path, loopback=0, in_speed=100000))


def test_a_preloaded_file_is_sent_from_its_last_message_to_its_first(sends, data_file):
    data = random_bytes(25000)
    expected = pieces(data)[::-1] * 2
    sends(data_file(data), expected, "--preload", "1", "--loopback", "2", loopback=2)


def test_a_preloaded_directory_of_two_files_sends_nothing(sends, tmp_path):
    directory = tmp_path / "recordings"
    directory.mkdir()
    for name in ("one", "two"):
        (directory / name).write_bytes(b"data")
    sends(directory, [], "--preload", "1")


def test_a_rate_is_kept(replay, receiver, udp_echo, data_file):
    data = random_bytes(20 * 10240)
    path = data_file(data)
    begun = time.monotonic()
    sender = replay(path, "--mbps", "4")
    assert_same(receiver.receive(20), pieces(data))
    # The last datagram is due when all twenty have had their time.
    assert time.monotonic() - begun >= 20 * 10240 * 8 / 4_000_000
    sender.stop()
    sender.expect(0, udp_echo(path, in_speed=4000000))


def test_debug_mode_dumps_each_datagram(sends, data_file):
    data = bytes(range(256)) * 41  # 10496 bytes: two messages
    dump = debug_dump(pieces(data))
    sends(data_file(data), pieces(data), "--debug", "1", output=dump)


def test_a_filter_is_shown_but_not_used_for_data_files(sends, data_file):
    sends(data_file(b"data"), [b"data"], "--filter", "nonsense", filter="nonsense")


@pytest.mark.parametrize("word", ["UDP", "sctp", ""])
def test_every_protocol_but_tcp_selects_udp(sends, data_file, word):
    sends(data_file(b"data"), [b"data"], "--protocol", word, protocol=word)


# ------------------------------------------------------------------ the stop


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_a_stop_signal_ends_the_held_run(replay, receiver, udp_echo, data_file, number):
    path = data_file(b"data")
    sender = replay(path)
    receiver.receive(1)
    assert sender.stop(number) == 0
    sender.expect(0, udp_echo(path))


def test_a_hang_up_does_not_end_the_run(replay, receiver, udp_echo, data_file):
    path = data_file(b"data")
    sender = replay(path)
    receiver.receive(1)
    sender.signal(signal.SIGHUP)
    sender.wait_for_progress()
    assert sender.running()
    sender.stop()
    sender.expect(0, udp_echo(path))


# ------------------------------------------------------------------- targets


@pytest.mark.parametrize("host", ["255.255.255.255", "*", "bogus"])
def test_a_target_that_the_kernel_refuses_ends_the_sending(start, data_file, host):
    # Texts that are no address stand for the all-ones address, too.
    path = data_file(random_bytes(25000))
    words = ("--filepath", path, "--ip", host, "--port", "5000", "--protocol", "udp")
    sender = start(*words)
    sender.wait_for_output("socket error\n")
    sender.wait_for_progress([sender.pid])  # the other thread has nothing to wait for
    sender.stop()
    sender.expect(0, echo(path, f"{host}:5000", protocol="udp") + "socket error\n")


def test_port_0_is_accepted_and_then_refused_by_the_kernel(start, data_file):
    path = data_file(b"data")
    sender = start("--filepath", path, "--port", "0", "--protocol", "udp")
    sender.wait_for_output("socket error\n")
    sender.stop()
    sender.expect(0, echo(path, "127.0.0.1:0", protocol="udp") + "socket error\n")


def test_a_full_queue_after_an_error_does_not_hold_up_the_stop(start, data_file):
    # 1100 messages: more than the queue holds.
    path = data_file(bytes(1100 * 10240))
    sender = start("--filepath", path, "--port", "0", "--protocol", "udp")
    sender.wait_for_output("socket error\n")
    sender.wait_for_progress([sender.pid])  # the other thread has nothing to wait for
    assert sender.stop() == 0


def test_a_port_that_nobody_listens_on_does_not_end_the_sending(
    replay, receiver, make_receiver, udp_echo, data_file
):
    path = data_file(b"data")
    receiver.close()
    sender = replay(path, "--loopback", "0", "--mbps", "0.1")
    sender.wait_for_progress(milliseconds=200)
    late = make_receiver(port=receiver.port)
    assert late.receive(10) == [b"data"] * 10
    sender.stop()
    sender.expect(0, udp_echo(path, loopback=0, in_speed=100000))


def test_a_port_that_is_cut_to_nothing_is_fatal(start, data_file):
    path = data_file(b"data")
    start("--filepath", path, "--port", "65536", "--protocol", "udp").expect(
        -signal.SIGABRT,
        echo(path, "127.0.0.1:65536", protocol="udp"),
        fatal("Invalid argument", "tcp_replay.h"),
    )


def test_a_port_beyond_16_bits_is_cut(start, make_receiver, data_file):
    there = make_receiver()
    path = data_file(b"data")
    port = str(65536 + there.port)
    sender = start("--filepath", path, "--port", port, "--protocol", "udp")
    assert there.receive(1) == [b"data"]
    sender.stop()
    sender.expect(0, echo(path, f"127.0.0.1:{port}", protocol="udp"))


def test_a_missing_path_is_reported_over_udp_too(start, tmp_path):
    path = tmp_path / "missing"
    start("--filepath", path, "--port", "9", "--protocol", "udp").expect(
        -signal.SIGABRT,
        echo(path, "127.0.0.1:9", protocol="udp"),
        uncaught(f"Cannot find file {path}. errno: 2"),
    )


def test_the_target_is_looked_at_before_the_path(start, tmp_path):
    path = tmp_path / "missing"
    start("--filepath", path, "--port", "65536", "--protocol", "udp").expect(
        -signal.SIGABRT,
        echo(path, "127.0.0.1:65536", protocol="udp"),
        fatal("Invalid argument", "tcp_replay.h"),
    )


# ------------------------------------------------------------------- devices


def test_a_device_can_be_named_for_a_unicast_target(sends, data_file):
    sends(data_file(b"data"), [b"data"], "--device", "lo", device="lo")


@pytest.mark.parametrize("host", ["127.0.0.1", "239.1.1.1"])
def test_an_unknown_device_is_fatal(start, data_file, host):
    path = data_file(b"data")
    start(
        "--filepath", path, "--ip", host, "--port", "9", "--protocol", "udp",
        "--device", "nosuchdevice0",
    ).expect(
        -signal.SIGABRT,
        echo(path, f"{host}:9", protocol="udp", device="nosuchdevice0"),
        fatal("No such device", "tcp_replay.h"),
    )


def test_an_unprivileged_user_may_name_a_device_for_a_unicast_target(
    unprivileged, start, receiver
):
    # A file that every user can read; the test's own folder is closed to others.
    path = "/proc/sys/kernel/ostype"
    sender = start(
        "--filepath", path, "--port", str(receiver.port), "--protocol", "udp",
        "--device", "lo",
    )
    assert receiver.receive(1) == [b"Linux\n"]
    sender.stop()
    sender.expect(
        0, echo(path, f"127.0.0.1:{receiver.port}", protocol="udp", device="lo")
    )


def test_an_unprivileged_user_may_not_name_a_device_for_a_multicast_target(
    unprivileged, start
):
    # The device is set twice there, and the kernel lets such a user set it once.
    start(
        "--filepath", "/proc/version", "--ip", "239.1.1.1", "--port", "5000",
        "--protocol", "udp", "--device", "lo",
    ).expect(
        -signal.SIGABRT,
        echo("/proc/version", "239.1.1.1:5000", protocol="udp", device="lo"),
        fatal("Operation not permitted", "tcp_replay.h"),
    )
