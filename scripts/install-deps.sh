#!/usr/bin/env bash
# Installs the Debian packages that building and testing need, only when some are missing, and
# generates the German locales that the locale tests run under, only when they are missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang libclang-rt-14-dev
  libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libsqlite3-dev libpugixml-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev iproute2 locales
  doxygen dpkg-dev file
  python3 python3-pytest groff-base
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

# The locale tests run under German in UTF-8 and in Latin-1, where the bytes above 0x7F are
# letters. Each is generated only when `locale -a` (which spells them "de_DE.utf8" and
# "de_DE.iso88591") lacks it.
generate=false
for entry in 'de_DE.UTF-8 UTF-8:de_DE\.utf-\?8' 'de_DE ISO-8859-1:de_DE\.iso-\?8859-\?1'; do
  line=${entry%%:*}
  if ! locale -a 2>/dev/null | grep -qix "${entry#*:}"; then
    echo "Generating the locale $line"
    pattern=$(printf '%s' "$line" | sed 's/\./\\./g')
    if grep -q "^# *$pattern\$" /etc/locale.gen; then
      $sudo sed -i "s/^# *\($pattern\)\$/\1/" /etc/locale.gen
    elif ! grep -q "^$pattern\$" /etc/locale.gen; then
      echo "$line" | $sudo tee -a /etc/locale.gen >/dev/null
    fi
    generate=true
  fi
done
if $generate; then
  $sudo locale-gen >/dev/null
fi
