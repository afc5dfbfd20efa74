// The table of tavrin's subcommands and what they share: exit statuses, the
// help texts and the usage-error report.
//
// A subcommand is a module of its own (tools/cmd_<subject>.{h,cpp}) with one
// run function per command; it becomes part of tavrin through one line in the
// table in commands.cpp. The dispatch itself is in tavrin_main.cpp.
#pragma once

#include <cstddef>
#include <cstdio>
#include <span>

// Exit statuses of tavrin.
inline constexpr int TAVRIN_OK = 0;
inline constexpr int TAVRIN_FAIL = 1;  // the work failed (file, data, server)
inline constexpr int TAVRIN_USAGE = 2; // the command line is wrong

struct TavrinCommand {
  const char *name;    // as typed after "tavrin"
  const char *args;    // argument synopsis, e.g. "[IN [OUT]]"
  const char *summary; // one line for the command list
  const char *help;    // further lines for "tavrin help NAME" (may be empty)
  // Runs the command; argv[0] is the command name. Returns the exit status.
  int (*run)(int argc, char **argv);
};

// Every command, in the order "tavrin help" lists them.
std::span<const TavrinCommand> tavrin_commands();

// The command of that name, or nullptr.
const TavrinCommand *tavrin_find_command(const char *name);

// Prints "usage: tavrin NAME ARGS" and the help lines to stream.
void tavrin_print_usage(const TavrinCommand &cmd, bool with_help, std::FILE *stream);

// Reports a wrong command line of cmd: the message (Latin-1, printf format)
// and the usage line on standard error. Returns TAVRIN_USAGE.
int tavrin_usage_error(const TavrinCommand &cmd, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));
