#!/usr/bin/env bash
# Checks the platform's build and start files kept beside the CMake build:
#  - Android.bp parses and is formatted as bpfmt (Debian's blueprint-tools)
#    formats it: `bpfmt -d` prints nothing;
#  - every source, data and init file it names exists (a glob matches at
#    least one file);
#  - TEST_MAPPING is valid JSON and names only cc_test modules of Android.bp;
#  - each .cc file CMake compiles into the library, the daemon, the client
#    tool or the unit tests is in the srcs of the matching Android.bp module
#    (PLATFORM below), and each -D definition CMake gives it that the file or
#    its project headers use is in that module's cflags (by name: the values
#    are the device's). CMake's side comes from a configure-only run of this
#    tree (about a second), never from a possibly stale build directory.
# That the init fragment names the socket the service asks for is checked by
# the ControlSocketTest cases of the unit tests.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if ! command -v bpfmt >/dev/null; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends blueprint-tools
fi

if ! diff=$(bpfmt -d Android.bp 2>&1); then
  echo "check_platform_files: Android.bp does not parse:" >&2
  echo "$diff" >&2
  exit 1
fi
if [ -n "$diff" ]; then
  echo "check_platform_files: Android.bp is not bpfmt-formatted (fix with: bpfmt -w Android.bp):" >&2
  echo "$diff" >&2
  exit 1
fi

cmake_dir=$(mktemp -d)
trap 'rm -rf "$cmake_dir"' EXIT
if ! cmake -S . -B "$cmake_dir" -DKELO_BUILD_TESTS=ON -DKELO_BUILD_BENCH=OFF -DKELO_BUILD_FUZZ=OFF \
  >"$cmake_dir/configure.log" 2>&1; then
  echo "check_platform_files: cmake configure failed:" >&2
  cat "$cmake_dir/configure.log" >&2
  exit 1
fi

python3 - "$cmake_dir/compile_commands.json" <<'EOF'
import glob, json, os, re, sys

# The Android.bp module that builds what each CMake target compiles.
PLATFORM = {
    "libkelobpf": ["kelo_common", "kelo_state", "kelo_ipc", "kelo_attach", "kelo_service", "kelo_client"],
    "libkelobpf_loader": ["kelo_bpf_loader"],
    "kelobpfd": ["kelobpfd"],
    "kelobpf-client": ["kelobpf-client", "kelo_bpf_client_objects"],
    "kelobpf_unit_tests": ["common_tests", "state_tests", "ipc_tests", "attach_tests", "service_tests",
                           "kelo_test_support"],
}
# kelobpf only links the modules together (cmake/empty.cc); the loader tool
# and the end-to-end, client tool and BPF suites stay on the development host.
HOST_ONLY = {"kelobpf", "kelo_bpf_loader_tool", "e2e_tests", "client_tests", "bpf_tests"}
# Set by CMake's build type; on the platform by the build variant.
IGNORED_DEFINES = {"NDEBUG"}

bp = open("Android.bp").read()
problems = []
# Module type and name of every module, in order.
modules = re.findall(r'^(\w+) \{\n    name: "([^"]+)"', bp, flags=re.M)
for prop in ("srcs", "data", "init_rc"):
    for block in re.findall(r'^    %s: \[([^\]]*)\]' % prop, bp, flags=re.M):
        for path in re.findall(r'"([^"]+)"', block):
            if not path.startswith(":") and not glob.glob(path):
                problems.append("%s entry %s matches no file" % (prop, path))
tests = {name for kind, name in modules if kind == "cc_test"}
try:
    mapping = json.load(open("TEST_MAPPING"))
except ValueError as e:
    problems.append("TEST_MAPPING: %s" % e)
    mapping = {}
for group, entries in mapping.items():
    for entry in entries:
        if entry.get("name") not in tests:
            problems.append("TEST_MAPPING %s names %r, not a cc_test of Android.bp" % (group, entry.get("name")))

# The CMake side: files and -D names per target.
target_files, target_defines = {}, {}
for entry in json.load(open(sys.argv[1])):
    target = re.search(r'CMakeFiles/([^/ ]+)\.dir/', entry["command"]).group(1)
    target_files.setdefault(target, set()).add(os.path.relpath(entry["file"]))
    target_defines.setdefault(target, set()).update(re.findall(r'\s-D(\w+)', entry["command"]))

def bp_list(body, prop):
    block = re.search(r'^    %s: \[([^\]]*)\]' % prop, body, flags=re.M)
    return re.findall(r'"((?:[^"\\]|\\.)*)"', block.group(1)) if block else []

def with_headers(path, seen):
    """The text of path and of the project headers it includes, transitively."""
    if path in seen or not os.path.isfile(path):
        return ""
    seen.add(path)
    text = open(path).read()
    for name in re.findall(r'^#include "([^"]+)"', text, flags=re.M):
        beside = os.path.join(os.path.dirname(path), name)
        text += with_headers(beside if os.path.isfile(beside) else name, seen)
    return text

bodies = dict(re.findall(r'^\w+ \{\n    name: "([^"]+)",\n(.*?)^\}', bp, flags=re.M | re.S))
owner = {target: module for module, targets in PLATFORM.items() for target in targets}
for target in sorted((set(owner) | HOST_ONLY) - set(target_files)):
    problems.append("CMake has no target %s any more: update PLATFORM or HOST_ONLY of this check" % target)
for target in sorted(target_files):
    module = owner.get(target)
    if module is None:
        if target not in HOST_ONLY:
            problems.append("CMake target %s is in neither PLATFORM nor HOST_ONLY of this check" % target)
        continue
    if module not in bodies:
        problems.append("Android.bp has no module %s" % module)
        continue
    srcs = {f for p in bp_list(bodies[module], "srcs") if not p.startswith(":") for f in glob.glob(p)}
    for f in sorted(target_files[target] - srcs):
        problems.append("%s: srcs lack %s, which CMake compiles into %s" % (module, f, target))
    defined = {d for flag in bp_list(bodies[module], "cflags") for d in re.findall(r'^-D(\w+)', flag)}
    text = "".join(with_headers(f, set()) for f in sorted(target_files[target]))
    for name in sorted(target_defines[target] - defined - IGNORED_DEFINES):
        if re.search(r'\b%s\b' % name, text):
            problems.append("%s: cflags lack -D%s, which CMake gives %s and its sources use" % (module, name, target))
for p in problems:
    print("check_platform_files: " + p, file=sys.stderr)
sys.exit(1 if problems else 0)
EOF
echo "check_platform_files: Android.bp (against the CMake build), TEST_MAPPING and tools/kelobpfd.rc are in order"
