// CMOXRaTransfer: one file transfer of the transfer source, a copy of a file
// below the USB root or a download from an http/https URL, onto a file below
// the USB root.
//
// The content goes to a hidden temporary file beside the destination, which
// is synced and renamed into place only when complete, so a stopped, failed
// or interrupted transfer leaves no partial destination; without overwrite
// the rename refuses an existing destination (RENAME_NOREPLACE), so a file
// created meanwhile is not replaced either. Every path is opened beneath the
// USB root (CMOXConfinedPath).
//
// Threads: Prepare() and Run() on the transfer's thread; RequestStop() from
// any thread (it only sets a flag that the copy loop and the download's
// progress callback poll).
#pragma once

#include <atomic>
#include <string>

#include <mox/mox_confined_path.h>
#include <mox/mox_web_source.h>
#include <mox_unique_fd.h>

struct SMOXRaRequest {
    std::string strId;
    std::string strSrc;
    std::string strDst;
    bool bOverwrite = false;
};

class CMOXRaTransfer {
public:
    // bCommandStop: the engine's stop flag of the command (read only).
    CMOXRaTransfer(SMOXRaRequest request, std::string strParam, mox_transfer_progress_cb pfnProgress, void* pUserData,
                   const bool& bCommandStop);
    CMOXRaTransfer(const CMOXRaTransfer&) = delete;
    CMOXRaTransfer& operator=(const CMOXRaTransfer&) = delete;

    // Resolves the destination's folder and checks the source; 0 or the
    // result code. DestinationKey() names the destination file uniquely
    // (device, inode of its folder, name) once this succeeded.
    int Prepare();
    const std::string& DestinationKey() const { return m_strDstKey; }
    // Carries the transfer out; 0 or the result code.
    int Run();
    void RequestStop() { m_bStop.store(true, std::memory_order_relaxed); }

    static bool IsUrl(const std::string& strSrc);

private:
    bool m_Stopped() const;
    // Reports progress, at most every kReportMs unless bForce.
    void m_Report(double dlNow, double dlTotal, double ulNow, double ulTotal, bool bForce);
    // Starts the disk writes of what was written so far, in the background,
    // so that the final fsync has little left to wait for.
    void m_StartWriteback(long long llBytes);
    int m_Copy(int nOutFd, long long& llBytes);
    int m_Download(int nOutFd, long long& llBytes);
    static int s_DownloadProgress(void* pUserData, const char* szCommand, double dlNow, double dlTotal, double ulNow,
                                  double ulTotal);

    SMOXRaRequest m_request;
    std::string m_strParam;
    mox_transfer_progress_cb m_pfnProgress;
    void* m_pUserData;
    const bool& m_bCommandStop;
    std::atomic<bool> m_bStop{false};
    long long m_llLastReport = 0;   // transfer thread only
    int m_nOutFd = -1;              // the temporary file while Run() writes it
    long long m_llWrittenBack = 0;  // transfer thread only

    CMOXConfinedPath m_root;
    mox_util::UniqueFd m_dirFd;  // the destination's folder
    mox_util::UniqueFd m_srcFd;  // local copies
    std::string m_strLeaf;
    std::string m_strDstKey;
};
