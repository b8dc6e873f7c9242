// The udev backend against umockdev: recorded USB devices in a simulated
// sysfs, replayed uevents, and a mount table file in place of
// /proc/self/mountinfo (MOX_MOUNTINFO). Runs only with umockdev's preload
// library loaded (ctest sets LD_PRELOAD); otherwise every case skips.
#include <gtest/gtest.h>

#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <umockdev.h>

#include <usb_device.h>

#include "temp_dir.h"
#include "usb_event_recorder.h"

namespace {

using moxtest::UsbEventRecorder;
using moxtest::UsbListed;

const char kStickUsb[] = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-1";
const char kStickPart[] =
    "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb/sdb1";
const char kCameraUsb[] = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2";
const char kCameraIface[] = "/sys/devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0";

// A SanDisk stick with one FAT partition, in umockdev-record's format.
const char kStickRecord[] = R"(P: /devices/pci0000:00/0000:00:14.0/usb1/1-1
N: bus/usb/001/005
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
E: DEVNAME=/dev/bus/usb/001/005
A: idVendor=0781
A: idProduct=5567
A: manufacturer=SanDisk
A: product=Cruzer Blade
A: serial=4C530001
A: busnum=1
A: devnum=5
A: bDeviceClass=00

P: /devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
E: INTERFACE=8/6/80
A: bInterfaceClass=08

P: /devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb
N: sdb
E: SUBSYSTEM=block
E: DEVTYPE=disk
E: DEVNAME=/dev/sdb
E: MAJOR=8
E: MINOR=16
A: dev=8:16
A: removable=1

P: /devices/pci0000:00/0000:00:14.0/usb1/1-1/1-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb/sdb1
N: sdb1
E: SUBSYSTEM=block
E: DEVTYPE=partition
E: DEVNAME=/dev/sdb1
E: MAJOR=8
E: MINOR=17
E: ID_FS_TYPE=vfat
E: ID_FS_LABEL=HOLIDAY
A: dev=8:17
A: partition=1
)";

// A Nikon camera: device class 0, one still-image interface.
const char kCameraRecord[] = R"(P: /devices/pci0000:00/0000:00:14.0/usb1/1-2
N: bus/usb/001/007
E: SUBSYSTEM=usb
E: DEVTYPE=usb_device
E: DEVNAME=/dev/bus/usb/001/007
A: idVendor=04b0
A: manufacturer=Nikon
A: product=D5300
A: serial=3001
A: busnum=1
A: devnum=7
A: bDeviceClass=00

P: /devices/pci0000:00/0000:00:14.0/usb1/1-2/1-2:1.0
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
E: INTERFACE=6/1/1
A: bInterfaceClass=06
)";

// A SATA disk: a block device with no USB parent, never reported.
const char kSataRecord[] = R"(P: /devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda/sda1
N: sda1
E: SUBSYSTEM=block
E: DEVTYPE=partition
E: DEVNAME=/dev/sda1
E: MAJOR=8
E: MINOR=1
E: ID_FS_TYPE=ext4
A: dev=8:1
)";

bool PreloadActive() {
    return dl_iterate_phdr(
               [](struct dl_phdr_info* info, size_t, void*) -> int {
                   return info->dlpi_name &&
                          std::string(info->dlpi_name).find("libumockdev-preload") != std::string::npos;
               },
               nullptr) != 0;
}

class UsbUdev : public ::testing::Test {
protected:
    void SetUp() override {
        if (!PreloadActive())
            GTEST_SKIP() << "umockdev's preload library is not loaded (run under umockdev-wrapper or with "
                            "LD_PRELOAD=libumockdev-preload.so.0): the simulated sysfs is not visible";
        m_testbed = umockdev_testbed_new();
        m_root = m_dir.file("usb");
        m_mountinfo = m_dir.file("mountinfo");
        setenv("MOX_USB_BACKEND", "udev", 1);
        setenv("MOX_USB_ROOT", m_root.c_str(), 1);
        setenv("MOX_MOUNTINFO", m_mountinfo.c_str(), 1);
        WriteMounts("");
    }
    void TearDown() override {
        usb_device_fini();
        if (m_testbed) g_object_unref(m_testbed);
    }

