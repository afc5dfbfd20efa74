// The forms toolkit: forms (top-level windows, fixed in size unless objects
// carry a resize rule) filled with
// objects (buttons, check buttons, boxes, texts, frames, inputs, list boxes and
// custom classes such as the tabbox), each with a label, a look, an optional
// keyboard shortcut and a callback; plus the toolkit's start, end and event
// loop.
//
// The interface is the toolkit's C style: plain records and free functions with
// the fl_ prefix, 1/0 results. Objects are realised by Qt widgets: native
// controls for buttons, check buttons, inputs and list boxes, widgets drawing
// with QPainter for boxes, texts and frames. This header names Qt classes only
// by forward declaration, so it may be included anywhere above forms/.
//
// Left to other modules: the keyboard filter (keyfilter.h), message and
// question boxes with their test seam (dialogs.h), pop-up menus (popup.h), the
// console and command windows (console.h), child processes (process.h), the
// process entry (entry.h), fonts (fonts.h) and the drawing helpers for drawn
// and custom classes (draw.h).
//
// How a custom object class plugs in (the tabbox, class FL_TABBOX, is the
// model):
//   1. Once, register the class: fl_register_class(FL_TABBOX, "TABBOX",
//      free_hook). The free hook runs when an object of the class is freed and
//      releases obj->priv.
//   2. Write a QWidget subclass for the class. Deriving from FlDrawnWidget
//      (draw.h) gives the link to the object and a draw() to override; any
//      QWidget works. It draws in paintEvent with QPainter and handles its own
//      mouse and key events; it sets its focus policy when it takes keys.
//   3. Write fl_add_<class>(type, x, y, w, h, label): call fl_add_object(
//      class, type, x, y, w, h, label, make_widget), where make_widget(obj,
//      parent) creates the widget as a child of parent and returns it; then
//      allocate the class's private record and store it in obj->priv.
//   Keys reach the widget after the toolkit's keyboard filter has seen them
//   (Tab, Escape and F1 never reach it); callbacks are run with
//   fl_call_object_callback so that every class behaves alike.
#pragma once

#include <functional>
#include <string>
#include <vector>

class QWidget;

struct FL_FORM;
struct FL_OBJECT;

// Object callback: the object and the long argument given with it.
using FL_CALLBACKPTR = void (*)(FL_OBJECT *obj, long argument);
// Close handler of a form: called on Escape and on the window's close request;
// returning -1 refuses the close.
using FL_FORM_ATCLOSE = int (*)(FL_FORM *form, void *argument);
// Raw key handler of a form: told about changes of Shift, Control and Alt
// (FL_KEY_SHIFT, FL_KEY_CONTROL, FL_KEY_ALT; state 0 pressed, 1 released).
using FL_RAW_KEY_HANDLER = void (*)(FL_FORM *form, int key, int state);
// Activation and deactivation handlers of a form.
using FL_FORM_ATACTIVATE = void (*)(FL_FORM *form, void *argument);
// Frees the private record (obj->priv) of an object of a custom class.
using FL_FREE_SPEC = void (*)(FL_OBJECT *obj);
// Creates the widget of an object as a child of parent and returns it.
using FL_MAKE_WIDGET = std::function<QWidget *(FL_OBJECT *obj, QWidget *parent)>;

// Object classes.
enum {
  FL_BUTTON = 1,
  FL_CHECKBUTTON = 3,
  FL_BOX = 10,
  FL_TEXT = 11,
  FL_INPUT = 18,
  FL_FRAME = 26,
  FL_LISTBOX = 71,
  FL_TABBOX = 1001,
  FL_EDITOR = 1002,
};

// Types of buttons, check buttons, inputs and list boxes.
enum {
  FL_NORMAL_BUTTON = 0,
  FL_HIDDEN_BUTTON = 3, // invisible; covers the form and catches the help key
  FL_PUSH_BUTTON = 1,   // the check button's type
  FL_HIDDEN_CHECKBUTTON = 3,
  FL_NORMAL_INPUT = 0,
  FL_FLOAT_INPUT = 1,
  FL_INT_INPUT = 2,
  FL_MULTILINE_INPUT = 4,
  FL_NORMAL_LISTBOX = 0,
};

// Box types (boxes and the look of other objects), frame types.
enum {
  FL_NO_BOX = 0,
  FL_UP_BOX = 1,
  FL_DOWN_BOX = 2,
  FL_BORDER_BOX = 3,
  FL_SHADOW_BOX = 4,
  FL_FRAME_BOX = 5,
  FL_ROUNDED_BOX = 6,
  FL_EMBOSSED_BOX = 7,
  FL_FLAT_BOX = 8,
  FL_NO_FRAME = 0,
  FL_UP_FRAME = 1,
  FL_DOWN_FRAME = 2,
  FL_BORDER_FRAME = 3,
  FL_SHADOW_FRAME = 4,
  FL_ENGRAVED_FRAME = 5,
  FL_EMBOSSED_FRAME = 6,
};

