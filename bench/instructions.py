#!/usr/bin/python3
"""Instructions per message on the sender's paths, counted by callgrind.

The counts do not depend on the machine's mood, only on the code, the compiler and the
libraries. Those recorded in the tree guard the paths: --check ends with 1 when one has
moved by more than 3 %, and with 77 when the counts were made with other tools than
these. --record takes today's counts as the new ones. Without either, they go to
instructions.csv in the folder of the samples.
Usage: instructions.py [--check | --record] [--build FOLDER] [--out FOLDER]
"""
import csv
import os
import re
import subprocess
import sys
import tempfile

import harness

RECORDED = harness.ROOT / "bench" / "instructions.csv"
TOLERANCE = 0.03
OTHER_TOOLS = 77  # ctest's word for a skipped test
# The string instructions that fill and copy large blocks count once per byte and would
# drown everything else; the C library's other loops do the same work.
NO_STRING_INSTRUCTIONS = ":".join(
    f"glibc.cpu.x86_rep_{which}_threshold=0x10000000" for which in ("movsb", "stosb")
)


def run(*words):
    done = subprocess.run(
        [str(word) for word in words],
        env={**os.environ, "GLIBC_TUNABLES": NO_STRING_INSTRUCTIONS},
        capture_output=True,
        text=True,
    )
    if done.returncode != 0:
        sys.exit(f"{words[0]} has ended with {done.returncode}: {done.stderr}")
    return done.stdout


def count(program, path):
    """Instructions per message, with the bench's own share of them: marks and calls."""
    with tempfile.NamedTemporaryFile() as profile:
        messages = run(
            *("valgrind", "--tool=callgrind", "--collect-atstart=no"),
            *(f"--callgrind-out-file={profile.name}", program, path),
        )
        total = re.search(r"^summary: (\d+)", profile.read().decode(), re.MULTILINE)
    return int(total[1]) / int(messages)


def write(path, tools, counts):
    with open(path, "w") as out:
        out.write(f"# {tools}\npath,instructions\n")
        out.writelines(f"{name},{value:.1f}\n" for name, value in counts.items())


def compare(tools, counts):
    """0, 1 or 77 as above, with a line for each path that has moved."""
    with open(RECORDED) as file:
        made_with = file.readline().removeprefix("# ").strip()
        recorded = {row["path"]: float(row["instructions"]) for row in csv.DictReader(file)}
    if made_with != tools:
        print(f"skipped: counts were recorded with {made_with}, this is {tools}")
        return OTHER_TOOLS
    status = 0
    for name in sorted(recorded.keys() | counts.keys()):
        before, now = recorded.get(name), counts.get(name)
        if before is None or now is None or abs(now - before) > TOLERANCE * before:
            print(f"{name}: {before} instructions a message recorded, {now} counted")
            status = 1
    if status != 0:
        print("If that is meant: bench/instructions.py --record")
    return status


def main():
    mode = sys.argv.pop(1) if sys.argv[1:2] in (["--check"], ["--record"]) else ""
    options = harness.options(__doc__)
    program = options.build / "bench" / "instructions"
    tools, *paths = run(program).splitlines()
    counts = {path: count(program, path) for path in paths}
    if mode == "--check":
        sys.exit(compare(tools, counts))
    write(RECORDED if mode == "--record" else options.out / "instructions.csv", tools, counts)
    for name, value in counts.items():
        print(f"{name}: {value:.1f} instructions a message", file=sys.stderr)


main()
