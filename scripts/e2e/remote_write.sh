#!/usr/bin/env bash
# The agent sends to Prometheus and to VictoriaMetrics by remote write. Each of them is away for 10 s. Both have to hold
# each sample of the demo service, and none else. Points that come out of order are put in order, and those that come
# too late, or that a store refuses, are dropped by themselves and counted.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

OUTAGE_SECONDS=10
SERVICE_SECONDS=15 # some time before the outage, and all of it

start_prometheus() {
  start prometheus "$tmp/root/usr/bin/prometheus" --config.file="$tmp/prometheus.yml" \
    --web.enable-remote-write-receiver --web.listen-address="127.0.0.1:$prometheus_port" \
    --storage.tsdb.path="$tmp/prometheus"
  await "the start of Prometheus" 60 get -o "$tmp/ignored" "$prometheus/-/ready"
}

start_agent() {
  start agent "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/agent.sock" \
    --print json --http "127.0.0.1:$agent_port" --no-spread --forward-catch-up 0 \
    --forward-interval 0.5 \
    --remote-write "$prometheus" --remote-write "$vm"
  await "the start of the agent" 60 test -S "$tmp/agent.sock"
}

# --- what they say ---

# of <destination> <name> [reason]: one of the agent's numbers of a destination.
of() {
  get "$agent/metrics" | awk -v name="tidegate_agent_$2" -v to="destination=\"$1\"" \
    -v reason="${3:+reason=\"$3\"}" '
    { split($1, part, "{") }
    part[1] == name && index($1, to) && index($1, reason) { sum += $2; found = 1 }
    END { if (!found) exit 1; print sum }'
}

stored_in_prometheus() {
  get --data-urlencode "query={tenant=\"demo\"}[10m]" --data-urlencode "time=$((EPOCHSECONDS + 60))" \
    "$prometheus/api/v1/query" |
    jq -c '.data.result[] | {metric, timestamps: [.values[][0] * 1000 | round],
      values: [.values[][1] | tonumber]}'
}

stored_in_victoria() {
  get --data-urlencode 'match[]={tenant="demo"}' --data-urlencode start=0 \
    --data-urlencode "end=$((EPOCHSECONDS + 60))" "$vm/api/v1/export"
}

# check_samples <where>
check_samples() {
  local same
  grep '"tenant":"demo"' "$tmp/agent.out" >"$tmp/points"
  "stored_in_$1" >"$tmp/stored"
  same=$("$ROOT/scripts/e2e/samples.py" "$tmp/points" "$tmp/stored") ||
    die "$1 does not hold what was sent"
  printf '  %-52s %s\n' "samples in $1, all as they were sent" "$same"
}

some_forwarded() {
  (($(of remote-write forwarded_points_total) > 0 && $(of remote-write-2 forwarded_points_total) > 0))
}

nothing_waits() {
  (($(own forward_held_points) == 0 && $(own forward_queue_points) == 0 && $(own queue_packets) == 0))
}

# dropped <destination> <reason> <number>
dropped() {
  local number
  number=$(of "$1" forward_dropped_points_total "$2")
  [[ $number == "$3" ]] || die "$1 has dropped $number points as $2 instead of $3"
  printf '  %-52s %s\n' "dropped by $1: $2" "$number"
}

# --- what happens ---

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}" python3
build release tidegate-agent demo_service
fetch_packages
pick_port && vm_port=$port vm=http://127.0.0.1:$port
pick_port && prometheus_port=$port prometheus=http://127.0.0.1:$port
pick_port && agent_port=$port agent=http://127.0.0.1:$port
: >"$tmp/prometheus.yml"

step "starting Prometheus, VictoriaMetrics, the agent and the service"
start_database
start_prometheus
start_agent
start service "$ROOT/build/release/examples/demo_service" "$tmp/agent.sock" \
  --seconds "$SERVICE_SECONDS"
# In order 7, 8, 9 and 10; then two that are late; then one that is older than all that Prometheus takes.
start odd "$ROOT/scripts/e2e/send_points.py" "$tmp/agent.sock" odd:-10:10 odd:-7:7 odd:-8:8 odd:-9:9 7 \
  odd:-8:1 odd:-7:1 old:-86400:5
await "the first forwarded points" 60 some_forwarded

step "killing Prometheus and ending VictoriaMetrics for $OUTAGE_SECONDS s"
stop prometheus KILL
stop victoria # it keeps in memory for some seconds what it has said that it took
sleep "$OUTAGE_SECONDS"
waiting=$(own forward_queue_points)
((waiting > 0)) || die "no points wait while there is no database"
start_database
start_prometheus
printf '  %-52s %s\n' "points waiting for them" "$waiting"

step "waiting for the end of the service"
for name in odd service; do
  wait "${pids[$name]}" || die "$name ended with status $?"
  unset "pids[$name]"
done
sed -n 's/^demo_service: emitted //p' "$tmp/service.out" >"$tmp/emitted.json"
await "the forwarding of all points" 60 nothing_waits

step "comparing with both"
get -o "$tmp/ignored" "$vm/internal/force_flush"
check_samples prometheus
check_samples victoria
for base in "$prometheus" "$vm"; do
  expect "counter, increase" "$base" \
    'sum(last_over_time(shop_web_requests_bytes_total[5m]))' "$(jq .bytes "$tmp/emitted.json")"
  expect "counter, where its series begin" "$base" \
    'sum(min_over_time(shop_web_requests_bytes_total[5m]))' 0
  expect "histogram, samples" "$base" 'sum(last_over_time(shop_web_sizes_histogram_count[5m]))' \
    "$(jq .requests "$tmp/emitted.json")"
  expect "out of order: samples in order" "$base" 'count_over_time(odd_total[5m])' 4
  expect "out of order: the last one" "$base" 'last_over_time(odd_total[5m])' 7
done
dropped remote-write late 2
dropped remote-write-2 late 2
dropped remote-write rejected 1
dropped remote-write-2 rejected 0
grep -q 'for old_total{slot=.*tenant=odd})' "$tmp/agent.log" ||
  die "the log does not name the series that Prometheus refused"

stop agent
((stop_status == 0)) || die "the agent ended with status $stop_status"
step "remote write: all as it was emitted"
