#define MOX_LOG_TAG "MOX-CACHE"
#include "shm_mapping.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <unistd.h>

#include <mox/mox_log.h>

namespace mox_shm {

bool SizeWithMemory(int fd, off_t nSize) {
    if (ftruncate(fd, nSize) != 0) return false;
    if (nSize == 0) return true;
    int nError;
    while ((nError = posix_fallocate(fd, 0, nSize)) == EINTR) {
    }
    errno = nError;
    return nError == 0;
}

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

const char kShmDir[] = "/dev/shm";
const char* const kObjectPrefixes[] = {"mox_datablock_", "mox_resultlist_"};

bool IsDecimal(const std::string& s) {
    return !s.empty() && s.size() <= 10 && s.find_first_not_of("0123456789") == std::string::npos;
}

struct SDirCloser {
    void operator()(DIR* p) const { closedir(p); }
};

// The lock of this process's instance: created already locked under a
// temporary (unnamed) file and linked into place, so that no cleaner ever
// sees it unlocked.
class CInstanceLock {
public:
    CInstanceLock() {
        for (int nAttempt = 0; nAttempt < 8 && m_fd < 0; ++nAttempt) {
            const std::string strTag =
                std::to_string(nAttempt == 0 ? static_cast<uint32_t>(getpid()) : KernelRandom() % 1000000000u);
            m_fd = m_Create(strTag);
            if (m_fd >= 0) m_strTag = strTag;
        }
        if (m_fd < 0) {
            m_strTag = std::to_string(getpid());
            MOX_WARN("No instance lock in %s: objects of this process are named with tag [%s] unguarded.", kShmDir,
                     m_strTag.c_str());
        }
    }
    ~CInstanceLock() { Release(); }
    void Release() {
        // A forked child that exits does not own the parent's lock.
        if (m_fd < 0 || getpid() != m_pid) return;
        // Only the object we locked, not one that replaced it.
        const std::string strName = std::string(kLockPrefix) + m_strTag;
        struct stat mine {
        }, named{};
        if (fstat(m_fd, &mine) == 0 &&
            fstatat(AT_FDCWD, (std::string(kShmDir) + "/" + strName).c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
            mine.st_dev == named.st_dev && mine.st_ino == named.st_ino)
            shm_unlink(strName.c_str());
        close(m_fd);
        m_fd = -1;
    }
    CInstanceLock(const CInstanceLock&) = delete;
    CInstanceLock& operator=(const CInstanceLock&) = delete;

    const std::string& Tag() const { return m_strTag; }

private:
    static int m_Create(const std::string& strTag) {
        const std::string strPath = std::string(kShmDir) + "/" + kLockPrefix + strTag;
        int fd = open(kShmDir, O_TMPFILE | O_RDWR | O_CLOEXEC, 0644);
        if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL)) {
            // No unnamed files here: created under its name, then locked (a
            // cleaner may see it unlocked for a moment, before any object).
            fd = shm_open((std::string(kLockPrefix) + strTag).c_str(),
                          O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
            if (fd >= 0 && (flock(fd, LOCK_EX | LOCK_NB) != 0 || fchmod(fd, 0644) != 0)) {
                close(fd);
                shm_unlink((std::string(kLockPrefix) + strTag).c_str());  // created just now: ours
                return -1;
            }
            return fd;
        }
        if (fd < 0) return -1;
        const std::string strSelf = "/proc/self/fd/" + std::to_string(fd);
        if (flock(fd, LOCK_EX | LOCK_NB) != 0 || fchmod(fd, 0644) != 0 ||
            linkat(AT_FDCWD, strSelf.c_str(), AT_FDCWD, strPath.c_str(), AT_SYMLINK_FOLLOW) != 0) {
            if (errno != EEXIST) MOX_WARN("Instance lock [%s] not made: %s.", strPath.c_str(), strerror(errno));
            close(fd);
            return -1;
        }
        return fd;
    }

    std::string m_strTag;
    int m_fd = -1;
    const pid_t m_pid = getpid();
};

std::atomic<bool> g_bLockMade{false};

CInstanceLock& InstanceLock() {
    static CInstanceLock s_lock;
    g_bLockMade.store(true, std::memory_order_release);
    return s_lock;
}

}  // namespace

void ReleaseInstanceLock() {
    if (g_bLockMade.load(std::memory_order_acquire)) InstanceLock().Release();
}

const std::string& InstanceTag() {
    return InstanceLock().Tag();
}

int RemoveStaleObjects() {
    int dirFd = open(kShmDir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dirFd < 0) {
        MOX_WARN("Cannot read %s for objects of dead instances: %s.", kShmDir, strerror(errno));
        return -1;
    }
    std::unique_ptr<DIR, SDirCloser> dir(fdopendir(dirFd));
    if (!dir) {
        MOX_WARN("Cannot read %s for objects of dead instances: %s.", kShmDir, strerror(errno));
        close(dirFd);
        return -1;
    }
    std::vector<std::string> locks;
    std::map<std::string, std::vector<std::string>> objects;  // tag -> names
    const size_t nLockPrefix = strlen(kLockPrefix);
    while (struct dirent* pEntry = readdir(dir.get())) {
        const std::string strName = pEntry->d_name;
        if (strName.compare(0, nLockPrefix, kLockPrefix) == 0) {
            const std::string strTag = strName.substr(nLockPrefix);
            // Our own lock, if made yet, is held: flock refuses it below.
            if (IsDecimal(strTag)) locks.push_back(strTag);
            continue;
        }
        for (const char* szPrefix : kObjectPrefixes) {
            const size_t nPrefix = strlen(szPrefix);
            if (strName.compare(0, nPrefix, szPrefix) != 0) continue;
            const size_t nSep = strName.find('_', nPrefix);
            if (nSep == std::string::npos || !IsDecimal(strName.substr(nSep + 1))) break;
            objects[strName.substr(nPrefix, nSep - nPrefix)].push_back(strName);
        }
    }
    const uid_t uid = geteuid();
    const int fd = dirfd(dir.get());
    int nRemoved = 0, nInstances = 0;
    for (const std::string& strTag : locks) {
        const std::string strLock = kLockPrefix + strTag;
        int lockFd = openat(fd, strLock.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (lockFd < 0) continue;
        struct stat st {};
        // A live instance holds its lock; a lock of another user is not ours to judge.
        if (fstat(lockFd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_uid != uid ||
            flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
            close(lockFd);
            continue;
        }
        ++nInstances;
        for (const std::string& strName : objects[strTag]) {
            struct stat obj {};
            if (fstatat(fd, strName.c_str(), &obj, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(obj.st_mode) &&
                obj.st_uid == uid && unlinkat(fd, strName.c_str(), 0) == 0)
                ++nRemoved;
        }
        struct stat named {};
        if (fstatat(fd, strLock.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_ino == st.st_ino &&
            named.st_dev == st.st_dev)
            unlinkat(fd, strLock.c_str(), 0);
        close(lockFd);
    }
    if (nInstances > 0)
        MOX_INFO("Removed %d objects of %d dead engine instances from %s.", nRemoved, nInstances, kShmDir);
    return nRemoved;
}

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
    const std::string strPrefix = m_strPrefix + InstanceTag() + "_";
    std::string strFirstTaken;
    int nTaken = 0;
    for (int nAttempt = 0; nAttempt < kMaxAttempts; ++nAttempt) {
        nId = m_NextId();
        strName = strPrefix + std::to_string(nId);
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
             strPrefix.c_str(), nTaken, strFirstTaken.c_str());
    strName.clear();
    nId = -1;
    errno = EEXIST;
    return -1;
}

}  // namespace mox_shm
