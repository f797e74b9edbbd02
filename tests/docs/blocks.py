"""What the documents give to type: the commands of their console blocks, the scripts of
their bash blocks, and the commands in their tables.
"""

import re
import textwrap

from conftest import ROOT

FENCE = re.compile(r"^( *)```(\w*)\n(.*?)^\1```$", re.M | re.S)
ROW = re.compile(r"^\|[^|\n]*\| `(.*)` \|$", re.M)
REMARK = re.compile(r" {2,}# .*$", re.M)
PROMPT = re.compile(r"^[$#] ", re.M)
# Nothing in these is to be typed.
SHOWN = {"text", "cpp"}


def fenced(name):
    """(language, lines) of each block of a document."""
    text = (ROOT / name).read_text()
    return [(block[2], textwrap.dedent(block[3])) for block in FENCE.finditer(text)]


def console(content):
    """The commands of a console block, without prompts and remarks. Lines that have no
    prompt belong to the command before them."""
    assert PROMPT.match(content), content
    return [REMARK.sub("", part).strip("\n") for part in PROMPT.split(content)[1:]]


def typed(name):
    """All that a document gives to type in its blocks, in its order."""
    found = []
    for language, content in fenced(name):
        if language == "console":
            found += console(content)
        elif language == "bash":
            found.append(content)
        else:
            assert language in SHOWN, f"{name}: what is to be done with {language!r}?"
    return found


def tabled(name):
    """The commands in the last column of a document's tables."""
    return ROW.findall((ROOT / name).read_text())


def recipe_book():
    """(RECIPES, recipe): the first has, by the words that are typed or begin it, the function
    that tries them; the second, as a decorator with these words, puts a function in."""
    recipes = {}

    def recipe(words):
        def keep(function):
            assert words not in recipes
            recipes[words] = function
            return function

        return keep

    return recipes, recipe
