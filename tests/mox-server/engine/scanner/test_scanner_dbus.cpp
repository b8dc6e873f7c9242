// Device checks and folder thumbnails end to end: the daemon on a private bus,
// sticks plugged through the simulated USB service, real trees as mounts.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "engine_fixture.h"

using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::Parse;
using moxtest::SignalCollector;
using moxtest::WriteTextFile;

namespace {

void Touch(const std::string& path) {
    ASSERT_TRUE(WriteTextFile(path, "x"));
}

// (started, id) of start_scanner.
std::pair<bool, guint32> StartScanner(EngineHarness& h, const char* kind, const std::string& param) {
    CallResult r = h.Call("start_scanner", g_variant_new("(ss)", kind, param.c_str()));
    gboolean started = FALSE;
    guint32 id = 99;
    EXPECT_TRUE(r.ok()) << r.error;
    if (r.ok()) g_variant_get(r.reply.get(), "(bu)", &started, &id);
    return {started != FALSE, id};
}

bool StartThumb(EngineHarness& h, const std::string& folder, const char* category, guint32 count, guint32 pid) {
    CallResult r = h.Call("start_scanner_thumb", g_variant_new("(ssuu)", folder.c_str(), category, count, pid));
    EXPECT_TRUE(r.ok()) << r.error;
    gboolean started = FALSE;
    if (r.ok()) g_variant_get(r.reply.get(), "(b)", &started);
    return started != FALSE;
}

struct ScanDone {
    guint32 code, type;
    std::string base, name, media;
};

// mox_scanner_done signals by scanner id.
std::map<guint32, ScanDone> ScanResults(const SignalCollector& signals) {
    std::map<guint32, ScanDone> out;
    for (const auto* s : signals.Named("mox_scanner_done")) {
        guint32 id, code, type;
        const gchar *base, *name, *media;
        g_variant_get(s->params.get(), "(uuu&s&s&s)", &id, &code, &type, &base, &name, &media);
        out[id] = ScanDone{code, type, base, name, media};
    }
    return out;
}

}  // namespace

