// Forms, objects and the event loop (see forms.h). The toolkit's state (the
// form being built, the current form, all forms, the input table and the class
// table) is process-wide and lives in one struct, g, below: a program has one
// toolkit and all of it runs on the GUI thread.
#include "forms/forms.h"

#include "base/msg.h"
#include "forms/console.h"
#include "forms/dialogs.h"
#include "forms/draw.h"
#include "forms/fonts.h"
#include "forms/keyfilter.h"

#include <QApplication>
#include <QLibraryInfo>
#include <QTranslator>
#include <QCheckBox>
#include <QCloseEvent>
#include <QResizeEvent>
#include <QGuiApplication>
#include <QIcon>
#include <QKeyEvent>
#include <QLineEdit>
#include <QListWidget>
#include <QFontMetrics>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QStyle>

#include <algorithm>
#include <map>
#include <memory>

namespace {

struct ClassInfo {
  std::string name;
  FL_FREE_SPEC free_spec = nullptr;
};

struct Toolkit {
  bool initialised = false;
  bool loop_running = false;
  FL_FORM *building = nullptr;
  FL_FORM *current = nullptr;
  std::vector<std::unique_ptr<FL_FORM>> forms;
  std::vector<FL_OBJECT *> inputs;
  std::map<int, ClassInfo> classes = {
      {FL_BUTTON, {"BUTTON", nullptr}},   {FL_CHECKBUTTON, {"CHECKBUTTON", nullptr}},
      {FL_BOX, {"BOX", nullptr}},         {FL_TEXT, {"TEXT", nullptr}},
      {FL_INPUT, {"INPUT", nullptr}},     {FL_FRAME, {"FRAME", nullptr}},
      {FL_LISTBOX, {"LISTBOX", nullptr}},
  };
};

Toolkit g;

const char *const kObjectProperty = "fl_object";
const char *const kFormProperty = "fl_form";

QString latin1(const std::string &s) { return QString::fromLatin1(s.data(), s.size()); }
std::string to_latin1(const QString &s) { return s.toLatin1().toStdString(); }

void link_object(QWidget *w, FL_OBJECT *obj) {
  w->setProperty(kObjectProperty, QVariant::fromValue<quintptr>(reinterpret_cast<quintptr>(obj)));
}

void run_callback(FL_OBJECT *obj) {
  if (obj && obj->callback) obj->callback(obj, obj->argument);
}

// Ends the loop when the last form that was shown has been closed: the
// console and command windows do not keep a program alive.
void quit_if_no_form_shown() {
  if (!g.loop_running) return;
  for (auto &f : g.forms)
    if (f->visible) return;
  fl_finish_event_loop();
}

// The top-level window of a form: asks the close handler before closing and
// makes the form current when it becomes the active window.
void relayout(FL_FORM *form);

class FormWindow : public QWidget {
public:
  explicit FormWindow(FL_FORM *form) : form_(form) {
    setProperty(kFormProperty, QVariant::fromValue<quintptr>(reinterpret_cast<quintptr>(form)));
    setFont(fl_get_font(FL_FONT_HELVETICA_10));
    setAttribute(Qt::WA_DeleteOnClose, false);
  }

protected:
  void closeEvent(QCloseEvent *event) override {
    if (form_->atclose && form_->atclose(form_, form_->atclose_arg) == -1) {
      event->ignore();
      return;
    }
    event->accept();
    form_->visible = 0;
    if (g.current == form_) g.current = nullptr;
    quit_if_no_form_shown();
  }
  void resizeEvent(QResizeEvent *event) override {
    QWidget::resizeEvent(event);
    relayout(form_);
  }
  void changeEvent(QEvent *event) override {
    if (event->type() == QEvent::ActivationChange && isActiveWindow() && g.current != form_) {
      g.current = form_;
      if (form_->atactivate) form_->atactivate(form_, form_->atactivate_arg);
    }
    QWidget::changeEvent(event);
  }

private:
  FL_FORM *form_;
};

// Native push button; symbol labels are drawn as glyphs over the bevel.
class PushButton : public QPushButton {
public:
  PushButton(FL_OBJECT *obj, QWidget *parent) : QPushButton(parent), obj_(obj) {}

protected:
  void paintEvent(QPaintEvent *event) override {
    QPushButton::paintEvent(event);
    if (obj_->show_shortcut) underline_shortcut();
    if (fl_is_symbol_label(obj_->label.c_str())) {
      QPainter p(this);
      QColor c = palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled,
                                 QPalette::ButtonText);
      fl_draw_symbol(p, obj_->label.c_str(), rect(), c);
    }
  }

private:
  // Underlines the shortcut's letter under the centred label text (a
  // mnemonic would give the button a second, Alt shortcut).
  void underline_shortcut() {
    int i = fl_shortcut_label_index(obj_->label.c_str(), obj_->shortcut.c_str());
    if (i < 0 || fl_is_symbol_label(obj_->label.c_str())) return;
    QString text = QString::fromLatin1(obj_->label.c_str());
    QFontMetrics fm(font());
    int x = (width() - fm.horizontalAdvance(text)) / 2 + fm.horizontalAdvance(text.left(i));
    int y = (height() + fm.ascent() - fm.descent()) / 2 + 2;
    QPainter p(this);
    p.setPen(
        palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::ButtonText));
    p.drawLine(x, y, x + fm.horizontalAdvance(text.at(i)) - 1, y);
  }

  FL_OBJECT *obj_;
};

