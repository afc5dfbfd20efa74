// The tabbox: the toolkit's multi-column list object (class FL_TABBOX). The
// application hands it a title and line texts whose columns are separated by
// "|"; the tabbox keeps those raw texts, derives the texts it shows (columns
// reordered, hidden, cut to maximum widths), keeps a sort order, a selection,
// a vertical and a horizontal scroll position, and can show its content turned
// by 90 degrees (vertical display through a companion record).
//
// This module holds the record, the layout rules and every fl_ operation of
// the tabbox's table. The sort order is computed in mytabs_sort.h; drawing,
// mouse, keys and popups live in mytabs_draw.cpp. What the framework adds
// (stored settings, the sort, export and viewer dialogs, the program-wide
// modifier state, which keys it lets through) reaches the tabbox through the
// replaceable hooks at the end of this header; until the framework installs
// them the tabbox does the plain thing described there.
//
// Texts are Latin-1. Line numbers in the interface are 1-based; a display
// position is the place in the current sort order.
#pragma once

#include "forms/forms.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// Callback of the application's popup: the object and the chosen item (from 1).
using FL_TABBOX_POPUP_CB = void (*)(FL_OBJECT *obj, int item);

// The raw texts of a tabbox: one arena of texts in blocks plus a pointer and a
// length per line. Replacing a line appends its new text; the arena is
// compacted when more than half of it is garbage. Each text is stored with a
// terminating zero so that it can be handed out as a C string.
class TabboxTexts {
public:
  int size() const { return static_cast<int>(ptr_.size()); }
  std::string_view at(int i) const { return {ptr_[i], len_[i]}; }
  const char *c_str(int i) const { return ptr_[i]; }
  void push_back(std::string_view text);
  void insert(int i, std::string_view text);
  void erase(int i);
  void replace(int i, std::string_view text);
  void clear();
  // Bytes held by the arena blocks and the per-line arrays.
  size_t memory_bytes() const;

private:
  const char *store(std::string_view text);
  void compact();
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::vector<size_t> block_size_;
  size_t used_ = 0;    // bytes used in the last block
  size_t live_ = 0;    // bytes of texts still referenced
  size_t garbage_ = 0; // bytes of replaced or erased texts
  std::vector<const char *> ptr_;
  std::vector<uint32_t> len_;
};

// The border width of the tabbox's frame, title line and buttons, in pixels.
constexpr int FL_TABBOX_BW = 2;
// Width or height of every scroll element.
constexpr int FL_TABBOX_SCROLL = 18;

// Scroll elements (pressed flags, repeat counters), in the order of the hit
// areas of the drawing code.
enum { TB_LEFT = 0, TB_RIGHT = 1, TB_DOWN = 2, TB_UP = 3, TB_CORNER = 4 };

// The tabbox record: obj->priv of a class-1001 object, and the companion used
// for vertical display.
struct FL_TABBOX_REC {
  FL_OBJECT *owner = nullptr;
  std::string title;      // display title (derived)
  std::string full_title; // the title as given
  TabboxTexts lines;      // raw lines by raw line number (0-based)
  std::vector<unsigned char> selected;
  int changed = 1;
  // Per column slot (slot 0 = left edge).
  std::vector<int> col_end, col_width, col_visible, col_order, col_maxwidth;
  std::vector<int> line_order; // display position -> raw line (0-based)
  int nsort = 0;
  std::vector<int> sort_cols, sort_dirs;
  int line_capacity = 50;
  int text_capacity = 250;
  int slots = 0;
  int maxwidth = -1;
  int char_h = 16, char_w = 8, visible_chars = 0, screen_lines = 0;
  int max_display_len = 0;
  int line_count = 0;
  int offset = 0;
  int topline = 0;
  int fontsize = 12, fontstyle = FL_FIXED_STYLE, title_fontstyle = FL_FIXEDBOLD_STYLE;
  // Interaction state (mytabs_draw.cpp).
  int pressed[5] = {0, 0, 0, 0, 0};
  int repeat[5] = {0, 0, 0, 0, 0};
  int repeat_started[5] = {0, 0, 0, 0, 0};
  int trough_pressed[2] = {0, 0}; // horizontal, vertical
  int trough_repeat[2] = {0, 0};
  int trough_started[2] = {0, 0};
  int trough_back[2] = {0, 0}; // the press was before the knob
  int hdrag = 0, vdrag = 0;
  int drag_x = 0, drag_y = 0, drag_offset = 0, drag_topline = 0;
  int resize_col = -1; // display-title position of the "|" being dragged
  int hslider_len = 0, vslider_len = 0;
  FL_CALLBACKPTR dblclick = nullptr;
  long dblclick_arg = 0;
  int dblclick_ms = 0;
  FL_CALLBACKPTR callback2 = nullptr;
  long callback2_arg = 0;
  std::string popup;
  FL_TABBOX_POPUP_CB popup_cb = nullptr;
  int vertical = 0;
  std::unique_ptr<FL_TABBOX_REC> companion;
  int comma = -1;
  int viewer = 1;
  int flag2 = 1;
  // Layout plan: for each shown column in display order its field start
  // rule, length and cut width (-1 none); built at layout.
  struct Field {
    int prev_end, end, cut, col;
  };
  std::vector<Field> plan;
  std::string line_buffer; // the text handed out by fl_get_tabbox_line
};

