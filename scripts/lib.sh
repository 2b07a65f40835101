# shellcheck shell=bash disable=SC2034 # the scripts that source this file use its variables
# Shared by the scripts of this folder and by .ci/run: source it, do not run it.

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
JOBS=${JOBS:-2}

# For the preset `package` and cpack; README names them.
DEBIAN_PACKAGES=(g++ cmake ninja-build pkgconf zlib1g-dev libcli11-dev nlohmann-json3-dev
  libcurl4-openssl-dev libmicrohttpd-dev libprotozero-dev libsnappy-dev libjs-dygraphs help2man dpkg-dev
  file)
BUILD_PACKAGES=("${DEBIAN_PACKAGES[@]}" ccache libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev
  libsqlite3-dev)
E2E_PACKAGES=(curl jq)
CHECK_PACKAGES=(clang clang-format clang-tidy libclang-rt-14-dev doxygen lintian systemd
  libspdlog-dev libgoogle-glog-dev)
BENCH_PACKAGES=(python3 valgrind prometheus-cpp-dev)
COVERAGE_PACKAGES=(gcovr)

# Versions of clang-format do not agree on the format; Debian 12 has this one.
CLANG_FORMAT_VERSION=14

# step <text>: says in one line what comes next.
step() { printf '==> %s\n' "$*"; }

die() {
  printf 'error: %s\n' "$*" >&2
  exit 1
}

# quietly <command...>: runs it and shows its output only if it fails.
quietly() {
  local log status=0
  log=$(mktemp)
  "$@" >"$log" 2>&1 </dev/null || status=$?
  if ((status != 0)); then
    cat "$log" >&2
    printf 'error: "%s" failed with status %d\n' "$*" "$status" >&2
  fi
  rm -f "$log"
  return "$status"
}

is_installed() {
  [[ $(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# need_packages <package...>: installs those Debian packages that are missing.
need_packages() {
  local package missing=() as_root=()
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  ((${#missing[@]} > 0)) || return 0

  if ((EUID != 0)); then
    command -v sudo >/dev/null || die "root or sudo is needed to install: ${missing[*]}"
    as_root=(sudo)
  fi
  step "installing ${missing[*]}"
  quietly "${as_root[@]}" apt-get update -q
  quietly "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# build <preset> [target...]: configures and builds; without a target everything.
build() {
  local preset=$1
  shift
  step "configuring build/$preset"
  (cd "$ROOT" && quietly cmake --preset "$preset")
  step "building build/$preset"
  (cd "$ROOT" && quietly cmake --build --preset "$preset" -j "$JOBS" ${1:+--target "$@"} -- --quiet)
}

# run_tests <preset> [argument of ctest...]: the suite, or the part of it that the arguments choose.
# ctest's own output ends with its summary; it says which tests were skipped, but not why.
run_tests() {
  local preset=$1 status=0
  shift
  step "testing build/$preset"
  (cd "$ROOT" && ctest --preset "$preset" -j "$JOBS" "$@" </dev/null) || status=$?
  awk '/: Skipped$/ { getline; print "skipped: " $0 }' \
    "$ROOT/build/$preset/Testing/Temporary/LastTest.log" | sort -u
  return "$status"
}

# sources <folder...> -- <name pattern...>: the matching files, each ended by a zero byte.
sources() {
  local folders=() patterns=()
  while [[ $1 != -- ]]; do
    folders+=("$ROOT/$1")
    shift
  done
  shift
  for pattern in "$@"; do
    patterns+=(-o -name "$pattern")
  done
  find "${folders[@]}" -type f \( "${patterns[@]:1}" \) -print0 | sort -z
}

# The files whose format is clang-format's, each ended by a zero byte.
formatted_sources() {
  sources include src tools tests testing stress fuzz bench examples -- '*.h' '*.cc'
}

# Ends the script unless clang-format is of the version that the format is written with.
require_clang_format() {
  local version
  version=$(clang-format --version | grep -oE '[0-9]+(\.[0-9]+)+' | head -n 1)
  [[ ${version%%.*} == "$CLANG_FORMAT_VERSION" ]] ||
    die "the format is that of clang-format $CLANG_FORMAT_VERSION, and this one is ${version:-not to be had}"
}
