// Cache pool: admission under the 10 MiB limit, hits and reference counts,
// release to the LRU queue, eviction order, reactivation, temporary and
// persistent blocks, unknown ids, and concurrent callers.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <mox/mox_singleton.h>

#include "cache_builder.h"
#include "cache_pool.h"
#include "shm_test_util.h"

namespace {

const int kMiB = 1024 * 1024;

// A built block of exactly nSize bytes (one item, no groups: 28 + A + 4).
// The item bytes are left as ftruncate's zeros; only the size matters here.
void BuildBlockOfSize(CCacheBuilder& builder, int nSize) {
    moxtest::TrackShm(builder.GetName());
    std::vector<mox_data_group_s> groups;
    std::vector<mox_data_length_s> lengths = {{nSize - 32}};
    ASSERT_TRUE(builder.Build(nSize - 32, 0, 0, 1, groups, lengths));
}

int IdOf(const std::string& name) {
    int nId = -1;
    EXPECT_TRUE(CCacheBuilder::GetCacheId(name, nId));
    return nId;
}

// Adds a block of nSize bytes for strQuery; returns the name that answers it
// ("" when refused).
std::string AddBlock(CCachePool& pool, const std::string& strQuery, int nSize,
                     mox_cache_block_type eType = MOX_CACHE_BLOCK_LRU) {
    CCacheBuilder builder(eType);
    BuildBlockOfSize(builder, nSize);
    std::string name;
    if (!pool.Add(strQuery, builder, name)) return "";
    return name;
}

}  // namespace

TEST(CachePoolAdmission, AddHitAndReleaseCountClients) {
    CCachePool pool;
    const std::string name = AddBlock(pool, "q1", 1000);
    ASSERT_FALSE(name.empty());
    const int id = IdOf(name);
    EXPECT_EQ(pool.GetBlockState(id), CCachePool::kBlockCommitted);
    EXPECT_EQ(pool.GetRefCount(id), 1);
    EXPECT_EQ(pool.GetUsedSize(), 1000);

    std::string hit;
    ASSERT_TRUE(pool.HitCache("q1", hit));
    EXPECT_EQ(hit, name);
    EXPECT_EQ(pool.GetRefCount(id), 2);
    EXPECT_FALSE(pool.HitCache("other", hit));

    // Count 2 -> 1: still committed; 1 -> 0: to the back of the LRU queue.
    pool.Delete(id);
    EXPECT_EQ(pool.GetBlockState(id), CCachePool::kBlockCommitted);
    EXPECT_EQ(pool.GetRefCount(id), 1);
    pool.Delete(id);
    EXPECT_EQ(pool.GetBlockState(id), CCachePool::kBlockCached);
    EXPECT_EQ(pool.GetLRUIndexes(), std::vector<int>{id});
    EXPECT_TRUE(moxtest::ShmExists(name));
    EXPECT_EQ(pool.GetUsedSize(), 1000);

    // Reactivation: out of the queue, count 1, size unchanged.
    ASSERT_TRUE(pool.HitCache("q1", hit));
    EXPECT_EQ(hit, name);
    EXPECT_EQ(pool.GetBlockState(id), CCachePool::kBlockCommitted);
    EXPECT_EQ(pool.GetRefCount(id), 1);
    EXPECT_TRUE(pool.GetLRUIndexes().empty());
    EXPECT_EQ(pool.GetUsedSize(), 1000);
    pool.Delete(id);
}

TEST(CachePoolAdmission, SecondBlockForAMappedQueryIsDestroyed) {
    CCachePool pool;
    const std::string first = AddBlock(pool, "q", 100);
    size_t mark = moxtest::LogMark();
    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    BuildBlockOfSize(builder, 200);
    const std::string second = builder.GetName();
    std::string name;
    ASSERT_TRUE(pool.Add("q", builder, name));
    EXPECT_EQ(name, first);
    EXPECT_FALSE(moxtest::ShmExists(second));
    EXPECT_EQ(pool.GetRefCount(IdOf(first)), 2);
    EXPECT_EQ(pool.GetUsedSize(), 100);
    EXPECT_NE(moxtest::LogSince(mark).find("Already exist block with url[q], remove block[" +
                                           std::to_string(IdOf(second)) + "]."),
              std::string::npos);
    pool.Delete("q");
    pool.Delete("q");
}

TEST(CachePoolAdmission, UnbuiltBuilderIsFreedAndRefused) {
    CCachePool pool;
    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    moxtest::TrackShm(builder.GetName());
    std::string name = "unchanged";
    EXPECT_FALSE(pool.Add("q", builder, name));
    EXPECT_EQ(name, "unchanged");
    EXPECT_FALSE(moxtest::ShmExists(builder.GetName()));
    EXPECT_FALSE(pool.HitCache("q", name));
}

