"""What the pages for those who change the programs name is there: presets, scripts, files,
tests, functions; and what they give to type means what it should.
"""

import json
import os
import re
import shlex
import shutil
import subprocess
import sys

import pytest

from blocks import recipe_book, typed
from conftest import PROGRAMS, ROOT, run
from tree import files

PAGES = (
    "CONTRIBUTING.md", "SECURITY.md", "docs/hacking.md", "docs/design.md", "docs/tuning.md",
    "docs/guide.md", "docs/receiver.md", "docs/reliability.md",
)
TREES = ("src", "receiver", "tests", "fuzz", "bench", "script", "packaging", "docs", "cmake")
# They come with a build, or stand for a name of the reader's.
MADE = re.compile(r"^build/|[<>*]|NAME|TARGET|PRESET")
CODE = re.compile(r"`([^`\n]+)`")
PATH = re.compile(rf"^(?:{'|'.join(TREES)})/[\w./<>*-]+|^\.ci/run|^CMake\w+\.\w+")
CALL = re.compile(r"^([a-z_]\w*)\(\)$")

every_page = pytest.mark.parametrize("page", PAGES)


def read(name):
    return (ROOT / name).read_text()


def marked(page):
    """What stands in code marks or, command by command, in blocks."""
    text = read(page)
    blocks = re.findall(r"```console\n(.*?)```", text, re.S)
    typed = [re.sub(r" {2,}#.*", "", line[2:]) for line in "".join(blocks).splitlines()]
    return CODE.findall(re.sub(r"```.*?```", "", text, flags=re.S)) + typed


def sources(*folders):
    return "\n".join(
        path.read_text(errors="replace")
        for folder in folders
        for path in sorted((ROOT / folder).rglob("*"))
        if path.suffix in (".h", ".cpp", ".py", ".txt", ".cmake")
    )


@every_page
def test_the_files_that_a_page_names_are_there(page):
    words = [word for text in marked(page) for word in text.split()]
    paths = [PATH.match(word)[0].rstrip("/.") for word in words if PATH.match(word)]
    missing = [path for path in paths if not MADE.search(path) and not (ROOT / path).exists()]
    assert missing == []


def test_the_pages_do_name_files():
    assert sum(bool(PATH.match(text)) for text in marked("docs/hacking.md")) > 40


@every_page
def test_the_functions_that_a_page_names_are_there(page):
    names = {CALL.match(text)[1] for text in marked(page) if CALL.match(text)}
    known = sources("src", "receiver", "fuzz", "tests")
    assert [name for name in sorted(names) if not re.search(rf"\b{name}\b", known)] == []


@every_page
def test_the_test_cases_that_a_page_names_are_there(page):
    names = {text for text in marked(page) if re.match(r"^An?[A-Z]\w+$", text)}
    known = sources("tests/unit")
    assert [name for name in sorted(names) if name not in known] == []


def presets():
    """Those that can be chosen."""
    listed = json.loads(read("CMakePresets.json"))["configurePresets"]
    return [preset["name"] for preset in listed if not preset.get("hidden")]


def rows(heading):
    """The first cell of each row of the table that has this heading."""
    table = re.search(rf"^\| {heading} \|.*\n\|[-|]+\n((?:\|.*\n)+)", read("docs/hacking.md"), re.M)
    return re.findall(r"^\| `?([^|`]+)`? \|", table[1], re.M)


def test_the_table_of_presets_has_them_all():
    assert sorted(rows("Preset")) == sorted(presets())


def test_a_preset_that_is_typed_is_there():
    typed = re.findall(
        r"--preset (\w[\w-]*)|script/build (\w[\w-]*)|build/([a-z][\w-]*)/", read("docs/hacking.md")
    )
    names = {name for found in typed for name in found if name} - {"PRESET", "demo"}
    assert names and names <= set(presets())


def test_each_script_has_its_line():
    listed = {path.name for path in (ROOT / "script").iterdir() if not path.suffix}
    told = set(re.findall(r"script/([a-z_]+)", read("docs/hacking.md")))
    assert listed == told


