#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_engine_imp.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <mox/json_value.h>
#include <mox/mox_events.h>
#include <mox/mox_log.h>
#include <mox/mox_resultlist.h>
#include <mox/mox_singleton.h>

#include "cache_builder.h"
#include "cache_pool.h"
#include "mox_bus_text.h"
#include "mox_command_factory.h"
#include "mox_library_hooks.h"
#include "mox_request_list_command.h"
#include "mox_resultlist_builder.h"
#include "mox_source_manager.h"

namespace {

// Job keys carry their kind, so that a list request can never join a detail
// or metadata job whose command text happens to be the same.
const char kListKey = 'L';
const char kDetailKey = 'D';
const char kMetaKey = 'M';

}  // namespace

CMOXEngineImp::CMOXEngineImp(IMOXSignalSink& sink) : m_sink(sink) {}

CMOXEngineImp::~CMOXEngineImp() {
    if (!Shutdown()) MOX_WARN("Commands still running at shutdown.");
}

bool CMOXEngineImp::Shutdown() {
    {
        // Transfers can run for minutes and sources can sleep: ask every
        // command to give up.
        mox::MutexLock lock(m_mutex);
        for (auto& entry : m_workers)
            if (entry.second->pCommand) entry.second->pCommand->Stop();
    }
    // Bounded: a source stuck in a call must not hold the daemon's exit.
    const auto start = std::chrono::steady_clock::now();
    const bool bIdle = WaitIdle(kShutdownWait);
    const auto left =
        kShutdownWait - std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    const bool bJobsDone = m_pathJobs.Close(std::max(left, std::chrono::milliseconds(0)));
    mox::MutexLock lock(m_mutex);
    for (const auto& entry : m_deliveredLists) m_DropList(entry.first);
    m_deliveredLists.clear();
    return bIdle && bJobsDone;
}

bool CMOXEngineImp::WaitIdle(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    mox::UniqueLock lock(m_mutex);
    while (!m_workers.empty())
        if (lock.WaitUntil(m_idle, deadline) == std::cv_status::timeout) return m_workers.empty();
    return true;
}

void CMOXEngineImp::m_Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload) {
    m_sink.Emit(client, szSignal, strPayload);
}

void CMOXEngineImp::m_EmitEvent(const connect_info_s& client, int nEventType, guint32 nHandleId) {
    CJsonValue payload;
    payload.Set("mox_event_type", nEventType);
    payload.Set("mox_handle_id", nHandleId);
    std::string strPayload = payload.ToString();
    MOX_DEBUG("Emit signal[%s]", strPayload.c_str());
    m_Emit(client, "mox_request_normal_complete", strPayload);
}

guint32 CMOXEngineImp::Connect(const char* szName) {
    std::string strName = szName ? szName : "";
    if (strName != "cloud" && strName != "facebookphoto" && strName != "test") {
        if (!CMOXSingleton<CMOXSourceMgr>::Get()->InstallPlugin(strName)) {
            MOX_DEBUG("---Connect fail---\n");
            return kInvalidHandle;
        }
    }
    // The all-ones value means failure to clients: never hand it out.
    if (m_nHandleCounter == kInvalidHandle) m_nHandleCounter = 0;
    return m_nHandleCounter++;
}

std::unique_ptr<Requester> CMOXEngineImp::m_InitRequester(guint32 nHandleId, const connect_info_s& caller) {
    auto pRequester = std::make_unique<Requester>();
    pRequester->nHandleId = nHandleId;
    pRequester->client = caller;
    pRequester->strShare = ShareOf(caller);
    return pRequester;
}

std::string CMOXEngineImp::ShareOf(const connect_info_s& caller) {
    // Root's connections are system services, each a client of its own; any
    // other user is one client however many connections it opens.
    if (caller.uid == static_cast<uid_t>(-1) || caller.uid == 0) return "name:" + caller.sender;
    return "uid:" + std::to_string(caller.uid);
}

void CMOXEngineImp::m_AddToShare(const Requester& requester) {
    ++m_shares[requester.strShare].nRequests;
}

void CMOXEngineImp::m_RemoveFromShare(const Requester& requester) {
    auto found = m_shares.find(requester.strShare);
    if (found == m_shares.end()) return;
    if (found->second.nRequests > 0) --found->second.nRequests;
    if (found->second.nRequests == 0 && found->second.nJobs == 0 && found->second.nTransfers == 0)
        m_shares.erase(found);
}

