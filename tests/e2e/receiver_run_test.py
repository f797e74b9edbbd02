"""Runs of the receiver beside the real sender: every option on the same line for
both, how a run ends, every exit status, and all that is written and shown."""

import contextlib
import errno
import fcntl
import os
import pty
import re
import shutil
import signal
import struct
import subprocess
import termios
import threading
import time

import pytest

import capture_builder as build
import fault_relay as relay
from conftest import DEADLINE, LOCALHOST, pieces, random_bytes
from fault_relay import tcp_relay, udp_relay  # noqa: F401: fixtures
from network_namespace import hosts  # noqa: F401: a fixture
from replay_receiver import (  # noqa: F401: most of these are fixtures
    QUICK,
    as_nobody,
    both,
    captured_payloads,
    read_capture,
    read_frame,
    receive,
    speaker,
    totals,
    udp_port,
)
from udp_receiver import assert_same, make_receiver  # noqa: F401: a fixture

DATA = random_bytes(25000)
AS_UDP = ("--filetype", "1", "--filter", "udp")
AS_TCP = ("--filetype", "1", "--filter", "tcp")
PROTOCOLS = ("tcp", "udp")


def fill(path, **contents):
    path.mkdir()
    for name, data in contents.items():
        (path / name).write_bytes(data)


# --------------------------------------------------------- the same option line

UDP_FRAMES = [
    build.udp(b"A" * 100),
    build.udp(b""),
    build.tcp(b"another transport"),
    build.udp(b"B" * 1400, ip_options=b"\1\1\1\1"),
    build.udp(b"C", padding=bytes(17)),
]
TCP_FRAMES = [
    build.tcp(b"first"),
    build.tcp(b""),
    build.udp(b"another transport"),
    build.tcp(b"second" * 99, tcp_options=bytes(12)),
]
IPV6 = build.udp_ipv6(b"behind forty bytes")
LONG, LONGER = random_bytes(10241, 2), random_bytes(30000, 3)

# Each: what lies at the path (bytes, or a folder's files), words, messages.
SOURCES = {
    "a data file": (DATA, (), pieces(DATA)),
    "one byte": (b"x", (), [b"x"]),
    "a full message": (DATA[:10240], (), [DATA[:10240]]),
    "an empty file": (b"", (), []),
    "a folder": (
        {"f10": b"ten", "f2": DATA[:10241], "f1": b"one", "f3": b""},
        (),
        [b"one", DATA[:10240], DATA[10240:10241], b"ten"],
    ),
    "passes": (DATA, ("--loopback", "3"), pieces(DATA) * 3),
    "passes of a folder": (
        {"f10": b"ten", "f2": b"two"}, ("--loopback", "2"), [b"two", b"ten"] * 2
    ),
    "preload": (DATA, ("--preload", "1"), pieces(DATA)[::-1]),
    "preload, passes": (
        DATA, ("--preload", "1", "--loopback", "2"), pieces(DATA)[::-1] * 2
    ),
    "preload a folder of one": (
        {"only": DATA}, ("--preload", "1"), pieces(DATA)[::-1]
    ),
    "preload a folder of two": ({"a": b"a", "b": b"b"}, ("--preload", "1"), []),
    "a UDP capture": (
        build.pcap(UDP_FRAMES), AS_UDP, [b"A" * 100, b"B" * 1400, b"C" + bytes(17)]
    ),
    "a TCP capture": (build.pcap(TCP_FRAMES), AS_TCP, [b"first", b"second" * 99]),
    "preload a capture": (
        # From memory it is always taken as TCP.
        build.pcap(TCP_FRAMES),
        (*AS_UDP, "--preload", "1"),
        [b"second" * 99, b"first"],
    ),
    "a folder of captures": (
        {
            "c10": build.pcap([build.udp(b"ten")]),
            "c2": build.pcapng([build.udp(b"two"), build.udp(b"more")]),
            "c1": build.pcap([build.udp(b"one")], big_endian=True, nanoseconds=True),
        },
        (*AS_UDP, "--loopback", "2"),
        [b"one", b"two", b"more", b"ten"] * 2,
    ),
    "a filter": (
        build.pcap([build.udp(b"no", port=5001), build.udp(b"yes", port=5000)]),
        ("--filetype", "1", "--filter", "udp and port 5000"),
        [b"yes"],
    ),
    "a filter with blanks around": (
        build.pcap([build.udp(b"yes")]), ("--filetype", "1", "--filter", " udp\n"),
        [b"yes"],
    ),
    "a filter beside a data file": (DATA, ("--filter", "nonsense"), pieces(DATA)),
    "pcapng": (
        build.pcapng([build.udp(b"one"), build.udp(b"two")]), AS_UDP, [b"one", b"two"]
    ),
    "long payloads": (
        build.pcap([build.udp(LONG), build.udp(LONGER), build.udp(b"next")]),
        AS_UDP,
        [*pieces(LONG), *pieces(LONGER), b"next"],
    ),
    "nothing but empty payloads": (build.pcap([build.udp(b"")] * 3), AS_UDP, []),
    "short frames": (
        build.pcap(
            [
                build.udp(b"data").truncated(41),
                build.udp(b"whole"),
                build.udp(b"data").truncated(24),
                build.udp(b"data").truncated(44),
            ]
        ),
        AS_UDP,
        [b"whole", b"da"],
    ),
    "IPv6 cut as IPv4": (build.pcap([IPV6]), AS_UDP, [IPV6.data[22:]]),
    "a capture cut off": (
        build.pcap([build.udp(b"one"), build.udp(b"two")])[:-1], AS_UDP, [b"one"]
    ),
    "a refused filter": (
        {
            "f1": build.pcap([build.udp(b"one")]),
            "f2": build.pcap([build.udp(b"two")], link_type=build.RAW_IP),
            "f3": build.pcap([build.udp(b"three")]),
        },
        ("--filetype", "1", "--filter", "udp and ether dst 02:00:00:00:00:02"),
        [b"one", b"three"],
    ),
    "a filter in capitals": (
        build.pcap([build.udp(b"data")]), ("--filetype", "1", "--filter", "UDP"), []
    ),
    "other case": (DATA, ("--LoopBack", "2", "--PRELOAD", "1", "--FileType", "0"),
                   pieces(DATA)[::-1] * 2),
    "repeated options": (
        DATA,
        ("--loopback", "9", "--preload", "1", "--ip", "10.0.0.1", "--filetype", "1")
        + ("--filetype", "0", "--ip", LOCALHOST, "--preload", "0", "--loopback", "2"),
        pieces(DATA) * 2,
    ),
    "a device": (DATA, ("--device", "lo"), pieces(DATA)),
    "a rate": (DATA, ("--mbps", "40", "--tolerance", "1000"), pieces(DATA)),
}
OURS_ALONE = ("--tolerance",)


