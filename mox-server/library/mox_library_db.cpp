#define MOX_LOG_TAG "MOX-LIBRARY"
#include <mox/mox_log.h>

#include "mox_library_db.h"

#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

namespace {

const char* const kSchema = R"SQL(
CREATE TABLE volume(key TEXT PRIMARY KEY, value) WITHOUT ROWID;
CREATE TABLE items(
  id INTEGER PRIMARY KEY,
  rel_path BLOB NOT NULL UNIQUE,
  parent BLOB NOT NULL,
  file_name TEXT NOT NULL,
  is_folder INTEGER NOT NULL,
  media_type INTEGER NOT NULL,
  state INTEGER NOT NULL,
  file_size INTEGER NOT NULL,
  file_time INTEGER NOT NULL,
  mime_type TEXT, title TEXT,
  width INTEGER, height INTEGER, date_taken INTEGER, orientation INTEGER,
  latitude REAL, longitude REAL, duration INTEGER,
  artist TEXT, album TEXT, genre TEXT, track_number INTEGER,
  generation INTEGER NOT NULL);
CREATE INDEX items_date ON items(media_type, date_taken);
CREATE INDEX items_time ON items(media_type, file_time);
CREATE INDEX items_title ON items(media_type, title);
CREATE INDEX items_name ON items(media_type, file_name);
CREATE INDEX items_artist ON items(artist, album, track_number);
CREATE INDEX items_album ON items(album, track_number, file_name);
CREATE INDEX items_genre ON items(genre);
CREATE INDEX items_pending ON items(id) WHERE state = 0;
CREATE VIRTUAL TABLE items_fts USING fts5(title, artist, album, file_name, content='items',
  content_rowid='id', tokenize='unicode61 remove_diacritics 2');
)SQL";

// A folder's rows in the reader's order; it also covers what the walk
// compares (name, size, time, state), so a re-plug reads no row of the
// table itself: about half of the rows' cost, the table's rows being wide.
// Version 1 indexed only the first three columns.
const char* const kParentIndex =
    "CREATE INDEX items_parent ON items(parent, is_folder, file_name, rel_path, file_size, file_time, state, "
    "media_type)";

// The text index follows the rows through a log of this connection, applied
// to it in one statement at each commit. Triggers that wrote the index
// directly made each row's statement open a savepoint on it, and FTS5 writes
// its pending terms out as a new segment at every savepoint: a segment and
// its merges per row instead of one per commit. The log's triggers are
// temporary (a connection's own); files made before keep triggers of that
// kind in their schema, which are dropped at open.
const char* const kTextLog = R"SQL(
CREATE TEMP TABLE items_fts_log(seq INTEGER PRIMARY KEY, op TEXT, id INTEGER, title, artist, album, file_name);
CREATE TEMP TRIGGER items_ai AFTER INSERT ON main.items BEGIN
  INSERT INTO items_fts_log(op, id, title, artist, album, file_name)
    VALUES (NULL, new.id, new.title, new.artist, new.album, new.file_name);
END;
CREATE TEMP TRIGGER items_ad AFTER DELETE ON main.items BEGIN
  INSERT INTO items_fts_log(op, id, title, artist, album, file_name)
    VALUES ('delete', old.id, old.title, old.artist, old.album, old.file_name);
END;
CREATE TEMP TRIGGER items_au AFTER UPDATE OF title, artist, album, file_name ON main.items
  WHEN old.title IS NOT new.title OR old.artist IS NOT new.artist OR old.album IS NOT new.album
    OR old.file_name IS NOT new.file_name BEGIN
  INSERT INTO items_fts_log(op, id, title, artist, album, file_name)
    VALUES ('delete', old.id, old.title, old.artist, old.album, old.file_name);
  INSERT INTO items_fts_log(op, id, title, artist, album, file_name)
    VALUES (NULL, new.id, new.title, new.artist, new.album, new.file_name);
END;
)SQL";

void BindOptional(mox_sql::CMOXSqliteStmt& stmt, int nIndex, const std::optional<int64_t>& value) {
    if (value)
        stmt.BindInt(nIndex, *value);
    else
        stmt.BindNull(nIndex);
}

