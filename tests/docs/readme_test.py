"""Each command of both readme files does what is said of it. It is taken out of the file
and typed as it stands, the ones of the tables between two hosts with a device eth1.
"""

import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import tempfile

import pytest

from blocks import fenced, tabled, typed
from conftest import PROGRAMS, ROOT, debug_dump, echo, pieces
from replay_receiver import captured_payloads
from stage import DAY, DAYS, MATCHED, stage  # noqa: F401: a fixture
from udp_receiver import UdpReceiver

READMES = ("README.md", "README.zh-CN.md")
GROUP = "239.1.1.1"
LARGEST_PICTURE = 200_000

RECIPES = {}


def recipe(command):
    """Tells how to try this command. What it is given, beside the command, are fixtures."""

    def keep(function):
        assert command not in RECIPES
        RECIPES[command] = function
        return function

    return keep


def commands(readme):
    return typed(readme) + tabled(readme)


# ---------------------------------------------------------------------- the tables


def sent_over_tcp(stage, command, expected, port=9089, **settings):
    """Runs a sender, and returns it when a receiver has all that is expected."""
    address = settings.pop("address", "127.0.0.1")
    host = settings.pop("host", None)
    sender = stage.serve(command, port)
    receiver = stage.connect(port, address, host)
    assert receiver.read_exactly(len(expected)) == expected
    return sender, receiver


def ends_with(sender, receiver, output):
    """Ctrl-C ends it, and nothing more has been sent."""
    assert sender.stop(signal.SIGINT) == 0
    assert receiver.read_to_end() == b""
    sender.expect(0, output)


@recipe("replay_sender --filepath day.dat")
def one_file(stage, command):
    sender, receiver = sent_over_tcp(stage, command, DAY)
    ends_with(sender, receiver, echo("day.dat", "127.0.0.1:9089"))


@recipe("replay_sender --filepath day.dat --mbps 50 --loopback 3")
def three_passes_at_a_rate(stage, command):
    sender, receiver = sent_over_tcp(stage, command, 3 * DAY)
    ends_with(
        sender,
        receiver,
        echo("day.dat", "127.0.0.1:9089", loopback=3, in_speed=50_000_000),
    )


@recipe("replay_sender --filepath days/ --loopback 0")
def a_folder_without_end(stage, command):
    one_pass = b"".join(DAYS[name] for name in ("f1", "f2", "f10"))
    sender, receiver = sent_over_tcp(stage, command, 100 * one_pass)
    receiver.close()
    assert sender.stop(signal.SIGINT) == 0
    assert sender.output().startswith(echo("days/", "127.0.0.1:9089", loopback=0))


@recipe("replay_sender --filepath day.dat --ip 0.0.0.0 --port 7000")
def for_every_network(stage, command):
    sender, receiver = sent_over_tcp(
        stage, command, DAY, port=7000, address=stage.sending.address, host=stage.receiving
    )
    ends_with(sender, receiver, echo("day.dat", "0.0.0.0:7000"))


@recipe(
    "replay_sender --filetype 1 --filepath day.pcap --filter 'udp and port 5000' "
    "--protocol udp --ip 239.1.1.1 --port 5000 --device eth1"
)
def a_capture_to_a_group(stage, command):
    with stage.receiving.inside():
        member = UdpReceiver(host="", port=5000)
        member.join(GROUP, stage.receiving.address)
    sender = stage.send(command)
    assert member.receive(len(MATCHED)) == MATCHED
    assert sender.stop(signal.SIGINT) == 0
    assert member.is_quiet()
    member.close()
    assert f"\nprotocol: udp\ndevice: eth1\n{opened('day.pcap')}" in sender.output()


def opened(name):
    return f"reading from file: {name}, link-type EN10MB"


@recipe("replay_sender --filepath day.dat --debug 1")
def in_hexadecimal(stage, command):
    data = DAY[:25000]
    stage.write("day.dat", data)
    sender, receiver = sent_over_tcp(stage, command, data)
    sender.wait_for_output("=" * 29, 3)
    ends_with(
        sender, receiver, echo("day.dat", "127.0.0.1:9089") + debug_dump(pieces(data))
    )


@recipe("replay_receiver --filepath day.dat --mbps 50 --plan")
def a_plan(stage, command):
    run = stage.receive(command)
    run.expect(0)
    assert "221 messages" in run.output() and f"{len(DAY):,} bytes" in run.output()
    assert round(len(DAY) * 8 / 50_000) == 360 and "360 ms at 50 Mbps" in run.output()


@recipe("replay_receiver --filepath day.dat --mbps 50 --report day.html")
def a_proof(stage, command):
    """The rate is measured, and a busy machine may miss it: then the status is 4."""
    sender = stage.serve("replay_sender --filepath day.dat --mbps 50", 9089)
    run = stage.receive(command, stage.sending)
    assert run.wait() in (0, 4)
    assert f"{len(DAY):,} of {len(DAY):,} bytes whole" in run.output()
    assert stage.read("day.html").lower().startswith(b"<!doctype html>")
    assert sender.stop(signal.SIGINT) == 0


