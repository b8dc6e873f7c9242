// Metadata extraction on media generated here with ImageMagick, exiftool and
// ffmpeg: the record and JSON rules in-process; then through the real
// mox-extract helper: same results, files that crash or stall it fail alone,
// files are confined below the USB root, and the helper does not run as root.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <glib.h>
#include <json/json.h>

#include "mox_extract_client.h"
#include "mox_extract_wire.h"
#include "mox_extractor.h"
#include "scan_tree.h"

using moxtest::ReadTextFile;
using moxtest::Shell;
using moxtest::WriteTextFile;
using scantest::HelperPids;

namespace {

Json::Value Parse(const std::string& text) {
    Json::Value root;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) << text;
    return root;
}

Json::Value Here(const moxtest::TempDir& dir, const std::string& name, int type, media_info_s* out = nullptr) {
    CMOXExtractor extractor(dir.path(), name, type);
    media_info_s info;
    EXPECT_TRUE(extractor.ExtractHere(info)) << name;
    if (out) *out = info;
    return Parse(extractor.ToString(info));
}

}  // namespace

TEST(Extractor, PhotoTagsFollowTheRules) {
    REQUIRE_TOOLS("convert", "exiftool");
    moxtest::TempDir dir;
    std::string plain = dir.file("plain.jpg");
    ASSERT_TRUE(Shell("convert -size 64x48 xc:red -strip " + plain));
    auto tagged = [&](const std::string& name, const std::string& args) {
        std::string path = dir.file(name);
        EXPECT_TRUE(Shell("cp " + plain + " " + path + " && exiftool -q -overwrite_original " + args + " " + path));
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
    EXPECT_EQ(none["TITLE"].asString(), "Unknown");
    EXPECT_EQ(none["DATE_TAKEN"].asString(), "Unknown");
    EXPECT_EQ(none["EXPOSURE_TIME"].asString(), "");
    EXPECT_EQ(none["FNUMBER"].asDouble(), 0.0);
    EXPECT_EQ(none["WIDTH"].asInt(), 0);
    EXPECT_EQ(none["SIZE"].asUInt64(), ReadTextFile(plain).size());
    EXPECT_FALSE(none.isMember("LATITUDE") || none.isMember("ISO") || none.isMember("ALBUM"));

    media_info_s info;
    Json::Value full = Here(dir, "full.jpg", 2, &info);
    EXPECT_EQ(full["DATE_TAKEN"].asString(), "2016:03:05 10:11:12");
    EXPECT_EQ(full["EXPOSURE_TIME"].asString(), "1/125");
    EXPECT_NEAR(full["FNUMBER"].asDouble(), 2.8, 1e-6);
    EXPECT_EQ(full["ORIENTATION"].asInt(), 6);
    EXPECT_EQ(full["HEIGHT"].asInt(), 48);
    // South and west negate; kept in the record, not sent.
    EXPECT_NEAR(info.dLatitude, -33.5, 1e-6);
    EXPECT_NEAR(info.dLongitude, -70.25, 1e-6);
    EXPECT_EQ(info.nISOSpeed, 200);
    EXPECT_EQ(full.size(), 14u);

    Here(dir, "north.jpg", 2, &info);
    EXPECT_NEAR(info.dLatitude, 10.0, 1e-6);
    EXPECT_NEAR(info.dLongitude, 20.0, 1e-6);

    EXPECT_EQ(Here(dir, "orient9.jpg", 2)["ORIENTATION"].asInt(), 0);  // out of range

    // A real DateTime never replaces "Unknown" (the inverted fallback).
    EXPECT_EQ(Here(dir, "modify-only.jpg", 2)["DATE_TAKEN"].asString(), "Unknown");

    // A stray Latin-1 byte in an EXIF text arrives as UTF-8.
    EXPECT_EQ(Here(dir, "latin1.jpg", 2)["MODEL"].asString(), "Caf\xC3\xA9");
}

TEST(Extractor, BasicInformationTypesAndTime) {
    moxtest::TempDir dir;
    std::string list = dir.file("list.plt");
    WriteTextFile(list, "one\ntwo\n");
    // 2016-02-29 20:00 UTC is already March 1st at UTC+9.
    const time_t march = 1456776000;
    struct timeval times[2] = {{march, 0}, {march, 0}};
    ASSERT_EQ(utimes(list.c_str(), times), 0);
    const char* oldTz = getenv("TZ");
    const std::string savedTz = oldTz ? oldTz : "";
    setenv("TZ", "JST-9", 1);
    tzset();
    Json::Value plt = Here(dir, "list.plt", 12);
    oldTz ? setenv("TZ", savedTz.c_str(), 1) : unsetenv("TZ");
    tzset();
    EXPECT_EQ(plt["MODIFIED_MONTH"].asString(), "201603");
    EXPECT_EQ(plt["MODIFIED_TIME"].asInt64(), march);

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
        std::string texts;
        for (const char* key : {"TITLE", "ARTIST", "ALBUM", "GENRE", "COMPOSER", "YEAR", "COPYRIGHT", "TRACK_NUM"})
            texts += v[key].asString() + "|";
        EXPECT_EQ(texts, "Song|Band|LP|Rock|Writer|2019|Me|3/12|") << name;
        EXPECT_EQ(v["SAMPLERATE"].asInt(), 44100) << name;
        EXPECT_EQ(v["CHANNEL"].asInt(), 2) << name;
        EXPECT_NEAR(v["DURATION"].asInt(), 2000, 60) << name;
        EXPECT_FALSE(v.isMember("WIDTH")) << name;
    }
    EXPECT_NEAR(Here(dir, "song.mp3", 5)["BITRATE"].asInt(), 128000, 4000);  // average over the file

    // ID3v1 only, Latin-1 title: converted to UTF-8.
    std::string bare = dir.file("bare.mp3");
    ASSERT_TRUE(Shell(sine + "-b:a 64k -map_metadata -1 -id3v2_version 0 -write_xing 0 " + bare));
    std::string id3v1(128, '\0');
    id3v1.replace(0, 3, "TAG");
    id3v1.replace(3, 5, "Caf\xE9!");
    id3v1[127] = static_cast<char>(255);
    WriteTextFile(dir.file("v1.mp3"), ReadTextFile(bare) + id3v1);
    EXPECT_EQ(Here(dir, "v1.mp3", 5)["TITLE"].asString(), "Caf\xC3\xA9!");

    // Video: tags from the container; bitrate, duration and size not read.
    const std::string clip =
        "ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=10 -t 1 -c:v mpeg4 "
        "-metadata title=Clip -metadata artist=Cast -metadata date=2020-05-04 ";
    ASSERT_TRUE(Shell(clip + "-metadata copyright=Studio " + dir.file("clip.mp4")));
    ASSERT_TRUE(Shell(clip + dir.file("clip.mkv")));
    for (const char* name : {"clip.mp4", "clip.mkv"}) {
        Json::Value v = Here(dir, name, 3);
        EXPECT_EQ(v["TITLE"].asString() + v["ARTIST"].asString() + v["YEAR"].asString(), "ClipCast2020") << name;
        for (const char* key : {"BITRATE", "DURATION", "WIDTH", "HEIGHT"}) EXPECT_EQ(v[key].asInt(), 0) << key;
        EXPECT_FALSE(v.isMember("SAMPLERATE")) << name;
        EXPECT_EQ(v.size(), 19u) << name;
    }
    EXPECT_EQ(Here(dir, "clip.mp4", 3)["COPYRIGHT"].asString(), "Studio");
}

