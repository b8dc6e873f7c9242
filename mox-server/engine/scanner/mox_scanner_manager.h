// CMOXScanManager: the process-wide registry of auto scanners (reached through
// CMOXSingleton) and owner of the one folder thumbnail scanner.
//
// Locking: m_mutex guards the list and the id counter and is held only while
// the list is searched or changed; it is never held while a record's mutex
// or anything of a scanner is waited for. Each record's own mutex is held for
// the duration of a call forwarded to its scanner, so different scanners run
// in parallel and calls on one scanner are serialised. Paths are matched on
// the record's copies (pathMutex, held briefly), never by asking the scanner,
// whose own locks a step stuck on a storage holds.
//
// Removal takes a record out of the list, marks it retired (a call that then
// reaches it answers -6) and tells the scanner to end, without waiting. The
// reaper thread destroys a retired scanner once its thread has returned and
// no call holds the record: a scanner stuck in a system call stays until the
// call returns, and no caller (the main loop, the USB thread) ever waits for
// it. Shutdown() waits a bounded time; what is still stuck then is left
// running and the manager is never destroyed.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "mox_auto_scanner.h"
#include "mox_scanner_defines.h"
#include "mox_thread_annotations.h"
#include "mox_thumbnail_scanner.h"

struct SMOXScannerInfo {
    mox::Mutex mutex;  // held by a forwarded call
    // Set before the record is listed and never changed; calls go through
    // `mutex` while the record is not retired, RequestEnd() at any time.
    std::unique_ptr<CMOXAutoScanner> pScanner;
    std::atomic<bool> bRetired{false};
    mox::Mutex pathMutex;
    std::string strDevicePath GUARDED_BY(pathMutex);  // of the accepted option
    std::string strBasePath GUARDED_BY(pathMutex);
    std::string strName;
    std::string strOwner;  // set once, before the record is listed
    std::string strShare;  // likewise: the share it counts against
    int nScannerID = 0;
    std::atomic<bool> bScannerEnd{false};
};

class CMOXScanManager {
public:
    // Most auto scanners alive at once; CreateScanner refuses more.
    static constexpr size_t kMaxScanners = 64;
    // Most auto scanners one client (bus unique name) holds at once, well
    // below kMaxScanners: one client never takes every slot.
    static constexpr size_t kMaxScannersPerClient = 16;
    static_assert(kMaxScannersPerClient < kMaxScanners, "a client's share must stay below the bound");

    CMOXScanManager();
    virtual ~CMOXScanManager();
    CMOXScanManager(const CMOXScanManager&) = delete;
    CMOXScanManager& operator=(const CMOXScanManager&) = delete;

    // 0 and the new id (from 1, never reused), or -1 (warned) when all slots
    // or `owner`'s share are taken. An empty owner is the engine itself.
    int CreateScanner(int& id, const std::string& owner = std::string(), const std::string& share = std::string());
    // The owner of scanner `id`; false when there is none.
    bool GetScannerOwner(int id, std::string& owner);
    // Id of the first scanner whose device path is `path`; -6 when none.
    int GetScanner(const char* path, int& id);

    int ResetScanner(int id);
    int SetScannerOption(int id, const SMOXScannerOption& option);
    int GetScannerOption(int id, SMOXScannerOption& option);
    int StartScanner(int id);
    int StopScanner(int id);
    int PauseScanner(int id);
    int ResumeScanner(int id);
    int GetNextFileInfo(int id, SMOXFileInfo& info);
    int GetNextFileInfoList(int id, int nCount, std::vector<SMOXFileInfo>& out);
    int GetNumberOfDIRs(int id);
    int GetNumberOfFiles(int id);
    int GetNumberOfALL(int id);
    int SetPriority(int id, int nPriority);
    int IsVisitedDIR(int id, const std::string& path);

    static int ConvertScannerResult(EMOXScannerResult nResult);
    static int ConvertMediaType(int nMediaType) { return nMediaType; }

