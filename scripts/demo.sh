#!/usr/bin/env bash
# Shows the library at work: the agent prints the points of a small service for DEMO_SECONDS (10), and shows them on
# a page. With --watch it prints nothing and goes on until Ctrl-C, for the page alone.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

DEMO_SECONDS=${DEMO_SECONDS:-10}
agent_flags=(--http 127.0.0.1:0 --history 3600 --print text)
watch=
if [[ ${1:-} == --watch ]]; then
  shift
  watch=yes
  DEMO_SECONDS=$((365 * 24 * 3600))
  agent_flags=(--http 127.0.0.1:0 --history 3600)
fi
(($# == 0)) || die "usage: demo.sh [--watch]"

tmp=$(mktemp -d /tmp/tidegate-demo.XXXXXX)
agent_pid= service_pid=
cleanup() {
  local pid
  for pid in $service_pid $agent_pid; do
    kill -KILL "$pid" 2>/dev/null || true
  done
  { wait; } 2>/dev/null # bash says who was killed
  rm -rf "$tmp"
}
trap cleanup EXIT

# Sets agent_pid once the agent listens.
start_agent() {
  local try
  "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/agent.sock" \
    "${agent_flags[@]}" 2>"$tmp/agent.err" </dev/null &
  agent_pid=$!
  for ((try = 0; try < 50; ++try)); do
    ! grep -q 'listening on' "$tmp/agent.err" || return 0
    kill -0 "$agent_pid" 2>/dev/null || break
    sleep 0.1
  done
  cat "$tmp/agent.err" >&2
  die "the agent did not start"
}

# Ends the agent and leaves its exit status in agent_status.
stop_agent() {
  agent_status=0
  kill -TERM "$agent_pid"
  wait "$agent_pid" || agent_status=$?
  agent_pid=
}

need_packages "${BUILD_PACKAGES[@]}"
build release tidegate-agent demo_service

step "starting the agent on $tmp/agent.sock and the service${watch:+, until Ctrl-C}"
start_agent
step "the page is at $(sed -n 's#^tidegate-agent: serving \(.*\)metrics$#\1#p' "$tmp/agent.err")"
if [[ -n $watch ]]; then
  trap 'exit 0' INT TERM
fi
service_status=0
"$ROOT/build/release/examples/demo_service" "$tmp/agent.sock" --seconds "$DEMO_SECONDS" </dev/null &
service_pid=$!
wait "$service_pid" || service_status=$? # signals are taken meanwhile
service_pid=
sleep 0.5 # the agent prints the last points
stop_agent

summary='^tidegate-agent: packets=([0-9]+) series=([0-9]+) points=([0-9]+) errors=([0-9]+)$'
if ! [[ $(grep '^tidegate-agent: packets=' "$tmp/agent.err" | tail -n 1) =~ $summary ]]; then
  cat "$tmp/agent.err" >&2
  die "the agent printed no summary"
fi
packets=${BASH_REMATCH[1]} series=${BASH_REMATCH[2]} points=${BASH_REMATCH[3]}
errors=${BASH_REMATCH[4]}
if ((service_status != 0 || agent_status != 0 || points == 0 || errors != 0)); then
  cat "$tmp/agent.err" >&2
  die "demo failed: service status $service_status, agent status $agent_status," \
    "points $points, decode errors $errors"
fi
printf 'demo: packets %s, series %s, points received %s, decode errors %s\n' \
  "$packets" "$series" "$points" "$errors"
