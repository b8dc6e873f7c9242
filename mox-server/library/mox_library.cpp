#define MOX_LOG_TAG "MOX-LIBRARY"
#include <mox/mox_log.h>

#include "mox_library.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include <glib.h>
#include <json/json.h>
#include <sqlite3.h>

#include <mox/mox_types.h>
#include <mox_host_paths.h>

#include "mox_extractor.h"
#include "mox_library_hooks.h"
#include "mox_sqlite_shm.h"

namespace {

mox::Mutex g_hookMutex;
CMOXLibrary* g_pLibrary GUARDED_BY(g_hookMutex) = nullptr;

std::string TrimSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool EndsWith(const std::string& text, const char* szSuffix) {
    const size_t n = strlen(szSuffix);
    return text.size() >= n && text.compare(text.size() - n, n, szSuffix) == 0;
}

// A bound lowered through the environment (tests), else the default; a
// value that is not a positive number keeps the default (one warning).
int64_t BoundFromEnv(const char* szName, int64_t nDefault) {
    const char* szValue = getenv(szName);
    if (!szValue || !*szValue) return nDefault;
    char* pEnd = nullptr;
    errno = 0;
    const long long n = strtoll(szValue, &pEnd, 10);
    if (errno != 0 || *pEnd != '\0' || n <= 0) {
        MOX_WARN("%s=%s is not a positive number: %lld is used.", szName, szValue, static_cast<long long>(nDefault));
        return nDefault;
    }
    return n;
}

std::string Sha256Prefix(const std::string& text) {
    gchar* szHex = g_compute_checksum_for_string(G_CHECKSUM_SHA256, text.data(), static_cast<gssize>(text.size()));
    std::string hex = szHex ? std::string(szHex, 32) : std::string();
    g_free(szHex);
    return hex;
}

}  // namespace

namespace mox_library {

void NotePathChanged(const std::string& strPath) {
    mox::MutexLock lock(g_hookMutex);
    if (g_pLibrary) g_pLibrary->NoteChanged(strPath);
}

void SetUsersBusy(bool bBusy) {
    CMOXLibrary::UsersBusy().store(bBusy);
}

int HandleCommand(const std::string& strDocument, std::string& strResult) {
    mox::MutexLock lock(g_hookMutex);
    if (!g_pLibrary) {
        MOX_WARN("library command while no library runs.");
        return MOX_ERROR_NOT_READY;
    }
    return g_pLibrary->HandleCommand(strDocument, strResult);
}

}  // namespace mox_library

std::atomic<bool>& CMOXLibrary::UsersBusy() {
    static std::atomic<bool> s_bBusy{false};
    return s_bBusy;
}

std::string CMOXLibrary::VolumeIdOf(const char* szFsUuid, const char* szSerial, const char* szLabel, uint64_t nBytes) {
    const std::string uuid = szFsUuid ? szFsUuid : "";
    if (!uuid.empty()) {
        const bool bPlain = uuid.size() <= 64 && std::all_of(uuid.begin(), uuid.end(), [](char c) {
                                return std::isalnum(static_cast<unsigned char>(c)) || c == '-';
                            });
        if (!bPlain) return "uuid-" + Sha256Prefix(uuid);
        std::string lower = uuid;
        for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return "uuid-" + lower;
    }
    std::ostringstream key;
    key << (szSerial ? szSerial : "") << '\n' << (szLabel ? szLabel : "") << '\n' << nBytes;
    return "sls-" + Sha256Prefix(key.str());
}

