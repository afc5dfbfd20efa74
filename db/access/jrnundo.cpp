// Recording changes into the repair journal and taking them back (see
// jrnundo.h).
#include "db/access/jrnundo.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <map>
#include <set>

#include "db/access/session.h"
#include "db/client/exec.h"

namespace {

std::string trimmed(const char *text) {
  std::string t = text ? text : "";
  while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
  return t;
}

// Runs one statement inside the open level. True with the result (the
// caller clears it) when the server answered with `want`; false with the
// server's or parser's text in *why.
bool run(DBSESSION *s, const std::string &stmt, int want, DBRESULT **r, std::string *why) {
  *r = nullptr;
  int outcome = 0;
  if (dbexec1(s, stmt.c_str(), r, &outcome) && outcome == want) return true;
  *why = *r ? trimmed(DBresult_error(*r)) : std::string();
  if (why->empty() && s && s->connection) *why = trimmed(DBerrormessage(s->connection));
  if (why->empty()) *why = stmt;
  dbclear(s, *r);
  *r = nullptr;
  return false;
}

// A cell as the journal keeps it: the text users see, null for the null
// marker of a number, date or timestamp. A FLOAT is kept as the shortest text
// that reads back as the same double: the shown text has at most 14 decimals,
// so an undo written from it would change the value's last bits (or turn a
// tiny value into 0).
JrnValue cell(DBSESSION *s, DBRESULT *r, int row, int col) {
  std::string shown = dbgetshown(s, r, row, col);
  int type = dbfieldtype(s, r, col);
  if (shown.empty() && type != DBFT_CHARACTER && type != DBFT_BINARY) return std::nullopt;
  double v = 0;
  if (type == DBFT_FLOAT && r && DBfillbinary(r, &v, row, col) && std::isfinite(v)) {
    char buf[32];
    auto res = std::to_chars(buf, buf + sizeof buf, v);
    if (res.ec == std::errc()) return std::string(buf, res.ptr);
  }
  return shown;
}

std::string shown(const JrnValue &v) { return v ? *v : std::string(); }

bool is_number(const std::string &t) {
  size_t i = 0, digits = 0;
  if (i < t.size() && (t[i] == '-' || t[i] == '+')) ++i;
  for (; i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])); ++i) ++digits;
  if (i < t.size() && t[i] == '.')
    for (++i; i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])); ++i) ++digits;
  if (digits && i < t.size() && (t[i] == 'e' || t[i] == 'E')) {
    size_t e = ++i;
    if (i < t.size() && (t[i] == '-' || t[i] == '+')) ++i;
    size_t d = i;
    for (; i < t.size() && std::isdigit(static_cast<unsigned char>(t[i])); ++i) {
    }
    if (i == d || e == i) return false;
  }
  return digits && i == t.size();
}

std::string column_list(const JrnEntry &e) {
  std::string out;
  for (size_t i = 0; i < e.columns.size(); ++i) out += (i ? ", " : "") + e.columns[i];
  return out;
}

// The rows' key values; false when a key is empty or found twice.
bool keys_of(const std::vector<JrnRow> &rows, int k, std::vector<JrnValue> *keys) {
  std::set<std::string> seen;
  for (const JrnRow &r : rows) {
    const JrnValue &v = r[static_cast<size_t>(k)];
    if (!v || v->empty() || !seen.insert(*v).second) return false;
    keys->push_back(v);
  }
  return true;
}

// Takes back what the open outermost level did and closes it.
void abort_level(DBSESSION *s) {
  dbrollback(s);
  dbend(s);
}

// Ends the outermost level; when END fails, an ABORT makes sure the server
// holds no transaction of it. True when END was done.
bool end_level(DBSESSION *s) {
  if (dbend(s)) return true;
  if (dbstatus(s)) DBclear(DBexec(s->connection, "ABORT"));
  return false;
}