@recipe(
    "replay_receiver --protocol udp --ip 239.1.1.1 --port 5000 --device eth1 "
    "--duration 60 --write seen.pcap"
)
def a_minute_of_a_group(stage, command):
    """The minute is cut short, by a Ctrl-C behind the last datagram."""
    run = stage.receive(command)
    run.wait_until_bound(5000, GROUP)
    sender = stage.send(
        "replay_sender --filetype 1 --filepath day.pcap --filter 'udp and port 5000' "
        "--protocol udp --ip 239.1.1.1 --port 5000 --device eth1 --mbps 20"
    )
    run.wait_until(
        lambda: stage.receiving.counter("Udp", "InDatagrams") == len(MATCHED),
        "all datagrams",
    )
    run.signal(signal.SIGINT)
    run.expect(0)
    assert captured_payloads(stage.folder / "seen.pcap") == MATCHED
    assert sender.stop(signal.SIGINT) == 0


# ---------------------------------------------------------------------- the blocks


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


def copy_tree(folder):
    """This tree without its history and what was built."""

    def left_out(place, names):
        top = {".git", "build"} if place == str(ROOT) else set()
        return top | ({"__pycache__", "corpus"} & set(names))

    return shutil.copytree(ROOT, folder / "replay_sender", ignore=left_out)


@pytest.fixture(scope="session")
def tree():
    """A copy to build in."""
    for tool in ("cmake", "make", "c++"):
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")
    with tempfile.TemporaryDirectory() as place:
        yield copy_tree(pathlib.Path(place))


def must_run(tree, command, **environment):
    done = subprocess.run(
        ["bash", "-c", command], cwd=tree, env={**os.environ, **environment},
        capture_output=True, text=True,
    )
    assert done.returncode == 0, f"{command}\n{done.stdout}\n{done.stderr}"
    return done.stdout


@pytest.fixture(scope="session")
def built(tree):
    """The tree when it is built by hand, which is the first of these commands. The sender
    alone is built; the receiver is the one that was built before."""
    command = BUILD.replace("-B build", "-B build -D REPLAY_RECEIVER=OFF")
    assert "REPLAY_RECEIVER=OFF" in command
    must_run(tree, command)
    (tree / "build" / "replay_receiver").symlink_to(
        os.path.abspath(PROGRAMS["replay_receiver"])
    )
    return tree


BUILD = "cmake -B build && cmake --build build"


@recipe(BUILD)
def the_sender(built, command):
    assert os.access(built / "build" / "replay_sender", os.X_OK)


@recipe("build/replay_sender --help")
@recipe("build/replay_receiver --help")
def the_help(built, command):
    assert "--filepath" in must_run(built, command)


@recipe("sudo cmake --install build")
def installed(built, command, tmp_path):
    """Into another root, and so without sudo."""
    must_run(built, command.removeprefix("sudo "), DESTDIR=str(tmp_path))
    assert os.access(tmp_path / "usr/local/bin/replay_sender", os.X_OK)


@pytest.fixture(scope="session")
def packed(built):
    if shutil.which("dpkg-shlibdeps") is None:
        pytest.skip("dpkg-dev is not installed")
    must_run(built, PACK)
    return built


PACK = "cpack -G DEB --config build/CPackConfig.cmake -B build"


@recipe(PACK)
def a_package(packed, command):
    assert list((packed / "build").glob("replay-sender_*.deb"))


@recipe("sudo apt install ./build/replay-sender_*.deb")
def a_package_that_dpkg_can_read(packed, command):
    """It is not installed here: that takes a root of its own, as packaging/install_check
    makes. tests/packaging/install_check_test.py runs that."""
    path = command.split()[-1]
    assert must_run(packed, f"dpkg --field {path} Package") == "replay-sender\n"
    assert "./usr/bin/replay_sender\n" in must_run(packed, f"dpkg --contents {path}")


# ------------------------------------------------------------------- are all tried

COMMANDS = list(dict.fromkeys(each for readme in READMES for each in commands(readme)))


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
    assert commands(READMES[0]) == commands(READMES[1])
    assert len(tabled(READMES[0])) > 5


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


# In place of the build, which has a recipe of its own: the programs are there.
CMAKE = """#!/usr/bin/env bash
[ "$*" = "-S . -B build" ] || [ "$1 $2" = "--build build" ] || exit 2
mkdir -p build
ln -sfn "$REPLAY_SENDER" build/replay_sender
ln -sfn "$REPLAY_RECEIVER" build/replay_receiver
"""


@pytest.fixture(scope="session")
def demonstrated():
    """The lines of the demonstration, which takes any rate here: the machine is busy."""
    with tempfile.TemporaryDirectory() as place:
        place = pathlib.Path(place)
        copy = copy_tree(place)
        demo = copy / "script" / "demo"
        text, count = re.subn(r"--tolerance 5\b", "--tolerance 99", demo.read_text())
        assert count == 1
        demo.write_text(text)
        (place / "cmake").write_text(CMAKE)
        (place / "cmake").chmod(0o755)
        programs = {name.upper(): os.path.abspath(path) for name, path in PROGRAMS.items()}
        path = f"{place}:{os.environ['PATH']}"
        lines = must_run(copy, "script/demo", PATH=path, **programs).splitlines()
        for page in ("data-file", "capture"):
            assert (copy / "build" / "demo" / f"{page}.html").stat().st_size > 0
        yield [line.replace(f"{copy}/", "") for line in lines]


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


def test_the_picture_is_one_and_small():
    data = (ROOT / "docs" / "report.png").read_bytes()
    assert data[:16] == b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR"
    width, height = struct.unpack(">II", data[16:24])
    assert 600 <= width <= 2400 and 400 <= height <= 2400
    assert len(data) < LARGEST_PICTURE
