#!/usr/bin/env bash
# Builds and installs the library, shared and static, each into a prefix,
# checks that the shared one exports no internal symbol, and builds a small
# application against each install:
# once with CMake's find_package and once with a plain compiler line from
# pkg-config. Runs every application, and checks that the installed library
# finds its installed catalogs. Also configures a parent project that takes
# the tree in with add_subdirectory. Exits non-zero on the first failure.
#
#   scripts/consumer-check.sh [STATIC_TREE]
#
# STATIC_TREE: a tree that built the static library already, configured with
# CMAKE_INSTALL_PREFIX=STATIC_TREE/prefix (the test script's normal tree); it
# is installed there instead of building the static library again.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${ZRK_JOBS:-2}
static_tree=${1:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/zrk-consumer.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Nothing but the library is built; unoptimised, since only linking and
# behaviour are checked here.
library_options=(-G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG=-O0 -DCMAKE_UNITY_BUILD=ON
  -DZRK_BUILD_TESTS=OFF -DZRK_BUILD_EXAMPLES=OFF -DZRK_BUILD_BENCHMARKS=OFF
  -DZRK_BUILD_TOOLS=OFF -DZRK_BUILD_EMULATOR=OFF -DZRK_BUILD_FUZZERS=OFF)

# Runs a command quietly, showing its output only when it fails.
quiet() {
  "$@" > "$work/command.log" 2>&1 || { cat "$work/command.log" >&2; return 1; }
}

# Runs an application; it must succeed, and under LANGUAGE=de its error text
# must come from the installed German catalog.
run_application() {
  local program=$1 english german
  (cd "$work" && LANGUAGE=en "$program") > "$work/en.txt"
  (cd "$work" && LANGUAGE=de "$program") > "$work/de.txt"
  cat "$work/de.txt"
  english=$(grep '^message: ' "$work/en.txt")
  german=$(grep '^message: ' "$work/de.txt")
  if [ "$english" = "$german" ]; then
    echo "consumer-check: the installed library did not find its catalogs" >&2
    return 1
  fi
}

# The shared library exports the public API and nothing of zrk::detail or of
# the code compiled in from nlohmann/json and Highway.
check_exports() {
  local library symbols internal
  library=$(find "$1" -name 'libzrkapi.so.*.*' | head -n 1)
  symbols=$(nm -D --defined-only "$library" | c++filt | awk '{ $1 = $2 = ""; print substr($0, 3) }')
  internal=$(grep -E '^([^ (]+ )?(zrk::detail::|nlohmann::|hwy::|zrk::N_)' <<<"$symbols" || true)
  if [ -n "$internal" ]; then
    echo "consumer-check: libzrkapi.so exports internal symbols:" >&2
    echo "$internal" | head -n 20 >&2
    return 1
  fi
  grep -q '^zrk::ZRKApiClient::sharedClient()$' <<<"$symbols" ||
    { echo "consumer-check: libzrkapi.so does not export the public API" >&2; return 1; }
}

check_install() {
  local kind=$1 shared=$2
  local prefix="$work/$kind/prefix" build="$work/$kind/build"
  if [ "$shared" = OFF ] && [ -n "$static_tree" ]; then
    echo "== $kind: install the library from $static_tree"
    prefix="$root/$static_tree/prefix"
    rm -rf "$prefix"
    quiet cmake --install "$root/$static_tree"
  else
    echo "== $kind: build and install the library"
    quiet cmake -S "$root" -B "$build" "${library_options[@]}" -DBUILD_SHARED_LIBS="$shared" \
      -DCMAKE_INSTALL_PREFIX="$prefix"
    quiet cmake --build "$build" -j "$jobs"
    quiet cmake --install "$build"
  fi
  ls "$prefix"/share/locale/*/LC_MESSAGES/zrkapi.mo >/dev/null
  [ "$shared" = ON ] && check_exports "$prefix"

  echo "== $kind: find_package(zrkapi)"
  quiet cmake -S tests/packaging/consumer -B "$work/$kind/cmake-app" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
  quiet cmake --build "$work/$kind/cmake-app"
  run_application "$work/$kind/cmake-app/zrkapi_consumer"

  echo "== $kind: pkg-config zrkapi"
  local pcdir static=()
  pcdir=$(dirname "$(find "$prefix" -name zrkapi.pc)")
  [ "$shared" = OFF ] && static=(--static)
  # shellcheck disable=SC2046
  c++ -std=c++20 tests/packaging/consumer/main.cpp -o "$work/$kind/pkg-app" \
    $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs "${static[@]}" zrkapi)
  LD_LIBRARY_PATH="$(dirname "$pcdir")" run_application "$work/$kind/pkg-app"
}

check_install shared ON
check_install static OFF

echo "== add_subdirectory from a parent project"
quiet cmake -S tests/packaging/subproject -B "$work/parent" -G Ninja -DZRK_SOURCE_DIR="$root"

echo "== consumer check passed"
