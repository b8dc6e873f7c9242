// Device records: platform-code mappings, C-string setters, a missing mount,
// sizes as fresh as the call on real mounts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

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

// Sizes of a mounted stick against statfs: StorageManager.QueriesList...;
// here a mount that is not there.
TEST(MOXDevice, AMissingMountHasNoSizes) {
    moxtest::TempDir dir;
    CMOXUSBDevice device;
    EXPECT_EQ(0, device.GetDeviceTotalSize());  // "n/a"
    device.SetMountPath((dir.path() + "/gone").c_str());
    long long sizes[2] = {-1, -1};
    device.GetDeviceSizes(sizes[0], sizes[1]);
    EXPECT_EQ(0, sizes[0]);
    EXPECT_EQ(0, sizes[1]);
    EXPECT_EQ(0, device.GetDeviceAvailableSize());
}

// Two small tmpfs mounts, asked together and one by one, each right after a
// write or a removal: every answer shows the change (a joined or a reused
// statfs that began before it would not), also after the probers idled.
TEST(MOXDevice, SizesAreAsFreshAsTheCall) {
    moxtest::TempDir dir;
    std::vector<std::string> mounts = {dir.path() + "/a", dir.path() + "/b"};
    std::vector<CMOXUSBDevice> devices(2);
    for (size_t i = 0; i < 2; ++i) {
        ASSERT_EQ(0, mkdir(mounts[i].c_str(), 0755));
        if (mount("tmpfs", mounts[i].c_str(), "tmpfs", 0, "size=4m") != 0) GTEST_SKIP() << "no tmpfs mount here";
        devices[i].SetMountPath(mounts[i].c_str());
    }
    auto available = [&](size_t i, uint64_t nAsked) {
        long long total = 0, free = 0;
        devices[i].GetDeviceSizes(total, free, nAsked);
        return free;
    };
    const std::string block(256 * 1024, 'x');
    long long before[2] = {available(0, 0), available(1, 0)};
    for (int round = 0; round < 20; ++round) {
        const size_t i = round % 2;
        const std::string file = mounts[i] + "/f";
        if (round % 4 < 2) {
            int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ASSERT_EQ(static_cast<ssize_t>(block.size()), write(fd, block.data(), block.size()));
            close(fd);
        } else {
            ASSERT_EQ(0, unlink(file.c_str()));
        }
        const bool bTogether = round % 3 == 0;
        const uint64_t asked[2] = {bTogether ? devices[0].AskDeviceSizes() : 0,
                                   bTogether ? devices[1].AskDeviceSizes() : 0};
        const long long now = available(i, asked[i]);
        EXPECT_EQ(before[i] + (round % 4 < 2 ? -256 : 256), now) << "round " << round;
        EXPECT_EQ(before[1 - i], available(1 - i, asked[1 - i])) << "round " << round;
        before[i] = now;
    }
    for (const auto& m : mounts) umount2(m.c_str(), MNT_DETACH);
}

}  // namespace
