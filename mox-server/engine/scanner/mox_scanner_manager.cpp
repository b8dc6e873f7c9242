#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_events.h>
#include <mox/mox_log.h>

#include "mox_scanner_manager.h"

#include <cstdio>
#include <exception>

using Lock = mox::MutexLock;

namespace {

bool IsSameOrBelow(const std::string& path, const std::string& top) {
    if (path.compare(0, top.size(), top) != 0) return false;
    return path.size() == top.size() || (!top.empty() && (top.back() == '/' || path[top.size()] == '/'));
}

}  // namespace

CMOXScanManager::CMOXScanManager() : m_reaper(&CMOXScanManager::m_ReaperBody, this) {}

CMOXScanManager::~CMOXScanManager() {
    std::vector<std::shared_ptr<SMOXScannerInfo>> all;
    {
        Lock lock(m_mutex);
        all.swap(m_scanners);
    }
    for (const auto& info : all) m_Retire(info);
    std::deque<std::shared_ptr<SMOXScannerInfo>> left;
    {
        Lock lock(m_reapMutex);
        m_bReaperStop = true;
    }
    m_reapCond.notify_all();
    if (m_reaper.joinable()) m_reaper.join();
    {
        Lock lock(m_reapMutex);
        left.swap(m_reapQueue);
    }
    // Whoever destroys the manager has seen Shutdown() succeed (the daemon)
    // or runs no scan on a hung storage (tests): waiting here is bounded.
    for (const auto& info : left) {
        Lock recordLock(info->mutex);
        info->pScanner->Destroy();
    }
    m_pThumbnailScanner = nullptr;
    Lock lock(m_thumbMutex);
    if (m_pThumbnailOwner) m_pThumbnailOwner->Destroy();
    m_pThumbnailOwner.reset();
    for (const auto& pRetired : m_retiredThumbs) pRetired->Destroy();
    m_retiredThumbs.clear();
}

int CMOXScanManager::CreateScanner(int& id, const std::string& owner, const std::string& shareIn) {
    const std::string& share = shareIn.empty() ? owner : shareIn;
    Lock lock(m_mutex);
    if (m_scanners.size() >= kMaxScanners) {
        MOX_WARN("too many scanners (%zu)", m_scanners.size());
        return -1;
    }
    if (!owner.empty()) {
        size_t nOwned = 0;
        for (const auto& info : m_scanners)
            if (info->strShare == share) ++nOwned;
        if (nOwned >= kMaxScannersPerClient) {
            MOX_WARN("client %s already holds %zu scanners, refused", owner.c_str(), nOwned);
            return -1;
        }
    }
    std::string szName = "MOX_SCANNER_" + std::to_string(m_nLastID + 1);
    std::unique_ptr<CMOXAutoScanner> pScanner(new CMOXAutoScanner());
    if (!pScanner->Create(szName.c_str())) {
        pScanner->Destroy();
        MOX_WARN("ERROR");
        return -1;
    }
    ++m_nLastID;
    auto info = std::make_shared<SMOXScannerInfo>();
    info->pScanner = std::move(pScanner);  // before listing: never changed after
    info->strName = szName;
    info->strOwner = owner;
    info->strShare = share;
    info->nScannerID = m_nLastID;
    m_scanners.push_back(info);
    id = m_nLastID;
    return 0;
}

int CMOXScanManager::GetScanner(const char* path, int& id) {
    if (path != nullptr) {
        Lock lock(m_mutex);
        for (const auto& info : m_scanners) {
            Lock pathLock(info->pathMutex);
            if (info->strDevicePath == path) {
                id = info->nScannerID;
                return 0;
            }
        }
    }
    MOX_WARN("No matching SCANNER...");
    return MOX_SCAN_RETRY;
}

bool CMOXScanManager::GetScannerOwner(int id, std::string& owner) {
    std::shared_ptr<SMOXScannerInfo> info = m_FindScanner(id);
    if (!info) return false;
    owner = info->strOwner;  // never changes once listed
    return true;
}

