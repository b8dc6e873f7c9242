#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_log.h>

#include "mox_thumbnail_scanner.h"

#include <glib.h>

#include <algorithm>
#include <cstring>

#include "mox_scan_log.h"

using Lock = mox::MutexLock;

CMOXThumbnailScanner::CMOXThumbnailScanner() = default;

CMOXThumbnailScanner::~CMOXThumbnailScanner() {
    Lock lock(m_mutex);
    for (SMOXScannerOption& option : m_queue) option.FreeCallbackData();
    m_queue.clear();
    m_current.FreeCallbackData();
}

bool CMOXThumbnailScanner::Create() {
    MOX_INFO("thumbnail scanner create");
    m_bThreadRun = true;
    if (!CMOXThread::Create("folder_thumbnail_scan")) {
        m_bThreadRun = false;
        MOX_INFO("Cannot Create Scanner Thread ");
        return false;
    }
    return true;
}

void CMOXThumbnailScanner::RequestEnd() {
    {
        Lock lock(m_mutex);
        m_bThreadRun = false;
        m_bCancel = true;
    }
    m_cond.notify_all();
}

void CMOXThumbnailScanner::Destroy() {
    RequestEnd();
    CMOXThread::Destroy();
    Lock lock(m_mutex);
    for (SMOXScannerOption& option : m_queue) option.FreeCallbackData();
    m_queue.clear();
}

int CMOXThumbnailScanner::AddScanner(const SMOXScannerOption& option) {
    SMOXScannerOption request = option;
    {
        Lock lock(m_mutex);
        if (!m_bThreadRun) {
            MOX_WARN("thumbnail scanner not running, request refused");
        } else if (m_queue.size() >= kMaxQueuedRequests) {
            MOX_WARN("thumbnail queue full (%zu requests)", m_queue.size());
        } else if (!request.strOwner.empty() &&
                   m_CountOwnedLocked(request.strShare.empty() ? request.strOwner : request.strShare) >=
                       kMaxRequestsPerClient) {
            MOX_WARN("client %s already has %zu thumbnail requests, refused", request.strOwner.c_str(),
                     kMaxRequestsPerClient);
        } else {
            m_queue.push_back(request);
            m_cond.notify_one();
            return MOX_SCAN_OK;
        }
    }
    request.FreeCallbackData();
    return MOX_SCAN_FAIL;
}

void CMOXThumbnailScanner::RemoveScannerByDevice(const char* device) {
    if (device == nullptr) return;
    MOX_INFO("device remove :%s", device);
    Lock lock(m_mutex);
    for (auto it = m_queue.begin(); it != m_queue.end();) {
        if (it->strBasePath == device) {
            it->FreeCallbackData();
            it = m_queue.erase(it);
        } else {
            ++it;
        }
    }
    // The thread may be stuck reading the storage that went: it drops the
    // request when (if) the read returns.
    if (m_bBusy && m_current.strBasePath == device) m_CancelCurrentLocked();
}

size_t CMOXThumbnailScanner::m_CountOwnedLocked(const std::string& share) const {
    auto shareOf = [](const SMOXScannerOption& o) -> const std::string& {
        return o.strShare.empty() ? o.strOwner : o.strShare;
    };
    size_t n = m_bBusy && shareOf(m_current) == share ? 1 : 0;
    for (const SMOXScannerOption& o : m_queue)
        if (shareOf(o) == share) ++n;
    return n;
}

size_t CMOXThumbnailScanner::RemoveScanner(const char* device, const char* path, unsigned int limit, int value,
                                           const std::string* pOwner) {
    if (device == nullptr || path == nullptr) return 0;
    auto matches = [&](const SMOXScannerOption& o) {
        return o.strDevicePath == device && o.strFourthPath == path &&
               static_cast<unsigned int>(o.nFileLimit) == limit && o.nRequestTag == value;
    };
    auto mine = [&](const SMOXScannerOption& o) { return pOwner == nullptr || o.strOwner == *pOwner; };
    size_t nOthers = 0;
    Lock lock(m_mutex);
    for (auto it = m_queue.begin(); it != m_queue.end();) {
        if (matches(*it) && mine(*it)) {
            it->FreeCallbackData();
            it = m_queue.erase(it);
        } else {
            if (matches(*it)) ++nOthers;
            ++it;
        }
    }
    if (m_bBusy && matches(m_current)) {
        if (mine(m_current))
            m_CancelCurrentLocked();
        else
            ++nOthers;
    }
    return nOthers;
}

