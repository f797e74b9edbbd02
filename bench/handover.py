#!/usr/bin/python3
"""The hand-over between the two threads: how long one message takes from it to the send
call (latency.cpp), and what the queue costs by itself (queue.cpp).

Writes latency.csv and queue.csv: one line per run.
Usage: handover.py [--build FOLDER] [--out FOLDER] [--quick]
"""
import json
import statistics
import subprocess
import sys

import harness


def run(program, *words):
    done = subprocess.run([str(program), *map(str, words)], stdout=subprocess.PIPE, text=True)
    if done.returncode != 0:
        sys.exit(f"{program} has ended with {done.returncode}")
    return done.stdout


def queue_rows(options):
    repetitions, seconds = (2, 0.05) if options.quick else (9, 0.5)
    seen = run(
        options.build / "bench" / "queue",
        f"--benchmark_repetitions={repetitions}",
        f"--benchmark_min_time={seconds}",
        "--benchmark_enable_random_interleaving=true",
        "--benchmark_format=json",
    )
    for row in json.loads(seen)["benchmarks"]:
        if row["run_type"] == "iteration":
            shape, subject = row["run_name"].split("/")[:2]
            yield shape, subject, row["repetition_index"], 1e9 / row["items_per_second"]


def main():
    options = harness.options(__doc__)
    runs, messages = (2, 2000) if options.quick else (9, 50000)
    latency = run(options.build / "bench" / "latency", runs, messages)
    (options.out / "latency.csv").write_text(latency)
    print(latency, file=sys.stderr)

    columns = ("shape", "subject", "run", "ns_per_message")
    samples = harness.Samples(options.out / "queue.csv", columns)
    costs = {}
    for shape, subject, number, cost in queue_rows(options):
        samples.add(shape=shape, subject=subject, run=number, ns_per_message=f"{cost:.2f}")
        costs.setdefault((shape, subject), []).append(cost)
    for (shape, subject), values in costs.items():
        middle = statistics.median(values)
        print(f"{shape:9} {subject:10}: {middle:6.1f} ns a hand-over", file=sys.stderr)


main()
