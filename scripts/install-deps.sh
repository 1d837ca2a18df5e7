#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only when some are missing, and
# generates the German locale that the locale tests run under, only when it is missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libsqlite3-dev libpugixml-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev iproute2 locales
  doxygen dpkg-dev file
)
packages+=("$@")

sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi

# `locale -a` spells it "de_DE.utf8".
if ! locale -a 2>/dev/null | grep -qix 'de_DE\.utf-\?8'; then
  echo "Generating the de_DE.UTF-8 locale"
  if grep -q '^# *de_DE\.UTF-8 UTF-8' /etc/locale.gen; then
    $sudo sed -i 's/^# *\(de_DE\.UTF-8 UTF-8\)/\1/' /etc/locale.gen
  elif ! grep -q '^de_DE\.UTF-8 UTF-8' /etc/locale.gen; then
    echo 'de_DE.UTF-8 UTF-8' | $sudo tee -a /etc/locale.gen >/dev/null
  fi
  $sudo locale-gen >/dev/null
fi
