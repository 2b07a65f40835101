#!/usr/bin/env python3
"""against_peer.py FOLDER [DOCUMENT]

Reads the results of several process runs of the benchmarks, FOLDER/<group>.<run>.json, and writes
FOLDER/results.md: a table of what was asked for against what was measured, and one of all figures.
FOLDER/results.svg shows the first as a plot. DOCUMENT gets the first table between its two marks. A
ratio is taken within each run, between figures of the same process or, for the peer's emissions, of one
that ran right after it; shown are the median of the runs and, in brackets, the lowest and the highest.
"""

import pathlib
import sys
from html import escape
from typing import NamedTuple, Optional

from figures import Figure, Spread, figures_of, read_groups, table

MARKS = ("<!-- results -->", "<!-- end of results -->")


class Row(NamedTuple):
    """`figure` is to be at most `bar`: times `over`, or as it stands. `over` is of `over_group`, if that
    is another group. `beside` is shown, and not held against anything."""
    group: str
    what: str
    figure: Figure
    bar: float
    over: Optional[Figure] = None
    than: str = ""
    unit: str = "ns"
    over_group: str = ""
    beside: Optional[Figure] = None


def times(name):
    return Figure(name)


def flush(name, series, pre_encode):
    return Figure(f"FlushDropped/{name}/series:{series}/pre_encode:{pre_encode}", "ns_per_series")


def cold_flush(series):
    return Figure(f"FlushCold/rate/series:{series}/pre_encode:0", "ns_per_series")


def peer_collect(series, cold=""):
    name = f"PeerCollect{cold}" if cold else "PeerCollect/counter"
    return Figure(f"{name}/series:{series}", "ns_per_series")


def ready(length, tags, series, bar, what):
    """A look-up with a ready list of tags."""
    where = f"bytes:{length}/tags:{tags}/series:{series}"
    return Row("tags", what, times(f"WithTags/{where}"), bar, times(f"PeerLabels/{where}"), LOOK_UP,
               over_group="peer")


def anew(tags, bar, what):
    """A look-up with tags made on the call: the library's form for that against the peer's."""
    where = f"bytes:40/tags:{tags}/series:100"
    return Row("tags", what, times(f"WithTagViews/{where}"), bar, times(f"PeerLabelsAnew/{where}"),
               "the peer's look-up by labels made on the call", over_group="peer")


def one_call(tags, bar, what):
    where = f"bytes:40/tags:{tags}/series:100"
    return Row("tags", what, times(f"OneCall/{where}"), bar, times(f"PeerLabels/{where}"), LOOK_UP,
               over_group="peer")


def by_two(what, name, bar):
    """Two threads on one series over one thread."""
    return Row("shared", what, times(f"{name}@2"), bar, times(name), "1 thread")


def stall(series, name):
    """The longest emission while the metric grows to that many series."""
    where = f"LongestEmission/series:{series}"
    return Row("stall", name, Figure(where, "growth_longest_us"), 1000, unit="us",
               beside=Figure(where, "growth_spin_longest_us"), than="the thread without an emission")


LOOK_UP = "the peer's look-up by labels and increment"
COLLECT = "the peer's collection as text"
COLD_COLLECT = "the peer's collection as text, with cold caches"
LOCKS = "a shared-lock round trip"
COUNTER = "the peer's cached counter"
ADD = "a locked add"
PLAIN_LOCK = "the plain lock"
MEMORY = Figure("MemoryOfRates/tags_encoded_at_flush", "bytes_per_series")
PEAK = Figure("MemoryOfRates/tags_encoded_at_flush", "bytes_per_series_at_flush_peak")

