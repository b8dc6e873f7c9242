// CMOXRequestMetaCommand ("mox_requestmeta"): asks the UHD metadata service
// (CMOXUHDDataMgr) to update metadata for the client named by the document's
// "mox_uuid", "mox_accesstoken", "mox_langid", "mox_countryid" and
// "mox_version" strings (absent members are empty). Reports 0 and the
// service's text, 23 when the service failed, 2 when there is no service.
//
// Threads: Execute() starts a detached thread that always calls back, even
// when stopped: the engine decides whether anybody still wants the answer.
#pragma once

#include <string>

#include "mox_command.h"

class CMOXRequestMetaCommand : public IMOXCommand {
public:
    explicit CMOXRequestMetaCommand(MOXCommandCallback fnDone);
    ~CMOXRequestMetaCommand() override;

    void Execute(std::string strCommand) override;
    void Stop() override {}

    void GetRequestMetaThreadProc(const std::string& strCommand);

private:
    MOXCommandCallback m_fnDone;
};
