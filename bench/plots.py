"""SVG plots, drawn by gnuplot."""

import math
import os
import subprocess

from measures import FREE, KIB, MIB, PLACEMENTS
from peers import PEERS

# latencies.cpp knows the same list.
QUANTILES = (0, 0.01, 0.05, 0.1, 0.25, 0.5, 0.75, 0.9, 0.95, 0.98, 0.99, 0.995, 0.998, 0.999, 0.9999)
LOCAL = [peer.name for peer in PEERS if peer.transport == "unix"]
# Each peer keeps its colour, whoever is in the plot; the library's is the strongest.
COLOURS = ("#888888", "#000000", "#d62728", "#1f77b4", "#2ca02c", "#ff7f0e", "#ffbb78", "#9467bd", "#c5b0d5", "#8c564b",
           "#17becf")


def _draw(path, title, setup, series):
    """Series: peer -> points."""
    blocks, plotted = [], []
    for position, (peer, points) in enumerate(series.items()):
        blocks.append(f"$data{position} << END\n" + "\n".join(f"{x} {y}" for x, y in points) + "\nEND")
        colour = COLOURS[LOCAL.index(peer) % len(COLOURS)]
        width = 3 if peer == "libmivo" else 1.5
        plotted.append(f'$data{position} with linespoints pointtype 7 pointsize 0.3 linewidth {width} '
                       f'linecolor rgb "{colour}" title "{peer}"')
    script = "\n".join(blocks + [
        "set terminal svg size 900,480 font 'sans,12' background rgb 'white'", f"set output '{path}'",
        f'set title "{title}"', "set key outside right noenhanced", "set grid", *setup, "plot " + ", ".join(plotted)])
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def _latency(rows, place):
    # The further right, the rarer: each step is a tenth of what is left.
    series = {}
    for peer in LOCAL:
        row = rows.get((peer, "call", place), {})
        if "quantiles_us" in row:
            series[peer] = [(-math.log10(1 - quantile) if quantile < 1 else 4, value)
                            for quantile, value in zip(QUANTILES, row["quantiles_us"]) if value > 0]
    marks = ", ".join(f'"{100 * q:g} %%" {-math.log10(1 - q):.4f}' for q in (0, 0.5, 0.9, 0.99, 0.999, 0.9999))
    return series, ["set logscale y", "set ylabel 'microseconds'", "set xlabel 'of the calls are at most as slow'",
                    f"set xtics ({marks})"]


def _over(rows, measures, field):
    series = {}
    for peer in LOCAL:
        points = [(x, rows[peer, name, FREE][field][0]) for x, name in measures
                  if field in rows.get((peer, name, FREE), {})]
        if len(points) > 1:
            series[peer] = points
    return series


def draw(results, folder):
    """Returns (title, file) of each plot for which there are figures."""
    os.makedirs(folder, exist_ok=True)
    rows = {(row["peer"], row["measure"], row["placement"]): row for row in results["figures"]}
    wanted = []
    for place in PLACEMENTS:
        title = {"free": "Small call", "1cpu": "Small call, everything on one CPU",
                 "split": "Small call, client and server on a CPU each"}[place]
        wanted.append((title, f"latency-{place}.svg", *_latency(rows, place)))
    callers = [(count, f"callers-{count}") for count in (1, 2, 4, 8, 16)]
    title = "Small calls a second, by callers on one connection"
    wanted.append((title, "callers.svg", _over(rows, callers, "calls_s"), [
        "set logscale x 2", "set logscale y", "set xlabel 'callers'", "set ylabel 'calls a second'"]))
    sizes = [(4 * KIB, "echo-4k"), (64 * KIB, "echo-64k"), (MIB, "echo-1m"), (16 * MIB, "echo-16m"),
             (256 * MIB, "large-256m")]
    marks = ", ".join(f'"{text}" {size}' for text, size in (("4 KiB", 4 * KIB), ("64 KiB", 64 * KIB), ("1 MiB", MIB),
                                                            ("16 MiB", 16 * MIB), ("256 MiB", 256 * MIB)))
    wanted.append(("Echo, by size (256 MiB by the means for data of any size)", "bandwidth.svg",
                   _over(rows, sizes, "mb_s"), [
                       "set logscale x 2", "set logscale y", "set ylabel 'MB/s, one direction'",
                       f"set xtics ({marks})"]))
    drawn = []
    for title, file, series, setup in wanted:
        if series:
            _draw(os.path.join(folder, file), title, setup, series)
            drawn.append((title, file))
    return drawn
