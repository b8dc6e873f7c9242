#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_log.h>

#include "mox_usb_scanner.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <mox/mox_confined_path.h>

#include "mox_scan_log.h"

namespace {
constexpr int kKindUsb = -2;
constexpr int kMaxRetry = 6;
}  // namespace

CMOXUsbScanner::CMOXUsbScanner() : CMOXScannerBase(kKindUsb) {}

CMOXUsbScanner::~CMOXUsbScanner() {
    t_CloseDir();
    if (m_topFd >= 0) close(m_topFd);
}

int CMOXUsbScanner::t_Create() {
    t_CloseDir();
    if (m_topFd >= 0) close(m_topFd);
    m_topFd = -1;
    m_strTopPath = m_option.strDevicePath;
    while (m_strTopPath.size() > 1 && m_strTopPath.back() == '/') m_strTopPath.pop_back();
    if (m_strTopPath.empty()) {
        MOX_WARN("device path is empty...");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    // The top is resolved once, by descriptor, beneath the confine root; all
    // later opens are relative to it.
    if (!m_option.strConfineRoot.empty())
        m_topFd = CMOXConfinedPath(m_option.strConfineRoot).OpenDirectoryForRead(m_strTopPath);
    else
        m_topFd = open(m_strTopPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (m_topFd < 0) return m_ConvertError(errno, __LINE__);
    return t_OpenDir(m_strTopPath.c_str());
}

void CMOXUsbScanner::t_Destroy() {
    MOX_INFO("current dir : %s", m_strCurDirName.c_str());
    t_CloseDir();
    if (m_topFd >= 0) close(m_topFd);
    m_topFd = -1;
}

int CMOXUsbScanner::m_OpenBelowTop(const std::string& path) {
    if (m_topFd < 0) {
        errno = EBADF;
        return -1;
    }
    std::string relative;
    if (path == m_strTopPath) {
        relative = ".";
    } else if (path.size() > m_strTopPath.size() + 1 && path.compare(0, m_strTopPath.size(), m_strTopPath) == 0 &&
               (m_strTopPath == "/" || path[m_strTopPath.size()] == '/')) {
        relative = path.substr(m_strTopPath == "/" ? 1 : m_strTopPath.size() + 1);
    } else {
        errno = EXDEV;
        return -1;
    }
    struct open_how how;
    memset(&how, 0, sizeof(how));
    // O_NONBLOCK: should a name now be a FIFO, O_DIRECTORY fails instead of
    // blocking. No link is followed in any component, not even one that would
    // stay below the top: the walk itself never meets links as folders.
    how.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        long fd = syscall(SYS_openat2, m_topFd, relative.c_str(), &how, sizeof(how));
        if (fd >= 0) return static_cast<int>(fd);
        // The kernel asks for a retry when a rename raced with the lookup.
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
}

int CMOXUsbScanner::t_OpenDir(const char* pszPathName) {
    if (m_pDir) {
        MOX_WARN("Error - please destroy this session...");
        return MOX_SCAN_NO_DIR;
    }
    if (pszPathName == nullptr) {
        MOX_WARN("pszPathName is NULL...");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    m_nRetryCount = 0;
    int fd = m_OpenBelowTop(pszPathName);
    if (fd < 0) {
        int err = errno;
        // A folder swapped for a link (or moved out) is skipped, not followed.
        if (err == ELOOP || err == EXDEV) {
            MOX_WARN("DIR(%s) refused: it is no longer a folder below %s", pszPathName, m_strTopPath.c_str());
            return MOX_SCAN_FAIL;
        }
        return m_ConvertError(err, __LINE__);
    }
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        int err = errno;
        close(fd);
        return m_ConvertError(err, __LINE__);
    }
    m_pDir.reset(dir);
    m_strCurDirName = pszPathName;
    return MOX_SCAN_OK;
}

void CMOXUsbScanner::t_CloseDir() {
    m_pDir.reset();
    m_strCurDirName.clear();
    m_nRetryCount = 0;
}

int CMOXUsbScanner::t_ReadFile(SMOXFileInfo& info) {
    if (!m_pDir || m_strCurDirName.empty()) {
        MOX_WARN("m_strCurDirName is not yet set...");
        return MOX_SCAN_NO_DIR;
    }
    errno = 0;
    struct dirent64* entry = readdir64(m_pDir.get());
    if (entry == nullptr) return m_ConvertError(errno, __LINE__);
    info.strBasePath = m_strCurDirName;
    info.strName = entry->d_name;
    bool bDetailRead = false;
    switch (entry->d_type) {
        case DT_DIR: info.nType = MOX_SCANNER_TYPE_DIR; break;
        case DT_REG: info.nType = MOX_SCANNER_TYPE_FILE; break;
        case DT_UNKNOWN: {
            // File systems without entry types answer this for every entry:
            // warned once per walk, the rest at debug level.
            if (!m_bUnknownTypeLogged)
                MOX_WARN("Cannot recognize Entry Type... --- Using stat64...");
            else
                MOX_SCAN_DEBUG("Cannot recognize Entry Type... --- Using stat64...");
            m_bUnknownTypeLogged = true;
            int nResult = m_GetDetailFileInfo(info, true);
            if (nResult != MOX_SCAN_OK) return nResult;
            bDetailRead = true;
            break;
        }
        default: break;  // links, FIFOs, devices: the caller's preset type
    }
    if (!t_DoFilter(info)) {
        // Per-entry walk lines are debug lines (info once: millions a day).
        MOX_SCAN_DEBUG("Ignore %s(%s/%s), Do Again...", info.nType == MOX_SCANNER_TYPE_FILE ? "FILE" : "DIR",
                       info.strBasePath.c_str(), info.strName.c_str());
        return MOX_SCAN_SKIPPED;
    }
    if ((m_option.nDetail & 1) && !bDetailRead) return m_GetDetailFileInfo(info, false);
    return MOX_SCAN_OK;
}

int CMOXUsbScanner::t_MoveNextDir() {
    while (!m_pendingDirs.empty()) {
        PendingDir pending = std::move(m_pendingDirs.front());
        m_pendingDirs.pop_front();
        if (pending.strParent.size() + pending.strName.size() >= kMoxScanMaxPath) return MOX_SCAN_FAIL;
        std::string path = pending.strParent;
        if (pending.strParent.size() > 1) path += '/';
        path += pending.strName;
        t_CloseDir();
        int nResult = t_OpenDir(path.c_str());
        MOX_SCAN_DEBUG("Enter DIR : %s", path.c_str());  // per folder of the walk
        if (nResult == MOX_SCAN_OK) return MOX_SCAN_OK;
        if (nResult == MOX_SCAN_DEVICE_ERROR) break;
    }
    MOX_DEBUG("No More DIRs...");
    return MOX_SCAN_END;
}

int CMOXUsbScanner::t_AddDir(const SMOXFileInfo& info) {
    if (info.strName.empty()) {
        MOX_WARN("DIR Name is empty...");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    if (m_strCurDirName.size() + info.strName.size() >= kMoxScanMaxPath) {
        MOX_WARN("Exceed the MAX PATH size...");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    if (m_pendingDirs.size() >= kMaxPendingDirs) {
        if (!m_bQueueFullLogged) MOX_WARN("Too many pending DIRs (%zu), skipping more...", m_pendingDirs.size());
        m_bQueueFullLogged = true;
        return MOX_SCAN_BAD_ARGUMENT;
    }
    m_pendingDirs.push_back(PendingDir{m_strCurDirName, info.strName});
    return MOX_SCAN_OK;
}

bool CMOXUsbScanner::t_DoFilter(SMOXFileInfo& info) {
    if (info.nType == MOX_SCANNER_TYPE_DIR) return m_FilterFolder(info.strName);
    if (m_option.nMediaGroup == MOX_MEDIA_TYPE_NONE || m_option.nMediaGroup == MOX_MEDIA_TYPE_ALL)
        return t_FilterExtension(info);
    return t_FilterExtension(info) && info.nExtensionGroup == m_option.nMediaGroup;
}

int CMOXUsbScanner::m_GetDetailFileInfo(SMOXFileInfo& info, bool bSetType) {
    struct stat64 st;
    // Relative to the open directory and without following links: a link to a
    // FIFO or to a hung mount is never touched.
    if (!m_pDir) return MOX_SCAN_NO_DIR;
    if (fstatat64(dirfd(m_pDir.get()), info.strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return m_ConvertError(errno, __LINE__);
    if (bSetType) info.nType = S_ISDIR(st.st_mode) ? MOX_SCANNER_TYPE_DIR : MOX_SCANNER_TYPE_FILE;
    info.llFileSize = st.st_size;
    info.tModified = static_cast<int32_t>(st.st_mtime);
    info.tCreated = static_cast<int32_t>(st.st_ctime);
    info.bDetailFilled = true;
    return MOX_SCAN_OK;
}

int CMOXUsbScanner::m_ConvertError(int nErrno, long nLine) {
    if (nErrno == 0) {
        // The plain end of a directory, met once per directory: not a warning.
        MOX_SCAN_DEBUG("[line#:%ld] errno:%ld", nLine, static_cast<long>(nErrno));
        m_nRetryCount = 0;
        return MOX_SCAN_END;
    }
    MOX_WARN("[line#:%ld] errno:%ld", nLine, static_cast<long>(nErrno));
    switch (nErrno) {
        case EPERM:
        case ENOENT:
            if (++m_nRetryCount < kMaxRetry) return MOX_SCAN_RETRY;
            MOX_WARN("System Error - No More Entry... Stop Scanning...");
            m_nRetryCount = 0;
            return MOX_SCAN_END;
        default: break;
    }
    m_nRetryCount = 0;
    switch (nErrno) {
        case ESRCH:
        case EINTR:
        case EIO:
        case ENXIO:
        case ENODEV:
        case ENOSYS:
        case EILSEQ:
        case ENOTCONN:
            MOX_WARN("Device Error (%ld) - Stop Scanning...", static_cast<long>(nErrno));
            return MOX_SCAN_DEVICE_ERROR;
        case EBADF:
        case ENOTDIR:
        case EINVAL:
        case ENAMETOOLONG:
            MOX_WARN("Unknown Error (%ld) - Stop Scanning...", static_cast<long>(nErrno));
            return MOX_SCAN_BAD_ARGUMENT;
        case ENOMEM:
        case EACCES:
        case EFAULT:
        case ENFILE:
        case EMFILE:
            MOX_WARN("System Error (%ld) -  Stop Scanning...", static_cast<long>(nErrno));
            return MOX_SCAN_SYSTEM_ERROR;
        case ESTALE: MOX_WARN("NFS Error - Stop Scanning..."); return MOX_SCAN_NFS_ERROR;
        default: return MOX_SCAN_FAIL;
    }
}
