// Combo boxes: filling from data texts, sorting, choosing codes, the entry
// list and the field driven by real clicks and keys, and the fatal misuses.
// Key-directory and database fills are tested only on their warning paths
// (a disabled session): no server runs in this suite.
#include "framework/combo.h"

#include "base/msg.h"
#include "db/access/session.h"
#include "forms/dialogs.h"
#include "framework/focus.h"
#include "tests/qt_env.h"

#include <QApplication>
#include <QListWidget>
#include <QTest>

#include <cstdio>
#include <string>

namespace {

std::string g_msgs;
void collect(const char *text) { g_msgs += text; }
void to_stderr(const char *text) { std::fputs(text, stderr); }

int g_changes = 0;
std::string g_changed_code;
void on_change(FL_OBJECT *obj, long) {
  ++g_changes;
  g_changed_code = myfl_get_cmb_code(obj);
}

class Combo : public ::testing::Test {
protected:
  void SetUp() override {
    form_ = fl_begin_form(0, 300, 200);
    input_ = fl_add_input(FL_NORMAL_INPUT, 80, 10, 150, 24, "Stadt");
    button_ = fl_add_button(FL_NORMAL_BUTTON, 230, 10, 20, 24, "@2->|");
    other_ = fl_add_input(FL_NORMAL_INPUT, 80, 50, 150, 24, "Other");
    fl_end_form();
    g_msgs.clear();
    g_changes = 0;
    old_ = msg_set_handler(collect);
  }
  void TearDown() override {
    msg_set_handler(old_);
    myfl_free_form_cmbs(form_);
    fl_free_form(form_);
  }
  std::vector<std::string> texts() {
    MYFL_CMB *c = myfl_get_cmb(input_);
    return c ? c->texts : std::vector<std::string>{};
  }
  FL_FORM *form_ = nullptr;
  FL_OBJECT *input_ = nullptr, *button_ = nullptr, *other_ = nullptr;
  MsgHandler old_ = nullptr;
};

TEST_F(Combo, DataTextIsSortedWithTheEmptyChoiceFirst) {
  ASSERT_EQ(myfl_init_data_cmb(form_, input_, button_, "Berlin  ,B|Aachen,A|über,U|Ulm,M", 0), 1);
  MYFL_CMB *c = myfl_get_cmb(button_);
  ASSERT_EQ(c, myfl_get_cmb(input_)) << "registered under the button too";
  // The blank of the empty choice sorts before every ASCII text; lower-case
  // umlauts (negative as signed bytes) sort before the blank.
  std::vector<std::string> want = {"über", " ", "Aachen", "Berlin", "Ulm"};
  EXPECT_EQ(c->texts, want) << "trailing blanks of texts are cut";
  std::vector<std::string> codes = {"U", "    ", "A", "B", "M"};
  EXPECT_EQ(c->codes, codes);
  std::vector<int> order = {2, 4, 1, 0, 3};
  EXPECT_EQ(c->order, order);
  EXPECT_EQ(c->chosen, -1);
  EXPECT_STREQ(myfl_get_cmb_code(input_), "");

  myfl_free_cmb(input_);
  EXPECT_EQ(myfl_get_cmb(button_), nullptr);
  myfl_init_data_cmb(form_, input_, nullptr, "Berlin,B|Aachen,A", 1);
  std::vector<std::string> plain = {"Aachen", "Berlin"};
  EXPECT_EQ(texts(), plain) << "no empty choice with the no-empty flag";
}

TEST_F(Combo, SettingCodesShowsTextsAndWarnsOnUnknownOnes) {
  myfl_init_data_cmb(form_, input_, button_, "Berlin,B|Aachen,A", 0);
  myfl_set_cmb_callback(input_, on_change, 0);
  EXPECT_EQ(myfl_set_cmb_code(input_, "B  "), 1) << "trailing blanks do not count";
  EXPECT_STREQ(fl_get_input(input_), "Berlin");
  EXPECT_STREQ(myfl_get_cmb_code(input_), "B");
  EXPECT_STREQ(myfl_get_cmb_text(input_), "Berlin");
  EXPECT_EQ(g_changes, 1);
  EXPECT_EQ(myfl_set_cmb_code_no_cb(input_, "A"), 1);
  EXPECT_EQ(g_changes, 1);
  EXPECT_STREQ(myfl_get_cmb_text(input_), "Aachen");

  EXPECT_EQ(myfl_set_cmb_code(input_, "X"), 0);
  EXPECT_EQ(g_msgs, "(set_cmb_code) Warning: CMB-Code 'X' is invalid!\n");
  EXPECT_STREQ(fl_get_input(input_), "X") << "the raw code is shown";
  EXPECT_STREQ(myfl_get_cmb_code(input_), "A") << "the choice is kept";
  EXPECT_EQ(g_changes, 1);

  EXPECT_EQ(myfl_set_cmb_code(input_, ""), 1) << "the empty code finds the empty choice";
  EXPECT_STREQ(fl_get_input(input_), "");
  EXPECT_STREQ(myfl_get_cmb_code(input_), "    ");
  EXPECT_EQ(myfl_valid_cmb_code(input_, "A"), 1);
  EXPECT_EQ(myfl_valid_cmb_code(input_, "Z"), 0);

  myfl_addto_cmb(input_, "Celle   ", "C");
  EXPECT_EQ(texts().back(), "Celle");
  EXPECT_EQ(myfl_set_cmb_code(input_, "C"), 1);
}

TEST_F(Combo, BlankCodeWithoutEmptyChoiceChoosesNothing) {
  myfl_init_data_cmb(form_, input_, nullptr, "Berlin,B", 1);
  myfl_set_cmb_code(input_, "B");
  EXPECT_EQ(myfl_set_cmb_code(input_, ""), 0);
  EXPECT_STREQ(fl_get_input(input_), "");
  EXPECT_TRUE(g_msgs.empty());
}

TEST_F(Combo, ListButtonOpensEntriesAndAClickChooses) {
  myfl_init_data_cmb(form_, input_, button_, "Berlin,B|Aachen,A|Celle,C", 0);
  myfl_set_cmb_callback(input_, on_change, 0);
  myfl_set_cmb_code_no_cb(input_, "A");
  show_and_activate(form_);
  QTest::mouseClick(button_->widget, Qt::LeftButton);
  QListWidget *list = myfl_cmb_list();
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->count(), 4);
  EXPECT_EQ(list->item(1)->text(), "Aachen");
  EXPECT_EQ(list->currentRow(), 1) << "the chosen entry is current";
  QTest::mouseClick(list->viewport(), Qt::LeftButton, {},
                    list->visualItemRect(list->item(3)).center());
  QApplication::processEvents();
  EXPECT_EQ(g_changes, 1);
  EXPECT_EQ(g_changed_code, "C");
  EXPECT_STREQ(fl_get_input(input_), "Celle");
  EXPECT_EQ(myfl_cmb_list(), nullptr);

