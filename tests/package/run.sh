#!/usr/bin/env bash
# Installs the library into a temporary prefix, builds a program against it with find_package and
# pkg-config, and checks what that program gets from the library.
set -euo pipefail
build_dir="$1"
source_dir="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
cmake -S "$source_dir" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" >/dev/null

mkdir -p "$work/package" "$work/local"
printf '{"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}}' > "$work/package/VelmoraConfig.json"
for program in consumer consumer_static; do
  rm -rf "$work/local"/*
  out="$(LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/x86_64-linux-gnu" VELMORA_PACKAGE_DIR="$work/package" \
         VELMORA_LOCAL_DIR="$work/local" "$work/build/$program" 2>"$work/stderr")"
  [ "$out" = "privacy 3 version 4.0.0" ] || { echo "$program printed: $out"; exit 1; }
  grep -qx "Velmora Debug:Config - Vantor not configured" "$work/stderr" || { echo "$program stderr:"; cat "$work/stderr"; exit 1; }
done

# pkg-config finds the same library.
PKG_CONFIG_PATH="$work/prefix/lib/pkgconfig:$work/prefix/lib/x86_64-linux-gnu/pkgconfig" pkg-config --modversion velmora | grep -qx 4.0.0
echo "package consumer: ok"
