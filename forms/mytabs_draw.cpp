// The tabbox on the screen (see mytabs_draw.h): geometry, drawing of the
// visible lines only, hit areas, press / release / auto-repeat of the scroll
// elements, knob dragging, selection by click with Shift and Control, column
// resize in the title line, keys, the built-in popup and the application's
// popup. While the tabbox is in vertical display everything here works on the
// companion record.
//
// Process-wide state: the modifiers of the event being handled (read through
// the framework's modifier hook when it is installed).
#include "forms/mytabs_draw.h"
// Before Qt's headers, whose "slots" macro would empty a field name.
#include "forms/mytabs_int.h"

#include "base/msg.h"
#include "forms/draw.h"
#include "forms/fonts.h"
#include "forms/keyfilter.h"
#include "forms/popup.h"

#include <QFontMetrics>
#include <QGlyphRun>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPen>
#include <QWheelEvent>
#include <QPainter>
#include <QRawFont>
#include <QTimer>

#include <algorithm>
#include <cctype>

namespace {

constexpr int S = FL_TABBOX_SCROLL;
constexpr int BW = FL_TABBOX_BW;

// The modifiers of the mouse or key event being handled; outside the
// widget's handlers (the programmatic operations) the application's.
Qt::KeyboardModifiers g_event_mods;
bool g_in_event = false;

class EventModifiers {
public:
  explicit EventModifiers(Qt::KeyboardModifiers mods) {
    g_event_mods = mods;
    g_in_event = true;
  }
  ~EventModifiers() { g_in_event = false; }
  EventModifiers(const EventModifiers &) = delete;
  EventModifiers &operator=(const EventModifiers &) = delete;
};

int held(int key) {
  if (fl_tabbox_hooks().modifier) return fl_tabbox_hooks().modifier(key);
  Qt::KeyboardModifiers mods = g_in_event ? g_event_mods : QGuiApplication::keyboardModifiers();
  if (key == FL_KEY_SHIFT) return (mods & Qt::ShiftModifier) ? 1 : 0;
  if (key == FL_KEY_CONTROL) return (mods & Qt::ControlModifier) ? 1 : 0;
  return 0;
}

FL_TABBOX_REC *own_of(FL_OBJECT *obj) { return fl_tabbox_record(obj); }
FL_TABBOX_REC *active_of(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = fl_tabbox_record(obj);
  return r ? fl_tabbox_active(r) : nullptr;
}

int title_height(const FL_TABBOX_REC *r) { return r->char_h + 2 * BW; }
int max_offset(const FL_TABBOX_REC *r) {
  return std::max(0, r->max_display_len - r->visible_chars);
}
int max_topline(const FL_TABBOX_REC *r) { return std::max(0, r->line_count - r->screen_lines); }
int raw_at(const FL_TABBOX_REC *r, int p) {
  return p < static_cast<int>(r->line_order.size()) ? r->line_order[p] : p;
}

// First selected display position (0-based), -1 none.
int first_selected(const FL_TABBOX_REC *r) {
  for (int p = 0; p < r->line_count; ++p)
    if (r->selected[raw_at(r, p)]) return p;
  return -1;
}

void clear_flags(FL_TABBOX_REC *r) { std::fill(r->selected.begin(), r->selected.end(), 0); }

void redraw(FL_OBJECT *obj) { tabbox_redraw(obj); }

// The press actions of the scroll elements; each returns 1 when it moved.
int step_left(FL_TABBOX_REC *r) {
  if (r->offset <= 0) return 0;
  --r->offset;
  return 1;
}
int step_right(FL_TABBOX_REC *r) {
  if (r->offset >= r->max_display_len - r->visible_chars) return 0;
  ++r->offset;
  return 1;
}
int step_down(FL_TABBOX_REC *r) {
  if (r->topline >= r->line_count - r->screen_lines) return 0;
  ++r->topline;
  return 1;
}
int step_up(FL_TABBOX_REC *r) {
  if (r->topline <= 0) return 0;
  --r->topline;
  return 1;
}
// Troughs: back by a page plus one, forward by a page less one.
int step_htrough(FL_TABBOX_REC *r, bool back) {
  int old = r->offset;
  if (back && r->offset > 0)
    r->offset -= r->visible_chars + 1;
  else
    r->offset = std::min(r->offset + r->visible_chars - 1, r->max_display_len - r->visible_chars);
  r->offset = std::max(0, r->offset);
  return r->offset != old;
}
int step_vtrough(FL_TABBOX_REC *r, bool back) {
  int old = r->topline;
  if (back && r->topline > 0)
    r->topline -= r->screen_lines + 1;
  else
    r->topline = std::min(r->topline + r->screen_lines - 1, r->line_count - r->screen_lines);
  r->topline = std::max(0, r->topline);
  return r->topline != old;
}

// The line (display position, 0-based) under widget position y, -1 none.
int line_at(FL_OBJECT *obj, int y) {
  FL_TABBOX_REC *r = active_of(obj);
  int y0 = tabbox_list_y(obj);
  if (y < y0 || r->char_h <= 0) return -1;
  int k = (y - y0) / r->char_h;
  if (k >= r->screen_lines) return -1;
  int p = r->topline + k;
  return p < r->line_count ? p : -1;
}

void run_dblclick(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = own_of(obj);
  if (own->vertical) {
    if (own->dblclick) own->dblclick(obj, 0);
    return;
  }
  if (own->dblclick) {
    own->dblclick(obj, held(FL_KEY_SHIFT) ? 1 : 0);
    return;
  }
  if (obj->type != 0 && obj->type != 4) fl_call_object_callback(obj);
}

// Selection by a click at display position p (or none, -1) by the type.
void click_select(FL_OBJECT *obj, int p) {
  FL_TABBOX_REC *own = own_of(obj);
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (obj->type == 0 && !own->vertical) return;
  if (obj->type != 3) {
    clear_flags(r);
    if (p < 0)
      redraw(obj);
    else
      fl_select_tabbox_line(obj, raw_at(r, p) + 1);
    fl_call_object_callback(obj);
    return;
  }
  if (p < 0) {
    fl_deselectall_tabbox(obj);
    return;
  }
  const int n = r->line_count;
  auto sel = [&](int q) -> unsigned char & { return r->selected[raw_at(r, q)]; };
  bool shift = held(FL_KEY_SHIFT), ctrl = held(FL_KEY_CONTROL);
  if (shift && ctrl) {
    int q = p;
    while (q >= 0 && !sel(q)) sel(q--) = 1;
    for (int k = p + 1; k < n && sel(k); ++k) sel(k) = 0;
  } else if (ctrl) {
    sel(p) = sel(p) ? 0 : 1;
  } else if (shift) {
    int q = p;
    while (q >= 0 && !sel(q)) sel(q--) = 1;
    while (q >= 0 && sel(q)) --q;
    for (int k = 0; k <= q; ++k) sel(k) = 0;
    for (int k = p + 1; k < n; ++k) sel(k) = 0;
  } else {
    clear_flags(r);
    sel(p) = 1;
  }
  redraw(obj);
  fl_call_object_callback(obj);
}

// Selects exactly display position p.
void select_only(FL_TABBOX_REC *r, int p) {
  clear_flags(r);
  if (p >= 0 && p < r->line_count) r->selected[raw_at(r, p)] = 1;
}

// True when the keys only scroll (types 0 and 1 outside vertical display).
bool scroll_only(FL_OBJECT *obj) {
  return !own_of(obj)->vertical && (obj->type == 0 || obj->type == 1);
}

void reduce_to_first(FL_OBJECT *obj, FL_TABBOX_REC *r) {
  if (own_of(obj)->vertical || obj->type != 3) return;
  int p = first_selected(r);
  if (p >= 0) select_only(r, p);
}

void built_in_popup(FL_OBJECT *obj, QWidget *w) {
  FL_TABBOX_REC *own = own_of(obj);
  bool viewer = own->viewer && fl_get_tabbox_selectcount(obj) == 1;
  const char *def = viewer ? "Sortierung%h|Spalten optimieren%h%l|Export%h|Viewer%h"
                           : "Sortierung%h|Spalten optimieren%h%l|Export%h";
  int item = fl_do_popup(fl_define_popup(w, def));
  TabboxHooks &h = fl_tabbox_hooks();
  switch (item) {
  case 1:
    if (h.sort_dialog) h.sort_dialog(obj);
    break;
  case 2:
    std::fill(own->col_maxwidth.begin(), own->col_maxwidth.end(), -1);
    if (own->companion)
      std::fill(own->companion->col_maxwidth.begin(), own->companion->col_maxwidth.end(), -1);
    fl_draw_tabbox(obj);
    if (h.optimize) h.optimize(obj);
    break;
  case 3:
    if (h.export_dialog) h.export_dialog(obj);
    break;
  case 4:
    if (h.viewer) h.viewer(obj);
    break;
  default:
    break;
  }
}

// The entries of the application's popup with "#" dropped, and the shortcut
// letter of each (0 none; at most nine entries get one).
std::vector<std::string> app_popup_entries(const std::string &def, std::vector<char> *letters) {
  std::vector<std::string> entries;
  std::string cur;
  int shortcuts = 0;
  char letter = 0;
  auto finish = [&] {
    entries.push_back(cur);
    if (letters) letters->push_back(letter);
    cur.clear();
    letter = 0;
  };
  for (size_t i = 0; i < def.size(); ++i) {
    char c = def[i];
    if (c == '|') {
      finish();
    } else if (c == '#' && i + 1 < def.size()) {
      char x = def[++i];
      if (shortcuts < 9 && !letter) {
        letter = x;
        ++shortcuts;
      }
      cur += x;
    } else {
      cur += c;
    }
  }
  if (!cur.empty() || def.empty() || def.back() != '|') finish();
  return entries;
}

void app_popup(FL_OBJECT *obj, QWidget *w) {
  FL_TABBOX_REC *own = own_of(obj);
  if (own->popup.empty() || !own->popup_cb) return;
  std::string def;
  std::vector<char> letters;
  std::vector<std::string> entries = app_popup_entries(own->popup, &letters);
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!def.empty()) def += '|';
    // The application's letters stay theirs while the menu is shown.
    def += entries[i] + "%h";
    if (letters[i] && letters[i] != '|') def += std::string("%s") + letters[i];
  }
  int item = fl_do_popup(fl_define_popup(w, def.c_str()));
  if (item > 0) own->popup_cb(obj, item);
}

