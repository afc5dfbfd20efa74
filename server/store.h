// The storage seam of tavrind: what the executor asks of the place where the
// databases live, with two implementations, SQLite files in the data folder
// (store_sqlite.cpp, the default) and schemas of one PostgreSQL database
// (store_pg.cpp).
//
// The executor keeps everything the stores share: decoding, name
// resolution, the translation of statements (only the pieces of SQL that
// differ between the two dialects are asked of the connection), value checks
// and null markers, Latin-1/UTF-8, error numbers and texts, the transaction
// bookkeeping and the locking rules. A store opens connections, runs the
// translated statements, writes result rows into answers, keeps the write
// lock of a database and lists, creates, drops and saves databases.
//
// Calls into a store are virtual per statement, never per value: a store's
// row loop writes the rows of a result straight into the answer.
//
// Failures leave the stores as exceptions: ExecError (an error answer's full
// text), WouldBlock (the write lock is held elsewhere: nothing was done, the
// request is tried again later) and Interrupted (the check function asked to
// stop; the reason is the caller's).
#pragma once

#include "server/answer.h"
#include "server/types.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace tavrind {

// An error answer's text, thrown through the executor.
struct ExecError {
  std::string text;
};
// Another connection holds the write lock that a statement needs.
struct WouldBlock {};
// The connection's check function stopped the running statement.
struct Interrupted {};

struct ColumnInfo {
  std::string name;
  ColType type;
  bool not_null = false;
};

struct TableInfo {
  std::string name; // as stored
  std::vector<ColumnInfo> cols;
  bool is_static = false;
};

struct IndexInfo {
  std::string name;
  std::string table;
  bool unique = false;
  std::vector<std::string> cols;
};

// The tables and indices of one database, keyed by upper-case name.
struct StoreSchema {
  std::map<std::string, TableInfo> tables;
  std::map<std::string, IndexInfo> indexes;
};

// The transaction of a connection: none; open and reading a snapshot
// without the write lock; holding the database's write lock.
enum StoreTxn { STORE_TXN_NONE = 0, STORE_TXN_READ = 1, STORE_TXN_WRITE = 2 };

// Asked by a store while a statement runs (every few microseconds of work or
// every few milliseconds of waiting): non-zero stops the statement, which
// then throws Interrupted.
using StoreCheck = int (*)(void *arg);

// The rows of a running query or an open cursor.
class StoreRows {
public:
  virtual ~StoreRows() = default;
  // Runs the query up to its first row: true when there is one. Throws.
  virtual bool first() = 0;
  // Appends up to limit rows (0: all) in the answer's layout for cols, each
  // counted with answer_row; the first row taken by first() comes first.
  // Returns false when the query has no more rows. An answer growing past
  // max_bytes throws error 514 with the answer's memory given back.
  virtual bool append(std::vector<unsigned char> &out, const std::vector<AnswerColumn> &cols,
                      int64_t limit, size_t max_bytes) = 0;
};

// Throws error 514 for an answer that grew past max_bytes, giving its
// memory back first. For the stores' row loops.
[[noreturn]] void store_answer_too_big(std::vector<unsigned char> &out, size_t max_bytes);

// The name of the unique index of table over exactly cols (upper case) in
// schema; fallback when there is none.
std::string store_unique_index_name(const StoreSchema *schema, const std::string &table,
                                    const std::vector<std::string> &cols,
                                    const std::string &fallback);

// One channel's connection to one database.
class StoreConn {
public:
  virtual ~StoreConn() = default;

  // --- the pieces of SQL that differ between the stores. Every value is
  // a parameter '?' in the order of the text.
  // l op r on texts: exact but for trailing blanks (rtrim_only, for = and
  // <>) or by the system's string rule.
  virtual std::string text_compare(const std::string &l, const char *op, const std::string &r,
                                   bool rtrim_only) = 0;
  // a BETWEEN lo AND hi by the string rule.
  virtual std::string text_between(const std::string &a, const std::string &lo,
                                   const std::string &hi) = 0;
  // a IN (items) with trailing blanks ignored.
  virtual std::string text_in_list(const std::string &a, const std::vector<std::string> &items) = 0;
  // a IN (subquery) with trailing blanks ignored.
  virtual std::string text_in_select(const std::string &a, const std::string &sub) = 0;
  // l LIKE r, case-blind for ASCII letters, '%' and '_' only.
  virtual std::string like(const std::string &l, const std::string &r) = 0;
  // An ORDER BY item: by the string rule for a text; NULLs first when
  // ascending, as in SQLite.
  virtual std::string order_by(const std::string &x, bool text, bool desc) = 0;
  // What a SELECT DISTINCT must list besides its columns to be ordered by x
  // (stores that want the ordering expressions in the select list); "":
  // nothing. The executor adds them after the answer's columns.
  virtual std::string distinct_order_item(const std::string &, bool) { return ""; }
  // MIN or MAX of a text by the string rule.
  virtual std::string text_min_max(bool max, const std::string &x) = 0;

