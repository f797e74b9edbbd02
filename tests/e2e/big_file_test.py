"""A large file of random bytes arrives unchanged at receivers that are not ours
and at our own, as fast as possible, at a rate and over several passes.

REPLAY_BIG_BYTES sets the file's size; the default keeps the suite short.
"""

import os
import shutil
import subprocess
import tempfile
import threading
import time

import pytest

from conftest import DEADLINE, LOCALHOST, SANITIZER, echo
from replay_receiver import receive  # noqa: F401: a fixture

MEGABYTE = 1 << 20
DEFAULT_BYTES = (64 if SANITIZER else 256) * MEGABYTE
BIG_BYTES = int(os.environ.get("REPLAY_BIG_BYTES", DEFAULT_BYTES))
PACED_MBPS = 400


@pytest.fixture(scope="module")
def big_file():
    with tempfile.NamedTemporaryFile() as file:
        left = BIG_BYTES
        while left > 0:
            left -= file.write(os.urandom(min(left, 16 * MEGABYTE)))
        file.flush()
        yield file.name


def compare(path, passes, read_into):
    """Compares what `read_into(view)` delivers with the file, pass by pass."""
    buffer = memoryview(bytearray(MEGABYTE))
    for number in range(passes):
        with open(path, "rb") as file:
            position = 0
            while expected := file.read(len(buffer)):
                have = 0
                while have < len(expected):
                    got = read_into(buffer[have : len(expected)])
                    assert got, f"ended in pass {number} at byte {position + have}"
                    have += got
                assert bytes(buffer[:have]) == expected, (
                    f"differs in pass {number}, in the megabyte at {position}"
                )
                position += have


@pytest.fixture
def arrives_here(serve, connect, big_file):
    """Replays the file to a receiver of our own; the seconds that it took."""

    def check(*words, passes=1, **settings):
        sender = serve(big_file, *words)
        begin = time.monotonic()
        receiver = connect(sender)
        compare(big_file, passes, receiver.socket.recv_into)
        elapsed = time.monotonic() - begin
        sender.wait_for_progress()
        sender.stop()
        assert receiver.read_to_end() == b""
        sender.expect(output=echo(big_file, sender.address, **settings))
        return elapsed

    return check


@pytest.fixture
def arrives_at(serve, big_file):
    """Replays the file to a program that writes what it gets to its output.

    The program reads until the sender closes, which must then be all; a program
    that hangs is killed, which ends the reading as well.
    """

    def check(command):
        if shutil.which(command[0]) is None:
            pytest.skip(f"{command[0]} is not installed")
        sender = serve(big_file)
        words = [word.format(host=LOCALHOST, port=sender.port) for word in command]
        program = subprocess.Popen(
            words, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, bufsize=0
        )
        watchdog = threading.Timer(DEADLINE + BIG_BYTES / MEGABYTE, program.kill)
        watchdog.start()
        try:
            compare(big_file, 1, program.stdout.readinto)
            sender.wait_for_progress()
            sender.stop()
            assert program.stdout.read() == b""
            assert program.wait(DEADLINE) == 0
        finally:
            watchdog.cancel()
            program.kill()
            program.wait()
            program.stdout.close()
        sender.expect(output=echo(big_file, sender.address))

    return check


def test_a_big_file_arrives_at_socat(arrives_at):
    arrives_at(["socat", "-u", "TCP4:{host}:{port}", "STDOUT"])


def test_a_big_file_arrives_at_nc(arrives_at):
    arrives_at(["nc", "-d", "{host}", "{port}"])


def test_the_receiver_too_finds_three_passes_of_a_big_file_whole(
    receive, serve, big_file
):
    line = ("--filepath", big_file, "--loopback", "3")
    sender = serve(big_file, "--loopback", "3")
    run = receive("--port", str(sender.port), *line)
    assert run.wait(DEADLINE + 3 * BIG_BYTES / MEGABYTE) == 0
    assert run.result.matched[1] == run.result.received[1] == 3 * BIG_BYTES
    sender.stop()
    sender.expect(output=echo(big_file, sender.address, loopback=3))


def test_three_passes_of_a_big_file_arrive(arrives_here):
    arrives_here("--loopback", "3", passes=3, loopback=3)


def test_a_big_file_arrives_at_a_rate_and_not_before_it_is_due(arrives_here):
    elapsed = arrives_here("--mbps", str(PACED_MBPS), in_speed=PACED_MBPS * 1000000)
    assert elapsed >= BIG_BYTES * 8 / (PACED_MBPS * 1e6)
