// CCachePool: the process-wide owner of every finished data block, reached
// through CMOXSingleton<CCachePool>. It maps a query text ("url") to the block
// that answers it, counts the clients holding each block, keeps released LRU
// blocks for later identical queries and evicts them oldest-release first
// when admitting a block would take the blocks' total size over 10 MiB.
// Persistent blocks live in their own map and are not counted.
//
// A block record leaves the pool only by being destroyed, which unlinks its
// shared-memory object. Every public operation holds m_mutex for its whole
// duration, so request threads of several commands may call concurrently;
// the m_ operations require m_mutex held.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cache_block.h"
#include "cache_builder.h"

class CCachePool {
public:
    static const int kMemoryLimit = 10 * 1024 * 1024;

    CCachePool();
    ~CCachePool();
    CCachePool(const CCachePool&) = delete;
    CCachePool& operator=(const CCachePool&) = delete;

    // Adopts the block of a built builder for strQuery. strShmName receives
    // the name that answers the query: the new block, or the block already
    // mapped to the query (the new one is then destroyed). False when the
    // builder holds no built block (it is freed) or when the block cannot be
    // admitted under the limit (it is destroyed).
    bool Add(std::string strQuery, CCacheBuilder& builder, std::string& strShmName);
    // On a hit, counts one more client of the block and returns its name.
    bool HitCache(std::string strQuery, std::string& strShmName);
    // One client lets go of block nCacheId.
    void Delete(int nCacheId);
    // Drops the persistent block of strQuery, then lets go of its other block.
    void Delete(std::string strQuery);

    // Introspection for diagnostics and tests.
    enum EBlockState { kBlockUnknown, kBlockCommitted, kBlockCached };
    EBlockState GetBlockState(int nCacheId);
    int GetRefCount(int nCacheId);  // 0 when the id has no count
    int GetUsedSize();
    std::vector<int> GetLRUIndexes();  // oldest release first

private:
    CCacheBlock* m_HitCache(std::string strQuery);
    bool m_Add(std::string strQuery, std::unique_ptr<CCacheBlock> pBlock);
    void m_AddPersistant(std::string strQuery, std::unique_ptr<CCacheBlock> pBlock);
    void m_DeletePersistant(std::string strQuery);
    CCacheBlock* m_ActiveCacheBlock(int nCacheId);
    void m_DeactiveCacheBlock(int nCacheId);
    void m_Delete(int nCacheId);
    void m_Delete(std::string strQuery);
    // Erases the first query (in key order) mapped to nCacheId; false if none.
    bool m_EraseQueryOf(int nCacheId);
    void m_Print();

    std::mutex m_mutex;
    std::map<std::string, std::unique_ptr<CCacheBlock>> m_persistantBlockMap;  // GUARDED_BY(m_mutex)
    std::map<std::string, int> m_queryToCacheIdMap;                          // GUARDED_BY(m_mutex)
    std::map<int, std::unique_ptr<CCacheBlock>> m_committedBlockMap;         // GUARDED_BY(m_mutex)
    std::map<int, std::unique_ptr<CCacheBlock>> m_cachePoolBlockMap;         // GUARDED_BY(m_mutex)
    std::map<int, int> m_refCountMap;                                        // GUARDED_BY(m_mutex)
    std::deque<int> m_LRUIndexes;                                            // GUARDED_BY(m_mutex)
    // Sum of the sizes of the committed and cache-pool blocks.
    int m_nUsedSize = 0;  // GUARDED_BY(m_mutex)
};
