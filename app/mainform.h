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
#include <vector>

#include "forms/forms.h"

struct DBSESSION;

// Creates the main form (721 x 606) with its objects into zentiq_app().main.
void zentiq_create_main_form();

// Every statement of the user runs in a BEGIN level of its own that has
// ended before any box is shown, so that no lock is held while the user
// reads or answers. Queries (SELECT, SHOW) are read with the row limit and
// result budget of resultlimit.h; rows cut at the limit are named in the
// result's title ("die ersten <n> Zeilen") and "Weitere Zeilen laden?" runs
// the query again with twice the limit; a result over the budget is told in
// a box, and the rows shown before stay.
//
// "SELECT durchführen": builds "SELECT <attributes|*> FROM <table>[ <where>];",
// runs it inside one BEGIN level, stores the query and fills the result
// tabbox. A blank table text stops silently before anything is opened.
void zentiq_run_select(FL_OBJECT *obj, long argument);
// "SQL-Befehl durchführen": runs the SQL input's text with ";" appended;
// rows of SELECT and SHOW statements fill the result tabbox, other commands
// answer "Die Abfrage wurde erfolgreich durchgeführt". An UPDATE or DELETE
// is counted first and asked about when it would not change exactly one
// row (always without WHERE); it is taken back when the server changes
// another number of rows than the user agreed to.
void zentiq_run_sql(FL_OBJECT *obj, long argument);

// Opens the BEGIN level of one of the user's actions: 1, or 0 (the level
// taken back) after "Datenbankverbindung nicht vorhanden".
int zentiq_begin_level(DBSESSION *session);
// Takes back what the open level did and closes it.
void zentiq_abort_level(DBSESSION *session);
// 1 when the session's server went away: its loss has been told in a box of
// its own (which says that the open transaction is lost), so a failed
// statement or level of the same action adds no second box.
int zentiq_loss_told(DBSESSION *session);
// Ends the BEGIN level of one of the user's actions: 1, or 0 when END was
// not done; then an ABORT leaves the server without a transaction of this
// session. Callers tell the user only after this.
int zentiq_end_level(DBSESSION *session);
// The one statement of a user's text with ";" appended: 1, or 0 after a
// message when text other than blanks follows a ";" outside string literals
// (one ";" at the end is allowed) or the statement is longer than the
// session layer takes.
int zentiq_single_statement(const std::string &text, std::string *statement);
// 1 with the table (upper case) when the statement is a plain SELECT of one
// table: "SELECT <list> FROM <table>" followed by nothing, WHERE or ORDER BY,
// without DISTINCT, COUNT, MIN, MAX or a subquery. Its rows may be changed
// through their key. 0 otherwise.
int zentiq_plain_table(const std::string &statement, std::string *table);
// A typed UPDATE or DELETE: its table and its WHERE part ("" when it has
// none), from "WHERE" to the end without the final ";".
struct ZqChange {
  std::string table;
  std::string where;
  bool is_delete = false;
};
// 1 with *change filled when the statement begins with UPDATE or DELETE
// FROM and a table name; else 0.
int zentiq_change_target(const std::string &statement, ZqChange *change);
// 1 when the statement's first word begins with SELECT or SHOW, in any
// case. The text is only read.
int zentiq_is_query(std::string_view statement);
// The text without any two-character sequence backslash, "n".
std::string zentiq_strip_newlines(const char *text);
// 1 when every character is white space (also for the empty text).
int zentiq_is_blank(const char *text);
// The combo box's change callback: "SET DATABASE <code>;" on the session
// ("SET DATABASE ;" for an empty code).
void zentiq_set_database(FL_OBJECT *obj, long argument);

// Paging and marks; argument 1 works on the SELECT list, 0 on the SQL list.
void zentiq_cb_prev(FL_OBJECT *obj, long argument);
void zentiq_cb_next(FL_OBJECT *obj, long argument);
void zentiq_cb_add(FL_OBJECT *obj, long argument);
void zentiq_cb_del(FL_OBJECT *obj, long argument);

// The line text of a result row: each value in double quotes (a backslash
// before every double quote and backslash inside), joined with ",".
std::string zentiq_row_text(const std::vector<std::string> &values);
// The values of a line text made by zentiq_row_text, as they were.
std::vector<std::string> zentiq_row_values(const char *text);
