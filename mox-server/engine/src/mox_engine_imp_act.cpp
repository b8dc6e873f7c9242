#define MOX_LOG_TAG "MOX-ENGINE"
#include <mox/mox_log.h>

#include "mox_engine_imp.h"

#include <atomic>

#include <mox/json_value.h>
#include <mox/mox_events.h>
#include <mox/mox_singleton.h>
#include <mox/mox_util.h>

#include "mox_act_command.h"
#include "mox_bus_text.h"
#include "mox_command_factory.h"
#include "mox_library_hooks.h"
#include "mox_request_list_command.h"

namespace {

// Kind of the act jobs' keys (see mox_engine_imp.cpp for the others).
const char kActKey = 'A';

// Time of the last progress report, in CMOXUtil::GetCurrentSystemTime units
// (ms). Shared by every transfer of the process on purpose: the limit is
// on the signals the engine sends, not per transfer.
std::atomic<long long> g_llLastProgressReport{0};
const long long kProgressIntervalMs = 300;

// Compact one-line text of a document, without the writer's final newline.
std::string Compact(const CJsonValue& doc) {
    std::string strText = doc.ToString();
    while (!strText.empty() && strText.back() == '\n') strText.pop_back();
    return strText;
}

bool StopRequested(const CJsonValue& doc) {
    if (!doc.IsValid()) return false;
    const Json::Value& value = doc.Root()["mox_file_transfer_stop"];
    return value.isBool() && value.asBool();
}

}  // namespace

void CMOXEngineImp::m_EmitActEnd(const connect_info_s& client, guint32 nHandleId, const std::string& strResult,
                                 const std::string& strTimes, int nError) {
    CJsonValue payload;
    payload.Set("mox_event_type", nError == MOX_ERROR_NONE ? MOX_EVENT_ACT_DONE : MOX_EVENT_ACT_FAILED);
    payload.Set("mox_handle_id", nHandleId);
    payload.Set("act_command_and_return_data", strResult);
    payload.Set("mox_act_request_times", strTimes);
    payload.Set("mox_file_transfer_signal", 0);
    // Clients tell failures apart by this code (the source's documented ones).
    payload.Set("mox_error_code", nError);
    std::string strPayload = payload.ToString();
    MOX_DEBUG("Emit signal[%s]", mox_bus::ForLog(strPayload).c_str());
    m_Emit(client, "mox_request_normal_complete", strPayload);
}

bool CMOXEngineImp::Act(const std::string& strParam, const std::string& strSelectionBlock, guint32 nHandleId,
                        const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::Act()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strParam).c_str());
    (void)strSelectionBlock;  // only logged by the dispatcher
    CJsonValue doc(strParam);
    const std::string strCommand = doc.StringOr("mox_command");
    const std::string strTimes = doc.StringOr("mox_act_request_times");
    if (StopRequested(doc)) {
        // A stop goes through stop_act; as a request it would never end.
        MOX_WARN("A transfer stop sent with request_act: refused.");
        m_EmitActEnd(caller, nHandleId, strParam, strTimes, MOX_ERROR_INVALID_PARAMETER);
        return false;
    }
    if (strCommand.rfind("mox_library_", 0) == 0) {
        // The media library's status and rescan documents: answered at once,
        // no job (and no pause of the indexers they ask about).
        std::string strResult;
        const int nCode = mox_library::HandleCommand(strParam, strResult);
        m_EmitActEnd(caller, nHandleId, strResult, strTimes, nCode);
        return nCode == MOX_ERROR_NONE;
    }
    const std::string strText = doc.IsValid() ? Compact(doc) : strParam;
    const std::string strKey = kActKey + strText;
    const bool bTransfer = strCommand == "mox_file_transfer";

    mox::UniqueLock lock(m_mutex);
    if (!m_ShareAllows(caller, m_workers.count(strKey) == 0, bTransfer)) {
        m_EmitActEnd(caller, nHandleId, strParam, strTimes, MOX_ERROR_GENERIC);
        return false;
    }
    std::unique_ptr<Requester> pRequester = m_InitRequester(nHandleId, caller);
    if (m_FindRequester(pRequester, strKey)) {
        MOX_DEBUG("m_FindRequester == true.");
        return true;
    }
    std::unique_ptr<WorkerThreadJob> pJob = m_InitWorker(EMOXCommandKind::kAct, std::move(pRequester), strKey, strText);
    if (bTransfer) {
        MOX_DEBUG("Send Act request[%s]", strCommand.c_str());
        pJob->bTransfer = true;
        pJob->strTransferSource = doc.StringOr("mox_source");
        pJob->strTransferId = doc.StringOr("mox_transfer_id");
    }
    IMOXCommand* pCommand = m_StartJob(std::move(pJob));
    return m_Execute(lock, pCommand, strText);
}

