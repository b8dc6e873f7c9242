// Metadata extraction on media generated here with ImageMagick, exiftool and
// ffmpeg: the record and JSON rules in-process, then the same files through
// the mox-extract helper, including files that crash or stall it.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <glib.h>
#include <json/json.h>

#include "mox_extract_wire.h"
#include "mox_extractor.h"
#include "temp_dir.h"

namespace {

bool HaveTool(const char* tool) {
    std::string cmd = std::string("command -v ") + tool + " >/dev/null 2>&1";
    return system(cmd.c_str()) == 0;
}

bool Shell(const std::string& cmd) {
    int rc = system((cmd + " >/dev/null 2>&1").c_str());
    if (rc != 0) ADD_FAILURE() << "command failed: " << cmd;
    return rc == 0;
}

Json::Value Parse(const std::string& text) {
    Json::Value root;
    Json::CharReaderBuilder builder;
    std::string errors;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, &errors)) << text;
    return root;
}

Json::Value Here(const moxtest::TempDir& dir, const std::string& name, int type, media_info_s* out = nullptr) {
    CMOXExtractor extractor(dir.path(), name, type);
    media_info_s info;
    EXPECT_TRUE(extractor.ExtractHere(info)) << name;
    if (out) *out = info;
    return Parse(extractor.ToString(info));
}

void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string ReadBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

#define REQUIRE_TOOLS(...)                                                         \
    for (const char* tool : {__VA_ARGS__})                                         \
        if (!HaveTool(tool)) GTEST_SKIP() << tool << " missing (scripts/install-deps.sh)";

}  // namespace

TEST(Extractor, PhotoTagsFollowTheRules) {
    REQUIRE_TOOLS("convert", "exiftool");
    moxtest::TempDir dir;
    std::string plain = dir.file("plain.jpg");
    ASSERT_TRUE(Shell("convert -size 64x48 xc:red -strip " + plain));
    auto tagged = [&](const std::string& name, const std::string& args) {
        std::string path = dir.file(name);
        Shell("cp " + plain + " " + path + " && exiftool -q -overwrite_original " + args + " " + path);
    };
    tagged("full.jpg",
           "-ImageDescription=Sunset '-DateTimeOriginal=2016:03:05 10:11:12' -ExposureTime=1/125 -FNumber=2.8 "
           "-ISO=200 -Model=Cam -Orientation#=6 -ExifImageWidth=64 -ExifImageHeight=48 -GPSLatitude=33.5 "
           "-GPSLatitudeRef=S -GPSLongitude=70.25 -GPSLongitudeRef=W");
    tagged("north.jpg", "-GPSLatitude=10 -GPSLatitudeRef=N -GPSLongitude=20 -GPSLongitudeRef=E");
    tagged("orient9.jpg", "-Orientation#=9 -Model=Nine");
    tagged("modify-only.jpg", "'-ModifyDate=2015:01:02 03:04:05'");
    tagged("latin1.jpg", "$(printf -- '-Model=Caf\\351')");

    // No EXIF at all: the two texts "Unknown", numbers zero, no GPS/ISO keys.
    Json::Value none = Here(dir, "plain.jpg", 2);
    EXPECT_EQ(none["MEDIA_TYPE"].asInt(), 2);
    EXPECT_EQ(none["TITLE"].asString(), "Unknown");
    EXPECT_EQ(none["DATE_TAKEN"].asString(), "Unknown");
    EXPECT_EQ(none["EXPOSURE_TIME"].asString(), "");
    EXPECT_EQ(none["FNUMBER"].asDouble(), 0.0);
    EXPECT_EQ(none["ORIENTATION"].asInt(), 0);
    EXPECT_EQ(none["WIDTH"].asInt(), 0);
    EXPECT_EQ(none["DISPLAY_NAME"].asString(), "plain.jpg");
    EXPECT_EQ(none["FILE_PATH"].asString(), plain);
    EXPECT_EQ(none["SIZE"].asUInt64(), ReadBytes(plain).size());
    EXPECT_FALSE(none.isMember("LATITUDE") || none.isMember("ISO") || none.isMember("ALBUM"));

    media_info_s info;
    Json::Value full = Here(dir, "full.jpg", 2, &info);
    EXPECT_EQ(full["TITLE"].asString(), "Sunset");
    EXPECT_EQ(full["DATE_TAKEN"].asString(), "2016:03:05 10:11:12");
    EXPECT_EQ(full["EXPOSURE_TIME"].asString(), "1/125");
    EXPECT_NEAR(full["FNUMBER"].asDouble(), 2.8, 1e-6);
    EXPECT_EQ(full["MODEL"].asString(), "Cam");
    EXPECT_EQ(full["ORIENTATION"].asInt(), 6);
    EXPECT_EQ(full["WIDTH"].asInt(), 64);
    EXPECT_EQ(full["HEIGHT"].asInt(), 48);
    // South and west negate; kept in the record, not sent.
    EXPECT_NEAR(info.dLatitude, -33.5, 1e-6);
    EXPECT_NEAR(info.dLongitude, -70.25, 1e-6);
    EXPECT_EQ(info.nISOSpeed, 200);
    EXPECT_EQ(full.size(), 14u);

    Here(dir, "north.jpg", 2, &info);
    EXPECT_NEAR(info.dLatitude, 10.0, 1e-6);
    EXPECT_NEAR(info.dLongitude, 20.0, 1e-6);

    Json::Value nine = Here(dir, "orient9.jpg", 2);
    EXPECT_EQ(nine["ORIENTATION"].asInt(), 0);
    EXPECT_EQ(nine["MODEL"].asString(), "Nine");

    // A real DateTime never replaces "Unknown" (the inverted fallback).
    EXPECT_EQ(Here(dir, "modify-only.jpg", 2)["DATE_TAKEN"].asString(), "Unknown");

    // A stray Latin-1 byte in an EXIF text arrives as UTF-8.
    EXPECT_EQ(Here(dir, "latin1.jpg", 2)["MODEL"].asString(), "Caf\xC3\xA9");
}

