// CMOXUsbScanner: the directory scanner of a mounted file system. Reads with
// readdir64 and never opens anything but directories: directories are opened
// with O_NOFOLLOW|O_NONBLOCK, entry types come from d_type or lstat, so links
// are never followed and FIFOs or device nodes never opened. At most one
// directory stream is open at a time. Not thread-safe (see CMOXScannerBase).
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
    std::string m_strCurDirName;
    std::unique_ptr<DIR, DirCloser> m_pDir;
    bool m_bUnknownTypeLogged = false;
};
