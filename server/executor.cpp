// The statement executor of tavrind on SQLite.
//
// Statements are decoded (request.h), their names resolved against the open
// database's schema, translated into SQLite statements with every value bound
// as a parameter, run, and their rows written in the wire forms (answer.h,
// types.h). Errors travel inside as exceptions and leave as '0' answers.
#include "server/executor.h"

#include "server/answer.h"
#include "server/request.h"
#include "server/sqltext.h"
#include "server/store.h"
#include "server/types.h"

#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <map>
#include <optional>
#include <unordered_map>

namespace tavrind {

namespace {

// Most parameters one statement may bind (SQLite allows 32766).
constexpr size_t MAX_PARAMS = 30000;
// Translated query shapes kept per channel.
constexpr size_t SHAPE_CACHE = 64;

} // namespace

// A query translated once for its shape (the request without its literal
// values): the SQLite text, the answer's columns, and for each parameter of
// the text which literal of the request it binds (its place in the order in
// which shape_select lists them) and the type it is converted to.
struct QueryShape {
  std::string sql;
  std::vector<AnswerColumn> cols;
  std::vector<std::pair<size_t, std::optional<ColType>>> params;
};

// A declared cursor: its running statement and its columns.
struct Cursor {
  std::unique_ptr<StoreRows> rows;
  std::vector<AnswerColumn> cols;
  bool done = false;
};

struct SessionState {
  std::unique_ptr<StoreConn> conn;
  std::map<std::string, Cursor> cursors;
  int schema_version = -1;
  StoreSchema schema;
  // Translated queries by shape, valid for the schema loaded in tables and
  // indexes (emptied whenever that is loaded again).
  std::unordered_map<std::string, QueryShape> shapes;
  // BEGIN was given, but no statement has run since: the SQLite transaction
  // starts with the first statement, taking the write lock at once when that
  // statement writes (so that a transaction that begins by writing waits for
  // the lock instead of failing later on a stale snapshot).
  bool pending_begin = false;
  // The open BEGIN block read before it tried to write / tried to write
  // (also when the write failed or waited), and a change of it has taken
  // effect (its commit will make other channels' snapshots stale).
  bool block_read_first = false;
  bool block_write_tried = false;
  bool block_changed = false;
  // The previous BEGIN block read and then wrote: the next one starts with
  // the write lock, even when its first statement only reads. A client that
  // reads a value and writes it back (a transfer, a counter) then waits for
  // the holder before it reads, instead of reading a state that the
  // holder's commit makes stale and being refused when it writes.
  bool write_first = false;

  // Why the progress handler stopped the running statement: the statement
  // timeout, the server ends, the client ended (or its channel was
  // closed), the client cancelled it.
  enum class Stop { None, Timeout, Server, Client, Cancel } stop = Stop::None;
  // Set from other threads: the client asked to stop the statement / the
  // channel is gone.
  std::atomic<bool> cancel{false};
  std::atomic<bool> abandoned{false};
  // Called once when the request has run past its budget (exec_request).
  const std::function<void()> *overrun = nullptr;
  std::chrono::steady_clock::time_point overrun_at;
  // The progress handler only stops statements of a request (never the
  // rollback that cleans up after one).
  bool armed = false;
  std::chrono::steady_clock::time_point deadline; // of the running request, when timed
  bool timed = false;
  std::chrono::steady_clock::time_point next_client_check;
  // When the channel's transaction took the write lock of its database; 0
  // while it holds none.
  std::atomic<time_t> lock_since{0};
  // When the channel's statement began to wait for a write lock; 0 while it
  // does not wait.
  std::atomic<time_t> wait_since{0};
  // The connection's transaction state (StoreTxn) and block_changed as
  // of the end of the last request, for other threads: asking the
  // connection itself would wait for a statement running on it.
  std::atomic<int> txn_seen{STORE_TXN_NONE};
  std::atomic<bool> changed_seen{false};
};

// Ends the bookkeeping of a BEGIN block; a block that read and then wrote
// makes the next one start with the write lock.
static void end_block(SessionState &st) {
  st.write_first = st.block_read_first && st.block_write_tried;
  st.block_read_first = st.block_write_tried = st.block_changed = false;
  st.pending_begin = false;
}

// Is a transaction open on the channel's connection?
static bool store_txn(const SessionState &st) {
  return st.conn && st.conn->txn_open();
}

Executor::Executor() : store(store_sqlite(catalog)) {}
Executor::~Executor() = default;

void store_answer_too_big(std::vector<unsigned char> &out, size_t max_bytes) {
  std::vector<unsigned char>().swap(out); // give the memory back at once
  throw ExecError{answer_errtext(Err::ANTWORT_ZU_GROSS, {std::to_string(max_bytes >> 20)})};
}

std::string store_unique_index_name(const StoreSchema *schema, const std::string &table,
                                    const std::vector<std::string> &cols,
                                    const std::string &fallback) {
  if (schema)
    for (const auto &[k, ix] : schema->indexes) {
      std::vector<std::string> ic;
      for (const auto &c : ix.cols) ic.push_back(sql_upper(c));
      if (ix.unique && sql_upper(ix.table) == table && ic == cols) return ix.name;
    }
  return fallback;
}

Session::Session(Executor &e, int i) : ex(e), id(i), st(std::make_unique<SessionState>()) {
  std::lock_guard<std::mutex> lock(ex.sessions_mutex);
  ex.sessions.push_back(this);
}

bool Session::in_transaction() const { return st->pending_begin || store_txn(*st); }

namespace {

void load_schema(SessionState &st) {
  st.shapes.clear();
  st.conn->load_schema(st.schema);
  st.conn->attach_schema(&st.schema);
}

// Brings the schema up to date when the database's schema changed.
void refresh_schema(SessionState &st) {
  int version = st.conn->schema_version();
  if (version != st.schema_version) {
    load_schema(st);
    st.schema_version = version;
  }
}

const TableInfo &find_table(SessionState &st, const std::string &name) {
  auto it = st.schema.tables.find(sql_upper(name));
  if (it == st.schema.tables.end()) throw ExecError{answer_errtext(Err::TABELLE_UNBEKANNT, {name})};
  return it->second;
}

const ColumnInfo *find_column(const TableInfo &t, const std::string &name) {
  std::string u = sql_upper(name);
  for (const auto &c : t.cols)
    if (sql_upper(c.name) == u) return &c;
  return nullptr;
}

// ---------------------------------------------------------------------------
// Translation of queries and conditions into the store's SQL

// The tables of one SELECT (or of the table of an UPDATE/DELETE), with the
// enclosing query's scope for correlated subqueries.
struct Scope {
  struct Entry {
    std::string user; // the name the statement uses: alias, else table name
    std::string table_name;
    const TableInfo *t;
    std::string sql_alias;
  };
  const Scope *outer = nullptr;
  std::vector<Entry> entries;
};

struct Resolved {
  std::string sql;
  const ColumnInfo *col;
};

struct Generated {
  std::string sql;
  std::vector<AnswerColumn> cols;
};

// A literal as parameter: in the stored form of type t when it is a valid
// value of it (so '2003.07.12' finds the date 2003-07-12 and '' the null
// marker), else as it is.
SqlValue literal_param(const Literal &l, std::optional<ColType> t) {
  SqlValue v;
  std::string err;
  if (!(t && type_check_value(*t, l, v, err))) {
    if (l.kind == Literal::INT)
      v = static_cast<int64_t>(l.i);
    else if (l.kind == Literal::FLOAT)
      v = l.f;
    else
      v = latin1_to_utf8(l.s);
  }
  return v;
}

// The shape of a query: everything its translation depends on besides the
// schema (names, structure, the kinds of its literals) as one text, with the
// literals themselves left out and appended to lits in a fixed order. Two
// queries of the same shape translate into the same SQLite text. Every part
// starts with a mark of its own and every name ends with a separator that no
// name contains (the decoder accepts only the tokenizer's names), so two
// different shapes never give the same text.
void shape_name(std::string &k, const std::string &name) {
  k += name;
  k += '\x01';
}

void shape_select(std::string &k, const Select &s, std::vector<const Literal *> &lits);

void shape_expr(std::string &k, const Expr &e, std::vector<const Literal *> &lits) {
  k += static_cast<char>('a' + e.kind);
  k += e.op ? e.op : '-';
  switch (e.kind) {
  case Expr::Column:
    shape_name(k, e.attr.qualifier);
    shape_name(k, e.attr.name);
    break;
  case Expr::Value:
    k += static_cast<char>('0' + e.lit.kind);
    lits.push_back(&e.lit);
    break;
  default:
    break;
  }
  if (e.sub) shape_select(k, *e.sub, lits);
  k += '(';
  for (const auto &a : e.args) shape_expr(k, *a, lits);
  k += ')';
}

void shape_select(std::string &k, const Select &s, std::vector<const Literal *> &lits) {
  k += s.distinct ? "SD" : "S";
  for (const SelectItem &it : s.items) {
    k += static_cast<char>('0' + it.kind);
    shape_name(k, it.attr.qualifier);
    shape_name(k, it.attr.name);
  }
  k += 'F';
  for (const TableRef &t : s.from) {
    k += 't';
    shape_name(k, t.name);
    shape_name(k, t.alias);
  }
  if (s.where) {
    k += 'W';
    shape_expr(k, *s.where, lits);
  }
  k += 'O';
  for (const OrderItem &o : s.order) {
    k += o.desc ? 'd' : 'a';
    shape_name(k, o.attr.qualifier);
    shape_name(k, o.attr.name);
  }
  k += ';';
}

class Translator {
public:
  explicit Translator(SessionState &st) : st_(st) {}

