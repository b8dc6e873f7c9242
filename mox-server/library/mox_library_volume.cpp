#define MOX_LOG_TAG "MOX-LIBRARY"
#include <mox/mox_log.h>

#include "mox_library_volume.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>

#include <json/json.h>

#include <mox/mox_confined_path.h>
#include <mox_host_paths.h>

#include "mox_auto_scanner.h"
#include "mox_extract_wire.h"
#include "mox_extractor.h"
#include "mox_library_extract.h"
#include "mox_scanner_defines.h"

namespace {

// Published states, by index (the first is the default).
const char* const kStates[] = {"indexing", "ready", "paused", "failed"};
constexpr int kScanListSize = 4096;  // the scan list's bound (entries queued)
// The longest wait for a run of the walk: stop and users are checked between.
constexpr auto kWalkWait = std::chrono::milliseconds(50);
// Files extracted between two stores: one request to the helper. Beside
// the walk, which adds rows once per run of the walk, a batch waits for
// kExtractMin of them at least, so that a round trip is not spent on a few.
constexpr int kExtractBatch = static_cast<int>(mox_extract_wire::kMaxBatch);
constexpr size_t kExtractMin = 16;
// A transaction of the walk or the extraction stays open this long (or for
// this many rows, a bound of its log on a fast machine): every commit writes
// the touched pages of nine indices and the text index to the log again, so
// few large ones are much cheaper than many small ones. A kill or a full
// disk takes at most this much work with it.
constexpr auto kCommitEvery = std::chrono::milliseconds(500);
constexpr int kCommitRows = 4096;
constexpr int kDropBatch = 1024;                    // rows checked at once after a walk
constexpr int kBudgetEvery = 512;                   // inserts between two checks of the byte bound
constexpr int64_t kMaxSeenId = 64LL * 1024 * 1024;  // 8 MiB of "seen" bits at most
constexpr uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB |
                                IN_DONT_FOLLOW | IN_ONLYDIR | IN_EXCL_UNLINK;
using Clock = std::chrono::steady_clock;

std::string JoinRel(const std::string& strParent, const std::string& strName) {
    return strParent.empty() ? strName : strParent + "/" + strName;
}

std::string ParentOf(const std::string& strRel) {
    const size_t nSlash = strRel.rfind('/');
    return nSlash == std::string::npos ? std::string() : strRel.substr(0, nSlash);
}

std::string NameOf(const std::string& strRel) {
    const size_t nSlash = strRel.rfind('/');
    return nSlash == std::string::npos ? strRel : strRel.substr(nSlash + 1);
}

int CountSlot(int nMediaType) {
    return nMediaType == MOX_MEDIA_TYPE_PHOTO   ? 0
           : nMediaType == MOX_MEDIA_TYPE_VIDEO ? 1
           : nMediaType == MOX_MEDIA_TYPE_MUSIC ? 2
                                                : 3;
}

bool IsMissing(int nErrno) {
    return nErrno == ENOENT || nErrno == ENOTDIR || nErrno == ELOOP || nErrno == EXDEV;
}

}  // namespace

// A batch of waiting rows on its way through the helper.
struct SMOXLibraryExtractBatch {
    std::vector<SMOXLibraryPending> pending;
    std::vector<SMOXLibraryFields> fields;
    std::vector<int> states;
    std::vector<bool> gone;
    std::vector<mox_util::UniqueFd> fds;
    std::vector<SMOXLibraryExtractItem> items;
    std::vector<size_t> at;  // items[k] is pending[at[k]]
    size_t nOpened = 0;      // pending[0, nOpened) are open or gone
    size_t nDone = 0;        // pending[0, nDone) are extracted or gone
};

namespace {

// Extracts a batch's items on a thread of its own, joined before the batch
// goes; the exception of a failed extraction is rethrown on join. The thread
// inherits the indexer's scheduling and I/O class, which the helper follows.
class CExtractRun {
public:
    explicit CExtractRun(std::vector<SMOXLibraryExtractItem>& items) {
        try {
            m_thread = std::thread([this, &items] {
                try {
                    mox_library::ExtractFieldsBatch(items);
                } catch (...) {
                    m_error = std::current_exception();
                }
                m_bDone.store(true, std::memory_order_release);
            });
        } catch (const std::system_error&) {
            // No thread to be had: here, then.
            mox_library::ExtractFieldsBatch(items);
            m_bDone = true;
        }
    }
    ~CExtractRun() {
        if (m_thread.joinable()) m_thread.join();
    }
    CExtractRun(const CExtractRun&) = delete;
    CExtractRun& operator=(const CExtractRun&) = delete;
    void Join() {
        if (m_thread.joinable()) m_thread.join();
        if (m_error) std::rethrow_exception(std::exchange(m_error, nullptr));
    }

    // The helper has answered (Join() will not wait).
    bool Done() const { return m_bDone.load(std::memory_order_acquire); }

private:
    std::thread m_thread;
    std::exception_ptr m_error;
    std::atomic<bool> m_bDone{false};
};

}  // namespace

// The extraction of a pass: the helper parses the next batch while this
// thread stores the one before (the writes cost about what the parsing does,
// and the two run on different cores). At most one batch is in flight.
struct SMOXLibraryExtractPipe {
    int64_t nAfter = 0;
    SMOXLibraryExtractBatch ready;  // extracted, to be stored
    bool bReady = false;
    SMOXLibraryExtractBatch next;  // with the helper (when run is set)
    bool bNext = false;
    std::optional<CExtractRun> run;  // destroyed (joined) before next
    bool bHeld = false;              // a batch ended short during the walk
};

