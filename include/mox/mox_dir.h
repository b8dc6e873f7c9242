// CMOXDir: a sorted snapshot of one directory's entries (alphasort order,
// without "." and ".."), stepped through with Next()/Read(). The listing is
// taken by Open() and refreshed by Update(); it does not follow later changes
// of the directory. One thread uses an object at a time. Failures are
// warnings (tag "MOX-COMMON") and a false result; null names are asserted.
// The listing is freed by Destroy() or the destructor.
#pragma once

// Exported from the shared library, which hides everything else.
#pragma GCC visibility push(default)

#include <dirent.h>

#include <string>

class CMOXDir {
public:
    CMOXDir();
    ~CMOXDir();
    CMOXDir(const CMOXDir&) = delete;
    CMOXDir& operator=(const CMOXDir&) = delete;

    // Makes the directory (mode 0777 before the umask); true when it already
    // exists as a directory, false when the path is something else.
    static bool Create(const char* szName);
    static bool Remove(const char* szName);
    static bool DirExists(const char* szName);

    // Lists szName; only on an object that is not open.
    bool Open(const char* szName);
    // Takes a fresh listing of the opened path and rewinds.
    bool Update();
    // Rewinds to the first entry; false without a listing.
    bool SetPositionTop();
    // Frees the listing and closes the object; warns when it was not open.
    void Destroy();

    bool FlagCreate() const { return m_bCreated; }
    const std::string& Path() const { return m_strPath; }
    int Count() const { return m_nCount; }
    // The next entry (name, d_type) and advances; null past the last entry.
    // The pointer stays valid until Update, Destroy or destruction.
    const struct dirent* Read();
    // The next entry's name and advances; false past the last entry.
    bool Next(std::string& strName);

private:
    void m_FreeList();

    struct dirent** m_ppEntries;  // scandir result, m_nCount entries
    std::string m_strPath;
    bool m_bCreated;
    int m_nPosition;  // index of the next entry
    int m_nCount;
};

#pragma GCC visibility pop
