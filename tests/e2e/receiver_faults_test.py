"""What the receiver reports when a relay between it and the sender spoils chosen
datagrams or bytes: each fault by its kind and position, and nothing else."""

import pytest

import capture_builder as build
import fault_relay as relay
from conftest import MESSAGE_SIZE, SANITIZER, pieces, random_bytes
from fault_relay import tcp_relay, udp_relay  # noqa: F401: fixtures
from replay_receiver import (  # noqa: F401: most of these are fixtures
    QUICK,
    both,
    receive,
    totals,
    udp_port,
)

# ------------------------------------------------------------------- datagrams

COUNT = 24
SIZES = [60 + 37 * number % 800 for number in range(COUNT)]
PAYLOADS = [random_bytes(size, seed=size) for size in SIZES]
STRANGERS = [b"stranger %d" % number for number in range(4)]
AS_CAPTURE = ("--filetype", "1", "--filter", "udp")


@pytest.fixture
def capture(data_file):
    """capture(payloads) is the path of a capture with these, as UDP."""

    def create(payloads=PAYLOADS):
        return data_file(build.pcap([build.udp(each) for each in payloads]), "a.pcap")

    return create


@pytest.fixture
def spoilt(receive, start, udp_port, udp_relay):
    """spoilt(path, schedule, *line, receiver=) replays over UDP through a relay
    with this schedule; the receiver, which has ended."""

    def run(path, schedule, *line, receiver=()):
        line = ("--filepath", path, "--protocol", "udp", *line)
        ours = receive("--port", str(udp_port), *line, *QUICK, *receiver)
        ours.wait_until_bound(udp_port)
        between = udp_relay(udp_port, schedule)
        sender = start("--port", str(between.port), *line, "--mbps", "20")
        ours.wait()
        sender.kill()
        return ours

    return run


def single(kind, message, arrival=0, offset=0, length=1):
    return kind, message, length, arrival, offset


# What is done from the datagram `at` on, and the faults that this makes.
SINGLE = {
    "drop": lambda at: (
        {at: relay.drop()},
        [single("lost", at)],
    ),
    "duplicate": lambda at: (
        {at: relay.duplicate()},
        [single("duplicated", at, arrival=at + 1)],
    ),
    "truncate": lambda at: (
        {at: relay.truncate(7)},
        [single("truncated", at, arrival=at, offset=7)],
    ),
    "empty": lambda at: (
        {at: relay.truncate(0)},
        [single("truncated", at, arrival=at)],
    ),
    "alter the first byte": lambda at: (
        {at: relay.alter(0)},
        [single("altered", at, arrival=at)],
    ),
    "alter the last byte": lambda at: (
        {at: relay.alter(-1)},
        [single("altered", at, arrival=at, offset=SIZES[at - 1] - 1)],
    ),
    "a stranger": lambda at: (
        {at: relay.precede(STRANGERS[0])},
        [single("unexpected", at, arrival=at)],
    ),
}
BURST = {
    "drop": lambda at: (
        relay.burst(at, 4, relay.drop()),
        [single("lost", at, length=4)],
    ),
    "duplicate each": lambda at: (
        relay.burst(at, 4, relay.duplicate()),
        [single("duplicated", at + n, arrival=at + 2 * n + 1) for n in range(4)],
    ),
    "duplicate one often": lambda at: (
        {at: relay.duplicate(times=4)},
        [single("duplicated", at, arrival=at + n) for n in range(1, 5)],
    ),
    "duplicate as a block": lambda at: (
        {at + n: relay.duplicate(later=3 - n) for n in range(3)}
        | {at + 3: relay.duplicate()},
        [single("duplicated", at, arrival=at + 4, length=4)],
    ),
    "truncate": lambda at: (
        {at + n: relay.truncate(10 + n) for n in range(4)},
        [single("truncated", at + n, arrival=at + n, offset=10 + n) for n in range(4)],
    ),
    "empty": lambda at: (
        relay.burst(at, 4, relay.truncate(0)),
        [single("truncated", at + n, arrival=at + n) for n in range(4)],
    ),
    "alter": lambda at: (
        {at + n: relay.alter(20 + n) for n in range(4)},
        [single("altered", at + n, arrival=at + n, offset=20 + n) for n in range(4)],
    ),
    "strangers": lambda at: (
        {at: relay.precede(*STRANGERS)},
        [single("unexpected", at, arrival=at, length=4)],
    ),
}
# These need datagrams behind them to be late for.
LATE = {
    "swap": lambda at: (
        {at: relay.swap()},
        [single("reordered", at, arrival=at + 1)],
    ),
    "delay": lambda at: (
        {at: relay.delay(5)},
        [single("reordered", at, arrival=at + 5)],
    ),
    "swap pairs": lambda at: (
        {at: relay.swap(), at + 2: relay.swap(), at + 4: relay.swap()},
        [single("reordered", at + n, arrival=at + n + 1) for n in (0, 2, 4)],
    ),
    "delay each": lambda at: (
        # 1 2 3 4 5 6 come as 4 1 5 2 6 3.
        relay.burst(at, 3, relay.delay(3)),
        [single("reordered", at + n, arrival=at + 2 * n + 1) for n in range(3)],
    ),
    "delay a block": lambda at: (
        # 1 2 3 4 5 6 come as 5 6 1 2 3 4.
        {at + n: relay.delay(5 - n) for n in range(4)},
        [single("reordered", at, arrival=at + 2, length=4)],
    ),
    "turn round": lambda at: (
        # 1 2 3 4 come as 4 3 2 1: held back in turn, each by a datagram more.
        # The relay sends those due at one datagram in their own order, so each
        # has its own: 1 2 3 4 5 6 come as 4 3 5 2 6 1.
        {at + 2: relay.delay(1), at + 1: relay.delay(3), at: relay.delay(5)},
        [
            single("reordered", at, arrival=at + 5),
            single("reordered", at + 1, arrival=at + 3),
            single("reordered", at + 2, arrival=at + 1),
        ],
    ),
}
PLACES = ("start", "middle", "end")
# A checked build is slow and tries every second place: of each fault one or two.
EACH = slice(None, None, 2 if SANITIZER else 1)
CASES = [
    (name, place, make, {"start": 1, "middle": 11, "end": COUNT - reach}[place])
    for cases, reach in ((SINGLE, 0), (BURST, 3), (LATE, 5))
    for name, make in cases.items()
    for place in PLACES
][EACH]


