#!/usr/bin/env bash
# Builds the armhf (32-bit ARM, hard float) sysroot that the cross build
# compiles against and qemu-arm runs the tests in: Debian's armhf C and C++
# run-time and development packages and the armhf builds of every library the
# service links (android-libbase, -liblog, -libcutils, libbpf, BCC's
# libbcc_bpf, libelf, zlib, CLI11, nlohmann-json, GoogleTest), each unpacked
# with `dpkg-deb -x`.
#
# Nothing is installed on the host for this and the host's dpkg keeps its
# architectures: apt runs with a private state directory that knows armhf
# only, on the host's Debian sources, and downloads the packages. The host
# tools it needs come from scripts/install_deps.sh (clang, lld) and
# scripts/run_tests_armhf.sh (qemu-user).
#
# Usage: scripts/armhf_sysroot.sh [DIR]   (default build/armhf-sysroot)
# The sysroot is DIR/sysroot. Idempotent: when the sysroot holds exactly the
# packages below it returns at once without touching the network.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=${1:-$root/build/armhf-sysroot}
mkdir -p "$out"
out=$(cd "$out" && pwd)
sysroot=$out/sysroot
stamp=$sysroot/.kelo-packages

PACKAGES=(
  # C and C++ run time and development files.
  libc6 libc6-dev linux-libc-dev libgcc-s1 libgcc-12-dev libstdc++6 libstdc++-12-dev libatomic1
  # The platform libraries.
  android-libbase android-libbase-dev android-liblog android-liblog-dev
  android-libcutils android-libcutils-dev android-platform-system-core-headers
  libbpf1 libbpf-dev libbpfcc libbpfcc-dev libelf1 libelf-dev zlib1g zlib1g-dev
  # The client tool's command line and JSON output (header-only).
  libcli11-dev nlohmann-json3-dev
  # Tests.
  libgtest-dev libgmock-dev
)

# The stamp names the packages and the layout below; a change to either
# makes the sysroot anew.
LAYOUT=2
wanted=$(printf '%s\n' "layout $LAYOUT" "${PACKAGES[@]}")
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then
  exit 0
fi

# A private apt that sees only armhf: its own lists, cache and (empty) dpkg
# status, the host's Debian sources and keyrings.
apt_dir=$out/apt
mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/sources.list.d" "$out/debs"
: >"$apt_dir/status"
rm -f "$apt_dir/sources.list.d/"*
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list /etc/apt/sources.list.d/*.sources; do
  [ -f "$f" ] && grep -qi debian "$f" && cp "$f" "$apt_dir/sources.list.d/"
done
APT=(apt-get -q -o APT::Sandbox::User=root
  -o APT::Architecture=armhf -o APT::Architectures=armhf
  -o Dir::State="$apt_dir" -o Dir::State::Lists="$apt_dir/lists" -o Dir::State::status="$apt_dir/status"
  -o Dir::Cache="$apt_dir/cache"
  -o Dir::Etc::SourceList=/dev/null -o Dir::Etc::SourceParts="$apt_dir/sources.list.d")

echo "armhf_sysroot: fetching ${#PACKAGES[@]} armhf packages"
# An index that fails to download (a mirror in the middle of a sync) is
# left out with a warning; the download below fails if a package is missing.
if ! "${APT[@]}" update >"$apt_dir/update.log" 2>&1; then
  grep -E '^(E|W):' "$apt_dir/update.log" | sed 's/^/armhf_sysroot: apt, index left out: /' >&2 || true
  if ! ls "$apt_dir/lists/"*_Packages* >/dev/null 2>&1; then
    echo "armhf_sysroot: no armhf package index could be fetched" >&2
    exit 1
  fi
fi
(cd "$out/debs" && rm -f ./*.deb && "${APT[@]}" download "${PACKAGES[@]/%/:armhf}" >/dev/null)

rm -rf "$sysroot"
mkdir -p "$sysroot"
for deb in "$out/debs"/*.deb; do
  dpkg-deb -x "$deb" "$sysroot"
done

# Merge /lib into /usr/lib as on a merged-/usr system, so that the loader,
# the linker scripts in libc.so and qemu-arm's -L prefix find one tree.
if [ -d "$sysroot/lib" ] && [ ! -L "$sysroot/lib" ]; then
  cp -a "$sysroot/lib/." "$sysroot/usr/lib/"
  rm -rf "$sysroot/lib"
  ln -s usr/lib "$sysroot/lib"
fi
# clang reaches the C++ headers as lib/gcc/<triple>/12/../../../../include,
# and make's dependency files keep that path lexically shortened: give it a
# target, so that up-to-date objects are not rebuilt.
ln -sfn usr/include "$sysroot/include"

# Absolute symbolic links would point into the host's tree: make them
# relative to the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  case "$target" in
    /*) ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link" ;;
  esac
done < <(find "$sysroot" -type l -print0)

printf '%s\n' "$wanted" >"$stamp"
echo "armhf_sysroot: sysroot ready in $sysroot"
