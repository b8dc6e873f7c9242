// The daemon end to end: the real mox-engine on a private bus, driven by a
// GDBus client, its host paths in a temporary directory.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "engine_fixture.h"

using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::ReadTextFile;
using moxtest::ShmExists;
using moxtest::WriteTextFile;

namespace {

namespace fs = std::filesystem;

std::string ReplyString(const CallResult& r) {
    const gchar* s = nullptr;
    g_variant_get(r.reply.get(), "(&s)", &s);
    return s;
}

bool ReplyBool(const CallResult& r) {
    gboolean b = FALSE;
    g_variant_get(r.reply.get(), "(b)", &b);
    return b;
}

// A client's text object: a 32-bit length, then the bytes.
std::string MakeTextShm(const std::string& content, int32_t declaredLength) {
    static int counter = 0;
    std::string name = "/mox_test_text_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
    int fd = shm_open(name.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(write(fd, &declaredLength, sizeof(declaredLength)), 4);
    EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    close(fd);
    return name;
}

std::string FolderCall(EngineHarness& h, const std::string& json) {
    CallResult r = h.Call("check_folder_path", g_variant_new("(s)", json.c_str()));
    EXPECT_TRUE(r.ok()) << r.error;
    return r.ok() ? ReplyString(r) : "<error>";
}

}  // namespace

TEST(EngineStartup, MissingOrMalformedIntrospectionXmlEndsWithStatusOne) {
    for (const char* xml : {"", "<node><interface name="}) {
        EngineHarness h;
        if (*xml) WriteTextFile(h.Path("bus.xml"), xml);
        h.SetEnv("MOX_DBUS_CONFIG", h.Path("bus.xml"));
        EXPECT_EQ(h.RunToExit(), 1) << xml;
        EXPECT_FALSE(fs::exists(h.StatusFile()));
    }
}

TEST(EngineStartup, ServesWritesStatusFileSurvivesARivalAndStopsCleanly) {
    EngineHarness h;
    // A link planted under the status file's name is replaced, not followed.
    const std::string victim = h.Path("victim");
    ASSERT_TRUE(WriteTextFile(victim, "keep"));
    ASSERT_EQ(symlink(victim.c_str(), h.StatusFile().c_str()), 0);
    ASSERT_TRUE(h.Start()) << h.Output();
    EXPECT_EQ(ReadTextFile(h.StatusFile()), "MOX_ENGINE OK");
    EXPECT_EQ(ReadTextFile(victim), "keep");
    struct stat st;
    ASSERT_EQ(lstat(h.StatusFile().c_str(), &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    CallResult r = h.Call("start_server", nullptr);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(ReplyString(r), "MOX_SERVER_START_SUCCESS");

    // A second daemon on the same bus cannot own the name: it only logs.
    EngineHarness second(h.BusAddress());
    ASSERT_TRUE(second.Start());
    ASSERT_TRUE(second.WaitForLog("NameLost."));
    EXPECT_TRUE(second.Running());
    EXPECT_EQ(second.Stop(), 0);
    EXPECT_TRUE(h.Call("start_server", nullptr).ok());
    EXPECT_EQ(h.Stop(), 0);
    // Nothing claims "OK" for a daemon that stopped.
    EXPECT_FALSE(fs::exists(h.StatusFile()));
}

// Only 1 and 2 reset; other values, no key or garbage in the key file leave
// the downloads alone and start-up goes on.
TEST(EngineReset, PendingResetRemovesUhdFilesAndClearsTheKey) {
    for (const std::string stored : {"1\n", "2\n", "3\n", "", "two\n"}) {
        EngineHarness h;
        WriteTextFile(h.AppDataDir() + "/.UHD_Metadata.json", "{}");
        WriteTextFile(h.AppDataDir() + "/.UHD_Rating.json", "{}");
        WriteTextFile(h.AppDataDir() + "/other.json", "{}");
        if (!stored.empty()) WriteTextFile(h.VconfDir() + "/db/mox/reset_status", stored);
        ASSERT_TRUE(h.Start()) << stored;
        const bool reset = stored == "1\n" || stored == "2\n";
        EXPECT_EQ(fs::exists(h.AppDataDir() + "/.UHD_Metadata.json"), !reset) << stored;
        EXPECT_EQ(fs::exists(h.AppDataDir() + "/.UHD_Rating.json"), !reset) << stored;
        EXPECT_TRUE(fs::exists(h.AppDataDir() + "/other.json"));
        int value = -1;
        if (reset || stored == "3\n") {
            ASSERT_TRUE(h.GetKey("db/mox/reset_status", &value));
            EXPECT_EQ(value, reset ? 0 : 3);
        }
        EXPECT_EQ(h.Stop(), 0);
    }
}

bool Write(EngineHarness& h, const std::string& path, const std::string& shm) {
    CallResult r = h.Call("usb_file_write", g_variant_new("(ss)", path.c_str(), shm.c_str()));
    EXPECT_TRUE(r.ok()) << r.error;
    return r.ok() && ReplyBool(r);
}

bool Remove(EngineHarness& h, const std::string& path) {
    CallResult r = h.Call("usb_file_remove", g_variant_new("(ss)", path.c_str(), ""));
    EXPECT_TRUE(r.ok()) << r.error;
    return r.ok() && ReplyBool(r);
}

// The folder map: add and find, bad documents, texts and sizes a client
// controls (what goes back on the bus is valid UTF-8, oversized arguments
// are refused, the log stays small), and the database reset key.
TEST(EngineFolderMap, AddFindBoundsAndDatabaseReset) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    const std::string a = h.UsbRoot() + "/sda1/Photos";
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":")" + a + R"(","FOLDER_ID":"17"})"),
              "AddFolderMapSuccess");
    // A second add keeps the first id and still reports success.
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":")" + a + R"(","FOLDER_ID":"99"})"),
              "AddFolderMapSuccess");
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":")" + a + R"("})"), "17");
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":"/nowhere"})"), "");

    // Bad documents get an empty answer.
    for (const char* doc :
         {R"({"FOLDER_PATH":"/x"})", R"({"OPERATION_TYPE":7})", "{not json", "[1,2,3]", R"({"OPERATION_TYPE":"0"})"})
        EXPECT_EQ(FolderCall(h, doc), "") << doc;
    // Members of the wrong type read as empty; the add still "succeeds".
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":5,"FOLDER_ID":[]})"), "AddFolderMapSuccess");
    EXPECT_EQ(FolderCall(h, std::string(R"({"OPERATION_TYPE":1,"FOLDER_PATH":")") + std::string(5000, '[') + "\"}"),
              "");
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":"/u/a","FOLDER_ID":"x\udc00y"})"),
              "AddFolderMapSuccess");
    std::string id = FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":"/u/a"})");
    EXPECT_TRUE(g_utf8_validate(id.data(), static_cast<gssize>(id.size()), nullptr));
    EXPECT_EQ(id, "x\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDy");
    std::string huge(2u << 20, 'a');
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":"/u/b","FOLDER_ID":")" + huge + "\"}"), "");
    EXPECT_FALSE(Write(h, h.UsbRoot() + "/" + huge, "/x"));
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":"/u/b"})"), "");
    std::string big(512u << 10, 'b');
    FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":"/u/c","FOLDER_ID":")" + big + "\"}");
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":"/u/c"})"), big);
    EXPECT_LT(h.Log().size(), 256u << 10) << "arguments are cut in the log";
    EXPECT_EQ(h.Output().find("g_utf8_validate"), std::string::npos);

    // Setting the key to 0 is a change but not a reset (the change has no
    // other trace than its log line); 1 clears the map.
    ASSERT_TRUE(h.SetKey("file/private/mediaserver/db_reset", 0));
    ASSERT_TRUE(h.WaitForLog("OnVconfKeyChangedCB vconf key changed!"));
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":")" + a + R"("})"), "17");
    ASSERT_TRUE(h.SetKey("file/private/mediaserver/db_reset", 1));
    std::string found = "17";
    for (int i = 0; i < 200 && !found.empty(); ++i, moxtest::PumpMainContext(std::chrono::milliseconds(20)))
        found = FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":")" + a + R"("})");
    EXPECT_EQ(found, "");
    EXPECT_EQ(h.Stop(), 0);
}

