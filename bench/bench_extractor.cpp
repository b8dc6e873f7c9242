// Cost of metadata extraction per file, on a photo with 10 EXIF tags and an
// MP3 with tags, made at start with ImageMagick, exiftool and ffmpeg:
//  - the extraction library (CMOXExtractor::ExtractHere) against a plain loop
//    over libexif / TagLib reading the same tags of the same file;
//  - the engine's path through the mox-extract helper (Extract) against the
//    library in this process: the difference is the helper's round trip;
//  - the media library's path: batches of kBatch files, one request each,
//    through the helper (ExtractBatch, each file opened below the USB root
//    and stat'ed as the indexer does); one iteration is one batch.
// scripts/run-bench-extract.sh prints the ratios and the added time per file.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <libexif/exif-data.h>
#include <taglib/fileref.h>
#include <taglib/tpropertymap.h>

#include <mox_unique_fd.h>

#include "bench_main.h"
#include "mox_extract_client.h"
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

// CPU time of this process and of its mox-extract helper, which together
// are the cost of a file: on a loaded machine wall-clock time mostly measures
// the other load. Reported as the counter "cpu_us" per file.
class CCpuMeter {
public:
    CCpuMeter() : m_helper(HelperPid()), m_start(Now(m_helper)) {}
    void Report(benchmark::State& state, int64_t files) const {
        if (HelperPid() != m_helper || files <= 0) return;  // a helper restarted: no figure
        state.counters["cpu_us"] = (Now(m_helper) - m_start) / 1000.0 / static_cast<double>(files);
    }

private:
    static pid_t HelperPid() {
        pid_t found = -1;
        DIR* proc = opendir("/proc");
        while (struct dirent* e = proc ? readdir(proc) : nullptr) {
            pid_t pid = atoi(e->d_name);
            if (pid <= 0) continue;
            std::ifstream in("/proc/" + std::string(e->d_name) + "/stat");
            std::string stat((std::istreambuf_iterator<char>(in)), {});
            size_t close = stat.rfind(')');
            int ppid = 0;
            if (close != std::string::npos && stat.find("(mox-extract)") != std::string::npos &&
                sscanf(stat.c_str() + close + 2, "%*c %d", &ppid) == 1 && ppid == getpid())
                found = pid;
        }
        if (proc) closedir(proc);
        return found;
    }
    // Nanoseconds: this process's CPU clock plus the helper's time on a CPU.
    static double Now(pid_t helper) {
        struct timespec ts;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
        double ns = ts.tv_sec * 1e9 + ts.tv_nsec;
        if (helper > 0) {
            std::ifstream in("/proc/" + std::to_string(helper) + "/schedstat");
            double run = 0;
            if (in >> run) ns += run;
        }
        return ns;
    }
    pid_t m_helper;
    double m_start;
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
    CCpuMeter meter;
    for (auto _ : state) {
        CMOXExtractor extractor(media.dir, name, type);
        media_info_s info;
        if (!extractor.ExtractHere(info)) return state.SkipWithError("extraction failed");
        benchmark::DoNotOptimize(info);
    }
    meter.Report(state, state.iterations());
}

void Helper(benchmark::State& state, const char* name, int type) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    media_info_s warm;
    CMOXExtractor(media.dir, name, type).Extract(warm);  // the helper runs before the meter starts
    CCpuMeter meter;
    for (auto _ : state) {
        CMOXExtractor extractor(media.dir, name, type);
        media_info_s info;
        if (!extractor.Extract(info)) return state.SkipWithError("extraction failed");
        benchmark::DoNotOptimize(info);
    }
    meter.Report(state, state.iterations());
}

// The media library's batch: one request.
constexpr int kBatch = static_cast<int>(mox_extract_wire::kMaxBatch);

void HelperBatch(benchmark::State& state, const char* name, int type) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    const std::string path = media.dir + "/" + name;
    std::vector<mox_util::UniqueFd> fds;
    std::vector<media_info_s> infos;
    std::vector<SMOXExtractExtra> extras;
    std::vector<SMOXExtractItem> items;
    mox_util::UniqueFd dir(open(media.dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    media_info_s warm;
    CMOXExtractor(media.dir, name, type).Extract(warm);  // the helper runs before the meter starts
    CCpuMeter meter;
    for (auto _ : state) {
        fds.clear();
        infos.assign(kBatch, media_info_s());
        extras.assign(kBatch, SMOXExtractExtra());
        items.assign(kBatch, SMOXExtractItem());
        for (int i = 0; i < kBatch; ++i) {
            // As the indexer opens its files: beneath the volume's descriptor.
            fds.emplace_back(openat(dir.Get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
            struct stat st;
            if (fstat(fds.back().Get(), &st) != 0) return state.SkipWithError("open failed");
            SMOXExtractItem& item = items[i];
            item.fd = fds.back().Get();
            item.strPath = path;
            item.nMediaType = type;
            item.ullSize = static_cast<unsigned long long>(st.st_size);
            item.ulModifiedTime = static_cast<unsigned long>(st.st_mtime);
            item.pInfo = &infos[i];
            item.pExtra = &extras[i];
        }
        CMOXExtractClient::Get().ExtractBatch(items, true);
        for (const SMOXExtractItem& item : items)
            if (item.eResult != SMOXExtractItem::EResult::kParsed) return state.SkipWithError("extraction failed");
        benchmark::DoNotOptimize(infos);
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["files"] = kBatch;
    meter.Report(state, state.iterations() * kBatch);
}

void BM_PhotoRaw(benchmark::State& state) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    std::string path = media.dir + "/photo.jpg";
    CCpuMeter meter;
    for (auto _ : state) RawExif(path, state);
    meter.Report(state, state.iterations());
}
void BM_PhotoLibrary(benchmark::State& state) {
    Library(state, "photo.jpg", 2);
}
void BM_PhotoHelper(benchmark::State& state) {
    Helper(state, "photo.jpg", 2);
}
void BM_PhotoHelperBatch(benchmark::State& state) {
    HelperBatch(state, "photo.jpg", 2);
}

void BM_Mp3Raw(benchmark::State& state) {
    Media& media = TheMedia();
    if (!media.bReady) return state.SkipWithError("convert, exiftool or ffmpeg missing");
    std::string path = media.dir + "/song.mp3";
    CCpuMeter meter;
    for (auto _ : state) RawTagLib(path);
    meter.Report(state, state.iterations());
}
void BM_Mp3Library(benchmark::State& state) {
    Library(state, "song.mp3", 5);
}
void BM_Mp3Helper(benchmark::State& state) {
    Helper(state, "song.mp3", 5);
}
void BM_Mp3HelperBatch(benchmark::State& state) {
    HelperBatch(state, "song.mp3", 5);
}

}  // namespace

BENCHMARK(BM_PhotoRaw)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PhotoLibrary)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PhotoHelper)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_PhotoHelperBatch)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3Raw)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3Library)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3Helper)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mp3HelperBatch)->Unit(benchmark::kMicrosecond);

MOX_BENCHMARK_MAIN();