def counted(faults):
    """Datagrams (over TCP bytes) by kind."""
    counts = {}
    for kind, _, length, _, _ in faults:
        counts[kind] = counts.get(kind, 0) + length
    return counts


def assert_named(run, faults):
    """The summary names the kinds and where the first fault is."""
    text = run.output().lower()
    for kind, message, _, _, _ in faults:
        assert kind in text, text
    assert str(faults[0][1]) in text, text


@pytest.mark.parametrize(
    "make, at",
    [case[2:] for case in CASES],
    ids=[f"{name}, {place}" for name, place, _, _ in CASES],
)
def test_a_fault_of_datagrams_is_reported_as_what_it_is(spoilt, capture, make, at):
    schedule, faults = make(at)
    run = spoilt(capture(), schedule, *AS_CAPTURE)
    result = run.expect(1)
    assert result.faults == faults
    assert result.verified["fault_count"] == len(faults)
    assert result.counts == counted(faults)
    sent = list(relay.scheduled(PAYLOADS, schedule))
    assert result.received == totals(sent)
    # Late ones match, the others do not.
    missed = {m + n for kind, m, length, _, _ in faults for n in range(length)
              if kind in ("lost", "altered", "truncated")}
    whole = [each for m, each in enumerate(PAYLOADS, 1) if m not in missed]
    assert result.matched == totals(whole)
    assert_named(run, faults)


def test_a_relay_that_spoils_nothing_goes_unnoticed(spoilt, capture):
    run = spoilt(capture(), {}, *AS_CAPTURE)
    result = run.expect(0, "complete")
    assert result.faults == [] and result.counts == {}
    assert result.received == result.matched == totals(PAYLOADS)
    assert run.errors() == ""


@pytest.mark.parametrize("count", [1, 4])
def test_strangers_behind_the_last_datagram_are_seen(spoilt, capture, count):
    schedule = {COUNT: relay.follow(*STRANGERS[:count])}
    result = spoilt(capture(), schedule, *AS_CAPTURE).expect(1, "complete")
    # The one that was due: there is none, so it counts as the one behind the last.
    expected = single("unexpected", COUNT + 1, arrival=COUNT + 1, length=count)
    assert result.faults == [expected]
    assert result.matched == totals(PAYLOADS)


