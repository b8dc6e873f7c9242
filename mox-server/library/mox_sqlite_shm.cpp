#define MOX_LOG_TAG "MOX-LIBRARY"
#include "mox_sqlite_shm.h"

#include <sqlite3.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>

#include <mox/mox_log.h>

namespace mox_sql {
namespace {

// The platform VFS can hand out several method tables (one per locking
// style); each gets a copy with the map wrapped. `ours` comes first so a
// file's method pointer leads back to its entry.
struct SWrappedMethods {
    sqlite3_io_methods ours;
    const sqlite3_io_methods* pReal;
};

constexpr int kMaxTables = 8;
std::mutex g_tablesMutex;
SWrappedMethods g_tables[kMaxTables];  // guarded by g_tablesMutex while being filled; never changed after
std::atomic<int> g_nTables{0};

sqlite3_vfs* g_pReal = nullptr;  // set once before the guard is registered
sqlite3_vfs g_vfs;
std::atomic<bool> g_bNoAdvice{false};

// False when the kernel could not give every page of the region its blocks.
bool Populate(void volatile* pRegion, int nSize) {
    const auto nPage = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto nStart = reinterpret_cast<uintptr_t>(pRegion) & ~(nPage - 1);
    const auto nEnd = reinterpret_cast<uintptr_t>(pRegion) + static_cast<uintptr_t>(nSize);
    if (g_bNoAdvice.load(std::memory_order_relaxed)) return true;
    for (;;) {
        if (madvise(reinterpret_cast<void*>(nStart), nEnd - nStart, MADV_POPULATE_WRITE) == 0) return true;
        const int nError = errno;
        if (nError == EINTR || nError == EAGAIN) continue;
        // EINVAL: a kernel before 5.14. Anything else: no room (EFAULT, as
        // a store would have met SIGBUS) or no memory.
        if (nError != EINVAL) return false;
        if (!g_bNoAdvice.exchange(true))
            MOX_WARN(
                "library: this kernel cannot allocate an index's shared memory ahead (%s); a full disk "
                "under the index may end the daemon.",
                strerror(nError));
        return true;
    }
}

int ShmMap(sqlite3_file* pFile, int iRegion, int szRegion, int bExtend, void volatile** pp) {
    const auto* pWrapped = reinterpret_cast<const SWrappedMethods*>(pFile->pMethods);
    const int rc = pWrapped->pReal->xShmMap(pFile, iRegion, szRegion, bExtend, pp);
    // SQLITE_READONLY: a read-only mapping that SQLite never stores into.
    if (rc != SQLITE_OK || *pp == nullptr) return rc;
    if (Populate(*pp, szRegion)) return SQLITE_OK;
    *pp = nullptr;
    return SQLITE_FULL;
}

const sqlite3_io_methods* Wrapped(const sqlite3_io_methods* pReal) {
    const int nKnown = g_nTables.load(std::memory_order_acquire);
    for (int i = 0; i < nKnown; ++i)
        if (g_tables[i].pReal == pReal) return &g_tables[i].ours;
    std::lock_guard<std::mutex> lock(g_tablesMutex);
    const int nNow = g_nTables.load(std::memory_order_relaxed);
    for (int i = 0; i < nNow; ++i)
        if (g_tables[i].pReal == pReal) return &g_tables[i].ours;
    if (nNow == kMaxTables) return nullptr;
    g_tables[nNow].ours = *pReal;
    g_tables[nNow].ours.xShmMap = ShmMap;
    g_tables[nNow].pReal = pReal;
    g_nTables.store(nNow + 1, std::memory_order_release);
    return &g_tables[nNow].ours;
}

int Open(sqlite3_vfs*, sqlite3_filename zName, sqlite3_file* pFile, int nFlags, int* pOutFlags) {
    const int rc = g_pReal->xOpen(g_pReal, zName, pFile, nFlags, pOutFlags);
    // Only a main database has a WAL index; the platform's file keeps its own
    // state, so the same object serves with the wrapped table.
    if (rc != SQLITE_OK || pFile->pMethods == nullptr || (nFlags & SQLITE_OPEN_MAIN_DB) == 0 ||
        pFile->pMethods->iVersion < 2 || pFile->pMethods->xShmMap == nullptr)
        return rc;
    if (const sqlite3_io_methods* pOurs = Wrapped(pFile->pMethods)) pFile->pMethods = pOurs;
    return rc;
}

}  // namespace

bool UseAllocatingShm() {
    static std::once_flag s_once;
    static bool s_bInstalled = false;
    std::call_once(s_once, [] {
        sqlite3_vfs* pReal = sqlite3_vfs_find(nullptr);
        if (pReal == nullptr) return;
        g_pReal = pReal;
        // Every other method is the platform's own, fed the same app data.
        g_vfs = *pReal;
        g_vfs.pNext = nullptr;
        g_vfs.zName = "mox-unix-allocating-shm";
        g_vfs.xOpen = Open;
        s_bInstalled = sqlite3_vfs_register(&g_vfs, 1) == SQLITE_OK;
    });
    return s_bInstalled;
}

}  // namespace mox_sql
