"""Samples: reading a file of them, picking rows, and the spread of their runs."""
import csv
import math
import statistics
from typing import NamedTuple

from .folders import Fault

TEXT = {"protocol", "subject", "source", "mode", "rate", "curve", "x_unit", "unit", "shape", "path"}


# ---------------------------------------------------------------- reading


def read(folder, name, columns):
    """The rows of one file of samples, numbers as numbers; none when it is absent."""
    path = folder / f"{name}.csv"
    text = path.read_text() if path.exists() else ""
    lines = [line for line in text.splitlines() if not line.startswith("#")]
    if not lines:
        return []
    reader = csv.DictReader(lines)
    missing = [column for column in columns.split(",") if column not in reader.fieldnames]
    if missing:
        raise Fault(f"{path}: no column {', '.join(missing)}")
    return [whole_row(path, number, row) for number, row in enumerate(reader, 1)]


def whole_row(path, number, row):
    try:
        return {column: value_of(column, text) for column, text in row.items()}
    except (TypeError, ValueError):
        raise Fault(f"{path}: row {number} is not whole: {row}") from None


def value_of(column, text):
    if text is None:
        raise ValueError(column)
    if column in TEXT or text == "":
        return text
    number = float(text)
    if not math.isfinite(number):
        raise ValueError(text)
    return number


def remark(folder, name):
    """What a file of samples says of itself in its first line."""
    first, *_ = (folder / f"{name}.csv").read_text().splitlines()
    return f"With {first.removeprefix('# ')}." if first.startswith("# ") else ""


# ---------------------------------------------------------------- picking


def pick(rows, **wanted):
    return [row for row in rows if all(row[name] == value for name, value in wanted.items())]


def by(rows, *columns):
    """The rows by their values in `columns`, in the order of their first appearance."""
    groups = {}
    for row in rows:
        groups.setdefault(tuple(row[column] for column in columns), []).append(row)
    return groups


# ---------------------------------------------------------------- spreads


class Spread(NamedTuple):
    """The median of some runs, and the lowest and the highest of them."""

    median: float
    low: float
    high: float
    runs: int


def spread_of(values):
    values = list(values)
    if not values:
        return None
    return Spread(statistics.median(values), min(values), max(values), len(values))


def spread(rows, column):
    return spread_of(row[column] for row in rows if row[column] != "")


def subjects(rows, column, subject="subject"):
    """The spread of each subject that has figures."""
    found = {name: spread(of, column) for (name,), of in by(rows, subject).items()}
    return {name: seen for name, seen in found.items() if seen is not None}


def ratio(rows, subject, base, column):
    """The ratio of the medians, and the lowest and highest ratio of two neighbouring runs."""
    above, below = (
        {row["run"]: row[column] for row in pick(rows, subject=name) if row[column] != ""}
        for name in (subject, base)
    )
    runs = [run for run in above if run in below]
    if not runs:
        return None
    pairs = [above[run] / below[run] for run in runs]
    medians = [statistics.median(of[run] for run in runs) for of in (above, below)]
    return Spread(medians[0] / medians[1], min(pairs), max(pairs), len(runs))
