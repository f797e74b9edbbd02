"""What the guide and the pages on tuning and on the receiver give to type, taken out of
them and run as it stands, and a few of their sentences that no other test shows.
"""

import os
import pathlib
import re
import shutil
import signal
import socket
import time

import pytest

import capture_builder as build
from blocks import recipe_book, typed
from conftest import DEADLINE, PROGRAMS, ROOT, fatal, pieces
from network_namespace import run
from stage import DAY, GROUP, MATCHED, OTHERS, recorded_group, stage  # noqa: F401: a fixture
from udp_receiver import UdpReceiver

DOCUMENTS = ("docs/guide.md", "docs/tuning.md", "docs/receiver.md")
NOBODY = 65534
PROCESSORS = sorted(os.sched_getaffinity(0))

RECIPES, recipe = recipe_book()


def needs(*tools):
    for tool in tools:
        if shutil.which(tool) is None:
            pytest.skip(f"{tool} is not installed")


TYPED = [
    pytest.param(document, text, id=f"{document}: {text.splitlines()[0]}")
    for document in DOCUMENTS
    for text in typed(document)
]


def recipe_for(text):
    found = [beginning for beginning in RECIPES if text.startswith(beginning)]
    return max(found, key=len, default=None)


@pytest.mark.parametrize("document, text", TYPED)
def test_what_is_to_be_typed_does_what_is_said_of_it(stage, document, text):
    assert recipe_for(text) is not None, "no recipe here says how to try it"
    RECIPES[recipe_for(text)](stage, text)


def test_each_recipe_is_for_something():
    assert {recipe_for(each.values[1]) for each in TYPED} == set(RECIPES)


# ------------------------------------------------------------------- the guide


def bound(stage, host, port=5000):
    with host.inside():
        return UdpReceiver(host="", port=port)


def written_when_asked(recorder, path, size):
    """A condition: tcpdump writes what it has when a signal asks it to. It takes frames in
    once a second, and a signal starts that second anew."""
    asked = [time.monotonic()]

    def condition():
        if time.monotonic() - asked[0] > 1.5:
            recorder.signal(signal.SIGUSR2)
            asked[0] = time.monotonic()
        return path.exists() and path.stat().st_size == size

    return condition


@recipe("tcpdump -i eth1 -s 0 -w day.pcap 'udp and dst port 5000'")
def a_recording(stage, text):
    """What it recorded is replayed by the next recipes; here it is looked at."""
    needs("tcpdump")
    there = bound(stage, stage.receiving)
    (stage.folder / "day.pcap").rename(stage.folder / "old.pcap")
    recorder = stage.script(f"exec {text}", stage.receiving)
    recorder.wait_until(lambda: "listening on" in recorder.errors(), "listening")
    sender = stage.send(
        "replay_sender --filetype 1 --filepath old.pcap --filter 'udp and port 5000' "
        f"--protocol udp --ip {stage.receiving.address} --port 5000 --mbps 20"
    )
    assert there.receive(len(MATCHED)) == MATCHED

    size = 24 + sum(16 + 42 + len(payload) for payload in MATCHED)
    recorder.wait_until(written_when_asked(recorder, stage.folder / "day.pcap", size), f"{size}")
    recorder.signal(signal.SIGINT)
    assert recorder.wait() == 0
    assert sender.stop() == 0
    there.close()

    member = bound(stage, stage.receiving)
    sender = stage.send(
        "replay_sender --filetype 1 --filepath day.pcap --filter 'udp and dst port 5000' "
        f"--protocol udp --ip {stage.receiving.address} --port 5000"
    )
    assert member.receive(len(MATCHED)) == MATCHED
    assert sender.stop() == 0
    member.close()


@recipe("replay_receiver --protocol udp --ip 239.1.1.1 --port 5000 --device eth1 "
        "--duration 60 --write day.pcap")
def a_recording_of_a_group(stage, text):
    (stage.folder / "day.pcap").rename(stage.folder / "old.pcap")
    assert recorded_group(stage, text, "old.pcap", "day.pcap") == MATCHED


@recipe("replay_receiver --filetype 1 --filepath day.pcap --filter "
        "'udp and dst port 5000' --mbps 50 --plan")
