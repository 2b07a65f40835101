#!/usr/bin/env python3
"""compare.py BEFORE AFTER

Holds two folders with results of scripts/bench.sh against each other, made on one machine: each figure
with its median before and after and their ratio. A figure has moved when no run of one folder lies
within the range of the other's; one run each has no range, and moves nothing.
"""

import pathlib
import sys

from figures import figures_of, read_groups, table


def moved(before, after):
    """In which direction, for the last column."""
    if before.runs < 2 or after.runs < 2:
        return ""
    if after.low > before.high:
        return "up"
    return "down" if after.high < before.low else ""


def ratio(before, after):
    return f"{after.median / before.median:.2f}" if before.median else ""


def compare(before, after):
    rows = []
    for group in sorted(before.keys() | after.keys()):
        olds, news = (figures_of(groups.get(group, [])) for groups in (before, after))
        for figure in dict.fromkeys([*olds, *news]):
            old, new = olds.get(figure), news.get(figure)
            both = old and new
            rows.append([group, f"`{figure.benchmark}`", figure.counter,
                         old.text() if old else "none", new.text() if new else "none",
                         ratio(old, new) if both else "", moved(old, new) if both else ""])
    return rows


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    before, after = (read_groups(pathlib.Path(folder)) for folder in sys.argv[1:])
    rows = compare(before, after)
    print(table(["Group", "Benchmark", "Figure", "Before", "After", "Ratio", "Moved"], rows))
    count = sum(bool(row[-1]) for row in rows)
    print(f"\n{count} of {len(rows)} figures moved beyond the spread of their runs.")


if __name__ == "__main__":
    main()
