#!/usr/bin/env bash
# Runs every example against the agent and checks that the points which it promises arrive: also the six tasks of
# docs/comparison.md, its peer's side of them, and the service `shop` with its own tests and with real requests.
# EXAMPLES: the folder of the programs, if they were built elsewhere; AGENT: the agent.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PRESET=${PRESET:-release}
NAMES=(compatible core_api custom_environment demo_service histogram multi_field prefork process_metrics quick_start
  worker_pool)
TASKS=(counted_handler timed_scope queue_gauge size_histogram worker_pool prefork)

# The lines that the agent has to print, as extended patterns after the time, the tenant and a blank.
expected() {
  local n
  case $1 in
    compatible)
      echo 'counter legacy\.jobs\{queue=mail,result=sent,project_id=legacy,slot=0\} 3'
      echo 'counter legacy\.jobs\{queue=invoice,project_id=legacy,slot=0\} 1'
      ;;
    custom_environment)
      echo 'delta_counter custom\.starts\.delta_counter\{cluster=south,host=host-17,account_id=.*,slot=0\} counter=1 .*'
      ;;
    demo_service)
      echo 'multi_field shop\.jobs\.clerk\{.*\} batch=[0-9]+ packed=[0-9]+'
      ;;
    core_api)
      echo 'rate shop\.web\.requests\.rate\{method=get,status=200,slot=0\} 10'
      ;;
    histogram)
      echo 'histogram http\.sizes\{project_id=http,slot=0\} .*b-256\.0+=2 .*sum=10400 hist:count=4'
      ;;
    multi_field)
      echo 'multi_field db\.pool\{database=orders,project_id=db,slot=0\} open=4 queries=10 .* latency\.counter=10 .*'
      echo 'multi_field db\.pool\{database=users,project_id=db,slot=0\} open=1'
      ;;
    prefork)
      for n in 0 1 2 3; do
        echo "rate prefork\.served\{project_id=prefork,slot=$n\} 1(00)?"
      done
      echo 'rate prefork\.served\{project_id=prefork,slot=.\} 100'
      echo 'rate prefork\.served\{project_id=prefork,slot=.\} 1'
      ;;
    process_metrics)
      echo 'gauge monitored\.process\.threads\{project_id=monitored,slot=0\} [1-9][0-9]*'
      echo 'delta_counter monitored\.process\.starts\{project_id=monitored,slot=0\} counter=1 .*'
      ;;
    quick_start)
      echo 'counter shop\.requests\{method=get,status=200,project_id=shop,slot=0\} 100'
      echo 'timer shop\.latency\{project_id=shop,slot=0\} min=1 max=100 avg=50\.5 .* counter=100 .*'
      ;;
    worker_pool)
      echo 'timer pool\.latency\{path=/cart,status=404,project_id=pool,slot=0\} .* counter=[0-9]+ .*'
      echo 'timer pool\.waited\{project_id=pool,slot=0\} .*'
      ;;
    task_counted_handler)
      echo 'counter tasks\.requests\{method=get,status=200,project_id=tasks,slot=0\} 2'
      echo 'counter tasks\.requests\{method=put,status=405,project_id=tasks,slot=0\} 1'
      ;;
    task_timed_scope)
      echo 'timer tasks\.latency\{page=cart,project_id=tasks,slot=0\} min=[2-9][0-9]{3,}.* counter=1 .*'
      echo 'timer tasks\.latency\{page=search,project_id=tasks,slot=0\} .* counter=2 .*'
      ;;
    task_queue_gauge) echo 'gauge tasks\.queue\.length\{project_id=tasks,slot=0\} 4' ;;
    task_size_histogram) echo 'histogram tasks\.sizes\{project_id=tasks,slot=0\} .*b-256\.0+=3 .*b-4096\.0+=1 .*hist:count=4' ;;
    task_worker_pool) echo 'counter tasks\.jobs\{kind=mail,project_id=tasks,slot=0\} 400' ;;
    task_prefork)
      for n in 0 1 2; do
        echo "counter tasks\.served\{project_id=tasks,slot=$n\} 100"
      done
      ;;
    shop)
      echo 'counter shop\.requests\{route=product,status=200,project_id=shop,slot=0\} 2'
      echo 'counter shop\.requests\{route=none,status=404,project_id=shop,slot=0\} 1'
      echo 'counter shop\.requests\{route=orders,status=202,project_id=shop,slot=0\} 2'
      echo 'timer shop\.latency\{route=orders,project_id=shop,slot=0\} .* counter=2 .*'
      echo 'gauge shop\.process\.memory\.resident_bytes\{.*\} [0-9]+'
      echo 'counter shop\.orders\{state=packed,project_id=shop,slot=0\} 1'
      echo 'counter shop\.orders\{state=sold_out,project_id=shop,slot=0\} 1'
      ;;
    *) die "no example \"$1\"" ;;
  esac
}