  // Keys in the list: Down and Return choose, Escape closes without choice.
  myfl_cb_open_cmb(button_, 0);
  list = myfl_cmb_list();
  ASSERT_NE(list, nullptr);
  QTest::keyClick(list, Qt::Key_Up);
  QTest::keyClick(list, Qt::Key_Return);
  QApplication::processEvents();
  EXPECT_EQ(g_changed_code, "B");
  myfl_cb_open_cmb(input_, 0);
  ASSERT_NE(myfl_cmb_list(), nullptr);
  QTest::keyClick(myfl_cmb_list(), Qt::Key_Escape);
  QApplication::processEvents();
  EXPECT_EQ(myfl_cmb_list(), nullptr);
  EXPECT_EQ(g_changes, 2);
  fl_hide_form(form_);
}

TEST_F(Combo, TypedTextAndArrowKeysChooseEntries) {
  myfl_install_keyboard_hook();
  myfl_init_data_cmb(form_, input_, button_, "Berlin,B|Aachen,A|Celle,C", 1);
  myfl_set_cmb_callback(input_, on_change, 0);
  show_and_activate(form_);
  fl_set_focus_object(form_, input_);
  QTest::keyClicks(input_->widget, "ber");
  QTest::keyClick(input_->widget, Qt::Key_Return);
  EXPECT_STREQ(fl_get_input(input_), "Berlin") << "a beginning is completed, letters case-blind";
  EXPECT_EQ(g_changed_code, "B");
  QTest::keyClick(input_->widget, Qt::Key_Down);
  EXPECT_EQ(g_changed_code, "C");
  QTest::keyClick(input_->widget, Qt::Key_Down);
  EXPECT_EQ(g_changed_code, "C") << "the last entry stays";
  QTest::keyClick(input_->widget, Qt::Key_Up);
  QTest::keyClick(input_->widget, Qt::Key_Up);
  EXPECT_STREQ(fl_get_input(input_), "Aachen");
  fl_set_input(input_, "");
  QTest::keyClicks(input_->widget, "Xanten");
  QTest::keyClick(input_->widget, Qt::Key_Return);
  EXPECT_STREQ(fl_get_input(input_), "Aachen") << "an unknown text shows the choice again";
  fl_hide_form(form_);
}

