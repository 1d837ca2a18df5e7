#!/usr/bin/env bash
# What the benchmarks need beyond the build: nginx for the delivery figures.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh nginx-light
