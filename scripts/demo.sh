#!/usr/bin/env bash
# The main job: builds the command-line client and the service emulator,
# starts the emulator with the sample seed, scans a sample photo through
# `zrk`, prints the match, the collections and the history, and stops the
# emulator. With --keep it leaves the emulator running, for its console,
# until Ctrl-C.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target zrk zrk-emulator

work=$(mktemp -d)
emulator_pid=
cleanup() {
  if [ -n "$emulator_pid" ]; then
    kill -TERM "$emulator_pid" 2>/dev/null || true
    wait "$emulator_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

./build/bin/zrk-emulator --port 0 --seed emulator/samples/seed --data "$work/emulator.sqlite" \
  >"$work/emulator.out" 2>"$work/emulator.err" &
emulator_pid=$!
for _ in $(seq 300); do
  # The console's line, on stderr, follows the address on stdout.
  grep -q '^zrk-emulator: console on ' "$work/emulator.err" && break
  kill -0 "$emulator_pid" 2>/dev/null || { cat "$work/emulator.err" >&2; exit 1; }
  sleep 0.1
done
base_url=$(sed -n 's/^zrk-emulator listening on //p' "$work/emulator.out")
[ -n "$base_url" ] || { echo "demo: the emulator did not start" >&2; exit 1; }
echo "zrk-emulator listening on $base_url"
console_url=$(sed -n 's/^zrk-emulator: console on //p' "$work/emulator.err")
echo "console: ${console_url:-$base_url/} (open it in a browser while the emulator runs)"

export ZRK_BASE_URL=$base_url ZRK_APP_KEY=demo-key ZRK_APP_SECRET=demo-secret
zrk() { ./build/bin/zrk --user-id demo-user --lat 52.52 --lng 13.405 --timeout 30 "$@"; }

photo=emulator/samples/photos/jazz-night-photo.jpg
echo
echo "\$ zrk scan $photo"
zrk scan "$photo"
echo
echo "\$ zrk collections"
zrk collections
echo
echo "\$ zrk history"
zrk history

echo
if [ "${1:-}" = "--keep" ]; then
  echo "The emulator keeps running; its console is at ${console_url:-$base_url/}. Ctrl-C stops it."
  wait "$emulator_pid" || true
else
  echo "To browse the console, run \`bash scripts/demo.sh --keep\` and open the console's address."
fi
