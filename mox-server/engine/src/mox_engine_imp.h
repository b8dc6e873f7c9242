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
// Threads: the request methods and RemoveClient run on the main loop, except
// GetPartialList and DropPartialList, which the bus service calls on its
// message thread (both do bounded memory work only; a drop uses the caller's
// unique name, never its user id); the completion callbacks run on the
// commands' threads. m_mutex guards the jobs, their requesters, the
// per-client shares and the delivered lists, and is held while signals are
// emitted. Lock order: the bus service's engine slot, m_mutex, the cache
// pool's mutex. Completion callbacks delete the job's command on the
// command's own thread (the command touches nothing of its own after calling
// back).
//
// Kinds: every request method makes only commands of its own kind (list,
// detail, meta, act); a document naming another kind, or none, is refused
// with the method's failure signal and code 23. Each job's callbacks are
// closures bound to that job's kind: nothing a document says can change what
// a callback believes it was handed.
//
// Ownership: only the client (unique bus name) that made a request may cancel
// it, drop its lists, disconnect its handle or stop its transfer; a caller
// running as root may stop any transfer.
//
// Bounds: at most kMaxJobs running jobs. Each client's share is smaller:
// kMaxJobsPerClient jobs it started, kMaxTransfersPerClient of them file
// transfers, kMaxRequestsPerClient waiting requests (joined ones included) and
// kMaxListsPerClient undropped lists. A client is a user id, except for root,
// whose connections are each a client of their own. Beyond a bound a request
// is answered at once with its failure event. A client that leaves the bus
// gets its share back: its requests are cancelled, its lists dropped and the
// commands that no other client waits for are asked to stop.
#pragma once

#include <glib.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "mox_command.h"
#include "mox_path_jobs.h"
#include "mox_signal_sink.h"
#include "mox_thread_annotations.h"

class CMOXEngineImp;

struct Requester {
    int nCancelled = 0;  // nonzero: no completion signal
    guint32 nHandleId = 0;
    connect_info_s client;
    std::string strShare;  // the per-client share it counts against
};

// One requester per (client, handle) in a job: a second request of the same
// client under the same handle is answered by the first one, and a client
// naming another client's handle never displaces that client.
struct RequesterPointerComparator {
    bool operator()(const std::unique_ptr<Requester>& a, const std::unique_ptr<Requester>& b) const {
        if (a->nHandleId != b->nHandleId) return a->nHandleId < b->nHandleId;
        return a->client.sender < b->client.sender;
    }
};

struct WorkerThreadJob {
    EMOXCommandKind eKind = EMOXCommandKind::kList;
    std::string strQueryCmd;  // the command text, as given to Execute
    std::string strKey;       // the job's key in m_workers
    std::string strShare;     // the share of the client that started it
    // File transfers: the source and "mox_transfer_id" a stop names.
    bool bTransfer = false;
    std::string strTransferSource;
    std::string strTransferId;
    std::unique_ptr<IMOXCommand> pCommand;
    std::set<std::unique_ptr<Requester>, RequesterPointerComparator> requesters;
};

class CMOXEngineImp {
public:
    static constexpr size_t kMaxJobs = 64;
    // How long shutdown waits for stopped commands to end.
    static constexpr std::chrono::milliseconds kShutdownWait{2500};
    static constexpr size_t kMaxJobsPerClient = 16;
    static constexpr size_t kMaxTransfersPerClient = 8;
    static constexpr size_t kMaxRequestsPerClient = 256;
    static constexpr size_t kMaxListsPerClient = 256;
    static constexpr guint32 kInvalidHandle = 4294967295u;

    // Every signal leaves through `sink`, which outlives the engine.
    explicit CMOXEngineImp(IMOXSignalSink& sink);
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
    // returns the source's code: 23 when no command can be made, 7 when the
    // transfer is not one of the caller's (the code of an unknown id, so a
    // refusal tells nothing of other clients' transfers).
    bool Act(const std::string& strParam, const std::string& strSelectionBlock, guint32 nHandleId,
             const connect_info_s& caller);
    guint32 StopActSync(const std::string& strParam, guint32 nHandleId, const connect_info_s& caller);

    // The failure signal of a request refused before it reached the engine
    // (e.g. an argument over the size bound): every request gets an answer.
    // The per-client share a caller counts against: its user id, or for
    // root (and an unknown user) its own connection.
    static std::string ShareOf(const connect_info_s& caller);

