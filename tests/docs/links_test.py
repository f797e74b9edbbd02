"""Each link of each document leads somewhere: to a file of this tree, of a kind that is
installed with the documents, and to a heading that is there. Each document can be reached
from the readme file.
"""

import functools
import os
import pathlib
import re
import urllib.parse

import pytest

from conftest import ROOT
from tree import files

INSTALLED = (".md", ".png", ".svg")
FENCED = re.compile(r"^( *)(```|~~~).*?^\1\2 *$", re.M | re.S)
CODE = re.compile(r"(`+)(?!`).+?(?<!`)\1(?!`)", re.S)
COMMENT = re.compile(r"<!--.*?-->", re.S)
LINK = re.compile(r"\]\(\s*<?([^()\s<>]*(?:\([^()\s]*\)[^()\s<>]*)*)>?(?:\s+\"[^\"]*\")?\s*\)")
REFERENCE = re.compile(r"^ {0,3}\[[^\]]+\]: *(\S+)", re.M)
HEADING = re.compile(r"^ {0,3}(#{1,6}) +(.*?) *#* *$", re.M)
# Sources of what is made: they stay at home, so a link to one would be dead where the
# documents are installed.
NAMED = re.compile(r"`(docs/[\w./-]+)`")

DOCUMENTS = [name for name in files() if name.endswith(".md")]
every_document = pytest.mark.parametrize("document", DOCUMENTS)


def text_of(document):
    """Without blocks and comments."""
    return COMMENT.sub("", FENCED.sub("", (ROOT / document).read_text()))


@functools.cache
def links(document):
    text = CODE.sub("", text_of(document))
    return LINK.findall(text) + REFERENCE.findall(text)


def slug(heading):
    """The anchor of a heading: letters and digits of any language, hyphens for blanks."""
    shown = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    kept = re.sub(r"[^\w\- ]", "", shown.strip().lower().replace("`", ""))
    return kept.replace(" ", "-")


@functools.cache
def anchors(document):
    """A heading that has come before gets a number."""
    found = set()
    for heading in HEADING.finditer(text_of(document)):
        name = first = slug(heading[2])
        number = 0
        while name in found:
            number += 1
            name = f"{first}-{number}"
        found.add(name)
    return found


def target(document, link):
    """(path from the root, anchor)."""
    path, _, anchor = urllib.parse.unquote(link).partition("#")
    if not path:
        return document, anchor
    return os.path.normpath(os.path.join(os.path.dirname(document), path)), anchor


def fault_of(document, link):
    """What is wrong with a link, or nothing."""
    if re.match(r"\w+:|//", link):
        return "leads out of this tree"
    if link.startswith("/"):
        return "starts at a root that only some hosts know"
    path, anchor = target(document, link)
    if path.startswith("..") or not (ROOT / path).exists():
        return "leads to no file"
    if not path.endswith(INSTALLED):
        return "leads to what is not installed"
    if anchor and path not in DOCUMENTS:
        return "has an anchor in what is no document"
    if anchor and anchor not in anchors(path):
        return f"leads to no heading of {path}, which has {sorted(anchors(path))}"
    return None


def test_there_are_documents_and_links():
    assert {"README.md", "README.zh-CN.md", "docs/guide.md"} <= set(DOCUMENTS)
    assert all(links(document) for document in ("README.md", "docs/guide.md"))


@every_document
def test_each_link_leads_to_a_file_and_a_heading(document):
    faults = {link: fault_of(document, link) for link in links(document)}
    assert {link: fault for link, fault in faults.items() if fault} == {}


@pytest.mark.parametrize(
    "heading, anchor",
    [
        ("A run", "a-run"),
        ("Rights for `--device`", "rights-for---device"),
        ("What is *not* promised?", "what-is-not-promised"),
        ("common_test.cpp, and more", "common_testcpp-and-more"),
        ("常用命令", "常用命令"),
        ("通过 TCP 接收（默认）", "通过-tcp-接收默认"),
        ("[The guide](guide.md) & more", "the-guide--more"),
    ],
)
def test_the_anchor_of_a_heading(heading, anchor):
    assert slug(heading) == anchor


# ------------------------------------------------------------------ is it found


def reachable(start):
    seen, waiting = set(), [start]
    while waiting:
        document = waiting.pop()
        if document in seen:
            continue
        seen.add(document)
        if document in DOCUMENTS:
            waiting += [target(document, link)[0] for link in links(document)]
    return seen


@pytest.mark.parametrize("readme", ["README.md", "README.zh-CN.md"])
def test_each_document_can_be_reached_from_the_readme(readme):
    mine = {d for d in DOCUMENTS if os.path.dirname(d) in ("", "docs")}
    assert mine - reachable(readme) == set()


def test_each_file_of_docs_is_linked_or_named_itself_or_by_its_folder():
    known = reachable("README.md")
    for document in known & set(DOCUMENTS):
        known = known | set(NAMED.findall(text_of(document)))
    mine = [name for name in files() if name.startswith("docs/")]
    assert mine
    for name in mine:
        ways = {name, *map(str, pathlib.PurePath(name).parents)} - {"docs", "."}
        assert known & ways, f"nothing leads to {name}"
