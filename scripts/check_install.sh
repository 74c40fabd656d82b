#!/usr/bin/env bash
# Checks the install tree the way a user meets it:
#  1. installs a build into a temporary prefix (cmake --install --prefix) and
#     checks the layout: tools, libkelobpf.so with its SONAME and version
#     links, headers, BPF objects, pkg-config file, CMake package, unit,
#     manual pages (rendered without warnings, every option of --help in them);
#  2. compiles every installed header on its own, as <kelobpf/...>;
#  3. builds the example subscriber (examples/subscriber) against the prefix
#     twice, with its CMake package and with pkg-config, and runs --help of
#     each build;
#  4. in the sandbox (scripts/sandbox.sh: private bpffs, /data and socket
#     names), runs the installed kelobpfd --load, which must find the BPF
#     objects in <prefix>/share/kelobpf, and both examples against it: each
#     must be answered and see processes start; then stops the daemon, which
#     must end with 0 and remove its pid file;
#  5. verifies the systemd unit with systemd-analyze (verify, and the offline
#     security exposure at most KELO_UNIT_MAX_EXPOSURE); skipped with the
#     reason printed when systemd-analyze cannot run here.
#
# Usage: scripts/check_install.sh [BUILD_DIR]
# BUILD_DIR defaults to build/test-gcc (the gcc preset; configured when
# missing). Only the installed targets are built. Needs root for step 4.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

fail() {
  echo "check_install: FAILED: $*" >&2
  exit 1
}

# Waits up to $2 seconds for file $1 to contain the fixed string $3.
wait_for_text() {
  local deadline=$((SECONDS + $2))
  until grep -qF -- "$3" "$1" 2>/dev/null; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}

# ---------------------------------------------------------------------------
# Step 4, inside the sandbox: check_install.sh --inside PREFIX WORK EXAMPLE...
# ---------------------------------------------------------------------------
if [ "${1:-}" = "--inside" ]; then
  prefix=$2
  work=$3
  shift 3
  daemon_log=$work/daemon.log
  pidfile=/data/kelobpfd.pid
  "$prefix/bin/kelobpfd" --load --pidfile "$pidfile" 2>"$daemon_log" &
  daemon=$!
  wait_for_text "$daemon_log" 60 "[kelobpfd] Ready" || fail "installed kelobpfd did not get ready: $(cat "$daemon_log")"
  grep -qF "from $prefix/bin/../share/kelobpf under" "$daemon_log" ||
    fail "installed kelobpfd did not load $prefix/share/kelobpf: $(grep -F Pinned "$daemon_log")"
  [ "$(cat "$pidfile")" = "$daemon" ] || fail "pid file $pidfile does not hold $daemon"

  n=0
  for example in "$@"; do
    n=$((n + 1))
    out=$work/example-$n.out
    "$example" 4 >"$out" 2>"$work/example-$n.err" &
    example_pid=$!
    wait_for_text "$out" 20 "subscribed 50001: 0" || fail "$example was not answered: $(cat "$out" "$work/example-$n.err")"
    # Processes to report; the kernel side may still be switching on.
    for _ in $(seq 50); do
      /bin/true
      grep -q "^started pid=" "$out" && break
      sleep 0.1
    done
    grep -q "^started pid=" "$out" || fail "$example saw no process start: $(cat "$out")"
    wait "$example_pid" || fail "$example ended with $?"
    echo "    $example: $(grep -c '^started' "$out") starts, $(grep -c '^ended' "$out") exits"
  done

  kill -TERM "$daemon"
  status=0
  wait "$daemon" || status=$?
  [ "$status" -eq 0 ] || fail "kelobpfd ended with $status: $(tail -5 "$daemon_log")"
  [ ! -e "$pidfile" ] || fail "kelobpfd left its pid file behind"
  exit 0
fi

# ---------------------------------------------------------------------------
# Outside: build, install, layout, headers, examples, unit.
# ---------------------------------------------------------------------------
cd "$root"
build=${1:-build/test-gcc}
jobs=${KELO_JOBS:-$(nproc)}
if [ ! -f "$build/CMakeCache.txt" ]; then
  [ "$build" = build/test-gcc ] || fail "$build is not a configured build directory"
  cmake --preset gcc >/dev/null
fi
echo "=== install: build the installed targets in $build"
cmake --build "$build" -j"$jobs" --target kelobpfd kelobpf-client kelo_bpf_loader_tool kelo_bpf_programs kelo_man_pages >/dev/null

