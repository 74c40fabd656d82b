#!/usr/bin/env bash
# Builds and runs every test suite in the builds of CMakePresets.json: a plain
# clang build (with the thread-safety analysis and the benchmarks),
# AddressSanitizer+UBSan (with the fuzz target's seed replay),
# ThreadSanitizer, and gcc (the machine's default compiler, with the
# benchmarks), each in build/test-<variant>.
# Usage: scripts/run_tests.sh [plain|address|thread|gcc ...]   (default: all four)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/install_deps.sh

variants=("$@")
[ "${#variants[@]}" -eq 0 ] && variants=(plain address thread gcc)
jobs=${KELO_JOBS:-$(nproc)}

for v in "${variants[@]}"; do
  case "$v" in
    plain|address|thread|gcc) ;;
    *) echo "unknown variant $v" >&2; exit 2 ;;
  esac
  echo "=== $v: configure and build in build/test-$v"
  cmake --preset "$v" >/dev/null
  cmake --build --preset "$v" -j"$jobs"
  echo "=== $v: run tests"
  ctest --preset "$v" -j"$jobs"
done
echo "=== all test variants passed: ${variants[*]}"
