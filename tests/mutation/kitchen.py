"""Builds and runs tests against a copy of the sources: the stages that a mutant goes
through, each of them one file of tests.

Everything is unoptimised, and compiled by the compiler that needs less time for that, with
the libraries' headers precompiled. The thread checks take the other compiler, whose runtime
leaves the tests their own operator new.
"""

import contextlib
import dataclasses
import fnmatch
import os
import pathlib
import re
import resource
import shutil
import signal
import subprocess
import sys
import time

import mutants

FLAGS = ("-std=c++20", "-O0", "-pthread", "-w")
PLAIN = ("clang++", *FLAGS)
THREAD_CHECKS = ("g++", *FLAGS, "-fsanitize=thread")
MEMORY_CHECKS = (
    "clang++", *FLAGS, "-fsanitize=address,undefined,leak", "-fno-sanitize-recover=all",
    "-fno-omit-frame-pointer",
)
COMPILERS = {"unit": PLAIN, "tsan": THREAD_CHECKS, "asan": MEMORY_CHECKS}
LIBRARIES = ("-lgtest_main", "-lgmock", "-lgtest", "-lpcap", "-ldl")
PASSED, FAILED, TIMED_OUT, BROKEN = "passed", "failed", "timed out", "broken"
SKIPPED = 77  # how the end-to-end tests say that some were skipped and none failed

# A mutant may fill memory or disk without end. The longest file of a test is a sparse one
# of signals_test.py, which has just as many bytes.
MOST_MEMORY = 8 << 30
MOST_BYTES_IN_A_FILE = 16 << 30


@dataclasses.dataclass(frozen=True)
class Stage:
    """One file of tests; `kind` is "unit", "tsan", "asan" or "e2e"."""

    kind: str
    name: str

    def __str__(self):
        return f"{self.kind}/{self.name}"


@dataclasses.dataclass
class Result:
    verdict: str
    seconds: float
    detail: str = ""


@dataclasses.dataclass(frozen=True)
class Limits:
    """Seconds; None for no limit."""

    elapsed: float | None = None
    processor: float | None = None


class Kitchen:
    """The copy of tests and sources that all workers share, and what is built once."""

    def __init__(self, root, folder, left_out=()):
        self.folder = folder
        self.tree = folder / "tree"
        shutil.rmtree(self.tree, ignore_errors=True)
        left_behind = shutil.ignore_patterns("build", ".git", "__pycache__", "latest")
        shutil.copytree(root, self.tree, ignore=left_behind)
        # The tests look there for the programs that help them.
        (self.tree / "build").symlink_to(root / "build")
        self.equivalents = mutants.Equivalents()
        cmake = (root / "CMakeLists.txt").read_text()
        self.version = re.search(r"VERSION (\d[\d.]*)\n", cmake)[1]
        self.sources = {p.name: p.read_text() for p in sorted((self.tree / "src").iterdir())}
        self.units = {
            name: headers_of(self.tree / f"tests/unit/{name}_test.cpp", self.tree)
            for name in self.tests("unit", left_out)
        }
        self.programs = [
            name for name in self.tests("e2e", left_out) if not name.startswith("receiver_")
        ]

    def tests(self, kind, left_out):
        """The files of tests of one kind, by their names in front of "_test"."""
        names = (p.stem.removesuffix("_test") for p in self.tree.glob(f"tests/{kind}/*_test.*"))
        return sorted(
            name for name in names
            if not any(
                fnmatch.fnmatch(f"{kind}/{name}", f"{kind}/{pattern}")
                or fnmatch.fnmatch(f"{kind}/{name}", pattern)
                for pattern in left_out
            )
        )

    def prepare(self):
        """Builds what no mutant changes: precompiled headers, seams, the helper program."""
        headers = self.folder / "headers.h"
        headers.write_text(self.library_headers())
        compile_with(
            PLAIN, "-fpch-instantiate-templates", "-x", "c++-header", headers,
            "-o", headers.with_suffix(".pch"),
        )
        for kind, compiler in COMPILERS.items():
            (self.folder / kind).mkdir(exist_ok=True)
            for seam in sorted((self.tree / "tests/support").glob("*_seam.cpp")):
                compile_with(
                    compiler, "-I", self.tree / "tests", "-I", self.tree / "src",
                    "-c", seam, "-o", self.folder / kind / f"{seam.stem}.o",
                )
        sink = self.tree / "tests/support/udp_sink.cpp"
        compile_with(PLAIN, sink, "-o", self.folder / "udp_sink")

    def library_headers(self):
        """An include line for each library header that sources or sender's tests include."""
        files = [self.tree / "src" / name for name in self.sources]
        files += (self.tree / "tests/unit" / f"{name}_test.cpp" for name in self.sender_units())
        files += (self.tree / "tests/support").glob("*.h")
        wanted = {
            line for file in files for line in file.read_text().splitlines()
            if line.startswith("#include <")
        }
        return "\n".join(sorted(wanted)) + "\n"

    def sender_units(self):
        """The unit tests that include something of src/ and nothing of the receiver's."""
        return [
            name for name, headers in self.units.items()
            if any(h.parts[0] == "src" for h in headers)
            and not any(h.parts[0] == "receiver" for h in headers)
        ]

    def units_including(self, source):
        header = pathlib.Path("src") / source
        return [name for name in self.sender_units() if header in self.units[name]]


