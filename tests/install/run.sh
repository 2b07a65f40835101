#!/usr/bin/env bash
# run.sh <build folder>: installs what is built there into a scratch prefix and uses it as its users do.
#   consumers   and their tests, by CMake, the examples too, by pkg-config; of a static library in an absolute libdir by
#               both; by add_subdirectory, installed in their turn, of both libraries
#               Each of these projects has headers that are named as those of the library, and are none.
#   headers     each compiles alone, with gcc and clang, from C++17 to C++23, also without exceptions and type
#               information, without a warning
#   symbols     what the library exports is what cmake/exported_symbols.txt says
#   packages    three Debian packages with their files, and lintian finds nothing
#   options     the agent's manual page and completion have those of --help
#   lifecycle   the agent's package comes and goes as it should
# `run.sh <build folder> --accept-symbols` writes the list of symbols anew instead.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

BUILD=$(cd "$1" && pwd)
LIST=$ROOT/cmake/exported_symbols.txt
SCRATCH=$(mktemp -d)
trap 'rm -rf "$SCRATCH"' EXIT

PREFIX=$SCRATCH/prefix
INCLUDE=$PREFIX/include/tidegate-metrics
FOREIGN=$SCRATCH/foreign

make_foreign_headers() {
  local header
  while read -r header; do
    mkdir -p "$FOREIGN/${header%/*}"
    echo '#error "a header of the project instead of one of the library"' >"$FOREIGN/$header"
  done < <(find "$ROOT/include" "$ROOT/src" -name '*.h' -printf '%P\n')
  rm "$FOREIGN"/tidegate/{metrics,testing_gtest}.h
}

# run_cmake_consumer <name> <cmake arguments...>: builds a consumer in the scratch folder, and runs it and its test.
run_cmake_consumer() {
  local folder=$SCRATCH/$1
  shift
  quietly cmake -G Ninja -B "$folder" -DFOREIGN_HEADERS="$FOREIGN" "$@"
  quietly cmake --build "$folder" -j "$JOBS"
  quietly "$folder/consumer"
  quietly "$folder/consumer_test"
}

# run_pkg_config_consumer <prefix> <libdir>
run_pkg_config_consumer() {
  local -A packages=([consumer]=tidegate-metrics [consumer_test]="tidegate-metrics-testing gmock_main")
  local flags name program=$SCRATCH/pkg_config_consumer
  for name in "${!packages[@]}"; do
    # shellcheck disable=SC2086 # these and the flags are several words
    flags=$(PKG_CONFIG_PATH=$2/pkgconfig pkg-config --cflags --libs ${packages[$name]})
    # shellcheck disable=SC2086
    quietly g++ -std=c++17 -I"$FOREIGN" "$ROOT/tests/install/$name.cc" $flags -o "$program"
    quietly env LD_LIBRARY_PATH="$2" "$program"
  done
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
}

# run_installed_consumer <cmake arguments...>: builds and installs a project that embeds the sources, and runs
# the program where it was installed.
run_installed_consumer() {
  local prefix=$SCRATCH/embedded
  rm -rf "$prefix"
  run_cmake_consumer by_subdirectory -S "$ROOT/tests/install/subdirectory" -DTIDEGATE_DIR="$ROOT" \
    -DTIDEGATE_USE_CCACHE=ON \
    -DCMAKE_INSTALL_PREFIX="$prefix" "$@"
  quietly cmake --install "$SCRATCH/by_subdirectory"
  quietly "$prefix/bin/consumer"
}

check_embedded() {
  step "consumers that embed the sources"
  run_installed_consumer
  # shellcheck disable=SC2016 # the loader expands it
  run_installed_consumer -DBUILD_SHARED_LIBS=ON -DCMAKE_INSTALL_RPATH='$ORIGIN/../lib'
  [[ -f $SCRATCH/embedded/lib/libtidegate_metrics.so.1 ]] || die "the shared library is not installed along"
}

# A libdir outside the prefix stands in the pkg-config file as it is.
check_static() {
  step "a static library in an absolute libdir"
  local libdir=$SCRATCH/apart/lib
  quietly cmake -G Ninja -S "$ROOT" -B "$SCRATCH/static" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX="$SCRATCH/static_prefix" -DCMAKE_INSTALL_LIBDIR="$libdir" \
    -DBUILD_SHARED_LIBS=OFF \
    -DTIDEGATE_BUILD_TESTS=OFF -DTIDEGATE_BUILD_AGENT=OFF -DTIDEGATE_BUILD_EXAMPLES=OFF \
    -DTIDEGATE_BUILD_BENCH=OFF -DTIDEGATE_BUILD_STRESS=OFF
  quietly cmake --build "$SCRATCH/static" -j "$JOBS"
  quietly cmake --install "$SCRATCH/static"
  [[ -z $(find "$libdir" -name '*.so*') ]] || die "there is a shared library"
  run_pkg_config_consumer "$SCRATCH/static_prefix" "$libdir"
  run_cmake_consumer by_cmake_static -S "$ROOT/tests/install/cmake" \
    -Dtidegate-metrics_DIR="$libdir/cmake/tidegate-metrics"
  local flags
  flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs tidegate-metrics)
  # shellcheck disable=SC2086 # the flags are several words
  quietly g++ -shared -fPIC "$ROOT/tests/install/consumer.cc" $flags -o "$SCRATCH/plugin.so"
  readelf -d "$SCRATCH/plugin.so" | grep NODELETE >/dev/null || die "a plugin that holds the library can be unloaded"
}

