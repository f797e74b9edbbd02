"""The command: what it refuses, and whether a document is what the samples give."""

import pytest

from made_up import (  # noqa: F401: folder and other are fixtures
    pacing,
    poller,
    queue,
    run,
    folder,
    other,
)


def test_a_folder_that_is_none_is_refused(tmp_path):
    status, _, errors = run(tmp_path / "nowhere", "--output", tmp_path / "out.md")
    assert (status, errors) == (1, f"report.py: {tmp_path}/nowhere is no folder\n")


def test_the_same_samples_give_the_same_document(folder, other):
    for path in (folder, other):
        poller(path, streamed=(1010, 1020, 1030))
        queue(path, spsc_queue=20, deque=41, boost=20)
        pacing(path, sender=(0, 0.5, 5), mgen=(0, 0.6, 9))
    outputs = [folder.parent / name for name in ("first.md", "second.md")]
    for output in outputs:
        assert run(folder, "--again", other, "--output", output)[0] == 0
    assert outputs[0].read_bytes() == outputs[1].read_bytes()


@pytest.mark.parametrize("named", [True, False])
def test_a_document_that_is_what_the_samples_give_passes(folder, other, named):
    queue(folder, spsc_queue=10, boost=20)
    queue(other, spsc_queue=10, boost=20)
    output = folder.parent / "performance.md"
    words = (folder, "--again", other)
    assert run(*words, "--output", output) == (0, "", "")
    assert run(*(words if named else ()), "--check", "--output", output) == (0, "", "")


@pytest.mark.parametrize("named", [True, False])
def test_a_document_that_is_not_is_shown_the_difference(folder, named):
    queue(folder, spsc_queue=10, boost=20)
    output = folder.parent / "performance.md"
    run(folder, "--output", output)
    output.write_text(output.read_text().replace("20.0 (19.0 to 21.0)", "18.0 (19.0 to 21.0)"))
    before = output.read_bytes()
    status, _, errors = run(*([folder] if named else []), "--check", "--output", output)
    assert status == 1
    assert errors.startswith(f"{output} is not what the samples give:\n")
    assert "\n-| stream | boost | 18.0 (" in errors
    assert "\n+| stream | boost | 20.0 (" in errors
    assert errors.endswith(f"To write it anew: bench/report.py {folder}\n")
    assert output.read_bytes() == before


def test_samples_that_have_changed_fail_the_check(folder):
    queue(folder, spsc_queue=10, boost=20)
    output = folder.parent / "performance.md"
    run(folder, "--output", output)
    queue(folder, spsc_queue=10, boost=21)
    assert run("--check", "--output", output)[0] == 1


def test_a_document_that_is_not_there_fails_the_check(tmp_path):
    output = tmp_path / "performance.md"
    assert run("--check", "--output", output) == (1, "", f"report.py: {output} does not exist\n")


def test_the_document_in_the_tree_is_what_the_samples_give():
    assert run("--check") == (0, "", "")
