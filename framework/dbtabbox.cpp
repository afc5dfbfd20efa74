// Managed and database tabboxes (see dbtabbox.h): the registry, line
// parsing and padding, the record sort, uniqueness tests and the loaders
// that run the application's hooks inside one BEGIN level.
#include "framework/dbtabbox.h"

#include "base/data.h"
#include "base/msg.h"
#include "base/valstr.h"
#include "db/access/session.h"
#include "forms/dialogs.h"
#include "forms/mytabs.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

namespace {

// The record of line i (0-based), made from the line's fields on first use
// when the line came without one and the tabbox has a record function.
// Null when neither is there.
void *record_of(MYFL_TABBOX *m, size_t i) {
  MYFL_TABBOX_LINE &l = m->lines[i];
  if (!l.record && m->make_record) l.record = m->make_record(myfl_line_fields(m, l));
  return l.record;
}

// Copies the fields the lines use into a fresh store when more than half of
// the store is garbage. Callers hold no view into the store across it.
void compact_fields(MYFL_TABBOX *m) {
  if (m->garbage_fields < 4096 || m->garbage_fields * 2 < m->fields.size()) return;
  MyflFieldStore fresh;
  size_t live = m->fields.size() - m->garbage_fields;
  fresh.reserve(live, m->fields.chars());
  for (MYFL_TABBOX_LINE &l : m->lines) {
    size_t first = fresh.size();
    for (uint32_t i = 0; i < l.count; ++i) fresh.add(m->fields.at(l.first + i));
    l.first = first;
  }
  m->fields = std::move(fresh);
  m->garbage_fields = 0;
}

// Gives line l of m the fields `fields`; its old fields become garbage.
void set_fields(MYFL_TABBOX *m, MYFL_TABBOX_LINE &l, const std::vector<std::string> &fields) {
  m->garbage_fields += l.count;
  l.first = m->fields.size();
  for (const std::string &f : fields) m->fields.add(f);
  l.count = static_cast<uint32_t>(fields.size());
}

// Makes every missing record, before code that walks all of them.
void all_records(MYFL_TABBOX *m) {
  if (!m->make_record) return;
  for (size_t i = 0; i < m->lines.size(); ++i) record_of(m, i);
}

// Frees a record and everything of a line entry list.
struct MgrDeleter {
  void operator()(MYFL_TABBOX *m) const {
    for (MYFL_TABBOX_LINE &l : m->lines) std::free(l.record);
    std::free(m->state_record);
    delete m;
  }
};

std::map<FL_OBJECT *, std::unique_ptr<MYFL_TABBOX, MgrDeleter>> &registry() {
  static std::map<FL_OBJECT *, std::unique_ptr<MYFL_TABBOX, MgrDeleter>> r;
  return r;
}

void default_fatal(int) {
  // Without an application routine: the set-up failure stops the program by design.
  msg_fatal("Error occurred (data is saved)! Please restart the application!\n");
}

MYFL_FATAL_FUNC g_fatal = default_fatal;
bool g_sort_warned = false;

// The application's fatal stop; ends the program even when the installed
// routine returns.
[[noreturn]] void fatal_stop() {
  g_fatal(1);
  // Ends the program even when the application's routine returned.
  msg_exit_fatal();
}

// The management record of tabbox; a miss ends the program with fn's text.
MYFL_TABBOX *lookup(FL_OBJECT *tabbox, const char *fn) {
  MYFL_TABBOX *m = myfl_find_tabbox(tabbox);
  // Programming error (a call the code must never make): fatal by design.
  if (!m) msg_fatal("(%s) Tabbox not defined\n", fn);
  return m;
}

MYFL_TABBOX *lookup_db(FL_OBJECT *tabbox, const char *fn) {
  MYFL_TABBOX *m = lookup(tabbox, fn);
  // Programming error (a call the code must never make): fatal by design.
  if (!m->db) msg_fatal("(%s) Tabbox is no database tabbox\n", fn);
  return m;
}

// A new copy of a size-prefixed record (at least its size field), or null.
void *copy_record(const void *record) {
  if (!record) return nullptr;
  int32_t size = 0;
  std::memcpy(&size, record, sizeof size);
  size_t n = size >= static_cast<int32_t>(sizeof size) ? static_cast<size_t>(size) : sizeof size;
  void *copy = std::malloc(n);
  if (copy) std::memcpy(copy, record, n);
  return copy;
}

bool numeric_type(int type) {
  switch (type) {
  case DT_SHORT:
  case DT_INT:
  case DT_LONG:
  case DT_USHORT:
  case DT_UINT:
  case DT_ULONG:
  case DT_FLOAT:
  case DT_DOUBLE:
    return true;
  default:
    return false;
  }
}

// The column titles of the record: database names while they are switched
// on, else the title function's fields.
std::vector<std::string> title_fields(MYFL_TABBOX *m, const char *given) {
  std::vector<std::string> f;
  if (given) {
    myfl_split_fields(given, &f, "myfl_draw_tabbox");
  } else if (m->kz_dbnames && !m->dbnames.empty()) {
    f = m->dbnames;
  } else if (m->title) {
    const char *t = m->title(m->tabbox);
    myfl_split_fields(t ? t : "", &f, "myfl_draw_tabbox");
  }
  return f;
}

int column_count(MYFL_TABBOX *m) { return static_cast<int>(m->widths.size()); }

std::vector<char> right_aligned(const MYFL_TABBOX *m, size_t n) {
  std::vector<char> r(n, 0);
  for (size_t i = 0; i < n && i < m->types.size(); ++i) r[i] = numeric_type(m->types[i]);
  return r;
}

// The padded text of line l into *text (replaced): every line of a layout
// has the same length and the same separators, so the text is sized once
// and each field written at its place.
void join_line(const MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l, const std::vector<int> &widths,
               const std::vector<char> &right, std::string *text) {
  size_t total = widths.empty() ? 0 : 3 * (widths.size() - 1);
  for (int w : widths) total += static_cast<size_t>(std::max(w, 0));
  // Fields longer than their width (there are none after a rebuild) make
  // the line longer; the rest of the line moves along.
  for (size_t c = 0; c < widths.size() && c < l.count; ++c) {
    size_t n = m->fields.length(l.first + c), w = static_cast<size_t>(std::max(widths[c], 0));
    if (n > w) total += n - w;
  }
  text->resize(total);
  char *out = text->data();
  for (size_t c = 0; c < widths.size(); ++c) {
    if (c) {
      std::memcpy(out, " | ", 3);
      out += 3;
    }
    std::string_view f = c < l.count ? m->fields.at(l.first + c) : std::string_view();
    size_t w = static_cast<size_t>(std::max(widths[c], 0));
    size_t pad = f.size() < w ? w - f.size() : 0;
    bool r = c < right.size() && right[c];
    if (r) std::memset(out, ' ', pad), out += pad;
    if (!f.empty()) std::memcpy(out, f.data(), f.size());
    out += f.size();
    if (!r) std::memset(out, ' ', pad), out += pad;
  }
}

// The tabbox's line function: the padded text of line i by the layout of the
// last rebuild.
void make_line(void *data, int i, std::string *text) {
  const MYFL_TABBOX *m = static_cast<const MYFL_TABBOX *>(data);
  if (i < 0 || static_cast<size_t>(i) >= m->lines.size()) {
    text->clear();
    return;
  }
  join_line(m, m->lines[static_cast<size_t>(i)], m->widths, m->right, text);
}

std::string line_text(const MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l) {
  std::string text;
  join_line(m, l, m->widths, right_aligned(m, m->widths.size()), &text);
  return text;
}

// Rebuilds title and lines from the record (widths from all fields), keeps
// the selection and the scroll position when the line count stays, draws.
int rebuild(MYFL_TABBOX *m, const char *given_title) {
  FL_OBJECT *tb = m->tabbox;
  std::vector<std::string> titles = title_fields(m, given_title);
  // Without any title the lines give the number of columns.
  if (!given_title && !m->title && (!m->kz_dbnames || m->dbnames.empty())) {
    size_t most = 0;
    for (const MYFL_TABBOX_LINE &l : m->lines) most = std::max<size_t>(most, l.count);
    titles.assign(most, std::string());
  }
  size_t ncols = titles.size();
  std::vector<int> widths(ncols, 1);
  for (size_t c = 0; c < ncols; ++c)
    widths[c] = std::max<int>(widths[c], static_cast<int>(titles[c].size()));
  for (const MYFL_TABBOX_LINE &l : m->lines)
    for (size_t c = 0; c < ncols && c < l.count; ++c)
      widths[c] = std::max<int>(widths[c], static_cast<int>(m->fields.length(l.first + c)));
  m->widths = widths;

  int old_count = fl_get_tabbox_maxline(tb);
  int top = fl_get_tabbox_topline(tb);
  std::vector<int> selected;
  for (int i = 1; i <= old_count; ++i)
    if (fl_isselected_tabbox_line(tb, i)) selected.push_back(i);

  int kz = m->kz_dbnames;
  fl_set_tabbox_title(tb, myfl_join_fields(titles, widths, {}).c_str());
  // The stored settings switched the database names: titles from them.
  if (kz != m->kz_dbnames && !given_title && !m->dbnames.empty()) return rebuild(m, nullptr);
  // The tabbox makes each padded line when it first reads it (the first
  // page at once, the rest when scrolled to, sorted, searched or copied):
  // they all have the layout's length and separators.
  m->right = right_aligned(m, widths.size());
  int count = static_cast<int>(m->lines.size());
  fl_set_tabbox_line_source(tb, count, make_line, m);
  if (count == old_count && count > 0) {
    for (int i : selected) fl_select_tabbox_line(tb, i);
    if (top >= 1 && top <= count) fl_set_tabbox_topline(tb, top);
  }
  return fl_draw_tabbox(tb);
}

// Widens the columns for the fields of l; returns true when a column grew.
bool widen(MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l) {
  bool grew = false;
  for (size_t c = 0; c < m->widths.size() && c < l.count; ++c) {
    int n = static_cast<int>(m->fields.length(l.first + c));
    if (n > m->widths[c]) {
      m->widths[c] = n;
      grew = true;
    }
  }
  return grew;
}

// Shows a changed or added line: in place when the layout holds, else by
// rebuilding the whole tabbox. raw: 1-based raw line, 0 to append.
void show_line(MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l, int raw) {
  if (m->frozen) return;
  bool more = !m->title && l.count > m->widths.size();
  if (mytabs_get_slots(m->tabbox) <= 0 || more || widen(m, l)) {
    rebuild(m, nullptr);
    return;
  }
  std::string text = line_text(m, l);
  if (raw == 0)
    fl_add_tabbox_line(m->tabbox, text.c_str());
  else
    fl_replace_tabbox_line(m->tabbox, raw, text.c_str());
}

// A number field of a floating-point column shown with the tabbox's decimal
// places (fields that are no plain number stay as they are).
void apply_decimals(std::string &field, int places) {
  size_t a = field.find_first_not_of(' ');
  if (a == std::string::npos) return;
  size_t b = field.find_last_not_of(' ') + 1;
  double v = 0;
  auto [end, ec] = std::from_chars(field.data() + a, field.data() + b, v);
  if (ec != std::errc() || end != field.data() + b) return;
  char buf[64];
  auto [out, ec2] =
      std::to_chars(buf, buf + sizeof buf, v, std::chars_format::fixed, std::min(places, 20));
  if (ec2 == std::errc()) field.assign(buf, out);
}

// Splits and checks text for m and stores it in l (fields only).
void parse_line(MYFL_TABBOX *m, const char *text, MYFL_TABBOX_LINE *l, const char *fn) {
  std::vector<std::string> fields;
  int n = myfl_split_fields(text, &fields, fn);
  int places = fl_get_tabbox_comma(m->tabbox);
  if (places >= 0)
    for (size_t c = 0; c < fields.size() && c < m->types.size(); ++c)
      if (m->types[c] == DT_FLOAT || m->types[c] == DT_DOUBLE) apply_decimals(fields[c], places);
  set_fields(m, *l, fields);
  compact_fields(m);
  int cols = column_count(m);
  if (cols > 0 && n != cols) msg_print("(%s) Line is invalid (only %d of %d cols)\n", fn, n, cols);
}

int add_line(MYFL_TABBOX *m, const char *text, void *record, const char *fn) {
  if (record && m->compare && !myfl_test_tabbox_insert(m->tabbox, record)) {
    fl_show_message("Eintrag bereits vorhanden", "", "");
    return 0;
  }
  m->lines.emplace_back();
  MYFL_TABBOX_LINE &l = m->lines.back();
  l.record = record;
  parse_line(m, text, &l, fn);
  show_line(m, l, 0);
  return 1;
}

// Opens and closes the BEGIN level of a database operation; a failure takes
// the application's fatal stop.
void begin_level(DBSESSION *session) {
  if (!dbbegin(session)) fatal_stop();
}
void end_level(DBSESSION *session) {
  if (!dbend(session)) fatal_stop();
}

// Where the line that starts at `start` ends: the next line feed outside
// double quotes (a backslash escapes the character after it), npos when
// none follows.
size_t line_end(const std::string &text, size_t start) {
  bool quoted = false;
  for (size_t i = start; i < text.size(); ++i) {
    if (text[i] == '\\')
      ++i;
    else if (text[i] == '"')
      quoted = !quoted;
    else if (text[i] == '\n' && !quoted)
      return i;
  }
  return std::string::npos;
}

// Adds the line of one record (a copy) as the loaders do: decimal places of
// the tabbox while the text is made, the filter first. Every loader adds its
// lines through the one line adder, so its messages ("Line is invalid", "Too
// many columns") name addto_tabbox_line whichever loader called.
void load_record(MYFL_TABBOX *m, DBSESSION *session, MYFL_LINE_FUNC line, void *record) {
  if (m->filter && !m->filter(record)) return;
  Set_ValueDecimals(fl_get_tabbox_comma(m->tabbox));
  const char *text = line ? line(session, record, m->kz_dbnames) : "";
  std::string copy = text ? text : "";
  Set_ValueDecimals(-1);
  size_t start = 0;
  // Several lines of one record (line feeds) each get a copy of it. A line
  // feed inside a quoted field belongs to the value: the tabbox shows it
  // with a mark in its line.
  do {
    size_t end = line_end(copy, start);
    std::string piece = copy.substr(start, end == std::string::npos ? end : end - start);
    if (!piece.empty() || start == 0) {
      void *rec = copy_record(record);
      if (!add_line(m, piece.c_str(), rec, "addto_tabbox_line")) std::free(rec);
      ++m->rows;
    }
    start = end == std::string::npos ? copy.size() + 1 : end + 1;
  } while (start < copy.size());
}

// Empties tabbox and lines; a saved state survives, so that it can be
// restored after the tabbox was filled again.
void clear_data(MYFL_TABBOX *m) {
  fl_clear_tabbox(m->tabbox);
  for (MYFL_TABBOX_LINE &l : m->lines) std::free(l.record);
  m->lines.clear();
  m->fields.clear();
  m->garbage_fields = 0;
  m->rows = 0;
}

// 1-based index of the entry of the selected line, 0 when none. In vertical
// display a selected line is an attribute of every entry: the entry is the
// only one there is, else none.
int selected_entry(MYFL_TABBOX *m) {
  if (fl_get_tabbox_vert(m->tabbox))
    return m->lines.size() == 1 && fl_get_tabbox(m->tabbox) > 0 ? 1 : 0;
  int raw = fl_get_tabbox(m->tabbox);
  return raw >= 1 && raw <= static_cast<int>(m->lines.size()) ? raw : 0;
}

int register_db(FL_FORM *form, FL_OBJECT *tabbox, const char *name, MYFL_TITLE_FUNC title,
                MYFL_TABLE_NEW table_new, MYFL_DB_HOOK load, MYFL_DB_HOOK save,
                MYFL_FILTER_FUNC filter, FL_CALLBACKPTR dblclick, bool no_ini) {
  MYFL_TABBOX *m = init_tabbox(form, tabbox, nullptr, name, title);
  m->no_ini = no_ini ? 1 : 0;
  m->db = 1;
  m->table_new = table_new;
  m->load = load;
  m->save = save;
  m->filter = filter;
  m->dblclick = dblclick;
  m->rows = 0;
  if (dblclick) fl_set_tabbox_dblclick_callback(tabbox, dblclick, 0);
  return rebuild(m, nullptr);
}

} // namespace

