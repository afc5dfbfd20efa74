// The tabbox: the toolkit's multi-column list object (class FL_TABBOX). The
// application hands it a title and line texts whose columns are separated by
// "|" (or a line function that makes each text when it is first read); the
// tabbox keeps those raw texts, derives the texts it shows (columns
// reordered, hidden, cut to maximum widths), keeps a sort order, a selection,
// a vertical and a horizontal scroll position, and can show its content turned
// by 90 degrees (vertical display through a companion record).
//
// This header is the tabbox's whole public face: the fl_ operations of its
// table, the mytabs_ accessors the framework and the application need beside
// them, and the replaceable hooks through which the framework adds what the
// tabbox leaves to it (stored settings, the sort, export and viewer dialogs,
// the program-wide modifier state, which keys it lets through); until the
// framework installs them the tabbox does the plain thing described there.
// The record itself (FL_TABBOX_REC, opaque here) and the layout rules are
// private to forms/ (mytabs_int.h); the sort order is computed in
// mytabs_sort.h, drawing, mouse, keys and popups live in mytabs_draw.cpp.
//
// Texts are Latin-1. Line numbers in the interface are 1-based; a display
// position is the place in the current sort order.
#pragma once

#include "forms/forms.h"

#include <string>
#include <string_view>

// The tabbox record behind obj->priv; its fields are the tabbox's own.
struct FL_TABBOX_REC;

// Callback of the application's popup: the object and the chosen item (from 1).
using FL_TABBOX_POPUP_CB = void (*)(FL_OBJECT *obj, int item);

// The border width of the tabbox's frame, title line and buttons, in pixels.
constexpr int FL_TABBOX_BW = 2;
// Width or height of every scroll element.
constexpr int FL_TABBOX_SCROLL = 18;

// ---- The object -------------------------------------------------------------

// Creates a class-1001 object in the form being built (fatal outside a form,
// like every fl_add_ function). Type 0 no selection, 3 multiple, other single.
FL_OBJECT *fl_add_tabbox(int type, int x, int y, int w, int h, const char *label);

// ---- Operations (each reports a bad object on the diagnostic output) ----------

int fl_draw_tabbox(FL_OBJECT *obj);
// Hands out the record's own arrays (not copies); they stay valid until the
// next fl_set_tabbox_title resp. fl_set_tabbox_sort. Returns 1, 0 on a bad
// object.
int fl_get_tabbox_properties(FL_OBJECT *obj, int *slots, int **col_end, int **col_order,
                             int **col_visible, int *nsort, int **sort_cols, int **sort_dirs,
                             int *maxwidth, int **col_maxwidth);