// Writing a client's object to a file and removing it; and what a local user
// must not reach through the root daemon: anything outside the USB root, by
// name, "..", links (planted or swapped in), FIFOs that would block, or
// another user's shared-memory object.
TEST(EngineFiles, WriteRemoveAndClientPathsStayBelowTheUsbRoot) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    const std::string target = h.UsbRoot() + "/note.txt";

    std::string shm = MakeTextShm("hello, usb", 10);
    EXPECT_TRUE(Write(h, target, shm));
    EXPECT_EQ(ReadTextFile(target), "hello, usb");
    struct stat st;
    ASSERT_EQ(stat(target.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_FALSE(ShmExists(shm)) << "the object is consumed";

    EXPECT_FALSE(Write(h, target, "/mox_test_no_such_object"));

    // Lying lengths are refused, the object is consumed all the same, and a
    // failed write leaves the old file intact.
    for (int32_t length : {1 << 30, -5, 0}) {
        shm = MakeTextShm("abc", length);
        EXPECT_FALSE(Write(h, target, shm)) << length;
        EXPECT_FALSE(ShmExists(shm));
    }
    EXPECT_EQ(ReadTextFile(target), "hello, usb");

    EXPECT_TRUE(Remove(h, target));
    EXPECT_FALSE(fs::exists(target));
    EXPECT_FALSE(Remove(h, target));

    const std::string outside = h.Path("secret");
    ASSERT_TRUE(WriteTextFile(outside, "root only"));
    const std::string root = h.UsbRoot();
    ASSERT_EQ(mkdir((root + "/dir").c_str(), 0755), 0);
    ASSERT_EQ(symlink(h.Path("").c_str(), (root + "/out").c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), (root + "/dir/link").c_str()), 0);

    const std::string escapes[] = {
        outside, root + "/../secret", root + "/dir/../../secret", root + "/out/secret", root, root + "/", "relative"};
    for (const std::string& path : escapes) {
        shm = MakeTextShm("owned", 5);
        EXPECT_FALSE(Write(h, path, shm)) << path;
        EXPECT_FALSE(ShmExists(shm)) << "consumed even when refused: " << path;
        EXPECT_FALSE(Remove(h, path)) << path;
    }
    // A link inside the root is never followed: written through, refused;
    // removed, the link goes and its target stays.
    EXPECT_FALSE(Write(h, root + "/dir/link", MakeTextShm("owned", 5)));
    EXPECT_TRUE(Remove(h, root + "/dir/link"));
    EXPECT_EQ(ReadTextFile(outside), "root only");

    // A FIFO as destination or as object is refused at once; others are served.
    ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0666), 0);
    EXPECT_FALSE(Write(h, root + "/fifo", MakeTextShm("x", 1)));
    const std::string fifoObject = "/mox_test_fifo_" + std::to_string(getpid());
    ASSERT_EQ(mkfifo(("/dev/shm" + fifoObject).c_str(), 0666), 0);
    EXPECT_FALSE(Write(h, root + "/f.txt", fifoObject));
    unlink(("/dev/shm" + fifoObject).c_str());
    EXPECT_TRUE(h.Call("start_server", nullptr).ok());

    // A link swapped in and out under a directory during the calls never lets
    // a write land outside.
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
        const std::string d = root + "/race";
        while (!stop) {
            mkdir(d.c_str(), 0755);
            rmdir(d.c_str());
            symlink(h.Path("").c_str(), d.c_str());
            unlink(d.c_str());
        }
    });
    for (int i = 0; i < 50; ++i) Write(h, root + "/race/secret", MakeTextShm("pwned", 5));
    stop = true;
    swapper.join();
    EXPECT_EQ(ReadTextFile(outside), "root only");

    // Another user's call may not consume or copy root's object.
    if (EngineHarness::CanCallAsUser()) {
        const std::string rootObject = MakeTextShm("root data", 9);
        ASSERT_EQ(chmod(h.Path("").c_str(), 0711), 0);  // lets the other user reach the bus socket
        CallResult r = h.CallAsUser(65534, "usb_file_write",
                                    g_variant_new("(ss)", (root + "/stolen").c_str(), rootObject.c_str()));
        ASSERT_TRUE(r.ok()) << r.error;
        EXPECT_FALSE(ReplyBool(r));
        EXPECT_TRUE(ShmExists(rootObject));
        EXPECT_FALSE(fs::exists(root + "/stolen"));
        shm_unlink(rootObject.c_str());
    }
    EXPECT_EQ(h.Stop(), 0);
}

