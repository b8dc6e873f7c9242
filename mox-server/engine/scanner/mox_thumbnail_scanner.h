// CMOXThumbnailScanner: finds a few files of one folder after another, on one
// thread. Requests are queued by client threads (AddScanner) and removed by
// them (RemoveScanner*); the thread runs one request at a time and calls its
// end callback without holding m_mutex. A running request is withdrawn only
// through the cancel flag that the thread polls between two entries: nobody
// waits for it, since an entry may take as long as a hung storage does, and
// a cancelled request never calls back.
// Lock order: the scan manager's locks, then m_mutex.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <mox/mox_thread.h>

#include "mox_scanner_defines.h"
#include "mox_thread_annotations.h"
#include "mox_usb_scanner.h"

class CMOXThumbnailScanner : public CMOXThread {
public:
    // Most queued requests; AddScanner refuses more.
    static constexpr size_t kMaxQueuedRequests = 256;
    // Most requests (queued or running) of one owner, well below the queue
    // bound: one client never fills the queue for the others.
    static constexpr size_t kMaxRequestsPerClient = 32;
    static_assert(kMaxRequestsPerClient < kMaxQueuedRequests, "a client's share must stay below the bound");
    // Most files one request collects, whatever limit it asked for.
    static constexpr int kMaxFilesPerRequest = 1024;

    CMOXThumbnailScanner();
    ~CMOXThumbnailScanner() override;

    // Starts the thread; false when it cannot start.
    bool Create();
    // Ends the thread (the running request is abandoned without callback)
    // and frees the callback data of every request left. Waits for the
    // thread: see RequestEnd().
    void Destroy() override;
    // Tells the thread to end after its current entry, without waiting
    // (BodyReturned() then says when it has).
    void RequestEnd();

    // Queues a copy of the option; the scanner owns its callback data from
    // here on (also on failure, when it frees it). 0, or -1 (warned) when the
    // thread does not run, the queue is full or the option's owner (when not
    // empty) already has kMaxRequestsPerClient requests.
    int AddScanner(const SMOXScannerOption& option);
    // Drops every request whose base path is `device` and cancels the
    // running one when it is such a request, without waiting.
    void RemoveScannerByDevice(const char* device);
    // Drops the requests matching all four values and, unless pOwner is null,
    // owned by *pOwner; a running one is cancelled without waiting (the
    // caller may be the main loop). Answers how many matching requests of
    // other owners were left alone.
    size_t RemoveScanner(const char* device, const char* path, unsigned int limit, int value,
                         const std::string* pOwner);
    // Drops every request of `owner` and cancels its running one, without
    // waiting and without its callback. The number of requests dropped.
    size_t RemoveScannersOfOwner(const std::string& owner);
    // True while a withdrawn request has been running for `after` or longer
    // since it was withdrawn, or while any request has been running for
    // `waited` or longer with others queued behind it: the thread is (or may
    // be) stuck on a storage and the queue should not wait for it.
    bool IsStuck(std::chrono::milliseconds after, std::chrono::milliseconds waited);
    // Hands the queued requests (and their callback data) over to another
    // thumbnail scanner: TakeQueue empties this queue, AdoptQueue appends.
    std::deque<SMOXScannerOption> TakeQueue();
    void AdoptQueue(std::deque<SMOXScannerOption> queue);
    // Files collected for the current request; 0, or -1 when none runs.
    int GetFileInfoList(std::vector<SMOXFileInfo>& out);
    // The current request; 0, or -1 when none runs.
    int GetScannerOption(SMOXScannerOption& option);

protected:
    void t_Process() override;

private:
    // Requests of `owner`, queued or running.
    size_t m_CountOwnedLocked(const std::string& owner) const REQUIRES(m_mutex);
    void m_CancelCurrentLocked() REQUIRES(m_mutex);
    bool m_PopScanner();
    int m_DoFolderThumbnailAction();
    void OnCallback();
    void m_FinishCurrent();

    mox::Mutex m_mutex;
    std::condition_variable m_cond;
    std::deque<SMOXScannerOption> m_queue GUARDED_BY(m_mutex);
    SMOXScannerOption m_current GUARDED_BY(m_mutex);  // written by the thread only
    std::vector<SMOXFileInfo> m_files GUARDED_BY(m_mutex);
    bool m_bBusy GUARDED_BY(m_mutex) = false;
    std::chrono::steady_clock::time_point m_cancelledAt GUARDED_BY(m_mutex);
    std::chrono::steady_clock::time_point m_busySince GUARDED_BY(m_mutex);  // the current request's start
    std::atomic<bool> m_bThreadRun{false};
    std::atomic<bool> m_bCancel{false};

    // Scanner thread only.
    std::unique_ptr<CMOXUsbScanner> m_pDirScanner;
    int m_nFileCount = 0;
    int m_nDirCount = 0;
    int m_nLimit = 0;
    int m_nDelayUs = 0;  // between two entries: none, a thumbnail is wanted now
};
