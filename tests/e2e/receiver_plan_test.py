"""The plan: what a replay would send, told without a socket. Every number and hash
is worked out here from the payloads of which the sources were built."""

import hashlib
import os
import shutil
import socket
import subprocess

import pytest

import capture_builder as build
from conftest import LOCALHOST, pieces, random_bytes
from replay_receiver import (  # noqa: F401: fixtures and more
    RECEIVER,
    Result,
    receive,
    totals,
)

DATA = random_bytes(25000)
AS_UDP = ("--filetype", "1", "--filter", "udp")
AS_TCP = ("--filetype", "1", "--filter", "tcp")


@pytest.fixture
def source(tmp_path):
    """source(content) is the path of this file or of a folder with these files."""

    def create(content):
        path = tmp_path / "source"
        if isinstance(content, dict):
            path.mkdir()
            for name, data in content.items():
                (path / name).write_bytes(data)
        else:
            path.write_bytes(content)
        return path

    return create


@pytest.fixture
def plan(receive, source):
    """plan(content, *words) is the plan of a source with this content."""

    def run(content, *words, status=0):
        ended = receive("--plan", "--filepath", source(content), *words)
        assert ended.wait() == status, ended.errors()
        result = ended.result
        assert result["kind"] == "plan"
        result.run = ended
        return result

    return run


def sha256(messages):
    return hashlib.sha256(b"".join(messages)).hexdigest()


def assert_plans(result, messages):
    """These messages would be sent, and nothing else."""
    assert (result["messages"], result["bytes"]) == totals(messages)
    assert result["sha256"] == sha256(messages)
    sizes = result["sizes"]
    assert sizes["count"] == len(messages)
    if messages:
        lengths = sorted(map(len, messages))
        assert (sizes["min_bytes"], sizes["max_bytes"]) == (lengths[0], lengths[-1])
        assert sizes["mean_bytes"] == pytest.approx(sum(lengths) / len(lengths))
    assert sum(each["count"] for each in sizes["bins"]) == len(messages)


LEFT_OUT = {
    "filtered_frames": 0, "empty_frames": 0, "short_frames": 0, "refused_files": 0,
    "entries": 0,
}
CAVEATS = {
    "frames_cut_by_snapshot": 0, "split_payloads": 0, "odd_link_files": 0,
    "broken_files": 0,
}


def assert_remarks(result, **counts):
    """These counts of what is left out or odd; all others are 0."""
    assert result["left_out_per_pass"] == {
        name: counts.pop(name, 0) for name in LEFT_OUT
    }
    assert result["caveats_per_pass"] == {name: counts.pop(name, 0) for name in CAVEATS}
    assert not counts


# ------------------------------------------------------------------- data files


@pytest.mark.parametrize("size", [0, 1, 10240, 10241, 25000, 3 * 1024 * 1024 + 5])
def test_a_data_file_is_planned_in_pieces(plan, size):
    data = random_bytes(size)
    result = plan(data)
    assert_plans(result, pieces(data))
    assert_remarks(result)
    assert (result["files"], result["passes"], result["endless"]) == (1, 1, False)
    assert result["notes"] == [] and result["source_error"] is None
    assert result.run.errors() == ""


def test_passes_are_counted_and_hashed_all(plan):
    result = plan(DATA, "--loopback", "3")
    assert result["passes"] == 3
    assert_plans(result, pieces(DATA) * 3)


def test_of_an_endless_replay_one_pass_is_planned(plan):
    result = plan(DATA, "--loopback", "0")
    assert (result["passes"], result["endless"]) == (0, True)
    assert_plans(result, pieces(DATA))
    assert result["seconds"] is None


def test_a_folder_is_planned_in_version_order(plan):
    content = {"f10": b"ten", "f2": DATA, "f1": b"one", "f3": b""}
    result = plan(content, "--loopback", "2")
    assert result["files"] == 4
    assert_plans(result, [b"one", *pieces(DATA), b"ten"] * 2)
    assert_remarks(result)


def test_what_is_no_file_of_a_folder_is_left_out(plan, tmp_path, receive):
    folder = tmp_path / "folder"
    (folder / "below").mkdir(parents=True)
    (folder / "below" / "file").write_bytes(b"unseen")
    (folder / "null").symlink_to("/dev/null")
    (folder / "data").write_bytes(b"data")
    (folder / "link").symlink_to(folder / "data")
    run = receive("--plan", "--filepath", folder)
    assert run.wait() == 0
    assert_plans(run.result, [b"data", b"data"])
    assert_remarks(run.result, entries=2)


def test_a_preloaded_file_is_planned_in_reverse(plan):
    result = plan(DATA, "--preload", "1", "--loopback", "2")
    assert_plans(result, pieces(DATA)[::-1] * 2)


