// The status line of the main form (see status.h).
#include "app/status.h"

#include <QWidget>
#include <cstdio>

#include "app/resultlimit.h"
#include "app/viewer.h"
#include "forms/forms.h"

namespace {
FL_OBJECT *g_line = nullptr;
} // namespace

void zentiq_add_status_line(int x, int y, int w, int h) {
  g_line = fl_add_text(0, x, y, w, h, "");
  fl_set_object_lsize(g_line, FL_MEDIUM_SIZE);
  fl_set_object_lalign(g_line, FL_ALIGN_INSIDE | FL_ALIGN_LEFT);
  fl_set_object_resize(g_line, 0, 100, 100, 0);
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
