"""Captures over both transports: which payloads go out, in which order, with every
option, and how captures and filters that cannot be used end."""

import os
import random
import shutil
import signal
import struct
import subprocess

import pytest

import capture_builder as build
from conftest import LOCALHOST, debug_dump, echo, random_bytes, uncaught
from udp_receiver import (  # noqa: F401: most of these are fixtures
    make_receiver,
    receiver,
    replay,
    sends,
    tcp_stream,
    udp_echo,
    witness,
)

CAPTURE = ("--filetype", "1", "--filter")


def reading(path, link_type="EN10MB Ethernet"):
    """The line by which a capture is described."""
    return (
        f"reading from file: {path}, link-type {link_type}, snapshot lengthL: 262144\n"
    )


def libpcaps_words(*words):
    """What libpcap says, as told by another program that uses it."""
    if shutil.which("tcpdump") is None:
        pytest.skip("tcpdump is not installed")
    ended = subprocess.run(["tcpdump", *words], capture_output=True, text=True)
    return ended.stderr.splitlines()[-1].removeprefix("tcpdump: ")


@pytest.fixture
def capture(tmp_path):
    """capture(frames, name=, **format) is the path of a new capture of these."""

    def create(frames, name="a.pcap", **options):
        path = tmp_path / name
        path.write_bytes(build.pcap(frames, **options))
        return path

    return create


@pytest.fixture
def captures(tmp_path):
    """captures(name=bytes, ...) is a directory with these captures."""

    def create(**contents):
        path = tmp_path / "captures"
        path.mkdir()
        for name, data in contents.items():
            (path / name).write_bytes(data)
        return path

    return create


@pytest.fixture
def replays(sends):
    """Like `sends`, for a capture under this filter."""

    def check(path, filter, expected, *words, output=None, **settings):
        sends(
            path,
            expected,
            *CAPTURE,
            filter,
            *words,
            output=reading(path) if output is None else output,
            filetype=1,
            filter=filter,
            **settings,
        )

    return check


# ---------------------------------------- sources and transports, every option

TCP_FRAMES = [
    build.tcp(b"A" * 100),
    build.tcp(b""),
    build.udp(b"another transport"),
    build.tcp(b"B" * 1400, tcp_options=bytes(12)),
    build.tcp(b"C"),
]
UDP_FRAMES = [
    build.udp(b"A" * 100),
    build.udp(b""),
    build.tcp(b"another transport"),
    build.udp(b"B" * 1400, ip_options=b"\1\1\1\1"),
    build.udp(b"C"),
]
DATA = random_bytes(21000)

# Source: path's content, words, echo settings, messages, messages from memory.
ABC = [b"A" * 100, b"B" * 1400, b"C"]
SOURCES = {
    "data": (DATA, (), {}, [DATA[:10240], DATA[10240:20480], DATA[20480:]], None),
    "tcp-capture": (
        build.pcap(TCP_FRAMES),
        (*CAPTURE, "tcp"),
        {"filetype": 1, "filter": "tcp"},
        ABC,
        ABC,
    ),
    # From memory a capture is always read as TCP.
    "udp-capture": (
        build.pcap(UDP_FRAMES),
        (*CAPTURE, "udp"),
        {"filetype": 1, "filter": "udp"},
        ABC,
        [b"another transport"],
    ),
}
OPTIONS = {
    "plain": {},
    "passes": {"loopback": 3},
    "rate": {"mbps": 80},
    "preload": {"preload": True},
    "debug": {"debug": True},
    "device": {"device": "lo"},
    "all": {"loopback": 2, "mbps": 80, "preload": True, "debug": True, "device": "lo"},
}


class Expectation:
    """Words, messages and texts of one source under these options."""

    def __init__(
        self, path, source,
        loopback=1, mbps=0, preload=False, debug=False, device="",
    ):
        _, words, self.settings, messages, loaded = SOURCES[source]
        if preload:
            messages = (loaded or messages)[::-1]
        self.messages = messages * loopback
        self.words = list(words) + ["--loopback", str(loopback), "--mbps", str(mbps)]
        self.words += ["--preload", str(int(preload)), "--debug", str(int(debug))]
        self.words += ["--device", device]
        self.settings = dict(
            self.settings, loopback=loopback, in_speed=mbps * 1_000_000, device=device
        )
        # From memory the capture is opened once, else in every pass.
        openings = 0 if source == "data" else 1 if preload else loopback
        self.output = reading(path) * openings
        self.output += debug_dump(self.messages) if debug else ""


@pytest.mark.parametrize("option", OPTIONS)
@pytest.mark.parametrize("source", SOURCES)
def test_every_source_and_option_over_udp(sends, tmp_path, source, option):
    path = tmp_path / "source"
    path.write_bytes(SOURCES[source][0])
    expected = Expectation(path, source, **OPTIONS[option])
    sends(
        path, expected.messages, *expected.words,
        output=expected.output, **expected.settings,
    )


