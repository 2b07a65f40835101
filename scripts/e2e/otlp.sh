#!/usr/bin/env bash
# The agent sends the points of the demo service by OTLP/HTTP to a receiver that decodes them with
# OpenTelemetry's JavaScript packages. It is killed meanwhile, and comes back as one that rejects a
# metric. All that the service says it emitted has to be there, and what was rejected is counted.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

# The last version with code that protobufjs has made from the protocol's definition.
PACKAGE=@opentelemetry/otlp-transformer@0.57.2
SERVICE_SECONDS=10

fetch_decoder() {
  { command -v node && command -v npm; } >/dev/null || need_packages nodejs npm
  step "fetching $PACKAGE"
  mkdir "$tmp/npm"
  (cd "$tmp/npm" && quietly npm install --ignore-scripts --no-audit --no-fund --no-save "$PACKAGE")
}

# start_receiver [metric]: that it rejects.
start_receiver() {
  NODE_PATH="$tmp/npm/node_modules" start receiver \
    node "$ROOT/scripts/e2e/otlp_receiver.js" "$receiver_port" "$tmp/points" "$@"
  await "the start of the receiver" 60 bash -c "exec 3<>/dev/tcp/127.0.0.1/$receiver_port"
}

nothing_waits() {
  (($(own forward_queue_points) == 0 && $(own queue_packets) == 0 && $(own clients) == 0))
}

emitted() { jq -e "$1" "$tmp/emitted.json"; }

# received <what> <number> <jq>: the number that it makes of the service's points by their time,
# each once, as one that was sent twice is the same point.
received() {
  local answer
  answer=$(jq -s "
    def kept(\$name): map(select(.name == \$name));
    def last: group_by(.attributes) | map(.[-1]);
    def time: .timeUnixNano | tonumber;
    map(select(.resource.tenant == \"demo\")) | unique_by([.name, .attributes, .timeUnixNano]) |
    sort_by(time) | $3" "$tmp/points")
  same "$answer" "$2" || die "$1 is $answer instead of $2"
  printf '  %-52s %s\n' "$1" "$answer"
}

# holds <what> <jq>: of all points.
holds() {
  jq -se "$2" "$tmp/points" >"$tmp/ignored" || die "$1: not so"
  printf '  %-52s %s\n' "$1" yes
}

# --- what happens ---

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}"
build release tidegate-agent demo_service
fetch_decoder
pick_port && receiver_port=$port
pick_port && agent_port=$port agent=http://127.0.0.1:$port

step "starting a receiver of OTLP, the agent and the service"
start_receiver
start agent "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/agent.sock" \
  --http "127.0.0.1:$agent_port" --otlp "http://127.0.0.1:$receiver_port" --forward-interval 0.5 --no-spread \
  --resource deployment.environment.name=e2e
await "the start of the agent" 60 test -S "$tmp/agent.sock"
start service "$ROOT/build/release/examples/demo_service" "$tmp/agent.sock" \
  --seconds "$SERVICE_SECONDS"
await "the first point" 60 test -s "$tmp/points"
sleep 2 # so that more follow

step "killing the receiver"
stop receiver KILL
sleep 3 # so that points wait
start_receiver shop.jobs.queue.store

step "waiting for the end of the service"
wait "${pids[service]}" || die "the service ended with status $?"
unset 'pids[service]'
sed -n 's/^demo_service: emitted //p' "$tmp/service.out" >"$tmp/emitted.json"
await "the sending of all points" 60 nothing_waits
printf '  %-52s %s\n' "points sent, and tried in vain before" \
  "$(own forwarded_points_total), $(own forward_retried_points_total)"
(($(own forward_retried_points_total) > 0)) || die "nothing was tried in vain"

step "comparing with what the receiver has decoded"
received "sum, of a counter" "$(emitted .bytes)" \
  'kept("shop.web.requests.bytes") | last | map(.asDouble) | add'
received "sums, where they start" 0 'map(select(.kind == "sum" and .startTimeUnixNano ==
  .timeUnixNano)) | if length > 3 then map(.asDouble) | add else null end'
received "sum, of a meter" "$(emitted .connections)" \
  'kept("shop.web.connections.meter")[-1].asDouble'
received "sum, of a delta counter" "$(emitted .orders)" \
  'kept("shop.jobs.orders.delta_counter")[-1].asDouble'
received "gauges, of a rate in all intervals" "$(emitted .requests)" \
  'kept("shop.web.requests.rate") | map(.asDouble) | add'
received "histogram, samples" "$(emitted '.sizes | add')" \
  'kept("shop.web.sizes.histogram")[-1].count | tonumber'
received "histogram, buckets that differ" 0 \
  "kept(\"shop.web.sizes.histogram\")[-1] | if .explicitBounds == [500, 1000, 2000, 4000] then
    [.bucketCounts, $(emitted .sizes)] | transpose |
    map(select((.[0] | tonumber) != .[1])) | length else null end"
received "summary, samples" "$(emitted .requests)" \
  'kept("shop.web.upstream.timer")[-1].count | tonumber'
received "summary, quantiles of each point" 7 \
  'kept("shop.web.upstream.timer") | map(.quantileValues | length) | unique | .[]'
holds "cumulative, monotonic, each series with one start" '
  map(select(.kind == "sum" or .kind == "histogram")) |
  all(.aggregationTemporality == 2) and (map(select(.kind == "sum")) | all(.isMonotonic)) and
  (group_by([.resource, .name, .attributes]) | all(map(.startTimeUnixNano) | unique | length == 1))'
holds "resources and scope" '
  all(.resource["deployment.environment.name"] == "e2e" and .resource["host.name"] != null and
    .scope.name == "tidegate-agent" and .scope.version != "") and
  (map(select(.resource.tenant == "demo")) | all(.resource["service.name"] == "demo" and
    .resource.account_id == "demo" and .resource.project_id == "shop" and .attributes.slot == "0"))'
holds "the numbers of the agent itself" \
  'any(.name == "tidegate_agent_points_total" and .resource["service.name"] == "tidegate-agent")'

rejected=$(awk '{ sum += $1 } END { print sum }' "$tmp/points.rejected")
[[ $(own forward_dropped_points_total) == "$rejected" ]] ||
  die "the agent counts $(own forward_dropped_points_total) dropped points instead of $rejected"
grep -q "no room for shop.jobs.queue.store" "$tmp/agent.log" || die "the log does not quote the receiver"
printf '  %-52s %s\n' "points rejected, and counted" "$rejected"

stop agent
((stop_status == 0)) || die "the agent ended with status $stop_status"
step "OTLP: all as it was emitted"
