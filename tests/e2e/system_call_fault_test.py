"""The sender when the system refuses or cuts short what it asks for. strace gives the
made-up results, so that every fault comes when the test wants it.

A tracer takes the place that the leak check of a sanitizer's build needs: there, the
sender runs without that check. Faults that would meet the sanitizer's own calls are
skipped there.

The last part does without faults: it starts the sender with closed standard streams.
"""

import itertools
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import time

import pytest

from capture_builder import pcap, payloads, tcp, udp
from capture_test import reading
from conftest import (
    BINARY,
    DEADLINE,
    LOCALHOST,
    SANITIZER,
    Program,
    Sender,
    debug_dump,
    echo,
    fatal,
    not_with,
    pieces,
    uncaught,
)
from tcp_run_test import messages  # noqa: F401, a fixture
from udp_receiver import (  # noqa: F401, fixtures
    assert_same,
    make_receiver,
    receiver,
    replay,
    udp_echo,
)

STRACE = shutil.which("strace")
DATA = bytes(range(256)) * 97 + b"the end"  # two whole messages and a part of one
MESSAGES = pieces(DATA)
ABORTED = -signal.SIGABRT


def may_trace():
    """Whether strace is here and the system lets it trace."""
    if STRACE is None:
        return False
    words = [STRACE, "-o", os.devnull, "-e", "inject=close:error=EIO:when=1000", "true"]
    return subprocess.run(words, capture_output=True).returncode == 0


pytestmark = pytest.mark.skipif(not may_trace(), reason="strace may not trace here")


class FaultySender(Sender):
    """A sender that runs under these faults from its first instruction on.

    strace runs beside it (-D), so that the process and its end are the sender's own.
    A fault is written as strace's -e inject= takes it; `path` confines all of them to
    the calls that concern that file, which may be "stdout".
    """

    def __init__(self, directory, words, faults, path=None, port=None, wrapper=()):
        self.port = port
        self.trace = directory / "trace"
        calls = ",".join(fault.partition(":")[0] for fault in faults)
        tracer = [STRACE, "-D", "-f", "--quiet=all", "-o", self.trace]
        tracer += ["-e", f"trace={calls}"]
        for fault in faults:
            tracer += ["-e", f"inject={fault}"]
        if path is not None:
            tracer += ["-P", os.path.join(directory, path)]  # an absolute one stays
        Program.__init__(self, directory, [*tracer, *wrapper, BINARY, *words])

    def injected(self):
        """How often a fault came. strace may still be writing when the sender ends."""
        limit = time.monotonic() + DEADLINE
        while True:
            text = self.trace.read_text() if self.trace.exists() else ""
            if "INJECTED" in text or time.monotonic() > limit:
                return text.count("INJECTED")
            time.sleep(0.01)


@pytest.fixture(autouse=True)
def no_leak_check(monkeypatch):
    """It would end a sender that is traced."""
    options = os.environ.get("ASAN_OPTIONS", "")
    monkeypatch.setenv("ASAN_OPTIONS", f"{options}:detect_leaks=0".lstrip(":"))


@pytest.fixture
def faulty(tmp_path):
    """faulty(faults, *words, path=, port=) is a FaultySender."""
    senders = []

    def run(faults, *words, **options):
        directory = tmp_path / f"faulty-{len(senders)}"
        directory.mkdir()
        senders.append(FaultySender(directory, words, faults, **options))
        return senders[-1]

    yield run
    for sender in senders:
        sender.kill()


class Tracer:
    """Gives one thread of a running sender these faults, from now on."""

    def __init__(self, directory, thread, faults):
        self.trace = directory / f"trace-{thread}"
        calls = {fault.partition(":")[0] for fault in faults} | {"epoll_wait"}
        words = [STRACE, "--quiet=all", "-o", self.trace]
        words += ["-e", f"trace={','.join(sorted(calls))}"]
        for fault in faults:
            words += ["-e", f"inject={fault}"]
        self._process = subprocess.Popen(
            [*words, "-p", str(thread)], stderr=subprocess.DEVNULL
        )
        self._status = pathlib.Path(f"/proc/{thread}/status")

    def is_attached(self):
        return f"TracerPid:\t{self._process.pid}\n" in self._status.read_text()

    def text(self):
        return self.trace.read_text() if self.trace.exists() else ""

    def injected(self):
        return self.text().count("INJECTED")

    def wait(self):
        """For the end of the sender, with which the tracer ends."""
        self._process.wait(DEADLINE)

    def stop(self):
        self._process.terminate()
        self._process.wait()


@pytest.fixture
def attach(tmp_path):
    """attach(sender, *faults, main=) returns once the poller thread, or the main
    thread, is under the faults."""
    tracers = []

    def run(sender, *faults, main=False):
        thread = sender.pid if main else sender.poller()
        tracer = Tracer(tmp_path, thread, faults)
        tracers.append(tracer)
        if main:
            # It makes no calls while it spins, and it spins on once it is traced.
            sender.wait_until(tracer.is_attached, "attached")
            sender.wait_for_progress([thread])
        else:
            # It waits for events all the time; a line of that is a traced call.
            sender.wait_until(lambda: "epoll_wait" in tracer.text(), "traced")
        return tracer

    yield run
    for tracer in tracers:
        tracer.stop()


@pytest.fixture
def path(data_file):
    return data_file(DATA)


# ------------------------------------------------------------ setting a run up