// Compares the rows of e's table, found by the keys of `rows`, with `rows`
// (`present`), or makes sure no row has those keys (not `present`), inside
// the open level. True with what differs in *problems; false when a
// statement failed (*why).
bool compare_rows(DBSESSION *s, const JrnEntry &e, const std::vector<JrnRow> &rows, bool present,
                  std::vector<JrnProblem> *problems, std::string *why) {
  problems->clear();
  size_t key = static_cast<size_t>(jrn_key_index(e));
  for (const JrnRow &row : rows) {
    std::vector<JrnRow> now;
    int got = jrn_read_keys(s, e, {row[key]}, &now, why);
    if (got == JRN_READ_FAILED) return false;
    JrnProblem p;
    p.key = shown(row[key]);
    if (got == JRN_READ_TOO_MANY) {
      p.what = JrnProblem::DOUBLED;
      problems->push_back(p);
    } else if (!present) {
      if (got == JRN_READ_OK) {
        p.what = JrnProblem::KEY_TAKEN;
        problems->push_back(p);
      }
    } else if (got != JRN_READ_OK) {
      p.what = JrnProblem::GONE;
      problems->push_back(p);
    } else {
      for (size_t c = 0; c < e.columns.size(); ++c)
        if (shown(now[0][c]) != shown(row[c])) {
          p.column = e.columns[c];
          p.left = row[c];
          p.now = now[0][c];
          problems->push_back(p);
        }
    }
  }
  return true;
}

} // namespace

int jrn_key_index(const JrnEntry &e) {
  for (size_t i = 0; i < e.columns.size(); ++i) {
    std::string up = e.columns[i];
    for (char &c : up) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    if (up == e.key) return static_cast<int>(i);
  }
  return -1;
}

std::string jrn_literal(int type, const JrnValue &value) {
  std::string v = shown(value);
  bool numeric = type == DBFT_SMALLINT || type == DBFT_INTEGER || type == DBFT_FLOAT;
  if (numeric && is_number(v)) return v;
  std::string out = "'";
  for (char c : v) {
    if (c == '\'' || c == '\\') out += c;
    out += c;
  }
  return out + "'";
}

int jrn_read_rows(DBSESSION *s, const std::string &table, const std::string &where, long max_rows,
                  JrnEntry *e, std::vector<JrnRow> *rows, std::string *why) {
  rows->clear();
  e->table = table;
  for (char &c : e->table) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  e->key = e->table + "_ID";
  DBRESULT *r = nullptr;
  if (!run(s, "MAX;", DBOUT_DONE, &r, why)) return JRN_READ_FAILED;
  dbclear(s, r);
  std::string stmt = "SELECT * FROM " + table + (where.empty() ? "" : " " + where) + ";";
  if (!run(s, stmt, DBOUT_TUPLES, &r, why)) return JRN_READ_FAILED;
  int n = dbntuples(s, r), cols = dbnfields(s, r);
  e->columns.clear();
  e->types.clear();
  for (int c = 0; c < cols; ++c) {
    const char *name = dbfieldname(s, r, c);
    e->columns.emplace_back(name ? name : "");
    e->types.push_back(dbfieldtype(s, r, c));
  }
  int result = JRN_READ_OK;
  if (n > max_rows) {
    result = JRN_READ_TOO_MANY;
  } else {
    for (int i = 0; i < n; ++i) {
      JrnRow row;
      for (int c = 0; c < cols; ++c) row.push_back(cell(s, r, i, c));
      rows->push_back(std::move(row));
    }
    std::vector<JrnValue> keys;
    int k = jrn_key_index(*e);
    if (k < 0 || !keys_of(*rows, k, &keys)) result = JRN_READ_NO_KEY;
  }
  dbclear(s, r);
  return result;
}

