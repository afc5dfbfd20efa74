// The editor object (see editor.h). The input is the toolkit's multi-line
// input; an event filter on it adds the key throttle and the position
// display.
//
// Process-wide state: the table of editors (append-only, at most 100; the
// record of a freed form's editor names no objects), the buffer of
// fl_get_editor_text and the zoom hook.
#include "forms/editor.h"

#include "base/msg.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFontMetrics>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPlainTextEdit>
#include <QTextBlock>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr int kBorder = 2;      // the toolkit's border width
constexpr int kThrottleMs = 50; // minimum distance of accepted cursor keys

std::vector<std::unique_ptr<FL_EDITOR_REC>> g_editors;
std::string g_text;
FL_EDITOR_ZOOM_HOOK g_zoom = nullptr;

int64_t now_ms() {
  static QElapsedTimer clock;
  if (!clock.isValid()) clock.start();
  return clock.elapsed();
}

QPlainTextEdit *edit_of(const FL_EDITOR_REC *ed) {
  return ed && ed->input ? qobject_cast<QPlainTextEdit *>(ed->input->widget) : nullptr;
}

// Throttles the cursor keys and updates the position field after clicks.
class EditorFilter : public QObject {
public:
  explicit EditorFilter(FL_EDITOR_REC *ed) : ed_(ed) {}
  // The filter goes with the input's widget, that is with the editor's form,
  // before the form's objects are freed. The record stays in the table (it
  // only grows) but names no object any more: an object made later at a
  // freed one's address must never be taken for this editor's input.
  ~EditorFilter() override {
    ed_->form = nullptr;
    ed_->input = ed_->zoom = ed_->wrap = ed_->position = nullptr;
  }

protected:
  bool eventFilter(QObject *, QEvent *event) override {
    if (event->type() == QEvent::KeyPress) {
      auto *k = static_cast<QKeyEvent *>(event);
      switch (k->key()) {
      case Qt::Key_Left:
      case Qt::Key_Up:
      case Qt::Key_Right:
      case Qt::Key_Down:
      case Qt::Key_PageUp:
      case Qt::Key_PageDown:
        break;
      case Qt::Key_Space:
        if (ed_->cursor_pos != -1) return false;
        break;
      default:
        return false;
      }
      int64_t t = now_ms();
      if (t - ed_->last_key_ms < kThrottleMs) return true; // dropped
      ed_->last_key_ms = t;
      return false;
    }
    if (event->type() == QEvent::MouseButtonRelease) {
      auto *m = static_cast<QMouseEvent *>(event);
      if (m->button() == Qt::RightButton) ed_->right_click = 1;
      if (m->button() == Qt::LeftButton || m->button() == Qt::RightButton)
        fl_update_editor_position(ed_);
    }
    return false;
  }

private:
  FL_EDITOR_REC *ed_;
};

void zoom_callback(FL_OBJECT *obj, long) {
  for (auto &ed : g_editors)
    if (ed->zoom == obj) {
      if (g_zoom) g_zoom(ed->input);
      return;
    }
}

void wrap_callback(FL_OBJECT *obj, long) {
  for (auto &ed : g_editors)
    if (ed->wrap == obj) {
      fl_wrap_editor(ed->input);
      return;
    }
}

// Width of a line without one trailing blank.
int line_width(std::string_view line, const std::function<int(std::string_view)> &measure) {
  if (!line.empty() && line.back() == ' ') line.remove_suffix(1);
  return measure(line);
}

} // namespace

FL_OBJECT *fl_add_editor(int type, int x, int y, int w, int h, const char *label) {
  if (static_cast<int>(g_editors.size()) >= FL_MAX_EDITORS) {
    msg_print("fl_add_editor: Too many editors (max = %d)\n", FL_MAX_EDITORS);
    return nullptr;
  }
  auto ed = std::make_unique<FL_EDITOR_REC>();
  ed->form = fl_current_building_form();
  ed->type = type;
  ed->input = fl_add_input(FL_MULTILINE_INPUT, x, y + 2, w - 2, h - 27, label);
  fl_set_object_lstyle(ed->input, ed->fontstyle);
  ed->position = fl_add_text(0, x + (w - 2) - 110, y + 2 - 21, 110, 21, "");
  fl_set_object_lalign(ed->position, FL_ALIGN_RIGHT | FL_ALIGN_INSIDE);
  int below = y + 2 + (h - 27) + kBorder + 3;
  ed->zoom = fl_add_button(FL_NORMAL_BUTTON, x, below, 110, 20, "Zoom");
  fl_set_object_shortcut(ed->zoom, "^Z^z", 0);
  fl_set_object_callback(ed->zoom, zoom_callback, 0);
  ed->wrap = fl_add_button(FL_NORMAL_BUTTON, x + 170, below, 110, 20, "Zeilenumbruch");
  fl_set_object_callback(ed->wrap, wrap_callback, 0);
  ed->text_width = (w - 2) - 3 * kBorder;
  if (QPlainTextEdit *te = edit_of(ed.get())) {
    auto *filter = new EditorFilter(ed.get());
    filter->setParent(te);
    te->installEventFilter(filter);
    te->viewport()->installEventFilter(filter);
  }
  g_editors.push_back(std::move(ed));
  return g_editors.back()->input;
}