// Reports the input when the user leaves it for another object.
void report_on_leave(FL_OBJECT *obj, QFocusEvent *event) {
  if (event->reason() == Qt::TabFocusReason || event->reason() == Qt::BacktabFocusReason ||
      event->reason() == Qt::MouseFocusReason || event->reason() == Qt::OtherFocusReason)
    fl_input_report(obj, 0);
}

class LineEdit : public QLineEdit {
public:
  LineEdit(FL_OBJECT *obj, QWidget *parent) : QLineEdit(parent), obj_(obj) {}

protected:
  void keyPressEvent(QKeyEvent *event) override {
    if (event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter) {
      fl_input_report(obj_, 1);
      event->accept();
      return;
    }
    QLineEdit::keyPressEvent(event);
  }
  void focusOutEvent(QFocusEvent *event) override {
    QLineEdit::focusOutEvent(event);
    report_on_leave(obj_, event);
  }

private:
  FL_OBJECT *obj_;
};

class MultiLineEdit : public QPlainTextEdit {
public:
  MultiLineEdit(FL_OBJECT *obj, QWidget *parent) : QPlainTextEdit(parent), obj_(obj) {
    setTabChangesFocus(true);
    setLineWrapMode(QPlainTextEdit::NoWrap);
  }

protected:
  void focusOutEvent(QFocusEvent *event) override {
    QPlainTextEdit::focusOutEvent(event);
    report_on_leave(obj_, event);
  }

private:
  FL_OBJECT *obj_;
};

// Draws a label outside its object.
class LabelWidget : public QWidget {
public:
  LabelWidget(FL_OBJECT *obj, QWidget *parent) : QWidget(parent), obj_(obj) {
    setAttribute(Qt::WA_TransparentForMouseEvents);
  }

protected:
  void paintEvent(QPaintEvent *) override {
    QPainter p(this);
    int pos = obj_->align & ~FL_ALIGN_INSIDE;
    // Text beside the object stands next to it; text above or below starts
    // at the object's left edge.
    int align = pos & FL_ALIGN_LEFT    ? FL_ALIGN_RIGHT
                : pos & FL_ALIGN_RIGHT ? FL_ALIGN_LEFT
                : pos & FL_ALIGN_TOP   ? FL_ALIGN_LEFT | FL_ALIGN_BOTTOM
                                       : FL_ALIGN_LEFT | FL_ALIGN_TOP;
    QColor c =
        palette().color(isEnabled() ? QPalette::Active : QPalette::Disabled, QPalette::WindowText);
    int underline = obj_->show_shortcut
                        ? fl_shortcut_label_index(obj_->label.c_str(), obj_->shortcut.c_str())
                        : -1;
    fl_draw_label(p, obj_->label.c_str(), rect(), align, obj_->lstyle & ~FL_FIXED_STYLE,
                  obj_->lsize, c, underline);
  }

private:
  FL_OBJECT *obj_;
};

bool is_native(const FL_OBJECT *obj) {
  return obj->objclass == FL_BUTTON || obj->objclass == FL_CHECKBUTTON;
}

// Labels stand outside inputs and list boxes always (inside alignments are
// read as left), outside other classes when the alignment says so.
bool label_outside(const FL_OBJECT *obj) {
  if (is_native(obj)) return false;
  if (obj->objclass == FL_INPUT || obj->objclass == FL_LISTBOX) return true;
  int pos = obj->align & ~FL_ALIGN_INSIDE;
  return !(obj->align & FL_ALIGN_INSIDE) && pos != FL_ALIGN_CENTER;
}

// Creates, moves or removes the outside label widget to match the object.
void update_label(FL_OBJECT *obj) {
  bool want = label_outside(obj) && !obj->label.empty() && obj->form && obj->form->window;
  if (!want) {
    if (obj->label_widget) {
      delete obj->label_widget;
      obj->label_widget = nullptr;
    }
    return;
  }
  FL_OBJECT tmp = *obj;
  if ((tmp.align & ~FL_ALIGN_INSIDE) == FL_ALIGN_CENTER) tmp.align = FL_ALIGN_LEFT;
  tmp.align &= ~FL_ALIGN_INSIDE;
  QRect r = fl_outside_label_rect(&tmp);
  if (!obj->label_widget) {
    obj->label_widget = new LabelWidget(obj, obj->form->window);
    link_object(obj->label_widget, obj);
  }
  obj->label_widget->setGeometry(r);
  obj->label_widget->setVisible(obj->visible != 0);
  obj->label_widget->setEnabled(obj->active != 0);
  obj->label_widget->update();
}

// Places an object with a resize rule for the window's current size: its
// geometry at the form's own size plus its shares of the growth.
void place_by_rule(FL_OBJECT *obj) {
  FL_FORM *form = obj->form;
  if (!form || !form->window) return;
  int gw = std::max(0, form->window->width() - form->w);
  int gh = std::max(0, form->window->height() - form->h);
  obj->x = obj->base_x + gw * obj->follow[0] / 100;
  obj->w = obj->base_w + gw * obj->follow[1] / 100;
  obj->y = obj->base_y + gh * obj->follow[2] / 100;
  obj->h = obj->base_h + gh * obj->follow[3] / 100;
  if (QWidget *w = obj->widget) {
    QSize old = w->size();
    w->setGeometry(obj->x, obj->y, obj->w, obj->h);
    // A hidden widget hears of its new size only when shown: widgets that
    // keep metrics of their size (the tabbox's lines) are told now.
    if (!w->isVisible() && old != w->size()) {
      QResizeEvent e(w->size(), old);
      QCoreApplication::sendEvent(w, &e);
    }
  }
  update_label(obj);
}

bool has_rule(const FL_OBJECT *obj) {
  return obj->follow[0] || obj->follow[1] || obj->follow[2] || obj->follow[3];
}

