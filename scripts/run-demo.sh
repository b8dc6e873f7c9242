#!/usr/bin/env bash
# Builds the engine (Release) and runs a guided moxctl session against it: a
# private system bus, mox-engine on it with every host path moved into a
# temporary directory, simulated USB sticks, and moxctl doing what a client
# application does. Each step is headed by one line saying what it shows.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
show() { printf '$ %s\n' "$*"; }

step "Building mox-engine, moxctl and the sources (output in build-release/demo-build.log)"
scripts/install-deps.sh > build-release.deps.log 2>&1 || { cat build-release.deps.log; exit 1; }
rm -f build-release.deps.log
mkdir -p build-release
if ! { cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DMOX_BUILD_TESTS=OFF &&
       cmake --build build-release -j"$(nproc)" --target mox-engine mox-extract moxctl mox_local_source \
         mox_ra_source mox_library_source; } > build-release/demo-build.log 2>&1; then
  tail -n 30 build-release/demo-build.log
  exit 1
fi

WORK=$(mktemp -d /tmp/mox-demo.XXXXXX)
. scripts/lib/engine-env.sh
HTTP_PID=""
trap '[ -n "$HTTP_PID" ] && kill "$HTTP_PID" 2>/dev/null; engine_env_cleanup' EXIT
engine_env_start_bus
export MOX_LOG_LEVEL=info
ln -s "$ROOT/build-release/plugins/local-source/libmox_local_source.so" "$WORK/plugins/"
ln -s "$ROOT/build-release/plugins/ra-source/libmox_ra_source.so" "$WORK/plugins/"
ln -s "$ROOT/build-release/plugins/library-source/libmox_library_source.so" "$WORK/plugins/"
moxctl() { "$ROOT/build-release/client/moxctl" "$@"; }

step "Starting mox-engine on a private system bus"
build-release/mox-server/engine/src/mox-engine &
ENGINE_PID=$!
engine_env_wait_for_name
show moxctl ping
moxctl ping

# A holiday stick: photos (real JPEGs when ImageMagick is there), a clip and
# a song in DCIM.
STICK="$MOX_USB_ROOT/sdb1"
mkdir -p "$STICK/DCIM/Trip" "$STICK/Backup"
for name in sunset beach harbour; do
  convert -size 320x240 "plasma:" "$STICK/DCIM/$name.jpg" 2>/dev/null ||
    head -c 40000 /dev/urandom > "$STICK/DCIM/$name.jpg"
done
# The dates a camera would have written (shown by the library source).
day=1
for name in sunset beach harbour; do
  exiftool -q -overwrite_original "-DateTimeOriginal=2024:07:0$day 18:3$day:00" "$STICK/DCIM/$name.jpg" \
    2>/dev/null || true
  day=$((day + 1))
done
head -c 2000000 /dev/urandom > "$STICK/DCIM/clip.mp4"
head -c 900000 /dev/urandom > "$STICK/DCIM/song.mp3"
# An album of tagged songs (real MP3s when ffmpeg is there).
mkdir -p "$STICK/Music"
track=1
for title in "Café de la Plage" "Sunset Drive" "Harbour Lights"; do
  ffmpeg -v error -y -f lavfi -i "sine=frequency=$((300 * track)):duration=2" -b:a 64k \
    -metadata artist="Zoé Martin" -metadata album="Été Bleu" -metadata track=$track \
    -metadata title="$title" "$STICK/Music/0$track.mp3" 2>/dev/null ||
    head -c 50000 /dev/urandom > "$STICK/Music/0$track.mp3"
  track=$((track + 1))
done
head -c $((256 << 20)) /dev/urandom > "$STICK/Backup/holiday.tar"

step "A USB stick is plugged in (simulated: a spool file renamed into place)"
cat > "$WORK/spool/.sdb1.tmp" <<JSON
{"devname": "/dev/sdb1", "class": 8, "mount_path": "$STICK", "fs_type": 0,
 "disk_type": 1, "vendor_id": 1921, "manufacturer": "SanDisk", "product": "Cruzer Blade",
 "serial": "4C530001", "part_label": "HOLIDAY", "address": 4, "bus": 1}
