"""Data files over TCP: what is sent, in which pieces and order, how often, and
how a path that cannot be replayed ends the program."""

import os
import signal

import pytest

from conftest import (
    LOCALHOST,
    MESSAGE_SIZE,
    debug_dump,
    echo,
    pieces,
    random_bytes,
    uncaught,
)


@pytest.fixture
def sends(serve, connect):
    """Replays the path, expects exactly these bytes, then a clean end.

    Both threads get time to send more before the stop, and the rest of the
    stream is read up to the sender's close: a byte too many is seen.
    """

    def check(path, expected, *words, output="", **settings):
        sender = serve(path, *words)
        receiver = connect(sender)
        assert receiver.read_exactly(len(expected)) == expected
        sender.wait_for_progress()
        sender.stop()
        assert receiver.read_to_end() == b""
        sender.expect(output=echo(path, sender.address, **settings) + output)

    return check


@pytest.fixture
def refuses(start, port):
    """Runs the path and expects the end by an uncaught error."""

    def check(path, message, *words, **settings):
        start("--filepath", path, "--port", str(port), *words).expect(
            -signal.SIGABRT,
            echo(path, f"{LOCALHOST}:{port}", **settings),
            uncaught(message),
        )

    return check


@pytest.fixture
def directory(tmp_path):
    path = tmp_path / "recordings"
    path.mkdir()
    return path


def fill(directory, **contents):
    for name, data in contents.items():
        (directory / name).write_bytes(data)


# ----------------------------------------------------------------- single files


@pytest.mark.parametrize(
    "size", [0, 1, 10239, 10240, 10241, 20480, 25000, 8 * 1024 * 1024 + 3]
)
def test_a_file_arrives_byte_for_byte(sends, data_file, size):
    data = random_bytes(size)
    sends(data_file(data), data)


def test_a_file_without_final_newline_or_text_is_not_touched(sends, data_file):
    data = bytes(range(256)) + b"\r\n\0\x1a\xff"
    sends(data_file(data), data)


@pytest.mark.parametrize(
    "size, lengths",
    [
        (1, [1]),
        (10240, [10240]),
        (10241, [10240, 1]),
        (20480, [10240, 10240]),
        (25000, [10240, 10240, 4520]),
    ],
)
def test_a_file_is_sent_in_messages_of_at_most_10240_bytes(
    sends, data_file, size, lengths
):
    data = random_bytes(size)
    messages = pieces(data)
    assert [len(message) for message in messages] == lengths
    sends(data_file(data), data, "--debug", "1", output=debug_dump(messages))


def test_the_debug_dump_shows_bytes_as_signed_characters(sends, data_file):
    sends(
        data_file(b"\x00\x01\x7f\x80\xff AZ"),
        b"\x00\x01\x7f\x80\xff AZ",
        "--debug",
        "1",
        output="seq: 1\n"
        "data length: 8\n"
        "00 01 7f ffffff80 ffffffff 20 41 5a \n"
        "\n"
        "=============================\n",
    )


def test_a_dump_of_nine_bytes_has_a_line_of_eight_and_a_line_of_one(sends, data_file):
    sends(
        data_file(b"abcdefghi"),
        b"abcdefghi",
        "--debug",
        "1",
        output="seq: 1\n"
        "data length: 9\n"
        "61 62 63 64 65 66 67 68 \n"
        "69 \n"
        "=============================\n",
    )


def test_an_empty_file_has_no_message(sends, data_file):
    sends(data_file(b""), b"", "--debug", "1")


def test_the_filter_is_ignored(sends, data_file):
    sends(data_file(b"data"), b"data", "--filter", "no ( filter", filter="no ( filter")


def test_the_device_is_ignored(sends, data_file):
    sends(data_file(b"data"), b"data", "--device", "nodev0", device="nodev0")


def test_a_symbolic_link_is_followed(sends, data_file, tmp_path):
    link = tmp_path / "link"
    link.symlink_to(data_file(b"linked"))
    sends(link, b"linked")


