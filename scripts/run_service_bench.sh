#!/usr/bin/env bash
# Builds the service delivery benchmark (optimised, no sanitizer) and runs it
# in private mount and network namespaces (scripts/sandbox.sh): it pins ring
# buffers in a fresh bpffs and serves clients on abstract socket names, none
# of which may touch the machine's or a running service's. Needs root.
#
# Usage: scripts/run_service_bench.sh [google-benchmark flags...]
#   e.g. scripts/run_service_bench.sh --benchmark_filter='Drain'
# Environment: KELO_BENCH_BUILD_DIR (default build/bench), KELO_BENCH_LOG
# (default <build dir>/service_bench.log) receives the log lines of the
# service and of the benchmark; the results go to standard output.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

dir=${KELO_BENCH_BUILD_DIR:-build/bench}
log=${KELO_BENCH_LOG:-$dir/service_bench.log}

cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER= -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=ON >/dev/null
cmake --build "$dir" -j"$(nproc)" --target kelo_bpf_service_bench >/dev/null

echo "=== $dir/bench/kelo_bpf_service_bench $* (log: $log)"
if ! bash scripts/sandbox.sh "$dir/bench/kelo_bpf_service_bench" "$@" 2>"$log"; then
  tail -n 30 "$log" >&2
  exit 1
fi
