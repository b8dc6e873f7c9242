#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_log.h>

#include "mox_auto_scanner.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

#include "mox_scan_log.h"

namespace {

constexpr int kOptionWaitPolls = 300;
constexpr int kOptionWaitUs = 10000;
constexpr int kCreateWaitPolls = 1000;
constexpr int kCreateWaitUs = 100;
// Nice value of the priority classes 0 (highest) to 2 (the engine's choice).
constexpr int kNiceOfPriority[] = {0, 5, 10};

using Lock = mox::MutexLock;

// What the walk presets for each entry (a link keeps the file type).
void PresetEntry(SMOXFileInfo& info) {
    info.nType = MOX_SCANNER_TYPE_FILE;
    info.nExtensionGroup = 0;
    info.eExtension = 0;
    info.strExtensionName.clear();
    info.bDetailFilled = false;
    info.llFileSize = 0;
    info.tModified = info.tCreated = 0;
}

}  // namespace

CMOXAutoScanner::CMOXAutoScanner() = default;

CMOXAutoScanner::~CMOXAutoScanner() {
    // Owners call Destroy(); this only covers a scanner whose Create failed.
    Lock lock(m_scannerMutex);
    m_option.FreeCallbackData();
}

bool CMOXAutoScanner::Create(const char* pszScannerName) {
    assert(pszScannerName != NULL);
    m_strName = pszScannerName;
    m_pInitState = std::make_unique<CMOXScannerInitState>(this);
    m_pStopState = std::make_unique<CMOXScannerStopState>(this);
    m_pPauseState = std::make_unique<CMOXScannerPauseState>(this);
    m_pScanState = std::make_unique<CMOXScannerScanState>(this);
    if (!m_pInitState || !m_pStopState || !m_pPauseState || !m_pScanState) {
        MOX_WARN("Cannot create All States...");
        return false;
    }
    {
        Lock lock(m_stateMutex);
        m_pState = m_pInitState.get();
    }
    m_gate.Post();
    m_bAlive = true;
    if (!CMOXThread::Create(pszScannerName)) {
        m_bAlive = false;
        MOX_WARN("Cannot Create Scanner Thread (%s)", pszScannerName);
        return false;
    }
    // The thread runs but may not have reached its loop yet; an option set
    // right away would otherwise wait (and warn) in SetScannerOption.
    for (int i = 0; !m_bRunning && i < kCreateWaitPolls; ++i) g_usleep(kCreateWaitUs);
    return true;
}

void CMOXAutoScanner::Destroy() {
    if (FlagCreate() != 0) {
        m_bAlive = false;
        // Wakes the thread wherever it waits for the gate; it sees the end.
        m_gate.Post();
        CMOXThread::Destroy();
    }
    Lock lock(m_scannerMutex);
    if (m_pDirScanner) m_pDirScanner->Destroy();
    m_pDirScanner.reset();
    m_option.FreeCallbackData();
    m_scanList.Release();
    m_visitedDirs.clear();
}

void CMOXAutoScanner::RequestEnd() {
    m_bAlive = false;
    // Wakes the thread wherever it waits for the gate; it sees the end.
    m_gate.Post();
}

