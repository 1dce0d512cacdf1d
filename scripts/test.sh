#!/usr/bin/env bash
# Sets everything up and runs every test: the normal build, then the suite
# under AddressSanitizer + UndefinedBehaviorSanitizer (clang, with the fuzz
# targets in the same tree), then under ThreadSanitizer, then each fuzz
# target for a bounded time, then consumer projects against the installed
# package. Exits non-zero on the first failure.
#
# Every tree is a unity build: the library's translation units share one
# parse of the JSON and standard headers, which is most of the compile time
# on two cores. A developer's own tree builds file by file.
set -euo pipefail
cd "$(dirname "$0")/.."
started=$SECONDS

bash scripts/setup.sh

jobs=$(nproc)
werror=OFF
[ "${CI:-}" = "true" ] && werror=ON

stamp() { echo "== [$((SECONDS - started)) s] $*"; }

build_tree() {
  local dir=$1
  shift
  stamp "$dir: configure and build"
  cmake -S . -B "$dir" -G Ninja -DCMAKE_UNITY_BUILD=ON -DZRK_WARNINGS_AS_ERRORS="$werror" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

run_tests() {
  stamp "$1: tests"
  (cd "$1" && ctest -j "$jobs" --output-on-failure --timeout 180)
}

# The normal tree installs into its own prefix: the packaging check builds
# consumers against it instead of building the library again. -O1 without
# debug information compiles in about half the time of -O2 -g, with
# assertions on, and the suite runs as fast.
build_tree build-test-normal -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1" \
  -DCMAKE_INSTALL_PREFIX="$PWD/build-test-normal/prefix"
run_tests build-test-normal

# The sanitizer options travel with each test (tests/CMakeLists.txt). The
# sanitizer trees hold the library and its test programs; the programs, the
# benchmarks and the examples run in the normal tree.
sanitizer_trees=(-DZRK_BUILD_BENCHMARKS=OFF -DZRK_BUILD_EXAMPLES=OFF -DZRK_BUILD_TOOLS=OFF -DZRK_BUILD_EMULATOR=OFF)
CC=clang CXX=clang++ build_tree build-test-asan -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only" -DZRK_SANITIZE=address -DZRK_BUILD_FUZZERS=ON \
  "${sanitizer_trees[@]}"
run_tests build-test-asan

build_tree build-test-tsan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g1" \
  -DZRK_SANITIZE=thread "${sanitizer_trees[@]}"
run_tests build-test-tsan

stamp "fuzzing"
bash scripts/fuzz.sh 15 build-test-asan
stamp "packaging"
bash scripts/consumer-check.sh build-test-normal
stamp "all suites passed"
