// Result pool: the active window, windowed prefetch and drop while the
// cursor moves, sequential prefetch, refused moves, groups across sections,
// and concurrent movers and pushers.
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <mox/mox_resultpool.h>

#include "block_maker.h"
#include "mox_resultlist_builder.h"
#include "shm_test_util.h"

namespace {

const int kTotal = 50;
const int kSectionSize = 5;
const int kSections = kTotal / kSectionSize;

// One data block with items "i0".."i49" and one result list per section;
// section s belongs to group s / 2 = (10 * (s / 2), 10).
class Sections {
public:
    Sections() {
        std::vector<std::string> items;
        for (int i = 0; i < kTotal; ++i) items.push_back("i" + std::to_string(i));
        m_block = moxtest::MakeBlock(items, 0, kTotal, {});
        for (int s = 0; s < kSections; ++s) {
            CResultListBuilder builder(s, s * kSectionSize, s * kSectionSize + kSectionSize - 1, kTotal, 1, 1);
            moxtest::TrackShm(builder.GetName());
            builder.AddGroup(0, 10 * (s / 2), 10);
            for (int i = s * kSectionSize; i < (s + 1) * kSectionSize; ++i) builder.AddItem(m_block->GetName(), i);
            m_names.push_back(builder.Release());
        }
    }
    ~Sections() {
        for (const std::string& name : m_names) CResultListBuilder::Drop(name);
    }
    CResultList* Open(int s) const { return new CResultList(m_names[s]); }
    const std::string& Name(int s) const { return m_names[s]; }

private:
    std::unique_ptr<CCacheBlock> m_block;
    std::vector<std::string> m_names;
};

struct Recorder {
    std::vector<std::tuple<int, int, int>> prefetches;  // start, end, section
    std::vector<std::string> drops;
    bool accept = true;

    static bool OnPrefetch(void* p, int nStart, int nEnd, int nSection) {
        auto* self = static_cast<Recorder*>(p);
        self->prefetches.emplace_back(nStart, nEnd, nSection);
        return self->accept;
    }
    static bool OnDrop(void* p, std::string strName) {
        static_cast<Recorder*>(p)->drops.push_back(strName);
        return true;
    }
    void Attach(CResultPool& pool) { pool.SetCallBack(OnPrefetch, this, OnDrop, this); }
};

std::pair<int, int> Window(CResultPool& pool) {
    std::pair<int, int> w;
    pool.GetWindow(w.first, w.second);
    return w;
}

using Fetch = std::tuple<int, int, int>;

}  // namespace

TEST(ResultPoolWindow, CentredOnTheCursorAndClamped) {
    Sections sections;
    Recorder rec;
    CResultPool pool(2, kSectionSize, MOX_PREFETCH_WINDOWED);  // window of 10 items
    rec.Attach(pool);
    EXPECT_EQ(Window(pool), std::make_pair(0, -1));  // nothing known yet
    ASSERT_TRUE(pool.Push(sections.Open(0)));
    EXPECT_EQ(pool.GetTotalCount(), kTotal);
    EXPECT_EQ(Window(pool), std::make_pair(0, 4));  // 0-5 .. 0+4, start clamped
    // A section outside the window is dropped at once.
    EXPECT_FALSE(pool.Push(sections.Open(4)));
    EXPECT_EQ(rec.drops, std::vector<std::string>{sections.Name(4)});
    EXPECT_EQ(pool.GetHeldSections(), std::vector<int>{0});
    // Walk on: an even window spans half before and half minus one after,
    // and is cut at the last item.
    for (int s = 1; s < kSections; ++s) {
        ASSERT_EQ(pool.MoveToIndex(s * kSectionSize - 1), MOX_ERROR_NONE);
        pool.Push(sections.Open(s));
        if (s == 4) {
            ASSERT_EQ(pool.MoveToIndex(20), MOX_ERROR_NONE);
            EXPECT_EQ(Window(pool), std::make_pair(15, 24));
        }
    }
    ASSERT_EQ(pool.MoveToIndex(49), MOX_ERROR_NONE);
    EXPECT_EQ(Window(pool), std::make_pair(44, 49));

    // Odd windows: 2 before, 2 after; sequential pools do not move theirs.
    CResultPool odd(1, kSectionSize, MOX_PREFETCH_WINDOWED);
    Recorder rec2;
    rec2.Attach(odd);
    odd.Push(sections.Open(0));
    EXPECT_EQ(Window(odd), std::make_pair(0, 2));
    ASSERT_EQ(odd.MoveToIndex(4), MOX_ERROR_NONE);
    EXPECT_EQ(Window(odd), std::make_pair(2, 6));
    CResultPool sequential(1, kSectionSize, MOX_PREFETCH_SEQUENTIAL);
    sequential.SetCallBack(Recorder::OnPrefetch, &rec2, Recorder::OnDrop, &rec2);
    ASSERT_TRUE(sequential.Push(sections.Open(2)));
    EXPECT_EQ(sequential.MoveToIndex(10), MOX_ERROR_NONE);
    EXPECT_EQ(Window(sequential), std::make_pair(0, 2));
}

