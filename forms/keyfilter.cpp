// The keyboard filter (see keyfilter.h). Its state (the filter object, the
// installed handlers) is process-wide: there is one keyboard per program.
#include "forms/keyfilter.h"

#include "forms/dialogs.h"
#include "forms/editor.h"
#include "forms/popup.h"

#include <QApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QTextEdit>
#include <QWidget>

#include <cctype>
#include <memory>

namespace {

FL_TAB_HANDLER g_tab_handler = nullptr;
FL_KEY_HOOK g_key_hook = nullptr;

// Letters that a text input takes with Control for its own editing.
bool editing_letter(int key) {
  switch (std::tolower(key)) {
  case 'a': case 'c': case 'v': case 'x': case 'y': case 'z':
    return true;
  default:
    return false;
  }
}

// Whether the key is one of a text input's standard editing keys: Home/End,
// Control with Home/End or Left/Right, and the Control letters above. They
// act on the text when a text input has the focus, not on the form.
bool editing_key(const QKeyEvent *e) {
  Qt::KeyboardModifiers mods = e->modifiers() & ~(Qt::ShiftModifier | Qt::KeypadModifier);
  int k = e->key();
  if (mods == Qt::NoModifier) return k == Qt::Key_Home || k == Qt::Key_End;
  if (mods != Qt::ControlModifier) return false;
  switch (k) {
  case Qt::Key_Home:
  case Qt::Key_End:
  case Qt::Key_Left:
  case Qt::Key_Right:
  case Qt::Key_Insert:
    return true;
  default:
    return k >= Qt::Key_A && k <= Qt::Key_Z && editing_letter('a' + (k - Qt::Key_A));
  }
}

bool is_text_input(const QWidget *w) {
  return qobject_cast<const QLineEdit *>(w) || qobject_cast<const QPlainTextEdit *>(w) ||
         qobject_cast<const QTextEdit *>(w);
}

// A key designation's parts: the key's code and the modifiers it needs.
bool matches_one(const char *&s, int key, int control, int alt) {
  int want_ctrl = 0, want_alt = 0, want_key = 0;
  if (*s == '^' && s[1]) {
    want_key = static_cast<unsigned char>(s[1]);
    s += 2;
    if (want_key == '[') // Control-[ is Escape
      return key == FL_KEY_ESCAPE && !control && !alt;
    // A Control letter is also reached with Alt, the modifier the underlined
    // letter suggests. Control with a letter that text inputs use for their
    // own editing (select all, copy, cut, paste, undo) stays with the text:
    // such a shortcut is reached only with Alt.
    if (key != want_key || control == alt) return false;
    return alt || !editing_letter(want_key);
  } else if (*s == '#' && s[1]) {
    want_alt = 1;
    want_key = static_cast<unsigned char>(s[1]);
    s += 2;
  } else if (*s == '&' && s[1] >= '0' && s[1] <= '9') {
    int n = 0;
    ++s;
    while (*s >= '0' && *s <= '9') n = n * 10 + (*s++ - '0');
    if (n < 1 || n > 35) return false;
    want_key = FL_KEY_F1 + n - 1;
  } else {
    want_key = static_cast<unsigned char>(*s);
    ++s;
  }
  return key == want_key && (control != 0) == (want_ctrl != 0) && (alt != 0) == (want_alt != 0);
}

// The form's covering help button: type 3, with a callback, larger than the
// form less 10 pixels each way.
FL_OBJECT *help_button(FL_FORM *form) {
  for (FL_OBJECT *obj : form->objects)
    if (obj->objclass == FL_BUTTON && obj->type == FL_HIDDEN_BUTTON && obj->callback &&
        obj->w > form->w - 10 && obj->h > form->h - 10)
      return obj;
  return nullptr;
}

int modifier_code(int qtkey) {
  switch (qtkey) {
  case Qt::Key_Shift:
    return FL_KEY_SHIFT;
  case Qt::Key_Control:
    return FL_KEY_CONTROL;
  case Qt::Key_Alt:
  case Qt::Key_AltGr:
    return FL_KEY_ALT;
  default:
    return 0;
  }
}

class KeyFilter : public QObject {
protected:
  bool eventFilter(QObject *watched, QEvent *event) override {
    QEvent::Type t = event->type();
    if (t != QEvent::KeyPress && t != QEvent::KeyRelease) return false;
    if (!watched->isWidgetType()) return false;
    // An open pop-up menu owns the keyboard: Escape closes it, arrows and
    // Enter act in it, letters choose entries. None of them reaches the form
    // behind it, also not the release of the key that closed the menu (the
    // form acts on some keys when they are released).
    int key = static_cast<QKeyEvent *>(event)->key();
    if (QApplication::activePopupWidget()) {
      if (t == QEvent::KeyPress) popup_key_ = key;
      return false;
    }
    if (t == QEvent::KeyRelease && popup_key_ != 0 && key == popup_key_) {
      popup_key_ = 0;
      return true;
    }
    if (t == QEvent::KeyPress) popup_key_ = 0;
    auto *w = static_cast<QWidget *>(watched);
    // A key that a child ignored travels on to its parents; it was handled
    // at the focused widget already.
    QWidget *focus = QApplication::focusWidget();
    if (focus && focus != w && w->isAncestorOf(focus)) return false;
    FL_FORM *form = fl_form_of_widget(w);
    if (!form) return false;
    return handle(form, w, static_cast<QKeyEvent *>(event), t == QEvent::KeyPress);
  }

private:
  // The key whose press went to an open pop-up menu, until its release.
  int popup_key_ = 0;
  // The direction of the pressed Tab (1 back, 0 forward), -1 none.
  int tab_back_ = -1;

