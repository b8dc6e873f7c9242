#!/bin/bash
# Release build of the benchmarks, then runs them and prints the speed-up of
# the keyed list sort over the per-comparison predicate and its cost relative
# to a plain sort of keys extracted beforehand (goal: within 2x).
#   scripts/run-bench.sh [extra Google Benchmark arguments]
# (--benchmark_repetitions=5 gives ratios of medians on a busy machine)
# Build directory: $MOX_BENCH_BUILD_DIR or build-bench. JSON results are kept
# in <build>/bench-*.json.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_BENCH_BUILD_DIR:-$root/build-bench}
jobs=${MOX_BUILD_JOBS:-2}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
  -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target bench_shm_data bench_cache_pool bench_log bench_extractor

# Objects of a benchmark killed mid-run would otherwise stay in /dev/shm.
before=$(ls /dev/shm | grep -E '^mox_(datablock|resultlist)_' | sort || true)
for bench in bench_shm_data bench_cache_pool bench_log; do
  "$build/bench/$bench" --benchmark_out="$build/$bench.json" --benchmark_out_format=json "$@"
done

python3 - "$build/bench_shm_data.json" <<'PY'
import json, sys
# With --benchmark_repetitions the medians are used, else the single run.
runs = {}
for b in json.load(open(sys.argv[1]))["benchmarks"]:
    name = b.get("run_name", b["name"])
    if b.get("run_type", "iteration") == "iteration":
        runs.setdefault(name, b)
    elif b.get("aggregate_name") == "median":
        runs[name] = b
for arg, key in (("0", "FileName"), ("1", "FileSize")):
    slow = [v for n, v in runs.items() if n.startswith("BM_SortPredicate/" + arg)]
    fast = [v for n, v in runs.items() if n.startswith("BM_SortKeyed/" + arg)]
    plain = [v for n, v in runs.items() if n.startswith("BM_SortPlain/" + arg)]
    read = [v for n, v in runs.items() if n.startswith("BM_SortKeyRead/" + arg)]
    if slow and fast:
        s, f = slow[0]["real_time"], fast[0]["real_time"]
        print("sort 10000 items by %s: predicate %.2f %s, keyed %.2f %s, speed-up %.1fx"
              % (key, s, slow[0]["time_unit"], f, fast[0]["time_unit"], s / f))
    if fast and plain:
        f, p = fast[0]["real_time"], plain[0]["real_time"]
        print("sort 10000 items by %s: keyed %.2f %s vs plain sort of extracted keys %.2f %s: %.2fx"
              % (key, f, fast[0]["time_unit"], p, plain[0]["time_unit"], f / p))
    if read and plain:
        print("sort 10000 items by %s: reading the keys %.2f %s, %.2fx the plain sort"
              % (key, read[0]["real_time"], read[0]["time_unit"], read[0]["real_time"] / plain[0]["real_time"]))
PY
# Extraction: medians of repeated runs; library against the raw loops, and
# the time the helper round trip adds per file.
"$build/bench/bench_extractor" --benchmark_repetitions=9 --benchmark_report_aggregates_only=true \
  --benchmark_out="$build/bench_extractor.json" --benchmark_out_format=json "$@"
python3 - "$build/bench_extractor.json" <<'PY'
import json, sys
med = {b["run_name"]: b for b in json.load(open(sys.argv[1]))["benchmarks"] if b.get("aggregate_name") == "median"}
for kind in ("Photo", "Mp3"):
    raw, lib, helper = (med.get("BM_%s%s" % (kind, x)) for x in ("Raw", "Library", "Helper"))
    if raw and lib:
        print("%s extraction: library %.1f us, raw loop %.1f us, ratio %.2fx (goal <= 1.3x)"
              % (kind, lib["real_time"], raw["real_time"], lib["real_time"] / raw["real_time"]))
    if lib and helper:
        print("%s through the helper: %.1f us, added per file %.1f us (goal <= 100 us)"
              % (kind, helper["real_time"], helper["real_time"] - lib["real_time"]))
PY
after=$(ls /dev/shm | grep -E '^mox_(datablock|resultlist)_' | sort || true)
if [ "$before" != "$after" ]; then
  echo "warning: shared-memory objects changed during the run:" >&2
  comm -13 <(echo "$before") <(echo "$after") >&2
fi
