"""The document: the targets, the machine, a section per benchmark, and a second run."""
import os
import shlex

from .benchmarks import BENCHMARKS, all_targets
from .comparison import compare
from .folders import in_tree
from .machine import machine_section
from .ranks import TIES, ranks_text
from .samples import remark
from .tables import runs_text, table
from .targets import ABOUT, reason
from .words import bullet, paragraph, plural

VERDICTS = {True: "met", False: "missed", None: "not measured"}


def command(folder, again):
    """What is typed to write the document anew."""
    words = ["bench/report.py", str(in_tree(folder))]
    return shlex.join([*words, "--again", str(in_tree(again))] if again else words)


def document(folder, again, output):
    lines = ["# Performance", ""]
    lines += paragraph(
        "What the sender costs, how exactly it keeps its rate, and how it compares. A figure is"
        " the median of its runs, followed by the lowest and the highest of them."
        f" `{command(folder, again)}` has written this page from the samples there, after"
        " `bench/plots.py` has drawn them; `script/bench` takes new ones."
    )
    lines += targets_section(folder)
    lines += machine_section(folder, again)
    lines += paragraph("In the lists of ranks below, the best comes first.", TIES)
    for benchmark in BENCHMARKS:
        lines += benchmark_section(benchmark, folder, output)
    if again:
        lines += again_section(folder, again)
    return "\n".join(lines).rstrip("\n") + "\n"


# ---------------------------------------------------------------- the targets


def targets_section(folder):
    found = list(all_targets(folder))
    lines = ["## Targets", "", *counts([target for _, target in found])]
    lines += table(
        ["What", "Target", "Measured", "Verdict", "Command"],
        [
            [one.what, one.limit, one.measured, VERDICTS[one.met], f"`{benchmark.script}`"]
            for benchmark, one in found
        ],
    )
    return lines + reasons([target for _, target in found])


def reasons(found):
    """What bounds each of the targets that were missed."""
    missed = [target for target in found if target.met is False]
    lines = []
    for target in missed:
        lines += bullet(
            f"**{target.what}**: {target.measured}; the target is {target.limit}. {reason(target)}"
        )
    return [*lines, ""] if missed else []


def counts(found):
    met, missed, unmeasured = (sum(one.met is verdict for one in found) for verdict in VERDICTS)
    return paragraph(
        f"Of {plural(len(found), 'target')} {met} are met, {missed} missed and"
        f" {unmeasured} not measured. `script/bench` measures all of them, the command"
        " at the end of a line that one alone. About and flat allow"
        f" {100 * (ABOUT - 1):.3g} % more."
    )


# ---------------------------------------------------------------- a benchmark


def benchmark_section(benchmark, folder, output):
    rows = benchmark.read(folder)
    lines = [f"## {benchmark.title}", ""]
    if not rows:
        path = in_tree(folder / f"{benchmark.name}.csv")
        return [*lines, f"No samples: `{path}` is absent or empty.", ""]
    lines += paragraph(
        benchmark.how,
        measured_with(benchmark, rows),
        remark(folder, benchmark.name),
    )
    lines += benchmark.body(rows, lambda name: plot_lines(name, benchmark.title, folder, output))
    lines += benchmark.shows(rows)
    found = list(benchmark.ranked(rows))
    if found:
        lines += ["Ranks:", "", *ranks_text(found)]
    return lines


def measured_with(benchmark, rows):
    script = f"`{benchmark.script}`"
    if "run" not in rows[0]:
        return f"{script}."
    return f"{script}, {runs_text(rows, benchmark.keys)}, median (lowest to highest)."


def plot_lines(name, title, folder, output):
    path = folder / f"{name}.svg"
    if not path.exists():
        return [f"No plot: `{in_tree(folder)}` has no `{path.name}`.", ""]
    link = os.path.relpath(path.resolve(), output.resolve().parent)
    return [f"![{title}: {name}]({link})", ""]


# ---------------------------------------------------------------- a second run


def again_section(folder, again):
    text = "Where they differ, one run has two subjects in one order and the other reverses it."
    lines = ["## A second run", "", *verdicts_section(folder, again)]
    return [*lines, *paragraph(TIES, text), *compare(folder, again).lines]


def verdicts_section(folder, again):
    """The targets that one of the runs meets and the other does not."""
    first, second = ({one.key: one for _, one in all_targets(run)} for run in (folder, again))
    met = [sum(one.met is True for one in run.values()) for run in (first, second)]
    changed = [key for key in first if first[key].met is not second[key].met]
    lines = paragraph(
        f"The first run meets {met[0]} of {plural(len(first), 'target')}, the second"
        f" {met[1]}.{' These verdicts differ:' if changed else ''}"
    )
    if changed:
        lines += table(
            ["What", "Target", "First run", "Second run"],
            [
                [first[key].what, first[key].limit, *map(seen, (first[key], second[key]))]
                for key in changed
            ],
        )
    return lines + reasons([second[key] for key in changed])


def seen(target):
    return f"{target.measured}: {VERDICTS[target.met]}"
