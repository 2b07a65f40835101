#!/usr/bin/env bash
# Checks beyond the tests. Without arguments all of them, else those that are named:
#   format     the sources are as clang-format writes them
#   layers     the includes form no large cycle, and point down the floors of scripts/layers.py
#   mutations  the changes of scripts/mutations.txt fit the sources
#   clang      builds clean with clang and its thread-safety analysis
#   tidy       clang-tidy finds nothing
#   asan       the suite under the address and undefined behaviour sanitizers
#   tsan       the suite under the thread sanitizer
#   install    the installed library serves its users and exports what it should; the Debian packages are
#              as Debian wants them, and come and go cleanly
#   docs       Doxygen understands every header, and finds nothing undocumented in those that are installed; the C++
#              of the documents compiles
#   fuzz       a short run of each fuzzer
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

check_format() {
  require_clang_format
  step "checking the format"
  formatted_sources | xargs -0 clang-format --dry-run -Werror
}

check_layers() {
  step "reading the includes"
  "$ROOT/scripts/layers.py"
}

check_mutations() {
  step "checking that the mutations fit"
  quietly python3 "$ROOT/scripts/mutate.py" --list
}

check_clang() {
  build clang
}

# Reads the compile commands of the clang build, so the flags are ones that clang knows.
check_tidy() {
  step "configuring build/clang"
  (cd "$ROOT" && quietly cmake --preset clang)
  step "running clang-tidy"
  sources src tools examples bench tests testing stress fuzz -- '*.cc' |
    xargs -0 -n 1 -P "$JOBS" clang-tidy -p "$ROOT/build/clang" --quiet 2> >(
      grep -v 'warnings\? generated\.$\|^Suppressed\|^Use -header-filter' >&2 || true)
}

check_asan() {
  build asan
  run_tests asan
}

check_tsan() {
  build tsan
  run_tests tsan
}

check_install() {
  build package
  "$ROOT/tests/install/run.sh" "$ROOT/build/package"
}

check_docs() {
  step "running doxygen"
  (cd "$ROOT" && quietly doxygen docs/Doxyfile && quietly doxygen <(undocumented_in_installed_headers))
  step "compiling the snippets of the documents"
  (cd "$ROOT" && quietly scripts/snippets.py)
}

# Settings for the installed headers alone, in which users should find a comment on everything.
undocumented_in_installed_headers() {
  printf '%s\n' '@INCLUDE = docs/Doxyfile' 'WARN_IF_UNDOCUMENTED = YES' 'OUTPUT_DIRECTORY = build/doxygen/installed' \
    'EXCLUDE_SYMBOLS = tidegate::detail' \
    "INPUT = $(sed -n 's#^ *\(\(include\|src\)/.*\.h\))\?$#\1#p' cmake/TidegatePublicHeaders.cmake | tr '\n' ' ')"
}

check_fuzz() {
  MAX_SECONDS=50 "$ROOT/scripts/fuzz.sh" 100000
}

ALL=(format layers mutations clang tidy asan tsan install docs fuzz)
if (($# == 0)); then
  set -- "${ALL[@]}"
fi
for name in "$@"; do
  case $name in
    format | layers | mutations | clang | tidy | asan | tsan | install | docs | fuzz) ;;
    *) die "unknown check \"$name\"; there are: ${ALL[*]}" ;;
  esac
done

need_packages "${BUILD_PACKAGES[@]}" "${CHECK_PACKAGES[@]}" "${BENCH_PACKAGES[@]}"
for name in "$@"; do
  "check_$name"
done
step "clean: $*"