  std::vector<SqlValue> params;
  // The literal and type behind each parameter, in the order of params.
  std::vector<std::pair<const Literal *, std::optional<ColType>>> sources;

  Generated select(const Select &s, const Scope *outer) {
    Scope scope;
    scope.outer = outer;
    std::string from;
    for (const TableRef &tr : s.from) {
      const TableInfo &t = find_table(st_, tr.name);
      std::string user = tr.alias.empty() ? tr.name : tr.alias;
      for (const auto &e : scope.entries)
        if (e.user == user) throw ExecError{answer_errtext(Err::ALIAS_DOPPELT, {user})};
      std::string alias = "t" + std::to_string(next_alias_++);
      scope.entries.push_back({user, sql_upper(t.name), &t, alias});
      if (!from.empty()) from += ", ";
      from += sql_quote(t.name) + " AS " + alias;
    }
    Generated g;
    std::string list;
    auto add = [&](const std::string &sql, const std::string &name, ColType type) {
      if (!list.empty()) list += ", ";
      list += sql;
      g.cols.push_back({name, type});
    };
    for (const SelectItem &it : s.items) {
      switch (it.kind) {
      case SelectItem::All:
        for (const auto &e : scope.entries)
          for (const auto &c : e.t->cols) add(e.sql_alias + "." + sql_quote(c.name), c.name, c.type);
        break;
      case SelectItem::TableAll: {
        const Scope::Entry *e = nullptr;
        for (const auto &x : scope.entries)
          if (x.user == it.attr.qualifier || (x.table_name == it.attr.qualifier && !e)) e = &x;
        if (!e) throw ExecError{answer_errtext(Err::TABELLE_NICHT_IN_ABFRAGE, {it.attr.qualifier})};
        for (const auto &c : e->t->cols) add(e->sql_alias + "." + sql_quote(c.name), c.name, c.type);
        break;
      }
      case SelectItem::Column: {
        Resolved r = resolve(it.attr, scope);
        add(r.sql, r.col->name, r.col->type);
        break;
      }
      case SelectItem::Count:
        add("count(*)", "COUNT(*)", type_make(DBTYPE_INTEGER, 0));
        break;
      case SelectItem::Min:
      case SelectItem::Max: {
        Resolved r = resolve(it.attr, scope);
        std::string f = it.kind == SelectItem::Min ? "min" : "max";
        std::string sql = r.col->type.code == DBTYPE_CHARACTER
                              ? conn().text_min_max(it.kind == SelectItem::Max, r.sql)
                              : f + "(" + r.sql + ")";
        add(sql, sql_upper(f) + "(" + r.col->name + ")", r.col->type);
        break;
      }
      }
    }
    g.sql = std::string("SELECT ") + (s.distinct ? "DISTINCT " : "") + list;
    std::string rest = " FROM " + from;
    if (s.where) rest += " WHERE " + expr(*s.where, scope);
    // Items a DISTINCT orders by that the store wants in the select list too:
    // after the answer's columns, which the answer leaves out.
    std::string hidden;
    if (!s.order.empty()) {
      rest += " ORDER BY ";
      for (size_t i = 0; i < s.order.size(); ++i) {
        Resolved r = resolve(s.order[i].attr, scope);
        if (i) rest += ", ";
        std::string item =
            conn().order_by(r.sql, r.col->type.code == DBTYPE_CHARACTER, s.order[i].desc);
        rest += item;
        if (s.distinct) {
          std::string extra =
              conn().distinct_order_item(r.sql, r.col->type.code == DBTYPE_CHARACTER);
          if (!extra.empty()) hidden += ", " + extra;
        }
      }
    }
    g.sql += hidden + rest;
    check_params();
    return g;
  }

  // The condition of an UPDATE or DELETE on table t (alias t0).
  std::string condition(const Expr &e, const TableInfo &t) {
    Scope scope;
    scope.entries.push_back({sql_upper(t.name), sql_upper(t.name), &t, "t0"});
    std::string sql = expr(e, scope);
    check_params();
    return sql;
  }

  void check_params() const {
    if (params.size() > MAX_PARAMS)
      throw ExecError{answer_errtext(Err::ZU_VIELE_WERTE_ANFRAGE,
                                     {std::to_string(params.size()), std::to_string(MAX_PARAMS)})};
  }

private:
  // Resolves an attribute: in the innermost query first, then outwards. A
  // qualifier names an alias or, failing that, a table of the query.
  Resolved resolve(const AttrRef &a, const Scope &scope) {
    bool qualifier_seen = false;
    for (const Scope *sc = &scope; sc; sc = sc->outer) {
      std::vector<std::pair<const Scope::Entry *, const ColumnInfo *>> hits;
      for (const auto &e : sc->entries) {
        if (!a.qualifier.empty()) {
          if (e.user != a.qualifier && e.table_name != a.qualifier) continue;
          qualifier_seen = true;
        }
        if (const ColumnInfo *c = find_column(*e.t, a.name)) hits.emplace_back(&e, c);
      }
      if (hits.size() > 1 && !a.qualifier.empty()) {
        // "T.A" with an alias T and a table T elsewhere: the alias wins.
        decltype(hits) by_alias;
        for (const auto &h : hits)
          if (h.first->user == a.qualifier) by_alias.push_back(h);
        if (!by_alias.empty()) hits = by_alias;
      }
      if (hits.size() == 1)
        return {hits[0].first->sql_alias + "." + sql_quote(hits[0].second->name), hits[0].second};
      if (hits.size() > 1) {
        std::string tables;
        for (const auto &h : hits) tables += (tables.empty() ? "" : ", ") + h.first->user;
        throw ExecError{answer_errtext(Err::ATTRIBUT_MEHRDEUTIG, {a.name, tables})};
      }
      if (qualifier_seen) break;
    }
    if (!a.qualifier.empty() && !qualifier_seen)
      throw ExecError{answer_errtext(Err::TABELLE_NICHT_IN_ABFRAGE, {a.qualifier})};
    return throw_unknown(a);
  }

