#!/usr/bin/env bash
# The whole test suite: installs what is missing, builds, runs every test, then again under
# AddressSanitizer with UndefinedBehaviorSanitizer, then under ThreadSanitizer, then fuzzes every
# parser for a bounded time.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
jobs="$(nproc)"

run() {
  local flavour="$1"
  echo "==> $flavour: build"
  # The benchmarks are not tests: scripts/build.sh plain builds them, the test command does not.
  bash scripts/build.sh "$flavour" -DVELMORA_BUILD_BENCHMARKS=OFF
  echo "==> $flavour: test"
  ctest --test-dir "build/$flavour" --output-on-failure -j "$jobs" --timeout 300
}

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:strict_string_checks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"

run plain
run asan
run tsan
echo "==> fuzz: every parser for ${FUZZ_SECONDS:-15}s"
bash scripts/fuzz.sh
echo "All test flavours passed."
