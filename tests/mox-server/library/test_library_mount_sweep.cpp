// A mounted storage loses the temporary files a dead engine left on it once
// the library's walk of it is over; those of a living process stay.
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "library_test_util.h"

namespace fs = std::filesystem;
using namespace moxtest;

TEST(LibraryMountSweep, StaleTemporaryFilesGoAfterTheWalk) {
    EngineHarness h;
    LibraryClient lib(h);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    ASSERT_GT(child, 0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    const std::string dead = std::to_string(child), live = std::to_string(getpid());
    const std::string stick = lib.Mount("a");
    fs::create_directories(stick + "/d");
    std::ofstream(stick + "/x.jpg") << "junk";
    const std::string stale[] = {stick + "/.mox-transfer-" + dead + "-1", stick + "/d/.y.jpg.mox-" + dead + "-0"};
    const std::string kept[] = {stick + "/.mox-transfer-" + live + "-1", stick + "/d/.y.jpg.mox-" + live + "-2"};
    for (const std::string& f : stale) std::ofstream(f) << "partial";
    for (const std::string& f : kept) std::ofstream(f) << "partial";
    ASSERT_TRUE(lib.Start());
    lib.Plug("m1", "a");
    lib.Wait("a", "ready");
    for (int i = 0; i < 500 && (fs::exists(stale[0]) || fs::exists(stale[1])); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (const std::string& f : stale) EXPECT_FALSE(fs::exists(f)) << f;
    for (const std::string& f : kept) EXPECT_TRUE(fs::exists(f)) << f;
    EXPECT_EQ(h.Stop(), 0);
}
