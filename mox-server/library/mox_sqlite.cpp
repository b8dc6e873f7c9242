#include "mox_sqlite.h"

namespace mox_sql {

int CMOXSqliteStmt::BindText(int nIndex, std::string_view text) {
    return sqlite3_bind_text64(m_stmt.get(), nIndex, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

int CMOXSqliteStmt::BindBlob(int nIndex, std::string_view bytes) {
    // A zero-length blob, not NULL, for the empty path of the mount itself.
    return sqlite3_bind_blob64(m_stmt.get(), nIndex, bytes.empty() ? "" : bytes.data(), bytes.size(), SQLITE_TRANSIENT);
}

void CMOXSqliteStmt::Reset() {
    sqlite3_reset(m_stmt.get());
    sqlite3_clear_bindings(m_stmt.get());
}

std::string CMOXSqliteStmt::Bytes(int nColumn) const {
    const void* pData = sqlite3_column_blob(m_stmt.get(), nColumn);
    const int nSize = sqlite3_column_bytes(m_stmt.get(), nColumn);
    if (pData == nullptr || nSize <= 0) return std::string();
    return std::string(static_cast<const char*>(pData), static_cast<size_t>(nSize));
}

std::string_view CMOXSqliteStmt::View(int nColumn) const {
    const void* pData = sqlite3_column_blob(m_stmt.get(), nColumn);
    const int nSize = sqlite3_column_bytes(m_stmt.get(), nColumn);
    if (pData == nullptr || nSize <= 0) return std::string_view();
    return std::string_view(static_cast<const char*>(pData), static_cast<size_t>(nSize));
}

int CMOXSqliteDb::Open(const std::string& path, int nFlags) {
    sqlite3* pDb = nullptr;
    const int rc = sqlite3_open_v2(path.c_str(), &pDb, nFlags, nullptr);
    m_db.reset(pDb);  // a handle comes back even on failure; it is closed
    if (rc != SQLITE_OK) {
        m_lastOpenError = pDb ? sqlite3_errmsg(pDb) : sqlite3_errstr(rc);
        m_db.reset();
        return rc;
    }
    sqlite3_extended_result_codes(pDb, 1);
    return SQLITE_OK;
}

int CMOXSqliteDb::Exec(const char* szSql) {
    return sqlite3_exec(m_db.get(), szSql, nullptr, nullptr, nullptr);
}

int CMOXSqliteDb::Prepare(const char* szSql, CMOXSqliteStmt& out) {
    sqlite3_stmt* pStmt = nullptr;
    const int rc = sqlite3_prepare_v3(m_db.get(), szSql, -1, SQLITE_PREPARE_PERSISTENT, &pStmt, nullptr);
    out = CMOXSqliteStmt(pStmt);
    return rc;
}

bool CMOXSqliteDb::QueryInt(const char* szSql, int64_t& nValue) {
    CMOXSqliteStmt stmt;
    if (Prepare(szSql, stmt) != SQLITE_OK || stmt.Step() != SQLITE_ROW) return false;
    nValue = stmt.Int(0);
    return true;
}

std::string CMOXSqliteDb::LastError() const {
    return m_db ? sqlite3_errmsg(m_db.get()) : m_lastOpenError;
}

}  // namespace mox_sql