OUT_OF_MEMORY = "Cannot allocate memory"
TOO_MANY_FILES = "Too many open files"
NO_WAKEUP = "Assertion failed: wakeup_fd_ != retired_fd"
NO_ENDPOINT = "Assertion failed: rc != retired_fd"
NOT_INHERITABLE = "Assertion failed: rc != -1"
NO_WAKEUP_WRITTEN = "Assertion failed: n == sizeof(uint64_t)"
WITHOUT_CHECKS = not_with(("asan", "tsan"), "their runtime makes such calls of its own")
# What the poller thread's first write may give.
WAKEUP_WRITES = [
    pytest.param(fault, NO_WAKEUP_WRITTEN, "tcp_engine.h", marks=WITHOUT_CHECKS)
    for fault in ("write:error=EAGAIN:when=1", "write:retval=4:when=1")
]
PASSING_ACCEPT_ERRORS = [
    "EAGAIN", "EINTR", "ECONNABORTED", "EPROTO", "ENOBUFS", "ENOMEM", "EMFILE", "ENFILE",
]


@pytest.mark.parametrize(
    "fault, text, header",
    [
        ("epoll_create:error=EMFILE", TOO_MANY_FILES, "epoll.h"),
        ("epoll_create:error=ENOMEM", OUT_OF_MEMORY, "epoll.h"),
        ("eventfd2:error=EMFILE", NO_WAKEUP, "tcp_replay.h"),
        ("eventfd2:error=ENOMEM", NO_WAKEUP, "tcp_replay.h"),
        # The wake-up's registration and interest, then the listener's.
        ("epoll_ctl:error=ENOSPC:when=1", "No space left on device", "epoll.h"),
        ("epoll_ctl:error=ENOMEM:when=2", OUT_OF_MEMORY, "epoll.h"),
        ("epoll_ctl:error=EPERM:when=3", "Operation not permitted", "epoll.h"),
        ("epoll_ctl:error=ENOENT:when=4", "No such file or directory", "epoll.h"),
        ("socket:error=EMFILE", NO_ENDPOINT, "tcp_replay.h"),
        ("socket:error=ENOBUFS", NO_ENDPOINT, "tcp_replay.h"),
        ("fcntl:error=EBADF", NOT_INHERITABLE, "tcp_engine.h"),
        ("fcntl:error=EINVAL", NOT_INHERITABLE, "tcp_engine.h"),
        ("fcntl:error=EPERM", NOT_INHERITABLE, "tcp_engine.h"),
        ("setsockopt:error=ENOMEM", NO_ENDPOINT, "tcp_replay.h"),
        ("bind:error=EADDRINUSE", NO_ENDPOINT, "tcp_replay.h"),
        ("bind:error=EACCES", NO_ENDPOINT, "tcp_replay.h"),
        ("listen:error=EADDRINUSE", NO_ENDPOINT, "tcp_replay.h"),
    ],
)
def test_a_tcp_run_that_cannot_be_set_up_is_fatal(faulty, path, port, fault, text, header):
    sender = faulty([fault], "--filepath", path, "--port", str(port))
    sender.expect(ABORTED, echo(path, f"{LOCALHOST}:{port}"), fatal(text, header))
    assert sender.injected() == 1


@pytest.mark.parametrize(
    "fault, text, header",
    [
        ("epoll_create:error=ENFILE", "Too many open files in system", "epoll.h"),
        ("socket:error=EMFILE", TOO_MANY_FILES, "tcp_replay.h"),
        ("socket:error=ENOBUFS", "No buffer space available", "tcp_replay.h"),
        ("socket:error=EACCES", "Permission denied", "tcp_replay.h"),
        ("setsockopt:error=EPERM", "Operation not permitted", "tcp_replay.h"),
        ("setsockopt:error=ENODEV", "No such device", "tcp_replay.h"),
        ("epoll_ctl:error=ENOSPC:when=1", "No space left on device", "epoll.h"),
        ("epoll_ctl:error=ENOMEM:when=2", OUT_OF_MEMORY, "epoll.h"),
    ],
)
def test_a_udp_run_that_cannot_be_set_up_is_fatal(faulty, path, fault, text, header):
    sender = faulty([fault], "--filepath", path, "--protocol", "udp", "--port", "9")
    output = echo(path, f"{LOCALHOST}:9", protocol="udp")
    sender.expect(ABORTED, output, fatal(text, header))
    assert sender.injected() == 1


NO_THREAD = (
    "terminate called after throwing an instance of 'std::system_error'\n"
    "  what():  Resource temporarily unavailable\n"
)


@not_with(("tsan",), "they start a thread before the program does")
@pytest.mark.parametrize("error", ["EAGAIN", "ENOMEM"])
def test_a_thread_that_the_system_does_not_give_ends_the_program(faulty, path, error):
    """The C library tells every such error as a lack of resources."""
    faults = [f"clone3:error={error}", f"clone:error={error}"]
    sender = faulty(faults, "--filepath", path, "--protocol", "udp", "--port", "9")
    sender.expect(ABORTED, echo(path, f"{LOCALHOST}:9", protocol="udp"), NO_THREAD)
    assert sender.injected() == 1


def number_of_the_stacks(call, sender):
    """Which of the main thread's calls of this name is the one for the new thread's stack:
    the mapping itself, or the first one behind it."""
    lines = sender.trace.read_text().splitlines()
    own = [line for line in lines if line.split()[0] == str(sender.pid)]
    (stack,) = (number for number, line in enumerate(own) if "MAP_STACK" in line)
    before = sum(f" {call}(" in line for line in own[:stack])
    assert any(f" {call}(" in line for line in own[stack:])
    return before + 1


