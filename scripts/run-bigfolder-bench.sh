#!/bin/bash
# Big folders and fixed costs: each figure against a baseline measured in the
# same run (medians, [min-max] ranges, the load average before each part).
#   1. `moxctl list` of 10,000 and 100,000 empty files (sections, and sorted
#      by name in one answer) against `ls -l` of the same folder, interleaved;
#      the daemon's peak RSS after the 100,000 and after the 1,000,000 folder
#      (MOX_BENCH_MILLION=0 leaves the million out).
#   2. bench_requests: the cached 1,000-item round trip against a raw
#      call+signal and a raw shm write+read, with and without the drop.
#   3. callgrind instructions of one device check against one raw readdir walk
#      of the same tree (bench_walk_instructions).
# Build directory: $MOX_BENCH_BUILD_DIR or build-bench; folders under
# $MOX_BENCH_TREE_DIR (default /tmp/mox-bench-bigfolders, made on first run).
# Rounds per figure: $MOX_BENCH_ROUNDS (default 7; $MOX_BENCH_BIG_ROUNDS for
# the 100,000 folder, default the same); $MOX_BENCH_PARTS (default "1 2 3")
# chooses the parts. Run it through a private /dev/shm when others share the
# machine.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
build=${MOX_BENCH_BUILD_DIR:-$ROOT/build-bench}
jobs=${MOX_BUILD_JOBS:-2}
rounds=${MOX_BENCH_ROUNDS:-7}
million=${MOX_BENCH_MILLION:-1}
big_rounds=${MOX_BENCH_BIG_ROUNDS:-$rounds}
parts=" ${MOX_BENCH_PARTS:-1 2 3} "
trees=${MOX_BENCH_TREE_DIR:-/tmp/mox-bench-bigfolders}

# MOX_BENCH_NO_BUILD=1 measures what is built already.
if [ "${MOX_BENCH_NO_BUILD:-0}" != 1 ]; then
  cmake -S "$ROOT" -B "$build" -DCMAKE_BUILD_TYPE=Release -DMOX_SANITIZE= -DMOX_BUILD_BENCH=ON >/dev/null
  cmake --build "$build" -j"$jobs" --target mox-engine mox_local_source moxctl bench_requests \
    bench_walk_instructions >/dev/null
fi

load() { echo "load average: $(cut -d' ' -f1-3 /proc/loadavg)"; }

# Folders of empty files below the USB root ($trees/usb/sda1/N).
make_folder() {
  local dir=$trees/usb/sda1/$1 count=$1
  [ -e "$dir/.complete" ] && return 0
  mkdir -p "$dir"
  /usr/bin/python3 - "$dir" "$count" <<'PY'
import os, sys
d, n = sys.argv[1], int(sys.argv[2])
for i in range(n):
    os.close(os.open("%s/IMG_%07d.jpg" % (d, i), os.O_WRONLY | os.O_CREAT, 0o644))
open(d + "/.complete", "w").close()
PY
}
make_folder 10000
make_folder 100000
[ "$million" = 1 ] && make_folder 1000000

WORK=$(mktemp -d /tmp/mox-bigfolder-bench.XXXXXX)
. scripts/lib/engine-env.sh
trap engine_env_cleanup EXIT
engine_env_start_bus
export MOX_USB_ROOT=$trees/usb
export MOX_LOG_LEVEL=info
ln -s "$build/plugins/local-source/libmox_local_source.so" "$WORK/plugins/"
"$build/mox-server/engine/src/mox-engine" &
ENGINE_PID=$!
engine_env_wait_for_name
moxctl=$build/client/moxctl

now_us() { echo $(($(date +%s%N) / 1000)); }
# Prints "median min max" of the numbers given.
summary() { printf '%s\n' "$@" | sort -n | awk '{v[NR]=$1} END {print v[int((NR+1)/2)], v[1], v[NR]}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", a / b}'; }