@pytest.mark.parametrize("option", OPTIONS)
@pytest.mark.parametrize("source", SOURCES)
def test_every_source_and_option_over_tcp(serve, connect, tmp_path, source, option):
    path = tmp_path / "source"
    path.write_bytes(SOURCES[source][0])
    expected = Expectation(path, source, **OPTIONS[option])
    sender = serve(path, *expected.words)
    stream = b"".join(expected.messages)
    receiver = connect(sender)
    assert receiver.read_exactly(len(stream)) == stream
    sender.wait_for_progress()
    sender.stop()
    assert receiver.read_to_end() == b""
    sender.expect(0, echo(path, sender.address, **expected.settings) + expected.output)


# ------------------------------------------------------------------- formats


@pytest.mark.parametrize("nanoseconds", [False, True])
@pytest.mark.parametrize("big_endian", [False, True])
def test_every_pcap_format_is_read(replays, capture, big_endian, nanoseconds):
    frames = [build.udp(b"one"), build.udp(b"two")]
    path = capture(frames, big_endian=big_endian, nanoseconds=nanoseconds)
    replays(path, "udp", build.payloads(frames))


@pytest.mark.parametrize("big_endian", [False, True])
def test_pcapng_is_read(replays, data_file, big_endian):
    frames = [build.udp(b"one"), build.udp(b"two")]
    path = data_file(build.pcapng(frames, big_endian=big_endian), "a.pcapng")
    replays(path, "udp", build.payloads(frames))


# ------------------------------------------------------- filters and the cut


def test_only_frames_that_pass_the_filter_are_sent(replays, capture):
    frames = [build.udp(b"wanted", port=5000), build.udp(b"other", port=5001)]
    replays(capture(frames), "udp and port 5000", [b"wanted"])


def test_the_filter_is_shown_as_given_and_used_trimmed(replays, capture):
    replays(capture([build.udp(b"data")]), " udp\n", [b"data"])


def test_padding_and_ipv6_frames_go_out_as_they_are_cut(replays, capture):
    padded = build.udp(b"ab", padding=bytes(16))
    ipv6 = build.udp_ipv6(b"data")
    expected = [b"ab" + bytes(16), ipv6.data[22:]]
    replays(capture([padded, ipv6]), "udp", expected)


def test_an_incomplete_last_record_is_the_end(replays, data_file):
    whole = build.pcap([build.udp(b"one"), build.udp(b"two")])
    replays(data_file(whole[:-1], "a.pcap"), "udp", [b"one"])


def test_a_payload_of_10240_bytes_is_one_datagram(replays, capture):
    payload = random_bytes(10240)
    replays(capture([build.udp(payload)]), "udp", [payload])


def test_longer_payloads_are_sent_in_pieces_and_counted(replays, capture):
    long, longer = random_bytes(10241), random_bytes(30000, seed=2)
    path = capture([build.udp(long), build.udp(longer), build.udp(b"next")])
    expected = [long[:10240], long[10240:]]
    expected += [longer[:10240], longer[10240:20480], longer[20480:], b"next"]
    replays(
        path,
        "udp",
        expected,
        errors=f"{path}: 0 frame(s) shorter than their headers, "
        "2 payload(s) longer than 10240 bytes\n",
    )


def test_frames_shorter_than_their_headers_send_nothing_and_are_counted(
    replays, capture
):
    whole = build.udp(b"data")
    frames = [whole.truncated(41), whole, whole.truncated(24), whole.truncated(44)]
    path = capture(frames)
    replays(
        path,
        "udp",
        [b"data", b"da"],
        errors=f"{path}: 2 frame(s) shorter than their headers, "
        "0 payload(s) longer than 10240 bytes\n",
    )


def test_odd_frames_are_counted_in_every_pass(replays, capture):
    path = capture([build.udp(b"data"), build.udp(b"").truncated(41)])
    count = f"{path}: 1 frame(s) shorter than their headers, "
    count += "0 payload(s) longer than 10240 bytes\n"
    replays(
        path, "udp", [b"data"] * 2, "--loopback", "2",
        output=reading(path) * 2, errors=count * 2, loopback=2,
    )


# --------------------------------------------------- directories and preload


def test_a_directory_of_captures_is_sent_in_version_order(replays, captures):
    path = captures(
        c10=build.pcap([build.udp(b"ten")]),
        c2=build.pcap([build.udp(b"two"), build.udp(b"more")]),
        c1=build.pcap([build.udp(b"one")]),
    )
    described = "".join(reading(f"{path}/{name}") for name in ("c1", "c2", "c10"))
    replays(path, "udp", [b"one", b"two", b"more", b"ten"], output=described)


