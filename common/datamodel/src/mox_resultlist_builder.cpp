#define MOX_LOG_TAG "MOX-CACHE"
#include "mox_resultlist_builder.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <set>
#include <vector>

#include <mox/mox_log.h>

#include "shm_mapping.h"

namespace {

const char kNamePrefix[] = "mox_resultlist_";

}  // namespace

mox_shm::CShmNamer& CResultListBuilder::m_Namer() {
    // One process-wide sequence of list names; the first list is id 1.
    static mox_shm::CShmNamer s_namer(kNamePrefix, 1);
    return s_namer;
}

mox::Mutex& CResultListBuilder::m_CreatedMutex() {
    static mox::Mutex s_mutex;
    return s_mutex;
}

std::set<std::string>& CResultListBuilder::m_Created() {
    static std::set<std::string> s_names;  // guarded through m_Created()'s REQUIRES
    return s_names;
}

bool CResultListBuilder::m_Unlink(const std::string& strShmName) {
    {
        mox::MutexLock lock(m_CreatedMutex());
        if (m_Created().erase(strShmName) == 0) {
            MOX_WARN("[%s] is not a result list of this engine, not unlinked.", strShmName.c_str());
            return false;
        }
    }
    MOX_DEBUG("unlink share memory[%s].", strShmName.c_str());
    if (shm_unlink(strShmName.c_str()) != 0) {
        MOX_WARN("shm_unlink failed.");
        return false;
    }
    return true;
}

CResultListBuilder::CResultListBuilder(int nSectionIndex, int nStartIndex, int nEndIndex, int nTotalItemCount,
                                       int nNumberOfGroups, int nNumberOfBlocks) {
    const int64_t nItemCount = static_cast<int64_t>(nEndIndex) - nStartIndex + 1;
    const int64_t nSize = MOX_RESULTLIST_HEADER_SIZE + 8 * static_cast<int64_t>(nNumberOfGroups) +
                          MOX_RESULTLIST_NAME_SLOT_SIZE * static_cast<int64_t>(nNumberOfBlocks) + 8 * nItemCount;
    // A list without groups is laid out like any other (the source simply did
    // not group its items); a list always names at least one block. Section
    // -1 is what a document without "mox_sectionindex" echoes. The range comes
    // from source answers: callers check that it holds exactly the items they
    // add (AddItem asserts), this only refuses what no list can describe.
    if (nSectionIndex < -1 || nStartIndex < 0 || nEndIndex < nStartIndex || nTotalItemCount <= 0 ||
        nNumberOfGroups < 0 || nNumberOfBlocks <= 0 || nSize > MOX_SHM_OBJECT_MAX_SIZE) {
        MOX_WARN("Bad result list: section[%d] start[%d] end[%d] total[%d] groups[%d] blocks[%d].", nSectionIndex,
                 nStartIndex, nEndIndex, nTotalItemCount, nNumberOfGroups, nNumberOfBlocks);
        return;
    }
    int fd = m_Namer().CreateExclusive(m_strShmName, m_nId);
    if (fd < 0) return;
    MOX_DEBUG("Generate Id[%d], Name[%s].", m_nId, m_strShmName.c_str());
    mox_shm::CShmFd shmFd(fd);
    // Created exclusively just now: ours to unlink, by Drop as well.
    {
        mox::MutexLock lock(m_CreatedMutex());
        m_Created().insert(m_strShmName);
    }
    if (!mox_shm::SizeWithMemory(fd, nSize)) {
        MOX_WARN("No shared memory for [%s] of [%lld] bytes: %s.", m_strShmName.c_str(), static_cast<long long>(nSize),
                 strerror(errno));
        m_Unlink(m_strShmName);
        return;
    }
    mox_shm::CShmMapping mapping(fd, static_cast<size_t>(nSize));
    if (!mapping.IsMapped()) {
        MOX_WARN("mmap of [%s] failed: %s.", m_strShmName.c_str(), strerror(errno));
        m_Unlink(m_strShmName);
        return;
    }
    m_nItemCount = static_cast<int>(nItemCount);
    m_nNumberOfGroups = nNumberOfGroups;
    m_nNumberOfBlocks = nNumberOfBlocks;
    m_nBlockNameOffset = MOX_RESULTLIST_HEADER_SIZE + 8 * nNumberOfGroups;
    m_nItemOffset = m_nBlockNameOffset + MOX_RESULTLIST_NAME_SLOT_SIZE * nNumberOfBlocks;
    // The object starts zero-filled: empty name slots, zero groups.
    char* pAddr = mapping.Get();
    mox_shm::PutInt32(pAddr, 0, m_nBlockNameOffset);
    mox_shm::PutInt32(pAddr, 4, m_nItemOffset);
    mox_shm::PutInt32(pAddr, 8, nStartIndex);
    mox_shm::PutInt32(pAddr, 12, nEndIndex);
    mox_shm::PutInt32(pAddr, 16, nSectionIndex);
    mox_shm::PutInt32(pAddr, 20, nTotalItemCount);
    mox_shm::PutInt32(pAddr, 24, nNumberOfGroups);
    mox_shm::PutInt32(pAddr, 28, nNumberOfBlocks);
    mox_shm::PutInt32(pAddr, 32, static_cast<int32_t>(nSize));
    m_shmFd = std::move(shmFd);
    m_mapping = std::move(mapping);
}

