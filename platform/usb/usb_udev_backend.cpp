#define MOX_LOG_TAG "MOX-USB"
#include <mox/mox_log.h>

#include "usb_udev_backend.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <mox_host_paths.h>

#include "host_env.h"
#include "usb_mount_table.h"

namespace {

int FsCode(const char* fsType) {
    if (!fsType) return USB_MASS_STORAGE_FS_UNKNOWN;
    if (!strcmp(fsType, "vfat") || !strcmp(fsType, "msdos") || !strcmp(fsType, "fat")) return USB_MASS_STORAGE_FS_VFAT;
    if (!strcmp(fsType, "ext4")) return USB_MASS_STORAGE_FS_EXT4;
    if (!strcmp(fsType, "ntfs") || !strcmp(fsType, "ntfs3")) return USB_MASS_STORAGE_FS_NTFS;
    return USB_MASS_STORAGE_FS_UNKNOWN;
}

int ParseInt(const char* text, int base) {
    if (!text || !*text) return 0;
    char* end = nullptr;
    long value = strtol(text, &end, base);
    if (*end != '\0' || value < 0 || value > 0x7fffffff) return 0;
    return static_cast<int>(value);
}

std::optional<std::string> OptText(const char* text) {
    if (!text) return std::nullopt;
    return std::string(text);
}

const char* OrEmpty(const char* text) {
    return text ? text : "";
}

std::string DeviceName(struct udev_device* dev) {
    const char* node = udev_device_get_devnode(dev);
    return node ? node : OrEmpty(udev_device_get_sysname(dev));
}

bool IsStillImageInterface(struct udev_device* iface) {
    const char* cls = udev_device_get_sysattr_value(iface, "bInterfaceClass");
    if (cls) return ParseInt(cls, 16) == USB_DEVICE_CLASS_STILL_IMAGE;
    // Without sysfs (a remove event), the uevent's INTERFACE=class/sub/proto.
    const char* triple = udev_device_get_property_value(iface, "INTERFACE");
    return triple && strncmp(triple, "6/", 2) == 0;
}

}  // namespace

std::unique_ptr<UsbBackend> CreateUsbUdevBackend() {
    return std::make_unique<UsbUdevBackend>();
}

UsbUdevBackend::~UsbUdevBackend() {
    Stop();
}

int UsbUdevBackend::Start(UsbEventSink* sink) {
    m_sink = sink;
    m_root = mox_host::UsbRoot();
    m_udev.reset(udev_new());
    if (!m_udev) {
        MOX_WARN("udev_new failed");
        return -ENOMEM;
    }
    // Listen before enumerating so that no device slips between the two; an
    // event for a device already enumerated changes nothing.
    m_monitor.reset(udev_monitor_new_from_netlink(m_udev.get(), "udev"));
    if (!m_monitor || udev_monitor_filter_add_match_subsystem_devtype(m_monitor.get(), "block", nullptr) < 0 ||
        udev_monitor_filter_add_match_subsystem_devtype(m_monitor.get(), "usb", nullptr) < 0 ||
        udev_monitor_enable_receiving(m_monitor.get()) < 0) {
        MOX_WARN("cannot listen to udev events");
        return -EIO;
    }
    int rc = m_OpenMountTable();
    if (rc < 0) return rc;
    m_Enumerate();
    std::vector<Event> ignored;  // devices present at start are not events
    m_RefreshMounts(ignored);
    return m_thread.Start([this](int stopFd) { t_Run(stopFd); });
}

void UsbUdevBackend::Stop() {
    m_thread.Stop();
}

void UsbUdevBackend::List(int usbClass, std::vector<UsbDeviceRef>& out) {
    mox::MutexLock lock(m_mutex);
    const auto* devices = usbClass == USB_DEVICE_CLASS_MASS_STORAGE  ? &m_mounted
                          : usbClass == USB_DEVICE_CLASS_STILL_IMAGE ? &m_cameras
                                                                     : nullptr;
    if (!devices) return;
    for (const auto& entry : *devices) out.push_back(entry.second);
}

