// CMOXExtractClient: the daemon's side of the mox-extract helper process.
//
// The helper is started on first use and reused for the following files. It
// is spawned by one thread that lives as long as the process: its
// parent-death signal (which fires when the spawning *thread* ends) thus
// means the daemon died, never that a scanner thread finished. One file at
// a time: Extract() holds the client mutex for the whole round trip, so any
// number of scanner threads may call it. A file whose parse crashes the
// helper or passes the per-file deadline fails with a warning naming it; the
// helper is killed and started again for the next file, and the file is
// remembered by (path, size, modification time) so that it is not parsed
// again -- unless the file was not to blame: a helper killed from outside
// (SIGKILL, SIGTERM, ...) or stuck in a read the storage does not answer
// (uninterruptible sleep at the deadline) fails the file this time only. Helper binary: $MOX_EXTRACT_HELPER, else
// "mox-extract" next to the running executable.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <tuple>

#include <mox_unique_fd.h>

#include "mox_thread_annotations.h"

struct media_info_s;

class CMOXExtractClient {
public:
    // The process-wide client (created on first use, thread-safe).
    static CMOXExtractClient& Get();

    CMOXExtractClient() = default;
    ~CMOXExtractClient();
    CMOXExtractClient(const CMOXExtractClient&) = delete;
    CMOXExtractClient& operator=(const CMOXExtractClient&) = delete;

    // Parses the open regular file `fd` (path `path`, the given size and
    // modification time) as `mediaType` in the helper and copies the content
    // fields into `info`. False, with a warning, when the helper crashed,
    // timed out or sent a malformed answer on this file, or when the file
    // did so before. When no confined helper can be had (missing binary, no
    // unprivileged user) `info` is left as it is, with a warning, and the
    // result is true: the file keeps its basic record.
    bool Extract(int fd, const std::string& path, int mediaType, unsigned long long size, unsigned long mtime,
                 media_info_s& info);

    // Per-file deadline of a round trip.
    static constexpr std::chrono::milliseconds kDeadline{5000};
    // Files remembered as fatal; the oldest is forgotten beyond this.
    static constexpr size_t kMaxBadFiles = 1024;

private:
    using FileKey = std::tuple<std::string, unsigned long long, unsigned long>;

    bool m_Start() REQUIRES(m_mutex);
    void m_Stop(bool bKill) REQUIRES(m_mutex);  // reaps the helper
    // Reaps a helper that closed its socket and describes how it ended;
    // *pbSetupFailed tells a helper that could not confine itself.
    std::string m_Reap(bool* pbSetupFailed = nullptr, int* pnSignal = nullptr) REQUIRES(m_mutex);
    // True when the helper sleeps in an uninterruptible wait (a storage read).
    bool m_WaitsForStorage() REQUIRES(m_mutex);
    void m_Remember(const FileKey& key) REQUIRES(m_mutex);
    // The helper parses in the scheduling and I/O class of the thread that
    // asks: idle for a caller in SCHED_IDLE (the media library's indexer),
    // normal for anyone else. Changed only when it differs.
    void m_FollowCaller() REQUIRES(m_mutex);

    mox::Mutex m_mutex;
    pid_t m_pid GUARDED_BY(m_mutex) = -1;
    pid_t m_nClassPid GUARDED_BY(m_mutex) = -1;  // the helper whose class is m_bIdleClass
    bool m_bIdleClass GUARDED_BY(m_mutex) = false;
    mox_util::UniqueFd m_socket GUARDED_BY(m_mutex);
    std::set<FileKey> m_badFiles GUARDED_BY(m_mutex);
    std::deque<FileKey> m_badOrder GUARDED_BY(m_mutex);  // oldest first
};
