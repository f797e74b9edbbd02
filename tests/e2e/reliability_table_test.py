"""The tables of docs/reliability.md against the tree and the built sender: each test that
they name is there, each errno and each option of a socket that a row names comes up in a
test of that row, and each call to the system that the sender makes has a row.
"""

import ast
import errno
import functools
import os
import pathlib
import re
import subprocess

import pytest

from conftest import BINARY, ROOT, not_with

DOCUMENT = pathlib.Path(
    os.environ.get("REPLAY_RELIABILITY_DOCUMENT", ROOT / "docs" / "reliability.md")
)
SECTION = "## Faults of system calls"
COLUMNS = ["call", "fault", "outcome", "test"]
# Sections whose tables name tests of one file, by a part of their names.
SHORT_NAMES = {
    "## Signals": "tests/e2e/signals_test.py",
    "## Network": "tests/e2e/network_trouble_test.py",
}

# Of the C library, what makes no call to the system that could fail, or makes it by one
# that the table has: the standard streams write, strerror and its like only look up.
WITHOUT_SYSTEM_CALLS = set(
    """abort fflush fprintf free inet_addr memchr memcmp memcpy memmove memset printf
    sigemptyset strcasecmp strcmp strerror strlen strtod strtol tolower versionsort
    """.split()
)
# What the standard library and libpcap call on the sender's behalf, which the sender's
# own imports do not show.
BY_LIBRARIES = set(
    """close connect fclose fopen fstat getdents64 lseek malloc mmap mprotect nanosleep open
    pthread_create pthread_join read write
    """.split()
)
# How the unit tests' trace words the commands of fcntl.
TRACED_AS = {"F_SETFD": "cloexec", "F_GETFL": "get-flags", "F_SETFL": "set-flags"}
OPTION = r"\b(?:(?:SO|IP|TCP)_[A-Z_]+|F_[A-Z]+)\b"
ERRNOS = set(errno.errorcode.values())


class Row:
    """One line of the table: its call, its options, its errnos, and its tests as
    (file, name)."""

    def __init__(self, line):
        cells = cells_of(line)
        assert len(cells) == len(COLUMNS), f"not {len(COLUMNS)} cells: {line}"
        assert all(cells), f"an empty cell: {line}"
        self.line = line
        self.call = re.match(r"`(\w+)`", cells[0])
        assert self.call, f"names no call: {line}"
        self.call = self.call[1]
        self.options = re.findall(OPTION, cells[0])
        self.errnos = [word for word in re.findall(r"\b\w+\b", cells[1]) if word in ERRNOS]
        self.tests = re.findall(r"`(tests/[\w/]+\.(?:cpp|py))` `([\w.]+)`", cells[3])


def cells_of(line):
    return [cell.strip() for cell in re.split(r"(?<=\s)\|(?=\s)", line.strip()[1:-1])]


def section_of(text, title):
    _, found, section = text.partition(f"{title}\n")
    assert found, f"no section {title!r}"
    return section


def rows_of(text):
    """The rows of the section's table."""
    section = re.split(r"\n#+ ", section_of(text, SECTION))[0]
    lines = [line for line in section.splitlines() if line.startswith("|")]
    assert lines, f"no table under {SECTION!r}"
    head = cells_of(lines[0])
    assert head == COLUMNS, f"the columns are {head}"
    return [Row(line) for line in lines[2:]]


# -------------------------------------------------------------- the files of tests


class PythonTests:
    """The tests of a Python file, and the source that each of them consists of, without
    its comments: its decorators, its body and the module's own lists that these name."""

    def __init__(self, path):
        module = ast.parse(path.read_text())
        self._lists = {
            target.id: node.value
            for node in module.body if isinstance(node, ast.Assign)
            for target in node.targets if isinstance(target, ast.Name)
        }
        # Only what stands by itself is run as a test.
        self._tests = {
            node.name: node for node in module.body
            if isinstance(node, ast.FunctionDef) and node.name.startswith("test_")
        }

    def names(self):
        return list(self._tests)

    def source(self, name):
        test = self._tests[name]
        body = test.body[1:] if ast.get_docstring(test) else test.body
        parts = [*test.decorator_list, *body]
        seen = set()
        for part in parts:
            for node in ast.walk(part):
                if isinstance(node, ast.Name) and node.id in self._lists:
                    if node.id not in seen:
                        seen.add(node.id)
                        parts.append(self._lists[node.id])
        return "\n".join(map(ast.unparse, parts))


