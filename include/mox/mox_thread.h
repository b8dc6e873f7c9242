// CMOXSemphore: counting semaphore (mutex, counter, condition) for hand-overs
// between threads; any thread may Post or Wait. Built on the standard mutex
// and condition rather than GLib's futex-based ones so that ThreadSanitizer
// sees the hand-overs.
//
// CMOXThread: base of every long-running worker. A subclass overrides
// t_Process(); Create() starts it on a new GLib thread and returns only once
// the thread runs; Destroy() blocks until t_Process() has returned and drops
// the thread. One owner thread calls Create/Destroy; stopping a body early is
// the subclass's business (its own flag or semaphore checked in t_Process).
// The destructor neither joins nor waits: owners call Destroy() first, and
// must call it while the subclass part still exists.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <glib.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>

#include <mox/platform/mox_thread_annotations.h>

class CMOXSemphore {
public:
    CMOXSemphore();
    ~CMOXSemphore();
    CMOXSemphore(const CMOXSemphore&) = delete;
    CMOXSemphore& operator=(const CMOXSemphore&) = delete;

    void Post();
    // Blocks until a permit is available and takes it. No timed variant.
    void Wait();

private:
    mox::Mutex m_mutex;
    int m_nCount GUARDED_BY(m_mutex);
    std::condition_variable m_cond;
};

class CMOXThread {
public:
    CMOXThread();
    virtual ~CMOXThread();
    CMOXThread(const CMOXThread&) = delete;
    CMOXThread& operator=(const CMOXThread&) = delete;

    // Handle of a thread that is not running (Thread_id() of a fresh object).
    // A sentinel compared, never dereferenced.
    static GThread* NoThread() {
        // NOLINTNEXTLINE(performance-no-int-to-ptr)
        return reinterpret_cast<GThread*>(~uintptr_t(0));
    }

    // Starts t_Process() on a thread named szName. false for a null name or
    // when GLib cannot make the thread (logged). Blocks until the thread runs.
    bool Create(const char* szName);
    // 1 between a successful Create and Destroy, else 0.
    int FlagCreate() const { return m_nCreated.load(); }
    // True once t_Process() has returned, or when no thread runs: Destroy()
    // would not wait then. Never blocks (an owner polls it rather than wait
    // on a body stuck in a system call).
    bool BodyReturned() const { return m_nCreated.load() == 0 || m_bBodyReturned.load(); }

    // Waits until the body has returned, then drops the thread. Call it once
    // per successful Create; without a running Create it returns at once.
    virtual void Destroy();
    virtual GThread* Thread_id() const { return m_hThread.load(); }
    // Joins the thread (the body's return value, always null here); Destroy
    // may still follow and then only resets the state.
    virtual gpointer Thread_join();

protected:
    // The body, run on the new thread; the base version does nothing.
    virtual void t_Process() {}

private:
    static gpointer s_ThreadEntry(gpointer data);

    // Atomic: the new thread may read them while Create stores them.
    std::atomic<GThread*> m_hThread;
    std::atomic<int> m_nCreated;
    std::atomic<bool> m_bBodyReturned{false};
    CMOXSemphore m_startSem;  // posted by the new thread as its first act
    CMOXSemphore m_endSem;    // posted after t_Process() returned
};

#pragma GCC visibility pop
