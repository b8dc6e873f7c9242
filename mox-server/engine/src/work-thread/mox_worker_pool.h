// CMOXWorkerPool: the threads that run the request commands (list, detail,
// metadata). A task goes to an idle thread when one waits; a thread is
// started only when none does, and it stays for the next task, so a steady
// stream of requests starts no thread at all.
//
// Bounds (the process-wide pool, Get()): at most kMaxThreads threads, the
// engine's bound on running jobs (CMOXEngineImp::kMaxJobs), so every job it
// admits finds a thread; at most kMaxIdle of them wait idle, the others leave
// when they find no task. Saturated (every thread busy, a stuck source holds
// one for good), a task waits in a queue of at most kMaxQueued; beyond that
// Submit() refuses it (false, one warning while it lasts) and the caller
// answers its request with a failure at once.
//
// Threads: Submit() from any thread; tasks run on the pool's threads and
// must catch their own exceptions (the pool logs and drops one that escapes).
// The process-wide pool is never destroyed: a task stuck in a source may
// outlive main(). A pool of one's own (tests) joins its threads when
// destroyed, after their tasks ended.
#pragma once

#include "mox_thread_annotations.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <vector>

class CMOXWorkerPool {
public:
    static constexpr size_t kMaxThreads = 64;
    static constexpr size_t kMaxIdle = 8;
    static constexpr size_t kMaxQueued = 64;

    CMOXWorkerPool(size_t nMaxThreads, size_t nMaxIdle, size_t nMaxQueued);
    ~CMOXWorkerPool();
    CMOXWorkerPool(const CMOXWorkerPool&) = delete;
    CMOXWorkerPool& operator=(const CMOXWorkerPool&) = delete;

    // The engine's pool (kMaxThreads, kMaxIdle, kMaxQueued).
    static CMOXWorkerPool& Get();

    // Runs fnTask on a pool thread; false when the pool is saturated (or no
    // thread can be started and none is left), and the task is not run.
    bool Submit(std::function<void()> fnTask) EXCLUDES(m_mutex);

    // Runs every task and returns when all have ended: on pool threads as
    // far as the pool takes them, the rest on the calling thread. A task the
    // pool queued but did not start by the time the caller is through its
    // own share is run by the caller, so the caller waits only for tasks
    // running on other threads: a pool thread that fans out never waits for
    // the pool itself, however saturated. Tasks catch their own exceptions.
    void RunTogether(std::vector<std::function<void()>> tasks) EXCLUDES(m_mutex);

    // Introspection for diagnostics and tests.
    size_t ThreadCount() EXCLUDES(m_mutex);
    size_t IdleCount() EXCLUDES(m_mutex);
    size_t QueuedCount() EXCLUDES(m_mutex);
    size_t StartedCount() EXCLUDES(m_mutex);  // threads ever started

private:
    void m_Run() EXCLUDES(m_mutex);

    const size_t m_nMaxThreads;
    const size_t m_nMaxIdle;
    const size_t m_nMaxQueued;
    mox::Mutex m_mutex;
    std::condition_variable m_wake;   // a task queued, or the pool ends
    std::condition_variable m_ended;  // a thread left
    std::deque<std::function<void()>> m_tasks GUARDED_BY(m_mutex);
    size_t m_nThreads GUARDED_BY(m_mutex) = 0;
    size_t m_nIdle GUARDED_BY(m_mutex) = 0;
    size_t m_nStarted GUARDED_BY(m_mutex) = 0;
    bool m_bEnding GUARDED_BY(m_mutex) = false;
    bool m_bSaturatedWarned GUARDED_BY(m_mutex) = false;
};
