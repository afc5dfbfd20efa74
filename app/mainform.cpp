// The main form of the viewer (see mainform.h).
#include "app/mainform.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "app/detail.h"
#include "app/querystore.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "db/client/exec.h"
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
// and SQL commands). Leaves the result open.
void fill_result(DBSESSION *session, DBRESULT *result) {
  ZqApp &app = zentiq_app();
  int cols = dbnfields(session, result);
  int rows = dbntuples(session, result);
  std::string title;
  for (int c = 0; c < cols; ++c) {
    if (c) title += ",";
    const char *n = dbfieldname(session, result, c);
    title += n ? n : "";
  }
  for (char &ch : title) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  app.current_query_name = title;

  FL_OBJECT *tb = app.main.result;
  myfl_free_tabbox(tb);
  fl_clear_tabbox(tb);
  myfl_init_db_tabbox_no_ini(app.main.form, tb, "ZTQ", zentiq_title, zentiq_new_record, nullptr,
                             nullptr, zentiq_accept_record, zentiq_open_detail);

  std::vector<void *> records;
  records.reserve(rows > 0 ? rows : 0);
  std::vector<std::string> values;
  for (int r = 0; r < rows; ++r) {
    values.clear();
    for (int c = 0; c < cols; ++c) {
      const char *v = dbgetvalue(session, result, r, c);
      values.emplace_back(v ? v : "");
    }
    records.push_back(zentiq_make_record(zentiq_row_text(values)));
  }
  myfl_load_multiple_tabbox(
      session, tb,
      [](DBSESSION *, void *record, int) -> const char * {
        return static_cast<ZqRecord *>(record)->text;
      },
      records.data(), static_cast<int>(records.size()));
  for (void *r : records) std::free(r);
}

void end_level(DBSESSION *session) {
  if (!dbend(session)) fl_show_message("Funktion 'dbend' lieferte Fehler", "", "");
}

// Opens a BEGIN level for one of the user's statements; false (with the
// message shown) when there is no database connection.
bool begin_level(DBSESSION *session) {
  if (dbbegin(session)) return true;
  fl_show_message("Datenbankverbindung nicht vorhanden", "", "");
  return false;
}

// Runs a statement the user typed or built. True with its result in
// *result (the caller clears it and ends the level); false after telling the
// user that it failed and ending the level. A statement the client's parser
// refused counts as failed too: the user must learn that it did not run.
bool run_typed(DBSESSION *session, const std::string &stmt, DBRESULT **result) {
  *result = nullptr;
  int outcome = 0;
  if (dbexec1(session, stmt.c_str(), result, &outcome) && outcome != DBOUT_REFUSED) return true;
  dbclear(session, *result);
  fl_show_message("Abfrage konnte nicht erfolgreich durchgeführt werden", "", "");
  end_level(session);
  return false;
}

} // namespace

std::string zentiq_row_text(const std::vector<std::string> &values) {
  std::string out;
  for (size_t i = 0; i < values.size(); ++i) {
    if (i) out += ",";
    out += '"';
    for (char ch : values[i]) {
      if (ch == '"') out += '\\';
      out += ch;
    }
    out += '"';
  }
  return out;
}

