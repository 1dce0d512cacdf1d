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

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
  echo "setup: missing packages: ${missing[*]}" >&2
  echo "setup: run as root, or: sudo apt-get install ${missing[*]}" >&2
  exit 1
fi

echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
