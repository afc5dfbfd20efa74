// The settings line of managed tabboxes (see tabset.h).
#include "framework/tabset.h"

#include "base/ini.h"
#include "base/msg.h"
#include "framework/dbtabbox.h"
#include "framework/place.h"
#include "forms/mytabs.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

int g_in_hook = 0;

bool is_digit(char c) { return c >= '0' && c <= '9'; }

void skip_blanks(const std::string &v, size_t &p) {
  while (p < v.size() && v[p] == ' ') ++p;
}

// Reads an optionally signed decimal number at p; false when there is none.
bool read_int(const std::string &v, size_t &p, int *out) {
  size_t q = p;
  bool neg = false;
  if (q < v.size() && v[q] == '-') {
    neg = true;
    ++q;
  }
  if (q >= v.size() || !is_digit(v[q])) return false;
  long n = 0;
  while (q < v.size() && is_digit(v[q])) {
    if (n < 100000000) n = n * 10 + (v[q] - '0');
    ++q;
  }
  *out = static_cast<int>(neg ? -n : n);
  p = q;
  return true;
}

// Removes the width tokens (" col|width ", any width; col < 0 any column)
// from the value, keeping one blank in place of each, until none is left.
bool remove_width_tokens(std::string &v, int col) {
  bool removed = false;
  for (bool again = true; again;) {
    again = false;
    size_t from = v.find(']');
    from = from == std::string::npos ? 0 : from;
    for (size_t i = from; i < v.size(); ++i) {
      if (v[i] != ' ') continue;
      size_t p = i + 1;
      int c = 0, w = 0;
      if (!read_int(v, p, &c) || c < 0 || p >= v.size() || v[p] != '|') continue;
      ++p;
      if (!read_int(v, p, &w) || p >= v.size() || v[p] != ' ') continue;
      if (col >= 0 && c != col) continue;
      v.erase(i, p - i);
      again = removed = true;
      break;
    }
  }
  return removed;
}

// The stored value under the tabbox's plain name with its line end removed;
// false when there is none.
bool plain_value(MYFL_TABBOX *m, std::string *v) {
  const char *l = INI_GetLine(myfl_get_appl_name(), m->name.c_str());
  if (!l) return false;
  *v = l;
  while (!v->empty() && (v->back() == '\n' || v->back() == '\r')) v->pop_back();
  return true;
}

void put_plain(MYFL_TABBOX *m, const std::string &v) {
  INI_PutLine(myfl_get_appl_name(), m->name.c_str(), (v + "\n").c_str());
}

void colwidth_hook(FL_OBJECT *obj, int col, int width) {
  if (!myfl_find_tabbox(obj)) return;
  myfl_set_tabbox_colwidth_ini(obj, col, width);
  myfl_save_tabbox_ini(obj);
}

void optimize_hook(FL_OBJECT *obj) {
  if (!myfl_find_tabbox(obj)) return;
  myfl_clear_tabbox_colwidths_ini(obj);
}

void refresh_hook(FL_OBJECT *obj) {
  if (myfl_find_tabbox(obj))
    myfl_update_tabbox(obj);
  else
    fl_draw_tabbox(obj);
}

void settings_hook(FL_OBJECT *obj) {
  if (g_in_hook > 4 || !myfl_find_tabbox(obj)) return;
  ++g_in_hook;
  myfl_load_tabbox_ini(obj);
  --g_in_hook;
}

} // namespace

std::string myfl_tabbox_columns_token(FL_OBJECT *tabbox) {
  uint32_t h = 2166136261u;
  for (unsigned char c : fl_tabbox_column_names(fl_get_tabbox_full_title(tabbox))) {
    h ^= c;
    h *= 16777619u;
  }
  char buf[16];
  std::snprintf(buf, sizeof buf, "c%08x", static_cast<unsigned>(h));
  return buf;
}

std::string myfl_tabbox_ini_key(FL_OBJECT *tabbox) {
  std::string name = myfl_get_tabbox_name(tabbox);
  int nr = myfl_get_tabbox_tablenr(tabbox);
  return nr >= 0 ? name + "_" + std::to_string(nr) : name;
}

