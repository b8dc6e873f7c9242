// Requests end to end: the real daemon on a private bus with the real
// plug-ins (the local source over a temporary USB root, the test sources, a
// test UHD provider), clients reading the result lists from shared memory.
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include <mox/mox_resultlist.h>

#include "bus_client.h"

using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::WriteTextFile;

namespace {

using moxtest::BusClient;
using moxtest::kComplete;
using moxtest::kFailedHandle;
using moxtest::ListNames;
using moxtest::LocalListDoc;
using moxtest::Parse;
using moxtest::ReadList;
using moxtest::ShmExists;

std::string ListDoc(const std::string& sources, const std::string& extra = "") {
    return R"({"mox_command":"mox_requestlist","mox_source":)" + sources + extra + "}";
}

// The data blocks a list's items are in: an answer from the cache names the
// blocks of the answer it repeats, a new one blocks of its own.
std::set<std::string> Blocks(const std::string& list) {
    std::set<std::string> blocks;
    CResultList reader(list);
    std::string name;
    for (int i = 0; i < reader.GetBlockCount(); ++i)
        if (reader.GetBlockName(i, name)) blocks.insert(name);
    return blocks;
}

class Requests : public ::testing::Test {
protected:
    void SetUp() override {
        h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
        h.InstallPlugin(MOX_TEST_SOURCE_SO);
        h.InstallPlugin(MOX_TEST_BAD_ABI_SO);
        h.InstallPlugin(MOX_TEST_NO_ENTRY_SO);
        h.InstallPlugin(MOX_TEST_NO_CREATE_SO);
        h.InstallPlugin(MOX_TEST_ABI1_SO);
        ASSERT_TRUE(h.Start());
    }
    void TearDown() override {
        EXPECT_EQ(h.Stop(), 0) << h.Output();
        // Whatever the clients did not drop, the daemon removed on its way out.
        for (const std::string& name : seenLists) EXPECT_FALSE(ShmExists(name)) << name;
    }
    std::string Delivered(Json::Value payload) {
        std::string name = payload["mox_result_list_block_name"].asString();
        if (!name.empty()) seenLists.push_back(name);
        return name;
    }

    // Lists doc and returns the file names of the list it gets (event 0).
    std::vector<std::string> Files(BusClient& c, guint32 handle, const std::string& doc) {
        Json::Value ev = c.ListNext(handle, doc);
        EXPECT_EQ(ev["mox_event_type"].asInt(), 0) << ev.toStyledString();
        std::string name = Delivered(ev);
        lastBlocks = name.empty() ? std::set<std::string>() : Blocks(name);
        return name.empty() ? std::vector<std::string>() : ListNames(name);
    }

