// The tabbox dialogs (see tabdialogs.h), built with the toolkit's objects.
// A dialog is hidden, never freed, when it closes; its "open" state is the
// form's visibility.
#include "framework/tabdialogs.h"

#include "base/ini.h"
#include "base/msg.h"
#include "forms/dialogs.h"
#include "forms/editor.h"
#include "forms/mytabs.h"
#include "framework/dbtabbox.h"
#include "framework/help.h"
#include "framework/place.h"
#include "framework/tabexport.h"
#include "framework/tabset.h"

#include <sys/stat.h>

#include <QClipboard>
#include <QFileDialog>
#include <QGuiApplication>

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

MYFL_TABBOX_DIALOGS g_dlg;
FL_OBJECT *g_main_tabbox = nullptr;

// The column numbers behind the entries of the settings and sort lists, and
// the sort keys (column, direction 1 ascending) being edited.
struct ListData {
  std::vector<int> available, selected, sort_columns;
  std::vector<int> keys, dirs;
  int comma = -1;
};
ListData g_set, g_sort;

struct Props {
  int n = 0, *end = nullptr, *order = nullptr, *visible = nullptr, nsort = 0, *cols = nullptr,
      *dirs = nullptr, maxwidth = -1, *colmax = nullptr;
};

Props props_of(FL_OBJECT *tb) {
  Props p;
  fl_get_tabbox_properties(tb, &p.n, &p.end, &p.order, &p.visible, &p.nsort, &p.cols, &p.dirs,
                           &p.maxwidth, &p.colmax);
  return p;
}

// The trimmed title of column col.
std::string column_title(FL_OBJECT *tb, int col) {
  std::string t = mytabs_get_field(tb, fl_get_tabbox_full_title(tb), col);
  return t.empty() ? "Spalte " + std::to_string(col) : t;
}

std::string key_text(FL_OBJECT *tb, int col, int dir) {
  return column_title(tb, col) + (dir ? " (aufw)" : " (abw)");
}

bool is_open(FL_FORM *form) { return form && form->visible; }

// Shows the dialog at its remembered place, or raises it when it is open.
void show(FL_FORM *form, const char *title) {
  if (form->visible)
    fl_raise_form(form);
  else
    myfl_show_form(form, title);
}

void close_form(FL_FORM *form, const char *closed_text) {
  if (!is_open(form)) {
    msg_print("%s\n", closed_text);
    return;
  }
  myfl_hide_form(form);
}

// Close handler of every dialog: it is hidden (its place remembered), never
// freed.
int hide_on_close(FL_FORM *form, void *) {
  myfl_hide_form(form);
  return -1;
}

// Names the dialog (the key of its remembered place), sets its close
// handler and gives its "Hilfe" button the help key.
void finish_dialog(FL_FORM *form, const char *name, FL_OBJECT *help, const char *key) {
  myfl_set_form_name(form, -1, name);
  myfl_set_form_atclose(form, hide_on_close, nullptr);
  myfl_init_helpdialog(form, help, key);
}

// ---- Sort keys shared by the settings and the sort dialog ---------------------------

void fill_keys(FL_OBJECT *list, FL_OBJECT *tb, const ListData &d) {
  fl_clear_listbox(list);
  for (size_t i = 0; i < d.keys.size(); ++i)
    fl_addto_listbox(list, key_text(tb, d.keys[i], d.dirs[i]).c_str());
}

// Adds the column chosen in `from` (entries `cols`) as a key with dir.
void add_key(FL_OBJECT *from, const std::vector<int> &cols, FL_OBJECT *keys, ListData &d, int dir) {
  int i = fl_get_listbox(from);
  if (i < 1 || i > static_cast<int>(cols.size())) return;
  int col = cols[i - 1];
  for (size_t k = 0; k < d.keys.size(); ++k)
    if (d.keys[k] == col) {
      d.dirs[k] = dir;
      fill_keys(keys, g_dlg.tabbox, d);
      return;
    }
  d.keys.push_back(col);
  d.dirs.push_back(dir);
  fill_keys(keys, g_dlg.tabbox, d);
}