work=$(mktemp -d /tmp/kelobpf-install.XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
echo "=== install: cmake --install $build --prefix $prefix"
cmake --install "$build" --prefix "$prefix" >/dev/null

# 1. Layout.
pc=$(find "$prefix" -name kelobpf.pc)
[ -n "$pc" ] || fail "no kelobpf.pc"
libdir=$(cd "$(dirname "$pc")/.." && pwd)
version=$(sed -n 's/^Version: //p' "$pc")
major=${version%%.*}
for f in bin/kelobpfd bin/kelobpf-client bin/kelo_bpf_loader \
  include/kelobpf/kelo_bpf_client_lib.h include/kelobpf/kelo_bpf_protocol.h include/kelobpf/kelo_bpf_events.h \
  share/kelobpf/kelo_bpf_normal.bpf.o share/kelobpf/kelo_bpf_gpl.bpf.o lib/systemd/system/kelobpfd.service; do
  [ -e "$prefix/$f" ] || fail "$f is not installed"
done
for f in kelobpfConfig.cmake kelobpfConfigVersion.cmake kelobpfTargets.cmake; do
  [ -e "$libdir/cmake/kelobpf/$f" ] || fail "$libdir/cmake/kelobpf/$f is not installed"
done
[ "$(readlink "$libdir/libkelobpf.so")" = "libkelobpf.so.$major" ] || fail "libkelobpf.so does not link to .so.$major"
[ "$(readlink "$libdir/libkelobpf.so.$major")" = "libkelobpf.so.$version" ] ||
  fail "libkelobpf.so.$major does not link to .so.$version"
soname=$(readelf -d "$libdir/libkelobpf.so.$version" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
[ "$soname" = "libkelobpf.so.$major" ] || fail "SONAME is '$soname'"
[ "$("$prefix/bin/kelobpfd" --version)" = "kelobpfd $version" ] || fail "kelobpfd --version"
echo "    layout ok: libkelobpf.so -> .so.$major -> .so.$version, kelobpfd $version"

# 1b. Manual pages: each renders without a warning and lists every long
# option that the tool's --help (or a subcommand's) shows.
for tool in kelobpfd kelobpf-client kelo_bpf_loader; do
  page=$prefix/share/man/man1/$tool.1
  [ -e "$page" ] || fail "share/man/man1/$tool.1 is not installed"
  warnings=$(groff -man -ww -z "$page" 2>&1) || fail "$tool.1 does not render: $warnings"
  [ -z "$warnings" ] || fail "$tool.1 renders with warnings: $warnings"
  text=$(MANWIDTH=200 man -l "$page" 2>/dev/null | col -b)
  helps=$("$prefix/bin/$tool" --help)
  if [ "$tool" = kelobpf-client ]; then
    for sub in watch top dump stats export; do helps+=$'\n'$("$prefix/bin/$tool" "$sub" --help); done
  fi
  for option in $(grep -o -E -- '--[a-z][a-z-]+' <<<"$helps" | sort -u); do
    grep -qF -- "$option" <<<"$text" || fail "$tool.1 does not mention $option"
  done
done
echo "    manual pages ok: kelobpfd.1 kelobpf-client.1 kelo_bpf_loader.1"

# 2. Every header on its own, with the installed include path only.
for h in "$prefix"/include/kelobpf/*.h; do
  echo "#include <kelobpf/$(basename "$h")>" |
    c++ -std=c++17 -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" -x c++ - ||
    fail "$(basename "$h") does not compile on its own"
done
echo '#include <kelobpf/kelo_bpf_events.h>' |
  cc -std=c11 -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" -x c - ||
  fail "kelo_bpf_events.h does not compile as C"
echo "    headers ok: $(cd "$prefix/include/kelobpf" && echo *.h)"

# 3. The example, both ways.
echo "=== install: example subscriber with find_package(kelobpf)"
cmake -S examples/subscriber -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" \
  -DCMAKE_CXX_FLAGS="-Wall -Wextra -Werror" >/dev/null
cmake --build "$work/cmake" >/dev/null
echo "=== install: example subscriber with pkg-config"
mkdir -p "$work/pkgconfig"
PKG_CONFIG_PATH=$(dirname "$pc") make -s -C "$work/pkgconfig" -f "$root/examples/subscriber/Makefile" \
  CXXFLAGS="-O2 -Wall -Wextra -Werror"
examples=("$work/cmake/kelobpf-subscriber" "$work/pkgconfig/kelobpf-subscriber")
for example in "${examples[@]}"; do
  "$example" --help | grep -q "^usage: kelobpf-subscriber" || fail "$example --help"
  readelf -d "$example" | grep -qF "[libkelobpf.so.$major]" || fail "$example does not need libkelobpf.so.$major"
done
echo "    both examples build, link libkelobpf.so.$major and start"

# 4. The installed daemon and the examples for real.
echo "=== install: installed kelobpfd --load and both examples, in the sandbox"
[ "$(id -u)" -eq 0 ] || fail "the run in the sandbox needs root"
bash scripts/sandbox.sh bash "$root/scripts/check_install.sh" --inside "$prefix" "$work" "${examples[@]}"

# 5. The systemd unit.
unit=$prefix/lib/systemd/system/kelobpfd.service
grep -qxF "ExecStart=$prefix/bin/kelobpfd --load --pidfile /run/kelobpfd/kelobpfd.pid" "$unit" ||
  fail "the unit does not start $prefix/bin/kelobpfd"
max_exposure=${KELO_UNIT_MAX_EXPOSURE:-3.0}
probe=$work/kelobpf-probe.service
printf '[Service]\nExecStart=/bin/true\n' >"$probe"
if ! command -v systemd-analyze >/dev/null; then
  echo "=== install: systemd unit check SKIPPED: systemd-analyze is not installed"
elif ! probe_out=$(systemd-analyze verify "$probe" 2>&1) || [ -n "$probe_out" ]; then
  echo "=== install: systemd unit check SKIPPED: systemd-analyze cannot verify units here: $probe_out"
else
  echo "=== install: systemd-analyze verify kelobpfd.service"
  # verify reports some mistakes (an unknown value) only as a warning.
  out=$(systemd-analyze verify "$unit" 2>&1) || fail "systemd-analyze verify: $out"
  [ -z "$out" ] || fail "systemd-analyze verify: $out"
  exposure=$(systemd-analyze security --offline=yes --no-pager "$unit" 2>&1 |
    sed -n 's/.*Overall exposure level for kelobpfd.service: \([0-9.]*\).*/\1/p')
  [ -n "$exposure" ] || fail "systemd-analyze security gave no exposure level"
  awk -v e="$exposure" -v m="$max_exposure" 'BEGIN { exit !(e <= m) }' ||
    fail "unit exposure $exposure is above $max_exposure"
  echo "    unit ok, exposure $exposure (at most $max_exposure)"
fi
echo "=== install: all checks passed"
