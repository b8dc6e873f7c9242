// The USB device service over udev and the mount table.
//
// Mass storage: every block device (partition, or a disk carrying a file
// system itself) below a USB device is a candidate; it is reported "mounted"
// when the mount table shows it mounted strictly below the USB root
// (matched by device number, or by source path), and "blocked" when that
// mount or the block device goes, with the properties it had while mounted.
// The mount table is /proc/self/mountinfo, watched through POLLPRI; when
// MOX_MOUNTINFO names a file, that file is read instead and re-read whenever
// it is closed after writing or renamed into place.
// Cameras: a USB device whose device class or one of whose interface classes
// is 6 (still image) is "added" when it or that interface appears and
// "removed" when either goes.
//
// libudev objects are used by Start and then only by the backend thread.
#pragma once

#include <libudev.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <mox_unique_fd.h>
#include "mox_thread_annotations.h"
#include "usb_backend.h"
#include "usb_poll_thread.h"

class UsbUdevBackend : public UsbBackend {
public:
    UsbUdevBackend() = default;
    ~UsbUdevBackend() override;

    int Start(UsbEventSink* sink) override;
    void Stop() override;
    void List(int usbClass, std::vector<UsbDeviceRef>& out) override;

private:
    struct Event {
        UsbDeviceRef device;
        const char* action;
    };
    struct Partition {
        UsbDeviceInfo info;  // without mount path
        bool hasFsType = false;
        dev_t devnum = 0;
    };
    struct UdevDeleter {
        void operator()(struct udev* u) const { udev_unref(u); }
        void operator()(struct udev_monitor* m) const { udev_monitor_unref(m); }
        void operator()(struct udev_enumerate* e) const { udev_enumerate_unref(e); }
        void operator()(struct udev_device* d) const { udev_device_unref(d); }
    };
    using UdevDevicePtr = std::unique_ptr<struct udev_device, UdevDeleter>;

    void t_Run(int stopFd);
    int m_OpenMountTable();
    void m_Enumerate();
    void m_HandleUevent(struct udev_device* dev, std::vector<Event>& events);
    void m_UpdatePartition(struct udev_device* dev);
    void m_AddCamera(struct udev_device* usbDevice, std::vector<Event>& events);
    void m_RemoveCamera(const std::string& syspath, std::vector<Event>& events);
    // Re-reads the mount table and reports what was mounted or went.
    void m_RefreshMounts(std::vector<Event>& events);
    void m_Deliver(std::vector<Event>& events);

    static bool ReadPartition(struct udev_device* dev, Partition& part);
    static UsbDeviceInfo ReadUsbDevice(struct udev_device* usbDevice, int usbClass);
    bool m_IsCamera(struct udev_device* usbDevice);

    std::unique_ptr<struct udev, UdevDeleter> m_udev;
    std::unique_ptr<struct udev_monitor, UdevDeleter> m_monitor;
    std::string m_root;
    std::string m_mountinfoPath;   // the MOX_MOUNTINFO file, or empty
    mox_util::UniqueFd m_mountFd;  // /proc/self/mountinfo, or inotify on the file's directory
    UsbEventSink* m_sink = nullptr;
    UsbPollThread m_thread;

    std::map<std::string, Partition> m_partitions;  // syspath -> USB block device; backend thread only

    mox::Mutex m_mutex;
    std::map<std::string, UsbDeviceRef> m_mounted GUARDED_BY(m_mutex);  // partition syspath -> device
    std::map<std::string, UsbDeviceRef> m_cameras GUARDED_BY(m_mutex);  // usb_device syspath -> camera
};
