#!/usr/bin/env python3
"""Writes the files of share/ that follow from others: both dashboards from the panels below, and from share/alerts.yml
the same alerts for forwarded InfluxDB lines.

  dashboards.py               writes them
  dashboards.py --check       fails if they are not as this script would write them
  dashboards.py --queries F   prints the queries of the panels and the selectors of the alerts, one a line; F is one of
                              the forms, "scraped" or "influx"
  dashboards.py --as-lines    reads a text with scraped names from standard input, and writes it with those of lines

Numbers have two forms. Scraped ones, and those of remote write, have the names of /metrics. Forwarded lines have the
name of the metric with its dots, and the field after an underscore. The texts here and in share/alerts.yml have the
first form, and `as_lines` makes the second one of it. scripts/e2e/dashboards.sh asks real databases for all of them.
"""

import json
import re
import sys
from pathlib import Path

SHARE = Path(__file__).resolve().parent.parent / "share"
FORMS = ("scraped", "influx")

AGENT = '{$by=~"$agent"}'
SERVICE = '{project_id=~"$service"}'

# Title, unit, what it means, and queries with their legends. [$__rate_interval] is Grafana's own. An empty legend
# shows the labels.


def panel(title, unit, text, *queries):
    return {"title": title, "unit": unit, "text": text, "queries": queries}


def agent_rate(name, by=""):
    return f"sum by ($by{by}) (rate(tidegate_agent_{name}{AGENT}[$__rate_interval]))"


def process(name):
    return f'{{__name__=~".+_process_{name}",project_id=~"$service"}}'


HOST = "{{instance}}{{host}}"