MYFL_TABBOX *myfl_find_tabbox(FL_OBJECT *tabbox) {
  auto it = registry().find(tabbox);
  return it == registry().end() ? nullptr : it->second.get();
}

MYFL_FATAL_FUNC myfl_set_tabbox_fatal(MYFL_FATAL_FUNC fn) {
  MYFL_FATAL_FUNC old = g_fatal;
  g_fatal = fn ? fn : default_fatal;
  return old;
}

std::string_view myfl_line_field(const MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l, size_t i) {
  return i < l.count ? m->fields.at(l.first + i) : std::string_view();
}

std::vector<std::string_view> myfl_line_fields(const MYFL_TABBOX *m, const MYFL_TABBOX_LINE &l) {
  std::vector<std::string_view> out(l.count);
  for (uint32_t i = 0; i < l.count; ++i) out[i] = m->fields.at(l.first + i);
  return out;
}

std::string myfl_join_fields(const std::vector<std::string> &fields, const std::vector<int> &widths,
                             const std::vector<char> &right) {
  std::string out;
  for (size_t c = 0; c < widths.size(); ++c) {
    if (c) out += " | ";
    const std::string empty;
    const std::string &f = c < fields.size() ? fields[c] : empty;
    size_t w = static_cast<size_t>(std::max(widths[c], 0));
    size_t pad = f.size() < w ? w - f.size() : 0;
    bool r = c < right.size() && right[c];
    if (r) out.append(pad, ' ');
    out += f;
    if (!r) out.append(pad, ' ');
  }
  return out;
}