    void Add(const char* record) {
        GError* error = nullptr;
        ASSERT_TRUE(umockdev_testbed_add_from_string(m_testbed, record, &error)) << (error ? error->message : "");
    }
    void Uevent(const char* syspath, const char* action) { umockdev_testbed_uevent(m_testbed, syspath, action); }

    // Replaces the mount table the way the kernel's would change: atomically.
    void WriteMounts(const std::string& lines) {
        std::string tmp = m_mountinfo + ".tmp";
        ASSERT_TRUE(moxtest::WriteTextFile(tmp, "22 1 0:21 / /proc rw,nosuid - proc proc rw\n" + lines));
        ASSERT_EQ(0, rename(tmp.c_str(), m_mountinfo.c_str()));
    }
    std::string Mount(const char* majMin, const std::string& where, const char* fs, const char* source) {
        return std::string("40 22 ") + majMin + " / " + where + " rw,relatime shared:7 - " + fs + " " + source +
               " rw\n";
    }

    void StartWithRecorder() {
        ASSERT_EQ(0, usb_device_init());
        ASSERT_EQ(0, usb_set_connected_cb(&UsbEventRecorder::Callback, &m_recorder));
    }

    moxtest::TempDir m_dir;
    UMockdevTestbed* m_testbed = nullptr;
    std::string m_root;
    std::string m_mountinfo;
    UsbEventRecorder m_recorder;
};

TEST_F(UsbUdev, MountedStickAndCameraPresentAtStartAreListedWithUdevProperties) {
    Add(kStickRecord);
    Add(kCameraRecord);
    Add(kSataRecord);
    WriteMounts(Mount("8:17", m_root + "/sdb1", "vfat", "/dev/sdb1") +
                Mount("8:1", m_root + "/sda1", "ext4", "/dev/sda1"));
    StartWithRecorder();
    EXPECT_EQ(std::vector<std::string>{"/dev/sdb1"}, UsbListed(USB_DEVICE_CLASS_MASS_STORAGE));
    EXPECT_EQ(std::vector<std::string>{"/dev/bus/usb/001/007"}, UsbListed(USB_DEVICE_CLASS_STILL_IMAGE));

    usb_device_list_h list = nullptr;
    usb_device_h stick = nullptr;
    ASSERT_EQ(0, usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list));
    ASSERT_EQ(0, usb_device_list_get_first(list, &stick));
    // Properties from the USB parent, the partition and its udev properties.
    EXPECT_EQ(m_root + "/sdb1", moxtest::UsbText(usb_device_get_mountpath(stick)));
    EXPECT_EQ(0x0781, usb_device_get_vendor_id(stick));
    EXPECT_STREQ("4C530001", usb_device_get_serial(stick));
    EXPECT_STREQ("HOLIDAY", usb_device_get_partlabel(stick));
    EXPECT_EQ(5, usb_device_get_address(stick));
    EXPECT_EQ(USB_MASS_STORAGE_FS_VFAT, usb_mass_storage_get_filesystem_type(stick));
    EXPECT_EQ(USB_MASS_STORAGE_DISK_REMOVABLE, usb_mass_storage_get_disk_type(stick));
    usb_device_free_device_list(list);
    EXPECT_TRUE(m_recorder.Events().empty());
}

