"""The guide's tables of messages: each text that the programs write to standard error, or
as a warning of the sender to standard output, has its row, and each row is about a text
that they write.
"""

import re

import pytest

from conftest import ROOT
from manual_test import (
    LITERAL, MANUALS, SOURCES, manual, message_parts, sections, source_texts,
)

GUIDE = ROOT / "docs" / "guide.md"
SECTIONS = re.compile(r"^### (?:Messages|What the receiver says).*?(?=^##|\Z)", re.M | re.S)
FIRST_CELL = re.compile(r"^\| ([^|\n]*`[^|\n]*) \| ", re.M)

# A statement that makes a message: where it begins, up to its semicolon.
SPEAKING = re.compile(
    r"(?:vesk_throw_ex\(|throw (?:usage_end\(\s*true|connection_error|file_error)"
    r"|std::cerr|std::cout"
    r"|remarks\.(?:emplace_back|push_back)\(|error_ = fmt::format\(|complain\(|stderr"
    r"|return errno == ERANGE|return fmt::format\(\s*\"\{\} is no)[^;]*;"
)
ASSERTION = re.compile(r"^ *replay_assert\((.*)\);", re.M)
# Nothing but the help and the echo.
NOT_LOOKED_AT = {"replay_sender.cpp"}
# Stands in front of each line of the receiver, as the guide says there.
IN_FRONT = "replay_receiver:"
# What the system, the C++ runtime and the receiver's parser say.
OF_OTHERS = [
    "No such device", "Operation not permitted", "Invalid argument", "Too many open files",
    "No space left on device", "Resource temporarily unavailable", "std::bad_alloc",
    "std::system_error", "No such file or directory", "Permission denied", "not in range",
    "The following argument was not expected", "Could not convert", "Connection refused",
    "Cannot assign requested address", "Connection reset by peer",
]


def cells():
    """What stands in code marks in the first cell of each row, one text after another."""
    rows = FIRST_CELL.findall("".join(SECTIONS.findall(GUIDE.read_text())))
    assert len(rows) > 50
    return [text for row in rows for text in re.findall(r"`([^`]+)`", row)]


def fixed_parts(text):
    """A format's words, without what is put in."""
    for part in re.split(r"\{[^}]*\}|\\n|%[sdlu]+", text):
        part = part.strip()
        if re.search(r"[a-z=]{2}", part):
            yield part


def spoken():
    """(file, text) of each message of the sources, in its fixed parts."""
    for pattern in sum(SOURCES.values(), []):
        for path in sorted(ROOT.glob(pattern)):
            if path.name in NOT_LOOKED_AT:
                continue
            for statement in SPEAKING.findall(path.read_text()):
                statement = re.sub(r"//.*", "", statement)
                for run in re.finditer(rf"{LITERAL}(?:\s*{LITERAL})*", statement):
                    text = "".join(re.findall(LITERAL, run[0])).replace('\\"', '"')
                    for part in list(fixed_parts(text))[:1]:
                        if part != IN_FRONT:
                            yield path.name, part


SPOKEN = sorted(set(spoken()))


def test_messages_have_been_found_in_both_programs():
    assert {"common.h", "tcp_replay.h", "options.cpp", "udp_input.cpp"} <= {
        name for name, _ in SPOKEN
    }
    assert len(SPOKEN) > 50


@pytest.mark.parametrize("name, text", SPOKEN)
def test_a_message_has_its_row(name, text):
    assert any(text in cell for cell in cells()), f"{name} says {text!r}"


def conditions():
    return [
        (path.name, condition)
        for path in sorted((ROOT / "src").glob("*.h"))
        for condition in ASSERTION.findall(path.read_text())
    ]


@pytest.mark.parametrize("name, condition", sorted(set(conditions())))
def test_a_fatal_check_has_its_row(name, condition):
    assert any(condition in cell for cell in cells()), f"{name} checks {condition!r}"