std::string SMOXLibraryStatus::ToJson(bool bWithSize) const {
    Json::Value doc(Json::objectValue);
    doc["mount_path"] = CMOXExtractor::FileNameToUtf8(strMountPath);
    doc["volume_id"] = strVolumeId;
    doc["state"] = strState;
    doc["done"] = Json::Int64(nDone);
    doc["total"] = Json::Int64(nTotal);
    doc["generation"] = Json::Int64(nGeneration);
    Json::Value jc(Json::objectValue);
    jc["photo"] = Json::Int64(counts[0]);
    jc["video"] = Json::Int64(counts[1]);
    jc["music"] = Json::Int64(counts[2]);
    jc["other"] = Json::Int64(counts[3]);
    doc["counts"] = jc;
    if (bWithSize) doc["db_bytes"] = Json::Int64(nDbBytes);
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    return Json::writeString(writer, doc);
}

CMOXLibraryVolume::CMOXLibraryVolume(std::string strMountPath, std::string strVolumeId, std::string strDbPath,
                                     const std::atomic<bool>& rUsersBusy, Reporter reporter, BudgetCheck budget,
                                     SMOXLibraryBounds bounds)
    : m_strMountPath(std::move(strMountPath)),
      m_strVolumeId(std::move(strVolumeId)),
      m_strDbPath(std::move(strDbPath)),
      m_rUsersBusy(rUsersBusy),
      m_reporter(std::move(reporter)),
      m_budget(std::move(budget)),
      m_bounds(bounds) {
    mox::MutexLock lock(m_mutex);
    m_status.strMountPath = m_strMountPath;
    m_status.strVolumeId = m_strVolumeId;
    m_status.strState = "indexing";
}

CMOXLibraryVolume::~CMOXLibraryVolume() {
    RequestStop();
    Join();
}

bool CMOXLibraryVolume::Start() {
    m_wakeFd = mox_util::UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wakeFd.IsValid()) {
        MOX_WARN("library %s: no eventfd (%s).", m_strMountPath.c_str(), strerror(errno));
        return false;
    }
    try {
        m_thread = std::thread([this] {
            m_Thread();
            m_bFinished = true;
        });
    } catch (const std::exception& e) {
        MOX_WARN("library %s: cannot start its thread (%s).", m_strMountPath.c_str(), e.what());
        return false;
    }
    return true;
}

void CMOXLibraryVolume::RequestStop() {
    m_bStop = true;
    if (m_wakeFd.IsValid()) {
        const uint64_t one = 1;
        (void)!write(m_wakeFd.Get(), &one, sizeof(one));
    }
}

void CMOXLibraryVolume::Join() {
    if (m_thread.joinable()) m_thread.join();
}

void CMOXLibraryVolume::Rescan() {
    {
        mox::MutexLock lock(m_noticeMutex);
        m_bRescan = true;
    }
    const uint64_t one = 1;
    (void)!write(m_wakeFd.Get(), &one, sizeof(one));
}

void CMOXLibraryVolume::m_QueueNotice(const std::string& strRel) {
    if (m_notices.size() >= m_bounds.nMaxNotices) {
        m_notices.clear();
        m_bRescan = true;
    } else {
        m_notices.push_back(strRel);
    }
}

void CMOXLibraryVolume::NoteChanged(const std::string& strPath) {
    const std::string strRel = m_Relative(strPath);
    if (strRel.empty()) return;
    {
        mox::MutexLock lock(m_noticeMutex);
        m_QueueNotice(strRel);
    }
    const uint64_t one = 1;
    (void)!write(m_wakeFd.Get(), &one, sizeof(one));
}

SMOXLibraryStatus CMOXLibraryVolume::Status() {
    // From the published copy: a reader never waits for the indexer, which
    // may hold its own lock for long at its priority.
    SMOXLibraryStatus status;
    status.strMountPath = m_strMountPath;
    status.strVolumeId = m_strVolumeId;
    status.strState = kStates[m_nPubState.load()];
    status.nDone = m_nPubDone.load();
    status.nTotal = m_nPubTotal.load();
    status.nGeneration = m_nPubGeneration.load();
    for (int i = 0; i < 4; ++i) status.counts[i] = m_nPubCounts[i].load();
    struct stat st;
    status.nDbBytes = 0;
    for (const char* szSuffix : {"", "-wal"})
        if (stat((m_strDbPath + szSuffix).c_str(), &st) == 0) status.nDbBytes += st.st_size;
    return status;
}

std::string CMOXLibraryVolume::m_Relative(const std::string& strAbsolute) const {
    if (strAbsolute.size() <= m_strMountPath.size() + 1 ||
        strAbsolute.compare(0, m_strMountPath.size(), m_strMountPath) != 0 || strAbsolute[m_strMountPath.size()] != '/')
        return std::string();
    std::string strRel = strAbsolute.substr(m_strMountPath.size() + 1);
    while (!strRel.empty() && strRel.back() == '/') strRel.pop_back();
    // Only plain names: the engine's paths are confined, but a notice is
    // never trusted to climb.
    if (strRel.find("/../") != std::string::npos || strRel.rfind("../", 0) == 0 || strRel == ".." ||
        strRel.find("//") != std::string::npos)
        return std::string();
    return strRel;
}

void CMOXLibraryVolume::m_Thread() {
    try {
        m_LowestPriority();
        m_Run();
    } catch (const std::exception& e) {
        MOX_WARN("library %s: indexer ended by an exception (%s).", m_strMountPath.c_str(), e.what());
        m_SetState("failed", true);
    } catch (...) {
        MOX_WARN("library %s: indexer ended by an unknown exception.", m_strMountPath.c_str());
        m_SetState("failed", true);
    }
    // Failed before its walk: what waited for it goes now.
    if (!Stopping()) m_Walked();
    if (m_bInTransaction) m_db.Rollback();
    m_bInTransaction = false;
    if (!m_bMountRecorded && !m_bCorrupt && !m_bFull && m_db.Begin() == SQLITE_OK) {
        // Not a change: the generation stays.
        if (m_RecordMount() != SQLITE_OK || m_db.Commit() != SQLITE_OK) m_db.Rollback();
    }
    if (m_bCorrupt)
        m_db.MoveAside();
    else
        m_db.Close();
}

