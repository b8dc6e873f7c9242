// The USB manager over the simulated USB service: listing under the USB
// root, record filling, a failed service start. Hot-plug forwarding is
// exercised through the storage manager.
#include <gtest/gtest.h>

#include <vector>

#include "mox_usb_mgr.h"
#include "storage_test_env.h"

namespace {

using moxtest::StorageTestEnv;

TEST(MOXUSBMgr, ListsOnlyPartitionsMountedUnderTheUsbRootWithFilledRecords) {
    StorageTestEnv env;
    env.Plug("a", StorageTestEnv::Stick("/dev/sdb1", env.MountDir("sdb1"), "Cruzer Blade", 3));
    env.Plug("b", StorageTestEnv::Stick("/dev/sdc1", "/media/sdc1"));
    env.Plug("cam", StorageTestEnv::Camera("/dev/bus/usb/001/007", 7, 1));
    CMOXUSBMgr manager;

    std::vector<UsbDevicePtr> usb;
    ASSERT_TRUE(manager.GetUsbStorages(usb));
    ASSERT_EQ(1u, usb.size());
    // What the storage document does not show is checked here.
    EXPECT_EQ("/dev/sdb1", usb[0]->GetDeviceName());
    EXPECT_EQ(MOX_USB_FS_NTFS, usb[0]->GetFileSystem());
    EXPECT_EQ(MOX_USB_DISK_TYPE_1, usb[0]->GetDiskType());
    EXPECT_EQ(1921, usb[0]->GetVendorID());
    EXPECT_EQ(5, usb[0]->GetAddress());
    EXPECT_EQ(0, usb[0]->GetDeviceIndex());  // the storage manager assigns it

    std::vector<UsbDevicePtr> ptp;
    ASSERT_TRUE(manager.GetPtpStorages(ptp));
    ASSERT_EQ(1u, ptp.size());
    EXPECT_EQ("n/a", ptp[0]->GetDeviceMountPath());
    EXPECT_EQ(7, ptp[0]->GetAddress());

    { CMOXUSBMgr second; }  // its init failed: it must not finish the service
    std::vector<UsbDevicePtr> again;
    EXPECT_TRUE(manager.GetUsbStorages(again));
    EXPECT_EQ(1u, again.size());
}

TEST(MOXUSBMgr, FailedServiceStartLeavesAManagerWhoseQueriesFail) {
    StorageTestEnv env;
    setenv("MOX_USB_BACKEND", "spool:/nonexistent/mox-spool", 1);
    CMOXUSBMgr manager;
    std::vector<UsbDevicePtr> out;
    EXPECT_FALSE(manager.GetUsbStorages(out));
    EXPECT_FALSE(manager.GetPtpStorages(out));
    EXPECT_TRUE(out.empty());
}

}  // namespace