ROWS = [
    ready(10, 1, 100, 0.42, "`WithTags` and `Emit`, ready list, values of 10 bytes, 1 tag"),
    ready(10, 3, 100, 0.32, "the same, 3 tags"),
    ready(40, 1, 100, 0.42, "`WithTags` and `Emit`, ready list, values of 20 to 60 bytes, 1 tag"),
    ready(40, 3, 100, 0.32, "the same, 3 tags"),
    ready(40, 8, 100, 0.25, "the same, 8 tags"),
    anew(1, 0.4, "`WithTags` and `Emit`, tags made on the call, 1 tag"),
    anew(3, 0.25, "the same, 3 tags"),
    anew(8, 0.15, "the same, 8 tags"),
    ready(40, 1, 100000, 0.6, "`WithTags` and `Emit` among 100,000 series at random, 1 tag"),
    ready(40, 3, 100000, 0.55, "the same, 3 tags"),
    ready(40, 8, 100000, 0.5, "the same, 8 tags"),
    one_call(1, 0.35, "one call, 1 tag"),
    one_call(3, 0.28, "the same, 3 tags"),
    by_two("one call, 1 tag, 2 threads on one series", "OneCall/shared/tags:1", 1.3),
    Row("shared", "`WithTags` and `Emit`, 1 tag, 2 threads on one series",
        times("WithTags/shared/tags:1@2"), 0.2, times("PeerLabelsShared/tags:1@2"), LOOK_UP,
        over_group="peer_shared"),
    Row("shared", "the same, 3 tags",
        times("WithTags/shared/tags:3@2"), 0.5, times("PeerLabelsShared/tags:3@2"), LOOK_UP,
        over_group="peer_shared"),
    Row("tags", "emissions 3 to 60 of a series, 1 tag, cold",
        Figure("FirstByTags/tags:1", "emission_3_to_60_ns"), 1.1,
        Figure("FirstByTags/tags:1", "emission_later_ns"), "later ones"),
    Row("tags", "the same on a held item",
        Figure("FirstOnHeld/tags:1", "emission_3_to_60_ns"), 1.1,
        Figure("FirstOnHeld/tags:1", "emission_later_ns"), "later ones"),
    Row("emit", "held item, `Emit` of one value, 1 thread",
        times("HeldItem"), 2, times("SharedLockRoundTrip"), LOCKS),
    Row("emit", "the same, the value made by `Incr` on each call",
        times("HeldItemVerb"), 0.9, times("SharedLockRoundTrip"), LOCKS),
    by_two("held item, 2 threads on one", "HeldItem/shared", 1.5),
    Row("emit", "bound counter, 1 thread", times("BoundCounter"), 0.9, times("LockedAdd"), ADD),
    Row("emit", "the same", times("BoundCounter"), 1.2, times("PeerCounter"), COUNTER,
        over_group="peer"),
    Row("shared", "bound counter, 2 threads on one",
        times("BoundCounter/shared@2"), 0.5, times("LockedAdd@2"), "a contended locked add"),
    Row("shared", "the same", times("BoundCounter/shared@2"), 1.2, times("PeerCounter@2"), COUNTER,
        over_group="peer_shared"),
    by_two("bound timer, 2 threads on one", "BoundTimer", 2.5),
    by_two("histogram of 20 bounds on a held item, 2 threads on one", "HeldHistogram", 1.5),
    Row("emit", "bound timer, one sample",
        times("BoundTimer"), 2.5, times("MutexRoundTrip"), "a mutex round trip"),
    Row("emit", "row of 8 integer fields on a held item", times("HeldRow"), 110),
    Row("flush", "flush of 3-tag rates, 10,000 series, per series",
        flush("rate", 10000, 0), 0.25, peer_collect(10000), COLLECT),
    Row("flush", "the same, 100,000 series",
        flush("rate", 100000, 0), 0.25, peer_collect(100000), COLLECT),
    Row("flush", "growth per series from 10,000 to 100,000",
        flush("rate", 100000, 0), 1.3, flush("rate", 10000, 0), "10,000 series"),
    Row("flush", "flush with `pre_encode_tags`, 10,000 series",
        flush("rate", 10000, 1), 0.18, peer_collect(10000), COLLECT),
    Row("flush", "the same, 100,000 series",
        flush("rate", 100000, 1), 0.18, peer_collect(100000), COLLECT),
    Row("flush", "flush with cold caches, 10,000 series",
        cold_flush(10000), 0.08, peer_collect(10000, "Cold"), COLD_COLLECT),
    Row("flush", "the same, 100,000 series",
        cold_flush(100000), 0.05, peer_collect(100000, "Cold"), COLD_COLLECT),
    Row("memory", "resident memory per 3-tag rate",
        MEMORY, 1, Figure("PeerMemory", MEMORY.counter), "the peer's counter", "bytes"),
    Row("memory", "the same at the peak of a flush",
        PEAK, 0.5, Figure("PeerMemory", PEAK.counter), "the peer at its peak", "bytes"),
    Row("memory", "creating a series, 100,000 of them",
        Figure("CreateSeries/series:100000", "ns_per_series"), 1200),
    Row("lock", "readers' lock, a write after each read",
        times("ReadsAndAWrite/BiasedRwLock/reads/1"), 1.5,
        times("ReadsAndAWrite/RwLock/reads/1"), PLAIN_LOCK),
    Row("lock", "the same, after each 8 reads",
        times("ReadsAndAWrite/BiasedRwLock/reads/8"), 1.5,
        times("ReadsAndAWrite/RwLock/reads/8"), PLAIN_LOCK),
    Row("lock", "the same, 2 threads",
        times("ReadsAndAWrite/BiasedRwLock/reads/8@2"), 1.5,
        times("ReadsAndAWrite/RwLock/reads/8@2"), PLAIN_LOCK),
    Row("lock", "a write beside a reader that never pauses: 99 of 100 wait for at most",
        Figure("WriteBesideAReader<BiasedRwLock>", "p99_ns"), 1,
        Figure("WriteBesideAReader<RwLock>", "p99_ns"), PLAIN_LOCK),
    stall(600000, "longest emission on a known series while its table grows to 600,000 series"),
    stall(1000000, "the same, to 1,000,000"),
    stall(4000000, "the same, to 4,000,000"),
    Row("idle", "100,000 quiet series for 2 minutes, of a core, beyond the wakes of a plain thread",
        Figure("IdleCost/series:100000/interval:30", "beyond_sleeper_percent"), 0.1, unit="%",
        beside=Figure("IdleCost/series:100000/interval:30", "plain_sleeper_percent"),
        than="the plain thread"),
]


