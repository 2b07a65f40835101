#!/usr/bin/env python3
"""instructions.py PROGRAM COUNTS [--update]

Counts the instructions of PROGRAM's regions (bench/instructions.cc) under callgrind and holds them
against the file COUNTS: an operation may take 25 % more than it says there. What a region "facade_x"
counts may be 5 % above region "x", the call of the layer below. --update writes the file
anew, with what was measured.
"""

import argparse
import pathlib
import re
import subprocess
import sys
import tempfile

MARGIN = 1.25
FACADE_MARGIN = 1.05


def measure(program):
    """The instructions of one operation, by the name of the region."""
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run(
            ["valgrind", "--tool=callgrind", "--collect-atstart=no",
             f"--callgrind-out-file={folder}/out", program],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=300, check=False)
        if run.returncode != 0:
            sys.exit(f"{program} failed under callgrind:\n{run.stderr}")
        totals = {}
        for dump in pathlib.Path(folder).iterdir():
            text = dump.read_text()
            region = re.search(r"^desc: Trigger: Client Request: (\S+)$", text, re.M)
            total = re.search(r"^(?:totals|summary): (\d+)$", text, re.M)
            if region and total:
                totals[region[1]] = int(total[1])
    operations = dict(line.split() for line in run.stdout.splitlines())
    if not operations or set(operations) != set(totals):
        sys.exit(f"regions {sorted(operations)}, but dumps of {sorted(totals)}")
    return {name: totals[name] / int(count) for name, count in operations.items()}


def read(path):
    lines = path.read_text().splitlines()
    return {name: float(count)
            for name, count in (line.split() for line in lines if line and line[0] != "#")}


def write(path, counts):
    comment = [line for line in path.read_text().splitlines() if line.startswith("#")]
    rows = [f"{name:<20} {count:7.1f}" for name, count in counts.items()]
    path.write_text("\n".join(comment + rows) + "\n")


def check(counts, kept):
    """Prints all counts, and answers whether none of them is too high or unknown."""
    good = set(counts) == set(kept)
    for name in sorted(set(kept) - set(counts)):
        print(f"{name:<20} is kept, but not measured any more")
    for name, count in counts.items():
        if name not in kept:
            print(f"{name:<20} {count:7.1f}  is not kept yet")
            continue
        change = count / kept[name]
        note = ""
        if change > MARGIN:
            good = False
            note = "  TOO MANY"
        elif change < 1 / MARGIN:
            note = "  fewer by far: update the file, so that they stay few"
        print(f"{name:<20} {count:7.1f}  kept {kept[name]:7.1f}  {100 * change:5.1f} %{note}")
    for name, count in counts.items():
        below = counts.get(name.removeprefix("facade_"))
        if count > FACADE_MARGIN * below:
            good = False
            print(f"{name} takes {100 * count / below:.1f} % of the call below it")
    return good


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program")
    parser.add_argument("counts", type=pathlib.Path)
    parser.add_argument("--update", action="store_true")
    arguments = parser.parse_args()
    counts = measure(arguments.program)
    if arguments.update:
        write(arguments.counts, counts)
    if not check(counts, read(arguments.counts)):
        sys.exit("instruction counts changed; where that is meant, run with --update and say why")


if __name__ == "__main__":
    main()
