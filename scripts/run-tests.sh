#!/usr/bin/env bash
# Build and run every test: the host build, the same under AddressSanitizer and
# UndefinedBehaviorSanitizer, the PowerPC build of the library and its unit
# tests under qemu-ppc, and the fuzz targets (a minute each under libFuzzer,
# then a replay of their corpus and regressions).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --cross
for preset in dev asan-ubsan ppc-qemu fuzz; do
  echo "=== ${preset} ===" >&2
  cmake --workflow --preset "${preset}"
done
scripts/test-ratio.sh
