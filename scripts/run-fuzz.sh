#!/usr/bin/env bash
# Build the fuzz preset and run fuzz targets for a while each.
# Usage: run-fuzz.sh [SECONDS] [TARGET...]   (default: 600 s; fuzz_calls,
# fuzz_restore and fuzz_diag). New inputs collect in
# build/fuzz/tests/fuzz/work/<target>/corpus, crashes in .../artifacts; a crash
# worth keeping goes to tests/fuzz/regressions/<target>/, which ctest replays.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-600}"
shift || true
targets=("$@")
((${#targets[@]})) || targets=(fuzz_calls fuzz_restore fuzz_diag)
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz
status=0
for t in "${targets[@]}"; do
  work="build/fuzz/tests/fuzz/work/${t}"
  mkdir -p "${work}/corpus" "${work}/artifacts"
  dirs=("tests/fuzz/corpus/${t}")
  [[ -d "tests/fuzz/regressions/${t}" ]] && dirs+=("tests/fuzz/regressions/${t}")
  echo "=== ${t}: ${seconds} s ===" >&2
  if ! "build/fuzz/tests/fuzz/${t}" -max_total_time="${seconds}" -print_final_stats=1 \
      -artifact_prefix="${work}/artifacts/" "${work}/corpus" "${dirs[@]}" \
      >"${work}/log" 2>&1; then
    status=1
    echo "${t}: FAILED, see ${work}/log and ${work}/artifacts/" >&2
  fi
  grep -E '^#[0-9]+ +(DONE|pulse)|^stat::(number_of_executed_units|average_exec_per_sec)' \
    "${work}/log" | tail -3 >&2
done
exit "${status}"
