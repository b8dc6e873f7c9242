#!/bin/bash
# Release build of the daemon, the local source and bench_requests; runs them
# on a private bus and prints each request figure next to its baseline
# measured in the same run (ratios). Build directory: $MOX_BENCH_BUILD_DIR or
# build-bench. MOX_BENCH_BUSY=N runs N busy loops for the whole run (a loaded
# machine: the cached list's p99/median is read there); MOX_BENCH_LIST_ROUNDS
# sets the cached list's rounds (default 3000).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
build=${MOX_BENCH_BUILD_DIR:-$ROOT/build-bench}
jobs=${MOX_BUILD_JOBS:-2}

cmake -S "$ROOT" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
  -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target mox-engine mox_local_source bench_requests

WORK=$(mktemp -d /tmp/mox-bench.XXXXXX)
. scripts/lib/engine-env.sh
BUSY_PIDS=()
trap 'for p in "${BUSY_PIDS[@]}"; do kill "$p" 2>/dev/null; done; engine_env_cleanup' EXIT
engine_env_start_bus
# Info lines stay on: the coalescing figure counts the source calls in the log.
export MOX_LOG_LEVEL=info
ln -s "$build/plugins/local-source/libmox_local_source.so" "$WORK/plugins/"
"$build/mox-server/engine/src/mox-engine" &
ENGINE_PID=$!
engine_env_wait_for_name
for _ in $(seq "${MOX_BENCH_BUSY:-0}"); do
  sh -c 'while :; do :; done' &
  BUSY_PIDS+=($!)
done
echo "busy loops: ${MOX_BENCH_BUSY:-0}; load average at start: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bench/bench_requests" "$MOX_USB_ROOT" "$WORK/engine.log"
echo "load average at end: $(cut -d' ' -f1-3 /proc/loadavg)"
for p in "${BUSY_PIDS[@]}"; do kill "$p"; done
BUSY_PIDS=()
kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID"
ENGINE_PID=""
