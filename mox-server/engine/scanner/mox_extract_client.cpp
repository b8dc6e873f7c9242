#define MOX_LOG_TAG "MOX-SCANNER"

#include "mox_extract_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>

#include <mox/mox_log.h>

#include "mox_extract_wire.h"
#include "mox_extractor.h"

extern char** environ;

namespace {

// The descriptor numbers of the helper's end of the socket pair and of the
// progress word's memory.
constexpr int kHelperFd = 3;
constexpr int kProgressFd = 4;
// Exit status of a helper that could not confine itself (see mox_extract_main).
constexpr int kExitSetupFailed = 3;

// Beside the daemon in the build tree; installed, in the private helper
// directory of the install prefix (MOX_DEFAULT_EXTRACT_HELPER).
std::string HelperPath() {
    if (const char* env = getenv("MOX_EXTRACT_HELPER"); env && *env) return env;
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n > 0) {
        std::string dir(self, static_cast<size_t>(n));
        size_t slash = dir.find_last_of('/');
        std::string beside = (slash == std::string::npos ? std::string(".") : dir.substr(0, slash)) + "/mox-extract";
        if (access(beside.c_str(), X_OK) == 0) return beside;
    }
#ifdef MOX_DEFAULT_EXTRACT_HELPER
    return MOX_DEFAULT_EXTRACT_HELPER;
#else
    return "mox-extract";
#endif
}

// Runs the helper's posix_spawn on one thread that never ends: the helper's
// parent-death signal fires when the thread that spawned it ends, so its
// parent must live as long as the process. A forked child gets a thread of
// its own.
class CSpawnThread {
public:
    static CSpawnThread& Get() {
        // Never destroyed: its thread waits for work until the process ends.
        static CSpawnThread* s_thread = new CSpawnThread();  // NOLINT(cppcoreguidelines-owning-memory)
        return *s_thread;
    }

    // fn's result, fn run on the spawning thread; -1 without such a thread.
    int Run(const std::function<int()>& fn) {
        SJob job{fn};
        mox::UniqueLock lock(m_mutex);
        if (m_threadPid != getpid()) {
            try {
                std::thread([this] { m_Loop(); }).detach();
            } catch (const std::exception& e) {
                MOX_WARN("mox-extract: no spawning thread: %s", e.what());
                return -1;
            }
            m_threadPid = getpid();
            m_pJob = nullptr;  // a forked child's copy of a parent's request
        }
        while (m_pJob != nullptr) lock.Wait(m_cond);
        m_pJob = &job;
        m_cond.notify_all();
        while (!job.bDone) lock.Wait(m_cond);
        return job.nResult;
    }

private:
    struct SJob {
        const std::function<int()>& fn;
        int nResult = -1;
        bool bDone = false;
    };

    void m_Loop() {
        // The helper serves every caller: it never keeps the priority of the
        // thread that happened to start this one (the media library's
        // indexer runs in the idle classes).
        struct sched_param param;
        memset(&param, 0, sizeof(param));
        sched_setscheduler(static_cast<pid_t>(syscall(SYS_gettid)), SCHED_OTHER, &param);
        setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 0);
        constexpr int kIoprioWhoProcess = 1, kIoprioClassBestEffort = 2, kIoprioClassShift = 13, kIoprioNormal = 4;
        syscall(SYS_ioprio_set, kIoprioWhoProcess, static_cast<pid_t>(syscall(SYS_gettid)),
                (kIoprioClassBestEffort << kIoprioClassShift) | kIoprioNormal);
        mox::UniqueLock lock(m_mutex);
        for (;;) {
            while (m_pJob == nullptr) lock.Wait(m_cond);
            SJob* pJob = m_pJob;
            lock.Unlock();
            int nResult = -1;
            try {
                nResult = pJob->fn();
            } catch (...) {
                MOX_WARN("mox-extract: spawning threw.");
            }
            lock.Lock();
            pJob->nResult = nResult;
            pJob->bDone = true;
            m_pJob = nullptr;
            m_cond.notify_all();
        }
    }

    mox::Mutex m_mutex;
    std::condition_variable m_cond;
    SJob* m_pJob GUARDED_BY(m_mutex) = nullptr;
    pid_t m_threadPid GUARDED_BY(m_mutex) = -1;
};

}  // namespace

CMOXExtractClient& CMOXExtractClient::Get() {
    // Never destroyed: scanner threads may still call it during exit.
    static CMOXExtractClient* s_client = new CMOXExtractClient();  // NOLINT(cppcoreguidelines-owning-memory)
    return *s_client;
}

