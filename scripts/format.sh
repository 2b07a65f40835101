#!/usr/bin/env bash
# Writes the format of all sources that are not as `scripts/check.sh format` wants them.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

need_packages clang-format
require_clang_format
formatted_sources | xargs -0 clang-format -i