class Measured:
    """A row with what the runs say about it."""

    def __init__(self, row, groups):
        self.row = row
        runs = groups.get(row.group, [])
        others = groups.get(row.over_group or row.group, [])
        pairs = [(run[row.figure], other[row.over] if row.over else 1.0)
                 for run, other in zip(runs, others)
                 if row.figure in run and (row.over is None or row.over in other)]
        self.found = bool(pairs)
        if self.found:
            self.ours = Spread([ours for ours, _ in pairs])
            self.other = Spread([other for _, other in pairs])
            self.ratio = Spread([ours / other for ours, other in pairs])
            if row.beside:
                self.beside = Spread([run[row.beside] for run in runs])

    def reached(self):
        return self.ratio.median <= self.row.bar

    def cells(self):
        row = self.row
        bar = f"{row.bar:g}" if row.over else f"{row.bar:g} {row.unit}"
        if not self.found:
            return [row.what, "not measured", "", "", bar, "", ""]
        if row.over is None:
            ours, ratio = "", self.ours.text(row.unit)
            other = f"{row.than}: {self.beside.text(row.unit)}" if row.beside else ""
        else:
            ours = self.ours.text(row.unit)
            other = f"{row.than}: {self.other.text(row.unit)}"
            ratio = self.ratio.text()
        return [row.what, ours, other, ratio, bar, str(self.ratio.runs),
                "yes" if self.reached() else "**no**"]


def all_figures(groups):
    rows = []
    for group, runs in groups.items():
        for figure, spread in figures_of(runs).items():
            rows.append([group, f"`{figure.benchmark}`", figure.counter, spread.text(),
                         str(spread.runs)])
    return rows


def results(folder, groups, measured):
    parts = []
    environment = folder / "environment.txt"
    if environment.exists():
        parts.append(environment.read_text().strip())
    present = [entry for entry in measured if entry.found]
    parts.append(f"{sum(entry.reached() for entry in present)} of {len(measured)} bars reached, "
                 f"{len(measured) - len(present)} not measured.")
    parts.append(table(
        ["What", "Here", "Held against", "Ratio or figure", "At most", "Runs", "Reached"],
        [entry.cells() for entry in measured]))
    parts.append("All figures; `@2` is two threads, `@8` eight.")
    parts.append(table(["Group", "Benchmark", "Figure", "Median (lowest to highest)", "Runs"],
                       all_figures(groups)))
    return "\n\n".join(parts) + "\n"


def publish(document, text):
    old = document.read_text()
    begin, end = old.index(MARKS[0]) + len(MARKS[0]), old.index(MARKS[1])
    document.write_text(f"{old[:begin]}\n\n{text}\n\n{old[end:]}")


def plot(measured):
    """Horizontal bars: each row's share of its bar, with whiskers from lowest to highest."""
    label, width, line, top, widest = 400, 420, 24, 44, 2.0
    rows = [entry for entry in measured if entry.found]

    def x(share):
        return label + width * min(share, widest) / widest

    height = top + line * len(rows) + 16
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{label + width + 80}" '
           f'height="{height}" font-family="sans-serif" font-size="12">',
           f'<rect width="{label + width + 80}" height="{height}" fill="white"/>',
           f'<text x="{label}" y="18">share of what is allowed (left of the line: reached)</text>']
    for number, entry in enumerate(rows):
        y = top + line * number
        share = entry.ratio.median / entry.row.bar
        low, high = entry.ratio.low / entry.row.bar, entry.ratio.high / entry.row.bar
        colour = "#4c8c4a" if entry.reached() else "#c0504d"
        what = escape(entry.row.what.replace("`", ""))
        out += [f'<text x="{label - 8}" y="{y + 14}" text-anchor="end">{what}</text>',
                f'<rect x="{label}" y="{y + 3}" width="{x(share) - label:.1f}" height="14" '
                f'fill="{colour}"/>',
                f'<path d="M{x(low):.1f} {y + 10}H{x(high):.1f}" stroke="black"/>',
                f'<text x="{label + width + 8}" y="{y + 14}">{share:.2f}</text>']
    out += [f'<path d="M{x(1):.1f} {top - 16}V{height - 12}" stroke="black" stroke-dasharray="4"/>',
            "</svg>"]
    return "\n".join(out) + "\n"


def main():
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    folder = pathlib.Path(sys.argv[1])
    groups = read_groups(folder)
    measured = [Measured(row, groups) for row in ROWS]
    text = results(folder, groups, measured)
    (folder / "results.md").write_text(text)
    (folder / "results.svg").write_text(plot(measured))
    asked_for = text.split("\n\nAll figures;")[0]
    print(asked_for)
    if len(sys.argv) == 3:
        publish(pathlib.Path(sys.argv[2]), asked_for)


if __name__ == "__main__":
    main()
