"""Made-up samples in a folder of their own, and what the document makes of them."""

import csv
import pathlib
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BENCH = ROOT / "bench"
SCRIPT = BENCH / "report.py"
sys.path.insert(0, str(BENCH))
from performance import document as page
from performance.benchmarks import BENCHMARKS, all_targets

MACHINE = """\
date: 2026-01-02
commit: 0123abc
processor: A processor, 2 of them
load before: 0.1 0.2 0.3
"""
COLUMNS = {benchmark.name: benchmark.columns for benchmark in BENCHMARKS}


def write(folder, name, rows, columns=None):
    with open(folder / f"{name}.csv", "w", newline="") as file:
        writer = csv.writer(file, lineterminator="\n")
        writer.writerow((columns or COLUMNS[name]).split(","))
        writer.writerows(rows)


def write_machine(folder, text=MACHINE):
    folder.mkdir(exist_ok=True)
    (folder / "machine.txt").write_text(text)


@pytest.fixture
def folder(tmp_path):
    path = tmp_path / "run"
    write_machine(path)
    return path


@pytest.fixture
def other(tmp_path):
    path = tmp_path / "again"
    write_machine(path)
    return path


def poller(folder, streamed, bare=(1000, 1000, 1000), protocol="udp", size=64):
    costs = {"bare": bare, "streamed": streamed}
    write(
        folder,
        "poller",
        [
            (protocol, size, subject, run, values[run])
            for run in range(max(len(bare), len(streamed)))
            for subject, values in costs.items()
            if run < len(values)
        ],
    )


def queue(folder, **medians):
    """Three runs each, one below and one above the median by 1."""
    write(
        folder,
        "queue",
        [
            ("stream", subject, run, median + run - 1)
            for run in range(3)
            for subject, median in medians.items()
        ],
    )


def pacing(folder, rate="1 Mbps", shares=None, **subjects):
    """One run per subject: (rate error, p50, p99). A share of a processor is 0.1 or as in
    `shares`."""
    shares = shares or {}
    write(
        folder,
        "pacing",
        [
            (rate, subject.replace("_", "-"), 0, 10, error, p50, p99, 0, 0, 0, shares.get(subject, 0.1))
            for subject, (error, p50, p99) in subjects.items()
        ],
    )


def producer(folder, sender, bare, zero_filled, unfilled, source="capture", size=500):
    write(
        folder,
        "producer",
        [
            (source, size, "sender", 0, sender),
            (source, size, "bare", 0, bare),
            ("none", 10240, "zero-filled", 0, zero_filled),
            ("none", 10240, "unfilled", 0, unfilled),
        ],
    )


def memory(folder, curve, points, x_unit="messages", unit="kB"):
    write(folder, "scale", [(curve, x, x_unit, 0, value, unit) for x, value in points])


def targets(folder):
    return {target.key: target for _, target in all_targets(folder)}


def document(folder, again=None):
    return page.document(folder, again, folder.parent / "performance.md")


def run(*words):
    """The script as it is typed: status, standard output, standard error."""
    done = subprocess.run(
        [sys.executable, str(SCRIPT), *map(str, words)], capture_output=True, text=True
    )
    return done.returncode, done.stdout, done.stderr
