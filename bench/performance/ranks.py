"""Ranks: the order of a case's subjects, as far as their spreads tell them apart."""
import itertools
from typing import NamedTuple

from .samples import by, subjects
from .words import bullet, name_of

TIES = (
    "A subject's rank is one more than the number of subjects ahead of it. Two subjects are tied"
    " when their medians differ by less than the spread, lowest to highest run, of the one that"
    " spreads more, or by less than 5 % of the larger."
)
CLOSE = 0.05


class Ranking(NamedTuple):
    case: str
    spreads: dict  # by subject
    highest_first: bool = False


def rankings(what, rows, cases, column, highest_first=False):
    """A ranking for each case that has something to rank."""
    found = [
        Ranking(", ".join([what, *name_of(case)]), subjects(of, column), highest_first)
        for case, of in by(rows, *cases).items()
    ]
    return [ranking for ranking in found if len(ranking.spreads) > 1]


def leads(ranking, one, other):
    """Whether `one` comes before `other` by more than what ties them."""
    a, b = ranking.spreads[one], ranking.spreads[other]
    ahead_by = a.median - b.median if ranking.highest_first else b.median - a.median
    least = max(a.high - a.low, b.high - b.low, CLOSE * max(a.median, b.median))
    return ahead_by > 0 and ahead_by >= least


def ranks(ranking):
    """A subject's rank is one more than the number of subjects that lead it."""
    names = ranking.spreads
    return {name: 1 + sum(leads(ranking, other, name) for other in names) for name in names}


def order_text(ranking):
    places = ranks(ranking)
    groups = itertools.groupby(sorted(places, key=lambda name: (places[name], name)), places.get)
    return "; ".join(f"{place} {', '.join(names)}" for place, names in groups)


def ranks_text(found):
    return [line for one in found for line in bullet(f"{one.case}: {order_text(one)}")] + [""]