void remove_key(FL_OBJECT *keys, ListData &d) {
  int i = fl_get_listbox(keys);
  if (i < 1 || i > static_cast<int>(d.keys.size())) return;
  d.keys.erase(d.keys.begin() + (i - 1));
  d.dirs.erase(d.dirs.begin() + (i - 1));
  fill_keys(keys, g_dlg.tabbox, d);
}

// Writes the tabbox's current settings (managed tabboxes only).
void store(FL_OBJECT *tb) {
  if (myfl_find_tabbox(tb)) myfl_save_tabbox_ini(tb);
}

void refresh(FL_OBJECT *tb) {
  if (myfl_find_tabbox(tb))
    myfl_draw_tabbox(tb);
  else
    fl_draw_tabbox(tb);
}

// ---- Settings dialog -----------------------------------------------------------------

void fill_columns() {
  FL_OBJECT *tb = g_dlg.tabbox;
  fl_clear_listbox(g_dlg.set_available);
  fl_clear_listbox(g_dlg.set_selected);
  for (int col : g_set.selected)
    fl_addto_listbox(g_dlg.set_selected, column_title(tb, col).c_str());
  for (int col : g_set.available)
    fl_addto_listbox(g_dlg.set_available, column_title(tb, col).c_str());
}

void set_move_cb(FL_OBJECT *obj, long) {
  if (obj == g_dlg.set_add) {
    int i = fl_get_listbox(g_dlg.set_available);
    if (i < 1 || i > static_cast<int>(g_set.available.size())) return;
    g_set.selected.push_back(g_set.available[i - 1]);
    g_set.available.erase(g_set.available.begin() + (i - 1));
  } else if (obj == g_dlg.set_remove) {
    int i = fl_get_listbox(g_dlg.set_selected);
    if (i < 1 || i > static_cast<int>(g_set.selected.size())) return;
    g_set.available.push_back(g_set.selected[i - 1]);
    g_set.selected.erase(g_set.selected.begin() + (i - 1));
  } else {
    // "@<->": every column, in title order.
    g_set.selected.clear();
    g_set.available.clear();
    for (int c = 1; c < props_of(g_dlg.tabbox).n; ++c) g_set.selected.push_back(c);
  }
  fill_columns();
}

void set_sort_cb(FL_OBJECT *obj, long) {
  if (obj == g_dlg.set_sort_remove) {
    remove_key(g_dlg.set_sort, g_set);
    return;
  }
  int dir = obj == g_dlg.set_up ? 1 : 0;
  // The column chosen in either list.
  if (fl_get_listbox(g_dlg.set_selected) > 0)
    add_key(g_dlg.set_selected, g_set.selected, g_dlg.set_sort, g_set, dir);
  else
    add_key(g_dlg.set_available, g_set.available, g_dlg.set_sort, g_set, dir);
}

// Reads an integer input: -1 when empty.
int int_input(FL_OBJECT *input) {
  const char *t = fl_get_input(input);
  return t && *t ? std::atoi(t) : -1;
}

