// Copies between a SQLite data folder and the schemas of a PostgreSQL cluster.
//
// Both directions read a database's layout (tables, columns with their
// declared types, indices, static tables) into one description, create it on
// the other side, move the rows and then verify: the rows are counted and
// hashed as they are read from the source and again as they are read back
// from the target, with the same hash over the same typed values, so a value
// that did not survive the trip shows as a differing checksum. Rows go into
// PostgreSQL through COPY in binary form and come out through a binary cursor,
// so no value passes through a text rendering (doubles stay bit-exact, texts
// need no escaping, bytea keeps its zero bytes).
//
// The PostgreSQL layout is the PostgreSQL store's: database NAME is the schema
// "NAME" holding the marker table "TAVRIN$DB" (one row); a column's declared
// TAVRIN type (CHARACTER(n), DATE, ...) is the column's comment; CHARACTER,
// DATE, TIME and TIMESTAMP are text with collation "C", SMALLINT smallint,
// INTEGER integer, FLOAT double precision, BINARY bytea; NOT NULL and the
// null-marker defaults as in SQLite; a static table has the same three
// triggers as in SQLite, calling "TAVRIN$".refuse_static().
#include "server/pgcopy.h"

#include "server/catalog.h"
#include "server/pgptr.h"
#include "server/sqliteptr.h"
#include "server/sqltext.h"
#include "server/types.h"

#include <libpq-fe.h>
#include <sqlite3.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>

