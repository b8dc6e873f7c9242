#define MOX_LOG_TAG "MOX-CACHE"
#include "shm_mapping.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>

#include <unistd.h>

#include <mox/mox_log.h>

namespace mox_shm {

CShmFd::~CShmFd() {
    if (m_fd >= 0 && close(m_fd) != 0) MOX_WARN("close failed, m_nShmId[%d].", m_fd);
}

CShmMapping::~CShmMapping() {
    if (m_pAddr != MAP_FAILED && munmap(m_pAddr, m_nSize) != 0) MOX_WARN("munmap failed.");
}

int CreateExclusive(const std::function<void(std::string&)>& nextName, std::string& strName) {
    // Give up after this many taken names in a row rather than loop.
    const int kMaxNameAttempts = 1024;
    int fd = -1;
    for (int nAttempt = 0; nAttempt < kMaxNameAttempts; ++nAttempt) {
        nextName(strName);
        fd = shm_open(strName.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644);
        if (fd >= 0 || errno != EEXIST) break;
        MOX_WARN("ShmName[%s] already exists, skip it.", strName.c_str());
    }
    if (fd < 0) {
        MOX_WARN("shm_open failed, m_strShmName[%s]: %s.", strName.c_str(), strerror(errno));
        return fd;
    }
    // Clients read these objects; only the daemon writes them, whatever the umask.
    if (fchmod(fd, 0644) != 0) MOX_WARN("fchmod failed, m_strShmName[%s]: %s.", strName.c_str(), strerror(errno));
    return fd;
}

}  // namespace mox_shm
