#!/bin/bash
# The media library's performance, each figure against a baseline measured in
# the same run (Release build, private bus, spool USB service):
#   - first index of a generated tree (JPEG with EXIF, MP3 with ID3, short
#     MP4, a third each, in 100 folders): files per second against the raw
#     floor (bench_library_floor: walk, in-process libexif/TagLib/libavformat,
#     batched SQLite inserts);
#   - re-plug of the unchanged volume: time from the plug (the spool file
#     renamed into place) to the "ready" notification as printed by a
#     moxctl started and bound before the plug, both ends timed in one
#     process like the raw walk+stat of the tree it is compared with, which
#     runs in the indexer's scheduling class (SCHED_IDLE, so that other load
#     on the machine weighs on both sides alike; the walk at normal priority
#     is printed too), and the generation (unchanged = nothing extracted);
#     the re-plug of an empty volume, timed the same way, shows the part
#     that does not grow with the tree (the spool, the bus, moxctl); both
#     are also printed as timed by the shell before (which adds the mv and
#     date processes of the timing and moxctl's exit);
#   - get_usb_storages p99 while indexing against idle (probed right before
#     an index of its own, not the one timed for the first figure: the
#     indexer pauses for the list probe by design);
#   - the median of a 1,000-item local list (a folder beside the stick, a
#     new list each time: the local source walks it) while indexing against
#     idle, probed the same way;
#   - the daemon's RSS growth from before the first mount to the end of the
#     last index (MOX_BENCH_LIBRARY_FILES=100000 for the memory figure).
# The tree's files are hard links of three samples per folder (no disk for
# big trees); both sides read the same bytes.
# Medians and ranges of MOX_BENCH_ROUNDS runs (default 3).
#   scripts/run-bench-library.sh
# MOX_BENCH_LIBRARY_FILES (default 10000) sizes the tree; build directory
# $MOX_BENCH_BUILD_DIR (default build-bench); trees cached in
# /tmp/mox-bench-library.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_BENCH_BUILD_DIR:-$ROOT/build-bench}
files=${MOX_BENCH_LIBRARY_FILES:-10000}
rounds=${MOX_BENCH_ROUNDS:-3}
jobs=${MOX_BUILD_JOBS:-2}
py=/usr/bin/python3

cmake -S "$ROOT" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
  -DMOX_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" -j"$jobs" --target mox-engine mox-extract moxctl bench_library_floor mox_local_source >/dev/null

tree=/tmp/mox-bench-library/$files
if [ ! -f "$tree/.done" ]; then
  rm -rf "$tree" && mkdir -p "$tree/.samples"
  s=$tree/.samples
  convert -size 640x480 plasma:fractal "$s/p.jpg"
  exiftool -q -overwrite_original '-DateTimeOriginal=2022:07:08 09:10:11' -Model=Bench "$s/p.jpg"
  ffmpeg -v error -y -f lavfi -i sine=duration=3 -b:a 128k -metadata artist=Artist -metadata album=Album \
    -metadata title=Song -metadata track=1 "$s/s.mp3"
  ffmpeg -v error -y -f lavfi -i testsrc=size=320x240:rate=10 -t 1 -c:v mpeg4 "$s/v.mp4"
  # Each folder links its own copies of the samples: an inode stays far
  # below the file system's link limit, also after the copy below.
  "$py" - "$tree" "$files" <<'PY'
import os, shutil, sys
tree, files = sys.argv[1], int(sys.argv[2])
names = ("p.jpg", "s.mp3", "v.mp4")
for f in range(100):
    d = "%s/folder%d" % (tree, f)
    os.makedirs(d, exist_ok=True)
    for n in names:
        shutil.copy(os.path.join(tree, ".samples", n), os.path.join(d, "." + n))
for i in range(files):
    d = "%s/folder%d" % (tree, i % 100)
    n = names[i % 3]
    os.link(os.path.join(d, "." + n), os.path.join(d, "%s%d.%s" % (n[0], i, n.split(".")[1])))