int jrn_read_keys(DBSESSION *s, const JrnEntry &e, const std::vector<JrnValue> &keys,
                  std::vector<JrnRow> *rows, std::string *why) {
  rows->clear();
  int k = jrn_key_index(e);
  if (k < 0) return JRN_READ_NO_KEY;
  int ktype = e.types[static_cast<size_t>(k)];
  std::map<std::string, JrnRow> found;
  // The keys go in IN lists short enough for one statement.
  for (size_t at = 0; at < keys.size();) {
    std::string stmt =
        "SELECT " + column_list(e) + " FROM " + e.table + " WHERE " + e.key + " IN (";
    size_t first = at;
    for (; at < keys.size() && (at == first || stmt.size() < DB_STATEMENT_SIZE / 2); ++at)
      stmt += (at == first ? "" : ", ") + jrn_literal(ktype, keys[at]);
    stmt += ");";
    DBRESULT *r = nullptr;
    if (!run(s, stmt, DBOUT_TUPLES, &r, why)) return JRN_READ_FAILED;
    bool ok = dbnfields(s, r) == static_cast<int>(e.columns.size()), doubled = false;
    for (int i = 0; ok && i < dbntuples(s, r); ++i) {
      JrnRow row;
      for (size_t c = 0; c < e.columns.size(); ++c)
        row.push_back(cell(s, r, i, static_cast<int>(c)));
      std::string key = shown(row[static_cast<size_t>(k)]);
      doubled = !found.emplace(key, std::move(row)).second;
      ok = !doubled;
    }
    dbclear(s, r);
    if (!ok) return doubled ? JRN_READ_TOO_MANY : JRN_READ_NO_KEY;
  }
  for (const JrnValue &key : keys) {
    auto it = found.find(shown(key));
    if (it == found.end()) return JRN_READ_NO_KEY;
    rows->push_back(it->second);
  }
  return JRN_READ_OK;
}

int jrn_commit(DBSESSION *s, const std::string &path, JrnEntry *e, std::string *why) {
  if (!jrn_append(path, e, why)) {
    abort_level(s);
    return JRN_COMMIT_NO_ENTRY;
  }
  bool ended = end_level(s);
  // A server that went away leaves the outcome open: the entry says
  // "unknown" and the data tells.
  if (!ended && s->lost) {
    *why = "the connection to the server was lost";
    return JRN_COMMIT_NOT_ENDED;
  }
  std::string mark_why;
  jrn_mark(path, e->token, ended ? JRN_COMMITTED : JRN_ABORTED, &mark_why);
  if (!ended) {
    *why = "END failed";
    return JRN_COMMIT_NOT_ENDED;
  }
  return JRN_COMMIT_OK;
}

std::vector<std::string> jrn_undo_statements(const JrnEntry &e) {
  std::vector<std::string> out;
  int k = jrn_key_index(e);
  if (k < 0) return out;
  size_t key = static_cast<size_t>(k);
  auto lit = [&](size_t c, const JrnValue &v) { return jrn_literal(e.types[c], v); };
  if (e.kind == JRN_UPDATE) {
    for (size_t i = 0; i < e.after.size(); ++i) {
      std::string set;
      for (size_t c = 0; c < e.columns.size(); ++c)
        if (shown(e.before[i][c]) != shown(e.after[i][c]))
          set += (set.empty() ? "" : ", ") + e.columns[c] + " = " + lit(c, e.before[i][c]);
      if (set.empty()) continue; // the change left this row as it was
      out.push_back("UPDATE " + e.table + " SET " + set + " WHERE " + e.key + " = " +
                    lit(key, e.after[i][key]) + ";");
    }
  } else if (e.kind == JRN_DELETE) {
    for (const JrnRow &row : e.before) {
      std::string values;
      for (size_t c = 0; c < e.columns.size(); ++c) values += (c ? ", " : "") + lit(c, row[c]);
      out.push_back("INSERT INTO " + e.table + " (" + column_list(e) + ") VALUES (" + values +
                    ");");
    }
  } else {
    for (const JrnRow &row : e.after)
      out.push_back("DELETE FROM " + e.table + " WHERE " + e.key + " = " + lit(key, row[key]) +
                    ";");
  }
  return out;
}

