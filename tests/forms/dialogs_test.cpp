// Question and message boxes, the test seam, pop-up menus.
#include "forms/popup.h"
#include "tests/forms/forms_testutil.h"

#include <QAbstractButton>
#include <QMenu>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>

namespace {

class DialogsTest : public ::testing::Test {
protected:
  void SetUp() override { fl_seam_clear(); }
  void TearDown() override {
    fl_seam_enable(-1);
    fl_seam_clear();
    fl_clear_box_key();
  }
};

TEST_F(DialogsTest, QuestionBoxAnswersAndRecordsWhatItShowed) {
  ASSERT_TRUE(fl_seam_enabled()); // offscreen: the seam answers
  fl_seam_queue_answer(2);
  fl_seam_clear(); // also drops queued answers
  for (int answer : {1, 2, 3}) fl_seam_queue_answer(answer);
  EXPECT_EQ(fl_show_question("Soll Zentiq beendet werden?", "", "", 2, "Ja", "Nein", "", 3), 1);
  EXPECT_EQ(fl_show_question("a", "b", "c", 3, "Ja", "Nein", "Abbruch", 1), 2);
  EXPECT_EQ(fl_show_question("a", "", "c", 3, "Ja", "Nein", "Abbruch", 1), 3);
  // Without a queued answer the default button answers.
  EXPECT_EQ(fl_show_question("x", "", "", 2, "Ja", "Nein", "", 3), 1);
  EXPECT_EQ(fl_show_question("x", "", "", 3, "Ja", "Nein", "", 3), 3);

  // Kind, title, text (empty lines left out), buttons and default of each box.
  const int Q = FL_DIALOG_QUESTION;
  std::vector<std::tuple<int, std::string, std::string, int, int>> shown,
      want = {{Q, "Frage", "Soll Zentiq beendet werden?", 2, 3},
              {Q, "Frage", "a\nb\nc", 3, 1},
              {Q, "Frage", "a\nc", 3, 1},
              {Q, "Frage", "x", 2, 3},
              {Q, "Frage", "x", 3, 3}};
  for (const FlShownDialog &d : fl_seam_shown())
    shown.emplace_back(d.kind, d.title, d.text, d.buttons, d.default_button);
  EXPECT_EQ(shown, want);
  EXPECT_TRUE(fl_box_key_pending());
}

TEST_F(DialogsTest, MessageWarningAndErrorBoxesHaveGermanTitlesAndIcons) {
  fl_show_message("Update nicht möglich", "Primary Key nicht gefunden", "");
  fl_show_warning("w", "", "");
  fl_show_error("Abfrage fehlgeschlagen", "(TAVRIN 301) Tabelle X existiert nicht", "");
  fl_show_termination_warning();
  std::vector<std::tuple<int, int, std::string, std::string>> shown,
      want = {{FL_DIALOG_MESSAGE, FL_ICON_INFORMATION, "Hinweis",
               "Update nicht möglich\nPrimary Key nicht gefunden"},
              {FL_DIALOG_ALERT, FL_ICON_WARNING, "Warnung", "w"},
              {FL_DIALOG_ALERT, FL_ICON_ERROR, "Fehler",
               "Abfrage fehlgeschlagen\n(TAVRIN 301) Tabelle X existiert nicht"},
              {FL_DIALOG_ALERT, FL_ICON_WARNING, "Warnung", "Application is about to terminate!"}};
  for (const FlShownDialog &d : fl_seam_shown())
    shown.emplace_back(d.kind, d.icon, d.title, d.text);
  EXPECT_EQ(shown, want);
}

TEST_F(DialogsTest, RealQuestionBoxHasGermanButtonsAndDefaults) {
  auto two = fl_make_question_box("q", 2, 3);
  EXPECT_EQ(two->standardButtons(), QMessageBox::Yes | QMessageBox::No);
  EXPECT_EQ(two->defaultButton(), nullptr); // 3 of 2: the platform chooses
  EXPECT_EQ(two->windowTitle(), QStringLiteral("Frage"));
  EXPECT_EQ(two->button(QMessageBox::Yes)->text(), QStringLiteral("&Ja"));
  EXPECT_EQ(two->button(QMessageBox::No)->text(), QStringLiteral("&Nein"));
  auto no = fl_make_question_box("q", 2, 2);
  EXPECT_EQ(static_cast<QAbstractButton *>(no->defaultButton()), no->button(QMessageBox::No));
  auto three = fl_make_question_box("q", 3, 3);
  EXPECT_EQ(static_cast<QAbstractButton *>(three->defaultButton()),
            three->button(QMessageBox::Cancel));
  EXPECT_EQ(three->button(QMessageBox::Cancel)->text(), QStringLiteral("&Abbrechen"));
  EXPECT_EQ(fl_make_question_box("q", 1, 1)->standardButtons(), QMessageBox::Ok);

  // With the seam off the box is really shown and modal; a timer answers it
  // with the letter N alone, as a user would.
  fl_seam_enable(0);
  QTimer::singleShot(0, [] {
    auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
    ASSERT_NE(box, nullptr);
    EXPECT_EQ(box->text(), QStringLiteral("Wirklich löschen?\nZeile 3"));
    QTest::keyClick(box, Qt::Key_N);
  });
  EXPECT_EQ(fl_show_question("Wirklich löschen?", "Zeile 3", "", 2, "Ja", "Nein", "", 3), 2);
  ASSERT_EQ(fl_seam_shown().size(), 1u);
  EXPECT_EQ(fl_seam_shown()[0].answer, 2);
}

TEST_F(DialogsTest, PopupDefinitionsAndChoices) {
  using V = std::vector<std::string>;
  // Flags are dropped and add no items or separators.
  EXPECT_EQ(fl_split_popup("Sortierung%h|Spalten optimieren%h%l|Export%h"),
            (V{"Sortierung", "Spalten optimieren", "Export"}));
  // A definition ending in "|" gives no empty last item.
  EXPECT_EQ(fl_split_popup("A|B|"), (V{"A", "B"}));
  EXPECT_EQ(fl_split_popup(""), V{});

  QWidget window;
  EXPECT_EQ(fl_define_popup(&window, "Sortierung%h|Spalten optimieren%h%l|Export%h|"), &window);
  EXPECT_EQ(fl_popup_items().size(), 3u);
  fl_seam_queue_popup(2);
  EXPECT_EQ(fl_do_popup(&window), 2);
  EXPECT_EQ(fl_do_popup(&window), 0); // nothing queued: dismissed
  ASSERT_EQ(fl_seam_shown().size(), 2u);
  EXPECT_EQ(fl_seam_shown()[0].kind, FL_DIALOG_POPUP);
  EXPECT_EQ(fl_seam_shown()[0].items, (V{"Sortierung", "Spalten optimieren", "Export"}));

  // "%s" names an item's letter; it is no part of the text.
  EXPECT_EQ(fl_split_popup("Zeile%sl|Sp&alte"), (V{"Zeile", "Sp&alte"}));

  // A real menu: each item underlines a letter of its own (the taken "S"
  // moves the second to "p"), and the letter chooses the item.
  fl_seam_enable(0);
  QTimer::singleShot(50, [] {
    QMenu *menu = nullptr;
    for (QWidget *w : QApplication::topLevelWidgets())
      if (auto *m = qobject_cast<QMenu *>(w); m && m->isVisible()) menu = m;
    ASSERT_NE(menu, nullptr);
    EXPECT_TRUE(fl_popup_is_open());
    auto actions = menu->actions();
    ASSERT_EQ(actions.size(), 3);
    EXPECT_EQ(actions[0]->text(), "&Sortierung");
    EXPECT_EQ(actions[1]->text(), "S&palten optimieren");
    EXPECT_EQ(actions[2]->text(), "&Export");
    QTest::keyClick(menu, Qt::Key_P);
  });
  // Never hang: whatever happened above, the menu goes away (the timer goes
  // with the window, so that it closes no later test's menu).
  QTimer::singleShot(3000, &window, [] { fl_close_popup(); });
  EXPECT_EQ(fl_do_popup(&window), 2);
  EXPECT_FALSE(fl_popup_is_open());
}

} // namespace