CPP_COMMENT = r"(?://[^\n]*|/\*.*?\*/)"
CPP_STRING = r"""(R"(\w*)\(.*?\)\2"|"(?:\\.|[^"\\\n])*"|'(?:\\.|[^'\\])')"""


def without_comments(text):
    """A C++ source's text; what looks like a comment within a string stays."""
    return re.sub(f"{CPP_STRING}|{CPP_COMMENT}", r"\1", text, flags=re.DOTALL)


class CppTests:
    """The same for a C++ file: a test's body, its parameters and the lists they name,
    which may stand in a header of the tests."""

    def __init__(self, path, root):
        self._text = without_comments(path.read_text())
        headers = re.findall(r'^#include "(support/[\w/]+\.h)"', self._text, re.MULTILINE)
        around = [(root / "tests" / header) for header in headers]
        texts = [self._text]
        texts += [without_comments(each.read_text()) for each in around if each.exists()]
        self._lists = {}
        for text in texts:
            for found in re.finditer(
                r"^(?:(?:inline|static|const|constexpr) )+[\w:<>]+ (\w+)(?:\[\])? = \{.*?\};$",
                text, re.MULTILINE | re.DOTALL,
            ):
                self._lists[found[1]] = found[0]

    def names(self):
        found = re.findall(
            r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", self._text, re.MULTILINE
        )
        return [f"{suite}.{test}" for suite, test in found]

    def source(self, name):
        suite, _, test = name.partition(".")
        body = rf"^TEST(?:_F|_P)?\(\s*{suite},\s*{test}\s*\)[^\n]*\n.*?^\}}"
        parameters = rf"^INSTANTIATE_TEST_SUITE_P\(\s*\w+,\s*{suite}\b.*?;$"
        flags = re.MULTILINE | re.DOTALL
        parts = [re.search(body, self._text, flags)[0]]
        parts += re.findall(parameters, self._text, flags)
        seen = set()
        for part in parts:
            for word in re.findall(r"\b[A-Z][A-Z_]+\b", part):
                if word in self._lists and word not in seen:
                    seen.add(word)
                    parts.append(self._lists[word])
        return "\n".join(parts)


@functools.cache
def read_tests(path, root):
    return PythonTests(path) if path.suffix == ".py" else CppTests(path, root)


def missing_tests(rows, root):
    """One line for each row without a test and for each test that is not there."""
    problems = []
    for row in rows:
        if not row.tests:
            problems.append(f"names no test: {row.line}")
        for file, name in row.tests:
            if not (root / file).exists():
                problems.append(f"no file {file}, for `{row.call}`")
            elif name not in read_tests(root / file, root).names():
                problems.append(f"no test {name} in {file}, for `{row.call}`")
    return problems


def untried_words(rows, root):
    """One line for each row whose tests lack an errno or an option that it names."""
    problems = []
    for row in rows:
        sources = [read_tests(root / file, root).source(name) for file, name in row.tests]
        tried = set(re.findall(r"[\w-]+", "\n".join(sources)))
        wanted = [*row.errnos, *(TRACED_AS.get(option, option) for option in row.options)]
        lacking = [word for word in wanted if word not in tried]
        if lacking:
            problems.append(f"untried: {' '.join(lacking)}: {row.line}")
    return problems


# -------------------------------------------------------------- the sender's calls


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


def options_of(text):
    """The options and commands in a source's calls of setsockopt and fcntl."""
    calls = re.findall(r"(?:\bsetsockopt|\bset_int_option|\bfcntl)\(([^;{]*)\)", text)
    return set(re.findall(OPTION, "\n".join(calls)))


def options_in_rows(rows):
    return {option for row in rows for option in row.options}


# -------------------------------------------------------------- the other tables