@pytest.fixture
def source(tmp_path):
    """source(content) is the path of this file or of a folder with these files."""

    def create(content, name="source"):
        path = tmp_path / name
        if isinstance(content, dict):
            fill(path, **content)
        else:
            path.write_bytes(content)
        return path

    return create


def split_line(words):
    """What both programs know of these words, and what only the receiver knows."""
    common, own = [], []
    for option, value in zip(words[::2], words[1::2]):
        (own if option in OURS_ALONE else common).extend((option, value))
    return common, own


@pytest.fixture
def arrives(both, source, tmp_path):
    """Runs both programs; expects these messages, as the kept copy shows them, and
    a receiver that has nothing to complain about."""

    def check(content, words, messages, protocol):
        kept = tmp_path / "kept"
        common, own = split_line(words)
        run = both(
            "--filepath", source(content), *common, protocol=protocol,
            receiver=(*own, "--write", kept),
        )
        result = run.expect(0, "complete")
        if protocol == "tcp":
            assert kept.read_bytes() == b"".join(messages)
        else:
            assert_same(captured_payloads(kept), messages)
        assert result.received == result.matched == totals(messages)
        assert result.verified["expected_messages"] == len(messages)
        assert result.faults == [] and result.counts == {}
        assert result["protocol"] == protocol
        return run, result

    return check


@pytest.mark.parametrize("protocol", PROTOCOLS)
@pytest.mark.parametrize("name", SOURCES)
def test_the_senders_line_tells_the_receiver_what_to_expect(arrives, name, protocol):
    content, words, messages = SOURCES[name]
    run, result = arrives(content, words, messages, protocol)
    if name not in ("a refused filter", "a filter in capitals", "a device"):
        assert run.errors() == ""
    assert result["own_drops"] == 0
    assert result.measured["framed"] is True
    sizes = result.measured["sizes"]
    assert sizes["count"] == len(messages)
    if messages:
        assert sizes["min_bytes"] == min(map(len, messages))
        assert sizes["max_bytes"] == max(map(len, messages))


@pytest.mark.parametrize("word", ["TCP", "tCp"])
def test_the_protocol_counts_in_any_case(both, data_file, word):
    both("--filepath", data_file(DATA), protocol=word).expect(0, "complete")


def test_every_other_protocol_is_udp_with_a_word_about_it(
    receive, start, udp_port, data_file
):
    line = ("--filepath", data_file(DATA), "--port", str(udp_port))
    line += ("--protocol", "sctp")
    run = receive(*line, *QUICK)
    run.wait_until_bound(udp_port)
    start(*line)
    assert run.expect(0, "complete").received == totals(pieces(DATA))
    assert "sctp" in run.errors() and "udp" in run.errors().lower()


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_debug_is_ignored_with_a_word_about_it(arrives, protocol):
    words = ("--debug", "1")
    run, _ = arrives(DATA, words, pieces(DATA), protocol)
    assert "--debug" in run.errors() and "ignored" in run.errors()
    assert run.errors().count("\n") == 1


def test_a_value_may_follow_its_option_behind_an_equals_sign(both, data_file, port):
    path = data_file(DATA)
    words = (f"--filepath={path}", "--Idle=5", "--PROGRESS=never")
    run = both(
        protocol="tcp", sender=("--filepath", path), receiver=words
    )
    assert run.expect(0, "complete").matched == totals(pieces(DATA))


def test_own_option_names_match_in_any_case(both, data_file, tmp_path):
    path = tmp_path / "slices"
    both("--filepath", data_file(DATA), receiver=("--CSV", path)).expect(0)
    assert path.read_text().startswith("time_s,")


def test_a_relative_path_is_taken_from_the_working_directory(receive, serve, source):
    folder = source({"data": DATA}, "folder")
    sender = serve("data", cwd=folder)
    words = ("--filepath", "data", "--port", str(sender.port))
    assert receive(*words, *QUICK, cwd=folder).expect(0).received == (3, 25000)


def test_forty_thousand_datagrams_are_all_seen(both, source):
    messages = [b"%d " % number * (1 + number % 9) for number in range(40000)]
    path = source(build.pcap(map(build.udp, messages)))
    run = both("--filepath", path, *AS_UDP, "--mbps", "20", protocol="udp",
               receiver=("--tolerance", "1000"))
    assert run.expect(0, "complete").matched == totals(messages)


def test_a_long_unpaced_stream_is_right_to_the_last_byte(both, data_file):
    data = random_bytes(32 * 1024 * 1024 + 3)
    run = both("--filepath", data_file(data))
    assert run.expect(0, "complete").matched == totals(pieces(data))


# -------------------------------------------------------------------- multicast

GROUP = "239.1.1.1"
GROUP_PORT = 5000


@pytest.fixture
def in_group(receive, hosts):
    """in_group(*words) is a receiver at the far end of the cable."""

    def run(*words, group=GROUP):
        with hosts[1].inside():
            return receive(
                "--ip", group, "--port", str(GROUP_PORT), "--protocol", "udp",
                *QUICK, *words,
            )

    return run


def test_a_group_is_joined_on_the_named_device(in_group, start, hosts, data_file):
    path = data_file(DATA)
    run = in_group("--filepath", path, "--device", hosts[1].device)
    run.wait_until_bound(GROUP_PORT, GROUP)
    with hosts[0].inside():
        start("--filepath", path, "--ip", GROUP, "--port", str(GROUP_PORT),
              "--protocol", "udp", "--device", hosts[0].device)
    result = run.expect(0, "complete")
    assert result.matched == totals(pieces(DATA))
    assert result["device"] == hosts[1].device


def test_without_a_device_the_route_says_where_to_join(
    in_group, start, hosts, data_file
):
    path = data_file(DATA)
    route = ("route", "add", "224.0.0.0/4", "dev", hosts[1].device)
    subprocess.run(["ip", "-n", hosts[1].name, *route], check=True)
    run = in_group("--filepath", path)
    run.wait_until_bound(GROUP_PORT, GROUP)
    with hosts[0].inside():
        start("--filepath", path, "--ip", GROUP, "--port", str(GROUP_PORT),
              "--protocol", "udp", "--device", hosts[0].device)
    run.expect(0, "complete")