size_t CMOXThumbnailScanner::RemoveScannersOfOwner(const std::string& owner) {
    if (owner.empty()) return 0;
    size_t nDropped = 0;
    Lock lock(m_mutex);
    for (auto it = m_queue.begin(); it != m_queue.end();) {
        if (it->strOwner == owner) {
            it->FreeCallbackData();
            it = m_queue.erase(it);
            ++nDropped;
        } else {
            ++it;
        }
    }
    if (m_bBusy && m_current.strOwner == owner) {
        m_CancelCurrentLocked();
        ++nDropped;
    }
    return nDropped;
}

void CMOXThumbnailScanner::m_CancelCurrentLocked() {
    if (!m_bCancel.exchange(true)) m_cancelledAt = std::chrono::steady_clock::now();
}

bool CMOXThumbnailScanner::IsStuck(std::chrono::milliseconds after, std::chrono::milliseconds waited) {
    Lock lock(m_mutex);
    if (!m_bBusy) return false;
    const auto now = std::chrono::steady_clock::now();
    return (m_bCancel && now - m_cancelledAt >= after) || (!m_queue.empty() && now - m_busySince >= waited);
}

std::deque<SMOXScannerOption> CMOXThumbnailScanner::TakeQueue() {
    Lock lock(m_mutex);
    std::deque<SMOXScannerOption> queue;
    queue.swap(m_queue);
    return queue;
}

void CMOXThumbnailScanner::AdoptQueue(std::deque<SMOXScannerOption> queue) {
    {
        Lock lock(m_mutex);
        for (SMOXScannerOption& option : queue) m_queue.push_back(std::move(option));
    }
    m_cond.notify_all();
}

int CMOXThumbnailScanner::GetFileInfoList(std::vector<SMOXFileInfo>& out) {
    Lock lock(m_mutex);
    if (!m_bBusy) return MOX_SCAN_FAIL;
    out.insert(out.end(), m_files.begin(), m_files.end());
    return MOX_SCAN_OK;
}

int CMOXThumbnailScanner::GetScannerOption(SMOXScannerOption& option) {
    Lock lock(m_mutex);
    if (!m_bBusy) return MOX_SCAN_FAIL;
    option = m_current;
    return MOX_SCAN_OK;
}

bool CMOXThumbnailScanner::m_PopScanner() {
    mox::UniqueLock lock(m_mutex);
    while (m_bThreadRun && m_queue.empty()) lock.Wait(m_cond);
    if (!m_bThreadRun) return false;
    m_current = std::move(m_queue.front());
    m_queue.pop_front();
    m_files.clear();
    m_bBusy = true;
    m_busySince = std::chrono::steady_clock::now();
    m_bCancel = false;
    return true;
}

void CMOXThumbnailScanner::m_FinishCurrent() {
    if (m_pDirScanner) m_pDirScanner->Destroy();
    m_pDirScanner.reset();
    Lock lock(m_mutex);
    m_current.FreeCallbackData();
    m_files.clear();
    m_files.shrink_to_fit();
    m_bBusy = false;
}