TEST(Extractor, TextsAreUtf8AndNamesStayDistinct) {
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
    WriteTextFile(dir.file(name), "x");
    CMOXExtractor extractor(dir.path(), name, 12);
    media_info_s info;
    ASSERT_TRUE(extractor.ExtractHere(info));
    std::string text = extractor.ToString(info);
    EXPECT_TRUE(g_utf8_validate(text.data(), text.size(), nullptr));
    EXPECT_EQ(Parse(text)["DISPLAY_NAME"].asString(), "caf\\xE9\\xFF.plt");

    // Answers from the helper are checked before use.
    media_info_s sample, decoded;
    sample.strTitle = "T";
    std::string msg = mox_extract_wire::EncodeAnswer(sample);
    ASSERT_TRUE(mox_extract_wire::DecodeAnswer(msg, decoded));
    EXPECT_EQ(decoded.strTitle, "T");
    decoded.strTitle = "kept";
    for (size_t len = 0; len < msg.size(); len += 3)
        EXPECT_FALSE(mox_extract_wire::DecodeAnswer(msg.substr(0, len), decoded)) << len;
    EXPECT_FALSE(mox_extract_wire::DecodeAnswer(msg + "x", decoded));
    EXPECT_FALSE(mox_extract_wire::DecodeAnswer(std::string(msg).replace(4, 2, "\xFF\xFF"), decoded));
    EXPECT_EQ(decoded.strTitle, "kept");  // nothing of a refused answer is stored
    // A helper's invalid text (the title's one byte, after the 12-byte header
    // and its length) arrives as valid UTF-8.
    ASSERT_TRUE(mox_extract_wire::DecodeAnswer(std::string(msg).replace(16, 1, "\xFF"), decoded));
    EXPECT_EQ(decoded.strTitle, "\xC3\xBF");
}

