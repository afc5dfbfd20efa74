// tavrin, the command-line client: finds the subcommand named by the first
// argument in the command table and runs it. The commands themselves live in
// their own modules (see commands.h).
#include "tools/commands.h"
#include "tools/term.h"

#include <cstring>

int main(int argc, char **argv) {
  term_install_msg_handler();
  if (argc < 2) {
    term_error("no command given; 'tavrin help' lists the commands");
    return TAVRIN_USAGE;
  }
  const char *name = argv[1];
  if (std::strcmp(name, "--help") == 0 || std::strcmp(name, "-h") == 0) name = "help";
  const TavrinCommand *cmd = tavrin_find_command(name);
  if (!cmd) {
    term_error("unknown command '%s'; 'tavrin help' lists the commands",
               term_to_latin1(name).c_str());
    return TAVRIN_USAGE;
  }
  if (argc > 2 && std::strcmp(argv[2], "--help") == 0) {
    tavrin_print_usage(*cmd, true, stdout);
    return TAVRIN_OK;
  }
  return cmd->run(argc - 1, argv + 1);
}
