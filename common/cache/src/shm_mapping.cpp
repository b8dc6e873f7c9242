#define MOX_LOG_TAG "MOX-CACHE"
#include "shm_mapping.h"

#include <unistd.h>

#include <mox/mox_log.h>

namespace mox_shm {

CShmFd::~CShmFd() {
    if (m_fd >= 0 && close(m_fd) != 0) MOX_WARN("close failed, m_nShmId[%d].", m_fd);
}

CShmMapping::~CShmMapping() {
    if (m_pAddr != MAP_FAILED && munmap(m_pAddr, m_nSize) != 0) MOX_WARN("munmap failed.");
}

}  // namespace mox_shm
