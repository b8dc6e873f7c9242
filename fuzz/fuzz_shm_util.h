// Shared by the fuzz targets: writes the input into a real shared-memory
// object (the readers only read objects by name) and keeps the log quiet.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace moxfuzz {

// Creates or replaces the object with exactly these bytes.
inline bool WriteObject(const std::string& strName, const uint8_t* pData, size_t nSize) {
    int fd = shm_open(strName.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0) return false;
    bool ok = true;
    while (nSize > 0) {
        ssize_t n = write(fd, pData, nSize);
        if (n <= 0) {
            ok = false;
            break;
        }
        pData += n;
        nSize -= static_cast<size_t>(n);
    }
    close(fd);
    return ok;
}

// Every rejected object logs a warning; send the log to /dev/null unless the
// caller chose a sink.
inline void QuietLog() {
    setenv("MOX_LOG", "file:/dev/null", 0);
}

}  // namespace moxfuzz