@WITHOUT_CHECKS
@pytest.mark.parametrize("call", ["mmap", "mprotect"])
def test_a_stack_that_the_system_does_not_give_ends_the_program(faulty, path, call):
    """A first run, to which the fault never comes, shows which call it is."""
    words = ("--filepath", path, "--protocol", "udp", "--port", "9")
    never = [f"{each}:error=ENOMEM:when=65535" for each in ("mmap", "mprotect")]
    first = faulty(never, *words)
    assert first.stop() == 0

    number = number_of_the_stacks(call, first)
    sender = faulty([f"{call}:error=ENOMEM:when={number}"], *words)
    sender.expect(ABORTED, echo(path, f"{LOCALHOST}:9", protocol="udp"), NO_THREAD)
    assert sender.injected() == 1


# --------------------------------------------------------- reading the sources


@pytest.fixture
def udp_run(faulty, receiver, udp_echo):
    """udp_run(faults, path, *words, expected=) replays over UDP under faults that are
    confined to that path, and expects these datagrams and a clean end."""

    def run(faults, path, *words, expected=MESSAGES, output="", confined=True, **settings):
        sender = faulty(
            faults, "--filepath", path, "--port", str(receiver.port),
            "--protocol", "udp", *words, path=path if confined else None,
        )
        assert_same(receiver.receive(len(expected)), expected)
        sender.wait_for_output("device: ")
        sender.wait_for_progress()
        sender.stop()
        assert receiver.is_quiet()
        sender.expect(0, udp_echo(path, **settings) + output)
        assert sender.injected() >= 1

    return run


@WITHOUT_CHECKS
@pytest.mark.parametrize(
    "fault",
    [
        "madvise:error=EINVAL",
        "munmap:error=EINVAL",
        "rseq:error=ENOSYS",
        "rt_sigprocmask:error=EINVAL",
        "set_robust_list:error=ENOSYS",
    ],
)
def test_a_call_by_which_the_c_library_keeps_house_may_fail(udp_run, path, fault):
    udp_run([fault], path, confined=False)


@pytest.mark.parametrize("error, number", [("EACCES", 13), ("ELOOP", 40), ("ENOMEM", 12)])
def test_a_path_that_cannot_be_examined_is_told_with_its_errno(
    faulty, path, error, number
):
    sender = faulty(
        [f"newfstatat:error={error}"],
        "--filepath", path, "--protocol", "udp", "--port", "9", path=path,
    )
    sender.expect(
        ABORTED,
        echo(path, f"{LOCALHOST}:9", protocol="udp"),
        uncaught(f"Cannot find file {path}. errno: {number}"),
    )


@pytest.mark.parametrize("error, number", [("EACCES", 13), ("EMFILE", 24), ("EINTR", 4)])
def test_a_file_that_never_opens_is_told_after_five_tries(faulty, path, error, number):
    """The pauses between the tries are interrupted, too, and taken up again."""
    sender = faulty(
        [f"openat:error={error}"],
        "--filepath", path, "--protocol", "udp", "--port", "9", path=path,
    )
    sender.expect(
        ABORTED,
        echo(path, f"{LOCALHOST}:9", protocol="udp"),
        uncaught(f"Failed opening file {path} for reading. errno: {number}"),
    )
    assert sender.injected() == 5


def test_pauses_that_are_interrupted_are_taken_up_again(faulty, tmp_path, data_file):
    """Of the two pauses behind an unreadable file's tries, one is cut short."""
    directory = tmp_path / "files"
    directory.mkdir()
    (directory / "1").write_bytes(b"x")
    (directory / "2").symlink_to(tmp_path / "missing")  # taken for what "1" is
    sender = faulty(
        ["clock_nanosleep:error=EINTR:when=1+2"],
        "--filepath", directory, "--protocol", "udp", "--port", "9",
    )
    sender.expect(
        ABORTED,
        echo(directory, f"{LOCALHOST}:9", protocol="udp"),
        uncaught(f"Failed opening file {directory}/2 for reading. errno: 2"),
    )
    assert sender.injected() == 5
    assert sender.trace.read_text().count("clock_nanosleep") == 10


def test_a_file_that_opens_at_the_third_try_arrives_whole(udp_run, path):
    udp_run(["openat:error=EMFILE:when=1..2"], path)


def test_reads_that_are_interrupted_are_taken_up_again(udp_run, path):
    udp_run(["read:error=EINTR:when=1..3"], path)


@pytest.mark.parametrize("error", ["EIO", "EISDIR", "ENOMEM", "ESTALE"])
def test_a_read_error_ends_the_file_there(udp_run, path, error):
    udp_run([f"read:error={error}:when=3+"], path, expected=MESSAGES[:2])


def test_a_position_that_cannot_be_told_changes_nothing(udp_run, path):
    udp_run(["lseek:error=ESPIPE"], path)


def test_a_read_error_without_a_position_ends_the_file_behind_its_last_whole_message(
    udp_run, path
):
    faults = ["lseek:error=ESPIPE", "read:error=EIO:when=3+"]
    udp_run(faults, path, expected=MESSAGES[:2])


@pytest.mark.parametrize("error", ["EBADF", "EINTR", "EIO", "ENOSPC"])
def test_a_file_that_fails_to_close_changes_nothing(udp_run, path, error):
    udp_run(
        [f"close:error={error}"], path, "--loopback", "2",
        expected=MESSAGES * 2, loopback=2,
    )


EXAMINING_ERRORS = ["EBADF", "EIO", "ENOMEM", "EOVERFLOW"]  # of fstat
LISTING_ERRORS = ["EBADF", "EFAULT", "EINVAL", "EIO", "ENOTDIR"]  # of getdents64


