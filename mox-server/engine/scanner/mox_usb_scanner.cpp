#define MOX_LOG_TAG "MOX-SCANNER"
#include <mox/mox_log.h>

#include "mox_usb_scanner.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "mox_scan_log.h"

namespace {
constexpr int kKindUsb = -2;
constexpr int kMaxRetry = 6;
}  // namespace

CMOXUsbScanner::CMOXUsbScanner() : CMOXScannerBase(kKindUsb) {}

CMOXUsbScanner::~CMOXUsbScanner() { t_CloseDir(); }

int CMOXUsbScanner::t_Create() { return t_OpenDir(m_option.strDevicePath.c_str()); }

void CMOXUsbScanner::t_Destroy() {
    MOX_INFO("current dir : %s", m_strCurDirName.c_str());
    t_CloseDir();
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
    // O_NOFOLLOW: a directory swapped for a link is not entered; O_NONBLOCK:
    // should the name now be a FIFO, O_DIRECTORY fails instead of blocking.
    int fd = open(pszPathName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return m_ConvertError(errno, __LINE__);
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
        case DT_DIR:
            info.nType = MOX_SCANNER_TYPE_DIR;
            break;
        case DT_REG:
            info.nType = MOX_SCANNER_TYPE_FILE;
            break;
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
            break;  // links, FIFOs, devices: the caller's preset type
    }
    if (!t_DoFilter(info)) {
        MOX_SCAN_INFO("Ignore %s(%s/%s), Do Again...", info.nType == MOX_SCANNER_TYPE_FILE ? "FILE" : "DIR",
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
        MOX_SCAN_INFO("Enter DIR : %s", path.c_str());
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
    int nResult = m_pDir ? fstatat64(dirfd(m_pDir.get()), info.strName.c_str(), &st, AT_SYMLINK_NOFOLLOW)
                         : lstat64((info.strBasePath + "/" + info.strName).c_str(), &st);
    if (nResult != 0) return m_ConvertError(errno, __LINE__);
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
        default:
            break;
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
        case ESTALE:
            MOX_WARN("NFS Error - Stop Scanning...");
            return MOX_SCAN_NFS_ERROR;
        default:
            return MOX_SCAN_FAIL;
    }
}
