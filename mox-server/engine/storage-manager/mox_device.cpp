#define MOX_LOG_TAG "MOX-STORAGE"
#include <mox/mox_log.h>

#include "mox_device.h"

#include <sys/statfs.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <system_error>
#include <thread>

#include "mox_thread_annotations.h"

namespace {

void AssignIfSet(std::string& field, const char* value) {
    if (value) field = value;
}

// statfs without waiting on a hung storage: each mount path has a prober
// thread that makes the calls, and a caller waits for its answer at most
// kStatFsWait. A prober stays kProberIdle after its last call, so steady
// queries start no thread (starting one per call cost more than the call
// itself). A request made while a call is under way is answered by that
// call; one stuck there keeps its path's requests waiting, and until an
// answer comes the last one seen stands in.
constexpr std::chrono::milliseconds kStatFsWait{50};
constexpr std::chrono::seconds kProberIdle{30};

struct SStatFsProbe {
    std::condition_variable asked;  // a request for the prober
    uint64_t nAsked = 0;            // requests made
    uint64_t nStarted = 0;          // requests the call under way answers
    uint64_t nAnswered = 0;         // requests the last result answers
    uint64_t nArrival = 0;          // the latest call arrival that asked
    uint64_t nArrivalRequest = 0;   // the request it made
    bool bProber = false;           // a prober thread runs for the path
    bool bKnown = false;            // last holds a successful answer
    struct statfs last {};
};

struct SStatFsProbes {
    mox::Mutex mutex;
    std::condition_variable answered;  // a prober stored a result
    // Entries are never erased: references to them stay valid.
    std::map<std::string, SStatFsProbe> byPath GUARDED_BY(mutex);
    uint64_t nArrivals GUARDED_BY(mutex) = 0;  // AskSizesOnArrival() calls
};

// Never destroyed: a thread stuck in statfs may return after exit began.
SStatFsProbes& Probes() {
    static SStatFsProbes* s_probes = new SStatFsProbes();  // NOLINT(cppcoreguidelines-owning-memory)
    return *s_probes;
}

void RunProber(const std::string& path, SStatFsProbes& probes) {
    mox::UniqueLock lock(probes.mutex);
    SStatFsProbe& probe = probes.byPath[path];
    for (;;) {
        const auto idleUntil = std::chrono::steady_clock::now() + kProberIdle;
        while (probe.nAnswered == probe.nAsked) {
            if (lock.WaitUntil(probe.asked, idleUntil) == std::cv_status::timeout && probe.nAnswered == probe.nAsked) {
                probe.bProber = false;
                return;
            }
        }
        const uint64_t nCovered = probe.nStarted = probe.nAsked;
        lock.Unlock();
        struct statfs st {};
        const bool bOk = statfs(path.c_str(), &st) == 0;
        lock.Lock();
        probe.nAnswered = nCovered;
        probe.bKnown = bOk;
        probe.last = st;
        probes.answered.notify_all();
    }
}

// Asks for a statfs of path that starts after this call; returns the request
// to wait for, or 0 when no prober can run. A request whose call has not
// started yet is joined, not repeated.
uint64_t AskStatFs(SStatFsProbes& probes, const std::string& path) REQUIRES(probes.mutex) {
    SStatFsProbe& probe = probes.byPath[path];
    if (probe.nAsked > probe.nStarted) return probe.nAsked;
    ++probe.nAsked;
    if (probe.bProber) {
        probe.asked.notify_one();
        return probe.nAsked;
    }
    try {
        std::thread([path, &probes] { RunProber(path, probes); }).detach();
        probe.bProber = true;
    } catch (const std::system_error& e) {
        probe.nStarted = probe.nAnswered = probe.nAsked;  // nobody will answer it
        MOX_WARN("no thread for the size of %s: %s", path.c_str(), e.what());
        return 0;
    }
    return probe.nAsked;
}

// statfs of path into *out, for request nRequest (0: asks now); false when
// it fails or does not answer in time with nothing seen before (the record
// then reports 0).
bool StatFs(const std::string& path, struct statfs* out, uint64_t nRequest = 0) {
    memset(out, 0, sizeof(*out));
    SStatFsProbes& probes = Probes();
    mox::UniqueLock lock(probes.mutex);
    if (nRequest == 0) nRequest = AskStatFs(probes, path);
    if (nRequest == 0) return false;
    SStatFsProbe& probe = probes.byPath[path];
    const auto deadline = std::chrono::steady_clock::now() + kStatFsWait;
    while (probe.nAnswered < nRequest)
        if (lock.WaitUntil(probes.answered, deadline) == std::cv_status::timeout) break;
    if (probe.nAnswered < nRequest) MOX_DEBUG("size of %s: the storage does not answer", path.c_str());
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

uint64_t CMOXUSBDevice::AskDeviceSizes(uint64_t nArrival) const {
    SStatFsProbes& probes = Probes();
    mox::MutexLock lock(probes.mutex);
    const SStatFsProbe& probe = probes.byPath[m_strMountPath];
    // Asked when that call, or a later one, arrived: its statfs starts after
    // the caller's call arrived.
    if (nArrival != 0 && probe.nArrival == nArrival && probe.nArrivalRequest != 0) return probe.nArrivalRequest;
    return AskStatFs(probes, m_strMountPath);
}

uint64_t CMOXUSBDevice::AskSizesOnArrival() {
    SStatFsProbes& probes = Probes();
    mox::MutexLock lock(probes.mutex);
    const uint64_t nArrival = ++probes.nArrivals;
    for (auto& [path, probe] : probes.byPath) {
        if (!probe.bProber) continue;  // asked again by the call itself
        probe.nArrivalRequest = AskStatFs(probes, path);
        probe.nArrival = nArrival;
    }
    return nArrival;
}

uint64_t CMOXUSBDevice::LatestArrival() {
    SStatFsProbes& probes = Probes();
    mox::MutexLock lock(probes.mutex);
    return probes.nArrivals;
}

void CMOXUSBDevice::GetDeviceSizes(long long& llTotal, long long& llAvailable, uint64_t nAsked) const {
    struct statfs st;
    if (!StatFs(m_strMountPath, &st, nAsked)) {
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
    MOX_DEBUG("  Device Index : %d\n", GetDeviceIndex());
}

void CMOXDLNADevice::PrintDlnaInfo(bool bConnected) const {
    MOX_DEBUG("  ============== %s ============= ", bConnected ? "Connect" : "Disconnect");
    MOX_DEBUG(" Dlna Device ID = %s \n", GetDeviceID().c_str());
    MOX_DEBUG(" Dlna Device Name = %s \n", GetDeviceName().c_str());
    MOX_DEBUG(" Dlna Device IP = %s \n", m_strDeviceIP.c_str());
    MOX_DEBUG(" Dlna IsNorvellDevice = %d", m_bNorvellDevice);
}
