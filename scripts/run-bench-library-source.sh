#!/bin/bash
# The library source's performance (Release build, private bus, spool USB
# service), each figure against a baseline measured in the same run:
#   - the 10,000 photos of a volume by DateTaken over the bus (call, signal,
#     map, read every item, drop; a new query each round, so the source and
#     SQLite answer every time) against a raw SQLite query of the same rows
#     and columns plus the engine's hand-over of the same answer (the same
#     list asked again, served from the engine's cache) (goal: at most
#     1.5x); also against the raw query plus a raw shared-memory write and
#     read of the answer's bytes, and the cached 1,000-item local list round
#     trip scaled to 10,000;
#   - searches over a volume of 100,000 items: median and p99 (goal: median
#     at most 20 ms end to end);
#   - the "albums" view of 10,000 tracks: median.
# Generating real media for 100,000 files would take hours: the trees hold
# empty files, and their index files are written before the daemon starts by
# the library's own code (CMOXLibraryDb, through bench_library_source
# make-db) with each file's real size and time and made-up tags, so the
# daemon's walk at the mount finds nothing to extract. What is measured is
# the source reading real index files.
#   scripts/run-bench-library-source.sh
# MOX_BENCH_ROUNDS (default 15); build directory $MOX_BENCH_BUILD_DIR
# (default build-bench); trees cached in /tmp/mox-bench-library-source.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_BENCH_BUILD_DIR:-$ROOT/build-bench}
rounds=${MOX_BENCH_ROUNDS:-15}
jobs=${MOX_BUILD_JOBS:-2}
py=/usr/bin/python3

cmake -S "$ROOT" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
  -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target mox-engine mox-extract moxctl mox_local_source mox_library_source \
  bench_library_source >/dev/null

trees=/tmp/mox-bench-library-source
if [ ! -f "$trees/.done" ]; then
  rm -rf "$trees" && mkdir -p "$trees"
  "$py" - "$trees" <<'PY'
import os, sys
root = sys.argv[1]
def make(name, count, folders, ext):
    for i in range(count):
        d = "%s/%s/f%03d" % (root, name, i % folders)
        os.makedirs(d, exist_ok=True)
        open("%s/%s%06d.%s" % (d, ext[0], i, ext), "w").close()
make("p", 10000, 100, "jpg")
make("s", 100000, 1000, "mp3")
make("m", 10000, 100, "mp3")
os.makedirs(root + "/p/local", exist_ok=True)
for i in range(1000):
    open("%s/p/local/n%04d.txt" % (root, i), "w").close()
PY
  touch "$trees/.done"
fi

WORK=$(mktemp -d /tmp/mox-bench-library-source.XXXXXX)
# shellcheck source=lib/engine-env.sh
. "$ROOT/scripts/lib/engine-env.sh"
trap engine_env_cleanup EXIT
engine_env_start_bus
export MOX_LOG_LEVEL=warning
ln -s "$build/plugins/local-source/libmox_local_source.so" "$WORK/plugins/"
ln -s "$build/plugins/library-source/libmox_library_source.so" "$WORK/plugins/"
for s in p s m; do
  cp -a "$trees/$s" "$WORK/usb/$s"
  "$build/bench/bench_library_source" make-db "$MOX_LIBRARY_DIR/uuid-bench-$s.db" "uuid-bench-$s" "$WORK/usb/$s"
done
"$build/mox-server/engine/src/mox-engine" &
ENGINE_PID=$!
engine_env_wait_for_name
for s in p s m; do
  printf '{"devname":"/dev/sd%s1","class":8,"mount_path":"%s","fs_type":2,"fs_uuid":"BENCH-%s"}' \
    "$s" "$WORK/usb/$s" "$s" >"$WORK/spool/.$s"
  mv "$WORK/spool/.$s" "$WORK/spool/$s.json"
done
for s in p s m; do "$build/client/moxctl" --timeout 600 library wait "$WORK/usb/$s" >/dev/null; done
"$build/client/moxctl" library status
echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"
"$build/bench/bench_library_source" run "$rounds" "$WORK/usb/p" "$MOX_LIBRARY_DIR/uuid-bench-p.db" \
  "$WORK/usb/s" "$WORK/usb/m" "$WORK/usb/p/local"
kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID" || true
ENGINE_PID=""
