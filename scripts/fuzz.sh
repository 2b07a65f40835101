#!/usr/bin/env bash
# Fuzzes every target of fuzz/, JOBS (2) at a time. Usage: scripts/fuzz.sh [runs of each] [target...]
# What was learned stays in build/fuzz/corpus for the next time. The input of a finding is left in
# build/fuzz; give it a name in fuzz/corpus/<target> once it is mended.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

RUNS=${1:-20000000}
MAX_LEN=2048 # bytes of an input
RSS_LIMIT=1024 MALLOC_LIMIT=8 # MiB
shift $(($# > 0))

need_packages "${BUILD_PACKAGES[@]}" "${CHECK_PACKAGES[@]}"
build fuzz fuzzers

# fuzz <target>: one line of figures, or all that the fuzzer printed.
fuzz() {
  local out=$ROOT/build/fuzz name=$1 options=() log
  log=$out/$name.log
  mkdir -p "$out/corpus/$name"
  [[ ! -f $ROOT/fuzz/$name.dict ]] || options+=("-dict=$ROOT/fuzz/$name.dict")
  if ! "$out/fuzz/${name}_fuzzer" -runs="$RUNS" -max_len="$MAX_LEN" -timeout=20 \
    -rss_limit_mb="$RSS_LIMIT" -malloc_limit_mb="$MALLOC_LIMIT" -artifact_prefix="$out/$name-" \
    "${options[@]}" "$out/corpus/$name" "$ROOT/fuzz/corpus/$name" >"$log" 2>&1 </dev/null; then
    cat "$log" >&2
    return 1
  fi
  printf '%s: %s; %s\n' "$name" "$(sed -n 's/^Done //p' "$log")" \
    "$(grep -o 'cov: .* corp: [^ ]*' "$log" | tail -n 1)"
}

if (($# == 0)); then
  cd "$ROOT/fuzz/corpus"
  set -- *
fi
step "fuzzing $*"
failed=0
for name in "$@"; do
  while (($(jobs -rp | wc -l) >= JOBS)); do wait -n || failed=1; done
  fuzz "$name" &
done
while [[ -n $(jobs -p) ]]; do wait -n || failed=1; done
((failed == 0)) || die "a fuzzer found something"