TEST(EngineScanner, DeviceChecksAndFolderThumbnails) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    SignalCollector signals(h.Client());
    std::string none = h.Plug("sda1");
    Touch(none + "/readme.txt");
    std::filesystem::create_directories(none + "/System Volume Information");
    Touch(none + "/System Volume Information/skipped.mp3");
    std::string one = h.Plug("sdb1");
    std::filesystem::create_directories(one + "/DCIM/100");
    const std::string oddName = "caf\xe9-\xff.jpg";  // not UTF-8
    Touch(one + "/DCIM/100/" + oddName);
    std::string several = h.Plug("sdc1");
    for (int i = 0; i < 500; ++i) Touch(several + "/m" + std::to_string(i) + ".mp3");

    guint32 id = 1;
    for (const std::string& root : {none, one, several + "/"}) {
        auto started = StartScanner(h, "check_device", root);
        EXPECT_TRUE(started.first);
        EXPECT_EQ(started.second, id++);
    }
    ASSERT_TRUE(signals.WaitFor("mox_scanner_done", 3));
    auto results = ScanResults(signals);
    EXPECT_EQ(results[1].code, 24u);
    EXPECT_EQ(results[1].base + results[1].name + results[1].media, "");
    EXPECT_EQ(results[2].code, 25u);
    EXPECT_EQ(results[2].type, 2u);
    EXPECT_EQ(results[2].base, one + "/DCIM/100");
    EXPECT_EQ(results[2].name, "caf\\xE9-\\xFF.jpg");  // bytes that are not UTF-8, escaped
    EXPECT_EQ(Parse(results[2].media)["MEDIA_TYPE"].asInt(), 2);
    EXPECT_EQ(results[3].code, 26u);
    EXPECT_EQ(results[3].base + results[3].name, "");

    // Paths that do not resolve below the USB root, other kinds, and junk.
    ASSERT_EQ(symlink("/etc", (h.UsbRoot() + "/evil").c_str()), 0);
    for (const std::string& bad : {std::string("/etc"), h.UsbRoot() + "/evil", h.UsbRoot() + "/sda1/../..", h.UsbRoot(),
                                   std::string(""), h.UsbRoot() + "/missing"}) {
        auto r = StartScanner(h, "check_device", bad);
        EXPECT_FALSE(r.first) << bad;
        EXPECT_EQ(r.second, 0u);
    }
    EXPECT_FALSE(StartScanner(h, "scan_folder", none).first);
    EXPECT_FALSE(StartScanner(h, "other", none).first);

    // Stopped scanners go; ids are never reused.
    for (guint32 stopped : {1u, 2u, 3u, 77u, 4294967295u})
        EXPECT_TRUE(h.Call("stop_scanner", g_variant_new("(u)", stopped)).ok());
    // (Refused starts had ids of their own: the scanner is made before its
    // folder is looked up, off the main loop.)
    EXPECT_GT(StartScanner(h, "check_device", one).second, 3u);
    ASSERT_TRUE(signals.WaitFor("mox_scanner_done", 4));

    // Folder thumbnails: files, folders only, nothing.
    std::string mount = h.Plug("sdd1");
    std::filesystem::create_directories(mount + "/Photos/2015");
    for (int i = 0; i < 30; ++i) Touch(mount + "/Photos/2015/p" + std::to_string(i) + ".jpg");
    Touch(mount + "/Photos/2015/song.mp3");
    std::filesystem::create_directories(mount + "/Dirs/inner");
    std::filesystem::create_directories(mount + "/Empty");

    ASSERT_TRUE(StartThumb(h, mount + "/Photos/2015", "CONTENT-IMAGE", 4, 42));
    ASSERT_TRUE(StartThumb(h, mount + "/Dirs", "CONTENT-IMAGE", 4, 42));
    ASSERT_TRUE(StartThumb(h, mount + "/Empty", "CONTENT-ALL", 4, 42));
    ASSERT_TRUE(signals.WaitFor("mox_folder_thumb_done", 3));
    auto done = signals.Named("mox_folder_thumb_done");
    Json::Value files = Parse(done[0]->text());
    EXPECT_EQ(files["mox_folder_thumbnail_path"].asString(), mount + "/Photos/2015");
    EXPECT_EQ(files["mox_folder_thumbnail_request_num"].asUInt(), 4u);
    // The folder's answer is a JSON text inside the JSON text.
    auto inner = [&](size_t i) { return Parse(Parse(done[i]->text())["mox_folder_thumbnail_data"].asString()); };
    Json::Value items = inner(0)["mox_folder_thumbnail_items"];
    EXPECT_EQ(inner(0)["mox_folder_thumbnail_type"].asInt(), 0);
    ASSERT_EQ(items.size(), 4u);
    for (const auto& item : items) EXPECT_EQ(item.asString().rfind(mount + "/Photos/2015/p", 0), 0u) << item;
    EXPECT_EQ(inner(1)["mox_folder_thumbnail_type"].asInt(), 1);
    EXPECT_EQ(inner(2)["mox_folder_thumbnail_type"].asInt(), 2);
    EXPECT_FALSE(inner(2).isMember("mox_folder_thumbnail_items"));

    // Refusals.
    for (const std::string& bad : {std::string("/opt/media/Photos"), mount + "/../../..", mount + "/nothing"})
        EXPECT_FALSE(StartThumb(h, bad, "CONTENT-IMAGE", 4, 1)) << bad;
    EXPECT_FALSE(StartThumb(h, mount + "/Photos", "CONTENT-IMAGE", 0, 1));
    EXPECT_TRUE(h.Call("stop_scanner_thumb", g_variant_new("(ssuu)", "/x", "y", 1u, 2u)).ok());
    signals.Drain(std::chrono::milliseconds(200));
    EXPECT_EQ(signals.Named("mox_folder_thumb_done").size(), 3u);
    EXPECT_EQ(h.Stop(), 0);
}

namespace {

// A folder of many files that are no media: a walk spends a while in it.
void FillWithNonMedia(const std::string& dir, int count) {
    std::filesystem::create_directories(dir);
    for (int i = 0; i < count; ++i) {
        int fd = open((dir + "/n" + std::to_string(i) + ".txt").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        ASSERT_GE(fd, 0);
        close(fd);
    }
}

}  // namespace

// Folders swapped for links to the outside while a device check walks and
// while a thumbnail request waits in the queue: the answers name nothing
// outside the USB root, neither a name nor a size or time.
TEST(EngineScannerSecurity, LinksSwappedInMidScanLeadNowhere) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    SignalCollector signals(h.Client());
    const std::string outside = h.Path("outside");
    std::filesystem::create_directories(outside + "/b");
    std::filesystem::create_directories(outside + "/y");
    ASSERT_TRUE(WriteTextFile(outside + "/b/secret.jpg", std::string(12345, 's')));
    ASSERT_TRUE(WriteTextFile(outside + "/y/secret.jpg", "s"));
    std::string mount = h.Plug("sdg1");

