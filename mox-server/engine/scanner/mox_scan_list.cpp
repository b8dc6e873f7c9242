#include "mox_scan_list.h"

using Lock = mox::MutexLock;

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
    Lock lock(m_mutex);
    m_list.push_back(SMOXFileInfo::Marker(MOX_SCANNER_END_FLAG));
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
    Lock lock(m_mutex);
    m_list.clear();
    m_nTotalDIRs = 0;
    m_nTotalFILEs = 0;
    m_nTotalALL = 0;
}
