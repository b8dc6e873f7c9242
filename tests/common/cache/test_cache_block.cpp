// Data blocks: the byte layout the builder writes, what the reader gives
// back, names, and readers facing missing, huge and crafted objects. A
// separate client process reads blocks through the result lists' suite.
#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <mox/cache_reader.h>

#include "block_maker.h"
#include "cache_block.h"
#include "cache_builder.h"
#include "shm_mapping.h"
#include "shm_test_util.h"

using moxtest::Int32At;
using moxtest::MakeBlock;

TEST(DataBlockLayout, PaddingGroupsAndOffsets) {
    // nLen 5 -> 8: padding at 33..35, groups at 36, offsets at 44, size 52;
    // the last item keeps the padding.
    auto block = MakeBlock({"ab", "cde"}, 10, 100, {{3, 7}});
    ASSERT_TRUE(block);
    std::string bytes = moxtest::ReadShm(block->GetName());
    ASSERT_EQ(bytes.size(), 52u);
    const int32_t header[] = {36, 44, 10, 11, 100, 1, 52};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(Int32At(bytes, 4 * i), header[i]) << "field " << i;
    EXPECT_EQ(bytes.substr(28, 8), std::string("abcde\0\0\0", 8));
    const int32_t tables[] = {3, 7, 28, 30};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(Int32At(bytes, 36 + 4 * i), tables[i]) << "table " << i;
    CCacheReader reader(block->GetName());
    std::string item;
    ASSERT_TRUE(reader.GetItem(1, item));
    EXPECT_EQ(item, std::string("cde\0\0\0", 6));

    // Aligned items, no groups: no padding and no group table.
    block = MakeBlock({"abcd", "efgh"}, 0, 2, {});
    bytes = moxtest::ReadShm(block->GetName());
    ASSERT_EQ(bytes.size(), 44u);
    EXPECT_EQ(Int32At(bytes, 4), 36);
    EXPECT_EQ(Int32At(bytes, 40), 32);
    EXPECT_EQ(block->GetSize(), 44);
    CCacheReader aligned(block->GetName());
    EXPECT_EQ(aligned.GetGroupCount(), 0);
    ASSERT_TRUE(aligned.GetItem(1, item));
    EXPECT_EQ(item, "efgh");

    // A single item spans to the group table.
    block = MakeBlock({"xyz"}, 4, 5, {});
    ASSERT_EQ(moxtest::ReadShm(block->GetName()).size(), 36u);
    CCacheReader single(block->GetName());
    EXPECT_EQ(single.EndIndex(), 4);
    ASSERT_TRUE(single.GetItem(0, item));
    EXPECT_EQ(item, std::string("xyz\0", 4));
}

TEST(DataBlockBuilder, RecordAndFreeUnlinkAndBadProducerOutputIsRefused) {
    // Readers keep their copy when the record unlinks the object.
    auto block = MakeBlock({"one", "two"}, 0, 2, {});
    ASSERT_TRUE(block);
    const std::string name = block->GetName();
    CCacheReader reader(name);
    block.reset();
    EXPECT_FALSE(moxtest::ShmExists(name));
    std::string item;
    ASSERT_TRUE(reader.GetItem(0, item));
    EXPECT_EQ(item, "one");

    CCacheBuilder freed(MOX_CACHE_BLOCK_LRU);
    moxtest::TrackShm(freed.GetName());
    ASSERT_TRUE(moxtest::ShmExists(freed.GetName()));
    freed.Free();
    EXPECT_FALSE(moxtest::ShmExists(freed.GetName()));

    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    moxtest::TrackShm(builder.GetName());
    std::vector<mox_data_group_s> groups;
    std::vector<mox_data_length_s> lengths = {{4}, {9}, {1}};
    fwrite("abcd", 1, 4, builder.GetStream());
    EXPECT_FALSE(builder.Build(4, 0, 2, 3, groups, lengths));  // item 1 ends past nLen
    EXPECT_FALSE(builder.Build(-1, 0, 2, 3, groups, lengths));
    lengths = {{-2}, {3}, {1}};
    EXPECT_FALSE(builder.Build(4, 0, 2, 3, groups, lengths));
    EXPECT_FALSE(builder.IsBuilt());
    builder.Free();
}

