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
}

int CMOXUsbScanner::t_Create() {
    t_CloseDir();
    m_topFd.reset();
    m_strTopPath = m_option.strDevicePath;
    while (m_strTopPath.size() > 1 && m_strTopPath.back() == '/') m_strTopPath.pop_back();
    if (m_strTopPath.empty()) {
        MOX_WARN("device path is empty...");
        return MOX_SCAN_BAD_ARGUMENT;
    }
    // The top is resolved once, by descriptor, beneath the confine root; all
    // later opens are relative to it and to the folders below it.
    int fd = -1;
    if (!m_option.strConfineRoot.empty())
        fd = CMOXConfinedPath(m_option.strConfineRoot).OpenDirectoryForRead(m_strTopPath);
    else
        fd = open(m_strTopPath.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return m_ConvertError(errno, __LINE__);
    m_topFd = std::make_shared<const mox_util::UniqueFd>(fd);
    return t_OpenDir(m_strTopPath.c_str());
}

void CMOXUsbScanner::t_Destroy() {
    MOX_INFO("current dir : %s", m_strCurDirName.c_str());
    t_CloseDir();
    m_topFd.reset();
}

int CMOXUsbScanner::m_OpenFrom(const mox_util::UniqueFd& base, const std::string& relative) {
    const int nFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    if (relative.empty() || relative == "." || relative == "..") {
        errno = EXDEV;
        return -1;
    }
    // One name: relative to the parent's descriptor. O_NONBLOCK: should the
    // name now be a FIFO, O_DIRECTORY fails instead of blocking.
    if (relative.find('/') == std::string::npos) return openat(base.Get(), relative.c_str(), nFlags);
    // Deeper than the kept descriptors: beneath the deepest kept ancestor,
    // no link followed in any component.
    struct open_how how;
    memset(&how, 0, sizeof(how));
    how.flags = nFlags;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    for (;;) {
        long fd = syscall(SYS_openat2, base.Get(), relative.c_str(), &how, sizeof(how));
        if (fd >= 0) return static_cast<int>(fd);
        // The kernel asks for a retry when a rename raced with the lookup.
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
}

int CMOXUsbScanner::m_Enter(int fd, const std::string& path, const PendingDir* pFrom) {
    m_nCurDepth = pFrom ? pFrom->nDepth : 0;
    m_curBase.reset();
    m_strCurRelative.clear();
    if (pFrom == nullptr) {
        m_curBase = m_topFd;
    } else if (m_nCurDepth <= kMaxHeldDepth) {
        int held = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (held >= 0) m_curBase = std::make_shared<const mox_util::UniqueFd>(held);
    }
    if (!m_curBase) {
        // Subfolders open from the ancestor this folder was opened from.
        m_curBase = pFrom->base;
        m_strCurRelative = pFrom->strRelative;
    }
    DIR* dir = fdopendir(fd);
    if (dir == nullptr) {
        int err = errno;
        close(fd);
        m_curBase.reset();
        return m_ConvertError(err, __LINE__);
    }
    m_pDir.reset(dir);
    m_strCurDirName = path;
    ++m_nDirSerial;
    return MOX_SCAN_OK;
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
    // Only the top opens by its path (again, from its own descriptor).
    if (!m_topFd || pszPathName != m_strTopPath) {
        MOX_WARN("DIR(%s) refused: not the top of the walk %s", pszPathName, m_strTopPath.c_str());
        return MOX_SCAN_FAIL;
    }
    int fd = openat(m_topFd->Get(), ".", O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return m_ConvertError(errno, __LINE__);
    return m_Enter(fd, m_strTopPath, nullptr);
}

void CMOXUsbScanner::t_CloseDir() {
    m_pDir.reset();
    m_curBase.reset();
    m_strCurRelative.clear();
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
    // A record reused for the entries of one folder keeps its buffers: its
    // folder is copied only when it changed (or the record is another one,
    // or its copy was touched), the name into the same buffer.
    if (&info != m_pFilled || m_nFilledSerial != m_nDirSerial || info.strBasePath.size() != m_strCurDirName.size()) {
        info.strBasePath = m_strCurDirName;
        m_pFilled = &info;
        m_nFilledSerial = m_nDirSerial;
    }
    const size_t nNameLength = strlen(entry->d_name);
    info.strName.resize(nNameLength);
    memcpy(&info.strName[0], entry->d_name, nNameLength);
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
        default:
            // Links, FIFOs, devices and sockets are no media and no folders:
            // a link named "x.jpg" is not a photo of this storage.
            return MOX_SCAN_SKIPPED;
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
    // Depth-first: the last folder queued is a subfolder of the current one
    // (or of its nearest ancestor with folders left), so only the chain of
    // descriptors above it stays open.
    while (!m_pendingDirs.empty()) {
        PendingDir pending = std::move(m_pendingDirs.back());
        m_pendingDirs.pop_back();
        if (pending.strParent.size() + pending.strName.size() >= kMoxScanMaxPath) return MOX_SCAN_FAIL;
        std::string path = pending.strParent;
        if (pending.strParent.size() > 1) path += '/';
        path += pending.strName;
        t_CloseDir();
        MOX_SCAN_DEBUG("Enter DIR : %s", path.c_str());
        int nResult = MOX_SCAN_FAIL;
        int fd = pending.base ? m_OpenFrom(*pending.base, pending.strRelative) : -1;
        if (fd >= 0) {
            m_nRetryCount = 0;
            nResult = m_Enter(fd, path, &pending);
        } else if (errno == ELOOP || errno == EXDEV || errno == ENOTDIR) {
            // A folder swapped for a link (or moved out) is skipped, not followed.
            MOX_WARN("DIR(%s) refused: it is no longer a folder below %s", path.c_str(), m_strTopPath.c_str());
        } else {
            nResult = m_ConvertError(errno, __LINE__);
        }
        if (nResult == MOX_SCAN_OK) return MOX_SCAN_OK;
        // A folder the storage cannot read ends the walk as a failure.
        if (nResult == MOX_SCAN_DEVICE_ERROR || nResult == MOX_SCAN_NFS_ERROR) return nResult;
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
    PendingDir pending;
    pending.strParent = m_strCurDirName;
    pending.strName = info.strName;
    pending.base = m_curBase;
    pending.strRelative = m_strCurRelative.empty() ? info.strName : m_strCurRelative + "/" + info.strName;
    pending.nDepth = m_nCurDepth + 1;
    m_pendingDirs.push_back(std::move(pending));
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
    if (bSetType) {
        if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) return MOX_SCAN_SKIPPED;
        info.nType = S_ISDIR(st.st_mode) ? MOX_SCANNER_TYPE_DIR : MOX_SCANNER_TYPE_FILE;
    }
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
