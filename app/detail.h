// The detail dialog of the viewer: one result row as attribute / value
// lines, where one value can be changed (UPDATE) or the row deleted (DELETE),
// both addressed through the key attribute "<table>_ID" of the table of the
// last stored SELECT query.
//
// The result tabbox and the query store are mainform.h's and
// querystore.h's; the form's configuration at start is viewer.h's.
#pragma once

#include "forms/forms.h"

// Creates the detail form (591 x 661) with its objects into
// zentiq_app().detail.
void zentiq_create_detail_form();

// Number of lines the detail tabbox shows: one per attribute in the
// attribute / value layout.
int zentiq_detail_lines();
// Double-click on a result line: fills the dialog with the selected row and
// shows it (the main form is deactivated meanwhile).
void zentiq_open_detail(FL_OBJECT *obj, long argument);
// Double-click on an attribute line: puts its value into the value input,
// quoted as a literal unless it reads as a number, and focuses the input.
void zentiq_edit_value(FL_OBJECT *obj, long argument);
// 1 when the text is a number by the dialog's loose rule: blanks, an optional
// sign, digits with at most one "." or "," separator, blanks. An empty or
// all-blank text counts as a number.
int zentiq_is_number(const char *text);
// "Update", its shortcut or Return in the value input: "update <table> set
// <attribute> = <value> where <table>_ID = '<key>';".
void zentiq_update_value(FL_OBJECT *obj, long argument);
// "Löschen": asks, then "delete from <table> where <table>_ID = '<key>';".
void zentiq_delete_row(FL_OBJECT *obj, long argument);
// Runs one modifying statement in its own BEGIN level. Returns 1 when the
// server reported the command done, 0 otherwise (messages shown).
int zentiq_exec_change(const char *statement);
