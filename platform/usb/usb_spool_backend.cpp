#define MOX_LOG_TAG "MOX-USB"
#include <mox/mox_log.h>

#include "usb_spool_backend.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <set>
#include <sstream>

#include <json/reader.h>
#include <json/value.h>

namespace {

constexpr size_t kMaxDeviceFileSize = 64 * 1024;

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

// 0, -ENOENT when the file is gone, -EINVAL otherwise (with the reason).
int ReadWholeFile(const std::string& path, std::string& text, std::string& why) {
    // O_NONBLOCK: a FIFO named like a device file must not stall the thread.
    mox_util::UniqueFd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!fd.IsValid()) {
        int err = errno;
        why = std::string("cannot open: ") + strerror(err);
        return err == ENOENT ? -ENOENT : -EINVAL;
    }
    struct stat st;
    if (fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        why = "not a regular file";
        return -EINVAL;
    }
    text.clear();
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd.Get(), buf, sizeof(buf));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            why = std::string("read error: ") + strerror(errno);
            return -EINVAL;
        }
        if (n == 0) break;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > kMaxDeviceFileSize) {
            why = "larger than 64 KiB";
            return -EINVAL;
        }
    }
    return 0;
}

// Reads an optional member; false when present with the wrong type.
bool OptString(const Json::Value& root, const char* key, std::optional<std::string>& out, std::string& why) {
    if (!root.isMember(key)) return true;
    const Json::Value& v = root[key];
    if (!v.isString()) {
        why = std::string("\"") + key + "\" is not a string";
        return false;
    }
    out = v.asString();
    return true;
}

bool OptInt(const Json::Value& root, const char* key, int& out, std::string& why) {
    if (!root.isMember(key)) return true;
    const Json::Value& v = root[key];
    if (!v.isInt() || v.asInt() < 0) {
        why = std::string("\"") + key + "\" is not a non-negative integer";
        return false;
    }
    out = v.asInt();
    return true;
}

}  // namespace

std::unique_ptr<UsbBackend> CreateUsbSpoolBackend(const std::string& dir) {
    return std::make_unique<UsbSpoolBackend>(dir);
}

UsbSpoolBackend::UsbSpoolBackend(std::string dir) : m_dir(std::move(dir)) {}

UsbSpoolBackend::~UsbSpoolBackend() {
    Stop();
}

bool UsbSpoolBackend::IsDeviceFileName(const char* name) {
    size_t len = strlen(name);
    return len > 5 && name[0] != '.' && strcmp(name + len - 5, ".json") == 0;
}

int UsbSpoolBackend::ReadDeviceFile(const std::string& path, UsbDeviceInfo& info, std::string& why) {
    std::string text;
    int rc = ReadWholeFile(path, text, why);
    if (rc < 0) return rc;
    if (!ParseDevice(text, info, why)) return -EINVAL;
    return 0;
}

bool UsbSpoolBackend::ParseDevice(const std::string& text, UsbDeviceInfo& info, std::string& why) {
    try {
        Json::CharReaderBuilder builder;
        Json::CharReaderBuilder::strictMode(&builder.settings_);
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        Json::Value root;
        std::string errors;
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
            why = "not valid JSON: " + errors;
            return false;
        }
        if (!root.isObject()) {
            why = "not a JSON object";
            return false;
        }
        UsbDeviceInfo parsed;
        std::optional<std::string> devname;
        if (!OptString(root, "devname", devname, why)) return false;
        if (!devname) {
            why = "no \"devname\"";
            return false;
        }
        parsed.devname = *devname;
        if (!root.isMember("class")) {
            why = "no \"class\"";
            return false;
        }
        if (!OptInt(root, "class", parsed.usbClass, why) || !OptString(root, "mount_path", parsed.mountPath, why) ||
            !OptInt(root, "fs_type", parsed.fsType, why) || !OptInt(root, "disk_type", parsed.diskType, why) ||
            !OptInt(root, "vendor_id", parsed.vendorId, why) ||
            !OptString(root, "manufacturer", parsed.manufacturer, why) ||
            !OptString(root, "product", parsed.product, why) || !OptString(root, "serial", parsed.serial, why) ||
            !OptString(root, "part_label", parsed.partLabel, why) || !OptString(root, "fs_uuid", parsed.fsUuid, why) ||
            !OptInt(root, "address", parsed.address, why) || !OptInt(root, "bus", parsed.bus, why))
            return false;
        if (parsed.usbClass == USB_DEVICE_CLASS_MASS_STORAGE && !parsed.mountPath) {
            why = "mass storage without \"mount_path\"";
            return false;
        }
        info = std::move(parsed);
        return true;
    } catch (const std::exception& e) {
        why = std::string("JSON error: ") + e.what();
        return false;
    }
}

