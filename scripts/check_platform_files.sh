#!/usr/bin/env bash
# Checks the platform's build and start files kept beside the CMake build:
#  - Android.bp parses and is formatted as bpfmt (Debian's blueprint-tools)
#    formats it: `bpfmt -d` prints nothing;
#  - every source, data and init file it names exists (a glob matches at
#    least one file);
#  - TEST_MAPPING is valid JSON and names only cc_test modules of Android.bp.
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

python3 - <<'EOF'
import glob, json, re, sys

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
for p in problems:
    print("check_platform_files: " + p, file=sys.stderr)
sys.exit(1 if problems else 0)
EOF
echo "check_platform_files: Android.bp, TEST_MAPPING and tools/kelobpfd.rc are in order"
