// The tabbox record (mytabs_int.h), its layout, the fl_ operations of its
// table and the mytabs_ accessors (mytabs.h). Display texts are not stored: the layout keeps a plan of the
// shown fields, and a display text is built from its raw text when somebody
// asks for it (drawing asks only for the visible lines). That keeps a million
// lines at little more than their raw texts.
//
// Process-wide state: the framework's hooks (one set for all tabboxes) and the
// buffer of fl_get_tabbox_popup_text.
#include "forms/mytabs.h"

#include "base/msg.h"
#include "forms/mytabs_draw.h"
#include "forms/mytabs_int.h"
#include "forms/mytabs_sort.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

// ---- Raw texts --------------------------------------------------------------

namespace {
constexpr size_t kBlockSize = 1 << 20;
}

const char *TabboxTexts::store(std::string_view text) {
  size_t need = text.size() + 1;
  if (blocks_.empty() || used_ + need > block_size_.back()) {
    size_t size = std::max(kBlockSize, need);
    blocks_.push_back(std::make_unique<char[]>(size));
    block_size_.push_back(size);
    used_ = 0;
  }
  char *p = blocks_.back().get() + used_;
  if (!text.empty()) std::memcpy(p, text.data(), text.size());
  p[text.size()] = '\0';
  used_ += need;
  live_ += need;
  return p;
}

void TabboxTexts::compact() {
  // Copies the live texts into fresh blocks and drops the old ones; pending
  // lines stay pending.
  std::vector<std::unique_ptr<char[]>> old_blocks;
  old_blocks.swap(blocks_);
  block_size_.clear();
  used_ = live_ = garbage_ = 0;
  for (size_t i = 0; i < ptr_.size(); ++i)
    if (ptr_[i]) ptr_[i] = store({ptr_[i], len_[i]});
}

void TabboxTexts::make(int i) const {
  // Making a text only fills in what the line already says (see the class).
  auto *self = const_cast<TabboxTexts *>(this);
  self->made_.clear();
  if (source_) source_(source_data_, static_cast<int>(len_[i]), &self->made_);
  self->ptr_[i] = self->store(made_);
  self->len_[i] = static_cast<uint32_t>(made_.size());
  if (!has_sample_) {
    self->sample_ = made_;
    self->has_sample_ = true;
  }
}

std::string_view TabboxTexts::sample(int i) const {
  if (!has_sample_) make(i);
  return sample_;
}

void TabboxTexts::set_source(int count, FL_TABBOX_LINE_FUNC fn, void *data) {
  clear();
  source_ = fn;
  source_data_ = data;
  size_t n = static_cast<size_t>(std::max(count, 0));
  ptr_.assign(n, nullptr);
  len_.resize(n);
  for (size_t i = 0; i < n; ++i) len_[i] = static_cast<uint32_t>(i);
}

void TabboxTexts::make_all() {
  for (int i = 0; i < size(); ++i)
    if (!ptr_[i]) make(i);
  source_ = nullptr;
  source_data_ = nullptr;
}

void TabboxTexts::push_back(std::string_view text) {
  const char *p = store(text);
  ptr_.push_back(p);
  len_.push_back(static_cast<uint32_t>(text.size()));
}

void TabboxTexts::insert(int i, std::string_view text) {
  const char *p = store(text);
  ptr_.insert(ptr_.begin() + i, p);
  len_.insert(len_.begin() + i, static_cast<uint32_t>(text.size()));
}

void TabboxTexts::erase(int i) {
  if (ptr_[i]) {
    garbage_ += len_[i] + 1;
    live_ -= len_[i] + 1;
  }
  ptr_.erase(ptr_.begin() + i);
  len_.erase(len_.begin() + i);
  if (garbage_ > kBlockSize && garbage_ > live_) compact();
}

void TabboxTexts::replace(int i, std::string_view text) {
  if (ptr_[i]) {
    garbage_ += len_[i] + 1;
    live_ -= len_[i] + 1;
  }
  ptr_[i] = store(text);
  len_[i] = static_cast<uint32_t>(text.size());
  if (garbage_ > kBlockSize && garbage_ > live_) compact();
}

void TabboxTexts::clear() {
  source_ = nullptr;
  source_data_ = nullptr;
  sample_.clear();
  has_sample_ = false;
  blocks_.clear();
  block_size_.clear();
  used_ = live_ = garbage_ = 0;
  ptr_.clear();
  ptr_.shrink_to_fit();
  len_.clear();
  len_.shrink_to_fit();
}

size_t TabboxTexts::memory_bytes() const {
  size_t n = 0;
  for (size_t s : block_size_) n += s;
  return n + ptr_.capacity() * sizeof(const char *) + len_.capacity() * sizeof(uint32_t);
}

// ---- Hooks --------------------------------------------------------------------

namespace {
TabboxHooks g_hooks;

template <class F> F swap_hook(F &slot, F hook) {
  F old = slot;
  slot = hook;
  return old;
}
} // namespace

TabboxHooks &fl_tabbox_hooks() { return g_hooks; }

