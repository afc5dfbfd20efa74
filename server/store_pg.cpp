// The PostgreSQL store of tavrind: the databases live as schemas of one
// PostgreSQL database, which several tavrind processes (on several hosts) can
// share. Every channel has its own libpq connection, kept open, with its
// statements prepared once per text.
//
// The layout (the migration in pgcopy.h uses the same):
// - A TAVRIN database NAME is the schema "NAME" (quoted, the same upper-case
//   spelling) of the connected database. It holds the marker table
//   "TAVRIN$DB" (one column n, one row, counted up by every transaction that
//   writes) and exactly the tables and indices the SQLite file of that
//   database holds, with the same names. Schemas without the marker table
//   are not TAVRIN databases: never listed, opened or dropped.
// - Types: CHARACTER(n) text, SMALLINT smallint, INTEGER integer, FLOAT
//   double precision, DATE, TIME and TIMESTAMP text in the SQLite store's
//   stored forms, BINARY(n) bytea. Every text column has collation "C" (byte
//   order, as SQLite's BINARY). NOT NULL and the defaults that store the null
//   markers are those of the SQLite declarations. The comment of every column
//   is its declared TAVRIN type ("CHARACTER(21)", "DATE", ...), so that the
//   type reads back; columns without one (made by other tools) are read by
//   their PostgreSQL type.
// - A static table has the row triggers "_static_<TABLE>_i", "_u" and "_d",
//   which call "TAVRIN$".refuse_static() (SQLSTATE TV306).
// - The schema "TAVRIN$" holds the functions of the string rule: k(text),
//   whose results compare (collation "C") as the texts do by the system's
//   string rule, and up(text), the ASCII upper case for LIKE.
//
// Locking: the write lock of a database is a transaction-scoped advisory lock
// (pg_try_advisory_xact_lock) on a 64-bit key of the schema's name, taken
// before a transaction's first change together with the update of the marker
// row. When another transaction holds it the statement does not wait in
// PostgreSQL: it leaves as WouldBlock and the executor parks its client, as
// with SQLite's busy lock. Transactions are REPEATABLE READ: readers read
// their snapshot and never wait; a transaction that read and then wants to
// write after another writer committed fails on the marker row
// (serialization failure), which is the SQLite store's stale snapshot (505).
// Two tavrind processes on one cluster exclude each other through the same
// lock; a statement waiting for a lock held by another process is refused
// with 509 after the lock timeout (510 needs both sides in one server).
//
// A statement runs asynchronously: the connection waits for its results in
// short polls and asks the check function in between; a stop is sent to
// PostgreSQL with PQcancel. A lost connection fails the running statement
// with error 516; the executor opens a new connection for the next request.
#include "server/store.h"

#include "server/catalog.h"
#include "server/pgcopy.h"
#include "server/pgptr.h"
#include "server/sqltext.h"

#include <libpq-fe.h>

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <map>
#include <set>
#include <unordered_map>

namespace tavrind {

namespace {

const char *const MARKER = "TAVRIN$DB";
const char *const STATIC_PREFIX = "_static_";
const char *const BEGIN_SQL = "BEGIN ISOLATION LEVEL REPEATABLE READ";
// Prepared statements kept per connection.
constexpr size_t STMT_CACHE = 64;
// How long one wait for a result lasts before the check function is asked.
constexpr int POLL_MS = 2;
// A connection that has read nothing for this long is asked for
// notifications and for a closed socket before its next statement.
constexpr std::chrono::milliseconds IDLE_READ{5};

// The advisory lock key of database name: FNV-1a over a fixed prefix and
// the name, the same in every tavrind process.
int64_t lock_key(const std::string &name) {
  uint64_t h = 0xCBF29CE484222325ULL;
  for (char c : "tavrin database " + name) {
    h ^= static_cast<unsigned char>(c);
    h *= 0x100000001B3ULL;
  }
  return static_cast<int64_t>(h);
}

// The functions of the schema "TAVRIN$". k() maps every Latin-1 character
// through the string rule (ASCII upper case, Ä/Ö/Ü as A/O/U, compared as
// signed bytes: bytes above 127 before ASCII) onto a character of its own
// whose code point order is that order; characters beyond Latin-1 count as
// '?', trailing blanks are dropped. Compared with collation "C" (code point
// order in UTF-8), k(a) < k(b) exactly when a < b by the string rule, a
// proper prefix first.
std::string setup_sql() {
  std::string from, to;
  auto utf8 = [](std::string &s, unsigned cp) {
    if (cp < 0x80) {
      s += static_cast<char>(cp);
    } else if (cp < 0x800) {
      s += static_cast<char>(0xC0 | (cp >> 6));
      s += static_cast<char>(0x80 | (cp & 0x3F));
    }
  };
  for (unsigned c = 1; c < 256; ++c) {
    unsigned f = c;
    if (f >= 'a' && f <= 'z') f = f - 'a' + 'A';
    if (f == 196) f = 'A';
    if (f == 214) f = 'O';
    if (f == 220) f = 'U';
    utf8(from, c);
    utf8(to, 0x100 + (f ^ 0x80));
  }
  return "CREATE SCHEMA IF NOT EXISTS \"TAVRIN$\";"
         "CREATE OR REPLACE FUNCTION \"TAVRIN$\".k(s text) RETURNS text LANGUAGE sql "
         "IMMUTABLE STRICT PARALLEL SAFE AS $f$ SELECT translate(regexp_replace(rtrim(s, ' '), "
         "'[^\\u0001-\\u00ff]', '?', 'g'), " +
         sql_literal(from) + ", " + sql_literal(to) +
         ") $f$;"
         "CREATE OR REPLACE FUNCTION \"TAVRIN$\".up(s text) RETURNS text LANGUAGE sql "
         "IMMUTABLE STRICT PARALLEL SAFE AS $f$ SELECT translate(s, "
         "'abcdefghijklmnopqrstuvwxyz', 'ABCDEFGHIJKLMNOPQRSTUVWXYZ') $f$;"
         "CREATE OR REPLACE FUNCTION \"TAVRIN$\".refuse_static() RETURNS trigger LANGUAGE plpgsql "
         "AS $f$ BEGIN RAISE EXCEPTION USING ERRCODE = 'TV306', MESSAGE = 'TAVRIN_STATIC ' || "
         "TG_TABLE_NAME; END $f$;";
}

// Opens a connection: conninfo with the application name (which others see
// in pg_stat_activity) and a connect timeout unless conninfo has its own.
PgConnPtr connect(const std::string &conninfo, const std::string &application, std::string &err) {
  const char *keys[] = {"connect_timeout", "dbname", "application_name", "client_encoding",
                        nullptr};
  std::string app = application.substr(0, 63);
  const char *vals[] = {"10", conninfo.c_str(), app.c_str(), "UTF8", nullptr};
  PgConnPtr c(PQconnectdbParams(keys, vals, 1));
  if (!c || PQstatus(c.get()) != CONNECTION_OK) {
    err = c ? PQerrorMessage(c.get()) : "out of memory";
    while (!err.empty() && (err.back() == '\n' || err.back() == ' ')) err.pop_back();
    return nullptr;
  }
  // PostgreSQL's notices ("already exists, skipping") are not errors and
  // not for the log.
  PQsetNoticeProcessor(c.get(), [](void *, const char *) {}, nullptr);
  return c;
}

// Does a failed result say that the connection is gone (the server shuts
// down or crashed, the backend was terminated)?
bool connection_gone(PGconn *c, const PGresult *r) {
  if (PQstatus(c) == CONNECTION_BAD) return true;
  // Errors that libpq makes itself (a closed socket) carry no SQLSTATE.
  const char *state = r ? PQresultErrorField(r, PG_DIAG_SQLSTATE) : nullptr;
  return !state || strncmp(state, "57P", 3) == 0 || strncmp(state, "08", 2) == 0;
}

// Runs sql (one or more statements, no parameters) and waits for all its
// results; the first failure's text into err. For the store's own work on
// the administrative connection.
int admin_exec(PGconn *c, const std::string &sql, std::string &err,
               std::vector<PgResult> *results = nullptr, bool *gone = nullptr) {
  if (!PQsendQuery(c, sql.c_str())) {
    err = PQerrorMessage(c);
    if (gone) *gone = true;
    return 0;
  }
  int ok = 1;
  while (PGresult *r = PQgetResult(c)) {
    PgResult res(r);
    ExecStatusType st = PQresultStatus(r);
    if (st != PGRES_COMMAND_OK && st != PGRES_TUPLES_OK && ok) {
      err = PQresultErrorMessage(r);
      while (!err.empty() && err.back() == '\n') err.pop_back();
      ok = 0;
      if (gone && connection_gone(c, r)) *gone = true;
    }
    if (results) results->push_back(std::move(res));
  }
  // libpq notices a closed connection while it collects the results.
  if (!ok && gone && PQstatus(c) == CONNECTION_BAD) *gone = true;
  return ok;
}

class PgStore;

class PgConn final : public StoreConn {
public:
  PgConn(PgStore &store, std::string name, PgConnPtr c, StoreCheck check, void *arg)
      : store_(store), name_(std::move(name)), c_(std::move(c)), cancel_(PQgetCancel(c_.get())),
        check_(check), arg_(arg), key_(lock_key(name_)),
        lock_sql_("UPDATE " + sql_quote(name_) + "." + sql_quote(MARKER) +
                  " SET n = n + 1 / pg_try_advisory_xact_lock(" + std::to_string(key_) +
                  ")::int RETURNING n") {}

