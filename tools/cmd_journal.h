// tavrin journal: the repair journal of a database on the command line. It
// lists the recorded changes (newest first), shows one with its rows and the
// statements that take it back, and undoes one the way the viewer's Journal
// dialog does. The journal file and the undo are db/access's (journal.h,
// jrnundo.h).
#pragma once

#define JOURNAL_HELP                                                                               \
  "  -dbNAME           the database whose journal is meant (default tdsys)\n"                      \
  "  --table TABLE     list: only changes of this table\n"                                         \
  "  --status STATUS   list: committed, aborted, unknown or undone\n"                              \
  "  --yes             undo: do not ask for confirmation\n"                                        \
  "The journal is ${XDG_DATA_HOME:-~/.local/share}/zentiq/journal/<DB>@<namespace>.jrn.\n"         \
  "'list' prints one line per change, newest first; 'show N' the rows of change\n"                 \
  "N before and after, and the statements that take it back; 'undo N' checks in\n"                 \
  "one transaction that every row still holds what the change left, runs those\n"                  \
  "statements and records the undo as a change of its own. On a terminal undo\n"                   \
  "asks first; elsewhere it needs --yes.\n"

// The run function of the command table; argv[0] is the command name.
int cmd_journal(int argc, char **argv);
