// The copies between a SQLite data folder and a PostgreSQL cluster, against a
// temporary cluster: a first start's folder plus a table of hostile values
// goes in and is verified, a second import is refused without copying, a
// value the target type cannot hold stops its database, and a schema saved
// back to SQLite equals the original file row for row.
#include <gmock/gmock.h>

#include "server/catalog.h"
#include "server/pgcopy.h"
#include "tests/pgcluster.h"
#include "tests/scratch.h"

#include <sqlite3.h>

#include <algorithm>

namespace {

using ::testing::HasSubstr;

namespace fs = std::filesystem;
using namespace tavrind;

// A database file as the SQLite store would make it: columns declared through
// type_declaration, WAL mode.
void make_database(const std::string &path, const std::string &sql) {
  sqlite3 *db = nullptr;
  ASSERT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr),
            SQLITE_OK);
  char *msg = nullptr;
  EXPECT_EQ(sqlite3_exec(db, ("PRAGMA journal_mode=WAL;" + sql).c_str(), nullptr, nullptr, &msg),
            SQLITE_OK)
      << msg << ": " << sql;
  sqlite3_close_v2(db);
}

// Calls f(statement) for every row of `sql` on db.
template <class F> void each_row(sqlite3 *db, const std::string &sql, F f) {
  sqlite3_stmt *s = nullptr;
  sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr);
  while (sqlite3_step(s) == SQLITE_ROW) f(s);
  sqlite3_finalize(s);
}

// Every row of every table of a file in rowid order, each value after its
// storage class ("KUNDE|1:42|3:Müller|5:|..."; doubles in hexadecimal), then
// the layout and the journal mode.
std::vector<std::string> dump(const std::string &path) {
  std::vector<std::string> out;
  sqlite3 *db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK) << path;
  type_register_collation(db);
  // Appends every row of `sql` as `name` and its values.
  auto rows = [&](const std::string &name, const std::string &sql) {
    each_row(db, sql, [&](sqlite3_stmt *s) {
      std::string row = name;
      for (int c = 0; c < sqlite3_column_count(s); ++c) {
        int kind = sqlite3_column_type(s, c);
        const char *p = static_cast<const char *>(sqlite3_column_blob(s, c));
        char num[64];
        if (kind == SQLITE_FLOAT) snprintf(num, sizeof num, "%a", sqlite3_column_double(s, c));
        row += "|" + std::to_string(kind) + ":" +
               (kind == SQLITE_FLOAT ? std::string(num)
                : p ? std::string(p, static_cast<size_t>(sqlite3_column_bytes(s, c)))
                    : std::string());
      }
      out.push_back(row);
    });
  };
  std::vector<std::string> tables;
  each_row(db, "SELECT name FROM sqlite_schema WHERE type = 'table' ORDER BY name",
           [&](sqlite3_stmt *s) {
             tables.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(s, 0)));
           });
  for (const std::string &t : tables) rows(t, "SELECT * FROM \"" + t + "\" ORDER BY rowid");
  // Declarations, indices with their columns, triggers.
  rows("schema", "SELECT m.type, m.name, m.tbl_name, coalesce(p.type, ''), "
                 "coalesce(p.\"notnull\", ''), coalesce(p.dflt_value, ''), "
                 "coalesce(ii.name, ''), coalesce(il.\"unique\", '') FROM sqlite_schema m "
                 "LEFT JOIN pragma_table_info(m.name) p ON m.type = 'table' "
                 "LEFT JOIN pragma_index_list(m.tbl_name) il ON il.name = m.name "
                 "LEFT JOIN pragma_index_info(m.name) ii ON m.type = 'index' "
                 "ORDER BY m.type, m.name, p.cid, ii.seqno");
  rows("journal", "PRAGMA journal_mode");
  sqlite3_close_v2(db);
  return out;
}

