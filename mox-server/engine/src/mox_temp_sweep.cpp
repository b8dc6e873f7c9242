#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_temp_sweep.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <mox/mox_confined_path.h>
#include <mox/mox_log.h>
#include <mox_unique_fd.h>

namespace mox_temp_sweep {

namespace {

using mox_util::UniqueFd;

// "PID-N" exactly, both decimal.
bool ParsePidCounter(const std::string& text, long& pid) {
    const size_t nDash = text.find('-');
    if (nDash == 0 || nDash == std::string::npos || nDash > 10 || nDash + 1 >= text.size()) return false;
    const std::string strPid = text.substr(0, nDash);
    const std::string strCounter = text.substr(nDash + 1);
    if (strPid.find_first_not_of("0123456789") != std::string::npos ||
        strCounter.find_first_not_of("0123456789") != std::string::npos || strCounter.size() > 20)
        return false;
    pid = std::stol(strPid);
    return pid > 0;
}

bool IsDeadProcess(long pid) {
    if (pid == static_cast<long>(getpid())) return false;
    return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH;
}

struct SDirCloser {
    void operator()(DIR* p) const { closedir(p); }
};

struct SWalk {
    int nFolders = 0;
    int nRemoved = 0;
    bool bCut = false;
};

void SweepFolder(int dirFd, int nDepth, SWalk& walk) {
    std::unique_ptr<DIR, SDirCloser> dir(fdopendir(dirFd));
    if (!dir) {
        close(dirFd);
        return;
    }
    std::vector<std::string> folders;
    errno = 0;
    while (struct dirent* pEntry = readdir(dir.get())) {
        const std::string strName = pEntry->d_name;
        if (strName == "." || strName == "..") continue;
        long pid = 0;
        if (pEntry->d_type == DT_DIR || pEntry->d_type == DT_UNKNOWN) {
            if (pEntry->d_type == DT_DIR || !IsEngineTemporaryName(strName, pid)) {
                folders.push_back(strName);
                continue;
            }
        }
        if (!IsEngineTemporaryName(strName, pid) || !IsDeadProcess(pid)) continue;
        struct stat st {};
        if (fstatat(dirfd(dir.get()), strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
        if (unlinkat(dirfd(dir.get()), strName.c_str(), 0) == 0) ++walk.nRemoved;
    }
    for (const std::string& strName : folders) {
        if (nDepth + 1 > kMaxDepth || walk.nFolders >= kMaxFolders) {
            walk.bCut = true;
            if (walk.nFolders >= kMaxFolders) return;
            continue;
        }
        // Never through a link, never blocking on a FIFO planted as a folder.
        int childFd =
            openat(dirfd(dir.get()), strName.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (childFd < 0) continue;
        ++walk.nFolders;
        SweepFolder(childFd, nDepth + 1, walk);
    }
}

}  // namespace

bool IsEngineTemporaryName(const std::string& name, long& pid) {
    static const std::string kTransfer = ".mox-transfer-";
    static const std::string kReplace = ".mox-";
    if (name.compare(0, kTransfer.size(), kTransfer) == 0) return ParsePidCounter(name.substr(kTransfer.size()), pid);
    // ".NAME.mox-PID-N" with a non-empty NAME.
    if (name.size() < 2 || name[0] != '.') return false;
    const size_t nMark = name.rfind(kReplace);
    if (nMark == std::string::npos || nMark < 2) return false;
    return ParsePidCounter(name.substr(nMark + kReplace.size()), pid);
}

int Sweep(const std::string& usbRoot, const std::string& mountPath) {
    CMOXConfinedPath root(usbRoot);
    if (!root.IsValid()) return -1;
    int fd = root.OpenDirectoryForRead(mountPath);
    if (fd < 0) {
        MOX_WARN("Temporary files of dead writers not looked for in [%s]: %s.", mountPath.c_str(), strerror(errno));
        return -1;
    }
    SWalk walk;
    SweepFolder(fd, 0, walk);
    if (walk.bCut)
        MOX_WARN("Temporary files of dead writers looked for in the first %d folders of [%s] only.", walk.nFolders,
                 mountPath.c_str());
    if (walk.nRemoved > 0)
        MOX_INFO("Removed %d temporary files of dead writers below [%s].", walk.nRemoved, mountPath.c_str());
    return walk.nRemoved;
}

namespace {

void SweepPathsInBackground(const std::string& usbRoot, std::vector<std::string> paths) {
    try {
        std::thread([usbRoot, paths = std::move(paths)] {
            for (const std::string& path : paths) {
                try {
                    Sweep(usbRoot, path);
                } catch (const std::exception& e) {
                    MOX_WARN("Temporary-file sweep of [%s] failed: %s.", path.c_str(), e.what());
                }
            }
        }).detach();
    } catch (const std::exception& e) {
        MOX_WARN("No thread for the temporary-file sweep below [%s]: %s.", usbRoot.c_str(), e.what());
    }
}

}  // namespace

void SweepInBackground(const std::string& usbRoot, const std::string& mountPath) {
    SweepPathsInBackground(usbRoot, {mountPath});
}

void SweepMountedInBackground(const std::string& usbRoot) {
    std::string root = usbRoot;
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    // Only the root's own entries are read here: it is the engine's
    // directory, not a storage.
    std::unique_ptr<DIR, SDirCloser> dir(opendir(root.c_str()));
    if (!dir) return;
    std::vector<std::string> paths;
    while (struct dirent* pEntry = readdir(dir.get())) {
        const std::string strName = pEntry->d_name;
        if (strName == "." || strName == ".." || pEntry->d_type == DT_LNK) continue;
        if (pEntry->d_type == DT_DIR || pEntry->d_type == DT_UNKNOWN) paths.push_back(root + "/" + strName);
    }
    if (!paths.empty()) SweepPathsInBackground(usbRoot, std::move(paths));
}

}  // namespace mox_temp_sweep
