// The main form of the viewer (see mainform.h).
#include "app/mainform.h"

#include <cctype>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "app/browser.h"
#include "app/detail.h"
#include "app/journaldlg.h"
#include "app/journalrec.h"
#include "app/readonly.h"
#include "app/tokens.h"
#include "app/querystore.h"
#include "app/resultlimit.h"
#include "app/status.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "db/client/exec.h"
#include "db/client/tokenizer.h"
#include "forms/console.h"
#include "forms/dialogs.h"
#include "forms/mytabs.h"
#include "framework/combo.h"
#include "framework/dbtabbox.h"
#include "framework/fields.h"
#include "framework/help.h"

namespace {

FL_OBJECT *heading(int x, int y, int w, int h, const char *label) {
  FL_OBJECT *o = fl_add_text(0, x, y, w, h, label);
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_lstyle(o, FL_EMBOSSED_STYLE);
  fl_set_object_lalign(o, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  return o;
}

FL_OBJECT *label_text(int x, int y, int w, int h, const char *label) {
  FL_OBJECT *o = fl_add_text(0, x, y, w, h, label);
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_lalign(o, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  return o;
}

FL_OBJECT *button(int x, int y, int w, int h, const char *label, FL_CALLBACKPTR cb, long arg) {
  FL_OBJECT *o = fl_add_button(FL_NORMAL_BUTTON, x, y, w, h, label);
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_callback(o, cb, arg);
  return o;
}

FL_OBJECT *input(int type, int x, int y, int w, int h, const char *label, FL_CALLBACKPTR cb) {
  FL_OBJECT *o = fl_add_input(type, x, y, w, h, label);
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_lalign(o, FL_ALIGN_LEFT);
  if (cb) fl_set_object_callback(o, cb, 0);
  return o;
}

FL_OBJECT *indicator(int x, int y) {
  FL_OBJECT *o = fl_add_checkbutton(FL_PUSH_BUTTON, x, y, 90, 21, "gespeichert");
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  return o;
}

// Result titles and rows go into the result tabbox (steps shared by SELECT
// and SQL commands); `statement` is what produced them, from which the
// table the rows may be changed in is taken. Leaves the result open. Returns
// true when the rows reach `limit` (the MAX they were read with), so that
// more may exist: the title then names "die ersten <limit> Zeilen".
bool fill_result(DBSESSION *session, DBRESULT *result, const std::string &statement, long limit) {
  ZqApp &app = zentiq_app();
  int cols = dbnfields(session, result);
  int rows = dbntuples(session, result);
  ZqResultInfo info;
  std::string title;
  for (int c = 0; c < cols; ++c) {
    if (c) title += ",";
    const char *n = dbfieldname(session, result, c);
    info.names.emplace_back(n ? n : "");
    info.types.push_back(dbfieldtype(session, result, c));
    title += info.names.back();
  }
  for (char &ch : title) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  bool cut = rows >= limit;
  if (cut) title += " (die ersten " + zentiq_group_digits(limit) + " Zeilen)";
  app.current_query_name = title;
  if (!zentiq_plain_table(statement, &info.table)) info.table.clear();
  app.result = info;

  FL_OBJECT *tb = app.main.result;
  // Cleared first: the tabbox need not make the old result's unshown lines.
  fl_clear_tabbox(tb);
  myfl_free_tabbox(tb);
  // Every row is shown, so no line filter.
  myfl_init_db_tabbox_no_ini(app.main.form, tb, "ZTQ", zentiq_title, zentiq_new_record, nullptr,
                             nullptr, nullptr, zentiq_open_detail);
  // A line's record (the text the detail dialog reads its values from) is
  // made from its fields only when it is asked for: the fields are the
  // values as they are, and most rows of a large result are never opened.
  myfl_set_tabbox_recordfunc(tb, [](const std::vector<std::string_view> &fields) {
    return zentiq_make_record(zentiq_row_text({fields.begin(), fields.end()}));
  });

  // Each line gets its values as fields (no line text to parse again), all
  // of them in one store: its size is guessed from the first rows, so that
  // it is not copied again and again while it grows.
  MYFL_TABBOX_LINES lines;
  size_t n_rows = rows > 0 ? static_cast<size_t>(rows) : 0;
  size_t n_cols = cols > 0 ? static_cast<size_t>(cols) : 0;
  lines.lines.reserve(n_rows);
  lines.fields.reserve(n_rows * n_cols, 0);
  constexpr size_t kSample = 64;
  for (size_t r = 0; r < n_rows; ++r) {
    if (r == kSample)
      lines.fields.reserve(0, lines.fields.chars() / kSample * (n_rows - r) * 5 / 4);
    lines.begin_line();
    // Null values show as empty texts, not as their type's marker.
    for (size_t c = 0; c < n_cols; ++c)
      lines.add_field(dbgetshown(session, result, static_cast<int>(r), static_cast<int>(c)));
  }
  myfl_load_tabbox_lines(
      tb,
      [](DBSESSION *, void *record, int) -> const char * {
        return static_cast<ZqRecord *>(record)->text;
      },
      std::move(lines));
  return cut;
}

bool end_level(DBSESSION *session) { return zentiq_end_level(session) != 0; }

// The box of a level whose END failed, unless the server was lost: the
// loss's box says that the open transaction is lost.
void tell_end_failed(DBSESSION *session) {
  if (zentiq_loss_told(session)) return;
  fl_show_error("Funktion 'dbend' lieferte Fehler",
                "Die Änderungen des Befehls wurden nicht gespeichert", "");
}

bool begin_level(DBSESSION *session) { return zentiq_begin_level(session) != 0; }

// Why the last statement of run_typed failed: the server's or the client
// parser's text with its error number, or the connection's text when no
// answer came.
std::string g_why_failed;

// The text without its trailing line feeds.
std::string trimmed(const char *text) {
  std::string t = text ? text : "";
  while (!t.empty() && (t.back() == '\n' || t.back() == '\r')) t.pop_back();
  return t;
}

// Runs a statement the user typed or built inside the open level. True with
// its result in *result (the caller clears it); false when it failed, also
// when the client's parser refused it: the user must learn that it did not
// run, and why (kept for tell_failed).
bool run_typed(DBSESSION *session, const std::string &stmt, DBRESULT **result) {
  *result = nullptr;
  int outcome = 0;
  g_why_failed.clear();
  if (dbexec1(session, stmt.c_str(), result, &outcome) && outcome != DBOUT_REFUSED) return true;
  if (*result)
    g_why_failed = trimmed(DBresult_error(*result));
  else if (session && session->connection)
    g_why_failed = trimmed(DBerrormessage(session->connection));
  dbclear(session, *result);
  *result = nullptr;
  return false;
}

// The box of a failed statement: what failed and why, with the error icon.
// The console keeps the same reason in its log. A lost server has said so
// in its own box, which stands for the statement too.
void tell_failed(DBSESSION *session) {
  if (zentiq_loss_told(session)) return;
  fl_show_error("Abfrage konnte nicht erfolgreich durchgeführt werden", g_why_failed.c_str(), "");
}

// Runs the query `stmt` (SELECT or SHOW) in a level of its own with the
// viewer's row limit and shows its rows; `stored` is called after the first
// run that succeeded. Rows cut at the limit are named in the result's title
// and the user is asked whether to load more: the query then runs again, in
// a new level, with twice the limit. A result the budget refuses is told in
// a box and the rows shown before stay. Every level has ended before a box
// or question shows.
template <typename Fn> void run_query(DBSESSION *session, const std::string &stmt, Fn stored) {
  long limit = zentiq_result_settings();
  for (bool first = true;; first = false) {
    if (!begin_level(session)) return;
    DBRESULT *result = nullptr;
    std::string too_large;
    auto sent = std::chrono::steady_clock::now();
    bool ran = false;
    {
      ZqBusyScope busy; // "Abbrechen" after half a second
      ran = zentiq_run_limited(session, stmt, limit, &result, &too_large, &g_why_failed);
    }
    double statement_ms = zentiq_ms_since(sent);
    bool cut = false;
    zentiq_status_clear();
    if (ran) {
      if (first) stored();
      auto show_started = std::chrono::steady_clock::now();
      cut = fill_result(session, result, stmt, limit);
      zentiq_status_result(dbntuples(session, result), dbnfields(session, result), statement_ms,
                           show_started);
    }
    dbclear(session, result);
    bool ended = end_level(session);
    if (!too_large.empty())
      fl_show_message(too_large.c_str(), "Bitte die Abfrage einschränken (WHERE)",
                      "oder das Budget erhöhen (Ergebnis_MB in zentiq.ini)");
    else if (!ran)
      tell_failed(session);
    if (!ended) tell_end_failed(session);
    if (!ran || !ended || !cut) return;
    std::string shown = "Gezeigt werden die ersten " + zentiq_group_digits(limit) + " Zeilen.";
    if (fl_show_question(shown.c_str(), "Weitere Zeilen laden?", "", 2, "Ja", "Nein", "", 2) != 1)
      return;
    limit = limit > LONG_MAX / 2 ? LONG_MAX : limit * 2;
  }
}

// A typed UPDATE or DELETE: counts the rows it will change in a short read
// of its own, asks when that is not exactly one row (always without WHERE),
// then runs it recorded in the journal (journalrec.h). Returns true when
// the change was made and committed (messages shown otherwise).
bool run_counted_change(DBSESSION *session, const std::string &stmt, const ZqChange &change) {
  std::string count_stmt = "SELECT COUNT(*) FROM " + change.table;
  if (!change.where.empty()) count_stmt += " " + change.where;
  count_stmt += ";";
  if (!begin_level(session)) return false;
  DBRESULT *result = nullptr;
  bool counted = run_typed(session, count_stmt, &result) && dbntuples(session, result) == 1;
  const char *v = counted ? dbgetvalue(session, result, 0, 0) : nullptr;
  long rows = v ? std::strtol(v, nullptr, 10) : -1;
  dbclear(session, result);
  bool ended = end_level(session);
  if (!counted || !v) {
    tell_failed(session);
    return false;
  }
  if (!ended) {
    tell_end_failed(session);
    return false;
  }
  if (rows != 1 || change.where.empty()) {
    std::string q = std::to_string(rows) + (rows == 1 ? " Zeile in " : " Zeilen in ") +
                    change.table + (rows == 1 ? " wird " : " werden ") +
                    (change.is_delete ? "gelöscht." : "geändert.");
    if (fl_show_question(q.c_str(), "Fortfahren?", "", 2, "Ja", "Nein", "", 2) != 1) return false;
  }
  JrnKind kind = change.is_delete ? JRN_DELETE : JRN_UPDATE;
  return zentiq_run_recorded_change(session, stmt, change.table, change.where, kind, rows) != 0;
}

} // namespace

int zentiq_loss_told(DBSESSION *session) { return session && session->lost ? 1 : 0; }

int zentiq_begin_level(DBSESSION *session) {
  if (dbbegin(session)) return 1;
  dbend(session);
  if (!zentiq_loss_told(session)) fl_show_error("Datenbankverbindung nicht vorhanden", "", "");
  return 0;
}

void zentiq_abort_level(DBSESSION *session) {
  dbrollback(session); // ABORT, which opens a fresh transaction at once,
  dbend(session);      // and END of that one
}

int zentiq_end_level(DBSESSION *session) {
  if (dbend(session)) return 1;
  // The level is gone on this side; an ABORT makes sure that the server
  // holds no transaction (and no lock) of it while the user reads the
  // message.
  if (dbstatus(session)) DBclear(DBexec(session->connection, "ABORT"));
  return 0;
}

std::string zentiq_row_text(const std::vector<std::string> &values) {
  size_t size = 0;
  for (const std::string &v : values) size += v.size() + 3;
  std::string out;
  out.reserve(size);
  for (size_t i = 0; i < values.size(); ++i) {
    if (i) out += ',';
    out += '"';
    // Runs without a quote or backslash are copied whole.
    const std::string &v = values[i];
    for (size_t at = 0;;) {
      size_t special = v.find_first_of("\"\\", at);
      out.append(v, at, special == std::string::npos ? std::string::npos : special - at);
      if (special == std::string::npos) break;
      out += '\\';
      out += v[special];
      at = special + 1;
    }
    out += '"';
  }
  return out;
}

std::vector<std::string> zentiq_row_values(const char *text) {
  std::vector<std::string> values;
  std::string cur;
  bool quoted = false;
  for (const char *p = text ? text : ""; *p; ++p) {
    if (*p == '\\' && p[1])
      cur += *++p;
    else if (*p == '"')
      quoted = !quoted;
    else if (*p == ',' && !quoted)
      values.push_back(std::move(cur)), cur.clear();
    else
      cur += *p;
  }
  values.push_back(cur);
  return values;
}

int zentiq_plain_table(const std::string &statement, std::string *table) {
  table->clear();
  int n = 0, from_at = -1;
  bool plain = true;
  std::string name;
  bool lexed = zentiq_each_token(statement, [&](int code, const char *token, size_t) {
    switch (code) {
    case DBTOK_SELECT:
      plain = n == 0; // a second SELECT is a subquery
      break;
    case DBTOK_DISTINCT:
    case DBTOK_COUNT:
    case DBTOK_MAX:
    case DBTOK_MIN:
    case DBTOK_EXISTS:
    case DBTOK_SELECT_EXISTS:
      plain = false;
      break;
    case DBTOK_FROM:
      if (from_at < 0) from_at = n;
      break;
    default:
      break;
    }
    // FROM, one name, then the statement's end, WHERE or ORDER BY.
    if (from_at >= 0 && n == from_at + 1) {
      if (code == DBTOK_IDENT)
        name = token;
      else
        plain = false;
    }
    if (from_at >= 0 && n == from_at + 2 && code != DBTOK_WHERE && code != DBTOK_ORDER_BY &&
        code != DBTOK_END)
      plain = false;
    ++n;
    return plain;
  });
  if (!lexed || !plain || name.empty()) return 0;
  *table = name;
  return 1;
}

int zentiq_change_target(const std::string &statement, ZqChange *change) {
  *change = ZqChange();
  int n = 0, depth = 0;
  int kind = 0;
  size_t where_at = std::string::npos;
  bool lexed = zentiq_each_token(statement, [&](int code, const char *token, size_t start) {
    if (n == 0) kind = code;
    if (n == 1 && code == DBTOK_IDENT) change->table = token;
    if (code == DBTOK_LPAREN) ++depth;
    if (code == DBTOK_RPAREN) --depth;
    if (code == DBTOK_WHERE && depth == 0 && where_at == std::string::npos) where_at = start;
    ++n;
    return kind == DBTOK_UPDATE || kind == DBTOK_DELETE_FROM;
  });
  if (!lexed || (kind != DBTOK_UPDATE && kind != DBTOK_DELETE_FROM) || change->table.empty())
    return 0;
  change->is_delete = kind == DBTOK_DELETE_FROM;
  if (where_at != std::string::npos) {
    std::string w = statement.substr(where_at);
    while (!w.empty() && (w.back() == ';' || std::isspace(static_cast<unsigned char>(w.back()))))
      w.pop_back();
    change->where = w;
  }
  return 1;
}

int zentiq_single_statement(const std::string &text, std::string *statement) {
  std::vector<std::string> pieces = DBsplit_statements(text.c_str());
  for (size_t i = 1; i < pieces.size(); ++i)
    if (!zentiq_is_blank(pieces[i].c_str())) {
      fl_show_warning("Nach dem ';' folgt weiterer Text!",
                      "Bitte nur einen SQL-Befehl eingeben (ein ';' am Ende ist erlaubt)", "");
      return 0;
    }
  *statement = pieces[0] + ";";
  if (statement->size() >= static_cast<size_t>(DB_STATEMENT_SIZE)) {
    std::string why = "Er hat " + std::to_string(statement->size()) +
                      " Zeichen, erlaubt sind höchstens " + std::to_string(DB_STATEMENT_SIZE - 1);
    fl_show_warning("SQL-Befehl ist zu lang!", why.c_str(), "");
    return 0;
  }
  return 1;
}

void zentiq_create_main_form() {
  ZqMainForm &m = zentiq_app().main;
  m.form = fl_begin_form(FL_NO_BOX, 721, 606);
  // The window grows: the inputs and the result widen with it; of the extra
  // height the WHERE input and the SQL input take a fifth each and the result
  // the rest. Buttons on the right keep their distance to the right edge,
  // the bottom row its distance to the bottom edge.
  FL_OBJECT *bg = fl_add_box(FL_UP_BOX, 0, 0, 725, 625, "");
  fl_set_object_lsize(bg, FL_NORMAL_SIZE);
  fl_set_object_resize(bg, 0, 100, 0, 100);
  m.help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 720, 601, "");
  fl_set_object_lsize(m.help, FL_NORMAL_SIZE);
  fl_set_object_callback(m.help, myfl_cb_help, 0);
  fl_set_object_resize(m.help, 0, 100, 0, 100);
  heading(20, 10, 260, 20, "SELECT-Abfrage");
  m.sel_saved = indicator(290, 10);
  m.sel_add = button(390, 10, 40, 21, "Add", zentiq_cb_add, 1);
  m.sel_del = button(430, 10, 40, 21, "Del", zentiq_cb_del, 1);
  m.sel_prev = button(470, 10, 20, 21, "@8", zentiq_cb_prev, 1);
  m.sel_next = button(490, 10, 20, 21, "@2", zentiq_cb_next, 1);
  m.sel_run = button(530, 10, 170, 21, "SELECT durchführen", zentiq_run_select, 0);
  for (FL_OBJECT *o : {m.sel_saved, m.sel_add, m.sel_del, m.sel_prev, m.sel_next, m.sel_run})
    fl_set_object_resize(o, 100, 0, 0, 0);
  FL_OBJECT *frame = fl_add_frame(FL_ENGRAVED_FRAME, 20, 30, 680, 120, "");
  fl_set_object_callback(frame, myfl_cb_field, 0);
  fl_set_object_resize(frame, 0, 100, 0, 20);
  m.table = input(FL_NORMAL_INPUT, 100, 40, 590, 21, "Tabelle ", myfl_cb_field);
  m.attributes = input(FL_NORMAL_INPUT, 100, 60, 590, 21, "Attribute ", myfl_cb_field);
  fl_set_object_resize(m.table, 0, 100, 0, 0);
  fl_set_object_resize(m.attributes, 0, 100, 0, 0);
  label_text(20, 80, 80, 20, "WHERE /");
  m.where = input(FL_MULTILINE_INPUT, 100, 80, 590, 61, "", nullptr);
  fl_set_object_resize(m.where, 0, 100, 0, 20);
  label_text(20, 100, 80, 20, "ORDER BY");
  fl_set_object_resize(heading(20, 150, 260, 20, "Andere SQL-Befehle"), 0, 0, 20, 0);
  m.sql_saved = indicator(290, 150);
  m.sql_add = button(390, 150, 40, 21, "Add", zentiq_cb_add, 0);
  m.sql_del = button(430, 150, 40, 21, "Del", zentiq_cb_del, 0);
  m.sql_prev = button(470, 150, 20, 21, "@8", zentiq_cb_prev, 0);
  m.sql_next = button(490, 150, 20, 21, "@2", zentiq_cb_next, 0);
  m.sql_run = button(530, 150, 170, 21, "SQL-Befehl durchführen", zentiq_run_sql, 0);
  for (FL_OBJECT *o : {m.sql_saved, m.sql_add, m.sql_del, m.sql_prev, m.sql_next, m.sql_run})
    fl_set_object_resize(o, 100, 0, 20, 0);
  m.sql = input(FL_MULTILINE_INPUT, 20, 170, 680, 81, "", nullptr);
  fl_set_object_resize(m.sql, 0, 100, 20, 20);
  m.result = fl_add_tabbox(3, 20, 250, 680, 300, ""); // several lines for Ctrl+C
  zentiq_add_status_line(20, 550, 680, 20);
  fl_set_object_resize(m.result, 0, 100, 40, 60);
  m.database = input(FL_NORMAL_INPUT, 570, 570, 110, 21, "Database ", myfl_cb_cmb_field);
  m.database_button = button(680, 570, 20, 21, "@2->|", myfl_cb_open_cmb, 0);
  fl_set_object_resize(m.database, 100, 0, 100, 0);
  fl_set_object_resize(m.database_button, 100, 0, 100, 0);
  // The console is the program's log: every diagnostic with its details.
  m.log = button(
      20, 570, 100, 21, "Protokoll", [](FL_OBJECT *, long) { fl_show_console(); }, 0);
  fl_set_object_resize(m.log, 0, 0, 100, 0);
  zentiq_add_journal_button(130, 570);
  zentiq_add_browser_button(235, 570, 100, 21);
  fl_end_form();
}

std::string zentiq_strip_newlines(const char *text) {
  std::string out;
  if (!text) return out;
  for (const char *p = text; *p; ++p) {
    if (p[0] == '\\' && p[1] == 'n') {
      ++p;
      continue;
    }
    out += *p;
  }
  return out;
}

int zentiq_is_blank(const char *text) {
  for (const char *p = text; p && *p; ++p)
    if (!std::isspace(static_cast<unsigned char>(*p))) return 0;
  return 1;
}

int zentiq_is_query(std::string_view statement) {
  size_t i = 0;
  while (i < statement.size() && std::isspace(static_cast<unsigned char>(statement[i]))) ++i;
  // The first word, compared without regard to case; the text stays as it is.
  auto starts_with = [&](std::string_view word) {
    if (statement.size() - i < word.size()) return false;
    for (size_t k = 0; k < word.size(); ++k)
      if (std::toupper(static_cast<unsigned char>(statement[i + k])) != word[k]) return false;
    return true;
  };
  return starts_with("SELECT") || starts_with("SHOW") ? 1 : 0;
}

void zentiq_run_select(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  ZqMainForm &m = app.main;
  DBSESSION *session = app.session;
  // Raw texts first: fl_get_input's buffer is reused by the next call.
  std::string raw_table = fl_get_input(m.table);
  std::string raw_attr = fl_get_input(m.attributes);
  std::string raw_where = fl_get_input(m.where);
  std::string table = zentiq_strip_newlines(raw_table.c_str());
  // A blank table stops here, before any level is opened.
  if (zentiq_is_blank(table.c_str())) return;
  std::string attr = zentiq_strip_newlines(raw_attr.c_str());
  std::string where = zentiq_strip_newlines(raw_where.c_str());
  std::string body = "SELECT ";
  body += zentiq_is_blank(attr.c_str()) ? std::string("* ") : attr + " ";
  body += "FROM " + table;
  if (!zentiq_is_blank(where.c_str())) body += " " + where;
  std::string stmt;
  if (!zentiq_single_statement(body, &stmt)) return;

  run_query(session, stmt, [&] {
    if (zentiq_store_add_select(raw_table, raw_attr, raw_where)) fl_set_button(m.sel_saved, 0);
  });
}

void zentiq_run_sql(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  ZqMainForm &m = app.main;
  DBSESSION *session = app.session;
  std::string raw = fl_get_input(m.sql);
  std::string text = zentiq_strip_newlines(raw.c_str());
  if (zentiq_is_blank(text.c_str())) {
    fl_show_message("Kein SQL-Kommando definiert", "", "");
    return;
  }
  std::string stmt;
  if (!zentiq_single_statement(text, &stmt)) return;
  if (!zentiq_ro_permits("Dieser SQL-Befehl", stmt)) return;
  if (zentiq_is_insert(stmt)) {
    if (!zentiq_run_recorded_insert(session, stmt)) return;
    if (zentiq_store_add_sql(raw)) fl_set_button(m.sql_saved, 0);
    fl_show_message("Die Abfrage wurde erfolgreich durchgeführt", "", "");
    return;
  }
  ZqChange change;
  if (zentiq_change_target(stmt, &change)) {
    if (!run_counted_change(session, stmt, change)) return;
    if (zentiq_store_add_sql(raw)) fl_set_button(m.sql_saved, 0);
    fl_show_message("Die Abfrage wurde erfolgreich durchgeführt", "", "");
    return;
  }
  if (zentiq_is_query(stmt)) {
    run_query(session, stmt, [&] {
      if (zentiq_store_add_sql(raw)) fl_set_button(m.sql_saved, 0);
    });
    return;
  }
  if (!begin_level(session)) return;
  DBRESULT *result = nullptr;
  bool ran = run_typed(session, stmt, &result);
  if (ran && zentiq_store_add_sql(raw)) fl_set_button(m.sql_saved, 0);
  dbclear(session, result);
  bool ended = end_level(session);
  if (!ran)
    tell_failed(session);
  else if (!ended)
    tell_end_failed(session);
  else
    fl_show_message("Die Abfrage wurde erfolgreich durchgeführt", "", "");
  // The command may have created or dropped tables.
  if (ran) zentiq_browser_tables_changed();
}

void zentiq_set_database(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  const char *code = myfl_get_cmb_code(app.main.database);
  if (!dbstatus(app.session)) return;
  // An empty code (the server listed no database) is sent as it is.
  std::string stmt = std::string("SET DATABASE ") + (code ? code : "") + ";";
  DBRESULT *r = DBexec(app.session->connection, stmt.c_str());
  if (DBresult_status(r) == DBRES_TRANSPORT) db_transport_lost(app.session);
  if (!dbstatus(app.session) || !r) {
    DBclear(r);
    return;
  }
  if (DBresult_status(r) != DBRES_DONE)
    fl_show_error("Fehler beim Ändern der Datenbank!", DBresult_error(r), "");
  else if (code && *code)
    zentiq_remember_database(code);
  DBclear(r);
  zentiq_ro_update_title(app.main.form);
  zentiq_browser_follow_database();
}

namespace {
// Shows entry i of a list in the form, or clears the form for a new query.
void show_entry(int select, int i) {
  ZqMainForm &m = zentiq_app().main;
  const ZqStore &s = zentiq_store();
  if (select) {
    const ZqSelectEntry *e = i >= 0 ? &s.select[i] : nullptr;
    fl_set_input(m.table, e ? e->table.c_str() : "");
    fl_set_input(m.attributes, e ? e->attributes.c_str() : "");
    fl_set_input(m.where, e ? e->where.c_str() : "");
    fl_set_button(m.sel_saved, e ? zentiq_store_saved(1, i) : 0);
  } else {
    fl_set_input(m.sql, i >= 0 ? s.sql[i].c_str() : "");
    fl_set_button(m.sql_saved, i >= 0 ? zentiq_store_saved(0, i) : 0);
  }
}
int current(int select) {
  return select ? zentiq_store().select_current : zentiq_store().sql_current;
}
} // namespace

void zentiq_cb_prev(FL_OBJECT *, long select) {
  if (zentiq_store_prev(static_cast<int>(select)))
    show_entry(static_cast<int>(select), current(static_cast<int>(select)));
}

void zentiq_cb_next(FL_OBJECT *, long select) {
  int sel = static_cast<int>(select);
  show_entry(sel, zentiq_store_next(sel) ? current(sel) : -1);
}

void zentiq_cb_add(FL_OBJECT *, long select) {
  ZqMainForm &m = zentiq_app().main;
  int sel = static_cast<int>(select);
  const char *text = fl_get_input(sel ? m.table : m.sql);
  if (!text || !*text) return;
  if (zentiq_store_mark(sel, 1)) fl_set_button(sel ? m.sel_saved : m.sql_saved, 1);
}

void zentiq_cb_del(FL_OBJECT *, long select) {
  ZqMainForm &m = zentiq_app().main;
  int sel = static_cast<int>(select);
  if (zentiq_store_mark(sel, 0)) fl_set_button(sel ? m.sel_saved : m.sql_saved, 0);
}