bool CMOXEngineImp::m_ShareAllows(const connect_info_s& caller, bool bNewJob, bool bTransfer) const {
    if (bNewJob && m_workers.size() >= kMaxJobs) {
        MOX_WARN("%zu requests running: request of [%s] refused.", m_workers.size(), caller.sender.c_str());
        return false;
    }
    auto found = m_shares.find(ShareOf(caller));
    if (found == m_shares.end()) return true;
    const Share& share = found->second;
    if (share.nRequests >= kMaxRequestsPerClient || (bNewJob && share.nJobs >= kMaxJobsPerClient) ||
        (bNewJob && bTransfer && share.nTransfers >= kMaxTransfersPerClient)) {
        MOX_WARN("Client [%s] holds its share of requests (%zu waiting, %zu running): request refused.",
                 caller.sender.c_str(), share.nRequests, share.nJobs);
        return false;
    }
    return true;
}

bool CMOXEngineImp::m_FindRequester(std::unique_ptr<Requester>& pRequester, const std::string& strKey) {
    auto found = m_workers.find(strKey);
    if (found == m_workers.end()) return false;
    // A second request of the same client under the same handle is answered
    // by the first one.
    auto inserted = found->second->requesters.insert(std::move(pRequester));
    if (inserted.second) m_AddToShare(**inserted.first);
    pRequester.reset();
    return true;
}

std::unique_ptr<WorkerThreadJob> CMOXEngineImp::m_InitWorker(EMOXCommandKind eKind,
                                                             std::unique_ptr<Requester> pRequester,
                                                             const std::string& strKey,
                                                             const std::string& strQueryCmd) {
    auto pJob = std::make_unique<WorkerThreadJob>();
    pJob->eKind = eKind;
    pJob->strKey = strKey;
    pJob->strQueryCmd = strQueryCmd;
    pJob->strShare = pRequester->strShare;
    pJob->requesters.insert(std::move(pRequester));
    return pJob;
}

size_t CMOXEngineImp::m_ListsHeldBy(const std::string& strSender) const {
    size_t nCount = 0;
    for (const auto& entry : m_deliveredLists)
        for (const Holder& holder : entry.second) nCount += holder.first == strSender;
    return nCount;
}

IMOXCommand* CMOXEngineImp::m_StartJob(std::unique_ptr<WorkerThreadJob> pJob) {
    // The closures name the job and its kind; the job outlives its command.
    WorkerThreadJob* pRaw = pJob.get();
    using DoneHandler = void (CMOXEngineImp::*)(WorkerThreadJob*, const std::string&, mox_error_code_e);
    DoneHandler pfnDone = &CMOXEngineImp::m_OnListDone;
    switch (pJob->eKind) {
        case EMOXCommandKind::kList: pfnDone = &CMOXEngineImp::m_OnListDone; break;
        case EMOXCommandKind::kDetail: pfnDone = &CMOXEngineImp::m_OnDetailDone; break;
        case EMOXCommandKind::kMeta: pfnDone = &CMOXEngineImp::m_OnMetaDone; break;
        case EMOXCommandKind::kAct: pfnDone = &CMOXEngineImp::m_OnActDone; break;
    }
    MOXCommandCallback fnDone = [this, pRaw, pfnDone](const std::string& strResult, mox_error_code_e eError) {
        (this->*pfnDone)(pRaw, strResult, eError);
    };
    MOXProgressCallback fnProgress;
    if (pJob->eKind == EMOXCommandKind::kAct)
        fnProgress = [this, pRaw](const char* szParam, mox_transfer_progress_data_s* pProgress,
                                  mox_error_code_e eError) { m_OnActProgress(pRaw, szParam, pProgress, eError); };
    pJob->pCommand =
        CMOXCommandFactory::GetCommand(pJob->eKind, pJob->strQueryCmd, std::move(fnDone), std::move(fnProgress));
    if (!pJob->pCommand) {
        // The factory said why; the client still gets its answer.
        const Requester& first = **pJob->requesters.begin();
        m_EmitFailure(pJob->eKind, first.client, first.nHandleId, pJob->strQueryCmd, MOX_ERROR_GENERIC);
        return nullptr;
    }
    IMOXCommand* pCommand = pJob->pCommand.get();
    Share& share = m_shares[pJob->strShare];
    ++share.nJobs;
    if (pJob->bTransfer) ++share.nTransfers;
    for (const auto& pRequester : pJob->requesters) m_AddToShare(*pRequester);
    m_workers.emplace(pJob->strKey, std::move(pJob));
    mox_library::SetUsersBusy(true);  // the indexers yield while users are served
    return pCommand;
}

