"""Runs the benchmark of encoding and decoding, a Google Benchmark program of its own: bench/codec/ builds mivo_bench_codec.

Its benchmarks are named <what>/<encoding>: "small set/encode/libmivo" becomes the row "small set/encode" and the column
"libmivo" of the table."""

import json
import os
import subprocess

PROGRAM = os.path.join("codec", "mivo_bench_codec")


def results(programs, quick):
    """Name -> ns of CPU time for one, medians of several repetitions; or the reason why there is none."""
    program = os.path.join(programs, PROGRAM)
    if not os.access(program, os.X_OK):
        return {"left_out": "not built"}
    repetitions = 2 if quick else 5
    seconds = 0.02 if quick else 0.1
    run = subprocess.run([program, "--benchmark_format=json", f"--benchmark_repetitions={repetitions}",
                          f"--benchmark_min_time={seconds}", "--benchmark_enable_random_interleaving=true"],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False, timeout=900)
    if run.returncode != 0:
        return {"left_out": f"ended with {run.returncode}: {run.stderr.strip()[-200:]}"}
    found = {}
    for entry in json.loads(run.stdout)["benchmarks"]:
        if entry.get("aggregate_name") == "median":
            found[entry["run_name"]] = round(entry["cpu_time"], 1)
    return found