namespace tavrind {

// The declared type as SQLite reports it for a column made by tavrind, and as
// the PostgreSQL column's comment keeps it: "CHARACTER(10)", "SMALLINT", ...
std::string declared_type(ColType t) {
  std::string d = type_name(t.code);
  if (t.code == DBTYPE_CHARACTER || t.code == DBTYPE_BINARY)
    d += "(" + std::to_string(t.size) + ")";
  return d;
}

// The PostgreSQL column of a declared type, with NOT NULL and the default
// that stores the type's null marker, as the SQLite declaration has them.
std::string pg_column_declaration(ColType t, bool not_null) {
  std::string d, def;
  switch (t.code) {
  case DBTYPE_SMALLINT:
    d = "smallint", def = "-32768";
    break;
  case DBTYPE_INTEGER:
    d = "integer", def = "-2147483647";
    break;
  case DBTYPE_FLOAT:
    d = "double precision", def = "-1e20";
    break;
  case DBTYPE_BINARY:
    d = "bytea", def = "'\\x'::bytea";
    break;
  case DBTYPE_DATE:
    d = "text COLLATE \"C\"", def = "'1800-01-01'";
    break;
  case DBTYPE_TIME:
    d = "text COLLATE \"C\"", def = "'00:00:00'";
    break;
  case DBTYPE_TIMESTAMP:
    d = "text COLLATE \"C\"", def = "'1800-01-01-00.00.00.000000'";
    break;
  default:
    d = "text COLLATE \"C\"", def = "''";
    break;
  }
  return d + (not_null ? " NOT NULL" : "") + " DEFAULT " + def;
}

// Reads the declared type of a column: its comment when that is a TAVRIN
// declaration, else the nearest type of the PostgreSQL column (a column made
// by other tools).
ColType pg_column_type(const std::string &comment, const std::string &pg_type) {
  for (const char *name :
       {"CHARACTER", "SMALLINT", "INTEGER", "FLOAT", "DATE", "TIME", "TIMESTAMP", "BINARY"})
    if (comment.rfind(name, 0) == 0) return type_from_declaration(comment);
  if (pg_type == "smallint") return type_make(DBTYPE_SMALLINT, 0);
  if (pg_type == "integer" || pg_type == "bigint") return type_make(DBTYPE_INTEGER, 0);
  if (pg_type == "double precision" || pg_type == "real" || pg_type.rfind("numeric", 0) == 0)
    return type_make(DBTYPE_FLOAT, 0);
  if (pg_type == "bytea") return type_make(DBTYPE_BINARY, TYPE_MAX_BINARY);
  return type_make(DBTYPE_CHARACTER, 256);
}

namespace {

// Name of the marker table that makes a schema a TAVRIN database. Tables
// whose names start with "TAVRIN$" belong to the store, not to the database.
const char *const MARKER_TABLE = "TAVRIN$DB";
const char *const STORE_PREFIX = "TAVRIN$";
// Triggers that make a table static in a SQLite file: _static_<TABLE>_i, _u,
// _d, each raising "TAVRIN_STATIC <table>".
const char *const STATIC_PREFIX = "_static_";
const char *const STATIC_MESSAGE = "TAVRIN_STATIC ";
// PostgreSQL truncates longer identifiers, which would change a name.
const size_t PG_MAX_IDENTIFIER = 63;
// Rows per FETCH from a binary cursor: at most FETCH_ROWS, fewer for wide
// rows, so that one batch stays near FETCH_BYTES by the declared sizes.
// Bytes per COPY message.
const int FETCH_ROWS = 10000;
const int64_t FETCH_BYTES = 32 << 20;
const size_t COPY_CHUNK = 1 << 20;

// PostgreSQL type oids of the values read back (the SELECTs cast to them).
const Oid OID_INT8 = 20, OID_FLOAT8 = 701;

// Thrown inside a copy; its text becomes err.
struct CopyError {
  std::string text;
};

// --- Layout ------------------------------------------------------------------

struct Column {
  std::string name;
  ColType type;
  bool not_null = false;
};

struct Index {
  std::string name;
  bool unique = false;
  std::vector<std::string> cols;
};

struct Table {
  std::string name;
  std::vector<Column> cols;
  std::vector<Index> indexes;
  bool is_static = false;
};

bool is_integer_type(ColType t) { return t.code == DBTYPE_SMALLINT || t.code == DBTYPE_INTEGER; }

// The cast that reads a column back in the form the checksum takes: integers
// as int8, FLOAT as float8, BINARY as bytea, every other type as text.
const char *pg_read_cast(ColType t) {
  if (is_integer_type(t)) return "::int8";
  if (t.code == DBTYPE_FLOAT) return "::float8";
  if (t.code == DBTYPE_BINARY) return "::bytea";
  return "::text";
}

// The name of the triggers that make table t static: _static_<TABLE> with
// _i, _u, _d appended, in a SQLite file and in a schema alike.
std::string static_trigger_base(const Table &t) {
  std::string base = STATIC_PREFIX;
  for (char ch : t.name) base += static_cast<char>(ch >= 'a' && ch <= 'z' ? ch - 'a' + 'A' : ch);
  return base;
}

// --- Values and the checksum ---------------------------------------------------

// One value as both sides compare it; p/n point into the reader's buffer and
// are valid until its next row.
struct Cell {
  enum Kind : unsigned char { NUL = 'N', INT = 'I', DBL = 'F', BYTES = 'B' } kind = NUL;
  int64_t i = 0;
  double f = 0;
  const char *p = nullptr;
  size_t n = 0;
};

// Row count and checksum of a table: each row's cells are hashed with 64-bit
// FNV-1a (kind, then the value's bytes; byte strings with their length), the
// row hash is mixed (splitmix64's finalizer) and summed. The sum does not
// depend on the order in which a side returns its rows, but a changed,
// missing or extra row changes it.
class TableSum {
public:
  void cell(const Cell &c) {
    byte(c.kind);
    switch (c.kind) {
    case Cell::NUL:
      break;
    case Cell::INT:
      word(static_cast<uint64_t>(c.i));
      break;
    case Cell::DBL: {
      uint64_t bits;
      memcpy(&bits, &c.f, 8);
      word(bits);
      break;
    }
    case Cell::BYTES:
      word(c.n);
      for (size_t k = 0; k < c.n; ++k) byte(static_cast<unsigned char>(c.p[k]));
      break;
    }
  }
  void end_row() {
    uint64_t z = h_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    sum_ += z ^ (z >> 31);
    ++rows_;
    h_ = FNV_BASIS;
  }
  uint64_t sum() const { return sum_; }
  int64_t rows() const { return rows_; }

private:
  static constexpr uint64_t FNV_BASIS = 0xCBF29CE484222325ULL;
  void byte(unsigned char b) { h_ = (h_ ^ b) * 0x100000001B3ULL; }
  void word(uint64_t v) {
    for (int k = 0; k < 8; ++k) byte(static_cast<unsigned char>(v >> (8 * k)));
  }
  uint64_t h_ = FNV_BASIS;
  uint64_t sum_ = 0;
  int64_t rows_ = 0;
};

// Reads column col of the current SQLite row as a value of type t. Integer
// columns take integers in the type's range, FLOAT takes numbers (integers
// only where the double holds them exactly); texts and BINARY take the value's
// bytes as SQLite renders them, which is what the SQLite store reads. Throws
// CopyError for a value the target type cannot hold, rather than change it.
Cell sqlite_cell(sqlite3_stmt *s, int col, ColType t) {
  Cell c;
  int kind = sqlite3_column_type(s, col);
  if (kind == SQLITE_NULL) return c;
  auto refuse = [&](const std::string &why) {
    const unsigned char *txt = sqlite3_column_text(s, col);
    std::string shown = txt ? std::string(reinterpret_cast<const char *>(txt)) : std::string();
    if (shown.size() > 40) shown = shown.substr(0, 40) + "...";
    throw CopyError{"the value '" + shown + "' " + why};
  };
  if (is_integer_type(t)) {
    if (kind != SQLITE_INTEGER) refuse("is not an integer");
    c.kind = Cell::INT;
    c.i = sqlite3_column_int64(s, col);
    int64_t lo = t.code == DBTYPE_SMALLINT ? -32768 : INT32_MIN;
    int64_t hi = t.code == DBTYPE_SMALLINT ? 32767 : INT32_MAX;
    if (c.i < lo || c.i > hi) refuse(std::string("is out of the range of ") + type_name(t.code));
  } else if (t.code == DBTYPE_FLOAT) {
    if (kind != SQLITE_INTEGER && kind != SQLITE_FLOAT) refuse("is not a number");
    c.kind = Cell::DBL;
    c.f = sqlite3_column_double(s, col);
    if (kind == SQLITE_INTEGER) {
      int64_t v = sqlite3_column_int64(s, col);
      if (!(c.f >= -9.2e18 && c.f <= 9.2e18) || static_cast<int64_t>(c.f) != v)
        refuse("has no exact FLOAT value");
    }
  } else if (t.code == DBTYPE_BINARY) {
    c.kind = Cell::BYTES;
    c.p = static_cast<const char *>(sqlite3_column_blob(s, col));
    c.n = static_cast<size_t>(sqlite3_column_bytes(s, col));
  } else {
    c.kind = Cell::BYTES;
    c.p = reinterpret_cast<const char *>(sqlite3_column_text(s, col));
    c.n = static_cast<size_t>(sqlite3_column_bytes(s, col));
  }
  return c;
}

uint64_t load_be(const char *p, int n) {
  uint64_t v = 0;
  for (int k = 0; k < n; ++k) v = (v << 8) | static_cast<unsigned char>(p[k]);
  return v;
}

// Reads field col of row r of a binary result made by a SELECT with
// pg_read_cast's casts. Throws CopyError when a field's length does not fit
// its type.
Cell pg_cell(const PGresult *r, int row, int col) {
  Cell c;
  if (PQgetisnull(r, row, col)) return c;
  const char *p = PQgetvalue(r, row, col);
  int n = PQgetlength(r, row, col);
  Oid type = PQftype(r, col);
  if (type == OID_INT8 || type == OID_FLOAT8) {
    if (n != 8) throw CopyError{"PostgreSQL sent a number of " + std::to_string(n) + " bytes"};
    uint64_t v = load_be(p, 8);
    if (type == OID_INT8) {
      c.kind = Cell::INT;
      c.i = static_cast<int64_t>(v);
    } else {
      c.kind = Cell::DBL;
      memcpy(&c.f, &v, 8);
    }
  } else {
    c.kind = Cell::BYTES;
    c.p = p;
    c.n = static_cast<size_t>(n);
  }
  return c;
}

// --- PostgreSQL helpers ------------------------------------------------------------

// Runs one statement sql with text parameters, results in result_format (0
// text, 1 binary); returns the result, or throws CopyError with PostgreSQL's
// message and the start of sql when it failed.
PgResult pg_exec(PGconn *conn, const std::string &sql, const std::vector<std::string> &params = {},
               int result_format = 0) {
  std::vector<const char *> values;
  for (const std::string &p : params) values.push_back(p.c_str());
  PgResult r(PQexecParams(conn, sql.c_str(), static_cast<int>(values.size()), nullptr, values.data(),
                        nullptr, nullptr, result_format));
  ExecStatusType st = r ? PQresultStatus(r.get()) : PGRES_FATAL_ERROR;
  if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK) {
    std::string msg = r ? PQresultErrorMessage(r.get()) : PQerrorMessage(conn);
    while (!msg.empty() && (msg.back() == '\n' || msg.back() == ' ')) msg.pop_back();
    throw CopyError{"PostgreSQL: " + msg + " (" + sql.substr(0, 80) + ")"};
  }
  return r;
}

// A transaction on the caller's connection, rolled back unless committed, so
// every failure leaves the connection idle and the cluster unchanged.
class PgTransaction {
public:
  PgTransaction(PGconn *conn, const char *begin) : conn_(conn) {
    if (PQstatus(conn) != CONNECTION_OK)
      throw CopyError{std::string("no connection to PostgreSQL: ") + PQerrorMessage(conn)};
    if (PQtransactionStatus(conn) != PQTRANS_IDLE)
      throw CopyError{"the PostgreSQL connection is inside a transaction"};
    pg_exec(conn, begin);
    open_ = true;
    // Texts travel as UTF-8, as both stores keep them; the setting ends
    // with the transaction.
    pg_exec(conn, "SET LOCAL client_encoding TO 'UTF8'");
  }
  ~PgTransaction() {
    if (open_) PQclear(PQexec(conn_, "ROLLBACK"));
  }
  void commit() {
    open_ = false;
    pg_exec(conn_, "COMMIT");
  }

private:
  PGconn *conn_;
  bool open_ = false;
};

// Hashes every row of table t of schema into sum, read through a binary
// cursor in batches (the SELECT casts as pg_read_cast says).
void pg_read_table(PGconn *conn, const std::string &schema, const Table &t, TableSum &sum,
                   const std::function<void(const PGresult *, int)> &each_row = nullptr) {
  std::string cols;
  for (const Column &c : t.cols)
    cols += (cols.empty() ? "" : ", ") + sql_quote(c.name) + pg_read_cast(c.type);
  int64_t width = 16;
  for (const Column &c : t.cols)
    width += 8 + (c.type.code == DBTYPE_CHARACTER ? 2 * int64_t{c.type.size} : c.type.size);
  int batch =
      static_cast<int>(std::max<int64_t>(1, std::min<int64_t>(FETCH_ROWS, FETCH_BYTES / width)));
  pg_exec(conn, "DECLARE pgcopy_rows BINARY NO SCROLL CURSOR FOR SELECT " + cols + " FROM " +
                    sql_quote(schema) + "." + sql_quote(t.name));
  for (;;) {
    PgResult r = pg_exec(conn, "FETCH " + std::to_string(batch) + " FROM pgcopy_rows", {}, 1);
    int rows = PQntuples(r.get());
    if (PQnfields(r.get()) != static_cast<int>(t.cols.size()))
      throw CopyError{schema + "." + t.name + ": PostgreSQL returned another number of columns"};
    for (int row = 0; row < rows; ++row) {
      for (int col = 0; col < static_cast<int>(t.cols.size()); ++col)
        sum.cell(pg_cell(r.get(), row, col));
      sum.end_row();
      if (each_row) each_row(r.get(), row);
    }
    if (rows < batch) break;
  }
  pg_exec(conn, "CLOSE pgcopy_rows");
}

// --- SQLite helpers ------------------------------------------------------------------

void sqlite_run(sqlite3 *db, const std::string &sql) {
  char *msg = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &msg) != SQLITE_OK) {
    std::string t = msg ? msg : sqlite3_errmsg(db);
    sqlite3_free(msg);
    throw CopyError{"SQLite: " + t + " (" + sql.substr(0, 80) + ")"};
  }
}