CResultListBuilder::~CResultListBuilder() {
    m_ShmNames.clear();
}

ResultItemIndex* CResultListBuilder::m_ItemTable() const {
    // The item table starts at a multiple of 4 of a page-aligned mapping.
    return reinterpret_cast<ResultItemIndex*>(m_mapping.Get() + m_nItemOffset);
}

void CResultListBuilder::AddGroup(int nGroupIndex, int a, int b) {
    assert(m_bReleased == false);
    if (!IsValid()) return;
    assert(nGroupIndex >= 0 && nGroupIndex < m_nNumberOfGroups);
    char* pGroup = m_mapping.Get() + MOX_RESULTLIST_HEADER_SIZE + 8 * nGroupIndex;
    mox_shm::PutInt32(pGroup, 0, a);
    mox_shm::PutInt32(pGroup, 4, b);
}

void CResultListBuilder::AddItem(std::string strShmName, int nItemIndex) {
    assert(m_bReleased == false);
    if (!IsValid()) return;
    assert(m_nCurrentItemCount >= 0 && m_nCurrentItemCount < m_nItemCount);
    int nShmIndex;
    auto it = m_ShmNames.find(strShmName);
    if (it != m_ShmNames.end()) {
        nShmIndex = it->second;
    } else {
        nShmIndex = static_cast<int>(m_ShmNames.size());
        assert(m_nNumberOfBlocks > (int)m_ShmNames.size());
        m_ShmNames.emplace(strShmName, nShmIndex);
        char* pSlot = m_mapping.Get() + m_nBlockNameOffset + MOX_RESULTLIST_NAME_SLOT_SIZE * nShmIndex;
        memset(pSlot, 0, MOX_RESULTLIST_NAME_SLOT_SIZE);
        memcpy(pSlot, strShmName.data(), std::min<size_t>(strShmName.size(), MOX_RESULTLIST_NAME_SLOT_SIZE - 1));
        pSlot[MOX_RESULTLIST_NAME_SLOT_SIZE - 1] = '\0';
    }
    assert(nShmIndex >= 0 && nShmIndex < m_nNumberOfBlocks);
    ResultItemIndex& entry = m_ItemTable()[m_nCurrentItemCount];
    entry.nDataBlockIndex = nShmIndex;
    entry.nItemIndex = nItemIndex;
    ++m_nCurrentItemCount;
}

bool CResultListBuilder::SortItems(CMOXSortFunction& fn) {
    assert(m_bReleased == false);
    if (!IsValid()) return false;
    assert(m_nCurrentItemCount >= 0 && m_nCurrentItemCount == m_nItemCount);
    if (!fn.IsValid()) {
        MOX_WARN("Can not sort [%s]: comparison[%d], keyType[%d], readers[%p].", m_strShmName.c_str(), fn.comparison,
                 fn.keyType, static_cast<void*>(fn.readers));
        return false;
    }
    ResultItemIndex* pItem = m_ItemTable();
    assert(pItem != NULL);
    const size_t nCount = static_cast<size_t>(m_nItemCount);
    // Reading and parsing each item once instead of at every comparison is
    // what makes the sort affordable. std::sort over the positions, compared
    // through their keys, sees exactly the outcomes that the per-comparison
    // predicate gives for the entries at those positions, so it produces the
    // same permutation (equal keys included).
    std::vector<ResultItemIndex> entries(pItem, pItem + nCount);
    std::vector<SMOXSortKey> keys;
    fn.GetKeys(entries.data(), nCount, keys);
    std::vector<int> order(nCount);
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&fn, &keys](int a, int b) { return fn.Less(keys[a], keys[b]); });
    for (size_t i = 0; i < nCount; ++i) pItem[i] = entries[order[i]];
    return true;
}

std::string CResultListBuilder::Release() {
    assert(m_bReleased == false);
    m_bReleased = true;
    return IsValid() ? m_strShmName : std::string();
}

void CResultListBuilder::Drop() {
    if (!IsValid()) return;
    m_Unlink(m_strShmName);
}

bool CResultListBuilder::Drop(const std::string& strShmName) {
    return m_Unlink(strShmName);
}