FL_TABBOX_HOOK fl_set_tabbox_settings_hook(FL_TABBOX_HOOK hook) {
  return swap_hook(g_hooks.settings, hook);
}
FL_TABBOX_COLWIDTH_HOOK fl_set_tabbox_colwidth_hook(FL_TABBOX_COLWIDTH_HOOK hook) {
  return swap_hook(g_hooks.colwidth, hook);
}
FL_TABBOX_HOOK fl_set_tabbox_optimize_hook(FL_TABBOX_HOOK hook) {
  return swap_hook(g_hooks.optimize, hook);
}
FL_TABBOX_HOOK fl_set_tabbox_refresh_hook(FL_TABBOX_HOOK hook) {
  return swap_hook(g_hooks.refresh, hook);
}
FL_TABBOX_HOOK fl_set_tabbox_dialog_hook(int which, FL_TABBOX_HOOK hook) {
  switch (which) {
  case FL_TABBOX_SORT_DIALOG:
    return swap_hook(g_hooks.sort_dialog, hook);
  case FL_TABBOX_EXPORT_DIALOG:
    return swap_hook(g_hooks.export_dialog, hook);
  case FL_TABBOX_VIEWER:
    return swap_hook(g_hooks.viewer, hook);
  case FL_TABBOX_COPY:
    return swap_hook(g_hooks.copy, hook);
  default:
    return nullptr;
  }
}
FL_TABBOX_MODIFIER_HOOK fl_set_tabbox_modifier_hook(FL_TABBOX_MODIFIER_HOOK hook) {
  return swap_hook(g_hooks.modifier, hook);
}
FL_TABBOX_KEY_HOOK fl_set_tabbox_key_hook(FL_TABBOX_KEY_HOOK hook) {
  return swap_hook(g_hooks.key, hook);
}

// ---- Record helpers -------------------------------------------------------------

