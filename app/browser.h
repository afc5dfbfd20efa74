// The table browser: a dialog "Tabellen", opened with the button of that
// name in the main form's bottom row, that lists the tables of the current
// database (with a filter) and, for the chosen table, its attributes with
// type, NOT NULL and the indices they belong to. Choosing a table puts its
// name into "Tabelle"; choosing attributes puts them, in the table's order,
// into "Attribute". It follows the database chosen in the main form.
//
// The lists are catalog.h's cache; the main form's inputs get their name
// completion (completion.h) and SQL highlighting (framework/highlight.h)
// here, since both read the same cache.
#pragma once

#include <string>
#include <vector>

#include "forms/forms.h"

// The dialog's objects.
struct ZqBrowserForm {
  FL_FORM *form = nullptr;
  FL_OBJECT *filter = nullptr;     // input: part of a table name
  FL_OBJECT *tables = nullptr;     // list box of table names
  FL_OBJECT *attributes = nullptr; // attribute list (a tree widget)
  FL_OBJECT *refresh = nullptr, *help = nullptr, *close = nullptr;
};
ZqBrowserForm &zentiq_browser();

// Adds the "Tabellen" button to the form being built (the main form) at x,
// y with w x h, and gives the main form's inputs, which must exist, their
// completion and highlighting.
void zentiq_add_browser_button(int x, int y, int w, int h);
// Builds the dialog once (hidden); later calls do nothing.
void zentiq_build_browser();
// Builds the dialog (once) and shows it with the tables read again; the
// table in "Tabelle" is chosen when the database has it.
void zentiq_open_browser();
// The database of the main form changed: the cache is dropped, an open
// dialog shows the new database's tables.
void zentiq_browser_follow_database();
// A command may have changed tables: the cache is dropped; an open dialog
// keeps what it shows until "Aktualisieren".
void zentiq_browser_tables_changed();

// Highlights the WHERE and SQL inputs again when the cache learnt or lost
// names since the last call (the colour of a name depends on it).
void zentiq_browser_names_changed();

// The table names the dialog lists now (after the filter).
std::vector<std::string> zentiq_browser_listed();
// Chooses the table as a click would. Returns 1, 0 when it is not listed.
int zentiq_browser_choose_table(const std::string &name);
// The attribute lines shown: "NAME|TYPE|JA/NEIN|indices".
std::vector<std::string> zentiq_browser_attribute_lines();
// Selects the named attributes (others deselected) as the user would.
// Returns how many were found.
int zentiq_browser_choose_attributes(const std::vector<std::string> &names);
