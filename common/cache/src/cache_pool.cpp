#define MOX_LOG_TAG "MOX-CACHE"
#include "cache_pool.h"

#include <sys/mman.h>

#include <algorithm>
#include <utility>

#include <mox/mox_log.h>

namespace {

// Query texts come from clients: log lines show only their beginning.
std::string UrlForLog(const std::string& strQuery) {
    const size_t kShown = 256;
    if (strQuery.size() <= kShown) return strQuery;
    return strQuery.substr(0, kShown) + "...(" + std::to_string(strQuery.size()) + " bytes)";
}

}  // namespace

// A bound that bites: one warning, then debug lines until the flag is reset.
#define MOX_POOL_LIMIT(bWarned, ...) \
    do {                             \
        if (!(bWarned)) {            \
            (bWarned) = true;        \
            MOX_WARN(__VA_ARGS__);   \
        } else {                     \
            MOX_DEBUG(__VA_ARGS__);  \
        }                            \
    } while (0)

CCachePool::CCachePool() = default;

CCachePool::~CCachePool() {
    mox::MutexLock lock(m_mutex);
    m_LRUIndexes.clear();
    m_refCountMap.clear();
    m_cacheIdToQueryMap.clear();
    m_queryToCacheIdMap.clear();
    m_unkeptIds.clear();
    m_servedOnlyIds.clear();
    m_nServedSize = 0;
    m_nQueryTextBytes = 0;
    m_persistantBlockMap.clear();
    m_cachePoolBlockMap.clear();
    if (!m_committedBlockMap.empty()) {
        MOX_WARN("m_committedBlockMap should be empty.");
        m_committedBlockMap.clear();
    }
    m_nUsedSize = 0;
}

bool CCachePool::Add(std::string strQuery, CCacheBuilder& builder, std::string& strShmName) {
    SCacheValidity validity;
    validity.nGeneration = GetGeneration();
    return Add(std::move(strQuery), builder, strShmName, validity);
}

bool CCachePool::Add(const std::string& strQuery, CCacheBuilder& builder, std::string& strShmName,
                     const SCacheValidity& validity) {
    mox::MutexLock lock(m_mutex);
    if (!builder.IsBuilt()) {
        MOX_WARN("Builder[%s] holds no built block, free it.", builder.GetName().c_str());
        builder.Free();
        return false;
    }
    std::unique_ptr<CCacheBlock> pBlock = builder.Release();
    assert(pBlock != nullptr);

    // Asked for before an invalidation: it may show what is gone, so it
    // answers this request only.
    const bool bKeep = validity.bKeep && validity.nGeneration == m_nGeneration;
    if (!bKeep) {
        std::string strName = pBlock->GetName();
        const int nCacheId = pBlock->GetCacheId();
        if (pBlock->GetType() == MOX_CACHE_BLOCK_PERSISTANT || !m_Add(std::string(), std::move(pBlock), false))
            return false;
        MOX_DEBUG("Block[%d] answers url[%s] once, not kept.", nCacheId, UrlForLog(strQuery).c_str());
        strShmName = strName;
        return true;
    }
    if (CCacheBlock* pHit = m_HitCache(strQuery)) {
        MOX_DEBUG("Already exist block with url[%s], remove block[%d].", UrlForLog(strQuery).c_str(),
                  pBlock->GetCacheId());
        pBlock.reset();
        strShmName = pHit->GetName();
        return true;
    }
    std::string strName = pBlock->GetName();
    const int nCacheId = pBlock->GetCacheId();
    const bool bAdded = pBlock->GetType() != MOX_CACHE_BLOCK_PERSISTANT ? m_Add(strQuery, std::move(pBlock))
                                                                        : m_AddPersistant(strQuery, std::move(pBlock));
    if (!bAdded) {
        // The bound that refused it has said so once already.
        MOX_DEBUG("Add block[%d] fail, remove it.", nCacheId);
        return false;
    }
    if (m_cacheIdToQueryMap.count(nCacheId) && (!validity.strStamp.empty() || !validity.paths.empty()))
        m_validityMap[nCacheId] = validity;
    strShmName = strName;
    MOX_DEBUG("Add block[%s] success", strName.c_str());
    return true;
}

