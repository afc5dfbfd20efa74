// The subcommand table of tavrin and the help command (see commands.h).
#include "tools/commands.h"

#include "tools/cmd_encode.h"
#include "tools/cmd_journal.h"
#include "tools/cmd_locks.h"
#include "tools/cmd_ping.h"
#include "tools/cmd_sql.h"
#include "tools/cmd_table.h"
#include "tools/cmd_varne.h"
#include "tools/sqlshell.h"
#include "tools/term.h"

#include <cstdarg>
#include <cstring>
#include <string>

namespace {

int cmd_help(int argc, char **argv);

// One line per subcommand.
const TavrinCommand kCommands[] = {
    {"help", "[COMMAND]", "list the commands, or show how to use one", "", cmd_help},
    {"compress", "[-b] [-m MIN] [-c CACHE] [IN [OUT]]", "compress a file into the Varne format",
     VARNE_COMPRESS_HELP, cmd_compress},
    {"uncompress", "[IN [OUT]]", "restore a file from the Varne format", VARNE_UNCOMPRESS_HELP,
     cmd_uncompress},
    {"encode", "STATEMENT...", "show the request bytes of an SQL statement", ENCODE_HELP,
     cmd_encode},
    {"sql", "[-dbNAME] [--format table|csv|tsv] [-1] [STATEMENT...]",
     "run SQL statements on a database", SQL_HELP SQLSHELL_HELP, cmd_sql},
    {"table", "save|load [-dbNAME] TABLE FILE", "save a table into a TABLE file, or load one",
     TABLE_HELP, cmd_table},
    {"ping", "[-dbNAME]", "check that the TAVRIN server answers", PING_HELP, cmd_ping},
    {"locks", "[-dbNAME]", "list who holds and who waits for write locks", LOCKS_HELP,
     cmd_locks},
    {"journal", "list|show N|undo N [-dbNAME] [--table T] [--status S] [--yes]",
     "list, show or undo the changes recorded in the repair journal", JOURNAL_HELP, cmd_journal},
};

int cmd_help(int argc, char **argv) {
  if (argc > 2) return tavrin_usage_error(kCommands[0], "too many arguments");
  if (argc == 2) {
    const TavrinCommand *cmd = tavrin_find_command(argv[1]);
    if (!cmd) {
      term_error("unknown command '%s'", term_to_latin1(argv[1]).c_str());
      return TAVRIN_USAGE;
    }
    tavrin_print_usage(*cmd, true, stdout);
    return TAVRIN_OK;
  }
  std::string text = "usage: tavrin COMMAND [ARGUMENTS]\n\nCommands:\n";
  for (const auto &cmd : kCommands) {
    std::string line = "  " + std::string(cmd.name);
    line.resize(std::max<size_t>(line.size() + 2, 14), ' ');
    text += line + cmd.summary + "\n";
  }
  text += "\n'tavrin help COMMAND' shows the arguments of a command.\n"
          "Exit status: 0 success, 1 failure, 2 wrong command line.\n";
  return term_write(stdout, text) ? TAVRIN_OK : TAVRIN_FAIL;
}

} // namespace

std::span<const TavrinCommand> tavrin_commands() { return kCommands; }

const TavrinCommand *tavrin_find_command(const char *name) {
  for (const auto &cmd : kCommands)
    if (std::strcmp(cmd.name, name) == 0) return &cmd;
  return nullptr;
}

void tavrin_print_usage(const TavrinCommand &cmd, bool with_help, std::FILE *stream) {
  std::string text = std::string("usage: tavrin ") + cmd.name + " " + cmd.args + "\n";
  if (with_help) {
    text += std::string("\n") + cmd.summary + ".\n";
    if (*cmd.help) text += std::string("\n") + cmd.help;
  }
  term_write(stream, text);
}

int tavrin_usage_error(const TavrinCommand &cmd, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char msg[1000];
  std::vsnprintf(msg, sizeof msg, fmt, ap);
  va_end(ap);
  term_error("%s: %s", cmd.name, msg);
  tavrin_print_usage(cmd, false, stderr);
  return TAVRIN_USAGE;
}