guint32 CMOXEngineImp::StopActSync(const std::string& strParam, guint32 nHandleId, const connect_info_s& caller) {
    MOX_TRACE("In CMOXEngineImp::StopActSync()");
    MOX_INFO("szParam[%s].", mox_bus::ForLog(strParam).c_str());
    (void)nHandleId;  // a transfer is the client's, whichever handle started it
    CJsonValue doc(strParam);
    const std::string strCommand = doc.StringOr("mox_command");
    const std::string strText = doc.IsValid() ? Compact(doc) : strParam;
    if (strCommand != "mox_file_transfer") {
        MOX_WARN("No act to stop for command[%s].", mox_bus::ForLog(strCommand).c_str());
        return MOX_ERROR_GENERIC;
    }
    // Without the stop member the command would start a transfer nobody
    // waits for.
    if (!StopRequested(doc)) {
        MOX_WARN("stop_act without \"mox_file_transfer_stop\" true: refused.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const std::string strSource = doc.StringOr("mox_source");
    const std::string strId = doc.StringOr("mox_transfer_id");
    {
        mox::MutexLock lock(m_mutex);
        bool bAllowed = caller.uid == 0;
        for (const auto& entry : m_workers) {
            const WorkerThreadJob& job = *entry.second;
            if (bAllowed) break;
            if (!job.bTransfer || job.strTransferSource != strSource || job.strTransferId != strId) continue;
            for (const auto& pRequester : job.requesters)
                bAllowed = bAllowed || (pRequester->client.sender == caller.sender && pRequester->nCancelled == 0);
        }
        if (!bAllowed) {
            // The answer of an unknown id: it tells nothing of other clients.
            MOX_WARN("stop_act from [%s] names no transfer of its own: refused.", caller.sender.c_str());
            return MOX_ERROR_INVALID_PARAMETER;
        }
    }
    MOX_DEBUG("Stop send act request[%s]", strCommand.c_str());
    // A command of its own, never stored: the stop touches no running job.
    std::unique_ptr<IMOXCommand> pCommand =
        CMOXCommandFactory::GetCommand(EMOXCommandKind::kAct, strText, [](const std::string&, mox_error_code_e) {}, {});
    auto* pActCommand = dynamic_cast<CMOXActCommand*>(pCommand.get());
    if (pActCommand == nullptr) return MOX_ERROR_GENERIC;
    pActCommand->Execute(strText);
    MOX_DEBUG("act ok.");
    return static_cast<guint32>(pActCommand->StopResult());
}

void CMOXEngineImp::m_OnActDone(WorkerThreadJob* pJob, const std::string& strResult, mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_ActCompeleteCb().");
    const std::string strTimes = CJsonValue(pJob->strQueryCmd).StringOr("mox_act_request_times");
    if (eError != MOX_ERROR_NONE) MOX_WARN("Act ended with code[%d].", static_cast<int>(eError));
    // Transfers and created albums change the folders the act names, even
    // when it failed half-way: their listed answers go at once.
    for (const std::string& strPath : CMOXRequestListCommand::PathsOfDocument(pJob->strQueryCmd)) {
        CMOXSingleton<CCachePool>::Get()->ForgetTouching(strPath);
        mox_library::NotePathChanged(strPath);
    }
    mox::MutexLock lock(m_mutex);
    for (const auto& pRequester : pJob->requesters) {
        if (pRequester->nCancelled != 0) continue;
        m_EmitActEnd(pRequester->client, pRequester->nHandleId, strResult, strTimes, eError);
    }
    m_ReleaseJob(pJob);
}

void CMOXEngineImp::m_OnActProgress(WorkerThreadJob* pJob, const char* szParam, mox_transfer_progress_data_s* pProgress,
                                    mox_error_code_e eError) {
    MOX_TRACE("In CMOXEngineImp::m_ActProgressCb().");
    if (NULL == pProgress) {
        MOX_WARN("NULL == pMoxActProgressData");
        return;
    }
    const long long llNow = CMOXUtil::GetCurrentSystemTime();
    const bool bFinished = (pProgress->dlnow > 1.0 && pProgress->dlnow == pProgress->dltotal) ||
                           (pProgress->ulnow > 1.0 && pProgress->ulnow == pProgress->ultotal);
    const long long llLast = g_llLastProgressReport.load(std::memory_order_relaxed);
    // A clock set back (the set's first time sync) would otherwise hold
    // every report until it passes the last one again.
    if (llNow >= llLast && llNow - llLast < kProgressIntervalMs && !bFinished) return;
    g_llLastProgressReport.store(llNow, std::memory_order_relaxed);

    mox::MutexLock lock(m_mutex);
    const std::string strTimes = CJsonValue(pJob->strQueryCmd).StringOr("mox_act_request_times");
    MOX_DEBUG("pMoxTransferProgressData->dlnow:[%lf]", pProgress->dlnow);
    MOX_DEBUG("pMoxTransferProgressData->dltotal:[%lf]", pProgress->dltotal);
    MOX_DEBUG("pMoxTransferProgressData->ulnow:[%lf]", pProgress->ulnow);
    MOX_DEBUG("pMoxTransferProgressData->ultotal:[%lf]", pProgress->ultotal);

    CJsonValue progress;
    progress.Set("mox_file_transter_dlnow", pProgress->dlnow);
    progress.Set("mox_file_transter_dltotal", pProgress->dltotal);
    progress.Set("mox_file_transter_ulnow", pProgress->ulnow);
    progress.Set("mox_file_transter_ultotal", pProgress->ultotal);
    const std::string strProgress = Compact(progress);
    MOX_DEBUG("szUserData: %s", strProgress.c_str());
    const std::string strOrigin = szParam ? szParam : "";
    MOX_DEBUG("sMoxCommand origin:[%s]", mox_bus::ForLog(strOrigin).c_str());
    CJsonValue command(strOrigin);
    std::string strWithProgress = strOrigin;
    if (command.IsValid() && command.Set("mox_file_transter_data", strProgress)) strWithProgress = Compact(command);
    MOX_DEBUG("szMoxCommandWithProgress:[%s]", mox_bus::ForLog(strWithProgress).c_str());

    const int nEventType = eError == MOX_ERROR_NONE ? MOX_EVENT_ACT_PROGRESS : MOX_EVENT_ACT_FAILED;
    for (const auto& pRequester : pJob->requesters) {
        if (pRequester->nCancelled != 0) continue;
        CJsonValue payload;
        payload.Set("mox_event_type", nEventType);
        payload.Set("mox_handle_id", pRequester->nHandleId);
        payload.Set("act_command_and_return_data", strWithProgress);
        payload.Set("mox_act_request_times", strTimes);
        payload.Set("mox_file_transter_data", strProgress);
        payload.Set("mox_file_transfer_signal", 1);
        m_Emit(pRequester->client, "mox_request_normal_complete", payload.ToString());
    }
}