# One folder: `ls -l`, `moxctl list` (sections) and `moxctl list --sort
# FileName`, interleaved, $2 rounds. Each round touches the folder first, so
# that nothing is answered from a kept answer of the round before.
list_figures() {
  local n=$1 runs=$2 dir=$trees/usb/sda1/$1 ls=() mox=() sorted=() t rc failed=""
  for _ in $(seq "$runs"); do
    touch "$dir"
    t=$(now_us); LC_ALL=C ls -l "$dir" >/dev/null; ls+=($(($(now_us) - t)))
    t=$(now_us); rc=0; "$moxctl" --system --timeout 600 list "$dir" >/dev/null 2>"$WORK/moxctl.err" || rc=$?
    mox+=($(($(now_us) - t)))
    [ "$rc" = 0 ] || failed="$failed list exit $rc: $(head -1 "$WORK/moxctl.err");"
    touch "$dir"
    t=$(now_us); rc=0
    "$moxctl" --system --timeout 600 list "$dir" --sort FileName >/dev/null 2>"$WORK/moxctl.err" || rc=$?
    sorted+=($(($(now_us) - t)))
    [ "$rc" = 0 ] || failed="$failed sorted exit $rc: $(head -1 "$WORK/moxctl.err");"
  done
  read -r lm lmin lmax <<<"$(summary "${ls[@]}")"
  read -r mm mmin mmax <<<"$(summary "${mox[@]}")"
  read -r sm smin smax <<<"$(summary "${sorted[@]}")"
  printf '%8d files: ls -l %.1f ms [%.1f-%.1f]; moxctl list %.1f ms [%.1f-%.1f] = %sx; sorted %.1f ms [%.1f-%.1f] = %sx\n' \
    "$n" "$(ratio "$lm" 1000)" "$(ratio "$lmin" 1000)" "$(ratio "$lmax" 1000)" \
    "$(ratio "$mm" 1000)" "$(ratio "$mmin" 1000)" "$(ratio "$mmax" 1000)" "$(ratio "$mm" "$lm")" \
    "$(ratio "$sm" 1000)" "$(ratio "$smin" 1000)" "$(ratio "$smax" 1000)" "$(ratio "$sm" "$lm")"
  [ -z "$failed" ] || echo "    FAILED:$failed" | sort -u | head -3
}
rss() { awk -v k="$1" '$1 == k":" {printf "%.0f MiB", $2 / 1024}' "/proc/$ENGINE_PID/status"; }
source_calls() { grep -c "Begin: pSource->GetData" "$WORK/engine.log" || true; }

if [[ $parts == *" 1 "* ]]; then
  echo "== 1. big folders (goal: 10,000 <= 1.5x ls -l, 100,000 <= 2x; any size lists)"
  load
  touch "$trees/usb/sda1/10000"
  before=$(source_calls)
  "$moxctl" --system list "$trees/usb/sda1/10000" >/dev/null || true
  echo "  one sectioned list of 10,000 files (10 sections): $(($(source_calls) - before)) source calls," \
    "$(grep -c 'entries read under stamp' "$WORK/engine.log" || true) folder walks logged (older sources walk on every call)"
  list_figures 10000 "$rounds"
  list_figures 100000 "$big_rounds"
  echo "  daemon peak RSS after the 100,000 folder: $(rss VmHWM) (now $(rss VmRSS))"
  if [ "$million" = 1 ]; then
    list_figures 1000000 1
    echo "  daemon peak RSS after the 1,000,000 folder: $(rss VmHWM) (now $(rss VmRSS))"
  fi
fi
kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID" || true
ENGINE_PID=""

if [[ $parts == *" 2 "* ]]; then
  echo "== 2. cached round trip (goal: 1,000 items <= 1.5x raw, p99 <= 3x median)"
  load
  export MOX_USB_ROOT=$WORK/usb
  "$build/mox-server/engine/src/mox-engine" &
  ENGINE_PID=$!
  engine_env_wait_for_name
  "$build/bench/bench_requests" "$MOX_USB_ROOT" "$WORK/engine.log"
  kill -TERM "$ENGINE_PID"
  wait "$ENGINE_PID" || true
  ENGINE_PID=""
fi

if [[ $parts == *" 3 "* ]]; then
  echo "== 3. device-check walk instructions (goal <= 5x the raw walk)"
  load
  mkdir -p "$WORK/cg"
  # Per-entry log lines filtered out, as the device check runs in service.
  export MOX_LOG_LEVEL=warning MOX_LOG=stderr
  (cd "$WORK/cg" && valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file=cg.out \
    "$build/bench/bench_walk_instructions" "$trees/walk" >/dev/null 2>"$WORK/cg/valgrind.err") ||
    { cat "$WORK/cg/valgrind.err"; exit 1; }
  total() { awk '/^totals:|^summary:/ {print $2; exit}' "$1"; }
  raw=$(total "$(grep -l '^desc: Trigger: Client Request: raw' "$WORK"/cg/cg.out* | head -1)")
  check=$(total "$(grep -l '^desc: Trigger: Client Request: check' "$WORK"/cg/cg.out* | head -1)")
  echo "  raw walk $raw instructions; device check $check; ratio $(ratio "$check" "$raw")x"
  for _ in 1 2 3; do "$build/bench/bench_walk_instructions" "$trees/walk"; done
fi
load