  ~PgConn() override { note_unlocked(); }

  // Sets the connection up for database name: search path, LISTEN.
  void start() {
    run_simple("SET search_path = " + sql_quote(name_) + "; LISTEN tavrin_schema");
  }

  // --- dialect
  std::string text_compare(const std::string &l, const char *op, const std::string &r,
                           bool rtrim_only) override {
    if (rtrim_only)
      return "(rtrim(" + l + ", ' ') COLLATE \"C\" " + op + " rtrim(" + r + ", ' '))";
    return "(" + key(l) + " " + op + " " + key(r) + ")";
  }
  std::string text_between(const std::string &a, const std::string &lo,
                           const std::string &hi) override {
    return "(" + key(a) + " BETWEEN " + key(lo) + " AND " + key(hi) + ")";
  }
  std::string text_in_list(const std::string &a, const std::vector<std::string> &items) override {
    std::string list;
    for (const auto &i : items) list += (list.empty() ? "rtrim(" : ", rtrim(") + i + ", ' ')";
    return "(rtrim(" + a + ", ' ') COLLATE \"C\" IN (" + list + "))";
  }
  std::string text_in_select(const std::string &a, const std::string &sub) override {
    return "(rtrim(" + a + ", ' ') COLLATE \"C\" IN (SELECT rtrim(q.v, ' ') FROM (" + sub +
           ") AS q(v)))";
  }
  std::string like(const std::string &l, const std::string &r) override {
    return "(\"TAVRIN$\".up((" + l + ")::text) COLLATE \"C\" LIKE \"TAVRIN$\".up((" + r +
           ")::text) ESCAPE '')";
  }
  std::string order_by(const std::string &x, bool text, bool desc) override {
    return (text ? key(x) : x) + (desc ? " DESC NULLS LAST" : " NULLS FIRST");
  }
  std::string distinct_order_item(const std::string &x, bool text) override {
    return text ? key(x) : x;
  }
  std::string text_min_max(bool max, const std::string &x) override {
    return "(array_agg(" + x + " ORDER BY " + key(x) + (max ? " DESC" : "") + ") FILTER (WHERE " +
           x + " IS NOT NULL))[1]";
  }

  // --- schema: a DDL statement of any connection notifies tavrin_schema;
  // the version counts the notifications seen and this connection's own
  // DDL (seen at once, before its commit).
  // Input is read for notifications only when the connection has not read
  // any for a moment: a statement that just ended has read everything the
  // server sent before its results, so back-to-back statements cost no
  // further system call.
  int schema_version() override {
    if (!lost_ && std::chrono::steady_clock::now() - last_read_ > IDLE_READ)
      consume();
    while (PGnotify *n = PQnotifies(c_.get())) {
      if (name_ == n->extra) ++version_;
      PQfreemem(n);
    }
    return version_;
  }
  void load_schema(StoreSchema &schema) override;

  // --- transactions
  bool txn_open() override { return in_txn_; }
  StoreTxn txn_state() override {
    if (!in_txn_) return STORE_TXN_NONE;
    if (locked_) return STORE_TXN_WRITE;
    return snapshot_ ? STORE_TXN_READ : STORE_TXN_NONE;
  }
  // A transaction that writes at once takes the lock in the same round
  // trip as its first statement: BEGIN and the lock are put in front of
  // that statement's pipeline (run(), stream_start()), so that the lock is
  // held one round trip less. Until then nothing has been sent.
  void begin(bool write, bool single = false) override {
    single_ = single;
    if (!write) {
      run_simple(BEGIN_SQL);
      in_txn_ = true;
      snapshot_ = locked_ = false;
      return;
    }
    // Held by another channel of this server: refused without asking.
    if (held_elsewhere()) throw WouldBlock{};
    in_txn_ = true;
    snapshot_ = locked_ = false;
    opening_ = true;
  }
  void commit() override {
    if (!in_txn_) return;
    if (opening_) { // nothing was sent: there is nothing to commit
      in_txn_ = snapshot_ = locked_ = single_ = opening_ = false;
      return;
    }
    // A failed COMMIT ends the transaction in PostgreSQL all the same.
    in_txn_ = snapshot_ = locked_ = single_ = false;
    struct Unlock {
      PgConn &c;
      ~Unlock() { c.note_unlocked(); }
    } unlock{*this};
    run_simple("COMMIT");
  }
  void rollback() override {
    if (!in_txn_) return;
    end_txn("ROLLBACK");
  }
  // Every statement inside a transaction has a savepoint of its own (run()),
  // so a change needs only the lock, and a failed one is undone already.
  // A lock still to be taken with the opening goes with the statement.
  void statement_begin() override {
    if (opening_) return;
    if (!locked_ && (held_elsewhere() || !take_lock())) throw WouldBlock{};
  }
  void statement_undo() override {}
  void statement_keep() override {}

