// CMOXLibraryVolume: the index of one mounted volume, kept by one thread.
//
// On start the thread opens (or rebuilds) the volume's database, then walks
// the volume with a normal-mode auto scanner, draining its scan list in
// batches: folders and media files (by the extension table) whose size and
// time are unchanged are only marked seen; new and changed ones are written
// as rows waiting for extraction. The waiting rows are extracted through
// the mox-extract helper in batches, beside the walk as rows come and after
// it; a walk that finished lets rows of vanished files go. Afterwards the thread follows live changes (notices of
// the engine's own file operations, inotify on a bounded number of folders)
// and rescans on request.
//
// Each committed transaction that changed rows raises the volume's generation
// by one and stamps the rows it changed. Work stops at once when Stop() is
// called (one helper batch of kExtractBatch files at most), and waits while users
// are served (the shared busy flag): the scanner is paused.
//
// Threads and locks: public operations are called from any thread and take
// m_noticeMutex only briefly; the status callback runs on the volume's thread
// with no lock held. The thread runs at the lowest priority, so a lock it
// holds may stay held for long: Status() takes none (it reads the copy the
// thread publishes), and m_mutex, which guards the thread's working status,
// is the thread's own. A batch's round trips to the helper run on a
// short-lived thread that touches only that batch's items, joined before
// they are read.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include <mox_unique_fd.h>

#include "mox_library_db.h"
#include "mox_thread_annotations.h"

struct SMOXLibraryExtractBatch;
struct SMOXLibraryExtractPipe;

struct SMOXLibraryStatus {
    std::string strMountPath;
    std::string strVolumeId;
    std::string strState;  // "indexing", "ready", "paused", "failed"
    int64_t nDone = 0;
    int64_t nTotal = 0;
    int64_t nGeneration = 0;
    int64_t counts[4] = {0, 0, 0, 0};  // photo, video, music, other
    int64_t nDbBytes = 0;
    // The mox_library_notification document (db_bytes only when bWithSize).
    std::string ToJson(bool bWithSize) const;
};

// Bounds of one volume (documented in the README).
struct SMOXLibraryBounds {
    int64_t nMaxRows = 2000000;
    size_t nMaxWatches = 4096;
    size_t nMaxNotices = 1024;
};

class CMOXLibraryVolume {
public:
    using Reporter = std::function<void(const SMOXLibraryStatus&)>;
    // True while the database files of the library fit their byte bound
    // (the library drops least-recently-mounted volumes to make room).
    using BudgetCheck = std::function<bool()>;

    CMOXLibraryVolume(std::string strMountPath, std::string strVolumeId, std::string strDbPath,
                      const std::atomic<bool>& rUsersBusy, Reporter reporter, BudgetCheck budget,
                      SMOXLibraryBounds bounds = SMOXLibraryBounds());
    ~CMOXLibraryVolume();  // stops and joins
    CMOXLibraryVolume(const CMOXLibraryVolume&) = delete;
    CMOXLibraryVolume& operator=(const CMOXLibraryVolume&) = delete;

    // Called once the first walk is over (it changed nothing, or its rows
    // then wait for extraction) or the indexer ended without one, on the
    // volume's thread; never when the volume is stopped first. Set before
    // Start().
    void SetWalkedHook(std::function<void()> hook) { m_walkedHook = std::move(hook); }
    // The hook, when Start() was not called.
    std::function<void()> TakeWalkedHook() { return std::exchange(m_walkedHook, nullptr); }

    bool Start();
    // Asks the thread to end (no wait); Join() waits for it.
    void RequestStop();
    void Join();
    // True once the indexing thread has returned (Join() will not wait).
    bool Finished() const { return m_bFinished.load(); }
    void Rescan();
    // A path below the mount changed (absolute).
    void NoteChanged(const std::string& strPath);
    SMOXLibraryStatus Status();
    const std::string& MountPath() const { return m_strMountPath; }
    const std::string& VolumeId() const { return m_strVolumeId; }
    const std::string& DbPath() const { return m_strDbPath; }

private:
    enum class EScan { kComplete, kStopped, kFailed };