int myfl_split_fields(const char *text, std::vector<std::string> *fields, const char *fn) {
  constexpr size_t kFieldMax = 10000 - 1; // the field buffer of 10000 bytes
  fields->clear();
  const char *p = text ? text : "";
  std::string cur;
  bool quoted = false;
  auto put = [&](char c) {
    if (cur.size() < kFieldMax) cur.push_back(c);
  };
  auto finish = [&] {
    // A line with more columns than a tabbox can have: fatal by design.
    if (fields->size() >= static_cast<size_t>(MYFL_MAX_COLS))
      msg_fatal("(%s) Too many columns (max = %d)\n", fn, MYFL_MAX_COLS);
    fields->push_back(cur);
    cur.clear();
  };
  for (; *p; ++p) {
    char c = *p;
    if (c == '\\' && p[1]) {
      // The backslash only escapes: the field shows the character after it,
      // so a value with a double quote or a backslash shows as it is.
      put(*++p);
    } else if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      finish();
    } else {
      put(c);
    }
  }
  finish();
  return static_cast<int>(fields->size());
}

// ---- Registration ------------------------------------------------------------

MYFL_TABBOX *init_tabbox(FL_FORM *form, FL_OBJECT *tabbox, FL_OBJECT *slider, const char *name,
                         MYFL_TITLE_FUNC title) {
  // Programming error (a call the code must never make): fatal by design.
  if (myfl_find_tabbox(tabbox)) msg_fatal("(init_tabbox) Tabbox already defined\n");
  // Programming error (a call the code must never make): fatal by design.
  if (slider)
    for (auto &e : registry())
      if (e.second->slider == slider) msg_fatal("(init_tabbox) Slider already defined\n");
  std::unique_ptr<MYFL_TABBOX, MgrDeleter> m(new MYFL_TABBOX);
  m->tabbox = tabbox;
  m->form = form;
  m->slider = slider;
  m->title = title;
  m->name = name ? name : "";
  // The title's columns are checked against the limit now.
  if (title) {
    std::vector<std::string> f;
    const char *t = title(tabbox);
    myfl_split_fields(t ? t : "", &f, "init_tabbox");
  }
  MYFL_TABBOX *raw = m.get();
  registry()[tabbox] = std::move(m);
  return raw;
}