def test_a_preloaded_folder_of_one_is_planned_in_reverse(plan):
    assert_plans(plan({"only": DATA}, "--preload", "1"), pieces(DATA)[::-1])


def test_a_preloaded_folder_of_two_sends_nothing_and_is_told(plan):
    result = plan({"a": b"a", "b": b"b"}, "--preload", "1")
    assert_plans(result, [])
    assert any("preload" in note for note in result["notes"])


def test_a_filter_beside_data_files_does_not_count(plan):
    assert_plans(plan(DATA, "--filter", "nonsense"), pieces(DATA))


# --------------------------------------------------------------------- captures


def test_what_a_capture_leaves_out_is_counted(plan):
    frames = [
        build.udp(b"one"),
        build.udp(b""),
        build.udp(b"filtered", port=1),
        build.tcp(b"filtered"),
        build.udp(b"short").truncated(41).claiming(wire=41),
        build.udp(b"two"),
        build.udp(b""),
        build.udp(b"filtered", port=2),
    ]
    result = plan(
        build.pcap(frames), "--filetype", "1", "--filter", "udp and port 5000",
        "--loopback", "2",
    )
    assert_plans(result, [b"one", b"two"] * 2)
    # Each for one pass.
    assert_remarks(result, filtered_frames=3, empty_frames=2, short_frames=1)


def test_frames_cut_by_the_snapshot_send_what_is_there(plan):
    frames = [build.udp(b"whole"), build.udp(b"in part").truncated(44)]
    result = plan(build.pcap(frames), *AS_UDP)
    assert_plans(result, [b"whole", b"in"])
    assert_remarks(result, frames_cut_by_snapshot=1)


def test_long_payloads_are_split_and_counted(plan):
    long, longer = random_bytes(10241, 2), random_bytes(30000, 3)
    full = random_bytes(10240, 4)
    frames = [build.udp(long), build.udp(full), build.udp(longer), build.udp(b"next")]
    result = plan(build.pcap(frames), *AS_UDP)
    assert_plans(result, [*pieces(long), full, *pieces(longer), b"next"])
    assert_remarks(result, split_payloads=2)


def test_a_folder_of_captures_is_planned_in_version_order(plan):
    content = {
        "c10": build.pcap([build.tcp(b"ten")]),
        "c2": build.pcapng([build.tcp(b"two"), build.tcp(b"more")]),
        "c1": build.pcap([build.tcp(b"one", tcp_options=bytes(12))], big_endian=True),
    }
    result = plan(content, *AS_TCP)
    assert result["files"] == 3
    assert_plans(result, [b"one", b"two", b"more", b"ten"])
    assert_remarks(result)


def test_a_preloaded_capture_is_planned_as_tcp_and_in_reverse(plan):
    frames = [build.tcp(b"one"), build.udp(b"not"), build.tcp(b"two"), build.tcp(b"")]
    result = plan(build.pcap(frames), *AS_UDP, "--preload", "1")
    assert_plans(result, [b"two", b"one"])
    assert_remarks(result, filtered_frames=1, empty_frames=1)


def test_another_link_type_is_cut_at_the_wrong_place_and_told(plan):
    # No Ethernet header: the cut takes the source address for the header's length.
    frame = build.udp(b"a payload")
    raw = build.Frame(frame.data[14:], frame.payload)
    result = plan(build.pcap([raw], link_type=build.RAW_IP), *AS_UDP)
    assert_plans(result, [raw.data[22:]])
    assert_remarks(result, odd_link_files=1)
    assert any("Ethernet" in note for note in result["notes"])


def test_a_capture_that_refuses_the_filter_is_left_out_and_told(plan):
    content = {
        "f1": build.pcap([build.udp(b"one")]),
        "f2": build.pcap([build.udp(b"two")], link_type=build.RAW_IP),
        "f3": build.pcap([build.udp(b"three")]),
    }
    filter = "udp and ether dst 02:00:00:00:00:02"
    result = plan(content, "--filetype", "1", "--filter", filter)
    assert_plans(result, [b"one", b"three"])
    assert result["left_out_per_pass"]["refused_files"] == 1
    assert any("f2" in note for note in result["notes"])


def test_a_filter_in_capitals_is_refused_by_all(plan):
    content = build.pcap([build.udp(b"data")])
    result = plan(content, "--filetype", "1", "--filter", "UDP and port 5000")
    assert_plans(result, [])
    assert_remarks(result, refused_files=1)


def test_a_capture_that_breaks_off_ends_there_and_is_told(plan):
    whole = build.pcap([build.udp(b"one"), build.udp(b"two")])
    result = plan({"a": whole[:-1], "b": build.pcap([build.udp(b"three")])}, *AS_UDP)
    assert_plans(result, [b"one", b"three"])
    assert_remarks(result, broken_files=1)
    assert result["source_error"] is None


