// CMOXLocalFolder: confined access to the folders and files of mounted USB
// storages for the local source. Every path a client names must resolve
// (symbolic links and ".." included) to a place strictly below MOX_USB_ROOT;
// the resolved path is then opened one component at a time from the root
// without following links, so a link swapped in after the check cannot lead
// out of it. Stateless; any thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include <mox/mox_types.h>

struct SMOXLocalEntry {
    std::string strName;
    bool bIsFolder = false;
    long long llSize = 0;
    long long llTime = 0;  // modification time, seconds
    int nMediaType = 0;    // 2 photo, 3 video, 5 music, 6 recording, 0 other
};

class CMOXLocalFolder {
public:
    // Upper bound on the entries read from one folder.
    static const size_t kMaxEntries = 1000000;
    // Upper bound on a client path.
    static const size_t kMaxPathBytes = 4096;

    // The folders and regular files of strFolderPath (hidden entries, links
    // and special files left out), unsorted; strResolved receives the
    // folder's real path. 7 when the path is not a folder below the root, 23
    // when it cannot be read. bStop is polled.
    static mox_error_code_e List(const std::string& strFolderPath, const bool& bStop,
                                 std::vector<SMOXLocalEntry>& entries, std::string& strResolved);
    // A stamp of strFolderPath's current state: its resolved path, device,
    // inode and change times, and the generation of its watch
    // (CMOXFolderWatch) or, unwatched, every entry's name, inode, size and
    // times.
    // Any entry added, removed, renamed or changed, or another storage at the
    // same path, gives another stamp. Empty when the folder can not be read.
    static std::string Stamp(const std::string& strFolderPath);
    // The entry strPath: 5 when it does not exist, 7 when it is not below
    // the root. strFullPath receives its resolved path.
    static mox_error_code_e Describe(const std::string& strPath, SMOXLocalEntry& entry, std::string& strFullPath);
    // The media group of a file name by its extension (0 when none).
    static int MediaTypeOf(const std::string& strName);

private:
    // The real path of the root, and of strPath when it resolves (beneath the
    // root, by descriptor) strictly below it; 5 when a name below the root is
    // missing, 7 (warning) otherwise, whatever exists outside.
    // bQuiet leaves the warnings to the caller.
    static mox_error_code_e m_Resolve(const std::string& strPath, std::string& strRoot, std::string& strResolved,
                                      bool bQuiet = false);
};