void CMOXAutoScanner::t_Process() {
    MOX_INFO("Thread(%s) t_Process created...", m_strName.c_str());
    {
        Lock lock(m_stateMutex);
        m_pState->Stop();
    }
    {
        Lock lock(m_scannerMutex);
        m_bOverflow = false;
        m_bDelay = false;
    }
    m_bRunning = true;
    MOX_INFO("Thread(%s) t_Process start...", m_strName.c_str());
    while (m_bAlive) {
        m_gate.Wait();
        if (!m_bAlive) {
            m_gate.Post();
            break;
        }
        ApplyPriority();
        int nMode;
        {
            Lock lock(m_scannerMutex);
            nMode = m_option.nScanMode;
        }
        int nResult = MOX_SCAN_FAIL;
        if (nMode == MOX_SCAN_MODE_CHECK) {
            nResult = DoCheckAction();
        } else if (nMode == MOX_SCAN_MODE_NORMAL) {
            nResult = DoNormalAction();
        } else {
            MOX_WARN("NOT Define(%d)...", nMode);
        }
        m_gate.Post();
        // Removed during a step (which may have waited long on a storage):
        // nobody wants the answer any more.
        if (!m_bAlive) continue;
        if (nResult == MOX_SCAN_END) {
            MOX_INFO("End of Scan --->>> Stop");
            if (Stop() != MOX_SCAN_ALREADY_STOPPED) OnCallback();
        } else if (nResult == MOX_SCAN_FAIL || nResult == MOX_SCAN_BAD_ARGUMENT || nResult == MOX_SCAN_NO_DIR) {
            MOX_WARN("End of Scan --->>> Abort");
            if (Stop() != MOX_SCAN_ALREADY_STOPPED) OnCallback();
        }
        bool bDelay, bBatches;
        {
            Lock lock(m_scannerMutex);
            bDelay = m_bDelay;
            m_bDelay = false;
            bBatches = m_option.bBatches;
        }
        // A full list in batches wakes the walk as soon as a run is taken.
        if (bDelay && bBatches)
            m_scanList.WaitForRoom(std::chrono::microseconds(m_nDelayUs.load()));
        else if (bDelay)
            g_usleep(static_cast<gulong>(m_nDelayUs.load()));
    }
    m_bRunning = false;
    MOX_INFO("Thread(%s) t_Process end...", m_strName.c_str());
}

void CMOXAutoScanner::ApplyPriority() {
    int nPriority = m_nPriority.load();
    if (nPriority == m_nAppliedPriority) return;
    m_nAppliedPriority = nPriority;
    // Linux nice values are per thread; a failure (e.g. no right to raise
    // priority) leaves the thread as it is.
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), kNiceOfPriority[nPriority]) != 0)
        MOX_DEBUG("Thread(%s) keeps its priority", m_strName.c_str());
}

int CMOXAutoScanner::Start() {
    int nResult;
    {
        Lock lock(m_stateMutex);
        {
            Lock scanLock(m_scannerMutex);
            m_visitedDirs.clear();
        }
        nResult = m_pState->Start();
    }
    MOX_INFO("Start SCANNER(%s), result(%d)", m_strName.c_str(), nResult);
    m_scanList.PushStartFlag();
    return nResult;
}

int CMOXAutoScanner::Stop() {
    int nResult;
    {
        Lock lock(m_stateMutex);
        nResult = m_pState->Stop();
    }
    m_scanList.PushEndFlag();
    if (nResult != MOX_SCAN_ALREADY_STOPPED) {
        MOX_INFO("Stop SCANNER(%s), result(%d)", m_strName.c_str(), nResult);
        bool bNormal;
        {
            Lock lock(m_scannerMutex);
            bNormal = m_option.nScanMode == MOX_SCAN_MODE_NORMAL;
        }
        if (bNormal)
            MOX_INFO("No more entry...   (DIR/FILE/ALL : %d/%d/%d).", m_scanList.GetTotalDIRs(),
                     m_scanList.GetTotalFILEs(), m_scanList.GetTotalALL());
    }
    return nResult;
}

int CMOXAutoScanner::Pause() {
    Lock lock(m_stateMutex);
    int nResult = m_pState->Pause();
    MOX_INFO("Pause SCANNER(%s), result(%d)", m_strName.c_str(), nResult);
    return nResult;
}

int CMOXAutoScanner::Resume() {
    Lock lock(m_stateMutex);
    int nResult = m_pState->Resume();
    MOX_INFO("Resume SCANNER(%s), result(%d)", m_strName.c_str(), nResult);
    return nResult;
}

int CMOXAutoScanner::Reset() {
    Lock lock(m_stateMutex);
    int nResult = m_pState->Reset();
    MOX_INFO("Reset SCANNER(%s), result(%d)", m_strName.c_str(), nResult);
    return nResult;
}

const char* CMOXAutoScanner::GetStateName() {
    Lock lock(m_stateMutex);
    return m_pState ? m_pState->GetName() : "";
}

