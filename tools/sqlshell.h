// The interactive form of tavrin sql: what a person at a terminal gets
// when standard input is one and no statement is given on the command line.
//
// A prompt names the database; lines are edited and kept in a history file
// through the system's line-editing library (libedit); statements end at ";"
// and may span lines (a ";" inside a quoted text does not end one); lines
// that start with a backslash are the shell's own commands (list and describe
// tables, switch the database, timing, help, quit). Each statement is run
// and printed by tavrin sql itself (tavrin_sql_run in cmd_sql.h), so the
// shell prints rows exactly as the command line does. Opening the first
// session and reading the command line are cmd_sql's.
#pragma once

#include <string>
#include <vector>

#include "tools/cmd_sql.h"

struct DBSESSION;

// Further help lines of tavrin sql about the shell.
#define SQLSHELL_HELP                                                                              \
  "With a terminal on standard input and no STATEMENT, tavrin sql is an interactive\n"             \
  "shell: statements end with ';' and may span lines; \\d [TABLE], \\dt, \\c NAME,\n"              \
  "\\timing and \\q are its own commands, \\? lists them. The history is kept in\n"                \
  "$XDG_STATE_HOME/zentiq/tavrin_history (default ~/.local/state/zentiq/tavrin_history).\n"

// Collects statements from lines typed one after another: a statement ends
// at a ";" outside a quoted text ('...', where '' and \' do not end the
// text). Lines are joined with a line feed, so a text may span lines.
class SqlCollector {
public:
  // Takes one line (without its line feed) and appends the statements it
  // completed to out, without their ";" and the white space around them;
  // empty statements are dropped.
  void add(const std::string &line, std::vector<std::string> &out);
  // True while an unfinished statement is pending, and while it is inside
  // a quoted text.
  bool pending() const;
  bool in_text() const { return in_text_; }
  // Forgets the unfinished statement.
  void clear();

private:
  std::string text_;
  bool in_text_ = false, escaped_ = false;
};

// The history file of the shell: $XDG_STATE_HOME/zentiq/tavrin_history, with
// ~/.local/state for an unset or empty XDG_STATE_HOME; "" without a home.
std::string sqlshell_history_path();

// Runs the shell on standard input until \q or end of input. s is the open
// session of database `name` (as typed, UTF-8); \c replaces it with a new
// one, which the caller closes as before (s may be null afterwards when
// neither the new nor the old database could be opened again). With single,
// everything runs in one transaction that ends with the shell: committed,
// or rolled back when a statement failed. Returns false when any statement
// failed.
bool sqlshell_run(DBSESSION *&s, const std::string &name, TavrinSqlFormat format, bool single);
