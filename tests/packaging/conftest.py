"""The harness of the packages' tests: the build that is installed and packaged, what is
expected of it, and skips that are told as the end-to-end tests tell them.

REPLAY_BUILD names the folder of an optimised build of both programs.
"""

import datetime
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tests" / "e2e"))
from harness import load_harness  # noqa: E402: it is there

BUILD = pathlib.Path(os.environ.get("REPLAY_BUILD", ROOT / "build" / "release"))
PROGRAMS = ("replay_sender", "replay_receiver")
VERSION = re.search(r"^  VERSION (.*)$", (ROOT / "CMakeLists.txt").read_text(), re.M)[1]
DOCUMENTS = "share/doc/replay-sender"
ROOT_DOCUMENTS = (
    "README.md", "README.zh-CN.md", "CHANGELOG.md", "CONTRIBUTING.md", "SECURITY.md",
)
NAME = f"replay-sender-{VERSION}"  # of the tarball and of the folder in it
BUILD_COMMAND = "cmake -B build && cmake --build build"


def need(*programs):
    for program in programs:
        if shutil.which(program) is None:
            pytest.skip(f"no {program} here")


def run(*words, **options):
    """Its standard output; with a failure, both streams."""
    words = [os.fspath(word) for word in words]
    done = subprocess.run(words, capture_output=True, text=True, **options)
    assert done.returncode == 0, f"{words}\n{done.stdout}{done.stderr}"
    return done.stdout


def installed_files(programs=PROGRAMS, manuals=True):
    """What `cmake --install` installs, below its prefix."""
    files = {f"{DOCUMENTS}/{name}" for name in ROOT_DOCUMENTS}
    files |= {f"{DOCUMENTS}/docs/{path.name}" for path in ROOT.glob("docs/*.md")}
    for pattern in (
        "docs/*.png", "bench/results/two-processors/*.svg", "bench/results/soak/*.svg",
    ):
        files |= {f"{DOCUMENTS}/{path.relative_to(ROOT)}" for path in ROOT.glob(pattern)}
    for program in programs:
        files |= {
            f"bin/{program}",
            f"share/bash-completion/completions/{program}",
            f"share/fish/vendor_completions.d/{program}.fish",
            f"share/zsh/site-functions/_{program}",
        }
        if manuals:
            files |= {
                f"share/man/man1/{program}.1.gz",
                f"share/man/zh_CN/man1/{program}.1.gz",
            }
    return files


def files_below(folder):
    paths = folder.rglob("*")
    return {str(path.relative_to(folder)) for path in paths if not path.is_dir()}


def setting(name, file="CMakeCache.txt", build=BUILD):
    """A setting of a build, out of its cache or of what it leaves for cpack."""
    pattern = rf'^(?:set\()?{name}(?::\w+=| ")(.*?)(?:"\))?$'
    return re.search(pattern, (build / file).read_text(), re.M)[1]


def epoch():
    """The time, in seconds, that the build writes into files."""
    return int(setting("CPACK_REPLAY_EPOCH", "CPackConfig.cmake"))


def day_of(seconds):
    return datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc).date()


def needed_libraries(program):
    """The file names of the libraries that the linker wrote into the program."""
    return set(re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-dW", program)))


def make_package(kind, folder, build=BUILD):
    """The path of a new package: deb or rpm. Its folders do not take the umask."""
    run("cpack", "-G", kind.upper(), "-B", folder, cwd=build, umask=0o077)
    (package,) = folder.glob(f"*.{kind}")
    return package


@pytest.fixture(scope="session")
def deb(tmp_path_factory):
    need("cpack", "dpkg-deb", "dpkg-shlibdeps")
    return make_package("deb", tmp_path_factory.mktemp("deb"))


@pytest.fixture(scope="session")
def rpm(tmp_path_factory):
    need("cpack", "rpm", "rpmbuild")
    return make_package("rpm", tmp_path_factory.mktemp("rpm"))


# ------------------------------------------------------- what is built of the sources alone


def tree_files():
    """What a commit of the tree as it is would hold."""
    words = ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip(f"no clone here: {done.stderr.strip()}")
    return [name for name in done.stdout.split("\0") if name and (ROOT / name).exists()]


def git(folder, seconds, *words):
    """As somebody without settings of their own, at this time."""
    environment = {
        "GIT_AUTHOR_NAME": "Somebody", "GIT_AUTHOR_EMAIL": "",
        "GIT_COMMITTER_NAME": "Somebody", "GIT_COMMITTER_EMAIL": "",
        "GIT_AUTHOR_DATE": f"{seconds} +0000", "GIT_COMMITTER_DATE": f"{seconds} +0000",
        "GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1",
    }
    run("git", *words, cwd=folder, env={**os.environ, **environment})


def committed_copy(folder):
    """A clone of the tree that holds all of it in one commit, at the tested build's time."""
    need("git")
    for name in tree_files():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(ROOT / name, folder / name)
    git(folder, epoch(), "init", "-q", "-b", "main")
    git(folder, epoch(), "add", "--all", "--force")
    git(folder, epoch(), "commit", "-q", "-m", "All of it")


def make_tarball(folder, mask):
    need("gzip")
    tree = folder / "tree"
    committed_copy(tree)
    said = run(tree / "packaging" / "source_tarball", folder, umask=mask)
    assert said == f"{folder / NAME}.tar.gz\n"
    return folder / f"{NAME}.tar.gz"


def type_in(tree, command, **environment):
    """A command as it is typed, by somebody whose environment says nothing of builds."""
    inherited = {**os.environ}
    for name in ("SOURCE_DATE_EPOCH", "CMAKE_GENERATOR"):
        inherited.pop(name, None)
    return run("bash", "-c", command, cwd=tree, env={**inherited, **environment})


@pytest.fixture(scope="session")
def tarball(tmp_path_factory):
    return make_tarball(tmp_path_factory.mktemp("tarball"), 0o022)


@pytest.fixture(scope="session")
def stranger(tarball, tmp_path_factory):
    """What the tarball unpacks to, after the command of README.md that builds. Its name and
    its place differ from those of the tested build, and so do the tools that build."""
    need("cmake", "make", "c++")
    folder = tmp_path_factory.mktemp("a longer name of a folder")
    with tarfile.open(tarball) as packed:
        packed.extractall(folder)
    os.utime(folder / NAME / "README.md", (0, 0))  # older than the commit, as where that was made
    type_in(folder / NAME, BUILD_COMMAND)
    return folder / NAME


@pytest.fixture(scope="session")
def rebuilt(stranger):
    return stranger / "build"


def pytest_configure(config):
    if not (BUILD / "CPackConfig.cmake").exists():
        raise pytest.UsageError(f"no build at {BUILD}; set REPLAY_BUILD")
    config.pluginmanager.register(load_harness().SkipStatus(), "skip-status")
