"""The completions, in the real shells: option names, file names, the names of network
devices and the words that an option takes.
"""

import contextlib
import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from conftest import PROGRAMS, option_names
from network_namespace import run as must_run
from shells import STARTS, Shell

FILE_NAMES = {"day 1.dat", "day$2;.dat", "it's.pcap", "days", "日.dat"}
FILE_OPTIONS = {
    "replay_sender": ["--filepath"],
    "replay_receiver": ["--filepath", "--json", "--csv", "--report", "--write"],
}
SHARED_WORDS = {
    "--filetype": {"0", "1"},
    "--protocol": {"tcp", "udp"},
    "--preload": {"0", "1"},
    "--debug": {"0", "1"},
}
WORDS = {
    "replay_sender": SHARED_WORDS,
    "replay_receiver": {**SHARED_WORDS, "--progress": {"auto", "always", "never"}},
}
FREE_OPTIONS = {
    "replay_sender": ["--ip", "--port", "--filter", "--loopback", "--mbps"],
    "replay_receiver": [
        "--ip", "--port", "--filter", "--loopback", "--mbps", "--connect-timeout",
        "--rcvbuf", "--window", "--tolerance", "--settle", "--idle", "--duration",
        "--messages", "--bytes",
    ],
}
FLAGS = {
    "replay_sender": {"-h", "--help"},
    "replay_receiver": {"-h", "--help", "--version", "--plan"},
}
# The kernel allows all but blanks, slashes and colons.
DEVICES = {
    "lo", "eth0", "a$b;c", "it's", 'q"q', "x&y|z", "b\\n", "(n)[1]", "$(id>x)", "`id>y`",
    "t=1", "u@2", "~root", "*", "#c", "!!", "{j,k}", ".hid", "<in>", "网卡0",
}

every_shell = pytest.mark.parametrize("kind", STARTS)
every_program = pytest.mark.parametrize("program", PROGRAMS)


def pairs(table):
    """(program, option) of a table by program."""
    return [(program, option) for program in table for option in table[program]]


@pytest.fixture(scope="module")
def shells():
    """shells(kind) is a shell in a folder with the files and nothing else."""
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        for name in FILE_NAMES - {"days"}:
            (folder / name).write_bytes(b"")
        (folder / "days").mkdir()
        started = {}

        def get(kind):
            if kind not in started:
                home = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
                started[kind] = Shell(kind, home, folder)
                stack.callback(started[kind].end)
            return started[kind]

        yield get


def offered(shell, line):
    """The candidates for the last word of the line; it has more before."""
    count = line.count(" ") - 1
    return shell.candidates(line)[count:]


# ---------------------------------------------------------------- option names


def test_the_tables_here_have_all_options():
    for program in PROGRAMS:
        tabled = {*FILE_OPTIONS[program], *WORDS[program], *FREE_OPTIONS[program]}
        assert tabled | FLAGS[program] | {"--device"} == option_names(program)


@every_program
@every_shell
def test_each_option_of_the_program_is_offered_once(shells, kind, program):
    names = [name.rstrip("=") for name in offered(shells(kind), f"{program} --")]
    assert sorted(names) == sorted(option_names(program) - {"-h"})


@every_program
@every_shell
def test_options_are_offered_behind_options_with_their_values(shells, kind, program):
    line = f"{program} --ip 127.0.0.1 --filepath x --f"
    names = {name.rstrip("=") for name in offered(shells(kind), line)}
    assert names == {"--filepath", "--filetype", "--filter"}


@every_program
@every_shell
def test_a_name_that_is_begun_is_finished(shells, kind, program):
    assert shells(kind).arguments(f"{program} --loopb") in (
        ["--loopback"],
        ["--loopback="],  # what is typed next may take the sign away
    )


@every_program
def test_bash_knows_a_value_that_looks_like_an_option(shells, program):
    """The other shells take it for the option, whatever their completions say."""
    names = offered(shells("bash"), f"{program} --filter --device --loop")
    assert names == ["--loopback"]


# ---------------------------------------------------------------------- values


@pytest.mark.parametrize("program, option", pairs(WORDS))
@every_shell
def test_the_words_that_an_option_takes_are_offered(shells, kind, program, option):
    words = offered(shells(kind), f"{program} {option} ")
    assert sorted(words) == sorted(WORDS[program][option])


@pytest.mark.parametrize("program, option", pairs(FILE_OPTIONS))
@every_shell
def test_an_option_that_takes_a_file_offers_files(shells, kind, program, option):
    names = offered(shells(kind), f"{program} {option} ")
    assert {name.rstrip("/") for name in names} == FILE_NAMES


@pytest.mark.parametrize("program, option", pairs(FREE_OPTIONS))
@every_shell
def test_an_option_that_takes_a_number_or_a_text_offers_nothing(
    shells, kind, program, option
):
    assert offered(shells(kind), f"{program} {option} ") in ([], [""])


