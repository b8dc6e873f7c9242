// Cache pool: the 10 MiB bound what is kept, never what is served. A block
// too big to keep beside the held ones answers its request, is counted apart
// and goes with its last client; the kept ones are not evicted for it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cache_builder.h"
#include "cache_pool.h"
#include "shm_test_util.h"

namespace {

const int kMiB = 1024 * 1024;

std::string AddBlock(CCachePool& pool, const std::string& strQuery, int nSize) {
    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    moxtest::TrackShm(builder.GetName());
    std::vector<mox_data_group_s> groups;
    std::vector<mox_data_length_s> lengths = {{nSize - 32}};
    EXPECT_TRUE(builder.Build(nSize - 32, 0, 0, 1, groups, lengths));
    std::string name;
    if (!pool.Add(strQuery, builder, name)) return "";
    return name;
}

int IdOf(const std::string& name) {
    int nId = -1;
    EXPECT_TRUE(CCacheBuilder::GetCacheId(name, nId));
    return nId;
}

TEST(CachePoolServed, TooBigToKeepIsServedOnceAndKeptOnesStay) {
    CCachePool pool;
    const std::string held = AddBlock(pool, "held", 4 * kMiB);
    const std::string kept = AddBlock(pool, "kept", 2 * kMiB);
    pool.Delete(IdOf(kept));  // released: kept for reuse
    ASSERT_EQ(pool.GetUsedSize(), 6 * kMiB);

    // 12 MiB can never fit beside the 4 held: served, nothing evicted for it.
    const std::string big = AddBlock(pool, "big", 12 * kMiB);
    ASSERT_FALSE(big.empty());
    EXPECT_TRUE(moxtest::ShmExists(big));
    EXPECT_EQ(pool.GetServedSize(), 12 * kMiB);
    EXPECT_EQ(pool.GetUsedSize(), 6 * kMiB);
    EXPECT_EQ(pool.GetLRUIndexes(), std::vector<int>{IdOf(kept)});
    std::string name;
    EXPECT_FALSE(pool.HitCache("big", name));  // not kept

    // 6 MiB fits once the released block goes: evicted, and kept itself.
    const std::string fits = AddBlock(pool, "fits", 6 * kMiB);
    ASSERT_FALSE(fits.empty());
    EXPECT_FALSE(moxtest::ShmExists(kept));
    EXPECT_EQ(pool.GetUsedSize(), 10 * kMiB);
    EXPECT_EQ(pool.GetServedSize(), 12 * kMiB);

    // Its last client gone, the served block goes; the kept ones stay.
    pool.Delete(IdOf(big));
    EXPECT_FALSE(moxtest::ShmExists(big));
    EXPECT_EQ(pool.GetServedSize(), 0);
    pool.Delete(IdOf(fits));
    EXPECT_TRUE(pool.HitCache("fits", name));
    EXPECT_EQ(name, fits);
    pool.Delete(IdOf(fits));
    pool.Delete(IdOf(held));
    EXPECT_EQ(pool.GetUsedSize(), 10 * kMiB);
    EXPECT_EQ(pool.GetEntryCount(), 2);
}

}  // namespace
