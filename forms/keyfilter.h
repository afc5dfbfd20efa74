// The toolkit's keyboard filter: one event filter on the application that sees
// every key before the focused widget, and the matching of shortcut texts.
//
// Only keys whose focused window belongs to a form are handled; all others
// pass unchanged. In this order:
//   1. Tab and Shift-Tab are swallowed; on release the focus moves to the next
//      (previous) object of the current form, through the tab handler when one
//      is installed (the framework's focus order), else in creation order.
//      Tab in an editor's input goes to the next input field instead.
//   2. Escape (no pop-up menu open): on release the form's close handler is
//      asked; unless it refuses with -1 the form closes and gets the
//      deactivation event.
//   3. F1 (no pop-up menu open): the form's covering help button (type 3, with
//      a callback, larger than the form less 10 pixels each way) gets last key
//      FL_KEY_HELP and its callback runs. The key is swallowed.
//   4. Any other key: recorded as the focused object's last key; the raw key
//      handler hears about Shift, Control and Alt; a text input keeps its
//      standard editing keys (Home/End, Control with Home/End/Left/Right/
//      Insert and Control+A/C/V/X/Y/Z); else the key hook may take it; a
//      pressed key matching an object's shortcut runs that object's callback
//      and is swallowed. The key release that follows a message or question box
//      (the box consumed the press) is skipped.
// Numeric filtering and the reporting of inputs happen in the input objects
// (forms.cpp); the focus order of forms is the framework's.
#pragma once

#include "forms/forms.h"

class QKeyEvent;

// Installs / removes the filter on the application object.
void fl_install_keyboard_filter();
void fl_remove_keyboard_filter();
int fl_keyboard_filter_installed();

// The toolkit key code of a Qt key event (see FL_KEY_* in forms.h), 0 for keys
// without one.
int fl_key_code(const QKeyEvent *event);

// 1 when the key (toolkit code, with the Control and Alt states) matches one of
// the designations of the shortcut text (see fl_set_object_shortcut). A
// Control designation ("^x") is also met by Alt with the letter; with Control
// it is met only when the letter is none of a text input's editing letters
// (a, c, v, x, y, z), so "^a" is Alt+A alone.
int fl_shortcut_matches(const char *shortcut, int key, int control, int alt);

// Where a shown shortcut is underlined in a label: the index of the first
// character of label that equals (letter case ignored) the letter of the
// shortcut's first designation with a letter ("^x", "#x" or a plain x), or -1.
int fl_shortcut_label_index(const char *label, const char *shortcut);

// The tab handler decides the focus order of a form: called with the form and
// 1 for Shift-Tab; returns 1 when it moved the focus, 0 to leave it to the
// toolkit's creation order. Returns the previous handler.
using FL_TAB_HANDLER = int (*)(FL_FORM *form, int backward);
FL_TAB_HANDLER fl_set_tab_handler(FL_TAB_HANDLER handler);

// The key hook sees every key of step 4 of a form (pressed 1 / released 0)
// after the raw key handler and before shortcuts; returning 1 swallows the key.
// Returns the previous hook.
using FL_KEY_HOOK = int (*)(FL_FORM *form, FL_OBJECT *focus, int key, int pressed);
FL_KEY_HOOK fl_set_key_hook(FL_KEY_HOOK hook);
