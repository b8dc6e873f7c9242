// The media library under faults and hostile input, end to end: the real
// daemon on a private bus, the spool USB service, the real mox-extract helper
// (its test faults on), real SQLite files in a temporary MOX_LIBRARY_DIR and,
// for a list that stays busy, a FUSE stick (mox_faultfs) whose folder reads
// hang on demand.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <json/json.h>

#include "fault_mounts.h"
#include "library_test_util.h"

namespace fs = std::filesystem;
using namespace moxtest;

namespace {

bool MakePhotos(const std::string& dir, int count) {
    fs::create_directories(dir);
    if (!Shell("convert -size 32x24 xc:blue " + dir + "/p0.jpg")) return false;
    for (int i = 1; i < count; ++i) fs::copy_file(dir + "/p0.jpg", dir + "/p" + std::to_string(i) + ".jpg");
    return true;
}

// Empty files of a media group the helper does not parse: rows without a
// helper round trip.
void MakeQuickFiles(const std::string& dir, int count, size_t nameLength = 8) {
    fs::create_directories(dir);
    for (int i = 0; i < count; ++i)
        std::ofstream(dir + "/" + std::string(nameLength, 'q') + std::to_string(i) + ".um4");
}

}  // namespace

// A list that stays busy on a hung stick pauses indexing ("paused", nothing
// done meanwhile); once the list is answered indexing resumes and finishes.
TEST(LibraryFaults, PausesWhileAListIsServedThenResumes) {
    EngineHarness h;
    LibraryClient lib(h);
    const std::string backing = h.Path("backing");
    fs::create_directories(backing + "/lst/in");
    std::ofstream(backing + "/lst/in/a.jpg") << "x";
    const std::string hung = h.UsbRoot() + "/fuse";
    fs::create_directories(hung);
    FaultFs fuse(backing, hung);
    if (!fuse.Mounted()) GTEST_SKIP() << "FUSE not available: " << fuse.Why();
    if (!MakePhotos(lib.Mount("s1"), 60)) GTEST_SKIP() << "convert missing";
    h.InstallPlugin(MOX_LOCAL_SOURCE_SO);
    ASSERT_TRUE(lib.Start("libmox_local_source.so"));
    fuse.SetRules("hang readdir /lst\n");
    const std::string list =
        R"({"mox_command":"mox_requestlist","mox_source":["mox_local_source"],"mox_folder_path":")" + hung +
        R"(/lst/in"})";
    g_dbus_connection_call(lib.conn.get(), kEngineName, kEnginePath, kEngineInterface, "get_partial_list",
                           g_variant_new("(uuus)", lib.handle, 0u, 50u, list.c_str()), nullptr, G_DBUS_CALL_FLAGS_NONE,
                           60000, nullptr, nullptr, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));

    lib.Plug("s1");
    const Json::Value first = lib.Wait("s1", "paused");
    const Json::Value later = lib.Wait("s1", "paused");
    EXPECT_EQ(later["done"], first["done"]);
    EXPECT_LT(first["done"].asInt(), 60);
    Json::Value status = lib.Volumes();
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0]["state"].asString(), "paused");

    fuse.SetRules("");
    const Json::Value ready = lib.Wait("s1", "ready");
    EXPECT_EQ(ready["counts"]["photo"].asInt(), 60);
    EXPECT_EQ(ready["done"].asInt(), 60);
    EXPECT_EQ(h.Stop(), 0);
}