def test_a_capture_whose_filter_does_not_compile_is_skipped(replays, captures):
    # Right for the first and the third link type, not for the second.
    filter = "udp and ether dst 02:00:00:00:00:02"
    path = captures(
        f1=build.pcap([build.udp(b"one")]),
        f2=build.pcap([build.udp(b"two")], link_type=build.RAW_IP),
        f3=build.pcap([build.udp(b"three")]),
    )
    described = reading(f"{path}/f1") + reading(f"{path}/f2", "RAW Raw IP")
    described += reading(f"{path}/f3")
    reason = libpcaps_words("-r", f"{path}/f2", "-d", filter)
    replays(
        path, filter, [b"one", b"three"],
        output=described, errors=f"compile fileter failed! {reason}\n",
    )


def test_an_unnamed_link_type_shows_its_number_and_is_skipped(replays, captures):
    path = captures(
        f1=build.pcap([build.udp(b"one")], link_type=build.UNNAMED),
        f2=build.pcap([build.udp(b"two")]),
    )
    reason = libpcaps_words("-r", f"{path}/f1", "-d", "udp")
    replays(
        path, "udp", [b"two"],
        output=reading(f"{path}/f1", "147") + reading(f"{path}/f2"),
        errors=f"compile fileter failed! {reason}\n",
    )


def test_an_upper_case_transport_is_accepted_but_does_not_compile(replays, capture):
    path = capture([build.udp(b"data")])
    reason = libpcaps_words("-r", path, "-d", "UDP and port 5000")
    replays(
        path, "UDP and port 5000", [], errors=f"compile fileter failed! {reason}\n"
    )


def test_from_memory_the_filter_of_the_command_line_does_not_count(replays, capture):
    frames = [build.tcp(b"one"), build.udp(b"another transport"), build.tcp(b"two")]
    replays(capture(frames), "udp and port 1", [b"two", b"one"], "--preload", "1")


def test_from_memory_udp_frames_send_nothing(replays, capture):
    replays(capture([build.udp(b"data")]), "udp", [], "--preload", "1")


def test_from_memory_a_directory_of_two_captures_sends_nothing(replays, captures):
    path = captures(
        f1=build.pcap([build.tcp(b"one")]), f2=build.pcap([build.tcp(b"two")])
    )
    replays(path, "tcp", [], "--preload", "1", output="")


def test_from_memory_a_capture_that_cannot_be_filtered_is_read_whole(replays, capture):
    path = capture([build.tcp(b"one"), build.tcp(b"two")], link_type=build.UNNAMED)
    reason = libpcaps_words("-r", path, "-d", "tcp")
    replays(
        path, "udp", [b"two", b"one"], "--preload", "1",
        output=reading(path, "147"), errors=f"compile fileter failed! {reason}\n",
    )


def test_zero_passes_go_on_until_the_stop(replay, receiver, udp_echo, capture):
    path = capture([build.udp(b"one"), build.udp(b"two")])
    sender = replay(path, *CAPTURE, "udp", "--loopback", "0", "--mbps", "0.1")
    assert receiver.receive(100) == [b"one", b"two"] * 50
    assert sender.stop() == 0
    head = udp_echo(path, filetype=1, filter="udp", loopback=0, in_speed=100000)
    output = sender.output().removeprefix(head)
    openings = len(output) // len(reading(path))
    assert openings >= 50 and output == reading(path) * openings
    assert sender.errors() == ""


# ------------------------------------------------------------------- failures


@pytest.fixture
def refuses(start):
    """Runs the path and expects the end by an uncaught error."""

    def check(path, message, *words, filter="udp", output=""):
        start(
            "--filepath", path, "--port", "9", "--protocol", "udp",
            *CAPTURE, filter, *words,
        ).expect(
            -signal.SIGABRT,
            echo(path, f"{LOCALHOST}:9", filetype=1, filter=filter, protocol="udp")
            + output,
            uncaught(message),
        )

    return check


def test_a_missing_capture_is_reported_without_its_name(refuses, tmp_path):
    refuses(tmp_path / "missing", "Cannot find file ")


def test_a_directory_without_files_is_named(refuses, captures):
    path = captures()
    refuses(path, f"No files in dir {path}/")


def test_a_device_file_is_not_supported(refuses):
    refuses("/dev/null", "Not support file type.")


@pytest.mark.parametrize("words", [(), ("--preload", "1")])
def test_a_file_that_is_no_capture_is_reported(refuses, data_file, words):
    path = data_file(b"this is a text of more than 24 bytes")
    reason = libpcaps_words("-r", path)
    refuses(path, f"Open pcap file failed! Error message: {reason}", *words)