def short_names(text, title):
    """The names in the columns "test" of the section's tables."""
    section = re.split(r"\n## ", section_of(text, title))[0]
    names, column = [], None
    for line in section.splitlines():
        if not line.startswith("|"):
            column = None
        elif column is None:
            head = cells_of(line)
            column = head.index("test") if "test" in head else -1
        elif column >= 0 and not line.startswith("|--"):
            found = re.findall(r"`(\w+)`", cells_of(line)[column])
            assert found, f"names no test: {line}"
            names += found
    return names


def unknown_names(names, tests):
    """Those that are no part of any test's name."""
    return [name for name in names if not any(name in test for test in tests)]


# ------------------------------------------------------------------- the document


@pytest.fixture
def text():
    assert DOCUMENT.exists(), f"no {DOCUMENT}"
    return DOCUMENT.read_text()


@pytest.fixture
def rows(text):
    return rows_of(text)


def test_each_test_that_the_table_names_is_there(rows):
    problems = missing_tests(rows, ROOT)
    assert not problems, "\n".join(problems)


def test_each_errno_and_each_option_of_a_row_is_tried_by_a_test_of_that_row(rows):
    problems = untried_words(rows, ROOT)
    assert not problems, "\n".join(problems)


def test_each_option_and_command_that_the_sender_uses_has_a_row(rows):
    sources = "\n".join(path.read_text() for path in (ROOT / "src").iterdir())
    assert options_in_rows(rows) == options_of(sources)


@not_with(("asan", "tsan"), "their runtime imports calls of its own")
def test_each_call_that_the_sender_makes_has_a_row(rows):
    calls = calls_of(imported_symbols(BINARY)) | BY_LIBRARIES
    missing = missing_rows(rows, calls)
    assert not missing, f"no row in {DOCUMENT} for: {', '.join(missing)}"


@pytest.mark.parametrize("title", SHORT_NAMES)
def test_each_test_that_another_table_names_is_there(text, title):
    names = short_names(text, title)
    assert names, f"no tests named under {title!r}"
    unknown = unknown_names(names, PythonTests(ROOT / SHORT_NAMES[title]).names())
    assert not unknown, f"no tests of these names in {SHORT_NAMES[title]}: {unknown}"


# ------------------------------------------------------- what the checks notice

MADE_UP = f"""# Title

{SECTION}

Words.

| call | fault | outcome | test |
|---|---|---|---|
| `send` | EIO EPERM | x | `tests/unit/a_test.cpp` `Suite.Name`<br>`tests/e2e/b_test.py` `test_b` |
| `recv` | none | received | see above |

### Other

| `accept` | not | here |
"""
OPTIONS = f"""{SECTION}

| call | fault | outcome | test |
|---|---|---|---|
| `setsockopt` SO_REUSEADDR, TCP | EPERM | refused | `tests/unit/a_test.cpp` `Suite.Name` |
| `fcntl` F_SETFD | EBADF | refused | `tests/unit/a_test.cpp` `Suite.Name` |
"""
CPP = """#include "support/lists.h"
const errors_t OWN = {EINTR,
                      EAGAIN};
constexpr int OTHER = {ENODEV};

// EACCES
TEST{kind}({newline}Suite,{newline}Name)
{
    fail("option // SO_REUSEADDR", EIO, OWN); // EBUSY
    /* ECHILD
       EDOM */ fail('"', R"(")"); /* " */
}

INSTANTIATE_TEST_SUITE_P(
    Every, Suite, testing::Values(EPERM), SHARED);

INSTANTIATE_TEST_SUITE_P(Every, SuiteOther, testing::Values(ENOSPC));
"""
PYTHON = """
FAULTS = ["close:error=EINTR"]
OTHERS = ["EBUSY"]

@pytest.mark.parametrize("error", ["EIO", *FAULTS])
def test_b(error):
    '''EBADF'''
    assert "EPERM"  # ENODEV

def helper():
    def test_nested():
        assert "ENODEV"
"""


@pytest.fixture
def tree(tmp_path):
    for folder in ("unit", "e2e", "support"):
        (tmp_path / "tests" / folder).mkdir(parents=True)
    (tmp_path / "tests/unit/a_test.cpp").write_text(cpp())
    (tmp_path / "tests/e2e/b_test.py").write_text(PYTHON)
    (tmp_path / "tests/support/lists.h").write_text(
        "inline const std::vector<int> SHARED = {ESTALE,\n    ENOMEM};\n"
    )
    return tmp_path