std::shared_ptr<SMOXScannerInfo> CMOXScanManager::m_FindScanner(int id) {
    Lock lock(m_mutex);
    for (const auto& info : m_scanners)
        if (info->nScannerID == id) return info;
    return nullptr;
}

template <typename Call>
int CMOXScanManager::m_Forward(int id, Call call) {
    std::shared_ptr<SMOXScannerInfo> info = m_FindScanner(id);
    if (!info) return MOX_SCAN_RETRY;
    Lock lock(info->mutex);
    // Removed between the search and now.
    if (info->bRetired) return MOX_SCAN_RETRY;
    return call(*info->pScanner);
}

int CMOXScanManager::ResetScanner(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.Reset(); });
}

int CMOXScanManager::SetScannerOption(int id, const SMOXScannerOption& option) {
    if (!m_IsValidScannerOption(option)) return MOX_SCAN_BAD_ARGUMENT;
    std::shared_ptr<SMOXScannerInfo> info = m_FindScanner(id);
    int nResult = m_Forward(id, [&](CMOXAutoScanner& s) { return s.SetScannerOption(option); });
    if (nResult == MOX_SCAN_OK && info) {
        Lock pathLock(info->pathMutex);
        // As the walk will see them (a folder scan walks from its base).
        info->strBasePath = option.strBasePath;
        info->strDevicePath = option.nRecursive == 2 ? option.strBasePath : option.strDevicePath;
    }
    return nResult;
}

int CMOXScanManager::GetScannerOption(int id, SMOXScannerOption& option) {
    return m_Forward(id, [&](CMOXAutoScanner& s) {
        s.GetScannerOption(option);
        return 0;
    });
}

int CMOXScanManager::StartScanner(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.Start(); });
}

int CMOXScanManager::StopScanner(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.Stop(); });
}

int CMOXScanManager::PauseScanner(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.Pause(); });
}

int CMOXScanManager::ResumeScanner(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.Resume(); });
}

int CMOXScanManager::GetNextFileInfo(int id, SMOXFileInfo& info) {
    return m_Forward(id, [&](CMOXAutoScanner& s) { return s.GetFileInfo(info); });
}

int CMOXScanManager::GetNextFileInfoList(int id, int nCount, std::vector<SMOXFileInfo>& out) {
    return m_Forward(id, [&](CMOXAutoScanner& s) { return s.GetFileInfoList(nCount, out); });
}

int CMOXScanManager::GetNumberOfDIRs(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.GetNumberOfDIRs(); });
}

int CMOXScanManager::GetNumberOfFiles(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.GetNumberOfFiles(); });
}

int CMOXScanManager::GetNumberOfALL(int id) {
    return m_Forward(id, [](CMOXAutoScanner& s) { return s.GetNumberOfALL(); });
}

int CMOXScanManager::SetPriority(int id, int nPriority) {
    return m_Forward(id, [&](CMOXAutoScanner& s) {
        s.SetPriority(nPriority);
        return 0;
    });
}

int CMOXScanManager::IsVisitedDIR(int id, const std::string& path) {
    return m_Forward(id, [&](CMOXAutoScanner& s) { return s.IsVisitedDIR(path) ? 1 : 0; });
}

int CMOXScanManager::ConvertScannerResult(EMOXScannerResult nResult) {
    switch (nResult) {
        case MOX_SCANNER_RESULT_NO_MEDIA: return MOX_SCAN_NO_MEDIA;
        case MOX_SCANNER_RESULT_ONE_MEDIA: return MOX_SCAN_ONE_MEDIA;
        case MOX_SCANNER_RESULT_MULTI_MEDIA: return MOX_SCAN_MULTI_MEDIA;
        case MOX_SCANNER_RESULT_FOLDER_FILES: return MOX_SCAN_FOLDER_FILES;
        case MOX_SCANNER_RESULT_FOLDER_DIRS: return MOX_SCAN_FOLDER_DIRS;
        case MOX_SCANNER_RESULT_FOLDER_EMPTY: return MOX_SCAN_FOLDER_EMPTY;
        default: return MOX_SCAN_FAILED;
    }
}