bool CCachePool::HitCache(const std::string& strQuery, std::string& strShmName, const std::string& strStamp) {
    mox::MutexLock lock(m_mutex);
    auto query = m_queryToCacheIdMap.find(strQuery);
    if (query != m_queryToCacheIdMap.end()) {
        auto validity = m_validityMap.find(query->second);
        const std::string strKept = validity == m_validityMap.end() ? std::string() : validity->second.strStamp;
        if (strKept != strStamp) {
            MOX_DEBUG("Block[%d] of url[%s] is stale, forget it.", query->second, UrlForLog(strQuery).c_str());
            m_Forget(query->second);
            return false;
        }
    }
    CCacheBlock* pBlock = m_HitCache(strQuery);
    if (pBlock == nullptr) return false;
    strShmName = pBlock->GetName();
    return true;
}

std::string CCachePool::NormalisePath(const std::string& strPath) {
    if (strPath.empty() || strPath[0] != '/') return std::string();
    std::vector<std::string> parts;
    size_t nPos = 0;
    while (nPos <= strPath.size()) {
        size_t nEnd = strPath.find('/', nPos);
        if (nEnd == std::string::npos) nEnd = strPath.size();
        std::string strPart = strPath.substr(nPos, nEnd - nPos);
        if (strPart == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!strPart.empty() && strPart != ".") {
            parts.push_back(std::move(strPart));
        }
        nPos = nEnd + 1;
    }
    std::string strNormal;
    for (const std::string& strPart : parts) strNormal += "/" + strPart;
    return strNormal.empty() ? "/" : strNormal;
}

namespace {

// strPath is strBase or below it.
bool IsAtOrBelow(const std::string& strPath, const std::string& strBase) {
    if (strBase == "/") return true;
    return strPath.compare(0, strBase.size(), strBase) == 0 &&
           (strPath.size() == strBase.size() || strPath[strBase.size()] == '/');
}

}  // namespace

int CCachePool::ForgetTouching(const std::string& strPath) {
    const std::string strNormal = NormalisePath(strPath);
    if (strNormal.empty()) return 0;
    std::string strParent = strNormal.substr(0, strNormal.find_last_of('/'));
    if (strParent.empty()) strParent = "/";
    mox::MutexLock lock(m_mutex);
    ++m_nGeneration;
    std::vector<int> victims;
    for (const auto& entry : m_validityMap) {
        for (const std::string& strNamed : entry.second.paths) {
            if (IsAtOrBelow(strNamed, strNormal) || strNamed == strParent) {
                victims.push_back(entry.first);
                break;
            }
        }
    }
    for (int nCacheId : victims) m_Forget(nCacheId);
    if (!victims.empty())
        MOX_INFO("%zu cached answers touching [%.256s] forgotten.", victims.size(), strNormal.c_str());
    return static_cast<int>(victims.size());
}

void CCachePool::UnlinkAllAtExit() {
    mox::MutexLock lock(m_mutex);
    for (const auto* pMap : {&m_committedBlockMap, &m_cachePoolBlockMap})
        for (const auto& entry : *pMap) shm_unlink(entry.second->GetName().c_str());
    for (const auto& entry : m_persistantBlockMap) shm_unlink(entry.second->GetName().c_str());
}

uint64_t CCachePool::GetGeneration() {
    mox::MutexLock lock(m_mutex);
    return m_nGeneration;
}

void CCachePool::m_Forget(int nCacheId) {
    m_EraseQueryOf(nCacheId);
    auto cached = m_cachePoolBlockMap.find(nCacheId);
    if (cached != m_cachePoolBlockMap.end()) {
        auto lru = std::find(m_LRUIndexes.begin(), m_LRUIndexes.end(), nCacheId);
        if (lru != m_LRUIndexes.end()) m_LRUIndexes.erase(lru);
        m_nUsedSize -= cached->second->GetSize();
        m_cachePoolBlockMap.erase(cached);  // destroys the block, unlinking its object
        return;
    }
    if (m_committedBlockMap.count(nCacheId)) m_unkeptIds.insert(nCacheId);
}

bool CCachePool::HitCache(std::string strQuery, std::string& strShmName) {
    mox::MutexLock lock(m_mutex);
    CCacheBlock* pBlock = m_HitCache(std::move(strQuery));
    if (pBlock == nullptr) return false;
    strShmName = pBlock->GetName();
    return true;
}

void CCachePool::Delete(int nCacheId) {
    mox::MutexLock lock(m_mutex);
    m_Delete(nCacheId);
}

void CCachePool::Delete(const std::string& strQuery) {
    mox::MutexLock lock(m_mutex);
    m_DeletePersistant(strQuery);
    m_Delete(strQuery);
}

CCachePool::EBlockState CCachePool::GetBlockState(int nCacheId) {
    mox::MutexLock lock(m_mutex);
    if (m_committedBlockMap.count(nCacheId)) return kBlockCommitted;
    if (m_cachePoolBlockMap.count(nCacheId)) return kBlockCached;
    return kBlockUnknown;
}