void BindOptional(mox_sql::CMOXSqliteStmt& stmt, int nIndex, const std::optional<double>& value) {
    if (value)
        stmt.BindDouble(nIndex, *value);
    else
        stmt.BindNull(nIndex);
}

void BindText(mox_sql::CMOXSqliteStmt& stmt, int nIndex, const std::string& text) {
    if (text.empty())
        stmt.BindNull(nIndex);
    else
        stmt.BindText(nIndex, text);
}

// Runs a prepared statement that returns no rows; SQLITE_DONE becomes OK.
int Run(mox_sql::CMOXSqliteStmt& stmt) {
    const int rc = stmt.Step();
    stmt.Reset();
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

}  // namespace

CMOXLibraryDb::EOpen CMOXLibraryDb::Open(const std::string& path, const std::string& strVolumeId) {
    bool bCreated = false;
    std::string why;
    if (m_OpenChecked(path, strVolumeId, bCreated, why)) return bCreated ? EOpen::kCreated : EOpen::kOpened;
    Close();
    // What cannot be read as this volume's index is kept for a look, once,
    // and rebuilt from the storage.
    const std::string aside = path + ".broken";
    MOX_WARN("library index %s unusable (%s): moved aside to %s, rebuilding.", path.c_str(), why.c_str(),
             aside.c_str());
    if (rename(path.c_str(), aside.c_str()) != 0 && remove(path.c_str()) != 0) {
        MOX_WARN("cannot move %s aside.", path.c_str());
        return EOpen::kFailed;
    }
    remove((path + "-wal").c_str());
    remove((path + "-shm").c_str());
    if (!m_OpenChecked(path, strVolumeId, bCreated, why)) {
        MOX_WARN("library index %s cannot be created (%s).", path.c_str(), why.c_str());
        Close();
        return EOpen::kFailed;
    }
    return EOpen::kRebuilt;
}

void CMOXLibraryDb::MoveAside() {
    Close();
    if (m_strPath.empty()) return;
    const std::string aside = m_strPath + ".broken";
    MOX_WARN("library index %s found corrupt while in use: moved aside to %s, rebuilt on the next mount.",
             m_strPath.c_str(), aside.c_str());
    if (rename(m_strPath.c_str(), aside.c_str()) != 0) remove(m_strPath.c_str());
    remove((m_strPath + "-wal").c_str());
    remove((m_strPath + "-shm").c_str());
}

void CMOXLibraryDb::Close() {
    m_folder = {};
    m_lookup = {};
    m_insert = {};
    m_updateBasic = {};
    m_storeFields = {};
    m_pending = {};
    m_deleteId = {};
    m_setMeta = {};
    m_ids = {};
    m_applyLog = {};
    m_clearLog = {};
    m_db.Close();
}