for f in range(100):
    for n in names:
        os.remove("%s/folder%d/.%s" % (tree, f, n))
PY
  touch "$tree/.done"
fi

WORK=$(mktemp -d /tmp/mox-bench-library.XXXXXX)
# shellcheck source=lib/engine-env.sh
. "$ROOT/scripts/lib/engine-env.sh"
trap engine_env_cleanup EXIT
engine_env_start_bus
export MOX_LIBRARY_DIR=$WORK/library MOX_LOG_LEVEL=warning
mkdir -p "$WORK/usb/stick" "$WORK/usb/local" "$WORK/usb/empty"
cp -al "$tree"/folder* "$WORK/usb/stick/"
for i in $(seq 1000); do : >"$WORK/usb/local/n$i.txt"; done
ln -s "$build/plugins/local-source/libmox_local_source.so" "$WORK/plugins/"
"$build/mox-server/engine/src/mox-engine" &
ENGINE_PID=$!
engine_env_wait_for_name
moxctl() { "$build/client/moxctl" --timeout 600 "$@"; }

plug() {
  printf '{"devname":"/dev/sdz1","class":8,"mount_path":"%s","fs_type":2,"fs_uuid":"BENCH-1"}' \
    "$WORK/usb/stick" >"$WORK/spool/.s"
  mv "$WORK/spool/.s" "$WORK/spool/s.json"
}
unplug() { rm -f "$WORK/spool/s.json"; sleep 0.5; }
plug_empty() {
  printf '{"devname":"/dev/sdy1","class":8,"mount_path":"%s","fs_type":2,"fs_uuid":"BENCH-0"}' \
    "$WORK/usb/empty" >"$WORK/spool/.e"
  mv "$WORK/spool/.e" "$WORK/spool/e.json"
}
unplug_empty() { rm -f "$WORK/spool/e.json"; sleep 0.5; }
now() { date +%s.%N; }
rss() { awk '/VmRSS/ {print $2}' "/proc/$ENGINE_PID/status"; }
# get_usb_storages latencies (ms), one per line, for $1 seconds.
probe() {
  "$py" - "$1" <<'PY'
import sys, time
from gi.repository import Gio, GLib
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
end = time.monotonic() + float(sys.argv[1])
while time.monotonic() < end:
    t = time.monotonic()
    bus.call_sync("com.orvia.mox.engine", "/com/orvia/mox/engine", "com.orvia.mox.engine", "get_usb_storages",
                  GLib.Variant("(u)", (1,)), None, Gio.DBusCallFlags.NONE, 10000, None)
    print((time.monotonic() - t) * 1000.0)
    time.sleep(0.005)
PY
}
# 1,000-item local list round trips (ms: request to the answer's signal),
# one per line, for $1 seconds.
probe_list() {
  "$py" - "$1" "$WORK/usb/local" <<'PY'
import json, sys, time
from gi.repository import Gio, GLib
bus = Gio.bus_get_sync(Gio.BusType.SYSTEM, None)
N, P, I = "com.orvia.mox.engine", "/com/orvia/mox/engine", "com.orvia.mox.engine"
done = []
bus.signal_subscribe(N, I, "mox_request_normal_complete", P, None, Gio.DBusSignalFlags.NONE,
                     lambda *a: done.append(json.loads(a[5].unpack()[0])))
handle = bus.call_sync(N, P, I, "connect", GLib.Variant("(s)", ("libmox_local_source.so",)), None,
                       Gio.DBusCallFlags.NONE, 10000, None).unpack()[0]
def wait():
    while not done:
        GLib.MainContext.default().iteration(True)
    return done.pop(0)
end = time.monotonic() + float(sys.argv[1])
n = 0
while time.monotonic() < end:
    n += 1
    # A member the source ignores makes each list new (no cached answer).
    doc = json.dumps({"mox_command": "mox_requestlist", "mox_source": ["mox_local_source"],
                      "mox_folder_path": sys.argv[2], "bench_round": n})
    t = time.monotonic()
    bus.call(N, P, I, "get_partial_list", GLib.Variant("(uuus)", (handle, 0, 0, doc)), None,
             Gio.DBusCallFlags.NONE, 60000, None, None)
    ev = wait()
    ms = (time.monotonic() - t) * 1000.0
    name = ev.get("mox_result_list_block_name", "")
    if not name:
        sys.exit("local list failed: %s" % ev)
    print(ms)
    bus.call(N, P, I, "drop_partial_list", GLib.Variant("(us)", (handle, name)), None,
             Gio.DBusCallFlags.NONE, 60000, None, None)
    wait()
    time.sleep(0.005)
PY
}
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }
p99() { sort -n | awk '{a[NR]=$1} END {i=int(NR*0.99); if (i<1) i=1; print a[i]}'; }
stats() { sort -n | awk '{a[NR]=$1} END {printf "median %.3f (range %.3f-%.3f)", a[int((NR+1)/2)], a[1], a[NR]}'; }

