"""What counts as a mutant, on made-up sources, and which of today's are known to change nothing."""

import pathlib

import mutants as m

SOURCES = {
    path.name: path.read_text()
    for path in sorted((pathlib.Path(__file__).resolve().parents[2] / "src").iterdir())
}

SOURCE = """\
// A comment with a == b and 7.
#include <x5.h>
#define TWICE(x) ((x) * 2)
static_assert(sizeof(int) == 4);
enum : int {
    USED = 3,
    IDLE = 8,
};
bool check(int a, const std::vector<int>& list) /* 1 < 2 */
{
    if (a >= USED && !list.empty())
        return true;
    std::cout << "a: " << a << std::endl;
    flag_.store(a, std::memory_order_release);
    total_ += a;
    int other = a;
    replay_assert(other != 9);
    return other < total_;
}
"""


def made(source=SOURCE, operator=None):
    """Line and changed text of each mutant of this source."""
    found = m.mutants_of("x.h", {"x.h": source})
    return [
        (mutant.line, mutant.lines(source)[1])
        for mutant in found
        if operator in (None, mutant.operator)
    ]


def test_blanks_keep_every_position():
    blank = m.blank(SOURCE)
    assert len(blank) == len(SOURCE)
    assert [len(line) for line in blank.split("\n")] == [len(x) for x in SOURCE.split("\n")]


def test_comments_preprocessor_lines_and_static_assertions_have_no_mutants():
    assert not [line for line, _ in made() if line < 5]
    assert all("/* 1 < 2 */" in text for line, text in made() if line == 9)


def test_a_constant_that_nothing_uses_has_no_mutants():
    assert [text for line, text in made() if line == 6] == ["USED = 2,", "USED = 4,"]
    assert not [text for line, text in made() if line == 7]


def test_a_condition_is_negated_fixed_and_changed_by_its_operators():
    assert {text for line, text in made() if line == 11} == {
        "if (!(a >= USED && !list.empty()))",
        "if (true)",
        "if (false)",
        "if (a > USED && !list.empty())",
        "if (a < USED && !list.empty())",
        "if (a >= USED || !list.empty())",
        "if (a >= USED && list.empty())",
    }


def test_calls_and_assignments_are_removed_but_no_declarations():
    assert made(operator="statement removed") == [(13, ";"), (14, ";"), (15, ";"), (17, ";")]


def test_a_printed_condition_is_only_negated():
    assert {text for line, text in made() if line == 17} == {
        ";",
        "replay_assert(!(other != 9));",
    }


def test_orders_returns_texts_and_flushes_are_changed():
    assert made(operator="memory order") == [
        (14, "flag_.store(a, std::memory_order_relaxed);")
    ]
    assert made(operator="return changed") == [(18, "return {};")]
    assert made(operator="text") == [(13, 'std::cout << "~a: " << a << std::endl;')]
    assert made(operator="flush dropped") == [(13, "std::cout << \"a: \" << a << '\\n';")]


def test_ids_name_one_mutant_of_one_version():
    ids = [mutant.id for mutant in m.mutants_of("x.h", {"x.h": SOURCE})]
    later = [mutant.id for mutant in m.mutants_of("x.h", {"x.h": SOURCE + "\n"})]
    assert len(set(ids)) == len(ids)
    assert not set(ids) & set(later)


def test_shares_follow_the_lines_of_code_and_leave_no_source_out():
    sizes = {"big.h": 300, "small.h": 100, "one.h": 1}
    sources = {name: "int x;\n" * lines for name, lines in sizes.items()}
    assert m.shares(sources, 41) == {"big.h": 30, "small.h": 10, "one.h": 1}


def test_a_flush_counts_only_where_no_other_one_follows():
    source = """\
class loud {
    void speak()
    {
        std::cout << a << std::endl;
        for (;;)
            std::cout << b << std::endl;
    }
    void warn() { std::cerr << c << std::endl; }
};
"""
    assert [line for line, _ in made(source, "flush dropped")] == [6]


def test_each_mutant_that_is_known_to_change_nothing_is_one_of_todays():
    found = [mutant for file in SOURCES for mutant in m.mutants_of(file, SOURCES)]
    without_mutant = []
    for row in m.Equivalents().rows:
        alone = m.Equivalents()
        alone.rows = [row]
        if not any(alone.reason(mutant, SOURCES[mutant.file]) for mutant in found):
            without_mutant.append(row)
    assert without_mutant == []


def test_a_known_mutant_without_a_line_above_it_stands_for_one_line_alone():
    for file, above, line, *_ in m.Equivalents().rows:
        lines = [" ".join(each.split()) for each in SOURCES[file].splitlines()]
        if not above:
            assert lines.count(line) == 1, line
