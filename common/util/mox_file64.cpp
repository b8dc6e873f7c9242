#define MOX_LOG_TAG "MOX-COMMON"
#include <mox/mox_log.h>

#include <mox/mox_file64.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

#include <mox_unique_fd.h>

namespace {

// open() of a file that a scanner or the USB service is still creating can
// see ENOENT for a moment; it is tried this many times in all.
constexpr int kOpenAttempts = 6;

}  // namespace

CMOXFile64::CMOXFile64() : m_fd(-1), m_openMode(MODE_READ_ONLY), m_bOpened(false), m_pStream(nullptr) {}

CMOXFile64::~CMOXFile64() {
    mox::MutexLock lock(m_mutex);
    if (m_bOpened) m_CloseLocked();
}

void CMOXFile64::ErrMsg(int errnum) {
    char buf[512];
    const char* msg = strerror_r(errnum, buf, sizeof(buf));
    MOX_WARN("System error. errno[%d], errno msg[%s].", errnum, msg);
}

bool CMOXFile64::Create(const char* szName) {
    assert(szName != NULL);
    // O_CLOEXEC instead of a later fcntl: no window for a concurrent exec.
    mox_util::UniqueFd fd(open(szName, O_RDWR | O_CREAT | O_CLOEXEC | O_LARGEFILE, 0777));
    if (!fd.IsValid()) {
        int err = errno;
        if (err == EACCES) return true;
        MOX_WARN("CMOXFile64::Create() : Create() [%s] failed.", szName);
        ErrMsg(err);
        return false;
    }
    if (fd.Reset() != 0) {
        int err = errno;
        MOX_WARN("CMOXFile64::Create() : close() [%s] failed.", szName);
        ErrMsg(err);
    }
    return true;
}

bool CMOXFile64::Remove(const char* szName) {
    assert(szName != NULL);
    if (unlink(szName) != 0) {
        int err = errno;
        MOX_WARN("CMOXFile64::Remove : unlink[%s] failed.", szName);
        ErrMsg(err);
        return false;
    }
    return true;
}

bool CMOXFile64::FileExists(const char* szName) {
    assert(szName != NULL);
    struct stat64 st;
    return stat64(szName, &st) == 0 && S_ISREG(st.st_mode);
}

bool CMOXFile64::FileSize(const char* szName, off64_t* size) {
    assert(szName != NULL && size != NULL);
    struct stat64 st;
    if (stat64(szName, &st) != 0) {
        int err = errno;
        MOX_WARN("CMOXFile64::FileSize : stat[%s] failed.", szName);
        ErrMsg(err);
        return false;
    }
    *size = st.st_size;
    return true;
}

bool CMOXFile64::Open(const char* szName, int nMode, int nFlags, bool bCheckReadable) {
    assert(szName != NULL);
    mox::MutexLock lock(m_mutex);
    if (m_bOpened) return true;

    if (nMode == MODE_READ_ONLY && bCheckReadable) {
        struct stat64 st;
        if (stat64(szName, &st) != 0 || (st.st_mode & S_IRUSR) == 0 || !S_ISREG(st.st_mode)) return false;
    }

    int accessFlags = 0;
    switch (nMode) {
        case MODE_READ_ONLY: accessFlags = 0; break;
        case MODE_WRITE_ONLY: accessFlags = O_WRONLY; break;
        case MODE_READ_WRITE: accessFlags = O_RDWR; break;
        default: MOX_WARN("CMOXFile64::Open Invalid open mod[%d].", nMode); return false;
    }
    const int flags = nFlags | accessFlags | O_CLOEXEC | O_LARGEFILE;
    int fd = -1;
    int err = 0;
    for (int attempt = 0; attempt < kOpenAttempts; ++attempt) {
        fd = open(szName, flags, 0777);
        err = errno;
        if (fd >= 0 || err != ENOENT) break;
    }
    if (fd < 0) {
        MOX_WARN("CMOXFile64::Open open [%s] failed.", szName);
        ErrMsg(err);
        return false;
    }

    // Flush works through a write stream; a read-only descriptor has none.
    FILE* stream = nullptr;
    if (nMode != MODE_READ_ONLY) {
        stream = fdopen(fd, "w");
        if (stream == nullptr) {
            err = errno;
            MOX_WARN("CMOXFile64::Open() : fdopen() [%s] failed.", szName);
            ErrMsg(err);
            close(fd);
            return false;
        }
    }
    m_fd = fd;
    m_pStream = stream;
    m_openMode = nMode;
    m_bOpened = true;
    return true;
}

// Read and Write share everything but the system call and its message.
bool CMOXFile64::m_Transfer(void* buffer, unsigned long* count, bool bWrite) {
    assert(buffer != NULL);
    assert(count != NULL);
    int fd = -1;
    {
        mox::MutexLock lock(m_mutex);
        if (!m_bOpened) {
            MOX_WARN("IsOpened() != true");
            return false;
        }
        fd = m_fd;
    }
    ssize_t done = bWrite ? write(fd, buffer, *count) : read(fd, buffer, *count);
    if (done < 0) {
        int err = errno;
        *count = 0;
        if (bWrite)
            MOX_WARN("CMOXFile64::Write() failed.");
        else
            MOX_WARN("CMOXFile64::Read() failed.");
        ErrMsg(err);
        return false;
    }
    *count = static_cast<unsigned long>(done);
    return true;
}

bool CMOXFile64::Read(void* buffer, unsigned long* count) {
    return m_Transfer(buffer, count, false);
}

bool CMOXFile64::Write(const void* buffer, unsigned long* count) {
    // write() does not modify the buffer; the shared helper takes it mutable.
    return m_Transfer(const_cast<void*>(buffer), count, true);
}

bool CMOXFile64::Flush() {
    mox::MutexLock lock(m_mutex);
    if (!m_bOpened) {
        MOX_WARN("IsOpened() != true");
        return false;
    }
    if (m_openMode == MODE_READ_ONLY) {
        MOX_WARN("CMOXFile64::Flush m_openMode == MODE_READ_ONLY");
        return false;
    }
    bool bResult = true;
    if (m_pStream != nullptr && fflush(m_pStream) != 0) {
        int err = errno;
        MOX_WARN("CMOXFile64::Flush() : fflush() failed.");
        ErrMsg(err);
        bResult = false;
    }
    if (fsync(m_fd) != 0) {
        int err = errno;
        MOX_WARN("CMOXFile64::Flush() : fsync() failed.");
        ErrMsg(err);
        bResult = false;
    }
    return bResult;
}

void CMOXFile64::Destroy() {
    mox::MutexLock lock(m_mutex);
    if (!m_bOpened) {
        MOX_WARN("CMOXFile64::Destroy file already destroyed.");
        return;
    }
    m_CloseLocked();
}

void CMOXFile64::m_CloseLocked() {
    // The stream owns the descriptor: closing it closes both.
    int ret = m_pStream != nullptr ? fclose(m_pStream) : close(m_fd);  // NOLINT(cppcoreguidelines-owning-memory)
    if (ret != 0) {
        int err = errno;
        MOX_WARN("CMOXFile64::Destroy : close failed.");
        ErrMsg(err);
    }
    m_pStream = nullptr;
    m_fd = -1;
    m_bOpened = false;
}

bool CMOXFile64::IsOpened() {
    mox::MutexLock lock(m_mutex);
    return m_bOpened;
}
