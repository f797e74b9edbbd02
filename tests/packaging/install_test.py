"""What `cmake --install` puts where, and that it works from there."""

import filecmp
import gzip
import os
import re
import stat
import subprocess

import pytest

from conftest import (
    BUILD, DOCUMENTS, PROGRAMS, ROOT, VERSION,
    day_of, epoch, files_below, installed_files, need, run,
)

PAGES = [
    f"share/man/{language}man1/{program}.1.gz"
    for language in ("", "zh_CN/")
    for program in PROGRAMS
]
every_program = pytest.mark.parametrize("program", PROGRAMS)
every_page = pytest.mark.parametrize("page", PAGES)


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    need("cmake", "scdoc")
    folder = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", BUILD, "--prefix", folder)
    return folder


def test_these_files_and_no_others_are_installed(prefix):
    assert files_below(prefix) == installed_files()


def test_all_may_read_what_is_installed_and_run_the_programs(prefix):
    for name in files_below(prefix):
        mode = stat.S_IMODE((prefix / name).stat().st_mode)
        assert mode == (0o755 if name.startswith("bin/") else 0o644), name


@every_program
def test_an_installed_program_tells_its_options_and_version(prefix, program):
    words = {"replay_sender": ["--help"], "replay_receiver": ["--version"]}[program]
    assert VERSION in run(prefix / "bin" / program, *words)
    assert "--filepath" in run(prefix / "bin" / program, "--help")


@every_program
def test_an_installed_program_looks_for_libraries_where_the_system_does(prefix, program):
    need("readelf")
    assert "PATH" not in run("readelf", "-dW", prefix / "bin" / program)


@every_page
def test_a_manual_is_that_of_its_source_and_dated_by_the_commit(prefix, page):
    folder, name = page.removeprefix("share/man/").removesuffix(".gz").split("man1/")
    words = ["zh"] if folder else []
    source = ROOT / "docs" / "man" / folder / f"{name}.scd"
    with open(source) as text:
        environment = {**os.environ, "SOURCE_DATE_EPOCH": str(epoch())}
        expected = run(ROOT / "docs/man/render", *words, stdin=text, env=environment)
    assert gzip.decompress((prefix / page).read_bytes()).decode() == expected
    assert f'"{day_of(epoch())}"' in expected


@every_page
def test_a_compressed_manual_holds_neither_time_nor_name(prefix, page):
    flags_and_time = (prefix / page).read_bytes()[3:8]
    assert flags_and_time == bytes(5)


@every_page
def test_man_shows_an_installed_manual(prefix, page):
    need("man")
    environment = {**os.environ, "LC_ALL": "C.UTF-8", "MANPAGER": "cat"}
    shown = run("man", "--warnings", "-l", prefix / page, env=environment)
    assert ("名称" if "zh_CN" in page else "NAME") in shown
    assert "--filepath" in shown


@every_program
def test_completions_are_installed_as_they_are(prefix, program):
    ours = ROOT / "packaging" / "completions"
    for installed, source in {
        f"bash-completion/completions/{program}": f"{program}.bash",
        f"fish/vendor_completions.d/{program}.fish": f"{program}.fish",
        f"zsh/site-functions/_{program}": f"_{program}",
    }.items():
        assert filecmp.cmp(prefix / "share" / installed, ours / source, shallow=False)


def test_what_installed_documents_link_to_is_installed(prefix):
    """Whatever it is; only a link with a scheme leads elsewhere."""
    links = 0
    for path in (prefix / DOCUMENTS).rglob("*.md"):
        text = re.sub(r"^```.*?^```$|`[^`\n]+`", "", path.read_text(), flags=re.M | re.S)
        for link in re.findall(r"\]\((?!\w+:|#)([^()\s#]+)", text):
            links += 1
            assert (path.parent / link).exists(), f"{path.name}: {link}"
    assert links > 0


def test_without_scdoc_and_receiver_the_rest_is_built_and_installed(tmp_path):
    """Unoptimised, which is built sooner."""
    build, prefix = tmp_path / "build", tmp_path / "prefix"
    said = run(
        "cmake", "-S", ROOT, "-B", build, "-D", "REPLAY_SCDOC=OFF",
        "-D", "REPLAY_RECEIVER=OFF", "-D", "CMAKE_BUILD_TYPE=Debug",
    )
    assert "The manual pages are left out; to make them takes scdoc\n" in said
    run("cmake", "--build", build)
    run("cmake", "--install", build, "--prefix", prefix)
    assert files_below(prefix) == installed_files(["replay_sender"], manuals=False)


def test_the_environments_time_goes_before_the_commits(tmp_path):
    environment = {**os.environ, "SOURCE_DATE_EPOCH": "1000000000"}
    need("scdoc", "dpkg-parsechangelog")
    run("cmake", "-S", ROOT, "-B", tmp_path, "-D", "REPLAY_RECEIVER=OFF", env=environment)
    run("cmake", "--build", tmp_path, "--target", "manuals")
    page = gzip.decompress((tmp_path / "man/man1/replay_sender.1.gz").read_bytes())
    assert b'"2001-09-09"' in page
    changelog = tmp_path / "debian" / "changelog"
    assert run("dpkg-parsechangelog", "-l", changelog, "-S", "Timestamp") == "1000000000\n"


def test_a_folder_named_for_documents_is_taken(tmp_path):
    run("cmake", "-S", ROOT, "-B", tmp_path, "-D", "CMAKE_INSTALL_DOCDIR=share/papers",
        "-D", "REPLAY_RECEIVER=OFF")
    script = (tmp_path / "cmake_install.cmake").read_text()
    assert "/share/papers/docs" in script
    assert "share/doc/replay-sender" not in script


def test_what_stands_in_the_manual_paths_is_found_by_name(prefix):
    """man looks below the prefix of the folders in PATH."""
    need("man")
    environment = {**os.environ, "MANPATH": str(prefix / "share" / "man")}
    for words in ([], ["-L", "zh_CN"]):
        done = subprocess.run(
            ["man", *words, "-w", "1", "replay_sender"],
            capture_output=True, text=True, env=environment,
        )
        folder = "zh_CN/man1" if words else "man1"
        assert done.stdout == f"{prefix}/share/man/{folder}/replay_sender.1.gz\n"
