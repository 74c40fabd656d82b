#!/usr/bin/env bash
# The device target: builds the library, the tools and the unit tests for
# 32-bit ARM (armhf) with clang against a sysroot of Debian's armhf packages
# (scripts/armhf_sysroot.sh), and runs every test under qemu-arm, each test
# case in its own sandbox (scripts/sandbox.sh) as in the x86-64 builds.
#
# User-mode emulation forwards neither bpf() nor perf_event_open: the tests
# that need the kernel's BPF skip and say so. UBSan's checks (alignment
# included) are compiled in and trap (cmake/toolchain-armhf.cmake).
#
# Usage: scripts/run_tests_armhf.sh [ctest arguments, e.g. -R Pattern]
# Builds in build/test-armhf; ends with "armhf: N passed, N failed, N skipped".
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

# Host side: the compilers and tools of every build, then what only this one
# needs. Nothing is installed when everything is present.
bash scripts/install_deps.sh
HOST_PACKAGES=(qemu-user)
missing=()
for p in "${HOST_PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -ne 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  echo "run_tests_armhf: installing ${missing[*]}"
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

bash scripts/armhf_sysroot.sh

dir=build/test-armhf
jobs=$(nproc)
echo "=== armhf: configure and build in $dir"
cmake -S . -B "$dir" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER= -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_FUZZ=OFF >/dev/null
cmake --build "$dir" -j"$jobs"

echo "=== armhf: run tests under $(command -v qemu-arm)"
log="$dir/ctest-armhf.log"
status=0
ctest --test-dir "$dir" -j"$jobs" --output-on-failure --no-tests=error "$@" 2>&1 | tee "$log" || status=$?

# ctest counts a skipped test as passed; tell them apart.
total=$(sed -n 's/.* tests failed out of \([0-9][0-9]*\)$/\1/p' "$log" | tail -1)
failed=$(sed -n 's/.*, \([0-9][0-9]*\) tests failed out of .*/\1/p' "$log" | tail -1)
skipped=$(grep -c '^[[:space:]]*[0-9][0-9]* - .* (Skipped)$' "$log" || true)
if [ -z "$total" ] || [ -z "$failed" ]; then
  echo "run_tests_armhf: no test summary from ctest" >&2
  exit 1
fi
echo "armhf: $((total - failed - skipped)) passed, $failed failed, $skipped skipped"
exit "$status"
