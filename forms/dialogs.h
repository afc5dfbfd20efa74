// Modal boxes of the toolkit: the question box ("Ja" / "Nein" / "Abbrechen",
// title "Frage"), the message box (three lines, title "Hinweis"), the warning
// and error boxes ("Warnung", "Fehler"), single-button alert boxes with a
// title of the caller's and the test seam through which all of them, and the
// pop-up menus of popup.h, pass.
//
// The seam: every box is recorded (kind, title, text, buttons, default, the
// answer given). While the seam is enabled no box is shown: the answer comes
// from a queue that tests fill, or is the box's default when the queue is
// empty. The seam is enabled by default when Qt runs on the "offscreen"
// platform, so nothing ever blocks in a headless test. The keyboard filter's
// rule of skipping the key that closed a box is kept here as a flag; the
// filter itself is in keyfilter.h.
#pragma once

#include <memory>
#include <string>
#include <vector>

class QMessageBox;

enum { FL_DIALOG_MESSAGE = 1, FL_DIALOG_QUESTION = 2, FL_DIALOG_ALERT = 3, FL_DIALOG_POPUP = 4 };
enum { FL_ICON_INFORMATION = 1, FL_ICON_QUESTION = 2, FL_ICON_WARNING = 3, FL_ICON_ERROR = 4 };

// One box or pop-up menu as the user saw it (texts Latin-1).
struct FlShownDialog {
  int kind = 0;
  int icon = 0;
  std::string title;
  std::string text;
  int buttons = 1;                // question boxes: 1, 2 or 3
  int default_button = 0;         // question boxes: the default asked for
  std::vector<std::string> items; // pop-up menus: the items
  int answer = 0;                 // 1 yes/confirm, 2 no, 3 cancel; pop-ups: the item, 0 none
};

// Question box: l1 followed by l2 and l3, each after a line feed when not
// empty; buttons 1 ("OK"), 2 ("Ja" / "Nein") or 3 ("Ja" / "Nein" /
// "Abbrechen"): the program's German words, whatever words the caller passes
// or the platform would use. default_button 2 or 3 makes that button the
// default (3 with two buttons leaves the platform's choice).
// Application-modal, question icon, title "Frage". Returns yes 1, no 2,
// cancel 3.
int fl_show_question(const char *l1, const char *l2, const char *l3, int buttons, const char *b1,
                     const char *b2, const char *b3, int default_button);
// The same box with a title of the caller's instead of "Frage" and the text
// given (for questions such as whether to overwrite an existing file).
int fl_show_titled_question(const char *title, const char *text, int buttons, int default_button);
// Message box: the lines joined as above, one "OK" button, information
// icon, application-modal, title "Hinweis".
void fl_show_message(const char *l1, const char *l2, const char *l3);
// The same with a warning icon and title "Warnung".
void fl_show_warning(const char *l1, const char *l2, const char *l3);
// The same with an error icon and title "Fehler" (for what failed).
void fl_show_error(const char *l1, const char *l2, const char *l3);
// An application-modal box with one "OK" button, the title and text given
// and an FL_ICON_* icon.
void fl_show_alert(const char *title, const char *text, int icon);
// The box "Application is about to terminate!" titled "Warnung".
void fl_show_termination_warning();

// Builds (does not show) the question box described at fl_show_question; the
// caller owns it. For tests of the box's buttons and default.
std::unique_ptr<QMessageBox> fl_make_question_box(const char *text, int buttons, int default_button,
                                                  const char *title = "Frage");
// Joins three lines as the boxes do.
std::string fl_join_lines(const char *l1, const char *l2, const char *l3);

// The flag that makes the keyboard filter skip the key that closed a box.
int fl_box_key_pending();
void fl_clear_box_key();

// ---- Test seam --------------------------------------------------------------

// Enables (1) or disables (0) the seam; -1 returns to the default (enabled on
// the "offscreen" platform).
void fl_seam_enable(int on);
int fl_seam_enabled();
// Queues the answer for the next question box (1, 2, 3) or message box.
void fl_seam_queue_answer(int answer);
// Queues the item the next pop-up menu returns (0: dismissed).
void fl_seam_queue_popup(int item);
// Every box and pop-up menu shown since the last fl_seam_clear.
const std::vector<FlShownDialog> &fl_seam_shown();
// Forgets the record and the queued answers.
void fl_seam_clear();
// Calls fn for every box and pop-up as it is recorded (nullptr: none); lets a
// death test see texts in the ending child.
void fl_seam_set_observer(void (*fn)(const FlShownDialog &));

// Used by popup.cpp: records a pop-up menu; returns 1 and sets *item when the
// seam answers it (enabled), 0 when the menu must really be shown.
int fl_seam_answer_popup(const std::vector<std::string> &items, int *item);
// Used by popup.cpp after a real menu: records the choice.
void fl_seam_record_popup(const std::vector<std::string> &items, int item);