// Calls with handles nobody was given, empty or broken documents and unknown
// names all get an answer; the daemon keeps serving. (The scanner's methods
// have their own suite.)
TEST(EngineDispatch, EveryMethodAnswersAndTheDaemonKeepsServing) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    struct EmptyReply {
        const char* method;
        GVariant* params;
    } empties[] = {
        {"request_detail", g_variant_new("(us)", 0u, "{\"mox_command\":\"mox_requestdetail\"}")},
        {"request_cancel_detail", g_variant_new("(u)", 0u)},
        {"get_partial_list", g_variant_new("(uuus)", 0u, 1u, 2u, "{broken json")},
        {"drop_partial_list", g_variant_new("(us)", 0u, "mox_resultlist_1")},
        {"request_act", g_variant_new("(uss)", 0u, "mox_datablock_0", "{}")},
        {"disconnect", g_variant_new("(u)", 0u)},
        {"request_metadata", g_variant_new("(us)", 0u, "{}")},
        {"stop_scanner", g_variant_new("(u)", 5u)},
        {"foo", nullptr},  // unknown names get an empty reply, not a D-Bus error
    };
    for (auto& call : empties) {
        CallResult r = h.Call(call.method, call.params);
        ASSERT_TRUE(r.ok()) << call.method << ": " << r.error;
        EXPECT_EQ(g_variant_n_children(r.reply.get()), 0u) << call.method;
    }
    // A wrong signature is refused by the bus layer before the dispatcher,
    // also for the list calls the bus's own thread takes.
    EXPECT_FALSE(h.Call("connect", g_variant_new("(u)", 5u)).ok());
    EXPECT_FALSE(h.Call("get_partial_list", g_variant_new("(us)", 0u, "{}")).ok());
    EXPECT_FALSE(h.Call("drop_partial_list", g_variant_new("(uuus)", 0u, 0u, 0u, "x")).ok());
    EXPECT_TRUE(h.Call("start_server", nullptr).ok());
    EXPECT_EQ(h.Stop(), 0);
}

