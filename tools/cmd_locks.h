// tavrin locks: lists who holds the write lock of a database on the server
// and who waits for one. The list is the server's answer to the lock-list
// request; connecting is the session layer's.
#pragma once

#define LOCKS_HELP                                                                                 \
  "  -dbNAME   the database to connect to (default tdsys)\n"                                       \
  "Prints one line per client that holds a database's write lock or waits for\n"                  \
  "one: holds/waits, database, channel, process, user and since when. Holders\n"                   \
  "come first.\n"

// The run function of the command table; argv[0] is the command name.
int cmd_locks(int argc, char **argv);
