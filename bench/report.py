#!/usr/bin/env python3
"""Draws tables and plots from results.

    bench/report.py bench/results/<name>.json              tables to standard output
    bench/report.py bench/results/<name>.json --document   into docs/benchmarks.md, plots into docs/plots/"""

import argparse
import json
import os
import re
import sys

import plots
from measures import FREE, MEASURES, ONE_CPU, PLACEMENTS, SPLIT
from peers import BEST, LAYERS, RAW, RAW_TCP, TCP

HERE = os.path.dirname(os.path.abspath(__file__))
DOCUMENT = os.path.join(HERE, "..", "docs", "benchmarks.md")
BEGIN, END = "<!-- figures: written by bench/report.py -->", "<!-- end of figures -->"
OURS = "libmivo"
PLACES = {FREE: "free", ONE_CPU: "1 CPU", SPLIT: "split"}
# Of the figures that stand for measures.
SMALLER_IS_BETTER = ("p50_us", "p99_us", "kib", "syscalls", "wakeups")

# Near 0 for some, so that a ratio would say nothing.
WITHOUT_RATIO = ("switches", "wakeups", "client_wakeups", "server_wakeups")


def number(value, digits=1):
    if abs(value) >= 1e6:
        return f"{value / 1e6:.2f}M"
    if abs(value) >= 1e5:
        return f"{value / 1e3:.0f}k"
    if abs(value) >= 1000:
        return f"{value:,.0f}"
    if abs(value) >= 100:
        return f"{value:.0f}"
    return f"{value:.{digits}f}"


class Figures:
    def __init__(self, results):
        self.results = results
        self.rows = {(row["peer"], row["measure"], row["placement"]): row for row in results["figures"]}

    def peers(self, tcp):
        return [name for name in self.results["peers"] if (name in TCP) == tcp and name not in LAYERS]

    def row(self, peer, measure, place):
        return self.rows.get((peer, measure, place), {})

    def median(self, peer, measure, place, field):
        values = self.row(peer, measure, place).get(field)
        return values[0] if isinstance(values, list) else None

    def cell(self, peer, column, references):
        _, measure, place, field, digits = column
        row = self.row(peer, measure, place)
        if "left_out" in row:
            return "-"
        value = self.median(peer, measure, place, field)
        if value is None:
            return ""
        ratios = []
        for other in references:
            theirs = self.median(other, measure, place, field)
            if field in WITHOUT_RATIO:
                continue
            ratios.append(number(value / theirs, 2) if theirs else "-")
        own = " \\*" if row.get("own_connections") and measure.startswith(("callers", "hogs-callers", "posts", "travel",
                                                                         "hogs-posts")) else ""
        return number(value, digits) + own + (f" ({'; '.join(ratios)})" if any(r != "-" for r in ratios) else "")

    def table(self, title, columns, tcp=False, peers=None):
        """Columns: (heading, measure, placement, field, digits). Nothing where nothing was measured."""
        references = (RAW_TCP,) if tcp else (RAW, BEST)
        lines = []
        for peer in self.peers(tcp) if peers is None else [name for name in self.results["peers"] if name in peers]:
            cells = [self.cell(peer, column, references) for column in columns]
            if any(cells):
                name = f"**{peer}**" if peer.startswith(OURS) else peer
                lines.append(f"| {name} | " + " | ".join(cells) + " |")
        if not lines:
            return []
        return [f"### {title}", "", "| | " + " | ".join(column[0] for column in columns) + " |",
                "|---|" + "--:|" * len(columns), *lines, ""]


def call_columns(measure, place, cpu=True):
    columns = [("p50 us", measure, place, "p50_us", 1), ("p99 us", measure, place, "p99_us", 1),
               ("p99.9 us", measure, place, "p999_us", 1), ("mean us", measure, place, "mean_us", 1)]
    if cpu:
        columns += [("CPU s / 100k", measure, place, "cpu_s_100k", 2),
                    ("switches / call", measure, place, "switches", 2)]
    return columns