tmp=$(mktemp -d /tmp/tidegate-examples.XXXXXX)
agent_pid=
shop_pid=
cleanup() {
  [[ -z $agent_pid ]] || kill -KILL "$agent_pid" 2>/dev/null || true
  [[ -z $shop_pid ]] || kill -KILL "$shop_pid" 2>/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT

# The output of the peer's side of a task, as a pattern. Of `prefork` there is none: the children have pages of their own,
# and their parent's is empty.
expected_of_peer() {
  case $1 in
    counted_handler) echo 'requests_total\{method="get",status="200"\} 2' ;;
    timed_scope) echo 'latency_seconds_count\{page="search"\} 2' ;;
    queue_gauge) echo 'queue_length 4' ;;
    size_histogram) echo 'sizes_bytes_bucket\{le="1024"\} 3' ;;
    worker_pool) echo 'jobs_total\{kind="mail"\} 400' ;;
  esac
}

# start_agent <socket>: one that finds no slots of an earlier one.
start_agent() {
  local try
  "$AGENT" --socket "$1" >"$tmp/points" 2>"$tmp/agent.err" </dev/null &
  agent_pid=$!
  for ((try = 0; try < 100; ++try)); do
    [[ ! -S $1 ]] || break
    sleep 0.1 # there is nothing to wait on
  done
}

# check_points <name>: ends the agent, and looks at what it got.
check_points() {
  local pattern
  kill -TERM "$agent_pid"
  wait "$agent_pid" || true # it takes in what was sent, then ends
  agent_pid=
  while read -r pattern; do
    grep -Eq "^[0-9]+ [a-z]+ $pattern$" "$tmp/points" ||
      die "$1: no point like \"$pattern\" among: $(cat "$tmp/points" "$tmp/agent.err")"
  done < <(expected "$1")
  grep -q ' errors=0$' "$tmp/agent.err" || die "$1: $(cat "$tmp/agent.err")"
  printf '%-20s %s points\n' "$1" "$(wc -l <"$tmp/points")"
}

run_example() {
  local name=$1 socket=$tmp/$1 status=0
  local arguments=("$socket")
  [[ $name != demo_service ]] || arguments+=(--seconds 2)
  start_agent "$socket"
  timeout 60 "$EXAMPLES/$name" "${arguments[@]}" >"$tmp/out" </dev/null || status=$?
  ((status == 0)) || die "$name ended with status $status: $(cat "$tmp/out")"
  check_points "$name"
}

run_shop() {
  local url try
  quietly "$EXAMPLES/shop/shop_test"
  start_agent "$tmp/shop"
  "$EXAMPLES/shop/shop" "$tmp/shop" >"$tmp/out" </dev/null &
  shop_pid=$!
  for ((try = 0; try < 100; ++try)); do
    url=$(sed -n 's,^shop: \(.*\)/products/1$,\1,p' "$tmp/out")
    [[ -z $url ]] || break
    sleep 0.1
  done
  curl -sS "$url/products/1" "$url/products/2" "$url/nothing" -o /dev/null -o /dev/null -o /dev/null
  curl -sS -d 'product=1&quantity=3' "$url/orders" -o /dev/null
  curl -sS -d 'product=2&quantity=3' "$url/orders" -o /dev/null
  kill -TERM "$shop_pid" # it packs what waits
  wait "$shop_pid" || die "the shop ended with status $?: $(cat "$tmp/out")"
  shop_pid=
  check_points shop
}

if [[ -z ${EXAMPLES:-} ]]; then
  need_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}" curl
  build "$PRESET" tidegate-agent "${NAMES[@]}" "${TASKS[@]/#/task_}" shop shop_test tidegate_peer_tasks
  step "the six tasks with prometheus-cpp"
  for task in "${TASKS[@]}"; do
    timeout 60 "$ROOT/build/$PRESET/bench/peer_$task" >"$tmp/out" </dev/null
    [[ $task == prefork ]] || grep -Eq "^$(expected_of_peer "$task")$" "$tmp/out" || die "peer_$task: $(cat "$tmp/out")"
  done
  "$ROOT/scripts/task_lines.py" --check
fi
EXAMPLES=${EXAMPLES:-$ROOT/build/$PRESET/examples}
AGENT=${AGENT:-$ROOT/build/$PRESET/tools/agent/tidegate-agent}
step "running the examples"
for name in "${NAMES[@]}" "${TASKS[@]/#/task_}"; do
  run_example "$name"
done
run_shop
