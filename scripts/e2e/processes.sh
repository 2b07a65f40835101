#!/usr/bin/env bash
# Four processes send the same names and tags through one agent, and each is restarted while the
# others go on. This is done once for each way in which the agent keeps them apart or adds them up.
# VictoriaMetrics has to answer the sum of the numbers that all eight say they emitted.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

MODES=(slot pid merge)
PROCESSES=4
FIRST_SECONDS=5 # the first processes end one after the other, a second apart
SECOND_SECONDS=5

# start_agents: one for each way, and one that does nothing about it.
start_agents() {
  local mode
  for mode in "${MODES[@]}" none; do
    local flags=(--process-label "$mode")
    [[ $mode != merge ]] || flags=(--merge)
    pick_port && agents[$mode]=http://127.0.0.1:$port
    start "agent-$mode" "$ROOT/build/release/tools/agent/tidegate-agent" "${flags[@]}" \
      --socket "$tmp/$mode.sock" --http "127.0.0.1:$port" --forward-interval 0.5 --no-spread \
      --forward "$vm/write?extra_label=mode=$mode"
    await "the start of the agent" 60 test -S "$tmp/$mode.sock"
  done
}

# serve <mode> <number>: a process, and then the one that replaces it.
serve() {
  local demo=$ROOT/build/release/examples/demo_service
  "$demo" "$tmp/$1.sock" --seconds $((FIRST_SECONDS + $2))
  "$demo" "$tmp/$1.sock" --seconds "$SECOND_SECONDS"
}

# all_of <mode> <key>: the sum of the numbers that its processes emitted.
all_of() {
  cat "$tmp/service-$1"-*.out | sed -n 's/^demo_service: emitted //p' |
    jq -es "if length == 2 * $PROCESSES then map($2) | add else null end"
}

nothing_waits() {
  (($(own forward_queue_points) == 0 && $(own queue_packets) == 0 && $(own clients) == 0))
}

# check <mode>: the numbers that the database has of its processes.
check() {
  local mode=$1 m
  step "comparing with VictoriaMetrics: $mode"
  m="mode=\"$mode\",__name__=\"shop.web."
  expect "counter, increase" "$vm" "sum(increase({${m}requests.bytes_value\"}[5m]))" \
    "$(all_of "$mode" .bytes)"
  expect "meter, increase" "$vm" "sum(increase({${m}connections.meter_value\"}[5m]))" \
    "$(all_of "$mode" .connections)"
  expect "rate, sum" "$vm" "sum(sum_over_time({${m}requests.rate_value\"}[5m]))" \
    "$(all_of "$mode" .requests)"
  expect "delta counter, sum of deltas" "$vm" \
    "sum(sum_over_time({mode=\"$mode\",__name__=\"shop.jobs.orders.delta_counter_delta\"}[5m]))" \
    "$(all_of "$mode" .orders)"
  expect "timer of ten gauges, samples" "$vm" \
    "sum(sum_over_time({${m}requests.timer.counter_value\"}[5m]))" "$(all_of "$mode" .requests)"
  expect "timer in one row, samples" "$vm" \
    "sum(sum_over_time({${m}upstream.timer_counter\"}[5m]))" "$(all_of "$mode" .requests)"
  expect "histogram, samples" "$vm" \
    "sum(sum_over_time({${m}sizes.histogram_count\"}[5m]))" "$(all_of "$mode" .requests)"
}

# --- what happens ---

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}"
build release tidegate-agent demo_service
fetch_packages
pick_port && vm_port=$port vm=http://127.0.0.1:$port
declare -A agents=()

step "starting VictoriaMetrics, an agent for each way and $PROCESSES processes for each agent"
start_database
start_agents
for mode in "${!agents[@]}"; do
  for ((i = 0; i < PROCESSES; ++i)); do
    start "service-$mode-$i" serve "$mode" "$i"
  done
done

step "waiting for the end of the processes that took their place"
for mode in "${!agents[@]}"; do
  for ((i = 0; i < PROCESSES; ++i)); do
    wait "${pids["service-$mode-$i"]}" || die "a service ended with status $?"
    unset "pids[service-$mode-$i]"
  done
done

for mode in "${MODES[@]}"; do
  agent=${agents[$mode]}
  await "the forwarding of all points" 60 nothing_waits
  [[ $(own forward_dropped_points_total) == 0 ]] || die "the agent has dropped points"
  [[ $(own shared_series_total) == 0 ]] || die "the agent says that processes share a series"
  check "$mode"
done

step "looking at the agent that neither tells processes apart nor adds them up"
agent=${agents[none]}
(($(own shared_series_total) > 0)) || die "it does not say that processes share a series"
printf '  %-52s %s\n' "shared series" "$(own shared_series_total)"

for mode in "${!agents[@]}"; do
  stop "agent-$mode"
  ((stop_status == 0)) || die "the agent ended with status $stop_status"
done
step "processes: all as they were emitted"
