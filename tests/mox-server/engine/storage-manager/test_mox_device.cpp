// Device records: platform-code mappings, C-string setters, a missing mount,
// sizes as fresh as the call on real mounts.
#include <gtest/gtest.h>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <thread>

#include "fault_mounts.h"
#include "mox_device.h"
#include "temp_dir.h"

namespace {

TEST(MOXDevice, UnknownPlatformCodesAndNullStringsAreSafe) {
    CMOXUSBDevice device;
    const std::pair<int, int> fileSystems[] = {{0, MOX_USB_FS_VFAT},    {2, MOX_USB_FS_EXT4},
                                               {3, MOX_USB_FS_NTFS},    {1, MOX_USB_FS_UNKNOWN},
                                               {4, MOX_USB_FS_UNKNOWN}, {-22, MOX_USB_FS_UNKNOWN}};
    for (auto [platform, record] : fileSystems) {
        device.SetFileSystem(platform);
        EXPECT_EQ(record, device.GetFileSystem()) << platform;
    }
    const std::pair<int, int> classes[] = {{8, MOX_USB_CLASS_MSC}, {6, MOX_USB_CLASS_PTP}, {0, MOX_USB_CLASS_OTHER}};
    for (auto [platform, record] : classes) {
        device.SetDeviceClass(platform);
        EXPECT_EQ(record, device.GetDeviceClass()) << platform;
    }
    for (auto [platform, record] : {std::pair<int, int>{1, 1}, {0, 2}, {2, 2}, {-1, 2}}) {
        device.SetDiskType(platform);
        EXPECT_EQ(record, device.GetDiskType()) << platform;
    }

    // A null C string keeps the previous value; an empty one is a value.
    EXPECT_EQ("n/a", device.GetDeviceMountPath());
    device.SetSerial("4C53");
    device.SetMountPath("/opt/storage/usb/sdb1");
    device.SetSerial(nullptr);
    device.SetMountPath(nullptr);
    device.SetModelName(nullptr);
    EXPECT_EQ("4C53", device.GetSerial());
    EXPECT_EQ("/opt/storage/usb/sdb1", device.GetDeviceMountPath());
    device.SetSerial("");
    EXPECT_EQ("", device.GetSerial());
}

// Two small tmpfs mounts, asked together, on a call's arrival and one by one
// right after a write or a removal: each answer shows the change (a joined
// statfs that began before it would not). A mount that goes, or none, has no
// sizes.
TEST(MOXDevice, SizesAreAsFreshAsTheCallAndZeroWithoutAMount) {
    moxtest::TempDir dir;
    const std::string mounts[2] = {dir.path() + "/a", dir.path() + "/b"};
    CMOXUSBDevice devices[2];
    EXPECT_EQ(0, devices[0].GetDeviceTotalSize());  // "n/a"
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(0, mkdir(mounts[i].c_str(), 0755));
        if (mount("tmpfs", mounts[i].c_str(), "tmpfs", 0, "size=4m") != 0) GTEST_SKIP() << "no tmpfs mount here";
        devices[i].SetMountPath(mounts[i].c_str());
    }
    auto available = [&](int i, uint64_t nAsked) {
        long long total = 0, free = -1;
        devices[i].GetDeviceSizes(total, free, nAsked);
        return free;
    };
    const std::string block(256 * 1024, 'x');
    long long before[2] = {available(0, 0), available(1, 0)};
    for (int round = 0; round < 12; ++round) {
        const int i = round % 2;
        const bool bWrite = round % 4 < 2;
        ASSERT_TRUE(bWrite ? moxtest::WriteTextFile(mounts[i] + "/f", block) : unlink((mounts[i] + "/f").c_str()) == 0);
        uint64_t asked[2] = {0, 0};
        // Asked together, or when a bus call arrives (the arrival's request).
        const uint64_t nArrival = round % 3 == 1 ? CMOXUSBDevice::AskSizesOnArrival() : 0;
        if (round % 3 != 2)
            asked[0] = devices[0].AskDeviceSizes(nArrival), asked[1] = devices[1].AskDeviceSizes(nArrival);
        EXPECT_EQ(before[i] + (bWrite ? -256 : 256), available(i, asked[i])) << round;
        EXPECT_EQ(before[1 - i], available(1 - i, asked[1 - i])) << round;
        before[i] += bWrite ? -256 : 256;
    }
    for (const auto& m : mounts) ASSERT_TRUE(umount2(m.c_str(), MNT_DETACH) == 0 && rmdir(m.c_str()) == 0);
    EXPECT_EQ(0, available(0, 0));
    EXPECT_EQ(0, devices[1].GetDeviceAvailableSize());
}

