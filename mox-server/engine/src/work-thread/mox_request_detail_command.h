// CMOXRequestDetailCommand ("mox_requestdetail"): asks the source named by
// the document's "mox_source" string for the detail of one item and reports
// the source's answer text and code through the callback (4 when the
// document names no source or no installed plug-in offers it).
//
// Threads: Execute() starts a detached thread; Stop() may be called from the
// engine's thread at any time and reaches the source through m_bStop, which
// the source polls.
#pragma once

#include <atomic>
#include <string>

#include "mox_command.h"

class CMOXRequestDetailCommand : public IMOXCommand {
public:
    explicit CMOXRequestDetailCommand(MOXCommandCallback fnDone);
    ~CMOXRequestDetailCommand() override;

    void Execute(std::string strCommand) override;
    void Stop() override;

    void GetRequestDetailThreadProc(std::string strCommand);

private:
    mox_error_code_e m_Run(std::string& strCommand, std::string& strResult);

    MOXCommandCallback m_fnDone;
    // Handed by reference to the source, which reads it as a plain bool; the
    // engine only ever sets it, so a late read only delays the stop.
    bool m_bStop = false;
};