def all_tables(figures):
    lines = []
    for place in PLACEMENTS:
        lines += figures.table(f"Small call, {PLACES[place]}", call_columns("call", place))
    lines += figures.table("System calls for each small call", [
        (f"{PLACES[place]}: {side or 'both'}", "syscalls", place, side + ("_" if side else "") + "syscalls", 1)
        for place in (FREE, ONE_CPU) for side in ("client", "server", "")])
    lines += figures.table("Many callers, calls a second", [
        *[(f"{count} on 1", f"callers-{count}", FREE, "calls_s", 0) for count in (1, 2, 4, 8, 16)],
        ("8 x 1", "connections-8", FREE, "calls_s", 0)])
    lines += figures.table("Many callers, CPU s / 100k", [
        ("8 on 1", "callers-8", FREE, "cpu_s_100k", 2), ("8 x 1", "connections-8", FREE, "cpu_s_100k", 2)])
    lines += figures.table("The sum of two numbers through the plain interface and through the typed layer", [
        ("free p50 us", "call", FREE, "p50_us", 1), ("free p99 us", "call", FREE, "p99_us", 1),
        ("1 CPU p50 us", "call", ONE_CPU, "p50_us", 1), ("1 CPU, CPU s / 100k", "call", ONE_CPU, "cpu_s_100k", 2),
        ("10,000 under way /s", "async-10000", FREE, "calls_s", 0)], peers=LAYERS)
    lines += figures.table("Posts, a second; openings with a first call, a second", [
        ("posts, 1 thread", "posts-1", FREE, "posts_s", 0), ("posts, 8 threads", "posts-8", FREE, "posts_s", 0),
        ("open", "open", FREE, "opens_s", 0)])
    lines += figures.table("Small call beside slow handlers, us", [
        (f"{field[:-3]}, {count}", f"slow-{count}", FREE, field, 1)
        for count in (1, 3, 8) for field in ("p50_us", "p99_us")])
    lines += figures.table("Small call while 256 MiB travel", [
        ("p50 us", "travel", FREE, "p50_us", 1), ("p99 us", "travel", FREE, "p99_us", 1),
        ("MB/s meanwhile", "travel", FREE, "travel_mb_s", 0)])
    lines += figures.table("Small call from the server to its client", [
        ("p50 us", "back", FREE, "p50_us", 1), ("p99 us", "back", FREE, "p99_us", 1),
        ("right after a call: p50 us", "back-after-call", FREE, "p50_us", 1),
        ("p99 us", "back-after-call", FREE, "p99_us", 1)])
    lines += figures.table("Echo in one message, MB/s", [
        (size, f"echo-{name}", FREE, "mb_s", 0)
        for name, size in (("4k", "4 KiB"), ("64k", "64 KiB"), ("1m", "1 MiB"), ("16m", "16 MiB"))])
    lines += figures.table("Echo by the means for data of any size, MB/s", [
        (size, f"large-{name}", FREE, "mb_s", 0) for name, size in (("16m", "16 MiB"), ("256m", "256 MiB"))])
    lines += figures.table("Memory of the server for each idle connection, KiB", [
        ("1,000", "idle-1000", FREE, "kib", 2), ("10,000", "idle-10000", FREE, "kib", 2)])
    lines += figures.table("Wake-ups in a second without anything to do", [
        ("client", "idle-wakeups", FREE, "client_wakeups", 0), ("server", "idle-wakeups", FREE, "server_wakeups", 0)])
    lines += figures.table("Beside two busy processes", [
        ("call p50 us", "hogs-call", FREE, "p50_us", 1), ("p99 us", "hogs-call", FREE, "p99_us", 1),
        ("8 on 1 /s", "hogs-callers-8", FREE, "calls_s", 0), ("8 x 1 /s", "hogs-connections-8", FREE, "calls_s", 0),
        ("posts /s", "hogs-posts-1", FREE, "posts_s", 0), ("server to client p50 us", "hogs-back", FREE, "p50_us", 1),
        ("1 MiB MB/s", "hogs-echo-1m", FREE, "mb_s", 0), ("open /s", "hogs-open", FREE, "opens_s", 0)])
    lines += figures.table("TCP loopback (in brackets: ratio to raw-tcp)", [
        ("free p50 us", "call", FREE, "p50_us", 1), ("free p99 us", "call", FREE, "p99_us", 1),
        ("1 CPU p50 us", "call", ONE_CPU, "p50_us", 1), ("split p50 us", "call", SPLIT, "p50_us", 1),
        ("8 on 1 /s", "callers-8", FREE, "calls_s", 0), ("8 x 1 /s", "connections-8", FREE, "calls_s", 0),
        ("1 MiB MB/s", "echo-1m", FREE, "mb_s", 0), ("16 MiB MB/s", "echo-16m", FREE, "mb_s", 0),
        ("open /s", "open", FREE, "opens_s", 0)], tcp=True)
    return lines


def losses(figures):
    """Every measure in which a peer is ahead of the library."""
    lines = []
    for measure in MEASURES:
        for place in PLACEMENTS:
            for tcp, ours in ((False, OURS), (True, OURS + "-tcp")):
                own = figures.median(ours, measure.name, place, measure.figure)
                if own is None:
                    continue
                ahead = []
                for peer in figures.peers(tcp):
                    theirs = figures.median(peer, measure.name, place, measure.figure)
                    if peer == ours or theirs is None:
                        continue
                    if theirs < own if measure.figure in SMALLER_IS_BETTER else theirs > own:
                        ahead.append(f"{peer} {number(theirs)}")
                if ahead:
                    lines.append(f"| {measure.name}{' over TCP' if tcp else ''}, {PLACES[place]} "
                                 f"| {measure.figure} | {number(own)} | {', '.join(ahead)} |")
    if not lines:
        return []
    return ["### Who is ahead of libmivo, and in what", "",
            "| measure | figure | libmivo | ahead |", "|---|---|--:|---|", *lines, ""]