// The hostile values: quotes, backslashes, umlauts (UTF-8 as stored), tabs and
// newlines, empty text beside the null markers and real NULLs, the extremes
// of every number type, -0.0, a denormal, binary values with zero bytes, an
// empty table, and more rows than one batch of the cursor and one COPY
// message hold.
std::string hostile_sql() {
  auto col = [](const char *name, unsigned char code, int len, bool nn = false) {
    return std::string("\"") + name + "\" " + type_declaration(type_make(code, len), nn);
  };
  std::string sql = "CREATE TABLE \"WERTE\" (" + col("ID", DBTYPE_INTEGER, 0, true) + ", " +
                    col("TXT", DBTYPE_CHARACTER, 100) + ", " + col("S", DBTYPE_SMALLINT, 0) + ", " +
                    col("I", DBTYPE_INTEGER, 0) + ", " + col("F", DBTYPE_FLOAT, 0) + ", " +
                    col("D", DBTYPE_DATE, 0) + ", " + col("T", DBTYPE_TIME, 0) + ", " +
                    col("TS", DBTYPE_TIMESTAMP, 0) + ", " + col("B", DBTYPE_BINARY, 64) + ");";
  sql += "INSERT INTO WERTE VALUES "
         "(1, 'it''s \"quoted\"', 32767, 2147483647, 1.7976931348623157e308, '2003-07-12', "
         "'10:30:00', '2003-07-12-10.30.00.123456', X'00'),"
         "(2, 'back\\slash \\N \\\\', -32767, -2147483648, -0.0, '2800-12-31', '23:59:59', "
         "'1800-01-01', X'0001FF00'),"
         "(3, '\xC3\x9C"
         "ml\xC3\xA4ut \xC3\x9F\xC3\x84\xC3\x96 \xE2\x82\xAC', 0, 0, 4.9e-324, "
         "'1800-01-01', '00:00:00', '1800-01-01-00.00.00.000000', X''),"
         "(4, 'tab' || char(9) || 'nl' || char(10) || 'cr' || char(13), 1, 1, 0.1, '', '', '', "
         "X'5C78'),"
         "(5, '', -32768, -2147483647, -1e20, '1800-01-01', '00:00:00', "
         "'1800-01-01-00.00.00.000000', X''),"
         "(6, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL),"
         "(7, 'trailing   ', 7, 7, 1e20, '2024-02-29', '12:00:00', '2024-02-29-12.00.00.000000', "
         "X'FF00FF00');";
  sql += "CREATE UNIQUE INDEX WERTE_PK ON WERTE (ID);"
         "CREATE INDEX WERTE_TXT ON WERTE (TXT, S);";
  // A static table, as SET TABLE ... STATIC leaves it.
  sql += "CREATE TABLE \"FEST\" (" + col("K", DBTYPE_CHARACTER, 9, true) +
         ");"
         "INSERT INTO FEST VALUES ('A'), ('B');";
  for (const char *op : {"i INSERT", "u UPDATE", "d DELETE"})
    sql += std::string("CREATE TRIGGER \"_static_FEST_") + op[0] + "\" BEFORE " + (op + 2) +
           " ON \"FEST\" BEGIN SELECT RAISE(ABORT, 'TAVRIN_STATIC FEST'); END;";
  sql += "CREATE TABLE \"LEER\" (" + col("X", DBTYPE_BINARY, 65533) + ");";
  sql += "CREATE TABLE \"VIELE\" (" + col("N", DBTYPE_INTEGER, 0, true) + ", " +
         col("X", DBTYPE_CHARACTER, 61) +
         ");"
         "WITH RECURSIVE k(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM k WHERE n < 25000) "
         "INSERT INTO VIELE SELECT n, printf('%060d', n) FROM k;";
  return sql;
}

class PgCopy : public ::testing::Test {
protected:
  PGconn *conn = nullptr;
  scratch::ScratchDir scratch_dir{"pgcopy_data", false};
  std::string folder = scratch_dir.path(), err;
  Catalog cat;
  std::vector<std::string> report;

