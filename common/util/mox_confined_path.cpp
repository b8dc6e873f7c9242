#define MOX_LOG_TAG "MOX-COMMON"

#include <mox/mox_confined_path.h>

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include <mox/mox_log.h>
#include <mox_unique_fd.h>

using mox_util::UniqueFd;

namespace {

int OpenBeneath(int rootFd, const std::string& relative, int flags, mode_t mode) {
    // Bounded before the kernel sees it; a longer name fails like the kernel would.
    if (relative.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }
    struct open_how how;
    memset(&how, 0, sizeof(how));
    how.flags = static_cast<__u64>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) ? mode : 0;
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    const char* name = relative.empty() ? "." : relative.c_str();
    for (;;) {
        long fd = syscall(SYS_openat2, rootFd, name, &how, sizeof(how));
        if (fd >= 0) return static_cast<int>(fd);
        // The kernel asks for a retry when a rename raced with the lookup.
        if (errno != EAGAIN && errno != EINTR) return -1;
    }
}

std::atomic<unsigned> g_tempCounter{0};

}  // namespace

CMOXConfinedPath::CMOXConfinedPath(std::string root) : m_strRoot(std::move(root)) {
    while (m_strRoot.size() > 1 && m_strRoot.back() == '/') m_strRoot.pop_back();
    m_rootFd = open(m_strRoot.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (m_rootFd < 0) {
        MOX_WARN("cannot open root [%s]: %s.", m_strRoot.c_str(), strerror(errno));
        return;
    }
    // Paths that callers resolved themselves start with the resolved root.
    if (mox_util::UniqueBuffer real{realpath(m_strRoot.c_str(), nullptr)}) {
        if (m_strRoot != real.get()) m_strRealRoot = real.get();
    }
}

CMOXConfinedPath::~CMOXConfinedPath() {
    if (m_rootFd >= 0) close(m_rootFd);
}

bool CMOXConfinedPath::Relative(const std::string& path, std::string& relative) const {
    if (path.find('\0') != std::string::npos) return false;
    for (const std::string* root : {&m_strRoot, &m_strRealRoot}) {
        if (root->empty() || path.size() <= root->size() + 1) continue;
        if (path.compare(0, root->size(), *root) != 0 || path[root->size()] != '/') continue;
        relative = path.substr(root->size() + 1);
        while (!relative.empty() && relative.front() == '/') relative.erase(0, 1);
        return !relative.empty();
    }
    return false;
}

int CMOXConfinedPath::OpenDirectory(const std::string& relative) const {
    if (m_rootFd < 0) {
        errno = ENOENT;
        return -1;
    }
    return OpenBeneath(m_rootFd, relative, O_PATH | O_DIRECTORY, 0);
}

int CMOXConfinedPath::OpenParent(const std::string& path, std::string& leaf) const {
    std::string relative;
    if (!Relative(path, relative)) {
        errno = EXDEV;
        return -1;
    }
    while (!relative.empty() && relative.back() == '/') relative.pop_back();
    size_t slash = relative.rfind('/');
    std::string dir = slash == std::string::npos ? std::string() : relative.substr(0, slash);
    leaf = slash == std::string::npos ? relative : relative.substr(slash + 1);
    if (leaf.empty() || leaf == "." || leaf == "..") {
        errno = EINVAL;
        return -1;
    }
    return OpenDirectory(dir);
}

int CMOXConfinedPath::OpenDirectoryForRead(const std::string& path) const {
    std::string relative;
    if (!Relative(path, relative)) {
        errno = EXDEV;
        return -1;
    }
    return OpenBeneath(m_rootFd, relative, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK, 0);
}

int CMOXConfinedPath::OpenPath(const std::string& path) const {
    std::string relative;
    if (!Relative(path, relative)) {
        errno = EXDEV;
        return -1;
    }
    if (m_rootFd < 0) {
        errno = ENOENT;
        return -1;
    }
    return OpenBeneath(m_rootFd, relative, O_PATH, 0);
}

bool CMOXConfinedPath::PathOfDescriptor(int fd, std::string& path) {
    char link[64];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    char buffer[PATH_MAX + 1];
    ssize_t n = readlink(link, buffer, PATH_MAX);
    // A deleted or unreachable object has no usable path.
    if (n <= 0 || n >= PATH_MAX || buffer[0] != '/') return false;
    path.assign(buffer, static_cast<size_t>(n));
    return path.size() < 10 || path.compare(path.size() - 10, 10, " (deleted)") != 0;
}

int CMOXConfinedPath::OpenRegularForRead(const std::string& path) const {
    std::string relative;
    if (!Relative(path, relative)) {
        errno = EXDEV;
        return -1;
    }
    UniqueFd fd(OpenBeneath(m_rootFd, relative, O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0));
    if (!fd.IsValid()) return -1;
    struct stat st;
    if (fstat(fd.Get(), &st) != 0) return -1;
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return -1;
    }
    return fd.Release();
}

bool CMOXConfinedPath::Remove(const std::string& path, int& error) const {
    std::string leaf;
    UniqueFd dir(OpenParent(path, leaf));
    if (!dir.IsValid()) {
        error = errno;
        return false;
    }
    if (unlinkat(dir.Get(), leaf.c_str(), 0) == 0) return true;
    if (errno == EISDIR && unlinkat(dir.Get(), leaf.c_str(), AT_REMOVEDIR) == 0) return true;
    error = errno;
    return false;
}

bool CMOXConfinedPath::Replace(const std::string& path, mode_t mode, const std::function<bool(int fd)>& fill,
                               int& error) const {
    std::string leaf;
    UniqueFd dir(OpenParent(path, leaf));
    if (!dir.IsValid()) {
        error = errno;
        return false;
    }
    struct stat st;
    if (fstatat(dir.Get(), leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(st.st_mode)) {
        error = EINVAL;
        return false;
    }
    // A hidden name in the same directory, so the rename never crosses a
    // file system; O_EXCL never reuses a name someone else planted.
    std::string temp;
    UniqueFd out;
    for (int attempt = 0; attempt < 16 && !out.IsValid(); ++attempt) {
        temp = "." + leaf.substr(0, 200) + ".mox-" + std::to_string(getpid()) + "-" +
               std::to_string(g_tempCounter.fetch_add(1));
        out = UniqueFd(
            openat(dir.Get(), temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, mode));
        if (!out.IsValid() && errno != EEXIST) break;
    }
    if (!out.IsValid()) {
        error = errno;
        return false;
    }
    // Whatever the umask, the file gets the mode asked for.
    bool ok = fchmod(out.Get(), mode) == 0 && fill(out.Get());
    if (ok && fsync(out.Get()) != 0) ok = false;
    int saved = errno;
    if (out.Reset() != 0 && ok) {
        ok = false;
        saved = errno;
    }
    if (ok && renameat(dir.Get(), temp.c_str(), dir.Get(), leaf.c_str()) != 0) {
        ok = false;
        saved = errno;
    }
    if (!ok) {
        unlinkat(dir.Get(), temp.c_str(), 0);
        error = saved ? saved : EIO;
    }
    return ok;
}