namespace {

class ExtractHelper : public scantest::HelperSuite {
protected:
    // The JSON text through the helper, or "" when Extract fails.
    static std::string Helper(const std::string& name, int type) {
        CMOXExtractor extractor(s_dir->path(), name, type);
        media_info_s info;
        return extractor.Extract(info) ? extractor.ToString(info) : std::string();
    }
    static std::string InProcess(const std::string& name, int type) {
        CMOXExtractor extractor(s_dir->path(), name, type);
        media_info_s info;
        return extractor.ExtractHere(info) ? extractor.ToString(info) : std::string();
    }
};

}  // namespace

TEST_F(ExtractHelper, HostileFilesFailAloneAndAreNotRetried) {
    std::string good = Helper("east.jpg", 2);
    ASSERT_FALSE(good.empty());

    // Corrupt contents: the record still comes back, with defaults.
    std::string jpeg = ReadTextFile(s_dir->file("east.jpg"));
    WriteTextFile(s_dir->file("truncated.jpg"), jpeg.substr(0, jpeg.size() / 3));
    std::string mp3 = ReadTextFile(s_dir->file("tune.mp3"));
    WriteTextFile(s_dir->file("truncated.mp3"), mp3.substr(0, 700));
    std::mt19937 rng(7);
    std::string noise(64 * 1024, '\0');
    for (char& c : noise) c = static_cast<char>(rng());
    for (auto [name, type] : {std::pair<const char*, int>{"truncated.jpg", 2},
                              {"truncated.mp3", 5},
                              {"noise.jpg", 2},
                              {"noise.mkv", 3},
                              {"noise.flac", 5},
                              {"noise.ogg", 5}}) {
        if (name[0] == 'n') WriteTextFile(s_dir->file(name), noise);
        EXPECT_FALSE(Helper(name, type).empty()) << name;
    }

    // A crash fails that file only; the next file gets a fresh helper.
    WriteTextFile(s_dir->file("mox-extract-crash.jpg"), jpeg);
    EXPECT_EQ(Helper("mox-extract-crash.jpg", 2), "");
    EXPECT_TRUE(HelperPids().empty());
    EXPECT_EQ(Helper("east.jpg", 2), good);

    // Remembered: not handed to the helper again (no helper restart).
    std::vector<pid_t> before = HelperPids();
    EXPECT_EQ(Helper("mox-extract-crash.jpg", 2), "");
    EXPECT_EQ(HelperPids(), before);

    // The same name with other contents (size changes) is parsed again.
    WriteTextFile(s_dir->file("mox-extract-crash.jpg"), jpeg + "tail");
    EXPECT_EQ(Helper("mox-extract-crash.jpg", 2), "");

    // No helper to be had: the basic record only, and no crash.
    setenv("MOX_EXTRACT_HELPER", (s_dir->path() + "/no-such-helper").c_str(), 1);
    std::string basic = Helper("east.jpg", 2);
    setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 1);
    EXPECT_NE(basic.find("\"MODEL\":\"\""), std::string::npos) << basic;
    EXPECT_NE(basic.find("\"DISPLAY_NAME\":\"east.jpg\""), std::string::npos) << basic;
    EXPECT_EQ(Helper("east.jpg", 2), good);
}

// A link out of the root and a FIFO: basic record only, nothing blocks.
TEST_F(ExtractHelper, OnlyRegularFilesBelowTheUsbRoot) {
    moxtest::TempDir outside;
    Shell("cp " + s_dir->file("east.jpg") + " " + outside.file("secret.jpg"));
    std::string link = s_dir->file("link.jpg");
    ASSERT_EQ(symlink(outside.file("secret.jpg").c_str(), link.c_str()), 0);
    std::string viaLink = Helper("link.jpg", 2);
    EXPECT_NE(viaLink.find("\"MODEL\":\"\""), std::string::npos) << viaLink;

    std::string fifo = s_dir->file("pipe.mp3");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Helper("pipe.mp3", 5).empty());
    EXPECT_FALSE(InProcess("pipe.mp3", 5).empty());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    unlink(fifo.c_str());
    unlink(link.c_str());
}

