// CMOXAutoScanner: one background scan of one storage. Its thread pulls
// entries from a directory scanner and either decides how many media the
// storage holds (check mode) or fills a bounded scan list that clients drain
// (normal mode). Public operations are called by client threads (the scan
// manager serialises calls per scanner); the end callback runs on the
// scanner's thread, with no lock of the scanner held.
//
// Lock order: m_stateMutex, then the gate, then m_scannerMutex, then the
// scan list's own mutex. The gate is a semaphore: Stop and Pause take it (so
// they wait for the current step) and hold it, which parks the thread until
// Start or Resume gives it back.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <mox/mox_thread.h>

#include "mox_scan_list.h"
#include "mox_scanner_defines.h"
#include "mox_scanner_state.h"
#include "mox_thread_annotations.h"
#include "mox_usb_scanner.h"

class CMOXAutoScanner : public CMOXThread {
public:
    CMOXAutoScanner();
    ~CMOXAutoScanner() override;

    // Makes the states and starts the thread (named pszScannerName, which
    // must not be null). false when the thread cannot start.
    bool Create(const char* pszScannerName);
    // Ends the thread and frees the directory scanner, the states and the
    // callback data. Call once, from a thread other than the scanner's. It
    // waits for the thread: callers that must not wait on a storage first
    // call RequestEnd() and Destroy() only once BodyReturned().
    void Destroy() override;
    // Tells the thread to end after its current step, without waiting; the
    // end callback no longer runs.
    void RequestEnd();

    int Start();
    int Stop();
    int Pause();
    int Resume();
    int Reset();

    // 0; -10 when the thread never ran; -11 outside the STOP state. The
    // scanner owns the option's callback data from here on.
    int SetScannerOption(const SMOXScannerOption& option);
    void GetScannerOption(SMOXScannerOption& option);
    int GetFileInfo(SMOXFileInfo& info);
    int GetFileInfoList(int nCount, std::vector<SMOXFileInfo>& out);
    // A scan in batches: the oldest run of entries, swapped into `batch`
    // (whose buffers go back to the walk), waiting up to `wait` for one. 0,
    // -7 at the end of the scan, -8 when none came.
    int TakeBatch(SMOXScanBatch& batch, std::chrono::milliseconds wait);
    // Most entries read (and so handed over) in one step of a scan in
    // batches: Pause and Stop wait for one step at most.
    static constexpr int kBatchRun = 256;
    void SetPriority(int nPriority);
    void SetDelayTime(int nMs);
    bool IsVisitedDIR(const std::string& path);
    int GetNumberOfDIRs() { return m_scanList.GetTotalDIRs(); }
    int GetNumberOfFiles() { return m_scanList.GetTotalFILEs(); }
    int GetNumberOfALL() { return m_scanList.GetTotalALL(); }
    const std::string& GetName() const { return m_strName; }
    const char* GetStateName();
    // Device and base path of the current option.
    std::string GetDevicePath();
    std::string GetBasePath();

protected:
    void t_Process() override;

private:
    friend class CMOXScannerInitState;
    friend class CMOXScannerStopState;
    friend class CMOXScannerPauseState;
    friend class CMOXScannerScanState;

    // Up to kCheckRun entries of a device check (its walk stops at the
    // second media file); the result of the last one.
    int DoCheckAction();
    static constexpr int kCheckRun = 256;
    int DoNormalAction();
    // Normal mode in batches: up to kBatchRun entries read and handed over
    // in one run (one lock of the list).
    int DoBatchAction() REQUIRES(m_scannerMutex);
    bool IsBasePathChanged(const std::string& path) REQUIRES(m_scannerMutex);
    // Called by the states with m_stateMutex held.
    void SetState(IMOXScannerState* pState);
    bool CreateNewScanner();
    void ReleaseDirScanner();
    void Initialize();
    void OnCallback();
    void ApplyPriority();

    std::string m_strName;
    mox::Mutex m_stateMutex ACQUIRED_BEFORE(m_scannerMutex);  // serialises the public operations
    IMOXScannerState* m_pState GUARDED_BY(m_stateMutex) = nullptr;
    std::unique_ptr<IMOXScannerState> m_pInitState, m_pStopState, m_pPauseState, m_pScanState;
    CMOXSemphore m_gate;

    mox::Mutex m_scannerMutex;
    SMOXScannerOption m_option GUARDED_BY(m_scannerMutex);
    SMOXFileInfo m_heldEntry GUARDED_BY(m_scannerMutex);
    // A scan in batches: the record the walk reads into (its buffers kept)
    // and the run being filled, held while the list is full.
    SMOXFileInfo m_walkEntry GUARDED_BY(m_scannerMutex);
    SMOXScanBatch m_fill GUARDED_BY(m_scannerMutex);
    std::unique_ptr<CMOXUsbScanner> m_pDirScanner GUARDED_BY(m_scannerMutex);
    std::string m_strFirstPath GUARDED_BY(m_scannerMutex);
    std::string m_strPreviousPath GUARDED_BY(m_scannerMutex);
    std::vector<std::string> m_visitedDirs GUARDED_BY(m_scannerMutex);
    bool m_bOverflow GUARDED_BY(m_scannerMutex) = false;
    bool m_bDelay GUARDED_BY(m_scannerMutex) = false;
    int m_nMediaCount GUARDED_BY(m_scannerMutex) = 0;

    CMOXScanList m_scanList;  // has its own mutex
    std::atomic<bool> m_bRunning{false};
    std::atomic<bool> m_bAlive{false};
    std::atomic<int> m_nDelayUs{10000};
    std::atomic<int> m_nPriority{2};
    int m_nAppliedPriority = -1;  // scanner thread only
};