void set_ok_cb(FL_OBJECT *, long) {
  FL_OBJECT *tb = g_dlg.tabbox;
  if (!tb) return;
  int comma = int_input(g_dlg.set_comma);
  if (comma > 20) {
    fl_show_message("Maximal 20 Nachkommastellen sind zulässig!", "", "");
    return;
  }
  MYFL_TABBOX *m = myfl_find_tabbox(tb);
  int kz = fl_get_button(g_dlg.set_dbnames) ? 1 : 0;
  if (m) m->kz_dbnames = kz;
  fl_set_tabbox_maxwidth(tb, int_input(g_dlg.set_maxwidth));
  fl_set_tabbox_comma(tb, comma);

  Props p = props_of(tb);
  for (int k = 1; k < p.n; ++k) {
    p.visible[k] = 0;
    p.order[k] = -1;
  }
  int lines = fl_get_listbox_maxline(g_dlg.set_selected);
  for (int i = 1, slot = 1; i <= lines; ++i) {
    if (i > static_cast<int>(g_set.selected.size())) {
      fl_show_message("Ungültiger COL-Eintrag", "", "");
      return;
    }
    int col = g_set.selected[i - 1];
    if (col < 1 || col >= p.n || slot >= p.n) continue;
    p.order[slot++] = col;
    p.visible[col] = 1;
  }
  if (fl_get_listbox_maxline(g_dlg.set_available) > static_cast<int>(g_set.available.size())) {
    fl_show_message("Ungültiger COL-Eintrag", "", "");
    return;
  }
  int nkeys = fl_get_listbox_maxline(g_dlg.set_sort);
  if (nkeys > static_cast<int>(g_set.keys.size())) {
    fl_show_message("Ungültiger SORT-Eintrag", "", "");
    return;
  }
  int vertical = fl_get_button(g_dlg.set_vertical) ? 1 : 0;
  if (m) {
    std::string key = myfl_tabbox_ini_key(tb);
    std::string line =
        myfl_tabbox_ini_line(key, vertical, kz, p.n, p.order, nkeys, g_set.keys.data(),
                             g_set.dirs.data(), p.maxwidth, p.colmax);
    if (nkeys > 0) line.insert(line.size() - 1, myfl_tabbox_columns_token(tb) + " ");
    INI_PutLine(myfl_get_appl_name(), key.c_str(), line.c_str());
  }
  fl_set_tabbox_sort(tb, nkeys, g_set.keys.data(), g_set.dirs.data());
  if (vertical)
    fl_set_tabbox_vert(tb);
  else
    fl_unset_tabbox_vert(tb);
  if (comma != g_set.comma) {
    if (tb == g_main_tabbox) {
      fl_show_message("Nachkommastellen-Definition nicht möglich.", "", "");
      fl_set_tabbox_comma(tb, -1);
    } else {
      fl_show_message("Nachkommastellen werden erst nach Neubefüllung berücksichtigt!", "", "");
    }
  }
  refresh(tb);
  myfl_hide_form(g_dlg.settings);
}

void set_cancel_cb(FL_OBJECT *, long) { myfl_hide_form(g_dlg.settings); }

void build_settings() {
  FL_FORM *f = fl_begin_form(0, 560, 420);
  g_dlg.settings = f;
  fl_add_box(FL_UP_BOX, 0, 0, 560, 420, "");
  g_dlg.set_dbnames = fl_add_checkbutton(FL_PUSH_BUTTON, 20, 15, 200, 25, " Datenbanknamen");
  g_dlg.set_vertical =
      fl_add_checkbutton(FL_PUSH_BUTTON, 20, 45, 200, 25, " vertikale Darstellung");
  g_dlg.set_comma = fl_add_input(FL_INT_INPUT, 440, 15, 60, 25, "Nachkommastellen ");
  g_dlg.set_maxwidth = fl_add_input(FL_INT_INPUT, 440, 45, 60, 25, "max. Spaltenbreite ");
  fl_set_input_maxchars(g_dlg.set_comma, 3);
  fl_set_input_maxchars(g_dlg.set_maxwidth, 5);
  g_dlg.set_available = fl_add_listbox(FL_NORMAL_LISTBOX, 20, 100, 200, 150, "verfügbare Spalten");
  fl_set_object_lalign(g_dlg.set_available, FL_ALIGN_TOP);
  g_dlg.set_selected = fl_add_listbox(FL_NORMAL_LISTBOX, 300, 100, 200, 150, "ausgewählte Spalten");
  fl_set_object_lalign(g_dlg.set_selected, FL_ALIGN_TOP);
  g_dlg.set_add = fl_add_button(FL_NORMAL_BUTTON, 235, 120, 50, 25, "@8->");
  g_dlg.set_remove = fl_add_button(FL_NORMAL_BUTTON, 235, 160, 50, 25, "@8<-");
  g_dlg.set_all = fl_add_button(FL_NORMAL_BUTTON, 235, 200, 50, 25, "@<->");
  for (FL_OBJECT *b : {g_dlg.set_add, g_dlg.set_remove, g_dlg.set_all})
    fl_set_object_callback(b, set_move_cb, 0);
  g_dlg.set_sort = fl_add_listbox(FL_NORMAL_LISTBOX, 20, 280, 280, 90, "Sortierung");
  fl_set_object_lalign(g_dlg.set_sort, FL_ALIGN_TOP);
  g_dlg.set_up = fl_add_button(FL_NORMAL_BUTTON, 310, 280, 60, 25, "aufw");
  g_dlg.set_down = fl_add_button(FL_NORMAL_BUTTON, 310, 312, 60, 25, "abw");
  g_dlg.set_sort_remove = fl_add_button(FL_NORMAL_BUTTON, 310, 344, 60, 25, "entf.");
  for (FL_OBJECT *b : {g_dlg.set_up, g_dlg.set_down, g_dlg.set_sort_remove})
    fl_set_object_callback(b, set_sort_cb, 0);
  FL_OBJECT *help = g_dlg.help[0] = fl_add_button(FL_NORMAL_BUTTON, 20, 382, 100, 28, "Hilfe");
  g_dlg.set_ok = fl_add_button(FL_NORMAL_BUTTON, 320, 382, 100, 28, "OK");
  fl_set_object_callback(g_dlg.set_ok, set_ok_cb, 0);
  g_dlg.set_cancel = fl_add_button(FL_NORMAL_BUTTON, 440, 382, 100, 28, "Abbrechen");
  fl_set_object_callback(g_dlg.set_cancel, set_cancel_cb, 0);
  fl_end_form();
  finish_dialog(f, "Tabbox Einstellungen", help, "TBSET_HLP");
}

