#!/usr/bin/env python3
"""What a small call may cost, in figures that do not depend on the clock or on who else uses the machine.

Instructions, allocations, system calls and voluntary context switches for each small call, of client and server, are
compared with bench/limits.json. `./dev gate` builds the programs and calls this one."""

import argparse
import json
import os
import re
import sys
import tempfile

from peers import Peer
from processes import Failed, Server, SystemCalls, cpus_of
from measures import ONE_CPU

HERE = os.path.dirname(os.path.abspath(__file__))
LIMITS = os.path.join(HERE, "limits.json")

# What may come on top: a part of the figure, and so much more where figures are small. Allocations do not vary.
# Instructions do with compiler and C library; switches and system calls with how client and server interlock.
MARGINS = {
    "instructions": (0.10, 200),
    "allocations": (0.0, 0.3),
    "syscalls": (0.20, 1.5),
    "switches": (0.10, 0.5),
    "typed-instructions": (0.0, 0.0),
    "typed-allocations": (0.0, 0.3),
}
# Promised, and so not taken from a run: the typed layer costs a tenth more than the plain interface at most, and no
# allocation.
PROMISED = {
    "client typed-instructions": 1.10,
    "server typed-instructions": 1.10,
    "client typed-allocations": 0.0,
    "server typed-allocations": 0.0,
}
# Whatever disturbs a run adds to its figures: the least of several runs is the one that tells of the code.
REPETITIONS = 3
FEW, MANY = 200, 1200


def both(name, client, server):
    return {f"client {name}": round(client, 2), f"server {name}": round(server, 2)}


def instructions(peer, programs):
    """Of a process's whole life, with few calls and with many; the difference is that of the calls."""
    totals = []
    for calls in (FEW, MANY):
        with tempfile.TemporaryDirectory() as folder:
            files = [os.path.join(folder, side) for side in ("client", "server")]
            callgrind = [["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={file}"] for file in files]
            server = Server(peer, programs, callgrind[1])
            try:
                server.place(cpus_of(ONE_CPU, "server"))
                server.client("call", {"calls": calls}, cpus_of(ONE_CPU, "client"), callgrind[0])
            finally:
                server.stop()
            totals.append([_total(file) for file in files])
    return both("instructions", *[(many - few) / (MANY - FEW) for few, many in zip(*totals)])


def _total(file):
    try:
        with open(file, encoding="utf-8") as report:
            return int(re.search(r"^(?:summary|totals): (\d+)", report.read(), re.M).group(1))
    except (OSError, AttributeError):
        raise Failed("callgrind left no figures") from None


def allocations_and_switches(peer, programs):
    server = Server(peer, programs)
    try:
        server.place(cpus_of(ONE_CPU, "server"))
        result = server.client("call", {"calls": 5000}, cpus_of(ONE_CPU, "client"))
    finally:
        server.stop()
    return {**both("allocations", result["client_allocations"], result["server_allocations"]),
            **both("switches", result["client_switches"], result["server_switches"])}


def system_calls(peer, programs):
    # perf disturbs less, but is not everywhere, and figures of the two cannot be compared.
    counter = SystemCalls(tools=("strace",))
    server = Server(peer, programs)
    try:
        server.place(cpus_of(ONE_CPU, "server"))
        result = counter.per_call(server, cpus_of(ONE_CPU, "client"), FEW, MANY)
    finally:
        server.stop()
    if "left_out" in result:
        raise Failed(result["left_out"])
    return both("syscalls", result["client_syscalls"], result["server_syscalls"])


def measured(peer, programs):
    """The least of each figure, and why system calls are left out if they are: not every container allows tracing."""
    least = {}
    left_out = None
    for _ in range(REPETITIONS):
        found = {**instructions(peer, programs), **allocations_and_switches(peer, programs)}
        try:
            found.update(system_calls(peer, programs))
        except Failed as error:
            left_out = str(error)
        for name, value in found.items():
            least[name] = min(value, least.get(name, value))
    return {**least, **typed(programs)}, left_out


def typed(programs):
    """What the sum of two numbers costs through the typed layer, for each that it costs through the plain interface."""
    plain, layer = [{**instructions(peer, programs), **allocations_and_switches(peer, programs)}
                    for peer in (Peer("gate", "gate_add", kind) for kind in ("plain", "typed"))]
    found = {}
    for side in ("client", "server"):
        found[f"{side} typed-instructions"] = layer[f"{side} instructions"] / plain[f"{side} instructions"]
        # A ratio would hide one more where there are few.
        found[f"{side} typed-allocations"] = layer[f"{side} allocations"] - plain[f"{side} allocations"]
    return {name: round(value, 2) for name, value in found.items()}


def allowed(name, limit):
    part, more = MARGINS[name.split()[1]]
    return limit * (1 + part) + more


def main():
    parser = argparse.ArgumentParser(prog="./dev gate", description="Compares what a small call costs with "
                                     "bench/limits.json: instructions, allocations, system calls, switches.")
    parser.add_argument("--update", action="store_true", help="write what is measured into bench/limits.json")
    parser.add_argument("--programs", default=os.path.join(HERE, "..", "build", "bench", "bench"),
                        help=argparse.SUPPRESS)
    options = parser.parse_args()
    try:
        found, left_out = measured(Peer("gate", "gate"), options.programs)
    except Failed as error:
        print(f"the gate cannot measure: {error}")
        return 1
    if options.update and left_out:
        print(f"the gate cannot measure system calls: {left_out}")
        return 1
    if options.update:
        with open(LIMITS, "w", encoding="utf-8") as file:
            json.dump({name: value for name, value in found.items() if name not in PROMISED}, file, indent=1)
            file.write("\n")
        for name, value in found.items():
            print(f"{name:26} {value:10.2f}")
        return 0

    with open(LIMITS, encoding="utf-8") as file:
        limits = {**json.load(file), **PROMISED}
    status = 0
    print(f"{'for each small call':26} {'measured':>10} {'checked in':>10} {'allowed':>10}")
    for name in sorted(found.keys() | limits.keys()):
        if name not in found and left_out and name.endswith("syscalls"):
            print(f"{name:26} is left out: {left_out}")
            continue
        if name not in limits or name not in found:
            print(f"{name:26} is {'not measured' if name not in found else 'not checked in'}")
            status = 1
            continue
        verdict = ""
        if found[name] > allowed(name, limits[name]):
            verdict = "  TOO MANY"
            status = 1
        elif name not in PROMISED and limits[name] > allowed(name, found[name]):
            verdict = "  far fewer: ./dev gate --update keeps it so"
        print(f"{name:26} {found[name]:10.2f} {limits[name]:10.2f} {allowed(name, limits[name]):10.2f}{verdict}")
    return status


if __name__ == "__main__":
    sys.exit(main())
