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

// statfs without waiting on a hung storage: one prober thread makes the
// calls for every mount path, and a caller waits for its answer at most
// kStatFsWait. One thread, not one per path, so that a query wakes one
// thread however many sticks there are. A statfs that takes longer than
// kStuckAfter while other paths wait retires its prober: the path is held by
// that thread until its call returns, and a new prober serves the others.
// So each hung path holds at most one thread, and healthy paths wait at most
// kStuckAfter for a hung one. The prober stays kProberIdle after its last call, so steady
// queries start no thread (starting one per call cost more than the call).
// A request made while a call is under way is answered by that call only if
// that call started after it; until an answer comes the last one seen stands in.
constexpr std::chrono::milliseconds kStatFsWait{50};
constexpr std::chrono::milliseconds kStuckAfter{20};
constexpr std::chrono::seconds kProberIdle{30};

using Clock = std::chrono::steady_clock;

struct SStatFsProbe {
    uint64_t nAsked = 0;           // requests made
    uint64_t nStarted = 0;         // requests the call under way answers
    uint64_t nAnswered = 0;        // requests the last result answers
    uint64_t nArrival = 0;         // the latest call arrival that asked
    uint64_t nArrivalRequest = 0;  // the request it made
    Clock::time_point lastCall;    // when a query last asked for it itself
    bool bHeld = false;            // a retired prober is still in statfs for it
    bool bKnown = false;           // last holds a successful answer
    struct statfs last {};
};

struct SStatFsProbes {
    mox::Mutex mutex;
    std::condition_variable asked;     // a request for the current prober
    std::condition_variable answered;  // a prober stored a result
    // Entries are never erased: references to them stay valid.
    std::map<std::string, SStatFsProbe> byPath GUARDED_BY(mutex);
    uint64_t nArrivals GUARDED_BY(mutex) = 0;  // AskSizesOnArrival() calls
    uint64_t nProber GUARDED_BY(mutex) = 0;    // the current prober's number; 0: none runs
    uint64_t nProbers GUARDED_BY(mutex) = 0;   // probers started
    // The path the current prober is in statfs on, and since when.
    const std::string* pBusy GUARDED_BY(mutex) = nullptr;
    Clock::time_point busySince GUARDED_BY(mutex);
};

// Never destroyed: a thread stuck in statfs may return after exit began.
SStatFsProbes& Probes() {
    static SStatFsProbes* s_probes = new SStatFsProbes();  // NOLINT(cppcoreguidelines-owning-memory)
    return *s_probes;
}

bool StartProber(SStatFsProbes& probes) REQUIRES(probes.mutex);

// The next path after `after` (in turn, so that a path asked again and
// again does not starve the others) with a request no call has started on,
// and not held; nullptr if none.
std::pair<const std::string, SStatFsProbe>* NextAsked(SStatFsProbes& probes, const std::string* pAfter)
    REQUIRES(probes.mutex) {
    auto pending = [](const SStatFsProbe& probe) { return probe.nAsked > probe.nStarted && !probe.bHeld; };
    const auto from = pAfter ? probes.byPath.upper_bound(*pAfter) : probes.byPath.begin();
    for (auto it = from; it != probes.byPath.end(); ++it)
        if (pending(it->second)) return &*it;
    for (auto it = probes.byPath.begin(); it != from; ++it)
        if (pending(it->second)) return &*it;
    return nullptr;
}

void RunProber(uint64_t nSelf, SStatFsProbes& probes) {
    mox::UniqueLock lock(probes.mutex);
    const std::string* pLast = nullptr;  // a key of byPath: stays valid
    for (;;) {
        auto* pEntry = NextAsked(probes, pLast);
        if (pEntry == nullptr) {
            const auto idleUntil = Clock::now() + kProberIdle;
            while ((pEntry = NextAsked(probes, pLast)) == nullptr) {
                if (lock.WaitUntil(probes.asked, idleUntil) == std::cv_status::timeout &&
                    (pEntry = NextAsked(probes, pLast)) == nullptr) {
                    if (probes.nProber == nSelf) probes.nProber = 0;
                    return;
                }
            }
        }
        pLast = &pEntry->first;
        SStatFsProbe& probe = pEntry->second;
        const uint64_t nCovered = probe.nStarted = probe.nAsked;
        probes.pBusy = &pEntry->first;
        probes.busySince = Clock::now();
        lock.Unlock();
        struct statfs st {};
        const bool bOk = statfs(pEntry->first.c_str(), &st) == 0;
        lock.Lock();
        probe.nAnswered = nCovered;
        probe.bKnown = bOk;
        probe.last = st;
        probes.answered.notify_all();
        if (probes.nProber == nSelf) {
            probes.pBusy = nullptr;
            continue;
        }
        // Retired while in statfs: the path is free again, for the current
        // prober, or for this thread if none runs any more.
        probe.bHeld = false;
        if (probes.nProber != 0) {
            probes.asked.notify_one();
            return;
        }
        probes.nProber = nSelf;
    }
}