    void EmitRequestFailure(EMOXCommandKind eKind, guint32 nHandleId, const connect_info_s& caller);

    // A client left the bus: its requesters are cancelled and the result
    // lists that no other client holds are dropped.
    void RemoveClient(const std::string& strUniqueName);

    // True once no job is running (waits up to `timeout`).
    bool WaitIdle(std::chrono::milliseconds timeout);
    // Shutdown: asks every command to stop, waits at most kShutdownWait for
    // them and for path jobs already using the engine (new ones no longer
    // do), and drops the result lists clients still hold. False when some
    // command or path job still runs: the engine must then outlive it
    // (never destroyed).
    bool Shutdown();

    // Device checks and folder thumbnails (mox_engine_imp_scan.cpp). Start
    // and remove calls run on the main loop (removals by device also on the
    // USB service's thread); the end callbacks run on scanner threads and take
    // no engine lock. Paths must resolve below the USB root (by descriptor,
    // CMOXConfinedPath), and the walks open every folder beneath it.
    //
    // Nothing here touches a storage on the caller's thread: the calls that
    // name a path (checks, thumbnail starts and stops) resolve it and start
    // or withdraw the work on a path job (CMOXPathJobs), which then answers
    // through `reply`, on its own thread; a call refused at once (bounds, a
    // null argument) answers before it returns. A lookup hanging on a storage
    // delays only that caller's answer.
    //
    // Work belongs to the client (unique bus name) that started it: only that
    // client, or root, stops a scanner or withdraws a thumbnail request;
    // anyone else is refused with a warning (callerIsRoot is asked only then,
    // it may be a bus round trip). A client holds at most
    // CMOXScanManager::kMaxScannersPerClient (16 of 64) scanners and
    // CMOXThumbnailScanner::kMaxRequestsPerClient (32 of 256) thumbnail
    // requests; further starts get the failure reply and a warning. What a
    // client held goes when it leaves the bus (RemoveScannersOfClient).
    // reply(started, scanner id); the id is 0 when not started.
    void StartCheckingDevice(const connect_info_s& caller, const char* mountPath,
                             const std::function<void(bool, int)>& reply);
    void FolderThumbnailScan(const connect_info_s& caller, const char* folderPath, const char* category,
                             unsigned int count, int pid, const std::function<void(bool)>& reply);
    static void cb_scannerEnd(void* pUserData, int nScannerResult);
    static void cb_scanFolderThumbEnd(void* pUserData, int nScannerResult);
    // false when the scanner is another client's and the caller is not root.
    bool RemoveScanner(int id, const std::string& sender, const std::function<bool()>& callerIsRoot);
    void RemoveScannerOfDevice(const char* mountPath);
    // reply(false) when a matching request is another client's and the
    // caller is not root (the caller's own ones are withdrawn all the same).
    // callerIsRoot runs on the path job's thread.
    void RemoveScannerOfFolder(const char* folderPath, const char* category, unsigned int count, int pid,
                               const connect_info_s& caller, const std::function<bool()>& callerIsRoot,
                               const std::function<void(bool)>& reply);
    // The scanners and thumbnail requests of a client that left the bus.
    void RemoveScannersOfClient(const std::string& sender);
    void RemoveThumbnailByDevice(const char* mountPath);

private:
    // Per-client shares (see Bounds above).
    struct Share {
        size_t nJobs = 0;
        size_t nTransfers = 0;
        size_t nRequests = 0;
    };

    // Completion of each kind of job, on the command's thread.
    void m_OnListDone(WorkerThreadJob* pJob, const std::string& strShmName, mox_error_code_e eError);
    void m_OnDetailDone(WorkerThreadJob* pJob, const std::string& strResult, mox_error_code_e eError);
    void m_OnMetaDone(WorkerThreadJob* pJob, const std::string& strResult, mox_error_code_e eError);
    void m_OnActDone(WorkerThreadJob* pJob, const std::string& strResult, mox_error_code_e eError);
    // Reports closer than 300 ms to the previous one (of any transfer) are
    // dropped unless they finish a download or upload.
    void m_OnActProgress(WorkerThreadJob* pJob, const char* szParam, mox_transfer_progress_data_s* pProgress,
                         mox_error_code_e eError);