// Moves and sizes every object with a resize rule after the window changed.
void relayout(FL_FORM *form) {
  if (!form->resizable) return;
  for (FL_OBJECT *obj : form->objects)
    if (has_rule(obj)) place_by_rule(obj);
}

// The label of a native control: "&" is no mnemonic there.
QString native_label(const FL_OBJECT *obj) {
  if (fl_is_symbol_label(obj->label.c_str())) return QString();
  std::string l = obj->label;
  if (l.size() >= 2 && l[0] == '@' && l[1] == '@') l.erase(0, 1);
  QString s = latin1(l);
  s.replace(QLatin1Char('&'), QLatin1String("&&"));
  return s;
}

// Applies label text and font to the native widget and redraws.
void apply_look(FL_OBJECT *obj) {
  if (!obj->widget) return;
  if (auto *b = qobject_cast<QAbstractButton *>(obj->widget)) {
    b->setText(native_label(obj));
    b->setFont(fl_style_font(obj->lstyle, obj->lsize));
  } else if (obj->objclass == FL_INPUT) {
    // The field's text follows the style's face (fixed style: Courier New).
    obj->widget->setFont((obj->lstyle & FL_FIXED_STYLE) ? fl_get_font(FL_FONT_COURIER_10)
                                                        : fl_get_font(FL_FONT_HELVETICA_10));
  }
  obj->widget->update();
  update_label(obj);
}

[[noreturn]] void outside_begin() {
  fl_show_alert("Fehler", "Object added outside begin!", FL_ICON_ERROR);
  msg_print("Object added outside begin!\n");
  msg_exit_fatal();
}

// Bad argument report of the fl_ operations.
bool bad_object(const FL_OBJECT *obj, int objclass, const char *fn) {
  if (obj && obj->objclass == objclass && obj->widget) return false;
  msg_print("%s: Bad argument or wrong type\n", fn);
  return true;
}

std::string widget_text(const FL_OBJECT *obj) {
  if (auto *le = qobject_cast<QLineEdit *>(obj->widget)) return to_latin1(le->text());
  if (auto *te = qobject_cast<QPlainTextEdit *>(obj->widget)) return to_latin1(te->toPlainText());
  return std::string();
}

// Keeps a multi-line input within its length limit.
void enforce_maxchars(FL_OBJECT *obj, QPlainTextEdit *te) {
  if (obj->maxchars <= 0) return;
  QString text = te->toPlainText();
  if (text.size() <= obj->maxchars) return;
  QTextCursor c = te->textCursor();
  int pos = std::min<int>(c.position(), obj->maxchars);
  QSignalBlocker block(te);
  te->setPlainText(text.left(obj->maxchars));
  c = te->textCursor();
  c.setPosition(pos);
  te->setTextCursor(c);
}

void filter_line_edit(FL_OBJECT *obj, QLineEdit *le) {
  if (obj->type != FL_INT_INPUT && obj->type != FL_FLOAT_INPUT) return;
  int cursor = le->cursorPosition();
  std::string text = to_latin1(le->text());
  std::string kept = fl_filter_numeric_text(obj->type, text, &cursor);
  if (kept == text) return;
  le->setText(latin1(kept));
  le->setCursorPosition(cursor);
}

FL_OBJECT *make_object(int objclass, int type, int x, int y, int w, int h, const char *label) {
  if (!g.building) outside_begin();
  auto obj = std::make_unique<FL_OBJECT>();
  obj->objclass = objclass;
  obj->type = type;
  obj->x = x;
  obj->y = y;
  obj->w = w;
  obj->h = h;
  obj->label = label ? label : "";
  obj->form = g.building;
  auto it = g.classes.find(objclass);
  if (it != g.classes.end()) obj->free_spec = it->second.free_spec;
  FL_FORM *form = g.building;
  FL_OBJECT *raw = obj.get();
  if (!form->first) {
    form->first = raw;
    raw->next = raw;
  } else {
    FL_OBJECT *last = form->objects.back();
    last->next = raw;
    raw->next = form->first;
  }
  form->objects.push_back(obj.release());
  return raw;
}

void attach_widget(FL_OBJECT *obj, QWidget *w) {
  obj->widget = w;
  if (!w) return;
  link_object(w, obj);
  w->setGeometry(obj->x, obj->y, obj->w, obj->h);
  w->setVisible(obj->visible != 0);
  apply_look(obj);
}

void free_object(FL_OBJECT *obj) {
  if (obj->free_spec) obj->free_spec(obj);
  obj->priv = nullptr;
  auto &in = g.inputs;
  in.erase(std::remove(in.begin(), in.end(), obj), in.end());
}

// Releases what a fatal stop must not leave behind: the keyboard filter.
void fatal_cleanup() { fl_remove_keyboard_filter(); }

} // namespace

// ---- Toolkit --------------------------------------------------------------

int fl_init_toolkit(const char *title, char **, int icon) {
  if (g.initialised) return 1;
  if (!qobject_cast<QApplication *>(QCoreApplication::instance())) {
    // Without an application object no window can be made: say so in the
    // box's words (the seam records it, as nothing can be shown) and print it.
    fl_show_alert("Fehler", "Could not register class", FL_ICON_ERROR);
    msg_print("Could not register class\n");
    return 0;
  }
  auto *app = static_cast<QApplication *>(QCoreApplication::instance());
  app->setQuitOnLastWindowClosed(false);
  // The title becomes the application's name (not its display name, which Qt
  // would append to every window title: forms keep exactly their own titles).
  if (title && *title) QCoreApplication::setApplicationName(QString::fromLatin1(title));
  // The program's own icon: a drive, the common picture of a database.
  if (icon >= 0) QApplication::setWindowIcon(app->style()->standardIcon(QStyle::SP_DriveHDIcon));
  fl_load_qt_german();
  fl_create_fonts();
  fl_create_console_windows();
  if (!fl_keyboard_filter_installed()) fl_install_keyboard_filter();
  msg_at_fatal(fatal_cleanup);
  g.initialised = true;
  return 1;
}