def headers_of(file, tree):
    """The project's headers that this file includes, directly or not, relative to `tree`."""
    found = set()
    waiting = [file]
    while waiting:
        for name in re.findall(r'^#include "([^"]+)"', waiting.pop().read_text(), re.MULTILINE):
            for folder in ("src", "tests", "receiver"):
                header = pathlib.Path(folder) / name
                if (tree / header).exists() and header not in found:
                    found.add(header)
                    waiting.append(tree / header)
    return found


class CompileError(Exception):
    pass


def compile_with(compiler, *words):
    done = subprocess.run(
        [*compiler, *map(os.fspath, words)], capture_output=True, text=True, check=False
    )
    if done.returncode != 0:
        raise CompileError(done.stderr)


class Worker:
    """Runs stages against one private copy of the sources."""

    def __init__(self, kitchen, number, one_at_a_time):
        self.kitchen = kitchen
        self.folder = kitchen.folder / f"worker-{number}"
        self.one_at_a_time = one_at_a_time
        self.sources = self.folder / "src"
        shutil.rmtree(self.folder, ignore_errors=True)
        shutil.copytree(kitchen.tree / "src", self.sources)
        self.sender_is_built = False
        self.process = None
        self.is_stopped = False

    def stop(self):
        """From another thread: ends what runs, whose result then means nothing."""
        self.is_stopped = True
        if self.process is not None and self.process.poll() is None:
            end_group(self.process)

    @contextlib.contextmanager
    def changed(self, file, text):
        """For one scope, the copy of this source holds this text."""
        self.sender_is_built = False
        (self.sources / file).write_text(text)
        try:
            yield
        finally:
            (self.sources / file).write_text(self.kitchen.sources[file])
            self.sender_is_built = False

    def run(self, stage, limits=Limits()):
        start = time.monotonic()
        try:
            command = self.sender_tests(stage) if stage.kind == "e2e" else self.unit_tests(stage)
        except CompileError as error:
            return Result(BROKEN, time.monotonic() - start, str(error))
        # The sender keeps two processors busy: no two of these at a time.
        with self.one_at_a_time if stage.kind == "e2e" else contextlib.nullcontext():
            return self.execute(command, stage, limits)

    def unit_tests(self, stage):
        """Builds one file of unit tests as a program of its own."""
        tests = self.kitchen.tree / "tests"
        compiler = COMPILERS[stage.kind]
        if stage.kind == "unit":
            compiler = (*compiler, "-include-pch", os.fspath(self.kitchen.folder / "headers.pch"))
        program = self.folder / "unit_tests"
        compile_with(
            compiler, "-I", self.sources, "-I", tests,
            "-c", tests / "unit" / f"{stage.name}_test.cpp", "-o", self.folder / "tests.o",
        )
        seams = sorted((self.kitchen.folder / stage.kind).glob("*_seam.o"))
        compile_with(compiler, self.folder / "tests.o", *seams, "-o", program, *LIBRARIES)
        return [program, "--gtest_brief=1", "--gtest_fail_fast"]

    def sender_tests(self, stage):
        if not self.sender_is_built:
            compile_with(
                PLAIN, f'-DREPLAY_SENDER_VERSION="{self.kitchen.version}"', "-I", self.sources,
                self.sources / "replay_sender.cpp", "-o", self.folder / "replay_sender", "-lpcap",
            )
            self.sender_is_built = True
        file = self.kitchen.tree / "tests/e2e" / f"{stage.name}_test.py"
        return [sys.executable, "-m", "pytest", "-x", "-q", "-p", "no:cacheprovider", file]

    def execute(self, command, stage, limits):
        environment = dict(
            os.environ,
            REPLAY_SENDER=os.fspath(self.folder / "replay_sender"),
            REPLAY_UDP_SINK=os.fspath(self.kitchen.folder / "udp_sink"),
            PYTHONDONTWRITEBYTECODE="1",
            # The first finding is enough, and its lines are not looked up: for that the
            # checks' runtime would make calls that the tests' seam has replaced.
            TSAN_OPTIONS="halt_on_error=1:symbolize=0",
        )
        if self.is_stopped:
            return Result(FAILED, 0.0)
        log = self.folder / "output"
        start = time.monotonic()
        with open(log, "wb") as output:
            self.process = subprocess.Popen(
                [*map(os.fspath, command)], stdin=subprocess.DEVNULL, stdout=output,
                stderr=subprocess.STDOUT, env=environment, cwd=self.folder,
                start_new_session=True, preexec_fn=lambda: confine(stage, limits),
            )
            try:
                status = self.process.wait(limits.elapsed)
            except subprocess.TimeoutExpired:
                status = None
            finally:
                end_group(self.process)
        seconds = time.monotonic() - start
        text = log.read_bytes().decode(errors="replace")
        if status == 0 or (status == SKIPPED and stage.kind == "e2e"):
            return Result(PASSED, seconds)
        if status is None or status == -signal.SIGXCPU:
            return Result(TIMED_OUT, seconds, first_failure(text))
        return Result(FAILED, seconds, first_failure(text) or f"ended with {status}")


