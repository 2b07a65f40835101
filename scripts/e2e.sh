#!/usr/bin/env bash
# The agent between real parts, end to end.
set -euo pipefail

folder=$(dirname "${BASH_SOURCE[0]}")/e2e
source "$folder/parts.sh"
fetch_packages
export PARTS=$tmp/root
"$folder/outage.sh"
"$folder/processes.sh"
"$folder/remote_write.sh"
"$folder/credentials.sh"
"$folder/dashboards.sh"
"$folder/fleet.sh" --short
"$folder/otlp.sh"
"$folder/page.sh"
