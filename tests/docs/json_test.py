"""docs/receiver.md names what the receiver's JSON holds, and nothing else."""

import json
import re
import subprocess

import pytest

from conftest import PROGRAMS, ROOT

OF_ALL = {"format", "version", "kind"}
# The parts whose own names have rows.
PARTS = {
    "run": ("verified", "measured"),
    "plan": ("left_out_per_pass", "caveats_per_pass"),
}


def written(status, *words):
    done = subprocess.run(
        [PROGRAMS["replay_receiver"], *words, "--json", "-"],
        capture_output=True, text=True, timeout=60,
    )
    assert done.returncode == status, done.stderr
    return json.loads(done.stdout)


@pytest.fixture
def of_plan(tmp_path):
    (tmp_path / "data").write_bytes(b"one message")
    return written(0, "--filepath", tmp_path / "data", "--plan")


@pytest.fixture
def of_run():
    """One that could not begin: nobody can listen on a group's address."""
    return written(3, "--ip", "224.0.0.1", "--connect-timeout", "0")


def rows(kind):
    """The cells of the table about it."""
    text = (ROOT / "docs/receiver.md").read_text()
    (table,) = re.findall(rf"^\| Of a {kind} \| \|\n\|---\|---\|\n((?:\|.*\n)+)", text, re.M)
    return [line.strip("| ").split(" | ") for line in table.splitlines()]


def told(kind):
    """Names within a part have it in front, where the table has only a dot."""
    names = set()
    for cell, explanation in rows(kind):
        part = ""
        for name in re.findall(r"`([^`]+)`", cell):
            part = name.partition(".")[0] or part
            names.add(part + name if name.startswith(".") else name)
        if kind == "plan" and cell.strip("`") in PARTS[kind]:
            names |= {f"{part}.{name}" for name in re.findall(r"`([^`]+)`", explanation)}
    return names


def held(result):
    """The names of a result: of its parts those within."""
    names = set(result) - OF_ALL
    for part in PARTS[result["kind"]]:
        names |= {f"{part}.{name}" for name in result[part]}
    return names


def test_the_names_of_a_run_are_told(of_run):
    assert told("run") | {*PARTS["run"]} == held(of_run)


def test_the_names_of_a_plan_are_told(of_plan):
    assert told("plan") == held(of_plan)


def test_the_names_of_all_and_the_version_are_told(of_run, of_plan):
    text = (ROOT / "docs/receiver.md").read_text()
    assert "`format` is `replay_receiver`, `version` 1, `kind` `run` or `plan`" in text
    for kind, result in {"run": of_run, "plan": of_plan}.items():
        assert [result[name] for name in ("format", "version", "kind")] == [
            "replay_receiver", 1, kind,
        ]
