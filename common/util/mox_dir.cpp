#define MOX_LOG_TAG "MOX-COMMON"
#include <mox/mox_log.h>

#include <mox/mox_dir.h>

#include <sys/stat.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

int SkipDotEntries(const struct dirent* entry) {
    return strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0;
}

struct DirCloser {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

CMOXDir::CMOXDir() : m_ppEntries(nullptr), m_bCreated(false), m_nPosition(0), m_nCount(0) {}

CMOXDir::~CMOXDir() {
    m_FreeList();
}

bool CMOXDir::Create(const char* szName) {
    assert(szName != NULL);
    struct stat st;
    if (stat(szName, &st) == 0) {
        if (S_ISDIR(st.st_mode)) return true;
        MOX_WARN("CMOXDir::Create() : S_ISDIR() failed.");
        return false;
    }
    if (mkdir(szName, 0777) != 0) {
        MOX_WARN("CMOXDir::Create() : mkdir() [%s] failed.", szName);
        return false;
    }
    return true;
}

bool CMOXDir::Remove(const char* szName) {
    assert(szName != NULL);
    if (rmdir(szName) != 0) {
        MOX_WARN("CMOXDir::Remove() : rmdir() failed.");
        return false;
    }
    return true;
}

bool CMOXDir::DirExists(const char* szName) {
    assert(szName != NULL);
    struct stat st;
    return stat(szName, &st) == 0 && S_ISDIR(st.st_mode);
}

bool CMOXDir::Open(const char* szName) {
    assert(szName != NULL);
    if (m_bCreated) {
        MOX_WARN("FlagCreate() != false.");
        return false;
    }
    // Checks access only; the listing itself comes from scandir.
    std::unique_ptr<DIR, DirCloser> dir(opendir(szName));
    if (!dir) {
        MOX_WARN("CMOXDir::Open(): opendir() failed.");
        return false;
    }
    dir.reset();
    m_strPath = szName;
    m_bCreated = true;
    if (!Update()) {
        m_strPath.clear();
        m_bCreated = false;
        return false;
    }
    return true;
}

bool CMOXDir::Update() {
    if (!m_bCreated) {
        MOX_WARN("FlagCreate() != true");
        return false;
    }
    struct dirent** entries = nullptr;
    int count = scandir(m_strPath.c_str(), &entries, SkipDotEntries, alphasort);
    if (count < 0) {
        MOX_WARN("CMOXDir::Update() ERROR_ACCESS");
        return false;
    }
    m_FreeList();
    m_ppEntries = entries;
    m_nCount = count;
    m_nPosition = 0;
    return true;
}

bool CMOXDir::SetPositionTop() {
    // An empty directory has a listing (of no entries) but no entry array.
    if (!m_bCreated) return false;
    m_nPosition = 0;
    return true;
}

void CMOXDir::Destroy() {
    if (!m_bCreated) {
        MOX_WARN("FlagCreate() != true");
        return;
    }
    m_FreeList();
    m_strPath.clear();
    m_bCreated = false;
}

const struct dirent* CMOXDir::Read() {
    if (m_ppEntries == nullptr || m_nPosition >= m_nCount) return nullptr;
    return m_ppEntries[m_nPosition++];
}

bool CMOXDir::Next(std::string& strName) {
    const struct dirent* entry = Read();
    if (entry == nullptr) return false;
    strName = entry->d_name;
    return true;
}

void CMOXDir::m_FreeList() {
    if (m_ppEntries != nullptr) {
        // scandir's arrays: this class is their owner.
        for (int i = 0; i < m_nCount; ++i) free(m_ppEntries[i]);  // NOLINT(cppcoreguidelines-owning-memory)
        free(m_ppEntries);                                        // NOLINT(cppcoreguidelines-owning-memory)
    }
    m_ppEntries = nullptr;
    m_nCount = 0;
    m_nPosition = 0;
}
