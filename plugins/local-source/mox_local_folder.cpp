#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_local_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <mox/mox_confined_path.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
#include <mox_host_paths.h>
#include <mox_unique_fd.h>

#include "mox_folder_watch.h"

namespace {

struct SGroupList {
    int nMediaType;
    const char* const* ppExtensions;
};

const char* const kMusic[] = {"mp3", "wma", "m4a",   "aac",   "mpa",   "flac",  "ogg", "wav",  "mid",  "midi",
                              "ape", "pcm", "lpcm1", "lpcm2", "lpcm3", "lpcm4", "aif", "aiff", "aifc", nullptr};
const char* const kPhoto[] = {"jpg", "jpeg", "mpo", "bmp", "png", nullptr};
const char* const kVideo[] = {"avi", "mpg",  "mpeg", "mp4",  "vob",  "vro",  "ts",  "trp",  "tp",
                              "svi", "mkv",  "wmv",  "asf",  "3gp",  "divx", "flv", "m2ts", "mov",
                              "rm",  "rmvb", "mts",  "webm", "s4ud", "ps",   "avs", nullptr};
const char* const kRecording[] = {"srf", nullptr};
const SGroupList kGroups[] = {{5, kMusic}, {2, kPhoto}, {3, kVideo}, {6, kRecording}};

struct SDirCloser {
    void operator()(DIR* pDir) const { closedir(pDir); }
};

std::string RealPath(const std::string& strPath, int& nErrno) {
    char* szReal = realpath(strPath.c_str(), nullptr);
    nErrno = errno;
    if (!szReal) return std::string();
    std::string strReal(szReal);
    free(szReal);
    return strReal;
}

bool IsBelow(const std::string& strRoot, const std::string& strPath) {
    return strPath.size() > strRoot.size() + 1 && strPath.compare(0, strRoot.size(), strRoot) == 0 &&
           strPath[strRoot.size()] == '/';
}

}  // namespace

int CMOXLocalFolder::MediaTypeOf(const std::string& strName) {
    std::string strExt = CMOXUtil::ToLower(CMOXUtil::GetFileExtension(strName.c_str()));
    if (strExt.empty()) return 0;
    for (const SGroupList& group : kGroups)
        for (const char* const* pp = group.ppExtensions; *pp; ++pp)
            if (strExt == *pp) return group.nMediaType;
    return 0;
}

