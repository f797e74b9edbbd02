"""The table of faults in docs/reliability.md against the tree and the built sender: each
test that it names is there, and each call to the system that the sender makes has a row.
"""

import os
import pathlib
import re
import subprocess

import pytest

from conftest import BINARY, ROOT, SANITIZER

DOCUMENT = pathlib.Path(
    os.environ.get("REPLAY_RELIABILITY_DOCUMENT", ROOT / "docs" / "reliability.md")
)
SECTION = "## Faults of system calls"
COLUMNS = ["call", "fault", "outcome", "test"]

# Of the C library, what makes no call to the system that could fail, or makes it by one
# that the table has: the standard streams write, strerror and its like only look up.
WITHOUT_SYSTEM_CALLS = set(
    """abort fflush fprintf free inet_addr memchr memcmp memcpy memmove memset printf
    sigemptyset strcasecmp strcmp strerror strlen strtod strtol tolower versionsort
    """.split()
)
# What the standard library and libpcap call on the sender's behalf.
BY_LIBRARIES = {"open", "lseek", "pthread_create"}


class Row:
    """One line of the table: its call, and its tests as (file, name)."""

    def __init__(self, line):
        cells = [cell.strip() for cell in line.strip().strip("|").split(" | ")]
        assert len(cells) == len(COLUMNS), f"not {len(COLUMNS)} cells: {line}"
        assert all(cells), f"an empty cell: {line}"
        self.line = line
        self.call = re.match(r"`(\w+)`", cells[0])
        assert self.call, f"names no call: {line}"
        self.call = self.call[1]
        self.tests = re.findall(r"`(tests/[\w/]+\.(?:cpp|py))` `([\w.]+)`", cells[3])


def rows_of(text):
    """The rows of the section's table."""
    _, found, section = text.partition(f"{SECTION}\n")
    assert found, f"no section {SECTION!r}"
    section = re.split(r"\n#+ ", section)[0]
    lines = [line for line in section.splitlines() if line.startswith("|")]
    assert lines, f"no table under {SECTION!r}"
    head = [cell.strip() for cell in lines[0].strip("|").split("|")]
    assert head == COLUMNS, f"the columns are {head}"
    return [Row(line) for line in lines[2:]]


def has_test(text, name):
    """Whether this source, C++ or Python, defines the test."""
    suite, dot, test = name.partition(".")
    if dot:
        pattern = rf"\bTEST(_F|_P)?\(\s*{suite},\s*{test}\s*\)"
    else:
        pattern = rf"^ *def {name}\("
    return re.search(pattern, text, re.MULTILINE) is not None


def missing_tests(rows, root):
    """One line for each row without a test and for each test that is not there."""
    problems = []
    for row in rows:
        if not row.tests:
            problems.append(f"names no test: {row.line}")
        for file, name in row.tests:
            path = root / file
            if not path.exists():
                problems.append(f"no file {file}, for `{row.call}`")
            elif not has_test(path.read_text(), name):
                problems.append(f"no test {name} in {file}, for `{row.call}`")
    return problems


def calls_of(symbols):
    """The calls among a program's undefined symbols, by their plain names. Those that
    start with an underscore are the toolchain's, except for the checked variants."""
    calls = set()
    for symbol in symbols:
        name = symbol.partition("@")[0]
        name = re.sub(r"^__(\w+)_chk$", r"\1", name)
        if not name.startswith("_"):
            calls.add(name.removesuffix("64"))
    return calls


def imported_symbols(program):
    listing = subprocess.run(
        ["nm", "-D", "--undefined-only", "--format=just-symbols", program],
        check=True, capture_output=True, text=True,
    )
    return listing.stdout.split()


def missing_rows(rows, calls):
    return sorted(calls - WITHOUT_SYSTEM_CALLS - {row.call for row in rows})


# ------------------------------------------------------------------- the table


@pytest.fixture
def rows():
    assert DOCUMENT.exists(), f"no {DOCUMENT}"
    return rows_of(DOCUMENT.read_text())


def test_each_test_that_the_table_names_is_there(rows):
    problems = missing_tests(rows, ROOT)
    assert not problems, "\n".join(problems)


# A sanitizer's runtime, linked in, imports calls of its own.
if not SANITIZER:

    def test_each_call_that_the_sender_makes_has_a_row(rows):
        calls = calls_of(imported_symbols(BINARY)) | BY_LIBRARIES
        missing = missing_rows(rows, calls)
        assert not missing, f"no row in {DOCUMENT} for: {', '.join(missing)}"


# ------------------------------------------------------- what the checks notice

MADE_UP = f"""# Title

{SECTION}

Words.

| call | fault | outcome | test |
|---|---|---|---|
| `send` | none | sent | `tests/unit/a_test.cpp` `Suite.Name`<br>`tests/e2e/b_test.py` `test_b` |
| `recv` | none | received | see above |

### Other

| `accept` | not | here |
"""


def test_a_row_has_a_call_and_its_tests():
    send, recv = rows_of(MADE_UP)
    assert (send.call, recv.call) == ("send", "recv")
    assert send.tests == [
        ("tests/unit/a_test.cpp", "Suite.Name"), ("tests/e2e/b_test.py", "test_b"),
    ]


def test_a_missing_file_a_missing_test_and_a_row_without_a_test_are_told(tmp_path):
    (tmp_path / "tests" / "unit").mkdir(parents=True)
    (tmp_path / "tests" / "unit" / "a_test.cpp").write_text("TEST(Suite, NameOther)\n")
    problems = missing_tests(rows_of(MADE_UP), tmp_path)
    assert problems == [
        "no test Suite.Name in tests/unit/a_test.cpp, for `send`",
        "no file tests/e2e/b_test.py, for `send`",
        "names no test: | `recv` | none | received | see above |",
    ]


@pytest.mark.parametrize(
    "text", ["TEST(Suite, Name)", "TEST_F(\n    Suite, Name)", "TEST_P(Suite,\n    Name)"]
)
def test_a_test_is_found_however_it_is_written(text):
    assert has_test(text, "Suite.Name")
    assert not has_test(text, "Suite.Other")
    assert has_test("x = 1\ndef test_name(a):\n", "test_name")
    assert not has_test("# def test_name(a):\n", "test_name")


def test_a_call_without_a_row_is_told():
    symbols = ["send@GLIBC_2.2.5", "__read_chk@GLIBC_2.4", "stat64", "strlen", "__x"]
    assert missing_rows(rows_of(MADE_UP), calls_of(symbols)) == ["read", "stat"]