void CMOXExtractClient::SUnmap::operator()(std::atomic<uint64_t>* p) const {
    munmap(p, mox_extract_wire::kProgressBytes);
}

CMOXExtractClient::~CMOXExtractClient() {
    mox::MutexLock lock(m_mutex);
    m_Stop(true);
}

bool CMOXExtractClient::m_Start() {
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        MOX_WARN("mox-extract: socketpair failed: %s", strerror(errno));
        return false;
    }
    mox_util::UniqueFd mine(pair[0]);
    mox_util::UniqueFd theirs(pair[1]);
    // The progress word's memory: sealed at its size, so that the helper
    // cannot shrink it under the daemon's reads.
    mox_util::UniqueFd progressFd(memfd_create("mox-extract-progress", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!progressFd.IsValid() || ftruncate(progressFd.Get(), mox_extract_wire::kProgressBytes) != 0 ||
        fcntl(progressFd.Get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0) {
        MOX_WARN("mox-extract: no shared memory for the progress word: %s", strerror(errno));
        return false;
    }
    void* map =
        mmap(nullptr, mox_extract_wire::kProgressBytes, PROT_READ | PROT_WRITE, MAP_SHARED, progressFd.Get(), 0);
    if (map == MAP_FAILED) {
        MOX_WARN("mox-extract: cannot map the progress word: %s", strerror(errno));
        return false;
    }
    m_progress.reset(static_cast<std::atomic<uint64_t>*>(map));
    // Both go to fixed numbers below any of theirs: dup2 onto the same number
    // would keep close-on-exec set, and one must not land on the other.
    for (mox_util::UniqueFd* fd : {&theirs, &progressFd}) {
        if (fd->Get() > kProgressFd) continue;
        mox_util::UniqueFd moved(fcntl(fd->Get(), F_DUPFD_CLOEXEC, kProgressFd + 1));
        if (!moved.IsValid()) return false;
        *fd = std::move(moved);
    }

    std::string path = HelperPath();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, theirs.Get(), kHelperFd);
    posix_spawn_file_actions_adddup2(&actions, progressFd.Get(), kProgressFd);
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    // The helper starts with default signal handling and an empty mask,
    // whatever the calling thread has blocked.
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    char* argv[] = {const_cast<char*>("mox-extract"), nullptr};
    pid_t pid = -1;
    int err = CSpawnThread::Get().Run([&] { return posix_spawn(&pid, path.c_str(), &actions, &attr, argv, environ); });
    if (err < 0) err = EAGAIN;
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (err != 0) {
        MOX_WARN("mox-extract: cannot start (%s): %s", path.c_str(), strerror(err));
        return false;
    }
    m_pid = pid;
    m_nClassPid = -1;  // a new helper starts in the spawning thread's normal class
    m_socket = std::move(mine);
    MOX_INFO("mox-extract: helper started (%s), pid %d.", path.c_str(), static_cast<int>(pid));
    return true;
}

void CMOXExtractClient::m_Stop(bool bKill) {
    m_socket.Reset();
    if (m_pid <= 0) return;
    if (bKill) kill(m_pid, SIGKILL);
    // Closing the socket ends a healthy helper at once; a killed one is gone.
    while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
}

std::string CMOXExtractClient::m_Reap(bool* pbSetupFailed, int* pnSignal) {
    if (pbSetupFailed) *pbSetupFailed = false;
    if (pnSignal) *pnSignal = 0;
    m_socket.Reset();
    if (m_pid <= 0) return "gone";
    int status = 0;
    pid_t r;
    // The helper closed its end: it has exited or is about to. An empty
    // message reads the same, so a helper that sent one and goes on living
    // is killed after a while rather than waited for.
    auto until = std::chrono::steady_clock::now() + kReapWait;
    while ((r = waitpid(m_pid, &status, WNOHANG)) == 0 || (r < 0 && errno == EINTR)) {
        if (std::chrono::steady_clock::now() >= until) {
            kill(m_pid, SIGKILL);
            while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
            }
            m_pid = -1;
            return "sent an empty message";
        }
        usleep(1000);
    }
    m_pid = -1;
    if (r < 0) return "lost";
    if (WIFSIGNALED(status)) {
        if (pnSignal) *pnSignal = WTERMSIG(status);
        return std::string("killed by signal ") + std::to_string(WTERMSIG(status));
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == kExitSetupFailed && pbSetupFailed) *pbSetupFailed = true;
    if (WIFEXITED(status)) return std::string("exited with status ") + std::to_string(WEXITSTATUS(status));
    return "ended";
}

