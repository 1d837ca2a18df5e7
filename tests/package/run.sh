#!/usr/bin/env bash
# Installs the library into a temporary prefix and uses it from outside the tree, as applications
# do: find_package and pkg-config, the shared and the static library, the installed collector, and
# the demo built as a project of its own.
#   run.sh BUILD_DIR
set -euo pipefail
build_dir="$1"
here="$(cd "$(dirname "$0")" && pwd)"
work="$(mktemp -d)"
collector_pid=""
cleanup() { [ -n "$collector_pid" ] && kill "$collector_pid" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
fail() { echo "$*"; for f in "$work"/*.err; do [ -f "$f" ] && { echo "== $f"; tail -20 "$f"; }; done; exit 1; }

prefix="$work/prefix"
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
export LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/x86_64-linux-gnu"
cmake -S "$here" -B "$work/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
cmake -S "$here/../../examples/demo" -B "$work/demo" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/demo" >/dev/null
PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig" pkg-config --modversion velmora \
  | grep -qx 4.0.0 || fail "pkg-config does not find velmora 4.0.0"

# The privacy status the configuration prescribes, from the shared and the static library.
mkdir -p "$work/package"
printf '{"analytics":{"privacyDefault":"optunknown","offlineEnabled":true}}' >"$work/package/VelmoraConfig.json"
for program in consumer consumer_static; do
  out="$(VELMORA_PACKAGE_DIR="$work/package" VELMORA_LOCAL_DIR="$work/local-$program" \
         "$work/build/$program" privacy 2>"$work/$program.err")"
  [ "$out" = "privacy 3 version 4.0.0" ] || fail "$program printed: $out"
  grep -qx "Velmora Debug:Config - Vantor not configured" "$work/$program.err" || fail "$program: no debug line"
done

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
echo "package: shared, static, pkg-config, collector, demo, aid and offline queue all used from outside the tree"