int UsbUdevBackend::m_OpenMountTable() {
    m_mountinfoPath = mox_host::EnvOr("MOX_MOUNTINFO", "");
    if (m_mountinfoPath.empty()) {
        m_mountFd = mox_util::UniqueFd(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
        if (!m_mountFd.IsValid()) {
            int err = errno;
            MOX_WARN("cannot open /proc/self/mountinfo (%s)", strerror(err));
            return -err;
        }
        return 0;
    }
    size_t slash = m_mountinfoPath.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : m_mountinfoPath.substr(0, slash);
    m_mountFd = mox_util::UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_mountFd.IsValid() ||
        inotify_add_watch(m_mountFd.Get(), dir.c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_DELETE | IN_MOVED_FROM) < 0) {
        int err = errno;
        MOX_WARN("cannot watch mount table %s (%s)", m_mountinfoPath.c_str(), strerror(err));
        return -err;
    }
    MOX_INFO("mount table read from %s", m_mountinfoPath.c_str());
    return 0;
}

bool UsbUdevBackend::ReadPartition(struct udev_device* dev, Partition& part) {
    struct udev_device* usb = udev_device_get_parent_with_subsystem_devtype(dev, "usb", "usb_device");
    if (!usb) return false;
    part.info = ReadUsbDevice(usb, USB_DEVICE_CLASS_MASS_STORAGE);
    part.info.devname = DeviceName(dev);
    const char* fs = udev_device_get_property_value(dev, "ID_FS_TYPE");
    part.hasFsType = fs && *fs;
    part.info.fsType = FsCode(fs);
    const char* label = udev_device_get_property_value(dev, "ID_FS_LABEL");
    if (!label) label = udev_device_get_property_value(dev, "ID_PART_ENTRY_NAME");
    part.info.partLabel = OptText(label);
    part.info.fsUuid = OptText(udev_device_get_property_value(dev, "ID_FS_UUID"));
    const char* devtype = udev_device_get_devtype(dev);
    struct udev_device* disk = (devtype && !strcmp(devtype, "disk"))
                                   ? dev
                                   : udev_device_get_parent_with_subsystem_devtype(dev, "block", "disk");
    const char* removable = disk ? udev_device_get_sysattr_value(disk, "removable") : nullptr;
    part.info.diskType =
        (removable && !strcmp(removable, "1")) ? USB_MASS_STORAGE_DISK_REMOVABLE : USB_MASS_STORAGE_DISK_FIXED;
    part.devnum = udev_device_get_devnum(dev);
    return true;
}

UsbDeviceInfo UsbUdevBackend::ReadUsbDevice(struct udev_device* usb, int usbClass) {
    UsbDeviceInfo info;
    info.devname = DeviceName(usb);
    info.usbClass = usbClass;
    info.vendorId = ParseInt(udev_device_get_sysattr_value(usb, "idVendor"), 16);
    info.manufacturer = OptText(udev_device_get_sysattr_value(usb, "manufacturer"));
    info.product = OptText(udev_device_get_sysattr_value(usb, "product"));
    info.serial = OptText(udev_device_get_sysattr_value(usb, "serial"));
    info.bus = ParseInt(udev_device_get_sysattr_value(usb, "busnum"), 10);
    info.address = ParseInt(udev_device_get_sysattr_value(usb, "devnum"), 10);
    return info;
}

bool UsbUdevBackend::m_IsCamera(struct udev_device* usb) {
    if (ParseInt(udev_device_get_sysattr_value(usb, "bDeviceClass"), 16) == USB_DEVICE_CLASS_STILL_IMAGE) return true;
    std::unique_ptr<struct udev_enumerate, UdevDeleter> e(udev_enumerate_new(m_udev.get()));
    if (!e || udev_enumerate_add_match_parent(e.get(), usb) < 0 ||
        udev_enumerate_add_match_subsystem(e.get(), "usb") < 0 || udev_enumerate_scan_devices(e.get()) < 0)
        return false;
    struct udev_list_entry* entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(e.get())) {
        UdevDevicePtr iface(udev_device_new_from_syspath(m_udev.get(), udev_list_entry_get_name(entry)));
        const char* devtype = iface ? udev_device_get_devtype(iface.get()) : nullptr;
        if (devtype && !strcmp(devtype, "usb_interface") && IsStillImageInterface(iface.get())) return true;
    }
    return false;
}

