#!/usr/bin/env bash
# The live run: builds the daemon and the client tool, then runs the service
# for real on this machine and shows what it sees.
#
#   bash scripts/run_live.sh [--seconds N]      (default 10; needs root)
#
# 1. Installs the build dependencies (scripts/install_deps.sh) and builds
#    kelobpfd and kelobpf-client in build/live (clang, RelWithDebInfo).
# 2. In private mount and network namespaces (own bpffs at /sys/fs/bpf, own
#    tracefs, build/live/data bind-mounted over /data, a private abstract
#    socket name), starts kelobpfd --load --ready-delay 2: the kernel programs
#    are loaded and pinned under /sys/fs/bpf/kelo, the service starts and is
#    made ready two seconds later.
# 3. Runs kelobpf-client subscribed to every event type, from before the
#    service is ready (so it sees the start-up scan's records of every
#    process) for N seconds while forking, exec'ing and allocating memory; a
#    workload process lives the whole run, starts 12 threads and grows its
#    memory after 3 s, so that thread-count and RSS reports show.
# 4. Sends signal 51 to the daemon and prints the head of the task table it
#    writes, then signal 50 and prints the state file, then stops the daemon
#    with SIGTERM.
# 5. Prints a summary: events per type, the task table's size, failed
#    attachments (this machine has no kprobes, so the kprobe rows fail and are
#    counted), exit statuses.
#
# Outputs: build/live/daemon.log (the platform log), build/live/client.log
# (every response and event), build/live/data/kelolog/stability/
# kelobpfframework/ (state file, error log). The machine's /data, /sys/fs/bpf
# and any running service are not touched.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
live="$root/build/live"
seconds=10
while [ $# -gt 0 ]; do
  case "$1" in
    --seconds) seconds="${2:?--seconds needs a value}"; shift 2 ;;
    --seconds=*) seconds="${1#--seconds=}"; shift ;;
    -h|--help) sed -n '2,/^set -euo/{/^#/p}' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run_live: unknown argument $1" >&2; exit 2 ;;
  esac
done
case "$seconds" in
  ''|*[!0-9]*) echo "run_live: --seconds takes whole seconds" >&2; exit 2 ;;
esac

