// Helpers the library suites share: a shell command and a one-value query of
// an index file (read-only, as a client of the index would).
#pragma once

#include <sqlite3.h>

#include <cstdlib>
#include <string>

namespace moxtest {

inline bool Shell(const std::string& command) {
    return system((command + " >/dev/null 2>&1").c_str()) == 0;
}

// The first column of the first row as text ("" when none or unreadable).
inline std::string Query(const std::string& db, const std::string& sql) {
    sqlite3* p = nullptr;
    std::string out;
    if (sqlite3_open_v2(db.c_str(), &p, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* s = nullptr;
        if (sqlite3_prepare_v2(p, sql.c_str(), -1, &s, nullptr) == SQLITE_OK && sqlite3_step(s) == SQLITE_ROW &&
            sqlite3_column_text(s, 0))
            out = reinterpret_cast<const char*>(sqlite3_column_text(s, 0));
        sqlite3_finalize(s);
    }
    sqlite3_close(p);
    return out;
}

}  // namespace moxtest