namespace {

// The record of a tabbox, or nullptr after "<fn>: Bad argument or wrong type".
FL_TABBOX_REC *rec_of(FL_OBJECT *obj, const char *fn) {
  if (obj && obj->objclass == FL_TABBOX && obj->priv)
    return static_cast<FL_TABBOX_REC *>(obj->priv);
  msg_print("%s: Bad argument or wrong type\n", fn);
  return nullptr;
}

void index_error(const char *fn) { msg_print("%s: Index out of range\n", fn); }

void set_changed(FL_OBJECT *obj, FL_TABBOX_REC *r) {
  r->changed = 1;
  tabbox_redraw(obj);
}

// Character of text at pos; blanks beyond its end.
char char_at(std::string_view t, int pos) {
  return pos >= 0 && static_cast<size_t>(pos) < t.size() ? t[pos] : ' ';
}

// Where a field starts in text: at the previous column end, stepping over a
// "|" there and the blank after it.
int field_start(std::string_view t, int prev_end) {
  if (prev_end > 0 && char_at(t, prev_end) == '|') return prev_end + 2;
  return prev_end;
}

// Appends text's characters [from, from + len) to out, blanks beyond its end.
void append_chars(std::string &out, std::string_view t, int from, int len) {
  for (int i = 0; i < len; ++i) out.push_back(char_at(t, from + i));
}

bool any_nonblank(std::string_view t, int from, int len) {
  for (int i = 0; i < len; ++i)
    if (char_at(t, from + i) != ' ') return true;
  return false;
}

// The length of a field of t and whether a non-blank was cut off. Fields are
// read with blanks beyond the end of t, except the last shown field, which
// ends with t.
int field_length(const FL_TABBOX_REC::Field &f, std::string_view t, int start, bool last,
                 bool *cut) {
  int len = std::max(0, f.end - start - 1);
  *cut = false;
  if (f.cut >= 0 && len > f.cut) {
    *cut = any_nonblank(t, start + f.cut, len - f.cut);
    len = f.cut;
  }
  if (last) len = std::min(len, std::max(0, static_cast<int>(t.size()) - start));
  return len;
}

// Builds the display text of t by the record's plan.
std::string compose(const FL_TABBOX_REC *r, std::string_view t) {
  if (r->slots == 0) return std::string(t);
  std::string out;
  out.reserve(t.size() + 8);
  bool prev_cut = false;
  const size_t n = r->plan.size();
  for (size_t i = 0; i < n; ++i) {
    const FL_TABBOX_REC::Field &f = r->plan[i];
    if (i > 0) out += prev_cut ? "~| " : " | ";
    int start = field_start(t, f.prev_end);
    int len = field_length(f, t, start, i + 1 == n, &prev_cut);
    append_chars(out, t, start, len);
  }
  return out;
}

// Length of the display text of t, without building it.
int composed_length(const FL_TABBOX_REC *r, std::string_view t) {
  if (r->slots == 0) return static_cast<int>(t.size());
  const size_t n = r->plan.size();
  int total = n > 0 ? 3 * static_cast<int>(n - 1) : 0;
  for (size_t i = 0; i < n; ++i) {
    const FL_TABBOX_REC::Field &f = r->plan[i];
    int start = field_start(t, f.prev_end);
    int len = std::max(0, f.end - start - 1);
    if (f.cut >= 0 && len > f.cut) len = f.cut;
    if (i + 1 == n) len = std::min(len, std::max(0, static_cast<int>(t.size()) - start));
    total += len;
  }
  return total;
}

void reset_columns(FL_TABBOX_REC *r, int slots) {
  r->slots = slots;
  r->col_end.assign(slots, -1);
  r->col_width.assign(slots, 0);
  r->col_visible.assign(slots, 1);
  r->col_maxwidth.assign(slots, -1);
  r->col_order.resize(slots);
  for (int k = 0; k < slots; ++k) r->col_order[k] = k;
  r->plan.clear();
}

int count_bars(std::string_view t) { return static_cast<int>(std::count(t.begin(), t.end(), '|')); }

std::string trimmed(std::string_view f) {
  size_t a = 0, b = f.size();
  while (a < b && (f[a] == ' ' || f[a] == '|')) ++a;
  while (b > a && (f[b - 1] == ' ' || f[b - 1] == '|')) --b;
  return std::string(f.substr(a, b - a));
}

std::string padded(std::string s, size_t width) {
  if (s.size() > width) s.resize(width);
  s.append(width - s.size(), ' ');
  return s;
}

// The first selected display position (1-based), 0 when none.
int first_selected_position(const FL_TABBOX_REC *r) {
  for (int p = 0; p < r->line_count; ++p) {
    int raw = p < static_cast<int>(r->line_order.size()) ? r->line_order[p] : p;
    if (raw >= 0 && raw < r->line_count && r->selected[raw]) return p + 1;
  }
  return 0;
}

void layout_record(FL_TABBOX_REC *r);

// Rebuilds the companion of vertical display from the tabbox's own record.
void rebuild_companion(FL_TABBOX_REC *r) {
  if (!r->companion) return;
  FL_TABBOX_REC *c = r->companion.get();
  int old_sel = first_selected_position(c); // 1-based, 0 none
  std::vector<int> shown;
  for (int k = 1; k < r->slots; ++k) {
    int col = r->col_order[k];
    if (col < 1 || col >= r->slots) continue;
    if (!r->col_visible[col]) continue;
    shown.push_back(col);
  }
  const int n = r->line_count;
  size_t attr_w = 9;
  for (int col : shown) attr_w = std::max(attr_w, fl_tabbox_field(r, r->full_title, col).size());
  std::vector<size_t> line_w(n, 10);
  std::vector<std::string> heads(n);
  for (int p = 0; p < n; ++p) {
    int raw = r->line_order[p];
    std::string_view t = r->lines.at(raw);
    for (int col : shown) line_w[p] = std::max(line_w[p], fl_tabbox_field(r, t, col).size());
    heads[p] = n == 1 ? std::string("Wert") : "Zeile " + std::to_string(p + 1);
    // Each heading spans its line's column.
    line_w[p] = std::max(line_w[p], heads[p].size());
  }
  std::string title = padded("Attribut", attr_w);
  for (int p = 0; p < n; ++p) title += " | " + padded(heads[p], line_w[p]);
  c->full_title = title;
  // Widths the user dragged on the companion stay while its shape does.
  std::vector<int> dragged = std::move(c->col_maxwidth);
  reset_columns(c, count_bars(title) + 2);
  if (dragged.size() == c->col_maxwidth.size()) c->col_maxwidth = std::move(dragged);
  c->lines.clear();
  c->selected.clear();
  for (int col : shown) {
    std::string line = padded(fl_tabbox_field(r, r->full_title, col), attr_w);
    int width = col < static_cast<int>(r->col_width.size()) ? r->col_width[col] : 0;
    for (int p = 0; p < n; ++p) {
      std::string f = fl_tabbox_field(r, r->lines.at(r->line_order[p]), col);
      size_t cut = std::min<size_t>(static_cast<size_t>(std::max(width, 0)), line_w[p]);
      if (f.size() > cut) f.resize(cut);
      line += " | " + padded(f, line_w[p]);
    }
    c->lines.push_back(line);
    c->selected.push_back(0);
  }
  c->line_count = c->lines.size();
  c->nsort = 0;
  c->sort_cols.clear();
  c->sort_dirs.clear();
  c->char_h = r->char_h;
  c->char_w = r->char_w;
  c->visible_chars = r->visible_chars;
  c->screen_lines = r->screen_lines;
  c->hslider_len = r->hslider_len;
  c->vslider_len = r->vslider_len;
  c->changed = 1;
  int keep_offset = c->offset;
  c->offset = 0;
  layout_record(c);
  if (keep_offset < c->max_display_len) c->offset = keep_offset;
  if (c->topline >= c->line_count) c->topline = 0;
  if (old_sel > 0 && old_sel <= c->line_count) c->selected[c->line_order[old_sel - 1]] = 1;
}

// Lays out one record (see fl_layout_tabbox).
void layout_record(FL_TABBOX_REC *r) {
  const std::string &t = r->full_title;
  if (r->slots > 0) {
    r->col_end[0] = 0;
    r->col_width[0] = 0;
    int k = 1, prev = 0;
    for (int q = 0; q < static_cast<int>(t.size()) && k < r->slots; ++q) {
      if (t[q] != '|') continue;
      r->col_end[k] = q;
      r->col_width[k] = k == 1 ? q - prev : q - prev - 1;
      prev = q;
      ++k;
    }
    if (!t.empty() && k < r->slots) {
      int end = static_cast<int>(t.size()) + 1;
      r->col_end[k] = end;
      r->col_width[k] = end - prev;
    }
    // The plan of shown fields, in display order.
    r->plan.clear();
    for (int pos = 1; pos < r->slots; ++pos) {
      int c = r->col_order[pos];
      if (c < 1 || c >= r->slots || !r->col_visible[c]) continue;
      int cut = r->col_maxwidth[c] != -1 ? r->col_maxwidth[c] : r->maxwidth;
      r->plan.push_back({r->col_end[c - 1], r->col_end[c], cut, c});
    }
  }
  r->title = compose(r, t);
  r->line_order = tabbox_sort_order(r);
  int longest = static_cast<int>(r->title.size());
  // Pending lines all have one shape (see fl_set_tabbox_line_source): one
  // line made by the source is measured for all, and the rest stay unmade.
  int pending_length = -1;
  for (int i = 0; i < r->line_count; ++i) {
    if (r->lines.pending(i)) {
      if (pending_length < 0) pending_length = composed_length(r, r->lines.sample(i));
      longest = std::max(longest, pending_length);
    } else {
      longest = std::max(longest, composed_length(r, r->lines.at(i)));
    }
  }
  r->max_display_len = longest;
  if (r->offset >= r->max_display_len) r->offset = 0;
  r->changed = 0;
}

// Keeps the line order a permutation of the lines after raw line `at` was
// inserted (delta 1) or removed (delta -1).
void adjust_order(FL_TABBOX_REC *r, int at, int delta) {
  if (r->nsort == 0) {
    r->line_order.resize(r->line_count);
    for (int i = 0; i < r->line_count; ++i) r->line_order[i] = i;
    return;
  }
  std::vector<int> &o = r->line_order;
  if (delta < 0) o.erase(std::remove(o.begin(), o.end(), at), o.end());
  for (int &e : o)
    if (e >= at) e += delta;
  if (delta > 0) o.push_back(at);
}

// The raw line at display position p (0-based) of a laid-out record.
int raw_at(const FL_TABBOX_REC *r, int p) {
  return p < static_cast<int>(r->line_order.size()) ? r->line_order[p] : p;
}

void ensure_layout(FL_OBJECT *obj) { fl_layout_tabbox(obj); }

} // namespace