// One stick whose statfs hangs beside a healthy one: the healthy one's
// sizes stay as fresh as the call, the hung one's last answer stands in, and
// however often both are asked the hung stick holds one thread, not more.
// Once it answers again, its sizes are fresh too.
TEST(MOXDevice, AHungStorageKeepsOneThreadAndNotTheOthersSizes) {
    moxtest::TempDir dir;
    const std::string healthy = dir.path() + "/a", hung = dir.path() + "/b", backing = dir.path() + "/back";
    for (const auto& d : {healthy, hung, backing}) ASSERT_EQ(0, mkdir(d.c_str(), 0755));
    if (mount("tmpfs", healthy.c_str(), "tmpfs", 0, "size=4m") != 0) GTEST_SKIP() << "no tmpfs mount here";
    {
        moxtest::FaultFs fuse(backing, hung);
        if (!fuse.Mounted()) {
            umount2(healthy.c_str(), MNT_DETACH);
            GTEST_SKIP() << fuse.Why();
        }
        CMOXUSBDevice devices[2];
        devices[0].SetMountPath(healthy.c_str());
        devices[1].SetMountPath(hung.c_str());
        long long total = 0, hungFree = -1, free = -1;
        devices[1].GetDeviceSizes(total, hungFree);
        ASSERT_GT(total, 0);
        devices[0].GetDeviceSizes(total, free);
        auto threads = [] {
            return std::distance(std::filesystem::directory_iterator("/proc/self/task"),
                                 std::filesystem::directory_iterator());
        };
        fuse.SetRules("hang statfs *\n");
        const std::string block(256 * 1024, 'x');
        long nThreads = 0;
        for (int round = 0; round < 8; ++round) {
            const bool bWrite = round % 2 == 0;
            ASSERT_TRUE(bWrite ? moxtest::WriteTextFile(healthy + "/f", block) : unlink((healthy + "/f").c_str()) == 0);
            const uint64_t nArrival = round % 2 ? CMOXUSBDevice::AskSizesOnArrival() : 0;
            const uint64_t asked[2] = {devices[0].AskDeviceSizes(nArrival), devices[1].AskDeviceSizes(nArrival)};
            long long now = -1, hungNow = -1;
            if (round > 0) {  // held by its stuck prober since round 0: not waited for
                const auto start = std::chrono::steady_clock::now();
                EXPECT_FALSE(devices[1].SizesIn(asked[1], start + std::chrono::seconds(5)));
                EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4)) << round;
            }
            devices[1].GetDeviceSizes(total, hungNow, asked[1]);
            devices[0].GetDeviceSizes(total, now, asked[0]);
            EXPECT_EQ(free + (bWrite ? -256 : 256), now) << round;
            EXPECT_EQ(hungFree, hungNow) << round;
            free = now;
            if (round == 1) nThreads = threads();
        }
        // One more at most: a prober retired by a slow but healthy call (a
        // loaded machine) ends when its call returns.
        EXPECT_LE(threads(), nThreads + 1) << "a hung storage took more threads";
        fuse.SetRules("");
        ASSERT_TRUE(moxtest::WriteTextFile(backing + "/g", block));
        long long after = -1;
        for (int i = 0; i < 100 && after != hungFree - 256; ++i) devices[1].GetDeviceSizes(total, after);
        EXPECT_NE(hungFree, after);

        // Slow on every call, asked again while its statfs is under way, and
        // nobody else waiting behind it: the same prober serves every call.
        auto tasks = [] {
            std::set<std::string> ids;
            for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task"))
                ids.insert(entry.path().filename());
            return ids;
        };
        fuse.SetRules("slow statfs *\n");
        devices[1].GetDeviceSizes(total, after);
        const std::set<std::string> before = tasks();
        for (int i = 0; i < 4; ++i) {
            devices[1].AskDeviceSizes();
            std::this_thread::sleep_for(std::chrono::milliseconds(25));
            devices[1].GetDeviceSizes(total, after, devices[1].AskDeviceSizes());
        }
        EXPECT_EQ(tasks(), before) << "a slow storage alone started probers";
    }
    umount2(healthy.c_str(), MNT_DETACH);
}

}  // namespace