def cpp(kind="", newline=""):
    return CPP.replace("{kind}", kind).replace("{newline}", newline)


def errnos_in(source):
    return {word for word in re.findall(r"\w+", source) if word in ERRNOS}


def test_a_row_has_a_call_its_errnos_and_its_tests():
    send, recv = rows_of(MADE_UP)
    assert (send.call, recv.call) == ("send", "recv")
    assert (send.errnos, recv.errnos) == (["EIO", "EPERM"], [])
    assert send.tests == [
        ("tests/unit/a_test.cpp", "Suite.Name"), ("tests/e2e/b_test.py", "test_b"),
    ]


def test_a_missing_file_a_missing_test_and_a_row_without_a_test_are_told(tree):
    (tree / "tests/unit/a_test.cpp").write_text("TEST(Suite, NameOther)\n{\n}\n")
    (tree / "tests/e2e/b_test.py").unlink()
    problems = missing_tests(rows_of(MADE_UP), tree)
    assert problems == [
        "no test Suite.Name in tests/unit/a_test.cpp, for `send`",
        "no file tests/e2e/b_test.py, for `send`",
        "names no test: | `recv` | none | received | see above |",
    ]


@pytest.mark.parametrize("kind", ["", "_F", "_P"])
@pytest.mark.parametrize("newline", ["", "\n    "])
def test_a_test_is_found_with_its_parameters_and_lists_however_it_is_written(
    tree, kind, newline
):
    path = tree / "tests/unit/a_test.cpp"
    path.write_text(cpp(kind, newline))
    tests = CppTests(path, tree)
    assert tests.names() == ["Suite.Name"]
    expected = {"EIO", "EINTR", "EAGAIN", "EPERM", "ESTALE", "ENOMEM"}
    assert errnos_in(tests.source("Suite.Name")) == expected


def test_a_function_within_another_is_no_test_and_a_list_counts_where_it_is_named(tree):
    tests = PythonTests(tree / "tests/e2e/b_test.py")
    assert tests.names() == ["test_b"]
    assert errnos_in(tests.source("test_b")) == {"EIO", "EINTR", "EPERM"}


def test_an_errno_and_an_option_that_no_test_of_the_row_tries_are_told(tree):
    assert untried_words(rows_of(MADE_UP.replace("EPERM", "ESTALE"))[:1], tree) == []
    untried = untried_words(rows_of(MADE_UP.replace("EPERM", "EBUSY"))[:1], tree)
    assert [line.partition(": |")[0] for line in untried] == ["untried: EBUSY"]
    untried = untried_words(rows_of(OPTIONS), tree)
    assert [line.partition(": |")[0] for line in untried] == ["untried: EBADF cloexec"]


def test_the_options_of_sources_and_rows_are_found():
    source = """
    return ::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &a, sizeof(a));
    return set_int_option(fd, SOL_SOCKET, SO_REUSEADDR, 1);
    const int rc = ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    enum { TCP_HEADER_OFFSET = 47 };
    """
    assert options_of(source) == {"IP_MULTICAST_IF", "SO_REUSEADDR", "F_SETFD"}
    assert options_in_rows(rows_of(OPTIONS)) == {"SO_REUSEADDR", "F_SETFD"}


def test_a_call_without_a_row_is_told():
    symbols = ["send@GLIBC_2.2.5", "__read_chk@GLIBC_2.4", "stat64", "strlen", "__x"]
    assert missing_rows(rows_of(MADE_UP), calls_of(symbols)) == ["read", "stat"]


def test_a_short_name_that_is_no_part_of_a_tests_name_is_told():
    made_up = (
        "## One\n| what | test |\n|---|---|\n| a | `any_moment` (paced), `storm` |\n"
        "\n| count |\n|---|\n| `7` |\n\n### More\n| x | y | test |\n|---|---|---|\n"
        "| b | | `halted` |\n"
        "## Two\n| x | test |\n|---|---|\n| b | `other` |\n"
    )
    assert short_names(made_up, "## One") == ["any_moment", "storm", "halted"]
    tests = ["test_a_stop_at_any_moment", "test_a_storm_of_signals"]
    assert unknown_names(["any_moment", "storm", "halted"], tests) == ["halted"]