    void m_Thread();
    void m_Run();
    EScan m_Scan();
    enum class EExtract {
        kWalking,  // beside the walk: whole batches, never waits for the helper
        kDrain,    // the batches begun, no new one
        kRun,      // every waiting row
    };
    // The walk drives pipe's extraction as it goes.
    EScan m_Walk(SMOXLibraryExtractPipe& pipe, bool& bWalkComplete);
    // Every waiting row, after what the walk's pipe began (when given).
    EScan m_ExtractPending(SMOXLibraryExtractPipe* pWalked = nullptr);
    // One step of pipe: takes the helper's answer, hands it the next batch,
    // stores the last. False when the pass ends (eResult).
    bool m_ExtractStep(SMOXLibraryExtractPipe& pipe, EExtract eMode, EScan& eResult);
    EScan m_DropVanished();
    bool m_WriteEntry(const std::string& strRel, const std::string& strParent, const std::string& strName, bool bFolder,
                      int nMediaType, int64_t nSize, int64_t nTime, bool bCheckRegular, int& rc,
                      bool* pbIndexed = nullptr);
    // m_WriteEntry with the row already looked up (nullptr: none).
    bool m_WriteKnown(const std::string& strRel, const std::string& strParent, const std::string& strName, bool bFolder,
                      int nMediaType, int64_t nSize, int64_t nTime, bool bCheckRegular, const SMOXLibraryRow* pKnown,
                      int& rc, bool* pbIndexed);
    void m_ProcessNotices();
    // Opens a batch's pending files, up to the first one the storage fails
    // to open; the helper then extracts them (on another thread).
    void m_OpenBatch(SMOXLibraryExtractBatch& batch);
    // Takes the helper's results: how many, from the first, are done.
    void m_SettleBatch(SMOXLibraryExtractBatch& batch);
    // Writes a settled batch; false when the pass ends with eResult.
    bool m_StoreBatch(const SMOXLibraryExtractBatch& batch, EScan& eResult);
    // A transaction of changes: begins lazily, commits with a new generation.
    bool m_Change(int& rc);
    bool m_Commit(int& rc);
    bool m_Fail(int rc, const char* szWhat);
    void m_Watch(const std::string& strRel);
    void m_ReadInotify();
    bool m_WaitWhileBusy();
    // The open transaction has run long enough to be committed.
    bool m_CommitDue() const;
    void m_MarkSeen(int64_t nId);
    // Inside a transaction: "mount_path" and "last_mounted" of this mount.
    int m_RecordMount();
    // The walk's progress: files found, and unchanged ones done.
    void m_AddProgress(int64_t nFiles, int64_t nDone);
    // SCHED_IDLE and the idle I/O class for the calling (indexer) thread.
    void m_LowestPriority();
    void m_SetState(const char* szState, bool bReport);
    // Runs the walked hook, once.
    void m_Walked();
    void m_Report();
    void m_UpdateCounts();
    int m_OpenBeneath(const std::string& strRel, int nFlags);
    std::string m_Relative(const std::string& strAbsolute) const;
    // Queues a changed path; past the bound, one rescan covers them all.
    void m_QueueNotice(const std::string& strRel) REQUIRES(m_noticeMutex);
    // Copies the working status to the published one (the thread only).
    void m_Publish();
    bool Stopping() const { return m_bStop.load(); }

    const std::string m_strMountPath;
    const std::string m_strVolumeId;
    const std::string m_strDbPath;
    const std::atomic<bool>& m_rUsersBusy;
    const Reporter m_reporter;
    const BudgetCheck m_budget;
    const SMOXLibraryBounds m_bounds;

    std::atomic<bool> m_bStop{false};
    std::atomic<bool> m_bFinished{false};
    std::thread m_thread;
    mox_util::UniqueFd m_wakeFd;  // eventfd: notices, rescans and stop wake the thread

    mox::Mutex m_mutex;
    SMOXLibraryStatus m_status GUARDED_BY(m_mutex);
    // The status as last published: state (index into the state names),
    // progress, generation, counts.
    std::atomic<int> m_nPubState{0};
    std::atomic<int64_t> m_nPubDone{0};
    std::atomic<int64_t> m_nPubTotal{0};
    std::atomic<int64_t> m_nPubGeneration{0};
    std::atomic<int64_t> m_nPubCounts[4] = {};
    mox::Mutex m_noticeMutex;
    std::deque<std::string> m_notices GUARDED_BY(m_noticeMutex);  // relative paths
    bool m_bRescan GUARDED_BY(m_noticeMutex) = false;

    // The thread's own state (never touched by other threads).
    CMOXLibraryDb m_db;
    mox_util::UniqueFd m_mountFd;  // O_PATH of the mount, opened beneath the USB root
    mox_util::UniqueFd m_inotifyFd;
    std::unordered_map<int, std::string> m_watches;  // watch descriptor -> relative folder
    bool m_bWatchesFullLogged = false;
    std::vector<bool> m_seen;     // by row id, during a scan
    int64_t m_nSeen = 0;          // rows marked in m_seen
    bool m_bRowsDeleted = false;  // rows went during the scan's walk
    bool m_bInTransaction = false;
    std::chrono::steady_clock::time_point m_transactionStart;
    int m_nTransactionRows = 0;  // rows written by the open transaction
    int64_t m_nNextGeneration = 0;
    int64_t m_nRows = 0;
    bool m_bRowsFullLogged = false;
    bool m_bBudgetLogged = false;
    bool m_bBudgetReached = false;  // the byte bound stopped inserts of this scan
    bool m_bFull = false;           // the index's file system was full
    bool m_bCorrupt = false;        // SQLite found the file damaged: moved aside at the end
    int64_t m_nDoneUnreported = 0;  // unchanged files seen, added to the status per batch
    int m_nInsertsSinceBudget = 0;
    std::function<void()> m_walkedHook;
    time_t m_tMounted = 0;
    bool m_bMountRecorded = false;  // this mount's meta is in the index
};
