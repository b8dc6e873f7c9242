// The daemon end to end: the real mox-engine on a private bus, driven by a
// GDBus client, its host paths in a temporary directory.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "engine_fixture.h"

using moxtest::CallResult;
using moxtest::EngineHarness;
using moxtest::ReadTextFile;
using moxtest::WriteTextFile;

namespace {

bool Exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

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

guint32 ReplyUint(const CallResult& r) {
    guint32 u = 0;
    g_variant_get(r.reply.get(), "(u)", &u);
    return u;
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

bool ShmExists(const std::string& name) { return Exists("/dev/shm" + name); }

std::string FolderCall(EngineHarness& h, const std::string& json) {
    CallResult r = h.Call("check_folder_path", g_variant_new("(s)", json.c_str()));
    EXPECT_TRUE(r.ok()) << r.error;
    return r.ok() ? ReplyString(r) : "<error>";
}

}  // namespace

TEST(EngineStartup, MissingIntrospectionXmlEndsWithStatusOneAndNoStatusFile) {
    EngineHarness h;
    h.SetEnv("MOX_DBUS_CONFIG", h.Path("no-such.xml"));
    EXPECT_EQ(h.RunToExit(), 1);
    EXPECT_FALSE(Exists(h.StatusFile()));
    EXPECT_EQ(h.CountLog("load mox_dbus_config error."), 1u);
    EXPECT_EQ(h.CountLog("init_introspection_xml error."), 1u);
    EXPECT_EQ(h.CountLog("NameAcquired."), 0u);
}

TEST(EngineStartup, MalformedIntrospectionXmlIsRefusedCleanly) {
    EngineHarness h;
    WriteTextFile(h.Path("bad.xml"), "<node><interface name=");
    h.SetEnv("MOX_DBUS_CONFIG", h.Path("bad.xml"));
    EXPECT_EQ(h.RunToExit(), 1);
    EXPECT_FALSE(Exists(h.StatusFile()));
    EXPECT_EQ(h.CountLog("invalid introspection XML"), 1u);
}

TEST(EngineStartup, ServesWritesStatusFileAndStopsCleanly) {
    EngineHarness h;
    ASSERT_TRUE(h.Start()) << h.Output();
    EXPECT_EQ(ReadTextFile(h.StatusFile()), "MOX_ENGINE OK");
    CallResult r = h.Call("start_server", nullptr);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(ReplyString(r), "MOX_SERVER_START_SUCCESS");

    // The envelope of every line: file, function, line, colour, thread id.
    std::string log = h.Log();
    EXPECT_NE(log.find("mox_engine.cpp: onBusAcquired("), std::string::npos);
    EXPECT_NE(log.find("> \033[32m[onBusAcquired:"), std::string::npos);
    EXPECT_NE(log.find("] [Thread Id:[" + std::to_string(h.Pid()) + "]] BusAcquired.\033[0m"),
              std::string::npos);
    EXPECT_NE(log.find("> \033[31m [INFO]:[handleMethodCall:"), std::string::npos);
    EXPECT_NE(log.find("recive method(start_server)."), std::string::npos);
    EXPECT_EQ(h.CountLog("NameAcquired."), 1u);

    EXPECT_EQ(h.Stop(), 0);
    // The status file is never removed by the daemon.
    EXPECT_TRUE(Exists(h.StatusFile()));
}

TEST(EngineStartup, HeartbeatRunsOnTheMainLoop) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    EXPECT_TRUE(h.WaitForLog("mox engine notify_callback end", 1, std::chrono::seconds(12)));
    EXPECT_EQ(h.Stop(), 0);
}

TEST(EngineStartup, LosingTheNameOnlyLogs) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    // A second daemon on the same bus cannot own the name and keeps running.
    EngineHarness second(h.BusAddress());
    ASSERT_TRUE(second.Start());
    ASSERT_TRUE(second.WaitForLog("NameLost."));
    EXPECT_TRUE(second.Running());
    EXPECT_EQ(second.Stop(), 0);
    CallResult r = h.Call("start_server", nullptr);
    EXPECT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(h.Stop(), 0);
}