    EngineHarness h;
    std::vector<std::string> seenLists;
    std::set<std::string> lastBlocks;  // of the list Files read last
};

// Sorting and type filters are driven through moxctl's list test; here the
// order of folders and files, windows, drops and what stays confined.
TEST_F(Requests, LocalSourceListsWindowsDropsAndDescribes) {
    const std::string folder = h.UsbRoot() + "/sda1/photos";
    std::filesystem::create_directories(folder + "/zfolder");
    WriteTextFile(folder + "/b.jpg", std::string(30, 'b'));
    WriteTextFile(folder + "/a.mp3", std::string(10, 'a'));
    WriteTextFile(folder + "/c.MP4", std::string(20, 'c'));
    WriteTextFile(folder + "/.hidden", "x");
    WriteTextFile(h.Path("outside.jpg"), "secret");
    std::filesystem::create_symlink(h.Path("outside.jpg"), folder + "/link.jpg");
    std::filesystem::create_directories(h.UsbRoot() + "/sda1/empty");

    BusClient c(h);
    guint32 handle = c.Connect("libmox_local_source.so");
    ASSERT_NE(handle, kFailedHandle);
    auto list = [&](const std::string& path, const std::string& extra = "") {
        return c.ListNext(handle, LocalListDoc(path, extra));
    };

    // Folders first, then files by name; links and hidden entries left out.
    Json::Value ev = list(folder, R"(,"mox_sectionindex":0)");
    EXPECT_EQ(ev["mox_event_type"].asInt(), 0);
    EXPECT_EQ(ev["mox_handle_id"].asUInt(), handle);
    std::string plain = Delivered(ev);
    auto items = ReadList(plain);
    EXPECT_EQ(ListNames(plain), (std::vector<std::string>{"zfolder", "a.mp3", "b.jpg", "c.MP4"}));
    ASSERT_EQ(items.size(), 4u);
    EXPECT_TRUE(items[0]["IsFolder"].asBool());
    EXPECT_EQ(items[2]["FilePath"].asString(), folder + "/b.jpg");
    EXPECT_EQ(items[2]["FileSize"].asInt(), 30);
    EXPECT_EQ(items[3]["MediaType"].asInt(), 3);
    int groupStart = 0, groupCount = 0;  // folders, then files
    EXPECT_EQ(CResultList(plain).GetGroupCount(), 2);
    EXPECT_TRUE(CResultList(plain).GetGroup(1, groupStart, groupCount));
    EXPECT_EQ(std::make_pair(groupStart, groupCount), std::make_pair(1, 3));

    // A window over the entries; a negative one is refused; an end past the
    // last entry is cut.
    std::string window = Delivered(list(folder, R"(,"mox_start_index":1,"mox_end_index":2)"));
    EXPECT_EQ(ListNames(window), (std::vector<std::string>{"a.mp3", "b.jpg"}));
    EXPECT_EQ(CResultList(window).GetTotalCount(), 4);
    EXPECT_EQ(list(folder, R"(,"mox_start_index":-1)")["mox_event_type"].asInt(), 2);
    EXPECT_EQ(ListNames(Delivered(list(folder, R"(,"mox_start_index":3,"mox_end_index":2147483647)"))),
              (std::vector<std::string>{"c.MP4"}));

    // Empty folder: event 1. Outside the root through "..": event 2, no list.
    EXPECT_EQ(list(h.UsbRoot() + "/sda1/empty")["mox_event_type"].asInt(), 1);
    ev = list(h.UsbRoot() + "/sda1/../..");
    EXPECT_EQ(ev["mox_event_type"].asInt(), 2);
    EXPECT_EQ(ev["mox_result_list_block_name"].asString(), "");

    // Drop: 10 and the object is gone; a second drop of it, or of a name never
    // handed out, is refused with 11.
    const std::pair<std::string, int> drops[] = {{plain, 10}, {plain, 11}, {"mox_resultlist_99999", 11}};
    for (const auto& [name, event] : drops) {
        c.Call("drop_partial_list", g_variant_new("(us)", handle, name.c_str()));
        EXPECT_EQ(c.Next(kComplete)["mox_event_type"].asInt(), event) << name;
        EXPECT_FALSE(ShmExists(plain));
    }

    // Detail: an existing file, a missing one (5), one outside the root and
    // ones reached through a link out of it (answered empty): a link to an
    // outside file that exists and one to an outside file that does not get
    // the same answer, so nothing outside can be probed.
    std::filesystem::create_symlink(h.Path("missing-outside.jpg"), folder + "/dangling.jpg");
    std::filesystem::create_symlink("../../../missing-outside.jpg", folder + "/dangling-rel.jpg");
    std::filesystem::create_symlink("../../../outside.jpg", folder + "/link-rel.jpg");
    auto detail = [&](const std::string& path) {
        std::string doc = R"({"mox_command":"mox_requestdetail","mox_source":"mox_local_source","FilePath":")" + path +
                          R"(","mox_detail_request_times":"t"})";
        c.Call("request_detail", g_variant_new("(us)", handle, doc.c_str()));
        return c.Next(kComplete);
    };
    ev = detail(folder + "/a.mp3");
    EXPECT_EQ(ev["mox_event_type"].asInt(), 3);
    EXPECT_EQ(ev["mox_detail_request_times"].asString(), "t");
    EXPECT_EQ(Parse(ev["mox_result_detail_json"].asString())["FileSize"].asInt(), 10);
    EXPECT_EQ(detail(folder + "/nothere.jpg")["mox_event_type"].asInt(), 5);
    for (const std::string& path :
         {std::string("/etc/passwd"), folder + "/link.jpg", folder + "/dangling.jpg", folder + "/link-rel.jpg",
          folder + "/dangling-rel.jpg", folder + "/link.jpg/x", folder + "/../../../missing-outside.jpg"}) {
        ev = detail(path);
        EXPECT_EQ(ev["mox_event_type"].asInt(), 3) << path;
        EXPECT_EQ(ev["mox_result_detail_json"].asString(), "") << path;
    }
}

