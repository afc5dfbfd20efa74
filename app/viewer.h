// The viewer's spine: the program-wide state (session, the two forms, the
// current query name, the database name), the main routine zentiq_main that
// the toolkit's entry calls, the configuration of both forms after their
// objects exist, the exit question, the detail form's close handler, the
// fatal stop and the diagnostic print handler.
//
// The objects of the main form, the statements run from it and the database
// switch are mainform.h's; the detail dialog is detail.h's; the query store
// querystore.h's; the HTML manual of "-doku" doku.h's.
//
// Process-wide state: one ZqApp (zentiq_app()), since the program has exactly
// one session and one form of each kind.
#pragma once

#include <string>
#include <vector>

#include "forms/forms.h"

struct DBSESSION;

// The program's version and release date, shown in the main form's title.
constexpr const char *ZQ_VERSION = "1.1.3";
constexpr const char *ZQ_RELEASE_DATE = "12.07.2003";

// The main form's objects, in the order of its object table.
struct ZqMainForm {
  FL_FORM *form = nullptr;
  FL_OBJECT *help = nullptr;
  FL_OBJECT *sel_saved = nullptr, *sel_add = nullptr, *sel_del = nullptr;
  FL_OBJECT *sel_prev = nullptr, *sel_next = nullptr, *sel_run = nullptr;
  FL_OBJECT *table = nullptr, *attributes = nullptr, *where = nullptr;
  FL_OBJECT *sql_saved = nullptr, *sql_add = nullptr, *sql_del = nullptr;
  FL_OBJECT *sql_prev = nullptr, *sql_next = nullptr, *sql_run = nullptr;
  FL_OBJECT *sql = nullptr;
  FL_OBJECT *result = nullptr;
  FL_OBJECT *database = nullptr, *database_button = nullptr;
  FL_OBJECT *log = nullptr; // "Protokoll": opens the console
};

// The detail form's objects, in the order of its object table.
struct ZqDetailForm {
  FL_FORM *form = nullptr;
  FL_OBJECT *help = nullptr;
  FL_OBJECT *del = nullptr;
  FL_OBJECT *tabbox = nullptr;
  FL_OBJECT *value = nullptr;
  FL_OBJECT *update = nullptr;
};

// What the rows of a result are: their columns and, when they come from one
// table through a plain SELECT, that table. The detail dialog changes rows
// of that table only.
struct ZqResultInfo {
  std::vector<std::string> names;
  std::vector<int> types; // column types (DBFT_ of db/client/resdata.h)
  std::string table;      // "" when the rows cannot be changed
};

// The row the detail dialog shows: the result's columns and the row's
// values as shown (null values empty).
struct ZqDetailRow {
  ZqResultInfo info;
  std::vector<std::string> values;
};

struct ZqApp {
  DBSESSION *session = nullptr;
  ZqMainForm main;
  ZqDetailForm detail;
  ZqResultInfo result;    // the rows in the result tabbox
  ZqDetailRow detail_row; // the row in the detail dialog
  std::string current_query_name;
  char database_name[20] = "-";
  bool database_given = false; // "-db" named the database
};

// The program's state.
ZqApp &zentiq_app();

// The database the viewer preselects from the server's list `listed`:
// `given` (upper case, from "-db") when listed, else without "-db" the
// database of the last session (`last`) when listed, else DEMO when listed,
// else TDSYS when listed, else the last one listed; "" for an empty list.
std::string zentiq_choose_database(const std::vector<std::string> &listed, const std::string &given,
                                   const std::string &last);
// The database of the last session as kept in the INI file (key ZTQ_DB);
// "" when none is kept.
std::string zentiq_last_database();
// Keeps `code` as the database of the last session.
void zentiq_remember_database(const char *code);
// Opens the session on app.database_name (TDSYS when "-db" named none).
// Returns 1; 0 after a box that says why: no server running (and how to
// start one: "tavrind --data <Ordner>" or "./run.sh") or the database that
// could not be opened, with the client's text.
int zentiq_open_session();

// The main routine (see forms/entry.h): start-up, "-doku", event loop. Returns
// the exit status.
int zentiq_main(int argc, char **argv);
// Start-up up to the shown form: message handler, toolkit, database name
// from "-db", the query store, the tabbox dialogs, the session, both forms
// and their configuration. Returns 1, or 0 when the toolkit cannot start or
// the session cannot be opened (the user was told why).
int zentiq_start(int argc, char **argv);
// Configures both forms after their objects exist: names, help keys,
// shortcuts, the database tabboxes, focus, input limits, the database combo
// box filled from "SHOW DATABASES;", close handlers. Switches the session to
// the preselected database.
void zentiq_build_forms();
// The main form's close handler: asks "Soll Zentiq beendet werden?"; -1 when
// the answer is not yes; on yes saves the store and the form's position,
// closes the session and ends the process with status 0. When the store
// cannot be saved the user is told and asked again whether to end (-1 on
// no); the file on disk is left as it was.
int zentiq_main_atclose(FL_FORM *form, void *argument);
// The detail form's close handler: hides it, reactivates the main form and
// returns -1.
int zentiq_detail_atclose(FL_FORM *form, void *argument);
// Prints "Error occurred (data is saved)! Please restart the application!\n",
// saves the query store, shows the termination warning and ends the process
// with the status.
[[noreturn]] void zentiq_fatal(int status);
// The diagnostic print handler: the text goes to the console window.
void zentiq_print(const char *text);

// The result tabbox's title: the current query name, or "Ergebnis
// Select-Abfrage" while it is empty.
const char *zentiq_title(FL_OBJECT *tabbox);
// The line record of both tabboxes: size 9812, selection index -1, empty
// text. malloc'ed; the tabbox line that takes it frees it.
void *zentiq_new_record();
// A line record holding the whole text, sized to it rather than to the full
// 9812 bytes, so that large results stay small and long rows are not cut
// (the text may run past the record's declared array). malloc'ed; the
// caller frees it (or hands it to a tabbox line).
void *zentiq_make_record(const std::string &text);
// The line filter: accepts every record.
int zentiq_accept_record(const void *record);

// The line record: a size-prefixed block holding one line text.
constexpr int ZQ_RECORD_SIZE = 9812;
struct ZqRecord {
  int size;
  int selection;
  char text[ZQ_RECORD_SIZE - 2 * sizeof(int)];
};
static_assert(sizeof(ZqRecord) == ZQ_RECORD_SIZE);
