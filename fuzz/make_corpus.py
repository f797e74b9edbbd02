#!/usr/bin/env python3
"""Writes the first inputs of every fuzzing target; those that the fuzzers have found
since, which are named by their digest, stay as they are.

Usage: fuzz/make_corpus.py
The same bytes every time: the random numbers start from a fixed seed.
"""
import pathlib
import random
import sys

sys.dont_write_bytecode = True  # of a module in another folder
HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "tests" / "e2e"))

import capture_builder as build  # noqa: E402: found by the line before

UDP, TCP, EITHER, REFUSED = (bytes([i]) for i in (0, 1, 2, 6))


def write(target, name, content):
    folder = HERE / "corpus" / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(content)


def sample_frames():
    return [
        build.udp(b"datagram"),
        build.tcp(b"segment", tcp_options=bytes(12)),
        build.tcp(b""),
        build.udp(b"options", ip_options=b"\x01" * 8),
        build.udp(b"tagged", vlan=True),
        build.udp(b"short", padding=bytes(13)),
        build.udp_ipv6(b"sixth"),
        build.udp(b"cut off here").truncated(40),
        build.udp(b"cut off later").truncated(48),
    ]


def capture_bytes():
    frames = sample_frames()
    one = [build.udp(b"x" * 20)]
    captures = {
        "pcap": build.pcap(frames),
        "pcap_big_endian": build.pcap(frames, big_endian=True),
        "pcap_nanoseconds": build.pcap(frames, nanoseconds=True),
        "pcap_snapshot_64": build.pcap(frames, snapshot=64),
        "pcap_raw_ip": build.pcap(frames, link_type=build.RAW_IP),
        "pcap_unnamed_link": build.pcap(frames, link_type=build.UNNAMED),
        "pcap_without_frames": build.pcap([]),
        "pcap_half_a_header": build.pcap([])[:13],
        "pcap_half_a_frame": build.pcap(frames)[:-20],
        "pcapng": build.pcapng(frames),
        "pcapng_big_endian": build.pcapng(frames, big_endian=True),
        "pcapng_two_sections": build.pcapng(one) + build.pcapng(frames),
        "pcapng_half_a_block": build.pcapng(frames)[:-20],
        "long_payload": build.pcap([build.udp(b"abcdefgh" * 1300)]),
        "wire_0": build.pcap([one[0].claiming(wire=0)]),
        "wire_262145": build.pcap([one[0].claiming(wire=262145)]),
        "wire_below_captured": build.pcap([one[0].claiming(wire=50)]),
        "captured_0": build.pcap([build.Frame(b"", b"", wire=60)]),
        "captured_beyond_the_end": build.pcap([one[0].claiming(captured=5000, wire=5000)]),
        "captured_262145": build.pcap([one[0].claiming(captured=262145)]),
    }
    for name, content in captures.items():
        for suffix, choice in (("udp", UDP), ("tcp", TCP), ("refused", REFUSED)):
            write("capture_bytes", f"{name}.{suffix}", content + choice)
    write("capture_bytes", "pcap.either", build.pcap(frames) + EITHER)
    write("capture_bytes", "nothing", UDP)


FILTERS = [
    "udp",
    "tcp",
    "  UDP and port 5000\n",
    "tcp and dst host 10.0.0.2",
    "Udp or TCP",
    "not tcp",
    "vlan and udp",
    "udp and net 10.0.0.0/8",
    "tcp and net 10.0.0.0 mask 255.0.0.0",
    "tcp and tcp[tcpflags] & (tcp-syn|tcp-fin) != 0",
    "ip6 and udp port 5000",
    "udp portrange 5000-6000 and greater 20",
    "ether src 02:00:00:00:00:01 and udp",
    "ip proto \\udp or udp",
    "( udp",
    "udp and host example.com",
    "udp and port http",
    "udp and len > 0xffffffff",
    "ip broadcast or udp and ip multicast",
    "ip protochain 17 and udp",
    "port 5000",
    "(udp)",
    "\tudp",
    "not\tudp",
    "udp\tor tcp",
    "",
]

ENDPOINTS = [
    "127.0.0.1:9089", "0.0.0.0:0", "127.0.0.1:65536", "127.0.0.1:70000", "127.0.0.1:",
    "127.0.0.1:5000abc", "a.b.c.d:1:2", ":5000", "239.1.1.1:5000", "240.0.0.1:5000",
    "223.255.255.255:5000", "255.255.255.255:1", "*:5000", "*:*", "127.0.0.1:*",
    "0177.0.0.1:1", "0x7f.1:1", "2130706433:1", "1.2.3.4 :1", "1.2.3.4: +7",
    "1.2.3.4:-1", "1.2.3.4:9223372036854775808", "localhost:80", "[::1]:80", "no colon", "",
]  # fmt: skip

