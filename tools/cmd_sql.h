// tavrin sql: runs SQL statements on a TAVRIN database through the session
// layer, as the viewer does, and prints rows as an aligned table, CSV or TSV.
//
// Statements come from the arguments or, without any, from the lines of
// standard input, each line run as soon as it is read; an argument or a line
// may hold several statements separated by ";". The first statement that
// fails ends the run, so that a script or
// a pipe can drive a transaction step by step. The session layer prints its
// messages on standard error; parsing and encoding are the client's.
//
// Also here: opening the session the way every database command of tavrin
// does ("-dbNAME", the environment variable DBSYS).
#pragma once

#include <string>
#include <vector>

struct DBSESSION;

// Further help lines of the command.
#define SQL_HELP                                                                                   \
  "  -dbNAME        the database (default tdsys); DBSYS is put in front as the viewer does\n"      \
  "  --format F     table (aligned, default), csv or tsv; each with a header line\n"               \
  "  -1             run all statements in one transaction: all or nothing\n"                       \
  "Without STATEMENTs, each line of standard input is run as soon as it is read.\n"                \
  "An argument or a line may hold several statements separated by \";\"; they run in\n"            \
  "order. Without -1 each statement is committed on its own unless the\n"                          \
  "statements say BEGIN ... COMMIT themselves. Changes print their row count.\n"                   \
  "The first statement that fails ends the run with exit status 1.\n"

// Opens the session for the "-db" arguments of argv (argv[0] is the command
// name; the last -db wins, more than 19 characters end the program) with
// DBSYS in front. Returns the session (dbclose) or null with the session
// layer's messages printed. `rest` receives the arguments that are not -db.
DBSESSION *tavrin_open_session(int argc, char **argv, std::vector<std::string> &rest);

// The run function of the command table; argv[0] is the command name.
int cmd_sql(int argc, char **argv);

// The result formats of tavrin sql.
enum TavrinSqlFormat { TAVRIN_SQL_TABLE, TAVRIN_SQL_CSV, TAVRIN_SQL_TSV };

// Runs one statement (Latin-1) on s as tavrin sql runs each of its
// statements and prints what it gave. Returns false when it failed (the
// session layer printed why). For the interactive shell (sqlshell.h).
bool tavrin_sql_run(DBSESSION *s, const std::string &statement, TavrinSqlFormat format);
