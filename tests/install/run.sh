#!/usr/bin/env bash
# run.sh <build folder>: installs what is built there into a scratch prefix and uses it as its users do.
#   consumers   by CMake, the examples too, by pkg-config (once with an absolute libdir), by
#               add_subdirectory
#   headers     each compiles alone, with gcc and clang, as C++17 and C++20, without a warning
#   symbols     what the library exports is what cmake/exported_symbols.txt says
#   packages    three Debian packages with their files
# `run.sh <build folder> --accept-symbols` writes the list of symbols anew instead.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

BUILD=$(cd "$1" && pwd)
LIST=$ROOT/cmake/exported_symbols.txt
SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT

PREFIX=$SCRATCH/prefix
INCLUDE=$PREFIX/include/tidegate-metrics

# run_cmake_consumer <name> <cmake arguments...>: builds a consumer in the scratch folder and runs it.
run_cmake_consumer() {
  local folder=$SCRATCH/$1
  shift
  quietly cmake -G Ninja -B "$folder" "$@"
  quietly cmake --build "$folder" -j "$JOBS"
  quietly "$folder/consumer"
}

# run_pkg_config_consumer <prefix> <libdir>
run_pkg_config_consumer() {
  local flags program=$SCRATCH/pkg_config_consumer
  flags=$(PKG_CONFIG_PATH=$2/pkgconfig pkg-config --cflags --libs tidegate-metrics)
  # shellcheck disable=SC2086 # the flags are several words
  quietly g++ -std=c++17 "$ROOT/tests/install/consumer.cc" $flags -o "$program"
  quietly env LD_LIBRARY_PATH="$2" "$program"
}

check_consumers() {
  step "consumers of the installed package"
  # The tools' component has a file for /etc.
  quietly cmake --install "$BUILD" --prefix "$PREFIX" --component runtime
  quietly cmake --install "$BUILD" --prefix "$PREFIX" --component dev
  local libdir
  libdir=$(dirname "$(find "$PREFIX" -name libtidegate_metrics.so)")
  run_cmake_consumer by_cmake -S "$ROOT/tests/install/cmake" -DCMAKE_PREFIX_PATH="$PREFIX"
  run_pkg_config_consumer "$PREFIX" "$libdir"
  quietly cmake -G Ninja -S "$ROOT/examples" -B "$SCRATCH/examples" -DCMAKE_PREFIX_PATH="$PREFIX"
  quietly cmake --build "$SCRATCH/examples" -j "$JOBS"
  run_cmake_consumer by_subdirectory -S "$ROOT/tests/install/subdirectory" -DTIDEGATE_DIR="$ROOT"
}

# A libdir outside the prefix stands in the pkg-config file as it is.
check_absolute_libdir() {
  step "a package with an absolute libdir"
  local libdir=$SCRATCH/apart/lib
  quietly cmake -G Ninja -S "$ROOT" -B "$SCRATCH/absolute" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$SCRATCH/absolute_prefix" -DCMAKE_INSTALL_LIBDIR="$libdir" \
    -DTIDEGATE_BUILD_TESTS=OFF -DTIDEGATE_BUILD_AGENT=OFF -DTIDEGATE_BUILD_EXAMPLES=OFF \
    -DTIDEGATE_BUILD_BENCH=OFF -DTIDEGATE_BUILD_STRESS=OFF
  quietly cmake --build "$SCRATCH/absolute" -j "$JOBS"
  quietly cmake --install "$SCRATCH/absolute"
  run_pkg_config_consumer "$SCRATCH/absolute_prefix" "$libdir"
}

# compile_header <header>: with both compilers and both standards.
compile_header() {
  local compiler standard
  for compiler in g++ clang++; do
    for standard in c++17 c++20; do
      echo "#include \"${1#"$INCLUDE"/}\"" |
        "$compiler" -std=$standard -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion \
          -Werror -I"$INCLUDE" -x c++ - || die "$1 does not compile alone: $compiler -std=$standard"
    done
  done
}
export -f compile_header die
export INCLUDE

check_headers() {
  step "each installed header alone"
  find "$INCLUDE" -name '*.h' -print0 |
    xargs -0 -n 1 -P "$JOBS" bash -c 'compile_header "$1"' compile_header
}

exported_symbols() {
  nm -DC --defined-only "$(find "$BUILD/src" -name 'libtidegate_metrics.so')" |
    cut -d ' ' -f 2- | grep -v '^A ' | LC_ALL=C sort
}

check_symbols() {
  step "exported symbols"
  exported_symbols >"$SCRATCH/symbols"
  diff -u "$LIST" "$SCRATCH/symbols" ||
    die "the exported symbols have changed; docs/abi.md says what to do"
}

check_packages() {
  step "Debian packages"
  (cd "$SCRATCH" && quietly cpack -G DEB --config "$BUILD/CPackConfig.cmake" -B "$SCRATCH/packages")
  local content=(
    "libtidegate-metrics1_*.deb ./usr/lib/.*/libtidegate_metrics\.so\.1$"
    "libtidegate-metrics-dev_*.deb ./usr/include/tidegate-metrics/metrics/metric_client\.h$"
    "libtidegate-metrics-dev_*.deb ./usr/lib/.*/pkgconfig/tidegate-metrics\.pc$"
    "libtidegate-metrics-dev_*.deb ./usr/lib/.*/libtidegate_metrics\.so$"
    "tidegate-agent_*.deb ./usr/bin/tidegate-agent$"
    "tidegate-agent_*.deb ./usr/lib/systemd/system/tidegate-agent\.service$"
    "tidegate-agent_*.deb ^-rw-r----- ./etc/tidegate-agent\.conf$")
  local line package
  for line in "${content[@]}"; do
    package=$(find "$SCRATCH/packages" -maxdepth 1 -name "${line%% *}")
    [[ -n $package ]] || die "no package ${line%% *}"
    dpkg-deb -c "$package" | awk '{ print $1, $6 }' | grep -q "${line#* }" ||
      die "$(basename "$package") has no file ${line#* }"
  done
}

if [[ ${2:-} == --accept-symbols ]]; then
  exported_symbols >"$LIST"
  exit 0
fi
check_consumers
check_absolute_libdir
check_headers
check_symbols
check_packages