void CMOXLibraryVolume::m_LowestPriority() {
    // Users never wait for the index: CPU only when nothing else wants it,
    // disk only when nobody else uses it. The walk's scanner thread and the
    // helper started from here inherit both.
    const auto tid = static_cast<pid_t>(syscall(SYS_gettid));
    struct sched_param param;
    memset(&param, 0, sizeof(param));
    if (sched_setscheduler(tid, SCHED_IDLE, &param) != 0) {
        MOX_DEBUG("library %s: no idle scheduling (%s); nice 19 instead.", m_strMountPath.c_str(), strerror(errno));
        setpriority(PRIO_PROCESS, static_cast<id_t>(tid), 19);
    }
    constexpr int kIoprioClassIdle = 3, kIoprioClassShift = 13, kIoprioWhoProcess = 1;
    if (syscall(SYS_ioprio_set, kIoprioWhoProcess, tid, kIoprioClassIdle << kIoprioClassShift) != 0)
        MOX_DEBUG("library %s: no idle I/O priority (%s).", m_strMountPath.c_str(), strerror(errno));
}

void CMOXLibraryVolume::m_SetState(const char* szState, bool bReport) {
    {
        mox::MutexLock lock(m_mutex);
        m_status.strState = szState;
    }
    m_Publish();
    if (bReport) m_Report();
}

void CMOXLibraryVolume::m_Walked() {
    if (m_walkedHook) std::exchange(m_walkedHook, nullptr)();
}

void CMOXLibraryVolume::m_Publish() {
    mox::MutexLock lock(m_mutex);
    int nState = 0;
    while (nState < 3 && m_status.strState != kStates[nState]) ++nState;
    m_nPubState = nState;
    m_nPubDone = m_status.nDone;
    m_nPubTotal = m_status.nTotal;
    m_nPubGeneration = m_status.nGeneration;
    for (int i = 0; i < 4; ++i) m_nPubCounts[i] = m_status.counts[i];
}

void CMOXLibraryVolume::m_Report() {
    m_Publish();
    if (m_reporter) m_reporter(Status());
}

void CMOXLibraryVolume::m_UpdateCounts() {
    int64_t counts[4];
    int64_t nRows = 0;
    if (!m_db.Counts(counts, nRows)) return;
    m_nRows = nRows;
    // For the status of the volume once it is unmounted.
    if (!m_bInTransaction && !m_bFull) m_db.SaveCounts(counts);
    {
        mox::MutexLock lock(m_mutex);
        for (int i = 0; i < 4; ++i) m_status.counts[i] = counts[i];
        m_status.nGeneration = m_db.Generation();
    }
    m_Publish();
}

void CMOXLibraryVolume::m_Run() {
    // Room for this index first: the least recently mounted ones go.
    if (m_budget && !m_budget())
        MOX_WARN("library %s: the library's byte bound is exceeded by mounted volumes.", m_strMountPath.c_str());
    if (m_db.Open(m_strDbPath, m_strVolumeId) == CMOXLibraryDb::EOpen::kFailed) {
        m_SetState("failed", true);
        return;
    }
    // Where and when it was mounted goes with the first change, or at the
    // end: a re-plug that changes nothing commits nothing until then.
    m_tMounted = time(nullptr);
    m_bMountRecorded = false;
    m_UpdateCounts();
    std::string strRel;
    CMOXConfinedPath root(mox_host::UsbRoot());
    if (!root.Relative(m_strMountPath, strRel)) {
        MOX_WARN("library %s: not below the USB root, not indexed.", m_strMountPath.c_str());
        m_SetState("failed", true);
        return;
    }
    m_mountFd = mox_util::UniqueFd(root.OpenDirectory(strRel));
    if (!m_mountFd.IsValid()) {
        MOX_WARN("library %s: cannot open the mount (%s).", m_strMountPath.c_str(), strerror(errno));
        m_SetState("failed", true);
        return;
    }
    m_inotifyFd = mox_util::UniqueFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!m_inotifyFd.IsValid())
        MOX_WARN("library %s: no inotify (%s): changes by others wait for a rescan.", m_strMountPath.c_str(),
                 strerror(errno));
    bool bScan = true;
    while (!Stopping()) {
        if (bScan) {
            bScan = false;
            const int64_t nBefore = m_db.Generation();
            const EScan eResult = m_Scan();
            if (eResult == EScan::kStopped) break;
            // Nothing committed: the counts read at the start still hold.
            if (m_db.Generation() != nBefore) m_UpdateCounts();
            m_SetState(eResult == EScan::kFailed ? "failed" : "ready", true);
            m_Walked();
        }
        struct pollfd fds[2] = {{m_wakeFd.Get(), POLLIN, 0}, {m_inotifyFd.Get(), POLLIN, 0}};
        const int nReady = poll(fds, m_inotifyFd.IsValid() ? 2 : 1, 1000);
        if (nReady < 0 && errno != EINTR) {
            MOX_WARN("library %s: poll failed (%s).", m_strMountPath.c_str(), strerror(errno));
            break;
        }
        if (fds[0].revents & POLLIN) {
            uint64_t nValue;
            (void)!read(m_wakeFd.Get(), &nValue, sizeof(nValue));
        }
        if (m_inotifyFd.IsValid() && (fds[1].revents & POLLIN)) m_ReadInotify();
        if (Stopping()) break;
        {
            mox::MutexLock lock(m_noticeMutex);
            bScan = m_bRescan;
            m_bRescan = false;
        }
        // A full disk waits for a rescan (or the next mount) to try again.
        if (bScan) m_bFull = false;
        if (!bScan && !m_bFull) m_ProcessNotices();
    }
}