void UsbUdevBackend::m_Enumerate() {
    std::vector<Event> ignored;
    std::unique_ptr<struct udev_enumerate, UdevDeleter> blocks(udev_enumerate_new(m_udev.get()));
    if (blocks && udev_enumerate_add_match_subsystem(blocks.get(), "block") >= 0 &&
        udev_enumerate_scan_devices(blocks.get()) >= 0) {
        struct udev_list_entry* entry;
        udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(blocks.get())) {
            UdevDevicePtr dev(udev_device_new_from_syspath(m_udev.get(), udev_list_entry_get_name(entry)));
            if (dev) m_UpdatePartition(dev.get());
        }
    } else {
        MOX_WARN("cannot enumerate block devices");
    }
    std::unique_ptr<struct udev_enumerate, UdevDeleter> usbs(udev_enumerate_new(m_udev.get()));
    if (usbs && udev_enumerate_add_match_subsystem(usbs.get(), "usb") >= 0 &&
        udev_enumerate_add_match_property(usbs.get(), "DEVTYPE", "usb_device") >= 0 &&
        udev_enumerate_scan_devices(usbs.get()) >= 0) {
        struct udev_list_entry* entry;
        udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(usbs.get())) {
            UdevDevicePtr dev(udev_device_new_from_syspath(m_udev.get(), udev_list_entry_get_name(entry)));
            if (dev && m_IsCamera(dev.get())) m_AddCamera(dev.get(), ignored);
        }
    } else {
        MOX_WARN("cannot enumerate USB devices");
    }
}

void UsbUdevBackend::m_UpdatePartition(struct udev_device* dev) {
    const char* syspath = udev_device_get_syspath(dev);
    if (!syspath) return;
    Partition part;
    if (ReadPartition(dev, part))
        m_partitions[syspath] = std::move(part);
    else
        m_partitions.erase(syspath);
}

void UsbUdevBackend::m_AddCamera(struct udev_device* usb, std::vector<Event>& events) {
    const char* syspath = udev_device_get_syspath(usb);
    if (!syspath) return;
    mox::MutexLock lock(m_mutex);
    if (m_cameras.count(syspath)) return;
    UsbDeviceRef camera = UsbDeviceRef::Create(ReadUsbDevice(usb, USB_DEVICE_CLASS_STILL_IMAGE));
    m_cameras.emplace(syspath, camera);
    events.push_back({std::move(camera), "added"});
}

void UsbUdevBackend::m_RemoveCamera(const std::string& syspath, std::vector<Event>& events) {
    mox::MutexLock lock(m_mutex);
    auto it = m_cameras.find(syspath);
    if (it == m_cameras.end()) return;
    events.push_back({std::move(it->second), "removed"});
    m_cameras.erase(it);
}

void UsbUdevBackend::m_HandleUevent(struct udev_device* dev, std::vector<Event>& events) {
    const char* action = udev_device_get_action(dev);
    const char* subsystem = udev_device_get_subsystem(dev);
    const char* syspath = udev_device_get_syspath(dev);
    if (!action || !subsystem || !syspath) return;
    bool removed = !strcmp(action, "remove");
    if (!strcmp(subsystem, "block")) {
        if (removed)
            m_partitions.erase(syspath);
        else
            m_UpdatePartition(dev);
        m_RefreshMounts(events);
        return;
    }
    if (strcmp(subsystem, "usb") != 0) return;
    const char* devtype = OrEmpty(udev_device_get_devtype(dev));
    if (!strcmp(devtype, "usb_device")) {
        if (removed)
            m_RemoveCamera(syspath, events);
        else if (m_IsCamera(dev))
            m_AddCamera(dev, events);
    } else if (!strcmp(devtype, "usb_interface")) {
        if (!IsStillImageInterface(dev)) return;
        if (removed) {
            // The interface's sysfs directory sits inside its device's.
            std::string parent = syspath;
            parent.erase(parent.rfind('/'));
            m_RemoveCamera(parent, events);
        } else if (struct udev_device* usb = udev_device_get_parent_with_subsystem_devtype(dev, "usb", "usb_device")) {
            m_AddCamera(usb, events);
        }
    }
}

