// CMOXEngineImp: turns the clients' request methods into commands and routes
// each command's completion back, as signals, to the clients that asked.
//
// Bookkeeping: a handle counter (one handle per `connect`), worker jobs (one
// per running command, keyed by its kind and command text) and requesters
// (who asked, under which handle, and whether the answer is still wanted).
// Identical list and metadata requests share one job and one command run;
// each waiting requester gets its own signal. Result lists handed to clients
// are remembered until every requester they reached (client and handle)
// drops them or its client leaves the bus, so that no list or data block
// outlives its readers; only those requesters may drop a list.
//
// Threads: the request methods and RemoveClient run on the main loop; the
// static completion callbacks run on the commands' threads. m_mutex guards
// the jobs, their requesters and the delivered lists, and is held while
// signals are emitted. Lock order: m_mutex before the cache pool's mutex.
// Completion callbacks delete the job's command on the command's own thread
// (the command touches nothing of its own after calling back).
//
// Bounds: at most kMaxJobs running jobs and kMaxListsPerClient undropped
// lists per client; beyond them a request is answered at once with its
// failure event.
#pragma once

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "mox_command.h"
#include "mox_storage_defines.h"

// A client's identity: connection, sender unique name, object path, interface.
typedef dbus_connection_info_s connect_info_s;

class CMOXEngineImp;

struct Requester {
    int nCancelled = 0;  // nonzero: no completion signal
    guint32 nHandleId = 0;
    connect_info_s client;
};

struct RequesterPointerComparator {
    bool operator()(const std::unique_ptr<Requester>& a, const std::unique_ptr<Requester>& b) const {
        return a->nHandleId < b->nHandleId;
    }
};

struct WorkerThreadJob {
    std::string strQueryCmd;  // the command text, as given to Execute
    std::string strKey;       // the job's key in m_workers
    std::unique_ptr<IMOXCommand> pCommand;
    // File transfers: the command's user data (job, progress callback).
    std::unique_ptr<SMOXActParam> pActParam;
    std::set<std::unique_ptr<Requester>, RequesterPointerComparator> requesters;
    CMOXEngineImp* pThis = nullptr;
};

class CMOXEngineImp {
public:
    static const size_t kMaxJobs = 64;
    static const size_t kMaxListsPerClient = 256;
    static const guint32 kInvalidHandle = 4294967295u;

    CMOXEngineImp();
    // Waits (bounded) for running commands, then drops every result list
    // still held by clients.
    ~CMOXEngineImp();
    CMOXEngineImp(const CMOXEngineImp&) = delete;
    CMOXEngineImp& operator=(const CMOXEngineImp&) = delete;

    // A new handle, after installing the plug-in szName from the plug-in
    // directory ("cloud", "facebookphoto" and "test" need none);
    // kInvalidHandle when the plug-in cannot be installed.
    guint32 Connect(const char* szName);
    bool Disconnect(guint32 nHandleId, const connect_info_s& caller);
    bool GetPartialList(const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller);
    bool RequestDetail(const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller);
    bool CancelDetail(guint32 nHandleId, const connect_info_s& caller);
    bool DropPartialList(const std::string& strShmName, guint32 nHandleId, const connect_info_s& caller);
    bool RequestMetadata(const std::string& strRequest, guint32 nHandleId, const connect_info_s& caller);

    // Actions and file transfers (mox_engine_imp_act.cpp). Act starts or joins
    // the job of the parameter document (compact text as key); a document
    // that cannot make a command, or that asks for a stop, is answered at
    // once with a final signal carrying its code. StopActSync runs the stop
    // of a transfer on the calling thread without touching any job and
    // returns the source's code (23 when no command can be made).
    bool Act(const std::string& strParam, const std::string& strSelectionBlock, guint32 nHandleId,
             const connect_info_s& caller);
    guint32 StopActSync(const std::string& strParam, guint32 nHandleId, const connect_info_s& caller);
    static void m_ActCompeleteCb(void* pUserData, std::string strResult, mox_error_code_e eError);
    // pUserData is the job's SMOXActParam. Reports closer than 300 ms to the
    // previous one (of any transfer) are dropped unless they finish a
    // download or upload.
    static void m_ActProgressCb(void* pUserData, const char* szParam, mox_transfer_progress_data_s* pProgress,
                                mox_error_code_e eError);

    // A client left the bus: its requesters are cancelled and the result
    // lists that no other client holds are dropped.
    void RemoveClient(const std::string& strUniqueName);

    // True once no job is running (waits up to `timeout`).
    bool WaitIdle(std::chrono::milliseconds timeout);

