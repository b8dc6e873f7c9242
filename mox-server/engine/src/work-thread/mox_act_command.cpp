#define MOX_LOG_TAG "MOX-ENGINE"
#include "mox_act_command.h"

#include <boost/thread/thread.hpp>

#include <mox/json_value.h>
#include <mox/mox_log.h>
#include <mox/mox_singleton.h>

#include "mox_bus_text.h"
#include "mox_source_manager.h"

const char* const CMOXActCommand::kActLibrary = "libmox_ra_source.so";
const char* const CMOXActCommand::kActSource = "mox_ra_source";

namespace {

bool StopRequested(const CJsonValue& doc) {
    if (!doc.IsValid()) return false;
    const Json::Value& value = doc.Root()["mox_file_transfer_stop"];
    return value.isBool() && value.asBool();
}

}  // namespace

CMOXActCommand::CMOXActCommand(MOXCommandCallback fnDone, MOXProgressCallback fnProgress)
    : m_fnDone(std::move(fnDone)), m_fnProgress(std::move(fnProgress)) {}

void CMOXActCommand::s_Progress(void* pUserData, const char* szParam, mox_transfer_progress_data_s* pProgress,
                                mox_error_code_e eError) {
    auto* pThis = static_cast<CMOXActCommand*>(pUserData);
    if (pThis == nullptr || !pThis->m_fnProgress) return;
    try {
        pThis->m_fnProgress(szParam, pProgress, eError);
    } catch (...) {
        MOX_WARN("Progress callback failed with an exception.");
    }
}

CMOXActCommand::~CMOXActCommand() = default;

void CMOXActCommand::Stop() {
    __atomic_store_n(&m_bStop, true, __ATOMIC_RELAXED);
}

void CMOXActCommand::Execute(std::string strCommand) {
    MOX_TRACE("In CMOXActCommand::Execute().");
    CJsonValue doc(strCommand);
    if (StopRequested(doc)) {
        StopActSync(std::move(strCommand));
        return;
    }
    try {
        boost::thread worker(&CMOXActCommand::ActThreadProc, this, strCommand);
        worker.detach();
    } catch (...) {
        MOX_WARN("Can not start the act thread.");
        m_fnDone(strCommand, MOX_ERROR_GENERIC);
    }
}

IWebSource* CMOXActCommand::m_GetSource(const std::string& strSource) {
    CMOXSourceMgr* pManager = CMOXSingleton<CMOXSourceMgr>::Get();
    // The transfer source comes with the engine: load it on first use.
    if (strSource == kActSource) pManager->InstallPlugin(kActLibrary);
    IWebSource* pSource = pManager->GetSource(strSource);
    if (pSource == nullptr) MOX_WARN("Can not get source[%s].", mox_bus::ForLog(strSource).c_str());
    return pSource;
}

int CMOXActCommand::m_Act(std::string& strCommand) {
    CJsonValue doc(strCommand);
    std::string strSource = doc.StringOr("mox_source");
    std::string strName = doc.StringOr("mox_command");
    const bool bSend = strName == "mox_file_transfer";
    if (strSource.empty()) {
        MOX_WARN("There is no source.");
        return MOX_ERROR_NO_SUCH_SOURCE;
    }
    IWebSource* pSource = m_GetSource(strSource);
    if (pSource == nullptr) return MOX_ERROR_NO_SUCH_SOURCE;
    CMOXSourceCall call(strSource);
    int nResult = MOX_ERROR_GENERIC;
    if (!bSend) {
        MOX_DEBUG("Begin: pSource->Execute[Normal].[%s].", mox_bus::ForLog(strCommand).c_str());
        try {
            nResult = pSource->Act(m_bStop, strCommand);
        } catch (...) {
            MOX_WARN("Source[%s] threw from Act.", mox_bus::ForLog(strSource).c_str());
            nResult = MOX_ERROR_GENERIC;
        }
        MOX_DEBUG("End: pSource->Execute[Normal].returnCode[%d].", nResult);
        return nResult;
    }
    MOX_DEBUG("Begin: pSource->Execute[Send].[%s].", mox_bus::ForLog(strCommand).c_str());
    try {
        nResult = pSource->Execute(m_bStop, strCommand, s_Progress, this);
    } catch (...) {
        MOX_WARN("Source[%s] threw from Execute.", mox_bus::ForLog(strSource).c_str());
        nResult = MOX_ERROR_GENERIC;
    }
    MOX_DEBUG("End: pSource->Execute[Send].returnCode[%d].", nResult);
    return nResult;
}

void CMOXActCommand::ActThreadProc(std::string strCommand) {
    MOX_TRACE("In CMOXActCommand::ActThreadProc().");
    // The callback deletes this command: keep what is needed after it.
    MOXCommandCallback fnDone = m_fnDone;
    int nResult = MOX_ERROR_GENERIC;
    try {
        nResult = m_Act(strCommand);
    } catch (...) {
        MOX_WARN("Act thread failed with an exception.");
        nResult = MOX_ERROR_GENERIC;
    }
    MOX_DEBUG("Act thread working done.");
    try {
        fnDone(strCommand, static_cast<mox_error_code_e>(nResult));
    } catch (...) {
        MOX_WARN("Completion callback failed with an exception.");
    }
}

int CMOXActCommand::StopActSync(std::string strCommand) {
    MOX_TRACE("In CMOXActCommand::StopActSync()");
    m_nStopResult = MOX_ERROR_GENERIC;
    try {
        CJsonValue doc(strCommand);
        std::string strSource = doc.StringOr("mox_source");
        if (strSource.empty()) {
            MOX_WARN("There is no source.");
            m_nStopResult = MOX_ERROR_NO_SUCH_SOURCE;
        } else if (IWebSource* pSource = m_GetSource(strSource)) {
            if (doc.StringOr("mox_command") == "mox_file_transfer") {
                CMOXSourceCall call(strSource);
                MOX_DEBUG("Begin: pSource->Execute[StopSendSync][%s].", mox_bus::ForLog(strCommand).c_str());
                m_nStopResult = pSource->Execute(m_bStop, strCommand, s_Progress, this);
                MOX_DEBUG("End: pSource->Execute[StopSendSync].returnCode[%d].", m_nStopResult);
            }
        } else {
            m_nStopResult = MOX_ERROR_NO_SUCH_SOURCE;
        }
    } catch (...) {
        MOX_WARN("Stop of a transfer failed with an exception.");
        m_nStopResult = MOX_ERROR_GENERIC;
    }
    MOX_DEBUG("Stop Act working done.");
    return m_nStopResult;
}
