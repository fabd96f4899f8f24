#!/usr/bin/env bash
# Build the library, the simulated line card and tcamwrap-sim, then run the
# warm-restart demo on a fresh simulated card.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset dev >/dev/null
cmake --build --preset dev --target tcamwrap-sim
state=$(mktemp -d)
trap 'rm -rf "${state}"' EXIT
TCAMWRAP_SIM_STATE="${state}" build/dev/tools/tcamwrap-sim demo "$@"