int CMOXAutoScanner::SetScannerOption(const SMOXScannerOption& option) {
    for (int i = 0; !m_bRunning && i < kOptionWaitPolls; ++i) {
        MOX_WARN("Thread(%s) is not running. Wait for 3 sec....", m_strName.c_str());
        g_usleep(kOptionWaitUs);
    }
    if (!m_bRunning) {
        MOX_WARN("Thread(%s) is not running. MOX_SCANNER_ERR_TIMEOUT", m_strName.c_str());
        return MOX_SCAN_TIMEOUT;
    }
    Lock lock(m_stateMutex);
    if (m_pState != m_pStopState.get()) {
        MOX_WARN("Invalid State... Please stop SCANNER(%s)!!!", m_strName.c_str());
        return MOX_SCAN_INVALID_STATE;
    }
    {
        Lock scanLock(m_scannerMutex);
        m_option.FreeCallbackData();
        m_option = option;
    }
    m_scanList.SetListSize(option.nListSize);
    m_scanList.Release();
    if (option.nPriority >= 0 && option.nPriority <= 2) m_nPriority = option.nPriority;
    return MOX_SCAN_OK;
}

void CMOXAutoScanner::GetScannerOption(SMOXScannerOption& option) {
    Lock lock(m_scannerMutex);
    option = m_option;
}

std::string CMOXAutoScanner::GetDevicePath() {
    Lock lock(m_scannerMutex);
    return m_option.strDevicePath;
}

std::string CMOXAutoScanner::GetBasePath() {
    Lock lock(m_scannerMutex);
    return m_option.strBasePath;
}

int CMOXAutoScanner::GetFileInfo(SMOXFileInfo& info) {
    int nMode;
    {
        Lock lock(m_scannerMutex);
        nMode = m_option.nScanMode;
        if (nMode == MOX_SCAN_MODE_CHECK) {
            info = m_heldEntry;
            return MOX_SCAN_OK;
        }
    }
    if (nMode != MOX_SCAN_MODE_NORMAL) return MOX_SCAN_LIST_EMPTY;
    int nResult = m_scanList.Pop(info);
    if (nResult != MOX_SCAN_OK) return nResult;
    if (info.nType == MOX_SCANNER_START_FLAG) {
        MOX_INFO("SCMFileInfo::MOX_SCANNER_START_FLAG Found");
        return MOX_SCAN_LIST_EMPTY;
    }
    if (info.nType == MOX_SCANNER_END_FLAG) {
        MOX_INFO("SCMFileInfo::MOX_SCANNER_END_FLAG Found");
        MOX_INFO("No more entry...");
        return MOX_SCAN_END;
    }
    return MOX_SCAN_OK;
}

int CMOXAutoScanner::TakeBatch(SMOXScanBatch& batch, std::chrono::milliseconds wait) {
    return m_scanList.PopBatch(batch, wait);
}

int CMOXAutoScanner::GetFileInfoList(int nCount, std::vector<SMOXFileInfo>& out) {
    size_t nBefore = out.size();
    int nResult = m_scanList.PopList(nCount, out);
    if (nResult != MOX_SCAN_OK) return nResult;
    if (out.size() - nBefore == 1) {
        if (out.back().nType == MOX_SCANNER_START_FLAG) {
            MOX_INFO("SCMFileInfo::MOX_SCANNER_START_FLAG Found");
            return MOX_SCAN_LIST_EMPTY;
        }
        if (out.back().nType == MOX_SCANNER_END_FLAG) {
            MOX_INFO("SCMFileInfo::MOX_SCANNER_END_FLAG Found");
            MOX_INFO("No more entry...");
            return MOX_SCAN_END;
        }
    }
    return MOX_SCAN_OK;
}

void CMOXAutoScanner::SetPriority(int nPriority) {
    if (nPriority < 0 || nPriority > 2) {
        MOX_INFO("ERROR - Invalid Thread Priority : %d", nPriority);
        return;
    }
    {
        Lock lock(m_scannerMutex);
        m_option.nPriority = nPriority;
    }
    m_nPriority = nPriority;
    MOX_INFO("Set Thread(%s) Priority : %d", m_strName.c_str(), nPriority);
}

void CMOXAutoScanner::SetDelayTime(int nMs) {
    m_nDelayUs = (nMs >= 10 && nMs <= 1000) ? nMs * 1000 : 10000;
}

bool CMOXAutoScanner::IsVisitedDIR(const std::string& path) {
    Lock lock(m_scannerMutex);
    if (std::find(m_visitedDirs.begin(), m_visitedDirs.end(), path) == m_visitedDirs.end()) return false;
    MOX_INFO("Find Visited DIR : %s", path.c_str());
    return true;
}