def a_plan(stage, text):
    plan = stage.receive(text)
    plan.expect(0)
    assert f"{len(MATCHED)} messages" in plan.output()
    assert f"{sum(map(len, MATCHED)):,} bytes" in plan.output()


@recipe("options=(--filetype 1")
def replay_and_check(stage, text):
    """Over UDP as it stands, and over TCP without the line that only UDP wants. The rate
    is measured, and a busy machine may miss it: then the status is 4."""
    over_tcp, udp = re.subn(" *--protocol udp", "", text)
    over_tcp, wait = re.subn("^until ss .*?^done\n", "", over_tcp, flags=re.M | re.S)
    assert (udp, wait) == (1, 1)
    size = f"{sum(map(len, MATCHED)):,}"
    for script, whole in (
        (text, f"{len(MATCHED)} of {len(MATCHED)} messages whole"),
        (over_tcp, f"{size} of {size} bytes whole"),
    ):
        checked = stage.script(script)
        assert checked.wait() in (0, 4), checked.errors()
        assert whole in checked.output()
        assert (stage.folder / "day.html").stat().st_size > 0
        (stage.folder / "day.html").unlink()


def test_that_script_tells_what_is_wrong(stage):
    (text,) = (text for text in typed("docs/guide.md") if text.startswith("options="))
    checked = stage.script(text.replace("--filepath day.pcap", "--filepath missing.pcap", 1))
    assert checked.wait() == 6, checked.errors()


# ---------------------------------------------------------------------- tuning


def status_of(task):
    text = pathlib.Path(task, "status").read_text()
    return dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)


def processors_of(pid):
    """The processors that each thread may use, by its name."""
    found = {}
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        status = status_of(task)
        found[status["Name"]] = status["Cpus_allowed_list"]
    return found


def own_processors():
    if len(PROCESSORS) < 2:
        pytest.skip("there is one processor")
    return [str(each) for each in PROCESSORS[:2]]


@recipe("taskset -c 2,3 replay_sender --filepath day.dat")
def pinned_to_two(stage, text):
    needs("taskset")
    one, other = own_processors()
    sender = stage.serve(text.replace("2,3", f"{one},{other}"), 9089)
    allowed = {f"{one}-{other}", f"{one},{other}"}
    assert set(processors_of(sender.pid).values()) <= allowed
    assert sender.stop() == 0


@recipe("replay_sender --filepath day.dat &")
def pinned_each_to_its_own(stage, text):
    needs("taskset")
    one, other = own_processors()
    text, main = re.subn(r"-c 2\b", f"-c {one}", text)
    text, poller = re.subn(r"-c 3\b", f"-c {other}", text)
    assert (main, poller) == (1, 1)
    script = stage.script(f"{text}echo pinned $pid\nwait\n")
    pid = script.wait_until(lambda: re.search(r"^pinned (\d+)$", script.output(), re.M), "it")[1]
    try:
        assert processors_of(pid) == {"replay_sender": one, "poller_thread": other}
    finally:
        os.kill(int(pid), signal.SIGKILL)
    script.wait()


@recipe("sysctl net.core.wmem_default net.ipv4.tcp_wmem")
def the_settings(stage, text):
    """Asked of the machine itself: the hosts here need not have all of them."""
    names = [line.split(" = ")[0] for line in run("bash", "-c", text).splitlines()]
    assert names == text.split()[1:]


@recipe("sysctl -w net.core.wmem_default=")
def the_buffer_for_datagrams(stage, text):
    """The setting is the whole machine's and no network namespace's. So the command runs as
    it stands where a plain file lies in the setting's place, in a mount namespace of its
    own: what it writes and where to is shown, and the machine keeps its value."""
    needs("unshare", "mount", "sysctl")
    before = wmem_default()
    (stage.folder / "setting").write_text(f"{before}\n")
    in_its_place = f"mount --bind setting {WMEM_DEFAULT}\n"
    shown = run("unshare", "--mount", "bash", "-ec", f"cd {stage.folder}\n{in_its_place}{text}")
    assert shown.split(" = ") == ["net.core.wmem_default", f"{text.rpartition('=')[2]}\n"]
    assert int((stage.folder / "setting").read_text()) == int(text.rpartition("=")[2]) > before
    assert wmem_default() == before