int mytabs_raw_line(FL_OBJECT *obj, int p) {
  if (!mytabs_is_tabbox(obj)) return 0;
  fl_layout_tabbox(obj);
  FL_TABBOX_REC *r = static_cast<FL_TABBOX_REC *>(obj->priv);
  if (!r || p < 1 || p > r->line_count) return 0;
  return raw_at(r, p - 1) + 1;
}

namespace {

void free_tabbox(FL_OBJECT *obj) {
  delete static_cast<FL_TABBOX_REC *>(obj->priv);
  obj->priv = nullptr;
}

void call_settings_hook(FL_OBJECT *obj) {
  if (g_hooks.settings) g_hooks.settings(obj);
}

int add_line(FL_OBJECT *obj, const char *text, const char *fn) {
  FL_TABBOX_REC *r = rec_of(obj, fn);
  if (!r) return 0;
  std::string_view t = text ? text : "";
  r->lines.push_back(t);
  r->selected.push_back(0);
  r->line_order.push_back(r->line_count);
  ++r->line_count;
  set_changed(obj, r);
  return 1;
}

char *vert_text(FL_OBJECT *obj, const char *fn, int line, bool value) {
  FL_TABBOX_REC *r = rec_of(obj, fn);
  if (!r) return nullptr;
  if (obj->type != 0 || !r->vertical || !r->companion || line < 0) return nullptr;
  ensure_layout(obj);
  FL_TABBOX_REC *c = r->companion.get();
  int raw = -1;
  if (line > 0) {
    raw = line - 1;
  } else {
    int p = first_selected_position(c);
    if (p > 0) raw = raw_at(c, p - 1);
  }
  if (raw < 0 || raw >= c->line_count) return nullptr;
  std::string_view t = c->lines.at(raw);
  std::string out;
  if (value) {
    size_t bar = t.find("| ");
    if (bar == std::string_view::npos) return nullptr;
    out = std::string(t.substr(bar + 2));
  } else {
    size_t bar = t.find(" | ");
    out = std::string(t.substr(0, bar));
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  char *copy = static_cast<char *>(std::malloc(out.size() + 1));
  if (!copy) return nullptr;
  std::memcpy(copy, out.c_str(), out.size() + 1);
  return copy;
}

std::string g_popup_text;

} // namespace

// ---- Object and layout ------------------------------------------------------------

FL_OBJECT *fl_add_tabbox(int type, int x, int y, int w, int h, const char *label) {
  fl_register_class(FL_TABBOX, "TABBOX", free_tabbox);
  // The widget reads the record only when it draws or gets events, which
  // happens after the record below is in place.
  FL_OBJECT *obj = fl_add_object(FL_TABBOX, type, x, y, w, h, label, tabbox_make_widget);
  auto *r = new FL_TABBOX_REC;
  r->owner = obj;
  obj->priv = r;
  obj->boxtype = FL_DOWN_BOX;
  tabbox_update_metrics(obj);
  return obj;
}

FL_TABBOX_REC *fl_tabbox_record(FL_OBJECT *obj) {
  if (obj && obj->objclass == FL_TABBOX) return static_cast<FL_TABBOX_REC *>(obj->priv);
  return nullptr;
}

FL_TABBOX_REC *fl_tabbox_active(FL_TABBOX_REC *r) {
  return r->vertical && r->companion ? r->companion.get() : r;
}

void fl_layout_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = fl_tabbox_record(obj);
  if (!r) return;
  if (r->changed) {
    layout_record(r);
    if (r->vertical) rebuild_companion(r);
  }
}

