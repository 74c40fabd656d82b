#!/usr/bin/env bash
# Builds and runs every test suite three times: a plain clang build (with the
# thread-safety analysis), AddressSanitizer+UBSan, and ThreadSanitizer.
# Usage: scripts/run_tests.sh [plain|address|thread ...]   (default: all three)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/install_deps.sh

variants=("$@")
[ "${#variants[@]}" -eq 0 ] && variants=(plain address thread)
jobs=$(nproc)

for v in "${variants[@]}"; do
  case "$v" in
    plain) san="" ;;
    address|thread) san="$v" ;;
    *) echo "unknown variant $v" >&2; exit 2 ;;
  esac
  dir="build/test-$v"
  echo "=== $v: configure and build in $dir"
  cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER="$san" \
    -DKELO_BUILD_BENCH="$([ "$v" = plain ] && echo ON || echo OFF)" \
    -DKELO_BUILD_FUZZ="$([ "$v" = address ] && echo ON || echo OFF)" >/dev/null
  cmake --build "$dir" -j"$jobs"
  echo "=== $v: run tests"
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error
done
echo "=== all test variants passed: ${variants[*]}"
