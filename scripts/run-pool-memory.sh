#!/usr/bin/env bash
# Memory of the daemon under many distinct large list queries: one client
# lists N documents (default 3000) with a 64 KiB member each and drops every
# list, so only what the engine keeps of dropped lists can grow. Prints the
# daemon's RSS before and after. Under ASan, run with
# ASAN_OPTIONS=quarantine_size_mb=0 so that freed memory is not counted.
#   scripts/run-pool-memory.sh [BUILD_DIR] [N]
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD=$(cd "${1:-build-release}" && pwd)
N=${2:-3000}
WORK=$(mktemp -d /tmp/mox-pool-mem.XXXXXX)
. scripts/lib/engine-env.sh
trap engine_env_cleanup EXIT
engine_env_start_bus
export MOX_LOG_LEVEL=warning
ln -s "$(find "$BUILD" -name libmox_test_source.so | head -1)" "$MOX_PLUGIN_DIR/libmox_test_source.so"
"$BUILD/mox-server/engine/src/mox-engine" 2>"$WORK/engine.err" &
ENGINE_PID=$!
engine_env_wait_for_name
rss() { awk '/VmRSS/ {print $2}' "/proc/$ENGINE_PID/status"; }
before=$(rss)
/usr/bin/python3 "$ROOT/scripts/pool_memory_client.py" "$N"
sleep 1
after=$(rss)
echo "requests: $N of 64 KiB; daemon RSS before: $((before / 1024)) MiB, after: $((after / 1024)) MiB"