bool StartProber(SStatFsProbes& probes) REQUIRES(probes.mutex) {
    const uint64_t nSelf = ++probes.nProbers;
    try {
        std::thread([nSelf, &probes] { RunProber(nSelf, probes); }).detach();
    } catch (const std::system_error& e) {
        MOX_WARN("no thread for storage sizes: %s", e.what());
        return false;
    }
    probes.nProber = nSelf;
    probes.pBusy = nullptr;
    return true;
}

// A prober in one statfs for longer than kStuckAfter while another path
// waits is retired, and a new one serves the other paths (a slow path that
// nobody else waits behind costs no thread); false when none can run.
bool KeepProberRunning(SStatFsProbes& probes, Clock::time_point now) REQUIRES(probes.mutex) {
    if (probes.nProber == 0) return StartProber(probes);
    if (probes.pBusy == nullptr || now - probes.busySince < kStuckAfter) return true;
    const std::string& busy = *probes.pBusy;
    bool bOthersWait = false;
    for (const auto& [path, probe] : probes.byPath)
        bOthersWait = bOthersWait || (path != busy && probe.nAsked > probe.nStarted && !probe.bHeld);
    if (!bOthersWait) return true;
    probes.byPath[busy].bHeld = true;
    MOX_DEBUG("size of %s: the storage does not answer; other sizes go on", busy.c_str());
    return StartProber(probes);
}

// Asks for a statfs of path that starts after this call; returns the request
// to wait for, or 0 when no prober can run. A request whose call has not
// started yet is joined, not repeated. bNotify false: the caller wakes the
// prober once after asking for several paths.
uint64_t AskStatFs(SStatFsProbes& probes, SStatFsProbe& probe, bool bNotify = true) REQUIRES(probes.mutex) {
    if (probe.nAsked > probe.nStarted) return probe.nAsked;
    ++probe.nAsked;
    if (!KeepProberRunning(probes, Clock::now())) {
        --probe.nAsked;  // nobody will answer it
        return 0;
    }
    if (bNotify) probes.asked.notify_one();
    return probe.nAsked;
}

// statfs of path into *out, for request nRequest (0: asks now); false when
// it fails or does not answer in time with nothing seen before (the record
// then reports 0).
bool StatFs(const std::string& path, struct statfs* out, uint64_t nRequest = 0) {
    memset(out, 0, sizeof(*out));
    SStatFsProbes& probes = Probes();
    mox::UniqueLock lock(probes.mutex);
    SStatFsProbe& probe = probes.byPath[path];
    if (nRequest == 0) nRequest = AskStatFs(probes, probe);
    if (nRequest == 0) return false;
    const auto deadline = Clock::now() + kStatFsWait;
    while (probe.nAnswered < nRequest) {
        // Woken when the prober may have got stuck on another path.
        auto until = deadline;
        if (probes.pBusy != nullptr && probes.busySince + kStuckAfter < until) until = probes.busySince + kStuckAfter;
        const bool bTimeout = lock.WaitUntil(probes.answered, until) == std::cv_status::timeout;
        const auto now = Clock::now();
        if (probe.nAnswered >= nRequest || now >= deadline) break;
        if (bTimeout && !KeepProberRunning(probes, now)) break;
    }
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
    SStatFsProbe& probe = probes.byPath[m_strMountPath];
    probe.lastCall = Clock::now();
    // Asked when that call, or a later one, arrived: its statfs starts after
    // the caller's call arrived.
    if (nArrival != 0 && probe.nArrival == nArrival && probe.nArrivalRequest != 0) return probe.nArrivalRequest;
    return AskStatFs(probes, probe);
}

bool CMOXUSBDevice::SizesIn(uint64_t nAsked, Clock::time_point deadline) const {
    SStatFsProbes& probes = Probes();
    mox::UniqueLock lock(probes.mutex);
    const SStatFsProbe& probe = probes.byPath[m_strMountPath];
    while (probe.nAnswered < nAsked) {
        if (probe.bHeld || lock.WaitUntil(probes.answered, deadline) == std::cv_status::timeout)
            return probe.nAnswered >= nAsked;
    }
    return true;
}

uint64_t CMOXUSBDevice::AskSizesOnArrival() {
    SStatFsProbes& probes = Probes();
    mox::MutexLock lock(probes.mutex);
    const uint64_t nArrival = ++probes.nArrivals;
    // Only paths queries asked for lately (others may be long gone), and
    // only while the prober runs: the call itself asks otherwise.
    if (probes.nProber == 0) return nArrival;
    const auto recent = Clock::now() - kProberIdle;
    bool bAsked = false;
    for (auto& [path, probe] : probes.byPath) {
        if (probe.lastCall < recent) continue;
        probe.nArrivalRequest = AskStatFs(probes, probe, false);
        probe.nArrival = nArrival;
        bAsked = true;
    }
    if (bAsked) probes.asked.notify_one();
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
