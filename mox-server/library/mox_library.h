// CMOXLibrary: the media library index of every mounted storage. It starts an
// indexer (CMOXLibraryVolume) per mounted volume, stops it on unmount, routes
// the engine's change notices, answers status and rescan documents, keeps the
// library's byte bound and sends mox_library_notification to the clients bound
// for storage events.
//
// Volume identity: "uuid-" + the file system's UUID (lower case) when the USB
// service knows it (udev ID_FS_UUID, spool "fs_uuid"); otherwise "sls-" + the
// first 32 hex digits of SHA-256 over serial, partition label and the file
// system's size in bytes (one per line). The index is MOX_LIBRARY_DIR/ID.db.
//
// Threads and locks: storage events arrive on the USB service's thread with
// the storage manager's lock held, so nothing here waits for an indexer there:
// a stopped volume is joined by the library's own ticker thread. m_mutex
// guards the volume tables and is never held while signals are sent or a
// thread is joined (lock order: storage manager, then m_mutex, then a
// volume's own mutex). Indexers run at the lowest priority, so a lock they
// hold may stay held for long while other work runs: they never take a lock
// the main loop takes (the clients' list, the bus connection, m_mutex in the
// common case). Their notifications are queued (m_reportMutex, shared with
// the ticker only) and sent by the ticker.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <mox/mox_library_state.h>
#include <usb_device.h>

#include "mox_library_volume.h"
#include "mox_signal_sink.h"
#include "mox_thread_annotations.h"

class CMOXLibrary {
public:
    // The clients bound for storage events now.
    using ClientsFn = std::function<std::vector<connect_info_s>()>;

    // Total bytes of the index files; least-recently-mounted volumes that
    // are not mounted go first when a mount or an indexer needs room.
    // MOX_LIBRARY_MAX_BYTES and MOX_LIBRARY_MAX_ROWS (rows per volume) lower
    // the bounds for tests.
    static constexpr int64_t kMaxTotalBytes = 256LL * 1024 * 1024;
    // How often the state of indexing volumes is sent.
    static constexpr std::chrono::milliseconds kTick{750};

    CMOXLibrary(IMOXSignalSink& sink, ClientsFn clients);
    // Stops every indexer and waits up to `wait` for them; the hooks do
    // nothing afterwards. false (one warning) when an indexer is still inside
    // a call on a hung storage: the library must then not be destroyed (its
    // indexers still use it) and is kept until the process ends.
    bool Stop(std::chrono::milliseconds wait);
    // Stop() without a bound, unless Stop() already ended every indexer.
    ~CMOXLibrary();
    CMOXLibrary(const CMOXLibrary&) = delete;
    CMOXLibrary& operator=(const CMOXLibrary&) = delete;

    // Storage events (USB service thread; the device stays the caller's).
    // afterWalk runs once the volume's first walk is over, on the indexer's
    // thread (in its idle scheduling class, which threads it starts keep),
    // or at once here when the volume is not indexed; never when the volume
    // goes or the library stops first. Other walks of the whole storage wait
    // for it: beside the indexer's they would slow it down.
    void OnMounted(usb_device_h device, std::function<void()> afterWalk = {});
    void OnUnmounted(const std::string& strMountPath);
    // Starts indexers for the storages mounted before the daemon started
    // (call once the storage events are wired).
    void IndexMounted();

    void NoteChanged(const std::string& strPath);
    int HandleCommand(const std::string& strDocument, std::string& strResult);
    // The status documents of the mounted volumes, then of the volumes known
    // from their index files that are not mounted (state "unmounted",
    // "mount_path" where they were last mounted); all, or those at strMount.
    std::vector<SMOXLibraryStatus> Statuses(const std::string& strMount);

    static std::string VolumeIdOf(const char* szFsUuid, const char* szSerial, const char* szLabel, uint64_t nBytes);
    static std::atomic<bool>& UsersBusy();

private:
    // The mounted volumes for the library source (CMOXLibraryState).
    std::vector<SMOXLibraryVolumeState> m_VolumeStates();
    void m_Ticker();
    void m_Emit(const SMOXLibraryStatus& status);
    // An indexer's notification, sent by the ticker (any thread).
    void m_Queue(const SMOXLibraryStatus& status);
    // Wakes the ticker (no lock held).
    void m_Poke();
    // Keeps pVolume (started) as the volume at strMount; false when it is not
    // indexed (pVolume is then kept, or reset when the same volume is there).
    bool m_Add(std::unique_ptr<CMOXLibraryVolume>& pVolume, const std::string& strMount, const std::string& strId)
        REQUIRES(m_mutex);
    // Keeps the index files below kMaxTotalBytes by dropping those of
    // volumes not mounted, oldest first; false when that is not enough.
    bool m_FitBudget();

    IMOXSignalSink& m_sink;
    const ClientsFn m_clients;
    const std::string m_strDir;
    const int64_t m_nMaxBytes;
    SMOXLibraryBounds m_bounds;  // set in the constructor only

    mox::Mutex m_mutex;
    std::map<std::string, std::unique_ptr<CMOXLibraryVolume>> m_volumes GUARDED_BY(m_mutex);  // by mount path
    // Stopped, destroyed by the ticker once their thread has returned.
    std::vector<std::unique_ptr<CMOXLibraryVolume>> m_stopping GUARDED_BY(m_mutex);
    // Every volume, after Stop() took them.
    std::vector<std::unique_ptr<CMOXLibraryVolume>> m_final;
    bool m_bQuit GUARDED_BY(m_mutex) = false;
    mox::Mutex m_reportMutex;  // never held with m_mutex
    std::vector<SMOXLibraryStatus> m_reports GUARDED_BY(m_reportMutex);
    bool m_bPoked GUARDED_BY(m_reportMutex) = false;
    std::condition_variable m_wake;  // with m_reportMutex
    mox::Mutex m_budgetMutex;        // one eviction at a time
    std::thread m_ticker;
};
