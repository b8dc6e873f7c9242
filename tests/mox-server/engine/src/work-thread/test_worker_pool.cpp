// The worker pool: threads reused, its bounds, what it does saturated, and
// the time slice of its threads.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

#include "mox_engine_imp.h"
#include "mox_request_slice.h"
#include "mox_worker_pool.h"

namespace {

// Tasks that block until opened.
class Gate {
public:
    void Wait() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_nWaiting;
        m_cv.notify_all();
        m_cv.wait(lock, [this] { return m_bOpen; });
        --m_nWaiting;
    }
    void Open() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_bOpen = true;
        m_cv.notify_all();
    }
    bool WaitForWaiting(int n) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_nWaiting == n; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    int m_nWaiting = 0;
    bool m_bOpen = false;
};

bool Eventually(const std::function<bool()>& fnDone) {
    for (int i = 0; i < 1000 && !fnDone(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return fnDone();
}

TEST(WorkerPool, ReusesThreadsBoundsThemAndRefusesWhenSaturated) {
    // Every job the engine admits finds a thread of the engine's pool.
    static_assert(CMOXWorkerPool::kMaxThreads >= CMOXEngineImp::kMaxJobs, "a running job without a thread");

    std::atomic<int> nRan{0};
    {
        CMOXWorkerPool pool(2, 1, 2);
        // Sequential tasks: one thread, reused.
        for (int i = 0; i < 20; ++i) {
            ASSERT_TRUE(pool.Submit([&] { ++nRan; }));
            ASSERT_TRUE(Eventually([&] { return nRan == i + 1 && pool.IdleCount() == 1; }));
        }
        EXPECT_EQ(pool.StartedCount(), 1u);

        // Saturated: two busy threads, two tasks queued, the next refused
        // (not run, now or later); the queued ones run once a thread is free.
        Gate gate;
        ASSERT_TRUE(pool.Submit([&] { gate.Wait(); }));
        ASSERT_TRUE(pool.Submit([&] { gate.Wait(); }));
        ASSERT_TRUE(gate.WaitForWaiting(2));
        EXPECT_EQ(pool.ThreadCount(), 2u);
        ASSERT_TRUE(pool.Submit([&] { ++nRan; }));
        ASSERT_TRUE(pool.Submit([&] { ++nRan; }));
        EXPECT_EQ(pool.QueuedCount(), 2u);
        EXPECT_FALSE(pool.Submit([&] { nRan += 1000; }));
        EXPECT_EQ(pool.ThreadCount(), 2u);
        gate.Open();
        EXPECT_TRUE(Eventually([&] { return nRan == 22 && pool.QueuedCount() == 0; }));
        // At most one thread stays idle; the other left.
        EXPECT_TRUE(Eventually([&] { return pool.ThreadCount() == 1 && pool.IdleCount() == 1; }));
        EXPECT_EQ(pool.StartedCount(), 2u);

        // A task that throws does not take its thread down with it.
        ASSERT_TRUE(pool.Submit([] { throw std::runtime_error("task failed"); }));
        ASSERT_TRUE(pool.Submit([&] { ++nRan; }));
        EXPECT_TRUE(Eventually([&] { return nRan == 23; }));
    }  // the pool's threads are joined here
    EXPECT_EQ(nRan, 23);
}

TEST(WorkerPool, FanOutRunsInParallelAndNeverWaitsForTheSaturatedPool) {
    CMOXWorkerPool pool(1, 1, 1);
    // With a free thread the tasks run at the same time: each waits for the
    // other to have started.
    Gate both;
    std::atomic<int> nStarted{0};
    auto fnMeet = [&] {
        if (++nStarted == 2) both.Open();
        both.Wait();
    };
    pool.RunTogether({fnMeet, fnMeet});
    EXPECT_EQ(nStarted, 2);

    // The pool's only thread fans out while the queue holds a task of the
    // fan-out and nothing else fits: the caller runs the queued and refused
    // ones itself instead of waiting for a thread that is never free.
    std::atomic<int> nRan{0};
    Gate done;
    ASSERT_TRUE(pool.Submit([&] {
        pool.RunTogether({[&] { ++nRan; }, [&] { ++nRan; }, [&] { ++nRan; }, [] { throw std::runtime_error("x"); }});
        done.Open();
    }));
    ASSERT_TRUE(Eventually([&] { return nRan == 3; }));
    done.Wait();
    // The task left queued by the fan-out finds itself claimed and returns.
    EXPECT_TRUE(Eventually([&] { return pool.QueuedCount() == 0 && pool.IdleCount() == 1; }));
    EXPECT_EQ(nRan, 3);
}

// The calling thread's slice as the kernel reports it (0: not reported).
uint64_t SliceOfThisThread() {
    struct {
        uint32_t size, policy;
        uint64_t flags;
        int32_t nice;
        uint32_t priority;
        uint64_t runtime, deadline, period;
    } attr{};
    return syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) == 0 ? attr.runtime : 0;
}

// Pool threads answer requests with the short slice; a thread one of them
// starts (a scanner, a helper) begins with the default again.
TEST(WorkerPool, ThreadsTakeTheShortSliceAndDoNotPassItOn) {
    CMOXWorkerPool pool(1, 1, 1);
    std::atomic<uint64_t> nPool{0}, nChild{0};
    std::atomic<bool> bDone{false};
    ASSERT_TRUE(pool.Submit([&] {
        std::thread([&] { nChild = SliceOfThisThread(); }).join();
        nPool = SliceOfThisThread();
        bDone = true;
    }));
    ASSERT_TRUE(Eventually([&] { return bDone.load(); }));
    if (nPool != mox_request_slice::kSliceNs) GTEST_SKIP() << "this kernel has no per-task slices";
    EXPECT_NE(nChild, mox_request_slice::kSliceNs);
}

}  // namespace
