// Move-only owners of a SQLite connection and of a prepared statement. Every
// operation returns SQLite's result code (SQLITE_OK, SQLITE_ROW, SQLITE_DONE or
// an error); nothing throws and nothing logs: the caller logs once where it
// decides what the error means. One object is used by one thread at a time.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace mox_sql {

class CMOXSqliteStmt {
public:
    CMOXSqliteStmt() = default;
    explicit CMOXSqliteStmt(sqlite3_stmt* pStmt) : m_stmt(pStmt) {}

    bool IsValid() const { return static_cast<bool>(m_stmt); }
    // Parameters count from 1, columns from 0.
    int BindInt(int nIndex, int64_t nValue) { return sqlite3_bind_int64(m_stmt.get(), nIndex, nValue); }
    int BindDouble(int nIndex, double dValue) { return sqlite3_bind_double(m_stmt.get(), nIndex, dValue); }
    int BindNull(int nIndex) { return sqlite3_bind_null(m_stmt.get(), nIndex); }
    int BindText(int nIndex, std::string_view text);
    int BindBlob(int nIndex, std::string_view bytes);
    // SQLITE_ROW, SQLITE_DONE or an error.
    int Step() { return sqlite3_step(m_stmt.get()); }
    // Ready for the next run: reset and bindings cleared.
    void Reset();
    int64_t Int(int nColumn) const { return sqlite3_column_int64(m_stmt.get(), nColumn); }
    double Double(int nColumn) const { return sqlite3_column_double(m_stmt.get(), nColumn); }
    bool IsNull(int nColumn) const { return sqlite3_column_type(m_stmt.get(), nColumn) == SQLITE_NULL; }
    // Text or blob bytes of a column ("" for NULL).
    std::string Bytes(int nColumn) const;
    // The same without a copy, valid until the next Step() or Reset().
    std::string_view View(int nColumn) const;

private:
    struct Finalizer {
        void operator()(sqlite3_stmt* p) const { sqlite3_finalize(p); }
    };
    std::unique_ptr<sqlite3_stmt, Finalizer> m_stmt;
};

class CMOXSqliteDb {
public:
    CMOXSqliteDb() = default;

    // Opens (SQLITE_OPEN_* flags); on failure the connection is closed again.
    int Open(const std::string& path, int nFlags);
    void Close() { m_db.reset(); }
    bool IsOpen() const { return static_cast<bool>(m_db); }
    int Exec(const char* szSql);
    int Prepare(const char* szSql, CMOXSqliteStmt& out);
    // One integer of a one-row query (a PRAGMA, a count); false on failure.
    bool QueryInt(const char* szSql, int64_t& nValue);
    // The connection's last error message.
    std::string LastError() const;
    int64_t LastInsertRowId() const { return sqlite3_last_insert_rowid(m_db.get()); }
    sqlite3* Get() const { return m_db.get(); }

private:
    struct Closer {
        // close_v2: statements still alive keep the connection until they go.
        void operator()(sqlite3* p) const { sqlite3_close_v2(p); }
    };
    std::unique_ptr<sqlite3, Closer> m_db;
    std::string m_lastOpenError;
};

}  // namespace mox_sql