# Seconds from the plug (the spool file of device $2 renamed into place) to
# the ready notification of the volume at $1 as received by a moxctl bound
# and waiting before the plug (--json prints each notification at once):
# both ends timed in one process, like the raw walk it is compared with,
# so neither the harness's own processes (mv, date) nor moxctl's exit count.
timed_plug_direct() {
  "$py" - "$1" "$WORK/spool" "$2" "$build/client/moxctl" <<'PY'
import json, os, subprocess, sys, time
mount, spool, dev, moxctl = sys.argv[1:5]
fs = {"stick": ("/dev/sdz1", "BENCH-1"), "empty": ("/dev/sdy1", "BENCH-0")}[os.path.basename(mount)]
tmp = os.path.join(spool, "." + dev)
with open(tmp, "w") as f:
    json.dump({"devname": fs[0], "class": 8, "mount_path": mount, "fs_type": 2, "fs_uuid": fs[1]}, f)
p = subprocess.Popen([moxctl, "--timeout", "600", "--json", "library", "wait", mount], stdout=subprocess.PIPE)
first = p.stdout.readline()  # bound, its status asked: waiting for notifications
time.sleep(0.5)
t0 = time.monotonic()
os.rename(tmp, os.path.join(spool, dev + ".json"))
for line in p.stdout:
    if json.loads(line).get("state") == "ready":
        print(time.monotonic() - t0)
        break
p.wait()
PY
}
# The same timed by the shell around `moxctl library wait` (the figure
# printed before the one above): it also counts the processes that time it
# and moxctl's exit.
timed_plug() {
  moxctl library wait "$1" >/dev/null &
  local wait_pid=$! t0
  sleep 0.5
  t0=$(now)
  "$2"
  wait "$wait_pid"
  echo "$(now) - $t0" | bc -l
}

