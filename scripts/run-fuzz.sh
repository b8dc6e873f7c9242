#!/bin/bash
# Builds the fuzz targets (shared-memory readers, media extraction) with clang (libFuzzer,
# ASan, UBSan) and runs each for the given number of seconds.
#   scripts/run-fuzz.sh [SECONDS_PER_TARGET]      (default 30)
# Build directory: $MOX_FUZZ_BUILD_DIR or build-fuzz. The corpus grows in
# <build>/fuzz-corpus/<target>; crashing inputs land in <build>/fuzz-artifacts.
# Exits non-zero when a target finds a crash, a leak or a timeout.
set -euo pipefail

seconds=${1:-30}
root=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_FUZZ_BUILD_DIR:-$root/build-fuzz}
jobs=${MOX_BUILD_JOBS:-2}

cmake -S "$root" -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMOX_SANITIZE=address -DMOX_BUILD_FUZZ=ON -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target fuzz_datablock_reader fuzz_resultlist_reader fuzz_extractor

# Objects of a target killed mid-input would otherwise stay in /dev/shm.
cleanup() { rm -f /dev/shm/mox_fuzz_block_* /dev/shm/mox_fuzz_list_* /dev/shm/mox_fuzz_blk_*; }
trap cleanup EXIT

status=0
for target in datablock_reader resultlist_reader extractor; do
  corpus=$build/fuzz-corpus/$target
  mkdir -p "$corpus" "$build/fuzz-artifacts"
  if [ "$target" = extractor ]; then
    "$root/fuzz/make_media_seeds.sh" "$corpus"
  else
    python3 "$root/fuzz/make_seeds.py" "$target" "$corpus"
  fi
  echo "== fuzz_$target for ${seconds}s"
  log=$build/fuzz-artifacts/$target.log
  if ! "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
       -print_final_stats=1 -artifact_prefix="$build/fuzz-artifacts/$target-" "$corpus" >"$log" 2>&1; then
    echo "fuzz_$target FOUND A PROBLEM:"
    tail -n 60 "$log"
    status=1
  fi
  grep -a -E '^(stat::number_of_executed_units|stat::peak_rss_mb)|^Done [0-9]+ runs' "$log" || true
done
exit $status