int popup_shortcut(FL_OBJECT *obj, int key) {
  FL_TABBOX_REC *own = own_of(obj);
  if (own->popup.empty() || !own->popup_cb || key <= 0 || key > 255) return 0;
  std::vector<char> letters;
  app_popup_entries(own->popup, &letters);
  for (size_t i = 0; i < letters.size(); ++i) {
    if (!letters[i]) continue;
    if (std::tolower(static_cast<unsigned char>(letters[i])) == std::tolower(key)) {
      own->popup_cb(obj, static_cast<int>(i) + 1);
      return 1;
    }
  }
  return 0;
}

// The column slot whose title holds display-title position q, or -1.
int title_column(const FL_TABBOX_REC *r, int q) {
  const std::string &t = r->title;
  if (q < 0 || q >= static_cast<int>(t.size()) || t[q] == '|') return -1;
  size_t bars = static_cast<size_t>(std::count(t.begin(), t.begin() + q, '|'));
  return bars < r->plan.size() ? r->plan[bars].col : -1;
}

// Draws s with character i starting exactly at x + i * cell, whatever the
// font's own advances are: the title (in its bold font) and the lines (in
// their normal one) share one character grid, so a "|" in a line lands under
// the title's "|" at any font size and scale factor, and the hit areas, which
// count in whole cells, match what is seen. Glyphs come from raw (the font's
// glyphs without fallback); a character raw lacks is drawn alone in its cell
// with font, which falls back to another face.
void draw_cells(QPainter &p, const QRawFont &raw, const QFont &font, int x, int baseline, int cell,
                const QString &s) {
  if (s.isEmpty()) return;
  QList<quint32> glyphs = raw.isValid() ? raw.glyphIndexesForString(s) : QList<quint32>();
  const bool one_per_char = glyphs.size() == s.size();
  QList<quint32> run_glyphs;
  QList<QPointF> run_pos;
  run_glyphs.reserve(s.size());
  run_pos.reserve(s.size());
  for (int i = 0; i < s.size(); ++i) {
    if (s[i] == QChar(' ')) continue;
    if (one_per_char && glyphs[i] != 0) {
      run_glyphs.push_back(glyphs[i]);
      run_pos.push_back(QPointF(i * cell, 0));
    } else {
      QFont saved = p.font();
      p.setFont(font);
      p.drawText(QPointF(x + i * cell, baseline), QString(s[i]));
      p.setFont(saved);
    }
  }
  if (run_glyphs.isEmpty()) return;
  QGlyphRun run;
  run.setRawFont(raw);
  run.setGlyphIndexes(run_glyphs);
  run.setPositions(run_pos);
  p.drawGlyphRun(QPointF(x, baseline), run);
}