TEST(Extractor, BasicInformationTypesAndTime) {
    moxtest::TempDir dir;
    std::string list = dir.file("list.plt");
    WriteBytes(list, "one\ntwo\n");
    // 2016-02-29 20:00 UTC is already March 1st at UTC+9.
    const time_t march = 1456776000;
    struct timeval times[2] = {{march, 0}, {march, 0}};
    ASSERT_EQ(utimes(list.c_str(), times), 0);
    const char* oldTz = getenv("TZ");
    std::string savedTz = oldTz ? oldTz : "";
    setenv("TZ", "JST-9", 1);
    tzset();
    Json::Value plt = Here(dir, "list.plt", 12);
    if (oldTz)
        setenv("TZ", savedTz.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    EXPECT_EQ(plt["MEDIA_TYPE"].asInt(), 0);
    EXPECT_EQ(plt["MODIFIED_MONTH"].asString(), "201603");
    EXPECT_EQ(plt["MODIFIED_TIME"].asInt64(), march);
    EXPECT_EQ(plt["SIZE"].asUInt64(), 8u);
    EXPECT_EQ(plt.size(), 6u);

    // Types without contents, and unsupported ones, keep the basic record.
    for (int type : {1, 6, 10, 11, 4, 9, 13, -1}) {
        Json::Value v = Here(dir, "list.plt", type);
        bool bSent = type == 1 || type == 6 || type == 10 || type == 11;
        EXPECT_EQ(v["MEDIA_TYPE"].asInt(), bSent ? type : 0) << type;
        EXPECT_EQ(v.size(), 6u) << type;
    }

    // Given size and time are used as they are, without stat.
    CMOXExtractor known(dir.path(), "absent.jpg", 12, true, 42, march);
    media_info_s info;
    ASSERT_TRUE(known.ExtractHere(info));
    EXPECT_EQ(info.ullSize, 42u);
    // A missing file fails only the stat step.
    CMOXExtractor missing(dir.path(), "absent.jpg", 2);
    EXPECT_FALSE(missing.ExtractHere(info));
    EXPECT_FALSE(missing.Extract(info));
}

TEST(Extractor, MusicAndVideoTags) {
    REQUIRE_TOOLS("ffmpeg");
    moxtest::TempDir dir;
    const std::string tags =
        " -metadata title=Song -metadata artist=Band -metadata album=LP -metadata genre=Rock"
        " -metadata composer=Writer -metadata date=2019 -metadata track=3/12 -metadata copyright=Me ";
    const std::string sine = "ffmpeg -v error -y -f lavfi -i sine=frequency=440:duration=2 -ac 2 -ar 44100 ";
    ASSERT_TRUE(Shell(sine + "-b:a 128k" + tags + dir.file("song.mp3")));
    ASSERT_TRUE(Shell(sine + tags + dir.file("song.flac")));
    ASSERT_TRUE(Shell(sine + "-c:a libvorbis" + tags + dir.file("song.ogg")));
    for (const char* name : {"song.mp3", "song.flac", "song.ogg"}) {
        Json::Value v = Here(dir, name, 5);
        EXPECT_EQ(v["MEDIA_TYPE"].asInt(), 5) << name;
        EXPECT_EQ(v["TITLE"].asString(), "Song") << name;
        EXPECT_EQ(v["ARTIST"].asString(), "Band") << name;
        EXPECT_EQ(v["ALBUM"].asString(), "LP") << name;
        EXPECT_EQ(v["GENRE"].asString(), "Rock") << name;
        EXPECT_EQ(v["COMPOSER"].asString(), "Writer") << name;
        EXPECT_EQ(v["YEAR"].asString(), "2019") << name;
        EXPECT_EQ(v["COPYRIGHT"].asString(), "Me") << name;
        EXPECT_EQ(v["TRACK_NUM"].asString(), "3/12") << name;
        EXPECT_EQ(v["SAMPLERATE"].asInt(), 44100) << name;
        EXPECT_EQ(v["CHANNEL"].asInt(), 2) << name;
        EXPECT_NEAR(v["DURATION"].asInt(), 2000, 60) << name;
        EXPECT_GT(v["BITRATE"].asInt(), 0) << name;
        EXPECT_FALSE(v.isMember("WIDTH")) << name;
    }
    // TagLib's average over the file, as ffprobe's format bit rate (128k + tag).
    EXPECT_NEAR(Here(dir, "song.mp3", 5)["BITRATE"].asInt(), 128000, 4000);

    // ID3v1 only, Latin-1 title: converted to UTF-8.
    std::string bare = dir.file("bare.mp3");
    ASSERT_TRUE(Shell(sine + "-b:a 64k -map_metadata -1 -id3v2_version 0 -write_xing 0 " + bare));
    std::string id3v1(128, '\0');
    id3v1.replace(0, 3, "TAG");
    id3v1.replace(3, 5, "Caf\xE9!");
    id3v1[127] = static_cast<char>(255);
    WriteBytes(dir.file("v1.mp3"), ReadBytes(bare) + id3v1);
    EXPECT_EQ(Here(dir, "v1.mp3", 5)["TITLE"].asString(), "Caf\xC3\xA9!");

    // Video: tags from the container; bitrate, duration and size not read.
    const std::string clip = "ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=10 -t 1 -c:v mpeg4 "
                             "-metadata title=Clip -metadata artist=Cast -metadata date=2020-05-04 ";
    ASSERT_TRUE(Shell(clip + "-metadata copyright=Studio " + dir.file("clip.mp4")));
    ASSERT_TRUE(Shell(clip + dir.file("clip.mkv")));
    for (const char* name : {"clip.mp4", "clip.mkv"}) {
        Json::Value v = Here(dir, name, 3);
        EXPECT_EQ(v["MEDIA_TYPE"].asInt(), 3) << name;
        EXPECT_EQ(v["TITLE"].asString(), "Clip") << name;
        EXPECT_EQ(v["ARTIST"].asString(), "Cast") << name;
        EXPECT_EQ(v["YEAR"].asString(), "2020") << name;
        for (const char* key : {"BITRATE", "DURATION", "WIDTH", "HEIGHT"}) EXPECT_EQ(v[key].asInt(), 0) << key;
        EXPECT_FALSE(v.isMember("SAMPLERATE")) << name;
        EXPECT_EQ(v.size(), 19u) << name;
    }
    EXPECT_EQ(Here(dir, "clip.mp4", 3)["COPYRIGHT"].asString(), "Studio");
}

TEST(Extractor, TextsAreUtf8AndNamesStayDistinct) {
    EXPECT_EQ(CMOXExtractor::TextToUtf8("plain"), "plain");
    EXPECT_EQ(CMOXExtractor::TextToUtf8(std::string("a\0b", 3)), "ab");
    EXPECT_EQ(CMOXExtractor::TextToUtf8("\xFF\xE9"), "\xC3\xBF\xC3\xA9");
    std::string cut = CMOXExtractor::TextToUtf8(std::string(2000, '\xE9'), 101);
    EXPECT_LE(cut.size(), 101u);
    EXPECT_TRUE(g_utf8_validate(cut.data(), cut.size(), nullptr));

    // Valid names are untouched; bad bytes and backslashes are escaped, so a
    // name with a bad byte never equals a name spelling out the escape.
    EXPECT_EQ(CMOXExtractor::FileNameToUtf8("Fête.jpg"), "Fête.jpg");
    std::string bad = CMOXExtractor::FileNameToUtf8("a\xE9.jpg");
    std::string spelled = CMOXExtractor::FileNameToUtf8("a\\xE9.jpg");
    EXPECT_EQ(bad, "a\\xE9.jpg");
    EXPECT_EQ(spelled, "a\\x5CxE9.jpg");
    EXPECT_NE(bad, spelled);
    EXPECT_TRUE(g_utf8_validate(bad.data(), bad.size(), nullptr));

    // A file with such a name: JSON text valid UTF-8 and names escaped.
    moxtest::TempDir dir;
    std::string name = "caf\xE9\xFF.plt";
    WriteBytes(dir.file(name), "x");
    CMOXExtractor extractor(dir.path(), name, 12);
    media_info_s info;
    ASSERT_TRUE(extractor.ExtractHere(info));
    std::string text = extractor.ToString(info);
    EXPECT_TRUE(g_utf8_validate(text.data(), text.size(), nullptr));
    EXPECT_EQ(Parse(text)["DISPLAY_NAME"].asString(), "caf\\xE9\\xFF.plt");

    // Answers from the helper are checked before use.
    media_info_s sample;
    sample.strTitle = "T";
    sample.nWidth = 7;
    std::string msg = mox_extract_wire::EncodeAnswer(sample);
    media_info_s decoded;
    ASSERT_TRUE(mox_extract_wire::DecodeAnswer(msg, decoded));
    EXPECT_EQ(decoded.strTitle, "T");
    EXPECT_EQ(decoded.nWidth, 7);
    for (size_t len = 0; len < msg.size(); len += 3)
        EXPECT_FALSE(mox_extract_wire::DecodeAnswer(msg.substr(0, len), decoded)) << len;
    EXPECT_FALSE(mox_extract_wire::DecodeAnswer(msg + "x", decoded));
    std::string hugeLength = msg;
    hugeLength[4] = '\xFF';
    hugeLength[5] = '\xFF';
    EXPECT_FALSE(mox_extract_wire::DecodeAnswer(hugeLength, decoded));
}