def test_different_faults_of_one_run_are_told_apart(spoilt, capture):
    schedule = {
        2: relay.drop(),
        5: relay.duplicate(),
        8: relay.swap(),
        12: relay.alter(33),
        15: relay.truncate(9),
        18: relay.precede(STRANGERS[0]),
        21: relay.delay(2),
        24: relay.drop(),
    }
    faults = [
        single("lost", 2),
        single("duplicated", 5, arrival=5),
        single("reordered", 8, arrival=9),
        single("altered", 12, arrival=12, offset=33),
        single("truncated", 15, arrival=15, offset=9),
        single("unexpected", 18, arrival=18),
        single("reordered", 21, arrival=24),
        single("lost", 24),
    ]
    run = spoilt(capture(), schedule, *AS_CAPTURE)
    result = run.expect(1, "idle")
    assert result.faults == faults
    assert result.counts == counted(faults)
    assert_named(run, faults)


def test_both_sides_are_shown_from_the_first_difference_on(spoilt, capture):
    result = spoilt(capture(), {3: relay.alter(20)}, *AS_CAPTURE).expect(1)
    (fault,) = result.verified["faults"]
    theirs = PAYLOADS[2][20:36]
    ours = bytes([theirs[0] ^ 0xFF]) + theirs[1:]
    assert (fault["expected_hex"], fault["received_hex"]) == (theirs.hex(), ours.hex())


def test_messages_are_numbered_over_all_passes(spoilt, capture):
    schedule = {COUNT + 3: relay.drop(), 2 * COUNT + 1: relay.alter(5)}
    result = spoilt(capture(), schedule, *AS_CAPTURE, "--loopback", "3").expect(1)
    assert result.faults == [
        single("lost", COUNT + 3),
        single("altered", 2 * COUNT + 1, arrival=2 * COUNT, offset=5),
    ]


def test_a_reversed_source_is_numbered_in_the_order_of_sending(spoilt, data_file):
    data = random_bytes(5 * MESSAGE_SIZE + 77)
    schedule = {1: relay.drop(), 3: relay.alter(1000)}
    run = spoilt(data_file(data), schedule, "--preload", "1")
    result = run.expect(1)
    assert result.faults == [
        single("lost", 1),
        single("altered", 3, arrival=2, offset=1000),
    ]
    sent = pieces(data)[::-1]
    assert result.matched == totals([sent[1], *sent[3:]])


def test_of_equal_payloads_no_more_than_one_is_said_to_be_lost(spoilt, capture):
    run = spoilt(capture([b"tick"] * 12), {5: relay.drop()}, *AS_CAPTURE)
    result = run.expect(1, "idle")
    assert result.counts == {"lost": 1}
    assert result.matched == (11, 44)


def test_of_equal_payloads_one_too_many_is_one_fault(spoilt, capture):
    run = spoilt(capture([b"tick"] * 12), {5: relay.duplicate()}, *AS_CAPTURE)
    result = run.expect(1, "complete")
    assert sum(result.counts.values()) == 1
    assert result.matched == (12, 48)


def test_a_loss_among_alternating_payloads_is_found_where_it_shows(spoilt, capture):
    # a b a b a b a b without the fifth: b comes where a is due.
    run = spoilt(capture([b"a", b"b"] * 4), {5: relay.drop()}, *AS_CAPTURE)
    result = run.expect(1, "idle")
    assert result.faults == [single("lost", 5)]


def test_more_than_1000_faults_are_counted_but_not_listed(spoilt, capture):
    payloads = [b"message %d" % number for number in range(2400)]
    schedule = {number: relay.drop() for number in range(2, 2401, 2)}
    result = spoilt(capture(payloads), schedule, *AS_CAPTURE).expect(1, "idle")
    assert result.counts == {"lost": 1200}
    assert result.verified["fault_count"] == 1200
    assert result.faults == [single("lost", 2 * n) for n in range(1, 1001)]


def test_a_message_that_is_later_than_the_window_is_lost_and_then_unexpected(
    spoilt, capture
):
    schedule = {5: relay.delay(15)}
    run = spoilt(capture(), schedule, *AS_CAPTURE, receiver=("--window", "4"))
    assert run.expect(1, "idle").faults == [
        single("lost", 5),
        single("unexpected", 21, arrival=20),
    ]


def test_a_loss_shorter_than_the_window_is_one_fault(spoilt, capture):
    payloads = [b"message %d" % number for number in range(100)]
    schedule = relay.burst(11, 40, relay.drop())
    run = spoilt(capture(payloads), schedule, *AS_CAPTURE, receiver=("--window", "64"))
    assert run.expect(1, "idle").faults == [single("lost", 11, length=40)]


# --------------------------------------------------------------------- streams

