// The process entry of every program built on the toolkit. A program's
// *_main.cpp holds only
//     int main(int argc, char **argv) { return fl_main(argc, argv, my_main); }
// and fl_main does the rest: it creates the Qt application, joins the
// arguments into the raw command line and splits it again by the toolkit's
// rule, installs the keyboard filter and calls the program's main routine (the
// viewer's is zentiq_main) with the new argument vector.
//
// Starting the toolkit itself (fonts, console) is the main routine's call to
// fl_init_toolkit; what the routine does is the program's.
#pragma once

#include <string>
#include <vector>

// A program's main routine: argument count and vector as fl_main built them;
// returns the exit status.
using FL_MAIN_ROUTINE = int (*)(int argc, char **argv);

// argv[1..argc-1] joined with single blanks.
std::string fl_join_arguments(int argc, char **argv);
// Splits the raw command line: element 0 is "program", then the texts between
// blanks. No quoting; runs of blanks separate; trailing blanks add nothing; a
// line beginning with a blank gives an empty first argument.
std::vector<std::string> fl_split_command_line(const char *raw);
// The entry (see above). Releases the toolkit (fl_exit_toolkit) if the routine
// left it running, and returns the routine's status.
int fl_main(int argc, char **argv, FL_MAIN_ROUTINE main_routine);
