"""Puts mistakes into the sender's sources, one at a time, and sees which of them the tests
notice. Started by script/mutate.

Each mutant is compiled and tested in a private copy: first the unit tests of its header,
then the other unit tests that include it, then its own ones with checks of memory and leaks,
then the end-to-end tests of the sender. A mutant is killed by a test that fails, crashes or
does not end. One that does not compile counts for nothing, and another one takes its place.
"""

import argparse
import collections
import concurrent.futures
import csv
import dataclasses
import os
import pathlib
import random
import signal
import sys
import threading
import time

import kitchen as k
import mutants as m

ROOT = pathlib.Path(__file__).resolve().parents[2]
LEAST_KILLED = 90  # per cent
# Mistakes of these kinds count for that; of the others tests notice nearly all.
COUNTED = {
    "conditions": ("comparison", "logic", "negation dropped", "condition negated", "condition fixed"),
    "constants": ("constant",),
    "arithmetic": ("arithmetic",),
    "removed statements": ("statement removed",),
}
COUNTED_OPERATORS = {operator for operators in COUNTED.values() for operator in operators}
# Tests of what stands in the documents, and tests that take minutes and hold many senders.
LEFT_OUT = ("e2e/reliability_table", "e2e/network_trouble")

# Unit tests of a header whose names do not start with the header's name.
FURTHER_UNITS = {
    "common.h": ["pcap_helper", "source_fault", "closed_streams"],
    "tcp_engine.h": [
        "engine_base", "udp_engine", "pacing", "slow_path_fault", "descriptor_fault", "clock_fault",
    ],
    "tcp_replay.h": ["thread_fault"],
}
# The end-to-end tests likeliest to notice go first.
LIKELY_PROGRAMS = {
    "common.h": ["capture", "data_file"],
    "tcp_engine.h": ["tcp_run", "udp"],
    "tcp_replay.h": ["data_file", "tcp_run"],
    "udp_address.h": ["udp", "multicast"],
    "replay_sender.cpp": ["command_line"],
}
KILLED, TIMEOUT, SURVIVED = "killed", "timeout", "survived"
# What counts for nothing: it does not compile, or is known to change nothing.
INVALID, EQUIVALENT = "invalid", "equivalent"


@dataclasses.dataclass
class Row:
    """One line of the results."""

    id: str
    file: str
    line: int
    operator: str
    before: str
    after: str
    outcome: str
    killed_by: str
    seconds: float


def read_options():
    parser = argparse.ArgumentParser(prog="script/mutate", description=__doc__)
    parser.add_argument("--jobs", type=int, default=1, help="mutants at a time (1)")
    parser.add_argument("--files", nargs="+", help="only these sources (all of src/)")
    parser.add_argument("--seed", type=int, default=1, help="which mutants are picked (1)")
    parser.add_argument("--limit", type=int, default=300, help="how many that count, over all sources (300)")
    parser.add_argument("--ids", nargs="+", help="only these mutants, whatever their results")
    parser.add_argument(
        "--again", action="store_true", help="forget the results of mutants that survived"
    )
    parser.add_argument(
        "--without", nargs="+", default=[], metavar="TEST",
        help="further files of tests to leave out, as in tcp_engine or 'e2e/*'",
    )
    parser.add_argument("--summary", action="store_true", help="only show the results so far")
    parser.add_argument(
        "--out", type=pathlib.Path, default=ROOT / "build/mutation", help="folder of the results"
    )
    return parser.parse_args()


# ------------------------------------------------------------------- the order


def stages_of(mutant, kitchen):
    """The stages that this mutant goes through until one notices it."""
    stem = mutant.file.partition(".")[0]
    including = kitchen.units_including(mutant.file)
    further = FURTHER_UNITS.get(mutant.file, [])

    def is_own(unit):
        return any(unit == name or unit.startswith(f"{name}_") for name in (stem, *further))

    units = sorted(including, key=lambda unit: (not is_own(unit), unit != stem))
    likely = LIKELY_PROGRAMS.get(mutant.file, [])
    programs = sorted(kitchen.programs, key=lambda name: name not in likely)
    own = [name for name in units if is_own(name)]
    # This processor hardly shows a wrong order of memory.
    stages = [k.Stage("tsan", name) for name in own if mutant.operator == "memory order"]
    stages += [k.Stage("unit", name) for name in units]
    stages += [k.Stage("asan", name) for name in own]
    stages += [k.Stage("e2e", name) for name in programs]
    return stages


