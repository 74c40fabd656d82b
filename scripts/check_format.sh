#!/usr/bin/env bash
# Checks that the C and C++ sources match the project's style (.clang-format,
# and bpf/.clang-format for the kernel programs), with clang-format from
# Debian's clang-format package (scripts/install_deps.sh installs it).
#
# Usage: scripts/check_format.sh [FILE...]
# Without files it checks every tracked *.cc, *.h and *.c file. Prints the
# diff clang-format would apply to each file that differs and exits 1 when
# any does; fix them with `clang-format -i FILE...`.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if ! command -v clang-format >/dev/null; then
  echo "check_format: clang-format is not installed (bash scripts/install_deps.sh)" >&2
  exit 2
fi

files=("$@")
if [ "${#files[@]}" -eq 0 ]; then
  mapfile -t files < <(git ls-files -- '*.cc' '*.h' '*.c')
  [ "${#files[@]}" -gt 0 ] || { echo "check_format: no tracked sources found" >&2; exit 2; }
fi

differ=()
for f in "${files[@]}"; do
  [ -f "$f" ] || { echo "check_format: no such file: $f" >&2; exit 2; }
  if ! diff -u --label "$f" --label "$f (clang-format)" "$f" <(clang-format "$f"); then
    differ+=("$f")
  fi
done

if [ "${#differ[@]}" -gt 0 ]; then
  echo "check_format: ${#differ[@]} of ${#files[@]} files differ from $(clang-format --version | head -1):" >&2
  printf '  %s\n' "${differ[@]}" >&2
  exit 1
fi
echo "check_format: ${#files[@]} files match $(clang-format --version | head -1)"