TEST(EngineReset, PendingResetRemovesUhdFilesAndClearsTheKey) {
    for (int status : {1, 2}) {
        EngineHarness h;
        WriteTextFile(h.AppDataDir() + "/.UHD_Metadata.json", "{}");
        WriteTextFile(h.AppDataDir() + "/.UHD_Rating.json", "{}");
        WriteTextFile(h.AppDataDir() + "/other.json", "{}");
        ASSERT_TRUE(h.SetKey("db/mox/reset_status", status));
        ASSERT_TRUE(h.Start());
        EXPECT_FALSE(Exists(h.AppDataDir() + "/.UHD_Metadata.json"));
        EXPECT_FALSE(Exists(h.AppDataDir() + "/.UHD_Rating.json"));
        EXPECT_TRUE(Exists(h.AppDataDir() + "/other.json"));
        int value = -1;
        ASSERT_TRUE(h.GetKey("db/mox/reset_status", &value));
        EXPECT_EQ(value, 0);
        EXPECT_EQ(h.CountLog("db/mox/reset_status is [" + std::to_string(status) + "]"), 1u);
        EXPECT_EQ(h.CountLog("POWER_OFF_REASON_FACTORY_RESET or SERVICE RESET"), 1u);
        EXPECT_EQ(h.CountLog(" REMOVE MOX META DOWNLOAD FILE!!"), 1u);
        EXPECT_EQ(h.CountLog(" REMOVE MOX RATING DOWNLOAD FILE!!"), 1u);
        EXPECT_EQ(h.Stop(), 0);
    }
}

TEST(EngineReset, OtherValuesAndMissingKeyChangeNothing) {
    {
        EngineHarness h;
        WriteTextFile(h.AppDataDir() + "/.UHD_Metadata.json", "{}");
        ASSERT_TRUE(h.SetKey("db/mox/reset_status", 3));
        ASSERT_TRUE(h.Start());
        EXPECT_TRUE(Exists(h.AppDataDir() + "/.UHD_Metadata.json"));
        int value = -1;
        ASSERT_TRUE(h.GetKey("db/mox/reset_status", &value));
        EXPECT_EQ(value, 3);
        EXPECT_EQ(h.CountLog("end of mox_engine_deal_reset_status"), 1u);
        EXPECT_EQ(h.Stop(), 0);
    }
    {
        EngineHarness h;  // no key at all: logged, start-up goes on
        WriteTextFile(h.AppDataDir() + "/.UHD_Rating.json", "{}");
        ASSERT_TRUE(h.Start());
        EXPECT_EQ(h.CountLog("get db/mox/reset_status failed"), 1u);
        EXPECT_TRUE(Exists(h.AppDataDir() + "/.UHD_Rating.json"));
        EXPECT_EQ(h.Stop(), 0);
    }
    {
        EngineHarness h;  // garbage in the key file is a failed read, not a crash
        WriteTextFile(h.VconfDir() + "/db/mox/reset_status", "two\n");
        ASSERT_TRUE(h.Start());
        EXPECT_EQ(h.CountLog("get db/mox/reset_status failed"), 1u);
        EXPECT_EQ(h.Stop(), 0);
    }
}

TEST(EngineFolderMap, AddFindAndDatabaseResetWhileRunning) {
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
    EXPECT_GE(h.CountLog("Find Folder Path failed."), 1u);

    // Setting the key to 0 is a change but not a reset.
    ASSERT_TRUE(h.SetKey("file/private/mediaserver/db_reset", 0));
    ASSERT_TRUE(h.WaitForLog("OnVconfKeyChangedCB vconf key changed!"));
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":")" + a + R"("})"), "17");

    ASSERT_TRUE(h.SetKey("file/private/mediaserver/db_reset", 1));
    ASSERT_TRUE(h.WaitForLog("Clear: after DB Reset."));
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":1,"FOLDER_PATH":")" + a + R"("})"), "");
    EXPECT_EQ(h.Stop(), 0);
}

TEST(EngineFolderMap, BadParametersGetAnEmptyAnswer) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    EXPECT_EQ(FolderCall(h, R"({"FOLDER_PATH":"/x"})"), "");
    EXPECT_EQ(h.CountLog("Invalid eOperationType[-1]."), 1u);
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":7})"), "");
    EXPECT_EQ(h.CountLog("Invalid eOperationType[7]."), 1u);
    EXPECT_EQ(FolderCall(h, "{not json"), "");
    EXPECT_EQ(FolderCall(h, "[1,2,3]"), "");
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":"0"})"), "");
    // Members of the wrong type read as empty; the add still "succeeds".
    EXPECT_EQ(FolderCall(h, R"({"OPERATION_TYPE":0,"FOLDER_PATH":5,"FOLDER_ID":[]})"),
              "AddFolderMapSuccess");
    EXPECT_EQ(FolderCall(h, std::string(R"({"OPERATION_TYPE":1,"FOLDER_PATH":")") +
                                std::string(5000, '[') + "\"}"),
              "");
    CallResult r = h.Call("start_server", nullptr);
    EXPECT_TRUE(r.ok());
    EXPECT_EQ(h.Stop(), 0);
}