TEST(ResultPoolWindowed, PrefetchAndDropFollowTheCursor) {
    Sections sections;
    Recorder rec;
    CResultPool pool(2, kSectionSize, MOX_PREFETCH_WINDOWED);
    rec.Attach(pool);
    ASSERT_TRUE(pool.Push(sections.Open(0)));
    ASSERT_EQ(pool.MoveToIndex(0), MOX_ERROR_NONE);  // window 0..4: all held
    EXPECT_TRUE(rec.prefetches.empty());

    ASSERT_EQ(pool.MoveToIndex(4), MOX_ERROR_NONE);  // window 0..8: section 1 enters
    EXPECT_EQ(rec.prefetches, (std::vector<Fetch>{{5, 9, 1}}));
    EXPECT_EQ(pool.GetPrefetchingSections(), std::vector<int>{1});
    ASSERT_EQ(pool.MoveToIndex(4), MOX_ERROR_NONE);  // already on its way: not asked twice
    EXPECT_EQ(rec.prefetches.size(), 1u);

    // Section 1 is not there yet: the cursor waits.
    EXPECT_EQ(pool.MoveToNext(), MOX_ERROR_NOT_READY);
    EXPECT_EQ(pool.GetCursor().nIndex, 4);
    ASSERT_TRUE(pool.Push(sections.Open(1)));
    EXPECT_TRUE(pool.GetPrefetchingSections().empty());
    ASSERT_EQ(pool.MoveToNext(), MOX_ERROR_NONE);  // 5, window 0..9
    EXPECT_EQ(pool.GetCursor().nIndex, 5);
    std::string item, shm;
    int nItemIndex = -1;
    ASSERT_EQ(pool.GetCurrentItem(item, shm, nItemIndex), MOX_ERROR_NONE);
    EXPECT_EQ(item.c_str(), std::string("i5"));
    EXPECT_EQ(nItemIndex, 5);

    ASSERT_EQ(pool.MoveToIndex(9), MOX_ERROR_NONE);  // window 4..13
    EXPECT_EQ(rec.prefetches.back(), Fetch(10, 14, 2));
    EXPECT_TRUE(rec.drops.empty());  // section 0 still reaches index 4
    ASSERT_TRUE(pool.Push(sections.Open(2)));
    ASSERT_EQ(pool.MoveToIndex(12), MOX_ERROR_NONE);  // window 7..16
    EXPECT_EQ(rec.prefetches.back(), Fetch(15, 19, 3));
    EXPECT_EQ(rec.drops, std::vector<std::string>{sections.Name(0)});
    EXPECT_EQ(pool.GetHeldSections(), (std::vector<int>{1, 2}));

    // Backwards: section 0 is asked for again, section 2 leaves the window.
    ASSERT_EQ(pool.MoveToIndex(5), MOX_ERROR_NONE);  // window 0..9
    EXPECT_EQ(rec.prefetches.back(), Fetch(0, 4, 0));
    EXPECT_EQ(rec.drops.back(), sections.Name(2));
    EXPECT_EQ(pool.GetHeldSections(), std::vector<int>{1});
    // Section 3 arrives late, outside the window: dropped on arrival.
    EXPECT_FALSE(pool.Push(sections.Open(3)));
    EXPECT_EQ(rec.drops.back(), sections.Name(3));
    EXPECT_EQ(pool.GetPrefetchingSections(), std::vector<int>{0});
    ASSERT_TRUE(pool.Push(sections.Open(0)));
    ASSERT_EQ(pool.MoveToPrevious(), MOX_ERROR_NONE);
    EXPECT_EQ(pool.GetCursor().nIndex, 4);
    EXPECT_EQ(pool.GetCursor().pCurrentList->SectionIndex(), 0);
}

