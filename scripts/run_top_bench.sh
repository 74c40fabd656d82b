#!/usr/bin/env bash
# Builds kelobpfd and kelobpf-client (optimised, no sanitizer) and measures
# the CPU per refresh of `kelobpf-client top` plus the daemon's share beside
# procps `top` over the same processes (bench/kelo_bpf_top_bench.py), inside
# private mount and network namespaces (scripts/sandbox.sh). Needs root.
#
# Usage: scripts/run_top_bench.sh [--sleepers N] [--refreshes N] [--rounds N]
# Environment: KELO_BENCH_BUILD_DIR (default build/bench).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

dir=${KELO_BENCH_BUILD_DIR:-build/bench}
cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER= -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=ON >/dev/null
cmake --build "$dir" -j2 --target kelobpfd kelobpf-client >/dev/null

bash scripts/sandbox.sh python3 bench/kelo_bpf_top_bench.py --tools "$dir/tools" "$@"
