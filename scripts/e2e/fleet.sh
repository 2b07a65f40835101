#!/usr/bin/env bash
# Many agents at once: fleet.sh [--short]. Each of AGENTS (50) agents has a service, a host name and a
# socket of its own, and forwards to one vmagent, which shards to two VictoriaMetrics. One of these is
# away for NODE_SECONDS (60), and vmagent itself for VMAGENT_SECONDS (10). Together the nodes have to
# hold the sums that the services say they emitted, and each of their points. --short has six agents
# and short outages.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

if [[ ${1:-} == --short ]]; then
  : "${AGENTS:=6}" "${SERIES:=50}" "${INTERVAL:=1}" "${NODE_SECONDS:=2}" "${VMAGENT_SECONDS:=2}"
fi
AGENTS=${AGENTS:-50} SERIES=${SERIES:-100} INTERVAL=${INTERVAL:-10}
NODE_SECONDS=${NODE_SECONDS:-60} VMAGENT_SECONDS=${VMAGENT_SECONDS:-10}
SERVICE_SECONDS=$((NODE_SECONDS + VMAGENT_SECONDS + 4 * INTERVAL))
SIGNAL=${SIGNAL:-TERM} # with KILL a node loses what it has taken and not yet written

# start_node <number>
start_node() {
  start "node-$1" "$tmp/root/usr/bin/victoria-metrics" -httpListenAddr="127.0.0.1:${node_ports[$1]}" \
    -storageDataPath="$tmp/node-$1" -search.latencyOffset=0s -dedup.minScrapeInterval=1ms
  await "the start of node $1" 60 get -o "$tmp/ignored" "http://127.0.0.1:${node_ports[$1]}/health"
}

# This version has no sharding of its own: each node gets the series of its part of their hashes.
start_vmagent() {
  local i flags=()
  for i in 0 1; do
    cat >"$tmp/shard-$i.yml" <<END
- action: hashmod
  source_labels: [__name__, host, path]
  modulus: 2
  target_label: __tmp_shard
- action: keep
  source_labels: [__tmp_shard]
  regex: "$i"
- action: labeldrop
  regex: __tmp_shard
END
    flags+=("-remoteWrite.url=http://127.0.0.1:${node_ports[$i]}/api/v1/write"
      "-remoteWrite.urlRelabelConfig=$tmp/shard-$i.yml")
  done
  start vmagent "$tmp/root/usr/bin/vmagent" -httpListenAddr="127.0.0.1:$vmagent_port" \
    -remoteWrite.tmpDataPath="$tmp/vmagent" "${flags[@]}"
  await "the start of vmagent" 60 get -o "$tmp/ignored" "$vmagent/health"
}

# start_host <number>: an agent that sees its own host name, and a service.
start_host() {
  local name=host-$1
  # shellcheck disable=SC2016 # the inner shell expands it
  start "agent-$1" "${apart[@]}" bash -c 'hostname "$0" 2>/dev/null || true; exec "$@"' "$name" \
    "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/$1.sock" --drain 30 \
    --forward "$vmagent/write"
  await "the start of an agent" 60 test -S "$tmp/$1.sock"
  start "service-$1" "$ROOT/build/release/bench/host_load" "$tmp/$1.sock" "$name" "$SERIES" \
    "$INTERVAL" "$SERVICE_SECONDS"
}

requests() {
  get "$vmagent/metrics" | awk '/^vmagent_http_requests_total{.*influx/ { sum += $NF } END { print sum + 0 }'
}

# most_requests <seconds>: the most that vmagent gets in one of the next seconds.
most_requests() {
  local end=$((SECONDS + $1)) most=0 before now
  before=$(requests)
  while ((SECONDS < end)); do
    sleep 1
    now=$(requests)
    ((now - before <= most)) || most=$((now - before))
    before=$now
  done
  echo "$most"
}

# both <query>: the sum of the answers of both nodes.
both() {
  local port sum=0
  for port in "${node_ports[@]}"; do
    sum=$((sum + $(ask "http://127.0.0.1:$port" "$1")))
  done
  echo "$sum"
}

# expect_both <what> <query> <number>: polls, as vmagent may still be sending.
expect_both() {
  local answer=none end=$((SECONDS + 60))
  until answer=$(both "$2" 2>/dev/null) && [[ $answer == "$3" ]]; do
    ((SECONDS < end)) || die "$1: $answer instead of $3, by the query $2"
    sleep 0.5
  done
  printf '  %-52s %s\n' "$1" "$answer"
}

# --- what happens ---

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}"
build release tidegate-agent host_load
fetch_packages
pick_port && node_ports=("$port")
pick_port && node_ports+=("$port")
pick_port && vmagent_port=$port vmagent=http://127.0.0.1:$port
apart=(unshare --uts)
if ! "${apart[@]}" true 2>/dev/null; then
  step "without root the agents share a host name, and send at one time"
  apart=(env)
fi

step "starting two VictoriaMetrics, vmagent and $AGENTS agents, each with a service of $SERIES series"
start_node 0
start_node 1
start_vmagent
for ((i = 0; i < AGENTS; ++i)); do
  start_host "$i"
done
if ((INTERVAL > 1)); then
  sleep "$INTERVAL"
  printf '  %-52s %s\n' "most requests in a second" "$(most_requests "$INTERVAL")"
fi

step "ending one VictoriaMetrics for $NODE_SECONDS s"
stop node-1 "$SIGNAL"
sleep "$NODE_SECONDS"
start_node 1

step "ending vmagent for $VMAGENT_SECONDS s"
stop vmagent
sleep "$VMAGENT_SECONDS"
start_vmagent

step "waiting for the end of the services and agents"
for ((i = 0; i < AGENTS; ++i)); do
  wait "${pids["service-$i"]}" || die "a service ended with status $?"
  unset "pids[service-$i]"
done
for ((i = 0; i < AGENTS; ++i)); do
  stop "agent-$i"
  ((stop_status == 0)) || die "an agent ended with status $stop_status"
done
! grep -h "^tidegate-agent: dropped: " "$tmp"/agent-*.log || die "an agent has dropped points"
emitted=$(sed -n 's/^host_load: emitted //p' "$tmp"/service-*.out |
  awk '{ sum += $1 } END { printf "%.0f", sum }')
points=$(sed -n 's/^tidegate-agent: packets=.* points=\([0-9]*\) .*/\1/p' "$tmp"/agent-*.log |
  awk '{ sum += $1 } END { print sum }')

step "comparing with both VictoriaMetrics"
sleep 2 # vmagent gathers for a second
for port in "${node_ports[@]}"; do
  get -o "$tmp/ignored" "http://127.0.0.1:$port/internal/force_flush"
done
m='{__name__="load.web.requests.bytes_value"}'
expect_both "sum of all counters" "sum(last_over_time(${m}[1h]))" "$emitted"
expect_both "their points" "sum(count_over_time(${m}[1h]))" "$points"
step "fleet: all as it was emitted"
