// The console window, where every diagnostic of the program appears (the
// program has no terminal), and the command window, which shows what started
// child processes write to their standard output and error output.
//
// The console keeps the last 200 lines; each print is one line. Starting the
// child processes and reading their pipes is process.h's; installing
// fl_console_print as the message printer's handler is the application's.
#pragma once

#include <string>

class QWidget;

// Creates both windows (the console shown at the top left, 640 x 300, wide
// enough for a server's message in one line; the
// command window hidden at the right edge, 350 x 400). Needs a QApplication.
void fl_create_console_windows();
void fl_destroy_console_windows();

// Appends the text (Latin-1) as one line, line feeds read as blanks, keeps the
// last 200 lines and shows the console restored, without taking the focus.
// Works without windows too (the text is only kept). Returns 1.
int fl_console_print(const char *text);
// The console's text: its lines separated by CR CR LF.
const std::string &fl_console_text();
int fl_console_line_count();
// Empties the console.
void fl_console_clear();
// Minimises the console window.
void fl_iconify_console();
// Shows the console restored, raised and active, for the user to read the
// log. Returns 1, or 0 when the window does not exist.
int fl_show_console();

// Hands a text to the command window: channel 2 the child's output, 3 its
// error output (shown in red). Returns 1, or 0 when the window does not exist.
// GUI thread only.
int fl_send_stdio_text(int channel, const char *text);
// What the command window shows (Latin-1).
std::string fl_command_text();

QWidget *fl_console_window();
QWidget *fl_command_window();
