#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_folder_watch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <mox/mox_log.h>

namespace {

// Whatever changes what a list of the folder shows.
constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY | IN_ATTRIB |
                             IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
// Reads per question: a flood of events must not hold a list request.
constexpr int kMaxReads = 16;

}  // namespace

CMOXFolderWatch::CMOXFolderWatch() {
    m_fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_fd < 0) MOX_WARN("inotify unavailable (%s): folders are stamped entry by entry.", strerror(errno));
}

CMOXFolderWatch::~CMOXFolderWatch() {
    if (m_fd >= 0) close(m_fd);  // removes every watch
}

CMOXFolderWatch& CMOXFolderWatch::Get() {
    static CMOXFolderWatch s_watch;
    return s_watch;
}

void CMOXFolderWatch::m_Forget(int wd) {
    auto key = m_byWd.find(wd);
    if (key == m_byWd.end()) return;
    m_watches.erase(key->second);
    m_byWd.erase(key);
    auto pos = std::find(m_order.begin(), m_order.end(), wd);
    if (pos != m_order.end()) m_order.erase(pos);
}

void CMOXFolderWatch::m_Drain() {
    alignas(struct inotify_event) char buf[16384];
    for (int nRead = 0;; ++nRead) {
        if (nRead == kMaxReads) {
            // More pending than we read: treat every folder as changed.
            MOX_DEBUG("Folder events keep coming: every watched folder counts as changed.");
            for (auto& entry : m_watches) entry.second.nGeneration = m_nNext++;
            return;
        }
        ssize_t n = read(m_fd, buf, sizeof(buf));
        if (n <= 0) return;  // EAGAIN: nothing more pending
        for (ssize_t off = 0; off + static_cast<ssize_t>(sizeof(struct inotify_event)) <= n;) {
            const auto* pEvent = reinterpret_cast<const struct inotify_event*>(buf + off);
            off += static_cast<ssize_t>(sizeof(struct inotify_event) + pEvent->len);
            if (pEvent->mask & IN_Q_OVERFLOW) {
                MOX_DEBUG("Folder events lost: every watched folder counts as changed.");
                for (auto& entry : m_watches) entry.second.nGeneration = m_nNext++;
                continue;
            }
            if (pEvent->mask & IN_IGNORED) {
                // Removed (folder gone, storage unmounted): watched afresh,
                // with a new generation, when stamped again.
                m_Forget(pEvent->wd);
                continue;
            }
            auto key = m_byWd.find(pEvent->wd);
            if (key != m_byWd.end()) m_watches[key->second].nGeneration = m_nNext++;
        }
    }
}

bool CMOXFolderWatch::Generation(int dirFd, uint64_t nDev, uint64_t nIno, uint64_t& nGeneration) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0) return false;
    m_Drain();
    const auto key = std::make_pair(nDev, nIno);
    auto found = m_watches.find(key);
    if (found != m_watches.end()) {
        nGeneration = found->second.nGeneration;
        return true;
    }
    if (m_watches.size() >= kMaxWatches && !m_order.empty()) {
        const int wdOldest = m_order.front();
        inotify_rm_watch(m_fd, wdOldest);
        m_Forget(wdOldest);
    }
    // The open descriptor, not a name: whatever the path now leads to, the
    // watch is on the folder that was stamped.
    const std::string strProc = "/proc/self/fd/" + std::to_string(dirFd);
    const int wd = inotify_add_watch(m_fd, strProc.c_str(), kEvents);
    if (wd < 0) {
        MOX_DEBUG("Can not watch a folder (%s): stamped entry by entry.", strerror(errno));
        return false;
    }
    // A watch inotify already had (the same folder under another key) keeps
    // one record.
    m_Forget(wd);
    SWatch watch;
    watch.wd = wd;
    watch.nGeneration = m_nNext++;
    m_watches[key] = watch;
    m_byWd[wd] = key;
    m_order.push_back(wd);
    nGeneration = watch.nGeneration;
    return true;
}