def test_each_header_that_ends_by_the_systems_text_has_its_row():
    with_texts = {
        path.name
        for path in (ROOT / "src").glob("*.h")
        if re.search(r"^ *replay_errno_assert\(", path.read_text(), re.M)
    }
    assert with_texts
    told = set(re.findall(r"(?:[Ss]ystem texts with `|\()(\w+\.h)", GUIDE.read_text()))
    assert with_texts <= told


@pytest.mark.parametrize("cell", sorted(set(cells())))
def test_a_row_is_about_a_text_that_there_is(cell):
    known = "\n".join([*map(source_texts, SOURCES), *OF_OTHERS])
    known += "\n".join(condition for _, condition in conditions())
    known += "\n".join(path.name for path in (ROOT / "src").glob("*.h"))
    known = re.sub(r"\{[^}]*\}", "\n", known)
    # Capitals, numbers and dots stand for what is put in.
    for part in re.split(r"\b[A-Z]+\b|\b\d[\d.]*|\.\.\.|\. errno|is not (?=at|more)|[():]", cell):
        if re.search(r"[a-z=]{2}", part := part.strip(" ,.'\"/")):
            assert part in known, cell


# ------------------------------------------------------- the manuals say it as well

# What stands in front of the messages of one outcome, in the manual and in the guide.
OUTCOMES = {
    ("replay_sender", "On standard output,"): "### Messages on standard output",
    ("replay_sender", "On standard error, and the run goes on:"):
        "### Messages on standard error that end nothing",
    ("replay_sender", "On standard error, behind *what():*, and the program ends"):
        "### Messages that end the program",
    ("replay_sender", "On standard error, and the program ends"):
        "### Messages that end the program",
    ("replay_receiver", "On standard error, behind *replay_receiver:*, and the run goes on:"):
        "On standard error, behind `replay_receiver: `; the run goes on:",
    ("replay_receiver", "In the same place, with status 2;"): "Status 2,",
    ("replay_receiver", "In the same place, with status 3:"): "Status 3,",
    ("replay_receiver", "In the same place, with status 6:"): "Status 6,",
}
# The guide has rows for what went wrong alone.
SUMMARY = "The first line of the summary,"


def by_outcome(program):
    """The messages of a manual by the sentence in front of them."""
    lines = sections(manual(MANUALS[0], program))["# DIAGNOSTICS"]
    found, messages = {}, []
    for line, following in zip(lines, [*lines[1:], ""]):
        if not line or line.startswith("\t"):
            continue
        if following.startswith("\t"):
            messages.append(line)
        else:
            found[line] = messages = []
    return found


def told_behind(words):
    """The texts in the first cells of the guide's rows behind these words."""
    _, found, rest = GUIDE.read_text().partition(f"\n{words}")
    assert found, words
    rows = re.split(r"^(?:#|On standard|Status \d|In the middle)", rest, flags=re.M)[0]
    return re.findall(r"`([^`]+)`", "\n".join(FIRST_CELL.findall(rows)))


def test_each_outcome_of_the_manuals_has_its_place_in_the_guide():
    sentences = [(name, words) for name in SOURCES for words in by_outcome(name)]
    known = [*OUTCOMES, ("replay_receiver", SUMMARY)]
    for name, sentence in sentences:
        assert [k for k in known if k[0] == name and sentence.startswith(k[1])], sentence
    assert len(sentences) == len(known)


@pytest.mark.parametrize("program, words", OUTCOMES)
def test_a_message_has_the_same_outcome_in_manual_and_guide(program, words):
    (messages,) = (m for sentence, m in by_outcome(program).items() if sentence.startswith(words))
    rows = told_behind(OUTCOMES[program, words])
    assert messages and rows
    for message in messages:
        parts = [part for part in message_parts(message) if re.search("[a-z]{2}", part)]
        # What follows the first one may be shortened in the guide.
        known = {*parts[:1], *sorted(parts, key=len)[-1:]}
        assert not known or any(part in row for part in known for row in rows), message