// ---- The object -------------------------------------------------------------

// Creates a class-1001 object in the form being built (fatal outside a form,
// like every fl_add_ function). Type 0 no selection, 3 multiple, other single.
FL_OBJECT *fl_add_tabbox(int type, int x, int y, int w, int h, const char *label);
// The record of a tabbox object, or nullptr for anything else.
FL_TABBOX_REC *fl_tabbox_record(FL_OBJECT *obj);

// ---- Operations (each reports a bad object on the diagnostic output) ----------

int fl_draw_tabbox(FL_OBJECT *obj);
// Hands out the record's own arrays (not copies); they stay valid until the
// next fl_set_tabbox_title resp. fl_set_tabbox_sort. Returns 1, 0 on a bad
// object.
int fl_get_tabbox_properties(FL_OBJECT *obj, int *slots, int **col_end, int **col_order,
                             int **col_visible, int *nsort, int **sort_cols, int **sort_dirs,
                             int *maxwidth, int **col_maxwidth);
void fl_set_tabbox_sort(FL_OBJECT *obj, int n, const int *cols, const int *dirs);
void fl_set_tabbox_maxwidth(FL_OBJECT *obj, int width);
void fl_set_tabbox_comma(FL_OBJECT *obj, int places);
int fl_get_tabbox_comma(FL_OBJECT *obj);
int fl_clear_tabbox(FL_OBJECT *obj);
int fl_add_tabbox_line(FL_OBJECT *obj, const char *text);
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

// ---- Layout helpers (also used by the framework) --------------------------------

// Lays the record out now when its changed flag is set (column ends, display
// title, sort order, maximum display length; in vertical display also the
// companion) and clears the flag. Drawing does this itself.
void fl_layout_tabbox(FL_OBJECT *obj);
// The field between the end positions of column slots col - 1 and col of
// text, without leading and trailing "|" and blanks.
std::string fl_tabbox_field(const FL_TABBOX_REC *rec, std::string_view text, int col);
// The display text of raw line `raw` (0-based) of a laid-out record.
std::string fl_tabbox_display_text(const FL_TABBOX_REC *rec, int raw);
// The record drawing and selection work on: the companion in vertical display.
FL_TABBOX_REC *fl_tabbox_active(FL_TABBOX_REC *rec);

// ---- Hooks of the framework ----------------------------------------------------

using FL_TABBOX_HOOK = void (*)(FL_OBJECT *obj);
// The settings hook: called by fl_set_tabbox_title, fl_set_tabbox_vert and
// fl_unset_tabbox_vert to reapply stored settings. Default: none.
FL_TABBOX_HOOK fl_set_tabbox_settings_hook(FL_TABBOX_HOOK hook);
// Called after the user dragged a column to a new maximum width (column
// number, width), to store it with the settings. Default: none.
using FL_TABBOX_COLWIDTH_HOOK = void (*)(FL_OBJECT *obj, int col, int width);
FL_TABBOX_COLWIDTH_HOOK fl_set_tabbox_colwidth_hook(FL_TABBOX_COLWIDTH_HOOK hook);
// Called by "Spalten optimieren" after all maximum widths became -1, to drop
// the stored widths. Default: none.
FL_TABBOX_HOOK fl_set_tabbox_optimize_hook(FL_TABBOX_HOOK hook);
// Redraws the tabbox through the framework after a column resize (rebuilding
// it from its records). Default: fl_draw_tabbox.
FL_TABBOX_HOOK fl_set_tabbox_refresh_hook(FL_TABBOX_HOOK hook);
// The framework's dialogs reached from the popup and from F2.
enum { FL_TABBOX_SORT_DIALOG = 1, FL_TABBOX_EXPORT_DIALOG = 3, FL_TABBOX_VIEWER = 4 };
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

// Internal to the tabbox's modules: the hooks as installed.
struct TabboxHooks {
  FL_TABBOX_HOOK settings = nullptr;
  FL_TABBOX_COLWIDTH_HOOK colwidth = nullptr;
  FL_TABBOX_HOOK optimize = nullptr;
  FL_TABBOX_HOOK refresh = nullptr;
  FL_TABBOX_HOOK sort_dialog = nullptr, export_dialog = nullptr, viewer = nullptr;
  FL_TABBOX_MODIFIER_HOOK modifier = nullptr;
  FL_TABBOX_KEY_HOOK key = nullptr;
};
TabboxHooks &fl_tabbox_hooks();
