"""The options are the same everywhere: in the programs' own help, in the manuals of
both languages, in the completions of the three shells and in the readme files.
"""

import re
import shlex

import pytest

from blocks import tabled
from conftest import COMPLETIONS, HELP_LINE, PROGRAMS, ROOT, help_options, option_names, run

MANUALS = ("docs/man", "docs/man/zh_CN")
READMES = ("README.md", "README.zh-CN.md")
OPTION_SECTIONS = ("# OPTIONS", "# 选项")
# Lines with options that are not ours.
OF_CMAKE = re.compile(r"^\$ (?:sudo )?(?:cmake|cpack) ")


def manual(folder, program):
    return (ROOT / folder / f"{program}.1.scd").read_text()


def sections(text):
    """The lines of a manual by section head."""
    found = {}
    for line in text.splitlines():
        if line.startswith("# "):
            lines = found[line] = []
        elif found:
            lines.append(line)
    return found


def option_terms(folder, program):
    """The heads of the option list, without the marks for bold and underlined."""
    chapters = sections(manual(folder, program))
    (head,) = set(OPTION_SECTIONS) & set(chapters)
    return [re.sub("[*_]", "", line) for line in chapters[head] if line.startswith("*-")]


def names_in(terms):
    return [name for term in terms for name in re.findall(r"(?:^|, )(-[\w-]+)", term)]


# ---------------------------------------------------------------------- manuals


@pytest.mark.parametrize("folder", MANUALS)
@pytest.mark.parametrize("program", PROGRAMS)
def test_a_manual_describes_each_option_of_the_program_once(program, folder):
    names = names_in(option_terms(folder, program))
    assert sorted(names) == sorted(option_names(program))


@pytest.mark.parametrize("program", PROGRAMS)
def test_both_languages_name_options_and_values_alike_and_in_one_order(program):
    english, chinese = (option_terms(folder, program) for folder in MANUALS)
    assert english == chinese


@pytest.mark.parametrize("folder", MANUALS)
def test_the_receivers_manual_names_the_values_as_its_help_does(folder):
    told = {name: value for _, name, value in help_options("replay_receiver")}
    terms = option_terms(folder, "replay_receiver")
    values = dict(term.rpartition(", ")[2].partition(" ")[::2] for term in terms)
    del told["--help"], values["--help"]
    assert values == told


def test_what_both_programs_take_is_called_the_same_in_both_manuals():
    sender = set(option_terms(MANUALS[0], "replay_sender"))
    receiver = set(option_terms(MANUALS[0], "replay_receiver"))
    # The receiver takes any number, and makes nothing of it.
    assert sender - receiver == {"--debug 0|1"}


@pytest.mark.parametrize("folder", MANUALS)
@pytest.mark.parametrize("program", PROGRAMS)
def test_a_manual_mentions_no_option_that_neither_program_has(program, folder):
    known = set.union(*map(option_names, PROGRAMS))
    mentioned = set(re.findall(r"(?<![\w-])--[a-z][\w-]*", manual(folder, program)))
    assert mentioned <= known


# How help and manuals tell what an option is when it is not given; nothing is no default.
IN_HELP = {
    "replay_sender": r"默认为? ([\w.]+)",
    "replay_receiver": r"\((?:UDP: )?([\w.]+)[,)]",
}
IN_MANUAL = {
    "docs/man": r"Default: \*([\w.]+)\*",
    "docs/man/zh_CN": r"默认(?: UDP 为)? \*([\w.]+)\*",
}
ENTRY = re.compile(r"^\*(?:-\w\*, \*)?(--[\w-]+)\*[^\n]*\n\t([^\n]*)", re.M)


def defaults_in_help(program):
    text = run(program, "--help")
    heads = [*HELP_LINE.finditer(text)]
    ends = [head.start() for head in heads[1:]] + [len(text)]
    entries = {
        head[2]: text[head.end() : end].partition("\n\n")[0]
        for head, end in zip(heads, ends, strict=True)
    }
    return {
        name: found[1]
        for name, entry in entries.items()
        if (found := re.search(IN_HELP[program], entry))
    }


@pytest.mark.parametrize("folder", MANUALS)
@pytest.mark.parametrize("program", PROGRAMS)
def test_a_manual_tells_the_defaults_that_the_help_tells(program, folder):
    told = {
        name: found[1]
        for name, entry in ENTRY.findall(manual(folder, program))
        if (found := re.search(IN_MANUAL[folder], entry))
    }
    assert len(told) > 5
    assert told == defaults_in_help(program)


# ------------------------------------------------------------------ completions

# How each shell's file writes an option down.
WRITTEN = {
    "{}.bash": r"(?<=[ '])(--?[a-z][\w-]*)(?=[ '\n])",
    "_{}": r"^ +'?(?:\(- \*\))?'?[*{]?(-[\w,-]+)",
    "{}.fish": r" -([sl] [\w-]+)",
}


def names_in_completion(pattern, program):
    text = (COMPLETIONS / pattern.format(program)).read_text()
    if pattern == "{}.bash":  # elsewhere in it are options of the shell's own commands
        text = "".join(re.findall(r"local (?:names|flags|options)='[^']*'\n", text))
    names = []
    for found in re.findall(WRITTEN[pattern], text, re.M):
        names += found.replace("s ", "-").replace("l ", "--").split(",")
    return names


@pytest.mark.parametrize("pattern", WRITTEN)
@pytest.mark.parametrize("program", PROGRAMS)
def test_a_completion_names_each_option_of_the_program_once(program, pattern):
    names = names_in_completion(pattern, program)
    assert sorted(names) == sorted(option_names(program))


# ----------------------------------------------------------------------- readme


def commands(readme):
    """The words of each command of the tables that runs one of the programs."""
    return [words for words in map(shlex.split, tabled(readme)) if words[0] in PROGRAMS]


@pytest.mark.parametrize("readme", READMES)
def test_the_commands_of_a_readme_use_options_that_their_program_has(readme):
    found = commands(readme)
    assert found
    for words in found:
        names = {word for word in words if word.startswith("-")}
        assert names <= option_names(words[0]), words


def test_the_tables_of_a_readme_use_every_option_that_the_sender_has():
    used = {word for words in commands(READMES[0]) for word in words}
    # These three are for those who know why: the manual tells.
    assert option_names("replay_sender") - used == {"-h", "--help", "--preload"}


@pytest.mark.parametrize("readme", READMES)
def test_a_readme_mentions_no_option_that_neither_program_has(readme):
    known = set.union(*map(option_names, PROGRAMS))
    text = (ROOT / readme).read_text()
    lines = [line for line in text.splitlines() if not OF_CMAKE.search(line)]
    assert set(re.findall(r"(?<![\w-])--[a-z][\w-]*", "\n".join(lines))) <= known
