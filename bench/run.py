#!/usr/bin/env python3
"""Measures libmivo and its peers, a round of all of them after the other, and writes results as JSON.

`./dev bench` builds the programs and calls this one."""

import argparse
import datetime
import json
import os
import platform
import re
import resource
import statistics
import subprocess
import sys
import time

import codec
import report
from measures import MEASURES, PLACEMENTS
from peers import BEST, PEERS, RAW, RAW_TCP, TCP
from processes import Failed, Hogs, Server, SystemCalls, cpus_of, idle_memory, ALL_CPUS

HERE = os.path.dirname(os.path.abspath(__file__))


def arguments():
    parser = argparse.ArgumentParser(prog="./dev bench", description="Measures libmivo and its peers.")
    parser.add_argument("--quick", action="store_true", help="fewer rounds and measures, shorter ones: under 3 minutes")
    parser.add_argument("--rounds", type=int, help="how many rounds (5, or 2 with --quick)")
    parser.add_argument("--peers", default="", help="a,b: these only, and the two raw ones")
    parser.add_argument("--measures", default="", help="x,y: these only; a name ending in * stands for many")
    parser.add_argument("--placements", default="", help="free,1cpu,split: all measures there, instead of each where "
                        "it is usual")
    parser.add_argument("--codec", choices=("yes", "no", "only"), default="yes",
                        help="whether encoding and decoding are measured, too")
    parser.add_argument("--name", default="", help="of the results: bench/results/<name>.json (default: last, which is "
                        "not checked in)")
    parser.add_argument("--document", action="store_true", help="draw tables and plots of docs/benchmarks.md from them")
    parser.add_argument("--list", action="store_true", help="tells peers and measures")
    parser.add_argument("--programs", default=os.path.join(HERE, "..", "build", "bench", "bench"),
                        help=argparse.SUPPRESS)
    return parser.parse_args()


def chosen(text, known, what):
    if not text:
        return list(known)
    names = []
    for word in text.split(","):
        found = [name for name in known if name == word or (word.endswith("*") and name.startswith(word[:-1]))]
        if not found:
            sys.exit(f"no such {what}: {word} (--list tells them)")
        names += [name for name in found if name not in names]
    return names


def placements_of(measure, wanted):
    return wanted or measure.placements


class Run:
    def __init__(self, options):
        self.options = options
        self.rounds = options.rounds or (2 if options.quick else 5)
        names = chosen(options.peers, [peer.name for peer in PEERS], "peer")
        # The two that everything is compared with are always there.
        self.peers = [peer for peer in PEERS if peer.name in names or peer.name in (RAW, BEST)]
        wanted = chosen(options.measures, [measure.name for measure in MEASURES], "measure")
        self.measures = [m for m in MEASURES if m.name in wanted and (m.quick or not options.quick or options.measures)]
        self.placements = tuple(chosen(options.placements, PLACEMENTS, "placement")) if options.placements else ()
        self.system_calls = SystemCalls()
        self.rows = {}  # (peer, measure, placement) -> list of results
        self.errors = []
        self.missing = {}
        self._leave_out_missing()

    def _leave_out_missing(self):
        for peer in self.peers:
            for side in ("server", "client"):
                if not os.access(os.path.join(self.options.programs, f"bench_{peer.program}_{side}"), os.X_OK):
                    self.missing[peer.name] = "not built" + (": needs " + ", ".join(peer.packages)
                                                             if peer.packages else "")
        self.peers = [peer for peer in self.peers if peer.name not in self.missing]
        for name, reason in self.missing.items():
            print(f"{name}: left out, {reason}", file=sys.stderr)

    def one(self, server, measure, placement):
        if measure.name in server.peer.left_out:
            return {"left_out": server.peer.left_out[measure.name]}
        arguments = dict(measure.arguments)
        if self.options.quick:
            arguments.update(measure.quick_arguments)
        if measure.client == "hold":
            fresh = Server(server.peer, self.options.programs)
            try:
                return idle_memory(fresh, arguments["connections"])
            finally:
                fresh.stop()
        cpus = cpus_of(placement, "client")
        server.place(cpus_of(placement, "server"))
        try:
            if measure.name == "syscalls":
                return self.system_calls.per_call(server, cpus)
            seconds = measure.seconds / (2 if self.options.quick else 1)
            with Hogs(measure.hogs):
                return server.client(measure.client, {**arguments, "seconds": seconds}, cpus)
        finally:
            if server.alive():
                server.place(ALL_CPUS)

    def round(self, number):
        servers = {peer.name: Server(peer, self.options.programs) for peer in self.peers}
        try:
            for position, measure in enumerate(self.measures):
                if number >= measure.rounds:
                    continue
                for placement in placements_of(measure, self.placements):
                    # Nobody always comes first.
                    turn = (number * 5 + position * 2) % len(self.peers)
                    for peer in self.peers[turn:] + self.peers[:turn]:
                        if peer.transport == "tcp" and not measure.tcp:
                            continue
                        if measure.name not in peer.measures and (peer.measures or measure.layer):
                            continue
                        self._note(servers, peer, measure, placement)
        finally:
            for server in servers.values():
                server.stop()

    def _note(self, servers, peer, measure, placement):
        key = (peer.name, measure.name, placement)
        try:
            if not servers[peer.name].alive():
                servers[peer.name].stop()
                servers[peer.name] = Server(peer, self.options.programs)
            result = self.one(servers[peer.name], measure, placement)
            self.rows.setdefault(key, []).append(result)
        except (Failed, OSError) as error:
            self.errors.append({"peer": peer.name, "measure": measure.name, "placement": placement,
                                "error": str(error).strip()})
            print(f"{peer.name} {measure.name} {placement}: {error}", file=sys.stderr)
            servers[peer.name].stop()
            servers[peer.name] = Server(peer, self.options.programs)

    def results(self):
        figures = []
        for (peer, measure, placement), rows in self.rows.items():
            figures.append({"peer": peer, "measure": measure, "placement": placement, **combined(rows)})
        add_ratios(figures)
        return figures


