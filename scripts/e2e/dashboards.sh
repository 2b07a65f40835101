#!/usr/bin/env bash
# The dashboards and alerts of share/, with real parts: Prometheus scrapes an agent, VictoriaMetrics gets its lines, and
# each query of a panel and each selector of an alert has to have an answer there. So each metric in them is one that
# the agent or the library has. promtool runs the tests of the alerts, in both forms. With --picture the picture of the
# documents is made, with an outage of VictoriaMetrics in it, which takes three minutes more.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

SERVICE_SECONDS=600 # longer than all this takes; the services are killed
SHARE=$ROOT/share

start_prometheus() {
  cp "$SHARE/alerts.yml" "$tmp"
  cat >"$tmp/prometheus.yml" <<YML
global: {evaluation_interval: 1s}
rule_files: [alerts.yml]
scrape_configs:
  - job_name: tidegate
    scrape_interval: 1s
    static_configs:
      - targets: ['127.0.0.1:$agent_port']
YML
  start prometheus "$tmp/root/usr/bin/prometheus" --config.file="$tmp/prometheus.yml" \
    --web.listen-address="127.0.0.1:$prometheus_port" --storage.tsdb.path="$tmp/prometheus"
  await "the start of Prometheus" 60 get -o "$tmp/ignored" "$prometheus/-/ready"
}

# What the made files were made of, and what each alert does.
check_files() {
  "$ROOT/scripts/dashboards.py" --check
  local promtool=$tmp/root/usr/bin/promtool
  diff <(grep -o 'alert: .*' "$SHARE/alerts.yml" | cut -d ' ' -f 2 | sort) \
    <(grep -o 'alertname="[^"]*' "$SHARE/alerts_test.yml" | cut -d '"' -f 2 | sort -u) ||
    die "not every alert has a test"
  quietly "$promtool" check rules "$SHARE"/alerts.yml "$SHARE"/alerts-influx.yml
  quietly "$tmp/root/usr/bin/vmalert" -dryRun -rule="$SHARE/alerts-influx.yml"
  quietly "$promtool" test rules "$SHARE/alerts_test.yml"
  cp "$SHARE/alerts-influx.yml" "$tmp"
  "$ROOT/scripts/dashboards.py" --as-lines <"$SHARE/alerts_test.yml" |
    sed 's/^rule_files:.*/rule_files: [alerts-influx.yml]/' >"$tmp/alerts-influx_test.yml"
  quietly "$promtool" test rules "$tmp/alerts-influx_test.yml"
  printf '  %-52s %s\n' "alerts tested in both forms" "$(grep -c 'alert:' "$SHARE/alerts.yml")"
}

# has_answer <base url> <query>
has_answer() {
  get --data-urlencode "query=$2" --data-urlencode "time=$((EPOCHSECONDS + 1))" "$1/api/v1/query" |
    jq -e '.data.result | length > 0' >"$tmp/ignored"
}

# check_queries <form> <base url>
check_queries() {
  local query count=0
  while IFS= read -r query; do
    await "an answer to $query" 40 has_answer "$2" "$query"
    count=$((count + 1))
  done < <("$ROOT/scripts/dashboards.py" --queries "$1")
  ((count > 50)) || die "there are only $count queries"
  printf '  %-52s %s\n' "queries with an answer, $1" "$count"
}

# Prometheus itself has evaluated each alert without an error.
check_rules() {
  local healthy
  healthy=$(get "$prometheus/api/v1/rules" | jq '[.data.groups[].rules[] | select(.health == "ok")] | length')
  ((healthy == $(grep -c 'alert:' "$SHARE/alerts.yml"))) || die "only $healthy alerts can be evaluated"
}

# What the panels show of three minutes, in which VictoriaMetrics is away for 20 s.
draw_picture() {
  sleep 70
  stop victoria
  sleep 20
  start_database
  sleep 70
  "$ROOT/scripts/dashboard_picture.py" "$prometheus" 180 "$ROOT/docs/images/dashboard.png"
}

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}" python3 ${1:+python3-matplotlib}
build release tidegate-agent demo_service process_metrics
fetch_packages
pick_port && vm_port=$port vm=http://127.0.0.1:$port
pick_port && prometheus_port=$port prometheus=http://127.0.0.1:$port
pick_port && agent_port=$port agent=http://127.0.0.1:$port

step "starting services, and later the agent, so that there are failures to report"
start demo "$ROOT/build/release/examples/demo_service" "$tmp/agent.sock" --seconds "$SERVICE_SECONDS" --self-monitor
start_database
sleep 2
start agent "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/agent.sock" \
  --http "127.0.0.1:$agent_port" --forward "$vm/write" --no-spread
await "the start of the agent" 60 test -S "$tmp/agent.sock"
start process "$ROOT/build/release/examples/process_metrics" "$tmp/agent.sock" "$SERVICE_SECONDS"
start_prometheus

step "testing the alerts"
check_files
step "asking Prometheus and VictoriaMetrics"
check_queries scraped "$prometheus"
check_rules
check_queries influx "$vm"
step "dashboards: each query has an answer"
if [[ ${1:-} == --picture ]]; then
  step "drawing the panels"
  draw_picture
fi
