"""The plots of made-up samples."""

import subprocess
import sys

import pytest

from made_up import (  # noqa: F401: folder and other are fixtures
    BENCH,
    document,
    memory,
    poller,
    queue,
    folder,
    other,
)


def test_the_plots_are_those_that_the_document_links_and_come_out_alike(folder, other):
    pytest.importorskip("matplotlib", reason="no matplotlib to draw with")
    for path in (folder, other):
        queue(path, spsc_queue=10, boost=20)
        poller(path, streamed=(1010, 1020, 1030))
        memory(path, "resident memory, streamed", [(0, 5000), (1, 14000), (2, 14000)], "s")
        subprocess.run([sys.executable, BENCH / "plots.py", path], check=True)
    drawn = sorted(path.name for path in folder.glob("*.svg"))
    assert drawn == ["poller.svg", "queue.svg", "scale-resident-memory-streamed.svg"]
    assert "No plot:" not in document(folder)
    for name in drawn:
        assert (folder / name).read_bytes() == (other / name).read_bytes()