int jrn_undo(DBSESSION *s, const std::string &path, const JrnEntry &e,
             std::vector<JrnProblem> *problems, std::string *why, int *number) {
  problems->clear();
  *number = 0;
  int k = jrn_key_index(e);
  if (k < 0) {
    *why = "the entry has no key attribute " + e.key;
    return JRN_UNDO_FAILED;
  }
  size_t key = static_cast<size_t>(k);
  // The rows as the change left them.
  const std::vector<JrnRow> &left = e.kind == JRN_DELETE ? e.before : e.after;
  if (!dbbegin(s)) {
    dbend(s);
    *why = "BEGIN failed";
    return JRN_UNDO_FAILED;
  }
  DBRESULT *r = nullptr;
  if (!run(s, "MAX;", DBOUT_DONE, &r, why)) {
    abort_level(s);
    return JRN_UNDO_FAILED;
  }
  dbclear(s, r);
  // Each row must hold what the change left (a deleted row must still be
  // gone), read in this transaction, before anything is written.
  if (!compare_rows(s, e, left, e.kind != JRN_DELETE, problems, why)) {
    abort_level(s);
    return JRN_UNDO_FAILED;
  }
  if (!problems->empty()) {
    abort_level(s);
    return JRN_UNDO_CHANGED;
  }
  for (const std::string &stmt : jrn_undo_statements(e)) {
    if (!run(s, stmt, DBOUT_DONE, &r, why)) {
      abort_level(s);
      return JRN_UNDO_FAILED;
    }
    int changed = dbntuples(s, r);
    dbclear(s, r);
    if (changed != 1) {
      abort_level(s);
      *why = std::to_string(changed) + " rows changed by: " + stmt;
      return JRN_UNDO_FAILED;
    }
  }
  // The undo's own entry: the reverse change, with the rows as they are now.
  JrnEntry u;
  u.ns = e.ns;
  u.database = e.database;
  u.table = e.table;
  u.key = e.key;
  u.columns = e.columns;
  u.types = e.types;
  u.undoes = e.token;
  if (e.kind == JRN_INSERT) {
    u.kind = JRN_DELETE;
    u.before = e.after;
  } else {
    u.kind = e.kind == JRN_DELETE ? JRN_INSERT : JRN_UPDATE;
    if (e.kind == JRN_UPDATE) u.before = e.after;
    std::vector<JrnValue> now_keys;
    for (const JrnRow &row : e.before) now_keys.push_back(row[key]);
    if (jrn_read_keys(s, e, now_keys, &u.after, why) != JRN_READ_OK) {
      if (why->empty()) *why = "the rows could not be read again after the undo";
      abort_level(s);
      return JRN_UNDO_FAILED;
    }
  }
  int done = jrn_commit(s, path, &u, why);
  if (done == JRN_COMMIT_NO_ENTRY) return JRN_UNDO_FAILED;
  std::vector<JrnEntry> all;
  std::string ignored;
  if (jrn_read(path, &all, &ignored))
    for (const JrnEntry &x : all)
      if (x.token == u.token) *number = x.number;
  return done == JRN_COMMIT_OK ? JRN_UNDO_DONE : JRN_UNDO_NOT_ENDED;
}

int jrn_check(DBSESSION *s, const JrnEntry &e, std::string *why) {
  if (jrn_key_index(e) < 0) {
    *why = "the entry has no key attribute " + e.key;
    return JRN_CHECK_FAILED;
  }
  if (!dbbegin(s)) {
    dbend(s);
    *why = "BEGIN failed";
    return JRN_CHECK_FAILED;
  }
  DBRESULT *r = nullptr;
  std::vector<JrnProblem> after, before;
  bool ok = run(s, "MAX;", DBOUT_DONE, &r, why);
  dbclear(s, r);
  // The rows as the change left them, then as they were before it.
  ok = ok && compare_rows(s, e, e.kind == JRN_DELETE ? e.before : e.after, e.kind != JRN_DELETE,
                          &after, why);
  ok = ok && compare_rows(s, e, e.kind == JRN_INSERT ? e.after : e.before, e.kind != JRN_INSERT,
                          &before, why);
  end_level(s);
  if (!ok) return JRN_CHECK_FAILED;
  if (after.empty()) return JRN_CHECK_AFTER;
  return before.empty() ? JRN_CHECK_BEFORE : JRN_CHECK_NEITHER;
}
