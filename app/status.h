// The status line under the main form's result: after each query the rows
// and columns it gave, the round trip of its statement and the time the
// viewer took to show its rows (filling the tabbox up to its first page
// drawn).
//
// The queries themselves are mainform.h's; this module only shows what they
// measured.
#pragma once

#include <chrono>
#include <string>

// Adds the status line to the form being built (the main form), at x, y
// with w x h; it widens with the window and keeps its distance to the
// bottom.
void zentiq_add_status_line(int x, int y, int w, int h);
// Shows a query's figures: "<rows> Zeilen, <cols> Spalten; Abfrage <t> ms,
// Anzeige <t> ms". The result tabbox is drawn first, so that the time shown
// is the time from `show_started` to its first page on screen.
void zentiq_status_result(long rows, int cols, double statement_ms,
                          std::chrono::steady_clock::time_point show_started);
// Empties the status line (a query failed or another command ran).
void zentiq_status_clear();
// The status line's text.
std::string zentiq_status_text();
// Milliseconds from `from` to now.
double zentiq_ms_since(std::chrono::steady_clock::time_point from);
// A duration as the status line writes it: "0,4 ms", "12 ms", "1,25 s".
std::string zentiq_duration_text(double ms);
