#!/usr/bin/env bash
# Configures and builds one flavour of the tree: plain (default), asan or tsan.
#   scripts/build.sh [plain|asan|tsan] [extra cmake arguments...]
set -euo pipefail
cd "$(dirname "$0")/.."

flavour="${1:-plain}"
shift || true
case "$flavour" in
  plain) args=(-DVELMORA_BUILD_BENCHMARKS=ON) ;;
  asan)  args=(-DVELMORA_SANITIZE=address,undefined -DVELMORA_BUILD_EXAMPLES=OFF) ;;
  # clang, so that every change also passes the compiler's check of the thread-safety annotations.
  tsan)  args=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELMORA_SANITIZE=thread
               -DVELMORA_BUILD_EXAMPLES=OFF -DVELMORA_BUILD_TOOLS=OFF) ;;
  fuzz)  args=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DVELMORA_BUILD_FUZZERS=ON
               "-DVELMORA_SANITIZE=address,undefined" "-DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link"
               -DVELMORA_BUILD_TESTS=OFF -DVELMORA_BUILD_TOOLS=OFF -DVELMORA_BUILD_EXAMPLES=OFF) ;;
  *) echo "unknown flavour: $flavour" >&2; exit 2 ;;
esac

# Line tables are enough for sanitizer reports and backtraces, and build much faster than full debug
# information. ThreadSanitizer and the fuzzers compile at -O1; AddressSanitizer at -O0, which halves
# its build and still catches what it catches at -O1. The standard library's own checks (an empty
# optional dereferenced, an index past the end) see what the sanitizers do not.
case "$flavour" in
  plain) flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG") ;;
  asan)  flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O0 -g1 -D_GLIBCXX_ASSERTIONS") ;;
  *)     flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1") ;;
esac

dir="build/$flavour"
cmake -S . -B "$dir" -G Ninja "${flags[@]}" "${args[@]}" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
