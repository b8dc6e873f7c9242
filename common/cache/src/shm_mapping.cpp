#define MOX_LOG_TAG "MOX-CACHE"
#include "shm_mapping.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <random>

#include <unistd.h>

#include <mox/mox_log.h>

namespace mox_shm {

CShmFd::~CShmFd() {
    if (m_fd >= 0 && close(m_fd) != 0) MOX_WARN("close failed, m_nShmId[%d].", m_fd);
}

CShmMapping::~CShmMapping() {
    if (m_pAddr != MAP_FAILED && munmap(m_pAddr, m_nSize) != 0) MOX_WARN("munmap failed.");
}

namespace {

uint32_t KernelRandom() {
    uint32_t nValue = 0;
    if (getrandom(&nValue, sizeof(nValue), GRND_NONBLOCK) == static_cast<ssize_t>(sizeof(nValue))) return nValue;
    // No entropy yet (early boot): still unpredictable enough for a name.
    static std::atomic<uint32_t> s_nMix{0};
    uint32_t nDevice = 0;
    try {
        nDevice = static_cast<uint32_t>(std::random_device{}());
    } catch (...) {
        nDevice = static_cast<uint32_t>(getpid()) * 2654435761u;
    }
    return nDevice ^ (s_nMix += 0x9e3779b9u) ^ static_cast<uint32_t>(time(nullptr));
}

}  // namespace

CShmNamer::CShmNamer(std::string strPrefix, int nFirst, std::function<uint32_t()> random)
    : m_strPrefix(std::move(strPrefix)), m_nFirst(nFirst), m_random(random ? std::move(random) : KernelRandom) {
    assert(nFirst >= 0 && nFirst < kMaxId);
}

int CShmNamer::m_NextId() {
    const uint64_t nRange = static_cast<uint64_t>(kMaxId - m_nFirst) + 1;
    return m_nFirst + static_cast<int>(m_nNext.fetch_add(1) % nRange);
}

int CShmNamer::CreateExclusive(std::string& strName, int& nId) {
    const uint64_t nRange = static_cast<uint64_t>(kMaxId - m_nFirst) + 1;
    std::string strFirstTaken;
    int nTaken = 0;
    for (int nAttempt = 0; nAttempt < kMaxAttempts; ++nAttempt) {
        nId = m_NextId();
        strName = m_strPrefix + std::to_string(nId);
        int fd = shm_open(strName.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
        if (fd >= 0) {
            // Clients read these objects; only the daemon writes them, whatever the umask.
            if (fchmod(fd, 0644) != 0)
                MOX_WARN("fchmod failed, m_strShmName[%s]: %s.", strName.c_str(), strerror(errno));
            if (nTaken > 0) {
                if (!m_bTakenWarned.exchange(true))
                    MOX_WARN(
                        "ShmName[%s] (and %d more) already exists, created by someone else: skipped, using "
                        "[%s]. Further taken names are logged at debug level.",
                        strFirstTaken.c_str(), nTaken - 1, strName.c_str());
                else
                    MOX_DEBUG("ShmName[%s] (and %d more) already exists: skipped, using [%s].", strFirstTaken.c_str(),
                              nTaken - 1, strName.c_str());
            }
            return fd;
        }
        if (errno != EEXIST) {
            MOX_WARN("shm_open failed, m_strShmName[%s]: %s.", strName.c_str(), strerror(errno));
            return -1;
        }
        if (nTaken++ == 0) strFirstTaken = strName;
        // Planted objects sit under the names that come next: go elsewhere.
        m_nNext.store(m_random() % nRange);
    }
    MOX_WARN("No free name for [%sN]: %d names in a row already exist (first [%s]), object not created.",
             m_strPrefix.c_str(), nTaken, strFirstTaken.c_str());
    strName.clear();
    nId = -1;
    errno = EEXIST;
    return -1;
}

}  // namespace mox_shm
