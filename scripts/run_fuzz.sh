#!/usr/bin/env bash
# Fuzzes the IPC read path for a given time.
# Usage: scripts/run_fuzz.sh <seconds> [extra libFuzzer flags...]
#
# Builds the libFuzzer target in build/fuzz (clang, ASan+UBSan) when needed,
# copies the seed corpus fuzz/corpus/ to a scratch corpus under build/fuzz/
# and runs the fuzzer over it inside scripts/sandbox.sh, whose private tmpfs
# at /data takes the error log that damaged streams write. Prints the
# executions, the speed, the coverage and the findings (crash, leak and
# time-out inputs, kept in build/fuzz/findings/); exits non-zero when there
# are findings.
set -euo pipefail

if [ $# -lt 1 ] || ! [[ "$1" =~ ^[0-9]+$ ]]; then
  echo "usage: $0 <seconds> [libFuzzer flags...]" >&2
  exit 2
fi
seconds=$1
shift

root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
dir=build/fuzz
fuzzer=$dir/fuzz/kelo_bpf_ipc_read_fuzzer
corpus=$dir/corpus-run
findings=$dir/findings
log=$dir/fuzz.log

bash scripts/install_deps.sh
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKELO_SANITIZER=address -DKELO_BUILD_FUZZ=ON -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$dir" -j"$(nproc)" --target kelo_bpf_ipc_read_fuzzer

rm -rf "$corpus"
mkdir -p "$corpus" "$findings"
cp fuzz/corpus/* "$corpus/"
before=$(find "$findings" -type f | sort)

echo "=== fuzzing for ${seconds}s over a copy of fuzz/corpus ($corpus)"
status=0
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  bash scripts/sandbox.sh "$fuzzer" -max_total_time="$seconds" -print_final_stats=1 \
  -artifact_prefix="$findings/" "$@" "$corpus" >"$log" 2>&1 || status=$?

echo "=== summary (full log: $log)"
grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$log" || true
grep -E '#[0-9]+.*(cov|ft):' "$log" | tail -n 1 || true
echo "corpus: $(find "$corpus" -type f | wc -l) inputs"
new=$(comm -13 <(echo "$before") <(find "$findings" -type f | sort) | sed '/^$/d')
if [ "$status" -ne 0 ] || [ -n "$new" ]; then
  echo "=== FINDINGS (exit status $status):"
  echo "$new"
  grep -E 'read fuzzer oracle|Check failed|ERROR: (AddressSanitizer|libFuzzer|LeakSanitizer)|runtime error' \
    "$log" | head -n 20 || true
  exit 1
fi
echo "=== no findings"