ROWS = [
    ("The agent", [
        panel("Points received", "short", "Decoded points a second.", (agent_rate("points_total"), HOST)),
        panel("Packets and bytes received", "short", "Bytes are those of all messages, of which each packet is one.",
              (agent_rate("packets_total"), f"{HOST} packets"), (agent_rate("received_bytes_total"), f"{HOST} bytes")),
        panel("Connected clients", "short", "Connections of services, and the numbers (slots) of their processes.",
              (f"tidegate_agent_clients{AGENT}", f"{HOST} clients"),
              (f"tidegate_agent_slots{AGENT}", f"{HOST} slots")),
        panel("Series", "short", "Of /metrics, and those that --merge knows.",
              (f"tidegate_agent_series{AGENT}", f"{HOST} shown"),
              (f"tidegate_agent_merge_series{AGENT}", f"{HOST} merged")),
        panel("Packets and points that wait", "short", "Packets to be decoded, and points to be merged.",
              (f"tidegate_agent_queue_packets{AGENT}", f"{HOST} packets"),
              (f"tidegate_agent_merge_held_points{AGENT}", f"{HOST} points")),
        panel("Points merged", "short", "A second.", (agent_rate("merged_points_total"), HOST)),
        panel("Memory in use", "bytes", "Of the table, of its history, of merging and of the queues.",
              (f"tidegate_agent_series_bytes{AGENT}", f"{HOST} series"),
              (f"tidegate_agent_history_bytes{AGENT}", f"{HOST} history"),
              (f"tidegate_agent_merge_bytes{AGENT}", f"{HOST} merging"),
              (f"tidegate_agent_queue_bytes{AGENT}", f"{HOST} packets")),
        panel("Uptime", "s", "Falls to zero when an agent is started again.",
              (f"tidegate_agent_uptime_seconds{AGENT}", HOST)),
    ]),
    ("Destinations", [
        panel("Points forwarded", "short", "Points a second that the destination took.",
              (agent_rate("forwarded_points_total", ", destination"), HOST + " {{destination}}")),
        panel("Points that wait", "short", "In memory and on disk. Both grow while the destination is away.",
              (f"tidegate_agent_forward_queue_points{AGENT}", HOST + " {{destination}} memory"),
              (f"tidegate_agent_forward_spool_points{AGENT}", HOST + " {{destination}} disk"),
              (f"tidegate_agent_forward_held_points{AGENT}", HOST + " {{destination}} until their order is sure")),
        panel("Bytes that wait", "bytes", "Of the same points.",
              (f"tidegate_agent_forward_queue_bytes{AGENT}", HOST + " {{destination}} memory"),
              (f"tidegate_agent_forward_spool_bytes{AGENT}", HOST + " {{destination}} disk"),
              (f"tidegate_agent_forward_held_bytes{AGENT}", HOST + " {{destination}} until their order is sure")),
        panel("Points of failed requests", "short", "Points a second whose sending failed, and is tried again.",
              (agent_rate("forward_retried_points_total", ", destination"), HOST + " {{destination}}")),
        panel("Requests", "short", "That the destination took, a second.",
              (agent_rate("forward_batches_total", ", destination"), HOST + " {{destination}}")),
        panel("Trouble of the spool", "short", "Failures of the disk, and damaged files, a second.",
              (agent_rate("forward_spool_failures_total", ", destination"), HOST + " {{destination}} failures"),
              (agent_rate("forward_spool_damaged_total", ", destination"), HOST + " {{destination}} damaged")),
    ]),
    ("What is lost or refused: each line above zero is a loss", [
        panel("Points that no destination got", "short", "A second, by reason.",
              (agent_rate("forward_dropped_points_total", ", destination, reason"),
               HOST + " {{destination}} {{reason}}")),
        panel("Packets not decoded", "short", "A second, by reason: dropped, or no packets at all.",
              (agent_rate("dropped_packets_total", ", reason"), HOST + " dropped {{reason}}"),
              (agent_rate("decode_errors_total", ", reason"), HOST + " refused {{reason}}")),
        panel("Points not shown on /metrics", "short", "A second, by reason; and the series that this hit.",
              (agent_rate("refused_points_total", ", reason"), HOST + " points {{reason}}"),
              (agent_rate("refused_series_total", ", reason"), HOST + " series {{reason}}")),
        panel("Points not merged", "short", "A second: late ones, those that were refused, and percentiles left out.",
              (agent_rate("merge_left_out_percentiles_total"), f"{HOST} percentiles"),
              (agent_rate("merge_late_points_total"), f"{HOST} late"),
              (agent_rate("merge_refused_points_total", ", reason"), HOST + " {{reason}}")),
        panel("Memory that ran out", "short", "Times a second; each lost something.",
              (agent_rate("out_of_memory_total"), HOST)),
        panel("Other trouble", "short", "A second: points not printed, points not kept for --history, series that "
              "processes share, packets without a slot, HTTP clients cut off, pages that failed.",
              (agent_rate("unprinted_points_total"), f"{HOST} not printed"),
              (agent_rate("history_dropped_points_total"), f"{HOST} not kept"),
              (agent_rate("shared_series_total"), f"{HOST} shared series"),
              (agent_rate("slotless_packets_total"), f"{HOST} without a slot"),
              (agent_rate("http_cut_clients_total", ", reason"), HOST + " cut off {{reason}}"),
              (agent_rate("http_failed_pages_total"), f"{HOST} failed pages")),
    ]),
    ("The library in services, with self monitoring", [
        panel("Processes", "short", "That report, by version of the library.",
              (f"sum by (project_id, sdk_version) (inf_tidegate_version{SERVICE})", "{{project_id}} {{sdk_version}}")),
        panel("Emissions", "short", "Calls a second that were counted.",
              (f"sum by (project_id) (inf_tidegate_metric_emit_success{SERVICE})", "{{project_id}}")),
        panel("Emissions that failed", "short", "Calls a second: refused tags, or a quota that is full.",
              (f"topk(10, sum by (project_id, metric_name) (inf_tidegate_metric_emit_fail{SERVICE}))",
               "{{project_id}} {{metric_name}}")),
        panel("Metrics with most series", "short", "Series made so far. A line that grows without end is a tag whose "
              "values are not from a small set.",
              (f"topk(10, sum by (project_id, metric_name) (inf_tidegate_metric_cache_series{SERVICE}))",
               "{{project_id}} {{metric_name}}")),
        panel("Their memory", "bytes", "A rough estimate.",
              (f"topk(10, sum by (project_id, metric_name) (inf_tidegate_metric_cache_mem{SERVICE}))",
               "{{project_id}} {{metric_name}}")),
        panel("Blocks sent and dropped", "short", "A second, by tenant of the data.",
              (f"sum by (project_id, exported_tenant, cause) (inf_tidegate_sender_metrics{SERVICE})",
               "{{project_id}} {{exported_tenant}} {{cause}}")),
        panel("Records and bytes sent and dropped", "short", "A second.",
              (f"sum by (project_id, cause) (inf_tidegate_sender_series{SERVICE})", "{{project_id}} records {{cause}}"),
              (f"sum by (project_id, cause) (inf_tidegate_sender_bytes{SERVICE})", "{{project_id}} bytes {{cause}}")),
        panel("Failed tries to send", "short", "A second, by the text of the error.",
              (f"sum by (project_id, status) (inf_tidegate_sender_fail{SERVICE})", "{{project_id}} {{status}}")),
        panel("Time of a flush", "µs", "99th percentile of the last interval: of a whole flush (tenant) and of a "
              "packet (package). A flush has to stay below the interval.",
              ('max by (project_id, name) '
               '(inf_tidegate_sender_latency{project_id=~"$service",quantile="0.99"})', "{{project_id}} {{name}}")),
    ]),
    ("Processes of services, with AddProcessMetrics", [
        panel("Processor", "percentunit", "Of one core, user and system.",
              (f"rate({process('cpu_user_seconds_total')}[$__rate_interval])", "{{project_id}} {{slot}} user"),
              (f"rate({process('cpu_system_seconds_total')}[$__rate_interval])", "{{project_id}} {{slot}} system")),
        panel("Memory", "bytes", "In RAM.", (process("memory_resident_bytes"), "{{project_id}} {{slot}}")),
        panel("Threads", "short", "Those of the library too.", (process("threads"), "{{project_id}} {{slot}}")),
        panel("Descriptors", "short", "Open ones, and how many there may be.",
              (process("descriptors_open"), "{{project_id}} {{slot}} open"),
              (process("descriptors_limit"), "{{project_id}} {{slot}} limit")),
        panel("Switches and major page faults", "short", "A second.",
              (f"rate({process('context_switches_involuntary_total')}[$__rate_interval])",
               "{{project_id}} {{slot}} involuntary switches"),
              (f"rate({process('page_faults_major_total')}[$__rate_interval])", "{{project_id}} {{slot}} faults")),
        panel("Age of the youngest process", "s", "Falls to zero when a process starts.",
              (f"time() - max by (project_id) ({process('start_time_seconds')})", "{{project_id}}")),
    ]),
]

