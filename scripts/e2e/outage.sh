#!/usr/bin/env bash
# The agent between real parts: the demo service sends to it, it forwards to VictoriaMetrics, which
# is away for 10 s meanwhile, and Prometheus scrapes it. Both have to answer queries
# with the numbers that the service says it emitted.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

OUTAGE_SECONDS=10
SERVICE_SECONDS=20 # the outage and some time before and after it

start_prometheus() {
  cat >"$tmp/prometheus.yml" <<EOF
scrape_configs:
  - job_name: tidegate
    scrape_interval: 1s
    static_configs:
      - targets: ['127.0.0.1:$agent_port']
EOF
  start prometheus "$tmp/root/usr/bin/prometheus" --config.file="$tmp/prometheus.yml" \
    --web.listen-address="127.0.0.1:$prometheus_port" --storage.tsdb.path="$tmp/prometheus"
  await "the start of Prometheus" 60 get -o "$tmp/ignored" "$prometheus/-/ready"
}

start_agent() {
  start agent "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/agent.sock" \
    --print json --http "127.0.0.1:$agent_port" --forward "$vm/write" --forward-interval 0.5 \
    --no-spread --forward-catch-up 0
  await "the start of the agent" 60 test -S "$tmp/agent.sock"
}

# --- what they say ---

emitted() { jq -e "$1" "$tmp/emitted.json"; }

# shellcheck disable=SC2016 # the variables are those of jq
# The median of the sizes, as a histogram tells it: linear within the bucket.
median() {
  emitted '
    [0, 500, 1000, 2000, 4000] as $bounds | .sizes as $sizes | ($sizes | add / 2) as $rank |
    reduce range($sizes | length) as $i ({below: 0};
      if .at == null and .below + $sizes[$i] >= $rank then
        .at = $bounds[$i] + ($bounds[$i + 1] - $bounds[$i]) * ($rank - .below) / $sizes[$i]
      else .below += $sizes[$i] end) | .at'
}

some_forwarded() { (($(own forwarded_points_total) > 0)); }

all_forwarded() {
  (($(own forward_queue_points) == 0 && $(own forwarded_points_total) == $(own points_total)))
}

# The mapping of docs/agent.md once more, from the points that the agent has printed:
# name{tags} milliseconds value, for each number that the database has to know.
expected_values() {
  jq -nr '
    def key($name; $tags): "\($name){\($tags | to_entries | sort_by(.key) | map("\(.key)=\(.value)") |
      join(","))}" | gsub(" "; "_");
    def numbers($tags):
      if has("value") then {name: "value", $tags, value}
      elif .type == "histogram" then
        (.fields | to_entries | map(.key |= ltrimstr("hist:"))) as $columns |
        ($columns[] | {name: .key, $tags, value}),
        ($columns | map(select(.key | startswith("b-")))) as $buckets |
        (range($buckets | length) | {
          name: "bucket",
          tags: ($tags + {le: (if . + 1 == ($buckets | length) then "+Inf"
                            else $buckets[. + 1].key | ltrimstr("b-") | tonumber | tostring end)}),
          value: ($buckets[:. + 1] | map(.value) | add)})
      else .fields | to_entries[] | {name: .key, $tags, value} end;
    inputs | . as $point | numbers(.tags + {tenant}) | select(.value | type == "number") |
    "\(key("\($point.name)_\(.name)"; .tags)) \($point.timestamp * 1000) \(.value)"' "$tmp/agent.out"
}

# All that the database has of the service, in the form of expected_values.
stored_values() {
  get --data-urlencode 'match[]={tenant="demo"}' --data-urlencode start=0 \
    --data-urlencode "end=$((EPOCHSECONDS + 60))" "$vm/api/v1/export" | jq -r '
    (.metric | "\(.__name__){\(del(.__name__) | to_entries | sort_by(.key) |
      map("\(.key)=\(.value)") | join(","))}" | gsub(" "; "_")) as $key |
    [.timestamps, .values] | transpose[] | "\($key) \(.[0]) \(.[1])"'
}

# VictoriaMetrics keeps some 12 digits, which is exact for whole numbers.
check_every_value() {
  get -o "$tmp/ignored" "$vm/internal/force_flush"
  expected_values >"$tmp/expected"
  stored_values >"$tmp/stored"
  if ! awk '
    { key = $1 " " $2 }
    FNR == NR { expected[key] = $3; next }
    !(key in expected) { print "never sent: " $0; bad = 1; next }
    { d = $3 - expected[key]
      if (d * d > 1e-22 * $3 * $3) { print "differs: " $0 " from " expected[key]; bad = 1 }
      delete expected[key]
      ++same }
    END { for (key in expected) { print "lost: " key; bad = 1 }
          printf "  %-52s %d\n", "values read back", same
          exit bad || same == 0 }' "$tmp/expected" "$tmp/stored" >"$tmp/findings"; then
    head -n 20 "$tmp/findings" >&2
    die "VictoriaMetrics does not hold what was sent"
  fi
  cat "$tmp/findings"
}