CMOXLibrary::CMOXLibrary(IMOXSignalSink& sink, ClientsFn clients)
    : m_sink(sink),
      m_clients(std::move(clients)),
      m_strDir(mox_host::LibraryDir()),
      m_nMaxBytes(BoundFromEnv("MOX_LIBRARY_MAX_BYTES", kMaxTotalBytes)) {
    // Without memory statistics SQLite takes no process-wide lock per
    // allocation: an indexer, at the lowest priority, holding it would make
    // every other SQLite user wait. Refused once SQLite is in use (nothing lost).
    if (sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) != SQLITE_OK)
        MOX_DEBUG("library: SQLite already in use, its memory statistics stay on.");
    // Before any index is opened, by the indexers or by a plug-in reading one.
    if (!mox_sql::UseAllocatingShm())
        MOX_WARN("library: no SQLite file layer to guard; a full disk under the index may end the daemon.");
    m_bounds.nMaxRows = BoundFromEnv("MOX_LIBRARY_MAX_ROWS", m_bounds.nMaxRows);
    if (g_mkdir_with_parents(m_strDir.c_str(), 0700) != 0)
        MOX_WARN("library directory %s cannot be made (%s): volumes will not be indexed.", m_strDir.c_str(),
                 strerror(errno));
    m_ticker = std::thread([this] {
        try {
            m_Ticker();
        } catch (const std::exception& e) {
            MOX_WARN("library ticker ended by an exception (%s).", e.what());
        }
    });
    {
        mox::MutexLock lock(g_hookMutex);
        g_pLibrary = this;
    }
    // The library source reads the mounted volumes and their state here.
    CMOXLibraryState::SetProvider([this] { return m_VolumeStates(); });
}

std::vector<SMOXLibraryVolumeState> CMOXLibrary::m_VolumeStates() {
    std::vector<SMOXLibraryVolumeState> out;
    mox::MutexLock lock(m_mutex);
    for (auto& entry : m_volumes) {
        const SMOXLibraryStatus status = entry.second->Status();
        SMOXLibraryVolumeState state;
        state.strMountPath = entry.first;
        state.strVolumeId = entry.second->VolumeId();
        state.strDbPath = entry.second->DbPath();
        state.nGeneration = status.nGeneration;
        state.strStatus = status.ToJson(false);
        out.push_back(std::move(state));
    }
    return out;
}

