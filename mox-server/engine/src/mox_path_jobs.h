// CMOXPathJobs: runs the work of a request that names a path on a storage
// (resolving it, opening it) on a thread of its own, so that a hung storage
// holds that thread and never the main loop or a lock it takes.
//
// A job has two parts. `resolve` runs first and may block as long as the
// storage does; it touches only what it captured by value. `finish` runs
// after it, on the same thread, only while the jobs are open, and may use
// the engine's objects: Close() (shutdown) stops new finishes and waits,
// bounded, for every running job. A job whose resolve returns after Close()
// ends without finishing (and without a reply); its thread touches nothing
// shared any more.
//
// Bounds: at most kMaxJobs jobs run at once and one share (see
// CMOXEngineImp::ShareOf) holds at most kMaxJobsPerShare of them; a job
// stuck on a storage counts until it returns. Run refuses more (warned).
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "mox_thread_annotations.h"

class CMOXPathJobs {
public:
    static constexpr size_t kMaxJobs = 64;
    static constexpr size_t kMaxJobsPerShare = 16;
    static_assert(kMaxJobsPerShare < kMaxJobs, "a client's share must stay below the bound");

    CMOXPathJobs();
    ~CMOXPathJobs();
    CMOXPathJobs(const CMOXPathJobs&) = delete;
    CMOXPathJobs& operator=(const CMOXPathJobs&) = delete;

    // Starts the job on a new thread; false (warned, nothing run) beyond the
    // bounds, after Close() or when no thread can be made.
    bool Run(const std::string& share, std::function<void()> resolve, std::function<void()> finish);
    // No finish starts from now on; waits at most `timeout` for the jobs
    // still running. False when one still runs: what it uses must then stay
    // alive, and its thread is left stuck in a system call.
    bool Close(std::chrono::milliseconds timeout);

private:
    // Shared with the threads, so that a thread stuck past the owner's life
    // still finds it.
    struct SState {
        mox::Mutex mutex;
        std::condition_variable cond;
        bool bClosed GUARDED_BY(mutex) = false;
        size_t nRunning GUARDED_BY(mutex) = 0;
        size_t nFinishing GUARDED_BY(mutex) = 0;
        std::map<std::string, size_t> perShare GUARDED_BY(mutex);
    };
    static void s_Body(const std::shared_ptr<SState>& state, const std::string& share,
                       const std::function<void()>& resolve, const std::function<void()>& finish);

    std::shared_ptr<SState> m_state;
};
