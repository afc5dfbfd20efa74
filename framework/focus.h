// Focus order and keyboard navigation of forms: the object that gets the
// focus first (Tab itself walks every object in reading order, which the
// toolkit's keyboard filter does), the search for the next input field, the control
// tabbox that receives navigation keys typed anywhere in its form, and the
// framework's keyboard hook that ties these to the keys.
//
// The form-information record these live in, and the modifier state, are
// place.h's; the keys reach the hook through the toolkit's keyboard filter
// (forms/keyfilter.h); scrolling and selecting is the tabbox's own
// (forms/mytabs.h).
//
// Process-wide state: only the installed-flag of the hook, in focus.cpp.
#pragma once

#include "forms/forms.h"

// Focus objects of a form. The record must exist (myfl_set_form_name or
// myfl_set_form_atclose made it); where it does not, the operations print
// their name in parentheses followed by " Form not found!\n"; the
// define-second, define-begin (its text reads "(yfl_define_focus_begin)") and
// get-first operations then end the program with exit status 1.
void myfl_define_focus_first(FL_FORM *form, FL_OBJECT *obj);
// Fatal "(myfl_define_focus_second) 'first' not defined!\n" without a first.
void myfl_define_focus_second(FL_FORM *form, FL_OBJECT *obj);
// Begin count and current count <- n. Fatal with "(myfl_define_focus_begin)
// Begin-count %d too big (max = 0)!\n" for n >= 1 without a first, "(max =
// 1)" for n > 1 without a second.
void myfl_define_focus_begin(FL_FORM *form, int n);
FL_OBJECT *myfl_get_focus_first(FL_FORM *form);
FL_OBJECT *myfl_get_focus_second(FL_FORM *form);

// The focus step of a form's first and second objects: to the first object while the count allows (counting up),
// else to the second (count back to the begin count). The focus is set on
// that object even when it cannot take it (deactivated, hidden); returns 1
// when it can, 0 when it cannot or when neither object is defined.
int myfl_set_focus_next(FL_FORM *form);

// Gives the focus to the first input field after obj in the form's object
// order (wrapping round) that can take it; the search ends when it comes back
// to obj. Returns 1 when an input got the focus.
int myfl_focus_next_input(FL_FORM *form, FL_OBJECT *obj);

// The control tabbox of a form (a tabbox object or nullptr).
void myfl_define_ctrl_tabbox(FL_FORM *form, FL_OBJECT *tabbox);
FL_OBJECT *myfl_get_ctrl_tabbox(FL_FORM *form);

// Forwarding to the control tabbox; each returns 1 when done, 0 when the form
// has no control tabbox (or no record, with the " Form not found!\n" text).
int myfl_call_ctrl_tabbox_dblclick(FL_FORM *form);
int myfl_call_ctrl_tabbox_leftmost(FL_FORM *form);  // Home: offset 0
int myfl_call_ctrl_tabbox_left(FL_FORM *form);      // Left: one character, with Shift a page
int myfl_call_ctrl_tabbox_rightmost(FL_FORM *form); // End: the last offset
int myfl_call_ctrl_tabbox_right(FL_FORM *form);     // Right: one character, with Shift a page
int myfl_call_ctrl_tabbox_up(FL_FORM *form);
int myfl_call_ctrl_tabbox_down(FL_FORM *form);
int myfl_call_ctrl_tabbox_pgup(FL_FORM *form);
int myfl_call_ctrl_tabbox_pgdown(FL_FORM *form);

// Installs the framework's keyboard hook (once; later calls
// do nothing). myfl_show_form calls it.
// The hook, for every key of a form:
//   - Shift, Alt and Control keep the modifier state (place.h);
//   - with the focus in a tabbox, the tabbox handles its keys itself;
//   - in a combo box field, Up and Down choose the previous / next entry;
//   - Up, Down, Page Up, Page Down go to the control tabbox, except in a
//     multi-line input without Control held (they move the cursor there);
//   - Left, Right, Home and End go to the control tabbox unless the focus is
//     in an input field (with Control too: the keyboard filter leaves them to
//     the text there);
//   - Return calls the control tabbox's double-click callback unless the
//     focus is in a multi-line input or in an input with a callback of its
//     own (which Return reports to), or Control is held.
void myfl_install_keyboard_hook();
