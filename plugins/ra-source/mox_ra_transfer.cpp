#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_ra_transfer.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include <curl/curl.h>

#include <mox/MOXHttpRequest.h>
#include <mox/mox_log.h>
#include <mox/mox_ra_source.h>
#include <mox/mox_util.h>
#include <mox_host_paths.h>

using mox_util::UniqueFd;

namespace {

const long long kReportMs = 100;
// In-kernel copy per call: big enough to keep pace with cp, small enough to
// see a stop and report progress several times a second.
const size_t kCopyChunk = 8u << 20;
const size_t kBufferChunk = 1u << 20;

std::atomic<unsigned> g_tempCounter{0};

long long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// A client's text for a log line: printable ASCII, at most 64 bytes.
std::string LogSafe(const std::string& strText) {
    std::string strOut;
    for (size_t i = 0; i < strText.size() && i < 64; ++i) {
        unsigned char c = static_cast<unsigned char>(strText[i]);
        strOut += c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?';
    }
    if (strText.size() > 64) strOut += "...";
    return strOut;
}

bool WriteAll(int fd, const char* pData, size_t nBytes) {
    while (nBytes > 0) {
        ssize_t n = write(fd, pData, nBytes);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        pData += n;
        nBytes -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

CMOXRaTransfer::CMOXRaTransfer(SMOXRaRequest request, std::string strParam, mox_transfer_progress_cb pfnProgress,
                               void* pUserData, const bool& bCommandStop)
    : m_request(std::move(request)),
      m_strParam(std::move(strParam)),
      m_pfnProgress(pfnProgress),
      m_pUserData(pUserData),
      m_bCommandStop(bCommandStop),
      m_root(mox_host::UsbRoot()) {}

bool CMOXRaTransfer::IsUrl(const std::string& strSrc) {
    return strncasecmp(strSrc.c_str(), "http://", 7) == 0 || strncasecmp(strSrc.c_str(), "https://", 8) == 0;
}

bool CMOXRaTransfer::m_Stopped() const {
    return m_bStop.load(std::memory_order_relaxed) || __atomic_load_n(&m_bCommandStop, __ATOMIC_RELAXED);
}

void CMOXRaTransfer::m_Report(double dlNow, double dlTotal, double ulNow, double ulTotal, bool bForce) {
    if (m_pfnProgress == nullptr) return;
    long long llNow = NowMs();
    if (!bForce && llNow - m_llLastReport < kReportMs) return;
    m_llLastReport = llNow;
    mox_transfer_progress_data_s progress = {dlNow, dlTotal, ulNow, ulTotal};
    m_pfnProgress(m_pUserData, m_strParam.c_str(), &progress, MOX_ERROR_NONE);
}

int CMOXRaTransfer::Prepare() {
    const std::string strId = LogSafe(m_request.strId);
    if (!m_root.IsValid()) {
        MOX_WARN("Transfer[%s]: the USB root can not be opened.", strId.c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    m_dirFd = UniqueFd(m_root.OpenParent(m_request.strDst, m_strLeaf));
    if (!m_dirFd.IsValid()) {
        MOX_WARN("Transfer[%s]: destination refused (not a path below the USB root): %s.", strId.c_str(),
                 strerror(errno));
        return MOX_ERROR_INVALID_PARAMETER;
    }
    struct stat st;
    if (fstat(m_dirFd.Get(), &st) != 0) return MOX_RA_ERROR_WRITE;
    m_strDstKey = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino) + "/" + m_strLeaf;
    if (fstatat(m_dirFd.Get(), m_strLeaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        if (!S_ISREG(st.st_mode)) {
            MOX_WARN("Transfer[%s]: destination exists and is not a regular file.", strId.c_str());
            return MOX_RA_ERROR_EXISTS;
        }
        if (!m_request.bOverwrite) {
            MOX_WARN("Transfer[%s]: destination exists and \"mox_transfer_overwrite\" is not true.", strId.c_str());
            return MOX_RA_ERROR_EXISTS;
        }
    }
    if (IsUrl(m_request.strSrc)) return MOX_ERROR_NONE;
    m_srcFd = UniqueFd(m_root.OpenRegularForRead(m_request.strSrc));
    if (!m_srcFd.IsValid()) {
        int nError = errno;
        MOX_WARN("Transfer[%s]: source refused: %s.", strId.c_str(), strerror(nError));
        return nError == EXDEV || nError == ELOOP ? static_cast<int>(MOX_ERROR_INVALID_PARAMETER) : MOX_RA_ERROR_SOURCE;
    }
    return MOX_ERROR_NONE;
}

void CMOXRaTransfer::m_StartWriteback(long long llBytes) {
    if (m_nOutFd < 0 || llBytes - m_llWrittenBack < static_cast<long long>(kCopyChunk)) return;
    sync_file_range(m_nOutFd, m_llWrittenBack, llBytes - m_llWrittenBack, SYNC_FILE_RANGE_WRITE);
    m_llWrittenBack = llBytes;
}

int CMOXRaTransfer::m_Copy(int nOutFd, long long& llBytes) {
    struct stat st;
    if (fstat(m_srcFd.Get(), &st) != 0) return MOX_RA_ERROR_SOURCE;
    const double dTotal = static_cast<double>(st.st_size);
    bool bKernelCopy = true;
    std::vector<char> buffer;
    for (;;) {
        if (m_Stopped()) return MOX_RA_ERROR_STOPPED;
        ssize_t n = -1;
        if (bKernelCopy) {
            n = copy_file_range(m_srcFd.Get(), nullptr, nOutFd, nullptr, kCopyChunk, 0);
            // Another file system kind, or no support: copy through memory.
            if (n < 0 &&
                (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP || errno == EPERM)) {
                bKernelCopy = false;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                int nError = errno;
                MOX_WARN("Copy failed: %s.", strerror(nError));
                return MOX_RA_ERROR_WRITE;
            }
        } else {
            if (buffer.empty()) buffer.resize(kBufferChunk);
            n = read(m_srcFd.Get(), buffer.data(), buffer.size());
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                MOX_WARN("Read of the source failed: %s.", strerror(errno));
                return MOX_RA_ERROR_SOURCE;
            }
            if (n > 0 && !WriteAll(nOutFd, buffer.data(), static_cast<size_t>(n))) {
                MOX_WARN("Write of the destination failed: %s.", strerror(errno));
                return MOX_RA_ERROR_WRITE;
            }
        }
        if (n == 0) return MOX_ERROR_NONE;
        llBytes += n;
        m_StartWriteback(llBytes);
        m_Report(static_cast<double>(llBytes), dTotal, 0.0, 0.0, false);
    }
}

int CMOXRaTransfer::s_DownloadProgress(void* pUserData, const char* szCommand, double dlNow, double dlTotal,
                                       double ulNow, double ulTotal) {
    (void)szCommand;
    auto* pThis = static_cast<CMOXRaTransfer*>(pUserData);
    // Nothing moved yet (connecting): no report, only the stop check.
    if (dlNow > 0 || ulNow > 0) pThis->m_Report(dlNow, dlTotal, ulNow, ulTotal, false);
    pThis->m_StartWriteback(static_cast<long long>(dlNow));
    return pThis->m_Stopped() ? 1 : 0;
}

int CMOXRaTransfer::m_Download(int nOutFd, long long& llBytes) {
    _mox_progress_param progress;
    progress.pfnProgress = s_DownloadProgress;
    progress.pUserData = this;
    progress.strCommand = m_strParam;
    MOXHttpRequest request(HTTP_REQUEST_GET, m_request.strSrc, MOXHttpHeader(), nullptr, nullptr, std::string(),
                           &progress);
    request.setOutputFd(nOutFd);
    if (!request.init()) {
        MOX_WARN("Download request can not be set up.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    int nResult = request.execute();
    double dNow = 0, dTotal = 0;
    request.getProgressStatus(dNow, dTotal);
    llBytes = static_cast<long long>(dNow);
    if (nResult == CURLE_ABORTED_BY_CALLBACK && m_Stopped()) return MOX_RA_ERROR_STOPPED;
    if (nResult == CURLE_WRITE_ERROR) {
        MOX_WARN("Download: writing the destination failed.");
        return MOX_RA_ERROR_WRITE;
    }
    if (nResult != CURLE_OK) {
        MOX_WARN("Download failed[%d]: %s.", nResult, request.getError().c_str());
        return MOX_RA_ERROR_NETWORK;
    }
    long nCode = request.response().getResponseCode();
    if (nCode < 200 || nCode > 299) {
        MOX_WARN("Download: the server answered %ld.", nCode);
        return MOX_RA_ERROR_HTTP;
    }
    // The size actually written (the progress may lag behind the last chunk).
    struct stat st;
    if (fstat(nOutFd, &st) == 0) llBytes = st.st_size;
    return MOX_ERROR_NONE;
}

int CMOXRaTransfer::Run() {
    const std::string strId = LogSafe(m_request.strId);
    // A hidden name in the destination's folder: the rename stays on one
    // file system, and O_EXCL never reuses a name someone planted.
    std::string strTemp;
    UniqueFd out;
    for (int nAttempt = 0; nAttempt < 16 && !out.IsValid(); ++nAttempt) {
        strTemp = ".mox-transfer-" + std::to_string(getpid()) + "-" + std::to_string(g_tempCounter.fetch_add(1));
        out = UniqueFd(
            openat(m_dirFd.Get(), strTemp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
        if (!out.IsValid() && errno != EEXIST) break;
    }
    if (!out.IsValid()) {
        MOX_WARN("Transfer[%s]: can not create a file beside the destination: %s.", strId.c_str(), strerror(errno));
        return MOX_RA_ERROR_WRITE;
    }
    fchmod(out.Get(), 0644);
    m_nOutFd = out.Get();
    long long llBytes = 0;
    int nResult = IsUrl(m_request.strSrc) ? m_Download(out.Get(), llBytes) : m_Copy(out.Get(), llBytes);
    if (nResult == MOX_ERROR_NONE && m_Stopped()) nResult = MOX_RA_ERROR_STOPPED;
    if (nResult == MOX_ERROR_NONE && fsync(out.Get()) != 0) {
        MOX_WARN("Transfer[%s]: sync failed: %s.", strId.c_str(), strerror(errno));
        nResult = MOX_RA_ERROR_WRITE;
    }
    m_nOutFd = -1;
    if (out.Reset() != 0 && nResult == MOX_ERROR_NONE) {
        MOX_WARN("Transfer[%s]: close failed: %s.", strId.c_str(), strerror(errno));
        nResult = MOX_RA_ERROR_WRITE;
    }
    if (nResult == MOX_ERROR_NONE) {
        int nRenamed = m_request.bOverwrite ? renameat(m_dirFd.Get(), strTemp.c_str(), m_dirFd.Get(), m_strLeaf.c_str())
                                            : renameat2(m_dirFd.Get(), strTemp.c_str(), m_dirFd.Get(),
                                                        m_strLeaf.c_str(), RENAME_NOREPLACE);
        if (nRenamed != 0) {
            int nError = errno;
            MOX_WARN("Transfer[%s]: rename into place failed: %s.", strId.c_str(), strerror(nError));
            nResult =
                nError == EEXIST || nError == EISDIR || nError == ENOTEMPTY ? MOX_RA_ERROR_EXISTS : MOX_RA_ERROR_WRITE;
        }
    }
    if (nResult != MOX_ERROR_NONE) {
        unlinkat(m_dirFd.Get(), strTemp.c_str(), 0);
        if (nResult == MOX_RA_ERROR_STOPPED) MOX_WARN("Transfer[%s] stopped.", strId.c_str());
        return nResult;
    }
    // The new name itself is durable only once the folder is synced.
    int nDir = openat(m_dirFd.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (nDir >= 0) {
        fsync(nDir);
        close(nDir);
    }
    // The finishing report: done equals total, so it is never rate-limited.
    m_Report(static_cast<double>(llBytes), static_cast<double>(llBytes), 0.0, 0.0, true);
    MOX_INFO("Transfer[%s] done: %lld bytes.", strId.c_str(), llBytes);
    return MOX_ERROR_NONE;
}
