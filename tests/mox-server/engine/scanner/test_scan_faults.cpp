// The mox-extract helper under faults: it outlives the scanner thread that
// started it (a finished scan must not kill a parse another scan waits for),
// and a file whose read stalls on a hung storage fails this time only: it is
// not blacklisted like a file that stalls the parser by itself.
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fault_mounts.h"
#include "mox_extract_client.h"
#include "mox_extractor.h"
#include "scan_tree.h"

using scantest::HelperPids;

namespace {

bool Extract(const std::string& dir, const std::string& name, int type) {
    CMOXExtractor extractor(dir, name, type);
    media_info_s info;
    return extractor.Extract(info);
}

}  // namespace

TEST(ScanFaults, HelperOutlivesItsThreadAndStorageStallsAreNotTheFilesFault) {
    moxtest::TempDir dir;
    setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 1);
    setenv("MOX_USB_ROOT", dir.path().c_str(), 1);
    ASSERT_TRUE(moxtest::WriteTextFile(dir.file("a.jpg"), "not really a photo"));
    ASSERT_TRUE(moxtest::WriteTextFile(dir.file("b.jpg"), "nor this"));

    // The first scanner thread starts the helper and ends.
    bool bFirst = false;
    std::thread([&] { bFirst = Extract(dir.path(), "a.jpg", 2); }).join();
    EXPECT_TRUE(bFirst);
    const std::vector<pid_t> helper = HelperPids();
    ASSERT_EQ(helper.size(), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(HelperPids(), helper) << "the helper died with the thread that started it";
    EXPECT_TRUE(Extract(dir.path(), "b.jpg", 2));
    EXPECT_EQ(HelperPids(), helper);

    std::filesystem::create_directories(dir.file("backing"));
    std::filesystem::create_directories(dir.file("stick"));
    ASSERT_TRUE(moxtest::WriteTextFile(dir.file("backing/slow.mp3"), std::string(4096, 'x')));
    moxtest::FaultFs fs(dir.file("backing"), dir.file("stick"));
    if (!fs.Mounted()) GTEST_SKIP() << "FUSE not usable here: " << fs.Why();
    fs.SetRules("hang read slow.mp3");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(Extract(dir.file("stick"), "slow.mp3", 5));  // the deadline ends it
    EXPECT_GE(std::chrono::steady_clock::now() - start, CMOXExtractClient::kDeadline);
    fs.SetRules("");
    EXPECT_TRUE(Extract(dir.file("stick"), "slow.mp3", 5)) << "a file the storage stalled was blacklisted";
}
