"""Throughput: bytes over TCP and messages over UDP, by the clock and by processor time."""
from .benchmark import Benchmark
from .ranks import rankings
from .samples import by
from .tables import spreads_table
from .words import paragraph

THIRD_PROCESSOR = (
    "With two processors the sending thread has one to itself, and the receiver goes first on the"
    " other; the sender's reading thread gets there what the receiver leaves. A third processor"
    " is for the reading thread to have: the rate by the clock is then that of the"
    " slowest of the three, where with two it is that of two of them in turns. A subject that"
    " reads and sends in one thread has, with the receiver, the two processors that it needs, and"
    " gains nothing; so the order by the clock can change in the sender's favour alone. The"
    " column by processor time counts only what the sending thread runs. A third processor leaves"
    " it as it is, unless the thread finds the queue empty less often."
)


def with_rates(row):
    """Bytes over TCP, messages over UDP: per second, and per second of the sending thread."""
    unit = 1e6 if row["protocol"] == "tcp" else row["size"]
    amount = row["bytes"] / unit
    cpu = row["sending_cpu_seconds"]
    dropped = row["dropped"] or 0
    arrived = (row["received"] or 0) + dropped
    return {
        **row,
        "rate": amount / row["seconds"],
        "cpu_rate": amount / cpu if cpu else "",
        "all_rate": amount / row["process_cpu_seconds"] if row["process_cpu_seconds"] else "",
        "lost_percent": 100 * dropped / arrived if arrived else "",
    }


def body(rows, plot):
    lines = []
    for (protocol,), of in by(rows, "protocol").items():
        unit = "MB" if protocol == "tcp" else "messages"
        columns = {
            "rate": f"{unit} per second",
            "cpu_rate": f"{unit} per processor second of the sending thread",
            "all_rate": f"{unit} per processor second of all its threads",
        }
        if protocol == "udp":
            columns["lost_percent"] = "dropped at the receiver, %"
        lines += [f"### {protocol.upper()}", ""]
        lines += spreads_table(of, {"size": "Bytes", "subject": "Subject"}, columns)
        lines += plot(f"throughput-{protocol}")
    return lines


def ranked(rows):
    cases = ("protocol", "size")
    return [
        *rankings("Throughput by the clock", rows, cases, "rate", highest_first=True),
        *rankings("Throughput by processor time", rows, cases, "cpu_rate", highest_first=True),
    ]


THROUGHPUT = Benchmark(
    name="throughput",
    title="Throughput",
    script="bench/throughput.py",
    columns="protocol,size,subject,run,seconds,bytes,received,dropped,sending_cpu_seconds,"
    "process_cpu_seconds",
    keys=("protocol", "size", "subject"),
    how=(
        "Every subject sends as fast as it can over loopback into one receiver, the same for"
        " all: over TCP a file from the page cache, over UDP messages of one size for a fixed"
        " time. A message that found no room at the receiver was sent all the same and counts."
        " Over TCP the clock runs from the first arrival to the last, over UDP for a window that"
        " begins a moment after the first. Beside it stands what a second of processor time"
        " moves: of the sending thread, and of all threads. The sender reads in a second thread,"
        " which spins when it is ahead; the others read and send in one, and over UDP send one"
        " buffer over and over, where the sender replays a recording. A subject that is absent at a size does"
        " not send messages that long. MB are 1,000,000 bytes."
    ),
    body=body,
    ranked=ranked,
    shows=lambda rows: paragraph(THIRD_PROCESSOR),
    prepare=lambda rows: [with_rates(row) for row in rows],
)
