// Form information and placement: for every form of the application the
// framework keeps a record with the form's name and number, its close
// handler, its focus objects and control tabbox (used by focus.h), and where
// the window system put it. Forms are shown at the position stored in the
// application's INI file under "<form name>_XY" and that position is written
// back when they are hidden. Also the program-wide state of the modifier keys
// and the application name that gives the INI and help files their names.
//
// The focus order and the keyboard hook are focus.h's; the INI file format
// is base/ini.h's; windows themselves are the toolkit's.
//
// Process-wide state, in place.cpp: the table of form-information records,
// the modifier flags and the application name.
#pragma once

#include "forms/forms.h"

#include <string>

// One form-information record.
struct MYFL_FORMINFO {
  FL_FORM *form = nullptr;
  FL_FORM_ATCLOSE atclose = nullptr;
  void *atclose_arg = nullptr;
  std::string name;
  int number = -1;    // -1: none
  int dx = 0, dy = 0; // decoration offsets: actual minus requested position, >= 0
  int w = -1, h = -1; // minimum and maximum size; -1: the form's size when first shown
  FL_OBJECT *focus_first = nullptr;
  int focus_begin = 0;   // begin count
  int focus_current = 0; // current count
  FL_OBJECT *focus_second = nullptr;
  FL_OBJECT *ctrl_tabbox = nullptr;
};

// The application name (default "zentiq"): the stem of "<name>.ini" and
// "<name>.hlp".
void myfl_set_appl_name(const char *name);
const char *myfl_get_appl_name();

// The record of a form, or nullptr when it has none.
MYFL_FORMINFO *myfl_get_forminfo(FL_FORM *form);
// The record of a form, created when it has none (nullptr only for a null
// form).
MYFL_FORMINFO *myfl_make_forminfo(FL_FORM *form);
// Forgets the record of a form (before the form is freed).
void myfl_free_forminfo(FL_FORM *form);

// Stores the close handler and its argument in the form's record (created if
// needed) and installs them as the form's close handler. A null form prints
// "(myfl_set_form_atclose) Form-information not defined\n" and ends the
// program with exit status 1.
void myfl_set_form_atclose(FL_FORM *form, FL_FORM_ATCLOSE fn, void *argument);
// Stores the form's number (-1 none) and a copy of its name in its record
// (created if needed). A missing name prints "(myfl_set_form_name) Form-name
// is missing!\n", a null form "(myfl_set_form_name) Form-information not
// defined\n"; both end the program with exit status 1.
void myfl_set_form_name(FL_FORM *form, int number, const char *name);
// Copies the form's name into buffer (size bytes, always terminated); without
// a record or name the help key registered for the form is taken. Returns 1,
// or 0 with buffer empty when neither exists.
int myfl_get_form_name(FL_FORM *form, char *buffer, int size);
// The form's number into *number: 1, or 0 when there is no record or the
// number is -1.
int myfl_get_form_number(FL_FORM *form, int *number);

// Shows the form with the title: at the position stored under "<name>_XY"
// (pulled back onto the screen), else centred; fixes its size, or for a form
// whose objects follow the window (fl_set_object_resize) lets it grow from
// its own size and restores the size stored with the position; clears the
// modifier state; puts the mouse pointer in its middle and gives the focus to
// its first focus object (or the next input after it). Returns 1.
int myfl_show_form(FL_FORM *form, const char *title);
// Writes the form's position (less the decoration offsets) under
// "<name>_XY" as "[<key>] <x> <y>\n", for a resizable form followed by its
// window size (the unmaximised one) as "[<key>] <x> <y> <w> <h>\n", and hides
// the form. Forms without a record or name are hidden without storing.
void myfl_hide_form(FL_FORM *form);
// The stored position of a form name: 1 and x, y when the entry exists and
// reads as two numbers, else 0.
int myfl_read_form_position(const char *name, int *x, int *y);
// The stored size of a form name: 1 and w, h when the entry holds a size
// after the position, else 0 (entries of fixed forms have none).
int myfl_read_form_size(const char *name, int *w, int *h);

// ---- Modifier keys ----------------------------------------------------------------

// Program-wide state of Shift, Alt and Control (key FL_KEY_SHIFT, FL_KEY_ALT,
// FL_KEY_CONTROL): set when either key of the kind goes down, cleared when it
// goes up and whenever a form is shown.
void myfl_set_modifier(int key, int down);
int myfl_get_modifier(int key);
void myfl_clear_modifiers();
