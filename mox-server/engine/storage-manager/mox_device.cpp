#define MOX_LOG_TAG "MOX-STORAGE"
#include <mox/mox_log.h>

#include "mox_device.h"

#include <sys/statfs.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <map>
#include <system_error>
#include <thread>

#include "mox_thread_annotations.h"

namespace {

void AssignIfSet(std::string& field, const char* value) {
    if (value) field = value;
}

// statfs without waiting on a hung storage: the call runs on a thread of its
// own, waited for at most kStatFsWait; a path whose earlier call is still
// stuck starts no other. Until an answer comes the last one seen stands in.
constexpr std::chrono::milliseconds kStatFsWait{50};

struct SStatFsProbe {
    bool bBusy = false;
    bool bKnown = false;
    struct statfs last;
};

struct SStatFsProbes {
    mox::Mutex mutex;
    std::condition_variable cond;
    std::map<std::string, SStatFsProbe> byPath GUARDED_BY(mutex);
};

// Never destroyed: a thread stuck in statfs may return after exit began.
SStatFsProbes& Probes() {
    static SStatFsProbes* s_probes = new SStatFsProbes();  // NOLINT(cppcoreguidelines-owning-memory)
    return *s_probes;
}

// statfs of path into *out; false when it fails or does not answer in time
// with nothing seen before (the record then reports 0).
bool StatFs(const std::string& path, struct statfs* out) {
    memset(out, 0, sizeof(*out));
    SStatFsProbes& probes = Probes();
    mox::UniqueLock lock(probes.mutex);
    if (!probes.byPath[path].bBusy) {
        probes.byPath[path].bBusy = true;
        try {
            std::thread([path, &probes] {
                struct statfs st;
                memset(&st, 0, sizeof(st));
                const bool bOk = statfs(path.c_str(), &st) == 0;
                mox::MutexLock done(probes.mutex);
                SStatFsProbe& probe = probes.byPath[path];
                probe.bBusy = false;
                probe.bKnown = bOk;
                probe.last = st;
                probes.cond.notify_all();
            }).detach();
        } catch (const std::system_error& e) {
            probes.byPath[path].bBusy = false;
            MOX_WARN("no thread for the size of %s: %s", path.c_str(), e.what());
            return false;
        }
    }
    const auto deadline = std::chrono::steady_clock::now() + kStatFsWait;
    while (probes.byPath[path].bBusy)
        if (lock.WaitUntil(probes.cond, deadline) == std::cv_status::timeout) break;
    const SStatFsProbe& probe = probes.byPath[path];
    if (probe.bBusy) MOX_DEBUG("size of %s: the storage does not answer", path.c_str());
    if (!probe.bKnown) return false;
    *out = probe.last;
    return true;
}

}  // namespace

void CMOXDevice::SetDeviceID(const char* szID) {
    AssignIfSet(m_strDeviceID, szID);
}
void CMOXDevice::SetDeviceName(const char* szName) {
    AssignIfSet(m_strDeviceName, szName);
}

void CMOXUSBDevice::SetManufacturer(const char* szManufacturer) {
    AssignIfSet(m_strManufacturer, szManufacturer);
}
void CMOXUSBDevice::SetModelName(const char* szModelName) {
    AssignIfSet(m_strModelName, szModelName);
}
void CMOXUSBDevice::SetSerial(const char* szSerial) {
    AssignIfSet(m_strSerial, szSerial);
}
void CMOXUSBDevice::SetMountPath(const char* szMountPath) {
    AssignIfSet(m_strMountPath, szMountPath);
}
void CMOXUSBDevice::SetPartitionLabel(const char* szPartitionLabel) {
    AssignIfSet(m_strPartitionLabel, szPartitionLabel);
}

void CMOXUSBDevice::SetDiskType(int nPlatformDiskType) {
    m_nDiskType = nPlatformDiskType == 1 ? MOX_USB_DISK_TYPE_1 : MOX_USB_DISK_TYPE_OTHER;
}

void CMOXUSBDevice::SetFileSystem(int nPlatformFileSystem) {
    switch (nPlatformFileSystem) {
        case 0: m_nFileSystem = MOX_USB_FS_VFAT; break;
        case 2: m_nFileSystem = MOX_USB_FS_EXT4; break;
        case 3: m_nFileSystem = MOX_USB_FS_NTFS; break;
        default: m_nFileSystem = MOX_USB_FS_UNKNOWN; break;
    }
}

void CMOXUSBDevice::SetDeviceClass(int nUsbClass) {
    switch (nUsbClass) {
        case 8: m_nDeviceClass = MOX_USB_CLASS_MSC; break;
        case 6: m_nDeviceClass = MOX_USB_CLASS_PTP; break;
        default: m_nDeviceClass = MOX_USB_CLASS_OTHER; break;
    }
}

long long CMOXUSBDevice::GetDeviceTotalSize() const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st)) return 0;
    return static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_blocks) / 1024;
}

long long CMOXUSBDevice::GetDeviceAvailableSize() const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st)) return 0;
    // f_bfree, not f_bavail: the blocks reserved for root count as available.
    return static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_bfree) / 1024;
}

void CMOXUSBDevice::GetDeviceSizes(long long& llTotal, long long& llAvailable) const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st)) {
        llTotal = llAvailable = 0;
        return;
    }
    llTotal = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_blocks) / 1024;
    llAvailable = static_cast<long long>(st.f_bsize) * static_cast<long long>(st.f_bfree) / 1024;
}

void CMOXUSBDevice::PrintUSBInfo(bool bConnected) const {
    MOX_DEBUG("  ============== %s ============= ", bConnected ? "Connect" : "Disconnect");
    MOX_DEBUG("  MountPath : %s \n", m_strMountPath.c_str());
    MOX_DEBUG("  Device Name : %s \n", GetDeviceName().c_str());
    MOX_DEBUG("  Manufacturer :%s \n", m_strManufacturer.c_str());
    MOX_DEBUG("  Model Name : %s \n", m_strModelName.c_str());
    MOX_DEBUG("  Device Index : %d\n", m_nDeviceIndex);
}

void CMOXDLNADevice::PrintDlnaInfo(bool bConnected) const {
    MOX_DEBUG("  ============== %s ============= ", bConnected ? "Connect" : "Disconnect");
    MOX_DEBUG(" Dlna Device ID = %s \n", GetDeviceID().c_str());
    MOX_DEBUG(" Dlna Device Name = %s \n", GetDeviceName().c_str());
    MOX_DEBUG(" Dlna Device IP = %s \n", m_strDeviceIP.c_str());
    MOX_DEBUG(" Dlna IsNorvellDevice = %d", m_bNorvellDevice);
}
