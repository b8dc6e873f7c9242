// Index files of another schema version, with the real daemon and real
// SQLite files: an older one keeps its rows (nothing extracted again), a
// newer one is moved aside and rebuilt.
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "library_test_util.h"

namespace fs = std::filesystem;
using namespace moxtest;

namespace {

bool Exec(const std::string& db, const std::string& sql) {
    sqlite3* p = nullptr;
    const bool bOk = sqlite3_open(db.c_str(), &p) == SQLITE_OK &&
                     sqlite3_exec(p, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
    sqlite3_close(p);
    return bOk;
}

}  // namespace

TEST(LibraryUpgrade, OlderKeepsRowsNewerIsRebuilt) {
    EngineHarness h;
    LibraryClient lib(h);
    fs::create_directories(h.UsbRoot() + "/a/d");
    // Not decodable: recorded as such, not tried again while unchanged.
    for (const char* name : {"/a/x.jpg", "/a/d/y.mp3", "/a/d/z.jpg"}) std::ofstream(h.UsbRoot() + name) << "junk";
    ASSERT_TRUE(lib.Start());
    lib.Plug("u1", "a");
    const Json::Value first = lib.Wait("a", "ready");
    ASSERT_GT(first["generation"].asInt(), 0);
    const std::string db = lib.Db("u1");
    EXPECT_EQ(h.Stop(), 0);
    const std::string index = "SELECT sql FROM sqlite_schema WHERE name = 'items_parent'";

    // Version 1: the folder index without the columns the walk compares.
    ASSERT_TRUE(Exec(db,
                     "DROP INDEX items_parent; CREATE INDEX items_parent ON items(parent, is_folder, file_name); "
                     "PRAGMA user_version=1"));
    ASSERT_EQ(Query(db, index).find("file_size"), std::string::npos) << Query(db, index);
    ASSERT_TRUE(lib.Start());  // still plugged
    Json::Value ready = lib.WaitStatus("a", "ready");
    EXPECT_EQ(ready["generation"], first["generation"]);
    EXPECT_EQ(ready["counts"], first["counts"]);
    EXPECT_EQ(Query(db, "PRAGMA user_version"), "2");
    EXPECT_NE(Query(db, index).find("file_size, file_time, state"), std::string::npos) << Query(db, index);
    EXPECT_EQ(Query(db, "SELECT count(*) FROM items WHERE is_folder = 0 AND state != 0"), "3");
    EXPECT_FALSE(fs::exists(db + ".broken"));
    EXPECT_EQ(h.Stop(), 0);

    // A version this daemon does not know yet: moved aside, rebuilt.
    ASSERT_TRUE(Exec(db, "PRAGMA user_version=3"));
    ASSERT_TRUE(lib.Start());
    ready = lib.WaitStatus("a", "ready");
    EXPECT_EQ(ready["counts"]["photo"].asInt(), 2);
    EXPECT_TRUE(fs::exists(db + ".broken"));
    EXPECT_EQ(Query(db, "PRAGMA user_version"), "2");
    EXPECT_EQ(h.Stop(), 0);
    EXPECT_EQ(h.CountLog("unusable ("), 1u);
}
