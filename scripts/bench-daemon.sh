#!/bin/bash
# Daemon-level benchmark: mox-engine and a raw GDBus echo service (bench_bus)
# on one private system bus, with three simulated USB devices (spool backend).
# Prints, per method and log level, the daemon's cost relative to the echo's:
#   - latency: median time of one call, calls to both alternating;
#   - instructions per call (callgrind, counters zeroed after a warm-up).
#   scripts/bench-daemon.sh
# Build directory: $MOX_BENCH_BUILD_DIR or build-bench (Release). Set
# MOX_BENCH_NO_BUILD=1 to use the binaries already there; MOX_BENCH_CG_DIR=DIR
# keeps the callgrind dumps (for callgrind_annotate). Needs valgrind.
set -euo pipefail

ROOT=$(cd "$(dirname "$0")/.." && pwd)
build=${MOX_BENCH_BUILD_DIR:-$ROOT/build-bench}
jobs=${MOX_BUILD_JOBS:-2}
calls=${MOX_BENCH_CALLS:-200}
rounds=${MOX_BENCH_ROUNDS:-15}
cg_calls=${MOX_BENCH_CG_CALLS:-100}

if [ -z "${MOX_BENCH_NO_BUILD:-}" ]; then
  cmake -S "$ROOT" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON \
    -DMOX_BUILD_TESTS=OFF >/dev/null
  cmake --build "$build" -j"$jobs" --target mox-engine bench_bus >/dev/null
fi
engine_bin=$build/mox-server/engine/src/mox-engine
bus_bin=$build/bench/bench_bus

WORK=$(mktemp -d /tmp/mox-bench.XXXXXX)
. "$ROOT/scripts/lib/engine-env.sh"
ECHO_PID=""
cleanup() {
  [ -n "$ECHO_PID" ] && kill "$ECHO_PID" 2>/dev/null || true
  engine_env_cleanup
}
trap cleanup EXIT
engine_env_start_bus

ENGINE=com.orvia.mox.engine
ECHO=com.orvia.mox.echo

# Three sticks, two of one model (so the per-model index pool is used twice).
n=0
for dev in sda1:SanDisk:"Cruzer Blade" sdb1:SanDisk:"Cruzer Blade" sdc1:Kingston:"DataTraveler 3.0"; do
  IFS=: read -r name vendor product <<<"$dev"
  n=$((n + 1))
  mkdir -p "$MOX_USB_ROOT/$name/Photos"
  cat > "$WORK/spool/.$name.tmp" <<JSON
{"devname": "/dev/$name", "class": 8, "mount_path": "$MOX_USB_ROOT/$name", "fs_type": 0,
 "disk_type": 1, "vendor_id": 1921, "manufacturer": "$vendor", "product": "$product",
 "serial": "4C53000$n", "part_label": "DISK$n", "address": $((n + 3)), "bus": 1}
JSON
  mv "$WORK/spool/.$name.tmp" "$WORK/spool/$name.json"
done

STORAGES_ARGS="(uint32 1,)"
FOLDER_ARGS="('{\"OPERATION_TYPE\":1,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\"}',)"
ADD_ARGS="('{\"OPERATION_TYPE\":0,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\",\"FOLDER_ID\":\"42\"}',)"

wait_name() {  # name, tries of 0.1 s
  for _ in $(seq "$2"); do
    gdbus call --system --dest org.freedesktop.DBus --object-path /org/freedesktop/DBus \
      --method org.freedesktop.DBus.NameHasOwner "$1" 2>/dev/null | grep -q true && return 0
    sleep 0.1
  done
  echo "$1 did not appear on the bus" >&2
  return 1
}

# start_engine LEVEL [callgrind]
start_engine() {
  local prefix=()
  [ "${2:-}" = callgrind ] && prefix=(valgrind -q --tool=callgrind --callgrind-out-file="$WORK/cg.engine.%p")
  MOX_LOG_LEVEL=$1 "${prefix[@]}" "$engine_bin" &
  ENGINE_PID=$!
  wait_name "$ENGINE" 600
  "$bus_bin" client check_folder_path "$ADD_ARGS" 1 0 "$ENGINE" >/dev/null
}