// ---- Sort dialog --------------------------------------------------------------------

void sort_key_cb(FL_OBJECT *obj, long) {
  if (obj == g_dlg.sort_remove)
    remove_key(g_dlg.sort_keys, g_sort);
  else
    add_key(g_dlg.sort_columns, g_sort.sort_columns, g_dlg.sort_keys, g_sort,
            obj == g_dlg.sort_up ? 1 : 0);
}

void sort_ok_cb(FL_OBJECT *, long) {
  FL_OBJECT *tb = g_dlg.tabbox;
  if (!tb) return;
  if (fl_get_listbox_maxline(g_dlg.sort_keys) > static_cast<int>(g_sort.keys.size())) {
    fl_show_message("Ungültiger SORT-Eintrag", "", "");
    return;
  }
  fl_set_tabbox_sort(tb, static_cast<int>(g_sort.keys.size()), g_sort.keys.data(),
                     g_sort.dirs.data());
  store(tb);
  fl_draw_tabbox(tb);
  myfl_hide_form(g_dlg.sort);
}

void sort_settings_cb(FL_OBJECT *, long) {
  FL_OBJECT *tb = g_dlg.tabbox;
  myfl_hide_form(g_dlg.sort);
  if (tb && myfl_find_tabbox(tb)) myfl_open_tabbox_settings(tb);
}

void sort_cancel_cb(FL_OBJECT *, long) { myfl_hide_form(g_dlg.sort); }

void build_sort() {
  FL_FORM *f = fl_begin_form(0, 480, 300);
  g_dlg.sort = f;
  fl_add_box(FL_UP_BOX, 0, 0, 480, 300, "");
  g_dlg.sort_columns = fl_add_listbox(FL_NORMAL_LISTBOX, 20, 30, 180, 200, "Spalten");
  fl_set_object_lalign(g_dlg.sort_columns, FL_ALIGN_TOP);
  g_dlg.sort_keys = fl_add_listbox(FL_NORMAL_LISTBOX, 280, 30, 180, 200, "Sortierung");
  fl_set_object_lalign(g_dlg.sort_keys, FL_ALIGN_TOP);
  g_dlg.sort_up = fl_add_button(FL_NORMAL_BUTTON, 210, 50, 60, 25, "aufw");
  g_dlg.sort_down = fl_add_button(FL_NORMAL_BUTTON, 210, 85, 60, 25, "abw");
  g_dlg.sort_remove = fl_add_button(FL_NORMAL_BUTTON, 210, 120, 60, 25, "entf.");
  for (FL_OBJECT *b : {g_dlg.sort_up, g_dlg.sort_down, g_dlg.sort_remove})
    fl_set_object_callback(b, sort_key_cb, 0);
  g_dlg.sort_settings = fl_add_button(FL_NORMAL_BUTTON, 20, 255, 120, 28, "Einstellungen");
  FL_OBJECT *help = g_dlg.help[1] = fl_add_button(FL_NORMAL_BUTTON, 150, 255, 90, 28, "Hilfe");
  fl_set_object_callback(g_dlg.sort_settings, sort_settings_cb, 0);
  g_dlg.sort_ok = fl_add_button(FL_NORMAL_BUTTON, 250, 255, 100, 28, "Sortieren");
  fl_set_object_callback(g_dlg.sort_ok, sort_ok_cb, 0);
  g_dlg.sort_cancel = fl_add_button(FL_NORMAL_BUTTON, 360, 255, 100, 28, "Abbrechen");
  fl_set_object_callback(g_dlg.sort_cancel, sort_cancel_cb, 0);
  fl_end_form();
  finish_dialog(f, "Sortierung-Tabbox", help, "SORT_HLP");
}