int fl_load_qt_german() {
  static QTranslator *translator = nullptr;
  if (translator) return 1;
  auto t = std::make_unique<QTranslator>();
  if (!t->load(QStringLiteral("qtbase_de"), QLibraryInfo::path(QLibraryInfo::TranslationsPath)))
    return 0;
  // The translator lives as long as the program: Qt looks texts up in it
  // whenever a dialog is built.
  translator = t.release();
  QCoreApplication::installTranslator(translator);
  return 1;
}

int fl_toolkit_initialised() { return g.initialised ? 1 : 0; }

int fl_run_forms() {
  if (!QCoreApplication::instance()) return 0;
  g.loop_running = true;
  int rc = QCoreApplication::exec();
  g.loop_running = false;
  return rc;
}

void fl_finish_event_loop() { QCoreApplication::exit(0); }

void fl_exit_toolkit() {
  fl_remove_keyboard_filter();
  while (!g.forms.empty()) fl_free_form(g.forms.back().get());
  g.building = nullptr;
  g.current = nullptr;
  fl_destroy_console_windows();
  fl_delete_fonts();
  msg_remove_at_fatal(fatal_cleanup);
  g.initialised = false;
}

int fl_screen_width() {
  QScreen *s = QGuiApplication::primaryScreen();
  return s ? s->geometry().width() : 1024;
}

int fl_screen_height() {
  QScreen *s = QGuiApplication::primaryScreen();
  return s ? s->geometry().height() : 768;
}

int fl_caption_height() {
  auto *app = qobject_cast<QApplication *>(QCoreApplication::instance());
  return app ? app->style()->pixelMetric(QStyle::PM_TitleBarHeight) : 20;
}

int fl_border_width() {
  auto *app = qobject_cast<QApplication *>(QCoreApplication::instance());
  return app ? app->style()->pixelMetric(QStyle::PM_DefaultFrameWidth) : 1;
}

// ---- Forms ----------------------------------------------------------------

FL_FORM *fl_begin_form(int, int w, int h) {
  if (!qobject_cast<QApplication *>(QCoreApplication::instance())) {
    fl_show_alert("Fehler", "Create form error", FL_ICON_ERROR);
    return nullptr;
  }
  auto form = std::make_unique<FL_FORM>();
  form->w = w;
  form->h = h;
  form->window = new FormWindow(form.get());
  form->window->resize(w, h);
  FL_FORM *raw = form.get();
  g.forms.push_back(std::move(form));
  g.building = raw;
  return raw;
}

void fl_end_form() { g.building = nullptr; }
FL_FORM *fl_current_building_form() { return g.building; }

void fl_free_form(FL_FORM *form) {
  auto it = std::find_if(g.forms.begin(), g.forms.end(),
                         [form](const std::unique_ptr<FL_FORM> &f) { return f.get() == form; });
  if (it == g.forms.end()) return;
  // Widgets go first (their destructors may still look at their objects),
  // then the classes' private records, then the records themselves.
  delete form->window;
  for (FL_OBJECT *obj : form->objects) {
    obj->widget = obj->label_widget = nullptr;
    free_object(obj);
    delete obj;
  }
  form->objects.clear();
  if (g.building == form) g.building = nullptr;
  if (g.current == form) g.current = nullptr;
  g.forms.erase(it);
}

int fl_show_form(FL_FORM *form, int place, int, const char *title) {
  if (!form) return 0;
  fl_set_form_title(form, title);
  QWidget *w = form->window;
  if (place == FL_PLACE_POSITION && form->x >= 0 && form->y >= 0) {
    w->move(form->x, form->y);
  } else if (place == FL_PLACE_CENTER || place == FL_PLACE_POSITION) {
    int x = std::max(0, (fl_screen_width() - form->w) / 2);
    int y = std::max(0, (fl_screen_height() - form->h) / 2);
    w->move(x, y);
    form->x = x;
    form->y = y;
  }
  w->show();
  w->raise();
  w->activateWindow();
  form->visible = 1;
  if (form->focus && form->focus->widget) form->focus->widget->setFocus(Qt::OtherFocusReason);
  return 1;
}

void fl_hide_form(FL_FORM *form) {
  if (!form) return;
  form->window->hide();
  form->visible = 0;
  if (g.current == form) g.current = nullptr;
}

void fl_set_form_position(FL_FORM *form, int x, int y) {
  if (!form) return;
  form->x = x;
  form->y = y;
  form->window->move(x, y);
}

void fl_get_form_position(FL_FORM *form, int *x, int *y) {
  QPoint p = form ? form->window->pos() : QPoint();
  if (x) *x = p.x();
  if (y) *y = p.y();
}

void fl_set_form_minsize(FL_FORM *form, int w, int h) {
  if (form) form->window->setMinimumSize(w, h);
}

void fl_set_form_maxsize(FL_FORM *form, int w, int h) {
  if (form) form->window->setMaximumSize(w, h);
}

void fl_set_form_size(FL_FORM *form, int w, int h) {
  if (!form) return;
  form->window->resize(std::max(w, form->w), std::max(h, form->h));
  relayout(form); // a hidden window gets its resize event only when shown
}