// Label alignment: one position, plus FL_ALIGN_INSIDE for labels drawn inside
// the object's box (8196 inside left, 8200 inside right).
enum {
  FL_ALIGN_CENTER = 0,
  FL_ALIGN_TOP = 1,
  FL_ALIGN_BOTTOM = 2,
  FL_ALIGN_LEFT = 4,
  FL_ALIGN_RIGHT = 8,
  FL_ALIGN_INSIDE = 8192,
};

// Label styles: the low bits choose the face, higher values a look.
enum {
  FL_NORMAL_STYLE = 0,
  FL_BOLD_STYLE = 1,
  FL_ITALIC_STYLE = 2,
  FL_BOLDITALIC_STYLE = 3,
  FL_FIXED_STYLE = 4, // Courier New instead of Helvetica
  FL_FIXEDBOLD_STYLE = 5,
  FL_SHADOW_STYLE = 512,
  FL_ENGRAVED_STYLE = 1024,
  FL_EMBOSSED_STYLE = 2048, // headings: drawn bold with a light relief
};

// Label sizes (units of 1.1 pixels, see fl_style_font).
enum { FL_SMALL_SIZE = 8, FL_NORMAL_SIZE = 10, FL_MEDIUM_SIZE = 12, FL_LARGE_SIZE = 14 };

// Reporting modes of inputs: when the input's callback runs (see
// fl_set_input_return).
enum { FL_RETURN_ALWAYS = 0, FL_RETURN_CHANGED = 1, FL_RETURN_END = 2 };

// Key codes of the toolkit, as stored in FL_OBJECT::last_key and handed to
// key handlers. Printable characters are their Latin-1 codes (with Control,
// the letter in the case that Shift gives). Other keys have codes above 255.
enum {
  FL_KEY_ACTIVATE = 3, // a button was clicked or its shortcut used
  FL_KEY_SHIFT = 160,
  FL_KEY_CONTROL = 162,
  FL_KEY_ALT = 164,
  FL_KEY_BACKSPACE = 0xFF08,
  FL_KEY_TAB = 0xFF09,
  FL_KEY_RETURN = 0xFF0D,
  FL_KEY_ESCAPE = 0xFF1B,
  FL_KEY_HOME = 0xFF50,
  FL_KEY_LEFT = 0xFF51,
  FL_KEY_UP = 0xFF52,
  FL_KEY_RIGHT = 0xFF53,
  FL_KEY_DOWN = 0xFF54,
  FL_KEY_PAGE_UP = 0xFF55,
  FL_KEY_PAGE_DOWN = 0xFF56,
  FL_KEY_END = 0xFF57,
  FL_KEY_INSERT = 0xFF63,
  FL_KEY_F1 = 65482, // the help key; F2 to F12 follow
  FL_KEY_DELETE = 0xFFFF,
};
constexpr int FL_KEY_HELP = FL_KEY_F1;

// Placement for fl_show_form.
enum { FL_PLACE_FREE = 0, FL_PLACE_CENTER = 1, FL_PLACE_POSITION = 2 };

// The most input fields all forms together may hold.
constexpr int FL_MAX_INPUTS = 10000;

// The common record of every object. Fields are read by the toolkit's users;
// they are changed through the fl_ functions.
struct FL_OBJECT {
  int objclass = 0;
  int type = 0;
  int x = 0, y = 0, w = 0, h = 0; // pixels, relative to the form
  std::string label;
  int boxtype = FL_NO_BOX;
  int align = FL_ALIGN_CENTER;
  int lsize = FL_NORMAL_SIZE;
  int lstyle = FL_NORMAL_STYLE;
  FL_CALLBACKPTR callback = nullptr;
  long argument = 0;
  std::string shortcut;               // key designations, see fl_set_object_shortcut
  int show_shortcut = 0;              // underline the shortcut's letter in the label
  int last_key = 0;                   // the key that reached the object last
  int how_return = FL_RETURN_CHANGED; // inputs: reporting mode
  int maxchars = 0;                   // inputs: length limit, 0 = none
  int active = 1;
  int visible = 1;
  FL_FORM *form = nullptr;
  FL_OBJECT *next = nullptr;        // ring of the form's objects in creation order
  QWidget *widget = nullptr;        // the backing widget; owned by the form window
  QWidget *label_widget = nullptr;  // draws a label outside the object, if any
  void *priv = nullptr;             // private record of custom classes
  FL_FREE_SPEC free_spec = nullptr; // frees priv; taken from the class table
  std::string report_text;          // inputs: text at the last report (reporting mode 1)
  std::string text_buffer;          // inputs: the text handed out by fl_get_input
  std::string line_buffer;          // list boxes: the last line read
  void *user_data = nullptr;        // free for the application and the framework
  // Resize rule (see fl_set_object_resize): percent of the window's growth
  // beyond the form's size by which x moves, w grows, y moves, h grows; and
  // the geometry at the form's own size that the rule starts from.
  int follow[4] = {0, 0, 0, 0};
  int base_x = 0, base_y = 0, base_w = 0, base_h = 0;
};

