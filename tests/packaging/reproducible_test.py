"""The same commit gives the same bytes: the tarball, the programs that are built from it
alone, at another place than the tested ones, and the packages.
"""

import os
import shutil
import subprocess
import tarfile

import pytest

from conftest import (
    BUILD, PROGRAMS, ROOT, VERSION,
    day_of, epoch, make_package, need, run, setting,
)

NAME = f"replay-sender-{VERSION}"
SETTINGS = ("CMAKE_BUILD_TYPE", "CMAKE_CXX_COMPILER", "CMAKE_CXX_FLAGS", "REPLAY_UNITY")


def tree_files():
    """What a commit of the tree as it is would hold."""
    words = ["git", "-C", ROOT, "ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    done = subprocess.run(words, capture_output=True, text=True)
    if done.returncode != 0:
        pytest.skip(f"no clone here: {done.stderr.strip()}")
    return [name for name in done.stdout.split("\0") if name and (ROOT / name).exists()]


def committed_copy(folder):
    """A clone of the tree that holds all of it in one commit, at the tested build's time."""
    for name in tree_files():
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(ROOT / name, folder / name)
    date = f"{epoch()} +0000"
    environment = {
        "GIT_AUTHOR_NAME": "Somebody", "GIT_AUTHOR_EMAIL": "",
        "GIT_COMMITTER_NAME": "Somebody", "GIT_COMMITTER_EMAIL": "",
        "GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date,
        "GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1",
    }
    for words in (
        ["init", "-q", "-b", "main"],
        ["add", "--all", "--force"],
        ["commit", "-q", "-m", "All of it"],
    ):
        run("git", *words, cwd=folder, env={**os.environ, **environment})


def make_tarball(folder, mask):
    need("git", "gzip")
    tree = folder / "tree"
    committed_copy(tree)
    said = run(tree / "packaging" / "source_tarball", folder, umask=mask)
    assert said == f"{folder / NAME}.tar.gz\n"
    return folder / f"{NAME}.tar.gz"


@pytest.fixture(scope="module")
def tarball(tmp_path_factory):
    return make_tarball(tmp_path_factory.mktemp("tarball"), 0o022)


@pytest.fixture(scope="module")
def rebuilt(tarball, tmp_path_factory):
    """The folder of a build from the tarball alone. Its name and its place differ from those
    of the tested build, and the environment tells no time."""
    folder = tmp_path_factory.mktemp("a longer name of a folder")
    with tarfile.open(tarball) as packed:
        packed.extractall(folder)
    os.utime(folder / NAME / "README.md", (0, 0))  # older than the commit, as where that was made
    build = folder / "out"
    options = [word for name in SETTINGS for word in ("-D", f"{name}={setting(name)}")]
    environment = {**os.environ}
    environment.pop("SOURCE_DATE_EPOCH", None)
    run(
        "cmake", "-S", folder / NAME, "-B", build, "-G", setting("CMAKE_GENERATOR"),
        *options, env=environment,
    )
    run("cmake", "--build", build, "--parallel", "1", env=environment)
    return build


def same_bytes(one, other):
    """Whether two files are equal; pytest would show both, byte by byte."""
    return one.read_bytes() == other.read_bytes()


def test_two_clones_of_a_commit_give_the_same_tarball(tarball, tmp_path):
    assert same_bytes(tarball, make_tarball(tmp_path, 0o077))


def test_the_tarball_holds_the_commit_and_nothing_of_this_machine(tarball):
    with tarfile.open(tarball) as packed:
        members = packed.getmembers()
    files = {member.name for member in members if not member.isdir()}
    assert files == {f"{NAME}/{name}" for name in tree_files()}
    for member in members:
        assert (member.uname, member.gname, member.uid, member.gid) == ("root", "root", 0, 0)
        assert member.mtime == epoch()
        assert member.mode in (0o755, 0o644), member.name


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_is_the_same_wherever_it_is_built(rebuilt, program):
    assert same_bytes(BUILD / program, rebuilt / program)


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_names_no_folder_of_this_machine(program):
    data = (BUILD / program).read_bytes()
    for folder in (ROOT, BUILD):
        for end in (b"/", b"\0"):
            assert os.fsencode(folder) + end not in data


def test_the_manuals_of_both_builds_are_the_same(rebuilt):
    need("scdoc")
    pages = sorted(path.relative_to(BUILD) for path in BUILD.glob("man/**/*.gz"))
    assert len(pages) == 2 * len(PROGRAMS)
    for page in pages:
        assert same_bytes(BUILD / page, rebuilt / page), f"{page}, of {day_of(epoch())}"


@pytest.mark.parametrize("kind", ["deb", "rpm"])
def test_the_packages_of_both_builds_are_the_same(rebuilt, tmp_path, request, kind):
    package = request.getfixturevalue(kind)
    other = make_package(kind, tmp_path, rebuilt)
    assert other.name == package.name
    assert same_bytes(other, package)