bool CMOXLibraryDb::m_OpenChecked(const std::string& path, const std::string& strVolumeId, bool& bCreated,
                                  std::string& why) {
    Close();
    m_strPath = path;
    // A log with frames left behind: the last run did not end cleanly (a
    // clean close checkpoints and removes it; a reader of a closed index
    // leaves an empty one).
    struct stat st;
    const bool bUnclean = lstat((path + "-wal").c_str(), &st) == 0 && st.st_size > 0;
    if (m_db.Open(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX) !=
        SQLITE_OK) {
        why = m_db.LastError();
        return false;
    }
    sqlite3_busy_timeout(m_db.Get(), 2000);
    int64_t nAppId = 0, nVersion = 0, nTables = 0;
    // Reading the header is where garbage and truncation show first.
    if (!m_db.QueryInt("PRAGMA application_id", nAppId) || !m_db.QueryInt("PRAGMA user_version", nVersion) ||
        !m_db.QueryInt("SELECT count(*) FROM sqlite_schema", nTables)) {
        why = m_db.LastError();
        return false;
    }
    bCreated = nTables == 0 && nAppId == 0 && nVersion == 0;
    if (!bCreated && (nAppId != kApplicationId || nVersion < kOldestSchemaVersion || nVersion > kSchemaVersion)) {
        why = "not a library index of version " + std::to_string(kOldestSchemaVersion) + " to " +
              std::to_string(kSchemaVersion);
        return false;
    }
    // WAL with synchronous=NORMAL: a commit is not synced (only checkpoints
    // are) and stays atomic; a power cut loses at most the last commits. A
    // 4 MiB page cache holds the indices' hot pages of a big volume. The
    // statement journals of updates that fire the text index's triggers stay
    // in memory: in a temporary file they wrote every touched page again.
    if (m_db.Exec("PRAGMA journal_mode=WAL") != SQLITE_OK || m_db.Exec("PRAGMA synchronous=NORMAL") != SQLITE_OK ||
        m_db.Exec("PRAGMA cache_size=-4096") != SQLITE_OK || m_db.Exec("PRAGMA temp_store=MEMORY") != SQLITE_OK) {
        why = m_db.LastError();
        return false;
    }
    if (bCreated) {
        if (!m_CreateSchema(strVolumeId)) {
            why = m_db.LastError();
            return false;
        }
    } else if (bUnclean) {
        mox_sql::CMOXSqliteStmt check;
        if (m_db.Prepare("PRAGMA quick_check", check) != SQLITE_OK || check.Step() != SQLITE_ROW ||
            check.Bytes(0) != "ok") {
            why = "integrity check failed";
            return false;
        }
    }
    if (!bCreated && nVersion < kSchemaVersion && !m_Migrate()) {
        why = "cannot be brought to version " + std::to_string(kSchemaVersion) + ": " + m_db.LastError();
        return false;
    }
    if (!m_TextLog() || !m_Prepare()) {
        why = m_db.LastError();
        return false;
    }
    mox_sql::CMOXSqliteStmt meta;
    if (m_db.Prepare("SELECT value FROM volume WHERE key = 'volume_id'", meta) != SQLITE_OK ||
        meta.Step() != SQLITE_ROW || meta.Bytes(0) != strVolumeId) {
        why = "index of another volume";
        return false;
    }
    if (!m_db.QueryInt("SELECT value FROM volume WHERE key = 'generation'", m_nGeneration)) {
        why = "no generation";
        return false;
    }
    return true;
}

bool CMOXLibraryDb::m_CreateSchema(const std::string& strVolumeId) {
    // The schema is only trusted once the whole script committed.
    if (m_db.Exec("BEGIN") != SQLITE_OK) return false;
    if (m_db.Exec(kSchema) != SQLITE_OK || m_db.Exec(kParentIndex) != SQLITE_OK) {
        m_db.Exec("ROLLBACK");
        return false;
    }
    char szPragmas[128];
    snprintf(szPragmas, sizeof(szPragmas), "PRAGMA application_id=%d; PRAGMA user_version=%d;", kApplicationId,
             kSchemaVersion);
    mox_sql::CMOXSqliteStmt id;
    bool bOk = m_db.Exec(szPragmas) == SQLITE_OK &&
               m_db.Exec("INSERT INTO volume VALUES ('generation', 0)") == SQLITE_OK &&
               m_db.Prepare("INSERT INTO volume VALUES ('volume_id', ?1)", id) == SQLITE_OK;
    if (bOk) {
        id.BindText(1, strVolumeId);
        bOk = Run(id) == SQLITE_OK;
    }
    if (!bOk) {
        m_db.Exec("ROLLBACK");
        return false;
    }
    return m_db.Exec("COMMIT") == SQLITE_OK;
}

bool CMOXLibraryDb::m_Migrate() {
    // Rows and generation stay: nothing is extracted again. Version 1 differs
    // only by the narrower folder index.
    char szVersion[64];
    snprintf(szVersion, sizeof(szVersion), "PRAGMA user_version=%d", kSchemaVersion);
    if (m_db.Exec("BEGIN IMMEDIATE") != SQLITE_OK) return false;
    if (m_db.Exec("DROP INDEX IF EXISTS items_parent") != SQLITE_OK || m_db.Exec(kParentIndex) != SQLITE_OK ||
        m_db.Exec(szVersion) != SQLITE_OK || m_db.Exec("COMMIT") != SQLITE_OK) {
        m_db.Exec("ROLLBACK");
        return false;
    }
    MOX_INFO("library index %s brought to version %d.", m_strPath.c_str(), kSchemaVersion);
    return true;
}