@every_program
@every_shell
def test_nothing_is_offered_where_no_word_can_stand(shells, kind, program):
    line = f"{program} --filepath x d"
    assert offered(shells(kind), line) == ["d"]


# -------------------------------------------------- values behind an equals sign


def behind_sign(shell, line):
    """The candidates, with or without the option in front."""
    return {name.rpartition("=")[2] for name in offered(shell, line)}


@pytest.mark.parametrize("option", WORDS["replay_receiver"])
@every_shell
def test_the_receivers_words_are_offered_behind_an_equals_sign(shells, kind, option):
    words = behind_sign(shells(kind), f"replay_receiver {option}=")
    assert words == WORDS["replay_receiver"][option]


@pytest.mark.parametrize("option", FILE_OPTIONS["replay_receiver"])
@every_shell
def test_the_receivers_files_are_offered_behind_an_equals_sign(shells, kind, option):
    names = behind_sign(shells(kind), f"replay_receiver {option}=")
    assert {name.rstrip("/") for name in names} == FILE_NAMES


@pytest.mark.parametrize("option, begun", [("--filepath", "da"), ("--protocol", "t")])
@every_shell
def test_the_sender_is_offered_nothing_behind_an_equals_sign(
    shells, kind, option, begun
):
    for text in ("", begun):
        line = f"replay_sender {option}={text}"
        assert offered(shells(kind), line) == [f"{option}={text}"]


@every_shell
def test_a_word_behind_an_equals_sign_is_finished(shells, kind):
    line = "replay_receiver --protocol=u"
    assert shells(kind).arguments(line) == ["--protocol=udp"]


# --------------------------------------------------------------------- devices


@pytest.fixture(scope="module")
def network():
    """The words that run a program where these devices are and no others."""
    if os.geteuid() != 0 or shutil.which("ip") is None:
        pytest.skip("network namespaces need root and the ip program")
    name = f"replay-{os.getpid()}-names"
    try:
        must_run("ip", "netns", "add", name)
    except subprocess.CalledProcessError as error:
        pytest.skip(f"no network namespaces here: {error.stderr.strip()}")
    try:
        ends = sorted(DEVICES - {"lo"})
        if len(ends) % 2:
            ends.append("other")
        for one, other in zip(ends[::2], ends[1::2]):
            must_run(
                "ip", "-n", name, "link", "add", "name", one,
                "type", "veth", "peer", "name", other,
            )
        yield ["ip", "netns", "exec", name], {"lo", *ends}
    finally:
        must_run("ip", "netns", "delete", name)


@pytest.fixture
def device_shell(network, tmp_path):
    """device_shell(kind) is a shell in an empty folder, among these devices."""
    started = []
    home, folder = tmp_path / "home", tmp_path / "empty"
    home.mkdir()
    folder.mkdir()

    def start(kind):
        started.append(Shell(kind, home, folder, network[0]))
        return started[0]

    yield start
    for shell in started:
        shell.end()
    assert list(folder.iterdir()) == []  # no name was ever run as a command


def shown(devices, kind):
    """fish keeps a name with a dot in front to itself until the dot is typed."""
    return {name for name in devices if kind != "fish" or not name.startswith(".")}


@every_program
@every_shell
def test_the_devices_of_the_system_are_offered(device_shell, network, kind, program):
    names = offered(device_shell(kind), f"{program} --device ")
    assert sorted(names) == sorted(shown(network[1], kind))


@every_shell
def test_the_receivers_devices_are_offered_behind_an_equals_sign(
    device_shell, network, kind
):
    names = offered(device_shell(kind), "replay_receiver --device=")
    assert {name.removeprefix("--device=") for name in names} == shown(
        network[1], kind
    )


# What is typed, and the device that it begins.
BEGUN = [
    ("et", "eth0"), ("a", "a$b;c"), ("it", "it's"), ("q", 'q"q'), ("x", "x&y|z"),
    ("b", "b\\n"), ("t", "t=1"), ("u", "u@2"), ("网", "网卡0"), (".h", ".hid"),
    ("'et", "eth0"), ('"et', "eth0"), ("'a", "a$b;c"), ('"a', "a$b;c"),
    ("'it", "it's"), ('"it', "it's"), ("'$(", "$(id>x)"), ('"b', "b\\n"),
    ("\\$\\(", "$(id>x)"), ("a\\$", "a$b;c"),
]


@every_program
@every_shell
def test_a_device_that_is_begun_is_finished_safely_quoted(device_shell, kind, program):
    shell = device_shell(kind)
    for typed, name in BEGUN:
        seen = shell.arguments(f"{program} --device {typed}")
        assert seen == ["--device", name], typed


@every_shell
def test_a_folder_of_a_devices_name_does_not_matter(network, tmp_path, kind):
    (tmp_path / "eth0").mkdir()
    shell = Shell(kind, tmp_path, tmp_path, network[0])
    try:
        assert shell.arguments("replay_sender --device et") == ["--device", "eth0"]
    finally:
        shell.end()
