// The SQLite store of tavrind: every database is one SQLite file of the data
// folder (catalog.h), every channel has its own connection to it.
//
// The write lock of a database is SQLite's own: a transaction that writes
// holds the database's RESERVED lock until it ends, and a connection that
// finds it taken is told SQLITE_BUSY at once (no busy wait), which leaves
// here as WouldBlock. Readers read WAL snapshots and never wait. Statements
// are prepared once per text and kept per connection; a query's rows are
// written straight into the answer, by a function that SQLite calls with
// each row's values where the query allows it, else by the row loop.
#include "server/store.h"

#include "server/catalog.h"
#include "server/sqliteptr.h"
#include "server/sqltext.h"

#include <sqlite3.h>

#include <cctype>
#include <cstring>
#include <strings.h>
#include <optional>
#include <unordered_map>

namespace tavrind {

namespace {

// Prefix of the triggers that make a table static, and the start of the
// message they raise.
const char *const STATIC_PREFIX = "_static_";
const char *const STATIC_MESSAGE = "TAVRIN_STATIC ";

// Prepared statements kept per connection.
constexpr size_t STMT_CACHE = 64;
// How many SQLite virtual machine steps pass between two calls of the
// progress handler: a few microseconds of work.
constexpr int PROGRESS_STEPS = 1000;

// A query's rows may be written into the answer by an application function
// that SQLite calls with the row's values as its arguments (see SqliteRows):
// its name, the parameter that carries the row sink, the pointer type of
// that binding, and the name the query is wrapped under.
const char *const ROW_FUNCTION = "tavrin_answer_row";
const char *const ROW_SINK_PARAM = ":tavrin_row_sink";
const char *const ROW_SINK = "tavrin-row-sink";
// No TAVRIN name has a blank; should a table of another tool be named so,
// the wrapped text does not prepare and the rows are read column by column.
const char *const ROW_QUERY = "\"tavrin rows\"";

// Where the row function writes: the answer, where the rows taken so far end
// (the next row goes there), the answer's column types; and what its last
// call left.
struct RowSink {
  std::vector<unsigned char> *out = nullptr;
  size_t end = 0;
  size_t row_end = 0; // the end of the row the last call wrote
  const ColType *types = nullptr;
  size_t ncols = 0;
  int calls = 0; // calls since the last row was taken
};

// The row function: writes its arguments after the first (the bound sink)
// as a row of the answer at the sink's end. Its own value is NULL and never
// read. Fails the statement without a sink or without memory (no C++
// exception may pass through SQLite).
void row_function(sqlite3_context *ctx, int argc, sqlite3_value **argv) {
  auto *sink =
      argc > 0 ? static_cast<RowSink *>(sqlite3_value_pointer(argv[0], ROW_SINK)) : nullptr;
  if (!sink || !sink->out || static_cast<size_t>(argc - 1) < sink->ncols) {
    sqlite3_result_error(ctx, "tavrin_answer_row: no answer to write to", -1);
    return;
  }
  try {
    sink->row_end = type_write_values(*sink->out, sink->end, sink->types, sink->ncols, argv + 1);
    ++sink->calls;
  } catch (...) {
    sqlite3_result_error_nomem(ctx);
  }
}

// Opcodes after which a program may compute result rows ahead of handing
// them out, or compute one several times: sorting, temporary tables,
// aggregates. A query whose program has none computes each result row once,
// right before handing it out.
bool buffering_opcode(const char *op) {
  static const char *const kOps[] = {"SorterOpen", "SorterSort", "Sort",     "OpenEphemeral",
                                     "OpenAutoindex", "OpenDup",  "AggStep",  "AggStep1",
                                     "AggValue",   "AggInverse", "AggFinal"};
  for (const char *k : kOps)
    if (strcmp(op, k) == 0) return true;
  return false;
}

// Whether the query text orders its rows anywhere: the words ORDER BY
// outside quoted names and texts. Wrapped into another query, an ordered
// query's order would rest on SQLite keeping the order of a subquery, which
// it does not promise.
bool orders_rows(const std::string &sql) {
  auto word_char = [&](size_t k) {
    return k < sql.size() && (isalnum(static_cast<unsigned char>(sql[k])) || sql[k] == '_');
  };
  for (size_t i = 0; i < sql.size(); ++i) {
    const char c = sql[i];
    if (c == '"' || c == '\'') {
      // Up to the closing quote; a doubled quote stands for itself.
      for (++i; i < sql.size(); ++i) {
        if (sql[i] != c) continue;
        if (i + 1 < sql.size() && sql[i + 1] == c)
          ++i;
        else
          break;
      }
      continue;
    }
    if ((i > 0 && word_char(i - 1)) || strncasecmp(sql.c_str() + i, "ORDER", 5) != 0 ||
        i + 5 >= sql.size() || !isspace(static_cast<unsigned char>(sql[i + 5])))
      continue;
    size_t j = i + 5;
    while (j < sql.size() && isspace(static_cast<unsigned char>(sql[j]))) ++j;
    if (strncasecmp(sql.c_str() + j, "BY", 2) == 0 && !word_char(j + 2)) return true;
  }
  return false;
}

class SqliteConn;

// A prepared statement from the connection's cache, reset and unbound again
// when the use ends. The statement leaves the cache while it is in use, so
// that neither a full cache nor a nested use of the same text can finalize
// it under us.
class CachedStmt {
public:
  CachedStmt(SqliteConn &c, const std::string &sql);
  ~CachedStmt();
  CachedStmt(const CachedStmt &) = delete;
  CachedStmt &operator=(const CachedStmt &) = delete;
  sqlite3_stmt *get() const { return s_.get(); }

private:
  SqliteConn &c_;
  std::string sql_;
  SqliteStmt s_;
};

class SqliteConn final : public StoreConn {
public:
  SqliteConn(Catalog &cat, std::string name, SqliteDb db, StoreCheck check, void *arg)
      : cat_(cat), name_(std::move(name)), db_(std::move(db)), check_(check), arg_(arg) {
    sqlite3_progress_handler(db_.get(), PROGRESS_STEPS, &SqliteConn::progress, this);
    // Not usable from the file's own triggers and views. Without it, the
    // wrapped queries fail to prepare and are read column by column.
    sqlite3_create_function_v2(db_.get(), ROW_FUNCTION, -1, SQLITE_UTF8 | SQLITE_DIRECTONLY,
                               nullptr, row_function, nullptr, nullptr, nullptr);
  }
  ~SqliteConn() override {
    cache_.clear();
    db_.reset();
  }

