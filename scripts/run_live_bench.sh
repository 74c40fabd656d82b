#!/usr/bin/env bash
# What the daemon costs per real kernel event at steady rates: kelobpfd --load
# with one kelobpf-client subscribed to rss_stat records, while a workload
# process touches fresh pages at a paced rate (every 16 KiB of resident
# memory gained is one rss_stat record; the region is handed back and touched
# again). Not part of CI.
#
#   bash scripts/run_live_bench.sh [--seconds N] [--rates "1000 10000 100000"]
#                                  [--budgets "10 0"]        (needs root)
#
# For every latency budget (kelobpfd --latency-budget-ms) and every rate
# (records per second), a fresh daemon and client run for N seconds (default
# 60) after a 3-second warm-up; the daemon's processor time is read from
# /proc/<pid>/stat at both ends of the window. One line per run: records the
# client received, the rate reached, the daemon's CPU in microseconds per
# record and in percent of one processor, and its context switches per record.
#
# Runs in private mount and network namespaces as scripts/run_live.sh does
# (own bpffs and tracefs, <build dir>/data over /data); the machine's /data,
# /sys/fs/bpf and any running service are not touched. The daemon and the
# client are built in KELO_LIVE_BENCH_BUILD_DIR (default build/live-bench;
# any optimised build without sanitizers will do, e.g. build/test-plain).
# Logs: <build dir>/daemon-<budget>-<rate>.log and client-<budget>-<rate>.log.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
out=$(cd "$root" && mkdir -p "${KELO_LIVE_BENCH_BUILD_DIR:-build/live-bench}" &&
  cd "${KELO_LIVE_BENCH_BUILD_DIR:-build/live-bench}" && pwd)
seconds=60
rates="1000 10000 100000"
budgets="10 0"
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="${2:?--seconds needs a value}"; shift 2 ;;
    --rates) rates="${2:?--rates needs a value}"; shift 2 ;;
    --budgets) budgets="${2:?--budgets needs a value}"; shift 2 ;;
    -h|--help) sed -n '2,/^set -euo/{/^#/p}' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run_live_bench: unknown argument $1" >&2; exit 2 ;;
  esac
done

if [ "${KELO_LIVE_INSIDE:-}" != "1" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "run_live_bench: needs root (BPF loading, bpffs and tracefs mounts)" >&2
    exit 1
  fi
  cd "$root"
  # An existing build keeps its configuration.
  if [ ! -f "$out/CMakeCache.txt" ]; then
    cmake -S . -B "$out" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER= \
      -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_FUZZ=OFF >/dev/null
  fi
  cmake --build "$out" -j2 --target kelobpfd kelobpf-client >/dev/null
  [ -d /data ] || mkdir -p /data
  exec unshare --mount --net --propagation private \
    env KELO_LIVE_INSIDE=1 KELO_LIVE_BENCH_BUILD_DIR="$out" bash "$0" --seconds "$seconds" --rates "$rates" --budgets "$budgets"
fi

daemon="$out/tools/kelobpfd"
client="$out/tools/kelobpf-client"
data="$out/data"
mkdir -p "$data"
mount --bind "$data" /data
mount -t bpf kelo-live-bpffs /sys/fs/bpf
mountpoint -q /sys/kernel/tracing || mount -t tracefs kelo-live-tracefs /sys/kernel/tracing

pids=()
cleanup() { for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done; }
trap cleanup EXIT

wait_until() {
  local limit=$1; shift
  local tries=$((limit * 10))
  while ! "$@"; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.1
  done
}
socket_listening() { grep -q "@/mnt/bpfframework/kelobpfdispatcher" /proc/net/unix; }
ready() { grep -q "\[kelobpfd\] Ready" "$1"; }

# utime + stime of a process in clock ticks, and its threads' context
# switches (voluntary and involuntary).
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat"; }
switches() {
  cat /proc/"$1"/task/*/status 2>/dev/null |
    awk '/^(voluntary|nonvoluntary)_ctxt_switches:/ { n += $2 } END { print n + 0 }'
}

# Touches pages at 4 x rate a second (16 KiB per record), in 1 ms steps, in a
# 64 MiB region that is handed back (MADV_DONTNEED) whenever it is full.
# Python replaces the subshell, so that killing the workload's pid ends it.
workload() {
  exec python3 - "$1" <<'EOF'
import mmap, sys, time
rate = int(sys.argv[1])
page = mmap.PAGESIZE
pages = (64 << 20) // page
region = mmap.mmap(-1, pages * page)
touch_per_s = rate * (16384 // page)
start = time.monotonic()
done = 0
at = 0
while True:
    due = int((time.monotonic() - start) * touch_per_s)
    while done < due:
        region[at * page] = 1
        at += 1
        done += 1
        if at == pages:
            region.madvise(mmap.MADV_DONTNEED)
            at = 0
    time.sleep(0.001)
EOF
}

ticks=$(getconf CLK_TCK)
printf '%-8s %-8s %-10s %-10s %-14s %-10s %s\n' budget_ms rate records per_s cpu_us_per_rec cpu_pct switches_per_rec
for budget in $budgets; do
  for rate in $rates; do
    rm -rf /sys/fs/bpf/kelo
    daemon_log="$out/daemon-$budget-$rate.log"
    client_log="$out/client-$budget-$rate.log"
    "$daemon" --load --latency-budget-ms "$budget" >"$daemon_log" 2>&1 &
    daemon_pid=$!
    pids=("$daemon_pid")
    if ! wait_until 20 socket_listening || ! wait_until 30 ready "$daemon_log"; then
      echo "run_live_bench: the daemon did not come up; its log:" >&2
      tail -n 30 "$daemon_log" >&2
      exit 1
    fi
    # One line per record is printed; only the summary is kept.
    "$client" --type rss --duration $((seconds + 5)) 2>&1 | grep --line-buffered -v " ts=" >"$client_log" &
    client_pid=$!
    workload "$rate" &
    workload_pid=$!
    pids+=("$client_pid" "$workload_pid")
    sleep 3
    cpu0=$(cpu_ticks "$daemon_pid")
    sw0=$(switches "$daemon_pid")
    sleep "$seconds"
    cpu1=$(cpu_ticks "$daemon_pid")
    sw1=$(switches "$daemon_pid")
    kill -TERM "$workload_pid" 2>/dev/null || true
    wait "$workload_pid" 2>/dev/null || true
    wait "$client_pid" 2>/dev/null || true
    kill -TERM "$daemon_pid"
    wait "$daemon_pid" 2>/dev/null || true
    pids=()
    # The client's own count of rss records over its whole run.
    records=$(sed -n 's/.*summary type=1 name=rss events=\([0-9]*\).*/\1/p' "$client_log" | tail -n 1)
    records=${records:-0}
    awk -v b="$budget" -v r="$rate" -v n="$records" -v s="$seconds" -v c=$((cpu1 - cpu0)) -v t="$ticks" \
      -v w=$((sw1 - sw0)) 'BEGIN {
        rate = n / (s + 5);  # the client ran s + 5 seconds
        window = rate * s;   # records inside the measured window
        printf "%-8s %-8s %-10s %-10.0f %-14.2f %-10.2f %.3f\n", b, r, n, rate,
               c / t * 1e6 / window, c / t / s * 100, w / window
      }'
  done
done
