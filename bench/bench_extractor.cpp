// Cost of metadata extraction per file, on a photo with 10 EXIF tags and an
// MP3 with tags, made at start with ImageMagick, exiftool and ffmpeg:
//  - the extraction library (CMOXExtractor::ExtractHere) against a plain loop
//    over libexif / TagLib reading the same tags of the same file;
//  - the engine's path through the mox-extract helper (Extract) against the
//    library in this process: the difference is the helper's round trip.
// scripts/run-bench.sh prints the ratios and the added time per file.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>
#include <libexif/exif-data.h>
#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include "bench_main.h"
#include "mox_extractor.h"

namespace {

struct Media {
    Media() {
        char tmpl[] = "/tmp/mox-bench-extract-XXXXXX";
        if (!mkdtemp(tmpl)) return;
        dir = tmpl;
        std::string photo = dir + "/photo.jpg", song = dir + "/song.mp3";
        std::string cmd =
            "convert -size 640x480 gradient:blue-red " + photo +
            " && exiftool -q -overwrite_original -ImageDescription=Bench '-DateTimeOriginal=2016:03:05 10:11:12' "
            "-ExposureTime=1/125 -FNumber=2.8 -ISO=200 -Model=Cam -Orientation#=6 -ExifImageWidth=640 "
            "-ExifImageHeight=480 -GPSLatitude=33.5 -GPSLatitudeRef=S -GPSLongitude=70.25 -GPSLongitudeRef=W " +
            photo +
            " && ffmpeg -v error -y -f lavfi -i sine=duration=30 -b:a 128k -metadata title=Song -metadata "
            "artist=Band -metadata album=LP -metadata genre=Rock -metadata composer=Writer -metadata date=2019 "
            "-metadata track=3/12 -metadata copyright=Me " +
            song;
        bReady = system((cmd + " >/dev/null 2>&1").c_str()) == 0;
        setenv("MOX_USB_ROOT", dir.c_str(), 1);
        setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 0);
    }
    ~Media() {
        if (!dir.empty()) system(("rm -rf " + dir).c_str());
    }
    std::string dir;
    bool bReady = false;
};

Media& TheMedia() {
    static Media s_media;
    return s_media;
}

// The same reads as the extractor: lookup in every IFD, value as text,
// SHORT or RATIONAL.
void RawExif(const std::string& path, benchmark::State& state) {
    ExifData* ed = exif_data_new_from_file(path.c_str());
    if (!ed) {
        state.SkipWithError("no EXIF");
        return;
    }
    ExifByteOrder order = exif_data_get_byte_order(ed);
    char buf[129];
    double sum = 0;
    auto entry = [&](ExifIfd ifd, ExifTag tag) { return exif_content_get_entry(ed->ifd[ifd], tag); };
    auto rational = [&](ExifEntry* e, int i) {
        ExifRational r = exif_get_rational(e->data + 8 * i, order);
        return r.denominator ? double(r.numerator) / r.denominator : 0.0;
    };
    for (ExifTag tag :
         {static_cast<ExifTag>(EXIF_TAG_GPS_LATITUDE_REF), static_cast<ExifTag>(EXIF_TAG_GPS_LONGITUDE_REF)})
        if (ExifEntry* e = entry(EXIF_IFD_GPS, tag)) exif_entry_get_value(e, buf, sizeof(buf));
    for (ExifTag tag : {static_cast<ExifTag>(EXIF_TAG_GPS_LATITUDE), static_cast<ExifTag>(EXIF_TAG_GPS_LONGITUDE)})
        if (ExifEntry* e = entry(EXIF_IFD_GPS, tag))
            sum += rational(e, 0) + rational(e, 1) / 60 + rational(e, 2) / 3600;
    for (ExifTag tag :
         {EXIF_TAG_IMAGE_DESCRIPTION, EXIF_TAG_DATE_TIME_ORIGINAL, EXIF_TAG_EXPOSURE_TIME, EXIF_TAG_MODEL})
        if (ExifEntry* e = exif_data_get_entry(ed, tag)) exif_entry_get_value(e, buf, sizeof(buf));
    if (ExifEntry* e = exif_data_get_entry(ed, EXIF_TAG_FNUMBER)) sum += rational(e, 0);
    for (ExifTag tag :
         {EXIF_TAG_ISO_SPEED_RATINGS, EXIF_TAG_ORIENTATION, EXIF_TAG_PIXEL_X_DIMENSION, EXIF_TAG_PIXEL_Y_DIMENSION})
        if (ExifEntry* e = exif_data_get_entry(ed, tag)) sum += exif_get_short(e->data, order);
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(buf);
    exif_data_unref(ed);
}

void RawTagLib(const std::string& path) {
    TagLib::FileRef ref(path.c_str(), true, TagLib::AudioProperties::Average);
    std::string sink;
    if (TagLib::Tag* tag = ref.tag()) {
        for (const TagLib::String& s : {tag->title(), tag->album(), tag->artist(), tag->genre()})
            sink += s.to8Bit(true);
        sink += std::to_string(tag->year());
        TagLib::PropertyMap map = ref.file()->properties();
        for (const char* key : {"COMPOSER", "DATE", "COPYRIGHT", "TRACKNUMBER"}) {
            auto it = map.find(key);
            if (it != map.end() && !it->second.isEmpty()) sink += it->second.front().to8Bit(true);
        }
    }
    if (TagLib::AudioProperties* p = ref.audioProperties())
        sink += std::to_string(p->bitrate() + p->sampleRate() + p->channels() + p->lengthInMilliseconds());
    benchmark::DoNotOptimize(sink);
}

void Library(benchmark::State& state, const char* name, int type) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    for (auto _ : state) {
        CMOXExtractor extractor(media.dir, name, type);
        media_info_s info;
        if (!extractor.ExtractHere(info)) return state.SkipWithError("extraction failed");
        benchmark::DoNotOptimize(info);
    }
}

void Helper(benchmark::State& state, const char* name, int type) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    for (auto _ : state) {
        CMOXExtractor extractor(media.dir, name, type);
        media_info_s info;
        if (!extractor.Extract(info)) return state.SkipWithError("extraction failed");
        benchmark::DoNotOptimize(info);
    }
}

void BM_PhotoRaw(benchmark::State& state) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    std::string path = media.dir + "/photo.jpg";
    for (auto _ : state) RawExif(path, state);
}
void BM_PhotoLibrary(benchmark::State& state) {
    Library(state, "photo.jpg", 2);
}
void BM_PhotoHelper(benchmark::State& state) {
    Helper(state, "photo.jpg", 2);
}

void BM_Mp3Raw(benchmark::State& state) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    std::string path = media.dir + "/song.mp3";
    for (auto _ : state) RawTagLib(path);
}
void BM_Mp3Library(benchmark::State& state) {
    Library(state, "song.mp3", 5);
}
void BM_Mp3Helper(benchmark::State& state) {
    Helper(state, "song.mp3", 5);
}

}  // namespace

BENCHMARK(BM_PhotoRaw)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PhotoLibrary)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PhotoHelper)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3Raw)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3Library)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3Helper)->Unit(benchmark::kMicrosecond);

MOX_BENCHMARK_MAIN();
