// The detail dialog of the viewer: one result row as attribute / value
// lines, where one value can be changed (UPDATE) or the row deleted (DELETE),
// both addressed through the key attribute "<table>_ID" of the table the
// shown result comes from (a plain SELECT of one table; other results are
// not changed). A change reads the row again first and goes through only
// while the row still holds the values shown; it runs in a transaction of
// its own that commits only when the server changed exactly one row.
//
// The result tabbox is mainform.h's; the form's configuration at start is
// viewer.h's.
#pragma once

#include "forms/forms.h"

// Creates the detail form (591 x 661) with its objects into
// zentiq_app().detail.
void zentiq_create_detail_form();

// Number of lines the detail tabbox shows: one per attribute of the row.
int zentiq_detail_lines();
// Double-click on a result line: fills the dialog with the selected row and
// shows it (the main form is deactivated meanwhile).
void zentiq_open_detail(FL_OBJECT *obj, long argument);
// Double-click on an attribute line: puts its value, as it is, into the
// value input and focuses the input.
void zentiq_edit_value(FL_OBJECT *obj, long argument);
// "Update", its shortcut or Return in the value input: "UPDATE <table> SET
// <attribute> = <value> WHERE <table>_ID = <key>;" for the selected
// attribute line; the value is quoted by the column's type so that it is
// stored as typed (numbers must read as numbers; empty: no value).
void zentiq_update_value(FL_OBJECT *obj, long argument);
// "Löschen": asks, naming table and key ("Nein" the default), then "DELETE
// FROM <table> WHERE <table>_ID = <key>;".
void zentiq_delete_row(FL_OBJECT *obj, long argument);