void fl_get_form_size(FL_FORM *form, int *w, int *h) {
  QSize s = form ? form->window->size() : QSize();
  if (w) *w = s.width();
  if (h) *h = s.height();
}

void fl_set_form_title(FL_FORM *form, const char *title) {
  if (!form) return;
  form->title = title ? title : "";
  form->window->setWindowTitle(latin1(form->title));
}

void fl_activate_form(FL_FORM *form) {
  if (!form) return;
  form->active = 1;
  form->window->setEnabled(true);
}

void fl_deactivate_form(FL_FORM *form) {
  if (!form) return;
  form->active = 0;
  form->window->setEnabled(false);
}

void fl_raise_form(FL_FORM *form) {
  if (!form) return;
  form->window->raise();
  form->window->activateWindow();
  if (g.current != form) {
    g.current = form;
    if (form->atactivate) form->atactivate(form, form->atactivate_arg);
  }
}

FL_FORM *fl_get_current_form() { return g.current; }

void fl_send_deactivation(FL_FORM *form) {
  if (!form) return;
  if (form->atdeactivate) form->atdeactivate(form, form->atdeactivate_arg);
  if (g.current == form) g.current = nullptr;
}

void fl_set_form_atclose(FL_FORM *form, FL_FORM_ATCLOSE fn, void *argument) {
  if (!form) return;
  form->atclose = fn;
  form->atclose_arg = argument;
}

void fl_set_form_atactivate(FL_FORM *form, FL_FORM_ATACTIVATE fn, void *argument) {
  if (!form) return;
  form->atactivate = fn;
  form->atactivate_arg = argument;
}

void fl_set_form_atdeactivate(FL_FORM *form, FL_FORM_ATACTIVATE fn, void *argument) {
  if (!form) return;
  form->atdeactivate = fn;
  form->atdeactivate_arg = argument;
}

void fl_set_form_raw_key_handler(FL_FORM *form, FL_RAW_KEY_HANDLER fn) {
  if (form) form->raw_key_handler = fn;
}

int fl_close_form(FL_FORM *form) {
  if (!form) return 0;
  if (!form->window->isVisible()) {
    // A hidden form is asked all the same: the handler decides what closing
    // means for it.
    if (form->atclose && form->atclose(form, form->atclose_arg) == -1) return 0;
    form->visible = 0;
    return 1;
  }
  return form->window->close() ? 1 : 0;
}

void fl_set_focus_object(FL_FORM *form, FL_OBJECT *obj) {
  if (!form || !obj || obj->form != form || !obj->widget) return;
  form->focus = obj;
  obj->widget->setFocus(Qt::OtherFocusReason);
}

FL_OBJECT *fl_get_focus_object(FL_FORM *form) {
  if (!form) return nullptr;
  QWidget *fw = form->window->focusWidget();
  FL_OBJECT *obj = fw ? fl_object_of_widget(fw) : nullptr;
  return obj && obj->form == form ? obj : form->focus;
}

int fl_object_can_focus(FL_OBJECT *obj) {
  if (!obj || !obj->widget || !obj->visible || !obj->active) return 0;
  if (obj->objclass == FL_BUTTON && obj->type == FL_HIDDEN_BUTTON) return 0;
  if (!obj->widget->isEnabled()) return 0;
  if (obj->form && obj->form->window->isVisible() && !obj->widget->isVisible()) return 0;
  return (obj->widget->focusPolicy() & Qt::TabFocus) ? 1 : 0;
}

int fl_focus_next_input(FL_FORM *form, FL_OBJECT *obj) {
  if (!form || !obj || obj->form != form) return 0;
  for (FL_OBJECT *o = obj->next; o && o != obj; o = o->next) {
    if (o->objclass == FL_INPUT && fl_object_can_focus(o)) {
      fl_set_focus_object(form, o);
      return 1;
    }
  }
  return 0;
}

int fl_focus_next_object(FL_FORM *form, int backward) {
  if (!form || form->objects.empty()) return 0;
  // Reading order: by the top edge, then by the left edge; objects at the
  // same place keep the order they were added in.
  std::vector<FL_OBJECT *> order;
  for (FL_OBJECT *o : form->objects)
    if (fl_object_can_focus(o)) order.push_back(o);
  std::stable_sort(order.begin(), order.end(), [](const FL_OBJECT *a, const FL_OBJECT *b) {
    return a->y != b->y ? a->y < b->y : a->x < b->x;
  });
  FL_OBJECT *cur = fl_get_focus_object(form);
  int n = static_cast<int>(order.size());
  int at = -1;
  for (int i = 0; i < n; ++i)
    if (order[i] == cur) at = i;
  FL_OBJECT *next = nullptr;
  if (at < 0)
    next = n ? order[backward ? n - 1 : 0] : nullptr;
  else if (n > 1)
    next = order[((at + (backward ? -1 : 1)) % n + n) % n];
  if (!next) return 0;
  form->focus = next;
  next->widget->setFocus(backward ? Qt::BacktabFocusReason : Qt::TabFocusReason);
  return 1;
}

FL_FORM *fl_form_of_widget(const QWidget *widget) {
  for (const QWidget *w = widget; w; w = w->parentWidget()) {
    QVariant v = w->property(kFormProperty);
    if (v.isValid()) return reinterpret_cast<FL_FORM *>(v.value<quintptr>());
    QVariant o = w->property(kObjectProperty);
    if (o.isValid()) return reinterpret_cast<FL_OBJECT *>(o.value<quintptr>())->form;
  }
  return nullptr;
}