void CMOXScanManager::m_Retire(const std::shared_ptr<SMOXScannerInfo>& info) {
    if (info->bRetired.exchange(true)) return;
    info->pScanner->RequestEnd();
    {
        Lock lock(m_reapMutex);
        m_reapQueue.push_back(info);
    }
    m_reapCond.notify_all();
}

bool CMOXScanManager::m_TryDestroy(SMOXScannerInfo& info) {
    if (!info.pScanner->BodyReturned()) return false;
    // A call that reached the record before it was retired may still run
    // (e.g. a start opening a folder on a hung storage): try again later.
    if (!info.mutex.TryLock()) return false;
    try {
        info.pScanner->Destroy();
    } catch (const std::exception& e) {
        MOX_WARN("Exception Handled by[%s]: [%s] \n", "m_ReaperBody", e.what());
    }
    info.mutex.Unlock();
    return true;
}

void CMOXScanManager::m_ReaperBody() {
    // How often scanners that have not ended yet are looked at again.
    constexpr std::chrono::milliseconds kRecheck{50};
    // How often a thumbnail queue waiting behind a long request is looked at.
    constexpr std::chrono::seconds kThumbCheck{1};
    mox::UniqueLock lock(m_reapMutex);
    while (!m_bReaperStop) {
        if (m_reapQueue.empty()) {
            lock.WaitFor(m_reapCond, kThumbCheck);
            if (m_bReaperStop) break;
            lock.Unlock();
            {
                // Not under m_reapMutex: the two locks are never nested.
                Lock thumbLock(m_thumbMutex);
                if (!m_bThumbsClosed) m_ReplaceStuckThumbnailScanner();
            }
            lock.Lock();
            continue;
        }
        std::deque<std::shared_ptr<SMOXScannerInfo>> pending;
        pending.swap(m_reapQueue);
        m_nReaping += pending.size();
        lock.Unlock();
        std::deque<std::shared_ptr<SMOXScannerInfo>> left;
        for (auto& info : pending)
            if (!m_TryDestroy(*info)) left.push_back(std::move(info));
        const size_t nPending = pending.size();
        pending.clear();  // the destroyed ones are freed here, outside the lock
        lock.Lock();
        m_nReaping -= nPending;
        for (auto& info : left) m_reapQueue.push_back(std::move(info));
        m_reapCond.notify_all();
        if (!m_reapQueue.empty() && !m_bReaperStop) lock.WaitFor(m_reapCond, kRecheck);
    }
}

void CMOXScanManager::WaitForRemovals() {
    mox::UniqueLock lock(m_reapMutex);
    while (!m_reapQueue.empty() || m_nReaping != 0) lock.Wait(m_reapCond);
}

void CMOXScanManager::BeginShutdown() {
    std::vector<std::shared_ptr<SMOXScannerInfo>> all;
    {
        Lock lock(m_mutex);
        all.swap(m_scanners);
    }
    for (const auto& info : all) m_Retire(info);
    // No thumbnail request or replacement from now on.
    std::vector<CMOXThumbnailScanner*> thumbs;
    {
        Lock lock(m_thumbMutex);
        m_bThumbsClosed = true;
        if (m_pThumbnailOwner) thumbs.push_back(m_pThumbnailOwner.get());
        for (const auto& pRetired : m_retiredThumbs) thumbs.push_back(pRetired.get());
    }
    for (CMOXThumbnailScanner* pThumb : thumbs) pThumb->RequestEnd();
}

