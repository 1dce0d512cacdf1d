#!/usr/bin/env bash
# Every figure of docs/benchmarks.md in one run: builds the benchmarks in
# build-bench (Release), then runs the image comparison against the peers,
# the library's own image benchmarks, the first preparation of a fresh
# process and `zrk prepare` against vipsthumbnail, the request benchmarks and
# a folder scan by zrk against zrk-emulator. Results go to
# build-bench/results/, the plot to docs/benchmarks-image.png.
#
#   bash bench/run.sh [--runs N]
#
# Run it on a quiet machine: the image figures are taken on one core (CPU 1
# when there are two), the request server on the other.
set -euo pipefail

cd "$(dirname "$0")/.."
RUNS=9
while [[ $# -gt 0 ]]; do
  case "$1" in
    --runs) RUNS="$2"; shift 2 ;;
    *) echo "usage: bash bench/run.sh [--runs N]" >&2; exit 2 ;;
  esac
done

# The peers and the tools come from Debian's packages.
need=()
for pkg in cmake ninja-build g++ pkg-config libcurl4-openssl-dev nlohmann-json3-dev libturbojpeg0-dev libspng-dev \
           libhwy-dev libbenchmark-dev gettext libvips-dev libvips-tools python3-pil python3-opencv python3-numpy \
           imagemagick python3-matplotlib util-linux libcli11-dev libcpp-httplib-dev libsqlite3-dev libssl-dev \
           libopencv-dev; do
  dpkg -s "$pkg" >/dev/null 2>&1 || need+=("$pkg")
done
if [[ ${#need[@]} -gt 0 ]]; then
  if [[ $(id -u) -ne 0 ]]; then
    echo "missing packages: ${need[*]} (apt-get install them, or run as root)" >&2
    exit 1
  fi
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}"
fi

BUILD=build-bench
OUT=$BUILD/results
CPU=$(( $(nproc) > 1 ? 1 : 0 ))
cmake -S . -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZRK_BUILD_TESTS=OFF -DZRK_BUILD_TOOLS=ON \
  -DZRK_BUILD_EMULATOR=ON -DZRK_BUILD_EXAMPLES=OFF >/dev/null
cmake --build "$BUILD" --target zrkapi_bench zrkapi_image_compare zrkapi_request_bench zrkapi_memory_bench \
  zrk zrkapi_imagepath_cold zrk-emulator zrk-make-samples -j2
mkdir -p "$OUT"

{
  echo "date: $(date -u +%Y-%m-%dT%H:%MZ)"
  echo "cpu: $(lscpu | sed -n 's/^Model name: *//p')"
  echo "cores: $(nproc)"
  echo "load before: $(cut -d' ' -f1-3 /proc/loadavg)"
} | tee "$OUT/machine.txt"

echo "== image pipelines against the peers (CPU $CPU)"
/usr/bin/python3 bench/compare_image.py --helper "$BUILD/bin/zrkapi_image_compare" --runs "$RUNS" \
  --out "$OUT/compare" --plot docs/benchmarks-image.png --cpu "$CPU" | tee "$OUT/image-compare.txt"

echo "== the library's image benchmarks (CPU $CPU)"
taskset -c "$CPU" "$BUILD/bin/zrkapi_bench" --benchmark_repetitions="$RUNS" --benchmark_report_aggregates_only=true \
  --benchmark_out="$OUT/image-bench.json" --benchmark_out_format=json | tee "$OUT/image-bench.txt"

echo "== the first preparation of a fresh process; zrk prepare against vipsthumbnail (CPU $CPU)"
/usr/bin/python3 bench/imagepath_programs.py --zrk "$BUILD/bin/zrk" --cold "$BUILD/bin/zrkapi_imagepath_cold" \
  --runs "$RUNS" --out "$OUT/imagepath" --inputs "$OUT/compare" --cpu "$CPU" | tee "$OUT/imagepath.txt"

echo "== requests against raw libcurl (server on CPU 0, clients on CPU 1)"
"$BUILD/bin/zrkapi_request_bench" --repetitions 5 --json "$OUT/requests.json" | tee "$OUT/requests.txt"

echo "== peak memory of one large answer"
"$BUILD/bin/zrkapi_memory_bench" 16 50 63 | tee "$OUT/memory.txt"

echo "== a folder of 200 photos scanned by zrk against zrk-emulator"
/usr/bin/python3 bench/folder_scan.py --build "$BUILD" --json "$OUT/folder-scan.json" | tee "$OUT/folder-scan.txt"

echo "load after: $(cut -d' ' -f1-3 /proc/loadavg)" | tee -a "$OUT/machine.txt"
