#!/usr/bin/python3
"""Draws the samples of a folder of bench/results as SVG files beside them: a point is the
median of the runs, a bar goes from the lowest to the highest of them. The same samples
give the same files, byte by byte.

Usage: plots.py RESULTS
"""
import argparse
import csv
import lzma
import pathlib
import sys

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as pyplot
import numpy
from matplotlib import ticker

from performance.benchmarks import BENCHMARKS
from performance.folders import Fault, require
from performance.poller import poller_ratios
from performance.samples import by, subjects
from performance.scale import scale_points
from performance.targets import POLLER_RATIO, USER_SHARE_NS
from performance.words import case_name, name_of, slug

# Colours that remain apart for the colour-blind; relatives share one and differ by line.
BLACK, GREY, BLUE, SKY = "#000000", "#777777", "#0072B2", "#56B4E9"
ORANGE, GREEN, RED, PINK = "#E69F00", "#009E73", "#D55E00", "#CC79A7"
OLIVE, SAND, WINE = "#999933", "#BBA53D", "#882255"
COLOURS = {
    "sender": BLUE,
    "streamed": BLUE,
    "sender-streamed": BLUE,
    "spsc_queue": BLUE,
    "preloaded": SKY,
    "sender-preloaded": SKY,
    "bare": BLACK,
    "schedule-busy": BLACK,
    "schedule-sleep": GREY,
    "stub": GREY,
    "unfilled": GREY,
    "zero-filled": WINE,
    "condition-variable": WINE,
    "iperf3": ORANGE,
    "iperf3-timer-100": ORANGE,
    "mgen": GREEN,
    "mgen-precise": GREEN,
    "sockperf": RED,
    "nuttcp": PINK,
    "nc": PINK,
    "ncat": WINE,
    "socat-8k": OLIVE,
    "socat-10k": SAND,
    "boost": GREEN,
    "deque": ORANGE,
}
DASHED = {"iperf3-timer-100", "mgen-precise", "schedule-sleep"}

STYLE = {
    "svg.hashsalt": "replay",  # or the names in the file would be drawn by lot
    "svg.fonttype": "none",
    "font.family": "sans-serif",
    "font.size": 9,
    "axes.titlesize": 10,
    "axes.spines.top": False,
    "axes.spines.right": False,
    "axes.grid": True,
    "grid.color": "#dddddd",
    "grid.linewidth": 0.6,
    "axes.axisbelow": True,
    "figure.facecolor": "white",
}
WIDTH = 7.2  # inches
WIDE_SPAN = 30  # from here on an axis is logarithmic
CURVE_POINTS = 160


def save(figure, folder, name):
    undated = {"Creator": None, "Date": None}
    figure.savefig(folder / f"{name}.svg", metadata=undated, bbox_inches="tight")
    pyplot.close(figure)


def wide(values):
    return min(values) > 0 and max(values) / min(values) > WIDE_SPAN


def scale_axis(axes, which, values, from_zero=True):
    """Axis x or y: logarithmic where the values span much, and plain numbers at its ticks."""
    axis = getattr(axes, f"{which}axis")
    if wide(values):
        axes.set(**{f"{which}scale": "log"})
    else:
        axis.set_major_locator(ticker.MaxNLocator(4, steps=[1, 2, 5, 10]))
        if from_zero:
            axes.set(**{f"{which}lim": (0, 1.08 * max(values))})
    axis.set_major_formatter(ticker.FuncFormatter(number_text))


def number_text(value, _place):
    return f"{value:,.12g}"


# ---------------------------------------------------------------- points with their spread


def dots(axes, entries, from_zero=True):
    """One line per (label, subject, spread), the first at the top; None leaves a gap."""
    for place, entry in enumerate(entries):
        if entry is not None:
            label, subject, seen = entry
            colour = COLOURS.get(subject, GREY)
            axes.plot([seen.low, seen.high], [place, place], color=colour, linewidth=2, alpha=0.5)
            axes.plot(seen.median, place, "o", color=colour, markersize=5)
    places = [place for place, entry in enumerate(entries) if entry is not None]
    axes.set_yticks(places, [entries[place][0] for place in places])
    axes.set_ylim(len(entries) - 0.4, -0.6)
    axes.tick_params(axis="y", length=0)
    axes.grid(False, axis="y")
    spreads = [seen for _, _, seen in filter(None, entries)]
    values = [seen.low for seen in spreads] + [seen.high for seen in spreads]
    scale_axis(axes, "x", values, from_zero)