bool CMOXScanManager::Shutdown(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    BeginShutdown();
    // Closed above: the thumbnail scanners listed here stay until the
    // manager goes.
    std::vector<CMOXThumbnailScanner*> thumbs;
    {
        Lock lock(m_thumbMutex);
        if (m_pThumbnailOwner) thumbs.push_back(m_pThumbnailOwner.get());
        for (const auto& pRetired : m_retiredThumbs) thumbs.push_back(pRetired.get());
    }
    auto thumbsStuck = [&thumbs] {
        size_t n = 0;
        for (CMOXThumbnailScanner* pThumb : thumbs) n += pThumb->BodyReturned() ? 0 : 1;
        return n;
    };
    mox::UniqueLock lock(m_reapMutex);
    // The reaper notifies at least every 50 ms while something is queued;
    // thumbnail threads are looked at as often.
    while (!m_reapQueue.empty() || m_nReaping != 0 || thumbsStuck() != 0) {
        if (std::chrono::steady_clock::now() >= deadline) break;
        lock.WaitFor(m_reapCond, std::chrono::milliseconds(50));
    }
    const size_t nStuck = m_reapQueue.size() + m_nReaping;
    const size_t nThumbsStuck = thumbsStuck();
    if (nStuck == 0 && nThumbsStuck == 0) return true;
    MOX_WARN("%zu scanner(s) and %zu thumbnail scan(s) stuck in a system call at shutdown: left running, never freed",
             nStuck, nThumbsStuck);
    return false;
}

void CMOXScanManager::RemoveScanner(int id) {
    std::shared_ptr<SMOXScannerInfo> removed;
    {
        Lock lock(m_mutex);
        for (auto it = m_scanners.begin(); it != m_scanners.end(); ++it) {
            if ((*it)->nScannerID == id) {
                removed = *it;
                m_scanners.erase(it);
                break;
            }
        }
    }
    if (removed) m_Retire(removed);
}