int UsbSpoolBackend::Start(UsbEventSink* sink) {
    m_sink = sink;
    m_inotify = mox_util::UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_inotify.IsValid()) {
        int err = errno;
        MOX_WARN("inotify_init1 failed (%s)", strerror(err));
        return -err;
    }
    // Watch before the first scan so that no file slips between the two.
    if (inotify_add_watch(m_inotify.Get(), m_dir.c_str(),
                          IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF |
                              IN_ONLYDIR) < 0) {
        int err = errno;
        MOX_WARN("cannot watch USB spool directory %s (%s)", m_dir.c_str(), strerror(err));
        return -err;
    }
    std::vector<Event> ignored;  // devices present at start are not events
    m_Rescan(ignored);
    return m_thread.Start([this](int stopFd) { t_Run(stopFd); });
}

void UsbSpoolBackend::Stop() {
    m_thread.Stop();
}

void UsbSpoolBackend::List(int usbClass, std::vector<UsbDeviceRef>& out) {
    mox::MutexLock lock(m_mutex);
    for (const auto& entry : m_devices)
        if (entry.second.info().usbClass == usbClass) out.push_back(entry.second);
}

void UsbSpoolBackend::m_SetLocked(const std::string& name, UsbDeviceRef device, std::vector<Event>& events) {
    auto it = m_devices.find(name);
    if (it != m_devices.end()) {
        if (device && device.info() == it->second.info()) return;
        events.push_back({it->second, UsbDepartureAction(it->second.info().usbClass)});
        m_devices.erase(it);
    }
    if (device) {
        events.push_back({device, UsbArrivalAction(device.info().usbClass)});
        m_devices.emplace(name, std::move(device));
    }
}

void UsbSpoolBackend::m_Load(const std::string& name, std::vector<Event>& events) {
    UsbDeviceInfo info;
    std::string why;
    int rc = ReadDeviceFile(m_dir + "/" + name, info, why);
    if (rc < 0) {
        // A file that vanished again before we read it is handled by its
        // own delete event.
        if (rc != -ENOENT) MOX_WARN("USB spool file %s/%s ignored: %s", m_dir.c_str(), name.c_str(), why.c_str());
        return;
    }
    mox::MutexLock lock(m_mutex);
    m_SetLocked(name, UsbDeviceRef::Create(std::move(info)), events);
}

void UsbSpoolBackend::m_Unplug(const std::string& name, std::vector<Event>& events) {
    mox::MutexLock lock(m_mutex);
    m_SetLocked(name, UsbDeviceRef(), events);
}

void UsbSpoolBackend::m_UnplugAll(std::vector<Event>& events) {
    mox::MutexLock lock(m_mutex);
    while (!m_devices.empty()) m_SetLocked(m_devices.begin()->first, UsbDeviceRef(), events);
}

void UsbSpoolBackend::m_Rescan(std::vector<Event>& events) {
    std::unique_ptr<DIR, DirCloser> dir(opendir(m_dir.c_str()));
    if (!dir) {
        MOX_WARN("cannot read USB spool directory %s (%s)", m_dir.c_str(), strerror(errno));
        return;
    }
    std::set<std::string> present;
    while (struct dirent* entry = readdir(dir.get())) {
        if (!IsDeviceFileName(entry->d_name)) continue;
        present.insert(entry->d_name);
        m_Load(entry->d_name, events);
    }
    std::vector<std::string> gone;
    {
        mox::MutexLock lock(m_mutex);
        for (const auto& entry : m_devices)
            if (!present.count(entry.first)) gone.push_back(entry.first);
    }
    for (const std::string& name : gone) m_Unplug(name, events);
}

void UsbSpoolBackend::t_Run(int stopFd) {
    // inotify events are aligned to struct inotify_event.
    alignas(struct inotify_event) char buf[16 * 1024];
    bool watching = true;
    for (;;) {
        struct pollfd fds[2] = {{stopFd, POLLIN, 0}, {m_inotify.Get(), POLLIN, 0}};
        int n = poll(fds, watching ? 2 : 1, -1);
        if (n < 0) {
            if (errno == EINTR) continue;
            MOX_WARN("poll failed (%s); USB spool watch ends", strerror(errno));
            return;
        }
        if (fds[0].revents) return;
        if (!fds[1].revents) continue;

        ssize_t len = read(m_inotify.Get(), buf, sizeof(buf));
        if (len < 0) {
            if (errno == EINTR || errno == EAGAIN) continue;
            MOX_WARN("inotify read failed (%s); USB spool watch ends", strerror(errno));
            return;
        }
        std::vector<Event> events;
        for (ssize_t off = 0; off < len;) {
            const auto* ev = reinterpret_cast<const struct inotify_event*>(buf + off);
            off += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
            if (ev->mask & IN_Q_OVERFLOW) {
                MOX_WARN("USB spool events overflowed; rescanning %s", m_dir.c_str());
                m_Rescan(events);
            } else if (ev->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
                MOX_WARN("USB spool directory %s went away; every device is unplugged", m_dir.c_str());
                m_UnplugAll(events);
                watching = false;
            } else if (ev->len > 0 && IsDeviceFileName(ev->name)) {
                if (ev->mask & (IN_CLOSE_WRITE | IN_MOVED_TO))
                    m_Load(ev->name, events);
                else if (ev->mask & (IN_DELETE | IN_MOVED_FROM))
                    m_Unplug(ev->name, events);
            }
        }
        for (Event& event : events) m_sink->Deliver(event.device.get(), event.action);
    }
}
