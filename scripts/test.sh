#!/usr/bin/env bash
# Sets everything up and runs every test: the normal build, then the suite
# under AddressSanitizer + UndefinedBehaviorSanitizer, then under
# ThreadSanitizer, then each fuzz target for a bounded time, then a consumer
# project against the installed package. Exits non-zero on the first failure.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh

jobs=$(nproc)
werror=OFF
[ "${CI:-}" = "true" ] && werror=ON

run_suite() {
  local name=$1 sanitize=$2 type=$3
  shift 3
  local dir="build-test-$name"
  echo "== $name: configure and build"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DZRK_SANITIZE="$sanitize" \
    -DZRK_WARNINGS_AS_ERRORS="$werror" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  echo "== $name: tests"
  (cd "$dir" && ctest -j "$jobs" --output-on-failure --timeout 180)
}

# The sanitizer options travel with each test (tests/CMakeLists.txt). The
# sanitizer trees leave out what only the normal tree needs: benchmarks and
# examples (their runs against the emulator are normal-tree tests), and in
# the TSan tree the two programs, which are single-threaded over the library
# and already run under ASan.
run_suite normal "" RelWithDebInfo
run_suite asan address Debug -DZRK_BUILD_BENCHMARKS=OFF -DZRK_BUILD_EXAMPLES=OFF
run_suite tsan thread Debug -DZRK_BUILD_BENCHMARKS=OFF -DZRK_BUILD_EXAMPLES=OFF \
  -DZRK_BUILD_TOOLS=OFF -DZRK_BUILD_EMULATOR=OFF
echo "== fuzzing"
bash scripts/fuzz.sh 45
echo "== packaging"
bash scripts/consumer-check.sh
echo "== all suites passed"
