#include "mox_scan_list.h"

#include <utility>

using Lock = mox::MutexLock;

namespace {
constexpr size_t kMaxSpareBatches = 4;
}

void SMOXScanBatch::Clear() {
    text.clear();
    entries.clear();
    m_bHasFolder = false;
}

void SMOXScanBatch::Add(const SMOXFileInfo& info) {
    const std::string& folder = info.strBasePath;
    if (!m_bHasFolder || m_nLastFolderLength != folder.size() ||
        text.compare(m_nLastFolder, m_nLastFolderLength, folder) != 0) {
        m_nLastFolder = static_cast<uint32_t>(text.size());
        m_nLastFolderLength = static_cast<uint32_t>(folder.size());
        m_bHasFolder = true;
        text += folder;
    }
    Entry entry;
    entry.nFolder = m_nLastFolder;
    entry.nFolderLength = m_nLastFolderLength;
    entry.nName = static_cast<uint32_t>(text.size());
    entry.nNameLength = static_cast<uint32_t>(info.strName.size());
    text += info.strName;
    entry.nType = info.nType;
    entry.nExtensionGroup = info.nExtensionGroup;
    entry.tModified = info.tModified;
    entry.llFileSize = info.llFileSize;
    entries.push_back(entry);
}

void CMOXScanList::SetListSize(int nSize) {
    Lock lock(m_mutex);
    m_nListSize = nSize;
}

int CMOXScanList::GetNumberOfItems() {
    Lock lock(m_mutex);
    return static_cast<int>(m_list.size());
}

bool CMOXScanList::IsEmpty() {
    Lock lock(m_mutex);
    return m_list.empty();
}

bool CMOXScanList::IsStartFlag() {
    Lock lock(m_mutex);
    return !m_list.empty() && m_list.front().nType == MOX_SCANNER_START_FLAG;
}

bool CMOXScanList::IsEndFlag() {
    Lock lock(m_mutex);
    return !m_list.empty() && m_list.front().nType == MOX_SCANNER_END_FLAG;
}

int CMOXScanList::GetTotalDIRs() {
    Lock lock(m_mutex);
    return m_nTotalDIRs;
}

int CMOXScanList::GetTotalFILEs() {
    Lock lock(m_mutex);
    return m_nTotalFILEs;
}

int CMOXScanList::GetTotalALL() {
    Lock lock(m_mutex);
    return m_nTotalALL;
}

int CMOXScanList::Push(const SMOXFileInfo& info) {
    Lock lock(m_mutex);
    if (static_cast<long long>(m_list.size()) >= m_nListSize) return MOX_SCAN_LIST_FULL;
    m_list.push_back(info);
    if (info.nType == MOX_SCANNER_TYPE_DIR) ++m_nTotalDIRs;
    if (info.nType == MOX_SCANNER_TYPE_FILE) ++m_nTotalFILEs;
    if (info.nType < MOX_SCANNER_START_FLAG) ++m_nTotalALL;
    return MOX_SCAN_OK;
}

void CMOXScanList::PushPreviousPath(const SMOXFileInfo& info) {
    SMOXFileInfo link = info;
    link.nType = MOX_SCANNER_TYPE_DIR;
    link.strName = "..";
    link.bParentLink = true;
    link.llFileSize = 0;
    link.tModified = 0;
    link.tCreated = 0;
    Lock lock(m_mutex);
    m_list.push_back(std::move(link));
    ++m_nTotalDIRs;
}

void CMOXScanList::PushStartFlag() {
    Lock lock(m_mutex);
    m_list.push_back(SMOXFileInfo::Marker(MOX_SCANNER_START_FLAG));
}

void CMOXScanList::PushEndFlag() {
    {
        Lock lock(m_mutex);
        m_list.push_back(SMOXFileInfo::Marker(MOX_SCANNER_END_FLAG));
        m_bEnd = true;
    }
    m_batchPushed.notify_all();
}

int CMOXScanList::Pop(SMOXFileInfo& info) {
    Lock lock(m_mutex);
    if (m_list.empty()) return MOX_SCAN_LIST_EMPTY;
    info = m_list.front();
    if (info.nType != MOX_SCANNER_END_FLAG) m_list.pop_front();
    return MOX_SCAN_OK;
}

int CMOXScanList::PopList(int nCount, std::vector<SMOXFileInfo>& out) {
    Lock lock(m_mutex);
    size_t taken = 0;
    while (static_cast<long long>(taken) < nCount && !m_list.empty()) {
        out.push_back(m_list.front());
        ++taken;
        if (m_list.front().nType == MOX_SCANNER_END_FLAG) break;
        m_list.pop_front();
    }
    return out.empty() ? MOX_SCAN_LIST_EMPTY : MOX_SCAN_OK;
}

void CMOXScanList::Release() {
    {
        Lock lock(m_mutex);
        m_list.clear();
        m_nTotalDIRs = 0;
        m_nTotalFILEs = 0;
        m_nTotalALL = 0;
        m_batches.clear();
        m_nBatchedEntries = 0;
        m_bEnd = false;
    }
    m_batchTaken.notify_all();
}

int CMOXScanList::PushBatch(SMOXScanBatch& batch, bool bForce) {
    {
        Lock lock(m_mutex);
        if (!bForce && !m_batches.empty() &&
            static_cast<long long>(m_nBatchedEntries + batch.entries.size()) > m_nListSize)
            return MOX_SCAN_LIST_FULL;
        for (const SMOXScanBatch::Entry& entry : batch.entries) {
            if (entry.nType == MOX_SCANNER_TYPE_DIR) ++m_nTotalDIRs;
            if (entry.nType == MOX_SCANNER_TYPE_FILE) ++m_nTotalFILEs;
        }
        m_nTotalALL += static_cast<int>(batch.entries.size());
        m_nBatchedEntries += batch.entries.size();
        m_batches.push_back(std::move(batch));
        batch = SMOXScanBatch();
        if (!m_spare.empty()) {
            batch = std::move(m_spare.back());
            m_spare.pop_back();
        }
    }
    batch.Clear();
    m_batchPushed.notify_all();
    return MOX_SCAN_OK;
}

int CMOXScanList::PopBatch(SMOXScanBatch& batch, std::chrono::milliseconds wait) {
    {
        mox::UniqueLock lock(m_mutex);
        const auto deadline = std::chrono::steady_clock::now() + wait;
        while (m_batches.empty() && !m_bEnd) {
            if (lock.WaitUntil(m_batchPushed, deadline) == std::cv_status::timeout) break;
        }
        if (m_batches.empty()) return m_bEnd ? MOX_SCAN_END : MOX_SCAN_LIST_EMPTY;
        // The consumer's drained batch keeps its buffers for the walk.
        std::swap(batch, m_batches.front());
        m_nBatchedEntries -= batch.entries.size();
        if (m_spare.size() < kMaxSpareBatches) m_spare.push_back(std::move(m_batches.front()));
        m_batches.pop_front();
    }
    m_batchTaken.notify_all();
    return MOX_SCAN_OK;
}

void CMOXScanList::WaitForRoom(std::chrono::microseconds wait) {
    mox::UniqueLock lock(m_mutex);
    if (m_batches.empty()) return;
    const size_t nBefore = m_batches.size();
    const auto deadline = std::chrono::steady_clock::now() + wait;
    while (m_batches.size() >= nBefore && !m_batches.empty()) {
        if (lock.WaitUntil(m_batchTaken, deadline) == std::cv_status::timeout) return;
    }
}
