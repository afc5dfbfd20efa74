// The query store and its file "zentiq.qry" (see querystore.h).
#include "app/querystore.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "base/msg.h"

namespace {

struct FileCloser {
  void operator()(FILE *f) const {
    if (f) std::fclose(f);
  }
};
using File = std::unique_ptr<FILE, FileCloser>;

// Reads the next value: at most ZQ_TEXT_SIZE - 1 characters, cut at the first
// line feed. Returns false at the end of the file.
bool read_value(FILE *f, std::string *out) {
  char buf[ZQ_TEXT_SIZE];
  if (!std::fgets(buf, sizeof buf, f)) return false;
  if (char *lf = std::strchr(buf, '\n')) *lf = '\0';
  *out = buf;
  return true;
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
  bool sql_part = false;
  std::string line;
  while (read_value(f.get(), &line)) {
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
    if (!read_value(f.get(), &e.attributes) || !read_value(f.get(), &e.where)) {
      s.select_count = s.sql_count = 0;
      s.select_current = s.sql_current = -1;
      return 0;
    }
    if (s.select_count >= ZQ_STORE_MAX) continue;
    s.select[s.select_count] = e;
    s.select_saved[s.select_count] = 1;
    ++s.select_count;
  }
  return 1;
}

int zentiq_save_queries() {
  const ZqStore &s = zentiq_store();
  File f(std::fopen(ZQ_QUERY_FILE, "w"));
  if (!f) msg_fatal("ERROR: File '%s' cannot be opened for writing!\n", ZQ_QUERY_FILE);
  for (int i = 0; i < s.select_count; ++i) {
    if (!s.select_saved[i]) continue;
    const ZqSelectEntry &e = s.select[i];
    std::fprintf(f.get(), "%s\n%s\n%s\n", e.table.c_str(), e.attributes.c_str(), e.where.c_str());
  }
  bool separator = false;
  for (int i = 0; i < s.sql_count; ++i) {
    if (!s.sql_saved[i]) continue;
    if (!separator) std::fputs("---\n", f.get());
    separator = true;
    std::fprintf(f.get(), "%s\n", s.sql[i].c_str());
  }
  return 1;
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
