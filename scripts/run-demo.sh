#!/usr/bin/env bash
# Builds the engine (Release) and runs a short real client session against it:
# a private system bus, mox-engine on it with every host path moved into a
# temporary directory, and gdbus calls as a client application makes them.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD

scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DMOX_BUILD_TESTS=OFF > /dev/null
cmake --build build-release -j"$(nproc)" --target mox-engine mox-vconf mox-client mox_local_source mox_ra_source

WORK=$(mktemp -d /tmp/mox-demo.XXXXXX)
. scripts/lib/engine-env.sh
trap engine_env_cleanup EXIT
engine_env_start_bus
export MOX_LOG_LEVEL=info

# A pending factory reset: the daemon clears it at start.
build-release/platform/tools/mox-vconf set db/mox/reset_status 2
echo '{}' > "$WORK/appdata/.UHD_Metadata.json"

build-release/mox-server/engine/src/mox-engine &
ENGINE_PID=$!
engine_env_wait_for_name

call() {
  echo "\$ gdbus call ... --method com.orvia.mox.engine.$1 ${*:2}"
  engine_call "$@"
}

echo "== status file: $(cat "$MOX_STATUS_FILE")"
echo "== reset key after start: $(build-release/platform/tools/mox-vconf get db/mox/reset_status)," \
     "UHD metadata file $( [ -e "$WORK/appdata/.UHD_Metadata.json" ] && echo kept || echo removed)"
call start_server
call check_folder_path "{\"OPERATION_TYPE\":0,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\",\"FOLDER_ID\":\"42\"}"
call check_folder_path "{\"OPERATION_TYPE\":1,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\"}"

# A client hands a text to the engine as a shared-memory object: a 32-bit
# length, then the bytes. The engine writes it into a file and unlinks it.
TEXT="Written by mox-engine from shared memory."
printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(( ${#TEXT} & 255 )) $(( ${#TEXT} >> 8 & 255 )) 0 0)%s" "$TEXT" \
  > /dev/shm/mox_demo_text
call usb_file_write "$MOX_USB_ROOT/demo.txt" /mox_demo_text
echo "== $MOX_USB_ROOT/demo.txt: $(cat "$MOX_USB_ROOT/demo.txt")"
echo "== /dev/shm/mox_demo_text $( [ -e /dev/shm/mox_demo_text ] && echo 'still there' || echo 'consumed')"
call usb_file_remove "$MOX_USB_ROOT/demo.txt" ""

# A media database reset clears the folder map.
build-release/platform/tools/mox-vconf set file/private/mediaserver/db_reset 1
sleep 0.3
call check_folder_path "{\"OPERATION_TYPE\":1,\"FOLDER_PATH\":\"$MOX_USB_ROOT/sda1/Photos\"}"
call foo

# A bound client sees a simulated USB stick plugged in and pulled out.
build-release/client/mox-client watch-usb 2 20 > "$WORK/watch.out" &
WATCH_PID=$!
for _ in $(seq 200); do grep -q bound "$WORK/watch.out" 2>/dev/null && break; sleep 0.05; done
mkdir -p "$MOX_USB_ROOT/sdb1"
cat > "$WORK/spool/.sdb1.tmp" <<JSON
{"devname": "/dev/sdb1", "class": 8, "mount_path": "$MOX_USB_ROOT/sdb1", "fs_type": 0,
 "disk_type": 1, "vendor_id": 1921, "manufacturer": "SanDisk", "product": "Cruzer Blade",
 "serial": "4C530001", "part_label": "HOLIDAY", "address": 4, "bus": 1}
JSON
echo "== plugging a simulated stick (spool file renamed into place)"
mv "$WORK/spool/.sdb1.tmp" "$WORK/spool/sdb1.json"
call get_usb_storages 1
sleep 0.5
echo "== pulling it out"
rm "$WORK/spool/sdb1.json"
wait "$WATCH_PID"
echo "== what the bound client received:"
sed 's/^/   /' "$WORK/watch.out"

# A media browser lists a folder of a stick through the local source: the
# engine answers with a result list in shared memory, the client maps it,
# prints the items (sorted by size) and drops it.
ln -s "$ROOT/build-release/plugins/local-source/libmox_local_source.so" "$WORK/plugins/"
mkdir -p "$MOX_USB_ROOT/sdc1/Holiday/Beach"
head -c 3000 /dev/zero > "$MOX_USB_ROOT/sdc1/Holiday/sunset.jpg"
head -c 1000 /dev/zero > "$MOX_USB_ROOT/sdc1/Holiday/song.mp3"
head -c 2000 /dev/zero > "$MOX_USB_ROOT/sdc1/Holiday/clip.mp4"
DOC="{\"mox_command\":\"mox_requestlist\",\"mox_source\":[\"mox_local_source\"],\"mox_folder_path\":\"$MOX_USB_ROOT/sdc1/Holiday\",\"SortedType\":1,\"SortedKey\":\"FileSize\"}"
echo "\$ mox-client list libmox_local_source.so '$DOC'"
build-release/client/mox-client list libmox_local_source.so "$DOC" | sed 's/^/   /'

# A gallery copies a photo from one stick to another, then downloads a file
# from a (local, deliberately paced) web server onto a stick, watching the
# progress reports; nothing appears at the destination before it is complete.
ln -s "$ROOT/build-release/plugins/ra-source/libmox_ra_source.so" "$WORK/plugins/"
head -c $((24 << 20)) /dev/urandom > "$MOX_USB_ROOT/sdc1/Holiday/panorama.jpg"
echo "\$ mox-client copy $MOX_USB_ROOT/sdc1/Holiday/panorama.jpg $MOX_USB_ROOT/sdb1/panorama.jpg"
build-release/client/mox-client copy "$MOX_USB_ROOT/sdc1/Holiday/panorama.jpg" "$MOX_USB_ROOT/sdb1/panorama.jpg" \
  | sed 's/^/   /'
cmp -s "$MOX_USB_ROOT/sdc1/Holiday/panorama.jpg" "$MOX_USB_ROOT/sdb1/panorama.jpg" && echo "== copy identical"
mkdir -p "$WORK/www"
head -c $((4 << 20)) /dev/urandom > "$WORK/www/movie.mp4"
python3 tests/support/http_test_server.py "$WORK/www" "$WORK/http.port" &
HTTP_PID=$!
for _ in $(seq 100); do [ -s "$WORK/http.port" ] && break; sleep 0.05; done
URL="http://127.0.0.1:$(cat "$WORK/http.port")/files/movie.mp4?chunk=262144&delay_ms=100"
echo "\$ mox-client copy '$URL' $MOX_USB_ROOT/sdb1/movie.mp4"
build-release/client/mox-client copy "$URL" "$MOX_USB_ROOT/sdb1/movie.mp4" | sed 's/^/   /'
cmp -s "$WORK/www/movie.mp4" "$MOX_USB_ROOT/sdb1/movie.mp4" && echo "== download identical"
kill "$HTTP_PID"; wait "$HTTP_PID" 2>/dev/null || true

kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID" && status=0 || status=$?
ENGINE_PID=""
echo "== mox-engine stopped with status $status"
echo "== last lines of its log:"
tail -n 5 "$WORK/engine.log" | sed 's/\x1b\[[0-9;]*m//g'
exit "$status"
