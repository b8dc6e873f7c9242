// IMOXCommand: one client request (list, detail, meta, later act) carried out
// against a source. The engine creates it through CMOXCommandFactory with a
// completion callback and user data, calls Execute() once with the command
// document and deletes it from inside the completion callback.
//
// Contract for implementations: Execute() returns at once and does the work
// on a thread of its own; that thread calls the completion callback exactly
// once and touches no member of the command after the call (the callback
// deletes the command). Nothing is thrown out of a thread body.
#pragma once

#include <string>

#include <mox/mox_types.h>
#include <mox/mox_web_source.h>

// Completion of a command: (user data, result text, error code).
typedef void (*MOXCommandCallback)(void* pUserData, std::string strResult, mox_error_code_e eError);

// What an act command of a file transfer gets as user data: the engine's own
// user data, then the progress callback.
struct SMOXActParam {
    void* pUserData = nullptr;
    mox_transfer_progress_cb pfnProgress = nullptr;
    int nReserved = 0;
};

class IMOXCommand {
public:
    virtual void Execute(std::string strCommand) = 0;
    // Asks the command to give up early (per command; may do nothing).
    virtual void Stop() = 0;
    virtual ~IMOXCommand() = default;
};