TEST(ResultPoolWindowed, DeclinedPrefetchIsAskedAgain) {
    Sections sections;
    Recorder rec;
    rec.accept = false;
    CResultPool pool(2, kSectionSize, MOX_PREFETCH_WINDOWED);
    rec.Attach(pool);
    pool.Push(sections.Open(0));
    ASSERT_EQ(pool.MoveToIndex(4), MOX_ERROR_NONE);
    EXPECT_TRUE(pool.GetPrefetchingSections().empty());
    ASSERT_EQ(pool.MoveToIndex(3), MOX_ERROR_NONE);
    ASSERT_EQ(pool.MoveToIndex(4), MOX_ERROR_NONE);
    EXPECT_EQ(rec.prefetches, (std::vector<Fetch>{{5, 9, 1}, {5, 9, 1}}));
}

TEST(ResultPoolSequential, EachListAsksForTheNextSectionUntilTheLast) {
    Sections sections;
    Recorder rec;
    CResultPool pool(2, kSectionSize, MOX_PREFETCH_SEQUENTIAL);
    rec.Attach(pool);
    ASSERT_TRUE(pool.Push(sections.Open(0)));
    EXPECT_EQ(rec.prefetches, (std::vector<Fetch>{{5, 9, 1}}));
    ASSERT_TRUE(pool.Push(sections.Open(2)));
    EXPECT_EQ(rec.prefetches.back(), Fetch(15, 19, 3));
    ASSERT_TRUE(pool.Push(sections.Open(1)));              // section 2 is held: nothing asked
    ASSERT_TRUE(pool.Push(sections.Open(kSections - 1)));  // the last: nothing after it
    EXPECT_EQ(rec.prefetches.size(), 2u);
    // A section pushed twice: the second copy is handed back.
    EXPECT_FALSE(pool.Push(sections.Open(1)));
    EXPECT_EQ(rec.drops, std::vector<std::string>{sections.Name(1)});
    // Sequential pools keep every list, wherever the cursor goes.
    ASSERT_EQ(pool.MoveToIndex(47), MOX_ERROR_NONE);
    ASSERT_EQ(pool.MoveToIndex(0), MOX_ERROR_NONE);
    EXPECT_EQ(pool.GetHeldSections(), (std::vector<int>{0, 1, 2, kSections - 1}));
    EXPECT_EQ(rec.drops.size(), 1u);
}

