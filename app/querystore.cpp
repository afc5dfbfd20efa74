// The query store and its file "zentiq.qry" (see querystore.h).
#include "app/querystore.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/msg.h"

namespace {

struct FileCloser {
  void operator()(FILE *f) const {
    if (f) std::fclose(f);
  }
};
using File = std::unique_ptr<FILE, FileCloser>;

// The first line of a file whose texts are escaped: "\\" a backslash, "\n"
// a line feed, "\r" a carriage return. Written only when a text needs it,
// so that every other file keeps the plain form of one text per line.
constexpr const char *ESCAPED_HEADER = "ZENTIQ.QRY 2";

// Reads the next value: at most ZQ_TEXT_SIZE - 1 characters, cut at the first
// line feed. Returns false at the end of the file.
bool read_value(FILE *f, std::string *out) {
  char buf[ZQ_TEXT_SIZE];
  if (!std::fgets(buf, sizeof buf, f)) return false;
  if (char *lf = std::strchr(buf, '\n')) *lf = '\0';
  *out = buf;
  return true;
}

// Reads the next whole line of an escaped file and decodes it. Returns
// false at the end of the file; sets *bad for an unknown escape.
bool read_escaped(FILE *f, std::string *out, bool *bad) {
  std::string line;
  int c;
  while ((c = std::fgetc(f)) != EOF && c != '\n') line += static_cast<char>(c);
  if (c == EOF && line.empty()) return false;
  out->clear();
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i] != '\\') {
      *out += line[i];
      continue;
    }
    char e = i + 1 < line.size() ? line[++i] : '\0';
    if (e == '\\')
      *out += '\\';
    else if (e == 'n')
      *out += '\n';
    else if (e == 'r')
      *out += '\r';
    else
      *bad = true;
  }
  return true;
}

std::string escaped(const std::string &text) {
  std::string out;
  for (char c : text) {
    if (c == '\\')
      out += "\\\\";
    else if (c == '\n')
      out += "\\n";
    else if (c == '\r')
      out += "\\r";
    else
      out += c;
  }
  return out;
}

bool needs_escape(const std::string &text) {
  return text.find_first_of("\\\n\r") != std::string::npos;
}

bool fits(const std::string &s) { return s.size() < static_cast<size_t>(ZQ_TEXT_SIZE); }

// The entry a new one is compared with: the shown one, else the last one.
int compare_index(int current, int count) {
  if (current >= 0 && current < count) return current;
  return count - 1;
}

} // namespace

ZqStore &zentiq_store() {
  static ZqStore store;
  return store;
}

void zentiq_store_reset() { zentiq_store() = ZqStore(); }

int zentiq_load_queries() {
  ZqStore &s = zentiq_store();
  s.select_count = s.sql_count = 0;
  s.select_current = s.sql_current = -1;
  File f(std::fopen(ZQ_QUERY_FILE, "r"));
  if (!f) return 1;
  bool escaped_file = false, bad = false;
  std::string first;
  if (read_escaped(f.get(), &first, &bad) && first == ESCAPED_HEADER)
    escaped_file = true;
  else
    std::rewind(f.get());
  bad = false;
  auto next = [&](std::string *out) {
    return escaped_file ? read_escaped(f.get(), out, &bad) : read_value(f.get(), out);
  };
  auto fail = [&] {
    s.select_count = s.sql_count = 0;
    s.select_current = s.sql_current = -1;
    return 0;
  };
  bool sql_part = false;
  std::string line;
  while (next(&line)) {
    if (line == "---") {
      sql_part = true;
      continue;
    }
    if (sql_part) {
      // A file written by the program never holds more than the capacity;
      // further lines of a foreign file are ignored.
      if (s.sql_count >= ZQ_STORE_MAX) continue;
      s.sql[s.sql_count] = line;
      s.sql_saved[s.sql_count] = 1;
      ++s.sql_count;
      continue;
    }
    ZqSelectEntry e;
    e.table = line;
    if (!next(&e.attributes) || !next(&e.where)) return fail();
    if (s.select_count >= ZQ_STORE_MAX) continue;
    s.select[s.select_count] = e;
    s.select_saved[s.select_count] = 1;
    ++s.select_count;
  }
  return bad ? fail() : 1;
}

void zentiq_open_store() {
  if (zentiq_load_queries()) return;
  std::string bad = std::string(ZQ_QUERY_FILE) + ".bad";
  msg_print("Fehler beim Lesen der SQL-Abfragen aus Datei '%s' (Datei wird als '%s' "
            "aufbewahrt)!\n",
            ZQ_QUERY_FILE, bad.c_str());
  std::rename(ZQ_QUERY_FILE, bad.c_str());
}

