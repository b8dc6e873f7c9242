// The scan list, the auto scanner's states and modes, the scan manager and the
// folder thumbnail scanner, on their real threads over real trees.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "mox_auto_scanner.h"
#include "mox_scanner_manager.h"
#include "mox_thumbnail_scanner.h"
#include "scan_tree.h"

using namespace scantest;
using namespace std::chrono_literals;

namespace {

// Collects end callbacks; counts the frees of its callback data.
struct Recorder {
    std::mutex m;
    std::condition_variable cv;
    std::vector<int> results;
    std::atomic<int> frees{0};

    static void OnEnd(void* data, int result) {
        auto* self = static_cast<Recorder*>(data);
        std::lock_guard<std::mutex> lock(self->m);
        self->results.push_back(result);
        self->cv.notify_all();
    }
    static void OnFree(void* data) { ++static_cast<Recorder*>(data)->frees; }

    bool WaitFor(size_t n, std::chrono::milliseconds timeout = 10s) {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, timeout, [&] { return results.size() >= n; });
    }
    std::vector<int> Results() {
        std::lock_guard<std::mutex> lock(m);
        return results;
    }
};

template <typename Pred>
bool WaitUntil(Pred pred, std::chrono::milliseconds timeout = 10s) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

SMOXScannerOption ScanOption(const std::string& root, int mode, Recorder* rec) {
    SMOXScannerOption option = WalkOption(root);
    option.nScanMode = mode;
    option.bFilterByExtension = mode == MOX_SCAN_MODE_CHECK;
    option.pfnEndCallback = Recorder::OnEnd;
    option.pCallbackData = rec;
    option.pfnFreeData = Recorder::OnFree;
    return option;
}

// An end callback that holds the scanner's thread until released.
struct Hold {
    std::mutex m;
    std::condition_variable cv;
    bool entered = false, released = false;
    static void OnEnd(void* data, int) {
        auto* self = static_cast<Hold*>(data);
        std::unique_lock<std::mutex> lock(self->m);
        self->entered = true;
        self->cv.notify_all();
        self->cv.wait(lock, [&] { return self->released; });
    }
    SMOXScannerOption Request(SMOXScannerOption option) {
        option.pfnEndCallback = OnEnd;
        option.pCallbackData = this;
        option.pfnFreeData = nullptr;
        return option;
    }
    bool WaitEntered() {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, 10s, [&] { return entered; });
    }
    void Release() {
        std::lock_guard<std::mutex> lock(m);
        released = true;
        cv.notify_all();
    }
};

}  // namespace

TEST(ScanList, BoundsMarkersAndCounters) {
    CMOXScanList list;
    list.SetListSize(20);
    SMOXFileInfo dir;
    dir.nType = MOX_SCANNER_TYPE_DIR;
    dir.strBasePath = "/r";
    dir.strName = "d";
    SMOXFileInfo file = dir;
    file.nType = MOX_SCANNER_TYPE_FILE;
    file.llFileSize = 9;
    EXPECT_EQ(list.Push(dir), 0);
    for (int i = 0; i < 19; ++i) EXPECT_EQ(list.Push(file), 0);
    EXPECT_EQ(list.Push(file), -9);
    EXPECT_EQ(list.GetTotalALL(), 20);
    EXPECT_EQ(list.GetTotalFILEs(), 19);
    list.PushPreviousPath(file);  // even when full; a directory, not an entry
    EXPECT_EQ(list.GetTotalDIRs(), 2);
    EXPECT_EQ(list.GetTotalALL(), 20);
    list.PushEndFlag();
    EXPECT_EQ(list.GetNumberOfItems(), 22);

    std::vector<SMOXFileInfo> batch;
    EXPECT_EQ(list.PopList(20, batch), 0);
    EXPECT_EQ(batch.size(), 20u);
    SMOXFileInfo out;
    ASSERT_EQ(list.Pop(out), 0);
    EXPECT_TRUE(out.bParentLink);
    EXPECT_EQ(out.strName, "..");
    EXPECT_EQ(out.llFileSize, 0);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(list.Pop(out), 0);
        EXPECT_EQ(out.nType, MOX_SCANNER_END_FLAG);
    }
    EXPECT_TRUE(list.IsEndFlag());
    list.Release();
    EXPECT_TRUE(list.IsEmpty());
    EXPECT_EQ(list.GetTotalALL(), 0);
    EXPECT_EQ(list.Pop(out), -8);
    EXPECT_EQ(list.PopList(5, batch), 0);  // the vector already held entries
    batch.clear();
    EXPECT_EQ(list.PopList(5, batch), -8);
}

