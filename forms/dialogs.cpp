// Question, message and alert boxes and the test seam (see dialogs.h). The
// seam's state is process-wide: one record and one queue per program.
#include "forms/dialogs.h"

#include <QAbstractButton>
#include <QApplication>
#include <QGuiApplication>
#include <QMessageBox>
#include <QPushButton>

#include <deque>
#include <utility>

namespace {

struct Seam {
  int enabled = -1; // -1: decide by the platform
  std::deque<int> answers;
  std::deque<int> popups;
  std::vector<FlShownDialog> shown;
  void (*observer)(const FlShownDialog &) = nullptr;
};

Seam &seam() {
  static Seam s;
  return s;
}

int g_box_key_pending = 0;

void record(const FlShownDialog &d) {
  seam().shown.push_back(d);
  if (seam().observer) seam().observer(d);
}

QString latin1(const std::string &s) { return QString::fromLatin1(s.data(), s.size()); }

QMessageBox::Icon qt_icon(int icon) {
  switch (icon) {
  case FL_ICON_QUESTION:
    return QMessageBox::Question;
  case FL_ICON_WARNING:
    return QMessageBox::Warning;
  case FL_ICON_ERROR:
    return QMessageBox::Critical;
  default:
    return QMessageBox::Information;
  }
}

// The answer a question box gives without a user: its default button.
int default_answer(int buttons, int default_button) {
  if (buttons >= 2 && default_button == 2) return 2;
  if (buttons == 3 && default_button == 3) return 3;
  return 1;
}

// The program speaks German: the buttons carry its words, whatever the
// platform's language. Each word's first letter is its key: a question box
// takes J, N or A alone (and with Alt) for its button.
void name_buttons(QMessageBox *box) {
  const std::pair<QMessageBox::StandardButton, const char *> words[] = {
      {QMessageBox::Yes, "&Ja"},
      {QMessageBox::No, "&Nein"},
      {QMessageBox::Cancel, "&Abbrechen"},
      {QMessageBox::Ok, "OK"}};
  for (const auto &[which, word] : words)
    if (QAbstractButton *b = box->button(which)) b->setText(QString::fromLatin1(word));
}

int pop_answer(std::deque<int> &q, int fallback) {
  if (q.empty()) return fallback;
  int a = q.front();
  q.pop_front();
  return a;
}

} // namespace

std::string fl_join_lines(const char *l1, const char *l2, const char *l3) {
  std::string text = l1 ? l1 : "";
  for (const char *l : {l2, l3})
    if (l && *l) {
      text += '\n';
      text += l;
    }
  return text;
}

std::unique_ptr<QMessageBox> fl_make_question_box(const char *text, int buttons, int default_button,
                                                  const char *title) {
  auto box = std::make_unique<QMessageBox>();
  box->setIcon(QMessageBox::Question);
  box->setWindowTitle(QString::fromLatin1(title ? title : ""));
  box->setText(QString::fromLatin1(text ? text : ""));
  box->setWindowModality(Qt::ApplicationModal);
  if (buttons <= 1) {
    box->setStandardButtons(QMessageBox::Ok);
  } else if (buttons == 2) {
    box->setStandardButtons(QMessageBox::Yes | QMessageBox::No);
    if (default_button == 2) box->setDefaultButton(QMessageBox::No);
  } else {
    box->setStandardButtons(QMessageBox::Yes | QMessageBox::No | QMessageBox::Cancel);
    if (default_button == 2) box->setDefaultButton(QMessageBox::No);
    if (default_button == 3) box->setDefaultButton(QMessageBox::Cancel);
  }
  name_buttons(box.get());
  return box;
}

