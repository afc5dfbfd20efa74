// The database cache (see dbcache.h).
#include "db/access/dbcache.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/msg.h"
#include "base/savefile.h"

namespace {

// Length of one line read from the file, as the fixed line buffer held it.
constexpr int CACHE_LINE_MAX = 1000;
// Characters of an entry (the slots hold 20 bytes with the terminator).
constexpr size_t ENTRY_MAX = 19;

std::string g_baseline;
std::vector<std::string> g_entries;
std::unordered_set<std::string> g_index; // the entries again, for the lookups
bool g_disabled = false;

struct FileCloser {
  void operator()(std::FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// The upper-cased name as an entry slot holds it.
std::string entry_of(std::string_view name) {
  std::string e(name.substr(0, ENTRY_MAX));
  for (char &c : e) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return e;
}

// Reads one line of at most CACHE_LINE_MAX characters into `line` (without the
// line feed; the rest of a longer line is passed over). False at the end of
// the file.
bool read_line(std::FILE *f, std::string &line) {
  char buf[CACHE_LINE_MAX + 2];
  if (!std::fgets(buf, sizeof buf, f)) return false;
  line = buf;
  if (!line.empty() && line.back() == '\n') {
    line.pop_back();
  } else {
    int c;
    while ((c = std::fgetc(f)) != EOF && c != '\n') {
    }
  }
  return true;
}

// The first blank-separated word of a line; false when there is none.
bool first_word(const std::string &line, std::string &word) {
  std::vector<char> buf(line.size() + 1);
  if (std::sscanf(line.c_str(), "%s", buf.data()) != 1) return false;
  word = buf.data();
  return true;
}

} // namespace

int dbcache_read() {
  g_entries.clear();
  g_index.clear();
  g_baseline.clear();
  File f(std::fopen(DBCACHE_FILE, "r"));
  if (!f) return 1;
  std::string line, word;
  if (!read_line(f.get(), line)) {
    msg_print("(dbcache_read) DB-cache-file corrupted!\n");
  } else {
    if (first_word(line, word))
      g_baseline = word;
    else
      msg_print("(dbcache_read) DB-cache-file corrupted (baseline)!\n");
    while (read_line(f.get(), line)) {
      if (!first_word(line, word)) continue;
      if (g_entries.size() >= DBCACHE_MAX) break;
      g_entries.push_back(entry_of(word));
      g_index.insert(g_entries.back());
    }
  }
  f.reset();
  std::remove(DBCACHE_FILE);
  return 1;
}

int dbcache_write() {
  if (g_baseline.empty()) return 1;
  // A failed write leaves the file of an earlier write as it was.
  SaveFile f(SAVEFILE_Open(DBCACHE_FILE));
  if (!f) {
    msg_print("(dbcache_write) DB-cache-file write-error!\n");
    return 1;
  }
  std::FILE *out = SAVEFILE_Stream(f.get());
  std::fprintf(out, "%s\n", g_baseline.c_str());
  for (const auto &e : g_entries) std::fprintf(out, "%s\n", e.c_str());
  if (!SAVEFILE_Commit(f.release())) msg_print("(dbcache_write) DB-cache-file write-error!\n");
  return 1;
}

int dbcache_setbaseline(const char *name) {
  std::string n = name ? name : "";
  if (n != g_baseline) {
    g_entries.clear();
    g_index.clear();
    std::remove(DBCACHE_FILE);
  }
  g_baseline = n;
  return 1;
}

void dbcache_disable() { g_disabled = true; }
void dbcache_enable() { g_disabled = false; }

int dbcache_add(const char *table) {
  if (g_disabled || g_baseline.empty()) return 1;
  std::string e = entry_of(table ? table : "");
  if (g_index.count(e) || g_entries.size() >= DBCACHE_MAX) return 1;
  g_entries.push_back(e);
  g_index.insert(e);
  return 1;
}

int dbcache_contains(std::string_view table) {
  if (g_baseline.empty() || g_entries.empty()) return 1;
  return g_index.count(entry_of(table)) ? 1 : 0;
}

const char *dbcache_baseline() { return g_baseline.c_str(); }
int dbcache_count() { return static_cast<int>(g_entries.size()); }