# compile_header <header>: with both compilers. Those that users include by name, with several standards and settings.
compile_header() {
  local compiler language languages=("c++17 -fno-exceptions -fno-rtti")
  [[ $1 != */tidegate/* ]] || languages+=(c++17 c++20 "c++2b -fno-exceptions -fno-rtti")
  for compiler in g++ clang++; do
    for language in "${languages[@]}"; do
      # shellcheck disable=SC2086 # several words
      echo "#include \"$1\"" |
        "$compiler" -std=$language -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wconversion \
          -Werror -I"$FOREIGN" -x c++ - || die "$1 does not compile alone: $compiler -std=$language"
    done
  done
}
export -f compile_header die
export FOREIGN

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
  tr -s ' \\\n' ' ' <"$ROOT/README.md" | grep -qF "apt-get install -y ${DEBIAN_PACKAGES[*]} " ||
    die "README does not install what the packages need: ${DEBIAN_PACKAGES[*]}"
  (cd "$SCRATCH" && quietly cpack -G DEB --config "$BUILD/CPackConfig.cmake" -B "$SCRATCH/packages")
  local content=(
    "libtidegate-metrics1_*.deb ./usr/lib/.*/libtidegate_metrics\.so\.1$"
    "libtidegate-metrics-dev_*.deb ./usr/include/tidegate-metrics/metrics/metric_client\.h$"
    "libtidegate-metrics-dev_*.deb ./usr/lib/.*/pkgconfig/tidegate-metrics\.pc$"
    "libtidegate-metrics-dev_*.deb ./usr/lib/.*/libtidegate_metrics\.so$"
    "libtidegate-metrics-dev_*.deb ./usr/share/man/man7/tidegate-metrics\.7\.gz$"
    "libtidegate-metrics-dev_*.deb ./usr/share/doc/libtidegate-metrics-dev/docs/guide\.md$"
    "libtidegate-metrics-dev_*.deb ./usr/share/doc/libtidegate-metrics-dev/examples/quick_start\.cc$"
    "tidegate-agent_*.deb ./usr/bin/tidegate-agent$"
    "tidegate-agent_*.deb ./usr/lib/systemd/system/tidegate-agent\.service$"
    "tidegate-agent_*.deb ./usr/share/doc/tidegate-agent/docs/agent\.md$"
    "tidegate-agent_*.deb ./usr/share/tidegate-agent/alerts\.yml$"
    "tidegate-agent_*.deb ./usr/share/tidegate-agent/dashboard-influx\.json$"
    "tidegate-agent_*.deb ^-rw-r----- ./etc/tidegate-agent\.conf$")
  local line package
  for line in "${content[@]}"; do
    package=$(find "$SCRATCH/packages" -maxdepth 1 -name "${line%% *}")
    [[ -n $package ]] || die "no package ${line%% *}"
    grep -q "${line#* }" < <(dpkg-deb -c "$package" | awk '{ print $1, $6 }') ||
      die "$(basename "$package") has no file ${line#* }"
  done
  quietly lintian --allow-root --fail-on error,warning "$SCRATCH"/packages/*.deb
}

# completions <words...>: what bash offers for the last one, a line each. The agent has to be on PATH.
completions() {
  (
    # shellcheck disable=SC1091 # it is in the package
    source "$AGENT/share/bash-completion/completions/tidegate-agent"
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _tidegate_agent "$1"
    printf '%s\n' "${COMPREPLY[@]}"
  )
}

# offers <what has to be offered, in lines> <words...>
offers() {
  local expected=$1 offered
  shift
  offered=$(completions "$@")
  [[ $offered == "$expected" ]] || die "\"$*\" is completed to \"$offered\", not \"$expected\""
}

# Manual page and completion follow --help.
check_options() {
  step "manual page and completion of the agent"
  AGENT=$SCRATCH/agent/usr
  dpkg-deb -x "$SCRATCH"/packages/tidegate-agent_*.deb "$SCRATCH/agent"
  local PATH=$AGENT/bin:$PATH page options
  options=$(tidegate-agent --help | grep -oE '^  (-h,)?--[a-z-]+' | sed 's/.*--/--/')
  page=$(zcat "$AGENT/share/man/man1/tidegate-agent.1.gz" | sed 's/\\-/-/g; s/\\f[BR]//g')
  local option
  for option in $options; do
    grep -qE "^(-h,)?$option( |$)" <<<"$page" || die "the manual page does not have $option"
  done
  [[ $(grep -c . <<<"$options") -gt 10 ]] || die "--help names only: $options"
  offers "$options" tidegate-agent --quiet --
  offers "$options" tidegate-agent --label-pid --
  offers "--socket-mode" tidegate-agent --socket-m
  offers "top" tidegate-agent t
  offers "--once" tidegate-agent top --o
  offers $'text\njson' tidegate-agent --print ""
  offers "json" tidegate-agent --print = j
  offers "" tidegate-agent --ttl ""
  offers "$AGENT/bin/tidegate-agent" tidegate-agent --config "$AGENT/bin/t"
  offers "" tidegate-agent --spool "$AGENT/bin/t"
}

check_lifecycle() {
  step "installation, upgrade, removal and purge of the agent"
  "$ROOT/tests/install/lifecycle.sh" "$SCRATCH"/packages/tidegate-agent_*.deb
}

if [[ ${2:-} == --accept-symbols ]]; then
  exported_symbols >"$LIST"
  exit 0
fi
make_foreign_headers
check_consumers
check_embedded
check_static
check_headers
check_symbols
check_packages
check_options
check_lifecycle