def spread(figures):
    """Least and greatest of the figure that stands for each measure, over the rounds."""
    lines = []
    for measure in MEASURES:
        for place in PLACEMENTS:
            cells = []
            for peer in (RAW, BEST, OURS):
                values = figures.row(peer, measure.name, place).get(measure.figure)
                cells.append(f"{number(values[0])} ({number(values[1])} - {number(values[2])})" if values else "-")
            if any(cell != "-" for cell in cells):
                lines.append(f"| {measure.name}, {PLACES[place]} | {measure.figure} | " + " | ".join(cells) + " |")
    return ["### Spread over the rounds: median (least - greatest)", "",
            f"| measure | figure | {RAW} | {BEST} | {OURS} |", "|---|---|--:|--:|--:|", *lines, ""]


def codec_table(codec):
    """Names are <set>/<operation>/<encoding>: a row for each set and operation, a column for each encoding."""
    if not codec:
        return []
    if "left_out" in codec:
        return [f"Encoding and decoding were not measured: {codec['left_out']}.", ""]
    encodings, rows = [], {}
    for name, ns in codec.items():
        what, _, encoding = name.rpartition("/")
        if encoding not in encodings:
            encodings.append(encoding)
        rows.setdefault(what, {})[encoding] = ns
    lines = ["### Encoding and decoding, ns", "",
             "| | " + " | ".join(encodings) + " |", "|---|" + "--:|" * len(encodings)]
    for what, row in rows.items():
        lines.append(f"| {what} | " + " | ".join(number(row[e]) if e in row else "" for e in encodings) + " |")
    return lines + [""]


def left_out(results):
    reasons = {}
    for row in results["figures"]:
        if "left_out" in row:
            reasons.setdefault((row["peer"], row["left_out"]), []).append(row["measure"])
    lines = [f"- {peer}: {', '.join(dict.fromkeys(names))}: {reason}" for (peer, reason), names in reasons.items()]
    lines += [f"- {peer}: everything: {reason}" for peer, reason in results["missing"].items()]
    lines += [f"- {e['peer']}: {e['measure']}, {PLACES[e['placement']]}: failed: {e['error'].splitlines()[0][:150]}"
              for e in results["errors"]]
    return ["### Left out", "", *lines, ""] if lines else []


def head(results):
    machine = results["machine"]
    versions = ", ".join(f"{name} {version}" for name, version in results["versions"].items())
    return [
        f"{results['date']}, library {results['library']}, {results['rounds']} rounds"
        + (" (quick)" if results["quick"] else "") + f" in {results['seconds']} s. "
        f"{machine['cpu']}, {machine['cpus']} CPUs, {machine['memory_gib']} GiB, {machine['system']}, "
        f"kernel {machine['kernel']}, {machine['compiler']}; load at the start {results['load_at_start']}.",
        "",
        *([f"Peers: {versions}.", ""] if versions else []),
        "Medians over the rounds; in brackets the ratio to raw; to raw-best. \\*: on connections of their own, because "
        "the peer cannot share one. -: left out, with the reason at the end.",
        "",
    ]


def tables(results):
    figures = Figures(results)
    return "\n".join(head(results) + all_tables(figures) + codec_table(results["codec"]) + losses(figures)
                     + spread(figures) + left_out(results))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("results")
    parser.add_argument("--document", action="store_true", help="rewrite the figures in docs/benchmarks.md")
    options = parser.parse_args()
    with open(options.results, encoding="utf-8") as file:
        results = json.load(file)
    if options.document:
        write_document(results)
    else:
        print(tables(results))
    return 0


def write_document(results):
    with open(DOCUMENT, encoding="utf-8") as file:
        document = file.read()
    if BEGIN not in document or END not in document:
        sys.exit("docs/benchmarks.md has lost the lines between which the figures stand")
    drawn = plots.draw(results, os.path.join(os.path.dirname(DOCUMENT), "plots"))
    images = "\n".join(f"![{title}](plots/{file})" for title, file in drawn)
    figures = f"{BEGIN}\n\n{images}\n\n{tables(results)}\n{END}"
    document = re.sub(re.escape(BEGIN) + ".*" + re.escape(END), lambda _: figures, document, flags=re.S)
    with open(DOCUMENT, "w", encoding="utf-8") as file:
        file.write(document)


if __name__ == "__main__":
    sys.exit(main())