TEST(ResultPoolMoves, RefusedMovesArgumentsAndListsLeaveThePoolAlone) {
    Sections sections;
    Recorder rec;
    CResultPool pool(2, kSectionSize, MOX_PREFETCH_WINDOWED);
    rec.Attach(pool);
    EXPECT_EQ(pool.MoveToIndex(0), MOX_ERROR_INVALID_PARAMETER);  // total unknown
    EXPECT_EQ(pool.MoveToNext(), MOX_ERROR_NOT_READY);
    EXPECT_EQ(pool.MoveToPrevious(), MOX_ERROR_NOT_READY);
    std::string item, shm;
    int nItemIndex;
    EXPECT_EQ(pool.GetCurrentItem(item, shm, nItemIndex), MOX_ERROR_NOT_READY);
    EXPECT_FALSE(pool.Push(new CResultList("mox_resultlist_does_not_exist")));
    EXPECT_EQ(rec.drops, std::vector<std::string>{"mox_resultlist_does_not_exist"});
    EXPECT_TRUE(pool.GetHeldSections().empty());

    pool.Push(sections.Open(0));
    ASSERT_EQ(pool.MoveToIndex(0), MOX_ERROR_NONE);
    EXPECT_EQ(pool.MoveToPrevious(), MOX_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(pool.MoveToIndex(kTotal), MOX_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(pool.MoveToIndex(-1), MOX_ERROR_INVALID_PARAMETER);
    EXPECT_EQ(pool.MoveToIndex(30), MOX_ERROR_NOT_READY);
    EXPECT_EQ(pool.GetCursor().nIndex, 0);
    pool.ResetCursor();
    EXPECT_EQ(pool.GetCursor().pCurrentList, nullptr);
    EXPECT_EQ(pool.MoveToNext(), MOX_ERROR_NOT_READY);

    // A pool without a window keeps every list and asks for none.
    Recorder rec2;
    CResultPool invalid(0, kSectionSize, MOX_PREFETCH_WINDOWED);
    EXPECT_FALSE(invalid.IsValid());
    rec2.Attach(invalid);
    EXPECT_TRUE(invalid.Push(sections.Open(3)));
    EXPECT_TRUE(invalid.Push(sections.Open(7)));
    EXPECT_EQ(invalid.MoveToIndex(15), MOX_ERROR_INVALID_PARAMETER);
    EXPECT_TRUE(rec2.prefetches.empty() && rec2.drops.empty());
    EXPECT_FALSE(CResultPool(3, -1, MOX_PREFETCH_SEQUENTIAL).IsValid());
    EXPECT_FALSE(CResultPool(3, 0, MOX_PREFETCH_SEQUENTIAL).IsValid());
}

TEST(ResultPoolGroups, GroupsOfOneOrSeveralSections) {
    Sections sections;
    Recorder rec;
    CResultPool pool(100, kSectionSize, MOX_PREFETCH_SEQUENTIAL);
    rec.Attach(pool);
    EXPECT_EQ(pool.GetGroupCount(), 0);
    pool.Push(sections.Open(2));
    EXPECT_EQ(pool.GetGroupCount(), 1);
    int start = -1, count = -1;
    ASSERT_TRUE(pool.GetGroup(0, start, count));
    EXPECT_EQ(std::make_pair(start, count), std::make_pair(10, 10));
    pool.Push(sections.Open(3));  // same group
    EXPECT_EQ(pool.GetGroupCount(), 1);
    pool.Push(sections.Open(0));  // group (0, 10)
    EXPECT_EQ(pool.GetGroupCount(), 2);
    for (int g = 0; g < 2; ++g) {
        ASSERT_TRUE(pool.GetGroup(g, start, count));
        EXPECT_EQ(std::make_pair(start, count), std::make_pair(10 * g, 10));
    }
    EXPECT_FALSE(pool.GetGroup(2, start, count));
}

// Movers walk the cursor while a pusher answers the prefetch requests from
// its own thread: every pushed list ends up held or handed back, once.
TEST(ResultPoolConcurrency, MoversAndPusher) {
    Sections sections;
    CResultPool pool(2, kSectionSize, MOX_PREFETCH_WINDOWED);
    struct Shared {
        std::mutex mutex;
        std::condition_variable cv;
        std::deque<int> requests;
        bool done = false;
        std::atomic<int> drops{0};
    } shared;
    pool.SetCallBack(
        [](void* p, int, int, int nSection) {
            auto* s = static_cast<Shared*>(p);
            std::lock_guard<std::mutex> lock(s->mutex);
            s->requests.push_back(nSection);
            s->cv.notify_one();
            return true;
        },
        &shared,
        [](void* p, std::string) {
            ++static_cast<Shared*>(p)->drops;
            return true;
        },
        &shared);
    std::atomic<int> pushes{0};
    std::thread pusher([&] {
        for (;;) {
            std::unique_lock<std::mutex> lock(shared.mutex);
            shared.cv.wait(lock, [&] { return shared.done || !shared.requests.empty(); });
            if (shared.requests.empty()) return;
            int s = shared.requests.front();
            shared.requests.pop_front();
            lock.unlock();
            ++pushes;
            pool.Push(sections.Open(s));
        }
    });
    ++pushes;
    pool.Push(sections.Open(0));
    auto mover = [&](int seed) {
        std::mt19937 rng(seed);
        for (int i = 0; i < 3000; ++i) {
            switch (rng() % 4) {
                case 0: pool.MoveToNext(); break;
                case 1: pool.MoveToPrevious(); break;
                default: pool.MoveToIndex(static_cast<int>(rng() % kTotal)); break;
            }
            if (pool.GetCursor().pCurrentList == nullptr) pool.MoveToIndex(0);
        }
    };
    std::thread m1(mover, 1), m2(mover, 2);
    m1.join();
    m2.join();
    {
        std::lock_guard<std::mutex> lock(shared.mutex);
        shared.done = true;
        shared.cv.notify_one();
    }
    pusher.join();
    EXPECT_EQ(pushes.load(), static_cast<int>(pool.GetHeldSections().size()) + shared.drops.load());
    int start, end;
    pool.GetWindow(start, end);
    CResultPool::Cursor cursor = pool.GetCursor();
    if (cursor.pCurrentList) {
        EXPECT_GE(cursor.nIndex, start);
        EXPECT_LE(cursor.nIndex, end);
    }
}