@pytest.mark.parametrize(
    "fault",
    [
        "openat:error=EMFILE",
        *(f"newfstatat:error={error}:when=2" for error in EXAMINING_ERRORS),
        *(f"getdents64:error={error}:when=1" for error in LISTING_ERRORS),
        *(f"getdents64:error={error}:when=2" for error in LISTING_ERRORS),
        "getdents64:error=ENOENT:when=1",
    ],
)
def test_a_directory_that_cannot_be_listed_is_named(faulty, tmp_path, fault):
    directory = tmp_path / "files"
    directory.mkdir()
    (directory / "file").write_bytes(DATA)
    sender = faulty(
        [fault],
        "--filepath", directory, "--protocol", "udp", "--port", "9",
        path=f"{directory}/",
    )
    sender.expect(
        ABORTED,
        echo(directory, f"{LOCALHOST}:9", protocol="udp"),
        uncaught(f"Dir {directory}/ no files"),
    )


def test_a_directory_that_is_gone_when_it_is_read_on_ends_there(udp_run, tmp_path):
    directory = tmp_path / "files"
    directory.mkdir()
    (directory / "file").write_bytes(DATA)
    udp_run(["getdents64:error=ENOENT:when=2"], directory)


def capture_words(path, port, filter="udp"):
    return (
        "--filepath", path, "--port", str(port), "--protocol", "udp",
        "--filetype", "1", "--filter", filter,
    )


def capture_echo(path, port, filter="udp"):
    address = f"{LOCALHOST}:{port}"
    return echo(path, address, filetype=1, filter=filter, protocol="udp")


def test_a_capture_that_cannot_be_opened_is_told_in_libpcaps_words(faulty, data_file):
    path = data_file(pcap([udp(b"x")]), "a.pcap")
    sender = faulty(["openat:error=EMFILE"], *capture_words(path, 9), path=path)
    sender.expect(
        ABORTED,
        capture_echo(path, 9),
        uncaught(f"Open pcap file failed! Error message: {path}: {TOO_MANY_FILES}"),
    )


@pytest.mark.parametrize(
    "error, text",
    [
        ("EINTR", "Interrupted system call"),
        ("EIO", "Input/output error"),
        ("EISDIR", "Is a directory"),
        ("ENOMEM", OUT_OF_MEMORY),
        ("ESTALE", "Stale file handle"),
    ],
)
def test_a_read_error_in_a_captures_header_is_told_in_libpcaps_words(
    faulty, data_file, error, text
):
    path = data_file(pcap([udp(b"x")]), "a.pcap")
    sender = faulty([f"read:error={error}"], *capture_words(path, 9), path=path)
    sender.expect(
        ABORTED,
        capture_echo(path, 9),
        uncaught(f"Open pcap file failed! Error message: error reading dump file: {text}"),
    )


@pytest.mark.parametrize("error", ["EINTR", "EIO", "EISDIR", "ENOMEM", "ESTALE"])
def test_a_read_error_ends_a_capture_behind_its_last_whole_frame(
    faulty, data_file, receiver, error
):
    frames = [udp(bytes([number]) * 1500) for number in range(6)]
    path = data_file(pcap(frames), "a.pcap")
    # The first block of 4096 bytes holds two frames and a part of the third.
    expected = payloads(frames)[:2]
    sender = faulty(
        [f"read:error={error}:when=2+"], *capture_words(path, receiver.port), path=path
    )
    assert_same(receiver.receive(2), expected)
    sender.wait_for_progress()
    sender.stop()
    assert receiver.is_quiet()
    description = "link-type EN10MB Ethernet, snapshot lengthL: 262144"
    sender.expect(
        0,
        capture_echo(path, receiver.port) + f"reading from file: {path}, {description}\n",
    )
    assert sender.injected() >= 1


@pytest.mark.parametrize("error", EXAMINING_ERRORS)
def test_a_capture_that_cannot_be_examined_once_it_is_open_is_read_all_the_same(
    udp_run, data_file, error
):
    frames = [udp(bytes([number]) * 1500) for number in range(6)]
    path = data_file(pcap(frames), "a.pcap")
    udp_run(
        [f"newfstatat:error={error}:when=2"], path, "--filetype", "1", "--filter", "udp",
        expected=payloads(frames), output=reading(path), filetype=1, filter="udp",
    )


def test_a_udp_socket_that_cannot_be_unblocked_sends_all_the_same(udp_run, path):
    udp_run(["fcntl:error=EPERM"], path, confined=False)


def dump_to(receiver, faulty, path, fault):
    """A run that dumps, with this fault of its standard output, up to a stop."""
    sender = faulty(
        [fault], "--filepath", path, "--port", str(receiver.port), "--protocol", "udp",
        "--debug", "1", path="stdout",
    )
    assert_same(receiver.receive(len(MESSAGES)), MESSAGES)
    sender.wait_for_progress()
    sender.signal(signal.SIGINT)
    return sender


@pytest.mark.parametrize("error", EXAMINING_ERRORS)
def test_standard_output_that_cannot_be_examined_is_written_all_the_same(
    faulty, path, receiver, udp_echo, error
):
    sender = dump_to(receiver, faulty, path, f"newfstatat:error={error}")
    sender.expect(0, udp_echo(path) + debug_dump(MESSAGES))
    assert sender.injected() == 1


# What the manual page of write names.
WRITE_ERRORS = [
    "EAGAIN", "EBADF", "EDESTADDRREQ", "EDQUOT", "EFAULT", "EFBIG", "EINTR", "EINVAL",
    "EIO", "ENOSPC", "EPERM", "EPIPE",
]


@pytest.mark.parametrize("error", WRITE_ERRORS)
def test_output_that_cannot_be_written_does_not_hold_up_the_run(
    faulty, path, receiver, error
):
    sender = dump_to(receiver, faulty, path, f"write:error={error}")
    sender.expect(0)
    assert receiver.is_quiet()
    assert sender.injected() >= 1


