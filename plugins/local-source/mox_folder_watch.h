// CMOXFolderWatch: tells cheaply whether a listed folder may have changed,
// so that the local source's validity stamp need not stat every entry on
// every cached list. Each folder stamped gets an inotify watch; the events
// queued for it (entries created, deleted, moved, written or touched, the
// folder itself moved or gone, its storage unmounted) bump its generation.
// Events are read without blocking when a stamp is asked for: a change
// completed before the question has queued its event already.
//
// Bounds: at most kMaxWatches folders (the oldest watch goes first) and a
// bounded read of pending events per question; a lost or unread event
// (queue overflow, too many pending) bumps every generation. Without inotify
// Generation() fails and the caller falls back to stat'ing every entry.
//
// Threads: every operation holds m_mutex; any thread.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>

class CMOXFolderWatch {
public:
    static const size_t kMaxWatches = 512;

    CMOXFolderWatch();
    ~CMOXFolderWatch();
    CMOXFolderWatch(const CMOXFolderWatch&) = delete;
    CMOXFolderWatch& operator=(const CMOXFolderWatch&) = delete;

    // The process-wide watcher of the local source.
    static CMOXFolderWatch& Get();

    // A number that changes whenever an entry of the folder open as dirFd
    // (identified by nDev, nIno) changes; a folder watched afresh gets a
    // number never given before. False when it can not be watched.
    bool Generation(int dirFd, uint64_t nDev, uint64_t nIno, uint64_t& nGeneration);

private:
    struct SWatch {
        int wd = -1;
        uint64_t nGeneration = 0;
    };
    // Reads the pending events; requires m_mutex.
    void m_Drain();
    void m_Forget(int wd);

    std::mutex m_mutex;
    int m_fd = -1;                                              // GUARDED_BY(m_mutex)
    uint64_t m_nNext = 1;                                       // GUARDED_BY(m_mutex); generations handed out
    std::map<std::pair<uint64_t, uint64_t>, SWatch> m_watches;  // GUARDED_BY(m_mutex); (dev, ino) -> watch
    std::map<int, std::pair<uint64_t, uint64_t>> m_byWd;        // GUARDED_BY(m_mutex)
    std::deque<int> m_order;                                    // GUARDED_BY(m_mutex); oldest watch first
};
