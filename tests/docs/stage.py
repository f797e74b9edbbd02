"""Where the documents' commands are tried: two hosts on one cable, whose ends are both
called eth1, with the programs on the path and sample recordings in the folder.
"""

import contextlib
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile

import pytest

import capture_builder as build
from conftest import PROGRAMS, Program, Receiver, Sender, random_bytes
from network_namespace import Host, create_cable
from privilege_test import listen
from replay_receiver import ReplayReceiver, captured_payloads

GROUP = "239.1.1.1"

# Enough messages for the verdict on the rate, which the first of them spoils.
DAY = random_bytes(220 * 10240 + 1)
DAYS = {name: random_bytes(3000, seed) for seed, name in enumerate(("f1", "f2", "f10"))}
WANTED = [build.udp(random_bytes(1000, seed)) for seed in range(300)]
OTHERS = [build.udp(b"another port", port=6000), build.tcp(b"another transport")]
MATCHED = [frame.payload for frame in WANTED]


class TypedSender(Sender):
    """A sender that a shell has started by a command as it is typed."""

    def __init__(self, directory, text, **options):
        self.port = None
        Program.__init__(self, directory, ["bash", "-c", f"exec {text}"], **options)


class TypedReceiver(ReplayReceiver):
    def __init__(self, directory, text, **options):
        Program.__init__(self, directory, ["bash", "-c", f"exec {text}"], **options)


class TypedScript(Program):
    name = "script"

    def __init__(self, directory, text, **options):
        Program.__init__(self, directory, ["bash", "-c", text], **options)


class Stage:
    """The two hosts and the folder. Programs that are still running end with it."""

    def __init__(self, folder, sending, receiving):
        self.folder = folder
        self.sending = sending
        self.receiving = receiving
        self._programs = []
        self._receivers = []

    def write(self, name, data):
        path = self.folder / name
        path.parent.mkdir(exist_ok=True)
        path.write_bytes(data)

    def read(self, name):
        return (self.folder / name).read_bytes()

    # Commands.

    def send(self, text, host=None):
        return self._start(TypedSender, text, host or self.sending)

    def receive(self, text, host=None):
        return self._start(TypedReceiver, text, host or self.receiving)

    def script(self, text, host=None):
        return self._start(TypedScript, text, host or self.sending)

    def serve(self, text, port):
        """A sender that listens."""
        sender = self.send(text)
        listen(sender, port)
        return sender

    def _start(self, kind, text, host):
        directory = pathlib.Path(tempfile.mkdtemp(dir=self.folder.parent))
        programs = f"{self.folder.parent / 'programs'}:{os.environ['PATH']}"
        with host.inside():
            self._programs.append(kind(
                directory, text, cwd=self.folder, start_new_session=True,
                env={**os.environ, "PATH": programs},
            ))
        return self._programs[-1]

    # What a receiver sees that is not ours.

    def connect(self, port, address="127.0.0.1", host=None):
        with (host or self.sending).inside():
            self._receivers.append(Receiver(port, host=address))
        return self._receivers[-1]

    def end(self):
        for receiver in self._receivers:
            receiver.close()
        for program in self._programs:
            program.kill()


def make_recordings(folder):
    folder.mkdir()
    folder.chmod(0o777)  # tcpdump gives up its rights before it writes
    (folder / "day.dat").write_bytes(DAY)
    frames = [*WANTED[:100], OTHERS[0], *WANTED[100:200], OTHERS[1], *WANTED[200:]]
    (folder / "day.pcap").write_bytes(build.pcap(frames))
    (folder / "days").mkdir()
    for name, data in DAYS.items():
        (folder / "days" / name).write_bytes(data)


def take_programs(folder):
    """Under the names that they have once they are installed."""
    folder.mkdir()
    for name, path in PROGRAMS.items():
        (folder / name).symlink_to(os.path.abspath(path))


def kill_all_on(host):
    """Also what a script has left behind; nobody else is there."""
    names = subprocess.run(["ip", "netns", "pids", host.name], capture_output=True, text=True)
    for pid in names.stdout.split():
        with contextlib.suppress(ProcessLookupError):
            os.kill(int(pid), signal.SIGKILL)


def recorded_group(stage, text, recording, written):
    """The payloads that a receiver of a group writes, started as it is typed, while a
    recording is sent there. Its minute is cut short by a Ctrl-C behind the last datagram."""
    receiver = stage.receive(text)
    receiver.wait_until_bound(5000, GROUP)
    sender = stage.send(
        f"replay_sender --filetype 1 --filepath {recording} --filter 'udp and port 5000' "
        f"--protocol udp --ip {GROUP} --port 5000 --device eth1 --mbps 20"
    )
    receiver.wait_until(
        lambda: stage.receiving.counter("Udp", "InDatagrams") == len(MATCHED),
        "all datagrams",
    )
    receiver.signal(signal.SIGINT)
    receiver.expect(0)
    assert sender.stop(signal.SIGINT) == 0
    return captured_payloads(stage.folder / written)


@pytest.fixture
def stage():
    if os.geteuid() != 0 or shutil.which("ip") is None:
        pytest.skip("network namespaces need root and the ip program")
    hosts = (
        Host(f"replay-{os.getpid()}-s", "eth1", "10.77.0.1"),
        Host(f"replay-{os.getpid()}-r", "eth1", "10.77.0.2"),
    )
    with tempfile.TemporaryDirectory() as place:
        place = pathlib.Path(place)
        place.chmod(0o755)
        make_recordings(place / "folder")
        take_programs(place / "programs")
        try:
            try:
                create_cable(hosts)
            except subprocess.CalledProcessError as error:
                pytest.skip(f"no network namespaces here: {error.stderr.strip()}")
            one = Stage(place / "folder", *hosts)
            yield one
            one.end()
        finally:
            for host in hosts:
                kill_all_on(host)
                subprocess.run(["ip", "netns", "delete", host.name], capture_output=True)
