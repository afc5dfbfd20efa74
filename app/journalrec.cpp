// How the viewer records its changes in the repair journal (see
// journalrec.h).
#include "app/journalrec.h"

#include <cctype>
#include <memory>
#include <vector>

#include "app/mainform.h"
#include "app/resultlimit.h"
#include "app/tokens.h"
#include "app/viewer.h"
#include "db/access/jrnundo.h"
#include "db/access/session.h"
#include "db/client/exec.h"
#include "db/client/tokenizer.h"
#include "db/ipc/named.h"
#include "forms/dialogs.h"
#include "framework/combo.h"

namespace {

std::string upper(std::string t) {
  for (char &c : t) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return t;
}

std::string trimmed(std::string t) {
  while (!t.empty() && std::isspace(static_cast<unsigned char>(t.back()))) t.pop_back();
  size_t i = 0;
  while (i < t.size() && std::isspace(static_cast<unsigned char>(t[i]))) ++i;
  return t.substr(i);
}

JrnEntry new_entry(JrnKind kind) {
  JrnEntry e;
  e.kind = kind;
  e.ns = ipc::namespace_name();
  e.database = zentiq_current_database();
  return e;
}

// Runs a statement of the user inside the open level. True with the number
// of rows it changed; false with the server's or parser's text in *why.
bool run_change(DBSESSION *session, const std::string &stmt, long *changed, std::string *why) {
  DBRESULT *result = nullptr;
  int outcome = 0;
  bool ran = dbexec1(session, stmt.c_str(), &result, &outcome) && outcome == DBOUT_DONE;
  *changed = ran ? dbntuples(session, result) : -1;
  if (!ran) {
    *why = result ? DBresult_error(result) : "";
    if (why->empty() && session && session->connection) *why = DBerrormessage(session->connection);
    *why = trimmed(*why);
  }
  dbclear(session, result);
  return ran;
}

// The box of a failed statement, unless the server was lost: that box has
// been shown and stands for the statement too.
void tell_failed(DBSESSION *session, const std::string &why) {
  if (zentiq_loss_told(session)) return;
  fl_show_error("Abfrage konnte nicht erfolgreich durchgeführt werden", why.c_str(), "");
}

// The box of a change whose END failed, unless the server was lost (its box
// says that the transaction is lost).
void tell_not_ended(DBSESSION *session) {
  if (zentiq_loss_told(session)) return;
  fl_show_error("Funktion 'dbend' lieferte Fehler",
                "Die Änderungen des Befehls wurden nicht gespeichert", "");
}

// The box of a change that was rolled back: the statement failed (why), or it
// changed `changed` rows of `table` where `rows` were counted.
void tell_not_done(DBSESSION *session, bool ran, const std::string &why, long changed, long rows,
                   const std::string &table) {
  if (!ran) {
    tell_failed(session, why);
    return;
  }
  std::string text = std::to_string(changed) + " statt " + std::to_string(rows) + " Zeilen in " +
                     table + " betroffen";
  fl_show_error("Änderung wurde zurückgenommen!", text.c_str(), "");
}

// The change without a journal entry, as the viewer runs it when the user
// agreed: committed only when the server changed exactly `rows` rows.
int run_unrecorded(DBSESSION *session, const std::string &stmt, const std::string &table,
                   long rows) {
  if (!zentiq_begin_level(session)) return 0;
  long changed = 0;
  std::string why;
  bool ran = run_change(session, stmt, &changed, &why);
  if (!ran || changed != rows) {
    zentiq_abort_level(session);
    tell_not_done(session, ran, why, changed, rows, table);
    return 0;
  }
  if (!zentiq_end_level(session)) {
    tell_not_ended(session);
    return 0;
  }
  return 1;
}

// Asks whether a change that cannot be recorded runs without a journal
// entry ("Nein" the default). No level is open.
bool run_without_entry(const std::string &why) {
  return fl_show_question(why.c_str(), "Die Änderung kann nicht ins Journal geschrieben werden.",
                          "Ohne Journaleintrag ausführen?", 2, "Ja", "Nein", "", 2) == 1;
}

std::string no_key_text(const std::string &table) {
  return "Die betroffenen Zeilen von " + upper(table) + " lassen sich nicht über ihren Schlüssel " +
         upper(table) + "_ID bestimmen (fehlt, leer oder mehrfach).";
}

// Tells what jrn_commit left: 1 when committed.
int told_commit(DBSESSION *session, int done, const std::string &why) {
  if (done == JRN_COMMIT_OK) return 1;
  if (done == JRN_COMMIT_NO_ENTRY)
    fl_show_error("Das Journal konnte nicht geschrieben werden - Änderung zurückgenommen!",
                  why.c_str(), "");
  else
    tell_not_ended(session);
  return 0;
}

// The parts of "INSERT INTO t [(a, ...)] VALUES (v, ...)": the table, the
// attributes named (none when the list is left out) and each value's text as
// typed. False when the statement does not have that form.
struct ZqInsert {
  std::string table;
  std::vector<std::string> names;
  std::vector<std::string> values;
};
bool parse_insert(const std::string &stmt, ZqInsert *ins) {
  // 0 INSERT INTO, 1 table, 2 names, 3 VALUES expected, 4 values, 5 done.
  int state = 0, depth = 0;
  size_t value_start = 0;
  bool ok = true;
  bool lexed = zentiq_each_token(stmt, [&](int code, const char *token, size_t start) {
    switch (state) {
    case 0:
      ok = code == DBTOK_INSERT_INTO;
      state = 1;
      break;
    case 1:
      ok = code == DBTOK_IDENT;
      ins->table = token;
      state = 2;
      break;
    case 2:
      if (code == DBTOK_VALUES)
        state = 4;
      else if (code == DBTOK_LPAREN && depth == 0)
        depth = 1;
      else if (code == DBTOK_IDENT && depth == 1)
        ins->names.emplace_back(token);
      else if (code == DBTOK_RPAREN && depth == 1) {
        depth = 0;
        state = 3;
      } else
        ok = code == DBTOK_COMMA && depth == 1;
      break;
    case 3:
      ok = code == DBTOK_VALUES;
      state = 4;
      break;
    case 4:
      if (depth == 0) {
        ok = code == DBTOK_LPAREN;
        depth = 1;
        value_start = start + 1;
      } else if (code == DBTOK_LPAREN) {
        ++depth;
      } else if ((code == DBTOK_COMMA && depth == 1) || (code == DBTOK_RPAREN && depth == 1)) {
        ins->values.push_back(trimmed(stmt.substr(value_start, start - value_start)));
        value_start = start + 1;
        if (code == DBTOK_RPAREN) state = 5, depth = 0;
      } else if (code == DBTOK_RPAREN) {
        --depth;
      }
      break;
    default:
      ok = code == DBTOK_END;
      break;
    }
    return ok;
  });
  return lexed && ok && state == 5;
}

// The attributes of a table in their order, from "SHOW TABLE", inside the
// open level. False when the statement failed.
bool table_attributes(DBSESSION *session, const std::string &table,
                      std::vector<std::string> *names) {
  DBRESULT *r = nullptr;
  int outcome = 0;
  std::string stmt = "SHOW TABLE " + table + ";";
  bool ok = dbexec1(session, stmt.c_str(), &r, &outcome) && outcome == DBOUT_TUPLES;
  for (int i = 0; ok && i < dbntuples(session, r); ++i) {
    const char *v = dbgetvalue(session, r, i, 0);
    names->push_back(upper(v ? v : ""));
  }
  dbclear(session, r);
  return ok;
}

} // namespace