CMOXLibraryVolume::EScan CMOXLibraryVolume::m_Scan() {
    {
        mox::MutexLock lock(m_mutex);
        m_status.strState = "indexing";
        m_status.nDone = 0;
        m_status.nTotal = 0;
    }
    {
        mox::MutexLock lock(m_noticeMutex);
        m_notices.clear();  // the walk sees what they name
    }
    m_Report();
    m_seen.clear();
    m_nSeen = 0;
    m_bRowsDeleted = false;
    m_bBudgetReached = false;
    bool bWalkComplete = false;
    SMOXLibraryExtractPipe pipe;
    const int64_t nBefore = m_db.Generation();
    EScan eResult = m_Walk(pipe, bWalkComplete);
    if (eResult != EScan::kComplete) return eResult;
    // Extraction ahead (it may take long): the walk is what others waited for.
    if (m_db.Generation() != nBefore) m_Walked();
    eResult = m_ExtractPending(&pipe);
    if (eResult != EScan::kComplete) return eResult;
    // Every row seen by the walk and none deleted meanwhile: nothing can
    // have vanished, and the pass over all rows is saved.
    const bool bAllSeen = m_nSeen == m_nRows && !m_bRowsDeleted;
    if (bWalkComplete && !bAllSeen) eResult = m_DropVanished();
    m_seen.clear();
    m_seen.shrink_to_fit();
    return eResult;
}

int CMOXLibraryVolume::m_RecordMount() {
    int rc = m_db.SetMeta("mount_path", m_strMountPath);
    if (rc == SQLITE_OK) rc = m_db.SetMeta("last_mounted", std::to_string(m_tMounted));
    m_bMountRecorded = rc == SQLITE_OK;
    return rc;
}

void CMOXLibraryVolume::m_AddProgress(int64_t nFiles, int64_t nDone) {
    if (nFiles == 0 && nDone == 0) return;
    {
        mox::MutexLock lock(m_mutex);
        m_status.nTotal += nFiles;
        m_status.nDone += nDone;
    }
    m_Publish();
}

void CMOXLibraryVolume::m_MarkSeen(int64_t nId) {
    if (nId < 0 || nId >= kMaxSeenId) return;
    const auto nIndex = static_cast<size_t>(nId);
    if (nIndex >= m_seen.size()) m_seen.resize(nIndex + 4096);
    if (m_seen[nIndex]) return;
    m_seen[nIndex] = true;
    ++m_nSeen;
}

bool CMOXLibraryVolume::m_CommitDue() const {
    return m_bInTransaction && (m_nTransactionRows >= kCommitRows || Clock::now() - m_transactionStart >= kCommitEvery);
}

bool CMOXLibraryVolume::m_WaitWhileBusy() {
    if (!m_rUsersBusy.load()) return true;
    // What is done is visible while users are served.
    int rc = SQLITE_OK;
    if (!m_Commit(rc)) return false;
    std::string strBefore;
    {
        mox::MutexLock lock(m_mutex);
        strBefore = m_status.strState;
        m_status.strState = "paused";
    }
    m_Publish();
    while (m_rUsersBusy.load() && !Stopping()) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    {
        mox::MutexLock lock(m_mutex);
        m_status.strState = strBefore;
    }
    m_Publish();
    return !Stopping();
}

int CMOXLibraryVolume::m_OpenBeneath(const std::string& strRel, int nFlags) {
    struct open_how how;
    memset(&how, 0, sizeof(how));
    how.flags = static_cast<uint64_t>(nFlags | O_NOFOLLOW | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        const long fd = syscall(SYS_openat2, m_mountFd.Get(), strRel.c_str(), &how, sizeof(how));
        if (fd >= 0) return static_cast<int>(fd);
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
}

bool CMOXLibraryVolume::m_Fail(int rc, const char* szWhat) {
    if (m_bInTransaction) {
        m_db.Rollback();
        m_bInTransaction = false;
    }
    if ((rc & 0xff) == SQLITE_CORRUPT || (rc & 0xff) == SQLITE_NOTADB) m_bCorrupt = true;
    if ((rc & 0xff) == SQLITE_FULL && m_bFull) return false;
    if ((rc & 0xff) == SQLITE_FULL) m_bFull = true;
    if ((rc & 0xff) == SQLITE_FULL)
        MOX_WARN("library %s: the index's file system is full (%s): indexing stops, what was committed stays.",
                 m_strMountPath.c_str(), szWhat);
    else
        MOX_WARN("library %s: index %s failed (%s).", m_strMountPath.c_str(), szWhat, sqlite3_errstr(rc));
    return false;
}

bool CMOXLibraryVolume::m_Change(int& rc) {
    rc = SQLITE_OK;
    if (m_bInTransaction) return true;
    rc = m_db.Begin();
    if (rc != SQLITE_OK) return m_Fail(rc, "begin");
    m_bInTransaction = true;
    if (!m_bMountRecorded && (rc = m_RecordMount()) != SQLITE_OK) return m_Fail(rc, "begin");
    m_transactionStart = Clock::now();
    m_nTransactionRows = 0;
    m_nNextGeneration = m_db.Generation() + 1;
    return true;
}

bool CMOXLibraryVolume::m_Commit(int& rc) {
    rc = SQLITE_OK;
    if (!m_bInTransaction) return true;
    rc = m_db.SetGeneration(m_nNextGeneration);
    if (rc == SQLITE_OK) rc = m_db.Commit();
    if (rc != SQLITE_OK) return m_Fail(rc, "commit");
    m_bInTransaction = false;
    m_db.GenerationCommitted(m_nNextGeneration);
    {
        mox::MutexLock lock(m_mutex);
        m_status.nGeneration = m_nNextGeneration;
    }
    m_Publish();
    return true;
}

bool CMOXLibraryVolume::m_WriteEntry(const std::string& strRel, const std::string& strParent,
                                     const std::string& strName, bool bFolder, int nMediaType, int64_t nSize,
                                     int64_t nTime, bool bCheckRegular, int& rc, bool* pbIndexed) {
    SMOXLibraryRow row;
    rc = m_db.Lookup(strRel, row);
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) return m_Fail(rc, "lookup");
    return m_WriteKnown(strRel, strParent, strName, bFolder, nMediaType, nSize, nTime, bCheckRegular,
                        rc == SQLITE_ROW ? &row : nullptr, rc, pbIndexed);
}

