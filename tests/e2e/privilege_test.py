"""What the programs need of the system's rights: nothing, for all but four things. Each of
those fails without its capability, as told, and works with that one alone.

The programs run as a user without rights, under a promise of the kernel that none can be
had by starting another program either. What they are given, setpriv gives them.
"""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

import pytest

from conftest import BINARY, LOCALHOST, Program, Sender, echo, fatal, pieces, random_bytes
from network_namespace import hosts, run  # noqa: F401: hosts is a fixture
from replay_receiver import (  # noqa: F401: udp_port is a fixture
    PATIENT,
    RECEIVER,
    ReplayReceiver,
    Result,
    udp_port,
)
from udp_receiver import assert_same, make_receiver  # noqa: F401: make_receiver is a fixture

NOBODY = 65534
DATA = random_bytes(25000)
GROUP = "239.1.1.1"
LOW_PORT = "123"

# Sets of capabilities, as setpriv takes them.
NONE = "-all"


def only(capability):
    return f"-all,+{capability}"


def all_but(capability):
    """All that there are here, which on a confined machine need not be all there can be."""
    others = [f"+cap_{n}" for n in range(64) if own_rights() >> n & 1]
    return ",".join(["-all", *others, f"-{capability}"])


def own_rights():
    return rights_of("self")[0]