class Plan:
    """Hands out mutants, of each source in proportion, until its share has results."""

    def __init__(self, sources, files, options, known):
        self.shares = m.shares({f: sources[f] for f in files}, options.limit)
        self.waiting = {}
        self.done = collections.Counter()
        for file in files:
            candidates = m.mutants_of(file, sources)
            random.Random(f"{options.seed} {file}").shuffle(candidates)
            if options.ids:
                candidates = [mutant for mutant in candidates if mutant.id in options.ids]
                self.shares[file] = len(candidates)
            self.waiting[file] = collections.deque(candidates)
        self.known = known
        self.lock = threading.Lock()

    def end(self):
        """Hands out no more."""
        with self.lock:
            self.waiting.clear()

    def next(self):
        """A mutant without a result, or None. One of the kinds that count is taken for valid
        until told otherwise."""
        with self.lock:
            while True:
                open_files = [
                    f for f in self.waiting if self.waiting[f] and self.done[f] < self.shares[f]
                ]
                if not open_files:
                    return None
                file = min(open_files, key=lambda f: self.done[f] / self.shares[f])
                mutant = self.waiting[file].popleft()
                row = self.known.get(mutant.id)
                if row is None or row.outcome not in (INVALID, EQUIVALENT):
                    self.done[file] += mutant.operator in COUNTED_OPERATORS
                if row is None:
                    return mutant

    def counts_for_nothing(self, mutant):
        with self.lock:
            self.done[mutant.file] -= mutant.operator in COUNTED_OPERATORS


# ----------------------------------------------------------------- the results


class Results:
    """The table of results on disk; a row is added as soon as it is known."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.rows = {}
        if path.exists():
            with open(path, newline="") as file:
                for fields in csv.DictReader(file):
                    row = Row(**fields)
                    row.line, row.seconds = int(row.line), float(row.seconds)
                    self.rows[row.id] = row

    def forget(self, is_unwanted):
        self.rows = {i: row for i, row in self.rows.items() if not is_unwanted(row)}
        self.write_all()

    def write_all(self):
        draft = self.path.with_suffix(".draft")
        with open(draft, "w", newline="") as file:
            writer = csv.writer(file, lineterminator="\n")
            writer.writerow(field.name for field in dataclasses.fields(Row))
            writer.writerows(dataclasses.astuple(row) for row in self.rows.values())
        os.replace(draft, self.path)

    def add(self, row):
        with self.lock:
            self.rows[row.id] = row
            with open(self.path, "a", newline="") as file:
                csv.writer(file, lineterminator="\n").writerow(dataclasses.astuple(row))


class Normal:
    """How long each stage takes without a mistake."""

    def __init__(self, worker):
        self.worker = worker
        self.seconds = {}
        self.unusable = {}
        self.lock = threading.Lock()

    def limits(self, stage):
        """Several times the normal duration. An end-to-end test that waits in vain fails by
        itself after a minute; a unit test that spins is ended by its processor time. None
        when the stage does not pass, so that its failures would say nothing."""
        with self.lock:
            if stage not in self.seconds and stage not in self.unusable:
                result = self.worker.run(stage)
                self.seconds[stage] = result.seconds
                if result.verdict != k.PASSED and not self.worker.is_stopped:
                    self.unusable[stage] = result.detail.strip()[:200]
                    print(f"left out {stage}: {self.unusable[stage]}", flush=True)
            if stage in self.unusable:
                return None
        several = 5 * self.seconds[stage]
        if stage.kind == "e2e":
            return k.Limits(several + 90, None)
        return k.Limits(several + 60, several + 10)


def verdict_of(stage, worker, normal):
    """The stage's result with the mistake in place; None for a stage that says nothing. What
    fails has to fail again: on a busy machine a test may do so once."""
    limits = normal.limits(stage)
    if limits is None:
        return None
    result = worker.run(stage, limits)
    if result.verdict == k.FAILED or (stage.kind == "e2e" and result.verdict == k.TIMED_OUT):
        result = worker.run(stage, limits)
    return result


def judge(mutant, worker, normal, kitchen):
    """The mutant's row of results."""
    text = kitchen.sources[mutant.file]
    before, after = mutant.lines(text)
    start = time.monotonic()
    why = kitchen.equivalents.reason(mutant, text)
    if why is not None:
        return Row(
            mutant.id, mutant.file, mutant.line, mutant.operator, before, after, EQUIVALENT,
            why, 0.0,
        )
    outcome, killed_by = SURVIVED, ""
    with worker.changed(mutant.file, mutant.apply(text)):
        for stage in stages_of(mutant, kitchen):
            result = verdict_of(stage, worker, normal)
            if result is None or result.verdict == k.PASSED:
                continue
            outcome = {k.FAILED: KILLED, k.TIMED_OUT: TIMEOUT, k.BROKEN: INVALID}[result.verdict]
            killed_by = "" if outcome == INVALID else f"{stage}: {result.detail}"
            break
    return Row(
        mutant.id, mutant.file, mutant.line, mutant.operator, before, after, outcome, killed_by,
        round(time.monotonic() - start, 1),
    )


