// The scan list, the auto scanner's states and modes, the scan manager and the
// folder thumbnail scanner, on their real threads over real trees.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
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
    std::vector<int> results;  // GUARDED_BY(m)
    std::atomic<int> frees{0};

    static void OnEnd(void* data, int result) {
        auto* self = static_cast<Recorder*>(data);
        std::lock_guard<std::mutex> lock(self->m);
        self->results.push_back(result);
        self->cv.notify_all();
    }
    static void OnFree(void* data) { ++static_cast<Recorder*>(data)->frees; }
    bool WaitFor(size_t n) {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, 10s, [&] { return results.size() >= n; });
    }
    std::vector<int> Results() {
        std::lock_guard<std::mutex> lock(m);
        return results;
    }
};

bool WaitUntil(const std::function<bool()>& pred) {
    auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!pred())
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        else
            std::this_thread::sleep_for(1ms);
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

// A folder thumbnail request of `owner` for the photos of `folder`.
SMOXScannerOption ThumbRequest(Recorder* rec, const std::string& folder, const std::string& base, int tag,
                               const std::string& owner = "") {
    SMOXScannerOption option = ScanOption(folder, 2, rec);
    option.strBasePath = base;
    option.strFourthPath = "CONTENT-IMAGE";
    option.nMediaGroup = MOX_MEDIA_TYPE_PHOTO;
    option.bFilterByExtension = true;
    option.nRecursive = 0;
    option.nFileLimit = 4;
    option.nRequestTag = tag;
    option.strOwner = owner;
    return option;
}

