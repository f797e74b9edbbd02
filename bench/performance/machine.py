"""The machine's note beside the samples, and the document's section on it."""
import re

from .folders import in_tree
from .words import bullet, paragraph, plural

VIRTUAL = (
    "It is a virtual machine. What the host takes for itself shows in the largest gaps and in the"
    " spread, and cannot be told apart there from what the program does."
)
LOCAL = (
    "All messages stay on it, over loopback or a virtual cable: there is no network card,"
    " no driver and no wire, and the call that sends also does work of the receiving side."
    " The subjects can be compared with each other, but not with figures from a network."
)


def machine(folder):
    """The keys and values of the machine's note, in its order."""
    path = folder / "machine.txt"
    lines = path.read_text().splitlines() if path.exists() else []
    return dict(line.split(": ", 1) for line in lines if ": " in line)


def date(note):
    return note.get("date", "no date")


def commit(note):
    return note.get("commit", "unknown")


def machine_section(folder, again):
    note = machine(folder)
    lines = ["## The machine", ""]
    if note:
        lines += [*(f"- {key}: {value}" for key, value in note.items()), ""]
    else:
        lines += [f"No note: `{in_tree(folder)}` has no `machine.txt`.", ""]
    if again:
        lines += second_run(machine(again))
    return lines + cannot_show(note)


def second_run(note):
    return paragraph(
        f"The second run: {date(note)}, commit {commit(note)}, load before"
        f" {note.get('load before', 'unknown')}, after {note.get('load after', 'unknown')}."
    )


def cannot_show(note):
    count = re.search(r"(\d+) of them", note.get("processor", ""))
    processors = plural(int(count[1]), "processor") if count else "few processors"
    virtual = note.get("virtual machine") != "no"
    return [
        "What this machine cannot show:",
        "",
        *bullet(
            f"It has {processors}. The sender alone keeps two threads running; where there is no"
            " third processor the receiver takes its time from one of them, and a rate by the"
            " clock contains that. The processor time of one thread does not, except for what"
            " taking turns costs its caches."
        ),
        *(bullet(VIRTUAL) if virtual else []),
        *bullet(LOCAL),
        "",
    ]
