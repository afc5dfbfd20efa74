// tavrin ping: checks that the TAVRIN server answers. Connects as the other
// database commands do, measures the answer time of "SHOW DATABASES" and
// lists the databases. The connection itself is the session layer's.
#pragma once

#define PING_HELP                                                                                  \
  "  -dbNAME   the database to connect to (default tdsys)\n"                                       \
  "Prints the server's answer time and its databases; exit status 1 with the\n"                    \
  "connection's message when no server answers.\n"

// The run function of the command table; argv[0] is the command name.
int cmd_ping(int argc, char **argv);