// Check mode: no, one and several media, with the refusals of each state.
TEST(AutoScanner, CheckModeAndStates) {
    moxtest::TempDir none, one, several;
    Touch(none.path() + "/readme.txt");
    MakeDir(one.path() + "/sub");
    Touch(one.path() + "/sub/only.JPG");
    Touch(one.path() + "/other.doc");
    for (int i = 0; i < 50; ++i) Touch(several.path() + "/m" + std::to_string(i) + ".mp3");

    struct Case {
        std::string root;
        int result;
    };
    for (const Case& c : {Case{none.path(), 800}, Case{one.path(), 801}, Case{several.path(), 802}}) {
        Recorder rec;
        CMOXAutoScanner scanner;
        ASSERT_TRUE(scanner.Create("T_CHECK"));
        EXPECT_EQ(scanner.Pause(), -11);
        EXPECT_EQ(scanner.Resume(), -11);
        ASSERT_EQ(scanner.SetScannerOption(ScanOption(c.root, MOX_SCAN_MODE_CHECK, &rec)), 0);
        EXPECT_EQ(scanner.Stop(), -21);
        ASSERT_EQ(scanner.Start(), 0);
        ASSERT_TRUE(rec.WaitFor(1));
        EXPECT_EQ(rec.Results(), std::vector<int>{c.result});
        SMOXFileInfo held;
        EXPECT_EQ(scanner.GetFileInfo(held), 0);
        if (c.result == 801) {
            EXPECT_EQ(held.strBasePath, one.path() + "/sub");
            EXPECT_EQ(held.strName, "only.JPG");
            EXPECT_EQ(held.nExtensionGroup, MOX_MEDIA_TYPE_PHOTO);
        }
        // Ended by itself: a Stop now is "already stopped" and calls nobody.
        EXPECT_EQ(scanner.Stop(), -21);
        EXPECT_STREQ(scanner.GetStateName(), "STOP");
        // A new option replaces (and frees) the old callback data.
        ASSERT_EQ(scanner.SetScannerOption(ScanOption(c.root, MOX_SCAN_MODE_CHECK, &rec)), 0);
        EXPECT_EQ(rec.frees.load(), 1);
        EXPECT_EQ(scanner.Reset(), 0);
        scanner.Destroy();
        EXPECT_EQ(rec.frees.load(), 2);
        EXPECT_EQ(rec.Results().size(), 1u);
    }

    // A scan held by a full list: SCAN refuses options and Resume, Pause
    // parks it, Start keeps it, Stop ends it with one callback.
    Recorder rec;
    CMOXAutoScanner scanner;
    ASSERT_TRUE(scanner.Create("T_STATES"));
    SMOXScannerOption option = ScanOption(several.path(), MOX_SCAN_MODE_NORMAL, &rec);
    option.nListSize = 3;
    ASSERT_EQ(scanner.SetScannerOption(option), 0);
    ASSERT_EQ(scanner.Start(), 0);
    EXPECT_EQ(scanner.Start(), 0);
    EXPECT_EQ(scanner.Resume(), -11);
    EXPECT_EQ(scanner.Reset(), -11);
    EXPECT_EQ(scanner.SetScannerOption(option), -11);
    EXPECT_EQ(scanner.Pause(), 0);
    EXPECT_EQ(scanner.Pause(), 0);
    EXPECT_STREQ(scanner.GetStateName(), "PAUSE");
    EXPECT_EQ(scanner.Start(), -11);
    EXPECT_EQ(scanner.Resume(), 0);
    EXPECT_EQ(scanner.Stop(), 0);
    EXPECT_EQ(scanner.Stop(), -21);
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(rec.Results().empty());  // a client's Stop calls nobody
    scanner.Destroy();
    EXPECT_EQ(rec.frees.load(), 1);
}

