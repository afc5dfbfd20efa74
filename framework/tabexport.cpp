// The export text of a tabbox (see tabexport.h).
#include "framework/tabexport.h"

#include "forms/mytabs.h"
#include "framework/dbtabbox.h"

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

// 1 for a plain number: an optional "-", digits, at most one ".", at least
// one digit.
bool plain_number(const std::string &f) {
  size_t i = !f.empty() && f[0] == '-' ? 1 : 0;
  int dots = 0, digits = 0;
  for (; i < f.size(); ++i) {
    if (f[i] == '.')
      ++dots;
    else if (f[i] >= '0' && f[i] <= '9')
      ++digits;
    else
      return false;
  }
  return digits > 0 && dots <= 1;
}

// The tabbox as fields: the chosen columns' titles and the lines (all, or
// the selected ones) in display order.
struct Fields {
  std::vector<std::string> title;
  std::vector<std::vector<std::string>> rows;
};

bool collect(FL_OBJECT *tabbox, int all, bool selected_only, Fields *out, std::string *error) {
  int slots = 0, *end, *order, *visible, nsort, *scols, *sdirs, maxwidth, *colmax;
  if (!fl_get_tabbox_properties(tabbox, &slots, &end, &order, &visible, &nsort, &scols, &sdirs,
                                &maxwidth, &colmax))
    return false;
  const char *ft = fl_get_tabbox_full_title(tabbox);
  std::string title = ft ? ft : "";
  std::vector<Column> cols = title_columns(title);
  if (static_cast<int>(cols.size()) + 1 != slots) {
    *error = "Es ist ein Fehler aufgetreten (Tabellenanzahl inkonsistent)";
    return false;
  }
  std::vector<int> chosen;
  for (int k = 1; k < slots; ++k) {
    int c = all ? k : order[k];
    if (c >= 1 && c < slots && (all || visible[c])) chosen.push_back(c);
  }
  auto cut = [](const std::string &line, const Column &c) {
    std::string f = c.start < line.size() ? line.substr(c.start, c.width) : std::string();
    while (!f.empty() && f.back() == ' ') f.pop_back();
    return f;
  };
  for (int c : chosen) out->title.push_back(cut(title, cols[c - 1]));
  // A managed tabbox keeps each line's fields as they were given.
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  int n = fl_get_tabbox_maxline(tabbox);
  for (int p = 1; p <= n; ++p) {
    int raw = mytabs_raw_line(tabbox, p);
    if (selected_only && (raw < 1 || !fl_isselected_tabbox_line(tabbox, raw))) continue;
    std::vector<std::string> row;
    if (m && raw >= 1 && raw <= static_cast<int>(m->lines.size())) {
      const MYFL_TABBOX_LINE &l = m->lines[static_cast<size_t>(raw - 1)];
      for (int c : chosen) row.emplace_back(myfl_line_field(m, l, static_cast<size_t>(c - 1)));
    } else {
      const char *l = fl_get_tabbox_full_line(tabbox, p);
      std::string line = l ? l : "";
      for (int c : chosen) row.push_back(cut(line, cols[c - 1]));
    }
    out->rows.push_back(std::move(row));
  }
  return true;
}

// For each column: whether every non-empty value of it is a plain number.
std::vector<bool> numeric_columns(const Fields &f) {
  std::vector<bool> numeric(f.title.size(), true);
  for (const auto &row : f.rows)
    for (size_t c = 0; c < row.size() && c < numeric.size(); ++c)
      if (!row[c].empty() && !plain_number(row[c])) numeric[c] = false;
  return numeric;
}

} // namespace

std::string myfl_latin1_to_utf8(const std::string &text) {
  std::string out;
  out.reserve(text.size());
  for (unsigned char ch : text) {
    if (ch < 0x80) {
      out += static_cast<char>(ch);
    } else {
      out += static_cast<char>(0xC0 | (ch >> 6));
      out += static_cast<char>(0x80 | (ch & 0x3F));
    }
  }
  return out;
}

int myfl_export_tabbox_csv(FL_OBJECT *tabbox, int all, char separator, char decimal,
                           std::string *text, std::string *error) {
  text->clear();
  if (separator == '"' || separator == '\n' || separator == '\r' || separator == '\0') {
    *error = "Dieses Trennzeichen ist in CSV nicht erlaubt";
    return 0;
  }
  Fields f;
  if (!collect(tabbox, all, false, &f, error)) return 0;
  std::vector<bool> numeric = numeric_columns(f);
  auto add_line = [&](const std::vector<std::string> &fields, bool title) {
    for (size_t c = 0; c < fields.size(); ++c) {
      if (c) *text += separator;
      std::string v = fields[c];
      if (!title && c < numeric.size() && numeric[c])
        for (char &ch : v)
          if (ch == '.') ch = decimal;
      bool quote = v.find_first_of(std::string("\"\r\n") + separator) != std::string::npos;
      if (quote) {
        *text += '"';
        for (char ch : v) {
          if (ch == '"') *text += '"';
          *text += ch;
        }
        *text += '"';
      } else {
        *text += v;
      }
    }
    *text += "\r\n";
  };
  add_line(f.title, true);
  for (const auto &row : f.rows) add_line(row, false);
  *text = myfl_latin1_to_utf8(*text);
  return 1;
}

int myfl_copy_tabbox_text(FL_OBJECT *tabbox, std::string *text) {
  text->clear();
  Fields f;
  std::string error;
  if (!collect(tabbox, 0, true, &f, &error) || f.rows.empty()) return 0;
  std::vector<bool> numeric = numeric_columns(f);
  auto add_line = [&](const std::vector<std::string> &fields, bool title) {
    for (size_t c = 0; c < fields.size(); ++c) {
      if (c) *text += '\t';
      for (char ch : fields[c]) {
        if (ch == '\t' || ch == '\n' || ch == '\r') ch = ' ';
        if (ch == '.' && !title && c < numeric.size() && numeric[c]) ch = ',';
        *text += ch;
      }
    }
    *text += '\n';
  };
  add_line(f.title, true);
  for (const auto &row : f.rows) add_line(row, false);
  return static_cast<int>(f.rows.size());
}

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
