"""What the pages for those who change the programs name is there: presets, scripts, files,
tests, functions.
"""

import json
import os
import re

import pytest

from conftest import ROOT, run

PAGES = (
    "CONTRIBUTING.md", "docs/hacking.md", "docs/design.md", "docs/tuning.md", "docs/guide.md",
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


# ------------------------------------------------------------------ how files look

# Inputs, samples, and what no person has written.
LEFT_OUT = re.compile(
    r"^(build|fuzz/corpus|tests/data|bench/results)$|(^|/)(\.git|\.cache|\w+_cache|__pycache__)$"
)
PICTURE = (".png", ".svg")
WITH_TABS = (".scd",)


def written():
    """The texts of this tree."""
    for folder, names, files in os.walk(ROOT):
        place = os.path.relpath(folder, ROOT)
        names[:] = [n for n in names if not LEFT_OUT.search(os.path.normpath(f"{place}/{n}"))]
        for file in files:
            if not file.endswith(PICTURE):
                yield os.path.normpath(f"{place}/{file}")


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


def test_files_look_as_editors_are_told():
    odd = {name: list(odd_about(name)) for name in written()}
    assert len(odd) > 200
    assert {name: faults for name, faults in odd.items() if faults} == {}
