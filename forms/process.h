// Starting child processes: one that runs hidden while the program waits, and
// one whose standard streams are connected to the program through pipes, its
// output and error output shown in the command window (console.h).
//
// The pipes and three worker threads (output reader, error reader, watcher)
// are created on the first connected start and kept for the whole run: the
// readers never end, the watcher serves one child after another. Workers reach
// the windows only through events posted to the GUI thread; when a child ends
// the watcher posts the "WMSTDIOCOMMAND" event, which clears the running flag
// there. Writing to the child's standard input is not offered.
#pragma once

#include <string>
#include <vector>

// Splits a command line into the program and its arguments: at blanks, with
// double quotes grouping words that contain blanks (the quotes are dropped).
std::vector<std::string> fl_split_program_line(const char *command_line);

// Starts the command line (program looked up in PATH) with its standard
// streams on /dev/null and waits until it ends. Returns 1 when the process was
// started and the wait succeeded, else 0.
int fl_run_program(const char *command_line);
// Starts the command line with its standard input, output and error on the
// program's pipes and returns at once: 1 and the running flag set, or 0 after
// handing "Unable to start %s\n" with the command line to the command window
// (channel 2). show is accepted for the window systems that distinguish it;
// child processes here have no window of the toolkit's. GUI thread only.
int fl_start_program(const char *command_line, int show);
// The running flag: 1 from a successful fl_start_program until the child ends
// (or until cleared).
int fl_program_running();
void fl_clear_program_running();
// The registered Qt event type of "WMSTDIOCOMMAND".
int fl_stdio_command_event_type();
