"""Each command in the tables of both readme files does what is said of it. It is taken out of
the file and typed as it stands, between two hosts with a device eth1. The commands of the
blocks are typed in tests/packaging/first_steps_test.py.
"""

import re
import signal
import struct

import pytest

from blocks import recipe_book, tabled
from conftest import ROOT, debug_dump, echo, pieces
from links_test import FENCED, LINK
from stage import DAY, DAYS, GROUP, MATCHED, recorded_group, stage  # noqa: F401: a fixture
from udp_receiver import UdpReceiver

READMES = ("README.md", "README.zh-CN.md")
LARGEST_PICTURE = 200_000

RECIPES, recipe = recipe_book()


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
    assert recorded_group(stage, command, "day.pcap", "seen.pcap") == MATCHED


# ------------------------------------------------------------------- are all tried

COMMANDS = list(dict.fromkeys(each for readme in READMES for each in tabled(readme)))


@pytest.mark.parametrize("command", COMMANDS)
def test_a_command_does_what_is_said_of_it(stage, command):
    assert command in RECIPES, "no recipe here says how to try it"
    RECIPES[command](stage, command)


def test_each_recipe_is_for_a_command():
    assert set(RECIPES) - set(COMMANDS) == set()


# ----------------------------------------------------------- what a language has, both have


def chapters(readme):
    """The text of each chapter, without its blocks."""
    return re.split(r"^#+ ", FENCED.sub("", (ROOT / readme).read_text()), flags=re.M)[1:]


def shape(readme):
    """By chapter: the items of lists, the rows of tables, and where links lead."""
    for chapter in chapters(readme):
        targets = set(LINK.findall(chapter)) - {*READMES}
        yield len(re.findall(r"^- ", chapter, re.M)), len(re.findall(r"^\|", chapter, re.M)), targets


def test_both_languages_have_the_same_chapters():
    assert [*shape(READMES[0])] == [*shape(READMES[1])]


@pytest.mark.parametrize("readme", READMES)
def test_the_packages_to_build_with_are_those_that_are_installed(readme):
    bootstrap = (ROOT / "script/bootstrap").read_text()
    (listed,) = re.findall(r"^    manager=apt$.*?^    build=\((.*?)\)$", bootstrap, re.M | re.S)
    boost = re.findall(r"boost=(libboost[\w.]*-dev)", bootstrap)
    wanted = {*listed.replace('"$boost"', " ".join(boost)).split()}
    (install,) = (each for each in chapters(readme) if "script/bootstrap build" in each)
    named = {word for span in re.findall(r"`([^`]+)`", install) for word in span.split()}
    # README builds with make.
    assert {each for each in named if each in wanted or each.endswith("-dev")} == (
        wanted - {"ninja-build"}
    )


def test_both_languages_have_the_same_commands_in_one_order():
    assert tabled(READMES[0]) == tabled(READMES[1])
    assert len(tabled(READMES[0])) > 5


def test_the_picture_is_one_and_small():
    data = (ROOT / "docs" / "report.png").read_bytes()
    assert data[:16] == b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR"
    width, height = struct.unpack(">II", data[16:24])
    assert 600 <= width <= 2400 and 400 <= height <= 2400
    assert len(data) < LARGEST_PICTURE