  // --- schema
  // A number that changes whenever the database's schema may have changed
  // (as the connection sees it now).
  virtual int schema_version() = 0;
  // Reads the tables (with columns and static mode) and indices.
  virtual void load_schema(StoreSchema &schema) = 0;

  // --- transactions
  // Is a transaction open (also one that has not read yet)?
  virtual bool txn_open() = 0;
  // What the open transaction holds (a transaction that has not read yet
  // holds nothing).
  virtual StoreTxn txn_state() = 0;
  // Starts a transaction; with write it holds the write lock at once
  // (WouldBlock: no transaction is left open). single: the transaction of
  // one change outside BEGIN ... COMMIT, which the caller commits or rolls
  // back itself.
  virtual void begin(bool write, bool single = false) = 0;
  // Commits (a failure throws and leaves the transaction open), rolls back
  // (never throws).
  virtual void commit() = 0;
  virtual void rollback() = 0;
  // Inside a transaction: takes the write lock before a change (WouldBlock
  // when held elsewhere; the transaction goes on), then marks the start of
  // one statement, which can be undone alone or kept.
  virtual void statement_begin() = 0;
  virtual void statement_undo() = 0;
  virtual void statement_keep() = 0;

  // --- statements. Every one throws ExecError, WouldBlock or Interrupted.
  // CREATE TABLE name with the attributes' declared types, NOT NULL and the
  // defaults that store the null markers.
  virtual void create_table(const std::string &name, const std::vector<ColumnInfo> &cols) = 0;
  // DDL and other statements without parameters or rows. unique_error: the
  // text thrown when the statement fails on a unique index (creating one
  // over duplicate values); empty: the general mapping.
  virtual void exec(const std::string &sql, const std::string &unique_error = "") = 0;
  // A change with parameters; returns the number of rows changed.
  virtual int change(const std::string &sql, const std::vector<SqlValue> &params) = 0;
  // A query; cursor: its rows are read over several requests (DECLARE).
  // cols: the answer's columns, the first cols.size() of the query's, which
  // append() will be given.
  virtual std::unique_ptr<StoreRows> query(const std::string &sql,
                                           const std::vector<SqlValue> &params, bool cursor,
                                           const std::vector<AnswerColumn> &cols) = 0;
  // SET TABLE t STATIC / SECURE: refuses or allows changes of the table
  // (also to other tools working on the store).
  virtual void set_static(const std::string &table, bool make_static) = 0;

  // Writes a consistent copy of the committed state of the open database as
  // a SQLite file of the SQLite store's layout at path. Returns 1, or 0
  // with err set.
  virtual int save(const std::string &path, std::string &err) = 0;

  // Is the write lock of this connection's database held by another server
  // process (not by a connection of this one)? Then a text naming it (for
  // error 509); else "". Asked only while a statement of it waits.
  virtual std::string foreign_lock_holder() { return ""; }

  // Was the connection lost (the database server went away)? The executor
  // opens a new one for the channel's next request.
  virtual bool lost() const { return false; }

  // The schema the executor loaded last, for naming a violated index.
  void attach_schema(const StoreSchema *s) { schema_ = s; }

protected:
  const StoreSchema *schema_ = nullptr;
};

// A place of databases; one per server, used from every thread.
class Store {
public:
  virtual ~Store() = default;
  // Creates what a first start creates: TDSYS and, with demo, DEMO (a later
  // start leaves the databases as they are). Returns 1, or 0 with err set.
  virtual int init(bool demo, std::string &err) = 0;
  // Does database name exist? Throws ExecError when the store cannot tell.
  virtual bool exists(const std::string &name) = 0;
  // The names of all databases, sorted. Throws as exists does.
  virtual std::vector<std::string> list() = 0;
  // Opens database name (with create: a new empty one, which must not
  // exist). check is called with arg while statements run. Returns the
  // connection or null with err set.
  virtual std::unique_ptr<StoreConn> open(const std::string &name, bool create, StoreCheck check,
                                          void *arg, const std::string &application,
                                          std::string &err) = 0;
  // Removes the database. Returns 1, or 0 with err set.
  virtual int drop(const std::string &name, std::string &err) = 0;
  // Does a commit wait (for the disk of this machine) without the check
  // function being asked meanwhile? The handler lets such a commit run
  // without the loop at once; other waits give the loop up after its
  // budget through the check function.
  virtual bool commit_waits() const = 0;
  // Where the store lives, for the log.
  virtual std::string where() const = 0;
};

// The SQLite store on the catalog's data folder (which must outlive it).
struct Catalog;
std::unique_ptr<Store> store_sqlite(Catalog &cat);

// The PostgreSQL store on the database that conninfo names; SAVE DATABASE
// writes into the catalog's backup folder. Returns null with err set when
// the cluster cannot be reached or is not usable (a database not in UTF8).
std::unique_ptr<Store> store_pg(Catalog &cat, const std::string &conninfo, std::string &err);

} // namespace tavrind