// ---- Export dialog ---------------------------------------------------------------------

// The separator and decimal point typed for CSV: one character each, the
// separator also "TAB" (any case) or "\t". False after a message when one
// is missing or longer.
bool csv_choice(char *separator, char *decimal) {
  std::string sep = fl_get_input(g_dlg.exp_separator), dec = fl_get_input(g_dlg.exp_decimal);
  std::string upper = sep;
  for (char &ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  if (upper == "TAB" || sep == "\\t") sep = "\t";
  if (sep.size() != 1 || sep[0] == '"' || sep[0] == '\n' || sep[0] == '\r') {
    fl_show_message("Ungültiges Trennzeichen",
                    "Bitte ein Zeichen (kein Anführungszeichen) oder TAB angeben", "");
    return false;
  }
  if (dec.size() != 1) {
    fl_show_message("Ungültiges Dezimalzeichen", "Bitte genau ein Zeichen angeben", "");
    return false;
  }
  *separator = sep[0];
  *decimal = dec[0];
  return true;
}

// "Durchsuchen...": the file chooser, starting at the name typed; the
// chosen file goes into the name input.
void exp_browse_cb(FL_OBJECT *, long) {
  QString start = QString::fromLatin1(fl_get_input(g_dlg.exp_name));
  QString file = QFileDialog::getSaveFileName(
      g_dlg.exp->window, QString::fromLatin1("Datei für den Export"), start,
      QString::fromLatin1("CSV- und Textdateien (*.csv *.txt);;Alle Dateien (*)"), nullptr,
      QFileDialog::DontConfirmOverwrite);
  if (!file.isEmpty()) fl_set_input(g_dlg.exp_name, file.toLatin1().constData());
}

// The CSV choices are open only while CSV is chosen.
void exp_format_cb(FL_OBJECT *, long) {
  for (FL_OBJECT *o : {g_dlg.exp_separator, g_dlg.exp_decimal}) {
    if (fl_get_button(g_dlg.exp_csv))
      fl_activate_object(o);
    else
      fl_deactivate_object(o);
  }
}

void exp_cb(FL_OBJECT *obj, long) {
  FL_OBJECT *tb = g_dlg.tabbox;
  if (!tb) return;
  const char *name = fl_get_input(g_dlg.exp_name);
  if (!myfl_valid_filename(name)) {
    fl_show_message("Ungültiger Dateiname", "", "");
    return;
  }
  std::string file = myfl_export_filename(name);
  struct stat st;
  if (stat(file.c_str(), &st) == 0 &&
      fl_show_titled_question("Datei existiert bereits", "Soll Datei überschrieben werden?", 2,
                              0) != 1)
    return;
  std::string text, error;
  int all = obj == g_dlg.exp_all;
  bool made = false;
  if (fl_get_button(g_dlg.exp_csv)) {
    char separator = 0, decimal = 0;
    if (!csv_choice(&separator, &decimal)) return;
    made = myfl_export_tabbox_csv(tb, all, separator, decimal, &text, &error);
  } else {
    made = myfl_export_tabbox_text(tb, all, &text, &error);
  }
  if (!made) {
    if (!error.empty()) fl_show_message(error.c_str(), "", "");
    return;
  }
  if (!myfl_write_export(file, text)) {
    fl_show_message("Datei konnte nicht geschrieben werden:", file.c_str(), "");
    return;
  }
  myfl_hide_form(g_dlg.exp);
}

void exp_cancel_cb(FL_OBJECT *, long) { myfl_hide_form(g_dlg.exp); }

void build_export() {
  FL_FORM *f = fl_begin_form(0, 520, 150);
  g_dlg.exp = f;
  fl_add_box(FL_UP_BOX, 0, 0, 520, 150, "");
  g_dlg.exp_name = fl_add_input(FL_NORMAL_INPUT, 100, 15, 290, 25, "Dateiname ");
  fl_set_input_maxchars(g_dlg.exp_name, 4095);
  g_dlg.exp_browse = fl_add_button(FL_NORMAL_BUTTON, 400, 15, 100, 25, "Durchsuchen...");
  fl_set_object_callback(g_dlg.exp_browse, exp_browse_cb, 0);
  g_dlg.exp_csv = fl_add_checkbutton(FL_PUSH_BUTTON, 20, 55, 170, 25, "CSV (RFC 4180, UTF-8)");
  fl_set_object_callback(g_dlg.exp_csv, exp_format_cb, 0);
  g_dlg.exp_separator = fl_add_input(FL_NORMAL_INPUT, 300, 55, 50, 25, "Trennzeichen ");
  fl_set_input(g_dlg.exp_separator, ";");
  g_dlg.exp_decimal = fl_add_input(FL_NORMAL_INPUT, 470, 55, 30, 25, "Dezimalzeichen ");
  fl_set_input(g_dlg.exp_decimal, ",");
  g_dlg.exp_shown = fl_add_button(FL_NORMAL_BUTTON, 20, 105, 120, 28, "exp. Tabbox");
  g_dlg.exp_all = fl_add_button(FL_NORMAL_BUTTON, 150, 105, 120, 28, "exp. alle Daten");
  g_dlg.exp_cancel = fl_add_button(FL_NORMAL_BUTTON, 290, 105, 100, 28, "Abbrechen");
  FL_OBJECT *help = g_dlg.help[2] = fl_add_button(FL_NORMAL_BUTTON, 400, 105, 100, 28, "Hilfe");
  fl_set_object_callback(g_dlg.exp_shown, exp_cb, 0);
  fl_set_object_callback(g_dlg.exp_all, exp_cb, 0);
  fl_set_object_callback(g_dlg.exp_cancel, exp_cancel_cb, 0);
  fl_end_form();
  finish_dialog(f, "Tabbox exportieren", help, "TBEXP_HLP");
  exp_format_cb(nullptr, 0);
}

// ---- Viewer ---------------------------------------------------------------------------

void viewer_close_cb(FL_OBJECT *, long) { myfl_hide_form(g_dlg.viewer); }

void build_viewer() {
  FL_FORM *f = fl_begin_form(0, 620, 460);
  g_dlg.viewer = f;
  fl_add_box(FL_UP_BOX, 0, 0, 620, 460, "");
  g_dlg.viewer_tabbox = fl_add_tabbox(0, 10, 10, 600, 400, "");
  fl_set_tabbox_viewer(g_dlg.viewer_tabbox, 0);
  g_dlg.viewer_close = fl_add_button(FL_NORMAL_BUTTON, 510, 420, 100, 28, "Schließen");
  FL_OBJECT *help = g_dlg.help[3] = fl_add_button(FL_NORMAL_BUTTON, 10, 420, 100, 28, "Hilfe");
  fl_set_object_callback(g_dlg.viewer_close, viewer_close_cb, 0);
  fl_end_form();
  finish_dialog(f, "Tabbox-Viewer", help, "TVIEW_HLP");
}

// ---- Zoom editor ------------------------------------------------------------------------

void zoom_ok_cb(FL_OBJECT *, long) {
  if (g_dlg.input) fl_set_input(g_dlg.input, fl_get_input(g_dlg.zoom_text));
  myfl_hide_form(g_dlg.zoom);
}

void zoom_cancel_cb(FL_OBJECT *, long) { myfl_hide_form(g_dlg.zoom); }

void build_zoom() {
  FL_FORM *f = fl_begin_form(0, 760, 540);
  g_dlg.zoom = f;
  fl_add_box(FL_UP_BOX, 0, 0, 760, 540, "");
  g_dlg.zoom_text = fl_add_input(FL_MULTILINE_INPUT, 10, 10, 740, 480, "");
  g_dlg.zoom_ok = fl_add_button(FL_NORMAL_BUTTON, 530, 500, 100, 28, "Übernehmen");
  fl_set_object_callback(g_dlg.zoom_ok, zoom_ok_cb, 0);
  g_dlg.zoom_cancel = fl_add_button(FL_NORMAL_BUTTON, 650, 500, 100, 28, "Abbrechen");
  FL_OBJECT *help = g_dlg.help[4] = fl_add_button(FL_NORMAL_BUTTON, 10, 500, 100, 28, "Hilfe");
  fl_set_object_callback(g_dlg.zoom_cancel, zoom_cancel_cb, 0);
  fl_end_form();
  finish_dialog(f, "Editor-Zoom", help, "ZOOM_HLP");
}

} // namespace

