#!/usr/bin/env python3
"""pyflakes over the named files, which takes fixtures for what they are: pytest finds
them by their names, so importing one and naming a parameter after it is its use.
Everything else that pyflakes finds is printed, and makes the status 1.
"""

import ast
import functools
import pathlib
import sys

from pyflakes import checker, messages


def is_fixture(node):
    """A function with the decorator pytest.fixture, called or not."""
    if not isinstance(node, ast.FunctionDef):
        return False
    decorators = [getattr(each, "func", each) for each in node.decorator_list]
    return any(getattr(each, "attr", None) == "fixture" for each in decorators)


@functools.cache
def fixtures_of(path):
    if not path.exists():
        return frozenset()
    tree = ast.parse(path.read_text(), path)
    return frozenset(node.name for node in tree.body if is_fixture(node))


def imported_fixtures(path, tree):
    """The names of fixtures that the file imports from its neighbours."""
    names = set()
    for node in tree.body:
        if isinstance(node, ast.ImportFrom) and node.module:
            theirs = fixtures_of(path.parent / f"{node.module}.py")
            names |= {each.name for each in node.names} & theirs
    return names


def is_use_of_fixture(message, fixtures):
    if isinstance(message, messages.UnusedImport):
        return message.message_args[0].rpartition(".")[2] in fixtures
    if isinstance(message, messages.RedefinedWhileUnused):
        return message.message_args[0] in fixtures
    return False


def findings(path):
    try:
        tree = ast.parse(path.read_text(), path)
    except SyntaxError as error:
        return [f"{path}:{error.lineno}: {error.msg}"]
    fixtures = imported_fixtures(path, tree)
    found = checker.Checker(tree, str(path)).messages
    return [
        str(each)
        for each in sorted(found, key=lambda each: each.lineno)
        if not is_use_of_fixture(each, fixtures)
    ]


def main():
    found = [line for name in sys.argv[1:] for line in findings(pathlib.Path(name))]
    for line in found:
        print(line)
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