@pytest.mark.parametrize("error", WRITE_ERRORS)
def test_a_line_that_cannot_be_written_takes_all_later_lines_with_it(
    faulty, data_file, receiver, udp_echo, error
):
    """The bytes of a dump do not come by the stream that has failed: they still appear."""
    data = b"0123456789"
    path = data_file(data)
    sender = faulty(
        [f"write:error={error}:when=3"],
        "--filepath", path, "--port", str(receiver.port), "--protocol", "udp",
        "--debug", "1", path="stdout",
    )
    assert receiver.receive(1) == [data]
    sender.wait_for_progress()
    sender.signal(signal.SIGINT)
    first, second, _ = udp_echo(path).split("\n", 2)
    sender.expect(0, f"{first}\n{second}\n" + "".join(f"{byte:02x} " for byte in data))
    assert sender.injected() == 1


@pytest.mark.parametrize("count", [0, 3])
def test_a_line_that_is_written_in_part_is_finished(
    faulty, path, receiver, udp_echo, count
):
    """The bytes that the system says it took are the ones that do not come out."""
    sender = faulty(
        [f"write:retval={count}:when=2"],
        "--filepath", path, "--port", str(receiver.port), "--protocol", "udp",
        path="stdout",
    )
    assert_same(receiver.receive(len(MESSAGES)), MESSAGES)
    sender.wait_for_progress()
    sender.signal(signal.SIGINT)
    first, second, rest = udp_echo(path).split("\n", 2)
    sender.expect(0, f"{first}\n{second[count:]}\n{rest}")
    assert sender.injected() == 1


@pytest.mark.parametrize("error", WRITE_ERRORS)
def test_an_abort_follows_although_its_reason_cannot_be_written(faulty, tmp_path, error):
    """That of an exception and that of a fatal check."""
    missing = tmp_path / "missing"
    words = ("--filepath", missing, "--protocol", "udp", "--port", "9")
    sender = faulty([f"write:error={error}"], *words, path="stderr")
    sender.expect(ABORTED, echo(missing, f"{LOCALHOST}:9", protocol="udp"))
    assert sender.injected() >= 1

    words = (*words, "--device", "no-such-device")
    sender = faulty([f"write:error={error}"], *words, path="stderr")
    sender.expect(
        ABORTED, echo(missing, f"{LOCALHOST}:9", protocol="udp", device="no-such-device")
    )
    assert sender.injected() >= 1


@pytest.mark.parametrize("error", WRITE_ERRORS)
def test_a_refused_filter_that_cannot_be_told_is_skipped_all_the_same(
    faulty, data_file, error
):
    expect_a_skipped_capture(
        faulty, data_file, f"write:error={error}", "udp and and", path="stderr"
    )


def expect_a_skipped_capture(faulty, data_file, fault, filter, errors="", **options):
    path = data_file(pcap([udp(b"x")]), "a.pcap")
    sender = faulty([fault], *capture_words(path, 9, filter), **options)
    sender.wait_for_output("reading from file")
    sender.wait_for_progress()
    sender.signal(signal.SIGINT)
    sender.expect(0, capture_echo(path, 9, filter) + reading(path), errors)
    assert sender.injected() >= 1


@pytest.mark.parametrize(
    "fault",
    [
        "socket:error=EMFILE:when=2+",  # behind the run's own
        "socket:error=ENOBUFS:when=2+",
        "connect:error=EACCES",
        "connect:error=ENETUNREACH",
    ],
)
def test_a_name_in_a_filter_that_cannot_be_looked_up_is_a_refused_filter(
    faulty, data_file, fault
):
    expect_a_skipped_capture(
        faulty, data_file, fault, "udp and host nobody.invalid",
        errors="compile fileter failed! unknown host 'nobody.invalid'\n",
    )


# ------------------------------------------------- events on the poller thread


def expect_whole(sender, receiver, path, output=""):
    assert receiver.read_exactly(len(DATA)) == DATA
    assert sender.stop() == 0
    assert receiver.read_to_end() == b""
    sender.expect(0, echo(path, sender.address) + output)


def test_waits_that_are_interrupted_lose_nothing(serve, attach, connect, path):
    sender = serve(path)
    tracer = attach(sender, "epoll_wait:error=EINTR:when=2+2")
    expect_whole(sender, connect(sender), path)
    assert tracer.injected() >= 2


@pytest.mark.parametrize(
    "error, text", [("EBADF", "Bad file descriptor"), ("EINVAL", "Invalid argument")]
)
def test_a_wait_that_fails_is_fatal(serve, attach, path, error, text):
    sender = serve(path)
    tracer = attach(sender, f"epoll_wait:error={error}:when=3")
    sender.expect(ABORTED, echo(path, sender.address), fatal(text, "epoll.h"))
    assert tracer.injected() == 1


@WITHOUT_CHECKS
def test_a_sending_thread_without_memory_for_a_heap_of_its_own_ends_the_program(
    serve, attach, attempt, path
):
    """The C library maps one with that thread's first allocation: a registration."""
    sender = serve(path)
    tracer = attach(sender, "mmap:error=ENOMEM")
    attempt(sender)
    sender.expect(
        ABORTED, echo(path, sender.address), fatal("FATAL ERROR: OUT OF MEMORY", "epoll.h")
    )
    assert tracer.injected() >= 1


@WITHOUT_CHECKS
def test_a_sending_thread_that_may_not_use_its_heap_does_without(
    serve, attach, connect, path
):
    """Each of its allocations is a mapping by itself, then."""
    sender = serve(path)
    tracer = attach(sender, "mprotect:error=ENOMEM")
    expect_whole(sender, connect(sender), path)
    assert tracer.injected() >= 1


