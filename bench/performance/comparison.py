"""How far two runs rank the subjects alike."""
import itertools
from typing import NamedTuple

from .benchmarks import all_rankings
from .folders import in_tree
from .machine import commit, date, machine
from .ranks import leads, order_text
from .tables import table
from .words import paragraph, plural


class Verdict(NamedTuple):
    """How two runs rank the subjects of a case."""

    reversed: list
    tied_in_one: list
    in_one_only: list

    def text(self):
        parts = {
            "differ": self.reversed,
            "tied in one run": self.tied_in_one,
            "in one run only": self.in_one_only,
        }
        return "; ".join(f"{what}: {', '.join(of)}" for what, of in parts.items() if of) or "same"


def verdict_of(first, second):
    common = sorted(first.spreads.keys() & second.spreads.keys())
    swapped, loose = [], []
    for one, other in itertools.combinations(common, 2):
        sides = [
            leads(ranking, one, other) - leads(ranking, other, one)
            for ranking in (first, second)
        ]
        if sides[0] * sides[1] < 0:
            swapped.append(f"{one} and {other}")
        elif sides[0] != sides[1]:
            loose.append(f"{one} and {other}")
    return Verdict(swapped, loose, sorted(first.spreads.keys() ^ second.spreads.keys()))


class Comparison(NamedTuple):
    lines: list
    differ: bool


def compare(first, second):
    """The ranks of two runs, case by case. They differ where one run has two subjects in one
    order and the other has them in the opposite one; a tie contradicts neither."""
    ranked = [all_rankings(folder) for folder in (first, second)]
    cases = [
        (case, ranking, ranked[1][case], verdict_of(ranking, ranked[1][case]))
        for case, ranking in ranked[0].items()
        if case in ranked[1]
    ]
    if not cases:
        return Comparison(["Nothing to compare: no case is in both runs.", ""], True)
    verdicts = [verdict for *_, verdict in cases]
    lines = paragraph(*commits(first, second)) + paragraph(counts_text(verdicts))
    lines += table(
        ["Case", "First run", "Second run", "Ranks"],
        [
            [case, order_text(one), order_text(other), verdict.text()]
            for case, one, other, verdict in cases
        ],
    )
    alone = sorted(ranked[0].keys() ^ ranked[1].keys())
    if alone:
        lines += paragraph(f"In one run only: {'; '.join(alone)}.")
    return Comparison(lines, any(verdict.reversed for verdict in verdicts))


def counts_text(verdicts):
    differ = sum(bool(verdict.reversed) for verdict in verdicts)
    same = sum(not any(verdict) for verdict in verdicts)
    return (
        f"Of {plural(len(verdicts), 'case')} {same} have the same ranks in both runs, {differ}"
        f" differ, and {len(verdicts) - same - differ} have subjects that are tied or present in"
        " one run only."
    )


def commits(first, second):
    """Who was compared, and whether both are of one commit."""
    notes = [machine(folder) for folder in (first, second)]
    who = [f"`{in_tree(folder)}` ({date(note)})" for folder, note in zip((first, second), notes)]
    one, other = map(commit, notes)
    yield f"The first run is {who[0]}, the second {who[1]}."
    if one != other:
        yield f"They are not of the same commit: {one} and {other}."
