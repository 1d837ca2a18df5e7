#!/usr/bin/env bash
# Try it in one command: installs what is missing, builds, starts the development collector on a
# free loopback port, runs the demo application against it and shows the decoded hits.
#   scripts/demo.sh [--keep] [--json] [--verbose]
#     --keep     leave the collector running (Ctrl-C stops it) to browse its page
#     --json     the collector prints one JSON object per hit instead of readable blocks
#     --verbose  the demo also prints the library's debug lines
set -euo pipefail
cd "$(dirname "$0")/.."

keep=0; collector_flags=(); demo_flags=()
for argument in "$@"; do
  case "$argument" in
    --keep) keep=1 ;;
    --json) collector_flags+=(--json) ;;
    --verbose) demo_flags+=(--verbose) ;;
    *) echo "usage: scripts/demo.sh [--keep] [--json] [--verbose]" >&2; exit 2 ;;
  esac
done

bash scripts/install-deps.sh
bash scripts/build.sh plain >/dev/null

work="$(mktemp -d)"
output="$work/collector.out"
build/plain/tools/collector/velmora-collector --port 0 "${collector_flags[@]}" >"$output" 2>"$work/collector.err" &
collector=$!
cleanup() { kill "$collector" 2>/dev/null || true; wait "$collector" 2>/dev/null || true; rm -rf "$work"; }
trap cleanup EXIT

for _ in $(seq 100); do
  [ -s "$output" ] && break
  sleep 0.05
done
address="$(head -n 1 "$output" | sed -n 's/^velmora-collector listening on http:\/\///p')"
[ -n "$address" ] || { echo "the collector did not start:"; cat "$work/collector.err"; exit 1; }

build/plain/examples/demo/velmora-demo --collector "$address" --local-dir "$work/app-data" "${demo_flags[@]}"

echo
echo "---- what the collector received ----"
tail -n +2 "$output"
echo "---- $(grep -c '' "$output") lines; live page: http://$address/ ----"

if [ "$keep" = 1 ]; then
  echo "The collector keeps running at http://$address/ (Ctrl-C stops it)."
  tail -n 0 -f "$output" &
  wait "$collector"
fi