std::string fl_tabbox_field(const FL_TABBOX_REC *r, std::string_view text, int col) {
  if (col < 1 || col >= static_cast<int>(r->col_end.size())) return std::string();
  int from = r->col_end[col - 1], to = r->col_end[col];
  if (from < 0 || to < from) return std::string();
  size_t a = std::min<size_t>(from, text.size()), b = std::min<size_t>(to, text.size());
  return trimmed(text.substr(a, b - a));
}

std::string fl_tabbox_display_text(const FL_TABBOX_REC *r, int raw) {
  if (raw < 0 || raw >= r->line_count) return std::string();
  return compose(r, r->lines.at(raw));
}

// ---- Operations --------------------------------------------------------------------

int fl_draw_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_draw_tabbox");
  if (!r) return 0;
  set_changed(obj, r);
  return 1;
}

int fl_get_tabbox_properties(FL_OBJECT *obj, int *slots, int **col_end, int **col_order,
                             int **col_visible, int *nsort, int **sort_cols, int **sort_dirs,
                             int *maxwidth, int **col_maxwidth) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_properties");
  if (!r) return 0;
  if (slots) *slots = r->slots;
  if (col_end) *col_end = r->col_end.data();
  if (col_order) *col_order = r->col_order.data();
  if (col_visible) *col_visible = r->col_visible.data();
  if (nsort) *nsort = r->nsort;
  if (sort_cols) *sort_cols = r->sort_cols.data();
  if (sort_dirs) *sort_dirs = r->sort_dirs.data();
  if (maxwidth) *maxwidth = r->maxwidth;
  if (col_maxwidth) *col_maxwidth = r->col_maxwidth.data();
  return 1;
}

void fl_set_tabbox_sort(FL_OBJECT *obj, int n, const int *cols, const int *dirs) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_sort");
  if (!r) return;
  r->sort_cols.clear();
  r->sort_dirs.clear();
  r->nsort = 0;
  if (n >= 1 && cols && dirs) {
    r->sort_cols.assign(cols, cols + n);
    r->sort_dirs.assign(dirs, dirs + n);
    r->nsort = n;
  }
  r->changed = 1;
}

void fl_set_tabbox_maxwidth(FL_OBJECT *obj, int width) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_maxwidth");
  if (!r) return;
  r->maxwidth = width;
  r->changed = 1;
}

void fl_set_tabbox_comma(FL_OBJECT *obj, int places) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_comma");
  if (r) r->comma = places;
}

int fl_get_tabbox_comma(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_comma");
  return r ? r->comma : -1;
}

int fl_clear_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_clear_tabbox");
  if (!r) return 0;
  r->lines.clear();
  r->selected.clear();
  r->selected.shrink_to_fit();
  r->line_order.clear();
  r->line_order.shrink_to_fit();
  r->line_count = r->max_display_len = r->offset = r->topline = 0;
  if (r->companion) {
    r->companion->lines.clear();
    r->companion->selected.clear();
    r->companion->line_order.clear();
    r->companion->line_count = 0;
  }
  set_changed(obj, r);
  return 1;
}

int fl_add_tabbox_line(FL_OBJECT *obj, const char *text) {
  return add_line(obj, text, "fl_add_tabbox_line");
}

void fl_set_tabbox_line_source(FL_OBJECT *obj, int count, FL_TABBOX_LINE_FUNC fn, void *data) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_line_source");
  if (!r) return;
  fl_clear_tabbox(obj);
  int n = std::max(count, 0);
  r->lines.set_source(n, fn, data);
  r->selected.assign(static_cast<size_t>(n), 0);
  r->line_order.resize(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) r->line_order[static_cast<size_t>(i)] = i;
  r->line_count = n;
  set_changed(obj, r);
}

void fl_make_tabbox_lines(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_make_tabbox_lines");
  if (r) r->lines.make_all();
}

int fl_addto_tabbox(FL_OBJECT *obj, const char *text) {
  return add_line(obj, text, "fl_addto_tabbox");
}

