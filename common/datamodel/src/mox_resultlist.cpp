#define MOX_LOG_TAG "MOX-CACHE"
#include <mox/mox_resultlist.h>

#include <cstring>

#include <mox/mox_log.h>

#include "shm_object_loader.h"

namespace {

enum {
    kBlockNameOffsetField = 0,
    kItemOffsetField = 4,
    kStartIndexField = 8,
    kEndIndexField = 12,
    kSectionIndexField = 16,
    kTotalItemCountField = 20,
    kNumberOfGroupsField = 24,
    kNumberOfBlocksField = 28,
    kSizeField = 32,
};

}  // namespace

CResultList::CResultList(std::string strShmName) : m_strShmName(std::move(strShmName)) {
    m_bLoaded = m_Load();
}

CResultList::~CResultList() {
    m_UnLoad();
}

bool CResultList::m_Load() {
    mox_shm::SObjectCopy copy;
    if (!mox_shm::LoadObject(m_strShmName, MOX_RESULTLIST_HEADER_SIZE, kSizeField, copy)) return false;
    const char* p = copy.pData.get();
    const int32_t nBlockNameOffset = mox_shm::ReadInt32(p, kBlockNameOffsetField);
    const int32_t nItemOffset = mox_shm::ReadInt32(p, kItemOffsetField);
    const int32_t nStartIndex = mox_shm::ReadInt32(p, kStartIndexField);
    const int32_t nEndIndex = mox_shm::ReadInt32(p, kEndIndexField);
    const int32_t nNumberOfGroups = mox_shm::ReadInt32(p, kNumberOfGroupsField);
    const int32_t nNumberOfBlocks = mox_shm::ReadInt32(p, kNumberOfBlocksField);
    // 64-bit arithmetic: every sum below is made of crafted 32-bit values.
    const int64_t nItemCount = static_cast<int64_t>(nEndIndex) - nStartIndex + 1;
    const int64_t nGroupEnd = MOX_RESULTLIST_HEADER_SIZE + 8 * static_cast<int64_t>(nNumberOfGroups);
    const int64_t nNameEnd =
        static_cast<int64_t>(nBlockNameOffset) + MOX_RESULTLIST_NAME_SLOT_SIZE * static_cast<int64_t>(nNumberOfBlocks);
    const int64_t nItemEnd = static_cast<int64_t>(nItemOffset) + 8 * nItemCount;
    if (nItemCount < 0 || nNumberOfGroups < 0 || nNumberOfBlocks < 0 || nBlockNameOffset < nGroupEnd ||
        nItemOffset < nNameEnd || nItemEnd > copy.nSize) {
        MOX_WARN(
            "Result list[%s] has a bad header: nameOffset[%d] itemOffset[%d] start[%d] end[%d] groups[%d] "
            "blocks[%d] size[%d].",
            m_strShmName.c_str(), nBlockNameOffset, nItemOffset, nStartIndex, nEndIndex, nNumberOfGroups,
            nNumberOfBlocks, copy.nSize);
        return false;
    }
    m_pAddr = std::move(copy.pData);
    m_nSize = copy.nSize;
    m_nBlockNameOffset = nBlockNameOffset;
    m_nItemOffset = nItemOffset;
    m_nStartIndex = nStartIndex;
    m_nEndIndex = nEndIndex;
    m_nSectionIndex = mox_shm::ReadInt32(m_pAddr.get(), kSectionIndexField);
    m_nTotalItemCount = mox_shm::ReadInt32(m_pAddr.get(), kTotalItemCountField);
    m_nNumberOfGroups = nNumberOfGroups;
    m_nNumberOfBlocks = nNumberOfBlocks;
    return true;
}

void CResultList::m_UnLoad() {
    m_readers.clear();
    m_readersByName.clear();
    m_pAddr.reset();
    m_nSize = 0;
    m_bLoaded = false;
    m_nBlockNameOffset = m_nItemOffset = m_nStartIndex = m_nTotalItemCount = 0;
    m_nNumberOfGroups = m_nNumberOfBlocks = 0;
    m_nEndIndex = m_nSectionIndex = -1;
}

int CResultList::StartIndex() const {
    return m_bLoaded ? m_nStartIndex : 0;
}

