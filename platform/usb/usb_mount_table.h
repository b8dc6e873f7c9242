// The mount table in /proc/PID/mountinfo format, reduced to what the udev
// backend matches partitions against. Lines that do not parse are skipped.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct UsbMountEntry {
    dev_t device = 0;        // st_dev of the mounted file system
    std::string mountPoint;  // with the kernel's octal escapes decoded
    std::string fsType;
    std::string source;  // e.g. /dev/sdb1
};

class UsbMountTable {
public:
    // Parses mountinfo text.
    static std::vector<UsbMountEntry> Parse(const std::string& text);
    // Reads everything from fd from offset 0 (the kernel's mountinfo is
    // re-read through the same descriptor); false on a read error.
    static bool ReadFd(int fd, std::string& text);
    // Whether path lies strictly below root ("/a/b" is below "/a", "/ab" is not).
    static bool IsBelow(const std::string& path, const std::string& root);
};
