// CMOXUsbScanner: the directory scanner of a mounted file system. Reads with
// readdir64 and never opens anything but directories. The top directory is
// opened once, beneath the option's confine root (CMOXConfinedPath); every
// directory below it is opened relative to its parent's descriptor with
// openat(O_NOFOLLOW | O_DIRECTORY | O_NONBLOCK), never by a path name: a
// folder swapped for a link after the walk started is refused, never
// followed, so every entry handed out lies really below the top. The walk is
// depth-first, so the parents' descriptors kept are those of the current
// chain; below kMaxHeldDepth levels a folder opens from its deepest kept
// ancestor with openat2(RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS), so at most
// kMaxHeldDepth + 2 descriptors are open. Entry types come from d_type or
// fstatat(AT_SYMLINK_NOFOLLOW); only folders and regular files are handed
// out (links, FIFOs, devices are skipped, never opened). A read error (EIO)
// ends the walk and marks it failed. Not thread-safe (see CMOXScannerBase).
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
    // Opens `relative` (one name, or a path below kMaxHeldDepth) from `base`;
    // -1 and errno on failure (EXDEV for "." or "..").
    static int m_OpenFrom(const mox_util::UniqueFd& base, const std::string& relative);
    // Makes the open folder `fd` the current one (path, depth, where its
    // subfolders open from). Takes `fd`.
    int m_Enter(int fd, const std::string& path, const PendingDir* pFrom);

    std::string m_strTopPath;                           // the device path as the walk spells it
    std::shared_ptr<const mox_util::UniqueFd> m_topFd;  // the top, open for the whole walk
    // Where the current folder's subfolders open from (see PendingDir).
    std::shared_ptr<const mox_util::UniqueFd> m_curBase;
    std::string m_strCurRelative;
    int m_nCurDepth = 0;
    std::string m_strCurDirName;
    std::unique_ptr<DIR, DirCloser> m_pDir;
    bool m_bUnknownTypeLogged = false;
    // The record t_ReadFile filled last and the folder it holds (counted by
    // t_OpenDir): a record read again in the same folder keeps its copy.
    uint64_t m_nDirSerial = 0;
    const SMOXFileInfo* m_pFilled = nullptr;
    uint64_t m_nFilledSerial = 0;

public:
    // Levels below the top whose descriptors the walk keeps for their
    // subfolders.
    static constexpr int kMaxHeldDepth = 16;
};
