#!/usr/bin/env bash
# Installs the library into a temporary prefix and uses it from outside the tree, as applications
# do: find_package and pkg-config, the shared and the static library, the installed tools, and the
# demo built as a project of its own. Then the same from an installed tree moved elsewhere, and from
# the Debian packages unpacked into a directory.
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

# The privacy status the configuration prescribes, from every consumer program of one build.
mkdir -p "$work/package"
printf '{"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}}' >"$work/package/VelmoraConfig.json"
check_privacy() {  # check_privacy LIBDIR PROGRAM...
  local libdir="$1" program name out; shift
  for program in "$@"; do
    name="$(basename "$(dirname "$program")")-$(basename "$program")"
    out="$(LD_LIBRARY_PATH="$libdir" VELMORA_PACKAGE_DIR="$work/package" VELMORA_LOCAL_DIR="$work/local-$name" \
           "$program" privacy 2>"$work/$name.err")" || fail "$program failed"
    [ "$out" = "privacy 3 version 4.0.0" ] || fail "$program printed: $out"
    grep -qx "Velmora Debug:Config - Vantor not configured" "$work/$name.err" || fail "$program: no debug line"
  done
}
# Every consumer of one installed root: with pkg-config, and with find_package (shared and static),
# both as C++20, so that nothing the package adds may lower the standard.
consume() {  # consume ROOT NAME
  local libdir flags
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
  check_privacy "$libdir" "$work/$2-pc/consumer" "$work/$2/consumer" "$work/$2/consumer_static"
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

# An installed tree works where it lands: installed under one prefix, then moved.
cmake --install "$build_dir" --prefix "$work/elsewhere/usr" >/dev/null
mv "$work/elsewhere" "$work/moved"
consume "$work/moved/usr" moved

# The Debian packages, unpacked into a directory: the runtime and -dev packages are all a
# consumer needs.
cpack -G DEB -B "$work/debs" --config "$build_dir/CPackConfig.cmake" >"$work/cpack.err" 2>&1 || fail "cpack failed"
for deb in "$work"/debs/libvelmora4_*.deb "$work"/debs/libvelmora-dev_*.deb; do
  [ -f "$deb" ] || fail "cpack made no $(basename "$deb")"
  dpkg-deb -x "$deb" "$work/deb"
done
consume "$work/deb/usr" deb
dpkg-deb -x "$(ls "$work"/debs/velmora-tools_*.deb)" "$work/deb-tools"
"$work/deb-tools/usr/bin/velmora-check" --help | grep -q "^usage: velmora-check" || fail "packaged velmora-check"

# The installed collector, and the demo built against the installed package.
"$prefix/bin/velmora-collector" --port 0 --json --aid ABCDEF0123456789-0123456789ABCDEF >"$work/collector.out" \
  2>"$work/collector.err" &
collector_pid=$!
for _ in $(seq 200); do [ -s "$work/collector.out" ] && break; sleep 0.05; done
address="$(head -n 1 "$work/collector.out" | sed -n 's/^velmora-collector listening on http:\/\///p')"
[ -n "$address" ] || fail "the installed collector did not start"
bash "$here/../demo/run.sh" "$prefix/bin/velmora-collector" "$work/demo/velmora-demo"

# The tracking identifier comes from the collection server's "/id".
printf '{"analytics":{"rsids":"suite","server":"collect.velmora.example","offlineEnabled":true}}' \
  >"$work/package/VelmoraConfig.json"
run() {  # run LOCAL_DIR ROUTE ARGS...
  local local_dir="$1" route="$2"; shift 2
  VELMORA_PACKAGE_DIR="$work/package" VELMORA_LOCAL_DIR="$local_dir" \
    VELMORA_CONNECT_TO="collect.velmora.example:80:$route" "$work/build/consumer" "$@" 2>>"$work/consumer.err"
}
out="$(run "$work/aid" "$address" aid)"
[ "$out" = "aid ABCDEF0123456789-0123456789ABCDEF" ] || fail "consumer aid printed: $out"

# With the server down the hits wait in the queue file and reach the server from the next process.
closed="127.0.0.1:9"  # discard port: nothing listens on loopback
out="$(run "$work/offline" "$closed" track Offline 3)"
[ "$out" = "queued 3" ] || fail "offline run printed: $out"
[ "$(grep -o '"H":' "$work/offline/VelmoraDataCache.json" | wc -l)" = 3 ] || fail "queue file does not hold 3 hits"
out="$(run "$work/offline" "$address" track Online 1)"
[ "$out" = "queued 0 delivered" ] || fail "online run printed: $out"
order="$(grep -o '"pev2":"AMACTION:[A-Za-z0-9]*"' "$work/collector.out" | grep -E 'Offline|Online' | tr '\n' ' ')"
expected='"pev2":"AMACTION:Offline1" "pev2":"AMACTION:Offline2" "pev2":"AMACTION:Offline3" "pev2":"AMACTION:Online1" '
[ "$order" = "$expected" ] || fail "hits arrived as: $order"
echo "package: shared, static, pkg-config (C++20), collector, check, demo, aid and offline queue used from outside the tree; from a moved tree; from the unpacked .deb packages"
