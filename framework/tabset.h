// The stored presentation of managed tabboxes: one line of the application's
// INI file per tabbox, "[KEY] [v ]K N order... sortkeys... [Wm ]col|width...\n"
// (K the database-names flag 1/0, N the column slot count; with sort keys a
// token "c<hash>" of the column names they belong to), written from
// and applied to the tabbox's properties; the edits made when the user drags
// a column width or chooses "Spalten optimieren"; and the installation of
// these as the tabbox's settings hooks.
//
// The dialogs that change the settings are tabdialogs.h's; the registry and
// the names are dbtabbox.h's; the file format is base/ini.h's.
//
// The file is "<application name>.ini" (myfl_get_appl_name, place.h).
//
// Process-wide state, in tabset.cpp: a guard against re-entering the
// settings hook.
#pragma once

#include "forms/forms.h"

#include <string>

// The key of the tabbox's entry: its name, or "%s_%d" with the table number
// when that is 0 or more.
std::string myfl_tabbox_ini_key(FL_OBJECT *tabbox);

// The settings line of key from the given properties (arrays indexed by
// column slot; order and colmax have `slots` entries).
std::string myfl_tabbox_ini_line(const std::string &key, int vertical, int kz_dbnames, int slots,
                                 const int *order, int nsort, const int *sort_cols,
                                 const int *sort_dirs, int maxwidth, const int *colmax);

// The token that names the columns a stored sort belongs to: "c" and the
// FNV-1a hash of the title's column names in hex. Settings lines carry it
// after their sort keys; a line's keys are applied only when it matches.
std::string myfl_tabbox_columns_token(FL_OBJECT *tabbox);

// Writes the tabbox's current properties under its key. Returns 1, 0 while
// it has no title.
int myfl_save_tabbox_ini(FL_OBJECT *tabbox);
// The settings hook: reads the entry and applies it (nothing for tabboxes
// that the framework does not manage).
void myfl_load_tabbox_ini(FL_OBJECT *tabbox);
// Edits of the stored value under the plain tabbox name: replace or append
// the width token of col, remove it, remove all width tokens.
void myfl_set_tabbox_colwidth_ini(FL_OBJECT *tabbox, int col, int width);
void myfl_clear_tabbox_colwidth_ini(FL_OBJECT *tabbox, int col);
void myfl_clear_tabbox_colwidths_ini(FL_OBJECT *tabbox);

// Installs the settings, column width, "Spalten optimieren" and refresh
// hooks of the tabbox.
void myfl_install_tabbox_settings();
