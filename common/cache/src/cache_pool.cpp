#define MOX_LOG_TAG "MOX-CACHE"
#include "cache_pool.h"

#include <algorithm>

#include <mox/mox_log.h>

CCachePool::CCachePool() = default;

CCachePool::~CCachePool() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_LRUIndexes.clear();
    m_refCountMap.clear();
    m_queryToCacheIdMap.clear();
    m_persistantBlockMap.clear();
    m_cachePoolBlockMap.clear();
    if (!m_committedBlockMap.empty()) {
        MOX_WARN("m_committedBlockMap should be empty.");
        m_committedBlockMap.clear();
    }
    m_nUsedSize = 0;
}

bool CCachePool::Add(std::string strQuery, CCacheBuilder& builder, std::string& strShmName) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!builder.IsBuilt()) {
        MOX_WARN("Builder[%s] holds no built block, free it.", builder.GetName().c_str());
        builder.Free();
        return false;
    }
    std::unique_ptr<CCacheBlock> pBlock = builder.Release();
    assert(pBlock != nullptr);

    if (CCacheBlock* pHit = m_HitCache(strQuery)) {
        MOX_DEBUG("Already exist block with url[%s], remove block[%d].", strQuery.c_str(), pBlock->GetCacheId());
        pBlock.reset();
        strShmName = pHit->GetName();
        return true;
    }
    std::string strName = pBlock->GetName();
    if (pBlock->GetType() != MOX_CACHE_BLOCK_PERSISTANT) {
        int nCacheId = pBlock->GetCacheId();
        if (!m_Add(strQuery, std::move(pBlock))) {
            MOX_WARN("Add block[%d] fail, remove it.", nCacheId);
            return false;
        }
    } else {
        m_AddPersistant(strQuery, std::move(pBlock));
    }
    strShmName = strName;
    MOX_INFO("Add block[%s] success", strName.c_str());
    return true;
}

bool CCachePool::HitCache(std::string strQuery, std::string& strShmName) {
    std::lock_guard<std::mutex> lock(m_mutex);
    CCacheBlock* pBlock = m_HitCache(strQuery);
    if (pBlock == nullptr) return false;
    strShmName = pBlock->GetName();
    return true;
}

void CCachePool::Delete(int nCacheId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_Delete(nCacheId);
}

void CCachePool::Delete(std::string strQuery) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_DeletePersistant(strQuery);
    m_Delete(strQuery);
}

CCachePool::EBlockState CCachePool::GetBlockState(int nCacheId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_committedBlockMap.count(nCacheId)) return kBlockCommitted;
    if (m_cachePoolBlockMap.count(nCacheId)) return kBlockCached;
    return kBlockUnknown;
}

int CCachePool::GetRefCount(int nCacheId) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_refCountMap.find(nCacheId);
    return it == m_refCountMap.end() ? 0 : it->second;
}

int CCachePool::GetUsedSize() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_nUsedSize;
}

std::vector<int> CCachePool::GetLRUIndexes() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return std::vector<int>(m_LRUIndexes.begin(), m_LRUIndexes.end());
}