bool CMOXEngineImp::m_Execute(mox::UniqueLock& lock, IMOXCommand* pCommand, const std::string& strCommand) {
    if (pCommand == nullptr) return false;
    // Outside the lock: a command that cannot start a thread calls back at
    // once, and the callback takes m_mutex. Only that callback ends the job,
    // so the command stays valid until Execute has returned.
    lock.Unlock();
    pCommand->Execute(strCommand);
    return true;
}

bool CMOXEngineImp::m_JoinOrStart(mox::UniqueLock& lock, EMOXCommandKind eKind, const std::string& strKey,
                                  const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller) {
    const bool bJoin = m_workers.count(strKey) != 0;
    if (!m_ShareAllows(caller, !bJoin, false)) {
        m_EmitFailure(eKind, caller, nHandleId, strCommand, MOX_ERROR_GENERIC);
        return false;
    }
    std::unique_ptr<Requester> pRequester = m_InitRequester(nHandleId, caller);
    if (m_FindRequester(pRequester, strKey)) {
        MOX_DEBUG("m_FindRequester == true.");
        return true;
    }
    MOX_DEBUG("m_FindRequesterInit fail. Init a new workThread job.");
    IMOXCommand* pCommand = m_StartJob(m_InitWorker(eKind, std::move(pRequester), strKey, strCommand));
    return m_Execute(lock, pCommand, strCommand);
}

void CMOXEngineImp::m_EmitFailure(EMOXCommandKind eKind, const connect_info_s& caller, guint32 nHandleId,
                                  const std::string& strCommand, int nError) {
    CJsonValue payload;
    payload.Set("mox_handle_id", nHandleId);
    payload.Set("mox_error_code", nError);
    const char* szSignal = "mox_request_normal_complete";
    switch (eKind) {
        case EMOXCommandKind::kList:
            payload.Set("mox_event_type", MOX_EVENT_LIST_FAILED);
            payload.Set("mox_result_list_block_name", "");
            break;
        case EMOXCommandKind::kDetail:
            payload.Set("mox_event_type", MOX_EVENT_DETAIL_FAILED);
            payload.Set("mox_result_list_block_name", "");
            payload.Set("mox_result_detail_json", "");
            payload.Set("mox_detail_request_times", CJsonValue(strCommand).StringOr("mox_detail_request_times"));
            break;
        case EMOXCommandKind::kMeta:
            szSignal = "mox_request_metadata";
            payload.Set("mox_event_type", MOX_EVENT_META_FAILED);
            payload.Set("act_command_and_return_data", "{}");
            break;
        case EMOXCommandKind::kAct:
            m_EmitActEnd(caller, nHandleId, strCommand, CJsonValue(strCommand).StringOr("mox_act_request_times"),
                         nError);
            return;
    }
    m_Emit(caller, szSignal, payload.ToString());
}

void CMOXEngineImp::EmitRequestFailure(EMOXCommandKind eKind, guint32 nHandleId, const connect_info_s& caller) {
    m_EmitFailure(eKind, caller, nHandleId, std::string(), MOX_ERROR_GENERIC);
}

bool CMOXEngineImp::GetPartialList(const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::GetPartialList()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strCommand).c_str());
    mox::UniqueLock lock(m_mutex);
    std::string strKey = kListKey + strCommand;
    if (!m_workers.count(strKey) && m_ListsHeldBy(caller.sender) >= kMaxListsPerClient) {
        MOX_WARN("Too many undropped lists: list request refused.");
        m_EmitFailure(EMOXCommandKind::kList, caller, nHandleId, strCommand, MOX_ERROR_GENERIC);
        return false;
    }
    return m_JoinOrStart(lock, EMOXCommandKind::kList, strKey, strCommand, nHandleId, caller);
}