void UsbUdevBackend::m_RefreshMounts(std::vector<Event>& events) {
    std::string text;
    if (m_mountinfoPath.empty()) {
        if (!UsbMountTable::ReadFd(m_mountFd.Get(), text)) {
            MOX_WARN("cannot read /proc/self/mountinfo (%s)", strerror(errno));
            return;
        }
    } else {
        // A missing file is an empty mount table: everything was unmounted.
        mox_util::UniqueFd fd(open(m_mountinfoPath.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (fd.IsValid() && !UsbMountTable::ReadFd(fd.Get(), text))
            MOX_WARN("cannot read mount table %s (%s)", m_mountinfoPath.c_str(), strerror(errno));
    }
    std::vector<UsbMountEntry> mounts = UsbMountTable::Parse(text);

    std::map<std::string, UsbDeviceInfo> present;
    for (const auto& [syspath, part] : m_partitions) {
        for (const UsbMountEntry& mount : mounts) {
            if (!UsbMountTable::IsBelow(mount.mountPoint, m_root)) continue;
            bool sameDevice = (part.devnum != 0 && mount.device == part.devnum) ||
                              (!part.info.devname.empty() && mount.source == part.info.devname);
            if (!sameDevice) continue;
            UsbDeviceInfo info = part.info;
            info.mountPath = mount.mountPoint;
            if (!part.hasFsType) info.fsType = FsCode(mount.fsType.c_str());
            present.emplace(syspath, std::move(info));
            break;
        }
    }

    mox::MutexLock lock(m_mutex);
    for (auto it = m_mounted.begin(); it != m_mounted.end();) {
        auto now = present.find(it->first);
        if (now != present.end() && now->second == it->second.info()) {
            present.erase(now);
            ++it;
            continue;
        }
        events.push_back({std::move(it->second), "blocked"});
        it = m_mounted.erase(it);
    }
    for (auto& [syspath, info] : present) {
        UsbDeviceRef device = UsbDeviceRef::Create(std::move(info));
        m_mounted.emplace(syspath, device);
        events.push_back({std::move(device), "mounted"});
    }
}

void UsbUdevBackend::m_Deliver(std::vector<Event>& events) {
    for (Event& event : events) m_sink->Deliver(event.device.get(), event.action);
    events.clear();
}

void UsbUdevBackend::t_Run(int stopFd) {
    const bool seam = !m_mountinfoPath.empty();
    std::string seamName = seam ? m_mountinfoPath.substr(m_mountinfoPath.rfind('/') + 1) : std::string();
    alignas(struct inotify_event) char buf[8 * 1024];
    std::vector<Event> events;
    for (;;) {
        struct pollfd fds[3] = {{stopFd, POLLIN, 0},
                                {udev_monitor_get_fd(m_monitor.get()), POLLIN, 0},
                                {m_mountFd.Get(), static_cast<short>(seam ? POLLIN : POLLPRI), 0}};
        int n = poll(fds, 3, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            MOX_WARN("poll failed (%s); USB hot-plug ends", strerror(errno));
            return;
        }
        if (fds[0].revents) return;
        if (fds[1].revents & POLLIN) {
            // Drain every queued uevent before waiting again.
            while (UdevDevicePtr dev{udev_monitor_receive_device(m_monitor.get())}) {
                m_HandleUevent(dev.get(), events);
                m_Deliver(events);
            }
        }
        if (fds[2].revents) {
            bool changed = !seam;
            if (seam) {
                ssize_t len;
                while ((len = read(m_mountFd.Get(), buf, sizeof(buf))) > 0) {
                    for (ssize_t off = 0; off < len;) {
                        const auto* ev = reinterpret_cast<const struct inotify_event*>(buf + off);
                        off += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
                        if ((ev->mask & IN_Q_OVERFLOW) || (ev->len > 0 && seamName == ev->name)) changed = true;
                    }
                }
            }
            if (changed) {
                m_RefreshMounts(events);
                m_Deliver(events);
            }
        }
    }
}
