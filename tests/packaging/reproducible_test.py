"""The same commit gives the same bytes: the tarball, the programs that a stranger builds from
it alone, at another place and with other tools than the tested ones, and the packages.
"""

import gzip
import os
import re
import tarfile

import pytest

from conftest import (
    BUILD, NAME, PROGRAMS, ROOT,
    committed_copy, day_of, epoch, git, make_package, make_tarball, need, run, setting,
    tree_files, type_in,
)

SETTINGS = ("CMAKE_BUILD_TYPE", "CMAKE_CXX_COMPILER", "CMAKE_CXX_FLAGS", "REPLAY_UNITY")


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


@pytest.mark.parametrize("name", SETTINGS)
def test_what_is_tested_is_set_as_a_stranger_finds_it(rebuilt, name):
    assert setting(name) == setting(name, build=rebuilt)


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_is_the_same_wherever_it_is_built(rebuilt, program):
    assert same_bytes(BUILD / program, rebuilt / program)


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_names_no_folder_of_this_machine(program):
    """Names start behind the end of another one; in the middle of one stands what is the
    same on each machine."""
    data = (BUILD / program).read_bytes()
    for folder in (ROOT, BUILD.resolve()):
        assert not re.search(rb"\0" + re.escape(os.fsencode(folder)) + rb"[/\0]", data)


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


def told_days(build):
    """The days that the manuals of the sender tell."""
    pages = sorted(build.glob("man/**/replay_sender.1.gz"))
    assert len(pages) == 2
    texts = [gzip.decompress(page.read_bytes()).decode() for page in pages]
    return [re.search(r'"(\d{4}-\d\d-\d\d)"', text)[1] for text in texts]


def told_time(build):
    """The time that Debian's changelog tells, in seconds."""
    text = build / "changelog"
    text.write_bytes(gzip.decompress((build / "debian" / "changelog.gz").read_bytes()))
    return int(run("dpkg-parsechangelog", "-l", text, "-S", "Timestamp"))


@pytest.mark.parametrize("generator", ["Ninja", "Unix Makefiles"])
def test_a_further_build_tells_the_time_of_the_commit_that_is_new(tmp_path, generator):
    need("scdoc", "dpkg-parsechangelog", "ninja", "make")
    tree, build = tmp_path / "tree", tmp_path / "tree" / "build"
    committed_copy(tree)
    type_in(tree, f"cmake -B build -G '{generator}' -D REPLAY_RECEIVER=OFF")
    targets = "cmake --build build --target manuals debian_changelog"
    type_in(tree, targets)
    assert (told_days(build), told_time(build)) == ([str(day_of(epoch()))] * 2, epoch())
    later = epoch() + 3 * 24 * 60 * 60
    git(tree, later, "commit", "-q", "--allow-empty", "-m", "Nothing new")
    type_in(tree, targets)
    assert (told_days(build), told_time(build)) == ([str(day_of(later))] * 2, later)
    assert int(setting("CPACK_REPLAY_EPOCH", "CPackConfig.cmake", build)) == later