WMEM_DEFAULT = pathlib.Path("/proc/sys/net/core/wmem_default")


def wmem_default():
    return int(WMEM_DEFAULT.read_text())


@recipe("sysctl -w net.ipv4.tcp_wmem=")
def the_buffer_of_a_connection(stage, text):
    assert stage.script(text).wait() == 0
    assert sizes(stage, "ss -tmn 'sport = :9089'", tcp=True)["tb"] >= 1048576


def test_a_connection_has_the_smaller_buffer_without_that(stage):
    smallest, first, largest = (4096, 16384, 65536)
    stage.sending.set("ipv4/tcp_wmem", f"{smallest} {first} {largest}")
    assert first <= sizes(stage, "ss -tmn 'sport = :9089'", tcp=True)["tb"] <= largest


def sizes(stage, text, tcp):
    """What ss says of the memory of the sender's socket."""
    needs("ss")
    if tcp:
        sender = stage.serve("replay_sender --filepath day.dat", 9089)
        receiver = stage.connect(9089)
        assert receiver.read_exactly(len(DAY)) == DAY
    else:
        there = bound(stage, stage.receiving)
        sender = stage.send(
            "replay_sender --filepath day.dat --protocol udp --port 5000 "
            f"--ip {stage.receiving.address} --mbps 200"
        )
        assert there.receive(1) == [DAY[:10240]]
    shown = stage.script(text)
    assert shown.wait() == 0
    found = [
        {name: int(value) for name, value in re.findall(r"([a-z]+)(\d+)", each)}
        for each in re.findall(r"skmem:\(([^)]*)\)", shown.output())
    ]
    assert sender.stop() == 0
    return max(found, key=lambda each: each["tb"])


@recipe("ss -tmn 'sport = :9089'")
def what_a_connection_has(stage, text):
    assert {"tb", "t", "w"} <= set(sizes(stage, text, tcp=True))


@recipe("ss -uamn")
def what_a_datagram_socket_has(stage, text):
    assert sizes(stage, text, tcp=False)["tb"] == wmem_default()


# The time-to-live is raised by one command and taken back by the other.


def lifetimes(stage):
    """Of each frame that the first message of a replay to the group takes."""
    with stage.receiving.inside():
        member = UdpReceiver(host="", port=5000)
        member.join(GROUP, stage.receiving.address)
        wire = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM, socket.htons(0x0800))
        wire.settimeout(DEADLINE)
        wire.bind(("eth1", 0x0800))
    sender = stage.send(
        "replay_sender --filepath day.dat --protocol udp --ip 239.1.1.1 --port 5000 "
        "--device eth1 --mbps 20"
    )
    found = []
    while len(found) < 7:
        packet = wire.recv(65536)
        if packet[9] == socket.IPPROTO_UDP and packet[16:20] == socket.inet_aton(GROUP):
            found.append(packet[8])
    assert member.receive_one()[0] == DAY[:10240]
    assert sender.stop() == 0
    wire.close()
    member.close()
    return found


@recipe("nft -f - <<'END'")
def a_longer_life(stage, text):
    needs("nft")
    assert lifetimes(stage) == 7 * [1]
    rules = stage.script(text)
    assert (rules.wait(), rules.errors()) == (0, "")
    assert lifetimes(stage) == 7 * [16]


@recipe("nft delete table ip replay")
def its_end(stage, text):
    needs("nft")
    (rule,) = (each for each in typed("docs/tuning.md") if each.startswith("nft -f"))
    assert stage.script(rule).wait() == 0
    assert stage.script(text).wait() == 0
    assert lifetimes(stage) == 7 * [1]


@recipe("setcap cap_net_raw+ep /usr/bin/replay_sender")
def one_right(stage, text):
    needs("setcap")
    program = stage.folder / "sender"
    shutil.copy(PROGRAMS["replay_sender"], program)
    words = [
        "setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "./sender",
        "--filepath", "day.dat", "--protocol", "udp", "--ip", GROUP, "--port", "5000",
        "--device", "eth1",
    ]
    sender = stage.send(" ".join(words))
    assert sender.wait() == -signal.SIGABRT
    assert sender.errors() == fatal("Operation not permitted", "tcp_replay.h")

    run(*text.replace("/usr/bin/replay_sender", str(program)).split())
    with stage.receiving.inside():
        member = UdpReceiver(host="", port=5000)
        member.join(GROUP, stage.receiving.address)
    sender = stage.send(" ".join(words))
    assert member.receive(1) == [DAY[:10240]]
    member.close()
    sender.kill()