// Normal mode with a list far smaller than the tree: every entry arrives
// once, an overflowed entry is kept and retried, parent links mark folders.
TEST(AutoScanner, NormalModeOverflowKeepsEntries) {
    moxtest::TempDir tree;
    std::set<std::string> expected;
    for (int d = 0; d < 5; ++d) {
        std::string sub = "d" + std::to_string(d);
        MakeDir(tree.path() + "/" + sub);
        expected.insert(sub);
        for (int f = 0; f < 12; ++f) {
            std::string name = sub + "_f" + std::to_string(f);
            Touch(tree.path() + "/" + sub + "/" + name);
            expected.insert(name);
        }
    }
    Recorder rec;
    CMOXAutoScanner scanner;
    ASSERT_TRUE(scanner.Create("T_NORMAL"));
    SMOXScannerOption option = ScanOption(tree.path(), MOX_SCAN_MODE_NORMAL, &rec);
    option.nListSize = 4;
    ASSERT_EQ(scanner.SetScannerOption(option), 0);
    ASSERT_EQ(scanner.Start(), 0);
    std::multiset<std::string> seen;
    int nParentLinks = 0;
    auto deadline = std::chrono::steady_clock::now() + 20s;
    int n = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        std::vector<SMOXFileInfo> batch;
        n = scanner.GetFileInfoList(3, batch);
        if (n == -7) break;
        for (const auto& e : batch) {
            if (e.bParentLink)
                ++nParentLinks;
            else if (e.nType < MOX_SCANNER_START_FLAG)
                seen.insert(e.strName);
        }
        if (n == -8) std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(n, -7);
    EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()), expected);
    EXPECT_EQ(seen.size(), expected.size());
    EXPECT_EQ(nParentLinks, 5);
    EXPECT_TRUE(scanner.IsVisitedDIR(tree.path() + "/d3"));
    EXPECT_EQ(scanner.GetNumberOfFiles(), 60);
    ASSERT_TRUE(rec.WaitFor(1));
    EXPECT_EQ(rec.Results(), std::vector<int>{-1});  // normal mode sets no result
    scanner.Destroy();
}