// Draws the marker of each sort key in the title line: a small triangle,
// pointing up for ascending and down for descending, in the last cell of the
// key's column (just left of its "|"). The title text itself is unchanged.
void draw_sort_markers(QPainter &p, const FL_TABBOX_REC *r, int tx, int th, QColor color) {
  const std::string &t = r->title;
  for (int k = 0; k < r->nsort; ++k) {
    int shown = -1;
    for (size_t i = 0; i < r->plan.size(); ++i)
      if (r->plan[i].col == r->sort_cols[k]) shown = static_cast<int>(i);
    if (shown < 0) continue;
    // The column's end: its "|" in the display title, or the title's end.
    size_t end = 0;
    int bars = 0;
    for (end = 0; end < t.size(); ++end)
      if (t[end] == '|' && bars++ == shown) break;
    int cell = static_cast<int>(end) - 1 - r->offset;
    if (cell < 0 || cell > r->visible_chars) continue;
    int x = tx + cell * r->char_w;
    int w = std::max(4, r->char_w * 3 / 4), h = std::max(3, w / 2 + 1);
    int y = BW + (th - BW - h) / 2;
    int right = x + r->char_w - 1;
    QPolygon tri;
    if (r->sort_dirs[k])
      tri << QPoint(right - w, y + h) << QPoint(right, y + h) << QPoint(right - w / 2, y);
    else
      tri << QPoint(right - w, y) << QPoint(right, y) << QPoint(right - w / 2, y + h);
    p.save();
    p.setRenderHint(QPainter::Antialiasing, true);
    p.setPen(Qt::NoPen);
    p.setBrush(color);
    p.drawPolygon(tri);
    p.restore();
  }
}

// Ends a column resize of r (the record shown) at widget x (title line or
// not). In vertical display r is the companion: its columns are the lines
// turned, so the new width is kept with the companion (across rebuilds of the
// same shape) and not written to the settings, which describe the columns of
// the horizontal display.
void finish_resize(FL_OBJECT *obj, FL_TABBOX_REC *r, int x, bool over_title) {
  FL_TABBOX_REC *own = own_of(obj);
  const bool turned = r != own;
  int start = r->resize_col;
  r->resize_col = -1;
  if (!over_title || r->char_w <= 0) return;
  int title_x = tabbox_text_x(obj) - r->char_w;
  int q = r->offset + (x - title_x) / r->char_w - 1;
  if (q == start) return;
  const std::string &t = r->title;
  int bars =
      static_cast<int>(std::count(t.begin(), t.begin() + std::min<size_t>(start, t.size()), '|'));
  if (bars >= static_cast<int>(r->plan.size())) return;
  int col = r->plan[bars].col;
  size_t prev = start > 0 ? t.rfind('|', start - 1) : std::string::npos;
  // Before the first column the text is read as if "| " preceded it.
  int between = prev == std::string::npos ? start + 1 : start - static_cast<int>(prev) - 1;
  int width = between + q - start - 2;
  width = std::max(1, std::min(width, r->col_width[col]));
  r->col_maxwidth[col] = width;
  TabboxHooks &h = fl_tabbox_hooks();
  if (h.colwidth && !turned) h.colwidth(obj, col, width);
  own->changed = 1;
  if (h.refresh)
    h.refresh(obj);
  else
    fl_draw_tabbox(obj);
}

