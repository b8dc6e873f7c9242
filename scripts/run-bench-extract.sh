#!/bin/bash
# Metadata extraction through the mox-extract helper against the raw
# libraries, measured in one run (Release build, repetitions interleaved at
# random so that a busy machine weighs on every side alike):
#   - raw libexif / TagLib loops over a photo and an MP3 (the baseline);
#   - the extraction library in this process;
#   - one file per round trip through the helper (the device scanner's path);
#   - batches of 64 files per round trip (the media library's path).
# Prints per file the medians with [min-max] ranges of wall-clock time and of
# CPU time (this process and its helper: on a loaded machine the fairer
# figure), the ratios against the raw loop (goal: batches at most 1.3x) and
# the helper's added time per file against the library in-process (goal: at
# most 30 us), with the load average.
#   scripts/run-bench-extract.sh
# MOX_BENCH_ROUNDS (default 5) rounds of 3 repetitions each. With
# MOX_BENCH_EXTRACT_BEFORE set to the bench_extractor of another build, that
# one runs in every round too and its figures are printed as "before".
# Build directory: $MOX_BENCH_BUILD_DIR or build-bench.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_BENCH_BUILD_DIR:-$root/build-bench}
jobs=${MOX_BUILD_JOBS:-2}
rounds=${MOX_BENCH_ROUNDS:-5}
before=${MOX_BENCH_EXTRACT_BEFORE:-}

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
  -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target bench_extractor mox-extract >/dev/null

out=$(mktemp -d /tmp/mox-bench-extract.XXXXXX)
trap 'rm -rf "$out"' EXIT
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
for ((r = 0; r < rounds; r++)); do
  for side in after before; do
    bin="$build/bench/bench_extractor"
    if [ "$side" = before ]; then
      [ -n "$before" ] || continue
      bin=$before
    fi
    "$bin" --benchmark_repetitions=3 --benchmark_enable_random_interleaving=true --benchmark_min_time=0.2 \
      --benchmark_out="$out/$side-$r.json" --benchmark_out_format=json >/dev/null 2>&1
  done
done
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

/usr/bin/python3 - "$out" "$load_before" "$load_after" <<'PY'
import glob, json, os, statistics, sys
out, load_before, load_after = sys.argv[1:4]
def load(side):
    wall, cpu = {}, {}
    for path in sorted(glob.glob(os.path.join(out, side + "-*.json"))):
        for b in json.load(open(path))["benchmarks"]:
            if b.get("run_type") != "iteration" or b.get("error_occurred"):
                continue
            name = b["run_name"]
            # One iteration of a batch benchmark is a batch ("files"; builds
            # before the counter sent 16).
            files = b.get("files", 16) if name.endswith("Batch") else 1
            wall.setdefault(name, []).append(b["real_time"] / files)
            if "cpu_us" in b:
                cpu.setdefault(name, []).append(b["cpu_us"])
    return wall, cpu
def fmt(v):
    return "%.1f us [%.1f-%.1f]" % (statistics.median(v), min(v), max(v))
print("load average %s before, %s after" % (load_before, load_after))
for side in ("before", "after"):
    wall, cpu = load(side)
    if not wall:
        continue
    print("== %s: %d repetitions; per file, median [min-max]" % (side, len(next(iter(wall.values())))))
    for kind, lib in (("Photo", "libexif"), ("Mp3", "TagLib")):
        raw, library = "BM_%sRaw" % kind, "BM_%sLibrary" % kind
        for label, runs in (("wall", wall), ("cpu", cpu)):
            if raw not in runs or library not in runs:
                continue
            med = {k: statistics.median(v) for k, v in runs.items()}
            print("%s %s: raw %s %s, library in-process %s"
                  % (kind, label, lib, fmt(runs[raw]), fmt(runs[library])))
            for suffix, what in (("Helper", "one file per round trip"), ("HelperBatch", "batches as the library's")):
                name = "BM_%s%s" % (kind, suffix)
                if name in runs:
                    print("  helper, %s: %s -> %.2fx raw (goal <= 1.3x), added %.1f us per file (goal <= 30)"
                          % (what, fmt(runs[name]), med[name] / med[raw], med[name] - med[library]))
PY