int myfl_init_tabbox(FL_FORM *form, FL_OBJECT *tabbox, const char *name, MYFL_TITLE_FUNC title,
                     FL_CALLBACKPTR dblclick) {
  MYFL_TABBOX *m = init_tabbox(form, tabbox, nullptr, name, title);
  m->dblclick = dblclick;
  if (dblclick) fl_set_tabbox_dblclick_callback(tabbox, dblclick, 0);
  return rebuild(m, nullptr);
}

int myfl_init_db_tabbox(FL_FORM *form, FL_OBJECT *tabbox, const char *name, MYFL_TITLE_FUNC title,
                        MYFL_TABLE_NEW table_new, MYFL_DB_HOOK load, MYFL_DB_HOOK save,
                        MYFL_FILTER_FUNC filter, FL_CALLBACKPTR dblclick) {
  return register_db(form, tabbox, name, title, table_new, load, save, filter, dblclick, false);
}

int myfl_init_db_tabbox_no_ini(FL_FORM *form, FL_OBJECT *tabbox, const char *name,
                               MYFL_TITLE_FUNC title, MYFL_TABLE_NEW table_new, MYFL_DB_HOOK load,
                               MYFL_DB_HOOK save, MYFL_FILTER_FUNC filter,
                               FL_CALLBACKPTR dblclick) {
  return register_db(form, tabbox, name, title, table_new, load, save, filter, dblclick, true);
}

void myfl_free_tabbox(FL_OBJECT *tabbox) {
  lookup(tabbox, "myfl_free_tabbox");
  fl_make_tabbox_lines(tabbox);
  registry().erase(tabbox);
}

void myfl_free_tabbox_data(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_free_tabbox_data");
  clear_data(m);
  fl_draw_tabbox(tabbox);
}

