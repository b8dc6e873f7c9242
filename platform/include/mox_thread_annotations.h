// Lock discipline the compiler checks: clang's thread-safety attributes and a
// mutex, a scoped guard and a waitable guard that carry them. Members say
// which mutex guards them (GUARDED_BY), helpers say which mutex the caller
// holds (REQUIRES), and a clang build with -Wthread-safety (MOX_THREAD_SAFETY)
// rejects code that breaks either. Other compilers see plain std::mutex code.
//
// Where the analysis cannot follow correct code (a lambda run by the caller
// under its lock, a callback entered with a lock held), prefer REQUIRES on the
// function or Mutex::AssertHeld(); NO_THREAD_SAFETY_ANALYSIS is the last
// resort, on one small function with a comment saying why.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define MOX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define MOX_THREAD_ANNOTATION(x)
#endif

// A type that is a lock (mox::Mutex).
#define CAPABILITY(x) MOX_THREAD_ANNOTATION(capability(x))
// An RAII type that holds a lock for its lifetime (mox::MutexLock).
#define SCOPED_CAPABILITY MOX_THREAD_ANNOTATION(scoped_lockable)
// A member read or written only with the mutex held.
#define GUARDED_BY(x) MOX_THREAD_ANNOTATION(guarded_by(x))
// A pointer whose pointee is read or written only with the mutex held.
#define PT_GUARDED_BY(x) MOX_THREAD_ANNOTATION(pt_guarded_by(x))
// Lock order: this mutex is taken before / after the named ones.
#define ACQUIRED_BEFORE(...) MOX_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) MOX_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
// The caller holds the mutex when it calls the function.
#define REQUIRES(...) MOX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// The function takes / releases the mutex (no argument: the object itself).
#define ACQUIRE(...) MOX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) MOX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// The function takes the mutex when it returns the given value.
#define TRY_ACQUIRE(...) MOX_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// The caller must not hold the mutex (the function takes it).
#define EXCLUDES(...) MOX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// The function checks at run time that the mutex is held; from there on the
// analysis treats it as held.
#define ASSERT_CAPABILITY(x) MOX_THREAD_ANNOTATION(assert_capability(x))
// The function returns a reference to the mutex.
#define RETURN_CAPABILITY(x) MOX_THREAD_ANNOTATION(lock_returned(x))
// The analysis skips the function: say why beside it.
#define NO_THREAD_SAFETY_ANALYSIS MOX_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace mox {

// A standard mutex (std::mutex or std::recursive_mutex) the analysis knows.
// The lower-case members keep it usable with std APIs (std::lock_guard,
// std::scoped_lock), which the analysis does not see through: use MutexLock
// and UniqueLock. The analysis does not model re-entry of a recursive one:
// code it sees must not take that lock twice.
template <class StdMutex>
class CAPABILITY("mutex") BasicMutex {
public:
    BasicMutex() = default;
    BasicMutex(const BasicMutex&) = delete;
    BasicMutex& operator=(const BasicMutex&) = delete;

    void Lock() ACQUIRE() { m_mutex.lock(); }
    void Unlock() RELEASE() { m_mutex.unlock(); }
    bool TryLock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

    // Tells the analysis the caller holds the mutex, where it cannot see it
    // (code called back under a lock its caller took). Checks nothing at run
    // time: a standard mutex does not know its owner.
    void AssertHeld() const ASSERT_CAPABILITY(this) {}

private:
    friend class UniqueLock;
    StdMutex m_mutex;
};

using Mutex = BasicMutex<std::mutex>;
// For a lock a thread may take again through a callback it runs under it.
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds the mutex from construction to the end of the scope.
template <class M>
class SCOPED_CAPABILITY BasicMutexLock {
public:
    explicit BasicMutexLock(M& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.Lock(); }
    ~BasicMutexLock() RELEASE() { m_mutex.Unlock(); }
    BasicMutexLock(const BasicMutexLock&) = delete;
    BasicMutexLock& operator=(const BasicMutexLock&) = delete;

private:
    M& m_mutex;
};

using MutexLock = BasicMutexLock<Mutex>;
using RecursiveMutexLock = BasicMutexLock<RecursiveMutex>;

// Holds the mutex like MutexLock, can let go of it for a while (Unlock/Lock)
// and waits on a std::condition_variable. Waits take no predicate: a predicate
// is a lambda the analysis checks as a function of its own, without the lock,
// so callers loop (`while (!ready) lock.Wait(cv);`), which is what the
// predicate overloads do anyway.
class SCOPED_CAPABILITY UniqueLock {
public:
    explicit UniqueLock(Mutex& mutex) ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    // std::unique_lock releases the mutex only when it holds it.
    ~UniqueLock() RELEASE() {}
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void Lock() ACQUIRE() { m_lock.lock(); }
    void Unlock() RELEASE() { m_lock.unlock(); }

    // Releases the mutex while blocked; holds it again on return.
    void Wait(std::condition_variable& cv) { cv.wait(m_lock); }
    template <class Rep, class Period>
    std::cv_status WaitFor(std::condition_variable& cv, const std::chrono::duration<Rep, Period>& timeout) {
        return cv.wait_for(m_lock, timeout);
    }
    template <class Clock, class Duration>
    std::cv_status WaitUntil(std::condition_variable& cv, const std::chrono::time_point<Clock, Duration>& deadline) {
        return cv.wait_until(m_lock, deadline);
    }

private:
    std::unique_lock<std::mutex> m_lock;
};

}  // namespace mox

#pragma GCC visibility pop
