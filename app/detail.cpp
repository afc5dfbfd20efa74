// The detail dialog of the viewer (see detail.h).
#include "app/detail.h"

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string>

#include "app/mainform.h"
#include "app/querystore.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "forms/dialogs.h"
#include "forms/mytabs.h"
#include "framework/dbtabbox.h"
#include "framework/help.h"
#include "framework/place.h"

namespace {

constexpr int ZQ_VALUE_MAX = 4000;

struct FreeDeleter {
  void operator()(char *p) const { std::free(p); }
};
using CText = std::unique_ptr<char, FreeDeleter>;

std::string take(char *p) {
  CText owned(p);
  return owned ? std::string(owned.get()) : std::string();
}

// Finds the key line of the detail tabbox. Returns true with the key name
// and value; false after showing `what` / "Primary Key nicht gefunden".
bool find_key(const char *what, std::string *table, std::string *key, std::string *value) {
  ZqApp &app = zentiq_app();
  const ZqStore &s = zentiq_store();
  FL_OBJECT *tb = app.detail.tabbox;
  if (s.select_count > 0 && fl_get_tabbox_vert(tb)) {
    *table = s.select[s.select_count - 1].table;
    *key = *table + "_ID";
    int n = zentiq_detail_lines();
    for (int i = 1; i <= n; ++i) {
      if (take(fl_get_tabbox_vert_attr_line(tb, i)) == *key) {
        *value = take(fl_get_tabbox_vert_attr_line_value(tb, i));
        return true;
      }
    }
  }
  // Without a stored SELECT (the result came from an SQL command) there is
  // no table to derive the key from: the change is refused the same way.
  fl_show_message(what, "Primary Key nicht gefunden", "");
  return false;
}

// After a successful change: back to the main form with a fresh result.
void after_change(const char *done) {
  ZqApp &app = zentiq_app();
  fl_activate_form(app.main.form);
  fl_call_object_callback(app.main.sel_run);
  myfl_hide_form(app.detail.form);
  fl_show_message(done, "", "");
}

FL_OBJECT *button(int x, int y, int w, int h, const char *label, FL_CALLBACKPTR cb) {
  FL_OBJECT *o = fl_add_button(FL_NORMAL_BUTTON, x, y, w, h, label);
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_callback(o, cb, 0);
  return o;
}

} // namespace

int zentiq_detail_lines() { return mytabs_get_shown_lines(zentiq_app().detail.tabbox); }

void zentiq_create_detail_form() {
  ZqDetailForm &d = zentiq_app().detail;
  d.form = fl_begin_form(FL_NO_BOX, 591, 661);
  FL_OBJECT *bg = fl_add_box(FL_UP_BOX, 0, 0, 595, 680, "");
  fl_set_object_lsize(bg, FL_NORMAL_SIZE);
  d.help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 590, 656, "");
  fl_set_object_lsize(d.help, FL_NORMAL_SIZE);
  fl_set_object_callback(d.help, myfl_cb_help, 0);
  FL_OBJECT *h = fl_add_text(0, 20, 10, 180, 20, "Zentiq-Detail");
  fl_set_object_lsize(h, FL_LARGE_SIZE);
  fl_set_object_lstyle(h, FL_EMBOSSED_STYLE);
  fl_set_object_lalign(h, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  d.del = button(500, 10, 70, 21, "Löschen", zentiq_delete_row);
  d.tabbox = fl_add_tabbox(0, 20, 40, 550, 565, "");
  d.value = fl_add_input(FL_NORMAL_INPUT, 60, 620, 430, 21, "Wert ");
  fl_set_object_lsize(d.value, FL_MEDIUM_SIZE);
  fl_set_object_lalign(d.value, FL_ALIGN_LEFT);
  d.update = button(500, 620, 70, 21, "Update", zentiq_update_value);
  // Return in the value input runs the update button's callback.
  fl_set_object_callback(
      d.value, [](FL_OBJECT *, long) { fl_call_object_callback(zentiq_app().detail.update); }, 0);
  fl_end_form();
}

