#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_request_meta_command.h"

#include <boost/thread/thread.hpp>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>

#include "mox_uhd_data_mgr.h"

namespace {

std::string StringMember(const CJsonValue& doc, const char* szKey) {
    std::string strValue;
    if (doc.IsString(szKey)) doc.Get(szKey, strValue);
    return strValue;
}

}  // namespace

CMOXRequestMetaCommand::CMOXRequestMetaCommand(MOXCommandCallback fnDone) : m_fnDone(std::move(fnDone)) {}

CMOXRequestMetaCommand::~CMOXRequestMetaCommand() = default;

void CMOXRequestMetaCommand::Execute(std::string strCommand) {
    MOX_INFO("In CMOXRequestMetaCommand::Execute()");
    try {
        boost::thread worker(&CMOXRequestMetaCommand::GetRequestMetaThreadProc, this, std::move(strCommand));
        worker.detach();
    } catch (...) {
        MOX_WARN("Can not start the meta thread.");
        m_fnDone(std::string(), MOX_ERROR_GENERIC);
    }
}

void CMOXRequestMetaCommand::GetRequestMetaThreadProc(std::string strCommand) {
    MOXCommandCallback fnDone = m_fnDone;
    std::string strResult;
    mox_error_code_e eError = MOX_ERROR_GENERIC;
    try {
        MOX_INFO("In CMOXRequestMetaCommand::GetRequestMetaThreadProc().");
        CJsonValue doc(strCommand);
        std::string strCountryId = StringMember(doc, "mox_countryid");
        std::string strLangId = StringMember(doc, "mox_langid");
        std::string strAccessToken = StringMember(doc, "mox_accesstoken");
        std::string strUuid = StringMember(doc, "mox_uuid");
        std::string strVersion = StringMember(doc, "mox_version");
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