bool CMOXEngineImp::RequestDetail(const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::RequestDetail()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strCommand).c_str());
    mox::UniqueLock lock(m_mutex);
    if (!m_ShareAllows(caller, true, false)) {
        m_EmitFailure(EMOXCommandKind::kDetail, caller, nHandleId, strCommand, MOX_ERROR_GENERIC);
        return false;
    }
    // Never coalesced: every detail request runs its own command.
    std::string strKey = kDetailKey + std::to_string(++m_nDetailSerial) + ":" + strCommand;
    IMOXCommand* pCommand =
        m_StartJob(m_InitWorker(EMOXCommandKind::kDetail, m_InitRequester(nHandleId, caller), strKey, strCommand));
    return m_Execute(lock, pCommand, strCommand);
}

bool CMOXEngineImp::RequestMetadata(const std::string& strRequest, guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::RequestMetadata()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strRequest).c_str());
    mox::UniqueLock lock(m_mutex);
    return m_JoinOrStart(lock, EMOXCommandKind::kMeta, kMetaKey + strRequest, strRequest, nHandleId, caller);
}

bool CMOXEngineImp::CancelDetail(guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::CancelDetail().");
    mox::MutexLock lock(m_mutex);
    for (auto& entry : m_workers) {
        WorkerThreadJob* pWork = entry.second.get();
        assert(pWork != nullptr);
        // A handle is only honoured from the client that uses it.
        for (auto& pRequester : pWork->requesters)
            if (pRequester->nHandleId == nHandleId && pRequester->client.sender == caller.sender)
                pRequester->nCancelled = 1;
    }
    return true;
}

bool CMOXEngineImp::Disconnect(guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::Disconnect().");
    MOX_DEBUG("nHandleId[%d].", static_cast<int>(nHandleId));
    mox::MutexLock lock(m_mutex);
    MOX_DEBUG("m_workers.size(): %d", static_cast<int>(m_workers.size()));
    for (auto& entry : m_workers) {
        for (auto& pRequester : entry.second->requesters) {
            if (pRequester->nHandleId != nHandleId || pRequester->client.sender != caller.sender) continue;
            MOX_DEBUG("find one request of handleId: %d.", static_cast<int>(nHandleId));
            pRequester->nCancelled = 1;
            // The job's blocks are not let go here: a list nobody wants any
            // more is dropped, blocks included, when the job completes.
        }
        m_StopIfUnwanted(*entry.second);
    }
    m_EmitEvent(caller, MOX_EVENT_DISCONNECTED, nHandleId);
    return true;
}

bool CMOXEngineImp::m_DropList(const std::string& strShmName) {
    // A list this engine built: its blocks are known without reading it.
    std::vector<int> cacheIds;
    if (CMOXRequestListCommand::TakeBlocksOfList(strShmName, cacheIds)) {
        for (int nCacheId : cacheIds) CMOXSingleton<CCachePool>::Get()->Delete(nCacheId);
        CResultListBuilder::Drop(strShmName);
        return true;
    }
    auto pResultPool = std::make_unique<CResultList>(strShmName);
    const int nBlockCount = pResultPool->GetBlockCount();
    MOX_DEBUG("BlockCount[%d] in shm[%s]", nBlockCount, strShmName.c_str());
    MOX_DEBUG("start for loop in tid: %d.", nBlockCount);
    for (int i = 0; i < nBlockCount; ++i) {
        std::string sShmName;
        pResultPool->GetBlockName(i, sShmName);
        MOX_DEBUG("sShmName: %s", sShmName.c_str());
        if (sShmName.empty()) {
            MOX_WARN("sShmName.empty()");
            return false;
        }
        MOX_DEBUG("!sShmName.empty()");
        int nCacheId = -1;
        if (CCacheBuilder::GetCacheId(sShmName, nCacheId)) CMOXSingleton<CCachePool>::Get()->Delete(nCacheId);
    }
    CResultListBuilder::Drop(strShmName);
    pResultPool.reset();
    return true;
}