SqliteStmt sqlite_prepare(sqlite3 *db, const std::string &sql) {
  sqlite3_stmt *s = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK)
    throw CopyError{std::string("SQLite: ") + sqlite3_errmsg(db) + " (" + sql.substr(0, 80) + ")"};
  return SqliteStmt(s);
}

// Steps s to its next row: true on a row, false when done; throws
// CopyError on a failure, so that a damaged file never reads as a shorter one.
bool sqlite_next(sqlite3 *db, sqlite3_stmt *s) {
  int rc = sqlite3_step(s);
  if (rc == SQLITE_ROW) return true;
  if (rc != SQLITE_DONE) throw CopyError{std::string("SQLite: ") + sqlite3_errmsg(db)};
  return false;
}

std::string column_text(sqlite3_stmt *s, int col) {
  const unsigned char *t = sqlite3_column_text(s, col);
  return t ? reinterpret_cast<const char *>(t) : "";
}

// The layout of a SQLite database file: every table (also internal ones),
// its columns with their declared types read as the SQLite store reads them,
// its indices and whether it is static. Indices that SQLite made for UNIQUE or
// PRIMARY KEY constraints of tables made by other tools become unique indices
// named <TABLE>_UNIQUE<n>, so the cluster enforces what the file enforced.
std::vector<Table> sqlite_layout(sqlite3 *db) {
  std::vector<Table> tables;
  std::vector<std::string> triggers;
  SqliteStmt objects =
      sqlite_prepare(db, "SELECT type, name FROM sqlite_schema WHERE type IN ('table', 'trigger') "
                         "AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' ORDER BY name");
  while (sqlite_next(db, objects.get())) {
    std::string type = column_text(objects.get(), 0), name = column_text(objects.get(), 1);
    if (type == "trigger") {
      triggers.push_back(name);
      continue;
    }
    Table t;
    t.name = name;
    SqliteStmt cols = sqlite_prepare(db, "SELECT name, type, \"notnull\" FROM pragma_table_info(?)");
    sqlite3_bind_text(cols.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
    while (sqlite_next(db, cols.get()))
      t.cols.push_back({column_text(cols.get(), 0),
                        type_from_declaration(column_text(cols.get(), 1)),
                        sqlite3_column_int(cols.get(), 2) != 0});
    SqliteStmt ixs = sqlite_prepare(db, "SELECT il.name, il.\"unique\", il.origin, ii.name, il.partial "
                                  "FROM pragma_index_list(?1) il, pragma_index_info(il.name) ii "
                                  "ORDER BY il.seq DESC, ii.seqno");
    sqlite3_bind_text(ixs.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
    std::string last;
    int constraints = 0;
    while (sqlite_next(db, ixs.get())) {
      std::string iname = column_text(ixs.get(), 0), origin = column_text(ixs.get(), 2);
      if (sqlite3_column_type(ixs.get(), 3) == SQLITE_NULL || sqlite3_column_int(ixs.get(), 4))
        throw CopyError{name + ": the index " + iname +
                        " has an expression or a WHERE clause, which the copy cannot carry"};
      if (iname != last) {
        Index ix;
        ix.name = origin == "c" ? iname : name + "_UNIQUE" + std::to_string(++constraints);
        ix.unique = sqlite3_column_int(ixs.get(), 1) != 0;
        t.indexes.push_back(ix);
        last = iname;
      }
      t.indexes.back().cols.push_back(column_text(ixs.get(), 3));
    }
    tables.push_back(std::move(t));
  }
  for (Table &t : tables)
    for (const std::string &g : triggers)
      if (g == static_trigger_base(t) + "_i") t.is_static = true;
  return tables;
}

// The statements that make table t static in a SQLite file: the triggers the
// SQLite store makes for SET TABLE ... STATIC.
std::string sqlite_static_sql(const Table &t) {
  std::string base = static_trigger_base(t);
  std::string raise =
      "BEGIN SELECT RAISE(ABORT, '" + std::string(STATIC_MESSAGE) + t.name + "'); END;";
  return "CREATE TRIGGER " + sql_quote(base + "_i") + " BEFORE INSERT ON " + sql_quote(t.name) +
         " " + raise + "CREATE TRIGGER " + sql_quote(base + "_u") + " BEFORE UPDATE ON " +
         sql_quote(t.name) + " " + raise + "CREATE TRIGGER " + sql_quote(base + "_d") +
         " BEFORE DELETE ON " + sql_quote(t.name) + " " + raise;
}

// Counts and hashes every row of table t of a SQLite file into sum; each_row
// sees the converted cells of each row before it is hashed.
void sqlite_read_table(sqlite3 *db, const std::string &dbname, const Table &t, TableSum &sum,
                       const std::function<void(const std::vector<Cell> &)> &each_row = nullptr) {
  std::string cols;
  for (const Column &c : t.cols) cols += (cols.empty() ? "" : ", ") + sql_quote(c.name);
  SqliteStmt s = sqlite_prepare(db, "SELECT " + cols + " FROM " + sql_quote(t.name));
  std::vector<Cell> cells(t.cols.size());
  int rc;
  int64_t row = 0;
  while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
    ++row;
    for (size_t k = 0; k < t.cols.size(); ++k) {
      try {
        cells[k] = sqlite_cell(s.get(), static_cast<int>(k), t.cols[k].type);
      } catch (const CopyError &e) {
        throw CopyError{dbname + "." + t.name + " row " + std::to_string(row) + " column " +
                        t.cols[k].name + ": " + e.text};
      }
    }
    if (each_row) each_row(cells);
    for (const Cell &c : cells) sum.cell(c);
    sum.end_row();
  }
  if (rc != SQLITE_DONE) throw CopyError{std::string("SQLite: ") + sqlite3_errmsg(db)};
}

// --- Import ------------------------------------------------------------------------

// Binary COPY stream: header, one tuple per row, trailer; sent in chunks.
class CopyWriter {
public:
  explicit CopyWriter(PGconn *conn) : conn_(conn) {
    static const char header[] = "PGCOPY\n\377\r\n";
    buf_.append(header, 11); // the signature includes its zero byte
    put32(0);                // flags
    put32(0);                // header extension length
  }
  void row(const std::vector<Cell> &cells, const std::vector<Column> &cols) {
    put16(static_cast<uint16_t>(cells.size()));
    for (size_t k = 0; k < cells.size(); ++k) {
      const Cell &c = cells[k];
      if (c.kind == Cell::NUL) {
        put32(0xFFFFFFFFu);
      } else if (c.kind == Cell::INT && cols[k].type.code == DBTYPE_SMALLINT) {
        put32(2);
        put16(static_cast<uint16_t>(c.i));
      } else if (c.kind == Cell::INT) {
        put32(4);
        put32(static_cast<uint32_t>(c.i));
      } else if (c.kind == Cell::DBL) {
        uint64_t bits;
        memcpy(&bits, &c.f, 8);
        put32(8);
        put32(static_cast<uint32_t>(bits >> 32));
        put32(static_cast<uint32_t>(bits));
      } else {
        if (c.n > 0x3FFFFFFF) throw CopyError{cols[k].name + ": a value longer than 1 GB"};
        put32(static_cast<uint32_t>(c.n));
        if (c.n > 0) buf_.append(c.p, c.n); // SQLite gives no pointer for an empty blob
      }
    }
    if (buf_.size() >= COPY_CHUNK) flush();
  }
  // Ends the stream; returns the rows PostgreSQL took.
  int64_t finish() {
    put16(0xFFFF);
    flush();
    if (PQputCopyEnd(conn_, nullptr) != 1) throw CopyError{PQerrorMessage(conn_)};
    done_ = true;
    PgResult r(PQgetResult(conn_));
    std::string msg = r && PQresultStatus(r.get()) == PGRES_COMMAND_OK
                          ? ""
                          : (r ? PQresultErrorMessage(r.get()) : PQerrorMessage(conn_));
    int64_t n = r ? strtoll(PQcmdTuples(r.get()), nullptr, 10) : 0;
    while (PGresult *more = PQgetResult(conn_)) PQclear(more);
    if (!msg.empty()) {
      while (!msg.empty() && msg.back() == '\n') msg.pop_back();
      throw CopyError{"PostgreSQL: " + msg};
    }
    return n;
  }
  // A stream not finished (a refused value) is cancelled, so the connection
  // leaves COPY mode and the transaction can roll back.
  ~CopyWriter() {
    if (done_) return;
    PQputCopyEnd(conn_, "copy abandoned");
    while (PGresult *r = PQgetResult(conn_)) PQclear(r);
  }

private:
  void put16(uint16_t v) {
    char b[2] = {static_cast<char>(v >> 8), static_cast<char>(v)};
    buf_.append(b, 2);
  }
  void put32(uint32_t v) {
    char b[4] = {static_cast<char>(v >> 24), static_cast<char>(v >> 16), static_cast<char>(v >> 8),
                 static_cast<char>(v)};
    buf_.append(b, 4);
  }
  void flush() {
    if (!buf_.empty() && PQputCopyData(conn_, buf_.data(), static_cast<int>(buf_.size())) != 1)
      throw CopyError{std::string("PostgreSQL: ") + PQerrorMessage(conn_)};
    buf_.clear();
  }
  PGconn *conn_;
  std::string buf_;
  bool done_ = false;
};

void check_identifier(const std::string &where, const std::string &name) {
  if (name.size() > PG_MAX_IDENTIFIER)
    throw CopyError{where + ": the name " + name + " is longer than PostgreSQL's " +
                    std::to_string(PG_MAX_IDENTIFIER) + " bytes"};
}

// Creates schema name with its marker table, which holds one row (the
// PostgreSQL store counts it up in every transaction that writes).
void pg_create_schema(PGconn *conn, const std::string &name) {
  std::string marker = sql_quote(name) + "." + sql_quote(MARKER_TABLE);
  pg_exec(conn, "CREATE SCHEMA " + sql_quote(name));
  pg_exec(conn, "CREATE TABLE " + marker + " (n bigint NOT NULL DEFAULT 0)");
  pg_exec(conn, "INSERT INTO " + marker + " (n) VALUES (0)");
}

void pg_create_table(PGconn *conn, const std::string &schema, const Table &t) {
  std::string qt = sql_quote(schema) + "." + sql_quote(t.name);
  std::string sql = "CREATE TABLE " + qt + " (";
  for (size_t k = 0; k < t.cols.size(); ++k)
    sql += (k ? ", " : "") + sql_quote(t.cols[k].name) + " " +
           pg_column_declaration(t.cols[k].type, t.cols[k].not_null);
  pg_exec(conn, sql + ")");
  for (const Column &c : t.cols)
    pg_exec(conn, "COMMENT ON COLUMN " + qt + "." + sql_quote(c.name) + " IS " +
                      sql_literal(declared_type(c.type)));
}

// Makes table t of schema static as the SQLite store's triggers do: every
// row inserted, changed or deleted raises "TAVRIN_STATIC <table>", through
// the PostgreSQL store's trigger function "TAVRIN$".refuse_static(). A cluster
// that no tavrind has served yet lacks that function; it is made here then,
// as the store makes it (left alone when it exists).
void pg_make_static(PGconn *conn, const std::string &schema, const Table &t) {
  PgResult fn = pg_exec(conn, "SELECT 1 FROM pg_proc p JOIN pg_namespace n ON n.oid = p.pronamespace "
                            "WHERE n.nspname = 'TAVRIN$' AND p.proname = 'refuse_static'");
  if (PQntuples(fn.get()) == 0) {
    pg_exec(conn, "CREATE SCHEMA IF NOT EXISTS \"TAVRIN$\"");
    pg_exec(conn, "CREATE FUNCTION \"TAVRIN$\".refuse_static() RETURNS trigger LANGUAGE plpgsql "
                  "AS $f$ BEGIN RAISE EXCEPTION USING ERRCODE = 'TV306', MESSAGE = '" +
                      std::string(STATIC_MESSAGE) + "' || TG_TABLE_NAME; END $f$");
  }
  std::string base = static_trigger_base(t);
  for (const char *ev : {"_i INSERT", "_u UPDATE", "_d DELETE"})
    pg_exec(conn, "CREATE TRIGGER " + sql_quote(base + std::string(ev, 2)) + " BEFORE " +
                      (ev + 3) + " ON " + sql_quote(schema) + "." + sql_quote(t.name) +
                      " FOR EACH ROW EXECUTE FUNCTION \"TAVRIN$\".refuse_static()");
}

void pg_create_indexes(PGconn *conn, const std::string &schema, const Table &t) {
  for (const Index &ix : t.indexes) {
    std::string cols;
    for (const std::string &c : ix.cols) cols += (cols.empty() ? "" : ", ") + sql_quote(c);
    pg_exec(conn, std::string("CREATE ") + (ix.unique ? "UNIQUE " : "") + "INDEX " +
                      sql_quote(ix.name) + " ON " + sql_quote(schema) + "." +
                      sql_quote(t.name) + " (" + cols + ")");
  }
}

// Creates table t in schema name, copies its rows from the file db, verifies
// them and builds the table's indices; appends the table's report line.
void copy_table(PGconn *conn, sqlite3 *db, const std::string &name, const Table &t,
                std::vector<std::string> &lines) {
  std::string where = name + "." + t.name;
  pg_create_table(conn, name, t);
  TableSum source, copied;
  {
    std::string cols;
    for (const Column &c : t.cols) cols += (cols.empty() ? "" : ", ") + sql_quote(c.name);
    PgResult r(PQexec(conn, ("COPY " + sql_quote(name) + "." + sql_quote(t.name) + " (" + cols +
                           ") FROM STDIN (FORMAT binary)")
                              .c_str()));
    if (!r || PQresultStatus(r.get()) != PGRES_COPY_IN)
      throw CopyError{
          where + ": PostgreSQL: " + (r ? PQresultErrorMessage(r.get()) : PQerrorMessage(conn))};
    CopyWriter w(conn);
    sqlite_read_table(db, name, t, source,
                      [&](const std::vector<Cell> &cells) { w.row(cells, t.cols); });
    int64_t taken = w.finish();
    if (taken != source.rows())
      throw CopyError{where + ": PostgreSQL took " + std::to_string(taken) + " of " +
                      std::to_string(source.rows()) + " rows"};
  }
  pg_read_table(conn, name, t, copied);
  if (copied.rows() != source.rows())
    throw CopyError{where + ": " + std::to_string(source.rows()) + " rows read, " +
                    std::to_string(copied.rows()) + " rows in PostgreSQL"};
  if (copied.sum() != source.sum())
    throw CopyError{where + ": the checksum of the copied rows differs from the original's"};
  // Indices come after the rows: one build per index instead of an update
  // per row. A unique index over duplicate values fails here, as it would
  // have failed in the file.
  pg_create_indexes(conn, name, t);
  if (t.is_static) pg_make_static(conn, name, t);
  lines.push_back(where + ": " + std::to_string(source.rows()) +
                  (source.rows() == 1 ? " row" : " rows") + ", checksum ok");
}

// Copies the SQLite database name (file path) into a new schema in one
// transaction; appends the report lines.
void import_database(PGconn *conn, const std::string &name, const std::string &path,
                     std::vector<std::string> &report) {
  sqlite3 *raw = nullptr;
  int rc = sqlite3_open_v2(path.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
  SqliteDb db(raw);
  if (rc != SQLITE_OK)
    throw CopyError{path + ": " + (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc))};
  type_register_collation(db.get());
  // One read transaction: the copy and its checksums see one state of the file.
  sqlite_run(db.get(), "BEGIN");
  std::vector<Table> tables = sqlite_layout(db.get());
  for (const Table &t : tables) {
    check_identifier(name, t.name);
    for (const Column &c : t.cols) check_identifier(name + "." + t.name, c.name);
    for (const Index &ix : t.indexes) check_identifier(name + "." + t.name, ix.name);
    if (t.name.rfind(STORE_PREFIX, 0) == 0)
      throw CopyError{name + ": the table name " + t.name + " is kept for the PostgreSQL store"};
  }

  PgTransaction tx(conn, "BEGIN");
  pg_create_schema(conn, name);
  std::vector<std::string> lines;
  for (const Table &t : tables) {
    std::string where = name + "." + t.name;
    try {
      copy_table(conn, db.get(), name, t, lines);
    } catch (CopyError &e) {
      if (e.text.rfind(where, 0) != 0) e.text = where + ": " + e.text;
      throw;
    }
  }
  tx.commit();
  report.push_back(name + ": " + std::to_string(tables.size()) + " tables copied");
  report.insert(report.end(), lines.begin(), lines.end());
}

bool pg_schema_exists(PGconn *conn, const std::string &name) {
  PgResult r = pg_exec(conn, "SELECT 1 FROM pg_namespace WHERE nspname = $1", {name});
  return PQntuples(r.get()) > 0;
}

// --- Save ---------------------------------------------------------------------

// The layout of schema name as of the transaction's snapshot.
std::vector<Table> pg_layout(PGconn *conn, const std::string &name) {
  std::vector<Table> tables;
  PgResult rels =
      pg_exec(conn,
              "SELECT c.oid, c.relname FROM pg_class c JOIN pg_namespace n "
              "ON n.oid = c.relnamespace WHERE n.nspname = $1 AND c.relkind IN ('r', 'p') "
              "AND NOT starts_with(c.relname, $2) ORDER BY c.relname",
              {name, STORE_PREFIX});
  for (int k = 0; k < PQntuples(rels.get()); ++k) {
    std::string oid = PQgetvalue(rels.get(), k, 0);
    Table t;
    t.name = PQgetvalue(rels.get(), k, 1);
    PgResult cols = pg_exec(conn,
                          "SELECT attname, format_type(atttypid, atttypmod), attnotnull, "
                          "coalesce(col_description(attrelid, attnum), '') FROM pg_attribute "
                          "WHERE attrelid = $1 AND attnum > 0 AND NOT attisdropped ORDER BY attnum",
                          {oid});
    for (int c = 0; c < PQntuples(cols.get()); ++c)
      t.cols.push_back({PQgetvalue(cols.get(), c, 0),
                        pg_column_type(PQgetvalue(cols.get(), c, 3), PQgetvalue(cols.get(), c, 1)),
                        std::string(PQgetvalue(cols.get(), c, 2)) == "t"});
    PgResult trig = pg_exec(conn, "SELECT 1 FROM pg_trigger WHERE tgrelid = $1 AND tgname = $2",
                          {oid, static_trigger_base(t) + "_i"});
    t.is_static = PQntuples(trig.get()) > 0;
    // Each key column of each index, as its definition names it: a plain
    // column, or an expression over one column (an index that compares by
    // the string rule), which the file indexes by the column itself.
    PgResult ixs =
        pg_exec(conn,
                "SELECT i.relname, x.indisunique, pg_get_indexdef(x.indexrelid, k.ord::int, "
                "true) FROM pg_index x JOIN pg_class i ON i.oid = x.indexrelid, "
                "generate_series(1, x.indnkeyatts) AS k(ord) WHERE x.indrelid = $1 "
                "ORDER BY i.relname, k.ord",
                {oid});
    for (int r = 0; r < PQntuples(ixs.get()); ++r) {
      std::string iname = PQgetvalue(ixs.get(), r, 0), def = PQgetvalue(ixs.get(), r, 2);
      if (t.indexes.empty() || t.indexes.back().name != iname) {
        Index ix;
        ix.name = iname;
        ix.unique = std::string(PQgetvalue(ixs.get(), r, 1)) == "t";
        t.indexes.push_back(ix);
      }
      const Column *found = nullptr;
      for (const Column &c : t.cols)
        if (def == c.name || def == sql_quote(c.name)) found = &c;
      for (const Column &c : t.cols)
        if (!found && def.find(sql_quote(c.name)) != std::string::npos) found = &c;
      if (!found)
        throw CopyError{name + "." + t.name + ": the index " + iname + " has the key " + def +
                        ", which names no column"};
      t.indexes.back().cols.push_back(found->name);
    }
    tables.push_back(std::move(t));
  }
  return tables;
}

// Writes the tables into the new SQLite file db as the SQLite store makes
// them, copying the rows from the snapshot; verifies each table by reading
// it back from the file.
void save_tables(PGconn *conn, const std::string &name, const std::vector<Table> &tables,
                 sqlite3 *db) {
  for (const Table &t : tables) {
    std::string where = name + "." + t.name;
    std::string sql = "CREATE TABLE " + sql_quote(t.name) + " (";
    std::string params;
    for (size_t k = 0; k < t.cols.size(); ++k) {
      sql += (k ? ", " : "") + sql_quote(t.cols[k].name) + " " +
             type_declaration(t.cols[k].type, t.cols[k].not_null);
      params += k ? ", ?" : "?";
    }
    sqlite_run(db, sql + ")");
    SqliteStmt ins =
        sqlite_prepare(db, "INSERT INTO " + sql_quote(t.name) + " VALUES (" + params + ")");
    TableSum source, written;
    pg_read_table(conn, name, t, source, [&](const PGresult *r, int row) {
      for (int col = 0; col < static_cast<int>(t.cols.size()); ++col) {
        Cell c = pg_cell(r, row, col);
        int rc = SQLITE_OK;
        switch (c.kind) {
        case Cell::NUL:
          rc = sqlite3_bind_null(ins.get(), col + 1);
          break;
        case Cell::INT:
          rc = sqlite3_bind_int64(ins.get(), col + 1, c.i);
          break;
        case Cell::DBL:
          rc = sqlite3_bind_double(ins.get(), col + 1, c.f);
          break;
        case Cell::BYTES:
          if (t.cols[static_cast<size_t>(col)].type.code == DBTYPE_BINARY)
            rc = sqlite3_bind_blob64(ins.get(), col + 1, c.p, c.n, SQLITE_STATIC);
          else
            rc = sqlite3_bind_text64(ins.get(), col + 1, c.p, c.n, SQLITE_STATIC, SQLITE_UTF8);
          break;
        }
        if (rc != SQLITE_OK) throw CopyError{where + ": SQLite: " + sqlite3_errstr(rc)};
      }
      if (sqlite3_step(ins.get()) != SQLITE_DONE)
        throw CopyError{where + ": SQLite: " + sqlite3_errmsg(db)};
      sqlite3_reset(ins.get());
      sqlite3_clear_bindings(ins.get());
    });
    sqlite_read_table(db, name, t, written);
    if (written.rows() != source.rows() || written.sum() != source.sum())
      throw CopyError{where + ": the rows written to the file differ from PostgreSQL's"};
    for (const Index &ix : t.indexes) {
      std::string cols;
      for (const std::string &c : ix.cols) cols += (cols.empty() ? "" : ", ") + sql_quote(c);
      sqlite_run(db, std::string("CREATE ") + (ix.unique ? "UNIQUE " : "") + "INDEX " +
                         sql_quote(ix.name) + " ON " + sql_quote(t.name) + " (" + cols + ")");
    }
    if (t.is_static) sqlite_run(db, sqlite_static_sql(t));
  }
}

// Syncs the file or folder path to disk; false when that fails (errno set).
bool sync_path(const std::string &path, int flags) {
  int fd = open(path.c_str(), flags | O_CLOEXEC);
  bool ok = fd >= 0 && fsync(fd) == 0;
  int e = errno;
  if (fd >= 0) close(fd);
  errno = e;
  return ok;
}

} // namespace

