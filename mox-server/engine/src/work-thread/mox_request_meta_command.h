// CMOXRequestMetaCommand ("mox_requestmeta"): asks the UHD metadata service
// (CMOXUHDDataMgr) to update metadata for the client named by the document's
// "mox_uuid", "mox_accesstoken", "mox_langid", "mox_countryid" and
// "mox_version" strings (absent members are empty). Reports 0 and the
// service's text, 23 when the service failed, 2 when there is no service.
//
// Threads: Execute() starts a detached thread. A command stopped before the
// service answers stays silent (no callback).
#pragma once

#include <atomic>
#include <string>

#include "mox_command.h"

class CMOXRequestMetaCommand : public IMOXCommand {
public:
    CMOXRequestMetaCommand(MOXCommandCallback pfnCallback, void* pUserData);
    ~CMOXRequestMetaCommand() override;

    void Execute(std::string strCommand) override;
    void Stop() override { m_bStop = true; }

    void GetRequestMetaThreadProc(std::string strCommand);

private:
    MOXCommandCallback m_pfnCallback;
    void* m_pUserData;
    std::atomic<bool> m_bStop{false};
};