  bool handle(FL_FORM *form, QWidget *w, QKeyEvent *e, bool pressed) {
    // The release of the key that closed a message or question box reaches
    // the form after the box is gone: skip it. A new press ends the wait.
    if (fl_box_key_pending()) {
      fl_clear_box_key();
      if (!pressed) return true;
    }
    int qtkey = e->key();
    bool ctrl = e->modifiers() & Qt::ControlModifier;
    bool alt = e->modifiers() & Qt::AltModifier;
    // 1. Tab and Shift-Tab, acting at the release. The direction is the
    // press's: Shift may be let go before Tab.
    if (qtkey == Qt::Key_Tab || qtkey == Qt::Key_Backtab) {
      bool back = qtkey == Qt::Key_Backtab || (e->modifiers() & Qt::ShiftModifier);
      if (pressed) {
        tab_back_ = back ? 1 : 0;
      } else {
        if (tab_back_ >= 0) back = tab_back_ == 1;
        tab_back_ = -1;
        FL_FORM *cur = fl_get_current_form() ? fl_get_current_form() : form;
        FL_OBJECT *focus = fl_get_focus_object(cur);
        // An editor passes Tab to the next input field, past its own buttons.
        if (!back && focus && fl_get_editor(focus))
          fl_focus_next_input(cur, focus);
        else if (!(g_tab_handler && g_tab_handler(cur, back ? 1 : 0)))
          fl_focus_next_object(cur, back ? 1 : 0);
      }
      return true;
    }
    // 2. Escape.
    if (qtkey == Qt::Key_Escape && !fl_popup_is_open()) {
      if (!pressed && !e->isAutoRepeat()) {
        if (fl_close_form(form)) fl_send_deactivation(form);
      }
      return true;
    }
    // 3. F1, the help key, for a form with a covering help button. A
    // dialog's visible "Hilfe" button answers to F1 through its shortcut.
    if (qtkey == Qt::Key_F1 && !fl_popup_is_open()) {
      FL_FORM *cur = fl_get_current_form() ? fl_get_current_form() : form;
      if (FL_OBJECT *help = help_button(cur)) {
        if (pressed) {
          help->last_key = FL_KEY_HELP;
          fl_call_object_callback(help);
        }
        return true;
      }
    }
    // 4. Every other key.
    int key = fl_key_code(e);
    FL_OBJECT *focus = fl_object_of_widget(w);
    if (focus && key) focus->last_key = key;
    if (int mod = modifier_code(qtkey)) {
      if (form->raw_key_handler && !e->isAutoRepeat())
        form->raw_key_handler(form, mod, pressed ? 0 : 1);
    }
    // A text input keeps its editing keys, before the form's keys and
    // shortcuts see them.
    if (is_text_input(w) && editing_key(e)) {
      // A one-line input has no Control+Home/End of its own: there they
      // mean its start and end, as Home and End do.
      auto *line = qobject_cast<QLineEdit *>(w);
      if (line && ctrl && (qtkey == Qt::Key_Home || qtkey == Qt::Key_End)) {
        if (pressed) {
          bool mark = e->modifiers() & Qt::ShiftModifier;
          if (qtkey == Qt::Key_Home)
            line->home(mark);
          else
            line->end(mark);
        }
        return true;
      }
      return false;
    }
    if (g_key_hook && key && g_key_hook(form, focus, key, pressed ? 1 : 0)) return true;
    if (pressed && key && form->has_shortcuts) {
      for (FL_OBJECT *obj : form->objects) {
        if (obj->shortcut.empty() || !obj->active) continue;
        if (!fl_shortcut_matches(obj->shortcut.c_str(), key, ctrl, alt)) continue;
        obj->last_key = FL_KEY_ACTIVATE;
        if (obj->objclass == FL_CHECKBUTTON) fl_set_button(obj, fl_get_button(obj) ? 0 : 1);
        fl_call_object_callback(obj);
        return true;
      }
    }
    return false;
  }
};

std::unique_ptr<KeyFilter> g_filter;

} // namespace

