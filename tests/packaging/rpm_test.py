"""The RPM package: its fields, files and dependencies, as rpm's own tools see them."""

import os
import re

import pytest

from conftest import PROGRAMS, VERSION, installed_files, need, needed_libraries, run

OWN_FOLDERS = {
    "",
    "/bench",
    "/bench/results",
    "/bench/results/soak",
    "/bench/results/two-processors",
    "/docs",
}


def query(rpm, form):
    return run("rpm", "-qp", "--queryformat", form, rpm)


def files(rpm):
    """(mode, owner, group, name) of each file and folder."""
    form = "[%{FILEMODES:perms} %{FILEUSERNAME} %{FILEGROUPNAME} %{FILENAMES}\n]"
    return [line.split(maxsplit=3) for line in query(rpm, form).splitlines()]


@pytest.mark.parametrize(
    "name, value",
    [
        ("NAME", "replay-sender"),
        ("VERSION", VERSION),
        ("RELEASE", "1"),
        ("SUMMARY", "replay recorded market data over TCP or UDP"),
        ("LICENSE", "All rights reserved"),
        ("BUILDHOST", "localhost"),
    ],
)
def test_a_field_is(rpm, name, value):
    assert query(rpm, f"%{{{name}}}") == value


def test_the_package_is_whole(rpm):
    assert "digests OK" in run("rpm", "-K", "--nosignature", rpm)


def test_the_package_holds_what_is_installed(rpm):
    names = {name for mode, *_, name in files(rpm) if not mode.startswith("d")}
    assert names == {f"/usr/{name}" for name in installed_files()}


def test_of_the_folders_it_owns_only_its_own(rpm):
    folders = {name for mode, *_, name in files(rpm) if mode.startswith("d")}
    assert folders == {f"/usr/share/doc/replay-sender{name}" for name in OWN_FOLDERS}


def test_roots_files_are_for_all_to_read(rpm):
    for mode, owner, group, name in files(rpm):
        runs = mode.startswith("d") or name.startswith("/usr/bin/")
        assert mode[1:] == ("rwxr-xr-x" if runs else "rw-r--r--"), name
        assert (owner, group) == ("root", "root"), name


def test_it_requires_the_libraries_of_its_programs(rpm, tmp_path):
    need("readelf")
    unpacked = install(rpm, tmp_path)
    libraries = set()
    for program in PROGRAMS:
        libraries |= needed_libraries(unpacked / "usr" / "bin" / program)
    required = run("rpm", "-qp", "--requires", rpm)
    named = set(re.findall(r"^(\S+\.so[.\d]*)\(", required, re.M))
    assert libraries <= named


def test_nothing_runs_when_the_package_is_installed(rpm):
    assert run("rpm", "-qp", "--scripts", "--triggers", rpm) == ""


def install(rpm, root):
    """rpm unpacks it into an empty root, with the libraries left to this machine."""
    if os.geteuid() != 0:
        pytest.skip("rpm installs as root only")
    run("rpm", "--root", root, "--install", "--nodeps", rpm)
    return root


def test_what_rpm_has_installed_it_finds_as_it_was(rpm, tmp_path):
    root = install(rpm, tmp_path)
    assert run("rpm", "--root", root, "--verify", "--nodeps", "replay-sender") == ""
    for program in PROGRAMS:
        sections = run("readelf", "-SW", root / "usr" / "bin" / program)
        assert ".symtab" not in sections
        assert "--filepath" in run(root / "usr" / "bin" / program, "--help")
