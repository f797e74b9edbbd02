"""Ranks, and ties where the spread is wider than the difference."""

from made_up import document, queue, write, folder  # noqa: F401: folder is a fixture


def test_subjects_that_differ_by_less_than_the_spread_are_tied(folder):
    queue(folder, spsc_queue=10, boost=11.9, deque=12)  # each spreads by 2
    text = document(folder)
    assert "- Queue, stream: 1 boost, spsc_queue; 2 deque\n" in text


def test_the_wider_spread_of_two_subjects_decides_on_a_tie(folder):
    rows = [("stream", "boost", run, cost) for run, cost in enumerate((10, 20, 90))]
    rows += [("stream", "deque", run, 50) for run in range(3)]
    write(folder, "queue", rows)
    assert "- Queue, stream: 1 boost, deque\n" in document(folder)


def test_throughput_ranks_the_highest_first(folder):
    rows = [
        ("tcp", 10240, "nc", 0, 1, 1000, 0, 0, 1, 1),
        ("tcp", 10240, "sender", 0, 1, 2000, 0, 0, 4, 4),
    ]
    write(folder, "throughput", rows)
    text = document(folder)
    assert "- Throughput by the clock, tcp, 10,240 bytes: 1 sender; 2 nc\n" in text
    assert "- Throughput by processor time, tcp, 10,240 bytes: 1 nc; 2 sender\n" in text


def test_subjects_within_five_percent_are_tied_even_without_a_spread(folder):
    rows = [("stream", subject, 0, cost) for subject, cost in (("boost", 96), ("deque", 100))]
    rows.append(("stream", "spsc_queue", 0, 91))
    write(folder, "queue", rows)
    assert "- Queue, stream: 1 spsc_queue; 2 boost, deque\n" in document(folder)