bool CMOXLibraryVolume::m_WriteKnown(const std::string& strRel, const std::string& strParent,
                                     const std::string& strName, bool bFolder, int nMediaType, int64_t nSize,
                                     int64_t nTime, bool bCheckRegular, const SMOXLibraryRow* pKnown, int& rc,
                                     bool* pbIndexed) {
    bool bIndexed = false;
    if (pbIndexed == nullptr) pbIndexed = &bIndexed;
    *pbIndexed = false;
    const bool bFound = pKnown != nullptr;
    const SMOXLibraryRow row = bFound ? *pKnown : SMOXLibraryRow();
    rc = SQLITE_OK;
    if (bFound) {
        m_MarkSeen(row.nId);
        const bool bSame = row.bFolder == bFolder && row.nTime == nTime && (bFolder || row.nSize == nSize);
        if (bSame) {
            *pbIndexed = true;
            if (!bFolder && row.nState != 0) ++m_nDoneUnreported;
            return true;
        }
    }
    if (bCheckRegular && !bFolder) {
        // Only regular files are indexed: a link or FIFO named like a photo
        // is not (the walk reports them without following them).
        mox_util::UniqueFd fd(m_OpenBeneath(strRel, O_PATH));
        struct stat st;
        if (!fd.IsValid() || fstat(fd.Get(), &st) != 0 || !S_ISREG(st.st_mode)) return true;
    }
    if (!m_Change(rc)) return false;
    ++m_nTransactionRows;
    const int nState = bFolder ? 3 : 0;
    if (bFound && row.bFolder == bFolder) {
        *pbIndexed = true;
        rc = m_db.UpdateBasic(row.nId, nSize, nTime, nState, m_nNextGeneration);
        return rc == SQLITE_OK || m_Fail(rc, "update");
    }
    if (bFound) {
        int64_t nDeleted = 0;
        rc = m_db.DeleteTree(strRel, nDeleted);
        if (rc != SQLITE_OK) return m_Fail(rc, "delete");
        m_nRows -= nDeleted;
        m_bRowsDeleted = true;
    }
    if (m_bBudgetReached) return true;
    if (m_nRows >= m_bounds.nMaxRows) {
        if (!m_bRowsFullLogged)
            MOX_WARN("library %s: %lld rows, the bound: further files are not indexed.", m_strMountPath.c_str(),
                     static_cast<long long>(m_nRows));
        m_bRowsFullLogged = true;
        return true;
    }
    if (++m_nInsertsSinceBudget >= kBudgetEvery) {
        m_nInsertsSinceBudget = 0;
        if (m_budget && !m_budget()) {
            if (!m_bBudgetLogged)
                MOX_WARN("library %s: the library's byte bound is reached: further files are not indexed.",
                         m_strMountPath.c_str());
            m_bBudgetLogged = true;
            m_bBudgetReached = true;  // no more inserts until the next scan
            return true;
        }
    }
    int64_t nId = 0;
    rc = m_db.Insert(strRel, strParent, CMOXExtractor::FileNameToUtf8(strName), bFolder, nMediaType, nSize, nTime,
                     nState, m_nNextGeneration, nId);
    if (rc != SQLITE_OK) return m_Fail(rc, "insert");
    *pbIndexed = true;
    ++m_nRows;
    m_MarkSeen(nId);
    if (!bFolder) {
        mox::MutexLock lock(m_mutex);
        ++m_status.counts[CountSlot(nMediaType)];
    }
    return true;
}