// The record of one form.
struct FL_FORM {
  QWidget *window = nullptr; // the top-level window; owned by the form
  std::string title;
  int w = 0, h = 0;           // the form's own (smallest) size
  int x = -1, y = -1;         // requested position; -1 until placed
  int resizable = 0;          // 1 once an object has a resize rule
  FL_OBJECT *first = nullptr; // the object ring
  FL_OBJECT *focus = nullptr; // object that had the focus last
  int has_shortcuts = 0;
  int visible = 0;
  int active = 1;
  FL_RAW_KEY_HANDLER raw_key_handler = nullptr;
  FL_FORM_ATCLOSE atclose = nullptr;
  void *atclose_arg = nullptr;
  FL_FORM_ATACTIVATE atactivate = nullptr;
  void *atactivate_arg = nullptr;
  FL_FORM_ATACTIVATE atdeactivate = nullptr;
  void *atdeactivate_arg = nullptr;
  void *user_data = nullptr;
  std::vector<FL_OBJECT *> objects; // the same objects as the ring, owned
};

// ---- Toolkit start and end ------------------------------------------------

// Starts the toolkit: the German texts of Qt's own dialogs, fonts, the
// console and command windows (shown: the console), the fatal-stop clean-up. Needs a QApplication
// (fl_main creates one). icon: -1 for the platform's default icon, otherwise the program's own
// icon. Returns 1, or 0 with "Could not register class" printed when no
// application object exists. A second call returns 1 and does nothing.
int fl_init_toolkit(const char *title, char **argv, int icon);
// Installs the German translation of Qt's own texts (file chooser, colour
// and font dialogs, context menus of inputs) from the system's Qt
// translations (qtbase_de). Returns 1 when it is installed (also when it was
// already), 0 when the file is not there: Qt's dialogs then stay English.
int fl_load_qt_german();
// Runs the event loop until fl_finish_event_loop or until the last shown form
// closes; returns the loop's exit code.
int fl_run_forms();
// Ends the event loop at the next turn.
void fl_finish_event_loop();
// Removes the keyboard filter, frees all forms and their objects, the fonts and
// the console and command windows. The toolkit may be started again.
void fl_exit_toolkit();
// 1 between fl_init_toolkit and fl_exit_toolkit.
int fl_toolkit_initialised();

// Screen size in pixels (of the primary screen).
int fl_screen_width();
int fl_screen_height();
// Height of a window's title bar and width of a window's border, in pixels
// (for layouts that leave room for them).
int fl_caption_height();
int fl_border_width();

// ---- Forms ----------------------------------------------------------------

// Creates a hidden form of w x h pixels and makes it the form being built.
// Returns the form (owned by the toolkit, freed by fl_free_form or
// fl_exit_toolkit), or nullptr after showing "Create form error".
FL_FORM *fl_begin_form(int type, int w, int h);
// No form is being built any more.
void fl_end_form();
// The form being built, or nullptr.
FL_FORM *fl_current_building_form();
// Frees the form, its window and all its objects: the window with the
// objects' widgets first, then each object's private record through its
// class's free hook. Not to be called from a callback of the form's own
// objects.
void fl_free_form(FL_FORM *form);

