// The console and command windows (see console.h). Both windows and the
// console's text are process-wide: a program has one console.
#include "forms/console.h"

#include "forms/fonts.h"
#include "forms/forms.h"

#include <QCoreApplication>
#include <QPlainTextEdit>
#include <QScrollBar>
#include <QStyle>
#include <QTextCharFormat>
#include <QThread>
#include <QVBoxLayout>
#include <QWidget>

namespace {

constexpr int kMaxLines = 200;

struct Console {
  std::string text;
  int lines = 0;
  QWidget *window = nullptr;
  QPlainTextEdit *edit = nullptr;
  QWidget *cmd_window = nullptr;
  QPlainTextEdit *cmd_edit = nullptr;
};

Console c;

// A top-level window holding one read-only multi-line field that fills it.
QWidget *make_text_window(const char *title, int x, int y, int w, int h, QPlainTextEdit **edit) {
  auto *win = new QWidget(nullptr, Qt::Window);
  win->setWindowTitle(QString::fromLatin1(title));
  win->setAttribute(Qt::WA_ShowWithoutActivating);
  auto *layout = new QVBoxLayout(win);
  layout->setContentsMargins(0, 0, 0, 0);
  auto *e = new QPlainTextEdit(win);
  e->setReadOnly(true);
  e->setFont(fl_get_font(FL_FONT_HELVETICA_8));
  e->setLineWrapMode(QPlainTextEdit::NoWrap);
  layout->addWidget(e);
  win->resize(w, h);
  win->move(x, y);
  *edit = e;
  return win;
}

void show_restored(QWidget *w) {
  if (w->isMinimized() || !w->isVisible()) w->showNormal();
}

} // namespace

void fl_create_console_windows() {
  if (c.window) return;
  c.window = make_text_window("Console", 0, 0, 640, 300, &c.edit);
  c.edit->setMaximumBlockCount(kMaxLines);
  c.cmd_window = make_text_window("Command", fl_screen_width() - 350, 0, 350, 400, &c.cmd_edit);
  if (!c.text.empty()) {
    QString t = QString::fromLatin1(c.text.c_str());
    t.remove(QLatin1Char('\r'));
    c.edit->setPlainText(t);
  }
  c.window->show();
}

void fl_destroy_console_windows() {
  delete c.window;
  delete c.cmd_window;
  c.window = c.cmd_window = nullptr;
  c.edit = c.cmd_edit = nullptr;
}

int fl_console_print(const char *text) {
  std::string line = text ? text : "";
  // Windows belong to the GUI thread: a print from another thread is handed
  // over to it.
  QCoreApplication *app = QCoreApplication::instance();
  if (app && QThread::currentThread() != app->thread()) {
    QMetaObject::invokeMethod(
        app, [line] { fl_console_print(line.c_str()); }, Qt::QueuedConnection);
    return 1;
  }
  for (char &ch : line)
    if (ch == '\n') ch = ' ';
  if (++c.lines > kMaxLines) {
    size_t nl = c.text.find('\n');
    c.text.erase(0, nl == std::string::npos ? c.text.size() : nl + 1);
    --c.lines;
  }
  if (!c.text.empty()) c.text += "\r\r\n";
  c.text += line;
  if (c.edit) {
    // The field holds the same lines and drops its oldest block itself, so a
    // print costs one line, not the whole text.
    QString t = QString::fromLatin1(line.data(), static_cast<qsizetype>(line.size()));
    t.remove(QLatin1Char('\r'));
    c.edit->appendPlainText(t);
    c.edit->verticalScrollBar()->setValue(c.edit->verticalScrollBar()->maximum());
    show_restored(c.window);
  }
  return 1;
}

const std::string &fl_console_text() { return c.text; }
int fl_console_line_count() { return c.lines; }

void fl_console_clear() {
  c.text.clear();
  c.lines = 0;
  if (c.edit) c.edit->clear();
}

void fl_iconify_console() {
  if (c.window) c.window->showMinimized();
}

int fl_show_console() {
  if (!c.window) return 0;
  show_restored(c.window);
  c.window->raise();
  c.window->activateWindow();
  // The newest line in view, as after a print.
  c.edit->verticalScrollBar()->setValue(c.edit->verticalScrollBar()->maximum());
  return 1;
}

int fl_send_stdio_text(int channel, const char *text) {
  if (!c.cmd_edit) return 0;
  QTextCursor cur = c.cmd_edit->textCursor();
  cur.movePosition(QTextCursor::End);
  QTextCharFormat fmt;
  if (channel == 3) fmt.setForeground(QColor(176, 0, 0));
  QString t = QString::fromLatin1(text ? text : "");
  t.remove(QLatin1Char('\r'));
  cur.insertText(t, fmt);
  c.cmd_edit->setTextCursor(cur);
  c.cmd_edit->verticalScrollBar()->setValue(c.cmd_edit->verticalScrollBar()->maximum());
  show_restored(c.cmd_window);
  return 1;
}

std::string fl_command_text() {
  return c.cmd_edit ? c.cmd_edit->toPlainText().toLatin1().toStdString() : std::string();
}

QWidget *fl_console_window() { return c.window; }
QWidget *fl_command_window() { return c.cmd_window; }
