// The detail dialog of the viewer (see detail.h).
#include "app/detail.h"

#include <cctype>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "app/journalrec.h"
#include "app/mainform.h"
#include "app/readonly.h"
#include "app/viewer.h"
#include "db/access/session.h"
#include "db/client/tokenizer.h"
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

std::string upper(std::string t) {
  for (char &c : t) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return t;
}

bool numeric_type(int type) {
  return type == DBFT_SMALLINT || type == DBFT_INTEGER || type == DBFT_FLOAT;
}

// The SQL literal of a value of a column of `type`: a number as it stands
// when the client's tokenizer reads it as exactly one number; any other text
// in single quotes with every quote doubled and every backslash escaped, so
// that the value is stored as typed. An empty value is the empty text, which
// the server stores as no value (the type's null marker) in every type.
// False (numbers only) when the text is no number.
bool literal(int type, const std::string &value, std::string *out) {
  if (numeric_type(type) && !value.empty()) {
    std::vector<char> text(value.begin(), value.end());
    text.push_back('\0');
    auto t = std::make_unique<DBtokenizer>();
    DBtoken_begin(t.get(), text.data());
    std::vector<char> message(DB_MSG_SIZE);
    bool number = DBtoken_next(t.get(), message.data()) == 1 &&
                  (t->code == DBTOK_INT || t->code == DBTOK_FLOAT) &&
                  DBtoken_next(t.get(), message.data()) == 0;
    if (number) *out = value;
    return number;
  }
  *out = "'";
  for (char c : value) {
    if (c == '\'' || c == '\\') *out += c == '\'' ? '\'' : '\\';
    *out += c;
  }
  *out += "'";
  return true;
}

// The column of the selected attribute line; -1 when no line is selected or
// its name is not one column of the row.
int selected_column() {
  const ZqDetailRow &row = zentiq_app().detail_row;
  std::string name = take(fl_get_tabbox_vert_attr(zentiq_app().detail.tabbox));
  int found = -1;
  for (size_t i = 0; i < row.info.names.size(); ++i)
    if (!name.empty() && upper(row.info.names[i]) == name) {
      if (found >= 0) return -1;
      found = static_cast<int>(i);
    }
  return found;
}

// The condition that addresses the dialog's row: "<table>_ID = <key>". False
// after showing `what` and why the row cannot be changed.
bool key_condition(const char *what, std::string *condition) {
  const ZqDetailRow &row = zentiq_app().detail_row;
  if (row.info.table.empty()) {
    fl_show_message(what,
                    "Das Ergebnis stammt nicht aus genau einer Tabelle (Join, Unterabfrage, "
                    "COUNT oder DISTINCT) und kann hier nicht geändert werden",
                    "");
    return false;
  }
  std::string key = row.info.table + "_ID";
  for (size_t i = 0; i < row.info.names.size() && i < row.values.size(); ++i) {
    if (upper(row.info.names[i]) != key) continue;
    std::string value;
    if (row.values[i].empty() || !literal(row.info.types[i], row.values[i], &value)) break;
    *condition = key + " = " + value;
    return true;
  }
  fl_show_message(what, "Primary Key nicht gefunden", "");
  return false;
}

// Reads the dialog's row again inside the open level. True when the key
// still finds exactly one row and it holds the values the dialog shows;
// false with what differs in *why.
bool row_unchanged(DBSESSION *session, const std::string &condition, std::string *why) {
  const ZqDetailRow &row = zentiq_app().detail_row;
  std::string stmt = "SELECT ";
  for (size_t i = 0; i < row.info.names.size(); ++i) stmt += (i ? ", " : "") + row.info.names[i];
  stmt += " FROM " + row.info.table + " WHERE " + condition + ";";
  DBRESULT *result = nullptr;
  int outcome = 0;
  if (!dbexec1(session, stmt.c_str(), &result, &outcome) || outcome != DBOUT_TUPLES) {
    dbclear(session, result);
    *why = "Der Datensatz konnte nicht erneut gelesen werden";
    return false;
  }
  int n = dbntuples(session, result);
  if (n != 1) {
    *why = n == 0 ? "Der Datensatz mit " + condition + " ist nicht mehr vorhanden"
                  : "Der Schlüssel " + condition + " ist nicht eindeutig (" + std::to_string(n) +
                        " Zeilen)";
  } else {
    for (size_t i = 0; i < row.values.size(); ++i) {
      std::string now = dbgetshown(session, result, 0, static_cast<int>(i));
      if (now == row.values[i]) continue;
      if (why->empty()) why->assign("Inzwischen geändert:");
      *why += "\n" + row.info.names[i] + " ist jetzt '" + now + "' (angezeigt: '" + row.values[i] +
              "')";
    }
  }
  dbclear(session, result);
  return why->empty();
}