def test_what_came_from_a_group_is_kept_with_the_real_addresses(
    in_group, start, hosts, data_file, tmp_path
):
    kept = tmp_path / "kept"
    path = data_file(b"data")
    run = in_group("--filepath", path, "--device", hosts[1].device, "--write", kept)
    run.wait_until_bound(GROUP_PORT, GROUP)
    with hosts[0].inside():
        start("--filepath", path, "--ip", GROUP, "--port", str(GROUP_PORT),
              "--protocol", "udp", "--device", hosts[0].device)
    run.expect(0)
    ((_, frame),) = read_capture(kept)
    source_address, destination, payload = read_frame(frame)
    assert source_address[0] == hosts[0].address
    assert (destination, payload) == ((GROUP, GROUP_PORT), b"data")


def test_a_group_without_a_route_to_it_cannot_be_joined(in_group, data_file):
    run = in_group("--filepath", data_file(DATA))
    run.expect(3)
    assert run.errors().startswith("replay_receiver: ") and GROUP in run.errors()


def test_a_group_cannot_be_joined_on_a_device_that_is_not_there(in_group, data_file):
    words = ("--filepath", data_file(DATA), "--device", "nosuchdevice0")
    run = in_group(*words)
    run.expect(3)
    assert "nosuchdevice0" in run.errors()


# ------------------------------------------------------------- the end of a run


def assert_limited(result, messages, protocol):
    """These came and no others; over TCP the last read may hold more."""
    if protocol == "tcp":
        assert result.matched >= totals(messages)
    else:
        assert result.matched == totals(messages)
    assert result.faults == []


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_an_endless_replay_ends_after_so_many_messages(both, data_file, protocol):
    line = ("--filepath", data_file(DATA), "--loopback", "0", "--mbps", "80")
    own = ("--messages", "50", "--tolerance", "1000")
    result = both(*line, protocol=protocol, receiver=own).expect(0, "messages")
    assert_limited(result, (pieces(DATA) * 17)[:50], protocol)


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_an_endless_replay_ends_after_so_many_bytes(both, data_file, protocol):
    line = ("--filepath", data_file(DATA), "--loopback", "0", "--mbps", "80")
    own = ("--bytes", "100000", "--tolerance", "1000")
    result = both(*line, protocol=protocol, receiver=own).expect(0, "bytes")
    # Four passes are 100000 bytes in twelve messages.
    assert result.matched == (12, 100000)
    assert result.faults == []


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_an_endless_replay_ends_after_so_long(both, data_file, protocol):
    line = ("--filepath", data_file(DATA), "--loopback", "0", "--mbps", "10")
    own = ("--duration", "0.7", "--tolerance", "1000")
    begun = time.monotonic()
    result = both(*line, protocol=protocol, receiver=own).expect(0, "duration")
    assert time.monotonic() - begun >= 0.7
    assert result.faults == [] and result.measured["messages"] > 1
    # An endless replay has no total.
    assert result.expected == (None, None)
    assert 0.2e9 < result.measured["duration_ns"] < 2e9


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_limit_below_the_total_lowers_what_is_expected(both, data_file, protocol):
    line = ("--filepath", data_file(DATA), "--loopback", "2")
    result = both(*line, protocol=protocol, receiver=("--messages", "4")).expect(
        0, "messages"
    )
    assert_limited(result, (pieces(DATA) * 2)[:4], protocol)


def test_a_limit_above_the_total_changes_nothing(both, data_file):
    own = ("--messages", "400", "--bytes", "1000000000")
    both("--filepath", data_file(DATA), receiver=own).expect(0, "complete")


def test_a_duration_that_is_too_short_for_the_total_ends_early(both, data_file):
    line = ("--filepath", data_file(DATA * 20), "--mbps", "1")
    own = ("--duration", "0.5", "--tolerance", "1000")
    result = both(*line, receiver=own).expect(7, "duration")
    assert result.faults == []


def test_silence_before_the_first_datagram_is_waited_out(
    receive, udp_port, speaker, data_file
):
    run = receive("--filepath", data_file(DATA), "--port", str(udp_port),
                  "--protocol", "udp", *QUICK, "--idle", "0.3")
    run.wait_until_bound(udp_port)
    limit = time.monotonic() + 0.9
    run.wait_until(lambda: time.monotonic() > limit, "silence")
    speaker.say(udp_port, *pieces(DATA))
    run.expect(0, "complete")


def test_silence_before_the_first_byte_is_waited_out(
    receive, serve, tcp_relay, data_file
):
    path = data_file(DATA)
    between = tcp_relay(serve(path).port, relay.stalled(0, 0.9))
    run = receive("--filepath", path, "--port", str(between.port), *QUICK,
                  "--idle", "0.3")
    run.expect(0, "complete")


def test_a_udp_replay_that_falls_silent_has_lost_the_rest(both, data_file):
    run = both("--filepath", data_file(DATA * 20), "--mbps", "1", protocol="udp",
               receiver=("--tolerance", "1000", "--idle", "0.4"), running=True)
    run.sender.wait_for_progress([run.sender.pid], 100)
    run.sender.kill()
    result = run.expect(1, "idle")
    arrived = result.measured["messages"]
    total = len(pieces(DATA * 20))
    assert 0 < arrived < total
    assert result.faults == [("lost", arrived + 1, total - arrived, 0, 0)]


def test_a_tcp_sender_that_ends_early_ends_the_run_early(both, data_file):
    data = DATA * 20
    run = both("--filepath", data_file(data), "--mbps", "1",
               receiver=("--tolerance", "1000"), running=True)
    run.wait_until_connected(run.sender.port)
    run.sender.wait_for_progress([run.sender.pid], 100)
    run.sender.kill()
    result = run.expect(7, "closed")
    assert result.faults == []
    assert 0 < result.measured["bytes"] < len(data)


def test_without_a_source_silence_is_the_end(receive, udp_port, speaker):
    run = receive("--port", str(udp_port), "--protocol", "udp", *QUICK)
    run.wait_until_bound(udp_port)
    messages = [b"one", b"", b"three"]
    speaker.say(udp_port, *messages)
    result = run.expect(0, "idle")
    assert result.received == totals(messages)
    assert result.verified["attempted"] is False
    assert result.measured["framed"] is True


def test_without_a_source_a_closed_connection_is_the_end(receive, serve, data_file):
    sender = serve(data_file(DATA))
    run = receive("--port", str(sender.port), "--idle", "60")
    run.wait_until_connected(sender.port)
    sender.stop()
    result = run.expect(0, "closed")
    assert result.measured["bytes"] == len(DATA)
    assert result.measured["framed"] is False
    assert result.verified["attempted"] is False


