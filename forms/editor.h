// The editor object: a multi-line input of the toolkit with a position field
// above its right end ("%d:%d", line and column of the cursor), a "Zoom"
// button (Control+Z) that opens the text in the framework's zoom editor, and
// a "Zeilenumbruch" button that re-wraps the text to the width of the field.
// Also the reading of whole files into a buffer.
//
// The editor is made of standard objects (forms.h); this module keeps the
// table of editors, throttles the cursor keys and does the wrapping. The zoom
// dialog itself is the framework's: it installs it with
// fl_set_editor_zoom_hook.
#pragma once

#include "forms/forms.h"

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

// The most editors a program may create.
constexpr int FL_MAX_EDITORS = 100;

// One editor (the table keeps them for the life of the program).
struct FL_EDITOR_REC {
  FL_FORM *form = nullptr;
  FL_OBJECT *input = nullptr;
  FL_OBJECT *zoom = nullptr;
  FL_OBJECT *wrap = nullptr;
  FL_OBJECT *position = nullptr;
  int text_width = 0;  // usable width of the text in pixels
  int cursor_pos = -1; // stored cursor position, -1 none
  int fontstyle = FL_FIXED_STYLE;
  int fontsize = FL_NORMAL_SIZE;
  int right_click = 0; // set by a right click in the input
  int type = 0;
  int64_t last_key_ms = -1000; // time of the last accepted cursor key
};

// Creates an editor in the form being built and returns its input object;
// nullptr after "fl_add_editor: Too many editors (max = 100)\n" when the table
// is full.
FL_OBJECT *fl_add_editor(int type, int x, int y, int w, int h, const char *label);
// The editor whose input is obj, or nullptr.
FL_EDITOR_REC *fl_get_editor(FL_OBJECT *obj);
// Number of editors in the table.
int fl_editor_count();
// The input's text (Latin-1), copied into one program-wide buffer that is
// valid until the next call.
const char *fl_get_editor_text(FL_OBJECT *obj);
// Reads the whole file (binary) into a new zero-terminated malloc'ed buffer
// the caller frees; nullptr after "(fl_get_file_data) Cannot open file '%s'
// for input!" when it cannot be opened.
char *fl_get_file_data(const char *filename);
// The "Zeilenumbruch" action on the editor of input obj: re-wraps its text to
// the field's width. Returns 1 when the text was replaced.
int fl_wrap_editor(FL_OBJECT *obj);
// Wraps text so that each line's width (by measure, in pixels, of the line
// without a trailing blank) stays below usable - 3: lines are cut at their
// last blank that fits (the blank is kept before the line feed) or, without
// one, in halves. Every resulting line ends with a line feed.
std::string fl_wrap_text(std::string_view text, int usable,
                         const std::function<int(std::string_view)> &measure);
// Shows the cursor position of the editor in its position field (nothing
// while a stored cursor position is set; empty for a text of white space).
void fl_update_editor_position(FL_EDITOR_REC *ed);

// Opens the zoom editor for the editor's input; returns the previous opener.
// Default: none (the button does nothing).
using FL_EDITOR_ZOOM_HOOK = void (*)(FL_OBJECT *input);
FL_EDITOR_ZOOM_HOOK fl_set_editor_zoom_hook(FL_EDITOR_ZOOM_HOOK hook);