int CResultList::EndIndex() const {
    return m_bLoaded ? m_nEndIndex : -1;
}

int CResultList::SectionIndex() const {
    return m_bLoaded ? m_nSectionIndex : -1;
}

int CResultList::GetTotalCount() const {
    return m_bLoaded ? m_nTotalItemCount : 0;
}

// Checked at load: the item table of this many entries fits the list.
int CResultList::GetItemCount() const {
    return m_bLoaded ? m_nEndIndex - m_nStartIndex + 1 : 0;
}

int CResultList::GetGroupCount() const {
    return m_bLoaded ? m_nNumberOfGroups : 0;
}

int CResultList::GetBlockCount() const {
    return m_bLoaded ? m_nNumberOfBlocks : 0;
}

bool CResultList::IsValidIndex(int n) const {
    return m_bLoaded && n >= m_nStartIndex && n <= m_nEndIndex;
}

bool CResultList::GetGroup(int nGroupIndex, int& a, int& b) const {
    if (!m_bLoaded) return false;
    if (nGroupIndex < 0 || nGroupIndex >= m_nNumberOfGroups) {
        MOX_WARN("Group index[%d] out of range[0-%d) in [%s].", nGroupIndex, m_nNumberOfGroups, m_strShmName.c_str());
        return false;
    }
    const int64_t nOffset = MOX_RESULTLIST_HEADER_SIZE + 8 * static_cast<int64_t>(nGroupIndex);
    a = mox_shm::ReadInt32(m_pAddr.get(), nOffset);
    b = mox_shm::ReadInt32(m_pAddr.get(), nOffset + 4);
    return true;
}

bool CResultList::GetBlockName(int nIndex, std::string& strName) const {
    if (!m_bLoaded) return false;
    if (nIndex < 0 || nIndex >= m_nNumberOfBlocks) {
        MOX_WARN("Block index[%d] out of range[0-%d) in [%s].", nIndex, m_nNumberOfBlocks, m_strShmName.c_str());
        return false;
    }
    const char* pSlot =
        m_pAddr.get() + m_nBlockNameOffset + MOX_RESULTLIST_NAME_SLOT_SIZE * static_cast<int64_t>(nIndex);
    const void* pNul = memchr(pSlot, '\0', MOX_RESULTLIST_NAME_SLOT_SIZE);
    if (pNul == nullptr) {
        MOX_WARN("Block name slot[%d] of [%s] is not terminated.", nIndex, m_strShmName.c_str());
        return false;
    }
    strName.assign(pSlot, static_cast<const char*>(pNul) - pSlot);
    return true;
}

bool CResultList::GetItem(int nListIndex, std::string& strItem, std::string& strShmName, int& nItemIndex) {
    if (!m_bLoaded) return false;
    if (!IsValidIndex(nListIndex)) {
        MOX_WARN("List index[%d] out of range[%d-%d] in [%s].", nListIndex, m_nStartIndex, m_nEndIndex,
                 m_strShmName.c_str());
        return false;
    }
    const int64_t nEntry = m_nItemOffset + 8 * (static_cast<int64_t>(nListIndex) - m_nStartIndex);
    const int32_t nSlot = mox_shm::ReadInt32(m_pAddr.get(), nEntry);
    const int32_t nIndexInBlock = mox_shm::ReadInt32(m_pAddr.get(), nEntry + 4);

    CCacheReader* pReader = nullptr;
    auto it = m_readers.find(nSlot);
    if (it != m_readers.end()) {
        pReader = it->second;
        assert(pReader != NULL);
    } else {
        std::string strName;
        if (!GetBlockName(nSlot, strName)) return false;
        MOX_DEBUG("get shmname[%s].", strName.c_str());
        // Kept even when the block is gone, so a vanished block is looked up
        // once; a crafted list repeating one name in many slots loads it once.
        std::unique_ptr<CCacheReader>& pOwned = m_readersByName[strName];
        if (!pOwned) pOwned = std::make_unique<CCacheReader>(strName);
        pReader = pOwned.get();
        m_readers.emplace(nSlot, pReader);
    }
    strShmName = pReader->GetName();
    nItemIndex = nIndexInBlock;
    return pReader->GetItem(nIndexInBlock, strItem);
}
