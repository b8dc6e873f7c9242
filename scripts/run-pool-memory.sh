#!/usr/bin/env bash
# Memory of the daemon under many distinct large list queries: each call is
# its own client connection, whose list is dropped when it leaves the bus, so
# only what the cache pool keeps can grow. Prints the daemon's RSS before and
# after N requests (default 3000) with a 64 KiB member each.
#   scripts/run-pool-memory.sh [BUILD_DIR] [N]
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
BUILD=${1:-build-release}
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
call() { gdbus call --system --dest com.orvia.mox.engine --object-path /com/orvia/mox/engine \
           --method "com.orvia.mox.engine.$1" "${@:2}" >/dev/null; }
call connect libmox_test_source.so
PAD=$(head -c 65536 /dev/zero | tr '\0' 'x')
before=$(rss)
for i in $(seq "$N"); do
  call get_partial_list 0 0 0 "{\"mox_command\":\"mox_requestlist\",\"mox_source\":[\"mox_test_source\"],\"n\":$i,\"pad\":\"$PAD\"}"
done
sleep 1
after=$(rss)
echo "requests: $N of 64 KiB; daemon RSS before: $((before / 1024)) MiB, after: $((after / 1024)) MiB"
