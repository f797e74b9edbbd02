"""Tables, most of them of spreads: a row per case and subject."""
from .samples import by, ratio, spread, subjects
from .words import case_words, plural, range_text


def table(headings, rows):
    lines = [headings, ["---"] * len(headings), *rows]
    return ["| " + " | ".join(map(str, cells)) + " |" for cells in lines] + [""]


def cell(seen, digits=3):
    return range_text(seen, digits) if seen else "-"


def spreads_table(rows, keys, columns):
    """`keys` and `columns` map columns to headings."""
    cells = [
        [*case_words(values), *(cell(spread(of, column)) for column in columns)]
        for values, of in by(rows, *keys).items()
    ]
    return table([*keys.values(), *columns.values()], cells)


def against_table(rows, keys, base):
    """With the ratio to one of the subjects."""
    cells = []
    for values, of in by(rows, *keys).items():
        for subject, seen in subjects(of, "ns_per_message").items():
            times = None if subject == base else ratio(of, subject, base, "ns_per_message")
            cells.append([*case_words(values), subject, cell(seen), cell(times, 4)])
    return table([*keys.values(), "Subject", "ns per message", f"times {base}"], cells)


def runs_text(rows, keys):
    """How many runs are behind the figures of a table."""
    counts = sorted({len(of) for of in by(rows, *keys).values()})
    if len(counts) == 1:
        return plural(counts[0], "run")
    return f"{counts[0]} to {counts[-1]} runs"