def test_what_bootstrap_installs_for_is_told():
    (kinds,) = re.findall(r"^# Usage: script/bootstrap \[(.*)\]$", read("script/bootstrap"), re.M)
    told = re.search(r"`script/bootstrap (\w+)`, (.*?) installs less", read("docs/hacking.md"))
    named = {told[1], *re.findall(r"`(\w+)`", told[2])}
    assert named | {"all"} == set(kinds.split("|"))


def test_the_tools_of_the_static_checks_are_told():
    (tools,) = re.findall(r"^tools=\((.*)\)$", read("script/lint"), re.M)
    (told,) = re.findall(r"^- \*\*lint\*\* runs (.*?);", read("docs/hacking.md"), re.M | re.S)
    assert [tool for tool in tools.split() if tool not in told] == []


def test_the_least_coverage_is_the_scripts():
    script = read("script/coverage")
    lines, branches = (
        re.search(rf"^least_{what}=(\d+)$", script, re.M)[1] for what in ("lines", "branches")
    )
    assert f"fails below {lines} % and {branches} %" in read("docs/hacking.md")


def test_the_newest_changes_are_those_of_the_version_that_is_built():
    newest = re.search(r"^## (\S+)$", read("CHANGELOG.md"), re.M)[1]
    assert re.search(r"^  VERSION (\S+)$", read("CMakeLists.txt"), re.M)[1] == newest
    assert f"Version: {newest}\n" in run("replay_sender", "--help")


# ------------------------------------------------------------- what it gives to type

# Most of it builds, fuzzes or measures for minutes or hours. What takes a moment is run here
# as it stands; of the rest each word is looked for in what gives it its meaning.
RECIPES, recipe = recipe_book()


TYPED = typed("docs/hacking.md")


def recipe_for(command):
    found = [beginning for beginning in RECIPES if command.startswith(beginning)]
    return max(found, key=len, default=None)


@pytest.mark.parametrize("command", TYPED)
def test_what_is_to_be_typed_can_be_typed(command):
    assert recipe_for(command) is not None, "no recipe here says how to try it"
    RECIPES[recipe_for(command)](command)


def test_each_recipe_is_for_something():
    assert {recipe_for(command) for command in TYPED} == set(RECIPES)


@recipe("script/bootstrap")
@recipe("script/build")
@recipe("script/lint")
@recipe("script/soak")
def what_the_build_machine_types(command):
    """It may give other words. A preset that is typed has a test above."""
    script = command.split()[0]
    assert re.search(rf"^{script}\b", read(".ci/run") + read("script/test"), re.M)
    if script == "script/soak":
        assert "[MINUTES]" in usage(script) and command.split()[1].isdigit()


@recipe("script/demo")
def what_the_readme_gives_to_type(command):
    first, _, second = command.partition(" && ")
    assert first in typed("README.md")
    if second:
        what_the_usage_tells(second)


def names_of_tests():
    """Those that ctest gives to tests, in each build that could have them."""
    paths = [path for path in files() if re.match(r"tests/\w+/\w+_test\.py$", path)]
    cases = re.findall(r"^TEST\w*\((\w+), (\w+)\)", sources("tests/unit"), re.M)
    ends = ["/".join(path.split("/")[1:]).removesuffix(".py") for path in paths]
    ends += [f"unit/{suite}.{name}" for suite, name in cases]
    return [f"{preset}/{end}" for preset in presets() for end in ends]


@recipe("script/test")
@recipe("ctest --preset")
def what_picks_tests(command):
    words = shlex.split(command)
    assert words[0] == "ctest" or re.search(r"^script/test\b", read(".ci/run"), re.M)
    if "-R" in words:
        pattern = words[words.index("-R") + 1]
        assert any(re.search(pattern, name) for name in names_of_tests())


@recipe("build/debug/tests/unit_tests")
def what_picks_unit_tests(command):
    (suite,) = re.findall(r" --gtest_filter='(\w+)\.\*'$", command)
    assert f"({suite}, " in sources("tests/unit")
    assert "add_executable(unit_tests" in read("tests/CMakeLists.txt")


