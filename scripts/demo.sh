#!/usr/bin/env bash
# The main job: builds the library and its example, and runs the example,
# which sends a request through the library to a server on loopback and
# prints the decoded answer.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target zrk-loopback-demo
./build/bin/zrk-loopback-demo
