"""Figures and sentences as the document writes them."""
import math
import re
import textwrap

WIDTH = 118  # of a line of text


# ---------------------------------------------------------------- figures


def figure(value, digits=3):
    """So many significant digits, and the whole part in any case."""
    if value == 0:
        return "0"
    decimals = max(0, digits - 1 - math.floor(math.log10(abs(value))))
    return f"{value:,.{decimals}f}"


def range_text(seen, digits=3):
    return (
        f"{figure(seen.median, digits)}"
        f" ({figure(seen.low, digits)} to {figure(seen.high, digits)})"
    )


def known(value):
    """A figure inside a sentence, which may have to do without it."""
    return "an unknown number of" if value is None else figure(value)


def known_median(seen):
    return known(seen.median if seen else None)


def percent(share):
    return f"{figure(100 * share)} %"


def plural(count, word):
    return f"{count:,} {word}" + ("" if count == 1 else "s")


# ---------------------------------------------------------------- names


def case_name(protocol, size):
    return f"{protocol.upper()} {size:,.0f} bytes"


def case_words(case, unit=""):
    """A case's values; the numbers among them are sizes."""
    return [f"{value:,.0f}{unit}" if isinstance(value, float) else value for value in case]


def name_of(case):
    return case_words(case, " bytes")


def slug(text):
    """A text as a part of a file's name."""
    return re.sub(r"[^a-z0-9]+", "-", text.lower()).strip("-")


# ---------------------------------------------------------------- sentences


def wrap(text, first="", others=""):
    return textwrap.wrap(
        text,
        WIDTH,
        initial_indent=first,
        subsequent_indent=others,
        break_long_words=False,
        break_on_hyphens=False,
    )


def paragraph(*sentences):
    lines = wrap(" ".join(sentence for sentence in sentences if sentence))
    return [*lines, ""] if lines else []


def bullet(text):
    return wrap(text, "- ", "  ")
