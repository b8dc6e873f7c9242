// Cache pool: admission under the 10 MiB limit, hits and reference counts,
// release to the LRU queue, eviction order, reactivation, temporary and
// persistent blocks, unknown ids, and concurrent callers.
#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "cache_builder.h"
#include "cache_pool.h"
#include "shm_test_util.h"

namespace {

const int kMiB = 1024 * 1024;

// A built block of exactly nSize bytes (one item, no groups: 28 + A + 4);
// the item bytes are left as ftruncate's zeros.
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

// Returns the name that answers strQuery ("" when refused).
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

TEST(CachePoolAdmission, SecondBlockForAMappedQueryOrUnbuiltBuilderIsDestroyed) {
    CCachePool pool;
    const std::string first = AddBlock(pool, "q", 100);
    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    BuildBlockOfSize(builder, 200);
    std::string name;
    ASSERT_TRUE(pool.Add("q", builder, name));
    EXPECT_EQ(name, first);
    EXPECT_FALSE(moxtest::ShmExists(builder.GetName()));
    EXPECT_EQ(pool.GetRefCount(IdOf(first)), 2);
    EXPECT_EQ(pool.GetUsedSize(), 100);
    pool.Delete("q");
    pool.Delete("q");

    CCacheBuilder unbuilt(MOX_CACHE_BLOCK_LRU);
    moxtest::TrackShm(unbuilt.GetName());
    name = "unchanged";
    EXPECT_FALSE(pool.Add("u", unbuilt, name));
    EXPECT_EQ(name, "unchanged");
    EXPECT_FALSE(moxtest::ShmExists(unbuilt.GetName()));
    EXPECT_FALSE(pool.HitCache("u", name));
}

// The limit bounds what is kept, never what is served: a block too big to
// keep beside the held ones answers its request under its own name, is
// counted apart (not against later admissions) and goes with its last
// client; no kept block is evicted for it.
TEST(CachePoolLimit, BlockTooBigToKeepIsServedCountedApartAndEvictsNothing) {
    CCachePool pool;
    const std::string held = AddBlock(pool, "held", 4 * kMiB);
    const std::string kept = AddBlock(pool, "kept", 2 * kMiB);
    pool.Delete(IdOf(kept));
    CCacheBuilder big(MOX_CACHE_BLOCK_LRU);
    BuildBlockOfSize(big, 12 * kMiB);
    std::string name;
    ASSERT_TRUE(pool.Add("big", big, name));
    EXPECT_EQ(name, big.GetName());
    EXPECT_TRUE(moxtest::ShmExists(name));
    EXPECT_EQ(pool.GetUsedSize(), 6 * kMiB);
    EXPECT_EQ(pool.GetServedSize(), 12 * kMiB);
    EXPECT_EQ(pool.GetLRUIndexes(), std::vector<int>{IdOf(kept)});
    EXPECT_FALSE(pool.HitCache("big", name));

    // 6 MiB fits once the released block goes: evicted, and kept itself.
    const std::string fits = AddBlock(pool, "fits", 6 * kMiB);
    ASSERT_FALSE(fits.empty());
    EXPECT_FALSE(moxtest::ShmExists(kept));
    EXPECT_EQ(pool.GetUsedSize(), 10 * kMiB);
    EXPECT_EQ(pool.GetServedSize(), 12 * kMiB);

    pool.Delete(IdOf(big.GetName()));
    EXPECT_FALSE(moxtest::ShmExists(big.GetName()));
    EXPECT_EQ(pool.GetServedSize(), 0);
    pool.Delete(IdOf(fits));
    EXPECT_TRUE(pool.HitCache("fits", name));
    EXPECT_EQ(name, fits);
    pool.Delete(IdOf(fits));
    pool.Delete(IdOf(held));
    EXPECT_EQ(pool.GetUsedSize(), 10 * kMiB);
    EXPECT_EQ(pool.GetEntryCount(), 2);
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

TEST(CachePoolTypes, TemporaryDiesWithItsLastClientPersistentWithItsQuery) {
    CCachePool pool;
    const std::string t = AddBlock(pool, "t", 500, MOX_CACHE_BLOCK_TEMPORARY);
    std::string name;
    ASSERT_TRUE(pool.HitCache("t", name));
    pool.Delete(IdOf(t));
    EXPECT_TRUE(moxtest::ShmExists(t));
    pool.Delete(IdOf(t));
    EXPECT_FALSE(moxtest::ShmExists(t));
    EXPECT_EQ(pool.GetUsedSize(), 0);
    EXPECT_TRUE(pool.GetLRUIndexes().empty());
    EXPECT_FALSE(pool.HitCache("t", name));

    // Persistent blocks are not counted against the limit, nor referenced.
    const std::string p = AddBlock(pool, "p", 12 * kMiB, MOX_CACHE_BLOCK_PERSISTANT);
    ASSERT_FALSE(p.empty());
    EXPECT_EQ(pool.GetUsedSize(), 0);
    EXPECT_EQ(pool.GetBlockState(IdOf(p)), CCachePool::kBlockUnknown);
    ASSERT_TRUE(pool.HitCache("p", name));
    EXPECT_EQ(name, p);
    EXPECT_EQ(pool.GetRefCount(IdOf(p)), 0);
    pool.Delete("p");
    EXPECT_FALSE(moxtest::ShmExists(p));
    EXPECT_FALSE(pool.HitCache("p", name));

    // Unknown ids and queries change nothing.
    const std::string a = AddBlock(pool, "a", 100);
    pool.Delete(987654);
    pool.Delete("nobody asked this");
    EXPECT_EQ(pool.GetRefCount(IdOf(a)), 1);
    EXPECT_EQ(pool.GetUsedSize(), 100);
    pool.Delete(IdOf(a));
}

TEST(CachePoolLifetime, DestroyingThePoolUnlinksEveryBlock) {
    std::vector<std::string> names;
    {
        CCachePool pool;
        names.push_back(AddBlock(pool, "committed", 100));
        names.push_back(AddBlock(pool, "cached", 100));
        names.push_back(AddBlock(pool, "kept", 100, MOX_CACHE_BLOCK_PERSISTANT));
        pool.Delete(IdOf(names[1]));
    }
    for (const std::string& n : names) EXPECT_FALSE(moxtest::ShmExists(n)) << n;
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

// Dropped lists of distinct, large documents: the pool keeps a bounded number
// of entries and of query-text bytes (the oldest released go first), never a
// block that a client still holds. A query text above the per-query limit is
// answered but not kept, and its block goes with its last client.
TEST(CachePoolBounds, DistinctLargeQueriesStayWithinTheBoundsHeldBlocksSurvive) {
    CCachePool pool;
    const std::string pad(12 * 1024, 'x');
    auto query = [&pad](const char* szKind, int i) { return szKind + std::to_string(i) + pad; };
    std::vector<std::string> held;
    for (int i = 0; i < 3; ++i) held.push_back(AddBlock(pool, query("held", i), 100));
    std::string first, last, name;
    for (int i = 0; i < 1500; ++i) {
        last = AddBlock(pool, query("q", i), 100);
        ASSERT_FALSE(last.empty()) << i;
        pool.Delete(IdOf(last));  // the client dropped its list
        if (i == 0) first = last;
        ASSERT_LE(pool.GetEntryCount(), CCachePool::kMaxEntries);
        ASSERT_LE(pool.GetQueryTextBytes(), CCachePool::kMaxQueryTextBytes);
    }
    // The text bound bit: kept up to it, the oldest releases evicted.
    EXPECT_GT(pool.GetQueryTextBytes(), CCachePool::kMaxQueryTextBytes - static_cast<int64_t>(query("q", 1500).size()));
    EXPECT_FALSE(pool.HitCache(query("q", 0), name));
    EXPECT_FALSE(moxtest::ShmExists(first));
    ASSERT_TRUE(pool.HitCache(query("q", 1499), name));
    EXPECT_EQ(name, last);
    pool.Delete(IdOf(last));

    // Short queries: now the entry bound bites.
    for (int i = 0; i < CCachePool::kMaxEntries + 200; ++i) {
        last = AddBlock(pool, "s" + std::to_string(i), 100);
        ASSERT_FALSE(last.empty()) << i;
        pool.Delete(IdOf(last));
        ASSERT_LE(pool.GetEntryCount(), CCachePool::kMaxEntries);
    }
    EXPECT_EQ(pool.GetEntryCount(), CCachePool::kMaxEntries);
    EXPECT_EQ(pool.GetUsedSize(), CCachePool::kMaxEntries * 100);

    for (size_t i = 0; i < held.size(); ++i) {
        EXPECT_TRUE(moxtest::ShmExists(held[i]));
        EXPECT_EQ(pool.GetBlockState(IdOf(held[i])), CCachePool::kBlockCommitted);
        ASSERT_TRUE(pool.HitCache(query("held", static_cast<int>(i)), name));
        EXPECT_EQ(name, held[i]);
        EXPECT_EQ(pool.GetRefCount(IdOf(held[i])), 2);
    }

    moxtest::LogMark mark;
    const int64_t nTextBefore = pool.GetQueryTextBytes();
    for (int i = 0; i < 3; ++i) {
        const std::string huge = "h" + std::to_string(i) + std::string(64 * 1024, 'y');
        const std::string h = AddBlock(pool, huge, 100);
        ASSERT_FALSE(h.empty());
        EXPECT_TRUE(moxtest::ShmExists(h));
        EXPECT_FALSE(pool.HitCache(huge, name));
        EXPECT_LE(pool.GetQueryTextBytes(), nTextBefore);  // the entry bound may evict a kept one
        pool.Delete(IdOf(h));
        EXPECT_FALSE(moxtest::ShmExists(h));
    }
    EXPECT_EQ(moxtest::CountWarnings(mark.Text(), "is above 16384"), 1u);
    for (const std::string& h : held) {
        pool.Delete(IdOf(h));
        pool.Delete(IdOf(h));
        EXPECT_EQ(pool.GetBlockState(IdOf(h)), CCachePool::kBlockCached);
    }
}

// Held blocks fill the bounds: a query text that no longer fits is answered
// but not kept; a block beyond the entry bound is refused and unlinked. Each
// bound warns once while it bites.
TEST(CachePoolBounds, HeldBlocksFillTheBoundsNotKeptOrRefusedWithOneWarning) {
    CCachePool pool;
    const int kQuery = CCachePool::kMaxQueryTextSize;
    auto query = [kQuery](char kind, int i) {
        std::string q = kind + std::to_string(i);
        q.resize(static_cast<size_t>(kQuery), '.');
        return q;
    };
    std::vector<std::string> held;
    for (int i = 0; i < CCachePool::kMaxQueryTextBytes / kQuery; ++i) held.push_back(AddBlock(pool, query('t', i), 64));
    EXPECT_EQ(pool.GetQueryTextBytes(), CCachePool::kMaxQueryTextBytes);

    moxtest::LogMark mark;
    std::vector<std::string> unkept;
    std::string name;
    for (int i = 0; i < 3; ++i) {
        unkept.push_back(AddBlock(pool, query('u', i), 64));
        ASSERT_FALSE(unkept.back().empty());
        EXPECT_FALSE(pool.HitCache(query('u', i), name));
        EXPECT_EQ(pool.GetBlockState(IdOf(unkept.back())), CCachePool::kBlockCommitted);
    }
    EXPECT_EQ(pool.GetQueryTextBytes(), CCachePool::kMaxQueryTextBytes);
    EXPECT_EQ(moxtest::CountWarnings(mark.Text(), "belong to blocks in use"), 1u);
    for (const std::string& u : unkept) {
        pool.Delete(IdOf(u));
        EXPECT_FALSE(moxtest::ShmExists(u));
    }

    for (int i = 0; pool.GetEntryCount() < CCachePool::kMaxEntries; ++i) {
        held.push_back(AddBlock(pool, "e" + std::to_string(i), 64));
        ASSERT_FALSE(held.back().empty());
    }
    mark = moxtest::LogMark();
    for (int i = 0; i < 3; ++i) {
        CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
        BuildBlockOfSize(builder, 64);
        EXPECT_FALSE(pool.Add("refused" + std::to_string(i), builder, name));
        EXPECT_FALSE(moxtest::ShmExists(builder.GetName()));
    }
    EXPECT_EQ(moxtest::CountWarnings(mark.Text(), "all in use by clients"), 1u);
    EXPECT_EQ(pool.GetEntryCount(), CCachePool::kMaxEntries);

    // A released block makes room again.
    pool.Delete(IdOf(held.back()));
    held.pop_back();
    const std::string again = AddBlock(pool, "again", 64);
    EXPECT_FALSE(again.empty());
    EXPECT_EQ(pool.GetEntryCount(), CCachePool::kMaxEntries);
    pool.Delete(IdOf(again));
    for (const std::string& h : held) {
        EXPECT_TRUE(moxtest::ShmExists(h));
        pool.Delete(IdOf(h));
    }
}

namespace {

std::string AddValid(CCachePool& pool, const std::string& strQuery, const SCacheValidity& validity) {
    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    BuildBlockOfSize(builder, 100);
    std::string name;
    if (!pool.Add(strQuery, builder, name, validity)) return "";
    return name;
}

SCacheValidity Naming(CCachePool& pool, std::vector<std::string> paths) {
    SCacheValidity validity;
    validity.nGeneration = pool.GetGeneration();
    validity.paths = std::move(paths);
    return validity;
}

}  // namespace

// Kept answers are forgotten by the paths they name (at, below, or the
// parent of the touched path, never a mere name prefix) and when they were
// asked for before an invalidation; held blocks stay readable until
// released, released ones go at once. Changed stamps and answers not to be
// kept are test_requests_dbus's (kept answers over the bus).
TEST(CachePoolValidity, ForgetByPathAndGeneration) {
    EXPECT_EQ(CCachePool::NormalisePath("/a//b/./c/../d/"), "/a/b/d");
    EXPECT_EQ(CCachePool::NormalisePath("/.."), "/");
    EXPECT_EQ(CCachePool::NormalisePath("rel/a"), "");

    CCachePool pool;
    const std::string stick = AddValid(pool, "stick", Naming(pool, {"/usb/sdb1/DCIM"}));
    const std::string prefix = AddValid(pool, "prefix", Naming(pool, {"/usb/sdb10"}));
    const std::string parent = AddValid(pool, "parent", Naming(pool, {"/usb"}));
    const std::string other = AddValid(pool, "other", Naming(pool, {"/usb/sdc1"}));
    for (const std::string& name : {stick, prefix, parent, other}) ASSERT_FALSE(name.empty());
    pool.Delete(IdOf(stick));  // released: goes at once when forgotten
    // "parent", "prefix" and "other" stay held by their first client.

    EXPECT_EQ(pool.ForgetTouching("/usb/sdb1"), 2);  // stick (below) and parent (its parent)
    std::string hit;
    EXPECT_FALSE(pool.HitCache("stick", hit));
    EXPECT_FALSE(pool.HitCache("parent", hit));
    EXPECT_TRUE(pool.HitCache("prefix", hit));
    EXPECT_TRUE(pool.HitCache("other", hit, ""));
    EXPECT_FALSE(moxtest::ShmExists(stick));
    EXPECT_TRUE(moxtest::ShmExists(parent));  // a client still reads it
    pool.Delete(IdOf(parent));
    EXPECT_FALSE(moxtest::ShmExists(parent));
    EXPECT_EQ(pool.GetBlockState(IdOf(parent)), CCachePool::kBlockUnknown);

    // Asked for before an invalidation: answers this request only.
    SCacheValidity old = Naming(pool, {"/usb/sdd1"});
    pool.ForgetTouching("/elsewhere");
    const std::string late = AddValid(pool, "late", old);
    ASSERT_FALSE(late.empty());
    EXPECT_FALSE(pool.HitCache("late", hit));
    pool.Delete(IdOf(late));
    EXPECT_FALSE(moxtest::ShmExists(late));
    for (const std::string& name : {prefix, other}) {
        pool.Delete(IdOf(name));
        pool.Delete(IdOf(name));
    }
}