void CMOXAutoScanner::OnCallback() {
    MOXScannerEndCB pfnCallback;
    void* pData;
    int nResult;
    {
        Lock lock(m_scannerMutex);
        pfnCallback = m_option.pfnEndCallback;
        pData = m_option.pCallbackData;
        nResult = m_option.nResult;
    }
    if (pfnCallback == nullptr) {
        MOX_INFO("SCANNER(%s): didn't set callback.", m_strName.c_str());
        return;
    }
    MOX_INFO("SCANNER(%s): callback begin.", m_strName.c_str());
    // The data stays owned by the option; only SetScannerOption (STOP state,
    // not reachable while this thread runs the callback) or Destroy (after
    // this thread ended) frees it.
    pfnCallback(pData, nResult);
    MOX_INFO("SCANNER(%s): callback end.", m_strName.c_str());
}

int CMOXAutoScanner::DoCheckAction() {
    Lock lock(m_scannerMutex);
    if (!m_pDirScanner) {
        MOX_INFO("No ... Scanner.");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    // Entries in runs: the gate and this lock are taken once per run, not
    // per entry, and one record serves the run (its strings keep their
    // buffers). Stop and Pause wait at most one run.
    SMOXFileInfo info;
    int nResult = MOX_SCAN_SKIPPED;
    for (int n = 0; n < kCheckRun && (nResult == MOX_SCAN_OK || nResult == MOX_SCAN_SKIPPED); ++n) {
        PresetEntry(info);
        nResult = m_pDirScanner->ReadFileInfo(info);
        if (nResult == MOX_SCAN_OK) {
            if (info.nType == MOX_SCANNER_TYPE_FILE) {
                ++m_nMediaCount;
                m_heldEntry = info;
            }
            MOX_SCAN_DEBUG("%s : %s/%s", info.TypeName(), info.strBasePath.c_str(), info.strName.c_str());
        } else if (nResult == MOX_SCAN_SKIPPED) {
        } else if (nResult == MOX_SCAN_END) {
            if (m_pDirScanner->HadReadError()) {
                // "No media" or "one media" would be a wrong answer about a
                // storage that could not be read to the end.
                MOX_WARN("Device(%s) could not be read completely: check failed.", m_option.strDevicePath.c_str());
                m_option.nResult = MOX_SCANNER_RESULT_NONE;
            } else if (m_nMediaCount == 1) {
                MOX_INFO("Device(%s) has one media(%s/%s).", m_option.strDevicePath.c_str(),
                         m_heldEntry.strBasePath.c_str(), m_heldEntry.strName.c_str());
                m_option.nResult = MOX_SCANNER_RESULT_ONE_MEDIA;
            } else if (m_nMediaCount == 0) {
                MOX_INFO("Device(%s) has no media.", m_option.strDevicePath.c_str());
                m_option.nResult = MOX_SCANNER_RESULT_NO_MEDIA;
            }
        } else {
            MOX_WARN("NOT handle(%d)...", nResult);
        }
        if (m_nMediaCount > 1) {
            MOX_INFO("Device(%s) has multi-media, break out.", m_option.strDevicePath.c_str());
            m_option.nResult = MOX_SCANNER_RESULT_MULTI_MEDIA;
            return MOX_SCAN_END;
        }
    }
    return nResult;
}

int CMOXAutoScanner::DoNormalAction() {
    Lock lock(m_scannerMutex);
    if (m_option.bBatches) return DoBatchAction();
    if (m_bOverflow) {
        if (m_scanList.Push(m_heldEntry) == MOX_SCAN_OK) {
            m_bOverflow = false;
            MOX_SCAN_DEBUG("%s : %s/%s", m_heldEntry.TypeName(), m_heldEntry.strBasePath.c_str(),
                           m_heldEntry.strName.c_str());
        } else {
            MOX_SCAN_DEBUG("OverFlow...");  // per step while the list is full
        }
    }
    if (m_bOverflow) {
        MOX_SCAN_DEBUG("No ... ScanState : %s", "SCAN");
        m_bDelay = true;
        return MOX_SCAN_BUSY;
    }
    if (!m_pDirScanner) {
        m_bDelay = true;
        return MOX_SCAN_BUSY;
    }
    SMOXFileInfo info;
    int nResult = m_pDirScanner->ReadFileInfo(info);
    if (nResult == MOX_SCAN_OK || nResult == MOX_SCAN_SKIPPED) {
        if (IsBasePathChanged(info.strBasePath)) m_scanList.PushPreviousPath(info);
        if (nResult == MOX_SCAN_OK) {
            if (m_scanList.Push(info) == MOX_SCAN_LIST_FULL) {
                m_bOverflow = true;
                m_heldEntry = info;
            } else {
                MOX_SCAN_DEBUG("%s : %s/%s", info.TypeName(), info.strBasePath.c_str(), info.strName.c_str());
            }
        }
    } else if (nResult != MOX_SCAN_END) {
        MOX_WARN("NOT handle(%d)...", nResult);
    }
    return nResult;
}

int CMOXAutoScanner::DoBatchAction() {
    if (m_bOverflow) {
        if (m_scanList.PushBatch(m_fill, false) != MOX_SCAN_OK) {
            m_bDelay = true;
            return MOX_SCAN_BUSY;
        }
        m_bOverflow = false;
    }
    if (!m_pDirScanner) {
        m_bDelay = true;
        return MOX_SCAN_BUSY;
    }
    int nResult = MOX_SCAN_SKIPPED;
    for (int n = 0; n < kBatchRun && (nResult == MOX_SCAN_OK || nResult == MOX_SCAN_SKIPPED); ++n) {
        PresetEntry(m_walkEntry);
        nResult = m_pDirScanner->ReadFileInfo(m_walkEntry);
        if (nResult == MOX_SCAN_OK) m_fill.Add(m_walkEntry);
    }
    // The walk's last run is queued whatever the bound: the end follows it.
    const bool bLast = nResult == MOX_SCAN_END || nResult == MOX_SCAN_FAIL || nResult == MOX_SCAN_BAD_ARGUMENT ||
                       nResult == MOX_SCAN_NO_DIR;
    if (nResult != MOX_SCAN_OK && nResult != MOX_SCAN_SKIPPED && nResult != MOX_SCAN_END)
        MOX_WARN("NOT handle(%d)...", nResult);
    if (!m_fill.entries.empty() && m_scanList.PushBatch(m_fill, bLast) != MOX_SCAN_OK) {
        m_bOverflow = true;
        m_bDelay = true;
    }
    return nResult;
}

void CMOXAutoScanner::SetState(IMOXScannerState* pState) {
    // The states run inside the public operations, which hold m_stateMutex;
    // the analysis cannot follow the virtual call through m_pState.
    m_stateMutex.AssertHeld();
    m_pState = pState;
}

bool CMOXAutoScanner::IsBasePathChanged(const std::string& path) {
    if (path.empty() || path == m_strFirstPath || path == m_strPreviousPath) return false;
    MOX_SCAN_DEBUG("Previous Path : %s,  Current Path : %s", m_strPreviousPath.c_str(), path.c_str());
    m_visitedDirs.push_back(path);
    m_strPreviousPath = path;
    return true;
}

bool CMOXAutoScanner::CreateNewScanner() {
    Lock lock(m_scannerMutex);
    if (!m_pDirScanner) {
        m_bOverflow = false;
        m_fill.Clear();
        m_scanList.Release();
        m_nMediaCount = 0;
        m_heldEntry = SMOXFileInfo();
        m_option.nResult = MOX_SCANNER_RESULT_NONE;
        m_pDirScanner = std::make_unique<CMOXUsbScanner>();
        if (m_option.nRecursive == 2) m_option.strDevicePath = m_option.strBasePath;
        if (m_pDirScanner->Create(m_option) != MOX_SCAN_OK) {
            MOX_INFO("CreateNewScanner() failed...");
            return false;
        }
        m_strFirstPath = m_option.strBasePath;
        m_strPreviousPath = m_option.strBasePath;
        m_visitedDirs.push_back(m_option.strBasePath);
    }
    MOX_INFO("Set Thread Priority : %d", m_nPriority.load());
    return true;
}

void CMOXAutoScanner::ReleaseDirScanner() {
    Lock lock(m_scannerMutex);
    if (m_pDirScanner) m_pDirScanner->Destroy();
    m_pDirScanner.reset();
}

void CMOXAutoScanner::Initialize() {
    {
        Lock lock(m_scannerMutex);
        m_bOverflow = false;
        m_fill.Clear();
    }
    m_scanList.Release();
}
