// Focus order and keyboard navigation of forms (see focus.h).
#include "framework/focus.h"

#include "base/msg.h"
#include "forms/keyfilter.h"
#include "forms/mytabs.h"
#include "framework/combo.h"
#include "framework/place.h"

#include <algorithm>

namespace {

bool g_installed = false;

// The record for an operation; prints "(<fn>) Form not found!\n" (and ends
// the program when fatal) when the form has none.
MYFL_FORMINFO *record(FL_FORM *form, const char *fn, bool fatal) {
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  if (info) return info;
  // Programming error (a call the code must never make): fatal by design.
  if (fatal) msg_fatal("(%s) Form not found!\n", fn);
  msg_print("(%s) Form not found!\n", fn);
  return nullptr;
}

// The control tabbox for a forwarding operation, or nullptr.
FL_OBJECT *ctrl(FL_FORM *form, const char *fn) {
  MYFL_FORMINFO *info = record(form, fn, false);
  if (!info || !info->ctrl_tabbox || !mytabs_is_tabbox(info->ctrl_tabbox)) return nullptr;
  return info->ctrl_tabbox;
}

bool is_input(const FL_OBJECT *obj) { return obj && obj->objclass == FL_INPUT; }
bool is_multiline(const FL_OBJECT *obj) { return is_input(obj) && obj->type == FL_MULTILINE_INPUT; }

int key_hook(FL_FORM *form, FL_OBJECT *focus, int key, int pressed) {
  if (key == FL_KEY_SHIFT || key == FL_KEY_ALT || key == FL_KEY_CONTROL) {
    myfl_set_modifier(key, pressed);
    return 0;
  }
  if (focus && focus->objclass == FL_TABBOX) return 0;
  bool control = myfl_get_modifier(FL_KEY_CONTROL) != 0;
  if ((key == FL_KEY_UP || key == FL_KEY_DOWN) && myfl_is_cmb(focus)) {
    if (pressed) myfl_step_cmb(focus, key == FL_KEY_UP ? -1 : 1);
    return 1;
  }
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  if (!info || !info->ctrl_tabbox || !mytabs_is_tabbox(info->ctrl_tabbox)) return 0;
  switch (key) {
  case FL_KEY_UP:
  case FL_KEY_DOWN:
  case FL_KEY_PAGE_UP:
  case FL_KEY_PAGE_DOWN:
    if (is_multiline(focus) && !control) return 0;
    break;
  case FL_KEY_LEFT:
  case FL_KEY_RIGHT:
  case FL_KEY_HOME:
  case FL_KEY_END:
    if (is_input(focus) && !control) return 0;
    break;
  case FL_KEY_RETURN:
    if (control || is_multiline(focus) || (is_input(focus) && focus->callback)) return 0;
    break;
  default:
    return 0;
  }
  // The key is taken; the step happens on the press (and its repeats).
  if (!pressed) return 1;
  switch (key) {
  case FL_KEY_UP:
    return myfl_call_ctrl_tabbox_up(form), 1;
  case FL_KEY_DOWN:
    return myfl_call_ctrl_tabbox_down(form), 1;
  case FL_KEY_PAGE_UP:
    return myfl_call_ctrl_tabbox_pgup(form), 1;
  case FL_KEY_PAGE_DOWN:
    return myfl_call_ctrl_tabbox_pgdown(form), 1;
  case FL_KEY_LEFT:
    return myfl_call_ctrl_tabbox_left(form), 1;
  case FL_KEY_RIGHT:
    return myfl_call_ctrl_tabbox_right(form), 1;
  case FL_KEY_HOME:
    return myfl_call_ctrl_tabbox_leftmost(form), 1;
  case FL_KEY_END:
    return myfl_call_ctrl_tabbox_rightmost(form), 1;
  default:
    return myfl_call_ctrl_tabbox_dblclick(form), 1;
  }
}

} // namespace

void myfl_define_focus_first(FL_FORM *form, FL_OBJECT *obj) {
  MYFL_FORMINFO *info = record(form, "myfl_define_focus_first", false);
  if (!info) return;
  info->focus_first = obj;
  myfl_install_keyboard_hook();
}

void myfl_define_focus_second(FL_FORM *form, FL_OBJECT *obj) {
  MYFL_FORMINFO *info = record(form, "myfl_define_focus_second", true);
  // Programming error (a call the code must never make): fatal by design.
  if (!info->focus_first) msg_fatal("(myfl_define_focus_second) 'first' not defined!\n");
  info->focus_second = obj;
}

