"""Mutants of the sender's sources: small mistakes, made one at a time, that a test should
notice. A mutant replaces one span of one file.

Spans are looked for in the code alone: comments, preprocessor lines, static assertions and
the insides of literals are blanked out first, at the same length, so that positions stay.
"""

import csv
import dataclasses
import hashlib
import pathlib
import re

SWAPS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
    "&&": ["||"],
    "||": ["&&"],
    "+": ["-"],
    "-": ["+"],
    "*": ["/"],
    "/": ["*"],
    "%": ["*"],
    "&": ["|"],
    "|": ["&"],
    "<<": [">>"],
    ">>": ["<<"],
    "+=": ["-="],
    "-=": ["+="],
    "|=": ["&="],
    "&=": ["|="],
}
COMPARISONS = ("==", "!=", "<", "<=", ">", ">=")
LOGIC = ("&&", "||")

# What makes no difference to what a program does, only to how fast it does it, and the
# flush of a stream that has no buffer.
WITHOUT_EFFECT = re.compile(r"__builtin_prefetch|CACHE_LINE|fflush\(stderr\)")
# Their condition is part of what they print.
PRINTED_CONDITION = re.compile(r"\breplay_assert\(")
OUTPUT = re.compile(r"std::cout|std::cerr|printf\(|vesk_throw_ex\(|vesk_ex\(|LINES\[\]")
CONTROL = re.compile(r"(if|while|for|switch)\s*\(|else\b|do\b|case\b[^:]*:(?!:)|default\s*:")
STATEMENT = re.compile(
    r"(\(void\)\s*)?(new\s*\(|(\+\+|--|\*)?[A-Za-z_:][\w:.]*(->[\w.]+|\[[^\]]*\]|<[\w:, ]+>)*\s*"
    r"(\(|=(?!=)|\+=|-=|\|=|&=|\+\+|--|<<))"
)
DECLARATION = re.compile(
    r"(using|typedef|template|return|throw|goto|static_assert|delete\s+this|co_\w+)\b"
    r"|.*=\s*(default|delete|0)$",
    re.DOTALL,
)


@dataclasses.dataclass(frozen=True)
class Mutant:
    """One mistake: `after` in place of the characters from `start` to `end`."""

    file: str
    line: int
    start: int
    end: int
    operator: str
    after: str
    id: str

    def apply(self, text):
        return text[: self.start] + self.after + text[self.end :]

    def previous_line(self, text):
        above = text[: text.rfind("\n", 0, self.start) + 1].rstrip()
        return " ".join(above.rpartition("\n")[2].split())

    def lines(self, text):
        """The lines concerned, in one, without and with the mistake."""
        first = text.rfind("\n", 0, self.start) + 1
        last = text.find("\n", self.end)
        before = text[first:last]
        after = text[first : self.start] + self.after + text[self.end : last]
        return " ".join(before.split()), " ".join(after.split())


def blank(text):
    """The text with everything that is no code blanked out; quotation marks stay."""

    def erase(match):
        token = match.group()
        if token[0] in "\"'":
            return token[0] + "_" * (len(token) - 2) + token[-1]
        return re.sub(r"[^\n]", " ", token)

    text = re.sub(
        r"//[^\n]*|/\*.*?\*/|^\s*#(?:[^\n\\]|\\.|\\\n)*"
        r"|\"(?:[^\"\\\n]|\\.)*\"|(?<![0-9A-Fa-f])'(?:[^'\\\n]|\\.)+'",
        erase,
        text,
        flags=re.DOTALL | re.MULTILINE,
    )
    return re.sub(r"\bstatic_assert\([^;]*;", erase, text)


def closing(code, at):
    """The position of the bracket that closes the one at `at`."""
    depth = 0
    for position in range(at, len(code)):
        depth += (code[position] in "([{") - (code[position] in ")]}")
        if depth == 0:
            return position
    raise ValueError("unbalanced brackets")


