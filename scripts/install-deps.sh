#!/usr/bin/env bash
# Installs the Debian packages the build, the tests, the benchmarks and the fuzzers need. Only
# missing packages are installed; nothing happens when all are present. Needs root (or sudo).
set -euo pipefail

packages=(
  g++ cmake ninja-build ccache pkg-config
  libgtest-dev libgmock-dev libbenchmark-dev
  libcereal-dev
  libmsgpack-cxx-dev
  rapidjson-dev
  liburiparser-dev
  libxml2-dev libexpat1-dev
  libssl-dev
  time
  clang libclang-rt-14-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
# Try without refreshing the package lists first; refresh only if that fails.
if ! $sudo apt-get install -y --no-install-recommends "${missing[@]}"; then
  $sudo apt-get update
  $sudo apt-get install -y --no-install-recommends "${missing[@]}"
fi