bool CMOXLibrary::Stop(std::chrono::milliseconds wait) {
    // Returns once no plug-in reads the volumes any more.
    CMOXLibraryState::SetProvider(nullptr);
    {
        mox::MutexLock lock(g_hookMutex);
        g_pLibrary = nullptr;
    }
    {
        mox::MutexLock lock(m_mutex);
        m_bQuit = true;
        for (auto& entry : m_volumes) m_final.push_back(std::move(entry.second));
        m_volumes.clear();
        for (auto& pVolume : m_stopping) m_final.push_back(std::move(pVolume));
        m_stopping.clear();
    }
    m_Poke();
    // The ticker never waits on an indexer (it destroys finished ones only).
    if (m_ticker.joinable()) m_ticker.join();
    for (auto& pVolume : m_final) pVolume->RequestStop();
    const auto deadline = std::chrono::steady_clock::now() + wait;
    auto allFinished = [this] {
        for (const auto& pVolume : m_final)
            if (!pVolume->Finished()) return false;
        return true;
    };
    while (!allFinished()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            MOX_WARN("library: an indexer is stuck on a storage; it is left running.");
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    m_final.clear();  // joins threads that have returned
    return true;
}

CMOXLibrary::~CMOXLibrary() {
    Stop(std::chrono::hours(24 * 365));
}

void CMOXLibrary::OnMounted(usb_device_h device, std::function<void()> afterWalk) {
    const char* szMount = usb_device_get_mountpath(device);
    if (!szMount || !*szMount) {
        if (afterWalk) afterWalk();
        return;
    }
    const std::string strMount = TrimSlashes(szMount);
    const char* szUuid = usb_device_get_fs_uuid(device);
    uint64_t nBytes = 0;
    struct statvfs vfs;
    if ((!szUuid || !*szUuid) && statvfs(strMount.c_str(), &vfs) == 0)
        nBytes = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_frsize;
    const std::string strId =
        VolumeIdOf(szUuid, usb_device_get_serial(device), usb_device_get_partlabel(device), nBytes);
    auto pVolume = std::make_unique<CMOXLibraryVolume>(
        strMount, strId, m_strDir + "/" + strId + ".db", UsersBusy(),
        [this](const SMOXLibraryStatus& status) { m_Queue(status); }, [this] { return m_FitBudget(); }, m_bounds);
    pVolume->SetWalkedHook(std::move(afterWalk));
    // Run outside the lock when the volume is not indexed.
    std::function<void()> now;
    {
        mox::MutexLock lock(m_mutex);
        if (m_bQuit) return;
        if (!m_Add(pVolume, strMount, strId)) now = pVolume ? pVolume->TakeWalkedHook() : nullptr;
    }
    if (now) now();
}

bool CMOXLibrary::m_Add(std::unique_ptr<CMOXLibraryVolume>& pVolume, const std::string& strMount,
                        const std::string& strId) {
    for (const auto& entry : m_volumes) {
        if (entry.second->VolumeId() == strId && entry.first != strMount) {
            MOX_WARN("library: %s has the identity %s of %s, which is indexed already: not indexed.", strMount.c_str(),
                     strId.c_str(), entry.first.c_str());
            return false;
        }
    }
    auto found = m_volumes.find(strMount);
    // Reported twice: the first report's hook is pending.
    if (found != m_volumes.end() && found->second->VolumeId() == strId) {
        pVolume.reset();
        return false;
    }
    if (found != m_volumes.end()) {
        // Mounted again without an unmount in between: the new volume wins.
        found->second->RequestStop();
        m_stopping.push_back(std::move(found->second));
        m_volumes.erase(found);
    }
    MOX_INFO("library: indexing %s as volume %s.", strMount.c_str(), strId.c_str());
    if (!pVolume->Start()) return false;
    m_volumes[strMount] = std::move(pVolume);
    return true;
}

void CMOXLibrary::IndexMounted() {
    usb_device_list_h list = nullptr;
    if (usb_device_get_device_list(USB_DEVICE_CLASS_MASS_STORAGE, &list) != 0 || !list) return;
    usb_device_h device = nullptr;
    for (int rc = usb_device_list_get_first(list, &device); rc == 0 && device;
         rc = usb_device_list_get_next(list, &device))
        OnMounted(device);
    usb_device_free_device_list(list);
}

void CMOXLibrary::OnUnmounted(const std::string& strMountPath) {
    const std::string strMount = TrimSlashes(strMountPath);
    {
        mox::MutexLock lock(m_mutex);
        auto found = m_volumes.find(strMount);
        if (found == m_volumes.end()) return;
        // Stopped now, joined by the ticker: the USB service never waits.
        found->second->RequestStop();
        m_stopping.push_back(std::move(found->second));
        m_volumes.erase(found);
    }
    m_Poke();
}

void CMOXLibrary::NoteChanged(const std::string& strPath) {
    mox::MutexLock lock(m_mutex);
    for (auto& entry : m_volumes) {
        const std::string& strMount = entry.first;
        if (strPath.size() > strMount.size() && strPath.compare(0, strMount.size(), strMount) == 0 &&
            strPath[strMount.size()] == '/') {
            entry.second->NoteChanged(strPath);
            return;
        }
    }
}

std::vector<SMOXLibraryStatus> CMOXLibrary::Statuses(const std::string& strMount) {
    std::vector<SMOXLibraryStatus> out;
    std::vector<std::string> mountedIds;
    {
        mox::MutexLock lock(m_mutex);
        for (auto& entry : m_volumes) {
            mountedIds.push_back(entry.second->VolumeId());
            if (strMount.empty() || entry.first == strMount) out.push_back(entry.second->Status());
        }
        // Unmounted, its indexer still closing the file: described from
        // memory (the file may be between its last checkpoint and close).
        for (auto& pVolume : m_stopping) {
            if (std::find(mountedIds.begin(), mountedIds.end(), pVolume->VolumeId()) != mountedIds.end()) continue;
            mountedIds.push_back(pVolume->VolumeId());
            if (!strMount.empty() && pVolume->MountPath() != strMount) continue;
            SMOXLibraryStatus status = pVolume->Status();
            status.strState = "unmounted";
            out.push_back(std::move(status));
        }
    }
    // The known volumes that are not mounted, from their index files (read
    // outside the lock: storage events never wait for these reads).
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(m_strDir.c_str()), closedir);
    if (!dir) return out;
    std::vector<std::string> names;
    while (struct dirent* entry = readdir(dir.get())) {
        const std::string strName = entry->d_name;
        if (EndsWith(strName, ".db") && strName.size() > 3) names.push_back(strName);
    }
    std::sort(names.begin(), names.end());
    for (const std::string& strName : names) {
        const std::string strId = strName.substr(0, strName.size() - 3);
        if (std::find(mountedIds.begin(), mountedIds.end(), strId) != mountedIds.end()) continue;
        const std::string strPath = m_strDir + "/" + strName;
        SMOXLibrarySummary summary;
        if (!CMOXLibraryDb::ReadSummary(strPath, summary) || summary.strVolumeId != strId) continue;
        if (!strMount.empty() && summary.strMountPath != strMount) continue;
        SMOXLibraryStatus status;
        status.strMountPath = summary.strMountPath;
        status.strVolumeId = strId;
        status.strState = "unmounted";
        status.nGeneration = summary.nGeneration;
        for (int i = 0; i < 4; ++i) status.counts[i] = summary.counts[i];
        status.nTotal = status.nDone = status.counts[0] + status.counts[1] + status.counts[2] + status.counts[3];
        status.nDbBytes = 0;
        struct stat st;
        for (const char* szSuffix : {"", "-wal"})
            if (stat((strPath + szSuffix).c_str(), &st) == 0) status.nDbBytes += st.st_size;
        out.push_back(std::move(status));
    }
    return out;
}