// The geometry of one scroll element in widget coordinates.
QRect element_rect(FL_OBJECT *obj, int e) {
  int W = obj->w, H = obj->h;
  switch (e) {
  case TB_LEFT:
    return {0, H - S, S, S};
  case TB_RIGHT:
    return {W - 2 * S, H - S, S, S};
  case TB_UP:
    return {W - S, 0, S, S};
  case TB_DOWN:
    return {W - S, H - 2 * S, S, S};
  default:
    return {W - S, H - S, S, S};
  }
}

class TabboxWidget : public FlDrawnWidget {
public:
  TabboxWidget(FL_OBJECT *obj, QWidget *parent) : FlDrawnWidget(obj, parent) {
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    timer_.setInterval(FL_TABBOX_REPEAT_MS);
    QObject::connect(&timer_, &QTimer::timeout, [this] { tabbox_mouse_repeat(object()); });
  }
  QPoint last_mouse{-1, -1};

private:
  int wheel_x_ = 0, wheel_y_ = 0; // wheel movement not yet a whole step

public:

protected:
  void draw(QPainter &p) override;
  void mousePressEvent(QMouseEvent *e) override { on_press(e, false); }
  void mouseDoubleClickEvent(QMouseEvent *e) override { on_press(e, true); }
  void mouseMoveEvent(QMouseEvent *e) override {
    EventModifiers scope(e->modifiers());
    last_mouse = e->position().toPoint();
    drag(last_mouse);
  }
  void mouseReleaseEvent(QMouseEvent *e) override {
    EventModifiers scope(e->modifiers());
    release(e->position().toPoint());
  }
  void keyPressEvent(QKeyEvent *e) override {
    EventModifiers scope(e->modifiers());
    if (!key(fl_key_code(e))) QWidget::keyPressEvent(e);
  }
  void resizeEvent(QResizeEvent *e) override {
    FlDrawnWidget::resizeEvent(e);
    if (own_of(object())) tabbox_update_metrics(object());
  }
  // The wheel (and a touchpad's two-finger move) scrolls three lines per
  // notch, with Shift (or a sideways move) three characters sideways; the
  // selection stays. Parts of a notch add up until they make a step.
  void wheelEvent(QWheelEvent *e) override {
    FL_TABBOX_REC *own = own_of(object());
    if (!own) return QWidget::wheelEvent(e);
    fl_layout_tabbox(object());
    FL_TABBOX_REC *r = fl_tabbox_active(own);
    QPoint d = e->angleDelta();
    if ((e->modifiers() & Qt::ShiftModifier) && d.x() == 0) d = QPoint(d.y(), 0);
    wheel_x_ += d.x();
    wheel_y_ += d.y();
    int lines = wheel_y_ / 40, chars = wheel_x_ / 40;
    wheel_y_ -= lines * 40;
    wheel_x_ -= chars * 40;
    if (lines) r->topline = std::clamp(r->topline - lines, 0, max_topline(r));
    if (chars) r->offset = std::clamp(r->offset - chars, 0, max_offset(r));
    if (lines || chars) redraw(object());
    e->accept();
  }
  // The focus frame comes and goes with the focus.
  void focusInEvent(QFocusEvent *e) override {
    FlDrawnWidget::focusInEvent(e);
    update();
  }
  void focusOutEvent(QFocusEvent *e) override {
    FlDrawnWidget::focusOutEvent(e);
    update();
  }

private:
  // A press, or the second press of a double-click as the platform saw it
  // (`platform_dbl`). A tabbox with its own double-click time decides by the
  // presses' times instead: the second press of the same button within that
  // time and a few pixels of the first is the double-click, whatever the
  // platform's interval; a third press starts a new pair.
  void on_press(QMouseEvent *e, bool platform_dbl) {
    EventModifiers scope(e->modifiers());
    QPoint pos = e->position().toPoint();
    last_mouse = pos;
    bool dbl = platform_dbl;
    FL_TABBOX_REC *own = own_of(object());
    if (own && own->dblclick_ms > 0) {
      // Without a first press seen (a double-click delivered alone) the
      // platform's word holds.
      dbl = pair_pending_
                ? e->button() == pair_button_ &&
                      e->timestamp() - pair_time_ <= static_cast<quint64>(own->dblclick_ms) &&
                      (pos - pair_pos_).manhattanLength() <= 4
                : platform_dbl;
      pair_pending_ = !dbl;
      pair_time_ = e->timestamp();
      pair_pos_ = pos;
      pair_button_ = e->button();
    }
    press(pos, e->button(), dbl);
  }
  bool pair_pending_ = false;
  quint64 pair_time_ = 0;
  QPoint pair_pos_;
  Qt::MouseButton pair_button_ = Qt::NoButton;

  void press(QPoint pos, Qt::MouseButton button, bool dbl);
  void drag(QPoint pos);
  void release(QPoint pos);
  bool key(int k);
  QTimer timer_;

  friend int ::tabbox_mouse_repeat(FL_OBJECT *obj);
};