  sqlite3 *db() const { return db_.get(); }
  std::unordered_map<std::string, SqliteStmt> cache_;

  // Throws the error that an SQLite failure means for the client.
  [[noreturn]] void raise(int rc);

  std::string text_compare(const std::string &l, const char *op, const std::string &r,
                           bool rtrim_only) override {
    return "(" + l + (rtrim_only ? " COLLATE RTRIM " : " COLLATE TAVRIN ") + op + " " + r + ")";
  }
  std::string text_between(const std::string &a, const std::string &lo,
                           const std::string &hi) override {
    return "(" + a + " COLLATE TAVRIN BETWEEN " + lo + " AND " + hi + ")";
  }
  std::string text_in_list(const std::string &a, const std::vector<std::string> &items) override {
    std::string list;
    for (const auto &i : items) list += (list.empty() ? "" : ", ") + i;
    return "(" + a + " COLLATE RTRIM IN (" + list + "))";
  }
  std::string text_in_select(const std::string &a, const std::string &sub) override {
    return "(" + a + " COLLATE RTRIM IN (" + sub + "))";
  }
  std::string like(const std::string &l, const std::string &r) override {
    return "(" + l + " LIKE " + r + ")";
  }
  std::string order_by(const std::string &x, bool text, bool desc) override {
    return x + (text ? " COLLATE TAVRIN" : "") + (desc ? " DESC" : "");
  }
  std::string text_min_max(bool max, const std::string &x) override {
    return std::string(max ? "max(" : "min(") + x + " COLLATE TAVRIN)";
  }

  int schema_version() override {
    CachedStmt s(*this, "PRAGMA schema_version");
    int rc = sqlite3_step(s.get());
    if (rc != SQLITE_ROW) raise(rc);
    return sqlite3_column_int(s.get(), 0);
  }
  void load_schema(StoreSchema &schema) override;