DATA = random_bytes(11 * MESSAGE_SIZE + 5000, seed=7)
END = len(DATA)


def in_stream(kind, at, length):
    return kind, at // MESSAGE_SIZE + 1, length, 0, at


def differing(at, distance):
    """The first position from `at` on whose byte differs from the one so far
    behind it: there a fault begins to show."""
    while at + distance < END and DATA[at] == DATA[at + distance]:
        at += 1
    return at


@pytest.fixture
def spoilt_stream(receive, start, port, tcp_relay, data_file):
    """spoilt_stream(*edits, data=, receiver=) replays the data over TCP through a
    relay with these edits; the receiver, which has ended."""

    def run(*edits, data=DATA, receiver=(), line=()):
        line = ("--filepath", data_file(data), *line)
        sender = start("--port", str(port), *line, port=port)
        sender.wait_until_listening()
        between = tcp_relay(port, *edits)
        ours = receive("--port", str(between.port), *line, *QUICK, *receiver)
        ours.wait()
        sender.kill()
        return ours

    return run


def surplus(at, count):
    """Bytes that neither go on as the source does nor repeat what came before."""
    data = bytearray(random_bytes(count, seed=99))
    while at < END and data[0] == DATA[at] or at and data[0] == DATA[at - 1]:
        data[0] = (data[0] + 1) % 256
    return bytes(data)


def repeated_at(at, count):
    """The surplus shows behind the block, or later where the next bytes are equal."""
    shift = differing(at, count) - at
    return in_stream("duplicated", at + count + shift, count)


# Named as above; the lengths are bytes.
EDITS = {
    "alter": lambda at, n: (relay.altered(at, n), in_stream("altered", at, n)),
    "drop": lambda at, n: (
        relay.dropped(at, n),
        in_stream("lost" if at + n < END else "truncated", differing(at, n), n),
    ),
    "repeat": lambda at, n: (relay.repeated(at, n), repeated_at(at, n)),
    "insert": lambda at, n: (
        relay.inserted(at, surplus(at, n)),
        in_stream("unexpected", at, n),
    ),
    "swap": lambda at, n: (
        relay.swapped(at, n, n),
        in_stream("reordered", differing(at, n), n),
    ),
}
LENGTHS = {"one": 1, "few": 100, "many": 25000}
STREAM_CASES = [
    (edit, size, place)
    for edit in EDITS
    for size in LENGTHS
    for place in PLACES
    # Equal stretches of so few bytes do not bring both sides in step.
    if (edit, size) != ("swap", "one")
][EACH]


@pytest.mark.parametrize(
    "edit, size, place", STREAM_CASES, ids=[", ".join(case) for case in STREAM_CASES]
)
def test_a_fault_of_a_stream_is_reported_as_what_it_is(
    spoilt_stream, edit, size, place
):
    length = LENGTHS[size]
    reach = 2 * length if edit == "swap" else length
    at = {"start": 0, "middle": 4 * MESSAGE_SIZE + 3000, "end": END - reach}[place]
    if (edit, place) == ("insert", "end"):
        at = END - 40  # far enough from the end to come in step again
    change, fault = EDITS[edit](at, length)
    run = spoilt_stream(change)
    result = run.expect(1)
    # Behind the last byte no message holds the position.
    beyond = fault[4] == END
    seen = [f[:1] + f[2:] if beyond else f for f in result.faults]
    assert seen == [fault[:1] + fault[2:] if beyond else fault]
    assert result.verified["fault_count"] == 1
    assert result.counts == {fault[0]: length}
    assert result.verified["gave_up"] is False
    assert_named(run, result.faults)
    (told,) = result.verified["faults"]
    if not beyond:
        assert told["offset_in_message_bytes"] == fault[4] % MESSAGE_SIZE
        if fault[0] != "truncated":
            assert told["expected_hex"] == DATA[fault[4] :][:16].hex()
    grown = {"lost": -length, "truncated": -length, "duplicated": length,
             "unexpected": length}
    assert result.measured["bytes"] == END + grown.get(fault[0], 0)


def test_a_relay_that_spoils_nothing_of_a_stream_goes_unnoticed(spoilt_stream):
    run = spoilt_stream()
    result = run.expect(0, "complete")
    assert result.faults == [] and result.counts == {}
    assert result.received == result.matched == result.expected == (12, END)
    assert run.errors() == ""


