#!/usr/bin/env bash
# Builds everything and runs all tests, on a fresh Debian 12 too.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

need_packages "${BUILD_PACKAGES[@]}"
build dev
run_tests dev
