"""The document's sections: what is shown of the samples, and of those that are absent."""

import pytest

from made_up import (  # noqa: F401: folder is a fixture
    ROOT,
    document,
    queue,
    write,
    write_machine,
    folder,
)
from performance.benchmarks import BENCHMARKS


def test_without_any_samples_every_section_says_so_in_a_line(folder):
    text = document(folder)
    for benchmark in BENCHMARKS:
        absent = f"No samples: `{folder}/{benchmark.name}.csv` is absent or empty."
        assert f"## {benchmark.title}\n\n{absent}\n" in text


def test_a_table_gives_median_and_spread(folder):
    queue(folder, spsc_queue=20, deque=41)
    text = document(folder)
    assert "| stream | deque | 41.0 (40.0 to 42.0) | 2.050 (2.000 to 2.105) |\n" in text
    assert "3 runs, median (lowest to highest)" in " ".join(text.split())


def test_the_line_with_the_tools_of_the_instruction_counts_is_a_remark(folder):
    (folder / "instructions.csv").write_text("# g++ 1.2\npath,instructions\nudp,456.3\n")
    text = document(folder)
    assert "`bench/instructions.py`. With g++ 1.2.\n" in text
    assert "| udp | 456 |\n" in text


def test_a_cell_without_samples_is_a_dash(folder):
    write(folder, "receiver", [("tcp", "socat", 0, 0.7, "", "", "")])
    assert "| tcp | socat | 0.700 (0.700 to 0.700) | - | - | - |" in document(folder)


def test_a_plot_is_linked_from_the_documents_place(folder):
    queue(folder, spsc_queue=20, deque=41)
    assert f"No plot: `{folder}` has no `queue.svg`." in document(folder)
    (folder / "queue.svg").touch()
    assert "![The queue: queue](run/queue.svg)\n" in document(folder)


def test_the_machines_note_is_shown_line_by_line(folder):
    text = document(folder)
    assert "- commit: 0123abc\n- processor: A processor, 2 of them\n" in text
    assert "- It has 2 processors." in text


@pytest.mark.parametrize("word, shown", [("yes", True), ("no", False)])
def test_what_a_virtual_machine_hides_is_said_of_one_alone(folder, word, shown):
    write_machine(folder, f"virtual machine: {word}\n")
    assert ("- It is a virtual machine." in document(folder)) is shown


def test_every_script_that_the_document_names_is_in_the_tree():
    missing = [
        benchmark.script
        for benchmark in BENCHMARKS
        if not (ROOT / benchmark.script).is_file()
    ]
    assert missing == []
