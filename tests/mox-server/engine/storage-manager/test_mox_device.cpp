// Device records: platform-code mappings, C-string setters, a missing mount.
#include <gtest/gtest.h>

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

}  // namespace