FL_OBJECT *fl_object_of_widget(const QWidget *widget) {
  for (const QWidget *w = widget; w; w = w->parentWidget()) {
    QVariant o = w->property(kObjectProperty);
    if (o.isValid()) return reinterpret_cast<FL_OBJECT *>(o.value<quintptr>());
    if (w->property(kFormProperty).isValid()) return nullptr;
  }
  return nullptr;
}

// ---- Objects --------------------------------------------------------------

int fl_register_class(int objclass, const char *name, FL_FREE_SPEC free_spec) {
  std::string n = name ? name : "";
  auto it = g.classes.find(objclass);
  if (it != g.classes.end() && it->second.name != n) return 0;
  g.classes[objclass] = ClassInfo{n, free_spec};
  return 1;
}

const char *fl_class_name(int objclass) {
  auto it = g.classes.find(objclass);
  return it == g.classes.end() ? "" : it->second.name.c_str();
}

FL_OBJECT *fl_add_object(int objclass, int type, int x, int y, int w, int h, const char *label,
                         const FL_MAKE_WIDGET &make_widget) {
  FL_OBJECT *obj = make_object(objclass, type, x, y, w, h, label);
  obj->align = FL_ALIGN_CENTER;
  QWidget *widget = make_widget ? make_widget(obj, obj->form->window) : nullptr;
  attach_widget(obj, widget);
  return obj;
}

FL_OBJECT *fl_add_button(int type, int x, int y, int w, int h, const char *label) {
  FL_OBJECT *obj = make_object(FL_BUTTON, type, x, y, w, h, label);
  obj->boxtype = FL_UP_BOX;
  auto *b = new PushButton(obj, obj->form->window);
  QObject::connect(b, &QPushButton::clicked, [obj] {
    obj->last_key = FL_KEY_ACTIVATE;
    run_callback(obj);
  });
  b->setAutoDefault(false);
  if (type == FL_HIDDEN_BUTTON) {
    // Invisible: catches the help key for the form, never the mouse.
    obj->visible = 0;
    b->setFocusPolicy(Qt::NoFocus);
  }
  attach_widget(obj, b);
  return obj;
}

FL_OBJECT *fl_add_checkbutton(int type, int x, int y, int w, int h, const char *label) {
  FL_OBJECT *obj = make_object(FL_CHECKBUTTON, type, x, y, w, h, label);
  auto *c = new QCheckBox(obj->form->window);
  QObject::connect(c, &QCheckBox::clicked, [obj] {
    obj->last_key = FL_KEY_ACTIVATE;
    run_callback(obj);
  });
  if (type == FL_HIDDEN_CHECKBUTTON) obj->visible = 0;
  attach_widget(obj, c);
  return obj;
}

namespace {
// Boxes, texts and frames: drawn, and transparent for the mouse so that they
// never hide the objects above them.
FL_OBJECT *add_drawn(int objclass, int type, int x, int y, int w, int h, const char *label,
                     int boxtype, int align) {
  FL_OBJECT *obj = make_object(objclass, type, x, y, w, h, label);
  obj->boxtype = boxtype;
  obj->align = align;
  auto *d = new FlDrawnWidget(obj, obj->form->window);
  d->setAttribute(Qt::WA_TransparentForMouseEvents);
  attach_widget(obj, d);
  return obj;
}
} // namespace

FL_OBJECT *fl_add_box(int type, int x, int y, int w, int h, const char *label) {
  return add_drawn(FL_BOX, type, x, y, w, h, label, type, FL_ALIGN_CENTER);
}

FL_OBJECT *fl_add_text(int type, int x, int y, int w, int h, const char *label) {
  return add_drawn(FL_TEXT, type, x, y, w, h, label, FL_NO_BOX, FL_ALIGN_LEFT | FL_ALIGN_INSIDE);
}

FL_OBJECT *fl_add_frame(int type, int x, int y, int w, int h, const char *label) {
  return add_drawn(FL_FRAME, type, x, y, w, h, label, FL_NO_BOX, FL_ALIGN_TOP);
}

FL_OBJECT *fl_add_input(int type, int x, int y, int w, int h, const char *label) {
  if (!g.building) outside_begin();
  if (static_cast<int>(g.inputs.size()) >= FL_MAX_INPUTS) {
    char text[64];
    std::snprintf(text, sizeof text, "Too many input fields (max %d)", FL_MAX_INPUTS);
    fl_show_alert("Fehler", text, FL_ICON_ERROR);
    msg_exit_fatal();
  }
  FL_OBJECT *obj = make_object(FL_INPUT, type, x, y, w, h, label);
  obj->boxtype = FL_EMBOSSED_BOX;
  obj->align = FL_ALIGN_LEFT;
  obj->how_return = FL_RETURN_CHANGED;
  g.inputs.push_back(obj);
  QWidget *w_ = nullptr;
  if (type == FL_MULTILINE_INPUT) {
    auto *te = new MultiLineEdit(obj, obj->form->window);
    QObject::connect(te, &QPlainTextEdit::textChanged, [obj, te] { enforce_maxchars(obj, te); });
    w_ = te;
  } else {
    auto *le = new LineEdit(obj, obj->form->window);
    QObject::connect(le, &QLineEdit::textEdited, [obj, le] { filter_line_edit(obj, le); });
    w_ = le;
  }
  attach_widget(obj, w_);
  return obj;
}

FL_OBJECT *fl_add_listbox(int type, int x, int y, int w, int h, const char *label) {
  FL_OBJECT *obj = make_object(FL_LISTBOX, type, x, y, w, h, label);
  obj->boxtype = FL_DOWN_BOX;
  obj->align = FL_ALIGN_TOP;
  auto *lw = new QListWidget(obj->form->window);
  lw->setSelectionMode(QAbstractItemView::SingleSelection);
  QObject::connect(lw, &QListWidget::itemClicked, [obj] {
    obj->last_key = FL_KEY_ACTIVATE;
    run_callback(obj);
  });
  QObject::connect(lw, &QListWidget::itemActivated, [obj] {
    obj->last_key = FL_KEY_RETURN;
    run_callback(obj);
  });
  attach_widget(obj, lw);
  return obj;
}