int fl_insert_tabbox_line(FL_OBJECT *obj, int line, const char *text) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_insert_tabbox_line");
  if (!r) return 0;
  if (line < 1 || line - 1 > r->line_count) {
    index_error("fl_insert_tabbox_line");
    return 0;
  }
  std::string_view t = text ? text : "";
  int at = line - 1;
  r->lines.insert(at, t);
  r->selected.insert(r->selected.begin() + at, 0);
  ++r->line_count;
  adjust_order(r, at, 1);
  set_changed(obj, r);
  return 1;
}

int fl_delete_tabbox_line(FL_OBJECT *obj, int line) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_delete_tabbox_line");
  if (!r) return 0;
  if (line < 1 || line - 2 > r->line_count) {
    index_error("fl_delete_tabbox_line");
    return 0;
  }
  if (r->line_count == 0) return 1;
  // Lines from `line` on move up with their flags; one or two past the end
  // nothing moves and the count still drops, losing the last line.
  int at = line <= r->line_count ? line - 1 : r->line_count - 1;
  if (line - 2 == r->line_count && line >= 4) r->selected[line - 4] = 1;
  r->lines.erase(at);
  r->selected.erase(r->selected.begin() + at);
  --r->line_count;
  adjust_order(r, at, -1);
  if (r->topline > 0 && r->topline >= r->line_count) r->topline = std::max(0, r->line_count - 1);
  set_changed(obj, r);
  return 1;
}

int fl_replace_tabbox_line(FL_OBJECT *obj, int line, const char *text) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_replace_tabbox_line");
  if (!r) return 0;
  if (line < 1 || line - 1 > r->line_count) {
    index_error("fl_replace_tabbox_line");
    return 0;
  }
  std::string_view t = text ? text : "";
  if (line - 1 < r->line_count) {
    r->lines.replace(line - 1, t);
    r->selected[line - 1] = 0;
  }
  set_changed(obj, r);
  return 1;
}

const char *fl_get_tabbox_title(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_title");
  if (!r) return nullptr;
  ensure_layout(obj);
  return r->title.c_str();
}

const char *fl_get_tabbox_full_title(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_full_title");
  return r ? r->full_title.c_str() : nullptr;
}

const char *fl_get_tabbox_line(FL_OBJECT *obj, int p) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_line");
  if (!r) return nullptr;
  if (p < 1 || p - 1 > r->line_count) {
    index_error("fl_get_tabbox_line");
    return nullptr;
  }
  ensure_layout(obj);
  r->line_buffer =
      p - 1 < r->line_count ? fl_tabbox_display_text(r, raw_at(r, p - 1)) : std::string();
  return r->line_buffer.c_str();
}

const char *fl_get_tabbox_full_line(FL_OBJECT *obj, int p) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_full_line");
  if (!r) return nullptr;
  if (p < 1 || p - 1 > r->line_count) {
    index_error("fl_get_tabbox_full_line");
    return nullptr;
  }
  ensure_layout(obj);
  if (p - 1 == r->line_count) return "";
  return r->lines.c_str(raw_at(r, p - 1));
}

int fl_load_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_load_tabbox");
  if (!r) return -1;
  msg_print("fl_load_tabbox: Not yet implemented!\n");
  set_changed(obj, r);
  return 1;
}

void fl_select_tabbox_line(FL_OBJECT *obj, int line) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_select_tabbox_line");
  if (!own) return;
  if (line < 1) {
    msg_print("fl_select_tabbox_line: Index %d is not valid\n", line);
    return;
  }
  if (obj->type == 0 && !own->vertical) return;
  ensure_layout(obj);
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (line - 1 <= r->line_count) {
    if (obj->type != 3) std::fill(r->selected.begin(), r->selected.end(), 0);
    if (line - 1 < r->line_count) r->selected[line - 1] = 1;
  }
  int count = static_cast<int>(std::count(r->selected.begin(), r->selected.end(), 1));
  if (!(obj->type == 3 && count > 1)) {
    int f = first_selected_position(r);
    if (f > 0 && (f <= r->topline || f > r->topline + r->screen_lines)) r->topline = f - 1;
  }
  tabbox_redraw(obj);
}

void fl_deselect_tabbox_line(FL_OBJECT *obj, int line) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_clear_tabbox");
  if (!own) return;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (line < 1 || line - 1 > r->line_count) {
    index_error("fl_deselect_tabbox_line");
    return;
  }
  if (obj->type == 0 && !own->vertical) return;
  if (line - 1 < r->line_count) r->selected[line - 1] = 0;
  tabbox_redraw(obj);
}

void fl_deselectall_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_clear_tabbox");
  if (!own) return;
  if (obj->type == 0 && !own->vertical) return;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  std::fill(r->selected.begin(), r->selected.end(), 0);
  tabbox_redraw(obj);
}

int fl_isselected_tabbox_line(FL_OBJECT *obj, int line) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_isselected_tabbox_line");
  if (!own) return 0;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (line < 1 || line - 1 > r->line_count) {
    index_error("fl_isselected_tabbox_line");
    return 0;
  }
  if (obj->type == 0 && !own->vertical) return 0;
  return line - 1 < r->line_count ? r->selected[line - 1] : 0;
}

