#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_engine_imp.h"

#include <gio/gio.h>

#include <cstring>
#include <vector>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_resultlist.h>
#include <mox/mox_singleton.h>

#include "cache_builder.h"
#include "cache_pool.h"
#include "mox_bus_text.h"
#include "mox_command_factory.h"
#include "mox_resultlist_builder.h"
#include "mox_source_manager.h"

namespace {

// Job keys carry their kind, so that a list request can never join a detail
// or metadata job whose command text happens to be the same.
const char kListKey = 'L';
const char kDetailKey = 'D';
const char kMetaKey = 'M';

std::string StringMember(const std::string& strDoc, const char* szKey) {
    CJsonValue doc(strDoc);
    std::string strValue;
    if (doc.IsValid() && doc.IsString(szKey)) doc.Get(szKey, strValue);
    return strValue;
}

}  // namespace

CMOXEngineImp::CMOXEngineImp() = default;

CMOXEngineImp::~CMOXEngineImp() {
    {
        // Transfers can run for minutes: ask every command to give up.
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& entry : m_workers)
            if (entry.second->pCommand) entry.second->pCommand->Stop();
    }
    if (!WaitIdle(std::chrono::seconds(10))) MOX_WARN("Commands still running at shutdown.");
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_deliveredLists) m_DropList(entry.first);
    m_deliveredLists.clear();
}

bool CMOXEngineImp::WaitIdle(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_idle.wait_for(lock, timeout, [this] { return m_workers.empty(); });
}

void CMOXEngineImp::m_Emit(const connect_info_s& client, const char* szSignal, const std::string& strPayload) {
    GVariant* pText = mox_bus::NewString(strPayload, szSignal);
    GError* localError = nullptr;
    g_dbus_connection_emit_signal(client.connection, client.sender.c_str(), client.objectPath.c_str(),
                                  client.interfaceName.c_str(), szSignal, g_variant_new_tuple(&pText, 1),
                                  &localError);
    // The connection is the daemon's own; a failure means it is closing.
    if (localError) {
        MOX_WARN("Emit of %s to [%s] failed: %s.", szSignal, client.sender.c_str(), localError->message);
        g_error_free(localError);
    }
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
    return pRequester;
}

bool CMOXEngineImp::m_FindRequester(std::unique_ptr<Requester>& pRequester, std::string& strKey) {
    auto found = m_workers.find(strKey);
    if (found == m_workers.end()) return false;
    // A second request under the same handle is answered by the first one.
    found->second->requesters.insert(std::move(pRequester));
    pRequester.reset();
    return true;
}

std::unique_ptr<WorkerThreadJob> CMOXEngineImp::m_InitWorker(std::unique_ptr<Requester> pRequester,
                                                             const std::string& strKey,
                                                             const std::string& strQueryCmd) {
    auto pJob = std::make_unique<WorkerThreadJob>();
    pJob->strKey = strKey;
    pJob->strQueryCmd = strQueryCmd;
    pJob->requesters.insert(std::move(pRequester));
    pJob->pThis = this;
    return pJob;
}

size_t CMOXEngineImp::m_ListsHeldBy(const std::string& strSender) const {
    size_t nCount = 0;
    for (const auto& entry : m_deliveredLists)
        for (const Holder& holder : entry.second) nCount += holder.first == strSender;
    return nCount;
}

IMOXCommand* CMOXEngineImp::m_StartJob(std::unique_ptr<WorkerThreadJob> pJob, MOXCommandCallback pfnCallback) {
    pJob->pCommand = CMOXSingleton<CMOXCommandFactory>::Get()->GetCommand(pJob->strQueryCmd, pfnCallback, pJob.get());
    if (!pJob->pCommand) {
        MOX_WARN("GetCommand failed.");
        return nullptr;
    }
    IMOXCommand* pCommand = pJob->pCommand.get();
    MOX_DEBUG("m_workers.size() before insert: %d", static_cast<int>(m_workers.size()));
    m_workers.emplace(pJob->strKey, std::move(pJob));
    MOX_DEBUG("m_workers.size() after insert: %d", static_cast<int>(m_workers.size()));
    return pCommand;
}

bool CMOXEngineImp::m_Execute(std::unique_lock<std::mutex>& lock, IMOXCommand* pCommand, const std::string& strCommand) {
    if (pCommand == nullptr) return false;
    // Outside the lock: a command that cannot start a thread calls back at
    // once, and the callback takes m_mutex. Only that callback ends the job,
    // so the command stays valid until Execute has returned.
    lock.unlock();
    pCommand->Execute(strCommand);
    return true;
}

