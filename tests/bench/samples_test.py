"""Samples: medians, ratios, their digits, and files that are not whole."""

import pytest

from made_up import (  # noqa: F401: folder is a fixture
    COLUMNS,
    document,
    poller,
    run,
    targets,
    write,
    folder,
)
from performance.folders import Fault
from performance.samples import Spread, spread_of
from performance.words import figure


def test_of_an_even_number_of_runs_the_median_lies_between_the_two_in_the_middle():
    assert spread_of([4, 1, 3, 10]) == Spread(3.5, 1, 10, 4)


def test_a_ratio_is_that_of_the_medians_and_its_spread_that_of_neighbouring_runs(folder):
    poller(folder, streamed=(100, 330, 240), bare=(100, 300, 200))
    seen = targets(folder)["poller udp 64 streamed"]
    # Medians 240 and 200; neighbours 1, 1.1 and 1.2.
    assert seen.measured == "1.200 (1.000 to 1.200) times, 3 runs"


@pytest.mark.parametrize(
    "streamed, bare", [((100, 100), (100, 100, 900)), ((100, 100, 900), (100, 100))]
)
def test_a_run_without_its_neighbour_does_not_count(folder, streamed, bare):
    poller(folder, streamed, bare)
    seen = targets(folder)["poller udp 64 streamed"]
    assert seen.measured == "1.000 (1.000 to 1.000) times, 2 runs"


@pytest.mark.parametrize(
    "value, text",
    [
        (0, "0"),
        (0.012345, "0.0123"),
        (-0.5, "-0.500"),
        (12.345, "12.3"),
        (1234.5, "1,234"),
        (1234567.0, "1,234,567"),
    ],
)
def test_a_figure_has_three_digits_and_its_whole_part(value, text):
    assert figure(value) == text


def test_a_file_with_nothing_but_its_head_is_as_good_as_absent(folder):
    write(folder, "queue", [])
    assert f"`{folder}/queue.csv` is absent or empty." in document(folder)


def test_throughput_is_per_second_of_the_clock_and_of_the_processors(folder):
    rows = [
        ("tcp", 10240, "sender", 0, 2, 4000000, 0, 0, 0.5, 1),
        ("udp", 500, "mgen", 0, 2, 4000000, 6000, 2000, "", 1),
    ]
    write(folder, "throughput", rows)
    text = document(folder)
    assert "| 10,240 | sender | 2.00 (2.00 to 2.00) | 8.00 (8.00 to 8.00) | 4.00 (4.00 to 4.00) |\n" in text
    assert "| 500 | mgen | 4,000 (4,000 to 4,000) | - | 8,000 (8,000 to 8,000) | 25.0 (25.0 to 25.0) |\n" in text


@pytest.mark.parametrize(
    "text, complaint",
    [
        ("shape,subject,ns_per_message\n", "no column run\n"),
        ("shape,subject,run,ns_per_message\nstream,boost,0\n", "row 1 is not whole"),
        ("shape,subject,run,ns_per_message\nstream,boost,0,nan\n", "row 1 is not whole"),
        ("shape,subject,run,ns_per_message\nstream,boost,0,1,2\n", "row 1 is not whole"),
    ],
)
def test_samples_that_are_not_whole_are_refused(folder, text, complaint):
    (folder / "queue.csv").write_text(text)
    output = folder / "performance.md"
    status, _, errors = run(folder, "--output", output)
    assert (status, output.exists()) == (1, False)
    assert errors.startswith(f"report.py: {folder}/queue.csv: {complaint}")


def test_a_row_without_its_last_word_is_refused(folder):
    (folder / "scale.csv").write_text(f"{COLUMNS['scale']}\nfile size,1,MB,0,900\n")
    with pytest.raises(Fault, match="row 1 is not whole"):
        document(folder)