void CMOXThumbnailScanner::t_Process() {
    MOX_INFO("Thread(floder_thumbnail_scan) t_Process created...");
    MOX_INFO("Thread(floder_thumbnail_scan) t_Process start...");
    while (m_bThreadRun) {
        if (!m_PopScanner()) break;
        SMOXScannerOption option;
        {
            Lock lock(m_mutex);
            option = m_current;
        }
        m_nLimit = std::min(option.nFileLimit, kMaxFilesPerRequest);
        m_pDirScanner = std::make_unique<CMOXUsbScanner>();
        m_nFileCount = 0;
        m_nDirCount = 0;
        if (m_pDirScanner->Create(option) != MOX_SCAN_OK) {
            // A folder that cannot be opened is a failure, not an empty folder.
            MOX_WARN("folder(%s) cannot be read: thumbnail scan failed.", option.strDevicePath.c_str());
            OnCallback();
            m_FinishCurrent();
            continue;
        }
        while (m_bThreadRun && !m_bCancel) {
            int nResult = m_DoFolderThumbnailAction();
            // Withdrawn while the entry was read: no answer.
            if (m_bCancel) break;
            if (nResult == MOX_SCAN_END) {
                MOX_INFO("End of Scan --->>> Stop");
                OnCallback();
                break;
            }
            if (nResult == MOX_SCAN_FAIL || nResult == MOX_SCAN_BAD_ARGUMENT || nResult == MOX_SCAN_NO_DIR) {
                MOX_WARN("End of Scan --->>> Abort");
                OnCallback();
                break;
            }
            if (m_nDelayUs > 0) g_usleep(static_cast<gulong>(m_nDelayUs));
        }
        m_FinishCurrent();
    }
    MOX_INFO("Thread(floder_thumbnail_scan) t_Process end...");
}

int CMOXThumbnailScanner::m_DoFolderThumbnailAction() {
    if (!m_pDirScanner) {
        MOX_INFO("No ... Scanner.");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    SMOXFileInfo info;
    int nResult = m_pDirScanner->ReadFileInfo(info);
    mox::UniqueLock lock(m_mutex);
    const char* folder = m_current.strDevicePath.c_str();
    if (nResult == MOX_SCAN_OK) {
        if (info.nType == MOX_SCANNER_TYPE_FILE) {
            ++m_nFileCount;
            MOX_SCAN_DEBUG(" Path:%s, Name:%s ", info.strBasePath.c_str(), info.strName.c_str());
            m_files.push_back(std::move(info));
        } else if (info.nType == MOX_SCANNER_TYPE_DIR) {
            ++m_nDirCount;
        }
    } else if (nResult == MOX_SCAN_END) {
        if (m_pDirScanner->HadReadError()) {
            MOX_WARN("folder(%s) could not be read completely: thumbnail scan failed.", folder);
            m_current.nResult = MOX_SCANNER_RESULT_NONE;
        } else if (m_nFileCount > 0 && m_nFileCount < m_nLimit) {
            MOX_INFO("folder(%s) has %d files.", folder, m_nFileCount);
            m_current.nResult = MOX_SCANNER_RESULT_FOLDER_FILES;
        } else if (m_nFileCount == 0) {
            MOX_INFO("folder(%s) has %d files %d dirs.", folder, m_nFileCount, m_nDirCount);
            m_current.nResult = m_nDirCount > 0 ? MOX_SCANNER_RESULT_FOLDER_DIRS : MOX_SCANNER_RESULT_FOLDER_EMPTY;
        }
    } else if (nResult != MOX_SCAN_SKIPPED) {
        MOX_WARN("NOT handle(%d)...", nResult);
    }
    if (m_nFileCount >= m_nLimit && m_nLimit > 0) {
        MOX_INFO("path(%s) has %d files, break out.", folder, m_nFileCount);
        m_current.nResult = MOX_SCANNER_RESULT_FOLDER_FILES;
        return MOX_SCAN_END;
    }
    return nResult;
}

void CMOXThumbnailScanner::OnCallback() {
    MOXScannerEndCB pfnCallback;
    void* pData;
    int nResult;
    {
        Lock lock(m_mutex);
        pfnCallback = m_current.pfnEndCallback;
        pData = m_current.pCallbackData;
        nResult = m_current.nResult;
    }
    if (pfnCallback == nullptr) {
        MOX_INFO("SCANNER(): didn't set callback.");
        return;
    }
    MOX_INFO("SCANNER(): callback begin.");
    pfnCallback(pData, nResult);
    MOX_INFO("SCANNER(): callback end.");
}
