// The program's message output and its fatal stop.
//
// Every diagnostic of the system goes through msg_print: by default it writes
// to standard output; a program with a console window (the viewer) installs its
// own handler at start. msg_fatal prints a message, runs the end-of-run
// clean-up functions that modules registered and ends the process with exit
// status 1. What the clean-ups do (closing the database connection, removing
// named objects) is left to the modules that register them.
#pragma once

#include <cstdarg>

// Receives one finished message text (Latin-1, usually ending in '\n').
using MsgHandler = void (*)(const char *text);

// Installs a handler for all later messages; nullptr restores standard output.
// Returns the handler that was installed before.
MsgHandler msg_set_handler(MsgHandler handler);

// Formats like printf and hands the text to the installed handler. Texts of
// any length are formatted completely.
void msg_print(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void msg_vprint(const char *fmt, va_list ap);

// Registers fn to run once at a fatal stop, before exit; the last registered
// runs first. Registering the same function twice runs it once.
void msg_at_fatal(void (*fn)());
void msg_remove_at_fatal(void (*fn)());

// Prints the message (if fmt is not null), runs the registered clean-ups and
// ends the process with exit status 1. Never returns.
[[noreturn]] void msg_fatal(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// Runs the clean-ups and exits with status 1 without printing.
[[noreturn]] void msg_exit_fatal();