    std::unique_ptr<Requester> m_InitRequester(guint32 nHandleId, const connect_info_s& caller);
    // Adds the requester to the job of strKey when there is one (requires
    // m_mutex); false when there is none.
    bool m_FindRequester(std::unique_ptr<Requester>& pRequester, const std::string& strKey) REQUIRES(m_mutex);
    std::unique_ptr<WorkerThreadJob> m_InitWorker(EMOXCommandKind eKind, std::unique_ptr<Requester> pRequester,
                                                  const std::string& strKey, const std::string& strQueryCmd);
    // Whether the caller may start (bNewJob) or join a job, counting its
    // share; warns once when not.
    bool m_ShareAllows(const connect_info_s& caller, bool bNewJob, bool bTransfer) const REQUIRES(m_mutex);
    // The coalescing steps shared by list and metadata requests; unlocks
    // `lock` (on m_mutex) to execute a new command, so the analysis cannot
    // follow it: the callers hold `lock` and never touch guarded members
    // after the call. False (failure signal sent) when the request was
    // refused.
    bool m_JoinOrStart(mox::UniqueLock& lock, EMOXCommandKind eKind, const std::string& strKey,
                       const std::string& strCommand, guint32 nHandleId,
                       const connect_info_s& caller) NO_THREAD_SAFETY_ANALYSIS;
    // Makes the job's command and inserts the job; the command to execute,
    // or NULL (job freed, failure signal sent) when none can be made.
    IMOXCommand* m_StartJob(std::unique_ptr<WorkerThreadJob> pJob) REQUIRES(m_mutex);
    // Unlocks `lock` (on m_mutex) and executes pCommand; false for NULL.
    // Unchecked for the reason given at m_JoinOrStart.
    bool m_Execute(mox::UniqueLock& lock, IMOXCommand* pCommand,
                   const std::string& strCommand) NO_THREAD_SAFETY_ANALYSIS;
    // Frees the job's requesters and removes the job.
    void m_ReleaseJob(WorkerThreadJob* pJob) REQUIRES(m_mutex);
    // Stops the job's command when none of its requesters waits any more.
    void m_StopIfUnwanted(WorkerThreadJob& job) REQUIRES(m_mutex);
    void m_AddToShare(const Requester& requester) REQUIRES(m_mutex);
    void m_RemoveFromShare(const Requester& requester) REQUIRES(m_mutex);
    // Unlinks a result list and lets go of its blocks; false when a block
    // name of the list is empty (the list then stays).
    bool m_DropList(const std::string& strShmName);
    size_t m_ListsHeldBy(const std::string& strSender) const REQUIRES(m_mutex);

    // Gives scanner `id` its checking option for the resolved folder and
    // starts it (on a path job: opening the folder may block); false (said
    // why) when it was removed meanwhile or cannot start.
    bool m_StartChecking(const connect_info_s& caller, int id, const std::string& strMountPath);

    void m_Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload);
    void m_EmitEvent(const connect_info_s& client, int nEventType, guint32 nHandleId);
    // The final act signal (event 6 for code 0, else 7) to one requester.
    void m_EmitActEnd(const connect_info_s& client, guint32 nHandleId, const std::string& strResult,
                      const std::string& strTimes, int nError);
    // The failure signal of a refused request of eKind (code 23, or nError).
    void m_EmitFailure(EMOXCommandKind eKind, const connect_info_s& caller, guint32 nHandleId,
                       const std::string& strCommand, int nError);

    IMOXSignalSink& m_sink;
    CMOXPathJobs m_pathJobs;
    guint32 m_nHandleCounter = 0;  // main loop only
    mox::Mutex m_mutex;
    std::condition_variable m_idle;  // signalled when a job ends
    std::map<std::string, std::unique_ptr<WorkerThreadJob>> m_workers GUARDED_BY(m_mutex);
    // Result list -> (client unique name, handle) of every requester that
    // received it and has not dropped it yet.
    using Holder = std::pair<std::string, guint32>;
    std::map<std::string, std::set<Holder>> m_deliveredLists GUARDED_BY(m_mutex);
    std::map<std::string, Share> m_shares GUARDED_BY(m_mutex);
    unsigned long long m_nDetailSerial GUARDED_BY(m_mutex) = 0;
};
