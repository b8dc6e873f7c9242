// CMOXExtractClient: the daemon's side of the mox-extract helper process.
//
// The helper is started on first use and reused for the following files. It
// is spawned by one thread that lives as long as the process: its
// parent-death signal (which fires when the spawning *thread* ends) thus
// means the daemon died, never that a scanner thread finished. One file at
// batch at a time: ExtractBatch() holds the client mutex for the whole batch,
// so any number of scanner threads may call it. A batch goes to the helper as
// one request of up to mox_extract_wire::kMaxBatch files (their descriptors in
// one message) and comes back as one message of answers; each file has its
// own deadline, counted from when the helper began it (its progress word). A file whose parse crashes the
// helper or passes its deadline fails with a warning naming it; the helper is
// killed and started again for the rest of the batch, and the file is
// remembered by (path, size, modification time) so that it is not parsed
// again -- unless the file was not to blame: a helper killed from outside
// (SIGKILL, SIGTERM, ...) or stuck in a read the storage does not answer
// (uninterruptible sleep at the deadline) fails the file this time only. Helper binary: $MOX_EXTRACT_HELPER, else
// "mox-extract" next to the running executable.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <tuple>

#include <vector>

#include <mox_unique_fd.h>

#include "mox_extract_wire.h"
#include "mox_thread_annotations.h"

struct media_info_s;
struct SMOXExtractExtra;

// One file of a batch. The caller keeps the descriptor and the outputs.
struct SMOXExtractItem {
    enum class EResult {
        kParsed,    // content fields copied into *pInfo (and *pExtra)
        kFailed,    // the helper crashed, stalled or answered garbage on it (now or before)
        kNotRead,   // no confined helper to be had: *pInfo left as it was
        kDeferred,  // not parsed: the storage stalled the helper on another file of the batch
        kPending,   // not yet handed over (only while ExtractBatch runs)
    };
    int fd = -1;  // open regular file (borrowed)
    std::string strPath;
    int nMediaType = 0;
    unsigned long long ullSize = 0;
    unsigned long ulModifiedTime = 0;
    media_info_s* pInfo = nullptr;
    SMOXExtractExtra* pExtra = nullptr;  // read only when the batch asks for extras
    EResult eResult = EResult::kNotRead;
};

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
    // Every item of `items` in as few round trips as the batch size allows;
    // each item's eResult tells how it went. With bExtra the helper also
    // fills the items' SMOXExtractExtra.
    void ExtractBatch(std::vector<SMOXExtractItem>& items, bool bExtra);

    // Per-file deadline of a round trip.
    static constexpr std::chrono::milliseconds kDeadline{5000};
    // How long a helper that closed its socket may take to end.
    static constexpr std::chrono::milliseconds kReapWait{1000};
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
    void m_Remember(const SMOXExtractItem& item) REQUIRES(m_mutex);
    // One request of the items at positions `chunk` (1 to kMaxBatch of them,
    // all kPending). Settles all of them, or at least the one that ended the
    // helper; the others stay kPending, to go to a new helper. True when the
    // helper stalled waiting for the storage.
    bool m_RunBatch(std::vector<SMOXExtractItem>& items, const size_t* chunk, size_t nChunk, bool bExtra)
        REQUIRES(m_mutex);
    // Waits for the helper's next message until `deadline`: 1 received, 0 the
    // deadline passed, -1 the helper closed its end or failed, -2 a message
    // too big (or with too many descriptors) came.
    int m_WaitMessage(std::chrono::steady_clock::time_point deadline) REQUIRES(m_mutex);
    // The file the helper says it is parsing, if its word is one of
    // [nFrom, nChunk), and when it began (never later than now).
    bool m_ReadProgress(size_t nFrom, size_t nChunk, size_t& index, std::chrono::steady_clock::time_point& started)
        REQUIRES(m_mutex);

    struct SUnmap {
        void operator()(std::atomic<uint64_t>* p) const;
    };

    mox::Mutex m_mutex;
    pid_t m_pid GUARDED_BY(m_mutex) = -1;
    pid_t m_nClassPid GUARDED_BY(m_mutex) = -1;  // the helper whose class is m_bIdleClass
    bool m_bIdleClass GUARDED_BY(m_mutex) = false;
    mox_util::UniqueFd m_socket GUARDED_BY(m_mutex);
    std::set<FileKey, std::less<>> m_badFiles GUARDED_BY(m_mutex);  // looked up without copying the path
    std::deque<FileKey> m_badOrder GUARDED_BY(m_mutex);             // oldest first
    mox_extract_wire::CMessage m_answer GUARDED_BY(m_mutex);
    std::vector<mox_extract_wire::SRequestItem> m_request GUARDED_BY(m_mutex);  // reused from batch to batch
    // The progress word shared with the current helper.
    std::unique_ptr<std::atomic<uint64_t>, SUnmap> m_progress GUARDED_BY(m_mutex);
};