int pgcopy_import_sqlite(PGconn *conn, const std::string &dir, std::vector<std::string> &report,
                         std::string &err) {
  try {
    Catalog cat;
    cat.dir = dir;
    while (cat.dir.size() > 1 && cat.dir.back() == '/') cat.dir.pop_back();
    struct stat sb;
    if (stat(cat.dir.c_str(), &sb) != 0 || !S_ISDIR(sb.st_mode))
      throw CopyError{cat.dir + ": not a folder"};
    std::vector<std::string> names = catalog_list(cat);
    if (names.empty()) throw CopyError{cat.dir + ": no databases (NAME.db files) in the folder"};
    {
      PgResult enc = pg_exec(conn, "SHOW server_encoding");
      if (std::string(PQgetvalue(enc.get(), 0, 0)) != "UTF8")
        throw CopyError{std::string("the PostgreSQL database has the encoding ") +
                        PQgetvalue(enc.get(), 0, 0) + ", not UTF8"};
    }
    // Every name is checked before the first copy, so a refusal copies nothing.
    for (const std::string &n : names)
      if (pg_schema_exists(conn, n))
        throw CopyError{"the schema " + n +
                        " exists already in the PostgreSQL database; nothing copied"};
    for (const std::string &n : names) {
      try {
        import_database(conn, n, catalog_path(cat, n), report);
      } catch (CopyError &e) {
        if (e.text.rfind(n, 0) != 0) e.text = n + ": " + e.text;
        throw;
      }
    }
  } catch (const CopyError &e) {
    err = e.text;
    return 0;
  }
  return 1;
}

