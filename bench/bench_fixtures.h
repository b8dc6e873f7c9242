// Data of the benchmarks: JSON items like a local-content source answers
// with, written into data blocks through the builder as a source would.
#pragma once

#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "cache_block.h"
#include "cache_builder.h"

namespace moxbench {

inline std::vector<std::string> MakeItems(int nCount, unsigned nSeed) {
    std::mt19937 rng(nSeed);
    std::vector<std::string> items;
    items.reserve(nCount);
    for (int i = 0; i < nCount; ++i) {
        items.push_back("{\"FileName\":\"IMG_" + std::to_string(rng() % 100000) +
                        ".JPG\",\"FileSize\":" + std::to_string(rng() % 10000000) +
                        ",\"FileTime\":" + std::to_string(1500000000 + rng() % 1000000) + ",\"Title\":\"Holiday " +
                        std::to_string(rng() % 500) +
                        "\",\"FilePath\":\"/opt/storage/usb/sda1/DCIM/100CANON\",\"MediaType\":2}");
    }
    return items;
}

inline std::unique_ptr<CCacheBlock> MakeBlock(const std::vector<std::string>& items, int nTotal = -1) {
    CCacheBuilder builder(MOX_CACHE_BLOCK_LRU);
    FILE* stream = builder.GetStream();
    std::vector<mox_data_length_s> lengths;
    lengths.reserve(items.size());
    int nLen = 0;
    for (const std::string& item : items) {
        fwrite(item.data(), 1, item.size(), stream);
        lengths.push_back({static_cast<int32_t>(item.size())});
        nLen += static_cast<int>(item.size());
    }
    std::vector<mox_data_group_s> groups = {{0, static_cast<int32_t>(items.size())}};
    if (!builder.Build(nLen, 0, static_cast<int>(items.size()) - 1,
                       nTotal < 0 ? static_cast<int>(items.size()) : nTotal, groups, lengths)) {
        builder.Free();
        return nullptr;
    }
    return builder.Release();
}

}  // namespace moxbench
