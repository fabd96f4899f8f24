#!/usr/bin/env bash
# Build the library benchmark (Release), run it on the simulated card, and turn
# the run into bench/results/tcamwrap_bench.json, its picture and the figures of
# the README's Performance section. The full run takes 5 to 10 minutes on 2 cores;
# run it on a quiet machine.
# Usage: run-bench.sh [tcamwrap_bench flags, e.g. --profile=smoke or --seed=2]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --plot
cmake --workflow --preset bench
results=bench/results
mkdir -p "${results}"
build/bench/bench/tcamwrap_bench --benchmark_out="${results}/tcamwrap_bench.json" \
  --benchmark_out_format=json "$@"
/usr/bin/python3 bench/report.py "${results}/tcamwrap_bench.json" --readme README.md \
  --svg "${results}/tcamwrap_bench.svg"
