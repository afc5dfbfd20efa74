// The tabbox on the screen: its widget (drawing, hit areas, mouse, keys,
// auto-repeat, popups) and the font metrics it depends on. The operations are
// mytabs.h's, the record and the layout mytabs_int.h's; this header answers in
// object terms only (geometry, hit areas, a repeat tick), for the tabbox's own
// modules and for tests that drive the widget with mouse events.
#pragma once

#include "forms/mytabs.h"

class QWidget;

// Creates the tabbox widget for obj as a child of parent.
QWidget *tabbox_make_widget(FL_OBJECT *obj, QWidget *parent);
// Recomputes character size, visible characters, screen lines and slider
// lengths from the record's font and the object's size.
void tabbox_update_metrics(FL_OBJECT *obj);
// Asks for a redraw (at the next turn of the event loop).
void tabbox_redraw(FL_OBJECT *obj);
// Draws the object now.
void tabbox_repaint_now(FL_OBJECT *obj);

// Hit areas of a position in the widget (0 left button .. 10 title line),
// -1 for none.
enum {
  TB_HIT_NONE = -1,
  TB_HIT_LEFT = 0,
  TB_HIT_RIGHT = 1,
  TB_HIT_DOWN = 2,
  TB_HIT_UP = 3,
  TB_HIT_CORNER = 4,
  TB_HIT_HKNOB = 5,
  TB_HIT_VKNOB = 6,
  TB_HIT_HTROUGH = 7,
  TB_HIT_VTROUGH = 8,
  TB_HIT_LIST = 9,
  TB_HIT_TITLE = 10,
};
int tabbox_hit_area(FL_OBJECT *obj, int x, int y);
// The knob of a slider (0 horizontal, 1 vertical) as start and length in
// pixels along its trough, in widget coordinates.
void tabbox_knob(FL_OBJECT *obj, int vertical, int *start, int *length);
// The pixel rectangle of the title text's first character cell: x where
// character position 0 of the display title starts, and the y of the first
// list line.
int tabbox_text_x(FL_OBJECT *obj);
int tabbox_list_y(FL_OBJECT *obj);
// The character cell of the tabbox's font in pixels (0, 0 for anything but
// a tabbox): a title or line position maps to x = tabbox_text_x + pos * w
// less the horizontal offset, a list line k to y = tabbox_list_y + k * h.
void tabbox_char_size(FL_OBJECT *obj, int *w, int *h);
// One repeated mouse event while a button or trough is held (the widget's
// timer delivers them every FL_TABBOX_REPEAT_MS): counts the element's repeat
// counter down and steps when it runs out. Returns 1 when a step was taken.
int tabbox_mouse_repeat(FL_OBJECT *obj);
constexpr int FL_TABBOX_REPEAT_MS = 50;
