"""Programs that are halted for a while: what a test does meanwhile happens, for them,
between two instructions, however long it takes."""

import contextlib
from signal import SIGCONT, SIGSTOP


def all_stopped(program):
    """Each of its threads; one that works on is not seen in the process's own state. A
    program that has ended has none."""
    with contextlib.suppress(FileNotFoundError):
        states = set(program.states().values())
        return "T" in states and states <= {"T", "X"}
    return False


def halt(program):
    program.signal(SIGSTOP)
    program.wait_until(lambda: all_stopped(program), "every thread halted")


def go_on(program):
    program.signal(SIGCONT)


@contextlib.contextmanager
def held(program):
    """Halted in this scope. What fails there leaves it so, to be killed."""
    halt(program)
    yield program
    go_on(program)