  // A new database of the test process's cluster for each test.
  void SetUp() override {
    std::string why;
    if (!pgcluster::installed(why)) GTEST_SKIP() << why;
    pgcluster::Cluster *cluster = pgcluster::shared(why);
    ASSERT_TRUE(cluster) << why;
    std::string conninfo = cluster->new_database(why);
    ASSERT_FALSE(conninfo.empty()) << why;
    conn = PQconnectdb((conninfo + " options='-c client_min_messages=warning'").c_str());
    ASSERT_EQ(PQstatus(conn), CONNECTION_OK) << PQerrorMessage(conn);
  }
  void TearDown() override {
    if (conn) PQfinish(conn);
  }

  // A first start's folder plus the hostile database, imported.
  void import_hostile() {
    ASSERT_TRUE(catalog_init(cat, folder, err)) << err;
    make_database(folder + "/HOSTILE.db", hostile_sql());
    ASSERT_TRUE(pgcopy_import_sqlite(conn, folder, report, err)) << err;
  }
  // The first value of a query's first row, "<null>" for NULL.
  std::string query(const std::string &sql) {
    PGresult *r = PQexec(conn, sql.c_str());
    std::string v = PQresultStatus(r) != PGRES_TUPLES_OK
                        ? std::string("error: ") + PQresultErrorMessage(r)
                    : PQntuples(r) == 0 || PQgetisnull(r, 0, 0) ? "<null>"
                                                                : PQgetvalue(r, 0, 0);
    PQclear(r);
    return v;
  }
};

TEST_F(PgCopy, ImportsAFolderVerifiedAndRefusesExistingSchemas) {
  ASSERT_NO_FATAL_FAILURE(import_hostile());
  auto has = [&](const std::string &line) {
    return std::find(report.begin(), report.end(), line) != report.end();
  };
  EXPECT_TRUE(has("DEMO.KUNDE: 600 rows, checksum ok"));
  EXPECT_TRUE(has("HOSTILE.VIELE: 25000 rows, checksum ok"));
  EXPECT_TRUE(has("HOSTILE.WERTE: 7 rows, checksum ok"));
  EXPECT_TRUE(has("HOSTILE.LEER: 0 rows, checksum ok"));
  EXPECT_EQ(PQtransactionStatus(conn), PQTRANS_IDLE);

  // Stored as the PostgreSQL store reads them: UTF-8 texts, empty text and
  // NULL apart, doubles exact, zero bytes kept, declared types in comments.
  EXPECT_EQ(query("SELECT \"TXT\" FROM \"HOSTILE\".\"WERTE\" WHERE \"ID\" = 3"),
            "\xC3\x9C"
            "ml\xC3\xA4ut \xC3\x9F\xC3\x84\xC3\x96 \xE2\x82\xAC");
  EXPECT_EQ(query("SELECT \"TXT\" FROM \"HOSTILE\".\"WERTE\" WHERE \"ID\" = 2"),
            "back\\slash \\N \\\\");
  EXPECT_EQ(query("SELECT string_agg(\"ID\"::text, ',' ORDER BY \"ID\") FROM \"HOSTILE\".\"WERTE\" "
                  "WHERE \"TXT\" = '' OR \"F\" = -1e20 OR \"F\" = 4.9e-324 OR \"S\" IS NULL"),
            "3,5,6");
  EXPECT_EQ(query("SELECT encode(\"B\", 'hex') FROM \"HOSTILE\".\"WERTE\" WHERE \"ID\" = 2"),
            "0001ff00");
  EXPECT_EQ(query("SELECT col_description('\"DEMO\".\"KUNDE\"'::regclass, 4)"), "CHARACTER(31)");
  EXPECT_EQ(query("SELECT col_description('\"HOSTILE\".\"WERTE\"'::regclass, 6)"), "DATE");
  EXPECT_EQ(query("SELECT count(*) FROM pg_tables WHERE schemaname = 'TDSYS' AND "
                  "tablename = 'TAVRIN$DB'"),
            "1");
  // The unique index and the static table hold in the cluster as in the file.
  EXPECT_THAT(query("DELETE FROM \"HOSTILE\".\"FEST\" RETURNING 1"),
              HasSubstr("TAVRIN_STATIC FEST"));
  EXPECT_THAT(query("INSERT INTO \"DEMO\".\"KUNDE\" (\"KUNDE_ID\", \"NAME\") VALUES (1, 'x') "
                    "RETURNING 1"),
              HasSubstr("duplicate key"));

  // A second import is refused before anything is copied, even a database
  // that is not in the cluster yet (AAA comes before DEMO).
  make_database(folder + "/AAA.db", "CREATE TABLE T (\"X\" INTEGER)");
  report.clear();
  EXPECT_FALSE(pgcopy_import_sqlite(conn, folder, report, err));
  EXPECT_THAT(err, HasSubstr("DEMO"));
  EXPECT_EQ(query("SELECT count(*) FROM pg_namespace WHERE nspname = 'AAA'"), "0");
  EXPECT_TRUE(report.empty());
}