mox_error_code_e CMOXLocalFolder::m_Resolve(const std::string& strPath, std::string& strRoot, std::string& strResolved,
                                            bool bQuiet) {
    if (strPath.empty() || strPath[0] != '/' || strPath.size() > kMaxPathBytes ||
        strPath.find('\0') != std::string::npos) {
        if (!bQuiet) MOX_WARN("Refused path[%.256s]: not an absolute path below the USB root.", strPath.c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    int nErrno = 0;
    strRoot = RealPath(mox_host::UsbRoot(), nErrno);
    if (strRoot.empty()) {
        if (!bQuiet) MOX_WARN("USB root[%s] unusable: %s.", mox_host::UsbRoot().c_str(), strerror(nErrno));
        return MOX_ERROR_INVALID_PARAMETER;
    }
    // Resolved by the kernel beneath the root: a link or ".." leading out is
    // refused before anything outside is looked up, so the answer is the same
    // whether something exists there or not. Only a name missing below the
    // root is "not found".
    mox_util::UniqueFd fd(CMOXConfinedPath(mox_host::UsbRoot()).OpenPath(strPath));
    if (!fd.IsValid()) {
        if (errno == ENOENT) return MOX_ERROR_DETAIL_NOT_FOUND;
        if (errno == EIO) {
            if (!bQuiet) MOX_WARN("Path[%.256s] unreadable: %s.", strPath.c_str(), strerror(errno));
            return MOX_ERROR_IO;
        }
        if (!bQuiet) MOX_WARN("Refused path[%.256s]: not below the USB root.", strPath.c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    if (!CMOXConfinedPath::PathOfDescriptor(fd.Get(), strResolved) || !IsBelow(strRoot, strResolved)) {
        if (!bQuiet) MOX_WARN("Refused path[%.256s]: not strictly below the USB root.", strPath.c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    return MOX_ERROR_NONE;
}

mox_error_code_e CMOXLocalFolder::List(const std::string& strFolderPath, const bool& bStop,
                                       std::vector<SMOXLocalEntry>& entries, std::string& strResolved) {
    std::string strRoot;
    mox_error_code_e eError = m_Resolve(strFolderPath, strRoot, strResolved);
    if (eError != MOX_ERROR_NONE) {
        if (eError == MOX_ERROR_DETAIL_NOT_FOUND) MOX_WARN("Folder[%.256s] does not exist.", strFolderPath.c_str());
        return eError == MOX_ERROR_IO ? MOX_ERROR_IO : MOX_ERROR_INVALID_PARAMETER;
    }
    // Opened beneath the root again: a link swapped in since the path was
    // resolved cannot lead out.
    int fd = CMOXConfinedPath(strRoot).OpenDirectoryForRead(strResolved);
    if (fd < 0) {
        const int nErrno = errno;
        MOX_WARN("Can not open folder[%.256s]: %s.", strFolderPath.c_str(), strerror(nErrno));
        if (nErrno == EIO) return MOX_ERROR_IO;
        return nErrno == ENOTDIR || nErrno == ELOOP ? MOX_ERROR_INVALID_PARAMETER : MOX_ERROR_GENERIC;
    }
    std::unique_ptr<DIR, SDirCloser> dir(fdopendir(fd));
    if (!dir) {
        close(fd);
        MOX_WARN("Can not read folder[%.256s]: %s.", strFolderPath.c_str(), strerror(errno));
        return MOX_ERROR_GENERIC;
    }
    const int dirFd = dirfd(dir.get());
    // A folder read only in part is no answer: a shorter list would look
    // complete, an empty one would look like an empty folder.
    for (;;) {
        errno = 0;
        struct dirent* pEntry = readdir(dir.get());
        if (pEntry == nullptr) {
            if (errno == 0) break;
            MOX_WARN("Folder[%.256s] not read completely: %s.", strFolderPath.c_str(), strerror(errno));
            return MOX_ERROR_IO;
        }
        if (__atomic_load_n(&bStop, __ATOMIC_RELAXED)) return MOX_ERROR_GENERIC;
        // Hidden entries, "." and ".." are not media a browser shows.
        if (pEntry->d_name[0] == '.') continue;
        struct stat st;
        if (fstatat(dirFd, pEntry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT) continue;  // removed since it was listed
            MOX_WARN("Entry[%.256s] of folder[%.256s] unreadable: %s.", CMOXUtil::CutForLog(pEntry->d_name).c_str(),
                     strFolderPath.c_str(), strerror(errno));
            return MOX_ERROR_IO;
        }
        SMOXLocalEntry entry;
        if (S_ISDIR(st.st_mode)) {
            entry.bIsFolder = true;
        } else if (S_ISREG(st.st_mode)) {
            entry.llSize = static_cast<long long>(st.st_size);
            entry.nMediaType = MediaTypeOf(pEntry->d_name);
        } else {
            continue;  // links (not followed), devices, pipes, sockets
        }
        entry.llTime = static_cast<long long>(st.st_mtime);
        entry.strName = pEntry->d_name;
        if (entries.size() >= kMaxEntries) {
            MOX_WARN("Folder[%.256s] holds more than %zu entries: the rest is left out.", strFolderPath.c_str(),
                     kMaxEntries);
            break;
        }
        entries.push_back(std::move(entry));
    }
    return MOX_ERROR_NONE;
}

namespace {

// FNV-1a over the raw bytes: cheap, and a stamp only needs to change.
class CStampHash {
public:
    void Add(const void* pData, size_t nSize) {
        const unsigned char* p = static_cast<const unsigned char*>(pData);
        for (size_t i = 0; i < nSize; ++i) m_nHash = (m_nHash ^ p[i]) * 1099511628211ull;
    }
    template <typename T>
    void AddValue(T value) {
        Add(&value, sizeof(value));
    }
    uint64_t Value() const { return m_nHash; }

private:
    uint64_t m_nHash = 1469598103934665603ull;
};

void AddTimes(CStampHash& hash, const struct stat& st) {
    hash.AddValue(static_cast<int64_t>(st.st_mtim.tv_sec));
    hash.AddValue(static_cast<int64_t>(st.st_mtim.tv_nsec));
    hash.AddValue(static_cast<int64_t>(st.st_ctim.tv_sec));
    hash.AddValue(static_cast<int64_t>(st.st_ctim.tv_nsec));
}

}  // namespace

std::string CMOXLocalFolder::Stamp(const std::string& strFolderPath) {
    std::string strRoot, strResolved;
    // Quiet: the list that follows says what is wrong with the path, once.
    if (m_Resolve(strFolderPath, strRoot, strResolved, true) != MOX_ERROR_NONE) return std::string();
    int fd = CMOXConfinedPath(strRoot).OpenDirectoryForRead(strResolved);
    if (fd < 0) return std::string();
    std::unique_ptr<DIR, SDirCloser> dir(fdopendir(fd));
    if (!dir) {
        close(fd);
        return std::string();
    }
    const int dirFd = dirfd(dir.get());
    struct stat st;
    if (fstat(dirFd, &st) != 0) return std::string();
    CStampHash hash;
    hash.Add(strResolved.data(), strResolved.size() + 1);
    hash.AddValue(static_cast<uint64_t>(st.st_dev));
    hash.AddValue(static_cast<uint64_t>(st.st_ino));
    AddTimes(hash, st);
    // A watched folder: its watch's generation covers its entries.
    uint64_t nGeneration = 0;
    if (CMOXFolderWatch::Get().Generation(dirFd, static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino),
                                          nGeneration)) {
        hash.AddValue(nGeneration);
        char szStamp[48];
        snprintf(szStamp, sizeof(szStamp), "w%016llx", static_cast<unsigned long long>(hash.Value()));
        return szStamp;
    }
    // Unwatched: the directory's times cover added, removed and renamed
    // entries; a file rewritten in place changes only its own.
    // A folder the storage cannot read has no stamp: nothing kept is served
    // for it, the list itself reports the error.
    size_t nEntries = 0;
    for (;;) {
        errno = 0;
        struct dirent* pEntry = readdir(dir.get());
        if (pEntry == nullptr) {
            if (errno != 0) return std::string();
            break;
        }
        if (pEntry->d_name[0] == '.') continue;
        if (++nEntries > kMaxEntries) break;
        hash.Add(pEntry->d_name, strlen(pEntry->d_name) + 1);
        hash.AddValue(static_cast<uint64_t>(pEntry->d_ino));
        if (fstatat(dirFd, pEntry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT) return std::string();
            continue;
        }
        hash.AddValue(static_cast<uint32_t>(st.st_mode));
        hash.AddValue(static_cast<int64_t>(st.st_size));
        AddTimes(hash, st);
    }
    hash.AddValue(static_cast<uint64_t>(nEntries));
    char szStamp[40];
    snprintf(szStamp, sizeof(szStamp), "%016llx-%zu", static_cast<unsigned long long>(hash.Value()), nEntries);
    return szStamp;
}

mox_error_code_e CMOXLocalFolder::Describe(const std::string& strPath, SMOXLocalEntry& entry,
                                           std::string& strFullPath) {
    std::string strRoot, strResolved;
    mox_error_code_e eError = m_Resolve(strPath, strRoot, strResolved);
    if (eError != MOX_ERROR_NONE) return eError;
    size_t nSlash = strResolved.find_last_of('/');
    std::string strParent = strResolved.substr(0, nSlash);
    std::string strName = strResolved.substr(nSlash + 1);
    CMOXConfinedPath root(strRoot);
    mox_util::UniqueFd parent(strParent == strRoot ? open(strRoot.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                                   : root.OpenDirectoryForRead(strParent));
    struct stat st;
    if (!parent.IsValid() || fstatat(parent.Get(), strName.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
        MOX_WARN("Can not read entry[%.256s]: %s.", strPath.c_str(), strerror(errno));
        return errno == ENOENT ? MOX_ERROR_DETAIL_NOT_FOUND : MOX_ERROR_INVALID_PARAMETER;
    }
    if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
        MOX_WARN("Entry[%.256s] is neither a folder nor a file.", strPath.c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    entry.strName = strName;
    entry.bIsFolder = S_ISDIR(st.st_mode);
    entry.llSize = entry.bIsFolder ? 0 : static_cast<long long>(st.st_size);
    entry.llTime = static_cast<long long>(st.st_mtime);
    entry.nMediaType = entry.bIsFolder ? 0 : MediaTypeOf(strName);
    strFullPath = strResolved;
    return MOX_ERROR_NONE;
}