CMOXLibraryVolume::EScan CMOXLibraryVolume::m_Walk(SMOXLibraryExtractPipe& pipe, bool& bWalkComplete) {
    CMOXAutoScanner scanner;
    if (!scanner.Create("mox-library")) return EScan::kFailed;
    SMOXScannerOption option;
    option.strDevicePath = m_strMountPath;
    option.strBasePath = m_strMountPath;
    option.strConfineRoot = mox_host::UsbRoot();
    option.nScanMode = MOX_SCAN_MODE_NORMAL;
    option.nRecursive = 1;
    option.nDetail = 1;  // size and time of every entry
    option.bFilterByExtension = true;
    option.nListSize = kScanListSize;
    option.nPriority = 2;
    option.bBatches = true;
    EScan eResult = EScan::kComplete;
    if (scanner.SetScannerOption(option) != MOX_SCAN_OK || scanner.Start() != MOX_SCAN_OK) {
        MOX_WARN("library %s: the walk cannot start.", m_strMountPath.c_str());
        scanner.Destroy();
        return EScan::kFailed;
    }
    m_Watch(std::string());
    // Whole runs of the walk at once; an entry whose size and time match its
    // row costs a binary search in its folder's rows, read in one query when
    // the walk enters the folder, and no allocation.
    SMOXScanBatch batch;
    CMOXFolderRows known;
    std::string strKnownBase;
    bool bKnownLoaded = false;
    std::string strParent, strRel, strName;
    bool bPaused = false;
    int rc = SQLITE_OK;
    m_nDoneUnreported = 0;
    for (;;) {
        if (Stopping()) {
            eResult = EScan::kStopped;
            break;
        }
        if (m_rUsersBusy.load()) {
            if (!bPaused) scanner.Pause();
            bPaused = true;
            if (!m_WaitWhileBusy()) continue;
        }
        if (bPaused) {
            scanner.Resume();
            bPaused = false;
        }
        const int nTake = scanner.TakeBatch(batch, kWalkWait);
        if (nTake == MOX_SCAN_END) {
            bWalkComplete = true;
            break;
        }
        if (nTake != MOX_SCAN_OK) continue;
        bool bOk = true;
        int64_t nFiles = 0;
        for (const SMOXScanBatch::Entry& entry : batch.entries) {
            if (entry.nType != MOX_SCANNER_TYPE_DIR && entry.nType != MOX_SCANNER_TYPE_FILE) continue;
            const bool bFolder = entry.nType == MOX_SCANNER_TYPE_DIR;
            if (!bFolder && entry.nExtensionGroup == 0) continue;
            const std::string_view folder = batch.Folder(entry);
            if (!bKnownLoaded || folder != strKnownBase) {
                bKnownLoaded = false;
                strKnownBase.assign(folder.data(), folder.size());
                strParent.clear();
                if (strKnownBase != m_strMountPath) {
                    strParent = m_Relative(strKnownBase);
                    if (strParent.empty()) continue;  // never outside the mount
                }
                rc = m_db.FolderRows(strParent, known);
                if (rc != SQLITE_OK) {
                    bOk = m_Fail(rc, "read");
                    break;
                }
                bKnownLoaded = true;
            }
            const std::string_view name = batch.Name(entry);
            const int nMediaType = bFolder ? 0 : entry.nExtensionGroup;
            const int64_t nSize = bFolder ? 0 : entry.llFileSize;
            const SMOXLibraryRow* pKnown = known.Find(name);
            if (pKnown != nullptr && pKnown->bFolder == bFolder && pKnown->nTime == entry.tModified &&
                (bFolder || pKnown->nSize == nSize)) {
                // Unchanged: only seen.
                m_MarkSeen(pKnown->nId);
                if (bFolder) {
                    m_Watch(JoinRel(strParent, std::string(name)));
                } else {
                    ++nFiles;
                    if (pKnown->nState != 0) ++m_nDoneUnreported;
                }
                continue;
            }
            strName.assign(name.data(), name.size());
            strRel = JoinRel(strParent, strName);
            bool bIndexed = false;
            bOk = m_WriteKnown(strRel, strParent, strName, bFolder, nMediaType, nSize, entry.tModified, true, pKnown,
                               rc, &bIndexed);
            if (!bOk) break;
            if (!bFolder && bIndexed) ++nFiles;
            if (bFolder) m_Watch(strRel);
        }
        if (bOk && m_CommitDue()) bOk = m_Commit(rc);
        m_AddProgress(nFiles, m_nDoneUnreported);
        m_nDoneUnreported = 0;
        if (!bOk) {
            eResult = EScan::kFailed;
            break;
        }
        // The helper parses what the walk found so far meanwhile.
        if (!m_ExtractStep(pipe, EExtract::kWalking, eResult)) break;
    }
    scanner.Stop();
    scanner.Destroy();
    if (eResult != EScan::kFailed && !m_Commit(rc)) eResult = EScan::kFailed;
    return eResult;
}

void CMOXLibraryVolume::m_OpenBatch(SMOXLibraryExtractBatch& batch) {
    const std::vector<SMOXLibraryPending>& pending = batch.pending;
    batch.fields.assign(pending.size(), SMOXLibraryFields());
    batch.states.assign(pending.size(), 0);
    batch.gone.assign(pending.size(), false);
    batch.fds.reserve(pending.size());
    batch.items.reserve(pending.size());
    size_t& nOpened = batch.nOpened;
    for (nOpened = 0; nOpened < pending.size(); ++nOpened) {
        const SMOXLibraryPending& one = pending[nOpened];
        mox_util::UniqueFd fd(m_OpenBeneath(one.strRelPath, O_RDONLY | O_NONBLOCK));
        struct stat st;
        if (!fd.IsValid()) {
            if (IsMissing(errno)) {
                batch.gone[nOpened] = true;
                continue;
            }
            MOX_WARN("library %s: cannot open a file (%s): the storage may be gone.", m_strMountPath.c_str(),
                     strerror(errno));
            break;
        }
        if (fstat(fd.Get(), &st) != 0) break;
        if (!S_ISREG(st.st_mode)) {
            batch.gone[nOpened] = true;
            continue;
        }
        SMOXLibraryExtractItem item;
        item.fd = fd.Get();
        item.strPath = m_strMountPath + "/" + one.strRelPath;
        item.strFileName = NameOf(one.strRelPath);
        item.nMediaType = one.nMediaType;
        item.nSize = st.st_size;
        item.nTime = st.st_mtime;
        batch.items.push_back(std::move(item));
        batch.at.push_back(nOpened);
        batch.fds.push_back(std::move(fd));
    }
}

void CMOXLibraryVolume::m_SettleBatch(SMOXLibraryExtractBatch& batch) {
    batch.nDone = batch.nOpened;
    for (size_t k = 0; k < batch.items.size(); ++k) {
        SMOXLibraryExtractItem& item = batch.items[k];
        // The storage stalled: this file and the ones after it wait.
        if (item.bDeferred) {
            batch.nDone = batch.at[k];
            break;
        }
        batch.fields[batch.at[k]] = std::move(item.fields);
        batch.states[batch.at[k]] = !item.bParsed ? 2 : mox_library::HasContent(item.nMediaType) ? 1 : 3;
    }
    batch.fds.clear();
}

