// usb_file_write and usb_file_remove: files a client names, confined beneath
// MOX_USB_ROOT. Both block on the file system (a slow stick, a 256 MiB
// object), so the dispatcher runs them on a worker thread and replies when
// they are done; they touch no engine state. Thread-safe.
#pragma once

#include <sys/types.h>

#include <string>

class CMOXUsbFile {
public:
    // Copies the content of the client's shared-memory object (a 32-bit
    // length followed by that many bytes) into `path`, replacing the file
    // atomically. The object is consumed (unlinked) once opened, whether or
    // not the write succeeds, but only when `callerUid` owns it (or is root):
    // nobody reads or destroys another user's object through the daemon.
    // A FIFO, device or link as object or destination is refused, never opened
    // in a blocking way.
    static bool Write(const std::string& path, const std::string& shmName, uid_t callerUid);
    // Removes the file or empty directory `path` names; a link is removed
    // itself, never followed.
    static bool Remove(const std::string& path);
};