    // Device check: "a" is read through its descriptor while it is renamed
    // away and replaced by a link; its subfolder "b", found in the real "a",
    // must not be entered through the link.
    FillWithNonMedia(mount + "/a", 40000);
    std::filesystem::create_directories(mount + "/a/b");
    auto check = StartScanner(h, "check_device", mount);
    ASSERT_TRUE(check.first);
    ASSERT_TRUE(h.WaitForLog("Enter DIR : " + mount + "/a"));
    ASSERT_EQ(rename((mount + "/a").c_str(), (mount + "/a.real").c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), (mount + "/a").c_str()), 0);
    ASSERT_TRUE(signals.WaitFor("mox_scanner_done", 1));
    ScanDone done = ScanResults(signals)[check.second];
    EXPECT_EQ(done.code, 24u) << done.base << "/" << done.name;
    EXPECT_EQ(done.base + done.name + done.media, "");
    EXPECT_EQ(done.media.find("12345"), std::string::npos);

    // Thumbnails: a slow request holds the thread while the folder of the
    // next one is swapped for a link out of the root.
    FillWithNonMedia(mount + "/slow", 40000);
    std::filesystem::create_directories(mount + "/x/y");
    Touch(mount + "/x/y/inside.jpg");
    ASSERT_TRUE(StartThumb(h, mount + "/slow", "CONTENT-IMAGE", 4, 1));
    ASSERT_TRUE(StartThumb(h, mount + "/x/y", "CONTENT-IMAGE", 4, 2));
    ASSERT_EQ(rename((mount + "/x").c_str(), (mount + "/x.real").c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), (mount + "/x").c_str()), 0);
    ASSERT_TRUE(signals.WaitFor("mox_folder_thumb_done", 2));
    for (const auto* s : signals.Named("mox_folder_thumb_done")) {
        EXPECT_EQ(s->text().find("secret"), std::string::npos) << s->text();
        EXPECT_EQ(s->text().find(outside), std::string::npos) << s->text();
    }
    // A link that stays below the root is no way out either: neither a
    // request nor a check naming one through an outside link starts.
    EXPECT_FALSE(StartThumb(h, mount + "/x/y", "CONTENT-IMAGE", 4, 3));
    EXPECT_FALSE(StartScanner(h, "check_device", mount + "/x").first);
    EXPECT_EQ(h.Stop(), 0);
}

// Work belongs to the client that started it (as the bus tells who calls):
// another user may not stop it, root may. A client leaving the bus gives its
// slots back at once. (The shares themselves are the scan manager's and the
// thumbnail scanner's, in test_scanner_threads.)
TEST(EngineScannerSecurity, OwnershipAndClientsLeaving) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    SignalCollector signals(h.Client());
    ASSERT_EQ(chmod(h.Path("").c_str(), 0711), 0);  // lets the other user reach the bus socket
    std::string mount = h.Plug("sdh1");
    FillWithNonMedia(mount + "/slow", 25000);
    std::filesystem::create_directories(mount + "/small");
    Touch(mount + "/small/p.jpg");

    // Another user's stops are refused, each with one warning, and the
    // owner's answers still come. Root may stop anyone's.
    for (int i = 0; i < 2; ++i) ASSERT_TRUE(StartThumb(h, mount + "/slow", "CONTENT-IMAGE", 4, 100 + i));
    ASSERT_TRUE(StartThumb(h, mount + "/small", "CONTENT-IMAGE", 4, 7));
    auto check = StartScanner(h, "check_device", mount);
    ASSERT_TRUE(check.first);
    if (EngineHarness::CanCallAsUser()) {
        EXPECT_TRUE(h.CallAsUser(65534, "stop_scanner_thumb",
                                 g_variant_new("(ssuu)", (mount + "/small").c_str(), "CONTENT-IMAGE", 4u, 7u))
                        .ok());
        EXPECT_TRUE(h.CallAsUser(65534, "stop_scanner", g_variant_new("(u)", check.second)).ok());
    }
    const size_t nRefused = EngineHarness::CanCallAsUser() ? 1 : 0;
    EXPECT_EQ(h.CountLog("refused: the request is another client's"), nRefused);
    EXPECT_EQ(h.CountLog("refused: the scanner is another client's"), nRefused);
    ASSERT_TRUE(signals.WaitFor("mox_folder_thumb_done", 3));
    EXPECT_EQ(Parse(signals.Named("mox_folder_thumb_done")[2]->text())["mox_folder_thumbnail_path"].asString(),
              mount + "/small");
    ASSERT_TRUE(signals.WaitFor("mox_scanner_done", 1));
    EXPECT_EQ(ScanResults(signals)[check.second].code, 25u);
    moxtest::ConnectionPtr other = h.Connect();  // root, another client
    EXPECT_TRUE(h.Call("stop_scanner", g_variant_new("(u)", check.second), other.get()).ok());
    EXPECT_EQ(h.CountLog("refused: the scanner is another client's"), nRefused);

    // 70 clients that leave right after start_scanner, more than the 64
    // scanners there may be: each gives its slot back, so none is refused.
    for (int i = 0; i < 70; ++i) {
        moxtest::ConnectionPtr leaver = h.Connect();
        CallResult r =
            h.Call("start_scanner", g_variant_new("(ss)", "check_device", (mount + "/small").c_str()), leaver.get());
        gboolean started = FALSE;
        guint32 id = 0;
        if (r.ok()) g_variant_get(r.reply.get(), "(bu)", &started, &id);
        EXPECT_TRUE(started) << i << " " << r.error;
        g_dbus_connection_close_sync(leaver.get(), nullptr, nullptr);
    }
    EXPECT_TRUE(StartScanner(h, "check_device", mount).first);
    EXPECT_EQ(h.Stop(), 0);
}
