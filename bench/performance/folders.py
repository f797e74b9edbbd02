"""The folders that samples lie in, and how the document writes them."""
import pathlib

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Fault(Exception):
    """The samples or the command are not as they should be; the text says how."""


def require(*folders):
    """None in place of a folder is one that was not asked for."""
    for folder in folders:
        if folder and not folder.is_dir():
            raise Fault(f"{folder} is no folder")


def in_tree(path):
    """A path as it is written in the document."""
    path = path.resolve()
    return path.relative_to(ROOT) if path.is_relative_to(ROOT) else path
