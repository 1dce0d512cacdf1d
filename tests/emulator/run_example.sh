#!/usr/bin/env bash
# Runs one of the scanner examples against a fresh emulator with the sample
# seed: the example must scan the photo and exit 0.
#   run_example.sh EMULATOR EXAMPLE SEED PHOTO
set -euo pipefail
emulator=$1 example=$2 seed=$3 photo=$4

work=$(mktemp -d)
"$emulator" --port 0 --seed "$seed" >"$work/out" 2>"$work/err" &
pid=$!
trap 'kill -TERM $pid 2>/dev/null || true; wait $pid 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 300); do
  grep -q '^zrk-emulator listening on ' "$work/out" && break
  kill -0 $pid 2>/dev/null || { cat "$work/err" >&2; exit 1; }
  sleep 0.1
done
url=$(sed -n 's/^zrk-emulator listening on //p' "$work/out")
[ -n "$url" ] || { echo "the emulator did not start" >&2; exit 1; }

output=$("$example" --url "$url" --key demo-key --secret demo-secret --timeout 30 "$photo")
echo "$output"
# The photo shows the jazz-night poster: the example must print that match.
grep -q 'jazz-night' <<<"$output"
