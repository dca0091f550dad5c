#!/usr/bin/env bash
# Installs the Debian 12 packages the build and the tests need. Does nothing when all are present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config
  clang-14 libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev openssl
  libboost-dev libboost-thread-dev libboost-system-dev libboost-filesystem-dev
  libboost-date-time-dev libboost-chrono-dev
  librapidxml-dev
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "Installing: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