TEST(ScanManager, IdsForwardingAndRemoval) {
    moxtest::TempDir stick;
    Touch(stick.path() + "/a.mp3");
    const int fdsBefore = OpenFds();
    {
        CMOXScanManager manager;
        int id = 0;
        ASSERT_EQ(manager.CreateScanner(id), 0);
        EXPECT_EQ(id, 1);
        EXPECT_EQ(manager.StartScanner(0), -6);
        EXPECT_EQ(manager.GetNumberOfALL(7), -6);
        int found = 0;
        EXPECT_EQ(manager.GetScanner("/nowhere", found), -6);
        manager.RemoveScanner(1);
        ASSERT_EQ(manager.CreateScanner(id), 0);
        EXPECT_EQ(id, 2);

        Recorder rec;
        ASSERT_EQ(manager.SetScannerOption(2, ScanOption(stick.path(), MOX_SCAN_MODE_CHECK, &rec)), 0);
        ASSERT_EQ(manager.StartScanner(2), 0);
        ASSERT_TRUE(rec.WaitFor(1));
        EXPECT_EQ(rec.Results(), std::vector<int>{801});
        SMOXFileInfo info;
        EXPECT_EQ(manager.GetNextFileInfo(2, info), 0);
        EXPECT_EQ(info.strName, "a.mp3");
        EXPECT_EQ(manager.GetScanner(stick.path().c_str(), found), 0);
        EXPECT_EQ(found, 2);

        // Many scanners on the same storage, removed together by its path
        // while they run; then the bound on live scanners.
        Recorder busy;
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(manager.CreateScanner(id), 0);
            SMOXScannerOption option = ScanOption(stick.path(), MOX_SCAN_MODE_NORMAL, &busy);
            option.nListSize = 1;
            ASSERT_EQ(manager.SetScannerOption(id, option), 0);
            ASSERT_EQ(manager.StartScanner(id), 0);
        }
        EXPECT_EQ(manager.GetScannerCount(), 6u);
        manager.RemoveScanner(stick.path().c_str());
        manager.WaitForRemovals();
        EXPECT_EQ(manager.GetScannerCount(), 0u);
        EXPECT_EQ(busy.frees.load(), 5);
        EXPECT_EQ(rec.frees.load(), 1);
        EXPECT_EQ(manager.GetNextFileInfo(2, info), -6);
        EXPECT_EQ(CMOXScanManager::ConvertScannerResult(805), 31);
        EXPECT_EQ(CMOXScanManager::ConvertScannerResult(-1), 27);

        std::vector<int> ids;
        while (manager.CreateScanner(id) == 0) ids.push_back(id);
        EXPECT_EQ(ids.size(), CMOXScanManager::kMaxScanners);
        EXPECT_EQ(ids.front(), 8);
    }
    EXPECT_EQ(OpenFds(), fdsBefore);
}

// The storage goes away while its scans run: they end, are removed, and
// leave no descriptor behind.
TEST(ScanManager, StoragePulledMidScan) {
    moxtest::TempDir stick;
    for (int d = 0; d < 40; ++d) {
        MakeDir(stick.path() + "/d" + std::to_string(d));
        for (int f = 0; f < 20; ++f) Touch(stick.path() + "/d" + std::to_string(d) + "/f" + std::to_string(f));
    }
    const int fdsBefore = OpenFds();
    CMOXScanManager manager;
    Recorder rec;
    int id = 0;
    ASSERT_EQ(manager.CreateScanner(id), 0);
    SMOXScannerOption option = ScanOption(stick.path(), MOX_SCAN_MODE_NORMAL, &rec);
    option.nListSize = 50;
    ASSERT_EQ(manager.SetScannerOption(id, option), 0);
    ASSERT_EQ(manager.StartScanner(id), 0);
    std::vector<SMOXFileInfo> batch;
    for (int i = 0; i < 30; ++i) manager.GetNextFileInfoList(id, 10, batch);
    ASSERT_EQ(system(("rm -rf '" + stick.path() + "'/*").c_str()), 0);
    for (int i = 0; i < 200 && manager.GetNextFileInfoList(id, 50, batch) != -7; ++i)
        std::this_thread::sleep_for(1ms);
    manager.RemoveScanner(stick.path().c_str());
    manager.WaitForRemovals();
    EXPECT_EQ(manager.GetScannerCount(), 0u);
    EXPECT_EQ(rec.frees.load(), 1);
    EXPECT_LE(rec.Results().size(), 1u);
    EXPECT_EQ(OpenFds(), fdsBefore);
}

