"""What the benchmarks share: their options, processes and the processor time of their
threads, processors to run on, recordings to replay, and samples as CSV.

The measured thread gets the machine's last processor, everything else the others.
"""
import argparse
import csv
import os
import pathlib
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).parents[1]
sys.path.insert(0, str(ROOT / "tests" / "e2e"))
import capture_builder

PROCESSORS = sorted(os.sched_getaffinity(0))
MEASURED = PROCESSORS[-1:]
OTHERS = PROCESSORS[:-1] or PROCESSORS
PATIENCE = 30  # seconds for a process to come up


def options(doc, **numbers):
    """The words that every benchmark takes, and own ones that take a number."""
    parser = argparse.ArgumentParser(description=doc)
    parser.add_argument(
        "--build", type=pathlib.Path, default=ROOT / "build/release", help="folder of the programs"
    )
    parser.add_argument(
        "--out", type=pathlib.Path, default=pathlib.Path("."), help="folder of the samples"
    )
    parser.add_argument("--quick", action="store_true", help="few and short runs: a smoke test")
    for name, default in numbers.items():
        parser.add_argument(f"--{name}", type=float, default=default, help=f"{default:g}")
    # So that scopes are left, and what was started in them ends.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    return parser.parse_args()


class Samples:
    """A CSV file that grows by one line per run."""

    def __init__(self, path, columns):
        self.file = open(path, "w", newline="")
        self.writer = csv.DictWriter(self.file, columns, lineterminator="\n")
        self.writer.writeheader()

    def add(self, **values):
        self.writer.writerow(values)
        self.file.flush()


def start(*words, **settings):
    """A quiet process; Popen's settings override that."""
    quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
    return subprocess.Popen([*map(str, words)], **{**quiet, **settings})


def finish(process):
    """Waits for the end: the status and the processor seconds."""
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    return process.returncode, usage.ru_utime + usage.ru_stime


def stop(process, number=signal.SIGINT):
    process.send_signal(number)
    process.wait()


def free_port(kind=socket.SOCK_STREAM):
    with socket.socket(type=kind) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def until(process, condition):
    """What `condition` gives as soon as that is true; no later than the process's end."""
    deadline = time.monotonic() + PATIENCE
    while process.poll() is None and time.monotonic() < deadline:
        if found := condition():
            return found
    ending = "does not come up" if process.poll() is None else f"ended: {process.returncode}"
    sys.exit(f"{process.args[0]} {ending}")


def wait_for(table, port, process):
    """Until somebody listens there; `table` is one of /proc/net's."""
    wanted = re.compile(rf": [0-9A-F]{{8}}:{port:04X} 00000000:0000 0[A7] ")
    until(process, lambda: wanted.search(pathlib.Path(f"/proc/net/{table}").read_text()))


def thread_named(process, name):
    """The id of the process's thread of that name, once there is one."""
    tasks = pathlib.Path(f"/proc/{process.pid}/task")

    def find():
        for task in tasks.iterdir():
            if (task / "comm").read_text().strip() == name:
                return int(task.name)

    return until(process, find)


def cpu_ns(process, thread=None):
    """Nanoseconds that one thread has run; the first one when none is named."""
    path = f"/proc/{process.pid}/task/{thread or process.pid}/schedstat"
    return int(pathlib.Path(path).read_text().split()[0])


def process_cpu_ns(process):
    """Nanoseconds that all the threads alive have run."""
    tasks = pathlib.Path(f"/proc/{process.pid}/task")
    return sum(cpu_ns(process, int(task.name)) for task in tasks.iterdir())


def write_data(path, size):
    """A data file of noise."""
    block = random.Random(1).randbytes(1 << 20)
    with open(path, "wb") as out:
        for _ in range(size >> 20):
            out.write(block)
        out.write(block[: size & 0xFFFFF])


def write_capture(path, size, count, protocol=capture_builder.udp):
    """A capture of `count` payloads of `size` bytes, each led by its number. Written as
    it is made, because it may be large."""
    frame = protocol(bytes(size)).data
    record = struct.pack("<IIII", 0, 0, len(frame), len(frame)) + frame[:-size]
    noise = random.Random(1).randbytes(1 << 20)
    with open(path, "wb") as out:
        out.write(capture_builder.pcap([]))
        for number in range(count):
            at = number * 61 % (len(noise) - size)
            out.write(record + struct.pack("<Q", number) + noise[at : at + size - 8])