@recipe("python3 -m pytest")
@recipe("REPLAY_SENDER=build/asan/replay_sender REPLAY_SANITIZER=asan python3 -m pytest")
def what_picks_end_to_end_tests(command):
    """They are only picked; the end-to-end tests run by themselves. The build that is named
    need not be there."""
    shown = typed_here(
        command.replace("build/asan/replay_sender", str(PROGRAMS["replay_sender"]))
        + " --collect-only -p no:cacheprovider"
    )
    assert "::test_a_rate_is_kept" in shown


@recipe("docs/man/render")
def what_shows_a_manual(command):
    for tool in ("scdoc", "man"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")
    shown = typed_here(command)
    assert ("名称" if " zh " in command else "NAME") in shown and "--filepath" in shown


def typed_here(command):
    """Standard output of a command that ends with status 0. The interpreter is this one."""
    path = f"{os.path.dirname(sys.executable)}:{os.environ['PATH']}"
    done = subprocess.run(
        ["bash", "-o", "pipefail", "-c", command], cwd=ROOT, capture_output=True, text=True,
        timeout=120, env={**os.environ, "PATH": path, "LC_ALL": "C.UTF-8"},
    )
    assert done.returncode == 0, f"{done.stdout}\n{done.stderr}"
    return done.stdout


def usage(script):
    """What a script's head says of its words."""
    _, found, rest = read(script).partition("Usage: ")
    assert found, script
    return re.split(r'^set -|"""', rest, flags=re.M)[0]


@recipe("script/fuzz")
@recipe("script/coverage")
@recipe("script/mutate")
@recipe("script/bench")
@recipe("bench/instructions.py")
def what_the_usage_tells(command):
    """Options by their names, a number for a number, and names that something has."""
    script, *words = shlex.split(command)
    assert os.access(ROOT / script, os.X_OK)
    told = usage(script)
    for word in words:
        if word.startswith("-"):
            assert re.search(rf"(?<![\w-]){word}\b", told), word
        elif word.isdigit():
            assert "[SECONDS]" in told
        elif script == "script/fuzz":
            assert (ROOT / "fuzz" / f"{word}_target.cpp").exists()
        elif script == "script/mutate":
            assert (ROOT / "src" / word).exists()
        else:
            assert f"[{word}]" in told, word


# ------------------------------------------------------------------ how files look

# Inputs, samples, and what no person has written.
LEFT_OUT = ("fuzz/corpus/", "tests/data/", "bench/results/")
WITH_TABS = (".scd",)
DOCUMENT = (".md", ".scd")
# What cannot be broken: a row of a table, a picture.
ONE_LINE = ("|", "![")
# As a template has for what is put in later.
PLACEHOLDER = re.compile(r"@[A-Z][A-Z0-9_]*@")


# Of a document's lines, as .editorconfig has it.
(LONGEST,) = map(int, re.findall(r"^\[\*\.md\]\nmax_line_length = (\d+)$", read(".editorconfig"), re.M))


def written():
    """The texts of this tree. What holds a zero byte is a picture, or something built."""
    for name in files():
        if not name.startswith(LEFT_OUT) and b"\0" not in (ROOT / name).read_bytes():
            yield name


def odd_about(name):
    """What .editorconfig says of each file and this one is not."""
    text = (ROOT / name).read_bytes().decode()
    lines = text.split("\n")
    if "\r" in text:
        yield "has other line ends"
    if text and lines[-1]:
        yield "lacks its last line end"
    if any(line != line.rstrip(" \t") for line in lines):
        yield "has blanks at the end of a line"
    if not name.endswith(WITH_TABS) and any(line.startswith("\t") for line in lines):
        yield "has tabs in front"
    if name.endswith(".md"):
        longest = max((len(line) for line in lines if not line.startswith(ONE_LINE)), default=0)
        if longest > LONGEST:
            yield f"has a line of {longest} characters"


def test_files_look_as_editors_are_told():
    odd = {name: list(odd_about(name)) for name in written()}
    assert len(odd) > 200
    assert {name: faults for name, faults in odd.items() if faults} == {}


def test_no_document_waits_for_something_to_be_put_in():
    found = {name: PLACEHOLDER.findall(read(name)) for name in files() if name.endswith(DOCUMENT)}
    assert len(found) > 10
    assert {name: each for name, each in found.items() if each} == {}
