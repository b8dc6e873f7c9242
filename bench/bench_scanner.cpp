// The directory walk against the plain ways of walking the same tree: a
// device check (check mode, on the auto scanner's thread) of 100,000
// non-media files in 2,000 folders, a raw breadth-first readdir loop, and
// `find TREE -type f`; and a folder thumbnail request with a limit of 4 in a
// folder of 100,000 files. The trees are made once under $MOX_BENCH_TREE_DIR
// (default /tmp/mox-bench-scanner) and kept for later runs.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>

#include "bench_main.h"
#include "bench_walk.h"
#include "mox_auto_scanner.h"
#include "mox_thumbnail_scanner.h"
#include "mox_usb_scanner.h"

namespace {

constexpr int kFolders = 2000;
constexpr int kFilesPerFolder = 50;
constexpr int kWideFiles = 100000;

std::string TreeRoot() {
    const char* dir = std::getenv("MOX_BENCH_TREE_DIR");
    return dir && *dir ? dir : "/tmp/mox-bench-scanner";
}

void MakeFile(const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd >= 0) close(fd);
}

// <root>/deep: 2,000 folders of 50 ".dat" files; <root>/wide: 100,000 ".jpg".
const std::string& Tree() {
    static const std::string root = [] {
        std::string r = TreeRoot();
        std::string marker = r + "/.complete";
        if (access(marker.c_str(), F_OK) != 0) {
            mkdir(r.c_str(), 0755);
            mkdir((r + "/deep").c_str(), 0755);
            mkdir((r + "/wide").c_str(), 0755);
            for (int d = 0; d < kFolders; ++d) {
                std::string dir = r + "/deep/dir" + std::to_string(d);
                mkdir(dir.c_str(), 0755);
                for (int f = 0; f < kFilesPerFolder; ++f) MakeFile(dir + "/file" + std::to_string(f) + ".dat");
            }
            for (int f = 0; f < kWideFiles; ++f) MakeFile(r + "/wide/photo" + std::to_string(f) + ".jpg");
            MakeFile(marker);
        }
        return r;
    }();
    return root;
}

using moxbench::EndWaiter;

void BM_DeviceCheck(benchmark::State& state) {
    const std::string root = Tree() + "/deep";
    EndWaiter waiter;
    CMOXAutoScanner scanner;
    if (!scanner.Create("BENCH_CHECK")) {
        state.SkipWithError("scanner thread");
        return;
    }
    SMOXScannerOption option;
    option.strDevicePath = root;
    option.strBasePath = root;
    option.bFilterByExtension = true;
    option.pfnEndCallback = EndWaiter::OnEnd;
    option.pCallbackData = &waiter;
    for (auto _ : state) {
        scanner.SetScannerOption(option);
        scanner.Start();
        if (waiter.Wait() != MOX_SCANNER_RESULT_NO_MEDIA) state.SkipWithError("unexpected result");
    }
    scanner.Destroy();
    state.counters["entries"] = kFolders * (kFilesPerFolder + 1);
}
BENCHMARK(BM_DeviceCheck)->Unit(benchmark::kMillisecond)->UseRealTime();

// What the walk does at least: breadth first, one readdir per entry, folders
// queued by d_type, files counted.
void BM_RawBfsReaddir(benchmark::State& state) {
    const std::string root = Tree() + "/deep";
    for (auto _ : state) benchmark::DoNotOptimize(moxbench::RawWalk(root));
}
BENCHMARK(BM_RawBfsReaddir)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FindTypeF(benchmark::State& state) {
    const std::string command = "find '" + Tree() + "/deep' -type f > /dev/null";
    for (auto _ : state) {
        if (std::system(command.c_str()) != 0) state.SkipWithError("find failed");
    }
}
BENCHMARK(BM_FindTypeF)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FolderThumbnail(benchmark::State& state) {
    const std::string folder = Tree() + "/wide";
    EndWaiter waiter;
    CMOXThumbnailScanner thumb;
    if (!thumb.Create()) {
        state.SkipWithError("thumbnail thread");
        return;
    }
    SMOXScannerOption option;
    option.strDevicePath = folder;
    option.strBasePath = Tree();
    option.nScanMode = 2;
    option.nRecursive = 0;
    option.nMediaGroup = MOX_MEDIA_TYPE_PHOTO;
    option.bFilterByExtension = true;
    option.nFileLimit = 4;
    option.pfnEndCallback = EndWaiter::OnEnd;
    option.pCallbackData = &waiter;
    for (auto _ : state) {
        thumb.AddScanner(option);
        if (waiter.Wait() != MOX_SCANNER_RESULT_FOLDER_FILES) state.SkipWithError("unexpected result");
    }
    thumb.Destroy();
    // Entries the same walk hands out before the fourth file.
    CMOXUsbScanner walk;
    walk.Create(option);
    int entries = 0, files = 0;
    SMOXFileInfo info;
    int n;
    while (files < 4 && (n = walk.ReadFileInfo(info)) != MOX_SCAN_END && n != MOX_SCAN_FAIL) {
        ++entries;
        if (n == 0 && info.nType == MOX_SCANNER_TYPE_FILE) ++files;
    }
    walk.Destroy();
    state.counters["entries_read"] = entries;
    state.counters["folder_files"] = kWideFiles;
}
BENCHMARK(BM_FolderThumbnail)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

MOX_BENCHMARK_MAIN();
