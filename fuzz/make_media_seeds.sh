#!/bin/bash
# Writes small media seeds for fuzz_extractor into DIR: each is the kind byte
# the target expects (index into its kind table) followed by a real file made
# with ImageMagick, exiftool and ffmpeg. Tools that are missing are skipped.
#   fuzz/make_media_seeds.sh DIR
set -uo pipefail
out=$1
mkdir -p "$out"
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

seed() {  # kind-index file
    [ -s "$2" ] || return 0
    { printf "\\$(printf '%03o' "$1")"; cat "$2"; } >"$out/seed-$(basename "$2")"
}

if command -v convert >/dev/null; then
    convert -size 16x12 xc:green "$tmp/a.jpg" 2>/dev/null
    command -v exiftool >/dev/null && exiftool -q -overwrite_original -Model=M -ImageDescription=D \
        -DateTimeOriginal="2020:01:01 00:00:00" -ExposureTime=1/50 -FNumber=2 -ISO=100 -Orientation#=1 \
        -ExifImageWidth=16 -ExifImageHeight=12 -GPSLatitude=1 -GPSLatitudeRef=S -GPSLongitude=2 \
        -GPSLongitudeRef=W "$tmp/a.jpg"
    seed 0 "$tmp/a.jpg"
fi
if command -v ffmpeg >/dev/null; then
    tags=(-metadata title=T -metadata artist=A -metadata album=L -metadata track=1/2 -metadata date=2001)
    i=1
    for ext in mp3 flac ogg m4a wav wma aiff; do
        ffmpeg -v error -y -f lavfi -i sine=duration=0.2 -ar 8000 "${tags[@]}" "$tmp/a.$ext" 2>/dev/null
        seed $i "$tmp/a.$ext"
        i=$((i + 1))
    done
    i=10
    for ext in mp4 mkv avi ts; do
        ffmpeg -v error -y -f lavfi -i testsrc=size=16x16:rate=2 -t 0.5 -c:v mpeg4 "${tags[@]}" "$tmp/v.$ext" 2>/dev/null
        seed $i "$tmp/v.$ext"
        i=$((i + 1))
    done
fi