// Metadata over the bus (its own signal): no provider, a provider installed
// while the daemon runs, and providers failing or answering too much.
TEST_F(Requests, MetadataWithAndWithoutProvider) {
    BusClient c(h);
    guint32 handle = c.Connect("libmox_test_source.so");
    // Metadata: no provider -> 14; a provider -> 13 with its answer and the
    // request.
    const std::string meta = R"({"mox_command":"mox_requestmeta","mox_uuid":"u1","mox_accesstoken":"tok"})";
    c.Call("request_metadata", g_variant_new("(us)", handle, meta.c_str()));
    EXPECT_EQ(c.Next("mox_request_metadata")["mox_event_type"].asInt(), 14);
    h.InstallPlugin(MOX_UHD_PROVIDER_SO);
    c.Call("request_metadata", g_variant_new("(us)", handle, meta.c_str()));
    Json::Value ev = c.Next("mox_request_metadata");
    EXPECT_EQ(ev["mox_event_type"].asInt(), 13);
    Json::Value data = Parse(ev["act_command_and_return_data"].asString());
    EXPECT_EQ(data["uhd_uuid"].asString(), "u1");
    EXPECT_EQ(data["uhd_token"].asString(), "tok");
    EXPECT_EQ(data["mox_uhd_request_param"].asString(), meta);
    // A failing provider, or one answering more than a signal may carry: 14.
    for (const std::string uuid : {"fail", "huge"}) {
        const std::string doc = R"({"mox_command":"mox_requestmeta","mox_uuid":")" + uuid + "\"}";
        c.Call("request_metadata", g_variant_new("(us)", handle, doc.c_str()));
        EXPECT_EQ(c.Next("mox_request_metadata")["mox_event_type"].asInt(), 14) << uuid;
    }
}

// Plug-in names stay in the plug-in directory and broken plug-ins get no
// handle. Refused documents get the method's failure event and code 23.
TEST_F(Requests, BadNamesAndDocumentsKeepTheDaemonServing) {
    BusClient c(h);
    const std::string longName = "lib" + std::string(4096, 'a') + ".so";
    for (const std::string& name :
         {std::string("../plugins/libmox_test_source.so"), std::string("/etc/libx.so"),
          std::string("libmox_test_source"), std::string("lib..so"), longName, std::string("libmox_test_bad_abi.so"),
          std::string("libmox_test_no_entry.so"), std::string("libmox_test_no_create.so"), std::string("libnothere.so"),
          std::string("")})
        EXPECT_EQ(c.Connect(name), kFailedHandle) << name.substr(0, 60);
    // Failures consume no handle; "cloud" needs no plug-in.
    EXPECT_EQ(c.Connect("cloud"), 0u);
    guint32 handle = c.Connect("libmox_test_source.so");
    EXPECT_EQ(handle, 1u);

    // A parse failure and a document over the size bound; cross-kind
    // documents are EngineImp.EveryRequestIsAnsweredAndOnlyByItsOwnKind's.
    c.List(handle, "not json");
    c.Call("request_detail", g_variant_new("(us)", handle, std::string(2 << 20, '{').c_str()));
    for (int event : {2, 4}) {
        Json::Value ev = c.Next(kComplete);
        EXPECT_EQ(ev["mox_event_type"].asInt(), event);
        EXPECT_EQ(ev["mox_error_code"].asInt(), 23);
        EXPECT_EQ(ev["mox_handle_id"].asUInt(), handle);
    }
    c.Drain(300);
    EXPECT_EQ(c.Count(kComplete), 2u);
    // Unbalanced cancels of handles never used; the daemon still serves.
    c.Call("request_cancel_detail", g_variant_new("(u)", 777u));
    EXPECT_TRUE(h.Call("start_server", nullptr).ok());
}