void zentiq_create_main_form() {
  ZqMainForm &m = zentiq_app().main;
  m.form = fl_begin_form(FL_NO_BOX, 721, 606);
  FL_OBJECT *bg = fl_add_box(FL_UP_BOX, 0, 0, 725, 625, "");
  fl_set_object_lsize(bg, FL_NORMAL_SIZE);
  m.help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 720, 601, "");
  fl_set_object_lsize(m.help, FL_NORMAL_SIZE);
  fl_set_object_callback(m.help, myfl_cb_help, 0);
  heading(20, 10, 110, 20, "SELECT-Abfrage");
  m.sel_saved = indicator(290, 10);
  m.sel_add = button(390, 10, 40, 21, "Add", zentiq_cb_add, 1);
  m.sel_del = button(430, 10, 40, 21, "Del", zentiq_cb_del, 1);
  m.sel_prev = button(470, 10, 20, 21, "@8", zentiq_cb_prev, 1);
  m.sel_next = button(490, 10, 20, 21, "@2", zentiq_cb_next, 1);
  m.sel_run = button(530, 10, 170, 21, "SELECT durchführen", zentiq_run_select, 0);
  FL_OBJECT *frame = fl_add_frame(FL_ENGRAVED_FRAME, 20, 30, 680, 120, "");
  fl_set_object_callback(frame, myfl_cb_field, 0);
  m.table = input(FL_NORMAL_INPUT, 100, 40, 590, 21, "Tabelle ", myfl_cb_field);
  m.attributes = input(FL_NORMAL_INPUT, 100, 60, 590, 21, "Attribute ", myfl_cb_field);
  label_text(20, 80, 80, 20, "WHERE /");
  m.where = input(FL_MULTILINE_INPUT, 100, 80, 590, 61, "", nullptr);
  label_text(20, 100, 80, 20, "ORDER BY");
  heading(20, 150, 130, 20, "Andere SQL-Befehle");
  m.sql_saved = indicator(290, 150);
  m.sql_add = button(390, 150, 40, 21, "Add", zentiq_cb_add, 0);
  m.sql_del = button(430, 150, 40, 21, "Del", zentiq_cb_del, 0);
  m.sql_prev = button(470, 150, 20, 21, "@8", zentiq_cb_prev, 0);
  m.sql_next = button(490, 150, 20, 21, "@2", zentiq_cb_next, 0);
  m.sql_run = button(530, 150, 170, 21, "SQL-Befehl durchführen", zentiq_run_sql, 0);
  m.sql = input(FL_MULTILINE_INPUT, 20, 170, 680, 81, "", nullptr);
  m.result = fl_add_tabbox(2, 20, 250, 680, 320, "");
  m.database = input(FL_NORMAL_INPUT, 570, 570, 110, 21, "Database ", myfl_cb_cmb_field);
  m.database_button = button(680, 570, 20, 21, "@2->|", myfl_cb_open_cmb, 0);
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
  if (!begin_level(session)) return;
  // Raw texts first: fl_get_input's buffer is reused by the next call.
  std::string raw_table = fl_get_input(m.table);
  std::string raw_attr = fl_get_input(m.attributes);
  std::string raw_where = fl_get_input(m.where);
  std::string table = zentiq_strip_newlines(raw_table.c_str());
  // A blank table stops here; the level begun above stays open, as the
  // program always did.
  if (zentiq_is_blank(table.c_str())) return;
  std::string attr = zentiq_strip_newlines(raw_attr.c_str());
  std::string where = zentiq_strip_newlines(raw_where.c_str());
  std::string stmt = "SELECT ";
  stmt += zentiq_is_blank(attr.c_str()) ? std::string("* ") : attr + " ";
  stmt += "FROM " + table;
  if (!zentiq_is_blank(where.c_str())) stmt += " " + where;
  stmt += ";";

  DBRESULT *result = nullptr;
  if (!run_typed(session, stmt, &result)) return;
  if (zentiq_store_add_select(raw_table, raw_attr, raw_where)) fl_set_button(m.sel_saved, 0);
  fill_result(session, result);
  dbclear(session, result);
  end_level(session);
}

void zentiq_run_sql(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  ZqMainForm &m = app.main;
  DBSESSION *session = app.session;
  if (!begin_level(session)) return;
  std::string raw = fl_get_input(m.sql);
  std::string text = zentiq_strip_newlines(raw.c_str());
  if (zentiq_is_blank(text.c_str())) {
    fl_show_message("Kein SQL-Kommando definiert", "", "");
    end_level(session);
    return;
  }
  std::string stmt = text + ";";
  DBRESULT *result = nullptr;
  if (!run_typed(session, stmt, &result)) return;
  if (zentiq_store_add_sql(raw)) fl_set_button(m.sql_saved, 0);
  if (zentiq_is_query(stmt))
    fill_result(session, result);
  else
    fl_show_message("Die Abfrage wurde erfolgreich durchgeführt", "", "");
  dbclear(session, result);
  end_level(session);
}

void zentiq_set_database(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  const char *code = myfl_get_cmb_code(app.main.database);
  // Nothing to switch to while the server listed no database.
  if (!dbstatus(app.session) || !code || !*code) return;
  std::string stmt = std::string("SET DATABASE ") + code + ";";
  DBRESULT *r = DBexec(app.session->connection, stmt.c_str());
  if (DBresult_status(r) == DBRES_TRANSPORT) db_transport_fatal();
  if (!r) return;
  if (DBresult_status(r) != DBRES_DONE)
    fl_show_message("Fehler beim Ändern der Datenbank!", DBresult_error(r), "");
  DBclear(r);
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