std::string myfl_tabbox_ini_line(const std::string &key, int vertical, int kz_dbnames, int slots,
                                 const int *order, int nsort, const int *sort_cols,
                                 const int *sort_dirs, int maxwidth, const int *colmax) {
  std::string l = "[" + key + "] ";
  if (vertical) l += "v ";
  l += kz_dbnames ? "1 " : "0 ";
  l += std::to_string(slots) + " ";
  for (int k = 1; k < slots; ++k) {
    l += std::to_string(order[k]) + " ";
    if (order[k] == -1) break;
  }
  for (int i = 0; i < nsort; ++i) l += std::to_string(sort_cols[i]) + (sort_dirs[i] ? "u " : "d ");
  if (maxwidth != -1) l += std::to_string(maxwidth) + "m ";
  for (int k = 1; k < slots; ++k)
    if (colmax[k] != -1) l += std::to_string(k) + "|" + std::to_string(colmax[k]) + " ";
  return l + "\n";
}

int myfl_save_tabbox_ini(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  // Programming error (a call the code must never make): fatal by design.
  if (!m) msg_fatal("(myfl_save_tabbox_ini) Tabbox not defined\n");
  int slots = 0, *end, *order, *visible, nsort = 0, *cols, *dirs, maxwidth = -1, *colmax;
  if (!fl_get_tabbox_properties(tabbox, &slots, &end, &order, &visible, &nsort, &cols, &dirs,
                                &maxwidth, &colmax) ||
      slots == 0)
    return 0;
  std::string key = myfl_tabbox_ini_key(tabbox);
  std::string line = myfl_tabbox_ini_line(key, fl_get_tabbox_vert(tabbox), m->kz_dbnames, slots,
                                          order, nsort, cols, dirs, maxwidth, colmax);
  // The sort keys hold only for the columns they were chosen on.
  if (nsort > 0) line.insert(line.size() - 1, myfl_tabbox_columns_token(tabbox) + " ");
  INI_PutLine(myfl_get_appl_name(), key.c_str(), line.c_str());
  return 1;
}

void myfl_load_tabbox_ini(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  if (!m) return;
  int slots = 0, *end, *order, *visible, nsort = 0, *cols, *dirs, maxwidth = -1, *colmax;
  if (!fl_get_tabbox_properties(tabbox, &slots, &end, &order, &visible, &nsort, &cols, &dirs,
                                &maxwidth, &colmax) ||
      slots == 0)
    return;
  const char *base = myfl_get_appl_name();
  if (m->no_ini) {
    m->no_ini = 0;
    INI_DeleteLine(base, m->name.c_str());
    return;
  }
  std::string key;
  const char *found = nullptr;
  if (m->tablenr >= 0) {
    key = myfl_tabbox_ini_key(tabbox);
    found = INI_GetLine(base, key.c_str());
  }
  if (!found) {
    key = m->name;
    found = INI_GetLine(base, key.c_str());
  }
  if (!found) return;
  const std::string v = found;
  const char *name = m->name.c_str();

  size_t p = v.find(']');
  if (p == std::string::npos) return;
  ++p;
  skip_blanks(v, p);
  bool vert = false;
  if (p < v.size() && v[p] == 'v') {
    vert = true;
    ++p;
    skip_blanks(v, p);
  }
  int kz = p < v.size() && v[p] == '1';
  if (p < v.size()) ++p;
  skip_blanks(v, p);
  int n = 0;
  if (!read_int(v, p, &n)) n = 0;
  if (n > slots) {
    msg_print("ini-file: wrong tabbox definition (%s)!\n", name);
    INI_DeleteLine(base, key.c_str());
    return;
  }
  m->kz_dbnames = kz;
  for (int k = 1; k < slots; ++k) {
    visible[k] = 0;
    order[k] = -1;
  }
  const char *title = fl_get_tabbox_full_title(tabbox);
  int bounds =
      static_cast<int>(std::count(title, title + std::char_traits<char>::length(title), '|')) + 2;
  // Programming error (a call the code must never make): fatal by design.
  if (bounds != slots) msg_fatal("error in tabbox definition (%s)!\n", name);

  // Display order: up to the first -1 of the saved slots, then the columns
  // the title has beyond them.
  int next = 1;
  for (int k = 1; k < n && k < slots; ++k) {
    skip_blanks(v, p);
    int col = 0;
    if (!read_int(v, p, &col)) break;
    if (col < 0) break;
    if (col >= 1 && col < slots) order[next++] = col;
  }
  for (int col = std::max(n, 1); col < slots && next < slots; ++col) order[next++] = col;
  for (int k = 1; k < slots; ++k) {
    if (order[k] < 0) break;
    visible[order[k]] = 1;
  }

  // Sort keys, the global and the column widths.
  std::vector<int> sort_cols, sort_dirs;
  sort_cols.reserve(10);
  sort_dirs.reserve(10);
  const std::string columns = myfl_tabbox_columns_token(tabbox);
  bool same_columns = false;
  while (p < v.size() && v[p] != '\n') {
    skip_blanks(v, p);
    if (p >= v.size() || v[p] == '\n' || v[p] == '\r') break;
    int num = 0;
    if (v.compare(p, columns.size(), columns) == 0) same_columns = true;
    if (!is_digit(v[p]) || !read_int(v, p, &num)) {
      while (p < v.size() && v[p] != ' ' && v[p] != '\n') ++p;
      continue;
    }
    char after = p < v.size() ? v[p] : '\0';
    if (after == '|') {
      ++p;
      int width = 0;
      bool ok = read_int(v, p, &width);
      if (num < 1 || num >= slots || !ok)
        msg_print("ini-file: wrong max-width definition (%s)!\n", name);
      else
        colmax[num] = width;
    } else if (after == 'm') {
      ++p;
      fl_set_tabbox_maxwidth(tabbox, num);
    } else {
      if (after == 'u' || after == 'd') ++p;
      if (num < 1 || num >= slots) {
        msg_print("ini-file: wrong sort definition (%s)!\n", name);
      } else {
        sort_cols.push_back(num);
        sort_dirs.push_back(after == 'u' ? 1 : 0);
      }
    }
    while (p < v.size() && v[p] != ' ' && v[p] != '\n') ++p;
  }
  // A stored sort is applied again only to a result with the same columns
  // (the tabbox then shows it in its title line); any other result keeps
  // the order the server gave it.
  if (!same_columns) sort_cols.clear(), sort_dirs.clear();
  fl_set_tabbox_sort(tabbox, static_cast<int>(sort_cols.size()), sort_cols.data(),
                     sort_dirs.data());
  if (vert) fl_set_tabbox_vert(tabbox);
}

