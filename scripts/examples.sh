#!/usr/bin/env bash
# Runs every example against the agent and checks that the points which it promises arrive.
# EXAMPLES: the folder of the programs, if they were built elsewhere; AGENT: the agent.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PRESET=${PRESET:-release}
NAMES=(compatible custom_environment demo_service histogram multi_field prefork quick_start worker_pool)

# The lines that the agent has to print, as extended patterns after the time, the tenant and a blank.
expected() {
  local n
  case $1 in
    compatible)
      echo 'counter legacy\.jobs\{queue=mail,result=sent,slot=0\} 3'
      echo 'counter legacy\.jobs\{queue=invoice,slot=0\} 1'
      ;;
    custom_environment)
      echo 'delta_counter custom\.starts\.delta_counter\{cluster=south,host=host-17,account_id=.*,slot=0\} counter=1 .*'
      ;;
    demo_service)
      echo 'multi_field shop\.jobs\.clerk\{.*\} batch=[0-9]+ packed=[0-9]+'
      ;;
    histogram)
      echo 'histogram http\.sizes\.histogram\{slot=0\} .*b-256\.0+=2 .*sum=10400 hist:count=4'
      ;;
    multi_field)
      echo 'multi_field db\.pool\{database=orders,slot=0\} open=4 queries=10 .* latency\.counter=10 .*'
      echo 'multi_field db\.pool\{database=users,slot=0\} open=1'
      ;;
    prefork)
      for n in 0 1 2 3; do
        echo "rate prefork\.served\.rate\{slot=$n\} 1(00)?"
      done
      echo 'rate prefork\.served\.rate\{slot=.\} 100'
      echo 'rate prefork\.served\.rate\{slot=.\} 1'
      ;;
    quick_start)
      echo 'rate shop\.web\.requests\.rate\{method=get,status=200,slot=0\} 10'
      ;;
    worker_pool)
      echo 'timer pool\.latency\.timer\{path=/cart,status=404,slot=0\} .* counter=[0-9]+ .*'
      echo 'timer pool\.requests\.waited\{slot=0\} .*'
      ;;
    *) die "no example \"$1\"" ;;
  esac
}

tmp=$(mktemp -d /tmp/tidegate-examples.XXXXXX)
agent_pid=
cleanup() {
  [[ -z $agent_pid ]] || kill -KILL "$agent_pid" 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT

# run_example <name>: with an agent of its own, which finds no slots of an earlier one.
run_example() {
  local name=$1 socket=$tmp/$1 pattern try status=0
  local arguments=("$socket")
  [[ $name != demo_service ]] || arguments+=(--seconds 2)
  "$AGENT" --socket "$socket" >"$tmp/points" 2>"$tmp/agent.err" </dev/null &
  agent_pid=$!
  for ((try = 0; try < 100; ++try)); do
    [[ ! -S $socket ]] || break
    sleep 0.1 # there is nothing to wait on
  done
  timeout 60 "$EXAMPLES/$name" "${arguments[@]}" >"$tmp/out" </dev/null || status=$?
  kill -TERM "$agent_pid"
  wait "$agent_pid" || true # it takes in what was sent, then ends
  agent_pid=
  ((status == 0)) || die "$name ended with status $status: $(cat "$tmp/out")"
  while read -r pattern; do
    grep -Eq "^[0-9]+ [a-z]+ $pattern$" "$tmp/points" ||
      die "$name: no point like \"$pattern\" among: $(cat "$tmp/points" "$tmp/agent.err")"
  done < <(expected "$name")
  grep -q ' errors=0$' "$tmp/agent.err" || die "$name: $(cat "$tmp/agent.err")"
  printf '%-20s %s points\n' "$name" "$(wc -l <"$tmp/points")"
}

if [[ -z ${EXAMPLES:-} ]]; then
  need_packages "${BUILD_PACKAGES[@]}"
  build "$PRESET" tidegate-agent "${NAMES[@]}"
fi
EXAMPLES=${EXAMPLES:-$ROOT/build/$PRESET/examples}
AGENT=${AGENT:-$ROOT/build/$PRESET/tools/agent/tidegate-agent}
step "running the examples"
for name in "${NAMES[@]}"; do
  run_example "$name"
done
