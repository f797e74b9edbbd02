"""From thread to thread: the latency of a hand-over, and the queue by itself."""
from .benchmark import Benchmark, against_body, simple_body
from .ranks import rankings
from .samples import by, ratio, subjects
from .words import bullet, figure, paragraph, range_text


# ---------------------------------------------------------------- latency


def latency_shows(rows):
    for column, name in (("p50_ns", "p50"), ("p99_ns", "p99")):
        against = ratio(rows, "condition-variable", "sender", column)
        if against:
            yield from paragraph(
                f"At the {name} a hand-off by mutex and condition variable takes"
                f" {range_text(against)} times as long as the sender's way from queue to call."
            )


LATENCY = Benchmark(
    name="latency",
    title="Latency",
    script="bench/handover.py",
    columns="subject,run,samples,p50_ns,p99_ns,p999_ns,max_ns",
    keys=("subject",),
    how=(
        "The time from handing a message over on one thread to the send call on the other, one"
        " message at a time and at random moments, against the same by a mutex and a condition"
        " variable."
    ),
    body=simple_body(
        "latency",
        {"subject": "Subject"},
        {
            "p50_ns": "p50, ns",
            "p99_ns": "p99, ns",
            "p999_ns": "p99.9, ns",
            "max_ns": "largest, ns",
        },
    ),
    ranked=lambda rows: [
        *rankings("Latency, p50", rows, (), "p50_ns"),
        *rankings("Latency, p99", rows, (), "p99_ns"),
    ],
    shows=latency_shows,
)


# ---------------------------------------------------------------- the queue


def queue_shows(rows):
    for (shape,), of in by(rows, "shape").items():
        seen = subjects(of, "ns_per_message")
        for subject in seen:
            yield from bullet(
                f"{shape}: {subject} hands over {figure(1e3 / seen[subject].median)} million"
                " messages per second"
            )
        for subject in seen:
            against = ratio(of, subject, "spsc_queue", "ns_per_message")
            if against and subject != "spsc_queue":
                yield from bullet(f"{shape}: {subject} takes {range_text(against)} times as long")
    yield ""


QUEUE = Benchmark(
    name="queue",
    title="The queue",
    script="bench/handover.py",
    columns="shape,subject,run,ns_per_message",
    keys=("shape", "subject"),
    how=(
        "One thread hands messages to another through a queue. stream: in one direction, flat"
        " out. ping-pong: one message goes there and back through two queues, and the time is"
        " that of one way. boost is Boost's ring for one producer and one consumer, which copies"
        " where the others move, so that each hand-over also counts references up and down;"
        " deque is a std::deque behind a mutex."
    ),
    body=against_body("queue", {"shape": "Shape"}, "spsc_queue"),
    ranked=lambda rows: rankings("Queue", rows, ("shape",), "ns_per_message"),
    shows=queue_shows,
)
