"""Scale: what grows with a recording and what does not, memory above all."""
import statistics

from .benchmark import Benchmark
from .samples import by, spread, spread_of
from .tables import table
from .targets import ABOUT, PRELOADED_KB, STREAMING_MB, at_most
from .words import bullet, figure, paragraph, range_text, slug

# The kernel's kB are 1024 bytes.
BYTES = {"bytes": 1, "kB": 1024, "KiB": 1024, "MB": 1e6, "MiB": 2**20}
MESSAGE_BYTES = 10240  # what a message of a data file holds
FLAT = 1.25
LINEAR = 1.5
# Why a curve grows as it does: words only.
WHY = {
    "file size": (
        "What is too large for the processor's caches has to come from memory in each pass; the"
        " bare reader's curve beside it shows how much of the growth is that"
    ),
    "file size, bare reader": "The same reads without a sender around them",
    "directory size": "Each file of one message is opened, read to its end and closed",
    "passes": (
        "Measured within an endless replay: so many passes' worth of messages behind a warm-up"
    ),
    "message size": (
        "Each message's buffer is filled with zeros as a whole; what grows is the copying of the"
        " payload, by libpcap and into the buffer"
    ),
    "message size (sending thread, real socket)": "What grows is the kernel's copying",
    "start-up by directory size": "The folder is listed and each entry looked at before the first",
    "start-up, preloaded": "The whole file is read before the first message leaves",
}


# ---------------------------------------------------------------- memory


def memory_curves(rows, preloaded):
    """The rows of each curve of resident memory, with its bytes."""
    chosen = [
        {**row, "bytes": row["value"] * BYTES[row["unit"]]}
        for row in rows
        if "memory" in row["curve"] and ("preload" in row["curve"]) == preloaded
    ]
    return {curve: of for (curve,), of in by(chosen, "curve").items()}


def messages_at(row):
    if row["x_unit"] == "messages":
        return row["x"]
    return row["x"] * BYTES[row["x_unit"]] / MESSAGE_BYTES


def kb_per_message(rows):
    """The slope of each run by least squares."""
    found = []
    for of in by(rows, "run").values():
        points = {messages_at(row): row["bytes"] / 1e3 for row in of}
        if len(points) > 1:
            found.append(statistics.linear_regression(points.keys(), points.values()).slope)
    return spread_of(found)


def growth(rows):
    """The largest over the smallest of each run. The first point is left out: the queue is
    still filling there."""
    found = []
    for of in by(rows, "run").values():
        first = min(row["x"] for row in of)
        settled = [row["bytes"] for row in of if row["x"] > first]
        if len(settled) > 1:
            found.append(max(settled) / min(settled))
    return spread_of(found)


def largest_mb(rows):
    """The largest of each run."""
    return spread_of(max(row["bytes"] for row in of) / 1e6 for of in by(rows, "run").values())


def targets(rows):
    for curve, of in (memory_curves(rows, preloaded=False) or {"resident memory": []}).items():
        name = curve.capitalize()
        yield at_most(
            f"memory growth {curve}",
            f"{name}: largest over smallest, once the queue is full",
            ABOUT,
            "times",
            growth(of),
            digits=4,
        )
        yield at_most(
            f"memory size {curve}",
            f"{name}: the largest",
            STREAMING_MB,
            "MB",
            largest_mb(of),
            about="about",
        )
    for curve, of in (memory_curves(rows, preloaded=True) or {"preloaded": []}).items():
        yield at_most(
            f"memory slope {curve}",
            f"{curve.capitalize()}: slope by least squares",
            PRELOADED_KB,
            "KB per message",
            kb_per_message(of),
            about="about",
        )


# ---------------------------------------------------------------- every curve


def scale_points(rows):
    """(x, spread) in the order of x."""
    return sorted((x, spread(at, "value")) for (x,), at in by(rows, "x").items())


def body(rows, plot):
    lines = []
    for (curve,), of in by(rows, "curve").items():
        points = scale_points(of)
        cells = [[f"{x:,.12g}", range_text(seen)] for x, seen in points]
        lines += [f"### {curve.capitalize()}", ""]
        lines += table([of[0]["x_unit"] or "-", of[0]["unit"]], cells)
        if len(points) > 1:
            lines += plot(f"scale-{slug(curve)}")
    return lines


def judgement(points, unit):
    """Whether a cost per piece is flat, and a total linear: its last step as steep as the
    one before it. None where neither is to be expected."""
    medians = [(x, seen.median) for x, seen in points]
    if "/" in unit:
        values = [value for _, value in medians]
        return "flat" if max(values) <= FLAT * min(values) else "not flat"
    if len(medians) < 3:
        return None
    (x0, y0), (x1, y1), (x2, y2) = medians[-3:]
    before, last = (y1 - y0) / (x1 - x0), (y2 - y1) / (x2 - x1)
    return "linear" if before > 0 and 1 / LINEAR <= last / before <= LINEAR else "not linear"


def shows(rows):
    yield from paragraph(
        f"A cost per piece is called flat when its largest median is at most {FLAT} times its"
        f" smallest, a total linear when its last two steps are within {LINEAR} times as steep as"
        " each other."
    )
    for (curve,), of in by(rows, "curve").items():
        points = scale_points(of)
        (first_x, first), (x, last) = points[0], points[-1]
        unit, x_unit = of[0]["unit"], of[0]["x_unit"]
        if len(points) < 2:
            continue
        text = (
            f"{curve}: {figure(first.median)} {unit} at {first_x:,.12g} and"
            f" {figure(last.median)} {unit} at {x:,.12g} {x_unit}"
        )
        if x_unit != "s":
            text += f", {judgement(points, unit)}"
        yield from bullet(". ".join(filter(None, (text, WHY.get(curve)))))
    yield ""


SCALE = Benchmark(
    name="scale",
    title="Scale",
    script="bench/scale.py",
    columns="curve,x,x_unit,run,value,unit",
    keys=("curve", "x"),
    how=(
        "One size at a time grows, the rest stays as it is. Costs per message are the reading"
        " thread's processor time unless another is named, start-up is the time up to the"
        " first send, and resident memory is what the kernel counts for the process. MB are"
        " 1,000,000 bytes, KB 1,000, and the kernel's kB 1024."
    ),
    body=body,
    targets=targets,
    shows=shows,
)