TEST(CachePoolLimit, BlockAboveTheLimitEvictsEverythingThenIsRefused) {
    CCachePool pool;
    const std::string a = AddBlock(pool, "a", 2 * kMiB);
    const std::string b = AddBlock(pool, "b", 2 * kMiB);
    pool.Delete(IdOf(a));
    size_t mark = moxtest::LogMark();
    CCacheBuilder big(MOX_CACHE_BLOCK_LRU);
    BuildBlockOfSize(big, 11 * kMiB);
    const std::string bigName = big.GetName();
    std::string name;
    EXPECT_FALSE(pool.Add("big", big, name));
    std::string log = moxtest::LogSince(mark);
    EXPECT_NE(log.find("memory still over limitation."), std::string::npos);
    EXPECT_NE(log.find("Add block[" + std::to_string(IdOf(bigName)) + "] fail, remove it."), std::string::npos);
    EXPECT_FALSE(moxtest::ShmExists(bigName));
    // The released block went on the way; the committed one stays.
    EXPECT_FALSE(moxtest::ShmExists(a));
    EXPECT_FALSE(pool.HitCache("a", name));
    EXPECT_TRUE(moxtest::ShmExists(b));
    EXPECT_EQ(pool.GetUsedSize(), 2 * kMiB);
    pool.Delete(IdOf(b));
}

TEST(CachePoolLimit, EvictionTakesTheOldestReleaseFirst) {
    CCachePool pool;
    const int size = 3 * kMiB;
    const std::string a = AddBlock(pool, "a", size);
    const std::string b = AddBlock(pool, "b", size);
    const std::string c = AddBlock(pool, "c", size);
    pool.Delete(IdOf(a));
    pool.Delete(IdOf(c));
    pool.Delete(IdOf(b));
    EXPECT_EQ(pool.GetLRUIndexes(), (std::vector<int>{IdOf(a), IdOf(c), IdOf(b)}));

    // 9 MiB used: a fourth block evicts a, a fifth evicts c.
    const std::string d = AddBlock(pool, "d", size);
    ASSERT_FALSE(d.empty());
    EXPECT_FALSE(moxtest::ShmExists(a));
    EXPECT_TRUE(moxtest::ShmExists(c));
    EXPECT_EQ(pool.GetLRUIndexes(), (std::vector<int>{IdOf(c), IdOf(b)}));
    const std::string e = AddBlock(pool, "e", size);
    ASSERT_FALSE(e.empty());
    EXPECT_FALSE(moxtest::ShmExists(c));
    EXPECT_TRUE(moxtest::ShmExists(b));
    EXPECT_EQ(pool.GetUsedSize(), 3 * size);

    // An evicted query misses and is answered afresh; a kept one hits.
    std::string name;
    EXPECT_FALSE(pool.HitCache("a", name));
    EXPECT_TRUE(pool.HitCache("b", name));
    EXPECT_EQ(name, b);
    // Exactly at the limit is admitted: 9 MiB + 1 MiB.
    const std::string f = AddBlock(pool, "f", kMiB);
    EXPECT_FALSE(f.empty());
    EXPECT_EQ(pool.GetUsedSize(), 10 * kMiB);
    for (const std::string& n : {b, d, e, f}) pool.Delete(IdOf(n));
}

TEST(CachePoolTypes, TemporaryBlockDiesWithItsLastClient) {
    CCachePool pool;
    const std::string t = AddBlock(pool, "t", 500, MOX_CACHE_BLOCK_TEMPORARY);
    std::string name;
    ASSERT_TRUE(pool.HitCache("t", name));
    pool.Delete(IdOf(t));
    EXPECT_TRUE(moxtest::ShmExists(t));
    size_t mark = moxtest::LogMark();
    pool.Delete(IdOf(t));
    EXPECT_FALSE(moxtest::ShmExists(t));
    EXPECT_NE(moxtest::LogSince(mark).find("is temporary. deleting it."), std::string::npos);
    EXPECT_EQ(pool.GetUsedSize(), 0);
    EXPECT_TRUE(pool.GetLRUIndexes().empty());
    EXPECT_FALSE(pool.HitCache("t", name));
}

TEST(CachePoolTypes, PersistentBlockIsNotCountedAndLeavesWithItsQuery) {
    CCachePool pool;
    const std::string p = AddBlock(pool, "p", 12 * kMiB, MOX_CACHE_BLOCK_PERSISTANT);
    ASSERT_FALSE(p.empty());
    EXPECT_EQ(pool.GetUsedSize(), 0);
    EXPECT_EQ(pool.GetBlockState(IdOf(p)), CCachePool::kBlockUnknown);
    std::string name;
    ASSERT_TRUE(pool.HitCache("p", name));
    EXPECT_EQ(name, p);
    EXPECT_EQ(pool.GetRefCount(IdOf(p)), 0);
    pool.Delete("p");
    EXPECT_FALSE(moxtest::ShmExists(p));
    EXPECT_FALSE(pool.HitCache("p", name));
}