// Shows the form with the title (Latin-1). place: FL_PLACE_POSITION at
// form->x/y when placed before (else centred), FL_PLACE_CENTER centred on the
// screen, FL_PLACE_FREE wherever the window system likes. Returns 1.
int fl_show_form(FL_FORM *form, int place, int border, const char *title);
void fl_hide_form(FL_FORM *form);
// Moves the window so that its frame's top left corner is at x, y; records it.
void fl_set_form_position(FL_FORM *form, int x, int y);
// The window frame's actual top left corner on the screen.
void fl_get_form_position(FL_FORM *form, int *x, int *y);
// Limits the window size (both default to the form's size).
void fl_set_form_minsize(FL_FORM *form, int w, int h);
void fl_set_form_maxsize(FL_FORM *form, int w, int h);
// Resizes the window (not below the form's own size); objects with a resize
// rule follow at once. The window's current size into *w, *h.
void fl_set_form_size(FL_FORM *form, int w, int h);
void fl_get_form_size(FL_FORM *form, int *w, int *h);
void fl_set_form_title(FL_FORM *form, const char *title);
// Enables / disables the whole form.
void fl_activate_form(FL_FORM *form);
void fl_deactivate_form(FL_FORM *form);
// Makes the form the active window and the current form, and runs its
// activation handler.
void fl_raise_form(FL_FORM *form);
// The form that is current (activated last), or nullptr.
FL_FORM *fl_get_current_form();
// Runs the form's deactivation handler and forgets it as current.
void fl_send_deactivation(FL_FORM *form);

void fl_set_form_atclose(FL_FORM *form, FL_FORM_ATCLOSE fn, void *argument);
void fl_set_form_atactivate(FL_FORM *form, FL_FORM_ATACTIVATE fn, void *argument);
void fl_set_form_atdeactivate(FL_FORM *form, FL_FORM_ATACTIVATE fn, void *argument);
void fl_set_form_raw_key_handler(FL_FORM *form, FL_RAW_KEY_HANDLER fn);
// Asks the form's close handler; returns 1 when the form may close (and hides
// it), 0 when the handler refused with -1.
int fl_close_form(FL_FORM *form);

// Gives the object the keyboard focus (and makes it the form's focus object).
void fl_set_focus_object(FL_FORM *form, FL_OBJECT *obj);
// The object that holds the focus in the form, or nullptr.
FL_OBJECT *fl_get_focus_object(FL_FORM *form);
// 1 when the object can take the keyboard focus now (shown, active, a class
// that takes keys).
int fl_object_can_focus(FL_OBJECT *obj);
// Moves the focus to the next (backward: previous) focusable object after
// the focus object in reading order (top to bottom, then left to right),
// round the form. Returns 1 when the focus moved.
int fl_focus_next_object(FL_FORM *form, int backward);
// Gives the focus to the first input field after obj in the form's object
// ring (wrapping round) that can take it; the search ends when it comes back
// to obj. Returns 1 when an input got the focus, 0 when none could.
int fl_focus_next_input(FL_FORM *form, FL_OBJECT *obj);

// The form and object a widget belongs to (walking up its parents), or null.
FL_FORM *fl_form_of_widget(const QWidget *widget);
FL_OBJECT *fl_object_of_widget(const QWidget *widget);

// ---- Objects --------------------------------------------------------------

// Each creates an object in the form being built and returns it. Without a
// form being built they show "Object added outside begin!" and end the process
// with exit status 1.
FL_OBJECT *fl_add_button(int type, int x, int y, int w, int h, const char *label);
FL_OBJECT *fl_add_checkbutton(int type, int x, int y, int w, int h, const char *label);
FL_OBJECT *fl_add_box(int type, int x, int y, int w, int h, const char *label);
FL_OBJECT *fl_add_text(int type, int x, int y, int w, int h, const char *label);
FL_OBJECT *fl_add_frame(int type, int x, int y, int w, int h, const char *label);
// Also enters the input in the input table; the 10001st input shows "Too many
// input fields (max 10000)" and ends the process with exit status 1.
FL_OBJECT *fl_add_input(int type, int x, int y, int w, int h, const char *label);
FL_OBJECT *fl_add_listbox(int type, int x, int y, int w, int h, const char *label);

// Registers a custom object class (number above 1000 by convention) with a
// name and the hook that frees its objects' private records. Returns 1, or 0
// when the number is taken by another name.
int fl_register_class(int objclass, const char *name, FL_FREE_SPEC free_spec);
// The registered name of a class ("BUTTON", "INPUT", ...), or "" when unknown.
const char *fl_class_name(int objclass);
// Creates an object of any class in the form being built; make_widget creates
// its widget (may return nullptr for objects without one). Fatal like the
// fl_add_ functions outside a form.
FL_OBJECT *fl_add_object(int objclass, int type, int x, int y, int w, int h, const char *label,
                         const FL_MAKE_WIDGET &make_widget);

