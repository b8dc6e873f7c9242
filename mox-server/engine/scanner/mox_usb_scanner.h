// CMOXUsbScanner: the directory scanner of a mounted file system. Reads with
// readdir64 and never opens anything but directories. The top directory is
// opened once, beneath the option's confine root (CMOXConfinedPath); every
// directory below it is opened relative to that descriptor with openat2
// (RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS, O_NOFOLLOW | O_NONBLOCK), never by a
// path name: a folder swapped for a link after the walk started is refused,
// never followed, so every entry handed out lies really below the top. Entry
// types come from d_type or fstatat(AT_SYMLINK_NOFOLLOW); FIFOs or device
// nodes are never opened. Two descriptors at most are open at a time. Not
// thread-safe (see CMOXScannerBase).
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

#include "mox_scanner_base.h"

class CMOXUsbScanner : public CMOXScannerBase {
public:
    CMOXUsbScanner();
    ~CMOXUsbScanner() override;

    // errno to walk result (logged); public for the walk's error rules.
    int m_ConvertError(int nErrno, long nLine);

protected:
    int t_Create() override;
    void t_Destroy() override;
    int t_OpenDir(const char* pszPathName) override;
    void t_CloseDir() override;
    int t_ReadFile(SMOXFileInfo& info) override;
    int t_MoveNextDir() override;
    int t_AddDir(const SMOXFileInfo& info) override;
    bool t_DoFilter(SMOXFileInfo& info) override;

private:
    int m_GetDetailFileInfo(SMOXFileInfo& info, bool bSetType);

    struct DirCloser {
        void operator()(DIR* dir) const { closedir(dir); }
    };
    // Opens the directory `path` (the top or a path below it) relative to
    // m_topFd; -1 and errno on failure.
    int m_OpenBelowTop(const std::string& path);

    std::string m_strTopPath;  // the device path as the walk spells it
    int m_topFd = -1;          // the top directory, open for the whole walk
    std::string m_strCurDirName;
    std::unique_ptr<DIR, DirCloser> m_pDir;
    bool m_bUnknownTypeLogged = false;
    // The record t_ReadFile filled last and the folder it holds (counted by
    // t_OpenDir): a record read again in the same folder keeps its copy.
    uint64_t m_nDirSerial = 0;
    const SMOXFileInfo* m_pFilled = nullptr;
    uint64_t m_nFilledSerial = 0;
};