    // Device checks and folder thumbnails (mox_engine_imp_scan.cpp). Start
    // and remove calls run on the main loop (removals by device also on the
    // USB service's thread); the end callbacks run on scanner threads and take
    // no engine lock. Paths must resolve below the USB root (by descriptor,
    // CMOXConfinedPath), and the walks open every folder beneath it.
    //
    // Work belongs to the client (unique bus name) that started it: only that
    // client, or root, stops a scanner or withdraws a thumbnail request;
    // anyone else is refused with a warning (callerIsRoot is asked only then,
    // it may be a bus round trip). A client holds at most
    // CMOXScanManager::kMaxScannersPerClient (16 of 64) scanners and
    // CMOXThumbnailScanner::kMaxRequestsPerClient (32 of 256) thumbnail
    // requests; further starts get the failure reply and a warning. What a
    // client held goes when it leaves the bus (RemoveScannersOfClient).
    bool StartCheckingDevice(const connect_info_s& caller, const char* mountPath, int& scannerId);
    bool FolderThumbnailScan(const connect_info_s& caller, const char* folderPath, const char* category,
                             unsigned int count, int pid);
    static void cb_scannerEnd(void* pUserData, int nScannerResult);
    static void cb_scanFolderThumbEnd(void* pUserData, int nScannerResult);
    // false when the scanner is another client's and the caller is not root.
    bool RemoveScanner(int id, const std::string& sender, const std::function<bool()>& callerIsRoot);
    void RemoveScannerOfDevice(const char* mountPath);
    // false when a matching request is another client's and the caller is
    // not root (the caller's own ones are withdrawn all the same).
    bool RemoveScannerOfFolder(const char* folderPath, const char* category, unsigned int count, int pid,
                               const std::string& sender, const std::function<bool()>& callerIsRoot);
    // The scanners and thumbnail requests of a client that left the bus.
    void RemoveScannersOfClient(const std::string& sender);
    void RemoveThumbnailByDevice(const char* mountPath);

    static void m_GetPartialListCompeleteCb(void* pUserData, std::string strShmName, mox_error_code_e eError);
    static void m_RequestDetailCompeleteCb(void* pUserData, std::string strResult, mox_error_code_e eError);
    static void m_RequestMetaCompeleteCb(void* pUserData, std::string strResult, mox_error_code_e eError);

private:
    std::unique_ptr<Requester> m_InitRequester(guint32 nHandleId, const connect_info_s& caller);
    bool m_FindRequester(std::unique_ptr<Requester>& pRequester, std::string& strKey);
    std::unique_ptr<WorkerThreadJob> m_InitWorker(std::unique_ptr<Requester> pRequester, const std::string& strKey,
                                                  const std::string& strQueryCmd);
    // The coalescing steps shared by list and metadata requests; unlocks
    // `lock` to execute a new command.
    bool m_JoinOrStart(std::unique_lock<std::mutex>& lock, const std::string& strKey, const std::string& strCommand,
                       guint32 nHandleId, const connect_info_s& caller, MOXCommandCallback pfnCallback);
    // Makes the job's command and inserts the job (requires m_mutex); the
    // command to execute, or NULL (job freed) when none can be made.
    IMOXCommand* m_StartJob(std::unique_ptr<WorkerThreadJob> pJob, MOXCommandCallback pfnCallback);
    // Unlocks `lock` and executes pCommand; false for NULL.
    bool m_Execute(std::unique_lock<std::mutex>& lock, IMOXCommand* pCommand, const std::string& strCommand);
    // Frees the job's requesters and removes the job. Requires m_mutex.
    void m_ReleaseJob(WorkerThreadJob* pJob);
    // The job a command callback was handed, or null (logged) when it or its
    // engine is missing; bWarnIfNull keeps the warning some callbacks give.
    static WorkerThreadJob* m_CallbackJob(void* pUserData, bool bWarnIfNull);
    // Unlinks a result list and lets go of its blocks; false when a block
    // name of the list is empty (the list then stays).
    bool m_DropList(const std::string& strShmName);
    size_t m_ListsHeldBy(const std::string& strSender) const;  // requires m_mutex

    static void m_Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload);
    static void m_EmitEvent(const connect_info_s& client, int nEventType, guint32 nHandleId);
    // The failure signal of a request refused at once (a bound was reached).
    static void m_EmitRefusal(const connect_info_s& caller, const char* szSignal, int nEventType,
                              guint32 nHandleId, const char* szDataKey, const char* szData);
    // The final act signal (event 6 for code 0, else 7) to one requester.
    static void m_EmitActEnd(const connect_info_s& client, guint32 nHandleId, const std::string& strResult,
                             const std::string& strTimes, int nError);

    guint32 m_nHandleCounter = 0;  // main loop only
    std::mutex m_mutex;
    std::condition_variable m_idle;  // signalled when a job ends
    std::map<std::string, std::unique_ptr<WorkerThreadJob>> m_workers;  // GUARDED_BY(m_mutex)
    // Result list -> (client unique name, handle) of every requester that
    // received it and has not dropped it yet.
    using Holder = std::pair<std::string, guint32>;
    std::map<std::string, std::set<Holder>> m_deliveredLists;  // GUARDED_BY(m_mutex)
    unsigned long long m_nDetailSerial = 0;                          // GUARDED_BY(m_mutex)
};