TEST_F(Requests, ClientLeavingTheBusLosesItsListsAndAnswers) {
    BusClient stays(h);
    guint32 hs = stays.Connect("libmox_test_source.so");
    std::string kept, orphan;
    {
        BusClient leaves(h);
        guint32 hl = leaves.Connect("libmox_test_source.so");
        orphan = Delivered(leaves.ListNext(hl, ListDoc(R"(["mox_test_source"])")));
        // Shared with the client that stays: that list must survive.
        const std::string shared = ListDoc(R"(["mox_test_source"])", R"(,"test_delay_ms":1500)");
        leaves.List(hl, shared);
        stays.List(hs, shared);
        kept = Delivered(leaves.Next(kComplete));
        EXPECT_EQ(Delivered(stays.Next(kComplete)), kept);
        // A request still running when the client leaves.
        leaves.List(hl, ListDoc(R"(["mox_test_source"])", R"(,"test_delay_ms":1500,"test_item_count":4)"));
        ASSERT_TRUE(ShmExists(orphan));
        leaves.Close();
    }
    // The daemon sees the connection go: the list only it held goes.
    for (int i = 0; i < 500 && ShmExists(orphan); ++i) stays.Drain(20);
    EXPECT_FALSE(ShmExists(orphan));
    EXPECT_EQ(ReadList(kept).size(), 3u);
    // The answer nobody waits for any more is dropped as soon as it is
    // built: once the running request has ended, only the shared list is left.
    stays.Drain(2500);
    EXPECT_EQ(moxtest::ShmObjects("mox_resultlist_" + std::to_string(h.Pid()) + "_"), std::vector<std::string>{kept});
    EXPECT_EQ(stays.Count("mox_request_normal_complete"), 1u);
}

// A list shows the folder as it is when the answer is built, whoever changed
// it, while an unchanged folder is still answered from the cache.
TEST_F(Requests, ListShowsAddRemoveGrowRenameAndEngineWrites) {
    const std::string dcim = h.UsbRoot() + "/sdb1/DCIM";
    std::filesystem::create_directories(dcim);
    for (const char* name : {"a.jpg", "b.jpg", "c.jpg"}) WriteTextFile(dcim + "/" + name, "12345");
    BusClient c(h);
    guint32 handle = c.Connect("libmox_local_source.so");
    const std::string doc = LocalListDoc(dcim);
    using V = std::vector<std::string>;
    EXPECT_EQ(Files(c, handle, doc), (V{"a.jpg", "b.jpg", "c.jpg"}));
    const std::set<std::string> first = lastBlocks;
    EXPECT_EQ(Files(c, handle, doc), (V{"a.jpg", "b.jpg", "c.jpg"}));
    EXPECT_EQ(lastBlocks, first) << "unchanged folder not cached";

    WriteTextFile(dcim + "/d.jpg", "new");
    EXPECT_EQ(Files(c, handle, doc), (V{"a.jpg", "b.jpg", "c.jpg", "d.jpg"}));
    std::filesystem::remove(dcim + "/a.jpg");
    EXPECT_EQ(Files(c, handle, doc), (V{"b.jpg", "c.jpg", "d.jpg"}));
    std::filesystem::rename(dcim + "/c.jpg", dcim + "/e.jpg");
    EXPECT_EQ(Files(c, handle, doc), (V{"b.jpg", "d.jpg", "e.jpg"}));
    // Grown in place: the folder's own times stay, the file's size changes.
    WriteTextFile(dcim + "/b.jpg", std::string(4000, 'x'));
    std::vector<Json::Value> items = ReadList(Delivered(c.ListNext(handle, doc)));
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(items[0]["FileSize"].asInt64(), 4000);
    // The engine's own removal.
    CallResult r = h.Call("usb_file_remove", g_variant_new("(ss)", (dcim + "/d.jpg").c_str(), ""));
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(Files(c, handle, doc), (V{"b.jpg", "e.jpg"}));
    // The folder gone: "no such folder" (7), never the old answer.
    std::filesystem::remove_all(dcim);
    Json::Value ev = c.ListNext(handle, doc);
    EXPECT_EQ(ev["mox_event_type"].asInt(), 2);
    EXPECT_EQ(ev["mox_error_code"].asInt(), 7);
}

