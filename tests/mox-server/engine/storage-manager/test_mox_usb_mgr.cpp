// The USB manager over the simulated USB service: listing under the USB
// root, record filling, hot-plug forwarding.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "mox_usb_mgr.h"
#include "storage_test_env.h"

namespace {

using moxtest::StorageTestEnv;

struct Forwarded {
    UsbDevicePtr record;
    bool connected;
    int platformClass;
    std::thread::id thread;
};

class Collector {
public:
    static void Callback(usb_device_h device, UsbDevicePtr& record, bool connected, void* userData) {
        auto* self = static_cast<Collector*>(userData);
        std::lock_guard<std::mutex> lock(self->m_mutex);
        self->m_events.push_back({record, connected, usb_device_get_class(device), std::this_thread::get_id()});
        self->m_cond.notify_all();
    }
    bool WaitFor(size_t n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cond.wait_for(lock, std::chrono::seconds(10), [&] { return m_events.size() >= n; });
    }
    std::vector<Forwarded> Events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_events;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cond;
    std::vector<Forwarded> m_events;  // GUARDED_BY(m_mutex)
};

int HubsPresent() {
    usb_device_list_h list = nullptr;
    if (usb_device_get_device_list(9, &list) != 0) return -1;
    int count = usb_device_list_get_count(list);
    usb_device_free_device_list(list);
    return count;
}

TEST(MOXUSBMgr, ListsOnlyPartitionsMountedUnderTheUsbRootWithFilledRecords) {
    StorageTestEnv env;
    env.Plug("a", StorageTestEnv::Stick("/dev/sdb1", env.MountDir("sdb1"), "Cruzer Blade", 3));
    env.Plug("b", StorageTestEnv::Stick("/dev/sdc1", "/media/sdc1"));
    env.Plug("cam", StorageTestEnv::Camera("/dev/bus/usb/001/007", 7, 1));
    CMOXUSBMgr manager;

    std::vector<UsbDevicePtr> usb;
    ASSERT_TRUE(manager.GetUsbStorages(usb));
    ASSERT_EQ(1u, usb.size());
    const UsbDevicePtr& stick = usb[0];
    EXPECT_EQ("/dev/sdb1", stick->GetDeviceID());
    EXPECT_EQ("/dev/sdb1", stick->GetDeviceName());
    EXPECT_EQ(env.Root() + "/sdb1", stick->GetDeviceMountPath());
    EXPECT_EQ(MOX_USB_FS_NTFS, stick->GetFileSystem());
    EXPECT_EQ(MOX_USB_DISK_TYPE_1, stick->GetDiskType());
    EXPECT_EQ(MOX_USB_CLASS_MSC, stick->GetDeviceClass());
    EXPECT_EQ(1921, stick->GetVendorID());
    EXPECT_EQ("SanDisk", stick->GetManufacturer());
    EXPECT_EQ("Cruzer Blade", stick->GetModelName());
    EXPECT_EQ("SN-sdb1", stick->GetSerial());
    EXPECT_EQ("HOLIDAY", stick->GetPartitionLabel());
    EXPECT_EQ(5, stick->GetAddress());
    EXPECT_EQ(1, stick->GetBus());
    EXPECT_EQ(0, stick->GetDeviceIndex());  // the storage manager assigns it

    std::vector<UsbDevicePtr> ptp;
    ASSERT_TRUE(manager.GetPtpStorages(ptp));
    ASSERT_EQ(1u, ptp.size());
    EXPECT_EQ(MOX_USB_CLASS_PTP, ptp[0]->GetDeviceClass());
    EXPECT_EQ("n/a", ptp[0]->GetDeviceMountPath());
    EXPECT_EQ(7, ptp[0]->GetAddress());
}

TEST(MOXUSBMgr, ForwardsMountsBlocksAndCamerasOnTheServiceThread) {
    StorageTestEnv env;
    CMOXUSBMgr manager;
    Collector collector;
    manager.SetNotificationCb(&Collector::Callback, &collector);
    EXPECT_EQ(&collector, manager.GetUserData());

    // A file deleted before the service read it was never plugged in: wait
    // for each arrival before the next step.
    env.Plug("stick", StorageTestEnv::Stick("/dev/sdb1", env.MountDir("sdb1")));
    ASSERT_TRUE(collector.WaitFor(1));
    env.Plug("cam", StorageTestEnv::Camera("/dev/bus/usb/001/007", 7, 1));
    ASSERT_TRUE(collector.WaitFor(2));
    // Devices of other classes come and go as "added"/"removed": not storage events.
    env.Plug("hub", R"({"devname": "/dev/bus/usb/001/002", "class": 9})");
    for (int i = 0; i < 1000 && HubsPresent() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_EQ(1, HubsPresent());
    env.Unplug("hub");
    env.Unplug("stick");
    env.Unplug("cam");
    ASSERT_TRUE(collector.WaitFor(4));
    auto events = collector.Events();
    ASSERT_EQ(4u, events.size());
    EXPECT_TRUE(events[0].connected);
    EXPECT_EQ(8, events[0].platformClass);
    EXPECT_TRUE(events[1].connected);
    EXPECT_EQ(6, events[1].platformClass);
    EXPECT_FALSE(events[2].connected);
    EXPECT_FALSE(events[3].connected);
    // A departure carries a fully filled record, so it can be matched.
    EXPECT_EQ(env.Root() + "/sdb1", events[2].record->GetDeviceMountPath());
    EXPECT_EQ("Cruzer Blade", events[2].record->GetModelName());
    EXPECT_EQ(7, events[3].record->GetAddress());
    for (const Forwarded& e : events) EXPECT_NE(std::this_thread::get_id(), e.thread);
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

TEST(MOXUSBMgr, SecondManagerDoesNotStopTheFirstOnesService) {
    StorageTestEnv env;
    env.Plug("stick", StorageTestEnv::Stick("/dev/sdb1", env.MountDir("sdb1")));
    CMOXUSBMgr first;
    { CMOXUSBMgr second; }  // its init failed: it must not finish the service
    std::vector<UsbDevicePtr> out;
    EXPECT_TRUE(first.GetUsbStorages(out));
    EXPECT_EQ(1u, out.size());
}

}  // namespace