int fl_show_titled_question(const char *title, const char *text, int buttons, int default_button) {
  if (buttons < 1) buttons = 1;
  if (buttons > 3) buttons = 3;
  FlShownDialog d;
  d.kind = FL_DIALOG_QUESTION;
  d.icon = FL_ICON_QUESTION;
  d.title = title ? title : "";
  d.text = text ? text : "";
  d.buttons = buttons;
  d.default_button = default_button;
  if (fl_seam_enabled()) {
    d.answer = pop_answer(seam().answers, default_answer(buttons, default_button));
  } else {
    auto box = fl_make_question_box(d.text.c_str(), buttons, default_button, d.title.c_str());
    int r = box->exec();
    d.answer = r == QMessageBox::No ? 2 : r == QMessageBox::Cancel ? 3 : 1;
  }
  g_box_key_pending = 1;
  record(d);
  return d.answer;
}

int fl_show_question(const char *l1, const char *l2, const char *l3, int buttons, const char *,
                     const char *, const char *, int default_button) {
  return fl_show_titled_question("Frage", fl_join_lines(l1, l2, l3).c_str(), buttons,
                                 default_button);
}

void fl_show_alert(const char *title, const char *text, int icon) {
  FlShownDialog d;
  d.kind = icon == FL_ICON_INFORMATION ? FL_DIALOG_MESSAGE : FL_DIALOG_ALERT;
  d.icon = icon;
  d.title = title ? title : "";
  d.text = text ? text : "";
  d.answer = 1;
  if (fl_seam_enabled()) {
    pop_answer(seam().answers, 1);
  } else if (QApplication::instance()) {
    QMessageBox box(qt_icon(icon), latin1(d.title), latin1(d.text), QMessageBox::Ok);
    box.setWindowModality(Qt::ApplicationModal);
    name_buttons(&box);
    box.exec();
  }
  g_box_key_pending = 1;
  record(d);
}

void fl_show_message(const char *l1, const char *l2, const char *l3) {
  fl_show_alert("Hinweis", fl_join_lines(l1, l2, l3).c_str(), FL_ICON_INFORMATION);
}

void fl_show_warning(const char *l1, const char *l2, const char *l3) {
  fl_show_alert("Warnung", fl_join_lines(l1, l2, l3).c_str(), FL_ICON_WARNING);
}

void fl_show_error(const char *l1, const char *l2, const char *l3) {
  fl_show_alert("Fehler", fl_join_lines(l1, l2, l3).c_str(), FL_ICON_ERROR);
}

void fl_show_termination_warning() {
  fl_show_alert("Warnung", "Application is about to terminate!", FL_ICON_WARNING);
}

int fl_box_key_pending() { return g_box_key_pending; }
void fl_clear_box_key() { g_box_key_pending = 0; }

void fl_seam_enable(int on) { seam().enabled = on < 0 ? -1 : (on ? 1 : 0); }

int fl_seam_enabled() {
  if (seam().enabled >= 0) return seam().enabled;
  // Without a GUI there is nobody to answer: answer from the seam.
  if (!QGuiApplication::instance()) return 1;
  return QGuiApplication::platformName() == QLatin1String("offscreen") ? 1 : 0;
}

void fl_seam_queue_answer(int answer) { seam().answers.push_back(answer); }
void fl_seam_queue_popup(int item) { seam().popups.push_back(item); }
const std::vector<FlShownDialog> &fl_seam_shown() { return seam().shown; }

void fl_seam_clear() {
  seam().shown.clear();
  seam().answers.clear();
  seam().popups.clear();
}

void fl_seam_set_observer(void (*fn)(const FlShownDialog &)) { seam().observer = fn; }

int fl_seam_answer_popup(const std::vector<std::string> &items, int *item) {
  if (!fl_seam_enabled()) return 0;
  *item = pop_answer(seam().popups, 0);
  if (*item < 0 || *item > static_cast<int>(items.size())) *item = 0;
  fl_seam_record_popup(items, *item);
  return 1;
}

void fl_seam_record_popup(const std::vector<std::string> &items, int item) {
  FlShownDialog d;
  d.kind = FL_DIALOG_POPUP;
  d.items = items;
  d.answer = item;
  record(d);
}