int zentiq_save_queries() {
  const ZqStore &s = zentiq_store();
  std::vector<std::string> lines;
  bool escape = false;
  for (int i = 0; i < s.select_count; ++i) {
    if (!s.select_saved[i]) continue;
    const ZqSelectEntry &e = s.select[i];
    lines.insert(lines.end(), {e.table, e.attributes, e.where});
  }
  bool separator = false;
  for (int i = 0; i < s.sql_count; ++i) {
    if (!s.sql_saved[i]) continue;
    if (!separator) lines.emplace_back("---");
    separator = true;
    lines.push_back(s.sql[i]);
  }
  for (const std::string &l : lines) escape = escape || needs_escape(l);
  // Written beside the file and renamed over it: a failed write (a full
  // disk) leaves the previous file as it was.
  std::string tmp = std::string(ZQ_QUERY_FILE) + ".tmp";
  File f(std::fopen(tmp.c_str(), "w"));
  if (!f) return 0;
  if (escape) std::fprintf(f.get(), "%s\n", ESCAPED_HEADER);
  for (const std::string &l : lines) {
    std::fputs((escape ? escaped(l) : l).c_str(), f.get());
    std::fputc('\n', f.get());
  }
  bool ok = !std::ferror(f.get()) && std::fflush(f.get()) == 0;
  ok = std::fclose(f.release()) == 0 && ok;
  if (ok && std::rename(tmp.c_str(), ZQ_QUERY_FILE) == 0) return 1;
  std::remove(tmp.c_str());
  return 0;
}

int zentiq_store_add_select(const std::string &table, const std::string &attributes,
                            const std::string &where) {
  ZqStore &s = zentiq_store();
  if (s.select_count >= ZQ_STORE_MAX) {
    for (int i = 1; i < ZQ_STORE_MAX; ++i) {
      s.select[i - 1] = s.select[i];
      s.select_saved[i - 1] = s.select_saved[i];
    }
    s.select_count = ZQ_STORE_MAX - 1;
  }
  if (!fits(table) || !fits(attributes) || !fits(where)) return 0;
  if (s.select_count > 0) {
    const ZqSelectEntry &o = s.select[compare_index(s.select_current, s.select_count)];
    if (o.table == table && o.attributes == attributes && o.where == where) return 0;
  }
  s.select[s.select_count] = {table, attributes, where};
  s.select_saved[s.select_count] = 0;
  ++s.select_count;
  s.select_current = -1;
  return 1;
}

int zentiq_store_add_sql(const std::string &text) {
  ZqStore &s = zentiq_store();
  if (s.sql_count >= ZQ_STORE_MAX) {
    // Only the texts move: the saved flags stay at their slots.
    for (int i = 1; i < ZQ_STORE_MAX; ++i) s.sql[i - 1] = s.sql[i];
    s.sql_count = ZQ_STORE_MAX - 1;
  }
  if (!fits(text)) return 0;
  if (s.sql_count > 0 && s.sql[compare_index(s.sql_current, s.sql_count)] == text) return 0;
  s.sql[s.sql_count] = text;
  ++s.sql_count;
  s.sql_current = -1;
  return 1;
}

namespace {
int &count_of(int select) {
  return select ? zentiq_store().select_count : zentiq_store().sql_count;
}
int &current_of(int select) {
  return select ? zentiq_store().select_current : zentiq_store().sql_current;
}
} // namespace

int zentiq_store_prev(int select) {
  int count = count_of(select);
  int &cur = current_of(select);
  if (count <= 0) return 0;
  if (cur < 0 || cur >= count)
    cur = count - 1;
  else if (cur > 0)
    --cur;
  return 1;
}

int zentiq_store_next(int select) {
  int count = count_of(select);
  int &cur = current_of(select);
  if (cur >= 0 && cur < count) ++cur;
  if (cur < 0 || cur >= count) {
    cur = -1;
    return 0;
  }
  return 1;
}

int zentiq_store_mark_index(int select) {
  int count = count_of(select);
  int cur = current_of(select);
  if (count <= 0) return -1;
  return compare_index(cur, count);
}

int zentiq_store_mark(int select, int on) {
  int i = zentiq_store_mark_index(select);
  if (i < 0) return 0;
  if (select)
    zentiq_store().select_saved[i] = on ? 1 : 0;
  else
    zentiq_store().sql_saved[i] = on ? 1 : 0;
  return 1;
}

int zentiq_store_saved(int select, int i) {
  if (i < 0 || i >= ZQ_STORE_MAX) return 0;
  return select ? zentiq_store().select_saved[i] : zentiq_store().sql_saved[i];
}