    void RemoveScanner(int id);
    // Removes every scanner whose base path is `path` or lies below it.
    void RemoveScanner(const char* path);
    // Removes every scanner and thumbnail request of `owner` (a client that
    // left the bus); their signals never come.
    void RemoveScannersOfOwner(const std::string& owner);
    void PrintAllScanner();
    size_t GetScannerCount();
    // Waits until every removed scanner has been destroyed (tests).
    void WaitForRemovals();
    // Removes every scanner and tells the thumbnail threads to end, without
    // waiting; no thumbnail request is taken any more. Shutdown() follows.
    void BeginShutdown();
    // Removes every scanner and ends the thumbnail threads, waiting at most
    // `timeout`. True when all ended; otherwise those stuck in a system call
    // are left running (warned) and the manager must never be destroyed.
    bool Shutdown(std::chrono::milliseconds timeout);

    // Queues a folder thumbnail request; the option's callback data is owned
    // from here on (freed on failure). 0 or -1.
    int AddThumbnailScanner(const SMOXScannerOption& option);
    // Withdraws the thumbnail requests matching the four values and, unless
    // pOwner is null, belonging to *pOwner; the number of matching requests
    // of other owners, left alone.
    size_t RemoveScanner(const char* device, const char* path, unsigned int limit, int value,
                         const std::string* pOwner);
    void RemoveThumbnailByDevice(const char* device);
    int GetCurrentFileInfoList(std::vector<SMOXFileInfo>& out);
    int GetCurrentScannerOption(SMOXScannerOption& option);

private:
    std::shared_ptr<SMOXScannerInfo> m_FindScanner(int id);
    static bool m_IsValidScannerOption(const SMOXScannerOption&) { return true; }
    template <typename Call>
    int m_Forward(int id, Call call);
    // Retires a record already out of the list and hands it to the reaper.
    void m_Retire(const std::shared_ptr<SMOXScannerInfo>& info);
    void m_ReaperBody();
    // Destroys a retired record's scanner when its thread has returned and no
    // call holds the record; false (nothing done) otherwise.
    static bool m_TryDestroy(SMOXScannerInfo& info);

    mox::Mutex m_mutex;
    std::vector<std::shared_ptr<SMOXScannerInfo>> m_scanners GUARDED_BY(m_mutex);
    int m_nLastID GUARDED_BY(m_mutex) = 0;

    // Replaces the thumbnail scanner when its thread is stuck on a storage
    // with a withdrawn request (kThumbnailStuckAfter after the withdrawal), or
    // has run one request for kThumbnailQueueWait while others wait behind
    // it: the queue moves to a new thread, so the other clients' requests
    // run; the old one finishes (or is freed once its call returns). At most
    // kMaxStuckThumbnailThreads are left behind; then the queue waits. Run on
    // each new request and by the reaper about once a second.
    void m_ReplaceStuckThumbnailScanner() REQUIRES(m_thumbMutex);
    static constexpr std::chrono::milliseconds kThumbnailStuckAfter{200};
    static constexpr std::chrono::milliseconds kThumbnailQueueWait{3000};
    static constexpr size_t kMaxStuckThumbnailThreads = 4;

    // Created on the first request; requests and removals go to it under
    // m_thumbMutex (never held while a thread is waited for). Readers of
    // the current request (the thumbnail thread's own callback) load the
    // pointer without a lock: a replaced scanner is kept while its thread
    // runs, and a new one is published before it runs anything.
    mox::Mutex m_thumbMutex;
    std::unique_ptr<CMOXThumbnailScanner> m_pThumbnailOwner GUARDED_BY(m_thumbMutex);
    std::vector<std::unique_ptr<CMOXThumbnailScanner>> m_retiredThumbs GUARDED_BY(m_thumbMutex);
    bool m_bThumbsClosed GUARDED_BY(m_thumbMutex) = false;  // Shutdown() ran
    std::atomic<CMOXThumbnailScanner*> m_pThumbnailScanner{nullptr};

    mox::Mutex m_reapMutex;
    std::condition_variable m_reapCond;
    std::deque<std::shared_ptr<SMOXScannerInfo>> m_reapQueue GUARDED_BY(m_reapMutex);
    size_t m_nReaping GUARDED_BY(m_reapMutex) = 0;
    bool m_bReaperStop GUARDED_BY(m_reapMutex) = false;
    std::thread m_reaper;  // started by the constructor
};