void TabboxWidget::press(QPoint pos, Qt::MouseButton button, bool dbl) {
  FL_OBJECT *obj = object();
  FL_TABBOX_REC *own = own_of(obj);
  if (!own) return;
  fl_layout_tabbox(obj);
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  int area = tabbox_hit_area(obj, pos.x(), pos.y());
  auto start_repeat = [&](int e) {
    r->pressed[e] = 1;
    r->repeat[e] = 0;
    r->repeat_started[e] = 0;
    timer_.start();
  };
  switch (area) {
  case TB_HIT_LEFT:
    if (!r->pressed[TB_LEFT]) start_repeat(TB_LEFT);
    step_left(r);
    break;
  case TB_HIT_RIGHT:
    if (!r->pressed[TB_RIGHT]) start_repeat(TB_RIGHT);
    step_right(r);
    break;
  case TB_HIT_DOWN:
    if (!r->pressed[TB_DOWN]) start_repeat(TB_DOWN);
    step_down(r);
    break;
  case TB_HIT_UP:
    if (!r->pressed[TB_UP]) start_repeat(TB_UP);
    step_up(r);
    break;
  case TB_HIT_CORNER:
    r->pressed[TB_CORNER] = 1;
    repaint();
    if (own->callback2) own->callback2(obj, own->callback2_arg);
    return;
  case TB_HIT_HKNOB:
    r->hdrag = 1;
    r->drag_x = pos.x();
    r->drag_offset = r->offset;
    break;
  case TB_HIT_VKNOB:
    r->vdrag = 1;
    r->drag_y = pos.y();
    r->drag_offset = r->offset;
    r->drag_topline = r->topline;
    break;
  case TB_HIT_HTROUGH:
  case TB_HIT_VTROUGH: {
    int v = area == TB_HIT_VTROUGH ? 1 : 0;
    int ks, kl;
    tabbox_knob(obj, v, &ks, &kl);
    bool back = (v ? pos.y() : pos.x()) < ks;
    r->trough_pressed[v] = 1;
    r->trough_repeat[v] = 0;
    r->trough_started[v] = 0;
    timer_.start();
    v ? step_vtrough(r, back) : step_htrough(r, back);
    break;
  }
  case TB_HIT_TITLE: {
    // Any button, and in vertical display on the companion's title.
    if (r->char_w <= 0) return;
    // Title positions count from one cell left of the text, so that p - 1
    // is the character under the mouse: a press on a "|" starts the resize.
    int title_x = tabbox_text_x(obj) - r->char_w;
    int p = r->offset + (pos.x() - title_x) / r->char_w;
    if (p >= 1 && p < static_cast<int>(r->title.size()) && r->title[p - 1] == '|') {
      r->resize_col = p - 1;
      setCursor(Qt::SizeAllCursor);
      return;
    }
    // A left press on a column's title sorts by that column (the columns of
    // the horizontal display only: the turned display has no such columns).
    int col = r == own_of(obj) && button == Qt::LeftButton ? title_column(r, p - 1) : -1;
    if (col > 0) {
      fl_cycle_tabbox_sort(obj, col);
      TabboxHooks &h = fl_tabbox_hooks();
      if (h.refresh)
        h.refresh(obj);
      else
        fl_draw_tabbox(obj);
    }
    return;
  }
  case TB_HIT_LIST:
    if (button == Qt::RightButton) {
      built_in_popup(obj, window());
      return;
    }
    if (button == Qt::MiddleButton) {
      app_popup(obj, window());
      return;
    }
    {
      int line = line_at(obj, pos.y());
      click_select(obj, line);
      if (dbl && line >= 0) run_dblclick(obj);
    }
    return;
  default:
    return;
  }
  redraw(obj);
}

void TabboxWidget::drag(QPoint pos) {
  FL_OBJECT *obj = object();
  FL_TABBOX_REC *own = own_of(obj);
  if (!own) return;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (r->hdrag) {
    long long len = std::max(1, r->hslider_len - 10);
    long long moved = static_cast<long long>(pos.x() - r->drag_x) * r->max_display_len / len;
    r->offset = static_cast<int>(std::clamp<long long>(r->drag_offset + moved, 0, max_offset(r)));
    redraw(obj);
  } else if (r->vdrag) {
    long long len = std::max(1, r->vslider_len - 10);
    long long moved = static_cast<long long>(pos.y() - r->drag_y) * r->line_count / len;
    r->topline =
        static_cast<int>(std::clamp<long long>(r->drag_topline + moved, 0, max_topline(r)));
    redraw(obj);
  }
}

void TabboxWidget::release(QPoint pos) {
  FL_OBJECT *obj = object();
  FL_TABBOX_REC *own = own_of(obj);
  if (!own) return;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  timer_.stop();
  bool any = false;
  if (r->resize_col >= 0) {
    unsetCursor();
    finish_resize(obj, r, pos.x(), tabbox_hit_area(obj, pos.x(), pos.y()) == TB_HIT_TITLE);
    any = true;
  }
  for (FL_TABBOX_REC *x : {own, r}) {
    for (int e = 0; e < 5; ++e) {
      any = any || x->pressed[e];
      x->pressed[e] = 0;
    }
    for (int v = 0; v < 2; ++v) {
      any = any || x->trough_pressed[v];
      x->trough_pressed[v] = 0;
    }
    any = any || x->hdrag || x->vdrag;
    x->hdrag = x->vdrag = 0;
    x->resize_col = -1;
  }
  if (any) redraw(obj);
}

