#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only when some are missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libsqlite3-dev libpugixml-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev chromium iproute2
  doxygen dpkg-dev file
)
packages+=("$@")

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
