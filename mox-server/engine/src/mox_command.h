// IMOXCommand: one client request (list, detail, meta, act) carried out
// against a source. The engine creates it through CMOXCommandFactory with a
// completion callback, calls Execute() once with the command document and
// deletes it from inside the completion callback.
//
// Contract for implementations: Execute() returns at once and does the work
// on a thread of its own; that thread calls the completion callback exactly
// once and touches no member of the command after the call (the callback
// deletes the command). Nothing is thrown out of a thread body.
//
// The callbacks are typed closures made by the engine for the job they serve:
// no user-data pointer travels through a command, so nothing a document says
// can make a callback read one kind of record as another.
#pragma once

#include <functional>
#include <string>

#include <mox/mox_types.h>
#include <mox/mox_web_source.h>

// Completion of a command: (result text, error code).
using MOXCommandCallback = std::function<void(std::string strResult, mox_error_code_e eError)>;
// Progress of a file transfer: (command text, progress record, error code).
using MOXProgressCallback =
    std::function<void(const char* szParam, mox_transfer_progress_data_s* pProgress, mox_error_code_e eError)>;

// What a request method may start. The factory refuses a document whose
// "mox_command" belongs to another kind than the method's.
enum class EMOXCommandKind { kList, kDetail, kMeta, kAct };

class IMOXCommand {
public:
    virtual void Execute(std::string strCommand) = 0;
    // Asks the command to give up early (per command; may do nothing).
    virtual void Stop() = 0;
    virtual ~IMOXCommand() = default;
};
