// Read-only sessions of the viewer: started with "-ro", or on a database
// named in the INI line "[Nur_lesen]<DB>,<DB>,..." of zentiq.ini, the viewer
// refuses every change before it reaches the server and shows "nur lesen" in
// its window title. Statements that only read stay allowed: SELECT, SHOW,
// DECLARE ... CURSOR FOR SELECT, FETCH, CLOSE and MAX (the channel's row
// limit); everything else typed into "Andere SQL-Befehle" (INSERT, UPDATE,
// DELETE, CREATE, DROP, SET TABLE, SAVE DATABASE, SET DATABASE, BEGIN,
// COMMIT, ...) and the detail dialog's "Update" and "Löschen" are refused
// with a box.
//
// Where the checks sit (the main form, the detail dialog) is theirs; the
// title's text is viewer.h's.
#pragma once

#include <string>

#include "forms/forms.h"

// INI key of the databases that always open read-only.
constexpr const char *ZQ_INI_READ_ONLY = "Nur_lesen";

// Reads "-ro" from the command line (the whole argument, any case).
void zentiq_ro_init(int argc, char **argv);
// 1 when "-ro" was given or the INI line names `database` (upper case).
int zentiq_ro_for(const std::string &database);
// 1 when the viewer's current database is read-only.
int zentiq_read_only();
// 1 when `stmt` only reads (see above). The text is only read.
int zentiq_ro_harmless(const std::string &stmt);
// 1 when the change may go on; 0 after the box "Nur lesen: ..." naming
// `what` when the session is read-only. A statement (stmt not empty) that
// only reads always may.
int zentiq_ro_permits(const char *what, const std::string &stmt = "");
// `title` with " - nur lesen" when the session is read-only (and without it
// otherwise), for the main form's title after each change of database.
std::string zentiq_ro_title(const std::string &title);
// Sets the form's title by zentiq_ro_title.
void zentiq_ro_update_title(FL_FORM *form);
