// The framework's tabbox dialogs: "Tabbox Einstellungen" (columns shown and
// their order, database names, decimal places, maximum width, vertical
// display, sort keys; written to the settings line), "Sortierung-Tabbox"
// (sort keys only), "Tabbox exportieren" (a TAB-separated text file, or CSV
// with a chosen separator and decimal point, with the extension "csv"; the
// file chosen by name or in a file chooser), Ctrl+C in a tabbox (its
// selected lines to the clipboard), the "Tabbox-Viewer" (the selected line turned into
// attribute / value lines) and the "Editor-Zoom" (an editor's text in a large
// field). Each dialog exists once; myfl_create_tabbox_dialogs builds them and
// installs them in the tabbox's popup hooks and the editor's zoom hook.
//
// The export text itself is tabexport.h's; the settings line is tabset.h's.
//
// Process-wide state, in tabdialogs.cpp: the dialogs' forms and objects, the
// tabbox (or editor input) each is open for, and the application's main
// result tabbox.
#pragma once

#include "forms/forms.h"

// Builds the dialogs (once; later calls do nothing) and installs the hooks,
// the settings hooks of tabset.h included. Returns 1.
int myfl_create_tabbox_dialogs();
// Frees the dialogs' forms and removes all these hooks (for a toolkit
// restart).
void myfl_free_tabbox_dialogs();

// The application's main result tabbox: its decimal places cannot be set in
// the settings dialog.
void myfl_set_main_tabbox(FL_OBJECT *tabbox);

// Opening for a tabbox (a managed one for settings and sort) and closing;
// closing a dialog that is not open writes "<...>-Dialog bereits
// geschlossen".
void myfl_open_tabbox_settings(FL_OBJECT *tabbox);
void myfl_close_tabbox_settings();
void myfl_open_tabbox_sort(FL_OBJECT *tabbox);
void myfl_close_tabbox_sort();
void myfl_open_tabbox_export(FL_OBJECT *tabbox);
void myfl_close_tabbox_export();
// Shows "Keine Daten darstellbar" unless exactly one line is selected.
void myfl_open_tabbox_viewer(FL_OBJECT *tabbox);
void myfl_close_tabbox_viewer();
void myfl_open_editor_zoom(FL_OBJECT *input);
// Ctrl+C in a tabbox: its selected lines with the title line on the
// clipboard (tabexport.h's text); nothing when no line is selected.
void myfl_copy_tabbox(FL_OBJECT *tabbox);
void myfl_close_editor_zoom();

// The dialogs' forms and their main objects, for tests and the manual.
struct MYFL_TABBOX_DIALOGS {
  FL_FORM *settings = nullptr;
  FL_OBJECT *set_dbnames = nullptr, *set_comma = nullptr, *set_maxwidth = nullptr,
            *set_vertical = nullptr, *set_available = nullptr, *set_selected = nullptr,
            *set_add = nullptr, *set_remove = nullptr, *set_all = nullptr, *set_sort = nullptr,
            *set_up = nullptr, *set_down = nullptr, *set_sort_remove = nullptr, *set_ok = nullptr,
            *set_cancel = nullptr;
  FL_FORM *sort = nullptr;
  FL_OBJECT *sort_columns = nullptr, *sort_keys = nullptr, *sort_up = nullptr, *sort_down = nullptr,
            *sort_remove = nullptr, *sort_ok = nullptr, *sort_settings = nullptr,
            *sort_cancel = nullptr;
  FL_FORM *exp = nullptr;
  FL_OBJECT *exp_name = nullptr, *exp_shown = nullptr, *exp_all = nullptr, *exp_cancel = nullptr;
  FL_OBJECT *exp_browse = nullptr, *exp_csv = nullptr, *exp_separator = nullptr,
            *exp_decimal = nullptr;
  FL_FORM *viewer = nullptr;
  FL_OBJECT *viewer_tabbox = nullptr, *viewer_close = nullptr;
  FL_FORM *zoom = nullptr;
  FL_OBJECT *zoom_text = nullptr, *zoom_ok = nullptr, *zoom_cancel = nullptr;
  FL_OBJECT *tabbox = nullptr; // the tabbox settings, sort, export or viewer are open for
  FL_OBJECT *input = nullptr;  // the editor input the zoom is open for
  // The "Hilfe" buttons, in the order settings, sort, export, viewer, zoom
  // (the manual lists the dialogs with their help texts).
  FL_OBJECT *help[5] = {};
};
MYFL_TABBOX_DIALOGS &myfl_tabbox_dialogs();
