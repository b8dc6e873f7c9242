// CCachePool: the process-wide owner of every finished data block, reached
// through CMOXSingleton<CCachePool>. It maps a query text ("url") to the block
// that answers it, counts the clients holding each block, keeps released LRU
// blocks for later identical queries and evicts them oldest-release first
// when admitting a block would take the blocks' total size over 10 MiB.
// Persistent blocks live in their own map and are not counted.
//
// Bounds (every query text comes from a client document): the pool holds at
// most kMaxEntries blocks, whatever their size, and keeps at most
// kMaxQueryTextBytes of query text. Making room evicts the oldest released
// blocks; a block that a client still holds is never evicted. A query text
// above kMaxQueryTextSize, or one that does not fit while the kept texts
// belong to held blocks, is not kept: its block answers this request and is
// destroyed when released (a later identical query misses). The memory limit
// bounds what is kept, never what is served: a block that does not fit
// beside the held blocks (a folder of 100,000 files answers some 18 MB) is
// served the same way, not kept, as long as such blocks held at once total
// at most kMaxServedBytes. A block beyond that or beyond the entry bound is
// refused. Each bound logs one warning when it starts to bite (debug lines
// until it is relieved).
//
// Validity: an answer is kept with what keeps it valid (SCacheValidity): the
// source's stamp, checked on every hit, and the storage paths its query
// names. ForgetTouching(path) makes every answer naming that path, a path
// below it or its parent folder unreachable at once (storage events, the
// engine's own writes); a block still held then goes when it is released.
// An answer built while such an invalidation ran is served but not kept.
//
// A block record leaves the pool only by being destroyed, which unlinks its
// shared-memory object. Every public operation holds m_mutex for its whole
// duration, so request threads of several commands may call concurrently;
// the m_ operations require m_mutex held.
#pragma once

#include "mox_thread_annotations.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "cache_block.h"
#include "cache_builder.h"

// What keeps a cached answer valid.
struct SCacheValidity {
    bool bKeep = true;               // false: answer this request only
    std::string strStamp;            // compared on every hit when not empty
    std::vector<std::string> paths;  // normalised storage paths the query names
    uint64_t nGeneration = 0;        // GetGeneration() when the answer was asked for
};

class CCachePool {
public:
    static constexpr int kMemoryLimit = 10 * 1024 * 1024;
    // Above what one client may hold (256 lists of up to 16 sources each),
    // so that no client alone fills the pool.
    static constexpr int kMaxEntries = 8192;
    static constexpr int kMaxQueryTextSize = 16 * 1024;
    static constexpr int kMaxQueryTextBytes = 4 * 1024 * 1024;
    // Blocks served but too big to keep, held at once (a list of 1,000,000
    // files takes some 180 MB of shared memory, not of the daemon's).
    static constexpr int64_t kMaxServedBytes = 512LL * 1024 * 1024;

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
    // As above, with what keeps the answer valid.
    bool Add(const std::string& strQuery, CCacheBuilder& builder, std::string& strShmName,
             const SCacheValidity& validity);
    // On a hit, counts one more client of the block and returns its name.
    bool HitCache(std::string strQuery, std::string& strShmName);
    // As above, but a kept answer whose stamp differs from strStamp is
    // forgotten and the lookup misses.
    bool HitCache(const std::string& strQuery, std::string& strShmName, const std::string& strStamp);
    // Forgets every kept answer whose query names strPath, a path below it
    // or its parent folder; returns how many.
    int ForgetTouching(const std::string& strPath);
    // Shutdown while commands still run (the pool then stays): unlinks the
    // object of every block it holds; the records stay for their users.
    void UnlinkAllAtExit();
    // Counts invalidations: an answer asked for before the last one is not kept.
    uint64_t GetGeneration();
    // strPath with "." components, repeated and trailing slashes removed and
    // ".." applied lexically; empty for a path that is not absolute.
    static std::string NormalisePath(const std::string& strPath);
    // One client lets go of block nCacheId.
    void Delete(int nCacheId);
    // Drops the persistent block of strQuery, then lets go of its other block.
    void Delete(const std::string& strQuery);