TEST(DataBlockNames, NamesCountUpAndCarryTheCacheId) {
    CCacheBuilder first(MOX_CACHE_BLOCK_LRU);
    CCacheBuilder second(MOX_CACHE_BLOCK_LRU);
    moxtest::TrackShm(first.GetName());
    moxtest::TrackShm(second.GetName());
    int n1 = -1, n2 = -1;
    ASSERT_TRUE(CCacheBuilder::GetCacheId(first.GetName(), n1));
    ASSERT_TRUE(CCacheBuilder::GetCacheId(second.GetName(), n2));
    EXPECT_EQ(first.GetName(), "mox_datablock_" + mox_shm::InstanceTag() + "_" + std::to_string(n1));
    EXPECT_GT(n2, n1);
    first.Free();
    second.Free();

    int nId = 7;
    EXPECT_TRUE(CCacheBuilder::GetCacheId("mox_datablock_0", nId));
    EXPECT_EQ(nId, 0);
    // Names a client may write into a list: no number, junk, overflow.
    for (const char* bad : {"mox_datablock_", "", "mox_datablock_x1", "a_12b", "a_-3", "a_12345678901"}) {
        EXPECT_FALSE(CCacheBuilder::GetCacheId(bad, nId)) << bad;
        EXPECT_EQ(nId, -1) << bad;
    }
}

// Objects planted under the next names (a file, a link) are skipped, never
// opened, written or unlinked; the builder moves on with a single warning for
// the whole process.
TEST(DataBlockNames, PlantedObjectsAreSkippedAndLeftAlone) {
    CCacheBuilder probe(MOX_CACHE_BLOCK_TEMPORARY);
    ASSERT_TRUE(probe.IsValid());
    moxtest::TrackShm(probe.GetName());
    int nId = -1;
    ASSERT_TRUE(CCacheBuilder::GetCacheId(probe.GetName(), nId));
    probe.Free();
    // More planted names than a builder may try one after the other.
    std::set<std::string> planted;
    for (int i = 1; i <= 2 * mox_shm::CShmNamer::kMaxAttempts; ++i) {
        const std::string name = "mox_datablock_" + mox_shm::InstanceTag() + "_" + std::to_string(nId + i);
        if (moxtest::PlantShm(name, "planted")) planted.insert(name);
    }
    const std::string link = "mox_datablock_" + mox_shm::InstanceTag() + "_" +
                             std::to_string(nId + 2 * mox_shm::CShmNamer::kMaxAttempts + 1);
    const std::string target = "/tmp/mox-planted-target-" + std::to_string(getpid());
    ASSERT_EQ(symlink(target.c_str(), ("/dev/shm/" + link).c_str()), 0);

    for (int round = 0; round < 3; ++round) {
        CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
        ASSERT_TRUE(builder.IsValid());
        moxtest::TrackShm(builder.GetName());
        EXPECT_EQ(planted.count(builder.GetName()), 0u) << builder.GetName();
        EXPECT_NE(builder.GetName(), link);
        int nNew = -1;
        EXPECT_TRUE(CCacheBuilder::GetCacheId(builder.GetName(), nNew));
        EXPECT_EQ(builder.GetName(), "mox_datablock_" + mox_shm::InstanceTag() + "_" + std::to_string(nNew));
        std::vector<mox_data_group_s> groups;
        std::vector<mox_data_length_s> lengths = {{4}};
        ASSERT_EQ(fwrite("item", 1, 4, builder.GetStream()), 4u);
        ASSERT_TRUE(builder.Build(4, 0, 0, 1, groups, lengths));
        builder.Release().reset();  // destroying the record unlinks the block
        EXPECT_FALSE(moxtest::ShmExists(builder.GetName()));
    }
    for (const std::string& name : planted) {
        EXPECT_TRUE(moxtest::ShmExists(name)) << name;
        EXPECT_EQ(moxtest::ReadShm(name), "planted") << name;
        shm_unlink(name.c_str());
    }
    EXPECT_NE(access(target.c_str(), F_OK), 0) << "the link was followed";
    unlink(("/dev/shm/" + link).c_str());
    // One warning in this process's whole log, however many names were taken.
    EXPECT_EQ(moxtest::CountWarnings(moxtest::ReadTextFile(moxtest::g_logCapture->path()), "already exists"), 1u);
}