// Depth 1,000, link loops, links out of the mount, FIFOs and names that are
// not UTF-8: the walk's rules hold (its path bound ends the deep chain, links
// are not followed), nothing outside is indexed, and every name stored and
// sent is UTF-8.
TEST(LibraryFaults, HostileTreesStayInsideTheMount) {
    EngineHarness h;
    LibraryClient lib(h);
    const std::string stick = lib.Mount("s3");
    const std::string outside = h.Path("outside");
    MakeQuickFiles(outside, 5);
    // Deeper than a path the kernel takes at once: made folder by folder.
    fs::create_directories(stick);
    int fd = open(stick.c_str(), O_DIRECTORY | O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < 1000 && fd >= 0; ++i) {
        ASSERT_EQ(mkdirat(fd, "d", 0755), 0);
        const int next = openat(fd, "d", O_DIRECTORY | O_RDONLY | O_CLOEXEC);
        close(fd);
        fd = next;
    }
    ASSERT_GE(fd, 0);
    const int file = openat(fd, "bottom.um4", O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    EXPECT_GE(file, 0);
    close(file);
    close(fd);
    fs::create_directory_symlink(".", stick + "/loop");
    fs::create_directory_symlink("..", stick + "/d/up");
    fs::create_directory_symlink(outside, stick + "/out");
    fs::create_symlink(outside + "/qqqqqqqq0.um4", stick + "/link.um4");
    ASSERT_EQ(mkfifo((stick + "/pipe.um4").c_str(), 0644), 0);
    const std::string odd = stick + "/f\xff\xfe";
    fs::create_directories(odd);
    std::ofstream(odd + "/g\xc3\x28.um4");
    ASSERT_TRUE(lib.Start());
    lib.Plug("s3");
    const Json::Value ready = lib.Wait("s3", "ready");
    EXPECT_EQ(ready["counts"]["other"].asInt(), 1);  // the oddly named one; the bottom is past the path bound
    const std::string db = lib.Db("s3");
    const int folders = QueryInt(db, "SELECT count(*) FROM items WHERE is_folder = 1");
    EXPECT_GT(folders, 300);
    EXPECT_LT(folders, 1001);
    // The chain has no gap: its deepest row is "d/d/.../d".
    EXPECT_EQ(QueryInt(db, "SELECT max(length(rel_path)) FROM items"), 2 * (folders - 1) - 1);
    EXPECT_EQ(QueryInt(db,
                       "SELECT count(*) FROM items WHERE file_name LIKE 'qqq%' OR file_name IN "
                       "('loop', 'up', 'out', 'link.um4', 'pipe.um4')"),
              0);
    EXPECT_EQ(Query(db, "SELECT file_name FROM items WHERE parent = CAST(X'66FFFE' AS BLOB)"), "g\\xC3(.um4");
    EXPECT_EQ(Query(db, "SELECT file_name FROM items WHERE rel_path = CAST(X'66FFFE' AS BLOB)"), "f\\xFF\\xFE");
    EXPECT_EQ(h.Stop(), 0);
}

// The row bound and the byte bound (lowered through the environment): one
// warning each, the index stays usable; the byte bound first drops the
// least recently mounted index that is not mounted, which was listed as
// "unmounted" until then.
TEST(LibraryFaults, RowAndByteBoundsHold) {
    EngineHarness h;
    LibraryClient lib(h);
    MakeQuickFiles(lib.Mount("s4"), 40);
    h.SetEnv("MOX_LIBRARY_MAX_ROWS", "20");
    ASSERT_TRUE(lib.Start());
    lib.Plug("s4");
    Json::Value ready = lib.Wait("s4", "ready");
    EXPECT_EQ(QueryInt(lib.Db("s4"), "SELECT count(*) FROM items"), 20);  // the root's files only: no folder row
    EXPECT_EQ(ready["counts"]["other"].asInt(), 20);
    EXPECT_EQ(h.CountLog("rows, the bound"), 1u);
    lib.Unplug("s4");
    Json::Value status = lib.Volumes();
    ASSERT_EQ(status.size(), 1u);
    EXPECT_EQ(status[0]["state"].asString(), "unmounted");
    EXPECT_EQ(status[0]["mount_path"].asString(), lib.Mount("s4"));
    EXPECT_EQ(status[0]["counts"]["other"].asInt(), 20);
    EXPECT_EQ(status[0]["generation"], ready["generation"]);
    EXPECT_EQ(h.Stop(), 0);

    // Room for a small index only: s4's goes first, then s5 stops growing.
    struct stat st;
    ASSERT_EQ(stat(lib.Db("s4").c_str(), &st), 0);
    h.SetEnv("MOX_LIBRARY_MAX_ROWS", "");
    h.SetEnv("MOX_LIBRARY_MAX_BYTES", std::to_string(st.st_size + 300 * 1024));
    MakeQuickFiles(lib.Mount("s5"), 4000, 150);
    ASSERT_TRUE(lib.Start());
    lib.Plug("s5");
    ready = lib.Wait("s5", "ready");
    const int rows = QueryInt(lib.Db("s5"), "SELECT count(*) FROM items");
    EXPECT_GT(rows, 0);
    EXPECT_LT(rows, 4000);
    EXPECT_EQ(ready["counts"]["other"].asInt(), rows);
    EXPECT_FALSE(fs::exists(lib.Db("s4")));
    EXPECT_EQ(h.CountLog("dropping the index"), 1u);
    EXPECT_EQ(h.CountLog("byte bound is reached"), 1u);
    EXPECT_EQ(Query(lib.Db("s5"), "PRAGMA quick_check"), "ok");
    EXPECT_EQ(h.Stop(), 0);
}

// The index's file system fills up during a re-plug's transaction: one
// warning, "failed", the rows committed before stay readable; once there is
// room again a rescan finishes the index.
TEST(LibraryFaults, AFullDiskStopsIndexingAndKeepsWhatWasCommitted) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a loop mount";
    EngineHarness h;
    LibraryClient lib(h);
    const std::string disk = h.Path("disk");
    fs::create_directories(disk);
    LoopFs loop(h.Path("disk.img"), disk);
    if (!loop.Mounted()) GTEST_SKIP() << loop.Why();
    h.SetEnv("MOX_LIBRARY_DIR", disk + "/lib");
    const std::string db = disk + "/lib/uuid-f-s6.db";
    MakeQuickFiles(lib.Mount("s6"), 300);
    ASSERT_TRUE(lib.Start());
    lib.Plug("s6");
    const Json::Value first = lib.Wait("s6", "ready");
    EXPECT_EQ(first["counts"]["other"].asInt(), 300);
    lib.Unplug("s6");

    struct statvfs vfs;
    ASSERT_EQ(statvfs(disk.c_str(), &vfs), 0);
    const long long room = static_cast<long long>(vfs.f_bavail) * vfs.f_frsize - 128 * 1024;
    const int fd = open((disk + "/filler").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(posix_fallocate(fd, 0, room), 0);
    close(fd);
    MakeQuickFiles(lib.Mount("s6") + "/more", 3000, 150);
    lib.Plug("s6");
    // Reads below map the index's shared-memory file on the full disk: if
    // indexing did not fail first, they could end the test with SIGBUS.
    ASSERT_FALSE(lib.Wait("s6", "failed").isNull());
    EXPECT_EQ(h.CountLog("is full"), 1u);
    EXPECT_EQ(Query(db, "PRAGMA quick_check"), "ok");
    EXPECT_EQ(QueryInt(db, "SELECT count(*) FROM items WHERE file_name LIKE 'qqqqqqqq_%' AND parent = X''"), 300);
    EXPECT_TRUE(h.Call("get_usb_storages", g_variant_new("(u)", 1u)).ok());

    fs::remove(disk + "/filler");
    // ext4 reuses the blocks of a removed file once its journal committed.
    sync();
    lib.Act(R"({"mox_command":"mox_library_rescan","mox_library_mount":")" + lib.Mount("s6") + R"("})");
    const Json::Value ready = lib.Wait("s6", "ready");
    EXPECT_EQ(ready["counts"]["other"].asInt(), 3300);
    EXPECT_EQ(h.Stop(), 0);
}
