// Owners of the C resources the utilities open: a descriptor, a stdio stream
// and a malloc'd buffer. Each closes or frees what it holds when it goes out
// of scope; release() hands ownership on (only on success).
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

namespace mox_util {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            Reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    bool IsValid() const { return m_fd >= 0; }
    int Release() { return std::exchange(m_fd, -1); }
    // Closes now; the result of close() for callers that report it.
    int Reset() {
        int ret = 0;
        if (m_fd >= 0) ret = close(m_fd);
        m_fd = -1;
        return ret;
    }

private:
    int m_fd = -1;
};

struct FileCloser {
    void operator()(FILE* fp) const { fclose(fp); }  // NOLINT(cppcoreguidelines-owning-memory): the owner
};
using UniqueFile = std::unique_ptr<FILE, FileCloser>;

struct FreeDeleter {
    void operator()(void* p) const { free(p); }  // NOLINT(cppcoreguidelines-owning-memory): the owner
};
using UniqueBuffer = std::unique_ptr<char, FreeDeleter>;

}  // namespace mox_util

#pragma GCC visibility pop