void myfl_free_tabbox_data_no_draw(FL_OBJECT *tabbox) {
  clear_data(lookup(tabbox, "myfl_free_tabbox_data_no_draw"));
}

// ---- Settings of the record ---------------------------------------------------

void myfl_set_tabbox_sortfunc(FL_OBJECT *tabbox, MYFL_SORT_FUNC fn) {
  lookup(tabbox, "myfl_set_tabbox_sortfunc")->sort = fn;
}
void myfl_set_tabbox_compfunc(FL_OBJECT *tabbox, MYFL_COMPARE_FUNC fn) {
  lookup(tabbox, "myfl_set_tabbox_compfunc")->compare = fn;
}
void myfl_set_tabbox_datafunc(FL_OBJECT *tabbox, MYFL_TABLE_DATA fn) {
  lookup(tabbox, "myfl_set_tabbox_datafunc")->table_data = fn;
}
void myfl_set_tabbox_db_hooks(FL_OBJECT *tabbox, MYFL_DB_HOOK del, MYFL_DB_HOOK insert) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_set_tabbox_db_hooks");
  m->del = del;
  m->insert = insert;
}

void myfl_set_tabbox_recordfunc(FL_OBJECT *tabbox, MYFL_RECORD_FUNC fn) {
  lookup(tabbox, "myfl_set_tabbox_recordfunc")->make_record = fn;
}

void myfl_set_tabbox_kz_dbnames(FL_OBJECT *tabbox, int flag, const char *names) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_set_tabbox_kz_dbnames");
  m->kz_dbnames = flag ? 1 : 0;
  if (names) myfl_split_fields(names, &m->dbnames, "myfl_set_tabbox_kz_dbnames");
}
int myfl_get_tabbox_kz_dbnames(FL_OBJECT *tabbox) {
  return lookup(tabbox, "myfl_get_tabbox_kz_dbnames")->kz_dbnames;
}
void myfl_set_tabbox_tablenr(FL_OBJECT *tabbox, int tablenr) {
  lookup(tabbox, "myfl_set_tabbox_tablenr")->tablenr = tablenr;
}
int myfl_get_tabbox_tablenr(FL_OBJECT *tabbox) {
  return lookup(tabbox, "myfl_get_tabbox_tablenr")->tablenr;
}
void myfl_set_tabbox_name(FL_OBJECT *tabbox, const char *name) {
  lookup(tabbox, "myfl_set_tabbox_name")->name = name ? name : "";
}
const char *myfl_get_tabbox_name(FL_OBJECT *tabbox) {
  return lookup(tabbox, "myfl_get_tabbox_name")->name.c_str();
}
void myfl_set_tabbox_data_def_types(FL_OBJECT *tabbox, int n, const int *types) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_set_tabbox_data_def_types");
  // Programming error (a call the code must never make): fatal by design.
  if (n > MYFL_MAX_COLS)
    msg_fatal("(myfl_set_tabbox_data_def_types) Too many columns (max = %d)\n", MYFL_MAX_COLS);
  m->types.assign(types, types + std::max(n, 0));
}
int myfl_get_tabbox_data_definition(FL_OBJECT *tabbox, const int **types) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox_data_definition");
  if (types) *types = m->types.data();
  return static_cast<int>(m->types.size());
}

// ---- Lines ---------------------------------------------------------------------

int addto_tabbox_line(FL_OBJECT *tabbox, const char *text, void *record) {
  return add_line(lookup(tabbox, "addto_tabbox_line"), text, record, "addto_tabbox_line");
}

int myfl_addto_tabbox_line(FL_OBJECT *tabbox, const char *text, void *record) {
  lookup(tabbox, "myfl_addto_tabbox_line");
  return addto_tabbox_line(tabbox, text, record);
}

int myfl_replace_tabbox_line(FL_OBJECT *tabbox, const char *text, void *record) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_replace_tabbox_line");
  // Programming error (a call the code must never make): fatal by design.
  if (!m->table_new) msg_fatal("(myfl_replace_tabbox_line) TABLE_New() not defined\n");
  int idx = selected_entry(m);
  if (idx == 0) return 0;
  MYFL_TABBOX_LINE &l = m->lines[idx - 1];
  record_of(m, static_cast<size_t>(idx - 1));
  if (record && m->compare && !myfl_test_tabbox_unique(tabbox, l.record, record)) {
    fl_show_message("Eintrag bereits vorhanden", "", "");
    return 0;
  }
  void *fresh = nullptr;
  if (record) {
    fresh = m->table_new();
    if (m->table_data) {
      m->table_data(fresh, record);
    } else {
      std::free(fresh);
      fresh = copy_record(record);
    }
  }
  std::free(l.record);
  l.record = fresh;
  parse_line(m, text, &l, "myfl_replace_tabbox_line");
  show_line(m, l, idx);
  fl_select_tabbox_line(tabbox, idx);
  return 1;
}

int myfl_replace_tabbox_line_idx_1(FL_OBJECT *tabbox, const char *text, void *record) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_replace_tabbox_line_idx_1");
  // Programming error (a call the code must never make): fatal by design.
  if (!m->table_data) msg_fatal("(myfl_replace_tabbox_line_idx_1) TABLE_Data not defined\n");
  if (m->lines.empty()) return 0;
  MYFL_TABBOX_LINE &l = m->lines[0];
  record_of(m, 0);
  if (record && m->compare && !myfl_test_tabbox_unique(tabbox, l.record, record)) {
    fl_show_message("Eintrag bereits vorhanden", "", "");
    return 0;
  }
  if (record) {
    if (!l.record) l.record = m->table_new ? m->table_new() : copy_record(record);
    m->table_data(l.record, record);
  }
  parse_line(m, text, &l, "myfl_replace_tabbox_line_idx_1");
  show_line(m, l, 1);
  return 1;
}