    // Introspection for diagnostics and tests.
    enum EBlockState { kBlockUnknown, kBlockCommitted, kBlockCached };
    EBlockState GetBlockState(int nCacheId);
    int GetRefCount(int nCacheId);  // 0 when the id has no count
    int GetUsedSize();
    int64_t GetServedSize();           // blocks served but not counted as kept
    int GetEntryCount();               // committed, cached and persistent blocks
    int64_t GetQueryTextBytes();       // bytes of the query texts kept
    std::vector<int> GetLRUIndexes();  // oldest release first

private:
    // Every m_ operation requires m_mutex.
    CCacheBlock* m_HitCache(const std::string& strQuery) REQUIRES(m_mutex);
    bool m_Add(const std::string& strQuery, std::unique_ptr<CCacheBlock> pBlock, bool bKeepQuery = true)
        REQUIRES(m_mutex);
    bool m_AddPersistant(std::string strQuery, std::unique_ptr<CCacheBlock> pBlock) REQUIRES(m_mutex);
    // Evicts the oldest released block (and its query); false when none is left.
    bool m_EvictOldest() REQUIRES(m_mutex);
    // Evicts until one more entry (with nTextSize bytes of query text, when
    // kept) fits; false when the held blocks leave no room.
    bool m_MakeRoomForEntry() REQUIRES(m_mutex);
    bool m_MakeRoomForText(size_t nTextSize) REQUIRES(m_mutex);
    int m_EntryCount() const REQUIRES(m_mutex);
    int64_t m_CachedSize() const REQUIRES(m_mutex);  // released blocks kept
    // Maps strQuery to nCacheId and counts its text; false if already mapped.
    bool m_KeepQuery(const std::string& strQuery, int nCacheId) REQUIRES(m_mutex);
    void m_DeletePersistant(const std::string& strQuery) REQUIRES(m_mutex);
    CCacheBlock* m_ActiveCacheBlock(int nCacheId) REQUIRES(m_mutex);
    void m_DeactiveCacheBlock(int nCacheId) REQUIRES(m_mutex);
    void m_Delete(int nCacheId) REQUIRES(m_mutex);
    void m_Delete(const std::string& strQuery) REQUIRES(m_mutex);
    // Erases the query mapped to nCacheId (and its validity); false if none.
    bool m_EraseQueryOf(int nCacheId) REQUIRES(m_mutex);
    // Makes block nCacheId unreachable: a released one is destroyed, a held
    // one goes when released.
    void m_Forget(int nCacheId) REQUIRES(m_mutex);
    void m_Print() REQUIRES(m_mutex);

    mox::Mutex m_mutex;
    std::map<std::string, std::unique_ptr<CCacheBlock>> m_persistantBlockMap GUARDED_BY(m_mutex);
    std::map<std::string, int> m_queryToCacheIdMap GUARDED_BY(m_mutex);
    // The reverse of m_queryToCacheIdMap (its iterators stay valid until erased).
    std::map<int, std::map<std::string, int>::iterator> m_cacheIdToQueryMap GUARDED_BY(m_mutex);
    std::map<int, std::unique_ptr<CCacheBlock>> m_committedBlockMap GUARDED_BY(m_mutex);
    std::map<int, std::unique_ptr<CCacheBlock>> m_cachePoolBlockMap GUARDED_BY(m_mutex);
    std::map<int, int> m_refCountMap GUARDED_BY(m_mutex);
    std::deque<int> m_LRUIndexes GUARDED_BY(m_mutex);
    // Sum of the sizes of the committed and cache-pool blocks.
    int m_nUsedSize GUARDED_BY(m_mutex) = 0;
    // Sum of the sizes of the keys of m_queryToCacheIdMap and m_persistantBlockMap.
    int64_t m_nQueryTextBytes GUARDED_BY(m_mutex) = 0;
    // What keeps each kept query's answer valid, by cache id.
    std::map<int, SCacheValidity> m_validityMap GUARDED_BY(m_mutex);
    uint64_t m_nGeneration GUARDED_BY(m_mutex) = 0;
    // Committed blocks without a kept query: destroyed when released.
    std::set<int> m_unkeptIds GUARDED_BY(m_mutex);
    // Those of them counted in m_nServedSize, not m_nUsedSize (too big to keep).
    std::set<int> m_servedOnlyIds GUARDED_BY(m_mutex);
    int64_t m_nServedSize GUARDED_BY(m_mutex) = 0;
    bool m_bMemoryLimitWarned GUARDED_BY(m_mutex) = false;
    bool m_bEntryLimitWarned GUARDED_BY(m_mutex) = false;
    bool m_bTextLimitWarned GUARDED_BY(m_mutex) = false;
    bool m_bQueryTooLongWarned GUARDED_BY(m_mutex) = false;
};
