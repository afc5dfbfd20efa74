// The data-file lookup (see datadir.h).
#include "base/datadir.h"

#include <climits>
#include <unistd.h>

std::string datadir_installed() {
  char exe[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", exe, sizeof exe);
  if (n <= 0 || size_t(n) >= sizeof exe) return "";
  std::string dir(exe, size_t(n));
  size_t slash = dir.rfind('/');
  if (slash == std::string::npos) return "";
  dir.resize(slash);
  return dir + "/../share/zentiq";
}

std::string datadir_find(const char *name) {
  if (access(name, F_OK) == 0) return name;
  std::string dir = datadir_installed();
  if (dir.empty()) return name;
  std::string installed = dir + "/" + name;
  return access(installed.c_str(), F_OK) == 0 ? installed : name;
}