def test_a_relative_path_is_taken_from_the_working_directory(
    serve, connect, directory
):
    fill(directory, data=b"here")
    sender = serve("data", cwd=directory)
    receiver = connect(sender)
    assert receiver.read_exactly(4) == b"here"
    sender.stop()
    sender.expect(output=echo("data", sender.address))


def test_data_appended_while_the_run_holds_is_not_sent(serve, connect, data_file):
    path = data_file(b"before")
    sender = serve(path)
    receiver = connect(sender)
    assert receiver.read_exactly(6) == b"before"
    sender.wait_for_progress()
    with open(path, "ab") as file:
        file.write(b"after")
    sender.wait_for_progress()
    sender.stop()
    assert receiver.read_to_end() == b""
    sender.expect(output=echo(path, sender.address))


# ------------------------------------------------------------------ directories


def test_the_files_of_a_directory_are_sent_in_version_order(sends, directory):
    fill(directory, f10=b"ten.", f2=b"two.", f1=b"one.")
    sends(
        directory,
        b"one.two.ten.",
        "--debug",
        "1",
        output=debug_dump([b"one.", b"two.", b"ten."]),
    )


def test_every_pass_has_the_same_order(sends, directory):
    fill(directory, d10=b"10 ", d2=b"2 ", d1=b"1 ")
    sends(directory, b"1 2 10 1 2 10 ", "--loopback", "2", loopback=2)


def test_a_directory_may_be_given_with_its_slash(sends, directory):
    fill(directory, data=b"data")
    sends(f"{directory}/", b"data")


def test_messages_do_not_run_across_files(sends, directory):
    first, second = random_bytes(10241), random_bytes(10240, seed=2)
    fill(directory, a=first, b=second)
    sends(
        directory,
        first + second,
        "--debug",
        "1",
        output=debug_dump(pieces(first) + pieces(second)),
    )


def test_an_empty_file_neither_sends_nor_ends_the_pass(sends, directory):
    fill(directory, a=b"first", b=b"", c=b"last")
    sends(
        directory, b"firstlast", "--debug", "1", output=debug_dump([b"first", b"last"])
    )


def test_a_directory_of_empty_files_sends_nothing(sends, directory):
    fill(directory, a=b"", b=b"")
    sends(directory, b"", "--loopback", "3", loopback=3)


def test_hidden_files_are_sent(sends, directory):
    (directory / ".hidden").write_bytes(b"hidden,")
    fill(directory, shown=b"shown")
    sends(directory, b"hidden,shown")


def test_subdirectories_are_not_entered(sends, directory):
    fill(directory, a=b"a", c=b"c")
    (directory / "b").mkdir()
    fill(directory / "b", inner=b"inner")
    sends(directory, b"ac")


def test_pipes_and_devices_are_skipped(sends, directory):
    fill(directory, a=b"a", z=b"z")
    os.mkfifo(directory / "b")
    (directory / "c").symlink_to("/dev/zero")
    sends(directory, b"az")


def test_a_link_to_a_file_is_sent_as_a_file(sends, directory, data_file):
    fill(directory, a=b"a")
    (directory / "b").symlink_to(data_file(b"linked"))
    sends(directory, b"alinked")


def test_a_dangling_link_behind_a_directory_is_skipped(sends, directory):
    fill(directory, a=b"a", d=b"d")
    (directory / "b").mkdir()
    (directory / "c").symlink_to("nowhere")
    sends(directory, b"ad")


def test_a_dangling_link_behind_a_file_is_taken_for_a_file(
    serve, connect, directory
):
    """It keeps its predecessor's kind, so the run ends when it is opened."""
    fill(directory, a=b"a")
    (directory / "b").symlink_to("nowhere")
    sender = serve(directory)
    connect(sender)
    sender.expect(
        -signal.SIGABRT,
        echo(directory, sender.address),
        uncaught(f"Failed opening file {directory}/b for reading. errno: 2"),
    )


# ----------------------------------------------------------------------- passes