TEST(CachePoolTypes, UnknownIdsAndQueriesChangeNothing) {
    CCachePool pool;
    const std::string a = AddBlock(pool, "a", 100);
    size_t mark = moxtest::LogMark();
    pool.Delete(987654);
    std::string log = moxtest::LogSince(mark);
    EXPECT_NE(log.find("block[987654] is not referenced with any client."), std::string::npos);
    EXPECT_NE(log.find("Block[987654] is not exist."), std::string::npos);
    pool.Delete("nobody asked this");
    EXPECT_NE(moxtest::LogSince(mark).find("There is no block related with url[nobody asked this]."),
              std::string::npos);
    EXPECT_EQ(pool.GetRefCount(IdOf(a)), 1);
    EXPECT_EQ(pool.GetUsedSize(), 100);
    pool.Delete(IdOf(a));
}

TEST(CachePoolDump, PrintListsEveryMapAfterEachChange) {
    CCachePool pool;
    size_t mark = moxtest::LogMark();
    const std::string a = AddBlock(pool, "qa", 100);
    pool.Delete(IdOf(a));
    std::string log = moxtest::LogSince(mark);
    const std::string id = std::to_string(IdOf(a));
    for (const std::string& line :
         {std::string("===========INFO!!!Begin==========="), std::string("m_persistantBlockMap detail:"),
          std::string("url[qa], blockId[" + id + "]."),
          std::string("blockId[" + id + "], blockName[" + a + "], refCount[1]."),
          std::string("blockId[" + id + "], blockName[" + a + "], refCount[0]."), std::string("m_LRUIndexes detail:"),
          std::string("blockId[" + id + "]."), std::string("===========INFO!!!End===========")})
        EXPECT_NE(log.find(line), std::string::npos) << line;
}

TEST(CachePoolLifetime, DestroyingThePoolUnlinksEveryBlock) {
    std::vector<std::string> names;
    size_t mark = moxtest::LogMark();
    {
        CCachePool pool;
        names.push_back(AddBlock(pool, "committed", 100));
        names.push_back(AddBlock(pool, "cached", 100));
        names.push_back(AddBlock(pool, "kept", 100, MOX_CACHE_BLOCK_PERSISTANT));
        pool.Delete(IdOf(names[1]));
    }
    for (const std::string& n : names) EXPECT_FALSE(moxtest::ShmExists(n)) << n;
    EXPECT_NE(moxtest::LogSince(mark).find("m_committedBlockMap should be empty."), std::string::npos);
}

TEST(CachePoolLifetime, SingletonHandsOutOnePool) {
    CCachePool* pool = CMOXSingleton<CCachePool>::Get();
    EXPECT_EQ(pool, CMOXSingleton<CCachePool>::Get());
    const std::string a = AddBlock(*pool, "s", 100);
    pool->Delete(IdOf(a));
    CMOXSingleton<CCachePool>::Destroy();
    EXPECT_FALSE(moxtest::ShmExists(a));
}

// Request threads hit, add and release concurrently: every hit-then-add race
// resolves to one block per query and every count returns to 0.
TEST(CachePoolConcurrency, ConcurrentHitAddDelete) {
    CCachePool pool;
    const int kThreads = 4, kRounds = 150, kQueries = 12;
    std::atomic<int> failures{0};
    auto worker = [&](int seed) {
        std::mt19937 rng(seed);
        for (int r = 0; r < kRounds; ++r) {
            const std::string query = "query" + std::to_string(rng() % kQueries);
            std::string name;
            if (!pool.HitCache(query, name)) {
                CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
                moxtest::TrackShm(builder.GetName());
                std::vector<mox_data_group_s> groups;
                std::vector<mox_data_length_s> lengths = {{64}};
                if (!builder.Build(64, 0, 0, 1, groups, lengths) || !pool.Add(query, builder, name)) {
                    ++failures;
                    continue;
                }
            }
            int nId = -1;
            if (!CCacheBuilder::GetCacheId(name, nId) || !moxtest::ShmExists(name)) ++failures;
            pool.Delete(nId);
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) threads.emplace_back(worker, t + 1);
    for (auto& t : threads) t.join();
    EXPECT_EQ(failures.load(), 0);
    std::vector<int> lru = pool.GetLRUIndexes();
    EXPECT_LE(lru.size(), static_cast<size_t>(kQueries));
    for (int nId : lru) {
        EXPECT_EQ(pool.GetBlockState(nId), CCachePool::kBlockCached);
        EXPECT_EQ(pool.GetRefCount(nId), 0);
    }
    EXPECT_EQ(pool.GetUsedSize(), static_cast<int>(lru.size()) * (28 + 64 + 4));
}