int myfl_delete_tabbox_line(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_delete_tabbox_line");
  int idx = selected_entry(m);
  if (idx == 0) return 0;
  // The tabbox's unmade lines are numbered as the lines were before.
  fl_make_tabbox_lines(tabbox);
  std::free(m->lines[idx - 1].record);
  m->garbage_fields += m->lines[idx - 1].count;
  m->lines.erase(m->lines.begin() + (idx - 1));
  compact_fields(m);
  fl_delete_tabbox_line(tabbox, idx);
  fl_draw_tabbox(tabbox);
  return 1;
}

int myfl_up_tabbox_line(DBSESSION *session, FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_up_tabbox_line");
  int idx = selected_entry(m);
  if (idx == 0 || !m->line_func) return 0;
  MYFL_TABBOX_LINE &l = m->lines[idx - 1];
  if (!record_of(m, static_cast<size_t>(idx - 1))) return 0;
  Set_ValueDecimals(fl_get_tabbox_comma(tabbox));
  const char *text = m->line_func(session, l.record, m->kz_dbnames);
  std::string copy = text ? text : "";
  Set_ValueDecimals(-1);
  parse_line(m, copy.c_str(), &l, "myfl_up_tabbox_line");
  show_line(m, l, idx);
  return 1;
}

int myfl_reload_tabbox(DBSESSION *session, FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_reload_tabbox");
  if (!m->line_func) return 0;
  all_records(m);
  Set_ValueDecimals(fl_get_tabbox_comma(tabbox));
  for (MYFL_TABBOX_LINE &l : m->lines) {
    if (!l.record) continue;
    const char *text = m->line_func(session, l.record, m->kz_dbnames);
    parse_line(m, text ? text : "", &l, "myfl_reload_tabbox");
  }
  Set_ValueDecimals(-1);
  return rebuild(m, nullptr);
}

int myfl_load_tabbox_line(DBSESSION *session, FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_load_tabbox_line");
  int idx = selected_entry(m);
  if (idx == 0 || !record_of(m, static_cast<size_t>(idx - 1))) return 0;
  int ok = 1;
  if (m->load) {
    begin_level(session);
    ok = m->load(session, m->lines[idx - 1].record);
    end_level(session);
  }
  if (ok) myfl_up_tabbox_line(session, tabbox);
  return ok;
}

int myfl_test_tabbox_insert(FL_OBJECT *tabbox, const void *record) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_test_tabbox_insert");
  if (!m->compare || !record) return 1;
  all_records(m);
  for (size_t i = 1; i < m->lines.size(); ++i)
    if (m->lines[i].record && m->compare(m->lines[i].record, record) == 0) return 0;
  return 1;
}

int myfl_test_tabbox_unique(FL_OBJECT *tabbox, const void *self, const void *record) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_test_tabbox_unique");
  if (!m->compare || !record) return 1;
  all_records(m);
  for (size_t i = 1; i < m->lines.size(); ++i) {
    const void *r = m->lines[i].record;
    if (r && r != self && m->compare(r, record) == 0) return 0;
  }
  return 1;
}

// ---- Queries ---------------------------------------------------------------------

int myfl_get_tabbox_info(FL_OBJECT *tabbox, int *lines, int *cols) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox_info");
  if (lines) *lines = static_cast<int>(m->lines.size());
  if (cols) *cols = column_count(m);
  return 1;
}

void *myfl_get_tabbox_item_info(FL_OBJECT *tabbox, int idx) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox_item_info");
  if (idx < 1 || idx > static_cast<int>(m->lines.size())) {
    msg_print("(myfl_get_tabbox_item_info) Invalid index (%d)\n", idx);
    return nullptr;
  }
  return record_of(m, static_cast<size_t>(idx - 1));
}

void *myfl_get_tabbox(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox");
  int idx = selected_entry(m);
  return idx ? record_of(m, static_cast<size_t>(idx - 1)) : nullptr;
}

int myfl_get_tabbox_items(FL_OBJECT *tabbox) {
  return static_cast<int>(lookup(tabbox, "myfl_get_tabbox_items")->lines.size());
}

int myfl_get_tabbox_attrib_idx(FL_OBJECT *tabbox, const char *name) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox_attrib_idx");
  if (!name) return 0;
  for (size_t c = 0; c < m->dbnames.size(); ++c)
    if (m->dbnames[c] == name) return static_cast<int>(c) + 1;
  return myfl_get_tabbox_title_attrib_idx(tabbox, name);
}

int myfl_get_tabbox_title_attrib_idx(FL_OBJECT *tabbox, const char *title) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox_title_attrib_idx");
  if (!title || !m->title) return 0;
  std::vector<std::string> f;
  const char *t = m->title(tabbox);
  myfl_split_fields(t ? t : "", &f, "myfl_get_tabbox_title_attrib_idx");
  for (size_t c = 0; c < f.size(); ++c)
    if (f[c] == title) return static_cast<int>(c) + 1;
  return 0;
}

