"""The instructions of a message's paths: counted once, so a figure has no spread."""
from .benchmark import Benchmark
from .tables import table
from .words import figure


def body(rows, _plot):
    cells = [[row["path"], figure(row["instructions"])] for row in rows]
    return table(["Path", "instructions per message"], cells)


INSTRUCTIONS = Benchmark(
    name="instructions",
    title="Instructions",
    script="bench/instructions.py",
    columns="path,instructions",
    keys=("path",),
    how=(
        "Instructions per message on the program's own paths, as callgrind counts them. The"
        " kernel's are not among them."
    ),
    body=body,
)