void myfl_set_tabbox_colwidth_ini(FL_OBJECT *tabbox, int col, int width) {
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  // Programming error (a call the code must never make): fatal by design.
  if (!m) msg_fatal("(myfl_set_tabbox_colwidth_ini) Tabbox not defined\n");
  std::string v;
  if (!plain_value(m, &v)) return;
  std::string token = std::to_string(col) + "|" + std::to_string(width) + " ";
  // Replace the column's token in place, else append it.
  size_t from = v.find(']');
  from = from == std::string::npos ? 0 : from;
  bool done = false;
  for (size_t i = from; i < v.size() && !done; ++i) {
    if (v[i] != ' ') continue;
    size_t p = i + 1;
    int c = 0, w = 0;
    if (!read_int(v, p, &c) || c != col || p >= v.size() || v[p] != '|') continue;
    ++p;
    if (!read_int(v, p, &w) || p >= v.size() || v[p] != ' ') continue;
    v.replace(i + 1, p + 1 - (i + 1), token);
    done = true;
  }
  if (!done) {
    if (v.empty() || v.back() != ' ') v += ' ';
    v += token;
  }
  put_plain(m, v);
}

void myfl_clear_tabbox_colwidth_ini(FL_OBJECT *tabbox, int col) {
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  // Programming error (a call the code must never make): fatal by design.
  if (!m) msg_fatal("(myfl_clear_tabbox_colwidth_ini) Tabbox not defined\n");
  std::string v;
  if (plain_value(m, &v) && remove_width_tokens(v, col)) put_plain(m, v);
}

void myfl_clear_tabbox_colwidths_ini(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  // Programming error (a call the code must never make): fatal by design.
  if (!m) msg_fatal("(myfl_clear_tabbox_colwidths_ini) Tabbox not defined\n");
  std::string v;
  if (plain_value(m, &v) && remove_width_tokens(v, -1)) put_plain(m, v);
}

void myfl_install_tabbox_settings() {
  fl_set_tabbox_settings_hook(settings_hook);
  fl_set_tabbox_colwidth_hook(colwidth_hook);
  fl_set_tabbox_optimize_hook(optimize_hook);
  fl_set_tabbox_refresh_hook(refresh_hook);
}