bool CMOXExtractClient::m_WaitsForStorage() {
    if (m_pid <= 0) return false;
    // /proc/PID/stat: "PID (COMM) STATE ..."; COMM may hold anything but the
    // last ')' ends it.
    mox_util::UniqueFd fd(open(("/proc/" + std::to_string(m_pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.IsValid()) return false;
    char text[512];
    ssize_t n = read(fd.Get(), text, sizeof(text) - 1);
    if (n <= 0) return false;
    text[n] = '\0';
    const char* close = strrchr(text, ')');
    return close != nullptr && close[1] == ' ' && close[2] == 'D';
}

void CMOXExtractClient::m_FollowCaller() {
    if (m_pid <= 0) return;
    const bool bIdle = sched_getscheduler(0) == SCHED_IDLE;
    if (m_nClassPid != m_pid) m_bIdleClass = false;
    m_nClassPid = m_pid;
    if (bIdle == m_bIdleClass) return;
    struct sched_param param;
    memset(&param, 0, sizeof(param));
    constexpr int kIoprioWhoProcess = 1, kIoprioClassBestEffort = 2, kIoprioClassIdle = 3, kIoprioClassShift = 13,
                  kIoprioNormal = 4;
    if (sched_setscheduler(m_pid, bIdle ? SCHED_IDLE : SCHED_OTHER, &param) != 0 ||
        syscall(SYS_ioprio_set, kIoprioWhoProcess, m_pid,
                bIdle ? kIoprioClassIdle << kIoprioClassShift
                      : (kIoprioClassBestEffort << kIoprioClassShift) | kIoprioNormal) != 0) {
        MOX_DEBUG("mox-extract: the helper keeps its priority (%s).", strerror(errno));
        return;
    }
    m_bIdleClass = bIdle;
}

void CMOXExtractClient::m_Remember(const FileKey& key) {
    if (!m_badFiles.insert(key).second) return;
    m_badOrder.push_back(key);
    if (m_badOrder.size() > kMaxBadFiles) {
        m_badFiles.erase(m_badOrder.front());
        m_badOrder.pop_front();
    }
}

void CMOXExtractClient::m_Remember(const SMOXExtractItem& item) {
    m_Remember(FileKey(item.strPath, item.ullSize, item.ulModifiedTime));
}

bool CMOXExtractClient::Extract(int fd, const std::string& path, int mediaType, unsigned long long size,
                                unsigned long mtime, media_info_s& info) {
    std::vector<SMOXExtractItem> items(1);
    SMOXExtractItem& item = items[0];
    item.fd = fd;
    item.strPath = path;
    item.nMediaType = mediaType;
    item.ullSize = size;
    item.ulModifiedTime = mtime;
    item.pInfo = &info;
    ExtractBatch(items, false);
    return item.eResult != SMOXExtractItem::EResult::kFailed;
}

void CMOXExtractClient::ExtractBatch(std::vector<SMOXExtractItem>& items, bool bExtra) {
    std::deque<size_t> todo;
    mox::MutexLock lock(m_mutex);
    for (size_t i = 0; i < items.size(); ++i) {
        SMOXExtractItem& item = items[i];
        if (!m_badFiles.empty() &&
            m_badFiles.count(std::make_tuple(std::string_view(item.strPath), item.ullSize, item.ulModifiedTime))) {
            MOX_WARN("mox-extract: (%s) crashed or stalled the helper before; not parsed again.",
                     CMOXExtractor::FileNameToUtf8(item.strPath).c_str());
            item.eResult = SMOXExtractItem::EResult::kFailed;
        } else {
            item.eResult = SMOXExtractItem::EResult::kPending;
            todo.push_back(i);
        }
    }
    size_t chunk[mox_extract_wire::kMaxBatch];
    while (!todo.empty()) {
        size_t nChunk = 0;
        while (nChunk < mox_extract_wire::kMaxBatch && !todo.empty()) {
            chunk[nChunk++] = todo.front();
            todo.pop_front();
        }
        // Each round settles at least one file; the files a failure left
        // open go first into the next request, in their order.
        const bool bStorageStalled = m_RunBatch(items, chunk, nChunk, bExtra);
        for (size_t k = nChunk; k-- > 0;)
            if (items[chunk[k]].eResult == SMOXExtractItem::EResult::kPending) todo.push_front(chunk[k]);
        if (bStorageStalled) {
            // The storage does not answer: the rest would stall file after
            // file. It waits for another time.
            for (size_t i : todo) items[i].eResult = SMOXExtractItem::EResult::kDeferred;
            if (!todo.empty())
                MOX_WARN("mox-extract: %zu file(s) of the batch left for later (the storage does not answer).",
                         todo.size());
            todo.clear();
        }
    }
}

int CMOXExtractClient::m_WaitMessage(std::chrono::steady_clock::time_point deadline) {
    // A message already queued is taken without a poll.
    long n = mox_extract_wire::Receive(m_socket.Get(), m_answer, nullptr, true);
    if (n > 0) return 1;
    if (n < 0 && errno == EMSGSIZE) return -2;
    if (n == 0 || errno != EAGAIN) return -1;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return 0;
        struct pollfd pfd = {m_socket.Get(), POLLIN, 0};
        int r = poll(&pfd, 1, static_cast<int>(left.count()) + 1);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            MOX_WARN("mox-extract: poll failed: %s", strerror(errno));
            return -1;
        }
        if (r == 0) continue;  // the deadline check above ends it
        n = mox_extract_wire::Receive(m_socket.Get(), m_answer, nullptr);
        if (n < 0 && errno == EMSGSIZE) return -2;
        return n > 0 ? 1 : -1;
    }
}

bool CMOXExtractClient::m_ReadProgress(size_t nFrom, size_t nChunk, size_t& index,
                                       std::chrono::steady_clock::time_point& started) {
    uint32_t nIndex = 0;
    uint64_t startUs = 0;
    if (!m_progress ||
        !mox_extract_wire::UnpackProgress(m_progress->load(std::memory_order_acquire), nIndex, startUs) ||
        nIndex < nFrom || nIndex >= nChunk)
        return false;
    index = nIndex;
    // steady_clock is CLOCK_MONOTONIC, the helper's clock; a start from the
    // future reads as now, the caller bounds the past.
    const auto now = std::chrono::steady_clock::now();
    started = std::chrono::steady_clock::time_point(std::chrono::microseconds(startUs));
    if (started > now) started = now;
    return true;
}

bool CMOXExtractClient::m_RunBatch(std::vector<SMOXExtractItem>& items, const size_t* chunk, size_t nChunk,
                                   bool bExtra) {
    using EResult = SMOXExtractItem::EResult;
    auto notRead = [&](size_t from, const char* why) {
        MOX_WARN("mox-extract: %s; contents of %zu file(s) not read, (%s) first.", why, nChunk - from,
                 CMOXExtractor::FileNameToUtf8(items[chunk[from]].strPath).c_str());
        for (size_t k = from; k < nChunk; ++k)
            if (items[chunk[k]].eResult == EResult::kPending) items[chunk[k]].eResult = EResult::kNotRead;
        return false;
    };
    // Without a helper the records keep their basic information and
    // defaults: an installation problem, not these files' fault.
    if (!m_socket.IsValid() && !m_Start()) return notRead(0, "no helper");

    std::vector<mox_extract_wire::SRequestItem>& request = m_request;
    request.resize(nChunk);
    int fds[mox_extract_wire::kMaxBatch];
    for (size_t k = 0; k < nChunk; ++k) {
        const SMOXExtractItem& item = items[chunk[k]];
        request[k].nMediaType = item.nMediaType;
        size_t slash = item.strPath.find_last_of('/');
        request[k].strName.assign(std::string_view(item.strPath).substr(slash == std::string::npos ? 0 : slash + 1));
        fds[k] = item.fd;
    }
    const std::string msg = mox_extract_wire::EncodeRequest(request, bExtra);
    m_progress->store(0, std::memory_order_relaxed);
    m_FollowCaller();
    if (!mox_extract_wire::Send(m_socket.Get(), msg, fds, nChunk)) {
        // The helper died between two batches (its own limits, or killed
        // from outside): not these files' doing. Start a new one and retry
        // once.
        MOX_WARN("mox-extract: helper %s before a batch; restarting.", m_Reap().c_str());
        const bool bStarted = m_Start();
        if (bStarted) m_FollowCaller();
        if (!bStarted || !mox_extract_wire::Send(m_socket.Get(), msg, fds, nChunk)) {
            m_Stop(true);
            return notRead(0, "cannot hand files to the helper");
        }
    }
    const auto sent = std::chrono::steady_clock::now();

    // The file the helper is on, as far as the daemon knows, and its
    // deadline; the helper says when it moves on (progress word), so the
    // daemon wakes only for answers and at deadlines.
    size_t nAnswered = 0;
    size_t nCurrent = 0;
    auto deadline = sent + kDeadline;
    while (nAnswered < nChunk) {
        const int r = m_WaitMessage(deadline);
        if (r == 0) {
            size_t index = nCurrent;
            std::chrono::steady_clock::time_point started;
            if (m_ReadProgress(std::max(nAnswered, nCurrent), nChunk, index, started) && index > nCurrent) {
                // Moved on: the new file's own deadline, counted from its
                // start (never from before the last deadline it replaces).
                nCurrent = index;
                deadline = std::max(started, deadline - kDeadline) + kDeadline;
                if (deadline > std::chrono::steady_clock::now()) continue;
            }
            SMOXExtractItem& item = items[chunk[std::max(nAnswered, nCurrent)]];
            const std::string logName = CMOXExtractor::FileNameToUtf8(item.strPath);
            item.eResult = EResult::kFailed;
            if (m_WaitsForStorage()) {
                // The storage, not the file, holds the parse: the file is
                // parsed again once the storage answers.
                MOX_WARN(
                    "mox-extract: reading (%s) took more than %lld ms (the storage does not answer); helper "
                    "killed, file skipped this time.",
                    logName.c_str(), static_cast<long long>(kDeadline.count()));
                m_Stop(true);
                return true;
            }
            MOX_WARN("mox-extract: (%s) took more than %lld ms; helper killed, file skipped.", logName.c_str(),
                     static_cast<long long>(kDeadline.count()));
            m_Stop(true);
            m_Remember(item);
            return false;
        }
        if (r == -1) {
            // The file it belongs to: the one the helper said it is on.
            size_t index = nAnswered;
            std::chrono::steady_clock::time_point started;
            if (!m_ReadProgress(nAnswered, nChunk, index, started)) index = nAnswered;
            SMOXExtractItem& item = items[chunk[index]];
            const std::string logName = CMOXExtractor::FileNameToUtf8(item.strPath);
            bool bSetupFailed = false;
            int nSignal = 0;
            std::string how = m_Reap(&bSetupFailed, &nSignal);
            if (bSetupFailed) return notRead(nAnswered, "helper could not drop privileges or set its limits");
            item.eResult = EResult::kFailed;
            // Signals a parse does not raise itself: someone stopped the helper.
            if (nSignal == SIGKILL || nSignal == SIGTERM || nSignal == SIGINT || nSignal == SIGHUP) {
                MOX_WARN("mox-extract: helper %s from outside while parsing (%s); file skipped this time.", how.c_str(),
                         logName.c_str());
                return false;
            }
            MOX_WARN("mox-extract: helper %s while parsing (%s); file skipped, helper restarts for the rest.",
                     how.c_str(), logName.c_str());
            m_Remember(item);
            return false;
        }
        // Answers of consecutive files from the next one on; the first that
        // does not decode fails its file (and ends the helper).
        mox_extract_wire::CAnswerReader reader(m_answer.View());
        uint32_t first = 0, count = 0;
        bool bGood = r == 1 && reader.Header(first, count) && first == nAnswered && count <= nChunk - nAnswered;
        for (uint32_t j = 0; bGood && j < count; ++j) {
            SMOXExtractItem& item = items[chunk[nAnswered]];
            bGood = reader.Next(*item.pInfo, bExtra ? item.pExtra : nullptr, j + 1 == count);
            if (bGood) {
                item.eResult = EResult::kParsed;
                ++nAnswered;
            }
        }
        if (!bGood) {
            SMOXExtractItem& item = items[chunk[nAnswered]];
            MOX_WARN("mox-extract: malformed answer for (%s); helper killed, file skipped.",
                     CMOXExtractor::FileNameToUtf8(item.strPath).c_str());
            item.eResult = EResult::kFailed;
            m_Stop(true);
            m_Remember(item);
            return false;
        }
        if (nAnswered < nChunk && nCurrent < nAnswered) {
            // The next file began when these answers were done at the latest.
            nCurrent = nAnswered;
            deadline = std::chrono::steady_clock::now() + kDeadline;
        }
    }
    return false;
}
