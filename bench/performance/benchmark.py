"""What a benchmark has to tell: where its samples are, what they mean, and its part of the
document."""
from dataclasses import dataclass
from typing import Callable

from .samples import read
from .tables import against_table, spreads_table


@dataclass
class Benchmark:
    name: str  # of its file of samples
    title: str
    script: str
    columns: str  # that the file has to have
    keys: tuple  # columns that tell one series of runs from another
    how: str
    body: Callable  # rows, and a function from a plot's name to its lines -> lines
    targets: Callable = lambda rows: []  # also of no rows
    ranked: Callable = lambda rows: []
    shows: Callable = lambda rows: []
    prepare: Callable = lambda rows: rows

    def read(self, folder):
        return self.prepare(read(folder, self.name, self.columns))


def simple_body(name, keys, columns):
    return lambda rows, plot: [*spreads_table(rows, keys, columns), *plot(name)]


def against_body(name, keys, base):
    return lambda rows, plot: [*against_table(rows, keys, base), *plot(name)]
