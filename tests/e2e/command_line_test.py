"""The command line: option table, help text, validation, configuration echo.

Runs that get past the validation name a file that does not exist: they show
the echo and then end by the error that nothing catches.
"""

import signal

import pytest

from conftest import LOCALHOST, echo, fatal, uncaught

# Kept as one literal, so that any change of the text shows here.
HELP = """
Description for {name}. Version: 1.0.1
    --help            Prints this help blurb
    --ip              指定 ip 地址, 默认 127.0.0.1
    --port            指定端口号码, 默认 9089
    --filepath        指定回放文件路径.
    --filetype        指定回放文件类型. 0: 行情数据文件; 1: pcap 文件. 默认 0
    --filter          如果 filetype 为 1, 需要设置过滤器. 和 tcpdump 抓包规则一致
    --loopback        是否循环回放数据. 0 表示无限循环, 非 0 表示循环次数. 默认为 1
    --mbps            流控 Mbps. 0 表示关闭流控. 默认 0
    --protocol        指定回放协议: tcp/upd. 默认 tcp
    --device          如果是 udp 组播回放, 可以使用该参数指定发送的网卡名
    --preload         是否预取. 提前将文件内容读取到内存中, 降低文件IO的性能损耗, 提升回放速度. 0: 否; 1: 是. 默认 0
    --debug           是否以 debug 模式运行. 0: 否; 1: 是. 默认 0
"""

MISSING = "/nonexistent/data"
NO_SUCH_FILE = uncaught(f"Cannot find file {MISSING}. errno: 2")
NO_SUCH_CAPTURE = uncaught("Cannot find file ")  # captures leave the name out


def help_text(name="replay_sender"):
    return HELP.format(name=name)


@pytest.fixture
def shows_help(start):
    """Runs the words and expects the help text, status 0 and nothing else."""

    def check(*words, before="", argv0="replay_sender", name="replay_sender"):
        start(*words, argv0=argv0).expect(output=before + help_text(name))

    return check


@pytest.fixture
def shows_echo(start, port):
    """Runs the words with a missing file on a free port and expects the echo
    with these settings, then the end by the uncaught error."""

    def check(*words, **settings):
        capture = settings.get("filetype") == 1
        start("--port", str(port), "--filepath", MISSING, *words).expect(
            -signal.SIGABRT,
            echo(MISSING, f"{LOCALHOST}:{port}", **settings),
            NO_SUCH_CAPTURE if capture else NO_SUCH_FILE,
        )

    return check


# ------------------------------------------------------------------------ help


def test_no_arguments_print_the_help_text(shows_help):
    shows_help()


@pytest.mark.parametrize("word", ["--help", "-h", "--HELP", "-H", "--Help"])
def test_a_help_option_prints_the_help_text(shows_help, word):
    shows_help(word)


def test_help_is_printed_without_validation(shows_help):
    shows_help("--filetype", "7", "--help")


def test_help_after_a_complete_set_of_options_starts_no_run(shows_help):
    shows_help("--filepath", MISSING, "--port", "9089", "-h")


def test_help_before_other_options_starts_no_run(shows_help):
    shows_help("--help", "--filepath", MISSING)


def test_parsing_goes_on_behind_help(shows_help):
    shows_help("--help", "--bogus", before="param error: --bogus\n")


def test_help_as_the_value_of_an_option_is_a_value(start, port):
    start("--port", str(port), "--filepath", "--help").expect(
        -signal.SIGABRT,
        echo("--help", f"{LOCALHOST}:{port}"),
        uncaught("Cannot find file --help. errno: 2"),
    )


@pytest.mark.parametrize(
    "argv0, name",
    [
        ("sender", "sender"),
        ("/usr/bin/sender", "sender"),
        ("./sender", "sender"),
        ("a\\b/c", "c"),
        ("a/b\\c", "c"),
        ("a\\c", "c"),
        ("a/b/", ""),
        ("a\\", ""),
    ],
)
def test_the_program_name_is_what_follows_the_last_slash_or_backslash(
    shows_help, argv0, name
):
    shows_help(argv0=argv0, name=name)