TEST_F(Combo, DependentComboOffersOnlyEntriesOfTheSuperordinateCode) {
  myfl_init_data_cmb(form_, input_, nullptr, "Deutschland,DE|Frankreich,FR", 1);
  myfl_init_fhk_svz_cmb(form_, other_, nullptr, nullptr, 5, input_, 0);
  // Fill as a key directory would: text, code, superordinate code.
  MYFL_CMB *city = myfl_get_cmb(other_);
  city->texts = {" ", "Berlin", "Paris"};
  city->codes = {"    ", "B", "P"};
  city->parent_codes = {"", "DE", "FR"};
  city->order = {0, 1, 2};
  myfl_set_cmb_callback(other_, on_change, 0);
  myfl_set_cmb_code(input_, "DE");
  EXPECT_EQ(myfl_valid_cmb_code(other_, "B"), 1);
  EXPECT_EQ(myfl_valid_cmb_code(other_, "P"), 0);
  EXPECT_EQ(myfl_set_cmb_code(other_, "B"), 1);
  EXPECT_STREQ(fl_get_input(other_), "Berlin");
  g_changes = 0;
  myfl_set_cmb_code(input_, "FR");
  EXPECT_STREQ(myfl_get_cmb_code(other_), "    ") << "a new superordinate code empties it";
  EXPECT_STREQ(fl_get_input(other_), "");
  EXPECT_EQ(g_changes, 1);
  myfl_cb_open_cmb(other_, 0);
  ASSERT_NE(myfl_cmb_list(), nullptr);
  EXPECT_EQ(myfl_cmb_list()->count(), 2);
  EXPECT_EQ(myfl_cmb_list()->item(1)->text(), "Paris");
  myfl_close_cmb_list();
  EXPECT_TRUE(g_msgs.empty()) << g_msgs;
}

TEST_F(Combo, KeyDirectoryWithoutRowsWarnsAndStaysEmpty) {
  DBSESSION session;
  session.disabled = 1; // every statement succeeds without rows
  myfl_init_svz_cmb(form_, input_, button_, &session, 17, 1);
  EXPECT_EQ(g_msgs, "(myfl_init_svz_cmb) Warning: SVZ 17 not found\n");
  EXPECT_TRUE(texts().empty());
  g_msgs.clear();
  EXPECT_EQ(myfl_load_db_cmb(&session, input_, "SELECT a,b FROM t"), 0);
  EXPECT_EQ(g_msgs, "(myfl_load_db_cmb) Warning: Table is empty\n");
  EXPECT_EQ(db_depth(), 0) << "the BEGIN level is closed again";
}

TEST_F(Combo, MisuseEndsTheProgram) {
  myfl_init_data_cmb(form_, input_, button_, "A,a", 0);
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_init_data_cmb(form_, input_, nullptr, "B,b", 0);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_init_data_cmb\\) Cmb already defined\n");
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_init_cmb(form_, other_, button_, 0);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_init_cmb\\) Cmb \\(button\\) already defined\n");
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_addto_cmb(other_, "x", "y");
      },
      ::testing::ExitedWithCode(1), "\\(myfl_addto_cmb\\) Cmb not defined\n");
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_set_cmb_callback(other_, on_change, 0);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_get_cmb_text\\) Cmb not defined\n");
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        for (int i = 0; i < MYFL_CMB_MAX; ++i) myfl_addto_cmb(input_, "t", "c");
      },
      ::testing::ExitedWithCode(1), "\\(myfl_addto_cmb\\) Too many keys \\(max = 10000\\)\n");
  std::string big;
  for (int i = 0; i < MYFL_CMB_MAX; ++i) big += "t,c|";
  EXPECT_EXIT(
      {
        msg_set_handler(to_stderr);
        myfl_init_data_cmb(form_, other_, nullptr, big.c_str(), 0);
      },
      ::testing::ExitedWithCode(1), "\\(myfl_init_data_cmb\\) Too many keys \\(max = 10000\\)\n");
}

} // namespace
