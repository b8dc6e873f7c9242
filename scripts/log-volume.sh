#!/usr/bin/env bash
# Log volume of the daemon at a level: lines written for one list of a
# 3-file folder, one 8 MiB copy, one detail, one metadata request (no
# provider installed: it fails as it should) and while idle (counted over
# IDLE seconds, scaled to an hour); then the warnings of the whole run and
# the lines holding the metadata request's access token (exit 1 unless 0).
# Each figure is the lines the log file grew by during that step alone.
#   scripts/log-volume.sh [BUILD_DIR] [LEVEL ...]   (default build-asan; default info warning)
# LEVEL "default" leaves MOX_LOG_LEVEL unset. Run it through a private
# /dev/shm (/tmp/privshm.sh) when other engines run on the machine.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$ROOT/build-asan}" && pwd)
shift || true
LEVELS=("$@")
[ ${#LEVELS[@]} -eq 0 ] && LEVELS=(default info warning)
IDLE=${IDLE:-30}
ENGINE=$BUILD/mox-server/engine/src/mox-engine
MOXCTL=$BUILD/client/moxctl
for f in "$ENGINE" "$MOXCTL"; do [ -x "$f" ] || { echo "missing $f (build mox-engine, moxctl, the sources)" >&2; exit 1; }; done

lines() { [ -f "$WORK/engine.log" ] && wc -l < "$WORK/engine.log" || echo 0; }
moxctl() { "$MOXCTL" "$@" > /dev/null; }

printf '%-8s %6s %6s %6s %6s %12s %9s %6s\n' level list copy detail meta idle-hour warnings token
status=0
for level in "${LEVELS[@]}"; do
  WORK=$(mktemp -d /tmp/mox-logvol.XXXXXX)
  . "$ROOT/scripts/lib/engine-env.sh"
  trap 'engine_env_cleanup' EXIT
  engine_env_start_bus
  if [ "$level" = default ]; then unset MOX_LOG_LEVEL; else export MOX_LOG_LEVEL=$level; fi
  ln -s "$BUILD/plugins/local-source/libmox_local_source.so" "$BUILD/plugins/ra-source/libmox_ra_source.so" "$WORK/plugins/"
  STICK=$MOX_USB_ROOT/sdb1
  mkdir -p "$STICK/DCIM"
  for n in a b c; do head -c 20000 /dev/urandom > "$STICK/DCIM/$n.jpg"; done
  head -c $((8 << 20)) /dev/urandom > "$STICK/big.bin"
  "$ENGINE" 2> "$WORK/stderr.log" &
  ENGINE_PID=$!
  engine_env_wait_for_name
  printf '{"devname": "/dev/sdb1", "class": 8, "mount_path": "%s", "fs_type": 0}' "$STICK" > "$WORK/spool/.t"
  mv "$WORK/spool/.t" "$WORK/spool/sdb1.json"
  for _ in $(seq 100); do "$MOXCTL" status 2>/dev/null | grep -q sdb1 && break; sleep 0.05; done
  sleep 0.5
  moxctl list "$STICK/DCIM"  # warms the plug-in up: its first load is not a list's cost
  n0=$(lines); moxctl list "$STICK/DCIM" --sort FileName; n1=$(lines)
  moxctl copy "$STICK/big.bin" "$STICK/copy.bin"; n2=$(lines)
  moxctl detail "$STICK/DCIM/a.jpg" 2>/dev/null || true; n3=$(lines)
  moxctl meta --uuid u1 --token SeCrEtToKeN42 2>/dev/null || true; n4=$(lines)
  sleep "$IDLE"; n5=$(lines)
  warnings=$(grep -c '^W/' "$WORK/engine.log" || true)
  token=$(grep -c SeCrEtToKeN42 "$WORK/engine.log" || true)
  [ "$token" = 0 ] || status=1
  printf '%-8s %6d %6d %6d %6d %12d %9d %6s\n' "$level" $((n1 - n0)) $((n2 - n1)) $((n3 - n2)) $((n4 - n3)) \
    $(((n5 - n4) * 3600 / IDLE)) "$warnings" "$token"
  [ -n "${KEEP_LOG:-}" ] && cp "$WORK/engine.log" "$KEEP_LOG.$level"
  kill "$ENGINE_PID"; wait "$ENGINE_PID" || true; ENGINE_PID=""
  engine_env_cleanup; trap - EXIT
done
[ "$status" = 0 ] || echo "error: the access token reached the log" >&2
exit "$status"