// Runs `stmt`, which changes the dialog's row, in its own transaction: reads
// the row again first, and commits only when it was unchanged and the server
// changed exactly one row; otherwise takes everything back. Returns 1 when
// committed; 0 after showing `failed` with the reason, or after the box of
// a lost server alone.
int change_row(const std::string &stmt, const std::string &condition, const char *failed) {
  DBSESSION *session = zentiq_app().session;
  if (!zentiq_begin_level(session)) return 0;
  std::string why;
  if (!row_unchanged(session, condition, &why)) {
    zentiq_abort_level(session);
    if (!zentiq_loss_told(session)) fl_show_error(failed, why.c_str(), "");
    return 0;
  }
  // The journal keeps the row as it was, and as the change left it.
  ZqRecordedChange recorded;
  if (!recorded.before(session, stmt.rfind("UPDATE", 0) == 0, zentiq_app().detail_row.info.table,
                       "WHERE " + condition)) {
    zentiq_abort_level(session);
    recorded.tell(failed);
    return 0;
  }
  DBRESULT *result = nullptr;
  int outcome = 0;
  bool ran = dbexec1(session, stmt.c_str(), &result, &outcome) && outcome == DBOUT_DONE;
  int changed = ran ? dbntuples(session, result) : -1;
  // The server's or the parser's reason, with its error number.
  std::string reason = !ran && result ? DBresult_error(result) : "";
  while (!reason.empty() && reason.back() == '\n') reason.pop_back();
  dbclear(session, result);
  if (!ran || changed != 1) {
    zentiq_abort_level(session);
    if (zentiq_loss_told(session)) return 0;
    std::string text = reason;
    if (ran)
      text = std::to_string(changed) + " Zeilen in " + zentiq_app().detail_row.info.table +
             " mit " + condition + " betroffen - Änderung zurückgenommen";
    fl_show_error(failed, text.c_str(), "");
    return 0;
  }
  if (!recorded.commit(session)) {
    recorded.tell(failed);
    return 0;
  }
  return 1;
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

int zentiq_detail_lines() { return static_cast<int>(zentiq_app().detail_row.info.names.size()); }

void zentiq_create_detail_form() {
  ZqDetailForm &d = zentiq_app().detail;
  d.form = fl_begin_form(FL_NO_BOX, 591, 661);
  // The window grows: the tabbox takes the extra space, the value input the
  // extra width; the buttons keep their distance to the right edge, the
  // bottom row its distance to the bottom edge.
  FL_OBJECT *bg = fl_add_box(FL_UP_BOX, 0, 0, 595, 680, "");
  fl_set_object_lsize(bg, FL_NORMAL_SIZE);
  fl_set_object_resize(bg, 0, 100, 0, 100);
  d.help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 590, 656, "");
  fl_set_object_lsize(d.help, FL_NORMAL_SIZE);
  fl_set_object_callback(d.help, myfl_cb_help, 0);
  fl_set_object_resize(d.help, 0, 100, 0, 100);
  FL_OBJECT *h = fl_add_text(0, 20, 10, 180, 20, "Zentiq-Detail");
  fl_set_object_lsize(h, FL_LARGE_SIZE);
  fl_set_object_lstyle(h, FL_EMBOSSED_STYLE);
  fl_set_object_lalign(h, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  d.del = button(500, 10, 70, 21, "Löschen", zentiq_delete_row);
  fl_set_object_resize(d.del, 100, 0, 0, 0);
  d.tabbox = fl_add_tabbox(0, 20, 40, 550, 565, "");
  fl_set_object_resize(d.tabbox, 0, 100, 0, 100);
  d.value = fl_add_input(FL_NORMAL_INPUT, 60, 620, 430, 21, "Wert ");
  fl_set_object_lsize(d.value, FL_MEDIUM_SIZE);
  fl_set_object_lalign(d.value, FL_ALIGN_LEFT);
  fl_set_object_resize(d.value, 0, 100, 100, 0);
  d.update = button(500, 620, 70, 21, "Update", zentiq_update_value);
  fl_set_object_resize(d.update, 100, 0, 100, 0);
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
  std::vector<std::string> values;
  if (record) values = zentiq_row_values(static_cast<ZqRecord *>(record)->text);
  if (!record || values.size() != app.result.names.size()) {
    fl_show_message("Ungültiger Eintrag in der Tabbox", "", "");
    return;
  }
  // The dialog keeps the row's values itself: the tabbox shows them, but
  // edits and the check before a change work on the values as they were.
  app.detail_row = {app.result, values};
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

void zentiq_edit_value(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  int col = selected_column();
  if (col < 0) return;
  const std::string &value = app.detail_row.values[static_cast<size_t>(col)];
  if (value.size() >= static_cast<size_t>(ZQ_VALUE_MAX)) {
    fl_show_warning("Wert ist nicht editierbar!", "String ist länger als 4000 Zeichen", "");
    return;
  }
  // The value as it is: the update quotes it (see literal).
  fl_set_input(app.detail.value, value.c_str());
  fl_set_focus_object(app.detail.form, app.detail.value);
}

void zentiq_update_value(FL_OBJECT *, long) {
  ZqApp &app = zentiq_app();
  const ZqDetailRow &row = app.detail_row;
  if (!zentiq_ro_permits("Update")) return;
  std::string condition;
  if (!key_condition("Update nicht möglich", &condition)) return;
  int col = selected_column();
  if (col < 0) {
    fl_show_warning("Update nicht möglich",
                    "Bitte zuerst in der Liste die Zeile des Attributs wählen, dessen Wert "
                    "geändert werden soll",
                    "");
    return;
  }
  std::string value = fl_get_input(app.detail.value);
  if (value.size() >= static_cast<size_t>(ZQ_VALUE_MAX)) {
    fl_show_warning("Update nicht möglich!", "Wert-String zu lange (maximal 4000 Zeichen erlaubt)",
                    "");
    return;
  }
  int type = row.info.types[static_cast<size_t>(col)];
  std::string lit;
  if (!literal(type, value, &lit)) {
    fl_show_warning("Update nicht möglich!", "Der Wert ist keine Zahl", "");
    return;
  }
  std::string stmt = "UPDATE " + row.info.table + " SET " +
                     row.info.names[static_cast<size_t>(col)] + " = " + lit + " WHERE " +
                     condition + ";";
  if (change_row(stmt, condition, "Datensatz konnte nicht geändert werden!"))
    after_change("Datensatz wurde geändert");
}

void zentiq_delete_row(FL_OBJECT *, long) {
  const ZqDetailRow &row = zentiq_app().detail_row;
  if (!zentiq_ro_permits("Löschen")) return;
  std::string condition;
  if (!key_condition("Löschen nicht möglich", &condition)) return;
  std::string which = "Tabelle " + row.info.table + ", " + condition;
  if (fl_show_question("Der ausgewählte Datensatz wird gelöscht!", which.c_str(),
                       "Wollen Sie dennoch fortfahren?", 2, "Ja", "Nein", "", 2) != 1)
    return;
  std::string stmt = "DELETE FROM " + row.info.table + " WHERE " + condition + ";";
  if (change_row(stmt, condition, "Datensatz konnte nicht gelöscht werden!"))
    after_change("Datensatz wurde gelöscht");
}