bool CMOXLibraryDb::m_TextLog() {
    int64_t nOld = 0;
    if (!m_db.QueryInt("SELECT count(*) FROM main.sqlite_schema WHERE type = 'trigger'", nOld)) return false;
    if (nOld > 0) {
        if (m_db.Exec("BEGIN IMMEDIATE") != SQLITE_OK) return false;
        if (m_db.Exec("DROP TRIGGER IF EXISTS main.items_ai; DROP TRIGGER IF EXISTS main.items_ad; "
                      "DROP TRIGGER IF EXISTS main.items_au") != SQLITE_OK ||
            m_db.Exec("COMMIT") != SQLITE_OK) {
            m_db.Exec("ROLLBACK");
            return false;
        }
    }
    return m_db.Exec(kTextLog) == SQLITE_OK &&
           m_db.Prepare(
               "INSERT INTO main.items_fts(items_fts, rowid, title, artist, album, file_name) "
               "SELECT op, id, title, artist, album, file_name FROM items_fts_log ORDER BY seq",
               m_applyLog) == SQLITE_OK &&
           m_db.Prepare("DELETE FROM items_fts_log", m_clearLog) == SQLITE_OK;
}

int CMOXLibraryDb::Commit() {
    int rc = Run(m_applyLog);
    if (rc == SQLITE_OK) rc = Run(m_clearLog);
    return rc == SQLITE_OK ? m_db.Exec("COMMIT") : rc;
}

bool CMOXLibraryDb::m_Prepare() {
    if (m_db.Prepare("INSERT INTO volume(key, value) VALUES (?1, ?2) ON CONFLICT(key) DO UPDATE SET value = ?2",
                     m_setMeta) != SQLITE_OK)
        return false;
    return m_db.Prepare(
               "SELECT id, file_size, file_time, state, media_type, is_folder, rel_path FROM items WHERE parent = ?1",
               m_folder) == SQLITE_OK &&
           m_db.Prepare("SELECT id, file_size, file_time, state, media_type, is_folder FROM items WHERE rel_path = ?1",
                        m_lookup) == SQLITE_OK &&
           m_db.Prepare(
               "INSERT INTO items(rel_path, parent, file_name, is_folder, media_type, file_size, file_time, "
               "state, generation, mime_type, title) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)",
               m_insert) == SQLITE_OK &&
           m_db.Prepare("UPDATE items SET file_size = ?2, file_time = ?3, state = ?4, generation = ?5 WHERE id = ?1",
                        m_updateBasic) == SQLITE_OK &&
           m_db.Prepare(
               "UPDATE items SET state = ?2, generation = ?3, mime_type = ?4, title = ?5, width = ?6, "
               "height = ?7, date_taken = ?8, orientation = ?9, latitude = ?10, longitude = ?11, "
               "duration = ?12, artist = ?13, album = ?14, genre = ?15, track_number = ?16 WHERE id = ?1",
               m_storeFields) == SQLITE_OK &&
           m_db.Prepare(
               "SELECT id, rel_path, file_name, media_type, file_size, file_time FROM items "
               "WHERE state = 0 AND id > ?1 ORDER BY id LIMIT ?2",
               m_pending) == SQLITE_OK &&
           m_db.Prepare("DELETE FROM items WHERE id = ?1", m_deleteId) == SQLITE_OK &&
           m_db.Prepare("SELECT id, rel_path FROM items WHERE id > ?1 ORDER BY id LIMIT ?2", m_ids) == SQLITE_OK;
}

int CMOXLibraryDb::SetGeneration(int64_t nGeneration) {
    m_setMeta.BindText(1, "generation");
    m_setMeta.BindInt(2, nGeneration);
    return Run(m_setMeta);
}

