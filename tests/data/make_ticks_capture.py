#!/usr/bin/env python3
"""Writes ticks.pcap: the trades of ticks.dat as a multicast feed, one to eight of
them in a datagram, stamped with the time of the last.

Usage: tests/data/make_ticks_capture.py > tests/data/ticks.pcap
The same bytes every time: the random numbers start from a fixed seed.
"""
import pathlib
import random
import struct
import sys

RECORD = 40
MIDNIGHT = 1_704_153_600  # of the trading day


def checksum(header):
    total = sum(struct.unpack(">10H", header))
    while total > 0xFFFF:
        total = (total & 0xFFFF) + (total >> 16)
    return total ^ 0xFFFF


def frame(payload):
    ethernet = bytes.fromhex("01005e010101 020000000001 0800")
    udp = struct.pack(">HHHH", 40000, 5000, 8 + len(payload), 0)
    fields = (0x45, 0, 28 + len(payload), 0, 0x4000, 1, 17)
    addresses = bytes([10, 0, 0, 1, 239, 1, 1, 1])
    ip = struct.pack(">BBHHHBBH", *fields, 0) + addresses
    ip = struct.pack(">BBHHHBBH", *fields, checksum(ip)) + addresses
    return ethernet + ip + udp + payload


def main():
    source = random.Random(20240102)
    ticks = (pathlib.Path(__file__).parent / "ticks.dat").read_bytes()
    out = sys.stdout.buffer
    out.write(struct.pack("<IHHIIII", 0xA1B2C3D4, 2, 4, 0, 0, 262144, 1))
    at = 0
    while at < len(ticks):
        payload = ticks[at : at + RECORD * source.randrange(1, 9)]
        at += len(payload)
        hours, minutes, seconds = payload[-RECORD:].split()[0].split(b":")
        data = frame(payload)
        out.write(
            struct.pack(
                "<IIII",
                MIDNIGHT + int(hours) * 3600 + int(minutes) * 60 + int(seconds[:2]),
                int(seconds[3:]),
                len(data),
                len(data),
            )
        )
        out.write(data)


main()