bool TabboxWidget::key(int k) {
  FL_OBJECT *obj = object();
  FL_TABBOX_REC *own = own_of(obj);
  if (!own || !k) return false;
  fl_layout_tabbox(obj);
  TabboxHooks &h = fl_tabbox_hooks();
  bool ctrl = held(FL_KEY_CONTROL), shift = held(FL_KEY_SHIFT);
  auto allowed = [&] { return ctrl || !h.key || h.key(obj, k); };
  switch (k) {
  case FL_KEY_UP:
    if (allowed()) fl_tabbox_up(obj);
    return true;
  case FL_KEY_DOWN:
    if (allowed()) fl_tabbox_down(obj);
    return true;
  case FL_KEY_PAGE_UP:
    if (allowed()) fl_tabbox_pgup(obj);
    return true;
  case FL_KEY_PAGE_DOWN:
    if (allowed()) fl_tabbox_pgdown(obj);
    return true;
  case FL_KEY_HOME:
    fl_tabbox_leftmost(obj);
    return true;
  case FL_KEY_END:
    fl_tabbox_rightmost(obj);
    return true;
  case FL_KEY_LEFT:
  case FL_KEY_RIGHT:
    mytabs_step_horizontal(obj, k == FL_KEY_RIGHT, shift);
    return true;
  case FL_KEY_RETURN:
    if (!ctrl && (!h.key || h.key(obj, k))) run_dblclick(obj);
    return true;
  case FL_KEY_F1 + 1:
    if (own->viewer && fl_get_tabbox_selectcount(obj) == 1 && h.viewer) h.viewer(obj);
    return true;
  case 'c':
  case 'C':
    if (ctrl && h.copy) {
      h.copy(obj);
      return true;
    }
    return popup_shortcut(obj, k) != 0;
  default:
    return popup_shortcut(obj, k) != 0;
  }
}

void TabboxWidget::draw(QPainter &p) {
  FL_OBJECT *obj = object();
  FL_TABBOX_REC *own = own_of(obj);
  if (!own || !obj->visible) return;
  fl_layout_tabbox(obj);
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  const QPalette &pal = palette();
  const int W = width(), H = height();
  p.fillRect(rect(), pal.color(QPalette::Window));
  // The list frame around title line and list area.
  QRect frame(0, 0, W - S, H - S);
  p.fillRect(frame, pal.color(QPalette::Base));
  fl_draw_frame(p, FL_DOWN_FRAME, frame, pal);
  // Title line.
  const int th = title_height(r);
  QRect title(BW, BW, W - S - 2 * BW, th - BW);
  p.fillRect(title, pal.color(QPalette::Button));
  p.setPen(pal.color(QPalette::Mid));
  p.drawLine(BW, th, W - S - BW - 1, th);
  const int tx = tabbox_text_x(obj);
  const int vis = std::max(0, r->visible_chars);
  auto visible_part = [&](const std::string &t) {
    if (r->offset >= static_cast<int>(t.size())) return QString();
    QString s = QString::fromLatin1(t.data() + r->offset,
                                    std::min<int>(vis + 1, static_cast<int>(t.size()) - r->offset));
    // A line feed inside a value keeps the line one line: it is drawn as a
    // return mark in its one character cell (Latin-1 has no such sign).
    return s.replace(QChar('\n'), QChar(0x21B5));
  };
  QRect inner(BW, BW, W - S - 2 * BW, H - S - 2 * BW);
  p.save();
  p.setClipRect(inner);
  // The fonts are the tabbox's own in vertical display too: the companion
  // only holds the turned texts.
  QFont tfont = fl_style_font(own->title_fontstyle, own->fontsize);
  p.setFont(tfont);
  p.setPen(pal.color(QPalette::ButtonText));
  QFontMetrics tfm(tfont);
  draw_cells(p, QRawFont::fromFont(tfont), tfont, tx, BW + tfm.ascent(), r->char_w,
             visible_part(r->title));
  if (r == own) draw_sort_markers(p, r, tx, th, pal.color(QPalette::Highlight));
  // The visible lines.
  QFont font = fl_style_font(own->fontstyle, own->fontsize);
  p.setFont(font);
  QFontMetrics fm(font);
  const QRawFont raw_font = QRawFont::fromFont(font);
  const int y0 = tabbox_list_y(obj);
  for (int k = 0; k < r->screen_lines; ++k) {
    int pos = r->topline + k;
    if (pos >= r->line_count) break;
    int raw = raw_at(r, pos);
    int y = y0 + k * r->char_h;
    if (r->selected[raw]) {
      p.fillRect(QRect(BW, y, W - S - 2 * BW, r->char_h), pal.color(QPalette::Highlight));
      p.setPen(pal.color(QPalette::HighlightedText));
    } else {
      p.setPen(pal.color(QPalette::Text));
    }
    draw_cells(p, raw_font, font, tx, y + fm.ascent(), r->char_w,
               visible_part(fl_tabbox_display_text(r, raw)));
  }
  p.restore();
  // Buttons.
  static const char *const labels[5] = {"@<", "@>", "@2>", "@2<", "I"};
  QColor fg = pal.color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::ButtonText);
  for (int e = 0; e < 5; ++e) {
    QRect br = element_rect(obj, e);
    p.fillRect(br, pal.color(QPalette::Button));
    fl_draw_frame(p, r->pressed[e] ? FL_DOWN_FRAME : FL_UP_FRAME, br, pal);
    if (e == TB_CORNER)
      fl_draw_label(p, labels[e], br, FL_ALIGN_CENTER, FL_NORMAL_STYLE, FL_NORMAL_SIZE, fg);
    else
      fl_draw_symbol(p, labels[e], br.adjusted(4, 4, -4, -4), fg);
  }
  // Sliders: trough and knob.
  for (int v = 0; v < 2; ++v) {
    QRect trough = v ? QRect(W - S, S, S, H - 3 * S) : QRect(S, H - S, W - 3 * S, S);
    p.fillRect(trough, pal.color(QPalette::Mid));
    fl_draw_frame(p, FL_DOWN_FRAME, trough, pal);
    int ks, kl;
    tabbox_knob(obj, v, &ks, &kl);
    QRect knob = v ? QRect(W - S + BW, ks, S - 2 * BW, kl) : QRect(ks, H - S + BW, kl, S - 2 * BW);
    p.fillRect(knob, pal.color(QPalette::Button));
    fl_draw_frame(p, FL_UP_FRAME, knob, pal);
  }
  // With the focus, a frame in the highlight colour round the list shows
  // where the keys go.
  if (hasFocus()) {
    p.setPen(QPen(pal.color(QPalette::Highlight), 2));
    p.setBrush(Qt::NoBrush);
    p.drawRect(frame.adjusted(1, 1, -1, -1));
  }
}

} // namespace