JSON
mv "$WORK/spool/.sdb1.tmp" "$WORK/spool/sdb1.json"
sleep 0.5

step "library: the engine indexes the stick in the background; wait for it"
show moxctl library wait "$STICK"
moxctl library wait "$STICK"
show moxctl library status
moxctl library status

step "library list: every photo of the stick by the date it was taken, sorted by the index"
show moxctl library list --mount "$STICK" --type photo --sort DateTaken
moxctl library list --mount "$STICK" --type photo --sort DateTaken

step "library list --view albums: one row per album, with its count and cover"
show moxctl library list --view albums
moxctl library list --view albums

step "library search: words by prefix, any case, accents ignored"
show moxctl library search cafe
moxctl library search cafe

step "status: the storages the engine knows"
show moxctl status
moxctl status

step "list: the stick's photos sorted by name, read from shared memory (the list is dropped after)"
show moxctl list "$STICK/DCIM" --type photo --sort FileName
moxctl list "$STICK/DCIM" --type photo --sort FileName
for name in $(grep -o 'Generate Id\[[0-9]*\], Name\[mox_resultlist_[0-9_]*' "$WORK/engine.log" | sed 's/.*Name\[//'); do
  echo "the engine made $name; in /dev/shm now: $([ -e "/dev/shm/$name" ] && echo yes || echo 'no (dropped)')"
done

step "list --json: the same answer for scripts, piped into jq"
show "moxctl --json list $STICK/DCIM --sort FileSize --desc | jq -r '.items[] | \"\\(.FileSize)\\t\\(.FileName)\"'"
moxctl --json list "$STICK/DCIM" --sort FileSize --desc | jq -r '.items[] | "\(.FileSize)\t\(.FileName)"'

step "check: does the stick hold no media, one, or several?"
show moxctl check "$STICK"
moxctl check "$STICK"

step "thumbs: three photos of DCIM to draw on its folder icon"
show moxctl thumbs "$STICK/DCIM" --count 3
moxctl thumbs "$STICK/DCIM" --count 3

step "copy: a 256 MiB file to another folder of the stick, with its progress bar"
show moxctl copy "$STICK/Backup/holiday.tar" "$STICK/holiday-copy.tar"
moxctl copy "$STICK/Backup/holiday.tar" "$STICK/holiday-copy.tar"
cmp -s "$STICK/Backup/holiday.tar" "$STICK/holiday-copy.tar" && echo "copy identical"

step "download: a paced local web server, progress as it comes; Ctrl-C would stop it and leave nothing"
mkdir -p "$WORK/www"
head -c $((4 << 20)) /dev/urandom > "$WORK/www/movie.mp4"
python3 tests/support/http_test_server.py "$WORK/www" "$WORK/http.port" &
HTTP_PID=$!
for _ in $(seq 100); do [ -s "$WORK/http.port" ] && break; sleep 0.05; done
URL="http://127.0.0.1:$(cat "$WORK/http.port")/files/movie.mp4?chunk=262144&delay_ms=100"
show moxctl download "'$URL'" "$STICK/movie.mp4"
moxctl download "$URL" "$STICK/movie.mp4"
kill "$HTTP_PID"; wait "$HTTP_PID" 2>/dev/null || true
HTTP_PID=""

step "monitor: storage events as they happen; the stick is pulled out"
( sleep 1; rm "$WORK/spool/sdb1.json" ) &
PULL_PID=$!
show moxctl monitor --count 1
moxctl monitor --count 1
wait "$PULL_PID"

step "Errors: one line on stderr and a documented exit status"
show moxctl list /etc
moxctl list /etc && status=0 || status=$?
echo "exit status $status (4: not a folder below the USB root)"

step "Stopping mox-engine (SIGTERM)"
kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID" && status=0 || status=$?
ENGINE_PID=""
echo "mox-engine stopped with status $status"
show moxctl ping
moxctl ping && code=0 || code=$?
echo "exit status $code (3: engine absent)"
exit "$status"