  StoreTxn txn_state() override {
    switch (sqlite3_txn_state(db_.get(), "main")) {
    case SQLITE_TXN_WRITE:
      return STORE_TXN_WRITE;
    case SQLITE_TXN_READ:
      return STORE_TXN_READ;
    default:
      return STORE_TXN_NONE;
    }
  }
  bool txn_open() override { return !sqlite3_get_autocommit(db_.get()); }
  // Outside a transaction every statement is its own; the write lock of
  // BEGIN IMMEDIATE is taken at once or refused (SQLITE_BUSY).
  void begin(bool write, bool = false) override { exec(write ? "BEGIN IMMEDIATE" : "BEGIN"); }
  void commit() override {
    int rc = sqlite3_exec(db_.get(), "COMMIT", nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK) raise(rc);
  }
  void rollback() override {
    if (!sqlite3_get_autocommit(db_.get()))
      sqlite3_exec(db_.get(), "ROLLBACK", nullptr, nullptr, nullptr);
  }
  // SQLite takes the write lock with the statement's first write.
  void statement_begin() override { exec("SAVEPOINT tavrin_stmt"); }
  void statement_undo() override {
    sqlite3_exec(db_.get(), "ROLLBACK TO tavrin_stmt; RELEASE tavrin_stmt", nullptr, nullptr,
                 nullptr);
  }
  void statement_keep() override { exec("RELEASE tavrin_stmt"); }

  void exec(const std::string &sql, const std::string &unique_error = "") override {
    int rc = sqlite3_exec(db_.get(), sql.c_str(), nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK) return;
    if (!unique_error.empty() && (rc & 0xFF) == SQLITE_CONSTRAINT) throw ExecError{unique_error};
    raise(rc);
  }
  void create_table(const std::string &name, const std::vector<ColumnInfo> &cols) override {
    std::string sql = "CREATE TABLE " + sql_quote(name) + " (";
    for (size_t i = 0; i < cols.size(); ++i)
      sql += (i ? ", " : "") + sql_quote(cols[i].name) + " " +
             type_declaration(cols[i].type, cols[i].not_null);
    exec(sql + ")");
  }
  int change(const std::string &sql, const std::vector<SqlValue> &params) override {
    CachedStmt s(*this, sql);
    bind(s.get(), params);
    int rc = sqlite3_step(s.get());
    if (rc != SQLITE_DONE && rc != SQLITE_ROW) raise(rc);
    return sqlite3_changes(db_.get());
  }
  std::unique_ptr<StoreRows> query(const std::string &sql, const std::vector<SqlValue> &params,
                                   bool cursor, const std::vector<AnswerColumn> &cols) override;
  void set_static(const std::string &table, bool make_static) override;

  // The query `sql` wrapped so that the row function writes its first ncols
  // columns (the sink bound to ROW_SINK_PARAM), or "" when its rows are to
  // be read column by column: it orders its rows, or the program of the
  // wrapped text is not known to compute each row right before handing it
  // out. Judged once per text; a failure to prepare either text gives "".
  // The text returned stays valid until the next call.
  const std::string &row_function_sql(const std::string &sql, size_t ncols);
  // Reads the rows of `sql` column by column from now on.
  void row_function_unfit(const std::string &sql) { by_function_[sql].clear(); }
  int save(const std::string &path, std::string &err) override {
    return catalog_save_to(cat_, name_, path, err);
  }

  void bind(sqlite3_stmt *s, const std::vector<SqlValue> &params) {
    for (size_t i = 0; i < params.size(); ++i) {
      int rc = type_bind(s, static_cast<int>(i + 1), params[i]);
      if (rc != SQLITE_OK) raise(rc);
    }
  }

private:
  static int progress(void *arg) {
    auto *c = static_cast<SqliteConn *>(arg);
    if (c->check_ && c->check_(c->arg_)) {
      c->interrupted_ = true;
      return 1;
    }
    return 0;
  }

  Catalog &cat_;
  std::string name_;
  SqliteDb db_;
  StoreCheck check_;
  void *arg_;
  bool interrupted_ = false; // the check function stopped the running statement
  // row_function_sql's verdicts by query text.
  std::unordered_map<std::string, std::string> by_function_;

