// CMOXSingleton<T>: the process-wide instance of T (cache pool, source
// manager, folder map, scan manager), created with `new T()` on the first
// Get(). The first creation is thread-safe: scanner, command and USB threads
// may race to it and all receive the same instance. Get() after creation is a
// single atomic load. T may keep its constructor private and befriend
// CMOXSingleton<T>.
//
// Destroy() deletes the instance (tests, orderly shutdown); the next Get()
// makes a new one. The caller guarantees that no other thread is using the
// instance or calling Get() for it at that moment.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <atomic>

#include <mox/platform/mox_thread_annotations.h>

template <typename T>
class CMOXSingleton {
public:
    CMOXSingleton() = delete;

    static T* Get() {
        T* instance = Slot().load(std::memory_order_acquire);
        if (instance != nullptr) return instance;
        mox::MutexLock lock(Mutex());
        instance = Slot().load(std::memory_order_relaxed);
        if (instance == nullptr) {
            instance = new T();  // NOLINT(cppcoreguidelines-owning-memory): owned by Slot(), freed by Destroy()
            Slot().store(instance, std::memory_order_release);
        }
        return instance;
    }

    static void Destroy() {
        T* instance = nullptr;
        {
            mox::MutexLock lock(Mutex());
            instance = Slot().exchange(nullptr, std::memory_order_acq_rel);
        }
        // Deleted outside the lock: T's destructor may use other singletons.
        delete instance;  // NOLINT(cppcoreguidelines-owning-memory): taken out of Slot() above
    }

private:
    // Function-local statics: one per T across the daemon and its plug-ins
    // (vague linkage), initialised before first use whatever the static
    // initialisation order.
    static std::atomic<T*>& Slot() {
        static std::atomic<T*> s_instance{nullptr};
        return s_instance;
    }
    static mox::Mutex& Mutex() {
        static mox::Mutex s_mutex;  // serialises creation and Destroy
        return s_mutex;
    }
};

#pragma GCC visibility pop