def test_without_a_source_so_many_reads_are_the_end(receive, serve, data_file):
    sender = serve(data_file(DATA), "--loopback", "0", "--mbps", "20")
    run = receive("--port", str(sender.port), "--messages", "5", *QUICK)
    assert run.expect(0, "messages").measured["messages"] == 5


def test_nothing_at_all_is_an_early_end(receive, udp_port, data_file):
    words = ("--port", str(udp_port), "--protocol", "udp", "--duration", "0.2")
    receive(*words).expect(7, "duration")
    receive(*words, "--filepath", data_file(DATA)).expect(7, "duration")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_the_first_signal_ends_an_endless_run_well(both, data_file, protocol, number):
    line = ("--filepath", data_file(DATA), "--loopback", "0", "--mbps", "20")
    run = both(*line, protocol=protocol, receiver=("--tolerance", "1000"), running=True)
    if protocol == "tcp":
        run.wait_until_connected(run.sender.port)
    run.sender.wait_for_progress([run.sender.pid], 100)
    run.signal(number)
    result = run.expect(0, "signal")
    assert result.faults == [] and run.output() != ""


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_the_first_signal_ends_a_finite_run_early(both, data_file, protocol):
    line = ("--filepath", data_file(DATA * 40), "--mbps", "2")
    run = both(*line, protocol=protocol, receiver=("--tolerance", "1000"), running=True)
    if protocol == "tcp":
        run.wait_until_connected(run.sender.port)
    run.sender.wait_for_progress([run.sender.pid], 100)
    run.signal(signal.SIGINT)
    result = run.expect(7, "signal")
    assert result.faults == [] and run.output() != ""


def test_a_signal_before_any_message_ends_early(receive, udp_port):
    run = receive("--port", str(udp_port), "--protocol", "udp")
    run.wait_until_bound(udp_port)
    run.signal(signal.SIGTERM)
    run.expect(7, "signal")


def test_a_signal_ends_the_wait_for_a_sender(receive, port, data_file):
    run = receive("--port", str(port), "--filepath", data_file(DATA))
    run.wait_until(lambda: run.naps() > 5, "waiting for the sender")
    run.signal(signal.SIGINT)
    assert run.wait() in (3, 7)


@pytest.fixture
def full_pipe():
    """The writing end of a pipe that takes nothing more."""
    there, here = os.pipe()
    fcntl.fcntl(here, fcntl.F_SETFL, os.O_NONBLOCK)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(here, bytes(65536))
    fcntl.fcntl(here, fcntl.F_SETFL, 0)
    yield here
    os.close(there)
    os.close(here)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_the_second_signal_ends_at_once(receive, udp_port, full_pipe, number):
    run = receive("--port", str(udp_port), "--protocol", "udp", stdout=full_pipe)
    run.wait_until_bound(udp_port)
    run.signal(signal.SIGINT)
    # It reports, and nobody reads.
    run.wait_until(lambda: run.waits_in("pipe_w"), "stuck in its report")
    run.signal(number)
    assert run.wait() == -number


# ------------------------------------------------------------------ connecting


# So many seconds are more nanoseconds than 64 bits hold.
@pytest.mark.parametrize(
    "words", [(), ("--connect-timeout", "9.3e9"), ("--connect-timeout", "1e300")]
)
def test_a_receiver_waits_until_its_sender_listens(
    receive, serve, port, data_file, words
):
    path = data_file(DATA)
    run = receive("--filepath", path, "--port", str(port), *words, *QUICK)
    run.wait_until(lambda: run.naps() > 5, "several tries")
    serve(path)
    assert run.expect(0, "complete").matched == totals(pieces(DATA))


def test_nobody_who_listens_is_a_failed_connection(receive, port, data_file):
    begun = time.monotonic()
    run = receive("--filepath", data_file(DATA), "--port", str(port),
                  "--connect-timeout", "0.3")
    run.expect(3)
    assert 0.3 <= time.monotonic() - begun < DEADLINE / 2
    assert run.errors().startswith("replay_receiver: ")
    assert f"{LOCALHOST}:{port}" in run.errors()


def test_an_address_that_answers_nothing_is_a_failed_connection(
    receive, hosts, data_file
):
    # Nobody has this address on the cable, so nobody even refuses.
    with hosts[1].inside():
        run = receive("--filepath", data_file(DATA), "--ip", "10.77.0.99",
                      "--connect-timeout", "0.5")
    begun = time.monotonic()
    run.expect(3)
    assert time.monotonic() - begun < DEADLINE / 2


def test_a_udp_port_that_is_taken_cannot_be_bound(receive, speaker, data_file):
    run = receive("--filepath", data_file(DATA), "--port", str(speaker.port),
                  "--protocol", "udp")
    run.expect(3)
    assert run.errors().startswith("replay_receiver: ")
    assert str(speaker.port) in run.errors()


def test_two_receivers_do_not_share_a_port(receive, udp_port):
    words = ("--port", str(udp_port), "--protocol", "udp")
    first = receive(*words)
    first.wait_until_bound(udp_port)
    receive(*words).expect(3)
    assert first.running()


def test_an_address_that_is_not_ours_cannot_be_bound(receive, udp_port, data_file):
    run = receive("--filepath", data_file(DATA), "--port", str(udp_port),
                  "--protocol", "udp", "--ip", "192.0.2.1")
    run.expect(3)
    assert "192.0.2.1" in run.errors()


# -------------------------------------------------------------------- its own drops

SMALL = [b"message %05d" % number + bytes(400) for number in range(300)]


@pytest.fixture
def small_capture(source):
    return source(build.pcap(map(build.udp, SMALL)))


@pytest.fixture
def dropping(receive, start, udp_port, small_capture):
    """dropping(*line) runs a receiver with a tiny buffer, stops it until its socket
    has dropped, and lets it go on. While the sender is paced, more comes later."""

    def run(*line, ready, to=None):
        line = ("--filepath", small_capture, *AS_UDP, "--protocol", "udp", *line)
        ours = receive("--port", str(udp_port), *line, *QUICK, "--rcvbuf", "4K",
                       "--tolerance", "1000")
        ours.wait_until_bound(udp_port)
        ours.signal(signal.SIGSTOP)
        start("--port", str(to or udp_port), *line)
        ours.wait_until(lambda: ready(ours.drops(udp_port)), "drops")
        ours.signal(signal.SIGCONT)
        return ours

    return run