bool CMOXLibraryVolume::m_StoreBatch(const SMOXLibraryExtractBatch& batch, EScan& eResult) {
    const std::vector<SMOXLibraryPending>& pending = batch.pending;
    const size_t nDone = batch.nDone;
    int rc = SQLITE_OK;
    eResult = EScan::kFailed;
    if (nDone > 0 && !m_Change(rc)) return false;
    m_nTransactionRows += static_cast<int>(nDone);
    for (size_t i = 0; i < nDone; ++i) {
        if (batch.gone[i]) {
            rc = m_db.DeleteId(pending[i].nId);
            if (rc == SQLITE_OK) {
                --m_nRows;
                mox::MutexLock lock(m_mutex);
                --m_status.counts[CountSlot(pending[i].nMediaType)];
                --m_status.nTotal;
            }
        } else {
            rc = m_db.StoreFields(pending[i].nId, batch.fields[i], batch.states[i], m_nNextGeneration);
            if (rc == SQLITE_OK) {
                mox::MutexLock lock(m_mutex);
                ++m_status.nDone;
            }
        }
        if (rc != SQLITE_OK) {
            m_Fail(rc, "store");
            return false;
        }
    }
    const bool bLast = Stopping() || nDone < pending.size();
    if ((bLast || m_CommitDue()) && !m_Commit(rc)) return false;
    if (Stopping()) {
        eResult = EScan::kStopped;
        return false;
    }
    if (nDone < pending.size()) return false;
    eResult = EScan::kComplete;
    return true;
}

bool CMOXLibraryVolume::m_ExtractStep(SMOXLibraryExtractPipe& pipe, EExtract eMode, EScan& eResult) {
    eResult = EScan::kComplete;
    if (pipe.bHeld) return true;
    if (pipe.run) {
        // The walk goes on while the helper parses.
        if (eMode == EExtract::kWalking && !pipe.run->Done()) return true;
        pipe.run->Join();
        pipe.run.reset();
    }
    if (pipe.bNext) {
        m_SettleBatch(pipe.next);
        pipe.ready = std::move(pipe.next);
        pipe.next = SMOXLibraryExtractBatch();
        pipe.bReady = true;
        pipe.bNext = false;
    }
    const bool bShort = pipe.bReady && pipe.ready.nDone < pipe.ready.pending.size();
    if (eMode == EExtract::kWalking && bShort) {
        // The storage failed or stalled: its rows wait for the pass after
        // the walk, which meets the trouble again where it was.
        pipe.bHeld = true;
        pipe.bReady = false;
        return true;
    }
    // A batch that ended short ends the pass once it is stored.
    if (eMode != EExtract::kDrain && !bShort) {
        const int rc = m_db.NextPending(pipe.nAfter, kExtractBatch, pipe.next.pending);
        if (rc != SQLITE_OK) {
            m_Fail(rc, "read");
            eResult = EScan::kFailed;
            return false;
        }
        // While walking, kExtractMin at least: more rows come.
        if (eMode == EExtract::kWalking && pipe.next.pending.size() < kExtractMin) pipe.next.pending.clear();
        pipe.bNext = !pipe.next.pending.empty();
        if (pipe.bNext) {
            pipe.nAfter = pipe.next.pending.back().nId;
            // Not extracted when stopped (also while paused): its store then
            // ends the pass.
            if (!Stopping() && m_WaitWhileBusy()) {
                m_OpenBatch(pipe.next);
                pipe.run.emplace(pipe.next.items);
            }
        }
    }
    if (pipe.bReady) {
        pipe.bReady = false;
        if (!m_StoreBatch(pipe.ready, eResult)) return false;
    }
    return pipe.bNext || eMode == EExtract::kWalking;
}

CMOXLibraryVolume::EScan CMOXLibraryVolume::m_ExtractPending(SMOXLibraryExtractPipe* pWalked) {
    EScan eResult = EScan::kComplete;
    // What the walk began is finished first; then every waiting row from the
    // start (the walk also made known rows wait again, behind the cursor).
    if (pWalked && !pWalked->bHeld)
        while (m_ExtractStep(*pWalked, EExtract::kDrain, eResult)) {
        }
    if (eResult != EScan::kComplete) return eResult;
    SMOXLibraryExtractPipe pipe;
    while (m_ExtractStep(pipe, EExtract::kRun, eResult)) {
    }
    if (eResult != EScan::kComplete) return eResult;
    int rc = SQLITE_OK;
    return m_Commit(rc) ? EScan::kComplete : EScan::kFailed;
}

CMOXLibraryVolume::EScan CMOXLibraryVolume::m_DropVanished() {
    int64_t nAfter = 0;
    std::vector<std::pair<int64_t, std::string>> rows;
    std::vector<int64_t> drop;
    int rc = SQLITE_OK;
    for (;;) {
        if (Stopping()) return EScan::kStopped;
        rc = m_db.RowsAfter(nAfter, kDropBatch, rows);
        if (rc != SQLITE_OK) {
            m_Fail(rc, "read");
            return EScan::kFailed;
        }
        if (rows.empty()) return EScan::kComplete;
        nAfter = rows.back().first;
        drop.clear();
        for (const auto& row : rows) {
            if (row.first >= kMaxSeenId) continue;
            if (static_cast<size_t>(row.first) < m_seen.size() && m_seen[static_cast<size_t>(row.first)]) continue;
            // The walk ends quietly on a read error too: a row goes only when
            // its file is really gone, and a storage that fails to answer
            // keeps every row.
            mox_util::UniqueFd fd(m_OpenBeneath(row.second, O_PATH));
            if (fd.IsValid()) continue;
            if (!IsMissing(errno)) {
                MOX_WARN("library %s: cannot check a vanished entry (%s); rows kept.", m_strMountPath.c_str(),
                         strerror(errno));
                return EScan::kFailed;
            }
            drop.push_back(row.first);
        }
        if (drop.empty()) continue;
        if (!m_Change(rc)) return EScan::kFailed;
        for (int64_t nId : drop) {
            rc = m_db.DeleteId(nId);
            if (rc != SQLITE_OK) {
                m_Fail(rc, "delete");
                return EScan::kFailed;
            }
            --m_nRows;
        }
        if (!m_Commit(rc)) return EScan::kFailed;
    }
}

