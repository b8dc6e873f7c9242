// CMOXActCommand ("mox_uploadcomment", "mox_setlike", "mox_create_album",
// "mox_file_transfer"): carries out an action at the source named by the
// document's "mox_source" string. Normal actions call the source's Act();
// file transfers call its Execute() with a progress callback that forwards
// to the engine's typed progress callback. A document with
// "mox_file_transfer_stop" true asks the source to stop the transfer that it
// names, synchronously, and starts no thread.
//
// The source's C progress callback gets this command as its user data; the
// command outlives the source's Execute(), the only place that reports.
//
// Threads: Execute() starts one detached thread for an action or transfer;
// that thread calls the completion callback exactly once and touches nothing
// of the command afterwards. A stop runs on the caller's thread, calls no
// completion callback and leaves its code in StopResult().
#pragma once

#include <string>

#include "mox_command.h"

class CMOXActCommand : public IMOXCommand {
public:
    CMOXActCommand(MOXCommandCallback fnDone, MOXProgressCallback fnProgress);
    ~CMOXActCommand() override;

    void Execute(std::string strCommand) override;
    void Stop() override;

    void ActThreadProc(std::string strCommand);
    // Returns the source's answer, also kept for StopResult().
    int StopActSync(std::string strCommand);
    int StopResult() const { return m_nStopResult; }

    static const char* const kActLibrary;  // "libmox_ra_source.so"
    static const char* const kActSource;   // "mox_ra_source"

private:
    // The source of the document, installing the act plug-in first; NULL
    // (warning) when the document names none or nobody offers it.
    IWebSource* m_GetSource(const std::string& strSource);
    int m_Act(std::string& strCommand);
    // The source's progress callback: pUserData is the command.
    static void s_Progress(void* pUserData, const char* szParam, mox_transfer_progress_data_s* pProgress,
                           mox_error_code_e eError);

    MOXCommandCallback m_fnDone;
    MOXProgressCallback m_fnProgress;
    // Handed by reference to the source, which reads it as a plain bool.
    bool m_bStop = false;
    int m_nStopResult = MOX_ERROR_GENERIC;
};