void fl_install_keyboard_filter() {
  if (g_filter || !QCoreApplication::instance()) return;
  g_filter = std::make_unique<KeyFilter>();
  QCoreApplication::instance()->installEventFilter(g_filter.get());
}

void fl_remove_keyboard_filter() {
  if (!g_filter) return;
  if (QCoreApplication::instance()) QCoreApplication::instance()->removeEventFilter(g_filter.get());
  g_filter.reset();
}

int fl_keyboard_filter_installed() { return g_filter ? 1 : 0; }

int fl_key_code(const QKeyEvent *e) {
  int k = e->key();
  switch (k) {
  case Qt::Key_Backspace:
    return FL_KEY_BACKSPACE;
  case Qt::Key_Tab:
  case Qt::Key_Backtab:
    return FL_KEY_TAB;
  case Qt::Key_Return:
  case Qt::Key_Enter:
    return FL_KEY_RETURN;
  case Qt::Key_Escape:
    return FL_KEY_ESCAPE;
  case Qt::Key_Home:
    return FL_KEY_HOME;
  case Qt::Key_Left:
    return FL_KEY_LEFT;
  case Qt::Key_Up:
    return FL_KEY_UP;
  case Qt::Key_Right:
    return FL_KEY_RIGHT;
  case Qt::Key_Down:
    return FL_KEY_DOWN;
  case Qt::Key_PageUp:
    return FL_KEY_PAGE_UP;
  case Qt::Key_PageDown:
    return FL_KEY_PAGE_DOWN;
  case Qt::Key_End:
    return FL_KEY_END;
  case Qt::Key_Insert:
    return FL_KEY_INSERT;
  case Qt::Key_Delete:
    return FL_KEY_DELETE;
  default:
    break;
  }
  if (k >= Qt::Key_F1 && k <= Qt::Key_F35) return FL_KEY_F1 + (k - Qt::Key_F1);
  if (int mod = modifier_code(k)) return mod;
  bool ctrl = e->modifiers() & Qt::ControlModifier;
  bool shift = e->modifiers() & Qt::ShiftModifier;
  // With Control the text is a control character: take the key's letter in
  // the case that Shift gives.
  if (ctrl || e->text().isEmpty()) {
    if (k >= Qt::Key_A && k <= Qt::Key_Z) return (shift ? 'A' : 'a') + (k - Qt::Key_A);
    if (k >= 0x20 && k <= 0xFF) return k;
    return 0;
  }
  QChar c = e->text().at(0);
  if (c.unicode() >= 0x20 && c.unicode() <= 0xFF && c.unicode() != 0x7F) return c.unicode();
  return 0;
}

int fl_shortcut_matches(const char *shortcut, int key, int control, int alt) {
  if (!shortcut) return 0;
  const char *s = shortcut;
  while (*s)
    if (matches_one(s, key, control, alt)) return 1;
  return 0;
}

int fl_shortcut_label_index(const char *label, const char *shortcut) {
  if (!label || !shortcut) return -1;
  for (const char *s = shortcut; *s;) {
    int letter = 0;
    if ((*s == '^' || *s == '#') && s[1]) {
      letter = static_cast<unsigned char>(s[1]);
      s += 2;
    } else if (*s == '&') {
      ++s;
      while (*s >= '0' && *s <= '9') ++s;
      continue;
    } else {
      letter = static_cast<unsigned char>(*s++);
    }
    if (!std::isalnum(letter)) continue;
    for (const char *l = label; *l; ++l)
      if (std::tolower(static_cast<unsigned char>(*l)) == std::tolower(letter))
        return static_cast<int>(l - label);
    return -1;
  }
  return -1;
}

FL_TAB_HANDLER fl_set_tab_handler(FL_TAB_HANDLER handler) {
  FL_TAB_HANDLER old = g_tab_handler;
  g_tab_handler = handler;
  return old;
}

FL_KEY_HOOK fl_set_key_hook(FL_KEY_HOOK hook) {
  FL_KEY_HOOK old = g_key_hook;
  g_key_hook = hook;
  return old;
}
