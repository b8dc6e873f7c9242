// Removes the temporary files that an engine which died mid-write left on a
// storage: ".mox-transfer-PID-N" (transfers) and ".NAME.mox-PID-N"
// (usb_file_write and other atomic replacements), where PID is no living
// process. Files of a living process (this one included) stay.
#pragma once

#include <string>

namespace mox_temp_sweep {

// True for a name of one of the two patterns; pid is the PID it carries.
bool IsEngineTemporaryName(const std::string& name, long& pid);

// Walks the folder `mountPath` (which must resolve beneath the USB root) by
// descriptor and removes every regular file of a dead process's pattern.
// Links are never followed; at most kMaxFolders folders, kMaxDepth deep.
// Returns the number of files removed, -1 when the folder cannot be opened.
int Sweep(const std::string& usbRoot, const std::string& mountPath);

// Runs Sweep on a thread of its own, so that a slow or hung storage delays
// nobody; a sweep still stuck at exit is abandoned.
void SweepInBackground(const std::string& usbRoot, const std::string& mountPath);
// The same at start for every folder directly below the USB root (the
// storages mounted before the engine started), one after the other.
void SweepMountedInBackground(const std::string& usbRoot);

constexpr int kMaxFolders = 100000;
constexpr int kMaxDepth = 64;

}  // namespace mox_temp_sweep