int fl_selectall_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_selectall_tabbox");
  if (!own) return 0;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  std::fill(r->selected.begin(), r->selected.end(), 1);
  tabbox_redraw(obj);
  return 1;
}

int fl_get_tabbox(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_get_tabbox");
  if (!own) return 0;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  for (int i = 0; i < r->line_count; ++i)
    if (r->selected[i]) return i + 1;
  return 0;
}

int fl_get_tabbox_maxline(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_maxline");
  return r ? r->line_count : -1;
}

int fl_get_tabbox_screenlines(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_screenlines");
  return r ? r->screen_lines : 0;
}

int fl_get_tabbox_selectcount(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_get_tabbox_selectcount");
  if (!own) return -1;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  return static_cast<int>(std::count(r->selected.begin(), r->selected.end(), 1));
}

int fl_get_tabbox_topline(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_get_tabbox_topline");
  if (!own) return 0;
  return fl_tabbox_active(own)->topline + 1;
}

void fl_set_tabbox_topline(FL_OBJECT *obj, int line) {
  FL_TABBOX_REC *own = rec_of(obj, "fl_set_tabbox_topline");
  if (!own) return;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (line < 1 || line - 1 > r->line_count) {
    index_error("fl_set_tabbox_topline");
    return;
  }
  r->topline = line - 1;
  tabbox_redraw(obj);
}

void fl_set_tabbox_fontsize(FL_OBJECT *obj, int size) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_fontsize");
  if (!r) return;
  r->fontsize = size;
  tabbox_update_metrics(obj);
  tabbox_redraw(obj);
}

void fl_set_tabbox_fontstyle(FL_OBJECT *obj, int style) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_fontstyle");
  if (!r) return;
  r->fontstyle = style;
  tabbox_update_metrics(obj);
  tabbox_redraw(obj);
}

std::string fl_tabbox_column_names(const char *title) {
  std::string names, field;
  std::string_view t = title ? title : "";
  size_t start = 0;
  while (start <= t.size()) {
    size_t bar = t.find('|', start);
    std::string_view f = t.substr(start, bar == std::string_view::npos ? bar : bar - start);
    if (!names.empty() || start > 0) names += '|';
    names += trimmed(f);
    if (bar == std::string_view::npos) break;
    start = bar + 1;
  }
  return names;
}

int fl_cycle_tabbox_sort(FL_OBJECT *obj, int col) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_cycle_tabbox_sort");
  if (!r || col < 1 || col >= r->slots) return -1;
  int dir = 1;
  if (r->nsort == 1 && r->sort_cols[0] == col) dir = r->sort_dirs[0] == 1 ? 0 : -1;
  if (dir < 0) {
    fl_set_tabbox_sort(obj, 0, nullptr, nullptr);
  } else {
    fl_set_tabbox_sort(obj, 1, &col, &dir);
  }
  return dir;
}

int fl_set_tabbox_title(FL_OBJECT *obj, const char *text) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_title");
  if (!r) return 0;
  std::string_view t = text ? text : "";
  // A sort belongs to its result: other columns start unsorted.
  if (r->nsort > 0 &&
      fl_tabbox_column_names(r->full_title.c_str()) != fl_tabbox_column_names(text))
    fl_set_tabbox_sort(obj, 0, nullptr, nullptr);
  r->full_title = std::string(t);
  reset_columns(r, count_bars(t) + 2);
  r->changed = 1;
  call_settings_hook(obj);
  tabbox_redraw(obj);
  return 1;
}

void fl_set_tabbox_title_fontstyle(FL_OBJECT *obj, int style) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_title_fontstyle");
  if (!r) return;
  r->title_fontstyle = style;
  tabbox_redraw(obj);
}

void fl_set_tabbox_specialkey(FL_OBJECT *obj, int) {
  if (!rec_of(obj, "fl_clear_tabbox")) return;
  msg_print("(fl_set_tabbox_specialkey) Not yet implemented!\n");
}

void fl_get_tabbox_listarea(FL_OBJECT *obj, int *x, int *y, int *w, int *h) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_clear_tabbox");
  if (!r) return;
  const int bw = FL_TABBOX_BW;
  if (x) *x = obj->x;
  if (y) *y = obj->y + r->char_h + 3 * bw;
  if (w) *w = obj->w - FL_TABBOX_SCROLL;
  if (h) *h = obj->h - r->char_h - 3 * bw - FL_TABBOX_SCROLL;
}

void fl_set_tabbox_dblclick_callback(FL_OBJECT *obj, FL_CALLBACKPTR cb, long argument) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_clear_tabbox");
  if (!r) return;
  r->dblclick = cb;
  r->dblclick_arg = argument;
  r->dblclick_ms = 400;
}

void fl_set_tabbox_callback2(FL_OBJECT *obj, FL_CALLBACKPTR cb, long argument) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_clear_tabbox");
  if (!r) return;
  r->callback2 = cb;
  r->callback2_arg = argument;
}