def function_end(code, at):
    """Where the function ends that this position is in: no class and no namespace."""
    end = len(code)
    depth = 0
    for position in range(at, 0, -1):
        depth += (code[position] == "}") - (code[position] == "{")
        if depth < 0:
            head = code[max(code.rfind(mark, 0, position) for mark in ";{}") + 1 : position]
            if re.search(r"\b(class|struct|namespace|enum)\b", head):
                break
            end = closing(code, position)
            depth = 0
    return end


def statements(code):
    """The start and end of each thing that a semicolon ends, outside round brackets."""
    start = depth = 0
    for position, char in enumerate(code):
        depth += (char == "(") - (char == ")")
        if depth == 0 and char in ";{}":
            if char == ";":
                yield skip_control(code, start, position), position
            start = position + 1


def skip_control(code, start, end):
    """Where the statement proper starts behind `if (...)`, `else`, `case x:` and the like."""
    while True:
        while start < end and code[start].isspace():
            start += 1
        match = CONTROL.match(code, start, end)
        if match is None:
            return start
        start = closing(code, match.end() - 1) + 1 if match[0].endswith("(") else match.end()


# -------------------------------------------------------------------- operators
#
# Each yields (operator, start, end, after) for code with its blanks.


def swapped_operators(code, text):
    """A binary operator has blanks around it; brackets of templates and references do not."""
    for match in re.finditer(r"(?<=\s)(==|!=|[<>+\-|&]=?|[*/%]|&&|\|\||<<|>>)(?=\s)", code):
        token = match[0]
        if token in ("<<", ">>") and not re.match(r"\s*\d", code[match.end() :]):
            continue  # a stream
        neighbours = code[: match.start()].rstrip()[-1], code[match.end() :].lstrip()[0]
        if token == "+" and '"' in neighbours:
            continue  # text
        name = (
            "comparison" if token in COMPARISONS else "logic" if token in LOGIC else "arithmetic"
        )
        for other in SWAPS.get(token, []):
            yield name, match.start(), match.end(), other
    for match in re.finditer(r"\+\+|--", code):
        yield "arithmetic", match.start(), match.end(), "--" if match[0] == "++" else "++"
    for match in re.finditer(r"!(?!=)(?=[\w(:])", code):
        yield "negation dropped", match.start(), match.end(), ""


def shifted_constants(code, text):
    number = r"(?<![\w.])(0x[0-9A-Fa-f]+|\d+)(\.\d+)?([uUlLfF]*)(?![\w.])"
    for match in re.finditer(number, code):
        value = int(match[1], 0)
        for other in (value + 1, value - 1) if value else (1,):
            digits = hex(other) if match[1].startswith("0x") else str(other)
            after = digits + (match[2] or "") + match[3]
            yield "constant", match.start(), match.end(), after
    for match in re.finditer(r"\b(true|false)\b", code):
        yield "constant", match.start(), match.end(), "false" if match[0] == "true" else "true"


def changed_conditions(code, text):
    for match in re.finditer(r"\b(if|while)\s*\(|\breplay_(?:errno_|alloc_)?assert\(", code):
        start, end = match.end(), closing(code, match.end() - 1)
        condition = code[start:end]
        if re.search(r"(?<![=!<>])=(?!=)", condition) and "(" not in condition.split("=")[0]:
            continue  # declares what it tests
        word = match[1]
        if word is None or "&&" in condition or "||" in condition or not re.search(
            r"\s[=!<>]=?\s|^!", condition
        ):
            yield "condition negated", start, end, f"!({text[start:end]})"
        if word is not None:
            yield "condition fixed", start, end, "false"
        if word == "if":
            yield "condition fixed", start, end, "true"


def removed_statements(code, text):
    for start, end in statements(code):
        statement = code[start:end]
        removable = re.fullmatch(r"break|continue|return", statement) or (
            STATEMENT.match(statement) and not DECLARATION.match(statement)
        )
        if removable:
            yield "statement removed", start, end, ""


def changed_returns(code, text):
    for start, end in statements(code):
        match = re.match(r"return\s+(?=\S)", code[start:end])
        if not match:
            continue
        value = code[start + match.end() : end]
        if not re.fullmatch(r"0|-?1|true|false|nullptr", value):
            yield "return changed", start + match.end(), end, "{}"