QWidget *tabbox_make_widget(FL_OBJECT *obj, QWidget *parent) {
  return new TabboxWidget(obj, parent);
}

void tabbox_update_metrics(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = own_of(obj);
  if (!r) return;
  QFontMetrics fm(fl_style_font(r->fontstyle, r->fontsize));
  r->char_w = std::max(1, fm.horizontalAdvance(QLatin1Char('M')));
  r->char_h = std::max(1, fm.height());
  r->visible_chars = std::max(0, (obj->w - S - 2 * BW) / r->char_w);
  r->screen_lines = std::max(0, (obj->h - (r->char_h + 2 * BW) - S) / r->char_h);
  r->hslider_len = obj->w - 3 * S - 2 * BW;
  r->vslider_len = obj->h - 3 * S - 2 * BW;
  if (FL_TABBOX_REC *c = r->companion.get()) {
    c->char_w = r->char_w;
    c->char_h = r->char_h;
    c->visible_chars = r->visible_chars;
    c->screen_lines = r->screen_lines;
    c->hslider_len = r->hslider_len;
    c->vslider_len = r->vslider_len;
  }
}

void tabbox_redraw(FL_OBJECT *obj) {
  if (obj && obj->widget) obj->widget->update();
}

void tabbox_repaint_now(FL_OBJECT *obj) {
  if (obj && obj->widget && obj->widget->isVisible()) obj->widget->repaint();
}

int tabbox_text_x(FL_OBJECT *) { return BW + 2; }

void tabbox_char_size(FL_OBJECT *obj, int *w, int *h) {
  FL_TABBOX_REC *r = active_of(obj);
  if (w) *w = r ? r->char_w : 0;
  if (h) *h = r ? r->char_h : 0;
}

int tabbox_list_y(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = active_of(obj);
  return r ? title_height(r) + 1 : 0;
}

void tabbox_knob(FL_OBJECT *obj, int vertical, int *start, int *length) {
  FL_TABBOX_REC *r = active_of(obj);
  int ts = S + BW;
  int tl = vertical ? r->vslider_len : r->hslider_len;
  long long total = vertical ? r->line_count : r->max_display_len;
  long long pos = vertical ? r->topline : r->offset;
  long long page = vertical ? r->screen_lines : r->visible_chars;
  if (total < 1) {
    *start = ts;
    *length = std::max(0, tl);
    return;
  }
  long long L = tl - 10;
  long long a = L * pos / total;
  long long b = L * std::min(pos + page, total) / total;
  *start = ts + static_cast<int>(a);
  *length = static_cast<int>(b - a) + 10;
}

int tabbox_hit_area(FL_OBJECT *obj, int x, int y) {
  FL_TABBOX_REC *r = active_of(obj);
  if (!r) return TB_HIT_NONE;
  const int W = obj->w, H = obj->h;
  if (x < 0 || y < 0 || x >= W || y >= H) return TB_HIT_NONE;
  if (y >= H - S) {
    if (x < S) return TB_HIT_LEFT;
    if (x >= W - S) return TB_HIT_CORNER;
    if (x >= W - 2 * S) return TB_HIT_RIGHT;
    int ks, kl;
    tabbox_knob(obj, 0, &ks, &kl);
    return x >= ks && x < ks + kl ? TB_HIT_HKNOB : TB_HIT_HTROUGH;
  }
  if (x >= W - S) {
    if (y < S) return TB_HIT_UP;
    if (y >= H - 2 * S) return TB_HIT_DOWN;
    int ks, kl;
    tabbox_knob(obj, 1, &ks, &kl);
    return y >= ks && y < ks + kl ? TB_HIT_VKNOB : TB_HIT_VTROUGH;
  }
  return y < title_height(r) ? TB_HIT_TITLE : TB_HIT_LIST;
}

int tabbox_mouse_repeat(FL_OBJECT *obj) {
  FL_TABBOX_REC *own = own_of(obj);
  if (!own) return 0;
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  auto *w = static_cast<TabboxWidget *>(obj->widget);
  int area = tabbox_hit_area(obj, w->last_mouse.x(), w->last_mouse.y());
  // Counts down; on the event where the counter is already 0 it reloads:
  // the first time with the start delay and no step, later with the repeat
  // delay and one step.
  auto tick = [](int &counter, int &started, int start_delay, int repeat_delay) {
    if (counter > 0) {
      --counter;
      return false;
    }
    if (!started) {
      started = 1;
      counter = start_delay;
      return false;
    }
    counter = repeat_delay;
    return true;
  };
  int stepped = 0;
  static const int kArea[4] = {TB_HIT_LEFT, TB_HIT_RIGHT, TB_HIT_DOWN, TB_HIT_UP};
  for (int e = 0; e < 4; ++e) {
    if (!r->pressed[e] || area != kArea[e]) continue;
    bool lr = e == TB_LEFT || e == TB_RIGHT;
    if (!tick(r->repeat[e], r->repeat_started[e], lr ? 2 : 7, lr ? 1 : 3)) continue;
    switch (e) {
    case TB_LEFT:
      stepped = step_left(r);
      break;
    case TB_RIGHT:
      stepped = step_right(r);
      break;
    case TB_DOWN:
      stepped = step_down(r);
      break;
    default:
      stepped = step_up(r);
      break;
    }
  }
  for (int v = 0; v < 2; ++v) {
    if (!r->trough_pressed[v] || area != (v ? TB_HIT_VTROUGH : TB_HIT_HTROUGH)) continue;
    if (!tick(r->trough_repeat[v], r->trough_started[v], 7, 3)) continue;
    int ks, kl;
    tabbox_knob(obj, v, &ks, &kl);
    // The knob may have passed the mouse: step towards it.
    bool back = (v ? w->last_mouse.y() : w->last_mouse.x()) < ks;
    stepped = v ? step_vtrough(r, back) : step_htrough(r, back);
  }
  if (stepped) redraw(obj);
  return stepped;
}