  // --- statements
  void exec(const std::string &sql, const std::string &unique_error = "") override {
    unique_error_ = unique_error;
    try {
      std::string all = sql + "; NOTIFY tavrin_schema, " + sql_literal(name_);
      if (in_txn_ && !single_) {
        // A savepoint of its own, as run() gives every other statement.
        in_statement_ = true;
        try {
          run_simple("SAVEPOINT tavrin_q; " + all + "; RELEASE tavrin_q");
        } catch (...) {
          in_statement_ = false;
          if (!lost_ && in_aborted_txn()) {
            PgResult undo(PQexec(c_.get(), "ROLLBACK TO tavrin_q; RELEASE tavrin_q"));
            if (PQresultStatus(undo.get()) != PGRES_COMMAND_OK) end_txn("ROLLBACK");
          }
          throw;
        }
        in_statement_ = false;
      } else {
        run_simple(all);
      }
    } catch (...) {
      unique_error_.clear();
      throw;
    }
    unique_error_.clear();
    ++version_;
  }
  void create_table(const std::string &name, const std::vector<ColumnInfo> &cols) override {
    std::string sql = "CREATE TABLE " + sql_quote(name) + " (";
    for (size_t i = 0; i < cols.size(); ++i)
      sql += (i ? ", " : "") + sql_quote(cols[i].name) + " " +
             pg_column_declaration(cols[i].type, cols[i].not_null);
    sql += ")";
    for (const auto &c : cols)
      sql += "; COMMENT ON COLUMN " + sql_quote(name) + "." + sql_quote(c.name) + " IS " +
             sql_literal(declared_type(c.type));
    exec(sql);
  }
  int change(const std::string &sql, const std::vector<SqlValue> &params) override {
    PgResult r = run_prepared(sql, params);
    return atoi(PQcmdTuples(r.get()));
  }
  std::unique_ptr<StoreRows> query(const std::string &sql, const std::vector<SqlValue> &params,
                                   bool cursor, const std::vector<AnswerColumn> &cols) override;
  void set_static(const std::string &table, bool make_static) override {
    std::string base = std::string(STATIC_PREFIX) + sql_upper(table);
    std::string sql;
    for (const char *suffix : {"_i", "_u", "_d"}) {
      const char *event = suffix[1] == 'i' ? "INSERT" : suffix[1] == 'u' ? "UPDATE" : "DELETE";
      if (!sql.empty()) sql += "; ";
      sql += make_static ? "CREATE TRIGGER " + sql_quote(base + suffix) + " BEFORE " + event +
                               " ON " + sql_quote(table) +
                               " FOR EACH ROW EXECUTE FUNCTION \"TAVRIN$\".refuse_static()"
                         : "DROP TRIGGER IF EXISTS " + sql_quote(base + suffix) + " ON " + sql_quote(table);
    }
    exec(sql);
  }
  int save(const std::string &path, std::string &err) override;
  std::string foreign_lock_holder() override;
  bool lost() const override { return lost_; }

  // Runs sql without parameters (one or more statements) and waits for it.
  // Returns the last result. Throws.
  PgResult run_simple(const std::string &sql) {
    if (opening_) open_now();
    revive();
    if (!PQsendQuery(c_.get(), sql.c_str())) failed_send();
    return wait();
  }
  // Runs sql with parameters, prepared once per text and parameter types.
  PgResult run_prepared(const std::string &sql, const std::vector<SqlValue> &params);
  // Streams the rows of a query (prepared as run_prepared does), one
  // result per row: stream_start sends it, stream_next gives the next row
  // or null when they are over (having read what is left; throws as wait()
  // does), stream_abandon cancels a stream not read to its end.
  void stream_start(const std::string &sql, const std::vector<SqlValue> &params);
  PgResult stream_next();
  void stream_abandon();
  // Runs sql with parameters unprepared (a cursor's DECLARE).
  PgResult run_params(const std::string &sql, const std::vector<SqlValue> &params);

  // Reads what the server sent meanwhile (notifications, a closed socket).
  int consume() {
    last_read_ = std::chrono::steady_clock::now();
    return PQconsumeInput(c_.get());
  }
  int next_cursor() { return ++cursors_; }
  bool in_aborted_txn() const { return in_txn_ && PQtransactionStatus(c_.get()) == PQTRANS_INERROR; }

private:
  static std::string key(const std::string &x) {
    return "(\"TAVRIN$\".k(" + x + ") COLLATE \"C\")";
  }

  // Takes the write lock with the update of the marker row (after prefix,
  // a BEGIN that opens the transaction in the same round trip); false when
  // another transaction holds it (the transaction goes on). A transaction
  // whose snapshot is older than the last commit of a writer fails on the
  // marker row (505), inside a savepoint so that it can still read and end.
  bool take_lock(const std::string &prefix = "") {
    std::string marker = sql_quote(name_) + "." + sql_quote(MARKER);
    rows_of_ = prefix.empty() ? 1 : 2;
    last_rows_ = 0;
    if (!prefix.empty()) in_txn_ = true;
    // Guarded by its own savepoint: a failure does not end the transaction.
    bool was_in_statement = in_statement_;
    in_statement_ = true;
    try {
      run_simple(prefix + "SAVEPOINT tavrin_lock; UPDATE " + marker +
                 " SET n = n + 1 WHERE pg_try_advisory_xact_lock(" + std::to_string(key_) +
                 ") RETURNING n; RELEASE tavrin_lock");
      in_statement_ = was_in_statement;
    } catch (...) {
      in_statement_ = was_in_statement;
      rows_of_ = -1;
      if (!lost_ && in_aborted_txn()) {
        PgResult undo(PQexec(c_.get(), "ROLLBACK TO tavrin_lock; RELEASE tavrin_lock"));
        if (PQstatus(c_.get()) == CONNECTION_BAD) lost_ = true;
      }
      throw;
    }
    rows_of_ = -1;
    snapshot_ = true;
    if (last_rows_ <= 0) return false;
    locked_ = true;
    note_lock(true);
    return true;
  }
  // The lock (if this connection held it) is no longer held.
  void note_unlocked() { note_lock(false); }
  bool held_elsewhere();
  void note_lock(bool held);

  void end_txn(const char *sql) {
    bool sent = !opening_;
    in_txn_ = snapshot_ = locked_ = in_statement_ = single_ = opening_ = false;
    if (!lost_ && sent) {
      try {
        run_simple(sql);
      } catch (const ExecError &) {
      } catch (const Interrupted &) {
      }
    }
    note_unlocked();
  }

  // Before a statement: a connection that the server closed while it was
  // idle outside a transaction (a restart of PostgreSQL, a terminated
  // backend) is made anew, as nothing of it is lost; inside a transaction
  // (or when that fails) the statement fails with error 516.
  void revive() {
    if (lost_) lost_error("");
    if (in_txn_ || PQisBusy(c_.get())) return;
    // Only a connection idle for a moment is asked (a system call).
    if (std::chrono::steady_clock::now() - last_read_ <= IDLE_READ) return;
    if (consume() && PQstatus(c_.get()) == CONNECTION_OK) return;
    PQreset(c_.get());
    if (PQstatus(c_.get()) != CONNECTION_OK) lost_error(PQerrorMessage(c_.get()));
    cancel_.reset(PQgetCancel(c_.get()));
    prepared_.clear();
    ++version_; // the schema may have changed meanwhile
    run_simple("SET search_path = " + sql_quote(name_) + "; LISTEN tavrin_schema");
  }

  [[noreturn]] void failed_send() {
    if (PQstatus(c_.get()) == CONNECTION_BAD) lost_error(PQerrorMessage(c_.get()));
    throw ExecError{answer_errtext(Err::SPEICHERFEHLER, {utf8_to_latin1(PQerrorMessage(c_.get()))})};
  }
  [[noreturn]] void lost_error(const std::string &why) {
    lost_ = true;
    in_txn_ = snapshot_ = locked_ = in_statement_ = false;
    note_unlocked(); // PostgreSQL ends the transaction, and its lock, with the connection
    std::string w = why.empty() ? std::string(PQerrorMessage(c_.get())) : why;
    w = w.substr(0, w.find('\n')); // libpq's first line says what happened
    if (w.empty()) w = "PostgreSQL";
    throw ExecError{answer_errtext(Err::VERBINDUNG_VERLOREN, {utf8_to_latin1(w)})};
  }

  // Waits for the results of what was sent, asking the check function
  // between short polls; a stop is sent as a cancel request. Returns the
  // last result; throws the first failure.
  PgResult wait(bool pipeline = false, int want = -1);
  // Waits until a result can be read, asking the check function between
  // short polls and sending a cancel when it asks to stop.
  void pump(bool &cancelled);
  // Reads what is left of a stream; throws what failed.
  void stream_finish(PgResult failed);
  // The name of the prepared statement of sql for these parameter types,
  // prepared now when it is new.
  const std::string &prepared(const std::string &sql, const struct Params &p);
  // Sends a statement with send and waits for it; inside a transaction
  // guarded by a savepoint (see there). Throws.
  PgResult run(const std::function<int(PGconn *)> &send);
  // Throws what a failed result means.
  [[noreturn]] void raise(PGresult *r);
  // Opens the pending writing transaction on its own round trip (for
  // statements that cannot take it in their pipeline). Throws WouldBlock
  // (the transaction is gone) when another transaction holds the lock.
  void open_now();
  // Queues BEGIN and the lock in the pipeline; false when libpq refused.
  bool send_opening(PGconn *c);
  // Enters pipeline mode and queues the statement of send: behind BEGIN and
  // the lock when the transaction opens with it (open), between a savepoint
  // and its release with guard, then the sync. When libpq refuses, leaves
  // pipeline mode, rolls an opening transaction back and throws.
  void send_pipeline(PGconn *c, bool open, bool guard, const std::function<int(PGconn *)> &send);
  // Reads the results of BEGIN and the lock, then settles them: the lock is
  // held, or (lock busy, failure, lost connection) the rest of the pipeline
  // is read, the pipeline left, the transaction rolled back, and WouldBlock
  // or the failure thrown.
  void read_opening(bool &cancelled);