def test_what_its_own_socket_dropped_leaves_the_run_undecided(dropping, udp_port):
    # 300 messages of 413 bytes take 0.99 s, so that the end comes undisturbed.
    run = dropping("--mbps", "1", ready=lambda drops: drops > 20)
    result = run.expect(5, "idle")
    lost = result.counts["lost"]
    assert result.counts == {"lost": lost} and lost > 20
    assert result["own_drops"] == lost
    assert result.received[0] == 300 - lost
    assert str(lost) in run.output() and "drop" in run.output().lower()


def test_drops_that_no_later_datagram_tells_of_are_counted_too(dropping):
    # All of the burst but the first few comes while the receiver stands still.
    total = len(SMALL)
    seen = []

    def settled(drops):
        seen.append(drops)
        return drops > total // 2 and seen[-50:] == [drops] * 50

    run = dropping(ready=settled)
    result = run.expect(5, "idle")
    assert result["own_drops"] == result.counts["lost"] == seen[-1]


def test_own_drops_do_not_excuse_what_was_lost_before(dropping, udp_relay, udp_port):
    between = udp_relay(udp_port, {300: relay.drop()})
    run = dropping("--mbps", "1", ready=lambda drops: drops > 20, to=between.port)
    result = run.expect(1, "idle")
    assert result.counts["lost"] == result["own_drops"] + 1


def test_own_drops_do_not_excuse_other_faults(dropping, udp_relay, udp_port):
    between = udp_relay(udp_port, {299: relay.alter(3)})
    run = dropping("--mbps", "1", ready=lambda drops: drops > 20, to=between.port)
    result = run.expect(1, "idle")
    assert result.counts["altered"] == 1
    assert result.counts["lost"] == result["own_drops"]


@pytest.mark.parametrize(
    "word, wished", [("5000000", 5000000), ("512K", 524288), ("2m", 2097152),
                     ("1G", 1073741824)]
)
def test_the_wished_receive_buffer_is_told(receive, udp_port, word, wished):
    run = receive("--port", str(udp_port), "--protocol", "udp", "--rcvbuf", word,
                  "--duration", "0.05")
    result = run.expect(7)
    assert result["buffer_wished_bytes"] == wished
    assert result["buffer_granted_bytes"] > 0


# --------------------------------------------------------------------- the rate


def rated(both, path, sender, receiver, protocol, *words):
    return both(
        "--filepath", path, protocol=protocol, sender=("--mbps", sender),
        receiver=("--mbps", receiver, *words),
    )


def rate_error(result):
    """What the figures of the JSON make it, in percent."""
    wanted = result["wanted_bps"]
    return (result.measured["rate_bps"] - wanted) / wanted * 100


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_rate_that_is_kept_is_as_expected(both, data_file, protocol):
    path = data_file(random_bytes(60 * 10240))
    # A busy machine may hold up the last message.
    run = rated(both, path, "8", "8", protocol, "--tolerance", "20")
    result = run.expect(0, "complete")
    assert abs(result["rate_error_percent"]) <= 20
    assert result["rate_error_percent"] == pytest.approx(rate_error(result), abs=1e-6)
    assert result["wanted_bps"] == 8_000_000
    assert result["tolerance_percent"] == 20
    # All messages but the first, in the time since the first.
    duration = result.measured["duration_ns"]
    assert result.measured["rate_bps"] == pytest.approx(59 * 81920 / duration * 1e9)
    assert duration == pytest.approx(59 * 81920 / 8e6 * 1e9, rel=0.2)
    gaps = result.measured["gaps"]
    assert gaps["count"] == 59
    assert gaps["mean_ns"] == pytest.approx(duration / 59, rel=0.001)
    marks = [gaps[f"{name}_ns"] for name in ("min", "p50", "p90", "p99", "p99_9")]
    assert marks == sorted(marks) and marks[-1] <= gaps["max_ns"] * 1.01


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_a_sender_of_half_the_rate_is_outside_the_tolerance(both, data_file, protocol):
    path = data_file(random_bytes(20 * 10240))
    run = rated(both, path, "4", "8", protocol)
    result = run.expect(4, "complete")
    assert -60 < result["rate_error_percent"] < -45
    assert result["rate_error_percent"] == pytest.approx(rate_error(result))
    assert result["tolerance_percent"] == 0.5
    assert result.faults == []
    assert "rate" in run.output().lower()


def test_a_sender_of_twice_the_rate_is_outside_the_tolerance(both, data_file):
    path = data_file(random_bytes(20 * 10240))
    result = rated(both, path, "8", "4", "tcp").expect(4, "complete")
    assert 50 < result["rate_error_percent"] < 110
    assert result["rate_error_percent"] == pytest.approx(rate_error(result))


def test_a_wide_tolerance_takes_half_the_rate(both, data_file):
    path = data_file(random_bytes(10 * 10240))
    rated(both, path, "8", "16", "tcp", "--tolerance", "60").expect(0, "complete")


def test_without_a_wanted_rate_there_is_no_error_of_it(both, data_file):
    result = both("--filepath", data_file(DATA)).expect(0)
    assert result["rate_error_percent"] is None
    assert result["wanted_bps"] is None


# ---------------------------------------------------------------- which is worse


def test_lost_messages_outweigh_a_file_that_cannot_be_written(
    receive, start, udp_port, udp_relay, data_file
):
    line = ("--filepath", data_file(DATA), "--protocol", "udp")
    run = receive("--port", str(udp_port), *line, *QUICK, "--csv", "/dev/full")
    run.wait_until_bound(udp_port)
    between = udp_relay(udp_port, {2: relay.drop()})
    start("--port", str(between.port), *line)
    run.expect(1, "idle")
    assert "/dev/full" in run.errors()


def test_a_file_that_cannot_be_written_outweighs_an_early_end(receive, udp_port):
    run = receive("--port", str(udp_port), "--protocol", "udp", "--duration", "0.1",
                  "--csv", "/dev/full", json=False)
    run.expect(6)


def test_an_early_end_outweighs_the_rate(both, data_file):
    path = data_file(DATA * 20)
    run = rated(both, path, "2", "20", "tcp", "--duration", "0.6")
    result = run.expect(7, "duration")
    assert abs(result["rate_error_percent"]) > 0.5


# ------------------------------------------------------------- files to be read


@pytest.fixture
def cannot_read(receive, udp_port):
    """Runs the receiver with a source that cannot be read; its error."""

    def check(*words, **options):
        run = receive("--port", str(udp_port), "--protocol", "udp", *QUICK,
                      "--duration", "0.3", *words, **options)
        run.expect(6)
        text = run.errors()
        assert text.startswith("replay_receiver: ")
        return text

    return check


