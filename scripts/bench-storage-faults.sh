#!/bin/bash
# Quick calls and SIGTERM while a stick hangs: runs test_storage_faults (the
# real daemon, a FUSE stick that hangs on demand, spool sticks pulled) a few
# times and prints, for each phase, the median and range of the slowest
# get_usb_storages round trip and its ratio to the idle baseline measured in
# the same run, then the time from SIGTERM to the daemon's end.
#   scripts/bench-storage-faults.sh [BUILD_DIR]   (default build-asan)
# MOX_BENCH_ROUNDS (default 5) sets the number of runs. Needs root and FUSE;
# runs through /tmp/privshm.sh when it exists (a private /dev/shm).
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$ROOT/build-asan}
rounds=${MOX_BENCH_ROUNDS:-5}
test_bin=$build/tests/mox-server/engine/src/test_storage_faults
[ -x "$test_bin" ] || { echo "no $test_bin: build the target test_storage_faults first" >&2; exit 2; }
wrap=()
[ -x /tmp/privshm.sh ] && wrap=(/tmp/privshm.sh)

out=$(mktemp /tmp/mox-bench-faults.XXXXXX)
trap 'rm -f "$out"' EXIT
for ((i = 0; i < rounds; i++)); do
  if ! "${wrap[@]}" "$test_bin" >"$out.run" 2>&1; then
    echo "run $i failed:" >&2
    grep -E "Failure|FAILED" -A3 "$out.run" >&2 || true
  fi
  grep -E "^(slowest quick call|SIGTERM to exit)" "$out.run" >>"$out" || true
  rm -f "$out.run"
done

/usr/bin/python3 - "$out" "$rounds" <<'PY'
import re, statistics, sys
samples = {}
for line in open(sys.argv[1]):
    m = re.match(r"slowest quick call, (.*): (-?\d+) ms", line) or re.match(r"(SIGTERM to exit): (-?\d+) ms", line)
    if m:
        samples.setdefault(m.group(1), []).append(int(m.group(2)))
idle = statistics.median(samples.get("idle", [1])) or 1
print(f"{sys.argv[2]} runs; quick call = slowest get_usb_storages of a phase; baseline idle {idle:.0f} ms")
for what, values in samples.items():
    med = statistics.median(values)
    ratio = "" if what == "SIGTERM to exit" else f"  x{med / idle:.1f} of idle"
    print(f"{what:28s} median {med:6.0f} ms  range {min(values)}-{max(values)} ms{ratio}")
PY
