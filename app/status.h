// The status line under the main form's result: after each query the rows
// and columns it gave, the round trip of its statement and the time the
// viewer took to show its rows (filling the tabbox up to its first page
// drawn).
//
// While a query runs longer than half a second the status line shows that
// it runs (with the seconds so far and a turning mark) and "Abbrechen",
// which asks the server to stop it (the client library's cancel); the rest
// of the viewer takes no input meanwhile, so that nothing else is sent while
// the answer is awaited.
//
// The queries themselves are mainform.h's; this module only shows what they
// measured and keeps the window alive while they run.
#pragma once

#include <chrono>
#include <string>

#include "forms/forms.h"

// Adds the status line to the form being built (the main form), at x, y
// with w x h; it widens with the window and keeps its distance to the
// bottom.
void zentiq_add_status_line(int x, int y, int w, int h);
// Shows a query's figures: "<rows> Zeilen, <cols> Spalten; Abfrage <t> ms,
// Anzeige <t> ms". The result tabbox is drawn first, so that the time shown
// is the time from `show_started` to its first page on screen.
void zentiq_status_result(long rows, int cols, double statement_ms,
                          std::chrono::steady_clock::time_point show_started);
// Marks the statement run in its scope as a query the user may cancel: from
// half a second on the busy indicator and "Abbrechen" show and the window is
// kept drawn; at the end of the scope both go and input is taken again.
class ZqBusyScope {
public:
  ZqBusyScope();
  ~ZqBusyScope();
  ZqBusyScope(const ZqBusyScope &) = delete;
  ZqBusyScope &operator=(const ZqBusyScope &) = delete;
};
// The "Abbrechen" button of the status line (hidden while no query runs).
FL_OBJECT *zentiq_cancel_button();
// 1 while the busy indicator shows.
int zentiq_busy_shown();
// What "Abbrechen" does: asks that the running query be stopped. Nothing
// when no query runs.
void zentiq_cancel_query();
// Milliseconds a query runs before the indicator shows.
constexpr int ZQ_BUSY_AFTER_MS = 500;

// Empties the status line (a query failed or another command ran).
void zentiq_status_clear();
// The status line's text.
std::string zentiq_status_text();
// Milliseconds from `from` to now.
double zentiq_ms_since(std::chrono::steady_clock::time_point from);
// A duration as the status line writes it: "0,4 ms", "12 ms", "1,25 s".
std::string zentiq_duration_text(double ms);