  PgStore &store_;
  std::string name_;
  PgConnPtr c_;
  PgCancelPtr cancel_;
  StoreCheck check_;
  void *arg_;
  int64_t key_;
  // Takes the write lock with the update of the marker row, for a
  // transaction that has just begun in the same pipeline. A lock held by
  // another transaction makes it fail with a division by zero (22012), which
  // aborts the statements behind it in the pipeline.
  std::string lock_sql_;
  bool lost_ = false;
  bool in_txn_ = false, snapshot_ = false, locked_ = false, in_statement_ = false;
  bool single_ = false; // the open transaction is one change's own
  // A writing transaction is open but nothing of it has been sent: BEGIN
  // and the lock go with its first statement.
  bool opening_ = false;
  int version_ = 0;
  // The statement waited for has no effects: a stop asked for while it ran
  // stops the request even when it was done before the cancel came.
  bool stop_after_success_ = false;
  // A streamed query is being read (stream_start), in a pipeline with its
  // savepoint; a cancel has been sent for it.
  bool streaming_ = false, stream_pipeline_ = false, stream_cancelled_ = false;
  // When the connection last read from the server.
  std::chrono::steady_clock::time_point last_read_{};
  int cursors_ = 0;
  int rows_of_ = -1;  // the index of the result whose row count last_rows_ takes
  int last_rows_ = 0;
  std::string unique_error_;
  // Prepared statements: text plus parameter types -> statement name.
  std::unordered_map<std::string, std::string> prepared_;
  int statement_names_ = 0;
};

class PgStore final : public Store {
public:
  PgStore(Catalog &cat, std::string conninfo, PgConnPtr admin)
      : cat_(cat), conninfo_(std::move(conninfo)), admin_(std::move(admin)) {}

  int init(bool demo, std::string &err) override;
  // Both throw error 516 when the cluster cannot be reached.
  bool exists(const std::string &name) override {
    std::lock_guard<std::mutex> lock(mutex_);
    admin_or_throw();
    return marker_exists(name);
  }
  std::vector<std::string> list() override {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> names;
    std::string err;
    std::vector<PgResult> rs;
    admin_or_throw();
    if (!admin_run("SELECT n.nspname FROM pg_namespace n JOIN pg_class c ON c.relnamespace = "
                    "n.oid WHERE c.relname = " +
                        sql_literal(MARKER) + " AND c.relkind = 'r' ORDER BY 1",
                    err, &rs))
      return names;
    for (int i = 0; i < PQntuples(rs.back().get()); ++i) {
      std::string n = PQgetvalue(rs.back().get(), i, 0);
      if (catalog_valid_name(n)) names.push_back(n);
    }
    return names;
  }
  std::unique_ptr<StoreConn> open(const std::string &name, bool create, StoreCheck check,
                                  void *arg, const std::string &application,
                                  std::string &err) override;
  int drop(const std::string &name, std::string &err) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!marker_exists(name)) {
      err = "keine TAVRIN-Datenbank";
      return 0;
    }
    return admin_run("DROP SCHEMA " + sql_quote(name) + " CASCADE; NOTIFY tavrin_schema, " +
                         sql_literal(name),
                     err);
  }
  // A commit waits in the poll loop, which asks the check function.
  bool commit_waits() const override { return false; }
  std::string where() const override {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::string("PostgreSQL database ") + PQdb(admin_.get()) + " (" +
           (PQhost(admin_.get()) ? PQhost(admin_.get()) : "") + ")";
  }

  const std::string &conninfo() const { return conninfo_; }

  // Which connection of this server holds the write lock of a key (as far
  // as the connections have noted it): a statement of another one would be
  // refused by PostgreSQL, so it is refused without the round trip.
  bool lock_held_elsewhere(int64_t key, const void *conn) {
    std::lock_guard<std::mutex> lock(holders_mutex_);
    auto it = holders_.find(key);
    return it != holders_.end() && it->second != conn;
  }
  void note_lock(int64_t key, const void *conn, bool held) {
    std::lock_guard<std::mutex> lock(holders_mutex_);
    auto it = holders_.find(key);
    if (held)
      holders_[key] = conn;
    else if (it != holders_.end() && it->second == conn)
      holders_.erase(it);
  }
  // Who holds the advisory lock key (for error 509): the application name,
  // host and backend of the holding session; "" when none does.
  std::string lock_holder_text(int64_t key);
  Catalog &catalog() { return cat_; }

  // Gives the schema the marker column and row the locking needs (a schema
  // made by an older migration has the marker table alone). Once per
  // database and process.
  int ensure_marker(PGconn *c, const std::string &name, std::string &err) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (markers_ready_.count(name)) return 1;
    }
    std::string marker = sql_quote(name) + "." + sql_quote(MARKER);
    std::vector<PgResult> rs;
    if (!admin_exec(c,
                    "SELECT count(*) FROM pg_attribute WHERE attrelid = " +
                        sql_literal(marker) + "::regclass AND attname = 'n' AND NOT attisdropped",
                    err, &rs))
      return 0;
    if (std::string(PQgetvalue(rs.back().get(), 0, 0)) == "0" &&
        !admin_exec(c,
                    "ALTER TABLE " + marker + " ADD COLUMN IF NOT EXISTS n bigint NOT NULL "
                    "DEFAULT 0",
                    err))
      return 0;
    if (!admin_exec(c,
                    "INSERT INTO " + marker + " (n) SELECT 0 WHERE NOT EXISTS (SELECT 1 FROM " +
                        marker + ")",
                    err))
      return 0;
    std::lock_guard<std::mutex> lock(mutex_);
    markers_ready_.insert(name);
    return 1;
  }

private:
  // The administrative connection works (reconnected when it was lost).
  // Called with mutex_ held.
  bool admin_ok(std::string &err) {
    if (PQstatus(admin_.get()) == CONNECTION_OK) return true;
    PQreset(admin_.get());
    if (PQstatus(admin_.get()) == CONNECTION_OK) return true;
    err = PQerrorMessage(admin_.get());
    return false;
  }
  void admin_or_throw() {
    std::string err;
    if (!admin_ok(err)) lost(err);
  }
  [[noreturn]] static void lost(const std::string &err) {
    throw ExecError{answer_errtext(Err::VERBINDUNG_VERLOREN,
                                   {utf8_to_latin1(err.substr(0, err.find('\n')))})};
  }
  // Runs sql on the administrative connection; a connection that turns out
  // to be gone (PostgreSQL restarted) is made anew and sql tried once more.
  // Returns 1, or 0 with err set for a failing statement; throws error 516
  // when the cluster cannot be reached. Called with mutex_ held.
  int admin_run(const std::string &sql, std::string &err, std::vector<PgResult> *rs = nullptr) {
    for (int attempt = 0;; ++attempt) {
      if (rs) rs->clear();
      bool gone = false;
      if (admin_exec(admin_.get(), sql, err, rs, &gone)) return 1;
      if (!gone) return 0;
      if (attempt > 0) lost(err);
      PQreset(admin_.get());
      if (PQstatus(admin_.get()) != CONNECTION_OK) lost(PQerrorMessage(admin_.get()));
    }
  }
  bool marker_exists(const std::string &name) {
    if (!catalog_valid_name(name)) return false;
    std::vector<PgResult> rs;
    std::string err;
    return admin_run("SELECT 1 FROM pg_namespace n JOIN pg_class c ON c.relnamespace = n.oid "
                      "WHERE n.nspname = " +
                         sql_literal(name) + " AND c.relname = " + sql_literal(MARKER) +
                         " AND c.relkind = 'r'",
                     err, &rs) &&
           PQntuples(rs.back().get()) > 0;
  }

  Catalog &cat_;
  std::string conninfo_;
  mutable std::mutex mutex_; // guards admin_ and markers_ready_
  PgConnPtr admin_;
  std::set<std::string> markers_ready_;
  std::mutex holders_mutex_;
  std::map<int64_t, const void *> holders_;
};