def test_the_program_name_is_derived_when_options_follow_too(shows_help):
    shows_help("--help", argv0="/opt/a\\b", name="b")


# ------------------------------------------------------------ parameter errors


def test_an_unknown_option_is_named_before_the_help_text(shows_help):
    shows_help("--filepath", "x", "--bogus", before="param error: --bogus\n")


@pytest.mark.parametrize(
    "word", ["stray", "", "-", "--", "-p", "--filepaths", "--file", "--ip=1", "--port "]
)
def test_a_word_that_is_no_option_is_an_error(shows_help, word):
    shows_help(word, before=f"param error: {word}\n")


def test_parsing_ends_at_the_first_unknown_word(shows_help):
    shows_help("--one", "--two", before="param error: --one\n")


def test_an_unknown_word_outweighs_an_earlier_help_option(shows_help):
    shows_help("-h", "stray", before="param error: stray\n")


@pytest.mark.parametrize(
    "word",
    [
        "--ip",
        "--port",
        "--filepath",
        "--filetype",
        "--loopback",
        "--mbps",
        "--preload",
        "--filter",
        "--protocol",
        "--device",
        "--debug",
        "--FilePath",
    ],
)
def test_an_option_without_its_value_is_an_error(shows_help, word):
    shows_help("--loopback", "2", word, before=f"param error: {word}\n")


# ------------------------------------------------------------------ validation


@pytest.mark.parametrize(
    "words",
    [
        ("--loopback", "1"),
        ("--filepath", ""),
        ("--filepath", "x", "--filepath", ""),
        ("--filepath", "x", "--filetype", "2"),
        ("--filepath", "x", "--filetype", "-1"),
        ("--filepath", "x", "--filetype", "2", "--filter", "udp"),
        ("--filepath", "x", "--filetype", "1"),
        ("--filepath", "x", "--filetype", "1", "--filter", ""),
    ],
    ids=[
        "no path",
        "empty path",
        "path emptied by a later word",
        "type 2",
        "type -1",
        "type 2 with a filter",
        "capture without filter",
        "capture with empty filter",
    ],
)
def test_a_failed_validation_prints_only_the_help_text(shows_help, words):
    shows_help(*words)


# ------------------------------------------------------------------------ echo


def test_the_echo_shows_the_default_address_type_passes_and_rate(start):
    """With UDP nothing is bound, so that no other program can be in the way."""
    start("--filepath", MISSING, "--protocol", "udp").expect(
        -signal.SIGABRT,
        echo(MISSING, "127.0.0.1:9089", protocol="udp"),
        NO_SUCH_FILE,
    )


def test_the_echo_shows_the_default_protocol(shows_echo):
    shows_echo(protocol="tcp")


def test_ip_is_echoed_in_the_address(start, port):
    start("--filepath", MISSING, "--port", str(port), "--ip", "127.0.0.2").expect(
        -signal.SIGABRT, echo(MISSING, f"127.0.0.2:{port}"), NO_SUCH_FILE
    )


def test_filepath_is_echoed_as_given(start, port):
    path = "./no such dir/../文件 "
    start("--filepath", path, "--port", str(port)).expect(
        -signal.SIGABRT,
        echo(path, f"{LOCALHOST}:{port}"),
        uncaught(f"Cannot find file {path}. errno: 2"),
    )


def test_filter_is_echoed_as_given(shows_echo):
    shows_echo("--filter", "  udp and port 1 ", filter="  udp and port 1 ")


def test_device_is_echoed_as_given(shows_echo):
    shows_echo("--device", "eth9", device="eth9")


def test_filetype_one_is_echoed_with_its_filter(shows_echo):
    shows_echo("--filetype", "1", "--filter", "tcp", filetype=1, filter="tcp")


@pytest.mark.parametrize("word", ["TCP", "tCp", "UDP", "sctp", "tcp ", ""])
def test_protocol_is_echoed_as_typed(shows_echo, word):
    shows_echo("--protocol", word, protocol=word)


