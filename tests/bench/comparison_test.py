"""Two runs: the cases that they rank alike, and those that they do not."""

from made_up import (  # noqa: F401: folder and other are fixtures
    document,
    poller,
    queue,
    run,
    write_machine,
    folder,
    other,
)


def test_equal_ranks_end_with_0(folder, other):
    queue(folder, spsc_queue=10, boost=20, deque=30)
    queue(other, spsc_queue=13, boost=17, deque=90)
    status, text, errors = run("--compare", folder, other)
    order = "1 spsc_queue; 2 boost; 3 deque"
    assert (status, errors) == (0, "")
    assert f"| Queue, stream | {order} | {order} | same |\n" in text
    assert "Of 1 case 1 have the same ranks in both runs, 0 differ" in text


def test_different_ranks_end_with_1_and_are_named(folder, other):
    queue(folder, spsc_queue=10, boost=20, deque=30)
    queue(other, spsc_queue=20, boost=10, deque=30)
    status, text, _ = run("--compare", folder, other)
    assert status == 1
    assert "| 1 boost; 2 spsc_queue; 3 deque | differ: boost and spsc_queue |\n" in text


def test_a_tie_in_one_run_contradicts_nothing_but_is_named(folder, other):
    queue(folder, spsc_queue=10, boost=20)
    queue(other, spsc_queue=11, boost=10)
    status, text, _ = run("--compare", folder, other)
    assert status == 0
    assert "| 1 boost, spsc_queue | tied in one run: boost and spsc_queue |\n" in text
    assert "Of 1 case 0 have the same ranks in both runs, 0 differ, and 1 have" in text


def test_a_subject_of_one_run_alone_is_named(folder, other):
    queue(folder, spsc_queue=10, boost=20, deque=30)
    queue(other, spsc_queue=10, boost=20)
    status, text, _ = run("--compare", folder, other)
    assert status == 0
    assert "| in one run only: deque |\n" in text


def test_runs_with_no_case_in_common_cannot_agree(folder, other):
    queue(folder, spsc_queue=10, boost=20)
    status, text, _ = run("--compare", folder, other)
    assert (status, text) == (1, "Nothing to compare: no case is in both runs.\n")


def test_runs_of_different_commits_are_told_apart(folder, other):
    write_machine(other, "commit: 4567def\n")
    queue(folder, spsc_queue=10, boost=20)
    queue(other, spsc_queue=10, boost=20)
    assert "They are not of the same commit: 0123abc and 4567def." in " ".join(
        run("--compare", folder, other)[1].split()
    )


def test_the_document_compares_with_a_second_run(folder, other):
    queue(folder, spsc_queue=10, boost=20)
    queue(other, spsc_queue=20, boost=10)
    assert "## A second run\n" not in document(folder)
    text = document(folder, other)
    assert "## A second run\n" in text
    assert "| 1 spsc_queue; 2 boost | 1 boost; 2 spsc_queue | differ: boost and" in text


def test_a_target_that_one_run_misses_is_shown_with_both_figures_and_what_bounds_it(folder, other):
    poller(folder, streamed=(1000, 1000, 1000))
    poller(other, streamed=(1000, 1200, 1300))
    section = document(folder, other).partition("## A second run\n")[2]
    assert "The first run meets 1 of 52 targets, the second 0. These verdicts differ:" in section
    what = "Poller thread against the bare loop, UDP 64 bytes, streamed"
    assert (
        f"| {what} | at most 1.08 times | 1.000 (1.000 to 1.000) times, 3 runs: met"
        " | 1.200 (1.000 to 1.300) times, 3 runs: missed |\n"
    ) in section
    assert f"- **{what}**: 1.200 (1.000 to 1.300) times" in section


def test_runs_that_meet_the_same_targets_have_no_table_of_them(folder, other):
    for each in folder, other:
        poller(each, streamed=(1000, 1000, 1000))
    section = document(folder, other).partition("## A second run\n")[2]
    assert section.startswith(
        "\nThe first run meets 1 of 52 targets, the second 1.\n\nA subject's rank"
    )