  friend class SqliteRows;
};

CachedStmt::CachedStmt(SqliteConn &c, const std::string &sql) : c_(c), sql_(sql) {
  auto it = c.cache_.find(sql);
  if (it != c.cache_.end()) {
    s_ = std::move(it->second);
    c.cache_.erase(it);
    return;
  }
  sqlite3_stmt *s = nullptr;
  int rc = sqlite3_prepare_v2(c.db(), sql.c_str(), static_cast<int>(sql.size()), &s, nullptr);
  s_.reset(s);
  if (rc != SQLITE_OK) c.raise(rc);
}

CachedStmt::~CachedStmt() {
  if (!s_) return;
  sqlite3_reset(s_.get());
  sqlite3_clear_bindings(s_.get());
  if (c_.cache_.size() >= STMT_CACHE) c_.cache_.clear();
  c_.cache_[sql_] = std::move(s_);
}

const std::string &SqliteConn::row_function_sql(const std::string &sql, size_t ncols) {
  static const std::string none;
  auto it = by_function_.find(sql);
  if (it != by_function_.end()) return it->second;
  // A text that does not prepare now (a table of a stale schema) or whose
  // program was not read to its end (interrupted) is judged again next time.
  sqlite3_stmt *raw = nullptr;
  int rc = sqlite3_prepare_v2(db(), sql.c_str(), static_cast<int>(sql.size()), &raw, nullptr);
  SqliteStmt probe(raw);
  if (rc != SQLITE_OK || !raw) return none;
  if (by_function_.size() >= 4 * STMT_CACHE) by_function_.clear();
  std::string &verdict = by_function_[sql];
  const int n = sqlite3_column_count(raw);
  if (ncols == 0 || static_cast<size_t>(n) < ncols || orders_rows(sql)) return verdict;
  // The query's columns by position, whatever their names.
  std::string names, args;
  for (int i = 1; i <= n; ++i) {
    names += (i > 1 ? ", c" : "c") + std::to_string(i);
    if (static_cast<size_t>(i) <= ncols) args += ", c" + std::to_string(i);
  }
  std::string wrapped = std::string("WITH ") + ROW_QUERY + "(" + names + ") AS (" + sql +
                        ") SELECT " + ROW_FUNCTION + "(" + ROW_SINK_PARAM + args + ") FROM " +
                        ROW_QUERY;
  std::string explain = "EXPLAIN " + wrapped;
  rc = sqlite3_prepare_v2(db(), explain.c_str(), static_cast<int>(explain.size()), &raw, nullptr);
  probe.reset(raw);
  if (rc != SQLITE_OK || !raw) return verdict;
  while ((rc = sqlite3_step(raw)) == SQLITE_ROW) {
    auto op = reinterpret_cast<const char *>(sqlite3_column_text(raw, 1));
    if (!op || buffering_opcode(op)) return verdict;
  }
  if (rc != SQLITE_DONE) {
    by_function_.erase(sql);
    return none;
  }
  verdict = wrapped;
  return verdict;
}

void SqliteConn::raise(int rc) {
  if (rc == SQLITE_INTERRUPT && interrupted_) {
    interrupted_ = false;
    throw Interrupted{};
  }
  interrupted_ = false;
  int ext = sqlite3_extended_errcode(db_.get());
  std::string msg = sqlite3_errmsg(db_.get());
  // A lock held by this very connection (an open cursor on a table that is
  // to be dropped) never goes away by waiting.
  if ((rc & 0xFF) == SQLITE_LOCKED) throw ExecError{answer_errtext(Err::CURSOR_OFFEN, {})};
  if ((rc & 0xFF) == SQLITE_BUSY) {
    if (ext == SQLITE_BUSY_SNAPSHOT) throw ExecError{answer_errtext(Err::TRANSAKTION_KONFLIKT, {})};
    throw WouldBlock{};
  }
  if ((rc & 0xFF) == SQLITE_CONSTRAINT) {
    if (ext == SQLITE_CONSTRAINT_TRIGGER && msg.rfind(STATIC_MESSAGE, 0) == 0)
      throw ExecError{answer_errtext(Err::TABELLE_STATISCH, {msg.substr(strlen(STATIC_MESSAGE))})};
    if (ext == SQLITE_CONSTRAINT_NOTNULL) {
      size_t dot = msg.rfind('.');
      throw ExecError{
          answer_errtext(Err::NOT_NULL, {dot == std::string::npos ? msg : msg.substr(dot + 1)})};
    }
    if (ext == SQLITE_CONSTRAINT_UNIQUE || ext == SQLITE_CONSTRAINT_PRIMARYKEY) {
      // "UNIQUE constraint failed: T.A, T.B": find the index over these.
      size_t colon = msg.find(": ");
      std::string list = colon == std::string::npos ? msg : msg.substr(colon + 2);
      std::vector<std::string> cols;
      std::string table;
      size_t p = 0;
      while (p < list.size()) {
        size_t comma = list.find(", ", p);
        std::string item =
            list.substr(p, comma == std::string::npos ? std::string::npos : comma - p);
        size_t dot = item.find('.');
        table = sql_upper(item.substr(0, dot));
        cols.push_back(sql_upper(dot == std::string::npos ? item : item.substr(dot + 1)));
        if (comma == std::string::npos) break;
        p = comma + 2;
      }
      throw ExecError{answer_errtext(
          Err::INDEX_VERLETZT,
          {store_unique_index_name(schema_, table, cols, table + "(" + list + ")")})};
    }
  }
  throw ExecError{answer_errtext(Err::SPEICHERFEHLER, {utf8_to_latin1(msg)})};
}

void SqliteConn::load_schema(StoreSchema &schema) {
  schema.tables.clear();
  schema.indexes.clear();
  std::vector<std::pair<std::string, std::string>> objects; // type, name
  {
    CachedStmt s(*this, "SELECT type, name FROM sqlite_schema WHERE type IN ('table','trigger')");
    int rc;
    while ((rc = sqlite3_step(s.get())) == SQLITE_ROW)
      objects.emplace_back(reinterpret_cast<const char *>(sqlite3_column_text(s.get(), 0)),
                           reinterpret_cast<const char *>(sqlite3_column_text(s.get(), 1)));
    if (rc != SQLITE_DONE) raise(rc);
  }
  std::vector<std::string> statics;
  for (const auto &[type, name] : objects) {
    if (type == "trigger") {
      if (name.rfind(STATIC_PREFIX, 0) == 0 && name.size() > 10 &&
          name.compare(name.size() - 2, 2, "_i") == 0)
        statics.push_back(sql_upper(name.substr(8, name.size() - 10)));
      continue;
    }
    if (name.empty() || name[0] == '_' || sql_upper(name).rfind("SQLITE_", 0) == 0) continue;
    TableInfo t;
    t.name = name;
    {
      CachedStmt s(*this, "SELECT name, type, \"notnull\" FROM pragma_table_info(?)");
      sqlite3_bind_text(s.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
      int rc;
      while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
        ColumnInfo c;
        c.name = reinterpret_cast<const char *>(sqlite3_column_text(s.get(), 0));
        const unsigned char *decl = sqlite3_column_text(s.get(), 1);
        c.type = type_from_declaration(decl ? reinterpret_cast<const char *>(decl) : "");
        c.not_null = sqlite3_column_int(s.get(), 2) != 0;
        t.cols.push_back(std::move(c));
      }
      if (rc != SQLITE_DONE) raise(rc);
    }
    {
      CachedStmt s(*this, "SELECT il.name, il.\"unique\", ii.name FROM pragma_index_list(?1) il, "
                          "pragma_index_info(il.name) ii WHERE il.origin = 'c' "
                          "ORDER BY il.name, ii.seqno");
      sqlite3_bind_text(s.get(), 1, name.c_str(), -1, SQLITE_TRANSIENT);
      int rc;
      while ((rc = sqlite3_step(s.get())) == SQLITE_ROW) {
        std::string iname = reinterpret_cast<const char *>(sqlite3_column_text(s.get(), 0));
        IndexInfo &ix = schema.indexes[sql_upper(iname)];
        ix.name = iname;
        ix.table = name;
        ix.unique = sqlite3_column_int(s.get(), 1) != 0;
        const unsigned char *cn = sqlite3_column_text(s.get(), 2);
        ix.cols.push_back(cn ? reinterpret_cast<const char *>(cn) : "");
      }
      if (rc != SQLITE_DONE) raise(rc);
    }
    schema.tables[sql_upper(name)] = std::move(t);
  }
  for (const auto &n : statics) {
    auto it = schema.tables.find(n);
    if (it != schema.tables.end()) it->second.is_static = true;
  }
}

void SqliteConn::set_static(const std::string &table, bool make_static) {
  std::string base = std::string(STATIC_PREFIX) + sql_upper(table);
  std::string sql;
  if (make_static) {
    std::string raise =
        "BEGIN SELECT RAISE(ABORT, '" + std::string(STATIC_MESSAGE) + table + "'); END;";
    sql = "CREATE TRIGGER " + sql_quote(base + "_i") + " BEFORE INSERT ON " + sql_quote(table) + " " +
          raise + "CREATE TRIGGER " + sql_quote(base + "_u") + " BEFORE UPDATE ON " + sql_quote(table) +
          " " + raise + "CREATE TRIGGER " + sql_quote(base + "_d") + " BEFORE DELETE ON " +
          sql_quote(table) + " " + raise;
  } else {
    sql = "DROP TRIGGER IF EXISTS " + sql_quote(base + "_i") + "; DROP TRIGGER IF EXISTS " +
          sql_quote(base + "_u") + "; DROP TRIGGER IF EXISTS " + sql_quote(base + "_d") + ";";
  }
  exec(sql);
}

// A query's rows. A plain query's statement comes from the connection's
// cache and goes back to it; a cursor's is its own for as long as it lives.
//
// A plain query whose program computes each row right before handing it out
// runs wrapped (SqliteConn::row_function_sql): SQLite passes each row's
// values to the row function, which writes them into the answer, instead of
// the row loop asking for every column (each such call costs as much as the
// writing; for large answers a sixth of the server's time). Every row handed
// out must have been written by exactly one call since the one before; when
// one is not (the text's plan changed since it was judged), the rows are
// read again from the start, column by column.
class SqliteRows final : public StoreRows {
public:
  SqliteRows(SqliteConn &c, const std::string &sql, const std::vector<SqlValue> &params,
             bool cursor, const std::vector<AnswerColumn> &cols)
      : c_(c) {
    if (cursor) {
      sqlite3_stmt *s = nullptr;
      int rc = sqlite3_prepare_v2(c.db(), sql.c_str(), static_cast<int>(sql.size()), &s, nullptr);
      own_.reset(s);
      if (rc != SQLITE_OK) c.raise(rc);
      s_ = s;
      c.bind(s_, params);
      return;
    }
    const std::string &wrapped = c.row_function_sql(sql, cols.size());
    if (wrapped.empty()) {
      cached_.emplace(c, sql);
      s_ = cached_->get();
      c.bind(s_, params);
      return;
    }
    sql_ = sql;
    params_ = params;
    for (const AnswerColumn &col : cols) types_.push_back(col.type);
    sink_.types = types_.data();
    sink_.ncols = types_.size();
    cached_.emplace(c, wrapped);
    s_ = cached_->get();
    c.bind(s_, params);
    int at = sqlite3_bind_parameter_index(s_, ROW_SINK_PARAM);
    int rc = sqlite3_bind_pointer(s_, at, &sink_, ROW_SINK, nullptr);
    if (rc != SQLITE_OK) c.raise(rc);
    by_function_ = true;
  }
  bool first() override {
    if (by_function_) {
      // The first row is written aside: the answer it belongs to comes
      // with append().
      first_row_.clear();
      sink_.out = &first_row_;
      sink_.end = 0;
      sink_.calls = 0;
    }
    pending_ = sqlite3_step(s_);
    if (pending_ != SQLITE_ROW && pending_ != SQLITE_DONE) c_.raise(pending_);
    if (by_function_ && pending_ == SQLITE_ROW && sink_.calls != 1) read_by_columns();
    return pending_ == SQLITE_ROW;
  }
  bool append(std::vector<unsigned char> &out, const std::vector<AnswerColumn> &cols,
              int64_t limit, size_t max_bytes) override {
    if (by_function_) {
      size_t start = out.size();
      bool more = false;
      if (append_by_function(out, limit, max_bytes, more)) return more;
      // A row that the function did not write: the rows so far are
      // dropped and read again.
      out.resize(start);
      read_by_columns();
    }
    int64_t n = 0;
    std::vector<ColType> types;
    types.reserve(cols.size());
    for (const AnswerColumn &c : cols) types.push_back(c.type);
    while (limit == 0 || n < limit) {
      int rc = pending_ ? pending_ : sqlite3_step(s_);
      pending_ = 0;
      if (rc == SQLITE_DONE) return false;
      if (rc != SQLITE_ROW) {
        if ((rc & 0xFF) == SQLITE_BUSY && n > 0) return true;
        c_.raise(rc);
      }
      type_append_row(out, types.data(), types.size(), s_);
      answer_row(out);
      ++n;
      if (out.size() > max_bytes) store_answer_too_big(out, max_bytes);
    }
    return true;
  }

private:
  // append() through the row function. Returns false, with out as it was
  // given, when a row came that the function did not write; else true with
  // `more` set as append() returns it.
  bool append_by_function(std::vector<unsigned char> &out, int64_t limit, size_t max_bytes,
                          bool &more) {
    int64_t n = 0;
    // The answer's bytes past the last row taken are room the function took
    // ahead; on every way out, a throw included, the answer is cut to its
    // rows and they are counted in its head.
    struct Finish {
      std::vector<unsigned char> &out;
      size_t end;
      int64_t &n;
      ~Finish() {
        if (out.size() > end) out.resize(end);
        answer_rows_add(out, static_cast<int32_t>(n));
      }
    } fin{out, out.size(), n};
    sink_.out = &out;
    sink_.end = out.size();
    more = true;
    while (limit == 0 || n < limit) {
      int rc = pending_;
      pending_ = 0;
      if (rc == SQLITE_ROW) {
        // The row first() wrote aside.
        out.insert(out.begin() + static_cast<std::ptrdiff_t>(fin.end), first_row_.begin(),
                   first_row_.begin() + static_cast<std::ptrdiff_t>(sink_.row_end));
        sink_.row_end = fin.end + sink_.row_end;
      } else if (rc == 0) {
        sink_.calls = 0;
        rc = sqlite3_step(s_);
        if (rc == SQLITE_ROW && sink_.calls != 1) {
          n = 0;
          return false;
        }
      }
      if (rc == SQLITE_DONE) {
        more = false;
        return true;
      }
      if (rc != SQLITE_ROW) {
        if ((rc & 0xFF) == SQLITE_BUSY && n > 0) return true;
        c_.raise(rc);
      }
      fin.end = sink_.end = sink_.row_end;
      ++n;
      if (fin.end > max_bytes) {
        n = 0;
        store_answer_too_big(out, max_bytes);
      }
    }
    return true;
  }

