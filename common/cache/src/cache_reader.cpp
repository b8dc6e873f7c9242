#define MOX_LOG_TAG "MOX-CACHE"
#include <mox/cache_reader.h>

#include <mox/mox_log.h>

#include "shm_object_loader.h"

namespace {

enum {
    kGroupOffsetField = 0,
    kLengthOffsetField = 4,
    kStartIndexField = 8,
    kEndIndexField = 12,
    kTotalCountField = 16,
    kNumberOfGroupsField = 20,
    kSizeField = 24,
};

}  // namespace

CCacheReader::CCacheReader(std::string strShmName) : m_strShmName(std::move(strShmName)) {
    m_bLoaded = m_Load();
}

CCacheReader::~CCacheReader() {
    m_UnLoad();
}

bool CCacheReader::m_Load() {
    mox_shm::SObjectCopy copy;
    if (!mox_shm::LoadObject(m_strShmName, MOX_DATABLOCK_HEADER_SIZE, kSizeField, copy)) return false;
    const char* p = copy.pData.get();
    const int64_t nSize = copy.nSize;
    const int32_t nGroupOffset = mox_shm::ReadInt32(p, kGroupOffsetField);
    const int32_t nLengthOffset = mox_shm::ReadInt32(p, kLengthOffsetField);
    const int32_t nStartIndex = mox_shm::ReadInt32(p, kStartIndexField);
    const int32_t nEndIndex = mox_shm::ReadInt32(p, kEndIndexField);
    const int32_t nNumberOfGroups = mox_shm::ReadInt32(p, kNumberOfGroupsField);
    // 64-bit arithmetic: every sum below is made of crafted 32-bit values.
    const int64_t nItemCount = static_cast<int64_t>(nEndIndex) - nStartIndex + 1;
    const int64_t nGroupEnd = static_cast<int64_t>(nGroupOffset) + 8 * static_cast<int64_t>(nNumberOfGroups);
    const int64_t nLengthEnd = static_cast<int64_t>(nLengthOffset) + 4 * nItemCount;
    if (nItemCount < 0 || nNumberOfGroups < 0 || nGroupOffset < MOX_DATABLOCK_HEADER_SIZE ||
        nLengthOffset != nGroupEnd || nLengthEnd > nSize) {
        MOX_WARN(
            "Data block[%s] has a bad header: groupOffset[%d] lengthOffset[%d] start[%d] end[%d] "
            "groups[%d] size[%lld].",
            m_strShmName.c_str(), nGroupOffset, nLengthOffset, nStartIndex, nEndIndex, nNumberOfGroups,
            static_cast<long long>(nSize));
        return false;
    }
    m_pAddr = std::move(copy.pData);
    m_nSize = copy.nSize;
    m_nGroupOffset = nGroupOffset;
    m_nLengthOffset = nLengthOffset;
    m_nStartIndex = nStartIndex;
    m_nEndIndex = nEndIndex;
    m_nTotalCount = mox_shm::ReadInt32(p, kTotalCountField);
    m_nNumberOfGroups = nNumberOfGroups;
    return true;
}

void CCacheReader::m_UnLoad() {
    m_pAddr.reset();
    m_nSize = 0;
    m_bLoaded = false;
    m_nGroupOffset = m_nLengthOffset = m_nStartIndex = m_nTotalCount = m_nNumberOfGroups = 0;
    m_nEndIndex = -1;
}

int CCacheReader::StartIndex() const {
    return m_bLoaded ? m_nStartIndex : 0;
}

int CCacheReader::EndIndex() const {
    return m_bLoaded ? m_nEndIndex : -1;
}

// Checked at load: the item-offset table of this many entries fits the block,
// so the count is far below INT_MAX.
int CCacheReader::GetItemCount() const {
    return m_bLoaded ? m_nEndIndex - m_nStartIndex + 1 : 0;
}

int CCacheReader::GetTotalCount() const {
    return m_bLoaded ? m_nTotalCount : 0;
}

int CCacheReader::GetGroupCount() const {
    return m_bLoaded ? m_nNumberOfGroups : 0;
}

bool CCacheReader::GetGroup(int nGroupIndex, int& a, int& b) const {
    if (!m_bLoaded) return false;
    if (nGroupIndex < 0 || nGroupIndex >= m_nNumberOfGroups) {
        MOX_WARN("Group index[%d] out of range[0-%d) in [%s].", nGroupIndex, m_nNumberOfGroups, m_strShmName.c_str());
        return false;
    }
    int64_t nOffset = m_nGroupOffset + 8 * static_cast<int64_t>(nGroupIndex);
    a = mox_shm::ReadInt32(m_pAddr.get(), nOffset);
    b = mox_shm::ReadInt32(m_pAddr.get(), nOffset + 4);
    return true;
}

bool CCacheReader::GetItem(int nIndex, std::string& str) const {
    if (!m_bLoaded) return false;
    const int nItemCount = GetItemCount();
    if (nIndex < 0 || nIndex >= nItemCount) {
        MOX_WARN("Item index[%d] out of range[0-%d) in [%s].", nIndex, nItemCount, m_strShmName.c_str());
        return false;
    }
    const int64_t nEntry = m_nLengthOffset + 4 * static_cast<int64_t>(nIndex);
    const int32_t nBegin = mox_shm::ReadInt32(m_pAddr.get(), nEntry);
    const int32_t nEnd = nIndex + 1 < nItemCount ? mox_shm::ReadInt32(m_pAddr.get(), nEntry + 4) : m_nGroupOffset;
    if (nBegin < MOX_DATABLOCK_HEADER_SIZE || nBegin > nEnd || nEnd > m_nGroupOffset) {
        MOX_WARN("Item[%d] of [%s] has bad offsets[%d-%d].", nIndex, m_strShmName.c_str(), nBegin, nEnd);
        return false;
    }
    str.assign(m_pAddr.get() + nBegin, static_cast<size_t>(nEnd - nBegin));
    return true;
}