std::string zentiq_current_database() {
  ZqApp &app = zentiq_app();
  const char *code = app.main.database ? myfl_get_cmb_code(app.main.database) : nullptr;
  std::string db = code && *code ? code : app.database_name;
  if (db.empty() || db == "-") db = "TDSYS";
  return upper(db);
}

std::string zentiq_journal_path() {
  return jrn_path(ipc::namespace_name(), zentiq_current_database());
}

int ZqRecordedChange::before(DBSESSION *session, bool is_update, const std::string &table,
                             const std::string &where) {
  entry_ = new_entry(is_update ? JRN_UPDATE : JRN_DELETE);
  why_.clear();
  std::vector<JrnRow> rows;
  int got = jrn_read_rows(session, table, where, 1, &entry_, &rows, &why_);
  if (got == JRN_READ_NO_KEY || got == JRN_READ_TOO_MANY) why_ = no_key_text(table);
  if (got != JRN_READ_OK) return 0;
  entry_.before = std::move(rows);
  return 1;
}

int ZqRecordedChange::commit(DBSESSION *session) {
  if (entry_.kind == JRN_UPDATE) {
    std::vector<JrnValue> keys;
    int k = jrn_key_index(entry_);
    for (const JrnRow &r : entry_.before) keys.push_back(r[static_cast<size_t>(k)]);
    int got = jrn_read_keys(session, entry_, keys, &entry_.after, &why_);
    if (got != JRN_READ_OK) {
      zentiq_abort_level(session);
      if (got != JRN_READ_FAILED)
        why_ = "Der Schlüssel " + entry_.key +
               " wurde geändert; so eine Änderung kann nicht "
               "ins Journal geschrieben werden. Sie wurde zurückgenommen.";
      return 0;
    }
  }
  int done = jrn_commit(session, zentiq_journal_path(), &entry_, &why_);
  if (done == JRN_COMMIT_NO_ENTRY)
    why_ = "Das Journal konnte nicht geschrieben werden (" + why_ + ") - Änderung zurückgenommen";
  else if (done == JRN_COMMIT_NOT_ENDED)
    why_ = "Funktion 'dbend' lieferte Fehler: die Änderung wurde nicht gespeichert";
  return done == JRN_COMMIT_OK ? 1 : 0;
}

