// The export text of a tabbox (see tabexport.h).
#include "framework/tabexport.h"

#include "forms/mytabs.h"

#include <cstdio>
#include <cstring>
#include <vector>

namespace {

struct Column {
  size_t start, width;
};

// Column boundaries of the full title: each starts after its leading blanks
// and runs to the next "|" less the blank before it (the last to the end).
std::vector<Column> title_columns(const std::string &t) {
  std::vector<Column> cols;
  size_t pos = 0;
  for (;;) {
    while (pos < t.size() && t[pos] == ' ') ++pos;
    size_t bar = t.find('|', pos);
    if (bar == std::string::npos) {
      cols.push_back({pos, pos < t.size() ? t.size() - pos : 0});
      break;
    }
    size_t end = bar > pos && t[bar - 1] == ' ' ? bar - 1 : bar;
    cols.push_back({pos, end - pos});
    pos = bar + 1;
  }
  return cols;
}

// One field: trailing blanks cut, TABs made '_', and in a plain number
// (digits, '-' and at most one '.') the '.' made ','. Leading blanks stay: a
// right-aligned number keeps its place in the column and, as it is then no
// plain number, its '.'.
std::string export_field(const std::string &line, const Column &c) {
  std::string f = c.start < line.size() ? line.substr(c.start, c.width) : std::string();
  while (!f.empty() && f.back() == ' ') f.pop_back();
  int dots = 0;
  bool number = true;
  for (char &ch : f) {
    if (ch == '\t') ch = '_';
    if (ch == '.')
      ++dots;
    else if (!(ch >= '0' && ch <= '9') && ch != '-')
      number = false;
  }
  if (number && dots <= 1)
    for (char &ch : f)
      if (ch == '.') ch = ',';
  return f;
}

} // namespace

int myfl_export_tabbox_text(FL_OBJECT *tabbox, int all, std::string *text, std::string *error) {
  text->clear();
  int slots = 0, *end, *order, *visible, nsort, *scols, *sdirs, maxwidth, *colmax;
  if (!fl_get_tabbox_properties(tabbox, &slots, &end, &order, &visible, &nsort, &scols, &sdirs,
                                &maxwidth, &colmax))
    return 0;
  const char *ft = fl_get_tabbox_full_title(tabbox);
  std::string title = ft ? ft : "";
  std::vector<Column> cols = title_columns(title);
  if (static_cast<int>(cols.size()) + 1 != slots) {
    *error = "Es ist ein Fehler aufgetreten (Tabellenanzahl inkonsistent)";
    return 0;
  }
  std::vector<int> chosen;
  for (int k = 1; k < slots; ++k) {
    if (all) {
      chosen.push_back(k);
    } else {
      int c = order[k];
      if (c >= 1 && c < slots && visible[c]) chosen.push_back(c);
    }
  }
  auto add_line = [&](const std::string &line) {
    for (int c : chosen) {
      *text += export_field(line, cols[c - 1]);
      *text += '\t';
    }
    if (!text->empty() && text->back() == '\t')
      text->back() = '\n';
    else
      *text += '\n';
  };
  text->reserve(1000);
  add_line(title);
  int n = fl_get_tabbox_maxline(tabbox);
  for (int p = 1; p <= n; ++p) {
    const char *l = fl_get_tabbox_full_line(tabbox, p);
    add_line(l ? l : "");
  }
  return 1;
}

int myfl_valid_filename(const char *name) {
  if (!name || !*name) return 0;
  for (const unsigned char *p = reinterpret_cast<const unsigned char *>(name); *p; ++p)
    if (*p < 32 || *p == 127 || std::strchr("\\:*?\"<>|", *p)) return 0;
  size_t n = std::strlen(name);
  return name[n - 1] != '/';
}

std::string myfl_export_filename(const char *name) {
  std::string f = name ? name : "";
  if (f.size() < 4 || f.compare(f.size() - 4, 4, ".csv") != 0) f += ".csv";
  return f;
}

int myfl_write_export(const std::string &filename, const std::string &text) {
  FILE *f = std::fopen(filename.c_str(), "wb");
  if (!f) return 0;
  bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
  ok = std::fclose(f) == 0 && ok;
  return ok ? 1 : 0;
}
