// Builds a data block from item strings the way a source does: the items go
// through the builder's stream, then Build and Release. The returned record
// owns the object (destroying it unlinks the object).
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cache_block.h"
#include "cache_builder.h"
#include "shm_test_util.h"

namespace moxtest {

inline std::unique_ptr<CCacheBlock> MakeBlock(const std::vector<std::string>& items, int nStart, int nTotal,
                                              std::vector<mox_data_group_s> groups,
                                              mox_cache_block_type eType = MOX_CACHE_BLOCK_LRU) {
    CCacheBuilder builder(eType);
    TrackShm(builder.GetName());
    EXPECT_TRUE(builder.IsValid());
    FILE* stream = builder.GetStream();
    std::vector<mox_data_length_s> lengths;
    int nLen = 0;
    for (const std::string& item : items) {
        fwrite(item.data(), 1, item.size(), stream);
        lengths.push_back({static_cast<int32_t>(item.size())});
        nLen += static_cast<int>(item.size());
    }
    bool built = builder.Build(nLen, nStart, nStart + static_cast<int>(items.size()) - 1, nTotal, groups, lengths);
    EXPECT_TRUE(built);
    if (!built) {
        builder.Free();
        return nullptr;
    }
    return builder.Release();
}

}  // namespace moxtest
