#!/usr/bin/env bash
# Size of the tests against the rest of the code: non-blank lines of C/C++
# sources and headers, CMake files and scripts. Prints both counts and the ratio;
# always exits 0 (CI only shows it).
cd "$(dirname "$0")/.."
count() {
  find "$@" -type f \( -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.h' \
       -o -name '*.hpp' -o -name CMakeLists.txt -o -name '*.cmake' -o -name '*.sh' \
       -o -name '*.py' \) -print0 2>/dev/null | xargs -0 -r cat | grep -c '[^[:space:]]'
}
tests=$(count tests)
code=$(count lib include sim tools bench)
awk -v t="${tests}" -v c="${code}" 'BEGIN { printf "tests: %d non-blank lines; code (lib include sim tools bench): %d; ratio: %.1f%%\n", t, c, 100 * t / c }'
