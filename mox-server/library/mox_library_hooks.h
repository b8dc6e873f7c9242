// The engine's small hooks into the media library. Each is safe to call from
// any thread at any time, also when no library runs (then they do nothing),
// and never blocks on indexing.
#pragma once

#include <string>

namespace mox_library {

// A path below the USB root was written, removed or created by the engine
// (usb_file_write, usb_file_remove, transfers, albums).
void NotePathChanged(const std::string& strPath);

// Users are being served (a list, detail, metadata or act job runs): the
// indexers pause until it is false again.
void SetUsersBusy(bool bBusy);

// A request_act document whose "mox_command" starts with "mox_library_"
// ("mox_library_status", "mox_library_rescan"): the error code of the answer
// (0 or MOX_ERROR_*) and its result text.
int HandleCommand(const std::string& strDocument, std::string& strResult);

}  // namespace mox_library