def weakened_orders(code, text):
    for match in re.finditer(r"\bmemory_order_(acquire|release|acq_rel|seq_cst)\b", code):
        yield "memory order", match.start(), match.end(), "memory_order_relaxed"


def changed_output(code, text):
    """Texts that the program shows, and the flushes behind its lines."""
    for match in re.finditer(r'"_+"', code):
        start = max(code.rfind(mark, 0, match.start()) for mark in ";{}")
        if "LINES[]" in code[start - 60 : start]:
            start -= 60
        if OUTPUT.search(code[start : match.start()]):
            yield "text", match.start() + 1, match.start() + 1, "~"
    for match in re.finditer(r"std::endl\b", code):
        start = max(code.rfind(mark, 0, match.start()) for mark in ";{}")
        flushes_itself = "std::cerr" in code[start : match.start()]
        followed = "std::endl" in code[match.end() : function_end(code, match.start())]
        if not flushes_itself and not followed:
            yield "flush dropped", match.start(), match.end(), "'\\n'"


OPERATORS = (
    swapped_operators,
    shifted_constants,
    changed_conditions,
    removed_statements,
    changed_returns,
    weakened_orders,
    changed_output,
)


# ------------------------------------------------------------ equivalent mutants


class Equivalents:
    """The mutants known to change nothing that a test could see, each with its reason. A row
    without a previous line fits wherever the line stands; "*" is any change of the line."""

    def __init__(self, path=pathlib.Path(__file__).with_name("equivalent.csv")):
        with open(path, newline="") as file:
            self.rows = list(csv.reader(file))[1:]

    def reason(self, mutant, text):
        """Why no test can tell, or None."""
        before, after = mutant.lines(text)
        previous = mutant.previous_line(text)
        for file, above, line, mutated, why in self.rows:
            if (file, line) == (mutant.file, before) and above in ("", previous):
                if mutated in ("*", after):
                    return why
        return None


# ---------------------------------------------------------------- the selection


def unused_constants(sources):
    """Enumerators that no source uses: a change of one is no change of the program."""
    everything = "\n".join(blank(text) for text in sources.values())
    names = re.findall(r"^\s+([A-Z][A-Z_]+) = \d+,?$", everything, re.MULTILINE)
    return [name for name in names if len(re.findall(rf"\b{name}\b", everything)) == 1]


def is_wanted(operator, line, unused):
    if WITHOUT_EFFECT.search(line):
        return False
    if operator in ("comparison", "constant", "arithmetic", "logic"):
        if PRINTED_CONDITION.search(line):
            return False
    return not any(re.match(rf"\s*{name} =", line) for name in unused)


def mutants_of(file, sources):
    """All mutants of one of these sources, in their order in the file."""
    text = sources[file]
    code = blank(text)
    unused = unused_constants(sources)
    found = {}
    for operator in OPERATORS:
        for name, start, end, after in operator(code, text):
            first = text.rfind("\n", 0, start) + 1
            if is_wanted(name, code[first : code.find("\n", start)], unused):
                found.setdefault((start, end, after), name)
    version = hashlib.sha256(text.encode()).hexdigest()
    return [
        Mutant(
            file,
            text.count("\n", 0, start) + 1,
            start,
            end,
            name,
            after,
            # Of the whole file, so that results of an older version do not count.
            hashlib.sha256(f"{version} {start} {end} {after}".encode()).hexdigest()[:10],
        )
        for (start, end, after), name in sorted(found.items())
    ]


def code_lines(text):
    return sum(1 for line in blank(text).splitlines() if line.strip(" {});"))


def shares(sources, total):
    """How many of `total` mutants each source gets: by its lines of code, at least one."""
    sizes = {file: code_lines(text) for file, text in sources.items()}
    whole = sum(sizes.values())
    exact = {file: total * size / whole for file, size in sizes.items()}
    given = {file: max(1, int(share)) for file, share in exact.items()}
    for file in sorted(exact, key=lambda name: int(exact[name]) - exact[name]):
        if sum(given.values()) < total:
            given[file] += 1
    return given
