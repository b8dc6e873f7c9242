#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_worker_pool.h"

#include <exception>
#include <memory>
#include <thread>

#include <mox/mox_log.h>

#include "mox_request_slice.h"

CMOXWorkerPool::CMOXWorkerPool(size_t nMaxThreads, size_t nMaxIdle, size_t nMaxQueued)
    : m_nMaxThreads(nMaxThreads), m_nMaxIdle(nMaxIdle), m_nMaxQueued(nMaxQueued) {}

CMOXWorkerPool::~CMOXWorkerPool() {
    mox::UniqueLock lock(m_mutex);
    m_bEnding = true;
    m_wake.notify_all();
    while (m_nThreads > 0) lock.Wait(m_ended);
}

CMOXWorkerPool& CMOXWorkerPool::Get() {
    // Never destroyed: a thread stuck in a source may still use it at exit.
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory)
    static CMOXWorkerPool* s_pPool = new CMOXWorkerPool(kMaxThreads, kMaxIdle, kMaxQueued);
    return *s_pPool;
}

bool CMOXWorkerPool::Submit(std::function<void()> fnTask) {
    mox::MutexLock lock(m_mutex);
    if (m_bEnding) return false;
    // Tasks queued already have idle threads on their way: only the idle
    // ones left over take this one at once.
    const bool bIdleFree = m_nIdle > m_tasks.size();
    if (!bIdleFree && m_nThreads < m_nMaxThreads) {
        try {
            std::thread(&CMOXWorkerPool::m_Run, this).detach();
            ++m_nThreads;
            ++m_nStarted;
        } catch (const std::exception& e) {
            // No thread now: the task may still wait for a busy one.
            MOX_WARN("Can not start a worker thread: %s.", e.what());
            if (m_nThreads == 0) return false;
        }
    } else if (!bIdleFree && m_tasks.size() >= m_nMaxQueued) {
        if (!m_bSaturatedWarned)
            MOX_WARN("Worker pool saturated (%zu threads busy, %zu tasks waiting): request refused.", m_nThreads,
                     m_tasks.size());
        m_bSaturatedWarned = true;
        return false;
    }
    m_tasks.push_back(std::move(fnTask));
    m_wake.notify_one();
    return true;
}

namespace {

// The tasks of one RunTogether(); shared with the pool tasks, which may be
// dequeued after the caller returned (they then find their task claimed).
struct SFanOut {
    explicit SFanOut(std::vector<std::function<void()>> fns) : tasks(std::move(fns)), claimed(tasks.size()) {}

    // Claims task i for the calling thread; false when another has it.
    bool Claim(size_t i, bool bCountRunning) {
        mox::MutexLock lock(mutex);
        if (claimed[i]) return false;
        claimed[i] = true;
        if (bCountRunning) ++running;
        return true;
    }
    void Run(size_t i) {
        try {
            tasks[i]();
        } catch (...) {
            MOX_WARN("A worker task ended with an exception.");
        }
    }

    mox::Mutex mutex;
    std::condition_variable done;  // a task on another thread ended
    // Read by whoever holds a claim; cleared by the caller once all ended.
    std::vector<std::function<void()>> tasks;
    std::vector<bool> claimed GUARDED_BY(mutex);
    size_t running GUARDED_BY(mutex) = 0;  // claimed by pool threads, not ended
};

}  // namespace

void CMOXWorkerPool::RunTogether(std::vector<std::function<void()>> tasks) {
    if (tasks.empty()) return;
    auto state = std::make_shared<SFanOut>(std::move(tasks));
    const size_t nTasks = state->tasks.size();
    // The first one is the caller's own; the pool is offered the others.
    for (size_t i = 1; i < nTasks; ++i) {
        bool bQueued = Submit([state, i] {
            if (!state->Claim(i, true)) return;
            state->Run(i);
            mox::MutexLock lock(state->mutex);
            --state->running;
            state->done.notify_all();
        });
        if (!bQueued) break;  // the caller runs the rest
    }
    for (size_t i = 0; i < nTasks; ++i) {
        if (state->Claim(i, false)) state->Run(i);
    }
    mox::UniqueLock lock(state->mutex);
    while (state->running > 0) lock.Wait(state->done);
    state->tasks.clear();  // every task is claimed: nobody reads them again
}

void CMOXWorkerPool::m_Run() {
    mox_request_slice::UseForThisThread();
    mox::UniqueLock lock(m_mutex);
    for (;;) {
        while (m_tasks.empty() && !m_bEnding) {
            if (m_nIdle >= m_nMaxIdle) break;  // enough threads wait already
            ++m_nIdle;
            lock.Wait(m_wake);
            --m_nIdle;
        }
        if (m_tasks.empty()) break;
        std::function<void()> fnTask = std::move(m_tasks.front());
        m_tasks.pop_front();
        if (m_tasks.empty()) m_bSaturatedWarned = false;
        lock.Unlock();
        try {
            fnTask();
        } catch (...) {
            MOX_WARN("A worker task ended with an exception.");
        }
        fnTask = nullptr;  // its captures go before the lock is taken again
        lock.Lock();
    }
    --m_nThreads;
    m_ended.notify_all();
}

size_t CMOXWorkerPool::ThreadCount() {
    mox::MutexLock lock(m_mutex);
    return m_nThreads;
}

size_t CMOXWorkerPool::IdleCount() {
    mox::MutexLock lock(m_mutex);
    return m_nIdle;
}

size_t CMOXWorkerPool::QueuedCount() {
    mox::MutexLock lock(m_mutex);
    return m_tasks.size();
}

size_t CMOXWorkerPool::StartedCount() {
    mox::MutexLock lock(m_mutex);
    return m_nStarted;
}