void zentiq_open_detail(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  FL_OBJECT *result = app.main.result;
  if (fl_get_tabbox_maxline(result) <= 0) return;
  void *record = myfl_get_tabbox(result);
  if (!record) {
    fl_show_message("Ungültiger Eintrag in der Tabbox", "", "");
    return;
  }
  FL_OBJECT *tb = app.detail.tabbox;
  myfl_free_tabbox(tb);
  fl_unset_tabbox_vert(tb);
  fl_clear_tabbox(tb);
  myfl_init_db_tabbox_no_ini(app.detail.form, tb, "DZTQ", zentiq_title, zentiq_new_record, nullptr,
                             nullptr, zentiq_accept_record, zentiq_edit_value);
  myfl_load_single_tabbox(
      app.session, tb,
      [](DBSESSION *, void *rec, int) -> const char * {
        return static_cast<ZqRecord *>(rec)->text;
      },
      record);
  fl_set_tabbox_vert(tb);
  fl_deactivate_form(app.main.form);
  fl_set_input(app.detail.value, "");
  myfl_show_form(app.detail.form, "Zentiq-Detail");
}

int zentiq_is_number(const char *text) {
  const unsigned char *p = reinterpret_cast<const unsigned char *>(text ? text : "");
  while (*p && std::isspace(*p)) ++p;
  if (*p == '-' || *p == '+') ++p;
  int separators = 0;
  for (; *p && !std::isspace(*p); ++p) {
    if (*p == '.' || *p == ',')
      ++separators;
    else if (!std::isdigit(*p))
      return 0;
  }
  while (*p && std::isspace(*p)) ++p;
  return *p == '\0' && separators <= 1;
}

void zentiq_edit_value(FL_OBJECT *, long) {
  ZqDetailForm &d = zentiq_app().detail;
  // Appended rather than prefixed: GCC 12 at -O3 warns falsely on inserting
  // at the front of a temporary string.
  std::string text(1, ' ');
  text += take(fl_get_tabbox_vert_attr_value(d.tabbox));
  if (text.size() > static_cast<size_t>(ZQ_VALUE_MAX)) {
    fl_show_message("Wert ist nicht editierbar!", "String ist länger als 4000 Zeichen", "");
    return;
  }
  if (!zentiq_is_number(text.c_str())) {
    text[0] = '\'';
    text += '\'';
  }
  fl_set_input(d.value, text.c_str());
  fl_set_focus_object(d.form, d.value);
}

int zentiq_exec_change(const char *statement) {
  DBSESSION *session = zentiq_app().session;
  if (!dbbegin(session)) {
    fl_show_message("Datenbankverbindung nicht vorhanden", "", "");
    return 0;
  }
  DBRESULT *result = nullptr;
  int outcome = 0;
  int ok = 0;
  if (dbexec1(session, statement, &result, &outcome)) {
    dbclear(session, result);
    ok = outcome == DBOUT_DONE;
  }
  if (!dbend(session)) {
    fl_show_message("Funktion 'dbend' lieferte Fehler", "", "");
    return 0;
  }
  return ok;
}

void zentiq_update_value(FL_OBJECT *, long) {
  ZqDetailForm &d = zentiq_app().detail;
  std::string table, key, key_value;
  if (!find_key("Update nicht möglich", &table, &key, &key_value)) return;
  std::string attribute = take(fl_get_tabbox_vert_attr(d.tabbox));
  std::string value = fl_get_input(d.value);
  if (value.size() >= static_cast<size_t>(ZQ_VALUE_MAX)) {
    fl_show_message("Update nicht möglich!", "Wert-String zu lange (maximal 4000 Zeichen erlaubt)",
                    "");
    return;
  }
  std::string stmt = "update " + table + " set " + attribute + " = " + value + " where " + key +
                     " = '" + key_value + "';";
  if (zentiq_exec_change(stmt.c_str()))
    after_change("Datensatz wurde geändert");
  else
    fl_show_message("Datensatz konnte nicht geändert werden!", "", "");
}

void zentiq_delete_row(FL_OBJECT *, long) {
  std::string table, key, key_value;
  if (!find_key("Löschen nicht möglich", &table, &key, &key_value)) return;
  if (fl_show_question("Der ausgewählte Datensatz wird gelöscht!", "Wollen Sie dennoch fortfahren?",
                       "", 2, "Ja", "Nein", "", 3) != 1)
    return;
  std::string stmt = "delete from " + table + " where " + key + " = '" + key_value + "';";
  if (zentiq_exec_change(stmt.c_str()))
    after_change("Datensatz wurde gelöscht");
  else
    fl_show_message("Datensatz konnte nicht gelöscht werden!", "", "");
}