def confine(stage, limits):
    """In the child: what a test program may use up at most. What a shell makes its background
    jobs ignore is not passed on: there are tests of what the sender ignores."""
    for number in signal.SIGINT, signal.SIGQUIT, signal.SIGHUP:
        signal.signal(number, signal.SIG_DFL)
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (MOST_BYTES_IN_A_FILE,) * 2)
    if stage.kind not in ("tsan", "asan"):  # which map more than any machine has
        resource.setrlimit(resource.RLIMIT_AS, (MOST_MEMORY,) * 2)
    if limits.processor is not None:
        seconds = int(limits.processor)
        resource.setrlimit(resource.RLIMIT_CPU, (seconds, seconds + 5))


def end_group(process):
    """Ends what this test program has left running: first so that it can tidy up."""
    for number, patience in (signal.SIGINT, 20), (signal.SIGKILL, 20):
        if process.poll() is None:
            os.killpg(process.pid, number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(patience)
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)


def first_failure(text):
    """The first failed test's name, in either test framework's words."""
    for pattern in (
        r"^\[  FAILED  \] ([\w./]+)",
        r"^FAILED \S+::(\w+)",
        r"^ERROR \S+::(\w+)",
        r"WARNING: (ThreadSanitizer: [\w -]+)",
    ):
        match = re.search(pattern, text, re.MULTILINE)
        if match:
            return match[1]
    return ""
