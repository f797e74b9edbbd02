"""The harness of the documentation's tests: what both programs say of their options,
and all that the end-to-end tests' harness offers.

REPLAY_SENDER and REPLAY_RECEIVER name the programs.
"""

import os
import pathlib
import re
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tests" / "e2e"))
from harness import load_harness  # noqa: E402: it is there

RELEASE = ROOT / "build" / "release"
PROGRAMS = {
    "replay_sender": os.environ.get("REPLAY_SENDER", RELEASE / "replay_sender"),
    "replay_receiver": os.environ.get("REPLAY_RECEIVER", RELEASE / "replay_receiver"),
}
COMPLETIONS = ROOT / "packaging" / "completions"

# Two spaces or the line's start, the names, the value's name, two spaces or the end.
HELP_LINE = re.compile(r"^ {2,4}(?:(-\w),)?(--[\w-]+)(?: ([^ \n]+))?(?: {2,}|$)", re.M)


# The modules beside that harness take what they need from "conftest", which is this one
# here. Its fixtures come along.
HARNESS = load_harness()
globals().update(
    {name: value for name, value in vars(HARNESS).items() if not name.startswith("_")}
)


def run(program, *words):
    """Standard output of a run that ends with status 0 and says nothing else."""
    done = subprocess.run(
        [PROGRAMS[program], *words], capture_output=True, text=True, timeout=60
    )
    assert (done.returncode, done.stderr) == (0, ""), (program, words)
    return done.stdout


def help_options(program):
    """(short name or "", long name, value's name or "") of each option in the help."""
    return HELP_LINE.findall(run(program, "--help"))


def option_names(program):
    """All names that the program's help tells, and -h, which it takes as well."""
    assert run(program, "-h") == run(program, "--help")
    return {"-h", *(name for _, name, _ in help_options(program))}


def pytest_configure(config):
    for program, path in PROGRAMS.items():
        if not os.access(path, os.X_OK):
            raise pytest.UsageError(f"no {program} at {path}; set {program.upper()}")
    config.pluginmanager.register(HARNESS.SkipStatus(), "skip-status")