void fl_set_object_boxtype(FL_OBJECT *obj, int boxtype);
void fl_set_object_lalign(FL_OBJECT *obj, int align);
void fl_set_object_lsize(FL_OBJECT *obj, int size);
void fl_set_object_lstyle(FL_OBJECT *obj, int style);
// Colours are accepted and ignored: the platform's palette is used.
void fl_set_object_color(FL_OBJECT *obj, int color1, int color2);
void fl_set_object_label(FL_OBJECT *obj, const char *label);
const char *fl_get_object_label(FL_OBJECT *obj);
// Geometry as at the form's own size; an object with a resize rule is then
// placed for the window's current size.
void fl_set_object_geometry(FL_OBJECT *obj, int x, int y, int w, int h);
// How the object follows a window that is larger than its form: of the
// growth in width, move_x percent moves the object right and grow_w percent
// widens it; of the growth in height, move_y and grow_h alike (0 0 0 0: the
// object keeps its place, 100 0 100 0: it keeps its distance to the bottom
// right corner). Objects stacked in one direction share the growth by their
// percentages. A form with such an object may be resized and maximised, not
// made smaller than its own size; outside labels move with their objects.
void fl_set_object_resize(FL_OBJECT *obj, int move_x, int grow_w, int move_y, int grow_h);
// Stores callback and argument; returns the previous callback.
FL_CALLBACKPTR fl_set_object_callback(FL_OBJECT *obj, FL_CALLBACKPTR callback, long argument);
// Runs the object's callback as if the user had used the object (nothing
// without a callback).
void fl_call_object_callback(FL_OBJECT *obj);
// Stores a copy of the shortcut text: key designations, any of which triggers
// the object. "^x" Control with x (the letter's case counts, so callers write
// both: "^u^U"), "^[" Escape, "#x" Alt with x, "&n" function key n, any other
// character that key alone. show: underline the shortcut's letter in the label.
void fl_set_object_shortcut(FL_OBJECT *obj, const char *shortcut, int show);
void fl_activate_object(FL_OBJECT *obj);
void fl_deactivate_object(FL_OBJECT *obj);
void fl_show_object(FL_OBJECT *obj);
void fl_hide_object(FL_OBJECT *obj);
// Asks for the object to be drawn again.
void fl_redraw_object(FL_OBJECT *obj);
// The object's last key (see FL_OBJECT::last_key).
int fl_get_object_lastkey(FL_OBJECT *obj);

// ---- Buttons, inputs, list boxes --------------------------------------------

// Check buttons: 1 sets the check mark, any other value clears it. Buttons: 1
// when checked.
void fl_set_button(FL_OBJECT *obj, int pushed);
int fl_get_button(FL_OBJECT *obj);

// Inputs: limit to count characters (0: none) and set reporting mode 1.
void fl_set_input_maxchars(FL_OBJECT *obj, int count);
// Reporting mode of an input: the callback runs when the user presses Return
// in a single-line input, or leaves the input for another object of the form.
// FL_RETURN_ALWAYS (0) and FL_RETURN_END (2): on Return always; FL_RETURN_CHANGED
// (1): on Return or leaving, only when the text changed since the last report.
void fl_set_input_return(FL_OBJECT *obj, int mode);
// Replaces the text (Latin-1); does not run the callback.
void fl_set_input(FL_OBJECT *obj, const char *text);
// The text (Latin-1), valid until the next call for the same object.
const char *fl_get_input(FL_OBJECT *obj);
// Cursor position in characters from the start, and setting it.
int fl_get_input_cursorpos(FL_OBJECT *obj);
void fl_set_input_cursorpos(FL_OBJECT *obj, int pos);
// Number of input fields in the input table.
int fl_input_count();
// Runs the input's callback when its reporting mode asks for it: on_return 1
// for the Return key, 0 for leaving the input. Returns 1 when it ran.
int fl_input_report(FL_OBJECT *obj, int on_return);
// Removes from text what a numeric input of the type does not accept (type 2:
// digits and "-", type 1 also "."; other types keep everything) and moves
// *cursor back by the characters removed before it.
std::string fl_filter_numeric_text(int type, const std::string &text, int *cursor);

// List boxes: append a line, clear, count, select (1-based; 0 clears),
// the selected line (0 none).
void fl_addto_listbox(FL_OBJECT *obj, const char *text);
void fl_clear_listbox(FL_OBJECT *obj);
int fl_get_listbox_maxline(FL_OBJECT *obj);
void fl_select_listbox_line(FL_OBJECT *obj, int line);
int fl_get_listbox(FL_OBJECT *obj);
// The text of line (from 1), copied into the list box's own buffer, valid until
// the next call on the same list box; nullptr after "fl_get_listbox_line: Index
// out of range\n".
const char *fl_get_listbox_line(FL_OBJECT *obj, int line);