const char *myfl_get_tabbox_attrib_info(FL_OBJECT *tabbox, int idx, int col) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_get_tabbox_attrib_info");
  if (idx < 1 || idx > static_cast<int>(m->lines.size())) {
    msg_print("(myfl_get_tabbox_attrib_info) Invalid index (%d)\n", idx);
    return nullptr;
  }
  const MYFL_TABBOX_LINE &l = m->lines[idx - 1];
  if (col < 1 || static_cast<uint32_t>(col) > l.count) {
    msg_print("(myfl_get_tabbox_attrib_info) Invalid index (%d)\n", col);
    return nullptr;
  }
  // The store ends every field with a zero.
  return m->fields.at(l.first + static_cast<size_t>(col - 1)).data();
}

// ---- Database operations ----------------------------------------------------------

int myfl_load_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                        MYFL_FIRST_FUNC first, MYFL_NEXT_FUNC next, void *table) {
  begin_level(session);
  MYFL_TABBOX *m = lookup_db(tabbox, "myfl_load_db_tabbox");
  m->frozen = 1;
  m->line_func = line;
  clear_data(m);
  if (!table) {
    msg_print("(myfl_load_db_tabbox) Warning: pTABLE not initialized\n");
    end_level(session);
  } else if (!first || !first(table, session)) {
    msg_print("(myfl_load_db_tabbox) Warning: Table is empty\n");
    end_level(session);
    m->frozen = 0;
    rebuild(m, nullptr);
    return 0;
  } else {
    // Programming error (a call the code must never make): fatal by design.
    if (!m->table_new) msg_fatal("(myfl_load_db_tabbox) TABLE_New() not defined\n");
    void *record = m->table_new();
    while (next && next(table, session, record)) load_record(m, session, line, record);
    std::free(record);
    end_level(session);
  }
  m->frozen = 0;
  return myfl_draw_tabbox(tabbox);
}

int myfl_save_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup_db(tabbox, "myfl_save_db_tabbox");
  int ok = 1;
  begin_level(session);
  if (m->save) {
    all_records(m);
    for (MYFL_TABBOX_LINE &l : m->lines)
      if (l.record && !m->save(session, l.record)) ok = 0;
  }
  end_level(session);
  return ok;
}

int myfl_delete_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup_db(tabbox, "myfl_delete_db_tabbox");
  int idx = selected_entry(m);
  if (idx == 0) return 0;
  int ok = 1;
  begin_level(session);
  if (m->del && record_of(m, static_cast<size_t>(idx - 1)))
    ok = m->del(session, m->lines[idx - 1].record);
  end_level(session);
  if (ok) myfl_delete_tabbox_line(tabbox);
  return ok;
}

int myfl_insert_db_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                          void *record) {
  MYFL_TABBOX *m = lookup_db(tabbox, "myfl_insert_db_tabbox");
  if (!record) return 0;
  if (m->compare && !myfl_test_tabbox_insert(tabbox, record)) {
    fl_show_message("Eintrag bereits vorhanden", "", "");
    return 0;
  }
  int ok = 1;
  begin_level(session);
  if (m->insert) ok = m->insert(session, record);
  if (ok) {
    if (line) m->line_func = line;
    load_record(m, session, m->line_func, record);
  }
  end_level(session);
  return ok;
}

int myfl_load_single_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                            void *record) {
  return myfl_load_multiple_tabbox(session, tabbox, line, record ? &record : nullptr,
                                   record ? 1 : 0);
}

namespace {
int load_list(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line, void *const *records,
              int count, bool keep, const char *fn) {
  begin_level(session);
  MYFL_TABBOX *m = lookup_db(tabbox, fn);
  m->frozen = 1;
  m->line_func = line;
  if (!keep) clear_data(m);
  for (int i = 0; i < count; ++i)
    if (records[i]) load_record(m, session, line, records[i]);
  end_level(session);
  m->frozen = 0;
  return myfl_draw_tabbox(tabbox);
}
} // namespace

int myfl_load_multiple_tabbox(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                              void *const *records, int count) {
  return load_list(session, tabbox, line, records, count, false, "myfl_load_multiple_tabbox");
}

int myfl_load_multiple_tabbox_1(DBSESSION *session, FL_OBJECT *tabbox, MYFL_LINE_FUNC line,
                                void *const *records, int count) {
  return load_list(session, tabbox, line, records, count, true, "myfl_load_multiple_tabbox_1");
}

int myfl_load_tabbox_lines(FL_OBJECT *tabbox, MYFL_LINE_FUNC line, MYFL_TABBOX_LINES lines) {
  MYFL_TABBOX *m = lookup_db(tabbox, "myfl_load_tabbox_lines");
  m->frozen = 1;
  m->line_func = line;
  clear_data(m);
  m->fields = std::move(lines.fields);
  int places = fl_get_tabbox_comma(tabbox);
  int cols = column_count(m);
  bool rounds = false;
  if (places >= 0)
    for (int type : m->types) rounds = rounds || type == DT_FLOAT || type == DT_DOUBLE;
  m->lines.reserve(lines.lines.size());
  for (MYFL_TABBOX_LINE &l : lines.lines) {
    // Lines outside the store (a caller's mistake) keep none of its fields.
    if (l.first > m->fields.size() || l.count > m->fields.size() - l.first) l.count = 0;
    // A filter or a uniqueness test looks at the record, and decimal places
    // change the fields the record would be made from later: made now.
    if (!l.record && m->make_record && (m->filter || m->compare || rounds))
      l.record = m->make_record(myfl_line_fields(m, l));
    bool dropped = m->filter && !m->filter(l.record);
    if (!dropped && l.record && m->compare && !myfl_test_tabbox_insert(tabbox, l.record)) {
      fl_show_message("Eintrag bereits vorhanden", "", "");
      dropped = true;
    }
    if (dropped) {
      std::free(l.record);
      continue;
    }
    if (rounds) {
      std::vector<std::string> fields;
      bool changed = false;
      for (uint32_t c = 0; c < l.count; ++c) {
        fields.emplace_back(m->fields.at(l.first + c));
        if (c < m->types.size() && (m->types[c] == DT_FLOAT || m->types[c] == DT_DOUBLE)) {
          apply_decimals(fields.back(), places);
          changed = changed || fields.back() != m->fields.at(l.first + c);
        }
      }
      if (changed) set_fields(m, l, fields);
    }
    int n = static_cast<int>(l.count);
    if (cols > 0 && n != cols)
      msg_print("(addto_tabbox_line) Line is invalid (only %d of %d cols)\n", n, cols);
    m->lines.push_back(l);
    ++m->rows;
  }
  // Fields the given lines do not name (none, when the caller made them
  // with begin_line and add_field) count as garbage too.
  size_t used = 0;
  for (const MYFL_TABBOX_LINE &l : m->lines) used += l.count;
  m->garbage_fields = m->fields.size() - std::min(used, m->fields.size());
  compact_fields(m);
  m->frozen = 0;
  return myfl_draw_tabbox(tabbox);
}

