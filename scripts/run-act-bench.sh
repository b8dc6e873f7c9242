#!/usr/bin/env bash
# Transfer throughput of the engine against the standard tools, measured in
# one run on the same files: a download of a file from a local HTTP server
# (engine vs `curl -o`) and a copy between two folders (engine vs `cp`), and
# the number of progress signals each engine transfer sent. The engine's
# transfers end with fsync; the "+sync" baselines add the same durability.
# MOX_BENCH_MB sizes the file (default 256), MOX_BENCH_ROUNDS the repetitions
# (default 3, the best of each is compared).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
MB=${MOX_BENCH_MB:-256}
ROUNDS=${MOX_BENCH_ROUNDS:-3}

cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DMOX_BUILD_TESTS=OFF > /dev/null
cmake --build build-release -j"$(nproc)" --target mox-engine moxctl mox_ra_source > /dev/null

WORK=$(mktemp -d "${TMPDIR:-/var/tmp}/mox-act-bench.XXXXXX")
. scripts/lib/engine-env.sh
HTTP_PID=""
cleanup() { [ -n "$HTTP_PID" ] && kill "$HTTP_PID" 2>/dev/null; engine_env_cleanup; }
trap cleanup EXIT
engine_env_start_bus
export MOX_LOG_LEVEL=warning
ln -s "$ROOT/build-release/plugins/ra-source/libmox_ra_source.so" "$WORK/plugins/"
build-release/mox-server/engine/src/mox-engine &
ENGINE_PID=$!
engine_env_wait_for_name

mkdir -p "$WORK/www" "$MOX_USB_ROOT/sda1" "$MOX_USB_ROOT/sdb1"
head -c $((MB << 20)) /dev/urandom > "$WORK/www/big.bin"
cp "$WORK/www/big.bin" "$MOX_USB_ROOT/sda1/big.bin"
python3 tests/support/http_test_server.py "$WORK/www" "$WORK/http.port" &
HTTP_PID=$!
for _ in $(seq 100); do [ -s "$WORK/http.port" ] && break; sleep 0.05; done
URL="http://127.0.0.1:$(cat "$WORK/http.port")/files/big.bin"
DST="$MOX_USB_ROOT/sdb1/out.bin"
CLIENT=build-release/client/moxctl

now() { date +%s.%N; }
# Runs "$@" after removing the destination and prints the seconds it took.
# Both files are read once first, so that no run pays for a cold page cache.
timed() {
  rm -f "$DST"; sync
  cat "$WORK/www/big.bin" "$MOX_USB_ROOT/sda1/big.bin" > /dev/null
  local t0; t0=$(now)
  "$@" > "$WORK/last.out"
  echo "$(now) - $t0" | bc -l
}
best() { printf '%s\n' "$@" | sort -g | head -1; }

declare -a ENG_DL CURL CURL_SYNC ENG_CP CP CP_SYNC
for _ in $(seq "$ROUNDS"); do
  ENG_DL+=("$(timed "$CLIENT" --timeout 600 --json download "$URL" "$DST")"); DL_SIGNALS=$(grep -c '"progress"' "$WORK/last.out" || true)
  cmp -s "$DST" "$WORK/www/big.bin" || { echo "download differs" >&2; exit 1; }
  CURL+=("$(timed curl -s -o "$DST" "$URL")")
  CURL_SYNC+=("$(timed sh -c "curl -s -o '$DST' '$URL' && sync '$DST'")")
  ENG_CP+=("$(timed "$CLIENT" --timeout 600 --json copy "$MOX_USB_ROOT/sda1/big.bin" "$DST")"); CP_SIGNALS=$(grep -c '"progress"' "$WORK/last.out" || true)
  cmp -s "$DST" "$WORK/www/big.bin" || { echo "copy differs" >&2; exit 1; }
  CP+=("$(timed cp "$MOX_USB_ROOT/sda1/big.bin" "$DST")")
  CP_SYNC+=("$(timed sh -c "cp '$MOX_USB_ROOT/sda1/big.bin' '$DST' && sync '$DST'")")
done

# What every engine transfer costs besides moving bytes: the client starting,
# its bus round trips and the folder sync, measured on a 1-byte file.
printf x > "$MOX_USB_ROOT/sda1/one.bin"
declare -a FIXED
for _ in $(seq "$ROUNDS"); do FIXED+=("$(timed "$CLIENT" --timeout 60 copy "$MOX_USB_ROOT/sda1/one.bin" "$DST")"); done

report() {  # name engine-seconds baseline-seconds
  printf '%-34s engine %6.3f s (%7.1f MiB/s)  baseline %6.3f s  ratio %.2fx\n' "$1" "$2" \
    "$(echo "$MB / $2" | bc -l)" "$3" "$(echo "$3 / $2" | bc -l)"
}
echo "== $MB MiB, best of $ROUNDS rounds (ratio = baseline time / engine time; goal >= 0.9x)"
report "download vs curl -o" "$(best "${ENG_DL[@]}")" "$(best "${CURL[@]}")"
report "download vs curl -o + sync" "$(best "${ENG_DL[@]}")" "$(best "${CURL_SYNC[@]}")"
report "copy vs cp" "$(best "${ENG_CP[@]}")" "$(best "${CP[@]}")"
report "copy vs cp + sync" "$(best "${ENG_CP[@]}")" "$(best "${CP_SYNC[@]}")"
printf 'fixed cost of one engine transfer (1-byte copy, client included): %.3f s\n' "$(best "${FIXED[@]}")"
echo "progress signals: download $DL_SIGNALS, copy $CP_SIGNALS (last round)"
