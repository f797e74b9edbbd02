#!/usr/bin/python3
"""Draws the samples that soak.py wrote into a folder as soak.svg: the memory of both programs
and the distance from the wanted rate over the time, a column per transport.

Usage: soak_plot.py FOLDER
"""
import csv
import pathlib
import sys

import plots


def read(path):
    with open(path, newline="") as file:
        return list(csv.DictReader(file))


def column(rows, name):
    return [float(row[name]) for row in rows]


def memory(axes, looks):
    for process, colour in (("sender", plots.BLUE), ("receiver", plots.ORANGE)):
        own = [look for look in looks if look["process"] == process]
        megabytes = [kilobytes / 1000 for kilobytes in column(own, "resident_kb")]
        axes.plot(column(own, "seconds"), megabytes, color=colour, label=process)
    axes.set_ylim(0, None)
    axes.set_ylabel("resident memory, MB")
    axes.legend()


def pace(axes, slices):
    lag = [seconds * 1000 for seconds in column(slices, "lag_seconds")]
    axes.plot(column(slices, "seconds"), lag, color=plots.BLUE, linewidth=0.8)
    axes.set_ylabel("behind the rate, ms")
    axes.set_xlabel("seconds")


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    folder = pathlib.Path(sys.argv[1])
    looks, slices = read(folder / "soak.csv"), read(folder / "pace.csv")
    protocols = list(dict.fromkeys(look["protocol"] for look in looks))
    plots.pyplot.rcParams.update(plots.STYLE)
    shape = {"nrows": 2, "ncols": len(protocols), "squeeze": False}
    figure, rows = plots.pyplot.subplots(figsize=(plots.WIDTH, 4.4), sharex="col", **shape)
    for protocol, top, bottom in zip(protocols, *rows):
        top.set_title(protocol)
        memory(top, [look for look in looks if look["protocol"] == protocol])
        pace(bottom, [one for one in slices if one["protocol"] == protocol])
    figure.tight_layout()
    plots.save(figure, folder, "soak")


if __name__ == "__main__":
    main()
