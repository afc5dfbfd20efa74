// Form information and placement (see place.h).
#include "framework/place.h"

#include "base/ini.h"
#include "base/msg.h"
#include "framework/focus.h"
#include "framework/help.h"

#include <QCursor>
#include <QWidget>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>

namespace {

std::map<FL_FORM *, std::unique_ptr<MYFL_FORMINFO>> g_forms;
std::string g_appl_name = "zentiq";
int g_shift = 0, g_alt = 0, g_control = 0;

// The INI key of a form's position. Form names may carry line feeds (the
// main form's name is its title followed by one) and a "]" would end the
// key early: the key keeps the name without trailing line feeds, other
// control characters become blanks and "]" becomes ")".
std::string position_key(const std::string &name) {
  std::string key = name;
  while (!key.empty() && (key.back() == '\n' || key.back() == '\r')) key.pop_back();
  for (char &c : key) {
    if (static_cast<unsigned char>(c) < 32) c = ' ';
    if (c == ']') c = ')';
  }
  return key + "_XY";
}

} // namespace

void myfl_set_appl_name(const char *name) { g_appl_name = name ? name : ""; }
const char *myfl_get_appl_name() { return g_appl_name.c_str(); }

MYFL_FORMINFO *myfl_get_forminfo(FL_FORM *form) {
  auto it = g_forms.find(form);
  return it == g_forms.end() ? nullptr : it->second.get();
}

MYFL_FORMINFO *myfl_make_forminfo(FL_FORM *form) {
  if (!form) return nullptr;
  auto &slot = g_forms[form];
  if (!slot) {
    slot = std::make_unique<MYFL_FORMINFO>();
    slot->form = form;
  }
  return slot.get();
}

void myfl_free_forminfo(FL_FORM *form) { g_forms.erase(form); }

void myfl_set_form_atclose(FL_FORM *form, FL_FORM_ATCLOSE fn, void *argument) {
  MYFL_FORMINFO *info = myfl_make_forminfo(form);
  // Programming error (a call the code must never make): fatal by design.
  if (!info) msg_fatal("(myfl_set_form_atclose) Form-information not defined\n");
  info->atclose = fn;
  info->atclose_arg = argument;
  fl_set_form_atclose(form, fn, argument);
}

void myfl_set_form_name(FL_FORM *form, int number, const char *name) {
  // Programming error (a call the code must never make): fatal by design.
  if (!name) msg_fatal("(myfl_set_form_name) Form-name is missing!\n");
  MYFL_FORMINFO *info = myfl_make_forminfo(form);
  // Programming error (a call the code must never make): fatal by design.
  if (!info) msg_fatal("(myfl_set_form_name) Form-information not defined\n");
  info->name = name;
  info->number = number;
}

int myfl_get_form_name(FL_FORM *form, char *buffer, int size) {
  if (!buffer || size <= 0) return 0;
  buffer[0] = '\0';
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  std::string name = info ? info->name : "";
  if (name.empty()) {
    const char *key = myfl_get_help_key(form);
    if (!key) return 0;
    name = key;
  }
  std::snprintf(buffer, static_cast<size_t>(size), "%s", name.c_str());
  return 1;
}

int myfl_get_form_number(FL_FORM *form, int *number) {
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  if (!info || info->number == -1) return 0;
  if (number) *number = info->number;
  return 1;
}

int myfl_read_form_position(const char *name, int *x, int *y) {
  if (!name || !*name) return 0;
  std::string key = position_key(name);
  const char *line = INI_GetLine(myfl_get_appl_name(), key.c_str());
  if (!line) return 0;
  const char *rest = std::strchr(line, ']');
  if (!rest) return 0;
  return std::sscanf(rest + 1, "%d %d", x, y) == 2 ? 1 : 0;
}

int myfl_read_form_size(const char *name, int *w, int *h) {
  if (!name || !*name) return 0;
  std::string key = position_key(name);
  const char *line = INI_GetLine(myfl_get_appl_name(), key.c_str());
  const char *rest = line ? std::strchr(line, ']') : nullptr;
  int x = 0, y = 0;
  if (!rest || std::sscanf(rest + 1, "%d %d %d %d", &x, &y, w, h) != 4) return 0;
  return 1;
}