# --- the form of lines ---

# Columns of rows, by the name that they have on /metrics.
COLUMNS = {"emit_success": "emit.success", "emit_fail": "emit.fail", "cache_series": "cache.series",
           "cache_mem": "cache.mem", "bytes": "bytes", "metrics": "metrics", "series": "series"}


def library_name(name):
    for metric in ("metric", "sender"):
        column = COLUMNS.get(name[len(metric) + 1:])
        if name.startswith(metric + "_") and column:
            return f"inf.tidegate.{metric}_{column}"
    return "inf.tidegate." + name.replace("_", ".") + "_value"


def library_selector(match):
    name, labels = match.group(1), (match.group(2) or "{}")[1:-1]
    full = library_name(name)
    quantile = re.search(r',?quantile="0\.(\d+)"', labels)
    if quantile:
        labels = labels.replace(quantile.group(0), "")
        full = f"inf.tidegate.{name.replace('_', '.')}_pct{quantile.group(1)}"
    return "{" + ",".join(filter(None, (f'__name__="{full}"', labels))) + "}"


def process_name(prefix, dot, name):
    group, rest = re.match(r"(?:(cpu|memory|descriptors|page_faults|context_switches)_)?(.*)", name).groups()
    return dot.join(filter(None, (prefix, "process", group, re.sub("_total$", "", rest)))) + "_value"


def as_lines(text):
    text = re.sub(r"\btidegate_agent_\w+", r"\g<0>_value", text)
    text = re.sub(r"\binf_tidegate_(\w+)(\{[^{}]*\})?", library_selector, text)
    text = re.sub(r"\.\+_process_(\w+)", lambda match: process_name(".+", "[.]", match.group(1)), text)
    return re.sub(r"\b(\w+)_process_(\w+)\{",
                  lambda match: f'{{__name__="{process_name(match.group(1), ".", match.group(2))}",', text)


def in_form(form, text):
    return as_lines(text) if form == "influx" else text


# --- Grafana's JSON ---

SOURCE = {"type": "prometheus", "uid": "${source}"}
COLUMNS_OF_PAGE = 3
WIDTH = 24 // COLUMNS_OF_PAGE
HEIGHT = 7


def variable(name, label, **more):
    return {"name": name, "label": label, **more}


def choice(name, label, query):
    return variable(name, label, type="query", datasource=SOURCE, query={"query": query, "refId": name}, refresh=2,
                    sort=1, multi=True, includeAll=True, allValue=".*", current={"text": "All", "value": "$__all"})


