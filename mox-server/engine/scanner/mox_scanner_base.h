// CMOXScannerBase: one depth-first walk of a storage, handing out one entry
// per ReadFileInfo() call. Owns the accepted option, the extension table and
// the queue of directories still to read; a subclass supplies the file-system
// hooks (t_*). Not thread-safe: one thread at a time (the auto or thumbnail
// scanner that owns it) drives a walk.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include <mox_unique_fd.h>

#include "mox_media_extension.h"
#include "mox_scanner_defines.h"

class CMOXScannerBase {
public:
    CMOXScannerBase();
    virtual ~CMOXScannerBase();
    CMOXScannerBase(const CMOXScannerBase&) = delete;
    CMOXScannerBase& operator=(const CMOXScannerBase&) = delete;

    // Accepts the option (callback fields are not taken: the owner keeps
    // them) and opens the device path. 0 or a negative walk result.
    int Create(const SMOXScannerOption& option);
    // Ends the walk: closes what is open and frees the queue.
    void Destroy();
    // Next entry: 0 with `info` filled, -20 read again, -7 end of scan, -1 a
    // failure that ends the scan for the caller.
    int ReadFileInfo(SMOXFileInfo& info);
    // Extension id and group of a file entry from its name; false when the
    // option filters by extension and the name has no known one.
    bool t_FilterExtension(SMOXFileInfo& info);

    int GetKind() const { return m_nKind; }
    const SMOXScannerOption& GetOption() const { return m_option; }
    size_t PendingDirs() const { return m_pendingDirs.size(); }
    // True once the storage failed a read (EIO and the like): the walk ended
    // early, so what it saw is no answer about the whole storage.
    bool HadReadError() const { return m_bReadError; }

    // Most directories waiting in the queue; more are skipped with a warning,
    // so a storage cannot grow the queue without bound (at most some 50 MB
    // with the longest paths).
    static constexpr size_t kMaxPendingDirs = 65536;

protected:
    explicit CMOXScannerBase(int nKind);

    // File-system hooks; the base versions answer "absent".
    virtual int t_Create() { return -1; }
    virtual void t_Destroy() {}
    virtual int t_OpenDir(const char*) { return -1; }
    virtual void t_CloseDir() {}
    virtual int t_ReadFile(SMOXFileInfo&) { return MOX_SCAN_FAIL; }
    virtual int t_MoveNextDir() { return MOX_SCAN_END; }
    virtual int t_AddDir(const SMOXFileInfo&) { return MOX_SCAN_OK; }
    virtual bool t_DoFilter(SMOXFileInfo&) { return true; }

    // false for names the walk never enters ("", ".", "..", recycle bins,
    // System Volume Information, lost+found in any case).
    static bool m_FilterFolder(const std::string& name);

    struct PendingDir {
        std::string strParent;
        std::string strName;
        // Where the folder is opened from: its parent's descriptor and its
        // name or, below the depth whose descriptors are kept, the deepest
        // kept ancestor and the path from there.
        std::shared_ptr<const mox_util::UniqueFd> base;
        std::string strRelative;
        int nDepth = 0;
    };

    SMOXScannerOption m_option;
    std::unique_ptr<CMOXMediaExtension> m_pExtension;
    std::deque<PendingDir> m_pendingDirs;
    bool m_bFinished = false;
    int m_nRetryCount = 0;
    bool m_bQueueFullLogged = false;
    bool m_bReadError = false;

private:
    int m_nKind;
};