TEST_F(PgCopy, RefusesAValueItsTypeCannotHoldAndLeavesNothing) {
  // Written by another tool: SQLite keeps 70000 in a SMALLINT column.
  std::string decl = type_declaration(type_make(DBTYPE_SMALLINT, 0), false);
  make_database(folder + "/BAD.db", "CREATE TABLE \"T\" (\"S\" " + decl +
                                        ");"
                                        "INSERT INTO T VALUES (1), (70000)");
  EXPECT_FALSE(pgcopy_import_sqlite(conn, folder, report, err));
  EXPECT_THAT(err, HasSubstr("BAD.T row 2 column S"));
  EXPECT_EQ(query("SELECT count(*) FROM pg_namespace WHERE nspname = 'BAD'"), "0");
  EXPECT_EQ(PQtransactionStatus(conn), PQTRANS_IDLE);
}

TEST_F(PgCopy, SavesASchemaBackToAnEqualSqliteFile) {
  ASSERT_NO_FATAL_FAILURE(import_hostile());

  for (const char *name : {"DEMO", "HOSTILE", "TDSYS"}) {
    std::string saved = folder + "/saved_" + name + ".db";
    ASSERT_TRUE(pgcopy_save_to_sqlite(conn, name, saved, err)) << err;
    std::vector<std::string> copy = dump(saved), orig = dump(catalog_path(cat, name));
    EXPECT_EQ(copy.size(), orig.size()) << name;
    for (size_t k = 0; k < copy.size() && k < orig.size(); ++k)
      if (copy[k] != orig[k]) {
        ADD_FAILURE() << name << " differs at line " << k << ":\n  saved    " << copy[k]
                      << "\n  original " << orig[k];
        break;
      }
    EXPECT_FALSE(fs::exists(saved + ".part"));
  }
  // The saved file opens in the SQLite store, and its static table refuses
  // changes there.
  Catalog other;
  other.dir = folder + "/other";
  fs::create_directory(other.dir);
  fs::copy_file(folder + "/saved_HOSTILE.db", other.dir + "/HOSTILE.db");
  sqlite3 *db = catalog_open(other, "HOSTILE", false, err);
  ASSERT_TRUE(db) << err;
  EXPECT_NE(sqlite3_exec(db, "DELETE FROM FEST", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close_v2(db);

  // No overwriting, no schema of another program, the connection left idle.
  EXPECT_FALSE(pgcopy_save_to_sqlite(conn, "DEMO", folder + "/saved_DEMO.db", err));
  EXPECT_THAT(err, HasSubstr("exists"));
  PQclear(PQexec(conn, "CREATE SCHEMA \"AAA\""));
  EXPECT_FALSE(pgcopy_save_to_sqlite(conn, "AAA", folder + "/aaa.db", err));
  EXPECT_FALSE(fs::exists(folder + "/aaa.db"));
  EXPECT_EQ(PQtransactionStatus(conn), PQTRANS_IDLE);
}

} // namespace
