#!/usr/bin/python3
"""Draws the panels of share/dashboard.json with what a Prometheus has, as a picture for the documents.

dashboard_picture.py PROMETHEUS_URL SECONDS OUTPUT.png: the rows of the agent, of destinations and of the library, over
the last SECONDS. It asks the queries of the file; axes, units and legends are plainer than Grafana's.
"""
import json
import pathlib
import re
import sys
import time
import urllib.parse
import urllib.request

import matplotlib

matplotlib.use("Agg")
from matplotlib import pyplot as plt  # noqa: E402
from matplotlib.dates import DateFormatter  # noqa: E402
from matplotlib.ticker import EngFormatter, MaxNLocator  # noqa: E402

ROWS = ("The agent", "Destinations", "The library in services")
VARIABLES = {"by": "instance", "agent": ".*", "service": ".*", "__rate_interval": "15s"}
COLUMNS = 3
MOST_LINES = 6


def panels(path):
    """(row, panels) of the chosen rows, as they stand in the file."""
    found = []
    for panel in json.loads(path.read_text())["panels"]:
        if panel["type"] == "row":
            found.append((panel["title"], []))
        else:
            found[-1][1].append(panel)
    return [(title, row) for title, row in found if title.startswith(ROWS)]


def ask(url, query, seconds):
    query = re.sub(r"\$(\w+)", lambda name: VARIABLES[name.group(1)], query)
    now = time.time()
    parameters = urllib.parse.urlencode({"query": query, "start": now - seconds, "end": now, "step": 2})
    with urllib.request.urlopen(f"{url}/api/v1/query_range?{parameters}", timeout=30) as answer:
        return json.load(answer)["data"]["result"]


def name_of(legend, metric):
    text = re.sub(r"\$(\w+)", lambda name: VARIABLES[name.group(1)], legend or "")
    text = re.sub(r"\{\{\s*([^}\s]+)\s*\}\}", lambda label: metric.get(label.group(1), ""), text).strip()
    return text or ", ".join(value for label, value in metric.items() if label != "__name__")


def draw(axes, panel, url, seconds):
    axes.set_title(panel["title"], fontsize=8, loc="left")
    for target in panel["targets"]:
        for line in ask(url, target["expr"], seconds)[:MOST_LINES]:
            times = [time.gmtime(float(at)) for at, _ in line["values"]]
            axes.plot([matplotlib.dates.datestr2num(time.strftime("%Y-%m-%dT%H:%M:%S", at)) for at in times],
                      [float(value) for _, value in line["values"]], linewidth=1,
                      label=name_of(target.get("legendFormat"), line["metric"])[:40])
    axes.xaxis.set_major_formatter(DateFormatter("%H:%M"))
    axes.xaxis.set_major_locator(MaxNLocator(4))
    axes.yaxis.set_major_formatter(EngFormatter(sep=""))
    axes.set_ylim(bottom=0)
    axes.tick_params(labelsize=6)
    axes.grid(linewidth=0.3)
    if axes.lines:
        axes.legend(fontsize=5, loc="upper left", frameon=False)


def main():
    url, seconds, output = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    rows = panels(pathlib.Path(__file__).parent.parent / "share" / "dashboard.json")
    lines = sum(-(-len(row) // COLUMNS) for _, row in rows)
    figure = plt.figure(figsize=(11, 1.75 * lines), dpi=90)
    at = 0
    for title, row in rows:
        for i, panel in enumerate(row):
            axes = figure.add_subplot(lines, COLUMNS, at * COLUMNS + i + 1)
            draw(axes, panel, url, seconds)
            if i == 0:
                axes.annotate(title, (0, 1.22), xycoords="axes fraction", fontsize=10, weight="bold")
        at += -(-len(row) // COLUMNS)
    figure.tight_layout()
    figure.savefig(output)


main()
