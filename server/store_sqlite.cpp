// The SQLite store of tavrind: every database is one SQLite file of the data
// folder (catalog.h), every channel has its own connection to it.
//
// The write lock of a database is SQLite's own: a transaction that writes
// holds the database's RESERVED lock until it ends, and a connection that
// finds it taken is told SQLITE_BUSY at once (no busy wait), which leaves
// here as WouldBlock. Readers read WAL snapshots and never wait. Statements
// are prepared once per text and kept per connection; the row loop reads
// the prepared statement directly into the answer.
#include "server/store.h"

#include "server/catalog.h"
#include "server/sqliteptr.h"
#include "server/sqltext.h"

#include <sqlite3.h>

#include <cstring>
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
                                   bool cursor) override;
  void set_static(const std::string &table, bool make_static) override;
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
class SqliteRows final : public StoreRows {
public:
  SqliteRows(SqliteConn &c, const std::string &sql, const std::vector<SqlValue> &params,
             bool cursor)
      : c_(c) {
    if (cursor) {
      sqlite3_stmt *s = nullptr;
      int rc = sqlite3_prepare_v2(c.db(), sql.c_str(), static_cast<int>(sql.size()), &s, nullptr);
      own_.reset(s);
      if (rc != SQLITE_OK) c.raise(rc);
      s_ = s;
    } else {
      cached_.emplace(c, sql);
      s_ = cached_->get();
    }
    c.bind(s_, params);
  }
  bool first() override {
    pending_ = sqlite3_step(s_);
    if (pending_ != SQLITE_ROW && pending_ != SQLITE_DONE) c_.raise(pending_);
    return pending_ == SQLITE_ROW;
  }
  bool append(std::vector<unsigned char> &out, const std::vector<AnswerColumn> &cols,
              int64_t limit, size_t max_bytes) override {
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
  SqliteConn &c_;
  std::optional<CachedStmt> cached_;
  SqliteStmt own_;
  sqlite3_stmt *s_ = nullptr;
  int pending_ = 0; // the result of a step taken by first(), not yet used
};

std::unique_ptr<StoreRows> SqliteConn::query(const std::string &sql,
                                             const std::vector<SqlValue> &params, bool cursor) {
  return std::make_unique<SqliteRows>(*this, sql, params, cursor);
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
