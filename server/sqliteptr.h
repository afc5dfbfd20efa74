// Owning pointers for SQLite handles: a connection is closed with
// sqlite3_close_v2 and a statement finalized when its pointer goes.
#pragma once

#include <sqlite3.h>

#include <memory>

namespace tavrind {

struct SqliteDbClose {
  void operator()(sqlite3 *db) const { sqlite3_close_v2(db); }
};
using SqliteDb = std::unique_ptr<sqlite3, SqliteDbClose>;

struct SqliteStmtFinalize {
  void operator()(sqlite3_stmt *s) const { sqlite3_finalize(s); }
};
using SqliteStmt = std::unique_ptr<sqlite3_stmt, SqliteStmtFinalize>;

} // namespace tavrind