int pgcopy_save_to_sqlite(PGconn *conn, const std::string &name, const std::string &path,
                          std::string &err) {
  std::string tmp = path + ".part";
  bool made = false;
  try {
    struct stat sb;
    if (stat(path.c_str(), &sb) == 0) throw CopyError{path + " exists already"};
    PgTransaction tx(conn, "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY");
    PgResult marker =
        pg_exec(conn,
                "SELECT 1 FROM pg_class c JOIN pg_namespace n ON n.oid = c.relnamespace "
                "WHERE n.nspname = $1 AND c.relname = $2",
                {name, MARKER_TABLE});
    if (PQntuples(marker.get()) == 0)
      throw CopyError{"the database " + name + " does not exist in the PostgreSQL database"};
    std::vector<Table> tables = pg_layout(conn, name);

    // The file is written under a temporary name and moved into place when
    // complete, so a failure leaves no half database at path.
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) throw CopyError{tmp + ": " + strerror(errno)};
    close(fd);
    made = true;
    sqlite3 *raw = nullptr;
    int rc = sqlite3_open_v2(tmp.c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr);
    SqliteDb db(raw);
    if (rc != SQLITE_OK)
      throw CopyError{tmp + ": " + (raw ? sqlite3_errmsg(raw) : sqlite3_errstr(rc))};
    if (type_register_collation(db.get()) != SQLITE_OK)
      throw CopyError{std::string("SQLite: ") + sqlite3_errmsg(db.get())};
    sqlite_run(db.get(), "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; BEGIN");
    save_tables(conn, name, tables, db.get());
    sqlite_run(db.get(), "COMMIT; PRAGMA journal_mode=WAL");
    db.reset();
    tx.commit();
    // The rows were written without syncs; the finished file is synced
    // once, and so is its folder after the move, so a saved copy survives a
    // power loss. link() refuses an existing target, unlike rename(): a file
    // that appeared at path meanwhile is not replaced.
    if (!sync_path(tmp, O_RDONLY)) throw CopyError{tmp + ": " + strerror(errno)};
    if (link(tmp.c_str(), path.c_str()) != 0) throw CopyError{path + ": " + strerror(errno)};
    unlink(tmp.c_str());
    // The copy is complete at path now; a folder that cannot be synced
    // leaves it there rather than fail the save.
    size_t slash = path.rfind('/');
    sync_path(slash == std::string::npos ? "."
              : slash == 0               ? "/"
                                         : path.substr(0, slash),
              O_RDONLY | O_DIRECTORY);
  } catch (const CopyError &e) {
    if (made)
      for (const char *suffix : {"", "-wal", "-shm", "-journal"}) unlink((tmp + suffix).c_str());
    err = e.text;
    return 0;
  }
  return 1;
}

} // namespace tavrind
