#!/usr/bin/env bash
# The loss soak: the daemon for real (kelobpfd --load: the kernel programs
# loaded, pinned and attached) with clients that read fast, slowly, not at all
# or in short sessions, while records are emitted into the service's normal
# ring buffer at a fixed rate beside the live kernel's events. Not part of the
# test suite; run it on demand (needs root, takes as long as asked).
#
#   bash scripts/run_soak.sh [--minutes N | --seconds N] [--rate R]
#                            [--mix FAST,SLOW,STALLED,RECONNECTING]
#                            [--slow-ratio K] [--warmup S] [--fast-lossless]
#
# Defaults: 10 minutes, 100000 records/s, 64 clients (16 of each kind), slow
# clients reading at 1/10 of the rate, RSS compared from the end of a warm-up
# of a quarter of the run (--warmup SECONDS). --fast-lossless also fails the
# run when a fast client or the kernel lost anything.
#
# It prints, per client, received + reported lost = emitted (exactly, or
# "NOT EXACT"), per reconnecting client the same over its sessions' windows,
# the service's RSS after the warm-up and at the end (growth must stay under
# 5%), its open descriptors before and after the clients (must be equal), the
# fast clients' delivery latency (p50, p99), and the loss lines of the state
# file the service writes on signal 50. Exit status 0 when every check held.
#
# Builds in build/soak; the daemon's log is build/soak/daemon.log. Runs in
# private namespaces (scripts/sandbox.sh): the machine's /data, /sys/fs/bpf
# and any running service are not touched.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
dir="$root/build/soak"

if [ "${KELO_IN_SANDBOX:-}" != "1" ]; then
  args=()
  seconds=600
  while [ $# -gt 0 ]; do
    case "$1" in
      --minutes) seconds=$(( ${2:?--minutes needs a value} * 60 )); shift 2 ;;
      --seconds) seconds="${2:?--seconds needs a value}"; shift 2 ;;
      --rate|--mix|--slow-ratio|--warmup) args+=("$1" "${2:?$1 needs a value}"); shift 2 ;;
      --fast-lossless) args+=("$1"); shift ;;
      -h|--help) sed -n '2,/^set -euo/{/^#/p}' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
      *) echo "run_soak: unknown argument $1" >&2; exit 2 ;;
    esac
  done
  if [ "$(id -u)" -ne 0 ]; then
    echo "run_soak: needs root (BPF loading, bpffs and tracefs mounts)" >&2
    exit 1
  fi
  cd "$root"
  bash scripts/install_deps.sh
  echo "=== build in $dir"
  cmake -S . -B "$dir" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER= \
    -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=ON -DKELO_BUILD_FUZZ=OFF >/dev/null
  cmake --build "$dir" -j2 --target kelobpfd kelo_bpf_loss_soak >/dev/null
  exec bash scripts/sandbox.sh bash "$0" --seconds "$seconds" "${args[@]}"
fi

# Inside the sandbox: the daemon, then the soak against it.
log="$dir/daemon.log"
"$dir/tools/kelobpfd" --load 2>"$log" &
daemon=$!
trap 'kill -TERM "$daemon" 2>/dev/null || true' EXIT
for _ in $(seq 300); do
  grep -q "\[kelobpfd\] Ready" "$log" && grep -q "@/mnt/bpfframework/kelobpfdispatcher" /proc/net/unix && break
  kill -0 "$daemon" 2>/dev/null || { echo "run_soak: the daemon ended; see $log" >&2; exit 1; }
  sleep 0.1
done
echo "=== kelobpfd (pid $daemon) ready; soak starts"
status=0
"$dir/bench/kelo_bpf_loss_soak" --daemon-pid "$daemon" "$@" || status=$?
kill -TERM "$daemon"
daemon_status=0
wait "$daemon" || daemon_status=$?
trap - EXIT
echo "=== kelobpfd exit status $daemon_status"
[ "$daemon_status" -eq 0 ] || status=1
exit "$status"
