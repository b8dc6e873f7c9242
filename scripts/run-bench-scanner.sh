#!/bin/bash
# Release build of the scanner benchmark, then one run with the walk's
# per-entry log lines filtered out (MOX_LOG_LEVEL=warning) and one with them
# written (debug, to a file), and the ratios of the device check against a
# raw breadth-first readdir loop and against `find -type f` on the same tree.
#   scripts/run-bench-scanner.sh
# Build directory: $MOX_BENCH_BUILD_DIR or build-bench; trees under
# $MOX_BENCH_TREE_DIR (default /tmp/mox-bench-scanner, made on first run).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_BENCH_BUILD_DIR:-$root/build-bench}
jobs=${MOX_BUILD_JOBS:-2}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
  -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target bench_scanner

# Warm the cache (and make the trees) before measuring.
MOX_LOG_LEVEL=warning "$build/bench/bench_scanner" --benchmark_filter=RawBfs --benchmark_min_time=0.01 >/dev/null
MOX_LOG_LEVEL=warning "$build/bench/bench_scanner" --benchmark_repetitions=3 \
  --benchmark_out="$build/bench_scanner.json" --benchmark_out_format=json
log=$(mktemp)
MOX_LOG_LEVEL=debug MOX_LOG="file:$log" "$build/bench/bench_scanner" --benchmark_filter=DeviceCheck \
  --benchmark_repetitions=3 --benchmark_out="$build/bench_scanner_debug.json" --benchmark_out_format=json >/dev/null
rm -f "$log"

python3 - "$build/bench_scanner.json" "$build/bench_scanner_debug.json" <<'PY'
import json, sys
def medians(path):
    out = {}
    for b in json.load(open(path))["benchmarks"]:
        if b.get("aggregate_name") == "median":
            out[b["run_name"].split("/")[0]] = b
    return out
m = medians(sys.argv[1])
dbg = medians(sys.argv[2])
check, raw, find = (m[k]["real_time"] for k in ("BM_DeviceCheck", "BM_RawBfsReaddir", "BM_FindTypeF"))
print("device check of 100,000 files in 2,000 folders: %.1f ms" % check)
print("  raw BFS readdir loop %.1f ms -> device check runs at %.2fx the raw loop's speed" % (raw, raw / check))
print("  find -type f %.1f ms -> device check is %.2fx as fast as find" % (find, find / check))
if "BM_DeviceCheck" in dbg:
    d = dbg["BM_DeviceCheck"]["real_time"]
    print("  with per-entry log lines written: %.1f ms (%.2f us per entry more than filtered)"
          % (d, (d - check) * 1000.0 / 102000))
t = m["BM_FolderThumbnail"]
print("folder thumbnails, 100,000-file folder, limit 4: %.1f us, %d entries read"
      % (t["real_time"], t["entries_read"]))
PY