@pytest.mark.parametrize("words", [(), AS_UDP, ("--preload", "1"), ("--plan",)])
def test_a_source_that_is_missing_cannot_be_read(cannot_read, tmp_path, words):
    path = tmp_path / "missing"
    assert str(path) in cannot_read("--filepath", path, *words)


@pytest.mark.parametrize("words", [(), ("--preload", "1"), ("--plan",)])
def test_a_source_without_permission_cannot_be_read(
    cannot_read, tmp_path, data_file, as_nobody, words
):
    tmp_path.chmod(0o755)
    path = data_file(DATA)
    path.chmod(0)
    told = cannot_read("--filepath", path, *words, json=False, **as_nobody)
    assert str(path) in told and "ermission" in told


@pytest.mark.parametrize("words", [(), ("--preload", "1"), ("--plan",)])
def test_a_source_that_is_no_capture_cannot_be_read(cannot_read, data_file, words):
    path = data_file(b"this is a text of more than 24 bytes")
    assert str(path) in cannot_read("--filepath", path, *AS_UDP, *words)


@pytest.mark.parametrize("words", [(), ("--plan",)])
def test_a_folder_without_files_cannot_be_read(cannot_read, source, words):
    path = source({})
    assert str(path) in cannot_read("--filepath", path, *words)


@pytest.mark.parametrize("words", [(), ("--plan",)])
def test_a_device_file_is_no_source(cannot_read, words):
    assert "/dev/null" in cannot_read("--filepath", "/dev/null", *words)


# ---------------------------------------------------------- files to be written

WRITTEN = ("--json", "--csv", "--report", "--write")


@pytest.mark.parametrize("option", WRITTEN)
def test_a_folder_that_is_missing_is_told(receive, udp_port, tmp_path, option):
    path = tmp_path / "missing" / "file"
    run = receive("--port", str(udp_port), "--protocol", "udp", "--duration", "0.1",
                  option, path, json=False)
    run.expect(6)
    assert run.errors().startswith("replay_receiver: ")
    assert str(path) in run.errors()


@pytest.mark.parametrize("protocol", PROTOCOLS)
@pytest.mark.parametrize("option", WRITTEN)
def test_a_full_disk_is_told(both, data_file, option, protocol):
    run = both("--filepath", data_file(DATA), protocol=protocol, json=False,
               receiver=(option, "/dev/full"))
    run.expect(6)
    assert "/dev/full" in run.errors()
    assert os.strerror(errno.ENOSPC) in run.errors()


@pytest.mark.parametrize("option", WRITTEN)
@pytest.mark.parametrize("name", ["", "f1"], ids=["a file", "a file of a folder"])
def test_a_recording_is_never_written_over(receive, udp_port, source, name, option):
    path = source({name: DATA} if name else DATA)
    run = receive("--filepath", path, "--port", str(udp_port), "--protocol", "udp",
                  "--duration", "0.1", option, path / name, json=False)
    run.expect_refusal(2)
    assert (path / name).read_bytes() == DATA


def test_a_plan_that_cannot_be_written_is_told(receive, data_file):
    run = receive("--filepath", data_file(DATA), "--plan", "--json", "/dev/full",
                  json=False)
    run.expect(6)
    assert "/dev/full" in run.errors()


# --------------------------------------------------------------- what is written


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_json_on_standard_output_stands_alone(both, data_file, protocol):
    run = both("--filepath", data_file(DATA), protocol=protocol, json=False,
               receiver=("--json", "-"))
    run.expect(0)
    (run.json_path).write_text(run.output())
    result = run.result  # would not parse with anything around it
    assert result["exit_status"] == 0 and result.matched == totals(pieces(DATA))
    assert run.output().endswith("}\n")


def test_the_json_repeats_what_the_run_was_about(both, data_file):
    path = data_file(DATA)
    run = both("--filepath", path)
    result = run.expect(0)
    assert result["protocol"] == "tcp"
    assert result["source"] == str(path)
    assert result["address"] == run.sender.address
    assert str(path) in result["command"]
    assert result["problems"] == []
    assert result.verified["attempted"] is True


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_the_json_tells_what_the_source_gives_in_all(both, data_file, protocol):
    result = both("--filepath", data_file(DATA), protocol=protocol).expect(0)
    assert result.expected == (3, 25000)


def test_the_json_has_the_programs_status_when_another_file_fails(receive, udp_port):
    run = receive("--port", str(udp_port), "--protocol", "udp", "--duration", "0.1",
                  "--csv", "/dev/full")
    assert run.wait() == 6
    assert run.result["exit_status"] == 6
    assert any("/dev/full" in problem for problem in run.result["problems"])


def test_the_json_tells_of_a_failed_connection(receive, port, data_file):
    run = receive("--filepath", data_file(DATA), "--port", str(port),
                  "--connect-timeout", "0")
    assert run.wait() == 3
    assert run.result["exit_status"] == 3
    assert run.result["problems"]


def test_the_json_tells_of_a_source_that_is_missing(receive, tmp_path):
    run = receive("--filepath", tmp_path / "missing", "--connect-timeout", "0")
    assert run.wait() == 6
    assert run.result["exit_status"] == 6
    assert run.result["problems"]


def test_the_summary_tells_the_totals(both, data_file):
    run = both("--filepath", data_file(DATA))
    run.expect(0)
    assert re.search(r"\b25[,' _]?000\b", run.output())
    assert re.search(r"\b3\b", run.output())
    assert max(map(len, run.output().splitlines())) <= 80


@pytest.mark.parametrize("protocol", PROTOCOLS)
def test_the_slices_add_up_to_the_totals(both, source, tmp_path, protocol):
    messages = [bytes(100 + number % 700) for number in range(2000)]
    path = source(build.pcap(map(build.udp, messages)))
    slices = tmp_path / "slices.csv"
    run = both("--filepath", path, *AS_UDP, "--mbps", "10", protocol=protocol,
               receiver=("--csv", slices, "--tolerance", "1000"))
    result = run.expect(0)
    header, *lines = slices.read_text().splitlines()
    assert header == "time_s,messages,bytes,mbps"
    rows = [line.split(",") for line in lines]
    assert sum(int(row[1]) for row in rows) == 2000
    assert sum(int(row[2]) for row in rows) == sum(map(len, messages))
    times = [float(row[0]) for row in rows]
    assert times[0] == 0 and len(times) > 1
    width = times[1]
    assert times == pytest.approx([width * n for n in range(len(times))])
    assert times[-1] <= result.measured["duration_ns"] / 1e9 < times[-1] + width * 1.01
    for row in rows:
        rate = int(row[2]) * 8 / width / 1e6
        assert float(row[3]) == pytest.approx(rate, rel=0.01, abs=0.01)
    intervals = result.measured["intervals"]
    assert [(i["messages"], i["bytes"]) for i in intervals] == [
        (int(row[1]), int(row[2])) for row in rows
    ]


