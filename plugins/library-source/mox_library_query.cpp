#define MOX_LOG_TAG "MOX-LIBRARY"
#include "mox_library_query.h"

#include <sqlite3.h>

#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string_view>

#include <json/json.h>

#include <mox/json_value.h>
#include <mox/mox_confined_path.h>
#include <mox/mox_log.h>
#include <mox/mox_util.h>
#include <mox/mox_web_source.h>

#include "mox_host_paths.h"

namespace {

// What the indexer writes (CMOXLibraryDb): application id and schema
// versions. Version 1 (an index not re-plugged since the daemon's update) has
// the same tables and columns, only a narrower folder index: read as it is.
constexpr int64_t kApplicationId = 0x4D4F584C;
constexpr int64_t kOldestSchemaVersion = 1;
constexpr int64_t kSchemaVersion = 2;
// Bounds on client texts: a tag or a path is far shorter.
constexpr size_t kMaxText = 4096;
constexpr size_t kMaxTokens = 32;

// Set while the engine asks for the validity: the same document is parsed
// again for the data, which is where its faults are logged (once).
thread_local bool t_bQuiet = false;

#define PARSE_WARN(...)                       \
    do {                                      \
        if (!t_bQuiet) MOX_WARN(__VA_ARGS__); \
    } while (0)

// What a reader maps of one index file (the library bounds them far below).
constexpr int64_t kMapBytes = 256LL << 20;

const CMOXConfinedPath& UsbRoot() {
    static const CMOXConfinedPath s_root(mox_host::UsbRoot());
    return s_root;
}

mox_error_code_e Bad(const char* szWhy) {
    PARSE_WARN("Library list: %s.", szWhy);
    return MOX_ERROR_INVALID_PARAMETER;
}

// Length of the valid UTF-8 sequence at p (at most n bytes), 0 when invalid.
size_t Utf8Sequence(const unsigned char* p, size_t n) {
    if (p[0] < 0x80) return 1;
    size_t nLen = 0;
    uint32_t cp = 0;
    if ((p[0] & 0xE0) == 0xC0) {
        nLen = 2;
        cp = p[0] & 0x1F;
    } else if ((p[0] & 0xF0) == 0xE0) {
        nLen = 3;
        cp = p[0] & 0x0F;
    } else if ((p[0] & 0xF8) == 0xF0) {
        nLen = 4;
        cp = p[0] & 0x07;
    } else {
        return 0;
    }
    if (nLen > n) return 0;
    for (size_t i = 1; i < nLen; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
    if (cp < kMin[nLen] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return nLen;
}

// Appends text as the inside of a JSON string literal; bytes that are not
// valid UTF-8 become U+FFFD (tags are UTF-8 already; this only guards).
void AppendJsonText(std::string& out, const char* pText, size_t n) {
    static const char kHex[] = "0123456789abcdef";
    const unsigned char* p = reinterpret_cast<const unsigned char*>(pText);
    for (size_t i = 0; i < n;) {
        // Runs of plain ASCII, the common case, go in one append.
        size_t nRun = i;
        while (nRun < n && p[nRun] >= 0x20 && p[nRun] < 0x80 && p[nRun] != '"' && p[nRun] != '\\') ++nRun;
        if (nRun > i) {
            out.append(pText + i, nRun - i);
            i = nRun;
            if (i == n) break;
        }
        const unsigned char c = p[i];
        if (c >= 0x80) {
            const size_t nSeq = Utf8Sequence(p + i, n - i);
            if (nSeq == 0) {
                out += "\xEF\xBF\xBD";
                ++i;
            } else {
                out.append(pText + i, nSeq);
                i += nSeq;
            }
            continue;
        }
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            out += "\\u00";
            out += kHex[c >> 4];
            out += kHex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
        ++i;
    }
}

// A path as items name it: the engine's rule for names (stray bytes and
// backslashes as "\xNN").
std::string PathText(const std::string& strMount, const std::string& strRel) {
    return CMOXUtil::FileNameToUtf8(strRel.empty() ? strMount : strMount + "/" + strRel);
}

void AppendString(std::string& out, const char* szKey, std::string_view text) {
    out += ",\"";
    out += szKey;
    out += "\":\"";
    AppendJsonText(out, text.data(), text.size());
    out += '"';
}

void AppendInt(std::string& out, const char* szKey, int64_t nValue) {
    out += ",\"";
    out += szKey;
    out += "\":";
    char sz[24];
    const auto result = std::to_chars(sz, sz + sizeof(sz), nValue);
    out.append(sz, static_cast<size_t>(result.ptr - sz));
}

// Appends mount + "/" + rel as a JSON string's inside, in the engine's rule
// for names. The common case (plain UTF-8, no backslash) is not copied first.
// Valid UTF-8 without a backslash or NUL: the engine's rule leaves it as is.
bool PlainName(std::string_view text) {
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        if (p[i] == '\\' || p[i] == 0) return false;
        if (p[i] < 0x80) {
            ++i;
            continue;
        }
        const size_t n = Utf8Sequence(p + i, text.size() - i);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

void AppendPath(std::string& out, const std::string& strMount, std::string_view rel) {
    if (!PlainName(rel) || !PlainName(strMount)) {
        const std::string text = PathText(strMount, std::string(rel));
        AppendJsonText(out, text.data(), text.size());
        return;
    }
    AppendJsonText(out, strMount.data(), strMount.size());
    if (rel.empty()) return;
    out += '/';
    AppendJsonText(out, rel.data(), rel.size());
}

// A path's components are plain names (no "", "." or "..").
bool PlainRelative(const std::string& strRel) {
    size_t nBegin = 0;
    while (nBegin <= strRel.size()) {
        size_t nEnd = strRel.find('/', nBegin);
        if (nEnd == std::string::npos) nEnd = strRel.size();
        const std::string part = strRel.substr(nBegin, nEnd - nBegin);
        if (part.empty() || part == "." || part == "..") return false;
        nBegin = nEnd + 1;
    }
    return true;
}

std::string TrimSlashes(std::string strPath) {
    while (strPath.size() > 1 && strPath.back() == '/') strPath.pop_back();
    return strPath;
}

// The part of an absolute client path below the USB root, or false.
bool BelowRoot(const std::string& strPath, std::string& strRel) {
    return UsbRoot().Relative(TrimSlashes(strPath), strRel) && !strRel.empty() && PlainRelative(strRel);
}

// The mounted volume holding strRel (below the root): its index in volumes
// and the rest of the path below its mount ("" for the mount itself).
bool VolumeOf(const std::vector<SMOXLibraryVolumeState>& volumes, const std::string& strRel, size_t& nVolume,
              std::string& strRest) {
    for (size_t i = 0; i < volumes.size(); ++i) {
        std::string strMountRel;
        if (!UsbRoot().Relative(volumes[i].strMountPath, strMountRel) || strMountRel.empty()) continue;
        if (strRel == strMountRel) {
            nVolume = i;
            strRest.clear();
            return true;
        }
        if (strRel.size() > strMountRel.size() && strRel.compare(0, strMountRel.size(), strMountRel) == 0 &&
            strRel[strMountRel.size()] == '/') {
            nVolume = i;
            strRest = strRel.substr(strMountRel.size() + 1);
            return true;
        }
    }
    return false;
}

// [from, to) in seconds of a UTC year, or of a UTC month.
void YearRange(int64_t nYear, int nMonth, int64_t& nFrom, int64_t& nTo) {
    struct tm t = {};
    t.tm_year = static_cast<int>(nYear - 1900);
    t.tm_mon = nMonth < 1 ? 0 : nMonth - 1;
    t.tm_mday = 1;
    nFrom = static_cast<int64_t>(timegm(&t));
    if (nMonth < 1)
        t.tm_year += 1;
    else
        t.tm_mon += 1;
    nTo = static_cast<int64_t>(timegm(&t));
}

const char* SortColumn(EMOXLibraryView eView, const std::string& strKey) {
    if (eView == EMOXLibraryView::kItems) {
        static const struct {
            const char* szKey;
            const char* szColumn;
        } kKeys[] = {{"FileName", "file_name"},   {"Title", "title"},
                     {"FileTime", "file_time"},   {"FileSize", "file_size"},
                     {"DateTaken", "date_taken"}, {"Artist", "artist"},
                     {"Album", "album"},          {"TrackNumber", "track_number"},
                     {"Duration", "duration"}};
        for (const auto& key : kKeys)
            if (strKey == key.szKey) return key.szColumn;
        return nullptr;
    }
    if (eView == EMOXLibraryView::kVolumes) return nullptr;
    if (strKey == "GroupName") return "g";
    if (strKey == "Count") return "cnt";
    return nullptr;
}

// An optional member of the filter: text of at most kMaxText bytes.
mox_error_code_e FilterText(const Json::Value& value, const char* szKey, std::optional<std::string>& out) {
    if (!value.isString()) {
        PARSE_WARN("Library list: filter \"%s\" is not a string.", szKey);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    std::string text = value.asString();
    if (text.size() > kMaxText) {
        PARSE_WARN("Library list: filter \"%s\" above %zu bytes.", szKey, kMaxText);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    out = std::move(text);
    return MOX_ERROR_NONE;
}

mox_error_code_e OptionalInt(const Json::Value& root, const char* szKey, int nDefault, int& nValue) {
    nValue = nDefault;
    if (!root.isMember(szKey)) return MOX_ERROR_NONE;
    const Json::Value& value = root[szKey];
    if (!value.isInt()) {
        PARSE_WARN("Library list: \"%s\" is not an integer.", szKey);
        return MOX_ERROR_INVALID_PARAMETER;
    }
    nValue = value.asInt();
    return MOX_ERROR_NONE;
}

mox_error_code_e ParseFilter(const Json::Value& filter, SMOXLibraryQuery& query, bool bMountNamed) {
    if (!filter.isObject()) return Bad("\"mox_library_filter\" is not an object");
    mox_error_code_e eError = MOX_ERROR_NONE;
    for (const std::string& strKey : filter.getMemberNames()) {
        const Json::Value& value = filter[strKey];
        if (strKey == "Artist") {
            eError = FilterText(value, "Artist", query.artist);
        } else if (strKey == "Album") {
            eError = FilterText(value, "Album", query.album);
        } else if (strKey == "Genre") {
            eError = FilterText(value, "Genre", query.genre);
        } else if (strKey == "Month") {
            eError = FilterText(value, "Month", query.month);
            int nYear = 0, nMonth = 0;
            char cEnd = 0;
            if (eError == MOX_ERROR_NONE &&
                (query.month->size() != 7 || sscanf(query.month->c_str(), "%4d-%2d%c", &nYear, &nMonth, &cEnd) != 2 ||
                 nMonth < 1 || nMonth > 12))
                return Bad("filter \"Month\" is not YYYY-MM");
        } else if (strKey == "Year") {
            if (!value.isInt64() || value.asInt64() < 1 || value.asInt64() > 9999)
                return Bad("filter \"Year\" is not a year");
            query.year = value.asInt64();
        } else if (strKey == "Folder") {
            std::optional<std::string> folder;
            eError = FilterText(value, "Folder", folder);
            if (eError != MOX_ERROR_NONE) return eError;
            std::string strRel, strRest;
            size_t nVolume = 0;
            if (!BelowRoot(CMOXUtil::FileNameFromUtf8(*folder), strRel))
                return Bad("filter \"Folder\" is not below the USB root");
            if (!VolumeOf(query.volumes, strRel, nVolume, strRest))
                return Bad(bMountNamed ? "filter \"Folder\" is not on the named volume"
                                       : "filter \"Folder\" is on no mounted volume");
            query.volumes = {query.volumes[nVolume]};
            query.folder = strRest;
        } else {
            PARSE_WARN("Library list: unknown filter \"%.64s\".", CMOXUtil::FileNameToUtf8(strKey).c_str());
            return MOX_ERROR_INVALID_PARAMETER;
        }
        if (eError != MOX_ERROR_NONE) return eError;
    }
    return MOX_ERROR_NONE;
}

// Closes a connection (statements included) on every path.
struct SDbCloser {
    void operator()(sqlite3* p) const { sqlite3_close_v2(p); }
};
using DbPtr = std::unique_ptr<sqlite3, SDbCloser>;
struct SStmtFinalizer {
    void operator()(sqlite3_stmt* p) const { sqlite3_finalize(p); }
};
using StmtPtr = std::unique_ptr<sqlite3_stmt, SStmtFinalizer>;

std::string Column(sqlite3_stmt* pStmt, int nColumn) {
    const void* p = sqlite3_column_blob(pStmt, nColumn);
    const int n = sqlite3_column_bytes(pStmt, nColumn);
    return p == nullptr ? std::string() : std::string(static_cast<const char*>(p), static_cast<size_t>(n));
}

// The same without a copy: valid until the statement moves on.
std::string_view ColumnView(sqlite3_stmt* pStmt, int nColumn) {
    const void* p = sqlite3_column_blob(pStmt, nColumn);
    const int n = sqlite3_column_bytes(pStmt, nColumn);
    return p == nullptr ? std::string_view() : std::string_view(static_cast<const char*>(p), static_cast<size_t>(n));
}

bool IsNull(sqlite3_stmt* pStmt, int nColumn) {
    return sqlite3_column_type(pStmt, nColumn) == SQLITE_NULL;
}

// A URI naming a file read-only (the attached files are never written).
std::string ReadOnlyUri(const std::string& strPath) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const unsigned char c : strPath) {
        if (isalnum(c) || c == '/' || c == '-' || c == '_' || c == '.' || c == '~') {
            uri += static_cast<char>(c);
        } else {
            uri += '%';
            uri += kHex[c >> 4];
            uri += kHex[c & 15];
        }
    }
    return uri + "?mode=ro";
}

int StopHandler(void* pStop) {
    return MoxStopRequested(*static_cast<const bool*>(pStop)) ? 1 : 0;
}

// One read-only connection over the index files of some volumes: a private
// in-memory main database with each usable index attached as "vN"; N is the
// volume's position in the query. A volume whose file does not exist yet,
// or is not an index of this version (being created or rebuilt), is left
// out: it has nothing indexed to show.
class CReadConnection {
public:
    mox_error_code_e Open(const std::vector<SMOXLibraryVolumeState>& volumes, const bool& bStop) {
        sqlite3* p = nullptr;
        if (sqlite3_open_v2(":memory:", &p, SQLITE_OPEN_READWRITE | SQLITE_OPEN_URI | SQLITE_OPEN_NOMUTEX, nullptr) !=
            SQLITE_OK) {
            MOX_WARN("Library list: no SQLite connection (%s).", p ? sqlite3_errmsg(p) : "out of memory");
            sqlite3_close_v2(p);
            return MOX_ERROR_GENERIC;
        }
        m_db.reset(p);
        const size_t nMaxAttached = static_cast<size_t>(sqlite3_limit(p, SQLITE_LIMIT_ATTACHED, -1));
        if (volumes.size() > nMaxAttached) {
            MOX_WARN(
                "Library list: %zu volumes mounted, at most %zu in one list: name one with "
                "\"mox_library_mount\".",
                volumes.size(), nMaxAttached);
            return MOX_ERROR_INVALID_PARAMETER;
        }
        // A reader never waits long: the indexer only holds the WAL index
        // lock for moments.
        sqlite3_busy_timeout(p, 200);
        sqlite3_progress_handler(p, 4096, StopHandler, const_cast<bool*>(&bStop));
        for (size_t i = 0; i < volumes.size(); ++i) {
            const std::string strSchema = "v" + std::to_string(i);
            StmtPtr attach;
            sqlite3_stmt* pStmt = nullptr;
            if (sqlite3_prepare_v2(p, ("ATTACH ?1 AS " + strSchema).c_str(), -1, &pStmt, nullptr) != SQLITE_OK)
                return m_Failed("attach");
            attach.reset(pStmt);
            const std::string uri = ReadOnlyUri(volumes[i].strDbPath);
            sqlite3_bind_text(pStmt, 1, uri.data(), static_cast<int>(uri.size()), SQLITE_TRANSIENT);
            if (sqlite3_step(pStmt) != SQLITE_DONE) {
                MOX_DEBUG("Library list: index of %s not readable yet (%s).", volumes[i].strMountPath.c_str(),
                          sqlite3_errmsg(p));
                continue;
            }
            int64_t nAppId = 0, nVersion = 0, nTables = 0;
            if (!m_Int(("PRAGMA " + strSchema + ".application_id").c_str(), nAppId) ||
                !m_Int(("PRAGMA " + strSchema + ".user_version").c_str(), nVersion) ||
                !m_Int(("SELECT count(*) FROM " + strSchema + ".sqlite_schema WHERE name IN ('items', 'items_fts')")
                           .c_str(),
                       nTables) ||
                nAppId != kApplicationId || nVersion < kOldestSchemaVersion || nVersion > kSchemaVersion ||
                nTables != 2) {
                MOX_DEBUG("Library list: index of %s not usable yet.", volumes[i].strMountPath.c_str());
                sqlite3_exec(p, ("DETACH " + strSchema).c_str(), nullptr, nullptr, nullptr);
                continue;
            }
            // Pages read in place rather than copied by a read() each: a
            // connection lives for one answer, so it never has them cached.
            // Safe to map: the indexer never shrinks an index file (a
            // broken one is renamed aside, a dropped one unlinked).
            sqlite3_exec(p, ("PRAGMA " + strSchema + ".mmap_size = " + std::to_string(kMapBytes)).c_str(), nullptr,
                         nullptr, nullptr);
            m_usable.push_back(i);
        }
        // One snapshot of every file for all the statements of this answer.
        if (sqlite3_exec(p, "BEGIN", nullptr, nullptr, nullptr) != SQLITE_OK) return m_Failed("begin");
        return MOX_ERROR_NONE;
    }
    const std::vector<size_t>& Usable() const { return m_usable; }
    sqlite3* Get() const { return m_db.get(); }
    mox_error_code_e Prepare(const std::string& strSql, StmtPtr& stmt) {
        sqlite3_stmt* p = nullptr;
        if (sqlite3_prepare_v2(m_db.get(), strSql.c_str(), static_cast<int>(strSql.size()), &p, nullptr) != SQLITE_OK) {
            sqlite3_finalize(p);
            return m_Failed("prepare");
        }
        stmt.reset(p);
        return MOX_ERROR_NONE;
    }
    mox_error_code_e StepFailed(int rc) {
        if (rc == SQLITE_INTERRUPT) return MOX_ERROR_GENERIC;  // stopped: nobody waits
        return m_Failed("query");
    }

private:
    bool m_Int(const char* szSql, int64_t& nValue) {
        sqlite3_stmt* p = nullptr;
        bool bOk = sqlite3_prepare_v2(m_db.get(), szSql, -1, &p, nullptr) == SQLITE_OK && sqlite3_step(p) == SQLITE_ROW;
        if (bOk) nValue = sqlite3_column_int64(p, 0);
        sqlite3_finalize(p);
        return bOk;
    }
    mox_error_code_e m_Failed(const char* szWhat) {
        MOX_WARN("Library list: %s failed (%s).", szWhat, sqlite3_errmsg(m_db.get()));
        return MOX_ERROR_GENERIC;
    }

    DbPtr m_db;
    std::vector<size_t> m_usable;
};

// Parameters of every query (the same numbers in each volume's part).
enum EParam : int {
    kMatch = 1,
    kMediaType,
    kArtist,
    kAlbum,
    kGenre,
    kTimeFrom,
    kTimeTo,
    kFolder,
    kLimit,
    kOffset,
};

// Columns of an item row, in this order.
const char* const kItemColumns[] = {
    "rel_path", "file_name", "is_folder", "media_type", "file_size",    "file_time",  "mime_type",
    "title",    "width",     "height",    "date_taken", "orientation",  "latitude",   "longitude",
    "duration", "artist",    "album",     "genre",      "track_number", "generation", "id"};
enum EItemColumn : int {
    kColVol = 0,
    kColRelPath,
    kColFileName,
    kColIsFolder,
    kColMediaType,
    kColFileSize,
    kColFileTime,
    kColMimeType,
    kColTitle,
    kColWidth,
    kColHeight,
    kColDateTaken,
    kColOrientation,
    kColLatitude,
    kColLongitude,
    kColDuration,
    kColArtist,
    kColAlbum,
    kColGenre,
    kColTrackNumber,
    kColGeneration,
};

std::string ItemSelectList(size_t nVolume) {
    std::string out = std::to_string(nVolume) + " AS vol";
    for (const char* szColumn : kItemColumns) {
        out += ", i.";
        out += szColumn;
        out += " AS ";
        out += szColumn;
    }
    return out;
}

// The item object of the row pStmt is on (columns as kItemColumns, after vol).
void AppendItemJson(std::string& item, sqlite3_stmt* pStmt, const std::string& strMount) {
    const std::string_view name = ColumnView(pStmt, kColFileName);
    item += "{\"FileName\":\"";
    AppendJsonText(item, name.data(), name.size());
    item += "\",\"FilePath\":\"";
    AppendPath(item, strMount, ColumnView(pStmt, kColRelPath));
    item += '"';
    AppendInt(item, "FileSize", sqlite3_column_int64(pStmt, kColFileSize));
    AppendInt(item, "FileTime", sqlite3_column_int64(pStmt, kColFileTime));
    const bool bFolder = sqlite3_column_int64(pStmt, kColIsFolder) != 0;
    std::string_view title = ColumnView(pStmt, kColTitle);
    if (IsNull(pStmt, kColTitle)) {
        const size_t nDot = name.rfind('.');
        title = (bFolder || nDot == std::string_view::npos || nDot == 0) ? name : name.substr(0, nDot);
    }
    AppendString(item, "Title", title);
    AppendInt(item, "MediaType", sqlite3_column_int64(pStmt, kColMediaType));
    item += bFolder ? ",\"IsFolder\":true" : ",\"IsFolder\":false";
    static const struct {
        int nColumn;
        const char* szKey;
    } kInts[] = {
        {kColWidth, "Width"}, {kColHeight, "Height"}, {kColDateTaken, "DateTaken"}, {kColOrientation, "Orientation"}};
    for (const auto& field : kInts) {
        if (IsNull(pStmt, field.nColumn)) continue;
        const int64_t nValue = sqlite3_column_int64(pStmt, field.nColumn);
        // A dimension of 0 is the extractor's "not known": left out.
        if (nValue <= 0 && (field.nColumn == kColWidth || field.nColumn == kColHeight)) continue;
        AppendInt(item, field.szKey, nValue);
    }
    for (const auto& field : {std::make_pair(kColLatitude, "Latitude"), std::make_pair(kColLongitude, "Longitude")}) {
        if (IsNull(pStmt, field.first)) continue;
        char sz[64];
        const int n =
            snprintf(sz, sizeof(sz), ",\"%s\":%.10g", field.second, sqlite3_column_double(pStmt, field.first));
        item.append(sz, static_cast<size_t>(n));
    }
    if (!IsNull(pStmt, kColDuration)) AppendInt(item, "Duration", sqlite3_column_int64(pStmt, kColDuration));
    static const struct {
        int nColumn;
        const char* szKey;
    } kTexts[] = {{kColArtist, "Artist"}, {kColAlbum, "Album"}, {kColGenre, "Genre"}};
    for (const auto& field : kTexts)
        if (!IsNull(pStmt, field.nColumn)) AppendString(item, field.szKey, ColumnView(pStmt, field.nColumn));
    if (!IsNull(pStmt, kColTrackNumber)) AppendInt(item, "TrackNumber", sqlite3_column_int64(pStmt, kColTrackNumber));
    if (!IsNull(pStmt, kColMimeType)) AppendString(item, "MimeType", ColumnView(pStmt, kColMimeType));
    AppendInt(item, "Generation", sqlite3_column_int64(pStmt, kColGeneration));
    item += '}';
}

// The conditions of a query on the rows of schema strSchema (alias i).
std::string Conditions(const SMOXLibraryQuery& query, const std::string& strSchema, bool bSearchJoined) {
    std::string cond = "i.is_folder = 0";
    if (query.nMediaType != 0) cond += " AND i.media_type = ?2";
    auto text = [&cond](const std::optional<std::string>& value, const char* szColumn, int nParam) {
        if (!value) return;
        cond += " AND i.";
        cond += szColumn;
        cond += value->empty() ? " IS NULL" : " = ?" + std::to_string(nParam);
    };
    text(query.artist, "artist", kArtist);
    text(query.album, "album", kAlbum);
    text(query.genre, "genre", kGenre);
    if (query.year || query.month)
        cond +=
            " AND coalesce(i.date_taken, i.file_time) >= ?6 AND "
            "coalesce(i.date_taken, i.file_time) < ?7";
    if (query.folder) cond += " AND i.parent = ?8";
    if (query.bSearch && !bSearchJoined)
        cond += " AND i.id IN (SELECT rowid FROM " + strSchema + ".items_fts WHERE items_fts MATCH ?1)";
    return cond;
}

void BindQuery(sqlite3_stmt* pStmt, const SMOXLibraryQuery& query, int64_t nLimit, int64_t nOffset) {
    auto text = [pStmt](int nParam, const std::string& value) {
        sqlite3_bind_text(pStmt, nParam, value.data(), static_cast<int>(value.size()), SQLITE_TRANSIENT);
    };
    if (query.bSearch) text(kMatch, query.strMatch);
    sqlite3_bind_int64(pStmt, kMediaType, query.nMediaType);
    if (query.artist) text(kArtist, *query.artist);
    if (query.album) text(kAlbum, *query.album);
    if (query.genre) text(kGenre, *query.genre);
    if (query.year || query.month) {
        int64_t nFrom = INT64_MIN, nTo = INT64_MAX;
        if (query.year) YearRange(*query.year, 0, nFrom, nTo);
        if (query.month) {
            int nYear = 0, nMonth = 0;
            sscanf(query.month->c_str(), "%4d-%2d", &nYear, &nMonth);
            int64_t nMonthFrom = 0, nMonthTo = 0;
            YearRange(nYear, nMonth, nMonthFrom, nMonthTo);
            nFrom = std::max(nFrom, nMonthFrom);
            nTo = std::min(nTo, nMonthTo);
        }
        sqlite3_bind_int64(pStmt, kTimeFrom, nFrom);
        sqlite3_bind_int64(pStmt, kTimeTo, nTo);
    }
    if (query.folder)
        sqlite3_bind_blob(pStmt, kFolder, query.folder->data(), static_cast<int>(query.folder->size()),
                          SQLITE_TRANSIENT);
    sqlite3_bind_int64(pStmt, kLimit, nLimit);
    sqlite3_bind_int64(pStmt, kOffset, nOffset);
}

mox_error_code_e ListItems(CReadConnection& db, const SMOXLibraryQuery& query, const bool& bStop,
                           SMOXLibraryItems& items, int& nTotal) {
    std::string strCount = "SELECT 0";
    std::string strList;
    for (size_t nVolume : db.Usable()) {
        const std::string strSchema = "v" + std::to_string(nVolume);
        std::string from = strSchema + ".items AS i";
        std::string strSelect = ItemSelectList(nVolume);
        if (query.bSearch) {
            from = strSchema + ".items_fts AS f JOIN " + strSchema + ".items AS i ON i.id = f.rowid";
            strSelect += ", f.rank AS rank";
        }
        std::string cond = Conditions(query, strSchema, query.bSearch);
        if (query.bSearch) cond += " AND f.items_fts MATCH ?1";
        strCount += " + (SELECT count(*) FROM " + from + " WHERE " + cond + ")";
        if (!strList.empty()) strList += " UNION ALL ";
        strList += "SELECT " + strSelect + " FROM " + from + " WHERE " + cond;
    }
    if (strList.empty()) return MOX_ERROR_NONE;  // nothing indexed yet
    // Ties are broken the same way every time, so windows read one after
    // another neither repeat nor skip an item.
    // With one volume "vol" is a constant, which SQLite would still sort by
    // (the index gives key, then row id, order by itself).
    const bool bSeveral = db.Usable().size() > 1;
    const char* szDir = query.bDescending ? " DESC" : "";
    const std::string tie = bSeveral ? std::string(", vol") + szDir + ", id" + szDir : std::string(", id") + szDir;
    std::string order;
    if (!query.strSortKey.empty())
        order = std::string(SortColumn(query.eView, query.strSortKey)) + szDir + tie;
    else if (query.bSearch)
        order = bSeveral ? "rank, vol, id" : "rank, id";
    else if (query.album)
        order = bSeveral ? "track_number, file_name, vol, id" : "track_number, file_name, id";
    else
        order = bSeveral ? "file_name, vol, id" : "file_name, id";
    strList += " ORDER BY " + order + " LIMIT ?9 OFFSET ?10";
    // The whole answer counts itself; a window needs the count first.
    const bool bWhole = query.nStart == 0 && query.nEnd < 0;
    int rc = SQLITE_OK;
    mox_error_code_e eError = MOX_ERROR_NONE;
    if (!bWhole) {
        StmtPtr count;
        eError = db.Prepare(strCount, count);
        if (eError != MOX_ERROR_NONE) return eError;
        BindQuery(count.get(), query, -1, 0);
        rc = sqlite3_step(count.get());
        if (rc != SQLITE_ROW) return db.StepFailed(rc);
        const int64_t nAll = sqlite3_column_int64(count.get(), 0);
        nTotal = static_cast<int>(std::min<int64_t>(nAll, INT32_MAX));
        if (nTotal == 0) return MOX_ERROR_NONE;
        if (query.nStart >= nTotal) {
            MOX_WARN("Library list: window start %d beyond the %d items.", query.nStart, nTotal);
            return MOX_ERROR_INVALID_PARAMETER;
        }
    }
    StmtPtr list;
    eError = db.Prepare(strList, list);
    if (eError != MOX_ERROR_NONE) return eError;
    const int64_t nLimit = query.nEnd < 0 ? -1 : static_cast<int64_t>(query.nEnd) - query.nStart + 1;
    BindQuery(list.get(), query, nLimit, query.nStart);
    while ((rc = sqlite3_step(list.get())) == SQLITE_ROW) {
        if (MoxStopRequested(bStop)) return MOX_ERROR_GENERIC;
        const size_t nVolume = static_cast<size_t>(sqlite3_column_int64(list.get(), kColVol));
        if (nVolume >= query.volumes.size()) return MOX_ERROR_GENERIC;
        const size_t nBefore = items.data.size();
        AppendItemJson(items.data, list.get(), query.volumes[nVolume].strMountPath);
        if (!items.Added(nBefore)) return MOX_ERROR_GENERIC;
    }
    if (rc != SQLITE_DONE) return db.StepFailed(rc);
    if (bWhole) nTotal = static_cast<int>(items.lengths.size());
    return MOX_ERROR_NONE;
}

std::string HexLiteral(const std::string& bytes) {
    static const char kHex[] = "0123456789ABCDEF";
    std::string out = "X'";
    for (const unsigned char c : bytes) {
        out += kHex[c >> 4];
        out += kHex[c & 15];
    }
    return out + "'";
}

const char* GroupExpression(EMOXLibraryView eView);

// The group of a row in schema volume nVolume: a folder is named by its
// absolute path (unique across volumes, sorted as paths).
std::string GroupOf(const SMOXLibraryQuery& query, size_t nVolume) {
    if (query.eView != EMOXLibraryView::kFolders) return GroupExpression(query.eView);
    const std::string& strMount = query.volumes[nVolume].strMountPath;
    return "CASE WHEN i.parent = X'' THEN CAST(" + HexLiteral(strMount) + " AS BLOB) ELSE CAST(" +
           HexLiteral(strMount + "/") + " || i.parent AS BLOB) END";
}

const char* GroupExpression(EMOXLibraryView eView) {
    switch (eView) {
        case EMOXLibraryView::kFolders: return nullptr;  // per volume, see GroupOf
        case EMOXLibraryView::kAlbums: return "i.album";
        case EMOXLibraryView::kArtists: return "i.artist";
        case EMOXLibraryView::kGenres: return "i.genre";
        case EMOXLibraryView::kYears: return "strftime('%Y', coalesce(i.date_taken, i.file_time), 'unixepoch')";
        case EMOXLibraryView::kMonths: return "strftime('%Y-%m', coalesce(i.date_taken, i.file_time), 'unixepoch')";
        default: return nullptr;
    }
}

mox_error_code_e ListGroups(CReadConnection& db, const SMOXLibraryQuery& query, const bool& bStop,
                            SMOXLibraryItems& items, int& nTotal) {
    std::string strArms;
    for (size_t nVolume : db.Usable()) {
        const std::string strSchema = "v" + std::to_string(nVolume);
        if (!strArms.empty()) strArms += " UNION ALL ";
        strArms += "SELECT " + std::to_string(nVolume) +
                   " AS vol, i.id AS id, i.rel_path AS rel_path, i.file_name AS file_name, i.track_number AS "
                   "track_number, " +
                   GroupOf(query, nVolume) + " AS g FROM " + strSchema + ".items AS i WHERE " +
                   Conditions(query, strSchema, false);
    }
    if (strArms.empty()) return MOX_ERROR_NONE;
    const bool bFolders = query.eView == EMOXLibraryView::kFolders;
    // The cover is the group's first item in the view's default order.
    const char* szCover =
        query.eView == EMOXLibraryView::kAlbums ? "track_number, file_name, vol, id" : "file_name, vol, id";
    const char* szDir = query.bDescending ? " DESC" : "";
    std::string order = "g, vol";
    if (query.strSortKey == "GroupName")
        order = std::string("g") + szDir + ", vol" + szDir;
    else if (query.strSortKey == "Count")
        order = std::string("cnt") + szDir + ", g, vol";
    const std::string strSql = std::string("SELECT g, cnt, vol, rel_path FROM (SELECT g, vol, rel_path, ") +
                               "count(*) OVER w AS cnt, row_number() OVER (w ORDER BY " + szCover + ") AS rn FROM (" +
                               strArms + ") WINDOW w AS (PARTITION BY " + "g)) WHERE rn = 1 ORDER BY " + order;
    StmtPtr stmt;
    mox_error_code_e eError = db.Prepare(strSql, stmt);
    if (eError != MOX_ERROR_NONE) return eError;
    BindQuery(stmt.get(), query, -1, 0);
    int rc;
    int64_t nRow = 0;
    while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
        if (MoxStopRequested(bStop)) return MOX_ERROR_GENERIC;
        const int64_t nIndex = nRow++;
        if (nIndex < query.nStart || (query.nEnd >= 0 && nIndex > query.nEnd)) continue;
        const size_t nVolume = static_cast<size_t>(sqlite3_column_int64(stmt.get(), 2));
        if (nVolume >= query.volumes.size()) return MOX_ERROR_GENERIC;
        const std::string& strMount = query.volumes[nVolume].strMountPath;
        const std::string strGroup = Column(stmt.get(), 0);
        const size_t nBefore = items.data.size();
        std::string& item = items.data;
        item += "{\"GroupName\":\"";
        if (bFolders) {
            const std::string strPath = CMOXUtil::FileNameToUtf8(strGroup);
            AppendJsonText(item, strPath.data(), strPath.size());
        } else {
            AppendJsonText(item, strGroup.data(), strGroup.size());
        }
        item += '"';
        AppendInt(item, "Count", sqlite3_column_int64(stmt.get(), 1));
        AppendString(item, "Cover", PathText(strMount, Column(stmt.get(), 3)));
        item += '}';
        if (!items.Added(nBefore)) return MOX_ERROR_GENERIC;
    }
    if (rc != SQLITE_DONE) return db.StepFailed(rc);
    nTotal = static_cast<int>(std::min<int64_t>(nRow, INT32_MAX));
    if (nTotal > 0 && query.nStart >= nTotal) {
        MOX_WARN("Library list: window start %d beyond the %d groups.", query.nStart, nTotal);
        items = SMOXLibraryItems();
        return MOX_ERROR_INVALID_PARAMETER;
    }
    return MOX_ERROR_NONE;
}

}  // namespace

bool SMOXLibraryItems::Added(size_t nBefore) {
    if (data.size() > kMaxBytes) {
        MOX_WARN("Library list: an answer above %zu bytes is refused; ask for windows.", kMaxBytes);
        return false;
    }
    lengths.push_back(static_cast<int32_t>(data.size() - nBefore));
    return true;
}

std::string MoxLibraryMatchExpression(const std::string& strText, size_t& nWords) {
    // Words: runs of letters and digits; every byte of a valid multi-byte
    // character counts as a letter (the tokenizer decides the rest inside
    // the quotes). Invalid bytes, ASCII punctuation and blanks separate.
    std::vector<std::string> tokens;
    std::string token;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(strText.data());
    const size_t n = strText.size();
    for (size_t i = 0; i <= n;) {
        size_t nSeq = 0;
        if (i < n) {
            if (p[i] < 0x80)
                nSeq = isalnum(p[i]) ? 1 : 0;
            else
                nSeq = Utf8Sequence(p + i, n - i);
        }
        if (nSeq > 0) {
            token.append(strText, i, nSeq);
            i += nSeq;
            continue;
        }
        if (!token.empty()) tokens.push_back(token);
        token.clear();
        ++i;
    }
    nWords = tokens.size();
    std::string expression;
    for (const std::string& word : tokens) {
        if (!expression.empty()) expression += ' ';
        expression += '"' + word + "\"*";  // a word never holds a quote
    }
    return expression;
}

mox_error_code_e SMOXLibraryQuery::Parse(const std::string& strDocument, SMOXLibraryQuery& query, bool bQuiet) {
    struct SQuiet {
        explicit SQuiet(bool b) { t_bQuiet = b; }
        ~SQuiet() { t_bQuiet = false; }
    } quiet(bQuiet);
    query = SMOXLibraryQuery();
    CJsonValue doc(strDocument);
    if (!doc.IsValid() || !doc.Root().isObject()) return Bad("the document is not a JSON object");
    const Json::Value& root = doc.Root();

    if (root.isMember("mox_library_view")) {
        const Json::Value& view = root["mox_library_view"];
        static const struct {
            const char* szName;
            EMOXLibraryView eView;
        } kViews[] = {{"items", EMOXLibraryView::kItems},     {"volumes", EMOXLibraryView::kVolumes},
                      {"folders", EMOXLibraryView::kFolders}, {"albums", EMOXLibraryView::kAlbums},
                      {"artists", EMOXLibraryView::kArtists}, {"genres", EMOXLibraryView::kGenres},
                      {"years", EMOXLibraryView::kYears},     {"months", EMOXLibraryView::kMonths}};
        bool bKnown = false;
        for (const auto& known : kViews) {
            if (view.isString() && view.asString() == known.szName) {
                query.eView = known.eView;
                bKnown = true;
            }
        }
        if (!bKnown) return Bad("unknown \"mox_library_view\"");
    }

    std::vector<SMOXLibraryVolumeState> volumes;
    if (!CMOXLibraryState::Volumes(volumes)) {
        PARSE_WARN("Library list: no media library runs.");
        return MOX_ERROR_NOT_READY;
    }
    const bool bMountNamed = root.isMember("mox_library_mount");
    if (bMountNamed) {
        const Json::Value& mount = root["mox_library_mount"];
        if (!mount.isString() || mount.asString().size() > kMaxText) return Bad("\"mox_library_mount\" is not a path");
        std::string strRel, strRest;
        size_t nVolume = 0;
        if (!BelowRoot(CMOXUtil::FileNameFromUtf8(mount.asString()), strRel))
            return Bad("\"mox_library_mount\" is not below the USB root");
        if (!VolumeOf(volumes, strRel, nVolume, strRest) || !strRest.empty())
            return Bad("\"mox_library_mount\" names no mounted volume");
        query.volumes = {volumes[nVolume]};
    } else {
        query.volumes = std::move(volumes);
    }

    // Tags belong to music: its views list music unless a type is named.
    const bool bMusicView = query.eView == EMOXLibraryView::kAlbums || query.eView == EMOXLibraryView::kArtists ||
                            query.eView == EMOXLibraryView::kGenres;
    int nMediaType = 0;
    mox_error_code_e eError = OptionalInt(root, "mox_media_type", bMusicView ? 5 : 0, nMediaType);
    if (eError != MOX_ERROR_NONE) return eError;
    if (nMediaType == 15) nMediaType = 0;
    if (nMediaType != 0 && nMediaType != 2 && nMediaType != 3 && nMediaType != 5 && nMediaType != 6)
        return Bad("unknown \"mox_media_type\"");
    query.nMediaType = nMediaType;

    if (root.isMember("mox_library_filter")) {
        if (query.eView == EMOXLibraryView::kVolumes) return Bad("the \"volumes\" view takes no filter");
        eError = ParseFilter(root["mox_library_filter"], query, bMountNamed);
        if (eError != MOX_ERROR_NONE) return eError;
    }

    if (root.isMember("mox_library_search")) {
        const Json::Value& search = root["mox_library_search"];
        if (query.eView == EMOXLibraryView::kVolumes) return Bad("the \"volumes\" view takes no search");
        if (!search.isString()) return Bad("\"mox_library_search\" is not a string");
        if (search.asString().size() > kMaxText) return Bad("\"mox_library_search\" above 4096 bytes");
        size_t nWords = 0;
        query.strMatch = MoxLibraryMatchExpression(search.asString(), nWords);
        query.bSearch = true;
        if (nWords > kMaxTokens) return Bad("\"mox_library_search\" above 32 words");
        if (query.strMatch.empty()) {
            if (!t_bQuiet) MOX_INFO("Library search without a word: nothing matches.");
            return MOX_ERROR_FAILED_RESULT;
        }
    }

    if (root.isMember("SortedKey")) {
        const Json::Value& key = root["SortedKey"];
        if (!key.isString() || SortColumn(query.eView, key.asString()) == nullptr)
            return Bad("unknown \"SortedKey\" for this view");
        int nType = 1;
        eError = OptionalInt(root, "SortedType", 1, nType);
        if (eError != MOX_ERROR_NONE) return eError;
        if (nType != 1 && nType != 2) return Bad("\"SortedType\" is neither 1 nor 2");
        query.strSortKey = key.asString();
        query.bDescending = nType == 2;
    }

    if ((eError = OptionalInt(root, "mox_start_index", 0, query.nStart)) != MOX_ERROR_NONE ||
        (eError = OptionalInt(root, "mox_end_index", -1, query.nEnd)) != MOX_ERROR_NONE)
        return eError;
    if (query.nStart < 0 || query.nEnd < -1 || (query.nEnd != -1 && query.nEnd < query.nStart))
        return Bad("bad window");
    return MOX_ERROR_NONE;
}

mox_error_code_e CMOXLibraryReader::List(const SMOXLibraryQuery& query, const bool& bStop, SMOXLibraryItems& items,
                                         int& nTotal) {
    items = SMOXLibraryItems();
    nTotal = 0;
    if (query.eView == EMOXLibraryView::kVolumes) {
        const int nCount = static_cast<int>(query.volumes.size());
        if (nCount > 0 && query.nStart >= nCount) {
            MOX_WARN("Library list: window start %d beyond the %d volumes.", query.nStart, nCount);
            return MOX_ERROR_INVALID_PARAMETER;
        }
        for (int i = query.nStart; i < nCount && (query.nEnd < 0 || i <= query.nEnd); ++i) {
            const size_t nBefore = items.data.size();
            items.data += query.volumes[static_cast<size_t>(i)].strStatus;
            if (!items.Added(nBefore)) return MOX_ERROR_GENERIC;
        }
        nTotal = nCount;
        return MOX_ERROR_NONE;
    }
    CReadConnection db;
    mox_error_code_e eError = db.Open(query.volumes, bStop);
    if (eError != MOX_ERROR_NONE) return eError;
    if (query.eView == EMOXLibraryView::kItems) return ListItems(db, query, bStop, items, nTotal);
    return ListGroups(db, query, bStop, items, nTotal);
}

mox_error_code_e CMOXLibraryReader::Detail(const std::string& strPath, std::string& strItem) {
    strItem.clear();
    std::vector<SMOXLibraryVolumeState> volumes;
    if (!CMOXLibraryState::Volumes(volumes)) {
        MOX_WARN("Library detail: no media library runs.");
        return MOX_ERROR_NOT_READY;
    }
    std::string strRel, strRest;
    size_t nVolume = 0;
    if (strPath.size() > kMaxText || !BelowRoot(strPath, strRel) || !VolumeOf(volumes, strRel, nVolume, strRest) ||
        strRest.empty()) {
        MOX_WARN("Library detail: %.256s is in no mounted volume.", CMOXUtil::FileNameToUtf8(strPath).c_str());
        return MOX_ERROR_INVALID_PARAMETER;
    }
    const bool bNeverStop = false;
    CReadConnection db;
    std::vector<SMOXLibraryVolumeState> one = {volumes[nVolume]};
    mox_error_code_e eError = db.Open(one, bNeverStop);
    if (eError != MOX_ERROR_NONE) return eError;
    if (db.Usable().empty()) return MOX_ERROR_DETAIL_NOT_FOUND;
    StmtPtr stmt;
    eError = db.Prepare("SELECT " + ItemSelectList(0) + " FROM v0.items AS i WHERE i.rel_path = ?1", stmt);
    if (eError != MOX_ERROR_NONE) return eError;
    sqlite3_bind_blob(stmt.get(), 1, strRest.data(), static_cast<int>(strRest.size()), SQLITE_TRANSIENT);
    const int rc = sqlite3_step(stmt.get());
    if (rc == SQLITE_DONE) return MOX_ERROR_DETAIL_NOT_FOUND;
    if (rc != SQLITE_ROW) return db.StepFailed(rc);
    AppendItemJson(strItem, stmt.get(), volumes[nVolume].strMountPath);
    return MOX_ERROR_NONE;
}
