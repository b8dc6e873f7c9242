// Device records: platform-code mappings, C-string setters, sizes from statfs.
#include <gtest/gtest.h>

#include <sys/statfs.h>

#include "mox_device.h"
#include "temp_dir.h"

namespace {

TEST(MOXDevice, PlatformCodesAreMappedToRecordValues) {
    CMOXUSBDevice device;
    const std::pair<int, int> fileSystems[] = {{0, MOX_USB_FS_VFAT}, {1, MOX_USB_FS_UNKNOWN}, {2, MOX_USB_FS_EXT4},
                                               {3, MOX_USB_FS_NTFS}, {4, MOX_USB_FS_UNKNOWN}, {-22, MOX_USB_FS_UNKNOWN}};
    for (auto [platform, record] : fileSystems) {
        device.SetFileSystem(platform);
        EXPECT_EQ(record, device.GetFileSystem()) << platform;
    }
    const std::pair<int, int> classes[] = {{8, MOX_USB_CLASS_MSC}, {6, MOX_USB_CLASS_PTP}, {0, MOX_USB_CLASS_OTHER},
                                           {3, MOX_USB_CLASS_OTHER}};
    for (auto [platform, record] : classes) {
        device.SetDeviceClass(platform);
        EXPECT_EQ(record, device.GetDeviceClass()) << platform;
    }
    device.SetDiskType(1);
    EXPECT_EQ(1, device.GetDiskType());
    for (int other : {0, 2, 7, -1}) {
        device.SetDiskType(other);
        EXPECT_EQ(2, device.GetDiskType()) << other;
    }
}

TEST(MOXDevice, NullStringsKeepThePreviousValue) {
    CMOXUSBDevice device;
    EXPECT_EQ("n/a", device.GetDeviceMountPath());
    EXPECT_EQ(0, device.GetDeviceIndex());
    device.SetMountPath(nullptr);
    EXPECT_EQ("n/a", device.GetDeviceMountPath());

    device.SetDeviceID("/dev/sdb1");
    device.SetDeviceName("/dev/sdb1");
    device.SetModelName("Cruzer");
    device.SetSerial("4C53");
    device.SetManufacturer("SanDisk");
    device.SetPartitionLabel("HOLIDAY");
    device.SetMountPath("/opt/storage/usb/sdb1");
    for (auto setter : {&CMOXUSBDevice::SetModelName, &CMOXUSBDevice::SetSerial, &CMOXUSBDevice::SetManufacturer,
                        &CMOXUSBDevice::SetPartitionLabel, &CMOXUSBDevice::SetMountPath})
        (device.*setter)(nullptr);
    device.SetDeviceID(nullptr);
    device.SetDeviceName(nullptr);
    EXPECT_EQ("/dev/sdb1", device.GetDeviceID());
    EXPECT_EQ("/dev/sdb1", device.GetDeviceName());
    EXPECT_EQ("Cruzer", device.GetModelName());
    EXPECT_EQ("4C53", device.GetSerial());
    EXPECT_EQ("SanDisk", device.GetManufacturer());
    EXPECT_EQ("HOLIDAY", device.GetPartitionLabel());
    EXPECT_EQ("/opt/storage/usb/sdb1", device.GetDeviceMountPath());
    // An empty string is a value, not an absence.
    device.SetSerial("");
    EXPECT_EQ("", device.GetSerial());
}

TEST(MOXDevice, SizesComeFromStatfsInKiBAndCountReservedBlocks) {
    moxtest::TempDir dir;
    CMOXUSBDevice device;
    device.SetMountPath(dir.path().c_str());
    struct statfs st;
    ASSERT_EQ(0, statfs(dir.path().c_str(), &st));
    long long total = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_blocks) / 1024;
    EXPECT_EQ(total, device.GetDeviceTotalSize());
    long long available = device.GetDeviceAvailableSize();
    long long freeBlocks = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_bfree) / 1024;
    long long userBlocks = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_bavail) / 1024;
    EXPECT_GT(available, 0);
    EXPECT_LE(available, total);
    // Free space moves with other processes' writes; it stays near f_bfree
    // and never below what ordinary users may use.
    EXPECT_NEAR(static_cast<double>(freeBlocks), static_cast<double>(available), 64.0 * 1024);
    EXPECT_GE(available + 64 * 1024, userBlocks);
    // Both at once, from one statfs: the same figures.
    long long both[2] = {-1, -1};
    device.GetDeviceSizes(both[0], both[1]);
    EXPECT_EQ(total, both[0]);
    EXPECT_NEAR(static_cast<double>(available), static_cast<double>(both[1]), 64.0 * 1024);
    device.SetMountPath((dir.path() + "/gone").c_str());
    device.GetDeviceSizes(both[0], both[1]);
    EXPECT_EQ(0, both[0]);
    EXPECT_EQ(0, both[1]);
}

TEST(MOXDevice, MissingMountPathHasNoSize) {
    CMOXUSBDevice device;
    EXPECT_EQ(0, device.GetDeviceTotalSize());  // "n/a"
    device.SetMountPath("/nonexistent/opt/storage/usb/sdz9");
    EXPECT_EQ(0, device.GetDeviceTotalSize());
    EXPECT_EQ(0, device.GetDeviceAvailableSize());
}

}  // namespace