def test_preload_and_debug_are_not_echoed(shows_echo):
    shows_echo("--preload", "1", "--debug", "1")


def test_option_names_match_in_any_case(start, port):
    start(
        "--IP", "127.0.0.3", "--Port", str(port), "--FILEPATH", MISSING,
        "--FileType", "1", "--LOOPBACK", "4", "--MBps", "2", "--PreLoad", "1",
        "--FILTER", "udp", "--Protocol", "UDP", "--DEVICE", "", "--DeBug", "1",
    ).expect(
        -signal.SIGABRT,
        echo(
            MISSING,
            f"127.0.0.3:{port}",
            filetype=1,
            loopback=4,
            in_speed=2000000,
            filter="udp",
            protocol="UDP",
        ),
        NO_SUCH_CAPTURE,
    )


def test_the_last_of_repeated_options_wins(start, port):
    start(
        "--ip", "10.0.0.1", "--port", "1", "--filepath", "first",
        "--filetype", "5", "--loopback", "9", "--mbps", "8", "--filter", "one",
        "--protocol", "udp", "--device", "eth8",
        "--ip", LOCALHOST, "--port", str(port), "--filepath", MISSING,
        "--filetype", "1", "--loopback", "3", "--mbps", "4", "--filter", "two",
        "--protocol", "tcp", "--device", "eth9",
    ).expect(
        -signal.SIGABRT,
        echo(
            MISSING,
            f"{LOCALHOST}:{port}",
            filetype=1,
            loopback=3,
            in_speed=4000000,
            filter="two",
            device="eth9",
        ),
        NO_SUCH_CAPTURE,
    )


def test_an_option_name_can_be_a_value(shows_echo):
    shows_echo("--filter", "--port", "--device", "-h", filter="--port", device="-h")


# ----------------------------------------------------------- numeric arguments


@pytest.mark.parametrize(
    "word, loopback",
    [
        ("0", 0),
        ("1", 1),
        ("007", 7),
        ("0x10", 0),
        ("+5", 5),
        (" \t\n 12x", 12),
        ("3.9", 3),
        ("abc", 0),
        ("", 0),
        ("- 1", 0),
        ("-1", 4294967295),
        ("2147483648", 2147483648),
        ("4294967295", 4294967295),
        ("4294967296", 0),
        ("4294967297", 1),
        # Beyond 64 bits the value sticks at the largest or smallest 64-bit
        # number, whose low 32 bits are all ones or all zeros.
        ("99999999999999999999", 4294967295),
        ("-99999999999999999999", 0),
    ],
)
def test_loopback_is_converted_as_atoi_does(shows_echo, word, loopback):
    shows_echo("--loopback", word, loopback=loopback)


@pytest.mark.parametrize(
    "word, filetype",
    [("0", 0), ("1", 1), ("abc", 0), ("", 0), (" 1x", 1), ("4294967297", 1)],
)
def test_filetype_is_converted_as_atoi_does(shows_echo, word, filetype):
    shows_echo("--filetype", word, "--filter", "udp", filetype=filetype, filter="udp")


@pytest.mark.parametrize("word", ["2", "-1", "2147483648", "99999999999999999999"])
def test_filetype_above_one_is_refused(shows_help, word):
    shows_help("--filepath", "x", "--filter", "udp", "--filetype", word)


# With UDP the port is only sent to, so no other program can be in the way.
@pytest.mark.parametrize(
    "word, port",
    [
        ("70000", 70000),
        ("-1", 18446744073709551615),
        (" 12x", 12),
        ("+80", 80),
        ("0", 0),
        ("abc", 0),
        ("", 0),
        ("2147483648", 18446744071562067968),
        ("4294967295", 18446744073709551615),
        ("4295032833", 65537),
        ("99999999999999999999", 18446744073709551615),
    ],
)
def test_port_is_converted_as_atoi_does_and_widened_with_its_sign(start, word, port):
    start("--filepath", MISSING, "--protocol", "udp", "--port", word).expect(
        -signal.SIGABRT,
        echo(MISSING, f"{LOCALHOST}:{port}", protocol="udp"),
        NO_SUCH_FILE,
    )


