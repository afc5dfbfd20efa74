// tavrin encode: shows the binary request that the client sends for an SQL
// statement, as lower-case hex, without a server.
//
// The statement is parsed and encoded exactly as DBexec does it (";"
// appended when missing); the grammar and the bytes are the client parser's
// business (db/client/parser.h).
#pragma once

// Further help lines of the command.
#define ENCODE_HELP                                                                                \
  "The arguments are joined with blanks into one statement; quote it for the shell.\n"             \
  "Prints two hex digits per request byte on one line. A statement the parser\n"                   \
  "refuses prints the parser's message on standard error and exits with status 1.\n"

// The run function of the command table; argv[0] is the command name.
int cmd_encode(int argc, char **argv);