bool CMOXEngineImp::m_JoinOrStart(std::unique_lock<std::mutex>& lock, const std::string& strKeyIn,
                                  const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller,
                                  MOXCommandCallback pfnCallback) {
    std::string strKey = strKeyIn;
    std::unique_ptr<Requester> pRequester = m_InitRequester(nHandleId, caller);
    if (m_FindRequester(pRequester, strKey)) {
        MOX_DEBUG("m_FindRequester == true.");
        return true;
    }
    MOX_DEBUG("m_FindRequesterInit fail. Init a new workThread job.");
    IMOXCommand* pCommand = m_StartJob(m_InitWorker(std::move(pRequester), strKey, strCommand), pfnCallback);
    return m_Execute(lock, pCommand, strCommand);
}

void CMOXEngineImp::m_EmitRefusal(const connect_info_s& caller, const char* szSignal, int nEventType,
                                  guint32 nHandleId, const char* szDataKey, const char* szData) {
    CJsonValue payload;
    payload.Set("mox_event_type", nEventType);
    payload.Set("mox_handle_id", nHandleId);
    payload.Set(szDataKey, szData);
    m_Emit(caller, szSignal, payload.ToString());
}

bool CMOXEngineImp::GetPartialList(const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller) {
    MOX_INFO("In CMOXEngineImp::GetPartialList()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strCommand).c_str());
    std::unique_lock<std::mutex> lock(m_mutex);
    std::string strKey = kListKey + strCommand;
    if (!m_workers.count(strKey) &&
        (m_workers.size() >= kMaxJobs || m_ListsHeldBy(caller.sender) >= kMaxListsPerClient)) {
        MOX_WARN("Too many requests or undropped lists: list request refused.");
        m_EmitRefusal(caller, "mox_request_normal_complete", 2, nHandleId, "mox_result_list_block_name", "");
        return false;
    }
    return m_JoinOrStart(lock, strKey, strCommand, nHandleId, caller, m_GetPartialListCompeleteCb);
}

bool CMOXEngineImp::RequestDetail(const std::string& strCommand, guint32 nHandleId, const connect_info_s& caller) {
    MOX_INFO("In CMOXEngineImp::RequestDetail()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strCommand).c_str());
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_workers.size() >= kMaxJobs) {
        MOX_WARN("Too many requests: detail request refused.");
        m_EmitEvent(caller, 3, nHandleId);
        return false;
    }
    // Never coalesced: every detail request runs its own command.
    std::string strKey = kDetailKey + std::to_string(++m_nDetailSerial) + ":" + strCommand;
    IMOXCommand* pCommand =
        m_StartJob(m_InitWorker(m_InitRequester(nHandleId, caller), strKey, strCommand), m_RequestDetailCompeleteCb);
    return m_Execute(lock, pCommand, strCommand);
}

bool CMOXEngineImp::RequestMetadata(const std::string& strRequest, guint32 nHandleId, const connect_info_s& caller) {
    MOX_INFO("In CMOXEngineImp::RequestMetadata()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strRequest).c_str());
    std::unique_lock<std::mutex> lock(m_mutex);
    std::string strKey = kMetaKey + strRequest;
    if (!m_workers.count(strKey) && m_workers.size() >= kMaxJobs) {
        MOX_WARN("Too many requests: metadata request refused.");
        m_EmitRefusal(caller, "mox_request_metadata", 14, nHandleId, "act_command_and_return_data", "{}");
        return false;
    }
    return m_JoinOrStart(lock, strKey, strRequest, nHandleId, caller, m_RequestMetaCompeleteCb);
}

bool CMOXEngineImp::CancelDetail(guint32 nHandleId, const connect_info_s& caller) {
    MOX_INFO("In CMOXEngineImp::CancelDetail().");
    std::lock_guard<std::mutex> lock(m_mutex);
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
    MOX_INFO("In CMOXEngineImp::Disconnect().");
    MOX_INFO("nHandleId[%d].", static_cast<int>(nHandleId));
    std::lock_guard<std::mutex> lock(m_mutex);
    MOX_DEBUG("m_workers.size(): %d", static_cast<int>(m_workers.size()));
    for (auto& entry : m_workers) {
        for (auto& pRequester : entry.second->requesters) {
            if (pRequester->nHandleId != nHandleId || pRequester->client.sender != caller.sender) continue;
            MOX_DEBUG("find one request of handleId: %d.", static_cast<int>(nHandleId));
            pRequester->nCancelled = 1;
            // The job's blocks are not let go here: a list nobody wants any
            // more is dropped, blocks included, when the job completes.
        }
    }
    m_EmitEvent(caller, 8, nHandleId);
    return true;
}

bool CMOXEngineImp::m_DropList(const std::string& strShmName) {
    CResultList* pResultPool = new CResultList(strShmName);
    const int nBlockCount = pResultPool->GetBlockCount();
    MOX_DEBUG("BlockCount[%d] in shm[%s]", nBlockCount, strShmName.c_str());
    MOX_DEBUG("start for loop in tid: %d.", nBlockCount);
    for (int i = 0; i < nBlockCount; ++i) {
        std::string sShmName;
        pResultPool->GetBlockName(i, sShmName);
        MOX_DEBUG("sShmName: %s", sShmName.c_str());
        if (sShmName.empty()) {
            MOX_WARN("sShmName.empty()");
            MOX_SAFE_DELETE_PTR(pResultPool);
            return false;
        }
        MOX_DEBUG("!sShmName.empty()");
        int nCacheId = -1;
        if (CCacheBuilder::GetCacheId(sShmName, nCacheId)) CMOXSingleton<CCachePool>::Get()->Delete(nCacheId);
    }
    CResultListBuilder::Drop(strShmName);
    MOX_DEBUG("MOX_SAFE_DELETE_PTR(pResultPool) start...");
    MOX_SAFE_DELETE_PTR(pResultPool);
    MOX_DEBUG("MOX_SAFE_DELETE_PTR(pResultPool) end.");
    return true;
}

bool CMOXEngineImp::DropPartialList(const std::string& strShmName, guint32 nHandleId, const connect_info_s& caller) {
    MOX_INFO("In CMOXEngineImp::DropPartialList().");
    MOX_INFO("szShmName[%s]", mox_bus::ForLog(strShmName).c_str());
    std::lock_guard<std::mutex> lock(m_mutex);
    // Only a list this engine handed to the caller: a client must not make
    // the engine let go of blocks that other clients hold.
    auto found = m_deliveredLists.find(strShmName);
    if (found == m_deliveredLists.end() || found->second.erase(Holder(caller.sender, nHandleId)) == 0) {
        MOX_WARN("Result list[%s] was not delivered to [%s] handle %u: drop refused.",
                 mox_bus::ForLog(strShmName).c_str(), caller.sender.c_str(), nHandleId);
        m_EmitEvent(caller, 11, nHandleId);
        return false;
    }
    // Shared by a coalesced request: the list stays for its other readers.
    if (found->second.empty()) {
        m_deliveredLists.erase(found);
        if (!m_DropList(strShmName)) {
            m_EmitEvent(caller, 11, nHandleId);
            return false;
        }
    }
    CJsonValue payload;
    payload.Set("mox_event_type", 10);
    payload.Set("mox_handle_id", nHandleId);
    payload.Set("mox_shm_name", strShmName);
    std::string strPayload = payload.ToString();
    MOX_DEBUG("Emit signal[%s]", strPayload.c_str());
    m_Emit(caller, "mox_request_normal_complete", strPayload);
    return true;
}

void CMOXEngineImp::RemoveClient(const std::string& strUniqueName) {
    std::lock_guard<std::mutex> lock(m_mutex);
    int nCancelled = 0;
    for (auto& entry : m_workers)
        for (auto& pRequester : entry.second->requesters)
            if (pRequester->client.sender == strUniqueName && pRequester->nCancelled == 0) {
                pRequester->nCancelled = 1;
                ++nCancelled;
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

void CMOXEngineImp::m_ReleaseJob(WorkerThreadJob* pJob) {
    pJob->requesters.clear();
    MOX_DEBUG("m_workers.size() before delete: %d", static_cast<int>(m_workers.size()));
    auto found = m_workers.find(pJob->strKey);
    if (found != m_workers.end() && found->second.get() == pJob) {
        MOX_DEBUG("delete a worker.");
        m_workers.erase(found);  // destroys the command and the job
    }
    MOX_DEBUG("m_workers.size() after delete: %d", static_cast<int>(m_workers.size()));
    m_idle.notify_all();
}

WorkerThreadJob* CMOXEngineImp::m_CallbackJob(void* pUserData, bool bWarnIfNull) {
    auto* pJob = static_cast<WorkerThreadJob*>(pUserData);
    if (pJob == nullptr) {
        if (bWarnIfNull) MOX_WARN("pWorkingInfo == NULL");
        return nullptr;
    }
    if (pJob->pThis == nullptr) {
        MOX_DEBUG("---cb working Info pThis is NULL---\n");
        return nullptr;
    }
    return pJob;
}

void CMOXEngineImp::m_GetPartialListCompeleteCb(void* pUserData, std::string strShmName, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_GetPartialListCompeleteCb().");
    WorkerThreadJob* pJob = m_CallbackJob(pUserData, false);
    if (pJob == nullptr) return;
    CMOXEngineImp* pThis = pJob->pThis;
    std::lock_guard<std::mutex> lock(pThis->m_mutex);
    int nEventType = strShmName.empty() ? 2 : 0;
    if (eError == MOX_ERROR_FAILED_RESULT) nEventType = 1;
    std::set<Holder> recipients;
    for (const auto& pRequester : pJob->requesters) {
        if (pRequester->nCancelled != 0) continue;
        CJsonValue payload;
        payload.Set("mox_event_type", nEventType);
        payload.Set("mox_handle_id", pRequester->nHandleId);
        payload.Set("mox_result_list_block_name", strShmName);
        std::string strPayload = payload.ToString();
        MOX_DEBUG("strQueryCmd[%s].", mox_bus::ForLog(pJob->strQueryCmd).c_str());
        MOX_DEBUG("Emit signal[%s]", strPayload.c_str());
        m_Emit(pRequester->client, "mox_request_normal_complete", strPayload);
        recipients.emplace(pRequester->client.sender, pRequester->nHandleId);
    }
    if (!strShmName.empty()) {
        if (recipients.empty()) {
            // Everybody left or disconnected: nobody will drop it.
            pThis->m_DropList(strShmName);
        } else {
            pThis->m_deliveredLists[strShmName].insert(recipients.begin(), recipients.end());
        }
    }
    pThis->m_ReleaseJob(pJob);
}

void CMOXEngineImp::m_RequestDetailCompeleteCb(void* pUserData, std::string strResult, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_RequestDetailCompeleteCb().");
    WorkerThreadJob* pJob = m_CallbackJob(pUserData, false);
    if (pJob == nullptr) return;
    CMOXEngineImp* pThis = pJob->pThis;
    std::string strTimes = StringMember(pJob->strQueryCmd, "mox_detail_request_times");
    std::lock_guard<std::mutex> lock(pThis->m_mutex);
    if (!pJob->requesters.empty()) {
        const Requester& first = **pJob->requesters.begin();
        if (first.nCancelled == 0) {
            int nEventType = 3;
            if (eError == MOX_ERROR_DETAIL_NOT_FOUND)
                nEventType = 5;
            else if (eError == MOX_ERROR_NO_SUCH_SOURCE || eError == MOX_ERROR_FAILED_RESULT)
                nEventType = 4;
            else
                MOX_WARN("Wrong event type received form engine[%d].", 3);
            CJsonValue payload;
            payload.Set("mox_event_type", nEventType);
            payload.Set("mox_handle_id", first.nHandleId);
            payload.Set("mox_result_list_block_name", strResult);
            payload.Set("mox_result_detail_json", strResult);
            payload.Set("mox_detail_request_times", strTimes);
            std::string strPayload = payload.ToString();
            MOX_DEBUG("Emit signal[%s]", mox_bus::ForLog(strPayload).c_str());
            m_Emit(first.client, "mox_request_normal_complete", strPayload);
        }
    }
    pThis->m_ReleaseJob(pJob);
}

void CMOXEngineImp::m_RequestMetaCompeleteCb(void* pUserData, std::string strResult, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_RequestMetaCompeleteCb().");
    WorkerThreadJob* pJob = m_CallbackJob(pUserData, true);
    if (pJob == nullptr) return;
    CMOXEngineImp* pThis = pJob->pThis;
    // The service's text, or an empty object when it gave no JSON object.
    CJsonValue result(strResult);
    if (!result.IsValid()) result = CJsonValue();
    result.Set("mox_uhd_request_param", pJob->strQueryCmd);
    std::string strData = result.ToString();
    int nEventType = eError == MOX_ERROR_NONE ? 13 : 14;
    std::lock_guard<std::mutex> lock(pThis->m_mutex);
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
    pThis->m_ReleaseJob(pJob);
}