TEST(ThumbnailScanner, ResultsLimitAndRemoval) {
    moxtest::TempDir stick;
    const std::string mount = stick.path() + "/sdb1";
    MakeDir(mount);
    MakeDir(mount + "/files");
    for (int i = 0; i < 100; ++i) Touch(mount + "/files/p" + std::to_string(i) + ".jpg");
    Touch(mount + "/files/song.mp3");
    MakeDir(mount + "/dirs");
    MakeDir(mount + "/dirs/inner");
    Touch(mount + "/dirs/notes.txt");
    MakeDir(mount + "/empty");

    CMOXThumbnailScanner thumb;
    ASSERT_TRUE(thumb.Create());
    Recorder rec;
    auto request = [&](const std::string& folder, int limit, int tag) {
        SMOXScannerOption option = ScanOption(folder, 2, &rec);
        option.strBasePath = mount;
        option.strFourthPath = "CONTENT-IMAGE";
        option.nMediaGroup = MOX_MEDIA_TYPE_PHOTO;
        option.bFilterByExtension = true;
        option.nRecursive = 0;
        option.nFileLimit = limit;
        option.nRequestTag = tag;
        return option;
    };
    ASSERT_EQ(thumb.AddScanner(request(mount + "/files", 4, 1)), 0);
    ASSERT_EQ(thumb.AddScanner(request(mount + "/files", 1000, 1)), 0);
    ASSERT_EQ(thumb.AddScanner(request(mount + "/dirs", 4, 1)), 0);
    ASSERT_EQ(thumb.AddScanner(request(mount + "/empty", 4, 1)), 0);
    ASSERT_TRUE(rec.WaitFor(4));
    EXPECT_EQ(rec.Results(), (std::vector<int>{803, 803, 804, 805}));
    ASSERT_TRUE(WaitUntil([&] { return rec.frees.load() == 4; }));
    std::vector<SMOXFileInfo> files;
    EXPECT_EQ(thumb.GetFileInfoList(files), -1) << "no request runs now";

    // With the thread held on another storage's request: queued requests of
    // a device go with it, a matching stop drops one, the rest run.
    Hold first;
    SMOXScannerOption other = first.Request(request(mount + "/dirs", 4, 1));
    other.strBasePath = stick.path() + "/other";
    ASSERT_EQ(thumb.AddScanner(other), 0);
    ASSERT_TRUE(first.WaitEntered());
    SMOXScannerOption kept = request(mount + "/dirs", 4, 7);
    kept.strBasePath = stick.path() + "/other";
    for (int i = 0; i < 100; ++i) ASSERT_EQ(thumb.AddScanner(request(mount + "/files", 1000, i)), 0);
    ASSERT_EQ(thumb.AddScanner(kept), 0);
    ASSERT_EQ(thumb.AddScanner(kept), 0);
    thumb.RemoveScanner((mount + "/dirs").c_str(), "CONTENT-IMAGE", 4, 7);  // both copies
    thumb.RemoveScannerByDevice(mount.c_str());
    EXPECT_EQ(rec.frees.load(), 106);
    ASSERT_EQ(thumb.AddScanner(request(mount + "/empty", 4, 1)), 0);
    first.Release();
    EXPECT_TRUE(WaitUntil([&] { return rec.frees.load() == 107; }));
    EXPECT_EQ(rec.Results(), (std::vector<int>{803, 803, 804, 805, 805}));

    // Removing the device of the running request returns only once that
    // request is over.
    Hold running;
    ASSERT_EQ(thumb.AddScanner(running.Request(request(mount + "/files", 1000, 1))), 0);
    ASSERT_TRUE(running.WaitEntered());
    std::atomic<bool> removed{false};
    std::thread pull([&] {
        thumb.RemoveScannerByDevice(mount.c_str());
        removed = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(removed.load());
    running.Release();
    pull.join();

    // The queue is bounded: with the thread held inside a callback, exactly
    // the requests beyond the bound are refused (and their data freed).
    Hold hold;
    ASSERT_EQ(thumb.AddScanner(hold.Request(request(mount + "/empty", 4, 1))), 0);
    ASSERT_TRUE(hold.WaitEntered());
    int refused = 0;
    for (size_t i = 0; i < CMOXThumbnailScanner::kMaxQueuedRequests + 10; ++i)
        if (thumb.AddScanner(request(mount + "/empty", 4, 1)) != 0) ++refused;
    EXPECT_EQ(refused, 10);
    EXPECT_EQ(rec.frees.load(), 117);
    hold.Release();
    thumb.Destroy();
    EXPECT_EQ(rec.frees.load(), 117 + static_cast<int>(CMOXThumbnailScanner::kMaxQueuedRequests));
}
