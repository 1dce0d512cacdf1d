#!/usr/bin/env bash
# Builds the libFuzzer targets in their own clang tree (build-fuzz, ASan +
# UBSan), replays the inputs of earlier findings (fuzz/regressions/<target>)
# and fuzzes each target for a bounded time, two at a time, starting from
# its seed corpus (fuzz/corpus/<target>). Exits non-zero on any finding; the
# input that caused it is left in build-fuzz/fuzz-artifacts/<target>/.
#
#   scripts/fuzz.sh [SECONDS_PER_TARGET [TREE]]   (default 45, build-fuzz)
#
# TREE may be a clang tree configured with ZRK_SANITIZE=address and
# ZRK_BUILD_FUZZERS=ON already (the test script's ASan tree): it is built,
# not configured again.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${1:-45}
dir=${2:-build-fuzz}
targets=(models api_error form_encoder url_components multipart image message_catalog api_request)

werror=OFF
[ "${CI:-}" = "true" ] && werror=ON

echo "== fuzz: build ($dir)"
# -O1 keeps the instrumented build quick while the fuzzers still run fast.
[ -f "$dir/CMakeCache.txt" ] || CC=clang CXX=clang++ cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Fuzz \
  -DCMAKE_CXX_FLAGS="-O1 -gline-tables-only" -DZRK_SANITIZE=address -DZRK_BUILD_FUZZERS=ON \
  -DZRK_BUILD_TESTS=OFF -DZRK_BUILD_BENCHMARKS=OFF -DZRK_BUILD_TOOLS=OFF -DZRK_BUILD_EMULATOR=OFF \
  -DZRK_BUILD_EXAMPLES=OFF -DZRK_WARNINGS_AS_ERRORS="$werror" >/dev/null
cmake --build "$dir" -j 2 --target "${targets[@]/%/_fuzzer}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

options_for() {
  local common="-timeout=30 -rss_limit_mb=2048"
  case $1 in
    image) echo "$common -max_len=65536" ;;
    models | api_error) echo "$common -max_len=16384" ;;
    api_request) echo "$common -max_len=8192" ;;
    *) echo "$common -max_len=4096" ;;
  esac
}

# Replays the regression inputs, then fuzzes; output goes to the target's log.
run_target() {
  local name=$1
  local bin="$dir/bin/${name}_fuzzer"
  local work="$dir/fuzz-work/$name" artifacts="$dir/fuzz-artifacts/$name/"
  local log="$dir/fuzz-logs/$name.log"
  mkdir -p "$work" "$artifacts" "$(dirname "$log")"
  # shellcheck disable=SC2046
  {
    if compgen -G "fuzz/regressions/$name/*" >/dev/null; then
      echo "-- replaying fuzz/regressions/$name"
      "$bin" $(options_for "$name") -artifact_prefix="$artifacts" fuzz/regressions/"$name"/*
    fi
    echo "-- fuzzing for $seconds s"
    "$bin" $(options_for "$name") -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$artifacts" "$work" "fuzz/corpus/$name"
  } >"$log" 2>&1
}

failed=()
report() {
  local name=$1 status=$2 log="$dir/fuzz-logs/$1.log"
  local runs
  runs=$(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$' | tail -1 || true)
  if [ "$status" -eq 0 ]; then
    echo "   $name: ok, ${runs:-0} runs"
  else
    echo "   $name: FINDING (exit $status); log $log"
    tail -n 40 "$log"
    failed+=("$name")
  fi
}

echo "== fuzz: $seconds s per target, two at a time"
for ((i = 0; i < ${#targets[@]}; i += 2)); do
  pids=()
  names=("${targets[@]:i:2}")
  for name in "${names[@]}"; do
    run_target "$name" &
    pids+=($!)
  done
  for k in "${!pids[@]}"; do
    status=0
    wait "${pids[$k]}" || status=$?
    report "${names[$k]}" "$status"
  done
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "== fuzz: findings in ${failed[*]}"
  exit 1
fi
echo "== fuzz: no findings"