# sum_at_zero <metric>: the sum of its samples in the database's own metrics is 0.
sum_at_zero() {
  get "$vm/metrics" | awk -v name="$1" '
    { split($1, part, "{") } part[1] == name { sum += $2; found = 1 }
    END { exit !(found && sum == 0) }' || die "$1 of VictoriaMetrics is missing or not 0"
}

check_rows() {
  sum_at_zero vm_rows_invalid_total
  sum_at_zero vm_rows_ignored_total
}

# Findings about style (status 3) are those of names that services choose or the mapping prescribes.
check_page() {
  local status=0 allowed='^shop_.* (metric name should not include type .*|non-histogram and non-summary'
  allowed+=' metrics should not have "_sum" suffix)$'
  get "$agent/metrics" >"$tmp/page"
  "$tmp/root/usr/bin/promtool" check metrics <"$tmp/page" >"$tmp/findings" 2>&1 || status=$?
  if ((status != 0 && status != 3)) || grep -vE "$allowed" "$tmp/findings" >&2; then
    die "promtool does not like /metrics, with status $status"
  fi
  printf '  %-52s %s\n' "/metrics, lines that promtool has read" "$(wc -l <"$tmp/page")"
}

# --- what happens ---

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}"
build release tidegate-agent demo_service
fetch_packages
pick_port && vm_port=$port vm=http://127.0.0.1:$port
pick_port && prometheus_port=$port prometheus=http://127.0.0.1:$port
pick_port && agent_port=$port agent=http://127.0.0.1:$port

step "starting VictoriaMetrics, Prometheus, the agent and the service"
start_database
start_agent
start_prometheus
start service "$ROOT/build/release/examples/demo_service" "$tmp/agent.sock" \
  --seconds "$SERVICE_SECONDS"
await "the first forwarded point" 60 some_forwarded
sleep 3 # so that the database has something to keep

step "ending VictoriaMetrics for $OUTAGE_SECONDS s"
check_rows
stop victoria
outage_end=$((SECONDS + OUTAGE_SECONDS))
sleep $((OUTAGE_SECONDS - 1))
waiting=$(own forward_queue_points)
((waiting > 0)) || die "no points wait while there is no database"
sleep $((outage_end > SECONDS ? outage_end - SECONDS : 0))
start_database
printf '  %-52s %s\n' "points waiting for it" "$waiting"

step "waiting for the end of the service"
service_status=0
wait "${pids[service]}" || service_status=$?
unset 'pids[service]'
((service_status == 0)) || die "the service ended with status $service_status"
sed -n 's/^demo_service: emitted //p' "$tmp/service.out" >"$tmp/emitted.json"
await "the forwarding of all points" 60 all_forwarded
[[ $(own forward_dropped_points_total) == 0 ]] || die "the agent has dropped points"
printf '  %-52s %s\n' "points forwarded, and tried in vain before" \
  "$(own forwarded_points_total), $(own forward_retried_points_total)"

step "comparing with VictoriaMetrics"
check_rows
check_every_value
m='{__name__="shop.web.'
expect "counter, increase" "$vm" "sum(increase(${m}requests.bytes_value\"}[5m]))" \
  "$(emitted .bytes)"
expect "counter, where its series begin" "$vm" \
  "sum(first_over_time(${m}requests.bytes_value\"}[5m]))" 0
expect "meter, increase" "$vm" "increase(${m}connections.meter_value\"}[5m])" \
  "$(emitted .connections)"
expect "delta counter, sum of deltas" "$vm" \
  'sum_over_time({__name__="shop.jobs.orders.delta_counter_delta"}[5m])' "$(emitted .orders)"
expect "timer of ten gauges, samples" "$vm" \
  "sum(sum_over_time(${m}requests.timer.counter_value\"}[5m]))" "$(emitted .requests)"
expect "timer in one row, samples" "$vm" \
  "sum_over_time(${m}upstream.timer_counter\"}[5m])" "$(emitted .requests)"
expect "histogram, median of all intervals" "$vm" \
  "histogram_quantile(0.5, sum_over_time(${m}sizes.histogram_bucket\"}[5m]))" "$(median)"

step "comparing with Prometheus"
expect "gauge, last value" "$prometheus" shop_jobs_queue_store "$(emitted .queue)"
expect "counter, total" "$prometheus" 'sum(shop_web_requests_bytes_total)' "$(emitted .bytes)"
expect "summary, samples" "$prometheus" shop_web_upstream_timer_count "$(emitted .requests)"
expect "histogram, median" "$prometheus" \
  'histogram_quantile(0.5, shop_web_sizes_histogram_bucket)' "$(median)"
check_page
expect "in VictoriaMetrics, of the agent itself: points" "$vm" \
  'sum without(host)(tidegate_agent_points_total_value)' "$(own points_total)"

stop agent
((stop_status == 0)) || die "the agent ended with status $stop_status"
step "end to end: all as it was emitted"