// --- running statements ------------------------------------------------------

PgResult PgConn::wait(bool pipeline, int want) {
  PGconn *c = c_.get();
  bool cancelled = false;
  PgResult last, failed;
  int index = 0, command = 0;
  for (;;) {
    pump(cancelled);
    PGresult *r = PQgetResult(c);
    if (!r) {
      last_read_ = std::chrono::steady_clock::now();
      // In a pipeline a null ends one command's results; the sync ends all.
      if (!pipeline || PQstatus(c) == CONNECTION_BAD) break;
      ++command;
      continue;
    }
    PgResult res(r);
    ExecStatusType st = PQresultStatus(r);
    if (st == PGRES_PIPELINE_SYNC) break;
    if (st == PGRES_FATAL_ERROR || st == PGRES_NONFATAL_ERROR || st == PGRES_BAD_RESPONSE) {
      if (!failed) failed = std::move(res);
    } else if (st != PGRES_PIPELINE_ABORTED) {
      if (index == rows_of_) last_rows_ = st == PGRES_TUPLES_OK ? PQntuples(r) : 0;
      if (!pipeline || command == want) last = std::move(res);
    }
    ++index;
    if (PQstatus(c) == CONNECTION_BAD) break;
  }
  if (PQstatus(c) == CONNECTION_BAD || (failed && connection_gone(c, failed.get())))
    lost_error(failed ? PQresultErrorMessage(failed.get()) : PQerrorMessage(c));
  if (failed) {
    const char *state = PQresultErrorField(failed.get(), PG_DIAG_SQLSTATE);
    if (cancelled && state && strcmp(state, "57014") == 0) throw Interrupted{};
    raise(failed.get());
  }
  if (cancelled && (!last || stop_after_success_)) throw Interrupted{};
  return last;
}

PgResult PgConn::run(const std::function<int(PGconn *)> &send) {
  revive();
  PGconn *c = c_.get();
  bool open = opening_;
  bool guard = in_txn_ && !single_;
  if (in_txn_) snapshot_ = true;
  if (!open && !guard) {
    if (!send(c)) failed_send();
    return wait();
  }
  // Inside a transaction every statement is guarded by a savepoint, sent
  // with it in one pipeline (one round trip): a failed or stopped
  // statement is undone alone and the transaction goes on, as in SQLite.
  // A transaction's first statement carries its BEGIN and lock in front.
  send_pipeline(c, open, guard, send);
  in_statement_ = true;
  if (open) {
    bool cancelled = false;
    read_opening(cancelled);
  }
  try {
    PgResult r = wait(true, guard ? 1 : 0);
    in_statement_ = false;
    PQexitPipelineMode(c);
    return r;
  } catch (...) {
    in_statement_ = false;
    PQexitPipelineMode(c);
    // Unguarded (a change's own transaction): its caller rolls back.
    if (guard && !lost_ && in_aborted_txn()) {
      PgResult undo(PQexec(c, "ROLLBACK TO tavrin_q; RELEASE tavrin_q"));
      if (PQresultStatus(undo.get()) != PGRES_COMMAND_OK) end_txn("ROLLBACK");
    }
    throw;
  }
}

void PgConn::open_now() {
  opening_ = false;
  in_txn_ = false; // take_lock opens it with the BEGIN in front
  try {
    if (!take_lock(std::string(BEGIN_SQL) + "; ")) {
      end_txn("ROLLBACK");
      throw WouldBlock{};
    }
  } catch (const ExecError &) {
    end_txn("ROLLBACK");
    throw;
  }
}

void PgConn::send_pipeline(PGconn *c, bool open, bool guard,
                           const std::function<int(PGconn *)> &send) {
  auto simple = [c](const char *sql) {
    return PQsendQueryParams(c, sql, 0, nullptr, nullptr, nullptr, nullptr, 0);
  };
  if (!PQenterPipelineMode(c)) failed_send();
  if (!((!open || send_opening(c)) && (!guard || simple("SAVEPOINT tavrin_q")) && send(c) &&
        (!guard || simple("RELEASE tavrin_q")) && PQpipelineSync(c))) {
    PQexitPipelineMode(c);
    if (open) {
      opening_ = false;
      end_txn("ROLLBACK");
    }
    failed_send();
  }
}

bool PgConn::send_opening(PGconn *c) {
  return PQsendQueryParams(c, BEGIN_SQL, 0, nullptr, nullptr, nullptr, nullptr, 0) &&
         PQsendQueryParams(c, lock_sql_.c_str(), 0, nullptr, nullptr, nullptr, nullptr, 0);
}

void PgConn::read_opening(bool &cancelled) {
  PGconn *c = c_.get();
  PgResult failed;
  int rows = 0, command = 0;
  while (command < 2 && PQstatus(c) != CONNECTION_BAD) {
    pump(cancelled);
    PgResult r(PQgetResult(c));
    if (!r) {
      ++command;
      continue;
    }
    ExecStatusType st = PQresultStatus(r.get());
    if (st == PGRES_FATAL_ERROR || st == PGRES_BAD_RESPONSE) {
      if (!failed) failed = std::move(r);
    } else if (command == 1 && st == PGRES_TUPLES_OK) {
      rows = PQntuples(r.get());
    }
  }
  opening_ = false;
  if (!failed && rows == 1 && PQstatus(c) != CONNECTION_BAD) {
    locked_ = snapshot_ = true;
    note_lock(true);
    return;
  }
  // The rest of the pipeline was skipped by PostgreSQL: read up to its end.
  while (PQstatus(c) != CONNECTION_BAD) {
    pump(cancelled);
    PgResult r(PQgetResult(c));
    if (r && PQresultStatus(r.get()) == PGRES_PIPELINE_SYNC) break;
  }
  PQexitPipelineMode(c);
  in_statement_ = streaming_ = false;
  last_read_ = std::chrono::steady_clock::now();
  if (PQstatus(c) == CONNECTION_BAD || (failed && connection_gone(c, failed.get())))
    lost_error(failed ? PQresultErrorMessage(failed.get()) : PQerrorMessage(c));
  end_txn("ROLLBACK");
  const char *state = failed ? PQresultErrorField(failed.get(), PG_DIAG_SQLSTATE) : nullptr;
  if (!failed || (state && strcmp(state, "22012") == 0)) throw WouldBlock{};
  if (cancelled && state && strcmp(state, "57014") == 0) throw Interrupted{};
  raise(failed.get());
}

