#define MOX_LOG_TAG "MOX-CACHE"
#include "shm_object_loader.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include <mox/mox_cache_defines.h>
#include <mox/mox_log.h>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "the shared-memory layouts are little-endian and read in place");

namespace mox_shm {

namespace {

// Owner of the read-only descriptor for the duration of one load.
class CUniqueFd {
public:
    explicit CUniqueFd(int fd) : m_fd(fd) {}
    ~CUniqueFd() {
        if (m_fd >= 0) close(m_fd);
    }
    CUniqueFd(const CUniqueFd&) = delete;
    CUniqueFd& operator=(const CUniqueFd&) = delete;
    int Get() const { return m_fd; }

private:
    int m_fd;
};

// Reads exactly nCount bytes at nOffset; false on error or end of object.
bool ReadFully(int fd, char* pBuf, size_t nCount, off_t nOffset) {
    while (nCount > 0) {
        ssize_t n = pread(fd, pBuf, nCount, nOffset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        pBuf += n;
        nCount -= static_cast<size_t>(n);
        nOffset += n;
    }
    return true;
}

}  // namespace

int32_t ReadInt32(const char* pData, int64_t nOffset) {
    int32_t nValue;
    memcpy(&nValue, pData + nOffset, sizeof(nValue));
    return nValue;
}

bool LoadObject(const std::string& strShmName, int nHeaderSize, int nSizeFieldOffset, SObjectCopy& out) {
    CUniqueFd fd(shm_open(strShmName.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0));
    if (fd.Get() < 0) {
        MOX_WARN("shm_open failed, m_strShmName[%s].", strShmName.c_str());
        return false;
    }

    struct stat st;
    if (fstat(fd.Get(), &st) != 0) {
        MOX_WARN("fstat of shm[%s] failed: %s.", strShmName.c_str(), strerror(errno));
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        MOX_WARN("shm[%s] is not a shared-memory object.", strShmName.c_str());
        return false;
    }
    if (st.st_size < nHeaderSize) {
        MOX_WARN("shm[%s] is too small[%lld] for its header.", strShmName.c_str(), static_cast<long long>(st.st_size));
        return false;
    }
    char header[64];
    if (nHeaderSize > static_cast<int>(sizeof(header)) || nSizeFieldOffset + 4 > nHeaderSize) {
        assert(!"header description out of range");
        return false;
    }
    if (!ReadFully(fd.Get(), header, static_cast<size_t>(nHeaderSize), 0)) {
        MOX_WARN("shm[%s]: reading the header failed.", strShmName.c_str());
        return false;
    }
    int32_t nSize = ReadInt32(header, nSizeFieldOffset);
    if (nSize < nHeaderSize || nSize > st.st_size || nSize > MOX_SHM_OBJECT_MAX_SIZE) {
        MOX_WARN("shm[%s] has a bad size[%d], object size[%lld].", strShmName.c_str(), nSize,
                 static_cast<long long>(st.st_size));
        return false;
    }

    std::unique_ptr<char[]> pData(new (std::nothrow) char[static_cast<size_t>(nSize)]);
    if (!pData) {
        MOX_WARN("shm[%s]: no memory for a copy of [%d] bytes.", strShmName.c_str(), nSize);
        return false;
    }
    // The writer may have shrunk or rewritten the object since the header was
    // read; only a copy whose own size field still agrees is accepted.
    if (!ReadFully(fd.Get(), pData.get(), static_cast<size_t>(nSize), 0) ||
        ReadInt32(pData.get(), nSizeFieldOffset) != nSize) {
        MOX_WARN("shm[%s] changed while it was read.", strShmName.c_str());
        return false;
    }
    out.pData = std::move(pData);
    out.nSize = nSize;
    return true;
}

}  // namespace mox_shm
