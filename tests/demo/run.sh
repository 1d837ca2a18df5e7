#!/usr/bin/env bash
# The demo application end to end against the collector's --json output: every kind of hit the
# demo makes arrives, decoded, with its key values.
#   run.sh COLLECTOR_PROGRAM DEMO_PROGRAM
set -euo pipefail
collector_program="$1"
demo_program="$2"
work="$(mktemp -d)"
collector_pid=""
cleanup() { [ -n "$collector_pid" ] && kill "$collector_pid" 2>/dev/null; wait 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT

"$collector_program" --port 0 --json >"$work/out" 2>"$work/err" &
collector_pid=$!
for _ in $(seq 200); do [ -s "$work/out" ] && break; sleep 0.05; done
address="$(head -n 1 "$work/out" | sed -n 's/^velmora-collector listening on http:\/\///p')"
[ -n "$address" ] || { echo "collector did not start"; cat "$work/err"; exit 1; }

"$demo_program" --collector "$address" --local-dir "$work/data" >"$work/demo" 2>&1 \
  || { echo "demo failed:"; cat "$work/demo"; exit 1; }
grep -qx "demo: every hit delivered" "$work/demo"
grep -qx "demo: offer content: Offer content from velmora-collector" "$work/demo"

hits="$work/hits"
grep '"kind":"hit"' "$work/out" >"$hits" || true
expect() {  # every fragment must stand in one and the same hit line
  local line="$1"; shift
  local matches
  matches="$(grep -F -- "$line" "$hits" || true)"
  for fragment in "$@"; do matches="$(printf '%s\n' "$matches" | grep -F -- "$fragment" || true)"; done
  [ -n "$matches" ] || { echo "no hit with: $line $*"; echo "hits:"; cat "$hits"; exit 1; }
}
expect '"pev2":"VLMINTERNAL:Lifecycle"' '"aInstallEvent":"InstallEvent"' '"aLaunches":"1"' '"aResolution":"1280x720"'
expect '"pageName":"Home"' '"section":"front page"' '"visitortype":"new"'
expect '"pev2":"AMACTION:AddToCart"' '"price":"12.5"' '"quantity":"2"' '"reportSuites":"demo-suite"'
expect '"pev2":"AMACTION:Checkout"' '"step":"payment"' '"aactiontimetotal":"'
expect '"pev2":"VLMINTERNAL:Location"' '"alocpoi":"Flatiron Building"' '"aloclata":"040.7"'
expect '"pev2":"VLMINTERNAL:LifetimeValueIncrease"' '"altvamount":"12.50"'
expect '"pev2":"VLMINTERNAL:Media"' '"pe":"m_s"' '"amediaview":"true"'
expect '"pev2":"VLMINTERNAL:Media"' '"amediacomplete":"true"'
expect '"pev2":"AMACTION:ConsentShown"' '"aprivacymode":"unknown"'
grep -q '"kind":"offer"' "$work/out"
grep -q '"kind":"audience"' "$work/out"
echo "demo end to end: $(grep -c '' "$hits") hits checked"