# ---------------------------------------------------------------------------
# Outside the namespaces: dependencies and build.
# ---------------------------------------------------------------------------
if [ "${KELO_LIVE_INSIDE:-}" != "1" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "run_live: needs root (BPF loading, bpffs and tracefs mounts)" >&2
    exit 1
  fi
  cd "$root"
  bash scripts/install_deps.sh
  echo "=== build in $live"
  cmake -S . -B "$live" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELO_SANITIZER= \
    -DKELO_BUILD_TESTS=OFF -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_FUZZ=OFF >/dev/null
  cmake --build "$live" -j"$(nproc)" --target kelobpfd kelobpf-client
  # /data does not exist on a Debian host; an empty directory is needed as the
  # mount point. Nothing is ever written into it.
  [ -d /data ] || mkdir -p /data
  exec unshare --mount --net --propagation private \
    env KELO_LIVE_INSIDE=1 bash "$0" --seconds "$seconds"
fi

# ---------------------------------------------------------------------------
# Inside: private mounts, then the run.
# ---------------------------------------------------------------------------
daemon="$live/tools/kelobpfd"
client="$live/tools/kelobpf-client"
data="$live/data"
state_dir=/data/kelolog/stability/kelobpfframework
state_file="$state_dir/bpfservice_state.csv"
dump_file="$state_dir/DUMPTASK_INFO"
daemon_log="$live/daemon.log"
client_log="$live/client.log"

rm -rf "$data"
mkdir -p "$data"
mount --bind "$data" /data
mount -t bpf kelo-live-bpffs /sys/fs/bpf
mountpoint -q /sys/kernel/tracing || mount -t tracefs kelo-live-tracefs /sys/kernel/tracing

daemon_pid=""
client_pid=""
workload_pid=""
cleanup() {
  [ -n "$client_pid" ] && kill -TERM "$client_pid" 2>/dev/null || true
  [ -n "$daemon_pid" ] && kill -TERM "$daemon_pid" 2>/dev/null || true
  [ -n "$workload_pid" ] && kill -TERM "$workload_pid" 2>/dev/null || true
}
trap cleanup EXIT

# Polls `cmd` every 0.1 s for up to `limit` seconds.
wait_until() {
  local limit=$1; shift
  local tries=$((limit * 10))
  while ! "$@"; do
    tries=$((tries - 1))
    [ "$tries" -gt 0 ] || return 1
    sleep 0.1
  done
}
daemon_ready() { grep -q "\[kelobpfd\] Ready" "$daemon_log"; }
socket_listening() { grep -q "@/mnt/bpfframework/kelobpfdispatcher" /proc/net/unix; }

# Forks, execs and allocates until the deadline; every round also leaves a
# short-lived child behind, so fork and exit records keep coming.
generate_activity() {
  local until=$((SECONDS + $1))
  while [ "$SECONDS" -lt "$until" ]; do
    for _ in 1 2 3 4 5; do /bin/true; done
    sleep 0.2 &
    local sleeper=$!
    # 8 MiB touched and freed: rss_stat records for this process.
    perl -e '$x = "x" x (8 << 20); select(undef, undef, undef, 0.2)' 2>/dev/null ||
      head -c 8388608 /dev/zero | od >/dev/null
    # Only this child: a bare wait would wait for the daemon too.
    wait "$sleeper"
    sleep 0.3
  done
}

# One process for the whole run: after 6 s (3 s after the start-up scan has
# recorded it) it starts 12 threads, then grows by 8 MiB a second.
start_workload() {
  python3 -c '
import threading, time
time.sleep(6)
stop = threading.Event()
for _ in range(12): threading.Thread(target=stop.wait, daemon=True).start()
blocks = []
while True:
    blocks.append(bytearray(8 << 20))
    for i in range(0, 8 << 20, 4096): blocks[-1][i] = 1
    time.sleep(1)
' &
  workload_pid=$!
}

echo "=== start kelobpfd --load --ready-delay 2 (log: $daemon_log)"
"$daemon" --load --ready-delay 2 >"$daemon_log" 2>&1 &
daemon_pid=$!
if ! wait_until 10 socket_listening; then
  echo "run_live: the daemon did not come up; its log:" >&2
  tail -n 30 "$daemon_log" >&2
  exit 1
fi

echo "=== client subscribed to every event type for ${seconds}s (log: $client_log)"
"$client" --duration "$seconds" >"$client_log" 2>&1 &
client_pid=$!
start_workload
if ! wait_until 30 daemon_ready; then
  echo "run_live: the daemon did not become ready; its log:" >&2
  tail -n 30 "$daemon_log" >&2
  exit 1
fi
generate_activity "$seconds"
client_status=0
wait "$client_pid" || client_status=$?
client_pid=""

kill -TERM "$workload_pid" 2>/dev/null || true
wait "$workload_pid" 2>/dev/null || true
workload_pid=""

echo "=== signal 51: task table $dump_file (first 12 rows)"
kill -n 51 "$daemon_pid"
table_size=""
if wait_until 10 test -s "$dump_file"; then
  head -n 14 "$dump_file"
  table_size=$(head -n 1 "$dump_file" | sed -n 's/.*(count: \([0-9]*\),.*/\1/p')
else
  echo "run_live: no task table after signal 51" >&2
fi

echo "=== signal 50: state file $state_file"
kill -n 50 "$daemon_pid"
state_written=0
if wait_until 10 test -s "$state_file"; then
  state_written=1
  cat "$state_file" | tr -d '\r'
else
  echo "run_live: no state file after signal 50" >&2
fi

echo "=== stop kelobpfd (SIGTERM)"
kill -TERM "$daemon_pid"
# A daemon that does not stop within 20 s is killed (status 137).
( sleep 20; kill -KILL "$daemon_pid" 2>/dev/null ) &
watchdog_pid=$!
daemon_status=0
wait "$daemon_pid" || daemon_status=$?
kill "$watchdog_pid" 2>/dev/null || true
wait "$watchdog_pid" 2>/dev/null || true
daemon_pid=""

echo "=== first events"
grep -v '^summary \|^response \|^KeloBpfClient ' "$client_log" | head -n 20 || true

echo
echo "=== summary"
grep '^response ' "$client_log" | awk '{ r[$4]++ } END { for (k in r) printf "subscriptions answered %s: %d\n", k, r[k] }'
awk '/^summary type=/ {
       split($2, t, "="); split($3, n, "="); split($4, e, "=");
       printf "  type %-6s %-15s %8s events\n", t[2], n[2], e[2] }
     /^summary events=/ { split($2, e, "="); total = e[2] }
     END { printf "  total                  %8s events\n", total }' "$client_log"
tried=$(grep -c "Attach bpf prog start" "$daemon_log" || true)
failed_kprobe=$(grep -c "Attach kprobe prog failed" "$daemon_log" || true)
failed_kretprobe=$(grep -c "Attach kretprobe prog failed" "$daemon_log" || true)
failed_tracepoint=$(grep -c "Attach tracepoint prog failed" "$daemon_log" || true)
echo "attachments: $tried tried; failed: kprobe $failed_kprobe, kretprobe $failed_kretprobe, tracepoint $failed_tracepoint"
grep -o "Attach [a-z]* prog failed: .*" "$daemon_log" | sed 's/^/  /' || true
grep -o "\[KeloBpfService\]\[[a-zA-Z]*\] Attach all kelo bpf error: [0-9]*" "$daemon_log" | sed 's/^/  /' || true
echo "task table: ${table_size:-MISSING} processes ($data${dump_file#/data})"
echo "state file: $([ "$state_written" = 1 ] && echo "written ($data${state_file#/data})" || echo MISSING)"
echo "client exit status: $client_status; daemon exit status: $daemon_status"

total=$(awk '/^summary events=/ { split($2, e, "="); print e[2] }' "$client_log")
if [ "$client_status" -ne 0 ] || [ "$daemon_status" -ne 0 ] || [ "$state_written" != 1 ] || [ "${total:-0}" -eq 0 ] ||
   [ -z "$table_size" ]; then
  echo "=== live run FAILED"
  exit 1
fi
echo "=== live run OK"