int myfl_show_form(FL_FORM *form, const char *title) {
  if (!form) return 0;
  myfl_install_keyboard_hook();
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  int x = 0, y = 0;
  bool stored = info && myfl_read_form_position(info->name.c_str(), &x, &y);
  if (stored) {
    // A position from another screen size is pulled back onto the screen.
    x = std::max(0, std::min(x, fl_screen_width() - form->w));
    y = std::max(0, std::min(y, fl_screen_height() - form->h));
  }
  int w = form->w, h = form->h;
  if (info) {
    if (info->w < 0) info->w = form->w;
    if (info->h < 0) info->h = form->h;
    w = info->w;
    h = info->h;
  }
  fl_set_form_minsize(form, w, h);
  if (form->resizable) {
    // A stored size is kept within the screen and not below the form's own.
    fl_set_form_maxsize(form, QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
    int sw = 0, sh = 0;
    if (info && myfl_read_form_size(info->name.c_str(), &sw, &sh))
      fl_set_form_size(form, std::min(sw, std::max(w, fl_screen_width())),
                       std::min(sh, std::max(h, fl_screen_height())));
    int cw = 0, ch = 0;
    fl_get_form_size(form, &cw, &ch);
    if (stored) {
      x = std::max(0, std::min(x, fl_screen_width() - cw));
      y = std::max(0, std::min(y, fl_screen_height() - ch));
    }
  } else {
    fl_set_form_maxsize(form, w, h);
  }
  if (stored) {
    fl_set_form_position(form, x, y);
    fl_show_form(form, FL_PLACE_POSITION, 1, title);
    int ax = 0, ay = 0;
    fl_get_form_position(form, &ax, &ay);
    info->dx = std::max(0, ax - x);
    info->dy = std::max(0, ay - y);
  } else {
    fl_show_form(form, FL_PLACE_CENTER, 1, title);
  }
  myfl_clear_modifiers();
  QWidget *win = form->window;
  QCursor::setPos(win->mapToGlobal(QPoint(form->w / 2, form->h / 2)));
  if (info && info->focus_first) {
    if (fl_object_can_focus(info->focus_first))
      fl_set_focus_object(form, info->focus_first);
    else
      myfl_focus_next_input(form, info->focus_first);
  }
  return 1;
}

void myfl_hide_form(FL_FORM *form) {
  if (!form) return;
  MYFL_FORMINFO *info = myfl_get_forminfo(form);
  if (info && !info->name.empty() && form->visible) {
    int x = 0, y = 0;
    fl_get_form_position(form, &x, &y);
    if (x >= info->dx) x -= info->dx;
    if (y >= info->dy) y -= info->dy;
    std::string key = position_key(info->name);
    char line[INI_LINE_MAX];
    if (form->resizable) {
      // A maximised window stores the size it returns to.
      QSize size = form->window->isMaximized() ? form->window->normalGeometry().size()
                                               : form->window->size();
      std::snprintf(line, sizeof line, "[%s] %d %d %d %d\n", key.c_str(), x, y, size.width(),
                    size.height());
    } else {
      std::snprintf(line, sizeof line, "[%s] %d %d\n", key.c_str(), x, y);
    }
    INI_PutLine(myfl_get_appl_name(), key.c_str(), line);
  }
  fl_hide_form(form);
}

// ---- Modifier keys ----------------------------------------------------------------

void myfl_set_modifier(int key, int down) {
  int v = down ? 1 : 0;
  if (key == FL_KEY_SHIFT) g_shift = v;
  if (key == FL_KEY_ALT) g_alt = v;
  if (key == FL_KEY_CONTROL) g_control = v;
}

int myfl_get_modifier(int key) {
  if (key == FL_KEY_SHIFT) return g_shift;
  if (key == FL_KEY_ALT) return g_alt;
  if (key == FL_KEY_CONTROL) return g_control;
  return 0;
}

void myfl_clear_modifiers() { g_shift = g_alt = g_control = 0; }