int myfl_get_multiple_tabbox(FL_OBJECT *tabbox, std::vector<void *> *records) {
  MYFL_TABBOX *m = lookup_db(tabbox, "myfl_get_multiple_tabbox");
  records->clear();
  for (size_t i = 0; i < m->lines.size(); ++i)
    if (fl_isselected_tabbox_line(tabbox, static_cast<int>(i) + 1) && record_of(m, i))
      records->push_back(m->lines[i].record);
  return static_cast<int>(records->size());
}

// ---- Drawing and state ---------------------------------------------------------------

int myfl_draw_tabbox(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_draw_tabbox");
  if (m->sort_enabled && m->sort) _Sort_tabbox(tabbox);
  return rebuild(m, nullptr);
}

int myfl_draw_tabbox_extern(FL_OBJECT *tabbox, const char *title) {
  return rebuild(lookup(tabbox, "myfl_draw_tabbox_extern"), title ? title : "");
}

int myfl_update_tabbox(FL_OBJECT *tabbox) {
  lookup(tabbox, "myfl_update_tabbox");
  return fl_draw_tabbox(tabbox);
}

int myfl_set_tabbox_sort(FL_OBJECT *tabbox) {
  lookup(tabbox, "myfl_set_tabbox_sort");
  int r = _Sort_tabbox(tabbox);
  myfl_draw_tabbox(tabbox);
  return r;
}

void myfl_enabled_tabbox_sort(FL_OBJECT *tabbox, int on) {
  lookup(tabbox, "myfl_enabled_tabbox_sort")->sort_enabled = on ? 1 : 0;
}

int _Sort_tabbox(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "_Sort_tabbox");
  // Programming error (a call the code must never make): fatal by design.
  if (!m->sort) msg_fatal("(_Sort_tabbox) Sortfunc not defined\n");
  if (m->lines.size() < 2) return 1;
  all_records(m);
  std::vector<MYFL_TABBOX_LINE> rest(std::make_move_iterator(m->lines.begin() + 1),
                                     std::make_move_iterator(m->lines.end()));
  if (rest.size() > static_cast<size_t>(MYFL_MAX_SORT_ROWS)) {
    if (!g_sort_warned) msg_print("(_Sort_tabbox) Too many rows (max = %d)\n", MYFL_MAX_SORT_ROWS);
    g_sort_warned = true;
    std::move(rest.begin(), rest.end(), m->lines.begin() + 1);
    return 0;
  }
  // Until the next draw the tabbox shows the lines in their old order.
  fl_make_tabbox_lines(tabbox);
  for (size_t i = 0; i < rest.size(); ++i)
    for (size_t j = i + 1; j < rest.size(); ++j)
      if (m->sort(rest[i].record, rest[j].record) < 0) std::swap(rest[i], rest[j]);
  MYFL_TABBOX_LINE aside = std::move(m->lines[0]);
  m->lines.clear();
  for (MYFL_TABBOX_LINE &l : rest) m->lines.push_back(std::move(l));
  m->lines.push_back(std::move(aside));
  return 1;
}

int myfl_save_tabbox_state(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_save_tabbox_state");
  std::free(m->state_record);
  m->state_record = nullptr;
  m->state_line = selected_entry(m);
  m->state_top = fl_get_tabbox_topline(tabbox);
  if (m->state_line)
    m->state_record = copy_record(record_of(m, static_cast<size_t>(m->state_line - 1)));
  m->state_saved = 1;
  return 1;
}

int myfl_restore_tabbox_state(FL_OBJECT *tabbox) {
  MYFL_TABBOX *m = lookup(tabbox, "myfl_restore_tabbox_state");
  if (!m->state_saved) {
    msg_print("(myfl_restore_tabbox_state) Data not defined\n");
    return 0;
  }
  int count = static_cast<int>(m->lines.size());
  int line = 0;
  if (m->state_record && m->compare) {
    all_records(m);
    for (int i = 0; i < count && !line; ++i)
      if (m->lines[i].record && m->compare(m->lines[i].record, m->state_record) == 0) line = i + 1;
  } else if (m->state_line <= count) {
    line = m->state_line;
  }
  if (m->state_top >= 1 && m->state_top <= count) fl_set_tabbox_topline(tabbox, m->state_top);
  if (line) fl_select_tabbox_line(tabbox, line);
  std::free(m->state_record);
  m->state_record = nullptr;
  m->state_saved = 0;
  return line ? 1 : 0;
}
