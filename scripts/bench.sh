#!/usr/bin/env bash
# Measures speed and memory, beside a peer and plain primitives.
#   bench.sh [--short] [FOLDER]       all benchmarks; results into FOLDER (build/bench-results): the JSON
#                                     of each process run, results.md, results.svg
#   bench.sh instructions [--update]  instruction counts of an emission against bench/instructions.txt
# bench/compare.py BEFORE AFTER holds two such folders against each other; bench/fleet.py simulates many hosts.
# RUNS (3) process runs of each benchmark, EMIT_RUNS (7) of emissions with one thread, CONTENDED_RUNS (9) of
# those with several, IDLE_SECONDS (120) of rest. --short is one brief run of each, which only shows that they work.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

BIN=$ROOT/build/release/bench

check_instructions() {
  build release instructions
  step "counting instructions"
  python3 "$ROOT/bench/instructions.py" "$BIN/instructions" "$ROOT/bench/instructions.txt" "$@"
}

# describe <folder>: the machine and the build, as the head of the results.
describe() {
  local cache=$ROOT/build/release/CMakeCache.txt
  {
    printf -- '- %s, %d cores, Linux %s\n' \
      "$(sed -n 's/^model name\s*: //p' /proc/cpuinfo | head -n 1)" "$(nproc)" "$(uname -r)"
    printf -- '- %s, %s, glibc %s\n' "$(g++ --version | head -n 1)" \
      "$(sed -n 's/^CMAKE_CXX_FLAGS_RELEASE:[^=]*=//p' "$cache")" \
      "$(getconf GNU_LIBC_VERSION | cut -d ' ' -f 2)"
    dpkg-query -W -f='- ${Package} ${Version}\n' libbenchmark-dev prometheus-cpp-dev 2>/dev/null
    printf -- '- %s, revision %s%s\n' "$(date -u +%F)" "$(git -C "$ROOT" rev-parse --short HEAD)" \
      "$(git -C "$ROOT" diff --quiet HEAD || echo ' with changes')"
    printf -- '- %s\n' "load before the first run: $(cut -d ' ' -f 1 /proc/loadavg)"
  } >"$1/environment.txt"
}

# run_once <group> <run> <program> [argument...]: one process, its results as <group>.<run>.json.
run_once() {
  local group=$1 run=$2 program=$3
  shift 3
  quietly "$BIN/$program" "${min_time[@]}" --benchmark_out_format=json \
    --benchmark_out="$folder/$group.$run.json" "$@"
}

# run_peer <group> <run> <filter>: the peer's emissions, where it is installed.
run_peer() {
  [[ ! -x $BIN/peer_bench ]] || run_once "$1" "$2" peer_bench --benchmark_filter="$3"
}

measure() {
  local run program
  build release tidegate_benchmarks
  mkdir -p "$folder"
  rm -f "$folder"/*.json
  describe "$folder"
  step "$EMIT_RUNS runs of emissions with one thread"
  for ((run = 1; run <= EMIT_RUNS; ++run)); do
    run_once emit "$run" emit_bench --benchmark_filter=-threads:2
    run_once tags "$run" tags_bench "${tags_filter[@]}"
    run_peer peer "$run" "$peer_filter"
  done
  for ((run = 1; run <= RUNS; ++run)); do
    step "run $run of $RUNS"
    run_once stall "$run" stall_bench --benchmark_filter="$stall_filter"
    for program in "$BIN"/*_bench; do
      program=${program##*/}
      case $program in
        emit_bench | lock_bench | peer_bench | shared_bench | stall_bench | tags_bench) ;;
        *) run_once "${program%_bench}" "$run" "$program" ;;
      esac
    done
  done
  step "$CONTENDED_RUNS runs with several threads"
  for ((run = 1; run <= CONTENDED_RUNS; ++run)); do
    run_once shared "$run" shared_bench
    run_peer peer_shared "$run" threads:
    run_once lock "$run" lock_bench
  done
  step "resting for $IDLE_SECONDS s"
  "$BIN/idle_cost" "$IDLE_SECONDS" "$IDLE_INTERVAL" >"$folder/idle.1.json"
  python3 "$ROOT/bench/against_peer.py" "$folder"
}

# try_agent_load: 2 s of a load that is far below what an agent takes.
try_agent_load() {
  build release tidegate-agent
  step "sending to an agent for 2 s"
  quietly "$BIN/agent_load" "$ROOT/build/release/tools/agent/tidegate-agent" 3 10 2
}

need_packages "${BUILD_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"
if [[ ${1:-} == instructions ]]; then
  check_instructions "${@:2}"
  exit
fi

RUNS=${RUNS:-3}
EMIT_RUNS=${EMIT_RUNS:-7}
CONTENDED_RUNS=${CONTENDED_RUNS:-9}
IDLE_SECONDS=${IDLE_SECONDS:-120}
IDLE_INTERVAL=30
min_time=(--benchmark_min_time=0.2)
tags_filter=()
peer_filter='-Shared|Own|threads:[28]'
stall_filter=.
short=
if [[ ${1:-} == --short ]]; then
  shift
  short=yes
  RUNS=1 EMIT_RUNS=1 CONTENDED_RUNS=1 IDLE_SECONDS=3 IDLE_INTERVAL=1
  min_time=(--benchmark_min_time=0.01)
  # Not what needs many series, or has its number of rounds.
  tags_filter=(--benchmark_filter='-First|series:100000')
  stall_filter=series:600000
  peer_filter='Labels.*series:100(00)?/'
fi
(($# <= 1)) || die "too many arguments"
[[ ${1:-} != -* ]] || die "unknown option \"$1\""
folder=${1:-$ROOT/build/bench-results}
measure
if [[ -n $short ]]; then
  try_agent_load
  quietly python3 "$ROOT/bench/compare.py" "$folder" "$folder"
  step "simulating a fleet"
  quietly python3 "$ROOT/bench/fleet.py" --short
fi
