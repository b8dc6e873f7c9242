// CMOXLibraryDb: one volume's index file (SQLite, WAL). Paths are stored
// relative to the volume's mount point, as raw bytes, so the same volume
// mounted elsewhere keeps its rows; display names are UTF-8 (stray bytes as
// "\xNN", the engine's file-name rule).
//
// Tables (schema version kSchemaVersion, application id kApplicationId):
//   volume(key, value)  "volume_id", "generation", "mount_path",
//                       "last_mounted" (seconds since the epoch)
//   items               one row per media file and per folder; "state" 0
//                       waits for extraction, 1 extracted, 2 the helper
//                       failed on it (not retried while size and time stay),
//                       3 nothing to extract (folders, groups without tags)
//   items_fts           FTS5 over title, artist, album and file name
//                       (unicode61, remove_diacritics 2), kept by the
//                       writer's temporary triggers through a log applied
//                       at each commit (an update that leaves those
//                       columns as they were does not touch it)
// Indices serve the views of a read-only reader (by folder, date taken, file
// time, title, file name, artist, album and track, genre); the one by folder
// also covers the walk's compare, which then reads no row of the table.
//
// One thread uses an object at a time; readers open their own connections.
// Errors are return values (SQLite codes or false); Open() logs them once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "mox_library_extract.h"
#include "mox_sqlite.h"

struct SMOXLibraryRow {
    int64_t nId = 0;
    int64_t nSize = 0;
    int64_t nTime = 0;
    int nState = 0;
    int nMediaType = 0;
    bool bFolder = false;
};

// The rows of one folder by file name (raw bytes), sorted for a binary
// search; the buffers are kept from one folder to the next.
class CMOXFolderRows {
public:
    void Clear();
    void Add(std::string_view name, const SMOXLibraryRow& row);
    // After the last Add().
    void Sort();
    const SMOXLibraryRow* Find(std::string_view name) const;
    size_t Size() const { return m_items.size(); }

private:
    struct Item {
        uint32_t nName = 0;
        uint32_t nLength = 0;
        SMOXLibraryRow row;
    };
    std::string_view NameOf(const Item& item) const { return {m_names.data() + item.nName, item.nLength}; }
    std::string m_names;
    std::vector<Item> m_items;
};

// What a volume's index file says of it, read without the indexer.
struct SMOXLibrarySummary {
    std::string strVolumeId;
    std::string strMountPath;  // where it was last mounted
    int64_t nGeneration = 0;
    int64_t counts[4] = {0, 0, 0, 0};  // photo, video, music, other
    int64_t nLastMounted = 0;          // seconds since the epoch
};

struct SMOXLibraryPending {
    int64_t nId = 0;
    std::string strRelPath;
    std::string strFileName;
    int nMediaType = 0;
    int64_t nSize = 0;
    int64_t nTime = 0;
};

class CMOXLibraryDb {
public:
    static constexpr int kSchemaVersion = 2;
    // Older files from this version on are brought up to date at open.
    static constexpr int kOldestSchemaVersion = 1;
    static constexpr int kApplicationId = 0x4D4F584C;  // "MOXL"

    enum class EOpen { kOpened, kCreated, kRebuilt, kFailed };
    // Opens or creates the file; a file of an older version is brought up
    // to date in place (its rows kept); a file that is not a library of a
    // known version, or fails the quick check, is moved aside to PATH.broken
    // (one warning) and a fresh one made. The quick check (a read of the whole
    // file, seconds for millions of rows) runs only after an unclean end, a
    // write-ahead log with frames left behind; damage found later is
    // handled by MoveAside().
    EOpen Open(const std::string& path, const std::string& strVolumeId);
    // SQLite found the open file corrupt while in use: closes it and moves
    // it aside (one warning); the next open rebuilds it.
    void MoveAside();
    void Close();

    int Begin() { return m_db.Exec("BEGIN IMMEDIATE"); }
    // Brings the text index up to date with the transaction's rows first.
    int Commit();
    void Rollback() { m_db.Exec("ROLLBACK"); }

    int64_t Generation() const { return m_nGeneration; }
    // Inside a transaction: the generation becomes nGeneration at commit.
    int SetGeneration(int64_t nGeneration);
    // Commit succeeded: the new generation is current.
    void GenerationCommitted(int64_t nGeneration) { m_nGeneration = nGeneration; }
    int SetMeta(const char* szKey, const std::string& strValue);

    // The rows whose parent folder is strParent (`out` is cleared first).
    int FolderRows(std::string_view strParent, CMOXFolderRows& out);
    // SQLITE_ROW (row filled), SQLITE_DONE (absent) or an error.
    int Lookup(const std::string& strRelPath, SMOXLibraryRow& row);
    int Insert(const std::string& strRelPath, const std::string& strParent, const std::string& strFileName,
               bool bFolder, int nMediaType, int64_t nSize, int64_t nTime, int nState, int64_t nGeneration,
               int64_t& nId);
    // New size and time; the row waits for extraction again (nState).
    int UpdateBasic(int64_t nId, int64_t nSize, int64_t nTime, int nState, int64_t nGeneration);
    int StoreFields(int64_t nId, const SMOXLibraryFields& fields, int nState, int64_t nGeneration);
    // Up to nMax rows waiting for extraction, after id nAfter.
    int NextPending(int64_t nAfter, int nMax, std::vector<SMOXLibraryPending>& out);
    int DeleteId(int64_t nId);
    // The row of strRelPath and every row below it; nDeleted counts them.
    int DeleteTree(const std::string& strRelPath, int64_t& nDeleted);
    // Id and path of every row, ascending by id, after nAfter (streamed in
    // pieces).
    int RowsAfter(int64_t nAfter, int nMax, std::vector<std::pair<int64_t, std::string>>& out);
    // Media files by group (photo, video, music, other) and all rows, in one
    // pass over an index.
    bool Counts(int64_t counts[4], int64_t& nRows);
    // Keeps the counts of the current generation in the volume table (key
    // "counts": "GENERATION PHOTO VIDEO MUSIC OTHER") for ReadSummary();
    // nothing is written when they are there already.
    int SaveCounts(const int64_t counts[4]);
    // Reads a closed or in-use index read-only (a few rows; the counts are
    // only counted when no saved ones match the generation). False when
    // the file is not a readable library index.
    static bool ReadSummary(const std::string& path, SMOXLibrarySummary& out);
    bool PendingCount(int64_t& nRows);

private:
    bool m_OpenChecked(const std::string& path, const std::string& strVolumeId, bool& bCreated, std::string& why);
    bool m_CreateSchema(const std::string& strVolumeId);
    // From kOldestSchemaVersion or later to kSchemaVersion, in one transaction.
    bool m_Migrate();
    bool m_Prepare();
    // Drops the text index's triggers of older files; sets up the log.
    bool m_TextLog();

    mox_sql::CMOXSqliteDb m_db;
    std::string m_strPath;
    mox_sql::CMOXSqliteStmt m_folder, m_lookup, m_insert, m_updateBasic, m_storeFields, m_pending, m_deleteId,
        m_setMeta, m_ids, m_applyLog, m_clearLog;
    int64_t m_nGeneration = 0;
};
