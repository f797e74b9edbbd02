"""The files of this tree: those that git keeps and new ones, but nothing that was built."""

import functools
import os
import pathlib
import shutil
import subprocess

from conftest import ROOT

CACHES = {"__pycache__", ".cache", ".pytest_cache"}


def listed():
    """What git tells, or None where this is no repository, or not one that git opens for
    this user: then the folders are walked."""
    if shutil.which("git") is None or not (ROOT / ".git").exists():
        return None
    words = ["ls-files", "-z", "--cached", "--others", "--exclude-standard"]
    done = subprocess.run(["git", "-C", ROOT, *words], capture_output=True, text=True)
    return done.stdout.split("\0")[:-1] if done.returncode == 0 else None


def walked():
    found = []
    for folder, names, files in os.walk(ROOT):
        top = {".git", "build"} if folder == str(ROOT) else set()
        names[:] = sorted(set(names) - CACHES - top)
        found += [os.path.relpath(os.path.join(folder, file), ROOT) for file in files]
    return found


@functools.cache
def is_build_folder(folder):
    """Of CMake's, whatever it is called."""
    return folder != pathlib.PurePath(".") and (ROOT / folder / "CMakeCache.txt").exists()


@functools.cache
def files():
    """Their paths from the root, in order. What git still knows may be gone."""
    names = listed()
    return sorted(
        name
        for name in (walked() if names is None else names)
        if (ROOT / name).is_file()
        and not any(is_build_folder(each) for each in pathlib.PurePath(name).parents)
    )