int CMOXLibrary::HandleCommand(const std::string& strDocument, std::string& strResult) {
    Json::Value doc;
    Json::CharReaderBuilder reader;
    std::string errors;
    std::istringstream in(strDocument);
    if (!Json::parseFromStream(reader, in, &doc, &errors) || !doc.isObject()) {
        MOX_WARN("library command: not a JSON object.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const std::string strCommand = doc["mox_command"].isString() ? doc["mox_command"].asString() : "";
    const Json::Value& mount = doc["mox_library_mount"];
    if (!mount.isNull() && !mount.isString()) {
        MOX_WARN("library command: \"mox_library_mount\" is not a string.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const std::string strMount = mount.isString() ? TrimSlashes(mount.asString()) : "";
    const bool bRescan = strCommand == "mox_library_rescan";
    if (!bRescan && strCommand != "mox_library_status") {
        MOX_WARN("library command: unknown command.");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    if (bRescan && strMount.empty()) {
        MOX_WARN("library rescan without \"mox_library_mount\".");
        return MOX_ERROR_INVALID_PARAMETER;
    }
    bool bMounted;
    {
        mox::MutexLock lock(m_mutex);
        bMounted = m_volumes.count(strMount) != 0;
        if (bRescan && bMounted) m_volumes[strMount]->Rescan();
    }
    // A status may name where a known volume was last mounted; a rescan
    // needs it mounted.
    const std::vector<SMOXLibraryStatus> statuses = Statuses(strMount);
    if (!strMount.empty() && (bRescan ? !bMounted : statuses.empty())) {
        MOX_WARN("library command: %s is not an indexed mount.",
                 CMOXExtractor::FileNameToUtf8(strMount.substr(0, 256)).c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    Json::Value result(Json::objectValue);
    result["volumes"] = Json::Value(Json::arrayValue);
    for (const SMOXLibraryStatus& status : statuses) {
        Json::Value item;
        Json::CharReaderBuilder r;
        std::istringstream s(status.ToJson(true));
        if (Json::parseFromStream(r, s, &item, &errors)) result["volumes"].append(item);
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    strResult = Json::writeString(writer, result);
    return MOX_ERROR_NONE;
}

void CMOXLibrary::m_Emit(const SMOXLibraryStatus& status) {
    const std::string strPayload = status.ToJson(false);
    for (const connect_info_s& client : m_clients()) m_sink.Emit(client, "mox_library_notification", strPayload);
}

void CMOXLibrary::m_Queue(const SMOXLibraryStatus& status) {
    {
        mox::MutexLock lock(m_reportMutex);
        m_reports.push_back(status);
    }
    m_wake.notify_all();
}

void CMOXLibrary::m_Poke() {
    {
        mox::MutexLock lock(m_reportMutex);
        m_bPoked = true;
    }
    m_wake.notify_all();
}

void CMOXLibrary::m_Ticker() {
    auto nextTick = std::chrono::steady_clock::now() + kTick;
    for (;;) {
        std::vector<SMOXLibraryStatus> reports;
        {
            mox::UniqueLock lock(m_reportMutex);
            while (!m_bPoked && m_reports.empty()) {
                if (lock.WaitUntil(m_wake, nextTick) == std::cv_status::timeout) break;
            }
            m_bPoked = false;
            reports.swap(m_reports);
        }
        std::vector<std::unique_ptr<CMOXLibraryVolume>> stopped;
        // Only this thread destroys volumes (Stop() joins it first): the
        // pointers stay valid while their state is read outside the lock.
        std::vector<CMOXLibraryVolume*> mounted;
        {
            mox::MutexLock lock(m_mutex);
            if (m_bQuit) return;
            stopped.swap(m_stopping);
            for (auto& entry : m_volumes) mounted.push_back(entry.second.get());
        }
        // Joined outside the lock, and only once returned: a volume stuck on
        // a hung storage waits here for its next round.
        std::vector<std::unique_ptr<CMOXLibraryVolume>> running;
        for (auto& pVolume : stopped)
            if (!pVolume->Finished()) running.push_back(std::move(pVolume));
        for (const SMOXLibraryStatus& status : reports) m_Emit(status);
        const auto now = std::chrono::steady_clock::now();
        if (now >= nextTick) {
            nextTick = now + kTick;
            for (CMOXLibraryVolume* pVolume : mounted) {
                const SMOXLibraryStatus status = pVolume->Status();
                if (status.strState == "indexing" || status.strState == "paused") m_Emit(status);
            }
        }
        mounted.clear();
        stopped.clear();
        if (!running.empty()) {
            mox::MutexLock lock(m_mutex);
            for (auto& pVolume : running) m_stopping.push_back(std::move(pVolume));
        }
    }
}

bool CMOXLibrary::m_FitBudget() {
    // Called by indexers: m_mutex only when something must go.
    mox::MutexLock budgetLock(m_budgetMutex);
    struct SFile {
        std::string strDb;
        int64_t nBytes = 0;
        time_t tTime = 0;
        bool bBroken = false;
    };
    std::map<std::string, SFile> files;  // by database path
    int64_t nTotal = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(m_strDir.c_str()), closedir);
    if (!dir) return true;
    while (struct dirent* entry = readdir(dir.get())) {
        const std::string strName = entry->d_name;
        std::string strBase;
        for (const char* szSuffix : {".db", ".db-wal", ".db-shm", ".db.broken"})
            if (EndsWith(strName, szSuffix)) strBase = strName.substr(0, strName.size() - strlen(szSuffix));
        if (strBase.empty()) continue;
        struct stat st;
        const std::string strPath = m_strDir + "/" + strName;
        if (lstat(strPath.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        nTotal += st.st_size;
        SFile& file = files[m_strDir + "/" + strBase + ".db"];
        file.strDb = m_strDir + "/" + strBase + ".db";
        file.nBytes += st.st_size;
        if (EndsWith(strName, ".db")) file.tTime = st.st_mtime;
    }
    if (nTotal <= m_nMaxBytes) return true;
    std::vector<std::string> mounted;
    {
        mox::MutexLock lock(m_mutex);
        for (auto& entry : m_volumes) mounted.push_back(entry.second->DbPath());
    }
    std::vector<SFile> candidates;
    for (auto& entry : files)
        if (std::find(mounted.begin(), mounted.end(), entry.first) == mounted.end()) candidates.push_back(entry.second);
    std::sort(candidates.begin(), candidates.end(), [](const SFile& a, const SFile& b) { return a.tTime < b.tTime; });
    for (const SFile& file : candidates) {
        if (nTotal <= m_nMaxBytes) break;
        MOX_INFO("library: dropping the index %s (least recently mounted) to stay below %lld bytes.",
                 file.strDb.c_str(), static_cast<long long>(m_nMaxBytes));
        for (const char* szSuffix : {"", "-wal", "-shm", ".broken"}) remove((file.strDb + szSuffix).c_str());
        nTotal -= file.nBytes;
    }
    return nTotal <= m_nMaxBytes;
}