void fl_set_object_boxtype(FL_OBJECT *obj, int boxtype) {
  if (!obj) return;
  obj->boxtype = boxtype;
  fl_redraw_object(obj);
}

void fl_set_object_lalign(FL_OBJECT *obj, int align) {
  if (!obj) return;
  obj->align = align;
  apply_look(obj);
}

void fl_set_object_lsize(FL_OBJECT *obj, int size) {
  if (!obj) return;
  obj->lsize = size;
  apply_look(obj);
}

void fl_set_object_lstyle(FL_OBJECT *obj, int style) {
  if (!obj) return;
  obj->lstyle = style;
  apply_look(obj);
}

void fl_set_object_color(FL_OBJECT *, int, int) {}

void fl_set_object_label(FL_OBJECT *obj, const char *label) {
  if (!obj) return;
  obj->label = label ? label : "";
  apply_look(obj);
}

const char *fl_get_object_label(FL_OBJECT *obj) { return obj ? obj->label.c_str() : ""; }

void fl_set_object_geometry(FL_OBJECT *obj, int x, int y, int w, int h) {
  if (!obj) return;
  obj->x = x;
  obj->y = y;
  obj->w = w;
  obj->h = h;
  if (has_rule(obj)) {
    obj->base_x = x, obj->base_y = y, obj->base_w = w, obj->base_h = h;
    place_by_rule(obj);
    return;
  }
  if (obj->widget) obj->widget->setGeometry(x, y, w, h);
  update_label(obj);
}

void fl_set_object_resize(FL_OBJECT *obj, int move_x, int grow_w, int move_y, int grow_h) {
  if (!obj) return;
  // The rule starts from the geometry at the form's own size: taken back
  // from the current one when a rule was in force already.
  if (!has_rule(obj)) {
    obj->base_x = obj->x, obj->base_y = obj->y, obj->base_w = obj->w, obj->base_h = obj->h;
  }
  obj->follow[0] = move_x, obj->follow[1] = grow_w, obj->follow[2] = move_y;
  obj->follow[3] = grow_h;
  if (obj->form) obj->form->resizable = 1;
  place_by_rule(obj);
}

FL_CALLBACKPTR fl_set_object_callback(FL_OBJECT *obj, FL_CALLBACKPTR callback, long argument) {
  if (!obj) return nullptr;
  FL_CALLBACKPTR old = obj->callback;
  obj->callback = callback;
  obj->argument = argument;
  return old;
}

void fl_call_object_callback(FL_OBJECT *obj) { run_callback(obj); }

void fl_set_object_shortcut(FL_OBJECT *obj, const char *shortcut, int show) {
  if (!obj) return;
  obj->shortcut = shortcut ? shortcut : "";
  obj->show_shortcut = show;
  if (!obj->shortcut.empty() && obj->form) obj->form->has_shortcuts = 1;
  fl_redraw_object(obj);
}

void fl_activate_object(FL_OBJECT *obj) {
  if (!obj) return;
  obj->active = 1;
  if (obj->widget) obj->widget->setEnabled(true);
  if (obj->label_widget) obj->label_widget->setEnabled(true);
}

void fl_deactivate_object(FL_OBJECT *obj) {
  if (!obj) return;
  obj->active = 0;
  if (obj->widget) obj->widget->setEnabled(false);
  if (obj->label_widget) obj->label_widget->setEnabled(false);
}

void fl_show_object(FL_OBJECT *obj) {
  if (!obj) return;
  // The help button and hidden check buttons stay invisible whatever is asked.
  if ((obj->objclass == FL_BUTTON || obj->objclass == FL_CHECKBUTTON) && obj->type == 3) return;
  obj->visible = 1;
  if (obj->widget) obj->widget->show();
  if (obj->label_widget) obj->label_widget->show();
}

void fl_hide_object(FL_OBJECT *obj) {
  if (!obj) return;
  obj->visible = 0;
  if (obj->widget) obj->widget->hide();
  if (obj->label_widget) obj->label_widget->hide();
}

void fl_redraw_object(FL_OBJECT *obj) {
  if (!obj) return;
  if (obj->widget) obj->widget->update();
  if (obj->label_widget) obj->label_widget->update();
}

int fl_get_object_lastkey(FL_OBJECT *obj) { return obj ? obj->last_key : 0; }

// ---- Buttons, inputs, list boxes --------------------------------------------

void fl_set_button(FL_OBJECT *obj, int pushed) {
  auto *b = obj ? qobject_cast<QAbstractButton *>(obj->widget) : nullptr;
  if (!b) {
    msg_print("fl_set_button: Bad argument or wrong type\n");
    return;
  }
  if (b->isCheckable())
    b->setChecked(pushed == 1);
  else if (auto *c = qobject_cast<QCheckBox *>(b))
    c->setChecked(pushed == 1);
}

int fl_get_button(FL_OBJECT *obj) {
  auto *b = obj ? qobject_cast<QAbstractButton *>(obj->widget) : nullptr;
  if (!b) {
    msg_print("fl_get_button: Bad argument or wrong type\n");
    return 0;
  }
  return b->isChecked() ? 1 : 0;
}