FL_EDITOR_REC *fl_get_editor(FL_OBJECT *obj) {
  for (auto &ed : g_editors)
    if (obj && ed->input == obj) return ed.get();
  return nullptr;
}

int fl_editor_count() { return static_cast<int>(g_editors.size()); }

const char *fl_get_editor_text(FL_OBJECT *obj) {
  const char *t = obj ? fl_get_input(obj) : nullptr;
  g_text = t ? t : "";
  return g_text.c_str();
}

char *fl_get_file_data(const char *filename) {
  FILE *f = filename ? std::fopen(filename, "rb") : nullptr;
  if (!f) {
    msg_print("(fl_get_file_data) Cannot open file '%s' for input!", filename ? filename : "");
    return nullptr;
  }
  size_t cap = 10000, len = 0;
  char *buf = static_cast<char *>(std::malloc(cap));
  while (buf) {
    if (len + 1 >= cap) {
      char *bigger = static_cast<char *>(std::realloc(buf, cap + 10000));
      if (!bigger) {
        std::free(buf);
        buf = nullptr;
        break;
      }
      buf = bigger;
      cap += 10000;
    }
    size_t got = std::fread(buf + len, 1, cap - 1 - len, f);
    len += got;
    if (got == 0) break;
  }
  std::fclose(f);
  if (buf) buf[len] = '\0';
  return buf;
}

std::string fl_wrap_text(std::string_view text, int usable,
                         const std::function<int(std::string_view)> &measure) {
  std::string out;
  out.reserve(10000);
  const int limit = usable - 3;
  size_t from = 0;
  while (from < text.size()) {
    size_t nl = text.find('\n', from);
    std::string_view line = text.substr(from, nl == std::string_view::npos ? text.npos : nl - from);
    from = nl == std::string_view::npos ? text.size() : nl + 1;
    while (!line.empty() && line_width(line, measure) >= limit) {
      // The longest prefix that still fits.
      size_t lo = 0, hi = line.size();
      while (lo < hi) {
        size_t mid = (lo + hi + 1) / 2;
        if (measure(line.substr(0, mid)) < limit)
          lo = mid;
        else
          hi = mid - 1;
      }
      size_t blank = lo > 0 ? line.substr(0, lo).rfind(' ') : std::string_view::npos;
      if (blank != std::string_view::npos) {
        out.append(line.substr(0, blank));
        out += " \n";
        line.remove_prefix(blank + 1);
      } else {
        size_t cut = line.size() / 2;
        out.append(line.substr(0, cut + 1));
        out += '\n';
        line.remove_prefix(std::min(cut + 1, line.size()));
      }
    }
    if (!line.empty() || nl != std::string_view::npos) {
      out.append(line);
      out += '\n';
    }
  }
  return out;
}

int fl_wrap_editor(FL_OBJECT *obj) {
  FL_EDITOR_REC *ed = fl_get_editor(obj);
  QPlainTextEdit *te = edit_of(ed);
  if (!te || ed->cursor_pos == 0) return 0;
  QFontMetrics fm(te->font());
  auto measure = [&fm](std::string_view s) {
    return fm.horizontalAdvance(QString::fromLatin1(s.data(), static_cast<int>(s.size())));
  };
  std::string wrapped = fl_wrap_text(fl_get_input(obj), ed->text_width, measure);
  fl_set_input(obj, wrapped.c_str());
  fl_set_input_cursorpos(obj, ed->cursor_pos >= 1 ? ed->cursor_pos : 0);
  fl_redraw_object(obj);
  return 1;
}

void fl_update_editor_position(FL_EDITOR_REC *ed) {
  QPlainTextEdit *te = edit_of(ed);
  if (!te || ed->cursor_pos != -1) return;
  if (te->toPlainText().trimmed().isEmpty()) {
    fl_set_object_label(ed->position, "");
    return;
  }
  QTextCursor c = te->textCursor();
  char text[32];
  std::snprintf(text, sizeof text, "%d:%d", c.blockNumber() + 1, c.positionInBlock() + 1);
  fl_set_object_label(ed->position, text);
}

FL_EDITOR_ZOOM_HOOK fl_set_editor_zoom_hook(FL_EDITOR_ZOOM_HOOK hook) {
  FL_EDITOR_ZOOM_HOOK old = g_zoom;
  g_zoom = hook;
  return old;
}