void fl_set_tabbox_sort(FL_OBJECT *obj, int n, const int *cols, const int *dirs);
// A press on the title of column slot col: the tabbox is sorted by that
// column alone, ascending; pressed again descending; a third time unsorted.
// Returns the column's direction now (1 ascending, 0 descending, -1 unsorted).
int fl_cycle_tabbox_sort(FL_OBJECT *obj, int col);
// The column names of a title ("A | B|C" -> "A|B|C"): what a sort belongs to.
// A new title with other names drops the sort keys; the same names keep them.
std::string fl_tabbox_column_names(const char *title);
void fl_set_tabbox_maxwidth(FL_OBJECT *obj, int width);
void fl_set_tabbox_comma(FL_OBJECT *obj, int places);
int fl_get_tabbox_comma(FL_OBJECT *obj);
int fl_clear_tabbox(FL_OBJECT *obj);
int fl_add_tabbox_line(FL_OBJECT *obj, const char *text);
// Lines made when they are first read: `fn` writes the text of line `line`
// (0-based, numbered when the source was set) into *text. Every line it
// makes must have the same length, with the column separators where the
// title has them (as padded lines have), so that the layout measures one of
// them for all.
using FL_TABBOX_LINE_FUNC = void (*)(void *data, int line, std::string *text);
// Replaces the tabbox's lines (as fl_clear_tabbox) by `count` lines made by
// fn when drawing, the sort, a search or a copy first reads them, so that a
// large list costs only the lines that are read. fn and data must stay
// valid until fl_clear_tabbox, a new source or fl_make_tabbox_lines.
void fl_set_tabbox_line_source(FL_OBJECT *obj, int count, FL_TABBOX_LINE_FUNC fn, void *data);
// Makes every line not read yet, so that the source may go away.
void fl_make_tabbox_lines(FL_OBJECT *obj);
int fl_addto_tabbox(FL_OBJECT *obj, const char *text);
int fl_insert_tabbox_line(FL_OBJECT *obj, int line, const char *text);
int fl_delete_tabbox_line(FL_OBJECT *obj, int line);
int fl_replace_tabbox_line(FL_OBJECT *obj, int line, const char *text);
// The display title / the full title: the record's own buffers.
const char *fl_get_tabbox_title(FL_OBJECT *obj);
const char *fl_get_tabbox_full_title(FL_OBJECT *obj);
// The display text of the line at display position p (1-based), valid until
// the next call of this function or the next change of the tabbox; nullptr on
// error. The full-line variant hands out the raw text itself, valid until the
// lines of the tabbox are changed.
const char *fl_get_tabbox_line(FL_OBJECT *obj, int p);
const char *fl_get_tabbox_full_line(FL_OBJECT *obj, int p);
int fl_load_tabbox(FL_OBJECT *obj);
void fl_select_tabbox_line(FL_OBJECT *obj, int line);
void fl_deselect_tabbox_line(FL_OBJECT *obj, int line);
void fl_deselectall_tabbox(FL_OBJECT *obj);
int fl_isselected_tabbox_line(FL_OBJECT *obj, int line);
int fl_selectall_tabbox(FL_OBJECT *obj);
int fl_get_tabbox(FL_OBJECT *obj);
int fl_get_tabbox_maxline(FL_OBJECT *obj);
int fl_get_tabbox_screenlines(FL_OBJECT *obj);
int fl_get_tabbox_selectcount(FL_OBJECT *obj);
int fl_get_tabbox_topline(FL_OBJECT *obj);
void fl_set_tabbox_topline(FL_OBJECT *obj, int line);
void fl_set_tabbox_fontsize(FL_OBJECT *obj, int size);
void fl_set_tabbox_fontstyle(FL_OBJECT *obj, int style);
int fl_set_tabbox_title(FL_OBJECT *obj, const char *text);
void fl_set_tabbox_title_fontstyle(FL_OBJECT *obj, int style);
void fl_set_tabbox_specialkey(FL_OBJECT *obj, int key);
void fl_get_tabbox_listarea(FL_OBJECT *obj, int *x, int *y, int *w, int *h);
void fl_set_tabbox_dblclick_callback(FL_OBJECT *obj, FL_CALLBACKPTR cb, long argument);
void fl_set_tabbox_callback2(FL_OBJECT *obj, FL_CALLBACKPTR cb, long argument);
void fl_set_tabbox_leftmost_text(FL_OBJECT *obj, const char *text);
void fl_set_tabbox_popup(FL_OBJECT *obj, const char *definition, FL_TABBOX_POPUP_CB cb);
// The popup definition made readable, in one program-wide buffer.
const char *fl_get_tabbox_popup_text(FL_OBJECT *obj);
void fl_set_tabbox_vert(FL_OBJECT *obj);
void fl_unset_tabbox_vert(FL_OBJECT *obj);
int fl_is_tabbox_horizontal(FL_OBJECT *obj);
int fl_get_tabbox_vert(FL_OBJECT *obj);
// Vertical display of a type-0 tabbox: the attribute name resp. the value of
// the first selected companion line (or of companion line `line`, 1-based),
// trailing blanks cut, as a new malloc'ed copy the caller frees; else nullptr.
char *fl_get_tabbox_vert_attr(FL_OBJECT *obj);
char *fl_get_tabbox_vert_attr_value(FL_OBJECT *obj);
char *fl_get_tabbox_vert_attr_line(FL_OBJECT *obj, int line);
char *fl_get_tabbox_vert_attr_line_value(FL_OBJECT *obj, int line);
// Turns the viewer entry of the popup and the F2 key on (1) or off (0).
void fl_set_tabbox_viewer(FL_OBJECT *obj, int on);

// Programmatic navigation, the same steps as the keys (mytabs_draw.cpp).
void fl_call_tabbox_dblclick_callback(FL_OBJECT *obj);
void fl_tabbox_leftmost(FL_OBJECT *obj);
void fl_tabbox_rightmost(FL_OBJECT *obj);
void fl_tabbox_up(FL_OBJECT *obj);
void fl_tabbox_down(FL_OBJECT *obj);
void fl_tabbox_pgup(FL_OBJECT *obj);
void fl_tabbox_pgdown(FL_OBJECT *obj);

// Lays the record out now when its changed flag is set (column ends, display
// title, sort order, maximum display length; in vertical display also the
// companion) and clears the flag. Drawing does this itself.
void fl_layout_tabbox(FL_OBJECT *obj);

