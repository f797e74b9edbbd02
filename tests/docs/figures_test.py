"""Measured figures stand where they are made: in docs/performance.md, which is written from
bench/results/, and in docs/reliability.md, each beside its command. The other documents
link there and have none.

A figure is a number with a unit of time, memory or rate, or with "%" or "times" behind it.
What the code or a standard sets, and what is worked out of that, is listed here; any other
figure is taken for measured.
"""

import re

import pytest

from conftest import ROOT
from links_test import FENCED
from tree import files

MEASURED = ("docs/performance.md", "docs/reliability.md", "bench/results/")
DOCUMENTS = [
    name
    for name in files()
    if name.endswith((".md", ".scd")) and not name.startswith(MEASURED)
]

# As each is written, and how it stands in the list below.
UNITS = {
    "nanoseconds?|纳秒|ns": "ns",
    "microseconds?|微秒|µs|us": "µs",
    "milliseconds?|毫秒|ms": "ms",
    "seconds?|秒|s": "s",
    "minutes?|分钟": "min",
    "hours?|小时": "h",
    "bytes?|字节": "bytes",
    "[kK]i?B": "KB",
    "Mi?B": "MB",
    "Gi?B": "GB",
    "Ti?B": "TB",
    "Mbps|megabits|兆比特": "Mbps",
    "Gbps|gigabits": "Gbps",
    "messages (?:a|per) second": "messages/s",
    "instructions": "instructions",
    "times|倍": "times",
    "%": "%",
}
FIGURE = re.compile(rf"(?<![\w.^-])(\d+(?:,\d{{3}})*(?:\.\d+)?)\s*({'|'.join(UNITS)})(?![A-Za-z])")

# What the programs themselves say.
CODE = re.compile(r"`[^`]*`", re.S)
MESSAGE = re.compile(r"^\S.*\n(?=\t)", re.M)

NOT_MEASURED = {
    # Sizes and a count that the code sets.
    "10240 bytes", "10 KB", "1 MB", "64 MB", "512 MB", "16 bytes", "4294967296 times",
    # Of datagrams, headers and frames.
    "64 KB", "0 bytes", "8 bytes", "14 bytes", "60 bytes", "1500 bytes", "262144 bytes",
    # Times that the code sets, and one that follows from them.
    "1 ms", "10 ms", "50 ms", "100 ms", "2 s",
    # What comes of whole microseconds, and when they become milliseconds.
    "1 µs", "2.2 TB", "0.5 Mbps",
    # Rates of examples, and a pause worked out from one of them.
    "50 Mbps", "0.01 Mbps", "8 s",
    # Limits: of the tolerance, of percentiles, of instructions.
    "0.5 %", "1 %", "3 %",
}


def figures(text):
    """Those of a text, outside of blocks and code marks."""
    found = set()
    for number, written in FIGURE.findall(CODE.sub("", FENCED.sub("", text))):
        (unit,) = (unit for pattern, unit in UNITS.items() if re.fullmatch(pattern, written))
        found.add(f"{number} {unit}")
    return found


def figures_of(document):
    text = (ROOT / document).read_text()
    return figures(MESSAGE.sub("", text) if document.endswith(".scd") else text)


@pytest.mark.parametrize("document", DOCUMENTS)
def test_a_document_has_no_measured_figure(document):
    assert figures_of(document) - NOT_MEASURED == set(), "link to docs/performance.md instead"


def test_what_is_listed_here_is_somewhere():
    assert NOT_MEASURED - set.union(*map(figures_of, DOCUMENTS)) == set()


@pytest.mark.parametrize(
    "text, figure",
    [
        ("takes 10.3 KB of memory", "10.3 KB"),
        ("a message costs 138 ns.", "138 ns"),
        ("1.021 times the bare loop", "1.021 times"),
        ("is off by 0.0001 %", "0.0001 %"),
        ("sends 1,234,567\nmessages a second", "1,234,567 messages/s"),
        ("每条消息占用 10.3 KB 内存", "10.3 KB"),
        ("需要 3.5 毫秒", "3.5 ms"),
    ],
)
def test_a_measured_figure_is_seen(text, figure):
    assert figures(text) == {figure}


@pytest.mark.parametrize("text", ["`took 3 ms`", "```text\n4.1 s\n```", "version 1.0.1", "f10"])
def test_no_figure_is_seen_where_there_is_none(text):
    assert figures(text) == set()