@pytest.mark.parametrize("wire", [0, 262145])
def test_a_frame_that_ends_the_sender_ends_the_plan(plan, wire):
    frames = [build.udp(b"good"), build.udp(b"bad").claiming(wire=wire)]
    frames.append(build.udp(b"never"))
    result = plan(build.pcap(frames), *AS_UDP, status=6)
    assert_plans(result, [b"good"])
    assert result["source_error"]


def test_a_broken_capture_behind_a_good_one_ends_the_plan(plan):
    good = build.pcap([build.udp(b"good")])
    content = {"a": good, "b": b"no capture, but long enough"}
    result = plan(content, *AS_UDP, status=6)
    assert_plans(result, [b"good"])
    assert "b" in result["source_error"]


# --------------------------------------------------------------------- how long


@pytest.mark.parametrize(
    "mbps, bits_per_second", [("8", 8_000_000), ("0.7", 700_000), ("400", 400_000_000)]
)
def test_the_time_is_that_of_all_bits_at_the_rate(plan, mbps, bits_per_second):
    result = plan(DATA, "--mbps", mbps, "--loopback", "4")
    assert result["wanted_bps"] == bits_per_second
    assert result["seconds"] == pytest.approx(4 * 25000 * 8 / bits_per_second)


@pytest.mark.parametrize("words", [(), ("--mbps", "0")])
def test_without_a_rate_nobody_knows_the_time(plan, words):
    result = plan(DATA, *words)
    assert result["wanted_bps"] is None and result["seconds"] is None


# ------------------------------------------------------------------ how it shows


def digits_only(text):
    """The text without what may part thousands."""
    for mark in (",", " ", "'", "_"):
        text = text.replace(mark, "")
    return text


def test_the_plan_is_shown_on_standard_output(receive, source):
    frames = [build.udp(b"data"), build.udp(b""), build.tcp(b"filtered")]
    path = source(build.pcap(frames))
    run = receive("--plan", "--filepath", path, *AS_UDP, "--loopback", "1234",
                  "--mbps", "1", json=False)
    run.expect(0)
    text = run.output()
    assert run.errors() == ""
    assert sha256([b"data"] * 1234) in text
    # Messages and bytes.
    assert "1234" in digits_only(text) and "4936" in digits_only(text)
    assert "filter" in text and "payload" in text
    assert max(map(len, text.splitlines())) <= 80


def test_the_plans_json_on_standard_output_stands_alone(receive, source):
    run = receive("--plan", "--filepath", source(DATA), "--json", "-", json=False)
    run.expect(0)
    assert_plans(Result(run.output()), pieces(DATA))
    assert run.errors() == ""


def test_option_names_match_in_any_case(receive, source):
    run = receive("--PLAN", "--FilePath", source(DATA))
    assert run.wait() == 0
    assert_plans(run.result, pieces(DATA))


# --------------------------------------------------------------------- no socket


@pytest.mark.parametrize("protocol", ["tcp", "udp"])
def test_a_port_in_use_does_not_matter(receive, source, protocol):
    kind = socket.SOCK_STREAM if protocol == "tcp" else socket.SOCK_DGRAM
    with socket.socket(socket.AF_INET, kind) as holder:
        holder.bind((LOCALHOST, 0))
        run = receive(
            "--plan", "--filepath", source(DATA), "--protocol", protocol,
            "--port", str(holder.getsockname()[1]),
        )
        assert run.wait() == 0
    assert_plans(run.result, pieces(DATA))


def test_an_address_that_is_not_ours_does_not_matter(receive, source):
    run = receive("--plan", "--filepath", source(DATA), "--ip", "192.0.2.1",
                  "--protocol", "udp", "--device", "nosuchdevice0")
    assert run.wait() == 0
    assert_plans(run.result, pieces(DATA))


@pytest.mark.parametrize("protocol", ["tcp", "udp"])
def test_no_socket_is_opened(source, tmp_path, protocol):
    if shutil.which("strace") is None:
        pytest.skip("strace is not installed")
    trace = tmp_path / "trace"
    words = ("--plan", "--filepath", source(DATA), "--protocol", protocol)
    # A leak check would want to trace the program, too.
    leaks = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
    ended = subprocess.run(
        ["strace", "-f", "-o", trace, "-e", "trace=%network,execve", RECEIVER, *words],
        capture_output=True,
        env={**os.environ, "ASAN_OPTIONS": leaks},
    )
    if "ptrace" in ended.stderr.decode():
        pytest.skip("strace may not trace here")
    assert ended.returncode == 0
    calls = trace.read_text()
    assert "execve(" in calls  # so that an empty trace does not pass
    assert "socket(" not in calls
