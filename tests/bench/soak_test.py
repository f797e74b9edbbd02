"""The long runs' judgements, on made-up looks at processes and slices of a measurement."""

import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[2] / "bench"))
import soak

LOOKS = 40  # at a process, evenly spread


def looks(resident=lambda number: 5000, descriptors=lambda number: 7, threads=lambda number: 2):
    return [
        {"resident_kb": resident(n), "descriptors": descriptors(n), "threads": threads(n)}
        for n in range(LOOKS)
    ]


def report(**changes):
    made_up = {
        "verified": {"fault_count": 0, "faults": [], "matched_bytes": 1000000},
        "measured": {"messages": 2000, "bytes": 1000000},
        "end_reason": "duration",
    }
    for part, values in changes.items():
        made_up[part] = {**made_up[part], **values} if isinstance(values, dict) else values
    return made_up


def test_a_process_that_stays_as_it_is_is_no_trouble():
    assert list(soak.troubles_of_process("sender", looks(), 0)) == []


def test_what_is_taken_while_a_run_warms_up_is_no_trouble():
    starting = looks(lambda n: 1000 * min(n, 4), lambda n: 3 + min(n, 4), lambda n: 1 + (n > 1))
    assert list(soak.troubles_of_process("sender", starting, 0)) == []


@pytest.mark.parametrize("kept", [0, 300])
def test_memory_may_grow_by_what_is_kept_and_a_little(kept):
    most = soak.KILOBYTES_OF_GROWTH + kept
    level = lambda growth: looks(lambda n: 5000 + (growth if n >= LOOKS // 2 else 0))
    assert list(soak.troubles_of_process("sender", level(most), kept)) == []
    assert list(soak.troubles_of_process("sender", level(most + 1), kept)) == [
        f"the sender's memory grows: from 5000 to {5001 + most} kB, {kept} by design"
    ]


def test_memory_that_is_given_back_is_no_trouble():
    assert list(soak.troubles_of_process("receiver", looks(lambda n: 90000 - n), 0)) == []


def test_one_more_descriptor_or_thread_in_one_look_is_trouble():
    last = LOOKS - 1
    assert list(soak.troubles_of_process("sender", looks(descriptors=lambda n: 7 + (n == last)), 0)) == [
        "the sender's descriptors vary: from 7 to 8"
    ]
    assert list(soak.troubles_of_process("sender", looks(threads=lambda n: 2 + (n == last)), 0)) == [
        "the sender's threads vary: from 2 to 3"
    ]


def test_only_a_sender_of_captures_keeps_filters():
    # 100 passes, of which the middles of the quarters are 3/4 of 90 % apart.
    passes = report(measured={"messages": 100 * soak.FRAMES})
    expected = 67.5 * soak.BYTES_OF_A_FILTER / 1024
    assert soak.kept_by_design("sender", "udp", passes) == pytest.approx(expected)
    assert soak.kept_by_design("sender", "tcp", passes) == 0
    assert soak.kept_by_design("receiver", "udp", passes) == 0


@pytest.mark.parametrize("sign", [1, -1])
def test_a_pace_may_only_drift_by_its_limit(sign):
    lag = lambda drift: [(n, sign * drift * (n >= LOOKS // 2)) for n in range(LOOKS)]
    assert list(soak.troubles_of_pace(lag(soak.SECONDS_OF_DRIFT))) == []
    assert list(soak.troubles_of_pace(lag(soak.SECONDS_OF_DRIFT + 0.001))) == [
        f"the pace drifts: {sign * 0.0:.3f} ms behind at first, {sign * 11:.3f} at last"
    ]


def test_a_verified_run_until_its_time_was_over_is_no_trouble():
    assert list(soak.troubles_of_report(report())) == []


@pytest.mark.parametrize(
    "changes, sentence",
    [
        ({"verified": {"fault_count": 1, "faults": ["lost"]}}, "1 faults, the first one: lost"),
        ({"end_reason": "idle"}, "the receiver ended for another reason: idle"),
        ({"measured": {"bytes": 0}}, "1000000 of 0 bytes were verified"),
        ({"verified": {"matched_bytes": 979519}}, "979519 of 1000000 bytes were verified"),
    ],
)
def test_anything_else_is_told(changes, sentence):
    assert list(soak.troubles_of_report(report(**changes))) == [sentence]


def test_lags_are_sums_over_the_slices_but_the_last():
    class Sink:
        def add(self, **values):
            pass

    second = int(soak.MBPS["tcp"] * 1e6 / 8)
    slices = [{"bytes": size} for size in (second, second - second // 10, 5)]
    measured = {"interval_ns": 1_000_000_000, "intervals": slices}
    found = soak.lags("tcp", {"measured": measured}, Sink())
    assert [(end, round(lag, 6)) for end, lag in found] == [(1.0, 0.0), (2.0, 0.1)]