MYFL_TABBOX_DIALOGS &myfl_tabbox_dialogs() { return g_dlg; }

void myfl_set_main_tabbox(FL_OBJECT *tabbox) { g_main_tabbox = tabbox; }

int myfl_create_tabbox_dialogs() {
  if (g_dlg.settings) return 1;
  myfl_install_tabbox_settings();
  build_settings();
  build_sort();
  build_export();
  build_viewer();
  build_zoom();
  fl_set_tabbox_dialog_hook(FL_TABBOX_SORT_DIALOG, myfl_open_tabbox_sort);
  fl_set_tabbox_dialog_hook(FL_TABBOX_EXPORT_DIALOG, myfl_open_tabbox_export);
  fl_set_tabbox_dialog_hook(FL_TABBOX_VIEWER, myfl_open_tabbox_viewer);
  fl_set_tabbox_dialog_hook(FL_TABBOX_COPY, myfl_copy_tabbox);
  fl_set_editor_zoom_hook(myfl_open_editor_zoom);
  return 1;
}

void myfl_free_tabbox_dialogs() {
  if (!g_dlg.settings) return;
  fl_set_tabbox_dialog_hook(FL_TABBOX_SORT_DIALOG, nullptr);
  fl_set_tabbox_dialog_hook(FL_TABBOX_EXPORT_DIALOG, nullptr);
  fl_set_tabbox_dialog_hook(FL_TABBOX_VIEWER, nullptr);
  fl_set_tabbox_dialog_hook(FL_TABBOX_COPY, nullptr);
  fl_set_editor_zoom_hook(nullptr);
  fl_set_tabbox_settings_hook(nullptr);
  fl_set_tabbox_colwidth_hook(nullptr);
  fl_set_tabbox_optimize_hook(nullptr);
  fl_set_tabbox_refresh_hook(nullptr);
  for (FL_FORM *f : {g_dlg.settings, g_dlg.sort, g_dlg.exp, g_dlg.viewer, g_dlg.zoom}) {
    myfl_free_helpdialogs(f);
    myfl_free_forminfo(f);
    fl_free_form(f);
  }
  g_dlg = MYFL_TABBOX_DIALOGS();
  g_set = ListData();
  g_sort = ListData();
}

