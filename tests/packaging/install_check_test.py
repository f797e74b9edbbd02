"""The check of the package in a clean root, and that it finds what it is there for."""

import os
import socket
import subprocess
import threading

import pytest

from conftest import ROOT, run

CHECK = ROOT / "packaging" / "install_check"
DEADLINE = 1500.0  # seconds; it may load a whole base system


def check(package, folder, **environment):
    """The finished run, which has left nothing: no root, and no temporary file."""
    scratch = folder / "scratch"
    scratch.mkdir()
    roots = set(ROOT.glob("build/clean_root/root.*"))
    done = subprocess.run(
        [CHECK, package], capture_output=True, text=True, timeout=DEADLINE,
        env={**os.environ, "TMPDIR": str(scratch), **environment},
    )
    assert list(scratch.iterdir()) == []
    assert set(ROOT.glob("build/clean_root/root.*")) <= roots
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


def test_completions_that_no_shell_finds_are_missed(changed, tmp_path):
    def misplace_completions(folder):
        share = folder / "usr" / "share"
        for name in ("bash-completion/completions", "fish/vendor_completions.d",
                     "zsh/vendor-completions"):
            (share / name).rename(share / name.replace("completions", "elsewhere"))

    done = check(changed(misplace_completions), tmp_path)
    assert done.returncode == 1, done.stdout + done.stderr
    assert "replay_sender are not completed in: bash zsh fish\n" in done.stderr


def test_the_root_loads_through_the_proxy_that_apt_is_told_of(deb, tmp_path):
    """One that refuses: the package's dependencies cannot be loaded."""
    asked = []
    with socket.create_server(("127.0.0.1", 0)) as proxy:
        def refuse():
            while True:
                client, _ = proxy.accept()
                with client:
                    asked.append(client.recv(4096))
                    client.sendall(b"HTTP/1.1 403 Forbidden\r\nContent-Length: 0\r\n\r\n")
                if asked[-1] == b"end":
                    return

        thread = threading.Thread(target=refuse)
        thread.start()
        port = proxy.getsockname()[1]
        settings = tmp_path / "apt.conf"
        settings.write_text(f'Acquire::http::Proxy "http://127.0.0.1:{port}";\n')
        try:
            done = check(deb, tmp_path, APT_CONFIG=str(settings), no_proxy="")
        finally:
            with socket.create_connection(("127.0.0.1", port)) as last:
                last.sendall(b"end")
            thread.join()
    assert done.returncode not in (0, 77), done.stdout + done.stderr
    assert any(request.startswith(b"GET http") for request in asked)


def test_a_machine_whose_archives_a_root_cannot_use_is_told_so(deb, tmp_path):
    """apt without any list, and without a place to load one from."""
    folder = tmp_path / "apt"
    for name in ("lists/partial", "sources"):
        (folder / name).mkdir(parents=True)
    settings = tmp_path / "apt.conf"
    settings.write_text(
        f'Dir::State::Lists "{folder}/lists";\n'
        f'Dir::Etc::SourceList "/dev/null";\nDir::Etc::SourceParts "{folder}/sources";\n'
    )
    done = subprocess.run(
        [CHECK, deb], capture_output=True, text=True, timeout=DEADLINE,
        env={**os.environ, "APT_CONFIG": str(settings)},
    )
    assert done.returncode == 77, done.stdout + done.stderr
    assert "apt knows no archive of " in done.stderr
