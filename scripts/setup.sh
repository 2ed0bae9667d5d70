#!/usr/bin/env bash
# Installs what building, testing and benchmarking need, from Debian's packages.
# Safe to run again: installs only what is missing.
set -euo pipefail

packages=(cmake g++ make pkg-config libgtest-dev libgmock-dev dnsmasq-base libc-ares-dev
          clang libclang-rt-14-dev util-linux iproute2
          libcli11-dev nlohmann-json3-dev dpkg-dev file)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
