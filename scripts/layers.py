#!/usr/bin/env python3
"""Reads the includes of include/ and src/ and says which of them point the wrong way.

  scripts/layers.py

A unit is a header with its sources; a source without a header of its own belongs to the header
whose name begins its own. Prints how many units and arrows there are, the cycles, and the arrows
of src/metrics that run back up. Ends with 1 if a cycle is larger than MAX_CYCLE, if more than
MAX_BACK_UP arrows run back up, or if an arrow leaves its folder against FORBIDDEN.
"""

import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MAX_CYCLE = 3
MAX_BACK_UP = 10

# The floors of src/metrics, the lowest first. What is on one floor may include what is on the same
# or on a lower one.
FLOORS = [
    # Values and cells.
    """global_resources_limit metric_method metric_data metric_histogram metric_summary
    metric_ckms_quantiles histo_util cell_ptr cell_kinds cell_table packed_values metric_packet core_init_cfg
    metric_configer adding_sums""",
    # What the floors above know of a client, a registry and a metric.
    """client_parts flush_watch registry_parts registry_table metric_parts impl_parts removed tag_value_refs
    series_limit""",
    # Series.
    "metric_collector_item series_items",
    "metric_collector metric_kdtree_collector metric_collector_factory",
    # Metrics.
    """impl/metric_impl impl/metric_compatible_impl impl/metric_multi_field_impl metric
    metric_registry bound_series metric_slot scoped_timer""",
    # Flush.
    """packet_sender flush_job flush_packets series_tags series_walk suffix_blocks
    suffixed_form row_form compatible_form metric_encoder""",
    # Senders.
    """sender_reports sender_accounts sender_socket flush_thread
    metric_sender metric_unix_domain_sender metric_tcp_sender metric_sender_manager""",
    # The rest of a client, and the client.
    "metric_factory metric_self_monitor metric_expire_checker series_census",
    "metric_client",
    # The facade.
    """service_options service_core service_metrics sampler_thread service_samplers process_metrics
    allocator_metrics in_flight_count in_flight_table error_log""",
]

# From a unit to a unit, each with its folder. The umbrella header and the facade stand above the
# library.
FORBIDDEN = [
    (r"util/", r"metrics/"),
    (r"codec/", r"(metrics|util)/"),
    (
        r"tidegate/(?!(metrics|handles|service_metrics|in_flight|error_counter)$)",
        r"(metrics|util|codec)/",
    ),
]


def read_sources():
    """The text of each file below include/ and src/, by the name that an include has."""
    sources = {}
    for base in ("include", "src"):
        for path in sorted((ROOT / base).rglob("*")):
            if path.suffix in (".h", ".cc", ".in"):
                sources[path.relative_to(ROOT / base).as_posix()] = path.read_text()
    return sources


def unit_of(name, headers):
    """The longest name of a header that `name` begins with; else its own."""
    stem = re.sub(r"(\.h|\.cc)(\.in)?$", "", name)
    owners = [header for header in headers if stem == header or stem.startswith(header + "_")]
    if name.endswith(".cc") and owners:
        return max(owners, key=len)
    return stem


def read_arrows(sources):
    """The units that each unit includes."""
    headers = {re.sub(r"\.h(\.in)?$", "", name) for name in sources if not name.endswith(".cc")}
    arrows = {}
    for name, text in sources.items():
        unit = unit_of(name, headers)
        included = arrows.setdefault(unit, set())
        for target in re.findall(r'^#include "(.+)\.h"', text, re.MULTILINE):
            if target in headers and target != unit:
                included.add(target)
    return arrows


def reachable(arrows, start):
    found, todo = set(), [start]
    while todo:
        for unit in arrows[todo.pop()] - found:
            found.add(unit)
            todo.append(unit)
    return found


def find_cycles(arrows):
    """The sets of units that all reach each other, the largest first."""
    reach = {unit: reachable(arrows, unit) for unit in arrows}
    cycles = {
        frozenset(other for other in reach[unit] if unit in reach[other])
        for unit in arrows
        if unit in reach[unit]
    }
    return sorted(cycles, key=lambda cycle: (-len(cycle), sorted(cycle)))


def main():
    arrows = read_arrows(read_sources())
    errors = []

    print(f"{len(arrows)} units, {sum(map(len, arrows.values()))} arrows")
    cycles = find_cycles(arrows)
    for cycle in cycles:
        print(f"cycle of {len(cycle)}:")
        for unit in sorted(cycle):
            print(f"  {unit} -> {' '.join(sorted(arrows[unit] & cycle))}")
    largest = max(map(len, cycles), default=0)
    if largest > MAX_CYCLE:
        errors.append(f"the largest cycle has {largest} units, more than {MAX_CYCLE}")

    floor_of = {"metrics/" + name: i for i, names in enumerate(FLOORS) for name in names.split()}
    inside = [unit for unit in arrows if unit.startswith("metrics/")]
    for unit in sorted(inside):
        if unit not in floor_of:
            errors.append(f"{unit} has no floor in scripts/layers.py")
    for unit in sorted(floor_of.keys() - arrows.keys()):
        errors.append(f"{unit} has a floor in scripts/layers.py, but is not there")
    within = [
        (unit, target)
        for unit in sorted(inside)
        for target in sorted(arrows[unit])
        if unit in floor_of and target in floor_of
    ]
    back_up = [(unit, target) for unit, target in within if floor_of[target] > floor_of[unit]]
    print(f"{len(within)} arrows in src/metrics, {len(back_up)} of them back up")
    for unit, target in back_up:
        print(f"  {unit} -> {target}")
    if len(back_up) > MAX_BACK_UP:
        errors.append(f"{len(back_up)} arrows run back up, more than {MAX_BACK_UP}")

    for unit, targets in sorted(arrows.items()):
        for source, forbidden in FORBIDDEN:
            for target in sorted(targets):
                if re.match(source, unit) and re.match(forbidden, target):
                    errors.append(f"{unit} must not include {target}")

    for error in errors:
        print(f"error: {error}", file=sys.stderr)
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main())
