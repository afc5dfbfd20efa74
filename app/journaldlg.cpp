// The "Journal" dialog of the viewer (see journaldlg.h).
#include "app/journaldlg.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <vector>

#include "app/journalrec.h"
#include "app/mainform.h"
#include "app/readonly.h"
#include "app/viewer.h"
#include "db/access/jrnundo.h"
#include "db/access/journal.h"
#include "forms/dialogs.h"
#include "forms/mytabs.h"
#include "framework/combo.h"
#include "framework/dbtabbox.h"
#include "framework/focus.h"
#include "framework/help.h"
#include "framework/place.h"

namespace {

// The entries of the file last read, in file order.
std::vector<JrnEntry> g_entries;
std::string g_path;

constexpr const char *kTitle = "NR,ZEIT,TABELLE,ART,ZEILEN,STATUS,BEZUG,BENUTZER";
const char *list_title(FL_OBJECT *) { return kTitle; }

std::string upper(std::string t) {
  for (char &c : t) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return t;
}

const char *status_text(const JrnEntry &e) {
  if (e.undone_by) return "rückgängig gemacht";
  return e.status == JRN_COMMITTED ? "bestätigt"
         : e.status == JRN_ABORTED ? "abgebrochen"
                                   : "unbekannt";
}

// The status filter's codes: A all, C committed, X aborted, U unknown, R undone.
bool status_matches(const JrnEntry &e, const std::string &code) {
  if (code.empty() || code == "A") return true;
  if (code == "R") return e.undone_by != 0;
  if (e.undone_by) return false;
  return (code == "C" && e.status == JRN_COMMITTED) || (code == "X" && e.status == JRN_ABORTED) ||
         (code == "U" && e.status == JRN_UNKNOWN);
}

size_t row_count(const JrnEntry &e) { return std::max(e.before.size(), e.after.size()); }

std::string kind_text(const JrnEntry &e) { return upper(jrn_kind_name(e.kind)); }

// How the entry stands to the undos: "nimmt 3 zurück", "zurückgenommen mit 5".
std::string relation_text(const JrnEntry &e) {
  std::string t;
  if (!e.undoes.empty())
    for (const JrnEntry &o : g_entries)
      if (o.token == e.undoes) t = "nimmt " + std::to_string(o.number) + " zurück";
  if (e.undone_by)
    t += (t.empty() ? "" : ", ") + std::string("zurückgenommen mit ") + std::to_string(e.undone_by);
  return t;
}

std::string value_text(const JrnValue &v) { return v ? "'" + *v + "'" : "(kein Wert)"; }

// The entry's rows and the statements that take it back, for the details box.
std::string details(const JrnEntry &e) {
  std::string rel = relation_text(e);
  std::string out = "Eintrag " + std::to_string(e.number) + ": " + kind_text(e) + " in " + e.table +
                    " (Datenbank " + e.database + "), " + e.time + " UTC, " + e.user + ", " +
                    status_text(e) + (rel.empty() ? "" : ", " + rel) + "\n";
  int k = jrn_key_index(e);
  for (size_t i = 0; i < row_count(e); ++i) {
    const JrnRow *b = i < e.before.size() ? &e.before[i] : nullptr;
    const JrnRow *a = i < e.after.size() ? &e.after[i] : nullptr;
    const JrnRow &any = b ? *b : *a;
    out += e.key + " = " +
           (k >= 0 && any[static_cast<size_t>(k)] ? *any[static_cast<size_t>(k)] : "") + ":";
    for (size_t c = 0; c < e.columns.size(); ++c) {
      if (b && a) {
        if ((*b)[c] == (*a)[c]) continue;
        out += " " + e.columns[c] + " " + value_text((*b)[c]) + " -> " + value_text((*a)[c]) + ";";
      } else {
        out += " " + e.columns[c] + " = " + value_text(any[c]) + ";";
      }
    }
    out += "\n";
  }
  out += "\nBefehle der Rücknahme:\n";
  for (const std::string &s : jrn_undo_statements(e)) out += s + "\n";
  return out;
}

const JrnEntry *selected_entry() {
  ZqJournalForm &f = zentiq_journal_form();
  void *record = myfl_get_tabbox(f.list);
  if (!record) return nullptr;
  std::vector<std::string> values = zentiq_row_values(static_cast<ZqRecord *>(record)->text);
  int number = values.empty() ? 0 : std::atoi(values[0].c_str());
  for (const JrnEntry &e : g_entries)
    if (e.number == number) return &e;
  return nullptr;
}

// For an entry whose outcome is unknown: what the data says about it.
std::string checked_text(const JrnEntry &e) {
  std::string why;
  switch (jrn_check(zentiq_app().session, e, &why)) {
  case JRN_CHECK_AFTER:
    return "Prüfung: die Daten haben den Stand nach der Änderung - sie ist gespeichert.\n";
  case JRN_CHECK_BEFORE:
    return "Prüfung: die Daten haben den Stand vor der Änderung - sie ist nicht gespeichert.\n";
  case JRN_CHECK_NEITHER:
    return "Prüfung: die Zeilen wurden seither anders geändert.\n";
  default:
    return "Prüfung nicht möglich: " + why + "\n";
  }
}

void show_details(FL_OBJECT *, long) {
  const JrnEntry *e = selected_entry();
  std::string text = e ? details(*e) : "";
  if (e && e->status == JRN_UNKNOWN && !e->undone_by) text = checked_text(*e) + text;
  fl_set_input(zentiq_journal_form().details, text.c_str());
}

// Fills the list from g_entries by the filters, newest first.
void fill_list() {
  ZqJournalForm &f = zentiq_journal_form();
  std::string table = upper(fl_get_input(f.table));
  while (!table.empty() && table.back() == ' ') table.pop_back();
  const char *code = myfl_get_cmb_code(f.status);
  std::string status = code ? code : "";
  fl_clear_tabbox(f.list);
  myfl_free_tabbox(f.list);
  myfl_init_db_tabbox_no_ini(f.form, f.list, "JZTQ", list_title, zentiq_new_record, nullptr,
                             nullptr, zentiq_accept_record, show_details);
  std::vector<void *> records;
  for (auto it = g_entries.rbegin(); it != g_entries.rend(); ++it) {
    const JrnEntry &e = *it;
    if ((!table.empty() && e.table != table) || !status_matches(e, status)) continue;
    records.push_back(zentiq_make_record(
        zentiq_row_text({std::to_string(e.number), e.time, e.table, kind_text(e),
                         std::to_string(row_count(e)), status_text(e), relation_text(e), e.user})));
  }
  myfl_load_multiple_tabbox(
      zentiq_app().session, f.list,
      [](DBSESSION *, void *record, int) -> const char * {
        return static_cast<ZqRecord *>(record)->text;
      },
      records.data(), static_cast<int>(records.size()));
  for (void *r : records) std::free(r);
  fl_set_input(f.details, "");
}

int journal_atclose(FL_FORM *form, void *) {
  myfl_hide_form(form);
  return -1;
}

FL_OBJECT *button(int x, int y, int w, const char *label, FL_CALLBACKPTR cb) {
  FL_OBJECT *o = fl_add_button(FL_NORMAL_BUTTON, x, y, w, 21, label);
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_callback(o, cb, 0);
  return o;
}

void create_form() {
  ZqJournalForm &f = zentiq_journal_form();
  f.form = fl_begin_form(FL_NO_BOX, 761, 581);
  // The list takes the extra height and width; the buttons keep their
  // distance to the right and bottom edges.
  FL_OBJECT *bg = fl_add_box(FL_UP_BOX, 0, 0, 765, 600, "");
  fl_set_object_resize(bg, 0, 100, 0, 100);
  f.help = fl_add_button(FL_HIDDEN_BUTTON, 0, 0, 760, 576, "");
  fl_set_object_callback(f.help, myfl_cb_help, 0);
  fl_set_object_resize(f.help, 0, 100, 0, 100);
  FL_OBJECT *h = fl_add_text(0, 20, 10, 200, 20, "Zentiq-Journal");
  fl_set_object_lsize(h, FL_LARGE_SIZE);
  fl_set_object_lstyle(h, FL_EMBOSSED_STYLE);
  fl_set_object_lalign(h, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  f.table = fl_add_input(FL_NORMAL_INPUT, 80, 40, 150, 21, "Tabelle ");
  f.status = fl_add_input(FL_NORMAL_INPUT, 300, 40, 160, 21, "Status ");
  f.status_button = button(460, 40, 20, "@2->|", myfl_cb_open_cmb);
  for (FL_OBJECT *o : {f.table, f.status}) {
    fl_set_object_lsize(o, FL_MEDIUM_SIZE);
    fl_set_object_lalign(o, FL_ALIGN_LEFT);
  }
  fl_set_object_callback(
      f.table, [](FL_OBJECT *, long) { fill_list(); }, 0);
  f.refresh = button(620, 40, 120, "Aktualisieren", zentiq_journal_refresh);
  fl_set_object_resize(f.refresh, 100, 0, 0, 0);
  f.list = fl_add_tabbox(2, 20, 70, 720, 300, "");
  fl_set_object_resize(f.list, 0, 100, 0, 100);
  // The details follow the selection (a click or the arrow keys), not only a
  // double click, so that the statements an undo would run are seen before
  // "Rückgängig" is pressed.
  fl_set_object_callback(f.list, show_details, 0);
  f.details = fl_add_input(FL_MULTILINE_INPUT, 20, 380, 720, 150, "");
  fl_set_object_lstyle(f.details, FL_FIXED_STYLE);
  fl_set_object_resize(f.details, 0, 100, 100, 0);
  f.undo = button(20, 545, 120, "Rückgängig", zentiq_journal_undo);
  f.file = fl_add_text(0, 150, 545, 460, 21, "");
  fl_set_object_lalign(f.file, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  f.close = button(620, 545, 120, "Schließen",
                   [](FL_OBJECT *, long) { myfl_hide_form(zentiq_journal_form().form); });
  for (FL_OBJECT *o : {f.undo, f.file}) fl_set_object_resize(o, 0, 0, 100, 0);
  fl_set_object_resize(f.close, 100, 0, 100, 0);
  fl_end_form();

  myfl_set_form_name(f.form, -1, "Zentiq-Journal");
  myfl_init_helpdialog(f.form, f.help, "JZTQ_HLP");
  fl_set_object_shortcut(f.undo, "#r#R", 1);
  myfl_init_data_cmb(f.form, f.status, f.status_button,
                     "alle,A|bestätigt,C|abgebrochen,X|unbekannt,U|rückgängig gemacht,R", 1);
  myfl_set_cmb_code(f.status, "A");
  myfl_set_cmb_callback(
      f.status, [](FL_OBJECT *, long) { fill_list(); }, 0);
  myfl_init_db_tabbox_no_ini(f.form, f.list, "JZTQ", list_title, zentiq_new_record, nullptr,
                             nullptr, zentiq_accept_record, show_details);
  myfl_define_ctrl_tabbox(f.form, f.list);
  myfl_define_focus_first(f.form, f.list);
  myfl_set_form_atclose(f.form, journal_atclose, nullptr);
}

// The German lines of the differences that stop an undo.
std::string problem_text(const std::vector<JrnProblem> &problems, const std::string &key) {
  std::string out;
  for (const JrnProblem &p : problems) {
    if (p.what == JrnProblem::GONE)
      out += "Zeile " + key + " = " + p.key + " gibt es nicht mehr\n";
    else if (p.what == JrnProblem::KEY_TAKEN)
      out += "Zeile " + key + " = " + p.key + " gibt es inzwischen wieder\n";
    else if (p.what == JrnProblem::DOUBLED)
      out += "Zeile " + key + " = " + p.key + " gibt es inzwischen mehrfach\n";
    else
      out += "Zeile " + key + " = " + p.key + ": " + p.column + " ist jetzt " + value_text(p.now) +
             " (die Änderung hinterließ " + value_text(p.left) + ")\n";
  }
  return out;
}

} // namespace

ZqJournalForm &zentiq_journal_form() {
  static ZqJournalForm f;
  return f;
}

FL_OBJECT *zentiq_add_journal_button(int x, int y) {
  FL_OBJECT *o = fl_add_button(FL_NORMAL_BUTTON, x, y, 100, 21, "Journal");
  fl_set_object_lsize(o, FL_MEDIUM_SIZE);
  fl_set_object_callback(o, zentiq_open_journal, 0);
  fl_set_object_resize(o, 0, 0, 100, 0);
  return o;
}

void zentiq_journal_refresh(FL_OBJECT *, long) {
  ZqJournalForm &f = zentiq_journal_form();
  g_path = zentiq_journal_path();
  std::string why;
  if (!jrn_read(g_path, &g_entries, &why)) {
    g_entries.clear();
    fl_show_error("Das Journal konnte nicht gelesen werden", why.c_str(), "");
  }
  fl_set_object_label(f.file, ("Datei: " + g_path).c_str());
  fill_list();
}

void zentiq_open_journal(FL_OBJECT *, long) {
  ZqJournalForm &f = zentiq_journal_form();
  if (!f.form) create_form();
  zentiq_journal_refresh(nullptr, 0);
  std::string title = "Zentiq-Journal - " + zentiq_current_database();
  myfl_show_form(f.form, zentiq_ro_title(title).c_str());
  fl_raise_form(f.form);
}

int zentiq_journal_select(int number) {
  ZqJournalForm &f = zentiq_journal_form();
  for (int line = 1; line <= fl_get_tabbox_maxline(f.list); ++line) {
    const char *nr = myfl_get_tabbox_attrib_info(f.list, line, 1);
    if (nr && std::atoi(nr) == number) {
      fl_deselectall_tabbox(f.list);
      fl_select_tabbox_line(f.list, line);
      show_details(nullptr, 0);
      return 1;
    }
  }
  return 0;
}

void zentiq_journal_undo(FL_OBJECT *, long) {
  ZqJournalForm &f = zentiq_journal_form();
  const JrnEntry *chosen = selected_entry();
  if (!chosen) {
    fl_show_message("Bitte zuerst in der Liste den Eintrag wählen,",
                    "der zurückgenommen werden soll.", "");
    return;
  }
  JrnEntry e = *chosen;
  std::string nr = std::to_string(e.number);
  if (e.status == JRN_ABORTED) {
    fl_show_message(("Eintrag " + nr + " wurde nicht gespeichert (abgebrochen).").c_str(),
                    "Es gibt nichts zurückzunehmen.", "");
    return;
  }
  if (e.undone_by) {
    std::string by =
        "Er wurde bereits mit Eintrag " + std::to_string(e.undone_by) + " zurückgenommen.";
    fl_show_message(("Eintrag " + nr + " ist schon rückgängig gemacht.").c_str(), by.c_str(), "");
    return;
  }
  if (!zentiq_ro_permits("Rückgängig machen")) return;
  std::vector<std::string> stmts = jrn_undo_statements(e);
  fl_set_input(f.details, details(e).c_str());
  std::string what =
      std::to_string(stmts.size()) +
      (stmts.size() == 1 ? " Befehl (unten angezeigt) wird" : " Befehle (unten angezeigt) werden") +
      " in einer Transaktion ausgeführt,";
  if (fl_show_question(("Eintrag " + nr + " rückgängig machen?").c_str(), what.c_str(),
                       "nachdem jede Zeile geprüft ist.", 2, "Ja", "Nein", "", 2) != 1)
    return;
  std::vector<JrnProblem> problems;
  std::string why;
  int number = 0;
  int done = jrn_undo(zentiq_app().session, g_path, e, &problems, &why, &number);
  if (done == JRN_UNDO_CHANGED) {
    std::string diff = problem_text(problems, e.key);
    fl_set_input(
        f.details,
        ("Rücknahme abgelehnt - seit der Änderung geändert:\n" + diff + "\n" + details(e)).c_str());
    fl_show_error(("Eintrag " + nr + " kann nicht rückgängig gemacht werden:").c_str(),
                  "Die Daten wurden seit der Änderung geändert; nichts wurde geschrieben.",
                  diff.c_str());
    return;
  }
  if (done == JRN_UNDO_FAILED) {
    fl_show_error(("Eintrag " + nr + " konnte nicht rückgängig gemacht werden").c_str(),
                  why.c_str(), "Nichts wurde geändert.");
    return;
  }
  if (done == JRN_UNDO_NOT_ENDED) {
    if (!zentiq_loss_told(zentiq_app().session))
      fl_show_error("Funktion 'dbend' lieferte Fehler",
                    "Die Änderungen des Befehls wurden nicht gespeichert", "");
    zentiq_journal_refresh(nullptr, 0);
    return;
  }
  zentiq_journal_refresh(nullptr, 0);
  zentiq_journal_select(number);
  fl_show_message(
      ("Eintrag " + nr + " wurde rückgängig gemacht").c_str(),
      ("Die Rücknahme steht im Journal als Eintrag " + std::to_string(number) + ".").c_str(), "");
}
