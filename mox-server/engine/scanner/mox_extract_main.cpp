// mox-extract: parses media files for the engine, one at a time, in a process
// that a hostile file may crash or stall without harm to the daemon. Files
// come in batches (one request, their descriptors in one message) and are
// answered together; the progress word tells the daemon which file is being
// parsed meanwhile.
//
// Started by CMOXExtractClient with its socket on descriptor 3 and the shared
// memory of the progress word on descriptor 4. Started as
// root, it becomes $MOX_EXTRACT_USER (default "nobody") before it reads any
// file. It then limits itself: no core files, no file growth (RLIMIT_FSIZE 0),
// no new processes, few descriptors, bounded address space and a CPU budget
// per file; it gets every file as an open descriptor, so it needs no access
// to the storage. It ends when the daemon closes the socket or dies.
//
// Test hook: with MOX_EXTRACT_TEST_FAULTS=1 in its environment, a file whose
// name starts with "mox-extract-crash" crashes the helper and one starting
// with "mox-extract-hang" stalls it.
#define MOX_LOG_TAG "MOX-SCANNER"

#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include <mox/mox_log.h>

#include "mox_extract_wire.h"
#include "mox_extractor.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MOX_EXTRACT_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define MOX_EXTRACT_SANITIZED 1
#endif
#endif

namespace {

constexpr int kSocketFd = 3;
constexpr int kProgressFd = 4;
constexpr int kExitSetupFailed = 3;
constexpr int kExitProtocol = 4;
constexpr rlim_t kAddressSpaceBytes = rlim_t(1) << 30;
constexpr rlim_t kCpuSecondsPerFile = 5;
// A batch's files and 32 for the libraries' own.
constexpr rlim_t kMaxFiles = mox_extract_wire::kMaxBatch + 32;

bool SetLimit(int resource, rlim_t soft, rlim_t hard, const char* what) {
    struct rlimit rl = {soft, hard};
    if (setrlimit(resource, &rl) == 0) return true;
    fprintf(stderr, "mox-extract: setrlimit(%s) failed: %s\n", what, strerror(errno));
    return false;
}

bool DropRoot() {
    if (geteuid() != 0 && getuid() != 0) return true;
    const char* user = getenv("MOX_EXTRACT_USER");
    if (!user || !*user) user = "nobody";
    struct passwd* pw = getpwnam(user);
    if (!pw || pw->pw_uid == 0) {
        fprintf(stderr, "mox-extract: no unprivileged user '%s'\n", user);
        return false;
    }
    if (setgroups(0, nullptr) != 0 || setresgid(pw->pw_gid, pw->pw_gid, pw->pw_gid) != 0 ||
        setresuid(pw->pw_uid, pw->pw_uid, pw->pw_uid) != 0) {
        fprintf(stderr, "mox-extract: cannot become '%s': %s\n", user, strerror(errno));
        return false;
    }
    // Must be irreversible.
    if (setuid(0) == 0 || geteuid() == 0) return false;
    return true;
}

bool Confine(pid_t daemon) {
    if (!DropRoot()) return false;
    // After the credential change, which clears the parent-death signal. The
    // parent is the daemon's spawning thread, which lives as long as the
    // daemon (CMOXExtractClient), so this fires when the daemon dies.
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
    if (getppid() != daemon) return false;  // the daemon is already gone
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return false;
    bool ok = SetLimit(RLIMIT_CORE, 0, 0, "CORE") && SetLimit(RLIMIT_FSIZE, 0, 0, "FSIZE") &&
              SetLimit(RLIMIT_NOFILE, kMaxFiles, kMaxFiles, "NOFILE");
#ifndef MOX_EXTRACT_SANITIZED
    // Sanitizers reserve terabytes of shadow memory and start threads of
    // their own; those builds run without these two.
    ok = ok && SetLimit(RLIMIT_AS, kAddressSpaceBytes, kAddressSpaceBytes, "AS") &&
         SetLimit(RLIMIT_NPROC, 0, 0, "NPROC");
#endif
    return ok;
}

// Allows each file kCpuSecondsPerFile of CPU time (up to one second more)
// on top of what the helper had used when the file began; SIGXCPU ends a
// runaway parse. Arming takes two system calls, so a budget armed with room
// to spare serves the following files too: the helper runs one thread
// (RLIMIT_NPROC 0), its CPU time grows no faster than the monotonic clock,
// so a file that begins before `m_renewUs` still has its whole budget.
class CCpuBudget {
public:
    // `nowUs`: CLOCK_MONOTONIC in microseconds, as the file's start.
    void Arm(uint64_t nowUs) {
        if (m_bArmed && nowUs < m_renewUs) return;
        struct rusage ru;
        if (getrusage(RUSAGE_SELF, &ru) != 0) return;
        const uint64_t usedUs = static_cast<uint64_t>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000000u +
                                static_cast<uint64_t>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec);
        rlim_t soft = static_cast<rlim_t>(usedUs / 1000000u) + 1 + kCpuSecondsPerFile;
        if (m_hard != RLIM_INFINITY && soft > m_hard) soft = m_hard;
        struct rlimit rl = {soft, m_hard};
        if (setrlimit(RLIMIT_CPU, &rl) != 0) return;
        // The time a file may start and still find kCpuSecondsPerFile left.
        const uint64_t softUs = static_cast<uint64_t>(soft) * 1000000u;
        const uint64_t spareUs =
            softUs > usedUs + kCpuSecondsPerFile * 1000000u ? softUs - usedUs - kCpuSecondsPerFile * 1000000u : 0;
        m_renewUs = nowUs + spareUs;
        m_bArmed = true;
    }

private:
    const rlim_t m_hard = [] {
        struct rlimit rl;
        return getrlimit(RLIMIT_CPU, &rl) == 0 ? rl.rlim_max : RLIM_INFINITY;
    }();
    uint64_t m_renewUs = 0;
    bool m_bArmed = false;
};