void myfl_open_tabbox_settings(FL_OBJECT *tabbox) {
  myfl_create_tabbox_dialogs();
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  // Programming error (a call the code must never make): fatal by design.
  if (!m) msg_fatal("(myfl_open_tabbox_settings) Tabbox not defined\n");
  g_dlg.tabbox = tabbox;
  g_set = ListData();
  Props p = props_of(tabbox);
  std::vector<char> shown(p.n > 0 ? p.n : 0, 0);
  for (int k = 1; k < p.n; ++k) {
    int c = p.order[k];
    if (c < 0) break;
    if (c >= 1 && c < p.n && p.visible[c] && !shown[c]) {
      g_set.selected.push_back(c);
      shown[c] = 1;
    }
  }
  for (int c = 1; c < p.n; ++c)
    if (!shown[c]) g_set.available.push_back(c);
  g_set.keys.assign(p.cols, p.cols + p.nsort);
  g_set.dirs.assign(p.dirs, p.dirs + p.nsort);
  g_set.comma = fl_get_tabbox_comma(tabbox);
  fill_columns();
  fill_keys(g_dlg.set_sort, tabbox, g_set);
  fl_set_button(g_dlg.set_dbnames, m->kz_dbnames);
  fl_set_button(g_dlg.set_vertical, fl_get_tabbox_vert(tabbox));
  fl_set_input(g_dlg.set_comma, g_set.comma >= 0 ? std::to_string(g_set.comma).c_str() : "");
  fl_set_input(g_dlg.set_maxwidth, p.maxwidth >= 0 ? std::to_string(p.maxwidth).c_str() : "");
  show(g_dlg.settings, "Tabbox Einstellungen");
}

