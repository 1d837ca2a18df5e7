#!/usr/bin/env bash
# Installs the library into a temporary prefix and uses it from outside the tree, as applications
# do: find_package and pkg-config, the shared and the static library, from C++ and from C, the
# installed tools, and the demo built as a project of its own. Then the same from the Debian
# packages unpacked elsewhere, with the Python package and what each package must carry.
#   run.sh BUILD_DIR VERSION
set -euo pipefail
build_dir="$1" version="$2"  # the project's version, as every file and tool should carry it
here="$(cd "$(dirname "$0")" && pwd)"
examples="$here/../../examples"
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
    [ "$out" = "privacy 3 version $version" ] || fail "$program printed: $out"
    grep -qx "Velmora Debug:Config - Vantor not configured" "$work/$2.err" || fail "$program: no debug line"
  done
}

# The C example, built with -std=c99 -Wall -Werror through pkg-config and find_package, runs against
# the collector at $address: its hits arrive and its counters say all went out.
consume_c() {  # consume_c ROOT NAME
  local libdir program out
  libdir="$(libdir_of "$1")"
  mkdir -p "$work/$2-c-pc"
  # shellcheck disable=SC2046
  cc -std=c99 -Wall -Wextra -Werror $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags velmora) \
    "$examples/c/main.c" -o "$work/$2-c-pc/velmora-c-example" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --libs velmora) 2>"$work/c-pkg-config.err" \
    || fail "the pkg-config C program of $1 does not build"
  cp "$examples/c/VelmoraConfig.json" "$work/$2-c-pc/"
  cmake -S "$examples/c" -B "$work/$2-c" -G Ninja -DCMAKE_PREFIX_PATH="$1" >/dev/null
  cmake --build "$work/$2-c" >"$work/c-cmake.err" 2>&1 || fail "the find_package C program of $1 does not build"
  for program in "$work/$2-c-pc/velmora-c-example" "$work/$2-c/velmora-c-example"; do
    out="$(LD_LIBRARY_PATH="$libdir" "$program" --collector "$address" --local-dir "$(mktemp -d -p "$work")" \
           2>"$work/c-example.err")" || fail "$program failed: $out"
    [ "$(tail -n 1 <<<"$out")" = "c-example: queued 4 delivered 4 waiting 0 last status 200" ] \
      || fail "$program printed: $out"
  done
  grep '"reportSuites":"c-example"' "$work/collector.out" | grep '"pageName":"Home"' | grep -q '"member":"true"' \
    || fail "no Home hit of the C program at the collector"
}

prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
libdir="$(libdir_of "$prefix")"
multiarch="$(gcc -print-multiarch)"
[ "$libdir" = "$prefix/lib/$multiarch" ] || fail "the library is in $libdir, not lib/$multiarch"
for tool in velmora-collector velmora-check; do
  [ "$("$prefix/bin/$tool" --version)" = "$tool $version" ] || fail "$tool --version"
done
PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --modversion velmora | grep -qx "$version" \
  || fail "pkg-config does not find velmora $version"
consume "$prefix" build
cmake -S "$here/../../examples/demo" -B "$work/demo" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/demo" >/dev/null
export LD_LIBRARY_PATH="$libdir"
"$prefix/bin/velmora-check" "$here/../../examples/demo" >"$work/check.out" || fail "velmora-check: $(cat "$work/check.out")"

# The demo built against the installed package, then the installed collector's "/id" as the
# tracking identifier, its host routed with $VELMORA_CONNECT_TO.
bash "$here/../demo/run.sh" "$prefix/bin/velmora-collector" "$work/demo/velmora-demo"
"$prefix/bin/velmora-collector" --port 0 --json --aid ABCDEF0123456789-0123456789ABCDEF >"$work/collector.out" \
  2>"$work/collector.err" &