void PgConn::raise(PGresult *r) {
  const char *st = PQresultErrorField(r, PG_DIAG_SQLSTATE);
  std::string state = st ? st : "";
  std::string msg = PQresultErrorField(r, PG_DIAG_MESSAGE_PRIMARY)
                        ? PQresultErrorField(r, PG_DIAG_MESSAGE_PRIMARY)
                        : PQresultErrorMessage(r);
  std::string text;
  if (state == "23505") {
    const char *constraint = PQresultErrorField(r, PG_DIAG_CONSTRAINT_NAME);
    text = !unique_error_.empty()
               ? unique_error_
               : answer_errtext(Err::INDEX_VERLETZT, {constraint ? constraint : msg});
  } else if (state == "23502") {
    const char *col = PQresultErrorField(r, PG_DIAG_COLUMN_NAME);
    text = answer_errtext(Err::NOT_NULL, {col ? col : msg});
  } else if (state == "40001" || state == "40P01") {
    text = answer_errtext(Err::TRANSAKTION_KONFLIKT, {});
  } else if (state == "TV306" || msg.rfind("TAVRIN_STATIC ", 0) == 0) {
    const char *prefix = "TAVRIN_STATIC ";
    text = answer_errtext(Err::TABELLE_STATISCH,
                          {msg.rfind(prefix, 0) == 0 ? msg.substr(strlen(prefix)) : msg});
  } else if (state == "55006") {
    text = answer_errtext(Err::CURSOR_OFFEN, {});
  } else {
    text = answer_errtext(Err::SPEICHERFEHLER, {utf8_to_latin1(msg)});
  }
  // A failed query outside a statement's savepoint aborts the whole
  // transaction in PostgreSQL: it is rolled back and the client told so.
  if (in_txn_ && !in_statement_ && !single_ && in_aborted_txn()) {
    end_txn("ROLLBACK");
    text += "; die offene Transaktion ist zurückgesetzt";
  }
  throw ExecError{text};
}

// Parameter values in PostgreSQL's forms: integers and doubles as text
// (typed int8 and float8), texts as text, blobs in binary (bytea).
struct Params {
  std::vector<std::string> text;
  std::vector<const char *> values;
  std::vector<int> lengths, formats;
  std::vector<Oid> types;
  std::string signature;

  explicit Params(const std::vector<SqlValue> &params) {
    size_t n = params.size();
    text.resize(n);
    values.resize(n);
    lengths.resize(n);
    formats.resize(n);
    types.resize(n);
    for (size_t i = 0; i < n; ++i) {
      const SqlValue &v = params[i];
      switch (v.index()) {
      case 0:
        values[i] = nullptr;
        types[i] = PG_OID_TEXT;
        break;
      case 1:
        text[i] = std::to_string(std::get<int64_t>(v));
        types[i] = PG_OID_INT8;
        break;
      case 2: {
        char buf[64];
        snprintf(buf, sizeof buf, "%.17g", std::get<double>(v));
        text[i] = buf;
        types[i] = PG_OID_FLOAT8;
        break;
      }
      case 3:
        text[i] = std::get<std::string>(v);
        types[i] = PG_OID_TEXT;
        break;
      default: {
        const auto &b = std::get<SqlBlob>(v).bytes;
        text[i].assign(b.begin(), b.end());
        types[i] = PG_OID_BYTEA;
        formats[i] = 1;
        break;
      }
      }
      if (v.index() != 0) values[i] = text[i].data();
      lengths[i] = static_cast<int>(text[i].size());
      signature += static_cast<char>('0' + v.index());
    }
  }
};

// The text with its '?' marks numbered $1, $2, ... (quoted names and
// literals, which the translation never puts a '?' into, are skipped).
std::string numbered(const std::string &sql) {
  std::string out;
  int n = 0;
  char quote_char = 0;
  for (char c : sql) {
    if (quote_char) {
      if (c == quote_char) quote_char = 0;
    } else if (c == '"' || c == '\'') {
      quote_char = c;
    } else if (c == '?') {
      out += "$" + std::to_string(++n);
      continue;
    }
    out += c;
  }
  return out;
}

PgResult PgConn::run_prepared(const std::string &sql, const std::vector<SqlValue> &params) {
  revive();
  Params p(params);
  const std::string &name = prepared(sql, p);
  return run([&](PGconn *c) {
    return PQsendQueryPrepared(c, name.c_str(), static_cast<int>(p.values.size()),
                               p.values.data(), p.lengths.data(), p.formats.data(), 1);
  });
}

const std::string &PgConn::prepared(const std::string &sql, const Params &p) {
  std::string cache_key = p.signature + '\x01' + sql;
  auto it = prepared_.find(cache_key);
  if (it == prepared_.end()) {
    if (prepared_.size() >= STMT_CACHE) {
      run_simple("DEALLOCATE ALL");
      prepared_.clear();
    }
    std::string name = "t" + std::to_string(++statement_names_);
    std::string text = numbered(sql);
    // A stop asked for while the statement is prepared stops it before it
    // runs (the preparing itself changes nothing).
    stop_after_success_ = true;
    try {
      run([&](PGconn *c) {
        return PQsendPrepare(c, name.c_str(), text.c_str(), static_cast<int>(p.types.size()),
                             p.types.data());
      });
    } catch (...) {
      stop_after_success_ = false;
      throw;
    }
    stop_after_success_ = false;
    it = prepared_.emplace(cache_key, name).first;
  }
  return it->second;
}

void PgConn::pump(bool &cancelled) {
  PGconn *c = c_.get();
  while (PQisBusy(c) && PQstatus(c) != CONNECTION_BAD) {
    pollfd p{PQsocket(c), POLLIN, 0};
    int n = poll(&p, 1, POLL_MS);
    if (n > 0 && !PQconsumeInput(c)) break;
    if (n < 0 && errno != EINTR) break;
    if (!cancelled && check_ && check_(arg_)) {
      char buf[256];
      PQcancel(cancel_.get(), buf, sizeof buf);
      cancelled = true;
    }
  }
}

void PgConn::stream_start(const std::string &sql, const std::vector<SqlValue> &params) {
  revive();
  Params p(params);
  const std::string &name = prepared(sql, p);
  PGconn *c = c_.get();
  // A change's own transaction reads without a savepoint or pipeline.
  if (opening_ && single_) open_now();
  bool open = opening_;
  if (in_txn_) snapshot_ = true;
  stream_pipeline_ = in_txn_ && !single_;
  stream_cancelled_ = false;
  auto query = [&] {
    return PQsendQueryPrepared(c, name.c_str(), static_cast<int>(p.values.size()),
                               p.values.data(), p.lengths.data(), p.formats.data(), 1);
  };
  if (!stream_pipeline_) {
    if (!query()) failed_send();
  } else {
    // As run(): behind a savepoint, in one pipeline.
    send_pipeline(c, open, true, [&](PGconn *) { return query(); });
    in_statement_ = true;
    streaming_ = true;
    if (open) read_opening(stream_cancelled_);
    // The savepoint's result and the end of its results.
    for (int k = 0; k < 2; ++k) {
      pump(stream_cancelled_);
      PgResult r(PQgetResult(c));
      if (r && PQresultStatus(r.get()) != PGRES_COMMAND_OK) {
        stream_finish(std::move(r));
        return;
      }
      if (!r) break;
    }
  }
  streaming_ = true;
  // The query's rows come one result each, as they arrive.
  PQsetSingleRowMode(c);
}

PgResult PgConn::stream_next() {
  PGconn *c = c_.get();
  pump(stream_cancelled_);
  PgResult r(PQgetResult(c));
  // One row each; all rows in one result where single-row mode was not
  // taken.
  if (r && (PQresultStatus(r.get()) == PGRES_SINGLE_TUPLE ||
            (PQresultStatus(r.get()) == PGRES_TUPLES_OK && PQntuples(r.get()) > 0)))
    return r;
  // The rows are over (a final result without rows), or the query failed.
  ExecStatusType st = r ? PQresultStatus(r.get()) : PGRES_FATAL_ERROR;
  stream_finish(st == PGRES_TUPLES_OK ? nullptr : std::move(r));
  return nullptr;
}

