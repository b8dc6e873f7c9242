// Real directory trees for the scanner tests, a walk that drains a directory
// scanner to its end, and what the extraction tests look at: tools, open
// descriptors and helper processes.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

#define REQUIRE_TOOLS(...)                                      \
    for (const char* tool : {__VA_ARGS__})                      \
        if (!moxtest::Shell(std::string("command -v ") + tool)) \
            GTEST_SKIP() << tool << " missing (scripts/install-deps.sh)";

// mox-extract processes whose parent is this process.
inline std::vector<pid_t> HelperPids() {
    std::vector<pid_t> pids;
    DIR* proc = opendir("/proc");
    while (struct dirent* e = proc ? readdir(proc) : nullptr) {
        const pid_t pid = atoi(e->d_name);
        const std::string stat = pid > 0 ? moxtest::ReadTextFile("/proc/" + std::string(e->d_name) + "/stat") : "";
        const size_t close = stat.rfind(')');
        int ppid = 0;
        if (stat.find("(mox-extract)") != std::string::npos && close != std::string::npos &&
            sscanf(stat.c_str() + close + 2, "%*c %d", &ppid) == 1 && ppid == getpid())
            pids.push_back(pid);
    }
    if (proc) closedir(proc);
    return pids;
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

#ifdef MOX_EXTRACT_HELPER_BINARY
// The real mox-extract helper (its test faults on) under a private USB root
// holding media made once per suite: east.jpg (model "Cam", taken at
// 2021-06-01 12:00 at +02:00), west.jpg (-05:30), utc.jpg (no zone),
// tune.mp3 and film.mp4 (320x240, 2 s).
class HelperSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        setenv("MOX_EXTRACT_HELPER", MOX_EXTRACT_HELPER_BINARY, 1);
        setenv("MOX_EXTRACT_TEST_FAULTS", "1", 1);
        s_dir = new moxtest::TempDir();
        // The helper (as nobody) never opens these itself; it gets descriptors.
        chmod(s_dir->path().c_str(), 0700);
        setenv("MOX_USB_ROOT", s_dir->path().c_str(), 1);
        const std::string exif = "exiftool -q -overwrite_original '-DateTimeOriginal=2021:06:01 12:00:00' ";
        const std::string ffmpeg = "ffmpeg -v error -y -f lavfi -i ";
        s_bMedia =
            moxtest::Shell("convert -size 32x24 xc:blue -strip " + Media("east.jpg")) &&
            moxtest::Shell("cp " + Media("east.jpg") + " " + Media("west.jpg") + " && cp " + Media("east.jpg") + " " +
                           Media("utc.jpg")) &&
            moxtest::Shell(exif + "-Model=Cam -OffsetTimeOriginal=+02:00 -OffsetTime=+09:00 " + Media("east.jpg")) &&
            moxtest::Shell(exif + "-OffsetTime=-05:30 " + Media("west.jpg")) &&
            moxtest::Shell(exif + Media("utc.jpg")) &&
            moxtest::Shell(ffmpeg + "sine=duration=1 -b:a 64k -metadata title=Tune " + Media("tune.mp3")) &&
            moxtest::Shell(ffmpeg + "testsrc=size=320x240:rate=10 -t 2 -c:v mpeg4 " + Media("film.mp4"));
    }
    static void TearDownTestSuite() {
        delete s_dir;
        s_dir = nullptr;
    }
    void SetUp() override {
        if (!s_bMedia) GTEST_SKIP() << "convert, exiftool or ffmpeg missing (scripts/install-deps.sh)";
    }
    static std::string Media(const std::string& name) { return s_dir->file(name); }

    static inline moxtest::TempDir* s_dir = nullptr;
    static inline bool s_bMedia = false;
};
#endif

}  // namespace scantest