  [[noreturn]] static Resolved throw_unknown(const AttrRef &a) {
    throw ExecError{answer_errtext(Err::ATTRIBUT_UNBEKANNT,
                                   {a.qualifier.empty() ? a.name : a.qualifier + "." + a.name})};
  }

  // The declared type of a value node, if it has one.
  std::optional<ColType> type_of(const Expr &e, const Scope &scope) {
    if (e.kind == Expr::Column) return resolve(e.attr, scope).col->type;
    if (e.kind == Expr::Subquery) {
      Translator probe(st_);
      probe.next_alias_ = next_alias_;
      Generated g = probe.select(*e.sub, &scope);
      if (!g.cols.empty()) return g.cols[0].type;
    }
    return std::nullopt;
  }

  std::string param(const Literal &l, std::optional<ColType> t) {
    params.push_back(literal_param(l, t));
    sources.emplace_back(&l, t);
    return "?";
  }

  std::string value(const Expr &e, const Scope &scope, std::optional<ColType> t) {
    switch (e.kind) {
    case Expr::Column:
      return resolve(e.attr, scope).sql;
    case Expr::Value:
      return param(e.lit, t);
    case Expr::Subquery: {
      Generated g = select(*e.sub, &scope);
      if (g.cols.size() != 1) throw ExecError{answer_errtext(Err::UNTERABFRAGE_SPALTEN, {})};
      return "(" + g.sql + ")";
    }
    default:
      return expr(e, scope);
    }
  }

  bool is_text(const Expr &e, std::optional<ColType> t) const {
    if (t) return t->code == DBTYPE_CHARACTER;
    return e.kind == Expr::Value && e.lit.kind == Literal::STRING;
  }

  std::string expr(const Expr &e, const Scope &scope) {
    switch (e.kind) {
    case Expr::Column:
    case Expr::Value:
    case Expr::Subquery:
      return "(" + value(e, scope, std::nullopt) + ")";
    case Expr::Exists:
      return "EXISTS (" + select(*e.sub, &scope).sql + ")";
    case Expr::And:
    case Expr::Or: {
      // Parameters are numbered in the order of the text: left side first.
      std::string left = expr(*e.args[0], scope);
      std::string right = expr(*e.args[1], scope);
      return "(" + left + (e.kind == Expr::And ? " AND " : " OR ") + right + ")";
    }
    case Expr::Not:
      return "(NOT " + expr(*e.args[0], scope) + ")";
    case Expr::Compare: {
      const Expr &l = *e.args[0], &r = *e.args[1];
      std::optional<ColType> t = type_of(l, scope);
      if (!t) t = type_of(r, scope);
      if (e.op == 'L') {
        std::string ls = value(l, scope, std::nullopt);
        std::string rs = value(r, scope, std::nullopt);
        return conn().like(ls, rs);
      }
      bool text = is_text(l, t) || (!t && is_text(r, t));
      std::string ls = value(l, scope, t);
      std::string rs = value(r, scope, t);
      const char *op = e.op == '<'   ? "<"
                       : e.op == '>' ? ">"
                       : e.op == 'l' ? "<="
                       : e.op == 'g' ? ">="
                       : e.op == '=' ? "="
                                     : "<>";
      if (text) return conn().text_compare(ls, op, rs, e.op == '=' || e.op == '!');
      return "(" + ls + " " + op + " " + rs + ")";
    }
    case Expr::Between: {
      std::optional<ColType> t = type_of(*e.args[0], scope);
      bool text = is_text(*e.args[0], t) || (!t && is_text(*e.args[1], t));
      std::string a = value(*e.args[0], scope, t);
      std::string lo = value(*e.args[1], scope, t);
      std::string hi = value(*e.args[2], scope, t);
      if (text) return conn().text_between(a, lo, hi);
      return "(" + a + " BETWEEN " + lo + " AND " + hi + ")";
    }
    case Expr::InList: {
      std::optional<ColType> t = type_of(*e.args[0], scope);
      bool text = is_text(*e.args[0], t) || (!t && is_text(*e.args[1], t));
      std::string a = value(*e.args[0], scope, t), list;
      std::vector<std::string> items;
      for (size_t i = 1; i < e.args.size(); ++i) {
        items.push_back(value(*e.args[i], scope, t));
        list += (i > 1 ? ", " : "") + items.back();
      }
      if (text) return conn().text_in_list(a, items);
      return "(" + a + " IN (" + list + "))";
    }
    case Expr::InSelect: {
      std::optional<ColType> t = type_of(*e.args[0], scope);
      std::string a = value(*e.args[0], scope, t);
      Generated g = select(*e.args[1]->sub, &scope);
      if (g.cols.size() != 1) throw ExecError{answer_errtext(Err::UNTERABFRAGE_SPALTEN, {})};
      bool text = t ? t->code == DBTYPE_CHARACTER : g.cols[0].type.code == DBTYPE_CHARACTER;
      if (text) return conn().text_in_select(a, g.sql);
      return "(" + a + " IN (" + g.sql + "))";
    }
    }
    return "NULL";
  }

  StoreConn &conn() { return *st_.conn; }

