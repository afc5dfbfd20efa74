// The tabbox's inside, shared by its own modules (mytabs.cpp, mytabs_draw.cpp,
// mytabs_sort.cpp) and by nothing above forms/: the record behind obj->priv
// and its companion, the store of raw texts, the layout helpers working on a
// record and the hooks as the framework installed them. Everything outside
// reaches a tabbox through the operations and accessors of mytabs.h, which
// keep the record's invariants (layout after a change, selection flags per
// raw line, the companion in step with vertical display).
#pragma once

#include "forms/mytabs.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// The raw texts of a tabbox: one arena of texts in blocks plus a pointer and a
// length per line. Replacing a line appends its new text; the arena is
// compacted when more than half of it is garbage. Each text is stored with a
// terminating zero so that it can be handed out as a C string.
//
// Lines may also be pending: set_source puts in lines whose texts the line
// function makes when they are first read. A pending line has no pointer
// yet and keeps its number for the line function in place of its length,
// so that inserting and erasing other lines keeps it in step. Reading makes
// the text, which does not change what the line says: the readers stay
// const.
class TabboxTexts {
public:
  int size() const { return static_cast<int>(ptr_.size()); }
  std::string_view at(int i) const {
    if (!ptr_[i]) make(i);
    return {ptr_[i], len_[i]};
  }
  const char *c_str(int i) const {
    if (!ptr_[i]) make(i);
    return ptr_[i];
  }
  bool pending(int i) const { return !ptr_[i]; }
  // The text of the first line the source made, which has the shape of
  // every pending line; pending line i is made for it when none was yet.
  std::string_view sample(int i) const;
  // Replaces all lines by `count` pending lines; line i is made by
  // fn(data, i, text) when first read.
  void set_source(int count, FL_TABBOX_LINE_FUNC fn, void *data);
  // Makes every pending line now.
  void make_all();
  void push_back(std::string_view text);
  void insert(int i, std::string_view text);
  void erase(int i);
  void replace(int i, std::string_view text);
  void clear();
  // Bytes held by the arena blocks and the per-line arrays.
  size_t memory_bytes() const;

private:
  const char *store(std::string_view text);
  void make(int i) const;
  void compact();
  FL_TABBOX_LINE_FUNC source_ = nullptr;
  void *source_data_ = nullptr;
  std::string made_; // the text the line function writes into
  std::string sample_;
  bool has_sample_ = false;
  std::vector<std::unique_ptr<char[]>> blocks_;
  std::vector<size_t> block_size_;
  size_t used_ = 0;    // bytes used in the last block
  size_t live_ = 0;    // bytes of texts still referenced
  size_t garbage_ = 0; // bytes of replaced or erased texts
  std::vector<const char *> ptr_;
  std::vector<uint32_t> len_;
};

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
  int hdrag = 0, vdrag = 0;
  int drag_x = 0, drag_y = 0, drag_offset = 0, drag_topline = 0;
  int resize_col = -1; // display-title position of the "|" being dragged
  int hslider_len = 0, vslider_len = 0;
  FL_CALLBACKPTR dblclick = nullptr;
  long dblclick_arg = 0;
  // Longest time between two presses of a double-click (ms); 0: the
  // platform's. Setting the double-click callback makes it 400.
  int dblclick_ms = 0;
  FL_CALLBACKPTR callback2 = nullptr;
  long callback2_arg = 0;
  std::string popup;
  FL_TABBOX_POPUP_CB popup_cb = nullptr;
  int vertical = 0;
  std::unique_ptr<FL_TABBOX_REC> companion;
  int comma = -1;
  int viewer = 1;
  // Layout plan: for each shown column in display order its field start
  // rule, length and cut width (-1 none); built at layout.
  struct Field {
    int prev_end, end, cut, col;
  };
  std::vector<Field> plan;
  std::string line_buffer; // the text handed out by fl_get_tabbox_line
};

// The record of a tabbox object, or nullptr for anything else.
FL_TABBOX_REC *fl_tabbox_record(FL_OBJECT *obj);
// The field between the end positions of column slots col - 1 and col of
// text, without leading and trailing "|" and blanks.
std::string fl_tabbox_field(const FL_TABBOX_REC *rec, std::string_view text, int col);
// The display text of raw line `raw` (0-based) of a laid-out record.
std::string fl_tabbox_display_text(const FL_TABBOX_REC *rec, int raw);
// The record drawing and selection work on: the companion in vertical display.
FL_TABBOX_REC *fl_tabbox_active(FL_TABBOX_REC *rec);

// The hooks as installed (see the fl_set_tabbox_*_hook operations).
struct TabboxHooks {
  FL_TABBOX_HOOK settings = nullptr;
  FL_TABBOX_COLWIDTH_HOOK colwidth = nullptr;
  FL_TABBOX_HOOK optimize = nullptr;
  FL_TABBOX_HOOK refresh = nullptr;
  FL_TABBOX_HOOK sort_dialog = nullptr, export_dialog = nullptr, viewer = nullptr;
  FL_TABBOX_HOOK copy = nullptr;
  FL_TABBOX_MODIFIER_HOOK modifier = nullptr;
  FL_TABBOX_KEY_HOOK key = nullptr;
};
TabboxHooks &fl_tabbox_hooks();
