#!/usr/bin/env python3
"""CPU per refresh of `kelobpf-client top` beside procps `top`, in one run.

Runs inside scripts/sandbox.sh (private /data, bpffs and socket names; see
scripts/run_top_bench.sh). It starts SLEEPERS idle processes, then the daemon
(kelobpfd --load), then alternates, ROUNDS times:

  - `top -b -d 1 -n REFRESHES` (procps, every process read from /proc on
    every refresh);
  - `kelobpf-client top -b -d 1 -n REFRESHES` (one task dump at start, then
    the service's derived events);
  - an idle stretch of the same length with no client at all.

Both tools print every row to /dev/null. A tool's CPU is its user + system
time from wait4(). The daemon's share for the client is the CPU that the
daemon's threads serving clients spent during the client's run: the IPC
thread "BpfServiceTr" (sends the events) and the dump thread
"BpfServiceDump" (writes the dump), from /proc/<pid>/task/*/schedstat
(nanoseconds). The whole daemon's CPU during the client's run and during
the idle stretch is reported too: the difference also holds the producers'
share of appending events to the client's queue, but also whatever the rest
of the machine did meanwhile, so it is noisy.

Prints one line per round and the medians; exits 1 when the client plus the
daemon's share costs more than a tenth of top's CPU per refresh.
"""

import argparse
import os
import statistics
import subprocess
import sys
import time

SERVING_THREADS = ("BpfServiceTr", "BpfServiceDump")


def thread_cpu_ns(pid):
    """CPU nanoseconds per thread name of process pid (summed by name)."""
    totals = {}
    task_dir = f"/proc/{pid}/task"
    for tid in os.listdir(task_dir):
        try:
            with open(f"{task_dir}/{tid}/comm") as f:
                name = f.read().strip()
            with open(f"{task_dir}/{tid}/schedstat") as f:
                ns = int(f.read().split()[0])
        except OSError:
            continue
        totals[name] = totals.get(name, 0) + ns
    return totals


def run_cpu_seconds(argv):
    """Runs argv with output to /dev/null; (CPU seconds, wall seconds)."""
    start = time.monotonic()
    with open(os.devnull, "wb") as null:
        child = subprocess.Popen(argv, stdout=null, stderr=subprocess.PIPE)
        _, status, usage = os.wait4(child.pid, 0)
        err = child.stderr.read().decode(errors="replace")
        child.stderr.close()
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"{argv[0]} failed: {err}")
    return usage.ru_utime + usage.ru_stime, time.monotonic() - start


def wait_for(predicate, what, limit=60.0):
    deadline = time.monotonic() + limit
    while not predicate():
        if time.monotonic() > deadline:
            sys.exit(f"timed out waiting for {what}")
        time.sleep(0.05)


def catches(pid, signal_number):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("SigCgt:"):
                return (int(line.split()[1], 16) >> (signal_number - 1)) & 1 == 1
    return False


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--tools", required=True, help="directory holding kelobpfd and kelobpf-client")
    parser.add_argument("--sleepers", type=int, default=1000)
    parser.add_argument("--refreshes", type=int, default=10)
    parser.add_argument("--rounds", type=int, default=5)
    args = parser.parse_args()
    if os.environ.get("KELO_IN_SANDBOX") != "1":
        sys.exit("run inside scripts/sandbox.sh (scripts/run_top_bench.sh does)")

    sleepers = [subprocess.Popen(["sleep", "100000"]) for _ in range(args.sleepers)]
    log = open("/data/top_bench_daemon.log", "w+")
    daemon = subprocess.Popen([f"{args.tools}/kelobpfd", "--load"], stderr=log)
    try:
        def ready():
            log.seek(0)
            return "[kelobpfd] Ready" in log.read()

        wait_for(ready, "the daemon")
        wait_for(lambda: catches(daemon.pid, 51), "the daemon's dump handlers")
        processes = len([d for d in os.listdir("/proc") if d.isdigit()])
        print(f"processes on the machine: {processes} ({args.sleepers} sleepers), "
              f"{args.refreshes} refreshes per run, {args.rounds} rounds")

        n = str(args.refreshes)
        rows = []
        for round_number in range(args.rounds):
            top_cpu, _ = run_cpu_seconds(["top", "-b", "-d", "1", "-n", n])

            before = thread_cpu_ns(daemon.pid)
            client_cpu, wall = run_cpu_seconds(
                [f"{args.tools}/kelobpf-client", "top", "-b", "-d", "1", "-n", n])
            after = thread_cpu_ns(daemon.pid)
            serving = sum(after.get(t, 0) - before.get(t, 0) for t in SERVING_THREADS) / 1e9
            daemon_busy = (sum(after.values()) - sum(before.values())) / 1e9

            before = thread_cpu_ns(daemon.pid)
            time.sleep(wall)
            after = thread_cpu_ns(daemon.pid)
            daemon_idle = (sum(after.values()) - sum(before.values())) / 1e9

            per = 1000.0 / args.refreshes  # seconds per run -> ms per refresh
            row = {
                "top": top_cpu * per,
                "client": client_cpu * per,
                "serving": serving * per,
                "daemon_with_client": daemon_busy * per,
                "daemon_idle": daemon_idle * per,
            }
            row["ours"] = row["client"] + row["serving"]
            row["ratio"] = row["ours"] / row["top"] if row["top"] > 0 else float("inf")
            rows.append(row)
            print(f"round {round_number + 1}: top {row['top']:.2f} ms, kelobpf-client {row['client']:.3f} ms "
                  f"+ daemon serving {row['serving']:.3f} ms = {row['ours']:.3f} ms "
                  f"({row['ratio']:.3f}x); whole daemon {row['daemon_with_client']:.2f} ms with the client, "
                  f"{row['daemon_idle']:.2f} ms idle (CPU per refresh)", flush=True)

        median = {key: statistics.median(r[key] for r in rows) for key in rows[0]}
        print(f"median CPU per refresh: top {median['top']:.2f} ms; kelobpf-client top {median['client']:.3f} ms "
              f"+ daemon serving {median['serving']:.3f} ms = {median['ours']:.3f} ms, {median['ratio']:.3f}x of top "
              f"(goal <= 0.1x); whole daemon {median['daemon_with_client']:.2f} ms with the client, "
              f"{median['daemon_idle']:.2f} ms idle")
        return 0 if median["ratio"] <= 0.1 else 1
    finally:
        daemon.terminate()
        daemon.wait()
        for sleeper in sleepers:
            sleeper.kill()
        for sleeper in sleepers:
            sleeper.wait()


if __name__ == "__main__":
    sys.exit(main())
