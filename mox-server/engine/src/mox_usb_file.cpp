#define MOX_LOG_TAG "MOX-ENGINE"

#include "mox_usb_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <vector>

#include <mox/mox_confined_path.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>
#include <mox/mox_util.h>
#include <mox_host_paths.h>
#include <mox_unique_fd.h>

#include "cache_pool.h"
#include "mox_library_hooks.h"
#include "shm_mapping.h"

using mox_util::UniqueFd;

namespace {

constexpr size_t kCopyChunk = 1u << 20;

bool ReadExactly(int fd, void* buf, size_t len, off_t offset) {
    char* p = static_cast<char*>(buf);
    while (len > 0) {
        ssize_t n = pread(fd, p, len, offset);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
        offset += n;
    }
    return true;
}

bool WriteAll(int fd, const char* p, size_t len) {
    while (len > 0) {
        ssize_t n = write(fd, p, len);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

// Opens the client's object without blocking (a FIFO planted under the name
// would otherwise hang the open) and checks it is a real object of the caller.
// Unlinks it when the caller may consume it.
UniqueFd OpenClientObject(const std::string& shmName, uid_t callerUid, struct stat& st) {
    const std::string logName = CMOXUtil::CutForLog(shmName);
    // The engine's own data blocks and result lists are read by other
    // clients, its instance locks guard them: nobody, root included,
    // consumes them through this method.
    const std::string bare = shmName.substr(
        shmName.find_first_not_of('/') == std::string::npos ? shmName.size() : shmName.find_first_not_of('/'));
    if (bare.rfind("mox_datablock_", 0) == 0 || bare.rfind("mox_resultlist_", 0) == 0 ||
        bare.rfind(mox_shm::kLockPrefix, 0) == 0) {
        MOX_WARN("CMOXUtil: shm [%s] is one of the engine's own objects: refused.", logName.c_str());
        return UniqueFd();
    }
    UniqueFd fd(shm_open(shmName.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC, 0));
    if (!fd.IsValid()) {
        MOX_WARN("CMOXUtil: shm_open [%s] failed.", logName.c_str());
        return UniqueFd();
    }
    if (fstat(fd.Get(), &st) != 0) {
        MOX_WARN("CMOXUtil: fstat shm [%s] failed.", logName.c_str());
        return UniqueFd();
    }
    if (callerUid != 0 && st.st_uid != callerUid) {
        MOX_WARN("CMOXUtil: shm [%s] belongs to uid %u, not to the caller (uid %u): refused.", logName.c_str(),
                 static_cast<unsigned>(st.st_uid), static_cast<unsigned>(callerUid));
        return UniqueFd();
    }
    // The object is consumed whether or not the file gets written.
    if (shm_unlink(shmName.c_str()) != 0) MOX_WARN("CMOXUtil: shm_unlink [%s] failed.", logName.c_str());
    if (!S_ISREG(st.st_mode)) {
        MOX_WARN("CMOXUtil: shm [%s] is not a shared-memory object: refused.", logName.c_str());
        return UniqueFd();
    }
    return fd;
}

}  // namespace

bool CMOXUsbFile::Write(const std::string& clientPath, const std::string& shmName, uid_t callerUid) {
    // Paths come back as the engine's texts named them ("\xNN" for bytes).
    const std::string path = CMOXUtil::FileNameFromUtf8(clientPath);
    const std::string logPath = CMOXUtil::CutForLog(path);
    struct stat st;
    UniqueFd object = OpenClientObject(shmName, callerUid, st);
    if (!object.IsValid()) return false;

    const long long objectSize = static_cast<long long>(st.st_size);
    int32_t length = 0;
    if (objectSize < static_cast<long long>(sizeof(length)) || !ReadExactly(object.Get(), &length, sizeof(length), 0)) {
        MOX_WARN("CMOXUtil: shm [%s] has no length field (size %lld).", CMOXUtil::CutForLog(shmName).c_str(),
                 objectSize);
        return false;
    }
    const long long available = objectSize - static_cast<long long>(sizeof(length));
    if (length < 0 || length > available) {
        MOX_WARN("CMOXUtil: shm [%s] length [%d] out of range [0, %lld].", CMOXUtil::CutForLog(shmName).c_str(), length,
                 available);
        return false;
    }
    if (length == 0) {
        MOX_WARN("szContext == NULL.");
        return false;
    }

    CMOXConfinedPath root(mox_host::UsbRoot());
    std::string relative;
    if (!root.Relative(path, relative)) {
        MOX_WARN("CMOXUtil: [%s] is not below the USB root: refused.", logPath.c_str());
        return false;
    }
    // Streamed in chunks: memory stays bounded whatever the object's size.
    auto fill = [&](int out) {
        std::vector<char> buf(kCopyChunk);
        off_t offset = sizeof(length);
        size_t left = static_cast<size_t>(length);
        while (left > 0) {
            size_t n = left < buf.size() ? left : buf.size();
            if (!ReadExactly(object.Get(), buf.data(), n, offset) || !WriteAll(out, buf.data(), n)) return false;
            offset += static_cast<off_t>(n);
            left -= n;
        }
        return true;
    };
    int error = 0;
    const bool bReplaced = root.Replace(path, 0644, fill, error);
    // Listed answers of the folder show what was there before.
    CMOXSingleton<CCachePool>::Get()->ForgetTouching(path);
    if (bReplaced) mox_library::NotePathChanged(path);
    if (!bReplaced) {
        MOX_WARN("CMOXUtil: fopen [%s] failed. (%s)", logPath.c_str(),
                 error == EXDEV ? "leads out of the USB root" : strerror(error));
        return false;
    }
    return true;
}

bool CMOXUsbFile::Remove(const std::string& clientPath) {
    const std::string path = CMOXUtil::FileNameFromUtf8(clientPath);
    const std::string logPath = CMOXUtil::CutForLog(path);
    CMOXConfinedPath root(mox_host::UsbRoot());
    int error = 0;
    std::string relative;
    if (!root.Relative(path, relative)) {
        error = EXDEV;
    } else if (root.Remove(path, error)) {
        CMOXSingleton<CCachePool>::Get()->ForgetTouching(path);
        mox_library::NotePathChanged(path);
        return true;
    }
    MOX_WARN("CMOXUtil: remove [%s] failed. (%s)", logPath.c_str(),
             error == EXDEV ? "not below the USB root" : strerror(error));
    return false;
}