void ZqRecordedChange::tell(const char *failed) const { fl_show_error(failed, why_.c_str(), ""); }

int zentiq_run_recorded_change(DBSESSION *session, const std::string &stmt,
                               const std::string &table, const std::string &where, JrnKind kind,
                               long rows) {
  if (rows > ZQ_JOURNAL_MAX_ROWS) {
    std::string text = zentiq_group_digits(rows) +
                       " Zeilen sind mehr, als ein Journaleintrag "
                       "aufnimmt (höchstens " +
                       zentiq_group_digits(ZQ_JOURNAL_MAX_ROWS) + ").";
    return run_without_entry(text) ? run_unrecorded(session, stmt, table, rows) : 0;
  }
  if (!zentiq_begin_level(session)) return 0;
  JrnEntry e = new_entry(kind);
  std::vector<JrnRow> before;
  std::string why;
  int got = jrn_read_rows(session, table, where, ZQ_JOURNAL_MAX_ROWS, &e, &before, &why);
  if (got != JRN_READ_OK) {
    zentiq_abort_level(session);
    if (got == JRN_READ_FAILED) {
      tell_failed(session, why);
      return 0;
    }
    return run_without_entry(no_key_text(table)) ? run_unrecorded(session, stmt, table, rows) : 0;
  }
  long changed = 0;
  bool ran = run_change(session, stmt, &changed, &why);
  if (!ran || changed != rows || static_cast<long>(before.size()) != rows) {
    zentiq_abort_level(session);
    tell_not_done(session, ran, why, changed, rows, table);
    return 0;
  }
  e.before = std::move(before);
  if (kind == JRN_UPDATE) {
    std::vector<JrnValue> keys;
    int k = jrn_key_index(e);
    for (const JrnRow &r : e.before) keys.push_back(r[static_cast<size_t>(k)]);
    got = jrn_read_keys(session, e, keys, &e.after, &why);
    if (got != JRN_READ_OK) {
      zentiq_abort_level(session);
      if (got == JRN_READ_FAILED) {
        tell_failed(session, why);
        return 0;
      }
      // The statement changed keys: the rows cannot be found again.
      std::string text = "Die Änderung setzt den Schlüssel " + e.key + " neu.";
      return run_without_entry(text) ? run_unrecorded(session, stmt, table, rows) : 0;
    }
  }
  return told_commit(session, jrn_commit(session, zentiq_journal_path(), &e, &why), why);
}

int zentiq_is_insert(const std::string &stmt) {
  int first = 0;
  zentiq_each_token(stmt, [&](int code, const char *, size_t) {
    first = code;
    return false;
  });
  return first == DBTOK_INSERT_INTO ? 1 : 0;
}

int zentiq_run_recorded_insert(DBSESSION *session, const std::string &stmt) {
  ZqInsert ins;
  bool parsed = parse_insert(stmt, &ins);
  if (!zentiq_begin_level(session)) return 0;
  // Where the key's value stands: by the attribute list, or without one by
  // the table's order of attributes.
  std::string table = upper(ins.table), key = table + "_ID", key_value;
  std::vector<std::string> names = ins.names;
  for (std::string &n : names) n = upper(n);
  if (parsed && names.empty()) table_attributes(session, table, &names);
  for (size_t i = 0; parsed && i < names.size() && i < ins.values.size(); ++i)
    if (names[i] == key) key_value = ins.values[i];
  long changed = 0;
  std::string why;
  bool ran = run_change(session, stmt, &changed, &why);
  if (!ran || changed != 1) {
    zentiq_abort_level(session);
    if (!ran)
      tell_failed(session, why);
    else
      fl_show_error("Änderung wurde zurückgenommen!",
                    (std::to_string(changed) + " statt 1 Zeile eingefügt").c_str(), "");
    return 0;
  }
  JrnEntry e = new_entry(JRN_INSERT);
  std::vector<JrnRow> after;
  int got =
      key_value.empty() || key_value == "''"
          ? JRN_READ_NO_KEY
          : jrn_read_rows(session, table, "WHERE " + key + " = " + key_value, 1, &e, &after, &why);
  if (got == JRN_READ_OK && after.size() != 1) got = JRN_READ_NO_KEY;
  if (got != JRN_READ_OK) {
    zentiq_abort_level(session);
    if (got == JRN_READ_FAILED) {
      tell_failed(session, why);
      return 0;
    }
    std::string text = "Die neue Zeile lässt sich nicht über ihren Schlüssel " + key +
                       " bestimmen (kein Wert oder mehrfach vorhanden).";
    return run_without_entry(text) ? run_unrecorded(session, stmt, table, 1) : 0;
  }
  e.after = std::move(after);
  return told_commit(session, jrn_commit(session, zentiq_journal_path(), &e, &why), why);
}