int CMOXLibraryDb::SetMeta(const char* szKey, const std::string& strValue) {
    m_setMeta.BindText(1, szKey);
    m_setMeta.BindText(2, strValue);
    return Run(m_setMeta);
}

void CMOXFolderRows::Clear() {
    m_names.clear();
    m_items.clear();
}

void CMOXFolderRows::Add(std::string_view name, const SMOXLibraryRow& row) {
    Item item;
    item.nName = static_cast<uint32_t>(m_names.size());
    item.nLength = static_cast<uint32_t>(name.size());
    item.row = row;
    m_names.append(name.data(), name.size());
    m_items.push_back(item);
}

void CMOXFolderRows::Sort() {
    std::sort(m_items.begin(), m_items.end(), [this](const Item& a, const Item& b) { return NameOf(a) < NameOf(b); });
}

const SMOXLibraryRow* CMOXFolderRows::Find(std::string_view name) const {
    const auto found = std::lower_bound(m_items.begin(), m_items.end(), name,
                                        [this](const Item& item, std::string_view key) { return NameOf(item) < key; });
    return found != m_items.end() && NameOf(*found) == name ? &found->row : nullptr;
}

int CMOXLibraryDb::FolderRows(std::string_view strParent, CMOXFolderRows& out) {
    out.Clear();
    m_folder.BindBlob(1, strParent);
    const size_t nSkip = strParent.empty() ? 0 : strParent.size() + 1;
    int rc;
    SMOXLibraryRow row;
    while ((rc = m_folder.Step()) == SQLITE_ROW) {
        const std::string_view rel = m_folder.View(6);
        if (rel.size() <= nSkip) continue;
        row.nId = m_folder.Int(0);
        row.nSize = m_folder.Int(1);
        row.nTime = m_folder.Int(2);
        row.nState = static_cast<int>(m_folder.Int(3));
        row.nMediaType = static_cast<int>(m_folder.Int(4));
        row.bFolder = m_folder.Int(5) != 0;
        out.Add(rel.substr(nSkip), row);
    }
    m_folder.Reset();
    out.Sort();
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int CMOXLibraryDb::Lookup(const std::string& strRelPath, SMOXLibraryRow& row) {
    m_lookup.BindBlob(1, strRelPath);
    const int rc = m_lookup.Step();
    if (rc == SQLITE_ROW) {
        row.nId = m_lookup.Int(0);
        row.nSize = m_lookup.Int(1);
        row.nTime = m_lookup.Int(2);
        row.nState = static_cast<int>(m_lookup.Int(3));
        row.nMediaType = static_cast<int>(m_lookup.Int(4));
        row.bFolder = m_lookup.Int(5) != 0;
    }
    m_lookup.Reset();
    return rc;
}

int CMOXLibraryDb::Insert(const std::string& strRelPath, const std::string& strParent, const std::string& strFileName,
                          bool bFolder, int nMediaType, int64_t nSize, int64_t nTime, int nState, int64_t nGeneration,
                          int64_t& nId) {
    m_insert.BindBlob(1, strRelPath);
    m_insert.BindBlob(2, strParent);
    m_insert.BindText(3, strFileName);
    m_insert.BindInt(4, bFolder ? 1 : 0);
    m_insert.BindInt(5, nMediaType);
    m_insert.BindInt(6, nSize);
    m_insert.BindInt(7, nTime);
    m_insert.BindInt(8, nState);
    m_insert.BindInt(9, nGeneration);
    const std::string strMime = bFolder ? std::string() : mox_library::MimeTypeOf(strFileName);
    BindText(m_insert, 10, strMime);
    // Until the tags are read the title is the name without extension.
    const size_t nDot = strFileName.rfind('.');
    BindText(m_insert, 11,
             (bFolder || nDot == std::string::npos || nDot == 0) ? strFileName : strFileName.substr(0, nDot));
    const int rc = Run(m_insert);
    if (rc == SQLITE_OK) nId = m_db.LastInsertRowId();
    return rc;
}

int CMOXLibraryDb::UpdateBasic(int64_t nId, int64_t nSize, int64_t nTime, int nState, int64_t nGeneration) {
    m_updateBasic.BindInt(1, nId);
    m_updateBasic.BindInt(2, nSize);
    m_updateBasic.BindInt(3, nTime);
    m_updateBasic.BindInt(4, nState);
    m_updateBasic.BindInt(5, nGeneration);
    return Run(m_updateBasic);
}

int CMOXLibraryDb::StoreFields(int64_t nId, const SMOXLibraryFields& f, int nState, int64_t nGeneration) {
    m_storeFields.BindInt(1, nId);
    m_storeFields.BindInt(2, nState);
    m_storeFields.BindInt(3, nGeneration);
    BindText(m_storeFields, 4, f.strMimeType);
    BindText(m_storeFields, 5, f.strTitle);
    BindOptional(m_storeFields, 6, f.width);
    BindOptional(m_storeFields, 7, f.height);
    BindOptional(m_storeFields, 8, f.dateTaken);
    BindOptional(m_storeFields, 9, f.orientation);
    BindOptional(m_storeFields, 10, f.latitude);
    BindOptional(m_storeFields, 11, f.longitude);
    BindOptional(m_storeFields, 12, f.duration);
    BindText(m_storeFields, 13, f.strArtist);
    BindText(m_storeFields, 14, f.strAlbum);
    BindText(m_storeFields, 15, f.strGenre);
    BindOptional(m_storeFields, 16, f.trackNumber);
    return Run(m_storeFields);
}

int CMOXLibraryDb::NextPending(int64_t nAfter, int nMax, std::vector<SMOXLibraryPending>& out) {
    out.clear();
    m_pending.BindInt(1, nAfter);
    m_pending.BindInt(2, nMax);
    int rc;
    while ((rc = m_pending.Step()) == SQLITE_ROW) {
        SMOXLibraryPending p;
        p.nId = m_pending.Int(0);
        p.strRelPath = m_pending.Bytes(1);
        p.strFileName = m_pending.Bytes(2);
        p.nMediaType = static_cast<int>(m_pending.Int(3));
        p.nSize = m_pending.Int(4);
        p.nTime = m_pending.Int(5);
        out.push_back(std::move(p));
    }
    m_pending.Reset();
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int CMOXLibraryDb::DeleteId(int64_t nId) {
    m_deleteId.BindInt(1, nId);
    return Run(m_deleteId);
}

int CMOXLibraryDb::DeleteTree(const std::string& strRelPath, int64_t& nDeleted) {
    mox_sql::CMOXSqliteStmt stmt;
    // Below "a/b": every path from "a/b/" up to (not including) "a/b0",
    // '0' being the byte after '/'.
    int rc = m_db.Prepare("DELETE FROM items WHERE rel_path = ?1 OR (rel_path >= ?2 AND rel_path < ?3)", stmt);
    if (rc != SQLITE_OK) return rc;
    stmt.BindBlob(1, strRelPath);
    stmt.BindBlob(2, strRelPath + "/");
    stmt.BindBlob(3, strRelPath + "0");
    rc = Run(stmt);
    nDeleted = rc == SQLITE_OK ? sqlite3_changes64(m_db.Get()) : 0;
    return rc;
}

int CMOXLibraryDb::RowsAfter(int64_t nAfter, int nMax, std::vector<std::pair<int64_t, std::string>>& out) {
    out.clear();
    m_ids.BindInt(1, nAfter);
    m_ids.BindInt(2, nMax);
    int rc;
    while ((rc = m_ids.Step()) == SQLITE_ROW) out.emplace_back(m_ids.Int(0), m_ids.Bytes(1));
    m_ids.Reset();
    return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

bool CMOXLibraryDb::Counts(int64_t counts[4], int64_t& nRows) {
    counts[0] = counts[1] = counts[2] = counts[3] = 0;
    nRows = 0;
    mox_sql::CMOXSqliteStmt stmt;
    // Folders are media type 0, files never are: one scan of a narrow index.
    if (m_db.Prepare("SELECT media_type, count(*) FROM items GROUP BY media_type", stmt) != SQLITE_OK) return false;
    int rc;
    while ((rc = stmt.Step()) == SQLITE_ROW) {
        const int64_t nType = stmt.Int(0);
        nRows += stmt.Int(1);
        if (nType == 0) continue;
        const int nSlot = nType == 2 ? 0 : nType == 3 ? 1 : nType == 5 ? 2 : 3;
        counts[nSlot] += stmt.Int(1);
    }
    return rc == SQLITE_DONE;
}

namespace {

std::string CountsText(int64_t nGeneration, const int64_t counts[4]) {
    char sz[128];
    snprintf(sz, sizeof(sz), "%" PRId64 " %" PRId64 " %" PRId64 " %" PRId64 " %" PRId64, nGeneration, counts[0],
             counts[1], counts[2], counts[3]);
    return sz;
}

// A summary's counts from a one-row text, if they belong to nGeneration.
bool ParseCounts(const std::string& text, int64_t nGeneration, int64_t counts[4]) {
    int64_t nSaved = 0;
    int64_t c[4];
    if (sscanf(text.c_str(), "%" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64 " %" SCNd64, &nSaved, &c[0], &c[1], &c[2],
               &c[3]) != 5 ||
        nSaved != nGeneration)
        return false;
    for (int i = 0; i < 4; ++i) counts[i] = c[i];
    return true;
}

}  // namespace

int CMOXLibraryDb::SaveCounts(const int64_t counts[4]) {
    const std::string text = CountsText(m_nGeneration, counts);
    mox_sql::CMOXSqliteStmt stmt;
    int64_t unused[4];
    if (m_db.Prepare("SELECT value FROM volume WHERE key = 'counts'", stmt) == SQLITE_OK && stmt.Step() == SQLITE_ROW &&
        stmt.Bytes(0) == text && ParseCounts(text, m_nGeneration, unused))
        return SQLITE_OK;
    stmt = {};
    return SetMeta("counts", text);
}

bool CMOXLibraryDb::ReadSummary(const std::string& path, SMOXLibrarySummary& out) {
    mox_sql::CMOXSqliteDb db;
    if (db.Open(path, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_NOMUTEX) != SQLITE_OK) return false;
    sqlite3_busy_timeout(db.Get(), 200);
    int64_t nAppId = 0, nVersion = 0;
    // The volume table is the same in every version.
    if (!db.QueryInt("PRAGMA application_id", nAppId) || !db.QueryInt("PRAGMA user_version", nVersion) ||
        nAppId != kApplicationId || nVersion < kOldestSchemaVersion || nVersion > kSchemaVersion)
        return false;
    mox_sql::CMOXSqliteStmt meta;
    if (db.Prepare("SELECT key, value FROM volume", meta) != SQLITE_OK) return false;
    std::string strCounts;
    int rc;
    while ((rc = meta.Step()) == SQLITE_ROW) {
        const std::string key = meta.Bytes(0);
        if (key == "volume_id") out.strVolumeId = meta.Bytes(1);
        if (key == "mount_path") out.strMountPath = meta.Bytes(1);
        if (key == "generation") out.nGeneration = meta.Int(1);
        if (key == "last_mounted") out.nLastMounted = std::atoll(meta.Bytes(1).c_str());
        if (key == "counts") strCounts = meta.Bytes(1);
    }
    if (rc != SQLITE_DONE || out.strVolumeId.empty()) return false;
    if (ParseCounts(strCounts, out.nGeneration, out.counts)) return true;
    mox_sql::CMOXSqliteStmt count;
    if (db.Prepare("SELECT media_type, count(*) FROM items WHERE media_type != 0 GROUP BY media_type", count) !=
        SQLITE_OK)
        return false;
    while ((rc = count.Step()) == SQLITE_ROW) {
        const int64_t nType = count.Int(0);
        out.counts[nType == 2 ? 0 : nType == 3 ? 1 : nType == 5 ? 2 : 3] += count.Int(1);
    }
    return rc == SQLITE_DONE;
}

bool CMOXLibraryDb::PendingCount(int64_t& nRows) {
    return m_db.QueryInt("SELECT count(*) FROM items WHERE state = 0", nRows);
}