  // Goes over to reading the rows column by column: the wrapped statement
  // goes back to the cache, the query is run again from its start and
  // stepped to its first row (pending_).
  void read_by_columns() {
    c_.row_function_unfit(sql_);
    by_function_ = false;
    sink_.out = nullptr;
    cached_.reset();
    cached_.emplace(c_, sql_);
    s_ = cached_->get();
    c_.bind(s_, params_);
    pending_ = sqlite3_step(s_);
    if (pending_ != SQLITE_ROW && pending_ != SQLITE_DONE) c_.raise(pending_);
  }

  SqliteConn &c_;
  // The row function's state; bound to the wrapped statement, so declared
  // before the statement that is given back (and unbound) first.
  RowSink sink_;
  std::vector<unsigned char> first_row_;
  std::vector<ColType> types_;
  std::string sql_; // the query and its parameters, for reading them again
  std::vector<SqlValue> params_;
  bool by_function_ = false;
  std::optional<CachedStmt> cached_;
  SqliteStmt own_;
  sqlite3_stmt *s_ = nullptr;
  int pending_ = 0; // the result of a step taken by first(), not yet used
};

std::unique_ptr<StoreRows> SqliteConn::query(const std::string &sql,
                                             const std::vector<SqlValue> &params, bool cursor,
                                             const std::vector<AnswerColumn> &cols) {
  return std::make_unique<SqliteRows>(*this, sql, params, cursor, cols);
}

class SqliteStore final : public Store {
public:
  explicit SqliteStore(Catalog &cat) : cat_(cat) {}
  int init(bool demo, std::string &err) override { return catalog_create_first(cat_, demo, err); }
  bool exists(const std::string &name) override { return catalog_exists(cat_, name); }
  std::vector<std::string> list() override { return catalog_list(cat_); }
  std::unique_ptr<StoreConn> open(const std::string &name, bool create, StoreCheck check,
                                  void *arg, const std::string &, std::string &err) override {
    SqliteDb db(catalog_open(cat_, name, create, err));
    if (!db) return nullptr;
    return std::make_unique<SqliteConn>(cat_, name, std::move(db), check, arg);
  }
  int drop(const std::string &name, std::string &err) override {
    return catalog_drop(cat_, name, err);
  }
  bool commit_waits() const override { return cat_.sync_full; }
  std::string where() const override { return cat_.dir; }

private:
  Catalog &cat_;
};

} // namespace

std::unique_ptr<Store> store_sqlite(Catalog &cat) { return std::make_unique<SqliteStore>(cat); }

} // namespace tavrind