def variables(form):
    by = "host" if form == "influx" else "instance"
    names = [by] + [name for name in ("instance", "host") if name != by]
    return [
        variable("source", "Data source", type="datasource", query="prometheus"),
        # Scraped numbers tell agents apart by "instance", forwarded ones by "host".
        variable("by", "Label of agents", type="custom", query=",".join(names), current={"text": by, "value": by}),
        choice("agent", "Agent", in_form(form, "label_values(tidegate_agent_uptime_seconds, $by)")),
        choice("service", "Service", in_form(form, "label_values(inf_tidegate_version, project_id)")),
    ]


def grafana_panel(form, number, at, spec):
    return {
        "id": number,
        "type": "timeseries",
        "title": spec["title"],
        "description": spec["text"],
        "datasource": SOURCE,
        "gridPos": {"x": at[0], "y": at[1], "w": WIDTH, "h": HEIGHT},
        "fieldConfig": {"defaults": {"unit": spec["unit"], "min": 0, "custom": {"fillOpacity": 10}}, "overrides": []},
        "options": {"legend": {"displayMode": "list", "placement": "bottom"}, "tooltip": {"mode": "multi"}},
        "targets": [{"refId": chr(ord("A") + i), "datasource": SOURCE, "expr": in_form(form, query),
                     "legendFormat": legend} for i, (query, legend) in enumerate(spec["queries"])],
    }


def dashboard(form):
    panels, y, number = [], 0, 0
    for title, specs in ROWS:
        number += 1
        panels.append({"id": number, "type": "row", "title": title, "collapsed": False, "panels": [],
                       "gridPos": {"x": 0, "y": y, "w": 24, "h": 1}})
        y += 1
        for i, spec in enumerate(specs):
            number += 1
            at = (i % COLUMNS_OF_PAGE * WIDTH, y + i // COLUMNS_OF_PAGE * HEIGHT)
            panels.append(grafana_panel(form, number, at, spec))
        y += -(-len(specs) // COLUMNS_OF_PAGE) * HEIGHT
    name = {"scraped": "scraped or by remote write", "influx": "forwarded InfluxDB lines"}[form]
    return {"uid": f"tidegate-{form}", "title": f"tidegate ({name})", "tags": ["tidegate"], "schemaVersion": 38,
            "editable": True, "refresh": "30s", "time": {"from": "now-1h", "to": "now"},
            "templating": {"list": variables(form)}, "panels": panels}


def grafana_text(made):
    """One line for each panel, so that a change of one is a change of one line."""
    lines = ",\n  ".join(json.dumps(each, ensure_ascii=False) for each in made["panels"])
    rest = json.dumps({name: value for name, value in made.items() if name != "panels"}, indent=2)
    return f'{rest[:-2]},\n "panels": [\n  {lines}\n]\n}}\n'


# --- what is asked for ---


def files():
    """Each made file with its content."""
    names = ("dashboard.json", "dashboard-influx.json")
    made = {name: grafana_text(dashboard(form)) for form, name in zip(FORMS, names)}
    head = "# Made of alerts.yml by scripts/dashboards.py: the same alerts on forwarded InfluxDB lines.\n"
    alerts = re.sub(r"\A(#.*\n)+", "", (SHARE / "alerts.yml").read_text())
    made["alerts-influx.yml"] = head + as_lines(alerts)
    return made


SELECTOR = r'\b(?:tidegate_agent|inf_tidegate)_\w+(?:\{[^{}]*\})?|\{__name__[^{}]*\}'


def queries(form):
    """What has an answer while an agent and services run."""
    fixed = {"$by": "host" if form == "influx" else "instance", "$agent": ".*", "$service": ".*",
             "$__rate_interval": "1m"}
    for _, specs in ROWS:
        for query, _ in (query for spec in specs for query in spec["queries"]):
            for name, value in fixed.items():
                query = query.replace(name, value)
            yield in_form(form, query)
    for selector in sorted(set(re.findall(SELECTOR, (SHARE / "alerts.yml").read_text()))):
        yield in_form(form, selector)


def main(arguments):
    if arguments == ["--check"]:
        stale = [name for name, text in files().items() if (SHARE / name).read_text() != text]
        if stale:
            sys.exit(f"not as scripts/dashboards.py writes it: {', '.join(stale)}")
    elif arguments == ["--as-lines"]:
        sys.stdout.write(as_lines(sys.stdin.read()))
    elif len(arguments) == 2 and arguments[0] == "--queries" and arguments[1] in FORMS:
        print("\n".join(queries(arguments[1])))
    elif not arguments:
        for name, text in files().items():
            (SHARE / name).write_text(text)
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
