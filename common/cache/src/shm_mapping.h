// Owners used by the writers of shared-memory objects: a descriptor and a
// shared read-write mapping. Each is released when its owner goes out of
// scope, with the warnings the engine logs for failed close and munmap.
#pragma once

#include <sys/mman.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

namespace mox_shm {

// Writes a 32-bit header field (the host is little-endian, like the set).
inline void PutInt32(char* pBase, size_t nOffset, int32_t nValue) {
    memcpy(pBase + nOffset, &nValue, sizeof(nValue));
}

// Every object this process creates carries its instance tag:
// prefix + tag + "_" + decimal id ("mox_datablock_T_N", "mox_resultlist_T_N").
// The tag (decimal, normally the pid) is held by the lock object
// "mox_lock_T", created already locked (flock) and kept open for the life of
// the process, so the lock goes with the process however it ends (kill -9
// included). A normal exit unlinks the lock object after the process's own
// objects.
constexpr char kLockPrefix[] = "mox_lock_";
// This process's tag; the first call creates and locks "mox_lock_T". When no
// lock can be made (warning) the tag is the pid, unguarded: such objects are
// never taken for a dead instance's.
const std::string& InstanceTag();
// Unlinks and closes this process's lock object now, as a normal exit would;
// for a process that ends with _exit. Nothing when no object was made.
void ReleaseInstanceLock();
// Removes the objects ("mox_datablock_T_*", "mox_resultlist_T_*") and the lock
// of every instance T no living process holds: its "mox_lock_T" exists, is a
// regular object of our user and can be locked. Objects of live instances,
// of other users, links and names of another shape are left alone. Returns
// the number of objects removed (-1 when /dev/shm cannot be read) and logs one
// line when it removed any.
int RemoveStaleObjects();

// The names of one kind of object the engine creates: prefix + tag + "_" +
// decimal id (see InstanceTag). Ids count up from nFirst. Anyone may
// create objects in /dev/shm, so an object is only ever created exclusively
// (O_CREAT | O_EXCL | O_NOFOLLOW): a name that exists already belongs to
// someone else and is never opened, written or unlinked by us. On such a name
// the count jumps to a random id, so that objects planted under the next
// names cost one retry, not one per planted object; after kMaxAttempts taken
// names in a row the creation fails. One warning the first time a name is
// found taken (later ones are debug lines), one per failed creation.
class CShmNamer {
public:
    static constexpr int kMaxAttempts = 64;
    // Nine digits at most: every id parses back as a non-negative int.
    static constexpr int kMaxId = 999999999;

    // random yields the jump targets; the kernel's random source by default.
    CShmNamer(std::string strPrefix, int nFirst, std::function<uint32_t()> random = nullptr);
    CShmNamer(const CShmNamer&) = delete;
    CShmNamer& operator=(const CShmNamer&) = delete;

    // Creates a new, empty object of mode 0644 (whatever the umask) under a
    // free name. Returns its descriptor with the name and id, or -1.
    // strPrefix is the kind ("mox_datablock_"); the instance tag follows it.
    int CreateExclusive(std::string& strName, int& nId);

private:
    int m_NextId();

    const std::string m_strPrefix;
    const int m_nFirst;
    const std::function<uint32_t()> m_random;
    // Lock-free: builders on several worker threads take ids concurrently.
    std::atomic<uint64_t> m_nNext{0};  // next id = m_nFirst + m_nNext % (kMaxId - m_nFirst + 1)
    std::atomic<bool> m_bTakenWarned{false};
};

// Gives a new object of this process nSize bytes, all of them backed by
// memory now. Any local user can fill /dev/shm; a page of a mapping that the
// file system has no room for would end the writer with SIGBUS at its first
// store. Here the lack of room is an error (errno set, ENOSPC) before anything
// is mapped.
bool SizeWithMemory(int fd, off_t nSize);

class CShmFd {
public:
    CShmFd() = default;
    explicit CShmFd(int fd) : m_fd(fd) {}
    ~CShmFd();
    CShmFd(CShmFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    CShmFd& operator=(CShmFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    CShmFd(const CShmFd&) = delete;
    CShmFd& operator=(const CShmFd&) = delete;
    int Get() const { return m_fd; }
    bool IsValid() const { return m_fd >= 0; }

private:
    int m_fd = -1;
};

class CShmMapping {
public:
    CShmMapping() = default;
    // Maps nSize bytes of fd read-write and shared; IsMapped() tells the outcome.
    CShmMapping(int fd, size_t nSize)
        : m_pAddr(mmap(nullptr, nSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)), m_nSize(nSize) {}
    ~CShmMapping();
    CShmMapping(CShmMapping&& other) noexcept
        : m_pAddr(std::exchange(other.m_pAddr, MAP_FAILED)), m_nSize(std::exchange(other.m_nSize, 0)) {}
    CShmMapping& operator=(CShmMapping&& other) noexcept {
        std::swap(m_pAddr, other.m_pAddr);
        std::swap(m_nSize, other.m_nSize);
        return *this;
    }
    CShmMapping(const CShmMapping&) = delete;
    CShmMapping& operator=(const CShmMapping&) = delete;
    bool IsMapped() const { return m_pAddr != MAP_FAILED; }
    char* Get() const { return static_cast<char*>(m_pAddr); }
    size_t Size() const { return m_nSize; }

private:
    void* m_pAddr = MAP_FAILED;
    size_t m_nSize = 0;
};

}  // namespace mox_shm