int CCachePool::GetRefCount(int nCacheId) {
    mox::MutexLock lock(m_mutex);
    auto it = m_refCountMap.find(nCacheId);
    return it == m_refCountMap.end() ? 0 : it->second;
}

int CCachePool::GetUsedSize() {
    mox::MutexLock lock(m_mutex);
    return m_nUsedSize;
}

int64_t CCachePool::GetServedSize() {
    mox::MutexLock lock(m_mutex);
    return m_nServedSize;
}

int64_t CCachePool::m_CachedSize() const {
    int64_t nSize = 0;
    for (const auto& entry : m_cachePoolBlockMap) nSize += entry.second->GetSize();
    return nSize;
}

int CCachePool::GetEntryCount() {
    mox::MutexLock lock(m_mutex);
    return m_EntryCount();
}

int64_t CCachePool::GetQueryTextBytes() {
    mox::MutexLock lock(m_mutex);
    return m_nQueryTextBytes;
}

std::vector<int> CCachePool::GetLRUIndexes() {
    mox::MutexLock lock(m_mutex);
    return std::vector<int>(m_LRUIndexes.begin(), m_LRUIndexes.end());
}

CCacheBlock* CCachePool::m_HitCache(const std::string& strQuery) {
    auto persistant = m_persistantBlockMap.find(strQuery);
    if (persistant != m_persistantBlockMap.end()) return persistant->second.get();

    auto query = m_queryToCacheIdMap.find(strQuery);
    if (query == m_queryToCacheIdMap.end()) {
        MOX_DEBUG("Hit nothing with url[%s].", UrlForLog(strQuery).c_str());
        return nullptr;
    }
    const int nCacheId = query->second;
    CCacheBlock* pBlock = m_ActiveCacheBlock(nCacheId);
    if (pBlock == nullptr) {
        MOX_WARN("Active block[%d] failed.", nCacheId);
        return nullptr;
    }
    ++m_refCountMap[nCacheId];  // a new entry starts at 0, so 1
    m_Print();
    return pBlock;
}

CCacheBlock* CCachePool::m_ActiveCacheBlock(int nCacheId) {
    auto committed = m_committedBlockMap.find(nCacheId);
    if (committed != m_committedBlockMap.end()) {
        MOX_DEBUG("Block[%d] already actived.", nCacheId);
        assert(committed->second != nullptr);
        return committed->second.get();
    }
    auto cached = m_cachePoolBlockMap.find(nCacheId);
    if (cached == m_cachePoolBlockMap.end()) {
        MOX_WARN("Block[%d] is not exist.", nCacheId);
        return nullptr;
    }
    CCacheBlock* pBlock = cached->second.get();
    assert(pBlock != nullptr);
    m_committedBlockMap.emplace(nCacheId, std::move(cached->second));
    m_cachePoolBlockMap.erase(cached);
    auto lru = std::find(m_LRUIndexes.begin(), m_LRUIndexes.end(), nCacheId);
    if (lru != m_LRUIndexes.end()) m_LRUIndexes.erase(lru);
    return pBlock;
}

bool CCachePool::m_EraseQueryOf(int nCacheId) {
    auto reverse = m_cacheIdToQueryMap.find(nCacheId);
    if (reverse == m_cacheIdToQueryMap.end()) return false;
    m_nQueryTextBytes -= static_cast<int64_t>(reverse->second->first.size());
    m_queryToCacheIdMap.erase(reverse->second);
    m_validityMap.erase(nCacheId);
    m_cacheIdToQueryMap.erase(reverse);
    return true;
}

bool CCachePool::m_KeepQuery(const std::string& strQuery, int nCacheId) {
    auto inserted = m_queryToCacheIdMap.emplace(strQuery, nCacheId);
    if (!inserted.second) return false;
    m_cacheIdToQueryMap[nCacheId] = inserted.first;
    m_nQueryTextBytes += static_cast<int64_t>(strQuery.size());
    return true;
}

int CCachePool::m_EntryCount() const {
    return static_cast<int>(m_committedBlockMap.size() + m_cachePoolBlockMap.size() + m_persistantBlockMap.size());
}

