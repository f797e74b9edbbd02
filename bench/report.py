#!/usr/bin/python3
"""Writes docs/performance.md from the samples in a folder of bench/results: the targets,
the machine, one section per benchmark, and how far a second run ranks the subjects alike.

No figure of the document is typed by hand; what is typed are the limits and the words.
A figure is the median of its runs, followed by the lowest and the highest of them.
Usage: report.py RESULTS [--again RESULTS2] [--output FILE]   writes the document
       report.py --check [the same]    ends with 1 when the document is not what the samples
                                       give; without RESULTS, of the folders that it names
       report.py --compare A B         prints the ranks of two runs, ends with 1 when they differ
"""
import argparse
import difflib
import pathlib
import re
import shlex
import sys

from performance.comparison import compare
from performance.document import command, document
from performance.folders import ROOT, Fault, require

DOCUMENT = ROOT / "docs" / "performance.md"


def parse(words):
    parser = argparse.ArgumentParser(description=__doc__, allow_abbrev=False)
    parser.add_argument("results", nargs="?", type=pathlib.Path, help="folder of the samples")
    parser.add_argument("--again", type=pathlib.Path, help="folder of a second run")
    parser.add_argument("--output", type=pathlib.Path, default=DOCUMENT)
    parser.add_argument("--check", action="store_true", help="compare instead of writing")
    parser.add_argument("--compare", nargs=2, type=pathlib.Path, metavar=("A", "B"))
    options = parser.parse_args(words)
    if not (options.results or options.check or options.compare):
        parser.error("RESULTS, --check or --compare is needed")
    return options


def folders_named_in(text):
    """The folders that a document says it was written from."""
    found = re.search(r"`bench/report\.py\s([^`]*)`", text)
    if not found:
        raise Fault("the document does not name its samples")
    named = parse(shlex.split(found[1]))
    return ROOT / named.results, named.again and ROOT / named.again


def check(options):
    if not options.output.exists():
        raise Fault(f"{options.output} does not exist")
    text = options.output.read_text()
    folders = (options.results, options.again) if options.results else folders_named_in(text)
    require(*folders)
    wanted = document(*folders, options.output)
    if text == wanted:
        return 0
    changes = difflib.unified_diff(
        text.splitlines(), wanted.splitlines(), str(options.output), "the samples", "", "", 0, ""
    )
    print(f"{options.output} is not what the samples give:", *changes, sep="\n", file=sys.stderr)
    print(f"To write it anew: {command(*folders)}", file=sys.stderr)
    return 1


def run(options):
    require(options.results, options.again, *(options.compare or ()))
    if options.compare:
        comparison = compare(*options.compare)
        print("\n".join(comparison.lines).rstrip("\n"))
        return int(comparison.differ)
    if options.check:
        return check(options)
    options.output.write_text(document(options.results, options.again, options.output))
    return 0


def main(words):
    try:
        return run(parse(words))
    except Fault as fault:
        print(f"report.py: {fault}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
