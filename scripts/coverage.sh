#!/usr/bin/env bash
# Runs all tests in a build that counts executed lines, and prints their share: of the library and of the
# agent. build/coverage/report gets a table of files and a page for each file. Processes that are killed, or
# that end by _exit as the children of many tests do, are not counted.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

BUILD=$ROOT/build/coverage
REPORT=$BUILD/report

# report <name> <folder...>: one line of figures; the rest goes to files.
report() {
  local name=$1 filters=()
  shift
  for folder in "$@"; do
    filters+=(--filter "$folder/")
  done
  (cd "$ROOT" && gcovr --add-tracefile "$REPORT/all.json" "${filters[@]}" --txt "$REPORT/$name.txt" \
    --html-details "$REPORT/$name.html" --print-summary) |
    sed -n "s/^lines:/$name: lines executed/p"
}

need_packages "${BUILD_PACKAGES[@]}" "${COVERAGE_PACKAGES[@]}"
build coverage
find "$BUILD" -name '*.gcda' -delete
status=0
run_tests coverage || status=$? # a test that fails executes lines, too
mkdir -p "$REPORT"
step "counting lines"
(cd "$ROOT" && quietly gcovr -j "$JOBS" --filter include/ --filter src/ --filter tools/agent/ \
  --json "$REPORT/all.json" build/coverage)
report library include src
report agent tools/agent
exit "$status"
