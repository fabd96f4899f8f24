#!/usr/bin/env bash
# Build the library, the simulated line card and tcamwrap-sim, then run the
# warm-restart demo on a fresh simulated card. The set-up and the build write
# to a log file; the terminal shows the demo's report and the log's path. The
# card stays in the state directory that the report names.
set -euo pipefail
cd "$(dirname "$0")/.."
mkdir -p build
log="$(pwd)/build/run-demo.log"
if ! { scripts/install-deps.sh && cmake --preset dev && cmake --build --preset dev --target tcamwrap-sim; } \
     >"${log}" 2>&1; then
  tail -n 20 "${log}" >&2
  echo "run-demo: the set-up or the build failed; the whole log is ${log}" >&2
  exit 1
fi
state=$(mktemp -d "${TMPDIR:-/tmp}/tcamwrap-demo-XXXXXX")
rc=0
TCAMWRAP_SIM_STATE="${state}" build/dev/tools/tcamwrap-sim demo "$@" || rc=$?
echo "build log: ${log}"
exit "${rc}"