def dots_figure(entries, x_label, from_zero=True):
    figure, axes = pyplot.subplots(figsize=(WIDTH, 0.9 + 0.22 * len(entries)))
    dots(axes, entries, from_zero)
    axes.set_xlabel(x_label)
    return figure, axes


def apart(groups):
    """All entries in a row, with a gap between two groups."""
    entries = []
    for group in groups:
        entries += [None, *group] if entries else group
    return entries


def limit_line(axes, limit, text):
    axes.axvline(limit, color=BLACK, linewidth=1, linestyle="--")
    axes.annotate(
        text, (limit, 1), xycoords=("data", "axes fraction"), xytext=(4, 2),
        textcoords="offset points", va="bottom", fontsize=8,
    )  # fmt: skip


def grouped_entries(rows, columns, value, subject="subject"):
    """Entries for dots(): one group per case, named in each label if there are several."""
    cases = by(rows, *columns)
    groups = []
    for case, of in cases.items():
        name = " ".join(name_of(case)) + "  " if len(cases) > 1 else ""
        seen = subjects(of, value, subject)
        groups.append([(name + one, one, spread) for one, spread in seen.items()])
    return apart(groups)


def poller(rows, folder):
    groups = {}
    for (protocol, size, subject), seen in poller_ratios(rows).items():
        if seen:
            case = case_name(protocol, size)
            groups.setdefault(case, []).append((f"{case}  {subject}", subject, seen))
    if not groups:
        return
    x_label = "processor time per message, times that of the bare loop"
    figure, axes = dots_figure(apart(groups.values()), x_label, from_zero=False)
    axes.axvline(1, color=GREY, linewidth=1)
    limit_line(axes, POLLER_RATIO, f"target {POLLER_RATIO}")
    save(figure, folder, "poller")


def user_share(rows, folder):
    entries = grouped_entries(rows, ("protocol", "size"), "ns_per_message", "mode")
    figure, axes = dots_figure(entries, "processor time outside the kernel, ns per message")
    limit_line(axes, USER_SHARE_NS, f"target {USER_SHARE_NS}")
    if axes.get_xscale() == "linear":
        axes.set_xlim(0, max(axes.get_xlim()[1], 1.08 * USER_SHARE_NS))
    save(figure, folder, "user_share")


def producer(rows, folder):
    entries = grouped_entries(rows, ("source", "size"), "ns_per_message")
    figure, _ = dots_figure(entries, "processor time, ns per message")
    save(figure, folder, "producer")


def queue(rows, folder):
    entries = grouped_entries(rows, ("shape",), "ns_per_message")
    figure, _ = dots_figure(entries, "ns per message")
    save(figure, folder, "queue")


def latency(rows, folder):
    columns = {"p50_ns": "p50", "p99_ns": "p99", "p999_ns": "p99.9", "max_ns": "largest"}
    groups = [
        [(f"{name}  {one}", one, seen) for one, seen in subjects(rows, column).items()]
        for column, name in columns.items()
    ]
    figure, _ = dots_figure(apart(groups), "from the hand-over to the send call, ns")
    save(figure, folder, "latency")


def throughput(rows, folder):
    for (protocol,), of in by(rows, "protocol").items():
        unit = "MB" if protocol == "tcp" else "messages"
        titles = {"rate": f"{unit} per second", "cpu_rate": f"{unit} per processor second"}
        entries = {column: grouped_entries(of, ("size",), column) for column in titles}
        height = 0.9 + 0.22 * max(map(len, entries.values()))
        figure, panels = pyplot.subplots(1, 2, figsize=(WIDTH * 1.25, height))
        for axes, (column, title) in zip(panels, titles.items()):
            if entries[column]:
                dots(axes, entries[column])
            axes.set_xlabel(title)
        panels[0].set_title("by the clock")
        panels[1].set_title("by the sending thread")
        figure.tight_layout()
        save(figure, folder, f"throughput-{protocol}")


