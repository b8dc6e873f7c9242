// A stick's worst day, end to end against the real daemon: killed with
// SIGKILL and started again on the same paths; storages (a FUSE file system)
// that fail reads with EIO; folders holding links, FIFOs and names that are
// not UTF-8.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "bus_client.h"
#include "fault_mounts.h"

using moxtest::EngineHarness;
using moxtest::WriteTextFile;

namespace {

using moxtest::ListNames;
using moxtest::Parse;

// One client of the local source: lists a folder, returns the completion.
struct Lister : moxtest::BusClient {
    explicit Lister(EngineHarness& h) : BusClient(h), handle(Connect("libmox_local_source.so")) {}
    Json::Value List(const std::string& folder) { return ListNext(handle, moxtest::LocalListDoc(folder)); }
    guint32 handle;
};

}  // namespace

// kill -9 leaves the dead instance's objects and half-written temporary files;
// the next start removes exactly those, lists work again and a clean stop
// leaves nothing.
TEST(RestartFaults, KilledEngineLeavesNothingForTheNext) {
    EngineHarness h;
    h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
    const std::string stick = h.Plug("sda1");
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(WriteTextFile(stick + "/p" + std::to_string(i) + ".jpg", "x"));
    std::filesystem::create_directories(stick + "/a/b");
    ASSERT_TRUE(h.Start());
    const std::string tag = std::to_string(h.Pid());
    Lister holder(h);  // holds its lists until the engine dies
    for (int i = 0; i < 20; ++i) {
        Json::Value ev = holder.List(stick);
        ASSERT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
    }
    // What an interrupted transfer and write leave, next to what is not ours.
    const std::string dead = std::to_string(h.Pid());
    const std::string live = std::to_string(getpid());
    const std::vector<std::string> stale = {stick + "/.mox-transfer-" + dead + "-3",
                                            stick + "/a/b/.p1.jpg.mox-" + dead + "-0"};
    const std::vector<std::string> kept = {stick + "/.mox-transfer-" + live + "-1", stick + "/.p2.jpg.mox-x-1",
                                           stick + "/a/.mox-transfer-" + dead + "-"};
    for (const auto& f : stale) ASSERT_TRUE(WriteTextFile(f, "partial"));
    for (const auto& f : kept) ASSERT_TRUE(WriteTextFile(f, "partial"));
    ASSERT_EQ(mkfifo((stick + "/.fifo.mox-" + dead + "-2").c_str(), 0600), 0);
    // A living instance's objects (its lock held) stay.
    ASSERT_TRUE(WriteTextFile("/dev/shm/mox_datablock_4000000000_1", "live"));
    int liveLock = open("/dev/shm/mox_lock_4000000000", O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(liveLock, 0);
    ASSERT_EQ(flock(liveLock, LOCK_EX), 0);

    kill(h.Pid(), SIGKILL);
    while (h.Running()) usleep(10000);
    EXPECT_GE(moxtest::EngineObjects(tag).size(), 21u);  // the lists nobody dropped, their blocks and the lock
    EXPECT_TRUE(moxtest::ShmExists("mox_lock_" + tag));

    ASSERT_TRUE(h.Start());
    // The sweep runs in the background: the files of dead writers go.
    for (int i = 0; i < 500 && std::filesystem::exists(stale.back()); ++i) usleep(20000);
    for (const auto& f : stale) EXPECT_FALSE(std::filesystem::exists(f)) << f;
    for (const auto& f : kept) EXPECT_TRUE(std::filesystem::exists(f)) << f;
    EXPECT_TRUE(std::filesystem::exists(stick + "/.fifo.mox-" + dead + "-2"));
    EXPECT_EQ(moxtest::EngineObjects(tag).size(), 0u);
    EXPECT_EQ(moxtest::ShmObjects("mox_datablock_4000000000_").size(), 1u);
    close(liveLock);
    std::filesystem::remove("/dev/shm/mox_lock_4000000000");
    std::filesystem::remove("/dev/shm/mox_datablock_4000000000_1");

    {
        Lister client(h);
        Json::Value ev = client.List(stick);
        EXPECT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
        EXPECT_EQ(ListNames(ev["mox_result_list_block_name"].asString()).size(), 31u);
    }
    const std::string tag2 = std::to_string(h.Pid());
    EXPECT_TRUE(std::filesystem::exists("/dev/shm/mox_lock_" + tag2));
    EXPECT_EQ(h.Stop(), 0);
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/mox_lock_" + tag2));
    EXPECT_TRUE(moxtest::ShmObjects("mox_resultlist_" + tag2 + "_").empty());
}

// A storage that fails reads: lists end with event 2 and MOX_ERROR_IO (33),
// the device check with 27, the thumbnail scan with its failure; with the
// fault gone, the same calls answer in full.
TEST(RestartFaults, ReadErrorsAreFailuresNotShorterAnswers) {
    EngineHarness h;
    h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
    std::filesystem::create_directories(h.Path("backing/dir/sub"));
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(WriteTextFile(h.Path("backing/dir/file" + std::to_string(i) + ".jpg"), "x"));
    const std::string mount = h.UsbRoot() + "/fuse1";
    std::filesystem::create_directories(mount);
    moxtest::FaultFs fs(h.Path("backing"), mount);
    if (!fs.Mounted()) GTEST_SKIP() << "FUSE not usable here: " << fs.Why();
    h.Plug("fuse1");
    ASSERT_TRUE(h.Start());
    Lister client(h);
    const std::string dir = mount + "/dir";
    size_t nChecks = 0;
    auto check = [&] {
        client.Call("start_scanner", g_variant_new("(ss)", "check_device", mount.c_str()));
        EXPECT_TRUE(client.signals().WaitFor("mox_scanner_done", ++nChecks));
        guint32 code = 0;
        g_variant_get(client.signals().Named("mox_scanner_done").back()->params.get(), "(uuu&s&s&s)", nullptr, &code,
                      nullptr, nullptr, nullptr, nullptr);
        return code;
    };
    auto thumbs = [&] {
        client.Call("start_scanner_thumb", g_variant_new("(ssuu)", dir.c_str(), "CONTENT-IMAGE", 4u, 7u));
        return Parse(client.Next("mox_folder_thumb_done")["mox_folder_thumbnail_data"].asString());
    };

    for (const char* rule : {"eio getattr /dir/file7", "eio readdir /dir"}) {
        SCOPED_TRACE(rule);
        fs.SetRules(rule);
        Json::Value ev = client.List(dir);
        EXPECT_EQ(ev["mox_event_type"].asInt(), 2) << ev.toStyledString();
        EXPECT_EQ(ev["mox_error_code"].asInt(), 33);
        EXPECT_EQ(ev["mox_result_list_block_name"].asString(), "");
    }
    fs.SetRules("eio readdir /dir");
    EXPECT_EQ(check(), 27u);
    Json::Value failed = thumbs();
    EXPECT_EQ(failed["mox_folder_thumbnail_error_code"].asInt(), 1) << failed.toStyledString();
    EXPECT_FALSE(failed.isMember("mox_folder_thumbnail_type"));
    fs.SetRules("eio opendir /dir");  // the folder itself cannot be opened
    EXPECT_EQ(thumbs()["mox_folder_thumbnail_error_code"].asInt(), 1);

    fs.SetRules("");
    Json::Value ev = client.List(dir);
    ASSERT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
    EXPECT_EQ(ListNames(ev["mox_result_list_block_name"].asString()).size(), 11u);
    EXPECT_EQ(check(), 26u);
    Json::Value full = thumbs();
    EXPECT_EQ(full["mox_folder_thumbnail_type"].asInt(), 0) << full.toStyledString();
    EXPECT_EQ(full["mox_folder_thumbnail_items"].size(), 4u);
    EXPECT_EQ(h.Stop(), 0);
}

// Thumbnail answers hold regular files only, as lists do; names that are not
// UTF-8 or hold a backslash read the same ("\xNN") in list items in shared
// memory and on the bus, quotes and tabs intact.
TEST(RestartFaults, OnlyRegularFilesAndEscapedNames) {
    EngineHarness h;
    h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
    const std::string stick = h.Plug("sdb1");
    const std::string odd = "say \"caf\xe9\"\t\\.jpg";
    ASSERT_TRUE(WriteTextFile(stick + "/a.jpg", "x"));
    ASSERT_TRUE(WriteTextFile(stick + "/" + odd, "x"));
    ASSERT_TRUE(WriteTextFile(stick + "/d\xff/b.jpg", "x"));
    std::filesystem::create_symlink("/etc/passwd", stick + "/passwd.jpg");
    ASSERT_EQ(mkfifo((stick + "/pipe.jpg").c_str(), 0600), 0);
    ASSERT_EQ(mknod((stick + "/null.jpg").c_str(), S_IFCHR | 0600, makedev(1, 3)), 0);
    ASSERT_TRUE(h.Start());
    Lister client(h);
    client.Call("start_scanner_thumb", g_variant_new("(ssuu)", stick.c_str(), "CONTENT-IMAGE", 10u, 1u));
    Json::Value inner = Parse(client.Next("mox_folder_thumb_done")["mox_folder_thumbnail_data"].asString());
    std::set<std::string> thumbs;
    for (const auto& item : inner["mox_folder_thumbnail_items"]) thumbs.insert(item.asString());
    const std::string escaped = "say \"caf\\xE9\"\t\\x5C.jpg";
    EXPECT_EQ(thumbs, (std::set<std::string>{stick + "/a.jpg", stick + "/" + escaped}));

    Json::Value ev = client.List(stick);
    ASSERT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
    std::vector<std::string> names = ListNames(ev["mox_result_list_block_name"].asString());
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), (std::set<std::string>{"a.jpg", escaped, "d\\xFF"}));
    // A name handed out names the same place when a client sends it back.
    ev = client.List(stick + "/d\\xFF");
    ASSERT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
    EXPECT_EQ(ListNames(ev["mox_result_list_block_name"].asString()), std::vector<std::string>{"b.jpg"});
    EXPECT_EQ(h.Stop(), 0);
}
