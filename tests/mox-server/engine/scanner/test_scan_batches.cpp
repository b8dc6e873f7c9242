// A normal scan handed over in batches, on the scanner's real thread over a
// real tree: every entry once with its folder, size and time, across a list
// bound far below the tree (the walk waits for room), pause and resume in the
// middle, the walk rules (links and FIFOs never reported), and a stop that
// ends the consumer's wait.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "mox_auto_scanner.h"
#include "scan_tree.h"

using namespace scantest;
using namespace std::chrono_literals;

namespace {

struct Seen {
    int64_t llSize = -1;
    int32_t tModified = 0;
    int nType = -1;
    int nTimes = 0;
};

SMOXScannerOption BatchOption(const std::string& root, int nListSize) {
    SMOXScannerOption option = WalkOption(root);
    option.nScanMode = MOX_SCAN_MODE_NORMAL;
    option.nDetail = 1;
    option.bFilterByExtension = true;
    option.nListSize = nListSize;
    option.bBatches = true;
    return option;
}

}  // namespace

TEST(ScanBatches, EveryEntryOnceAcrossTheBoundWithPauseAndStop) {
    moxtest::TempDir tree;
    std::map<std::string, Seen> expected;  // path below the tree -> what the walk must say
    for (int d = 0; d < 6; ++d) {
        const std::string sub = "d" + std::to_string(d);
        MakeDir(tree.path() + "/" + sub);
        expected[sub].nType = MOX_SCANNER_TYPE_DIR;
        for (int f = 0; f < 150; ++f) {
            // Names of different lengths, so that names and folders of one
            // batch sit at varied offsets of its text.
            const std::string name = sub + "/p" + std::string(static_cast<size_t>(f % 7), 'x') + std::to_string(f) +
                                     (f % 3 == 0 ? ".mp3" : ".jpg");
            moxtest::WriteTextFile(tree.path() + "/" + name, std::string(static_cast<size_t>(f + 1), 'y'));
            struct stat st;
            ASSERT_EQ(stat((tree.path() + "/" + name).c_str(), &st), 0);
            expected[name] = {st.st_size, static_cast<int32_t>(st.st_mtime), MOX_SCANNER_TYPE_FILE, 0};
        }
        Touch(tree.path() + "/" + sub + "/notes.txt");  // no media: not reported
    }
    ASSERT_EQ(symlink("d0/p0.mp3", (tree.path() + "/link.mp3").c_str()), 0);
    ASSERT_EQ(symlink("d1", (tree.path() + "/dlink").c_str()), 0);
    ASSERT_EQ(mkfifo((tree.path() + "/fifo.jpg").c_str(), 0600), 0);

    CMOXAutoScanner scanner;
    ASSERT_TRUE(scanner.Create("T_BATCHES"));
    // 300 entries at most queued: the 906 of the tree pass only if the walk
    // waits for room and loses nothing meanwhile.
    ASSERT_EQ(scanner.SetScannerOption(BatchOption(tree.path(), 300)), 0);
    ASSERT_EQ(scanner.Start(), 0);
    std::map<std::string, Seen> seen;
    SMOXScanBatch batch;
    int n = 0, nBatches = 0;
    size_t nMaxBatch = 0;
    bool bPaused = false;
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (n != MOX_SCAN_END && std::chrono::steady_clock::now() < deadline) {
        n = scanner.TakeBatch(batch, 50ms);
        if (n != MOX_SCAN_OK) continue;
        ++nBatches;
        nMaxBatch = std::max(nMaxBatch, batch.entries.size());
        for (const SMOXScanBatch::Entry& entry : batch.entries) {
            std::string folder(batch.Folder(entry));
            ASSERT_EQ(folder.compare(0, tree.path().size(), tree.path()), 0) << folder;
            folder.erase(0, tree.path().size());
            if (!folder.empty()) folder = folder.substr(1) + "/";
            Seen& s = seen[folder + std::string(batch.Name(entry))];
            ++s.nTimes;
            s.nType = entry.nType;
            s.llSize = entry.nType == MOX_SCANNER_TYPE_FILE ? entry.llFileSize : -1;
            s.tModified = entry.tModified;
        }
        if (nBatches == 1 && !bPaused) {
            // The walk parks between runs (it cannot have ended: a run is
            // queued and one held at most while the list is full), and
            // hands nothing over while parked.
            ASSERT_EQ(scanner.Pause(), 0);
            bPaused = true;
            const int nQueued = scanner.GetNumberOfALL();
            std::this_thread::sleep_for(100ms);
            EXPECT_EQ(scanner.GetNumberOfALL(), nQueued);
            ASSERT_EQ(scanner.Resume(), 0);
        }
        std::this_thread::sleep_for(2ms);  // a slow consumer: the list fills
    }
    EXPECT_EQ(n, MOX_SCAN_END);
    EXPECT_LE(nMaxBatch, static_cast<size_t>(CMOXAutoScanner::kBatchRun));
    EXPECT_GT(nBatches, 3);
    ASSERT_EQ(seen.size(), expected.size());
    for (const auto& [path, want] : expected) {
        const auto found = seen.find(path);
        ASSERT_NE(found, seen.end()) << path;
        EXPECT_EQ(found->second.nTimes, 1) << path;
        EXPECT_EQ(found->second.nType, want.nType) << path;
        if (want.nType == MOX_SCANNER_TYPE_FILE) {
            EXPECT_EQ(found->second.llSize, want.llSize) << path;
            EXPECT_EQ(found->second.tModified, want.tModified) << path;
        }
    }
    EXPECT_EQ(scanner.GetNumberOfALL(), static_cast<int>(expected.size()));

    // A second scan stopped early: the consumer's wait ends with the end
    // flag, not with its timeout.
    scanner.Stop();
    ASSERT_EQ(scanner.SetScannerOption(BatchOption(tree.path(), 300)), 0);
    ASSERT_EQ(scanner.Start(), 0);
    ASSERT_EQ(scanner.TakeBatch(batch, 10s), MOX_SCAN_OK);
    scanner.Stop();
    const auto t0 = std::chrono::steady_clock::now();
    while ((n = scanner.TakeBatch(batch, 10s)) == MOX_SCAN_OK) {
    }
    EXPECT_EQ(n, MOX_SCAN_END);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
    scanner.Destroy();
}