@pytest.mark.parametrize(
    "word, in_speed",
    [
        ("0", 0),
        ("1", 1000000),
        ("1.5", 1500000),
        ("0.5", 500000),
        # In single precision 0.7 times 1000000 rounds to the whole number.
        ("0.7", 700000),
        ("0.0000015", 1),
        ("0.0000009", 0),
        ("400", 400000000),
        ("10000", 10000000000),
        # 16777217 has no single-precision form; the neighbour below is taken.
        ("16777217", 16777216000000),
        ("1e3", 1000000000),
        (" 2", 2000000),
        ("2x", 2000000),
        ("+2", 2000000),
        ("0x10", 16000000),
        ("0x1.8p1", 3000000),
        ("-0", 0),
        # Twenty digits still fit, up to the last 64-bit number and, negative,
        # down to the smallest signed one.
        ("9.3e12", 9300000300729368576),
        ("1e13", 9999999980506447872),
        ("1.8446744e13", 0),
        ("-1", 18446744073708551616),
        ("-9e12", 9446743871351422976),
        ("-9.3e12", 0),
        # The smallest signed number itself, and its neighbour below.
        ("-9223372013568", 9223372036854775808),
        ("-9223373062144", 0),
        ("-0.5", 18446744073709051616),
        ("-0.0000001", 0),
        ("abc", 0),
        ("", 0),
        ("nan", 0),
        ("-nan", 0),
        ("inf", 0),
        ("-inf", 0),
        ("1e30", 0),
        ("-1e30", 0),
        ("1e300", 0),
        ("1e999", 0),
    ],
)
def test_mbps_is_converted_in_single_precision(shows_echo, word, in_speed):
    shows_echo("--mbps", word, in_speed=in_speed)


def test_a_port_whose_low_sixteen_bits_are_zero_is_echoed_and_then_refused(start):
    start("--filepath", MISSING, "--port", "65536").expect(
        -signal.SIGABRT,
        echo(MISSING, f"{LOCALHOST}:65536"),
        fatal("Assertion failed: rc != retired_fd", "tcp_replay.h"),
    )


# ---------------------------------------------------- preload and debug switch


@pytest.mark.parametrize(
    "words, on",
    [
        (("0",), False),
        (("1",), True),
        (("2",), False),
        (("-1",), False),
        (("abc",), False),
        ((" 1x",), True),
        (("4294967297",), True),
        (("1", "0"), False),
        (("2", "1"), True),
    ],
)
def test_preload_is_on_exactly_for_one(serve, connect, data_file, words, on):
    """A preloaded file shows by its reverse order of messages."""
    first, rest = bytes(10240), b"rest"
    path = data_file(first + rest)
    sender = serve(path, *(part for word in words for part in ("--preload", word)))
    receiver = connect(sender)
    assert receiver.read_exactly(10244) == (rest + first if on else first + rest)
    sender.stop()
    sender.expect(output=echo(path, sender.address))


@pytest.mark.parametrize(
    "words, on",
    [
        (("0",), False),
        (("1",), True),
        (("2",), True),
        (("-1",), True),
        (("abc",), False),
        ((" 7x",), True),
        (("4294967296",), False),
        (("1", "0"), True),
        (("0", "1"), True),
    ],
)
def test_debug_can_only_be_switched_on(serve, connect, data_file, words, on):
    path = data_file(b"A")
    sender = serve(path, *(part for word in words for part in ("--debug", word)))
    receiver = connect(sender)
    assert receiver.read_exactly(1) == b"A"
    dump = "seq: 1\ndata length: 1\n41 \n=============================\n"
    if on:
        sender.wait_for_output(dump)
    sender.stop()
    sender.expect(output=echo(path, sender.address) + (dump if on else ""))