// Closes the batch's files, runs of consecutive numbers (as one message's
// descriptors arrive) with one call.
void CloseAll(std::vector<mox_util::UniqueFd>& files) {
    if (files.size() > mox_extract_wire::kMaxBatch) {
        files.clear();
        return;
    }
    int fds[mox_extract_wire::kMaxBatch];
    size_t count = 0;
    for (mox_util::UniqueFd& f : files)
        if (f.IsValid()) fds[count++] = f.Release();
    files.clear();
    std::sort(fds, fds + count);
    for (size_t i = 0; i < count;) {
        size_t j = i + 1;
        while (j < count && fds[j] == fds[j - 1] + 1) ++j;
        if (j - i == 1 || close_range(static_cast<unsigned>(fds[i]), static_cast<unsigned>(fds[j - 1]), 0) != 0)
            for (size_t k = i; k < j; ++k) close(fds[k]);
        i = j;
    }
}

void TestFault(const std::string& name) {
    static const bool s_bEnabled = [] {
        const char* env = getenv("MOX_EXTRACT_TEST_FAULTS");
        return env && strcmp(env, "1") == 0;
    }();
    if (!s_bEnabled) return;
    if (name.rfind("mox-extract-crash", 0) == 0) raise(SIGSEGV);
    if (name.rfind("mox-extract-hang", 0) == 0)
        for (;;) pause();
}

}  // namespace

int main(int argc, char**) {
    // Run by hand (arguments, or no socket where the daemon puts it): say
    // what it is instead of waiting on a descriptor that is something else.
    struct stat st;
    if (argc > 1 || fstat(kSocketFd, &st) != 0 || !S_ISSOCK(st.st_mode)) {
        fprintf(stderr,
                "mox-extract: an internal helper of mox-engine(8), which starts it with a socket on\n"
                "descriptor 3 to parse media files; it is not a command to run by hand.\n");
        return 2;
    }
    const pid_t daemon = getppid();
    std::atomic<uint64_t>* pProgress = nullptr;
    if (fstat(kProgressFd, &st) == 0 && S_ISREG(st.st_mode) &&
        st.st_size >= static_cast<off_t>(mox_extract_wire::kProgressBytes)) {
        void* map = mmap(nullptr, mox_extract_wire::kProgressBytes, PROT_READ | PROT_WRITE, MAP_SHARED, kProgressFd, 0);
        if (map != MAP_FAILED) pProgress = static_cast<std::atomic<uint64_t>*>(map);
    }
    // Nothing of the daemon's but the socket (and the mapping) is wanted here.
    if (close_range(kSocketFd + 1, ~0U, 0) != 0)
        for (int fd = kSocketFd + 1; fd < 1024; ++fd) close(fd);
    if (!pProgress) {
        fprintf(stderr, "mox-extract: no progress memory on descriptor %d.\n", kProgressFd);
        return kExitSetupFailed;
    }
    // A file sink would be a file write, which RLIMIT_FSIZE forbids.
    const char* sink = getenv("MOX_LOG");
    if (sink && strncmp(sink, "file:", 5) == 0) setenv("MOX_LOG", "stderr", 1);
    signal(SIGPIPE, SIG_IGN);
    // With RLIMIT_FSIZE 0 a write to a regular file (stderr redirected to
    // one, say) must fail with EFBIG rather than kill the helper mid-file.
    signal(SIGXFSZ, SIG_IGN);
    if (!Confine(daemon)) {
        fprintf(stderr, "mox-extract: cannot confine itself, not parsing anything.\n");
        return kExitSetupFailed;
    }

    mox_extract_wire::CMessage request;
    std::vector<mox_util::UniqueFd> files;
    std::vector<mox_extract_wire::SRequestItem> items;
    mox_extract_wire::CAnswerWriter answers(0);
    CCpuBudget budget;
    for (;;) {
        long n = mox_extract_wire::Receive(kSocketFd, request, &files);
        if (n == 0) return 0;  // the daemon closed its end
        if (n < 0) return errno == EMSGSIZE ? kExitSetupFailed : 0;
        bool bExtra = false;
        if (!mox_extract_wire::DecodeRequest(request.View(), items, bExtra) || files.size() != items.size()) {
            fprintf(stderr, "mox-extract: malformed request.\n");
            return kExitProtocol;
        }
        answers.Reset(0);
        for (size_t i = 0; i < items.size(); ++i) {
            // Answers that might not fit one message with the next go first.
            if (answers.Count() > 0 &&
                answers.Size() + mox_extract_wire::kMaxAnswerBytes > mox_extract_wire::kMaxMessageBytes) {
                if (!mox_extract_wire::Send(kSocketFd, answers.Message())) return 0;
                answers.Reset(static_cast<uint32_t>(i));
            }
            struct timespec now;
            clock_gettime(CLOCK_MONOTONIC, &now);
            const uint64_t nowUs =
                static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
            pProgress->store(mox_extract_wire::PackProgress(static_cast<uint32_t>(i), nowUs),
                             std::memory_order_release);
            media_info_s info;
            SMOXExtractExtra extra;
            budget.Arm(nowUs);
            TestFault(items[i].strName);
            CMOXExtractor::ExtractContent(files[i].Get(), items[i].strName, items[i].nMediaType, info,
                                          bExtra ? &extra : nullptr);
            answers.Add(info, &extra);
        }
        if (!mox_extract_wire::Send(kSocketFd, answers.Message())) return 0;
        // Once the daemon has the answers, while it reads them.
        CloseAll(files);
    }
}
