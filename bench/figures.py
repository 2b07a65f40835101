"""Reads the results of several process runs of the benchmarks, FOLDER/<group>.<run>.json.

At one thread a time is the CPU time of that thread, which other processes disturb least. At several
threads it is the wall time of one operation as each thread sees it: Debian's Google Benchmark divides
by the number of threads, which is undone here.
"""

import json
import re
import statistics
import sys
from collections import defaultdict
from typing import NamedTuple

NANOS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
NOT_FIGURES = {"real_time", "cpu_time", "iterations", "repetitions", "repetition_index", "threads",
               "family_index", "per_family_instance_index"}


class Figure(NamedTuple):
    """One number of a benchmark: its time, or a counter of it."""
    benchmark: str
    counter: str = "ns"


def key_of(name, threads):
    """The benchmark's name without what Google Benchmark appends, with its threads beyond one."""
    name = re.sub(r"/(real_time|manual_time|process_time|iterations:\d+|threads:\d+)", "", name)
    return name if threads == 1 else f"{name}@{threads}"


def time_of(entry):
    """Nanoseconds of one operation."""
    threads = entry.get("threads", 1)
    own_clock = threads > 1 or "/manual_time" in entry["name"] or "cpu_time" not in entry
    time = entry["real_time"] * threads if own_clock else entry["cpu_time"]
    return time * NANOS[entry["time_unit"]]


def read_run(path):
    """All figures of one process run."""
    figures = {}
    for entry in json.loads(path.read_text())["benchmarks"]:
        if entry.get("error_occurred"):
            sys.exit(f"{path}: {entry['name']}: {entry.get('error_message')}")
        key = key_of(entry["name"], entry.get("threads", 1))
        figures[Figure(key)] = time_of(entry)
        for name, value in entry.items():
            if isinstance(value, (int, float)) and name not in NOT_FIGURES:
                figures[Figure(key, name)] = value
        series = re.search(r"series:(\d+)", key)
        if series and key.startswith("PeerCollect"):
            figures[Figure(key, "ns_per_series")] = figures[Figure(key)] / int(series[1])
    return figures


def read_groups(folder):
    """The runs of each group of benchmarks. Ends the program where there are none."""
    groups = defaultdict(list)
    for path in sorted(folder.glob("*.*.json")):
        groups[path.name.split(".")[0]].append(read_run(path))
    if not groups:
        sys.exit(f"no results in {folder}")
    return groups


class Spread:
    """Median, lowest and highest of a figure over the runs."""

    def __init__(self, values):
        self.median = statistics.median(values)
        self.low, self.high = min(values), max(values)
        self.runs = len(values)

    def text(self, unit=""):
        def short(value):
            return f"{value:.0f}" if abs(value) >= 100 else f"{value:.3g}"
        end = f" {unit}" if unit else ""
        if self.runs == 1:
            return short(self.median) + end
        return f"{short(self.median)}{end} ({short(self.low)} to {short(self.high)})"


def figures_of(runs):
    """The spread of each figure over the runs of a group; no time where counters say more."""
    keys = dict.fromkeys(key for run in runs for key in run)
    measured_by_counters = {key.benchmark for key in keys if key.counter != "ns"}
    return {key: Spread([run[key] for run in runs if key in run]) for key in keys
            if key.counter != "ns" or key.benchmark not in measured_by_counters}


def table(head, rows):
    lines = [head, ["---"] * len(head), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)