void PgConn::stream_finish(PgResult failed) {
  PGconn *c = c_.get();
  // What is left: the end of the query's results, and in a pipeline the
  // savepoint's release and the sync.
  for (;;) {
    pump(stream_cancelled_);
    PgResult r(PQgetResult(c));
    if (!r) {
      if (!stream_pipeline_ || PQstatus(c) == CONNECTION_BAD) break;
      continue;
    }
    ExecStatusType st = PQresultStatus(r.get());
    if (st == PGRES_PIPELINE_SYNC) break;
    if ((st == PGRES_FATAL_ERROR || st == PGRES_BAD_RESPONSE) && !failed) failed = std::move(r);
  }
  streaming_ = false;
  if (stream_pipeline_) {
    PQexitPipelineMode(c);
    in_statement_ = false;
  }
  last_read_ = std::chrono::steady_clock::now();
  if (PQstatus(c) == CONNECTION_BAD || (failed && connection_gone(c, failed.get())))
    lost_error(failed ? PQresultErrorMessage(failed.get()) : PQerrorMessage(c));
  if (!failed) return;
  if (stream_pipeline_ && in_aborted_txn()) {
    PgResult undo(PQexec(c, "ROLLBACK TO tavrin_q; RELEASE tavrin_q"));
    if (PQresultStatus(undo.get()) != PGRES_COMMAND_OK) end_txn("ROLLBACK");
  }
  const char *state = PQresultErrorField(failed.get(), PG_DIAG_SQLSTATE);
  if (stream_cancelled_ && state && strcmp(state, "57014") == 0) throw Interrupted{};
  in_statement_ = stream_pipeline_; // a guarded query's failure has been undone
  try {
    raise(failed.get());
  } catch (...) {
    in_statement_ = false;
    throw;
  }
}

void PgConn::stream_abandon() {
  if (!streaming_) return;
  char buf[256];
  PQcancel(cancel_.get(), buf, sizeof buf);
  try {
    stream_finish(nullptr);
  } catch (...) {
  }
}

PgResult PgConn::run_params(const std::string &sql, const std::vector<SqlValue> &params) {
  revive();
  Params p(params);
  std::string text = numbered(sql);
  return run([&](PGconn *c) {
    return PQsendQueryParams(c, text.c_str(), static_cast<int>(p.values.size()), p.types.data(),
                             p.values.data(), p.lengths.data(), p.formats.data(), 1);
  });
}

// Appends rows [from, to) of a binary result.
void append_result(PGresult *r, int from, int to, std::vector<unsigned char> &out,
                   const std::vector<AnswerColumn> &cols, size_t max_bytes) {
  int nf = PQnfields(r);
  std::vector<unsigned> types(cols.size());
  for (size_t i = 0; i < cols.size(); ++i)
    types[i] = static_cast<int>(i) < nf ? PQftype(r, static_cast<int>(i)) : 0;
  for (int row = from; row < to; ++row) {
    for (size_t i = 0; i < cols.size(); ++i) {
      int f = static_cast<int>(i);
      bool null = f >= nf || PQgetisnull(r, row, f);
      type_append_pg_value(out, cols[i].type, types[i], null ? "" : PQgetvalue(r, row, f),
                           null ? 0 : static_cast<size_t>(PQgetlength(r, row, f)), null);
    }
    answer_row(out);
    if (out.size() > max_bytes) store_answer_too_big(out, max_bytes);
  }
}

// The rows of a plain query: run whole by first(), handed out by append().
class PgRows final : public StoreRows {
public:
  PgRows(PgConn &c, std::string sql, std::vector<SqlValue> params)
      : c_(c), sql_(std::move(sql)), params_(std::move(params)) {}
  // A query stopped before its end (MAX n, the answer limit, an error) is
  // cancelled, so that PostgreSQL does not work on for rows nobody reads.
  ~PgRows() override {
    if (started_ && !done_) c_.stream_abandon();
  }
  bool first() override {
    started_ = true;
    c_.stream_start(sql_, params_);
    pending_ = c_.stream_next();
    done_ = !pending_;
    return !done_;
  }
  bool append(std::vector<unsigned char> &out, const std::vector<AnswerColumn> &cols,
              int64_t limit, size_t max_bytes) override {
    if (!started_) first();
    for (int64_t n = 0; limit == 0 || n < limit;) {
      if (!pending_ || at_ >= PQntuples(pending_.get())) {
        pending_ = done_ ? nullptr : c_.stream_next();
        at_ = 0;
        if (!pending_) {
          done_ = true;
          return false;
        }
      }
      int rows = PQntuples(pending_.get()) - at_;
      if (limit != 0 && rows > limit - n) rows = static_cast<int>(limit - n);
      append_result(pending_.get(), at_, at_ + rows, out, cols, max_bytes);
      at_ += rows;
      n += rows;
    }
    return true;
  }

private:
  PgConn &c_;
  std::string sql_;
  std::vector<SqlValue> params_;
  PgResult pending_; // the result (one row, or all) being read
  int at_ = 0;      // its next row
  bool started_ = false, done_ = false;
};

// The rows of a cursor: a PostgreSQL cursor WITH HOLD (it outlives the
// transaction it was made in, as the SQLite store's cursors do), read with
// FETCH in binary format.
class PgCursor final : public StoreRows {
public:
  PgCursor(PgConn &c, std::string sql, std::vector<SqlValue> params)
      : c_(c), sql_(std::move(sql)), params_(std::move(params)),
        name_("tavrin_c" + std::to_string(c.next_cursor())) {}
  ~PgCursor() override {
    if (!declared_ || c_.lost() || c_.in_aborted_txn()) return;
    // Through run_params: inside a transaction behind a savepoint, so that
    // a cursor gone with an earlier rollback does not end the transaction.
    try {
      c_.run_params("CLOSE " + name_, {});
    } catch (...) {
    }
  }
  bool first() override {
    c_.run_params("DECLARE " + name_ + " NO SCROLL CURSOR WITH HOLD FOR " + sql_, params_);
    declared_ = true;
    return true;
  }
  bool append(std::vector<unsigned char> &out, const std::vector<AnswerColumn> &cols,
              int64_t limit, size_t max_bytes) override {
    if (!declared_) first();
    std::string count = limit == 0 ? "ALL" : std::to_string(limit);
    PgResult r = c_.run_params("FETCH FORWARD " + count + " FROM " + name_, {});
    int n = PQntuples(r.get());
    append_result(r.get(), 0, n, out, cols, max_bytes);
    return limit != 0 && n >= limit;
  }

private:
  PgConn &c_;
  std::string sql_;
  std::vector<SqlValue> params_;
  std::string name_;
  bool declared_ = false;
};

std::unique_ptr<StoreRows> PgConn::query(const std::string &sql,
                                         const std::vector<SqlValue> &params, bool cursor,
                                         const std::vector<AnswerColumn> &) {
  if (cursor) {
    auto rows = std::make_unique<PgCursor>(*this, sql, params);
    rows->first();
    return rows;
  }
  return std::make_unique<PgRows>(*this, sql, params);
}

