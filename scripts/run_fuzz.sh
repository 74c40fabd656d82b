#!/usr/bin/env bash
# Fuzzes the IPC read path, or the service's request path, for a given time.
# Usage: [KELO_FUZZ_TARGET=read|service] scripts/run_fuzz.sh <seconds> [extra libFuzzer flags...]
#
# read (the default) runs kelo_bpf_ipc_read_fuzzer over fuzz/corpus/;
# service runs kelo_bpf_service_request_fuzzer over fuzz/corpus_service/.
# Builds the libFuzzer target in build/fuzz (clang, ASan+UBSan) when needed,
# copies the seed corpus to a scratch corpus under build/fuzz/
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
case "${KELO_FUZZ_TARGET:-read}" in
  read) target=kelo_bpf_ipc_read_fuzzer seeds=fuzz/corpus suffix= ;;
  service) target=kelo_bpf_service_request_fuzzer seeds=fuzz/corpus_service suffix=-service ;;
  *) echo "KELO_FUZZ_TARGET must be read or service" >&2; exit 2 ;;
esac
fuzzer=$dir/fuzz/$target
corpus=$dir/corpus-run$suffix
findings=$dir/findings$suffix
log=$dir/fuzz$suffix.log

bash scripts/install_deps.sh
if [ ! -f "$dir/CMakeCache.txt" ]; then
  cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKELO_SANITIZER=address -DKELO_BUILD_FUZZ=ON -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$dir" -j"$(nproc)" --target "$target"

rm -rf "$corpus"
mkdir -p "$corpus" "$findings"
cp "$seeds"/* "$corpus/"
before=$(find "$findings" -type f | sort)

echo "=== fuzzing $target for ${seconds}s over a copy of $seeds ($corpus)"
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
  grep -E 'fuzzer oracle|Check failed|ERROR: (AddressSanitizer|libFuzzer|LeakSanitizer)|runtime error' \
    "$log" | head -n 20 || true
  exit 1
fi
echo "=== no findings"