void fl_set_input_maxchars(FL_OBJECT *obj, int count) {
  if (bad_object(obj, FL_INPUT, "fl_set_input_maxchars")) return;
  obj->maxchars = count > 0 ? count : 0;
  if (auto *le = qobject_cast<QLineEdit *>(obj->widget))
    le->setMaxLength(obj->maxchars ? obj->maxchars : 32767);
  else if (auto *te = qobject_cast<QPlainTextEdit *>(obj->widget))
    enforce_maxchars(obj, te);
  obj->how_return = FL_RETURN_CHANGED;
}

void fl_set_input_return(FL_OBJECT *obj, int mode) {
  if (!obj) return;
  obj->how_return = mode;
}

void fl_set_input(FL_OBJECT *obj, const char *text) {
  if (bad_object(obj, FL_INPUT, "fl_set_input")) return;
  QString t = QString::fromLatin1(text ? text : "");
  if (auto *le = qobject_cast<QLineEdit *>(obj->widget)) {
    le->setText(t);
  } else if (auto *te = qobject_cast<QPlainTextEdit *>(obj->widget)) {
    te->setPlainText(t);
  }
  obj->report_text = widget_text(obj);
}

const char *fl_get_input(FL_OBJECT *obj) {
  if (bad_object(obj, FL_INPUT, "fl_get_input")) return "";
  obj->text_buffer = widget_text(obj);
  return obj->text_buffer.c_str();
}

int fl_get_input_cursorpos(FL_OBJECT *obj) {
  if (bad_object(obj, FL_INPUT, "fl_get_input_cursorpos")) return 0;
  if (auto *le = qobject_cast<QLineEdit *>(obj->widget)) return le->cursorPosition();
  return static_cast<QPlainTextEdit *>(obj->widget)->textCursor().position();
}

void fl_set_input_cursorpos(FL_OBJECT *obj, int pos) {
  if (bad_object(obj, FL_INPUT, "fl_set_input_cursorpos")) return;
  if (auto *le = qobject_cast<QLineEdit *>(obj->widget)) {
    le->setCursorPosition(pos);
  } else if (auto *te = qobject_cast<QPlainTextEdit *>(obj->widget)) {
    QTextCursor c = te->textCursor();
    c.setPosition(std::clamp(pos, 0, static_cast<int>(te->toPlainText().size())));
    te->setTextCursor(c);
  }
}

int fl_input_count() { return static_cast<int>(g.inputs.size()); }

int fl_input_report(FL_OBJECT *obj, int on_return) {
  if (!obj || obj->objclass != FL_INPUT) return 0;
  std::string text = widget_text(obj);
  bool changed = text != obj->report_text;
  bool report;
  if (obj->how_return == FL_RETURN_CHANGED)
    report = changed;
  else
    report = on_return != 0;
  if (!report) return 0;
  obj->report_text = text;
  if (on_return) obj->last_key = FL_KEY_RETURN;
  run_callback(obj);
  return 1;
}

std::string fl_filter_numeric_text(int type, const std::string &text, int *cursor) {
  if (type != FL_INT_INPUT && type != FL_FLOAT_INPUT) return text;
  std::string kept;
  int removed_before = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    bool ok = (c >= '0' && c <= '9') || c == '-' || (type == FL_FLOAT_INPUT && c == '.');
    if (ok)
      kept += c;
    else if (cursor && static_cast<int>(i) < *cursor)
      ++removed_before;
  }
  if (cursor) *cursor -= removed_before;
  return kept;
}

void fl_addto_listbox(FL_OBJECT *obj, const char *text) {
  if (bad_object(obj, FL_LISTBOX, "fl_addto_listbox")) return;
  static_cast<QListWidget *>(obj->widget)->addItem(QString::fromLatin1(text ? text : ""));
}

void fl_clear_listbox(FL_OBJECT *obj) {
  if (bad_object(obj, FL_LISTBOX, "fl_clear_listbox")) return;
  static_cast<QListWidget *>(obj->widget)->clear();
}

int fl_get_listbox_maxline(FL_OBJECT *obj) {
  if (bad_object(obj, FL_LISTBOX, "fl_get_listbox_maxline")) return 0;
  return static_cast<QListWidget *>(obj->widget)->count();
}

void fl_select_listbox_line(FL_OBJECT *obj, int line) {
  if (bad_object(obj, FL_LISTBOX, "fl_select_listbox_line")) return;
  auto *lw = static_cast<QListWidget *>(obj->widget);
  if (line < 0 || line > lw->count()) {
    msg_print("fl_select_listbox_line: Index out of range\n");
    return;
  }
  if (line == 0)
    lw->clearSelection();
  else
    lw->setCurrentRow(line - 1);
}

int fl_get_listbox(FL_OBJECT *obj) {
  if (bad_object(obj, FL_LISTBOX, "fl_get_listbox")) return 0;
  auto *lw = static_cast<QListWidget *>(obj->widget);
  auto sel = lw->selectedItems();
  return sel.isEmpty() ? 0 : lw->row(sel.front()) + 1;
}

const char *fl_get_listbox_line(FL_OBJECT *obj, int line) {
  if (bad_object(obj, FL_LISTBOX, "fl_get_listbox_line")) return nullptr;
  auto *lw = static_cast<QListWidget *>(obj->widget);
  if (line < 1 || line > lw->count()) {
    msg_print("fl_get_listbox_line: Index out of range\n");
    return nullptr;
  }
  std::string text = to_latin1(lw->item(line - 1)->text());
  // The buffer only grows: a pointer handed out earlier keeps its storage
  // until the next call.
  if (obj->line_buffer.capacity() < text.size() + 1) obj->line_buffer.reserve(text.size() + 1);
  obj->line_buffer = text;
  return obj->line_buffer.c_str();
}