TEST_F(UsbUdev, StickIsMountedAndBlockedAsTheMountTableChanges) {
    Add(kStickRecord);
    StartWithRecorder();
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_MASS_STORAGE).empty());

    // Mounted outside the USB root, or on a path that merely shares its prefix: not ours.
    WriteMounts(Mount("8:17", "/media/sdb1", "vfat", "/dev/sdb1") +
                Mount("8:17", m_root + "x/sdb1", "vfat", "/dev/sdb1"));
    WriteMounts(Mount("8:17", m_root + "/my\\040stick", "vfat", "/dev/sdb1"));
    ASSERT_TRUE(m_recorder.WaitFor(1));
    WriteMounts("");
    ASSERT_TRUE(m_recorder.WaitFor(2));

    auto events = m_recorder.Events();
    ASSERT_EQ(2u, events.size());
    EXPECT_EQ("mounted", events[0].action);
    EXPECT_EQ("blocked", events[1].action);
    for (const auto& e : events) {
        EXPECT_EQ("/dev/sdb1", e.devname);
        EXPECT_EQ(m_root + "/my stick", e.mountPath);
        EXPECT_EQ(8, e.usbClass);
    }
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_MASS_STORAGE).empty());

    // A garbled or missing mount table is an empty one.
    WriteMounts(Mount("8:17", m_root + "/sdb1", "vfat", "/dev/sdb1"));
    ASSERT_TRUE(m_recorder.WaitFor(3));
    std::string tmp = m_mountinfo + ".tmp";
    ASSERT_TRUE(moxtest::WriteTextFile(tmp, "garbage\n40 22 8:17\n- - -\n40 22 x:y / /a rw - vfat /dev/sdb1 rw\n"));
    ASSERT_EQ(0, rename(tmp.c_str(), m_mountinfo.c_str()));
    ASSERT_TRUE(m_recorder.WaitFor(4));
    EXPECT_EQ("blocked", m_recorder.Events()[3].action);
    WriteMounts(Mount("8:17", m_root + "/sdb1", "vfat", "/dev/sdb1"));
    ASSERT_TRUE(m_recorder.WaitFor(5));
    ASSERT_EQ(0, unlink(m_mountinfo.c_str()));
    ASSERT_TRUE(m_recorder.WaitFor(6));
    EXPECT_EQ("blocked", m_recorder.Events()[5].action);
}

TEST_F(UsbUdev, HotPluggedCameraByItsInterfaceAndStickOnceMountedUntilPulledOut) {
    StartWithRecorder();
    Add(kCameraRecord);
    Uevent(kCameraUsb, "add");
    Uevent(kCameraIface, "add");
    ASSERT_TRUE(m_recorder.WaitFor(1));
    EXPECT_EQ(std::vector<std::string>{"/dev/bus/usb/001/007"}, UsbListed(USB_DEVICE_CLASS_STILL_IMAGE));
    Uevent(kCameraIface, "remove");
    Uevent(kCameraUsb, "remove");
    ASSERT_TRUE(m_recorder.WaitFor(2));
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_STILL_IMAGE).empty());

    // The device's own remove came after the interface's: the next event is the stick's.
    Add(kStickRecord);
    Uevent(kStickUsb, "add");
    Uevent(kStickPart, "add");
    // Matched by source path when the device numbers differ (e.g. btrfs).
    WriteMounts(Mount("0:45", m_root + "/sdb1", "vfat", "/dev/sdb1"));
    ASSERT_TRUE(m_recorder.WaitFor(3));
    EXPECT_EQ(std::vector<std::string>{"/dev/sdb1"}, UsbListed(USB_DEVICE_CLASS_MASS_STORAGE));
    // Pulled out without unmounting: the mount entry lingers, the partition is gone.
    Uevent(kStickPart, "remove");
    ASSERT_TRUE(m_recorder.WaitFor(4));
    EXPECT_TRUE(UsbListed(USB_DEVICE_CLASS_MASS_STORAGE).empty());

    auto events = m_recorder.Events();
    ASSERT_EQ(4u, events.size());
    const char* actions[] = {"added", "removed", "mounted", "blocked"};
    for (size_t i = 0; i < 4; ++i) EXPECT_EQ(actions[i], events[i].action) << i;
    for (size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(6, events[i].usbClass);
        EXPECT_EQ("", events[i].mountPath);
        EXPECT_EQ(7, events[i].address);
    }
    EXPECT_EQ(m_root + "/sdb1", events[3].mountPath);
    EXPECT_EQ("4C530001", events[3].serial);
}

}  // namespace