collector_pid=$!
for _ in $(seq 200); do [ -s "$work/collector.out" ] && break; sleep 0.05; done
address="$(head -n 1 "$work/collector.out" | sed -n 's/^velmora-collector listening on http:\/\///p')"
[ -n "$address" ] || fail "the installed collector did not start"
consume_c "$prefix" build
mkdir -p "$work/aid-package"
printf '{"analytics":{"rsids":"suite","server":"collect.velmora.example","offlineEnabled":true}}' >"$work/aid-package/VelmoraConfig.json"
out="$(VELMORA_PACKAGE_DIR="$work/aid-package" VELMORA_LOCAL_DIR="$work/aid" \
       VELMORA_CONNECT_TO="collect.velmora.example:80:$address" "$work/build/consumer" aid 2>"$work/consumer.err")"
[ "$out" = "aid ABCDEF0123456789-0123456789ABCDEF" ] || fail "consumer aid printed: $out"

# The Debian packages, unpacked into a directory: the runtime and -dev packages are all a consumer
# needs, and an installed tree works where it lands. Each package has its /usr/share/doc entry.
cpack -G DEB -B "$work/debs" --config "$build_dir/CPackConfig.cmake" >"$work/cpack.err" 2>&1 || fail "cpack failed"
for name in libvelmora4 libvelmora-dev velmora-tools python3-velmora velmora-doc; do
  deb="$(ls "$work"/debs/${name}_${version}_*.deb 2>/dev/null)" || fail "cpack made no $name package"
  dpkg-deb -x "$deb" "$work/deb"
  for file in copyright changelog.gz; do
    [ -s "$work/deb/usr/share/doc/$name/$file" ] || fail "$name has no /usr/share/doc/$name/$file"
  done
done
unset LD_LIBRARY_PATH
[ -e "$work/deb/usr/lib/$multiarch/libvelmora.so.4" ] || fail "libvelmora4 has no /usr/lib/$multiarch/libvelmora.so.4"
consume "$work/deb/usr" deb
consume_c "$work/deb/usr" deb
"$work/deb/usr/bin/velmora-check" --help | grep -q "^usage: velmora-check" || fail "packaged velmora-check"
for tool in velmora-collector velmora-check; do
  [ "$("$work/deb/usr/bin/$tool" --version)" = "$tool $version" ] || fail "packaged $tool --version"
  page="$work/deb/usr/share/man/man1/$tool.1.gz"
  [ -z "$(gzip -dc "$page" | groff -man -Tutf8 -ww -z 2>&1)" ] || fail "the manual page of $tool: $(gzip -dc "$page" | groff -man -Tutf8 -ww -z 2>&1)"
done
grep -q "in-app measurement library" "$work/deb/usr/share/doc/velmora-doc/html/index.html" || fail "velmora-doc has no reference"

# The Python package as installed by python3-velmora, finding the library of its own tree.
mkdir -p "$work/python"
printf '{"analytics":{"rsids":"python-smoke","server":"collect.velmora.example","offlineEnabled":true}}' >"$work/python/VelmoraConfig.json"
PYTHONPATH="$work/deb/usr/lib/python3/dist-packages" /usr/bin/python3 - "$address" "$work" >"$work/python.out" 2>&1 <<'PYTHON' \
  || fail "the Python package: $(cat "$work/python.out")"
import sys
import velmora
address, work = sys.argv[1:]
assert velmora._bridge.lib._name.startswith(work + "/deb/usr/lib/"), velmora._bridge.lib._name
assert velmora.configure(package_directory=work + "/python", local_directory=work + "/python/local",
                         connect_to=["collect.velmora.example:80:" + address], internet=lambda: True)
velmora.track_state("Python", {"answer": 42, "ratio": 0.5, "yes": True})
assert velmora.flush(timeout=10)
assert velmora.stats().delivered == 1, velmora.stats()
assert velmora.shutdown(timeout=2)
PYTHON
grep '"reportSuites":"python-smoke"' "$work/collector.out" | grep '"answer":"42"' | grep -q '"yes":"true"' \
  || fail "no hit of the Python package at the collector"
echo "package: shared, static, pkg-config (C++20 and C99), collector, check, demo, aid and Python used from outside the tree and from the unpacked .deb packages"