TEST(EngineFiles, WriteAndRemoveThroughSharedMemory) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    const std::string target = h.UsbRoot() + "/note.txt";

    std::string shm = MakeTextShm("hello, usb", 10);
    CallResult r = h.Call("usb_file_write", g_variant_new("(ss)", target.c_str(), shm.c_str()));
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_TRUE(ReplyBool(r));
    EXPECT_EQ(ReadTextFile(target), "hello, usb");
    EXPECT_FALSE(ShmExists(shm)) << "the object is consumed";

    // Missing object.
    r = h.Call("usb_file_write", g_variant_new("(ss)", target.c_str(), "/mox_test_no_such_object"));
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(ReplyBool(r));
    EXPECT_GE(h.CountLog("CMOXUtil: shm_open [/mox_test_no_such_object] failed."), 1u);

    // Unwritable path: the object is consumed all the same.
    shm = MakeTextShm("data", 4);
    std::string bad = h.Path("no-such-dir/x.txt");
    r = h.Call("usb_file_write", g_variant_new("(ss)", bad.c_str(), shm.c_str()));
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(ReplyBool(r));
    EXPECT_FALSE(ShmExists(shm));
    EXPECT_FALSE(Exists(bad));

    // A client's object that lies about its length must not crash the daemon.
    shm = MakeTextShm("abc", 1 << 30);
    r = h.Call("usb_file_write", g_variant_new("(ss)", target.c_str(), shm.c_str()));
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_FALSE(ReplyBool(r));
    EXPECT_FALSE(ShmExists(shm));
    shm = MakeTextShm("abc", -5);
    r = h.Call("usb_file_write", g_variant_new("(ss)", target.c_str(), shm.c_str()));
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(ReplyBool(r));
    EXPECT_EQ(ReadTextFile(target), "hello, usb") << "a failed write leaves the old file";

    r = h.Call("usb_file_remove", g_variant_new("(ss)", target.c_str(), "ignored"));
    ASSERT_TRUE(r.ok());
    EXPECT_TRUE(ReplyBool(r));
    EXPECT_FALSE(Exists(target));
    r = h.Call("usb_file_remove", g_variant_new("(ss)", target.c_str(), ""));
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(ReplyBool(r));
    EXPECT_EQ(h.CountLog("CMOXUtil: remove [" + target + "] failed."), 1u);
    EXPECT_EQ(h.Stop(), 0);
}

TEST(EngineDispatch, EveryMethodAnswersAndTheDaemonKeepsServing) {
    EngineHarness h;
    ASSERT_TRUE(h.Start());
    // "test" needs no plug-in; a library that is not there is refused.
    CallResult r = h.Call("connect", g_variant_new("(s)", "test"));
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(ReplyUint(r), 0u);
    r = h.Call("connect", g_variant_new("(s)", "libmox_not_installed.so"));
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(ReplyUint(r), 4294967295u);
    r = h.Call("stop_act", g_variant_new("(us)", 0u, "{}"));
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(ReplyUint(r), 23u);
    r = h.Call("start_scanner", g_variant_new("(ss)", "check_device", "{}"));
    ASSERT_TRUE(r.ok());
    gboolean started = TRUE;
    guint32 id = 7;
    g_variant_get(r.reply.get(), "(bu)", &started, &id);
    EXPECT_FALSE(started);
    EXPECT_EQ(id, 0u);
    r = h.Call("start_scanner", g_variant_new("(ss)", "scan_folder", "{}"));
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(h.CountLog("unsupport yet, method(scan_folder)."), 1u);
    r = h.Call("start_scanner", g_variant_new("(ss)", "whatever", "{}"));
    ASSERT_TRUE(r.ok());
    g_variant_get(r.reply.get(), "(bu)", &started, &id);
    EXPECT_FALSE(started);
    r = h.Call("start_scanner_thumb", g_variant_new("(ssuu)", "/x", "photo", 3u, 1u));
    ASSERT_TRUE(r.ok());
    EXPECT_FALSE(ReplyBool(r));
    EXPECT_EQ(h.CountLog("start_scanner_thumb return end[0]"), 1u);
    r = h.Call("bind_usb_event", g_variant_new("(u)", 2u));
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(ReplyUint(r), 0u);

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
        {"stop_scanner_thumb", g_variant_new("(ssuu)", "/x", "photo", 3u, 1u)},
        {"stop_scanner", g_variant_new("(u)", 5u)},
    };
    for (auto& call : empties) {
        r = h.Call(call.method, call.params);
        ASSERT_TRUE(r.ok()) << call.method << ": " << r.error;
        EXPECT_EQ(g_variant_n_children(r.reply.get()), 0u) << call.method;
        EXPECT_EQ(h.CountLog(std::string("recive method(") + call.method + ")."), 1u);
    }

    // Unknown names get an empty reply, not a D-Bus error.
    r = h.Call("foo", nullptr);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(g_variant_n_children(r.reply.get()), 0u);
    EXPECT_TRUE(h.WaitForLog("unkown method(foo)."));
    // A wrong signature is refused by the bus layer before the dispatcher.
    r = h.Call("connect", g_variant_new("(u)", 5u));
    EXPECT_FALSE(r.ok());
    r = h.Call("start_server", nullptr);
    ASSERT_TRUE(r.ok());
    EXPECT_EQ(h.Stop(), 0);
}
