"""The check of the package in a clean root, and that it finds what it is there for."""

import os
import subprocess

import pytest

from conftest import ROOT, run

CHECK = ROOT / "packaging" / "install_check"
DEADLINE = 1500.0  # seconds; it may load a whole base system


def check(package, folder):
    """The finished run, which has left nothing in the folder for temporary files."""
    scratch = folder / "scratch"
    scratch.mkdir()
    done = subprocess.run(
        [CHECK, package], capture_output=True, text=True, timeout=DEADLINE,
        env={**os.environ, "TMPDIR": str(scratch)},
    )
    assert list(scratch.iterdir()) == []
    if done.returncode == 77:
        pytest.skip(done.stderr.strip())
    return done


@pytest.fixture
def changed(deb, tmp_path):
    """changed(change) is a package with a change made to what it unpacks to."""

    def pack(change):
        folder = tmp_path / "changed"
        run("dpkg-deb", "-R", deb, folder)
        change(folder)
        package = tmp_path / deb.name
        run("dpkg-deb", "--root-owner-group", "-b", folder, package)
        return package

    return pack


def test_the_package_works_in_a_clean_root_and_leaves_nothing(deb, tmp_path):
    done = check(deb, tmp_path)
    assert done.returncode == 0, done.stdout + done.stderr
    assert done.stdout.endswith("install_check: installed, used, removed\n")


def test_what_a_package_leaves_behind_is_found(changed, tmp_path):
    def leave_a_file(folder):
        script = folder / "DEBIAN" / "postinst"
        script.write_text("#!/bin/sh\ntouch /etc/left-behind\n")
        script.chmod(0o755)

    done = check(changed(leave_a_file), tmp_path)
    assert done.returncode == 1, done.stdout + done.stderr
    assert "./etc/left-behind" in done.stderr


def test_a_dependency_that_is_not_told_is_found(changed, tmp_path):
    def forget_dependencies(folder):
        control = folder / "DEBIAN" / "control"
        lines = control.read_text().splitlines(keepends=True)
        control.write_text("".join(x for x in lines if not x.startswith("Depends:")))

    done = check(changed(forget_dependencies), tmp_path)
    assert done.returncode == 1, done.stdout + done.stderr
    assert "error while loading shared libraries" in done.stderr