void CMOXLibraryVolume::m_Watch(const std::string& strRel) {
    if (!m_inotifyFd.IsValid()) return;
    if (m_watches.size() >= m_bounds.nMaxWatches) {
        if (!m_bWatchesFullLogged)
            MOX_WARN(
                "library %s: %zu folders watched, the bound: changes made by others below further folders "
                "are picked up on the next mount or rescan.",
                m_strMountPath.c_str(), m_watches.size());
        m_bWatchesFullLogged = true;
        return;
    }
    // The folder opened beneath the mount, watched through its descriptor:
    // a link swapped in for it is never watched.
    mox_util::UniqueFd fd(m_OpenBeneath(strRel.empty() ? "." : strRel, O_PATH | O_DIRECTORY));
    if (!fd.IsValid()) return;
    const std::string strProc = "/proc/self/fd/" + std::to_string(fd.Get());
    const int wd = inotify_add_watch(m_inotifyFd.Get(), strProc.c_str(), kWatchMask & ~IN_DONT_FOLLOW);
    if (wd < 0) {
        if (!m_bWatchesFullLogged)
            MOX_WARN("library %s: cannot watch more folders (%s): changes by others below them wait for a rescan.",
                     m_strMountPath.c_str(), strerror(errno));
        m_bWatchesFullLogged = true;
        return;
    }
    m_watches[wd] = strRel;
}

void CMOXLibraryVolume::m_ReadInotify() {
    alignas(struct inotify_event) char buf[16384];
    for (;;) {
        const ssize_t n = read(m_inotifyFd.Get(), buf, sizeof(buf));
        if (n <= 0) return;
        for (ssize_t off = 0; off < n;) {
            const auto* ev = reinterpret_cast<const struct inotify_event*>(buf + off);
            off += static_cast<ssize_t>(sizeof(struct inotify_event) + ev->len);
            if (ev->mask & IN_Q_OVERFLOW) {
                mox::MutexLock lock(m_noticeMutex);
                m_bRescan = true;
                continue;
            }
            auto found = m_watches.find(ev->wd);
            if (found == m_watches.end()) continue;
            if (ev->mask & IN_IGNORED) {
                m_watches.erase(found);
                continue;
            }
            if (ev->len == 0) continue;
            // A file being created is indexed when it is closed.
            if ((ev->mask & IN_CREATE) && !(ev->mask & IN_ISDIR)) continue;
            const std::string strRel = JoinRel(found->second, ev->name);
            mox::MutexLock lock(m_noticeMutex);
            m_QueueNotice(strRel);
        }
    }
}

void CMOXLibraryVolume::m_ProcessNotices() {
    std::deque<std::string> notices;
    {
        mox::MutexLock lock(m_noticeMutex);
        notices.swap(m_notices);
    }
    if (notices.empty()) return;
    // A change in a folder changes the folder's time too.
    const size_t nNamed = notices.size();
    for (size_t i = 0; i < nNamed; ++i) {
        const std::string strParent = ParentOf(notices[i]);
        if (!strParent.empty() && std::find(notices.begin(), notices.end(), strParent) == notices.end())
            notices.push_back(strParent);
    }
    const int64_t nBefore = m_db.Generation();
    CMOXMediaExtension table;
    int rc = SQLITE_OK;
    for (const std::string& strRel : notices) {
        if (Stopping()) break;
        mox_util::UniqueFd fd(m_OpenBeneath(strRel, O_PATH));
        struct stat st;
        const bool bExists = fd.IsValid() && fstat(fd.Get(), &st) == 0;
        const std::string strParent = ParentOf(strRel);
        const std::string strName = NameOf(strRel);
        std::string strExt;
        const int nGroup = bExists && S_ISREG(st.st_mode)
                               ? CMOXMediaExtension::GetMediaTypeFromExtension(table.ExtractExtension(strName, strExt))
                               : 0;
        const bool bIndexable = bExists && (S_ISDIR(st.st_mode) || nGroup != 0);
        if (!bIndexable) {
            if (bExists || IsMissing(errno)) {
                int64_t nDeleted = 0;
                SMOXLibraryRow row;
                if (m_db.Lookup(strRel, row) != SQLITE_ROW) continue;
                if (!m_Change(rc)) return;
                rc = m_db.DeleteTree(strRel, nDeleted);
                if (rc != SQLITE_OK) {
                    m_Fail(rc, "delete");
                    return;
                }
                m_nRows -= nDeleted;
            }
            continue;
        }
        const bool bFolder = S_ISDIR(st.st_mode);
        SMOXLibraryRow known;
        if (bFolder && m_db.Lookup(strRel, known) == SQLITE_DONE) {
            // A folder moved in brings its contents: a rescan (quick for
            // what did not change) finds them.
            mox::MutexLock lock(m_noticeMutex);
            m_bRescan = true;
        }
        if (!m_WriteEntry(strRel, strParent, strName, bFolder, nGroup, bFolder ? 0 : st.st_size, st.st_mtime, false,
                          rc))
            return;
        if (bFolder) m_Watch(strRel);
    }
    if (!m_Commit(rc)) return;
    // New and changed files get their tags right away.
    if (m_ExtractPending() == EScan::kFailed) MOX_WARN("library %s: live update incomplete.", m_strMountPath.c_str());
    if (m_db.Generation() != nBefore) {
        m_UpdateCounts();
        int64_t nPending = 0;
        m_db.PendingCount(nPending);
        {
            mox::MutexLock lock(m_mutex);
            m_status.nTotal = m_status.counts[0] + m_status.counts[1] + m_status.counts[2] + m_status.counts[3];
            m_status.nDone = m_status.nTotal - nPending;
        }
        m_Report();
    }
}