@pytest.mark.parametrize("error", PASSING_ACCEPT_ERRORS)
def test_an_accept_that_may_fail_is_tried_again(serve, attach, connect, path, error):
    sender = serve(path)
    tracer = attach(sender, f"accept:error={error}:when=1..3")
    expect_whole(sender, connect(sender), path)
    assert tracer.injected() == 3


@pytest.mark.parametrize("error", PASSING_ACCEPT_ERRORS)
def test_an_accept_that_may_fail_forgets_the_receiver_that_was_there(
    serve, attach, connect, attempt, path, error
):
    sender = serve(path)
    older = connect(sender)
    assert older.read_exactly(len(DATA)) == DATA
    tracer = attach(sender, f"accept:error={error}:when=1")
    attempt(sender)
    sender.expect(
        ABORTED,
        echo(path, sender.address),
        fatal("Assertion failed: conn_fd_ != retired_fd", "tcp_engine.h"),
    )
    assert tracer.injected() == 1
    assert older.read_to_end() == b""


@pytest.mark.parametrize(
    "error, text",
    [("EPERM", "Operation not permitted"), ("ENETDOWN", "Network is down")],
)
def test_any_other_error_of_accept_is_fatal(serve, attach, attempt, path, error, text):
    sender = serve(path)
    tracer = attach(sender, f"accept:error={error}:when=1")
    attempt(sender)
    sender.expect(ABORTED, echo(path, sender.address), fatal(text, "tcp_engine.h"))
    assert tracer.injected() == 1


@pytest.mark.parametrize(
    "fault, text, header",
    [
        ("fcntl:error=EBADF:when=1", NOT_INHERITABLE, "tcp_engine.h"),
        ("fcntl:error=EINVAL:when=1", NOT_INHERITABLE, "tcp_engine.h"),
        ("fcntl:error=EPERM:when=1", NOT_INHERITABLE, "tcp_engine.h"),
        ("epoll_ctl:error=ENOSPC:when=1", "No space left on device", "epoll.h"),
        ("epoll_ctl:error=ENOMEM:when=2", OUT_OF_MEMORY, "epoll.h"),
        *WAKEUP_WRITES,
    ],
)
def test_a_receiver_that_cannot_be_taken_up_is_fatal(
    serve, attach, attempt, path, fault, text, header
):
    sender = serve(path)
    tracer = attach(sender, fault)
    attempt(sender)
    sender.expect(ABORTED, echo(path, sender.address), fatal(text, header))
    assert tracer.injected() == 1


TUNING_FAULTS = ["setsockopt:error=ENOPROTOOPT:when=1", "fcntl:error=EPERM:when=3"]


@pytest.mark.parametrize("fault", TUNING_FAULTS)
def test_a_receiver_that_cannot_be_tuned_stays_connected_and_hears_nothing(
    serve, attach, connect, path, fault
):
    sender = serve(path)
    tracer = attach(sender, fault)
    receiver = connect(sender)
    sender.wait_until(tracer.injected, "the fault")
    sender.wait_for_progress([sender.pid])
    assert receiver.pending() == 0
    assert sender.stop() == 0
    assert receiver.read_to_end() == b""
    sender.expect(0, echo(path, sender.address))


@pytest.mark.parametrize("fault", TUNING_FAULTS)
def test_a_newer_receiver_that_cannot_be_tuned_hears_what_the_olders_events_send(
    serve, attach, connect, messages, fault
):
    path, contents = messages(400)
    sender = serve(path, "--mbps", "0.01")
    older = connect(sender)
    assert older.read_exactly(5) == contents[0]
    tracer = attach(sender, fault)
    newer = connect(sender)
    first = newer.read_exactly(5)
    switch = contents.index(first)
    assert newer.read_exactly(5 * (400 - switch - 1)) == b"".join(contents[switch + 1 :])
    assert older.read_exactly(5 * (switch - 1)) == b"".join(contents[1:switch])
    assert sender.stop() == 0
    assert older.read_to_end() == newer.read_to_end() == b""
    sender.expect(0, echo(path, sender.address, in_speed=10000))
    assert tracer.injected() == 1


@pytest.mark.parametrize("result", ["error=EAGAIN", "error=EINTR", "retval=4", "retval=0"])
def test_a_wake_up_that_is_not_read_whole_is_read_again(
    serve, attach, connect, path, result
):
    sender = serve(path)
    tracer = attach(sender, f"read:{result}:when=1..3")
    expect_whole(sender, connect(sender), path)
    assert tracer.injected() == 3


# ------------------------------------------------------------------- sending


def slow(sent, left):
    return (
        f"Warning: unable to send all data, already send len: {sent}\n"
        f"Using poll wait to send {left} bytes.\n"
    )


@pytest.mark.parametrize("fault", [None, "poll:error=EINTR", "poll:error=ENOMEM"])
def test_a_short_send_is_finished_on_the_slow_path(serve, attach, connect, path, fault):
    """The 100 bytes that the system says it took are the ones that do not arrive.
    What poll says does not count."""
    sender = serve(path)
    faults = ["sendto:retval=100:when=2"] + ([fault] if fault else [])
    tracer = attach(sender, *faults)
    receiver = connect(sender)
    expected = DATA[:10240] + DATA[10340:]
    assert receiver.read_exactly(len(expected)) == expected
    assert sender.stop() == 0
    assert receiver.read_to_end() == b""
    sender.expect(0, echo(path, sender.address) + slow(100, 10140))
    assert tracer.injected() == len(faults)


