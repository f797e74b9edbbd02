"""All benchmarks, in the document's order, and what a folder's samples say of all of them."""
from .handover import LATENCY, QUEUE
from .instructions import INSTRUCTIONS
from .pacing import PACING
from .poller import POLLER, USER_SHARE
from .producer import PRODUCER
from .receiver import RECEIVER
from .scale import SCALE
from .throughput import THROUGHPUT

BENCHMARKS = (
    POLLER,
    USER_SHARE,
    PRODUCER,
    THROUGHPUT,
    PACING,
    SCALE,
    LATENCY,
    QUEUE,
    INSTRUCTIONS,
    RECEIVER,
)


def all_targets(folder):
    """Each target with the benchmark that it belongs to."""
    for benchmark in BENCHMARKS:
        for target in benchmark.targets(benchmark.read(folder)):
            yield benchmark, target


def all_rankings(folder):
    """All rankings of a run, by their cases."""
    found = [one for benchmark in BENCHMARKS for one in benchmark.ranked(benchmark.read(folder))]
    return {ranking.case: ranking for ranking in found}