// An end callback that holds the scanner's thread until released.
struct Hold {
    std::mutex m;
    std::condition_variable cv;
    bool entered = false, released = false;  // GUARDED_BY(m)
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

// The refusals of each state, the one media file a check holds, and the
// callback data freed exactly once per option.
TEST(AutoScanner, CheckModeAndStates) {
    moxtest::TempDir one, several;
    MakeDir(one.path() + "/sub");
    Touch(one.path() + "/sub/only.JPG");
    Touch(one.path() + "/other.doc");
    for (int i = 0; i < 50; ++i) Touch(several.path() + "/m" + std::to_string(i) + ".mp3");
    {
        Recorder rec;
        CMOXAutoScanner scanner;
        ASSERT_TRUE(scanner.Create("T_CHECK"));
        EXPECT_EQ(scanner.Pause(), -11);
        ASSERT_EQ(scanner.SetScannerOption(ScanOption(one.path(), MOX_SCAN_MODE_CHECK, &rec)), 0);
        EXPECT_EQ(scanner.Stop(), -21);
        ASSERT_EQ(scanner.Start(), 0);
        ASSERT_TRUE(rec.WaitFor(1));
        EXPECT_EQ(rec.Results(), std::vector<int>{801});
        SMOXFileInfo held;
        EXPECT_EQ(scanner.GetFileInfo(held), 0);
        EXPECT_EQ(held.strBasePath, one.path() + "/sub");
        EXPECT_EQ(held.strName, "only.JPG");
        EXPECT_EQ(held.nExtensionGroup, MOX_MEDIA_TYPE_PHOTO);
        EXPECT_EQ(scanner.Stop(), -21);  // ended by itself: no second callback
        ASSERT_EQ(scanner.SetScannerOption(ScanOption(one.path(), MOX_SCAN_MODE_CHECK, &rec)), 0);
        EXPECT_EQ(rec.frees.load(), 1);
        scanner.Destroy();
        EXPECT_EQ(rec.frees.load(), 2);
        EXPECT_EQ(rec.Results().size(), 1u);
    }

    // A scan held by a full list: SCAN refuses options, Pause parks it,
    // Stop ends it without calling the client back.
    Recorder rec;
    CMOXAutoScanner scanner;
    ASSERT_TRUE(scanner.Create("T_STATES"));
    SMOXScannerOption option = ScanOption(several.path(), MOX_SCAN_MODE_NORMAL, &rec);
    option.nListSize = 3;
    ASSERT_EQ(scanner.SetScannerOption(option), 0);
    ASSERT_EQ(scanner.Start(), 0);
    EXPECT_EQ(scanner.Resume(), -11);
    EXPECT_EQ(scanner.SetScannerOption(option), -11);
    EXPECT_EQ(scanner.Pause(), 0);
    EXPECT_STREQ(scanner.GetStateName(), "PAUSE");
    EXPECT_EQ(scanner.Start(), -11);
    EXPECT_EQ(scanner.Resume(), 0);
    EXPECT_EQ(scanner.Stop(), 0);
    EXPECT_EQ(scanner.Stop(), -21);
    std::this_thread::sleep_for(50ms);
    EXPECT_TRUE(rec.Results().empty());
    scanner.Destroy();
    EXPECT_EQ(rec.frees.load(), 1);
}

// A list far smaller than the tree: every entry arrives once, an entry that
// overflowed the list is kept and retried, parent links still go in.
TEST(AutoScanner, NormalModeOverflowKeepsEntries) {
    moxtest::TempDir tree;
    std::set<std::string> expected;
    for (int d = 0; d < 5; ++d) {
        std::string sub = "d" + std::to_string(d);
        MakeDir(tree.path() + "/" + sub);
        expected.insert(sub);
        for (int f = 0; f < 12; ++f) {
            expected.insert(sub + "_f" + std::to_string(f));
            Touch(tree.path() + "/" + sub + "/" + sub + "_f" + std::to_string(f));
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
    int nParentLinks = 0, n = 0;
    auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline && n != -7) {
        std::vector<SMOXFileInfo> batch;
        n = scanner.GetFileInfoList(3, batch);
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
    EXPECT_EQ(scanner.GetNumberOfFiles(), 60);
    ASSERT_TRUE(rec.WaitFor(1));
    scanner.Destroy();
}

// Ids are never reused; scanners of one storage are removed together while
// they run; the number of live scanners is bounded; nothing leaks.
TEST(ScanManager, IdsRemovalAndBound) {
    moxtest::TempDir stick;
    Touch(stick.path() + "/a.mp3");
    const int fdsBefore = OpenFds();
    {
        CMOXScanManager manager;
        int id = 0, found = 0;
        ASSERT_EQ(manager.CreateScanner(id), 0);
        EXPECT_EQ(manager.StartScanner(0), -6);
        manager.RemoveScanner(1);
        ASSERT_EQ(manager.CreateScanner(id), 0);
        EXPECT_EQ(id, 2);

        Recorder rec;
        ASSERT_EQ(manager.SetScannerOption(2, ScanOption(stick.path(), MOX_SCAN_MODE_CHECK, &rec)), 0);
        ASSERT_EQ(manager.StartScanner(2), 0);
        ASSERT_TRUE(rec.WaitFor(1));
        SMOXFileInfo info;
        EXPECT_EQ(manager.GetNextFileInfo(2, info), 0);
        EXPECT_EQ(info.strName, "a.mp3");
        EXPECT_EQ(manager.GetScanner(stick.path().c_str(), found), 0);
        EXPECT_EQ(found, 2);

        Recorder busy;
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(manager.CreateScanner(id), 0);
            SMOXScannerOption option = ScanOption(stick.path(), MOX_SCAN_MODE_NORMAL, &busy);
            option.nListSize = 1;
            ASSERT_EQ(manager.SetScannerOption(id, option), 0);
            ASSERT_EQ(manager.StartScanner(id), 0);
        }
        manager.RemoveScanner(stick.path().c_str());
        manager.WaitForRemovals();
        EXPECT_EQ(manager.GetScannerCount(), 0u);
        EXPECT_EQ(busy.frees.load(), 5);
        EXPECT_EQ(rec.frees.load(), 1);
        EXPECT_EQ(manager.GetNextFileInfo(2, info), -6);

        std::vector<int> ids;
        while (manager.CreateScanner(id) == 0) ids.push_back(id);
        EXPECT_EQ(ids.size(), CMOXScanManager::kMaxScanners);
        EXPECT_EQ(ids.front(), 8);
    }
    EXPECT_EQ(OpenFds(), fdsBefore);
}

// With the thread held in a callback: removal by device and by request, the
// wait for a running request, and the queue bound, without timing races.
TEST(ThumbnailScanner, RemovalAndQueueBound) {
    moxtest::TempDir stick;
    const std::string mount = stick.path() + "/sdb1";
    MakeDir(mount);
    MakeDir(mount + "/files");
    for (int i = 0; i < 100; ++i) Touch(mount + "/files/p" + std::to_string(i) + ".jpg");
    MakeDir(mount + "/dirs");
    MakeDir(mount + "/dirs/inner");
    MakeDir(mount + "/empty");

    CMOXThumbnailScanner thumb;
    ASSERT_TRUE(thumb.Create());
    Recorder rec;
    const std::string other = stick.path() + "/other";

    // Queued requests of a device go with it, a matching stop drops both
    // copies of a request, the rest run.
    Hold first;
    ASSERT_EQ(thumb.AddScanner(first.Request(ThumbRequest(&rec, mount + "/dirs", other, 1))), 0);
    ASSERT_TRUE(first.WaitEntered());
    for (int i = 0; i < 100; ++i) ASSERT_EQ(thumb.AddScanner(ThumbRequest(&rec, mount + "/files", mount, i)), 0);
    ASSERT_EQ(thumb.AddScanner(ThumbRequest(&rec, mount + "/dirs", other, 7)), 0);
    ASSERT_EQ(thumb.AddScanner(ThumbRequest(&rec, mount + "/dirs", other, 7)), 0);
    ASSERT_EQ(thumb.AddScanner(ThumbRequest(&rec, mount + "/empty", other, 1)), 0);
    EXPECT_EQ(thumb.RemoveScanner((mount + "/dirs").c_str(), "CONTENT-IMAGE", 4, 7, nullptr), 0u);
    thumb.RemoveScannerByDevice(mount.c_str());
    EXPECT_EQ(rec.frees.load(), 102);
    first.Release();
    EXPECT_TRUE(WaitUntil([&] { return rec.frees.load() == 103; }));
    EXPECT_EQ(rec.Results(), std::vector<int>{805});
    std::vector<SMOXFileInfo> files;
    EXPECT_EQ(thumb.GetFileInfoList(files), -1) << "no request runs now";

    // Removing the device of the running request does not wait for it (a
    // read may take as long as a hung storage does): this returns while the
    // request is held.
    Hold running;
    ASSERT_EQ(thumb.AddScanner(running.Request(ThumbRequest(&rec, mount + "/files", mount, 1))), 0);
    ASSERT_TRUE(running.WaitEntered());
    thumb.RemoveScannerByDevice(mount.c_str());
    running.Release();

    // Exactly the requests beyond the bound are refused, their data freed.
    Hold hold;
    ASSERT_EQ(thumb.AddScanner(hold.Request(ThumbRequest(&rec, mount + "/empty", mount, 1))), 0);
    ASSERT_TRUE(hold.WaitEntered());
    int refused = 0;
    for (size_t i = 0; i < CMOXThumbnailScanner::kMaxQueuedRequests + 10; ++i)
        if (thumb.AddScanner(ThumbRequest(&rec, mount + "/empty", mount, 1)) != 0) ++refused;
    EXPECT_EQ(refused, 10);
    EXPECT_EQ(rec.frees.load(), 113);
    hold.Release();
    thumb.Destroy();
    EXPECT_EQ(rec.frees.load(), 113 + static_cast<int>(CMOXThumbnailScanner::kMaxQueuedRequests));
}

// Shares of one owner: scanners and queued requests stop at the per-client
// bound while others still get in; what an owner held goes at once when it
// leaves, also while its requests are being added on another thread.
TEST(ScanManager, OwnersSharesAndLeaving) {
    moxtest::TempDir stick;
    MakeDir(stick.path() + "/empty");
    CMOXScanManager manager;
    int id = 0, created = 0;
    for (size_t i = 0; i < CMOXScanManager::kMaxScannersPerClient + 3; ++i)
        if (manager.CreateScanner(id, ":1.5") == 0) ++created;
    EXPECT_EQ(created, static_cast<int>(CMOXScanManager::kMaxScannersPerClient));
    ASSERT_EQ(manager.CreateScanner(id, ":1.6"), 0);
    std::string owner;
    EXPECT_TRUE(manager.GetScannerOwner(id, owner));
    EXPECT_EQ(owner, ":1.6");
    EXPECT_FALSE(manager.GetScannerOwner(9999, owner));
    manager.RemoveScannersOfOwner(":1.5");
    manager.WaitForRemovals();
    EXPECT_EQ(manager.GetScannerCount(), 1u);
    EXPECT_EQ(manager.CreateScanner(id, ":1.5"), 0) << "the share comes back";
    // Two connections of one user count against one share.
    created = 0;
    for (size_t i = 0; i < CMOXScanManager::kMaxScannersPerClient; ++i)
        if (manager.CreateScanner(id, i % 2 ? ":1.7" : ":1.8", "uid:1000") == 0) ++created;
    EXPECT_EQ(created, static_cast<int>(CMOXScanManager::kMaxScannersPerClient));
    EXPECT_NE(manager.CreateScanner(id, ":1.9", "uid:1000"), 0);
    EXPECT_EQ(manager.CreateScanner(id, ":1.9", "uid:1001"), 0);

    CMOXThumbnailScanner thumb;
    ASSERT_TRUE(thumb.Create());
    Recorder rec;
    const std::string empty = stick.path() + "/empty";
    Hold hold;
    ASSERT_EQ(thumb.AddScanner(hold.Request(ThumbRequest(&rec, empty, stick.path(), 0, ""))), 0);
    ASSERT_TRUE(hold.WaitEntered());
    int refused = 0;
    for (size_t i = 0; i < CMOXThumbnailScanner::kMaxRequestsPerClient + 5; ++i)
        if (thumb.AddScanner(ThumbRequest(&rec, empty, stick.path(), 1, ":1.5")) != 0) ++refused;
    EXPECT_EQ(refused, 5);
    EXPECT_EQ(rec.frees.load(), 5);
    ASSERT_EQ(thumb.AddScanner(ThumbRequest(&rec, empty, stick.path(), 1, ":1.6")), 0);
    // Another owner's matching requests are left alone and counted.
    const std::string other = ":1.7";
    EXPECT_EQ(thumb.RemoveScanner(empty.c_str(), "CONTENT-IMAGE", 4, 1, &other),
              CMOXThumbnailScanner::kMaxRequestsPerClient + 1);
    EXPECT_EQ(rec.frees.load(), 5);
    EXPECT_EQ(thumb.RemoveScannersOfOwner(":1.5"), CMOXThumbnailScanner::kMaxRequestsPerClient);
    EXPECT_EQ(rec.frees.load(), 5 + static_cast<int>(CMOXThumbnailScanner::kMaxRequestsPerClient));
    EXPECT_EQ(thumb.AddScanner(ThumbRequest(&rec, empty, stick.path(), 2, ":1.5")), 0);

    // An owner leaving while its requests are added and run.
    hold.Release();
    std::atomic<bool> stop{false};
    std::atomic<int> added{0};
    std::thread adder([&] {
        while (!stop) {
            thumb.AddScanner(ThumbRequest(&rec, empty, stick.path(), 3, ":1.8"));
            ++added;
        }
    });
    for (int i = 0; i < 200; ++i) {
        thumb.RemoveScannersOfOwner(":1.8");
        std::this_thread::sleep_for(100us);
    }
    stop = true;
    adder.join();
    thumb.RemoveScannersOfOwner(":1.8");
    thumb.Destroy();
    // Every request's data freed exactly once: run, withdrawn, refused or
    // left in the queue at the end.
    const int total = static_cast<int>(CMOXThumbnailScanner::kMaxRequestsPerClient) + 5 + 2 + added.load();
    EXPECT_EQ(rec.frees.load(), total);
    EXPECT_GT(added.load(), 0);
}