stop_engine() {
  kill -TERM "$ENGINE_PID"
  wait "$ENGINE_PID" || true
  ENGINE_PID=""
}

# start_echo [callgrind]
start_echo() {
  local prefix=()
  [ "${1:-}" = callgrind ] && prefix=(valgrind -q --tool=callgrind --callgrind-out-file="$WORK/cg.echo.%p")
  "${prefix[@]}" "$bus_bin" echo "$ECHO" "$WORK/storages.txt" "$WORK/folder.txt" &
  ECHO_PID=$!
  wait_name "$ECHO" 600
}

stop_echo() {
  kill -TERM "$ECHO_PID"
  wait "$ECHO_PID" || true
  ECHO_PID=""
}

# The echo answers with exactly the daemon's texts.
start_engine warning
"$bus_bin" client get_usb_storages "$STORAGES_ARGS" 1 0 "$ENGINE" > "$WORK/storages.txt"
"$bus_bin" client check_folder_path "$FOLDER_ARGS" 1 0 "$ENGINE" > "$WORK/folder.txt"
stop_engine
devices=$(grep -c '"mountPath"' "$WORK/storages.txt" || true)
echo "storage document: $(wc -c < "$WORK/storages.txt") bytes, $devices devices"

# latency METHOD ARGS LEVEL
latency() {
  "$bus_bin" client "$1" "$2" "$calls" "$rounds" "$ENGINE" "$ECHO" > "$WORK/lat.txt"
  awk -v m="$1" -v l="$3" '{t[$1]=$2} END {
    printf "latency %-18s %-7s engine %7.1f us  echo %7.1f us  ratio %.2fx\n",
           m, l, t["'$ENGINE'"]/1000, t["'$ECHO'"]/1000, t["'$ENGINE'"]/t["'$ECHO'"] }' "$WORK/lat.txt"
}

start_echo
for level in warning debug; do
  start_engine "$level"
  latency get_usb_storages "$STORAGES_ARGS" "$level"
  latency check_folder_path "$FOLDER_ARGS" "$level"
  stop_engine
done
stop_echo

# instructions PID NAME-PREFIX DEST METHOD ARGS: Ir per call between a zero
# and a dump of the callgrind counters.
instructions() {
  "$bus_bin" client "$4" "$5" 20 0 "$3" >/dev/null
  callgrind_control -z "$1" >/dev/null 2>&1
  "$bus_bin" client "$4" "$5" "$cg_calls" 0 "$3" >/dev/null
  callgrind_control -d "$1" >/dev/null 2>&1
  local dump
  dump=$(ls -t "$WORK/$2.$1".* | head -1)
  awk -v n="$cg_calls" '/^totals:/ {printf "%.0f\n", $2 / n}' "$dump"
  if [ -n "${MOX_BENCH_CG_DIR:-}" ]; then
    mkdir -p "$MOX_BENCH_CG_DIR"
    cp "$dump" "$MOX_BENCH_CG_DIR/$2.$4.$(basename "$dump")"
  fi
}

start_echo callgrind
echo_storages=$(instructions "$ECHO_PID" cg.echo "$ECHO" get_usb_storages "$STORAGES_ARGS")
echo_folder=$(instructions "$ECHO_PID" cg.echo "$ECHO" check_folder_path "$FOLDER_ARGS")
stop_echo
for level in warning debug; do
  start_engine "$level" callgrind
  eng_storages=$(instructions "$ENGINE_PID" cg.engine "$ENGINE" get_usb_storages "$STORAGES_ARGS")
  eng_folder=$(instructions "$ENGINE_PID" cg.engine "$ENGINE" check_folder_path "$FOLDER_ARGS")
  stop_engine
  awk -v l="$level" -v e="$eng_storages" -v o="$echo_storages" -v fe="$eng_folder" -v fo="$echo_folder" 'BEGIN {
    printf "instructions get_usb_storages  %-7s engine %8d  echo %8d  ratio %.2fx\n", l, e, o, e / o
    printf "instructions check_folder_path %-7s engine %8d  echo %8d  ratio %.2fx\n", l, fe, fo, fe / fo }'
done
