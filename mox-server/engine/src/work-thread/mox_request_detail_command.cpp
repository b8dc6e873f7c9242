#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_request_detail_command.h"

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>

#include "mox_bus_text.h"
#include "mox_source_manager.h"
#include "mox_worker_pool.h"

CMOXRequestDetailCommand::CMOXRequestDetailCommand(MOXCommandCallback fnDone) : m_fnDone(std::move(fnDone)) {}

CMOXRequestDetailCommand::~CMOXRequestDetailCommand() = default;

void CMOXRequestDetailCommand::Stop() {
    __atomic_store_n(&m_bStop, true, __ATOMIC_RELAXED);
}

void CMOXRequestDetailCommand::Execute(std::string strCommand) {
    MOX_TRACE("In CMOXRequestDetailCommand::Execute()");
    // A pool thread, not one of its own: starting a thread per request cost
    // more than answering a cached one.
    if (!CMOXWorkerPool::Get().Submit([this, strCommand = std::move(strCommand)]() mutable {
            GetRequestDetailThreadProc(std::move(strCommand));
        })) {
        // Saturated: answer on the caller's thread so that the job ends.
        m_fnDone(std::string(), MOX_ERROR_GENERIC);
    }
}

mox_error_code_e CMOXRequestDetailCommand::m_Run(std::string& strCommand, std::string& strResult) {
    MOX_TRACE("In CMOXRequestDetailCommand::GetRequestDetailThreadProc().");
    CJsonValue doc(strCommand);
    std::string strSource;
    if (!doc.IsValid() || !doc.IsString("mox_source")) {
        MOX_WARN("There is no source.");
        return MOX_ERROR_NO_SUCH_SOURCE;
    }
    doc.Get("mox_source", strSource);
    IWebSource* pSource = CMOXSingleton<CMOXSourceMgr>::Get()->GetSource(strSource);
    if (pSource == nullptr) {
        MOX_WARN("Can not get source[%s].", mox_bus::ForLog(strSource).c_str());
        return MOX_ERROR_NO_SUCH_SOURCE;
    }
    MOX_DEBUG("Begin :pSource->GetDetail[%s].", mox_bus::ForLog(strCommand).c_str());
    CMOXSourceCall call(strSource);
    mox_error_code_e eError = MOX_ERROR_GENERIC;
    try {
        eError = pSource->GetDetail(m_bStop, strCommand, strResult);
    } catch (...) {
        MOX_WARN("Source[%s] threw from GetDetail.", strSource.c_str());
        strResult.clear();
        eError = MOX_ERROR_GENERIC;
    }
    MOX_DEBUG("End :pSource->GetDetail.errorCode[%d].", eError);
    // The answer travels in one signal: bound it like a method argument.
    if (strResult.size() > mox_bus::kMaxArgumentBytes) {
        MOX_WARN("Source[%s] detail of %zu bytes refused.", strSource.c_str(), strResult.size());
        strResult.clear();
        return MOX_ERROR_GENERIC;
    }
    return eError;
}

void CMOXRequestDetailCommand::GetRequestDetailThreadProc(std::string strCommand) {
    // The callback deletes this command: keep what is needed after it.
    MOXCommandCallback fnDone = m_fnDone;
    std::string strResult;
    mox_error_code_e eError = MOX_ERROR_GENERIC;
    try {
        eError = m_Run(strCommand, strResult);
    } catch (...) {
        MOX_WARN("Detail thread failed with an exception.");
        strResult.clear();
        eError = MOX_ERROR_GENERIC;
    }
    MOX_DEBUG("Get detail result[%d].", eError);
    try {
        fnDone(strResult, eError);
    } catch (...) {
        MOX_WARN("Completion callback failed with an exception.");
    }
}