def work(worker, plan, results, normal, kitchen):
    while (mutant := plan.next()) is not None:
        row = judge(mutant, worker, normal, kitchen)
        if worker.is_stopped:
            return
        if row.outcome in (INVALID, EQUIVALENT):
            plan.counts_for_nothing(mutant)
        results.add(row)
        print(
            f"{row.outcome:8} {row.file}:{row.line}  {row.after}  [{row.operator}]  "
            f"{row.killed_by}  {row.seconds} s",
            flush=True,
        )


# ----------------------------------------------------------------- the summary


def killer_of(row):
    if row.outcome == TIMEOUT:
        return "timeout"
    return row.killed_by.partition("/")[0] if row.outcome == KILLED else row.outcome


COLUMNS = ("unit", "tsan", "asan", "e2e", "timeout", "survived", "invalid", "equivalent")


def counted(rows):
    """The number of mutants with a verdict, of killed ones, and these in per cent."""
    valid = [row for row in rows if row.outcome not in (INVALID, EQUIVALENT)]
    killed = sum(row.outcome != SURVIVED for row in valid)
    return len(valid), killed, 100 * killed / len(valid) if valid else 0.0


def table(head, groups):
    """One line a group of rows."""
    print(f"{head:20} {'mutants':>8} {'killed':>8} {'%':>6}" + "".join(
        f" {name:>10}" for name in COLUMNS))
    for name, rows in groups:
        valid, killed, share = counted(rows)
        kinds = collections.Counter(map(killer_of, rows))
        print(f"{name:20} {valid:8} {killed:8} {share:6.1f}" + "".join(
            f" {kinds[column]:10}" for column in COLUMNS))


def of_counted_kinds(rows):
    return [row for row in rows if row.operator in COUNTED_OPERATORS]


def summarise(rows):
    """Prints a line a source, a line a kind of mistake, then the survivors."""
    files = sorted({row.file for row in rows})
    table("file", [(file, [r for r in rows if r.file == file]) for file in files] + [("all", rows)])
    print()
    kinds = [(name, [r for r in rows if r.operator in ops]) for name, ops in COUNTED.items()]
    others = sorted({row.operator for row in rows} - COUNTED_OPERATORS)
    table("kind", kinds + [("these four", of_counted_kinds(rows))] + [
        (name, [r for r in rows if r.operator == name]) for name in others])
    for outcome in TIMEOUT, SURVIVED:
        for row in sorted(rows, key=lambda row: (row.file, row.line)):
            if row.outcome == outcome:
                print(f"{outcome}: {row.id} {row.file}:{row.line} [{row.operator}]")
                print(f"    {row.before}\n    {row.after}")


def current_rows(results, kitchen_sources, files):
    """The results of mutants of the sources as they are now."""
    ids = {mutant.id for file in files for mutant in m.mutants_of(file, kitchen_sources)}
    return [row for row in results.rows.values() if row.id in ids]


def main():
    options = read_options()
    # So that a run that is stopped ends its tests too.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    options.out.mkdir(parents=True, exist_ok=True)
    results = Results(options.out / "results.csv")
    sources = {p.name: p.read_text() for p in sorted((ROOT / "src").iterdir())}
    files = options.files or list(sources)
    unusable = {}
    if not options.summary:
        wanted = set(options.ids or ())
        results.forget(
            lambda row: row.id in wanted or (options.again and row.outcome == SURVIVED))
        unusable = run(options, results, files)
    rows = current_rows(results, sources, files)
    summarise(rows)
    for stage, detail in unusable.items():
        print(f"left out, as it does not pass without a mistake: {stage}: {detail}")
    valid, _, share = counted(of_counted_kinds(rows))
    if valid < options.limit and not (options.ids or options.files):
        print(f"{valid} mutants of the four kinds are fewer than {options.limit}")
        return 1
    return 0 if share >= LEAST_KILLED and not unusable else 1


def run(options, results, files):
    """Judges mutants until their number is reached; the stages that could not be used."""
    kitchen = k.Kitchen(ROOT, options.out, (*LEFT_OUT, *options.without))
    kitchen.prepare()
    one_at_a_time = threading.Lock()
    normal = Normal(k.Worker(kitchen, "normal", one_at_a_time))
    plan = Plan(kitchen.sources, files, options, results.rows)
    workers = [k.Worker(kitchen, number, one_at_a_time) for number in range(options.jobs)]
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as threads:
        running = [
            threads.submit(work, worker, plan, results, normal, kitchen) for worker in workers
        ]
        try:
            for end in concurrent.futures.as_completed(running):
                end.result()
        finally:
            plan.end()
            for worker in (*workers, normal.worker):
                worker.stop()
    return normal.unusable


if __name__ == "__main__":
    sys.exit(main())