@pytest.mark.parametrize("error", ["EAGAIN", "EINTR"])
def test_a_first_send_without_room_is_delivered_and_ends_the_sending(
    serve, attach, connect, path, error
):
    sender = serve(path)
    tracer = attach(sender, f"sendto:error={error}:when=2")
    receiver = connect(sender)
    sender.wait_for_output("Socket error\n")
    sender.wait_for_progress([sender.pid])
    assert sender.stop() == 0
    assert receiver.read_to_end() == DATA[:20480]
    sender.expect(0, echo(path, sender.address) + slow(0, 10240) + "Socket error\n")
    assert tracer.injected() == 1


def test_retries_without_room_go_on_until_the_message_has_left(
    serve, attach, connect, path
):
    """The first send and two retries are refused for the moment."""
    sender = serve(path)
    tracer = attach(sender, "sendto:error=EAGAIN:when=2..4")
    receiver = connect(sender)
    sender.wait_for_output("Socket error\n")
    assert sender.stop() == 0
    assert receiver.read_to_end() == DATA[:20480]
    lines = "Using poll wait to send 10240 bytes.\n"
    sender.expect(
        0, echo(path, sender.address) + slow(0, 10240) + lines * 2 + "Socket error\n"
    )
    assert tracer.injected() == 3


@pytest.mark.parametrize("error", ["ENOBUFS", "ENOMEM", "EPIPE", "ECONNRESET", "EPERM"])
def test_any_other_error_of_send_is_a_socket_error(serve, attach, connect, path, error):
    sender = serve(path)
    tracer = attach(sender, f"sendto:error={error}:when=2")
    receiver = connect(sender)
    sender.wait_for_output("Socket error\n")
    sender.wait_for_progress([sender.pid])
    assert sender.stop() == 0
    assert receiver.read_to_end() == DATA[:10240]
    sender.expect(0, echo(path, sender.address) + "Socket error\n")
    assert tracer.injected() == 1


@pytest.mark.parametrize(
    "error, output",
    [
        ("ENOBUFS", "socket error\n"),
        ("EPERM", "socket error\n"),
        ("ENETUNREACH", "socket error\n"),
        ("EMSGSIZE", "socket error\n"),
        ("EAGAIN", slow(0, 10240) + "socket error\n"),
        ("EINTR", slow(0, 10240) + "socket error\n"),
    ],
)
def test_an_error_of_a_datagram_ends_the_sending(
    faulty, path, receiver, udp_echo, error, output
):
    """The second datagram is lost; without a destination a retry cannot save it."""
    sender = faulty(
        [f"sendto:error={error}:when=2"],
        "--filepath", path, "--port", str(receiver.port), "--protocol", "udp",
    )
    assert receiver.receive(1) == MESSAGES[:1]
    sender.wait_for_output("socket error\n")
    sender.wait_for_progress([sender.pid])
    sender.stop()
    assert receiver.is_quiet()
    sender.expect(0, udp_echo(path) + output)
    assert sender.injected() == 1


RETRIES = slow(0, 10240) + "Using poll wait to send 10240 bytes.\n" * 2


@pytest.mark.parametrize(
    "fault, output, others",
    [
        # Nothing in the way of a retry: without a destination it is refused.
        ("sendto:retval=100:when=2", slow(100, 10140) + "socket error\n", []),
        # Retries that lack room or are interrupted, then the one that is refused.
        ("sendto:error=EAGAIN:when=2..4", RETRIES + "socket error\n", []),
        ("sendto:error=EINTR:when=2..4", RETRIES + "socket error\n", []),
        # A retry of which the system says that it took all: no error, the rest leaves.
        ("sendto:retval=5120:when=2..3", slow(5120, 5120), MESSAGES[2:]),
    ],
)
def test_a_datagram_on_the_slow_path_is_retried_until_a_send_settles_it(
    faulty, path, receiver, udp_echo, fault, output, others
):
    sender = faulty(
        [fault], "--filepath", path, "--port", str(receiver.port), "--protocol", "udp",
    )
    expected = [*MESSAGES[:1], *others]
    assert_same(receiver.receive(len(expected)), expected)
    sender.wait_for_output(output.splitlines()[-1])
    sender.wait_for_progress([sender.pid])
    sender.stop()
    assert receiver.is_quiet()
    sender.expect(0, udp_echo(path) + output)
    assert sender.injected() >= 1


def test_an_interest_that_cannot_be_taken_back_is_fatal(serve, attach, attempt, path):
    """Behind a socket error: the connection's third registration call."""
    sender = serve(path)
    tracer = attach(sender, "sendto:error=EPIPE:when=2", "epoll_ctl:error=ENOENT:when=4")
    attempt(sender)
    sender.expect(
        ABORTED,
        echo(path, sender.address) + "Socket error\n",
        fatal("No such file or directory", "epoll.h"),
    )
    assert tracer.injected() == 2


@pytest.mark.parametrize("error", ["EBADF", "EINTR", "EIO", "ENOSPC"])
def test_closes_that_fail_at_the_end_change_nothing(serve, attach, connect, path, error):
    """The wake-up, the listener, the connection and the poller."""
    sender = serve(path)
    receiver = connect(sender)
    assert receiver.read_exactly(len(DATA)) == DATA
    sender.wait_until_replaying()
    tracer = attach(sender, f"close:error={error}", main=True)
    sender.signal(signal.SIGINT)
    sender.expect(0, echo(path, sender.address))
    assert receiver.read_to_end() == b""
    tracer.wait()
    # A sanitizer closes some of its own.
    assert tracer.injected() >= 4 if SANITIZER else tracer.injected() == 4


