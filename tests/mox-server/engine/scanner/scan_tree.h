// Real directory trees for the scanner tests, and a walk that drains a
// directory scanner to its end.
#pragma once

#include <dirent.h>
#include <sys/stat.h>

#include <set>
#include <string>
#include <vector>

#include "mox_usb_scanner.h"
#include "temp_dir.h"

namespace scantest {

inline void Touch(const std::string& path) {
    moxtest::WriteTextFile(path, "x");
}
inline void MakeDir(const std::string& path) {
    mkdir(path.c_str(), 0755);
}

// Number of descriptors this process has open.
inline int OpenFds() {
    int n = 0;
    if (DIR* dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) ++n;
        closedir(dir);
    }
    return n;
}

struct WalkResult {
    std::vector<SMOXFileInfo> entries;
    int nEnd = 0;  // the result that ended the walk
    std::set<std::string> Names() const {
        std::set<std::string> names;
        for (const auto& e : entries) names.insert(e.strName);
        return names;
    }
};

inline SMOXScannerOption WalkOption(const std::string& root) {
    SMOXScannerOption option;
    option.strDevicePath = option.strBasePath = root;
    option.nRecursive = 1;
    return option;
}

// Reads until the end or a failure; bounded so a broken walk fails the test
// instead of hanging it.
inline WalkResult Walk(const SMOXScannerOption& option) {
    WalkResult result;
    CMOXUsbScanner scanner;
    if ((result.nEnd = scanner.Create(option)) != 0) return result;
    for (size_t i = 0; i < 2000000; ++i) {
        SMOXFileInfo info;
        int n = scanner.ReadFileInfo(info);
        if (n == 0) result.entries.push_back(info);
        if (n == 0 || n == -20) continue;
        result.nEnd = n;
        break;
    }
    scanner.Destroy();
    return result;
}

}  // namespace scantest