rss_before=$(rss)
: >"$WORK/idle"; : >"$WORK/list-idle"; : >"$WORK/list-busy"; : >"$WORK/first" ; : >"$WORK/replug"; : >"$WORK/floor"; : >"$WORK/walk"; : >"$WORK/walk-normal"; : >"$WORK/busy"; : >"$WORK/empty"; : >"$WORK/replug-shell"; : >"$WORK/empty-shell"
for ((r = 0; r < rounds; r++)); do
  unplug
  rm -f "$MOX_LIBRARY_DIR"/*.db*
  # Idle right before each index: the machine's other load drifts less
  # between the two samples.
  # Both probes at once, idle as while indexing: each one's load weighs on
  # the other alike.
  probe 2 >>"$WORK/idle" &
  idle_pid=$!
  probe_list 2 >>"$WORK/list-idle" &
  wait "$idle_pid" "$!"
  plug
  probe 4 >>"$WORK/busy" &
  probe_pid=$!
  probe_list 4 >>"$WORK/list-busy" &
  list_pid=$!
  moxctl library wait "$WORK/usb/stick" >/dev/null
  wait "$probe_pid" "$list_pid"
  # The throughput on an index of its own: the indexer yields to the list
  # probe above by design, which is not what the floor is measured with.
  unplug
  rm -f "$MOX_LIBRARY_DIR"/*.db*
  t0=$(now); plug
  moxctl library wait "$WORK/usb/stick" >/dev/null
  t1=$(now)
  echo "$files / ($t1 - $t0)" | bc -l >>"$WORK/first"
  gen=$(moxctl --json library status "$WORK/usb/stick" | "$py" -c 'import json,sys; print(json.load(sys.stdin)["generation"])')
  unplug
  timed_plug_direct "$WORK/usb/stick" s >>"$WORK/replug"
  unplug
  timed_plug "$WORK/usb/stick" plug >>"$WORK/replug-shell"
  gen2=$(moxctl --json library status "$WORK/usb/stick" | "$py" -c 'import json,sys; print(json.load(sys.stdin)["generation"])')
  [ "$gen" = "$gen2" ] || echo "re-plug changed the generation ($gen -> $gen2): files were extracted again" >&2
  plug_empty
  moxctl library wait "$WORK/usb/empty" >/dev/null
  unplug_empty
  timed_plug_direct "$WORK/usb/empty" e >>"$WORK/empty"
  unplug_empty
  timed_plug "$WORK/usb/empty" plug_empty >>"$WORK/empty-shell"
  unplug_empty
  read -r n s < <("$build/bench/bench_library_floor" "$tree" "$WORK/floor.db")
  echo "$n / $s" | bc -l >>"$WORK/floor"
  read -r n s < <(chrt -i 0 "$build/bench/bench_library_floor" "$tree" "$WORK/floor.db" --walk-only)
  echo "$s" >>"$WORK/walk"
  read -r n s < <("$build/bench/bench_library_floor" "$tree" "$WORK/floor.db" --walk-only)
  echo "$s" >>"$WORK/walk-normal"
done
rss_after=$(rss)
first=$(sort -n "$WORK/first" | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
floor=$(sort -n "$WORK/floor" | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
replug=$(sort -n "$WORK/replug" | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
walk=$(sort -n "$WORK/walk" | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
busy_p99=$(p99 <"$WORK/busy")
idle_p99=$(p99 <"$WORK/idle")
echo "first index of $files files: $(stats <"$WORK/first") files/s"
echo "  raw floor: $(stats <"$WORK/floor") files/s -> $(echo "$first / $floor" | bc -l | cut -c1-5)x the floor (goal >= 0.5)"
replug_shell=$(median <"$WORK/replug-shell")
echo "re-plug unchanged: $(stats <"$WORK/replug") s from the plug to the ready notification received by moxctl"
echo "  raw walk+stat (SCHED_IDLE): $(stats <"$WORK/walk") s -> $(echo "$replug / $walk" | bc -l | cut -c1-6)x (goal <= 1.5)"
echo "  raw walk+stat (normal priority): $(stats <"$WORK/walk-normal") s"
echo "  re-plug of an empty volume: $(stats <"$WORK/empty") s (the part that does not grow with the tree)"
echo "  timed by the shell (mv, date and moxctl's exit included): unchanged $(stats <"$WORK/replug-shell") s" \
  "-> $(echo "$replug_shell / $walk" | bc -l | cut -c1-6)x, empty $(stats <"$WORK/empty-shell") s"
echo "get_usb_storages p99: idle $idle_p99 ms, while indexing $busy_p99 ms -> $(echo "$busy_p99 / $idle_p99" | bc -l | cut -c1-5)x (goal <= 2)"
list_idle=$(median <"$WORK/list-idle")
list_busy=$(median <"$WORK/list-busy")
echo "1,000-item local list median: idle $list_idle ms ($(wc -l <"$WORK/list-idle") lists), while indexing" \
  "$list_busy ms ($(wc -l <"$WORK/list-busy") lists) -> $(echo "$list_busy / $list_idle" | bc -l | cut -c1-5)x (goal <= 1.5)"
echo "daemon RSS: $rss_before KiB before, $rss_after KiB after $((2 * rounds)) indexes of $files files" \
  "(+$((rss_after - rss_before)) KiB)"
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
