// The viewer's main form: its objects, the SELECT built from the table,
// attribute and WHERE / ORDER BY inputs, any other SQL command, both run
// into the result tabbox, paging and marking in the query store, and the
// switch of the session to the database chosen in the combo box.
//
// The form's configuration at start (shortcuts, tabbox registration, combo
// box filling) is viewer.h's; the detail dialog opened from the result is
// detail.h's; the lists themselves are querystore.h's.
#pragma once

#include <string>
#include <string_view>

#include "forms/forms.h"

// Creates the main form (721 x 606) with its objects into zentiq_app().main.
void zentiq_create_main_form();

// "SELECT durchführen": builds "SELECT <attributes|*> FROM <table>[ <where>];",
// runs it inside one BEGIN level, stores the query and fills the result
// tabbox. A blank table text stops silently (the level stays open).
void zentiq_run_select(FL_OBJECT *obj, long argument);
// "SQL-Befehl durchführen": runs the SQL input's text with ";" appended;
// rows of SELECT and SHOW statements fill the result tabbox, other commands
// answer "Die Abfrage wurde erfolgreich durchgeführt".
void zentiq_run_sql(FL_OBJECT *obj, long argument);
// 1 when the statement's first word begins with SELECT or SHOW, in any
// case. The text is only read.
int zentiq_is_query(std::string_view statement);
// The text without any two-character sequence backslash, "n".
std::string zentiq_strip_newlines(const char *text);
// 1 when every character is white space (also for the empty text).
int zentiq_is_blank(const char *text);
// The combo box's change callback: "SET DATABASE <code>;" on the session.
void zentiq_set_database(FL_OBJECT *obj, long argument);

// Paging and marks; argument 1 works on the SELECT list, 0 on the SQL list.
void zentiq_cb_prev(FL_OBJECT *obj, long argument);
void zentiq_cb_next(FL_OBJECT *obj, long argument);
void zentiq_cb_add(FL_OBJECT *obj, long argument);
void zentiq_cb_del(FL_OBJECT *obj, long argument);

// The line text of a result row: each value in double quotes (a backslash
// before every double quote inside), joined with ",".
std::string zentiq_row_text(const std::vector<std::string> &values);