bool CMOXEngineImp::DropPartialList(const std::string& strShmName, guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::DropPartialList().");
    MOX_DEBUG("szShmName[%s]", mox_bus::ForLog(strShmName).c_str());
    mox::MutexLock lock(m_mutex);
    // Only a list this engine handed to the caller: a client must not make
    // the engine let go of blocks that other clients hold.
    auto found = m_deliveredLists.find(strShmName);
    if (found == m_deliveredLists.end() || found->second.erase(Holder(caller.sender, nHandleId)) == 0) {
        MOX_WARN("Result list[%s] was not delivered to [%s] handle %u: drop refused.",
                 mox_bus::ForLog(strShmName).c_str(), caller.sender.c_str(), nHandleId);
        m_EmitEvent(caller, MOX_EVENT_DROP_FAILED, nHandleId);
        return false;
    }
    // Shared by a coalesced request: the list stays for its other readers.
    if (found->second.empty()) {
        m_deliveredLists.erase(found);
        if (!m_DropList(strShmName)) {
            m_EmitEvent(caller, MOX_EVENT_DROP_FAILED, nHandleId);
            return false;
        }
    }
    CJsonValue payload;
    payload.Set("mox_event_type", MOX_EVENT_LIST_DROPPED);
    payload.Set("mox_handle_id", nHandleId);
    payload.Set("mox_shm_name", strShmName);
    std::string strPayload = payload.ToString();
    MOX_DEBUG("Emit signal[%s]", strPayload.c_str());
    m_Emit(caller, "mox_request_normal_complete", strPayload);
    return true;
}

void CMOXEngineImp::RemoveClient(const std::string& strUniqueName) {
    mox::MutexLock lock(m_mutex);
    int nCancelled = 0;
    for (auto& entry : m_workers) {
        for (auto& pRequester : entry.second->requesters) {
            if (pRequester->client.sender == strUniqueName && pRequester->nCancelled == 0) {
                pRequester->nCancelled = 1;
                ++nCancelled;
            }
        }
        m_StopIfUnwanted(*entry.second);
    }
    int nDropped = 0;
    for (auto it = m_deliveredLists.begin(); it != m_deliveredLists.end();) {
        size_t nHeld = it->second.size();
        for (auto holder = it->second.begin(); holder != it->second.end();)
            holder = holder->first == strUniqueName ? it->second.erase(holder) : std::next(holder);
        if (nHeld != it->second.size() && it->second.empty()) {
            m_DropList(it->first);
            ++nDropped;
            it = m_deliveredLists.erase(it);
        } else {
            ++it;
        }
    }
    if (nCancelled || nDropped)
        MOX_INFO("Client[%s] left the bus: %d requests cancelled, %d result lists dropped.", strUniqueName.c_str(),
                 nCancelled, nDropped);
}

void CMOXEngineImp::m_StopIfUnwanted(WorkerThreadJob& job) {
    for (const auto& pRequester : job.requesters)
        if (pRequester->nCancelled == 0) return;
    // Nobody waits any more: the command (and the source it calls) need not
    // run on.
    if (job.pCommand) job.pCommand->Stop();
}

void CMOXEngineImp::m_ReleaseJob(WorkerThreadJob* pJob) {
    for (const auto& pRequester : pJob->requesters) m_RemoveFromShare(*pRequester);
    pJob->requesters.clear();
    auto share = m_shares.find(pJob->strShare);
    if (share != m_shares.end()) {
        if (share->second.nJobs > 0) --share->second.nJobs;
        if (pJob->bTransfer && share->second.nTransfers > 0) --share->second.nTransfers;
        if (share->second.nRequests == 0 && share->second.nJobs == 0 && share->second.nTransfers == 0)
            m_shares.erase(share);
    }
    MOX_DEBUG("m_workers.size() before delete: %d", static_cast<int>(m_workers.size()));
    auto found = m_workers.find(pJob->strKey);
    if (found != m_workers.end() && found->second.get() == pJob) {
        MOX_DEBUG("delete a worker.");
        m_workers.erase(found);  // destroys the command and the job
    }
    MOX_DEBUG("m_workers.size() after delete: %d", static_cast<int>(m_workers.size()));
    mox_library::SetUsersBusy(!m_workers.empty());
    m_idle.notify_all();
}

