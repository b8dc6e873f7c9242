// Instructions of one device check against one raw breadth-first readdir walk
// of the same tree, for callgrind: run under
//   valgrind --tool=callgrind --instr-atstart=no bench_walk_instructions TREE
// Each walk is bracketed by client requests, so the two dumps ("raw", then
// "check") hold only the walks (every thread of the process is counted).
// Natively it runs both walks once and prints their times. TREE holds
// 2,000 folders of 50 non-media files (made by bench_scanner, or here when
// missing).
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <valgrind/callgrind.h>
#include <valgrind/valgrind.h>

#include <cstdarg>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>

#include "bench_walk.h"
#include "mox_auto_scanner.h"

// Valgrind does not know openat2, which the walk opens every folder with:
// under valgrind it is answered by openat with the same flags (the tree has
// no links). Only user-space instructions are counted, so the figure holds.
extern "C" long syscall(long number, ...) {
    va_list args;
    va_start(args, number);
    long a[6];
    for (long& arg : a) arg = va_arg(args, long);
    va_end(args);
    if (number == SYS_openat2 && RUNNING_ON_VALGRIND) {
        const struct open_how* how = reinterpret_cast<const struct open_how*>(a[2]);
        return openat(static_cast<int>(a[0]), reinterpret_cast<const char*>(a[1]), static_cast<int>(how->flags),
                      static_cast<mode_t>(how->mode));
    }
    using Syscall = long (*)(long, ...);
    static Syscall s_real = reinterpret_cast<Syscall>(dlsym(RTLD_NEXT, "syscall"));
    return s_real(number, a[0], a[1], a[2], a[3], a[4], a[5]);
}

namespace {

void MakeTree(const std::string& root) {
    if (access((root + "/dir0").c_str(), F_OK) == 0) return;
    mkdir(root.c_str(), 0755);
    for (int d = 0; d < 2000; ++d) {
        std::string dir = root + "/dir" + std::to_string(d);
        mkdir(dir.c_str(), 0755);
        for (int f = 0; f < 50; ++f) {
            int fd = open((dir + "/file" + std::to_string(f) + ".dat").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            if (fd >= 0) close(fd);
        }
    }
}

using moxbench::EndWaiter;
using moxbench::RawWalk;

double Ms(std::chrono::steady_clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

}  // namespace

int main(int argc, char** argv) {
    setenv("MOX_LOG_LEVEL", "warning", 0);
    setenv("MOX_LOG", "stderr", 0);
    if (argc != 2) {
        fprintf(stderr, "usage: bench_walk_instructions TREE\n");
        return 2;
    }
    const std::string root = argv[1];
    MakeTree(root);
    EndWaiter waiter;
    CMOXAutoScanner scanner;
    if (!scanner.Create("BENCH_CHECK")) return 1;
    SMOXScannerOption option;
    option.strDevicePath = root;
    option.strBasePath = root;
    option.bFilterByExtension = true;
    option.pfnEndCallback = EndWaiter::OnEnd;
    option.pCallbackData = &waiter;
    RawWalk(root);  // warm the dentry cache

    auto t0 = std::chrono::steady_clock::now();
    CALLGRIND_START_INSTRUMENTATION;
    CALLGRIND_ZERO_STATS;
    long files = RawWalk(root);
    CALLGRIND_DUMP_STATS_AT("raw");
    auto t1 = std::chrono::steady_clock::now();
    scanner.SetScannerOption(option);
    scanner.Start();
    int result = waiter.Wait();
    CALLGRIND_DUMP_STATS_AT("check");
    CALLGRIND_STOP_INSTRUMENTATION;
    auto t2 = std::chrono::steady_clock::now();
    scanner.Destroy();
    printf("raw walk %.1f ms (%ld files), device check %.1f ms (result %d)\n", Ms(t1 - t0), files, Ms(t2 - t1), result);
    return result == MOX_SCANNER_RESULT_NO_MEDIA ? 0 : 1;
}