void CMOXScanManager::RemoveScanner(const char* path) {
    if (path == nullptr) return;
    std::vector<std::shared_ptr<SMOXScannerInfo>> removed;
    {
        Lock lock(m_mutex);
        for (auto it = m_scanners.begin(); it != m_scanners.end();) {
            bool bMatch;
            {
                Lock pathLock((*it)->pathMutex);
                // Scanners of folders below the storage go with it too.
                bMatch = IsSameOrBelow((*it)->strBasePath, path);
            }
            if (bMatch) {
                removed.push_back(*it);
                it = m_scanners.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const auto& info : removed) m_Retire(info);
}

void CMOXScanManager::RemoveScannersOfOwner(const std::string& owner) {
    if (owner.empty()) return;
    std::vector<std::shared_ptr<SMOXScannerInfo>> removed;
    {
        Lock lock(m_mutex);
        for (auto it = m_scanners.begin(); it != m_scanners.end();) {
            if ((*it)->strOwner == owner) {
                removed.push_back(*it);
                it = m_scanners.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const auto& info : removed) m_Retire(info);
    size_t nThumbs = 0;
    {
        Lock lock(m_thumbMutex);
        if (m_pThumbnailOwner) nThumbs = m_pThumbnailOwner->RemoveScannersOfOwner(owner);
    }
    if (!removed.empty() || nThumbs != 0)
        MOX_INFO("client %s left: %zu scanners and %zu thumbnail requests removed", owner.c_str(), removed.size(),
                 nThumbs);
}

void CMOXScanManager::PrintAllScanner() {
    Lock lock(m_mutex);
    for (const auto& info : m_scanners)
        MOX_INFO("ScannerID : %d    Scanner Name : %s    Scanner End : %d", info->nScannerID, info->strName.c_str(),
                 info->bScannerEnd.load() ? 1 : 0);
}

size_t CMOXScanManager::GetScannerCount() {
    Lock lock(m_mutex);
    return m_scanners.size();
}

void CMOXScanManager::m_ReplaceStuckThumbnailScanner() {
    // Retired ones whose thread has come back are freed now.
    for (auto it = m_retiredThumbs.begin(); it != m_retiredThumbs.end();) {
        if ((*it)->BodyReturned()) {
            (*it)->Destroy();
            it = m_retiredThumbs.erase(it);
        } else {
            ++it;
        }
    }
    if (!m_pThumbnailOwner || !m_pThumbnailOwner->IsStuck(kThumbnailStuckAfter, kThumbnailQueueWait)) return;
    if (m_retiredThumbs.size() >= kMaxStuckThumbnailThreads) {
        MOX_DEBUG("thumbnail scan stuck, %zu stuck already: the queue waits", m_retiredThumbs.size());
        return;
    }
    std::unique_ptr<CMOXThumbnailScanner> pNew(new CMOXThumbnailScanner());
    if (!pNew->Create()) return;
    // Readers (the new thread's callbacks) see the new scanner before it
    // runs anything.
    m_pThumbnailScanner = pNew.get();
    std::deque<SMOXScannerOption> queue = m_pThumbnailOwner->TakeQueue();
    m_pThumbnailOwner->RequestEnd();
    MOX_WARN(
        "thumbnail scan stuck on a storage (withdrawn, or others waiting): %zu queued request(s) go to a new "
        "thread",
        queue.size());
    pNew->AdoptQueue(std::move(queue));
    m_retiredThumbs.push_back(std::move(m_pThumbnailOwner));
    m_pThumbnailOwner = std::move(pNew);
}

int CMOXScanManager::AddThumbnailScanner(const SMOXScannerOption& option) {
    MOX_INFO("add thumbnail scanner ");
    Lock lock(m_thumbMutex);
    if (m_bThumbsClosed) {
        MOX_WARN("thumbnail scanner ended, request refused");
        SMOXScannerOption copy = option;
        copy.FreeCallbackData();
        return -1;
    }
    if (!m_pThumbnailOwner) {
        std::unique_ptr<CMOXThumbnailScanner> pNew(new CMOXThumbnailScanner());
        if (!pNew->Create()) {
            MOX_WARN("thumbnail scanner create failed ");
            SMOXScannerOption copy = option;
            copy.FreeCallbackData();
            return -1;
        }
        m_pThumbnailOwner = std::move(pNew);
        m_pThumbnailScanner = m_pThumbnailOwner.get();
    }
    m_ReplaceStuckThumbnailScanner();
    if (m_pThumbnailOwner->AddScanner(option) != 0) {
        MOX_INFO("thumbnail scanner add scanner failed ");
        return -1;
    }
    return 0;
}

size_t CMOXScanManager::RemoveScanner(const char* device, const char* path, unsigned int limit, int value,
                                      const std::string* pOwner) {
    Lock lock(m_thumbMutex);
    if (!m_pThumbnailOwner) {
        MOX_INFO("m_pThumbnailScanner == NULL ");
        return 0;
    }
    return m_pThumbnailOwner->RemoveScanner(device, path, limit, value, pOwner);
}

void CMOXScanManager::RemoveThumbnailByDevice(const char* device) {
    Lock lock(m_thumbMutex);
    if (!m_pThumbnailOwner) {
        MOX_INFO("m_pThumbnailScanner == NULL ");
        return;
    }
    m_pThumbnailOwner->RemoveScannerByDevice(device);
}

int CMOXScanManager::GetCurrentFileInfoList(std::vector<SMOXFileInfo>& out) {
    CMOXThumbnailScanner* pThumb = m_pThumbnailScanner.load();
    return pThumb == nullptr ? -1 : pThumb->GetFileInfoList(out);
}

int CMOXScanManager::GetCurrentScannerOption(SMOXScannerOption& option) {
    CMOXThumbnailScanner* pThumb = m_pThumbnailScanner.load();
    return pThumb == nullptr ? -1 : pThumb->GetScannerOption(option);
}
