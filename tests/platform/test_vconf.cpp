// The configuration-key store: files under MOX_VCONF_DIR, atomic writes, and
// change notification across processes on the default main context.
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <glib.h>
#include <gtest/gtest.h>
#include <system_info.h>
#include <vconf.h>

#include "temp_dir.h"

namespace {

using Seen = std::vector<std::pair<std::string, int>>;

void Record(keynode_t* node, void* data) {
    static_cast<Seen*>(data)->emplace_back(vconf_keynode_get_name(node), vconf_keynode_get_int(node));
}

void Pump(std::chrono::milliseconds d, const std::function<bool()>& done) {
    auto deadline = std::chrono::steady_clock::now() + d;
    while (!done() && std::chrono::steady_clock::now() < deadline) {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

class Vconf : public ::testing::Test {
protected:
    void SetUp() override { setenv("MOX_VCONF_DIR", m_dir.path().c_str(), 1); }
    moxtest::TempDir m_dir;
};

}  // namespace

TEST_F(Vconf, GetSetAndBadKeysOrValues) {
    int v = 7;
    EXPECT_EQ(vconf_get_int("db/mox/reset_status", &v), -1);
    EXPECT_EQ(v, 7) << "a failed read leaves the output";
    ASSERT_EQ(vconf_set_int("db/mox/reset_status", -42), 0);
    ASSERT_EQ(vconf_get_int("db/mox/reset_status", &v), 0);
    EXPECT_EQ(v, -42);
    EXPECT_EQ(moxtest::ReadTextFile(m_dir.file("db/mox/reset_status")), "-42\n");

    for (const char* bad : {"", "/etc/passwd", "../escape", "a/../b", "a//b", "a/./b", "a/"}) {
        EXPECT_EQ(vconf_set_int(bad, 1), -1) << bad;
        EXPECT_EQ(vconf_get_int(bad, &v), -1) << bad;
    }
    EXPECT_EQ(vconf_get_int(nullptr, &v), -1);
    EXPECT_EQ(vconf_get_int("db/mox/reset_status", nullptr), -1);

    for (const char* text : {"", "abc", "12abc", "99999999999", " \n"}) {
        moxtest::WriteTextFile(m_dir.file("db/garbage"), text);
        EXPECT_EQ(vconf_get_int("db/garbage", &v), -1) << "'" << text << "'";
    }
    moxtest::WriteTextFile(m_dir.file("db/spaced"), "  12 \n");
    ASSERT_EQ(vconf_get_int("db/spaced", &v), 0);
    EXPECT_EQ(v, 12);
}

TEST_F(Vconf, ChangesFromAnotherProcessReachTheMainContext) {
    Seen seen;
    ASSERT_EQ(vconf_notify_key_changed("file/private/mediaserver/db_reset", Record, &seen), 0);
    // Registering the same pair twice delivers each change once.
    ASSERT_EQ(vconf_notify_key_changed("file/private/mediaserver/db_reset", Record, &seen), 0);

    pid_t pid = fork();
    if (pid == 0) {
        vconf_set_int("file/private/mediaserver/other", 5);  // a sibling key: not ours
        vconf_set_int("file/private/mediaserver/db_reset", 1);
        _exit(0);
    }
    waitpid(pid, nullptr, 0);
    Pump(std::chrono::seconds(5), [&] { return !seen.empty(); });
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].first, "file/private/mediaserver/db_reset");
    EXPECT_EQ(seen[0].second, 1);

    ASSERT_EQ(vconf_set_int("file/private/mediaserver/db_reset", 0), 0);
    Pump(std::chrono::seconds(5), [&] { return seen.size() >= 2; });
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].second, 0);

    ASSERT_EQ(vconf_ignore_key_changed("file/private/mediaserver/db_reset", Record), 0);
    EXPECT_EQ(vconf_ignore_key_changed("file/private/mediaserver/db_reset", Record), -1);
    ASSERT_EQ(vconf_set_int("file/private/mediaserver/db_reset", 3), 0);
    Pump(std::chrono::milliseconds(300), [] { return false; });
    EXPECT_EQ(seen.size(), 2u);
}

TEST_F(Vconf, ConcurrentWritersNeverExposeAPartialValue) {
    ASSERT_EQ(vconf_set_int("db/race", 0), 0);
    pid_t pid = fork();
    if (pid == 0) {
        for (int i = 0; i < 2000; ++i) vconf_set_int("db/race", (i % 2) ? 1234567 : -7654321);
        _exit(0);
    }
    int bad = 0;
    for (int i = 0; i < 2000; ++i) {
        int v = 0;
        if (vconf_get_int("db/race", &v) != 0 || (v != 0 && v != 1234567 && v != -7654321)) ++bad;
    }
    waitpid(pid, nullptr, 0);
    EXPECT_EQ(bad, 0);
}

TEST(SystemInfo, FeatureFlagsFile) {
    moxtest::TempDir dir;
    setenv("MOX_FEATURES_FILE", dir.file("features").c_str(), 1);
    bool value = true;
    EXPECT_NE(system_info_get_value_bool(SYSTEM_INFO_KEY_KINVIEW_SUPPORT, &value), 0);
    moxtest::WriteTextFile(dir.file("features"), "# flags\n5240=true\n 524 = false \n7=maybe\n");
    ASSERT_EQ(system_info_get_value_bool(SYSTEM_INFO_KEY_KINVIEW_SUPPORT, &value), 0);
    EXPECT_FALSE(value);
    ASSERT_EQ(system_info_get_value_bool(5240, &value), 0);
    EXPECT_TRUE(value);
    EXPECT_NE(system_info_get_value_bool(7, &value), 0);
    EXPECT_NE(system_info_get_value_bool(8, &value), 0);
    EXPECT_NE(system_info_get_value_bool(524, nullptr), 0);
}
