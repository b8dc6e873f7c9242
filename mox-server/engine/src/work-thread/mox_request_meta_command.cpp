#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_request_meta_command.h"

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>

#include "mox_uhd_data_mgr.h"
#include "mox_worker_pool.h"

namespace {}  // namespace

CMOXRequestMetaCommand::CMOXRequestMetaCommand(MOXCommandCallback fnDone) : m_fnDone(std::move(fnDone)) {}

CMOXRequestMetaCommand::~CMOXRequestMetaCommand() = default;

void CMOXRequestMetaCommand::Execute(std::string strCommand) {
    MOX_TRACE("In CMOXRequestMetaCommand::Execute()");
    // A pool thread, not one of its own: starting a thread per request cost
    // more than answering a cached one.
    if (!CMOXWorkerPool::Get().Submit(
            [this, strCommand = std::move(strCommand)]() mutable { GetRequestMetaThreadProc(strCommand); })) {
        // Saturated: answer on the caller's thread so that the job ends.
        m_fnDone(std::string(), MOX_ERROR_GENERIC);
    }
}

void CMOXRequestMetaCommand::GetRequestMetaThreadProc(const std::string& strCommand) {
    MOXCommandCallback fnDone = m_fnDone;
    std::string strResult;
    mox_error_code_e eError = MOX_ERROR_GENERIC;
    try {
        MOX_TRACE("In CMOXRequestMetaCommand::GetRequestMetaThreadProc().");
        CJsonValue doc(strCommand);
        std::string strCountryId = doc.StringOr("mox_countryid");
        std::string strLangId = doc.StringOr("mox_langid");
        std::string strAccessToken = doc.StringOr("mox_accesstoken");
        std::string strUuid = doc.StringOr("mox_uuid");
        std::string strVersion = doc.StringOr("mox_version");
        bool bAvailable = false;
        int nRet = CMOXSingleton<CMOXUHDDataMgr>::Get()->UpdateUHDMetadata(
            strUuid, strAccessToken, strLangId, strCountryId, strVersion, strResult, bAvailable);
        if (!bAvailable)
            eError = static_cast<mox_error_code_e>(MOX_UHD_SERVICE_UNAVAILABLE);
        else
            eError = nRet == 0 ? MOX_ERROR_NONE : MOX_ERROR_GENERIC;
    } catch (...) {
        MOX_WARN("Meta thread failed with an exception.");
        strResult.clear();
        eError = MOX_ERROR_GENERIC;
    }
    MOX_DEBUG("Get meta result[%d].", eError);
    try {
        fnDone(strResult, eError);
    } catch (...) {
        MOX_WARN("Completion callback failed with an exception.");
    }
}