@pytest.mark.parametrize("filter", ["port 5000", " ", "udp\tand port 5000"])
def test_a_filter_that_names_no_transport_is_refused(refuses, capture, filter):
    message = "Please specify the protocol type: tcp or udp!"
    refuses(capture([]), message, filter=filter)


@pytest.mark.parametrize("wire", [0, 262145])
def test_an_invalid_frame_ends_the_program(
    replay, receiver, udp_echo, capture, wire
):
    path = capture([build.udp(b"good"), build.udp(b"bad").claiming(wire=wire)])
    sender = replay(path, *CAPTURE, "udp")
    sender.expect(
        -signal.SIGABRT,
        udp_echo(path, filetype=1, filter="udp") + reading(path),
        uncaught("safe_pcap_next ERROR: Invalid packet length."),
    )
    # The payload before it may have left or not: that is a matter of timing.
    assert receiver.is_quiet() or receiver.receive(1) == [b"good"]
    assert receiver.is_quiet()


def test_an_invalid_frame_ends_the_program_while_preloading(refuses, capture):
    path = capture([build.tcp(b"bad").claiming(wire=262145)])
    message = "safe_pcap_next ERROR: Invalid packet length."
    refuses(path, message, "--preload", "1", output=reading(path))


def test_a_capture_over_tcp_is_opened_once_a_receiver_is_there(
    serve, connect, data_file
):
    path = data_file(b"this is a text of more than 24 bytes")
    sender = serve(path, *CAPTURE, "tcp")
    sender.wait_for_progress([sender.pid])
    assert sender.running()
    connect(sender)
    sender.expect(
        -signal.SIGABRT,
        echo(path, sender.address, filetype=1, filter="tcp"),
        uncaught("Open pcap file failed! Error message: " + libpcaps_words("-r", path)),
    )


# ------------------------------------------------------------------- a witness


def test_tcpdump_sees_the_captures_payloads_in_one_tcp_stream(
    serve, connect, capture, witness
):
    frames = [build.tcp(random_bytes(1400, seed)) for seed in range(20)]
    stream = b"".join(build.payloads(frames))
    sender = serve(capture(frames), *CAPTURE, "tcp")
    watching = witness(f"tcp and src port {sender.port}")
    receiver = connect(sender)
    assert receiver.read_exactly(len(stream)) == stream
    packets = watching.wait_for(
        lambda seen: len(tcp_stream(seen, sender.port)) >= len(stream)
    )
    assert tcp_stream(packets, sender.port) == stream


# ------------------------------------------------------------------ many frames

MANY_FRAMES = int(os.environ.get("REPLAY_MANY_FRAMES", "40000"))
MANY_RATE = int(os.environ.get("REPLAY_MANY_MBPS", "200"))


@pytest.fixture
def sink():
    """A compiled receiver: its first line is its port, then framed datagrams."""
    program = os.environ.get("REPLAY_UDP_SINK")
    if program is None:
        pytest.skip("REPLAY_UDP_SINK does not name the compiled receiver")
    process = subprocess.Popen(
        [program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=1 << 20
    )
    yield process
    process.kill()
    process.wait()


def numbered_payloads(count):
    """Payloads of 60 to 1400 bytes, each with its number in front."""
    pool = random_bytes(1 << 16)
    lengths = random.Random(7)
    for number in range(count):
        length = lengths.randrange(60, 1401)
        at = number * 31 % ((1 << 16) - 1400)
        yield struct.pack("<Q", number) + pool[at : at + length - 8]


def write_many(directory, count):
    files = 4
    payloads = numbered_payloads(count)
    for number in range(files):
        part = count // files if number < files - 1 else count - count // files * number
        frames = (build.udp(next(payloads)) for _ in range(part))
        (directory / f"part{number + 8}.pcap").write_bytes(build.pcap(frames))


def test_a_directory_of_many_frames_arrives_datagram_by_datagram(start, captures, sink):
    path = captures()
    write_many(path, MANY_FRAMES)
    port = int(sink.stdout.readline())
    sender = start(
        "--filepath", path, "--port", str(port), "--protocol", "udp",
        *CAPTURE, "udp", "--mbps", str(MANY_RATE),
    )

    for number, payload in enumerate(numbered_payloads(MANY_FRAMES)):
        expected = struct.pack("<I", len(payload)) + payload
        assert sink.stdout.read(len(expected)) == expected, f"datagram {number}"
    sender.wait_for_progress()
    sender.stop()
    sink.stdin.close()
    assert sink.stdout.read() == b""  # not one too many

    described = "".join(reading(f"{path}/part{n}.pcap") for n in (8, 9, 10, 11))
    shown = echo(
        path, f"{LOCALHOST}:{port}", filetype=1, filter="udp", protocol="udp",
        in_speed=MANY_RATE * 1_000_000,
    )
    sender.expect(0, shown + described)