# The words of a command line, parted by line ends, without the program's name.
BOTH = [
    "--filepath day.dat",
    "--filepath day.dat --mbps 1.5 --loopback 0 --preload 1",
    "--filepath day.pcap --filetype 1 --filter udp --protocol udp --ip 239.1.1.1 --port 5000",
    "--FilePath a --PROTOCOL UDP --device eth0 --debug 1 --debug 0",
    "--filepath a --port 70000",
    "--filepath a --port -1 --loopback -1",
    "--filepath a --mbps -1",
    "--filepath a --mbps 1e300",
    "--filepath a --mbps 18446744073709.5",
    "--filepath a --mbps nan",
    "--filepath a --filetype 1",
    "--filepath a --filetype 2",
    "--filepath a --bogus",
    "--filepath a --port",
    "--filepath a --protocol sctp --preload 2",
    "--filepath a -h",
    "--HELP",
    "",
]
RECEIVER = [
    "--version",
    "--plan --filepath a",
    "--plan",
    "--filepath a --rcvbuf 64M --window 1 --tolerance 0",
    "--connect-timeout 0 --settle 0 --idle 0.5 --duration 3 --messages 7 --bytes 8k",
    "--json - --csv a --report b --write c --progress never",
    "--json a --csv a",
    "--write -",
    "--window 0",
    "--ip localhost",
    "--idle 0",
    "--rcvbuf 99999999999999999999",
    "--filepath=it's",
    "--port 007 --mbps 007",
    "--filepath a --preload 4294967297",
]


def texts():
    for number, text in enumerate(FILTERS):
        write("filter_text", f"{number:02}", text.encode())
    for number, text in enumerate(ENDPOINTS):
        write("endpoint_text", f"{number:02}", text.encode())
    for target, lines in (("sender_words", BOTH), ("receiver_options", BOTH + RECEIVER)):
        for number, line in enumerate(lines):
            words = "\n".join(["/usr/bin/replay", *line.split()])
            write(target, f"{number:02}", words.encode())


def decisions():
    """Where the bytes of an input are decisions, any bytes do."""
    source = random.Random(1)
    for target in ("capture_frames", "data_file", "data_folder"):
        for number in range(16):
            write(target, f"{number:02}", source.randbytes(8 * (number + 1)))


# The verifiers' inputs tell what arrives step by step, as their targets read them.
WHOLE, LOST, AGAIN, ALTERED, TRUNCATED, ANYWHERE, STRANGER = 0, 2, 3, 4, 5, 6, 7


def messages(count):
    """All different, 20 to 20 + count bytes each."""
    drawn = [bytes([19 + number, 2, number]) for number in range(count)]
    return bytes([0, 0, count]) + b"".join(drawn)


def datagrams(name, *steps):
    """Twelve messages and a wide window; a step is a number below 8 and what it does."""
    told = b"".join(bytes(step) for step in steps)
    content = bytes([1, 0]) + messages(12) + bytes([len(steps)]) + told + b"\x01"
    write("datagram_verifier", name, content)


def stream(name, *steps):
    """Twelve messages; a step is a number of bytes, up to 80, and what it does."""
    told = b"".join(bytes([0, *step]) for step in steps)
    cuts = bytes([0, 9, 1, 0, 0, 7])  # of up to ten bytes, everything kept
    content = b"\x01" + cuts + messages(12) + bytes([len(steps)]) + told + b"\x01"
    write("stream_verifier", name, content)


def verifiers():
    stranger = (0, STRANGER, 30, 2, 200)
    datagrams("identical")
    datagrams("lost", (3, WHOLE), (2, LOST))
    datagrams("lost_at_the_end", (7, WHOLE), (7, LOST))
    datagrams("duplicated", (3, WHOLE), (0, AGAIN), (2, AGAIN))
    datagrams("altered", (3, WHOLE), (5, ALTERED), (1, ALTERED))
    datagrams("truncated", (3, WHOLE), (5, TRUNCATED), (0, TRUNCATED))
    datagrams("late", (1, WHOLE), (1, LOST), (3, WHOLE), (0, ANYWHERE, 2))
    datagrams(
        "late_and_again", (1, WHOLE), (1, LOST), (3, WHOLE), (0, ANYWHERE, 2), (0, WHOLE),
        (0, ANYWHERE, 2),
    )  # fmt: skip
    datagrams("early_and_again", (0, ANYWHERE, 5), (1, WHOLE), (0, ANYWHERE, 5))
    datagrams("strangers", (1, WHOLE), stranger, stranger)

    stream("identical")
    stream("lost", (50, WHOLE), (30, LOST))
    stream("lost_at_the_end", (80, WHOLE), (80, LOST), (80, LOST), (80, LOST))
    stream("duplicated", (50, WHOLE), (30, AGAIN))
    stream("altered", (50, WHOLE), (30, ALTERED), (40, WHOLE), (1, ALTERED))
    stream("foreign", (50, WHOLE), (40, 6, 30, 2, 200))
    stream("late", (50, WHOLE), (40, LOST), (80, WHOLE), (40, 5, 50, 0))


if __name__ == "__main__":
    capture_bytes()
    texts()
    decisions()
    verifiers()