# ---------------------------------------------------------------- curves


def scale(rows, folder):
    for (curve,), of in by(rows, "curve").items():
        points = scale_points(of)
        if len(points) < 2:
            continue
        figure, axes = pyplot.subplots(figsize=(WIDTH, 2.6))
        x = [at for at, _ in points]
        seen = [spread for _, spread in points]
        axes.fill_between(
            x, [one.low for one in seen], [one.high for one in seen], color=BLUE, alpha=0.25,
            linewidth=0,
        )  # fmt: skip
        axes.plot(x, [one.median for one in seen], "o-", color=BLUE, markersize=4, linewidth=1.2)
        axes.set_title(curve, loc="left")
        axes.set_xlabel(of[0]["x_unit"])
        axes.set_ylabel(of[0]["unit"])
        scale_axis(axes, "x", x, from_zero=False)
        scale_axis(axes, "y", [one.high for one in seen])
        save(figure, folder, f"scale-{slug(curve)}")


def deviations(folder):
    """(rate, subject) -> how often each deviation in ns was seen, all runs together."""
    path = folder / "pacing_histogram.csv.xz"
    found = {}
    if path.exists():
        with lzma.open(path, "rt", newline="") as file:
            for row in csv.DictReader(file):
                counts = found.setdefault((row["rate"], row["subject"]), {})
                size = abs(int(row["deviation_ns"]))
                counts[size] = counts.get(size, 0) + int(row["count"])
    return found


def beyond(counts):
    """Deviations in µs, and the share of the gaps that deviate by at least as much, at no
    more than CURVE_POINTS places."""
    sizes = numpy.array(sorted(counts))
    numbers = numpy.array([counts[size] for size in sizes], dtype=float)
    shares = numbers[::-1].cumsum()[::-1] / numbers.sum()
    x = numpy.maximum(sizes, 1) / 1000
    places = numpy.geomspace(x[0], x[-1], CURVE_POINTS)
    chosen = numpy.unique(numpy.minimum(numpy.searchsorted(x, places), x.size - 1))
    return x[chosen], shares[chosen]


def pacing(rows, folder):
    found = deviations(folder)
    for rate in dict.fromkeys(rate for rate, _ in found):
        figure, axes = pyplot.subplots(figsize=(WIDTH, 3.8))
        for (at, subject), counts in found.items():
            if at == rate:
                style = "--" if subject in DASHED else "-"
                width = 2.2 if subject == "sender" else 1.2
                axes.plot(
                    *beyond(counts), linestyle=style, linewidth=width, label=subject,
                    color=COLOURS.get(subject, GREY), zorder=3 if subject == "sender" else 2,
                )  # fmt: skip
        axes.set(xscale="log", yscale="log")
        axes.xaxis.set_major_formatter(ticker.FuncFormatter(number_text))
        axes.yaxis.set_major_formatter(ticker.FuncFormatter(number_text))
        axes.set_title(rate, loc="left")
        axes.set_xlabel("distance of a gap from the ideal gap, µs")
        axes.set_ylabel("share of gaps at least as far")
        axes.legend(loc="upper left", bbox_to_anchor=(1, 1), frameon=False)
        save(figure, folder, f"pacing-{slug(rate)}")


DRAWN = (poller, user_share, producer, throughput, pacing, scale, latency, queue)


def draw(folder):
    benchmarks = {benchmark.name: benchmark for benchmark in BENCHMARKS}
    with pyplot.rc_context(STYLE):
        for function in DRAWN:
            rows = benchmarks[function.__name__].read(folder)
            if rows:
                function(rows, folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("results", type=pathlib.Path, help="folder of the samples")
    options = parser.parse_args()
    try:
        require(options.results)
        draw(options.results)
    except Fault as fault:
        sys.exit(f"plots.py: {fault}")


if __name__ == "__main__":
    main()
