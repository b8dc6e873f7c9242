// Owners used by the writers of shared-memory objects: a descriptor and a
// shared read-write mapping. Each is released when its owner goes out of
// scope, with the warnings the engine logs for failed close and munmap.
#pragma once

#include <sys/mman.h>

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

// Creates a new object exclusively under the next name that nextName yields,
// skipping names that already exist: an object someone else created under our
// next name must never become ours (its creator could still write or shrink
// it). Returns the descriptor with the name in strName, or -1 (errno set).
int CreateExclusive(const std::function<void(std::string&)>& nextName, std::string& strName);

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
