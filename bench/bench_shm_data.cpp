// Throughput of the shared-memory result data: building and reading data
// blocks and result lists, and sorting a 10,000-item list by a string and by
// a number key, with the per-comparison predicate (the old baseline), with
// the builder's keyed sort, and as a plain sort of keys extracted beforehand
// (the floor), side by side.
#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <mox/cache_reader.h>
#include <mox/mox_resultlist.h>

#include "bench_fixtures.h"
#include "bench_main.h"
#include "mox_request_defines.h"
#include "mox_resultlist_builder.h"

namespace {

void BM_DataBlockBuild(benchmark::State& state) {
    const std::vector<std::string> items = moxbench::MakeItems(static_cast<int>(state.range(0)), 1);
    for (auto _ : state) {
        std::unique_ptr<CCacheBlock> block = moxbench::MakeBlock(items);
        if (!block) state.SkipWithError("build failed");
        benchmark::DoNotOptimize(block.get());
        // Destroying the record unlinks the object: part of a block's life.
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DataBlockBuild)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

void BM_DataBlockRead(benchmark::State& state) {
    const int nCount = static_cast<int>(state.range(0));
    std::unique_ptr<CCacheBlock> block = moxbench::MakeBlock(moxbench::MakeItems(nCount, 2));
    std::string item;
    size_t nBytes = 0;
    for (auto _ : state) {
        CCacheReader reader(block->GetName());
        for (int i = 0; i < reader.GetItemCount(); ++i) {
            reader.GetItem(i, item);
            nBytes += item.size();
        }
    }
    benchmark::DoNotOptimize(nBytes);
    state.SetItemsProcessed(state.iterations() * nCount);
}
BENCHMARK(BM_DataBlockRead)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// Two blocks of n/2 items each, like a list over two sources.
struct TwoBlocks {
    explicit TwoBlocks(int nCount) {
        a = moxbench::MakeBlock(moxbench::MakeItems(nCount / 2, 3), nCount / 2);
        b = moxbench::MakeBlock(moxbench::MakeItems(nCount - nCount / 2, 4), nCount - nCount / 2);
    }
    void Fill(CResultListBuilder& builder, int nCount) const {
        for (int i = 0; i < nCount / 2; ++i) builder.AddItem(a->GetName(), i);
        for (int i = 0; i < nCount - nCount / 2; ++i) builder.AddItem(b->GetName(), i);
    }
    std::unique_ptr<CCacheBlock> a, b;
};

void BM_ResultListBuild(benchmark::State& state) {
    const int nCount = static_cast<int>(state.range(0));
    TwoBlocks blocks(nCount);
    for (auto _ : state) {
        CResultListBuilder builder(0, 0, nCount - 1, nCount, 1, 2);
        builder.AddGroup(0, 0, nCount);
        blocks.Fill(builder, nCount);
        builder.Release();
        builder.Drop();
    }
    state.SetItemsProcessed(state.iterations() * nCount);
}
BENCHMARK(BM_ResultListBuild)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// A client walking the whole list: opens it, maps each block once, reads
// every item.
void BM_ResultListRead(benchmark::State& state) {
    const int nCount = static_cast<int>(state.range(0));
    TwoBlocks blocks(nCount);
    CResultListBuilder builder(0, 0, nCount - 1, nCount, 1, 2);
    blocks.Fill(builder, nCount);
    const std::string name = builder.Release();
    std::string item, shm;
    int nItemIndex = 0;
    size_t nBytes = 0;
    for (auto _ : state) {
        CResultList list(name);
        for (int n = list.StartIndex(); list.IsValidIndex(n); ++n) {
            list.GetItem(n, item, shm, nItemIndex);
            nBytes += item.size();
        }
    }
    benchmark::DoNotOptimize(nBytes);
    builder.Drop();
    state.SetItemsProcessed(state.iterations() * nCount);
}
BENCHMARK(BM_ResultListRead)->Arg(1000)->Arg(10000)->Unit(benchmark::kMicrosecond);

// ---- Sorting 10,000 items -------------------------------------------------

const int kSortItems = 10000;

struct SortSetup {
    SortSetup() : blocks(kSortItems) {
        for (CCacheBlock* block : {blocks.a.get(), blocks.b.get()}) {
            owned.emplace_back(new CCacheReader(block->GetName()));
            readers.push_back(owned.back().get());
        }
    }
    CMOXSortFunction Fn(bool bString) {
        CMOXSortFunction fn;
        fn.key = bString ? "FileName" : "FileSize";
        fn.keyType = bString ? MOX_VALUE_STRING : MOX_VALUE_INT;
        fn.comparison = MOX_COMPARE_ASC;
        fn.readers = &readers;
        return fn;
    }
    TwoBlocks blocks;
    std::vector<std::unique_ptr<CCacheReader>> owned;
    std::vector<CCacheReader*> readers;
};

// Baseline: std::sort with the predicate, which parses both items at every
// comparison.
void BM_SortPredicate(benchmark::State& state) {
    SortSetup setup;
    CMOXSortFunction fn = setup.Fn(state.range(0) == 0);
    std::vector<ResultItemIndex> unsorted;
    for (int i = 0; i < kSortItems / 2; ++i) unsorted.push_back({0, i});
    for (int i = 0; i < kSortItems - kSortItems / 2; ++i) unsorted.push_back({1, i});
    for (auto _ : state) {
        std::vector<ResultItemIndex> entries = unsorted;
        std::sort(entries.begin(), entries.end(), fn);
        benchmark::DoNotOptimize(entries.data());
    }
    state.SetItemsProcessed(state.iterations() * kSortItems);
    state.SetLabel(state.range(0) == 0 ? "FileName" : "FileSize");
}
BENCHMARK(BM_SortPredicate)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(3.0);

// The builder's sort: every item's key read once, same order.
void BM_SortKeyed(benchmark::State& state) {
    SortSetup setup;
    CMOXSortFunction fn = setup.Fn(state.range(0) == 0);
    for (auto _ : state) {
        state.PauseTiming();
        auto builder = std::make_unique<CResultListBuilder>(0, 0, kSortItems - 1, kSortItems, 1, 2);
        setup.blocks.Fill(*builder, kSortItems);
        state.ResumeTiming();
        if (!builder->SortItems(fn)) state.SkipWithError("sort refused");
        state.PauseTiming();
        builder->Drop();
        builder->Release();
        builder.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kSortItems);
    state.SetLabel(state.range(0) == 0 ? "FileName" : "FileSize");
}
BENCHMARK(BM_SortKeyed)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The keyed sort's share that the plain sort does not have: reading every
// item's key once.
void BM_SortKeyRead(benchmark::State& state) {
    SortSetup setup;
    CMOXSortFunction fn = setup.Fn(state.range(0) == 0);
    std::vector<ResultItemIndex> entries;
    for (int i = 0; i < kSortItems / 2; ++i) entries.push_back({0, i});
    for (int i = 0; i < kSortItems - kSortItems / 2; ++i) entries.push_back({1, i});
    std::vector<SMOXSortKey> keys;
    for (auto _ : state) {
        fn.GetKeys(entries.data(), entries.size(), keys);
        benchmark::DoNotOptimize(keys.data());
    }
    state.SetItemsProcessed(state.iterations() * kSortItems);
    state.SetLabel(state.range(0) == 0 ? "FileName" : "FileSize");
}
BENCHMARK(BM_SortKeyRead)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// The floor: the same entries sorted by keys extracted beforehand (outside
// the timing), compared with the same rule; the keyed sort's goal is 2x this.
void BM_SortPlain(benchmark::State& state) {
    SortSetup setup;
    CMOXSortFunction fn = setup.Fn(state.range(0) == 0);
    std::vector<ResultItemIndex> unsorted;
    for (int i = 0; i < kSortItems / 2; ++i) unsorted.push_back({0, i});
    for (int i = 0; i < kSortItems - kSortItems / 2; ++i) unsorted.push_back({1, i});
    std::vector<SMOXSortKey> keys(unsorted.size());
    for (size_t i = 0; i < unsorted.size(); ++i) fn.GetKey(unsorted[i], keys[i]);
    std::vector<int> order(unsorted.size());
    std::vector<ResultItemIndex> sorted(unsorted.size());
    for (auto _ : state) {
        std::iota(order.begin(), order.end(), 0);
        std::sort(order.begin(), order.end(), [&fn, &keys](int a, int b) { return fn.Less(keys[a], keys[b]); });
        for (size_t i = 0; i < order.size(); ++i) sorted[i] = unsorted[order[i]];
        benchmark::DoNotOptimize(sorted.data());
    }
    state.SetItemsProcessed(state.iterations() * kSortItems);
    state.SetLabel(state.range(0) == 0 ? "FileName" : "FileSize");
}
BENCHMARK(BM_SortPlain)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

MOX_BENCHMARK_MAIN();
