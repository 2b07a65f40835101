#!/usr/bin/env bash
# The agent's page in a headless Chromium: finds metrics and plots them, shows an outage, and lets nothing that
# services send become markup. With --images the pictures of the documents are made, which takes a minute more.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/parts.sh"

images=()
if [[ ${1:-} == --images ]]; then
  images=("$ROOT/docs/images")
  mkdir -p "${images[0]}"
fi

need_packages "${BUILD_PACKAGES[@]}" "${E2E_PACKAGES[@]}" chromium python3
build release tidegate-agent demo_service

step "opening the agent's page"
pick_port && database_port=$port
pick_port && agent=http://127.0.0.1:$port
start agent "$ROOT/build/release/tools/agent/tidegate-agent" --socket "$tmp/agent.sock" --http "127.0.0.1:$port" \
  --forward "http://127.0.0.1:$database_port/write" --no-spread --forward-catch-up 0
await "the start of the agent" 60 test -S "$tmp/agent.sock"
start service "$ROOT/build/release/examples/demo_service" "$tmp/agent.sock" --seconds 600
python3 "$ROOT/scripts/e2e/page.py" "$agent/" "$tmp/agent.sock" "$database_port" "${images[@]}"
