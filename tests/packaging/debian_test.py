"""The Debian package: its fields, files and dependencies, and what lintian thinks of it."""

import gzip
import os
import re
import subprocess

import pytest

from conftest import (
    BUILD, DOCUMENTS, PROGRAMS, ROOT, VERSION,
    epoch, files_below, installed_files, need, needed_libraries, run,
)


@pytest.fixture(scope="module")
def contents(deb, tmp_path_factory):
    folder = tmp_path_factory.mktemp("contents")
    run("dpkg-deb", "-R", deb, folder)
    return folder


def field(deb, name):
    return run("dpkg-deb", "-f", deb, name).rstrip("\n")


def expected_files():
    """Debian has places of its own for zsh, and two files of its own."""
    files = {
        name.replace("zsh/site-functions", "zsh/vendor-completions")
        for name in installed_files()
    }
    return files | {f"{DOCUMENTS}/changelog.gz", f"{DOCUMENTS}/copyright"}


@pytest.mark.parametrize(
    "name, value",
    [
        ("Package", "replay-sender"),
        ("Version", VERSION),
        ("Section", "net"),
        ("Priority", "optional"),
        ("Maintainer", "The authors of replay sender <replay-sender@example.org>"),
    ],
)
def test_a_field_is(deb, name, value):
    assert field(deb, name) == value


def test_the_package_is_named_for_its_version_and_machine(deb):
    machine = run("dpkg", "--print-architecture").strip()
    assert field(deb, "Architecture") == machine
    assert deb.name == f"replay-sender_{VERSION}_{machine}.deb"


def test_the_description_has_a_short_line_and_whole_sentences(deb):
    lines = field(deb, "Description").split("\n")
    assert lines[0] == "replay recorded market data over TCP or UDP"
    assert len(lines) > 1
    for line in lines[1:]:
        assert re.fullmatch(r" \.| \S.{0,78}", line), line


def test_the_package_holds_what_is_installed_and_debians_own(contents):
    files = {name for name in files_below(contents) if not name.startswith("DEBIAN/")}
    assert files == {f"usr/{name}" for name in expected_files()}


def test_roots_files_are_for_all_to_read(deb):
    for line in run("dpkg-deb", "-c", deb).splitlines():
        mode, owner, *_, name = line.split()
        runs = name.endswith("/") or name.startswith("./usr/bin/")
        assert mode[1:] == ("rwxr-xr-x" if runs else "rw-r--r--"), line
        assert owner == "root/root"


def test_every_file_has_its_checksum(contents):
    sums = contents / "DEBIAN" / "md5sums"
    run("md5sum", "--check", "--strict", sums, cwd=contents)
    names = {line.split(maxsplit=1)[1] for line in sums.read_text().splitlines()}
    assert names == {f"usr/{name}" for name in expected_files()}


def test_nothing_runs_when_the_package_is_installed(contents):
    assert {path.name for path in (contents / "DEBIAN").iterdir()} == {"control", "md5sums"}


def package_of(library):
    """The package that this machine has the library from."""
    table = run("ldconfig", "-p")
    (path,) = set(re.findall(rf"^\s{re.escape(library)} .* => (.*)$", table, re.M)[:1])
    # dpkg knows a file below /lib there, or below /usr/lib, where it really is.
    for name in (path, os.path.realpath(path), f"/usr{path}"):
        done = subprocess.run(["dpkg", "-S", name], capture_output=True, text=True)
        if done.returncode == 0:
            return done.stdout.partition(":")[0]
    raise AssertionError(f"no package has {path}")


def test_it_depends_on_the_packages_of_its_libraries(deb, contents):
    need("readelf", "ldconfig")
    libraries = set()
    for program in PROGRAMS:
        libraries |= needed_libraries(contents / "usr" / "bin" / program)
    depends = [each.strip() for each in field(deb, "Depends").split(",")]
    assert {each.split()[0] for each in depends} == set(map(package_of, libraries))
    assert all(re.search(r"\(>= [\d.]", each) for each in depends), depends


def test_without_a_tool_that_finds_dependencies_there_is_no_package(tmp_path):
    need("cpack")
    done = subprocess.run(
        ["cpack", "-G", "DEB", "-B", tmp_path, "-D", "CPACK_REPLAY_SHLIBDEPS=OFF"], cwd=BUILD,
        capture_output=True, text=True,
    )
    assert done.returncode != 0
    assert "A Debian package takes dpkg-shlibdeps" in done.stderr
    assert list(tmp_path.glob("*.deb")) == []


@pytest.mark.parametrize("program", PROGRAMS)
def test_a_program_is_stripped(contents, program):
    need("readelf")
    sections = run("readelf", "-SW", contents / "usr" / "bin" / program)
    assert ".dynsym" in sections
    assert ".symtab" not in sections
    assert ".debug_info" not in sections


def test_the_changelog_tells_version_and_time_of_the_commit(contents, tmp_path):
    need("dpkg-parsechangelog")
    path = contents / "usr" / DOCUMENTS / "changelog.gz"
    text = tmp_path / "changelog"
    text.write_bytes(gzip.decompress(path.read_bytes()))
    for name, value in (("Version", VERSION), ("Timestamp", str(epoch()))):
        assert run("dpkg-parsechangelog", "-l", text, "-S", name) == f"{value}\n"
    assert path.read_bytes()[3:8] == bytes(5)


def test_the_copyright_is_the_authors(contents):
    installed = contents / "usr" / DOCUMENTS / "copyright"
    assert installed.read_text() == (ROOT / "packaging/debian/copyright").read_text()
    assert "All rights reserved" in installed.read_text()


def test_lintian_finds_no_error_and_no_warning(deb):
    need("lintian")
    done = subprocess.run(
        ["lintian", "--fail-on", "error,warning", deb], capture_output=True, text=True
    )
    assert (done.returncode, done.stdout) == (0, ""), done.stderr