void PgConn::load_schema(StoreSchema &schema) {
  schema.tables.clear();
  schema.indexes.clear();
  std::vector<SqlValue> args{name_, std::string(MARKER)};
  PgResult cols = run_params(
      "SELECT c.relname, a.attname, format_type(a.atttypid, a.atttypmod), a.attnotnull::int, "
      "coalesce(col_description(c.oid, a.attnum), '') FROM pg_class c JOIN pg_namespace n ON "
      "n.oid = c.relnamespace JOIN pg_attribute a ON a.attrelid = c.oid WHERE n.nspname = ? AND "
      "c.relkind IN ('r', 'p') AND c.relname <> ? AND a.attnum > 0 AND NOT a.attisdropped "
      "ORDER BY c.relname, a.attnum",
      args);
  auto text = [](PGresult *r, int row, int col) {
    return std::string(PQgetvalue(r, row, col), static_cast<size_t>(PQgetlength(r, row, col)));
  };
  auto is_one = [](PGresult *r, int row, int col) {
    // Binary int4 1 (the query asks for ::int).
    const unsigned char *v = reinterpret_cast<const unsigned char *>(PQgetvalue(r, row, col));
    return PQgetlength(r, row, col) == 4 && (v[0] | v[1] | v[2]) == 0 && v[3] == 1;
  };
  for (int i = 0; i < PQntuples(cols.get()); ++i) {
    std::string table = text(cols.get(), i, 0);
    TableInfo &t = schema.tables[sql_upper(table)];
    t.name = table;
    t.cols.push_back({text(cols.get(), i, 1),
                      pg_column_type(text(cols.get(), i, 4), text(cols.get(), i, 2)),
                      is_one(cols.get(), i, 3)});
  }
  PgResult ixs = run_params(
      "SELECT i.relname, t.relname, x.indisunique::int, a.attname FROM pg_index x "
      "JOIN pg_class i ON i.oid = x.indexrelid JOIN pg_class t ON t.oid = x.indrelid "
      "JOIN pg_namespace n ON n.oid = t.relnamespace "
      "CROSS JOIN LATERAL unnest(x.indkey::int2[]) WITH ORDINALITY AS k(attnum, ord) "
      "JOIN pg_attribute a ON a.attrelid = x.indrelid AND a.attnum = k.attnum "
      "WHERE n.nspname = ? AND t.relname <> ? ORDER BY i.relname, k.ord",
      args);
  for (int i = 0; i < PQntuples(ixs.get()); ++i) {
    std::string iname = text(ixs.get(), i, 0);
    IndexInfo &ix = schema.indexes[sql_upper(iname)];
    ix.name = iname;
    ix.table = text(ixs.get(), i, 1);
    ix.unique = is_one(ixs.get(), i, 2);
    ix.cols.push_back(text(ixs.get(), i, 3));
  }
  PgResult trg = run_params("SELECT g.tgname FROM pg_trigger g JOIN pg_class c ON c.oid = g.tgrelid "
                          "JOIN pg_namespace n ON n.oid = c.relnamespace WHERE n.nspname = ? "
                          "AND NOT g.tgisinternal AND c.relname <> ?",
                          args);
  for (int i = 0; i < PQntuples(trg.get()); ++i) {
    std::string name = text(trg.get(), i, 0);
    if (name.rfind(STATIC_PREFIX, 0) == 0 && name.size() > 10 &&
        name.compare(name.size() - 2, 2, "_i") == 0) {
      auto it = schema.tables.find(sql_upper(name.substr(8, name.size() - 10)));
      if (it != schema.tables.end()) it->second.is_static = true;
    }
  }
}

int PgConn::save(const std::string &path, std::string &err) {
  // A connection of its own reads the committed state, whatever this
  // channel has pending.
  PgConnPtr c = connect(store_.conninfo(), "tavrind save " + name_, err);
  if (!c) return 0;
  return pgcopy_save_to_sqlite(c.get(), name_, path, err);
}

bool PgConn::held_elsewhere() { return store_.lock_held_elsewhere(key_, this); }
void PgConn::note_lock(bool held) { store_.note_lock(key_, this, held); }

std::string PgConn::foreign_lock_holder() { return store_.lock_holder_text(key_); }

std::string PgStore::lock_holder_text(int64_t key) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string err;
  if (!admin_ok(err)) return "";
  uint64_t k = static_cast<uint64_t>(key);
  std::vector<PgResult> rs;
  if (!admin_exec(admin_.get(),
                  "SELECT coalesce(a.application_name, ''), coalesce(host(a.client_addr), ''), "
                  "l.pid, coalesce(to_char(a.xact_start, 'HH24:MI:SS'), '') FROM pg_locks l "
                  "LEFT JOIN pg_stat_activity a ON a.pid = l.pid WHERE l.locktype = 'advisory' "
                  "AND l.granted AND l.classid = " +
                      std::to_string(k >> 32) + " AND l.objid = " +
                      std::to_string(k & 0xFFFFFFFFu) + " AND l.objsubid = 1",
                  err, &rs) ||
      PQntuples(rs.back().get()) == 0)
    return "";
  PGresult *r = rs.back().get();
  std::string app = PQgetvalue(r, 0, 0), host = PQgetvalue(r, 0, 1), since = PQgetvalue(r, 0, 3);
  std::string t = "ein anderer tavrind";
  if (!app.empty()) t += " (" + utf8_to_latin1(app) + ")";
  t += std::string(", PostgreSQL-Prozess ") + PQgetvalue(r, 0, 2);
  if (!host.empty()) t += " von " + host;
  if (!since.empty()) t += " seit " + since;
  return t;
}

// --- the store ---------------------------------------------------------------

std::unique_ptr<StoreConn> PgStore::open(const std::string &name, bool create, StoreCheck check,
                                         void *arg, const std::string &application,
                                         std::string &err) {
  PgConnPtr c = connect(conninfo_, application, err);
  if (!c) return nullptr;
  if (create) {
    std::string marker = sql_quote(name) + "." + sql_quote(MARKER);
    if (!admin_exec(c.get(),
                    "BEGIN; CREATE SCHEMA " + sql_quote(name) + "; CREATE TABLE " + marker +
                        " (n bigint NOT NULL DEFAULT 0); INSERT INTO " + marker +
                        " (n) VALUES (0); COMMIT",
                    err)) {
      if (err.find("already exists") != std::string::npos) err = "existiert bereits";
      return nullptr;
    }
  } else if (!ensure_marker(c.get(), name, err)) {
    return nullptr;
  }
  auto conn = std::make_unique<PgConn>(*this, name, std::move(c), check, arg);
  try {
    conn->start();
  } catch (const ExecError &e) {
    err = e.text;
    return nullptr;
  } catch (const Interrupted &) {
    err = "abgebrochen";
    return nullptr;
  }
  return conn;
}

int PgStore::init(bool demo, std::string &err) {
  std::lock_guard<std::mutex> lock(mutex_);
  // Two servers starting at once: one sets up, the other waits for it.
  if (!admin_exec(admin_.get(),
                  "BEGIN; SELECT pg_advisory_xact_lock(" + std::to_string(lock_key("")) + "); " +
                      setup_sql() + " COMMIT",
                  err)) {
    admin_exec(admin_.get(), "ROLLBACK", err);
    err = "Einrichtung des Schemas TAVRIN$: " + err;
    return 0;
  }
  if (marker_exists(CATALOG_SYSTEM_DB)) return 1;
  // The first start: TDSYS (and DEMO) are made as SQLite files in a
  // temporary folder and copied in, so that both stores start with the same
  // rows.
  char tmpl[] = "/tmp/tavrind-first-XXXXXX";
  if (!mkdtemp(tmpl)) {
    err = std::string("temporary folder: ") + strerror(errno);
    return 0;
  }
  std::string dir = tmpl;
  Catalog tmp;
  tmp.dir = dir;
  tmp.sync_full = false;
  int ok = catalog_create_first(tmp, demo && !marker_exists(CATALOG_DEMO_DB), err);
  if (ok) {
    std::vector<std::string> report;
    ok = pgcopy_import_sqlite(admin_.get(), dir, report, err);
  }
  for (const auto &n : catalog_list(tmp))
    for (const char *suffix : {"", "-wal", "-shm"}) unlink((catalog_path(tmp, n) + suffix).c_str());
  rmdir(dir.c_str());
  return ok;
}

} // namespace

std::unique_ptr<Store> store_pg(Catalog &cat, const std::string &conninfo, std::string &err) {
  PgConnPtr admin = connect(conninfo, "tavrind", err);
  if (!admin) return nullptr;
  const char *enc = PQparameterStatus(admin.get(), "server_encoding");
  if (!enc || strcmp(enc, "UTF8") != 0) {
    err = std::string("the database ") + PQdb(admin.get()) + " has the encoding " +
          (enc ? enc : "?") + "; tavrind needs UTF8";
    return nullptr;
  }
  return std::make_unique<PgStore>(cat, conninfo, std::move(admin));
}

} // namespace tavrind