def rights_of(pid):
    """The effective capabilities as a number, whether more can be had, and the user."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    fields = dict(line.split(":\t", 1) for line in status.splitlines() if ":\t" in line)
    return int(fields["CapEff"], 16), fields["NoNewPrivs"], fields["Uid"].split()[1]


def limited(rights, program):
    """The words that run a program with these rights and no others. The promise comes
    second: after it, setpriv may not hand rights on itself."""
    return [
        "setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups",
        f"--bounding-set={rights}", f"--inh-caps={rights}", f"--ambient-caps={rights}",
        "setpriv", "--no-new-privs", program,
    ]


class LimitedSender(Sender):
    def __init__(self, directory, words, **options):
        self.port = None
        Program.__init__(self, directory, words, **options)


class LimitedReceiver(ReplayReceiver):
    """Its JSON is its standard output."""

    def __init__(self, directory, words, **options):
        Program.__init__(self, directory, words, **options)

    @property
    def json_path(self):
        return self._directory / "stdout"

    @property
    def result(self):
        return Result(self.output())


@pytest.fixture
def place():
    """A folder in which such a user may read and write, with copies of the programs: the
    built ones may lie where only their owner may go."""
    if os.geteuid() != 0:
        pytest.skip("giving rights away needs root")
    if shutil.which("setpriv") is None:
        pytest.skip("setpriv is not installed")
    with tempfile.TemporaryDirectory() as directory:
        os.chown(directory, NOBODY, NOBODY)
        folder = pathlib.Path(directory)
        for program in (BINARY, RECEIVER):
            os.chmod(shutil.copy(program, folder), 0o755)
        (folder / "data").write_bytes(DATA)
        (folder / "data").chmod(0o644)
        yield folder


def run_limited(kind, place, program, ended):
    """run(rights, *words, on=host) starts the program with these rights."""

    def start(rights, *words, on=None):
        directory = place / f"{program.name}-{len(ended)}"
        directory.mkdir()
        where = on.inside() if on is not None else contextlib.nullcontext()
        # The list of expected leaks lies where such a user cannot read it.
        environment = {**os.environ, "LSAN_OPTIONS": ""}
        with where:
            command = [*limited(rights, program), *map(str, words)]
            ended.append(kind(directory, command, env=environment))
        return ended[-1]

    return start


@pytest.fixture
def send(place):
    """send(rights, *words, on=host) starts a sender of the data."""
    senders = []
    start = run_limited(
        LimitedSender, place, place / pathlib.Path(BINARY).name, senders
    )
    yield lambda rights, *words, **options: start(
        rights, "--filepath", place / "data", *words, **options
    )
    for sender in senders:
        sender.kill()


@pytest.fixture
def receive(place):
    """receive(rights, *words, on=host) starts a receiver, which writes JSON."""
    receivers = []
    start = run_limited(
        LimitedReceiver, place, place / pathlib.Path(RECEIVER).name, receivers
    )
    yield lambda rights, *words, **options: start(
        rights, *words, "--json", "-", *PATIENT, **options
    )
    for receiver in receivers:
        receiver.kill()


def listen(sender, port):
    """Waits until the sender listens, on whichever host it is."""

    def listens():
        lines = pathlib.Path(f"/proc/{sender.pid}/net/tcp").read_text().splitlines()[1:]
        sockets = [(line.split()[1], line.split()[3]) for line in lines]
        return any(
            state == "0A" and local.endswith(f":{int(port):04X}")
            for local, state in sockets
        )

    sender.wait_until(listens, "listening")


# ------------------------------------------------------- what needs no right


def test_these_runs_have_no_right_at_all(send, port):
    sender = send(NONE, "--port", port)
    listen(sender, port)
    assert rights_of(sender.pid) == (0, "1", str(NOBODY))


@pytest.mark.parametrize("protocol", ["tcp", "udp"])
def test_both_programs_need_no_right(send, receive, place, port, udp_port, protocol):
    number = port if protocol == "tcp" else udp_port
    line = ("--protocol", protocol, "--port", number)
    kept = [("--write", "seen"), ("--csv", "rate.csv"), ("--report", "page.html")]
    outputs = [word for option, name in kept for word in (option, place / name)]
    if protocol == "tcp":
        sender = send(NONE, *line)
        listen(sender, port)
    receiver = receive(NONE, *line, "--filepath", place / "data", *outputs)
    if protocol == "udp":
        receiver.wait_until_bound(udp_port)
        sender = send(NONE, *line)
    result = receiver.expect(0)
    assert result.matched == (3, len(DATA))
    assert all((place / name).stat().st_size for _, name in kept)
    sender.stop()
    sender.expect(
        0, echo(place / "data", f"{LOCALHOST}:{number}", protocol=protocol)
    )


def test_a_plan_needs_no_right(receive, place):
    receive(NONE, "--filepath", place / "data", "--plan").expect(0)


def test_a_device_for_a_unicast_target_needs_no_right(send, make_receiver):
    receiver = make_receiver()
    send(NONE, "--protocol", "udp", "--port", receiver.port, "--device", "lo")
    assert_same(receiver.receive(3), pieces(DATA))


def test_a_group_that_is_routed_needs_no_right(send, make_receiver, hosts):
    sending, receiving = hosts
    with receiving.inside():
        member = make_receiver(host="")
        member.join(GROUP, receiving.address)
    run("ip", "-n", sending.name, "route", "add", "224.0.0.0/4", "dev", sending.device)
    send(NONE, "--protocol", "udp", "--ip", GROUP, "--port", member.port, on=sending)
    assert_same(member.receive(3), pieces(DATA))


def test_a_receiver_joins_a_group_on_a_device_without_a_right(
    send, receive, place, hosts
):
    sending, receiving = hosts
    line = ("--protocol", "udp", "--ip", GROUP, "--port", 5000)
    receiver = receive(
        NONE, *line, "--device", receiving.device, "--filepath", place / "data",
        on=receiving,
    )
    receiver.wait_until_bound(5000, GROUP)
    run("ip", "-n", sending.name, "route", "add", "224.0.0.0/4", "dev", sending.device)
    send(NONE, *line, on=sending)
    assert receiver.expect(0).matched == (3, len(DATA))


def test_datagrams_to_a_port_below_1024_need_no_right_of_the_sender(
    send, make_receiver, hosts
):
    sending, receiving = hosts
    with receiving.inside():
        receiver = make_receiver(host=receiving.address, port=int(LOW_PORT))
    send(
        NONE, "--protocol", "udp", "--ip", receiving.address, "--port", LOW_PORT,
        on=sending,
    )
    assert_same(receiver.receive(3), pieces(DATA))


# ------------------------------------------------- a group on a named device


@pytest.mark.parametrize("rights", [NONE, all_but("net_raw")])
def test_a_device_for_a_group_is_fatal_without_net_raw(send, place, hosts, rights):
    sending, _ = hosts
    send(
        rights, "--protocol", "udp", "--ip", GROUP, "--port", 5000,
        "--device", sending.device, on=sending,
    ).expect(
        -signal.SIGABRT,
        echo(
            place / "data", f"{GROUP}:5000", protocol="udp", device=sending.device
        ),
        fatal("Operation not permitted", "tcp_replay.h"),
    )


def test_a_device_for_a_group_needs_net_raw_alone(send, make_receiver, hosts):
    sending, receiving = hosts
    with receiving.inside():
        member = make_receiver(host="")
        member.join(GROUP, receiving.address)
    send(
        only("net_raw"), "--protocol", "udp", "--ip", GROUP, "--port", member.port,
        "--device", sending.device, on=sending,
    )
    assert_same(member.receive(3), pieces(DATA))


# --------------------------------------------------------- ports below 1024


@pytest.mark.parametrize("rights", [NONE, all_but("net_bind_service")])
def test_listening_below_1024_is_fatal_without_net_bind_service(
    send, place, hosts, rights
):
    sending, _ = hosts
    send(rights, "--port", LOW_PORT, on=sending).expect(
        -signal.SIGABRT,
        echo(place / "data", f"{LOCALHOST}:{LOW_PORT}"),
        fatal("Assertion failed: rc != retired_fd", "tcp_replay.h"),
    )


@pytest.mark.parametrize("rights", [NONE, all_but("net_bind_service")])
def test_receiving_below_1024_is_refused_without_net_bind_service(
    receive, hosts, rights
):
    _, receiving = hosts
    receiver = receive(
        rights, "--protocol", "udp", "--ip", receiving.address, "--port", LOW_PORT,
        on=receiving,
    )
    receiver.expect(3)
    assert receiver.errors().endswith(
        "Permission denied. Ports below 1024 need CAP_NET_BIND_SERVICE.\n"
    )


def allow_all_ports(host):
    """The other way to such a port, by the administrator of the network."""
    run(
        "ip", "netns", "exec", host.name,
        "sysctl", "-q", "net.ipv4.ip_unprivileged_port_start=0",
    )


@pytest.mark.parametrize("allowed", [False, True])
@pytest.mark.parametrize("protocol", ["tcp", "udp"])
def test_ports_below_1024_need_net_bind_service_alone_or_no_right_where_all_are_free(
    send, receive, place, hosts, protocol, allowed
):
    sending, receiving = hosts
    rights = NONE if allowed else only("net_bind_service")
    over_tcp = protocol == "tcp"
    listening = sending if over_tcp else receiving
    if allowed:
        allow_all_ports(listening)
    line = ("--protocol", protocol, "--ip", listening.address, "--port", LOW_PORT)
    if over_tcp:
        listen(send(rights, *line, on=sending), LOW_PORT)
    receiver = receive(
        NONE if over_tcp else rights, *line, "--filepath", place / "data", on=receiving
    )
    if not over_tcp:
        receiver.wait_until_bound(int(LOW_PORT))
        send(NONE, *line, on=sending)
    assert receiver.expect(0).matched == (3, len(DATA))


# -------------------------------------------------------- the receive buffer


@pytest.mark.parametrize(
    "rights, granted",
    [(NONE, 1), (all_but("net_admin"), 1), (only("net_admin"), 2)],
)
def test_a_buffer_beyond_the_systems_limit_needs_net_admin_alone(
    send, receive, place, udp_port, rights, granted
):
    limit = int(pathlib.Path("/proc/sys/net/core/rmem_max").read_text())
    receiver = receive(
        rights, "--protocol", "udp", "--port", udp_port, "--rcvbuf", 2 * limit,
        "--filepath", place / "data",
    )
    receiver.wait_until_bound(udp_port)
    send(NONE, "--protocol", "udp", "--port", udp_port)
    result = receiver.expect(0)
    assert result["buffer_wished_bytes"] == 2 * limit
    assert result["buffer_granted_bytes"] == granted * limit


# --------------------------------------------------------------- this harness


def test_a_right_that_is_not_given_cannot_be_had(place):
    words = limited(only("net_raw"), "cat")
    status = subprocess.run(
        [*words, "/proc/self/status"], check=True, capture_output=True, text=True
    ).stdout
    capabilities = {
        line.split(":\t")[0]: int(line.split(":\t")[1], 16)
        for line in status.splitlines()
        if line.startswith("Cap")
    }
    net_raw = 1 << 13
    assert set(capabilities.values()) == {net_raw}