// Under the installed bus policy another user reaches the engine's interface
// and nothing else, and the engine's own checks still hold for that user,
// who the bus says it is: another client's work can neither be stopped nor
// withdrawn. (Ownership and cross-kind refusals in detail: test_engine_imp;
// paths outside the USB root, refused even to root: EngineFiles.)
TEST(EnginePolicy, OtherUserReachesTheInterfaceOnlyAndOnlyItsOwnWork) {
    if (!EngineHarness::CanCallAsUser()) GTEST_SKIP() << "needs root to run a client as uid 65534";
    EngineHarness h(moxtest::BusPolicy::kInstalled);
    h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
    h.InstallPlugin(MOX_TEST_SOURCE_SO);
    ASSERT_TRUE(h.Start()) << h.Output();
    const uid_t nobody = 65534;
    ASSERT_TRUE(WriteTextFile(h.UsbRoot() + "/a.jpg", "jpeg"));

    CallResult ping = h.CallAsUser(nobody, "start_server", nullptr);
    ASSERT_TRUE(ping.ok()) << ping.error;
    EXPECT_EQ(ReplyString(ping), "MOX_SERVER_START_SUCCESS");

    // Another interface of the engine's object: refused by the bus, not the engine.
    for (const char* interface : {"org.freedesktop.DBus.Peer", "org.freedesktop.DBus.Properties"}) {
        const bool peer = std::string(interface) == "org.freedesktop.DBus.Peer";
        CallResult r = h.CallAsUser(nobody, peer ? "Ping" : "GetAll",
                                    peer ? nullptr : g_variant_new("(s)", moxtest::kEngineInterface), interface);
        EXPECT_FALSE(r.ok()) << interface;
        EXPECT_NE(r.error.find("AccessDenied"), std::string::npos) << interface << ": " << r.error;
    }
    CallResult introspect = h.CallAsUser(nobody, "Introspect", nullptr, "org.freedesktop.DBus.Introspectable");
    EXPECT_TRUE(introspect.ok()) << introspect.error;

    // Root's transfer, which the other user tries to stop and withdraw.
    moxtest::SignalCollector owner(h.Client());
    CallResult c = h.Call("connect", g_variant_new("(s)", "libmox_test_source.so"));
    ASSERT_TRUE(c.ok()) << c.error;
    guint32 handle = 0;
    g_variant_get(c.reply.get(), "(u)", &handle);
    const std::string transfer = R"({"mox_command":"mox_file_transfer","mox_source":"mox_test_source",)"
                                 R"("mox_transfer_id":"mine","test_delay_ms":1500})";
    ASSERT_TRUE(h.Call("request_act", g_variant_new("(uss)", handle, "", transfer.c_str())).ok());

    // A sequence on one connection: the handle of its connect is used by the
    // requests, and the completion signal reaches that user's connection.
    const std::string detail = R"({"mox_command":"mox_requestdetail","mox_source":"mox_local_source","FilePath":")" +
                               h.UsbRoot() + R"(/a.jpg"})";
    const std::string stop = R"({"mox_command":"mox_file_transfer","mox_source":"mox_test_source",)"
                             R"("mox_file_transfer_stop":true,"mox_transfer_id":"mine"})";
    moxtest::UserCallResults r =
        h.CallAsUser(nobody,
                     {{"connect", g_variant_new("(s)", "libmox_local_source.so")},
                      {"request_detail", g_variant_new("(us)", 0u, detail.c_str()), moxtest::kEngineInterface, true},
                      {"stop_act", g_variant_new("(us)", 0u, stop.c_str()), moxtest::kEngineInterface, true},
                      {"request_cancel_detail", g_variant_new("(u)", handle)},
                      {"disconnect", g_variant_new("(u)", handle)}},
                     std::chrono::milliseconds(1500));
    ASSERT_TRUE(r.error.empty()) << r.error;
    EXPECT_EQ(r.uid, nobody);
    EXPECT_EQ(r.gid, 65534u);
    ASSERT_EQ(r.calls.size(), 5u);
    for (const CallResult& call : r.calls) EXPECT_TRUE(call.ok()) << call.error;
    guint32 userHandle = 0, code = 0;
    g_variant_get(r.calls[0].reply.get(), "(u)", &userHandle);
    EXPECT_NE(userHandle, 4294967295u);
    g_variant_get(r.calls[2].reply.get(), "(u)", &code);
    EXPECT_EQ(code, 7u);  // the answer of an unknown id
    // Its detail answered it; the disconnect of root's handle was only
    // acknowledged.
    bool detailed = false;
    for (const auto* done : r.Named("mox_request_normal_complete")) {
        Json::Value ev = moxtest::Parse(done->text());
        detailed = detailed || (ev["mox_event_type"].asInt() == 3 && ev["mox_handle_id"].asUInt() == userHandle);
    }
    EXPECT_TRUE(detailed);

    // The owner's transfer ran to its end: event 6, not a stop.
    ASSERT_TRUE(owner.WaitFor("mox_request_normal_complete", 2, std::chrono::seconds(15)));
    bool finished = false;
    for (const auto* s : owner.Named("mox_request_normal_complete"))
        finished = finished || (s->text().find("\"mox_event_type\":6") != std::string::npos &&
                                s->text().find("\"mox_file_transfer_signal\":0") != std::string::npos);
    EXPECT_TRUE(finished);
    EXPECT_EQ(h.Stop(), 0) << h.Output();
}