def test_three_passes_send_the_file_three_times(sends, data_file):
    data = random_bytes(25000)
    sends(data_file(data), data * 3, "--loopback", "3", loopback=3)


def test_a_pass_does_not_join_messages_with_the_next(sends, data_file):
    sends(
        data_file(b"pass"),
        b"passpass",
        "--loopback",
        "2",
        "--debug",
        "1",
        loopback=2,
        output=debug_dump([b"pass", b"pass"]),
    )


def test_zero_passes_go_on_until_the_stop(serve, connect, data_file):
    data = random_bytes(12345)
    path = data_file(data)
    sender = serve(path, "--loopback", "0")
    receiver = connect(sender)
    assert receiver.read_exactly(len(data) * 1000) == data * 1000
    sender.signal(signal.SIGINT)
    rest = receiver.read_to_end()
    assert rest == (data * (len(rest) // len(data) + 1))[: len(rest)]
    sender.expect(output=echo(path, sender.address, loopback=0))


def test_a_negative_number_of_passes_goes_on_too(serve, connect, data_file):
    path = data_file(b"again")
    sender = serve(path, "--loopback", "-1")
    receiver = connect(sender)
    assert receiver.read_exactly(5 * 1000) == b"again" * 1000
    sender.signal(signal.SIGTERM)
    receiver.read_to_end()
    sender.expect(output=echo(path, sender.address, loopback=4294967295))


def test_a_file_replaced_between_passes_is_read_anew(serve, connect, directory):
    """The second file is longer than the queue and the sockets can hold, so
    the first pass cannot end before the receiver reads on."""
    data = random_bytes(32 * 1024 * 1024)
    fill(directory, a=b"old", b=data)
    sender = serve(directory, "--loopback", "2")
    receiver = connect(sender, rcvbuf=65536)
    assert receiver.read_exactly(3) == b"old"
    fill(directory, a=b"new")
    assert receiver.read_exactly(len(data) + 3) == data + b"new"
    assert receiver.read_exactly(len(data)) == data
    sender.stop()
    sender.expect(output=echo(directory, sender.address, loopback=2))


def test_the_run_holds_after_the_last_pass(serve, connect, data_file):
    path = data_file(b"data")
    sender = serve(path)
    receiver = connect(sender)
    assert receiver.read_exactly(4) == b"data"
    sender.wait_for_progress(milliseconds=300)
    assert sender.running()
    assert receiver.pending() == 0
    sender.stop()
    assert receiver.read_to_end() == b""
    sender.expect(output=echo(path, sender.address))


def test_nothing_is_read_before_a_receiver_connects(serve, connect, directory):
    """Shown by a change of the file: the later bytes are the ones sent."""
    fill(directory, a=b"early")
    sender = serve(directory)
    sender.wait_until_replaying()
    fill(directory, a=b"late!")
    receiver = connect(sender)
    assert receiver.read_exactly(5) == b"late!"
    sender.stop()
    sender.expect(output=echo(directory, sender.address))


# ---------------------------------------------------------------------- preload


@pytest.mark.parametrize(
    "size, lengths",
    [
        (1, [1]),
        (10240, [10240]),
        (20480, [10240, 10240]),
        (25000, [4520, 10240, 10240]),
    ],
)
def test_a_preloaded_file_is_sent_from_its_last_message_to_its_first(
    sends, data_file, size, lengths
):
    data = random_bytes(size)
    messages = pieces(data)[::-1]
    assert [len(message) for message in messages] == lengths
    sends(
        data_file(data),
        b"".join(messages),
        "--preload",
        "1",
        "--debug",
        "1",
        output=debug_dump(messages),
    )


def test_every_preloaded_pass_runs_in_reverse(sends, data_file):
    data = random_bytes(3 * MESSAGE_SIZE + 5)
    backwards = b"".join(pieces(data)[::-1])
    words = ("--preload", "1", "--loopback", "3")
    sends(data_file(data), backwards * 3, *words, loopback=3)


def test_a_preloaded_file_larger_than_the_queue_arrives_whole(sends, data_file):
    data = random_bytes(1500 * MESSAGE_SIZE + 1)
    sends(data_file(data), b"".join(pieces(data)[::-1]), "--preload", "1")


def test_a_preloaded_file_is_read_before_a_receiver_connects(
    serve, connect, data_file
):
    path = data_file(b"early")
    sender = serve(path, "--preload", "1")
    sender.wait_until_replaying()
    path.write_bytes(b"late!")
    receiver = connect(sender)
    assert receiver.read_exactly(5) == b"early"
    sender.stop()
    sender.expect(output=echo(path, sender.address))


def test_a_preloaded_empty_file_sends_nothing(sends, data_file):
    sends(data_file(b""), b"", "--preload", "1", "--loopback", "2", loopback=2)


def test_a_preloaded_directory_of_one_file_is_sent_in_reverse(sends, directory):
    data = random_bytes(MESSAGE_SIZE + 7)
    fill(directory, only=data)
    sends(directory, b"".join(pieces(data)[::-1]), "--preload", "1")


def test_a_preloaded_directory_of_several_files_sends_nothing(sends, directory):
    fill(directory, a=b"a", b=b"b")
    sends(directory, b"", "--preload", "1", "--loopback", "3", loopback=3)


def test_endless_empty_passes_of_a_preloaded_directory_can_be_stopped(
    sends, directory
):
    fill(directory, a=b"a", b=b"b")
    sends(directory, b"", "--preload", "1", "--loopback", "0", loopback=0)


# ------------------------------------------------------------------- bad paths


def test_a_missing_path_ends_the_program(refuses, tmp_path):
    path = tmp_path / "missing"
    refuses(path, f"Cannot find file {path}. errno: 2")


def test_a_path_through_a_file_tells_its_own_error_number(refuses, data_file):
    path = f"{data_file(b'x')}/below"
    refuses(path, f"Cannot find file {path}. errno: 20")


def test_a_path_that_is_too_long_tells_its_own_error_number(refuses):
    path = "/" + "x" * 300
    refuses(path, f"Cannot find file {path}. errno: 36")


@pytest.mark.parametrize("words", [(), ("--preload", "1")])
def test_a_missing_path_is_reported_with_or_without_preload(refuses, tmp_path, words):
    path = tmp_path / "missing"
    refuses(path, f"Cannot find file {path}. errno: 2", *words)


def test_a_character_device_is_not_supported(refuses):
    refuses("/dev/null", "Not support file type.")


def test_a_pipe_is_not_supported(refuses, tmp_path):
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    refuses(pipe, "Not support file type.")


def test_an_empty_directory_has_no_files(refuses, directory):
    refuses(directory, f"No files in dir {directory}/")


def test_a_directory_given_with_its_slash_is_named_with_one(refuses, directory):
    refuses(f"{directory}/", f"No files in dir {directory}/")


def test_a_directory_of_directories_has_no_files(refuses, directory):
    (directory / "below").mkdir()
    fill(directory / "below", data=b"data")
    refuses(directory, f"No files in dir {directory}/")


def test_a_directory_that_cannot_be_listed_is_named_with_its_slash(
    refuses, directory
):
    """The path has the greatest length that the kernel takes; with a slash
    behind it, it is too long. Unlike a missing permission, this stops the
    superuser too."""
    fill(directory, data=b"data")
    gap = 4095 - len(str(directory))
    path = str(directory) + "/" * (gap % 2) + "/." * (gap // 2)
    refuses(path, f"Dir {path}/ no files")


def test_a_file_that_vanishes_before_the_replay_cannot_be_opened(
    serve, connect, data_file
):
    path = data_file(b"data")
    sender = serve(path)
    sender.wait_until_replaying()
    path.unlink()
    connect(sender)
    sender.expect(
        -signal.SIGABRT,
        echo(path, sender.address),
        uncaught(f"Failed opening file {path} for reading. errno: 2"),
    )