// ---- Accessors for the framework and the application -----------------------------
// Lines, offset and the horizontal step are those of the list the user sees:
// in vertical display the attribute / value list; slots and fields are those
// of the tabbox's own title. None reports a bad object; they answer as for an
// empty tabbox instead.

// 1 when obj is a tabbox object, else 0.
int mytabs_is_tabbox(FL_OBJECT *obj);
// The raw line (1-based) shown at display position p (1-based) in the
// current sort order; 0 when there is no such position or obj is no tabbox.
int mytabs_raw_line(FL_OBJECT *obj, int p);
// The column slot count of the title as last set (number of "|" plus 2; 0
// before the first title), without laying out; -1 for anything but a tabbox.
int mytabs_get_slots(FL_OBJECT *obj);
// The number of lines shown (lays out first); 0 for anything but a tabbox.
int mytabs_get_shown_lines(FL_OBJECT *obj);
// The horizontal scroll position: the first character shown of the display
// texts (0-based, lays out first); 0 for anything but a tabbox.
int mytabs_get_offset(FL_OBJECT *obj);
// One step of the Left (right 0) or Right (right 1) key: one character, with
// page 1 a page of visible characters as Shift does; the position stays in
// 0 .. maximum display length - visible characters. Redraws.
void mytabs_step_horizontal(FL_OBJECT *obj, int right, int page);
// The field of column col (1-based title column) of text by the tabbox's
// laid-out column ends, without the surrounding "|" and blanks; empty when col
// is no column or obj no tabbox.
std::string mytabs_get_field(FL_OBJECT *obj, std::string_view text, int col);
// Shows in dst (a tabbox not in vertical display afterwards, its lines
// replaced) src's shown title and its shown line `line` (1-based raw line)
// with src's column order, visibility and maximum widths. src and dst may be
// the same object. Returns 1; 0 with dst unchanged when line is not a shown
// line of src or either object is no tabbox.
int mytabs_copy_shown_line(FL_OBJECT *src, int line, FL_OBJECT *dst);

// ---- Hooks of the framework ----------------------------------------------------

using FL_TABBOX_HOOK = void (*)(FL_OBJECT *obj);
// The settings hook: called by fl_set_tabbox_title, fl_set_tabbox_vert and
// fl_unset_tabbox_vert to reapply stored settings. Default: none.
FL_TABBOX_HOOK fl_set_tabbox_settings_hook(FL_TABBOX_HOOK hook);
// Called after the user dragged a column to a new maximum width (column
// number, width), to store it with the settings; not for the columns of the
// vertical display, which the settings do not describe. Default: none.
using FL_TABBOX_COLWIDTH_HOOK = void (*)(FL_OBJECT *obj, int col, int width);
FL_TABBOX_COLWIDTH_HOOK fl_set_tabbox_colwidth_hook(FL_TABBOX_COLWIDTH_HOOK hook);
// Called by "Spalten optimieren" after all maximum widths became -1, to drop
// the stored widths. Default: none.
FL_TABBOX_HOOK fl_set_tabbox_optimize_hook(FL_TABBOX_HOOK hook);
// Redraws the tabbox through the framework after a column resize (rebuilding
// it from its records). Default: fl_draw_tabbox.
FL_TABBOX_HOOK fl_set_tabbox_refresh_hook(FL_TABBOX_HOOK hook);
// The framework's dialogs reached from the popup and from F2, and what
// Ctrl+C does in a tabbox (FL_TABBOX_COPY; default: nothing).
enum {
  FL_TABBOX_SORT_DIALOG = 1,
  FL_TABBOX_EXPORT_DIALOG = 3,
  FL_TABBOX_VIEWER = 4,
  FL_TABBOX_COPY = 5
};
// Sets the opener of one dialog; returns the previous one. Default: none (the
// choice does nothing).
FL_TABBOX_HOOK fl_set_tabbox_dialog_hook(int which, FL_TABBOX_HOOK hook);
// The program-wide state of Shift (FL_KEY_SHIFT) and Control (FL_KEY_CONTROL):
// 1 when held. Default: the modifiers the window system reports with the event
// being handled.
using FL_TABBOX_MODIFIER_HOOK = int (*)(int key);
FL_TABBOX_MODIFIER_HOOK fl_set_tabbox_modifier_hook(FL_TABBOX_MODIFIER_HOOK hook);
// Whether the framework lets the tabbox handle the navigation key (Up, Down,
// Page Up, Page Down, Return) without Control: 1 yes. Default: always yes.
using FL_TABBOX_KEY_HOOK = int (*)(FL_OBJECT *obj, int key);
FL_TABBOX_KEY_HOOK fl_set_tabbox_key_hook(FL_TABBOX_KEY_HOOK hook);
