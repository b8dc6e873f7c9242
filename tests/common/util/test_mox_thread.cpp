#include <mox/mox_singleton.h>
#include <mox/mox_thread.h>

#include <gtest/gtest.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

// A body that records its thread name and waits for the test to let it end.
class GatedThread : public CMOXThread {
public:
    CMOXSemphore gate;
    std::atomic<bool> finished{false};
    std::string name;  // written by the body, read after Destroy

protected:
    void t_Process() override {
        char buf[32] = {};
        pthread_getname_np(pthread_self(), buf, sizeof(buf));
        name = buf;
        gate.Wait();
        finished = true;
    }
};

class ThrowingThread : public CMOXThread {
protected:
    void t_Process() override { throw std::runtime_error("scanner blew up"); }
};

TEST(Thread, CreateNeedsANameAndRestartsAfterDestroy) {
    CMOXThread thread;
    EXPECT_FALSE(thread.Create(nullptr));
    EXPECT_EQ(CMOXThread::NoThread(), thread.Thread_id());
    thread.Destroy();  // nothing started: returns at once
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(thread.Create("mox-base"));
        EXPECT_EQ(1, thread.FlagCreate());
        thread.Destroy();
        EXPECT_EQ(0, thread.FlagCreate());
        EXPECT_EQ(CMOXThread::NoThread(), thread.Thread_id());
    }
}

TEST(Thread, DestroyBlocksUntilTheBodyReturns) {
    GatedThread thread;
    ASSERT_TRUE(thread.Create("mox-gated"));

    std::atomic<bool> destroyCalled{false};
    std::atomic<bool> destroyReturned{false};
    std::atomic<bool> finishedAtReturn{false};
    std::thread destroyer([&] {
        destroyCalled = true;
        thread.Destroy();
        finishedAtReturn = thread.finished.load();
        destroyReturned = true;
    });
    while (!destroyCalled) std::this_thread::yield();
    // Not a timing measurement: Destroy must still be waiting for the body.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(destroyReturned);
    thread.gate.Post();
    destroyer.join();
    EXPECT_TRUE(destroyReturned);
    EXPECT_TRUE(finishedAtReturn);
    EXPECT_EQ("mox-gated", thread.name);
    EXPECT_EQ(0, thread.FlagCreate());
}

TEST(Thread, JoinThenDestroyAndThrowingBodies) {
    GatedThread thread;
    ASSERT_TRUE(thread.Create("mox-join"));
    thread.gate.Post();
    EXPECT_EQ(nullptr, thread.Thread_join());
    EXPECT_TRUE(thread.finished);
    thread.Destroy();  // only resets the state; the join consumed the reference
    EXPECT_EQ(0, thread.FlagCreate());

    // An exception escaping the body would end the process.
    ThrowingThread throwing;
    ASSERT_TRUE(throwing.Create("mox-throw"));
    throwing.Destroy();
    EXPECT_EQ(0, throwing.FlagCreate());
}

// Early posts are permits; every post from many threads releases one wait.
TEST(Semaphore, EveryPostReleasesOneWait) {
    CMOXSemphore sem;
    sem.Post();
    sem.Post();
    sem.Wait();  // neither may block: the watchdog would end a hang
    sem.Wait();
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 2000;
    std::atomic<int> consumed{0};
    std::thread consumer([&] {
        for (int i = 0; i < kProducers * kPerProducer; ++i) {
            sem.Wait();
            ++consumed;
        }
    });
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p)
        producers.emplace_back([&] {
            for (int i = 0; i < kPerProducer; ++i) sem.Post();
        });
    for (std::thread& t : producers) t.join();
    consumer.join();
    EXPECT_EQ(kProducers * kPerProducer, consumed.load());
}

// Racing first calls share one instance; Destroy deletes it once.
struct Counted {
    static inline std::atomic<int> constructed{0};
    static inline std::atomic<int> destroyed{0};
    Counted() {
        // Widen the creation window so that racing first calls overlap.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ++constructed;
    }
    ~Counted() { ++destroyed; }
};

TEST(Singleton, RacingFirstCallsShareOneInstance) {
    const int constructed = Counted::constructed.load();
    const int destroyed = Counted::destroyed.load();
    std::vector<Counted*> seen(8, nullptr);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&, i] {
            while (!go) std::this_thread::yield();
            seen[i] = CMOXSingleton<Counted>::Get();
        });
    go = true;
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(constructed + 1, Counted::constructed.load());
    for (Counted* p : seen) EXPECT_EQ(seen[0], p);
    CMOXSingleton<Counted>::Destroy();
    CMOXSingleton<Counted>::Destroy();  // nothing left: no second delete
    EXPECT_EQ(destroyed + 1, Counted::destroyed.load());
    ASSERT_NE(nullptr, CMOXSingleton<Counted>::Get());  // a fresh one after Destroy
    EXPECT_EQ(constructed + 2, Counted::constructed.load());
    CMOXSingleton<Counted>::Destroy();
}

}  // namespace
