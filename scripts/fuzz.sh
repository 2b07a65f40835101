#!/usr/bin/env bash
# Fuzzes every target of fuzz/, or those that are named, JOBS (2) at a time.
#   fuzz.sh [RUNS] [TARGET...]   RUNS of each, 20 million if it is left out
# The preset fuzz finds more in a run; PRESET=fuzz-long makes several times as many runs in the same time.
# What was learned stays in build/<preset>/corpus for the next time. The input of a finding is left in
# build/<preset>; give it a name in fuzz/corpus/<target> once the fault is repaired.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PRESET=${PRESET:-fuzz}
RUNS=20000000
MAX_SECONDS=${MAX_SECONDS:-0} # for each target; 0 is no limit
MAX_LEN=2048                  # bytes of an input
RSS_LIMIT=1024 MALLOC_LIMIT=8 # MiB
# In short inputs a target that takes long reaches as much: 64 bytes are a few packets for the table.
# It has thousands of features, for which the entropic schedule takes more time than the runs.
declare -A OPTIONS=([http_head]="-max_len=256" [series_table]="-max_len=64 -entropic=0")

if [[ ${1:-} =~ ^[0-9]+$ ]]; then
  RUNS=$1
  shift
fi
all=("$ROOT"/fuzz/corpus/*)
all=("${all[@]##*/}")
for name in "$@"; do
  [[ " ${all[*]} " == *" $name "* ]] || die "no target \"$name\"; there are: ${all[*]}"
done
(($# > 0)) || set -- "${all[@]}"

need_packages "${BUILD_PACKAGES[@]}" "${CHECK_PACKAGES[@]}"
build "$PRESET" fuzzers

# fuzz <target>: one line of figures, or all that the fuzzer printed.
fuzz() {
  local out=$ROOT/build/$PRESET name=$1 options=() log
  read -ra options <<<"${OPTIONS[$1]:-}"
  log=$out/$name.log
  mkdir -p "$out/corpus/$name"
  [[ ! -f $ROOT/fuzz/$name.dict ]] || options+=("-dict=$ROOT/fuzz/$name.dict")
  if ! "$out/fuzz/${name}_fuzzer" -runs="$RUNS" -max_total_time="$MAX_SECONDS" \
    -max_len="$MAX_LEN" -timeout=20 -rss_limit_mb="$RSS_LIMIT" \
    -malloc_limit_mb="$MALLOC_LIMIT" -artifact_prefix="$out/$name-" \
    "${options[@]}" "$out/corpus/$name" "$ROOT/fuzz/corpus/$name" >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    return 1
  fi
  printf '%s: %s; %s\n' "$name" "$(sed -n 's/^Done //p' "$log")" \
    "$(grep -o 'cov: .* corp: [^ ]*' "$log" | tail -n 1)"
}

step "fuzzing $*"
failed=0
for name in "$@"; do
  while (($(jobs -rp | wc -l) >= JOBS)); do wait -n || failed=1; done
  fuzz "$name" &
done
while [[ -n $(jobs -p) ]]; do wait -n || failed=1; done
((failed == 0)) || die "a fuzzer found something"