// Storage events and the engine's writes forget kept answers whose query
// names a path they touch, even for sources that never say how their answers
// stay valid; another stick at the same path shows only its own files.
TEST_F(Requests, StickSwapUnmountAndEngineWritesForgetKeptAnswers) {
    // Bound to storage events: each arrives after the engine has forgotten
    // what the storage's answers were.
    BusClient c(h);
    c.Call("bind_usb_event", g_variant_new("(u)", 1u));
    h.Plug("sdb1");
    c.Next("mox_usb_notification");
    const std::string mount = h.UsbRoot() + "/sdb1";
    std::filesystem::create_directories(mount + "/DCIM");
    WriteTextFile(mount + "/DCIM/first-1.jpg", "1");
    WriteTextFile(mount + "/DCIM/first-2.jpg", "2");
    guint32 local = c.Connect("libmox_local_source.so");
    guint32 test = c.Connect("libmox_test_source.so");
    guint32 v1 = c.Connect("libmox_test_abi1.so");
    ASSERT_NE(v1, kFailedHandle);
    using V = std::vector<std::string>;
    const std::string localDoc = LocalListDoc(mount + "/DCIM");
    // Kept until something touches the path (the test source says nothing
    // about validity; the ABI-1 one cannot).
    const std::string keptDoc =
        ListDoc(R"(["mox_test_source","mox_test_source_v1"])", R"(,"mox_folder_path":")" + mount + R"(//DCIM/")");
    // Lists `doc` twice; whether the second answer came from the cache.
    auto kept = [&](guint32 handle, const std::string& doc) {
        Files(c, handle, doc);
        const std::set<std::string> first = lastBlocks;
        Files(c, handle, doc);
        return lastBlocks == first;
    };

    EXPECT_EQ(Files(c, local, localDoc), (V{"first-1.jpg", "first-2.jpg"}));
    EXPECT_EQ(Files(c, test, keptDoc).size(), 6u);
    std::set<std::string> before = lastBlocks;
    EXPECT_EQ(Files(c, v1, keptDoc).size(), 6u);
    EXPECT_EQ(lastBlocks, before);

    // The stick is pulled and another one is mounted at the same path.
    h.Unplug("sdb1");
    c.Next("mox_usb_notification");
    std::filesystem::rename(mount, h.UsbRoot() + "/first-stick");
    std::filesystem::create_directories(mount + "/DCIM");
    WriteTextFile(mount + "/DCIM/second.jpg", "2");
    h.Plug("sdb1");
    c.Next("mox_usb_notification");
    EXPECT_EQ(Files(c, local, localDoc), (V{"second.jpg"}));
    EXPECT_EQ(Files(c, test, keptDoc).size(), 6u);
    EXPECT_NE(lastBlocks, before) << "answer kept across the unmount";
    before = lastBlocks;
    // Unchanged: answered from the cache.
    EXPECT_EQ(Files(c, test, keptDoc).size(), 6u);
    EXPECT_EQ(lastBlocks, before);

    // The engine's own write below the named folder forgets it at once.
    CallResult r = h.Call("usb_file_remove", g_variant_new("(ss)", (mount + "/DCIM/second.jpg").c_str(), ""));
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(Files(c, test, keptDoc).size(), 6u);
    EXPECT_NE(lastBlocks, before);
    EXPECT_EQ(c.ListNext(local, localDoc)["mox_error_code"].asInt(), 6);  // now empty

    // A source that asks not to be kept, one whose stamp changes, and a stamp
    // above 256 bytes (answered, never kept).
    EXPECT_FALSE(kept(test, ListDoc(R"(["mox_test_source"])", R"(,"test_validity":"no_keep")")));
    const std::string stampA = ListDoc(R"(["mox_test_source"])", R"(,"test_validity":"stamp:A","q":1)");
    EXPECT_TRUE(kept(test, stampA));
    before = lastBlocks;
    Files(c, test, ListDoc(R"(["mox_test_source"])", R"(,"test_validity":"stamp:B","q":1)"));
    EXPECT_NE(lastBlocks, before);
    EXPECT_FALSE(
        kept(test, ListDoc(R"(["mox_test_source"])", R"(,"test_validity":"stamp:)" + std::string(300, 'x') + R"(")")));
}

// SIGTERM while a source is in GetData: one that sleeps polling bStop is
// stopped; one stuck without looking at it is named and left unclosed. Either
// way the daemon exits 0 within 5 s, after a first list kept in the cache,
// and leaves no object of its own behind.
TEST(RequestsShutdown, SigtermDuringGetDataIsBoundedAndClean) {
    const struct {
        const char* extra;
        const char* log;
    } cases[] = {{R"(,"test_delay_ms":60000)", "test source stopped[mox_test_source]"},
                 {R"(,"test_stuck_ms":30000)", "Source[mox_test_source] is stuck in a call at exit: not closed."}};
    for (const auto& k : cases) {
        EngineHarness h;
        h.InstallPlugin(MOX_TEST_SOURCE_SO);
        ASSERT_TRUE(h.Start());
        const std::string tag = std::to_string(h.Pid());
        BusClient c(h);
        guint32 handle = c.Connect("libmox_test_source.so");
        EXPECT_EQ(c.ListNext(handle, ListDoc(R"(["mox_test_source2"])"))["mox_event_type"].asInt(), 0);
        c.List(handle, ListDoc(R"(["mox_test_source"])", k.extra));
        ASSERT_TRUE(h.WaitForLog("test source GetData[mox_test_source]"));
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(h.Stop(std::chrono::seconds(10)), 0) << k.extra;
        EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5)) << k.extra;
        EXPECT_EQ(h.CountLog(k.log), 1u) << k.extra;
        EXPECT_EQ(moxtest::EngineObjects(tag), std::vector<std::string>()) << k.extra;
    }
}

