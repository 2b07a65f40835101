#!/usr/bin/env python3
"""Compares the samples that a store holds with the points that an agent has printed.

samples.py POINTS STORED: POINTS has the lines of --print json. STORED has a line of JSON for each series, with
`metric`, `values` and `timestamps` (milliseconds), as VictoriaMetrics exports them. Prints how many are the same.
This is the mapping of docs/agent.md once more.
"""
import collections
import json
import re
import sys

QUANTILES = {"pct50": "0.5", "pct90": "0.9", "pct95": "0.95", "pct99": "0.99", "pct999": "0.999"}


def fitted(name):
    return re.sub("[^a-zA-Z0-9_:]", "_", name)


def total(name):
    return name if name.endswith("_total") else name + "_total"


def interval_samples(kind, name, fields, sums):
    """Of a timer or histogram; `sums` are those of the series so far."""
    if kind == "timer":
        sums.update({"sum": fields["sum"], "counter": fields["counter"]})
        for column in ("min", "max", "avg"):
            yield f"{name}_{column}", {}, fields[column]
        for column, quantile in QUANTILES.items():
            yield name, {"quantile": quantile}, fields[column]
        yield name + "_sum", {}, sums["sum"]
        yield name + "_count", {}, sums["counter"]
        return
    sums.update(fields)
    bounds = [key for key in fields if key.startswith("hist:b-")]
    below = 0
    for bucket, upper in zip(bounds, bounds[1:] + [None]):
        below += sums[bucket]
        le = "+Inf" if upper is None else f"{float(upper[len('hist:b-'):]):g}"
        yield name + "_bucket", {"le": le}, below
    yield name + "_sum", {}, sums["hist:sum"]
    yield name + "_count", {}, below


def samples_of(point, sums):
    kind, name, fields = point["type"], fitted(point["name"]), point.get("fields")
    if fields is None:
        yield total(name) if kind == "counter" else name, {}, point["value"]
    elif kind in ("timer", "histogram"):
        yield from interval_samples(kind, name, fields, sums)
    elif kind == "delta_counter":
        yield total(name), {}, fields["counter"]
        yield name + "_rate", {}, fields["rate"]
    else:
        for column, value in fields.items():
            yield fitted(f"{name}_{column}"), {}, value


def expected(path):
    with open(path, encoding="utf-8") as lines:
        points = [json.loads(line) for line in lines]
    sums = collections.defaultdict(collections.Counter)
    samples = {}
    for point in sorted(points, key=lambda point: point["timestamp"]):
        tags = {**point["tags"], "tenant": point["tenant"]}
        of_series = sums[point["name"], tuple(sorted(tags.items()))]
        for name, own, value in samples_of(point, of_series):
            labels = {**tags, **own, "__name__": name}
            samples[tuple(sorted(labels.items())), point["timestamp"] * 1000] = value
    return samples


def main():
    lost = expected(sys.argv[1])
    same, findings = 0, []
    with open(sys.argv[2], encoding="utf-8") as lines:
        for line in lines:
            series = json.loads(line)
            labels = tuple(sorted(series["metric"].items()))
            for time, value in zip(series["timestamps"], series["values"]):
                sent = lost.pop((labels, time), None)
                if sent is None:
                    findings.append(f"never sent: {labels} {time} {value}")
                elif abs(sent - float(value)) > 1e-11 * abs(sent):
                    findings.append(f"differs from {sent}: {labels} {time} {value}")
                else:
                    same += 1
    findings += [f"lost: {labels} {time} {value}" for (labels, time), value in lost.items()]
    for finding in findings[:20]:
        print(finding, file=sys.stderr)
    print(same)
    sys.exit(bool(findings) or same == 0)


main()
