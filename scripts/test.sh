#!/usr/bin/env bash
# Builds and runs tests, on a fresh Debian 12 too.
#   test.sh            all of them
#   test.sh NAME...    the test executables and stress programs that are named, as encoder_test or soak
# PRESET (dev) is the build: asan, tsan and the others of CMakePresets.json.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

PRESET=${PRESET:-dev}

# The names of all test executables and stress programs, a line each.
names() {
  cat "$ROOT"/{tests,stress}/CMakeLists.txt | tr -s ' \n' ' ' |
    grep -oE '\) tidegate_(test|stress)\( ?[a-z_]+' | sed 's/.*[( ]//' | sort
}

for name in "$@"; do
  grep -qxF -- "$name" < <(names) || die "no test \"$name\"; there are: $(names | tr '\n' ' ')"
done
need_packages "${BUILD_PACKAGES[@]}"
build "$PRESET" "$@"
if (($# == 0)); then
  run_tests "$PRESET"
else
  run_tests "$PRESET" -R "^(stress\.)?($(IFS='|' && echo "$*"))(\.|\$)"
fi