def test_bytes_behind_the_last_one_are_seen(spoilt_stream):
    result = spoilt_stream(relay.inserted(END, surplus(END, 50))).expect(1, "complete")
    assert [f[0::2] for f in result.faults] == [("unexpected", 50, END)]


def test_a_shorter_block_behind_a_longer_one_is_the_one_that_came_late(spoilt_stream):
    at = 3 * MESSAGE_SIZE
    run = spoilt_stream(relay.swapped(at, 500, 3000))
    result = run.expect(1)
    assert result.faults == [in_stream("reordered", differing(at, 500), 500)]


def test_different_faults_of_one_stream_are_told_apart(spoilt_stream):
    run = spoilt_stream(
        relay.altered(5000, 3),
        relay.dropped(15000, 700),
        relay.repeated(30000, 90),
        relay.inserted(50000, surplus(50000, 60)),
        relay.swapped(70000, 400, 900),
        relay.altered(END - 1, 1),
    )
    result = run.expect(1)
    assert result.faults == [
        in_stream("altered", 5000, 3),
        in_stream("lost", differing(15000, 700), 700),
        repeated_at(30000, 90),
        in_stream("unexpected", 50000, 60),
        in_stream("reordered", differing(70000, 400), 400),
        in_stream("altered", END - 1, 1),
    ]
    assert_named(run, result.faults)


def test_other_bytes_of_another_length_are_altered_and_lost(spoilt_stream):
    # 300 bytes of the source, 200 others in their place.
    run = spoilt_stream(
        relay.inserted(40000, bytes(b ^ 0xFF for b in DATA[40000:40200])),
        relay.dropped(40000, 300),
    )
    result = run.expect(1)
    assert result.counts == {"altered": 200, "lost": 100}
    assert result.faults[0] == in_stream("altered", 40000, 200)


def test_more_lost_than_can_be_looked_ahead_gives_up(spoilt_stream):
    data = random_bytes(4 * 1024 * 1024, seed=5)
    at = 300000
    run = spoilt_stream(relay.dropped(at, 2 * 1024 * 1024), data=data)
    result = run.expect(1)
    assert result.verified["gave_up"] is True
    kind, message, _, _, offset = result.faults[0]
    assert kind == "altered"
    assert (message, offset) == (at // MESSAGE_SIZE + 1, at)
    assert data[at] != data[at + 2 * 1024 * 1024]


@pytest.mark.parametrize("at", [1, 5 * MESSAGE_SIZE, 5 * MESSAGE_SIZE + 100, END - 1])
def test_a_stream_that_falls_silent_is_truncated(spoilt_stream, at):
    run = spoilt_stream(relay.cut(at))
    result = run.expect(1, "idle")
    assert result.faults == [in_stream("truncated", at, END - at)]
    assert result.matched == (at // MESSAGE_SIZE, at)
    assert_named(run, result.faults)


@pytest.mark.parametrize("at", [1, 5 * MESSAGE_SIZE, 5 * MESSAGE_SIZE + 100, END - 1])
def test_a_stream_that_is_closed_early_is_right_as_far_as_it_came(spoilt_stream, at):
    result = spoilt_stream(relay.closed(at)).expect(7, "closed")
    assert result.faults == [] and result.counts == {}
    assert result.measured["bytes"] == at


def test_a_stream_that_is_spoilt_and_closed_early_is_spoilt(spoilt_stream):
    run = spoilt_stream(relay.altered(3000, 1), relay.closed(60000))
    result = run.expect(1, "closed")
    assert result.faults == [in_stream("altered", 3000, 1)]


def test_a_stream_that_stalls_for_less_than_the_idle_time_is_whole(spoilt_stream):
    run = spoilt_stream(relay.stalled(50000, 0.7), receiver=("--idle", "30"))
    result = run.expect(0, "complete")
    assert result.measured["duration_ns"] >= 600_000_000


def test_stream_faults_are_numbered_over_all_passes(spoilt_stream):
    at = 2 * END + MESSAGE_SIZE + 50
    run = spoilt_stream(relay.altered(at, 10), line=("--loopback", "3"))
    assert run.expect(1).faults == [("altered", 2 * 12 + 2, 10, 0, at)]


def test_a_single_edit_in_a_reversed_source_is_found_where_it_was_sent(spoilt_stream):
    # The short last message goes out first.
    run = spoilt_stream(relay.altered(5000 + 10, 1), line=("--preload", "1"))
    result = run.expect(1)
    assert result.faults == [("altered", 2, 1, 0, 5010)]
    assert result.verified["faults"][0]["offset_in_message_bytes"] == 10