bool CCachePool::m_EvictOldest() {
    while (!m_LRUIndexes.empty()) {
        const int nVictim = m_LRUIndexes.front();
        m_LRUIndexes.pop_front();
        if (m_EraseQueryOf(nVictim)) MOX_DEBUG("Remove block[%d] from querytoId map.", nVictim);
        auto cached = m_cachePoolBlockMap.find(nVictim);
        if (cached == m_cachePoolBlockMap.end()) {
            MOX_WARN("block[%d] is not exist.", nVictim);
            continue;
        }
        assert(cached->second != nullptr);
        m_nUsedSize -= cached->second->GetSize();
        m_cachePoolBlockMap.erase(cached);  // destroys the block, unlinking its object
        return true;
    }
    return false;
}

bool CCachePool::m_MakeRoomForEntry() {
    while (m_EntryCount() + 1 > kMaxEntries)
        if (!m_EvictOldest()) return false;
    return true;
}

bool CCachePool::m_MakeRoomForText(size_t nTextSize) {
    const int64_t nNeeded = m_nQueryTextBytes + static_cast<int64_t>(nTextSize) - kMaxQueryTextBytes;
    if (nNeeded <= 0) return true;
    // Evict only when the released blocks' texts can make the room: the held
    // ones stay, and emptying the cache for nothing would help nobody.
    int64_t nReleasable = 0;
    for (int nCacheId : m_LRUIndexes) {
        auto reverse = m_cacheIdToQueryMap.find(nCacheId);
        if (reverse != m_cacheIdToQueryMap.end()) nReleasable += static_cast<int64_t>(reverse->second->first.size());
    }
    if (nReleasable < nNeeded) return false;
    while (m_nQueryTextBytes + static_cast<int64_t>(nTextSize) > kMaxQueryTextBytes)
        if (!m_EvictOldest()) return false;
    return true;
}

bool CCachePool::m_Add(const std::string& strQuery, std::unique_ptr<CCacheBlock> pBlock, bool bKeepQuery) {
    assert(pBlock != nullptr);
    const int nSize = pBlock->GetSize();
    const int nCacheId = pBlock->GetCacheId();
    // The limit bounds what is kept for reuse, not what is served: a block
    // that does not fit beside the held ones (evicting released ones would
    // not make the room) answers this request and goes when released.
    // Sizes are bounded by MOX_SHM_OBJECT_MAX_SIZE, the used size by the
    // limit: no overflow in the sum.
    bool bServeOnly =
        m_nUsedSize + nSize > kMemoryLimit && m_nUsedSize - m_CachedSize() + static_cast<int64_t>(nSize) > kMemoryLimit;
    while (!bServeOnly && m_nUsedSize + nSize > kMemoryLimit)
        if (!m_EvictOldest()) bServeOnly = true;
    if (bServeOnly && m_nServedSize + nSize > kMaxServedBytes) {
        MOX_POOL_LIMIT(m_bMemoryLimitWarned,
                       "Answers too big to keep hold %lld bytes (limit %lld): block[%d] of %d bytes refused.",
                       static_cast<long long>(m_nServedSize), static_cast<long long>(kMaxServedBytes), nCacheId, nSize);
        return false;  // pBlock is destroyed, its object unlinked
    }
    if (!m_MakeRoomForEntry()) {
        MOX_POOL_LIMIT(m_bEntryLimitWarned, "Cache pool holds %d blocks, all in use by clients: block[%d] refused.",
                       kMaxEntries, nCacheId);
        return false;
    }
    m_bMemoryLimitWarned = false;
    m_bEntryLimitWarned = false;

    // The block answers this request in any case; only a query text within
    // the bounds is kept for later identical queries.
    bool bKeep = false;
    if (bServeOnly) {
        MOX_DEBUG("Block[%d] of %d bytes does not fit the %d kept: served, not kept.", nCacheId, nSize, kMemoryLimit);
    } else if (!bKeepQuery) {
        // Answers this request only.
    } else if (strQuery.size() > static_cast<size_t>(kMaxQueryTextSize)) {
        MOX_POOL_LIMIT(m_bQueryTooLongWarned, "Query text of %zu bytes is above %d: its answer[%d] is not cached.",
                       strQuery.size(), kMaxQueryTextSize, nCacheId);
    } else if (!m_MakeRoomForText(strQuery.size())) {
        MOX_POOL_LIMIT(m_bTextLimitWarned,
                       "Kept query texts (%lld bytes, limit %d) belong to blocks in use: answer[%d] is not cached.",
                       static_cast<long long>(m_nQueryTextBytes), kMaxQueryTextBytes, nCacheId);
    } else {
        bKeep = m_KeepQuery(strQuery, nCacheId);
        if (bKeep) m_bTextLimitWarned = false;
    }
    if (!bKeep) m_unkeptIds.insert(nCacheId);
    m_committedBlockMap.emplace(nCacheId, std::move(pBlock));
    m_refCountMap.emplace(nCacheId, 1);
    if (bServeOnly) {
        m_servedOnlyIds.insert(nCacheId);
        m_nServedSize += nSize;
    } else {
        m_nUsedSize += nSize;
    }
    m_Print();
    return true;
}