void CMOXEngineImp::m_OnListDone(WorkerThreadJob* pJob, const std::string& strShmName, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_GetPartialListCompeleteCb().");
    mox::MutexLock lock(m_mutex);
    int nEventType = strShmName.empty() ? MOX_EVENT_LIST_FAILED : MOX_EVENT_LIST_READY;
    if (eError == MOX_ERROR_FAILED_RESULT) nEventType = MOX_EVENT_LIST_SOURCE_ERROR;
    std::set<Holder> recipients;
    for (const auto& pRequester : pJob->requesters) {
        if (pRequester->nCancelled != 0) continue;
        CJsonValue payload;
        payload.Set("mox_event_type", nEventType);
        payload.Set("mox_handle_id", pRequester->nHandleId);
        payload.Set("mox_result_list_block_name", strShmName);
        // Every failure says why: empty folder (6), no such folder (7), no
        // such source (4), source failed (23 or its own code), broken
        // answer (32).
        if (nEventType != MOX_EVENT_LIST_READY)
            payload.Set("mox_error_code", static_cast<int>(eError == MOX_ERROR_NONE ? MOX_ERROR_GENERIC : eError));
        std::string strPayload = payload.ToString();
        MOX_DEBUG("strQueryCmd[%s].", mox_bus::ForLog(pJob->strQueryCmd).c_str());
        MOX_DEBUG("Emit signal[%s]", strPayload.c_str());
        m_Emit(pRequester->client, "mox_request_normal_complete", strPayload);
        recipients.emplace(pRequester->client.sender, pRequester->nHandleId);
    }
    if (!strShmName.empty()) {
        if (recipients.empty()) {
            // Everybody left or disconnected: nobody will drop it.
            m_DropList(strShmName);
        } else {
            m_deliveredLists[strShmName].insert(recipients.begin(), recipients.end());
        }
    }
    m_ReleaseJob(pJob);
}

void CMOXEngineImp::m_OnDetailDone(WorkerThreadJob* pJob, const std::string& strResult, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_RequestDetailCompeleteCb().");
    std::string strTimes = CJsonValue(pJob->strQueryCmd).StringOr("mox_detail_request_times");
    mox::MutexLock lock(m_mutex);
    if (!pJob->requesters.empty()) {
        const Requester& first = **pJob->requesters.begin();
        if (first.nCancelled == 0) {
            int nEventType = MOX_EVENT_DETAIL;
            if (eError == MOX_ERROR_DETAIL_NOT_FOUND)
                nEventType = MOX_EVENT_DETAIL_NOT_FOUND;
            else if (eError == MOX_ERROR_NO_SUCH_SOURCE || eError == MOX_ERROR_FAILED_RESULT)
                nEventType = MOX_EVENT_DETAIL_FAILED;
            else if (eError != MOX_ERROR_NONE)
                MOX_WARN("Wrong event type received form engine[%d].", 3);  // never for a found detail
            CJsonValue payload;
            payload.Set("mox_event_type", nEventType);
            payload.Set("mox_handle_id", first.nHandleId);
            payload.Set("mox_result_list_block_name", strResult);
            payload.Set("mox_result_detail_json", strResult);
            payload.Set("mox_detail_request_times", strTimes);
            // Any failure says which, even under the plain detail event.
            if (eError != MOX_ERROR_NONE) payload.Set("mox_error_code", static_cast<int>(eError));
            std::string strPayload = payload.ToString();
            MOX_DEBUG("Emit signal[%s]", mox_bus::ForLog(strPayload).c_str());
            m_Emit(first.client, "mox_request_normal_complete", strPayload);
        }
    }
    m_ReleaseJob(pJob);
}

void CMOXEngineImp::m_OnMetaDone(WorkerThreadJob* pJob, const std::string& strResult, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_RequestMetaCompeleteCb().");
    // The service's text, or an empty object when it gave no JSON object. A
    // failed request has no text at all: nothing to parse (or warn about).
    CJsonValue result = strResult.empty() ? CJsonValue() : CJsonValue(strResult);
    if (!result.IsValid()) result = CJsonValue();
    result.Set("mox_uhd_request_param", pJob->strQueryCmd);
    std::string strData = result.ToString();
    int nEventType = eError == MOX_ERROR_NONE ? MOX_EVENT_META_DONE : MOX_EVENT_META_FAILED;
    mox::MutexLock lock(m_mutex);
    for (const auto& pRequester : pJob->requesters) {
        if (pRequester->nCancelled != 0) continue;
        CJsonValue payload;
        payload.Set("mox_event_type", nEventType);
        payload.Set("mox_handle_id", pRequester->nHandleId);
        payload.Set("act_command_and_return_data", strData);
        std::string strPayload = payload.ToString();
        MOX_DEBUG("Emit signal[%s]", mox_bus::ForLog(strPayload).c_str());
        m_Emit(pRequester->client, "mox_request_metadata", strPayload);
    }
    m_ReleaseJob(pJob);
}
