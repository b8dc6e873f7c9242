// Operations per second of the cache pool with 1,000 queries resident: hits
// (and the release that pairs with each), and the admission and release of
// a new block. Building the blocks themselves (shared-memory creation) is
// kept out of the timed part.
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_main.h"
#include "cache_builder.h"
#include "cache_pool.h"

namespace {

const int kResident = 1000;

std::unique_ptr<CCacheBuilder> BuiltBuilder(mox_cache_block_type eType) {
    auto builder = std::make_unique<CCacheBuilder>(eType);
    std::vector<mox_data_group_s> groups;
    std::vector<mox_data_length_s> lengths = {{60}};
    if (!builder->Build(60, 0, 0, 1, groups, lengths)) return nullptr;
    return builder;
}

std::string Query(int i) {
    return "{\"mox_source\":\"local\",\"mox_sectionindex\":" + std::to_string(i) + ",\"SortedKey\":\"FileName\"}";
}

// A pool holding kResident committed blocks; ids[i] answers Query(i).
struct ResidentPool {
    ResidentPool() {
        for (int i = 0; i < kResident; ++i) {
            auto builder = BuiltBuilder(MOX_CACHE_BLOCK_LRU);
            std::string name;
            int nId = -1;
            if (builder && pool.Add(Query(i), *builder, name) && CCacheBuilder::GetCacheId(name, nId))
                ids.push_back(nId);
        }
    }
    CCachePool pool;
    std::vector<int> ids;
};

void BM_CachePoolHit(benchmark::State& state) {
    ResidentPool resident;
    std::vector<std::string> queries;
    for (int i = 0; i < kResident; ++i) queries.push_back(Query(i));
    std::string name;
    int i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(resident.pool.HitCache(queries[i], name));
        if (++i == kResident) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_CachePoolHit);

// A hit and the release that ends it (count 2 -> 1): two operations.
void BM_CachePoolHitDelete(benchmark::State& state) {
    ResidentPool resident;
    std::vector<std::string> queries;
    for (int i = 0; i < kResident; ++i) queries.push_back(Query(i));
    std::string name;
    int i = 0;
    for (auto _ : state) {
        resident.pool.HitCache(queries[i], name);
        resident.pool.Delete(resident.ids[i]);
        if (++i == kResident) i = 0;
    }
    state.SetItemsProcessed(2 * state.iterations());
}
BENCHMARK(BM_CachePoolHitDelete);

// Admission of a new temporary block and its release, which destroys and
// unlinks it and scans the query map: two operations per block.
void BM_CachePoolAddDelete(benchmark::State& state) {
    ResidentPool resident;
    const int kBatch = 200;
    std::vector<std::unique_ptr<CCacheBuilder>> builders(kBatch);
    std::vector<std::string> queries;
    for (int i = 0; i < kBatch; ++i) queries.push_back("new" + Query(i));
    std::vector<int> ids(kBatch);
    int64_t nOps = 0;
    for (auto _ : state) {
        state.PauseTiming();
        for (auto& builder : builders) builder = BuiltBuilder(MOX_CACHE_BLOCK_TEMPORARY);
        state.ResumeTiming();
        std::string name;
        for (int i = 0; i < kBatch; ++i) {
            resident.pool.Add(queries[i], *builders[i], name);
            CCacheBuilder::GetCacheId(name, ids[i]);
        }
        for (int i = 0; i < kBatch; ++i) resident.pool.Delete(ids[i]);
        nOps += 2 * kBatch;
        state.PauseTiming();
        for (auto& builder : builders) builder.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(nOps);
}
BENCHMARK(BM_CachePoolAddDelete)->Unit(benchmark::kMicrosecond);

}  // namespace

MOX_BENCHMARK_MAIN();
