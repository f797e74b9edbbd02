"""The manual pages: they render, their sections are the ones that readers look for,
both languages say the same of the same things, and the messages in them are the
programs' own.
"""

import os
import re
import shutil
import subprocess

import pytest

from conftest import PROGRAMS, ROOT
from options_test import MANUALS, manual, sections

# In their order; of these a page may leave some out.
HEADS = {
    "NAME": "名称",
    "SYNOPSIS": "概要",
    "DESCRIPTION": "描述",
    "OPTIONS": "选项",
    "EXIT STATUS": "退出状态",
    "SIGNALS": "信号",
    "ENVIRONMENT": "环境变量",
    "EXAMPLES": "示例",
    "DIAGNOSTICS": "诊断",
    "LIMITATIONS": "限制",
    "SEE ALSO": "参见",
}
NEEDED = set(HEADS) - {"SIGNALS", "ENVIRONMENT"}
SOURCES = {
    "replay_sender": ["src/*.h", "src/*.cpp"],
    "replay_receiver": ["receiver/*.h", "receiver/*.cpp"],
}
RENDER = ROOT / "docs" / "man" / "render"
LITERAL = r'"((?:[^"\\]|\\.)*)"'

every_program = pytest.mark.parametrize("program", PROGRAMS)
every_folder = pytest.mark.parametrize("folder", MANUALS)


def heads(folder, program):
    return [head[2:] for head in sections(manual(folder, program))]


def terms(lines):
    """What is described, each a line in front of indented ones."""
    pairs = zip(lines, lines[1:])
    return [line for line, following in pairs if line and following.startswith("\t")]


def examples(text):
    return re.findall(r"^```\n(.*?)^```$", text, re.M | re.S)


# ---------------------------------------------------------------- what they say


@every_program
def test_the_sections_of_a_manual_stand_in_their_usual_order(program):
    found = heads(MANUALS[0], program)
    assert found == [head for head in HEADS if head in found]
    assert NEEDED <= set(found)


@every_program
def test_both_languages_have_the_same_sections(program):
    english, chinese = (heads(folder, program) for folder in MANUALS)
    assert [HEADS[head] for head in english] == chinese


@every_program
def test_both_languages_describe_the_same_things_in_one_order(program):
    english, chinese = (
        [terms(lines) for lines in sections(manual(folder, program)).values()]
        for folder in MANUALS
    )
    assert english == chinese


@every_program
def test_both_languages_have_the_same_synopsis_and_see_also(program):
    english, chinese = (sections(manual(folder, program)) for folder in MANUALS)
    for head in ("SYNOPSIS", "SEE ALSO"):
        assert english[f"# {head}"] == chinese[f"# {HEADS[head]}"]


@every_program
def test_both_languages_have_the_same_examples(program):
    english, chinese = (examples(manual(folder, program)) for folder in MANUALS)
    assert english
    assert english == chinese


def source_texts(program):
    """All texts in a program's source, those that stand side by side as one."""
    found = []
    for pattern in SOURCES[program]:
        for path in sorted(ROOT.glob(pattern)):
            for run in re.finditer(rf"{LITERAL}(?:\s*{LITERAL})*", path.read_text()):
                pieces = re.findall(LITERAL, run[0])
                found.append("".join(pieces).replace('\\"', '"'))
    return "\n".join(found)


def message_parts(term):
    """What is fixed in a message. Numbers and lists are put together as it is told."""
    for bold in re.findall(r"\*([^*]+)\*", term):
        for part in re.split(r"[\d,.]+", bold):
            if part := part.strip():
                yield part


@every_program
def test_the_messages_in_the_manual_are_the_programs_own(program):
    texts = source_texts(program)
    messages = terms(sections(manual(MANUALS[0], program))["# DIAGNOSTICS"])
    assert len(messages) > 10
    for message in messages:
        for part in message_parts(message):
            assert part in texts, message


# The statuses of the receiver stand in its manual and on its page, each being read alone.


def plain(text):
    return re.sub(r"[*_`]", "", text).strip().rstrip(".").lower()


def told_in_manual():
    lines = sections(manual(MANUALS[0], "replay_receiver"))["# EXIT STATUS"]
    pairs = zip(lines, lines[1:])
    return {line.strip("*"): plain(text) for line, text in pairs if text.startswith("\t")}


def receiver_page():
    (found,) = re.findall(
        r"^## Exit status\n(.*?)^## ", (ROOT / "docs/receiver.md").read_text(), re.M | re.S
    )
    return found


def first_that_wins(text):
    """The numbers in the sentence about several that apply."""
    (numbers,) = re.findall(r"(?:\d(?:, |、)){2,}\d", text)
    return re.findall(r"\d", numbers)


def test_the_receivers_page_and_manual_tell_the_same_of_each_status():
    rows = dict(re.findall(r"^\| (\d+) \| (.*) \|$", receiver_page(), re.M))
    assert {number: plain(text) for number, text in rows.items()} == told_in_manual()


def test_the_statuses_that_are_told_are_those_of_the_program():
    (body,) = re.findall(
        r"enum class exit_status \{(.*?)\};", (ROOT / "receiver/result.h").read_text(), re.S
    )
    assert sorted(told_in_manual()) == re.findall(r"^ *\w+ = (\d+)", body, re.M)


def test_the_page_and_both_manuals_let_the_same_status_win():
    english, chinese = (
        "\n".join(sections(manual(folder, "replay_receiver"))[head])
        for folder, head in zip(MANUALS, ("# EXIT STATUS", "# 退出状态"))
    )
    assert first_that_wins(english) == first_that_wins(receiver_page())
    assert first_that_wins(chinese) == first_that_wins(english)


# -------------------------------------------------------------- what readers see


def rendered(folder, program):
    """The page as man shows it on a terminal of 80 columns."""
    for tool in ("scdoc", "man"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")
    source = ROOT / folder / f"{program}.1.scd"
    language = ["zh"] if source.parent.name == "zh_CN" else []
    page = output_of([RENDER, *language], source.read_bytes())
    return output_of(["man", "--warnings=w", "-l", "-"], page).decode()


def output_of(words, given):
    """Of a program that ends with status 0 and has nothing to say on standard error."""
    done = subprocess.run(
        words,
        input=given,
        capture_output=True,
        timeout=60,
        env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "MANWIDTH": "80"},
    )
    assert (done.returncode, done.stderr) == (0, b"")
    return done.stdout


@every_folder
@every_program
def test_man_shows_the_page_with_all_its_sections(program, folder):
    lines = rendered(folder, program).splitlines()
    shown = [line for line in lines[1:-1] if line and not line.startswith(" ")]
    assert shown == heads(folder, program)


@every_folder
@every_program
def test_the_page_fits_a_terminal_of_80_columns(program, folder):
    wide = [line for line in rendered(folder, program).splitlines() if columns(line) > 80]
    assert wide == []


def columns(line):
    """How wide a terminal shows it: Chinese characters take two columns each."""
    return sum(2 if ord(char) >= 0x2E80 else 1 for char in line)