// The helper's answers equal the in-process ones, under concurrent callers.
TEST_F(ExtractHelper, ConcurrentCallersShareOneUnprivilegedHelper) {
    const std::string photo = InProcess("east.jpg", 2), tune = InProcess("tune.mp3", 5);
    std::vector<std::thread> threads;
    std::atomic<int> mismatches{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 10; ++i)
                mismatches += (Helper("east.jpg", 2) != photo) + (Helper("tune.mp3", 5) != tune);
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(mismatches.load(), 0);
    // One helper serves every file, and it does not run as root.
    std::vector<pid_t> pids = HelperPids();
    ASSERT_EQ(pids.size(), 1u);
    if (getuid() == 0) {
        std::string status = ReadTextFile("/proc/" + std::to_string(pids[0]) + "/status") + "\nUid:";
        int real = 0, effective = 0;
        sscanf(status.c_str() + status.find("\nUid:"), "\nUid:\t%d\t%d", &real, &effective);
        EXPECT_TRUE(real != 0 && effective != 0) << real << " " << effective;
    }
}

// The helper may not grow files: its warnings to a stderr that is a regular
// file must fail quietly, not kill it.
TEST_F(ExtractHelper, HelperSurvivesLoggingToARegularFile) {
    WriteTextFile(s_dir->file("mox-extract-crash-restart.jpg"), "x");
    EXPECT_EQ(Helper("mox-extract-crash-restart.jpg", 2), "");  // next helper inherits the new stderr
    moxtest::TempDir logDir;
    int saved = dup(STDERR_FILENO);
    ASSERT_GE(saved, 0);
    FILE* log = fopen(logDir.file("stderr.log").c_str(), "w");
    ASSERT_NE(log, nullptr);
    dup2(fileno(log), STDERR_FILENO);
    Shell("convert -size 8x8 xc:white -strip " + s_dir->file("bare.jpg"));
    std::string first = Helper("bare.jpg", 2);  // "There is no exif data" warning
    std::vector<pid_t> pids = HelperPids();
    std::string second = Helper("tune.mp3", 5);
    dup2(saved, STDERR_FILENO);
    close(saved);
    fclose(log);
    EXPECT_NE(first.find("\"DATE_TAKEN\":\"Unknown\""), std::string::npos) << first;
    EXPECT_FALSE(second.empty());
    EXPECT_EQ(pids.size(), 1u);
    EXPECT_EQ(HelperPids(), pids);
}

TEST_F(ExtractHelper, StalledHelperDiesWithTheDaemon) {
    // No helper of ours may be running when the process forks: the child
    // must start its own.
    WriteTextFile(s_dir->file("mox-extract-crash-fork.jpg"), "x");
    EXPECT_EQ(Helper("mox-extract-crash-fork.jpg", 2), "");
    WriteTextFile(s_dir->file("mox-extract-hang-fork.mp3"), "x");
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // The "daemon" is killed while its helper is stalled on a file.
        signal(SIGALRM, SIG_DFL);
        alarm(1);
        Helper("mox-extract-hang-fork.mp3", 5);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) << status;

    // The orphaned helper, if any, would be stalled with this test's root.
    auto orphans = [] {
        std::vector<pid_t> found;
        DIR* proc = opendir("/proc");
        while (struct dirent* e = proc ? readdir(proc) : nullptr) {
            pid_t pid = atoi(e->d_name);
            if (pid <= 0 || ReadTextFile("/proc/" + std::string(e->d_name) + "/comm") != "mox-extract\n") continue;
            std::string env = ReadTextFile("/proc/" + std::string(e->d_name) + "/environ");
            if (env.find("MOX_USB_ROOT=" + s_dir->path() + std::string(1, '\0')) != std::string::npos)
                found.push_back(pid);
        }
        if (proc) closedir(proc);
        return found;
    };
    auto until = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!orphans().empty() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    std::vector<pid_t> left = orphans();
    for (pid_t pid : left) kill(pid, SIGKILL);
    EXPECT_TRUE(left.empty());
}
