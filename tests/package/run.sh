#!/usr/bin/env bash
# Installs the library into a temporary prefix and uses it from outside the tree, as applications
# do: find_package and pkg-config, the shared and the static library, the installed tools, and the
# demo built as a project of its own. Then the same from the Debian packages unpacked elsewhere.
#   run.sh BUILD_DIR
set -euo pipefail
build_dir="$1"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
collector_pid=""
cleanup() { [ -n "$collector_pid" ] && kill "$collector_pid" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
fail() { echo "$*"; for f in "$work"/*.err; do [ -f "$f" ] && { echo "== $f"; tail -20 "$f"; }; done; exit 1; }
libdir_of() { dirname "$(dirname "$(find "$1" -name velmora.pc -path '*/pkgconfig/*' | head -n 1)")"; }  # ROOT

mkdir -p "$work/package"
printf '{"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}}' >"$work/package/VelmoraConfig.json"
# Every consumer of one installed root, with pkg-config and with find_package (shared and static), all
# as C++20 so that nothing the package adds may lower the standard; each prints the privacy status
# the configuration prescribes.
consume() {  # consume ROOT NAME
  local libdir flags program out
  libdir="$(libdir_of "$1")"
  flags="$(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags velmora)"
  case "$flags" in *-std=*) fail "pkg-config --cflags velmora sets the standard: $flags" ;; esac
  mkdir -p "$work/$2-pc"
  # shellcheck disable=SC2046
  c++ -std=c++20 -DVELMORA_EXPECT_CXX20 $flags "$here/consumer.cpp" -o "$work/$2-pc/consumer" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --libs velmora) 2>"$work/pkg-config.err" \
    || fail "the pkg-config consumer of $1 does not build"
  cmake -S "$here" -B "$work/$2" -G Ninja -DCMAKE_PREFIX_PATH="$1" -DCMAKE_CXX_STANDARD=20 \
    -DCMAKE_CXX_FLAGS=-DVELMORA_EXPECT_CXX20 >/dev/null
  cmake --build "$work/$2" >/dev/null || fail "the find_package consumer of $1 does not build"
  for program in "$work/$2-pc/consumer" "$work/$2/consumer" "$work/$2/consumer_static"; do
    out="$(LD_LIBRARY_PATH="$libdir" VELMORA_PACKAGE_DIR="$work/package" VELMORA_LOCAL_DIR="$(mktemp -d -p "$work")" \
           "$program" privacy 2>"$work/$2.err")" || fail "$program failed"
    [ "$out" = "privacy 3 version 4.0.0" ] || fail "$program printed: $out"
    grep -qx "Velmora Debug:Config - Vantor not configured" "$work/$2.err" || fail "$program: no debug line"
  done
}

prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir="$(libdir_of "$prefix")"
PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion velmora | grep -qx 4.0.0 \
  || fail "pkg-config does not find velmora 4.0.0"
consume "$prefix" build
cmake -S "$here/../../examples/demo" -B "$work/demo" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/demo" >/dev/null
export LD_LIBRARY_PATH="$libdir"
"$prefix/bin/velmora-check" "$here/../../examples/demo" >"$work/check.out" || fail "velmora-check: $(cat "$work/check.out")"

# The Debian packages, unpacked into a directory: the runtime and -dev packages are all a consumer
# needs, and an installed tree works where it lands.
cpack -G DEB -B "$work/debs" --config "$build_dir/CPackConfig.cmake" >"$work/cpack.err" 2>&1 || fail "cpack failed"
for deb in "$work"/debs/libvelmora4_*.deb "$work"/debs/libvelmora-dev_*.deb; do
  [ -f "$deb" ] || fail "cpack made no $(basename "$deb")"
  dpkg-deb -x "$deb" "$work/deb"
done
consume "$work/deb/usr" deb
dpkg-deb -x "$(ls "$work"/debs/velmora-tools_*.deb)" "$work/deb-tools"
"$work/deb-tools/usr/bin/velmora-check" --help | grep -q "^usage: velmora-check" || fail "packaged velmora-check"

# The demo built against the installed package, then the installed collector's "/id" as the
# tracking identifier, its host routed with $VELMORA_CONNECT_TO.
bash "$here/../demo/run.sh" "$prefix/bin/velmora-collector" "$work/demo/velmora-demo"
"$prefix/bin/velmora-collector" --port 0 --aid ABCDEF0123456789-0123456789ABCDEF >"$work/collector.out" \
  2>"$work/collector.err" &
collector_pid=$!
for _ in $(seq 200); do [ -s "$work/collector.out" ] && break; sleep 0.05; done
address="$(head -n 1 "$work/collector.out" | sed -n 's/^velmora-collector listening on http:\/\///p')"
[ -n "$address" ] || fail "the installed collector did not start"
printf '{"analytics":{"rsids":"suite","server":"collect.velmora.example","offlineEnabled":true}}' >"$work/package/VelmoraConfig.json"
out="$(VELMORA_PACKAGE_DIR="$work/package" VELMORA_LOCAL_DIR="$work/aid" \
       VELMORA_CONNECT_TO="collect.velmora.example:80:$address" "$work/build/consumer" aid 2>"$work/consumer.err")"
[ "$out" = "aid ABCDEF0123456789-0123456789ABCDEF" ] || fail "consumer aid printed: $out"
echo "package: shared, static, pkg-config (C++20), collector, check, demo and aid used from outside the tree and from the unpacked .deb packages"