void myfl_define_focus_begin(FL_FORM *form, int n) {
  MYFL_FORMINFO *info = record(form, "yfl_define_focus_begin", true);
  // Programming error (a call the code must never make): fatal by design.
  if (n >= 1 && !info->focus_first)
    msg_fatal("(myfl_define_focus_begin) Begin-count %d too big (max = 0)!\n", n);
  if (n > 1 && !info->focus_second)
    msg_fatal("(myfl_define_focus_begin) Begin-count %d too big (max = 1)!\n", n);
  info->focus_begin = n;
  info->focus_current = n;
}

FL_OBJECT *myfl_get_focus_first(FL_FORM *form) {
  return record(form, "myfl_get_focus_first", true)->focus_first;
}

FL_OBJECT *myfl_get_focus_second(FL_FORM *form) {
  MYFL_FORMINFO *info = record(form, "myfl_get_focus_second", false);
  return info ? info->focus_second : nullptr;
}

int myfl_set_focus_next(FL_FORM *form) {
  MYFL_FORMINFO *info = record(form, "myfl_set_focus_next", false);
  if (!info) return 0;
  FL_OBJECT *target = nullptr;
  if (info->focus_first && !(info->focus_second && info->focus_current != 0)) {
    ++info->focus_current;
    target = info->focus_first;
  } else if (info->focus_second) {
    info->focus_current = info->focus_begin;
    target = info->focus_second;
  } else {
    return 0;
  }
  // The focus goes to the object in any case; only the result tells whether
  // it is one that can take it (the Tab key then goes on to the next input).
  fl_set_focus_object(form, target);
  return fl_object_can_focus(target);
}

int myfl_focus_next_input(FL_FORM *form, FL_OBJECT *obj) { return fl_focus_next_input(form, obj); }

void myfl_define_ctrl_tabbox(FL_FORM *form, FL_OBJECT *tabbox) {
  MYFL_FORMINFO *info = record(form, "myfl_define_ctrl_tabbox", false);
  if (!info) return;
  info->ctrl_tabbox = tabbox;
  myfl_install_keyboard_hook();
}

FL_OBJECT *myfl_get_ctrl_tabbox(FL_FORM *form) {
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  return info ? info->ctrl_tabbox : nullptr;
}

#define MYFL_FORWARD(name, action)                                                                 \
  int name(FL_FORM *form) {                                                                        \
    FL_OBJECT *t = ctrl(form, #name);                                                              \
    if (!t) return 0;                                                                              \
    action(t);                                                                                     \
    return 1;                                                                                      \
  }

MYFL_FORWARD(myfl_call_ctrl_tabbox_dblclick, fl_call_tabbox_dblclick_callback)
MYFL_FORWARD(myfl_call_ctrl_tabbox_leftmost, fl_tabbox_leftmost)
MYFL_FORWARD(myfl_call_ctrl_tabbox_rightmost, fl_tabbox_rightmost)
MYFL_FORWARD(myfl_call_ctrl_tabbox_up, fl_tabbox_up)
MYFL_FORWARD(myfl_call_ctrl_tabbox_down, fl_tabbox_down)
MYFL_FORWARD(myfl_call_ctrl_tabbox_pgup, fl_tabbox_pgup)
MYFL_FORWARD(myfl_call_ctrl_tabbox_pgdown, fl_tabbox_pgdown)
#undef MYFL_FORWARD

int myfl_call_ctrl_tabbox_left(FL_FORM *form) {
  FL_OBJECT *t = ctrl(form, "myfl_call_ctrl_tabbox_left");
  if (!t) return 0;
  mytabs_step_horizontal(t, 0, myfl_get_modifier(FL_KEY_SHIFT));
  return 1;
}

int myfl_call_ctrl_tabbox_right(FL_FORM *form) {
  FL_OBJECT *t = ctrl(form, "myfl_call_ctrl_tabbox_right");
  if (!t) return 0;
  mytabs_step_horizontal(t, 1, myfl_get_modifier(FL_KEY_SHIFT));
  return 1;
}

void myfl_install_keyboard_hook() {
  if (g_installed) return;
  g_installed = true;
  fl_set_key_hook(key_hook);
  // The tabbox keeps reading Shift and Control from the event it handles: the
  // same keys as the flags here, but never stuck after a message box took a
  // key's release.
}