def test_a_registration_that_cannot_be_removed_at_the_end_is_fatal(faulty, path, port):
    """The main thread's fifth registration call: the wake-up's removal."""
    sender = faulty(
        ["epoll_ctl:error=ENOENT:when=5"],
        "--filepath", path, "--port", str(port), port=port,
    )
    sender.wait_until_listening()
    sender.wait_until_replaying()
    sender.signal(signal.SIGTERM)
    sender.expect(
        ABORTED,
        echo(path, sender.address),
        fatal("No such file or directory", "epoll.h"),
    )
    assert sender.injected() == 1


# ------------------------------------------------------------- closed standard streams


def without_streams(closed):
    """The words in front of a command that is to start with these streams closed."""
    closings = " ".join(f"{number}>&-" for number in closed)
    return ["/bin/sh", "-c", f'exec "$@" {closings}', "sh"]


class StreamlessSender(Sender):
    """A sender that starts with these of its descriptors 0, 1 and 2 closed."""

    def __init__(self, directory, words, closed, port):
        self.port = port
        self.closed = closed
        words = [*without_streams(closed), BINARY, *words]
        Program.__init__(self, directory, words, cwd=directory)

    def end(self):
        """Both threads get time for more; then one stop."""
        self.wait_until(lambda: len(self.threads()) == 2, "the sending thread")
        self.wait_for_progress()
        for number in self.closed:
            held = os.readlink(f"/proc/{self.pid}/fd/{number}")
            assert held == "/dev/null", f"descriptor {number} is {held}"
        self.signal(signal.SIGINT)


@pytest.fixture
def streamless(tmp_path):
    """streamless(closed, *words, port=) is a StreamlessSender in the test's folder."""
    senders = []

    def run(closed, *words, port):
        words = [*map(str, words), "--port", str(port)]
        senders.append(StreamlessSender(tmp_path, words, closed, port))
        return senders[-1]

    yield run
    for sender in senders:
        sender.kill()


CLOSED = ["".join(each) for n in (1, 2, 3) for each in itertools.combinations("012", n)]


@pytest.mark.parametrize("closed", CLOSED)
def test_no_text_for_a_closed_stream_gets_into_a_datagram(
    streamless, path, receiver, udp_echo, closed
):
    words = ("--filepath", path, "--protocol", "udp", "--debug", "1")
    sender = streamless(closed, *words, port=receiver.port)
    assert_same(receiver.receive(len(MESSAGES)), MESSAGES)
    sender.end()
    sender.expect(0, "" if "1" in closed else udp_echo(path) + debug_dump(MESSAGES))
    assert receiver.is_quiet()


@pytest.mark.parametrize("closed", CLOSED)
def test_no_text_for_a_closed_stream_gets_into_a_connection(
    streamless, connect, path, port, closed
):
    words = ("--filepath", path, "--debug", "1")
    sender = streamless(closed, *words, port=port)
    sender.wait_until_listening()
    receiver = connect(sender)
    assert receiver.read_exactly(len(DATA)) == DATA
    sender.end()
    shown = echo(path, sender.address) + debug_dump(MESSAGES)
    sender.expect(0, "" if "1" in closed else shown)
    assert receiver.read_to_end() == b""


@pytest.mark.parametrize("preload", [0, 1])
@pytest.mark.parametrize("closed", [each for each in CLOSED if "2" in each])
def test_a_notice_for_a_closed_standard_error_is_lost_and_nothing_else(
    streamless, connect, data_file, port, closed, preload
):
    """A frame that is too short is told when the capture has been read. The name's eight
    bytes are written by themselves: an eventfd would take them for a number."""
    frames = [tcp(b"one "), tcp(b"cut off").truncated(40), tcp(b"two ")]
    path = data_file(pcap(frames), "day.pcap").name
    words = ("--filepath", path, "--filetype", "1", "--filter", "tcp", "--preload", preload)
    sender = streamless(closed, *words, port=port)
    sender.wait_until_listening()
    receiver = connect(sender)
    assert receiver.read_exactly(8) == (b"two one " if preload else b"one two ")
    sender.end()
    shown = echo(path, sender.address, filetype=1, filter="tcp") + reading(path)
    sender.expect(0, "" if "1" in closed else shown)
    assert receiver.read_to_end() == b""


@pytest.mark.parametrize("closed", CLOSED)
def test_a_fatal_end_is_one_with_closed_streams_too(streamless, path, closed):
    """The port is in use: a listener's number may be the closed stream's."""
    with socket.socket() as other:
        other.bind((LOCALHOST, 0))
        other.listen()
        taken = other.getsockname()[1]
        sender = streamless(closed, "--filepath", path, port=taken)
        sender.expect(
            ABORTED,
            "" if "1" in closed else echo(path, sender.address),
            "" if "2" in closed else fatal(NO_ENDPOINT, "tcp_replay.h"),
        )


@pytest.mark.parametrize("error", ["EACCES", "EMFILE", "ENFILE", "ENOENT", "ENOMEM"])
def test_a_null_device_that_cannot_be_opened_is_not_tried_for_the_next_stream(
    faulty, receiver, path, error
):
    """It would get the first one's number. Other files of the run may have it, and may
    be closed by now."""
    sender = faulty(
        [f"openat:error={error}:when=1"],
        "--filepath", path, "--protocol", "udp", "--port", str(receiver.port),
        path=os.devnull, port=receiver.port, wrapper=without_streams("01"),
    )
    assert_same(receiver.receive(len(MESSAGES)), MESSAGES)
    assert os.devnull not in sender.descriptors().values()
    sender.signal(signal.SIGINT)
    sender.expect(0, "")
    assert receiver.is_quiet()
    assert sender.injected() == sender.trace.read_text().count("openat") == 1
