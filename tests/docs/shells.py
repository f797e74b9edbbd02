"""Interactive shells behind a pseudo-terminal, with the completions of both programs
loaded. In place of the programs they have functions that note their arguments, so
that a completed line is read by the shell itself.
"""

import fcntl
import os
import pty
import select
import shutil
import struct
import subprocess
import termios
import time

import pytest

from conftest import COMPLETIONS, PROGRAMS

DEADLINE = 60.0  # seconds; long, so that only a hang can reach it
POLL_INTERVAL = 0.02
COLUMNS = 4000  # no line is ever wrapped
PROMPT = b"ready> "

TAB = "\t"
ALL = "\x18a"  # control X and a: insert all candidates


def program_functions(noting):
    return "".join(f"{program}() {{ {noting}; }}\n" for program in PROGRAMS)


# The files get their name when they are complete.
NOTE_IN_SH = 'printf "%s\\0" "$@" >"$NOTE.new"; command mv "$NOTE.new" "$NOTE"'
NOTE_IN_FISH = 'printf "%s\\0" $argv >$NOTE.new; command mv $NOTE.new $NOTE'


def bash_start(home):
    sources = "".join(f"source '{COMPLETIONS}/{program}.bash'\n" for program in PROGRAMS)
    (home / "bashrc").write_text(
        sources
        + program_functions(NOTE_IN_SH)
        + "bind 'set bell-style none'\n"
        + "bind 'set enable-bracketed-paste off'\n"
        + "bind '\"\\C-xa\": insert-completions'\n"
        + f"unset HISTFILE\nPS1='{PROMPT.decode()}'\n"
    )
    return ["bash", "--noprofile", "--rcfile", str(home / "bashrc"), "-i"]


def zsh_start(home):
    (home / ".zshrc").write_text(
        f"fpath=('{COMPLETIONS}' $fpath)\n"
        "autoload -Uz compinit && compinit -u -D\n"
        "setopt no_auto_menu no_auto_list no_beep\n"
        "unset zle_bracketed_paste\n"
        "all-matches() { _main_complete; compstate[insert]=all; compstate[list]= }\n"
        "zle -C all-matches complete-word all-matches\n"
        "bindkey '^I' complete-word\n"
        "bindkey '^Xa' all-matches\n"
        + program_functions(NOTE_IN_SH)
        + f"unset HISTFILE\nPROMPT='{PROMPT.decode()}'\nPROMPT_EOL_MARK=\n"
    )
    return ["zsh", "-d", "-i"]


def fish_start(home):
    functions = "".join(
        f"function {program}; {NOTE_IN_FISH}; end\n" for program in PROGRAMS
    )
    (home / "start.fish").write_text(
        f"set -p fish_complete_path '{COMPLETIONS}'\n"
        "set fish_greeting\n"
        f"function fish_prompt; echo -n '{PROMPT.decode()}'; end\n" + functions
    )
    return ["fish", "--no-config", "-i", "-C", f"source '{home}/start.fish'"]


STARTS = {"bash": bash_start, "zsh": zsh_start, "fish": fish_start}


class Shell:
    """One shell. Its working directory is `folder`."""

    def __init__(self, kind, home, folder, wrapper=()):
        if shutil.which(kind) is None:
            pytest.skip(f"{kind} is not installed")
        self.kind = kind
        self._home = home
        self._folder = folder
        self._note = home / "note"
        self._wrapper = list(wrapper)
        self._seen = b""
        self._terminal = None
        self._process = None

    # Starting and ending.

    def start(self):
        words = STARTS[self.kind](self._home)
        self._terminal, other = pty.openpty()
        size = struct.pack("HHHH", 50, COLUMNS, 0, 0)
        fcntl.ioctl(other, termios.TIOCSWINSZ, size)
        self._process = subprocess.Popen(
            self._wrapper + words,
            stdin=other,
            stdout=other,
            stderr=other,
            cwd=self._folder,
            env=self._environment(),
            start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0),
        )
        os.close(other)
        self._wait_for(lambda: PROMPT in self._seen, "a prompt")

    def _environment(self):
        return {
            "PATH": os.environ["PATH"],
            "HOME": str(self._home),
            "ZDOTDIR": str(self._home),
            "XDG_CONFIG_HOME": str(self._home),
            "XDG_DATA_HOME": str(self._home),
            "INPUTRC": os.devnull,
            "LC_ALL": "C.UTF-8",
            "TERM": "xterm",
            "NOTE": str(self._note),
        }

    def end(self):
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            os.close(self._terminal)

    # Asking.

    def candidates(self, line):
        """What is offered for the last word of the line, as the words that the
        program would get. Where nothing is offered, that word itself."""
        if self.kind == "fish":
            return self._fish_candidates(line)
        return self.arguments(line, ALL)

    def arguments(self, line, keys=TAB):
        """What the program gets when these keys and Enter follow the line."""
        if self._process is None:
            self.start()
        self._note.unlink(missing_ok=True)
        self._seen = b""
        os.write(self._terminal, f"{line}{keys}\r".encode())
        self._wait_for(self._note.exists, "the program's arguments")
        self._wait_for(lambda: PROMPT in self._seen.rpartition(b"\n")[2], "a new prompt")
        return self._note.read_text().split("\0")[:-1]

    def _fish_candidates(self, line):
        """The candidates, behind the words that stand before them."""
        script = f"source '{self._home}/start.fish'; complete -C \"$LINE\""
        STARTS["fish"](self._home)
        done = subprocess.run(
            [*self._wrapper, "fish", "--no-config", "-c", script],
            env={**self._environment(), "LINE": line},
            cwd=self._folder,
            capture_output=True,
            text=True,
            timeout=DEADLINE,
        )
        assert (done.returncode, done.stderr) == (0, "")
        offered = [each.partition("\t")[0] for each in done.stdout.splitlines()]
        *before, last = line.split(" ")[1:]
        return [*before, *(offered or [last])]

    # Waiting.

    def _wait_for(self, condition, what):
        limit = time.monotonic() + DEADLINE
        while not condition():
            if time.monotonic() > limit or self._process.poll() is not None:
                pytest.fail(f"{self.kind}: not seen: {what}; but:\n{self._seen!r}")
            if select.select([self._terminal], [], [], POLL_INTERVAL)[0]:
                self._read()

    def _read(self):
        try:
            self._seen += os.read(self._terminal, 65536)
        except OSError:  # how the end of a terminal reads
            pytest.fail(f"{self.kind}: ended:\n{self._seen!r}")