CCacheBlock* CCachePool::m_HitCache(std::string strQuery) {
    auto persistant = m_persistantBlockMap.find(strQuery);
    if (persistant != m_persistantBlockMap.end()) return persistant->second.get();

    auto query = m_queryToCacheIdMap.find(strQuery);
    if (query == m_queryToCacheIdMap.end()) {
        MOX_DEBUG("Hit nothing with url[%s].", strQuery.c_str());
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
    for (auto it = m_queryToCacheIdMap.begin(); it != m_queryToCacheIdMap.end(); ++it) {
        if (it->second == nCacheId) {
            m_queryToCacheIdMap.erase(it);
            return true;
        }
    }
    return false;
}

bool CCachePool::m_Add(std::string strQuery, std::unique_ptr<CCacheBlock> pBlock) {
    assert(pBlock != nullptr);
    const int nSize = pBlock->GetSize();
    // Sizes are bounded by MOX_SHM_OBJECT_MAX_SIZE, the used size by the
    // limit: no overflow in the sum.
    while (m_nUsedSize + nSize > kMemoryLimit) {
        if (m_LRUIndexes.empty()) {
            MOX_WARN("memory still over limitation.");
            return false;  // pBlock is destroyed, its object unlinked
        }
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
        m_cachePoolBlockMap.erase(cached);
    }
    const int nCacheId = pBlock->GetCacheId();
    m_queryToCacheIdMap.emplace(strQuery, nCacheId);
    m_committedBlockMap.emplace(nCacheId, std::move(pBlock));
    m_refCountMap.emplace(nCacheId, 1);
    m_nUsedSize += nSize;
    m_Print();
    return true;
}

void CCachePool::m_AddPersistant(std::string strQuery, std::unique_ptr<CCacheBlock> pBlock) {
    assert(pBlock != nullptr);
    // An existing entry stays; the newcomer is then destroyed with pBlock.
    m_persistantBlockMap.emplace(strQuery, std::move(pBlock));
}

void CCachePool::m_DeletePersistant(std::string strQuery) { m_persistantBlockMap.erase(strQuery); }

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
    if (pBlock->GetType() == MOX_CACHE_BLOCK_TEMPORARY) {
        MOX_DEBUG("Block[%d] is temporary. deleting it.", nCacheId);
        m_nUsedSize -= pBlock->GetSize();
        pBlock.reset();
        if (m_EraseQueryOf(nCacheId)) MOX_DEBUG("Find block[%d], remove it from querytoId map.", nCacheId);
        return;
    }
    // The query stays mapped: a later identical query reactivates the block.
    m_cachePoolBlockMap.emplace(nCacheId, std::move(pBlock));
    m_LRUIndexes.push_back(nCacheId);
}

void CCachePool::m_Delete(std::string strQuery) {
    auto query = m_queryToCacheIdMap.find(strQuery);
    if (query == m_queryToCacheIdMap.end()) {
        MOX_DEBUG("There is no block related with url[%s].", strQuery.c_str());
        return;
    }
    m_Delete(query->second);
}

void CCachePool::m_Print() {
    // The dump walks every map on every operation; skip it when the log drops
    // debug lines anyway (the first line then reports 0 bytes written).
    if (MOX_DEBUG("===========INFO!!!Begin===========") <= 0) return;
    MOX_DEBUG("m_persistantBlockMap detail:");
    for (const auto& entry : m_persistantBlockMap)
        MOX_DEBUG("url[%s], blockName[%s].", entry.first.c_str(), entry.second->GetName().c_str());
    MOX_DEBUG("m_queryToCacheIdMap detail:");
    for (const auto& entry : m_queryToCacheIdMap)
        MOX_DEBUG("url[%s], blockId[%d].", entry.first.c_str(), entry.second);
    auto refCount = [this](int nCacheId) {
        auto it = m_refCountMap.find(nCacheId);
        return it == m_refCountMap.end() ? 0 : it->second;
    };
    MOX_DEBUG("m_committedBlockMap detail:");
    for (const auto& entry : m_committedBlockMap)
        MOX_DEBUG("blockId[%d], blockName[%s], refCount[%d].", entry.first, entry.second->GetName().c_str(),
                  refCount(entry.first));
    MOX_DEBUG("m_cachePoolBlockMap detail:");
    for (const auto& entry : m_cachePoolBlockMap)
        MOX_DEBUG("blockId[%d], blockName[%s], refCount[%d].", entry.first, entry.second->GetName().c_str(),
                  refCount(entry.first));
    MOX_DEBUG("m_LRUIndexes detail:");
    for (int nCacheId : m_LRUIndexes) MOX_DEBUG("blockId[%d].", nCacheId);
    MOX_DEBUG("===========INFO!!!End===========");
}
