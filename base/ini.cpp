// INI files (see ini.h). Lines are read with fgets into buffers of
// INI_LINE_MAX bytes, so no read can run past a buffer whatever the file
// holds; a longer line simply arrives in pieces.
#include "base/ini.h"

#include "base/msg.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

namespace {

// Process-wide state of the module: the buffer INI_GetLine hands out.
char g_line[INI_LINE_MAX];

struct FileCloser {
  void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

std::string ini_name(const char *basename) { return std::string(basename) + ".ini"; }

// True when `line` starts with '[' and the text up to the first ']' (or the
// end of the line piece) is non-empty and equals `key`.
bool has_key(const char *line, const char *key) {
  if (line[0] != '[') return false;
  const char *name = line + 1;
  size_t n = std::strcspn(name, "]");
  return n > 0 && n == std::strlen(key) && std::memcmp(name, key, n) == 0;
}

// Rewrites `filename` without line `number`, putting `replacement` (when not
// null) in its place, and drops every empty line on the copy back.
void rewrite(const std::string &filename, int number, const char *replacement) {
  File tmp(std::tmpfile());
  File in(std::fopen(filename.c_str(), "rb+"));
  if (!tmp) {
    msg_print("ERR: Cannot open temporary file!\n");
    return;
  }
  if (!in) {
    msg_print("Cannot open file '%s'!", filename.c_str());
    return;
  }
  auto buf = std::make_unique<char[]>(INI_LINE_MAX);
  int no = 0;
  while (std::fgets(buf.get(), INI_LINE_MAX, in.get())) {
    if (++no == number) {
      if (replacement) std::fputs(replacement, tmp.get());
      continue;
    }
    std::fputs(buf.get(), tmp.get());
  }
  in.reset();
  std::rewind(tmp.get());

  File out(std::fopen(filename.c_str(), "wb"));
  if (!out) {
    msg_print("Cannot open file '%s'!", filename.c_str());
    return;
  }
  while (std::fgets(buf.get(), INI_LINE_MAX, tmp.get())) {
    if (std::strcmp(buf.get(), "\n") == 0) continue;
    std::fputs(buf.get(), out.get());
  }
}

} // namespace

int INI_FindKey(const char *filename, const char *key, char *line) {
  File f(std::fopen(filename, "rb"));
  if (f) {
    int no = 0;
    while (std::fgets(line, INI_LINE_MAX, f.get())) {
      ++no;
      if (has_key(line, key)) return no;
    }
  }
  line[0] = '\0';
  return 0;
}

const char *INI_GetLine(const char *basename, const char *key) {
  return INI_FindKey(ini_name(basename).c_str(), key, g_line) ? g_line : nullptr;
}

void INI_PutLine(const char *basename, const char *key, const char *line) {
  std::string filename = ini_name(basename);
  auto buf = std::make_unique<char[]>(INI_LINE_MAX);
  int n = INI_FindKey(filename.c_str(), key, buf.get());
  if (n > 0) {
    rewrite(filename, n, line);
    return;
  }
  File f(std::fopen(filename.c_str(), "ab"));
  if (!f) {
    msg_print("Cannot open file '%s'!", filename.c_str());
    return;
  }
  std::fputs(line, f.get());
}

void INI_DeleteLine(const char *basename, const char *key) {
  std::string filename = ini_name(basename);
  auto buf = std::make_unique<char[]>(INI_LINE_MAX);
  int n = INI_FindKey(filename.c_str(), key, buf.get());
  if (n > 0) rewrite(filename, n, nullptr);
}