def combined(rows):
    """Of each field the median over the rounds; of numbers also the least and the greatest."""
    if any("left_out" in row for row in rows):
        return {"left_out": rows[0]["left_out"]}
    result = {"rounds": len(rows)}
    for name, value in rows[0].items():
        values = [row[name] for row in rows]
        if isinstance(value, list):
            result[name] = [round(statistics.median(column), 2) for column in zip(*values)]
        elif isinstance(value, (bool, str)):
            result[name] = value
        else:
            result[name] = [round(x, 4) for x in (statistics.median(values), min(values), max(values))]
    return result


def add_ratios(figures):
    """x_raw, x_best, x_raw_tcp: the figure that stands for the measure, divided by that of the raw ones."""
    figure_of = {measure.name: measure.figure for measure in MEASURES}
    medians = {}
    for row in figures:
        if figure_of[row["measure"]] in row:
            medians[row["peer"], row["measure"], row["placement"]] = row[figure_of[row["measure"]]][0]
    for row in figures:
        own = medians.get((row["peer"], row["measure"], row["placement"]))
        for name, other in (("x_raw", RAW), ("x_best", BEST), ("x_raw_tcp", RAW_TCP)):
            if other == RAW_TCP and row["peer"] not in TCP:
                continue
            theirs = medians.get((other, row["measure"], row["placement"]))
            if own is not None and theirs:
                row[name] = round(own / theirs, 3)


def first_line(command):
    try:
        run = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False,
                             cwd=HERE)
        return run.stdout.splitlines()[0].strip()
    except (OSError, IndexError):
        return "unknown"


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as cpuinfo:
        model = re.search(r"model name\s*:\s*(.*)", cpuinfo.read())
    pages = os.sysconf("SC_PHYS_PAGES") * os.sysconf("SC_PAGE_SIZE")
    return {
        "cpu": model.group(1) if model else platform.machine(),
        "cpus": len(ALL_CPUS),
        "memory_gib": round(pages / (1 << 30)),
        "kernel": platform.release(),
        "system": first_line(["sh", "-c", ". /etc/os-release; echo $PRETTY_NAME"]),
        "compiler": first_line(["c++", "--version"]),
    }


def versions(peers):
    found = {}
    for package in sorted({package for peer in peers for package in peer.packages}):
        found[package] = first_line(["dpkg-query", "-W", "-f=${Version}\n", package])
    return found


def compact(results):
    """JSON with one figure a line: small, and its changes can be read."""
    head = {key: value for key, value in results.items() if key != "figures"}
    text = json.dumps(head, indent=1)[:-2] + ',\n "figures": [\n'
    return text + ",\n".join("  " + json.dumps(row, separators=(",", ":")) for row in results["figures"]) + "\n ]\n}\n"


def main():
    options = arguments()
    if options.list:
        print("Peers")
        for peer in PEERS:
            print(f"  {peer.name:18} {peer.note}")
        print("Measures")
        for measure in MEASURES:
            print(f"  {measure.name:18} {measure.what}")
        return 0
    # Thousands of connections are held.
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))

    run = Run(options)
    started = time.monotonic()
    begin = datetime.datetime.now(datetime.timezone.utc)
    load = os.getloadavg()[0]
    rounds = 0 if options.codec == "only" else run.rounds
    for number in range(rounds):
        run.round(number)
        print(f"round {number + 1} of {rounds}: {time.monotonic() - started:.0f} s", file=sys.stderr)
    results = {
        "date": begin.strftime("%Y-%m-%d %H:%M UTC"),
        "library": first_line(["git", "describe", "--always", "--dirty"]),
        "machine": machine(),
        "load_at_start": round(load, 2),
        "rounds": rounds,
        "quick": options.quick,
        "seconds": round(time.monotonic() - started),
        "peers": {peer.name: peer.note for peer in run.peers},
        "versions": versions(run.peers),
        "missing": run.missing,
        "errors": run.errors,
        "codec": codec.results(options.programs, options.quick) if options.codec != "no" else {},
        "figures": run.results(),
    }
    path = os.path.join(HERE, "results", (options.name or "last") + ".json")
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w", encoding="utf-8") as file:
        file.write(compact(results))
    print(report.tables(results))
    if options.document:
        report.write_document(results)
    print(f"written: {os.path.relpath(path)}", file=sys.stderr)
    return 1 if run.errors else 0


if __name__ == "__main__":
    sys.exit(main())
