"""Builds capture files frame by frame. Each frame knows the payload that is left
behind its headers, because it was put together from it."""

import dataclasses
import struct

ETHERNET = 1
RAW_IP = 101
UNNAMED = 147  # a link type for private use: libpcap has no name or filter for it


@dataclasses.dataclass
class Frame:
    """One record; the two lengths are what the record claims."""

    data: bytes
    payload: bytes
    captured: int = None
    wire: int = None

    def __post_init__(self):
        self.captured = len(self.data) if self.captured is None else self.captured
        self.wire = len(self.data) if self.wire is None else self.wire

    def truncated(self, captured):
        """The same frame as a capture with this snapshot length holds it."""
        headers = len(self.data) - len(self.payload)
        data = self.data[:captured]
        return Frame(data, data[headers:], wire=self.wire)

    def claiming(self, captured=None, wire=None):
        """The same frame under other lengths, true or not."""
        return dataclasses.replace(
            self,
            captured=self.captured if captured is None else captured,
            wire=self.wire if wire is None else wire,
        )


def ethernet(kind=0x0800, vlan=False):
    tag = struct.pack(">HH", 0x8100, 5) if vlan else b""
    return bytes.fromhex("020000000002 020000000001") + tag + struct.pack(">H", kind)


def udp_header(payload, port):
    return struct.pack(">HHHH", 40000, port, 8 + len(payload), 0)


def tcp_header(port, options):
    offset = (20 + len(options)) // 4 << 4
    fixed = struct.pack(">HHIIBBHHH", 40000, port, 1, 0, offset, 0x18, 512, 0, 0)
    return fixed + options


def ipv4(transport, content, options=b""):
    words = (20 + len(options)) // 4
    total = words * 4 + content
    fixed = struct.pack(">BBHIBBH", 0x40 | words, 0, total, 0, 64, transport, 0)
    return fixed + bytes([10, 0, 0, 1, 10, 0, 0, 2]) + options


def udp(payload, port=5000, ip_options=b"", padding=b"", vlan=False):
    header = udp_header(payload, port)
    network = ipv4(17, len(header) + len(payload), ip_options)
    sent = payload + padding
    return Frame(ethernet(vlan=vlan) + network + header + sent, sent)


def tcp(payload, port=5000, ip_options=b"", tcp_options=b""):
    header = tcp_header(port, tcp_options)
    network = ipv4(6, len(header) + len(payload), ip_options)
    return Frame(ethernet() + network + header + payload, payload)


def udp_ipv6(payload, port=5000):
    header = udp_header(payload, port)
    network = struct.pack(">IHBB", 0x60000000, len(header) + len(payload), 17, 64)
    network += b"\x11" * 32
    return Frame(ethernet(0x86DD) + network + header + payload, payload)


def pcap(
    frames, link_type=ETHERNET, big_endian=False, nanoseconds=False, snapshot=262144
):
    order = ">" if big_endian else "<"
    magic = 0xA1B23C4D if nanoseconds else 0xA1B2C3D4
    record = struct.Struct(order + "IIII")
    chunks = [struct.pack(order + "IHHIIII", magic, 2, 4, 0, 0, snapshot, link_type)]
    for frame in frames:
        chunks.append(record.pack(1600000000, 999999, frame.captured, frame.wire))
        chunks.append(frame.data)
    return b"".join(chunks)


def pcapng(frames, link_type=ETHERNET, big_endian=False, snapshot=262144):
    order = ">" if big_endian else "<"

    def block(kind, body):
        body += bytes(-len(body) % 4)
        length = struct.pack(order + "I", len(body) + 12)
        return struct.pack(order + "I", kind) + length + body + length

    chunks = [
        block(0x0A0D0D0A, struct.pack(order + "IHHq", 0x1A2B3C4D, 1, 0, -1)),
        block(1, struct.pack(order + "HHI", link_type, 0, snapshot)),
    ]
    for frame in frames:
        lengths = struct.pack(order + "IIIII", 0, 0, 0, frame.captured, frame.wire)
        chunks.append(block(6, lengths + frame.data))
    return b"".join(chunks)


def payloads(frames):
    """What a replay of these frames sends: one message per non-empty payload."""
    return [frame.payload for frame in frames if frame.payload]
