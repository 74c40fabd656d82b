#!/usr/bin/env bash
# Installs every Debian package needed to build, test, benchmark and run the
# service, and to check its format (clang-format), its systemd unit
# (systemd-analyze, from systemd) and its manual pages (groff, man, col).
# Idempotent: when everything is present it installs nothing and does not
# touch the network.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config
  clang llvm lld libclang-rt-dev
  android-libbase-dev android-liblog-dev android-libcutils-dev
  libbpf-dev libbpfcc-dev bpftool libelf-dev zlib1g-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev
  util-linux iproute2 procps python3 tmux curl
  clang-format systemd
  groff-base man-db bsdextrautils
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO=sudo
echo "install_deps: installing ${missing[*]}"
$SUDO apt-get update -q
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