// The example plug-in, built in this tree or (MOX_OUT_OF_TREE_PLUGIN, set by
// tests/plugins/out_of_tree.sh) on its own against an installed engine.
// Any local user can fill /dev/shm. A list asked then fails with its
// failure event, the daemon serves on, and the same list comes once there is
// room again. The repeat of a cached list needs only a new result list: the
// object that used to end the daemon with SIGBUS at its first store. This
// process and the daemon it starts get a small /dev/shm of their own.
TEST(RequestsShm, AFullSharedMemoryFailsTheListNotTheDaemon) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a /dev/shm of its own";
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("tmpfs", "/dev/shm", "tmpfs", 0, "size=8m,mode=1777"), 0);
    {
        EngineHarness h;
        h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
        ASSERT_TRUE(h.Start());
        const std::string folder = h.UsbRoot() + "/sda1/many";
        std::filesystem::create_directories(folder);
        for (int i = 0; i < 2000; ++i) WriteTextFile(folder + "/f" + std::to_string(i) + ".jpg", "");
        BusClient c(h);
        const guint32 handle = c.Connect("libmox_local_source.so");
        Json::Value ev = c.ListNext(handle, LocalListDoc(folder));
        ASSERT_EQ(ev["mox_event_type"].asInt(), 0);
        const std::vector<std::string> names = ListNames(ev["mox_result_list_block_name"].asString());
        ASSERT_EQ(names.size(), 2000u);

        const int fd = open("/dev/shm/filler", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        off_t nAt = 0;
        for (off_t nChunk : {off_t(1) << 20, off_t(1) << 12})
            while (posix_fallocate(fd, nAt, nChunk) == 0) nAt += nChunk;
        close(fd);
        for (const char* extra : {"", R"(,"mox_start_index":100,"mox_end_index":1999)"}) {
            ev = c.ListNext(handle, LocalListDoc(folder, extra));
            EXPECT_NE(ev["mox_event_type"].asInt(), 0) << extra;
        }
        ASSERT_TRUE(h.Running()) << "the daemon died on a full /dev/shm";

        ASSERT_EQ(unlink("/dev/shm/filler"), 0);
        ev = c.ListNext(handle, LocalListDoc(folder, R"(,"mox_start_index":5,"mox_end_index":9)"));
        EXPECT_EQ(ev["mox_event_type"].asInt(), 0);
        EXPECT_EQ(ListNames(ev["mox_result_list_block_name"].asString()),
                  std::vector<std::string>(names.begin() + 5, names.begin() + 10));
        EXPECT_EQ(h.Stop(), 0);
    }
    EXPECT_EQ(umount2("/dev/shm", MNT_DETACH), 0);
}

TEST_F(Requests, ExamplePluginIsLoadedAndListed) {
    const char* env = getenv("MOX_OUT_OF_TREE_PLUGIN");
    h.InstallPlugin(env ? env : MOX_EXAMPLE_SOURCE_SO);
    BusClient c(h);
    guint32 handle = c.Connect("libmox_example_source.so");
    ASSERT_NE(handle, kFailedHandle);
    Json::Value ev = c.ListNext(handle, ListDoc(R"(["mox_example_source"])", R"(,"SortedType":2,"SortedKey":"Title")"));
    ASSERT_EQ(ev["mox_event_type"].asInt(), 0);
    EXPECT_EQ(ListNames(Delivered(ev)), (std::vector<std::string>{"c.mp4", "b.mp3", "a.jpg"}));
}

}  // namespace
