#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each for a bounded time (default 15 s).
# Fails on any crash, leak or sanitizer finding; findings are written to build/fuzz/findings/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${FUZZ_SECONDS:-15}"

bash scripts/build.sh fuzz
mkdir -p build/fuzz/findings
# One target per core at a time.
run_target() {
  local target="$1" name seeds corpus
  name="$(basename "$target")"
  seeds="fuzz/corpus/${name#fuzz_}"
  corpus="build/fuzz/corpus/$name"
  mkdir -p "$corpus"
  if "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=0 \
       -artifact_prefix="build/fuzz/findings/$name-" "$corpus" "$seeds" >"build/fuzz/$name.log" 2>&1; then
    echo "==> $name: $(grep -E '^Done' "build/fuzz/$name.log" | tail -1)"
  else
    echo "==> $name found a problem:"; tail -40 "build/fuzz/$name.log"; return 1
  fi
}
export -f run_target
export seconds
ls build/fuzz/fuzz/fuzz_* | xargs -P "$(nproc)" -I{} bash -c 'run_target "$@"' _ {}