// The retries are bounded: with every name tried taken, creation fails with
// one warning and touches nothing.
TEST(ShmNamer, RetriesAreBoundedAndTakenNamesUntouched) {
    const std::string prefix = "mox_test_namer_" + mox_shm::InstanceTag() + "_";
    int nNextJump = 500;
    mox_shm::CShmNamer namer("mox_test_namer_", 0, [&nNextJump]() { return static_cast<uint32_t>(nNextJump++); });
    std::vector<std::string> planted;
    auto plant = [&](int nId) {
        planted.push_back(prefix + std::to_string(nId));
        ASSERT_TRUE(moxtest::PlantShm(planted.back(), "x"));
    };
    plant(0);
    for (int i = 0; i < mox_shm::CShmNamer::kMaxAttempts; ++i) plant(500 + i);

    moxtest::LogMark mark;
    std::string name = "unchanged";
    int nId = 7;
    EXPECT_EQ(namer.CreateExclusive(name, nId), -1);
    EXPECT_EQ(nId, -1);
    EXPECT_EQ(name, "");
    // One warning for the whole search, not one per name tried.
    EXPECT_EQ(moxtest::CountWarnings(mark.Text(), "MOX-CACHE"), 1u);
    EXPECT_EQ(moxtest::CountWarnings(mark.Text(), "No free name"), 1u);
    for (const std::string& p : planted) EXPECT_EQ(moxtest::ReadShm(p), "x") << p;

    // A free jump target ends the search: the id is the number in the name.
    nNextJump = 900;
    mark = moxtest::LogMark();
    int fd = namer.CreateExclusive(name, nId);
    ASSERT_GE(fd, 0);
    moxtest::TrackShm(name);
    EXPECT_EQ(name, prefix + std::to_string(nId));
    EXPECT_TRUE(nId >= 900 && nId < 1000) << nId;
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    close(fd);
    shm_unlink(name.c_str());
    EXPECT_EQ(moxtest::CountWarnings(mark.Text(), "already exists"), 1u);
    for (const std::string& p : planted) shm_unlink(p.c_str());
}

namespace {

// A well-formed block of two items "ab" and "cd" with one group, by hand.
// Crafted variants of it are fuzz seeds (fuzz/make_seeds.py), replayed by ctest.
std::string GoodBlockBytes() {
    // group offset, length offset, start, end, total, groups, size; items;
    // group (0, 2); item offsets 28 and 30.
    const int32_t fields[] = {32, 40, 0, 1, 2, 1, 48, 0, 0, 2, 28, 30};
    std::string b(48, '\0');
    for (int i = 0; i < 12; ++i) moxtest::PutInt32(b, 4 * i, fields[i]);
    memcpy(&b[28], "abcd", 4);
    return b;
}

const char kCrafted[] = "mox_test_crafted_block";

}  // namespace

TEST(DataBlockReader, MissingHugeOrBadOffsetObjectsFailAndIndicesAreChecked) {
    CCacheReader missing("mox_datablock_does_not_exist");
    EXPECT_FALSE(missing.IsLoaded());
    EXPECT_EQ(missing.EndIndex(), -1);
    std::string item = "untouched";
    int a = 0, b = 0;
    EXPECT_FALSE(missing.GetItem(0, item) || missing.GetGroup(0, a, b));
    EXPECT_EQ(item, "untouched");

    // A sparse object claiming more than readers accept is not copied.
    std::string head = GoodBlockBytes();
    moxtest::PutInt32(head, 24, MOX_SHM_OBJECT_MAX_SIZE + 4);
    ASSERT_TRUE(moxtest::WriteSparseShm(kCrafted, head, int64_t(MOX_SHM_OBJECT_MAX_SIZE) + 4));
    EXPECT_FALSE(CCacheReader(kCrafted).IsLoaded());

    // An item starting outside the object fails alone.
    std::string bytes = GoodBlockBytes();
    moxtest::PutInt32(bytes, 40, 1000);
    ASSERT_TRUE(moxtest::WriteShm(kCrafted, bytes));
    CCacheReader reader(kCrafted);
    ASSERT_TRUE(reader.IsLoaded());
    EXPECT_FALSE(reader.GetItem(0, item));
    EXPECT_EQ(item, "untouched");
    EXPECT_TRUE(reader.GetItem(1, item));
    EXPECT_EQ(item, "cd");
    // Indices from a result list's content.
    EXPECT_FALSE(reader.GetItem(2, item) || reader.GetItem(-1, item));
    EXPECT_FALSE(reader.GetGroup(1, a, b) || reader.GetGroup(-1, a, b));
    shm_unlink(kCrafted);
}
