"""What the blocks of both readme files give to type does what is said of it. Each command is
taken out of the file and typed as it stands, in a tree that a stranger has unpacked and built.
The commands of the tables are typed in tests/docs/readme_test.py.
"""

import os
import re
import socket
import sys

import pytest

from conftest import BUILD_COMMAND, PROGRAMS, ROOT, installed_files, need, run, type_in

sys.path.append(str(ROOT / "tests" / "docs"))
from blocks import fenced, recipe_book, typed  # noqa: E402: they are there

READMES = ("README.md", "README.zh-CN.md")

RECIPES, recipe = recipe_book()


@recipe("script/demo")
def the_demonstration(demonstrated, command):
    verdicts = [line for line in demonstrated if line.startswith("As expected: ")]
    assert len(verdicts) == 2


@recipe("script/test")
def all_the_tests(command):
    """This test is one of them, so the build machine runs it, by .ci/run."""
    assert os.access(ROOT / command, os.X_OK)
    calls = re.findall(r"^(script/\w+)", (ROOT / ".ci/run").read_text(), re.M)
    assert command in calls


@recipe(BUILD_COMMAND)
def both_programs(stranger, command):
    for program in PROGRAMS:
        assert os.access(stranger / "build" / program, os.X_OK)


@recipe("build/replay_sender --help")
@recipe("build/replay_receiver --help")
def the_help(stranger, command):
    assert "--filepath" in type_in(stranger, command)


@recipe("sudo cmake --install build")
def installed(stranger, command, tmp_path):
    """Into another root, and so without sudo."""
    need("scdoc")
    type_in(stranger, command.removeprefix("sudo "), DESTDIR=str(tmp_path))
    prefix = tmp_path / "usr" / "local"
    names = {str(path.relative_to(prefix)) for path in prefix.rglob("*") if path.is_file()}
    assert names == installed_files()


PACK_COMMAND = "cpack -G DEB --config build/CPackConfig.cmake -B build"


@pytest.fixture(scope="session")
def packed(stranger):
    need("cpack", "dpkg-deb", "dpkg-shlibdeps")
    type_in(stranger, PACK_COMMAND)
    return stranger


@recipe(PACK_COMMAND)
def a_package(packed, command):
    assert len(list((packed / "build").glob("replay-sender_*.deb"))) == 1


@recipe("sudo apt install ./build/replay-sender_*.deb")
def a_package_that_dpkg_can_read(packed, command):
    """It is not installed here: that takes a root of its own, as packaging/install_check
    makes. The same package, byte by byte, is installed in install_check_test.py."""
    path = command.split()[-1]
    assert type_in(packed, f"dpkg --field {path} Package") == "replay-sender\n"
    contents = type_in(packed, f"dpkg --contents {path}")
    for program in PROGRAMS:
        assert f" ./usr/bin/{program}\n" in contents


# ------------------------------------------------------------------- are all tried

COMMANDS = list(dict.fromkeys(each for readme in READMES for each in typed(readme)))


@pytest.mark.parametrize("command", COMMANDS)
def test_a_command_does_what_is_said_of_it(request, command):
    assert command in RECIPES, "no recipe here says how to try it"
    function = RECIPES[command]
    wanted = function.__code__.co_varnames[: function.__code__.co_argcount]
    given = {name: request.getfixturevalue(name) for name in wanted if name != "command"}
    function(**given, command=command)


def test_each_recipe_is_for_a_command():
    assert set(RECIPES) - set(COMMANDS) == set()


def test_both_languages_have_the_same_commands_in_one_order():
    assert typed(READMES[0]) == typed(READMES[1])


@pytest.mark.parametrize("readme", READMES)
def test_the_two_commands_come_first(readme):
    assert typed(readme)[:2] == ["script/demo", "script/test"]


# ------------------------------------------------------------ what is shown of a run


def shown(readme):
    """The lines that the readme shows of the demonstration."""
    (block,) = (content for language, content in fenced(readme) if language == "text")
    return block.splitlines()


# What has no time and no rate in it.
COUNTED = re.compile("As expected|Compared|Pages")


def masked(line):
    """Without the figures, which each run has its own."""
    return re.sub(r"-?\d[\d,.]*\d|-?\d", "N", line)


@pytest.fixture(scope="session")
def demonstrated(stranger):
    """The lines of the demonstration, which takes any rate here: the machine is busy."""
    demo = stranger / "script" / "demo"
    text, count = re.subn(r"--tolerance 5\b", "--tolerance 99", demo.read_text())
    assert count == 1
    demo.write_text(text)
    lines = type_in(stranger, "script/demo").splitlines()
    for page in ("data-file", "capture"):
        assert (stranger / "build" / "demo" / f"{page}.html").stat().st_size > 0
    return [line.replace(f"{stranger}/", "") for line in lines]


def test_what_is_shown_is_what_a_run_says(demonstrated):
    """Line by line; the counts are the same in each run, the times and rates are not."""
    said = [masked(line) for line in demonstrated]
    second = next(i for i, line in enumerate(demonstrated) if "--filetype 1" in line)
    for readme in READMES:
        lines = [line for line in shown(readme) if not line.startswith("$")]
        assert "..." in lines  # in place of the rest of the summary
        lines = [line for line in lines if line not in ("", "...")]
        positions = [said.index(masked(line), second) for line in lines]
        assert positions == sorted(positions)
        for line in lines:
            assert line in demonstrated or not COUNTED.match(line), line


def test_both_languages_show_the_same():
    assert shown(READMES[0]) == shown(READMES[1])


@pytest.mark.parametrize("readme", READMES)
def test_the_commands_that_are_shown_are_those_of_the_demonstration(demonstrated, readme):
    """They end in "...", as a line is too short for them."""
    found = [line for line in shown(readme) if line.startswith("$ ")]
    assert len(found) == 2
    for line in found:
        beginning, elision, _ = line.partition(" ...")
        assert elision and any(said.startswith(f"{beginning} ") for said in demonstrated)


# --------------------------------------------------------- the port of a demonstration


def demo_port(seed):
    """The port that script/demo takes when its dice fall this way."""
    text = (ROOT / "script" / "demo").read_text()
    functions = re.findall(
        r"^(?:is_free|free_port)\(\) (?:\{ .*? \}|\{\n.*?\n\})$", text, re.M | re.S
    )
    assert len(functions) == 2
    return int(run("bash", "-euc", "\n".join([*functions, f"RANDOM={seed}", "free_port"])))


@pytest.mark.parametrize("kind", [socket.SOCK_STREAM, socket.SOCK_DGRAM])
@pytest.mark.parametrize("family, address", [
    (socket.AF_INET, "127.0.0.1"), (socket.AF_INET, "0.0.0.0"), (socket.AF_INET6, "::"),
])
def test_the_demonstration_leaves_a_port_alone_that_somebody_has(family, address, kind):
    if family == socket.AF_INET6 and not os.path.exists("/proc/net/tcp6"):
        pytest.skip("no IPv6 here")
    seed = 7
    with socket.socket(family, kind) as mine:
        mine.bind((address, demo_port(seed)))
        if kind == socket.SOCK_STREAM:
            mine.listen()
        port = mine.getsockname()[1]
        other = demo_port(seed)
    assert 20000 <= other < 30000
    assert other != port
    assert demo_port(seed) == port