bool CCachePool::m_AddPersistant(std::string strQuery, std::unique_ptr<CCacheBlock> pBlock) {
    assert(pBlock != nullptr);
    // Kept only for its query, so the query must be kept too.
    if (strQuery.size() > static_cast<size_t>(kMaxQueryTextSize)) {
        MOX_POOL_LIMIT(m_bQueryTooLongWarned, "Query text of %zu bytes is above %d: persistent block[%d] refused.",
                       strQuery.size(), kMaxQueryTextSize, pBlock->GetCacheId());
        return false;
    }
    if (!m_MakeRoomForEntry()) {
        MOX_POOL_LIMIT(m_bEntryLimitWarned, "Cache pool holds %d blocks, all in use by clients: block[%d] refused.",
                       kMaxEntries, pBlock->GetCacheId());
        return false;
    }
    if (!m_MakeRoomForText(strQuery.size())) {
        MOX_POOL_LIMIT(m_bTextLimitWarned, "Kept query texts (%lld bytes, limit %d) are in use: block[%d] refused.",
                       static_cast<long long>(m_nQueryTextBytes), kMaxQueryTextBytes, pBlock->GetCacheId());
        return false;
    }
    // An existing entry stays; the newcomer is then destroyed with pBlock.
    auto inserted = m_persistantBlockMap.emplace(strQuery, std::move(pBlock));
    if (inserted.second) m_nQueryTextBytes += static_cast<int64_t>(strQuery.size());
    return true;
}

void CCachePool::m_DeletePersistant(const std::string& strQuery) {
    if (m_persistantBlockMap.erase(strQuery) != 0) m_nQueryTextBytes -= static_cast<int64_t>(strQuery.size());
}

void CCachePool::m_Delete(int nCacheId) {
    auto count = m_refCountMap.find(nCacheId);
    if (count == m_refCountMap.end()) {
        MOX_WARN("block[%d] is not referenced with any client.", nCacheId);
    } else {
        if (--count->second > 0) {
            m_Print();
            return;
        }
        m_refCountMap.erase(count);
    }
    m_DeactiveCacheBlock(nCacheId);
    m_Print();
}

void CCachePool::m_DeactiveCacheBlock(int nCacheId) {
    auto committed = m_committedBlockMap.find(nCacheId);
    if (committed == m_committedBlockMap.end()) {
        MOX_WARN("Block[%d] is not exist.", nCacheId);
        return;
    }
    std::unique_ptr<CCacheBlock> pBlock = std::move(committed->second);
    m_committedBlockMap.erase(committed);
    assert(pBlock != nullptr);
    // A block whose query was not kept can never be hit again: it goes too.
    const bool bUnkept = m_unkeptIds.erase(nCacheId) != 0;
    if (pBlock->GetType() == MOX_CACHE_BLOCK_TEMPORARY || bUnkept) {
        MOX_DEBUG("Block[%d] is temporary. deleting it.", nCacheId);
        if (m_servedOnlyIds.erase(nCacheId) != 0)
            m_nServedSize -= pBlock->GetSize();
        else
            m_nUsedSize -= pBlock->GetSize();
        pBlock.reset();
        if (m_EraseQueryOf(nCacheId)) MOX_DEBUG("Find block[%d], remove it from querytoId map.", nCacheId);
        return;
    }
    // The query stays mapped: a later identical query reactivates the block.
    m_cachePoolBlockMap.emplace(nCacheId, std::move(pBlock));
    m_LRUIndexes.push_back(nCacheId);
}

void CCachePool::m_Delete(const std::string& strQuery) {
    auto query = m_queryToCacheIdMap.find(strQuery);
    if (query == m_queryToCacheIdMap.end()) {
        MOX_DEBUG("There is no block related with url[%s].", UrlForLog(strQuery).c_str());
        return;
    }
    m_Delete(query->second);
}

void CCachePool::m_Print() {
    // One summary line per operation, never a table: a dump of every entry
    // made the log of one list grow with the pool.
    MOX_DEBUG("pool: %zu kept queries, %zu query ids, %zu committed, %zu pooled, %zu in LRU.",
              m_persistantBlockMap.size(), m_queryToCacheIdMap.size(), m_committedBlockMap.size(),
              m_cachePoolBlockMap.size(), m_LRUIndexes.size());
}