void fl_set_tabbox_leftmost_text(FL_OBJECT *obj, const char *text) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_leftmost_text");
  if (!r || !text) return;
  ensure_layout(obj);
  size_t pos = r->title.find(text);
  if (pos == std::string::npos) return;
  r->offset = static_cast<int>(pos);
  tabbox_repaint_now(obj);
}

void fl_set_tabbox_popup(FL_OBJECT *obj, const char *definition, FL_TABBOX_POPUP_CB cb) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_popup");
  if (!r) return;
  r->popup = definition ? definition : "";
  r->popup_cb = cb;
}

const char *fl_get_tabbox_popup_text(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_popup_text");
  if (!r) return nullptr;
  g_popup_text.clear();
  const std::string &d = r->popup;
  for (size_t i = 0; i < d.size(); ++i) {
    char c = d[i];
    if (c == '#' && i + 1 < d.size()) {
      g_popup_text += '(';
      g_popup_text += d[++i];
      g_popup_text += ')';
    } else if (c == '|') {
      g_popup_text += " - ";
    } else if (c == '%') {
      if (i + 1 < d.size()) ++i;
    } else {
      g_popup_text += c;
    }
  }
  return g_popup_text.c_str();
}

void fl_set_tabbox_vert(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_vert");
  if (!r) return;
  if (obj->type != 0 || r->vertical) return;
  if (!r->companion) {
    r->companion = std::make_unique<FL_TABBOX_REC>();
    r->companion->owner = obj;
  }
  r->vertical = 1;
  r->changed = 1;
  call_settings_hook(obj);
  tabbox_redraw(obj);
}

void fl_unset_tabbox_vert(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_unset_tabbox_vert");
  if (!r || !r->vertical) return;
  r->vertical = 0;
  r->changed = 1;
  call_settings_hook(obj);
  tabbox_redraw(obj);
}

int fl_is_tabbox_horizontal(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_is_tabbox_horizontal");
  return r ? !r->vertical : 0;
}

int fl_get_tabbox_vert(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_get_tabbox_vert");
  return r ? r->vertical : 0;
}

char *fl_get_tabbox_vert_attr(FL_OBJECT *obj) {
  return vert_text(obj, "fl_get_tabbox_vert_attr", 0, false);
}

char *fl_get_tabbox_vert_attr_value(FL_OBJECT *obj) {
  return vert_text(obj, "fl_get_tabbox_vert_attr", 0, true);
}

char *fl_get_tabbox_vert_attr_line(FL_OBJECT *obj, int line) {
  if (line < 1) line = -1;
  return vert_text(obj, "fl_get_tabbox_vert_attr_line", line, false);
}

char *fl_get_tabbox_vert_attr_line_value(FL_OBJECT *obj, int line) {
  if (line < 1) line = -1;
  return vert_text(obj, "fl_get_tabbox_vert_attr_line", line, true);
}

void fl_set_tabbox_viewer(FL_OBJECT *obj, int on) {
  FL_TABBOX_REC *r = rec_of(obj, "fl_set_tabbox_viewer");
  if (r) r->viewer = on ? 1 : 0;
}

// ---- Accessors --------------------------------------------------------------------

int mytabs_is_tabbox(FL_OBJECT *obj) { return fl_tabbox_record(obj) ? 1 : 0; }

int mytabs_get_slots(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = fl_tabbox_record(obj);
  return r ? r->slots : -1;
}

int mytabs_get_shown_lines(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = fl_tabbox_record(obj);
  if (!r) return 0;
  fl_layout_tabbox(obj);
  return fl_tabbox_active(r)->line_count;
}

int mytabs_get_offset(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = fl_tabbox_record(obj);
  if (!r) return 0;
  fl_layout_tabbox(obj);
  return fl_tabbox_active(r)->offset;
}

std::string mytabs_get_field(FL_OBJECT *obj, std::string_view text, int col) {
  FL_TABBOX_REC *r = fl_tabbox_record(obj);
  if (!r) return std::string();
  fl_layout_tabbox(obj);
  return fl_tabbox_field(r, text, col);
}

int mytabs_copy_shown_line(FL_OBJECT *src, int line, FL_OBJECT *dst) {
  FL_TABBOX_REC *own = fl_tabbox_record(src);
  if (!own || !fl_tabbox_record(dst)) return 0;
  fl_layout_tabbox(src);
  const FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (line < 1 || line > r->line_count) return 0;
  // Copies first: dst may be src, and its title and lines are replaced.
  std::string title = r->full_title, text(r->lines.at(line - 1));
  std::vector<int> order = r->col_order, visible = r->col_visible, colmax = r->col_maxwidth;
  fl_unset_tabbox_vert(dst);
  fl_set_tabbox_title(dst, title.c_str());
  FL_TABBOX_REC *d = fl_tabbox_record(dst);
  for (size_t k = 0; k < order.size() && k < static_cast<size_t>(d->slots); ++k) {
    d->col_order[k] = order[k];
    d->col_visible[k] = visible[k];
    d->col_maxwidth[k] = colmax[k];
  }
  fl_clear_tabbox(dst);
  fl_add_tabbox_line(dst, text.c_str());
  return 1;
}
