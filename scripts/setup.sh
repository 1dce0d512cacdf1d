#!/usr/bin/env bash
# Installs the Debian 12 packages that the build, the tests and the programs
# need, when they are missing. Run as root to install; as another user it
# only reports what is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git
  libcurl4-openssl-dev nlohmann-json3-dev
  libturbojpeg0-dev libspng-dev libhwy-dev libutf8proc-dev
  libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev
  gettext libcli11-dev libsqlite3-dev libopencv-dev clang libglib2.0-dev doxygen libssl-dev zlib1g-dev openssl
  python3-h2
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

# The console's browser test: Debian's chromium and Node.js with npm, unless
# a Node.js with npm is there already (another packaging of it would
# conflict with Debian's npm).
command -v chromium >/dev/null || missing+=(chromium)
command -v node >/dev/null && command -v npm >/dev/null || missing+=(nodejs npm)

if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing packages: ${missing[*]}" >&2
    echo "setup: run as root, or: sudo apt-get install ${missing[*]}" >&2
    exit 1
  fi
  echo "setup: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# puppeteer-core at the pinned versions, once per change of the lock file;
# it drives the chromium above and never downloads a browser of its own.
browser_tests=$(dirname "$0")/../tests/browser
if [ ! "$browser_tests/node_modules/.package-lock.json" -nt "$browser_tests/package-lock.json" ]; then
  echo "setup: npm ci in tests/browser"
  (cd "$browser_tests" && PUPPETEER_SKIP_DOWNLOAD=1 npm ci --no-audit --no-fund --loglevel=error)
fi
