// The status line of the main form (see status.h).
#include "app/status.h"

#include <QApplication>
#include <QKeyEvent>
#include <QWidget>
#include <cstdio>
#include <memory>

#include "app/resultlimit.h"
#include "app/viewer.h"
#include "db/client/transport.h"
#include "forms/forms.h"

namespace {

FL_OBJECT *g_line = nullptr;
FL_OBJECT *g_cancel = nullptr; // "Abbrechen", shown while a query runs

// While the indicator shows, the viewer's forms take input at "Abbrechen"
// only (Escape also cancels): a click elsewhere could start another
// statement while the client waits for this one's answer. Paint and timer
// events pass, and so does everything for windows that are no form.
class InputGate : public QObject {
protected:
  bool eventFilter(QObject *obj, QEvent *e) override {
    // Events reach a window first and its widgets after: only widgets are
    // judged, and only those of the viewer's forms. A box shown meanwhile
    // (the loss of the server, the fatal stop) takes its keys and clicks.
    if (!obj->isWidgetType() || !fl_form_of_widget(static_cast<QWidget *>(obj))) return false;
    switch (e->type()) {
    case QEvent::KeyPress:
      if (static_cast<QKeyEvent *>(e)->key() == Qt::Key_Escape) zentiq_cancel_query();
      return true;
    case QEvent::KeyRelease:
    case QEvent::Shortcut:
    case QEvent::ShortcutOverride:
    case QEvent::Close:
      return true;
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::Wheel:
    case QEvent::ContextMenu:
      return !(g_cancel && obj == g_cancel->widget);
    default:
      return false;
    }
  }
};

struct Busy {
  std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
  bool shown = false;
  bool cancelled = false;
  int turn = 0;
  std::unique_ptr<InputGate> gate;
};
Busy *g_busy = nullptr;

void show_busy(Busy *b) {
  static const char kTurn[] = "|/-\\";
  double s = zentiq_ms_since(b->started) / 1000;
  char text[96];
  std::snprintf(text, sizeof text, "%c Abfrage l\xE4uft seit %.0f s%s", kTurn[b->turn++ % 4], s,
                b->cancelled ? " - Abbruch angefordert" : "");
  if (g_line) fl_set_object_label(g_line, text);
}

// Called by the client library about every 50 ms while it waits for the
// answer: from half a second on the indicator shows and the window is kept
// drawn (events processed with every input but "Abbrechen" held back).
void wait_hook(void *) {
  Busy *b = g_busy;
  if (!b) return;
  if (!b->shown) {
    if (zentiq_ms_since(b->started) < ZQ_BUSY_AFTER_MS) return;
    b->shown = true;
    b->gate = std::make_unique<InputGate>();
    QApplication::instance()->installEventFilter(b->gate.get());
    if (g_cancel) fl_show_object(g_cancel);
  }
  show_busy(b);
  QApplication::processEvents();
}

} // namespace

ZqBusyScope::ZqBusyScope() {
  g_busy = new Busy;
  DBset_wait_hook(wait_hook, nullptr);
}

ZqBusyScope::~ZqBusyScope() {
  DBset_wait_hook(nullptr, nullptr);
  Busy *b = g_busy;
  g_busy = nullptr;
  if (b && b->shown) {
    QApplication::instance()->removeEventFilter(b->gate.get());
    if (g_cancel) fl_hide_object(g_cancel);
    if (g_line) fl_set_object_label(g_line, "");
  }
  delete b;
}

FL_OBJECT *zentiq_cancel_button() { return g_cancel; }

int zentiq_busy_shown() { return g_busy && g_busy->shown ? 1 : 0; }

void zentiq_cancel_query() {
  if (!g_busy) return;
  g_busy->cancelled = true;
  DBcancel();
}

void zentiq_add_status_line(int x, int y, int w, int h) {
  g_line = fl_add_text(0, x, y, w, h, "");
  fl_set_object_lsize(g_line, FL_MEDIUM_SIZE);
  fl_set_object_lalign(g_line, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  fl_set_object_resize(g_line, 0, 100, 100, 0);
  // "Abbrechen" at the right end of the status line, shown while a query
  // runs.
  g_cancel = fl_add_button(FL_NORMAL_BUTTON, x + w - 100, y, 100, h, "Abbrechen");
  fl_set_object_lsize(g_cancel, FL_MEDIUM_SIZE);
  fl_set_object_callback(
      g_cancel, [](FL_OBJECT *, long) { zentiq_cancel_query(); }, 0);
  fl_set_object_resize(g_cancel, 100, 0, 100, 0);
  fl_hide_object(g_cancel);
}

double zentiq_ms_since(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - from).count();
}

std::string zentiq_duration_text(double ms) {
  char buf[32];
  if (ms < 10)
    std::snprintf(buf, sizeof buf, "%.1f ms", ms);
  else if (ms < 10000)
    std::snprintf(buf, sizeof buf, "%.0f ms", ms);
  else
    std::snprintf(buf, sizeof buf, "%.2f s", ms / 1000);
  std::string t = buf;
  for (char &ch : t)
    if (ch == '.') ch = ',';
  return t;
}

void zentiq_status_result(long rows, int cols, double statement_ms,
                          std::chrono::steady_clock::time_point show_started) {
  // The first page of the result is drawn now rather than at the next turn
  // of the event loop, so that the time counts it.
  if (FL_OBJECT *tb = zentiq_app().main.result; tb && tb->widget && tb->widget->isVisible())
    tb->widget->repaint();
  double show_ms = zentiq_ms_since(show_started);
  std::string text = zentiq_group_digits(rows) + (rows == 1 ? " Zeile, " : " Zeilen, ") +
                     std::to_string(cols) + (cols == 1 ? " Spalte; " : " Spalten; ") + "Abfrage " +
                     zentiq_duration_text(statement_ms) + ", Anzeige " +
                     zentiq_duration_text(show_ms);
  if (g_line) fl_set_object_label(g_line, text.c_str());
}

void zentiq_status_clear() {
  if (g_line) fl_set_object_label(g_line, "");
}

std::string zentiq_status_text() { return g_line ? fl_get_object_label(g_line) : ""; }