void myfl_close_tabbox_settings() {
  close_form(g_dlg.settings, "Einstellungen-Tabbox-Dialog bereits geschlossen");
}

void myfl_open_tabbox_sort(FL_OBJECT *tabbox) {
  myfl_create_tabbox_dialogs();
  g_dlg.tabbox = tabbox;
  g_sort = ListData();
  Props p = props_of(tabbox);
  fl_clear_listbox(g_dlg.sort_columns);
  for (int c = 1; c < p.n; ++c) {
    g_sort.sort_columns.push_back(c);
    fl_addto_listbox(g_dlg.sort_columns, column_title(tabbox, c).c_str());
  }
  g_sort.keys.assign(p.cols, p.cols + p.nsort);
  g_sort.dirs.assign(p.dirs, p.dirs + p.nsort);
  fill_keys(g_dlg.sort_keys, tabbox, g_sort);
  if (myfl_find_tabbox(tabbox))
    fl_activate_object(g_dlg.sort_settings);
  else
    fl_deactivate_object(g_dlg.sort_settings);
  show(g_dlg.sort, "Sortierung-Tabbox");
}

void myfl_close_tabbox_sort() {
  close_form(g_dlg.sort, "Sortierung-Tabbox-Dialog bereits geschlossen");
}

void myfl_open_tabbox_export(FL_OBJECT *tabbox) {
  myfl_create_tabbox_dialogs();
  g_dlg.tabbox = tabbox;
  // A managed tabbox proposes its name as the file name.
  const char *current = fl_get_input(g_dlg.exp_name);
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  if ((!current || !*current) && m) fl_set_input(g_dlg.exp_name, m->name.c_str());
  show(g_dlg.exp, "Tabbox exportieren");
  fl_set_focus_object(g_dlg.exp, g_dlg.exp_name);
}

void myfl_close_tabbox_export() {
  close_form(g_dlg.exp, "Export-Tabbox-Dialog bereits geschlossen");
}

void myfl_open_tabbox_viewer(FL_OBJECT *tabbox) {
  myfl_create_tabbox_dialogs();
  if (!mytabs_is_tabbox(tabbox)) return;
  // The line the user sees: in vertical display an attribute line.
  fl_layout_tabbox(tabbox);
  int raw = fl_get_tabbox(tabbox);
  if (fl_get_tabbox_selectcount(tabbox) != 1 || raw < 1 || raw > mytabs_get_shown_lines(tabbox)) {
    fl_show_message("Keine Daten darstellbar", "", "");
    return;
  }
  g_dlg.tabbox = tabbox;
  // The selected line with the source's columns, order and widths, shown
  // as attribute / value lines.
  FL_OBJECT *v = g_dlg.viewer_tabbox;
  mytabs_copy_shown_line(tabbox, raw, v);
  fl_set_tabbox_vert(v);
  fl_select_tabbox_line(v, 1);
  show(g_dlg.viewer, "Tabbox-Viewer");
}

void myfl_close_tabbox_viewer() {
  close_form(g_dlg.viewer, "Tabbox-Viewer-Dialog bereits geschlossen");
}

void myfl_open_editor_zoom(FL_OBJECT *input) {
  myfl_create_tabbox_dialogs();
  g_dlg.input = input;
  fl_set_input(g_dlg.zoom_text, input ? fl_get_input(input) : "");
  show(g_dlg.zoom, "Editor-Zoom");
  fl_set_focus_object(g_dlg.zoom, g_dlg.zoom_text);
}

void myfl_copy_tabbox(FL_OBJECT *tabbox) {
  std::string text;
  if (!myfl_copy_tabbox_text(tabbox, &text)) return;
  if (QClipboard *c = QGuiApplication::clipboard())
    c->setText(QString::fromLatin1(text.data(), static_cast<qsizetype>(text.size())));
}

void myfl_close_editor_zoom() { close_form(g_dlg.zoom, "Editor-Zoom-Dialog bereits geschlossen"); }