# ------------------------------------------------------------------ the receiver

# Its filter lets every datagram of the capture through.
ALL_DATAGRAMS = [*MATCHED[:100], OTHERS[0].payload, *MATCHED[100:]]


@recipe("replay_receiver --filetype 1 --filter udp --filepath day.pcap --protocol udp")
def one_line_for_both(stage, text):
    """The rate is measured, and a busy machine may miss it: then the status is 4."""
    receive, send = typed("docs/receiver.md")
    assert receive == text
    receiver = stage.receive(text, stage.sending)
    receiver.wait_until_bound(5000)
    sender = stage.send(send)
    assert receiver.wait() in (0, 4), receiver.errors()
    count = len(ALL_DATAGRAMS)
    assert f"{count} of {count} messages whole" in receiver.output()
    assert (stage.folder / "day.html").stat().st_size > 0
    assert sender.stop() == 0


@recipe("replay_sender   --filetype 1 --filter udp --filepath day.pcap --protocol udp")
def the_other_half(stage, text):
    there = bound(stage, stage.sending)
    sender = stage.send(text)
    assert there.receive(len(ALL_DATAGRAMS)) == ALL_DATAGRAMS
    assert sender.stop() == 0
    there.close()


# ------------------------------------------------------------------- sentences


def test_a_receiver_that_has_sent_something_sees_a_reset_at_the_stop(stage):
    sender = stage.serve("replay_sender --filepath day.dat", 9089)
    receiver = stage.connect(9089)
    receiver.socket.sendall(b"x")
    assert receiver.read_exactly(len(DAY)) == DAY
    assert sender.stop() == 0
    with pytest.raises(ConnectionResetError):
        receiver.socket.recv(1)


def test_a_host_that_is_no_address_is_listened_for_on_the_all_ones_address(stage):
    sender = stage.send("replay_sender --filepath day.dat --ip localhost")

    def listens():
        table = pathlib.Path(f"/proc/{sender.pid}/net/tcp").read_text()
        return " FFFFFFFF:2381 00000000:0000 0A " in table

    sender.wait_until(listens, "listening on 255.255.255.255:9089")
    assert sender.stop() == 0


def test_a_folder_of_one_file_is_preloaded_like_the_file(stage):
    (stage.folder / "one").mkdir()
    (stage.folder / "day.dat").rename(stage.folder / "one" / "day.dat")
    sender = stage.serve("replay_sender --filepath one --preload 1", 9089)
    receiver = stage.connect(9089)
    assert receiver.read_exactly(len(DAY)) == b"".join(reversed(pieces(DAY)))
    assert sender.stop() == 0


INVALID = {
    "of no byte": build.udp(b"x").claiming(wire=0),
    "that was too long": build.udp(b"x").claiming(wire=262145),
}


@pytest.mark.parametrize("kind", INVALID)
def test_tcpdump_leaves_out_a_frame_that_ends_a_run(stage, kind):
    needs("tcpdump")
    (text,) = re.findall(
        r"`(tcpdump -r day\.pcap -w clean\.pcap '[^']*')`", (ROOT / "docs/guide.md").read_text()
    )
    frames = [build.udp(b"one"), INVALID[kind], build.udp(b"two")]
    stage.write("day.pcap", build.pcap(frames))
    words = "--filetype 1 --filter udp --protocol udp --ip 127.0.0.1 --port 5000"
    sender = stage.send(f"replay_sender --filepath day.pcap {words}")
    assert sender.wait() == -signal.SIGABRT
    assert "safe_pcap_next ERROR: Invalid packet length." in sender.errors()

    cleaned = stage.script(text)
    assert cleaned.wait() == 0, cleaned.errors()
    there = bound(stage, stage.sending)
    sender = stage.send(f"replay_sender --filepath clean.pcap {words}")
    assert there.receive(2) == [b"one", b"two"]
    there.close()
    assert sender.stop() == 0