def test_a_report_is_one_page_that_needs_nothing_else(both, data_file, tmp_path):
    page = tmp_path / "report.html"
    both("--filepath", data_file(DATA), receiver=("--report", page)).expect(0)
    text = page.read_text()
    assert text.lower().startswith("<!doctype html>")
    assert text.rstrip().endswith("</html>")
    assert not re.search(r"(src|href)\s*=\s*[\"']?(https?:)?//", text)
    assert not re.search(r"<link[^>]+stylesheet|<script[^>]+src", text)


def test_names_in_a_report_cannot_change_the_page(both, tmp_path):
    path = tmp_path / "<b>&amp;'\"<script>"
    path.write_bytes(DATA)
    page = tmp_path / "report.html"
    both("--filepath", path, receiver=("--report", page)).expect(0)
    assert "<b>&amp;'" not in page.read_text()


@pytest.mark.parametrize("existing", [False, True])
def test_a_kept_stream_is_the_source(both, data_file, tmp_path, existing):
    kept = tmp_path / "kept"
    if existing:
        kept.write_bytes(b"older" * 100000)
    data = random_bytes(3 * 1024 * 1024 + 1)
    both("--filepath", data_file(data), receiver=("--write", kept)).expect(0)
    assert kept.read_bytes() == data


def test_a_kept_stream_holds_what_came_not_what_should_have_come(
    receive, serve, tcp_relay, data_file, tmp_path
):
    sender = serve(data_file(DATA))
    between = tcp_relay(sender.port, relay.altered(100, 1), relay.dropped(5000, 10))
    kept = tmp_path / "kept"
    run = receive("--filepath", data_file(DATA), "--port", str(between.port), *QUICK,
                  "--write", kept)
    run.expect(1)
    spoilt = bytes([DATA[100] ^ 0xFF])
    assert kept.read_bytes() == DATA[:100] + spoilt + DATA[101:5000] + DATA[5010:]


ODD_DATAGRAMS = [b"one", b"", b"\0" * 1472, random_bytes(10240), random_bytes(65507)]


@pytest.fixture
def kept_datagrams(receive, udp_port, speaker, tmp_path):
    """A capture that was written of odd datagrams, with the time around it."""
    kept = tmp_path / "kept.pcap"
    run = receive("--port", str(udp_port), "--protocol", "udp", *QUICK, "--write", kept)
    run.wait_until_bound(udp_port)
    begun = time.time_ns()
    speaker.say(udp_port, *ODD_DATAGRAMS)
    run.expect(0, "idle")
    return kept, begun, time.time_ns()


def test_kept_datagrams_are_framed_with_the_real_addresses(
    kept_datagrams, speaker, udp_port
):
    kept, begun, ended = kept_datagrams
    records = read_capture(kept)
    frames = [read_frame(frame) for _, frame in records]
    assert_same([payload for _, _, payload in frames], ODD_DATAGRAMS)
    assert {sent for sent, _, _ in frames} == {(LOCALHOST, speaker.port)}
    assert {to for _, to, _ in frames} == {(LOCALHOST, udp_port)}
    stamps = [stamp for stamp, _ in records]
    assert stamps == sorted(stamps)
    assert begun <= stamps[0] and stamps[-1] <= ended
    assert any(stamp % 1000 for stamp in stamps)  # nanoseconds, not microseconds


def test_tcpdump_opens_kept_datagrams(kept_datagrams, speaker, udp_port):
    if shutil.which("tcpdump") is None:
        pytest.skip("tcpdump is not installed")
    kept, _, _ = kept_datagrams
    ended = subprocess.run(
        ["tcpdump", "-r", kept, "-n", "-v", "--nano"], capture_output=True, text=True
    )
    assert ended.returncode == 0
    flow = f"{LOCALHOST}.{speaker.port} > {LOCALHOST}.{udp_port}"
    assert ended.stdout.count(flow) == len(ODD_DATAGRAMS)
    for datagram in ODD_DATAGRAMS:
        assert f"length {len(datagram)}\n" in ended.stdout
    assert "bad" not in ended.stdout and "trunc" not in ended.stdout


def test_a_kept_replay_replays_the_same(
    both, source, make_receiver, start, tmp_path
):
    messages = [random_bytes(1 + number * 31 % 1400, number) for number in range(200)]
    messages.append(random_bytes(10240))
    path = source(build.pcap(map(build.udp, messages)))
    kept = tmp_path / "kept.pcap"
    run = both("--filepath", path, *AS_UDP, protocol="udp", receiver=("--write", kept))
    run.expect(0)
    again = make_receiver()
    start("--filepath", kept, *AS_UDP, "--protocol", "udp", "--port", str(again.port))
    assert_same(again.receive(len(messages)), messages)


def test_a_kept_replay_is_a_source_for_both_programs(both, source, tmp_path):
    messages = [random_bytes(1 + number * 31 % 1400, number) for number in range(50)]
    path = source(build.pcap(map(build.udp, messages)))
    kept = tmp_path / "kept.pcap"
    line = (*AS_UDP, "--loopback", "2")
    run = both("--filepath", path, *line, protocol="udp", receiver=("--write", kept))
    run.expect(0)
    result = both("--filepath", kept, *AS_UDP, protocol="tcp").expect(0, "complete")
    assert result.matched == totals(messages * 2)


# ------------------------------------------------------------------- the progress


class Terminal:
    """A terminal of 100 columns that keeps all that is written to it."""

    def __init__(self):
        ours, self.end = pty.openpty()
        size = struct.pack("HHHH", 30, 100, 0, 0)
        fcntl.ioctl(self.end, termios.TIOCSWINSZ, size)
        self._text = b""
        self._reader = threading.Thread(target=self._read, args=(ours,))
        self._reader.start()

    def _read(self, ours):
        with contextlib.suppress(OSError):  # given when the last writer is gone
            while chunk := os.read(ours, 65536):
                self._text += chunk
        os.close(ours)

    def text(self):
        """All of it, once no program has the terminal any more."""
        if self.end is not None:
            os.close(self.end)
            self.end = None
        self._reader.join(DEADLINE)
        return self._text.decode()


