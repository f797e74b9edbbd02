"""What must not happen to whoever runs the receiver: a run that never ends, a file
that is gone, names that cannot be meant, a progress line that nobody reads."""

import errno
import json
import os
import random
import resource
import signal
import socket

import pytest

from conftest import DEADLINE, LOCALHOST, POLL_INTERVAL
from replay_receiver import both, receive, udp_port  # noqa: F401: fixtures


def keep_sending(run, port, datagrams):
    """These once, and then strangers for as long as the receiver runs."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        sender.connect((LOCALHOST, port))
        for datagram in datagrams:
            sender.send(datagram)

        def send_another():
            try:
                sender.send(random.randbytes(100))
            except ConnectionRefusedError:
                pass
            return not run.running()

        limit = 30 / POLL_INTERVAL
        while limit and not send_another():
            limit -= 1
            run.pause()


def test_traffic_that_goes_on_behind_a_loss_does_not_hold_the_run(
    receive, data_file, udp_port
):
    messages = [random.randbytes(10240) for _ in range(3)]
    run = receive(
        "--filepath", data_file(b"".join(messages)), "--protocol", "udp",
        "--port", str(udp_port), "--idle", "0.5",
    )
    run.wait_until_bound(udp_port)
    keep_sending(run, udp_port, messages[1:])
    result = run.expect(1, "idle")
    assert result.counts["lost"] == 1


def test_another_recording_without_end_does_not_hold_the_run(
    receive, serve, data_file
):
    sender = serve(data_file(random.randbytes(3000000)), "--loopback", "0")
    other = data_file(random.randbytes(3000000), name="other")
    run = receive("--filepath", other, "--port", str(sender.port), "--idle", "0.5")
    result = run.expect(1)
    assert result.verified["gave_up"] is True
    sender.stop()


def test_a_progress_line_that_nobody_reads_does_not_hold_the_run(
    receive, serve, data_file
):
    sender = serve(data_file(random.randbytes(1000000)), "--mbps", "4")
    reader, writer = os.pipe()
    try:
        os.set_blocking(writer, False)
        filler = bytes(65536)
        try:
            while os.write(writer, filler):
                pass
        except BlockingIOError:
            os.set_blocking(writer, True)
        run = receive(
            "--port", str(sender.port), "--duration", "1", "--progress", "always",
            stderr=writer,
        )
        run.expect(0, "duration")
    finally:
        os.close(reader)
        os.close(writer)
    sender.stop()


def test_fewer_messages_than_asked_for_are_too_few(receive, serve, data_file):
    sender = serve(data_file(bytes(30720)))
    run = receive(
        "--port", str(sender.port), "--filepath", data_file(bytes(30720), name="same"),
        "--loopback", "0", "--messages", "100", "--idle", "0.5",
    )
    result = run.expect(7, "idle")
    assert result.matched == (3, 30720)
    sender.stop()


def test_a_closed_endless_replay_has_ended_early(receive, serve, data_file):
    path = data_file(bytes(30720))
    sender = serve(path, "--loopback", "0", "--mbps", "4")
    run = receive("--port", str(sender.port), "--filepath", path, "--loopback", "0")
    run.wait_until_connected(sender.port)
    sender.wait_for_progress()
    sender.stop()
    run.expect(7, "closed")


def test_the_previous_file_stays_when_the_run_never_starts(receive, tmp_path, port):
    kept = tmp_path / "kept.dat"
    kept.write_bytes(b"yesterday's")
    report = tmp_path / "report.html"
    run = receive(
        "--port", str(port), "--connect-timeout", "0.2", "--write", kept,
        "--report", report,
    )
    run.expect(3)
    assert kept.read_bytes() == b"yesterday's"
    assert not report.exists()


@pytest.mark.parametrize(
    "words",
    [
        ("--filepath", ""),
        ("--write", "-"),
        ("--csv", "-"),
        ("--report", "-"),
        ("--json", "same", "--csv", "same"),
    ],
)
def test_names_that_cannot_be_meant_are_wrong_use(receive, words):
    receive(*words, json=False).expect_refusal(2, words[0])


@pytest.mark.parametrize("closed", [{0}, {1}, {2}, {0, 1}, {0, 2}, {1, 2}, {0, 1, 2}])
def test_no_text_for_a_closed_stream_gets_into_a_file(receive, data_file, closed):
    """The result's file is the first that is opened: it would get a closed one's number."""
    words = ("--plan", "--filepath", data_file(b"x" * 20480))

    def close():
        for stream in closed:
            os.close(stream)

    runs = [receive(*words), receive(*words, preexec_fn=close)]
    status = 6 if 1 in closed else 0  # of a summary that cannot be written
    assert [run.wait() for run in runs] == [0, status]
    results = [json.loads(run.json_path.read_text()) for run in runs]
    commands = [result.pop("command") for result in results]
    assert commands[0] != commands[1]  # each has a file of its own
    assert results[0] == results[1]
    shown = [run.output() for run in runs]
    assert shown[1] == ("" if status else shown[0])


def test_no_text_for_a_closed_stream_gets_to_the_sender(receive):
    """Of a run without a file the socket is the first that is opened."""
    with socket.create_server((LOCALHOST, 0)) as listener:
        listener.settimeout(DEADLINE)
        run = receive(
            "--port", str(listener.getsockname()[1]), "--duration", "0.5",
            "--debug", "1", "--progress", "always",
            json=False, preexec_fn=lambda: os.close(2),
        )
        peer, _ = listener.accept()
        with peer:
            peer.settimeout(DEADLINE)
            peer.sendall(b"x")
            run.expect(0)
            assert peer.recv(4096) == b""


SIZE_LIMIT = 10  # bytes; every output has more


def limit_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (SIZE_LIMIT, SIZE_LIMIT))


@pytest.fixture
def pipe():
    """Both ends of a pipe, for which no limit of files counts."""
    reader, writer = os.pipe()
    with open(reader) as there, open(writer, "w") as here:
        yield there, here


@pytest.mark.parametrize("protocol", ["tcp", "udp"])
@pytest.mark.parametrize("option", ["--json", "--csv", "--report", "--write"])
def test_the_limit_on_a_files_size_is_told(
    both, data_file, tmp_path, pipe, option, protocol
):
    """The kernel sends a signal there, which ends a program that does not see to it."""
    there, here = pipe
    kept = tmp_path / "kept"
    run = both(
        "--filepath", data_file(bytes(30000)), protocol=protocol, json=False,
        receiver=(option, kept), stdout=here, stderr=here, preexec_fn=limit_files,
    )
    here.close()
    run.expect(6)
    reason = f"replay_receiver: {kept}: cannot be written: {os.strerror(errno.EFBIG)}\n"
    assert reason in there.read()
    assert kept.stat().st_size == SIZE_LIMIT


@pytest.mark.parametrize("words", [(), ("--json", "-")])
def test_the_limit_on_standard_outputs_size_is_told(receive, data_file, pipe, words):
    there, here = pipe
    run = receive(
        "--plan", "--filepath", data_file(bytes(30000)), *words,
        json=False, stderr=here, preexec_fn=limit_files,
    )
    here.close()
    run.expect(6)
    reason = f"standard output: cannot be written: {os.strerror(errno.EFBIG)}"
    assert there.read() == f"replay_receiver: {reason}\n"
    assert len(run.output()) == SIZE_LIMIT


def test_a_low_rate_is_no_silence(receive, serve, data_file):
    # At this rate the sender's first pause is longer than the usual two seconds.
    path = data_file(bytes(20480))
    line = ("--mbps", "0.05")
    sender = serve(path, *line)
    run = receive(
        "--port", str(sender.port), "--filepath", path, *line, "--tolerance", "100"
    )
    run.expect(0, "complete")
    sender.signal(signal.SIGINT)
    sender.wait()
