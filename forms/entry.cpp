// The process entry (see entry.h).
#include "forms/entry.h"

#include "forms/forms.h"
#include "forms/keyfilter.h"

#include <QApplication>

#include <memory>

std::string fl_join_arguments(int argc, char **argv) {
  std::string raw;
  for (int i = 1; i < argc; ++i) {
    if (i > 1) raw += ' ';
    if (argv[i]) raw += argv[i];
  }
  return raw;
}

std::vector<std::string> fl_split_command_line(const char *raw) {
  std::vector<std::string> args{"program"};
  if (!raw) return args;
  const char *s = raw;
  while (*s) {
    const char *start = s;
    while (*s && *s != ' ') ++s;
    args.emplace_back(start, s);
    while (*s == ' ') ++s;
  }
  return args;
}

int fl_main(int argc, char **argv, FL_MAIN_ROUTINE main_routine) {
  // QApplication keeps a reference to the count for its whole life.
  static int qt_argc;
  qt_argc = argc;
  auto app = std::make_unique<QApplication>(qt_argc, argv);
  // Qt has taken its own options (-platform, -style, ...) out of argv.
  std::string raw = fl_join_arguments(qt_argc, argv);
  std::vector<std::string> args = fl_split_command_line(raw.c_str());
  std::vector<char *> vec;
  for (auto &a : args) vec.push_back(a.data());
  vec.push_back(nullptr);
  fl_install_keyboard_filter();
  int status = main_routine(static_cast<int>(args.size()), vec.data());
  if (fl_toolkit_initialised()) fl_exit_toolkit();
  fl_remove_keyboard_filter();
  app.reset();
  return status;
}