@pytest.fixture
def terminal(receive):
    one = Terminal()
    yield one
    one.text()


def screen_lines(text, columns=100):
    """What such a terminal shows in the end."""
    lines, at = [[]], 0
    for part in re.findall(r"\x1b\[[0-9;?]*[A-Za-z]|[^\x1b]", text):
        if part == "\r":
            at = 0
        elif part == "\n":
            lines.append([])
        elif part in ("\x1b[K", "\x1b[0K"):
            del lines[-1][at:]
        elif part == "\x1b[2K":
            lines[-1] = []
        elif not part.startswith("\x1b"):
            line = lines[-1]
            line += [" "] * (at + 1 - len(line))
            line[at] = part
            at += 1
            assert at <= columns, "the line does not fit the terminal"
    return ["".join(line).rstrip() for line in lines]


SLOW = ("--mbps", "3", "--loopback", "16")  # 1.1 s
LOOSE = ("--tolerance", "1000")


def test_progress_shows_on_a_terminal_and_is_wiped_at_the_end(
    both, data_file, terminal
):
    line = ("--filepath", data_file(DATA), *SLOW)
    run = both(*line, receiver=LOOSE, stderr=terminal.end)
    run.expect(0, "complete")
    text = terminal.text()
    shares = [int(share) for share in re.findall(r"(\d+)(?:\.\d+)? ?%", text)]
    assert shares == sorted(shares) and shares[0] < 60 and shares[-1] <= 100
    assert len(set(shares)) > 2
    assert not any(screen_lines(text))


def test_progress_of_an_endless_replay_shows_no_share(both, data_file, terminal):
    line = ("--filepath", data_file(DATA), "--mbps", "2.4", "--loopback", "0")
    own = ("--duration", "1.2", *LOOSE)
    both(*line, receiver=own, stderr=terminal.end).expect(0, "duration")
    text = terminal.text()
    assert text and "%" not in text
    assert not any(screen_lines(text))


def test_no_progress_goes_where_no_terminal_is(both, data_file):
    run = both("--filepath", data_file(DATA), *SLOW, receiver=LOOSE)
    run.expect(0, "complete")
    assert run.errors() == ""


def test_progress_can_be_had_without_a_terminal(both, data_file):
    run = both("--filepath", data_file(DATA), *SLOW,
               receiver=(*LOOSE, "--progress", "always"))
    run.expect(0, "complete")
    assert "%" in run.errors()


def test_progress_can_be_switched_off_on_a_terminal(both, data_file, terminal):
    own = (*LOOSE, "--progress", "never")
    run = both("--filepath", data_file(DATA), *SLOW, receiver=own, stderr=terminal.end)
    run.expect(0, "complete")
    assert terminal.text() == ""


# ----------------------------------------------------------------- wrong use

NEEDS_VALUE = (
    "--ip --port --filepath --filetype --filter --loopback --mbps --protocol --device "
    "--preload --debug --connect-timeout --rcvbuf --window --tolerance --settle --idle "
    "--duration --messages --bytes --progress --json --csv --report --write"
).split()
FLAGS = ("--help", "--version", "--plan")


@pytest.mark.parametrize("option", NEEDS_VALUE)
def test_an_option_without_its_value_is_wrong_use(receive, option):
    receive("--loopback", "2", option, json=False).expect_refusal(2, option)


@pytest.mark.parametrize("word", ["--bogus", "stray", "--file", "-x"])
def test_a_word_that_is_no_option_is_wrong_use(receive, word):
    receive(word, json=False).expect_refusal(2, word, "--help")


@pytest.mark.parametrize(
    "option, value",
    [
        ("--port", "abc"),
        ("--filetype", "2"),
        ("--filetype", "x"),
        ("--loopback", "x"),
        ("--mbps", "fast"),
        ("--connect-timeout", "x"),
        ("--connect-timeout", "-1"),
        ("--rcvbuf", "12Q"),
        ("--rcvbuf", "-5"),
        ("--rcvbuf", ""),
        ("--window", "0"),
        ("--window", "1.5"),
        ("--tolerance", "-1"),
        ("--tolerance", "nan"),
        ("--settle", "-1"),
        ("--idle", "soon"),
        ("--idle", "-2"),
        ("--duration", "-1"),
        ("--messages", "-1"),
        ("--messages", "1x"),
        ("--messages", "99999999999999999999"),
        ("--bytes", "x"),
        ("--progress", "sometimes"),
    ],
)
def test_a_value_that_cannot_be_is_wrong_use(receive, option, value):
    words = ("--connect-timeout", "0", option, value)
    receive(*words, json=False).expect_refusal(2, option)


def test_captures_without_a_filter_are_wrong_use(receive, data_file):
    path = data_file(build.pcap([]))
    words = ("--filepath", path, "--filetype", "1")
    receive(*words, json=False).expect_refusal(2, "--filter")


@pytest.mark.parametrize("filter", ["port 5000", " ", "udp\tand port 5000", "(udp)"])
def test_a_filter_that_names_no_transport_is_wrong_use(receive, data_file, filter):
    words = ("--filepath", data_file(build.pcap([])), "--filetype", "1")
    text = receive(*words, "--filter", filter, json=False).expect_refusal(2, "--filter")
    assert "tcp" in text and "udp" in text


def test_a_plan_without_a_source_is_wrong_use(receive):
    receive("--plan", json=False).expect_refusal(2, "--plan", "--filepath")


@pytest.mark.parametrize("ip", ["nonsense", ""])
def test_an_address_that_is_none_is_refused(receive, ip):
    run = receive("--ip", ip, "--connect-timeout", "0.2", json=False)
    assert run.wait() in (2, 3)
    assert run.output() == ""
    assert run.errors().startswith("replay_receiver: ")


# --------------------------------------------------------------------- the help


@pytest.mark.parametrize("word", ["--help", "-h", "--HELP"])
def test_help_names_every_option(receive, word):
    run = receive(word, json=False)
    run.expect(0)
    assert run.errors() == ""
    text = run.output()
    for option in (*NEEDS_VALUE, *FLAGS):
        assert re.search(rf"{option}\b(?!-)", text), option
    # Defaults that a reader wants to know.
    for value in ("9089", "127.0.0.1", "4096", "0.5"):
        assert value in text


def test_the_version_is_told(receive):
    run = receive("--version", json=False)
    run.expect(0)
    assert re.search(r"\d+\.\d+\.\d+", run.output()) and run.errors() == ""