  SessionState &st_;
  int next_alias_ = 0;
};

// ---------------------------------------------------------------------------
// Statements

struct Ctx {
  Session &ch;
  SessionState &st;
  std::vector<unsigned char> &out;
};

void need_db(Ctx &c) {
  if (!c.st.conn) throw ExecError{answer_errtext(Err::KEINE_DATENBANK, {})};
  refresh_schema(c.st);
}

// Logs one line about channel ch. Texts of the protocol are Latin-1; the log
// goes to a terminal or file and is written in UTF-8.
void log_line(Session &ch, const std::string &text) {
  if (ch.ex.log)
    ch.ex.log("channel " + std::to_string(ch.id) + " [" + ch.database +
              "]: " + latin1_to_utf8(text));
}

// Runs f as one change: its own transaction outside BEGIN ... COMMIT, a
// savepoint inside one, so that a failing or blocked statement leaves nothing
// behind.
template <class F> void as_change(Ctx &c, F f) {
  bool own = !c.ch.in_transaction();
  StoreConn &conn = *c.st.conn;
  if (own)
    conn.begin(true, true);
  else
    conn.statement_begin();
  try {
    f();
    if (own) {
      conn.commit();
    } else {
      conn.statement_keep();
      c.st.block_changed = true;
    }
  } catch (...) {
    if (own)
      conn.rollback();
    else
      conn.statement_undo();
    c.st.schema_version = -1;
    throw;
  }
}

const TableInfo &changeable_table(Ctx &c, const std::string &name) {
  const TableInfo &t = find_table(c.st, name);
  if (t.is_static) throw ExecError{answer_errtext(Err::TABELLE_STATISCH, {t.name})};
  return t;
}

// Is v the null marker of type t? (TIME has none apart from an empty text.)
bool is_null_value(ColType t, const SqlValue &v) {
  if (std::holds_alternative<std::monostate>(v)) return true;
  switch (t.code) {
  case DBTYPE_CHARACTER:
    return std::get<std::string>(v).find_first_not_of(' ') == std::string::npos;
  case DBTYPE_SMALLINT:
    return std::get<int64_t>(v) == NULL_SMALLINT;
  case DBTYPE_INTEGER:
    return std::get<int64_t>(v) == NULL_INTEGER;
  case DBTYPE_FLOAT:
    return std::get<double>(v) == NULL_FLOAT;
  case DBTYPE_DATE:
    return std::get<std::string>(v) == "1800-01-01";
  case DBTYPE_TIMESTAMP:
    return std::get<std::string>(v) == "1800-01-01-00.00.00.000000";
  case DBTYPE_BINARY:
    return std::get<SqlBlob>(v).bytes.empty();
  default:
    return false;
  }
}

// Checks lit for attribute col; returns the value to store.
SqlValue checked_value(const ColumnInfo &col, const Literal &lit) {
  SqlValue v;
  std::string err;
  if (!type_check_value(col.type, lit, v, err))
    throw ExecError{answer_errtext(Err::WERT_UNGUELTIG, {col.name, err})};
  bool empty_text =
      lit.kind == Literal::STRING && lit.s.find_first_not_of(' ') == std::string::npos;
  if (col.not_null && (empty_text || is_null_value(col.type, v)))
    throw ExecError{answer_errtext(Err::NOT_NULL, {col.name})};
  return v;
}

void do_insert(Ctx &c, const Request &q) {
  const TableInfo &t = changeable_table(c, q.name);
  std::vector<const ColumnInfo *> cols;
  if (!q.attrs.empty()) {
    for (const auto &a : q.attrs) {
      const ColumnInfo *col = find_column(t, a);
      if (!col) throw ExecError{answer_errtext(Err::ATTRIBUT_UNBEKANNT, {a})};
      if (std::find(cols.begin(), cols.end(), col) != cols.end())
        throw ExecError{answer_errtext(Err::ATTRIBUT_DOPPELT, {a})};
      cols.push_back(col);
    }
    if (q.attrs.size() != q.values.size())
      throw ExecError{answer_errtext(
          Err::ANZAHL_WERTE, {std::to_string(q.attrs.size()), std::to_string(q.values.size())})};
  } else {
    if (q.values.size() > t.cols.size())
      throw ExecError{answer_errtext(Err::ZU_VIELE_WERTE, {t.name, std::to_string(t.cols.size()),
                                                           std::to_string(q.values.size())})};
    for (size_t i = 0; i < q.values.size(); ++i) cols.push_back(&t.cols[i]);
  }
  for (const auto &col : t.cols)
    if (col.not_null && std::find(cols.begin(), cols.end(), &col) == cols.end())
      throw ExecError{answer_errtext(Err::NOT_NULL, {col.name})};
  std::vector<SqlValue> params;
  std::string names, marks;
  for (size_t i = 0; i < cols.size(); ++i) {
    params.push_back(checked_value(*cols[i], q.values[i]));
    names += (i ? ", " : "") + sql_quote(cols[i]->name);
    marks += i ? ", ?" : "?";
  }
  std::string sql = "INSERT INTO " + sql_quote(t.name) +
                    (cols.empty() ? " DEFAULT VALUES" : " (" + names + ") VALUES (" + marks + ")");
  if (c.ch.ex.verbose) log_line(c.ch, sql);
  int n = 0;
  as_change(c, [&] { n = c.st.conn->change(sql, params); });
  answer_count(c.out, n);
}

void do_update(Ctx &c, const Request &q) {
  const TableInfo &t = changeable_table(c, q.name);
  Translator tr(c.st);
  std::string sets;
  std::vector<const ColumnInfo *> seen;
  for (const auto &a : q.assigns) {
    const ColumnInfo *col = find_column(t, a.attr);
    if (!col) throw ExecError{answer_errtext(Err::ATTRIBUT_UNBEKANNT, {a.attr})};
    if (std::find(seen.begin(), seen.end(), col) != seen.end())
      throw ExecError{answer_errtext(Err::ATTRIBUT_DOPPELT, {a.attr})};
    seen.push_back(col);
    tr.params.push_back(checked_value(*col, a.value));
    sets += (sets.empty() ? "" : ", ") + sql_quote(col->name) + " = ?";
  }
  std::string sql = "UPDATE " + sql_quote(t.name) + " AS t0 SET " + sets;
  if (q.where) sql += " WHERE " + tr.condition(*q.where, t);
  if (c.ch.ex.verbose) log_line(c.ch, sql);
  int n = 0;
  as_change(c, [&] { n = c.st.conn->change(sql, tr.params); });
  answer_count(c.out, n);
}

void do_delete(Ctx &c, const Request &q) {
  const TableInfo &t = changeable_table(c, q.name);
  Translator tr(c.st);
  std::string sql = "DELETE FROM " + sql_quote(t.name) + " AS t0";
  if (q.where) sql += " WHERE " + tr.condition(*q.where, t);
  if (c.ch.ex.verbose) log_line(c.ch, sql);
  int n = 0;
  as_change(c, [&] { n = c.st.conn->change(sql, tr.params); });
  answer_count(c.out, n);
}

// The largest tuples answer the server builds.
size_t answer_limit(const Executor &ex) { return std::min(ex.max_answer, ANSWER_LIMIT_MAX); }

// The translation of a query for the schema as loaded: from the channel's
// shapes when a query of the same shape was translated before, else
// translated now and kept. lits are the query's literals in shape order.
// Throws the translation's errors.
const QueryShape &shaped_query(Ctx &c, const Select &sel, const std::string &key,
                               const std::vector<const Literal *> &lits) {
  auto it = c.st.shapes.find(key);
  if (it != c.st.shapes.end()) return it->second;
  Translator tr(c.st);
  Generated g = tr.select(sel, nullptr);
  QueryShape shape{std::move(g.sql), std::move(g.cols), {}};
  for (const auto &[lit, type] : tr.sources) {
    size_t at = size_t(std::find(lits.begin(), lits.end(), lit) - lits.begin());
    if (at == lits.size()) throw ExecError{answer_errtext(Err::SPEICHERFEHLER, {"query shape"})};
    shape.params.emplace_back(at, type);
  }
  if (c.st.shapes.size() >= SHAPE_CACHE) c.st.shapes.clear();
  return c.st.shapes.emplace(key, std::move(shape)).first->second;
}

// Runs a query. It is translated for the schema as last loaded, and the
// database's schema version is read after the query's first step, in the
// snapshot the query reads: a version equal to the loaded one proves that
// the translation was right (versions only grow) and costs no transaction
// of its own. Else, and when the translation or the query fails while the
// schema has changed, the schema is loaded again and the query runs anew,
// before any of its rows has gone into the answer.
void do_select(Ctx &c, const Request &q) {
  std::string key;
  std::vector<const Literal *> lits;
  shape_select(key, *q.select, lits);
  for (bool fresh = false;; fresh = true) {
    auto reload = [&] {
      if (fresh) return false;
      int version = c.st.conn->schema_version();
      if (version == c.st.schema_version) return false;
      load_schema(c.st);
      c.st.schema_version = version;
      return true;
    };
    const QueryShape *shape = nullptr;
    std::vector<SqlValue> params;
    try {
      shape = &shaped_query(c, *q.select, key, lits);
      for (const auto &[at, type] : shape->params) params.push_back(literal_param(*lits[at], type));
    } catch (const ExecError &) {
      if (reload()) continue;
      throw;
    }
    if (c.ch.ex.verbose) log_line(c.ch, shape->sql);
    std::unique_ptr<StoreRows> rows;
    try {
      rows = c.st.conn->query(shape->sql, params, false, shape->cols);
      rows->first();
    } catch (const ExecError &) {
      rows.reset();
      if (reload()) continue;
      throw;
    }
    if (reload()) continue;
    answer_tuples_begin(c.out, DBANS_TUPLES, shape->cols);
    rows->append(c.out, shape->cols, c.ch.max_rows, answer_limit(c.ch.ex));
    return;
  }
}

void do_declare(Ctx &c, const Request &q) {
  if (c.st.cursors.count(q.name)) throw ExecError{answer_errtext(Err::CURSOR_EXISTIERT, {q.name})};
  Translator tr(c.st);
  Generated g = tr.select(*q.select, nullptr);
  if (c.ch.ex.verbose) log_line(c.ch, "DECLARE " + q.name + " CURSOR FOR " + g.sql);
  Cursor cur;
  cur.rows = c.st.conn->query(g.sql, tr.params, true, g.cols);
  cur.cols = g.cols;
  c.st.cursors.emplace(q.name, std::move(cur));
  answer_done(c.out);
}

void do_fetch(Ctx &c, const Request &q) {
  auto it = c.st.cursors.find(q.name);
  if (it == c.st.cursors.end()) throw ExecError{answer_errtext(Err::CURSOR_UNBEKANNT, {q.name})};
  Cursor &cur = it->second;
  answer_tuples_begin(c.out, DBANS_TUPLES2, cur.cols);
  if (cur.done) return;
  int64_t limit = q.all ? 0 : (c.ch.max_rows > 0 ? c.ch.max_rows : 1);
  try {
    if (!cur.rows->append(c.out, cur.cols, limit, answer_limit(c.ch.ex))) cur.done = true;
  } catch (const ExecError &) {
    // The rows stepped over are gone: a cursor that went on would skip
    // them silently, so it is closed (a further FETCH gets error 502).
    c.st.cursors.erase(it);
    throw;
  } catch (const Interrupted &) {
    // A stopped statement would start again from its first row.
    c.st.cursors.erase(it);
    throw;
  }
}

void do_create_table(Ctx &c, const Request &q) {
  if (c.st.schema.tables.count(q.name))
    throw ExecError{answer_errtext(Err::TABELLE_EXISTIERT, {q.name})};
  if (c.st.schema.indexes.count(q.name))
    throw ExecError{answer_errtext(Err::NAME_VERGEBEN, {q.name})};
  if (q.name.rfind("SQLITE_", 0) == 0)
    throw ExecError{answer_errtext(Err::NAME_UNGUELTIG, {q.name})};
  std::vector<ColumnInfo> cols;
  for (size_t i = 0; i < q.columns.size(); ++i) {
    for (size_t j = 0; j < i; ++j)
      if (q.columns[j].name == q.columns[i].name)
        throw ExecError{answer_errtext(Err::ATTRIBUT_DOPPELT, {q.columns[i].name})};
    cols.push_back({q.columns[i].name, q.columns[i].type, q.columns[i].not_null});
  }
  if (c.ch.ex.verbose) log_line(c.ch, "CREATE TABLE " + q.name);
  as_change(c, [&] { c.st.conn->create_table(q.name, cols); });
  answer_done(c.out);
}

void do_drop_table(Ctx &c, const Request &q) {
  const TableInfo &t = changeable_table(c, q.name);
  std::string sql = "DROP TABLE " + sql_quote(t.name);
  if (c.ch.ex.verbose) log_line(c.ch, sql);
  as_change(c, [&] { c.st.conn->exec(sql); });
  answer_done(c.out);
}

void do_create_index(Ctx &c, const Request &q) {
  if (q.name.rfind("SQLITE_", 0) == 0)
    throw ExecError{answer_errtext(Err::NAME_UNGUELTIG, {q.name})};
  if (c.st.schema.tables.count(q.name) || c.st.schema.indexes.count(q.name))
    throw ExecError{answer_errtext(Err::NAME_VERGEBEN, {q.name})};
  const TableInfo &t = find_table(c.st, q.table);
  std::string cols;
  std::vector<const ColumnInfo *> seen;
  for (const auto &a : q.attrs) {
    const ColumnInfo *col = find_column(t, a);
    if (!col) throw ExecError{answer_errtext(Err::ATTRIBUT_UNBEKANNT, {a})};
    if (std::find(seen.begin(), seen.end(), col) != seen.end())
      throw ExecError{answer_errtext(Err::ATTRIBUT_DOPPELT, {a})};
    seen.push_back(col);
    cols += (cols.empty() ? "" : ", ") + sql_quote(col->name);
  }
  std::string sql = std::string("CREATE ") + (q.unique ? "UNIQUE " : "") + "INDEX " +
                    sql_quote(q.name) + " ON " + sql_quote(t.name) + " (" + cols + ")";
  if (c.ch.ex.verbose) log_line(c.ch, sql);
  std::string table = t.name;
  as_change(c, [&] {
    c.st.conn->exec(sql, answer_errtext(Err::INDEX_DOPPELTE_WERTE, {q.name, table}));
  });
  answer_done(c.out);
}

void do_drop_index(Ctx &c, const Request &q) {
  auto it = c.st.schema.indexes.find(q.name);
  if (it == c.st.schema.indexes.end())
    throw ExecError{answer_errtext(Err::INDEX_UNBEKANNT, {q.name})};
  std::string sql = "DROP INDEX " + sql_quote(it->second.name);
  if (c.ch.ex.verbose) log_line(c.ch, sql);
  as_change(c, [&] { c.st.conn->exec(sql); });
  answer_done(c.out);
}

void do_set_static(Ctx &c, const Request &q, bool make_static) {
  const TableInfo &t = find_table(c.st, q.name);
  if (make_static != t.is_static) {
    std::string name = t.name;
    if (c.ch.ex.verbose)
      log_line(c.ch, std::string("SET TABLE ") + name + (make_static ? " STATIC" : " SECURE"));
    as_change(c, [&] { c.st.conn->set_static(name, make_static); });
  }
  answer_done(c.out);
}

// SHOW: answers built from the catalog and the schema.
void do_show(Ctx &c, const Request &q) {
  auto text = [](int n) { return type_make(DBTYPE_CHARACTER, n); };
  auto yes_no = [](bool b) { return std::string(b ? "JA" : "NEIN"); };
  if (q.show == Request::Databases) {
    answer_tuples_begin(c.out, DBANS_TUPLES, {{"DATABASE", text(20)}});
    for (const auto &n : c.ch.ex.store->list()) {
      answer_value_text(c.out, n);
      answer_row(c.out);
    }
    return;
  }
  need_db(c);
  switch (q.show) {
  case Request::Tables:
    answer_tuples_begin(c.out, DBANS_TUPLES,
                        {{"TABLE_NAME", text(32)},
                         {"ATTRIBUTES", type_make(DBTYPE_SMALLINT, 0)},
                         {"MODE", text(7)}});
    for (const auto &[k, t] : c.st.schema.tables) {
      answer_value_text(c.out, t.name);
      answer_value_smallint(c.out, static_cast<int16_t>(t.cols.size()));
      answer_value_text(c.out, t.is_static ? "STATIC" : "SECURE");
      answer_row(c.out);
    }
    break;
  case Request::Table: {
    const TableInfo &t = find_table(c.st, q.table);
    answer_tuples_begin(c.out, DBANS_TUPLES,
                        {{"ATTRIBUTE", text(32)},
                         {"TYPE", text(10)},
                         {"SIZE", type_make(DBTYPE_INTEGER, 0)},
                         {"NOT_NULL", text(5)}});
    for (const auto &col : t.cols) {
      answer_value_text(c.out, col.name);
      answer_value_text(c.out, type_name(col.type.code));
      answer_value_integer(c.out, col.type.size);
      answer_value_text(c.out, yes_no(col.not_null));
      answer_row(c.out);
    }
    break;
  }
  case Request::Indices:
  case Request::IndicesOnTable: {
    std::string table;
    if (q.show == Request::IndicesOnTable) table = sql_upper(find_table(c.st, q.table).name);
    answer_tuples_begin(c.out, DBANS_TUPLES,
                        {{"INDEX_NAME", text(32)},
                         {"TABLE_NAME", text(32)},
                         {"UNIQUE_INDEX", text(5)},
                         {"ATTRIBUTES", text(1024)}});
    for (const auto &[k, ix] : c.st.schema.indexes) {
      if (!table.empty() && sql_upper(ix.table) != table) continue;
      std::string cols;
      for (const auto &col : ix.cols) cols += (cols.empty() ? "" : ",") + col;
      answer_value_text(c.out, ix.name);
      answer_value_text(c.out, ix.table);
      answer_value_text(c.out, yes_no(ix.unique));
      answer_value_text(c.out, cols);
      answer_row(c.out);
    }
    break;
  }
  case Request::Index: {
    auto it = c.st.schema.indexes.find(q.name);
    if (it == c.st.schema.indexes.end()) throw ExecError{answer_errtext(Err::INDEX_UNBEKANNT, {q.name})};
    const IndexInfo &ix = it->second;
    answer_tuples_begin(c.out, DBANS_TUPLES,
                        {{"INDEX_NAME", text(32)},
                         {"TABLE_NAME", text(32)},
                         {"UNIQUE_INDEX", text(5)},
                         {"POSITION", type_make(DBTYPE_SMALLINT, 0)},
                         {"ATTRIBUTE", text(32)}});
    for (size_t i = 0; i < ix.cols.size(); ++i) {
      answer_value_text(c.out, ix.name);
      answer_value_text(c.out, ix.table);
      answer_value_text(c.out, yes_no(ix.unique));
      answer_value_smallint(c.out, static_cast<int16_t>(i + 1));
      answer_value_text(c.out, ix.cols[i]);
      answer_row(c.out);
    }
    break;
  }
  default:
    break;
  }
}

// The list of lock holders and waiters: one row per channel that holds the
// write lock of a database or waits for one, holders first.
void do_locks(Ctx &c) {
  auto text = [](int n) { return type_make(DBTYPE_CHARACTER, n); };
  answer_tuples_begin(c.out, DBANS_TUPLES,
                      {{"ZUSTAND", text(7)},
                       {"DATENBANK", text(20)},
                       {"KANAL", type_make(DBTYPE_INTEGER, 0)},
                       {"PROZESS", type_make(DBTYPE_INTEGER, 0)},
                       {"BENUTZER", text(33)},
                       {"SEIT", text(20)}});
  std::lock_guard<std::mutex> lock(c.ch.ex.sessions_mutex);
  for (bool holders : {true, false})
    for (const Session *s : c.ch.ex.sessions) {
      time_t since = holders ? s->st->lock_since.load() : s->st->wait_since.load();
      std::string database = session_database(*s);
      if (!since || database.empty()) continue;
      struct tm tm;
      localtime_r(&since, &tm);
      char stamp[32];
      strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
      answer_value_text(c.out, holders ? "HAELT" : "WARTET");
      answer_value_text(c.out, database);
      answer_value_integer(c.out, s->id);
      answer_value_integer(c.out, s->client_pid);
      answer_value_text(c.out, utf8_to_latin1(session_user(*s)).substr(0, 32));
      answer_value_text(c.out, stamp);
      answer_row(c.out);
    }
}

// One channel less has database name open.
void release_user(Catalog &cat, const std::string &name) {
  std::lock_guard<std::mutex> lock(cat.users_mutex);
  auto it = cat.users.find(name);
  if (it != cat.users.end() && --it->second <= 0) cat.users.erase(it);
}

// Closes the channel's database: rolls back an open transaction (or commits
// it when commit is set; a commit that fails throws and leaves the database
// open), ends the cursors.
void close_database(Session &ch, bool commit) {
  SessionState &st = *ch.st;
  if (!st.conn) return;
  if (store_txn(st)) {
    if (commit)
      st.conn->commit();
    else
      st.conn->rollback();
  }
  end_block(st);
  st.write_first = false;
  st.cursors.clear();
  st.shapes.clear();
  st.schema = StoreSchema();
  st.schema_version = -1;
  st.lock_since = 0;
  st.txn_seen = STORE_TXN_NONE;
  st.changed_seen = false;
  st.conn.reset();
  release_user(ch.ex.catalog, ch.database);
  std::lock_guard<std::mutex> lock(ch.database_mutex);
  ch.database.clear();
}

// How often the progress handler asks whether the client process lives.
constexpr std::chrono::milliseconds CLIENT_CHECK{100};

// The check function of a channel's connection, called by the store while a
// statement runs: non-zero stops the running statement; the reason is left
// in the state.
int progress(void *arg) {
  Session &ch = *static_cast<Session *>(arg);
  SessionState &st = *ch.st;
  if (!st.armed || st.stop != SessionState::Stop::None) return 0;
  if (ch.ex.stopping.load(std::memory_order_relaxed)) {
    st.stop = SessionState::Stop::Server;
    return 1;
  }
  if (st.abandoned.load(std::memory_order_relaxed)) {
    st.stop = SessionState::Stop::Client;
    return 1;
  }
  if (st.cancel.load(std::memory_order_relaxed)) {
    st.stop = SessionState::Stop::Cancel;
    return 1;
  }
  auto now = std::chrono::steady_clock::now();
  if (st.overrun && now >= st.overrun_at) {
    const std::function<void()> *f = st.overrun;
    st.overrun = nullptr;
    (*f)();
  }
  if (st.timed && now >= st.deadline) {
    st.stop = SessionState::Stop::Timeout;
    return 1;
  }
  if (ch.client_pid > 0 && now >= st.next_client_check) {
    st.next_client_check = now + CLIENT_CHECK;
    // EPERM: the process lives under another user.
    if (kill(ch.client_pid, 0) != 0 && errno == ESRCH) {
      st.stop = SessionState::Stop::Client;
      return 1;
    }
  }
  return 0;
}

// How the channel's connection introduces itself to a store that shows it to
// others (PostgreSQL's application_name): "tavrind <host> <pid> ch<n> <user>".
std::string application_name(const Session &ch) {
  char host[256] = "";
  gethostname(host, sizeof host - 1);
  std::string user = session_user(ch);
  return std::string("tavrind ") + host + " " + std::to_string(getpid()) + " ch" +
         std::to_string(ch.id) + (user.empty() ? "" : " " + user);
}

// Makes name the channel's database. An open transaction of the previous
// database is committed first. With create the database is made new.
void switch_database(Session &ch, const std::string &name, bool create) {
  Catalog &cat = ch.ex.catalog;
  if (!catalog_valid_name(name)) throw ExecError{answer_errtext(Err::NAME_UNGUELTIG, {name})};
  Store &store = *ch.ex.store;
  std::unique_ptr<StoreConn> conn;
  {
    // Counted as used from its opening on, so that no other channel drops it
    // in between.
    std::lock_guard<std::mutex> lock(cat.users_mutex);
    bool exists = store.exists(name);
    if (create && exists) throw ExecError{answer_errtext(Err::DATENBANK_EXISTIERT, {name})};
    if (!create && !exists) throw ExecError{answer_errtext(Err::DATENBANK_UNBEKANNT, {name})};
    std::string err;
    conn = store.open(name, create, progress, &ch, application_name(ch), err);
    if (!conn) throw ExecError{answer_errtext(Err::DATENBANK_FEHLER, {name, utf8_to_latin1(err)})};
    ++cat.users[name];
  }
  try {
    close_database(ch, true);
  } catch (...) {
    release_user(cat, name);
    throw;
  }
  ch.st->conn = std::move(conn);
  std::lock_guard<std::mutex> lock(ch.database_mutex);
  ch.database = name;
}

void do_drop_database(Ctx &c, const Request &q) {
  Catalog &cat = c.ch.ex.catalog;
  std::string name = q.has_name ? q.name : c.ch.database;
  if (name.empty()) throw ExecError{answer_errtext(Err::KEINE_DATENBANK, {})};
  if (!catalog_valid_name(name) || !c.ch.ex.store->exists(name))
    throw ExecError{answer_errtext(Err::DATENBANK_UNBEKANNT, {name})};
  if (name == CATALOG_SYSTEM_DB) throw ExecError{answer_errtext(Err::SYSTEMDATENBANK, {name})};
  auto others = [&] {
    int n = cat.users.count(name) ? cat.users[name] : 0;
    return name == c.ch.database ? n - 1 : n;
  };
  {
    std::lock_guard<std::mutex> lock(cat.users_mutex);
    if (int n = others(); n > 0)
      throw ExecError{answer_errtext(Err::DATENBANK_BENUTZT, {name, std::to_string(n)})};
  }
  if (name == c.ch.database) close_database(c.ch, false);
  // Asked again: another channel may have opened it meanwhile.
  std::lock_guard<std::mutex> lock(cat.users_mutex);
  if (int n = others(); n > 0)
    throw ExecError{answer_errtext(Err::DATENBANK_BENUTZT, {name, std::to_string(n)})};
  std::string err;
  if (!c.ch.ex.store->drop(name, err))
    throw ExecError{answer_errtext(Err::DATENBANK_FEHLER, {name, utf8_to_latin1(err)})};
  answer_done(c.out);
}

// Requests that the client sends without reading an answer.
bool one_way(ReqKind k) {
  return k == ReqKind::Close || k == ReqKind::Notice || k == ReqKind::Message;
}

// The answer to a request that failed with text: an error answer, or none
// for a one-way request.
int refused(const Request &q, std::vector<unsigned char> &answer, const std::string &text) {
  if (one_way(q.kind)) {
    answer.clear();
    return EXEC_NO_ANSWER;
  }
  answer_error(answer, text);
  return EXEC_ANSWER;
}

const char *kind_name(ReqKind k) {
  switch (k) {
  case ReqKind::Open:
    return "OPEN";
  case ReqKind::Close:
    return "CLOSE DATABASE";
  case ReqKind::Create:
    return "CREATE DATABASE";
  case ReqKind::Drop:
    return "DROP DATABASE";
  case ReqKind::Message:
    return "MESSAGE";
  case ReqKind::Notice:
    return "NOTICE";
  case ReqKind::Begin:
    return "BEGIN";
  case ReqKind::Commit:
    return "COMMIT";
  case ReqKind::Abort:
    return "ABORT";
  case ReqKind::Fetch:
    return "FETCH";
  case ReqKind::CloseCursor:
    return "CLOSE";
  case ReqKind::SetStatic:
    return "SET TABLE STATIC";
  case ReqKind::SetSecure:
    return "SET TABLE SECURE";
  case ReqKind::Save:
    return "SAVE DATABASE";
  case ReqKind::Show:
    return "SHOW";
  case ReqKind::Max:
    return "MAX";
  case ReqKind::Stop:
    return "STOP";
  case ReqKind::SetDatabase:
    return "SET DATABASE";
  default:
    return "";
  }
}

int execute(Ctx &c, const Request &q) {
  Session &ch = c.ch;
  SessionState &st = c.st;
  if (ch.ex.verbose && kind_name(q.kind)[0])
    log_line(ch, std::string(kind_name(q.kind)) + (q.name.empty() ? "" : " " + q.name));
  switch (q.kind) {
  case ReqKind::Open:
  case ReqKind::SetDatabase:
    switch_database(ch, q.name, false);
    answer_done(c.out);
    return EXEC_ANSWER;
  case ReqKind::Create:
    switch_database(ch, q.name, true);
    answer_done(c.out);
    return EXEC_ANSWER;
  case ReqKind::Close:
    close_database(ch, false);
    return EXEC_NO_ANSWER;
  case ReqKind::Notice:
    return EXEC_NO_ANSWER;
  case ReqKind::Message:
    // One-way, like the close request and the notice: the client reads no
    // answer, and one sent anyway would stand in the way of its next one.
    if (ch.ex.log) log_line(ch, "message: " + q.text);
    return EXEC_NO_ANSWER;
  case ReqKind::Drop:
    do_drop_database(c, q);
    return EXEC_ANSWER;
  case ReqKind::Show:
    do_show(c, q);
    return EXEC_ANSWER;
  case ReqKind::Max:
    ch.max_rows = q.max_none ? 0 : q.max;
    answer_done(c.out);
    return EXEC_ANSWER;
  case ReqKind::Stop:
    ch.ex.stop_requested.store(true);
    answer_done(c.out);
    return EXEC_ANSWER;
  case ReqKind::Locks:
    do_locks(c);
    return EXEC_ANSWER;
  default:
    break;
  }
  if (!st.conn) throw ExecError{answer_errtext(Err::KEINE_DATENBANK, {})};
  if (st.conn->lost()) {
    // The store's server went away under the previous request (which was
    // told so): this request runs on a new connection.
    // The lost connection stays until a new one is open, so that a request
    // while the store is still away fails alike and the next tries again.
    std::string name = ch.database;
    switch_database(ch, name, false);
  }
  bool writes = q.kind == ReqKind::CreateTable || q.kind == ReqKind::DropTable ||
                q.kind == ReqKind::CreateIndex || q.kind == ReqKind::DropIndex ||
                q.kind == ReqKind::Insert || q.kind == ReqKind::Update ||
                q.kind == ReqKind::Delete || q.kind == ReqKind::SetStatic ||
                q.kind == ReqKind::SetSecure;
  bool reads = q.kind == ReqKind::Select || q.kind == ReqKind::Declare;
  if (st.pending_begin && q.kind != ReqKind::Begin && q.kind != ReqKind::Commit &&
      q.kind != ReqKind::Abort) {
    // A blocked BEGIN IMMEDIATE leaves the transaction pending: the request
    // is retried as it was.
    st.conn->begin(writes || st.write_first);
    st.pending_begin = false;
  }
  if (ch.in_transaction()) {
    if (reads && !st.block_write_tried) st.block_read_first = true;
    if (writes) st.block_write_tried = true;
  }
  // A query checks the schema itself, in the snapshot it reads.
  if (q.kind != ReqKind::Select || st.schema_version < 0) need_db(c);
  switch (q.kind) {
  case ReqKind::CreateTable:
    do_create_table(c, q);
    break;
  case ReqKind::DropTable:
    do_drop_table(c, q);
    break;
  case ReqKind::CreateIndex:
    do_create_index(c, q);
    break;
  case ReqKind::DropIndex:
    do_drop_index(c, q);
    break;
  case ReqKind::Select:
    do_select(c, q);
    break;
  case ReqKind::Insert:
    do_insert(c, q);
    break;
  case ReqKind::Update:
    do_update(c, q);
    break;
  case ReqKind::Delete:
    do_delete(c, q);
    break;
  case ReqKind::Begin:
    if (ch.in_transaction()) throw ExecError{answer_errtext(Err::TRANSAKTION_OFFEN, {})};
    st.pending_begin = true;
    answer_done(c.out);
    break;
  case ReqKind::Commit:
    // A commit that fails leaves the block open, as it was.
    if (store_txn(st)) st.conn->commit();
    end_block(st);
    answer_done(c.out);
    break;
  case ReqKind::Abort:
    end_block(st);
    if (store_txn(st)) st.conn->rollback();
    st.schema_version = -1;
    answer_done(c.out);
    break;
  case ReqKind::Declare:
    do_declare(c, q);
    break;
  case ReqKind::Fetch:
    do_fetch(c, q);
    break;
  case ReqKind::CloseCursor:
    if (!st.cursors.erase(q.name)) throw ExecError{answer_errtext(Err::CURSOR_UNBEKANNT, {q.name})};
    answer_done(c.out);
    break;
  case ReqKind::SetStatic:
    do_set_static(c, q, true);
    break;
  case ReqKind::SetSecure:
    do_set_static(c, q, false);
    break;
  case ReqKind::Save: {
    std::string path, err;
    if (!catalog_backup_path(ch.ex.catalog, ch.database, path, err) ||
        !st.conn->save(path, err))
      throw ExecError{answer_errtext(Err::SICHERUNG_FEHLER, {ch.database, utf8_to_latin1(err)})};
    if (ch.ex.log) log_line(ch, "saved to " + path);
    answer_done(c.out);
    break;
  }
  default:
    break;
  }
  return EXEC_ANSWER;
}

} // namespace

Session::~Session() {
  close_database(*this, false);
  std::lock_guard<std::mutex> lock(ex.sessions_mutex);
  ex.sessions.erase(std::remove(ex.sessions.begin(), ex.sessions.end(), this), ex.sessions.end());
}

int exec_request(Session &ch, const unsigned char *req, size_t len,
                 std::vector<unsigned char> &answer, std::chrono::microseconds budget,
                 const std::function<void()> *overrun) {
  Request q;
  std::string err;
  if (!request_decode(req, len, q, err)) {
    if (ch.ex.log) log_line(ch, "error: " + err);
    if (len > 0 && req[0] == DBREQ_MESSAGE) {
      answer.clear();
      return EXEC_NO_ANSWER; // a broken message-text request is one-way too
    }
    answer_error(answer, err);
    return EXEC_ANSWER;
  }
  Ctx c{ch, *ch.st, answer};
  SessionState &st = *ch.st;
  // Arms the progress handler for this request and, when it ends, notes
  // whether the channel's transaction holds the write lock now.
  struct Arm {
    Session &ch;
    Arm(Session &c, std::chrono::microseconds budget, const std::function<void()> *overrun)
        : ch(c) {
      SessionState &s = *ch.st;
      s.armed = true;
      s.stop = SessionState::Stop::None;
      s.timed = ch.ex.statement_timeout.count() > 0;
      auto now = std::chrono::steady_clock::now();
      if (s.timed) s.deadline = now + ch.ex.statement_timeout;
      s.next_client_check = now + CLIENT_CHECK;
      s.overrun = overrun && *overrun && budget.count() > 0 ? overrun : nullptr;
      s.overrun_at = now + budget;
    }
    ~Arm() {
      SessionState &s = *ch.st;
      s.armed = false;
      s.overrun = nullptr;
      if (!blocked)
        s.wait_since = 0;
      else if (blocked && s.wait_since == 0)
        s.wait_since = time(nullptr);
      int txn = s.conn ? s.conn->txn_state() : STORE_TXN_NONE;
      if (txn != STORE_TXN_WRITE)
        s.lock_since = 0;
      else if (s.lock_since == 0)
        s.lock_since = time(nullptr);
      s.txn_seen = txn;
      s.changed_seen = s.block_changed;
    }
    void disarm() { ch.st->armed = false; }
    bool blocked = false;
  } arm(ch, budget, overrun);
  bool block = ch.in_transaction();
  bool was_pending = st.pending_begin;
  try {
    return execute(c, q);
  } catch (const Interrupted &) {
    arm.disarm();
    // A stopped change inside BEGIN ... COMMIT may have taken the whole
    // transaction with it (SQLite rolls it back): the client is told.
    bool lost = block && !ch.in_transaction();
    if (lost) {
      end_block(st);
      // The rolled-back transaction's schema changes are gone, and with
      // them the versions they counted up to.
      st.schema_version = -1;
    }
    std::string what = lost ? "die offene Transaktion ist zurückgesetzt"
                            : "nichts davon ist ausgeführt";
    std::string text;
    switch (st.stop) {
    case SessionState::Stop::Timeout: {
      char secs[32];
      snprintf(secs, sizeof secs, "%g", double(ch.ex.statement_timeout.count()) / 1000.0);
      text = answer_errtext(Err::ANWEISUNG_ZEITABLAUF, {secs, what});
      break;
    }
    case SessionState::Stop::Server:
      text = answer_errtext(Err::SERVER_ENDET, {what});
      break;
    case SessionState::Stop::Cancel:
      text = answer_errtext(Err::ABGEBROCHEN, {what});
      break;
    default:
      text = answer_errtext(Err::KLIENT_ENDET, {std::to_string(ch.client_pid), what});
      break;
    }
    // A channel closed under its statement was logged when it was closed.
    bool logged = st.stop == SessionState::Stop::Client && st.abandoned.load();
    if (ch.ex.log && !logged) log_line(ch, "error: " + text);
    // Nobody reads the answer of a client that has ended; sent anyway, it
    // could overwrite a chunk another client has put into the exchange
    // meanwhile.
    if (st.stop == SessionState::Stop::Client) {
      answer.clear();
      return EXEC_NO_ANSWER;
    }
    return refused(q, answer, text);
  } catch (const ExecError &e) {
    if (ch.ex.log) log_line(ch, "error: " + e.text);
    return refused(q, answer, e.text);
  } catch (const WouldBlock &) {
    // A store that opens a transaction together with its first statement
    // ends it again when that statement waits: the block's BEGIN is pending
    // once more, and the request is retried as it was.
    if (was_pending && !store_txn(st)) st.pending_begin = true;
    arm.blocked = true;
    answer.clear();
    if (ch.ex.verbose) log_line(ch, "waits for a lock");
    return EXEC_WOULD_BLOCK;
  } catch (const std::exception &e) {
    // Out of memory and the like: the request fails, the server goes on.
    std::string text = answer_errtext(Err::SPEICHERFEHLER, {e.what()});
    if (ch.ex.log) log_line(ch, "error: " + text);
    return refused(q, answer, text);
  }
}

bool holds_write_lock(const Session &ch) {
  return ch.st && ch.st->txn_seen.load() == STORE_TXN_WRITE;
}

void session_cancel(Session &ch) { ch.st->cancel.store(true); }
void session_cancel_clear(Session &ch) { ch.st->cancel.store(false); }
bool session_cancel_requested(const Session &ch) { return ch.st->cancel.load(); }
void session_abandon(Session &ch) { ch.st->abandoned.store(true); }

std::string session_database(const Session &ch) {
  std::lock_guard<std::mutex> lock(ch.database_mutex);
  return ch.database;
}

std::string session_user(const Session &ch) {
  if (ch.client_pid <= 0) return "";
  struct stat sb;
  std::string proc = "/proc/" + std::to_string(ch.client_pid);
  if (stat(proc.c_str(), &sb) != 0) return "";
  struct passwd pw, *found = nullptr;
  char buf[1024];
  if (getpwuid_r(sb.st_uid, &pw, buf, sizeof buf, &found) == 0 && found) return found->pw_name;
  return std::to_string(sb.st_uid);
}

time_t session_lock_since(const Session &ch) { return ch.st ? ch.st->lock_since.load() : 0; }

void session_wait_ended(Session &ch) { ch.st->wait_since = 0; }

std::string session_foreign_lock_holder(Session &ch) {
  return ch.st->conn ? ch.st->conn->foreign_lock_holder() : std::string();
}

std::string lock_holder_text(const Session &holder) {
  std::string t = "Kanal " + std::to_string(holder.id);
  std::string user = session_user(holder);
  if (holder.client_pid > 0)
    t += " (Prozess " + std::to_string(holder.client_pid) +
         (user.empty() ? "" : ", Benutzer " + utf8_to_latin1(user)) + ")";
  time_t since = session_lock_since(holder);
  if (since) {
    struct tm tm;
    localtime_r(&since, &tm);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%H:%M:%S", &tm);
    t += std::string(" seit ") + stamp;
  }
  return t;
}

bool waits_in_vain(const Session &waiter, const Session &holder) {
  return waiter.st && waiter.st->txn_seen.load() == STORE_TXN_READ && holder.st &&
         holder.st->changed_seen.load();
}

} // namespace tavrind
