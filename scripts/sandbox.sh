#!/usr/bin/env bash
# Runs a command in private mount and network namespaces, as the tests need:
# a tmpfs over /data (the service's fixed log directory lives under it), a
# fresh bpffs at /sys/fs/bpf, tracefs for attaching, a tmpfs over /mnt (the
# client socket's directory) and a loopback-only network namespace, whose
# abstract Unix socket names are private too. Needs root. Nothing done here
# outlives the command: the namespaces vanish with it.
set -euo pipefail

if [ "${KELO_IN_SANDBOX:-}" != "1" ]; then
  # /data does not exist on a Debian host; an empty directory is needed as the
  # mount point of the private tmpfs. Nothing is ever written into it.
  [ -d /data ] || mkdir -p /data
  exec unshare --mount --net --propagation private \
    env KELO_IN_SANDBOX=1 "$0" "$@"
fi

mount -t tmpfs -o mode=0755 kelo-data /data
mount -t tmpfs -o mode=0755 kelo-mnt /mnt
mount -t bpf kelo-bpffs /sys/fs/bpf
mountpoint -q /sys/kernel/tracing || mount -t tracefs kelo-tracefs /sys/kernel/tracing
ip link set lo up 2>/dev/null || true
exec "$@"