// ---- Programmatic navigation ------------------------------------------------------

namespace {
// The record of a tabbox for a navigation operation, or nullptr after the
// bad-object report.
FL_TABBOX_REC *nav_rec(FL_OBJECT *obj, const char *fn) {
  FL_TABBOX_REC *r = own_of(obj);
  if (!r) {
    msg_print("%s: Bad argument or wrong type\n", fn);
    return nullptr;
  }
  fl_layout_tabbox(obj);
  return fl_tabbox_active(r);
}
} // namespace

void fl_call_tabbox_dblclick_callback(FL_OBJECT *obj) {
  if (nav_rec(obj, "fl_call_tabbox_dblclick_callback")) run_dblclick(obj);
}

void fl_tabbox_leftmost(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = nav_rec(obj, "fl_tabbox_leftmost");
  if (!r) return;
  r->offset = 0;
  redraw(obj);
}

void mytabs_step_horizontal(FL_OBJECT *obj, int right, int page) {
  FL_TABBOX_REC *own = own_of(obj);
  if (!own) return;
  fl_layout_tabbox(obj);
  FL_TABBOX_REC *r = fl_tabbox_active(own);
  if (right) {
    if (r->offset < max_offset(r))
      r->offset = page ? std::min(r->offset + r->visible_chars - 1, max_offset(r)) : r->offset + 1;
  } else if (page) {
    r->offset = std::max(0, r->offset - (r->visible_chars + 1));
  } else if (r->offset >= 1) {
    --r->offset;
  }
  redraw(obj);
}

void fl_tabbox_rightmost(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = nav_rec(obj, "fl_tabbox_rightmost");
  if (!r) return;
  r->offset = max_offset(r);
  redraw(obj);
}

void fl_tabbox_up(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = nav_rec(obj, "fl_tabbox_up");
  if (!r) return;
  if (scroll_only(obj)) {
    step_up(r);
    redraw(obj);
    return;
  }
  reduce_to_first(obj, r);
  int p = first_selected(r);
  if (p < 0) {
    select_only(r, r->topline);
  } else if (p >= 1) {
    select_only(r, p - 1);
    if (p - 1 < r->topline) --r->topline;
  }
  redraw(obj);
  fl_call_object_callback(obj);
}

void fl_tabbox_down(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = nav_rec(obj, "fl_tabbox_down");
  if (!r) return;
  if (scroll_only(obj)) {
    step_down(r);
    redraw(obj);
    return;
  }
  reduce_to_first(obj, r);
  int p = first_selected(r);
  if (p < 0) {
    select_only(r, r->topline);
  } else if (p < r->line_count - 1) {
    select_only(r, p + 1);
    if (p + 1 >= r->topline + r->screen_lines && r->topline < r->line_count - r->screen_lines)
      ++r->topline;
  }
  redraw(obj);
  fl_call_object_callback(obj);
}

void fl_tabbox_pgup(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = nav_rec(obj, "fl_tabbox_pgup");
  if (!r) return;
  if (scroll_only(obj)) {
    r->topline = std::max(0, r->topline - (r->screen_lines + 1));
    redraw(obj);
    return;
  }
  reduce_to_first(obj, r);
  int p = first_selected(r);
  if (p < 0) {
    select_only(r, r->topline);
  } else if (p >= 1) {
    if (p == r->topline) r->topline = std::max(0, r->topline - (r->screen_lines + 1));
    select_only(r, r->topline);
  }
  redraw(obj);
  fl_call_object_callback(obj);
}

void fl_tabbox_pgdown(FL_OBJECT *obj) {
  FL_TABBOX_REC *r = nav_rec(obj, "fl_tabbox_pgdown");
  if (!r) return;
  if (scroll_only(obj)) {
    r->topline = std::max(0, std::min(r->topline + r->screen_lines - 1, max_topline(r)));
    redraw(obj);
    return;
  }
  reduce_to_first(obj, r);
  // Mirrors Page Up: the selection goes to the last visible line; from there
  // the list first moves on by a page.
  int p = first_selected(r);
  auto bottom = [&] { return std::min(r->topline + r->screen_lines - 1, r->line_count - 1); };
  if (p < 0) {
    select_only(r, r->topline);
  } else if (p < r->line_count - 1) {
    if (p == bottom())
      r->topline = std::max(0, std::min(r->topline + r->screen_lines - 1, max_topline(r)));
    select_only(r, std::min(std::max(bottom(), p + 1), r->line_count - 1));
  }
  redraw(obj);
  fl_call_object_callback(obj);
}
